// The timed wait step by step: this program puts itself between Sys and the C library's clock and
// wait, so that interruptions come when the test wants them.

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "Deadline.h"
#include "SysFactory.h"

namespace qel::test {
namespace {

std::function<int(sem_t*, const timespec*)> onTimedwait;
std::function<std::int64_t()> onNow;

}  // namespace

// The linker leads references to X to __wrap_X, and those to __real_X to X. A point of time of the
// system's clock is passed like the count of nanoseconds that it is.
int RealTimedwait(sem_t* sem, const timespec* deadline) __asm__("__real_sem_timedwait");
std::int64_t RealNow() __asm__("__real__ZNSt6chrono3_V212system_clock3nowEv");

int WrappedTimedwait(sem_t* sem, const timespec* deadline) __asm__("__wrap_sem_timedwait");
int WrappedTimedwait(sem_t* sem, const timespec* deadline) {
    return onTimedwait ? onTimedwait(sem, deadline) : RealTimedwait(sem, deadline);
}

std::int64_t WrappedNow() __asm__("__wrap__ZNSt6chrono3_V212system_clock3nowEv");
std::int64_t WrappedNow() {
    return onNow ? onNow() : RealNow();
}

namespace {

constexpr std::int64_t kNow = 1700000000123456789;

class TimedWait : public testing::Test {
public:
    ~TimedWait() override {
        onNow = nullptr;
        onTimedwait = nullptr;
    }

protected:
    TimedWait() {
        onNow = [this] {
            ++clockReads_;
            return kNow;
        };
        onTimedwait = [this](sem_t* sem, const timespec* deadline) {
            waitedOn_ = sem;
            deadlines_.push_back(*deadline);
            if (waits_.empty()) {
                return 0;
            }
            errno = waits_.front();
            waits_.erase(waits_.begin());
            return -1;
        };
    }

    int Wait(double seconds) {
        const int result = sys_->sem_timedwait(&semaphore_, std::chrono::duration<double>(seconds));
        EXPECT_EQ(&semaphore_, waitedOn_);
        return result;
    }
    void ExpectAllDeadlines(std::int64_t seconds, std::int64_t nanoseconds) {
        for (const timespec& deadline : deadlines_) {
            EXPECT_EQ(seconds, deadline.tv_sec);
            EXPECT_EQ(nanoseconds, deadline.tv_nsec);
        }
    }

    std::shared_ptr<SysIF> sys_ = SysFactory::Create("");
    sem_t semaphore_{};
    std::vector<int> waits_;  // errnos of the refusals to come; then success
    std::vector<timespec> deadlines_;
    int clockReads_ = 0;
    sem_t* waitedOn_ = nullptr;
};

TEST_F(TimedWait, ClockIsReadOnceAndTheDeadlineIsAbsolute) {
    EXPECT_EQ(0, Wait(0.25));
    EXPECT_EQ(1, clockReads_);
    ASSERT_EQ(1U, deadlines_.size());
    ExpectAllDeadlines(1700000000, 373456896);
}

TEST_F(TimedWait, InterruptedWaitGoesOnToTheSameDeadline) {
    waits_ = {EINTR, EINTR, EINTR};
    EXPECT_EQ(0, Wait(-2.0));
    EXPECT_EQ(1, clockReads_);
    ASSERT_EQ(4U, deadlines_.size());
    ExpectAllDeadlines(1699999998, 123456768);
}

TEST_F(TimedWait, InterruptionsDoNotHideTheTimeout) {
    waits_ = {EINTR, ETIMEDOUT};
    EXPECT_EQ(-1, Wait(1.0));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(2U, deadlines_.size());
}

TEST_F(TimedWait, NoOtherErrorIsTriedAgain) {
    for (const int error : {ETIMEDOUT, EINVAL, EDEADLK, EAGAIN}) {
        deadlines_.clear();
        waits_ = {error};
        EXPECT_EQ(-1, Wait(1.0));
        EXPECT_EQ(error, errno);
        EXPECT_EQ(1U, deadlines_.size());
    }
}

TEST_F(TimedWait, StaleErrnoOfAnEarlierCallDoesNotRepeatASuccess) {
    errno = EINTR;
    EXPECT_EQ(0, Wait(1.0));
    EXPECT_EQ(1U, deadlines_.size());
}

std::atomic<int> signals{0};

void CountSignal(int /*number*/) {
    ++signals;
}

/// Interrupts the thread that made it, again and again, as long as it lives.
class Interrupter {
public:
    explicit Interrupter(std::function<void()> afterManySignals) {
        signals = 0;
        struct sigaction action {};
        action.sa_handler = CountSignal;  // without SA_RESTART
        EXPECT_EQ(0, ::sigaction(SIGUSR1, &action, &before_));
        thread_ =
            std::thread([this, waiter = ::pthread_self(), afterMany = std::move(afterManySignals)] {
                while (signals < 200 && !stop_) {
                    ::pthread_kill(waiter, SIGUSR1);
                    std::this_thread::yield();
                }
                afterMany();
                while (!stop_) {
                    ::pthread_kill(waiter, SIGUSR1);
                    std::this_thread::yield();
                }
            });
    }
    ~Interrupter() {
        stop_ = true;
        thread_.join();
        std::signal(SIGUSR1, SIG_IGN);  // drops a signal that has not been delivered yet
        ::sigaction(SIGUSR1, &before_, nullptr);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

private:
    struct sigaction before_ {};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class WaitUnderSignals : public testing::Test {
public:
    ~WaitUnderSignals() override { ::sem_destroy(&semaphore_); }

protected:
    WaitUnderSignals() { ::sem_init(&semaphore_, 0, 0); }

    std::shared_ptr<SysIF> sys_ = SysFactory::Create("");
    sem_t semaphore_{};
};

TEST_F(WaitUnderSignals, TimedWaitGoesOn) {
    const Interrupter interrupter([this] { ::sem_post(&semaphore_); });
    EXPECT_EQ(0, sys_->sem_timedwait(&semaphore_, std::chrono::duration<double>(3600)));
    EXPECT_GE(signals, 200);
}

TEST_F(WaitUnderSignals, PlainWaitEndsAsTheSystemSays) {
    const Interrupter interrupter([] {});
    errno = 0;
    EXPECT_EQ(-1, sys_->sem_wait(&semaphore_));
    EXPECT_EQ(EINTR, errno);
}

}  // namespace
}  // namespace qel::test
