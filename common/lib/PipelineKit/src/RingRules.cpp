#include "RingRules.h"

#include <limits>
#include <stdexcept>

#include "ObjectName.h"

namespace qel {
namespace {

constexpr std::uint64_t kLargestRing =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) - kControlBlockSize;

}  // namespace

std::string RingObjectName(std::string_view name) {
    return "/" + std::string(name) + ".shm";
}

void RequireRingName(std::string_view name) {
    RequireObjectName("ring", name, kLongestRingName);
}

void RequireRingSize(std::uint64_t size) {
    if (size == 0) {
        throw std::invalid_argument("the size of a ring must not be 0");
    }
    if (size > kLargestRing) {
        throw std::invalid_argument("the size of a ring is at most " +
                                    std::to_string(kLargestRing) + " bytes, not " +
                                    std::to_string(size));
    }
}

std::optional<std::uint64_t> LargestPayload(std::uint64_t size) noexcept {
    constexpr std::uint64_t kOverhead = kPacketHeaderSize + kCriticalReserve;
    if (size < kOverhead) {
        return std::nullopt;
    }
    return size - kOverhead;
}

bool CriticalPayloadFits(std::uint64_t payload, std::uint64_t size) noexcept {
    if (size < kPacketHeaderSize || payload > size - kPacketHeaderSize) {
        return false;
    }
    const std::uint64_t left = size - kPacketHeaderSize - payload;
    return left == 0 || left >= kPacketHeaderSize;
}

}  // namespace qel
