#include "PacketReader.h"

#include "EndOfStream.h"

namespace qel {

ReceivedPacket PacketReader::Next() {
    idle_.Reset();
    while (!stop_ || !stop_()) {
        if (releases_.ReleaseFinished() != SMStatusCode::SUCCESS) {
            return {ReadOutcome::Broken, 0, {}};
        }
        const ReadNextPacketResult read = ring_.ReadNextPacket();
        if (read.status == SMStatusCode::DATA_NOT_AVAILABLE) {
            idle_.Idle();
            continue;
        }
        if (read.status != SMStatusCode::SUCCESS) {
            return {ReadOutcome::Broken, 0, {}};
        }
        const InOrderRelease::Ticket ticket = releases_.Add(read.packet);
        if (!read.packet.header.ignoreData) {
            const bool atEnd = IsEndOfStream(read.packet);
            return {atEnd ? ReadOutcome::EndOfStream : ReadOutcome::Packet, ticket, read.packet};
        }
        ++fillers_;
        releases_.Finish(ticket);
        idle_.Reset();
    }
    return {ReadOutcome::Stopped, 0, {}};
}

SMStatusCode PacketReader::Release(InOrderRelease::Ticket ticket) {
    releases_.Finish(ticket);
    return releases_.ReleaseFinished();
}

}  // namespace qel
