#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace qel {

inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

[[nodiscard]] inline std::int64_t ReadClock(clockid_t clock) noexcept {
    timespec now{};
    (void)clock_gettime(clock, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

/// CLOCK_MONOTONIC in ns: the same clock in all processes.
[[nodiscard]] inline std::int64_t MonotonicNow() noexcept {
    return ReadClock(CLOCK_MONOTONIC);
}

/// CPU time of all threads of this process in ns, in user mode and in the kernel. Finer than what
/// getrusage tells, and of the same source.
[[nodiscard]] inline std::int64_t CpuNow() noexcept {
    return ReadClock(CLOCK_PROCESS_CPUTIME_ID);
}

inline void SleepUntil(std::int64_t monotonic) noexcept {
    const timespec until{monotonic / kNanosecondsPerSecond, monotonic % kNanosecondsPerSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

/// CPU time and time since its making.
class Stopwatch {
public:
    struct Figures {
        std::int64_t cpu;   ///< ns
        std::int64_t time;  ///< ns
    };

    [[nodiscard]] Figures Read() const noexcept {
        return {CpuNow() - cpu_, MonotonicNow() - time_};
    }

private:
    std::int64_t cpu_ = CpuNow();
    std::int64_t time_ = MonotonicNow();
};

/// What this process costs while nothing happens for so long.
[[nodiscard]] inline Stopwatch::Figures MeasureIdling(double seconds) noexcept {
    const Stopwatch idling;
    SleepUntil(MonotonicNow() + static_cast<std::int64_t>(seconds * 1e9));
    return idling.Read();
}

}  // namespace qel
