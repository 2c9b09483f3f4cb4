#include "RingTap.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace qel {
namespace {

constexpr std::uint64_t kChunk = 1U << 20U;

void Fence() noexcept {
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

}  // namespace

RingTap::RingTap(RingFile ring, Start start)
    : ring_(std::move(ring)), start_(start), marks_(ring_.Size()), want_(kChunk) {
    TryBegin();
}

std::optional<std::uint64_t> RingTap::WriteIndex() const noexcept {
    const std::uint64_t index = ring_.Fields().wIdx[0];
    return index < ring_.Size() ? std::optional(index) : std::nullopt;
}

TapResult RingTap::TryNext() {
    // Without an end to this, a ring that is forged anew all the time could hold it up.
    constexpr int kMostLooks = 16;
    for (int looks = 0; looks < kMostLooks;) {
        if (auto result = Parse()) {
            return *result;
        }
        ++looks;
        TryBegin();
        switch (begun_ ? LookAgain() : Look::Nothing) {
            case Look::Data:
                break;
            case Look::Nothing:
                return {};
            case Look::Overrun:
                return {TapOutcome::Overrun, {}, {}};
        }
    }
    return {};
}

/// Takes the next record from what has been copied; nothing if there is none in full.
std::optional<TapResult> RingTap::Parse() {
    while (copied_ - parsed_ >= kPacketHeaderSize) {
        unsigned char* const record = bytes_.data() + parsed_;
        const PacketHeader header = HeaderOf(record);
        const auto end = EndOf(header, position_, ring_.Size());
        if (end && *end > limit_ && limit_ - position_ == kPacketHeaderSize) {
            break;  // the index has passed the header alone
        }
        if (!end || *end > limit_) {
            return Damaged();
        }
        const std::uint64_t size = *end - position_;
        if (size > copied_ - parsed_ && !header.ignoreData) {
            if (!HasMemoryFor(size)) {
                return Damaged();
            }
            want_ = std::max(size, kChunk);
            break;
        }
        marks_.Note(position_, record, size);
        parsed_ = std::min(parsed_ + size, copied_);
        position_ = *end;
        bytesPassed_ += size;
        if (!header.ignoreData) {
            return TapResult{
                TapOutcome::Packet, header, {record + kPacketHeaderSize, header.length}};
        }
    }
    const bool isTooShort = parsed_ < copied_ && limit_ - position_ < kPacketHeaderSize;
    copied_ = parsed_ = 0;
    return isTooShort ? std::optional(Damaged()) : std::nullopt;
}

/// A record that was written has memory, however large the object says that it is.
bool RingTap::HasMemoryFor(std::uint64_t size) const {
    constexpr std::uint64_t kBlock = 512;
    return size / kBlock <= static_cast<std::uint64_t>(ring_.StatusNow().st_blocks);
}

/// No writer leaves the ring so: goes on where the writer is.
TapResult RingTap::Damaged() {
    copied_ = parsed_ = 0;
    begun_ = false;
    start_ = Start::Now;
    return {TapOutcome::Overrun, {}, {}};
}

RingTap::Look RingTap::LookAgain() {
    const auto index = WriteIndex();
    Fence();
    const auto now = LapStamp::Take(ring_, marks_.By());
    if (!index || !now) {
        return Look::Nothing;
    }
    if (missed_ || lapDone_) {
        return FindNextLap(*now);
    }
    const bool isSameLap = stamp_.Matches(*now);
    if (isSameLap && *index >= position_ && *index != 0) {  // 0: behind a lap to the very end
        return CopyLap(*index);
    }
    if (position_ == ring_.Size()) {
        lapDone_ = true;
        return FindNextLap(*now);
    }
    // The index has gone back, and the next lap has perhaps written fillers, but no more.
    const bool isComplete = isSameLap && *index <= stamp_.ContentAt();
    return isComplete ? CopyLap(ring_.Size()) : CopyRestOfLap();
}

/// Copies what the present lap has up to `limit`.
RingTap::Look RingTap::CopyLap(std::uint64_t limit) {
    if (limit == position_ || !Copy(limit)) {
        return Look::Nothing;
    }
    const auto after = LapStamp::Take(ring_, marks_.By());
    // Of the first packets it is not known yet whether they share their times.
    const bool isFirst = position_ == 0;
    if (!after || !(isFirst ? stamp_.MatchesWholly(*after) : stamp_.Matches(*after))) {
        copied_ = 0;
        lapDone_ = lapDone_ || isFirst;  // nothing of the lap was delivered: to be found anew
    }
    return Look::Data;  // perhaps nothing of it, but then it is worth another look
}

/// Copies the rest of the present lap while the writer is in the next one.
RingTap::Look RingTap::CopyRestOfLap() {
    if (!Copy(ring_.Size())) {
        return Look::Nothing;
    }
    const auto index = WriteIndex();
    Fence();
    const auto written = EndOfWriting();
    if (!index || !written || *written > position_ || position_ == 0 ||
        !marks_.LastStands(ring_, *index, position_ - 1)) {
        copied_ = 0;
        return Missed();
    }
    return Look::Data;
}

/// Where the record ends that is or may be under way at the end of what was copied; nothing if the
/// writer is in yet another lap.
std::optional<std::uint64_t> RingTap::EndOfWriting() const noexcept {
    const auto before = WriteIndex();
    if (!before) {
        return std::nullopt;
    }
    const auto header = ring_.HeaderAt(*before);
    Fence();
    const auto after = WriteIndex();
    if (!after || *after < *before) {
        return std::nullopt;
    }
    if (*after > *before || !header) {
        return after;
    }
    // Of what no writer can have put there no payload has been written.
    return EndOf(*header, *before, ring_.Size()).value_or(*before);
}

RingTap::Look RingTap::Missed() {
    missed_ = true;
    lapDone_ = true;
    return Look::Overrun;
}

/// Goes on at the start of the lap that the writer is in, once there is a packet.
RingTap::Look RingTap::FindNextLap(const LapStamp& now) {
    Fence();
    const auto index = WriteIndex();
    Fence();
    const auto after = LapStamp::Take(ring_, marks_.By());
    if (!index || !after) {
        return Look::Nothing;
    }
    if (!now.Matches(*after)) {
        return Look::Data;  // none, but it is worth another look
    }
    if (*index < now.ContentEnd()) {
        const bool isUnseen = !missed_ && !stamp_.Matches(now) &&
                              marks_.LastHasGone(ring_, now.ContentEnd(), ring_.Size());
        return isUnseen ? Missed() : Look::Nothing;
    }
    if (!missed_ && !NoLapWentBy(now)) {
        return Missed();
    }
    stamp_ = *after;  // `now` may have been taken ahead of the payload
    position_ = 0;
    lapDone_ = false;
    missed_ = false;
    marks_.BeginLap();
    return LookAgain();
}

/// True if a mark shows that the lap of `now` is the one behind the lap that was read.
bool RingTap::NoLapWentBy(const LapStamp& now) const {
    // The filler began less than a header ahead of that, and a mark ahead of it is gone wholly.
    const std::uint64_t aheadOfFiller = now.FirstRecord() + 2 * kPacketHeaderSize;
    const auto index = WriteIndex();
    Fence();
    const auto written = EndOfWriting();
    if (!index || !written || aheadOfFiller > ring_.Size()) {
        return false;
    }
    const std::uint64_t last = ring_.Size() - aheadOfFiller;
    const std::uint64_t ofLargeRoom = std::min(last, ring_.Size() / 4 * 3);
    // Where a record is under way a mark may still stand; it is asked if there is no other.
    return marks_.HasReadOne(*written, ofLargeRoom)
               ? marks_.LastStands(ring_, *written, ofLargeRoom)
               : marks_.LastStands(ring_, *index, last);
}

bool RingTap::Copy(std::uint64_t limit) {
    const std::uint64_t size = std::min(limit - position_, want_);
    if (bytes_.size() < size) {
        bytes_.resize(size);
    }
    parsed_ = 0;
    copied_ = ring_.Read(position_, bytes_.data(), size) ? size : 0;
    limit_ = limit;
    want_ = kChunk;
    marks_.LookAhead(bytes_.data(), copied_);
    if (marks_.By() == ToldBy::Payload) {
        stamp_.TellByPayload();
    }
    Fence();
    return copied_ != 0;
}

}  // namespace qel
