// Records and numPackets, against where the bytes are.

#include <algorithm>
#include <gsl/util>

#include "RingDeviation.h"

namespace qel {
namespace {

using Kind = RingDeviation::Kind;

/// Against a number of records in the ring.
RingDeviations CompareCount(const RingFields& fields, std::uint64_t records) {
    if (fields.numPackets == records) {
        return {};
    }
    return {{fields.numPackets > records ? Kind::CountHigh : Kind::CountLow, 0, 0,
             fields.numPackets, records}};
}

/// Records that stand behind one that the writer may have begun: its bytes are taken from the free
/// ones, ahead of the rest.
std::optional<std::uint64_t> CountBehindBegun(const RingSight& ring, std::uint64_t start,
                                              std::uint64_t used, std::uint64_t begun) {
    if (begun == 0 || begun > used) {
        return std::nullopt;
    }
    return CountRecords(ring.records, (start + begun) % ring.Size(), used - begun);
}

/// Records and numPackets of what is in use: all but the `free` bytes from the records' end on.
RingDeviations InUseFrom(const RingSight& ring, std::uint64_t end, std::uint64_t free) {
    const RingFields& fields = ring.fields;
    const std::uint64_t start = (end + free) % ring.Size();
    const std::uint64_t used = ring.Size() - free;
    const auto isCounted = [&](std::uint64_t records) {
        return fields.maxPackets == 0 || fields.numPackets == records;
    };
    const auto records = CountRecords(ring.records, start, used);
    if (fields.maxPackets == 0 && fields.numPackets != 0) {
        return {{Kind::CountWithoutLimit, 0, 0, fields.numPackets, 0}};
    }
    if (records && isCounted(*records)) {
        return {};
    }
    const auto begun = RecordAt(ring.records, end);
    const std::uint64_t length = begun ? begun->length : 0;
    const auto others = CountBehindBegun(ring, start, used, length);
    if (others && (isCounted(*others + 1) || !records)) {
        RingDeviations found{{Kind::RecordBytesLost, 0, length}};
        if (!isCounted(*others + 1)) {
            Add(found, CompareCount(fields, *others + 1));
        }
        return found;
    }
    return records ? CompareCount(fields, *records) : RingDeviations{{Kind::RecordsDamaged}};
}

/// A node that is in the middle of taking a record shows by its counter: that does not end with a
/// record, unless the record was the last one there.
RingDeviations TakingBehindHolders(const RingSight& ring, const RingDeviations& flow) {
    RingDeviations found;
    for (gsl::index node = 2; node <= static_cast<gsl::index>(ring.sink); ++node) {
        const std::uint64_t index = gsl::at(ring.fields.rIdx, node);
        const std::uint64_t waiting = gsl::at(ring.fields.avail, node);
        const auto record = RecordAt(ring.records, index);
        const bool isToldAlready =
            std::any_of(flow.begin(), flow.end(), [node](const auto& deviation) {
                return deviation.kind == Kind::BytesLost &&
                       static_cast<gsl::index>(deviation.node) + 1 == node;
            });
        if (!isToldAlready && record && !CountRecords(ring.records, index, waiting) &&
            CountRecords(ring.records, index, waiting + record->length)) {
            found.push_back({Kind::TakingBytesLost, static_cast<unsigned>(node), record->length});
        }
    }
    return found;
}

}  // namespace

RingDeviations RecordDeviations(const RingSight& ring, const RingDeviations& flow) {
    const auto end = EndOf(ring);
    const auto stretches = end ? StretchesTo(ring, end->offset) : std::nullopt;
    if (!stretches || !IsPossible(flow)) {
        return {};
    }
    const auto records = CountRecordsIn(ring, *stretches);
    if (!records) {
        return {{Kind::RecordsDamaged}};
    }
    if (Has(flow, Kind::FillerBytesLost)) {  // which is counted before it is handed on
        return ring.fields.maxPackets == 0 ? RingDeviations()
                                           : CompareCount(ring.fields, *records + 1);
    }
    RingDeviations found = TakingBehindHolders(ring, flow);
    const bool isFull = (*stretches)[0] == ring.Size() && ring.fields.avail[0] == 0;
    const std::uint64_t free = std::min(ring.fields.avail[0], (*stretches)[0]);
    Add(found, InUseFrom(ring, end->offset, isFull ? 0 : free));
    return found;
}

RingDeviations InUseDeviations(const RingSight& ring) {
    return InUseFrom(ring, ring.fields.wIdx[0], ring.fields.avail[0]);
}

}  // namespace qel
