#pragma once

#include <gst/gst.h>

#include <optional>
#include <string>

namespace qel {

/// A segment in time format as text, field by field.
[[nodiscard]] std::string TextOf(const GstSegment& segment);

/// Reads what `TextOf` has written.
/// @return nothing if it is none, or one that no stream can have
[[nodiscard]] std::optional<GstSegment> SegmentFromText(const std::string& text);

/// The running time of a time stamp, negative ahead of the segment; nothing if it has none, or one
/// beyond a century.
[[nodiscard]] std::optional<GstClockTimeDiff> RunningTimeOf(const GstSegment& segment,
                                                            GstClockTime pts);

/// The segment moved so that a buffer of time stamp `pts` has the running time `wanted`, which may
/// be negative. Time stamps and stream time stay.
[[nodiscard]] GstSegment AlignedSegment(GstSegment segment, GstClockTime pts,
                                        GstClockTimeDiff wanted);

}  // namespace qel
