#pragma once

#include <cstdint>
#include <string>

#include "CommandLine.h"

namespace qel {

struct PipelineOptions {
    RingOptions ring;
    std::string input;
    std::string output;
    unsigned nodes = 5;
    std::uint64_t packetSize = kDefaultPacketSize;
    bool json = false;
};

/// Sends a file through a chain of processes and compares what comes out with what went in.
/// @return the exit status
/// @throws UsageError before anything is touched; std::runtime_error when the ring or the output
///         cannot be made
int RunPipeline(const PipelineOptions& options);

}  // namespace qel
