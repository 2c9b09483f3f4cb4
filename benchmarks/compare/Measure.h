#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Transport.h"

namespace qel::bench {

/// How long and how often.
struct Plan {
    double seconds = 0.3;              ///< how long the measured part is to take
    std::uint64_t messages = 0;        ///< how many messages instead; 0: by the seconds
    double rate = 0;                   ///< messages per second; 0: as fast as they go
    std::vector<std::uint64_t> marks;  ///< numbers of messages whose time is told; no warm-up then
    std::chrono::seconds patience{60};
};

/// One writer, one reader, as fast as it goes or paced.
[[nodiscard]] nlohmann::json MeasureStream(const Kind& kind, const Cell& cell, const Plan& plan);

/// A message there, the same message back, one at a time.
[[nodiscard]] nlohmann::json MeasureRoundTrip(const Kind& kind, const Cell& cell, const Plan& plan);

}  // namespace qel::bench
