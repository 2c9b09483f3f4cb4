#include "Collector.h"

#include <algorithm>
#include <ctime>
#include <gsl/util>
#include <set>
#include <stdexcept>
#include <utility>

#include "BlockView.h"
#include "ObjectNames.h"
#include "RingState.h"
#include "SemaphoreView.h"

namespace qel {
namespace {

constexpr std::size_t kLatencyIntervals = 4;

double CoreTime() {
    timespec time{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

}  // namespace

Collector::Collector(std::vector<std::string> names, double interval)
    : names_(std::move(names)), interval_(interval) {
    FindRings();
}

std::vector<std::string> Collector::Wanted(std::vector<std::string> names) const {
    const auto isUnwanted = [this](const std::string& name) {
        return !names_.empty() && std::find(names_.begin(), names_.end(), name) == names_.end();
    };
    names.erase(std::remove_if(names.begin(), names.end(), isUnwanted), names.end());
    return names;
}

Collector::Ring Collector::Open(const std::string& name) {
    Ring ring;
    try {
        if (auto file = RingFile::Open(name)) {
            ring.watch = std::make_unique<RingWatch>(std::move(*file));
        }
    } catch (const std::runtime_error& reason) {
        ring.trouble = reason.what();
    }
    return ring;
}

void Collector::FindRings() {
    const std::vector<std::string> names = Wanted(RingNames());
    const std::set<std::string> present(names.begin(), names.end());
    for (auto ring = rings_.begin(); ring != rings_.end();) {
        const bool isCurrent = ring->second.watch && ring->second.watch->IsCurrent();
        const bool stays = present.count(ring->first) != 0 && isCurrent;
        ring = stays ? std::next(ring) : rings_.erase(ring);
    }
    for (const std::string& name : names) {
        if (rings_.count(name) == 0) {
            Ring ring = Open(name);
            if (ring.watch || !ring.trouble.empty()) {
                hasNewRings_ = hasNewRings_ || ring.watch != nullptr;
                rings_.emplace(name, std::move(ring));
            }
        }
    }
}

void Collector::WatchUntil(Clock::time_point end, const Pause& pause) {
    std::vector<RingWatch*> watches;
    for (const auto& [name, ring] : rings_) {
        if (ring.watch) {
            watches.push_back(ring.watch.get());
        }
    }
    WatchWith(watches, end, pause);
}

/// A survey goes through all processes: it is not taken more often than the room that it may take
/// of a core allows.
void Collector::SurveyIfDue() {
    constexpr double kRoom = 600;
    constexpr double kHurriedRoom = 150;
    constexpr Seconds kShortest{2};
    constexpr Seconds kHurried{0.5};
    const Seconds gap = hasNewRings_ ? std::max(kHurried, surveyCost_ * kHurriedRoom)
                                     : std::max(kShortest, surveyCost_ * kRoom);
    const Clock::time_point now = Clock::now();
    if (processes_ && now - surveyed_ < gap) {
        return;
    }
    const double before = CoreTime();
    processes_.emplace(ProcessSurvey::Take());
    LookAtBlocks();
    surveyCost_ = Seconds(CoreTime() - before);
    surveyed_ = now;
    hasNewRings_ = false;
}

void Collector::LookAtBlocks() {
    blocks_.clear();
    for (const std::string& name : Wanted(BlockNames())) {
        try {
            if (const auto block = LookAtBlock(name, *processes_)) {
                blocks_.push_back({name, std::string(StateOf(*block)), block->size, block->openBy});
            }
        } catch (const std::runtime_error&) {
            blocks_.push_back({name, "unreadable"});
        }
    }
}

void Collector::Keep(Ring& ring, const RingFigures& figures) const {
    constexpr double kLeastPart = 0.2;
    if (figures.seconds < kLeastPart * interval_ && !ring.marks.empty()) {
        return;  // too short to tell a rate
    }
    const auto most = static_cast<std::size_t>(std::max(1.0, kHistorySeconds / interval_));
    Mark mark{};
    for (unsigned node = 0; node <= figures.sink; ++node) {
        const NodeFigures& told = gsl::at(figures.nodes, node);
        gsl::at(mark.byteSeconds, node) = told.byteSeconds;
        gsl::at(mark.bytes, node) = told.bytes;
        auto& rates = gsl::at(ring.rates, node);
        rates.push_back(told.bytesPerSecond);
        if (rates.size() > most) {
            rates.pop_front();
        }
    }
    ring.marks.push_back(mark);
    if (ring.marks.size() > kLatencyIntervals + 1) {
        ring.marks.pop_front();
    }
}

RingRow Collector::RowOf(const std::string& name, Ring& ring) const {
    RingRow row{name, ring.trouble};
    if (!ring.watch) {
        return row;
    }
    const struct stat& status = ring.watch->File().Status();
    const auto users = processes_->WritersOf(status.st_dev, status.st_ino);
    for (const ObjectUser& user : users) {
        for (const unsigned node : user.Nodes()) {
            ring.watch->Expect(node);
        }
    }
    row.figures = ring.watch->Figures();
    row.state = TextOf(RingStateOf(ring.watch->File().Fields(), row.figures.size, row.figures.moves,
                                   users, *processes_));
    Keep(ring, row.figures);
    for (unsigned node = 0; node <= row.figures.sink; ++node) {
        NodeRow told{gsl::at(row.figures.nodes, node)};
        told.rates = gsl::at(ring.rates, node);
        const double bytes = static_cast<double>(gsl::at(ring.marks.back().bytes, node) -
                                                 gsl::at(ring.marks.front().bytes, node));
        const double byteSeconds = gsl::at(ring.marks.back().byteSeconds, node) -
                                   gsl::at(ring.marks.front().byteSeconds, node);
        told.latency = node == 0   ? std::nullopt
                       : bytes > 0 ? std::optional<double>(byteSeconds / bytes)
                                   : told.figures.latency;
        row.nodes.push_back(std::move(told));
    }
    for (const ObjectUser& user : users) {
        const auto nodes = user.Nodes();
        for (const unsigned node : nodes) {
            row.nodes.at(node).processes.push_back(user);
        }
        if (nodes.empty()) {
            row.others.push_back(user);
        }
    }
    return row;
}

SemaphoreRow Collector::RowOf(const std::string& semaphore) const {
    SemaphoreRow row{semaphore};
    try {
        if (const auto view = LookAtSemaphore(semaphore)) {
            row.value = view->value;
            row.waiting = view->waiting;
            row.trouble = view->isWhole ? "" : "damaged";
            row.users = processes_->UsersOf(view->status.st_dev, view->status.st_ino);
        }
    } catch (const std::runtime_error&) {
        row.trouble = "unreadable";
    }
    return row;
}

Snapshot Collector::Take() {
    SurveyIfDue();
    Snapshot snapshot;
    snapshot.interval = interval_;
    for (auto& [name, ring] : rings_) {
        snapshot.rings.push_back(RowOf(name, ring));
    }
    snapshot.blocks = blocks_;
    for (const std::string& name : Wanted(SemaphoreNames())) {
        snapshot.semaphores.push_back(RowOf(name));
    }
    snapshot.hiddenProcesses = processes_->HiddenProcesses();
    snapshot.listsAllProcesses = processes_->ListsAll();
    FindRings();
    return snapshot;
}

}  // namespace qel
