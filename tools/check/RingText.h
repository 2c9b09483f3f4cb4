#pragma once

#include <string>
#include <string_view>

#include "RingDeviation.h"

namespace qel {

/// A short and stable name, as "record-handed-on".
[[nodiscard]] std::string_view CodeOf(RingDeviation::Kind kind) noexcept;

/// What it means, with the numbers.
/// @param sink  the chain's last node
[[nodiscard]] std::string TextOf(const RingDeviation& deviation, const RingFields& fields,
                                 unsigned sink);

}  // namespace qel
