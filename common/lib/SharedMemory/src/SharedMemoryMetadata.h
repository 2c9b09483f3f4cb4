#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace qel {

/// Where the lock file of the block `name` stands.
[[nodiscard]] inline std::string BlockLockPath(std::string_view name) {
    return "/tmp/" + std::string(name) + "_shm.lock";
}

/// Where a block's memory file is found while the process that opened it lives.
[[nodiscard]] inline std::string BlockMemoryPath(std::int32_t pid, std::int32_t fd) {
    return "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
}

/// Bytes of the memory file ahead of the user's data: the creator's `uid`.
inline constexpr std::uint64_t kBlockHeaderSize = 8;

/// What a block's creator announces in the lock file, read by other processes:
///
///     offset 0        4        8                16               24               32
///            +--------+--------+----------------+----------------+----------------+
///            | pid    | fd     | dev            | ino            | uid            |
///            +--------+--------+----------------+----------------+----------------+
///
/// The memory file is reached as /proc/pid/fd/fd. Either number can be used again after the creator
/// has gone: the other fields tell whether what is found there is still the block.
struct SharedMemoryMetadata {
    std::int32_t pid = 0;   ///< the creator's process
    std::int32_t fd = -1;   ///< the memory file's descriptor in the creator
    std::uint64_t dev = 0;  ///< the memory file's device
    std::uint64_t ino = 0;  ///< the memory file's inode
    std::int64_t uid = 0;   ///< random, also in the block's first 8 bytes; 2^61 to 2^62
};

static_assert(std::is_trivially_copyable_v<SharedMemoryMetadata>);
static_assert(offsetof(SharedMemoryMetadata, pid) == 0);
static_assert(offsetof(SharedMemoryMetadata, fd) == 4);
static_assert(offsetof(SharedMemoryMetadata, dev) == 8);
static_assert(offsetof(SharedMemoryMetadata, ino) == 16);
static_assert(offsetof(SharedMemoryMetadata, uid) == 24);
static_assert(sizeof(SharedMemoryMetadata) == 32);

}  // namespace qel
