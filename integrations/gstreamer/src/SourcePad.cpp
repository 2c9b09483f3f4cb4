#include "SourcePad.h"

#include <string_view>
#include <utility>

#include "CaptureTime.h"
#include "ForeignText.h"
#include "GstHandles.h"
#include "SegmentText.h"

namespace qel {

void SourcePad::Reset(bool alignTime) {
    alignTime_ = alignTime;
    hasSent_ = false;
    segment_.reset();
    knowsSegment_ = false;
    shift_.reset();
}

bool SourcePad::SetCaps(const std::string& text) {
    const CapsHandle caps(IsSafeToParse(text) ? gst_caps_from_string(text.c_str()) : nullptr);
    if (!caps || gst_caps_is_fixed(caps.get()) == FALSE) {
        GST_WARNING_OBJECT(source_, "caps that are none: %s", text.c_str());
        return false;
    }
    if (gst_base_src_set_caps(source_, caps.get()) == FALSE) {
        GST_WARNING_OBJECT(source_, "caps refused downstream: %s", text.c_str());
    }
    return true;
}

void SourcePad::SetSegment(const std::string& text, bool startsAnew) {
    const auto segment = SegmentFromText(text);
    if (!segment) {
        return;
    }
    segment_ = segment;
    knowsSegment_ = true;
    if (startsAnew) {
        shift_.reset();
    }
}

void SourcePad::SendTags(const std::string& text, GstTagScope scope) {
    constexpr std::string_view kBeginning = "taglist";  // which the parser insists on
    if (text.compare(0, kBeginning.size(), kBeginning) != 0 || !IsSafeToParse(text)) {
        return;
    }
    if (auto* const tags = gst_tag_list_new_from_string(text.c_str()); tags != nullptr) {
        gst_tag_list_set_scope(tags, scope);
        Send(gst_event_new_tag(tags));
    }
}

void SourcePad::SendCustom(const std::string& text) {
    if (!IsSafeToParse(text)) {
        return;
    }
    auto* const fields = gst_structure_from_string(text.c_str(), nullptr);
    if (fields == nullptr) {
        return;
    }
    Send(gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, fields));
}

void SourcePad::SendGap(GstClockTime start, GstClockTime duration) {
    if (IsFlowing()) {
        Push(gst_event_new_gap(start, duration));
    }
}

/// Sends an event in order with the buffers, and behind the segment that it stands behind.
void SourcePad::Send(GstEvent* event) {
    if (IsFlowing()) {
        Push(event);
    } else {
        Queue(event);
    }
}

void SourcePad::Push(GstEvent* event) {
    (void)gst_pad_push_event(GST_BASE_SRC_PAD(source_), event);
}

/// The base class sends it behind the segment and ahead of the next buffer.
void SourcePad::Queue(GstEvent* event) {
    // The method itself: gst_element_send_event waits for state changes, which wait for us.
    GstElement* const element = GST_ELEMENT(source_);
    (void)GST_ELEMENT_GET_CLASS(element)->send_event(element, event);
}

void SourcePad::AheadOf(GstBuffer* buffer, const PacketHeader& header) {
    const bool isFirst = !std::exchange(hasSent_, true);
    if (!segment_ && !isFirst) {
        return;
    }
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment = segment_.value_or(segment);
    segment_.reset();
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    const GstClockTime now = gst_element_get_current_running_time(GST_ELEMENT(source_));
    const auto sent = RunningTimeOf(segment, pts);
    if (alignTime_ && sent && GST_CLOCK_TIME_IS_VALID(now)) {
        const auto wanted = static_cast<GstClockTimeDiff>(now) - AgeOf(header);
        shift_ = shift_.value_or(wanted - *sent);
        segment = AlignedSegment(segment, pts, *sent + *shift_);
    }
    (void)gst_base_src_new_segment(source_, &segment);
}

}  // namespace qel
