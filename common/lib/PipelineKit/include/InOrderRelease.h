#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Packet.h"
#include "SMStatusCode.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// Lets a node finish packets in any order although the ring takes them back in reading order only.
///
/// Thread use: the thread that uses the ring calls `Add`, `Release` and `ReleaseFinished`, and
/// never waits but while a longer list is made; any thread calls `Finish` and `GetOutstanding`.
///
/// Invariants:
///  1. Every packet read is added once, fillers included, in reading order: the ring counts bytes
///     and does not know packets, so a filler given back early would free an older packet's bytes.
///  2. Tickets rise by one with each `Add`; the outstanding ones are consecutive, and each has the
///     entry that its lowest bits say.
///  3. A packet goes back to the ring only when it and all older ones are finished.
///  4. Each packet is released by a call of its own, because a ring with a packet limit counts
///     calls.
///  5. Only the ring's thread writes entries, but for `unfinished`, which goes from the ticket to
///     `kNone` once, by whoever finishes first. That store (release) pairs with the load by which
///     the ring's thread finds the packet finished (acquire): all that was done with its data is
///     done.
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

    /// Finishes a packet and gives back all that is due. For the ring's thread, which needs no lock
    /// for it; nobody else may finish the packet at the same time.
    /// @return as `ReleaseFinished`
    SMStatusCode Release(Ticket ticket);

    /// Gives the longest run of finished packets, from the oldest on, back to the ring.
    /// @return `SUCCESS`, or the first other status of a release; the run is given back all the
    ///         same
    SMStatusCode ReleaseFinished();

    /// For other threads than the ring's the two figures may be of different moments, and order
    /// nothing.
    [[nodiscard]] Outstanding GetOutstanding() const noexcept;

private:
    static constexpr Ticket kNone = ~Ticket{0};
    static constexpr std::size_t kFirstEntries = 16;

    struct Entry {
        Packet packet;
        std::atomic<Ticket> unfinished{kNone};  ///< the ticket, until it is finished
    };

    [[nodiscard]] Entry& EntryOf(Ticket ticket) const noexcept {
        return entries_[ticket & (capacity_ - 1)];
    }
    void MakeRoom();
    void TellOutstanding() noexcept;

    SharedPacketBufferIF& ring_;
    std::mutex mutex_;  // held to replace the entries, and by threads that do not replace them
    std::unique_ptr<Entry[]> entries_ = std::make_unique<Entry[]>(kFirstEntries);
    std::size_t capacity_ = kFirstEntries;  // a power of two

    // The ring's thread alone.
    Ticket oldest_ = 0;
    Ticket next_ = 0;
    std::uint64_t bytes_ = 0;

    // Told to others.
    std::atomic<std::size_t> outstandingPackets_{0};
    std::atomic<std::uint64_t> outstandingBytes_{0};
};

}  // namespace qel
