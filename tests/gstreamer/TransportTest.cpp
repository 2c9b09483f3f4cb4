// What goes into qevsink comes out of qevsrc.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CaptureTime.h"
#include "Elements.h"
#include "StreamName.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

const Properties kWriting{{"size", "1000000"}};

class Transport : public testing::Test {
protected:
    UniqueStreamName name_;
    Sink sink_{name_.Name(), kWriting};
    Source source_{name_.Name()};
};

TEST_F(Transport, StreamComesOutInOrderWithItsCapsAndItsEnd) {
    for (GstClockTime pts = 0; pts < 3; ++pts) {
        ASSERT_EQ(sink_.Push(MakeBuffer({"frame", pts})), GST_FLOW_OK);
    }
    ASSERT_TRUE(sink_.End());
    ASSERT_TRUE(source_.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source_.History(), ElementsAre("caps test/x-frames, number=(int)1", "segment",
                                               "buffer 0", "buffer 1", "buffer 2", "eos"));
    EXPECT_EQ(source_.Delivered(), 3U);
}

TEST_F(Transport, ContentIsThatOfTheRingAndCannotBeWrittenTo) {
    ASSERT_EQ(sink_.Push(MakeBuffer({"some content", 5})), GST_FLOW_OK);
    const BufferHandle buffer = source_.Play().Pull();
    ASSERT_TRUE(buffer);
    EXPECT_EQ(ContentOf(buffer), "some content");
    EXPECT_TRUE(GST_MEMORY_IS_READONLY(gst_buffer_peek_memory(buffer.get(), 0)));
    EXPECT_EQ(source_.Figure("copies"), 0U);
    EXPECT_EQ(source_.Property<guint64>("copies"), 0U);
}

TEST_F(Transport, TimesAndOffsetsComeOutAsTheyWentIn) {
    for (const guint64 first : {guint64{0}, guint64{1000}, GST_CLOCK_TIME_NONE}) {
        const bool isSet = first != GST_CLOCK_TIME_NONE;
        BufferHandle buffer = MakeBuffer({"frame", first});
        GST_BUFFER_DTS(buffer.get()) = isSet ? first + 1 : first;
        GST_BUFFER_DURATION(buffer.get()) = isSet ? first + 2 : first;
        GST_BUFFER_OFFSET(buffer.get()) = isSet ? first + 3 : first;
        GST_BUFFER_OFFSET_END(buffer.get()) = isSet ? first + 4 : first;
        ASSERT_EQ(sink_.Push(std::move(buffer)), GST_FLOW_OK);
        const BufferHandle found = source_.Play().Pull();
        ASSERT_TRUE(found);
        EXPECT_EQ(GST_BUFFER_PTS(found.get()), first);
        EXPECT_EQ(GST_BUFFER_DTS(found.get()), isSet ? first + 1 : first);
        EXPECT_EQ(GST_BUFFER_DURATION(found.get()), isSet ? first + 2 : first);
        EXPECT_EQ(GST_BUFFER_OFFSET(found.get()), isSet ? first + 3 : first);
        EXPECT_EQ(GST_BUFFER_OFFSET_END(found.get()), isSet ? first + 4 : first);
    }
}

TEST_F(Transport, TimeStampThatNoPacketCanBearIsLeftOut) {
    ASSERT_EQ(sink_.Push(MakeBuffer({"before", 1})), GST_FLOW_OK);
    ASSERT_EQ(sink_.Push(MakeBuffer({"", GstClockTime{1} << 63U})), GST_FLOW_OK);
    ASSERT_EQ(sink_.Push(MakeBuffer({"after", 1})), GST_FLOW_OK);
    (void)source_.Play().Pull();
    EXPECT_EQ(GST_BUFFER_PTS(source_.Pull().get()), GST_CLOCK_TIME_NONE);
    EXPECT_EQ(ContentOf(source_.Pull()), "after") << "it was no end of stream";
}

TEST_F(Transport, StreamWithoutTimesBeginsWithTheSegment) {
    ASSERT_EQ(sink_.Push(MakeBuffer({"one"})), GST_FLOW_OK);
    ASSERT_EQ(sink_.Push(MakeBuffer({"two"})), GST_FLOW_OK);
    EXPECT_EQ(GST_BUFFER_PTS(source_.Play().Pull().get()), 0U) << "as of every live source";
    EXPECT_EQ(GST_BUFFER_PTS(source_.Pull().get()), GST_CLOCK_TIME_NONE);
}

TEST_F(Transport, FlagsComeOutAsTheyWentIn) {
    ASSERT_EQ(sink_.Push(MakeBuffer({"first", 0})), GST_FLOW_OK);
    EXPECT_EQ(FlagsOf(source_.Play().Pull()), guint{GST_BUFFER_FLAG_DISCONT}) << "of the first one";
    for (const GstBufferFlags flag :
         {GstBufferFlags(0), GST_BUFFER_FLAG_LIVE, GST_BUFFER_FLAG_DECODE_ONLY,
          GST_BUFFER_FLAG_DISCONT, GST_BUFFER_FLAG_RESYNC, GST_BUFFER_FLAG_CORRUPTED,
          GST_BUFFER_FLAG_MARKER, GST_BUFFER_FLAG_HEADER, GST_BUFFER_FLAG_GAP,
          GST_BUFFER_FLAG_DROPPABLE, GST_BUFFER_FLAG_DELTA_UNIT, GST_BUFFER_FLAG_SYNC_AFTER,
          GST_BUFFER_FLAG_NON_DROPPABLE, GST_BUFFER_FLAG_LAST}) {
        BufferHandle buffer = MakeBuffer({"frame", 1});
        GST_BUFFER_FLAG_SET(buffer.get(), flag);
        ASSERT_EQ(sink_.Push(std::move(buffer)), GST_FLOW_OK);
        EXPECT_EQ(FlagsOf(source_.Pull()), static_cast<guint>(flag));
    }
}

TEST_F(Transport, CaptureTimeOfTheBufferComesOut) {
    BufferHandle buffer = MakeBuffer({"frame", 0});
    gst_buffer_add_reference_timestamp_meta(buffer.get(), CaptureTimeCaps(), 1234567891234567000,
                                            GST_CLOCK_TIME_NONE);
    ASSERT_EQ(sink_.Push(std::move(buffer)), GST_FLOW_OK);
    const BufferHandle found = source_.Play().Pull();
    const auto* const meta =
        gst_buffer_get_reference_timestamp_meta(found.get(), CaptureTimeCaps());
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->timestamp, 1234567891234567000U);
}

TEST_F(Transport, CaptureTimeIsThatOfWritingIfTheBufferHasNone) {
    const auto before = static_cast<guint64>(g_get_real_time()) * 1000;
    ASSERT_EQ(sink_.Push(MakeBuffer({"frame", 0})), GST_FLOW_OK);
    const auto after = static_cast<guint64>(g_get_real_time()) * 1000;
    const BufferHandle found = source_.Play().Pull();
    const auto* const meta =
        gst_buffer_get_reference_timestamp_meta(found.get(), CaptureTimeCaps());
    ASSERT_NE(meta, nullptr);
    EXPECT_LE(before, meta->timestamp);
    EXPECT_GE(after, meta->timestamp);
}

TEST_F(Transport, NewCapsComeAheadOfTheirFirstBuffer) {
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    sink_.SetCaps("test/x-frames, number=(int)2");
    ASSERT_EQ(sink_.Push(MakeBuffer({"two", 2})), GST_FLOW_OK);
    source_.Play();
    (void)source_.Pull();
    (void)source_.Pull();
    EXPECT_THAT(source_.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1",
                            "caps test/x-frames, number=(int)2", "segment", "buffer 2"));
}

TEST_F(Transport, TagsComeAheadOfTheNextBuffer) {
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    GstTagList* const tags =
        gst_tag_list_new(GST_TAG_TITLE, "a \"title\"\nof two lines", GST_TAG_BITRATE, 5U, nullptr);
    ASSERT_TRUE(sink_.PushEvent(gst_event_new_tag(gst_tag_list_ref(tags))));
    ASSERT_EQ(sink_.Push(MakeBuffer({"two", 2})), GST_FLOW_OK);
    const EventHandle event = source_.Play().AwaitEvent(GST_EVENT_TAG);
    ASSERT_TRUE(event);
    GstTagList* found = nullptr;
    gst_event_parse_tag(event.get(), &found);
    EXPECT_TRUE(gst_tag_list_is_equal(found, tags));
    gst_tag_list_unref(tags);
    (void)source_.Pull();
    (void)source_.Pull();
    EXPECT_THAT(source_.History(), ElementsAre("caps test/x-frames, number=(int)1", "segment",
                                               "buffer 1", "tag", "buffer 2"));
}

TEST_F(Transport, TagsKeepTheirScope) {
    for (const GstTagScope scope : {GST_TAG_SCOPE_GLOBAL, GST_TAG_SCOPE_STREAM}) {
        GstTagList* const tags = gst_tag_list_new(GST_TAG_TITLE, "title", nullptr);
        gst_tag_list_set_scope(tags, scope);
        ASSERT_TRUE(sink_.PushEvent(gst_event_new_tag(tags)));
    }
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    (void)source_.Play().Pull();
    for (const GstTagScope scope : {GST_TAG_SCOPE_GLOBAL, GST_TAG_SCOPE_STREAM}) {
        const EventHandle event = source_.AwaitEvent(GST_EVENT_TAG);
        GstTagList* found = nullptr;
        gst_event_parse_tag(event.get(), &found);
        EXPECT_EQ(gst_tag_list_get_scope(found), scope);
    }
}

TEST_F(Transport, TagsAheadOfTheFirstBufferComeToo) {
    ASSERT_TRUE(
        sink_.PushEvent(gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "early", nullptr))));
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    (void)source_.Play().Pull();
    EXPECT_THAT(source_.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "tag", "buffer 1"));
}

TEST_F(Transport, GapsAndCustomEventsKeepTheirPlace) {
    const auto custom = [](const char* name) {
        return gst_event_new_custom(
            GST_EVENT_CUSTOM_DOWNSTREAM,
            gst_structure_new(name, "text", G_TYPE_STRING, "a;b\n\"c\"", nullptr));
    };
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    ASSERT_TRUE(sink_.PushEvent(gst_event_new_gap(7, 8)));
    ASSERT_TRUE(sink_.PushEvent(custom("first")));
    ASSERT_EQ(sink_.Push(MakeBuffer({"two", 2})), GST_FLOW_OK);
    ASSERT_TRUE(sink_.PushEvent(custom("last")));
    const EventHandle gap = source_.Play().AwaitEvent(GST_EVENT_GAP);
    ASSERT_TRUE(gap);
    GstClockTime start = 0;
    GstClockTime duration = 0;
    gst_event_parse_gap(gap.get(), &start, &duration);
    EXPECT_EQ(start, 7U);
    EXPECT_EQ(duration, 8U);
    const EventHandle event = source_.AwaitEvent(GST_EVENT_CUSTOM_DOWNSTREAM);
    ASSERT_TRUE(event);
    EXPECT_STREQ(gst_structure_get_string(gst_event_get_structure(event.get()), "text"),
                 "a;b\n\"c\"");
    ASSERT_TRUE(source_.AwaitEvent(GST_EVENT_CUSTOM_DOWNSTREAM)) << "no buffer comes behind it";
    EXPECT_THAT(source_.History(), ElementsAre("caps test/x-frames, number=(int)1", "segment",
                                               "buffer 1", "gap", "first", "buffer 2", "last"));
}

TEST_F(Transport, CustomEventsFollowTheSegmentThatTheyStandBehind) {
    const auto push = [this](const char* name) {
        ASSERT_TRUE(sink_.PushEvent(
            gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty(name))));
    };
    push("a");
    push("b");
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    push("c");
    sink_.SetCaps("test/x-frames, number=(int)2");
    push("d");
    push("e");
    ASSERT_EQ(sink_.Push(MakeBuffer({"two", 2})), GST_FLOW_OK);
    source_.Play();
    (void)source_.Pull();
    (void)source_.Pull();
    EXPECT_THAT(
        source_.History(),
        ElementsAre("caps test/x-frames, number=(int)1", "segment", "a", "b", "buffer 1", "c",
                    "caps test/x-frames, number=(int)2", "segment", "d", "e", "buffer 2"));
}

TEST_F(Transport, EventsAheadOfTheFirstSegmentHaveNoMeaning) {
    ASSERT_TRUE(sink_.PushEvent(gst_event_new_gap(7, 8)));
    ASSERT_EQ(sink_.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    (void)source_.Play().Pull();
    EXPECT_THAT(source_.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1"));
}

TEST_F(Transport, BuffersMadeOfManyMemoriesAreOnePacket) {
    for (const int count : {2, 3, 16, 17, 40}) {
        BufferHandle buffer(gst_buffer_new());
        std::string content;
        for (int i = 0; i < count; ++i) {
            // Memories beyond the sixteenth are merged by the buffer itself.
            const BufferHandle part = MakeBuffer({"part " + std::to_string(i)});
            content += ContentOf(part);
            gst_buffer_append_memory(buffer.get(), gst_buffer_get_memory(part.get(), 0));
        }
        ASSERT_EQ(sink_.Push(std::move(buffer)), GST_FLOW_OK);
        EXPECT_EQ(ContentOf(source_.Play().Pull()), content);
    }
    EXPECT_EQ(sink_.Figure("copies"), 0U);
    EXPECT_EQ(source_.Figure("packets"), 5U);
}

TEST_F(Transport, EmptyBuffersComeOutEmpty) {
    BufferHandle bare(gst_buffer_new());
    GST_BUFFER_PTS(bare.get()) = 3;
    GST_BUFFER_OFFSET(bare.get()) = 4;
    ASSERT_EQ(sink_.Push(std::move(bare)), GST_FLOW_OK);
    ASSERT_EQ(sink_.Push(MakeBuffer({"", 5})), GST_FLOW_OK);
    const BufferHandle found = source_.Play().Pull();
    EXPECT_EQ(gst_buffer_get_size(found.get()), 0U);
    EXPECT_EQ(GST_BUFFER_PTS(found.get()), 3U);
    EXPECT_EQ(GST_BUFFER_OFFSET(found.get()), 4U);
    EXPECT_EQ(GST_BUFFER_PTS(source_.Pull().get()), 5U);
}

TEST_F(Transport, StatisticsSayWhatHasBeenDone) {
    for (GstClockTime pts = 0; pts < 4; ++pts) {
        ASSERT_EQ(sink_.Push(MakeBuffer({"12345", pts})), GST_FLOW_OK);
    }
    ASSERT_TRUE(sink_.End());
    ASSERT_TRUE(source_.Play().AwaitEvent(GST_EVENT_EOS));
    const Element* const elements[] = {&sink_, &source_};
    for (const Element* const element : elements) {
        EXPECT_EQ(element->Figure("packets"), 4U);
        EXPECT_EQ(element->Figure("bytes"), 20U);
        EXPECT_EQ(element->Figure("copies"), 0U);
    }
    EXPECT_EQ(sink_.Figure("dropped"), 0U);
    EXPECT_EQ(sink_.Figure("control-dropped"), 0U);
    EXPECT_EQ(source_.Figure("skipped"), 0U);
    EXPECT_EQ(source_.Figure("fillers"), 0U);
    EXPECT_EQ(source_.Figure("recovered"), 0U);
    EXPECT_EQ(source_.Figure("outstanding-packets"), 4U + 1) << "with the end behind them";
    EXPECT_EQ(source_.Figure("outstanding-bytes"), 4U * (26 + 5) + 26);
    (void)source_.Pull();
    EXPECT_EQ(source_.Figure("outstanding-packets"), 3U + 1);
}

TEST_F(Transport, StatisticsArePostedAtTheEndAndWhenStopped) {
    ASSERT_TRUE(sink_.End());
    ASSERT_TRUE(source_.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_EQ(sink_.TakeStatsMessages(), 1);
    EXPECT_EQ(source_.TakeStatsMessages(), 1);
    ASSERT_TRUE(sink_.SetState(GST_STATE_READY));
    ASSERT_TRUE(source_.SetState(GST_STATE_READY));
    EXPECT_EQ(source_.TakeStatsMessages(), 1);
    EXPECT_EQ(sink_.Figure("packets"), 0U);
}

}  // namespace
}  // namespace qel::test
