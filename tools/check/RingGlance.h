#pragma once

#include <optional>
#include <vector>

#include "RingDeviation.h"
#include "RingFile.h"
#include "RingUsers.h"

namespace qel {

/// A ring as it was at a moment.
struct Glance {
    RingFields fields;
    unsigned sink = 1;
    /// The fields do not tell how long the chain is, and it makes a difference.
    bool isChainUnclear = false;
    RingDeviations deviations{};
};

/// @param nodes  that the chain has, when it is known
/// @return nothing if the ring has changed while it was looked at
[[nodiscard]] std::optional<Glance> GlanceOf(const RingFile& ring, const RingUsers& users,
                                             const std::optional<unsigned>& nodes);

/// The last nodes that the chain can have: more than one where the fields do not tell.
struct Sinks {
    std::vector<unsigned> likely;  ///< at least one, the likeliest first
    /// Where anything is wrong with those: shorter chains, to which a longer one has left its ring.
    std::vector<unsigned> others;
};

/// @param size   bytes of the ring's data area
/// @param nodes  that the chain has, when it is known
[[nodiscard]] Sinks SinksOf(const RingFields& fields, std::uint64_t size, const RingUsers& users,
                            const std::optional<unsigned>& nodes);

}  // namespace qel
