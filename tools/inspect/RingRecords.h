#pragma once

#include <cstdint>
#include <vector>

#include "RingFile.h"

namespace qel {

/// A record as it stands in a ring.
struct RecordView {
    std::uint64_t offset = 0;  ///< of its header in the data area
    PacketHeader header;
    std::vector<unsigned char> payload{};  ///< its beginning, as far as asked for
};

/// The records of a stretch of the data area.
struct RecordWalk {
    std::vector<RecordView> records;  ///< the first ones
    std::uint64_t count = 0;          ///< of all that were met
    std::uint64_t fillers = 0;        ///< of them
    /// Bytes at the end of the stretch that no record begins at, or that were not reached.
    std::uint64_t rest = 0;
    bool isCut = false;  ///< there were more records than are looked at
};

/// How much of what is met is kept.
struct WalkLimits {
    std::uint64_t records = 0;       ///< to be listed
    std::uint64_t payloadBytes = 0;  ///< of each
};

/// Goes from record to record, by the lengths in their headers, through `bytes` bytes from `offset`
/// on. Ends at the first header that cannot be one: it has no room before the data area's end, or
/// its record reaches beyond the stretch or that end.
[[nodiscard]] RecordWalk WalkRecords(const RingFile& ring, std::uint64_t offset,
                                     std::uint64_t bytes, const WalkLimits& limits);

}  // namespace qel
