// Writing records into the ring at this node's write index.

#include <algorithm>
#include <gsl/algorithm>
#include <gsl/util>
#include <string>

#include "SharedBuffer.h"

namespace qel {

using std::to_string;

namespace {

constexpr const char* kMultiData = "DoWriteHeaderMultiData";
constexpr const char* kSkipPayload = "DoWriteHeaderSkipPayload";

}  // namespace

std::string SharedBuffer::Room::PacketsText() const {
    return " Max packets: " + to_string(maxPackets) + " Num packets: " + to_string(numPackets);
}

std::string SharedBuffer::Room::Text() const {
    return " Available: " + to_string(available) + PacketsText();
}

WriteResult SharedBuffer::DoWriteHeaderPayload(const ByteSpan& header, const ByteSpan& payload,
                                               bool isCritical) {
    const std::vector<ByteSpan> data{payload};
    return WriteHeaderMultiData(header, data, payload.size(), isCritical);
}

WriteResult SharedBuffer::DoWriteHeaderMultiData(const ByteSpan& header,
                                                 const std::vector<ByteSpan>& data,
                                                 std::uint64_t dataSize, bool isCritical) {
    const std::uint64_t packetLength = header.size() + dataSize;
    const std::uint64_t reserve = Reserve(isCritical, header.size());
    const Room room = LoadRoom();
    if (!room.Holds(packetLength, reserve) || !room.AllowsPackets(1)) {
        SetError(kMultiData, " Packet size: " + to_string(packetLength) +
                                 " Reserve: " + to_string(reserve) + room.Text());
        return {0, SMStatusCode::NOT_ENOUGH_SPACE};
    }
    const std::uint64_t start = gsl::at(control_->wIdx, nodeIdx_).load();
    if (const auto placed = CheckPlacement(kMultiData, start, header.size(), packetLength, room);
        placed.status != SMStatusCode::SUCCESS) {
        return placed;
    }

    std::uint64_t index = WriteData(start, header);
    for (const ByteSpan& part : data) {
        index = WriteData(index, part);
    }
    IncrementPackets();
    const SMStatusCode status = HandOn(packetLength);
    Advance(control_->wIdx, packetLength);
    return {index, status};
}

WriteResult SharedBuffer::DoWriteHeaderSkipPayload(const ByteSpan& header, std::uint64_t skipSize) {
    const std::uint64_t packetLength = header.size() + skipSize;
    const Room room = LoadRoom();
    // Only a shortage of bytes with packets still allowed refuses: at the packet limit the fill
    // record goes on all the same, and the accounting clamps and reports.
    if (!room.Holds(packetLength, 0) && room.AllowsPackets(1)) {
        SetError(kSkipPayload, " Packet size: " + to_string(packetLength) + room.Text());
        return {0, SMStatusCode::NOT_ENOUGH_SPACE};
    }
    const std::uint64_t start = gsl::at(control_->wIdx, nodeIdx_).load();
    if (const auto placed = CheckPlacement(kSkipPayload, start, header.size(), packetLength, room);
        placed.status != SMStatusCode::SUCCESS) {
        return placed;
    }

    WriteData(start, header);
    Advance(control_->wIdx, header.size());
    IncrementPackets();
    const SMStatusCode status = HandOn(packetLength);
    Advance(control_->wIdx, skipSize);
    return {gsl::at(control_->wIdx, nodeIdx_).load(), status};
}

WriteResult SharedBuffer::CheckPlacement(const char* operation, std::uint64_t start,
                                         std::uint64_t headerLength, std::uint64_t packetLength,
                                         const Room& room) {
    const std::uint64_t size = ShmSize();
    if (headerLength > size || Wrap(start) != start) {
        // Only a broken peer can bring this about: the counters or the index are forged.
        SetError(operation, " Invalid Write Index: " + to_string(start) + " Header: " +
                                to_string(headerLength) + " Size: " + to_string(size));
        return {0, SMStatusCode::INVALID_PARAMETER};
    }
    const std::uint64_t end = start + packetLength;
    if (end == size || end <= size - headerLength) {
        return {0, SMStatusCode::SUCCESS};
    }
    if (!room.AllowsPackets(2)) {  // a fill record and the packet
        SetError(operation, room.PacketsText());
        return {0, SMStatusCode::NOT_ENOUGH_SPACE};
    }
    SetError(operation,
             " PacketSize: " + to_string(packetLength) +
                 " exceeds size of physical shared memory, need to fill to start at beginning");
    return {size - start, SMStatusCode::WILL_WRAP};
}

std::uint64_t SharedBuffer::WriteData(std::uint64_t index, const ByteSpan& data) {
    const ByteSpan beforeEnd = dataArea_->subspan(index);
    const auto split = std::min(data.size(), beforeEnd.size());
    gsl::copy(data.first(split), beforeEnd);
    gsl::copy(data.subspan(split), *dataArea_);  // the contract check stops a lap over itself
    return Wrap(index + data.size());
}

SMStatusCode SharedBuffer::HandOn(std::uint64_t packetLength) {
    const bool clamped = DecreaseAvailableSize(packetLength, nodeIdx_);
    const SMStatusCode released = ReleaseData(packetLength, 1);
    if (released != SMStatusCode::SUCCESS) {
        return released;
    }
    return clamped ? SMStatusCode::INVALID_PARAMETER : SMStatusCode::SUCCESS;
}

}  // namespace qel
