#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include "Packet.h"
#include "SMStatusCode.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// Lets a node finish packets in any order although the ring takes them back in reading order only.
///
/// Thread use: the thread that uses the ring calls `Add` and `ReleaseFinished`; any thread calls
/// `Finish` and `GetOutstanding`. No thread waits for another but for the few instructions of a
/// list operation.
///
/// Invariants:
///  1. Every packet read is added once, fillers included, in reading order: the ring counts bytes
///     and does not know packets, so a filler given back early would free an older packet's bytes.
///  2. Tickets rise by one with each `Add`; the outstanding ones are consecutive.
///  3. A packet goes back to the ring only when it and all older ones are finished.
///  4. Each packet is released by a call of its own, because a ring with a packet limit counts
///     calls.
class InOrderRelease {
public:
    /// Names an added packet; never used twice.
    using Ticket = std::uint64_t;

    /// What has been read and has not gone back to the ring.
    struct Outstanding {
        std::size_t packets;
        std::uint64_t bytes;  ///< their room in the ring, headers included
    };

    /// @param ring  must outlive this object
    explicit InOrderRelease(SharedPacketBufferIF& ring) : ring_(ring) {}
    InOrderRelease(const InOrderRelease&) = delete;
    InOrderRelease& operator=(const InOrderRelease&) = delete;

    /// Takes note of a packet just read. Its data stays valid until its ticket is finished.
    Ticket Add(const Packet& packet);

    /// Marks a packet as no longer needed; its data must not be touched any more.
    /// @return false, with no effect, when the ticket is not outstanding or is finished already
    bool Finish(Ticket ticket);

    /// Gives the longest run of finished packets, from the oldest on, back to the ring.
    /// @return `SUCCESS`, or the first other status of a release; the run is given back all the
    ///         same
    SMStatusCode ReleaseFinished();

    [[nodiscard]] Outstanding GetOutstanding() const;

private:
    struct Entry {
        Packet packet;
        bool finished;
    };

    SharedPacketBufferIF& ring_;
    mutable std::mutex mutex_;  // guards all below
    std::deque<Entry> entries_;
    Ticket oldest_ = 0;
    std::uint64_t bytes_ = 0;
};

}  // namespace qel
