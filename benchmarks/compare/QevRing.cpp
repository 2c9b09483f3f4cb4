#include "QevRing.h"

#include <fmt/format.h>

#include <stdexcept>

#include "OpenRing.h"
#include "PopulateRing.h"
#include "RingObject.h"
#include "RingRules.h"

namespace qel::bench {

std::unique_ptr<SharedPacketBufferIF> OpenNode(const std::string& name, const Cell& cell,
                                               unsigned node, bool isSink) {
    SharedBufferIF::BufferInfo info{name, cell.ring};
    info.nodeIdx = static_cast<std::uint8_t>(node);
    info.sink = isSink;
    auto ring = OpenRing(info);
    if (cell.populate) {
        PopulateRing(*ring, cell.ring);
    }
    return ring;
}

void RemoveRing(const std::string& name) noexcept {
    try {
        RingObject::Unlink(name);
    } catch (const std::exception&) {
        return;  // nobody came as far as making it
    }
}

std::optional<std::string> RefusalOfRing(const Cell& cell) {
    const auto largest = LargestPayload(cell.ring);
    if (!largest || cell.size > *largest) {
        return fmt::format("a ring of {} bytes holds no packet of {}", cell.ring, cell.size);
    }
    return std::nullopt;
}

void KitSender::Send(Source& source, Stamp stamp) {
    if (writer_.Write(PacketOf(source, stamp)) != WriteOutcome::Written) {
        throw std::runtime_error("the ring does not take a packet");
    }
}

Receiver::View KitReceiver::Next() {
    const ReceivedPacket received = reader_.Next();
    if (received.outcome != ReadOutcome::Packet) {
        throw std::runtime_error("the ring does not give a packet");
    }
    ticket_ = received.ticket;
    return {received.packet.data.data(), received.packet.data.size()};
}

}  // namespace qel::bench
