#include "HugePages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>

namespace qel {
namespace {

constexpr std::uintptr_t kHugePage = 2U << 20U;
constexpr int kCollapse = 25;  // MADV_COLLAPSE, which older headers lack

/// Bytes from `address` on to the next multiple of `unit`.
std::size_t Lead(const unsigned char* address, std::uintptr_t unit) noexcept {
    return (unit - reinterpret_cast<std::uintptr_t>(address) % unit) % unit;
}

/// Does nothing if there is nothing between the two.
void Unmap(unsigned char* from, const unsigned char* to) noexcept {
    (void)::munmap(from, static_cast<std::size_t>(to - from));
}

}  // namespace

unsigned char* MoveForHugePages(unsigned char* start, std::uint64_t length) noexcept {
    if (Lead(start, kHugePage) == 0) {
        return start;
    }
    void* const room = ::mmap(nullptr, length + kHugePage, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED) {
        return start;
    }
    auto* const from = static_cast<unsigned char*>(room);
    unsigned char* const to = from + length + kHugePage;
    unsigned char* const target = from + Lead(from, kHugePage);
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const bool isMoved =
        ::mremap(start, length, length, MREMAP_MAYMOVE | MREMAP_FIXED, target) != MAP_FAILED;
    if (!isMoved) {
        Unmap(from, to);
        return start;
    }
    Unmap(from, target);
    unsigned char* const end = target + length;
    Unmap(end + Lead(end, page), to);
    return target;
}

void UseHugePages(unsigned char* start, std::uint64_t length) noexcept {
    (void)::madvise(start, length, kCollapse);
}

}  // namespace qel
