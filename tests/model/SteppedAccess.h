#pragma once

#include <cstddef>
#include <cstdint>

namespace qel::test {

enum class Access { Load, Store, Add, Subtract, Exchange };

/// Learns of every access to memory by code that was compiled for it: the library's own sources,
/// unchanged, with the compiler's instrumentation for race detectors. The compiler puts a call
/// ahead of each access; what answers these calls here is not a race detector but this observer.
class AccessObserver {
public:
    virtual ~AccessObserver() = default;
    /// Ahead of an atomic access. `isSequential`: it is sequentially consistent.
    virtual void BeforeAtomic(const volatile void* address, bool isSequential) = 0;
    /// Behind it. `before` and `after`: the value at the address.
    virtual void AfterAtomic(const volatile void* address, Access access, std::uint64_t before,
                             std::uint64_t after) = 0;
    /// Ahead of a plain read or write, and of each part of a copy.
    virtual void BeforePlain(const volatile void* address, std::size_t size, bool isWrite) = 0;
};

/// Sets who learns of accesses from now on; nullptr: nobody. One thread at a time.
void ObserveAccesses(AccessObserver* observer);

/// Copies are made in parts of this many bytes at most.
inline constexpr std::size_t kCopyPart = 16;

}  // namespace qel::test
