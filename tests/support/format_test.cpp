// The log formatter: printf's conversions agree with the C library, the wide-string and %I64
// extensions, and the bound on the output.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "support/debuglog.h"

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename T>
std::string Libc(const char* fmt, T v) {
    char buf[512];
    std::snprintf(buf, sizeof buf, fmt, v);
    return buf;
}
template <typename T>
std::string Ours(const char* fmt, T v) {
    char buf[512];
    TrovFormat(buf, sizeof buf, fmt, v);
    return buf;
}
#pragma GCC diagnostic pop

TEST(TrovFormat, IntegerConversionsAgreeWithLibc) {
    const char* formats[] = {"%d",   "%5d",  "%-5d|", "%05d", "%+d",  "% d",   "%.3d", "%8.3d", "%i",
                             "%u",   "%x",   "%X",    "%#x",  "%#o",  "%o",    "%08X", "%-8x|", "%hd",
                             "%hu",  "%hhd", "%hhu",  "%hhx", "%hx",  "%.0d",  "%+05d"};
    const int values[] = {0, 1, -1, 42, -42, 255, 256, 65535, 65536, INT_MAX, INT_MIN, 0x7F, 0x80, -129};
    for (const char* f : formats)
        for (int v : values) EXPECT_EQ(Ours(f, v), Libc(f, v)) << f << " " << v;
}

TEST(TrovFormat, LengthModifiersAgreeWithLibc) {
    const long lv[] = {0, -1, LONG_MAX, LONG_MIN, 1234567890123L};
    for (long v : lv) {
        for (const char* f : {"%ld", "%lu", "%lx", "%20ld", "%-20lX|"}) EXPECT_EQ(Ours(f, v), Libc(f, v)) << f;
    }
    const long long llv[] = {0, -1, LLONG_MAX, LLONG_MIN, 0x123456789ABCDEFLL};
    for (long long v : llv) {
        for (const char* f : {"%lld", "%llu", "%llx", "%llX", "%030lld"}) EXPECT_EQ(Ours(f, v), Libc(f, v)) << f;
    }
    const size_t zv[] = {0, 1, SIZE_MAX, 4096};
    for (size_t v : zv) {
        for (const char* f : {"%zu", "%zx", "%zd"}) EXPECT_EQ(Ours(f, v), Libc(f, v)) << f;
    }
}

TEST(TrovFormat, FloatsCharsAndStringsAgreeWithLibc) {
    for (double v : {0.0, 1.5, -2.25, 1e300, 3.14159265358979, 1e-7}) {
        for (const char* f : {"%f", "%.2f", "%10.3f", "%e", "%E", "%g", "%G", "%-12.4g|", "%a"})
            EXPECT_EQ(Ours(f, v), Libc(f, v)) << f << " " << v;
    }
    for (const char* f : {"%c", "%3c", "%-3c|"}) EXPECT_EQ(Ours(f, 'A'), Libc(f, 'A')) << f;
    for (const char* f : {"%s", "%10s", "%-10s|", "%.2s", "%8.3s"}) EXPECT_EQ(Ours(f, "hello"), Libc(f, "hello")) << f;
}

TEST(TrovFormat, StarWidthAndPrecisionTakeArguments) {
    char buf[64];
    TrovFormat(buf, sizeof buf, "[%*d][%-*d][%.*s][%*.*f]", 5, 42, 4, 7, 3, "abcdef", 8, 2, 3.14159);
    EXPECT_STREQ(buf, "[   42][7   ][abc][    3.14]");
    TrovFormat(buf, sizeof buf, "[%*d]", -4, 9);  // a negative width means left-justified
    EXPECT_STREQ(buf, "[9   ]");
}

TEST(TrovFormat, I64PrefixReadsSixtyFourBits) {
    char buf[128];
    TrovFormat(buf, sizeof buf, "%I64d %I64u %I64x %I64X %d", -5000000000LL, 18446744073709551615ULL,
               0xDEADBEEFCAFEULL, 0xDEADBEEFCAFEULL, 7);
    EXPECT_STREQ(buf, "-5000000000 18446744073709551615 deadbeefcafe DEADBEEFCAFE 7");
    TrovFormat(buf, sizeof buf, "%016I64X|%-12I64d|", 0x1234ULL, 99LL);
    EXPECT_STREQ(buf, "0000000000001234|99          |");
}

TEST(TrovFormat, WideStringsBecomeUtf8) {
    char buf[128];
    const WCHAR* name = u"iqn.2001-04.com.example:tgt";
    TrovFormat(buf, sizeof buf, "<%S> <%ls> <%ws>", name, u"x", u"y");
    EXPECT_STREQ(buf, "<iqn.2001-04.com.example:tgt> <x> <y>");
    TrovFormat(buf, sizeof buf, "%S", u"caf\u00e9 \u20ac \U0001F600");
    EXPECT_STREQ(buf, "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
    TrovFormat(buf, sizeof buf, "[%8S][%-6ls][%.3S]", u"abc", u"de", u"wxyz");
    EXPECT_STREQ(buf, "[     abc][de    ][wxy]");
    // A precision never splits a surrogate pair.
    TrovFormat(buf, sizeof buf, "[%.1S]", u"\U0001F600z");
    EXPECT_STREQ(buf, "[]");
    TrovFormat(buf, sizeof buf, "%hS|%C|%lc", "narrow", u'\u00e9', u'Z');
    EXPECT_STREQ(buf, "narrow|\xC3\xA9|Z");
}

TEST(TrovFormat, NullStringsPrintNull) {
    char buf[64];
    TrovFormat(buf, sizeof buf, "%s|%S|%ls|%8s", static_cast<const char*>(nullptr), static_cast<const WCHAR*>(nullptr),
               static_cast<const WCHAR*>(nullptr), static_cast<const char*>(nullptr));
    EXPECT_STREQ(buf, "(null)|(null)|(null)|  (null)");
}

TEST(TrovFormat, PointerPercentAndUnknownConversions) {
    char buf[64];
    TrovFormat(buf, sizeof buf, "%p", reinterpret_cast<void*>(0xABCDEFu));
    std::string expect = std::string(2 * sizeof(void*) - 6, '0') + "ABCDEF";
    EXPECT_EQ(std::string(buf), expect);
    TrovFormat(buf, sizeof buf, "%p", nullptr);
    EXPECT_EQ(std::string(buf), std::string(2 * sizeof(void*), '0'));
    TrovFormat(buf, sizeof buf, "100%% done %y %d", 3);
    EXPECT_STREQ(buf, "100% done %y 3");
    TrovFormat(buf, sizeof buf, "tail %");
    EXPECT_STREQ(buf, "tail %");
}

TEST(TrovFormat, TruncatesAtSizeMinusOne) {
    char buf[16];
    std::memset(buf, 'Z', sizeof buf);
    int n = TrovFormat(buf, 8, "%s and %d", "abcdef", 12345);
    EXPECT_EQ(n, 7);
    EXPECT_STREQ(buf, "abcdef ");
    EXPECT_EQ(buf[8], 'Z');  // nothing written past the given size

    std::memset(buf, 'Z', sizeof buf);
    n = TrovFormat(buf, 1, "%s", "abc");
    EXPECT_EQ(n, 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[1], 'Z');

    buf[0] = 'Q';
    EXPECT_EQ(TrovFormat(buf, 0, "abc"), 0);
    EXPECT_EQ(buf[0], 'Q');

    // Cuts inside a padded field and inside a wide string alike.
    EXPECT_EQ(TrovFormat(buf, 5, "%10d", 1), 4);
    EXPECT_STREQ(buf, "    ");
    EXPECT_EQ(TrovFormat(buf, 4, "%S", u"abcdef"), 3);
    EXPECT_STREQ(buf, "abc");
}

TEST(TrovFormat, HugeWidthStaysWithinTheBuffer) {
    char buf[32];
    int n = TrovFormat(buf, sizeof buf, "%1000000000d|%s", 5, "x");
    EXPECT_EQ(n, 31);
    EXPECT_EQ(std::string(buf), std::string(31, ' '));
}

TEST(TrovFormat, FormatStringHelper) {
    std::string big(10000, 'q');
    EXPECT_EQ(TrovFormatString("%s!", big.c_str()), big + "!");
    EXPECT_EQ(TrovFormatString("%S=%I64u", u"k", 5ULL), "k=5");
}

}  // namespace
