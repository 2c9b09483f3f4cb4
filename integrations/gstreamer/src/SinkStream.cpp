#include "SinkStream.h"

#include <utility>

#include "CaptureTime.h"
#include "EndOfStream.h"
#include "GstHandles.h"
#include "RingBuffer.h"
#include "SegmentText.h"

namespace qel {
namespace {

Packet PacketOf(GstBuffer* buffer) {
    Packet packet;
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    packet.header.pts = pts <= G_MAXINT64 ? static_cast<std::int64_t>(pts) : kNoPts;
    packet.header.key = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) == FALSE;
    SetCaptureTime(packet.header, buffer);
    return packet;
}

}  // namespace

void SinkStream::Start(const SinkSettings& settings) {
    settings_ = settings;
    const CommonSettings& common = settings.common;
    auto writer = std::make_unique<StreamWriter>(StreamOptions{
        RingNameOf(GST_OBJECT(sink_), common.ring), common.size,
        static_cast<std::uint8_t>(common.node), false, settings.maxFrames, common.wakeUp});
    video_.reset();
    isRaw_ = false;
    startsAnew_ = true;
    dropsUntilKeyFrame_ = false;
    for (auto* const figure : {&packets_, &bytes_, &dropped_, &copies_}) {
        figure->store(0);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    writer_ = std::move(writer);
}

void SinkStream::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    writer_.reset();
}

void SinkStream::Wake() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (writer_) {
        writer_->Wake();
    }
}

void SinkStream::SetCaps(const GstCaps* caps) {
    video_.reset();
    GstVideoInfo info;
    if (gst_structure_has_name(gst_caps_get_structure(caps, 0), "video/x-raw") != FALSE &&
        gst_video_info_from_caps(&info, caps) != FALSE) {
        video_ = info;
    }
    const std::string name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
    isRaw_ = name.find("/x-raw") != std::string::npos || name.rfind("other/tensor", 0) == 0;
    // What readers get lies in plain memory, wherever it came from.
    const CapsHandle plain(gst_caps_copy(caps));
    gst_caps_set_features_simple(plain.get(), nullptr);
    TellText(ControlKind::Caps, TextHandle(gst_caps_to_string(plain.get())).get(),
             MakeEventHead(ControlKind::Caps));
}

void SinkStream::Tell(GstEvent* event) {
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_SEGMENT: {
            const GstSegment* segment = nullptr;
            gst_event_parse_segment(event, &segment);
            if (segment->format == GST_FORMAT_TIME) {
                ControlHead head = MakeEventHead(ControlKind::Segment);
                head.flags = std::exchange(startsAnew_, false) ? kStartsAnew : 0;
                TellText(ControlKind::Segment, TextOf(*segment), head);
            }
            break;
        }
        case GST_EVENT_FLUSH_STOP:
            startsAnew_ = true;
            break;
        case GST_EVENT_TAG: {
            GstTagList* tags = nullptr;
            gst_event_parse_tag(event, &tags);
            const auto kind = gst_tag_list_get_scope(tags) == GST_TAG_SCOPE_GLOBAL
                                  ? ControlKind::GlobalTags
                                  : ControlKind::Tags;
            TellText(kind, TextHandle(gst_tag_list_to_string(tags)).get(), MakeEventHead(kind));
            break;
        }
        case GST_EVENT_GAP: {
            GstClockTime start = 0;
            GstClockTime duration = 0;
            gst_event_parse_gap(event, &start, &duration);
            ControlHead head = MakeEventHead(ControlKind::Gap);
            head.pts = static_cast<std::int64_t>(start);
            head.duration = duration;
            TellText(ControlKind::Gap, {}, head);
            break;
        }
        case GST_EVENT_CUSTOM_DOWNSTREAM:
            if (const GstStructure* const fields = gst_event_get_structure(event)) {
                TellText(ControlKind::Custom, TextOf(fields), MakeEventHead(ControlKind::Custom));
            }
            break;
        default:
            break;
    }
}

void SinkStream::TellText(ControlKind kind, const std::string& text, ControlHead head) {
    const auto stop = [this] { return GST_PAD_IS_FLUSHING(GST_BASE_SINK_PAD(sink_)) != FALSE; };
    if (!writer_->Tell(kind, text, head, stop)) {
        GST_WARNING_OBJECT(sink_, "readers that come late will not know %s", text.c_str());
    }
}

/// Finds the payload of a buffer.
/// @return false if its memory cannot be read
bool SinkStream::Take(GstBuffer* buffer, StreamWriter::Outgoing& outgoing, Origin& origin) {
    if (video_ && LiesOtherwise(buffer, *video_)) {
        const MappedFrame& frame = origin.frame.emplace(buffer, *video_);
        outgoing.size = frame.Size();
        if (!frame.IsUsable()) {
            return false;
        }
        if (outgoing.critical) {  // what is made in the ring cannot use the reserve
            origin.laidOut.resize(outgoing.size);
            outgoing.packet.data = origin.laidOut;
            frame.CopyTo(outgoing.packet.data);
        } else {
            outgoing.fill = [&frame](const ByteSpan& room) { frame.CopyTo(room); };
        }
        return true;
    }
    outgoing.spans = origin.memories.emplace(buffer).Spans();
    for (const ByteSpan& span : outgoing.spans) {
        outgoing.size += span.size();
    }
    if (outgoing.spans.size() == 1) {
        outgoing.packet.data = outgoing.spans.front();
        outgoing.spans.clear();
    }
    return origin.memories->IsComplete();
}

GstFlowReturn SinkStream::Render(GstBuffer* buffer) {
    StreamWriter::Outgoing outgoing;
    outgoing.packet = PacketOf(buffer);
    const bool isKey = outgoing.packet.header.key;
    if (dropsUntilKeyFrame_ && !isKey) {
        ++dropped_;
        return GST_FLOW_OK;
    }
    outgoing.critical = settings_.criticalKeyFrames && isKey;
    Origin origin;
    if (!Take(buffer, outgoing, origin)) {
        GST_ELEMENT_ERROR(sink_, RESOURCE, READ, ("a buffer's memory cannot be read"), (nullptr));
        return GST_FLOW_ERROR;
    }
    outgoing.aligned = isRaw_;
    if (outgoing.size > writer_->LargestPacket()) {
        return Refuse(outgoing.size);
    }
    outgoing.head = MakeFrameHead(outgoing.packet, outgoing.size);
    Describe(outgoing.head, buffer);
    const GstFlowReturn result =
        Send(outgoing, settings_.waitForSpace, GST_MINI_OBJECT_CAST(buffer));
    if (result == GST_FLOW_OK) {
        ++packets_;
        bytes_ += outgoing.size;
        copies_ += origin.frame ? 1 : 0;
        dropsUntilKeyFrame_ = false;
    } else if (result == GST_FLOW_CUSTOM_SUCCESS) {
        ++dropped_;
        dropsUntilKeyFrame_ = true;
        return GST_FLOW_OK;
    }
    return result;
}

/// What becomes of a buffer that the ring can never hold.
GstFlowReturn SinkStream::Refuse(guint64 size) {
    if (!settings_.waitForSpace) {
        GST_WARNING_OBJECT(sink_, "dropped a buffer of %" G_GUINT64_FORMAT " bytes, too large",
                           size);
        ++dropped_;
        dropsUntilKeyFrame_ = true;
        return GST_FLOW_OK;
    }
    GST_ELEMENT_ERROR(sink_, RESOURCE, NO_SPACE_LEFT,
                      ("a buffer of %" G_GUINT64_FORMAT
                       " bytes can never fit: the ring takes %" G_GUINT64_FORMAT " at most",
                       size, static_cast<guint64>(writer_->LargestPacket())),
                      ("Make the ring larger with the property size."));
    return GST_FLOW_ERROR;
}

/// @param cause  the buffer or event that is sent
/// @return `GST_FLOW_CUSTOM_SUCCESS` if there is no room and it may not wait
GstFlowReturn SinkStream::Send(StreamWriter::Outgoing& outgoing, bool mayWait,
                               GstMiniObject* cause) {
    while (true) {
        const WriteOutcome outcome = writer_->TryWrite(outgoing, mayWait);
        if (outcome == WriteOutcome::Written) {
            return GST_FLOW_OK;
        }
        if (outcome != WriteOutcome::Stopped) {
            GST_ELEMENT_ERROR(sink_, RESOURCE, WRITE, ("the ring's counters are inconsistent"),
                              (nullptr));
            return GST_FLOW_ERROR;
        }
        if (!mayWait) {
            return GST_FLOW_CUSTOM_SUCCESS;
        }
        if (const auto flow = WaitForRoom(cause); flow != GST_FLOW_OK) {
            return flow;
        }
    }
}

/// Waits once. The base class's lock is held, which changes of state need as well: it is given
/// back meanwhile. Then the state may have changed, and in PAUSED the wait is that for PLAYING.
GstFlowReturn SinkStream::WaitForRoom(GstMiniObject* cause) {
    GST_BASE_SINK_PREROLL_UNLOCK(sink_);
    writer_->Wait();
    GST_BASE_SINK_PREROLL_LOCK(sink_);
    if (GST_PAD_IS_FLUSHING(GST_BASE_SINK_PAD(sink_))) {
        return GST_FLOW_FLUSHING;
    }
    return gst_base_sink_do_preroll(sink_, cause);
}

GstFlowReturn SinkStream::End(GstEvent* event) {
    StreamWriter::Outgoing outgoing;
    outgoing.packet = MakeEndOfStream();
    outgoing.critical = true;
    outgoing.head = MakeFrameHead(outgoing.packet, 0);
    return Send(outgoing, true, GST_MINI_OBJECT_CAST(event));
}

GstStructure* SinkStream::Stats() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const guint64 controlDropped = writer_ ? writer_->ControlDropped() : 0;
    return gst_structure_new(kStatsName, "packets", G_TYPE_UINT64, packets_.load(), "bytes",
                             G_TYPE_UINT64, bytes_.load(), "dropped", G_TYPE_UINT64,
                             dropped_.load(), "copies", G_TYPE_UINT64, copies_.load(),
                             "control-dropped", G_TYPE_UINT64, controlDropped, nullptr);
}

}  // namespace qel
