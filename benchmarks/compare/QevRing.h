#pragma once

#include <memory>
#include <optional>
#include <string>

#include "PacketReader.h"
#include "PacketWriter.h"
#include "SharedPacketBufferIF.h"
#include "Transport.h"

namespace qel::bench {

/// Opens a node of the ring `name`, populated if the cell says so.
[[nodiscard]] std::unique_ptr<SharedPacketBufferIF> OpenNode(const std::string& name,
                                                             const Cell& cell, unsigned node,
                                                             bool isSink);

/// Removes the ring `name` if it is there.
void RemoveRing(const std::string& name) noexcept;

/// Why a ring cannot carry a cell, if it cannot.
[[nodiscard]] std::optional<std::string> RefusalOfRing(const Cell& cell);

/// The message as a packet, in memory of the source.
[[nodiscard]] inline Packet PacketOf(Source& source, Stamp stamp) {
    Packet packet;
    packet.header.pts = static_cast<std::int64_t>(stamp.number);
    packet.data = {source.Stamped(stamp), source.Size()};
    return packet;
}

/// The ring as most users have it: through PipelineKit's writer ...
class KitSender final : public Sender {
public:
    KitSender(const std::string& name, const Cell& cell, WaitMode mode)
        : ring_(OpenNode(name, cell, 0, false)), writer_(*ring_, cell.ring, mode) {}

    void Send(Source& source, Stamp stamp) override;

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
    PacketWriter writer_;
};

/// ... and reader.
class KitReceiver : public Receiver {
public:
    KitReceiver(const std::string& name, const Cell& cell, WaitMode mode, unsigned node = 1,
                bool isSink = true)
        : ring_(OpenNode(name, cell, node, isSink)), reader_(*ring_, mode) {}

    View Next() override;
    void Release() override { (void)reader_.Release(ticket_); }

private:
    std::unique_ptr<SharedPacketBufferIF> ring_;
    PacketReader reader_;
    InOrderRelease::Ticket ticket_{};
};

}  // namespace qel::bench
