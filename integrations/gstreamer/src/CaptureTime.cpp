#include "CaptureTime.h"

namespace qel {
namespace {

/// ns since 1970, 0 if the header does not say.
GstClockTime CaptureTimeOf(const PacketHeader& header) {
    return header.timestampSec * GST_SECOND + header.timestampUsec * GST_USECOND;
}

}  // namespace

GstCaps* CaptureTimeCaps() {
    static GstStaticCaps caps = GST_STATIC_CAPS("timestamp/x-unix");
    static GstCaps* const instance = [] {
        GstCaps* const made = gst_static_caps_get(&caps);
        GST_MINI_OBJECT_FLAG_SET(made, GST_MINI_OBJECT_FLAG_MAY_BE_LEAKED);
        return made;
    }();
    return instance;
}

void SetCaptureTime(PacketHeader& header, GstBuffer* buffer) {
    const auto* const meta = gst_buffer_get_reference_timestamp_meta(buffer, CaptureTimeCaps());
    const guint64 time =
        meta != nullptr ? meta->timestamp / GST_USECOND : static_cast<guint64>(g_get_real_time());
    header.timestampSec = static_cast<std::uint32_t>(time / G_USEC_PER_SEC);
    header.timestampUsec = static_cast<std::uint32_t>(time % G_USEC_PER_SEC);
}

void AddCaptureTime(GstBuffer* buffer, const PacketHeader& header) {
    const GstClockTime time = CaptureTimeOf(header);
    if (time == 0) {
        return;
    }
    gst_buffer_add_reference_timestamp_meta(buffer, CaptureTimeCaps(), time, GST_CLOCK_TIME_NONE);
}

GstClockTimeDiff AgeOf(const PacketHeader& header) {
    constexpr GstClockTimeDiff kOldest = 3600 * static_cast<GstClockTimeDiff>(GST_SECOND);
    const auto captured = static_cast<GstClockTimeDiff>(CaptureTimeOf(header));
    const auto age = g_get_real_time() * static_cast<GstClockTimeDiff>(GST_USECOND) - captured;
    return age < 0 || age > kOldest ? 0 : age;
}

}  // namespace qel
