#include "SourceStream.h"

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "CapsBlock.h"
#include "CaptureTime.h"
#include "GstHandles.h"
#include "RingBuffer.h"
#include "RingObject.h"
#include "SegmentText.h"

namespace qel {
namespace {

bool IsSameStream(const StreamOptions& a, const StreamOptions& b) {
    return a.name == b.name && a.node == b.node && a.sink == b.sink && a.wakeUp == b.wakeUp &&
           (a.size == b.size || b.size == 0);
}

}  // namespace

void SourceStream::Start(const SourceSettings& settings) {
    const CommonSettings& common = settings.common;
    const std::string name = RingNameOf(GST_OBJECT(source_), common.ring);
    (void)StreamNames(name);
    settings_ = settings;
    options_ = {name,          common.size, static_cast<std::uint8_t>(common.node),
                settings.sink, 0,           common.wakeUp};
    state_ = {};
    refusedSerial_ = 0;
    soughtBlock_ = false;
    segment_.reset();
    knowsSegment_ = false;
    awaitsKeyFrame_ = settings.startAtKeyFrame;
    isDiscont_ = true;
    for (auto* const figure : {&packets_, &bytes_, &copies_, &skipped_}) {
        figure->store(0);
    }
}

void SourceStream::Stop() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (reader_) {  // not if this run has ended before the ring was opened
        last_ = reader_;
        reader_.reset();
    }
}

void SourceStream::SetFlushing(bool flushing) {
    const std::lock_guard<std::mutex> lock(mutex_);
    flushing_ = flushing;
    flushed_.notify_all();
    if (flushing && reader_) {
        reader_->Wake();
    }
}

GstFlowReturn SourceStream::Create(GstBuffer** buffer) {
    while (true) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (flushing_) {
                return GST_FLOW_FLUSHING;
            }
        }
        if (!reader_ && !Open()) {
            continue;
        }
        if (const auto received = reader_->TryNext()) {
            if (const auto result = Deliver(*received, buffer)) {
                return *result;
            }
        } else if (const auto event = reader_->TakeEvent()) {
            Apply(*event);
        } else {
            reader_->Wait();
        }
    }
}

/// Opens the ring; false if its size is to be that of a ring that is not there yet.
bool SourceStream::Open() {
    constexpr std::chrono::milliseconds kBetweenLooks(5);
    StreamOptions options = options_;
    auto reader = last_.lock();
    if (!reader || !IsSameStream(reader->Options(), options)) {
        if (options.size == 0) {
            options.size = RingObject::FindSize(options.name).value_or(0);
        }
        if (options.size == 0) {
            std::unique_lock<std::mutex> lock(mutex_);
            (void)flushed_.wait_for(lock, kBetweenLooks, [this] { return flushing_; });
            return false;
        }
        reader = std::make_shared<StreamReader>(options);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    reader_ = std::move(reader);
    return true;
}

std::optional<GstFlowReturn> SourceStream::Deliver(const ReceivedPacket& received,
                                                   GstBuffer** buffer) {
    if (received.outcome == ReadOutcome::Broken) {
        throw std::runtime_error("ring " + options_.name + ": its counters are inconsistent");
    }
    const ControlQueue::Match match = reader_->TakeControl(received.packet);
    for (const ControlRecord& event : match.events) {
        Apply(event);
    }
    if (received.outcome == ReadOutcome::EndOfStream) {
        (void)reader_->HandOn(received.ticket);
        isDiscont_ = true;
        return settings_.ignoreEos ? std::nullopt : std::optional(GST_FLOW_EOS);
    }
    if (!IsWanted(received.packet, match.details)) {
        (void)reader_->HandOn(received.ticket);
        ++skipped_;
        isDiscont_ = true;
        return std::nullopt;
    }
    *buffer = MakeBuffer(received, match.details);
    return GST_FLOW_OK;
}

bool SourceStream::IsWanted(const Packet& packet, const std::optional<ControlHead>& details) {
    if (!KnowsCapsOf(details)) {
        awaitsKeyFrame_ = settings_.startAtKeyFrame;
        return false;
    }
    awaitsKeyFrame_ = awaitsKeyFrame_ && !packet.header.key;
    return !awaitsKeyFrame_;
}

/// Makes the caps that a packet was written for those of the pad.
bool SourceStream::KnowsCapsOf(const std::optional<ControlHead>& details) {
    if (details ? details->serial == state_.serial : state_.serial != 0 || soughtBlock_) {
        return true;
    }
    if (details && details->serial == refusedSerial_) {
        return false;
    }
    auto state = CapsBlock::Load(StreamNames(options_.name).caps);
    if (details && (!state || state->serial != details->serial)) {
        state = reader_->FindState(details->serial);
    }
    if (state && (!details || state->serial == details->serial) && Adopt(std::move(*state))) {
        return true;
    }
    if (!settings_.caps.empty()) {
        StreamState given;
        given.serial = details ? details->serial : 0;
        given.caps = settings_.caps;
        if (Adopt(std::move(given))) {
            soughtBlock_ = true;
            return true;
        }
    }
    if (details) {
        refusedSerial_ = details->serial;
        GST_ELEMENT_WARNING(
            source_, STREAM, FORMAT,
            ("ring %s: the caps of what waits in it are not known any more", options_.name.c_str()),
            ("Their writer has gone. Set the property caps to read it."));
        return false;
    }
    soughtBlock_ = true;  // a writer that tells nothing
    return true;
}

/// @return false, with no effect, if its caps are none
bool SourceStream::Adopt(StreamState state) {
    if (!SetCaps(state.caps)) {
        return false;
    }
    SetSegment(state.segment);
    SendTags(state.tags, GST_TAG_SCOPE_STREAM);
    SendTags(state.globalTags, GST_TAG_SCOPE_GLOBAL);
    state_ = std::move(state);
    return true;
}

void SourceStream::Apply(const ControlRecord& event) {
    switch (event.head.kind) {
        case ControlKind::Caps:
            if (SetCaps(event.text)) {
                state_.serial = event.head.serial;
                SeekSegment();
            }
            break;
        case ControlKind::Segment:
            SetSegment(event.text);
            break;
        case ControlKind::Tags:
            SendTags(event.text, GST_TAG_SCOPE_STREAM);
            break;
        case ControlKind::GlobalTags:
            SendTags(event.text, GST_TAG_SCOPE_GLOBAL);
            break;
        case ControlKind::Gap:
            if (event.head.pts >= 0) {
                SendEvent(gst_event_new_gap(static_cast<GstClockTime>(event.head.pts),
                                            event.head.duration));
            }
            break;
        case ControlKind::Custom:
            if (auto* const fields = gst_structure_from_string(event.text.c_str(), nullptr)) {
                SendEvent(gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, fields));
            }
            break;
        case ControlKind::State:
            if (auto state = StreamStateFromText(event.text);
                state && state->serial != state_.serial) {
                (void)Adopt(std::move(*state));
            }
            break;
        case ControlKind::Frame:
        case ControlKind::EndOfStream:
            break;  // go with their packets
    }
}

/// @return false if these are no caps of a stream
bool SourceStream::SetCaps(const std::string& text) {
    const CapsHandle caps(gst_caps_from_string(text.c_str()));
    if (!caps || gst_caps_is_fixed(caps.get()) == FALSE) {
        GST_WARNING_OBJECT(source_, "caps that are none: %s", text.c_str());
        return false;
    }
    if (gst_base_src_set_caps(source_, caps.get()) == FALSE) {
        GST_WARNING_OBJECT(source_, "caps refused downstream: %s", text.c_str());
    }
    return true;
}

void SourceStream::SetSegment(const std::string& text) {
    if (auto segment = SegmentFromText(text)) {
        segment_ = *segment;
        knowsSegment_ = true;
    }
}

/// Caps can change without a new segment. A reader that came after the segment's record finds it
/// in the block.
void SourceStream::SeekSegment() {
    if (knowsSegment_) {
        return;
    }
    const auto state = CapsBlock::Load(StreamNames(options_.name).caps);
    if (state && state->serial == state_.serial) {
        SetSegment(state->segment);
    }
}

void SourceStream::SendTags(const std::string& text, GstTagScope scope) {
    constexpr std::string_view kBeginning = "taglist";  // which the parser insists on
    if (text.compare(0, kBeginning.size(), kBeginning) != 0) {
        return;
    }
    if (auto* const tags = gst_tag_list_new_from_string(text.c_str()); tags != nullptr) {
        gst_tag_list_set_scope(tags, scope);
        // The method itself: gst_element_send_event waits for state changes, which wait for us.
        GstElement* const element = GST_ELEMENT(source_);
        (void)GST_ELEMENT_GET_CLASS(element)->send_event(element, gst_event_new_tag(tags));
    }
}

/// Sends an event at once. Ahead of a segment nothing is sent: it would have no meaning there.
void SourceStream::SendEvent(GstEvent* event) {
    if (packets_.load() == 0 || segment_) {
        gst_event_unref(event);
        return;
    }
    (void)gst_pad_push_event(GST_BASE_SRC_PAD(source_), event);
}

void SourceStream::SendSegmentFor(const PacketHeader& header, GstClockTime pts) {
    const bool isFirst = packets_.load() == 0;
    if (!segment_ && !isFirst) {
        return;
    }
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment = segment_.value_or(segment);
    segment_.reset();
    const GstClockTime now = gst_element_get_current_running_time(GST_ELEMENT(source_));
    if (settings_.alignTime && GST_CLOCK_TIME_IS_VALID(pts) && GST_CLOCK_TIME_IS_VALID(now)) {
        segment = AlignedSegment(segment, pts, static_cast<GstClockTimeDiff>(now) );
    }
    (void)gst_base_src_new_segment(source_, &segment);
}

GstBuffer* SourceStream::MakeBuffer(const ReceivedPacket& received,
                                    const std::optional<ControlHead>& details) {
    const std::uint64_t bound = settings_.maxOutstanding < 0
                                    ? reader_->Options().size / 4 * 3
                                    : static_cast<std::uint64_t>(settings_.maxOutstanding);
    const PacketHeader header = received.packet.header;
    const std::size_t size = received.packet.data.size();
    GstBuffer* buffer = nullptr;
    if (size != 0 && reader_->GetOutstanding().bytes > bound) {
        buffer = CopyPacket(*reader_, received);
        ++copies_;
    } else {
        buffer = WrapPacket(reader_, received, settings_.writable);
    }
    Describe(buffer, header, details);
    if (std::exchange(isDiscont_, false)) {
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    }
    SendSegmentFor(header, GST_BUFFER_PTS(buffer));
    ++packets_;
    bytes_ += size;
    return buffer;
}

GstStructure* SourceStream::Stats() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto outstanding =
        reader_ ? reader_->GetOutstanding() : InOrderRelease::Outstanding{0, 0};
    const guint64 fillers = reader_ ? reader_->Fillers() : 0;
    const guint64 recovered = reader_ ? reader_->Recovered() : 0;
    return gst_structure_new(
        kStatsName, "packets", G_TYPE_UINT64, packets_.load(), "bytes", G_TYPE_UINT64,
        bytes_.load(), "copies", G_TYPE_UINT64, copies_.load(), "skipped", G_TYPE_UINT64,
        skipped_.load(), "fillers", G_TYPE_UINT64, fillers, "outstanding-packets", G_TYPE_UINT64,
        static_cast<guint64>(outstanding.packets), "outstanding-bytes", G_TYPE_UINT64,
        static_cast<guint64>(outstanding.bytes), "recovered", G_TYPE_UINT64, recovered, nullptr);
}

}  // namespace qel
