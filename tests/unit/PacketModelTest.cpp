// Layout and text forms of the packet types.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>

#include "EventBoundary.h"
#include "Packet.h"
#include "PacketHeader.h"
#include "SharedPacketBufferIF.h"

namespace qel::test {
namespace {

template <typename T>
std::string TextOf(const T& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

template <typename T>
std::string BoolalphaTextOf(const T& value) {
    std::ostringstream stream;
    stream << std::boolalpha << value;
    return stream.str();
}

TEST(PacketModelLayout, RecordsArePackedAndEveryDefaultIsZero) {
    static_assert(sizeof(PacketHeader) == 26 && alignof(PacketHeader) == 1);
    static_assert(sizeof(EventBoundary) == 17 && alignof(EventBoundary) == 1);
    static_assert(kPacketHeaderSize == 26);
    static_assert(std::is_same_v<decltype(PacketHeader::pts), std::int64_t>);
    const Packet packet;
    EXPECT_EQ(static_cast<const void*>(&packet), static_cast<const void*>(&packet.header));
    EXPECT_LT(static_cast<const void*>(&packet.header), static_cast<const void*>(&packet.data));
    EXPECT_EQ("pts: 0 key: 0 length: 0 ignoreData: 0 timestampSec: 0 timestampUsec: 0",
              TextOf(packet.header));
    EXPECT_EQ(0U, packet.data.size());
}

TEST(PacketModelLayout, ControlDataKeepsItsOrderAndItsPackedBoundaries) {
    using CtlData = SharedPacketBufferIF::CtlData;
    EXPECT_EQ(0U, offsetof(CtlData, controlOnly));
    EXPECT_EQ(8U, offsetof(CtlData, dataOffset));
    EXPECT_EQ(16U, offsetof(CtlData, dataSize));
    EXPECT_EQ(24U, offsetof(CtlData, ignoreDataFrame));
    EXPECT_EQ(28U, offsetof(CtlData, ptsDuration));
    EXPECT_EQ(32U, offsetof(CtlData, startTick));
    EXPECT_EQ(36U, offsetof(CtlData, stopTick));
    EXPECT_EQ(40U, offsetof(CtlData, frameIdx));
    EXPECT_EQ(41U, offsetof(CtlData, eventStartBoundary));
    EXPECT_EQ(58U, offsetof(CtlData, fileStart));
    EXPECT_EQ(59U, offsetof(CtlData, eventStopBoundary));
    EXPECT_EQ(76U, offsetof(CtlData, fileStop));
    EXPECT_EQ(77U, offsetof(CtlData, stopPipelineId));
    EXPECT_EQ(80U, offsetof(CtlData, timeStamp));
    EXPECT_EQ(84U, offsetof(CtlData, stopWritingToStorageBoundary));
    EXPECT_EQ(85U, offsetof(CtlData, startWritingToStorageBoundary));
    EXPECT_EQ(8U, alignof(CtlData));
    EXPECT_EQ(88U, sizeof(CtlData));
}

TEST(PacketHeaderText, FieldsStandInTheirOwnOrderWithFlagsAsDigits) {
    PacketHeader header;
    header.length = std::numeric_limits<std::uint64_t>::max();
    header.ignoreData = true;
    header.pts = -1;
    header.key = true;
    header.timestampSec = std::numeric_limits<std::uint32_t>::max();
    header.timestampUsec = 999999;
    const std::string expected =
        "pts: -1 key: 1 length: 18446744073709551615 ignoreData: 1 timestampSec: 4294967295 "
        "timestampUsec: 999999";
    EXPECT_EQ(expected, TextOf(header));
    EXPECT_EQ(expected, BoolalphaTextOf(header));
}

TEST(PacketHeaderText, LowestTimeStampIsSigned) {
    PacketHeader header;
    header.pts = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(
        "pts: -9223372036854775808 key: 0 length: 0 ignoreData: 0 timestampSec: 0 "
        "timestampUsec: 0",
        BoolalphaTextOf(header));
}

TEST(EventBoundaryText, BoundaryThatIsNotSetSaysSoWhateverElseItHolds) {
    EXPECT_EQ("Not Set", TextOf(EventBoundary{}));
    EXPECT_EQ("Not Set", TextOf(EventBoundary{false, 1, 2, 3, 4}));
}

TEST(EventBoundaryText, BoundaryThatIsSetTellsItsFields) {
    EXPECT_EQ("ID: 1 StartTick: 2 StopTick: 3 Timestamp: 4294967295",
              TextOf(EventBoundary{true, 1, 2, 3, 4294967295U}));
}

SharedPacketBufferIF::CtlData Control() {
    SharedPacketBufferIF::CtlData control;
    control.controlOnly = true;
    control.dataOffset = 18446744073709551615U;
    control.dataSize = 2;
    control.ignoreDataFrame = false;
    control.ptsDuration = 3;
    control.startTick = 4;
    control.stopTick = 5;
    control.frameIdx = 65;
    control.eventStartBoundary = {true, 6, 7, 8, 9};
    control.fileStart = true;
    control.eventStopBoundary = {false, 10, 11, 12, 13};
    control.fileStop = false;
    control.stopPipelineId = 66;
    control.timeStamp = 14;
    control.stopWritingToStorageBoundary = true;
    control.startWritingToStorageBoundary = false;
    return control;
}

TEST(ControlDataText, SmallNumbersAreNeverLettersAndFlagsAreDigits) {
    EXPECT_EQ(
        "controlOnly: 1 dataOffset: 18446744073709551615 dataSize: 2 ignoreDataFrame: 0\n"
        " ptsDuration: 3 startTick: 4 stopTick: 5 frameIdx: 65\n"
        " eventStartBoundary: ID: 6 StartTick: 7 StopTick: 8 Timestamp: 9\n"
        " eventStopBoundary: Not Set\n"
        " fileStart: 1 fileStop: 0 stopPipelineId: 66 timeStamp: 14\n"
        " stopWritingToStorageBoundary: 1 startWritingToStorageBoundary: 0",
        TextOf(Control()));
}

TEST(ControlDataText, FlagsFollowTheStream) {
    EXPECT_EQ(
        "controlOnly: true dataOffset: 18446744073709551615 dataSize: 2 ignoreDataFrame: false\n"
        " ptsDuration: 3 startTick: 4 stopTick: 5 frameIdx: 65\n"
        " eventStartBoundary: ID: 6 StartTick: 7 StopTick: 8 Timestamp: 9\n"
        " eventStopBoundary: Not Set\n"
        " fileStart: true fileStop: false stopPipelineId: 66 timeStamp: 14\n"
        " stopWritingToStorageBoundary: true startWritingToStorageBoundary: false",
        BoolalphaTextOf(Control()));
}

TEST(ControlDataText, DefaultsAreZero) {
    EXPECT_EQ(
        "controlOnly: 0 dataOffset: 0 dataSize: 0 ignoreDataFrame: 0\n"
        " ptsDuration: 0 startTick: 0 stopTick: 0 frameIdx: 0\n"
        " eventStartBoundary: Not Set\n"
        " eventStopBoundary: Not Set\n"
        " fileStart: 0 fileStop: 0 stopPipelineId: 0 timeStamp: 0\n"
        " stopWritingToStorageBoundary: 0 startWritingToStorageBoundary: 0",
        TextOf(SharedPacketBufferIF::CtlData{}));
}

TEST(TextForms, ReturnTheStreamAndNeverFlush) {
    struct CountingBuffer : std::stringbuf {
        int sync() override {
            ++flushes;
            return 0;
        }
        int flushes = 0;
    } buffer;
    std::ostream stream(&buffer);
    EXPECT_EQ(&stream, &(stream << EventBoundary{} << EventBoundary{true, 1, 2, 3, 4}));
    EXPECT_EQ(&stream, &(stream << PacketHeader{}));
    EXPECT_EQ(&stream, &(stream << SharedPacketBufferIF::CtlData{}));
    EXPECT_EQ(&stream, &(stream << SharedBufferIF::BufferInfo{}));
    EXPECT_EQ(&stream, &(stream << SMStatusCode::SUCCESS));
    EXPECT_EQ(0, buffer.flushes);
}

}  // namespace
}  // namespace qel::test
