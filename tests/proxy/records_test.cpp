// The array records: converters against an independent list of the swapped fields (written
// with the records' own byte offsets), named fields after conversion, round trips, hostile
// counts, the drive-to-array key and the log words.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "testlib/fake_platform.h"
#include "proxy/records.h"
#include "proxy/wire.h"
#include "support/debuglog.h"

namespace {

// ---------------------------------------------------------------------------------------------
// The reference: every swapped field of every record, as (offset, width), by the byte offsets of
// the record definitions. Written independently of the structs so that a field at a wrong
// offset, a missed swap or a swapped reserved byte shows as a difference.
struct Swap {
    size_t off;
    int width;
};
using SwapList = std::vector<Swap>;

void Add32(SwapList& l, size_t off, int n = 1) {
    for (int i = 0; i < n; ++i) l.push_back({off + 4 * size_t(i), 4});
}
void Add16(SwapList& l, size_t off, int n = 1) {
    for (int i = 0; i < n; ++i) l.push_back({off + 2 * size_t(i), 2});
}

void RefCacheParams(SwapList& l, size_t b) { Add32(l, b, 2); }
void RefArrayConfig(SwapList& l, size_t b) {
    Add32(l, b + 0);
    Add32(l, b + 4, 2);
    Add32(l, b + 12);
    Add32(l, b + 16, 12);
    Add32(l, b + 64, 12);
    for (size_t e = 0; e < 8; ++e) {
        Add16(l, b + 112 + 24 * e);
        Add16(l, b + 114 + 24 * e);
        Add32(l, b + 116 + 24 * e);
    }
}
void RefDrive(SwapList& l, size_t b) {
    Add32(l, b + 0);
    Add16(l, b + 76);
    for (size_t o : {88, 92, 112, 136, 140, 160, 184}) Add32(l, b + o);
}
void RefArray(SwapList& l, size_t b) {
    Add32(l, b + 0, 2);  // blockCapacity
    Add32(l, b + 8);
    Add32(l, b + 12, 5);  // numDrives .. arrayOrderWord
    RefCacheParams(l, b + 32);
    RefArrayConfig(l, b + 64);
    for (size_t m = 0; m < 68; ++m) Add32(l, b + 408 + 16 * m, 3);
    Add32(l, b + 1568);
    Add32(l, b + 1572, 2);
    Add32(l, b + 1584, 2);
    Add32(l, b + 1596);
}
void RefPartition(SwapList& l, size_t b) {
    Add32(l, b + 0, 2);
    Add32(l, b + 8, 2);
    Add32(l, b + 16);
    RefArrayConfig(l, b + 116);
    RefCacheParams(l, b + 460);
    Add32(l, b + 492, 2);
    Add16(l, b + 502);
    Add16(l, b + 504, 2);
    Add32(l, b + 508, 2);
}
void RefEnclosure(SwapList& l, size_t b) {
    for (size_t i = 0; i < 8; ++i) Add16(l, b + 248 + 8 * i);
    for (size_t i = 0; i < 40; ++i) Add16(l, b + 470 + 4 * i);
    for (size_t i = 0; i < 4; ++i) Add32(l, b + 3768 + 4 * i);
}
void RefPort(SwapList& l, size_t b, uint8_t bus) {
    Add32(l, b + 0);
    size_t u = b + 136;
    if (bus == 6) {
        Add16(l, u + 516);
        Add32(l, u + 520);
        Add32(l, u + 572);
    } else if (bus == 7) {
        Add16(l, u + 4);
        Add16(l, u + 6);
        Add32(l, u + 12);
    } else if (bus == 9) {
        for (size_t o : {16, 32, 48, 52, 312, 328, 344, 348}) Add32(l, u + o);
    }
    for (size_t k = 0; k < 2; ++k)
        for (size_t o : {108, 122, 134}) Add16(l, b + 760 + 228 * k + o);
    Add32(l, b + 1224, 2);
}
void RefParams(SwapList& l, size_t b) {
    for (size_t o : {0, 4, 24, 248, 256, 260, 268, 276}) Add32(l, b + o);
}
// The opening and controller section (the 22,648-byte view). bus 0: each port's own busType,
// read from `rec` (a byte, the same before and after conversion).
void RefView(SwapList& l, size_t b, const uint8_t* rec, uint8_t bus) {
    Add32(l, b + 0, 5);
    Add32(l, b + 20, 7);
    for (size_t o : {48, 52, 56, 60}) Add16(l, b + o);
    RefParams(l, b + 64);
    RefParams(l, b + 348);
    Add32(l, b + 632);
    Add16(l, b + 636, 12);
    Add32(l, b + 632 + 44);
    Add32(l, b + 804);
    for (size_t i = 0; i < 16; ++i) {
        size_t pb = b + 904 + 1284 * i;  // ports, then diskPorts at 11,176
        RefPort(l, pb, bus ? bus : rec[pb + 1216]);
    }
    Add32(l, b + 21624);
    Add32(l, b + 21636, 5);
    for (size_t i = 0; i < 16; ++i) Add32(l, b + 21636 + 68 + 16 * i, 3);
    Add32(l, b + 21636 + 328);
    Add32(l, b + 22004);
    Add32(l, b + 22108, 4);
    for (size_t i = 0; i < 4; ++i) Add16(l, b + 22144 + 16 * i);
    Add16(l, b + 22332, 6);
    Add32(l, b + 22412, 2);
}
void RefAdvNet(SwapList& l, size_t b) {
    Add32(l, b + 0);
    Add32(l, b + 352);
    Add16(l, b + 1752, 2);
    Add32(l, b + 1792);
    Add32(l, b + 1924, 8);
}
SwapList RefControllerData(const uint8_t* rec) {
    SwapList l;
    RefView(l, 0, rec, 0);
    RefAdvNet(l, 22648);
    Add32(l, 24708);
    for (size_t i = 0; i < 16; ++i) RefEnclosure(l, 24712 + 4072 * i);
    Add32(l, 89864, 10);
    Add32(l, 89904);
    for (size_t i = 0; i < 250; ++i) RefDrive(l, 89908 + 212 * i);
    Add32(l, 142908);
    for (size_t i = 0; i < 32; ++i) RefArray(l, 142912 + 1604 * i);
    Add32(l, 194240);
    for (size_t i = 0; i < 32 * 128; ++i) RefPartition(l, 194244 + 568 * i);
    return l;
}
void RefSystemInfo(SwapList& l, size_t b) {
    for (size_t o : {76, 1480, 1520, 1852, 1856, 1876}) Add32(l, b + o);
    Add32(l, b + 2056, 4);
    Add16(l, b + 1652, 2);
    Add32(l, b + 1660, 8);
}
SwapList RefUnified(const uint8_t* rec) {
    SwapList l;
    for (size_t o : {208, 212, 220}) Add32(l, o);
    Add32(l, 276, 4);
    for (size_t o : {292, 296, 300, 304}) Add16(l, o);
    Add32(l, 1144, 3);
    for (size_t i = 0; i < 4; ++i) Add16(l, 1176 + 16 * i);
    Add16(l, 1320, 6);
    Add32(l, 1400, 2);
    RefSystemInfo(l, 4284);
    RefSystemInfo(l, 7360);
    uint8_t bus = rec[308] ? rec[308] : 6;
    RefView(l, 10436, rec, bus);
    RefView(l, 10436 + 22648, rec, bus);
    return l;
}
SwapList RefPartitionView(size_t views) {
    SwapList l;
    Add16(l, 16);
    Add16(l, 28);
    for (size_t i = 0; i < views; ++i) {
        Add16(l, 1056 + 12 * i);
        for (size_t o : {4, 8, 28}) Add32(l, 2592 + 48 * i + o);
    }
    return l;
}
SwapList RefEvent() {
    SwapList l;
    Add32(l, 0, 4);
    Add32(l, 20, 9);  // controllerHandle, four compared words, eventParam, three compared words
    Add32(l, 140);
    Add16(l, 152);
    return l;
}

void Apply(const SwapList& l, uint8_t* buf) {
    for (const Swap& s : l) std::reverse(buf + s.off, buf + s.off + s.width);
}

std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = static_cast<uint8_t>(gen());
    return v;
}

// Offset of the first differing byte, or -1.
long FirstDiff(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i]) return long(i);
    return -1;
}

void PutBe32(std::vector<uint8_t>& v, size_t off, uint32_t x) {
    v[off] = uint8_t(x >> 24);
    v[off + 1] = uint8_t(x >> 16);
    v[off + 2] = uint8_t(x >> 8);
    v[off + 3] = uint8_t(x);
}
void PutBe16(std::vector<uint8_t>& v, size_t off, uint16_t x) {
    v[off] = uint8_t(x >> 8);
    v[off + 1] = uint8_t(x);
}
// A 64-bit value in its wire form: two big-endian words, low word first.
void PutWire64(std::vector<uint8_t>& v, size_t off, uint64_t x) {
    PutBe32(v, off, uint32_t(x));
    PutBe32(v, off + 4, uint32_t(x >> 32));
}

// Sets the busType byte of the 16 ports of a view at `view` to a spread of kinds.
void SpreadBusTypes(std::vector<uint8_t>& v, size_t view) {
    const uint8_t kinds[16] = {4, 5, 6, 7, 8, 9, 0, 200, 9, 6, 8, 4, 7, 3, 10, 9};
    for (size_t i = 0; i < 16; ++i) v[view + 904 + 1284 * i + 1216] = kinds[i];
}

// ---------------------------------------------------------------------------------------------
// Converters against the reference, one record type a row.

struct RefCase {
    const char* name;
    size_t size;
    void (*convert)(int, void*);
    SwapList (*reference)(const std::vector<uint8_t>& wire);
    void (*prepare)(std::vector<uint8_t>& wire);  // may be null
};

const RefCase kRefCases[] = {
    {"ControllerData", rec::kControllerDataSize, ConvertControllerData,
     [](const std::vector<uint8_t>& w) { return RefControllerData(w.data()); },
     [](std::vector<uint8_t>& w) { SpreadBusTypes(w, 0); }},
    {"UnifiedControllerData, hostBusType 9", rec::kUnifiedControllerDataSize, ConvertUnifiedControllerData,
     [](const std::vector<uint8_t>& w) { return RefUnified(w.data()); },
     [](std::vector<uint8_t>& w) { w[308] = 9; }},
    {"UnifiedControllerData, hostBusType 7", rec::kUnifiedControllerDataSize, ConvertUnifiedControllerData,
     [](const std::vector<uint8_t>& w) { return RefUnified(w.data()); },
     [](std::vector<uint8_t>& w) { w[308] = 7; }},
    {"UnifiedControllerData, hostBusType 0", rec::kUnifiedControllerDataSize, ConvertUnifiedControllerData,
     [](const std::vector<uint8_t>& w) { return RefUnified(w.data()); },
     [](std::vector<uint8_t>& w) { w[308] = 0; }},
    {"DriveData", rec::kDriveDataSize, ConvertDriveData,
     [](const std::vector<uint8_t>&) { SwapList l; RefDrive(l, 0); return l; }, nullptr},
    {"ArrayData", rec::kArrayDataSize, ConvertArrayData,
     [](const std::vector<uint8_t>&) { SwapList l; RefArray(l, 0); return l; }, nullptr},
    {"ArrayConfig", rec::kArrayConfigSize, ConvertArrayConfig,
     [](const std::vector<uint8_t>&) { SwapList l; RefArrayConfig(l, 0); return l; }, nullptr},
    {"PartitionData", rec::kPartitionDataSize, ConvertPartitionData,
     [](const std::vector<uint8_t>&) { SwapList l; RefPartition(l, 0); return l; }, nullptr},
    {"EnclosureData", rec::kEnclosureDataSize, ConvertEnclosureData,
     [](const std::vector<uint8_t>&) { SwapList l; RefEnclosure(l, 0); return l; }, nullptr},
    {"AdvNet", rec::kAdvNetSize, ConvertAdvNet,
     [](const std::vector<uint8_t>&) { SwapList l; RefAdvNet(l, 0); return l; }, nullptr},
    {"PortData FC6", rec::kPortDataSize, ConvertPortData,
     [](const std::vector<uint8_t>&) { SwapList l; RefPort(l, 0, 6); return l; },
     [](std::vector<uint8_t>& w) { w[1216] = 6; }},
    {"PortData iSCSI", rec::kPortDataSize, ConvertPortData,
     [](const std::vector<uint8_t>&) { SwapList l; RefPort(l, 0, 9); return l; },
     [](std::vector<uint8_t>& w) { w[1216] = 9; }},
    {"PortData unknown", rec::kPortDataSize, ConvertPortData,
     [](const std::vector<uint8_t>&) { SwapList l; RefPort(l, 0, 0); return l; },
     [](std::vector<uint8_t>& w) { w[1216] = 0x55; }},
    {"SystemInfo", rec::kSystemInfoSize, ConvertSystemInfo,
     [](const std::vector<uint8_t>&) { SwapList l; RefSystemInfo(l, 0); return l; }, nullptr},
    {"PartitionView, 5 views", rec::kPartitionViewSize, ConvertPartitionView,
     [](const std::vector<uint8_t>&) { return RefPartitionView(5); },
     [](std::vector<uint8_t>& w) { PutBe16(w, 28, 5); }},
    {"PartitionView, 128 views", rec::kPartitionViewSize, ConvertPartitionView,
     [](const std::vector<uint8_t>&) { return RefPartitionView(128); },
     [](std::vector<uint8_t>& w) { PutBe16(w, 28, 128); }},
    {"PartitionView, 0xFFFF views", rec::kPartitionViewSize, ConvertPartitionView,
     [](const std::vector<uint8_t>&) { return RefPartitionView(128); },
     [](std::vector<uint8_t>& w) { PutBe16(w, 28, 0xFFFF); }},
    {"EventData", rec::kEventDataSize, ConvertEventData,
     [](const std::vector<uint8_t>&) { return RefEvent(); }, nullptr},
    {"KnownHostList", rec::kKnownHostListSize, ConvertKnownHostList,
     [](const std::vector<uint8_t>&) { SwapList l; Add32(l, 0); return l; }, nullptr},
    {"HbaInfoList", rec::kHbaInfoListSize, ConvertHbaInfoList,
     [](const std::vector<uint8_t>&) { SwapList l; Add32(l, 0); return l; }, nullptr},
    {"ExpandPartRequest", rec::kExpandPartRequestSize, ConvertExpandPartRequest,
     [](const std::vector<uint8_t>&) { SwapList l; Add32(l, 8, 2); return l; }, nullptr},
    {"CommonOpening", 48, ConvertCommonOpening,
     [](const std::vector<uint8_t>&) { SwapList l; Add32(l, 0, 2); return l; }, nullptr},
};

class RecordsTest : public ::testing::Test {
protected:
    void SetUp() override {
        tp_.Install();
        DebugLogResetForTest();
        tp_.settings().SetDword(TROV_DEBUG_KEY, "ToFile", 0);
        tp_.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
        DebugOpen(nullptr);
        tp_.ClearRecords();
    }
    void TearDown() override { DebugLogResetForTest(); }
    size_t LogLines() {
        std::string t = tp_.DebuggerText();
        return size_t(std::count(t.begin(), t.end(), '\n'));
    }
    TestPlatform tp_;
};

TEST_F(RecordsTest, EachConverterSwapsExactlyTheFieldsOfItsRecord) {
    uint32_t seed = 1;
    for (const RefCase& c : kRefCases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> wire = RandomBytes(c.size, seed++);
        if (c.prepare) c.prepare(wire);
        SwapList ref = c.reference(wire);
        // The reference itself: no field listed twice, none past the end.
        std::set<size_t> seen;
        for (const Swap& s : ref) {
            ASSERT_TRUE(seen.insert(s.off).second) << "listed twice: " << s.off;
            ASSERT_LE(s.off + s.width, c.size);
        }
        std::vector<uint8_t> expected = wire;
        Apply(ref, expected.data());
        std::vector<uint8_t> got = wire;
        c.convert(0, got.data());
        EXPECT_EQ(FirstDiff(got, expected), -1);
    }
}

TEST_F(RecordsTest, SendingThenReceivingGivesBackTheHostRecord) {
    uint32_t seed = 100;
    for (const RefCase& c : kRefCases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> host = RandomBytes(c.size, seed++);
        if (c.prepare) c.prepare(host);
        if (c.convert == ConvertPartitionView) {
            // the count is in host order on this side
            uint16_t n = wire::LoadBe16(&host[28]);
            std::memcpy(&host[28], &n, 2);
        }
        std::vector<uint8_t> buf = host;
        c.convert(1, buf.data());
        EXPECT_NE(FirstDiff(buf, host), -1) << "sending changed nothing";
        c.convert(0, buf.data());
        EXPECT_EQ(FirstDiff(buf, host), -1);
    }
}

TEST_F(RecordsTest, PartitionViewWalksTheSameEntriesBothWays) {
    // Host order count 3: sending reads 3 before swapping; receiving reads 3 after swapping.
    std::vector<uint8_t> host(rec::kPartitionViewSize, 0);
    auto* pv = reinterpret_cast<PartitionView*>(host.data());
    pv->numViews = 3;
    for (int i = 0; i < 5; ++i) pv->viewLuns[i].lun = uint16_t(0x0100 + i);
    std::vector<uint8_t> buf = host;
    ConvertPartitionView(1, buf.data());
    auto* w = reinterpret_cast<PartitionView*>(buf.data());
    EXPECT_EQ(w->numViews, 0x0300);
    EXPECT_EQ(w->viewLuns[2].lun, 0x0201);  // swapped
    EXPECT_EQ(w->viewLuns[3].lun, 0x0103);  // beyond the count: untouched
    ConvertPartitionView(0, buf.data());
    EXPECT_EQ(FirstDiff(buf, host), -1);
}

// ---------------------------------------------------------------------------------------------
// Named fields after conversion.

struct ControllerDataFixture : RecordsTest {
    void SetUp() override {
        RecordsTest::SetUp();
        wire_.assign(rec::kControllerDataSize, 0);
    }
    ControllerData& Converted() {
        ConvertControllerData(0, wire_.data());
        return *reinterpret_cast<ControllerData*>(wire_.data());
    }
    std::vector<uint8_t> wire_;
};

// A field written in its wire form at its byte offset, and read back by name after conversion.
struct NamedField {
    const char* name;
    size_t at;
    int width;  // 1, 2, 4 or 8 (two words, low word first)
    uint64_t wire;
    uint64_t (*read)(const ControllerData&);
    uint64_t want;
};
#define BY(expr) [](const ControllerData& c) -> uint64_t { return (expr); }

TEST_F(ControllerDataFixture, IntegersOfEveryWidthReadByName) {
    const size_t a1 = 142912 + 1604, part = 194244 + 72704 * 3 + 568 * 5;  // arrays[1], partitions[3][5]
    const NamedField fields[] = {
        {"error_code", 4, 4, 0x01020304, BY(c.error_code), 0x01020304},
        {"numPorts", 28, 4, 3, BY(c.controller.numPorts), 3},
        {"numDiskChannels", 32, 4, 0x00010002, BY(c.controller.numDiskChannels), 0x00010002},
        {"diskChannelCount: the low 16 bits", 32, 4, 0x00010002, BY(c.diskChannelCount()), 2},
        {"capabilities", 40, 4, TROV_CAPABILITY_RAID6, BY(c.controller.supportsRaid6()), 1},
        {"controller mode", 64 + 22, 1, TROV_CONTROLLER_MODE_AA_DUAL_PORT_ULP, BY(c.dualPortUlp()), 1},
        {"activeParams.overheadPerMille", 348 + 24, 4, 25, BY(c.overheadPerMille()), 25},
        {"controllerId", 704, 1, 1, BY(c.controller.controllerId), 1},
        {"diskPorts[0].maxDevices", 11176 + 1219, 1, 24, BY(c.diskPort(0).maxDevices), 24},
        {"totalDrives", 21644, 4, 17, BY(c.controller.driveSummary.totalDrives), 17},
        {"allowedDriveType", 22344, 1, 3, BY(c.allowedDriveType()), 3},
        {"enclosureCount", 24708, 4, 2, BY(c.enclosureCountBounded()), 2},
        {"enclosures[0].numDrives", 24712 + 180, 1, 12, BY(c.enclosure(0).numDrives), 12},
        {"numDrives", 89904, 4, 4, BY(c.driveCount()), 4},
        {"drives[1].realBlockCount", 89908 + 212, 4, 0x89ABCDEF, BY(c.drive(1).realBlockCount), 0x89ABCDEF},
        {"drives[1] unread u16", 89908 + 212 + 76, 2, 0x1234, BY(c.drive(1).unread76), 0x1234},
        {"numArrays", 142908, 4, 2, BY(c.arrayCount()), 2},
        {"arrays[1].blockCapacity", a1, 8, 0x0000000312345678, BY(c.array(1).blockCapacity), 0x0000000312345678},
        {"arrays[1].numDrives", a1 + 12, 4, 6, BY(c.array(1).memberCount()), 6},
        {"arrays[1].members[5].channelIndex", a1 + 408 + 16 * 5 + 4, 4, 0xFFFFFFFF,
         BY(c.array(1).members[5].channelIndex), 0xFFFFFFFF},
        {"a member with driveIndex 0 is present", a1 + 408 + 16 * 5 + 4, 4, 0xFFFFFFFF,
         BY(c.array(1).member(5).missing()), 0},
        {"remainingBlocks", a1 + 1572, 8, 0x0000000100000001, BY(c.array(1).remainingBlocks), 0x0000000100000001},
        {"largestFreeSegment", a1 + 1584, 8, 0xFEDCBA9876543210, BY(c.array(1).largestFreeSegment),
         0xFEDCBA9876543210},
        {"parititionCount", 194240, 4, 9, BY(c.parititionCount), 9},
        {"startBlock", part, 8, 0x800, BY(c.partition(3, 5).startBlock), 0x800},
        {"blockCount", part + 8, 8, 0x123456789A, BY(c.partition(3, 5).blockCount), 0x123456789A},
        {"lunNumber", part + 16, 4, 7, BY(c.partition(3, 5).lunNumber), 7},
        {"cacheFlags", part + 502, 2, 0xBEEF, BY(c.partition(3, 5).cacheFlags), 0xBEEF},
        {"partitionType", part + 517, 1, TROV_PART_SNAPSHOT, BY(c.partition(3, 5).partitionType), TROV_PART_SNAPSHOT},
        {"controllerState", 2520804, 1, TROV_CTRL_STATE_NOT_SERVING, BY(c.controllerState),
         TROV_CTRL_STATE_NOT_SERVING},
    };
    for (const NamedField& f : fields) {
        if (f.width == 8) PutWire64(wire_, f.at, f.wire);
        if (f.width == 4) PutBe32(wire_, f.at, uint32_t(f.wire));
        if (f.width == 2) PutBe16(wire_, f.at, uint16_t(f.wire));
        if (f.width == 1) wire_[f.at] = uint8_t(f.wire);
    }
    const ControllerData& cd = Converted();
    for (const NamedField& f : fields) EXPECT_EQ(f.read(cd), f.want) << f.name;
    EXPECT_EQ(LogLines(), 0u) << tp_.DebuggerText();
}
#undef BY

TEST_F(ControllerDataFixture, NeverConvertedWordsStayAsDelivered) {
    const uint8_t high[4] = {0x01, 0x00, 0x00, 0x00};
    std::memcpy(&wire_[89908 + 204], high, 4);  // drives[0].realBlockCountHigh
    PutBe32(wire_, 89908, 0x00000010);          // realBlockCount
    const uint8_t luns[4] = {0x00, 0x04, 0x00, 0x00};
    std::memcpy(&wire_[22612], luns, 4);  // maxLuns
    const uint8_t parts[4] = {0x00, 0x02, 0x00, 0x00};
    std::memcpy(&wire_[22620], parts, 4);  // maxArrayPartitions

    ControllerData& cd = Converted();
    EXPECT_EQ(std::memcmp(&wire_[89908 + 204], high, 4), 0);
    EXPECT_EQ(cd.drive(0).realBlockCountHigh, 1u);
    EXPECT_EQ(cd.drive(0).blockCount(), (1ull << 32) + 0x10);
    EXPECT_EQ(std::memcmp(&wire_[22612], luns, 4), 0);
    EXPECT_EQ(cd.controller.maxLuns, 0x0400u);
    EXPECT_EQ(cd.controller.maxArrayPartitions, 0x0200u);
    EXPECT_EQ(cd.controller.maxPartitionPerController(), 0x0100u);
}

TEST_F(ControllerDataFixture, TextsAndKeysAreNotConverted) {
    const char* fw = "J210P09";
    std::memcpy(&wire_[21488], fw, strlen(fw));
    std::memcpy(&wire_[21508], "3000 00C0FF1 SN0001", 19);
    std::memcpy(&wire_[21588], "00C0FF123456", 12);
    std::memcpy(&wire_[22648 + 356], "lab-array", 9);
    std::memcpy(&wire_[2520772], "00C0FF1234560000", 16);
    // A drive serial filling all 33 bytes: its text stops at the width.
    std::memset(&wire_[89908 + 4], 'S', 33);
    std::memcpy(&wire_[89908 + 37], "VENDORX", 7);
    const uint8_t partSn[32] = {0x00, 0xC0, 0xFF, 0x12, 0x34, 0x56, 0x50, 0x00, 0x00, 0x00, 0x00, 0x01, 0xB0};
    std::memcpy(&wire_[194244 + 84], partSn, 32);
    const uint8_t mac[6] = {0x00, 0xC0, 0xFF, 0x01, 0x02, 0x03};
    std::memcpy(&wire_[348 + 210], mac, 6);
    const uint8_t ip[4] = {10, 0, 0, 2};
    std::memcpy(&wire_[348 + 216], ip, 4);

    ControllerData& cd = Converted();
    EXPECT_EQ(RecordText(cd.controller.firmwareRevision), fw);
    EXPECT_EQ(RecordText(cd.controller.controllerSerial), "3000 00C0FF1 SN0001");
    EXPECT_EQ(RecordText(cd.controller.controllerIdent), "00C0FF123456");
    EXPECT_EQ(RecordText(cd.advNet.systemName), "lab-array");
    EXPECT_EQ(RecordText(cd.UniqueSN), "00C0FF1234560000");
    EXPECT_EQ(RecordText(cd.drive(0).serialNumber), std::string(33, 'S'));
    EXPECT_EQ(RecordText(cd.drive(0).vendor), "VENDORX");
    EXPECT_EQ(std::memcmp(cd.partition(0, 0).PartSn, partSn, 32), 0);
    EXPECT_EQ(std::memcmp(cd.controller.activeParams.macAddress, mac, 6), 0);
    EXPECT_EQ(std::memcmp(cd.controller.activeParams.ipAddress, ip, 4), 0);
}

TEST_F(ControllerDataFixture, IscsiPortFieldsByName) {
    size_t port = 904;  // ports[0]
    wire_[port + 1216] = TROV_BUS_ISCSI;
    size_t u = port + 136;
    wire_[u + 0] = 4;
    wire_[u + 1] = 1;
    // the IPv4 words as the service sends them: converted like every u32
    PutBe32(wire_, u + 16, 0x0A01A8C0);  // 192.168.1.10 after conversion
    PutBe32(wire_, u + 32, 0x00FFFFFF);  // 255.255.255.0
    PutBe32(wire_, u + 48, 0x0101A8C0);  // 192.168.1.1
    PutBe32(wire_, u + 52, 3260);
    ControllerData& cd = Converted();
    const IscsiInterface& is = cd.port(0).interface.iscsi;
    EXPECT_TRUE(cd.port(0).isIscsi());
    EXPECT_EQ(is.ipVersion, 4);
    EXPECT_EQ(is.linkUp, 1);
    const uint8_t addr[4] = {192, 168, 1, 10}, mask[4] = {255, 255, 255, 0}, gw[4] = {192, 168, 1, 1};
    EXPECT_EQ(std::memcmp(is.ipv4(), addr, 4), 0);
    EXPECT_EQ(std::memcmp(is.netmaskIpv4(), mask, 4), 0);
    EXPECT_EQ(std::memcmp(is.gatewayIpv4(), gw, 4), 0);
    EXPECT_EQ(is.servicePort, 3260u);
}

TEST_F(ControllerDataFixture, FibreAndSasPortFieldsByName) {
    const uint8_t wwn[8] = {0x20, 0x70, 0x00, 0xC0, 0xFF, 0x0A, 0x0B, 0x0C};
    size_t fc = 904 + 1284 * 1, sas = 904 + 1284 * 3;
    wire_[fc + 1216] = TROV_BUS_FC6;
    wire_[fc + 136] = 1;
    std::memcpy(&wire_[fc + 136 + 532], wwn, 8);
    wire_[sas + 1216] = TROV_BUS_SAS;
    wire_[sas + 136] = 1;
    std::memcpy(&wire_[sas + 136 + 8], wwn, 8);
    wire_[sas + 136 + 26] = 4;
    ControllerData& cd = Converted();
    EXPECT_TRUE(cd.port(1).isFibre());
    EXPECT_EQ(cd.port(1).interface.fc.linkUp, 1);
    EXPECT_EQ(std::memcmp(cd.port(1).interface.fc.portWwn, wwn, 8), 0);
    EXPECT_TRUE(cd.port(3).isSas());
    EXPECT_EQ(std::memcmp(cd.port(3).interface.sas.sasAddress, wwn, 8), 0);
    EXPECT_EQ(cd.port(3).interface.sas.phyCount, 4);
}

TEST_F(RecordsTest, UnifiedViewsConvertPortsByHostBusTypeWithZeroAsSix) {
    struct Case {
        uint8_t hostBusType;
        size_t unionOffset;
        bool swapped;
    };
    const Case cases[] = {
        {0, 520, true},  {0, 16, false}, {6, 520, true}, {9, 16, true}, {9, 520, false}, {4, 520, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "hostBusType " << int(c.hostBusType) << " at " << c.unionOffset);
        std::vector<uint8_t> w(rec::kUnifiedControllerDataSize, 0);
        w[308] = c.hostBusType;
        for (size_t view : {size_t(10436), size_t(10436 + 22648)}) {
            size_t port = view + 904 + 1284 * 4;  // ports[4]
            w[port + 1216] = 9;                   // the port's own type does not decide here
            PutBe32(w, port + 136 + c.unionOffset, 0xA1B2C3D4);
            PutBe32(w, view + 4, 0x55);  // the view's error_code
        }
        ConvertUnifiedControllerData(0, w.data());
        const auto* u = reinterpret_cast<const UnifiedControllerData*>(w.data());
        for (int k = 0; k < 2; ++k) {
            uint32_t v;
            std::memcpy(&v, u->controllers[k].controller.ports[4].interface.raw + c.unionOffset, 4);
            EXPECT_EQ(v, c.swapped ? 0xA1B2C3D4u : 0xD4C3B2A1u);
            EXPECT_EQ(u->controllers[k].error_code, 0x55u);
        }
        EXPECT_EQ(u->effectiveHostBusType(), c.hostBusType ? c.hostBusType : 6);
    }
}

TEST_F(RecordsTest, UnifiedNamedFields) {
    std::vector<uint8_t> w(rec::kUnifiedControllerDataSize, 0);
    std::memcpy(&w[20], "", 1);
    std::memcpy(&w[40], "0123456789ABCDEF", 16);
    std::memcpy(&w[60], "TROVSTOR", 8);
    std::memcpy(&w[80], "TROVVEND", 8);  // all 8 bytes, no terminator
    const char* iqn = "iqn.1995-03.com.trov:01.array.00c0ff123456";
    std::memcpy(&w[1588], iqn, strlen(iqn));
    std::memcpy(&w[7824], "Lab Array 1", 11);
    w[9449] = 1;
    PutBe32(w, 208, 77);
    ConvertUnifiedControllerData(0, w.data());
    const auto* u = reinterpret_cast<const UnifiedControllerData*>(w.data());
    EXPECT_EQ(RecordText(u->brandName), "");
    EXPECT_EQ(RecordText(u->productId), "0123456789ABCDEF");
    EXPECT_EQ(RecordText(u->vendorName), "TROVSTOR");
    EXPECT_EQ(RecordText(u->vendorId), "TROVVEND");
    EXPECT_EQ(RecordText(u->iscsiBaseName), iqn);
    EXPECT_EQ(u->systemName(), "Lab Array 1");
    EXPECT_EQ(u->chapEnabled(), 1);
    EXPECT_EQ(u->unread208, 77u);
}

TEST_F(RecordsTest, PartitionViewNamedFields) {
    std::vector<uint8_t> w(rec::kPartitionViewSize, 0);
    PutBe16(w, 16, 0xFFFF);
    PutBe16(w, 28, 2);
    const uint8_t wwn[8] = {0x21, 0x00, 0x00, 0x24, 0xFF, 0x01, 0x02, 0x03};
    std::memcpy(&w[32 + 8], wwn, 8);
    PutBe16(w, 1056 + 12, 42);
    std::memcpy(&w[8736 + 224], "iqn.1991-05.com.microsoft:host2", 31);
    ConvertPartitionView(0, w.data());
    const auto* pv = reinterpret_cast<const PartitionView*>(w.data());
    EXPECT_EQ(pv->defaultLun, 0xFFFF);
    EXPECT_FALSE(pv->hasDefaultAccess());
    EXPECT_EQ(pv->viewCount(), 2u);
    EXPECT_EQ(std::memcmp(pv->viewWwns[1], wwn, 8), 0);
    EXPECT_EQ(pv->viewLuns[1].lun, 42);
    EXPECT_EQ(pv->viewHost(1), "iqn.1991-05.com.microsoft:host2");
    EXPECT_EQ(pv->viewHost(128), "");
}

TEST_F(RecordsTest, EventNamedFields) {
    std::vector<uint8_t> w(rec::kEventDataSize, 0);
    PutBe32(w, 0, 4711);
    PutBe32(w, 8, 106);
    PutBe32(w, 12, 0x80000001);
    w[16] = 0xAB;
    PutBe32(w, 20, 0x0A0B0C0D);
    PutBe32(w, 40, 24);
    std::memcpy(&w[56], "DRIVESERIAL", 11);
    w[144] = 1;
    w[145] = 3;
    std::memcpy(&w[156], "Vdisk created.", 14);
    ConvertEventData(0, w.data());
    const auto* e = reinterpret_cast<const EventData*>(w.data());
    EXPECT_EQ(e->sequenceNumber, 4711u);
    EXPECT_EQ(e->eventCode, 106u);
    EXPECT_EQ(e->errorcode, 0x80000001u);
    EXPECT_EQ(e->bytes16[0], 0xAB);
    EXPECT_EQ(e->controllerHandle, 0x0A0B0C0Du);
    EXPECT_EQ(e->eventParam, 24u);
    EXPECT_EQ(RecordText(e->driveSerial), "DRIVESERIAL");
    EXPECT_EQ(e->owner, 1);
    EXPECT_EQ(e->duplicateCount, 3);
    EXPECT_EQ(RecordText(e->description), "Vdisk created.");
}

TEST_F(RecordsTest, ListsAndRequestByName) {
    std::vector<uint8_t> kh(rec::kKnownHostListSize, 0);
    PutBe32(kh, 0, 2);
    std::memcpy(&kh[72 + 992 + 204], "iqn.host.b", 10);
    ConvertKnownHostList(0, kh.data());
    const auto* k = reinterpret_cast<const KnownHostList*>(kh.data());
    EXPECT_EQ(k->hostCount(), 2u);
    EXPECT_EQ(RecordText(k->entries[1].hostName), "iqn.host.b");

    std::vector<uint8_t> hb(rec::kHbaInfoListSize, 0);
    PutBe32(hb, 0, 1);
    hb[4] = 'F';
    hb[4 + 4] = 3;
    const uint8_t wwpn[8] = {0x10, 0, 0, 0, 0xC9, 0x12, 0x34, 0x56};
    std::memcpy(&hb[4 + 8], wwpn, 8);
    ConvertHbaInfoList(0, hb.data());
    const auto* h = reinterpret_cast<const HbaInfoList*>(hb.data());
    EXPECT_EQ(h->entryCount(), 1u);
    EXPECT_EQ(h->entries[0].typeLetter, 'F');
    EXPECT_EQ(h->entries[0].portNumber, 3);
    EXPECT_EQ(std::memcmp(h->entries[0].wwpn, wwpn, 8), 0);

    // The request is built in host order and converted for sending.
    ExpandPartRequest req;
    std::memset(&req, 0, sizeof req);
    req.newSizeBlocks = 0x0000000200000800ull;
    ConvertExpandPartRequest(1, &req);
    const uint8_t* b = reinterpret_cast<const uint8_t*>(&req);
    const uint8_t expect[8] = {0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x02};
    EXPECT_EQ(std::memcmp(b + 8, expect, 8), 0);
}

TEST_F(RecordsTest, ConvertersWorkAtAnyAlignment) {
    std::vector<uint8_t> block = RandomBytes(rec::kArrayDataSize + 8, 5);
    std::vector<uint8_t> aligned(block.begin() + 1, block.begin() + 1 + rec::kArrayDataSize);
    ConvertArrayData(0, block.data() + 1);
    ConvertArrayData(0, aligned.data());
    EXPECT_TRUE(std::equal(aligned.begin(), aligned.end(), block.begin() + 1));
}

// ---------------------------------------------------------------------------------------------
// Hostile counts.

TEST_F(ControllerDataFixture, HostileCountsAreClampedToTheirTables) {
    auto cd = std::make_unique<ControllerData>();
    std::memset(cd.get(), 0, sizeof *cd);
    cd->numDrives = 0xFFFFFFFF;
    cd->numArrays = 0xFFFFFFFF;
    cd->enclosureCount = 0x80000000;
    cd->controller.numPorts = 9;
    cd->controller.numDiskChannels = 0xFFFFFFFF;
    cd->controller.driveSummary.totalDrives = 251;
    cd->arrays[0].numArrayPartitions = 0xFF;
    cd->arrays[0].numDrives = 0xFFFFFFFF;

    struct Row {
        const char* what;
        uint32_t got, capacity;
    };
    const Row rows[] = {
        {"drives", cd->driveCount(), 250},        {"arrays", cd->arrayCount(), 32},
        {"enclosures", cd->enclosureCountBounded(), 16}, {"ports", cd->portCount(), 8},
        {"disk channels", cd->diskChannelCount(), 8}, {"total drives", cd->totalDrivesBounded(), 250},
        {"partitions", cd->partitionCountOf(0), 128}, {"members", cd->arrays[0].memberCount(), 68},
    };
    for (const Row& r : rows) EXPECT_EQ(r.got, r.capacity) << r.what;
    EXPECT_EQ(LogLines(), std::size(rows));  // one line per clamped read
    // The raw values stay as delivered.
    EXPECT_EQ(cd->numDrives, 0xFFFFFFFFu);

    // Walking by the bounded counts stays in the record, and so do stray indices.
    uint64_t sum = 0;
    for (uint32_t i = 0; i < cd->driveCount(); ++i) sum += cd->drive(i).realBlockCount;
    for (uint32_t a = 0; a < cd->arrayCount(); ++a)
        for (uint32_t p = 0; p < cd->partitionCountOf(a); ++p) sum += cd->partition(a, p).blockCount;
    EXPECT_EQ(sum, 0u);
    EXPECT_EQ(&cd->drive(1000), &cd->drives[249]);
    EXPECT_EQ(&cd->array(32), &cd->arrays[31]);
    EXPECT_EQ(&cd->partition(40, 500), &cd->partitions[31][127]);
    EXPECT_EQ(&cd->port(8), &cd->controller.ports[7]);
    EXPECT_EQ(&cd->diskPort(0xFFFFFFFF), &cd->controller.diskPorts[7]);
    EXPECT_EQ(&cd->enclosure(16), &cd->enclosures[15]);
    EXPECT_EQ(&cd->arrays[0].member(68), &cd->arrays[0].members[67]);
}

TEST_F(RecordsTest, CountsWithinTheirTablesAreTakenAsTheyAreAndLogNothing) {
    auto cd = std::make_unique<ControllerData>();
    std::memset(cd.get(), 0, sizeof *cd);
    cd->numDrives = 250;
    cd->numArrays = 32;
    cd->controller.numPorts = 8;
    cd->controller.numDiskChannels = 0x00070008;  // only the low 16 bits count
    cd->arrays[3].numArrayPartitions = 128;
    cd->arrays[3].numDrives = 68;
    EXPECT_EQ(cd->driveCount(), 250u);
    EXPECT_EQ(cd->arrayCount(), 32u);
    EXPECT_EQ(cd->portCount(), 8u);
    EXPECT_EQ(cd->diskChannelCount(), 8u);
    EXPECT_EQ(cd->partitionCountOf(3), 128u);
    EXPECT_EQ(cd->arrays[3].memberCount(), 68u);
    EXPECT_EQ(&cd->drive(249), &cd->drives[249]);
    EXPECT_EQ(LogLines(), 0u) << tp_.DebuggerText();
}

TEST_F(RecordsTest, ListCountsAreBounded) {
    struct Row {
        uint32_t (*bound)(uint32_t);
        uint32_t capacity;
    };
    const Row rows[] = {
        {rec::BoundedEventCount, 100},
        {rec::BoundedBackingStoreCount, 16},
        {rec::BoundedMasterVolumeCount, 1024},
        {rec::BoundedSnapshotCount, 512},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.bound(0), 0u);
        EXPECT_EQ(r.bound(r.capacity), r.capacity);
        EXPECT_EQ(r.bound(r.capacity + 1), r.capacity);
        EXPECT_EQ(r.bound(0xFFFFFFFF), r.capacity);
    }
    EXPECT_EQ(LogLines(), 2 * std::size(rows));

    std::vector<uint8_t> kh(rec::kKnownHostListSize, 0xFF);
    EXPECT_EQ(reinterpret_cast<KnownHostList*>(kh.data())->hostCount(), 64u);
    std::vector<uint8_t> hb(rec::kHbaInfoListSize, 0xFF);
    EXPECT_EQ(reinterpret_cast<HbaInfoList*>(hb.data())->entryCount(), 32u);
}

TEST_F(RecordsTest, HostileViewCountNeverReachesPastTheRecord) {
    // The record exactly sized on the heap (a sanitizer build catches any stray byte), plus a
    // second buffer with guard bytes behind it.
    for (uint16_t count : {uint16_t(129), uint16_t(0x8000), uint16_t(0xFFFF)}) {
        std::unique_ptr<uint8_t[]> exact(new uint8_t[rec::kPartitionViewSize]());
        exact[28] = uint8_t(count >> 8);
        exact[29] = uint8_t(count);
        ConvertPartitionView(0, exact.get());
        EXPECT_EQ(reinterpret_cast<PartitionView*>(exact.get())->viewCount(), 128u);

        std::vector<uint8_t> guarded(rec::kPartitionViewSize + 64, 0x5A);
        PutBe16(guarded, 28, count);
        ConvertPartitionView(0, guarded.data());
        for (size_t i = rec::kPartitionViewSize; i < guarded.size(); ++i) ASSERT_EQ(guarded[i], 0x5A);
    }
}

// ---------------------------------------------------------------------------------------------
// Edge cases of the records.

TEST_F(RecordsTest, MissingMemberNeedsBothIndices) {
    struct Row {
        uint32_t channel, drive;
        bool missing;
    };
    const Row rows[] = {
        {0xFFFFFFFF, 0xFFFFFFFF, true}, {0xFFFFFFFF, 0, false},          {0, 0xFFFFFFFF, false},
        {0xFFFFFFFE, 0xFFFFFFFF, false}, {0xFFFFFFFF, 0xFFFFFFFE, false}, {0, 0, false},
    };
    for (const Row& r : rows) {
        ArrayMember m{};
        m.channelIndex = r.channel;
        m.driveIndex = r.drive;
        EXPECT_EQ(m.missing(), r.missing) << std::hex << r.channel << " " << r.drive;
    }
}

TEST_F(RecordsTest, ArrayWithoutPartitionsKeepsNameAndSerial) {
    std::vector<uint8_t> w(rec::kArrayDataSize, 0);
    std::memcpy(&w[1496], "vd01", 4);
    for (int i = 0; i < 32; ++i) w[1528 + i] = uint8_t(i + 1);
    w[1563] = TROV_RAID5;
    ConvertArrayData(0, w.data());
    const auto* a = reinterpret_cast<const ArrayData*>(w.data());
    EXPECT_EQ(a->partitionCount(), 0u);
    EXPECT_EQ(RecordText(a->name), "vd01");
    EXPECT_EQ(a->serialNumber[0], 1);
    EXPECT_EQ(a->serialNumber[31], 32);
    EXPECT_EQ(a->raidLevel, TROV_RAID5);
}

TEST_F(RecordsTest, CacheBlockConvertsTwoWordsAndKeepsItsFlags) {
    std::vector<uint8_t> w(rec::kPartitionDataSize, 0);
    PutBe32(w, 460, 0x11);
    PutBe32(w, 464, 0x22);
    w[460 + 8] = 0x33;
    w[460 + 9] = 1;
    w[460 + 10] = 1;
    PutBe32(w, 460 + 12, 0x01020304);  // third word: not converted
    ConvertPartitionData(0, w.data());
    const auto* p = reinterpret_cast<const PartitionData*>(w.data());
    EXPECT_EQ(p->cacheParams.word0, 0x11u);
    EXPECT_EQ(p->cacheParams.word4, 0x22u);
    EXPECT_EQ(p->cacheParams.byte8, 0x33);
    EXPECT_EQ(p->cacheParams.writeBack, 1);
    EXPECT_EQ(p->cacheParams.sequential, 1);
    const uint8_t third[4] = {1, 2, 3, 4};
    EXPECT_EQ(std::memcmp(&w[460 + 12], third, 4), 0);
}

// ---------------------------------------------------------------------------------------------
// The drive-to-array key.

TEST_F(RecordsTest, DriveBelongsToArrayByTheSevenKeyBytes) {
    ArrayData a{};
    for (int i = 0; i < 32; ++i) a.serialNumber[i] = uint8_t(0xA0 + i);
    DriveData d{};
    const uint8_t key[7] = {0xA3, 0xA4, 0xA5, 0xA8, 0xA9, 0xAA, 0xAB};
    std::memcpy(d.arrayKey, key, 7);
    EXPECT_TRUE(rec::DriveBelongsTo(d, a));

    uint8_t derived[7];
    rec::ArrayKeyFromSerial(a.serialNumber, derived);
    EXPECT_EQ(std::memcmp(derived, key, 7), 0);

    // Every serial byte outside the seven takes no part; each of the seven does.
    const std::set<int> keyBytes = {3, 4, 5, 8, 9, 10, 11};
    for (int i = 0; i < 32; ++i) {
        ArrayData b = a;
        b.serialNumber[i] ^= 0xFF;
        EXPECT_EQ(rec::DriveBelongsTo(d, b), keyBytes.count(i) == 0) << "serial byte " << i;
    }
    // Order matters: the same bytes in another order don't match.
    std::swap(d.arrayKey[0], d.arrayKey[1]);
    EXPECT_FALSE(rec::DriveBelongsTo(d, a));
}

TEST_F(RecordsTest, DriveBlockIsTheTwelveBytesFromTheKey) {
    std::vector<uint8_t> w(rec::kDriveDataSize, 0);
    for (int i = 0; i < 12; ++i) w[189 + i] = uint8_t(0x40 + i);
    auto* d = reinterpret_cast<DriveData*>(w.data());
    EXPECT_EQ(d->driveBlock(), &w[189]);
    EXPECT_EQ(d->arrayKey[6], 0x46);
    EXPECT_EQ(d->driveIndex, 0x48);
    EXPECT_EQ(d->spindleSpeed, 0x49);
    EXPECT_EQ(d->enclosureNumber, 0x4A);
    EXPECT_EQ(d->slotNumber, 0x4B);
}

// ---------------------------------------------------------------------------------------------
// Log words and names.

TEST_F(RecordsTest, LogWordsAndNames) {
    // nullptr: no word for the value.
    const struct {
        const char* (*word)(uint8_t);
        uint8_t v;
        const char* text;
    } rows[] = {
        {rec::HowUsedWord, 0, "AVAILABLE"},         {rec::HowUsedWord, 1, "MEMBER"},
        {rec::HowUsedWord, 2, "DEDICATED SPARE"},   {rec::HowUsedWord, 3, "POOL SPARE"},
        {rec::HowUsedWord, 4, "SINGLE"},            {rec::HowUsedWord, 5, "LEFTOVER"},
        {rec::HowUsedWord, 6, nullptr},             {rec::HowUsedWord, 255, nullptr},
        {rec::RaidLevelName, 0, "TROV_RAID0"},      {rec::RaidLevelName, 1, "TROV_RAID1"},
        {rec::RaidLevelName, 3, "TROV_RAID3"},      {rec::RaidLevelName, 5, "TROV_RAID5"},
        {rec::RaidLevelName, 6, "TROV_NRAID"},      {rec::RaidLevelName, 7, "TROV_RAID30"},
        {rec::RaidLevelName, 8, "TROV_RAID50"},     {rec::RaidLevelName, 10, "TROV_RAID10"},
        {rec::RaidLevelName, 11, "TROV_RAID6"},     {rec::RaidLevelName, 12, nullptr},
    };
    for (const auto& r : rows) {
        const char* got = r.word(r.v);
        EXPECT_STREQ(got ? got : "(none)", r.text ? r.text : "(none)") << int(r.v);
    }
    const struct {
        uint8_t v;
        const char* text;
    } types[] = {{2, "FC"}, {3, "SATA"}, {4, "SAS"}, {0, "0x0"}, {5, "0x5"}, {10, "0xa"}, {255, "0xff"}};
    for (const auto& t : types) EXPECT_EQ(rec::DriveTypeText(t.v), t.text);
    EXPECT_TRUE(rec::IsSataFamily(9));
    EXPECT_TRUE(rec::IsSasFamily(10));
    EXPECT_TRUE(rec::IsSolidState(8));
    EXPECT_FALSE(rec::IsSolidState(6));
}

TEST_F(RecordsTest, SetRecordTextCutsAndTerminates) {
    DriveData d{};
    std::memset(d.vendor, 'x', sizeof d.vendor);
    SetRecordText(d.vendor, "A-VERY-LONG-VENDOR");
    EXPECT_EQ(RecordText(d.vendor), "A-VERY-L");
    EXPECT_EQ(d.vendor[8], '\0');
    SetRecordText(d.vendor, "AB");
    EXPECT_EQ(RecordText(d.vendor), "AB");
    EXPECT_EQ(d.vendor[5], '\0');
}

}  // namespace
