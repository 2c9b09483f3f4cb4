#pragma once

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include <cstdint>
#include <ctime>

namespace qel::bench {

[[nodiscard]] inline std::int64_t ReadClock(clockid_t clock) noexcept {
    timespec now{};
    (void)clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

/// ns, the same clock in all processes.
[[nodiscard]] inline std::int64_t Now() noexcept {
    return ReadClock(CLOCK_MONOTONIC);
}

/// CPU time of all threads of this process in ns, in user mode and in the kernel.
[[nodiscard]] inline std::int64_t CpuNow() noexcept {
    return ReadClock(CLOCK_PROCESS_CPUTIME_ID);
}

/// A clock that is cheap to read, in a unit of its own; see `NanosecondsPerTick`.
[[nodiscard]] inline std::uint64_t Ticks() noexcept {
#if defined(__x86_64__)
    return __rdtsc();
#else
    return static_cast<std::uint64_t>(Now());
#endif
}

/// Measures both clocks for as long as the caller likes.
class TickScale {
public:
    [[nodiscard]] double NanosecondsPerTick() const noexcept {
        const auto ticks = static_cast<double>(Ticks() - ticks_);
        return ticks > 0 ? static_cast<double>(Now() - time_) / ticks : 1;
    }

private:
    std::int64_t time_ = Now();
    std::uint64_t ticks_ = Ticks();
};

/// A turn of a loop that waits for another core.
inline void Relax() noexcept {
#if defined(__x86_64__)
    _mm_pause();
#endif
}

}  // namespace qel::bench
