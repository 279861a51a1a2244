// The id order of every map and enumeration is that of memcmp over the id's bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "platform/wintypes.h"

namespace {

int Sign(int v) { return (v > 0) - (v < 0); }

TEST(GuidLess, OrdersAsMemcmpOverTheBytes) {
    std::mt19937_64 rng(7);
    GuidLess less;
    for (int i = 0; i < 20000; ++i) {
        GUID a, b;
        uint8_t* pa = reinterpret_cast<uint8_t*>(&a);
        uint8_t* pb = reinterpret_cast<uint8_t*>(&b);
        for (size_t k = 0; k < sizeof(GUID); ++k) pa[k] = static_cast<uint8_t>(rng());
        // Most pairs share a prefix of random length, so that every byte position decides some.
        std::memcpy(pb, pa, sizeof(GUID));
        size_t same = rng() % (sizeof(GUID) + 1);
        for (size_t k = same; k < sizeof(GUID); ++k) pb[k] = static_cast<uint8_t>(rng());
        int want = Sign(std::memcmp(&a, &b, sizeof(GUID)));
        ASSERT_EQ(less(a, b), want < 0) << i;
        ASSERT_EQ(less(b, a), want > 0) << i;
    }
}

}  // namespace
