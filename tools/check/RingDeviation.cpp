#include "RingDeviation.h"

#include <algorithm>
#include <tuple>

namespace qel {
namespace {

using Kind = RingDeviation::Kind;

auto TieOf(const RingDeviation& deviation) noexcept {
    return std::tie(deviation.kind, deviation.node, deviation.bytes, deviation.is,
                    deviation.should);
}

template <typename Values>
bool AreZero(const Values& values) noexcept {
    return std::all_of(values.begin(), values.end(), [](auto value) { return value == 0; });
}

bool IsUntouched(const RingFields& fields) noexcept {
    return AreZero(fields.avail) && AreZero(fields.wIdx) && AreZero(fields.rIdx) &&
           fields.numPackets == 0;
}

bool LiesWithin(const RingFields& fields, std::uint64_t size) noexcept {
    const auto isIndex = [size](auto index) { return index < size; };
    return size > 0 && std::all_of(fields.wIdx.begin(), fields.wIdx.end(), isIndex) &&
           std::all_of(fields.rIdx.begin(), fields.rIdx.end(), isIndex) &&
           std::all_of(fields.avail.begin(), fields.avail.end(),
                       [size](auto bytes) { return bytes <= size; });
}

/// Writers move only the first write index, and node 0 reads nothing.
bool UnusedAreZero(const RingFields& fields) noexcept {
    return std::all_of(fields.wIdx.begin() + 1, fields.wIdx.end(),
                       [](auto index) { return index == 0; }) &&
           fields.rIdx[0] == 0 && fields.reservedAreZero && fields.initialised <= 1;
}

RingDeviations::iterator Find(RingDeviations& deviations, Kind kind) {
    return std::find_if(deviations.begin(), deviations.end(),
                        [kind](const auto& deviation) { return deviation.kind == kind; });
}

/// A record that the writer had begun was perhaps the filler that it had begun, and its bytes were
/// perhaps told once more as lost behind the sink.
void TellApart(RingDeviations& found, unsigned sink) {
    const auto record = Find(found, Kind::RecordBytesLost);
    if (record == found.end()) {
        return;
    }
    const std::uint64_t bytes = record->bytes;
    if (const auto filler = Find(found, Kind::FillerBegun); filler != found.end()) {
        *filler = {Kind::FillerBytesLost, 0, bytes};
        found.erase(record);
    }
    const auto behind = std::find_if(found.begin(), found.end(), [sink](const auto& deviation) {
        return deviation.kind == Kind::BytesLost && deviation.node == sink;
    });
    if (behind != found.end()) {
        behind->bytes -= std::min(behind->bytes, bytes);
        if (behind->bytes == 0) {
            found.erase(behind);
        }
    }
}

}  // namespace

void Add(RingDeviations& all, const RingDeviations& more) {
    all.insert(all.end(), more.begin(), more.end());
}

bool Has(const RingDeviations& deviations, Kind kind) noexcept {
    return std::any_of(deviations.begin(), deviations.end(),
                       [kind](const auto& deviation) { return deviation.kind == kind; });
}

bool operator==(const RingDeviation& left, const RingDeviation& right) noexcept {
    return TieOf(left) == TieOf(right);
}

bool operator<(const RingDeviation& left, const RingDeviation& right) noexcept {
    return TieOf(left) < TieOf(right);
}

bool IsPossible(const RingDeviations& deviations) noexcept {
    return std::all_of(deviations.begin(), deviations.end(), [](const auto& deviation) {
        return deviation.kind < Kind::FullRingLost || deviation.kind == Kind::UnusedFieldsSet;
    });
}

RingDeviations FormOf(const RingSight& ring) {
    const RingFields& fields = ring.fields;
    RingDeviations found;
    if (!UnusedAreZero(fields)) {
        found.push_back({Kind::UnusedFieldsSet});
    }
    if (!LiesWithin(fields, ring.Size())) {
        found.push_back({Kind::OutsideRing});
        return found;
    }
    if (fields.initialised == 0) {
        if (!IsUntouched(fields) || fields.maxPackets != 0 || fields.halfSize != 0) {
            found.push_back({Kind::UsedUninitialised});
        }
        return found;
    }
    const bool isUntouched = IsUntouched(fields);
    const auto differs = [isUntouched](std::uint64_t is, std::uint64_t should) {
        return is != should && !(isUntouched && is == 0);  // perhaps not yet set
    };
    if (differs(fields.halfSize, ring.Size() / 2) || differs(fields.quarterSize, ring.Size() / 4)) {
        found.push_back({Kind::SizeDiffers, 0, 0, ring.Size(), 2 * fields.halfSize});
    }
    if (isUntouched && ring.records.HasHeldNothing()) {
        found.push_back({Kind::NeverInitialised});
    }
    return found;
}

RingDeviations DeviationsOf(const RingSight& ring, const NodesThere& there) {
    RingDeviations found = FormOf(ring);
    if (!IsPossible(found) || ring.fields.initialised == 0 || Has(found, Kind::NeverInitialised)) {
        return found;
    }
    const RingDeviations flow = FlowDeviations(ring, there);
    Add(found, flow);
    Add(found, RecordDeviations(ring, flow));
    TellApart(found, ring.sink);
    return found;
}

}  // namespace qel
