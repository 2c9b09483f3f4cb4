#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "ObjectChoice.h"
#include "RecentLatency.h"
#include "RingTotals.h"
#include "RingWatch.h"

namespace qel {

/// Measures the rings of this machine as they come and go, and publishes their totals. A ring that
/// is removed, made anew or resized loses its totals.
///
/// Thread use: one thread at a time.
class RingWatcher {
public:
    /// @param totals  where to publish
    RingWatcher(ObjectChoice choice, std::shared_ptr<RingTotals> totals);

    /// Measures all rings that are there now until `end`, or until `stop` says true.
    void WatchUntil(RingMeter::Clock::time_point end, const std::function<bool()>& stop);

private:
    /// Many rings, day and night: less closely than where a person looks on.
    static constexpr RingPace::Care kCare{std::chrono::milliseconds(100),
                                          std::chrono::milliseconds(5000)};

    struct Watched {
        explicit Watched(RingFile file) : watch(std::move(file), kCare) {}

        RingWatch watch;
        double fullSeconds = 0;
        std::array<RecentLatency, kMaxNodes> latency{};
    };

    void FindRings();
    void Open(const std::string& name);
    void Publish();

    ObjectChoice choice_;
    std::shared_ptr<RingTotals> totals_;
    std::map<std::string, Watched> rings_;
};

}  // namespace qel
