#include "platform/wintypes.h"

#include <cctype>
#include <cstdio>

std::string GuidToString(const GUID& g) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", g.Data1, g.Data2, g.Data3,
                  g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return buf;
}

static int HexVal(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool GuidFromString(const std::string& in, GUID* out) {
    std::string t = in;
    if (t.size() == 38 && t.front() == '{' && t.back() == '}') t = t.substr(1, 36);
    if (t.size() != 36 || t[8] != '-' || t[13] != '-' || t[18] != '-' || t[23] != '-') return false;
    uint8_t bytes[16];
    size_t bi = 0;
    for (size_t i = 0; i < t.size();) {
        if (t[i] == '-') { ++i; continue; }
        int hi = HexVal(t[i]), lo = HexVal(t[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes[bi++] = static_cast<uint8_t>(hi << 4 | lo);
        i += 2;
    }
    GUID g;
    g.Data1 = uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3];
    g.Data2 = static_cast<uint16_t>(bytes[4] << 8 | bytes[5]);
    g.Data3 = static_cast<uint16_t>(bytes[6] << 8 | bytes[7]);
    std::memcpy(g.Data4, bytes + 8, 8);
    *out = g;
    return true;
}
