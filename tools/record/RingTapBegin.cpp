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
    auto stamp = LapStamp::Take(ring_, marks_.By());
    const auto index = WriteIndex();
    if (!stamp || !index || ring_.Fields().initialised == 0) {
        return;
    }
    std::uint64_t place = 0;
    if (*index < stamp->ContentEnd()) {
        marks_.TakeAll(ring_);
    } else {
        place = NoteLapUpTo(*index);
    }
    if (marks_.By() == ToldBy::Payload) {
        stamp->TellByPayload();
    }
    std::atomic_thread_fence(std::memory_order_seq_cst);
    const auto after = LapStamp::Take(ring_, marks_.By());
    if (!after || !stamp->Matches(*after)) {
        return;
    }
    if (start_ != Start::Oldest || !BeginAtOldest(*index)) {
        BeginAt(place, *after);
    }
    begun_ = true;
}

/// Marks of what stands ahead of the place where the tap begins, and that place.
std::uint64_t RingTap::NoteLapUpTo(std::uint64_t index) {
    constexpr int kMostRecords = 1 << 24;  // a forged ring may have more than there is time for
    marks_.Clear();
    std::array<unsigned char, 4096> window{};
    std::uint64_t windowAt = 0;
    std::uint64_t windowEnd = 0;
    std::uint64_t offset = 0;
    for (int record = 0; record < kMostRecords && offset < index; ++record) {
        if (windowEnd < offset + kMostTellingBytes) {
            const std::uint64_t length =
                std::min<std::uint64_t>(window.size(), ring_.Size() - offset);
            if (length < kPacketHeaderSize || !ring_.Read(offset, window.data(), length)) {
                return index;
            }
            windowAt = offset;
            windowEnd = offset + length;
        }
        const unsigned char* const head =
            &gsl::at(window, static_cast<gsl::index>(offset - windowAt));
        const auto end = EndOf(HeaderOf(head), offset, ring_.Size());
        if (!end || *end > index) {
            return end && index - offset == kPacketHeaderSize ? offset : index;
        }
        marks_.Note(offset, head, *end - offset);
        offset = *end;
    }
    return index;
}

void RingTap::BeginAt(std::uint64_t place, const LapStamp& stamp) {
    stamp_ = stamp;
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
