// Readers and writers that come late, go, are killed and come again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <iostream>

#include "ChildProcess.h"
#include "Elements.h"
#include "StreamName.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr const char* kCaps1 = "test/x-frames, number=(int)1";
constexpr const char* kCaps2 = "test/x-frames, number=(int)2";

/// Holds the node 1 of the ring that it is told, and as many buffers; then waits for its end.
const RegisterRole holder("hold", [](const Arguments& arguments) {
    Source source(arguments.at(0), {{"node", "1"}});
    source.Play();
    std::vector<BufferHandle> held;
    for (int i = 0; i < std::stoi(arguments.at(1)); ++i) {
        held.push_back(source.Pull());
    }
    std::cout << "held" << std::endl;
    std::string line;
    std::getline(std::cin, line);
    return 0;
});

/// Writes a stream of key frame, other and key frame, and waits for its end.
const RegisterRole writer("write", [](const Arguments& arguments) {
    Sink sink(arguments.at(0), {{"size", "100000"}}, arguments.at(1).c_str());
    for (GstClockTime pts = 0; pts < 3; ++pts) {
        (void)sink.Push(MakeBuffer({"frame", pts, pts != 1}));
    }
    std::cout << "written" << std::endl;
    std::string line;
    std::getline(std::cin, line);
    return 0;
});

class Restart : public testing::Test {
protected:
    std::unique_ptr<Sink> MakeSink(const char* caps = kCaps1) const {
        return std::make_unique<Sink>(name_.Name(), Properties{{"size", "100000"}}, caps);
    }
    static void Push(Sink& sink, GstClockTime pts, bool isKey = true) {
        ASSERT_EQ(sink.Push(MakeBuffer({"frame", pts, isKey})), GST_FLOW_OK);
    }
    static void ExpectNext(Source& source, GstClockTime pts, bool isDiscont) {
        const BufferHandle buffer = source.Pull();
        ASSERT_TRUE(buffer);
        EXPECT_EQ(GST_BUFFER_PTS(buffer.get()), pts);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer.get(), GST_BUFFER_FLAG_DISCONT) != FALSE,
                  isDiscont);
    }

    UniqueStreamName name_;
};

TEST_F(Restart, ReaderThatComesLateGetsAllThatWaits) {
    const auto sink = MakeSink();
    for (GstClockTime pts = 0; pts < 5; ++pts) {
        Push(*sink, pts, pts == 0);
    }
    Source source(name_.Name());
    source.Play();
    for (GstClockTime pts = 0; pts < 5; ++pts) {
        ExpectNext(source, pts, pts == 0);
    }
}

TEST_F(Restart, FirstBufferIsAKeyFrameUnlessTheUserDoesNotWantThat) {
    for (const bool awaits : {true, false}) {
        const UniqueStreamName name;
        Sink sink(name.Name(), {{"size", "100000"}});
        for (GstClockTime pts = 0; pts < 4; ++pts) {
            Push(sink, pts, pts == 2);
        }
        Source source(name.Name(),
                      {{"sink", "true"}, {"start-at-key-frame", awaits ? "true" : "false"}});
        source.Play();
        const GstClockTime first = awaits ? 2 : 0;
        for (GstClockTime pts = first; pts < 4; ++pts) {
            ExpectNext(source, pts, pts == first);
        }
        EXPECT_EQ(source.Figure("skipped"), first);
        EXPECT_EQ(source.Figure("packets"), 4 - first);
    }
}

TEST_F(Restart, ReaderFindsTheStateInTheBlockAndGoesOnAtTheNextKeyFrame) {
    const auto sink = MakeSink();
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.time = 77;
    ASSERT_TRUE(sink->PushEvent(gst_event_new_segment(&segment)));
    ASSERT_TRUE(
        sink->PushEvent(gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "a title", nullptr))));
    Push(*sink, 0);
    {
        Source source(name_.Name());
        ExpectNext(source.Play(), 0, true);
    }
    for (GstClockTime pts = 1; pts < 5; ++pts) {
        Push(*sink, pts, pts == 3);
    }
    Source source(name_.Name());
    ExpectNext(source.Play(), 3, true);
    ExpectNext(source, 4, false);
    EXPECT_EQ(source.Figure("skipped"), 2U);
    EXPECT_THAT(source.History(), ElementsAre(std::string("caps ") + kCaps1, "segment", "tag",
                                              "buffer 3", "buffer 4"));
    const GstSegment* found = nullptr;
    gst_event_parse_segment(source.AwaitEvent(GST_EVENT_SEGMENT).get(), &found);
    EXPECT_EQ(found->time, 77U);
}

TEST_F(Restart, ReaderThatIsKilledLeavesItsBuffersToTheNextNode) {
    const auto sink = MakeSink();
    Source last(name_.Name(), {{"node", "2"}, {"sink", "true"}});
    last.Play();
    ChildProcess child("hold", {name_.Name(), "2"});
    for (GstClockTime pts = 0; pts < 4; ++pts) {
        Push(*sink, pts, pts == 0);
    }
    ASSERT_EQ(child.Hear(), "held");
    child.Kill();
    EXPECT_EQ(child.Wait(), -SIGKILL);
    EXPECT_EQ(last.Delivered(), 0U);

    Push(*sink, 4);
    Push(*sink, 5, false);
    Source successor(name_.Name(), {{"node", "1"}});
    ExpectNext(successor.Play(), 4, true);
    ExpectNext(successor, 5, false);
    EXPECT_GE(successor.Figure("recovered"), 2U);  // and those that it had on their way
    EXPECT_EQ(successor.Figure("recovered") + successor.Figure("skipped"), 4U);
    for (GstClockTime pts = 0; pts < 4; ++pts) {
        ExpectNext(last, pts, pts == 0);
    }
}

TEST_F(Restart, CapsOfTheNextWriterComeAheadOfItsFirstBuffer) {
    Source source(name_.Name(), {{"sink", "true"}, {"ignore-eos", "true"}});
    source.Play();
    for (const char* const caps : {kCaps1, kCaps2, kCaps2}) {
        const auto sink = MakeSink(caps);
        Push(*sink, 1);
        Push(*sink, 2, false);
        ExpectNext(source, 1, caps == kCaps1 && source.Delivered() <= 2);
        ExpectNext(source, 2, false);
    }
    const std::string one = std::string("caps ") + kCaps1;
    const std::string two = std::string("caps ") + kCaps2;
    EXPECT_THAT(source.History(),
                ElementsAre(one, "segment", "buffer 1", "buffer 2", two, "segment", "buffer 1",
                            "buffer 2", "segment", "buffer 1", "buffer 2"));
}

TEST_F(Restart, WriterThatIsKilledIsFollowedByAnother) {
    Source source(name_.Name());
    source.Play();
    {
        ChildProcess child("write", {name_.Name(), kCaps1});
        ASSERT_EQ(child.Hear(), "written");
        for (GstClockTime pts = 0; pts < 3; ++pts) {
            ExpectNext(source, pts, pts == 0);
        }
        child.Kill();
        EXPECT_EQ(child.Wait(), -SIGKILL);
    }
    const auto sink = MakeSink(kCaps2);
    Push(*sink, 9);
    ExpectNext(source, 9, false);
    EXPECT_EQ(source.History()[5], std::string("caps ") + kCaps2);
}

TEST_F(Restart, EndOfAStreamTellsItsCapsToReadersThatComeWhenItsWriterHasGone) {
    {
        const auto sink = MakeSink();
        Push(*sink, 0);
        Source source(name_.Name());
        ExpectNext(source.Play(), 0, true);
        ASSERT_TRUE(source.SetState(GST_STATE_NULL));
        Push(*sink, 1, false);
        Push(*sink, 2);
        ASSERT_TRUE(sink->End());
    }
    Source source(name_.Name());
    ASSERT_TRUE(source.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source.History(),
                ElementsAre(std::string("caps ") + kCaps1, "segment", "buffer 2", "eos"));
}

TEST_F(Restart, PacketsAheadOfTheStateThatTheEndRepeatsComeUnderItsCaps) {
    {
        const auto sink = MakeSink();
        Push(*sink, 0);
        Source source(name_.Name());
        ExpectNext(source.Play(), 0, true);
        ASSERT_TRUE(source.SetState(GST_STATE_NULL));
        Push(*sink, 1, false);
        Push(*sink, 2, false);
        ASSERT_TRUE(sink->End());
    }
    Source source(name_.Name(), {{"sink", "true"}, {"start-at-key-frame", "false"}});
    ASSERT_TRUE(source.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source.History(), ElementsAre(std::string("caps ") + kCaps1, "segment", "buffer 1",
                                              "buffer 2", "eos"));
    EXPECT_EQ(source.TakeWarnings(), 0);
}

TEST_F(Restart, WriterWithinTheChainIsStoppedAndStartedAgain) {
    {
        const auto first = MakeSink();
        for (GstClockTime pts = 0; pts < 40; ++pts) {  // what it hands on is the other's room
            Push(*first, pts);
        }
    }
    Sink sink(name_.Name(), {{"size", "100000"}, {"node", "1"}});
    Source source(name_.Name(), {{"node", "2"}, {"sink", "true"}});
    source.Play();
    for (GstClockTime pts = 100; pts < 103; ++pts) {
        Push(sink, pts);
        ExpectNext(source, pts, pts == 100);
        ASSERT_TRUE(sink.SetState(GST_STATE_NULL));
        ASSERT_TRUE(sink.SetState(GST_STATE_PLAYING));
        sink.SetCaps(kCaps2);
    }
    EXPECT_EQ(source.Figure("skipped"), 0U);
    EXPECT_EQ(sink.Figure("control-dropped"), 0U);
}

/// A ring in which frames of a writer wait that has gone, and whose caps have been read already.
class Orphans : public Restart {
protected:
    void SetUp() override {
        auto sink = MakeSink();
        Push(*sink, 0);
        Source source(name_.Name());
        ExpectNext(source.Play(), 0, true);
        ASSERT_TRUE(source.SetState(GST_STATE_NULL));
        Push(*sink, 1, false);  // with key frames the caps would be repeated
        Push(*sink, 2, false);
    }
};

TEST_F(Orphans, AreNotDeliveredUnderCapsThatNobodyKnows) {
    Source source(name_.Name());
    source.Play();
    const Element::Error warning = source.AwaitWarning();
    EXPECT_EQ(warning.code, StreamError(GST_STREAM_ERROR_FORMAT));
    EXPECT_EQ(warning.text,
              "ring " + name_.Name() + ": the caps of what waits in it are not known any more");
    const auto sink = MakeSink(kCaps2);
    Push(*sink, 3, false);
    Push(*sink, 4);
    ExpectNext(source, 4, true);
    EXPECT_EQ(source.TakeWarnings(), 0) << "one was enough";
    EXPECT_EQ(source.Figure("skipped"), 3U);
    EXPECT_THAT(source.History(),
                ElementsAre(std::string("caps ") + kCaps2, "segment", "buffer 4"));
}

TEST_F(Orphans, AreDeliveredUnderTheCapsThatTheUserSets) {
    Source source(name_.Name(),
                  {{"sink", "true"}, {"caps", kCaps1}, {"start-at-key-frame", "false"}});
    ExpectNext(source.Play(), 1, true);
    ExpectNext(source, 2, false);
    const auto sink = MakeSink(kCaps2);
    Push(*sink, 3);
    ExpectNext(source, 3, false);
    EXPECT_THAT(source.History(),
                ElementsAre(std::string("caps ") + kCaps1, "segment", "buffer 1", "buffer 2",
                            std::string("caps ") + kCaps2, "segment", "buffer 3"));
}

}  // namespace
}  // namespace qel::test
