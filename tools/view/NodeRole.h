#pragma once

#include <cstddef>

namespace qel {

/// "producer", "node" or "sink".
[[nodiscard]] constexpr const char* RoleOf(std::size_t node, std::size_t nodes) noexcept {
    if (node == 0) {
        return "producer";
    }
    return node + 1 == nodes ? "sink" : "node";
}

}  // namespace qel
