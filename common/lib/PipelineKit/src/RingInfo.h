#pragma once

#include <stdexcept>
#include <string>

#include "ControlBlock.h"
#include "RingRules.h"
#include "SharedBufferIF.h"

namespace qel {

inline constexpr unsigned kLastNode = kMaxNodes - 1;

/// @throws std::invalid_argument when no chain has a node `node`
inline void RequireNode(unsigned node) {
    if (node > kLastNode) {
        throw std::invalid_argument("node " + std::to_string(node) + " is not in 0 to " +
                                    std::to_string(kLastNode));
    }
}

/// @throws std::invalid_argument when no ring can be described so
inline void RequireRingInfo(const SharedBufferIF::BufferInfo& info) {
    RequireRingName(info.shmName);
    RequireRingSize(info.shmSize);
    RequireNode(info.nodeIdx);
    if (info.nodeIdx == kLastNode && !info.sink) {
        throw std::invalid_argument("node " + std::to_string(kLastNode) +
                                    " is the last and must be the sink");
    }
}

}  // namespace qel
