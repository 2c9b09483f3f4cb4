#include "InOrderRelease.h"

#include <utility>

namespace qel {
namespace {

std::uint64_t RoomOf(const Packet& packet) {
    return kPacketHeaderSize + packet.data.size();
}

}  // namespace

InOrderRelease::Ticket InOrderRelease::Add(const Packet& packet) {
    if (next_ - oldest_ == capacity_) {
        MakeRoom();
    }
    Entry& entry = EntryOf(next_);
    entry.packet = packet;
    entry.unfinished.store(next_, std::memory_order_relaxed);  // who finishes has it from us
    bytes_ += RoomOf(packet);
    ++next_;
    TellOutstanding();
    return next_ - 1;
}

void InOrderRelease::MakeRoom() {
    const std::size_t capacity = 2 * capacity_;
    auto entries = std::make_unique<Entry[]>(capacity);
    const std::lock_guard<std::mutex> lock(mutex_);  // nobody finishes in what is left behind
    for (Ticket ticket = oldest_; ticket != next_; ++ticket) {
        const Entry& from = EntryOf(ticket);
        Entry& to = entries[ticket & (capacity - 1)];
        to.packet = from.packet;
        // The pairing goes on in the new place: what was finished before is seen from here.
        to.unfinished.store(from.unfinished.load(std::memory_order_acquire),
                            std::memory_order_relaxed);
    }
    entries_ = std::move(entries);
    capacity_ = capacity;
}

bool InOrderRelease::Finish(Ticket ticket) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Ticket unfinished = ticket;
    return ticket != kNone &&
           EntryOf(ticket).unfinished.compare_exchange_strong(
               unfinished, kNone, std::memory_order_release, std::memory_order_relaxed);
}

SMStatusCode InOrderRelease::Release(Ticket ticket) {
    std::atomic<Ticket>& unfinished = EntryOf(ticket).unfinished;
    if (unfinished.load(std::memory_order_relaxed) == ticket) {
        unfinished.store(kNone, std::memory_order_release);
    }
    return ReleaseFinished();
}

SMStatusCode InOrderRelease::ReleaseFinished() {
    SMStatusCode result = SMStatusCode::SUCCESS;
    while (oldest_ != next_ &&
           EntryOf(oldest_).unfinished.load(std::memory_order_acquire) == kNone) {
        const Packet& packet = EntryOf(oldest_).packet;
        const SMStatusCode status = ring_.ReleasePacket(packet);
        if (result == SMStatusCode::SUCCESS) {
            result = status;
        }
        bytes_ -= RoomOf(packet);
        ++oldest_;
        TellOutstanding();
    }
    return result;
}

void InOrderRelease::TellOutstanding() noexcept {
    outstandingPackets_.store(next_ - oldest_, std::memory_order_relaxed);
    outstandingBytes_.store(bytes_, std::memory_order_relaxed);
}

InOrderRelease::Outstanding InOrderRelease::GetOutstanding() const noexcept {
    return {outstandingPackets_.load(std::memory_order_relaxed),
            outstandingBytes_.load(std::memory_order_relaxed)};
}

}  // namespace qel
