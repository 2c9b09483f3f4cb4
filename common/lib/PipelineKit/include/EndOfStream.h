#pragma once

#include <cstdint>
#include <limits>

#include "Packet.h"

namespace qel {

/// Time stamp of the mark that ends a stream; no packet of content has it.
inline constexpr std::int64_t kEndOfStreamPts = std::numeric_limits<std::int64_t>::min();

/// The mark that a producer sends behind its last packet: an empty packet with a time stamp of its
/// own. Every node receives it through the ring like any packet and hands it on by releasing it.
///
/// It is written as a critical packet, so that a ring full of ordinary packets still takes it. A
/// ring holds one stream after the other: what follows the mark is the next stream.
[[nodiscard]] inline Packet MakeEndOfStream() noexcept {
    Packet mark;
    mark.header.pts = kEndOfStreamPts;
    return mark;
}

/// True for the end mark; false for fillers and for packets of content, empty ones included.
[[nodiscard]] inline bool IsEndOfStream(const Packet& packet) noexcept {
    return packet.header.pts == kEndOfStreamPts && packet.data.empty() && !packet.header.ignoreData;
}

}  // namespace qel
