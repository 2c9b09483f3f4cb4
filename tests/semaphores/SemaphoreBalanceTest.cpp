// The balance of a handle that two threads use at the same instant. System calls that do nothing
// leave the threads with little to do but to count.

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include "BuildKind.h"
#include "NamedSemaphore.h"
#include "Sys.h"

namespace qel::test {
namespace {

constexpr int kCallsInARound = 1000;
constexpr int kRoundsTogether = kSlowBuild ? 50 : 200;
constexpr int kMostRounds = 100 * kRoundsTogether;

/// Semaphores that always have another unit. Counts calls from the time on that it is told to.
class EndlessSemaphores : public Sys {
public:
    void Count() { counting_ = true; }
    /// What was posted less what was taken, since then.
    [[nodiscard]] std::int64_t Balance() const { return balance_; }

private:
    sem_t* DoSemOpenc(const char* /*name*/, int /*flags*/, unsigned int /*mode*/,
                      unsigned int /*value*/) override {
        return &semaphore_;
    }
    int DoSemClose(sem_t* /*sem*/) override { return 0; }
    int DoSemPost(sem_t* /*sem*/) override { return Note(1); }
    int DoSemWait(sem_t* /*sem*/) override { return Note(-1); }
    int DoSemTimedwait(sem_t* /*sem*/, std::chrono::duration<double> /*timeout*/) override {
        return Note(-1);
    }
    int DoSemTryWait(sem_t* /*sem*/) override { return Note(-1); }

    int Note(int units) {
        if (counting_) {
            balance_ += units;
        }
        return 0;
    }

    sem_t semaphore_{};
    bool counting_ = false;
    std::int64_t balance_ = 0;
};

/// Keeps the calling thread on the first, the second, ... of the processors that it may use, if it
/// may use so many. Left to the scheduler, two threads may share one for long.
void StayOnProcessor(int index) {
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof(allowed), &allowed) == -1) {
        return;
    }
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed) && index-- == 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(processor, &one);
            ::sched_setaffinity(0, sizeof(one), &one);
            return;
        }
    }
}

/// Two threads that call at once. It is the scheduler's matter when both really run side by side,
/// so each goes on until it has been seen often enough that the other got on meanwhile; on a
/// machine with one processor, until kMostRounds. Nothing here orders the calls of one thread after
/// the other's.
class Race {
public:
    /// What thread `self`, 0 or 1, does: makes the same call, round by round.
    void Run(int self, const NamedSemaphore& semaphore, void (*call)(const NamedSemaphore&)) {
        StayOnProcessor(self);
        std::atomic<int>& mine = rounds_[self];
        const std::atomic<int>& others = rounds_[1 - self];
        for (int together = 0; !over_.load(kUnordered) && mine.load(kUnordered) < kMostRounds;) {
            const int before = others.load(kUnordered);
            for (int i = 0; i < kCallsInARound; ++i) {
                call(semaphore);
            }
            mine.fetch_add(1, kUnordered);
            together += others.load(kUnordered) == before ? 0 : 1;
            if (together == kRoundsTogether) {
                over_.store(true, kUnordered);
            }
        }
    }
    [[nodiscard]] std::int64_t Calls(int self) const {
        return std::int64_t{rounds_[self]} * kCallsInARound;
    }

private:
    static constexpr std::memory_order kUnordered = std::memory_order_relaxed;

    std::atomic<int> rounds_[2] = {};
    std::atomic<bool> over_{false};
};

void Post(const NamedSemaphore& semaphore) {
    semaphore.Post();
}
void Wait(const NamedSemaphore& semaphore) {
    semaphore.Wait();
}
void TimedWait(const NamedSemaphore& semaphore) {
    semaphore.TimedWait(std::chrono::hours(1));
}
void TryWait(const NamedSemaphore& semaphore) {
    (void)semaphore.TryWait();
}

struct Caller {
    void (*call)(const NamedSemaphore&);
    int units;  ///< what a call adds to the balance
};

struct Pair {
    const char* name;
    Caller first;
    Caller second;
};

constexpr Caller kPost{Post, 1};
constexpr Caller kWait{Wait, -1};
constexpr Caller kTimedWait{TimedWait, -1};
constexpr Caller kTryWait{TryWait, -1};

class SemaphoreBalance : public testing::TestWithParam<Pair> {};

TEST_P(SemaphoreBalance, LosesNoCallOfTwoThreadsAtOnce) {
    const auto& [name, first, second] = GetParam();
    const auto sys = std::make_shared<EndlessSemaphores>();
    Race race;
    {
        const NamedSemaphore semaphore("/semaphore", sys, 0);
        std::thread one([&, call = first.call] { race.Run(0, semaphore, call); });
        std::thread other([&, call = second.call] { race.Run(1, semaphore, call); });
        one.join();
        other.join();
        sys->Count();
    }
    EXPECT_EQ(sys->Balance(), -(race.Calls(0) * first.units + race.Calls(1) * second.units));
}

INSTANTIATE_TEST_SUITE_P(Pairs, SemaphoreBalance,
                         testing::Values(Pair{"PostAndPost", kPost, kPost},
                                         Pair{"WaitAndWait", kWait, kWait},
                                         Pair{"TimedWaitAndTimedWait", kTimedWait, kTimedWait},
                                         Pair{"TryWaitAndTryWait", kTryWait, kTryWait},
                                         Pair{"PostAndWait", kPost, kWait},
                                         Pair{"PostAndTimedWait", kPost, kTimedWait},
                                         Pair{"PostAndTryWait", kPost, kTryWait}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace qel::test
