// Caps and tags as readers get them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Elements.h"
#include "StreamName.h"

namespace qel::test {
namespace {

TEST(Caps, TellOfNoKindOfMemoryButTheRings) {
    constexpr const char* kPlain =
        "video/x-raw, format=(string)GRAY8, width=(int)7, height=(int)5, framerate=(fraction)25/1";
    for (const std::string feature : {"memory:DMABuf", "memory:GLMemory", "memory:SystemMemory"}) {
        const UniqueStreamName name;
        Sink sink(name.Name(), {{"size", "100000"}},
                  ("video/x-raw(" + feature +
                   "), format=(string)GRAY8, width=(int)7, height=(int)5, "
                   "framerate=(fraction)25/1")
                      .c_str());
        ASSERT_EQ(sink.Push(MakeBuffer({std::string(35, 'x'), 1})), GST_FLOW_OK);
        Source source(name.Name());
        EXPECT_EQ(ContentOf(source.Play().Pull()), std::string(35, 'x'));
        EXPECT_THAT(source.History(),
                    testing::ElementsAre(std::string("caps ") + kPlain, "segment", "buffer 1"))
            << feature;
    }
}

TEST(Tags, StayAheadOfTheEventsBehindThemAndOfTheEnd) {
    const UniqueStreamName name;
    Sink sink(name.Name(), {{"size", "100000"}});
    const auto pushTag = [&sink] {
        ASSERT_TRUE(
            sink.PushEvent(gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "title", nullptr))));
    };
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    pushTag();
    ASSERT_TRUE(sink.PushEvent(
        gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("custom"))));
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 2})), GST_FLOW_OK);
    pushTag();
    ASSERT_TRUE(sink.End());
    Source source(name.Name());
    ASSERT_TRUE(source.Play().AwaitEvent(GST_EVENT_EOS));
    EXPECT_THAT(source.History(),
                testing::ElementsAre("caps test/x-frames, number=(int)1", "segment", "buffer 1",
                                     "tag", "custom", "buffer 2", "tag", "eos"));
}

}  // namespace
}  // namespace qel::test
