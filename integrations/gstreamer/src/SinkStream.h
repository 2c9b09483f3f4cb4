#pragma once

#include <gst/base/gstbasesink.h>
#include <gst/video/video.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

#include "FrameLayout.h"
#include "MappedMemories.h"
#include "Settings.h"
#include "StreamWriter.h"

namespace qel {

/// How a sink writes, as its user has set it.
struct SinkSettings {
    CommonSettings common;
    guint maxFrames = 0;
    bool waitForSpace = true;
    bool criticalKeyFrames = false;
};

/// What happens between a sink's pad and a ring.
///
/// Thread use: the streaming thread; `Start` and `Stop` while that does not run; `Wake` and the
/// figures by any thread.
///
/// Invariant: after a buffer has been dropped, none is written before the next key frame: readers
/// get no frame that refers to one they have not got.
class SinkStream {
public:
    explicit SinkStream(GstBaseSink* sink) : sink_(sink) {}

    /// Opens the ring.
    /// @throws as StreamWriter; std::invalid_argument for settings that no stream can have
    void Start(const SinkSettings& settings);
    void Stop();

    void SetCaps(const GstCaps* caps);

    /// Passes on what readers have to know of an event. Waits for room beside the ring.
    void Tell(GstEvent* event);

    /// Writes a buffer; waits for room, unless the user wants buffers dropped.
    /// @return `GST_FLOW_ERROR` after an element error has been posted
    GstFlowReturn Render(GstBuffer* buffer);

    /// Writes the end mark for an end-of-stream event; waits for room.
    GstFlowReturn End(GstEvent* event);

    /// Makes a wait look at once whether the pad is flushing or the state has changed.
    void Wake() const;

    /// The caller's.
    [[nodiscard]] GstStructure* Stats() const;
    [[nodiscard]] guint64 Dropped() const noexcept { return dropped_.load(); }

private:
    GstFlowReturn Send(StreamWriter::Outgoing& outgoing, bool mayWait, GstMiniObject* cause);
    GstFlowReturn WaitForRoom(GstMiniObject* cause);
    GstFlowReturn Refuse(guint64 size);
    /// What an outgoing packet's payload is taken from, and lives as long as the packet is on its
    /// way.
    struct Origin {
        std::optional<MappedMemories> memories;
        std::optional<MappedFrame> frame;    ///< if it has to be laid out anew
        std::vector<unsigned char> laidOut;  ///< ahead, where that cannot be done in the ring
    };

    bool Take(GstBuffer* buffer, StreamWriter::Outgoing& outgoing, Origin& origin);
    void TellText(ControlKind kind, const std::string& text, ControlHead head);

    GstBaseSink* sink_;
    SinkSettings settings_;

    mutable std::mutex mutex_;  // guards writer_ against other threads
    std::unique_ptr<StreamWriter> writer_;

    std::optional<GstVideoInfo> video_;  // of raw video
    bool isRaw_ = false;                 // samples, which elements want aligned
    bool startsAnew_ = true;             // running time, with the next segment
    bool dropsUntilKeyFrame_ = false;

    std::atomic<guint64> packets_{0};
    std::atomic<guint64> bytes_{0};
    std::atomic<guint64> dropped_{0};
    std::atomic<guint64> copies_{0};
};

}  // namespace qel
