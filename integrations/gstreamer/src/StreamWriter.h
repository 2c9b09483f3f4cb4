#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "CapsBlock.h"
#include "ControlRecord.h"
#include "ControlWriter.h"
#include "IdleStrategy.h"
#include "InPlaceWriter.h"
#include "PacketWriter.h"
#include "StreamNode.h"

namespace qel {

/// A writing node: packets with their control records, and events.
///
/// Thread use: one thread at a time; `Wake` and `ControlDropped` by any thread.
class StreamWriter {
public:
    static constexpr std::chrono::seconds kBetweenStates{1};

    /// @throws as StreamNode and CapsBlock
    explicit StreamWriter(const StreamOptions& options);

    /// A packet on its way.
    struct Outgoing {
        Packet packet;                ///< data counts if there are no spans
        std::vector<ByteSpan> spans;  ///< its payload in pieces
        /// Makes the payload where it is to lie, in place of data and spans.
        std::function<void(const ByteSpan& room)> fill;
        std::uint64_t size = 0;  ///< bytes of the payload
        bool critical = false;   ///< may use the reserve; only a payload in one piece does
        bool aligned = false;    ///< its payload goes to an aligned address, see PaddingAhead
        ControlHead head;
        bool announced = false;  ///< its record is written, or left out
    };

    /// Tries once to write a packet, and its record ahead of it. Now and then, and with the end
    /// mark, the state goes ahead of that: a reader started when this writer has gone finds it
    /// there.
    /// @param mayWait  false: the packet will not be tried again
    /// @return `Stopped` if there is no room at present
    WriteOutcome TryWrite(Outgoing& outgoing, bool mayWait = true);

    /// Tells readers of caps, a segment, tags or an event, also those that come late. Waits for
    /// room on the control ring.
    /// @param stop  ends the wait, and then readers are not told; empty: never
    /// @return false if late readers will not know: it is too large for the block
    bool Tell(ControlKind kind, const std::string& text, ControlHead head,
              const StopPredicate& stop = {});

    /// Waits for room, see StreamNode::Wait.
    void Wait() { node_.Wait(); }
    void Wake() const { node_.Wake(); }

    /// Records that found no room on the control ring.
    [[nodiscard]] std::uint64_t ControlDropped() const noexcept { return control_.Dropped(); }

    /// Bytes of the largest payload that can ever be written, as an ordinary packet.
    [[nodiscard]] std::uint64_t LargestPacket() const noexcept;

private:
    bool TryAnnounce(Outgoing& outgoing, bool mayWait);
    bool TryRepeatState(const Packet& packet, bool mayWait);
    WriteOutcome TryPad(const Outgoing& outgoing);
    WriteOutcome TryFill(const Outgoing& outgoing);

    StreamOptions options_;
    StreamNode node_;
    PacketWriter packets_;
    InPlaceWriter inPlace_;
    ControlWriter control_;
    CapsBlock block_;
    StreamState state_;
    std::chrono::steady_clock::time_point repeated_{};
};

}  // namespace qel
