#pragma once

#include <gst/video/video.h>

#include <optional>

namespace qel {

/// A part of a picture, in fractions of its width and height.
struct Region {
    double left;
    double top;
    double right;
    double bottom;
};

inline constexpr Region kWholePicture{0, 0, 1, 1};

/// Mean brightness of a part of a raw picture, from 0 to 255 whatever its depth.
/// @return nothing for formats without a plane of brightness, and when it cannot be read
[[nodiscard]] std::optional<double> MeanLuma(GstBuffer* picture, const GstVideoInfo& format,
                                             const Region& region);

}  // namespace qel
