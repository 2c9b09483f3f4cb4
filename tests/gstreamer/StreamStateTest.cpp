#include <gtest/gtest.h>

#include "StreamState.h"

namespace qel::test {
namespace {

const StreamState kFull{4294967295U, "video/x-raw, width=(int)4", "segment, rate=(double)1;",
                        "taglist, title=(string)a;", "taglist, artist=(string)b;"};

void ExpectSame(const std::optional<StreamState>& found, const StreamState& expected) {
    ASSERT_TRUE(found);
    EXPECT_EQ(found->serial, expected.serial);
    EXPECT_EQ(found->caps, expected.caps);
    EXPECT_EQ(found->segment, expected.segment);
    EXPECT_EQ(found->tags, expected.tags);
    EXPECT_EQ(found->globalTags, expected.globalTags);
}

TEST(StreamState, IsALineForEachField) {
    EXPECT_EQ(ToText(kFull),
              "serial 4294967295\n"
              "caps video/x-raw, width=(int)4\n"
              "segment segment, rate=(double)1;\n"
              "tags taglist, title=(string)a;\n"
              "global-tags taglist, artist=(string)b;\n");
}

TEST(StreamState, ComesOutAsItWentIn) {
    ExpectSame(StreamStateFromText(ToText(kFull)), kFull);
    const StreamState little{1, "a/b", "", "", ""};
    EXPECT_EQ(ToText(little), "serial 1\ncaps a/b\n");
    ExpectSame(StreamStateFromText(ToText(little)), little);
}

TEST(StreamState, FieldWithALineEndOrAZeroInsideIsLeftOut) {
    for (const std::string& bad : {std::string("x\ncaps forged/caps"), std::string("x\0y", 3)}) {
        StreamState state = kFull;
        state.segment = bad;
        StreamState expected = kFull;
        expected.segment.clear();
        ExpectSame(StreamStateFromText(ToText(state)), expected);
        state = kFull;
        state.caps = bad;
        EXPECT_FALSE(StreamStateFromText(ToText(state)));
    }
}

TEST(StreamState, TextEndsAtTheFirstZero) {
    const std::string text("serial 1\ncaps a/b\n\0tags t\n", 26);
    ExpectSame(StreamStateFromText(text), {1, "a/b", "", "", ""});
}

TEST(StreamState, LastLineNeedsNoEnd) {
    ExpectSame(StreamStateFromText("serial 1\ncaps a/b"), {1, "a/b", "", "", ""});
}

TEST(StreamState, LinesOfOtherNamesArePassedOver) {
    ExpectSame(StreamStateFromText("\nfuture x\ncapsx y\nserial 7\n caps z\ncaps a/b\n\n"),
               {7, "a/b", "", "", ""});
}

TEST(StreamState, ForgedTextIsNone) {
    for (const char* const text :
         {"", "\n", "caps a/b\n", "serial 1\n", "serial 0\ncaps a/b\n", "serial x\ncaps a/b\n",
          "serial -1\ncaps a/b\n", "serial 99999999999\ncaps a/b\n", "serial \ncaps a/b\n",
          "serial 1\ncaps \n", "serial 1\ncaps", "serial1\ncaps a/b"}) {
        EXPECT_FALSE(StreamStateFromText(text)) << text;
    }
}

}  // namespace
}  // namespace qel::test
