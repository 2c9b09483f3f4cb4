#include "KeyFrameDecoder.h"

#include <stdexcept>

#include "Luma.h"

namespace qel {
namespace {

PadHandle MakePad(GstPadDirection direction) {
    return PadHandle(GST_PAD(gst_object_ref_sink(gst_pad_new(nullptr, direction))));
}

}  // namespace

KeyFrameDecoder::KeyFrameDecoder()
    : decoder_(gst_element_factory_make("avdec_h264", nullptr)),
      input_(MakePad(GST_PAD_SRC)),
      output_(MakePad(GST_PAD_SINK)) {
    if (!decoder_) {
        throw std::runtime_error("no element \"avdec_h264\"");
    }
    gst_object_ref_sink(decoder_.get());
    // More threads would decode frames side by side, for which there are none.
    g_object_set(decoder_.get(), "max-threads", 1, nullptr);
    gst_pad_set_element_private(output_.get(), this);
    gst_pad_set_chain_function(output_.get(), OnPicture);
    gst_pad_set_event_function(output_.get(), OnEvent);
    const PadHandle sink(gst_element_get_static_pad(decoder_.get(), "sink"));
    const PadHandle source(gst_element_get_static_pad(decoder_.get(), "src"));
    (void)gst_pad_set_active(input_.get(), TRUE);
    (void)gst_pad_set_active(output_.get(), TRUE);
    (void)gst_pad_link(input_.get(), sink.get());
    (void)gst_pad_link(source.get(), output_.get());
    (void)gst_element_set_state(decoder_.get(), GST_STATE_PLAYING);
    (void)gst_pad_push_event(input_.get(), gst_event_new_stream_start("key-frames"));
}

KeyFrameDecoder::~KeyFrameDecoder() {
    (void)gst_element_set_state(decoder_.get(), GST_STATE_NULL);
}

void KeyFrameDecoder::SetFormat(GstCaps* caps) {
    if (caps_ && gst_caps_is_equal(caps_.get(), caps) != FALSE) {
        return;
    }
    caps_.reset(gst_caps_ref(caps));
    (void)gst_pad_push_event(input_.get(), gst_event_new_caps(caps));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    (void)gst_pad_push_event(input_.get(), gst_event_new_segment(&segment));
}

std::optional<double> KeyFrameDecoder::MeanLumaOf(GstBuffer* frame, GstCaps* caps) {
    luma_.reset();
    SetFormat(caps);
    (void)gst_pad_push(input_.get(), gst_buffer_ref(frame));
    // Behind a still picture the decoder waits for nothing more and gives out what it has.
    (void)gst_pad_push_event(input_.get(), gst_video_event_new_still_frame(TRUE));
    return luma_;
}

GstFlowReturn KeyFrameDecoder::OnPicture(GstPad* pad, GstObject* /*parent*/, GstBuffer* picture) {
    auto* const self = static_cast<KeyFrameDecoder*>(gst_pad_get_element_private(pad));
    if (self->pictureFormat_) {
        self->luma_ = MeanLuma(picture, *self->pictureFormat_, kWholePicture);
    }
    gst_buffer_unref(picture);
    return GST_FLOW_OK;
}

gboolean KeyFrameDecoder::OnEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
    auto* const self = static_cast<KeyFrameDecoder*>(gst_pad_get_element_private(pad));
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
        GstCaps* caps = nullptr;
        GstVideoInfo format;
        gst_event_parse_caps(event, &caps);
        self->pictureFormat_.reset();
        if (gst_video_info_from_caps(&format, caps) != FALSE) {
            self->pictureFormat_ = format;
        }
    }
    return gst_pad_event_default(pad, parent, event);
}

}  // namespace qel
