#pragma once

#include <cstdint>
#include <optional>

#include "ControlBlock.h"

namespace qel::test {

/// A ring of which every node is stopped, seen from outside.
struct RingView {
    ControlBlock& control;
    const unsigned char* data;
    std::uint64_t size;  ///< of the data area
    std::uint8_t sink;   ///< the chain's last node

    /// Bytes from one place of the data area on, round the ring, to another.
    [[nodiscard]] std::uint64_t Distance(std::uint64_t from, std::uint64_t to) const {
        return (to % size + size - from % size) % size;
    }
};

struct Record {
    std::uint64_t length;  ///< with its header
    bool isFiller;
};

/// What stands at `offset`, nothing if no record can.
std::optional<Record> RecordAt(const RingView& ring, std::uint64_t offset);

/// Records that take exactly `length` bytes from `start` on; nothing if there are none such.
std::optional<std::uint32_t> CountRecords(const RingView& ring, std::uint64_t start,
                                          std::uint64_t length);

/// Where the records of a ring end, by what the writer and the first reader have left.
struct EndOfRecords {
    enum class Found {
        AtBoth,          ///< wIdx[0] and rIdx[1] + avail[1] agree
        ReaderTaking,    ///< avail[1] is too low by the record at rIdx[1]
        RecordHandedOn,  ///< wIdx[0] is too low by the record that stands there
        FillerBegun,     ///< wIdx[0] is past the header of a filler that nobody has been given
        FillerHandedOn,  ///< wIdx[0] is only past the header of a filler that has been given
    };
    std::uint64_t offset;
    Found found;
};
/// Nothing if the two contradict each other.
std::optional<EndOfRecords> FindEnd(const RingView& ring);

/// Makes the ring one that all nodes can be started on again, whatever moment one of them died at:
///
///  - the read indices hold, and the records end where FindEnd says: wIdx[0] is set there;
///  - avail[i] is what lies between rIdx[i] and the read index before it (of node 1: the end), so
///    what the node before had read and not released is handed on;
///  - avail[0] is what is left of the data area, so what the sink held is given back;
///  - numPackets, with a packet limit, is the number of records from the sink's index to the end;
///  - maxPackets, halfSize and quarterSize are as a fresh ring for `maxFrames` has them.
///
/// @return false if the ring cannot be put right and has to be removed; it is as before then
bool PutRight(const RingView& ring, std::uint32_t maxFrames);

}  // namespace qel::test
