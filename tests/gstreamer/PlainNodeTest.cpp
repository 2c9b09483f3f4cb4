// The elements beside nodes that use PipelineKit alone, and beside such as break the rules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "Elements.h"
#include "EndOfStream.h"
#include "Files.h"
#include "MockPacketBuffer.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "PacketWriter.h"
#include "StreamName.h"
#include "StreamNames.h"
#include "StreamNodes.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t kSize = 100000;

class PlainWriter : public testing::Test {
protected:
    void Write(std::int64_t pts, bool isKey = true, std::size_t size = 5) {
        const OwnedPacket owned(size, pts);
        Packet packet = owned.Get();
        packet.header.key = isKey;
        packet.header.timestampSec = 77;
        ASSERT_EQ(writer_.Write(packet), WriteOutcome::Written);
    }

    UniqueStreamName name_;
    std::unique_ptr<SharedPacketBufferIF> ring_ = OpenRing({name_.Name(), kSize, 0, false, 0});
    PacketWriter writer_{*ring_, kSize};
};

TEST_F(PlainWriter, StreamComesOutUnderTheCapsThatTheUserSets) {
    Write(1, false);
    Write(2);
    Write(3, false);
    ASSERT_EQ(writer_.WriteCritical(MakeEndOfStream()), WriteOutcome::Written);
    Source source(name_.Name(), {{"sink", "true"}, {"caps", "test/x-frames, number=(int)7"}});
    ASSERT_TRUE(source.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source.History(), ElementsAre("caps test/x-frames, number=(int)7", "segment",
                                              "buffer 2", "buffer 3", "eos"));
    const BufferHandle key = source.Pull();
    EXPECT_EQ(ContentOf(key), "xxxxx");
    EXPECT_EQ(FlagsOf(key), guint{GST_BUFFER_FLAG_DISCONT});
    EXPECT_EQ(GST_BUFFER_DTS(key.get()), GST_CLOCK_TIME_NONE);
    EXPECT_EQ(gst_buffer_get_reference_timestamp_meta(key.get(), nullptr)->timestamp,
              77 * GST_SECOND);
    EXPECT_EQ(FlagsOf(source.Pull()), guint{GST_BUFFER_FLAG_DELTA_UNIT});
}

TEST_F(PlainWriter, StreamComesOutWithoutCapsIfNoneAreKnown) {
    Write(1);
    Source source(name_.Name());
    EXPECT_EQ(GST_BUFFER_PTS(source.Play().Pull().get()), 1U);
    EXPECT_THAT(source.History(), ElementsAre("segment", "buffer 1"));
}

TEST_F(PlainWriter, FillersAreCountedAndNotDelivered) {
    Source source(name_.Name());
    source.Play();
    for (std::int64_t pts = 0; pts < 9; ++pts) {
        Write(pts, true, 30000);
        EXPECT_EQ(GST_BUFFER_PTS(source.Pull().get()), static_cast<GstClockTime>(pts));
    }
    EXPECT_EQ(source.Figure("fillers"), 2U);
    EXPECT_EQ(source.Figure("packets"), 9U);
}

TEST(PlainReader, ReadsWhatQevsinkWrites) {
    const UniqueStreamName name;
    Sink sink(name.Name(), {{"size", std::to_string(kSize)}});
    ASSERT_EQ(sink.Push(MakeBuffer({"key", 5})), GST_FLOW_OK);
    ASSERT_EQ(sink.Push(MakeBuffer({"delta", 6, false})), GST_FLOW_OK);
    ASSERT_EQ(sink.Push(MakeBuffer({"timeless"})), GST_FLOW_OK);
    ASSERT_TRUE(sink.End());
    const auto ring = OpenRing({name.Name(), kSize, 1, true, 0});
    PacketReader reader(*ring);
    struct Row {
        const char* content;
        std::int64_t pts;
        bool isKey;
    };
    for (const Row& row :
         {Row{"key", 5, true}, Row{"delta", 6, false}, Row{"timeless", -1, true}}) {
        const auto received = reader.TryNext();
        ASSERT_TRUE(received);
        const PacketHeader header = received->packet.header;
        EXPECT_EQ(std::string(received->packet.data.begin(), received->packet.data.end()),
                  row.content);
        const std::int64_t pts = header.pts;
        EXPECT_EQ(pts, row.pts);
        const std::uint32_t seconds = header.timestampSec;
        EXPECT_EQ(header.key, row.isKey);
        EXPECT_GT(seconds, 0U);
        EXPECT_EQ(reader.Release(received->ticket), SMStatusCode::SUCCESS);
    }
    EXPECT_EQ(reader.TryNext()->outcome, ReadOutcome::EndOfStream);
}

/// Records that no sound writer sends.
class ForgedRecords : public testing::Test {
protected:
    ForgedRecords() {
        writer_.Tell(ControlKind::Caps, "test/x-frames, number=(int)1",
                     MakeEventHead(ControlKind::Caps));
        EXPECT_EQ(NumberedPacket(1).SendBy(writer_), WriteOutcome::Written);
        source_.Play();
        (void)source_.Pull();
    }
    void ExpectStreamToGoOn(bool isDiscont = false) {
        EXPECT_EQ(NumberedPacket(2).SendBy(writer_), WriteOutcome::Written);
        const BufferHandle buffer = source_.Pull();
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), 2U);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer.get(), GST_BUFFER_FLAG_DISCONT) != FALSE,
                  isDiscont);
    }

    UniqueStreamName name_;
    StreamWriter writer_{Options(name_.Name(), 0, false, kSize)};
    Source source_{name_.Name(), {{"sink", "true"}, {"start-at-key-frame", "false"}}};
};

TEST_F(ForgedRecords, TextsThatAreNoneArePassedOver) {
    const std::string zero("test/x\0y", 8);
    for (const ControlKind kind : {ControlKind::Segment, ControlKind::Tags, ControlKind::GlobalTags,
                                   ControlKind::Custom, ControlKind::Gap, ControlKind::State}) {
        for (const std::string& text :
             {std::string(), std::string("\xff\xfe"), zero, std::string(3000, '['),
              std::string("taglist"), std::string("taglist, x"), std::string("a, b=(c)d;"),
              std::string("segment, flags=(uint)1;"), std::string("%s%n")}) {
            writer_.Tell(kind, text, MakeEventHead(kind));
        }
    }
    ExpectStreamToGoOn();
}

TEST_F(ForgedRecords, TextsThatNestWithoutEndArePassedOver) {
    const std::string beginnings[] = {
        "segment, rate=", "taglist, title=", "custom, x=", "serial 1\ncaps a/b, x=",
        "serial 2\ncaps a/b\nsegment segment, x="};
    constexpr ControlKind kKinds[] = {ControlKind::Segment, ControlKind::Tags, ControlKind::Custom,
                                      ControlKind::State, ControlKind::State};
    for (const char bracket : {'[', '{', '<', '('}) {
        for (std::size_t i = 0; i < std::size(kKinds); ++i) {
            writer_.Tell(kKinds[i], beginnings[i] + std::string(90000, bracket),
                         MakeEventHead(kKinds[i]));
            ExpectStreamToGoOn();
        }
    }
}

TEST_F(ForgedRecords, CapsThatAreNoneAreNotThoseOfTheStream) {
    for (const std::string& text :
         {std::string(), std::string("\xff\xfe"), std::string("ANY"), std::string("EMPTY"),
          std::string("a/b, c=(int)[1, 2]"), std::string("a/b; c/d"), std::string(3000, '(')}) {
        writer_.Tell(ControlKind::Caps, text, MakeEventHead(ControlKind::Caps));
        EXPECT_EQ(NumberedPacket(3).SendBy(writer_), WriteOutcome::Written);
        EXPECT_EQ(NumberedPacket(4).SendBy(writer_), WriteOutcome::Written);
    }
    writer_.Tell(ControlKind::Caps, "test/x-frames, number=(int)2",
                 MakeEventHead(ControlKind::Caps));
    ExpectStreamToGoOn(true);
    EXPECT_THAT(source_.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1",
                            "caps test/x-frames, number=(int)2", "buffer 2"))
        << "no buffer under caps that it was not written for";
    EXPECT_EQ(source_.Figure("skipped"), 14U);
    EXPECT_EQ(source_.AwaitWarning().code, StreamError(GST_STREAM_ERROR_FORMAT));
    EXPECT_EQ(source_.TakeWarnings(), 6) << "one for each caps";
}

TEST_F(ForgedRecords, GapsWithoutATimeArePassedOver) {
    for (const std::int64_t pts : {std::int64_t{-1}, kEndOfStreamPts}) {
        ControlHead gap = MakeEventHead(ControlKind::Gap);
        gap.pts = pts;
        gap.duration = GST_CLOCK_TIME_NONE;
        writer_.Tell(ControlKind::Gap, "", gap);
    }
    ExpectStreamToGoOn();
}

TEST_F(ForgedRecords, SegmentsOfAnyNumbersAreTaken) {
    for (const char* const rate : {"1", "-1", "1e300", "-1e-300"}) {
        for (const char* const number : {"0", "9223372036854775808", "18446744073709551614"}) {
            const std::string value = std::string("(guint64)") + number + ", ";
            writer_.Tell(ControlKind::Segment,
                         "segment, flags=(uint)4294967295, rate=(double)" + std::string(rate) +
                             ", applied-rate=(double)1, base=" + value + "offset=" + value +
                             "start=" + value + "stop=(guint64)18446744073709551615, time=" +
                             value + "position=" + value + "duration=" + value + ";",
                         MakeEventHead(ControlKind::Segment));
            EXPECT_EQ(NumberedPacket(2).SendBy(writer_), WriteOutcome::Written);
            EXPECT_TRUE(source_.Pull());
        }
    }
}

TEST_F(ForgedRecords, BytesOfAnySizeArePassedOver) {
    const std::uint64_t size = ControlRingSize(kSize);
    const auto control = OpenRing({StreamNames(name_.Name()).control, size, 0, false, 0});
    PacketWriter garbage(*control, size);
    for (const std::size_t length : {0U, 1U, 143U, 144U, 145U, 20000U}) {
        ASSERT_EQ(garbage.Write(OwnedPacket(length, 3, 0xff).Get()), WriteOutcome::Written);
    }
    ExpectStreamToGoOn();
}

TEST(ForgedRing, CountersThatCannotBeAreAnErrorOrNothingAndNoCrash) {
    for (const char fill : {'\0', '\x01', '\x7f', '\xff'}) {
        const UniqueStreamName name;
        Sink sink(name.Name(), {{"size", "100000"}, {"wait-for-space", "false"}});
        Source source(name.Name());
        ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
        ASSERT_TRUE(source.Play().Pull());
        // The counters, over the whole block but for its ends, while both elements run.
        const std::string path = "/dev/shm/" + name.Name() + ".shm";
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(8);
        file << std::string(136, fill);
        file.close();
        (void)sink.Push(MakeBuffer({"frame", 2}));
        (void)sink.Push(MakeBuffer({std::string(90000, 'x'), 3}));
        (void)source.SetState(GST_STATE_NULL);
        (void)sink.SetState(GST_STATE_NULL);
    }
}

}  // namespace
}  // namespace qel::test
