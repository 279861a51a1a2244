#include "platform/wstr.h"

#include <cstdint>
#include <cstring>

#include "platform/platform.h"

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

WCHAR AsciiLower(WCHAR c) { return (c >= u'A' && c <= u'Z') ? static_cast<WCHAR>(c - u'A' + u'a') : c; }

void AppendUtf8(std::string* out, char32_t cp) {
    if (cp < 0x80) {
        out->push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void AppendUtf16(std::u16string* out, char32_t cp) {
    if (cp < 0x10000) {
        out->push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out->push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out->push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

std::string Utf16ToUtf8(const char16_t* s, size_t n) {
    std::string out;
    out.reserve(n);
    for (size_t i = 0; i < n; ++i) {
        char16_t c = s[i];
        if (IsHighSurrogate(c) && i + 1 < n && IsLowSurrogate(s[i + 1])) {
            char32_t cp = 0x10000 + ((static_cast<char32_t>(c) - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            AppendUtf8(&out, cp);
            ++i;
        } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
            AppendUtf8(&out, kReplacement);
        } else {
            AppendUtf8(&out, c);
        }
    }
    return out;
}

std::u16string Utf8ToUtf16(const unsigned char* s, size_t n) {
    std::u16string out;
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        unsigned char b = s[i];
        if (b < 0x80) {
            out.push_back(b);
            ++i;
            continue;
        }
        size_t len;
        char32_t cp;
        char32_t min;
        if (b >= 0xC2 && b <= 0xDF) {
            len = 2, cp = b & 0x1F, min = 0x80;
        } else if (b >= 0xE0 && b <= 0xEF) {
            len = 3, cp = b & 0x0F, min = 0x800;
        } else if (b >= 0xF0 && b <= 0xF4) {
            len = 4, cp = b & 0x07, min = 0x10000;
        } else {
            out.push_back(static_cast<char16_t>(kReplacement));  // stray continuation or invalid lead
            ++i;
            continue;
        }
        size_t k = 1;
        for (; k < len && i + k < n && (s[i + k] & 0xC0) == 0x80; ++k) cp = (cp << 6) | (s[i + k] & 0x3F);
        if (k < len || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            // Malformed: replace the lead and resume after the continuation bytes consumed.
            out.push_back(static_cast<char16_t>(kReplacement));
            i += k;
            continue;
        }
        AppendUtf16(&out, cp);
        i += len;
    }
    return out;
}

LPWSTR DupUnits(const WCHAR* s, size_t n) {
    if (n >= SIZE_MAX / sizeof(WCHAR) - 1) return nullptr;
    auto* p = static_cast<LPWSTR>(CoTaskMemAlloc((n + 1) * sizeof(WCHAR)));
    if (!p) return nullptr;
    if (n) std::memcpy(p, s, n * sizeof(WCHAR));
    p[n] = 0;
    return p;
}

}  // namespace

size_t WStrLen(const WCHAR* s) {
    if (!s) return 0;
    size_t n = 0;
    while (s[n]) ++n;
    return n;
}

int WStrCmp(const WCHAR* a, const WCHAR* b) {
    static const WCHAR kEmpty[1] = {0};
    if (!a) a = kEmpty;
    if (!b) b = kEmpty;
    while (*a && *a == *b) ++a, ++b;
    return static_cast<int>(*a) - static_cast<int>(*b);
}

int WStrICmp(const WCHAR* a, const WCHAR* b) {
    static const WCHAR kEmpty[1] = {0};
    if (!a) a = kEmpty;
    if (!b) b = kEmpty;
    while (*a && AsciiLower(*a) == AsciiLower(*b)) ++a, ++b;
    return static_cast<int>(AsciiLower(*a)) - static_cast<int>(AsciiLower(*b));
}

bool WStrNCpy(WCHAR* dst, size_t dstCount, const WCHAR* src) {
    if (!dst || dstCount == 0) return false;
    size_t i = 0;
    if (src) {
        for (; i + 1 < dstCount && src[i]; ++i) dst[i] = src[i];
    }
    dst[i] = 0;
    return !src || src[i] == 0;
}

LPWSTR WStrDup(const WCHAR* s) {
    if (!s) return nullptr;
    return DupUnits(s, WStrLen(s));
}

LPWSTR FromU16(const std::u16string& s) { return DupUnits(s.data(), s.size()); }

std::u16string AsciiToWide(const char* s) {
    std::u16string out;
    if (!s) return out;
    for (; *s; ++s) out.push_back(static_cast<unsigned char>(*s));
    return out;
}

std::string WideToUtf8(const WCHAR* s) { return Utf16ToUtf8(s, WStrLen(s)); }

std::string WideToUtf8(const std::u16string& s) { return Utf16ToUtf8(s.data(), s.size()); }

std::u16string Utf8ToWide(const char* s) {
    if (!s) return {};
    return Utf8ToUtf16(reinterpret_cast<const unsigned char*>(s), std::strlen(s));
}

std::u16string Utf8ToWide(const std::string& s) {
    return Utf8ToUtf16(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}
