#include "platform/base/visible.h"

#include <gtest/gtest.h>

namespace qv {
namespace {

TEST(Visible, OrdinaryTextStaysAsItIs) {
    for (const char* text :
         {"", "swp1", "a\\x1b \"b\" ~", "gr\xc3\xbc\xc3\x9f", "\xc2\xa0", "\xe0\xa0\x80",
          "\xed\x9f\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(visible(text), text);
        EXPECT_TRUE(is_visible(text)) << text;
    }
}

TEST(Visible, ControlBytesAreWrittenAsTheirCode) {
    EXPECT_EQ(visible("a\x1b[2Jb"), "a\\x1b[2Jb");
    EXPECT_EQ(visible(std::string_view("\0\x01\x1f\x7f", 4)), "\\x00\\x01\\x1f\\x7f");
    EXPECT_EQ(visible("\r\n\t"), "\\x0d\\x0a\\x09");
    EXPECT_FALSE(is_visible("a\x1b"));
    EXPECT_FALSE(is_visible("\x7f"));
}

TEST(Visible, ControlCharactersAbove127AreWrittenAsTheirCodes) {
    EXPECT_EQ(visible("\xc2\x80\xc2\x9b"), "\\xc2\\x80\\xc2\\x9b");
    EXPECT_EQ(visible("\xc2\x9f"), "\\xc2\\x9f");
    EXPECT_EQ(visible("\x80-\x9b-\x9f"), "\\x80-\\x9b-\\x9f");
    EXPECT_FALSE(is_visible("\xc2\x9b"));
    EXPECT_FALSE(is_visible("\x9b"));
}

TEST(Visible, BytesThatAreNotUtf8AreWrittenAsTheirCodes) {
    EXPECT_EQ(visible("\xff\xfe"), "\\xff\\xfe");
    EXPECT_EQ(visible("\xc3"), "\\xc3");
    EXPECT_EQ(visible("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(visible("\xe2\x82z"), "\\xe2\\x82z");
    EXPECT_EQ(visible("\xc0\x9b"), "\\xc0\\x9b");                    // too long for U+001B
    EXPECT_EQ(visible("\xe0\x82\x9b"), "\\xe0\\x82\\x9b");           // too long for U+009B
    EXPECT_EQ(visible("\xf0\x80\x82\x9b"), "\\xf0\\x80\\x82\\x9b");  // the same
    EXPECT_EQ(visible("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // a surrogate
    EXPECT_EQ(visible("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // above U+10FFFF
    EXPECT_EQ(visible("\xf5\x80\x80\x80"), "\\xf5\\x80\\x80\\x80");  // the same
}

TEST(Visible, KeptBytesStay) {
    EXPECT_EQ(visible("a\n\tb\r\x1b\x7f", "\n\t"), "a\n\tb\\x0d\\x1b\\x7f");
    EXPECT_TRUE(is_visible("a\n\tb", "\n\t"));
    EXPECT_FALSE(is_visible("a\n\tb", "\t"));
    EXPECT_EQ(visible("a\r\nb\r\r\n", kLinesAndTabs), "a\r\nb\\x0d\r\n");
    EXPECT_EQ(visible("a\r\nb", "\t"), "a\\x0d\\x0ab");
}

}  // namespace
}  // namespace qv
