#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>

namespace qel {

/// `value` cut toward zero; what no 64-bit integer can hold becomes the nearest that can, and a
/// NaN the lowest.
inline std::int64_t SaturatingTruncate(double value) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (value >= kLimit) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (value >= -kLimit) {
        return static_cast<std::int64_t>(value);
    }
    return std::numeric_limits<std::int64_t>::min();
}

/// The point in time `timeout` after `nowNanoseconds`, both since the epoch.
///
/// Double arithmetic throughout, multiplication first: the result is good to a few hundred
/// nanoseconds. The nanoseconds are neither carried nor clamped; what is out of range, as after a
/// time-out that is infinite or not a number, is for the system to refuse with `EINVAL`. Must be
/// compiled without fusing multiplication and addition.
inline timespec DeadlineAfter(std::chrono::duration<double> timeout, std::int64_t nowNanoseconds) {
    constexpr double kNanosecondsPerSecond = 1000000000.0;
    const double total =
        timeout.count() * kNanosecondsPerSecond + static_cast<double>(nowNanoseconds);
    timespec deadline{};
    deadline.tv_sec = SaturatingTruncate(total / kNanosecondsPerSecond);
    deadline.tv_nsec =
        SaturatingTruncate(total - static_cast<double>(deadline.tv_sec) * kNanosecondsPerSecond);
    return deadline;
}

}  // namespace qel
