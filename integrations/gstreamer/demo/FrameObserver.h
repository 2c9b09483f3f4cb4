#pragma once

#include <gst/gst.h>

namespace qel {

/// Looks at the frames that pass through a node, where they lie.
///
/// Thread use: the streaming thread of the node's pipeline calls it.
class FrameObserver {
public:
    FrameObserver() = default;
    virtual ~FrameObserver() = default;
    FrameObserver(const FrameObserver&) = delete;
    FrameObserver& operator=(const FrameObserver&) = delete;

    /// @param frame  the caller's
    /// @param caps   its format, the caller's
    /// @throws std::runtime_error when the node cannot go on
    virtual void See(GstBuffer* frame, GstCaps* caps) = 0;
};

}  // namespace qel
