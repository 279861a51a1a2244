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
// What the records' accessors make of the converted bytes. Where each field lies is pinned at
// compile time (records.h) and which bytes are swapped by the reference above: these cases are
// about the readings that take more than a field, a flag, a half or a bound.

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

// A field written in its wire form at its byte offset, and what an accessor reads of it.
struct Reading {
    const char* name;
    size_t at;
    int width;  // 1, 4 or 8 (two words, low word first); 0: four bytes never converted
    uint64_t wire;
    uint64_t (*read)(const ControllerData&);
    uint64_t want;
};
#define BY(expr) [](const ControllerData& c) -> uint64_t { return (expr); }
// 4: iSCSI, 2: fibre, 1: SAS.
#define KIND(i) BY(c.port(i).isIscsi() * 4 + c.port(i).isFibre() * 2 + c.port(i).isSas())

TEST_F(ControllerDataFixture, AccessorsReadTheConvertedRecord) {
    const size_t a1 = 142912 + 1604, part = 194244 + 72704 * 3 + 568 * 5;  // arrays[1], partitions[3][5]
    const size_t iscsi = 904 + 1284 * 2 + 136;                              // ports[2]'s interface
    const Reading readings[] = {
        {"the disk channels are the low 16 bits", 32, 4, 0x00010002, BY(c.diskChannelCount()), 2},
        {"RAID6 by its capability bit", 40, 4, TROV_CAPABILITY_RAID6, BY(c.controller.supportsRaid6()), 1},
        {"dual-port ULP by its mode bit", 64 + 22, 1, TROV_CONTROLLER_MODE_AA_DUAL_PORT_ULP, BY(c.dualPortUlp()), 1},
        {"the overhead of the active parameters", 348 + 24, 4, 25, BY(c.overheadPerMille()), 25},
        {"the allowed drive type", 22344, 1, 3, BY(c.allowedDriveType()), 3},
        {"half the partitions, as delivered", 22620, 0, 0x00000200, BY(c.controller.maxPartitionPerController()),
         0x00010000},
        {"enclosures", 24708, 4, 2, BY(c.enclosureCountBounded()), 2},
        {"drives", 89904, 4, 4, BY(c.driveCount()), 4},
        {"a drive's low word", 89908 + 212, 4, 0x89ABCDEF, BY(c.drive(1).realBlockCount), 0x89ABCDEF},
        {"and its high word, never converted", 89908 + 212 + 204, 0, 0x01000000, BY(c.drive(1).blockCount()),
         0x0000000189ABCDEF},
        {"arrays", 142908, 4, 2, BY(c.arrayCount()), 2},
        {"members", a1 + 12, 4, 6, BY(c.array(1).memberCount()), 6},
        {"a member with a channel but no drive index is present", a1 + 408 + 16 * 5 + 4, 4, 0xFFFFFFFF,
         BY(c.array(1).member(5).missing()), 0},
        {"a 64-bit count, low word first", a1 + 1584, 8, 0xFEDCBA9876543210, BY(c.array(1).largestFreeSegment),
         0xFEDCBA9876543210},
        {"a partition by its array and place", part + 16, 4, 7, BY(c.partition(3, 5).lunNumber), 7},
        {"an iSCSI port", iscsi + 1080, 1, TROV_BUS_ISCSI, KIND(2), 4},
        {"its address, IPv4 in the last four bytes", iscsi + 16, 4, 0x0A01A8C0,
         BY(wire::LoadBe32(c.port(2).interface.iscsi.ipv4())), 0xC0A8010A},
        {"its netmask", iscsi + 32, 4, 0x00FFFFFF, BY(wire::LoadBe32(c.port(2).interface.iscsi.netmaskIpv4())),
         0xFFFFFF00},
        {"its gateway", iscsi + 48, 4, 0x0101A8C0, BY(wire::LoadBe32(c.port(2).interface.iscsi.gatewayIpv4())),
         0xC0A80101},
        {"a fibre port", 904 + 1284 + 1216, 1, TROV_BUS_FC6, KIND(1), 2},
        {"a SAS port", 904 + 1284 * 3 + 1216, 1, TROV_BUS_SAS, KIND(3), 1},
    };
    for (const Reading& r : readings) {
        if (r.width == 8) PutWire64(wire_, r.at, r.wire);
        if (r.width == 4 || r.width == 0) PutBe32(wire_, r.at, uint32_t(r.wire));
        if (r.width == 1) wire_[r.at] = uint8_t(r.wire);
    }
    // A drive serial that fills all 33 bytes: its text stops at the width.
    std::memset(&wire_[89908 + 4], 'S', 33);
    std::memcpy(&wire_[89908 + 37], "VENDORX", 7);
    const ControllerData& cd = Converted();
    for (const Reading& r : readings) EXPECT_EQ(r.read(cd), r.want) << r.name;
    EXPECT_EQ(RecordText(cd.drive(0).serialNumber), std::string(33, 'S'));
    EXPECT_EQ(LogLines(), 0u) << tp_.DebuggerText();
}
#undef KIND
#undef BY

TEST_F(RecordsTest, UnifiedPartitionViewAndListAccessors) {
    std::vector<uint8_t> u(rec::kUnifiedControllerDataSize, 0);
    std::memcpy(&u[80], "TROVVEND", 8);                     // all 8 bytes, no terminator
    std::memcpy(&u[4284 + 3076 + 464], "Lab Array 1", 11);  // the second system block's name
    u[4284 + 3076 + 2089] = 1;
    for (uint8_t bus : {uint8_t(0), uint8_t(9)}) {
        std::vector<uint8_t> w = u;
        w[308] = bus;
        ConvertUnifiedControllerData(0, w.data());
        const auto* un = reinterpret_cast<const UnifiedControllerData*>(w.data());
        EXPECT_EQ(RecordText(un->vendorId), "TROVVEND");
        EXPECT_EQ(un->systemName(), "Lab Array 1");
        EXPECT_EQ(un->chapEnabled(), 1);
        EXPECT_EQ(un->effectiveHostBusType(), bus ? bus : TROV_BUS_FC6);  // none given: fibre
    }

    std::vector<uint8_t> w(rec::kPartitionViewSize, 0);
    PutBe16(w, 16, 0xFFFF);
    PutBe16(w, 28, 2);
    std::memcpy(&w[8736 + 224], "iqn.1991-05.com.microsoft:host2", 31);
    ConvertPartitionView(0, w.data());
    const auto* pv = reinterpret_cast<const PartitionView*>(w.data());
    EXPECT_FALSE(pv->hasDefaultAccess());
    EXPECT_EQ(pv->viewCount(), 2u);
    EXPECT_EQ(pv->viewHost(1), "iqn.1991-05.com.microsoft:host2");
    EXPECT_EQ(pv->viewHost(128), "");

    std::vector<uint8_t> kh(rec::kKnownHostListSize, 0), hb(rec::kHbaInfoListSize, 0);
    PutBe32(kh, 0, 2);
    PutBe32(hb, 0, 1);
    ConvertKnownHostList(0, kh.data());
    ConvertHbaInfoList(0, hb.data());
    EXPECT_EQ(reinterpret_cast<const KnownHostList*>(kh.data())->hostCount(), 2u);
    EXPECT_EQ(reinterpret_cast<const HbaInfoList*>(hb.data())->entryCount(), 1u);
    EXPECT_EQ(LogLines(), 0u) << tp_.DebuggerText();

    // A request is built in host order and converted for sending: its 64-bit size low word first.
    ExpandPartRequest req;
    std::memset(&req, 0, sizeof req);
    req.newSizeBlocks = 0x0000000200000800ull;
    ConvertExpandPartRequest(1, &req);
    const uint8_t expect[8] = {0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x02};
    EXPECT_EQ(std::memcmp(reinterpret_cast<const uint8_t*>(&req) + 8, expect, 8), 0);
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
