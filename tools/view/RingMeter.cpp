#include "RingMeter.h"

#include <algorithm>
#include <cmath>
#include <gsl/util>
#include <utility>

#include "RingRules.h"

namespace qel {
namespace {

std::uint64_t Rounded(double value) {
    return static_cast<std::uint64_t>(std::llround(value));
}

/// Read by each node; of node 0 what it has written.
const std::uint64_t& IndexOf(const RingFields& fields, unsigned node) {
    return node == 0 ? fields.wIdx[0] : gsl::at(fields.rIdx, node);
}

/// Bytes that `node` is behind what the writer has handed on.
double LagOf(const RingFlow& flow, unsigned node) {
    double lag = 0;
    for (unsigned before = 1; before <= node; ++before) {
        lag += static_cast<double>(gsl::at(flow.waiting, before)) +
               static_cast<double>(gsl::at(flow.held, before - 1));
    }
    return lag;
}

}  // namespace

RingMeter::RingMeter(std::uint64_t size, HeaderSource headerAt, RingPace::Care care)
    : size_(size), pace_(size, care), counter_(size, std::move(headerAt)) {}

void RingMeter::Expect(unsigned node) noexcept {
    sink_ = std::clamp(node, sink_, static_cast<unsigned>(kMaxNodes - 1));
}

void RingMeter::Take(const RingFields& fields, bool isStable, Clock::time_point now) {
    if (!hasBegun_) {
        began_ = lastTime_ = lastSeen_ = now;
        hasBegun_ = true;
    }
    const bool isSound = fields.initialised != 0 && !fields.LookNeverInitialised() &&
                         FlowOf(fields, size_, sink_).has_value();
    if (!isSound) {
        Lose();
        seen_.isExact = seen_.isExact && now == lastTime_;
        pace_.Begin(now);
    } else {
        if (wasSound_) {
            ExpectWhoMoves(fields);
            Step(fields, now);
        } else {
            Expect(LastNodeReached(fields, size_));
            seen_.isExact = seen_.isExact && now == lastTime_;
            pace_.Begin(now);
        }
        if (isStable) {
            See(fields, now);
        }
    }
    wasSound_ = isSound;
    last_ = fields;
    lastTime_ = now;
}

/// An index that stands still may be what a longer chain has left in the ring.
void RingMeter::ExpectWhoMoves(const RingFields& fields) noexcept {
    for (unsigned node = 1; node < kMaxNodes; ++node) {
        if (gsl::at(fields.avail, node) != 0 || IndexOf(last_, node) != IndexOf(fields, node)) {
            Expect(node);
        }
    }
}

/// Nothing that was known of the ring holds any more.
void RingMeter::Lose() {
    counter_.Lose();
    flow_.reset();
    window_ = Window();
}

void RingMeter::Step(const RingFields& fields, Clock::time_point now) {
    Moves moves{};
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        gsl::at(moves, node) = Distance(IndexOf(last_, node), IndexOf(fields, node), size_);
    }
    const std::uint64_t furthest = *std::max_element(moves.begin(), moves.end());
    const RingPace::Step step = pace_.Take(now, furthest);
    const Seconds length = now - lastTime_;
    seen_.moves = seen_.moves || furthest != 0;
    seen_.isExact = seen_.isExact && step.isKnown && !step.deniesLast;
    seen_.isTooFast = seen_.isTooFast || step.isBlurred;
    if (step.isKnown) {
        Go(moves, length);
    } else {
        Reckon(moves, fields, length);
    }
}

void RingMeter::Go(const Moves& moves, Seconds length) {
    if (std::exchange(windowEnded_, false)) {
        window_ = Window();
    }
    window_.length += length;
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        const auto bytes = static_cast<double>(gsl::at(moves, node));
        gsl::at(window_.bytes, node) += bytes;
        gsl::at(seen_.bytes, node) += bytes;
    }
    counter_.Go(moves, sink_, length.count());
}

/// The nodes are taken to have gone on as they did before, by whole rounds more than their indices
/// tell. The bytes between them do not change by that.
void RingMeter::Reckon(const Moves& moves, const RingFields& fields, Seconds length) {
    const auto before = FlowOf(last_, size_, sink_);
    const auto after = FlowOf(fields, size_, sink_);
    const auto size = static_cast<double>(size_);
    PerNode grown{};  // how much further than before each is behind the writer
    double expected = 0;
    for (unsigned node = 0; node <= sink_; ++node) {
        gsl::at(grown, node) = LagOf(*after, node) - LagOf(*before, node);
        const double speed =
            window_.length.count() > 0 ? gsl::at(window_.bytes, node) / window_.length.count() : 0;
        expected += (speed * length.count() + gsl::at(grown, node)) / (sink_ + 1);
    }
    const auto moved = static_cast<double>(moves[0]);
    const double written = moved + size * std::max(0.0, std::round((expected - moved) / size));
    for (unsigned node = 0; node <= sink_; ++node) {
        const double bytes = std::max(0.0, written - gsl::at(grown, node));
        gsl::at(seen_.bytes, node) += bytes;
        gsl::at(seen_.reckoned, node) += bytes;
    }
    windowEnded_ = true;
    counter_.Lose();
}

/// Takes the ring to have been since the last time as it is now.
void RingMeter::See(const RingFields& fields, Clock::time_point now) {
    flow_ = FlowOf(fields, size_, sink_);
    if (!counter_.HasBegun()) {
        counter_.Begin(fields, *flow_);
    }
    const Seconds length = now - lastSeen_;
    lastSeen_ = now;
    seen_.watched += length;
    seen_.used += static_cast<double>(size_ - flow_->free) * length.count();
    seen_.full += IsFull(fields) ? length : Seconds(0);
    for (unsigned node = 1; node <= sink_; ++node) {
        gsl::at(seen_.waiting, node) +=
            static_cast<double>(gsl::at(flow_->waiting, node)) * length.count();
        gsl::at(seen_.held, node) +=
            static_cast<double>(gsl::at(flow_->held, node)) * length.count();
    }
}

bool RingMeter::IsFull(const RingFields& fields) const {
    const std::uint64_t longest = counter_.LongestRecord();
    const bool lacksBytes = longest != 0 && fields.avail[0] < longest + kCriticalReserve;
    const bool lacksCount = fields.maxPackets != 0 && fields.numPackets >= fields.maxPackets;
    return lacksBytes || lacksCount;
}

RingFigures RingMeter::Figures(Clock::time_point now) {
    RingFigures figures;
    // What came behind the last sample belongs to the next figures.
    const Clock::time_point end = std::min(now, lastTime_);
    figures.seconds = Seconds(end - began_).count();
    figures.size = size_;
    figures.isInitialised = last_.initialised != 0 && !last_.LookNeverInitialised();
    figures.packets = last_.numPackets;
    figures.packetLimit = last_.maxPackets;
    figures.isSound = wasSound_;
    figures.sink = sink_;
    figures.moves = seen_.moves;
    TellStream(figures);
    TellStages(figures);
    TellNow(figures);
    began_ = end;
    seen_ = Seen();
    return figures;
}

/// What went by.
void RingMeter::TellStream(RingFigures& figures) {
    figures.bytesAreExact = seen_.isExact;
    figures.isTooFast = seen_.isTooFast;
    figures.packetsAreExact = seen_.isExact && counter_.IsExact();
    bytesAreExact_ = bytesAreExact_ && figures.bytesAreExact;
    packetsAreExact_ = packetsAreExact_ && figures.packetsAreExact;
    figures.byteTotalsAreExact = bytesAreExact_;
    figures.packetTotalsAreExact = packetsAreExact_;

    const RecordCounter::Counts counted = counter_.Take();
    const double mean = counter_.MeanLength();
    for (unsigned node = 0; node <= sink_; ++node) {
        const double bytes = gsl::at(seen_.bytes, node);
        const double packets =
            gsl::at(counted, node) + (mean > 0 ? gsl::at(seen_.reckoned, node) / mean : 0);
        gsl::at(bytes_, node) += bytes;
        gsl::at(packets_, node) += packets;
        NodeFigures& told = gsl::at(figures.nodes, node);
        told.bytes = Rounded(gsl::at(bytes_, node));
        told.packets = Rounded(gsl::at(packets_, node));
        if (figures.seconds > 0) {
            told.bytesPerSecond = bytes / figures.seconds;
            told.packetsPerSecond = packets / figures.seconds;
        }
    }
}

/// Where the bytes were.
void RingMeter::TellStages(RingFigures& figures) {
    const double watched = seen_.watched.count();
    figures.largestRecord = counter_.LongestRecord();
    if (watched > 0) {
        figures.fill = seen_.used / watched / static_cast<double>(size_);
    }
    if (watched > 0 && (figures.largestRecord != 0 || figures.packetLimit != 0)) {
        figures.full = seen_.full.count() / watched;
    }
    for (unsigned node = 1; node <= sink_ && watched > 0; ++node) {
        NodeFigures& told = gsl::at(figures.nodes, node);
        told.waiting = gsl::at(seen_.waiting, node) / watched;
        told.held = gsl::at(seen_.held, node) / watched;
        const double inStage = told.waiting + told.held;
        gsl::at(byteSeconds_, node) += inStage * figures.seconds;
        if (told.bytesPerSecond > 0) {
            told.latency = inStage / told.bytesPerSecond;
        }
    }
    for (unsigned node = 1; node <= sink_; ++node) {
        gsl::at(figures.nodes, node).byteSeconds = gsl::at(byteSeconds_, node);
    }
}

/// Where the bytes are.
void RingMeter::TellNow(RingFigures& figures) const {
    if (!flow_ || !figures.isSound) {
        return;
    }
    figures.freeNow = flow_->free;
    for (unsigned node = 1; node <= flow_->sink; ++node) {
        NodeFigures& told = gsl::at(figures.nodes, node);
        told.waitingNow = gsl::at(flow_->waiting, node);
        told.heldNow = gsl::at(flow_->held, node);
        told.lagNow = Rounded(LagOf(*flow_, node));
    }
}

}  // namespace qel
