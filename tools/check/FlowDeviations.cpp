// Where the bytes of a ring are: the writer, counters and indices.

#include <algorithm>
#include <gsl/util>
#include <numeric>

#include "RingDeviation.h"

namespace qel {
namespace {

using Kind = RingDeviation::Kind;
using Found = EndOfRecords::Found;

/// Finds one after the other where the bytes are.
class Flow {
public:
    Flow(const RingSight& ring, const NodesThere& there) : ring_(ring), there_(there) {}

    [[nodiscard]] RingDeviations Find() {
        const auto end = EndOf(ring_);
        const auto stretches = end ? StretchesTo(ring_, end->offset) : std::nullopt;
        if (!stretches) {
            return {{Kind::IndicesContradict}};
        }
        end_ = *end;
        LookAtEnd();
        const std::uint64_t waiting = Sum() - Avail(0);
        if ((*stretches)[0] == ring_.Size() && Avail(0) == 0) {
            LookAtFull(waiting);
            return found_;
        }
        if (Avail(1) == ring_.Size()) {
            found_.push_back({Kind::CounterContradicts, 1, Avail(1)});
        }
        for (unsigned node = 1; node < ring_.sink; ++node) {
            LookBehind(node, node + 1, gsl::at(*stretches, static_cast<gsl::index>(node) + 1));
        }
        LookBehind(ring_.sink, 0, (*stretches)[0]);
        for (unsigned node = ring_.sink + 1; node < kMaxNodes; ++node) {
            if (Avail(node) != 0) {
                found_.push_back({Kind::CounterContradicts, node, Avail(node)});
            }
        }
        return found_;
    }

private:
    [[nodiscard]] std::uint64_t Avail(unsigned node) const {
        return gsl::at(ring_.fields.avail, static_cast<gsl::index>(node));
    }
    [[nodiscard]] std::uint64_t Index(unsigned node) const {
        return gsl::at(ring_.fields.rIdx, static_cast<gsl::index>(node));
    }
    [[nodiscard]] bool MayHold(unsigned node) const {
        return gsl::at(there_, static_cast<gsl::index>(node));
    }
    [[nodiscard]] std::uint64_t Sum() const {
        const auto first = ring_.fields.avail.begin();
        return std::accumulate(first, first + ring_.sink + 1, std::uint64_t{0});
    }

    void LookAtEnd() {
        switch (end_.found) {
            case Found::AtBoth:
                return;
            case Found::ReaderTaking:
                found_.push_back(
                    {Kind::TakingBytesLost, 1, RecordAt(ring_.records, Index(1))->length});
                return;
            case Found::RecordHandedOn:
                found_.push_back({Kind::RecordHandedOn, 0,
                                  RecordAt(ring_.records, ring_.fields.wIdx[0])->length});
                return;
            case Found::FillerBegun:
                found_.push_back({Kind::FillerBegun, 0, kPacketHeaderSize});
                return;
            case Found::FillerHandedOn:
                found_.push_back(
                    {Kind::FillerHandedOn, 0, ring_.Distance(ring_.fields.wIdx[0], end_.offset)});
                return;
        }
    }

    /// Full to the last byte, all indices are the same, and all of it waits at one node and is held
    /// by the one before.
    void LookAtFull(std::uint64_t waiting) {
        unsigned counted = 0;
        for (unsigned node = 1; node <= ring_.sink; ++node) {
            if (Avail(node) != 0 && (Avail(node) != waiting || counted != 0)) {
                found_.push_back({Kind::CounterContradicts, node, Avail(node)});
                return;
            }
            counted = Avail(node) != 0 ? node : counted;
        }
        const bool mayBeHeld =
            counted > 1
                ? MayHold(counted - 1)
                : counted == 0 && std::any_of(there_.begin() + 1, there_.begin() + ring_.sink + 1,
                                              [](bool is) { return is; });
        if (waiting < ring_.Size() && !mayBeHeld) {
            found_.push_back({Kind::FullRingLost, counted, ring_.Size() - waiting});
        }
    }

    /// What is counted for `next` is all of its stretch but what `node` holds.
    void LookBehind(unsigned node, unsigned next, std::uint64_t stretch) {
        const std::uint64_t counted = Avail(next);
        if (counted > stretch) {
            found_.push_back({Kind::CounterContradicts, next, counted - stretch});
            return;
        }
        std::uint64_t gap = stretch - counted;
        if (next == 0 && gap > 0 && end_.found == Found::FillerBegun) {
            const auto filler = RecordAt(ring_.records, end_.offset);
            if (filler && filler->length == gap) {
                found_.back() = {Kind::FillerBytesLost, 0, gap};
                gap = 0;
            }
        }
        if (gap > 0 && !MayHold(node)) {
            found_.push_back({Kind::BytesLost, node, gap});
        }
    }

    const RingSight& ring_;
    const NodesThere& there_;
    EndOfRecords end_{};
    RingDeviations found_;
};

}  // namespace

std::optional<EndOfRecords> EndOf(const RingSight& ring) {
    const auto end = FindEnd(ring);
    if (!end || end->found != Found::ReaderTaking) {
        return end;
    }
    const auto stretches = StretchesTo(ring, end->offset);
    const std::uint64_t begun = (end->offset + ring.Size() - kPacketHeaderSize) % ring.Size();
    const auto filler = RecordAt(ring.records, begun);
    const bool isStillFree =
        stretches && ring.fields.avail[0] == (*stretches)[0] + kPacketHeaderSize;
    if (isStillFree && filler && filler->isFiller && begun + filler->length == ring.Size()) {
        return EndOfRecords{begun, Found::FillerBegun};
    }
    return end;
}

RingDeviations FlowDeviations(const RingSight& ring, const NodesThere& there) {
    return Flow(ring, there).Find();
}

}  // namespace qel
