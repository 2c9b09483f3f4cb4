#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ProcessSurvey.h"
#include "RingWatch.h"
#include "Snapshot.h"

namespace qel {

/// Watches all objects, or some, and tells at the end of each interval what was seen. Rings that
/// come are taken up and those that go are dropped at the ends of intervals.
///
/// Thread use: one thread.
class Collector {
public:
    using Clock = RingMeter::Clock;
    /// Waits for so long, or less; true ends the waiting before its time.
    using Pause = RingPause;

    /// @param names     of the objects; empty: all
    /// @param interval  seconds from one `Take` to the next
    /// @throws std::runtime_error when the folders of objects cannot be read
    Collector(std::vector<std::string> names, double interval);

    /// Looks at the rings as often as they want it, until `end` or until `pause` is true.
    void WatchUntil(Clock::time_point end, const Pause& pause);

    /// @throws std::runtime_error as the constructor
    [[nodiscard]] Snapshot Take();

private:
    using Seconds = std::chrono::duration<double>;

    /// Totals at the end of an interval.
    struct Mark {
        std::array<double, kMaxNodes> byteSeconds;
        std::array<std::uint64_t, kMaxNodes> bytes;
    };

    struct Ring {
        std::unique_ptr<RingWatch> watch{};  ///< none if it cannot be looked at
        std::string trouble{};
        std::array<std::deque<double>, kMaxNodes> rates{};
        std::deque<Mark> marks{};
    };

    [[nodiscard]] std::vector<std::string> Wanted(std::vector<std::string> names) const;
    void FindRings();
    [[nodiscard]] static Ring Open(const std::string& name);
    void SurveyIfDue();
    void LookAtBlocks();
    [[nodiscard]] RingRow RowOf(const std::string& name, Ring& ring) const;
    void Keep(Ring& ring, const RingFigures& figures) const;
    [[nodiscard]] SemaphoreRow RowOf(const std::string& semaphore) const;

    std::vector<std::string> names_;
    double interval_;
    std::map<std::string, Ring> rings_;
    bool hasNewRings_ = false;
    std::optional<ProcessSurvey> processes_;
    Clock::time_point surveyed_{};
    Seconds surveyCost_{0};  // on a core
    std::vector<BlockRow> blocks_;
};

}  // namespace qel
