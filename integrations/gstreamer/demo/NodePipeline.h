#pragma once

#include <gst/gst.h>

#include <functional>
#include <string>

#include "ElementHandles.h"
#include "FrameObserver.h"
#include "NodeCounters.h"

namespace qel {

/// The GStreamer pipeline of one node, with what the demo wants to know of it.
///
/// Two elements of it have names with a meaning: the one called as the ring, whose statistics are
/// published, and "seen", whose input is counted and shown to the observer.
///
/// Thread use: one thread; the observer is called by the pipeline's streaming thread.
class NodePipeline {
public:
    /// When `Run` is to end the stream, and whether it may return when the stream has ended.
    struct Requests {
        std::function<bool()> endStream;
        std::function<bool()> mayLeave;
    };

    /// @param description  as gst-launch-1.0 takes it
    /// @throws std::runtime_error when it cannot be made
    NodePipeline(const std::string& description, const std::string& ring, NodeCounters& counters,
                 FrameObserver* observer);
    ~NodePipeline();

    NodePipeline(const NodePipeline&) = delete;
    NodePipeline& operator=(const NodePipeline&) = delete;

    /// Sets the file that the element "file" reads or writes.
    void SetFile(const std::string& path);

    /// Links the first H.264 stream that the element "demux" finds to the element "seen".
    void LinkVideo();

    /// Plays until the end of the stream.
    /// @throws std::runtime_error with the text of the element that failed
    void Run(const Requests& requests);

private:
    [[nodiscard]] ElementHandle Find(const std::string& name) const;
    void Publish() const;
    void Count(GstBuffer* frame, GstPad* pad);
    static GstPadProbeReturn OnFrame(GstPad* pad, GstPadProbeInfo* info, gpointer self);

    ElementHandle pipeline_;
    ElementHandle ringElement_;
    NodeCounters& counters_;
    FrameObserver* observer_;
};

}  // namespace qel
