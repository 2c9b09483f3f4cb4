#pragma once

#include <sys/mman.h>

#include <cerrno>
#include <new>
#include <type_traits>

#include "RingError.h"

namespace qel {

/// A `Content` in memory that this process shares with those it forks later.
///
/// Thread use: as that of `Content`, which for parts used by several processes means atomics.
template <typename Content>
class ForkShared {
    static_assert(std::is_trivially_destructible_v<Content>, "no process destroys it for all");

public:
    /// @throws RingError when there is no memory
    ForkShared()
        : memory_(mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) {
        if (memory_ == MAP_FAILED) {
            throw RingError("cannot map the counters", errno);
        }
        content_ = new (memory_) Content;
    }
    ~ForkShared() { (void)munmap(memory_, sizeof(Content)); }
    ForkShared(const ForkShared&) = delete;
    ForkShared& operator=(const ForkShared&) = delete;

    Content* operator->() const noexcept { return content_; }
    Content& operator*() const noexcept { return *content_; }

private:
    void* memory_;
    Content* content_ = nullptr;
};

}  // namespace qel
