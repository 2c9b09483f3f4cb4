#pragma once

#include <cstdint>
#include <cstring>

#include "PacketHeader.h"

namespace qel {

/// Copies a header in pieces of a machine word. It is copied again right after it was stored, into
/// the ring and out of it: a load that is wider than the stores it takes its bytes from, or that
/// lies across two of them, waits until both have left the store buffer.
inline void CopyHeader(unsigned char* to, const unsigned char* from) noexcept {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    std::uint64_t third = 0;
    std::uint16_t rest = 0;
    static_assert(sizeof first + sizeof second + sizeof third + sizeof rest == kPacketHeaderSize);
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&second, from + sizeof first, sizeof second);
    std::memcpy(&third, from + 2 * sizeof first, sizeof third);
    std::memcpy(&rest, from + 3 * sizeof first, sizeof rest);
    std::memcpy(to, &first, sizeof first);
    std::memcpy(to + sizeof first, &second, sizeof second);
    std::memcpy(to + 2 * sizeof first, &third, sizeof third);
    std::memcpy(to + 3 * sizeof first, &rest, sizeof rest);
}

}  // namespace qel
