#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace qel::bench {

/// p50, p99, p99.9 and mean of times in ticks, in ns. Changes the order of `times`.
[[nodiscard]] std::array<double, 4> QuantilesOf(std::vector<std::uint64_t>& times,
                                                double nanosecondsPerTick);

}  // namespace qel::bench
