// The command catalogue over loopback: requests built byte by byte as the client builds them,
// replies read through the provider's own record converters.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "proxy/records.h"
#include "sim/sim.h"
#include "sim_client.h"

using namespace trovsim;
using simtest::Client;
using simtest::ErrorOf;

namespace {

constexpr uint32_t kA = 0x01000100, kB = 0x01000101;

void Put64(uint8_t* p, uint64_t v) {
    wire::StoreBe32(p, static_cast<uint32_t>(v));
    wire::StoreBe32(p + 4, static_cast<uint32_t>(v >> 32));
}
void PutText(uint8_t* p, const std::string& s) { std::memcpy(p, s.data(), s.size()); }

struct CommandsTest : ::testing::Test {
    Options opt;
    std::unique_ptr<Server> sim;
    Client cl;

    void SetUp() override {
        opt.manualClock = true;
        opt.heartbeatIntervalMs = 0;
        opt.logRequests = false;
        opt.logSink = [](const std::string&) {};
    }
    void Start(const std::string& scenario = "demo") {
        sim = std::make_unique<Server>(opt);
        std::string err;
        ASSERT_TRUE(sim->LoadScenario(scenario, &err)) << err;
        ASSERT_TRUE(sim->Start(&err)) << err;
        ASSERT_TRUE(cl.Connect(sim->port()));
        ASSERT_EQ(cl.Login(opt.user, opt.password), 1);
    }
    void TearDown() override {
        cl.Close();
        if (sim) sim->Stop();
    }

    // The whole ControllerData of a controller, converted for reading.
    std::unique_ptr<std::vector<uint8_t>> Controller(uint32_t handle) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(cl.Command(1, 4, [&](uint8_t* p) { wire::StoreBe32(p + 36, handle); }, &r));
        EXPECT_EQ(r.size(), 36 + rec::kControllerDataSize);
        auto out = std::make_unique<std::vector<uint8_t>>(r.begin() + 36, r.end());
        out->resize(rec::kControllerDataSize);
        ConvertControllerData(0, out->data());
        return out;
    }
    static const ControllerData& Cd(const std::unique_ptr<std::vector<uint8_t>>& b) {
        return *reinterpret_cast<const ControllerData*>(b->data());
    }

    // add_array_part as the client sends it; returns the reply.
    std::vector<uint8_t> AddPart(uint32_t handle, const uint8_t* vdisk, uint64_t bytes, const std::string& name,
                                 uint8_t type = 0, const uint8_t* backing = nullptr) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(cl.Command(
            14, 728,
            [&](uint8_t* p) {
                wire::StoreBe32(p + 44, handle);
                wire::StoreBe32(p + 48, 0xFFFFFFFF);
                Put64(p + 52, bytes >> 9);
                p[61] = type;
                std::memcpy(p + 68, vdisk, 32);
                if (backing) std::memcpy(p + 132, backing, 32);
                PutText(p + 164, name);
            },
            &r));
        return r;
    }
    EventData NewestEvent(uint32_t handle) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(cl.Command(
            9, 444,
            [&](uint8_t* p) {
                wire::StoreBe32(p + 44, handle);
                p[49] = 1;
            },
            &r));
        EventData e{};
        if (r.size() >= rec::kPktEventData + sizeof e) {
            std::memcpy(&e, r.data() + rec::kPktEventData, sizeof e);
            ConvertEventData(0, &e);
        }
        return e;
    }
};

// ---------------------------------------------------------------------------------------------

TEST_F(CommandsTest, ControllerRecordsShowTheDemoArray) {
    Start();
    auto a = Controller(kA), b = Controller(kB);
    const ControllerData& ca = Cd(a);
    const ControllerData& cb = Cd(b);
    EXPECT_EQ(ca.error_code, 0u);
    EXPECT_EQ(ca.controller.controllerId, 1);
    EXPECT_EQ(cb.controller.controllerId, 0);
    EXPECT_EQ(RecordText(ca.UniqueSN), "00C0FF1A2B3C");
    EXPECT_EQ(ca.driveCount(), 12u);
    EXPECT_EQ(ca.totalDrivesBounded(), 12u);
    EXPECT_EQ(ca.portCount(), 2u);
    EXPECT_EQ(ca.controller.maxLuns, 256u);  // delivered unconverted and read so
    EXPECT_TRUE(ca.controller.supportsRaid6());
    // iSCSI port address: first octet first after the conversion.
    const IscsiInterface& port = ca.port(0).interface.iscsi;
    EXPECT_TRUE(ca.port(0).isIscsi());
    EXPECT_EQ(port.ipv4()[0], 192);
    EXPECT_EQ(port.ipv4()[3], 10);
    EXPECT_EQ(cb.port(1).interface.iscsi.ipv4()[3], 21);
    EXPECT_EQ(ca.diskPort(0).maxDevices, 12);
    EXPECT_EQ(ca.enclosure(0).numDrives, 12);

    // Each controller lists the vdisk it owns, with its partitions.
    ASSERT_EQ(ca.arrayCount(), 1u);
    ASSERT_EQ(cb.arrayCount(), 1u);
    const ArrayData& r5 = ca.array(0);
    EXPECT_EQ(RecordText(r5.name), "VD-SAS-R5");
    EXPECT_EQ(r5.raidLevel, TROV_RAID5);
    EXPECT_EQ(r5.owner, 1);
    EXPECT_EQ(r5.memberCount(), 4u);
    EXPECT_EQ(r5.partitionCount(), 3u);
    EXPECT_EQ(ca.parititionCount, 3u);
    EXPECT_EQ(RecordText(ca.partition(0, 0).name), "db01");
    EXPECT_EQ(ca.partition(0, 0).blockCount, 200ull * 1024 * 2048);
    EXPECT_EQ(ca.partition(0, 0).lunNumber, 1u);
    EXPECT_EQ(r5.remainingBlocks, r5.blockCapacity - 270ull * 1024 * 2048);
    EXPECT_EQ(r5.numFreeArrayPartitionSegments, 1);
    EXPECT_EQ(RecordText(cb.array(0).name), "VD-SATA-R1");

    // Members carry the vdisk's key; only the owner's view knows their positions.
    int members = 0;
    for (uint32_t i = 0; i < ca.driveCount(); ++i) {
        const DriveData& d = ca.drive(i);
        if (!rec::DriveBelongsTo(d, r5)) continue;
        ++members;
        EXPECT_EQ(d.howUsed, TROV_HOWUSED_MEMBER);
        EXPECT_EQ(d.containerIndex, 0);
        EXPECT_NE(d.driveIndex, TROV_NO_INDEX);
        const DriveData& other = cb.drive(i);
        EXPECT_EQ(other.containerIndex, TROV_NO_INDEX);
        EXPECT_EQ(other.driveIndex, TROV_NO_INDEX);
    }
    EXPECT_EQ(members, 4);
    // The SATA mirror's drives: halves by bit 0 of arrayPosition, in B's view.
    int firstHalf = 0;
    for (uint32_t i = 0; i < cb.driveCount(); ++i)
        if (rec::DriveBelongsTo(cb.drive(i), cb.array(0))) firstHalf += cb.drive(i).arrayPosition & 1;
    EXPECT_EQ(firstHalf, 1);
    // A free drive is not shown as failed (both indices 0xFF); the pool spare is one.
    const DriveData& spare = ca.drive(7);
    EXPECT_EQ(spare.howUsed, TROV_HOWUSED_POOL_SPARE);
    EXPECT_NE(spare.driveIndex, TROV_NO_INDEX);
    EXPECT_EQ(ca.drive(11).blockCount(), 3907029168ull);
}

TEST_F(CommandsTest, RecordsAreEncodedOnlyWhenTheyChange) {
    Start();
    Controller(kA);
    uint64_t after = sim->stats().encodings;
    Controller(kA);
    Controller(kA);
    EXPECT_EQ(sim->stats().encodings, after);
    Serial vd{};
    sim->WithModel([&](Model& m) { vd = m.subsystems()[0].vdisks[0].serial; });
    ASSERT_EQ(ErrorOf(AddPart(kA, vd.data(), 10 << 20, "new01")), 0u);
    auto again = Controller(kA);
    EXPECT_EQ(sim->stats().encodings, after + 1);
    EXPECT_EQ(Cd(again).array(0).partitionCount(), 4u);
}

TEST_F(CommandsTest, CreateArrayAddPartitionAndTheirEvents) {
    Start();
    // Three free SAS drives in slots 4..6, by serial and location.
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Command(
        16, 4548,
        [&](uint8_t* p) {
            wire::StoreBe32(p + 44, kB);
            for (uint32_t i = 0; i < 3; ++i) {
                wire::StoreBe32(p + 52 + 8 * i, 0);
                wire::StoreBe32(p + 56 + 8 * i, 4 + i);
                char serial[16];
                std::snprintf(serial, sizeof serial, "3SJ0%04uK", 1205 + i);
                PutText(p + 772 + 32 * i, serial);
            }
            wire::StoreBe32(p + 596, 3);
            p[604] = TROV_RAID5;
            wire::StoreBe32(p + 612, 64);
            wire::StoreBe32(p + 620, 0xFFFFFFFF);
            p[624] = 0;
            p[628] = 3;
            PutText(p + 632, "VDS_VDISK_0");
        },
        &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    ArrayData made;
    std::memcpy(&made, r.data() + rec::kPktArrayData, sizeof made);
    ConvertArrayData(0, &made);
    EXPECT_EQ(RecordText(made.name), "VDS_VDISK_0");
    EXPECT_EQ(made.owner, 0);
    EXPECT_EQ(made.memberCount(), 3u);
    EXPECT_EQ(made.member(2).driveIndex, 6u);
    EXPECT_EQ(made.largestFreeSegment, made.blockCapacity);
    EXPECT_EQ(NewestEvent(kB).eventCode, uint32_t(kEvVdiskCreated));

    // A partition of 1 MiB less a block is too small; 1 GiB goes in.
    EXPECT_EQ(ErrorOf(AddPart(kB, made.serialNumber, (1 << 20) - 512, "tiny")), 78u);
    r = AddPart(kB, made.serialNumber, 1ull << 30, "VDS_LUN_0");
    ASSERT_EQ(ErrorOf(r), 0u);
    PartitionData part;
    std::memcpy(&part, r.data() + rec::kPktPartitionData, sizeof part);
    ConvertPartitionData(0, &part);
    EXPECT_EQ(part.blockCount, 2097152u);
    EXPECT_EQ(part.startBlock, 0u);
    EXPECT_EQ(part.lunNumber, 0xFFFFFFFFu);
    EventData ev = NewestEvent(kB);
    EXPECT_EQ(ev.eventCode, uint32_t(kEvVolumeCreated));
    EXPECT_EQ(std::memcmp(ev.partitionSerial, part.PartSn, 32), 0);
    EXPECT_EQ(ev.controllerHandle, kB);

    // The event range, oldest first.
    uint32_t last = ev.sequenceNumber;
    ASSERT_TRUE(cl.Command(
        9, 444,
        [&](uint8_t* p) {
            wire::StoreBe32(p + 44, kB);
            wire::StoreBe32(p + 60, 1);
            wire::StoreBe32(p + 64, last);
        },
        &r));
    uint32_t count = wire::LoadBe32(r.data() + rec::kPktEventCount);
    ASSERT_EQ(count, last);
    ASSERT_EQ(r.size(), rec::kPktEventData + count * rec::kEventDataSize);
    EventData first;
    std::memcpy(&first, r.data() + rec::kPktEventData, sizeof first);
    ConvertEventData(0, &first);
    EXPECT_EQ(first.sequenceNumber, 1u);
    EXPECT_EQ(first.eventCode, uint32_t(kEvVdiskCreated));

    // Delete it again: 108, then the vdisk: 24, and the drives are free.
    ASSERT_TRUE(cl.Command(15, 48, [&](uint8_t* p) { wire::StoreBe32(p + 44, kB), std::memcpy(p + 52, part.PartSn, 32); }, &r));
    EXPECT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(NewestEvent(kB).eventCode, uint32_t(kEvVolumeDeleted));
    ASSERT_TRUE(cl.Command(24, 48, [&](uint8_t* p) { wire::StoreBe32(p + 44, kB), std::memcpy(p + 52, made.serialNumber, 32); }, &r));
    EXPECT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(NewestEvent(kB).eventCode, uint32_t(kEvVdiskDeleted));
    EXPECT_EQ(Cd(Controller(kB)).drive(4).howUsed, TROV_HOWUSED_AVAILABLE);
}

TEST_F(CommandsTest, ViewsThroughCustomViewAndPartitionView) {
    Start();
    Serial logs{};
    sim->WithModel([&](Model& m) { logs = m.subsystems()[0].vdisks[0].parts[1].serial; });
    auto view = [&](std::vector<uint8_t>* r) {
        return cl.Command(70, 37456, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), std::memcpy(p + 52, logs.data(), 32); }, r);
    };
    auto custom = [&](bool create, const char* host, uint16_t lun, bool all) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(cl.Command(
            71, 1359884,
            [&](uint8_t* p) {
                wire::StoreBe32(p + 44, 1);
                wire::StoreBe32(p + 48, kA);
                std::memset(p + 52, 1, 8);
                wire::StoreBe32(p + 60, all ? 1 : 0);
                std::memcpy(p + 64, logs.data(), 32);
                p[96] = 1;
                wire::StoreBe32(p + 124, lun);
                wire::StoreBe16(p + 144, lun);
                std::memset(p + 148, create ? 0xC0 : 0, 8);
                if (host) PutText(p + 156, host);
            },
            &r));
        return ErrorOf(r);
    };
    std::vector<uint8_t> r;
    ASSERT_TRUE(view(&r));
    PartitionView pv;
    auto read = [&] {
        std::memcpy(&pv, r.data() + rec::kPktPartitionView, sizeof pv);
        ConvertPartitionView(0, &pv);
    };
    read();
    EXPECT_EQ(pv.defaultLun, 0xFFFF);
    EXPECT_EQ(pv.viewCount(), 0u);

    ASSERT_EQ(custom(true, "iqn.1991-05.com.microsoft:host02.demo.local", 2, false), 0u);
    ASSERT_EQ(custom(true, "iqn.1991-05.com.microsoft:host03", 2, false), 0u);
    // LUN 1 is db01's for host01 only, so host01 can't have it twice, another host can.
    EXPECT_EQ(custom(true, "iqn.1991-05.com.microsoft:host01.demo.local", 1, false), uint32_t(kErrLunInUse));
    ASSERT_TRUE(view(&r));
    read();
    ASSERT_EQ(pv.viewCount(), 2u);
    EXPECT_EQ(pv.viewHost(0), "iqn.1991-05.com.microsoft:host02.demo.local");
    EXPECT_EQ(pv.viewLuns[1].lun, 2);
    EXPECT_EQ(NewestEvent(kA).eventCode, uint32_t(kEvVolumeMapping));

    // One host away, then all of them; then the default view.
    ASSERT_EQ(custom(false, "iqn.1991-05.com.microsoft:host02.demo.local", 2, false), 0u);
    ASSERT_TRUE(view(&r));
    read();
    EXPECT_EQ(pv.viewCount(), 1u);
    ASSERT_EQ(custom(false, nullptr, 2, true), 0u);
    ASSERT_EQ(custom(true, nullptr, 5, false), 0u);
    ASSERT_TRUE(view(&r));
    read();
    EXPECT_EQ(pv.viewCount(), 0u);
    EXPECT_EQ(pv.defaultLun, 5);
    EXPECT_TRUE(pv.hasDefaultAccess());
    EXPECT_EQ(Cd(Controller(kA)).partition(0, 1).lunNumber, 5u);
    // The new host names are known hosts now.
    ASSERT_TRUE(cl.Command(119, 63576, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA); }, &r));
    KnownHostList kh;
    std::memcpy(&kh, r.data() + rec::kPktKnownHostList, sizeof kh);
    ConvertKnownHostList(0, &kh);
    ASSERT_EQ(kh.hostCount(), 3u);
    EXPECT_EQ(RecordText(kh.entries[2].hostName), "iqn.1991-05.com.microsoft:host03");
}

TEST_F(CommandsTest, ExpansionProgressAndPartitionGrowth) {
    opt.manualClock = true;
    Start();
    Serial vd{}, scratch{};
    sim->WithModel([&](Model& m) {
        vd = m.subsystems()[0].vdisks[0].serial;
        scratch = m.subsystems()[0].vdisks[0].parts[2].serial;
    });
    auto percent = [&] {
        std::vector<uint8_t> r;
        EXPECT_TRUE(cl.Command(28, 48, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), std::memcpy(p + 48, vd.data(), 32); }, &r));
        return wire::LoadBe32(r.data() + 80);
    };
    EXPECT_EQ(percent(), 100u);
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Command(
        18, 592,
        [&](uint8_t* p) {
            wire::StoreBe32(p + 44, kA);
            wire::StoreBe32(p + 48, 1);
            std::memcpy(p + 52, vd.data(), 32);
            wire::StoreBe32(p + 84, 0);
            wire::StoreBe32(p + 88, 5);  // the drive at channel 0, id 5
        },
        &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(Cd(Controller(kA)).array(0).utilityRunning, TROV_UTILITY_EXPAND);
    EXPECT_EQ(percent(), 0u);
    sim->AdvanceTime(60000);
    EXPECT_EQ(percent(), 50u);
    sim->AdvanceTime(60000);
    EXPECT_EQ(percent(), 100u);
    auto after = Controller(kA);
    const ArrayData& a = Cd(after).array(0);
    EXPECT_EQ(a.utilityRunning, TROV_UTILITY_NONE);
    EXPECT_EQ(a.memberCount(), 5u);

    // The last partition grows into the space behind it; the request alternates the vdisk serial.
    auto grow = [&](uint64_t blocks, bool withVdisk) {
        EXPECT_TRUE(cl.Command(
            17, 312,
            [&](uint8_t* p) {
                wire::StoreBe32(p + 44, kA);
                ExpandPartRequest q{};
                q.newSizeBlocks = blocks;
                if (withVdisk) std::memcpy(q.vdiskSerial, vd.data(), 32);
                std::memcpy(q.partitionSerial, scratch.data(), 32);
                ConvertExpandPartRequest(1, &q);
                std::memcpy(p + rec::kPktExpandPartRequest, &q, sizeof q);
            },
            &r));
        return ErrorOf(r);
    };
    EXPECT_EQ(grow(40ull * 1024 * 2048, true), 0u);
    EXPECT_EQ(grow(41ull * 1024 * 2048, false), 0u);
    EXPECT_EQ(Cd(Controller(kA)).partition(0, 2).blockCount, 41ull * 1024 * 2048);
    EXPECT_EQ(NewestEvent(kA).eventCode, uint32_t(kEvVolumeModified));
}

TEST_F(CommandsTest, UnifiedRecordAdaptersRefreshAndSecrets) {
    Start();
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Command(109, 55748, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA); }, &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    auto u = std::make_unique<UnifiedControllerData>();
    std::memcpy(u.get(), r.data() + rec::kPktUnifiedControllerData, sizeof *u);
    ConvertUnifiedControllerData(0, u.get());
    EXPECT_EQ(RecordText(u->brandName), "Trovi");
    EXPECT_EQ(RecordText(u->productId), "R3000i");
    EXPECT_EQ(u->systemName(), "demo-array");
    EXPECT_EQ(RecordText(u->iscsiBaseName), "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c");
    EXPECT_EQ(u->effectiveHostBusType(), TROV_BUS_ISCSI);
    EXPECT_EQ(u->chapEnabled(), 0);

    ASSERT_TRUE(cl.Command(125, 58128, &r));
    HbaInfoList hba;
    std::memcpy(&hba, r.data() + rec::kPktHbaInfoList, sizeof hba);
    ConvertHbaInfoList(0, &hba);
    ASSERT_EQ(hba.entryCount(), 1u);
    EXPECT_EQ(hba.entries[0].typeLetter, 'I');
    EXPECT_EQ(hba.entries[0].wwpn[0], 0x21);

    auto needRefresh = [&] {
        EXPECT_TRUE(cl.Command(108, 56, [&](uint8_t* p) { PutText(p + 44, "00C0FF1A2B3C"); }, &r));
        return r[76];
    };
    EXPECT_EQ(needRefresh(), 1);
    EXPECT_EQ(needRefresh(), 0);
    ASSERT_EQ(sim->SetDriveOffline("9WM03303Z", true), 0u);
    EXPECT_EQ(needRefresh(), 1);
    EXPECT_EQ(NewestEvent(kA).eventCode, uint32_t(kEvDriveGone));

    // A secret for a name, read back.
    ASSERT_TRUE(cl.Command(
        117, 1036,
        [&](uint8_t* p) {
            wire::StoreBe32(p + 44, kA);
            PutText(p + 52, "iqn.x:init");
            PutText(p + 284, "iqn.x:init");
            PutText(p + 508, "secret123456");
        },
        &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    ASSERT_TRUE(cl.Command(113, 1036, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), PutText(p + 52, "iqn.x:init"); }, &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(r.data() + 508)), "secret123456");
    ASSERT_TRUE(cl.Command(113, 1036, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), PutText(p + 52, "nobody"); }, &r));
    EXPECT_EQ(ErrorOf(r), uint32_t(kErrNotFound));
}

TEST_F(CommandsTest, SnapshotVolumes) {
    Start();
    Serial vd{};
    sim->WithModel([&](Model& m) { vd = m.subsystems()[0].vdisks[0].serial; });
    std::vector<uint8_t> r = AddPart(kA, vd.data(), 1ull << 30, "store", TROV_PART_BACKING_STORE);
    ASSERT_EQ(ErrorOf(r), 0u);
    ASSERT_TRUE(cl.Command(55, 1304, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), p[48] = 1; }, &r));
    ASSERT_EQ(wire::LoadBe32(r.data() + rec::kPktBackingStoreCount), 1u);
    BackingStoreEntry bs;
    std::memcpy(&bs, r.data() + rec::kPktBackingStoreEntries, sizeof bs);
    EXPECT_EQ(std::memcmp(bs.vdiskSerial, vd.data(), 16), 0);
    uint8_t bsKey[32] = {};
    std::memcpy(bsKey, bs.id, 16);
    r = AddPart(kA, vd.data(), 1ull << 30, "master", TROV_PART_MASTER_VOLUME, bsKey);
    ASSERT_EQ(ErrorOf(r), 0u);

    ASSERT_TRUE(cl.Command(56, 90168, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), p[48] = 1, p[49] = 1; }, &r));
    ASSERT_EQ(wire::LoadBe32(r.data() + rec::kPktVolumeListCount), 1u);
    VolumeEntry mv;
    std::memcpy(&mv, r.data() + rec::kPktVolumeListEntries, sizeof mv);
    ASSERT_TRUE(cl.Command(50, 28, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), p[48] = 1; }, &r));
    uint64_t tag = uint64_t(wire::LoadBe32(r.data() + 56)) | uint64_t(wire::LoadBe32(r.data() + 60)) << 32;
    auto snap = [&](uint64_t t, const char* name) {
        EXPECT_TRUE(cl.Command(
            51, 1140,
            [&](uint8_t* p) {
                wire::StoreBe32(p + 44, kA);
                p[49] = 3, p[50] = 2, p[51] = 1;
                Put64(p + 56, t);
                std::memcpy(p + 64, mv.id, 16);
                PutText(p + 80, name);
            },
            &r));
        return ErrorOf(r);
    };
    EXPECT_EQ(snap(tag + 1, "stale"), uint32_t(kErrStaleTag));
    ASSERT_EQ(snap(tag, "VDS_SS_LUN_0"), 0u);
    EXPECT_EQ(wire::LoadBe32(r.data() + 912), 1u);
    auto cd = Controller(kA);
    const PartitionData& made = Cd(cd).partition(0, 5);
    EXPECT_EQ(made.partitionType, TROV_PART_SNAPSHOT);
    EXPECT_EQ(std::memcmp(made.PartSn, r.data() + 920, 32), 0);
    // The master's snapshots, by its key.
    ASSERT_TRUE(cl.Command(57, 45112, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), p[48] = 5, p[49] = 1, std::memcpy(p + 52, Cd(cd).partition(0, 4).PartSn, 32); }, &r));
    EXPECT_EQ(wire::LoadBe32(r.data() + rec::kPktVolumeListCount), 1u);
    // A master with a snapshot isn't turned back into a standard volume.
    ASSERT_TRUE(cl.Command(61, 312, [&](uint8_t* p) { wire::StoreBe32(p + 44, kA), p[179] = 8, std::memcpy(p + 133, Cd(cd).partition(0, 4).PartSn, 32); }, &r));
    EXPECT_EQ(ErrorOf(r), uint32_t(kErrInUse));
}

TEST_F(CommandsTest, OfflineControllerAnswersItsStateOnly) {
    Start();
    ASSERT_EQ(sim->SetControllerOffline(kB, true, 1), 0u);
    auto b = Controller(kB);
    EXPECT_EQ(Cd(b).controllerState, TROV_CTRL_STATE_NOT_SERVING);
    EXPECT_EQ(Cd(b).arrayCount(), 0u);
    EXPECT_EQ(Cd(Controller(kA)).arrayCount(), 2u);  // B's vdisk failed over
    EventData ev = NewestEvent(kA);
    EXPECT_EQ(ev.eventCode, uint32_t(kEvControllerDown));
    EXPECT_EQ(ev.eventParam, 2u);
    EXPECT_EQ(ev.controllerHandle, kB);
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Command(9, 444, [&](uint8_t* p) { wire::StoreBe32(p + 44, kB), p[49] = 1; }, &r));
    EXPECT_EQ(ErrorOf(r), uint32_t(kErrControllerDown));
    ASSERT_TRUE(cl.Command(105, 16, [&](uint8_t* p) { wire::StoreBe32(p + 44, 0x1234); }, &r));
    EXPECT_EQ(ErrorOf(r), uint32_t(kErrBadHandle));
    // A record without a usable configuration lists nothing; back online, B has its vdisk again.
    ASSERT_EQ(sim->SetControllerOffline(kB, true, 2), 0u);
    EXPECT_EQ(Cd(Controller(kB)).driveCount(), 0u);
    ASSERT_EQ(sim->SetControllerOffline(kB, false), 0u);
    auto back = Controller(kB);
    EXPECT_EQ(Cd(back).controllerState, TROV_CTRL_STATE_NORMAL);
    EXPECT_EQ(Cd(back).arrayCount(), 1u);
    EXPECT_EQ(NewestEvent(kB).eventCode, uint32_t(kEvControllerUp));
}

TEST_F(CommandsTest, MaxConfigurationFillsTheRecords) {
    Start("max");
    auto a = Controller(0x02000200);
    const ControllerData& cd = Cd(a);
    EXPECT_EQ(cd.driveCount(), 250u);
    EXPECT_EQ(cd.arrayCount(), 16u);
    EXPECT_EQ(cd.parititionCount, 16u * 128u);
    EXPECT_EQ(cd.portCount(), 8u);
    EXPECT_EQ(cd.array(15).partitionCount(), 128u);
    EXPECT_TRUE(cd.partition(15, 127).inUse());
    uint64_t enc = sim->stats().encodings;
    for (int i = 0; i < 5; ++i) Controller(0x02000200);
    EXPECT_EQ(sim->stats().encodings, enc);  // served from the cache
}

}  // namespace
