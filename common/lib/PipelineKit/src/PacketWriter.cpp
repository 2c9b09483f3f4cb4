#include "PacketWriter.h"

#include "RingRules.h"

namespace qel {

template <typename Attempt>
WriteOutcome PacketWriter::UntilWritten(bool isCritical, const Attempt& attempt) {
    idle_.Reset();
    while (true) {
        const SMStatusCode status = attempt();
        if (status == SMStatusCode::SUCCESS) {
            return WriteOutcome::Written;
        }
        const bool tryAgain = status == SMStatusCode::NOT_ENOUGH_SPACE ||
                              (isCritical && status == SMStatusCode::INVALID_PARAMETER);
        if (!tryAgain) {
            return WriteOutcome::Broken;
        }
        if (stop_ && stop_()) {
            return WriteOutcome::Stopped;
        }
        idle_.Idle();
    }
}

WriteOutcome PacketWriter::Write(const Packet& packet) {
    const auto largest = LargestPayload(ringSize_);
    if (!largest || packet.data.size() > *largest) {
        return WriteOutcome::NeverFits;
    }
    return UntilWritten(false, [&] { return ring_.WritePacket(packet); });
}

WriteOutcome PacketWriter::WriteCritical(const Packet& packet) {
    if (!CriticalPayloadFits(packet.data.size(), ringSize_)) {
        return WriteOutcome::NeverFits;
    }
    return UntilWritten(true, [&] { return ring_.WriteCriticalPacket(packet); });
}

WriteOutcome PacketWriter::WriteGathered(const Packet& packet, const std::vector<ByteSpan>& spans) {
    auto room = LargestPayload(ringSize_);
    for (const ByteSpan& span : spans) {
        if (!room || span.size() > *room) {
            return WriteOutcome::NeverFits;
        }
        *room -= span.size();
    }
    if (!room) {
        return WriteOutcome::NeverFits;
    }
    return UntilWritten(false, [&] { return ring_.WriteMultiDataPacket(packet, spans); });
}

WriteOutcome PacketWriter::Reserve(InPlaceWriter& inPlace, std::uint64_t size, ByteSpan& room) {
    const auto largest = LargestPayload(ringSize_);
    if (!largest || size > *largest) {
        return WriteOutcome::NeverFits;
    }
    return UntilWritten(false, [&] {
        const ReadResult reserved = inPlace.Reserve(size);
        room = reserved.data;
        return reserved.status;
    });
}

}  // namespace qel
