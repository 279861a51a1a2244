// LUNs and plexes, storage pools and the iSCSI objects against the emulator: the demo array, and
// an array made for these tests with a mirror that lost a drive, a degraded RAID5, a vdisk in
// rebuild, one in expansion, one without volumes, partitions that are no LUNs, an IPv6 portal, a
// port without link and one target shared by both controllers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "core/globals.h"
#include "lun/lun.h"
#include "objects/object_util.h"
#include "objects/pool.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

using nlohmann::json;
using testlib::CollectFrom;
using testlib::Narrow;
using testlib::ProviderEnv;

namespace {

constexpr uint64_t GiB = 1ull << 30;
const char* kHost1 = "iqn.1991-05.com.microsoft:host01.demo.local";

std::string Take(LPWSTR& s) {
    std::string n = Narrow(s);
    CoTaskMemFree(s);
    s = nullptr;
    return n;
}

struct LunInfo {
    VDS_LUN_PROP p{};
    std::string name, ident, unmask;
    CComPtr<IVdsLun> lun;
};

std::vector<LunInfo> Luns(IVdsSubSystem* ss) {
    std::vector<LunInfo> out;
    for (auto& l : CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return ss->QueryLuns(e); }, IID_IVdsLun)) {
        LunInfo i;
        EXPECT_EQ(l->GetProperties(&i.p), S_OK);
        i.name = Take(i.p.pwszFriendlyName);
        i.ident = Take(i.p.pwszIdentification);
        i.unmask = Take(i.p.pwszUnmaskingList);
        i.lun = l;
        out.push_back(i);
    }
    return out;
}

const LunInfo& ByName(const std::vector<LunInfo>& luns, const std::string& name) {
    for (const LunInfo& l : luns)
        if (l.name == name) return l;
    static LunInfo none;
    ADD_FAILURE() << "no LUN " << name;
    return none;
}

std::vector<VDS_LUN_PLEX_PROP> Plexes(IVdsLun* lun) {
    std::vector<VDS_LUN_PLEX_PROP> out;
    for (auto& p : CollectFrom<IVdsLunPlex>([&](IEnumVdsObject** e) { return lun->QueryPlexes(e); }, IID_IVdsLunPlex)) {
        VDS_LUN_PLEX_PROP pp{};
        EXPECT_EQ(p->GetProperties(&pp), S_OK);
        out.push_back(pp);
    }
    return out;
}

// An initiator name of 200 characters: two of them make an unmasking list longer than the
// standard string block.
std::string LongHost(char c) { return "iqn.2026-11.test:" + std::string(183, c); }

// The array of these tests, as the emulator reads it.
json StorageScenario(bool ulp) {
    json s;
    s["uniqueSN"] = "00C0FF0A0B0C";
    s["systemName"] = "lab";
    s["iscsiBaseName"] = "iqn.2026-11.com.trov:lab";
    s["ulp"] = ulp;
    s["controllers"] = json::array(
        {json{{"handle", 0x02000100},
              {"ip", "10.1.0.2"},
              {"ports",
               {json{{"type", "iscsi"}, {"ip", "10.1.1.10"}, {"tcpPort", 0}},
                json{{"type", "iscsi"}, {"ipv6", "fe800000000000000202b3fffe1e8329"}, {"tcpPort", 0}}}}},
         json{{"handle", 0x02000101},
              {"ip", "10.1.0.3"},
              {"ports", {json{{"type", "iscsi"}, {"ip", "10.1.1.20"}, {"tcpPort", 3261}, {"linkUp", false}}}}}});
    json drives = json::array();
    for (int i = 0; i < 14; ++i) {
        char serial[20];
        std::snprintf(serial, sizeof serial, "LAB%04d", i);
        drives.push_back({{"serial", serial}, {"vendor", "SEAGATE"}, {"product", "LAB"}, {"revision", "0001"},
                          {"type", i < 12 ? "SAS" : "SSD-SATA"}, {"blocks", 1172123568ull}, {"slot", i}});
    }
    s["drives"] = drives;
    auto part = [](const char* name, int gib) { return json{{"name", name}, {"sizeGiB", gib}}; };
    s["vdisks"] = json::array({
        json{{"name", "VD-MIRROR"}, {"raid", 1}, {"owner", "A"}, {"members", {"LAB0000", ""}}, {"health", 1},
             {"partitions", {part("mirror01", 10)}}},
        json{{"name", "VD-DEGRADED"}, {"raid", 5}, {"owner", "A"}, {"members", {"LAB0002", "LAB0003", "LAB0004"}},
             {"health", 1},
             {"partitions",
              {json{{"name", "deg01"}, {"sizeGiB", 10},
                    {"views", {json{{"host", LongHost('a')}, {"lun", 3}}, json{{"host", LongHost('b')}, {"lun", 3}}}}},
               json{{"name", ""}, {"sizeGiB", 1}}, json{{"name", "store01"}, {"sizeGiB", 1}, {"type", 1}},
               json{{"name", "odd01"}, {"sizeGiB", 1}, {"type", 4}}}}},
        json{{"name", "VD-REBUILD"}, {"raid", 5}, {"owner", "B"}, {"members", {"LAB0005", "LAB0006", "LAB0007"}},
             {"health", 1}, {"utility", {{"kind", 3}, {"durationMs", 100000000}}},
             {"partitions", {part("reb01", 10)}}},
        json{{"name", "VD-GROWING"}, {"raid", 0}, {"owner", "B"}, {"members", {"LAB0008", "LAB0009"}},
             {"utility", {{"kind", 5}, {"durationMs", 100000000}}}, {"partitions", {part("grow01", 10)}}},
        json{{"name", "VD-EMPTY"}, {"raid", 5}, {"owner", "A"}, {"members", {"LAB0010", "LAB0011", "LAB0012"}}},
    });
    json doc;
    doc["subsystems"] = json::array({s});
    return doc;
}

// A scenario file for ProviderEnv, removed at the end.
struct ScenarioFile {
    explicit ScenarioFile(const json& doc) {
        char tmpl[] = "/tmp/trovstorage.XXXXXX.json";
        int fd = mkstemps(tmpl, 5);
        path = tmpl;
        std::ofstream(path) << doc.dump();
        if (fd >= 0) close(fd);
    }
    ~ScenarioFile() { std::remove(path.c_str()); }
    std::string path;
};

// --- LUNs ----------------------------------------------------------------------------------------

TEST(Lun, TheDemoVolumesWithTheirPropertiesAndOrder) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto luns = Luns(ss);
    std::vector<std::string> names;
    for (auto& l : luns) names.push_back(l.name);
    // Controller A's LUNs first, by name; then B's.
    EXPECT_EQ(names, (std::vector<std::string>{"db01", "logs01", "scratch01", "archive01"}));

    auto serials = env.sim->WithModel([](trovsim::Model& m) {
        std::map<std::string, std::string> out;
        for (auto& v : m.subsystems()[0].vdisks)
            for (auto& p : v.parts) out[p.name] = HexBytes(p.serial.data(), 13);
        return out;
    });
    for (auto& l : luns) {
        SCOPED_TRACE(l.name);
        EXPECT_EQ(l.ident, serials[l.name]);  // 26 hexadecimal digits of the partition serial
        EXPECT_EQ(l.ident.size(), 26u);
        EXPECT_EQ(l.p.status, VDS_LS_ONLINE);
        EXPECT_EQ(l.p.health, VDS_H_HEALTHY);
        EXPECT_EQ(l.p.TransitionState, VDS_TS_STABLE);
        EXPECT_EQ(l.p.ulFlags, 0u);  // write-back cache on
        EXPECT_EQ(l.p.sRebuildPriority, 0);
    }
    const LunInfo& db = ByName(luns, "db01");
    EXPECT_EQ(db.p.ullSize, 200 * GiB);
    EXPECT_EQ(db.p.type, VDS_LT_RAID5);
    EXPECT_EQ(db.unmask, kHost1);
    EXPECT_EQ(ByName(luns, "logs01").unmask, "");
    const LunInfo& archive = ByName(luns, "archive01");
    EXPECT_EQ(archive.p.type, VDS_LT_MIRROR);
    auto plexes = Plexes(archive.lun);
    ASSERT_EQ(plexes.size(), 2u);  // a two-drive mirror: two simple plexes
    for (auto& p : plexes) {
        EXPECT_EQ(p.type, VDS_LPT_SIMPLE);
        EXPECT_EQ(p.ullSize, 500 * GiB);
        EXPECT_EQ(p.health, VDS_H_HEALTHY);
    }
    auto dbPlexes = Plexes(db.lun);
    ASSERT_EQ(dbPlexes.size(), 1u);
    EXPECT_EQ(dbPlexes[0].type, VDS_LPT_RAID5);
    EXPECT_EQ(dbPlexes[0].ulStripeSize, 64u * 1024);

    // Each plex leads back to its LUN; the LUN to its subsystem.
    auto plexObjs = CollectFrom<IVdsLunPlex>([&](IEnumVdsObject** e) { return db.lun->QueryPlexes(e); }, IID_IVdsLunPlex);
    IVdsLun* back = nullptr;
    ASSERT_EQ(plexObjs[0]->GetLun(&back), S_OK);
    EXPECT_EQ(back, db.lun.get());
    back->Release();
    IVdsSubSystem* owner = nullptr;
    ASSERT_EQ(db.lun->GetSubSystem(&owner), S_OK);
    EXPECT_EQ(owner, ss.get());
    owner->Release();
    EXPECT_EQ(db.lun->GetProperties(nullptr), E_POINTER);
    EXPECT_EQ(db.lun->QueryPlexes(nullptr), E_POINTER);
    EXPECT_EQ(plexObjs[0]->GetLun(nullptr), E_POINTER);
    EXPECT_EQ(plexObjs[0]->ApplyHints(nullptr), E_POINTER);
}

TEST(Lun, StatesOfMirrorDegradedRebuildExpansionAndDummy) {
    ScenarioFile file(StorageScenario(false));
    ProviderEnv env(file.path);
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto luns = Luns(ss);
    std::set<std::string> names;
    for (auto& l : luns) names.insert(l.name);
    // No LUN for a partition without a name, a backing store (1) or a type 4.
    EXPECT_EQ(names, (std::set<std::string>{"mirror01", "deg01", "reb01", "grow01", "VD-EMPTY(DummyVolume)"}));

    // The mirror lost a drive: the half that kept its drive is whole, the other failed.
    const LunInfo& mirror = ByName(luns, "mirror01");
    EXPECT_EQ(mirror.p.status, VDS_LS_ONLINE);
    EXPECT_EQ(mirror.p.health, VDS_H_FAILED_REDUNDANCY);
    auto halves = Plexes(mirror.lun);
    ASSERT_EQ(halves.size(), 2u);
    std::multiset<std::pair<int, int>> states;
    for (auto& h : halves) states.insert({h.status, h.health});
    EXPECT_EQ(states, (std::multiset<std::pair<int, int>>{{VDS_LPS_ONLINE, VDS_H_HEALTHY}, {VDS_LPS_FAILED, VDS_H_FAILED}}));

    const LunInfo& deg = ByName(luns, "deg01");
    EXPECT_EQ(deg.unmask, LongHost('a') + ";" + LongHost('b'));  // 401 characters, kept whole
    EXPECT_EQ(deg.p.status, VDS_LS_ONLINE);
    EXPECT_EQ(deg.p.health, VDS_H_FAILING_REDUNDANCY);
    auto degPlex = Plexes(deg.lun);
    ASSERT_EQ(degPlex.size(), 1u);
    EXPECT_EQ(degPlex[0].health, VDS_H_FAILING_REDUNDANCY);

    EXPECT_EQ(ByName(luns, "reb01").p.health, VDS_H_REBUILDING);
    const LunInfo& grow = ByName(luns, "grow01");
    EXPECT_EQ(grow.p.TransitionState, VDS_TS_EXTENDING);
    EXPECT_EQ(grow.p.type, VDS_LT_STRIPE);

    const LunInfo& dummy = ByName(luns, "VD-EMPTY(DummyVolume)");
    EXPECT_EQ(dummy.p.ullSize, 0u);
    EXPECT_EQ(dummy.ident.size(), 32u);  // the vdisk serial's first 16 bytes
    EXPECT_EQ(dummy.unmask, "");
    std::u16string name = u"other";
    IVdsLunNaming* naming = nullptr;
    ASSERT_EQ(dummy.lun->QueryInterface(IID_IVdsLunNaming, reinterpret_cast<void**>(&naming)), S_OK);
    EXPECT_EQ(naming->SetFriendlyName(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(name.c_str()))),
              VDS_E_NOT_SUPPORTED);
    naming->Release();
}

TEST(Lun, RenamingKeepsTwentyCharactersAndUniqueNames) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    const LunInfo logs = ByName(Luns(ss), "logs01");
    CComPtr<IVdsLunNaming> naming;
    ASSERT_EQ(logs.lun->QueryInterface(IID_IVdsLunNaming, reinterpret_cast<void**>(&naming)), S_OK);
    auto set = [&](const char16_t* s) {
        return naming->SetFriendlyName(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(s)));
    };
    auto arrayName = [&] {
        return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].vdisks[0].parts[1].name; });
    };
    // A name the array is not to be told: changed behind the provider's back, it stays so.
    auto renameBehind = [&] {
        env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].vdisks[0].parts[1].name = "behind"; });
    };

    renameBehind();
    EXPECT_EQ(set(u"logs01"), S_OK);  // the present name: nothing sent
    EXPECT_EQ(arrayName(), "behind");
    EXPECT_EQ(set(u"db01"), VDS_E_NAME_NOT_UNIQUE);
    EXPECT_EQ(arrayName(), "behind");
    EXPECT_EQ(set(u"journal"), S_OK);
    EXPECT_EQ(arrayName(), "journal");
    EXPECT_EQ(ByName(Luns(ss), "journal").p.id, logs.p.id);
    // 21 characters: the first 20 are kept and said so.
    EXPECT_EQ(set(u"abcdefghijklmnopqrstu"), VDS_S_NAME_TRUNCATED);
    EXPECT_EQ(arrayName(), "abcdefghijklmnopqrst");
    renameBehind();
    EXPECT_EQ(set(u"abcdefghijklmnopqrstX"), VDS_S_NAME_TRUNCATED);  // cut, it is the present name
    EXPECT_EQ(arrayName(), "behind");
    EXPECT_EQ(naming->SetFriendlyName(nullptr), E_POINTER);

    IVdsAsync* async = reinterpret_cast<IVdsAsync*>(0x1);
    EXPECT_EQ(logs.lun->AddPlex(GUID{}, &async), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(async, nullptr);
    async = reinterpret_cast<IVdsAsync*>(0x1);
    EXPECT_EQ(logs.lun->RemovePlex(GUID{}, &async), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(async, nullptr);
    EXPECT_EQ(logs.lun->Recover(nullptr), E_POINTER);
    EXPECT_EQ(logs.lun->AssociateControllers(nullptr, 0, nullptr, 0), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(logs.lun->SetStatus(VDS_LS_OFFLINE), VDS_E_NOT_SUPPORTED);
}

TEST(Lun, PlexExtentsAreTheDrivesSharesOfItsLun) {
    ScenarioFile file(StorageScenario(false));
    ProviderEnv env(file.path);
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto luns = Luns(ss);
    for (const char* name : {"deg01", "mirror01"}) {
        SCOPED_TRACE(name);
        const LunInfo& l = ByName(luns, name);
        size_t total = 0;
        for (auto& plex :
             CollectFrom<IVdsLunPlex>([&](IEnumVdsObject** e) { return l.lun->QueryPlexes(e); }, IID_IVdsLunPlex)) {
            VDS_DRIVE_EXTENT* ext = nullptr;
            LONG n = -1;
            ASSERT_EQ(plex->QueryExtents(&ext, &n), S_OK);
            for (LONG i = 0; i < n; ++i) {
                EXPECT_EQ(ext[i].LunId, l.p.id);
                EXPECT_TRUE(ext[i].bUsed);
                // RAID5 of three: half the LUN on each member; the RAID1 formula: s / n.
                EXPECT_EQ(ext[i].ullSize, 10 * GiB / 2);
            }
            total += static_cast<size_t>(n);
            CoTaskMemFree(ext);
            EXPECT_EQ(plex->QueryExtents(nullptr, &n), E_INVALIDARG);
        }
        // Every member present gives one extent; the lost mirror drive none.
        EXPECT_EQ(total, std::string(name) == "deg01" ? 3u : 1u);
    }
}

TEST(Lun, AnOlderHostSeesTheOlderLunTypesAndNoPools) {
    ProviderEnv env;
    env.tp.SetHostVersion(6, 0);
    ResetHostVersionForTest();
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    EXPECT_EQ(ByName(Luns(ss), "db01").p.type, VDS_LT_PARITY);
    auto* pools = env.Query<IVdsHwProviderStoragePools>(IID_IVdsHwProviderStoragePools);
    IEnumVdsObject* e = nullptr;
    EXPECT_EQ(pools->QueryStoragePools(0, 0, nullptr, &e), VDS_E_NOT_SUPPORTED);
    pools->Release();
    env.Unload();
    ResetHostVersionForTest();
}

// --- mappings --------------------------------------------------------------------------------

TEST(LunMapping, StateByVdiskHealthAndUtility) {
    struct Case {
        uint8_t health, utility, raid;
        bool missingMember;
        VDS_LUN_STATUS status;
        VDS_HEALTH lunHealth;
        VDS_TRANSITION_STATE transition;
    } cases[] = {
        {0, 0, 5, false, VDS_LS_ONLINE, VDS_H_HEALTHY, VDS_TS_STABLE},
        {1, 0, 5, false, VDS_LS_ONLINE, VDS_H_FAILING_REDUNDANCY, VDS_TS_STABLE},
        {2, 0, 5, false, VDS_LS_ONLINE, VDS_H_FAILING_REDUNDANCY, VDS_TS_STABLE},
        {2, 2, 5, false, VDS_LS_ONLINE, VDS_H_HEALTHY, VDS_TS_STABLE},   // utility 2, no member missing
        {2, 2, 5, true, VDS_LS_ONLINE, VDS_H_FAILING_REDUNDANCY, VDS_TS_STABLE},
        {2, 0, 0, false, VDS_LS_ONLINE, VDS_H_HEALTHY, VDS_TS_STABLE},  // a stripe has no redundancy to lose
        {3, 0, 5, false, VDS_LS_OFFLINE, VDS_H_FAILED, VDS_TS_STABLE},
        {4, 0, 5, false, VDS_LS_ONLINE, VDS_H_FAILING_REDUNDANCY, VDS_TS_STABLE},
        {5, 0, 5, false, VDS_LS_FAILED, VDS_H_FAILED, VDS_TS_STABLE},
        {6, 0, 5, false, VDS_LS_ONLINE, VDS_H_HEALTHY, VDS_TS_STABLE},
        {1, 3, 5, false, VDS_LS_ONLINE, VDS_H_REBUILDING, VDS_TS_STABLE},
        {0, 5, 5, false, VDS_LS_ONLINE, VDS_H_HEALTHY, VDS_TS_EXTENDING},
    };
    for (const Case& c : cases) {
        ArrayData a{};
        a.health = c.health;
        a.utilityRunning = c.utility;
        a.raidLevel = c.raid;
        a.numDrives = 3;
        for (int i = 0; i < 3; ++i) a.members[i].channelIndex = a.members[i].driveIndex = i;
        if (c.missingMember) a.members[1].channelIndex = a.members[1].driveIndex = TROV_MEMBER_MISSING;
        VDS_LUN_STATUS st;
        VDS_HEALTH h;
        VDS_TRANSITION_STATE ts;
        LunStateFromArray(a, VdsTypeFromArray(a, true), &st, &h, &ts);
        EXPECT_EQ(st, c.status) << int(c.health) << "/" << int(c.utility);
        EXPECT_EQ(h, c.lunHealth) << int(c.health) << "/" << int(c.utility);
        EXPECT_EQ(ts, c.transition) << int(c.health) << "/" << int(c.utility);
    }
}

TEST(LunMapping, TypesByRaidLevelAndHost) {
    struct Case {
        uint8_t raid;
        uint32_t drives;
        VDS_LUN_TYPE win7, older;
        SHORT carrier;
    } cases[] = {
        {0, 2, VDS_LT_STRIPE, VDS_LT_STRIPE, 0},      {1, 2, VDS_LT_MIRROR, VDS_LT_MIRROR, 0},
        {3, 3, VDS_LT_RAID3, VDS_LT_PARITY, 14},      {5, 3, VDS_LT_RAID5, VDS_LT_PARITY, 0},
        {6, 1, VDS_LT_SIMPLE, VDS_LT_SIMPLE, 0},      {6, 3, VDS_LT_SPAN, VDS_LT_SPAN, 0},
        {7, 6, VDS_LT_RAID30, VDS_LT_PARITY, 0},      {8, 6, VDS_LT_RAID50, VDS_LT_PARITY, 15},
        {10, 4, VDS_LT_RAID10, VDS_LT_MIRROR, 0},     {11, 4, VDS_LT_RAID6, VDS_LT_PARITY, 16},
        {9, 4, VDS_LT_UNKNOWN, VDS_LT_UNKNOWN, 0},
    };
    for (const Case& c : cases) {
        ArrayData a{};
        a.raidLevel = c.raid;
        a.numDrives = c.drives;
        EXPECT_EQ(VdsTypeFromArray(a, true), c.win7) << int(c.raid);
        EXPECT_EQ(VdsTypeFromArray(a, false), c.older) << int(c.raid);
        EXPECT_EQ(RaidCarrier(c.raid), c.carrier) << int(c.raid);
    }
    EXPECT_EQ(PlexTypeFor(VDS_LT_MIRROR, 2), VDS_LPT_SIMPLE);
    EXPECT_EQ(PlexTypeFor(VDS_LT_MIRROR, 4), VDS_LPT_STRIPE);
    EXPECT_EQ(PlexTypeFor(VDS_LT_FAULT_TOLERANT, 3), VDS_LPT_RAID2);
    EXPECT_EQ(PlexTypeFor(VDS_LT_RAID5, 3), VDS_LPT_RAID5);
    EXPECT_EQ(PlexTypeFor(VDS_LT_RAID3, 3), VDS_LPT_RAID3);
    EXPECT_EQ(PlexTypeFor(VDS_LT_DEFAULT, 3), VDS_LPT_UNKNOWN);
    for (int t : {14, 16, 18, 19, 25, 26, 29}) EXPECT_TRUE(IsParityType(t)) << t;
    for (int t : {0, 12, 13, 23}) EXPECT_FALSE(IsParityType(t)) << t;
}

TEST(LunMapping, DiskSerialTextsFromAPartitionSerial) {
    uint8_t p[32] = {0x12, 0x34, 0x56, 0x07, 0x08, 0x09, 0, 0, 0xA0, 0xB1, 0x02, 0xD3, 0xE4};
    // 0x60|1, (3)^(0x20), (5)^(0x40), 0x60, 0, 07 08 09, A0 B1 02 D3 E4, 0 0 0
    EXPECT_EQ(DiskSnFromPartitionSnNew(p), "6123456000070809A0B102D3E4000000");
    EXPECT_EQ(DiskSnFromPartitionSnOld(p), "612345600789A0B12D3E4000");
}

TEST(LunMapping, GeneratedNamesSkipTheArraysNames) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    ResetNewNamesForTest();
    env.sim->WithModel([](trovsim::Model& m) { m.subsystems()[0].vdisks[0].parts[0].name = "VDS_LUN_0"; m.Touch(m.subsystems()[0]); });
    SubsystemEntry entry{};
    entry.controllerA = 0x01000100;  // the demo's handles
    entry.controllerB = 0x01000101;
    EXPECT_EQ(NewName(entry, false, 0), "VDS_LUN_1");
    EXPECT_EQ(NewName(entry, false, 0), "VDS_LUN_2");
    EXPECT_EQ(NewName(entry, true, 0), "VDS_VDISK_0");
    EXPECT_EQ(NewName(entry, false, 1), "VDS_SP_LUN_0");
    EXPECT_EQ(NewName(entry, false, 2), "VDS_MV_LUN_0");
    EXPECT_EQ(NewName(entry, false, 3), "VDS_SS_LUN_0");
    EXPECT_EQ(NewName(entry, false, 0, "VDS_LUN_1"), "");
    EXPECT_EQ(NewName(entry, false, 0), "VDS_LUN_1");
    ResetNewNamesForTest();
    SubsystemEntry gone = entry;
    gone.controllerA = 0x7777;
    EXPECT_EQ(NewName(gone, false, 0), "VDS_LNU_ERROR");
    ResetNewNamesForTest();
}

// --- pools ---------------------------------------------------------------------------------------

struct PoolInfo {
    VDS_STORAGE_POOL_PROP p{};
    VDS_POOL_ATTRIBUTES a{};
    std::string name, description, usage;
    CComPtr<IVdsStoragePool> pool;
};

std::vector<PoolInfo> Pools(ProviderEnv& env, HRESULT* hr = nullptr) {
    std::vector<PoolInfo> out;
    auto* sp = env.Query<IVdsHwProviderStoragePools>(IID_IVdsHwProviderStoragePools);
    for (auto& pool : CollectFrom<IVdsStoragePool>(
             [&](IEnumVdsObject** e) { return sp->QueryStoragePools(0, 0, nullptr, e); }, IID_IVdsStoragePool, hr)) {
        PoolInfo i;
        EXPECT_EQ(pool->GetProperties(&i.p), S_OK);
        EXPECT_EQ(pool->GetAttributes(&i.a), S_OK);
        i.name = Take(i.p.pwszName);
        i.description = Take(i.p.pwszDescription);
        i.usage = Take(i.a.pwszIntendedUsage);
        i.pool = pool;
        out.push_back(i);
    }
    sp->Release();
    return out;
}

TEST(Pool, PrimordialPoolsByClassThenOneConcretePoolPerVdisk) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto pools = Pools(env);
    ASSERT_EQ(pools.size(), 4u);
    // Primordial pools first, in no settled order among themselves; then the vdisks' pools in
    // the array's order.
    if (pools[0].name == "SAS Primordial Pool") std::swap(pools[0], pools[1]);
    std::vector<std::string> names;
    for (auto& p : pools) names.push_back(p.name);
    EXPECT_EQ(names, (std::vector<std::string>{"SATA Primordial Pool", "SAS Primordial Pool", "Vdisk VD-SAS-R5",
                                               "Vdisk VD-SATA-R1"}));
    auto drives = env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].drives; });
    auto ss = env.SubSystems().at(0);
    std::map<std::string, VDS_DRIVE_PROP> byName;
    uint64_t sasTotal = 0, sasFree = 0;
    for (auto& d : CollectFrom<IVdsDrive>([&](IEnumVdsObject** e) { return ss->QueryDrives(e); }, IID_IVdsDrive)) {
        VDS_DRIVE_PROP dp{};
        EXPECT_EQ(d->GetProperties(&dp), S_OK);
        std::string ident = Take(dp.pwszIdentification);
        CoTaskMemFree(dp.pwszFriendlyName);
        if (ident.rfind("3SJ", 0) == 0) {
            sasTotal += dp.ullSize;
            // Free, no spare, healthy: slots 4 to 6 (7 is the global spare).
            if (dp.ulFlags == 0 && (dp.sSlotNumber >= 4 && dp.sSlotNumber <= 6)) sasFree += dp.ullSize;
        }
    }
    const PoolInfo& sas = pools[1];
    EXPECT_EQ(sas.description, "SAS Drives (demo-array)");
    EXPECT_EQ(sas.p.type, VDS_SPT_PRIMORDIAL);
    EXPECT_EQ(sas.p.status, VDS_SPS_ONLINE);
    EXPECT_EQ(sas.p.health, VDS_H_HEALTHY);
    EXPECT_EQ(sas.p.ullTotalManagedSpace, sasTotal);
    EXPECT_EQ(sas.p.ullTotalConsumedSpace, sasTotal);
    EXPECT_EQ(sas.p.ullRemainingFreeSpace, sasFree);
    EXPECT_EQ(sas.a.ullAttributeMask, 0x1Au);
    EXPECT_EQ(sas.a.busType, VDSBusTypeSas);
    EXPECT_EQ(sas.usage, "SAS storage");

    const PoolInfo& r5 = pools[2];
    auto vd = env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].vdisks[0]; });
    EXPECT_EQ(r5.description, "Vdisk Pool VD-SAS-R5 (demo-array)");
    EXPECT_EQ(r5.p.type, VDS_SPT_CONCRETE);
    EXPECT_EQ(r5.p.ullTotalManagedSpace, vd.capacity * 512);
    EXPECT_EQ(r5.p.ullTotalConsumedSpace, 0u);
    EXPECT_EQ(r5.p.ullRemainingFreeSpace, (vd.capacity - (270ull * GiB / 512)) * 512);
    EXPECT_EQ(r5.a.ullAttributeMask, 0x781Fu);
    EXPECT_EQ(r5.a.raidType, VDS_RT_RAID5);
    EXPECT_EQ(r5.a.busType, VDSBusTypeSas);
    EXPECT_TRUE(r5.a.bNoSinglePointOfFailure);
    EXPECT_EQ(r5.a.ulStripeSize, 64u);  // KiB, as the array gives it
    EXPECT_EQ(r5.a.ulStripeSizeMax, 0x100000u);
    EXPECT_EQ(r5.a.ulStripeSizeMin, 0x4000u);
    EXPECT_EQ(r5.a.ulDefaultStripeSize, 0x10000u);
    EXPECT_EQ(r5.usage, "VD-SAS-R5");
    EXPECT_EQ(pools[3].a.raidType, VDS_RT_RAID1);
    EXPECT_EQ(pools[3].a.busType, VDSBusTypeSata);

    // Drive extents: a concrete pool's members, all in use; the SAS pool's eight drives, three free.
    VDS_STORAGE_POOL_DRIVE_EXTENT* ext = nullptr;
    LONG n = 0;
    ASSERT_EQ(r5.pool->QueryDriveExtents(&ext, &n), S_OK);
    EXPECT_EQ(n, 4);
    for (LONG i = 0; i < n; ++i) EXPECT_TRUE(ext[i].bUsed);
    CoTaskMemFree(ext);
    ASSERT_EQ(sas.pool->QueryDriveExtents(&ext, &n), S_OK);
    EXPECT_EQ(n, 8);
    int unused = 0;
    for (LONG i = 0; i < n; ++i) unused += ext[i].bUsed ? 0 : 1;
    EXPECT_EQ(unused, 3);
    CoTaskMemFree(ext);
    EXPECT_EQ(sas.pool->QueryDriveExtents(nullptr, &n), E_POINTER);

    // LUNs: the vdisk's three; none for a primordial pool.
    auto lunsOf = [](IVdsStoragePool* p) {
        std::set<std::string> names;
        for (auto& l : CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return p->QueryAllocatedLuns(e); }, IID_IVdsLun)) {
            VDS_LUN_PROP lp{};
            EXPECT_EQ(l->GetProperties(&lp), S_OK);
            names.insert(Take(lp.pwszFriendlyName));
            CoTaskMemFree(lp.pwszIdentification);
            CoTaskMemFree(lp.pwszUnmaskingList);
        }
        return names;
    };
    EXPECT_EQ(lunsOf(r5.pool), (std::set<std::string>{"db01", "logs01", "scratch01"}));
    EXPECT_TRUE(lunsOf(sas.pool).empty());
    // Any pool's pools are the provider's.
    auto all = CollectFrom<IVdsStoragePool>([&](IEnumVdsObject** e) { return sas.pool->QueryAllocatedStoragePools(e); },
                                            IID_IVdsStoragePool);
    std::set<IVdsStoragePool*> mine, theirs;
    for (auto& p : all) theirs.insert(p.get());
    for (auto& p : pools) mine.insert(p.pool.get());
    EXPECT_EQ(theirs, mine);
    IVdsProvider* prov = nullptr;
    ASSERT_EQ(r5.pool->GetProvider(&prov), S_OK);
    EXPECT_EQ(prov, env.provider);
    prov->Release();
    EXPECT_EQ(r5.pool->GetProvider(nullptr), E_POINTER);
}

TEST(Pool, IdsSurviveARefreshAndARenamedVdiskGetsANewPool) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto before = Pools(env);
    auto* hw = env.Query<IVdsHwProvider>(IID_IVdsHwProvider);
    ASSERT_EQ(hw->Refresh(), S_OK);
    auto after = Pools(env);
    auto idsByName = [](const std::vector<PoolInfo>& v) {
        std::map<std::string, GUID> m;
        for (auto& p : v) m[p.name] = p.p.id;
        return m;
    };
    EXPECT_EQ(idsByName(after), idsByName(before));
    env.sim->WithModel([](trovsim::Model& m) {
        m.subsystems()[0].vdisks[1].name = "VD-ARCHIVE";
        m.Touch(m.subsystems()[0]);
    });
    ASSERT_EQ(hw->Refresh(), S_OK);
    hw->Release();
    auto renamed = idsByName(Pools(env));
    auto old = idsByName(before);
    ASSERT_EQ(renamed.size(), old.size());
    ASSERT_TRUE(renamed.count("Vdisk VD-ARCHIVE"));
    EXPECT_NE(renamed["Vdisk VD-ARCHIVE"], old["Vdisk VD-SATA-R1"]);
    EXPECT_EQ(renamed["Vdisk VD-SAS-R5"], old["Vdisk VD-SAS-R5"]);
    EXPECT_EQ(renamed["SAS Primordial Pool"], old["SAS Primordial Pool"]);
}

TEST(Pool, SwitchedOffByOptionsBit18) {
    ProviderEnv env;
    env.tp.settings().SetDword(TROV_PARAMETERS_KEY, "Options", 0x40000);
    ASSERT_EQ(env.Load(), S_OK);
    HRESULT hr = S_OK;
    EXPECT_TRUE(Pools(env, &hr).empty());
    EXPECT_EQ(hr, VDS_E_NOT_SUPPORTED);
}

TEST(Pool, SsdDrivesGiveAnSsdPoolNamedSas) {
    ScenarioFile file(StorageScenario(false));
    ProviderEnv env(file.path);
    ASSERT_EQ(env.Load(), S_OK);
    auto pools = Pools(env);
    ASSERT_EQ(pools.size(), 7u);  // SAS, SSD and five vdisks
    std::set<std::string> primordial{pools[0].name, pools[1].name};
    EXPECT_EQ(primordial, (std::set<std::string>{"SAS Primordial Pool", "SSD Primordial Pool"}));
    for (auto& p : pools)
        if (p.name == "SSD Primordial Pool") {
            EXPECT_EQ(p.a.busType, VDSBusTypeSas);  // a primordial SSD pool says SAS
        } else if (p.name == "Vdisk VD-DEGRADED") {
            EXPECT_EQ(p.p.health, VDS_H_DEGRADED);
        } else if (p.name == "Vdisk VD-REBUILD") {
            EXPECT_EQ(p.p.health, VDS_H_REBUILDING);
        } else if (p.name == "Vdisk VD-GROWING") {
            EXPECT_EQ(p.a.raidType, VDS_RT_RAID0);
            EXPECT_FALSE(p.a.bNoSinglePointOfFailure);
        } else if (p.name == "Vdisk VD-EMPTY") {
            EXPECT_EQ(p.a.busType, VDSBusTypeSata);  // an SSD vdisk of an odd raw code says SATA
        }
}

TEST(PoolMapping, StateByVdiskHealthUtilityAndLevel) {
    struct State {
        uint8_t health, utility, raid;
        VDS_STORAGE_POOL_STATUS status;
        VDS_HEALTH poolHealth;
    } states[] = {
        {0, 0, 5, VDS_SPS_ONLINE, VDS_H_HEALTHY},     {2, 0, 6, VDS_SPS_ONLINE, VDS_H_HEALTHY},
        {2, 0, 5, VDS_SPS_ONLINE, VDS_H_DEGRADED},    {1, 0, 5, VDS_SPS_ONLINE, VDS_H_DEGRADED},
        {1, 3, 5, VDS_SPS_ONLINE, VDS_H_REBUILDING},  {2, 4, 5, VDS_SPS_ONLINE, VDS_H_REBUILDING},
        {1, 5, 5, VDS_SPS_ONLINE, VDS_H_REBUILDING},  {3, 0, 5, VDS_SPS_OFFLINE, VDS_H_FAILED},
        {6, 0, 5, VDS_SPS_OFFLINE, VDS_H_FAILED},     {7, 0, 5, VDS_SPS_OFFLINE, VDS_H_UNKNOWN},
        {8, 0, 5, VDS_SPS_UNKNOWN, VDS_H_UNKNOWN},
    };
    for (const State& c : states) {
        VDS_STORAGE_POOL_STATUS st;
        VDS_HEALTH h;
        VdiskPoolState(c.health, c.utility, c.raid, &st, &h);
        EXPECT_EQ(st, c.status) << int(c.health) << "/" << int(c.utility) << "/" << int(c.raid);
        EXPECT_EQ(h, c.poolHealth) << int(c.health) << "/" << int(c.utility) << "/" << int(c.raid);
    }
}

// --- iSCSI ---------------------------------------------------------------------------------------

struct Portal {
    VDS_ISCSI_PORTAL_PROP p;
    CComPtr<IVdsIscsiPortal> obj;
};

std::vector<Portal> Portals(IVdsSubSystem* ss) {
    CComPtr<IVdsSubSystemIscsi> si;
    EXPECT_EQ(ss->QueryInterface(IID_IVdsSubSystemIscsi, reinterpret_cast<void**>(&si)), S_OK);
    std::vector<Portal> out;
    for (auto& p : CollectFrom<IVdsIscsiPortal>([&](IEnumVdsObject** e) { return si->QueryPortals(e); },
                                                IID_IVdsIscsiPortal)) {
        Portal x{};
        EXPECT_EQ(p->GetProperties(&x.p), S_OK);
        x.obj = p;
        out.push_back(x);
    }
    return out;
}

std::vector<CComPtr<IVdsIscsiTarget>> Targets(IVdsSubSystem* ss) {
    CComPtr<IVdsSubSystemIscsi> si;
    EXPECT_EQ(ss->QueryInterface(IID_IVdsSubSystemIscsi, reinterpret_cast<void**>(&si)), S_OK);
    return CollectFrom<IVdsIscsiTarget>([&](IEnumVdsObject** e) { return si->QueryTargets(e); }, IID_IVdsIscsiTarget);
}

std::vector<USHORT> GroupTags(IVdsIscsiTarget* t) {
    std::vector<USHORT> tags;
    for (auto& g : CollectFrom<IVdsIscsiPortalGroup>([&](IEnumVdsObject** e) { return t->QueryPortalGroups(e); },
                                                     IID_IVdsIscsiPortalGroup)) {
        VDS_ISCSI_PORTALGROUP_PROP gp{};
        EXPECT_EQ(g->GetProperties(&gp), S_OK);
        tags.push_back(gp.tag);
    }
    std::sort(tags.begin(), tags.end());  // the group map's order is the ids'
    return tags;
}

class Iscsi : public ::testing::Test {
protected:
    ProviderEnv env;
};

TEST_F(Iscsi, TargetsPortalsAndGroupsOfTheDemoArray) {
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto targets = Targets(ss);
    ASSERT_EQ(targets.size(), 2u);
    std::vector<std::string> names;
    for (auto& t : targets) {
        VDS_ISCSI_TARGET_PROP tp{};
        ASSERT_EQ(t->GetProperties(&tp), S_OK);
        names.push_back(Take(tp.pwszIscsiName));
        EXPECT_EQ(Take(tp.pwszFriendlyName), "demo-array");
    }
    // Controller A's first: one target per controller, ".a" and ".b".
    EXPECT_EQ(names, (std::vector<std::string>{"iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.a",
                                               "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.b"}));
    EXPECT_EQ(GroupTags(targets[0]), (std::vector<USHORT>{100, 101}));
    EXPECT_EQ(GroupTags(targets[1]), (std::vector<USHORT>{0, 1}));

    auto portals = Portals(ss);
    ASSERT_EQ(portals.size(), 4u);
    std::vector<std::string> texts;
    for (auto& p : portals) {
        texts.push_back(Narrow(p.p.address.wszTextAddress));
        EXPECT_EQ(p.p.address.type, VDS_IPT_IPV4);
        EXPECT_EQ(p.p.address.ulPort, 3260u);
        EXPECT_EQ(p.p.status, VDS_IPS_ONLINE);
        // The portal's one group carries its tag, and leads back to it.
        auto groups = CollectFrom<IVdsIscsiPortalGroup>(
            [&](IEnumVdsObject** e) { return p.obj->QueryAssociatedPortalGroups(e); }, IID_IVdsIscsiPortalGroup);
        ASSERT_EQ(groups.size(), 1u);
        auto back = CollectFrom<IVdsIscsiPortal>([&](IEnumVdsObject** e) { return groups[0]->QueryAssociatedPortals(e); },
                                                 IID_IVdsIscsiPortal);
        ASSERT_EQ(back.size(), 1u);
        EXPECT_EQ(back[0].get(), p.obj.get());
        // Controller A's ports (192.168.10.1x) lead to A's target, B's to B's.
        IVdsIscsiTarget* t = nullptr;
        ASSERT_EQ(groups[0]->GetTarget(&t), S_OK);
        EXPECT_EQ(t, texts.back().rfind("192.168.10.1", 0) == 0 ? targets[0].get() : targets[1].get());
        if (t) t->Release();
        uint8_t octets[4];
        std::memcpy(octets, &p.p.address.ipv4Address, 4);
        EXPECT_EQ(texts.back(), std::to_string(octets[0]) + "." + std::to_string(octets[1]) + "." +
                                    std::to_string(octets[2]) + "." + std::to_string(octets[3]));
    }
    // A's portals before B's.
    std::sort(texts.begin(), texts.begin() + 2);
    std::sort(texts.begin() + 2, texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{"192.168.10.10", "192.168.10.11", "192.168.10.20", "192.168.10.21"}));

    // Only LUNs some host may see are the target's.
    auto luns = CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return targets[0]->QueryAssociatedLuns(e); }, IID_IVdsLun);
    ASSERT_EQ(luns.size(), 1u);
    VDS_LUN_PROP lp{};
    ASSERT_EQ(luns[0]->GetProperties(&lp), S_OK);
    EXPECT_EQ(Take(lp.pwszFriendlyName), "db01");
    CoTaskMemFree(lp.pwszIdentification);
    CoTaskMemFree(lp.pwszUnmaskingList);
    EXPECT_TRUE(CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return targets[1]->QueryAssociatedLuns(e); }, IID_IVdsLun)
                    .empty());

    // CreatePortalGroup makes nothing: it hands out the first group, each time the same.
    IUnknown* got[2] = {};
    for (auto*& g : got) {
        IVdsAsync* async = nullptr;
        ASSERT_EQ(targets[0]->CreatePortalGroup(&async), S_OK);
        HRESULT result = E_FAIL;
        VDS_ASYNC_OUTPUT out{};
        ASSERT_EQ(async->Wait(&result, &out), S_OK);
        EXPECT_EQ(out.type, VDS_ASYNCOUT_CREATEPORTALGROUP);
        g = out.cpg.pPortalGroupUnk;
        async->Release();
    }
    ASSERT_NE(got[0], nullptr);
    EXPECT_EQ(got[0], got[1]);
    for (auto* g : got) g->Release();

    IVdsAsync* none = nullptr;
    EXPECT_EQ(targets[0]->Delete(&none), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(portals[0].obj->SetStatus(VDS_IPS_OFFLINE), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(portals[0].obj->SetIpsecTunnelAddress(nullptr, nullptr), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(portals[0].obj->GetIpsecSecurity(nullptr, nullptr), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(portals[0].obj->SetIpsecSecurity(nullptr, 0, nullptr), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(targets[0]->GetProperties(nullptr), E_POINTER);
}

TEST_F(Iscsi, SecretsInTheirFourFormsAndTheKnownInitiators) {
    ASSERT_EQ(env.Load(), S_OK);
    auto t = Targets(env.SubSystems().at(0)).at(0);
    uint8_t secret[] = "twelve-chars";
    VDS_ISCSI_SHARED_SECRET s{secret, 12};
    VDS_ISCSI_SHARED_SECRET zero{secret, 0};  // a size of 0 means no secret, whatever the pointer
    const std::string init = kHost1;
    std::u16string wide(init.begin(), init.end());
    LPWSTR name = const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(wide.c_str()));
    // What the array keeps: the target's own secret, and the initiator's record (its secret for
    // the target, and the target name and secret it remembers for the initiator).
    struct Kept {
        std::string target, forInitiator, rememberedTarget, remembered;
        bool operator==(const Kept&) const = default;
    };
    auto kept = [&] {
        return env.sim->WithModel([&](trovsim::Model& m) {
            trovsim::Subsystem& sub = m.subsystems()[0];
            Kept k{sub.targetSecret, "", "", ""};
            if (const trovsim::ChapRecord* r = m.FindSecret(sub, init))
                k.forInitiator = r->secret, k.rememberedTarget = r->secondText, k.remembered = r->thirdText;
            return k;
        });
    };
    struct Case {
        VDS_ISCSI_SHARED_SECRET* secret;
        LPWSTR name;
        Kept after;
    } cases[] = {
        {&s, nullptr, {"twelve-chars", "", "", ""}},
        {nullptr, nullptr, {"", "", "", ""}},  // clears every secret
        {&s, name, {"", "twelve-chars", "", ""}},
        {&s, nullptr, {"twelve-chars", "twelve-chars", "", ""}},
        {&zero, nullptr, {"", "", "", ""}},
        {&s, name, {"", "twelve-chars", "", ""}},
        {nullptr, name, {"", "", "", ""}},  // clears the initiator's only
    };
    for (const Case& c : cases) {
        EXPECT_EQ(t->SetSharedSecret(c.secret, c.name), S_OK);
        EXPECT_EQ(kept(), c.after) << "secret " << (c.secret ? c.secret->ulSharedSecretSize : -1) << " for "
                                   << (c.name ? "the initiator" : "all");
    }
    EXPECT_EQ(t->RememberInitiatorSharedSecret(nullptr, &s), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(t->RememberInitiatorSharedSecret(name, &s), S_OK);
    EXPECT_EQ(kept(), (Kept{"", "", "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.a", "twelve-chars"}));

    LPWSTR* list = nullptr;
    LONG n = 0;
    ASSERT_EQ(t->GetConnectedInitiators(&list, &n), S_OK);
    ASSERT_EQ(n, 2);
    EXPECT_EQ(Narrow(list[0]), "iqn.1991-05.com.microsoft:host01.demo.local");
    EXPECT_EQ(Narrow(list[1]), "iqn.1991-05.com.microsoft:host02.demo.local");
    for (LONG i = 0; i < n; ++i) CoTaskMemFree(list[i]);
    CoTaskMemFree(list);

    // The array refuses: the secret stays as it was, and the host is told of an internal error.
    env.sim->FailOpcode(115, 7);
    EXPECT_EQ(t->SetSharedSecret(&s, nullptr), VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(kept().target, "");
}

TEST_F(Iscsi, RenamingTheTargetRenamesTheSubsystem) {
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto t = Targets(ss).at(1);
    std::u16string name = u"renamed-array";
    ASSERT_EQ(t->SetFriendlyName(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(name.c_str()))), S_OK);
    EXPECT_EQ(env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].systemName; }), "renamed-array");
    for (auto& other : Targets(ss)) {
        VDS_ISCSI_TARGET_PROP tp{};
        ASSERT_EQ(other->GetProperties(&tp), S_OK);
        EXPECT_EQ(Take(tp.pwszFriendlyName), "renamed-array");
        CoTaskMemFree(tp.pwszIscsiName);
    }
}

TEST(IscsiShared, OneTargetForBothControllersAndThePortalsAddressForms) {
    ScenarioFile file(StorageScenario(true));
    ProviderEnv env(file.path);
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto targets = Targets(ss);
    ASSERT_EQ(targets.size(), 1u);
    VDS_ISCSI_TARGET_PROP tp{};
    ASSERT_EQ(targets[0]->GetProperties(&tp), S_OK);
    EXPECT_EQ(Take(tp.pwszIscsiName), "iqn.2026-11.com.trov:lab");
    CoTaskMemFree(tp.pwszFriendlyName);
    std::vector<USHORT> tags = GroupTags(targets[0]);
    EXPECT_EQ(tags, (std::vector<USHORT>{0, 100, 101}));  // every group

    auto portals = Portals(ss);
    ASSERT_EQ(portals.size(), 3u);
    std::map<std::string, VDS_ISCSI_PORTAL_PROP> byText;
    for (auto& p : portals) byText[Narrow(p.p.address.wszTextAddress)] = p.p;
    // IPv4 with port 0: the default; IPv6 with port 0 keeps it; no link: offline but listed.
    const std::string v6 = "FE:80:00:00:00:00:00:00:02:02:B3:FF:FE:1E:83:29";
    ASSERT_EQ(byText.count("10.1.1.10") + byText.count(v6) + byText.count("10.1.1.20"), 3u);
    EXPECT_EQ(byText["10.1.1.10"].address.ulPort, 3260u);
    EXPECT_EQ(byText["10.1.1.10"].status, VDS_IPS_ONLINE);
    EXPECT_EQ(byText[v6].address.type, VDS_IPT_IPV6);
    EXPECT_EQ(byText[v6].address.ulPort, 0u);
    EXPECT_EQ(byText["10.1.1.20"].status, VDS_IPS_OFFLINE);
    EXPECT_EQ(byText["10.1.1.20"].address.ulPort, 3261u);
    for (auto& p : portals) {
        auto groups = CollectFrom<IVdsIscsiPortalGroup>(
            [&](IEnumVdsObject** e) { return p.obj->QueryAssociatedPortalGroups(e); }, IID_IVdsIscsiPortalGroup);
        ASSERT_EQ(groups.size(), 1u);
        IVdsIscsiTarget* t = nullptr;
        ASSERT_EQ(groups[0]->GetTarget(&t), S_OK);
        EXPECT_EQ(t, targets[0].get());
        if (t) t->Release();
    }
}

}  // namespace
