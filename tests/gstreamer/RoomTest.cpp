// What qevsink does when the ring is full, and with what never fits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Elements.h"
#include "OpenRing.h"
#include "PacketReader.h"
#include "StreamName.h"
#include "Worker.h"

namespace qel::test {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t kSize = 10000;
constexpr std::uint64_t kLargest = kSize - 26 - 130;

class Room : public testing::Test {
protected:
    Sink& Open(Properties properties) {
        properties.emplace_back("size", std::to_string(kSize));
        sink_ = std::make_unique<Sink>(name_.Name(), properties);
        return *sink_;
    }
    GstFlowReturn Push(GstClockTime pts, std::size_t size, bool isKey = true) {
        return sink_->Push(MakeBuffer({std::string(size, 'x'), pts, isKey}));
    }
    /// Takes the next packet from the ring and gives its room back; its time stamp, or -100.
    std::int64_t Take() {
        if (!ring_) {
            ring_ = OpenRing({name_.Name(), kSize, 1, true, 0});
            reader_ = std::make_unique<PacketReader>(*ring_);
        }
        const auto received = reader_->TryNext();
        if (!received) {
            return -100;
        }
        EXPECT_EQ(reader_->Release(received->ticket), SMStatusCode::SUCCESS);
        return received->outcome == ReadOutcome::EndOfStream ? -200 : received->packet.header.pts;
    }
    std::vector<std::int64_t> TakeAll() {
        std::vector<std::int64_t> all;
        for (std::int64_t pts = Take(); pts != -100; pts = Take()) {
            all.push_back(pts);
        }
        return all;
    }
    /// A push of a third packet, which finds two in the ring and no room.
    std::future<GstFlowReturn> PushIntoFullRing() {
        EXPECT_EQ(Push(1, 4000), GST_FLOW_OK);
        EXPECT_EQ(Push(2, 4000), GST_FLOW_OK);
        return worker_.StartBlocked([this] { return Push(3, 4000); }, SYS_futex);
    }

    /// The end of the stream behind two packets, which are as many as the ring takes.
    std::future<bool> EndInFullRing() {
        EXPECT_EQ(Push(1, 5), GST_FLOW_OK);
        EXPECT_EQ(Push(2, 5), GST_FLOW_OK);
        return worker_.StartBlocked([this] { return sink_->End(); }, SYS_futex);
    }
    void PauseOftenAndPlay() {
        for (int i = 0; i < 50; ++i) {
            ASSERT_TRUE(sink_->SetState(GST_STATE_PAUSED));
            ASSERT_TRUE(sink_->SetState(GST_STATE_PLAYING));
        }
    }

    UniqueStreamName name_;
    std::unique_ptr<Sink> sink_;
    std::unique_ptr<SharedPacketBufferIF> ring_;
    std::unique_ptr<PacketReader> reader_;
    Worker worker_;
};

TEST_F(Room, IsWaitedForUntilAReaderGivesItBack) {
    Open({});
    auto pushed = PushIntoFullRing();
    EXPECT_FALSE(IsReady(pushed));
    EXPECT_EQ(Take(), 1);
    EXPECT_EQ(Take(), 2);
    EXPECT_EQ(pushed.get(), GST_FLOW_OK);
    EXPECT_EQ(Take(), 3);
    EXPECT_EQ(sink_->Figure("packets"), 3U);
    EXPECT_EQ(sink_->Property<guint64>("dropped"), 0U);
}

TEST_F(Room, IsWaitedForBySpinningToo) {
    Open({{"wakeup", "spin"}});
    ASSERT_EQ(Push(1, 4000), GST_FLOW_OK);
    ASSERT_EQ(Push(2, 4000), GST_FLOW_OK);
    auto pushed = worker_.Start([this] { return Push(3, 4000); });
    EXPECT_EQ(Take(), 1);
    EXPECT_EQ(Take(), 2);
    EXPECT_EQ(pushed.get(), GST_FLOW_OK);
}

TEST_F(Room, WaitEndsWhenTheElementIsStopped) {
    Open({});
    auto pushed = PushIntoFullRing();
    ASSERT_TRUE(sink_->SetState(GST_STATE_NULL));
    EXPECT_EQ(pushed.get(), GST_FLOW_FLUSHING);
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2));
}

TEST_F(Room, WaitGoesOnAfterAPause) {
    Open({});
    auto pushed = PushIntoFullRing();
    PauseOftenAndPlay();
    EXPECT_FALSE(IsReady(pushed));
    EXPECT_EQ(Take(), 1);
    EXPECT_EQ(Take(), 2);
    EXPECT_EQ(pushed.get(), GST_FLOW_OK);
    EXPECT_THAT(TakeAll(), ElementsAre(3)) << "once";
    EXPECT_EQ(sink_->Figure("packets"), 3U);
}

TEST_F(Room, WaitEndsInPausedWhenTheElementIsStopped) {
    Open({});
    auto pushed = PushIntoFullRing();
    ASSERT_TRUE(sink_->SetState(GST_STATE_PAUSED));
    ASSERT_TRUE(sink_->SetState(GST_STATE_NULL));
    EXPECT_EQ(pushed.get(), GST_FLOW_FLUSHING);
}

TEST_F(Room, FlushEndsTheWaitAndTheStreamGoesOn) {
    Open({});
    auto pushed = PushIntoFullRing();
    ASSERT_TRUE(sink_->PushEvent(gst_event_new_flush_start()));
    EXPECT_EQ(pushed.get(), GST_FLOW_FLUSHING);
    EXPECT_EQ(Push(9, 5), GST_FLOW_FLUSHING);
    ASSERT_TRUE(sink_->PushEvent(gst_event_new_flush_stop(TRUE)));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(sink_->PushEvent(gst_event_new_segment(&segment)));
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2));
    EXPECT_EQ(Push(4, 4000), GST_FLOW_OK);
    EXPECT_THAT(TakeAll(), ElementsAre(4));
    EXPECT_EQ(sink_->Figure("packets"), 3U);
}

TEST_F(Room, EndOfStreamIsWaitedForToo) {
    Open({{"max-frames", "1"}});
    auto ended = EndInFullRing();
    EXPECT_EQ(Take(), 1);
    EXPECT_TRUE(ended.get());
    EXPECT_THAT(TakeAll(), ElementsAre(2, -200));
}

TEST_F(Room, WaitOfTheEndOfStreamGoesOnAfterPauses) {
    Open({{"max-frames", "1"}});
    auto ended = EndInFullRing();
    PauseOftenAndPlay();
    EXPECT_FALSE(IsReady(ended));
    EXPECT_EQ(Take(), 1);
    EXPECT_TRUE(ended.get());
    EXPECT_THAT(TakeAll(), ElementsAre(2, -200)) << "once";
}

TEST_F(Room, WaitOfTheEndOfStreamEndsWhenTheElementIsStopped) {
    for (const GstState last : {GST_STATE_PLAYING, GST_STATE_PAUSED}) {
        Open({{"max-frames", "1"}});
        auto ended = EndInFullRing();
        ASSERT_TRUE(sink_->SetState(last));
        ASSERT_TRUE(sink_->SetState(GST_STATE_NULL));
        (void)ended.get();
        EXPECT_THAT(TakeAll(), ElementsAre(1, 2)) << "no end mark";
        sink_.reset();
    }
}

TEST_F(Room, EndOfStreamUsesTheReserve) {
    Open({});
    ASSERT_EQ(Push(1, kLargest), GST_FLOW_OK);
    EXPECT_TRUE(sink_->End()) << "although nobody reads";
    EXPECT_THAT(TakeAll(), ElementsAre(1, -200));
}

TEST_F(Room, LimitOfPacketsIsAFullRing) {
    Open({{"max-frames", "3"}, {"wait-for-space", "false"}});
    for (GstClockTime pts = 0; pts < 6; ++pts) {
        EXPECT_EQ(Push(pts, 1), GST_FLOW_OK);
    }
    EXPECT_EQ(sink_->Property<guint64>("dropped"), 2U);
    EXPECT_THAT(TakeAll(), ElementsAre(0, 1, 2, 3));
}

TEST_F(Room, WithoutWaitingBuffersAreDroppedUntilTheNextKeyFrameThatFits) {
    Open({{"wait-for-space", "false"}});
    EXPECT_EQ(Push(1, 4000), GST_FLOW_OK);
    EXPECT_EQ(Push(2, 4000, false), GST_FLOW_OK);
    EXPECT_EQ(Push(3, 4000, false), GST_FLOW_OK);  // no room
    EXPECT_EQ(Push(4, 10, false), GST_FLOW_OK);    // there would be, but it may refer to 3
    EXPECT_EQ(sink_->Property<guint64>("dropped"), 2U);
    EXPECT_EQ(Push(5, 4000), GST_FLOW_OK);  // a key frame without room
    EXPECT_EQ(Push(6, 10, false), GST_FLOW_OK);
    EXPECT_EQ(sink_->Figure("dropped"), 4U);
    EXPECT_EQ(Push(7, 10), GST_FLOW_OK);
    EXPECT_EQ(Push(8, 10, false), GST_FLOW_OK);
    EXPECT_EQ(sink_->Figure("dropped"), 4U);
    EXPECT_EQ(sink_->Figure("packets"), 4U);
    EXPECT_THAT(TakeAll(), ElementsAre(1, 2, 7, 8));
}

TEST_F(Room, DroppedBuffersDoNotLendTheirTimesToOthers) {
    Open({{"wait-for-space", "false"}});
    for (const guint64 offset : {1U, 2U, 3U, 4U}) {
        BufferHandle buffer = MakeBuffer({std::string(3000, 'x')});  // all alike but for this
        GST_BUFFER_OFFSET(buffer.get()) = offset;
        ASSERT_EQ(sink_->Push(std::move(buffer)), GST_FLOW_OK);
    }
    ASSERT_EQ(sink_->Figure("dropped"), 1U);
    Source source(name_.Name());
    source.Play();
    for (const guint64 offset : {1U, 2U, 3U}) {
        EXPECT_EQ(GST_BUFFER_OFFSET(source.Pull().get()), offset);
    }
    while (source.Figure("outstanding-packets") != 0) {
    }
    sink_->SetCaps("test/x-frames, number=(int)2");
    BufferHandle buffer = MakeBuffer({std::string(3000, 'x')});
    GST_BUFFER_OFFSET(buffer.get()) = 5;
    ASSERT_EQ(sink_->Push(std::move(buffer)), GST_FLOW_OK);
    EXPECT_EQ(GST_BUFFER_OFFSET(source.Pull().get()), 5U);
    EXPECT_THAT(
        source.History(),
        ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 0", "buffer none",
                    "buffer none", "caps test/x-frames, number=(int)2", "segment", "buffer none"));
}

TEST_F(Room, CriticalKeyFramesUseTheReserve) {
    for (const bool isCritical : {false, true}) {
        const UniqueStreamName name;
        Sink sink(name.Name(), {{"size", std::to_string(kSize)},
                                {"wait-for-space", "false"},
                                {"critical-keyframes", isCritical ? "true" : "false"}});
        ASSERT_EQ(sink.Push(MakeBuffer({std::string(kLargest, 'x'), 0})), GST_FLOW_OK);
        ASSERT_EQ(sink.Push(MakeBuffer({"12", 1, false})), GST_FLOW_OK);
        EXPECT_EQ(sink.Figure("dropped"), 1U) << "others do not";
        ASSERT_EQ(sink.Push(MakeBuffer({"12", 2, true})), GST_FLOW_OK);
        EXPECT_EQ(sink.Figure("dropped"), isCritical ? 1U : 2U);
    }
}

TEST_F(Room, LargestBufferPasses) {
    Open({});
    EXPECT_EQ(Push(1, kLargest), GST_FLOW_OK);
    EXPECT_EQ(Take(), 1);
    EXPECT_EQ(sink_->Figure("bytes"), kLargest);
}

TEST_F(Room, BufferLargerThanTheRingTakesIsAnError) {
    Open({});
    EXPECT_EQ(Push(1, kLargest + 1), GST_FLOW_ERROR);
    const Element::Error error = sink_->AwaitError();
    EXPECT_EQ(error.code, ResourceError(GST_RESOURCE_ERROR_NO_SPACE_LEFT));
    EXPECT_EQ(error.text, "a buffer of 9845 bytes can never fit: the ring takes 9844 at most");
    EXPECT_THAT(TakeAll(), ElementsAre());
}

TEST_F(Room, SumOfManyMemoriesCounts) {
    Open({});
    BufferHandle buffer = MakeBuffer({std::string(kLargest, 'x'), 1});
    gst_buffer_append_memory(buffer.get(), gst_buffer_get_memory(MakeBuffer({"y"}).get(), 0));
    EXPECT_EQ(sink_->Push(std::move(buffer)), GST_FLOW_ERROR);
    EXPECT_EQ(sink_->AwaitError().text,
              "a buffer of 9845 bytes can never fit: the ring takes 9844 at most");
}

TEST_F(Room, WithoutWaitingTooLargeOnesAreDroppedAndCounted) {
    Open({{"wait-for-space", "false"}});
    EXPECT_EQ(Push(1, kLargest + 1), GST_FLOW_OK);
    EXPECT_EQ(Push(2, 5, false), GST_FLOW_OK);
    EXPECT_EQ(Push(3, 5), GST_FLOW_OK);
    EXPECT_EQ(sink_->Property<guint64>("dropped"), 2U);
    EXPECT_THAT(TakeAll(), ElementsAre(3));
}

}  // namespace
}  // namespace qel::test
