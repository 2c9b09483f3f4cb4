#include "LumaObserver.h"

#include <stdexcept>

namespace qel {
namespace {

constexpr Region kTopLeft{0, 0, 0.25, 0.2};
constexpr Region kBottomRight{0.75, 0.8, 1, 1};

}  // namespace

void LumaObserver::See(GstBuffer* frame, GstCaps* caps) {
    if (!format_) {
        GstVideoInfo format;
        if (caps == nullptr || gst_video_info_from_caps(&format, caps) == FALSE) {
            throw std::runtime_error("frames of an unknown format");
        }
        format_ = format;
    }
    const auto topLeft = MeanLuma(frame, *format_, kTopLeft);
    const auto bottomRight = MeanLuma(frame, *format_, kBottomRight);
    if (!topLeft || !bottomRight) {
        throw std::runtime_error("cannot read a frame");
    }
    topLeft_ += *topLeft;
    bottomRight_ += *bottomRight;
    ++frames_;
    counters_.lumaTopLeft = topLeft_ / frames_;
    counters_.lumaBottomRight = bottomRight_ / frames_;
}

}  // namespace qel
