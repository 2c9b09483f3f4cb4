#include "ControlQueue.h"

#include "EndOfStream.h"
#include "PayloadAlignment.h"

namespace qel {
namespace {

/// Many frames have no time stamp and the same size; their capture times tell them apart.
bool Belong(const ControlRecord& record, const Packet& packet) {
    const ControlHead& head = record.head;
    if (IsEndOfStream(packet)) {
        return head.kind == ControlKind::EndOfStream;
    }
    return head.kind == ControlKind::Frame && head.pts == packet.header.pts &&
           head.control.dataSize == packet.data.size() &&
           head.control.timeStamp == packet.header.timestampSec &&
           head.control.startTick == packet.header.timestampUsec;
}

}  // namespace

/// Reads one record and hands it on at once, so that the next node has it before the packet.
/// @return false if there is none, or if the counters let no end be expected
bool ControlQueue::Pull() {
    const ReadNextPacketResult read = ring_.ReadNextPacket();
    if (read.status != SMStatusCode::SUCCESS) {
        return false;
    }
    if (!read.packet.header.ignoreData) {
        if (auto record = ParseControlRecord(read.packet.data)) {
            records_.push_back(std::move(*record));
        }
    }
    return ring_.ReleasePacket(read.packet) == SMStatusCode::SUCCESS;
}

ControlQueue::Match ControlQueue::Take(const Packet& packet) {
    while (records_.size() > kMostRecords) {
        records_.pop_front();
    }
    std::size_t place = 0;
    while (place == records_.size() || !Belong(records_[place], packet)) {
        if (place < records_.size()) {
            ++place;
        } else if (!Pull()) {
            return {};
        }
    }
    Match match;
    match.details = records_[place].head;
    for (std::size_t i = 0; i < place; ++i) {
        if (!records_[i].IsOfPacket()) {
            match.events.push_back(std::move(records_[i]));
        }
    }
    const auto end = records_.begin() + static_cast<std::ptrdiff_t>(place) + 1;
    records_.erase(records_.begin(), end);
    return match;
}

std::optional<StreamState> ControlQueue::FindState(std::uint32_t serial) {
    while (Pull()) {
    }
    for (const ControlRecord& record : records_) {
        if (record.head.kind == ControlKind::State && record.head.serial == serial) {
            return StreamStateFromText(record.text);
        }
    }
    return std::nullopt;
}

bool ControlQueue::HasRecords() {
    while (records_.empty() && Pull()) {
    }
    return !records_.empty();
}

bool ControlQueue::IsInUse() {
    return HasRecords() || WriteIndexOf(ring_, 0) != 0;
}

void ControlQueue::PutBack(std::deque<ControlRecord> records) {
    for (ControlRecord& record : records_) {
        records.push_back(std::move(record));
    }
    records_ = std::move(records);
}

std::optional<ControlRecord> ControlQueue::TakeEvent() {
    if (!HasRecords() || records_.front().IsOfPacket()) {
        return std::nullopt;
    }
    ControlRecord event = std::move(records_.front());
    records_.pop_front();
    return event;
}

}  // namespace qel
