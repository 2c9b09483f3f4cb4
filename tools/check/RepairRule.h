#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "RecordSource.h"
#include "RingFields.h"

namespace qel {

/// A ring as it was at a moment, seen from outside.
struct RingSight {
    RingFields fields;
    const RecordSource& records;
    unsigned sink;  ///< the chain's last node

    [[nodiscard]] std::uint64_t Size() const noexcept { return records.Size(); }
    /// Bytes of the data area from one place on, round the ring, to another.
    [[nodiscard]] std::uint64_t Distance(std::uint64_t from, std::uint64_t to) const noexcept;
};

struct Record {
    std::uint64_t length;  ///< with its header
    bool isFiller;
};

/// What stands at `offset`, nothing if no record can.
[[nodiscard]] std::optional<Record> RecordAt(const RecordSource& records, std::uint64_t offset);

/// Records that take exactly `length` bytes from `start` on; nothing if there are none such.
[[nodiscard]] std::optional<std::uint64_t> CountRecords(const RecordSource& records,
                                                        std::uint64_t start, std::uint64_t length);

/// Where the records of a ring end, by what the writer and the first reader have left.
struct EndOfRecords {
    enum class Found {
        AtBoth,          ///< wIdx[0] and rIdx[1] + avail[1] agree
        ReaderTaking,    ///< avail[1] is too low by the record at rIdx[1]
        RecordHandedOn,  ///< wIdx[0] is too low by the record that stands there
        // A filler, or a packet that was written in place:
        FillerBegun,     ///< wIdx[0] is past its header, and nobody has been given it
        FillerHandedOn,  ///< wIdx[0] is only past its header, and it has been given
    };
    std::uint64_t offset;
    Found found;
};
/// Nothing if the two contradict each other.
[[nodiscard]] std::optional<EndOfRecords> FindEnd(const RingSight& ring);

/// Bytes of each node's stretch of the ring: what lies between its read index and the one before it
/// (of node 1: the end); [0] is the rest, which is free or the sink's.
using Stretches = std::array<std::uint64_t, kMaxNodes>;
/// Nothing if they are more than the ring.
[[nodiscard]] std::optional<Stretches> StretchesTo(const RingSight& ring, std::uint64_t end);

/// Records in all of the nodes' stretches; nothing if one does not begin and end with a record.
[[nodiscard]] std::optional<std::uint64_t> CountRecordsIn(const RingSight& ring,
                                                          const Stretches& stretches);

/// The fields that make the ring one that all nodes can be started on again, whatever moment one of
/// them died at:
///
///  - the read indices hold, and the records end where FindEnd says: wIdx[0] is set there;
///  - avail[i] is what lies between rIdx[i] and the read index before it (of node 1: the end), so
///    what the node before had read and not released is handed on;
///  - avail[0] is what is left of the data area, so what the sink held is given back;
///  - numPackets, with a packet limit, is the number of records from the sink's index to the end;
///  - maxPackets is `maxPackets`, halfSize and quarterSize are as a fresh ring has them.
///
/// @return nothing if the ring cannot be put right and has to be removed
[[nodiscard]] std::optional<RingFields> PutRight(const RingSight& ring, std::uint32_t maxPackets);

}  // namespace qel
