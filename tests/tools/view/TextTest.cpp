#include <gtest/gtest.h>

#include "Text.h"

namespace qel::test {
namespace {

TEST(TextForPeople, TellsBytesInTheUnitThatSuits) {
    EXPECT_EQ(BytesText(0), "0 B");
    EXPECT_EQ(BytesText(1023), "1023 B");
    EXPECT_EQ(BytesText(1024), "1.0 KiB");
    EXPECT_EQ(BytesText(1536), "1.5 KiB");
    EXPECT_EQ(BytesText(1024 * 1024 - 1), "1.0 MiB");
    EXPECT_EQ(BytesText(64.0 * 1024 * 1024), "64.0 MiB");
    EXPECT_EQ(BytesText(18446744073709551615.0), "16.0 EiB");
}

TEST(TextForPeople, TellsAgesInTheUnitThatSuits) {
    EXPECT_EQ(AgeText(-5), "0 s");
    EXPECT_EQ(AgeText(119), "119 s");
    EXPECT_EQ(AgeText(120), "2 min");
    EXPECT_EQ(AgeText(7199), "119 min");
    EXPECT_EQ(AgeText(7200), "2 h");
    EXPECT_EQ(AgeText(172799), "47 h");
    EXPECT_EQ(AgeText(172800), "2 d");
}

TEST(TextForPeople, CountsOneAndMany) {
    EXPECT_EQ(Counted(0, "record"), "0 records");
    EXPECT_EQ(Counted(1, "record"), "1 record");
    EXPECT_EQ(Counted(2, "record"), "2 records");
}

TEST(TextForPeople, StaysOneLineWhateverANameHolds) {
    EXPECT_EQ(OneLine("a\nb\tc\x1b[31md\x7f"), "a b c [31md ");
    EXPECT_EQ(OneLine("a\xc2\x9b"
                      "31m\xc2\xb5\xe2\x80\xae!\xe2\x81\xa6\xe2\x82\xac\xc2"),
              "a  31m\xc2\xb5   !   \xe2\x82\xac ");
    EXPECT_EQ(OneLine("a\x9b\xff\xe2\x82!"), "a    !");
}

}  // namespace
}  // namespace qel::test
