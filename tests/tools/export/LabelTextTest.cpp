#include <gtest/gtest.h>

#include <string>

#include "LabelText.h"

namespace qel::test {
namespace {

struct Row {
    std::string name;
    std::string label;
};

class LabelTexts : public testing::TestWithParam<Row> {};

TEST_P(LabelTexts, AreUtf8WithoutControlCharactersAndTellAllNamesApart) {
    EXPECT_EQ(LabelText(GetParam().name), GetParam().label);
}

INSTANTIATE_TEST_SUITE_P(
    Names, LabelTexts,
    testing::Values(
        Row{"", ""}, Row{"camera-1.left", "camera-1.left"}, Row{" ~\"{}", " ~\"{}"},
        Row{"Küche 摄像机 🎥", "Küche 摄像机 🎥"},
        // Control characters, of one byte and of two.
        Row{"a\nb\x1f\x7f", R"(a\x0ab\x1f\x7f)"}, Row{"\xc2\x80\xc2\x9f", R"(\xc2\x80\xc2\x9f)"},
        Row{"\xc2\xa0", "\xc2\xa0"},
        // What looks like a replaced byte is replaced itself.
        Row{R"(\x0a)", R"(\x5cx0a)"},
        // Lone, missing and surplus bytes.
        Row{"\x80", R"(\x80)"}, Row{"\xff", R"(\xff)"}, Row{"\xc3", R"(\xc3)"},
        Row{"\xc3(", R"(\xc3()"}, Row{"\xe2\x82", R"(\xe2\x82)"}, Row{"\xe2\x82x", R"(\xe2\x82x)"},
        Row{"\xf0\x9f\x8e", R"(\xf0\x9f\x8e)"}, Row{"\xc3\xa9\xa9", "\xc3\xa9\\xa9"},
        // Longer than need be, halves of pairs, beyond the last character.
        Row{"\xc1\x81", R"(\xc1\x81)"}, Row{"\xe0\x9f\xbf", R"(\xe0\x9f\xbf)"},
        Row{"\xe0\xa0\x80", "\xe0\xa0\x80"}, Row{"\xed\x9f\xbf", "\xed\x9f\xbf"},
        Row{"\xed\xa0\x80", R"(\xed\xa0\x80)"}, Row{"\xed\xbf\xbf", R"(\xed\xbf\xbf)"},
        Row{"\xee\x80\x80", "\xee\x80\x80"}, Row{"\xf0\x8f\xbf\xbf", R"(\xf0\x8f\xbf\xbf)"},
        Row{"\xf0\x90\x80\x80", "\xf0\x90\x80\x80"}, Row{"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
        Row{"\xf4\x90\x80\x80", R"(\xf4\x90\x80\x80)"},
        Row{"\xf8\x88\x80\x80\x80", R"(\xf8\x88\x80\x80\x80)"}));

}  // namespace
}  // namespace qel::test
