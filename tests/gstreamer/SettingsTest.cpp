// Which settings are taken, and what is said of others.
#include <gtest/gtest.h>

#include "Elements.h"
#include "OpenRing.h"
#include "RingObject.h"
#include "StreamName.h"

namespace qel::test {
namespace {

const std::string kSettings = ResourceError(GST_RESOURCE_ERROR_SETTINGS);
const std::string kBusy = ResourceError(GST_RESOURCE_ERROR_BUSY);

void ExpectRefused(const Element& element, const std::string& code, const std::string& text) {
    (void)element.SetState(GST_STATE_PLAYING);
    const Element::Error error = element.AwaitError();
    EXPECT_EQ(error.code, code);
    EXPECT_EQ(error.text, text);
}

class ElementSettings : public testing::Test {
protected:
    UniqueStreamName name_;
    const Properties small_{{"size", "100000"}};
};

TEST_F(ElementSettings, NameThatGStreamerMadeUpIsNone) {
    for (const char* const factory : {"qevsink", "qevsrc"}) {
        const Element element(factory, "", {});
        EXPECT_FALSE(element.SetState(GST_STATE_PAUSED));
        const Element::Error error = element.AwaitError();
        EXPECT_EQ(error.code, kSettings);
        EXPECT_EQ(error.text, "no ring is named: set name, or ring, to the ring's name");
    }
}

TEST_F(ElementSettings, NamesThatOnlyResembleMadeUpOnesAreTaken) {
    for (const char* const name : {"qevsink", "qevsrc", "qevsink0x", "myqevsink0", "qevsrc 1"}) {
        ExpectRefused(Element("qevsink", name, {{"size", "0"}}), kSettings,
                      "the size of a ring must not be 0");
    }
}

TEST_F(ElementSettings, PropertyRingGoesAheadOfTheName) {
    Sink sink("", {{"ring", name_.Name()}, {"size", "100000"}});
    EXPECT_EQ(RingObject::FindSize(name_.Name()), 100000U);
    Source source("another", {{"ring", name_.Name()}, {"sink", "true"}});
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    EXPECT_EQ(ContentOf(source.Play().Pull()), "frame");
    EXPECT_EQ(TextHandle(sink.Property<gchar*>("ring")).get(), name_.Name());
}

TEST_F(ElementSettings, NameThatNoRingHasIsRefused) {
    for (const char* const factory : {"qevsink", "qevsrc"}) {
        ExpectRefused(Element(factory, "a/b", {}), kSettings,
                      "the name of a ring must not contain a slash: a/b");
    }
}

TEST_F(ElementSettings, SecondElementOfANodeIsRefused) {
    Sink sink(name_.Name(), small_);
    ExpectRefused(Element("qevsink", name_.Name(), small_), kBusy,
                  "ring " + name_.Name() + ": node 0 is taken by another process or element");
    Source source(name_.Name());
    ASSERT_EQ(sink.Push(MakeBuffer({"frame", 1})), GST_FLOW_OK);
    ASSERT_TRUE(source.Play().Pull());
    ExpectRefused(Element("qevsrc", name_.Name(), {{"sink", "true"}}), kBusy,
                  "ring " + name_.Name() + ": node 1 is taken by another process or element");
}

TEST_F(ElementSettings, RingOfAnotherSizeIsRefusedAndStays) {
    (void)OpenRing({name_.Name(), 50000, 0, false, 0});
    for (const char* const factory : {"qevsink", "qevsrc"}) {
        const Element element(factory, name_.Name(), small_);
        (void)element.SetState(GST_STATE_PLAYING);
        const Element::Error error = element.AwaitError();
        EXPECT_EQ(error.code, kSettings);
        EXPECT_EQ(error.text,
                  "ring " + name_.Name() + " exists with a size of 50000 bytes, not 100000");
    }
    EXPECT_EQ(RingObject::FindSize(name_.Name()), 50000U);
}

TEST_F(ElementSettings, LastNodeMustBeASink) {
    ExpectRefused(Element("qevsrc", name_.Name(), {{"node", "4"}, {"size", "100000"}}), kSettings,
                  "node 4 is the last and must be the sink");
}

TEST_F(ElementSettings, HaveTheirDefaults) {
    const Element sink("qevsink", name_.Name(), {});
    EXPECT_EQ(sink.Property<guint64>("size"), 67108864U);
    EXPECT_EQ(sink.Property<guint>("node"), 0U);
    EXPECT_EQ(sink.Property<guint>("max-frames"), 0U);
    EXPECT_TRUE(sink.Property<gboolean>("wait-for-space"));
    EXPECT_FALSE(sink.Property<gboolean>("critical-keyframes"));
    EXPECT_EQ(sink.Property<gint>("wakeup"), 0);
    EXPECT_FALSE(sink.Property<gboolean>("sync"));
    EXPECT_FALSE(sink.Property<gboolean>("enable-last-sample"));
    EXPECT_EQ(sink.Property<guint64>("dropped"), 0U);
    const Element source("qevsrc", name_.Name(), {});
    EXPECT_EQ(source.Property<guint64>("size"), 0U);
    EXPECT_EQ(source.Property<guint>("node"), 1U);
    EXPECT_FALSE(source.Property<gboolean>("sink"));
    EXPECT_EQ(source.Property<gint>("wakeup"), 0);
    EXPECT_FALSE(source.Property<gboolean>("writable"));
    EXPECT_EQ(source.Property<gint64>("max-outstanding"), -1);
    EXPECT_TRUE(source.Property<gboolean>("start-at-key-frame"));
    EXPECT_TRUE(source.Property<gboolean>("align-time"));
    EXPECT_FALSE(source.Property<gboolean>("ignore-eos"));
    EXPECT_EQ(source.Property<GstCaps*>("caps"), nullptr);
    EXPECT_EQ(source.Property<gchar*>("ring"), nullptr);
    EXPECT_EQ(RingObject::FindSize(name_.Name()), std::nullopt) << "nothing is made yet";
}

TEST_F(ElementSettings, KeepWhatTheyAreSetTo) {
    const Element sink("qevsink", name_.Name(),
                       {{"size", "5"},
                        {"node", "3"},
                        {"max-frames", "7"},
                        {"wait-for-space", "false"},
                        {"critical-keyframes", "true"},
                        {"wakeup", "spin"}});
    EXPECT_EQ(sink.Property<guint64>("size"), 5U);
    EXPECT_EQ(sink.Property<guint>("node"), 3U);
    EXPECT_EQ(sink.Property<guint>("max-frames"), 7U);
    EXPECT_FALSE(sink.Property<gboolean>("wait-for-space"));
    EXPECT_TRUE(sink.Property<gboolean>("critical-keyframes"));
    EXPECT_EQ(sink.Property<gint>("wakeup"), 1);
    const Element source("qevsrc", name_.Name(),
                         {{"sink", "true"},
                          {"writable", "true"},
                          {"max-outstanding", "9"},
                          {"start-at-key-frame", "false"},
                          {"align-time", "false"},
                          {"ignore-eos", "true"},
                          {"caps", "test/x-frames, number=(int)1"}});
    EXPECT_TRUE(source.Property<gboolean>("sink"));
    EXPECT_TRUE(source.Property<gboolean>("writable"));
    EXPECT_EQ(source.Property<gint64>("max-outstanding"), 9);
    EXPECT_FALSE(source.Property<gboolean>("start-at-key-frame"));
    EXPECT_FALSE(source.Property<gboolean>("align-time"));
    EXPECT_TRUE(source.Property<gboolean>("ignore-eos"));
    EXPECT_EQ(TextOf(CapsHandle(source.Property<GstCaps*>("caps")).get()),
              "test/x-frames, number=(int)1");
}

TEST_F(ElementSettings, ChangedWhileTheElementRunsCountFromTheNextStart) {
    Sink sink(name_.Name(), {{"size", "10000"}});
    g_object_set(sink.Get(), "size", guint64{20000}, "wait-for-space", FALSE, nullptr);
    EXPECT_EQ(sink.Push(MakeBuffer({std::string(15000, 'x'), 1})), GST_FLOW_ERROR);
    (void)sink.AwaitError();
    ASSERT_TRUE(sink.SetState(GST_STATE_READY));
    EXPECT_FALSE(sink.SetState(GST_STATE_PAUSED)) << "the ring has another size";
    name_.Remove();
    ASSERT_TRUE(sink.SetState(GST_STATE_PAUSED));
    EXPECT_EQ(RingObject::FindSize(name_.Name()), 20000U);
}

}  // namespace
}  // namespace qel::test
