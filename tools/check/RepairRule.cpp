#include "RepairRule.h"

#include <algorithm>
#include <gsl/util>

#include "RingFlow.h"

namespace qel {
namespace {

using Found = EndOfRecords::Found;

/// What a writer announces by its header ahead of its bytes: a filler, which goes to the end, or a
/// packet in place, behind which there is room for a header.
std::optional<Record> AnnouncedAt(const RecordSource& records, std::uint64_t offset) {
    const auto record = RecordAt(records, offset);
    const std::uint64_t behind = record ? records.Size() - offset - record->length : 0;
    const bool canBe = record && (record->isFiller ? behind == 0 : behind >= kPacketHeaderSize);
    return canBe ? record : std::nullopt;
}

/// All indices of a full ring are equal, as those of an empty one. It is full only if a critical
/// packet took the last byte.
bool LooksFull(const RingSight& ring, std::uint64_t freeBytes) {
    return freeBytes == ring.Size() && ring.fields.avail[0] == 0 && !ring.records.HasHeldNothing();
}

bool AllBytesWaitAtOneNode(const RingSight& ring) {
    const auto& avail = ring.fields.avail;
    return std::find(avail.begin(), avail.end(), ring.Size()) != avail.end();
}

}  // namespace

std::uint64_t RingSight::Distance(std::uint64_t from, std::uint64_t to) const noexcept {
    return qel::Distance(from, to, Size());
}

std::optional<Record> RecordAt(const RecordSource& records, std::uint64_t offset) {
    const auto header = records.HeaderAt(offset);
    if (!header || header->length > records.Size() - offset - kPacketHeaderSize) {
        return std::nullopt;
    }
    return Record{kPacketHeaderSize + header->length, header->ignoreData};
}

std::optional<std::uint64_t> CountRecords(const RecordSource& records, std::uint64_t start,
                                          std::uint64_t length) {
    std::uint64_t count = 0;
    const std::uint64_t most = length > 0 ? records.MostRecords() : 0;
    for (; length > 0; ++count) {
        const auto record = RecordAt(records, start);
        if (!record || record->length > length || count == most) {
            return std::nullopt;
        }
        start = (start + record->length) % records.Size();
        length -= record->length;
    }
    return count;
}

std::optional<EndOfRecords> FindEnd(const RingSight& ring) {
    const std::uint64_t written = ring.fields.wIdx[0];
    const std::uint64_t readIndex = ring.fields.rIdx[1];
    const std::uint64_t waiting = ring.fields.avail[1];
    const std::uint64_t size = ring.Size();
    if (written >= size || readIndex >= size || waiting > size) {
        return std::nullopt;
    }
    const std::uint64_t given = (readIndex + waiting) % size;
    if (written == given) {
        return EndOfRecords{written, Found::AtBoth};
    }
    const std::uint64_t ahead = ring.Distance(given, written);
    const auto inTaking = RecordAt(ring.records, readIndex);
    if (inTaking && inTaking->length == ahead && waiting + ahead <= size &&
        CountRecords(ring.records, readIndex, waiting + ahead)) {
        return EndOfRecords{written, Found::ReaderTaking};
    }
    const auto atIndex = RecordAt(ring.records, written);
    if (atIndex && atIndex->length == ring.Distance(written, given)) {
        return EndOfRecords{given, Found::RecordHandedOn};
    }
    if (ahead == kPacketHeaderSize && AnnouncedAt(ring.records, given)) {
        return EndOfRecords{given, Found::FillerBegun};
    }
    const auto announced = written >= kPacketHeaderSize
                               ? AnnouncedAt(ring.records, written - kPacketHeaderSize)
                               : std::nullopt;
    if (announced && (written - kPacketHeaderSize + announced->length) % size == given) {
        return EndOfRecords{given, Found::FillerHandedOn};
    }
    return std::nullopt;
}

std::optional<Stretches> StretchesTo(const RingSight& ring, std::uint64_t end) {
    Stretches stretches{};
    std::uint64_t used = 0;
    std::uint64_t before = end;
    for (gsl::index node = 1; node <= static_cast<gsl::index>(ring.sink); ++node) {
        const std::uint64_t index = gsl::at(ring.fields.rIdx, node);
        if (index >= ring.Size()) {
            return std::nullopt;
        }
        gsl::at(stretches, node) = ring.Distance(index, before);
        used += gsl::at(stretches, node);
        if (used > ring.Size()) {
            return std::nullopt;
        }
        before = index;
    }
    stretches[0] = ring.Size() - used;
    return stretches;
}

std::optional<std::uint64_t> CountRecordsIn(const RingSight& ring, const Stretches& stretches) {
    std::uint64_t sum = 0;
    for (gsl::index node = 1; node <= static_cast<gsl::index>(ring.sink); ++node) {
        const auto records =
            CountRecords(ring.records, gsl::at(ring.fields.rIdx, node), gsl::at(stretches, node));
        if (!records) {
            return std::nullopt;
        }
        sum += *records;
    }
    return sum;
}

std::optional<RingFields> PutRight(const RingSight& ring, std::uint32_t maxPackets) {
    if (ring.fields.initialised == 0) {
        return ring.fields;  // whoever opens it first sets everything
    }
    const auto end = FindEnd(ring);
    const auto stretches = end ? StretchesTo(ring, end->offset) : std::nullopt;
    if (!stretches) {
        return std::nullopt;
    }
    RingFields fields = ring.fields;
    fields.wIdx[0] = end->offset;
    const bool isFull = LooksFull(ring, (*stretches)[0]);
    const auto records = isFull ? CountRecords(ring.records, end->offset, ring.Size())
                                : CountRecordsIn(ring, *stretches);
    if (!records || (isFull && !AllBytesWaitAtOneNode(ring))) {
        return std::nullopt;
    }
    for (gsl::index node = 0; !isFull && node <= static_cast<gsl::index>(ring.sink); ++node) {
        gsl::at(fields.avail, node) = gsl::at(*stretches, node);
    }
    fields.maxPackets = maxPackets;
    fields.numPackets = maxPackets == 0 ? 0 : gsl::narrow_cast<std::uint32_t>(*records);
    fields.halfSize = ring.Size() / 2;
    fields.quarterSize = ring.Size() / 4;
    return fields;
}

}  // namespace qel
