#include "RingGlance.h"

#include <algorithm>
#include <utility>

#include "RingFlow.h"

namespace qel {
namespace {

using Kind = RingDeviation::Kind;

bool IsFlowKnown(const RingDeviations& form, const RingFields& fields) {
    return IsPossible(form) && fields.initialised != 0 && !Has(form, Kind::NeverInitialised);
}

/// The fields that say which records are in use.
bool UseTheSame(const RingFields& left, const RingFields& right) {
    return left.wIdx[0] == right.wIdx[0] && left.avail[0] == right.avail[0] &&
           left.numPackets == right.numPackets && left.maxPackets == right.maxPackets;
}

/// Chooses of some lengths that the chain can have the first for which some death, or none,
/// explains what is there.
void Choose(Glance& glance, const std::vector<unsigned>& sinks, const RecordSource& records,
            const NodesThere& there) {
    for (const unsigned sink : sinks) {
        const RingSight sight{glance.fields, records, sink};
        RingDeviations deviations = DeviationsOf(sight, there);
        if (!IsPossible(deviations)) {
            continue;
        }
        if (!IsPossible(glance.deviations)) {
            glance.sink = sink;
            glance.deviations = std::move(deviations);
        } else if (!glance.deviations.empty()) {
            const RingSight chosen{glance.fields, records, glance.sink};
            glance.isChainUnclear =
                glance.isChainUnclear || PutRight(chosen, glance.fields.maxPackets) !=
                                             PutRight(sight, glance.fields.maxPackets);
        }
    }
}

Glance WholeGlance(Glance glance, const Sinks& sinks, const RecordSource& records,
                   const NodesThere& there) {
    glance.deviations = DeviationsOf({glance.fields, records, glance.sink}, there);
    Choose(glance, {sinks.likely.begin() + 1, sinks.likely.end()}, records, there);
    if (!glance.deviations.empty()) {
        Choose(glance, sinks.others, records, there);
    }
    return glance;
}

Glance GlanceAt(const RingFile& ring, const RingFields& fields, const RecordSource& records,
                const RingUsers& users, const std::optional<unsigned>& nodes) {
    Glance glance{fields, 1, false, {}};
    const Sinks sinks = SinksOf(fields, ring.Size(), users, nodes);
    glance.sink = sinks.likely.front();
    RingSight sight{fields, records, glance.sink};
    const RingDeviations form = FormOf(sight);
    if (!IsFlowKnown(form, fields)) {
        glance.deviations = form;
        return glance;
    }
    const NodesThere there = users.There();
    RingDeviations flow = FlowDeviations(sight, there);
    if (flow.empty() && !users.AreNone() && form.empty()) {
        glance.deviations = InUseDeviations(sight);
        if (glance.deviations.empty() && ring.Fields() == fields) {
            glance.deviations = RecordDeviations(sight, flow);
        }
        return glance;
    }
    return WholeGlance(std::move(glance), sinks, records, there);
}

}  // namespace

std::optional<Glance> GlanceOf(const RingFile& ring, const RingUsers& users,
                               const std::optional<unsigned>& nodes) {
    constexpr int kMostTries = 4;
    for (int tried = 0; tried < kMostTries; ++tried) {
        const auto fields = ring.StableFields();
        if (!fields) {
            continue;
        }
        const RecordSource records(ring);
        Glance glance = GlanceAt(ring, *fields, records, users, nodes);
        const RingFields now = ring.Fields();
        if (now == *fields) {
            return glance;
        }
        // The records in use may be the same, though readers have gone on.
        if (glance.deviations.empty() && UseTheSame(now, *fields)) {
            return glance;
        }
    }
    return std::nullopt;
}

Sinks SinksOf(const RingFields& fields, std::uint64_t size, const RingUsers& users,
              const std::optional<unsigned>& nodes) {
    if (nodes) {
        return {{*nodes - 1}, {}};
    }
    Sinks sinks;
    const unsigned claimed = users.LastClaimed().value_or(1);
    const unsigned likeliest = std::max({LastNodeReached(fields, size), claimed, 1U});
    for (unsigned sink = likeliest; sink < kMaxNodes; ++sink) {
        sinks.likely.push_back(sink);
    }
    for (unsigned sink = likeliest; sink > std::max(LastNodeAwaited(fields), claimed); --sink) {
        sinks.others.push_back(sink - 1);
    }
    return sinks;
}

}  // namespace qel
