#include <fmt/format.h>

#include "PlayingObservers.h"
#include "StagePlan.h"

namespace qel {
namespace {

/// A stage that looks at the frames in the ring and hands them on.
std::string Look(const ChainOptions& options, unsigned node) {
    return fmt::format(
        "qevsrc name={} node={} ! fakesink name=seen enable-last-sample=false sync=false",
        options.ring, node);
}

template <typename Observer>
std::unique_ptr<FrameObserver> Observe(NodeCounters& counters) {
    return std::make_unique<Observer>(counters);
}

std::string FoundInAnalysis(const NodeCounters& node) {
    const auto frames = static_cast<double>(node.frames);
    const auto keyFrames = static_cast<double>(node.keyFrames);
    if (node.keyFrames == 0) {
        return "";
    }
    return fmt::format(
        "{:.1f} kB/frame, at most {:.0f}; a key frame in {:.0f}; {} decoded, luma "
        "{:.0f}",
        static_cast<double>(node.bytes) / frames / 1e3,
        static_cast<double>(node.largestFrame) / 1e3, frames / keyFrames, node.decoded.load(),
        node.luma.load());
}

std::string FoundFingerprint(const NodeCounters& node) {
    return fmt::format("{:016x}", node.fingerprint.load());
}

}  // namespace

ChainPlan PlanPlaying(const ChainOptions& options) {
    ChainPlan plan;
    plan[0] = {"source",
               fmt::format("filesrc name=file ! qtdemux name=demux "
                           "capsfilter name=seen caps=video/x-h264 ! "
                           "qevsink name={} size={} sync={}",
                           options.ring, options.size, !options.fast),
               options.input,
               true,
               Observe<FingerprintObserver>,
               FoundFingerprint};
    plan[1] = {"analysis", Look(options, 1), "", false, Observe<AnalysisObserver>, FoundInAnalysis};
    plan[2] = {"fingerprint",
               Look(options, 2),
               "",
               false,
               Observe<FingerprintObserver>,
               [](const NodeCounters& node) {
                   return fmt::format("{}, {} gaps", FoundFingerprint(node), node.gaps.load());
               }};
    plan[3] = {"latency",
               Look(options, 3),
               "",
               false,
               Observe<LatencyObserver>,
               [](const NodeCounters& node) {
                   return fmt::format("since capture: p50 {:.2f} ms, p99 {:.2f} ms",
                                      node.medianLatency.load(), node.highLatency.load());
               }};
    // Time stamps as they were sent, so that the recording does not begin with a pause; no parser,
    // which would copy each frame.
    plan[4] = {"recorder",
               fmt::format("qevsrc name={} node=4 sink=true align-time=false ! "
                           "capsfilter name=seen caps=video/x-h264 ! mp4mux ! filesink name=file",
                           options.ring),
               options.output,
               false,
               Observe<FingerprintObserver>,
               FoundFingerprint};
    return plan;
}

}  // namespace qel
