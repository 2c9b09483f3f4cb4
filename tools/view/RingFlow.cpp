#include "RingFlow.h"

#include <algorithm>
#include <gsl/util>
#include <numeric>

namespace qel {
namespace {

bool LiesWithin(const RingFields& fields, std::uint64_t size) {
    const auto isIndex = [size](std::uint64_t index) { return index < size; };
    return size > 0 && std::all_of(fields.wIdx.begin(), fields.wIdx.end(), isIndex) &&
           std::all_of(fields.rIdx.begin(), fields.rIdx.end(), isIndex) &&
           std::all_of(fields.avail.begin(), fields.avail.end(),
                       [size](std::uint64_t bytes) { return bytes <= size; });
}

/// The last node whose field is not 0, 1 at least.
unsigned LastSet(const std::array<std::uint64_t, kMaxNodes>& fields) {
    unsigned last = 1;
    for (unsigned node = 2; node < kMaxNodes; ++node) {
        last = fields.at(node) != 0 ? node : last;
    }
    return last;
}

}  // namespace

std::uint64_t RingFlow::Sum() const noexcept {
    return std::accumulate(held.begin(), held.end(),
                           std::accumulate(waiting.begin(), waiting.end(), free));
}

unsigned LastNodeAwaited(const RingFields& fields) noexcept {
    return LastSet(fields.avail);
}

std::optional<unsigned> LastNodeThatFits(const RingFields& fields, std::uint64_t size) {
    const unsigned awaited = LastNodeAwaited(fields);
    for (unsigned node = std::max(awaited, LastSet(fields.rIdx)); node >= awaited; --node) {
        const auto flow = FlowOf(fields, size, node);
        if (flow && flow->Sum() == size) {
            return node;
        }
    }
    return std::nullopt;
}

unsigned LastNodeReached(const RingFields& fields, std::uint64_t size) {
    return LastNodeThatFits(fields, size)
        .value_or(std::max(LastNodeAwaited(fields), LastSet(fields.rIdx)));
}

std::optional<RingFlow> FlowOf(const RingFields& fields, std::uint64_t size, unsigned sink) {
    if (!LiesWithin(fields, size)) {
        return std::nullopt;
    }
    RingFlow flow;
    flow.sink = sink;
    flow.free = fields.avail[0];
    flow.writerAhead = Distance(fields.rIdx[1] + fields.avail[1], fields.wIdx[0], size);
    for (gsl::index node = 1; node <= static_cast<gsl::index>(sink); ++node) {
        const bool isLast = node == static_cast<gsl::index>(sink);
        const std::uint64_t handedOn =
            isLast ? fields.wIdx[0] + fields.avail[0]
                   : gsl::at(fields.rIdx, node + 1) + gsl::at(fields.avail, node + 1);
        gsl::at(flow.waiting, node) = gsl::at(fields.avail, node);
        gsl::at(flow.held, node) = Distance(handedOn, gsl::at(fields.rIdx, node), size);
    }
    // A node that holds the whole ring has all indices where an empty ring has them.
    if (flow.Sum() == 0) {
        flow.held[1] = size;
    }
    return flow;
}

}  // namespace qel
