#include "ControlRecord.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>

#include "EndOfStream.h"

namespace qel {

static_assert(std::is_trivially_copyable_v<ControlHead>);

ControlHead MakeFrameHead(const Packet& packet, std::uint64_t size) noexcept {
    ControlHead head;
    head.kind = IsEndOfStream(packet) ? ControlKind::EndOfStream : ControlKind::Frame;
    head.pts = packet.header.pts;
    head.control.dataSize = size;
    head.control.timeStamp = packet.header.timestampSec;
    head.control.startTick = packet.header.timestampUsec;
    head.control.fileStop = head.kind == ControlKind::EndOfStream;
    return head;
}

ControlHead MakeEventHead(ControlKind kind) noexcept {
    ControlHead head;
    head.kind = kind;
    head.control.controlOnly = true;
    head.control.ignoreDataFrame = true;
    head.control.fileStart = kind == ControlKind::Caps;
    return head;
}

ByteSpan BytesOf(ControlHead& head) noexcept {
    return {reinterpret_cast<unsigned char*>(&head), sizeof head};
}

std::optional<ControlRecord> ParseControlRecord(const ByteSpan& bytes) {
    ControlRecord record;
    if (bytes.size() < sizeof record.head) {
        return std::nullopt;
    }
    // The flags of CtlData are not looked at: another process may have put any byte there.
    std::memcpy(static_cast<void*>(&record.head), bytes.data(), sizeof record.head);
    if (record.head.magic != ControlHead::kMagic ||
        static_cast<std::uint8_t>(record.head.kind) > static_cast<std::uint8_t>(kLastControlKind)) {
        return std::nullopt;
    }
    const auto* const text = reinterpret_cast<const char*>(bytes.data()) + sizeof record.head;
    record.text.assign(text, bytes.size() - sizeof record.head);
    return record;
}

}  // namespace qel
