#include "NodePipeline.h"

#include <fmt/format.h>

#include <exception>
#include <stdexcept>

#include "GstHandles.h"

namespace qel {
namespace {

constexpr GstClockTime kPublishPeriod = 50 * GST_MSECOND;

/// As in "filesink file: Could not open file (Permission denied)".
std::string TextOf(GstMessage* message) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    const GstObject* const source = GST_MESSAGE_SRC(message);
    std::string text = fmt::format("{}: {}", GST_OBJECT_NAME(source), error->message);
    // The first line of the debug text is a place in the element's source.
    const std::string details = debug == nullptr ? "" : debug;
    const std::size_t line = details.find('\n');
    if (line != std::string::npos && line + 1 < details.size()) {
        text += fmt::format(" ({})", details.substr(line + 1));
    }
    g_clear_error(&error);
    g_free(debug);
    return text;
}

std::uint64_t FieldOf(const GstStructure* statistics, const char* name) {
    guint64 value = 0;
    if (gst_structure_get_uint64(statistics, name, &value) == FALSE) {
        throw std::runtime_error(fmt::format("the element's statistics lack \"{}\"", name));
    }
    return value;
}

bool IsH264(GstPad* pad) {
    const CapsHandle caps(gst_pad_query_caps(pad, nullptr));
    return gst_caps_is_empty(caps.get()) == FALSE && gst_caps_is_any(caps.get()) == FALSE &&
           gst_structure_has_name(gst_caps_get_structure(caps.get(), 0), "video/x-h264") != FALSE;
}

void OnPadAdded(GstElement* /*demux*/, GstPad* pad, gpointer video) {
    const PadHandle input(gst_element_get_static_pad(GST_ELEMENT(video), "sink"));
    if (gst_pad_is_linked(input.get()) == FALSE && IsH264(pad)) {
        (void)gst_pad_link(pad, input.get());
    }
}

void OnNoMorePads(GstElement* demux, gpointer video) {
    const PadHandle input(gst_element_get_static_pad(GST_ELEMENT(video), "sink"));
    if (gst_pad_is_linked(input.get()) == FALSE) {
        GST_ELEMENT_ERROR(demux, STREAM, WRONG_TYPE, ("The file holds no H.264 video."), (nullptr));
    }
}

}  // namespace

NodePipeline::NodePipeline(const std::string& description, const std::string& ring,
                           NodeCounters& counters, FrameObserver* observer)
    : counters_(counters), observer_(observer) {
    GError* error = nullptr;
    pipeline_.reset(
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    if (!pipeline_) {
        const std::string text = error->message;
        g_clear_error(&error);
        throw std::runtime_error(text);
    }
    gst_object_ref_sink(pipeline_.get());
    ringElement_ = Find(ring);
    const ElementHandle seen = Find("seen");
    const PadHandle pad(gst_element_get_static_pad(seen.get(), "sink"));
    (void)gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, OnFrame, this, nullptr);
}

NodePipeline::~NodePipeline() {
    (void)gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

ElementHandle NodePipeline::Find(const std::string& name) const {
    ElementHandle element(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name.c_str()));
    if (!element) {
        throw std::logic_error(fmt::format("the pipeline has no element \"{}\"", name));
    }
    return element;
}

void NodePipeline::SetFile(const std::string& path) {
    g_object_set(Find("file").get(), "location", path.c_str(), nullptr);
}

void NodePipeline::LinkVideo() {
    const ElementHandle demux = Find("demux");
    const ElementHandle video = Find("seen");
    g_signal_connect(demux.get(), "pad-added", G_CALLBACK(OnPadAdded), video.get());
    g_signal_connect(demux.get(), "no-more-pads", G_CALLBACK(OnNoMorePads), video.get());
}

GstPadProbeReturn NodePipeline::OnFrame(GstPad* pad, GstPadProbeInfo* info, gpointer self) {
    auto* const node = static_cast<NodePipeline*>(self);
    try {
        node->Count(GST_PAD_PROBE_INFO_BUFFER(info), pad);
    } catch (const std::exception& failure) {
        GST_ELEMENT_ERROR(node->ringElement_.get(), STREAM, FAILED, ("%s", failure.what()),
                          (nullptr));
    }
    return GST_PAD_PROBE_OK;
}

void NodePipeline::Count(GstBuffer* frame, GstPad* pad) {
    counters_.frames.fetch_add(1);
    counters_.bytes.fetch_add(gst_buffer_get_size(frame));
    if (GST_BUFFER_FLAG_IS_SET(frame, GST_BUFFER_FLAG_DELTA_UNIT) == 0) {
        counters_.keyFrames.fetch_add(1);
    }
    if (observer_ != nullptr) {
        const CapsHandle caps(gst_pad_get_current_caps(pad));
        observer_->See(frame, caps.get());
    }
}

void NodePipeline::Publish() const {
    GstStructure* raw = nullptr;
    g_object_get(ringElement_.get(), "stats", &raw, nullptr);
    const StructureHandle statistics(raw);
    counters_.copies = FieldOf(raw, "copies");
    if (gst_structure_has_field(raw, "outstanding-packets") != FALSE) {
        counters_.heldPackets = FieldOf(raw, "outstanding-packets");
        counters_.heldBytes = FieldOf(raw, "outstanding-bytes");
    }
}

void NodePipeline::Run(const Requests& requests) {
    const BusHandle bus(gst_element_get_bus(pipeline_.get()));
    // A failure to start is a message on the bus as well, with a better text.
    (void)gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
    bool asked = false;
    bool ended = false;
    while (!ended || !requests.mayLeave()) {
        const MessageHandle message(gst_bus_timed_pop_filtered(
            bus.get(), kPublishPeriod,
            static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS)));
        Publish();
        if (message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
            throw std::runtime_error(TextOf(message.get()));
        }
        ended = ended || message;
        if (!asked && requests.endStream()) {
            asked = true;
            (void)gst_element_send_event(pipeline_.get(), gst_event_new_eos());
        }
    }
}

}  // namespace qel
