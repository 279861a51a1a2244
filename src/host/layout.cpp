#include "host/layout.h"

#include <blkid/blkid.h>

#include <cstring>

namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// `n` hexadecimal digits into a number; false on anything else.
bool Hex(const char* s, size_t n, uint32_t* out) {
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) {
        int d = HexDigit(s[i]);
        if (d < 0) return false;
        v = v << 4 | static_cast<uint32_t>(d);
    }
    *out = v;
    return true;
}

// "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" into the GUID's memory layout.
bool GuidBytes(const char* s, uint8_t out[16]) {
    if (std::strlen(s) != 36 || s[8] != '-' || s[13] != '-' || s[18] != '-' || s[23] != '-') return false;
    uint32_t d1, d2, d3, b;
    if (!Hex(s, 8, &d1) || !Hex(s + 9, 4, &d2) || !Hex(s + 14, 4, &d3)) return false;
    uint8_t g[16];
    for (int i = 0; i < 4; ++i) g[i] = static_cast<uint8_t>(d1 >> (8 * i));
    g[4] = static_cast<uint8_t>(d2), g[5] = static_cast<uint8_t>(d2 >> 8);
    g[6] = static_cast<uint8_t>(d3), g[7] = static_cast<uint8_t>(d3 >> 8);
    const char* tail = s + 19;
    for (int i = 0; i < 8; ++i) {
        const char* p = tail + 2 * i + (i >= 2 ? 1 : 0);
        if (!Hex(p, 2, &b)) return false;
        g[8 + i] = static_cast<uint8_t>(b);
    }
    std::memcpy(out, g, 16);
    return true;
}

}  // namespace

void TakeLayoutValues(const char* pttype, const char* ptuuid, DiskLayout* out) {
    *out = DiskLayout{};
    if (!pttype) return;
    if (std::strcmp(pttype, "gpt") == 0) {
        out->style = PartitionStyle::Gpt;
        if (ptuuid && !GuidBytes(ptuuid, out->gptDiskId)) std::memset(out->gptDiskId, 0, sizeof out->gptDiskId);
    } else if (std::strcmp(pttype, "dos") == 0) {
        out->style = PartitionStyle::Mbr;
        uint32_t sig = 0;
        if (ptuuid && std::strlen(ptuuid) == 8 && Hex(ptuuid, 8, &sig)) out->signature = sig;
    }
}

bool ProbeDiskLayout(int fd, DiskLayout* out) {
    *out = DiskLayout{};
    if (fd < 0) return false;
    blkid_probe pr = blkid_new_probe();
    if (!pr) return false;
    bool ok = false;
    if (blkid_probe_set_device(pr, fd, 0, 0) == 0) {
        blkid_probe_enable_superblocks(pr, 0);
        blkid_probe_enable_partitions(pr, 1);
        blkid_probe_set_partitions_flags(pr, BLKID_PARTS_MAGIC);
        int rc = blkid_do_safeprobe(pr);
        if (rc == 0) {
            const char* type = nullptr;
            const char* uuid = nullptr;
            blkid_probe_lookup_value(pr, "PTTYPE", &type, nullptr);
            blkid_probe_lookup_value(pr, "PTUUID", &uuid, nullptr);
            TakeLayoutValues(type, uuid, out);
            ok = true;
        } else if (rc == 1) {
            ok = true;  // nothing found: a raw disk
        }
    }
    blkid_free_probe(pr);
    return ok;
}
