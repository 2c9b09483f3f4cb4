#include "RingFields.h"

#include <algorithm>
#include <tuple>

namespace qel {
namespace {

using Values = std::array<std::uint64_t, kMaxNodes>;

Values ValuesOf(const std::array<std::atomic<std::uint64_t>, kMaxNodes>& atomics) noexcept {
    Values values{};
    std::transform(atomics.begin(), atomics.end(), values.begin(),
                   [](const auto& value) { return value.load(); });
    return values;
}

/// Plain fields, which the ring's first opener writes once, perhaps at this moment.
template <typename Value>
Value Load(const Value& field) noexcept {
    return __atomic_load_n(&field, __ATOMIC_SEQ_CST);
}

template <std::size_t Size>
bool AreZero(const std::array<std::uint8_t, Size>& bytes) noexcept {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](const std::uint8_t& byte) { return Load(byte) == 0; });
}

}  // namespace

RingFields RingFields::Of(const ControlBlock& control) noexcept {
    RingFields fields;
    fields.avail = ValuesOf(control.avail);
    fields.wIdx = ValuesOf(control.wIdx);
    fields.rIdx = ValuesOf(control.rIdx);
    fields.numPackets = control.numPackets.load();
    fields.initialised = control.initialised.load();
    fields.maxPackets = Load(control.maxPackets);
    fields.halfSize = Load(control.halfSize);
    fields.quarterSize = Load(control.quarterSize);
    fields.reservedAreZero = AreZero(control.reserved1) && AreZero(control.reserved2);
    return fields;
}

bool RingFields::LookNeverInitialised() const noexcept {
    const Values zeros{};
    return initialised != 0 && avail == zeros && wIdx == zeros && rIdx == zeros;
}

bool operator==(const RingFields& left, const RingFields& right) noexcept {
    const auto tie = [](const RingFields& fields) {
        return std::tie(fields.avail, fields.wIdx, fields.rIdx, fields.numPackets,
                        fields.initialised, fields.maxPackets, fields.halfSize, fields.quarterSize,
                        fields.reservedAreZero);
    };
    return tie(left) == tie(right);
}

}  // namespace qel
