#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "HelpNotes.h"

namespace qel {

void PrintTo(const HelpBlock& block, std::ostream* stream) {
    *stream << (block.literal ? "literal " : "paragraph ") << testing::PrintToString(block.text);
}

namespace test {
namespace {

using Blocks = std::vector<HelpBlock>;

HelpBlock Lines(const std::string& text) {
    return {text, true};
}

struct Row {
    const char* name;
    std::string footer;
    Blocks description;
    Blocks exitStatus;
    Blocks files;
    Blocks examples;
};

std::ostream& operator<<(std::ostream& stream, const Row& row) {
    return stream << row.name;
}

class Footer : public testing::TestWithParam<Row> {};

TEST_P(Footer, IsParted) {
    const HelpNotes notes = NotesOf(GetParam().footer);
    EXPECT_EQ(notes.description, GetParam().description);
    EXPECT_EQ(notes.exitStatus, GetParam().exitStatus);
    EXPECT_EQ(notes.files, GetParam().files);
    EXPECT_EQ(notes.examples, GetParam().examples);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Footer,
    testing::Values(
        Row{"Nothing", "", {}, {}, {}, {}}, Row{"OnlyBlankLines", "\n  \n\n", {}, {}, {}, {}},
        Row{"Paragraphs", "One\ntwo.\n\n\nThree.\n", {{"One two."}, {"Three."}}, {}, {}, {}},
        Row{"Example", "Text.\n\nExample:\n  qev ls", {{"Text."}}, {}, {}, {Lines("qev ls\n")}},
        Row{"Examples",
            "Examples:\n  qev ls\n    --json\n  qev ls x",
            {},
            {},
            {},
            {Lines("qev ls\n  --json\nqev ls x\n")}},
        Row{"ExampleBehindABlankLine", "Examples:\n\n  qev ls", {}, {}, {}, {Lines("qev ls\n")}},
        Row{"ExampleWithItsOwnCaption",
            "Text.\n\nTo see all:\n  qev ls",
            {{"Text."}},
            {},
            {},
            {{"To see all:"}, Lines("qev ls\n")}},
        Row{"ExampleWithoutACaption",
            "Text.\n  date | qev block write x",
            {{"Text."}},
            {},
            {},
            {Lines("date | qev block write x\n")}},
        Row{"ExampleInParentheses", "  (qev ls)", {}, {}, {}, {Lines("(qev ls)\n")}},
        Row{"ExampleBehindAPipe", "  date|qev x", {}, {}, {}, {Lines("date|qev x\n")}},
        Row{"TableThatIsNoExample",
            "States:\n  idle   nobody\n  qevx   not called\n\nEnd.",
            {{"States:"}, Lines("idle   nobody\nqevx   not called\n"), {"End."}},
            {},
            {},
            {}},
        Row{"CaptionOfNothing", "As follows:\n\nText.", {{"As follows:"}, {"Text."}}, {}, {}, {}},
        Row{"ExitStatusInAParagraph",
            "A.\n\nExit status: 0 when\nwell.",
            {{"A."}},
            {{"0 when well."}},
            {},
            {}},
        Row{"ExitStatusAsASentence", "Exit status is 0.", {}, {{"Exit status is 0."}}, {}, {}},
        Row{"ExitStatusAsATable",
            "Exit status:\n  0  sound\n  3  see qev doctor",
            {},
            {Lines("0  sound\n3  see qev doctor\n")},
            {},
            {}},
        Row{"ExitStatusWithinAParagraphStays",
            "A. Exit status 1.",
            {{"A. Exit status 1."}},
            {},
            {},
            {}},
        Row{"Files", "Files:\n  /a  one\n  /b  two", {}, {}, {Lines("/a  one\n/b  two\n")}, {}}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace test
}  // namespace qel
