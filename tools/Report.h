#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "NodeRole.h"
#include "Stages.h"

namespace qel {

/// What one stage did, at its end.
struct StageReport {
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t fillers = 0;
    std::uint64_t checksum = 0;
    double seconds = 0;

    [[nodiscard]] double MegabytesPerSecond() const;
};

[[nodiscard]] StageReport ReportOf(const StageCounters& counters);

/// One line about a stage that ran by itself.
[[nodiscard]] std::string StageLine(const StageReport& stage);

/// What a pipeline did, at its end.
struct PipelineReport {
    std::string status;  ///< "ok", "interrupted" or "failed"
    std::string error;   ///< one line; empty unless failed
    std::string name;
    std::uint64_t size = 0;
    std::uint64_t packetSize = 0;
    std::uint64_t bytes = 0;  ///< written to the output
    double seconds = 0;
    bool verified = false;  ///< the output is the input, or its beginning when interrupted
    bool removed = false;   ///< no object is left
    std::vector<StageReport> nodes;
};

[[nodiscard]] std::string TextOf(const PipelineReport& report);
[[nodiscard]] std::string JsonOf(const PipelineReport& report);

}  // namespace qel
