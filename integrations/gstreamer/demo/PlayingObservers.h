#pragma once

#include <xxhash.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "FrameObserver.h"
#include "GstHandles.h"
#include "KeyFrameDecoder.h"
#include "NodeCounters.h"

namespace qel {

/// Sizes of frames, and the brightness of the key frames, which alone are decoded.
class AnalysisObserver : public FrameObserver {
public:
    explicit AnalysisObserver(NodeCounters& counters) : counters_(counters) {}
    void See(GstBuffer* frame, GstCaps* caps) override;

private:
    NodeCounters& counters_;
    KeyFrameDecoder decoder_;
};

/// A checksum of all frames in their order, and whether their time stamps go on without a gap.
class FingerprintObserver : public FrameObserver {
public:
    explicit FingerprintObserver(NodeCounters& counters);
    void See(GstBuffer* frame, GstCaps* caps) override;

private:
    void CheckTime(GstBuffer* frame);

    NodeCounters& counters_;
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state_;
    std::optional<GstClockTime> expected_;
};

/// How long ago the frames were captured when they come by here.
class LatencyObserver : public FrameObserver {
public:
    explicit LatencyObserver(NodeCounters& counters)
        : counters_(counters), captureTime_(gst_caps_new_empty_simple("timestamp/x-unix")) {}
    ~LatencyObserver() override { Publish(); }
    LatencyObserver(const LatencyObserver&) = delete;
    LatencyObserver& operator=(const LatencyObserver&) = delete;

    void See(GstBuffer* frame, GstCaps* caps) override;

private:
    void Publish();
    [[nodiscard]] double Percentile(double part);

    NodeCounters& counters_;
    CapsHandle captureTime_;
    std::vector<double> milliseconds_;
    std::chrono::steady_clock::time_point nextPublication_;
};

}  // namespace qel
