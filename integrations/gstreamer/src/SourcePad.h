#pragma once

#include <gst/base/gstbasesrc.h>

#include <optional>
#include <string>

#include "PacketHeader.h"

namespace qel {

/// What goes down a source's pad ahead of its buffers: caps, segments, tags and events.
///
/// Thread use: the streaming thread.
///
/// Invariant: the segments of one stream are all shifted by the same running time, so that their
/// distance stays what the writer meant.
class SourcePad {
public:
    explicit SourcePad(GstBaseSrc* source) : source_(source) {}

    /// Begins a run.
    /// @param alignTime  shift running times to the moments of capture by this pipeline's clock
    void Reset(bool alignTime);

    /// @return false, with no effect, if these are no caps of a stream
    bool SetCaps(const std::string& text);

    /// Takes the segment of what comes next, unless it is none.
    /// @param startsAnew  running time begins again with it
    void SetSegment(const std::string& text, bool startsAnew);
    [[nodiscard]] bool KnowsSegment() const noexcept { return knowsSegment_; }

    void SendTags(const std::string& text, GstTagScope scope);

    /// Sends a custom event, in order with the buffers.
    void SendCustom(const std::string& text);

    /// Sends a gap. Ahead of a segment it would have no meaning and is left out.
    void SendGap(GstClockTime start, GstClockTime duration);

    /// To be called for each buffer on its way: what has to go ahead of it does.
    void AheadOf(GstBuffer* buffer, const PacketHeader& header);

private:
    void Send(GstEvent* event);
    void Push(GstEvent* event);
    void Queue(GstEvent* event);
    [[nodiscard]] bool IsFlowing() const noexcept { return hasSent_ && !segment_; }

    GstBaseSrc* source_;
    bool alignTime_ = true;
    bool hasSent_ = false;               // a buffer
    std::optional<GstSegment> segment_;  // to be sent ahead of the next buffer
    bool knowsSegment_ = false;
    std::optional<GstClockTimeDiff> shift_;
};

}  // namespace qel
