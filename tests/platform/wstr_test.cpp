#include <gtest/gtest.h>

#include <string>

#include "testlib/fake_platform.h"
#include "platform/wstr.h"

namespace {

TEST(WStr, LengthAndCompare) {
    EXPECT_EQ(WStrLen(nullptr), 0u);
    EXPECT_EQ(WStrLen(u""), 0u);
    EXPECT_EQ(WStrLen(u"LUN_01"), 6u);

    struct Case {
        const WCHAR* a;
        const WCHAR* b;
        int sign;
    } cases[] = {
        {u"abc", u"abc", 0},  {u"abc", u"abd", -1}, {u"abd", u"abc", 1},   {u"ab", u"abc", -1},
        {u"abc", u"ab", 1},   {nullptr, u"", 0},    {nullptr, nullptr, 0}, {u"a", nullptr, 1},
        {u"z", u"\u00e9", -1},  // by code unit, not by locale
    };
    for (const auto& c : cases) {
        int r = WStrCmp(c.a, c.b);
        EXPECT_EQ((r > 0) - (r < 0), c.sign) << WideToUtf8(c.a) << " vs " << WideToUtf8(c.b);
    }
    EXPECT_EQ(WStrICmp(u"iqn.2004-01.COM.Example", u"IQN.2004-01.com.example"), 0);
    EXPECT_LT(WStrICmp(u"Alpha", u"beta"), 0);
    EXPECT_NE(WStrICmp(u"\u00c9", u"\u00e9"), 0);  // only ASCII letters fold
}

TEST(WStr, BoundedCopyTerminatesAndReportsTruncation) {
    WCHAR buf[8];
    for (auto& c : buf) c = u'#';
    EXPECT_TRUE(WStrNCpy(buf, 4, u"abc"));  // exactly fits with its terminator
    EXPECT_EQ(std::u16string(buf), u"abc");
    EXPECT_EQ(buf[4], u'#');

    for (auto& c : buf) c = u'#';
    EXPECT_FALSE(WStrNCpy(buf, 4, u"abcdef"));
    EXPECT_EQ(std::u16string(buf), u"abc");
    EXPECT_EQ(buf[4], u'#');  // nothing written past dstCount

    EXPECT_TRUE(WStrNCpy(buf, 8, nullptr));
    EXPECT_EQ(buf[0], 0);
    EXPECT_FALSE(WStrNCpy(buf, 0, u"x"));
    EXPECT_EQ(buf[0], 0);  // untouched

    WCHAR name[5];
    EXPECT_FALSE(WStrNCpy(name, u"Controller A"));
    EXPECT_EQ(std::u16string(name), u"Cont");
}

TEST(WStr, DupAndFromU16UseTaskMemory) {
    TestPlatform tp;
    tp.Install();

    LPWSTR p = WStrDup(u"Pool 1");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::u16string(p), u"Pool 1");
    CoTaskMemFree(p);
    EXPECT_EQ(WStrDup(nullptr), nullptr);

    LPWSTR e = WStrDup(u"");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e[0], 0);
    CoTaskMemFree(e);

    std::u16string withNul(u"ab\0cd", 5);
    LPWSTR q = FromU16(withNul);
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(std::u16string(q, 5), withNul);
    EXPECT_EQ(q[5], 0);
    CoTaskMemFree(q);
}

TEST(WStr, DupReturnsNullWhenTheAllocatorIsExhausted) {
    TestPlatform tp;
    tp.Install();

    tp.FailAllocAfter(1);
    EXPECT_EQ(WStrDup(u"x"), nullptr);
    LPWSTR after = FromU16(u"y");  // only the first allocation was to fail
    ASSERT_NE(after, nullptr);
    EXPECT_EQ(std::u16string(after), u"y");
    CoTaskMemFree(after);

    tp.FailAllocAfter(2);
    LPWSTR first = WStrDup(u"first");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(FromU16(u"second"), nullptr);
    LPWSTR third = WStrDup(u"third");
    ASSERT_NE(third, nullptr);
    CoTaskMemFree(first);
    CoTaskMemFree(third);
}

TEST(WStr, AsciiToWideWidensBytes) {
    EXPECT_EQ(AsciiToWide("RAID 5"), u"RAID 5");
    EXPECT_EQ(AsciiToWide(""), u"");
    EXPECT_EQ(AsciiToWide(nullptr), u"");
    EXPECT_EQ(AsciiToWide("\xe9\x7f"), u"\u00e9\u007f");
}

TEST(WStr, WideToUtf8) {
    struct Case {
        std::u16string in;
        std::string out;
    } cases[] = {
        {u"abc", "abc"},
        {u"\u00e9", "\xc3\xa9"},
        {u"\u20ac", "\xe2\x82\xac"},
        {u"\U0001F600", "\xf0\x9f\x98\x80"},
        {std::u16string(1, char16_t(0xD83D)), "\xef\xbf\xbd"},                  // lone high surrogate
        {std::u16string(1, char16_t(0xDE00)) + u"x", "\xef\xbf\xbdx"},          // lone low surrogate
        {std::u16string{char16_t(0xD83D), u'a'}, "\xef\xbf\xbd" "a"},           // high not followed by low
    };
    for (const auto& c : cases) {
        EXPECT_EQ(WideToUtf8(c.in), c.out);
        EXPECT_EQ(WideToUtf8(c.in.c_str()), c.out);
    }
    EXPECT_EQ(WideToUtf8(static_cast<const WCHAR*>(nullptr)), "");
}

TEST(WStr, Utf8ToWideReplacesMalformedInput) {
    const std::u16string r(1, char16_t(0xFFFD));
    struct Case {
        std::string in;
        std::u16string out;
    } cases[] = {
        {"abc", u"abc"},
        {"\xc3\xa9", u"\u00e9"},
        {"\xf0\x9f\x98\x80", u"\U0001F600"},
        {"\xff", r},                       // never a lead byte
        {"\x80" "a", r + u"a"},            // stray continuation
        {"\xc0\xaf", r + r},               // overlong lead, then a stray continuation
        {"\xe0\x80\xaf", r},               // overlong three-byte form
        {"\xe2\x82", r},                   // truncated at the end
        {"\xe2\x82" "a", r + u"a"},        // truncated before an ASCII byte
        {"\xed\xa0\x80", r},               // encoded surrogate
        {"\xf4\x90\x80\x80", r},           // above U+10FFFF
    };
    for (const auto& c : cases) EXPECT_EQ(Utf8ToWide(c.in), c.out) << c.in.size();
    EXPECT_EQ(Utf8ToWide(static_cast<const char*>(nullptr)), u"");
}

TEST(WStr, Utf8RoundTripsEveryPlane) {
    std::u16string all;
    for (char32_t cp : {0x1u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xD7FFu, 0xE000u, 0xFFFDu, 0x10000u, 0x10FFFFu}) {
        if (cp < 0x10000) {
            all.push_back(static_cast<char16_t>(cp));
        } else {
            all.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            all.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        }
    }
    EXPECT_EQ(Utf8ToWide(WideToUtf8(all)), all);
}

}  // namespace
