#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "ChildProcess.h"
#include "LeftRing.h"
#include "MockPacketBuffer.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

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
