/// The element qevsink: what GObject and GStreamer ask of it. What it does is in SinkStream.
#include "QevSink.h"

#include <exception>

#include "GstHandles.h"
#include "SinkStream.h"

using qel::SinkSettings;
using qel::SinkStream;

struct _GstQevSink {
    GstBaseSink parent;
    SinkSettings* settings;  // guarded by the object's lock; those of a run are fixed at its start
    SinkStream* stream;
};

G_DEFINE_TYPE(GstQevSink, gst_qev_sink, GST_TYPE_BASE_SINK)
GST_ELEMENT_REGISTER_DEFINE(qevsink, "qevsink", GST_RANK_NONE, gst_qev_sink_get_type())

namespace {

enum Property : guint {
    kMaxFrames = qel::kFirstOwnProperty,
    kWaitForSpace,
    kCriticalKeyFrames,
    kDropped,
};

constexpr qel::CommonLimits kLimits{
    "Bytes of the ring, which is made if there is none; one that is there has to have this size",
    qel::kDefaultRingSize, "This element's place in the chain: 0 is where packets enter it", 0, 3};

GstStaticPadTemplate padTemplate =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    const qel::ObjectLocked locked(object);
    SinkSettings& settings = *GST_QEV_SINK(object)->settings;
    if (SetCommonProperty(settings.common, id, value)) {
        return;
    }
    switch (id) {
        case kMaxFrames:
            settings.maxFrames = g_value_get_uint(value);
            break;
        case kWaitForSpace:
            settings.waitForSpace = g_value_get_boolean(value) != FALSE;
            break;
        case kCriticalKeyFrames:
            settings.criticalKeyFrames = g_value_get_boolean(value) != FALSE;
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    const GstQevSink* const self = GST_QEV_SINK(object);
    const qel::ObjectLocked locked(object);
    if (GetCommonProperty(self->settings->common, id, value)) {
        return;
    }
    switch (id) {
        case static_cast<guint>(qel::CommonProperty::Stats):
            g_value_take_boxed(value, self->stream->Stats());
            break;
        case kMaxFrames:
            g_value_set_uint(value, self->settings->maxFrames);
            break;
        case kWaitForSpace:
            g_value_set_boolean(value, self->settings->waitForSpace ? TRUE : FALSE);
            break;
        case kCriticalKeyFrames:
            g_value_set_boolean(value, self->settings->criticalKeyFrames ? TRUE : FALSE);
            break;
        case kDropped:
            g_value_set_uint64(value, self->stream->Dropped());
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void Finalize(GObject* object) {
    GstQevSink* const self = GST_QEV_SINK(object);
    delete self->stream;
    delete self->settings;
    G_OBJECT_CLASS(gst_qev_sink_parent_class)->finalize(object);
}

bool Open(GstQevSink* self) {
    try {
        const auto settings = [self] {
            const qel::ObjectLocked locked(self);
            return *self->settings;
        };
        self->stream->Start(settings());
        return true;
    } catch (const std::exception&) {
        qel::PostOpeningError(GST_ELEMENT(self));
        return false;
    }
}

/// The ring is open from PAUSED on, so that settings made in READY count and the statistics can
/// still be read from the bus at the end.
GstStateChangeReturn ChangeState(GstElement* element, GstStateChange change) {
    GstQevSink* const self = GST_QEV_SINK(element);
    if (change == GST_STATE_CHANGE_READY_TO_PAUSED && !Open(self)) {
        return GST_STATE_CHANGE_FAILURE;
    }
    const auto result = GST_ELEMENT_CLASS(gst_qev_sink_parent_class)->change_state(element, change);
    const bool isClosed =
        change == GST_STATE_CHANGE_PAUSED_TO_READY ||
        (change == GST_STATE_CHANGE_READY_TO_PAUSED && result == GST_STATE_CHANGE_FAILURE);
    if (isClosed) {
        qel::PostStats(element, self->stream->Stats());
        self->stream->Stop();
    }
    return result;
}

gboolean Unlock(GstBaseSink* sink) {
    GST_QEV_SINK(sink)->stream->Wake();
    return TRUE;
}

/// Runs `work` of the stream; what it throws becomes an element error.
template <typename Result, typename Work>
Result Guarded(GstBaseSink* sink, Result failure, const Work& work) {
    try {
        return work(*GST_QEV_SINK(sink)->stream);
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(sink, RESOURCE, WRITE, ("%s", error.what()), (nullptr));
        return failure;
    }
}

gboolean SetCaps(GstBaseSink* sink, GstCaps* caps) {
    return Guarded(sink, FALSE, [caps](SinkStream& stream) {
        stream.SetCaps(caps);
        return TRUE;
    });
}

gboolean HandleEvent(GstBaseSink* sink, GstEvent* event) {
    const gboolean isTold = Guarded(sink, FALSE, [event](SinkStream& stream) {
        stream.Tell(event);
        return TRUE;
    });
    if (isTold == FALSE) {
        gst_event_unref(event);
        return FALSE;
    }
    return GST_BASE_SINK_CLASS(gst_qev_sink_parent_class)->event(sink, event);
}

GstFlowReturn WaitEvent(GstBaseSink* sink, GstEvent* event) {
    const GstFlowReturn result =
        GST_BASE_SINK_CLASS(gst_qev_sink_parent_class)->wait_event(sink, event);
    if (result != GST_FLOW_OK || GST_EVENT_TYPE(event) != GST_EVENT_EOS) {
        return result;
    }
    return Guarded(sink, GST_FLOW_ERROR, [sink, event](SinkStream& stream) {
        const GstFlowReturn ended = stream.End(event);
        if (ended == GST_FLOW_OK) {
            qel::PostStats(GST_ELEMENT(sink), stream.Stats());
        }
        return ended;
    });
}

GstFlowReturn Render(GstBaseSink* sink, GstBuffer* buffer) {
    return Guarded(sink, GST_FLOW_ERROR,
                   [buffer](SinkStream& stream) { return stream.Render(buffer); });
}

void InstallProperties(GObjectClass* objectClass) {
    constexpr auto kWhileStopped = static_cast<GParamFlags>(
        G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    constexpr auto kToLookAt = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    InstallCommonProperties(objectClass, kLimits);
    g_object_class_install_property(
        objectClass, kMaxFrames,
        g_param_spec_uint("max-frames", "Packet limit",
                          "Packets in the ring at once, fillers included, less one; 0: as many as "
                          "fit. Counts for a ring that this element makes",
                          0, G_MAXUINT32, 0, kWhileStopped));
    g_object_class_install_property(
        objectClass, kWaitForSpace,
        g_param_spec_boolean("wait-for-space", "Wait for space",
                             "When the ring is full: wait, or drop the buffer and all up to the "
                             "next key frame",
                             TRUE, kWhileStopped));
    g_object_class_install_property(
        objectClass, kCriticalKeyFrames,
        g_param_spec_boolean("critical-keyframes", "Critical key frames",
                             "Let key frames use the room that ordinary packets leave free "
                             "(those of one memory)",
                             FALSE, kWhileStopped));
    g_object_class_install_property(
        objectClass, kDropped,
        g_param_spec_uint64("dropped", "Dropped", "Buffers dropped for lack of room", 0,
                            G_MAXUINT64, 0, kToLookAt));
}

}  // namespace

static void gst_qev_sink_class_init(GstQevSinkClass* klass) {
    auto* const objectClass = G_OBJECT_CLASS(klass);
    objectClass->set_property = SetProperty;
    objectClass->get_property = GetProperty;
    objectClass->finalize = Finalize;
    InstallProperties(objectClass);

    auto* const elementClass = GST_ELEMENT_CLASS(klass);
    elementClass->change_state = ChangeState;
    gst_element_class_add_static_pad_template(elementClass, &padTemplate);
    gst_element_class_set_static_metadata(
        elementClass, "Shared-memory ring sink", "Sink",
        "Writes packets to a ring in shared memory, for a chain of processes to read in place",
        "The qev shared memory developers");
    gst_element_class_add_static_metadata(
        elementClass, "example",
        "gst-launch-1.0 videotestsrc is-live=true ! video/x-raw,format=I420 ! qevsink name=camera");

    auto* const sinkClass = GST_BASE_SINK_CLASS(klass);
    sinkClass->unlock = Unlock;
    sinkClass->set_caps = SetCaps;
    sinkClass->event = HandleEvent;
    sinkClass->wait_event = WaitEvent;
    sinkClass->render = Render;
    gst_type_mark_as_plugin_api(qel::WakeUpType(), GstPluginAPIFlags(0));
}

static void gst_qev_sink_init(GstQevSink* self) {
    self->settings = new SinkSettings;
    self->settings->common.size = kLimits.defaultSize;
    self->settings->common.node = kLimits.firstNode;
    self->stream = new SinkStream(GST_BASE_SINK(self));
    // A transport passes on what comes; readers that show it keep the time.
    gst_base_sink_set_sync(GST_BASE_SINK(self), FALSE);
    gst_base_sink_set_last_sample_enabled(GST_BASE_SINK(self), FALSE);
    // Frames outside the segment are not shown, but others may refer to them.
    gst_base_sink_set_drop_out_of_segment(GST_BASE_SINK(self), FALSE);
}
