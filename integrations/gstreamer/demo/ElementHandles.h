#pragma once

#include <gst/gst.h>

#include <memory>

namespace qel {

struct UnrefObject {
    void operator()(gpointer object) const noexcept { gst_object_unref(object); }
};
struct UnrefMessage {
    void operator()(GstMessage* message) const noexcept { gst_message_unref(message); }
};

using ElementHandle = std::unique_ptr<GstElement, UnrefObject>;
using PadHandle = std::unique_ptr<GstPad, UnrefObject>;
using BusHandle = std::unique_ptr<GstBus, UnrefObject>;
using MessageHandle = std::unique_ptr<GstMessage, UnrefMessage>;

/// The bytes of a buffer, for reading; they stay where they are.
class MappedBuffer {
public:
    explicit MappedBuffer(GstBuffer* buffer)
        : buffer_(buffer), mapped_(gst_buffer_map(buffer, &map_, GST_MAP_READ) != FALSE) {}
    ~MappedBuffer() {
        if (mapped_) {
            gst_buffer_unmap(buffer_, &map_);
        }
    }
    MappedBuffer(const MappedBuffer&) = delete;
    MappedBuffer& operator=(const MappedBuffer&) = delete;

    [[nodiscard]] bool IsMapped() const noexcept { return mapped_; }
    [[nodiscard]] const guint8* Data() const noexcept { return map_.data; }
    [[nodiscard]] gsize Size() const noexcept { return map_.size; }

private:
    GstBuffer* buffer_;
    GstMapInfo map_ = GST_MAP_INFO_INIT;
    bool mapped_;
};

}  // namespace qel
