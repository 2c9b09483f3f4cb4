#pragma once

#include <memory>
#include <vector>

#include "SharedBufferIF.h"
#include "SharedPacketBufferIF.h"

namespace qel {

/// Packets on top of a ring: each is one record, a PacketHeader and its payload.
///
/// Thread rules: those of the ring it owns. A write that wraps is three steps of the ring and not
/// atomic as a whole, so a segment has one writer.
class SharedPacketBuffer : public SharedPacketBufferIF {
public:
    explicit SharedPacketBuffer(std::unique_ptr<SharedBufferIF> ring);

    [[nodiscard]] SharedBufferIF& Ring() noexcept { return *ring_; }

    /// Writes a filler that takes exactly the `room` bytes before the end of the ring.
    SMStatusCode FillToEnd(std::uint64_t room);

private:
    SMStatusCode DoReleasePacket(const Packet& packet) override;
    SMStatusCode DoReleasePackets(std::vector<Packet> packets) override;
    SMStatusCode DoWritePacket(const Packet& packet) override;
    SMStatusCode DoWriteCriticalPacket(const Packet& packet) override;
    SMStatusCode DoWriteMultiDataPacket(const Packet& packet,
                                        const std::vector<ByteSpan>& spans) override;
    ReadNextPacketResult DoReadNextPacket() override;
    void DoPrint(LogLevel level) override;
    Capacity DoGetCurrentCapacity() override;
    ReadResult DoReadData(unsigned long index, unsigned long length) override;

    SMStatusCode WritePacketIsCritical(const Packet& packet, bool isCritical);
    template <typename Write>
    SMStatusCode WriteOrFillAndRetry(const Write& write);

    std::unique_ptr<SharedBufferIF> ring_;
};

}  // namespace qel
