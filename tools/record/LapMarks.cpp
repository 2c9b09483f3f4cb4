#include "LapMarks.h"

#include <algorithm>
#include <cstring>
#include <gsl/util>

namespace qel {
namespace {

bool HasTime(const PacketHeader& header) noexcept {
    return (header.pts != 0 && header.pts != -1) || header.timestampSec != 0 ||
           header.timestampUsec != 0;
}

bool ShareTimes(const PacketHeader& left, const PacketHeader& right) noexcept {
    return left.pts == right.pts && left.timestampSec == right.timestampSec &&
           left.timestampUsec == right.timestampUsec;
}

}  // namespace

PacketHeader HeaderOf(const unsigned char* bytes) noexcept {
    std::array<unsigned char, kPacketHeaderSize> copy{};
    std::memcpy(copy.data(), bytes, copy.size());
    for (const std::size_t flag :
         {offsetof(PacketHeader, ignoreData), offsetof(PacketHeader, key)}) {
        copy.at(flag) = copy.at(flag) != 0 ? 1 : 0;
    }
    PacketHeader header;
    std::memcpy(&header, copy.data(), copy.size());
    return header;
}

std::optional<std::uint64_t> EndOf(const PacketHeader& header, std::uint64_t offset,
                                   std::uint64_t size) noexcept {
    if (offset > size || size - offset < kPacketHeaderSize ||
        header.length > size - offset - kPacketHeaderSize) {
        return std::nullopt;
    }
    const std::uint64_t end = offset + kPacketHeaderSize + header.length;
    const bool leavesRoom = end == size || size - end >= kPacketHeaderSize;
    return leavesRoom ? std::optional(end) : std::nullopt;
}

std::size_t TellingBytes(const PacketHeader& header, ToldBy by) noexcept {
    const bool tells = by == ToldBy::Header && HasTime(header);
    constexpr std::uint64_t kMostPayload = kMostTellingBytes - kPacketHeaderSize;
    const std::uint64_t length = header.length;
    return kPacketHeaderSize + (tells ? 0 : std::min(length, kMostPayload));
}

std::optional<LapStamp> LapStamp::Take(const RingFile& ring, ToldBy by) noexcept {
    LapStamp stamp;
    const std::size_t available = std::min<std::uint64_t>(kSize, ring.Size());
    if (available < kPacketHeaderSize || !ring.Read(0, stamp.bytes_.data(), available)) {
        return std::nullopt;
    }
    PacketHeader header = HeaderOf(stamp.bytes_.data());
    stamp.firstRecord_ = EndOf(header, 0, ring.Size()).value_or(ring.Size());
    std::uint64_t at = 0;
    for (auto end = EndOf(header, 0, ring.Size());
         header.ignoreData && end && *end + kPacketHeaderSize <= available;
         end = EndOf(header, at, ring.Size())) {
        at = *end;
        header = HeaderOf(&gsl::at(stamp.bytes_, static_cast<gsl::index>(at)));
    }
    stamp.contentAt_ = at;
    stamp.contentEnd_ = EndOf(header, at, ring.Size()).value_or(ring.Size());
    stamp.available_ = available;
    stamp.used_ = std::min<std::uint64_t>(at + TellingBytes(header, by), available);
    return stamp;
}

void LapStamp::TellByPayload() noexcept {
    if (used_ != 0 && contentAt_ + kPacketHeaderSize <= available_) {
        const PacketHeader header = HeaderOf(&gsl::at(bytes_, static_cast<gsl::index>(contentAt_)));
        used_ =
            std::min<std::uint64_t>(contentAt_ + TellingBytes(header, ToldBy::Payload), available_);
    }
}

bool LapStamp::MatchesWholly(const LapStamp& now) const noexcept {
    LapStamp whole = *this;
    whole.TellByPayload();
    return whole.Matches(now);
}

bool LapStamp::Matches(const LapStamp& now) const noexcept {
    return used_ != 0 && std::memcmp(bytes_.data(), now.bytes_.data(), used_) == 0;
}

void LapMarks::TakeAll(const RingFile& ring) noexcept {
    for (std::size_t slice = 0; slice < kSlices; ++slice) {
        Mark& mark = gsl::at(marks_, static_cast<gsl::index>(slice));
        mark.lap = kAtBegin;
        mark.offset = slice * slice_;
        const bool isThere = mark.offset < ring.Size() &&
                             ring.Size() - mark.offset >= kMostTellingBytes &&
                             ring.Read(mark.offset, mark.bytes.data(), mark.bytes.size());
        mark.length = isThere ? mark.bytes.size() : 0;
    }
}

void LapMarks::Note(std::uint64_t offset, const unsigned char* record,
                    std::uint64_t size) noexcept {
    const std::uint64_t first = offset / slice_;
    for (std::uint64_t slice = first; slice <= (offset + size - 1) / slice_; ++slice) {
        Mark& mark = gsl::at(marks_, static_cast<gsl::index>(slice));
        if (mark.lap != lap_) {
            mark.length = 0;
            mark.lap = lap_;
        }
    }
    const PacketHeader header = HeaderOf(record);
    if (!header.ignoreData) {
        if (last_ && ShareTimes(*last_, header)) {
            by_ = ToldBy::Payload;
        }
        last_ = header;
    }
    Mark& mark = gsl::at(marks_, static_cast<gsl::index>(first));
    if (mark.length == 0 && !header.ignoreData) {
        mark.offset = offset;
        mark.length = TellingBytes(header, ToldBy::Payload);
        std::memcpy(mark.bytes.data(), record, mark.length);
    }
}

void LapMarks::LookAhead(const unsigned char* records, std::uint64_t size) noexcept {
    std::optional<PacketHeader> last = last_;
    std::uint64_t place = 0;
    while (by_ == ToldBy::Header && size - place >= kPacketHeaderSize) {
        const PacketHeader header = HeaderOf(records + place);
        if (!header.ignoreData) {
            if (last && ShareTimes(*last, header)) {
                by_ = ToldBy::Payload;
            }
            last = header;
        }
        const std::uint64_t length = header.length;
        place += kPacketHeaderSize + std::min(length, size - place - kPacketHeaderSize);
    }
}

bool LapMarks::Stands(const RingFile& ring, const Mark& mark) const noexcept {
    std::array<unsigned char, kMostTellingBytes> now{};
    const std::size_t telling =
        mark.lap == kAtBegin ? mark.length : TellingBytes(HeaderOf(mark.bytes.data()), by_);
    return ring.Read(mark.offset, now.data(), telling) &&
           std::memcmp(now.data(), mark.bytes.data(), telling) == 0;
}

const LapMarks::Mark* LapMarks::Last(std::uint64_t from, std::uint64_t to) const noexcept {
    const auto isWithin = [&](const Mark& mark) {
        return mark.length != 0 && mark.offset >= from && mark.offset <= to;
    };
    const auto last = std::find_if(marks_.rbegin(), marks_.rend(), isWithin);
    return last == marks_.rend() ? nullptr : &*last;
}

bool LapMarks::LastStands(const RingFile& ring, std::uint64_t from,
                          std::uint64_t to) const noexcept {
    const Mark* const mark = Last(from, to);
    if (mark == nullptr || !Stands(ring, *mark)) {
        return false;
    }
    return mark->lap != kAtBegin || ManyOfBeginStand(ring, from, to);
}

bool LapMarks::ManyOfBeginStand(const RingFile& ring, std::uint64_t from,
                                std::uint64_t to) const noexcept {
    constexpr int kMany = kSlices / 4;  // more than padding covers
    int missing = kMany;
    for (auto mark = marks_.rbegin(); mark != marks_.rend() && missing > 0; ++mark) {
        if (mark->lap == kAtBegin && mark->length != 0 && mark->offset >= from &&
            mark->offset <= to) {
            if (!Stands(ring, *mark)) {
                return false;
            }
            --missing;
        }
    }
    return missing == 0;
}

bool LapMarks::HasReadOne(std::uint64_t from, std::uint64_t to) const noexcept {
    const Mark* const mark = Last(from, to);
    return mark != nullptr && mark->lap != kAtBegin;
}

bool LapMarks::LastHasGone(const RingFile& ring, std::uint64_t from,
                           std::uint64_t to) const noexcept {
    const Mark* const mark = Last(from, to);
    return mark != nullptr && !Stands(ring, *mark);
}

}  // namespace qel
