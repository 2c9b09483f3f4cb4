#include "InOrderRelease.h"

namespace qel {
namespace {

std::uint64_t RoomOf(const Packet& packet) {
    return kPacketHeaderSize + packet.data.size();
}

}  // namespace

InOrderRelease::Ticket InOrderRelease::Add(const Packet& packet) {
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back({packet, false});
    bytes_ += RoomOf(packet);
    return oldest_ + entries_.size() - 1;
}

bool InOrderRelease::Finish(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ticket < oldest_ || ticket - oldest_ >= entries_.size()) {
        return false;
    }
    Entry& entry = entries_[ticket - oldest_];
    const bool first = !entry.finished;
    entry.finished = true;
    return first;
}

SMStatusCode InOrderRelease::ReleaseFinished() {
    SMStatusCode result = SMStatusCode::SUCCESS;
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!entries_.empty() && entries_.front().finished) {
        const SMStatusCode status = ring_.ReleasePacket(entries_.front().packet);
        if (result == SMStatusCode::SUCCESS) {
            result = status;
        }
        bytes_ -= RoomOf(entries_.front().packet);
        entries_.pop_front();
        ++oldest_;
    }
    return result;
}

InOrderRelease::Outstanding InOrderRelease::GetOutstanding() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {entries_.size(), bytes_};
}

}  // namespace qel
