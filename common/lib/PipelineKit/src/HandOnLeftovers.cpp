#include "HandOnLeftovers.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <gsl/util>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "RingInfo.h"
#include "ShmFile.h"

namespace qel {
namespace {

/// The control block of a ring, to be looked at only.
class ControlView {
public:
    explicit ControlView(const SharedBufferIF::BufferInfo& info) {
        const ShmFile object(info.shmName, O_RDONLY);
        if (!object.IsOpen()) {
            object.Fail("open", errno);
        }
        const auto length = static_cast<std::uint64_t>(object.Stat().st_size);
        if (length != info.shmSize + sizeof(ControlBlock)) {
            throw std::invalid_argument("ring " + info.shmName + " does not have the size " +
                                        std::to_string(info.shmSize));
        }
        start_ = mmap(nullptr, sizeof(ControlBlock), PROT_READ, MAP_SHARED, object.Fd(), 0);
        if (start_ == MAP_FAILED) {
            object.Fail("map", errno);
        }
    }
    ~ControlView() { (void)munmap(start_, sizeof(ControlBlock)); }
    ControlView(const ControlView&) = delete;
    ControlView& operator=(const ControlView&) = delete;

    [[nodiscard]] const ControlBlock& Get() const {
        return *static_cast<const ControlBlock*>(start_);
    }

private:
    void* start_;
};

/// A record in the data area, header included.
struct Record {
    std::uint64_t start;
    std::uint64_t length;
};

/// What a node has read and not released, as its neighbour's counters tell.
struct Gap {
    std::uint64_t neighbour;  ///< where the neighbour works next
    std::uint64_t waiting;    ///< bytes from there on that are the neighbour's
    std::uint64_t start;      ///< where these end and what is left behind begins
    std::uint64_t length;     ///< from there up to where the node reads next
};

/// Measures what a node has left behind. That cannot change meanwhile, since nobody else is this
/// node, but the neighbour may be at work.
///
/// Invariants:
///  1. The neighbour's own bytes reach from its index, at which the next node reads or the writer
///     writes, up to where this node has released. So the index and the counter of these bytes add
///     up to that place whenever the neighbour is between two operations.
///  2. It lowers the counter by a record's length before it moves the index on by as much. In
///     between the place comes out too low by the record: too much seems left, never too little.
///     The exceptions are a filler and a packet made in place: ahead of these the writer moves its
///     index on by the header.
///  3. Only this node raises the counter. So a look at the counter between two equal looks at the
///     index belongs to that index.
///
/// Hence a length counts only when two looks, some time apart, agree on it, which rules the
/// exception out; and of those that count the least is right.
class Measurement {
public:
    Measurement(const ControlBlock& control, const SharedBufferIF::BufferInfo& info)
        : size_(info.shmSize),
          end_(gsl::at(control.rIdx, info.nodeIdx).load() % size_),
          index_(info.sink ? control.wIdx[0] : gsl::at(control.rIdx, info.nodeIdx + 1)),
          counter_(info.sink ? control.avail[0] : gsl::at(control.avail, info.nodeIdx + 1)) {}

    /// @return nothing if no two looks agree
    [[nodiscard]] std::optional<Gap> Take() const {
        constexpr int kLooks = 8;
        constexpr int kMostLooks = 1000;
        constexpr std::chrono::microseconds kPause(500);
        std::optional<Gap> least;
        std::optional<Gap> previous;
        for (int look = 0; look < kLooks || (!least && look < kMostLooks); ++look) {
            const std::optional<Gap> gap = Look();
            if (gap && previous && gap->length == previous->length &&
                (!least || gap->length < least->length)) {
                least = gap;
            }
            if (least && least->length == 0) {
                break;
            }
            previous = gap;
            std::this_thread::sleep_for(kPause);
        }
        return least;
    }

private:
    [[nodiscard]] std::optional<Gap> Look() const {
        const std::uint64_t index = index_.load();
        const std::uint64_t waiting = counter_.load();
        if (index_.load() != index) {
            return std::nullopt;
        }
        const std::uint64_t start = (index % size_ + waiting % size_) % size_;
        return Gap{index % size_, waiting, start, (end_ + size_ - start) % size_};
    }

    std::uint64_t size_;
    std::uint64_t end_;
    const std::atomic<std::uint64_t>& index_;
    const std::atomic<std::uint64_t>& counter_;
};

using Records = std::vector<Record>;

/// The records that take exactly `length` bytes from `start` on; nothing if there are none such.
std::optional<Records> Walk(SharedPacketBufferIF& ring, std::uint64_t size, std::uint64_t start,
                            std::uint64_t length) {
    Records records;
    while (length > 0) {
        const ReadResult header = ring.ReadData(start, kPacketHeaderSize);
        if (header.status != SMStatusCode::SUCCESS || header.data.size() < kPacketHeaderSize ||
            length < kPacketHeaderSize) {
            return std::nullopt;
        }
        std::uint64_t payload = 0;
        std::memcpy(&payload, header.data.data() + offsetof(PacketHeader, length), sizeof payload);
        // None runs past the end of the ring.
        const std::uint64_t most = std::min(length, size - start) - kPacketHeaderSize;
        if (payload > most) {
            return std::nullopt;
        }
        records.push_back({start, kPacketHeaderSize + payload});
        start = (start + records.back().length) % size;
        length -= records.back().length;
    }
    return records;
}

/// The records to be released for a next node that was killed in the middle of a read: its counter
/// has been lowered and its index has not been moved. The record that it was about to take is the
/// one at its index, counted by nobody any more. It belongs to what is left, and is released first
/// so that the counter always tells of whole records.
std::optional<Records> WalkWithRecordInTaking(SharedPacketBufferIF& ring, std::uint64_t size,
                                              const Gap& gap) {
    auto records = Walk(ring, size, gap.neighbour, gap.waiting + gap.length);
    if (!records) {
        return std::nullopt;
    }
    std::uint64_t counted = 0;
    auto record = records->begin() + 1;
    for (; record != records->end() && counted < gap.waiting; ++record) {
        counted += record->length;
    }
    if (counted != gap.waiting) {
        return std::nullopt;
    }
    records->erase(records->begin() + 1, record);
    return records;
}

}  // namespace

std::uint64_t HandOnLeftovers(SharedPacketBufferIF& ring, const SharedBufferIF::BufferInfo& info) {
    RequireRingInfo(info);
    if (info.nodeIdx == 0) {
        throw std::invalid_argument("node 0 writes and leaves nothing read behind");
    }
    const std::runtime_error damaged("ring " + info.shmName + ": what node " +
                                     std::to_string(info.nodeIdx) + " left behind is damaged");
    const ControlView control(info);
    const std::optional<Gap> gap = Measurement(control.Get(), info).Take();
    if (!gap || gap->waiting > info.shmSize - gap->length) {
        throw damaged;
    }
    std::optional<Records> records = Walk(ring, info.shmSize, gap->start, gap->length);
    if (!records && !info.sink) {
        records = WalkWithRecordInTaking(ring, info.shmSize, *gap);
    }
    if (!records) {
        throw damaged;
    }
    for (const Record& record : *records) {
        Packet packet;
        packet.data =
            ring.ReadData(record.start + kPacketHeaderSize, record.length - kPacketHeaderSize).data;
        (void)ring.ReleasePacket(packet);  // clamps at worst a count that was too low before
    }
    return records->size();
}

}  // namespace qel
