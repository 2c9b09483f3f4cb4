#pragma once

#include <gst/gst.h>

#include <vector>

#include "ByteSpan.h"

namespace qel {

/// All memories of a buffer, mapped for reading one by one, so that nothing is merged.
class MappedMemories {
public:
    explicit MappedMemories(GstBuffer* buffer) {
        const guint count = gst_buffer_n_memory(buffer);
        maps_.reserve(count);
        for (guint i = 0; i < count; ++i) {
            GstMapInfo map;
            if (gst_memory_map(gst_buffer_peek_memory(buffer, i), &map, GST_MAP_READ) == FALSE) {
                complete_ = false;
                return;
            }
            maps_.push_back(map);
        }
    }
    ~MappedMemories() {
        for (GstMapInfo& map : maps_) {
            gst_memory_unmap(map.memory, &map);
        }
    }
    MappedMemories(const MappedMemories&) = delete;
    MappedMemories& operator=(const MappedMemories&) = delete;

    /// False if a memory cannot be mapped.
    [[nodiscard]] bool IsComplete() const noexcept { return complete_; }

    [[nodiscard]] std::vector<ByteSpan> Spans() const {
        std::vector<ByteSpan> spans;
        spans.reserve(maps_.size());
        for (const GstMapInfo& map : maps_) {
            spans.emplace_back(map.data, map.size);
        }
        return spans;
    }

private:
    std::vector<GstMapInfo> maps_;
    bool complete_ = true;
};

}  // namespace qel
