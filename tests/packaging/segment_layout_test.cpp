// Where the built library really puts things: a client of the shared library works on a ring, and
// the bytes of the object file are looked at by absolute offset, without the library.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "SharedMemLibFactory.h"
#include "UniqueRingName.h"

namespace qel {
namespace {

constexpr std::size_t kAvail = 0;
constexpr std::size_t kWriteIndex = 40;
constexpr std::size_t kReadIndex = 80;
constexpr std::size_t kNumPackets = 120;
constexpr std::size_t kInitialised = 124;
constexpr std::size_t kMaxPackets = 128;
constexpr std::size_t kHalfSize = 136;
constexpr std::size_t kQuarterSize = 144;
constexpr std::size_t kDataArea = 152;

using Bytes = std::vector<unsigned char>;
using Counters = std::array<std::uint64_t, 5>;

class SegmentFile : public ::testing::Test {
protected:
    std::unique_ptr<SharedPacketBufferIF> Open(std::uint64_t size, std::uint8_t node, bool sink,
                                               std::uint32_t maxFrames = 0) {
        auto result = SharedMemLibFactory::Create()->GetSharedPacketBuffer(
            {name_.Name(), size, node, sink, maxFrames});
        EXPECT_EQ(result.status, SMStatusCode::SUCCESS);
        return std::move(result.buffer);
    }

    [[nodiscard]] Bytes Contents() const {
        std::ifstream file(name_.Path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    [[nodiscard]] Bytes BytesAt(std::size_t offset, std::size_t length) const {
        const Bytes contents = Contents();
        EXPECT_GE(contents.size(), offset + length);
        Bytes bytes(length);
        std::memcpy(bytes.data(), contents.data() + offset, length);
        return bytes;
    }

    template <typename T>
    [[nodiscard]] T At(std::size_t offset) const {
        T value{};
        std::memcpy(&value, BytesAt(offset, sizeof value).data(), sizeof value);
        return value;
    }

    qel::test::UniqueRingName name_;
};

Packet PacketOf(Bytes& payload) {
    return {{}, {payload.data(), payload.size()}};
}

TEST_F(SegmentFile, FreshObjectHoldsSizesAndLimitAndOtherwiseZeros) {
    constexpr std::uint64_t kSize = 1003;
    const auto buffer = Open(kSize, 0, false, 4);

    Bytes expected(kSize + kDataArea);
    const auto put = [&expected](std::size_t offset, auto value) {
        std::memcpy(expected.data() + offset, &value, sizeof value);
    };
    put(kAvail, kSize);
    put(kInitialised, std::uint8_t{1});
    put(kMaxPackets, std::uint32_t{5});
    put(kHalfSize, std::uint64_t{501});
    put(kQuarterSize, std::uint64_t{250});
    EXPECT_EQ(Contents(), expected);
}

TEST_F(SegmentFile, WrittenPacketStandsAtTheStartOfTheDataArea) {
    const auto writer = Open(1000, 0, false, 4);
    Bytes payload{'h', 'e', 'l', 'l', 'o'};
    Packet packet = PacketOf(payload);
    packet.header.pts = 0x1122334455667788;
    packet.header.key = true;
    packet.header.timestampSec = 0xA1A2A3A4;
    packet.header.timestampUsec = 0xB1B2B3B4;
    ASSERT_EQ(writer->WritePacket(packet), SMStatusCode::SUCCESS);

    const Bytes record{5,    0,    0,    0,    0,    0,    0,    0,     // length
                       0,                                               // ignoreData
                       0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // pts
                       1,                                               // key
                       0xA4, 0xA3, 0xA2, 0xA1,                          // timestampSec
                       0xB4, 0xB3, 0xB2, 0xB1,                          // timestampUsec
                       'h',  'e',  'l',  'l',  'o'};
    EXPECT_EQ(BytesAt(kDataArea, record.size()), record);
    EXPECT_EQ(At<Counters>(kAvail), (Counters{969, 31, 0, 0, 0}));
    EXPECT_EQ(At<Counters>(kWriteIndex), (Counters{31, 0, 0, 0, 0}));
    EXPECT_EQ(At<Counters>(kReadIndex), (Counters{0, 0, 0, 0, 0}));
    EXPECT_EQ(At<std::uint32_t>(kNumPackets), 1U);
}

TEST_F(SegmentFile, EveryNodeOfTheChainHasCountersOfItsOwn) {
    constexpr std::uint8_t kSink = 4;
    std::vector<std::unique_ptr<SharedPacketBufferIF>> nodes;
    for (std::uint8_t node = 0; node <= kSink; ++node) {
        nodes.push_back(Open(1000, node, node == kSink, 4));
    }
    Bytes payload{1, 2, 3, 4};
    ASSERT_EQ(nodes[0]->WritePacket(PacketOf(payload)), SMStatusCode::SUCCESS);

    Counters avail{970, 30, 0, 0, 0};
    Counters readIndex{};
    for (std::size_t node = 1; node <= kSink; ++node) {
        SCOPED_TRACE(node);
        const auto read = nodes[node]->ReadNextPacket();
        ASSERT_EQ(read.status, SMStatusCode::SUCCESS);
        avail.at(node) = 0;
        readIndex.at(node) = 30;
        EXPECT_EQ(At<Counters>(kAvail), avail);
        EXPECT_EQ(At<Counters>(kReadIndex), readIndex);
        EXPECT_EQ(At<std::uint32_t>(kNumPackets), 1U);

        ASSERT_EQ(nodes[node]->ReleasePacket(read.packet), SMStatusCode::SUCCESS);
        avail.at(node == kSink ? 0 : node + 1) += 30;
        EXPECT_EQ(At<Counters>(kAvail), avail);
    }
    EXPECT_EQ(At<Counters>(kAvail), (Counters{1000, 0, 0, 0, 0}));
    EXPECT_EQ(At<Counters>(kWriteIndex), (Counters{30, 0, 0, 0, 0}));
    EXPECT_EQ(At<std::uint32_t>(kNumPackets), 0U);
}

TEST_F(SegmentFile, FillerRunsToTheEndOfTheObjectAndLeavesItsPayloadAsItWas) {
    constexpr std::uint64_t kSize = 300;
    const auto writer = Open(kSize, 0, false);
    const auto reader = Open(kSize, 1, true);
    Bytes payload(124, 0xEE);
    // The first record takes 150 bytes, and so would the second: it ends exactly at the end.
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(writer->WriteCriticalPacket(PacketOf(payload)), SMStatusCode::SUCCESS);
        ASSERT_EQ(reader->ReleasePacket(reader->ReadNextPacket().packet), SMStatusCode::SUCCESS);
    }
    ASSERT_EQ(At<Counters>(kWriteIndex)[0], 0U);
    ASSERT_EQ(writer->WriteCriticalPacket(PacketOf(payload)), SMStatusCode::SUCCESS);
    ASSERT_EQ(reader->ReleasePacket(reader->ReadNextPacket().packet), SMStatusCode::SUCCESS);

    Bytes odd(105, 0xDD);  // would leave 19 bytes, too few for a header
    ASSERT_EQ(writer->WriteCriticalPacket(PacketOf(odd)), SMStatusCode::SUCCESS);

    Bytes filler(150, 0xEE);
    std::fill_n(filler.begin(), 26, std::uint8_t{0});
    filler[0] = 124;  // length
    filler[8] = 1;    // ignoreData
    EXPECT_EQ(BytesAt(kDataArea + 150, 150), filler);
    EXPECT_EQ(BytesAt(kDataArea, 1), Bytes{105});
    EXPECT_EQ(At<Counters>(kAvail)[1], 150U + 131U);
}

TEST_F(SegmentFile, ViewIsReturnedAsLengthThenPointerAndStatus) {
    const auto buffer = Open(1000, 0, false);
    const ReadResult result = buffer->ReadData(7, 5);

    static_assert(sizeof(ReadResult) == 24);
    std::uint64_t length = 0;
    const unsigned char* data = nullptr;
    std::uint32_t status = 99;
    const auto* const raw = reinterpret_cast<const unsigned char*>(&result);
    std::memcpy(&length, raw, sizeof length);
    std::memcpy(&data, raw + 8, sizeof data);
    std::memcpy(&status, raw + 16, sizeof status);
    EXPECT_EQ(length, 5U);
    EXPECT_EQ(data, result.data.data());
    EXPECT_EQ(status, 0U);
}

}  // namespace
}  // namespace qel
