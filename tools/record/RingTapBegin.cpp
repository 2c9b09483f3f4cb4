// Where a tap begins.

#include <algorithm>
#include <array>
#include <atomic>

#include "RingFlow.h"
#include "RingTap.h"

namespace qel {

/// Finds its place, unless that is done.
void RingTap::TryBegin() {
    if (begun_) {
        return;
    }
    const auto stamp = LapStamp::Take(ring_, marks_.By());
    const auto index = WriteIndex();
    if (!stamp || !index || ring_.Fields().initialised == 0) {
        return;
    }
    std::optional<std::uint64_t> place = 0;
    if (*index < stamp->ContentEnd()) {
        marks_.TakeAll(ring_);
    } else {
        place = NoteLapUpTo(*index);
    }
    std::atomic_thread_fence(std::memory_order_seq_cst);
    const auto after = LapStamp::Take(ring_, marks_.By());
    if (!place || !after || !stamp->Matches(*after)) {
        return;
    }
    if (start_ != Start::Oldest || !BeginAtOldest(*index)) {
        BeginAt(*place, *after);
    }
    begun_ = true;
}

/// Marks of what stands ahead of the place where the tap begins, and that place; nothing if it
/// cannot be told at this moment.
std::optional<std::uint64_t> RingTap::NoteLapUpTo(std::uint64_t index) {
    constexpr int kMostRecords = 1 << 16;  // of rings with more, the first ones
    marks_.Clear();
    std::array<unsigned char, kMostTellingBytes> head{};
    std::uint64_t offset = 0;
    for (int record = 0; offset < index; ++record) {
        if (record == kMostRecords) {
            return PlaceAt(index);
        }
        const std::uint64_t length = std::min<std::uint64_t>(head.size(), ring_.Size() - offset);
        if (length < kPacketHeaderSize || !ring_.Read(offset, head.data(), length)) {
            return index;
        }
        const auto end = EndOf(HeaderOf(head.data()), offset, ring_.Size());
        if (!end || *end > index) {
            return end && index - offset == kPacketHeaderSize ? offset : index;
        }
        marks_.Note(offset, head.data(), *end - offset);
        offset = *end;
    }
    return index;
}

/// The same without a look at the records ahead of it.
std::optional<std::uint64_t> RingTap::PlaceAt(std::uint64_t index) const {
    const std::uint64_t before = index - kPacketHeaderSize;
    const auto header = ring_.HeaderAt(before);
    const auto end =
        header && header->length != 0 ? EndOf(*header, before, ring_.Size()) : std::nullopt;
    if (!end) {
        return index;
    }
    if (header->ignoreData && *end == ring_.Size()) {
        return before;
    }
    // Behind a header the index is for a moment only; what a payload ends with may look like one.
    const RingFields fields = ring_.Fields();
    const std::uint64_t handedOn = (fields.rIdx[1] + fields.avail[1]) % ring_.Size();
    const bool isAtRest = fields.wIdx[0] == index && handedOn == index;
    return isAtRest ? std::optional(index) : std::nullopt;
}

void RingTap::BeginAt(std::uint64_t place, const LapStamp& stamp) {
    stamp_ = stamp;
    if (marks_.By() == ToldBy::Payload) {
        stamp_.TellByPayload();
    }
    missed_ = false;
    lapDone_ = place < stamp.ContentEnd();
    position_ = lapDone_ || start_ == Start::Lap ? 0 : place;
}

/// Finds the oldest packet that the last node has not read, which is not overwritten before it
/// does.
bool RingTap::BeginAtOldest(std::uint64_t index) {
    const RingFields fields = ring_.Fields();
    const auto sink = LastNodeThatFits(fields, ring_.Size());
    if (!sink) {
        return false;
    }
    const std::uint64_t oldest = fields.rIdx.at(*sink);
    const bool isFull = fields.avail.at(*sink) == ring_.Size();
    if (oldest >= ring_.Size() || fields.wIdx[0] != index || (oldest == index && !isFull)) {
        return false;
    }
    const auto stamp = LapStamp::Take(ring_, marks_.By());
    if (!stamp) {
        return false;
    }
    const bool isOfLapBefore = oldest > index || isFull;
    stamp_ = isOfLapBefore ? LapStamp() : *stamp;
    position_ = oldest;
    lapDone_ = false;
    missed_ = false;
    marks_.TakeAll(ring_);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return ring_.Fields().rIdx.at(*sink) == oldest;
}

}  // namespace qel
