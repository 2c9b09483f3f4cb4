#include "StreamNames.h"

#include <algorithm>

#include "ObjectName.h"
#include "RingRules.h"

namespace qel {

StreamNames::StreamNames(const std::string& name)
    : ring(name), control(name + ".ctl"), caps(name + ".caps") {
    RequireRingName(ring);
    RequireObjectName("control ring", control, kLongestRingName);
    RequireObjectName("block", caps, kLongestBlockName);
    RequireObjectName("semaphore", WakeUp(0), kLongestSemaphoreName);
}

std::string StreamNames::WakeUp(unsigned node) const {
    return ring + ".node" + std::to_string(node);
}

std::uint64_t ControlRingSize(std::uint64_t ringSize) noexcept {
    constexpr std::uint64_t kSmallest = 256 << 10;
    constexpr std::uint64_t kLargest = 4 << 20;
    return std::clamp(ringSize / 16, kSmallest, kLargest);
}

}  // namespace qel
