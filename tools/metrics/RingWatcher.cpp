#include "RingWatcher.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "ObjectNames.h"

namespace qel {

RingWatcher::RingWatcher(ObjectChoice choice, std::shared_ptr<RingTotals> totals)
    : choice_(std::move(choice)), totals_(std::move(totals)) {}

void RingWatcher::WatchUntil(RingMeter::Clock::time_point end, const std::function<bool()>& stop) {
    FindRings();
    std::vector<RingWatch*> watches;
    for (auto& [name, ring] : rings_) {
        watches.push_back(&ring.watch);
    }
    qel::WatchUntil(watches, end, stop);
    Publish();
}

void RingWatcher::FindRings() {
    ChosenNames chosen;
    try {
        chosen = ChooseFrom(RingNames(), choice_);
    } catch (const std::runtime_error&) {
        // A look at all objects finds that too, and tells.
    }
    std::map<std::string, Watched> before;
    before.swap(rings_);
    for (const std::string& name : chosen.names) {
        auto known = before.extract(name);
        if (known && known.mapped().watch.IsCurrent()) {
            rings_.insert(std::move(known));
        } else {
            Open(name);
        }
    }
}

void RingWatcher::Open(const std::string& name) {
    try {
        if (auto file = RingFile::Open(name)) {
            rings_.try_emplace(name, std::move(*file));
        }
    } catch (const std::runtime_error&) {
        // as above
    }
}

void RingWatcher::Publish() {
    RingTotals::ByName totals;
    for (auto& [name, ring] : rings_) {
        const struct stat& status = ring.watch.File().Status();
        const RingFigures figures = ring.watch.Figures();
        ring.fullSeconds += figures.full.value_or(0) * figures.seconds;
        RingTotal total{status.st_dev, status.st_ino, figures, ring.fullSeconds};
        for (std::size_t node = 1; node < kMaxNodes; ++node) {
            const NodeFigures& moved = figures.nodes.at(node);
            RecentLatency& latency = ring.latency.at(node);
            latency.Take(moved.bytes, moved.byteSeconds);
            total.latency.at(node) = latency.Value();
        }
        totals.emplace(name, total);
    }
    totals_->Set(std::move(totals));
}

}  // namespace qel
