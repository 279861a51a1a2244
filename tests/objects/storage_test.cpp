// LUNs and plexes, storage pools and the iSCSI objects against the emulator: the demo array, and
// an array made for these tests with a mirror that lost a drive, a degraded RAID5, a vdisk in
// rebuild, one in expansion, one without volumes, partitions that are no LUNs, an IPv6 portal, a
// port without link and one target shared by both controllers.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "core/globals.h"
#include "objects/lun.h"
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
              {part("deg01", 10), json{{"name", ""}, {"sizeGiB", 1}}, json{{"name", "store01"}, {"sizeGiB", 1}, {"type", 1}},
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
            for (auto& p : v.parts) out[p.name] = HexText(p.serial.data(), 13);
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
    std::mutex mu;
    std::string log;
    trovsim::Options o;
    o.logRequests = true;
    o.logSink = [&](const std::string& line) {
        std::lock_guard<std::mutex> g(mu);
        log += line + "\n";
    };
    ProviderEnv env("demo", o);
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    const LunInfo logs = ByName(Luns(ss), "logs01");
    CComPtr<IVdsLunNaming> naming;
    ASSERT_EQ(logs.lun->QueryInterface(IID_IVdsLunNaming, reinterpret_cast<void**>(&naming)), S_OK);
    auto set = [&](const char16_t* s) {
        return naming->SetFriendlyName(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(s)));
    };
    auto renames = [&] {
        std::lock_guard<std::mutex> g(mu);
        size_t n = 0;
        for (size_t at = log.find("SET_PART_NAME(12)"); at != std::string::npos; at = log.find("SET_PART_NAME(12)", at + 1))
            ++n;
        return n;
    };
    auto arrayName = [&] {
        return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].vdisks[0].parts[1].name; });
    };

    EXPECT_EQ(set(u"logs01"), S_OK);  // the present name: nothing sent
    EXPECT_EQ(renames(), 0u);
    EXPECT_EQ(set(u"db01"), VDS_E_NAME_NOT_UNIQUE);
    EXPECT_EQ(set(u"journal"), S_OK);
    EXPECT_EQ(arrayName(), "journal");
    EXPECT_EQ(ByName(Luns(ss), "journal").p.id, logs.p.id);
    // 21 characters: the first 20 are kept and said so.
    EXPECT_EQ(set(u"abcdefghijklmnopqrstu"), VDS_S_NAME_TRUNCATED);
    EXPECT_EQ(arrayName(), "abcdefghijklmnopqrst");
    size_t sent = renames();
    EXPECT_EQ(set(u"abcdefghijklmnopqrstX"), VDS_S_NAME_TRUNCATED);  // cut, it is the present name
    EXPECT_EQ(renames(), sent);
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
    EXPECT_STREQ(NewName(entry, false, 0), "VDS_LUN_1");
    EXPECT_STREQ(NewName(entry, false, 0), "VDS_LUN_2");
    EXPECT_STREQ(NewName(entry, true, 0), "VDS_VDISK_0");
    EXPECT_STREQ(NewName(entry, false, 1), "VDS_SP_LUN_0");
    EXPECT_STREQ(NewName(entry, false, 2), "VDS_MV_LUN_0");
    EXPECT_STREQ(NewName(entry, false, 3), "VDS_SS_LUN_0");
    EXPECT_EQ(NewName(entry, false, 0, "VDS_LUN_1"), nullptr);
    EXPECT_STREQ(NewName(entry, false, 0), "VDS_LUN_1");
    ResetNewNamesForTest();
    SubsystemEntry gone = entry;
    gone.controllerA = 0x7777;
    EXPECT_STREQ(NewName(gone, false, 0), "VDS_LNU_ERROR");
    ResetNewNamesForTest();
}

}  // namespace
