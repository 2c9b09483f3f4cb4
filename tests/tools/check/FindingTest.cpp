#include <gtest/gtest.h>

#include "Finding.h"

namespace qel::test {
namespace {

TEST(ShellWord, IsThatWordToAShellAndControlsNoTerminal) {
    EXPECT_EQ(ShellWord("camera-1.raw"), "camera-1.raw");
    EXPECT_EQ(ShellWord(""), "''");
    EXPECT_EQ(ShellWord("two words"), "'two words'");
    EXPECT_EQ(ShellWord("it's"), "'it'\\''s'");
    EXPECT_EQ(ShellWord("$HOME"), "'$HOME'");
    EXPECT_EQ(ShellWord("a\nb"), "$'a\\012b'");
    EXPECT_EQ(ShellWord("\x1b[2J'\\1"), "$'\\033[2J\\'\\\\1'");
    EXPECT_EQ(ShellWord("\xc2\x9b"), "$'\\302\\233'");
    EXPECT_EQ(ShellWord("\x9b"), "$'\\233'");
    EXPECT_EQ(ShellWord("b\xc3\xa4r"), "'b\xc3\xa4r'");
}

TEST(QevCommand, TakesNamesThatLookLikeOptions) {
    EXPECT_EQ(QevCommand("clean", "camera"), "qev clean camera");
    EXPECT_EQ(QevCommand("repair", "two words", "--nodes 3"), "qev repair 'two words' --nodes 3");
    EXPECT_EQ(QevCommand("clean", "-camera"), "qev clean -- '-camera'");
    EXPECT_EQ(QevCommand("repair", "--yes", "--nodes 3"), "qev repair --nodes 3 -- '--yes'");
}

}  // namespace
}  // namespace qel::test
