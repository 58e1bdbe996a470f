#include "platform/Utf.h"

#include <gtest/gtest.h>

namespace
{

using namespace platform;

TEST(Utf, WellFormedTextSurvivesBothWays)
{
    const std::u16string wide = u"a\u00e9\u0416\u20ac\U0001F600\U0010FFFF\u0000z";
    const std::string narrow = "a\xC3\xA9\xD0\x96\xE2\x82\xAC\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(narrow, utf16ToUtf8(wide.substr(0, 8)));
    EXPECT_EQ(wide.substr(0, 8), utf8ToUtf16(narrow));
    for (char32_t point = 1; point <= 0x10FFFF; point += point < 0x1000 ? 1 : 251)
    {
        std::u16string units{static_cast<char16_t>(point)};
        if (point >= 0x10000)
        {
            units = {static_cast<char16_t>(0xD7C0 + (point >> 10U)), static_cast<char16_t>(0xDC00 + (point & 0x3FFU))};
        }
        ASSERT_EQ(point < 0xD800 || point > 0xDFFF ? units : u"\uFFFD", utf8ToUtf16(utf16ToUtf8(units)));
    }
}

TEST(Utf, WhatIsNotWellFormedBecomesTheReplacementCharacter)
{
    const std::string replacement = "\xEF\xBF\xBD";
    EXPECT_EQ("a" + replacement + "b", utf16ToUtf8(u"a\xD83D"
                                                   u"b"));
    EXPECT_EQ(replacement, utf16ToUtf8(u"\xDE00"));
    EXPECT_EQ(replacement + replacement, utf16ToUtf8(u"\xDE00\xD83D"));
    EXPECT_EQ(u"\uFFFDa", utf8ToUtf16("\x80"
                                      "a"));       // a continuation byte without a lead byte
    EXPECT_EQ(u"\uFFFD", utf8ToUtf16("\xE2\x82")); // cut short
    EXPECT_EQ(u"\uFFFDz", utf8ToUtf16("\xF0\x9F"
                                      "z"));               // interrupted
    EXPECT_EQ(u"\uFFFD\uFFFD", utf8ToUtf16("\xC0\xAF"));   // longer than needed
    EXPECT_EQ(u"\uFFFD", utf8ToUtf16("\xED\xA0\x80"));     // a surrogate
    EXPECT_EQ(u"\uFFFD", utf8ToUtf16("\xF4\x90\x80\x80")); // beyond the last code point
}

} // namespace
