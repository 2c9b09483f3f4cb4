#pragma once

// The counters of the control block: every change of avail and numPackets, and where it is clamped.
// In line, because each write and each read goes through several of them.

#include <algorithm>
#include <gsl/util>

#include "SharedBuffer.h"

namespace qel {

inline SharedBuffer::Counter& SharedBuffer::Avail(std::uint8_t node) const {
    return gsl::at(control_->avail, node);
}

inline bool SharedBuffer::DecreaseAvailableSize(std::uint64_t size, std::uint8_t node) {
    Counter& avail = Avail(node);
    // Only this node lowers the counter, so the subtraction cannot take more than was loaded.
    const std::uint64_t available = avail.load();
    if (available < size) {
        return ReserveTooMuch(avail, available, size);
    }
    avail.fetch_sub(size);
    return false;
}

inline bool SharedBuffer::IncreaseAvailableSize(std::uint64_t size, std::uint8_t node) {
    Counter& avail = Avail(node);
    // The add hands the bytes to `node`: it pairs with that node's load before it reads or writes.
    const std::uint64_t available = avail.load();
    if (ShmSize() - std::min(available, ShmSize()) < size) {
        return ReleaseTooMuch(avail, available, size);
    }
    avail.fetch_add(size);
    return false;
}

inline bool SharedBuffer::EnoughSpace(bool isCritical, const ByteSpan& header,
                                      const ByteSpan& payload) const {
    return LoadRoom().Holds(header.size() + payload.size(), Reserve(isCritical, header.size()));
}

inline bool SharedBuffer::MorePacketsAllowed(std::uint32_t count) const {
    return LoadRoom().AllowsPackets(count);
}

inline void SharedBuffer::IncrementPackets() {
    if (nodeIdx_ == 0 && control_->maxPackets != 0) {
        control_->numPackets.fetch_add(1);
    }
}

inline bool SharedBuffer::DecrementPackets(std::uint32_t count) {
    if (!sink_ || control_->maxPackets == 0) {
        return false;
    }
    // Only the sink lowers the count, so the subtraction cannot take more than was loaded.
    const std::uint32_t numPackets = control_->numPackets.load();
    if (numPackets < count) {
        return ReleaseTooManyPackets(numPackets, count);
    }
    control_->numPackets.fetch_sub(count);
    return false;
}

inline std::uint64_t SharedBuffer::WriteIndex() const {
    return gsl::at(control_->wIdx, nodeIdx_).load();  // nobody else stores it
}

inline bool SharedBuffer::Consume(std::uint64_t size) {
    const bool clamped = DecreaseAvailableSize(size, nodeIdx_);
    Advance(control_->rIdx, size);
    return clamped;
}

inline SharedBuffer::Room SharedBuffer::LoadRoom() const {
    const std::uint64_t available = Avail(nodeIdx_).load();
    const std::uint32_t maxPackets = control_->maxPackets;
    // Without a limit the count is not looked at: it lies beside the sink's index, in a line that
    // the sink's core would have to give up for every packet.
    return {available, maxPackets, maxPackets == 0 ? 0 : control_->numPackets.load()};
}

inline std::uint64_t SharedBuffer::Wrap(std::uint64_t index) const {
    if (index < ShmSize()) {
        return index;  // spares the division on all but a few calls
    }
    return ShmSize() == 0 ? 0 : index % ShmSize();
}

inline void SharedBuffer::Advance(Indices& indices, std::uint64_t size) {
    Counter& index = gsl::at(indices, nodeIdx_);  // nobody else stores it
    index.store(Wrap(index.load() + size));
}

}  // namespace qel
