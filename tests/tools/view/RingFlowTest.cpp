#include <gtest/gtest.h>

#include "RingFile.h"
#include "RingFlow.h"
#include "RingUnderTest.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = RingUnderTest::kSize;

RingFields FieldsOf(const RingUnderTest& ring) {
    return RingFile::Open(ring.Name())->Fields();
}

TEST(RingFlow, OfAFreshRingIsAllFree) {
    const RingUnderTest ring(2);
    const auto flow = FlowOf(FieldsOf(ring), kSize, 2);
    ASSERT_TRUE(flow);
    EXPECT_EQ(flow->free, kSize);
    EXPECT_EQ(flow->Sum(), kSize);
    EXPECT_EQ(flow->InUse(), 0U);
    EXPECT_EQ(flow->writerAhead, 0U);
}

TEST(RingFlow, TellsWhatWaitsForEachNodeAndWhatItHolds) {
    const RingUnderTest ring(2);
    for (std::int64_t number = 0; number < 4; ++number) {
        ring.Write(number, 100 + static_cast<std::size_t>(number));
    }
    ring.PassOn(1);
    ring.PassOn(1);
    (void)ring.Read(1);
    (void)ring.Read(2);
    const auto flow = FlowOf(FieldsOf(ring), kSize, 2);
    ASSERT_TRUE(flow);
    EXPECT_EQ(flow->waiting[1], 129U);
    EXPECT_EQ(flow->held[1], 128U);
    EXPECT_EQ(flow->waiting[2], 127U);
    EXPECT_EQ(flow->held[2], 126U);
    EXPECT_EQ(flow->Sum(), kSize);
    EXPECT_EQ(flow->InUse(), 510U);
}

TEST(RingFlow, AddsUpAtEveryMomentOfALongRun) {
    const RingUnderTest ring(3);
    for (std::int64_t number = 0; number < 300; ++number) {
        ring.Write(number, 1 + static_cast<std::size_t>(number * 37 % 700));
        for (const std::size_t node : {1U, 2U, 3U}) {
            for (auto next = ring.Node(node).ReadNextPacket(); next.status == SMStatusCode::SUCCESS;
                 next = ring.Node(node).ReadNextPacket()) {
                ASSERT_EQ(FlowOf(FieldsOf(ring), kSize, 3)->Sum(), kSize);
                ASSERT_EQ(ring.Node(node).ReleasePacket(next.packet), SMStatusCode::SUCCESS);
                ASSERT_EQ(FlowOf(FieldsOf(ring), kSize, 3)->Sum(), kSize);
            }
        }
    }
}

TEST(RingFlow, OfARingThatOneNodeHoldsWhollyKnowsIt) {
    const RingUnderTest ring;
    std::vector<unsigned char> content(kSize - 26);
    Packet packet;
    packet.data = content;
    ASSERT_EQ(ring.Node(0).WriteCriticalPacket(packet), SMStatusCode::SUCCESS);
    EXPECT_EQ(FlowOf(FieldsOf(ring), kSize, 1)->waiting[1], kSize);
    (void)ring.Read(1);
    const auto flow = FlowOf(FieldsOf(ring), kSize, 1);
    EXPECT_EQ(flow->held[1], kSize);
    EXPECT_EQ(flow->free, 0U);
}

TEST(RingFlow, TellsHowFarTheWritersIndexIsAheadOrBehind) {
    RingFields fields;
    fields.avail = {900, 100, 0, 0, 0};
    fields.wIdx[0] = 126;
    EXPECT_EQ(FlowOf(fields, 1000, 1)->writerAhead, 26U);
    fields.wIdx[0] = 74;
    EXPECT_EQ(FlowOf(fields, 1000, 1)->writerAhead, 1000 - 26U);
}

TEST(RingFlow, IsNotOfFieldsThatNoRingOfThisSizeHas) {
    RingFields sound;
    sound.avail[0] = 1000;
    EXPECT_TRUE(FlowOf(sound, 1000, 1));
    EXPECT_FALSE(FlowOf(sound, 999, 1));
    EXPECT_FALSE(FlowOf(RingFields(), 0, 1));
    for (const std::uint64_t wrong : {std::uint64_t{1000}, ~std::uint64_t{0}}) {
        for (std::size_t node = 0; node < kMaxNodes; ++node) {
            RingFields fields = sound;
            fields.wIdx.at(node) = wrong;
            EXPECT_FALSE(FlowOf(fields, 1000, 4));
            fields = sound;
            fields.rIdx.at(node) = wrong;
            EXPECT_FALSE(FlowOf(fields, 1000, 4));
            fields = sound;
            fields.avail.at(node) = wrong + (wrong == 1000 ? 1 : 0);
            EXPECT_FALSE(FlowOf(fields, 1000, 4));
        }
    }
}

TEST(LastNodeReached, IsTheLastThatHasReadOrHasSomethingToRead) {
    RingFields fields;
    EXPECT_EQ(LastNodeReached(fields, 1000), 1U);
    fields.avail = {900, 0, 10, 0, 0};
    fields.wIdx[0] = 100;
    fields.rIdx = {0, 100, 90, 0, 0};
    EXPECT_EQ(LastNodeReached(fields, 1000), 2U);
    fields.rIdx = {0, 100, 90, 90, 50};
    EXPECT_EQ(LastNodeReached(fields, 1000), 4U);
}

TEST(LastNodeReached, IsNotOneThatOnlyALongerChainBeforeHasReached) {
    RingFields fields;
    fields.avail = {900, 60, 0, 0, 0};
    fields.wIdx[0] = 700;
    fields.rIdx = {0, 640, 620, 0, 0};
    EXPECT_EQ(LastNodeReached(fields, 1000), 2U) << "it holds some of the bytes";
    fields.rIdx[2] = 500;
    EXPECT_EQ(LastNodeReached(fields, 1000), 1U);
    EXPECT_EQ(LastNodeThatFits(fields, 1000), 1U);
    fields.avail[0] -= 26;
    fields.avail[2] = 1;
    EXPECT_EQ(LastNodeReached(fields, 1000), 2U);
    EXPECT_EQ(LastNodeThatFits(fields, 1000), std::nullopt);
}

TEST(Distance, GoesRoundTheRing) {
    EXPECT_EQ(Distance(3, 10, 100), 7U);
    EXPECT_EQ(Distance(10, 3, 100), 93U);
    EXPECT_EQ(Distance(150, 20, 100), 70U);
    EXPECT_EQ(Distance(5, 5, 100), 0U);
    constexpr std::uint64_t kLargest = std::uint64_t{1} << 63U;
    EXPECT_EQ(Distance(kLargest - 1, kLargest - 2, kLargest), kLargest - 1);
}

}  // namespace
}  // namespace qel::test
