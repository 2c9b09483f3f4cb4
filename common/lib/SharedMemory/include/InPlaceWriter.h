#pragma once

#include <cstdint>
#include <memory>

#include "PacketHeader.h"
#include "QevExport.h"
#include "SMStatusCode.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// Writes packets where they are to lie: a client reserves room in the ring, fills it, and hands it
/// on, so that a decoder, a camera or a `read` can put its bytes there without a copy.
///
///     const auto room = writer.Reserve(most);          // at the node's write index
///     if (room.status == SMStatusCode::SUCCESS) {
///         const std::size_t length = Fill(room.data);  // no more than `most`
///         (void)writer.Commit(header, length);
///     }
///
/// For readers it is a packet as any other. A reservation changes nothing that the other nodes see:
/// who dies with one, or gives it up, leaves the ring as it was, but for the filler that took the
/// writer back to the start, if there was one. (At the write index the head of a filler stands
/// meanwhile, by which those who only look on know how many bytes may change. Where a ring is
/// recorded, room of which not all is used should be filled from its start.)
///
/// While a reservation is held, the node must not write in another way: the packet would lie where
/// the reservation does. (Commit refuses then.)
///
/// Thread use: as for the ring. No operation waits, locks, allocates, makes a system call or
/// throws.
class QEV_EXPORT InPlaceWriter {
public:
    /// @param buffer  of node 0, as the library has made it; must outlive this object
    /// @throws std::invalid_argument for one that the library has not made
    explicit InPlaceWriter(SharedPacketBufferIF& buffer);
    ~InPlaceWriter();
    InPlaceWriter(const InPlaceWriter&) = delete;
    InPlaceWriter& operator=(const InPlaceWriter&) = delete;

    /// Reserves room for a payload of up to `size` bytes, under the rules of an ordinary write:
    /// room for five more headers and, with a packet limit, for one more packet is left. Fillers
    /// are written as an ordinary write does; besides where the packet would end exactly at the
    /// ring's end, since a shorter one must leave room for a header.
    /// @return `SUCCESS` and the room; `NOT_ENOUGH_SPACE` when there is none at present;
    ///         `INVALID_PARAMETER` when a reservation is held already, when the ring can never take
    ///         it, or when its counters are inconsistent
    ReadResult Reserve(std::uint64_t size);

    /// Hands the reserved room on as a packet of `length` bytes, which may be fewer than were
    /// reserved; the rest is free again. The header's own length is not used.
    /// @return `SUCCESS`; `INVALID_PARAMETER` when nothing is reserved or `length` is more than was
    ///         (the reservation stays), when the node has written in another way meanwhile (it is
    ///         given up), or when the accounting was clamped
    SMStatusCode Commit(const PacketHeader& header, std::uint64_t length);

    /// Gives the reservation up; does nothing if none is held.
    void GiveUp() noexcept;

    [[nodiscard]] bool HasReservation() const noexcept;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qel
