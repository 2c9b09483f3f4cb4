/// The element qevsrc: what GObject and GStreamer ask of it. What it does is in SourceStream.
#include "QevSrc.h"

#include <exception>
#include <memory>

#include "GstHandles.h"
#include "SourceStream.h"

using qel::SourceSettings;
using qel::SourceStream;

struct _GstQevSrc {
    GstPushSrc parent;
    SourceSettings*
        settings;  // guarded by the object's lock; those of a run are fixed at its start
    SourceStream* stream;
};

G_DEFINE_TYPE(GstQevSrc, gst_qev_src, GST_TYPE_PUSH_SRC)
GST_ELEMENT_REGISTER_DEFINE(qevsrc, "qevsrc", GST_RANK_NONE, gst_qev_src_get_type())

namespace {

enum Property : guint {
    kSink = qel::kFirstOwnProperty,
    kWritable,
    kMaxOutstanding,
    kCaps,
    kStartAtKeyFrame,
    kAlignTime,
    kIgnoreEos,
    kCopies,
};

constexpr qel::CommonLimits kLimits{
    "Bytes of the ring; 0: as large as its writer has made it, which is waited for", 0,
    "This element's place in the chain: it reads what the node before it hands on", 1, 4};

GstStaticPadTemplate padTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    const qel::ObjectLocked locked(object);
    SourceSettings& settings = *GST_QEV_SRC(object)->settings;
    if (SetCommonProperty(settings.common, id, value)) {
        return;
    }
    switch (id) {
        case kSink:
            settings.sink = g_value_get_boolean(value) != FALSE;
            break;
        case kWritable:
            settings.writable = g_value_get_boolean(value) != FALSE;
            break;
        case kMaxOutstanding:
            settings.maxOutstanding = g_value_get_int64(value);
            break;
        case kCaps: {
            const GstCaps* const caps = gst_value_get_caps(value);
            settings.caps = caps == nullptr ? "" : qel::TextHandle(gst_caps_to_string(caps)).get();
            break;
        }
        case kStartAtKeyFrame:
            settings.startAtKeyFrame = g_value_get_boolean(value) != FALSE;
            break;
        case kAlignTime:
            settings.alignTime = g_value_get_boolean(value) != FALSE;
            break;
        case kIgnoreEos:
            settings.ignoreEos = g_value_get_boolean(value) != FALSE;
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    const GstQevSrc* const self = GST_QEV_SRC(object);
    const qel::ObjectLocked locked(object);
    const SourceSettings& settings = *self->settings;
    if (GetCommonProperty(settings.common, id, value)) {
        return;
    }
    switch (id) {
        case static_cast<guint>(qel::CommonProperty::Stats):
            g_value_take_boxed(value, self->stream->Stats());
            break;
        case kSink:
            g_value_set_boolean(value, settings.sink ? TRUE : FALSE);
            break;
        case kWritable:
            g_value_set_boolean(value, settings.writable ? TRUE : FALSE);
            break;
        case kMaxOutstanding:
            g_value_set_int64(value, settings.maxOutstanding);
            break;
        case kCaps:
            g_value_take_boxed(value, settings.caps.empty()
                                          ? nullptr
                                          : gst_caps_from_string(settings.caps.c_str()));
            break;
        case kStartAtKeyFrame:
            g_value_set_boolean(value, settings.startAtKeyFrame ? TRUE : FALSE);
            break;
        case kAlignTime:
            g_value_set_boolean(value, settings.alignTime ? TRUE : FALSE);
            break;
        case kIgnoreEos:
            g_value_set_boolean(value, settings.ignoreEos ? TRUE : FALSE);
            break;
        case kCopies:
            g_value_set_uint64(value, self->stream->Copies());
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    }
}

void Finalize(GObject* object) {
    GstQevSrc* const self = GST_QEV_SRC(object);
    delete self->stream;
    delete self->settings;
    G_OBJECT_CLASS(gst_qev_src_parent_class)->finalize(object);
}

gboolean Start(GstBaseSrc* source) {
    GstQevSrc* const self = GST_QEV_SRC(source);
    try {
        const auto settings = [self] {
            const qel::ObjectLocked locked(self);
            return *self->settings;
        };
        self->stream->Start(settings());
        return TRUE;
    } catch (const std::exception&) {
        qel::PostOpeningError(GST_ELEMENT(source));
        return FALSE;
    }
}

gboolean Stop(GstBaseSrc* source) {
    SourceStream& stream = *GST_QEV_SRC(source)->stream;
    qel::PostStats(GST_ELEMENT(source), stream.Stats());
    stream.Stop();
    return TRUE;
}

gboolean Unlock(GstBaseSrc* source) {
    GST_QEV_SRC(source)->stream->SetFlushing(true);
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* source) {
    GST_QEV_SRC(source)->stream->SetFlushing(false);
    return TRUE;
}

GstFlowReturn Create(GstPushSrc* source, GstBuffer** buffer) {
    SourceStream& stream = *GST_QEV_SRC(source)->stream;
    try {
        const GstFlowReturn result = stream.Create(buffer);
        if (result == GST_FLOW_EOS) {
            qel::PostStats(GST_ELEMENT(source), stream.Stats());
        }
        return result;
    } catch (const std::exception&) {
        qel::PostOpeningError(GST_ELEMENT(source));
        return GST_FLOW_ERROR;
    }
}

/// The ring is a queue: it holds what a sink that keeps the time does not want yet.
gboolean AnswerQuery(GstBaseSrc* source, GstQuery* query) {
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        gst_query_set_latency(query, TRUE, 0, GST_CLOCK_TIME_NONE);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(gst_qev_src_parent_class)->query(source, query);
}

gboolean IsSeekable(GstBaseSrc* /*source*/) {
    return FALSE;
}

void InstallProperties(GObjectClass* objectClass) {
    constexpr auto kWhileStopped = static_cast<GParamFlags>(
        G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    constexpr auto kToLookAt = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    InstallCommonProperties(objectClass, kLimits);
    const auto flag = [objectClass](guint id, const char* name, const char* nick, const char* text,
                                    bool preset) {
        g_object_class_install_property(
            objectClass, id,
            g_param_spec_boolean(name, nick, text, preset ? TRUE : FALSE, kWhileStopped));
    };
    flag(kSink, "sink", "Sink",
         "The last node of the chain, which gives the space back to the writer", false);
    flag(kWritable, "writable", "Writable",
         "Let elements change the packet where it lies, so that the next node sees the change; "
         "otherwise who writes gets a copy",
         false);
    g_object_class_install_property(
        objectClass, kMaxOutstanding,
        g_param_spec_int64("max-outstanding", "Most outstanding bytes",
                           "Bytes of the ring that buffers may hold at once; beyond it buffers are "
                           "copies. -1: three quarters of the ring, 0: always copy",
                           -1, G_MAXINT64, -1, kWhileStopped));
    g_object_class_install_property(
        objectClass, kCaps,
        g_param_spec_boxed("caps", "Caps",
                           "Caps of a stream whose writer tells none, as one that is no element",
                           GST_TYPE_CAPS, kWhileStopped));
    flag(kStartAtKeyFrame, "start-at-key-frame", "Start at a key frame",
         "Hand packets on unseen until the first key frame", true);
    flag(kAlignTime, "align-time", "Align time",
         "Give the first buffer the running time at which it was captured, by way of the segment; "
         "time stamps stay as they were sent",
         true);
    flag(kIgnoreEos, "ignore-eos", "Ignore end of stream",
         "Stay at the end of a stream and deliver the next writer's", false);
    g_object_class_install_property(
        objectClass, kCopies,
        g_param_spec_uint64("copies", "Copies", "Buffers that had to be copied", 0, G_MAXUINT64, 0,
                            kToLookAt));
}

}  // namespace

static void gst_qev_src_class_init(GstQevSrcClass* klass) {
    auto* const objectClass = G_OBJECT_CLASS(klass);
    objectClass->set_property = SetProperty;
    objectClass->get_property = GetProperty;
    objectClass->finalize = Finalize;
    InstallProperties(objectClass);

    auto* const elementClass = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(elementClass, &padTemplate);
    gst_element_class_set_static_metadata(
        elementClass, "Shared-memory ring source", "Source",
        "Reads packets in place from a ring in shared memory, as one node of a chain of processes",
        "The qev shared memory developers");
    gst_element_class_add_static_metadata(
        elementClass, "example",
        "gst-launch-1.0 qevsrc name=camera sink=true ! videoconvert ! autovideosink");
    gst_element_class_add_static_metadata(elementClass, "example-stage",
                                          "gst-launch-1.0 qevsrc name=camera node=1 writable=true "
                                          "! textoverlay text=stage ! fakesink "
                                          "sync=false enable-last-sample=false");

    auto* const sourceClass = GST_BASE_SRC_CLASS(klass);
    sourceClass->start = Start;
    sourceClass->stop = Stop;
    sourceClass->unlock = Unlock;
    sourceClass->unlock_stop = UnlockStop;
    sourceClass->is_seekable = IsSeekable;
    sourceClass->query = AnswerQuery;
    GST_PUSH_SRC_CLASS(klass)->create = Create;
    gst_type_mark_as_plugin_api(qel::WakeUpType(), GstPluginAPIFlags(0));
}

static void gst_qev_src_init(GstQevSrc* self) {
    self->settings = new SourceSettings;
    self->settings->common.size = kLimits.defaultSize;
    self->settings->common.node = kLimits.firstNode;
    self->stream = new SourceStream(GST_BASE_SRC(self));
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
    // The end is where the writer says: frames in coding order run past the segment's end and back.
    gst_base_src_set_automatic_eos(GST_BASE_SRC(self), FALSE);
}
