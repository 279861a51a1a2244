// The words of the provisioning commands, parsed without a provider: LUN types, sizes (binary
// units, MiB boundaries, fractions, 64-bit overflow), hint words and their bits, and requests
// (keys, drives, targets, and what is refused).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/trov_hints.h"
#include "provision.h"

using namespace trovctl;

TEST(ProvisionWords, LunTypesByNameInAnyCaseOrByNumber) {
    struct Case {
        const char* word;
        bool ok;
        int type;
    } cases[] = {
        {"default", true, 1},     {"faulttolerant", true, 2}, {"NonFaultTolerant", true, 3},
        {"simple", true, 10},     {"span", true, 11},         {"stripe", true, 12},
        {"mirror", true, 13},     {"parity", true, 14},       {"raid3", true, 16},
        {"RAID5", true, 18},      {"raid6", true, 19},        {"raid10", true, 23},
        {"raid30", true, 25},     {"raid50", true, 26},       {"raid60", true, 29},
        {"raid61", true, 30},     {"18", true, 18},           {"0", true, 0},
        {"65535", true, 65535},   {"65536", false, 0},        {"-1", false, 0},
        {"raid7", false, 0},      {"VDS_LT_RAID5", false, 0}, {"", false, 0},
        {"fault-tolerant", false, 0}, {"5x", false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        VDS_LUN_TYPE t = VDS_LT_UNKNOWN;
        ASSERT_EQ(ParseLunType(c.word, &t), c.ok);
        if (c.ok) EXPECT_EQ(int(t), c.type);
    }
}

TEST(ProvisionWords, SizesInBytesAndPowersOf1024) {
    constexpr uint64_t MiB = 1048576;
    struct Case {
        const char* word;
        bool ok;
        uint64_t bytes;
    } cases[] = {
        {"0", true, 0},
        {"1048575", true, MiB - 1},  // just under the smallest LUN: passed on for the provider to refuse
        {"1048576", true, MiB},
        {"1048577", true, MiB + 1},
        {"1MB", true, MiB},
        {"1mib", true, MiB},
        {"1M", true, MiB},
        {"1023KB", true, MiB - 1024},
        {"1024KB", true, MiB},
        {"0.5MB", true, MiB / 2},
        {"1.5TB", true, 3 * (uint64_t(1) << 39)},
        {"10GB", true, 10 * (uint64_t(1) << 30)},
        {"512B", true, 512},
        {"2.25GiB", true, 9 * (uint64_t(1) << 28)},
        {"15PB", true, 15 * (uint64_t(1) << 50)},
        {"18446744073709551615", true, UINT64_MAX},
        {"18446744073709551616", false, 0},  // one past 64 bits
        {"16384PB", false, 0},                // 2^64 exactly
        {"16383.9999999999999999PB", false, 0},
        {"99999999999999999999999TB", false, 0},
        {"0.1KB", false, 0},  // 102.4 bytes
        {"1.", false, 0},
        {".5MB", false, 0},
        {"", false, 0},
        {"MB", false, 0},
        {"10XB", false, 0},
        {"10 GB", false, 0},
        {"-1", false, 0},
        {"1e9", false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        uint64_t v = 12345;
        std::string why;
        ASSERT_EQ(ParseSize(c.word, &v, &why), c.ok) << why;
        if (c.ok)
            EXPECT_EQ(v, c.bytes);
        else
            EXPECT_FALSE(why.empty());
    }
}

TEST(ProvisionWords, FlagHintsSetTheirBitAndTheirValue) {
    struct Case {
        const char* word;
        uint64_t bit;
        BOOL VDS_HINTS2::*field;
    } cases[] = {
        {"fastcrashrecovery", 0x1, &VDS_HINTS2::bFastCrashRecoveryRequired},
        {"mostlyreads", 0x2, &VDS_HINTS2::bMostlyReads},
        {"sequentialreads", 0x4, &VDS_HINTS2::bOptimizeForSequentialReads},
        {"sequentialwrites", 0x8, &VDS_HINTS2::bOptimizeForSequentialWrites},
        {"readbackverify", 0x10, &VDS_HINTS2::bReadBackVerifyEnabled},
        {"remap", 0x20, &VDS_HINTS2::bRemapEnabled},
        {"writethrough", 0x40, &VDS_HINTS2::bWriteThroughCachingEnabled},
        {"checksum", 0x80, &VDS_HINTS2::bHardwareChecksumEnabled},
        {"yankable", 0x100, &VDS_HINTS2::bIsYankable},
        {"hotspare", 0x200, &VDS_HINTS2::bAllocateHotSpare},
        {"mirroredcache", 0x800, &VDS_HINTS2::bUseMirroredCache},
        {"readcache", 0x1000, &VDS_HINTS2::bReadCachingEnabled},
        {"writecache", 0x2000, &VDS_HINTS2::bWriteCachingEnabled},
        {"mediascan", 0x4000, &VDS_HINTS2::bMediaScanEnabled},
        {"consistencycheck", 0x8000, &VDS_HINTS2::bConsistencyCheckEnabled},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        std::string why;
        for (const char* form : {"", "=on", "=off", "=yes", "=0"}) {
            VDS_HINTS2 h{};
            ASSERT_EQ(ApplyHintWord(std::string(c.word) + form, &h, &why), 1) << form;
            // "=off" still says that the field was filled in: the bit is set, the value is 0.
            EXPECT_EQ(h.ullHintMask, c.bit) << form;
            bool on = std::string(form).empty() || std::string(form) == "=on" || std::string(form) == "=yes";
            EXPECT_EQ(h.*c.field, on ? 1 : 0) << form;
        }
        VDS_HINTS2 h{};
        EXPECT_EQ(ApplyHintWord(std::string(c.word) + "=maybe", &h, &why), -1);
    }
}

TEST(ProvisionWords, NumberHintsAndTheProvidersOwnBits) {
    struct Case {
        const char* word;
        int result;
        uint64_t mask;
        ULONG maxDrives, readSize, stripe;
        int bus;
        SHORT priority;
        uint64_t expected;
    } cases[] = {
        {"maxdrives=3", 1, 0, 3, 0, 0, 0, 0, 0},
        {"maxdrives=0", 1, 0, 0, 0, 0, 0, 0, 0},
        {"maxdrives=2147483648", -1, 0, 0, 0, 0, 0, 0, 0},
        {"maxdrives=-1", -1, 0, 0, 0, 0, 0, 0, 0},
        {"maxdrives", -1, 0, 0, 0, 0, 0, 0, 0},
        {"readsize=64KB", 1, 0, 0, 65536, 0, 0, 0, 0},
        {"readsize=4GB", -1, 0, 0, 0, 0, 0, 0, 0},  // does not fit its 32 bits
        {"expectedsize=2TB", 1, 0, 0, 0, 0, 0, 0, uint64_t(2) << 40},
        {"bustype=sas", 1, 0x400, 0, 0, 0, 10, 0, 0},
        {"bustype=SATA", 1, 0x400, 0, 0, 0, 11, 0, 0},
        {"bustype=6", 1, 0x400, 0, 0, 0, 6, 0, 0},
        {"bustype=floppy", -1, 0, 0, 0, 0, 0, 0, 0},
        {"rebuildpriority=-3", 1, 0, 0, 0, 0, 0, -3, 0},
        {"rebuildpriority=40000", -1, 0, 0, 0, 0, 0, 0, 0},
        {"backingstore", 1, TROV_HINT_BACKING_STORE, 0, 0, 0, 0, 0, 0},
        {"master", 1, TROV_HINT_MASTER_VOLUME, 0, 0, 0, 0, 0, 0},
        {"snapshot", 1, TROV_HINT_SNAPSHOT, 0, 0, 0, 0, 0, 0},
        {"dummy", 1, TROV_HINT_DUMMY_LUN, 0, 0, 0, 0, 0, 0},
        {"dummy=off", 1, 0, 0, 0, 0, 0, 0, 0},
        // The RAID choices are read only with mostlyreads, which they bring along.
        {"raid5", 1, TROV_HINT_RAID5 | 0x2, 0, 0, 0, 0, 0, 0},
        {"raid50", 1, TROV_HINT_RAID50 | 0x2, 0, 0, 0, 0, 0, 0},
        {"RAID3", 1, TROV_HINT_RAID3 | 0x2, 0, 0, 0, 0, 0, 0},
        {"size=1GB", 0, 0, 0, 0, 0, 0, 0, 0},
        {"lun", 0, 0, 0, 0, 0, 0, 0, 0},
        {"db01", 0, 0, 0, 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        VDS_HINTS2 h{};
        std::string why;
        ASSERT_EQ(ApplyHintWord(c.word, &h, &why), c.result) << why;
        if (c.result != 1) continue;
        EXPECT_EQ(h.ullHintMask, c.mask);
        EXPECT_EQ(h.ulMaximumDriveCount, c.maxDrives);
        EXPECT_EQ(h.ulOptimalReadSize, c.readSize);
        EXPECT_EQ(int(h.BusType), c.bus);
        EXPECT_EQ(h.sRebuildPriority, c.priority);
        EXPECT_EQ(h.ullExpectedMaximumSize, c.expected);
        EXPECT_EQ(h.bMostlyReads, (c.mask & 0x2) ? 1 : 0);
    }
}

TEST(ProvisionWords, RequestsTakeTheirKeysHintsAndATargetAtTheEnd) {
    const unsigned create = kKeySize | kKeyDrives | kKeyStripe | kKeyUnmask | kKeyPool | kKeyHints;
    Request r;
    std::string why;
    ASSERT_TRUE(ParseRequest({"size=10GB", "drives=4,0:5,3SJ01207K", "stripe=32KB", "unmask=-", "hotspare", "maxdrives=3",
                              "subsystem", "0"},
                             create, &r, &why))
        << why;
    EXPECT_EQ(r.size, uint64_t(10) << 30);
    EXPECT_TRUE(r.sizeGiven);
    EXPECT_EQ(r.drives, (std::vector<std::string>{"4", "0:5", "3SJ01207K"}));
    EXPECT_EQ(r.hints.ulStripeSize, 32768u);
    EXPECT_TRUE(r.unmaskGiven);
    EXPECT_EQ(r.unmask, "");  // "-": no host
    EXPECT_EQ(r.hints.ullHintMask, 0x200u);
    EXPECT_EQ(r.hints.ulMaximumDriveCount, 3u);
    EXPECT_EQ(r.target, (std::vector<std::string>{"subsystem", "0"}));

    Request all;
    ASSERT_TRUE(ParseRequest({"unmask=iqn.1991-05.com.example:a;iqn.1991-05.com.example:b"}, create, &all, &why));
    EXPECT_EQ(all.unmask, "iqn.1991-05.com.example:a;iqn.1991-05.com.example:b");
    EXPECT_TRUE(all.target.empty());
    EXPECT_EQ(all.size, 0u);
    EXPECT_FALSE(all.sizeGiven);

    struct Bad {
        std::vector<std::string> words;
        unsigned keys;
        const char* says;
    } bad[] = {
        {{"size=1GB", "size=2GB"}, create, "twice"},
        {{"drives=4,5,4"}, create, "named twice"},
        {{"drives=4,,5"}, create, "empty drive"},
        {{"drives="}, create, "empty drive"},
        {{"size=lots"}, create, "no size"},
        {{"stripe=8GB"}, create, "too large"},
        {{"pool="}, create, "names a pool"},
        {{"size=1GB"}, kKeyDrives, "takes no size="},
        {{"raid5", "raid50"}, create, "choose one"},
        {{"raid5", "mostlyreads=off"}, create, "need mostlyreads"},
        {{"maxdrives=x"}, create, "count"},
        {{"subsystem", "0", "size=1GB"}, create, "no word of this command"},
        {{"a", "b", "c"}, create, "no word of this command"},
        {{"frobnicate=1"}, create, "no word of this command"},
    };
    for (const Bad& b : bad) {
        SCOPED_TRACE(b.words[0]);
        Request x;
        std::string w;
        EXPECT_FALSE(ParseRequest(b.words, b.keys, &x, &w));
        EXPECT_NE(w.find(b.says), std::string::npos) << w;
    }
    // A request may name as many drives as the bound allows, and no more.
    std::string many = "drives=";
    for (size_t i = 0; i < kMaxNamedDrives; ++i) many += (i ? "," : "") + std::to_string(i);
    Request most;
    EXPECT_TRUE(ParseRequest({many}, kKeyDrives, &most, &why)) << why;
    EXPECT_EQ(most.drives.size(), kMaxNamedDrives);
    Request over;
    EXPECT_FALSE(ParseRequest({many + ",999"}, kKeyDrives, &over, &why));
}

TEST(ProvisionWords, HintMasksInWords) {
    EXPECT_EQ(HintMaskText(0x10C), "sequentialreads, sequentialwrites, yankable");
    EXPECT_EQ(HintMaskText(0x800000000000010Eull), "mostlyreads, sequentialreads, sequentialwrites, yankable, raid5");
    EXPECT_EQ(HintMaskText(TROV_HINT_MASTER_VOLUME | TROV_HINT_SNAPSHOT), "master, snapshot");
    EXPECT_EQ(HintMaskText(0x10000), "0x10000");
    EXPECT_EQ(HintMaskText(0), "");
}
