// The decisions of an extension (the ladder, the RAID10 and RAID50 arithmetic, the number of
// drives to add) and of the hints of an existing LUN.
#include <gtest/gtest.h>

#include <cstring>

#include "lun/extend.h"
#include "lun/hints.h"
#include "platform/vds_errors.h"

namespace {

struct LadderCase {
    const char* what;
    int type;
    uint8_t raid;
    LONG named;
    uint32_t members;
    uint8_t perLeg;
    HRESULT expected;
};

class Ladder : public ::testing::TestWithParam<LadderCase> {};

TEST_P(Ladder, RefusesByLevelAndCount) {
    const LadderCase& c = GetParam();
    EXPECT_EQ(ExtendLadder(c.type, c.raid, c.named, c.members, c.perLeg), c.expected) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Ladder,
    ::testing::Values(
        LadderCase{"mirror of RAID1", VDS_LT_MIRROR, TROV_RAID1, 0, 2, 0, VDS_E_NOT_SUPPORTED},
        LadderCase{"simple", VDS_LT_SIMPLE, TROV_NRAID, 0, 1, 0, VDS_E_NOT_SUPPORTED},
        LadderCase{"RAID10, none named", VDS_LT_MIRROR, TROV_RAID10, 0, 4, 0, S_OK},
        LadderCase{"RAID10, two", VDS_LT_RAID10, TROV_RAID10, 2, 4, 0, S_OK},
        LadderCase{"RAID10, three", VDS_LT_RAID10, TROV_RAID10, 3, 4, 0, VDS_E_NOT_SUPPORTED},
        LadderCase{"RAID10, four", VDS_LT_RAID10, TROV_RAID10, 4, 4, 0, S_OK},
        LadderCase{"RAID50, one leg", VDS_LT_RAID50, TROV_RAID50, 3, 6, 3, S_OK},
        LadderCase{"RAID50, two drives of a three-drive leg", VDS_LT_RAID50, TROV_RAID50, 2, 6, 3,
                   VDS_E_NOT_SUPPORTED},
        LadderCase{"RAID50 to 30", VDS_LT_RAID50, TROV_RAID50, 3, 27, 3, S_OK},
        LadderCase{"RAID50 to 33", VDS_LT_RAID50, TROV_RAID50, 3, 30, 3, VDS_E_NOT_SUPPORTED},
        LadderCase{"RAID30 counts as RAID50", VDS_LT_RAID30, TROV_RAID30, 4, 8, 4, S_OK},
        LadderCase{"RAID5, four", VDS_LT_RAID5, TROV_RAID5, 4, 12, 0, S_OK},
        LadderCase{"RAID5, five", VDS_LT_PARITY, TROV_RAID5, 5, 4, 0, VDS_E_NOT_SUPPORTED},
        LadderCase{"RAID5, 13 + 4", VDS_LT_RAID5, TROV_RAID5, 4, 13, 0, VDS_E_NOT_SUPPORTED},
        LadderCase{"RAID6 of the older type", VDS_LT_PARITY, TROV_RAID6, 2, 6, 0, S_OK},
        LadderCase{"stripe, 16 in all", VDS_LT_STRIPE, TROV_RAID0, 4, 12, 0, S_OK},
        LadderCase{"stripe, 17 in all", VDS_LT_STRIPE, TROV_RAID0, 1, 16, 0, VDS_E_NOT_SUPPORTED}));

TEST(AddedCapacity, Raid10CountsWholePairsAtHalf) {
    const uint64_t G = 1ull << 30;
    EXPECT_EQ(CapacityOfAddedDrives(TROV_RAID10, 2 * G, 2), 1 * G);
    EXPECT_EQ(CapacityOfAddedDrives(TROV_RAID10, 3 * G, 3), 1 * G);  // the odd drive adds nothing
    EXPECT_EQ(CapacityOfAddedDrives(TROV_RAID10, 4 * G, 4), 2 * G);
    EXPECT_EQ(CapacityOfAddedDrives(TROV_RAID5, 3 * G, 3), 3 * G);
    EXPECT_EQ(CapacityOfAddedDrives(TROV_RAID10, 0, 0), 0u);
}

struct CountCase {  // the accepted counts; the refusals follow apart
    const char* what;
    uint8_t raid;
    int type;
    uint64_t single, freeBytes, wanted;
    uint8_t perLeg;
    size_t available;
    HRESULT hr;
    uint32_t count;
};

class CountToAdd : public ::testing::TestWithParam<CountCase> {};

TEST_P(CountToAdd, FewestDrivesThatReachTheSize) {
    const CountCase& c = GetParam();
    uint32_t count = 99;
    EXPECT_EQ(DriveCountToAdd(c.raid, c.type, c.single, c.freeBytes, c.wanted, c.perLeg, c.available, &count), c.hr)
        << c.what;
    if (c.hr == S_OK) EXPECT_EQ(count, c.count) << c.what;
}

constexpr uint64_t G = 1ull << 30;
INSTANTIATE_TEST_SUITE_P(
    Cases, CountToAdd,
    ::testing::Values(CountCase{"one drive is enough", TROV_RAID5, VDS_LT_RAID5, 2 * G, 0, 2 * G, 0, 6, S_OK, 1},
                      CountCase{"free space counts", TROV_RAID5, VDS_LT_RAID5, 2 * G, 1 * G, 5 * G, 0, 6, S_OK, 2},
                      CountCase{"RAID10 pairs", TROV_RAID10, VDS_LT_RAID10, 2 * G, 0, 3 * G, 0, 6, S_OK, 4},
                      CountCase{"RAID10 pair", TROV_RAID10, VDS_LT_MIRROR, 2 * G, 0, 1 * G, 0, 6, S_OK, 2},
                      CountCase{"RAID50 takes a leg", TROV_RAID50, VDS_LT_RAID50, 1 * G, 0, 2 * G, 3, 6, S_OK, 3}));

TEST(CountToAddRefusals, ByLevel) {
    // Five drives, two found of three needed, a second RAID50 leg, drives of no size.
    uint32_t count = 0;
    EXPECT_EQ(DriveCountToAdd(TROV_RAID5, VDS_LT_RAID5, 1 * G, 0, 5 * G, 0, 6, &count), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(DriveCountToAdd(TROV_RAID5, VDS_LT_RAID5, 1 * G, 0, 3 * G, 0, 2, &count), VDS_E_NOT_ENOUGH_DRIVE);
    EXPECT_EQ(DriveCountToAdd(TROV_RAID50, VDS_LT_RAID50, 1 * G, 0, 4 * G, 3, 6, &count), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(DriveCountToAdd(TROV_RAID5, VDS_LT_RAID5, 0, 0, 1 * G, 0, 6, &count), VDS_E_NOT_SUPPORTED);
    // An odd count on a mirror type goes up to the pair.
    EXPECT_EQ(DriveCountToAdd(TROV_RAID1, VDS_LT_MIRROR, 2 * G, 0, 2 * G, 0, 6, &count), S_OK);
    EXPECT_EQ(count, 2u);
}

struct ApplyCase {
    const char* what;
    ULONGLONG mask;
    BOOL seqReads, seqWrites, writeThrough;
    ULONG stripe;
    HRESULT hr;
    uint8_t byte9, byte10;  // from a start of 1 and 0
};

class ApplyHintsDecision : public ::testing::TestWithParam<ApplyCase> {};

TEST_P(ApplyHintsDecision, RefusesOrChangesTheCacheBytes) {
    const ApplyCase& c = GetParam();
    VDS_HINTS h{};
    h.ullHintMask = c.mask;
    h.bOptimizeForSequentialReads = c.seqReads;
    h.bOptimizeForSequentialWrites = c.seqWrites;
    h.bWriteThroughCachingEnabled = c.writeThrough;
    h.ulStripeSize = c.stripe;
    EXPECT_EQ(CheckAppliedHints(h), c.hr) << c.what;
    if (c.hr != S_OK) return;
    uint8_t cache[32] = {};
    cache[9] = 1;
    CacheParamsWithHints(h, cache);
    EXPECT_EQ(cache[9], c.byte9) << c.what;
    EXPECT_EQ(cache[10], c.byte10) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ApplyHintsDecision,
    ::testing::Values(ApplyCase{"write-through on", 0x40, 0, 0, 1, 0, S_OK, 0, 0},
                      ApplyCase{"write-through off", 0x40, 0, 0, 0, 0, S_OK, 1, 0},
                      ApplyCase{"sequential both", 0xC, 1, 1, 0, 0, S_OK, 1, 1},
                      ApplyCase{"sequential apart", 0xC, 1, 0, 0, 0, VDS_E_NOT_SUPPORTED, 0, 0},
                      ApplyCase{"sequential reads alone", 0x4, 1, 0, 0, 0, S_OK, 1, 1},
                      ApplyCase{"mostly reads and verify do nothing", 0x12, 0, 0, 0, 0, S_OK, 1, 0},
                      ApplyCase{"fast crash recovery", 0x1, 0, 0, 0, 0, VDS_E_NOT_SUPPORTED, 0, 0},
                      ApplyCase{"remap", 0x20, 0, 0, 0, 0, VDS_E_NOT_SUPPORTED, 0, 0},
                      ApplyCase{"checksum", 0x80, 0, 0, 0, 0, VDS_E_NOT_SUPPORTED, 0, 0},
                      ApplyCase{"yankable", 0x100, 0, 0, 0, 0, VDS_E_NOT_SUPPORTED, 0, 0},
                      ApplyCase{"a stripe size", 0x40, 0, 0, 1, 65536, VDS_E_NOT_SUPPORTED, 0, 0},
                      ApplyCase{"the whole upper byte", 0xFF00000000000000ull, 0, 0, 0, 0, S_OK, 1, 0}));

TEST(ApplyHintsDecision, WhatQueryHintsGaveIsRefused) {
    VDS_HINTS h{};
    h.ullHintMask = 0x10C;
    h.ulStripeSize = h.ulOptimalReadSize = 65536;
    h.ulMaximumDriveCount = 128;
    h.bIsYankable = 1;
    EXPECT_EQ(CheckAppliedHints(h), VDS_E_NOT_SUPPORTED);
}

TEST(QueriedHints, RaidAndRoleBits) {
    BOOL reads = 0;
    EXPECT_EQ(RaidHintMask(TROV_RAID5, &reads), 0x800000000000010Eull);
    EXPECT_EQ(reads, 1);
    reads = 0;
    EXPECT_EQ(RaidHintMask(TROV_RAID50, &reads), 0x400000000000010Eull);
    EXPECT_EQ(RaidHintMask(TROV_RAID3, &reads), 0x200000000000010Eull);
    reads = 0;
    EXPECT_EQ(RaidHintMask(TROV_RAID0, &reads), 0x10Cull);
    EXPECT_EQ(reads, 0);
    EXPECT_EQ(RoleHintBits(0, true), 0u);
    EXPECT_EQ(RoleHintBits(1, false), 1ull << 56);
    EXPECT_EQ(RoleHintBits(1, true), (1ull << 56) | (1ull << 57));
    EXPECT_EQ(RoleHintBits(2, false), 1ull << 57);
    EXPECT_EQ(RoleHintBits(2, true), (1ull << 57) | (1ull << 58));
    EXPECT_EQ(RoleHintBits(3, true), 1ull << 58);
    EXPECT_EQ(static_cast<int>(BusTypeOfDriveType(2)), 6);
    EXPECT_EQ(static_cast<int>(BusTypeOfDriveType(7)), 11);
    EXPECT_EQ(static_cast<int>(BusTypeOfDriveType(8)), 10);
    EXPECT_EQ(static_cast<int>(BusTypeOfDriveType(1)), 0);
}

}  // namespace
