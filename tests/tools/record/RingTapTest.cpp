#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "EndOfStream.h"
#include "RingTapFixture.h"

namespace qel::test {
namespace {

TEST_F(RingTapTest, DeliversWhatIsWrittenFromNowOn) {
    (void)ring_.Write(1, 100);
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(tap), "");
    const auto content = ring_.Write(2, 77);
    const TapResult result = tap.TryNext();
    EXPECT_EQ(result.outcome, TapOutcome::Packet);
    EXPECT_EQ(+result.header.pts, 2);
    EXPECT_TRUE(result.header.key);
    EXPECT_EQ(+result.header.timestampSec, 7U);
    EXPECT_EQ(+result.header.length, 77U);
    EXPECT_EQ(std::vector<unsigned char>(result.payload.begin(), result.payload.end()), content);
    EXPECT_EQ(Story(tap), "");
}

TEST_F(RingTapTest, DeliversFromTheOldestThatTheSinkHasNotRead) {
    for (int number = 1; number <= 4; ++number) {
        (void)ring_.Write(number, 100);
    }
    (void)ring_.Read(1);
    RingTap tap(FileOf(ring_), RingTap::Start::Oldest);
    EXPECT_EQ(Story(tap), "2 3 4 ");
}

TEST_F(RingTapTest, DeliversFromTheStartOfTheLap) {
    (void)ring_.Write(1, 100);
    (void)ring_.Write(2, 100);
    Drain();
    RingTap tap(FileOf(ring_), RingTap::Start::Lap);
    EXPECT_EQ(Story(tap), "1 2 ");
}

TEST_F(RingTapTest, OldestMayStandInTheLapBefore) {
    for (int number = 0; number < 4; ++number) {
        (void)ring_.Write(number, 1000);
    }
    Drain();
    (void)ring_.Write(4, 600);   // up to near the end
    (void)ring_.Write(5, 1000);  // behind a filler, at the start
    RingTap tap(FileOf(ring_), RingTap::Start::Oldest);
    EXPECT_EQ(Story(tap), "4 5 ");
}

TEST_F(RingTapTest, FollowsThroughManyLaps) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(tap), "");
    for (int number = 1; number < 200; ++number) {
        (void)ring_.Write(number, static_cast<std::size_t>(number * 37 % 700));
        Drain();
        EXPECT_EQ(Story(tap), std::to_string(number) + " ");
    }
}

TEST_F(RingTapTest, ReadsTheRestOfALapWhileTheWriterIsInTheNext) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    for (int number = 1; number <= 9; ++number) {
        (void)ring_.Write(number, 500);
        if (number == 2) {
            EXPECT_EQ(Story(tap), "1 2 ");
        }
    }
    EXPECT_EQ(Story(tap, 3), "3 4 5 ");
    Drain();
    (void)ring_.Write(10, 500);
    (void)ring_.Write(11, 500);
    EXPECT_EQ(Story(tap), "6 7 8 9 10 11 ");
}

TEST_F(RingTapTest, SaysThatItWasOverrunAndGoesOnAtTheStartOfTheLap) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(tap), "");
    for (int number = 1; number <= 12; ++number) {
        (void)ring_.Write(number, 1000);
        Drain();
    }
    EXPECT_EQ(Story(tap), "|9 10 11 12 ");
    (void)ring_.Write(13, 1000);
    EXPECT_EQ(Story(tap), "13 ");
}

TEST_F(RingTapTest, SeesAShortLapThatWentByUnseen) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(tap), "");
    for (int number = 1; number <= 4; ++number) {
        (void)ring_.Write(number, 1150);  // to 4704
        EXPECT_EQ(Story(tap), std::to_string(number) + " ");
        Drain();
    }
    (void)ring_.Write(5, 1000);  // a lap of one packet
    Drain();
    std::vector<unsigned char> large(4000);
    Packet packet;
    packet.header.pts = 6;
    packet.data = large;
    EXPECT_NE(ring_.Node(0).WritePacket(packet), SMStatusCode::SUCCESS) << "a filler is put there";
    Drain();
    EXPECT_EQ(ring_.Node(0).WritePacket(packet), SMStatusCode::SUCCESS);
    EXPECT_EQ(Story(tap), "|6 ");
}

TEST_F(RingTapTest, WaitsForAFillerThatIsUnderWay) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    for (int number = 1; number <= 8; ++number) {
        (void)ring_.Write(number, 500);
        EXPECT_EQ(Story(tap), std::to_string(number) + " ");
    }
    const Forgery forged(ring_);
    const std::uint64_t index = forged->wIdx[0];
    PacketHeader filler;
    filler.ignoreData = true;
    filler.length = RingUnderTest::kSize - index - kPacketHeaderSize;
    std::memcpy(forged.Data() + index, &filler, sizeof(filler));
    forged->wIdx[0] = index + kPacketHeaderSize;
    EXPECT_EQ(Story(tap), "");
    RingTap late(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(late), "");
    forged->avail[0] -= RingUnderTest::kSize - index;
    forged->avail[1] += RingUnderTest::kSize - index;
    forged->wIdx[0] = 0;
    EXPECT_EQ(Story(tap), "");
    EXPECT_EQ(Story(late), "");
    Drain();
    (void)ring_.Write(9, 500);
    EXPECT_EQ(Story(tap), "9 ");
    EXPECT_EQ(Story(late), "9 ");
}

TEST_F(RingTapTest, DoesNotDeliverWhatAWriterMayBeWritingOver) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    for (int number = 1; number <= 9; ++number) {
        (void)ring_.Write(number, 500);
        if (number == 5) {
            EXPECT_EQ(Story(tap), "1 2 3 4 5 ");
        }
    }
    Drain();
    (void)ring_.Write(10, 500);  // at the start, and the next is begun behind it
    const Forgery forged(ring_);
    const std::uint64_t index = forged->wIdx[0];
    PacketHeader header;
    header.pts = 11;
    header.length = 3000;
    std::memcpy(forged.Data() + index, &header, sizeof(header));
    std::memset(forged.Data() + 3000, 'X', 20);  // within 6
    EXPECT_EQ(Story(tap), "|10 ");
}

TEST_F(RingTapTest, EndMarkAndEmptyPacketsAreDelivered) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    EXPECT_EQ(Story(tap), "");
    EXPECT_EQ(ring_.Node(0).WritePacket({}), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring_.Node(0).WriteCriticalPacket(MakeEndOfStream()), SMStatusCode::SUCCESS);
    EXPECT_EQ(Story(tap), "0 -9223372036854775808 ");
}

TEST_F(RingTapTest, EmptyPacketsAtTheStartOfTheLapAreDelivered) {
    EXPECT_EQ(ring_.Node(0).WritePacket({}), SMStatusCode::SUCCESS);
    EXPECT_EQ(ring_.Node(0).WriteCriticalPacket(MakeEndOfStream()), SMStatusCode::SUCCESS);
    for (const auto start : {RingTap::Start::Lap, RingTap::Start::Oldest}) {
        RingTap tap(FileOf(ring_), start);
        EXPECT_EQ(Story(tap), "0 -9223372036854775808 ");
    }
}

TEST_F(RingTapTest, SaysWhatNoWriterLeavesAndGoesOn) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    (void)ring_.Write(1, 100);
    EXPECT_EQ(Story(tap), "1 ");
    const Forgery forged(ring_);
    const std::uint64_t index = forged->wIdx[0];
    (void)ring_.Write(2, 100);
    std::memset(forged.Data() + index, 0xff, 8);  // a length
    EXPECT_EQ(Story(tap), "|");
    (void)ring_.Write(3, 100);
    EXPECT_EQ(Story(tap), "3 ");
}

TEST_F(RingTapTest, NoForgedIndexDoesHarm) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    (void)ring_.Write(1, 100);
    const Forgery forged(ring_);
    std::memset(forged.Data() + 126, 0xa5, RingUnderTest::kSize - 126);
    for (std::uint64_t index = 0; index < RingUnderTest::kSize + 30; index += 13) {
        for (const auto start : {RingTap::Start::Now, RingTap::Start::Oldest}) {
            forged->wIdx[0] = index * index % (RingUnderTest::kSize + 9);
            forged->rIdx[1] = index;
            RingTap other(FileOf(ring_), start);
            (void)Story(other, 20);
            (void)Story(tap, 20);
        }
    }
    forged->wIdx[0] = ~std::uint64_t{0};
    forged->rIdx[1] = ~std::uint64_t{0};
    EXPECT_EQ(Story(tap, 20), "");
}

TEST_F(RingTapTest, ForgedLengthTakesNoMemory) {
    constexpr std::uint64_t kHuge = 1ULL << 40U;
    ring_.Close();
    if (truncate(ring_.Path().c_str(), kHuge) != 0) {
        GTEST_SKIP() << "no file can be that large here";
    }
    const Forgery forged(ring_);
    forged->wIdx[0] = kHuge / 2;
    PacketHeader header;
    header.length = kHuge / 4;
    std::memcpy(forged.Data(), &header, sizeof(header));
    RingTap tap(FileOf(ring_), RingTap::Start::Lap);
    EXPECT_EQ(Story(tap, 1), "|");
}

TEST_F(RingTapTest, ObjectThatIsCutIsNoEnd) {
    RingTap tap(FileOf(ring_), RingTap::Start::Now);
    (void)ring_.Write(1, 1000);
    EXPECT_EQ(Story(tap), "1 ");
    (void)ring_.Write(2, 1000);
    EXPECT_EQ(truncate(ring_.Path().c_str(), 100), 0);
    EXPECT_EQ(Story(tap), "");
    EXPECT_EQ(truncate(ring_.Path().c_str(), 0), 0);
    EXPECT_EQ(Story(tap), "");
}

TEST_F(RingTapTest, ChangesNothing) {
    (void)ring_.Write(1, 100);
    const RingFields before = FileOf(ring_).Fields();
    RingTap tap(FileOf(ring_), RingTap::Start::Oldest);
    EXPECT_EQ(Story(tap), "1 ");
    EXPECT_TRUE(FileOf(ring_).Fields() == before);
}

}  // namespace
}  // namespace qel::test
