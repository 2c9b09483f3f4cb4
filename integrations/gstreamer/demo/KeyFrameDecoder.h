#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

#include <optional>

#include "ElementHandles.h"
#include "GstHandles.h"

namespace qel {

/// Decodes single key frames of H.264 and measures their brightness.
///
/// It stands beside the node's pipeline: a decoder in the pipeline would hold a key frame, and with
/// it the ring's memory, until the next one comes. This one is fed where the frame lies, is drained
/// at once and keeps nothing.
///
/// Thread use: one thread, which does all the decoding.
class KeyFrameDecoder {
public:
    /// @throws std::runtime_error when there is no decoder
    KeyFrameDecoder();
    ~KeyFrameDecoder();

    KeyFrameDecoder(const KeyFrameDecoder&) = delete;
    KeyFrameDecoder& operator=(const KeyFrameDecoder&) = delete;

    /// Mean brightness of the picture, or nothing when it cannot be decoded alone.
    /// @param frame  a key frame, the caller's
    /// @param caps   its format, the caller's
    [[nodiscard]] std::optional<double> MeanLumaOf(GstBuffer* frame, GstCaps* caps);

private:
    static GstFlowReturn OnPicture(GstPad* pad, GstObject* parent, GstBuffer* picture);
    static gboolean OnEvent(GstPad* pad, GstObject* parent, GstEvent* event);
    void SetFormat(GstCaps* caps);

    ElementHandle decoder_;
    PadHandle input_;
    PadHandle output_;
    CapsHandle caps_;
    std::optional<GstVideoInfo> pictureFormat_;
    std::optional<double> luma_;
};

}  // namespace qel
