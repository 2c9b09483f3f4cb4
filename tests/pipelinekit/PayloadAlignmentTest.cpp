#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "OpenRing.h"
#include "PacketReader.h"
#include "PayloadAlignment.h"
#include "RingRules.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

/// Writes a packet as the function's contract says; its payload is filled with its number.
void WriteAligned(SharedPacketBufferIF& ring, std::uint64_t ringSize, std::uint64_t size,
                  unsigned char number) {
    std::vector<unsigned char> zeros(ringSize);
    while (const auto padding = PaddingAhead(WriteIndexOf(ring, 0), size, ringSize)) {
        Packet filler;
        filler.header.ignoreData = true;
        filler.data = ByteSpan(zeros).first(*padding);
        ASSERT_EQ(ring.WritePacket(filler), SMStatusCode::SUCCESS);
    }
    std::vector<unsigned char> payload(size, number);
    Packet packet;
    packet.data = payload;
    ASSERT_EQ(ring.WritePacket(packet), SMStatusCode::SUCCESS);
}

class PayloadAlignment : public testing::TestWithParam<std::uint64_t> {};

TEST_P(PayloadAlignment, PayloadsOfManyLapsLieAtAlignedAddressesAndOnlyTheyAreDelivered) {
    const std::uint64_t ringSize = 40000 + GetParam();
    const UniqueRingName name;
    const auto writer = OpenRing({name.Name(), ringSize, 0, false, 0});
    const auto reader = OpenRing({name.Name(), ringSize, 1, true, 0});
    PacketReader packets(*reader);
    for (unsigned i = 0; i < 500; ++i) {
        const std::uint64_t size = 1 + i * 37 % (ringSize / 2);
        WriteAligned(*writer, ringSize, size, static_cast<unsigned char>(i));
        const auto received = packets.TryNext();
        ASSERT_TRUE(received && received->outcome == ReadOutcome::Packet) << i;
        const ByteSpan& data = received->packet.data;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data.data()) % kPayloadAlignment, 0U) << i;
        EXPECT_EQ(data.size(), size);
        EXPECT_EQ(data[0], static_cast<unsigned char>(i));
        EXPECT_EQ(data[size - 1], static_cast<unsigned char>(i));
        ASSERT_EQ(packets.Release(received->ticket), SMStatusCode::SUCCESS);
    }
    EXPECT_EQ(packets.TryNext(), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(RingsOfAnySize, PayloadAlignment,
                         testing::Values(0U, 1U, 25U, 26U, 27U, 63U, 64U, 3331U));

TEST(PaddingAhead, IsNoneForAPacketThatIsAlignedAndFits) {
    const std::uint64_t aligned = 64 * 3 - kControlBlockSize - kPacketHeaderSize;
    EXPECT_EQ(PaddingAhead(aligned, 100, 10000), std::nullopt);
}

TEST(PaddingAhead, MovesThePayloadToTheNextAlignedAddress) {
    const std::uint64_t index = 1000;
    const auto padding = PaddingAhead(index, 100, 10000);
    ASSERT_TRUE(padding);
    EXPECT_LT(*padding, kPayloadAlignment);
    EXPECT_EQ((kControlBlockSize + index + 2 * kPacketHeaderSize + *padding) % kPayloadAlignment,
              0U);
}

TEST(PaddingAhead, ReachesToTheEndOfTheRingIfThePacketHasNoRoomAheadOfIt) {
    EXPECT_EQ(PaddingAhead(9900, 100, 10000), 10000 - 9900 - kPacketHeaderSize);
    EXPECT_EQ(PaddingAhead(9974, 100, 10000), 0U);
}

TEST(PaddingAhead, LeavesTheRoomBehindThePayloadThatIsAskedFor) {
    const std::uint64_t index = 64 * 160 - kControlBlockSize - kPacketHeaderSize;  // aligned
    const std::uint64_t exactly = index + kPacketHeaderSize + 400;
    EXPECT_EQ(PaddingAhead(index, 400, exactly), std::nullopt);
    EXPECT_EQ(PaddingAhead(index, 400, exactly, 26), 400U) << "to the ring's end";
    EXPECT_EQ(PaddingAhead(index, 400, 10000, 26), std::nullopt);
    EXPECT_NE(PaddingAhead(1, 5000, 10000, 26), std::nullopt) << "half the ring, as without";
}

TEST(PaddingAhead, LeavesPacketsOfMoreThanHalfTheRingAsTheyAre) {
    EXPECT_NE(PaddingAhead(1, 5000, 10000), std::nullopt);
    EXPECT_EQ(PaddingAhead(1, 5001, 10000), std::nullopt);
}

TEST(PaddingAhead, LeavesPacketsAsTheyAreInARingWithoutRoomForPadding) {
    EXPECT_EQ(PaddingAhead(1, 10, 200), std::nullopt);
}

TEST(PaddingAhead, IsNoneForAForgedIndex) {
    EXPECT_EQ(PaddingAhead(9975, 100, 10000), std::nullopt);
    EXPECT_EQ(PaddingAhead(10000, 100, 10000), std::nullopt);
    EXPECT_EQ(PaddingAhead(UINT64_MAX, 100, 10000), std::nullopt);
}

}  // namespace
}  // namespace qel::test
