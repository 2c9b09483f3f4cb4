#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace qel::bench {

enum class CopyBy { Memcpy, NonTemporal };

/// Copies messages of `size` bytes one behind the other, round a mapping of `ring` bytes: what the
/// machine lets a transport reach that copies once.
[[nodiscard]] nlohmann::json MeasureCopy(std::size_t size, std::size_t ring, CopyBy how,
                                         double seconds);

/// A cache line that two processes hand to each other, there and back.
[[nodiscard]] nlohmann::json MeasurePingPong(double seconds);

/// Two semaphores in shared memory on which two processes wake up each other, there and back.
[[nodiscard]] nlohmann::json MeasureSemaphores(double seconds);

enum class BlockBy { Library, Raw };

/// Takes and gives back a block's lock for writing, and for reading: through the library, or the
/// calls `flock` and `mprotect` alone on a memory file with small pages.
[[nodiscard]] nlohmann::json MeasureBlock(std::size_t size, BlockBy how, double seconds);

enum class RingBy { Library, Bare };

/// Writes, reads and releases a packet in one thread: through the library, or with nothing but the
/// atomic operations and copies that the ring's rules ask for, written out inline.
/// @param nodes    of the library's chain, 2 to 5; the bare one has 2
/// @param packets  how many; 0: by the seconds
[[nodiscard]] nlohmann::json MeasureOneThread(std::size_t size, std::size_t ring, RingBy how,
                                              unsigned nodes, double seconds,
                                              std::uint64_t packets);

}  // namespace qel::bench
