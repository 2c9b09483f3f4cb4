#pragma once

#include <array>
#include <cstdint>

#include "ControlBlock.h"

namespace qel {

/// What a ring's control block holds, at a moment or nearly so. Whoever writes to the object may
/// have put anything there.
struct RingFields {
    std::array<std::uint64_t, kMaxNodes> avail{};
    std::array<std::uint64_t, kMaxNodes> wIdx{};
    std::array<std::uint64_t, kMaxNodes> rIdx{};
    std::uint32_t numPackets = 0;
    std::uint8_t initialised = 0;
    std::uint32_t maxPackets = 0;
    std::uint64_t halfSize = 0;
    std::uint64_t quarterSize = 0;
    bool reservedAreZero = true;  ///< the seven bytes that have no use

    /// Loads one field after the other: of a ring at work they need not belong together.
    [[nodiscard]] static RingFields Of(const ControlBlock& control) noexcept;

    /// Who began to initialise the ring got no further, or one node holds all of it.
    [[nodiscard]] bool LookNeverInitialised() const noexcept;

    /// False of a ring that nobody has opened yet, too: nothing can be told of its bytes then.
    [[nodiscard]] bool LookInitialised() const noexcept {
        return initialised != 0 && !LookNeverInitialised();
    }

    friend bool operator==(const RingFields& left, const RingFields& right) noexcept;
    friend bool operator!=(const RingFields& left, const RingFields& right) noexcept {
        return !(left == right);
    }
};

}  // namespace qel
