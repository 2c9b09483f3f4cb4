#pragma once

#include <array>
#include <chrono>
#include <cstddef>

#include "NodeCounters.h"
#include "StagePlan.h"

namespace qel {

/// Shows a line for each node on standard output: on a terminal again and again in the same place,
/// otherwise at the end alone.
class Picture {
public:
    /// @param nodes  must outlive this object, as `plan`
    Picture(const ChainPlan& plan, const std::array<NodeCounters, kChainLength>& nodes);

    /// Draws what has changed, at most five times a second.
    void Draw();

    /// Draws for the last time, whole lines however narrow the terminal is.
    void Finish();

    static constexpr std::chrono::milliseconds kPeriod{200};

private:
    using Clock = std::chrono::steady_clock;

    void Write(std::size_t width);

    const ChainPlan& plan_;
    const std::array<NodeCounters, kChainLength>& nodes_;
    bool isTerminal_;
    bool drawn_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

}  // namespace qel
