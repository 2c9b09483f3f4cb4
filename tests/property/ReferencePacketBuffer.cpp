#include "ReferencePacketBuffer.h"

namespace qel::test::reference {
namespace {

constexpr std::size_t kHeader = 26;

void Append(Bytes& bytes, std::uint64_t number, int width) {
    for (int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<unsigned char>((number >> (8 * i)) & 0xFFU));
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
    Fields filler;
    filler.length = first.index - kHeader;
    filler.ignoreData = true;
    const Written filled = ring_.WriteHeaderSkipPayload(filler.Image(), filler.length);
    if (filled.status == Status::WillWrap || filled.status == Status::NotEnoughSpace) {
        events_.Note("no room for a filler");
        return Status::InvalidParameter;
    }
    if (filled.status != Status::Success) {
        events_.Note("filler failed otherwise");
        return filled.status;
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
