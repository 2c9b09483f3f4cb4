#pragma once

#include <gst/gst.h>

#include <memory>
#include <string>

namespace qel {

/// Frees what GStreamer hands out for its receiver to free.
struct GstFree {
    void operator()(GstStructure* structure) const { gst_structure_free(structure); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
    void operator()(GstTagList* tags) const { gst_tag_list_unref(tags); }
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    void operator()(gchar* text) const { g_free(text); }
};

using StructureHandle = std::unique_ptr<GstStructure, GstFree>;
using CapsHandle = std::unique_ptr<GstCaps, GstFree>;
using TagListHandle = std::unique_ptr<GstTagList, GstFree>;
using BufferHandle = std::unique_ptr<GstBuffer, GstFree>;
using TextHandle = std::unique_ptr<gchar, GstFree>;

/// Holds an object's lock.
class ObjectLocked {
public:
    explicit ObjectLocked(gpointer object) : object_(object) { GST_OBJECT_LOCK(object_); }
    ~ObjectLocked() { GST_OBJECT_UNLOCK(object_); }
    ObjectLocked(const ObjectLocked&) = delete;
    ObjectLocked& operator=(const ObjectLocked&) = delete;

private:
    gpointer object_;
};

[[nodiscard]] inline std::string TextOf(const GstStructure* structure) {
    return TextHandle(gst_structure_to_string(structure)).get();
}

}  // namespace qel
