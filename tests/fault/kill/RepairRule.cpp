#include "RepairRule.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <gsl/util>

#include "PacketHeader.h"

namespace qel::test {
namespace {

using Found = EndOfRecords::Found;

bool RecordsFill(const RingView& ring, std::uint64_t start, std::uint64_t length) {
    return CountRecords(ring, start, length).has_value();
}

bool IsFillerToTheEnd(const RingView& ring, std::uint64_t offset) {
    const auto record = RecordAt(ring, offset);
    return record && record->isFiller && offset + record->length == ring.size;
}

/// Bytes of each node's stretch of the ring; [0] is the free part.
std::optional<std::array<std::uint64_t, kMaxNodes>> Stretches(const RingView& ring,
                                                              std::uint64_t end) {
    std::array<std::uint64_t, kMaxNodes> stretches{};
    std::uint64_t used = 0;
    std::uint64_t before = end;
    for (gsl::index node = 1; node <= ring.sink; ++node) {
        const std::uint64_t index = gsl::at(ring.control.rIdx, node).load();
        gsl::at(stretches, node) = ring.Distance(index, before);
        used += gsl::at(stretches, node);
        before = index;
    }
    if (used > ring.size) {
        return std::nullopt;
    }
    stretches[0] = ring.size - used;
    return stretches;
}

/// Nothing if one of the stretches does not begin and end with a record.
std::optional<std::uint32_t> CountAllRecords(
    const RingView& ring, const std::array<std::uint64_t, kMaxNodes>& stretches) {
    std::uint32_t sum = 0;
    for (gsl::index node = 1; node <= ring.sink; ++node) {
        const auto records =
            CountRecords(ring, gsl::at(ring.control.rIdx, node).load(), gsl::at(stretches, node));
        if (!records) {
            return std::nullopt;
        }
        sum += *records;
    }
    return sum;
}

bool AllBytesWaitAtOneNode(const RingView& ring) {
    for (const auto& avail : ring.control.avail) {
        if (avail.load() == ring.size) {
            return true;
        }
    }
    return false;
}

/// True if nothing was ever written, as in a segment that was never initialised.
bool HasHeldNothing(const RingView& ring) {
    return std::all_of(ring.data, ring.data + ring.size, [](auto byte) { return byte == 0; });
}

/// All indices of a full ring are equal, as those of an empty one. It is full only if a critical
/// packet took the last byte.
bool LooksFull(const RingView& ring, std::uint64_t freeBytes) {
    return freeBytes == ring.size && ring.control.avail[0].load() == 0 && !HasHeldNothing(ring);
}

}  // namespace

std::optional<Record> RecordAt(const RingView& ring, std::uint64_t offset) {
    if (offset >= ring.size || ring.size - offset < kPacketHeaderSize) {
        return std::nullopt;
    }
    PacketHeader header;
    std::memcpy(&header.length, ring.data + offset, sizeof header.length);
    const bool isFiller = ring.data[offset + offsetof(PacketHeader, ignoreData)] != 0;
    if (header.length > ring.size - offset - kPacketHeaderSize) {
        return std::nullopt;
    }
    return Record{kPacketHeaderSize + header.length, isFiller};
}

std::optional<std::uint32_t> CountRecords(const RingView& ring, std::uint64_t start,
                                          std::uint64_t length) {
    std::uint32_t count = 0;
    for (; length > 0; ++count) {
        const auto record = RecordAt(ring, start);
        if (!record || record->length > length) {
            return std::nullopt;
        }
        start = (start + record->length) % ring.size;
        length -= record->length;
    }
    return count;
}

std::optional<EndOfRecords> FindEnd(const RingView& ring) {
    const std::uint64_t written = ring.control.wIdx[0].load();
    const std::uint64_t readIndex = ring.control.rIdx[1].load();
    const std::uint64_t waiting = ring.control.avail[1].load();
    if (written >= ring.size || readIndex >= ring.size || waiting > ring.size) {
        return std::nullopt;
    }
    const std::uint64_t given = (readIndex + waiting) % ring.size;
    if (written == given) {
        return EndOfRecords{written, Found::AtBoth};
    }
    const std::uint64_t ahead = ring.Distance(given, written);
    const auto inTaking = RecordAt(ring, readIndex);
    if (inTaking && inTaking->length == ahead && waiting + ahead <= ring.size &&
        RecordsFill(ring, readIndex, waiting + ahead)) {
        return EndOfRecords{written, Found::ReaderTaking};
    }
    const auto atIndex = RecordAt(ring, written);
    if (atIndex && atIndex->length == ring.Distance(written, given)) {
        return EndOfRecords{given, Found::RecordHandedOn};
    }
    if (ahead == kPacketHeaderSize && IsFillerToTheEnd(ring, given)) {
        return EndOfRecords{given, Found::FillerBegun};
    }
    if (given == 0 && written >= kPacketHeaderSize &&
        IsFillerToTheEnd(ring, written - kPacketHeaderSize)) {
        return EndOfRecords{given, Found::FillerHandedOn};
    }
    return std::nullopt;
}

bool PutRight(const RingView& ring, std::uint32_t maxFrames) {
    ControlBlock& control = ring.control;
    if (control.initialised.load() == 0) {
        return true;  // whoever opens it first sets everything
    }
    const auto end = FindEnd(ring);
    const auto stretches = end ? Stretches(ring, end->offset) : std::nullopt;
    if (!stretches) {
        return false;
    }
    if (LooksFull(ring, (*stretches)[0])) {
        if (!AllBytesWaitAtOneNode(ring)) {
            return false;
        }
        control.wIdx[0].store(end->offset);
        return true;
    }
    const auto records = CountAllRecords(ring, *stretches);
    if (!records) {
        return false;
    }
    control.wIdx[0].store(end->offset);
    for (gsl::index node = 0; node <= ring.sink; ++node) {
        gsl::at(control.avail, node).store(gsl::at(*stretches, node));
    }
    control.maxPackets = maxFrames == 0 ? 0 : maxFrames + 1;
    control.numPackets.store(control.maxPackets == 0 ? 0 : *records);
    control.halfSize = ring.size / 2;
    control.quarterSize = ring.size / 4;
    return true;
}

}  // namespace qel::test
