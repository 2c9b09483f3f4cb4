#include "SharedPacketBuffer.h"

#include <cstddef>
#include <gsl/algorithm>
#include <utility>

#include "HeaderCopy.h"

namespace qel {
namespace {

ByteSpan BytesOf(PacketHeader& header) {
    return {reinterpret_cast<unsigned char*>(&header), kPacketHeaderSize};
}

PacketHeader WithLength(const PacketHeader& header, std::uint64_t length) {
    PacketHeader copy;
    CopyHeader(BytesOf(copy).data(), reinterpret_cast<const unsigned char*>(&header));
    copy.length = length;
    return copy;
}

std::uint64_t RecordLength(const Packet& packet) {
    return kPacketHeaderSize + packet.data.size();
}

/// Takes a header as it stands in the ring, which may be cut short and may hold anything. Flags are
/// made 0 or 1, the only values that a bool can have.
void TakeHeader(const ByteSpan& bytes, PacketHeader& header) {
    const ByteSpan raw = BytesOf(header);
    if (bytes.size() == kPacketHeaderSize) {
        CopyHeader(raw.data(), bytes.data());
    } else {
        gsl::copy(bytes, raw);  // a longer source violates the contract and ends the process
    }
    for (const std::size_t flag :
         {offsetof(PacketHeader, ignoreData), offsetof(PacketHeader, key)}) {
        raw[flag] = raw[flag] != 0 ? 1 : 0;
    }
}

}  // namespace

SharedPacketBuffer::SharedPacketBuffer(std::unique_ptr<SharedBufferIF> ring)
    : ring_(std::move(ring)) {}

[[gnu::flatten]] SMStatusCode SharedPacketBuffer::DoReleasePacket(const Packet& packet) {
    return ring_->ReleaseData(RecordLength(packet), 1);
}

SMStatusCode SharedPacketBuffer::DoReleasePackets(std::vector<Packet> packets) {
    std::uint64_t total = 0;
    for (const Packet& packet : packets) {
        total += RecordLength(packet);
    }
    return ring_->ReleaseData(total, 1);  // one packet, however many there are
}

[[gnu::flatten]] SMStatusCode SharedPacketBuffer::DoWritePacket(const Packet& packet) {
    return WritePacketIsCritical(packet, false);
}

SMStatusCode SharedPacketBuffer::DoWriteCriticalPacket(const Packet& packet) {
    return WritePacketIsCritical(packet, true);
}

SMStatusCode SharedPacketBuffer::WritePacketIsCritical(const Packet& packet, bool isCritical) {
    PacketHeader header = WithLength(packet.header, packet.data.size());
    return WriteOrFillAndRetry(
        [&] { return ring_->WriteHeaderPayload(BytesOf(header), packet.data, isCritical); });
}

SMStatusCode SharedPacketBuffer::DoWriteMultiDataPacket(const Packet& packet,
                                                        const std::vector<ByteSpan>& spans) {
    std::uint64_t size = 0;
    for (const ByteSpan& span : spans) {
        size += span.size();
    }
    PacketHeader header = WithLength(packet.header, size);
    return WriteOrFillAndRetry(
        [&] { return ring_->WriteHeaderMultiData(BytesOf(header), spans, size, false); });
}

/// Calls `write`; when the record does not fit before the end of the ring, fills up to the end and
/// calls it once more.
template <typename Write>
SMStatusCode SharedPacketBuffer::WriteOrFillAndRetry(const Write& write) {
    const WriteResult first = write();
    if (first.status != SMStatusCode::WILL_WRAP) {
        return first.status;
    }
    if (const SMStatusCode filled = FillToEnd(first.index); filled != SMStatusCode::SUCCESS) {
        return filled;
    }
    const SMStatusCode second = write().status;
    return second == SMStatusCode::WILL_WRAP ? SMStatusCode::INVALID_PARAMETER : second;
}

SMStatusCode SharedPacketBuffer::FillToEnd(std::uint64_t room) {
    if (room < kPacketHeaderSize) {
        return SMStatusCode::INVALID_PARAMETER;  // only a forged write index leaves so little
    }
    PacketHeader header;
    header.length = room - kPacketHeaderSize;
    header.ignoreData = true;
    const SMStatusCode status =
        ring_->WriteHeaderSkipPayload(BytesOf(header), room - kPacketHeaderSize).status;
    const bool noRoom =
        status == SMStatusCode::WILL_WRAP || status == SMStatusCode::NOT_ENOUGH_SPACE;
    return noRoom ? SMStatusCode::INVALID_PARAMETER : status;
}

[[gnu::flatten]] ReadNextPacketResult SharedPacketBuffer::DoReadNextPacket() {
    // Made where the caller wants it, and nowhere else: a copy costs as much as the rest.
    ReadNextPacketResult next{{}, 0, SMStatusCode::SUCCESS};
    const ReadResult header = ring_->ReadHeader(kPacketHeaderSize);
    if (header.status != SMStatusCode::SUCCESS) {
        next.status = header.status;
        return next;
    }
    TakeHeader(header.data, next.packet.header);
    const PayloadResult payload = ring_->ReadPayload(next.packet.header.length);
    if (payload.status != SMStatusCode::SUCCESS) {
        // A header whose payload is missing is a broken ring, not an empty one.
        const bool missing = payload.status == SMStatusCode::DATA_NOT_AVAILABLE;
        next.packet = {};
        next.status = missing ? SMStatusCode::INVALID_PARAMETER : payload.status;
        return next;
    }
    next.packet.data = payload.data;
    next.index = payload.index;
    return next;
}

void SharedPacketBuffer::DoPrint(LogLevel level) {
    ring_->Print(level);
}

Capacity SharedPacketBuffer::DoGetCurrentCapacity() {
    return ring_->GetCurrentCapacity();
}

ReadResult SharedPacketBuffer::DoReadData(unsigned long index, unsigned long length) {
    return ring_->ReadData(index, length);
}

}  // namespace qel
