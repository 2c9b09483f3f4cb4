#include "PacketReader.h"

#include "EndOfStream.h"

namespace qel {

std::optional<ReceivedPacket> PacketReader::TryNext() {
    while (true) {
        if (releases_.ReleaseFinished() != SMStatusCode::SUCCESS) {
            return ReceivedPacket{ReadOutcome::Broken, 0, {}};
        }
        const ReadNextPacketResult read = ring_.ReadNextPacket();
        if (read.status == SMStatusCode::DATA_NOT_AVAILABLE) {
            return std::nullopt;
        }
        if (read.status != SMStatusCode::SUCCESS) {
            return ReceivedPacket{ReadOutcome::Broken, 0, {}};
        }
        const InOrderRelease::Ticket ticket = releases_.Add(read.packet);
        if (!read.packet.header.ignoreData) {
            const bool atEnd = IsEndOfStream(read.packet);
            return ReceivedPacket{atEnd ? ReadOutcome::EndOfStream : ReadOutcome::Packet, ticket,
                                  read.packet};
        }
        ++fillers_;
        releases_.Finish(ticket);
    }
}

ReceivedPacket PacketReader::Next() {
    idle_.Reset();
    while (!stop_ || !stop_()) {
        if (auto received = TryNext()) {
            return *received;
        }
        idle_.Idle();
    }
    return {ReadOutcome::Stopped, 0, {}};
}

SMStatusCode PacketReader::Release(InOrderRelease::Ticket ticket) {
    return releases_.Release(ticket);
}

}  // namespace qel
