#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "PacketHeader.h"

namespace qel {

/// Bytes of a ring's object ahead of the data area.
inline constexpr std::uint64_t kControlBlockSize = 152;

/// Bytes that an ordinary write leaves free for critical ones.
inline constexpr std::uint64_t kCriticalReserve = 5 * kPacketHeaderSize;

/// Longest name of a ring: a file name's length less that of ".shm".
inline constexpr std::size_t kLongestRingName = 251;

/// Name of the shared-memory object of the ring `name`.
[[nodiscard]] std::string RingObjectName(std::string_view name);

/// @throws std::invalid_argument when no ring can have this name: it is empty, too long or holds a
///         slash
void RequireRingName(std::string_view name);

/// @param size  bytes of the data area
/// @throws std::invalid_argument when no ring can have this size: it is 0 or more than a file holds
void RequireRingSize(std::uint64_t size);

/// Largest payload that an ordinary write can ever place in a ring whose data area has `size`
/// bytes; nothing when not even an empty packet fits.
[[nodiscard]] std::optional<std::uint64_t> LargestPayload(std::uint64_t size) noexcept;

/// True if a critical write can ever place `payload` bytes in a ring of `size` bytes. It needs no
/// reserve, but a record either fills the ring exactly or leaves room for a header at the end.
[[nodiscard]] bool CriticalPayloadFits(std::uint64_t payload, std::uint64_t size) noexcept;

}  // namespace qel
