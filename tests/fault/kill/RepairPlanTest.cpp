// What repair makes of a ring, and what it refuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "RingCheckFixture.h"
#include "RingRepair.h"

namespace qel::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using RepairPlan = CheckOfARing;

TEST_F(RepairPlan, AsksForTheNodesWhereTheRingDoesNotTell) {
    Write(1);
    Take(*middle_, false);  // two nodes, the sink held it; or more, node 1 did
    const RingRepairPlan unclear = PlanRepair(ring_.File(), {});
    EXPECT_FALSE(unclear.CanBeDone());
    EXPECT_THAT(unclear.refusal, HasSubstr("2 nodes or 3"));
    EXPECT_THAT(Check().front().text, HasSubstr("if the chain has 2 nodes"));
    EXPECT_THAT(Check().front().mend, HasSubstr("--nodes N"));
    const RingRepairPlan two = PlanRepair(ring_.File(), {2, {}});
    EXPECT_EQ(two.after.avail[0], kSize);
    EXPECT_EQ(two.after.numPackets, 0U);
    EXPECT_THAT(two.remarks, ElementsAre(HasSubstr("lost: 1 packet")));
    const RingRepairPlan three = PlanRepair(ring_.File(), {3, {}});
    EXPECT_EQ(three.after.avail[2], 126U);
    EXPECT_EQ(three.after.numPackets, 1U);
    EXPECT_THAT(three.remarks, ElementsAre("kept: 1 packet, which node 1 had read, for node 2",
                                           "waiting for node 2: 1 packet"));
}

TEST_F(RepairPlan, RefusesAChainThatEndsAheadOfWaitingPackets) {
    Write(1);
    Take(*middle_, true);
    const RingRepairPlan plan = PlanRepair(ring_.File(), {2, {}});
    EXPECT_FALSE(plan.CanBeDone());
    EXPECT_THAT(plan.refusal, HasSubstr("packets wait for node 2"));
}

TEST_F(RepairPlan, RefusesWhatNoDeathLeaves) {
    Write(1);
    Take(*middle_, true);
    Take(*sink_, true);
    Write(2);
    const RingImage::Bytes sound = ring_.Save();
    const std::function<void(ControlBlock&)> forgeries[] = {
        [](auto& control) { control.halfSize = 1; },
        [](auto& control) { control.initialised.store(0); },
        [](auto& control) { control.avail[2].store(5); },
        [](auto& control) { control.avail[0].fetch_add(5); },
        [](auto& control) { control.wIdx[0].store(kSize); },
        [](auto& control) { control.rIdx[1].fetch_add(5); },
    };
    for (const auto& forge : forgeries) {
        ring_.Restore(sound);
        forge(Control());
        const RingRepairPlan plan = PlanRepair(ring_.File(), {3, {}});
        EXPECT_FALSE(plan.CanBeDone());
        EXPECT_THAT(plan.Changes(), IsEmpty());
        EXPECT_THAT(plan.instead, HasSubstr("qev clean"));
    }
}

TEST_F(RepairPlan, SetsAnotherLimitAndTheCountThatBelongsToIt) {
    Write(1);
    EXPECT_THAT(PlanRepair(ring_.File(), {3, 9}).Changes(), ElementsAre("maxPackets  6 -> 10"));
    EXPECT_THAT(PlanRepair(ring_.File(), {3, 0}).Changes(),
                ElementsAre("numPackets  1 -> 0", "maxPackets  6 -> 0"));
    EXPECT_THAT(PlanRepair(ring_.File(), {3, {}}).Changes(), IsEmpty());
}

TEST_F(RepairPlan, OfARingThatHasChangedSinceDoesNothing) {
    Write(1);
    Control().wIdx[0].store(0);
    const RingRepairPlan plan = PlanRepair(ring_.File(), {3, {}});
    ASSERT_TRUE(plan.CanBeDone());
    Control().avail[0].fetch_sub(1);
    const RingImage::Bytes before = ring_.Save();
    EXPECT_THROW(RingHold(ring_.File(), RingHold::IfInUse::Refuse).Apply(plan), std::runtime_error);
    EXPECT_EQ(ring_.Save(), before);
}

}  // namespace
}  // namespace qel::test
