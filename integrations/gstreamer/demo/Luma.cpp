#include "Luma.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qel {
namespace {

/// Unmaps at the end of a scope.
class MappedPicture {
public:
    MappedPicture(GstBuffer* picture, GstVideoInfo format)
        : mapped_(gst_video_frame_map(&frame_, &format, picture, GST_MAP_READ) != FALSE) {}
    ~MappedPicture() {
        if (mapped_) {
            gst_video_frame_unmap(&frame_);
        }
    }
    MappedPicture(const MappedPicture&) = delete;
    MappedPicture& operator=(const MappedPicture&) = delete;

    [[nodiscard]] const GstVideoFrame* Get() const noexcept { return mapped_ ? &frame_ : nullptr; }

private:
    GstVideoFrame frame_{};
    bool mapped_;
};

/// One sample in the machine's byte order; deeper ones take two bytes.
unsigned SampleAt(const std::uint8_t* place, bool wide) {
    if (!wide) {
        return *place;
    }
    std::uint16_t sample = 0;
    std::memcpy(&sample, place, sizeof(sample));
    return sample;
}

std::size_t Place(double fraction, int length) {
    return static_cast<std::size_t>(fraction * length);
}

}  // namespace

std::optional<double> MeanLuma(GstBuffer* picture, const GstVideoInfo& format,
                               const Region& region) {
    constexpr int kLuma = 0;
    constexpr int kByteDepth = 8;
    if (!GST_VIDEO_INFO_IS_YUV(&format) && !GST_VIDEO_INFO_IS_GRAY(&format)) {
        return std::nullopt;
    }
    const MappedPicture mapped(picture, format);
    const GstVideoFrame* const frame = mapped.Get();
    if (frame == nullptr) {
        return std::nullopt;
    }
    const auto* const rows =
        static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(frame, kLuma));
    const auto rowStride = static_cast<std::size_t>(GST_VIDEO_FRAME_COMP_STRIDE(frame, kLuma));
    const auto step = static_cast<std::size_t>(GST_VIDEO_FRAME_COMP_PSTRIDE(frame, kLuma));
    const int depth = static_cast<int>(GST_VIDEO_FRAME_COMP_DEPTH(frame, kLuma));
    const int width = GST_VIDEO_FRAME_COMP_WIDTH(frame, kLuma);
    const int height = GST_VIDEO_FRAME_COMP_HEIGHT(frame, kLuma);
    std::uint64_t sum = 0;
    std::uint64_t count = 0;
    for (std::size_t y = Place(region.top, height); y < Place(region.bottom, height); ++y) {
        for (std::size_t x = Place(region.left, width); x < Place(region.right, width); ++x) {
            sum += SampleAt(rows + y * rowStride + x * step, depth > kByteDepth);
            ++count;
        }
    }
    if (count == 0) {
        return std::nullopt;
    }
    const auto scale = static_cast<double>(1U << static_cast<unsigned>(depth - kByteDepth));
    return static_cast<double>(sum) / static_cast<double>(count) / scale;
}

}  // namespace qel
