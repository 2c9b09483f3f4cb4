#pragma once

#include <gst/video/video.h>

#include <cstddef>

#include "ByteSpan.h"

namespace qel {

/// True if the planes of a frame lie otherwise than its caps alone tell, which is all that readers
/// know.
[[nodiscard]] bool LiesOtherwise(GstBuffer* frame, const GstVideoInfo& info);

/// A frame that lies otherwise, mapped for as long as this object lives.
class MappedFrame {
public:
    /// @param frame  has the description that LiesOtherwise has found
    MappedFrame(GstBuffer* frame, const GstVideoInfo& info);
    ~MappedFrame();
    MappedFrame(const MappedFrame&) = delete;
    MappedFrame& operator=(const MappedFrame&) = delete;

    /// False if its memory cannot be mapped, or it does not hold the picture that the caps tell. It
    /// may be larger: then what the caps tell is its upper left part.
    [[nodiscard]] bool IsUsable() const noexcept { return isUsable_; }

    /// Bytes of the frame as the caps tell.
    [[nodiscard]] std::size_t Size() const noexcept { return GST_VIDEO_INFO_SIZE(&info_); }

    /// Copies a usable frame to `room`, whose size is `Size()`, laid out as the caps tell.
    void CopyTo(const ByteSpan& room) const;

private:
    GstVideoInfo info_;
    GstVideoFrame frame_{};
    bool isUsable_;
};

}  // namespace qel
