#include "RingInspection.h"

#include <fmt/format.h>

#include <algorithm>
#include <gsl/util>
#include <utility>

#include "RingRules.h"

namespace qel {
namespace {

constexpr int kAttempts = 5;

/// As far as nodes are claimed, the last of them is at least so far down the chain.
unsigned SinkOf(const RingFields& fields, std::uint64_t size,
                const std::vector<ObjectUser>& users) {
    unsigned sink = LastNodeReached(fields, size);
    for (const ObjectUser& user : users) {
        for (const unsigned node : user.Nodes()) {
            sink = std::max(sink, node);
        }
    }
    return sink;
}

std::uint64_t Minus(std::uint64_t value, std::uint64_t less) {
    return value - std::min(value, less);
}

/// Where a record fits before the end, and where a filler goes ahead of it.
std::uint64_t LargestNow(const RingFields& fields, std::uint64_t size) {
    constexpr std::uint64_t kNeeds = kPacketHeaderSize + kCriticalReserve;
    const std::uint64_t free = fields.avail[0];
    const std::uint64_t toEnd = Minus(size, fields.wIdx[0]);
    const std::uint64_t room = Minus(free, kNeeds);
    const std::uint64_t atEnd = Minus(toEnd, kPacketHeaderSize);
    const std::uint64_t before =
        room >= atEnd ? atEnd : std::min(room, Minus(atEnd, kPacketHeaderSize));
    const std::uint64_t behindFiller =
        std::min(Minus(free, toEnd + kNeeds), Minus(size, 2 * kPacketHeaderSize));
    return std::max(before, behindFiller);
}

std::vector<RingStretch> StretchesOf(const RingFile& ring, const RingFields& fields,
                                     const RingFlow& flow, const WalkLimits& limits) {
    std::vector<RingStretch> stretches;
    for (unsigned node = 1; node <= flow.sink; ++node) {
        const std::uint64_t index = gsl::at(fields.rIdx, node);
        const std::uint64_t held = gsl::at(flow.held, node);
        const std::uint64_t from = (index + (ring.Size() - held)) % ring.Size();
        stretches.push_back({node, true, from, held, WalkRecords(ring, from, held, limits)});
        const std::uint64_t waiting = gsl::at(flow.waiting, node);
        stretches.push_back(
            {node, false, index, waiting, WalkRecords(ring, index, waiting, limits)});
    }
    return stretches;
}

Invariant Compare(std::string text, std::uint64_t is, std::uint64_t should, const char* what) {
    if (is == should) {
        return {std::move(text), true};
    }
    return {std::move(text), false, fmt::format("{} is {}, not {}", what, is, should)};
}

Invariant WriterIsWhereRecordsEnd(const RingInspection& ring) {
    Invariant invariant{"the writer's index is where the records end", std::nullopt};
    if (ring.flow) {
        invariant.holds = ring.flow->writerAhead == 0;
        if (!*invariant.holds) {
            const std::uint64_t ahead = ring.flow->writerAhead;
            const std::uint64_t behind = ring.size - ahead;
            invariant.detail = ahead <= behind ? fmt::format("it is {} bytes ahead", ahead)
                                               : fmt::format("it is {} bytes behind", behind);
        }
    }
    return invariant;
}

Invariant RecordsMakeSense(const RingInspection& ring) {
    Invariant invariant{"each stretch of the ring is made of whole records", std::nullopt};
    if (!ring.flow) {
        return invariant;
    }
    invariant.holds = true;
    for (const RingStretch& stretch : ring.stretches) {
        if (stretch.walk.rest > 0 && !stretch.walk.isCut) {
            invariant.holds = false;
            invariant.detail +=
                fmt::format("{}{} bytes {} node {} from {} on are no record",
                            invariant.detail.empty() ? "" : "; ", stretch.walk.rest,
                            stretch.isHeld ? "held by" : "for", stretch.node,
                            (stretch.offset + stretch.bytes - stretch.walk.rest) % ring.size);
        }
    }
    return invariant;
}

Invariant CountIsRight(const RingInspection& ring) {
    const RingFields& fields = ring.fields;
    Invariant invariant{"numPackets is the number of records in the ring", std::nullopt};
    std::uint64_t records = 0;
    bool isKnown = ring.flow.has_value() && fields.maxPackets != 0;
    for (const RingStretch& stretch : ring.stretches) {
        records += stretch.walk.count;
        isKnown = isKnown && stretch.walk.rest == 0;
    }
    if (isKnown) {
        return Compare(invariant.text, fields.numPackets, records, "it");
    }
    if (fields.maxPackets == 0) {
        invariant.text += " (not kept without a limit)";
    }
    return invariant;
}

std::vector<Invariant> InvariantsOf(const RingInspection& ring) {
    const RingFields& fields = ring.fields;
    std::vector<Invariant> invariants{
        {"the ring is initialised", fields.initialised == 1,
         fmt::format("the byte is {}", fields.initialised)},
        {"no index lies outside the ring, no counter exceeds it", ring.flow.has_value(),
         "the fields are not those of a ring of this size"},
        WriterIsWhereRecordsEnd(ring),
        RecordsMakeSense(ring),
        CountIsRight(ring),
        Compare("halfSize is half of the ring's size", fields.halfSize, ring.size / 2, "it"),
        Compare("quarterSize is a quarter of it", fields.quarterSize, ring.size / 4, "it"),
        {"reserved bytes are 0", fields.reservedAreZero, "they are not"}};
    for (Invariant& invariant : invariants) {
        if (invariant.holds.value_or(true)) {
            invariant.detail.clear();
        } else if (!ring.isStill) {
            invariant.holds.reset();  // it may only look so
            invariant.detail.clear();
        }
    }
    return invariants;
}

void LookOnce(const RingFile& ring, const InspectOptions& options, RingInspection& found) {
    found.fields = ring.StableFields().value_or(ring.Fields());
    found.sink =
        options.nodes ? *options.nodes - 1 : SinkOf(found.fields, ring.Size(), found.users);
    found.isFresh = found.fields == RingFields();
    found.flow = found.isFresh ? std::nullopt : FlowOf(found.fields, found.size, found.sink);
    found.stretches.clear();
    if (found.flow) {
        found.stretches = StretchesOf(ring, found.fields, *found.flow, options.records);
        found.largestNow = LargestNow(found.fields, found.size);
    }
    found.isStill = ring.Fields() == found.fields;
}

}  // namespace

RingInspection Inspect(const RingFile& ring, const ProcessSurvey& processes,
                       const InspectOptions& options) {
    RingInspection found;
    found.status = ring.StatusNow();
    found.size = ring.Size();
    found.users = processes.UsersOf(found.status.st_dev, found.status.st_ino);
    found.hiddenProcesses = processes.HiddenProcesses();
    found.isSinkGiven = options.nodes.has_value();
    for (int attempt = 0; attempt < kAttempts && !found.isStill; ++attempt) {
        LookOnce(ring, options, found);
    }
    if (!found.isFresh) {
        found.invariants = InvariantsOf(found);
    }
    return found;
}

}  // namespace qel
