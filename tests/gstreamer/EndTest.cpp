// The end of a stream, as elements and as plain readers see it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControlQueue.h"
#include "Elements.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "StreamName.h"
#include "StreamNames.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t kSize = 100000;

class StreamEnd : public testing::Test {
protected:
    void Push(Sink& sink, GstClockTime pts) {
        ASSERT_EQ(sink.Push(MakeBuffer({"frame", pts})), GST_FLOW_OK);
    }

    UniqueStreamName name_;
    const Properties writing_{{"size", std::to_string(kSize)}};
};

TEST_F(StreamEnd, IsAMarkOnTheRingAndARecordBesideIt) {
    Sink sink(name_.Name(), writing_);
    Push(sink, 5);
    ASSERT_TRUE(sink.End());
    const auto ring = OpenRing({name_.Name(), kSize, 1, true, 0});
    const auto control =
        OpenRing({StreamNames(name_.Name()).control, ControlRingSize(kSize), 1, true, 0});
    PacketReader reader(*ring);
    ControlQueue records(*control);
    const auto packet = reader.TryNext();
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->outcome, ReadOutcome::Packet);
    EXPECT_TRUE(records.Take(packet->packet).details);
    const auto end = reader.TryNext();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->outcome, ReadOutcome::EndOfStream);
    const auto details = records.Take(end->packet).details;
    ASSERT_TRUE(details);
    EXPECT_EQ(details->kind, ControlKind::EndOfStream);
    EXPECT_TRUE(details->control.fileStop);
    EXPECT_FALSE(reader.TryNext());
    EXPECT_FALSE(records.TakeEvent());
}

TEST_F(StreamEnd, EndsTheSourceWhichStartsAgainWithTheNextStream) {
    Source source(name_.Name());
    for (const GstClockTime pts : {1U, 2U}) {
        Sink sink(name_.Name(), writing_);
        Push(sink, pts);
        ASSERT_TRUE(sink.End());
        ASSERT_TRUE(source.Play().AwaitEvent(GST_EVENT_EOS));
        ASSERT_TRUE(source.SetState(GST_STATE_READY));
    }
    EXPECT_THAT(source.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1", "eos",
                            "caps test/x-frames, number=(int)1", "segment", "buffer 2", "eos"));
}

TEST_F(StreamEnd, IsPassedOverIfTheSourceIsToIgnoreIt) {
    Source source(name_.Name(), {{"sink", "true"}, {"ignore-eos", "true"}});
    source.Play();
    for (const char* const caps :
         {"test/x-frames, number=(int)1", "test/x-frames, number=(int)2"}) {
        Sink sink(name_.Name(), writing_, caps);
        Push(sink, 1);
        Push(sink, 2);
        ASSERT_TRUE(sink.End());
    }
    for (const bool isFirst : {true, false, true, false}) {
        const BufferHandle buffer = source.Pull();
        ASSERT_TRUE(buffer);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer.get(), GST_BUFFER_FLAG_DISCONT) != FALSE, isFirst);
    }
    EXPECT_THAT(
        source.History(),
        ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1", "buffer 2",
                    "caps test/x-frames, number=(int)2", "segment", "buffer 1", "buffer 2"));
}

TEST_F(StreamEnd, GoesOnToTheNextNode) {
    Sink sink(name_.Name(), writing_);
    Source middle(name_.Name(), {{"node", "1"}});
    Source last(name_.Name(), {{"node", "2"}, {"sink", "true"}});
    Push(sink, 1);
    ASSERT_TRUE(sink.End());
    ASSERT_TRUE(middle.Play().AwaitEvent(GST_EVENT_EOS));
    (void)middle.Pull();
    ASSERT_TRUE(last.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(last.History(),
                ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1", "eos"));
}

TEST_F(StreamEnd, OfAStreamWithoutBuffersArrives) {
    Sink sink(name_.Name(), writing_);
    ASSERT_TRUE(sink.End());
    Source source(name_.Name());
    ASSERT_TRUE(source.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_EQ(source.Delivered(), 0U);
}

}  // namespace
}  // namespace qel::test
