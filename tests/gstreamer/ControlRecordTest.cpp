#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ControlRecord.h"
#include "EndOfStream.h"
#include "MockPacketBuffer.h"

namespace qel::test {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes RecordBytes(ControlHead head, const std::string& text = {}) {
    const ByteSpan span = BytesOf(head);
    Bytes bytes(span.begin(), span.end());
    bytes.insert(bytes.end(), text.begin(), text.end());
    return bytes;
}

template <typename Field>
Field At(const Bytes& bytes, std::size_t offset) {
    Field field{};
    std::memcpy(&field, bytes.data() + offset, sizeof field);
    return field;
}

ControlHead FullHead() {
    ControlHead head;
    head.serial = 0x01020304;
    head.pts = 0x1112131415161718;
    head.dts = 0x2122232425262728;
    head.duration = 0x3132333435363738;
    head.offset = 0x4142434445464748;
    head.offsetEnd = 0x5152535455565758;
    head.flags = 0x61626364;
    head.kind = ControlKind::Tags;
    return head;
}

TEST(ControlRecord, FieldsStandWhereOtherProcessesLookForThem) {
    const Bytes bytes = RecordBytes(FullHead(), "text");
    ASSERT_EQ(bytes.size(), 148U);
    EXPECT_EQ(std::memcmp(bytes.data() + 88, "qev1", 4), 0);
    EXPECT_EQ(At<std::uint32_t>(bytes, 92), 0x01020304U);
    EXPECT_EQ(At<std::int64_t>(bytes, 96), 0x1112131415161718);
    EXPECT_EQ(At<std::uint64_t>(bytes, 104), 0x2122232425262728U);
    EXPECT_EQ(At<std::uint64_t>(bytes, 112), 0x3132333435363738U);
    EXPECT_EQ(At<std::uint64_t>(bytes, 120), 0x4142434445464748U);
    EXPECT_EQ(At<std::uint64_t>(bytes, 128), 0x5152535455565758U);
    EXPECT_EQ(At<std::uint32_t>(bytes, 136), 0x61626364U);
    EXPECT_EQ(bytes[140], 4);
    EXPECT_EQ(Bytes(bytes.begin() + 141, bytes.begin() + 144), Bytes({0, 0, 0}));
    EXPECT_EQ(std::memcmp(bytes.data() + 144, "text", 4), 0);
}

TEST(ControlRecord, KindsHaveTheNumbersThatStandInRings) {
    EXPECT_EQ(static_cast<int>(ControlKind::Frame), 0);
    EXPECT_EQ(static_cast<int>(ControlKind::EndOfStream), 1);
    EXPECT_EQ(static_cast<int>(ControlKind::Caps), 2);
    EXPECT_EQ(static_cast<int>(ControlKind::Segment), 3);
    EXPECT_EQ(static_cast<int>(ControlKind::Tags), 4);
    EXPECT_EQ(static_cast<int>(ControlKind::GlobalTags), 5);
    EXPECT_EQ(static_cast<int>(ControlKind::Gap), 6);
    EXPECT_EQ(static_cast<int>(ControlKind::Custom), 7);
    EXPECT_EQ(static_cast<int>(ControlKind::State), 8);
}

TEST(ControlRecord, ComesOutAsItWentIn) {
    Bytes bytes = RecordBytes(FullHead(), std::string("a\0b", 3));
    const auto record = ParseControlRecord(bytes);
    ASSERT_TRUE(record);
    EXPECT_EQ(RecordBytes(record->head, record->text), bytes);
    EXPECT_EQ(record->text, std::string("a\0b", 3));
    EXPECT_EQ(record->head.kind, ControlKind::Tags);
}

TEST(ControlRecord, NeedsNoText) {
    Bytes bytes = RecordBytes(FullHead());
    const auto record = ParseControlRecord(bytes);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->text, "");
}

TEST(ControlRecord, ShorterOnesAreNone) {
    Bytes bytes = RecordBytes(FullHead());
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_FALSE(ParseControlRecord({bytes.data(), size})) << size;
    }
}

TEST(ControlRecord, OfAnotherMagicAreNone) {
    for (std::size_t i = 88; i < 92; ++i) {
        Bytes bytes = RecordBytes(FullHead());
        ++bytes[i];
        EXPECT_FALSE(ParseControlRecord(bytes)) << i;
    }
}

TEST(ControlRecord, OfAnUnknownKindAreNone) {
    Bytes bytes = RecordBytes(FullHead());
    for (unsigned kind = 0; kind <= 255; ++kind) {
        bytes[140] = static_cast<unsigned char>(kind);
        EXPECT_EQ(ParseControlRecord(bytes).has_value(), kind <= 8) << kind;
    }
}

TEST(ControlRecord, AnyBytesInTheClientsPartAreTaken) {
    Bytes bytes = RecordBytes(FullHead());
    std::fill(bytes.begin(), bytes.begin() + 88, static_cast<unsigned char>(0xff));
    const auto record = ParseControlRecord(bytes);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->head.serial, 0x01020304U);
}

TEST(ControlRecord, OfAPacketTellsWhatItsHeaderSays) {
    OwnedPacket owned(5, 77);
    Packet packet = owned.Get();
    packet.header.timestampSec = 99;
    packet.header.timestampUsec = 88;
    const ControlHead head = MakeFrameHead(packet, 5);
    EXPECT_EQ(head.kind, ControlKind::Frame);
    EXPECT_EQ(head.pts, 77);
    EXPECT_EQ(head.control.dataSize, 5U);
    EXPECT_EQ(head.control.timeStamp, 99U);
    EXPECT_EQ(head.control.startTick, 88U);
    EXPECT_FALSE(head.control.fileStop);
    EXPECT_FALSE(head.control.controlOnly);
    EXPECT_FALSE(head.control.ignoreDataFrame);
    EXPECT_TRUE((ControlRecord{head, {}}).IsOfPacket());
}

TEST(ControlRecord, OfAPacketInPiecesHasTheSizeThatIsGiven) {
    EXPECT_EQ(MakeFrameHead({}, 1234).control.dataSize, 1234U);
}

TEST(ControlRecord, OfTheEndMarkStopsTheFile) {
    const ControlHead head = MakeFrameHead(MakeEndOfStream(), 0);
    EXPECT_EQ(head.kind, ControlKind::EndOfStream);
    EXPECT_EQ(head.pts, kEndOfStreamPts);
    EXPECT_TRUE(head.control.fileStop);
    EXPECT_TRUE((ControlRecord{head, {}}).IsOfPacket());
}

TEST(ControlRecord, OfAnEventStandsByItselfAndCapsStartAFile) {
    for (const ControlKind kind :
         {ControlKind::Caps, ControlKind::Segment, ControlKind::Tags, ControlKind::GlobalTags,
          ControlKind::Gap, ControlKind::Custom, ControlKind::State}) {
        const ControlHead head = MakeEventHead(kind);
        EXPECT_EQ(head.kind, kind);
        EXPECT_TRUE(head.control.controlOnly);
        EXPECT_TRUE(head.control.ignoreDataFrame);
        EXPECT_EQ(head.control.fileStart, kind == ControlKind::Caps);
        EXPECT_FALSE(head.control.fileStop);
        EXPECT_FALSE((ControlRecord{head, {}}).IsOfPacket());
    }
}

}  // namespace
}  // namespace qel::test
