#pragma once

#include <sched.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <new>

#include "ChildProcess.h"

namespace qel::test {

/// A counter that this process and those forked from it share.
class SharedCount {
public:
    SharedCount()
        : count_(::mmap(nullptr, sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                        -1, 0)) {
        if (count_ == MAP_FAILED) {
            throw std::bad_alloc();
        }
    }
    ~SharedCount() { ::munmap(count_, sizeof(Count)); }
    SharedCount(const SharedCount&) = delete;
    SharedCount& operator=(const SharedCount&) = delete;

    void Add() const { ++Get(); }
    [[nodiscard]] int Value() const { return Get(); }

private:
    using Count = std::atomic<int>;
    static_assert(Count::is_always_lock_free);

    [[nodiscard]] Count& Get() const { return *static_cast<Count*>(count_); }

    void* count_;  // all zeros is 0
};

/// Returns when `isTrue()`; false if the child process has ended before.
template <typename Predicate>
bool AwaitThat(const ChildProcess& child, Predicate isTrue) {
    while (!isTrue()) {
        siginfo_t ended{};
        if (::waitid(P_PID, static_cast<id_t>(child.Pid()), &ended, WEXITED | WNOHANG | WNOWAIT) ==
                -1 ||
            ended.si_pid == child.Pid()) {
            return isTrue();
        }
        ::sched_yield();
    }
    return true;
}

/// Returns when the child process has raised `count` by `more`; false if it has ended before.
inline bool AwaitMore(const ChildProcess& child, const SharedCount& count, int more) {
    const int least = count.Value() + more;
    return AwaitThat(child, [&] { return count.Value() >= least; });
}

/// What a handler asks of the system calls that it interrupts.
enum class Interrupted { Fail, Restart };

/// Why a build with a race detector leaves a test out.
inline constexpr const char* kHandlersAreLate =
    "the race detector runs no handler while a call is repeated that it does not know";

/// A thousand signals a second to this process, for as long as it lives. Each is counted by the
/// handler. One at a time.
class SignalStorm {
public:
    SignalStorm(Interrupted calls, const SharedCount& count) {
        Count() = &count;
        struct sigaction action {};
        action.sa_handler = [](int /*signal*/) {
            const int before = errno;
            Count()->Add();
            errno = before;
        };
        action.sa_flags = calls == Interrupted::Restart ? SA_RESTART : 0;
        ::sigaction(SIGALRM, &action, nullptr);
        SetTimer(1000);
    }
    ~SignalStorm() {
        SetTimer(0);
        (void)std::signal(SIGALRM, SIG_IGN);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

private:
    static const SharedCount*& Count() {
        static const SharedCount* count = nullptr;
        return count;
    }
    static void SetTimer(suseconds_t microseconds) {
        const itimerval interval{{0, microseconds}, {0, microseconds}};
        ::setitimer(ITIMER_REAL, &interval, nullptr);
    }
};

}  // namespace qel::test
