#pragma once

#include <gst/base/gstbasesrc.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "ControlRecord.h"
#include "Settings.h"
#include "SourceState.h"
#include "StreamReader.h"

namespace qel {

/// How a source reads, as its user has set it.
struct SourceSettings {
    CommonSettings common;
    bool sink = false;
    bool writable = false;
    gint64 maxOutstanding = -1;  ///< bytes, -1: three quarters of the ring
    std::string caps;            ///< for a stream that tells none
    bool startAtKeyFrame = true;
    bool alignTime = true;
    bool ignoreEos = false;
};

/// What happens between a ring and a source's pad.
///
/// Thread use: `Create` by the streaming thread; `Start` and `Stop` while that does not run;
/// `SetFlushing` and `Stats` by any thread.
///
/// Invariants:
///  1. A buffer is delivered under the caps that its packet was written for, or not at all.
///  2. After anything has been left out, the next buffer delivered is a key frame (unless the user
///     does not want that) and carries DISCONT.
///  3. Every packet read is handed on exactly once: by the memory that stands for it, or at once.
class SourceStream {
public:
    explicit SourceStream(GstBaseSrc* source) : source_(source), state_(source) {}

    /// @throws std::invalid_argument for settings that no stream can have
    void Start(const SourceSettings& settings);
    void Stop();

    /// Waits for the next buffer. What goes ahead of it has then been pushed or is pending.
    /// @throws as StreamReader when the ring cannot be opened; std::runtime_error if it is broken
    GstFlowReturn Create(GstBuffer** buffer);

    /// true ends every wait at once, until false.
    void SetFlushing(bool flushing);

    /// The caller's.
    [[nodiscard]] GstStructure* Stats() const;
    [[nodiscard]] guint64 Copies() const noexcept { return copies_.load(); }

private:
    bool Open();
    std::shared_ptr<StreamReader> MakeReader();
    std::optional<GstFlowReturn> Deliver(const ReceivedPacket& received, GstBuffer** buffer);
    bool IsWanted(const Packet& packet, const std::optional<ControlHead>& details);
    GstBuffer* MakeBuffer(const ReceivedPacket& received,
                          const std::optional<ControlHead>& details);

    GstBaseSrc* source_;
    SourceSettings settings_;
    StreamOptions options_{};

    mutable std::mutex mutex_;  // guards reader_ and flushing_ against other threads
    std::condition_variable flushed_;
    bool flushing_ = false;
    std::shared_ptr<StreamReader> reader_;
    std::weak_ptr<StreamReader> last_;                // alive while buffers of the last run are
    std::shared_ptr<std::atomic<bool>> lastHasGone_;  // set when its claim on the node has ended
    std::deque<ControlRecord> left_;                  // that the last run had read ahead
    StreamOptions leftBy_{};

    SourceState state_;
    bool awaitsKeyFrame_ = true;
    bool isDiscont_ = true;

    std::atomic<guint64> packets_{0};
    std::atomic<guint64> bytes_{0};
    std::atomic<guint64> copies_{0};
    std::atomic<guint64> skipped_{0};
};

}  // namespace qel
