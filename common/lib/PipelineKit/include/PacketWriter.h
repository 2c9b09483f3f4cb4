#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "ByteSpan.h"
#include "IdleStrategy.h"
#include "InPlaceWriter.h"
#include "Packet.h"
#include "SMStatusCode.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// How writing a packet ended.
enum class [[nodiscard]] WriteOutcome{
    Written,    ///< the packet is in the ring
    Stopped,    ///< there was no room and the wait was ended; nothing was written
    NeverFits,  ///< the packet is too large for this ring at any time; nothing was written
    Broken,     ///< the ring's counters are inconsistent
};

/// Writes packets and waits for room.
///
/// Which answers of the ring mean "try again": `NOT_ENOUGH_SPACE` always, since packets that can
/// never fit are refused before the ring is asked; `INVALID_PARAMETER` of a critical write, whose
/// filler found no room at present. An ordinary write never meets the latter in a sound ring.
///
/// Thread use: as for the ring, one thread at a time.
class PacketWriter {
public:
    /// @param ring      must outlive this object
    /// @param ringSize  bytes of the ring's data area
    /// @param stop      asked before each pause while there is no room; empty: never stop
    PacketWriter(SharedPacketBufferIF& ring, std::uint64_t ringSize,
                 WaitMode mode = WaitMode::Adaptive, StopPredicate stop = {})
        : ring_(ring), ringSize_(ringSize), idle_(mode), stop_(std::move(stop)) {}

    /// Writes an ordinary packet, see SharedPacketBufferIF::WritePacket.
    WriteOutcome Write(const Packet& packet);

    /// Writes a packet that may use the reserve of critical ones.
    WriteOutcome WriteCritical(const Packet& packet);

    /// Writes an ordinary packet with a payload gathered from `spans`; its own data is ignored.
    WriteOutcome WriteGathered(const Packet& packet, const std::vector<ByteSpan>& spans);

    /// Reserves room for a payload of up to `size` bytes, see InPlaceWriter::Reserve, and sets
    /// `room` to it. Written: it is reserved.
    /// @param inPlace  of the same ring, without a reservation
    WriteOutcome Reserve(InPlaceWriter& inPlace, std::uint64_t size, ByteSpan& room);

private:
    template <typename Attempt>
    WriteOutcome UntilWritten(bool isCritical, const Attempt& attempt);

    SharedPacketBufferIF& ring_;
    std::uint64_t ringSize_;
    IdleStrategy idle_;
    StopPredicate stop_;
};

}  // namespace qel
