#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "CaptureTime.h"
#include "GstHandles.h"
#include "RingBuffer.h"
#include "StreamName.h"
#include "StreamNodes.h"

namespace qel::test {
namespace {

/// The file that the address `place` of this process is mapped from.
std::string FileAt(const void* place) {
    const auto address = reinterpret_cast<std::uintptr_t>(place);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::uintptr_t begin = 0;
        std::uintptr_t end = 0;
        char dash = 0;
        fields >> std::hex >> begin >> dash >> end;
        if (begin <= address && address < end) {
            return line.substr(std::min(line.find('/'), line.size()));
        }
    }
    return {};
}

class RingBufferTest : public testing::Test {
protected:
    ReceivedPacket Receive(std::int64_t pts, std::size_t size = 10) {
        EXPECT_EQ(NumberedPacket(pts, size).SendBy(writer_), WriteOutcome::Written);
        return *reader_->TryNext();
    }
    BufferHandle Wrap(const ReceivedPacket& received, bool writable = false) {
        return BufferHandle(WrapPacket(reader_, received, writable));
    }
    [[nodiscard]] std::size_t Outstanding() const { return reader_->GetOutstanding().packets; }

    UniqueStreamName name_;
    StreamWriter writer_{Options(name_.Name(), 0, false)};
    std::shared_ptr<StreamReader> reader_ =
        std::make_shared<StreamReader>(Options(name_.Name(), 1, false));
    StreamReader next_{Options(name_.Name(), 2, true)};
};

TEST_F(RingBufferTest, MemoryIsTheRings) {
    const ReceivedPacket received = Receive(7);
    const BufferHandle buffer = Wrap(received);
    ASSERT_EQ(gst_buffer_n_memory(buffer.get()), 1U);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
    EXPECT_EQ(map.data, received.packet.data.data());
    EXPECT_EQ(map.size, 10U);
    EXPECT_EQ(FileAt(map.data), "/dev/shm/" + name_.Name() + ".shm");
    gst_buffer_unmap(buffer.get(), &map);
}

TEST_F(RingBufferTest, PacketGoesOnWithTheLastReference) {
    BufferHandle buffer = Wrap(Receive(7));
    BufferHandle second(gst_buffer_ref(buffer.get()));
    EXPECT_EQ(Outstanding(), 1U);
    buffer.reset();
    EXPECT_EQ(Outstanding(), 1U);
    EXPECT_EQ(NextPts(next_), -100);
    second.reset();
    EXPECT_EQ(Outstanding(), 0U);
    EXPECT_EQ(NextPts(next_), 7);
}

TEST_F(RingBufferTest, PartOfABufferKeepsThePacket) {
    BufferHandle buffer = Wrap(Receive(7));
    BufferHandle part(gst_buffer_copy_region(buffer.get(), GST_BUFFER_COPY_MEMORY, 2, 3));
    const GstMemory* const whole = gst_buffer_peek_memory(buffer.get(), 0);
    EXPECT_EQ(gst_buffer_peek_memory(part.get(), 0)->parent, whole) << "shared, not copied";
    buffer.reset();
    EXPECT_EQ(Outstanding(), 1U);
    part.reset();
    EXPECT_EQ(Outstanding(), 0U);
}

TEST_F(RingBufferTest, BufferKeepsTheNode) {
    BufferHandle buffer = Wrap(Receive(7));
    const std::weak_ptr<StreamReader> watched = reader_;
    reader_.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(gst_buffer_memcmp(buffer.get(), 0, std::string(10, 7).data(), 10), 0);
    buffer.reset();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(NextPts(next_), 7);
}

TEST_F(RingBufferTest, WhoWritesToAReadOnlyOneGetsACopy) {
    const ReceivedPacket received = Receive(7);
    BufferHandle buffer = Wrap(received);
    GstMemory* const memory = gst_buffer_peek_memory(buffer.get(), 0);
    EXPECT_TRUE(GST_MEMORY_IS_READONLY(memory));
    GstMapInfo map;
    EXPECT_FALSE(gst_memory_map(memory, &map, GST_MAP_WRITE));
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READWRITE));
    EXPECT_NE(map.data, received.packet.data.data());
    map.data[0] = 99;
    gst_buffer_unmap(buffer.get(), &map);
    buffer.reset();
    EXPECT_EQ(next_.TryNext()->packet.data[0], 7) << "the ring is as it was";
}

TEST_F(RingBufferTest, WriteToAWritableOneIsSeenByTheNextNode) {
    const ReceivedPacket received = Receive(7);
    BufferHandle buffer = Wrap(received, true);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READWRITE));
    EXPECT_EQ(map.data, received.packet.data.data());
    map.data[3] = 99;
    gst_buffer_unmap(buffer.get(), &map);
    buffer.reset();
    EXPECT_EQ(next_.TryNext()->packet.data[3], 99);
}

TEST_F(RingBufferTest, EmptyPacketGoesOnAtOnce) {
    const BufferHandle buffer = Wrap(Receive(7, 0));
    EXPECT_EQ(gst_buffer_get_size(buffer.get()), 0U);
    EXPECT_EQ(Outstanding(), 0U);
    EXPECT_EQ(NextPts(next_), 7);
}

TEST_F(RingBufferTest, CopyHoldsNothing) {
    const ReceivedPacket received = Receive(7);
    const BufferHandle buffer(CopyPacket(*reader_, received));
    EXPECT_EQ(Outstanding(), 0U);
    EXPECT_EQ(NextPts(next_), 7);
    EXPECT_EQ(gst_buffer_get_size(buffer.get()), 10U);
    EXPECT_EQ(gst_buffer_memcmp(buffer.get(), 0, std::string(10, 7).data(), 10), 0);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READWRITE)) << "it is nobody else's";
    EXPECT_NE(map.data, received.packet.data.data());
    gst_buffer_unmap(buffer.get(), &map);
}

TEST(RingBufferFields, ComeOutAsTheyWentIn) {
    const BufferHandle sent(gst_buffer_new());
    GST_BUFFER_DTS(sent.get()) = 11;
    GST_BUFFER_DURATION(sent.get()) = 12;
    GST_BUFFER_OFFSET(sent.get()) = 13;
    GST_BUFFER_OFFSET_END(sent.get()) = 14;
    GST_BUFFER_FLAG_SET(sent.get(), GST_BUFFER_FLAG_MARKER);
    ControlHead head;
    Describe(head, sent.get());
    EXPECT_EQ(head.control.ptsDuration, 12U);
    PacketHeader header;
    header.pts = 10;
    const BufferHandle found(gst_buffer_new());
    Describe(found.get(), header, head);
    EXPECT_EQ(GST_BUFFER_PTS(found.get()), 10U);
    EXPECT_EQ(GST_BUFFER_DTS(found.get()), 11U);
    EXPECT_EQ(GST_BUFFER_DURATION(found.get()), 12U);
    EXPECT_EQ(GST_BUFFER_OFFSET(found.get()), 13U);
    EXPECT_EQ(GST_BUFFER_OFFSET_END(found.get()), 14U);
    EXPECT_EQ(GST_BUFFER_FLAGS(found.get()), static_cast<guint>(GST_BUFFER_FLAG_MARKER));
}

TEST(RingBufferFields, LongDurationDoesNotFitTheClientsPart) {
    const BufferHandle sent(gst_buffer_new());
    GST_BUFFER_DURATION(sent.get()) = 1ULL << 32U;
    ControlHead head;
    Describe(head, sent.get());
    EXPECT_EQ(head.duration, 1ULL << 32U);
    EXPECT_EQ(head.control.ptsDuration, 0U);
}

TEST(RingBufferFields, FlagsOfTheFrameTravelAndThoseOfItsObjectDoNot) {
    for (unsigned bit = 0; bit < 32; ++bit) {
        const BufferHandle sent(gst_buffer_new());
        const guint flag = 1U << bit;
        GST_MINI_OBJECT_FLAG_SET(sent.get(), flag);
        ControlHead head;
        Describe(head, sent.get());
        GST_MINI_OBJECT_FLAG_UNSET(sent.get(), flag);
        const bool ofTheObject = bit < 4 || flag == static_cast<guint>(GST_BUFFER_FLAG_TAG_MEMORY);
        EXPECT_EQ(head.flags, ofTheObject ? 0U : flag) << bit;

        head.flags = flag;  // as a forged record might say
        const BufferHandle found(gst_buffer_new());
        Describe(found.get(), {}, head);
        EXPECT_EQ(GST_BUFFER_FLAGS(found.get()), ofTheObject ? 0U : flag) << bit;
    }
}

TEST(RingBufferFields, WithoutARecordAreWhatTheHeaderSays) {
    for (const bool isKey : {false, true}) {
        PacketHeader header;
        header.pts = kNoPts;
        header.key = isKey;
        header.timestampSec = 3;
        const BufferHandle buffer(gst_buffer_new());
        Describe(buffer.get(), header, std::nullopt);
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), GST_CLOCK_TIME_NONE);
        EXPECT_EQ(GST_BUFFER_DTS(buffer.get()), GST_CLOCK_TIME_NONE);
        EXPECT_EQ(GST_BUFFER_DURATION(buffer.get()), GST_CLOCK_TIME_NONE);
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer.get()), GST_BUFFER_OFFSET_NONE);
        EXPECT_EQ(GST_BUFFER_FLAGS(buffer.get()),
                  isKey ? 0U : static_cast<guint>(GST_BUFFER_FLAG_DELTA_UNIT));
        const auto* const meta =
            gst_buffer_get_reference_timestamp_meta(buffer.get(), CaptureTimeCaps());
        ASSERT_NE(meta, nullptr);
        EXPECT_EQ(meta->timestamp, 3 * GST_SECOND);
    }
}

}  // namespace
}  // namespace qel::test
