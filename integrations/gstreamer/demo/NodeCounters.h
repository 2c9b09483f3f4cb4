#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qel {

inline constexpr std::size_t kChainLength = 5;

/// What one node has seen and found out so far. Lies in memory that all processes of the chain
/// share; written by the node alone, watched by the process that started it.
struct alignas(64) NodeCounters {
    std::atomic<std::uint64_t> frames{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> keyFrames{0};

    std::atomic<std::uint64_t> copies{0};       ///< frames that the element copied, but for writing
    std::atomic<std::uint64_t> heldPackets{0};  ///< read and not handed on yet
    std::atomic<std::uint64_t> heldBytes{0};

    std::atomic<std::uint64_t> fingerprint{0};   ///< XXH3 of all frames so far, in their order
    std::atomic<std::uint64_t> gaps{0};          ///< time stamps that do not follow the one before
    std::atomic<std::uint64_t> largestFrame{0};  ///< bytes
    std::atomic<std::uint64_t> decoded{0};       ///< key frames that the decoder took
    std::atomic<double> luma{0};                 ///< of the newest decoded key frame
    std::atomic<double> medianLatency{0};        ///< since the frame's capture, in milliseconds
    std::atomic<double> highLatency{0};          ///< that of the 99th percentile
    std::atomic<double> lumaTopLeft{0};          ///< mean of all frames there
    std::atomic<double> lumaBottomRight{0};

    /// Why the node failed. Set before its process ends, read after.
    std::array<char, 512> error{};
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "shared between processes");
static_assert(std::atomic<double>::is_always_lock_free, "shared between processes");

/// What the chain's processes share.
struct ChainBoard {
    std::array<NodeCounters, kChainLength> nodes;
    std::atomic<bool> endStream{false};  ///< the source is to end the stream now
    std::atomic<bool> drained{false};    ///< the last node has had the end of the stream
};

}  // namespace qel
