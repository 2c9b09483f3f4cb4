// A thousand signals a second to a process that waits for a semaphore. The other side lets go after
// signals have been counted, not after a time.

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <tuple>

#include "Attempts.h"
#include "ChildProcess.h"
#include "SemaphoreMultiLockHelper.h"
#include "SignalStorm.h"
#include "SysFactory.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

constexpr int kRounds = 3;
constexpr int kSignals = 20;
constexpr auto kLong = std::chrono::hours(1);

/// A way to take units, which returns only when they are taken.
struct Way {
    const char* name;
    int units;
    void (*take)(NamedSemaphore& semaphore, const SystemSemaphore& system);
};

class AWaitUnderSignals : public testing::TestWithParam<std::tuple<Way, Interrupted>> {};

TEST_P(AWaitUnderSignals, EndsWithItsUnitsAndLosesNone) {
    const auto& [way, interrupted] = GetParam();
    const UniqueSemaphoreName name;
    const SystemSemaphore semaphore(name.Name().substr(1), SystemSemaphore::IfMissing::Create);
    const SharedCount signals;
    const SharedCount taken;
    ChildProcess child([&, &way = way, interrupted = interrupted](const Conversation& parent) {
        NamedSemaphore mine(name.Name(), 0);
        const std::string said = Result([&] {
            const SignalStorm storm(interrupted, signals);
            for (int round = 0; round < kRounds; ++round) {
                way.take(mine, semaphore);
                taken.Add();
            }
        });
        if (said != "works") {
            throw std::runtime_error(said);
        }
        parent.Say("all taken");
        return parent.Hear() == "end" ? 0 : 1;
    });
    for (int round = 0; round < kRounds; ++round) {
        for (int unit = 0; unit < way.units; ++unit) {
            ASSERT_TRUE(AwaitMore(child, signals, kSignals));
            ASSERT_EQ(taken.Value(), round);
            semaphore.Post();
        }
        ASSERT_TRUE(AwaitThat(child, [&, round] { return taken.Value() > round; }));
    }
    EXPECT_EQ(child.Hear(), "all taken");
    EXPECT_EQ(semaphore.Value(), 0);
    child.Say("end");
    EXPECT_EQ(child.ExitCode(), 0);
}

using Semaphore = NamedSemaphore;
using System = SystemSemaphore;

INSTANTIATE_TEST_SUITE_P(
    By, AWaitUnderSignals,
    testing::Combine(
        testing::Values(
            Way{"Wait", 1, [](Semaphore& semaphore, const System&) { semaphore.Wait(); }},
            Way{"TimedWait", 1,
                [](Semaphore& semaphore, const System&) { semaphore.TimedWait(kLong); }},
            Way{"TryWait", 1,
                [](Semaphore& semaphore, const System&) {
                    while (!semaphore.TryWait()) {
                        ::sched_yield();
                    }
                }},
            Way{"Lock", 3,
                [](Semaphore& semaphore, const System&) {
                    SemaphoreMultiLockHelper{semaphore, 3}.Lock();
                }},
            Way{"TryLock", 3,
                [](Semaphore& semaphore, const System&) {
                    while (!SemaphoreMultiLockHelper{semaphore, 3}.TryLock()) {
                        ::sched_yield();
                    }
                }},
            Way{"Take", 1,
                [](Semaphore&, const System& system) {
                    (void)system.Take(std::nullopt, [] { return false; });
                }},
            Way{"TakeWithADeadline", 1,
                [](Semaphore&, const System& system) {
                    (void)system.Take(std::chrono::steady_clock::now() + kLong,
                                      [] { return false; });
                }},
            Way{"TakeForWhichReturnsAtEverySignal", 1,
                [](Semaphore&, const System& system) {
                    while (!system.TakeFor(kLong)) {
                    }
                }}),
        testing::Values(Interrupted::Fail, Interrupted::Restart)),
    [](const auto& row) {
        return std::get<0>(row.param).name +
               std::string(std::get<1>(row.param) == Interrupted::Fail ? "" : "Restarted");
    });

// Its end takes back what was posted, and waits for that.
TEST(EndOfAHandleUnderSignals, TakesBackAllThatItPosted) {
    const UniqueSemaphoreName name;
    const SystemSemaphore semaphore(name.Name().substr(1), SystemSemaphore::IfMissing::Create);
    const SharedCount signals;
    ChildProcess child([&](const Conversation& parent) {
        {
            const SignalStorm storm(Interrupted::Fail, signals);
            NamedSemaphore mine(name.Name(), 0);
            mine.Post();
            while (semaphore.Value() != 0) {
                ::sched_yield();
            }
        }
        parent.Say("settled");
        return 0;
    });
    ASSERT_TRUE(AwaitThat(child, [&] { return semaphore.TryTake(); }));
    ASSERT_TRUE(AwaitMore(child, signals, kSignals));
    semaphore.Post();
    EXPECT_EQ(child.Hear(), "settled");
    EXPECT_EQ(semaphore.Value(), 0);
}

}  // namespace
}  // namespace qel::test
