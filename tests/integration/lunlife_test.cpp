// The life of a LUN against the emulator: growth (by free space, by drives with the restripe
// followed to its end), shrink, delete, masking, controller association, hints and conversion.
// The provider runs on the fake clock; every pause of the provider moves the emulator's clock by
// the same time, so an expansion of minutes of array time runs at once. Each test checks the
// provider's tree and the emulator's model.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lab.h"
#include "lun/lun.h"
#include "objects/controller.h"
#include "proxy/requests.h"

namespace {

using lab::MiB;

std::u16string W(const std::string& s) { return std::u16string(s.begin(), s.end()); }

class LunLife : public lab::Lab {
protected:
    explicit LunLife(const nlohmann::json& scenario = lab::Scenario()) : Lab(scenario) {}

    void SetUp() override {
        Lab::SetUp();
        env.tp.SetSleepHook([this](uint32_t ms) {
            env.sim->AdvanceTime(ms);
            if (auto f = onSleep) f(ms);  // a copy: the hook may clear itself
        });
    }
    void TearDown() override { env.tp.SetSleepHook({}); }

    CComPtr<IVdsLun> LunNamed(const std::string& name) {
        for (auto& l : testlib::CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return Sub()->QueryLuns(e); },
                                                     IID_IVdsLun))
            if (Facts(l).name == name) return l;
        return {};
    }
    std::string UnmaskList(IVdsLun* lun) {
        VDS_LUN_PROP p{};
        EXPECT_EQ(lun->GetProperties(&p), S_OK);
        std::string out = testlib::Narrow(p.pwszUnmaskingList);
        CoTaskMemFree(p.pwszFriendlyName);
        CoTaskMemFree(p.pwszIdentification);
        CoTaskMemFree(p.pwszUnmaskingList);
        return out;
    }
    HRESULT SetMask(IVdsLun* lun, const std::string& list) {
        EXPECT_TRUE(lun);
        if (!lun) return E_UNEXPECTED;
        std::u16string w = W(list);
        return lun->SetMask(const_cast<WCHAR*>(w.c_str()));
    }
    // A LUN of `mib` MiB made in the first fit (VD-R5, behind the volumes there); its name.
    std::string NewRaid5Lun(uint64_t mib) {
        CComPtr<IVdsLun> lun;
        EXPECT_EQ(Create(VDS_LT_RAID5, mib * MiB, {}, 0, 0, 0, &lun), S_OK);
        EXPECT_TRUE(VdiskNamed("VD-R5").PartNamed(lun ? Facts(lun).name : ""));
        return lun ? Facts(lun).name : std::string();
    }
    // A LUN on a new RAID0 vdisk of the two drives (owner A).
    std::string NewStripeLun(uint64_t mib, const char* d1, const char* d2) {
        CComPtr<IVdsLun> lun;
        EXPECT_EQ(Create(VDS_LT_STRIPE, mib * MiB, Drives({d1, d2}), 0, 0, 0, &lun), S_OK);
        return lun ? Facts(lun).name : std::string();
    }
    trovsim::Partition ModelPart(const std::string& name) {
        return env.sim->WithModel([&](trovsim::Model& m) {
            for (const trovsim::Vdisk& v : m.subsystems()[0].vdisks)
                for (const trovsim::Partition& p : v.parts)
                    if (p.name == name) return p;
            return trovsim::Partition{};
        });
    }
    bool HasEvent(const std::string& text) {
        for (const auto& e : env.tp.Events())
            if (e.text.find(text) != std::string::npos) return true;
        return false;
    }
    HRESULT Extend(IVdsLun* lun, uint64_t bytes, std::vector<VDS_OBJECT_ID> drives, CComPtr<IVdsAsync>& async) {
        IVdsAsync* a = nullptr;
        HRESULT hr = lun->Extend(bytes, drives.empty() ? nullptr : drives.data(), static_cast<LONG>(drives.size()), &a);
        if (a) async.Attach(a);
        if (FAILED(hr)) EXPECT_EQ(a, nullptr);
        return hr;
    }
    HRESULT WaitFor(IVdsAsync* async, HRESULT* result) {
        VDS_ASYNC_OUTPUT out{};
        HRESULT hr = async->Wait(result, &out);
        EXPECT_EQ(out.type, VDS_ASYNCOUT_EXTENDLUN);
        if (out.cl.pLunUnk) out.cl.pLunUnk->Release();
        return hr;
    }
    uint32_t Percent(IVdsAsync* async) {
        HRESULT r = E_FAIL;
        ULONG pct = 0;
        EXPECT_EQ(async->QueryStatus(&r, &pct), S_OK);
        return pct;
    }

    std::function<void(uint32_t)> onSleep;
};

// ---------------------------------------------------------------------------------------------
// Extend and shrink

TEST_F(LunLife, ExtendByFreeSpaceRoundsToAMebibyteAndGrowsAtOnce) {
    std::string name = NewRaid5Lun(100);
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsAsync> async;
    ASSERT_EQ(Extend(lun, 1, {}, async), S_OK);
    EXPECT_EQ(Facts(lun).prop.ullSize, 101 * MiB);
    EXPECT_EQ(ModelPart(name).blocks * 512, 101 * MiB);
    EXPECT_EQ(Percent(async), 100u);
    HRESULT result = E_FAIL;
    EXPECT_EQ(WaitFor(async, &result), S_OK);
    EXPECT_EQ(result, S_OK);
    EXPECT_TRUE(HasEvent("has started a vdisk expansion operation"));
    EXPECT_EQ(VdiskWithPart(name).members.size(), 4u);  // no drive was added
}

TEST_F(LunLife, ExtendWithNoRoomBehindThePartitionIsTakenAsGrownButTheTreeFollowsTheArray) {
    // v1 has bs right behind it: every expand_part is refused, and twenty refusals count as done.
    CComPtr<IVdsLun> lun = LunNamed("v1");
    CComPtr<IVdsAsync> async;
    ASSERT_EQ(Extend(lun, 8 * MiB, {}, async), S_OK);
    EXPECT_EQ(Facts(lun).prop.ullSize, 1032 * MiB);
    EXPECT_EQ(ModelPart("v1").blocks * 512, 1024 * MiB);
    EXPECT_EQ(env.tp.clock().SleepCalls().size() >= 20, true);
    EXPECT_TRUE(provider()->IsNeedRefresh());
    Luns();  // the query's refresh reads the array again
    EXPECT_EQ(Facts(LunNamed("v1")).prop.ullSize, 1024 * MiB);
}

TEST_F(LunLife, ExtendWithANamedDriveRestripesThenGrowsInWait) {
    std::string name = NewRaid5Lun(100);
    CComPtr<IVdsLun> lun = LunNamed(name);
    const uint64_t before = ModelPart(name).blocks * 512;
    CComPtr<IVdsAsync> async;
    ASSERT_EQ(Extend(lun, 0, Drives({"S06"}), async), S_OK);
    // The drive belongs to the vdisk at once; the partition grows only in Wait.
    lab::VdiskFacts vd = VdiskWithPart(name);
    EXPECT_EQ(vd.members.size(), 5u);
    EXPECT_EQ(vd.members.back(), "S06");
    EXPECT_EQ(DriveFlags2("S06") & VDS_DRF_ASSIGNED, static_cast<ULONG>(VDS_DRF_ASSIGNED));
    EXPECT_EQ(Facts(lun).prop.ullSize, before);
    uint32_t pct = Percent(async);
    EXPECT_GT(pct, 0u);
    EXPECT_LT(pct, 100u);

    HRESULT result = E_FAIL;
    EXPECT_EQ(WaitFor(async, &result), S_OK);
    EXPECT_EQ(result, S_OK);
    const uint64_t after = ModelPart(name).blocks * 512;
    EXPECT_GT(after, before + 2000 * MiB);  // the new drive's worth and the old free space
    EXPECT_EQ(Facts(lun).prop.ullSize, after);
    EXPECT_EQ(Percent(async), 100u);
    EXPECT_TRUE(HasEvent("has finished a vdisk expansion operation"));
    // Every LUN of the vdisk sees the new member, after a refresh as before it.
    Luns();
    for (const char* other : {"v1", name.c_str()})
        EXPECT_EQ(static_cast<CLun*>(static_cast<IVdsLun*>(LunNamed(other)))->MemberAmount(), 5u) << other;
}

TEST_F(LunLife, ExtendSearchesDrivesWhenTheFreeSpaceIsShort) {
    std::string name = NewRaid5Lun(100);
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsAsync> async;
    // More than the vdisk's free space: one searched drive of the same type and size.
    ASSERT_EQ(Extend(lun, 5000 * MiB, {}, async), S_OK);
    EXPECT_EQ(VdiskWithPart(name).members.size(), 5u);
    HRESULT result = E_FAIL;
    EXPECT_EQ(WaitFor(async, &result), S_OK);
    EXPECT_EQ(ModelPart(name).blocks * 512, 5100 * MiB);
    EXPECT_EQ(Facts(lun).prop.ullSize, 5100 * MiB);
}

TEST_F(LunLife, ExtendRefusals) {
    std::string name = NewRaid5Lun(100);
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsAsync> a;
    struct Row {
        const char* what;
        std::vector<VDS_OBJECT_ID> drives;
        HRESULT hr;
    } rows[] = {
        {"five drives on RAID5", Drives({"S06", "S07", "S08", "S09", "S10"}), VDS_E_NOT_SUPPORTED},
        {"a SATA drive on a SAS vdisk", Drives({"T0"}), VDS_E_NOT_SUPPORTED},
        {"a member of another vdisk", Drives({"S04"}), VDS_E_DEVICE_IN_USE},
    };
    for (const Row& r : rows) EXPECT_EQ(Extend(lun, 0, r.drives, a), r.hr) << r.what;
    EXPECT_EQ(Extend(LunNamed("mv"), MiB, {}, a), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(Extend(LunNamed("VD-EMPTY(DummyVolume)"), MiB, {}, a), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(lun->Extend(MiB, nullptr, 1, nullptr), E_POINTER);
    IVdsAsync* raw = nullptr;
    EXPECT_EQ(lun->Extend(MiB, nullptr, 1, &raw), E_POINTER);
    EXPECT_EQ(VdiskWithPart(name).members.size(), 4u);
}

TEST_F(LunLife, OneExpansionPerControllerAtATime) {
    std::string r5 = NewRaid5Lun(100);
    std::string stripe = NewStripeLun(100, "S07", "S08");
    ASSERT_EQ(VdiskWithPart(stripe).owner, 1);
    CComPtr<IVdsAsync> first, second;
    ASSERT_EQ(Extend(LunNamed(r5), 0, Drives({"S06"}), first), S_OK);
    EXPECT_EQ(Extend(LunNamed(stripe), 0, Drives({"S09"}), second), VDS_E_ANOTHER_CALL_IN_PROGRESS);
    EXPECT_EQ(Extend(LunNamed(r5), 0, Drives({"S10"}), second), VDS_E_ANOTHER_CALL_IN_PROGRESS);
    EXPECT_EQ(VdiskWithPart(stripe).members.size(), 2u);
    HRESULT result = E_FAIL;
    EXPECT_EQ(WaitFor(first, &result), S_OK);
    // Once the restripe is over the other vdisk may grow.
    Luns();
    EXPECT_EQ(Extend(LunNamed(stripe), 0, Drives({"S09"}), second), S_OK);
    EXPECT_EQ(WaitFor(second, &result), S_OK);
    EXPECT_EQ(VdiskWithPart(stripe).members.size(), 3u);
}

TEST_F(LunLife, WaitGoesOnAfterTheEmulatorRestartsMidExpansion) {
    std::string name = NewRaid5Lun(100);
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsAsync> async;
    ASSERT_EQ(Extend(lun, 0, Drives({"S06"}), async), S_OK);
    std::string err;
    ASSERT_TRUE(env.sim->Restart(&err)) << err;
    HRESULT result = E_FAIL;
    EXPECT_EQ(WaitFor(async, &result), S_OK);
    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(Facts(lun).prop.ullSize, ModelPart(name).blocks * 512);
    EXPECT_GT(ModelPart(name).blocks * 512, 2000 * MiB);
}

TEST_F(LunLife, WaitEndsWithAnErrorWhenTheEmulatorStaysAway) {
    std::string name = NewRaid5Lun(100);
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsAsync> async;
    ASSERT_EQ(Extend(lun, 0, Drives({"S06"}), async), S_OK);
    env.sim->Stop();
    HRESULT result = S_OK;
    EXPECT_EQ(WaitFor(async, &result), VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(result, VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(Facts(lun).prop.ullSize, 100 * MiB);
    EXPECT_TRUE(HasEvent("expansion of a vdisk or volume has failed"));
}

TEST_F(LunLife, ShrinkOnlyAnswers) {
    CComPtr<IVdsLun> lun = LunNamed("v1");
    IVdsAsync* a = nullptr;
    EXPECT_EQ(lun->Shrink(MiB, nullptr), E_POINTER);
    EXPECT_EQ(lun->Shrink(1024 * MiB, &a), E_INVALIDARG);
    EXPECT_EQ(lun->Shrink(0, &a), E_INVALIDARG);
    EXPECT_EQ(lun->Shrink(1024 * MiB - 1, &a), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(ModelPart("v1").blocks * 512, 1024 * MiB);
}

// ---------------------------------------------------------------------------------------------
// Delete

TEST_F(LunLife, DeleteWaitsNinetySecondsForARefreshThatNeverComes) {
    CComPtr<IVdsLun> lun = LunNamed("v1");
    const uint64_t slept = env.tp.clock().TotalSlept();
    EXPECT_EQ(lun->Delete(), S_FALSE);
    EXPECT_GE(env.tp.clock().TotalSlept() - slept, 90000u);
    EXPECT_LE(env.tp.clock().TotalSlept() - slept, 95000u);
    EXPECT_FALSE(VdiskNamed("VD-R5").PartNamed("v1"));
    EXPECT_EQ(VdiskNamed("VD-R5").parts.size(), 2u);  // a hole where v1 was
}

TEST_F(LunLife, DeleteEndsWhenTheRefreshTakesTheLunOut) {
    CComPtr<IVdsLun> lun = LunNamed("v1");
    // Another thread of the host: the monitor's pass and a query, while the delete waits.
    onSleep = [this](uint32_t ms) {
        if (ms != 1000) return;  // the delete's own pause, with the notification mutex given up
        onSleep = nullptr;
        MonitorPassAndRefresh();
    };
    const uint64_t slept = env.tp.clock().TotalSlept();
    EXPECT_EQ(lun->Delete(), S_OK);
    EXPECT_LE(env.tp.clock().TotalSlept() - slept, 5000u);  // far below the 90 s of a silent array
    EXPECT_FALSE(LunNamed("v1"));
    EXPECT_FALSE(VdiskNamed("VD-R5").PartNamed("v1"));
}

TEST_F(LunLife, DeleteOfTheLastPartitionTakesTheVdiskAndFreesItsDrives) {
    std::string name = NewStripeLun(100, "S07", "S08");
    const size_t vdisks = VdiskCount();
    EXPECT_EQ(LunNamed(name)->Delete(), S_FALSE);
    EXPECT_EQ(VdiskCount(), vdisks - 1);
    for (const char* d : {"S07", "S08"})
        EXPECT_EQ(DriveFlags2(d) & VDS_DRF_UNASSIGNED, static_cast<ULONG>(VDS_DRF_UNASSIGNED)) << d;
}

TEST_F(LunLife, DeleteOfADummyVolumeIsAtOnce) {
    const uint64_t slept = env.tp.clock().TotalSlept();
    EXPECT_EQ(LunNamed("VD-EMPTY(DummyVolume)")->Delete(), S_OK);
    EXPECT_LT(env.tp.clock().TotalSlept() - slept, 1000u);
    EXPECT_FALSE(VdiskNamed("VD-EMPTY").found);
    EXPECT_FALSE(LunNamed("VD-EMPTY(DummyVolume)"));
    EXPECT_EQ(DriveFlags2("S04") & VDS_DRF_UNASSIGNED, static_cast<ULONG>(VDS_DRF_UNASSIGNED));
}

TEST_F(LunLife, DeleteOnAnOfflineVdiskMarksUntilTheLastLun) {
    std::string first = NewStripeLun(100, "S07", "S08");
    std::string second = NewStripeLun(100, "S07", "S08");
    ASSERT_EQ(VdiskWithPart(first).parts.size(), 2u);
    ASSERT_EQ(env.sim->SetDriveOffline("S07", true), 0u);
    Luns();
    provider()->SetNeedRefresh(true);
    Luns();
    const size_t vdisks = VdiskCount();
    EXPECT_EQ(LunNamed(first)->Delete(), VDS_E_OPERATION_PENDING);
    EXPECT_EQ(VdiskWithPart(first).parts.size(), 2u);  // nothing sent to the array
    EXPECT_EQ(LunNamed(second)->Delete(), S_FALSE);
    EXPECT_EQ(VdiskCount(), vdisks - 1);
}

TEST_F(LunLife, DeleteRefusedByTheArrayChangesNothing) {
    env.sim->FailOpcode(cmd::kDeletePart.opcode, 10);
    EXPECT_EQ(LunNamed("v1")->Delete(), VDS_E_INTERNAL_ERROR);
    EXPECT_TRUE(VdiskNamed("VD-R5").PartNamed("v1"));
    EXPECT_TRUE(LunNamed("v1"));
}

// ---------------------------------------------------------------------------------------------
// Masking

std::vector<std::pair<std::string, uint16_t>> Views(const trovsim::Partition& p) {
    std::vector<std::pair<std::string, uint16_t>> out;
    for (const auto& v : p.views) out.emplace_back(v.host, v.lun);
    return out;
}

TEST_F(LunLife, MaskingTurnsListsIntoViews) {
    const std::string a = "iqn.2004-01.com.a", b = "iqn.2004-01.com.b", c = "iqn.2004-01.com.c";
    std::string name = NewRaid5Lun(10);
    CComPtr<IVdsLun> lun = LunNamed(name);
    ASSERT_EQ(UnmaskList(lun), "");

    ASSERT_EQ(SetMask(lun, a + ";" + b + ";" + a), S_OK);
    trovsim::Partition p = ModelPart(name);
    ASSERT_EQ(p.views.size(), 2u);
    const uint16_t unit = p.views[0].lun;
    EXPECT_GE(unit, 1);
    EXPECT_EQ(Views(p), (std::vector<std::pair<std::string, uint16_t>>{{a, unit}, {b, unit}}));
    EXPECT_EQ(p.defaultLun, -1);
    EXPECT_EQ(UnmaskList(lun), a + ";" + b);

    // Gaining a name maps only the new one.
    ASSERT_EQ(SetMask(lun, a + ";" + b + ";" + c + ";"), S_OK);
    EXPECT_EQ(Views(ModelPart(name)).size(), 3u);
    EXPECT_EQ(UnmaskList(lun), a + ";" + b + ";" + c);
    // Losing one maps the new list afresh.
    ASSERT_EQ(SetMask(lun, c + ";" + a), S_OK);
    EXPECT_EQ(Views(ModelPart(name)), (std::vector<std::pair<std::string, uint16_t>>{{c, unit}, {a, unit}}));
    EXPECT_EQ(UnmaskList(lun), c + ";" + a);
    // Names to all hosts: the custom views go, the default view comes.
    ASSERT_EQ(SetMask(lun, "*"), S_OK);
    p = ModelPart(name);
    EXPECT_TRUE(p.views.empty());
    EXPECT_GE(p.defaultLun, 1);
    EXPECT_EQ(UnmaskList(lun), "*");
    // "*" again: the default view is removed and made again.
    ASSERT_EQ(SetMask(lun, "*"), S_OK);
    EXPECT_GE(ModelPart(name).defaultLun, 1);
    // None.
    ASSERT_EQ(SetMask(lun, ""), S_OK);
    p = ModelPart(name);
    EXPECT_TRUE(p.views.empty());
    EXPECT_EQ(p.defaultLun, -1);
    EXPECT_EQ(UnmaskList(lun), "");
    // The refresh reads the same back.
    ASSERT_EQ(SetMask(lun, a), S_OK);
    provider()->SetNeedRefresh(true);
    Luns();
    EXPECT_EQ(UnmaskList(LunNamed(name)), a);
}

TEST_F(LunLife, MaskingRefusesBadListsAndSpecialLuns) {
    std::string name = NewRaid5Lun(10);
    CComPtr<IVdsLun> lun = LunNamed(name);
    for (const char* bad : {"iqn.2004-1.com.x", "iqn.2004-01.com.x;;iqn.2004-01.com.y", "*;iqn.2004-01.com.x",
                            "eui.0123456789ABCDE", "host"})
        EXPECT_EQ(SetMask(lun, bad), E_INVALIDARG) << bad;
    EXPECT_EQ(SetMask(lun, "iqn.2004-01.com.x:" + std::string(300, 'a')), E_INVALIDARG);
    EXPECT_TRUE(ModelPart(name).views.empty());
    EXPECT_EQ(lun->SetMask(nullptr), E_POINTER);
    EXPECT_EQ(SetMask(LunNamed("VD-EMPTY(DummyVolume)"), "*"), VDS_E_NOT_SUPPORTED);
}

TEST_F(LunLife, MaskingStopsAtTheViewLimitAndMarksTheTreeStale) {
    std::string name = NewRaid5Lun(10);
    CComPtr<IVdsLun> lun = LunNamed(name);
    std::string list;
    for (int i = 0; i < 129; ++i) list += "iqn.2004-01.com.h" + std::to_string(i) + ";";
    EXPECT_EQ(SetMask(lun, list), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(ModelPart(name).views.size(), 128u);
    EXPECT_EQ(UnmaskList(lun), "");
    EXPECT_TRUE(provider()->IsNeedRefresh());
    Luns();
    const std::string reread = UnmaskList(LunNamed(name));
    EXPECT_EQ(std::count(reread.begin(), reread.end(), ';'), 127);
}

TEST_F(LunLife, MaskingOfAViewRefusedByTheArrayKeepsTheOldList) {
    std::string name = NewRaid5Lun(10);
    CComPtr<IVdsLun> lun = LunNamed(name);
    env.sim->FailOpcode(cmd::kCreateCustomView.opcode, 24);
    EXPECT_EQ(SetMask(lun, "*"), VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(UnmaskList(lun), "");
    EXPECT_EQ(ModelPart(name).defaultLun, -1);
}

class FullLunNumbers : public LunLife {
protected:
    // maxLuns 4: a controller hands out the numbers 1 only (StartingLUN 1 up to 4 / 2 - 1).
    FullLunNumbers() : LunLife(lab::Scenario([](nlohmann::json& s) { s["maxLuns"] = 4; })) {}
};

TEST_F(FullLunNumbers, ANumberSpaceThatIsFullRefuses) {
    std::string first = NewRaid5Lun(10), second = NewRaid5Lun(10);
    ASSERT_EQ(SetMask(LunNamed(first), "*"), S_OK);
    EXPECT_EQ(ModelPart(first).defaultLun, 1);
    EXPECT_EQ(SetMask(LunNamed(second), "*"), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(ModelPart(second).defaultLun, -1);
    EXPECT_EQ(SetMask(LunNamed(second), ""), VDS_E_NOT_SUPPORTED);
}

// ---------------------------------------------------------------------------------------------
// Ownership

std::vector<CComPtr<IVdsController>> ActiveControllers(IVdsLun* lun) {
    return testlib::CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return lun->QueryActiveControllers(e); },
                                                IID_IVdsController);
}
uint8_t OwnerOf(IVdsController* c) { return static_cast<CController*>(c)->Owner(); }

TEST_F(LunLife, AssociateControllerPortsMovesTheVdisk) {
    std::string name = NewStripeLun(100, "S07", "S08");
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsLunControllerPorts> ports;
    ASSERT_EQ(lun->QueryInterface(IID_IVdsLunControllerPorts, reinterpret_cast<void**>(&ports)), S_OK);
    auto active = testlib::CollectFrom<IVdsControllerPort>(
        [&](IEnumVdsObject** e) { return ports->QueryActiveControllerPorts(e); }, IID_IVdsControllerPort);
    ASSERT_FALSE(active.empty());
    VDS_PORT_PROP pp{};
    ASSERT_EQ(active[0]->GetProperties(&pp), S_OK);
    CoTaskMemFree(pp.pwszFriendlyName);
    CoTaskMemFree(pp.pwszIdentification);
    // A port of the owner: nothing moves.
    EXPECT_EQ(ports->AssociateControllerPorts(&pp.id, 1, nullptr, 0), S_OK);
    EXPECT_EQ(VdiskWithPart(name).owner, 1);
    // No port at all: the owner flips.
    EXPECT_EQ(ports->AssociateControllerPorts(nullptr, 0, nullptr, 0), S_OK);
    EXPECT_EQ(VdiskWithPart(name).owner, 0);
    CComPtr<IVdsLun> moved = LunNamed(name);
    auto ctrls = ActiveControllers(moved);
    ASSERT_EQ(ctrls.size(), 1u);
    EXPECT_EQ(OwnerOf(ctrls[0]), 0);
}

TEST_F(LunLife, AssociateControllerPortsRefusals) {
    std::string name = NewStripeLun(100, "S07", "S08");
    CComPtr<IVdsLunControllerPorts> ports;
    ASSERT_EQ(LunNamed(name)->QueryInterface(IID_IVdsLunControllerPorts, reinterpret_cast<void**>(&ports)), S_OK);
    env.sim->FailOpcode(cmd::kSetOwner.opcode, 16);
    EXPECT_EQ(ports->AssociateControllerPorts(nullptr, 0, nullptr, 0), VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(VdiskWithPart(name).owner, 1);
    ASSERT_EQ(SetMask(LunNamed(name), "*"), S_OK);
    EXPECT_EQ(ports->AssociateControllerPorts(nullptr, 0, nullptr, 0), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(VdiskWithPart(name).owner, 1);
}

TEST_F(LunLife, AssociateTargetsMovesAndMapsToAllHosts) {
    std::string name = NewStripeLun(100, "S07", "S08");
    CComPtr<IVdsLun> lun = LunNamed(name);
    CComPtr<IVdsLunIscsi> iscsi;
    ASSERT_EQ(lun->QueryInterface(IID_IVdsLunIscsi, reinterpret_cast<void**>(&iscsi)), S_OK);
    auto none = testlib::CollectFrom<IVdsIscsiTarget>(
        [&](IEnumVdsObject** e) { return iscsi->QueryAssociatedTargets(e); }, IID_IVdsIscsiTarget);
    EXPECT_TRUE(none.empty());  // no mapping, no target
    CComPtr<IVdsSubSystemIscsi> subIscsi;
    ASSERT_EQ(Sub()->QueryInterface(IID_IVdsSubSystemIscsi, reinterpret_cast<void**>(&subIscsi)), S_OK);
    auto targets = testlib::CollectFrom<IVdsIscsiTarget>(
        [&](IEnumVdsObject** e) { return subIscsi->QueryTargets(e); }, IID_IVdsIscsiTarget);
    ASSERT_EQ(targets.size(), 2u);
    VDS_OBJECT_ID ids[2];
    int ofB = -1;
    for (int i = 0; i < 2; ++i) {
        VDS_ISCSI_TARGET_PROP tp{};
        ASSERT_EQ(targets[i]->GetProperties(&tp), S_OK);
        ids[i] = tp.id;
        std::string iqn = testlib::Narrow(tp.pwszIscsiName);
        if (iqn.size() > 2 && iqn.substr(iqn.size() - 2) == ".b") ofB = i;
        CoTaskMemFree(tp.pwszIscsiName);
        CoTaskMemFree(tp.pwszFriendlyName);
    }
    ASSERT_GE(ofB, 0);
    EXPECT_EQ(iscsi->AssociateTargets(ids, 2), VDS_E_NOT_SUPPORTED);
    ASSERT_EQ(iscsi->AssociateTargets(&ids[ofB], 1), S_OK);
    EXPECT_EQ(VdiskWithPart(name).owner, 0);
    EXPECT_GE(ModelPart(name).defaultLun, 1);
    EXPECT_EQ(UnmaskList(lun), "*");
    auto ctrls = ActiveControllers(lun);
    ASSERT_EQ(ctrls.size(), 1u);
    EXPECT_EQ(OwnerOf(ctrls[0]), 0);
    auto assoc = testlib::CollectFrom<IVdsIscsiTarget>(
        [&](IEnumVdsObject** e) { return iscsi->QueryAssociatedTargets(e); }, IID_IVdsIscsiTarget);
    EXPECT_EQ(assoc.size(), 1u);
    // Mapped now: a further association is refused.
    EXPECT_EQ(iscsi->AssociateTargets(&ids[1 - ofB], 1), VDS_E_NOT_SUPPORTED);
}

// ---------------------------------------------------------------------------------------------
// Hints and conversion

VDS_HINTS Hints(IVdsLun* lun) {
    VDS_HINTS h{};
    EXPECT_EQ(lun->QueryHints(&h), S_OK);
    return h;
}

TEST_F(LunLife, HintsReportRaidAndRoleAndChangeTheCache) {
    CComPtr<IVdsLun> v1 = LunNamed("v1");
    VDS_HINTS h = Hints(v1);
    EXPECT_EQ(h.ullHintMask, 0x800000000000010Eull);
    EXPECT_EQ(h.bMostlyReads, 1);
    EXPECT_EQ(h.ulMaximumDriveCount, 128u);
    EXPECT_EQ(h.bIsYankable, 1);
    EXPECT_EQ(v1->ApplyHints(&h), VDS_E_NOT_SUPPORTED);  // handed back as it came
    EXPECT_EQ(Hints(LunNamed("mv")).ullHintMask & (7ull << 56), 2ull << 56);  // a master without snapshots

    VDS_HINTS set{};
    set.ullHintMask = 0x40;
    set.bWriteThroughCachingEnabled = 0;
    ASSERT_EQ(v1->ApplyHints(&set), S_OK);
    EXPECT_EQ(ModelPart("v1").cache[9], 1);
    VDS_HINTS2 h2{};
    CComPtr<IVdsLun2> v1b;
    ASSERT_EQ(v1->QueryInterface(IID_IVdsLun2, reinterpret_cast<void**>(&v1b)), S_OK);
    ASSERT_EQ(v1b->QueryHints2(&h2), S_OK);
    EXPECT_EQ(h2.ullHintMask & 0x3800, 0x3800u);
    EXPECT_EQ(h2.bWriteCachingEnabled, 1);
    EXPECT_EQ(static_cast<int>(h2.BusType), 10);  // SAS
    set.bWriteThroughCachingEnabled = 1;
    ASSERT_EQ(v1->ApplyHints(&set), S_OK);
    EXPECT_EQ(ModelPart("v1").cache[9], 0);
    EXPECT_EQ(Hints(v1).bWriteThroughCachingEnabled, 1);

    set = VDS_HINTS{};
    set.ullHintMask = 0xC;
    set.bOptimizeForSequentialReads = set.bOptimizeForSequentialWrites = 1;
    ASSERT_EQ(v1->ApplyHints(&set), S_OK);
    EXPECT_EQ(ModelPart("v1").cache[10], 1);
    set.bOptimizeForSequentialWrites = 0;
    EXPECT_EQ(v1->ApplyHints(&set), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(ModelPart("v1").cache[10], 1);

    // The plex: always sequential, never write-through, the LUN's RAID bits.
    auto plexes = testlib::CollectFrom<IVdsLunPlex>([&](IEnumVdsObject** e) { return v1->QueryPlexes(e); },
                                                    IID_IVdsLunPlex);
    ASSERT_FALSE(plexes.empty());
    VDS_HINTS ph{};
    ASSERT_EQ(plexes[0]->QueryHints(&ph), S_OK);
    EXPECT_EQ(ph.ullHintMask, 0x800000000000010Eull);
    EXPECT_EQ(ph.bOptimizeForSequentialReads, 1);
    EXPECT_EQ(ph.bWriteThroughCachingEnabled, 0);
    EXPECT_EQ(v1->QueryHints(nullptr), E_INVALIDARG);
}

TEST_F(LunLife, HintsRefusedByTheArrayKeepTheCache) {
    CComPtr<IVdsLun> v1 = LunNamed("v1");
    const uint8_t byte9 = ModelPart("v1").cache[9];
    const BOOL writeThrough = Hints(v1).bWriteThroughCachingEnabled;
    ASSERT_EQ(writeThrough, byte9 == 0 ? 1 : 0);
    env.sim->FailOpcode(cmd::kCacheParams.opcode, 10);
    VDS_HINTS set{};
    set.ullHintMask = 0x40;
    set.bWriteThroughCachingEnabled = !writeThrough;
    EXPECT_EQ(v1->ApplyHints(&set), VDS_E_INTERNAL_ERROR);
    EXPECT_EQ(Hints(v1).bWriteThroughCachingEnabled, writeThrough);
    EXPECT_EQ(ModelPart("v1").cache[9], byte9);
}

TEST_F(LunLife, ConversionOfAMasterWithASnapshotIsRefusedUntilTheSnapshotGoes) {
    // A snapshot of mv, made on the array.
    env.sim->WithModel([](trovsim::Model& m) {
        trovsim::Subsystem& s = m.subsystems()[0];
        trovsim::Serial mv{};
        for (const auto& v : s.vdisks)
            for (const auto& p : v.parts)
                if (p.name == "mv") mv = p.serial;
        ASSERT_EQ(m.CreateSnapshot(trovsim::CtrlRef{&s, 0}, "snap", s.ctrl[0].dmsTag, mv.data(), nullptr), 0u);
    });
    provider()->SetNeedRefresh(true);
    Luns();
    CComPtr<IVdsLun> mv = LunNamed("mv");
    EXPECT_EQ(Hints(mv).ullHintMask & (7ull << 56), 6ull << 56);  // a master with a snapshot
    VDS_HINTS toStd{};
    toStd.ullHintMask = 1ull << 59;
    EXPECT_EQ(mv->ApplyHints(&toStd), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(ModelPart("mv").type, 2);
    VDS_HINTS toMaster = toStd;
    toMaster.bReadBackVerifyEnabled = 1;
    EXPECT_EQ(LunNamed("snap")->ApplyHints(&toMaster), VDS_E_NOT_SUPPORTED);

    env.sim->WithModel([](trovsim::Model& m) {
        trovsim::Subsystem& s = m.subsystems()[0];
        for (const auto& v : s.vdisks)
            for (const auto& p : v.parts)
                if (p.name == "snap") {
                    ASSERT_EQ(m.DeletePartition(trovsim::CtrlRef{&s, 0}, p.serial), 0u);
                    return;
                }
    });
    provider()->SetNeedRefresh(true);
    Luns();
    mv = LunNamed("mv");
    ASSERT_EQ(mv->ApplyHints(&toStd), S_OK);
    EXPECT_EQ(ModelPart("mv").type, 0);
    EXPECT_EQ(Hints(mv).ullHintMask & (7ull << 56), 0u);
    ASSERT_EQ(mv->ApplyHints(&toMaster), S_OK);
    EXPECT_EQ(ModelPart("mv").type, 2);
    EXPECT_EQ(ModelPart("mv").backingStore, ModelPart("bs").serial);
    EXPECT_EQ(mv->ApplyHints(&toMaster), VDS_E_NOT_SUPPORTED);  // a master already
}

}  // namespace
