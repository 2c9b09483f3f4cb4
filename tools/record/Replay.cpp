#include "Replay.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "EndOfStream.h"

namespace qel {

RecordingSurvey Survey(PacketFileReader& reader, const std::function<bool(std::uint64_t)>& skip) {
    RecordingSurvey survey;
    while (const auto entry = reader.NextHead(skip)) {
        if (entry->kind == PacketFileKind::Packet) {
            ++survey.packets;
            const std::uint64_t length = entry->header.length;
            survey.largestPayload = std::max(survey.largestPayload, length);
        } else if (entry->kind == PacketFileKind::Overrun) {
            ++survey.overruns;
        }
    }
    survey.isTorn = reader.IsTorn();
    return survey;
}

Replay::Replay(Options options, Open open, std::function<bool()> stop)
    : options_(options), open_(std::move(open)), stop_(std::move(stop)) {}

/// False behind the last pass. A recording without packets has one pass only.
bool Replay::BeginPass() {
    if (pass_ != 0 && (packetsOfPass_ == 0 || pass_ == options_.loops)) {
        return false;
    }
    // As long behind the last packet as packets are apart.
    if (firstTime_ && packetsOfPass_ > 1) {
        const std::uint64_t length = lastTime_ - std::min(lastTime_, *firstTime_);
        const std::uint64_t apart = length / (packetsOfPass_ - 1);
        passBegun_ += Scaled(static_cast<double>(length) + static_cast<double>(apart));
    }
    ++pass_;
    packetsOfPass_ = 0;
    firstTime_.reset();
    hasEnded_ = false;
    reader_ = open_();
    return true;
}

std::optional<PacketFileReader::Entry> Replay::NextPacket() {
    while (!stop_()) {
        if (!reader_ && !BeginPass()) {
            return std::nullopt;
        }
        const auto entry = reader_->Next();
        if (!entry) {
            isTorn_ = isTorn_ || reader_->IsTorn();
            reader_.reset();
        } else if (entry->kind == PacketFileKind::Packet) {
            return entry;
        } else if (entry->kind == PacketFileKind::Overrun) {
            ++overruns_;
        } else {
            hasEnded_ = packetsOfPass_ != 0;
        }
    }
    return std::nullopt;
}

std::optional<Packet> Replay::Next() {
    auto entry = held_ ? std::exchange(held_, std::nullopt) : NextPacket();
    if (!entry) {
        return std::nullopt;
    }
    if (std::exchange(hasEnded_, false)) {
        held_ = entry;
        return MakeEndOfStream();
    }
    if (!options_.fast && !WaitFor(entry->time)) {
        return std::nullopt;
    }
    ++packetsOfPass_;
    lastTime_ = entry->time;
    Packet packet;
    packet.header = entry->header;
    packet.data = entry->payload;
    return packet;
}

/// How long `nanoseconds` of the recording take.
Replay::Clock::duration Replay::Scaled(double nanoseconds) const {
    constexpr double kCentury = 3e18;  // a forged time must not be more than a clock can count
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double, std::nano>(std::min(nanoseconds / options_.speed, kCentury)));
}

/// False if stopped.
bool Replay::WaitFor(std::uint64_t time) {
    constexpr std::chrono::milliseconds kLook{20};
    if (!firstTime_) {
        firstTime_ = time;
        if (pass_ == 1) {
            passBegun_ = Clock::now();
        }
    }
    const auto due = passBegun_ + Scaled(static_cast<double>(time - std::min(time, *firstTime_)));
    for (auto now = Clock::now(); now < due; now = Clock::now()) {
        if (stop_()) {
            return false;
        }
        std::this_thread::sleep_for(std::min<Clock::duration>(due - now, kLook));
    }
    return true;
}

}  // namespace qel
