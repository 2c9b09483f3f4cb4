/// A plugin for the tests with one element, bufferlog: it passes everything on as it is and writes
/// a line on each buffer and event to the descriptor `fd`, each by one write, so that whoever reads
/// the other end of a pipe waits for what goes by instead of asking for it.
///
/// The lines are: buffer MD5 SIZE PTS DTS DURATION OFFSET OFFSET_END FLAGS WRITABLE CAPTURE_TIME,
/// with - for what is not set; caps TEXT; segment TEXT; tag TEXT; gap PTS; eos.

#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

namespace {

struct BufferLog {
    GstBaseTransform parent;
    int fd;
};

struct BufferLogClass {
    GstBaseTransformClass parent;
};

void Write(int fd, const std::string& line) {
    // When nobody reads any more there is nobody to tell.
    [[maybe_unused]] const auto written = write(fd, line.data(), line.size());
}

/// Every kind of "not set" is all ones.
std::string Number(std::uint64_t value) {
    return value == GST_CLOCK_TIME_NONE ? "-" : std::to_string(value);
}

std::string Owned(gchar* text) {
    std::string copy(text);
    g_free(text);
    return copy;
}

std::string CaptureTime(GstBuffer* buffer) {
    GstCaps* unixTime = gst_caps_new_empty_simple("timestamp/x-unix");
    const GstReferenceTimestampMeta* meta =
        gst_buffer_get_reference_timestamp_meta(buffer, unixTime);
    gst_caps_unref(unixTime);
    return meta == nullptr ? "-" : Number(meta->timestamp);
}

/// The flags of GstBuffer's own; that memory was exchanged says nothing of the stream.
unsigned Flags(GstBuffer* buffer) {
    constexpr unsigned kOfMiniObjects = unsigned{GST_MINI_OBJECT_FLAG_LAST} - 1U;
    return GST_BUFFER_FLAGS(buffer) & ~kOfMiniObjects & ~unsigned{GST_BUFFER_FLAG_TAG_MEMORY};
}

bool IsWritable(GstBuffer* buffer) {
    for (guint index = 0; index < gst_buffer_n_memory(buffer); ++index) {
        if (GST_MEMORY_IS_READONLY(gst_buffer_peek_memory(buffer, index))) {
            return false;
        }
    }
    return true;
}

std::string Describe(GstBuffer* buffer) {
    const bool writable = IsWritable(buffer);  // to map several memories as one makes a copy
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) {
        return "unreadable\n";
    }
    std::string line = "buffer ";
    line += Owned(g_compute_checksum_for_data(G_CHECKSUM_MD5, map.data, map.size));
    line += " " + std::to_string(map.size);
    gst_buffer_unmap(buffer, &map);
    line += " " + Number(GST_BUFFER_PTS(buffer)) + " " + Number(GST_BUFFER_DTS(buffer));
    line += " " + Number(GST_BUFFER_DURATION(buffer)) + " " + Number(GST_BUFFER_OFFSET(buffer));
    line += " " + Number(GST_BUFFER_OFFSET_END(buffer)) + " " + std::to_string(Flags(buffer));
    line += writable ? " writable " : " readonly ";
    return line + CaptureTime(buffer) + "\n";
}

std::string Describe(GstEvent* event) {
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_CAPS: {
            GstCaps* caps = nullptr;
            gst_event_parse_caps(event, &caps);
            return "caps " + Owned(gst_caps_to_string(caps)) + "\n";
        }
        case GST_EVENT_SEGMENT: {
            const GstSegment* segment = nullptr;
            gst_event_parse_segment(event, &segment);
            return std::string("segment ") + gst_format_get_name(segment->format) +
                   " start=" + Number(segment->start) + " stop=" + Number(segment->stop) +
                   " base=" + Number(segment->base) + " time=" + Number(segment->time) + "\n";
        }
        case GST_EVENT_TAG: {
            GstTagList* tags = nullptr;
            gst_event_parse_tag(event, &tags);
            return "tag " + Owned(gst_tag_list_to_string(tags)) + "\n";
        }
        case GST_EVENT_GAP: {
            GstClockTime time = GST_CLOCK_TIME_NONE;
            gst_event_parse_gap(event, &time, nullptr);
            return "gap " + Number(time) + "\n";
        }
        case GST_EVENT_EOS:
            return "eos\n";
        default:
            return {};
    }
}

// NOLINTNEXTLINE: the macro is GLib's
G_DEFINE_TYPE(BufferLog, buffer_log, GST_TYPE_BASE_TRANSFORM)

int DescriptorOf(gpointer element) {
    return static_cast<BufferLog*>(element)->fd;
}

GstFlowReturn TransformIp(GstBaseTransform* transform, GstBuffer* buffer) {
    Write(DescriptorOf(transform), Describe(buffer));
    return GST_FLOW_OK;
}

gboolean SinkEvent(GstBaseTransform* transform, GstEvent* event) {
    if (const std::string line = Describe(event); !line.empty()) {
        Write(DescriptorOf(transform), line);
    }
    return GST_BASE_TRANSFORM_CLASS(buffer_log_parent_class)->sink_event(transform, event);
}

void SetProperty(GObject* object, guint, const GValue* value, GParamSpec*) {
    reinterpret_cast<BufferLog*>(object)->fd = g_value_get_int(value);
}

void GetProperty(GObject* object, guint, GValue* value, GParamSpec*) {
    g_value_set_int(value, reinterpret_cast<BufferLog*>(object)->fd);
}

void buffer_log_init(BufferLog* log) {
    log->fd = STDOUT_FILENO;
    gst_base_transform_set_passthrough(&log->parent, TRUE);
}

void buffer_log_class_init(BufferLogClass* type) {
    auto* object = G_OBJECT_CLASS(type);
    object->set_property = SetProperty;
    object->get_property = GetProperty;
    g_object_class_install_property(
        object, 1,
        g_param_spec_int("fd", "Descriptor", "Where the lines go", 0, G_MAXINT, STDOUT_FILENO,
                         static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    auto* element = GST_ELEMENT_CLASS(type);
    gst_element_class_set_static_metadata(element, "Buffer log", "Filter/Analyzer",
                                          "Writes a line on each buffer and event", "qev");
    for (const auto& [name, direction] : {std::pair{"sink", GST_PAD_SINK}, {"src", GST_PAD_SRC}}) {
        gst_element_class_add_pad_template(
            element, gst_pad_template_new(name, direction, GST_PAD_ALWAYS, GST_CAPS_ANY));
    }
    type->parent.transform_ip = TransformIp;
    type->parent.sink_event = SinkEvent;
}

gboolean PluginInit(GstPlugin* plugin) {
    return gst_element_register(plugin, "bufferlog", GST_RANK_NONE, buffer_log_get_type());
}

}  // namespace

#define PACKAGE "qev"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, bufferlog, "Logs what goes by", PluginInit,
                  "1.0", "Proprietary", "qev", "qev")  // the list of licences has no Apache
