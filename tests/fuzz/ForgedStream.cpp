#include "ForgedStream.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "EndOfStream.h"
#include "OpenRing.h"

namespace qel::fuzz {
namespace {

constexpr std::uint64_t kCapsSize = 100000;

/// Texts as writers send them, to be sent as they are or damaged.
constexpr std::array<std::string_view, 12> kTexts{
    "test/x-frames, number=(int)1",
    "video/x-raw, format=(string)I420, width=(int)16, height=(int)16, framerate=(fraction)30/1",
    "segment, flags=(uint)0, rate=(double)1, applied-rate=(double)1, base=(guint64)0, "
    "offset=(guint64)0, start=(guint64)0, stop=(guint64)18446744073709551615, time=(guint64)0, "
    "position=(guint64)0, duration=(guint64)18446744073709551615;",
    "segment, flags=(uint)1, rate=(double)-2, applied-rate=(double)1, base=(guint64)7, "
    "offset=(guint64)5, start=(guint64)9, stop=(guint64)1000, time=(guint64)3, "
    "position=(guint64)2, duration=(guint64)1;",
    "taglist, title=(string)a, bitrate=(uint)5;",
    "taglist, image-orientation=(string)rotate-90;",
    "custom, number=(int)5, text=(string)\"a\\ b\";",
    "serial 1\ncaps test/x-frames, number=(int)1\n",
    "serial 2\ncaps test/x-frames, number=(int)2\nsegment segment\ntags taglist;\n"
    "global-tags taglist, title=(string)b;\n",
    "serial 4294967296\ncaps ANY\n",
    "ANY",
    "a/b, c=(int)[1, 2]",
};

/// Brackets that are never closed, behind the beginning of a text.
std::string NestedText(Input& input) {
    constexpr std::array<const char*, 5> kBeginnings{
        "a/b, c=", "taglist, title=", "segment, rate=", "serial 1\ncaps a/b, c=", ""};
    constexpr std::array<char, 4> kBrackets{'[', '{', '<', '('};
    const std::string beginning = kBeginnings.at(input.Choice(kBeginnings.size()));
    const char bracket = kBrackets.at(input.Choice(kBrackets.size()));
    return beginning + std::string(2 * std::size_t{input.Amount(0xFFFF)}, bracket);
}

std::string TextFrom(Input& input) {
    const unsigned choice = input.Choice(16);
    if (choice == 15) {
        return NestedText(input);
    }
    if (choice >= kTexts.size()) {
        const Bytes bytes = input.TakeBytes(input.Choice(64));
        return {bytes.begin(), bytes.end()};
    }
    std::string text(kTexts.at(choice));
    for (unsigned damage = input.Choice(4); damage != 0; --damage) {
        const Bytes bytes = input.TakeBytes(1 + input.Choice(4));
        text.replace(input.Choice(255) % text.size(), input.Choice(8),
                     std::string(bytes.begin(), bytes.end()));
        text += ' ';
    }
    return text;
}

PacketHeader HeaderFrom(Input& input) {
    PacketHeader header;
    header.pts = static_cast<std::int64_t>(input.Edge(1000));
    header.key = input.Choice(4) != 0;
    header.timestampSec = input.Flag() ? 77 : input.Take<std::uint32_t>();
    header.timestampUsec = input.Flag() ? 0 : input.Take<std::uint32_t>();
    return header;
}

/// A packet's header and `count` bytes of payload, as they lie in a ring.
Bytes RecordOf(const PacketHeader& header, std::size_t count) {
    Bytes bytes(sizeof(header) + count, 0x42);
    std::memcpy(bytes.data(), &header, sizeof(header));
    return bytes;
}

void ForgeHead(ControlHead& head, Input& input) {
    const unsigned offset = input.Choice(sizeof(head));
    const Bytes bytes = input.TakeBytes(std::min<std::size_t>(8, sizeof(head) - offset));
    std::memcpy(reinterpret_cast<unsigned char*>(&head) + offset, bytes.data(), bytes.size());
}

}  // namespace

ForgedStream::ForgedStream(Input& input)
    // Small, and the segment ends with a page: what lies behind it faults.
    : size_((1 + std::uint64_t{input.Choice(4)}) * 4096 - sizeof(ControlBlock)),
      ring_(OpenRing({name_.Name(), size_, 0, false, input.Choice(4) == 0 ? 3U : 0U})),
      control_(OpenRing({names_.control, ControlRingSize(size_), 0, false, 0})),
      rawRing_(std::make_unique<RawWriter>(names_.ring, size_)),
      rawControl_(std::make_unique<RawWriter>(names_.control, ControlRingSize(size_))) {}

void ForgedStream::Write(Input& input) {
    switch (input.Choice(12)) {
        case 0:
            return WriteLie(input);
        case 1:
            return WriteGarbage(input);
        case 2:
            return WriteEndOfStream(input);
        case 3:
            return WriteCaps(input);
        case 4:
            return ForgeCounter(input);
        case 5:
        case 6:
        case 7:
            return WriteEvent(input);
        default:
            WritePacket(input);
    }
}

void ForgedStream::WritePacket(Input& input) {
    Bytes payload(input.Flag() ? input.Choice(255) : input.Amount(5000), 0x55);
    Packet packet{HeaderFrom(input), payload};
    const bool hasRecord = input.Choice(4) != 0;
    if (hasRecord) {
        ControlHead head = MakeFrameHead(packet, payload.size());
        head.serial = input.Choice(3);
        if (input.Choice(4) == 0) {
            ForgeHead(head, input);
        }
        Tell(head, input.Choice(8) == 0 ? TextFrom(input) : "");
    }
    (void)ring_->WritePacket(packet);
}

void ForgedStream::WriteEndOfStream(Input& input) {
    const Packet mark = MakeEndOfStream();
    if (input.Flag()) {
        Tell(MakeFrameHead(mark, 0), "");
    }
    (void)ring_->WriteCriticalPacket(mark);
}

void ForgedStream::WriteLie(Input& input) {
    PacketHeader header = HeaderFrom(input);
    const unsigned count = input.Choice(255);
    header.length = input.Edge(input.Flag() ? count : size_);
    header.ignoreData = input.Choice(4) == 0;
    Bytes bytes = RecordOf(header, count);
    bytes.resize(input.Choice(8) == 0 ? input.Choice(26) : bytes.size());
    (input.Flag() ? rawRing_ : rawControl_)->Put(bytes);
}

void ForgedStream::WriteEvent(Input& input) {
    ControlHead head = MakeEventHead(static_cast<ControlKind>(input.Choice(10)));
    head.serial = input.Choice(3);
    head.pts = static_cast<std::int64_t>(input.Edge(1000));
    head.duration = input.Edge(1000);
    head.flags = input.Choice(3);
    if (input.Choice(4) == 0) {
        ForgeHead(head, input);
    }
    Tell(head, TextFrom(input));
}

void ForgedStream::WriteGarbage(Input& input) {
    Bytes bytes = input.TakeBytes(input.Choice(200));
    (void)control_->WritePacket({{}, bytes});
}

void ForgedStream::WriteCaps(Input& input) {
    if (!caps_) {
        caps_ = std::make_unique<SharedMemoryBlockWriter>(names_.caps, kCapsSize);
    }
    std::string text = TextFrom(input);
    text.resize(std::min<std::size_t>(text.size(), kCapsSize));
    caps_->LockForWrite();
    unsigned char* const data = caps_->GetDataForWrite();
    std::fill_n(data, caps_->Size(), input.Choice(4) == 0 ? 'x' : '\0');
    std::copy(text.begin(), text.end(), data);
    caps_->UnlockForWrite();
}

void ForgedStream::ForgeCounter(Input& input) {
    (input.Flag() ? rawRing_ : rawControl_)->Forge(input.Choice(15), input.Edge(size_));
}

void ForgedStream::Tell(ControlHead head, const std::string& text) {
    const ByteSpan bytes = BytesOf(head);
    Bytes record(bytes.begin(), bytes.end());
    record.insert(record.end(), text.begin(), text.end());
    (void)control_->WritePacket({{}, record});
}

}  // namespace qel::fuzz
