// Segments, and the running time that buffers get from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include "CaptureTime.h"
#include "Elements.h"
#include "StreamName.h"

namespace qel::test {
namespace {

constexpr GstClockTime kNow = 100 * GST_SECOND;

GstSegment SegmentOf(GstEvent* event) {
    GstSegment segment;
    gst_event_copy_segment(event, &segment);
    return segment;
}

class StreamTime : public testing::Test {
protected:
    /// A source whose pipeline has the running time `kNow`.
    std::unique_ptr<Source> PlaySource(const char* align) {
        auto source = std::make_unique<Source>(name_.Name(),
                                               Properties{{"sink", "true"}, {"align-time", align}});
        gst_harness_use_testclock(source->Harness());
        gst_element_set_base_time(source->Get(), 0);
        (void)gst_harness_set_time(source->Harness(), kNow);
        source->Play();
        return source;
    }
    void PushSegment(GstClockTime start, GstClockTime stop, GstClockTime base) {
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        segment.start = start;
        segment.stop = stop;
        segment.base = base;
        segment.time = 77;
        ASSERT_TRUE(sink_.PushEvent(gst_event_new_segment(&segment)));
    }
    /// @param captured  ns since 1970: of that age a frame cannot be, if it is not set
    void Push(GstClockTime pts, GstClockTime captured = GST_SECOND) {
        BufferHandle buffer = MakeBuffer({"frame", pts});
        gst_buffer_add_reference_timestamp_meta(buffer.get(), CaptureTimeCaps(), captured,
                                                GST_CLOCK_TIME_NONE);
        ASSERT_EQ(sink_.Push(std::move(buffer)), GST_FLOW_OK);
    }
    void PushCaps(const char* text) {
        const CapsHandle caps(gst_caps_from_string(text));
        ASSERT_TRUE(sink_.PushEvent(gst_event_new_caps(caps.get())));
    }
    static GstClockTime RunningTime(const GstSegment& segment, GstClockTime pts) {
        return gst_segment_to_running_time(&segment, GST_FORMAT_TIME, pts);
    }

    UniqueStreamName name_;
    Sink sink_{name_.Name(), {{"size", "100000"}}};
};

TEST_F(StreamTime, SegmentComesOutAsItWentInIfItIsNotToBeAligned) {
    PushSegment(10 * GST_SECOND, 20 * GST_SECOND, 5 * GST_SECOND);
    Push(12 * GST_SECOND);
    const auto source = PlaySource("false");
    (void)source->Pull();
    const GstSegment segment = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
    EXPECT_EQ(segment.format, GST_FORMAT_TIME);
    EXPECT_EQ(segment.start, 10 * GST_SECOND);
    EXPECT_EQ(segment.stop, 20 * GST_SECOND);
    EXPECT_EQ(segment.base, 5 * GST_SECOND);
    EXPECT_EQ(segment.time, 77U);
    EXPECT_EQ(segment.rate, 1.0);
}

TEST_F(StreamTime, FirstBufferHasTheRunningTimeOfItsArrivalIfItIsAligned) {
    for (const GstClockTime base : {GstClockTime{0}, GstClockTime{5000} * GST_SECOND}) {
        PushSegment(10 * GST_SECOND, 90 * GST_SECOND, base);
        Push(12 * GST_SECOND);
        const auto source = PlaySource("true");
        const BufferHandle first = source->Pull();
        EXPECT_EQ(GST_BUFFER_PTS(first.get()), 12 * GST_SECOND) << "time stamps stay";
        const GstSegment segment = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
        EXPECT_EQ(RunningTime(segment, 12 * GST_SECOND), kNow);
        EXPECT_EQ(RunningTime(segment, 13 * GST_SECOND), kNow + GST_SECOND);
        EXPECT_EQ(segment.start, 10 * GST_SECOND);
        EXPECT_EQ(segment.time, 77U);
    }
}

TEST_F(StreamTime, SegmentsOfOneStreamKeepTheirDistanceHoweverLateTheyCome) {
    PushSegment(10 * GST_SECOND, GST_CLOCK_TIME_NONE, 0);
    Push(12 * GST_SECOND);
    const auto source = PlaySource("true");
    (void)source->Pull();
    const GstSegment first = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
    EXPECT_EQ(RunningTime(first, 12 * GST_SECOND), kNow);
    (void)gst_harness_set_time(source->Harness(), kNow + 50 * GST_SECOND);
    PushSegment(20 * GST_SECOND, GST_CLOCK_TIME_NONE, 5 * GST_SECOND);
    Push(21 * GST_SECOND);
    (void)source->Pull();
    const GstSegment second = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
    EXPECT_EQ(RunningTime(second, 21 * GST_SECOND), kNow + 4 * GST_SECOND);
}

TEST_F(StreamTime, SegmentIsAlignedAnewAfterAFlushAndOfAWriterThatHasBeenStartedAgain) {
    Push(12 * GST_SECOND);
    const auto source = PlaySource("true");
    (void)source->Pull();
    (void)source->AwaitEvent(GST_EVENT_SEGMENT);
    GstClockTime now = kNow;
    for (const bool isFlush : {true, false}) {
        now += 50 * GST_SECOND;
        (void)gst_harness_set_time(source->Harness(), now);
        if (isFlush) {
            ASSERT_TRUE(sink_.PushEvent(gst_event_new_flush_start()));
            ASSERT_TRUE(sink_.PushEvent(gst_event_new_flush_stop(TRUE)));
        } else {
            ASSERT_TRUE(sink_.SetState(GST_STATE_NULL));
            ASSERT_TRUE(sink_.SetState(GST_STATE_PLAYING));
            sink_.SetCaps("test/x-frames, number=(int)2");
        }
        PushSegment(20 * GST_SECOND, GST_CLOCK_TIME_NONE, 0);
        Push(21 * GST_SECOND);
        (void)source->Pull();
        const GstSegment segment = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
        EXPECT_EQ(RunningTime(segment, 21 * GST_SECOND), now) << isFlush;
    }
}

TEST_F(StreamTime, BufferThatWaitedHasTheRunningTimeOfItsCapture) {
    const auto captured = static_cast<GstClockTime>(g_get_real_time()) * 1000 - 10 * GST_SECOND;
    Push(12 * GST_SECOND, captured);
    const auto source = PlaySource("true");
    (void)source->Pull();
    const auto age = static_cast<GstClockTime>(g_get_real_time()) * 1000 - captured;
    const GstSegment segment = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
    EXPECT_LE(RunningTime(segment, 12 * GST_SECOND), kNow - 10 * GST_SECOND);
    EXPECT_GE(RunningTime(segment, 12 * GST_SECOND), kNow - age);
}

TEST_F(StreamTime, LatencyIsNoneAndHasNoUpperBound) {
    const auto source = PlaySource("true");
    GstQuery* const query = gst_query_new_latency();
    ASSERT_TRUE(gst_element_query(source->Get(), query));
    gboolean isLive = FALSE;
    GstClockTime shortest = 1;
    GstClockTime longest = 1;
    gst_query_parse_latency(query, &isLive, &shortest, &longest);
    gst_query_unref(query);
    EXPECT_TRUE(isLive);
    EXPECT_EQ(shortest, 0U);
    EXPECT_EQ(longest, GST_CLOCK_TIME_NONE);
}

TEST_F(StreamTime, BufferWithoutTimeStampAlignsNothing) {
    PushSegment(10 * GST_SECOND, 20 * GST_SECOND, 5 * GST_SECOND);
    Push(GST_CLOCK_TIME_NONE);
    const auto source = PlaySource("true");
    (void)source->Pull();
    EXPECT_EQ(SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get()).base, 5 * GST_SECOND);
}

TEST_F(StreamTime, LaterSegmentComesAheadOfItsBuffer) {
    Push(1);
    PushSegment(10 * GST_SECOND, GST_CLOCK_TIME_NONE, 3);
    Push(11 * GST_SECOND);
    const auto source = PlaySource("false");
    (void)source->Pull();
    (void)source->Pull();
    (void)source->AwaitEvent(GST_EVENT_SEGMENT);
    EXPECT_EQ(SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get()).start, 10 * GST_SECOND);
    EXPECT_THAT(source->History(),
                testing::ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1",
                                     "segment", "buffer 11000000000"));
}

TEST_F(StreamTime, NewCapsKeepTheSegment) {
    Push(1);
    PushCaps("test/x-frames, number=(int)2");
    Push(2);
    const auto source = PlaySource("false");
    (void)source->Pull();
    (void)source->Pull();
    EXPECT_THAT(source->History(),
                testing::ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1",
                                     "caps test/x-frames, number=(int)2", "buffer 2"));
}

TEST_F(StreamTime, ReaderThatMissedTheSegmentFindsItWhenNewCapsCome) {
    PushSegment(0, GST_CLOCK_TIME_NONE, 0);
    Push(1);
    ASSERT_TRUE(PlaySource("false")->Pull());
    PushCaps("test/x-frames, number=(int)2");
    Push(2);
    const auto source = PlaySource("false");
    (void)source->Pull();
    EXPECT_EQ(SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get()).time, 77U);
}

TEST_F(StreamTime, StreamGoesOnBehindTheSegmentsEndUntilItsOwn) {
    PushSegment(0, 20, 0);
    for (const GstClockTime pts : {10U, 20U, 30U}) {
        Push(pts);
    }
    PushSegment(0, 100, 0);
    Push(40);
    ASSERT_TRUE(sink_.End());
    const auto source = PlaySource("false");
    ASSERT_TRUE(source->AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source->History(),
                testing::ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 10",
                                     "buffer 20", "buffer 30", "segment", "buffer 40", "eos"));
}

TEST_F(StreamTime, SegmentThatIsToBeMarkedAtItsEndIsAnOrdinaryOne) {
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.flags = static_cast<GstSegmentFlags>(GST_SEGMENT_FLAG_SEGMENT | GST_SEGMENT_FLAG_RESET);
    ASSERT_TRUE(sink_.PushEvent(gst_event_new_segment(&segment)));
    Push(10);
    ASSERT_TRUE(sink_.End());
    const auto source = PlaySource("false");
    const GstSegment found = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
    EXPECT_EQ(found.flags, GST_SEGMENT_FLAG_RESET);
    EXPECT_EQ(GST_BUFFER_PTS(source->Pull().get()), 10U);
    while (source->History().size() < 4) {  // what comes last, whatever it is
        ::sched_yield();
    }
    EXPECT_THAT(source->History(), testing::ElementsAre("caps test/x-frames, number=(int)1",
                                                        "segment", "buffer 10", "eos"));
}

TEST_F(StreamTime, BackwardStreamComesOut) {
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.rate = -1;
    segment.start = 10;
    segment.stop = 100;
    ASSERT_TRUE(sink_.PushEvent(gst_event_new_segment(&segment)));
    for (const GstClockTime pts : {50U, 10U, 5U}) {
        Push(pts);
    }
    ASSERT_TRUE(sink_.End());
    const auto source = PlaySource("false");
    ASSERT_TRUE(source->AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source->History(),
                testing::ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 50",
                                     "buffer 10", "buffer 5", "eos"));
}

TEST_F(StreamTime, SegmentInOtherFormatsIsNotSent) {
    GstSegment bytes;
    gst_segment_init(&bytes, GST_FORMAT_BYTES);
    bytes.start = 5;
    ASSERT_TRUE(sink_.PushEvent(gst_event_new_segment(&bytes)));
    Push(1);
    const auto source = PlaySource("false");
    (void)source->Pull();
    const GstSegment segment = SegmentOf(source->AwaitEvent(GST_EVENT_SEGMENT).get());
    EXPECT_EQ(segment.format, GST_FORMAT_TIME);
    EXPECT_EQ(segment.start, 0U);
}

}  // namespace
}  // namespace qel::test
