#pragma once

#include <cstdint>
#include <vector>

namespace qel {

/// The memory that this process shares with others, as /proc/self/maps lists it.
class SharedMappings {
public:
    /// True if `address` lies there. Reads the list again when it does not know the address.
    [[nodiscard]] bool Contain(const void* address);

private:
    struct Range {
        std::uintptr_t begin;
        std::uintptr_t end;
    };

    void Read();
    [[nodiscard]] bool Knows(std::uintptr_t address) const;

    std::vector<Range> ranges_;
};

}  // namespace qel
