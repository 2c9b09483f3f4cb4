#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "Amounts.h"
#include "Cells.h"

namespace qel::test {
namespace {

TEST(ShortAmounts, OfBytesTakeFiveCells) {
    struct Row {
        double bytes;
        const char* text;
    };
    for (const Row& row :
         {Row{0, "0B"}, Row{999, "999B"}, Row{999.6, "1.0K"}, Row{1024, "1.0K"},
          Row{102297, "99.9K"}, Row{102390, "100K"}, Row{1022000, "998K"}, Row{1048576, "1.0M"},
          Row{18446744073709551615.0, "16.0E"}, Row{1023.6 * 1024 * 1024, "1.0G"}}) {
        EXPECT_EQ(ShortBytes(row.bytes), row.text);
        EXPECT_LE(ShortBytes(row.bytes).size(), 5U);
    }
}

TEST(ShortAmounts, OfRatesAndTimesAreShort) {
    EXPECT_EQ(ShortMegabytes(0), "0.0");
    EXPECT_EQ(ShortMegabytes(5e3), "0.005");
    EXPECT_EQ(ShortMegabytes(0.1e6), "0.1");
    EXPECT_EQ(ShortMegabytes(9999.94e6), "9999.9");
    EXPECT_EQ(ShortMegabytes(9999.96e6), "10000");
    EXPECT_EQ(ShortRate(0), "0");
    EXPECT_EQ(ShortRate(0.44), "0.4");
    EXPECT_EQ(ShortRate(99.94), "99.9");
    EXPECT_EQ(ShortRate(99.96), "100");
    EXPECT_EQ(ShortRate(999999.4), "999999");
    EXPECT_EQ(ShortRate(999999.5), "1.0M");
    EXPECT_EQ(ShortTime(std::nullopt), "-");
    EXPECT_EQ(ShortTime(0), "0 us");
    EXPECT_EQ(ShortTime(999.4e-6), "999 us");
    EXPECT_EQ(ShortTime(999.6e-6), "1.0 ms");
    EXPECT_EQ(ShortTime(99.94e-3), "99.9 ms");
    EXPECT_EQ(ShortTime(0.25), "250 ms");
    EXPECT_EQ(ShortTime(12), "12.0 s");
    EXPECT_EQ(ShortTime(12345), "12345 s");
    EXPECT_EQ(ShortShare(0), "0 %");
    EXPECT_EQ(ShortShare(0.004), "<1 %");
    EXPECT_EQ(ShortShare(0.005), "0 %");
    EXPECT_EQ(ShortShare(1), "100 %");
}

TEST(ShortAmounts, TellWhatTheyAreWorth) {
    RingFigures figures;
    EXPECT_STREQ(ByteWorth(figures), "");
    EXPECT_STREQ(PacketWorth(figures), "");
    figures.packetsAreExact = false;
    EXPECT_STREQ(ByteWorth(figures), "");
    EXPECT_STREQ(PacketWorth(figures), "~");
    figures.bytesAreExact = false;
    EXPECT_STREQ(ByteWorth(figures), "~");
    figures.isTooFast = true;
    EXPECT_STREQ(ByteWorth(figures), ">");
    EXPECT_STREQ(PacketWorth(figures), ">");
}

TEST(Cells, ShowOnlyWhatTakesOneCell) {
    struct Row {
        const char* text;
        const char* ascii;
    };
    for (const Row& row : {Row{"plain", "plain"}, Row{"a\nb\x1b[31m", "a?b?[31m"}, Row{"\xff", "?"},
                           Row{"gr\xc3\xbc\xc3\x9f", "gr??"}, Row{"\xc3", "?"}, Row{"\x80x", "?x"},
                           Row{"\xf0\x9f\x98\x80\x80\x80", "?"}}) {
        EXPECT_EQ(Shown(row.text, Charset::Ascii), row.ascii);
    }
}

TEST(Cells, AreCutAndFilledToAWidth) {
    EXPECT_EQ(Left("ab", 4), "ab  ");
    EXPECT_EQ(Left("abcd", 4), "abcd");
    EXPECT_EQ(Left("abcde", 4), "abc+");
    EXPECT_EQ(Left("abc", 0), "");
    EXPECT_EQ(Right("ab", 4), "  ab");
    EXPECT_EQ(Right("abcde", 4), "abcde");
    EXPECT_EQ(Left("\xc3\xbc\xc3\xbc\xc3\xbc", 2), "\xc3\xbc+");
    EXPECT_EQ(WidthOf("\xc3\xbcx"), 2U);
    EXPECT_EQ(TextOf(Clipped({{"abc"}, {"\xc3\xbc\xc3\xbc"}}, 4)), "abc\xc3\xbc");
}

}  // namespace
}  // namespace qel::test
