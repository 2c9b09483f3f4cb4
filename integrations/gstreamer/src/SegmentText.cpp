#include "SegmentText.h"

#include <algorithm>
#include <cmath>

#include "ForeignText.h"
#include "GstHandles.h"

namespace qel {
namespace {

/// All but the flag with which a source's base class would end the segment, and not the stream.
constexpr guint kTravellingFlags =
    static_cast<guint>(GST_SEGMENT_FLAG_RESET) | static_cast<guint>(GST_SEGMENT_FLAG_TRICKMODE) |
    static_cast<guint>(GST_SEGMENT_FLAG_TRICKMODE_KEY_UNITS) |
    static_cast<guint>(GST_SEGMENT_FLAG_TRICKMODE_FORWARD_PREDICTED) |
    static_cast<guint>(GST_SEGMENT_FLAG_TRICKMODE_NO_AUDIO);

}  // namespace

std::string TextOf(const GstSegment& segment) {
    const StructureHandle fields(gst_structure_new(
        "segment", "flags", G_TYPE_UINT, static_cast<guint>(segment.flags), "rate", G_TYPE_DOUBLE,
        segment.rate, "applied-rate", G_TYPE_DOUBLE, segment.applied_rate, "base", G_TYPE_UINT64,
        segment.base, "offset", G_TYPE_UINT64, segment.offset, "start", G_TYPE_UINT64,
        segment.start, "stop", G_TYPE_UINT64, segment.stop, "time", G_TYPE_UINT64, segment.time,
        "position", G_TYPE_UINT64, segment.position, "duration", G_TYPE_UINT64, segment.duration,
        nullptr));
    return TextOf(fields.get());
}

std::optional<GstSegment> SegmentFromText(const std::string& text) {
    if (!IsSafeToParse(text)) {
        return std::nullopt;
    }
    const StructureHandle fields(gst_structure_from_string(text.c_str(), nullptr));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    guint flags = 0;
    if (!fields ||
        gst_structure_get(fields.get(), "flags", G_TYPE_UINT, &flags, "rate", G_TYPE_DOUBLE,
                          &segment.rate, "applied-rate", G_TYPE_DOUBLE, &segment.applied_rate,
                          "base", G_TYPE_UINT64, &segment.base, "offset", G_TYPE_UINT64,
                          &segment.offset, "start", G_TYPE_UINT64, &segment.start, "stop",
                          G_TYPE_UINT64, &segment.stop, "time", G_TYPE_UINT64, &segment.time,
                          "position", G_TYPE_UINT64, &segment.position, "duration", G_TYPE_UINT64,
                          &segment.duration, nullptr) == FALSE) {
        return std::nullopt;
    }
    segment.flags = static_cast<GstSegmentFlags>(flags & kTravellingFlags);
    const bool isSound = std::isfinite(segment.rate) && segment.rate != 0 &&
                         std::isfinite(segment.applied_rate) && segment.applied_rate != 0 &&
                         GST_CLOCK_TIME_IS_VALID(segment.start) && segment.start <= segment.stop &&
                         segment.offset <= segment.stop - segment.start &&
                         (segment.rate > 0 || GST_CLOCK_TIME_IS_VALID(segment.stop));
    return isSound ? std::optional(segment) : std::nullopt;
}

std::optional<GstClockTimeDiff> RunningTimeOf(const GstSegment& segment, GstClockTime pts) {
    constexpr guint64 kCentury = guint64{100} * 366 * 24 * 3600 * GST_SECOND;
    guint64 running = 0;
    const gint sign = gst_segment_to_running_time_full(&segment, GST_FORMAT_TIME, pts, &running);
    if (sign == 0 || running > kCentury) {
        return std::nullopt;
    }
    return sign * static_cast<GstClockTimeDiff>(running);
}

GstSegment AlignedSegment(GstSegment segment, GstClockTime pts, GstClockTimeDiff wanted) {
    const auto running = RunningTimeOf(segment, pts);
    if (!running) {
        return segment;
    }
    if (wanted >= *running) {
        segment.base += static_cast<guint64>(wanted - *running);
        return segment;
    }
    const auto excess = static_cast<guint64>(*running - wanted);
    const guint64 ofBase = std::min(excess, segment.base);
    segment.base -= ofBase;
    // What is ahead of the first buffer counts as played. The offset is in units of position.
    const double played = static_cast<double>(excess - ofBase) * std::abs(segment.rate);
    const guint64 left = segment.stop - segment.start - segment.offset;
    segment.offset += played < static_cast<double>(left) ? static_cast<guint64>(played) : left;
    return segment;
}

}  // namespace qel
