#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "RingFields.h"

namespace qel {

/// Where the bytes of a ring are, from its control block alone. Of a healthy ring
///
///     writer      reader 1          reader 2 ...     sink
///     free ──► waiting[1] ► held[1] ► waiting[2] ► held[2] ──► free
///
/// add up to its size: `free` is what the writer may write, `waiting` what a node may read, `held`
/// what it has read and not released. Held bytes of a node that has gone are lost.
struct RingFlow {
    unsigned sink = 1;  ///< the chain's last node
    std::uint64_t free = 0;
    std::array<std::uint64_t, kMaxNodes> waiting{};  ///< [0] is 0
    std::array<std::uint64_t, kMaxNodes> held{};     ///< [0] is 0
    /// How far the writer's index is ahead of what it has handed on; 0 but in the middle of a
    /// write. Modulo the ring's size: one that is behind shows as nearly the size.
    std::uint64_t writerAhead = 0;

    /// All bytes that are accounted for; of a sound ring its size.
    [[nodiscard]] std::uint64_t Sum() const noexcept;
    /// Bytes that the writer must wait for.
    [[nodiscard]] std::uint64_t InUse() const noexcept { return Sum() - free; }
};

/// From `from` on to `to`, round a ring of `size` bytes.
[[nodiscard]] constexpr std::uint64_t Distance(std::uint64_t from, std::uint64_t to,
                                               std::uint64_t size) noexcept {
    return (to % size + (size - from % size)) % size;
}

/// The last node for which something waits, 1 at least: the chain is no shorter.
[[nodiscard]] unsigned LastNodeAwaited(const RingFields& fields) noexcept;

/// The last node that has ever read something, and whose index lies where a node of this chain can
/// have it: an index that does not is what a longer chain has left in the ring. It tells the
/// chain's length unless the chain is longer and nothing has reached the last nodes, or their index
/// is at 0 at this moment.
/// @return nothing if no length fits, as in the middle of a write
[[nodiscard]] std::optional<unsigned> LastNodeThatFits(const RingFields& fields,
                                                       std::uint64_t size);

/// The same; if no length fits, the last node that has ever read something.
[[nodiscard]] unsigned LastNodeReached(const RingFields& fields, std::uint64_t size);

/// @param sink  the last node, 1 to 4
/// @return nothing if no ring of `size` bytes has these fields: an index lies outside it or a
///         counter exceeds it
[[nodiscard]] std::optional<RingFlow> FlowOf(const RingFields& fields, std::uint64_t size,
                                             unsigned sink);

}  // namespace qel
