#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "FrameObserver.h"
#include "NodeCounters.h"

namespace qel {

/// What the chain is asked to do.
struct ChainOptions {
    std::string ring;           ///< name of the ring, made for this run and removed after it
    std::string input;          ///< MP4 or MOV file with H.264 video; empty with `raw`
    std::string output;         ///< MP4 file
    std::uint64_t size = 0;     ///< bytes of the ring
    bool raw = false;           ///< draw on frames of a test picture instead
    bool fast = false;          ///< as fast as it goes instead of at the media's own pace
    std::uint64_t seconds = 0;  ///< length of the test picture
};

/// One node: its pipeline and what it looks at. Made before the processes are, so it holds nothing
/// of GStreamer.
struct StagePlan {
    std::string role;
    std::string pipeline;        ///< see NodePipeline for the names of its elements
    std::string file;            ///< what the element "file" reads or writes; empty: there is none
    bool demultiplexes = false;  ///< it has an element "demux"
    std::function<std::unique_ptr<FrameObserver>(NodeCounters&)> observe;
    std::function<std::string(const NodeCounters&)> found;  ///< what it found out, in a few words
};

using ChainPlan = std::array<StagePlan, kChainLength>;

/// Plays a file: source, analysis, fingerprint, latency, recorder.
[[nodiscard]] ChainPlan PlanPlaying(const ChainOptions& options);

/// Draws on a raw test picture: source, two nodes that draw, encoder, check.
[[nodiscard]] ChainPlan PlanDrawing(const ChainOptions& options);

}  // namespace qel
