#include <fmt/format.h>

#include "LumaObserver.h"
#include "StagePlan.h"

namespace qel {
namespace {

constexpr std::uint64_t kFramesPerSecond = 30;
constexpr const char* kFont = R"(font-desc="Sans Bold, 40" shaded-background=true)";

/// Draws on the frame where it lies in the ring, by which all later nodes get it so.
std::string Draw(const ChainOptions& options, unsigned node, const std::string& overlay) {
    // Plain frames behind the overlay keep it from attaching the drawing instead of making it.
    return fmt::format(
        "qevsrc name={} node={} writable=true ! {} {} ! capsfilter name=seen caps=video/x-raw ! "
        "fakesink enable-last-sample=false sync=false",
        options.ring, node, overlay, kFont);
}

std::unique_ptr<FrameObserver> Observe(NodeCounters& counters) {
    return std::make_unique<LumaObserver>(counters);
}

std::string Found(const NodeCounters& node) {
    return fmt::format("luma top left {:.2f}, bottom right {:.2f}", node.lumaTopLeft.load(),
                       node.lumaBottomRight.load());
}

}  // namespace

ChainPlan PlanDrawing(const ChainOptions& options) {
    ChainPlan plan;
    plan[0] = {"source",
               fmt::format("videotestsrc pattern=ball num-buffers={} ! "
                           "capsfilter name=seen caps=video/x-raw,format=I420,width=1920,"
                           "height=1080,framerate={}/1 ! qevsink name={} size={} sync={}",
                           options.seconds * kFramesPerSecond, kFramesPerSecond, options.ring,
                           options.size, !options.fast),
               "",
               false,
               Observe,
               Found};
    plan[1] = {
        "draws", Draw(options, 1, R"(textoverlay text="node 1" halignment=left valignment=top)"),
        "",      false,
        Observe, Found};
    plan[2] = {"draws", Draw(options, 2, "timeoverlay halignment=right valignment=bottom"),
               "",      false,
               Observe, Found};
    plan[3] = {"encoder",
               fmt::format("qevsrc name={} node=3 align-time=false ! "
                           "x264enc name=seen tune=zerolatency speed-preset=ultrafast ! "
                           "mp4mux ! filesink name=file",
                           options.ring),
               options.output,
               false,
               Observe,
               Found};
    plan[4] = {"check",
               fmt::format("qevsrc name={} node=4 sink=true ! "
                           "fakesink name=seen enable-last-sample=false sync=false",
                           options.ring),
               "",
               false,
               Observe,
               Found};
    return plan;
}

}  // namespace qel
