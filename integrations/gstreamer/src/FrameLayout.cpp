#include "FrameLayout.h"

#include <gsl/util>

namespace qel {
namespace {

/// True if a frame so described has the picture that the caps tell as its upper left part.
bool HoldsPicture(const GstVideoMeta& meta, const GstVideoInfo& info) {
    return meta.format == GST_VIDEO_INFO_FORMAT(&info) &&
           meta.width >= static_cast<guint>(GST_VIDEO_INFO_WIDTH(&info)) &&
           meta.height >= static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&info));
}

}  // namespace

bool LiesOtherwise(GstBuffer* frame, const GstVideoInfo& info) {
    const GstVideoMeta* const meta = gst_buffer_get_video_meta(frame);
    if (meta == nullptr) {
        return false;
    }
    for (guint plane = 0; plane < meta->n_planes; ++plane) {
        if (meta->stride[plane] != GST_VIDEO_INFO_PLANE_STRIDE(&info, plane) ||
            meta->offset[plane] != GST_VIDEO_INFO_PLANE_OFFSET(&info, plane)) {
            return true;
        }
    }
    return false;
}

MappedFrame::MappedFrame(GstBuffer* frame, const GstVideoInfo& info)
    : info_(info),
      isUsable_(HoldsPicture(*gst_buffer_get_video_meta(frame), info) &&
                gst_video_frame_map(&frame_, &info_, frame, GST_MAP_READ) != FALSE) {}

MappedFrame::~MappedFrame() {
    if (isUsable_) {
        gst_video_frame_unmap(&frame_);
    }
}

void MappedFrame::CopyTo(const ByteSpan& room) const {
    GstVideoFrame to{};
    to.info = info_;
    for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&info_); ++plane) {
        gsl::at(to.data, plane) = room.data() + GST_VIDEO_INFO_PLANE_OFFSET(&info_, plane);
    }
    (void)gst_video_frame_copy(&to, &frame_);  // fails for unlike pictures only
}

}  // namespace qel
