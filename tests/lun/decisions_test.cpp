// The decisions of a LUN request on their own: the RAID level of a type and its hints, the
// conversion of the newer hints, the argument ladder, the named-drive ladder with the settling of
// type and RAID level, and the size formulas of the creation and of the answers.
#include <gtest/gtest.h>

#include "lun/capacity.h"
#include "lun/hints.h"
#include "lun/lun.h"
#include "proxy/records.h"

namespace {

VDS_HINTS Hints(ULONGLONG mask, ULONG maxDrives = 0, BOOL mostlyReads = 0) {
    VDS_HINTS h{};
    h.ullHintMask = mask;
    h.ulMaximumDriveCount = maxDrives;
    h.bMostlyReads = mostlyReads;
    return h;
}

constexpr ULONGLONG kSpare = VDS_HINT_ALLOCATEHOTSPARE;
constexpr ULONGLONG kReads = VDS_HINT_MOSTLYREADS;

}  // namespace

TEST(LunDecisions, RaidLevelOfARequest) {
    struct Case {
        int type;
        VDS_HINTS hints;
        bool win7;
        uint8_t raid;
    } cases[] = {
        // The RAID types give their level on any host.
        {VDS_LT_RAID10, Hints(0), false, TROV_RAID10},
        {VDS_LT_RAID3, Hints(0), false, TROV_RAID3},
        {VDS_LT_RAID30, Hints(0), false, TROV_RAID30},
        {VDS_LT_RAID5, Hints(0), false, TROV_RAID5},
        {VDS_LT_RAID50, Hints(0), false, TROV_RAID50},
        {VDS_LT_RAID6, Hints(0), false, TROV_RAID6},
        // Parity level by the drive count hint, a hot spare taking one of them.
        {VDS_LT_DEFAULT, Hints(0, 3), true, TROV_RAID5},
        {VDS_LT_DEFAULT, Hints(0, 0), true, TROV_RAID6},
        {VDS_LT_DEFAULT, Hints(kSpare, 4), true, TROV_RAID5},
        {VDS_LT_DEFAULT, Hints(kSpare, 3), true, TROV_RAID6},
        {VDS_LT_PARITY, Hints(0, 3), true, TROV_RAID5},
        {VDS_LT_PARITY, Hints(0, 8), true, TROV_RAID6},
        // Fault tolerant and mostly reads in the mask only: mirror of two, else RAID10.
        {VDS_LT_FAULT_TOLERANT, Hints(kReads, 2), true, TROV_RAID1},
        {VDS_LT_FAULT_TOLERANT, Hints(kReads | kSpare, 3), true, TROV_RAID1},
        {VDS_LT_FAULT_TOLERANT, Hints(kReads, 4), true, TROV_RAID10},
        {VDS_LT_FAULT_TOLERANT, Hints(0, 3), true, TROV_RAID5},
        {VDS_LT_PARITY, Hints(kReads, 2), true, TROV_RAID6},
        // Mostly reads set: the private RAID bits choose, 63 before 62 before 61.
        {VDS_LT_PARITY, Hints(TROV_HINT_RAID5 | TROV_HINT_RAID50, 0, 1), true, TROV_RAID5},
        {VDS_LT_PARITY, Hints(TROV_HINT_RAID50 | TROV_HINT_RAID3, 0, 1), true, TROV_RAID50},
        {VDS_LT_FAULT_TOLERANT, Hints(TROV_HINT_RAID3, 0, 1), true, TROV_RAID3},
        {VDS_LT_FAULT_TOLERANT, Hints(0, 3, 1), true, TROV_RAID5},
        // Without mostly reads the RAID bits mean nothing.
        {VDS_LT_PARITY, Hints(TROV_HINT_RAID50, 3), true, TROV_RAID5},
        // Other types by the type table.
        {VDS_LT_STRIPE, Hints(0), true, TROV_RAID0},
        {VDS_LT_NON_FAULT_TOLERANT, Hints(0), true, TROV_RAID0},
        {VDS_LT_SIMPLE, Hints(0), true, TROV_NRAID},
        {VDS_LT_MIRROR, Hints(0), true, TROV_RAID1},
        {VDS_LT_RAID60, Hints(0), true, TROV_RAID0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(GetRaidLevelForCreate(c.hints, c.type, c.win7), c.raid)
            << "type " << c.type << " mask " << std::hex << c.hints.ullHintMask;
}

TEST(LunDecisions, RaidLevelOfATypeByHostGeneration) {
    struct Case {
        int type;
        uint8_t win7, older;
    } cases[] = {
        {VDS_LT_DEFAULT, 11, 11},   {VDS_LT_FAULT_TOLERANT, 11, 11}, {VDS_LT_PARITY, 11, 11},
        {VDS_LT_NON_FAULT_TOLERANT, 0, 0}, {VDS_LT_STRIPE, 0, 0},  {VDS_LT_SIMPLE, 6, 6},
        {VDS_LT_SPAN, 6, 6},        {VDS_LT_MIRROR, 1, 1},           {VDS_LT_RAID3, 3, 0},
        {VDS_LT_RAID5, 5, 0},       {VDS_LT_RAID6, 11, 0},           {VDS_LT_RAID10, 10, 0},
        {VDS_LT_RAID30, 7, 0},      {VDS_LT_RAID50, 8, 0},           {VDS_LT_RAID60, 0, 0},
        {VDS_LT_UNKNOWN, 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(VdsType2TrovRaidLevel(TROV_RAID6, c.type, true), c.win7) << c.type;
        EXPECT_EQ(VdsType2TrovRaidLevel(TROV_RAID6, c.type, false), c.older) << c.type;
    }
}

TEST(LunDecisions, SpecialKindsOnlyWhileSupported) {
    struct Case {
        ULONGLONG mask;
        uint8_t kind;
    } cases[] = {
        {TROV_HINT_BACKING_STORE | TROV_HINT_SNAPSHOT, 1}, {TROV_HINT_MASTER_VOLUME | TROV_HINT_SNAPSHOT, 2},
        {TROV_HINT_SNAPSHOT, 3}, {TROV_HINT_DUMMY_LUN, 0}, {TROV_HINT_CONVERT_MASTER, 0}, {0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(SpecialLunTypeFor(Hints(c.mask), true), c.kind) << std::hex << c.mask;
        EXPECT_EQ(SpecialLunTypeFor(Hints(c.mask), false), 0) << std::hex << c.mask;
    }
    EXPECT_EQ(NumSpares(Hints(kSpare)), 1u);
    EXPECT_EQ(NumSpares(Hints(~kSpare)), 0u);
}

TEST(LunDecisions, NewerHintsClearTheBitsOfTheirOffBooleans) {
    VDS_HINTS2 h2{};
    h2.ullHintMask = 0xFFFFull | TROV_HINT_RAID5;
    h2.ullExpectedMaximumSize = 77;
    h2.ulMaximumDriveCount = 5;
    h2.ulStripeSize = 65536;
    h2.bMostlyReads = 1;
    h2.bIsYankable = 1;
    h2.sRebuildPriority = 9;
    h2.bAllocateHotSpare = 1;
    h2.bWriteCachingEnabled = 1;
    VDS_HINTS h = HintsFromHints2(h2);
    // 0x800, 0x1000, 0x4000 and 0x8000 go; 0x200 and 0x2000 stay with their booleans.
    EXPECT_EQ(h.ullHintMask, (0xFFFFull & ~0xD800ull) | TROV_HINT_RAID5);
    EXPECT_EQ(h.ullExpectedMaximumSize, 77u);
    EXPECT_EQ(h.ulMaximumDriveCount, 5u);
    EXPECT_EQ(h.ulStripeSize, 65536u);
    EXPECT_EQ(h.bMostlyReads, 1);
    EXPECT_EQ(h.bIsYankable, 1);
    EXPECT_EQ(h.sRebuildPriority, 9);
}

TEST(LunDecisions, ArgumentLadderInItsOrder) {
    struct Case {
        int type;
        ULONGLONG size;
        bool nullDrives;
        LONG n;
        ULONG stripe;
        HRESULT expect;
    } cases[] = {
        {VDS_LT_SPAN, 5, true, 2, 999, E_INVALIDARG},  // the null array with a count comes first
        {VDS_LT_SPAN, 5, true, 0, 999, VDS_E_NOT_SUPPORTED},
        {99, 5, false, 0, 999, VDS_E_NOT_SUPPORTED},    // the size before the type
        {99, 0, false, 0, 0, E_INVALIDARG},
        {VDS_LT_PARITY, 1048575, false, 0, 0, VDS_E_NOT_SUPPORTED},
        {VDS_LT_PARITY, 1048576, false, 0, 0, S_OK},
        {VDS_LT_PARITY, 0, false, 0, 0, S_OK},
        {VDS_LT_SIMPLE, 0, false, 0, 65536, VDS_E_NOT_SUPPORTED},
        {VDS_LT_SIMPLE, 0, false, 0, 131072, VDS_E_NOT_SUPPORTED},  // the simple rung before the size rung
        {VDS_LT_STRIPE, 0, false, 0, 131072, E_INVALIDARG},
        {VDS_LT_STRIPE, 0, false, 0, 16384, S_OK},
        {VDS_LT_STRIPE, 0, false, 0, 32768, S_OK},
        {VDS_LT_RAID60, 0, false, 0, 65536, S_OK},
        {VDS_LT_RAID4, 0, false, 0, 0, E_INVALIDARG},
        {VDS_LT_UNKNOWN, 0, false, 0, 0, E_INVALIDARG},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CheckCreateArguments(c.type, c.size, c.nullDrives, c.n, c.stripe), c.expect)
            << "type " << c.type << " size " << c.size << " stripe " << c.stripe;
}

TEST(LunDecisions, NamedDriveLadderAndSettling) {
    struct Case {
        int type;
        uint8_t raid;
        LONG n;
        bool same;
        bool raid6;
        HRESULT expect;
        int settledType;
        uint8_t settledRaid;
    } cases[] = {
        // Default: simple, mirror, parity by count; three drives turn RAID6 into RAID5.
        {VDS_LT_DEFAULT, TROV_RAID6, 1, true, true, S_OK, VDS_LT_SIMPLE, TROV_RAID6},
        {VDS_LT_DEFAULT, TROV_RAID6, 2, true, true, S_OK, VDS_LT_MIRROR, TROV_RAID6},
        {VDS_LT_DEFAULT, TROV_RAID6, 3, true, true, S_OK, VDS_LT_PARITY, TROV_RAID5},
        {VDS_LT_DEFAULT, TROV_RAID5, 3, true, true, S_OK, VDS_LT_PARITY, TROV_RAID5},
        {VDS_LT_FAULT_TOLERANT, TROV_RAID6, 4, true, true, S_OK, VDS_LT_PARITY, TROV_RAID6},
        {VDS_LT_NON_FAULT_TOLERANT, TROV_RAID0, 3, true, true, S_OK, VDS_LT_STRIPE, TROV_RAID0},
        // RAID50 parity: at least six, even or a multiple of three, at most 32.
        {VDS_LT_PARITY, TROV_RAID50, 5, true, true, E_INVALIDARG, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID50, 6, true, true, S_OK, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID50, 7, true, true, E_INVALIDARG, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID50, 8, true, true, S_OK, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID50, 9, true, true, S_OK, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID50, 10, true, true, S_OK, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID30, 11, true, true, E_INVALIDARG, VDS_LT_PARITY, TROV_RAID30},
        {VDS_LT_PARITY, TROV_RAID50, 32, true, true, S_OK, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_PARITY, TROV_RAID50, 33, true, true, E_INVALIDARG, VDS_LT_PARITY, TROV_RAID50},
        {VDS_LT_RAID50, TROV_RAID50, 32, true, true, S_OK, VDS_LT_RAID50, TROV_RAID50},
        // The odd rule of the mirror and the wide RAID types.
        {VDS_LT_RAID50, TROV_RAID50, 9, true, true, E_INVALIDARG, VDS_LT_RAID50, TROV_RAID50},
        {VDS_LT_MIRROR, TROV_RAID1, 3, true, true, E_INVALIDARG, VDS_LT_MIRROR, TROV_RAID1},
        {VDS_LT_RAID10, TROV_RAID10, 5, true, true, E_INVALIDARG, VDS_LT_RAID10, TROV_RAID10},
        {VDS_LT_RAID60, TROV_RAID0, 7, true, true, E_INVALIDARG, VDS_LT_RAID60, TROV_RAID0},
        {VDS_LT_RAID30, TROV_RAID30, 4, true, true, S_OK, VDS_LT_RAID30, TROV_RAID30},
        // Any other type stops at 16.
        {VDS_LT_PARITY, TROV_RAID5, 16, true, true, S_OK, VDS_LT_PARITY, TROV_RAID5},
        {VDS_LT_PARITY, TROV_RAID5, 17, true, true, E_INVALIDARG, VDS_LT_PARITY, TROV_RAID5},
        {VDS_LT_STRIPE, TROV_RAID0, 17, false, true, E_INVALIDARG, VDS_LT_STRIPE, TROV_RAID0},
        // Mixed drives after the count, before the shape rungs.
        {VDS_LT_STRIPE, TROV_RAID0, 1, false, true, VDS_E_NOT_SUPPORTED, VDS_LT_STRIPE, TROV_RAID0},
        {VDS_LT_STRIPE, TROV_RAID0, 1, true, true, E_INVALIDARG, VDS_LT_STRIPE, TROV_RAID0},
        {VDS_LT_SIMPLE, TROV_NRAID, 2, true, true, E_INVALIDARG, VDS_LT_SIMPLE, TROV_NRAID},
        {VDS_LT_SIMPLE, TROV_NRAID, 1, true, true, S_OK, VDS_LT_SIMPLE, TROV_NRAID},
        {VDS_LT_PARITY, TROV_RAID5, 2, true, true, E_INVALIDARG, VDS_LT_PARITY, TROV_RAID5},
        // The newer types get no count test beyond the odd rule: the array answers for them.
        {VDS_LT_RAID6, TROV_RAID6, 2, true, true, S_OK, VDS_LT_RAID6, TROV_RAID6},
        {VDS_LT_RAID5, TROV_RAID5, 1, true, true, S_OK, VDS_LT_RAID5, TROV_RAID5},
    };
    for (const Case& c : cases) {
        int type = c.type;
        uint8_t raid = c.raid;
        bool asked = false;
        auto same = [&] {
            asked = true;
            return c.same;
        };
        EXPECT_EQ(SettleNamedDrives(&type, &raid, c.n, same, c.raid6), c.expect)
            << "type " << c.type << " raid " << int(c.raid) << " n " << c.n;
        // The drive types are asked only within the count limits.
        bool wide = IsParityType(c.type) && (c.raid == TROV_RAID50 || c.raid == TROV_RAID30);
        EXPECT_EQ(asked, c.n <= (wide ? 32 : 16)) << "type " << c.type << " n " << c.n;
        if (c.expect == S_OK) {
            EXPECT_EQ(type, c.settledType) << "type " << c.type << " n " << c.n;
            EXPECT_EQ(raid, c.settledRaid) << "type " << c.type << " n " << c.n;
        }
    }
}

TEST(LunDecisions, MegabyteRounding) {
    EXPECT_EQ(RoundUpToMb(1048577), 2097152u);
    EXPECT_EQ(RoundUpToMb(1048576), 1048576u);
    EXPECT_EQ(RoundUpToMb(0), 0u);
    EXPECT_EQ(RoundDownToMb(2097151), 1048576u);
    EXPECT_EQ(RoundDownToMb(1048575), 0u);
}

TEST(LunCapacity, SizeByLunType) {
    const uint64_t s = 1000ull << 20;  // one drive
    struct Case {
        uint8_t raid;
        int type;
        uint32_t n;
        uint64_t total;
        bool noLoss;
        uint64_t expect;
    } cases[] = {
        {TROV_RAID5, VDS_LT_RAID5, 6, 6 * s, false, 5 * s},
        {TROV_RAID3, VDS_LT_PARITY, 4, 4 * s, false, 3 * s},
        {TROV_RAID6, VDS_LT_PARITY, 6, 6 * s, false, 4 * s},
        {TROV_RAID50, VDS_LT_PARITY, 6, 6 * s, false, 4 * s},    // d = 3: two legs of three
        {TROV_RAID50, VDS_LT_RAID50, 12, 12 * s, false, 9 * s},  // d = 4: three legs of four
        {TROV_RAID50, VDS_LT_RAID50, 9, 9 * s, false, 6 * s},    // odd: total / n × (n / 2 − 1) × 2
        {TROV_RAID1, VDS_LT_MIRROR, 2, 2 * s, false, s},
        {TROV_RAID10, VDS_LT_RAID10, 5, 5 * s, true, 2 * s},     // the mirror row ignores noParityLoss
        {TROV_RAID5, VDS_LT_RAID5, 6, 6 * s, true, 6 * s},
        {TROV_RAID0, VDS_LT_STRIPE, 3, 3 * s, false, 3 * s},
        {TROV_RAID6, VDS_LT_RAID60, 8, 8 * s, false, 8 * s},     // no row for RAID60
    };
    for (const Case& c : cases)
        EXPECT_EQ(GetRaidSizeUsedDrivesUseLunType(c.raid, c.type, c.n, c.total, c.noLoss), c.expect)
            << int(c.raid) << "/" << c.type << "/" << c.n;
}

TEST(LunCapacity, SizeByRaidLevel) {
    const uint64_t s = 1000ull << 20;
    struct Case {
        uint8_t raid;
        uint32_t n;
        uint64_t total;
        uint32_t perLeg;
        bool noLoss;
        uint64_t expect;
    } cases[] = {
        {TROV_RAID5, 4, 4 * s, 0, false, 3 * s}, {TROV_RAID5, 4, 4 * s, 0, true, 4 * s},
        {TROV_RAID50, 8, 8 * s, 4, false, 6 * s}, {TROV_RAID50, 8, 8 * s, 4, true, 8 * s},
        {TROV_RAID10, 3, 3 * s, 0, true, s},      {TROV_RAID10, 4, 2 * s, 0, true, s},
        {TROV_RAID6, 5, 5 * s, 0, false, 3 * s},  {TROV_RAID1, 2, 2 * s, 0, false, 2 * s},
        {TROV_RAID0, 4, 4 * s, 0, false, 4 * s},
    };
    for (const Case& c : cases)
        EXPECT_EQ(GetRaidSizeUsedDrivesUseRaidLevel(c.raid, c.n, c.total, c.perLeg, c.noLoss), c.expect)
            << int(c.raid) << "/" << c.n;
}

TEST(LunCapacity, DriveCountOfANewVdiskGrowsUntilTheSizeFits) {
    const uint64_t s = 1000ull << 20;
    struct Case {
        int type;
        uint8_t raid;
        uint64_t size;
        uint32_t found;
        uint32_t count, perLeg;
    } cases[] = {
        {VDS_LT_STRIPE, TROV_RAID0, 0, 8, 2, 0},
        {VDS_LT_STRIPE, TROV_RAID0, 3 * s, 8, 3, 0},
        {VDS_LT_STRIPE, TROV_RAID0, 3 * s + 1, 8, 4, 0},
        {VDS_LT_MIRROR, TROV_RAID1, 2 * s, 8, 4, 0},  // by two
        {VDS_LT_PARITY, TROV_RAID5, 0, 8, 3, 0},
        {VDS_LT_PARITY, TROV_RAID5, 4 * s, 8, 5, 0},
        {VDS_LT_RAID6, TROV_RAID6, 3 * s, 8, 5, 0},
        {VDS_LT_RAID50, TROV_RAID50, 0, 16, 6, 3},
        {VDS_LT_RAID50, TROV_RAID50, 5 * s, 16, 8, 4},  // 7 is skipped: neither even nor a multiple of 3
        {VDS_LT_RAID50, TROV_RAID50, 7 * s, 16, 10, 5},
        {VDS_LT_PARITY, TROV_RAID5, 9 * s, 6, 7, 0},    // more than found: too few drives
    };
    for (const Case& c : cases) {
        uint32_t perLeg = 99;
        EXPECT_EQ(DriveCountForSize(c.type, c.raid, StartingDriveCount(c.type, c.raid), s, c.size, c.found, &perLeg),
                  c.count)
            << c.type << "/" << int(c.raid) << " size " << c.size;
        EXPECT_EQ(perLeg, c.perLeg) << c.type << "/" << int(c.raid) << " size " << c.size;
    }
}
