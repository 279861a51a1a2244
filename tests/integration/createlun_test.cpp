// Creating LUNs through the module against the emulator: a partition of an old vdisk (first fit,
// the dummy volume leaving), a new vdisk (drive search, drive count by size, RAID families, spares,
// stripe, controller A before B, the retry of create_array), snapshots, master volumes and dummy
// requests; the refusals of the ladders and of the array; faults between the commands. Each case
// checks the provider's tree and the emulator's model, and that the ids stand after the array's
// event and the refresh.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "lab.h"
#include "objects/pool.h"

using lab::Lab;
using lab::MiB;

namespace {

constexpr uint32_t kAddPart = cmd::kAddArrayPart.opcode;
constexpr uint32_t kCreateArray = cmd::kCreateArray.opcode;

bool IsNew(const trovsim::Vdisk& v) { return v.name.rfind("VDS_VDISK_", 0) == 0; }

std::vector<std::string> Sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

class CreateLun : public Lab {};

TEST_F(CreateLun, APartitionGoesIntoTheFirstVdiskOfTheTypeWithRoom) {
    size_t vdisks = VdiskCount();
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_RAID5, 1048577, {}, 0, 0, 0, &lun), S_OK);
    lab::LunFacts f = Facts(lun);
    // Rounded up to a whole MiB, named by the provider, on the RAID5 vdisk.
    EXPECT_EQ(f.prop.ullSize, 2 * MiB);
    EXPECT_EQ(f.name, "VDS_LUN_0");
    EXPECT_EQ(f.prop.type, VDS_LT_RAID5);
    EXPECT_EQ(f.plexes.size(), 1u);
    lab::VdiskFacts vd = VdiskNamed("VD-R5");
    ASSERT_NE(vd.PartNamed("VDS_LUN_0"), nullptr);
    EXPECT_EQ(vd.PartNamed("VDS_LUN_0")->bytes, 2 * MiB);
    EXPECT_EQ(VdiskCount(), vdisks);
    // In the tree at once; the free drives stay free.
    EXPECT_EQ(Luns().count("VDS_LUN_0"), 1u);
    EXPECT_EQ(DriveFlags2("S06") & VDS_DRF_ASSIGNED, 0u);

    VDS_OBJECT_ID id = f.prop.id, plex = f.plexIds[0];
    MonitorPassAndRefresh();
    auto after = Luns();
    ASSERT_EQ(after.count("VDS_LUN_0"), 1u);
    EXPECT_EQ(after["VDS_LUN_0"].prop.id, id);
    EXPECT_EQ(after["VDS_LUN_0"].plexIds, std::vector<VDS_OBJECT_ID>{plex});
    EXPECT_EQ(after["VDS_LUN_0"].prop.ullSize, 2 * MiB);
}

TEST_F(CreateLun, TheFirstPartitionOfAVdiskReplacesItsDummyVolume) {
    auto before = Luns();
    ASSERT_EQ(before.count("VD-EMPTY(DummyVolume)"), 1u);
    VDS_OBJECT_ID dummy = before["VD-EMPTY(DummyVolume)"].prop.id;
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_STRIPE, 0, {}, 0, 0, 0, &lun), S_OK);
    lab::LunFacts f = Facts(lun);
    lab::VdiskFacts vd = VdiskNamed("VD-EMPTY");
    ASSERT_EQ(vd.parts.size(), 1u);
    // Size 0: the whole largest segment.
    EXPECT_EQ(vd.parts[0].bytes, f.prop.ullSize);
    EXPECT_EQ(f.prop.ullSize, 2 * lab::kSasUsable);
    auto now = Luns();
    EXPECT_EQ(now.count("VD-EMPTY(DummyVolume)"), 0u);
    CComPtr<IUnknown> gone;
    EXPECT_EQ(provider()->GetObject(dummy, VDS_OT_LUN, &gone), VDS_E_OBJECT_NOT_FOUND);
    MonitorPassAndRefresh();
    auto after = Luns();
    EXPECT_EQ(after.count("VD-EMPTY(DummyVolume)"), 0u);
    EXPECT_EQ(after[f.name].prop.id, f.prop.id);
}

TEST_F(CreateLun, NamedDrivesUseTheVdiskOfExactlyThoseMembers) {
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_RAID5, 8 * MiB, Drives({"S03", "S01", "S02", "S00"}), 0, 0, 0, &lun), S_OK);
    EXPECT_NE(VdiskNamed("VD-R5").PartNamed(Facts(lun).name), nullptr);
    // Not all of them, or one more: a new vdisk is needed, and the members are not free.
    EXPECT_EQ(Create(VDS_LT_RAID5, 8 * MiB, Drives({"S00", "S01", "S02"})), VDS_E_DEVICE_IN_USE);
    EXPECT_EQ(Create(VDS_LT_RAID5, 8 * MiB, Drives({"S00", "S01", "S02", "S03", "S06"})), VDS_E_DEVICE_IN_USE);
    // A parity request finds no parity vdisk: on this host a RAID5 vdisk is of the RAID5 type.
    EXPECT_EQ(Create(VDS_LT_PARITY, 8 * MiB, Drives({"S00", "S01", "S02", "S03"}), 0, 3), VDS_E_DEVICE_IN_USE);
}

TEST_F(CreateLun, ANewVdiskTakesTheLargestTierAndAsManyDrivesAsTheSizeNeeds) {
    struct Case {
        VDS_LUN_TYPE type;
        uint64_t size;
        ULONG maxDrives;
        uint8_t raid;
        size_t members;
        uint32_t perLeg;
    } cases[] = {
        // Six free SAS drives (12 GiB) beat two SATA drives (8 GiB).
        {VDS_LT_PARITY, 5000 * MiB, 3, 5, 4, 0},  // three give 2 × 2032 MiB: one more
        {VDS_LT_RAID6, 0, 0, 11, 4, 0},
        {VDS_LT_MIRROR, 0, 0, 1, 2, 0},
        {VDS_LT_MIRROR, 3000 * MiB, 0, 10, 4, 0},  // two by two; four drives make the wire's RAID10
        {VDS_LT_STRIPE, 5000 * MiB, 0, 0, 3, 0},
        {VDS_LT_RAID50, 0, 0, 8, 6, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " size " << c.size);
        // VD-EMPTY would take a stripe: it goes first.
        env.sim->WithModel([](trovsim::Model& m) {
            auto& vds = m.subsystems()[0].vdisks;
            for (auto& v : vds)
                if (v.name == "VD-EMPTY") v.raid = 3;
            m.Touch(m.subsystems()[0]);
        });
        CComPtr<IVdsLun> lun;
        ASSERT_EQ(Create(c.type, c.size, {}, 0, c.maxDrives, 0, &lun), S_OK);
        lab::LunFacts f = Facts(lun);
        lab::VdiskFacts vd = VdiskWithPart(f.name);
        ASSERT_TRUE(vd.found);
        EXPECT_EQ(vd.raid, c.raid);
        EXPECT_EQ(vd.members.size(), c.members);
        EXPECT_EQ(vd.drivesPerLeg, c.perLeg);
        EXPECT_EQ(vd.owner, 1);  // controller A first
        for (const std::string& m : vd.members) EXPECT_EQ(m[0], 'S') << m;
        if (c.size) {
            EXPECT_EQ(vd.parts[0].bytes, c.size);
        }
        // Two plexes for a mirror; on this host a RAID10 vdisk is of the RAID10 type, with one.
        EXPECT_EQ(f.plexes.size(), c.raid == 1 ? 2u : 1u);
        // The members are no longer free in the tree, before any refresh.
        for (const std::string& m : vd.members) EXPECT_NE(DriveFlags2(m) & VDS_DRF_ASSIGNED, 0u) << m;
        // And the next request finds them taken: start again from a fresh array.
        env.sim->WithModel([](trovsim::Model& m) {
            auto& vds = m.subsystems()[0].vdisks;
            for (auto& v : vds)
                if (IsNew(v)) {
                    for (auto& d : m.subsystems()[0].drives)
                        if (d.vdiskId == v.id) {
                            d.vdiskId = 0;
                            d.howUsed = 0;
                        }
                }
            vds.erase(std::remove_if(vds.begin(), vds.end(), IsNew), vds.end());
            m.Touch(m.subsystems()[0]);
        });
        ASSERT_EQ(provider()->Reenumerate(), S_OK);
    }
}

TEST_F(CreateLun, ANewMirrorKeepsItsIdsAndDrivesAfterTheEventAndTheRefresh) {
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_MIRROR, 100 * MiB, Drives({"T0", "T1"}), 0, 0, 0, &lun), S_OK);
    lab::LunFacts f = Facts(lun);
    ASSERT_EQ(f.plexes.size(), 2u);
    EXPECT_EQ(f.plexes[0].type, VDS_LPT_SIMPLE);
    lab::VdiskFacts vd = VdiskWithPart(f.name);
    EXPECT_EQ(vd.raid, 1);
    EXPECT_EQ(Sorted(vd.members), (std::vector<std::string>{"T0", "T1"}));
    ULONG flagsBefore = DriveFlags2("T0");
    EXPECT_NE(flagsBefore & VDS_DRF_ASSIGNED, 0u);
    VDS_OBJECT_ID t0 = Drive("T0");
    MonitorPassAndRefresh();
    auto after = Luns();
    ASSERT_EQ(after.count(f.name), 1u);
    EXPECT_EQ(after[f.name].prop.id, f.prop.id);
    std::set<VDS_OBJECT_ID, GuidLess> plexBefore(f.plexIds.begin(), f.plexIds.end());
    std::set<VDS_OBJECT_ID, GuidLess> plexAfter(after[f.name].plexIds.begin(), after[f.name].plexIds.end());
    EXPECT_EQ(plexAfter, plexBefore);
    EXPECT_EQ(Drive("T0"), t0);
    EXPECT_EQ(DriveFlags2("T0"), flagsBefore);
}

TEST_F(CreateLun, HotSpareStripeAndNamedDrives) {
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_RAID5, 0, Drives({"S06", "S07", "S08", "S09"}), VDS_HINT_ALLOCATEHOTSPARE, 0, 32768,
                     &lun),
              S_OK);
    lab::VdiskFacts vd = VdiskWithPart(Facts(lun).name);
    EXPECT_EQ(vd.raid, 5);
    // The last of the named drives (in the drive map's order) is the dedicated spare.
    ASSERT_EQ(vd.members.size(), 3u);
    ASSERT_EQ(vd.spares.size(), 1u);
    std::vector<std::string> all = vd.members;
    all.push_back(vd.spares[0]);
    EXPECT_EQ(Sorted(all), (std::vector<std::string>{"S06", "S07", "S08", "S09"}));
    EXPECT_EQ(vd.stripeKiB, 32u);
    EXPECT_EQ(vd.parts[0].bytes, 2 * lab::kSasUsable);
    EXPECT_NE(DriveFlags2(vd.spares[0]) & VDS_DRF_HOTSPARE, 0u);
    EXPECT_EQ(DriveFlags2(vd.members[0]) & VDS_DRF_HOTSPARE, 0u);
}

TEST_F(CreateLun, ADummyRequestMakesAVdiskWithoutAPartition) {
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_STRIPE, 0, Drives({"S10", "S11"}), TROV_HINT_DUMMY_LUN, 0, 0, &lun), S_OK);
    lab::LunFacts f = Facts(lun);
    EXPECT_EQ(f.prop.ullSize, 0u);
    EXPECT_NE(f.name.find("(DummyVolume)"), std::string::npos);
    lab::VdiskFacts vd = VdiskNamed(f.name.substr(0, f.name.find('(')));
    ASSERT_TRUE(vd.found);
    EXPECT_TRUE(vd.parts.empty());
    // A size with the dummy bit is refused; with special LUNs off it is an ordinary LUN.
    EXPECT_EQ(Create(VDS_LT_STRIPE, 8 * MiB, {}, TROV_HINT_DUMMY_LUN), VDS_E_NOT_SUPPORTED);
    env.tp.settings().SetDword(TROV_DEBUG_KEY, "DisabeSepcialLun", 1);
    EXPECT_EQ(Create(VDS_LT_STRIPE, 8 * MiB, {}, TROV_HINT_DUMMY_LUN), S_OK);
    // That took the new dummy's vdisk, the first stripe with room (VD-EMPTY is a stripe too,
    // and the first in the records).
}

TEST_F(CreateLun, SnapshotsAndMasterVolumes) {
    // The system's snapshot limit, then another refusal, which only passes the vdisk over.
    env.sim->FailOpcode(cmd::kCreateSnapshot.opcode, 187);
    EXPECT_EQ(Create(VDS_LT_RAID5, 0, {}, TROV_HINT_SNAPSHOT), VDS_E_PARTITION_LIMIT_REACHED);
    env.sim->FailOpcode(cmd::kCreateSnapshot.opcode, 27);
    EXPECT_EQ(Create(VDS_LT_RAID5, 0, {}, TROV_HINT_SNAPSHOT), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(VdiskNamed("VD-R5").parts.size(), 3u);
    CComPtr<IVdsLun> snap;
    ASSERT_EQ(Create(VDS_LT_RAID5, 0, {}, TROV_HINT_SNAPSHOT, 0, 0, &snap), S_OK);
    lab::LunFacts f = Facts(snap);
    // Each try took a fresh name: the refused ones stay used.
    EXPECT_EQ(f.name, "VDS_SS_LUN_2");
    lab::VdiskFacts vd = VdiskNamed("VD-R5");
    ASSERT_NE(vd.PartNamed(f.name), nullptr);
    EXPECT_EQ(vd.PartNamed(f.name)->type, 3);
    EXPECT_EQ(vd.PartNamed(f.name)->master, vd.PartNamed("mv")->serial);
    EXPECT_NE(f.prop.ulFlags & VDS_LF_SNAPSHOT, 0u);
    // One snapshot per master in this array: the next is the array's limit.
    EXPECT_EQ(Create(VDS_LT_RAID5, 0, {}, TROV_HINT_SNAPSHOT), VDS_E_PARTITION_LIMIT_REACHED);
    // A snapshot with a size, or one that would need a new vdisk.
    EXPECT_EQ(Create(VDS_LT_RAID5, 8 * MiB, {}, TROV_HINT_SNAPSHOT), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(Create(VDS_LT_MIRROR, 0, {}, TROV_HINT_SNAPSHOT), VDS_E_NOT_SUPPORTED);

    CComPtr<IVdsLun> master;
    ASSERT_EQ(Create(VDS_LT_RAID5, 16 * MiB, {}, TROV_HINT_MASTER_VOLUME, 0, 0, &master), S_OK);
    lab::LunFacts m = Facts(master);
    EXPECT_EQ(m.name, "VDS_MV_LUN_0");
    vd = VdiskNamed("VD-R5");
    ASSERT_NE(vd.PartNamed("VDS_MV_LUN_0"), nullptr);
    EXPECT_EQ(vd.PartNamed("VDS_MV_LUN_0")->type, 2);
    EXPECT_EQ(vd.PartNamed("VDS_MV_LUN_0")->backingStore, vd.PartNamed("bs")->serial);
    // Controller B has no backing store: a master volume on its stripe vdisk is refused.
    EXPECT_EQ(Create(VDS_LT_STRIPE, 16 * MiB, {}, TROV_HINT_MASTER_VOLUME), VDS_E_NOT_SUPPORTED);
    // A backing store volume.
    CComPtr<IVdsLun> store;
    ASSERT_EQ(Create(VDS_LT_STRIPE, 16 * MiB, {}, TROV_HINT_BACKING_STORE, 0, 0, &store), S_OK);
    lab::VdiskFacts stripe = VdiskNamed("VD-EMPTY");
    const lab::VdiskFacts::Part* sp = stripe.PartNamed("VDS_SP_LUN_0");
    ASSERT_NE(sp, nullptr);
    EXPECT_EQ(sp->type, 1);
}

TEST_F(CreateLun, TheArraysRefusalsOfAPartition) {
    struct Case {
        uint32_t error;
        HRESULT expect;
    } cases[] = {{78, VDS_E_VOLUME_TOO_SMALL}, {214, VDS_E_PARTITION_LIMIT_REACHED},
                 {215, VDS_E_PARTITION_LIMIT_REACHED}};
    for (const Case& c : cases) {
        env.sim->FailOpcode(kAddPart, c.error);
        EXPECT_EQ(Create(VDS_LT_RAID5, 8 * MiB), c.expect) << c.error;
    }
    EXPECT_EQ(VdiskNamed("VD-R5").parts.size(), 3u);
    // Another refusal: the search goes on, and with no other vdisk a new one is made.
    size_t vdisks = VdiskCount();
    env.sim->FailOpcode(kAddPart, 77);
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_RAID5, 8 * MiB, {}, 0, 0, 0, &lun), S_OK);
    EXPECT_EQ(VdiskCount(), vdisks + 1);
    EXPECT_TRUE(VdiskWithPart(Facts(lun).name).found);
}

TEST_F(CreateLun, CreateArrayIsTriedTwicePerController) {
    struct Case {
        int failures;
        HRESULT expect;
        uint8_t owner;
        const char* name;
    } cases[] = {
        {1, S_OK, 1, "VDS_VDISK_1"},  // the second try, with a fresh name, on A
        {2, S_OK, 0, "VDS_VDISK_4"},  // A failed twice: B
        {4, VDS_E_INTERNAL_ERROR, 0, nullptr},
    };
    for (const Case& c : cases) {
        size_t vdisks = VdiskCount();
        env.sim->FailOpcode(kCreateArray, 11, c.failures);
        CComPtr<IVdsLun> lun;
        // Size 0: each LUN fills its vdisk, so that the next needs a new one.
        EXPECT_EQ(Create(VDS_LT_MIRROR, 0, {}, 0, 0, 0, &lun), c.expect) << c.failures;
        if (c.expect != S_OK) {
            EXPECT_EQ(VdiskCount(), vdisks);
            continue;
        }
        lab::VdiskFacts vd = VdiskWithPart(Facts(lun).name);
        EXPECT_EQ(vd.owner, c.owner);
        EXPECT_EQ(vd.name, c.name);
    }
}

TEST_F(CreateLun, TheConnectionLostBetweenCreateArrayAndAddArrayPartLeavesTheVdisk) {
    size_t vdisks = VdiskCount();
    env.sim->CloseAtOpcode(kAddPart);
    EXPECT_EQ(Create(VDS_LT_MIRROR, 8 * MiB), VDS_E_INTERNAL_ERROR);
    // The vdisk stays on the array, without a partition; nothing was undone.
    ASSERT_EQ(VdiskCount(), vdisks + 1);
    lab::VdiskFacts vd = Vdisk(IsNew);
    ASSERT_TRUE(vd.found);
    EXPECT_TRUE(vd.parts.empty());
    // The monitor reconnects; the refresh shows the vdisk as its dummy volume.
    CheckEventsFromRAIDController(provider(), provider()->SubsystemList()[0]);
    MonitorPassAndRefresh();
    EXPECT_EQ(Luns().count(vd.name + "(DummyVolume)"), 1u);
}

TEST_F(CreateLun, LadderRefusals) {
    std::vector<VDS_OBJECT_ID> none;
    VDS_OBJECT_ID stranger{};
    CoCreateGuid(&stranger);
    struct Case {
        const char* what;
        VDS_LUN_TYPE type;
        ULONGLONG size;
        std::vector<VDS_OBJECT_ID> drives;
        ULONG maxDrives;
        ULONG stripe;
        HRESULT expect;
    } cases[] = {
        {"span", VDS_LT_SPAN, 0, none, 0, 0, VDS_E_NOT_SUPPORTED},
        {"below 1 MiB", VDS_LT_RAID5, 1048575, none, 0, 0, VDS_E_NOT_SUPPORTED},
        {"bad type", VDS_LT_RAID4, 0, none, 0, 0, E_INVALIDARG},
        {"bad stripe", VDS_LT_STRIPE, 0, none, 0, 131072, E_INVALIDARG},
        {"stripe on simple", VDS_LT_SIMPLE, 0, none, 0, 65536, VDS_E_NOT_SUPPORTED},
        {"mixed drives", VDS_LT_STRIPE, 0, Drives({"S06", "T0"}), 0, 0, VDS_E_NOT_SUPPORTED},
        {"stripe of one", VDS_LT_STRIPE, 0, Drives({"S06"}), 0, 0, E_INVALIDARG},
        {"odd mirror", VDS_LT_MIRROR, 0, Drives({"S06", "S07", "S08"}), 0, 0, E_INVALIDARG},
        {"raid50 of seven", VDS_LT_PARITY, 0, Drives({"S06", "S07", "S08", "S09", "S10", "S11", "S00"}), 0, 0,
         E_INVALIDARG},
        {"unknown drive", VDS_LT_STRIPE, 0, {Drive("S06"), stranger}, 0, 0, VDS_E_OBJECT_NOT_FOUND},
        {"failed drive", VDS_LT_SIMPLE, 0, Drives({"F0"}), 0, 0, VDS_E_DISK_NOT_ONLINE},
        {"pool spare", VDS_LT_SIMPLE, 0, Drives({"P0"}), 0, 0, VDS_E_DISK_NOT_EMPTY},
        {"too small", VDS_LT_STRIPE, 8192 * MiB, Drives({"S06", "S07"}), 0, 0, VDS_E_NOT_ENOUGH_SPACE},
        {"two-drive mirror with a stripe", VDS_LT_MIRROR, 0, Drives({"S06", "S07"}), 0, 65536, VDS_E_NOT_SUPPORTED},
    };
    std::string state = ModelState();
    for (const Case& c : cases) {
        VDS_HINTS h{};
        h.ulMaximumDriveCount = c.maxDrives;
        h.ulStripeSize = c.stripe;
        h.ullHintMask = c.what == std::string("raid50 of seven") ? TROV_HINT_RAID50 : 0;
        h.bMostlyReads = c.what == std::string("raid50 of seven");
        WCHAR empty[1] = {0};
        IVdsAsync* async = nullptr;
        std::vector<VDS_OBJECT_ID> d = c.drives;
        EXPECT_EQ(Sub()->CreateLun(c.type, c.size, d.empty() ? nullptr : d.data(), static_cast<LONG>(d.size()), empty,
                                   &h, &async),
                  c.expect)
            << c.what;
        EXPECT_EQ(async, nullptr) << c.what;
    }
    // None of them changed the array.
    EXPECT_EQ(ModelState(), state);
    // Null pointers, and a count without drives.
    VDS_HINTS h{};
    IVdsAsync* async = nullptr;
    WCHAR empty[1] = {0};
    EXPECT_EQ(Sub()->CreateLun(VDS_LT_STRIPE, 0, nullptr, 0, nullptr, &h, &async), E_POINTER);
    EXPECT_EQ(Sub()->CreateLun(VDS_LT_STRIPE, 0, nullptr, 0, empty, nullptr, &async), E_POINTER);
    EXPECT_EQ(Sub()->CreateLun(VDS_LT_STRIPE, 0, nullptr, 0, empty, &h, nullptr), E_POINTER);
    EXPECT_EQ(Sub()->CreateLun(VDS_LT_STRIPE, 0, nullptr, 2, empty, &h, &async), E_INVALIDARG);
}

TEST_F(CreateLun, TooFewFreeDrives) {
    // Seven drives of one tier are needed for RAID6 with a size that five data drives cover.
    EXPECT_EQ(Create(VDS_LT_RAID6, 5 * lab::kSasUsable, {}), VDS_E_NOT_ENOUGH_DRIVE);
    EXPECT_EQ(Create(VDS_LT_RAID60, 0, {}), VDS_E_NOT_ENOUGH_DRIVE);
}

class CreateLunLimits : public Lab {
protected:
    // Two volumes (the backing store is no LUN) and the dummy volume: three LUNs, the limit.
    CreateLunLimits() : Lab(lab::Scenario([](nlohmann::json& s) { s["maxArrayPartitions"] = 3; })) {}
};

TEST_F(CreateLunLimits, MaxLunsCountsTheDummyVolumes) {
    EXPECT_EQ(Luns().size(), 3u);
    EXPECT_EQ(Create(VDS_LT_STRIPE, 8 * MiB), VDS_E_PARTITION_LIMIT_REACHED);
    EXPECT_EQ(VdiskNamed("VD-EMPTY").parts.size(), 0u);
}

class CreateLunControllerLimit : public Lab {
protected:
    CreateLunControllerLimit() : Lab(lab::Scenario([](nlohmann::json& s) { s["maxArrayPartitions"] = 6; })) {}
};

TEST_F(CreateLunControllerLimit, AControllerAtItsLimitIsPassedOver) {
    // Each controller may hold three partitions; A holds three (the backing store counts), so the
    // RAID5 partition can't go there, and the new vdisk is made on B.
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_RAID5, 8 * MiB, {}, 0, 0, 0, &lun), S_OK);
    lab::VdiskFacts vd = VdiskWithPart(Facts(lun).name);
    EXPECT_NE(vd.name, "VD-R5");
    EXPECT_EQ(vd.owner, 0);
    EXPECT_EQ(VdiskNamed("VD-R5").parts.size(), 3u);
    // Named drives of the vdisk on the controller at its limit: the limit is the answer.
    EXPECT_EQ(Create(VDS_LT_PARITY, 8 * MiB, Drives({"S00", "S01", "S02", "S03"}), 0, 4),
              VDS_E_PARTITION_LIMIT_REACHED);
}

TEST_F(CreateLun, AnOfflineControllerIsPassedOver) {
    env.sim->SetControllerOffline(0x01000100, true, 2);
    ASSERT_EQ(provider()->Reenumerate(), S_OK);
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_MIRROR, 8 * MiB, {}, 0, 0, 0, &lun), S_OK);
    EXPECT_EQ(VdiskWithPart(Facts(lun).name).owner, 0);
}

}  // namespace

namespace {

TEST_F(CreateLun, ADefaultLunOfThreeNamedDrivesIsRaid5) {
    // No drive count hint asks for RAID6; three drives turn it back into RAID5.
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_DEFAULT, 0, Drives({"S06", "S07", "S08"}), 0, 0, 0, &lun), S_OK);
    lab::VdiskFacts vd = VdiskWithPart(Facts(lun).name);
    EXPECT_EQ(vd.raid, 5);
    EXPECT_EQ(vd.members.size(), 3u);
    EXPECT_EQ(Facts(lun).prop.type, VDS_LT_RAID5);
    EXPECT_EQ(vd.parts[0].bytes, 2 * lab::kSasUsable);
}

// A host of the generation before the newer RAID types: a RAID5 vdisk is a parity LUN.
class CreateLunOlderHost : public Lab {
protected:
    void SetUp() override {
        env.tp.SetHostVersion(6, 0);
        ResetHostVersionForTest();
        Lab::SetUp();
    }
    void TearDown() override { ResetHostVersionForTest(); }
};

TEST_F(CreateLunOlderHost, ParityFindsTheRaid5VdiskAndTheNewerTypesMapToRaid0) {
    CComPtr<IVdsLun> lun;
    ASSERT_EQ(Create(VDS_LT_PARITY, 8 * MiB, {}, 0, 3, 0, &lun), S_OK);
    EXPECT_EQ(Facts(lun).prop.type, VDS_LT_PARITY);
    EXPECT_NE(VdiskNamed("VD-R5").PartNamed(Facts(lun).name), nullptr);
    // RAID6 is asked for by a parity request without a count hint: VD-R5 is not of that level.
    size_t vdisks = VdiskCount();
    CComPtr<IVdsLun> six;
    ASSERT_EQ(Create(VDS_LT_PARITY, 8 * MiB, {}, 0, 0, 0, &six), S_OK);
    EXPECT_EQ(VdiskCount(), vdisks + 1);
    EXPECT_EQ(VdiskWithPart(Facts(six).name).raid, 11);
    // A newer type has no level on this host: the vdisk is made as RAID0.
    CComPtr<IVdsLun> five;
    ASSERT_EQ(Create(VDS_LT_RAID5, 8 * MiB, Drives({"T0", "T1"}), 0, 0, 0, &five), S_OK);
    EXPECT_EQ(VdiskWithPart(Facts(five).name).raid, 0);
}

}  // namespace

namespace {

// The newer hints: a hot-spare bit counts only with its boolean.
TEST_F(CreateLun, CreateLun2ConvertsTheNewerHints) {
    CComPtr<IVdsSubSystem2> sub2;
    Sub()->QueryInterface(IID_IVdsSubSystem2, reinterpret_cast<void**>(&sub2));
    ASSERT_TRUE(sub2);
    struct Case {
        BOOL spare;
        std::vector<VDS_OBJECT_ID> drives;
        size_t members, spares;
    } cases[] = {{0, Drives({"S06", "S07", "S08"}), 3, 0}, {1, Drives({"S09", "S10", "S11"}), 2, 1}};
    for (Case& c : cases) {
        VDS_HINTS2 h2{};
        h2.ullHintMask = VDS_HINT_ALLOCATEHOTSPARE;
        h2.bAllocateHotSpare = c.spare;
        WCHAR empty[1] = {0};
        IVdsAsync* async = nullptr;
        // RAID0 takes two members: with the spare, the third drive is it.
        ASSERT_EQ(sub2->CreateLun2(VDS_LT_STRIPE, 8 * MiB, c.drives.data(), 3, empty, &h2, &async), S_OK);
        HRESULT result = E_FAIL;
        VDS_ASYNC_OUTPUT out{};
        ASSERT_EQ(async->Wait(&result, &out), S_OK);
        async->Release();
        CComPtr<IUnknown> unk;
        unk.Attach(out.cl.pLunUnk);
        CComPtr<IVdsLun> lun;
        unk->QueryInterface(IID_IVdsLun, reinterpret_cast<void**>(&lun));
        lab::VdiskFacts vd = VdiskWithPart(Facts(lun).name);
        EXPECT_EQ(vd.members.size(), c.members) << c.spare;
        EXPECT_EQ(vd.spares.size(), c.spares) << c.spare;
    }
    IVdsAsync* async = nullptr;
    WCHAR empty[1] = {0};
    EXPECT_EQ(sub2->CreateLun2(VDS_LT_STRIPE, 8 * MiB, nullptr, 0, empty, nullptr, &async), E_POINTER);
}

TEST_F(CreateLun, APrimordialPoolOffersItsFreeDrives) {
    IVdsHwProviderStoragePools* pools = env.Query<IVdsHwProviderStoragePools>(IID_IVdsHwProviderStoragePools);
    ASSERT_NE(pools, nullptr);
    VDS_OBJECT_ID sata{};
    bool found = false;
    for (const auto& [id, e] : provider()->PoolMap()) {
        CPool* p = e.As<CPool>();
        if (p && !p->IsConcrete() && testlib::Narrow(p->Prop().pwszName).find("SATA") != std::string::npos) {
            sata = id;
            found = true;
        }
    }
    ASSERT_TRUE(found);
    VDS_HINTS2 h2{};
    WCHAR empty[1] = {0};
    IVdsAsync* async = nullptr;
    // The two free SATA drives: a default LUN of two drives is a mirror.
    ASSERT_EQ(pools->CreateLunInStoragePool(VDS_LT_DEFAULT, 0, sata, empty, &h2, &async), S_OK);
    HRESULT result = E_FAIL;
    VDS_ASYNC_OUTPUT out{};
    ASSERT_EQ(async->Wait(&result, &out), S_OK);
    async->Release();
    CComPtr<IUnknown> unk;
    unk.Attach(out.cl.pLunUnk);
    CComPtr<IVdsLun> lun;
    unk->QueryInterface(IID_IVdsLun, reinterpret_cast<void**>(&lun));
    lab::VdiskFacts vd = VdiskWithPart(Facts(lun).name);
    EXPECT_EQ(vd.raid, 1);
    EXPECT_EQ(Sorted(vd.members), (std::vector<std::string>{"T0", "T1"}));
    // Now the pool has no free drive.
    EXPECT_EQ(pools->CreateLunInStoragePool(VDS_LT_DEFAULT, 0, sata, empty, &h2, &async), VDS_E_NOT_ENOUGH_DRIVE);
    ULONGLONG size = 0;
    EXPECT_EQ(pools->QueryMaxLunCreateSizeInStoragePool(VDS_LT_MIRROR, sata, &h2, &size), VDS_E_NOT_ENOUGH_DRIVE);
    // With pools turned off in the settings, both answer that they are not supported.
    env.tp.settings().SetDword(TROV_PARAMETERS_KEY, "Options", 1u << 18);
    Options = 1u << 18;
    EXPECT_EQ(pools->CreateLunInStoragePool(VDS_LT_DEFAULT, 0, sata, empty, &h2, &async), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(pools->QueryMaxLunCreateSizeInStoragePool(VDS_LT_MIRROR, sata, &h2, &size), VDS_E_NOT_SUPPORTED);
    pools->Release();
}

}  // namespace
