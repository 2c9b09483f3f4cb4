// Preloaded into a program, counts what it takes from the heap.

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

extern "C" {

// The C library's own, behind the names that are replaced here.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

namespace {

std::atomic<std::uint64_t> allocations{0};

}  // namespace

extern "C" {

[[gnu::visibility("default")]] std::uint64_t qev_bench_allocations() {
    return allocations.load(std::memory_order_relaxed);
}

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}

[[gnu::visibility("default")]] void* realloc(void* memory, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(memory, size);
}

[[gnu::visibility("default")]] void* aligned_alloc(std::size_t alignment, std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_memalign(alignment, size);
}

[[gnu::visibility("default")]] int posix_memalign(void** memory, std::size_t alignment,
                                                  std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    *memory = __libc_memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

}  // extern "C"
