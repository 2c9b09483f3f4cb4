#include "Elements.h"

#include "QevSink.h"
#include "QevSrc.h"

namespace qel::test {
namespace {

GstElement* Make(const char* factory, const std::string& name, const Properties& properties) {
    GstElement* const element =
        gst_element_factory_make(factory, name.empty() ? nullptr : name.c_str());
    for (const auto& [property, value] : properties) {
        gst_util_set_object_arg(G_OBJECT(element), property.c_str(), value.c_str());
    }
    return GST_ELEMENT(gst_object_ref_sink(element));
}

std::string CodeOf(GQuark domain, int code) {
    return std::string(g_quark_to_string(domain)) + " " + std::to_string(code);
}

std::string NoteOf(GstEvent* event) {
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_CAPS: {
            GstCaps* caps = nullptr;
            gst_event_parse_caps(event, &caps);
            return "caps " + qel::test::TextOf(caps);
        }
        case GST_EVENT_CUSTOM_DOWNSTREAM:
            return gst_structure_get_name(gst_event_get_structure(event));
        default:
            return GST_EVENT_TYPE_NAME(event);
    }
}

}  // namespace

std::string ResourceError(GstResourceError code) {
    return CodeOf(GST_RESOURCE_ERROR, code);
}

std::string StreamError(GstStreamError code) {
    return CodeOf(GST_STREAM_ERROR, code);
}

Element::Element(const char* factory, const std::string& name, const Properties& properties)
    : element_(Make(factory, name, properties)), bus_(gst_bus_new()) {
    gst_element_set_bus(element_, bus_);
}

Element::~Element() {
    gst_element_set_state(element_, GST_STATE_NULL);
    gst_element_set_bus(element_, nullptr);
    gst_object_unref(element_);
    gst_object_unref(bus_);
}

bool Element::SetState(GstState state) const {
    return gst_element_set_state(element_, state) != GST_STATE_CHANGE_FAILURE;
}

Element::Error Element::Await(GstMessageType type) const {
    GstMessage* const message = gst_bus_timed_pop_filtered(bus_, 60 * GST_SECOND, type);
    if (message == nullptr) {
        return {"no message", ""};
    }
    GError* error = nullptr;
    if (type == GST_MESSAGE_ERROR) {
        gst_message_parse_error(message, &error, nullptr);
    } else {
        gst_message_parse_warning(message, &error, nullptr);
    }
    Error found{CodeOf(error->domain, error->code), error->message};
    g_error_free(error);
    gst_message_unref(message);
    return found;
}

int Element::TakeStatsMessages() const {
    int count = 0;
    while (GstMessage* const message = gst_bus_pop_filtered(bus_, GST_MESSAGE_ELEMENT)) {
        count += gst_message_has_name(message, "qev-stats") != FALSE ? 1 : 0;
        gst_message_unref(message);
    }
    return count;
}

int Element::TakeWarnings() const {
    int count = 0;
    while (GstMessage* const message = gst_bus_pop_filtered(bus_, GST_MESSAGE_WARNING)) {
        ++count;
        gst_message_unref(message);
    }
    return count;
}

std::uint64_t Element::Figure(const char* name) const {
    const StructureHandle stats(Property<GstStructure*>("stats"));
    guint64 value = G_MAXUINT64;
    (void)gst_structure_get_uint64(stats.get(), name, &value);
    return value;
}

Sink::Sink(const std::string& name, const Properties& properties, const char* caps)
    : Element("qevsink", name, properties),
      harness_(gst_harness_new_with_element(Get(), "sink", nullptr)) {
    if (caps != nullptr) {
        SetCaps(caps);
    }
}

Source::Source(const std::string& name, const Properties& properties)
    : Element("qevsrc", name, properties),
      harness_(gst_harness_new_with_element(Get(), nullptr, "src")) {
    GstPad* const pad = gst_element_get_static_pad(Get(), "src");
    gst_pad_add_probe(pad,
                      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER |
                                                   GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                                   GST_PAD_PROBE_TYPE_EVENT_FLUSH),
                      Note, this, nullptr);
    gst_object_unref(pad);
}

Source& Source::Play() {
    gst_harness_play(harness_);
    return *this;
}

EventHandle Source::AwaitEvent(GstEventType type) {
    while (GstEvent* const event = gst_harness_pull_event(harness_)) {
        if (GST_EVENT_TYPE(event) == type) {
            return EventHandle(event);
        }
        gst_event_unref(event);
    }
    return nullptr;
}

GstPadProbeReturn Source::Note(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) {
    auto& source = *static_cast<Source*>(self);
    std::string text;
    if ((info->type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
        const GstClockTime pts = GST_BUFFER_PTS(gst_pad_probe_info_get_buffer(info));
        text = "buffer " + (GST_CLOCK_TIME_IS_VALID(pts) ? std::to_string(pts) : "none");
    } else {
        GstEvent* const event = gst_pad_probe_info_get_event(info);
        if (GST_EVENT_TYPE(event) == GST_EVENT_STREAM_START) {
            return GST_PAD_PROBE_OK;
        }
        text = NoteOf(event);
    }
    const std::lock_guard<std::mutex> lock(source.mutex_);
    source.history_.push_back(text);
    return GST_PAD_PROBE_OK;
}

std::vector<std::string> Source::History() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return history_;
}

BufferHandle MakeBuffer(const Frame& frame) {
    BufferHandle buffer(gst_buffer_new_allocate(nullptr, frame.content.size(), nullptr));
    gst_buffer_fill(buffer.get(), 0, frame.content.data(), frame.content.size());
    GST_BUFFER_FLAG_UNSET(buffer.get(), GST_BUFFER_FLAG_TAG_MEMORY);
    GST_BUFFER_PTS(buffer.get()) = frame.pts;
    if (!frame.isKey) {
        GST_BUFFER_FLAG_SET(buffer.get(), GST_BUFFER_FLAG_DELTA_UNIT);
    }
    return buffer;
}

std::string ContentOf(GstBuffer* buffer) {
    std::string content(gst_buffer_get_size(buffer), '\0');
    gst_buffer_extract(buffer, 0, content.data(), content.size());
    return content;
}

guint FlagsOf(const BufferHandle& buffer) {
    // Not of the frame: says that its memory has been exchanged.
    return GST_BUFFER_FLAGS(buffer.get()) & ~guint{GST_BUFFER_FLAG_TAG_MEMORY};
}

std::string TextOf(const GstCaps* caps) {
    return TextHandle(gst_caps_to_string(caps)).get();
}

}  // namespace qel::test
