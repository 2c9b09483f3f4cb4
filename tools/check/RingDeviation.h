#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "RepairRule.h"

namespace qel {

/// In what a ring differs from one between two operations. The first ones are what the death of a
/// node leaves; a living node in the middle of the same step shows the same, for as long as that
/// takes.
struct RingDeviation {
    enum class Kind {
        NeverInitialised,
        RecordHandedOn,  ///< wIdx[0] is behind by the record that it has handed on
        // Of a filler, or of a packet that was written in place:
        FillerBegun,        ///< wIdx[0] is past its header only
        FillerBytesLost,    ///< and its bytes were taken from avail[0]
        FillerHandedOn,     ///< and given to node 1
        RecordBytesLost,    ///< the writer had taken a record from avail[0], and not handed it on
        TakingBytesLost,    ///< node 1 had taken a record from its counter, and not moved its index
        BytesLost,          ///< behind `node`: it held them, or the next one was taking a record;
                            ///< behind the sink: or the writer had taken them for a record
        CountHigh,          ///< numPackets, against the records in the ring
        CountLow,           ///<
        CountWithoutLimit,  ///< numPackets counts though maxPackets is 0

        // No death of one node leaves these.
        FullRingLost,  ///< bytes of a ring that was full to the last byte: nobody can tell where
        IndicesContradict,   ///< the writer's index against what node 1 has been given
        CounterContradicts,  ///< avail[node] counts more than lies there
        RecordsDamaged,      ///< between the indices stands what is no record
        OutsideRing,         ///< an index or counter that no ring of this size can have
        UsedUninitialised,   ///< fields are set though nobody has initialised the ring
        SizeDiffers,         ///< the ring was initialised with another size
        UnusedFieldsSet,     ///< fields that no chain sets
    };

    Kind kind;
    unsigned node = 0;
    std::uint64_t bytes = 0;
    std::uint64_t is = 0;      ///< a count
    std::uint64_t should = 0;  ///< what it should be

    friend bool operator==(const RingDeviation& left, const RingDeviation& right) noexcept;
    friend bool operator<(const RingDeviation& left, const RingDeviation& right) noexcept;
};
using RingDeviations = std::vector<RingDeviation>;

/// Whether the state is one that some single death, or none, can have left: only such a ring is put
/// right.
[[nodiscard]] bool IsPossible(const RingDeviations& deviations) noexcept;

[[nodiscard]] bool Has(const RingDeviations& deviations, RingDeviation::Kind kind) noexcept;
void Add(RingDeviations& all, const RingDeviations& more);

/// Nodes that may be alive, and then may hold what they have read.
using NodesThere = std::array<bool, kMaxNodes>;

/// As FindEnd, but for a filler that is a mere header: that looks the same whether node 1 is about
/// to take it or the writer about to hand it on. In the latter case its bytes may still be free.
[[nodiscard]] std::optional<EndOfRecords> EndOf(const RingSight& ring);

/// What the fields themselves say, before any flow: the ring's size, its first steps, its reserved
/// bytes.
[[nodiscard]] RingDeviations FormOf(const RingSight& ring);

/// Where the bytes are: writer, counters and indices.
/// @param ring  of which FormOf says nothing against looking further
[[nodiscard]] RingDeviations FlowDeviations(const RingSight& ring, const NodesThere& there);

/// Records and numPackets of a ring that stands still.
/// @param flow  what FlowDeviations has found
[[nodiscard]] RingDeviations RecordDeviations(const RingSight& ring, const RingDeviations& flow);

/// All of these.
[[nodiscard]] RingDeviations DeviationsOf(const RingSight& ring, const NodesThere& there);

/// numPackets and the records of a ring whose readers are at work: what is in use begins and ends
/// where the writer's fields say.
[[nodiscard]] RingDeviations InUseDeviations(const RingSight& ring);

}  // namespace qel
