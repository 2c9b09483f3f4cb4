#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "IdleStrategy.h"
#include "InOrderRelease.h"
#include "Packet.h"
#include "SMStatusCode.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// How a read ended.
enum class ReadOutcome {
    Packet,       ///< a packet of content
    EndOfStream,  ///< the end mark, to be finished like a packet so that the next node gets it
    Stopped,      ///< the wait was ended; nothing was read
    Broken,       ///< the ring's counters are inconsistent
};

/// What a read took from the ring. Ticket and packet count for the first two outcomes only.
struct [[nodiscard]] ReceivedPacket {
    ReadOutcome outcome;
    InOrderRelease::Ticket ticket;
    Packet packet;  ///< its data lies in the ring until the ticket is finished
};

/// Reads packets, waits for them, and gives their space back in the ring's order. Fillers are
/// released silently.
///
/// Thread use: as for the ring, one thread at a time; `Finish` alone may be called by any thread,
/// see InOrderRelease.
class PacketReader {
public:
    /// @param ring  must outlive this object
    /// @param stop  asked before each attempt to read; empty: never stop
    explicit PacketReader(SharedPacketBufferIF& ring, WaitMode mode = WaitMode::Adaptive,
                          StopPredicate stop = {})
        : ring_(ring), releases_(ring), idle_(mode), stop_(std::move(stop)) {}

    /// Takes the next packet; while it waits it releases what other threads finish.
    ReceivedPacket Next();

    /// As `Next`, but does not wait and does not ask whether to stop: nothing if no packet waits.
    std::optional<ReceivedPacket> TryNext();

    /// Marks a packet as no longer needed; its space goes back with a later `Next` or `Release`.
    bool Finish(InOrderRelease::Ticket ticket) { return releases_.Finish(ticket); }

    /// Finishes a packet and gives all space back that is due.
    /// @return `INVALID_PARAMETER` when the ring's counters are inconsistent
    SMStatusCode Release(InOrderRelease::Ticket ticket);

    /// Packets that have been read and not given back: the bound on what this node withholds.
    [[nodiscard]] InOrderRelease::Outstanding GetOutstanding() const {
        return releases_.GetOutstanding();
    }

    /// Fillers met so far, one for each time that the writer went back to the ring's start.
    [[nodiscard]] std::uint64_t Fillers() const noexcept { return fillers_; }

private:
    SharedPacketBufferIF& ring_;
    InOrderRelease releases_;
    IdleStrategy idle_;
    StopPredicate stop_;
    std::uint64_t fillers_ = 0;
};

}  // namespace qel
