// Handles on semaphores of the system, in one process.

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CapturedOutput.h"
#include "NamedSemaphore.h"
#include "SemaphoreMultiLockHelper.h"
#include "Thrown.h"
#include "UniqueSemaphoreName.h"

namespace qel::test {
namespace {

class RealSemaphore : public testing::Test {
protected:
    /// The value seen by an outsider.
    [[nodiscard]] int Value() const { return NamedSemaphore(name_.Name(), 0).GetValue(); }

    const UniqueSemaphoreName name_;
};

TEST_F(RealSemaphore, IsCreatedWithItsValueAndLivesOn) {
    { const NamedSemaphore semaphore(name_.Name(), 3); }
    EXPECT_EQ(Value(), 3);
}

TEST_F(RealSemaphore, KeepsItsValueWhenOpenedWithAnother) {
    const NamedSemaphore first(name_.Name(), 3);
    const NamedSemaphore second(name_.Name(), 7);
    EXPECT_EQ(first.GetValue(), 3);
    EXPECT_EQ(second.GetValue(), 3);
}

TEST_F(RealSemaphore, TakesAndGivesOneUnitAtATime) {
    const NamedSemaphore semaphore(name_.Name(), 3);
    semaphore.Wait();
    EXPECT_EQ(semaphore.GetValue(), 2);
    semaphore.TimedWait(std::chrono::hours(1));
    EXPECT_EQ(semaphore.GetValue(), 1);
    EXPECT_TRUE(semaphore.TryWait());
    EXPECT_EQ(semaphore.GetValue(), 0);
    EXPECT_FALSE(semaphore.TryWait());
    EXPECT_EQ(semaphore.GetValue(), 0);
    semaphore.Post();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST_F(RealSemaphore, GetsBackWhatAHandleTookOrGave) {
    const NamedSemaphore watch(name_.Name(), 5);
    {
        const NamedSemaphore taker(name_.Name(), 0);
        taker.Wait();
        taker.Wait();
        taker.Wait();
        EXPECT_EQ(watch.GetValue(), 2);
    }
    EXPECT_EQ(watch.GetValue(), 5);
    {
        const NamedSemaphore giver(name_.Name(), 0);
        giver.Post();
        giver.Post();
        EXPECT_EQ(watch.GetValue(), 7);
    }
    EXPECT_EQ(watch.GetValue(), 5);
}

TEST_F(RealSemaphore, IsOverTheRealSystemCallsAlsoWhenAnEmptyPointerIsGiven) {
    const NamedSemaphore semaphore(name_.Name(), nullptr, 2);
    EXPECT_EQ(semaphore.GetValue(), 2);
}

TEST_F(RealSemaphore, IsSettledBeforeAssignmentReturns) {
    const UniqueSemaphoreName other;
    NamedSemaphore semaphore(name_.Name(), 2);
    semaphore.Wait();
    semaphore = NamedSemaphore(other.Name(), 9);
    EXPECT_EQ(Value(), 2);
    EXPECT_EQ(semaphore.GetValue(), 9);
}

TEST_F(RealSemaphore, PassedLimitIsAFailure) {
    const NamedSemaphore semaphore(name_.Name(), 0);
    for (const double seconds : {0.0, -1.0, -1e6, 1e-9}) {
        EXPECT_EQ(Thrown([&] { semaphore.TimedWait(std::chrono::duration<double>(seconds)); }),
                  std::string("Error sem_timedwait ETIMEDOUT: ") + std::strerror(ETIMEDOUT));
    }
}

TEST_F(RealSemaphore, PassedLimitDoesNotKeepAFreeUnitFromBeingTaken) {
    const NamedSemaphore semaphore(name_.Name(), 2);
    semaphore.TimedWait(std::chrono::duration<double>(0));
    semaphore.TimedWait(std::chrono::duration<double>(-1));
    EXPECT_EQ(semaphore.GetValue(), 0);
}

TEST_F(RealSemaphore, LimitWithoutADeadlineIsRefusedBySystem) {
    const NamedSemaphore semaphore(name_.Name(), 0);
    for (const double seconds : {std::numeric_limits<double>::infinity(),
                                 std::numeric_limits<double>::quiet_NaN(), 1e300, -1e10}) {
        EXPECT_EQ(Thrown([&] { semaphore.TimedWait(std::chrono::duration<double>(seconds)); }),
                  std::string("Error sem_timedwait EINVAL: ") + std::strerror(EINVAL));
    }
}

TEST_F(RealSemaphore, AtItsGreatestValueRefusesAPost) {
    const NamedSemaphore semaphore(name_.Name(), INT_MAX);
    EXPECT_EQ(Thrown([&] { semaphore.Post(); }),
              std::string("Error sem_post:") + std::strerror(EOVERFLOW));
    EXPECT_EQ(semaphore.GetValue(), INT_MAX);
}

struct BadName {
    const char* label;
    std::string name;
    unsigned int value;
    int error;
};

class RejectedSemaphoreName : public testing::TestWithParam<BadName> {};

TEST_P(RejectedSemaphoreName, ThrowsAndIsTold) {
    const auto& [label, name, value, error] = GetParam();
    CapturedOutput output;
    EXPECT_EQ(Thrown<std::invalid_argument>(
                  [&, &name = name, value = value] { const NamedSemaphore bad(name, value); }),
              "Exception: Invalid Semaphore name");
    EXPECT_EQ(output.Text(), "Exception: Invalid Semaphore name: " + name +
                                 " errno: " + std::to_string(error) + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Names, RejectedSemaphoreName,
    testing::Values(BadName{"Empty", "", 0, EINVAL}, BadName{"OnlyASlash", "/", 0, EINVAL},
                    BadName{"SlashWithin", "/qev-test/never", 0, EINVAL},
                    BadName{"TooLong", "/" + std::string(252, 'n'), 0, ENAMETOOLONG},
                    BadName{"ValueTooGreat", "/qev-test-never-created", 1U + INT_MAX, EINVAL}),
    [](const auto& row) { return row.param.label; });

TEST_F(RealSemaphore, OfAllUnitsIsTakenAndGivenBackAsOne) {
    NamedSemaphore semaphore(name_.Name(), 3);
    SemaphoreMultiLockHelper all{semaphore, 3};
    all.Lock();
    EXPECT_EQ(semaphore.GetValue(), 0);
    EXPECT_FALSE(all.TryLock());
    all.Unlock();
    EXPECT_EQ(semaphore.GetValue(), 3);
    EXPECT_TRUE(all.TryLock());
    EXPECT_EQ(semaphore.GetValue(), 0);
}

TEST_F(RealSemaphore, OfTooFewUnitsIsLeftAsItWas) {
    NamedSemaphore semaphore(name_.Name(), 2);
    SemaphoreMultiLockHelper all{semaphore, 3};
    EXPECT_FALSE(all.TryLock());
    EXPECT_EQ(semaphore.GetValue(), 2);
}

TEST_F(RealSemaphore, GetsUnitsThatNobodyTook) {
    NamedSemaphore semaphore(name_.Name(), 1);
    SemaphoreMultiLockHelper all{semaphore, 3};
    all.Unlock();
    EXPECT_EQ(semaphore.GetValue(), 4);
}

TEST_F(RealSemaphore, BalanceOfAHandleThatManyThreadsUseIsExact) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 5000;
    constexpr int kUnits = kThreads * kRounds;
    const NamedSemaphore watch(name_.Name(), kUnits);
    {
        const NamedSemaphore shared(name_.Name(), 0);
        std::vector<std::thread> threads;
        threads.reserve(kThreads + 1);
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&shared, i] {
                for (int round = 0; round < kRounds; ++round) {
                    // Two threads take more than they give, the others give more than they take.
                    i % 2 == 0 ? shared.Wait() : shared.Post();
                    if (round % 3 == 0) {
                        i % 2 == 0 ? shared.Post() : shared.TimedWait(std::chrono::hours(1));
                    }
                    if (round % 5 == 0 && shared.TryWait()) {
                        shared.Post();
                    }
                    EXPECT_GE(shared.GetValue(), 0);
                }
            });
        }
        threads.emplace_back([&shared] {
            for (int round = 0; round < kRounds; ++round) {
                shared.Post();
            }
        });
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(watch.GetValue(), kUnits + kRounds);
    }
    EXPECT_EQ(watch.GetValue(), kUnits);
}

}  // namespace
}  // namespace qel::test
