#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "ControlBlock.h"
#include "PacketHeader.h"

namespace qel::bench {

/// The rules of a ring of two nodes and nothing else: the loads, adds, subtracts, stores and copies
/// that a write, a read and a release of one record are made of, in their order, written out in
/// line. What the library costs more than this is its own.
class BareRing {
public:
    BareRing(ControlBlock& control, unsigned char* data, std::uint64_t size)
        : control_(control), data_(data), size_(size) {}

    bool Write(PacketHeader header, const unsigned char* payload, std::uint64_t length) {
        header.length = length;
        const std::uint64_t record = kPacketHeaderSize + length;
        const std::uint64_t available = control_.avail[0].load();
        const std::uint32_t limit = control_.maxPackets;
        if (available < 6 * kPacketHeaderSize + length ||
            (limit != 0 && limit < control_.numPackets.load() + 1)) {
            return false;
        }
        std::uint64_t start = control_.wIdx[0].load();
        if (start + record != size_ && start + record > size_ - kPacketHeaderSize) {
            Fill(size_ - start);
            start = 0;
        }
        std::memcpy(data_ + start, &header, kPacketHeaderSize);
        std::memcpy(data_ + start + kPacketHeaderSize, payload, length);
        HandOn(record);
        Advance(control_.wIdx[0], record);
        return true;
    }

    /// The payload, and its length; nothing if there is none.
    const unsigned char* Read(PacketHeader& header) {
        if (control_.avail[1].load() < kPacketHeaderSize) {
            return nullptr;
        }
        std::memcpy(&header, data_ + control_.rIdx[1].load(), kPacketHeaderSize);
        const std::uint64_t record = kPacketHeaderSize + header.length;
        if (control_.avail[1].load() < record) {
            return nullptr;
        }
        const unsigned char* const payload = data_ + control_.rIdx[1].load() + kPacketHeaderSize;
        if (control_.avail[1].load() >= record) {
            control_.avail[1].fetch_sub(record);
        }
        Advance(control_.rIdx[1], record);
        return payload;
    }

    void Release(std::uint64_t length) {
        const std::uint64_t record = kPacketHeaderSize + length;
        if (size_ - control_.avail[0].load() >= record) {
            control_.avail[0].fetch_add(record);
        }
    }

private:
    void Fill(std::uint64_t room) {
        PacketHeader filler;
        filler.length = room - kPacketHeaderSize;
        filler.ignoreData = true;
        std::memcpy(data_ + control_.wIdx[0].load(), &filler, kPacketHeaderSize);
        HandOn(room);
        Advance(control_.wIdx[0], room);
    }

    void HandOn(std::uint64_t record) {
        if (control_.avail[0].load() >= record) {
            control_.avail[0].fetch_sub(record);
        }
        if (size_ - control_.avail[1].load() >= record) {
            control_.avail[1].fetch_add(record);
        }
    }

    void Advance(std::atomic<std::uint64_t>& index, std::uint64_t bytes) const {
        const std::uint64_t next = index.load() + bytes;
        index.store(next < size_ ? next : next % size_);
    }

    ControlBlock& control_;
    unsigned char* data_;
    std::uint64_t size_;
};

}  // namespace qel::bench
