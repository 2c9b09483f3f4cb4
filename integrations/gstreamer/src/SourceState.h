#pragma once

#include <gst/base/gstbasesrc.h>

#include <cstdint>
#include <optional>
#include <string>

#include "ControlRecord.h"
#include "Packet.h"
#include "SourcePad.h"
#include "StreamReader.h"
#include "StreamState.h"

namespace qel {

/// What a source knows of the stream beside its packets, and has told downstream.
///
/// Thread use: the streaming thread; `Reset` while that does not run.
///
/// Invariant: a packet whose caps are not known, or were others, is not said to be known.
class SourceState {
public:
    explicit SourceState(GstBaseSrc* source) : source_(source), pad_(source) {}

    /// Begins a run at the stream `name`.
    /// @param givenCaps  those that the user gives a stream that tells none; may be empty
    void Reset(const std::string& name, const std::string& givenCaps, bool alignTime);

    /// To be called at the end of a stream: the next writer may be of another kind.
    void BeginStream();

    /// Takes in an event's record, and passes on what concerns downstream.
    void Apply(const ControlRecord& event);

    /// True if the caps of a packet are now those of the pad.
    /// @param details  of the packet's record; none: it has none
    bool KnowsCapsOf(StreamReader& reader, const Packet& packet,
                     const std::optional<ControlHead>& details);

    /// To be called for each buffer on its way, see SourcePad.
    void AheadOf(GstBuffer* buffer, const PacketHeader& header) { pad_.AheadOf(buffer, header); }

private:
    bool KnowsCaps(StreamReader& reader, std::uint32_t serial);
    bool KnowsCapsUnrecorded(StreamReader& reader, const Packet& packet);
    bool KnowsCapsOfLostRecord();
    void WarnOfUnknownCaps();
    [[nodiscard]] std::optional<StreamState> LoadState() const;
    [[nodiscard]] StreamState GivenState(std::uint32_t serial) const;
    bool Adopt(StreamState state);
    void SeekSegment();

    GstBaseSrc* source_;
    SourcePad pad_;
    std::string name_;
    std::string givenCaps_;
    StreamState state_;                // what downstream knows
    StreamState formerState_;          // of the last run, if that was at the same stream
    std::uint32_t refusedSerial_ = 0;  // caps that could not be found
    bool hasSeenRecord_ = false;       // so the writer makes one for each packet
    bool soughtCaps_ = false;          // of a stream without records
};

}  // namespace qel
