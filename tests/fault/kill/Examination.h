#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "RepairRule.h"

namespace qel::test {

/// What a dead node can have left in a ring, as the counters and records tell.
enum class Finding {
    NeverInitialised,
    LimitMissing,
    CountHigh,        ///< numPackets
    RecordBytesLost,  ///< the writer had taken the bytes of a record from avail[0]
    RecordHandedOn,   ///< and moved them to avail[1], and not yet moved its index on
    FillerBegun,      ///< the writer's index is past a filler's header only
    FillerBytesLost,  ///< and it had taken the filler's bytes from avail[0]
    FillerHandedOn,   ///< and moved them to avail[1]
    TakingBytesLost,  ///< a reader had taken a record's bytes from its counter
    HeldBytesLost,    ///< and moved its index on, and not yet released them
};
using Findings = std::set<Finding>;

/// Bytes that living nodes have read and not released.
using HeldBytes = std::array<std::uint64_t, kMaxNodes>;

/// What the death of `dead` has left.
/// @param limit  the packet limit that the ring is to have, as a fresh one stands it
/// @return nothing if the ring is in a state that no death explains
std::optional<Findings> Examine(const RingSight& ring, std::uint8_t dead, const HeldBytes& held,
                                std::uint32_t limit);

/// As the table says it: what is left behind, and how it shows. L is the length of the record that
/// the dead node n was at, F of the filler, H the bytes that it held; s is the sink.
std::string LeftText(Finding finding);
std::string SeeText(Finding finding, bool isSink);

}  // namespace qel::test
