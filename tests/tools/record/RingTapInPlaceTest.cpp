// What is written in place comes into the ring in other steps than what is copied in: its bytes
// ahead of its header, and the index past the header alone for a moment.

#include <gtest/gtest.h>

#include <algorithm>

#include "InPlaceWriter.h"
#include "OpenRing.h"
#include "RingTapFixture.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

TEST_F(RingTapTest, WaitsForAPacketInPlaceOfWhichTheIndexHasPassedTheHeaderAlone) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    (void)ring_.Write(1, 300);
    EXPECT_EQ(Story(tap), "1 ");
    const Forgery forged(ring_);
    const std::uint64_t start = forged->wIdx[0];
    (void)ring_.Write(2, 300);
    forged->wIdx[0] = start + kPacketHeaderSize;
    EXPECT_EQ(Story(tap), "");
    RingTap late(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(late), "");
    forged->wIdx[0] = start + kPacketHeaderSize + 300;
    EXPECT_EQ(Story(tap), "2 ");
    EXPECT_EQ(Story(late), "2 ") << "it was not yet handed on in full";
    (void)ring_.Write(3, 300);
    EXPECT_EQ(Story(tap), "3 ");
    EXPECT_EQ(Story(late), "3 ");
}

TEST_F(RingTapTest, RoomThatIsReservedMayBeFilledWhileTheRestOfTheLapIsRead) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    (void)ring_.Write(1, 1000);
    EXPECT_EQ(Story(tap), "1 ");
    for (int number = 2; number <= 4; ++number) {
        (void)ring_.Write(number, 1000);
    }
    Drain();
    InPlaceWriter writer(ring_.Node(0));
    const ReadResult room = writer.Reserve(2500);  // at the start, over packets 1 to 3
    ASSERT_EQ(room.status, SMStatusCode::SUCCESS);
    std::fill(room.data.begin() + 1100, room.data.end(), 99);  // behind packet 2's header
    EXPECT_EQ(Story(tap), "|") << "none of the packets that were there";
    writer.GiveUp();
    (void)ring_.Write(5, 1000);
    EXPECT_EQ(Story(tap), "5 ");
}

TEST_F(RingTapTest, SeesALapThatWentByUnseenAheadOfRoomOfWhichAPacketTookLittle) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    for (int number = 1; number <= 8; ++number) {
        (void)ring_.Write(number, 500);
        EXPECT_EQ(Story(tap), std::to_string(number) + " ");
        Drain();
    }
    (void)ring_.Write(9, 100);
    (void)ring_.Write(10, 300);  // which the next lap does not reach
    Drain();
    EXPECT_EQ(Story(tap), "9 10 ");
    InPlaceWriter writer(ring_.Node(0));
    for (int number = 11; number <= 19; ++number) {
        ASSERT_EQ(writer.Reserve(800).status, SMStatusCode::SUCCESS);
        PacketHeader header;
        header.pts = number;
        ASSERT_EQ(writer.Commit(header, number == 19 ? 10 : 500), SMStatusCode::SUCCESS);
        Drain();
    }
    EXPECT_EQ(Story(tap), "|19 ");
}

TEST_F(RingTapTest, RingOfTwoRecordsALapIsFollowedWithoutOverruns) {
    (void)ring_.Write(1, 2300);
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    for (int number = 2; number <= 20; ++number) {
        (void)ring_.Write(number, 2300);
        EXPECT_EQ(Story(tap), std::to_string(number) + " ");
        Drain();
    }
}

TEST_F(RingTapTest, RoomThatIsHeldForLongIsNoOverrun) {
    for (const std::uint64_t room : {100U, 600U, 1000U, 2300U}) {
        RingTap tap(FileOf(ring_), RingTap::Start::Now);
        InPlaceWriter writer(ring_.Node(0));
        for (int number = 1; number <= 200; ++number) {
            const ReadResult reserved = writer.Reserve(room);
            ASSERT_EQ(reserved.status, SMStatusCode::SUCCESS);
            ASSERT_EQ(Story(tap), "") << room;
            std::fill_n(reserved.data.begin(), 100, static_cast<unsigned char>(number));
            ASSERT_EQ(Story(tap), "") << room;
            PacketHeader header;
            header.pts = number;
            ASSERT_EQ(writer.Commit(header, 100), SMStatusCode::SUCCESS);
            ASSERT_EQ(Story(tap), std::to_string(number) + " ") << room;
            Drain();
        }
    }
}

TEST_F(RingTapTest, LapThatEndsAtTheVeryEndBeforeTheFirstLookIsDelivered) {
    constexpr std::size_t kFifth = RingUnderTest::kSize / 5 - kPacketHeaderSize;
    (void)ring_.Write(1, kFifth);
    RingTap tap(FileOf(ring_), RingTap::Start::Lap);
    for (int number = 2; number <= 5; ++number) {
        (void)ring_.Write(number, kFifth);
        Drain();
    }
    EXPECT_EQ(Story(tap), "1 2 3 4 5 ");
    (void)ring_.Write(6, kFifth);
    EXPECT_EQ(Story(tap), "6 ");
}

TEST(RingTapOfManyRecords, BeginsAtTheHeaderThatTheIndexHasPassedAlone) {
    constexpr std::uint64_t kSize = 4U << 20U;
    constexpr int kRecords = 100'000;
    const UniqueRingName name;
    const auto ring = OpenRing({name.Name(), kSize, 0, false, 0});
    for (int number = 0; number < kRecords; ++number) {
        ASSERT_EQ(ring->WritePacket({}), SMStatusCode::SUCCESS);
    }
    // What the index has behind it looks like a header with a payload to come.
    std::vector<unsigned char> payload(300);
    payload[300 - kPacketHeaderSize] = 100;
    Packet packet;
    packet.header.pts = 1;
    packet.data = payload;
    ASSERT_EQ(ring->WritePacket(packet), SMStatusCode::SUCCESS);
    const Forgery forged(name.Path());
    const std::uint64_t end = forged->wIdx[0];
    const auto tapOf = [&] {
        return RingTap(RingFile::Open(name.Name()).value(), RingTap::Start::Now);
    };
    RingTap afterIt = tapOf();
    EXPECT_EQ(Story(afterIt), "");

    forged->wIdx[0] = end - 300;
    RingTap withIt = tapOf();
    EXPECT_EQ(Story(withIt), "");
    forged->wIdx[0] = end;
    EXPECT_EQ(Story(withIt), "1 ");
    packet.header.pts = 2;
    ASSERT_EQ(ring->WritePacket(packet), SMStatusCode::SUCCESS);
    EXPECT_EQ(Story(withIt), "2 ");
    EXPECT_EQ(Story(afterIt), "2 ");
}

}  // namespace
}  // namespace qel::test
