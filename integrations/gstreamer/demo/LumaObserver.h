#pragma once

#include <optional>

#include "FrameObserver.h"
#include "Luma.h"
#include "NodeCounters.h"

namespace qel {

/// Mean brightness of two corners of raw frames, by which is seen who has drawn there.
class LumaObserver : public FrameObserver {
public:
    explicit LumaObserver(NodeCounters& counters) : counters_(counters) {}
    void See(GstBuffer* frame, GstCaps* caps) override;

private:
    NodeCounters& counters_;
    std::optional<GstVideoInfo> format_;
    double topLeft_ = 0;
    double bottomRight_ = 0;
    double frames_ = 0;
};

}  // namespace qel
