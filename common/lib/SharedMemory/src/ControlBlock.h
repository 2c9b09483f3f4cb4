#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qel {

/// Nodes that a chain can have.
inline constexpr std::size_t kMaxNodes = 5;

/// Head of a segment, shared by all processes that map it. The data area follows at once.
///
///     offset  0        8        16       24       32
///             +--------+--------+--------+--------+--------+
///         0   | avail  0        1        2        3        4  bytes node i may take;
///             +--------+--------+--------+--------+--------+  node 0: free bytes
///        40   | wIdx   0        1        2        3        4  where node i writes next
///             +--------+--------+--------+--------+--------+
///        80   | rIdx   0        1        2        3        4  where node i reads next
///             +----+-+---+------+--------+--------+--------+
///       120   |numP|i|000|maxP 0000|halfSize|quarterSize|
///             +----+-+---+----+----+--------+-----------+
///       152   | data area, shmSize bytes ...
///
/// Invariants between operations:
///  1. Bytes are conserved: the counters of `avail` and the bytes that nodes have taken and not yet
///     released add up to the size of the data area.
///  2. No counter exceeds the size of the data area or goes below 0: accounting clamps.
///  3. `wIdx[i]` and `rIdx[i]` are stored by node i alone.
///  4. `avail[i]` is lowered by node i alone and raised by node i-1 alone (`avail[0]`: by the
///     sink), always by an atomic add or subtract, so neither side loses the other's update and a
///     test "at least n available" can only be too cautious.
///  5. `numPackets` is raised by node 0 and lowered by the sink, and only while `maxPackets` is not
///     0.
///
/// Every atomic access is sequentially consistent. The add to `avail[i+1]` publishes the record's
/// bytes: it pairs with the load of `avail[i+1]` by which node i+1 learns of them.
struct ControlBlock {
    std::array<std::atomic<std::uint64_t>, kMaxNodes> avail;
    std::array<std::atomic<std::uint64_t>, kMaxNodes> wIdx;
    std::array<std::atomic<std::uint64_t>, kMaxNodes> rIdx;
    std::atomic<std::uint32_t> numPackets;
    std::atomic<std::uint8_t> initialised;  ///< 1 as soon as somebody has begun to initialise
    std::array<std::uint8_t, 3> reserved1;  ///< always 0
    std::uint32_t maxPackets;               ///< packet limit + 1, 0 for none; set once
    std::array<std::uint8_t, 4> reserved2;  ///< always 0
    std::uint64_t halfSize;                 ///< set once, for the use of other programs
    std::uint64_t quarterSize;              ///< set once, for the use of other programs
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
static_assert(std::atomic<std::uint8_t>::is_always_lock_free);
static_assert(sizeof(std::atomic<std::uint64_t>) == 8);
static_assert(sizeof(std::atomic<std::uint32_t>) == 4);
static_assert(sizeof(std::atomic<std::uint8_t>) == 1);
static_assert(offsetof(ControlBlock, avail) == 0);
static_assert(offsetof(ControlBlock, wIdx) == 40);
static_assert(offsetof(ControlBlock, rIdx) == 80);
static_assert(offsetof(ControlBlock, numPackets) == 120);
static_assert(offsetof(ControlBlock, initialised) == 124);
static_assert(offsetof(ControlBlock, reserved1) == 125);
static_assert(offsetof(ControlBlock, maxPackets) == 128);
static_assert(offsetof(ControlBlock, reserved2) == 132);
static_assert(offsetof(ControlBlock, halfSize) == 136);
static_assert(offsetof(ControlBlock, quarterSize) == 144);
static_assert(sizeof(ControlBlock) == 152);

}  // namespace qel
