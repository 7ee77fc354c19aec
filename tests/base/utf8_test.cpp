#include "base/utf8.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(Utf8, AcceptsWellFormedAndRejectsMalformed) {
    EXPECT_TRUE(isValidUtf8(""));
    EXPECT_TRUE(isValidUtf8("plain"));
    EXPECT_TRUE(isValidUtf8(std::string_view("nul\0inside", 10)));
    EXPECT_TRUE(isValidUtf8("h\xc3\xa9llo \xe2\x82\xac \xf0\x9f\x98\x80"));
    EXPECT_FALSE(isValidUtf8("\xc3"));              // cut short
    EXPECT_FALSE(isValidUtf8("\xc0\xaf"));          // overlong "/"
    EXPECT_FALSE(isValidUtf8("\xed\xa0\x80"));      // surrogate
    EXPECT_FALSE(isValidUtf8("\xf4\x90\x80\x80"));  // past U+10FFFF
    EXPECT_FALSE(isValidUtf8("\x80"));
    EXPECT_FALSE(isValidUtf8("\xff"));
}

TEST(Utf8, TrimsNewlinesAtBothEndsOnly) {
    EXPECT_EQ(trimNewlines("\r\nwant x\n"), "want x");
    EXPECT_EQ(trimNewlines("a\nb"), "a\nb");
    EXPECT_EQ(trimNewlines("\n"), "");
    EXPECT_EQ(trimNewlines("x\xe2\x80\xa8"), "x");
    EXPECT_EQ(trimNewlines(" x "), " x ");
}

TEST(Utf8, QuotedLiteralEscapesControlsAndQuotes) {
    EXPECT_EQ(quotedLiteral(std::string_view("a\"b\\\n\0\x01", 7)), "\"a\\\"b\\\\\\n\\0\\u{1}\"");
}

}  // namespace
}  // namespace corvane
