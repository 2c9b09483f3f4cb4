#pragma once

#include <cstddef>
#include <cstdint>

namespace qel {

/// Copies without bringing the destination into the cache: a ring that is larger than the cache has
/// driven a record out of it before the writer comes by again, and to fetch what is only to be
/// overwritten costs as much as the copy. Done when it returns: what is stored later, by which the
/// bytes are published, is seen after them.
///
/// As `memcpy` on processors where this does not know how.
void CopyPastCache(unsigned char* to, const unsigned char* from, std::size_t size) noexcept;

/// From how many bytes on a copy into a ring of `ringSize` bytes is to go past the cache; more than
/// any copy has if never. Smaller copies lose more by the wait for memory than they save.
/// @param cacheSize  bytes of the largest cache; 0 if it is not known
[[nodiscard]] std::size_t PastCacheFrom(std::uint64_t ringSize, std::uint64_t cacheSize) noexcept;

/// Bytes of this machine's largest cache; 0 if it does not tell.
[[nodiscard]] std::uint64_t LargestCache() noexcept;

}  // namespace qel
