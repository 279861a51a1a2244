// The command catalogue over loopback: requests built in the client's own layouts
// (proxy/requests.h), replies read through those layouts and the provider's record converters.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "proxy/records.h"
#include "proxy/requests.h"
#include "sim/sim.h"
#include "sim_client.h"

using namespace trovsim;
using simtest::Client;
using simtest::ErrorOf;

namespace {

constexpr uint32_t kA = 0x01000100, kB = 0x01000101;

template <size_t N>
void PutText(uint8_t (&field)[N], const std::string& s) {
    ASSERT_LE(s.size(), N);
    std::memcpy(field, s.data(), s.size());
}

// A reply read through its command's layout; null when it is too short for it.
template <class P>
const P* As(const std::vector<uint8_t>& r) {
    return r.size() >= sizeof(P) ? reinterpret_cast<const P*>(r.data()) : nullptr;
}

// A record out of a reply's field, converted for reading when it has a converter.
template <class R>
R Take(const uint8_t* field, void (*convert)(int, void*) = nullptr) {
    R rec;
    std::memcpy(static_cast<void*>(&rec), field, sizeof rec);
    if (convert) convert(0, &rec);
    return rec;
}

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

    // Command `def` with its zeroed layout P filled by `fill`; the reply into *r.
    template <class P, class F>
    bool Send(const CommandDef& def, F fill, std::vector<uint8_t>* r) {
        static_assert(sizeof(P) >= wire::kHeaderSize);
        EXPECT_EQ(def.dataLen, sizeof(P) - wire::kHeaderSize) << def.method;
        return cl.Command(def.opcode, def.dataLen, [&](uint8_t* p) { fill(*reinterpret_cast<P*>(p)); }, r);
    }

    // The whole ControllerData of a controller, converted for reading.
    std::unique_ptr<std::vector<uint8_t>> Controller(uint32_t handle) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(Send<req::GetControllerData>(cmd::kGetControllerData, [&](auto& p) { p.handle = handle; }, &r));
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
        EXPECT_TRUE(Send<req::AddArrayPart>(
            cmd::kAddArrayPart,
            [&](req::AddArrayPart& p) {
                p.head.handle = handle;
                p.minusOne = 0xFFFFFFFF;
                p.sizeBlocks = bytes >> 9;
                p.partitionType = type;
                std::memcpy(p.arraySerial, vdisk, 32);
                if (backing) std::memcpy(p.backingStoreId, backing, 32);
                PutText(p.name, name);
            },
            &r));
        return r;
    }
    EventData NewestEvent(uint32_t handle) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(Send<req::GetEvent>(
            cmd::kGetEvent,
            [&](req::GetEvent& p) {
                p.head.handle = handle;
                p.flagB = 1;
            },
            &r));
        const auto* a = As<req::GetEvent>(r);
        return a ? Take<EventData>(a->event, ConvertEventData) : EventData{};
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
    ASSERT_TRUE(Send<req::CreateArray>(
        cmd::kCreateArray,
        [&](req::CreateArray& p) {
            p.head.handle = kB;
            for (uint32_t i = 0; i < 3; ++i) {
                p.locations[i].channelIndex = 0;
                p.locations[i].driveIndex = 4 + i;
                char serial[16];
                std::snprintf(serial, sizeof serial, "3SJ0%04uK", 1205 + i);
                PutText(p.serials[i], serial);
            }
            p.count = 3;
            p.raidLevel = TROV_RAID5;
            p.stripeKiB = 64;
            p.minusOne = 0xFFFFFFFF;
            p.controllerId = 0;
            p.three628 = 3;
            PutText(p.name, "VDS_VDISK_0");
        },
        &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    ASSERT_NE(As<req::CreateArray>(r), nullptr);
    const ArrayData made = Take<ArrayData>(As<req::CreateArray>(r)->arrayData, ConvertArrayData);
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
    ASSERT_NE(As<req::AddArrayPart>(r), nullptr);
    const PartitionData part = Take<PartitionData>(As<req::AddArrayPart>(r)->partitionData, ConvertPartitionData);
    EXPECT_EQ(part.blockCount, 2097152u);
    EXPECT_EQ(part.startBlock, 0u);
    EXPECT_EQ(part.lunNumber, 0xFFFFFFFFu);
    EventData ev = NewestEvent(kB);
    EXPECT_EQ(ev.eventCode, uint32_t(kEvVolumeCreated));
    EXPECT_EQ(std::memcmp(ev.partitionSerial, part.PartSn, 32), 0);
    EXPECT_EQ(ev.controllerHandle, kB);

    // The event range, oldest first.
    uint32_t last = ev.sequenceNumber;
    ASSERT_TRUE(Send<req::GetEvent>(
        cmd::kGetEvents,
        [&](req::GetEvent& p) {
            p.head.handle = kB;
            p.firstEventNum = 1;
            p.lastEventNum = last;
        },
        &r));
    ASSERT_NE(As<req::GetEvent>(r), nullptr);
    uint32_t count = As<req::GetEvent>(r)->count;
    ASSERT_EQ(count, last);
    ASSERT_EQ(r.size(), rec::kPktEventData + count * rec::kEventDataSize);
    const EventData first = Take<EventData>(r.data() + offsetof(req::GetEvent, event), ConvertEventData);
    EXPECT_EQ(first.sequenceNumber, 1u);
    EXPECT_EQ(first.eventCode, uint32_t(kEvVdiskCreated));

    // Delete it again: 108, then the vdisk: 24, and the drives are free.
    auto byHandleAndSerial = [&](const CommandDef& def, const uint8_t* serial) {
        return Send<req::HandleAndSerial52>(
            def, [&](auto& p) { p.head.handle = kB, std::memcpy(p.serial, serial, 32); }, &r);
    };
    ASSERT_TRUE(byHandleAndSerial(cmd::kDeletePart, part.PartSn));
    EXPECT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(NewestEvent(kB).eventCode, uint32_t(kEvVolumeDeleted));
    ASSERT_TRUE(byHandleAndSerial(cmd::kDeleteArray, made.serialNumber));
    EXPECT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(NewestEvent(kB).eventCode, uint32_t(kEvVdiskDeleted));
    EXPECT_EQ(Cd(Controller(kB)).drive(4).howUsed, TROV_HOWUSED_AVAILABLE);
}

TEST_F(CommandsTest, ViewsThroughCustomViewAndPartitionView) {
    Start();
    Serial logs{};
    sim->WithModel([&](Model& m) { logs = m.subsystems()[0].vdisks[0].parts[1].serial; });
    auto view = [&](std::vector<uint8_t>* r) {
        return Send<req::GetPartView>(
            cmd::kGetPartView, [&](auto& p) { p.head.handle = kA, std::memcpy(p.partSerial, logs.data(), 32); }, r);
    };
    auto custom = [&](bool create, const char* host, uint16_t lun, bool all) {
        std::vector<uint8_t> r;
        EXPECT_TRUE(Send<req::CreateCustomView>(
            cmd::kCreateCustomView,
            [&](req::CreateCustomView& p) {
                p.count = 1;
                req::ViewEntry& e = p.entries[0];
                e.handle = kA;
                std::memset(e.ones, 1, 8);
                e.removeAll = all ? 1 : 0;
                std::memcpy(e.partSerial, logs.data(), 32);
                e.hostType = 1;
                e.lun = lun;
                e.lun16 = lun;
                std::memset(e.access, create ? 0xC0 : 0, 8);
                if (host) PutText(e.hostName, host);
            },
            &r));
        return ErrorOf(r);
    };
    std::vector<uint8_t> r;
    ASSERT_TRUE(view(&r));
    PartitionView pv;
    auto read = [&] {
        ASSERT_NE(As<req::GetPartView>(r), nullptr);
        pv = Take<PartitionView>(As<req::GetPartView>(r)->partitionView, ConvertPartitionView);
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
    ASSERT_TRUE(Send<req::GetKnownHosts>(cmd::kGetKnownHosts, [&](auto& p) { p.head.handle = kA; }, &r));
    ASSERT_NE(As<req::GetKnownHosts>(r), nullptr);
    const KnownHostList kh = Take<KnownHostList>(As<req::GetKnownHosts>(r)->knownHosts, ConvertKnownHostList);
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
        EXPECT_TRUE(Send<req::GetPercent>(
            cmd::kGetPercent, [&](auto& p) { p.head.handle = kA, std::memcpy(p.arraySerial, vd.data(), 32); }, &r));
        const auto* a = As<req::GetPercent>(r);
        return a ? a->percent.value() : 0xFFFFFFFFu;
    };
    EXPECT_EQ(percent(), 100u);
    std::vector<uint8_t> r;
    ASSERT_TRUE(Send<req::ExpandArray>(
        cmd::kExpandArray,
        [&](req::ExpandArray& p) {
            p.head.handle = kA;
            p.count = 1;
            std::memcpy(p.arraySerial, vd.data(), 32);
            p.locations[0].channelIndex = 0;
            p.locations[0].driveIndex = 5;  // the drive at channel 0, id 5
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
        EXPECT_TRUE(Send<req::ExpandPart>(
            cmd::kExpandPart,
            [&](req::ExpandPart& p) {
                p.head.handle = kA;
                ExpandPartRequest q{};
                q.newSizeBlocks = blocks;
                if (withVdisk) std::memcpy(q.vdiskSerial, vd.data(), 32);
                std::memcpy(q.partitionSerial, scratch.data(), 32);
                ConvertExpandPartRequest(1, &q);
                std::memcpy(p.request, &q, sizeof q);
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
    ASSERT_TRUE(Send<req::GetUnifiedControllerData>(cmd::kGetUnified, [&](auto& p) { p.head.handle = kA; }, &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    auto u = std::make_unique<UnifiedControllerData>();
    ASSERT_NE(As<req::GetUnifiedControllerData>(r), nullptr);
    std::memcpy(u.get(), As<req::GetUnifiedControllerData>(r)->unified, sizeof *u);
    ConvertUnifiedControllerData(0, u.get());
    EXPECT_EQ(RecordText(u->brandName), "Trovi");
    EXPECT_EQ(RecordText(u->productId), "R3000i");
    EXPECT_EQ(u->systemName(), "demo-array");
    EXPECT_EQ(RecordText(u->iscsiBaseName), "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c");
    EXPECT_EQ(u->effectiveHostBusType(), TROV_BUS_ISCSI);
    EXPECT_EQ(u->chapEnabled(), 0);

    ASSERT_TRUE(Send<req::GetHbaInfoList>(cmd::kGetHbaInfo, [](auto&) {}, &r));
    ASSERT_NE(As<req::GetHbaInfoList>(r), nullptr);
    const HbaInfoList hba = Take<HbaInfoList>(As<req::GetHbaInfoList>(r)->hbaInfo, ConvertHbaInfoList);
    ASSERT_EQ(hba.entryCount(), 1u);
    EXPECT_EQ(hba.entries[0].typeLetter, 'I');
    EXPECT_EQ(hba.entries[0].wwpn[0], 0x21);

    auto needRefresh = [&] {
        EXPECT_TRUE(Send<req::GetNeedRefresh>(
            cmd::kGetNeedRefresh, [&](auto& p) { PutText(p.uniqueSN, "00C0FF1A2B3C"); }, &r));
        const auto* a = As<req::GetNeedRefresh>(r);
        return a ? a->answer : uint8_t(0xFF);
    };
    EXPECT_EQ(needRefresh(), 1);
    EXPECT_EQ(needRefresh(), 0);
    ASSERT_EQ(sim->SetDriveOffline("9WM03303Z", true), 0u);
    EXPECT_EQ(needRefresh(), 1);
    EXPECT_EQ(NewestEvent(kA).eventCode, uint32_t(kEvDriveGone));

    // A secret for a name, read back.
    ASSERT_TRUE(Send<req::AuthRecord>(
        cmd::kSetNamedTargetSecret,
        [&](req::AuthRecord& p) {
            p.head.handle = kA;
            PutText(p.firstName, "iqn.x:init");
            PutText(p.secondName, "iqn.x:init");
            PutText(p.secret, "secret123456");
        },
        &r));
    ASSERT_EQ(ErrorOf(r), 0u);
    auto lookup = [&](const char* name) {
        return Send<req::AuthRecord>(
            cmd::kGetAuthRecord, [&](auto& p) { p.head.handle = kA, PutText(p.firstName, name); }, &r);
    };
    ASSERT_TRUE(lookup("iqn.x:init"));
    ASSERT_EQ(ErrorOf(r), 0u);
    ASSERT_NE(As<req::AuthRecord>(r), nullptr);
    EXPECT_EQ(RecordText(As<req::AuthRecord>(r)->secret), "secret123456");
    ASSERT_TRUE(lookup("nobody"));
    EXPECT_EQ(ErrorOf(r), uint32_t(kErrNotFound));
}

TEST_F(CommandsTest, SnapshotVolumes) {
    Start();
    Serial vd{};
    sim->WithModel([&](Model& m) { vd = m.subsystems()[0].vdisks[0].serial; });
    std::vector<uint8_t> r = AddPart(kA, vd.data(), 1ull << 30, "store", TROV_PART_BACKING_STORE);
    ASSERT_EQ(ErrorOf(r), 0u);
    ASSERT_TRUE(Send<req::GetBackingStoreList>(
        cmd::kGetBackingStores, [&](auto& p) { p.head.handle = kA, p.controllerId = 1; }, &r));
    const auto* stores = As<req::GetBackingStoreList>(r);
    ASSERT_NE(stores, nullptr);
    ASSERT_EQ(stores->count, 1u);
    const BackingStoreEntry bs = Take<BackingStoreEntry>(stores->entries[0]);
    EXPECT_EQ(std::memcmp(bs.vdiskSerial, vd.data(), 16), 0);
    uint8_t bsKey[32] = {};
    std::memcpy(bsKey, bs.id, 16);
    r = AddPart(kA, vd.data(), 1ull << 30, "master", TROV_PART_MASTER_VOLUME, bsKey);
    ASSERT_EQ(ErrorOf(r), 0u);

    ASSERT_TRUE(Send<req::GetMasterVolumeList>(
        cmd::kGetMasterVolumes, [&](auto& p) { p.head.handle = kA, p.byteA = 1, p.byteB = 1; }, &r));
    const auto* masters = As<req::GetMasterVolumeList>(r);
    ASSERT_NE(masters, nullptr);
    ASSERT_EQ(masters->count, 1u);
    const VolumeEntry mv = Take<VolumeEntry>(masters->entries[0]);
    ASSERT_TRUE(Send<req::GetDmsTag>(cmd::kGetDmsTag, [&](auto& p) { p.head.handle = kA, p.controllerId = 1; }, &r));
    ASSERT_NE(As<req::GetDmsTag>(r), nullptr);
    uint64_t tag = As<req::GetDmsTag>(r)->tag;
    auto snap = [&](uint64_t t, const char* name) {
        EXPECT_TRUE(Send<req::CreateSnapshot>(
            cmd::kCreateSnapshot,
            [&](req::CreateSnapshot& p) {
                p.head.handle = kA;
                p.byte2 = 3, p.two50 = 2, p.one51 = 1;
                p.tag = t;
                std::memcpy(p.masterId, mv.id, 16);
                PutText(p.name, name);
            },
            &r));
        return ErrorOf(r);
    };
    EXPECT_EQ(snap(tag + 1, "stale"), uint32_t(kErrStaleTag));
    ASSERT_EQ(snap(tag, "VDS_SS_LUN_0"), 0u);
    ASSERT_NE(As<req::CreateSnapshot>(r), nullptr);
    const SnapshotResult result = Take<SnapshotResult>(As<req::CreateSnapshot>(r)->result);
    EXPECT_EQ(wire::LoadBe32(&result.numElements), 1u);
    auto cd = Controller(kA);
    const PartitionData& made = Cd(cd).partition(0, 5);
    EXPECT_EQ(made.partitionType, TROV_PART_SNAPSHOT);
    EXPECT_EQ(std::memcmp(made.PartSn, result.serials[0], 32), 0);
    // The master's snapshots, by its key.
    ASSERT_TRUE(Send<req::GetSnapshotList>(
        cmd::kGetSnapshots,
        [&](auto& p) {
            p.head.handle = kA, p.byteA = 5, p.byteB = 1;
            std::memcpy(p.key, Cd(cd).partition(0, 4).PartSn, 32);
        },
        &r));
    ASSERT_NE(As<req::GetSnapshotList>(r), nullptr);
    EXPECT_EQ(As<req::GetSnapshotList>(r)->count, 1u);
    // A master with a snapshot isn't turned back into a standard volume.
    ASSERT_TRUE(Send<req::ConvertMasterVolume>(
        cmd::kConvertMaster,
        [&](auto& p) {
            p.head.handle = kA, p.subcommand = 8;
            std::memcpy(p.serial, Cd(cd).partition(0, 4).PartSn, 32);
        },
        &r));
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
    ASSERT_TRUE(Send<req::GetEvent>(cmd::kGetEvent, [&](auto& p) { p.head.handle = kB, p.flagB = 1; }, &r));
    EXPECT_EQ(ErrorOf(r), uint32_t(kErrControllerDown));
    ASSERT_TRUE(Send<req::HandleAndByte>(cmd::kRescanBus, [&](auto& p) { p.head.handle = 0x1234; }, &r));
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
