#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "CapsBlock.h"
#include "ControlRecord.h"
#include "PacketWriter.h"
#include "StreamNode.h"

namespace qel {

/// A writing node: packets with their control records, and events.
///
/// The control ring never holds up the stream: when it has been full for `kControlPatience` (a node
/// of the chain takes no part in it), records are left out and counted until there is room again.
///
/// Thread use: one thread at a time; `Wake` by any thread.
class StreamWriter {
public:
    static constexpr std::chrono::milliseconds kControlPatience{100};
    static constexpr std::chrono::seconds kBetweenStates{1};

    /// @throws as StreamNode and CapsBlock
    explicit StreamWriter(const StreamOptions& options);

    /// A packet on its way: its record goes out once, however often its writing is tried.
    struct Outgoing {
        Packet packet;                ///< data counts if there are no spans
        std::vector<ByteSpan> spans;  ///< its payload in pieces
        bool critical = false;        ///< may use the reserve; a payload in pieces never does
        ControlHead head;
    };

    /// Puts the packet's record on the control ring: ahead of the first `TryWrite`. Now and then,
    /// and with the end mark, the state goes ahead of it: a reader started when this writer has
    /// gone finds it there.
    void Announce(Outgoing& outgoing);

    /// Tries once to write a packet.
    /// @return `Stopped` if there is no room at present
    WriteOutcome TryWrite(const Outgoing& outgoing);

    /// Tells readers of caps, a segment, tags or an event, also those that come late.
    /// @return false if late readers will not know: it is too large for the block
    bool Tell(ControlKind kind, const std::string& text, ControlHead head);

    /// Waits for room, see StreamNode::Wait.
    void Wait() { node_.Wait(); }
    void Wake() const { node_.Wake(); }

    /// Records that found no room on the control ring.
    [[nodiscard]] std::uint64_t ControlDropped() const noexcept { return controlDropped_; }

    /// Bytes of the largest payload that can ever be written, as an ordinary packet.
    [[nodiscard]] std::uint64_t LargestPacket() const noexcept;

private:
    void RepeatState(const Packet& packet);
    void WriteControl(ControlHead& head, const std::string& text);

    StreamOptions options_;
    StreamNode node_;
    PacketWriter packets_;
    PacketWriter control_;
    CapsBlock block_;
    StreamState state_;
    std::chrono::steady_clock::time_point repeated_{};
    std::atomic<std::uint64_t> controlDropped_{0};
    bool controlIsFull_ = false;
};

}  // namespace qel
