#include <gtest/gtest.h>

#include <chrono>

#include "IdleStrategy.h"

namespace qel::test {
namespace {

using Kind = IdleStrategy::Pause::Kind;
using std::chrono::microseconds;

constexpr unsigned kManyRounds = 1000;

TEST(IdleStrategy, SpinningAndYieldingModesNeverSleep) {
    IdleStrategy spin(WaitMode::Spin);
    IdleStrategy yield(WaitMode::Yield);
    for (unsigned round = 0; round < kManyRounds; ++round) {
        EXPECT_EQ(spin.NextPause().kind, Kind::Spin);
        EXPECT_EQ(yield.NextPause().kind, Kind::Yield);
    }
}

TEST(IdleStrategy, SleepingModeSleepsFromTheFirstRoundAndDoublesUpToTheLongest) {
    IdleStrategy idle(WaitMode::Sleep);
    for (const int expected : {16, 32, 64, 128, 256, 512, 1000, 1000, 1000}) {
        const auto pause = idle.NextPause();
        EXPECT_EQ(pause.kind, Kind::Sleep);
        EXPECT_EQ(pause.sleep, microseconds(expected));
    }
}

TEST(IdleStrategy, AdaptiveModeIsTheDefaultAndSpinsThenYieldsThenSleepsForGood) {
    IdleStrategy idle;
    for (unsigned round = 0; round < IdleStrategy::kSpins; ++round) {
        ASSERT_EQ(idle.NextPause().kind, Kind::Spin) << round;
    }
    for (unsigned round = 0; round < IdleStrategy::kYields; ++round) {
        ASSERT_EQ(idle.NextPause().kind, Kind::Yield) << round;
    }
    EXPECT_EQ(idle.NextPause().sleep, IdleStrategy::kShortestSleep);
    for (unsigned round = 0; round < kManyRounds; ++round) {
        ASSERT_EQ(idle.NextPause().kind, Kind::Sleep) << round;
    }
    EXPECT_EQ(idle.NextPause().sleep, IdleStrategy::kLongestSleep);
}

TEST(IdleStrategy, ProgressBeginsTheNextWaitWithTheShortestPause) {
    IdleStrategy idle;
    for (unsigned round = 0; round < kManyRounds; ++round) {
        (void)idle.NextPause();
    }
    idle.Reset();
    for (unsigned round = 0; round < IdleStrategy::kSpins + IdleStrategy::kYields; ++round) {
        ASSERT_NE(idle.NextPause().kind, Kind::Sleep) << round;
    }
    EXPECT_EQ(idle.NextPause().sleep, IdleStrategy::kShortestSleep);
}

TEST(IdleStrategy, PausingTakesTheRoundsThatArePlanned) {
    for (const WaitMode mode : {WaitMode::Spin, WaitMode::Yield, WaitMode::Sleep}) {
        IdleStrategy idle(mode);
        idle.Idle();
        IdleStrategy planned(mode);
        (void)planned.NextPause();
        EXPECT_EQ(idle.NextPause().sleep, planned.NextPause().sleep);
    }
}

TEST(IdleStrategy, SleepLastsAtLeastAsLongAsPlanned) {
    IdleStrategy idle(WaitMode::Sleep);
    const auto start = std::chrono::steady_clock::now();
    idle.Idle();
    EXPECT_GE(std::chrono::steady_clock::now() - start, IdleStrategy::kShortestSleep);
}

}  // namespace
}  // namespace qel::test
