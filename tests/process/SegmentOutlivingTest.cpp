#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <iostream>
#include <string>

#include "ChildProcess.h"
#include "NumberedPackets.h"
#include "OpenBuffer.h"
#include "SegmentFile.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kRingSize = 4096;
constexpr std::size_t kLargestPayload = 300;
constexpr std::uint32_t kMaxFrames = 20;

/// A chain of three: producer, one node in between, sink.
SharedBufferIF::BufferInfo InfoOf(const std::string& name, unsigned node) {
    return {name, kRingSize, static_cast<std::uint8_t>(node), node == 2, kMaxFrames};
}

/// Writes the packets from one number up to another, and ends.
int Writer(const Arguments& arguments) {
    const auto buffer = OpenBuffer(InfoOf(arguments.at(0), 0));
    NumberedPackets packets(kLargestPayload);
    for (auto number = std::stoull(arguments.at(1)); number < std::stoull(arguments.at(2));
         ++number) {
        if (packets.Write(*buffer, number) != SMStatusCode::SUCCESS) {
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
const RegisterRole kWriter("writer", Writer);

/// Reads a packet, says how many bytes it has taken, and keeps them.
int Keeper(const Arguments& arguments) {
    const auto buffer =
        OpenBuffer(InfoOf(arguments.at(0), static_cast<unsigned>(std::stoul(arguments.at(1)))));
    const auto read = buffer->ReadNextPacket();
    if (read.status != SMStatusCode::SUCCESS) {
        return EXIT_FAILURE;
    }
    std::cout << kPacketHeaderSize + read.packet.data.size() << std::endl;
    for (;;) {
        ::pause();
    }
}
const RegisterRole kKeeper("keeper", Keeper);

class SegmentThatOutlivesProcesses : public ::testing::Test {
protected:
    /// Runs a writer to its end.
    void Write(std::uint64_t from, std::uint64_t to) const {
        ChildProcess writer("writer", {name_.Name(), std::to_string(from), std::to_string(to)});
        ASSERT_EQ(writer.Wait(), EXIT_SUCCESS);
    }
    /// Lets a node read a packet and be killed before it releases it; the bytes that it took.
    [[nodiscard]] std::uint64_t KillBetweenReadAndRelease(unsigned node) const {
        ChildProcess keeper("keeper", {name_.Name(), std::to_string(node)});
        const std::string taken = keeper.Hear();
        keeper.Kill();
        EXPECT_EQ(keeper.Wait(), -SIGKILL);
        return std::stoull(taken);
    }
    /// Reads at a node, expects a packet and releases it.
    void Pass(unsigned node, std::uint64_t number) {
        const auto buffer = OpenBuffer(InfoOf(name_.Name(), node));
        const auto read = buffer->ReadNextPacket();
        ASSERT_EQ(read.status, SMStatusCode::SUCCESS);
        EXPECT_EQ(packets_.Fault(read.packet, number), "");
        EXPECT_EQ(buffer->ReleasePacket(read.packet), SMStatusCode::SUCCESS);
    }
    /// Reads and releases for as long as there are packets.
    static void PassAllOn(SharedPacketBufferIF& buffer) {
        for (auto read = buffer.ReadNextPacket(); read.status == SMStatusCode::SUCCESS;
             read = buffer.ReadNextPacket()) {
            EXPECT_EQ(buffer.ReleasePacket(read.packet), SMStatusCode::SUCCESS);
        }
    }
    [[nodiscard]] SegmentFile Segment() const { return SegmentFile(name_.Path()); }

    const UniqueRingName name_;
    NumberedPackets packets_{kLargestPayload};
};

TEST_F(SegmentThatOutlivesProcesses, GoesOnForTheNextProcessFromItsCounters) {
    Write(0, 3);
    const std::uint64_t firstThree = Segment().WriteIndex(0);
    EXPECT_EQ(Segment().Avail(1), firstThree);
    EXPECT_EQ(Segment().Avail(0), kRingSize - firstThree);
    EXPECT_EQ(Segment().NumPackets(), 3U);
    Write(3, 5);
    EXPECT_GT(Segment().WriteIndex(0), firstThree);
    EXPECT_EQ(Segment().NumPackets(), 5U);
    for (std::uint64_t number = 0; number < 5; ++number) {
        Pass(1, number);
        Pass(2, number);
    }
    EXPECT_EQ(Segment().Avail(0), kRingSize);
    EXPECT_EQ(Segment().NumPackets(), 0U);
}

TEST_F(SegmentThatOutlivesProcesses, LosesOnlyWhatAKilledNodeHadTaken) {
    Write(0, 4);
    const std::uint64_t written = Segment().WriteIndex(0);
    Pass(1, 0);
    const std::uint64_t lost = KillBetweenReadAndRelease(1);
    EXPECT_EQ(Segment().Avail(0), kRingSize - written);
    EXPECT_EQ(Segment().Avail(1) + Segment().Avail(2) + lost, written);
    EXPECT_EQ(Segment().ReadIndex(1), Segment().Avail(2) + lost);
    EXPECT_EQ(Segment().NumPackets(), 4U);
    // The next process in its place goes on behind the lost packet.
    Pass(1, 2);
    Pass(1, 3);
    // The sink reads by its own index: it meets the bytes of the lost packet first.
    Pass(2, 0);
    Pass(2, 1);
    EXPECT_EQ(Segment().NumPackets(), 2U);
    EXPECT_EQ(Segment().Avail(1), 0U);
    EXPECT_EQ(Segment().Avail(0) + Segment().Avail(2) + lost, kRingSize);
}

TEST_F(SegmentThatOutlivesProcesses, KeepsThePacketOfAKilledSinkCounted) {
    Write(0, 2);
    Pass(1, 0);
    Pass(1, 1);
    const std::uint64_t lost = KillBetweenReadAndRelease(2);
    Pass(2, 1);
    EXPECT_EQ(Segment().Avail(0), kRingSize - lost);
    EXPECT_EQ(Segment().Avail(2), 0U);
    EXPECT_EQ(Segment().NumPackets(), 1U);
    // Somebody who knows what was lost can give it back.
    std::vector<unsigned char> bytes(lost - kPacketHeaderSize);
    const Packet packet{{}, {bytes.data(), bytes.size()}};
    EXPECT_EQ(OpenBuffer(InfoOf(name_.Name(), 2))->ReleasePacket(packet), SMStatusCode::SUCCESS);
    EXPECT_EQ(Segment().Avail(0), kRingSize);
    EXPECT_EQ(Segment().NumPackets(), 0U);
}

TEST_F(SegmentThatOutlivesProcesses, StaysSafeForSurvivorsWhenTheirCountersNoLongerAgree) {
    const auto producer = OpenBuffer(InfoOf(name_.Name(), 0));
    const auto sink = OpenBuffer(InfoOf(name_.Name(), 2));
    std::uint64_t number = 0;
    std::uint64_t lost = 0;
    for (std::uint64_t before = 1; before != number;) {
        before = number;
        while (packets_.Write(*producer, number) == SMStatusCode::SUCCESS) {
            ++number;
        }
        if (before != number) {
            lost += KillBetweenReadAndRelease(1);
        }
        PassAllOn(*OpenBuffer(InfoOf(name_.Name(), 1)));
        PassAllOn(*sink);
        const SegmentFile segment = Segment();
        EXPECT_EQ(segment.Avail(0) + segment.Avail(1) + segment.Avail(2) + lost, kRingSize);
        for (unsigned node = 0; node < 3; ++node) {
            EXPECT_LT(segment.ReadIndex(node), kRingSize);
            EXPECT_LT(segment.WriteIndex(node), kRingSize);
        }
    }
    // In the end so much is lost that no packet fits.
    EXPECT_GT(lost, kRingSize / 2);
    EXPECT_GT(number, 20U);
}

}  // namespace
}  // namespace qel::test
