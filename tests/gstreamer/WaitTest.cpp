// What ends the waits of qevsrc, and its life in the states of an element.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Elements.h"
#include "ProcessState.h"
#include "StreamName.h"
#include "Worker.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

const Properties kWriting{{"size", "100000"}};

class SourceWait : public testing::TestWithParam<const char*> {
protected:
    [[nodiscard]] Properties Reading() const { return {{"sink", "true"}, {"wakeup", GetParam()}}; }

    UniqueStreamName name_;
};

TEST_P(SourceWait, ForTheRingEndsWithTheState) {
    Source source(name_.Name(), Reading());
    source.Play();
    ASSERT_TRUE(source.SetState(GST_STATE_NULL));
    EXPECT_EQ(source.Delivered(), 0U);
}

TEST_P(SourceWait, ForTheRingEndsWithTheRing) {
    Source source(name_.Name(), Reading());
    source.Play();
    Sink sink(name_.Name(), kWriting);
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    EXPECT_EQ(ContentOf(source.Pull()), "frame");
}

TEST_P(SourceWait, ForPacketsEndsWithTheState) {
    Sink sink(name_.Name(), kWriting);
    Source source(name_.Name(), Reading());
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    ASSERT_TRUE(source.Play().Pull());
    ASSERT_TRUE(source.SetState(GST_STATE_PAUSED));
    ASSERT_TRUE(source.SetState(GST_STATE_PLAYING));
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 2})), GST_FLOW_OK);
    EXPECT_EQ(GST_BUFFER_PTS(source.Pull().get()), 2U);
    ASSERT_TRUE(source.SetState(GST_STATE_NULL));
}

TEST_P(SourceWait, NoBufferComesInPaused) {
    Sink sink(name_.Name(), kWriting);
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    Source source(name_.Name(), Reading());
    ASSERT_TRUE(source.SetState(GST_STATE_PAUSED));
    ASSERT_TRUE(source.SetState(GST_STATE_READY));
    EXPECT_EQ(source.Delivered(), 0U);
}

TEST_P(SourceWait, EndsWithAFlushAndTheStreamGoesOn) {
    Sink sink(name_.Name(), kWriting);
    Source source(name_.Name(), Reading());
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    ASSERT_TRUE(source.Play().Pull());
    ASSERT_TRUE(gst_element_send_event(source.Get(), gst_event_new_flush_start()));
    ASSERT_TRUE(gst_element_send_event(source.Get(), gst_event_new_flush_stop(TRUE)));
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 2})), GST_FLOW_OK);
    EXPECT_EQ(GST_BUFFER_PTS(source.Pull().get()), 2U);
    EXPECT_THAT(source.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1",
                            "flush-start", "flush-stop", "segment", "buffer 2"));
}

INSTANTIATE_TEST_SUITE_P(Modes, SourceWait, testing::Values("semaphore", "spin"),
                         [](const auto& row) { return std::string(row.param); });

TEST(States, CyclesLeaveNothingBehindAndEveryOneDelivers) {
    const UniqueStreamName name;
    Sink sink(name.Name(), kWriting);
    Source source(name.Name());
    source.Play();
    Holdings first{};
    for (GstClockTime i = 0; i < 20; ++i) {
        sink.SetCaps("test/x-frames, number=(int)1");
        ASSERT_EQ(sink.Push(MakeBuffer({"frame", i})), GST_FLOW_OK);
        const BufferHandle buffer = source.Pull();
        ASSERT_TRUE(buffer) << i;
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), i);
        EXPECT_EQ(FlagsOf(buffer), guint{GST_BUFFER_FLAG_DISCONT});
        ASSERT_TRUE(source.SetState(GST_STATE_NULL));
        ASSERT_TRUE(sink.SetState(GST_STATE_NULL));
        ASSERT_TRUE(sink.SetState(GST_STATE_PLAYING));
        ASSERT_TRUE(source.SetState(GST_STATE_PLAYING));
        if (i == 1) {
            first = HoldingsOf(name.Name());
        }
    }
    ASSERT_TRUE(source.SetState(GST_STATE_NULL));
    ASSERT_TRUE(sink.SetState(GST_STATE_NULL));
    const Holdings last = HoldingsOf(name.Name());
    EXPECT_LE(last.descriptors, first.descriptors);
    EXPECT_LE(last.mappings, first.mappings);
    EXPECT_EQ(last.mappings, 0);
}

TEST(States, BuffersKeepTheirDataAndTheirNodeOverACycle) {
    const UniqueStreamName name;
    Sink sink(name.Name(), kWriting);
    Source source(name.Name());
    ASSERT_EQ(sink.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    ASSERT_EQ(sink.Push(MakeBuffer({"two", 2})), GST_FLOW_OK);
    BufferHandle one = source.Play().Pull();
    BufferHandle two = source.Pull();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(source.SetState(GST_STATE_NULL));
        ASSERT_TRUE(source.SetState(GST_STATE_PLAYING));
    }
    ASSERT_EQ(sink.Push(MakeBuffer({"three", 3})), GST_FLOW_OK);
    const BufferHandle three = source.Pull();
    ASSERT_TRUE(three);
    EXPECT_EQ(ContentOf(one), "one");
    EXPECT_EQ(ContentOf(two), "two");
    EXPECT_EQ(ContentOf(three), "three");
    EXPECT_EQ(source.Figure("outstanding-packets"), 3U);
    EXPECT_EQ(source.Figure("recovered"), 0U) << "they are not left over";
    two.reset();
    EXPECT_EQ(source.Figure("outstanding-packets"), 3U);
    one.reset();
    EXPECT_EQ(source.Figure("outstanding-packets"), 1U);
}

TEST(States, BufferGivenBackDuringAStartDoesNotKeepTheNode) {
    const UniqueStreamName name;
    Sink sink(name.Name(), kWriting);
    Source source(name.Name());
    source.Play();
    Worker downstream;
    for (GstClockTime i = 0; i < 300; ++i) {
        ASSERT_EQ(sink.Push(MakeBuffer({"frame", i})), GST_FLOW_OK);
        auto buffer = std::make_shared<BufferHandle>(source.Pull());
        ASSERT_TRUE(*buffer) << i;
        ASSERT_TRUE(source.SetState(GST_STATE_NULL));
        const auto given = downstream.Start([buffer] { buffer->reset(); });
        ASSERT_TRUE(source.SetState(GST_STATE_PLAYING));
        given.wait();
    }
}

TEST(States, BuffersOutliveTheElement) {
    const UniqueStreamName name;
    Sink sink(name.Name(), kWriting);
    ASSERT_EQ(sink.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    BufferHandle buffer;
    {
        Source source(name.Name());
        buffer = source.Play().Pull();
    }
    EXPECT_EQ(ContentOf(buffer), "one");
    const Element other("qevsrc", name.Name(), {{"sink", "true"}});
    (void)other.SetState(GST_STATE_PLAYING);
    EXPECT_EQ(other.AwaitError().code, ResourceError(GST_RESOURCE_ERROR_BUSY));
    buffer.reset();
    Source next(name.Name());
    ASSERT_EQ(sink.Push(MakeBuffer({"two", 2})), GST_FLOW_OK);
    EXPECT_EQ(ContentOf(next.Play().Pull()), "two");
}

TEST(States, StatisticsBeginAnewWithEachStart) {
    const UniqueStreamName name;
    Sink sink(name.Name(), kWriting);
    ASSERT_EQ(sink.Push(MakeBuffer({"one", 1})), GST_FLOW_OK);
    ASSERT_TRUE(sink.SetState(GST_STATE_NULL));
    EXPECT_EQ(sink.Figure("packets"), 1U) << "still there to look at";
    ASSERT_TRUE(sink.SetState(GST_STATE_PLAYING));
    EXPECT_EQ(sink.Figure("packets"), 0U);
    EXPECT_EQ(sink.Figure("bytes"), 0U);
}

TEST(States, StreamGoesOnInPlayingAfterPaused) {
    const UniqueStreamName name;
    Sink sink(name.Name(), kWriting);
    Source source(name.Name());
    source.Play();
    for (GstClockTime i = 0; i < 20; ++i) {
        ASSERT_EQ(sink.Push(MakeBuffer({"frame", i})), GST_FLOW_OK);
        EXPECT_EQ(GST_BUFFER_PTS(source.Pull().get()), i);
        ASSERT_TRUE(source.SetState(GST_STATE_PAUSED));
        ASSERT_TRUE(source.SetState(GST_STATE_PLAYING));
    }
    EXPECT_EQ(source.Figure("skipped"), 0U);
}

}  // namespace
}  // namespace qel::test
