#pragma once

#include <cstdint>

namespace qel {

/// Mappings of so many bytes and more are worth huge pages: a change of their protection goes
/// through every page, 7 ms for 256 MiB of small ones, and less than 0.03 ms for huge ones.
inline constexpr std::uint64_t kWorthHugePages = 4U << 20U;

/// Moves a mapping to an address at which it can have huge pages.
/// @param start   of a mapping of its own, made by `mmap`
/// @return where it is now; `start` if it cannot be moved
[[nodiscard]] unsigned char* MoveForHugePages(unsigned char* start, std::uint64_t length) noexcept;

/// Puts huge pages in the place of the small ones as far as there is memory for them. The content
/// stays. Does what it can and says nothing: where the kernel cannot do it (before Linux 6.1), the
/// mapping is only slower to protect.
void UseHugePages(unsigned char* start, std::uint64_t length) noexcept;

}  // namespace qel
