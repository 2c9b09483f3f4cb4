#include "ReferencePacketBuffer.h"

namespace qel::test::reference {
namespace {

constexpr std::size_t kHeader = 26;

void Append(Bytes& bytes, std::uint64_t number, int width) {
    for (int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<unsigned char>((number >> (8 * i)) & 0xFFU));
    }
}

void Store(Segment& segment, std::uint64_t place, const Bytes& bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        segment.data.at(place + i) = bytes.at(i);
    }
}

}  // namespace

Bytes Fields::Image() const {
    Bytes bytes;
    Append(bytes, length, 8);
    Append(bytes, ignoreData ? 1 : 0, 1);
    Append(bytes, static_cast<std::uint64_t>(pts), 8);
    Append(bytes, key ? 1 : 0, 1);
    Append(bytes, timestampSec, 4);
    Append(bytes, timestampUsec, 4);
    return bytes;
}

Status PacketNode::Write(const Fields& fields, const Bytes& payload, bool critical) {
    return WriteAll(fields, {payload}, critical);
}

Status PacketNode::WriteMultiData(const Fields& fields, const std::vector<Bytes>& spans) {
    return WriteAll(fields, spans, false);
}

Status PacketNode::WriteAll(Fields fields, const std::vector<Bytes>& spans, bool critical) {
    fields.length = 0;
    for (const auto& span : spans) {
        fields.length += span.size();
    }
    const Bytes header = fields.Image();
    const Written first = ring_.WriteHeaderMultiData(header, spans, fields.length, critical);
    if (first.status != Status::WillWrap) {
        return first.status;
    }
    if (const Status filled = Fill(first.index); filled != Status::Success) {
        return filled;
    }
    const Written second = ring_.WriteHeaderMultiData(header, spans, fields.length, critical);
    if (second.status == Status::WillWrap) {
        events_.Note("would wrap again after the filler");
        return Status::InvalidParameter;
    }
    events_.Note(second.status == Status::NotEnoughSpace ? "no space after the filler"
                                                         : "written after a filler");
    return second.status;
}

Status PacketNode::Fill(std::uint64_t room) {
    Fields filler;
    filler.length = room - kHeader;
    filler.ignoreData = true;
    const Written filled = ring_.WriteHeaderSkipPayload(filler.Image(), filler.length);
    if (filled.status == Status::WillWrap || filled.status == Status::NotEnoughSpace) {
        events_.Note("no room for a filler");
        return Status::InvalidParameter;
    }
    if (filled.status != Status::Success) {
        events_.Note("filler failed otherwise");
    }
    return filled.status;
}

Seen PacketNode::Reserve(Segment& segment, unsigned node, std::uint64_t size) {
    const auto refuse = [this](const char* situation, Status status) {
        events_.Note(situation);
        return Seen{0, 0, status};
    };
    const auto hasRoom = [&](std::uint32_t packets) {
        return segment.avail.at(node) >= size + 6 * kHeader &&
               (segment.maxPackets == 0 || segment.numPackets + packets <= segment.maxPackets);
    };
    if (size + 2 * kHeader > segment.size) {
        return refuse("reservation that can never be", Status::InvalidParameter);
    }
    if (!hasRoom(1)) {
        return refuse("no room to reserve", Status::NotEnoughSpace);
    }
    if (segment.wIdx.at(node) + size + 2 * kHeader > segment.size) {
        if (!hasRoom(2)) {
            return refuse("no room to reserve behind a filler", Status::NotEnoughSpace);
        }
        if (const Status filled = Fill(segment.size - segment.wIdx.at(node));
            filled != Status::Success) {
            return refuse("filler ahead of a reservation failed", filled);
        }
        if (!hasRoom(1)) {
            return refuse("no room to reserve after the filler", Status::NotEnoughSpace);
        }
        events_.Note("reserved after a filler");
    }
    Fields filler;
    filler.length = size;
    filler.ignoreData = true;
    const std::uint64_t start = segment.wIdx.at(node);
    Store(segment, start, filler.Image());
    return {start + kHeader, size, Status::Success};
}

Status PacketNode::Commit(Segment& segment, std::uint64_t place, Fields fields,
                          const Bytes& payload) {
    Store(segment, place, payload);
    fields.length = payload.size();
    return ring_.WriteHeaderSkipPayload(fields.Image(), payload.size()).status;
}

ReadPacket PacketNode::ReadNext(const Segment& segment) {
    const Bytes none(kHeader);
    const Seen header = ring_.ReadHeader(kHeader);
    if (header.status != Status::Success) {
        return {none, {0, 0, header.status}, 0};
    }
    // A view that the end of the ring cuts short leaves the rest of the header zero.
    Bytes bytes(kHeader);
    for (std::uint64_t i = 0; i < header.length; ++i) {
        bytes.at(i) = segment.data.at(header.offset + i);
    }
    if (header.length < kHeader) {
        events_.Note("header cut short");
    }
    // A flag is 0 or 1 in a header, whatever a damaged ring holds.
    for (const std::size_t flag : {8U, 17U}) {
        bytes.at(flag) = bytes.at(flag) == 0 ? 0 : 1;
    }
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        length += std::uint64_t{bytes.at(i)} << (8 * i);
    }
    const SeenPayload payload = ring_.ReadPayload(length);
    if (payload.view.status == Status::Success) {
        events_.Note(bytes.at(8) == 0 ? "packet read" : "filler read");
        return {bytes, payload.view, payload.index};
    }
    events_.Note("packet without its payload");
    const Status status = payload.view.status == Status::DataNotAvailable ? Status::InvalidParameter
                                                                          : payload.view.status;
    return {none, {0, 0, status}, 0};
}

Status PacketNode::Release(std::uint64_t dataSize) {
    return ring_.ReleaseData(kHeader + dataSize, 1);
}

Status PacketNode::ReleaseSeveral(const std::vector<std::uint64_t>& dataSizes) {
    std::uint64_t total = 0;
    for (const std::uint64_t size : dataSizes) {
        total += kHeader + size;
    }
    return ring_.ReleaseData(total, 1);
}

}  // namespace qel::test::reference
