#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "LeftRing.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

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

}  // namespace
}  // namespace qel::test
