#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ControlBlock.h"
#include "EndOfStream.h"
#include "InPlaceWriter.h"
#include "OpenRing.h"
#include "RingTap.h"
#include "RingUnderTest.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

RingFile FileOf(const RingUnderTest& ring) {
    auto file = RingFile::Open(ring.Name());
    if (!file) {
        throw std::runtime_error("no ring");
    }
    return std::move(*file);
}

/// The ring's control block, to be forged.
class Forgery {
public:
    explicit Forgery(const RingUnderTest& ring) : Forgery(ring.Path()) {}
    explicit Forgery(const std::string& path) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        place_ = mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        EXPECT_NE(place_, MAP_FAILED);
        EXPECT_EQ(close(fd), 0);
    }
    ~Forgery() { (void)munmap(place_, kLength); }
    Forgery(const Forgery&) = delete;
    Forgery& operator=(const Forgery&) = delete;

    ControlBlock* operator->() const { return static_cast<ControlBlock*>(place_); }
    [[nodiscard]] unsigned char* Data() const {
        return static_cast<unsigned char*>(place_) + sizeof(ControlBlock);
    }

private:
    static constexpr std::size_t kLength = sizeof(ControlBlock) + RingUnderTest::kSize;
    void* place_;
};

/// What comes next, as one letter each: a packet's number, "|" an overrun; up to `most`.
std::string Story(RingTap& tap, int most = 1000) {
    std::string story;
    for (int step = 0; step < most; ++step) {
        const TapResult result = tap.TryNext();
        if (result.outcome == TapOutcome::Nothing) {
            break;
        }
        story += result.outcome == TapOutcome::Overrun
                     ? "|"
                     : std::to_string(static_cast<std::int64_t>(result.header.pts)) + " ";
    }
    return story;
}

class RingTapTest : public testing::Test {
protected:
    void Drain() const {
        while (true) {
            const auto next = ring_.Node(1).ReadNextPacket();
            if (next.status != SMStatusCode::SUCCESS) {
                break;
            }
            EXPECT_EQ(ring_.Node(1).ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
    }

    RingUnderTest ring_;
};

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
