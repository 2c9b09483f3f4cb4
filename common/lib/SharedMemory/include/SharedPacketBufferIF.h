#pragma once

#include <cstdint>
#include <iosfwd>
#include <utility>
#include <vector>

#include "ByteSpan.h"
#include "EventBoundary.h"
#include "LogLevel.h"
#include "Packet.h"
#include "QevExport.h"
#include "SMStatusCode.h"
#include "SharedBufferIF.h"

namespace qel {

/// Outcome of reading a packet.
struct [[nodiscard]] ReadNextPacketResult {
    Packet packet;        ///< all zero and empty on failure
    std::uint64_t index;  ///< offset of the payload in the ring's data area, 0 on failure
    SMStatusCode status;
};

/// A queue of packets in a shared ring, seen from one node of its chain.
///
/// A packet that would run past the end of the ring is preceded by a filler, which every reader
/// receives as a packet with `header.ignoreData` set and must release like any other.
///
/// Thread use and crashes: as for SharedBufferIF. No operation waits, locks, makes a system call or
/// throws.
class QEV_EXPORT SharedPacketBufferIF {
public:
    /// What a frame means to the pipeline around it. The library only prints it.
    struct CtlData {
        bool controlOnly = false;  ///< the frame carries control information only
        std::uint64_t dataOffset = 0;
        std::uint64_t dataSize = 0;  ///< bytes
        bool ignoreDataFrame = false;
        std::uint32_t ptsDuration = 0;  ///< in presentation-time units
        std::uint32_t startTick = 0;
        std::uint32_t stopTick = 0;
        std::uint8_t frameIdx = 0;
        EventBoundary eventStartBoundary;
        bool fileStart = false;
        EventBoundary eventStopBoundary;
        bool fileStop = false;
        std::uint8_t stopPipelineId = 0;
        std::uint32_t timeStamp = 0;
        bool stopWritingToStorageBoundary = false;
        bool startWritingToStorageBoundary = false;
    };

    SharedPacketBufferIF() = default;
    virtual ~SharedPacketBufferIF();
    SharedPacketBufferIF(const SharedPacketBufferIF&) = delete;
    SharedPacketBufferIF& operator=(const SharedPacketBufferIF&) = delete;

    /// Hands the packet's space on: to the next node, or from the sink back to the writer.
    SMStatusCode ReleasePacket(const Packet& packet) { return DoReleasePacket(packet); }

    /// Hands on the space of all `packets`, but counts them as one packet: a sink of a ring with a
    /// packet limit releases one by one.
    SMStatusCode ReleasePackets(std::vector<Packet> packets) {
        return DoReleasePackets(std::move(packets));
    }

    /// Copies a packet into the ring. `packet.header.length` is ignored, the size of `packet.data`
    /// counts.
    /// @return `SUCCESS`; `NOT_ENOUGH_SPACE` when the ring or its packet limit is full at present;
    ///         `INVALID_PARAMETER` when the packet fits neither before the end of the ring nor,
    ///         for lack of room, a filler
    SMStatusCode WritePacket(const Packet& packet) { return DoWritePacket(packet); }

    /// As `WritePacket`, and may use the room of five headers that ordinary writes leave free.
    SMStatusCode WriteCriticalPacket(const Packet& packet) { return DoWriteCriticalPacket(packet); }

    /// As `WritePacket`, with a payload gathered from `spans`; `packet.data` is ignored.
    SMStatusCode WriteMultiDataPacket(const Packet& packet, const std::vector<ByteSpan>& spans) {
        return DoWriteMultiDataPacket(packet, spans);
    }

    /// Takes the next packet for this node. Its data lies in the ring and is valid until the packet
    /// is released; every packet read must be released, in the order of reading.
    /// @return `DATA_NOT_AVAILABLE` when none waits; `INVALID_PARAMETER` for an inconsistent ring
    ReadNextPacketResult ReadNextPacket() { return DoReadNextPacket(); }

    /// See SharedBufferIF::Print.
    void Print(LogLevel level) { DoPrint(level); }

    [[nodiscard]] Capacity GetCurrentCapacity() { return DoGetCurrentCapacity(); }

    /// See SharedBufferIF::ReadData.
    ReadResult ReadData(unsigned long index, unsigned long length) {
        return DoReadData(index, length);
    }

private:
    virtual SMStatusCode DoReleasePacket(const Packet& packet) = 0;
    virtual SMStatusCode DoReleasePackets(std::vector<Packet> packets) = 0;
    virtual SMStatusCode DoWritePacket(const Packet& packet) = 0;
    virtual SMStatusCode DoWriteCriticalPacket(const Packet& packet) = 0;
    virtual SMStatusCode DoWriteMultiDataPacket(const Packet& packet,
                                                const std::vector<ByteSpan>& spans) = 0;
    virtual ReadNextPacketResult DoReadNextPacket() = 0;
    virtual void DoPrint(LogLevel level) = 0;
    virtual Capacity DoGetCurrentCapacity() = 0;
    virtual ReadResult DoReadData(unsigned long index, unsigned long length) = 0;
};

/// Writes all fields of `control` on several lines, without a final line end.
QEV_EXPORT std::ostream& operator<<(std::ostream& stream,
                                    const SharedPacketBufferIF::CtlData& control);

}  // namespace qel
