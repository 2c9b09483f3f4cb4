#pragma once

#include <cstdint>
#include <optional>

#include "SharedPacketBufferIF.h"

namespace qel {

/// Payloads that are placed with `PaddingAhead` begin at addresses that are multiples of this, in
/// every process: code that works on samples of several bytes may insist on it.
inline constexpr std::uint64_t kPayloadAlignment = 64;

/// The offset in the data area at which node `node` writes its next record.
[[nodiscard]] std::uint64_t WriteIndexOf(SharedPacketBufferIF& ring, unsigned node);

/// What to write ahead of a packet so that its payload is aligned: a packet with `ignoreData` set,
/// which readers take for a filler, and a payload of so many bytes. Ask again after each one.
///
/// Ahead of the ring's end the padding reaches to that end: the ring's own filler would put the
/// packet at the start, where it is not aligned.
///
/// @param writeIndex  where the next record goes
/// @param payload     bytes of the packet's payload; one of more than half the ring is not aligned
/// @param ringSize    bytes of the ring's data area
/// @param behind      bytes for which there must be room behind the payload
/// @return nothing if the packet can be written as it is
[[nodiscard]] std::optional<std::uint64_t> PaddingAhead(std::uint64_t writeIndex,
                                                        std::uint64_t payload,
                                                        std::uint64_t ringSize,
                                                        std::uint64_t behind = 0) noexcept;

}  // namespace qel
