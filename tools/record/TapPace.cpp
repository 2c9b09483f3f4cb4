#include "TapPace.h"

#include <algorithm>
#include <cmath>

namespace qel {

void TapPace::Came(std::uint64_t bytes, Clock::time_point now) noexcept {
    constexpr double kHalfLife = 10;  // seconds
    constexpr double kLeast = 1e-4;   // what comes within one look is no rate
    if (last_) {
        const double elapsed = std::chrono::duration<double>(now - *last_).count();
        rate_ = std::max(rate_ * std::exp2(-elapsed / kHalfLife),
                         static_cast<double>(bytes) / std::max(elapsed, kLeast));
    }
    last_ = now;
    next_ = kShortest;
}

std::chrono::microseconds TapPace::Longest() const noexcept {
    if (longest_) {
        return *longest_;
    }
    constexpr double kPart = 8;
    const double wanted = ringSize_ / kPart / rate_ * std::micro::den;
    const auto most = static_cast<double>(kLongest.count());
    const auto least = static_cast<double>(kShortest.count());
    return std::chrono::microseconds(static_cast<std::int64_t>(std::clamp(wanted, least, most)));
}

std::chrono::microseconds TapPace::Next() noexcept {
    const auto pause = std::min(next_, Longest());
    next_ = std::min(next_ * 2, kLongest);
    return pause;
}

}  // namespace qel
