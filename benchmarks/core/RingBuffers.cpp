#include "RingBuffers.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "OpenRing.h"
#include "PopulateRing.h"

namespace qel::bench {

RingPair::RingPair(std::uint64_t size)
    : name("qev-bench-" + std::to_string(getpid())),
      writer(OpenRing({name, size, 0, false, 0})),
      reader(OpenRing({name, size, 1, true, 0})) {
    PopulateRing(*writer, size);
    PopulateRing(*reader, size);
}

RingPair::~RingPair() {
    (void)shm_unlink(("/" + name + ".shm").c_str());
}

SharedBytes::SharedBytes(std::size_t size)
    : size_(size),
      data_(static_cast<unsigned char*>(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                             MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0))) {
    if (data_ == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    std::memset(data_, 0, size);
}

SharedBytes::~SharedBytes() {
    (void)munmap(data_, size_);
}

void CopyPlain(unsigned char* to, const unsigned char* from, std::size_t size) {
    std::memcpy(to, from, size);
}

#if defined(__SSE2__)

void CopyNonTemporal(unsigned char* to, const unsigned char* from, std::size_t size) {
    constexpr std::size_t kLine = 64;
    constexpr std::size_t kStore = sizeof(__m128i);
    const std::size_t head =
        std::min(size, (kLine - reinterpret_cast<std::uintptr_t>(to) % kLine) % kLine);
    std::memcpy(to, from, head);
    to += head;
    from += head;
    for (size -= head; size >= kLine; size -= kLine, to += kLine, from += kLine) {
        for (std::size_t at = 0; at < kLine; at += kStore) {
            _mm_stream_si128(reinterpret_cast<__m128i*>(to + at),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + at)));
        }
    }
    _mm_sfence();
    std::memcpy(to, from, size);
}

#else

void CopyNonTemporal(unsigned char* to, const unsigned char* from, std::size_t size) {
    std::memcpy(to, from, size);
}

#endif

}  // namespace qel::bench
