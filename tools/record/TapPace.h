#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace qel {

/// How long a tap may look away: the pause grows while nothing comes, up to an eighth of the time
/// in which the writer would go round the ring at the highest rate that was seen of late.
///
/// Thread use: one thread at a time.
class TapPace {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::microseconds kShortest{50};
    static constexpr std::chrono::microseconds kLongest{10000};

    /// @param longest  instead of what the rate tells
    explicit TapPace(std::uint64_t ringSize,
                     std::optional<std::chrono::microseconds> longest = std::nullopt) noexcept
        : ringSize_(static_cast<double>(ringSize)), longest_(longest) {}

    /// A look at `now` found that the writer had put in `bytes` since the last one.
    void Came(std::uint64_t bytes, Clock::time_point now) noexcept;

    /// The pause behind a look that found nothing.
    [[nodiscard]] std::chrono::microseconds Next() noexcept;

private:
    [[nodiscard]] std::chrono::microseconds Longest() const noexcept;

    double ringSize_;
    std::optional<std::chrono::microseconds> longest_;
    double rate_ = 1e9;  ///< bytes per second, to begin with
    std::optional<Clock::time_point> last_;
    std::chrono::microseconds next_ = kShortest;
};

}  // namespace qel
