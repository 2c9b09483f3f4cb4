#include "RecordSource.h"

#include <algorithm>
#include <cstring>

namespace qel {
namespace {

constexpr std::uint64_t kChunk = 1U << 16U;
constexpr std::uint64_t kSmallRecord = 1U << 12U;

}  // namespace

bool RecordSource::ReadAhead(std::uint64_t offset) const {
    const std::uint64_t size = std::min(kChunk, Size() - offset);
    ahead_.resize(size);
    aheadStart_ = offset;
    if (!ring_.Read(offset, ahead_.data(), size)) {
        ahead_.clear();
        return false;
    }
    return true;
}

std::optional<PacketHeader> RecordSource::HeaderAt(std::uint64_t offset) const {
    if (offset > Size() || Size() - offset < kPacketHeaderSize) {
        return std::nullopt;
    }
    const auto isAhead = [&] {
        return offset >= aheadStart_ && offset - aheadStart_ + kPacketHeaderSize <= ahead_.size();
    };
    const bool isNear = offset > last_ && offset - last_ < kSmallRecord;
    last_ = offset;
    if (!isAhead() && !(isNear && ReadAhead(offset))) {
        return ring_.HeaderAt(offset);
    }
    return HeaderIn(ahead_.data() + (offset - aheadStart_));
}

std::uint64_t RecordSource::MostRecords() const {
    constexpr std::uint64_t kBlock = 512;
    const auto blocks = static_cast<std::uint64_t>(ring_.StatusNow().st_blocks);
    return blocks * kBlock / kPacketHeaderSize;
}

bool RecordSource::HasHeldNothing() const {
    std::vector<unsigned char> bytes(std::min(kChunk, Size()));
    for (std::uint64_t offset = ring_.NextMemory(0); offset < Size();
         offset = ring_.NextMemory(offset + bytes.size())) {
        bytes.resize(std::min<std::uint64_t>(bytes.size(), Size() - offset));
        if (!ring_.Read(offset, bytes.data(), bytes.size()) ||
            std::any_of(bytes.begin(), bytes.end(), [](auto byte) { return byte != 0; })) {
            return false;
        }
    }
    return true;
}

}  // namespace qel
