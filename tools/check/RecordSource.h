#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "PacketHeader.h"
#include "RingFile.h"

namespace qel {

/// Reads headers out of a ring's data area, for one look at it: what it has read once it may give
/// again, though the ring has changed.
class RecordSource {
public:
    explicit RecordSource(const RingFile& ring) noexcept : ring_(ring) {}

    [[nodiscard]] std::uint64_t Size() const noexcept { return ring_.Size(); }

    /// The header that stands at `offset`, as RingFile::HeaderAt has it.
    [[nodiscard]] std::optional<PacketHeader> HeaderAt(std::uint64_t offset) const;

    /// More records than the object has memory for the headers of cannot have been written.
    [[nodiscard]] std::uint64_t MostRecords() const;

    /// True if every byte of the data area is 0: no packet was ever written.
    [[nodiscard]] bool HasHeldNothing() const;

private:
    /// Small records are read many at a time.
    bool ReadAhead(std::uint64_t offset) const;

    const RingFile& ring_;
    mutable std::vector<unsigned char> ahead_;
    mutable std::uint64_t aheadStart_ = 0;
    mutable std::uint64_t last_ = 0;  ///< where the last header was asked for
};

}  // namespace qel
