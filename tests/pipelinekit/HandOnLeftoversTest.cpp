#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "ChildProcess.h"
#include "ControlBlock.h"
#include "HandOnLeftovers.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "RingError.h"
#include "Thrown.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr std::int64_t kFiller = -1;

/// A ring with a chain on it, all counters of which can be seen and forged.
class LeftRing {
public:
    /// @param sink  the last node of the chain
    LeftRing(std::uint64_t size, std::uint8_t sink, std::uint32_t maxFrames = 0)
        : size_(size), sink_(sink), maxFrames_(maxFrames), writer_(Open(0)) {
        const int fd = ::open(name_.Path().c_str(), O_RDWR | O_CLOEXEC);
        segment_ = ::mmap(nullptr, size_ + sizeof(ControlBlock), PROT_READ | PROT_WRITE, MAP_SHARED,
                          fd, 0);
        ::close(fd);
        if (segment_ == MAP_FAILED) {
            throw std::runtime_error("the ring cannot be mapped");
        }
    }
    ~LeftRing() { ::munmap(segment_, size_ + sizeof(ControlBlock)); }
    LeftRing(const LeftRing&) = delete;
    LeftRing& operator=(const LeftRing&) = delete;

    [[nodiscard]] const std::string& Name() const { return name_.Name(); }
    [[nodiscard]] const UniqueRingName& Object() const { return name_; }
    [[nodiscard]] SharedBufferIF::BufferInfo Info(std::uint8_t node) const {
        return {name_.Name(), size_, node, node == sink_, maxFrames_};
    }
    [[nodiscard]] std::unique_ptr<SharedPacketBufferIF> Open(std::uint8_t node) const {
        return OpenRing(Info(node));
    }
    [[nodiscard]] ControlBlock& Control() const { return *static_cast<ControlBlock*>(segment_); }
    [[nodiscard]] unsigned char* Data() const {
        return static_cast<unsigned char*>(segment_) + sizeof(ControlBlock);
    }
    [[nodiscard]] std::vector<std::uint64_t> Avail() const {
        return {Control().avail.begin(), Control().avail.end()};
    }

    /// Writes packets of these sizes, numbered on from the last one.
    void Write(const std::vector<std::size_t>& sizes) {
        for (const std::size_t size : sizes) {
            const OwnedPacket packet(size, written_, FillOf(written_));
            ASSERT_EQ(writer_->WritePacket(packet.Get()), SMStatusCode::SUCCESS);
            ++written_;
        }
    }

    /// A process that is `node` reads so many packets, releases some of them and is killed.
    void LeaveBehind(std::uint8_t node, int read, int released) const {
        ChildProcess child([&](const Conversation& parent) {
            const auto ring = Open(node);
            std::vector<Packet> packets;
            for (int count = 0; count < read; ++count) {
                const auto next = ring->ReadNextPacket();
                if (next.status != SMStatusCode::SUCCESS) {
                    return 1;
                }
                packets.push_back(next.packet);
            }
            for (int count = 0; count < released; ++count) {
                (void)ring->ReleasePacket(packets[static_cast<std::size_t>(count)]);
            }
            parent.Say("done");
            (void)parent.Hear();
            return 0;
        });
        ASSERT_EQ(child.Hear(), "done");
        child.Kill();
    }

    /// What a successor at `node` hands on.
    [[nodiscard]] std::uint64_t HandOn(std::uint8_t node) const {
        return HandOnLeftovers(*Open(node), Info(node));
    }
    [[nodiscard]] std::string HandOnText(std::uint8_t node) const {
        return Thrown([&] { (void)HandOn(node); });
    }

    /// Numbers of the packets that `node` can read, which are released; fillers are -1, and a
    /// packet that has not come whole is -2.
    [[nodiscard]] std::vector<std::int64_t> Drain(std::uint8_t node) const {
        const auto ring = Open(node);
        std::vector<std::int64_t> numbers;
        for (auto next = ring->ReadNextPacket(); next.status != SMStatusCode::DATA_NOT_AVAILABLE;
             next = ring->ReadNextPacket()) {
            if (next.status != SMStatusCode::SUCCESS) {
                numbers.push_back(-3);
                break;
            }
            numbers.push_back(NumberOf(next.packet));
            EXPECT_EQ(ring->ReleasePacket(next.packet), SMStatusCode::SUCCESS);
        }
        return numbers;
    }

    static unsigned char FillOf(std::int64_t number) {
        return static_cast<unsigned char>('a' + number % 26);
    }
    static std::int64_t NumberOf(const Packet& packet) {
        const std::int64_t number = packet.header.pts;
        if (packet.header.ignoreData) {
            return kFiller;
        }
        for (const unsigned char byte : packet.data) {
            if (byte != FillOf(number)) {
                return -2;
            }
        }
        return number;
    }

private:
    UniqueRingName name_;
    std::uint64_t size_;
    std::uint8_t sink_;
    std::uint32_t maxFrames_;
    std::unique_ptr<SharedPacketBufferIF> writer_;
    void* segment_ = nullptr;
    std::int64_t written_ = 0;
};

TEST(HandOnLeftovers, NextNodeGetsExactlyWhatWasReadAndNotReleased) {
    const std::uint64_t size = 10000;
    LeftRing ring(size, 2);
    ring.Write({100, 0, 333, 1, 50, 7});
    ring.LeaveBehind(1, 4, 1);
    EXPECT_EQ(ring.HandOn(1), 3U);
    EXPECT_THAT(ring.Drain(2), ElementsAre(0, 1, 2, 3));
    EXPECT_THAT(ring.Drain(1), ElementsAre(4, 5));
    EXPECT_THAT(ring.Drain(2), ElementsAre(4, 5));
    EXPECT_THAT(ring.Avail(), ElementsAre(size, 0, 0, 0, 0));
}

TEST(HandOnLeftovers, WhatTheNextNodeHasReadMeanwhileMakesNoDifference) {
    LeftRing ring(10000, 2);
    ring.Write({100, 20, 333, 1});
    ring.LeaveBehind(1, 4, 2);
    EXPECT_THAT(ring.Drain(2), ElementsAre(0, 1));
    EXPECT_EQ(ring.HandOn(1), 2U);
    EXPECT_THAT(ring.Drain(2), ElementsAre(2, 3));
}

TEST(HandOnLeftovers, SinkGivesTheWriterAllSpaceAndEveryPacketOfTheLimitBack) {
    const std::uint64_t size = 10000;
    LeftRing ring(size, 1, 10);
    ring.Write({100, 0, 333, 1, 50});
    ring.LeaveBehind(1, 5, 2);
    EXPECT_EQ(ring.Open(1)->GetCurrentCapacity().numPackets, 3U);
    EXPECT_EQ(ring.HandOn(1), 3U);
    EXPECT_EQ(ring.Open(1)->GetCurrentCapacity().numPackets, 0U);
    EXPECT_THAT(ring.Avail(), ElementsAre(size, 0, 0, 0, 0));
}

TEST(HandOnLeftovers, SinkLeavesWhatWaitsForItWaiting) {
    LeftRing ring(10000, 4, 10);
    ring.Write({100, 20, 30, 40});
    for (std::uint8_t node = 1; node < 4; ++node) {
        EXPECT_THAT(ring.Drain(node), ElementsAre(0, 1, 2, 3));
    }
    ring.LeaveBehind(4, 2, 0);
    EXPECT_EQ(ring.HandOn(4), 2U);
    EXPECT_EQ(ring.Open(4)->GetCurrentCapacity().numPackets, 2U);
    EXPECT_THAT(ring.Drain(4), ElementsAre(2, 3));
}

/// A ring whose node 1 holds a packet, a filler and a packet behind the wrap.
void LeaveWrapBehind(LeftRing& ring, std::uint8_t sink) {
    ring.Write({200, 200, 200});
    for (std::uint8_t node = 1; node <= sink; ++node) {
        EXPECT_THAT(ring.Drain(node), ElementsAre(0, 1, 2));
    }
    ring.Write({200, 200});
    ring.LeaveBehind(1, 3, 0);
}

TEST(HandOnLeftovers, FillerAtTheWrapIsHandedOnAsAPacket) {
    LeftRing ring(1000, 2);
    LeaveWrapBehind(ring, 2);
    EXPECT_EQ(ring.HandOn(1), 3U);
    EXPECT_THAT(ring.Drain(2), ElementsAre(3, kFiller, 4));
}

TEST(HandOnLeftovers, FillerAtTheWrapCountsInTheLimitOfPackets) {
    const std::uint64_t size = 1000;
    LeftRing ring(size, 1, 10);
    LeaveWrapBehind(ring, 1);
    EXPECT_EQ(ring.HandOn(1), 3U);
    EXPECT_EQ(ring.Open(1)->GetCurrentCapacity().numPackets, 0U);
    EXPECT_THAT(ring.Avail(), ElementsAre(size, 0, 0, 0, 0));
}

TEST(HandOnLeftovers, NothingIsHandedOnTwice) {
    LeftRing ring(10000, 2);
    ring.Write({100, 20});
    ring.LeaveBehind(1, 2, 0);
    EXPECT_EQ(ring.HandOn(1), 2U);
    EXPECT_EQ(ring.HandOn(1), 0U);
    EXPECT_THAT(ring.Drain(2), ElementsAre(0, 1));
}

TEST(HandOnLeftovers, NothingLeftIsNothingHandedOn) {
    LeftRing ring(10000, 2);
    EXPECT_EQ(ring.HandOn(1), 0U) << "fresh";
    EXPECT_EQ(ring.HandOn(2), 0U) << "fresh";
    ring.Write({100, 20, 30});
    EXPECT_EQ(ring.HandOn(1), 0U) << "all waiting";
    ring.LeaveBehind(1, 3, 3);
    EXPECT_EQ(ring.HandOn(1), 0U) << "all released";
    EXPECT_EQ(ring.HandOn(2), 0U) << "all waiting";
    EXPECT_THAT(ring.Drain(2), ElementsAre(0, 1, 2));
    EXPECT_EQ(ring.HandOn(2), 0U) << "all released";
}

/// A length that is written over that of a record which was left behind.
struct Damage {
    const char* name;
    std::uint64_t record;  ///< its place
    std::uint64_t length;
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class DamagedLeftovers : public testing::TestWithParam<std::tuple<std::uint8_t, Damage>> {};

TEST_P(DamagedLeftovers, AreRefusedAndNotHandedOn) {
    const auto& [sink, damage] = GetParam();
    LeftRing ring(10000, sink, 10);
    ring.Write({74, 24, 174, 74});  // at 0, 100, 150, 350 to 450
    ring.LeaveBehind(1, 4, 1);
    std::memcpy(ring.Data() + damage.record, &damage.length, sizeof damage.length);
    const auto before = ring.Avail();
    EXPECT_EQ(ring.HandOnText(1), "ring " + ring.Name() + ": what node 1 left behind is damaged");
    EXPECT_EQ(ring.Avail(), before);
    EXPECT_EQ(ring.Open(1)->GetCurrentCapacity().numPackets, 3U + (sink == 1 ? 0U : 1U));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DamagedLeftovers,
    testing::Combine(testing::Values(std::uint8_t{1}, std::uint8_t{2}),
                     testing::Values(Damage{"FirstByteTooLong", 100, 25},
                                     Damage{"LastTooLong", 350, 75},
                                     Damage{"LastTooShort", 350, 73},
                                     Damage{"LessThanAHeaderBehindTheLast", 350, 49},
                                     Damage{"BeyondTheRing", 150, 10000},
                                     Damage{"SumOverflows", 150, ~std::uint64_t{0} - 25},
                                     Damage{"Highest", 150, ~std::uint64_t{0}})),
    [](const auto& damaged) {
        return std::string(std::get<1>(damaged.param).name) +
               (std::get<0>(damaged.param) == 1 ? "InTheSink" : "");
    });

TEST(HandOnLeftovers, BytesTooFewForAHeaderAreNotTakenForARecord) {
    LeftRing ring(10000, 2);
    ring.Write({74, 74});
    ring.LeaveBehind(1, 2, 0);
    const std::uint64_t length = 49;  // of the second record, which leaves 25 bytes
    const std::uint64_t minusOne = ~std::uint64_t{0};  // with its header, just these
    std::memcpy(ring.Data() + 100, &length, sizeof length);
    std::memcpy(ring.Data() + 175, &minusOne, sizeof minusOne);
    EXPECT_EQ(ring.HandOnText(1), "ring " + ring.Name() + ": what node 1 left behind is damaged");
}

TEST(HandOnLeftovers, CountersThatContradictEachOtherAreRefused) {
    LeftRing ring(10000, 2);
    ring.Write({100, 20});
    ring.LeaveBehind(1, 2, 0);
    for (const std::uint64_t counter :
         {std::uint64_t{9999}, std::uint64_t{10000}, ~std::uint64_t{0}}) {
        ring.Control().avail[2] = counter;
        const auto before = ring.Avail();
        EXPECT_EQ(ring.HandOnText(1),
                  "ring " + ring.Name() + ": what node 1 left behind is damaged");
        EXPECT_EQ(ring.Avail(), before);
    }
}

/// Sizes of three packets that wait for node 2 and of two that node 1 has left behind.
class NextNodeKilledInARead : public testing::TestWithParam<std::vector<std::size_t>> {};

TEST_P(NextNodeKilledInARead, ReceivesItsRecordAgainAndAllThatFollow) {
    const std::uint64_t size = 10000;
    LeftRing ring(size, 2);
    ring.Write(GetParam());
    ring.LeaveBehind(1, 5, 3);
    ring.Control().avail[2] -= 26 + GetParam().front();  // and the index is not moved any more
    EXPECT_EQ(ring.HandOn(1), 3U);
    EXPECT_THAT(ring.Drain(2), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THAT(ring.Avail(), ElementsAre(size, 0, 0, 0, 0));
}

INSTANTIATE_TEST_SUITE_P(Cases, NextNodeKilledInARead,
                         testing::Values(std::vector<std::size_t>{100, 20, 333, 5, 70},
                                         std::vector<std::size_t>{5, 20, 333, 50, 70},
                                         std::vector<std::size_t>{80, 80, 80, 80, 80},
                                         std::vector<std::size_t>{0, 0, 0, 0, 0}));

TEST(HandOnLeftovers, NextNodeKilledInAReadIsPutRightIfNothingElseIsLeft) {
    LeftRing ring(10000, 2);
    ring.Write({100, 20});
    ring.LeaveBehind(1, 2, 2);
    ring.Control().avail[2] -= 126;
    EXPECT_EQ(ring.HandOn(1), 1U);
    EXPECT_THAT(ring.Drain(2), ElementsAre(0, 1));
}

TEST(HandOnLeftovers, NodeThatWritesIsRefused) {
    const LeftRing ring(10000, 1);
    EXPECT_EQ(Thrown<std::invalid_argument>([&] { (void)ring.HandOn(0); }),
              "node 0 writes and leaves nothing read behind");
}

TEST(HandOnLeftovers, DescriptionThatIsNotTheRingsIsRefused) {
    const LeftRing ring(10000, 1);
    const auto buffer = ring.Open(1);
    const auto refusal = [&](const SharedBufferIF::BufferInfo& info) {
        return Thrown<std::invalid_argument>([&] { (void)HandOnLeftovers(*buffer, info); });
    };
    auto info = ring.Info(1);
    info.shmSize = 9999;
    EXPECT_EQ(refusal(info), "ring " + ring.Name() + " does not have the size 9999");
    info = ring.Info(4);
    EXPECT_EQ(refusal(info), "node 4 is the last and must be the sink");
    info.nodeIdx = 5;
    EXPECT_EQ(refusal(info), "node 5 is not in 0 to 4");
}

TEST(HandOnLeftovers, ObjectThatIsGoneIsAnErrorWithItsErrno) {
    const LeftRing ring(10000, 1);
    const auto buffer = ring.Open(1);
    ASSERT_EQ(::shm_unlink(ring.Object().ObjectName().c_str()), 0);
    try {
        (void)HandOnLeftovers(*buffer, ring.Info(1));
        FAIL() << "found what is gone";
    } catch (const RingError& failure) {
        EXPECT_EQ(failure.Errno(), ENOENT);
    }
}

constexpr std::uint64_t kBusySize = 2000;
constexpr std::int64_t kBusyPackets = 500;

/// Writes packet after packet of many sizes, so that there are fillers, as soon as there is room.
int WriteAll(const LeftRing& ring) {
    const auto writer = ring.Open(0);
    for (std::int64_t number = 0; number < kBusyPackets;) {
        const auto size = static_cast<std::size_t>(number * 37 % 300);
        const OwnedPacket packet(size, number, LeftRing::FillOf(number));
        const SMStatusCode status = writer->WritePacket(packet.Get());
        if (status == SMStatusCode::SUCCESS) {
            ++number;
        } else if (status != SMStatusCode::NOT_ENOUGH_SPACE) {
            return 1;
        }
    }
    return 0;
}

/// Reads and releases packet after packet as soon as it comes.
int ReadAll(const LeftRing& ring, std::uint8_t node) {
    const auto reader = ring.Open(node);
    for (std::int64_t expected = 0; expected < kBusyPackets;) {
        const auto next = reader->ReadNextPacket();
        if (next.status == SMStatusCode::DATA_NOT_AVAILABLE) {
            continue;
        }
        if (next.status != SMStatusCode::SUCCESS) {
            return 1;
        }
        const std::int64_t number = LeftRing::NumberOf(next.packet);
        if (number != kFiller && number != expected++) {
            return 2;
        }
        if (reader->ReleasePacket(next.packet) != SMStatusCode::SUCCESS) {
            return 3;
        }
    }
    return 0;
}

/// At node 1, one reader after the other reads what is there, releases half of it and leaves the
/// rest to the next.
void ReadAndLeaveInTurns(const LeftRing& ring) {
    for (std::int64_t expected = 0; expected < kBusyPackets;) {
        const auto reader = ring.Open(1);
        std::vector<Packet> packets;
        for (auto next = reader->ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
             next = reader->ReadNextPacket()) {
            packets.push_back(next.packet);
            const std::int64_t number = LeftRing::NumberOf(next.packet);
            if (number != kFiller) {
                ASSERT_EQ(number, expected++);
            }
        }
        const std::size_t released = packets.size() / 2;
        for (std::size_t packet = 0; packet < released; ++packet) {
            ASSERT_EQ(reader->ReleasePacket(packets[packet]), SMStatusCode::SUCCESS);
        }
        ASSERT_EQ(ring.HandOn(1), packets.size() - released);
    }
}

TEST(HandOnLeftovers, NextNodeAtWorkMissesNothingAndGetsNothingTwice) {
    const LeftRing ring(kBusySize, 2);
    ChildProcess writer([&](const Conversation&) { return WriteAll(ring); });
    ChildProcess sink([&](const Conversation&) { return ReadAll(ring, 2); });
    ReadAndLeaveInTurns(ring);
    EXPECT_EQ(writer.ExitCode(), 0);
    EXPECT_EQ(sink.ExitCode(), 0);
    EXPECT_THAT(ring.Avail(), ElementsAre(kBusySize, 0, 0, 0, 0));
}

TEST(HandOnLeftovers, WriterAtWorkGetsAllSpaceBackAndNoneTwice) {
    const LeftRing ring(kBusySize, 1, 8);
    ChildProcess writer([&](const Conversation&) { return WriteAll(ring); });
    ReadAndLeaveInTurns(ring);
    EXPECT_EQ(writer.ExitCode(), 0);
    EXPECT_THAT(ring.Avail(), ElementsAre(kBusySize, 0, 0, 0, 0));
    EXPECT_EQ(ring.Open(1)->GetCurrentCapacity().numPackets, 0U);
}

}  // namespace
}  // namespace qel::test
