// The array of the LUN provisioning tests, and the host's side of a request.
//
// One subsystem: twelve SAS drives of 2 GiB (S00..S11), two SATA drives of 4 GiB (T0, T1), a pool
// spare (P0) and a failed drive (F0). VD-R5 (RAID5 on S00..S03, owner A) holds a standard volume,
// a backing store and a master volume; VD-EMPTY (RAID0 on S04, S05, owner B) holds nothing and so
// shows as a dummy volume. Free: S06..S11 and the SATA pair.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/monitor.h"
#include "core/provider.h"
#include "lun/hints.h"
#include "proxy/requests.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

namespace lab {

constexpr uint64_t MiB = 1ull << 20;
// A 2 GiB drive as the array and the provider reckon it: 16 MiB held back.
constexpr uint64_t kSasUsable = 2048 * MiB - 16 * MiB;
constexpr uint64_t kSataUsable = 4096 * MiB - 16 * MiB;

inline nlohmann::json Scenario(const std::function<void(nlohmann::json&)>& change = {}) {
    using nlohmann::json;
    json doc = trovsim::Model::DemoScenario();
    json& s = doc["subsystems"][0];
    s["slotsPerEnclosure"] = 16;
    json drives = json::array();
    auto drive = [&](const std::string& serial, const char* type, int mib, int slot) {
        drives.push_back({{"serial", serial}, {"vendor", "SEAGATE"}, {"product", "LAB"}, {"revision", "0001"},
                          {"type", type}, {"sizeMiB", mib}, {"slot", slot}});
    };
    for (int i = 0; i < 12; ++i) drive((i < 10 ? "S0" : "S") + std::to_string(i), "SAS", 2048, i);
    drive("T0", "SATA", 4096, 12);
    drive("T1", "SATA", 4096, 13);
    drive("P0", "SAS", 2048, 14);
    drive("F0", "SAS", 2048, 15);
    drives[14]["howUsed"] = 3;
    drives[15]["howUsed"] = 7;
    s["drives"] = drives;
    s["vdisks"] = json::array(
        {json{{"name", "VD-R5"},
              {"raid", 5},
              {"owner", "A"},
              {"members", {"S00", "S01", "S02", "S03"}},
              {"partitions",
               {json{{"name", "v1"}, {"sizeMiB", 1024}}, json{{"name", "bs"}, {"sizeMiB", 256}, {"type", 1}},
                json{{"name", "mv"}, {"sizeMiB", 256}, {"type", 2}, {"backingStore", "bs"}}}}},
         json{{"name", "VD-EMPTY"}, {"raid", 0}, {"owner", "B"}, {"members", {"S04", "S05"}}}});
    s["limits"] = {{"snapshotsPerMaster", 1}, {"snapshots", 64}, {"masterVolumes", 16}};
    if (change) change(s);
    return doc;
}

// What a test reads of the emulator's model.
struct VdiskFacts {
    bool found = false;
    std::string name;
    uint8_t raid = 0, owner = 0;
    uint32_t stripeKiB = 0, drivesPerLeg = 0;
    std::vector<std::string> members, spares;
    struct Part {
        std::string name;
        uint64_t bytes;
        uint8_t type;
        trovsim::Serial backingStore, master, serial;
    };
    std::vector<Part> parts;
    const Part* PartNamed(const std::string& n) const {
        for (const Part& p : parts)
            if (p.name == n) return &p;
        return nullptr;
    }
};

struct LunFacts {
    VDS_LUN_PROP prop{};
    std::string name, ident;
    std::vector<VDS_LUN_PLEX_PROP> plexes;
    std::vector<VDS_OBJECT_ID> plexIds;
};

class Lab : public ::testing::Test {
protected:
    explicit Lab(const nlohmann::json& scenario = Scenario())
        : scenarioPath_(WriteScenario(scenario)), env(scenarioPath_) {}
    ~Lab() override { unlink(scenarioPath_.c_str()); }
    void SetUp() override { ASSERT_EQ(env.Load(), S_OK); }

    static std::string WriteScenario(const nlohmann::json& doc) {
        static int n = 0;
        std::string path = "/tmp/trovlab." + std::to_string(getpid()) + "." + std::to_string(n++) + ".json";
        std::ofstream(path) << doc.dump();
        return path;
    }

    CProvider* provider() { return static_cast<CProvider*>(env.provider); }
    CComPtr<IVdsSubSystem> Sub() {
        auto subs = env.SubSystems();
        EXPECT_EQ(subs.size(), 1u);
        return subs.empty() ? CComPtr<IVdsSubSystem>() : subs[0];
    }

    // The id of the drive with this serial (the drive's identification).
    VDS_OBJECT_ID Drive(const std::string& serial) {
        for (auto& d : testlib::CollectFrom<IVdsDrive>([&](IEnumVdsObject** e) { return Sub()->QueryDrives(e); },
                                                      IID_IVdsDrive)) {
            VDS_DRIVE_PROP p{};
            EXPECT_EQ(d->GetProperties(&p), S_OK);
            std::string ident = testlib::Narrow(p.pwszIdentification);
            CoTaskMemFree(p.pwszFriendlyName);
            CoTaskMemFree(p.pwszIdentification);
            if (ident == serial) return p.id;
        }
        ADD_FAILURE() << "no drive " << serial;
        return VDS_OBJECT_ID{};
    }
    std::vector<VDS_OBJECT_ID> Drives(std::initializer_list<const char*> serials) {
        std::vector<VDS_OBJECT_ID> out;
        for (const char* s : serials) out.push_back(Drive(s));
        return out;
    }
    // Flags of VDS_DRIVE_PROP2 of a drive (assigned, unassigned, hot spare).
    // An object of the tree by id. GetObject hands out two references; the extra one goes back.
    CComPtr<IUnknown> Object(VDS_OBJECT_ID id, VDS_OBJECT_TYPE type) {
        CComPtr<IUnknown> unk;
        EXPECT_EQ(provider()->GetObject(id, type, &unk), S_OK);
        if (unk) unk->Release();
        return unk;
    }

    ULONG DriveFlags2(const std::string& serial) {
        CComPtr<IUnknown> unk = Object(Drive(serial), VDS_OT_DRIVE);
        if (!unk) return 0;
        CComPtr<IVdsDrive2> d2;
        unk->QueryInterface(IID_IVdsDrive2, reinterpret_cast<void**>(&d2));
        VDS_DRIVE_PROP2 p{};
        EXPECT_EQ(d2->GetProperties2(&p), S_OK);
        CoTaskMemFree(p.pwszFriendlyName);
        CoTaskMemFree(p.pwszIdentification);
        return p.ulFlags;
    }

    // CreateLun through the subsystem; the LUN the asynchronous object carries into *lun.
    HRESULT Create(VDS_LUN_TYPE type, ULONGLONG size, std::vector<VDS_OBJECT_ID> drives = {},
                   ULONGLONG mask = 0, ULONG maxDrives = 0, ULONG stripe = 0, IVdsLun** lun = nullptr,
                   BOOL mostlyReads = 0) {
        VDS_HINTS h{};
        h.ullHintMask = mask;
        h.ulMaximumDriveCount = maxDrives;
        h.ulStripeSize = stripe;
        h.bMostlyReads = mostlyReads;
        WCHAR empty[1] = {0};
        IVdsAsync* async = nullptr;
        HRESULT hr = Sub()->CreateLun(type, size, drives.empty() ? nullptr : drives.data(),
                                      static_cast<LONG>(drives.size()), empty, &h, &async);
        if (FAILED(hr)) {
            EXPECT_EQ(async, nullptr);
            return hr;
        }
        EXPECT_NE(async, nullptr);
        if (!async) return E_FAIL;
        HRESULT result = E_FAIL;
        VDS_ASYNC_OUTPUT out{};
        EXPECT_EQ(async->Wait(&result, &out), S_OK);
        async->Release();
        EXPECT_EQ(result, S_OK);
        EXPECT_EQ(out.type, VDS_ASYNCOUT_CREATELUN);
        CComPtr<IUnknown> unk;
        unk.Attach(out.cl.pLunUnk);
        EXPECT_TRUE(unk);
        if (lun && unk) unk->QueryInterface(IID_IVdsLun, reinterpret_cast<void**>(lun));
        return hr;
    }

    LunFacts Facts(IVdsLun* lun) {
        LunFacts f;
        EXPECT_EQ(lun->GetProperties(&f.prop), S_OK);
        f.name = testlib::Narrow(f.prop.pwszFriendlyName);
        f.ident = testlib::Narrow(f.prop.pwszIdentification);
        CoTaskMemFree(f.prop.pwszFriendlyName);
        CoTaskMemFree(f.prop.pwszIdentification);
        CoTaskMemFree(f.prop.pwszUnmaskingList);
        f.prop.pwszFriendlyName = f.prop.pwszIdentification = f.prop.pwszUnmaskingList = nullptr;
        for (auto& p : testlib::CollectFrom<IVdsLunPlex>([&](IEnumVdsObject** e) { return lun->QueryPlexes(e); },
                                                         IID_IVdsLunPlex)) {
            VDS_LUN_PLEX_PROP pp{};
            EXPECT_EQ(p->GetProperties(&pp), S_OK);
            f.plexes.push_back(pp);
            f.plexIds.push_back(pp.id);
        }
        return f;
    }

    // The LUNs the subsystem lists, by friendly name.
    std::map<std::string, LunFacts> Luns() {
        std::map<std::string, LunFacts> out;
        for (auto& l : testlib::CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return Sub()->QueryLuns(e); },
                                                     IID_IVdsLun)) {
            LunFacts f = Facts(l);
            out[f.name] = f;
        }
        return out;
    }

    VdiskFacts Vdisk(const std::function<bool(const trovsim::Vdisk&)>& pick) {
        return env.sim->WithModel([&](trovsim::Model& m) {
            VdiskFacts f;
            for (const trovsim::Vdisk& v : m.subsystems()[0].vdisks) {
                if (!pick(v)) continue;
                f.found = true;
                f.name = v.name;
                f.raid = v.raid;
                f.owner = v.owner;
                f.stripeKiB = v.stripeKiB;
                f.drivesPerLeg = v.drivesPerLeg;
                f.members = v.members;
                f.spares = v.spares;
                for (const trovsim::Partition& p : v.parts)
                    f.parts.push_back({p.name, p.blocks * 512, p.type, p.backingStore, p.master, p.serial});
                break;
            }
            return f;
        });
    }
    VdiskFacts VdiskNamed(const std::string& name) {
        return Vdisk([&](const trovsim::Vdisk& v) { return v.name == name; });
    }
    VdiskFacts VdiskWithPart(const std::string& part) {
        return Vdisk([&](const trovsim::Vdisk& v) {
            for (const auto& p : v.parts)
                if (p.name == part) return true;
            return false;
        });
    }
    size_t VdiskCount() {
        return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].vdisks.size(); });
    }
    std::string ModelState() {
        // The array's state without its clock, which moves on its own.
        return env.sim->WithModel([](trovsim::Model& m) {
            nlohmann::json j = m.Save();
            j.erase("now");
            return j.dump();
        });
    }

    // One pass of the event monitor, as its thread runs it, then a query that refreshes.
    void MonitorPassAndRefresh() {
        ASSERT_FALSE(provider()->SubsystemList().empty());
        CheckEventsFromRAIDController(provider(), provider()->SubsystemList()[0]);
        EXPECT_TRUE(provider()->IsNeedRefresh());
        Luns();
        EXPECT_FALSE(provider()->IsNeedRefresh());
    }

    std::string scenarioPath_;  // before env: the emulator loads it
    testlib::ProviderEnv env;
};

}  // namespace lab
