// Small helpers for the host's wide strings: UTF-16 (WCHAR = char16_t), zero-terminated.
//
// Strings that go to the host are CoTaskMemAlloc blocks (the host frees them); the duplicating
// helpers therefore return null when the task allocator is exhausted, and callers answer
// E_OUTOFMEMORY. A null input string counts as the empty string everywhere except WStrDup,
// which maps null to null.
#pragma once

#include <cstddef>
#include <string>

#include "platform/wintypes.h"

// Number of code units before the terminator; 0 for null.
size_t WStrLen(const WCHAR* s);

// Compares code unit by code unit: <0, 0 or >0 as a sorts before, equal to, or after b.
int WStrCmp(const WCHAR* a, const WCHAR* b);

// Like WStrCmp, but ASCII letters compare without regard to case (iSCSI names, host names).
int WStrICmp(const WCHAR* a, const WCHAR* b);

// Bounded copy into dst[dstCount]: copies at most dstCount - 1 code units and always
// terminates (when dstCount > 0). Returns false when src did not fit whole (or dstCount is 0).
bool WStrNCpy(WCHAR* dst, size_t dstCount, const WCHAR* src);

template <size_t N>
bool WStrNCpy(WCHAR (&dst)[N], const WCHAR* src) {
    return WStrNCpy(dst, N, src);
}

// A CoTaskMemAlloc copy of s with its terminator; null for null s or when allocation fails.
LPWSTR WStrDup(const WCHAR* s);

// A CoTaskMemAlloc copy of s (all of it, then a terminator); null when allocation fails.
LPWSTR FromU16(const std::u16string& s);

// Widens each byte to one code unit (bytes above 0x7F become U+0080..U+00FF).
std::u16string AsciiToWide(const char* s);

// UTF-16 to UTF-8. Surrogate pairs become one code point; an unpaired surrogate becomes U+FFFD.
std::string WideToUtf8(const WCHAR* s);
std::string WideToUtf8(const std::u16string& s);

// UTF-8 to UTF-16. Each malformed, overlong or surrogate-encoding sequence becomes U+FFFD.
std::u16string Utf8ToWide(const char* s);
std::u16string Utf8ToWide(const std::string& s);
