// Basic types of the host's object model, kept with their widths so that every record the
// provider fills has the byte size a management host expects.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

using HRESULT = int32_t;
using ULONG = uint32_t;
using LONG = int32_t;
using DWORD = uint32_t;
using USHORT = uint16_t;
using UCHAR = uint8_t;
using BYTE = uint8_t;
using BOOL = int32_t;
using ULONGLONG = uint64_t;
using LONGLONG = int64_t;
using WCHAR = char16_t;
using LPWSTR = WCHAR*;
using LPCWSTR = const WCHAR*;

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16);

using IID = GUID;
using CLSID = GUID;
using VDS_OBJECT_ID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;
using REFGUID = const GUID&;

constexpr GUID GUID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};

inline bool IsEqualGUID(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }
inline bool operator==(const GUID& a, const GUID& b) { return IsEqualGUID(a, b); }
inline bool operator!=(const GUID& a, const GUID& b) { return !IsEqualGUID(a, b); }

// A symbol the module shows its host (see module/exports.map); everything else is hidden.
#define TROV_EXPORT __attribute__((visibility("default")))

// Maps keyed by GUID order them by a byte-wise compare of the 16 bytes.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "GuidLess reads the halves as little-endian words");
// The order of memcmp over the 16 bytes, as two big-endian halves: the maps of a load compare ids
// millions of times, and a call to memcmp for each was a tenth of the load's own work.
struct GuidLess {
    bool operator()(const GUID& a, const GUID& b) const {
        uint64_t a0, a1, b0, b1;
        std::memcpy(&a0, &a, 8);
        std::memcpy(&b0, &b, 8);
        if (a0 != b0) return __builtin_bswap64(a0) < __builtin_bswap64(b0);
        std::memcpy(&a1, reinterpret_cast<const char*>(&a) + 8, 8);
        std::memcpy(&b1, reinterpret_cast<const char*>(&b) + 8, 8);
        return __builtin_bswap64(a1) < __builtin_bswap64(b1);
    }
};

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", lower case.
std::string GuidToString(const GUID& g);
// Accepts the same form, with or without braces; false on any other text.
bool GuidFromString(const std::string& text, GUID* out);

constexpr GUID MakeGuid(uint32_t d1, uint16_t d2, uint16_t d3, uint8_t a, uint8_t b, uint8_t c, uint8_t d,
                        uint8_t e, uint8_t f, uint8_t g, uint8_t h) {
    return GUID{d1, d2, d3, {a, b, c, d, e, f, g, h}};
}

#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
