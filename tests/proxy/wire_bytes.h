// Packet bytes written out by hand for the proxy tests: the check value's table (the DES initial
// permutation IP of FIPS 46) and the header built from its layout alone, apart from the production
// code, so that a slip in either table or layout shows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace wirebytes {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kIp[64] = {58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
                             62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
                             57, 49, 41, 33, 25, 17, 9,  1, 59, 51, 43, 35, 27, 19, 11, 3,
                             61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7};

inline uint32_t CheckValue(uint32_t seq, uint32_t key) { return kIp[seq % 64] + key + seq; }

inline void AppendBe32(Bytes& b, uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(v >> s));
}

inline uint32_t Be32(const Bytes& b, size_t off) {
    return uint32_t(b.at(off)) << 24 | uint32_t(b.at(off + 1)) << 16 | uint32_t(b.at(off + 2)) << 8 | b.at(off + 3);
}

// The 36-byte header as the service expects it.
inline Bytes Header(uint32_t seq, uint32_t key, uint32_t type, uint32_t op, uint32_t len) {
    Bytes b = {'O', 'R', 'B', 'I', 'T', 'V', 'A', 'L', 'E', 0, 0, 0};
    for (uint32_t w : {seq, CheckValue(seq, key), type, op, 0u, len}) AppendBe32(b, w);
    return b;
}

}  // namespace wirebytes
