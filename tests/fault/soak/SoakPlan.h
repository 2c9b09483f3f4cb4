#pragma once

#include <chrono>
#include <cstdint>

namespace qel::test {

/// How long a soak runs, and how fast.
struct SoakPlan {
    std::uint64_t packets = 0;         ///< ends after so many; 0: by time
    std::chrono::seconds duration{0};  ///< ends after this time, if it does not by packets
    std::uint64_t rate = 0;            ///< packets per second at most; 0: as fast as they go
};

/// By time if QEV_SOAK_SECONDS is set, else a number of packets that takes a few seconds;
/// QEV_SOAK_RATE sets the rate.
SoakPlan PlanFromEnvironment();

/// Where a process stands in the plan, by the packets that it has seen and its own clock.
class SoakClock {
public:
    explicit SoakClock(const SoakPlan& plan) : plan_(plan) {}

    /// What is done of the plan, 0 to 1 and a little more.
    [[nodiscard]] double Done(std::uint64_t packets) const;
    /// True if the plan's rate does not allow packet `number` yet.
    [[nodiscard]] bool IsTooEarlyFor(std::uint64_t number) const;

private:
    [[nodiscard]] double Seconds() const;

    SoakPlan plan_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace qel::test
