#pragma once

#include <vector>

#include "Transport.h"

namespace qel::bench {

/// The ring from one writer to one reader, with each way to wait.
[[nodiscard]] std::vector<Kind> QevKinds();

/// Packets that are made where they lie.
[[nodiscard]] std::vector<Kind> QevInPlaceKinds();

/// Chains of 2 to 5 nodes, for `MeasureStream` alone.
[[nodiscard]] std::vector<Kind> QevChainKinds();

}  // namespace qel::bench
