#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Stages.h"

namespace qel {

/// Draws a line for each node on a terminal, again and again in the same place: packets and
/// megabytes per second, and how much of the ring waits for the node (for node 0: is in use). Does
/// nothing when standard error is no terminal.
class Progress {
public:
    /// @param counters  one for each node; must outlive this object
    Progress(const StageCounters* counters, std::size_t nodes, std::uint64_t ringSize);

    /// Draws what has changed, at most five times a second.
    void Draw();

    /// Takes the drawing away.
    void Clear();

    static constexpr std::chrono::milliseconds kPeriod{200};

private:
    using Clock = std::chrono::steady_clock;

    struct Sample {
        std::uint64_t packets = 0;
        std::uint64_t bytes = 0;
    };

    [[nodiscard]] std::vector<Sample> Take() const;
    [[nodiscard]] double FillOf(std::size_t node, const std::vector<Sample>& now) const;

    const StageCounters* counters_;
    std::size_t nodes_;
    std::uint64_t ringSize_;
    bool isTerminal_;
    bool drawn_ = false;
    std::vector<Sample> last_;
    Clock::time_point lastTime_;
};

}  // namespace qel
