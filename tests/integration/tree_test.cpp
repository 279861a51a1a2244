// The tree against the emulator's demo array: subsystem, controllers, ports and drives as a host
// sees them through the published interfaces, with the array's own model as the reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "core/provider.h"
#include "objects/drive.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

using testlib::CollectFrom;
using testlib::Narrow;
using testlib::ProviderEnv;

namespace {

std::string PropName(LPWSTR& s) {
    std::string n = Narrow(s);
    CoTaskMemFree(s);
    s = nullptr;
    return n;
}

// Properties whose strings go with them (a string taken by PropName is left null).
template <class P>
struct Props : P {
    Props() : P{} {}
    Props(const Props&) = delete;
    ~Props() {
        CoTaskMemFree(this->pwszFriendlyName);
        CoTaskMemFree(this->pwszIdentification);
        if constexpr (requires { this->pwszUnmaskingList; }) CoTaskMemFree(this->pwszUnmaskingList);
    }
};

struct DriveInfo {
    VDS_DRIVE_PROP2 p{};
    std::string name, ident;
};

std::vector<DriveInfo> Drives(IVdsSubSystem* ss) {
    std::vector<DriveInfo> out;
    auto drives = CollectFrom<IVdsDrive2>([&](IEnumVdsObject** e) { return ss->QueryDrives(e); }, IID_IVdsDrive2);
    for (auto& d : drives) {
        DriveInfo i;
        EXPECT_EQ(d->GetProperties2(&i.p), S_OK);
        i.name = PropName(i.p.pwszFriendlyName);
        i.ident = PropName(i.p.pwszIdentification);
        out.push_back(i);
    }
    return out;
}

// Every id the tree hands out, by kind.
std::map<std::string, GUID> AllIds(ProviderEnv& env) {
    std::map<std::string, GUID> ids;
    for (auto& ss : env.SubSystems()) {
        Props<VDS_SUB_SYSTEM_PROP> sp;
        EXPECT_EQ(ss->GetProperties(&sp), S_OK);
        ids["sub " + PropName(sp.pwszIdentification)] = sp.id;
        for (auto& d : Drives(ss)) ids["drive " + d.name] = d.p.id;
        auto ctrls = CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                                 IID_IVdsController);
        for (auto& c : ctrls) {
            Props<VDS_CONTROLLER_PROP> cp;
            EXPECT_EQ(c->GetProperties(&cp), S_OK);
            ids["ctrl " + PropName(cp.pwszFriendlyName)] = cp.id;
            IVdsControllerControllerPort* ccp = nullptr;
            EXPECT_EQ(c->QueryInterface(IID_IVdsControllerControllerPort, reinterpret_cast<void**>(&ccp)), S_OK);
            auto ports = CollectFrom<IVdsControllerPort>(
                [&](IEnumVdsObject** e) { return ccp->QueryControllerPorts(e); }, IID_IVdsControllerPort);
            ccp->Release();
            for (auto& p : ports) {
                Props<VDS_PORT_PROP> pp;
                EXPECT_EQ(p->GetProperties(&pp), S_OK);
                ids["port " + PropName(pp.pwszFriendlyName)] = pp.id;
            }
        }
    }
    return ids;
}

CComPtr<IVdsDrive> DriveBySerial(IVdsSubSystem* ss, const std::string& serial) {
    auto drives = CollectFrom<IVdsDrive>([&](IEnumVdsObject** e) { return ss->QueryDrives(e); }, IID_IVdsDrive);
    for (auto& d : drives) {
        Props<VDS_DRIVE_PROP> p;
        EXPECT_EQ(d->GetProperties(&p), S_OK);
        if (PropName(p.pwszIdentification) == serial) return d;
    }
    return {};
}

// The friendly name of a LUN, a controller or a subsystem, through its GetProperties.
template <class I, class P>
std::string NameOf(I* obj) {
    Props<P> p;
    EXPECT_EQ(obj->GetProperties(&p), S_OK);
    return PropName(p.pwszFriendlyName);
}

uint8_t ModelHowUsed(ProviderEnv& env, const std::string& serial) {
    return env.sim->WithModel([&](trovsim::Model& m) -> uint8_t {
        for (auto& d : m.subsystems()[0].drives)
            if (d.serial == serial) return d.howUsed;
        return 0xFF;
    });
}

}  // namespace

TEST(SubSystem, PropertiesComeFromTheArray) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto subs = env.SubSystems();
    ASSERT_EQ(subs.size(), 1u);
    Props<VDS_SUB_SYSTEM_PROP> p;
    ASSERT_EQ(subs[0]->GetProperties(&p), S_OK);
    EXPECT_EQ(Narrow(p.pwszFriendlyName), "demo-array");
    std::string ctrlSerial = env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].ctrl[0].serial; });
    EXPECT_EQ(Narrow(p.pwszIdentification), "Trovi R3000i " + ctrlSerial);
    EXPECT_EQ(p.ulFlags, 0x0007E68Du);
    EXPECT_EQ(p.ulStripeSizeFlags, 0x0001C000u);
    EXPECT_EQ(p.status, VDS_SSS_ONLINE);
    EXPECT_EQ(p.health, VDS_H_HEALTHY);
    EXPECT_EQ(p.sNumberOfInternalBuses, 1);
    EXPECT_EQ(p.sMaxNumberOfSlotsEachBus, 12);
    EXPECT_EQ(p.sMaxNumberOfControllers, 2);

    CComPtr<IVdsSubSystem2> s2;
    ASSERT_EQ(subs[0]->QueryInterface(IID_IVdsSubSystem2, reinterpret_cast<void**>(&s2)), S_OK);
    Props<VDS_SUB_SYSTEM_PROP2> p2;
    ASSERT_EQ(s2->GetProperties2(&p2), S_OK);
    EXPECT_EQ(p2.ulSupportedRaidTypeFlags, 2330u);
    EXPECT_EQ(p2.ulNumberOfEnclosures, 1u);
    EXPECT_EQ(Narrow(p2.pwszFriendlyName), "demo-array");

    EXPECT_EQ(subs[0]->GetProperties(nullptr), E_POINTER);
    EXPECT_EQ(subs[0]->SetStatus(VDS_SSS_ONLINE), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(subs[0]->ReplaceDrive(GUID{}, GUID{}), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(subs[0]->SetControllerStatus(nullptr, 0, nullptr, 0), VDS_E_NOT_SUPPORTED);
    CComPtr<IVdsSubSystemIscsi> iscsi;
    ASSERT_EQ(subs[0]->QueryInterface(IID_IVdsSubSystemIscsi, reinterpret_cast<void**>(&iscsi)), S_OK);
    EXPECT_EQ(iscsi->CreateTarget(nullptr, nullptr, nullptr), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(iscsi->SetIpsecGroupPresharedKey(nullptr), VDS_E_NOT_SUPPORTED);
    CComPtr<IVdsProvider> prov;
    ASSERT_EQ(subs[0]->GetProvider(&prov), S_OK);
    EXPECT_EQ(prov.get(), env.provider);
}

TEST(SubSystem, ControllersAndPortsOfBothSides) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto ctrls = CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                             IID_IVdsController);
    ASSERT_EQ(ctrls.size(), 2u);
    const char* names[2] = {"Controller A;IP=10.0.0.2", "Controller B;IP=10.0.0.3"};  // A first
    const char* ports[2][2] = {{"192.168.10.10", "192.168.10.11"}, {"192.168.10.20", "192.168.10.21"}};
    for (int i = 0; i < 2; ++i) {
        Props<VDS_CONTROLLER_PROP> cp;
        ASSERT_EQ(ctrls[i]->GetProperties(&cp), S_OK);
        EXPECT_EQ(PropName(cp.pwszFriendlyName), names[i]);
        std::string ident = env.sim->WithModel([&](trovsim::Model& m) { return m.subsystems()[0].ctrl[i].ident; });
        EXPECT_EQ(PropName(cp.pwszIdentification), ident);
        EXPECT_EQ(cp.status, VDS_CS_ONLINE);
        EXPECT_EQ(cp.health, VDS_H_HEALTHY);
        EXPECT_EQ(cp.sNumberOfPorts, 2);

        CComPtr<IVdsControllerControllerPort> ccp;
        ASSERT_EQ(ctrls[i]->QueryInterface(IID_IVdsControllerControllerPort, reinterpret_cast<void**>(&ccp)), S_OK);
        auto portObjs = CollectFrom<IVdsControllerPort>(
            [&](IEnumVdsObject** e) { return ccp->QueryControllerPorts(e); }, IID_IVdsControllerPort);
        ASSERT_EQ(portObjs.size(), 2u);
        std::set<std::string> seen;
        for (auto& p : portObjs) {
            Props<VDS_PORT_PROP> pp;
            ASSERT_EQ(p->GetProperties(&pp), S_OK);
            EXPECT_EQ(Narrow(pp.pwszFriendlyName), Narrow(pp.pwszIdentification));
            EXPECT_EQ(pp.status, VDS_PRS_ONLINE);
            seen.insert(PropName(pp.pwszFriendlyName));
            CComPtr<IVdsController> back;
            ASSERT_EQ(p->GetController(&back), S_OK);
            EXPECT_EQ(back.get(), ctrls[i].get());
            EXPECT_EQ(p->Reset(), VDS_E_NOT_SUPPORTED);
        }
        EXPECT_EQ(seen, (std::set<std::string>{ports[i][0], ports[i][1]}));

        // Port properties by position: the count itself passes and fills nothing.
        Props<VDS_PORT_PROP> pp;
        EXPECT_EQ(ctrls[i]->GetPortProperties(0, &pp), S_OK);
        EXPECT_TRUE(seen.count(PropName(pp.pwszFriendlyName)));
        VDS_PORT_PROP untouched{};
        untouched.status = static_cast<VDS_PORT_STATUS>(77);
        EXPECT_EQ(ctrls[i]->GetPortProperties(2, &untouched), S_OK);
        EXPECT_EQ(untouched.status, 77);
        EXPECT_EQ(ctrls[i]->GetPortProperties(3, &pp), E_INVALIDARG);
        EXPECT_EQ(ctrls[i]->GetPortProperties(-1, &pp), E_INVALIDARG);
        EXPECT_EQ(ctrls[i]->GetPortProperties(0, nullptr), E_POINTER);

        EXPECT_EQ(ctrls[i]->Reset(), VDS_E_NOT_SUPPORTED);
        EXPECT_EQ(ctrls[i]->SetStatus(VDS_CS_ONLINE), VDS_E_NOT_SUPPORTED);
        EXPECT_EQ(ctrls[i]->FlushCache(), S_OK);
        EXPECT_EQ(ctrls[i]->InvalidateCache(), S_OK);
        CComPtr<IVdsMaintenance> m;
        ASSERT_EQ(ctrls[i]->QueryInterface(IID_IVdsMaintenance, reinterpret_cast<void**>(&m)), S_OK);
        EXPECT_EQ(m->StartMaintenance(BeepAlarm), S_OK);
        EXPECT_EQ(m->PulseMaintenance(BeepAlarm, 3), S_OK);
        EXPECT_EQ(m->StartMaintenance(BlinkLight), VDS_E_NOT_SUPPORTED);
        EXPECT_EQ(m->StopMaintenance(BlinkLight), S_OK);
        // The LUNs of the vdisks this controller owns: the RAID5's three on A, the mirror's on B.
        HRESULT hr = E_FAIL;
        std::set<std::string> lunNames;
        for (auto& lun : CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return ctrls[i]->QueryAssociatedLuns(e); },
                                              IID_IVdsLun, &hr))
            lunNames.insert(NameOf<IVdsLun, VDS_LUN_PROP>(lun.get()));
        EXPECT_EQ(hr, S_OK);
        const std::set<std::string> owned[2] = {{"db01", "logs01", "scratch01"}, {"archive01"}};
        EXPECT_EQ(lunNames, owned[i]);
        CComPtr<IVdsSubSystem> back;
        ASSERT_EQ(ctrls[i]->GetSubSystem(&back), S_OK);
        EXPECT_EQ(back.get(), ss.get());
    }
}

TEST(SubSystem, ControllerUnreachableDuringAMethod) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto ctrls = CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                             IID_IVdsController);
    ASSERT_EQ(ctrls.size(), 2u);
    env.sim->FailOpcode(1, 9);
    EXPECT_EQ(ctrls[0]->FlushCache(), VDS_E_INTERNAL_ERROR);
    env.sim->FailOpcode(1, 9);
    EXPECT_EQ(ctrls[0]->InvalidateCache(), VDS_E_INTERNAL_ERROR);
}

TEST(SubSystem, DrivesAreFoldedAndDescribedByTheirRecords) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto drives = Drives(ss);
    auto model = env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].drives; });
    ASSERT_EQ(drives.size(), model.size());  // both controllers list every drive: one object each
    for (size_t i = 0; i < drives.size(); ++i) {
        const DriveInfo& d = drives[i];
        const trovsim::Drive* md = nullptr;
        for (auto& x : model)
            if (x.serial == d.ident) md = &x;
        ASSERT_NE(md, nullptr) << d.ident;
        char expect[200];
        std::snprintf(expect, sizeof expect, "%s %s s/n %s rev %s id %d.%d (%s)", md->vendor.c_str(),
                      md->product.c_str(), md->serial.c_str(), md->revision.c_str(), md->channel, md->scsiId,
                      md->type == 3 ? "SATA" : "SAS");
        EXPECT_EQ(d.name, expect);
        EXPECT_EQ(d.p.ullSize, CDrive::UsableBytes(md->blocks, 0));
        EXPECT_EQ(d.p.sSlotNumber, md->slot);
        EXPECT_EQ(d.p.ulEnclosureNumber, md->enclosure);
        EXPECT_EQ(d.p.busType, md->type == 3 ? VDSBusTypeSata : VDSBusTypeSas);
        EXPECT_EQ(d.p.ulSpindleSpeed, md->spindleSpeed * 1000u);
        EXPECT_EQ(d.p.status, VDS_DRS_ONLINE);
        EXPECT_EQ(d.p.health, VDS_H_HEALTHY);
        // The second flag word: a pool spare is hot spare, unassigned, standby.
        ULONG flags2 = md->howUsed == 3 ? 0x15u : md->howUsed == 1 ? static_cast<ULONG>(VDS_DRF_ASSIGNED) : static_cast<ULONG>(VDS_DRF_UNASSIGNED);
        EXPECT_EQ(d.p.ulFlags, flags2) << d.name;
        if (i > 0) {
            EXPECT_LT(drives[i - 1].p.sSlotNumber, d.p.sSlotNumber);  // enclosure, then slot
        }
    }
    // By position: the bus is the enclosure.
    CComPtr<IVdsDrive> d;
    ASSERT_EQ(ss->GetDrive(0, 3, &d), S_OK);
    Props<VDS_DRIVE_PROP> p;
    ASSERT_EQ(d->GetProperties(&p), S_OK);
    EXPECT_EQ(p.sSlotNumber, 3);
    EXPECT_EQ(p.sInternalBusNumber, 0);
    CComPtr<IVdsSubSystem2> s2;
    ASSERT_EQ(ss->QueryInterface(IID_IVdsSubSystem2, reinterpret_cast<void**>(&s2)), S_OK);
    CComPtr<IVdsDrive> d2;
    ASSERT_EQ(s2->GetDrive2(0, 3, 12345, &d2), S_OK);
    EXPECT_EQ(d2.get(), d.get());
    IVdsDrive* none = nullptr;
    EXPECT_EQ(ss->GetDrive(1, 3, &none), VDS_E_OBJECT_NOT_FOUND);
    EXPECT_EQ(ss->GetDrive(0, 40, &none), VDS_E_OBJECT_NOT_FOUND);
    EXPECT_EQ(ss->GetDrive(0, 0, nullptr), E_POINTER);
}

TEST(Drive, SpareFlagsFollowTheArraysRules) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    // Demo: 3SJ0120[1-4]K members of a RAID5, 3SJ01208K a global spare, 3SJ01205K..07K free.
    auto member = DriveBySerial(ss, "3SJ01201K");
    auto spare = DriveBySerial(ss, "3SJ01208K");
    auto freeDrive = DriveBySerial(ss, "3SJ01205K");
    ASSERT_TRUE(member && spare && freeDrive);
    EXPECT_EQ(member->SetFlags(VDS_DRF_HOTSPARE), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(spare->SetFlags(VDS_DRF_HOTSPARE), VDS_E_NOT_SUPPORTED);  // before the flag test
    EXPECT_EQ(spare->SetFlags(7), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(freeDrive->SetFlags(2), E_INVALIDARG);
    EXPECT_EQ(member->ClearFlags(VDS_DRF_HOTSPARE), VDS_E_NOT_SUPPORTED);

    EXPECT_EQ(freeDrive->SetFlags(VDS_DRF_HOTSPARE), S_OK);
    EXPECT_EQ(ModelHowUsed(env, "3SJ01205K"), 3);
    // The tree learns of it at the next query.
    auto again = DriveBySerial(ss, "3SJ01205K");
    Props<VDS_DRIVE_PROP> p;
    ASSERT_EQ(again->GetProperties(&p), S_OK);
    EXPECT_EQ(p.ulFlags, static_cast<ULONG>(VDS_DRF_HOTSPARE));
    EXPECT_EQ(again->ClearFlags(2), E_INVALIDARG);
    EXPECT_EQ(again->ClearFlags(VDS_DRF_HOTSPARE), S_OK);
    EXPECT_EQ(ModelHowUsed(env, "3SJ01205K"), 0);

    env.sim->FailOpcode(19, 5);
    auto fresh = DriveBySerial(ss, "3SJ01206K");
    EXPECT_EQ(fresh->SetFlags(1), E_FAIL);
    auto spareNow = DriveBySerial(ss, "3SJ01208K");
    env.sim->FailOpcode(19, 5);
    EXPECT_EQ(spareNow->ClearFlags(1), VDS_E_INTERNAL_ERROR);
}

TEST(Drive, TheNinthGlobalSpareIsRefused) {
    // Sixteen slots: eight global spares already, and free drives beside them.
    nlohmann::json doc = trovsim::Model::DemoScenario();
    auto& sub = doc["subsystems"][0];
    sub["slotsPerEnclosure"] = 16;
    for (int i = 0; i < 4; ++i) {
        nlohmann::json d = sub["drives"][4];
        d["serial"] = "3SJ0130" + std::to_string(i) + "K";
        d["slot"] = 12 + i;
        sub["drives"].push_back(d);
    }
    int spares = 0;
    for (auto& d : sub["drives"]) {
        std::string serial = d["serial"];
        bool member = serial <= "3SJ01204K" && serial.rfind("3SJ012", 0) == 0;
        member = member || serial == "9WM03301Z" || serial == "9WM03302Z";
        if (!member && serial != "3SJ01205K" && spares < 8) {
            d["howUsed"] = 3;
            ++spares;
        }
    }
    ASSERT_EQ(spares, 8);
    char tmpl[] = "/tmp/trovspares.XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(tmpl) << doc.dump();
    ProviderEnv env(tmpl);
    std::remove(tmpl);
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    int seen = 0;
    for (auto& d : Drives(ss)) seen += (d.p.ulFlags & VDS_DRF_HOTSPARE) ? 1 : 0;
    ASSERT_EQ(seen, 8);
    auto candidate = DriveBySerial(ss, "3SJ01205K");
    ASSERT_TRUE(candidate);
    EXPECT_EQ(candidate->SetFlags(1), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(ModelHowUsed(env, "3SJ01205K"), 0);
    // With one spare cleared, the same drive becomes the eighth.
    auto spare = DriveBySerial(ss, "3SJ01300K");
    ASSERT_EQ(spare->ClearFlags(1), S_OK);
    candidate = DriveBySerial(ss, "3SJ01205K");
    EXPECT_EQ(candidate->SetFlags(1), S_OK);
    EXPECT_EQ(ModelHowUsed(env, "3SJ01205K"), 3);
}

TEST(Drive, LocateLightAndMaintenance) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    auto d = DriveBySerial(ss, "3SJ01205K");
    CComPtr<IVdsMaintenance> m;
    ASSERT_EQ(d->QueryInterface(IID_IVdsMaintenance, reinterpret_cast<void**>(&m)), S_OK);
    auto blinking = [&] {
        return env.sim->WithModel([](trovsim::Model& mm) {
            for (auto& x : mm.subsystems()[0].drives)
                if (x.serial == "3SJ01205K") return x.blinking;
            return false;
        });
    };
    uint32_t t0 = Plat()->TickCount();
    EXPECT_EQ(m->StartMaintenance(BlinkLight), S_OK);
    EXPECT_TRUE(blinking());
    EXPECT_GE(Plat()->TickCount() - t0, 5000u);  // the array's pause, on the fake clock
    EXPECT_EQ(m->StopMaintenance(BlinkLight), S_OK);
    EXPECT_FALSE(blinking());
    EXPECT_EQ(m->StartMaintenance(BeepAlarm), VDS_E_NOT_SUPPORTED);
    uint32_t t1 = Plat()->TickCount();
    EXPECT_EQ(m->PulseMaintenance(BlinkLight, 0), S_OK);
    EXPECT_EQ(Plat()->TickCount(), t1);
    EXPECT_EQ(m->PulseMaintenance(static_cast<VDS_MAINTENANCE_OPERATION>(6), 1), E_INVALIDARG);
    EXPECT_EQ(m->PulseMaintenance(BlinkLight, 2), S_OK);
    EXPECT_FALSE(blinking());
    EXPECT_GE(Plat()->TickCount() - t1, 2u * (1000 + 5000 + 1000 + 5000));
    EXPECT_EQ(d->SetStatus(VDS_DRS_ONLINE), VDS_E_NOT_SUPPORTED);
}

TEST(Drive, ExtentsOfFreeAndMemberDrives) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    std::map<GUID, std::string, GuidLess> lunNames;
    for (auto& lun : CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return ss->QueryLuns(e); }, IID_IVdsLun)) {
        Props<VDS_LUN_PROP> lp;
        ASSERT_EQ(lun->GetProperties(&lp), S_OK);
        lunNames[lp.id] = PropName(lp.pwszFriendlyName);
    }
    constexpr uint64_t GiB = 1ull << 30;
    struct Case {
        const char* serial;
        std::map<std::string, uint64_t> shares;  // LUN name -> its share on the drive
    } cases[] = {
        {"3SJ01205K", {}},  // free: the whole drive, unused
        // A member of the four-drive RAID5: a third of each LUN, then what is left.
        {"3SJ01201K", {{"db01", 200 * GiB / 3}, {"logs01", 50 * GiB / 3}, {"scratch01", 20 * GiB / 3}}},
        // A member of the two-drive RAID1: the share formula gives RAID1 s / n, as for a stripe.
        {"9WM03301Z", {{"archive01", 500 * GiB / 2}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.serial);
        auto d = DriveBySerial(ss, c.serial);
        ASSERT_TRUE(d);
        Props<VDS_DRIVE_PROP> p;
        ASSERT_EQ(d->GetProperties(&p), S_OK);
        VDS_DRIVE_EXTENT* ext = nullptr;
        LONG n = 0;
        ASSERT_EQ(d->QueryExtents(&ext, &n), S_OK);
        ASSERT_EQ(n, static_cast<LONG>(c.shares.size() + 1));
        uint64_t used = 0;
        for (LONG i = 0; i + 1 < n; ++i) {
            EXPECT_EQ(ext[i].id, p.id);
            EXPECT_TRUE(ext[i].bUsed);
            ASSERT_TRUE(lunNames.count(ext[i].LunId)) << "an extent of an unknown LUN";
            EXPECT_EQ(ext[i].ullSize, c.shares.at(lunNames[ext[i].LunId]));
            used += ext[i].ullSize;
        }
        EXPECT_EQ(ext[n - 1].id, p.id);
        EXPECT_EQ(ext[n - 1].LunId, GUID{});
        EXPECT_EQ(ext[n - 1].ullSize, p.ullSize - used);
        EXPECT_FALSE(ext[n - 1].bUsed);
        CoTaskMemFree(ext);
        EXPECT_EQ(d->QueryExtents(nullptr, &n), E_POINTER);
    }
}

TEST(Drive, LeftoverDrivesTakeTheirStateFromWhyTheyWentDown) {
    struct Case {
        uint8_t howUsed, downReason;
        VDS_DRIVE_STATUS status;
        VDS_HEALTH health;
    } cases[] = {
        {5, 0, VDS_DRS_OFFLINE, VDS_H_HEALTHY}, {5, 1, VDS_DRS_OFFLINE, VDS_H_FAILING},
        {5, 2, VDS_DRS_OFFLINE, VDS_H_FAILING}, {5, 3, VDS_DRS_FAILED, VDS_H_FAILED},
        {5, 4, VDS_DRS_FAILED, VDS_H_FAILED},   {5, 6, VDS_DRS_OFFLINE, VDS_H_HEALTHY},
        {5, 7, VDS_DRS_OFFLINE, VDS_H_UNKNOWN}, {5, 0xFF, VDS_DRS_OFFLINE, VDS_H_UNKNOWN},
        {7, 0, VDS_DRS_FAILED, VDS_H_FAILED},
    };
    for (const Case& c : cases) {
        ProviderEnv env;
        env.sim->WithModel([&](trovsim::Model& m) {
            for (auto& d : m.subsystems()[0].drives)
                if (d.serial == "3SJ01206K") d.howUsed = c.howUsed, d.downReason = c.downReason;
            return 0;
        });
        ASSERT_EQ(env.Load(), S_OK);
        auto d = DriveBySerial(env.SubSystems().at(0), "3SJ01206K");
        ASSERT_TRUE(d);
        Props<VDS_DRIVE_PROP> p;
        ASSERT_EQ(d->GetProperties(&p), S_OK);
        EXPECT_EQ(p.status, c.status) << int(c.howUsed) << "/" << int(c.downReason);
        EXPECT_EQ(p.health, c.health) << int(c.howUsed) << "/" << int(c.downReason);
    }
}

TEST(SubSystem, FriendlyNameRules) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    CComPtr<IVdsSubSystemNaming> naming;
    ASSERT_EQ(ss->QueryInterface(IID_IVdsSubSystemNaming, reinterpret_cast<void**>(&naming)), S_OK);
    auto visible = [&] { return NameOf<IVdsSubSystem, VDS_SUB_SYSTEM_PROP>(ss.get()); };
    auto arrayName = [&] { return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].systemName; }); };
    EXPECT_EQ(naming->SetFriendlyName(nullptr), E_POINTER);
    std::u16string eighty(80, u'n');
    ASSERT_EQ(naming->SetFriendlyName(eighty.data()), S_OK);
    EXPECT_EQ(visible(), std::string(80, 'n'));
    EXPECT_EQ(arrayName(), std::string(80, 'n'));
    std::u16string eightyOne(81, u'm');
    ASSERT_EQ(naming->SetFriendlyName(eightyOne.data()), S_OK);
    EXPECT_EQ(arrayName(), std::string(80, 'm'));  // sent cut
    EXPECT_EQ(visible(), std::string(80, 'n'));     // the old name stays until a refresh
    // The same name again doesn't reach the array.
    env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].systemName = "changed-behind"; });
    ASSERT_EQ(naming->SetFriendlyName(eighty.data()), S_OK);
    EXPECT_EQ(arrayName(), "changed-behind");
    // An array that takes no name: internal error, nothing changes here.
    env.sim->FailOpcode(29, 3);
    std::u16string other = u"other";
    EXPECT_EQ(naming->SetFriendlyName(other.data()), VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(visible(), std::string(80, 'n'));
}

TEST(SubSystem, ControllerStatesOfferWhatTheyServe) {
    for (uint8_t state : {1, 2}) {
        ProviderEnv env;
        ASSERT_EQ(env.sim->SetControllerOffline(0x01000101, true, state), 0u);
        ASSERT_EQ(env.Load(), S_OK);
        auto ss = env.SubSystems().at(0);
        auto ctrls = CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                                 IID_IVdsController);
        ASSERT_EQ(ctrls.size(), 2u);
        Props<VDS_CONTROLLER_PROP> cp;
        ASSERT_EQ(ctrls[1]->GetProperties(&cp), S_OK);
        EXPECT_EQ(PropName(cp.pwszFriendlyName), "Controller B;IP=10.0.0.3");
        EXPECT_EQ(cp.status, VDS_CS_OFFLINE);
        EXPECT_EQ(cp.health, VDS_H_FAILED);
        CComPtr<IVdsControllerControllerPort> ccp;
        ASSERT_EQ(ctrls[1]->QueryInterface(IID_IVdsControllerControllerPort, reinterpret_cast<void**>(&ccp)), S_OK);
        auto ports = CollectFrom<IVdsControllerPort>([&](IEnumVdsObject** e) { return ccp->QueryControllerPorts(e); },
                                                     IID_IVdsControllerPort);
        EXPECT_EQ(ports.size(), state == 1 ? 2u : 0u) << int(state);
        // Controller A still lists every drive.
        EXPECT_EQ(Drives(ss).size(), 12u);
    }
}

TEST(SubSystem, ControllerAAbsentBuildsOnlyB) {
    ProviderEnv env;
    env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].ctrl[0].handle = 0; });
    ASSERT_EQ(env.Load(), S_OK);
    auto subs = env.SubSystems();
    ASSERT_EQ(subs.size(), 1u);
    auto ctrls = CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return subs[0]->QueryControllers(e); },
                                             IID_IVdsController);
    ASSERT_EQ(ctrls.size(), 1u);
    EXPECT_EQ((NameOf<IVdsController, VDS_CONTROLLER_PROP>(ctrls[0].get())), "Controller B;IP=10.0.0.3");
    EXPECT_EQ(Drives(subs[0]).size(), 12u);
}

TEST(SubSystem, OnlySubsystemsWithAnIscsiPortAreServed) {
    // A fibre-only array beside the iSCSI one.
    ProviderEnv env;
    env.sim->WithModel([&](trovsim::Model& m) {
        trovsim::Subsystem fc = m.subsystems()[0];
        fc.uniqueSn = "00C0FFFC0000";
        fc.systemName = "fibre-array";
        fc.prefix[0] ^= 0x55;
        for (auto& c : fc.ctrl) {
            c.handle += 0x100;
            for (auto& p : c.ports) p.busType = 6;
        }
        m.subsystems().push_back(fc);
        return 0;
    });
    ASSERT_EQ(env.Load(), S_OK);
    auto subs = env.SubSystems();
    ASSERT_EQ(subs.size(), 1u);
    EXPECT_EQ((NameOf<IVdsSubSystem, VDS_SUB_SYSTEM_PROP>(subs[0].get())), "demo-array");
}

TEST(SubSystem, AControllerUnreachableDuringTheLoadLeavesItsSubsystemOut) {
    ProviderEnv env;
    env.sim->FailOpcode(1, 9);  // the served test's record read
    ASSERT_EQ(env.Load(), S_OK);
    EXPECT_EQ(env.SubSystems().size(), 0u);
}

TEST(Refresh, EveryIdSurvivesARefreshAndAReenumerate) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto before = AllIds(env);
    ASSERT_EQ(before.size(), 1u + 12u + 2u + 4u);
    auto* hw = env.Query<IVdsHwProvider>(IID_IVdsHwProvider);
    ASSERT_EQ(hw->Refresh(), S_OK);
    EXPECT_EQ(AllIds(env), before);
    ASSERT_EQ(hw->Reenumerate(), S_OK);
    EXPECT_EQ(AllIds(env), before);
    hw->Release();
    auto ss = env.SubSystems().at(0);
    ASSERT_EQ(ss->Reenumerate(), S_OK);
    EXPECT_EQ(AllIds(env), before);

    // A drive whose firmware changed comes back under a new id; the rest keep theirs.
    env.sim->WithModel([](trovsim::Model& m) {
        for (auto& d : m.subsystems()[0].drives)
            if (d.serial == "3SJ01205K") d.revision = "0009";
        ++m.subsystems()[0].version;  // a change made by hand: the encoded records are stale
        return 0;
    });
    ASSERT_EQ(ss->Reenumerate(), S_OK);
    auto after = AllIds(env);
    EXPECT_EQ(after.size(), before.size());
    int changed = 0;
    for (auto& [k, id] : after) {
        auto it = before.find(k);
        if (it == before.end()) {
            ++changed;
            EXPECT_NE(k.find("3SJ01205K"), std::string::npos) << k;
        } else {
            EXPECT_EQ(it->second, id) << k;
        }
    }
    EXPECT_EQ(changed, 1);
}

TEST(SubSystem, ReenumerateRescansWhenAsked) {
    ProviderEnv env;
    env.tp.settings().SetDword(TROV_PARAMETERS_KEY, "Options", 1u << 14);
    ASSERT_EQ(env.Load(), S_OK);
    auto ss = env.SubSystems().at(0);
    uint32_t t0 = Plat()->TickCount();
    ASSERT_EQ(ss->Reenumerate(), S_OK);
    EXPECT_EQ(Plat()->TickCount() - t0, 6000u);  // 3 s after each controller's rescan
    env.sim->FailOpcode(1, 9);
    EXPECT_EQ(ss->Reenumerate(), VDS_E_INTERNAL_ERROR);
}

TEST(Registry, GetObjectByIdAndType) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    auto ids = AllIds(env);
    auto* priv = env.Query<IVdsProviderPrivate>(IID_IVdsProviderPrivate);
    GUID driveId = ids.begin()->second;
    for (auto& [k, id] : ids)
        if (k.rfind("drive ", 0) == 0) driveId = id;
    IUnknown* unk = nullptr;
    ASSERT_EQ(priv->GetObject(driveId, VDS_OT_DRIVE, &unk), S_OK);
    IVdsDrive* d = nullptr;
    ASSERT_EQ(unk->QueryInterface(IID_IVdsDrive, reinterpret_cast<void**>(&d)), S_OK);
    d->Release();
    unk->Release();
    unk->Release();  // the deliberate extra reference of GetObject
    EXPECT_EQ(priv->GetObject(driveId, VDS_OT_CONTROLLER, &unk), VDS_E_OBJECT_NOT_FOUND);
    GUID unknown{};
    unknown.Data1 = 0xDEADBEEF;
    EXPECT_EQ(priv->GetObject(unknown, VDS_OT_DRIVE, &unk), VDS_E_OBJECT_NOT_FOUND);
    EXPECT_EQ(priv->GetObject(driveId, VDS_OT_PROVIDER, &unk), E_INVALIDARG);
    EXPECT_EQ(priv->GetObject(driveId, VDS_OT_DRIVE, nullptr), E_POINTER);
    priv->Release();
}
