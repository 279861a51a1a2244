// The emulated array's rules, without any network: capacity, keys, free segments, views, events,
// utilities and the scenario form.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <functional>

#include <nlohmann/json.hpp>

#include "sim/model.h"

using namespace trovsim;
using nlohmann::json;

namespace {

// A small array: 10 SAS drives of 100 GiB usable-ish, 2 SATA drives; one subsystem.
json SmallScenario() {
    json s;
    s["uniqueSN"] = "00C0FF000001";
    s["maxArrayPartitions"] = 1024;
    s["controllers"] = json::array({json{{"handle", 11}}, json{{"handle", 12}}});
    json drives = json::array();
    for (int i = 0; i < 10; ++i)
        drives.push_back({{"serial", "SAS" + std::to_string(i)}, {"type", "SAS"}, {"sizeGiB", 101}});
    drives.push_back({{"serial", "SATA0"}, {"type", "SATA"}, {"sizeGiB", 101}});
    drives.push_back({{"serial", "SATA1"}, {"type", "SATA"}, {"sizeGiB", 101}});
    s["drives"] = drives;
    return json{{"subsystems", json::array({s})}, {"timing", {{"expansionMs", 10000}, {"rebuildMs", 4000}}}};
}

struct ModelTest : ::testing::Test {
    Model m;
    CtrlRef a, b;
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(m.Load(SmallScenario(), &err)) << err;
        a = m.FindController(11);
        b = m.FindController(12);
        ASSERT_TRUE(a && b);
    }
    Subsystem& sub() { return m.subsystems()[0]; }
    Vdisk* Make(CtrlRef c, uint8_t raid, std::vector<std::string> drives, const std::string& name, uint32_t spares = 0) {
        CreateArrayArgs args;
        args.serials = std::move(drives);
        args.raid = raid;
        args.numSpares = spares;
        args.name = name;
        Vdisk* v = nullptr;
        EXPECT_EQ(m.CreateArray(c, args, &v), kOk);
        return v;
    }
    Serial AddPart(CtrlRef c, Vdisk* v, uint64_t mib, const std::string& name, uint32_t expect = kOk) {
        PartRef p;
        EXPECT_EQ(m.AddPartition(c, v->serial, mib * kMiBBlocks, name, 0, Serial{}, &p), expect) << name;
        return p ? p.p()->serial : Serial{};
    }
    const EventRecord& Newest(CtrlRef c) {
        const EventRecord* e = m.NewestEvent(c);
        EXPECT_NE(e, nullptr);
        static EventRecord none;
        return e ? *e : none;
    }
};

// ---------------------------------------------------------------------------------------------

TEST(ModelRules, CapacityByRaidLevel) {
    const uint64_t u = 1000 * kMiBBlocks;
    struct Row {
        uint8_t raid;
        uint32_t n, dpl;
        uint64_t want;
    } rows[] = {
        {kRaid0, 4, 0, 4 * u},  {kNRaid, 1, 0, u},      {kRaid1, 2, 0, u},      {kRaid10, 6, 0, 3 * u},
        {kRaid3, 5, 0, 4 * u},  {kRaid5, 3, 0, 2 * u},  {kRaid6, 6, 0, 4 * u},  {kRaid50, 6, 3, 4 * u},
        {kRaid50, 12, 4, 9 * u}, {kRaid30, 9, 3, 6 * u}, {kRaid51, 8, 0, 3 * u},
    };
    for (const Row& r : rows)
        EXPECT_EQ(Model::CapacityFor(r.raid, r.n, r.dpl, u), r.want) << "raid " << int(r.raid) << " n " << r.n;
    // Capacity comes in whole MiB.
    EXPECT_EQ(Model::CapacityFor(kRaid0, 2, 0, kMiBBlocks + 7), 2 * kMiBBlocks);
}

TEST(ModelRules, UsableBlocksHoldsBackOverhead) {
    Model m;
    Subsystem s;
    Drive d;
    d.blocks = 2097152;  // 1 GiB: 16 MiB held back
    EXPECT_EQ(m.UsableBlocks(s, d), 2064384u);
    s.overheadPerMille = 25;  // counts in steps of ten: 20 per mille, then down to 64 KiB
    EXPECT_EQ(m.UsableBlocks(s, d), 2022400u);
    d.blocks = 100;  // smaller than what is held back
    EXPECT_EQ(m.UsableBlocks(s, d), 0u);
}

TEST_F(ModelTest, DrivesCarryTheVdiskKey) {
    // Pointers into the vdisk list don't survive the next creation: keep the serials.
    Vdisk* v1 = Make(a, kRaid5, {"SAS0", "SAS1", "SAS2"}, "one");
    ASSERT_TRUE(v1);
    Serial s1 = v1->serial;
    Vdisk* v2 = Make(b, kRaid1, {"SAS3", "SAS4"}, "two");
    ASSERT_TRUE(v2);
    Serial s2 = v2->serial;
    auto k1 = Model::ArrayKey(s1), k2 = Model::ArrayKey(s2);
    EXPECT_NE(k1, k2);
    EXPECT_EQ(k1[0], s1[3]);
    EXPECT_EQ(k1[3], s1[8]);
    EXPECT_EQ(k1[6], s1[11]);
    for (const Drive& d : sub().drives) {
        Vdisk* v = d.vdiskId ? m.FindVdiskById(sub(), d.vdiskId) : nullptr;
        Serial got = v ? v->serial : Serial{};
        if (d.serial == "SAS0" || d.serial == "SAS2") {
            EXPECT_EQ(got, s1);
        } else if (d.serial == "SAS4") {
            EXPECT_EQ(got, s2);
        } else if (d.serial == "SAS5") {
            EXPECT_EQ(v, nullptr);
        }
    }
    // Owners: the controller the command went to.
    EXPECT_EQ(m.VdisksOf(sub(), 0).size(), 1u);
    EXPECT_EQ(m.VdisksOf(sub(), 1).size(), 1u);

    // A second model from the same scenario, with the same history, makes the same keys.
    Model again;
    ASSERT_TRUE(again.Load(SmallScenario(), nullptr));
    CreateArrayArgs args;
    args.serials = {"SAS0", "SAS1", "SAS2"};
    args.name = "one";
    Vdisk* v = nullptr;
    ASSERT_EQ(again.CreateArray(again.FindController(11), args, &v), kOk);
    EXPECT_EQ(v->serial, s1);
}

TEST_F(ModelTest, CreateArrayRefusals) {
    struct Case {
        uint8_t raid;
        std::vector<std::string> drives;
        uint32_t spares;
        uint32_t want;
    } cases[] = {
        {kRaid1, {"SAS0", "SAS1", "SAS2"}, 0, kErrBadRaidConfig},
        {kRaid5, {"SAS0", "SAS1"}, 0, kErrBadRaidConfig},
        {kRaid10, {"SAS0", "SAS1", "SAS2"}, 0, kErrBadRaidConfig},
        {kRaid6, {"SAS0", "SAS1", "SAS2"}, 0, kErrBadRaidConfig},
        {kRaid5, {"SAS0", "SAS1", "SATA0"}, 0, kErrMixedDrives},
        {kRaid5, {"SAS0", "SAS1", "NOPE"}, 0, kErrNotFound},
        {kRaid5, {"SAS0", "SAS0", "SAS1"}, 0, kErrDriveUnavailable},
        {kRaid5, {"SAS0", "SAS1", "SAS2", "SAS3"}, 1, kOk},
    };
    for (const Case& c : cases) {
        CreateArrayArgs args;
        args.serials = c.drives;
        args.raid = c.raid;
        args.numSpares = c.spares;
        args.name = "x";
        EXPECT_EQ(m.CreateArray(a, args, nullptr), c.want) << "raid " << int(c.raid);
    }
    // The last one made a vdisk with a dedicated spare; its drives are taken now.
    Vdisk& v = sub().vdisks.at(0);
    EXPECT_EQ(v.members.size(), 3u);
    EXPECT_EQ(v.spares, std::vector<std::string>{"SAS3"});
    EXPECT_EQ(m.FindDrive(sub(), "SAS3")->howUsed, kDedicatedSpare);
    CreateArrayArgs again;
    again.serials = {"SAS0", "SAS5", "SAS6"};
    again.name = "y";
    EXPECT_EQ(m.CreateArray(a, again, nullptr), kErrDriveUnavailable);
    again.serials = {"SAS5", "SAS6", "SAS7"};
    again.name = "x";  // names are unique
    EXPECT_EQ(m.CreateArray(a, again, nullptr), kErrBadName);
}

TEST_F(ModelTest, PartitionsFillFreeSegmentsAndLeaveHoles) {
    Vdisk* v = Make(a, kRaid0, {"SAS0", "SAS1"}, "stripe");
    ASSERT_TRUE(v);
    uint64_t cap = v->capacity;
    ASSERT_GT(cap, 300 * kMiBBlocks);
    Serial p1 = AddPart(a, v, 100, "p1");
    Serial p2 = AddPart(a, v, 50, "p2");
    AddPart(a, v, 30, "p3");
    FreeSpace f = Model::FreeOf(*v);
    EXPECT_EQ(f.segments, 1u);
    EXPECT_EQ(f.total, cap - 180 * kMiBBlocks);

    ASSERT_EQ(m.DeletePartition(a, p2), kOk);  // a hole of 50 MiB between p1 and p3
    f = Model::FreeOf(*v);
    EXPECT_EQ(f.segments, 2u);
    EXPECT_EQ(f.list.front(), std::make_pair(100 * kMiBBlocks, 50 * kMiBBlocks));
    EXPECT_EQ(f.largest, cap - 180 * kMiBBlocks);

    // First fit: 20 MiB goes into the hole, 60 MiB doesn't fit there and goes behind p3.
    Serial p4 = AddPart(a, v, 20, "p4");
    EXPECT_EQ(m.FindPartition(sub(), p4).p()->start, 100 * kMiBBlocks);
    Serial p5 = AddPart(a, v, 60, "p5");
    EXPECT_EQ(m.FindPartition(sub(), p5).p()->start, 180 * kMiBBlocks);
    f = Model::FreeOf(*v);
    EXPECT_EQ(f.segments, 2u);
    EXPECT_EQ(f.list.front().second, 30 * kMiBBlocks);

    // Too small, too large, and growth into the segment behind only.
    PartRef out;
    EXPECT_EQ(m.AddPartition(a, v->serial, kMiBBlocks - 1, "tiny", 0, Serial{}, &out), kErrTooSmall);
    EXPECT_EQ(m.AddPartition(a, v->serial, cap, "huge", 0, Serial{}, &out), kErrNoSpace);
    EXPECT_EQ(m.ExpandPartition(a, Serial{}, p4, 50 * kMiBBlocks), kOk);     // takes the rest of the hole
    EXPECT_EQ(m.ExpandPartition(a, Serial{}, p4, 51 * kMiBBlocks), kErrNoSpace);
    EXPECT_EQ(m.ExpandPartition(a, Serial{}, p4, 10 * kMiBBlocks), kErrBadSize);
    EXPECT_EQ(m.ExpandPartition(a, v->serial, p4, 50 * kMiBBlocks), kOk);    // already that size
    EXPECT_EQ(m.ExpandPartition(a, p1, p4, 50 * kMiBBlocks), kErrNotFound);  // a serial that isn't its vdisk
    EXPECT_EQ(Model::FreeOf(*v).segments, 1u);
    // The other controller doesn't own it.
    EXPECT_EQ(m.AddPartition(b, v->serial, 10 * kMiBBlocks, "other", 0, Serial{}, &out), kErrNotOwner);
}

TEST_F(ModelTest, PartitionLimits) {
    sub().maxArrayPartitions = 20;  // ten a controller
    Vdisk* v = Make(a, kRaid0, {"SAS0", "SAS1"}, "stripe");
    for (int i = 0; i < 10; ++i) AddPart(a, v, 1, "p" + std::to_string(i));
    AddPart(a, v, 1, "p10", kErrControllerPartitionLimit);
    sub().maxArrayPartitions = 0;  // no controller limit: the vdisk's 128 applies
    for (int i = 10; i < 128; ++i) AddPart(a, v, 1, "p" + std::to_string(i));
    AddPart(a, v, 1, "p128", kErrVdiskPartitionLimit);
}

TEST_F(ModelTest, ViewsAndLunNumbers) {
    Vdisk* v = Make(a, kRaid0, {"SAS0", "SAS1"}, "stripe");
    Serial p1 = AddPart(a, v, 10, "p1");
    Serial p2 = AddPart(a, v, 10, "p2");
    Partition* part1 = m.FindPartition(sub(), p1).p();
    EXPECT_EQ(part1->LunNumber(), 0xFFFFFFFFu);

    Model::ViewChange def;
    def.part = p1;
    def.view.lun = 3;
    ASSERT_EQ(m.ChangeView(a, def), kOk);
    EXPECT_EQ(part1->defaultLun, 3);
    EXPECT_EQ(part1->LunNumber(), 3u);

    // LUN 3 is taken for every host now; p2 gets a custom view under 3 refused, under 4 taken.
    Model::ViewChange host;
    host.part = p2;
    host.hasHost = true;
    host.view.host = "iqn.2004-01.com.x:h1";
    host.view.lun = 3;
    EXPECT_EQ(m.ChangeView(a, host), kErrLunInUse);
    host.view.lun = 4;
    ASSERT_EQ(m.ChangeView(a, host), kOk);
    Partition* part2 = m.FindPartition(sub(), p2).p();
    EXPECT_EQ(part2->views.size(), 1u);
    EXPECT_EQ(part2->LunNumber(), 4u);
    EXPECT_EQ(sub().knownHosts.back(), "iqn.2004-01.com.x:h1");
    // Another host may use 4 on another partition? No: p1 presents 3 to all, and a second host on
    // p1 under 4 collides with nobody but p2's host h1.
    Model::ViewChange other = host;
    other.part = p1;
    other.view.host = "iqn.2004-01.com.x:h2";
    EXPECT_EQ(m.ChangeView(a, other), kOk);
    other.view.host = "iqn.2004-01.com.x:h1";
    EXPECT_EQ(m.ChangeView(a, other), kErrLunInUse);

    // Removal of one host, then of everything.
    Model::ViewChange rm = host;
    rm.create = false;
    ASSERT_EQ(m.ChangeView(a, rm), kOk);
    EXPECT_TRUE(part2->views.empty());
    Model::ViewChange all;
    all.part = p1;
    all.create = false;
    all.removeAll = true;
    ASSERT_EQ(m.ChangeView(a, all), kOk);
    EXPECT_EQ(part1->defaultLun, -1);
    EXPECT_TRUE(part1->views.empty());

    // 128 custom views fit, the 129th doesn't.
    for (int i = 0; i < 128; ++i) {
        Model::ViewChange vc = host;
        vc.part = p2;
        vc.view.host = "iqn.2004-01.com.x:n" + std::to_string(i);
        vc.view.lun = 7;
        ASSERT_EQ(m.ChangeView(a, vc), kOk) << i;
    }
    host.view.host = "iqn.2004-01.com.x:last";
    host.view.lun = 7;
    EXPECT_EQ(m.ChangeView(a, host), kErrViewLimit);
}

TEST_F(ModelTest, EveryChangeWritesItsEvent) {
    Vdisk* v = Make(b, kRaid5, {"SAS0", "SAS1", "SAS2"}, "evs");
    EXPECT_EQ(Newest(b).code, kEvVdiskCreated);
    EXPECT_EQ(Newest(b).partitionSerial, v->serial);
    EXPECT_EQ(m.NewestEvent(a), nullptr);  // A's log is untouched

    Serial p = AddPart(b, v, 10, "vol");
    const EventRecord& created = Newest(b);
    EXPECT_EQ(created.code, kEvVolumeCreated);
    EXPECT_EQ(created.partitionSerial, p);
    EXPECT_EQ(created.controllerHandle, 12u);
    EXPECT_EQ(created.owner, 0);
    uint32_t seq = created.sequence;

    struct Step {
        std::function<uint32_t()> change;
        uint32_t code;
    } steps[] = {
        {[&] { return m.SetPartitionName(b, p, "renamed"); }, kEvVolumeModified},
        {[&] {
             Model::ViewChange vc;
             vc.part = p;
             vc.view.lun = 1;
             return m.ChangeView(b, vc);
         },
         kEvVolumeMapping},
        {[&] { return m.BlinkDrive(b, "SAS5", true); }, kEvLocateLight},
        {[&] { return m.AssignSpare(b, "SAS6", true); }, kEvSpareAdded},
        {[&] { return m.RescanBus(b); }, kEvRescanDone},
        {[&] { return m.DeletePartition(b, p); }, kEvVolumeDeleted},
        {[&] { return m.DeleteArray(b, v->serial); }, kEvVdiskDeleted},
    };
    for (Step& st : steps) {
        ASSERT_EQ(st.change(), kOk);
        EXPECT_EQ(Newest(b).code, st.code);
        EXPECT_EQ(Newest(b).sequence, ++seq);
    }
    EXPECT_EQ(m.FindDrive(sub(), "SAS0")->howUsed, kAvailable);  // freed with the vdisk
    // The range read returns oldest first and stops at the newest.
    auto list = m.EventsBetween(b, seq - 2, seq + 50, 100);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list.front()->sequence, seq - 2);
    EXPECT_EQ(list.back()->code, kEvVdiskDeleted);
    EXPECT_EQ(m.EventsBetween(b, 1, 1000, 2).size(), 2u);
}

TEST_F(ModelTest, ControllerFailoverAndDriveLoss) {
    Vdisk* v = Make(a, kRaid5, {"SAS0", "SAS1", "SAS2"}, "r5");
    Serial vs = v->serial;
    ASSERT_EQ(m.SetControllerOffline(a, true), kOk);
    const EventRecord& down = Newest(b);
    EXPECT_EQ(down.code, kEvControllerDown);
    EXPECT_EQ(down.param, 2u);
    EXPECT_EQ(down.controllerHandle, 11u);
    EXPECT_EQ(m.FindVdisk(sub(), vs)->owner, 0);  // moved to B
    EXPECT_EQ(sub().ctrl[0].state, 1);
    EXPECT_EQ(m.AddPartition(a, vs, kMiBBlocks, "x", 0, Serial{}, nullptr), kErrControllerDown);
    ASSERT_EQ(m.SetControllerOffline(a, false), kOk);
    EXPECT_EQ(Newest(b).code, kEvControllerUp);
    EXPECT_EQ(m.FindVdisk(sub(), vs)->owner, 1);  // and back

    // A member goes: the vdisk is critical, the pool spare takes the slot and rebuilds.
    ASSERT_EQ(m.AssignSpare(a, "SAS9", true), kOk);
    ASSERT_EQ(m.SetDriveOffline(sub(), "SAS1", true), kOk);
    v = m.FindVdisk(sub(), vs);
    EXPECT_EQ(v->health, 1);
    EXPECT_EQ(v->utility, kUtilRebuild);
    EXPECT_EQ(v->members[1], "SAS9");
    EXPECT_EQ(Newest(a).code, kEvRebuildStarted);
    bool sawDriveDown = false;
    for (auto* e : m.EventsBetween(a, 1, 1000, 1000))
        sawDriveDown |= e->code == kEvDriveDown && SerialText(e->driveSerial) == "SAS1";
    EXPECT_TRUE(sawDriveDown);
    m.AdvanceBy(2000);
    EXPECT_EQ(m.PercentOf(*v), 50u);
    m.AdvanceBy(2000);
    EXPECT_EQ(v->utility, kUtilNone);
    EXPECT_EQ(v->health, 0);
    // The lost drive comes back as a leftover.
    ASSERT_EQ(m.SetDriveOffline(sub(), "SAS1", false), kOk);
    EXPECT_EQ(m.FindDrive(sub(), "SAS1")->howUsed, kLeftover);
}

TEST_F(ModelTest, ExpansionAdvancesWithTheClock) {
    Vdisk* v = Make(a, kRaid5, {"SAS0", "SAS1", "SAS2"}, "grow");
    AddPart(a, v, 10, "vol");
    uint64_t before = v->capacity;
    Drive* d3 = m.FindDrive(sub(), "SAS3");
    ASSERT_EQ(m.ExpandArray(a, v->serial, {{d3->channel, d3->scsiId}}), kOk);
    EXPECT_EQ(v->utility, kUtilExpansion);
    EXPECT_EQ(m.PercentOf(*v), 0u);
    EXPECT_EQ(v->capacity, before);  // the space comes at the end
    EXPECT_EQ(m.ExpandArray(a, v->serial, {{d3->channel, d3->scsiId}}), kErrUtilityRunning);
    EXPECT_EQ(m.AbortUtility(a, v->serial), kErrCannotAbort);
    m.AdvanceBy(2500);
    EXPECT_EQ(m.PercentOf(*v), 25u);
    m.AdvanceBy(7499);
    EXPECT_EQ(m.PercentOf(*v), 99u);
    m.AdvanceBy(1);
    EXPECT_EQ(m.PercentOf(*v), 100u);
    EXPECT_EQ(v->utility, kUtilNone);
    EXPECT_EQ(v->capacity, before / 2 * 3);
    EXPECT_EQ(Newest(a).code, kEvExpansionDone);
    // The new space joins the free segment at the end.
    EXPECT_EQ(Model::FreeOf(*v).segments, 1u);
    // A verify can be aborted.
    ASSERT_EQ(m.StartUtility(sub(), v->serial, kUtilVerify), kOk);
    EXPECT_EQ(m.AbortUtility(a, v->serial), kOk);
    EXPECT_EQ(Newest(a).code, kEvUtilityAborted);
}

TEST_F(ModelTest, SnapshotsAndTheirLimits) {
    Vdisk* v = Make(a, kRaid0, {"SAS0", "SAS1"}, "snaps");
    PartRef bs, mv;
    ASSERT_EQ(m.AddPartition(a, v->serial, 10 * kMiBBlocks, "bs", 1, Serial{}, &bs), kOk);
    Serial bsSerial = bs.p()->serial;
    ASSERT_EQ(m.AddPartition(a, v->serial, 10 * kMiBBlocks, "mv", 2, bsSerial, &mv), kOk);
    Serial mvSerial = mv.p()->serial;
    sub().snapshotsPerMaster = 2;
    uint64_t tag = sub().ctrl[0].dmsTag;
    EXPECT_EQ(m.CreateSnapshot(a, "s0", tag + 5, mvSerial.data(), nullptr), kErrStaleTag);
    PartRef snap;
    ASSERT_EQ(m.CreateSnapshot(a, "s1", tag, mvSerial.data(), &snap), kOk);
    EXPECT_EQ(snap.p()->type, 3);
    EXPECT_EQ(snap.p()->master, mvSerial);
    ASSERT_EQ(m.CreateSnapshot(a, "s2", tag + 1, mvSerial.data(), nullptr), kOk);
    EXPECT_EQ(m.CreateSnapshot(a, "s3", tag + 2, mvSerial.data(), nullptr), kErrSnapshotsPerMaster);
    sub().snapshotsPerMaster = 10;
    sub().snapshotLimit = 2;
    EXPECT_EQ(m.CreateSnapshot(a, "s3", tag + 2, mvSerial.data(), nullptr), kErrSnapshotLimit);
    // A snapshot takes no space; the master can't be converted or deleted while it has some.
    EXPECT_EQ(Model::FreeOf(*v).total, v->capacity - 20 * kMiBBlocks);
    EXPECT_EQ(m.ConvertMasterVolume(a, 8, mvSerial, nullptr), kErrInUse);
    EXPECT_EQ(m.DeletePartition(a, mvSerial), kErrInUse);
    EXPECT_EQ(m.DeletePartition(a, bsSerial), kErrInUse);
}

TEST(ModelScenario, BuiltinsLoadAndSaveRoundTrips) {
    for (const char* name : {"demo", "max"}) {
        Model m;
        std::string err;
        ASSERT_TRUE(m.LoadBuiltin(name, &err)) << err;
        json saved = m.Save();
        Model again;
        ASSERT_TRUE(again.Load(saved, &err)) << err;
        EXPECT_EQ(again.Save(), saved) << name;
    }
    Model demo;
    ASSERT_TRUE(demo.LoadBuiltin("demo", nullptr));
    Subsystem& s = demo.subsystems()[0];
    EXPECT_EQ(s.drives.size(), 12u);
    EXPECT_EQ(s.vdisks.size(), 2u);
    EXPECT_EQ(s.ctrl[0].ports.size(), 2u);
    EXPECT_EQ(s.vdisks[0].parts[0].views.size(), 1u);

    Model max;
    ASSERT_TRUE(max.LoadBuiltin("max", nullptr));
    Subsystem& x = max.subsystems()[0];
    EXPECT_EQ(x.drives.size(), kMaxDrives);
    EXPECT_EQ(x.vdisks.size(), 32u);
    size_t parts = 0;
    for (auto& v : x.vdisks) parts += v.parts.size();
    EXPECT_EQ(parts, 32u * 128u);
    EXPECT_EQ(x.ctrl[1].ports.size(), kMaxPorts);
}

TEST(ModelScenario, MalformedDocumentsAreRefused) {
    const char* bad[] = {
        R"({})",
        R"({"subsystems": []})",
        R"({"subsystems": [{"drives": [{"serial": "a", "sizeGiB": 1}, {"serial": "a", "sizeGiB": 1}]}]})",
        R"({"subsystems": [{"drives": [{"serial": "a"}]}]})",
        R"({"subsystems": [{"vdisks": [{"members": ["nope"]}]}]})",
        R"({"subsystems": [{"controllers": [{"handle": 5}, {"handle": 5}]}]})",
        R"({"subsystems": [{"drives": [{"serial": "a", "sizeGiB": 1, "type": "TAPE"}]}]})",
        R"({"subsystems": [{"uniqueSN": "X1", "serialPrefix": "010203"}, {"uniqueSN": "X2", "serialPrefix": "010203"}]})",
    };
    for (const char* text : bad) {
        Model m;
        std::string err;
        EXPECT_FALSE(m.Load(json::parse(text), &err)) << text;
        EXPECT_FALSE(err.empty());
    }
}

TEST(ModelScenario, SeveralSubsystemsKeepApart) {
    json doc = json::parse(R"({"subsystems": [
        {"uniqueSN": "SUB-ONE", "drives": [{"serial": "d1", "sizeGiB": 10}, {"serial": "d2", "sizeGiB": 10}],
         "vdisks": [{"name": "v", "raid": 1, "members": ["d1", "d2"]}]},
        {"uniqueSN": "SUB-TWO", "drives": [{"serial": "d1", "sizeGiB": 10}, {"serial": "d2", "sizeGiB": 10}],
         "vdisks": [{"name": "v", "raid": 1, "members": ["d1", "d2"]}]}]})");
    Model m;
    std::string err;
    ASSERT_TRUE(m.Load(doc, &err)) << err;
    ASSERT_EQ(m.subsystems().size(), 2u);
    Subsystem& one = m.subsystems()[0];
    Subsystem& two = m.subsystems()[1];
    EXPECT_NE(one.ctrl[0].handle, two.ctrl[0].handle);
    EXPECT_EQ(m.FindController(two.ctrl[1].handle).sub, &two);
    // The same names and ids, yet different serials and keys.
    EXPECT_NE(one.vdisks[0].serial, two.vdisks[0].serial);
    EXPECT_NE(Model::ArrayKey(one.vdisks[0].serial), Model::ArrayKey(two.vdisks[0].serial));
    EXPECT_EQ(m.FindSubsystem("SUB-TWO"), &two);
}

TEST_F(ModelTest, NamesFromTheWireThatAreNotUtf8AreSaved) {
    Vdisk* v = Make(a, kRaid0, {"SAS0", "SAS1"}, "stripe");
    AddPart(a, v, 1, "bad\xff\xfe");
    char path[] = "/tmp/trovsim-utf8-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string err;
    EXPECT_TRUE(m.SaveFile(path, &err)) << err;
    Model again;
    EXPECT_TRUE(again.LoadFile(path, &err)) << err;
    std::remove(path);
    // The bytes that are no UTF-8 come back replaced, the rest of the name as it was.
    ASSERT_EQ(again.subsystems()[0].vdisks.size(), 1u);
    ASSERT_EQ(again.subsystems()[0].vdisks[0].parts.size(), 1u);
    EXPECT_EQ(again.subsystems()[0].vdisks[0].parts[0].name, "bad\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace
