#include "RecordCounter.h"

#include <algorithm>
#include <gsl/util>
#include <utility>

namespace qel {
namespace {

constexpr double kMemory = 0.98;  // of the mean, per record

}  // namespace

RecordCounter::RecordCounter(std::uint64_t size, HeaderSource headerAt)
    : size_(size), headerAt_(std::move(headerAt)) {}

double RecordCounter::MeanLength() const noexcept {
    return meanCount_ > 0 ? meanBytes_ / meanCount_ : 0;
}

std::uint64_t RecordCounter::LongestRecord() const noexcept {
    return *std::max_element(lengths_.begin(), lengths_.end());
}

void RecordCounter::Begin(const RingFields& fields, const RingFlow& flow) {
    // In the middle of a write the index is not where the bytes are that were handed on.
    const bool isBehind = flow.writerAhead > size_ / 2;
    const std::uint64_t handedOn = 2 * size_ + (fields.rIdx[1] + fields.avail[1]) % size_;
    places_[0] = isBehind ? handedOn - (size_ - flow.writerAhead) : handedOn + flow.writerAhead;
    std::uint64_t behind = 0;
    for (unsigned node = 1; node < kMaxNodes; ++node) {
        if (node <= flow.sink) {
            behind += gsl::at(flow.waiting, node);
            gsl::at(places_, node) = handedOn - std::min(behind, 2 * size_);
            behind += gsl::at(flow.held, node);
        } else {
            gsl::at(places_, node) =
                places_[0] - Distance(gsl::at(fields.rIdx, node), fields.wIdx[0], size_);
        }
    }
    walked_ = std::min(gsl::at(places_, flow.sink), places_[0]);
    reckonedTo_ = 0;
    marks_.assign(1, {walked_, count_});
    hasBegun_ = true;
    Walk();
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        const bool wasExact = isExact_;
        gsl::at(countAt_, node) = CountAt(gsl::at(places_, node));
        isExact_ = node <= flow.sink ? isExact_ : wasExact;
    }
}

void RecordCounter::Go(const Moves& moves, unsigned sink, double seconds) {
    headersLeft_ = std::min(headersLeft_ + seconds * kMostHeaders, kMostHeaders);
    if (!hasBegun_) {
        GoBlindly(moves);
        return;
    }
    for (unsigned node = 0; node < kMaxNodes; ++node) {
        gsl::at(places_, node) += gsl::at(moves, node);
    }
    // A node whose index stood still because nothing had reached it is not rounds behind.
    for (unsigned node = 1; node <= sink; ++node) {
        std::uint64_t& place = gsl::at(places_, node);
        place += place + size_ < places_[0] ? (places_[0] - place - 1) / size_ * size_ : 0;
    }
    Walk();
    for (unsigned node = 0; node <= sink; ++node) {
        Count(node);
    }
    Forget(sink);
}

/// Without the nodes' places.
void RecordCounter::GoBlindly(const Moves& moves) {
    isExact_ = false;
    for (unsigned node = 0; node < kMaxNodes && meanCount_ > 0; ++node) {
        gsl::at(passed_, node) += static_cast<double>(gsl::at(moves, node)) / MeanLength();
    }
}

void RecordCounter::Count(unsigned node) {
    const std::uint64_t place = gsl::at(places_, node);
    const double count = CountAt(place);
    gsl::at(passed_, node) += count - gsl::at(countAt_, node);
    gsl::at(countAt_, node) = count;
    isExact_ = isExact_ && place >= reckonedTo_;
}

RecordCounter::Counts RecordCounter::Take() {
    isExact_ = true;
    return std::exchange(passed_, {});
}

/// From where it came to, up to the writer's place.
void RecordCounter::Walk() {
    while (walked_ < places_[0]) {
        if (headersLeft_ < 1) {
            Reckon();
            return;
        }
        headersLeft_ -= 1;
        if (!StepOver()) {
            return;
        }
    }
}

/// @return false if it cannot go on
bool RecordCounter::StepOver() {
    const auto header = headerAt_(walked_ % size_);
    const std::uint64_t room = places_[0] - walked_;
    if (header && room == kPacketHeaderSize && header->length != 0) {
        return false;  // of a filler or a packet in place the writer has passed the header alone
    }
    if (!header || room < kPacketHeaderSize || header->length > room - kPacketHeaderSize) {
        Reckon();
        return false;
    }
    const std::uint64_t length = kPacketHeaderSize + header->length;
    Remember(length, header->ignoreData);
    walked_ += length;
    Put(walked_);
    return true;
}

/// Takes the rest of the way for records of the mean length.
void RecordCounter::Reckon() {
    const double mean = MeanLength();
    if (mean > 0) {
        count_ += static_cast<double>(places_[0] - walked_) / mean;
    }
    walked_ = reckonedTo_ = places_[0];
    isExact_ = false;
    Put(walked_);
}

void RecordCounter::Remember(std::uint64_t length, bool isFiller) {
    meanBytes_ = meanBytes_ * kMemory + static_cast<double>(length);
    meanCount_ *= kMemory;
    if (!isFiller) {
        meanCount_ += 1;
        count_ += 1;
        gsl::at(lengths_, static_cast<gsl::index>(nextLength_)) = length;
        nextLength_ = (nextLength_ + 1) % lengths_.size();
    }
}

void RecordCounter::Put(std::uint64_t place) {
    marks_.push_back({place, count_});
    if (marks_.size() > kMostMarks) {
        marks_.pop_front();
        reckonedTo_ = std::max(reckonedTo_, marks_.front().place);
    }
}

double RecordCounter::CountAt(std::uint64_t place) {
    const auto after =
        std::upper_bound(marks_.begin(), marks_.end(), place,
                         [](std::uint64_t value, const Mark& mark) { return value < mark.place; });
    if (after == marks_.begin()) {
        isExact_ = isExact_ && place == after->place;
        const double mean = MeanLength();
        return after->count - (mean > 0 ? static_cast<double>(after->place - place) / mean : 0);
    }
    const Mark& before = *(after - 1);
    if (after == marks_.end() || before.place == place) {
        return before.count;
    }
    isExact_ = false;  // no record ends here
    const double share = static_cast<double>(place - before.place) /
                         static_cast<double>(after->place - before.place);
    return before.count + share * (after->count - before.count);
}

/// Marks that no node is going to pass any more.
void RecordCounter::Forget(unsigned sink) {
    std::uint64_t last = places_[0];
    for (unsigned node = 1; node < kMaxNodes; ++node) {
        const std::uint64_t place = gsl::at(places_, node);
        last = std::min(last, node <= sink ? place : std::max(place, places_[0] - size_));
    }
    while (marks_.size() > 1 && marks_[1].place <= last) {
        marks_.pop_front();
    }
}

}  // namespace qel
