#include "CopyPastCache.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qel {

std::size_t PastCacheFrom(std::uint64_t ringSize, std::uint64_t cacheSize) noexcept {
    constexpr std::size_t kSmallest = std::size_t{64} * 1024;
    const bool pays = cacheSize != 0 && ringSize > cacheSize;
    return pays ? kSmallest : std::numeric_limits<std::size_t>::max();
}

#if defined(__x86_64__) || defined(__i386__)

namespace {

/// Bytes of the largest cache that the processor names in `leaf`, which has one entry for each.
/// Asked here and not of the C library, which adds up the caches of cores that share none.
std::uint64_t LargestCacheIn(unsigned leaf) noexcept {
    constexpr unsigned kMostCaches = 8;
    constexpr unsigned kTypes = 0x1f;
    constexpr unsigned kParts = 0x3ff;
    std::uint64_t largest = 0;
    for (unsigned cache = 0; cache < kMostCaches; ++cache) {
        unsigned a = 0;
        unsigned b = 0;
        unsigned sets = 0;
        unsigned d = 0;
        (void)__get_cpuid_count(leaf, cache, &a, &b, &sets, &d);  // sets nothing if there is none
        if ((a & kTypes) == 0) {
            break;
        }
        const std::uint64_t ways = (b >> 22U) + 1;
        const std::uint64_t partitions = (b >> 12U & kParts) + 1;
        const std::uint64_t line = (b & 0xfffU) + 1;
        largest = std::max(largest, ways * partitions * line * (std::uint64_t{sets} + 1));
    }
    return largest;
}

}  // namespace

std::uint64_t LargestCache() noexcept {
    constexpr unsigned kIntel = 4;
    constexpr unsigned kAmd = 0x8000001d;
    // A virtual machine leaves its processor for each answer.
    static const std::uint64_t size = std::max(LargestCacheIn(kIntel), LargestCacheIn(kAmd));
    return size;
}

#else

std::uint64_t LargestCache() noexcept {
    return static_cast<std::uint64_t>(std::max(sysconf(_SC_LEVEL3_CACHE_SIZE), 0L));
}

#endif

#if defined(__SSE2__)

void CopyPastCache(unsigned char* to, const unsigned char* from, std::size_t size) noexcept {
    constexpr std::size_t kLine = 64;
    constexpr std::size_t kStore = sizeof(__m128i);
    const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(to) % kLine;
    const std::size_t head = std::min(size, (kLine - misaligned) % kLine);
    std::memcpy(to, from, head);
    to += head;
    from += head;
    size -= head;
    // Whole lines, or the processor would have to read what it does not get.
    for (; size >= kLine; size -= kLine, to += kLine, from += kLine) {
        for (std::size_t at = 0; at < kLine; at += kStore) {
            _mm_stream_si128(reinterpret_cast<__m128i*>(to + at),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + at)));
        }
    }
    std::memcpy(to, from, size);
    _mm_sfence();  // such stores keep no order with others
}

#else

void CopyPastCache(unsigned char* to, const unsigned char* from, std::size_t size) noexcept {
    std::memcpy(to, from, size);
}

#endif

}  // namespace qel
