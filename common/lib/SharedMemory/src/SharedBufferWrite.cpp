// Writing records into the ring at this node's write index.

#include <algorithm>
#include <cstring>
#include <gsl/algorithm>
#include <gsl/util>

#include "CopyPastCache.h"
#include "HeaderCopy.h"
#include "SharedBuffer.h"

namespace qel {

[[gnu::flatten]] WriteResult SharedBuffer::DoWriteHeaderPayload(const ByteSpan& header,
                                                                const ByteSpan& payload,
                                                                bool isCritical) {
    std::vector<ByteSpan>& onePart = Area().onePart;
    onePart.front() = payload;
    return WriteHeaderMultiData(header, onePart, payload.size(), isCritical);
}

[[gnu::flatten]] WriteResult SharedBuffer::DoWriteHeaderMultiData(const ByteSpan& header,
                                                                  const std::vector<ByteSpan>& data,
                                                                  std::uint64_t dataSize,
                                                                  bool isCritical) {
    const std::uint64_t packetLength = header.size() + dataSize;
    const std::uint64_t reserve = Reserve(isCritical, header.size());
    const Room room = LoadRoom();
    if (!room.Holds(packetLength, reserve) || !room.AllowsPackets(1)) {
        return RefuseForRoom(packetLength, reserve, room);
    }
    const std::uint64_t start = WriteIndex();
    if (!IsPlace(start, header.size(), packetLength)) {
        return RefusePlace(kMultiData, start, header.size(), packetLength, room);
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
        return RefuseFillerForRoom(packetLength, room);
    }
    const std::uint64_t start = WriteIndex();
    if (!IsPlace(start, header.size(), packetLength)) {
        return RefusePlace(kSkipPayload, start, header.size(), packetLength, room);
    }

    WriteData(start, header);
    Advance(control_->wIdx, header.size());
    IncrementPackets();
    const SMStatusCode status = HandOn(packetLength);
    Advance(control_->wIdx, skipSize);
    return {WriteIndex(), status};
}

bool SharedBuffer::IsPlace(std::uint64_t start, std::uint64_t headerLength,
                           std::uint64_t packetLength) const {
    const std::uint64_t size = ShmSize();
    const std::uint64_t end = start + packetLength;
    return headerLength <= size && Wrap(start) == start &&
           (end == size || end <= size - headerLength);
}

std::uint64_t SharedBuffer::WriteData(std::uint64_t index, const ByteSpan& data) {
    const ByteSpan beforeEnd = dataArea_->subspan(index);
    if (data.size() <= beforeEnd.size()) {
        Copy(data, beforeEnd.data());
    } else {
        Copy(data.first(beforeEnd.size()), beforeEnd.data());
        gsl::copy(data.subspan(beforeEnd.size()),
                  *dataArea_);  // the contract check stops a lap over itself
    }
    return Wrap(index + data.size());
}

void SharedBuffer::Copy(const ByteSpan& data, unsigned char* to) const {
    if (data.size() == kPacketHeaderSize) {
        CopyHeader(to, data.data());  // in line: every record has one
    } else if (data.size() >= Area().pastCacheFrom) {
        CopyPastCache(to, data.data(), data.size());
    } else if (!data.empty()) {
        std::memmove(to, data.data(), data.size());
    }
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
