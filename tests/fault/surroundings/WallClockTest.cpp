// The wall clock is set while somebody waits. The library reads the clock once, when the wait
// begins; the kernel compares its own with the deadline. So a reading that is an hour off is to it
// as if the clock had been set by an hour the moment after: here the reading is off, and the
// machine's clock is left alone.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <future>

#include "NamedSemaphore.h"
#include "SystemSemaphore.h"
#include "Thrown.h"
#include "UniqueSemaphoreName.h"
#include "Worker.h"

namespace qel::test {
namespace {

constexpr time_t kHour = 3600;

/// Seconds that readings of the wall clock are ahead of it.
std::atomic<time_t> ahead{0};

}  // namespace
}  // namespace qel::test

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
    using Function = int(clockid_t, timespec*);
    static auto* const next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "clock_gettime"));
    const int result = next(clock, time);
    if (clock == CLOCK_REALTIME) {
        time->tv_sec += qel::test::ahead;
    }
    return result;
}

namespace qel::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class AWallClock : public testing::Test {
protected:
    void TearDown() override { ahead = 0; }

    /// True if `result` is not there when far more than the limit of a millisecond has passed.
    template <typename Type>
    static bool OutlastsItsLimit(const std::future<Type>& result) {
        const auto enough = steady_clock::now() + milliseconds(50);
        while (steady_clock::now() < enough && !IsReady(result)) {
            ::sched_yield();
        }
        return !IsReady(result);
    }

    const UniqueSemaphoreName name_;
    const NamedSemaphore semaphore_{name_.Name(), 0};
    const SystemSemaphore system_{name_.Name().substr(1), SystemSemaphore::IfMissing::Refuse};
    Worker worker_;
};

TEST_F(AWallClock, ThatIsSetForwardEndsATimedWaitBeforeItsTime) {
    ahead = -kHour;
    EXPECT_EQ(Thrown([&] { semaphore_.TimedWait(seconds(kHour / 2)); }),
              "Error sem_timedwait ETIMEDOUT: Connection timed out");
    semaphore_.Post();
    EXPECT_EQ(semaphore_.GetValue(), 1);
    semaphore_.TimedWait(seconds(kHour / 2));  // what is free is taken all the same
}

TEST_F(AWallClock, ThatIsSetBackLengthensATimedWaitByAsMuch) {
    ahead = kHour;
    auto result = worker_.StartBlocked(
        [&] { return Thrown([&] { semaphore_.TimedWait(milliseconds(1)); }); }, SYS_futex);
    EXPECT_TRUE(OutlastsItsLimit(result));
    system_.Post();
    EXPECT_EQ(result.get(), "nothing thrown");
}

TEST_F(AWallClock, ThatIsSetForwardDoesNotEndAWaitOfPipelineKit) {
    ahead = -kHour;
    auto takeFor =
        worker_.StartBlocked([&] { return system_.TakeFor(seconds(kHour / 2)); }, SYS_futex);
    EXPECT_TRUE(OutlastsItsLimit(takeFor));
    system_.Post();
    EXPECT_TRUE(takeFor.get());

    auto take = worker_.StartBlocked(
        [&] {
            return system_.Take(steady_clock::now() + seconds(kHour / 2), [] { return false; });
        },
        SYS_futex);
    EXPECT_TRUE(OutlastsItsLimit(take));
    system_.Post();
    EXPECT_TRUE(take.get());
}

TEST_F(AWallClock, ThatIsSetBackDoesNotLengthenAWaitOfPipelineKit) {
    ahead = kHour;
    EXPECT_FALSE(system_.TakeFor(milliseconds(1)));
    EXPECT_FALSE(system_.Take(steady_clock::now() + milliseconds(1), [] { return false; }));
}

}  // namespace
}  // namespace qel::test
