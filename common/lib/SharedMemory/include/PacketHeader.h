#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include "QevExport.h"

namespace qel {

/// Header of every packet, stored in the ring ahead of its payload in native byte order:
///
///      0        8 9        17 18     22     26
///     +--------+-+--------+-+------+------+----------------- - -
///     | length |i|  pts   |k| sec  | usec | length bytes of payload
///     +--------+-+--------+-+------+------+----------------- - -
///               ignoreData key
struct [[gnu::packed]] PacketHeader {
    std::uint64_t length = 0;         ///< bytes of payload; set by the buffer on writing
    bool ignoreData = false;          ///< the payload is filler, to be skipped
    std::int64_t pts = 0;             ///< presentation time stamp, in the client's units
    bool key = false;                 ///< the packet is a key frame
    std::uint32_t timestampSec = 0;   ///< time stamp, whole seconds
    std::uint32_t timestampUsec = 0;  ///< time stamp, microseconds part
};

/// Bytes that a header takes in the ring.
inline constexpr std::size_t kPacketHeaderSize = 26;

static_assert(sizeof(PacketHeader) == kPacketHeaderSize);
static_assert(alignof(PacketHeader) == 1);
static_assert(offsetof(PacketHeader, length) == 0);
static_assert(offsetof(PacketHeader, ignoreData) == 8);
static_assert(offsetof(PacketHeader, pts) == 9);
static_assert(offsetof(PacketHeader, key) == 17);
static_assert(offsetof(PacketHeader, timestampSec) == 18);
static_assert(offsetof(PacketHeader, timestampUsec) == 22);

/// Writes the fields of `header` on one line, without a line end; flags as 0 or 1.
QEV_EXPORT std::ostream& operator<<(std::ostream& stream, const PacketHeader& header);

}  // namespace qel
