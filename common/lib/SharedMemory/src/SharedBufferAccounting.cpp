// The counters of the control block: every change of avail and numPackets, and its clamping.

#include <algorithm>
#include <gsl/util>
#include <string>

#include "SharedBuffer.h"

namespace qel {

using std::to_string;

bool SharedBuffer::DecreaseAvailableSize(std::uint64_t size, std::uint8_t node) {
    auto& avail = gsl::at(control_->avail, node);
    // Only this node lowers the counter, so the subtraction cannot take more than was loaded.
    const std::uint64_t available = avail.load();
    if (available >= size) {
        avail.fetch_sub(size);
        return false;
    }
    SetFirstError("DecreaseAvailableSize",
                  " Reserving too much [current available=" + to_string(available) +
                      "], reserving " + to_string(size));
    avail.fetch_sub(available);
    return true;
}

bool SharedBuffer::IncreaseAvailableSize(std::uint64_t size, std::uint8_t node) {
    auto& avail = gsl::at(control_->avail, node);
    // The add hands the bytes to `node`: it pairs with that node's load before it reads or writes.
    const std::uint64_t available = avail.load();
    const std::uint64_t room = ShmSize() - std::min(available, ShmSize());
    if (room >= size) {
        avail.fetch_add(size);
        return false;
    }
    SetFirstError("IncreaseAvailableSize", " Releasing too much [total=" + to_string(ShmSize()) +
                                               "][current available=" + to_string(available) +
                                               "], releasing " + to_string(size));
    avail.fetch_add(room);
    return true;
}

bool SharedBuffer::EnoughSpace(bool isCritical, const ByteSpan& header,
                               const ByteSpan& payload) const {
    return LoadRoom().Holds(header.size() + payload.size(), Reserve(isCritical, header.size()));
}

bool SharedBuffer::MorePacketsAllowed(std::uint32_t count) const {
    return LoadRoom().AllowsPackets(count);
}

void SharedBuffer::IncrementPackets() {
    if (nodeIdx_ == 0 && control_->maxPackets != 0) {
        control_->numPackets.fetch_add(1);
    }
}

bool SharedBuffer::DecrementPackets(std::uint32_t count) {
    if (!sink_ || control_->maxPackets == 0) {
        return false;
    }
    // Only the sink lowers the count, so the subtraction cannot take more than was loaded.
    const std::uint32_t numPackets = control_->numPackets.load();
    if (numPackets < count) {
        SetFirstError("DecrementPackets", " Releasing too many packets " + to_string(count) +
                                              ", numPackets " + to_string(numPackets));
        control_->numPackets.store(0);
        return true;
    }
    control_->numPackets.fetch_sub(count);
    return false;
}

bool SharedBuffer::Consume(std::uint64_t size) {
    const bool clamped = DecreaseAvailableSize(size, nodeIdx_);
    Advance(control_->rIdx, size);
    return clamped;
}

SharedBuffer::Room SharedBuffer::LoadRoom() const {
    return {gsl::at(control_->avail, nodeIdx_).load(), control_->maxPackets,
            control_->numPackets.load()};
}

std::uint64_t SharedBuffer::Wrap(std::uint64_t index) const {
    if (index < ShmSize()) {
        return index;  // spares the division on all but a few calls
    }
    return ShmSize() == 0 ? 0 : index % ShmSize();
}

void SharedBuffer::Advance(Indices& indices, std::uint64_t size) {
    auto& index = gsl::at(indices, nodeIdx_);  // nobody else stores it
    index.store(Wrap(index.load() + size));
}

void SharedBuffer::SetError(const char* operation, const std::string& text) {
    errorString_ = std::string(operation) + " " + shmName_ + text;
}

void SharedBuffer::SetFirstError(const char* operation, const std::string& text) {
    if (errorString_.empty()) {
        SetError(operation, text);
    }
}

}  // namespace qel
