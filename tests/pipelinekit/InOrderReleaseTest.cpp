#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "InOrderRelease.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "UniqueRingName.h"

namespace qel::test {
namespace {

using testing::InSequence;
using testing::Return;
using testing::StrictMock;

MATCHER_P(HasPts, pts, "") {
    const std::int64_t actual = arg.header.pts;
    return actual == pts;
}

class InOrderReleaseTest : public testing::Test {
protected:
    InOrderRelease::Ticket Add(std::int64_t pts, std::size_t size = 0) {
        return releases_.Add(packets_.emplace_back(size, pts).Get());
    }

    void ExpectReleases(const std::vector<std::int64_t>& order) {
        for (const std::int64_t pts : order) {
            EXPECT_CALL(ring_, DoReleasePacket(HasPts(pts)))
                .WillOnce(Return(SMStatusCode::SUCCESS));
        }
    }

    InSequence inSequence_;
    StrictMock<MockPacketBuffer> ring_;
    InOrderRelease releases_{ring_};
    std::deque<OwnedPacket> packets_;
};

TEST_F(InOrderReleaseTest, NothingGoesBackBeforeTheOldestIsFinished) {
    (void)Add(0);
    const auto second = Add(1);
    EXPECT_TRUE(releases_.Finish(second));
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
}

TEST_F(InOrderReleaseTest, LongestFinishedRunGoesBackInReadingOrderOneByOne) {
    std::vector<InOrderRelease::Ticket> tickets;
    for (std::int64_t pts = 0; pts < 5; ++pts) {
        tickets.push_back(Add(pts));
    }
    for (const std::size_t finished : {4U, 2U, 1U, 0U}) {
        EXPECT_TRUE(releases_.Finish(tickets[finished]));
    }
    ExpectReleases({0, 1, 2});
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
    testing::Mock::VerifyAndClearExpectations(&ring_);

    EXPECT_TRUE(releases_.Finish(tickets[3]));
    ExpectReleases({3, 4});
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
}

TEST_F(InOrderReleaseTest, FinishingTwiceOrUnknownTicketsHasNoEffect) {
    const auto ticket = Add(0);
    EXPECT_FALSE(releases_.Finish(ticket + 1));
    EXPECT_TRUE(releases_.Finish(ticket));
    EXPECT_FALSE(releases_.Finish(ticket));
    ExpectReleases({0});
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
    EXPECT_FALSE(releases_.Finish(ticket));
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
}

TEST_F(InOrderReleaseTest, ReleaseFinishesAPacketAndGivesBackAllThatIsDue) {
    const auto first = Add(0);
    const auto second = Add(1);
    (void)Add(2);
    EXPECT_EQ(releases_.Release(second), SMStatusCode::SUCCESS);
    ExpectReleases({0, 1});
    EXPECT_EQ(releases_.Release(first), SMStatusCode::SUCCESS);
    EXPECT_EQ(releases_.Release(first), SMStatusCode::SUCCESS);
    EXPECT_EQ(releases_.GetOutstanding().packets, 1U);
}

TEST_F(InOrderReleaseTest, AnOldTicketDoesNotFinishThePacketThatHasItsPlaceNow) {
    constexpr InOrderRelease::Ticket kPlaces = 16;
    EXPECT_CALL(ring_, DoReleasePacket).WillOnce(Return(SMStatusCode::SUCCESS));
    const auto old = Add(0);
    EXPECT_EQ(releases_.Release(old), SMStatusCode::SUCCESS);
    for (InOrderRelease::Ticket added = 0; added < kPlaces; ++added) {
        (void)Add(0);
    }
    EXPECT_FALSE(releases_.Finish(old));
    EXPECT_EQ(releases_.Release(old), SMStatusCode::SUCCESS);
    EXPECT_EQ(releases_.GetOutstanding().packets, kPlaces);
}

TEST_F(InOrderReleaseTest, WhatIsFinishedStaysSoWhenMorePacketsAreHeldThanThereWasRoomFor) {
    constexpr std::int64_t kMany = 100;
    std::vector<InOrderRelease::Ticket> tickets;
    for (std::int64_t pts = 0; pts < kMany; ++pts) {
        tickets.push_back(Add(pts));
        if (pts % 2 != 0) {
            EXPECT_TRUE(releases_.Finish(tickets.back()));
        }
    }
    std::vector<std::int64_t> order;
    for (std::int64_t pts = 0; pts < kMany; ++pts) {
        EXPECT_EQ(releases_.Finish(tickets[static_cast<std::size_t>(pts)]), pts % 2 == 0);
        order.push_back(pts);
    }
    ExpectReleases(order);
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
}

TEST_F(InOrderReleaseTest, OutstandingCountsWhatHasNotGoneBackWithItsHeaders) {
    const auto first = Add(0, 100);
    (void)Add(1, 7);
    EXPECT_EQ(releases_.GetOutstanding().packets, 2U);
    EXPECT_EQ(releases_.GetOutstanding().bytes, 126U + 33U);
    (void)releases_.Finish(first);
    EXPECT_EQ(releases_.GetOutstanding().packets, 2U);
    ExpectReleases({0});
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::SUCCESS);
    EXPECT_EQ(releases_.GetOutstanding().packets, 1U);
    EXPECT_EQ(releases_.GetOutstanding().bytes, 33U);
}

TEST_F(InOrderReleaseTest, FirstRefusalIsReportedAndTheRunStillGoesBack) {
    for (std::int64_t pts = 0; pts < 3; ++pts) {
        (void)releases_.Finish(Add(pts));
    }
    EXPECT_CALL(ring_, DoReleasePacket(HasPts(0))).WillOnce(Return(SMStatusCode::SUCCESS));
    EXPECT_CALL(ring_, DoReleasePacket(HasPts(1)))
        .WillOnce(Return(SMStatusCode::INVALID_PARAMETER));
    EXPECT_CALL(ring_, DoReleasePacket(HasPts(2))).WillOnce(Return(SMStatusCode::NOT_ENOUGH_SPACE));
    EXPECT_EQ(releases_.ReleaseFinished(), SMStatusCode::INVALID_PARAMETER);
    EXPECT_EQ(releases_.GetOutstanding().packets, 0U);
}

TEST(InOrderReleaseOnARing, PacketLimitIsFreeAgainAfterThreadsFinishInAnyOrder) {
    constexpr std::size_t kBatch = 8;
    constexpr int kBatches = 50;
    const UniqueRingName name;
    const auto producer = OpenRing({name.Name(), 10000, 0, false, kBatch - 1});
    const auto sink = OpenRing({name.Name(), 10000, 1, true, 0});
    InOrderRelease releases(*sink);
    std::mt19937 random(1);
    for (int batch = 0; batch < kBatches; ++batch) {
        std::vector<InOrderRelease::Ticket> tickets;
        // Without a filler, which counts as a packet too: the ring is large enough for the batch.
        while (producer->WritePacket(OwnedPacket(64).Get()) == SMStatusCode::SUCCESS) {
        }
        for (auto read = sink->ReadNextPacket(); read.status == SMStatusCode::SUCCESS;
             read = sink->ReadNextPacket()) {
            tickets.push_back(releases.Add(read.packet));
        }
        ASSERT_EQ(sink->GetCurrentCapacity().numPackets, tickets.size());
        ASSERT_GE(tickets.size(), kBatch - 1);
        std::shuffle(tickets.begin(), tickets.end(), random);
        std::atomic<std::size_t> next{0};
        std::array<std::thread, 3> workers;
        for (std::thread& worker : workers) {
            worker = std::thread([&] {
                for (auto i = next.fetch_add(1); i < tickets.size(); i = next.fetch_add(1)) {
                    EXPECT_TRUE(releases.Finish(tickets[i]));
                }
            });
        }
        while (releases.GetOutstanding().packets != 0) {
            ASSERT_EQ(releases.ReleaseFinished(), SMStatusCode::SUCCESS);
            std::this_thread::yield();
        }
        for (std::thread& worker : workers) {
            worker.join();
        }
        ASSERT_EQ(sink->GetCurrentCapacity().numPackets, 0U);
    }
}

}  // namespace
}  // namespace qel::test
