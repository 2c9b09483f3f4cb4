// The deadline that reaches the C library, under a clock and a wait that stand in for the real
// ones in this program.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <semaphore.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

#include "DeadlineRows.h"
#include "Sys.h"
#include "SysFactory.h"

namespace qel::test {
namespace {

struct WaitCall {
    sem_t* semaphore;
    timespec deadline;
};

/// The clock and the wait for as long as it lives.
class SubstitutedWait {
public:
    explicit SubstitutedWait(std::int64_t now) : now_(now) { current_ = this; }
    ~SubstitutedWait() { current_ = nullptr; }
    SubstitutedWait(const SubstitutedWait&) = delete;
    SubstitutedWait& operator=(const SubstitutedWait&) = delete;

    static SubstitutedWait* Current() { return current_; }

    /// The next waits fail with these numbers, 0 for success; then all succeed.
    void Script(std::vector<int> errors) { errors_ = std::move(errors); }
    [[nodiscard]] const std::vector<WaitCall>& Calls() const { return calls_; }
    [[nodiscard]] int ClockReadings() const { return readings_; }

    void Read(timespec* time) {
        constexpr std::int64_t kSecond = 1000000000;
        const std::int64_t below = now_ % kSecond < 0 ? 1 : 0;
        time->tv_sec = now_ / kSecond - below;
        time->tv_nsec = now_ % kSecond + below * kSecond;
        ++readings_;
    }
    int Wait(sem_t* semaphore, const timespec* deadline) {
        calls_.push_back({semaphore, *deadline});
        now_ /= 2;  // the clock is set; the deadline must stay
        const int error = calls_.size() <= errors_.size() ? errors_[calls_.size() - 1] : 0;
        if (error != 0) {
            errno = error;
            return -1;
        }
        if (calls_.size() > errors_.size() + 1) {
            errno = 0;  // lets a caller that goes on for its own errno's sake come to an end
        }
        return 0;
    }

private:
    static SubstitutedWait* current_;

    std::int64_t now_;
    std::vector<int> errors_;
    std::vector<WaitCall> calls_;
    int readings_ = 0;
};

SubstitutedWait* SubstitutedWait::current_ = nullptr;

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace qel::test

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    auto* const substitute = qel::test::SubstitutedWait::Current();
    if (substitute != nullptr && clock == CLOCK_REALTIME) {
        substitute->Read(time);
        return 0;
    }
    static auto* const next = qel::test::Next<int(clockid_t, timespec*)>("clock_gettime");
    return next(clock, time);
}

__attribute__((visibility("default"))) int sem_timedwait(sem_t* semaphore,
                                                         const timespec* deadline) {
    auto* const substitute = qel::test::SubstitutedWait::Current();
    if (substitute != nullptr) {
        return substitute->Wait(semaphore, deadline);
    }
    static auto* const next = qel::test::Next<int(sem_t*, const timespec*)>("sem_timedwait");
    return next(semaphore, deadline);
}
}

namespace qel::test {
namespace {

class SysTimedWait : public testing::TestWithParam<DeadlineRow> {
protected:
    Sys sys_;
    sem_t semaphore_{};
};

TEST_P(SysTimedWait, HandsTheDeadlineToTheSystemUnchanged) {
    const DeadlineRow& row = GetParam();
    SubstitutedWait system(row.now);
    EXPECT_EQ(sys_.sem_timedwait(&semaphore_, std::chrono::duration<double>(row.timeout)), 0);
    EXPECT_EQ(system.ClockReadings(), 1);
    ASSERT_EQ(system.Calls().size(), 1U);
    EXPECT_EQ(system.Calls()[0].semaphore, &semaphore_);
    EXPECT_EQ(system.Calls()[0].deadline.tv_sec, row.sec);
    EXPECT_EQ(system.Calls()[0].deadline.tv_nsec, row.nsec);
}

INSTANTIATE_TEST_SUITE_P(Rows, SysTimedWait, testing::ValuesIn(DeadlineRows()),
                         [](const auto& row) { return row.param.name; });

class SysTimedWaitResult : public testing::Test {
protected:
    int Wait(double seconds) {
        return sys_->sem_timedwait(&semaphore_, std::chrono::duration<double>(seconds));
    }

    const std::shared_ptr<SysIF> sys_ = SysFactory::Create("");
    sem_t semaphore_{};
};

TEST_F(SysTimedWaitResult, ComesAfterAllInterruptionsWithTheFirstDeadlineKept) {
    for (const int seconds : {2, -2}) {
        SubstitutedWait system(1700000000000000000);
        system.Script({EINTR, EINTR, EINTR, 0});
        EXPECT_EQ(Wait(seconds), 0);
        EXPECT_EQ(system.ClockReadings(), 1);
        ASSERT_EQ(system.Calls().size(), 4U);
        for (const WaitCall& call : system.Calls()) {
            EXPECT_EQ(call.deadline.tv_sec, 1700000000 + seconds);
            EXPECT_EQ(call.deadline.tv_nsec, 0);
        }
    }
}

TEST_F(SysTimedWaitResult, IsTheSystemsFailureWithItsErrno) {
    const std::vector<int> nothing;
    const std::vector<int> interruption = {EINTR};
    for (const std::vector<int>& before : {nothing, interruption}) {
        for (const int error : {ETIMEDOUT, EINVAL, EDEADLK, EAGAIN}) {
            SubstitutedWait system(0);
            std::vector<int> script = before;
            script.push_back(error);
            system.Script(script);
            errno = 0;
            EXPECT_EQ(Wait(2), -1);
            EXPECT_EQ(errno, error);
            EXPECT_EQ(system.Calls().size(), script.size());
        }
    }
}

TEST_F(SysTimedWaitResult, IsASuccessAtOnceWhateverErrnoHoldsFromBefore) {
    const SubstitutedWait system(0);
    errno = EINTR;
    EXPECT_EQ(Wait(2), 0);
    EXPECT_EQ(system.Calls().size(), 1U);
}

}  // namespace
}  // namespace qel::test
