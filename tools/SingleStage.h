#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>

#include "CommandLine.h"
#include "Stages.h"

namespace qel {

/// A stage that is a command of its own.
struct SingleStage {
    RingOptions ring;
    unsigned node = 0;
    bool sink = false;
};

/// What the stage does once its ring is open.
using StageBody = std::function<StageEnd(SharedPacketBufferIF&, const StageStops&, StageCounters&)>;

/// Adds --name and the other options of the ring.
void AddStageOptions(CLI::App& command, SingleStage& stage);

/// Opens the ring, runs `body` until the stream ends or a signal comes, and says on standard error
/// what was done.
/// @return the exit status
int RunSingleStage(const std::string& verb, const SingleStage& stage, const StageBody& body);

}  // namespace qel
