#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace qel {

/// How a client waits for data or for space, which the ring itself never does.
enum class WaitMode {
    Spin,      ///< lowest latency; keeps a core busy
    Yield,     ///< gives way to others, but is busy when nobody else is
    Sleep,     ///< sleeps from the first round on
    Adaptive,  ///< spins a little, then yields, then sleeps: the mode for almost everybody
};

/// Asked while waiting; true ends the wait.
using StopPredicate = std::function<bool()>;

/// The waiting rule, in one place: how long to pause after the n-th vain attempt in a row.
///
/// Sleeps double from `kShortestSleep` to `kLongestSleep`, so an idle client wakes about a thousand
/// times a second at most, and a busy one hardly notices that it waited.
///
/// Thread use: one thread at a time uses one object.
class IdleStrategy {
public:
    static constexpr unsigned kSpins = 128;   ///< rounds that spin in the adaptive mode
    static constexpr unsigned kYields = 128;  ///< rounds that yield after them: about as long as
                                              ///< the shortest sleep takes, with its waking up
    static constexpr std::chrono::microseconds kShortestSleep{16};
    static constexpr std::chrono::microseconds kLongestSleep{1000};

    /// One pause. A sleep of zero is no sleep.
    struct Pause {
        enum class Kind { Spin, Yield, Sleep } kind;
        std::chrono::microseconds sleep;
    };

    explicit IdleStrategy(WaitMode mode = WaitMode::Adaptive) noexcept : mode_(mode) {}

    /// Pauses once, longer the more often it was called since the last `Reset`.
    void Idle();

    /// Call it when an attempt succeeded: the next wait begins with its shortest pause.
    void Reset() noexcept;

    /// The pause that the next `Idle` makes; counts as that round.
    [[nodiscard]] Pause NextPause() noexcept;

private:
    WaitMode mode_;
    unsigned rounds_ = 0;
    std::chrono::microseconds nextSleep_ = kShortestSleep;
};

}  // namespace qel
