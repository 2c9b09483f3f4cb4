#include "ReferenceRing.h"

#include <utility>

namespace qel::test::reference {
namespace {

/// Stores the `width` low bytes of a number, lowest first.
void Store(std::array<unsigned char, kControlSize>& image, std::size_t offset, std::size_t width,
           std::uint64_t number) {
    for (std::size_t i = 0; i < width; ++i) {
        image.at(offset + i) = static_cast<unsigned char>((number >> (8 * i)) & 0xFFU);
    }
}

std::string Text(std::uint64_t number) {
    return std::to_string(number);
}

}  // namespace

void Segment::Open(std::uint32_t maxFrames) {
    if (initialised) {
        return;
    }
    initialised = true;
    halfSize = size / 2;
    quarterSize = size / 4;
    avail[0] = size;
    if (maxFrames != 0) {
        maxPackets = maxFrames + 1U;
    }
}

std::array<unsigned char, kControlSize> Segment::Image() const {
    std::array<unsigned char, kControlSize> image{};
    for (std::size_t i = 0; i < kNodes; ++i) {
        Store(image, 8 * i, 8, avail.at(i));
        Store(image, 40 + 8 * i, 8, wIdx.at(i));
        Store(image, 80 + 8 * i, 8, rIdx.at(i));
    }
    Store(image, 120, 4, numPackets);
    Store(image, 124, 1, initialised ? 1 : 0);
    Store(image, 128, 4, maxPackets);
    Store(image, 136, 8, halfSize);
    Store(image, 144, 8, quarterSize);
    return image;
}

Node::Node(Segment& segment, EventCounts& events, std::string name, unsigned index, bool sink,
           std::uint32_t maxFrames)
    : segment_(segment), events_(events), name_(std::move(name)), index_(index), sink_(sink) {
    segment_.Open(maxFrames);
}

Written Node::WriteHeaderPayload(const Bytes& header, const Bytes& payload, bool critical) {
    return WriteHeaderMultiData(header, {payload}, payload.size(), critical);
}

Written Node::WriteHeaderMultiData(const Bytes& header, const std::vector<Bytes>& spans,
                                   std::uint64_t dataSize, bool critical) {
    const std::uint64_t packetLength = header.size() + dataSize;
    const std::uint64_t reserve = critical ? 0 : 5 * header.size();
    const std::uint64_t available = segment_.avail.at(index_);
    const bool bytesShort = available < reserve + packetLength;
    if (bytesShort || CountIsAtLimit()) {
        events_.Note(bytesShort ? "write refused for bytes" : "write refused for packets");
        if (bytesShort && available >= packetLength) {
            events_.Note("write refused for the reserve alone");
        }
        error_ = "DoWriteHeaderMultiData " + name_ + " Packet size: " + Text(packetLength) +
                 " Reserve: " + Text(reserve) + " Available: " + Text(available) +
                 " Max packets: " + Text(segment_.maxPackets) +
                 " Num packets: " + Text(segment_.numPackets);
        return {0, Status::NotEnoughSpace};
    }
    Written refusal{};
    if (RefusedForWrap("DoWriteHeaderMultiData", header.size(), packetLength, refusal)) {
        return refusal;
    }
    if (critical && available < 5 * header.size() + packetLength) {
        events_.Note("critical write used the reserve");
    }
    std::uint64_t position = Copy(segment_.wIdx.at(index_), header);
    for (const auto& span : spans) {
        position = Copy(position, span);
    }
    CountIn();
    const bool clamped = TakeAvailable(packetLength);
    const Status released = ReleaseData(packetLength, 1);
    segment_.wIdx.at(index_) = Modulo(segment_.wIdx.at(index_) + packetLength);
    if (segment_.wIdx.at(index_) == 0) {
        events_.Note("record ended exactly at the end");
    }
    events_.Note("record written");
    return {position, WriteStatus(clamped, released)};
}

Written Node::WriteHeaderSkipPayload(const Bytes& header, std::uint64_t skipSize) {
    const std::uint64_t packetLength = header.size() + skipSize;
    const std::uint64_t available = segment_.avail.at(index_);
    if (available < packetLength) {
        if (!CountIsAtLimit()) {
            events_.Note("fill refused for bytes");
            error_ = "DoWriteHeaderSkipPayload " + name_ + " Packet size: " + Text(packetLength) +
                     " Available: " + Text(available) +
                     " Max packets: " + Text(segment_.maxPackets) +
                     " Num packets: " + Text(segment_.numPackets);
            return {0, Status::NotEnoughSpace};
        }
        events_.Note("fill went on short of bytes at the packet limit");
    }
    Written refusal{};
    if (RefusedForWrap("DoWriteHeaderSkipPayload", header.size(), packetLength, refusal)) {
        return refusal;
    }
    Copy(segment_.wIdx.at(index_), header);
    CountIn();
    const bool clamped = TakeAvailable(packetLength);
    const Status released = ReleaseData(packetLength, 1);
    segment_.wIdx.at(index_) = Modulo(segment_.wIdx.at(index_) + packetLength);
    events_.Note(segment_.wIdx.at(index_) == 0 ? "fill written exactly to the end"
                                               : "fill written");
    return {segment_.wIdx.at(index_), WriteStatus(clamped, released)};
}

Seen Node::ReadData(std::uint64_t index, std::uint64_t length) {
    if (index > segment_.size) {
        events_.Note("read at a bad index");
        error_ = "DoReadData " + name_ + " Invalid Read Index: " + Text(index) +
                 " Size: " + Text(segment_.size);
        return {0, 0, Status::InvalidParameter};
    }
    if (length > segment_.size) {
        events_.Note("read of a bad length");
        error_ = "DoReadData " + name_ + " Invalid Read Length: " + Text(length) +
                 " Size: " + Text(segment_.size);
        return {0, 0, Status::InvalidParameter};
    }
    if (index + length > segment_.size) {
        events_.Note("view cut at the end");
    }
    if (index + length >= segment_.size) {
        return {index, segment_.size - index, Status::Success};
    }
    return {index, length, Status::Success};
}

Seen Node::ReadHeader(std::uint64_t length) {
    pending_ = 0;
    if (segment_.avail.at(index_) < length) {
        events_.Note("header not available");
        return {0, 0, Status::DataNotAvailable};
    }
    const Seen view = ReadData(segment_.rIdx.at(index_), length);
    if (view.status != Status::Success) {
        return {0, 0, view.status};
    }
    pending_ = length;
    events_.Note("header read");
    return view;
}

SeenPayload Node::ReadPayload(std::uint64_t length) {
    // Unsigned, so that a forged length may come out small; the view is then refused.
    const std::uint64_t record = pending_ + length;
    const std::uint64_t available = segment_.avail.at(index_);
    if (record > available) {
        events_.Note("payload not available");
        error_ = "DoReadPayload " + name_ + " Trying to read " + Text(length) +
                 " bytes, but only " + Text(available) + " bytes available to read";
        return {{0, 0, Status::DataNotAvailable}, 0};
    }
    if (record < length) {
        events_.Note("forged payload length overflowed");
    }
    const std::uint64_t position = Modulo(segment_.rIdx.at(index_) + pending_);
    const Seen view = ReadData(position, length);
    TakeAvailable(record);
    segment_.rIdx.at(index_) = Modulo(segment_.rIdx.at(index_) + record);
    if (view.status == Status::Success) {
        events_.Note("payload read");
    }
    return {view, position};
}

Status Node::ReleaseData(std::uint64_t size, std::uint32_t count) {
    if (!sink_) {
        return GiveAvailable(size, index_ + 1) ? Status::InvalidParameter : Status::Success;
    }
    const bool bytesClamped = GiveAvailable(size, 0);
    const bool countClamped = CountOut(count);
    return bytesClamped || countClamped ? Status::InvalidParameter : Status::Success;
}

std::string Node::Print() {
    if (!error_.empty()) {
        events_.Note("error text shown");
    }
    std::string text =
        " {" + name_ + "} my node index " + Text(index_) + "\n" + " Error String: " + error_ + "\n";
    error_.clear();
    for (unsigned i = 0; i < kNodes; ++i) {
        text += "  Node[" + Text(i) + "]: wIdx=" + Text(segment_.wIdx.at(i)) +
                ", rIdx=" + Text(segment_.rIdx.at(i)) + ", avail=" + Text(segment_.avail.at(i)) +
                ", numPackets=" + Text(segment_.numPackets) + " of " + Text(segment_.maxPackets) +
                "\n";
    }
    return text;
}

bool Node::CountIsAtLimit() const {
    const std::uint32_t withOneMore = segment_.numPackets + 1U;
    return segment_.maxPackets != 0 && segment_.maxPackets < withOneMore;
}

bool Node::RefusedForWrap(const std::string& operation, std::uint64_t headerLength,
                          std::uint64_t packetLength, Written& refusal) {
    const std::uint64_t start = segment_.wIdx.at(index_);
    const std::uint64_t end = start + packetLength;
    if (end == segment_.size || end + headerLength <= segment_.size) {
        return false;
    }
    const std::uint32_t withTwoMore = segment_.numPackets + 2U;
    if (segment_.maxPackets != 0 && segment_.maxPackets < withTwoMore) {
        events_.Note("wrap refused for packets");
        error_ = operation + " " + name_ + " Max packets: " + Text(segment_.maxPackets) +
                 " Num packets: " + Text(segment_.numPackets);
        refusal = {0, Status::NotEnoughSpace};
        return true;
    }
    events_.Note(end > segment_.size ? "wrap asked for past the end"
                                     : "wrap asked for short of a header");
    error_ = operation + " " + name_ + " PacketSize: " + Text(packetLength) +
             " exceeds size of physical shared memory, need to fill to start at beginning";
    refusal = {segment_.size - start, Status::WillWrap};
    return true;
}

std::uint64_t Node::Copy(std::uint64_t position, const Bytes& bytes) {
    if (position + bytes.size() > segment_.size) {
        events_.Note("copy crossed the end");
    }
    for (const unsigned char byte : bytes) {
        segment_.data.at(position) = byte;
        position = Modulo(position + 1);
    }
    return position;
}

std::uint64_t Node::Modulo(std::uint64_t position) const {
    return segment_.size == 0 ? 0 : position % segment_.size;
}

void Node::CountIn() {
    if (index_ == 0 && segment_.maxPackets != 0) {
        ++segment_.numPackets;
    }
}

bool Node::TakeAvailable(std::uint64_t size) {
    auto& available = segment_.avail.at(index_);
    if (available >= size) {
        available -= size;
        return false;
    }
    events_.Note("taking clamped");
    KeepFirst("DecreaseAvailableSize " + name_ + " Reserving too much [current available=" +
              Text(available) + "], reserving " + Text(size));
    available = 0;
    return true;
}

bool Node::GiveAvailable(std::uint64_t size, unsigned node) {
    auto& available = segment_.avail.at(node);
    const std::uint64_t room = segment_.size - available;
    if (room >= size) {
        available += size;
        return false;
    }
    events_.Note("releasing clamped");
    KeepFirst("IncreaseAvailableSize " + name_ +
              " Releasing too much [total=" + Text(segment_.size) +
              "][current available=" + Text(available) + "], releasing " + Text(size));
    available = segment_.size;
    return true;
}

bool Node::CountOut(std::uint32_t count) {
    if (segment_.maxPackets == 0) {
        return false;
    }
    if (segment_.numPackets < count) {
        events_.Note("counting out clamped");
        KeepFirst("DecrementPackets " + name_ + " Releasing too many packets " + Text(count) +
                  ", numPackets " + Text(segment_.numPackets));
        segment_.numPackets = 0;
        return true;
    }
    segment_.numPackets -= count;
    return false;
}

Status Node::WriteStatus(bool clamped, Status released) const {
    if (released != Status::Success) {
        return released;
    }
    return clamped ? Status::InvalidParameter : Status::Success;
}

void Node::KeepFirst(const std::string& text) {
    if (error_.empty()) {
        error_ = text;
    } else {
        events_.Note("accounting text dropped for an earlier one");
    }
}

}  // namespace qel::test::reference
