// How much of the ring the buffers of a source may hold, and that it comes back in order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

#include "Elements.h"
#include "StreamName.h"

namespace qel::test {
namespace {

constexpr std::uint64_t kSize = 10000;

class Outstanding : public testing::Test {
protected:
    Source& Open(const char* bound, const char* writable = "false") {
        source_ = std::make_unique<Source>(
            name_.Name(),
            Properties{{"sink", "true"}, {"max-outstanding", bound}, {"writable", writable}});
        return source_->Play();
    }
    /// Has a buffer go through; true if its memory is the ring's.
    bool Pass(std::size_t size = 974) {  // 1000 with its header
        EXPECT_EQ(sink_.Push(MakeBuffer({std::string(size, 'x'), next_++})), GST_FLOW_OK);
        held_.push_back(source_->Pull());
        EXPECT_EQ(gst_buffer_get_size(held_.back().get()), size);
        return GST_MEMORY_IS_READONLY(gst_buffer_peek_memory(held_.back().get(), 0));
    }

    UniqueStreamName name_;
    Sink sink_{name_.Name(), {{"size", std::to_string(kSize)}, {"wait-for-space", "false"}}};
    std::unique_ptr<Source> source_;
    std::deque<BufferHandle> held_;
    GstClockTime next_ = 0;
};

TEST_F(Outstanding, BuffersBeyondTheBoundAreCopies) {
    Open("2000");
    EXPECT_TRUE(Pass());
    EXPECT_TRUE(Pass());
    EXPECT_FALSE(Pass());
    EXPECT_FALSE(Pass());
    EXPECT_EQ(source_->Property<guint64>("copies"), 2U);
    EXPECT_EQ(source_->Figure("copies"), 2U);
    EXPECT_EQ(source_->Figure("outstanding-packets"), 4U) << "the copied ones are behind";
    held_.pop_front();
    EXPECT_EQ(source_->Figure("outstanding-packets"), 3U);
    held_.pop_front();
    EXPECT_EQ(source_->Figure("outstanding-packets"), 0U);
    EXPECT_TRUE(Pass());
    EXPECT_EQ(source_->Figure("copies"), 2U);
}

TEST_F(Outstanding, BoundIsThreeQuartersOfTheRingIfNoneIsSet) {
    Open("-1");
    for (int i = 0; i < 7; ++i) {
        EXPECT_TRUE(Pass()) << i;
    }
    EXPECT_TRUE(Pass(474));
    EXPECT_FALSE(Pass());
}

TEST_F(Outstanding, BoundOfZeroCopiesEveryBuffer) {
    Open("0");
    for (int i = 0; i < 30; ++i) {  // more than the ring holds
        EXPECT_FALSE(Pass()) << i;
    }
    EXPECT_EQ(source_->Figure("copies"), 30U);
    EXPECT_EQ(source_->Figure("outstanding-packets"), 0U);
    EXPECT_EQ(sink_.Figure("dropped"), 0U);
}

TEST_F(Outstanding, CopiesCanBeWrittenTo) {
    Open("0");
    (void)Pass();
    GstMapInfo map;
    ASSERT_TRUE(gst_memory_map(gst_buffer_peek_memory(held_[0].get(), 0), &map, GST_MAP_WRITE));
    gst_memory_unmap(map.memory, &map);
}

TEST_F(Outstanding, RoomComesBackInOrderWhateverTheOrderOfTheBuffers) {
    Open("10000");
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(Pass());
    }
    for (int i = 0; i < 8; ++i) {
        held_.pop_back();
    }
    EXPECT_EQ(source_->Figure("outstanding-packets"), 9U) << "the oldest holds up the others";
    ASSERT_EQ(sink_.Push(MakeBuffer({std::string(974, 'x'), 100})), GST_FLOW_OK);
    EXPECT_EQ(sink_.Figure("dropped"), 1U) << "there is no room yet";
    held_.pop_front();
    EXPECT_EQ(source_->Figure("outstanding-packets"), 0U);
    EXPECT_TRUE(Pass());
    EXPECT_EQ(sink_.Figure("dropped"), 1U);
}

TEST_F(Outstanding, RoomComesBackRoundAndRoundInAnyOrder) {
    Open("-1");
    for (int i = 0; i < 200; ++i) {
        EXPECT_TRUE(Pass());
        EXPECT_TRUE(Pass(474));
        EXPECT_TRUE(Pass(74));
        EXPECT_EQ(GST_BUFFER_PTS(held_[0].get()), static_cast<GstClockTime>(3 * i));
        held_.erase(held_.begin() + 1);
        held_.pop_front();
        held_.pop_back();
    }
    EXPECT_EQ(sink_.Figure("dropped"), 0U);
    EXPECT_EQ(source_->Figure("copies"), 0U);
    EXPECT_GT(source_->Figure("fillers"), 0U);
    EXPECT_EQ(source_->Figure("packets"), 600U);
}

TEST(Writable, ChangeIsSeenByTheNextNode) {
    for (const bool isWritable : {true, false}) {
        const UniqueStreamName name;
        Sink sink(name.Name(), {{"size", "10000"}});
        Source middle(name.Name(), {{"node", "1"}, {"writable", isWritable ? "true" : "false"}});
        Source last(name.Name(), {{"node", "2"}, {"sink", "true"}});
        ASSERT_EQ(sink.Push(MakeBuffer({"abc", 1})), GST_FLOW_OK);
        BufferHandle buffer = middle.Play().Pull();
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READWRITE));
        map.data[1] = 'X';
        gst_buffer_unmap(buffer.get(), &map);
        EXPECT_EQ(ContentOf(buffer), "aXc");
        buffer.reset();
        EXPECT_EQ(ContentOf(last.Play().Pull()), isWritable ? "aXc" : "abc");
        EXPECT_EQ(middle.Figure("copies"), 0U);
    }
}

}  // namespace
}  // namespace qel::test
