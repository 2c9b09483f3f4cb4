#include "RingRecords.h"

#include <algorithm>
#include <optional>

namespace qel {
namespace {

/// More than this many are not worth the time that a forged ring of empty packets would take.
constexpr std::uint64_t kMostRecords = 2'000'000;

std::vector<unsigned char> PayloadOf(const RingFile& ring, std::uint64_t offset,
                                     std::uint64_t size) {
    std::vector<unsigned char> payload(size);
    if (!ring.Read(offset, payload.data(), size)) {
        payload.clear();
    }
    return payload;
}

}  // namespace

RecordWalk WalkRecords(const RingFile& ring, std::uint64_t offset, std::uint64_t bytes,
                       const WalkLimits& limits) {
    RecordWalk walk;
    walk.rest = bytes;
    while (walk.rest > 0) {
        if (walk.count == kMostRecords) {
            walk.isCut = true;
            break;
        }
        const std::optional<PacketHeader> header = ring.HeaderAt(offset);
        const std::uint64_t room =
            header ? std::min(walk.rest, ring.Size() - offset) : kPacketHeaderSize;
        if (!header || room < kPacketHeaderSize || header->length > room - kPacketHeaderSize) {
            break;
        }
        if (walk.count < limits.records) {
            const std::uint64_t shown = std::min(header->length, limits.payloadBytes);
            walk.records.push_back(
                {offset, *header, PayloadOf(ring, offset + kPacketHeaderSize, shown)});
        }
        ++walk.count;
        walk.fillers += header->ignoreData ? 1 : 0;
        walk.rest -= kPacketHeaderSize + header->length;
        offset = (offset + kPacketHeaderSize + header->length) % ring.Size();
    }
    return walk;
}

}  // namespace qel
