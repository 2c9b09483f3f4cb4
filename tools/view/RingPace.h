#pragma once

#include <chrono>
#include <cstdint>

namespace qel {

/// When a ring is to be looked at again, so that no node goes round it unseen: an index tells how
/// far its node has come only if that was less than once round.
///
///  - At first, and every `Care::reopening`, it looks again after `kFirstGap` and then lengthens
///  the gaps fourfold:
///    that tells how fast the nodes are without knowing it beforehand.
///  - Gaps grow up to the time in which the fastest node goes `kPartOfRound` of the way round, and
///    to `Care::longestGap`. They vary a little: otherwise they could keep time with the packets.
///  - Where that is less than `kShortestGap`, it looks for some steps and then pauses. What
///    happens in a pause is not known.
///
/// Thread use: one thread at a time uses one object.
class RingPace {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::microseconds kFirstGap{20};
    static constexpr std::chrono::microseconds kShortestSleep{60};  ///< shorter gaps are spun
    static constexpr std::chrono::microseconds kShortestGap{2000};
    static constexpr std::chrono::microseconds kLongestGap{20000};
    static constexpr std::chrono::microseconds kPause{30000};
    static constexpr std::chrono::milliseconds kReopening{2000};
    static constexpr double kPartOfRound = 0.4;
    static constexpr double kMostOfRound = 0.8;  ///< further than that, it may have been more

    /// How closely it looks. To look less closely costs less, and more may go round unseen where a
    /// ring that is at rest, or slow, is suddenly fast.
    struct Care {
        std::chrono::microseconds longestGap;
        std::chrono::milliseconds reopening;
    };
    static constexpr Care kUsualCare{kLongestGap, kReopening};

    /// What is known of the way between two samples.
    struct Step {
        bool isKnown = false;     ///< no node went round unseen
        bool deniesLast = false;  ///< one that was said to be known was not
        /// It was a pause, and what was seen before it had to be spun for: that takes a core from
        /// the nodes, which may have been slower for it.
        bool isBlurred = false;
    };

    /// @param size  bytes of the ring's data area, not 0
    explicit RingPace(std::uint64_t size, Care care = kUsualCare) noexcept
        : size_(static_cast<double>(size)), care_(care) {}

    /// A sample was taken, and nothing is known of the time before it.
    void Begin(Clock::time_point now) noexcept;

    /// A further sample was taken.
    /// @param moved  bytes that the fastest node went since the last one, less than the ring's size
    Step Take(Clock::time_point now, std::uint64_t moved) noexcept;

    /// When the next sample is wanted.
    [[nodiscard]] Clock::time_point Next() const noexcept { return next_; }

    /// From when on it is welcome, because of something else that is looked at.
    [[nodiscard]] Clock::time_point Soonest() const noexcept;

private:
    using Seconds = std::chrono::duration<double>;

    void Open(Clock::time_point now) noexcept;
    void Suspect(Seconds length) noexcept;
    bool Judge() noexcept;
    void LookCloser(Clock::time_point now) noexcept;
    void Plan(Clock::time_point now) noexcept;
    void Pause(Clock::time_point now) noexcept;
    [[nodiscard]] double Speed() const noexcept;
    [[nodiscard]] Clock::time_point After(Clock::time_point now, Seconds gap) noexcept;

    double size_;
    Care care_;
    Clock::time_point last_{};
    Clock::time_point next_{};
    Clock::time_point opened_{};
    Clock::time_point windowBegan_{};  // what follows a pause, or the opening
    Seconds gap_{kFirstGap};           // the last one asked for
    Clock::time_point resumed_{};      // the last pause, or the opening, ended
    bool isPause_ = false;
    unsigned steps_ = 0;  // since the window began
    // Decaying sums over the last steps:
    double bytes_ = 0;
    Seconds time_{0};
    // Length of a step that only the speed after it justifies, and what has been seen since then.
    Seconds suspect_{0};
    Seconds seenTime_{0};
    double seenBytes_ = 0;
    std::uint32_t random_ = 1;
};

}  // namespace qel
