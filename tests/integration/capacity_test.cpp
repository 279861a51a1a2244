// The size answers through the module against the emulator: the room of a new vdisk by drive
// search and by named drives, the room of old vdisks, the growth of a LUN, the storage pools;
// their refusals; and that no answer changes the array.
#include <gtest/gtest.h>

#include "lab.h"
#include "objects/pool.h"

using lab::kSasUsable;
using lab::Lab;
using lab::MiB;

namespace {

// VD-R5: three data drives, volumes of 1024, 256 and 256 MiB.
constexpr uint64_t kR5Free = 3 * kSasUsable - 1536 * MiB;

class Capacity : public Lab {
protected:
    HRESULT MaxCreate(VDS_LUN_TYPE type, std::vector<VDS_OBJECT_ID> drives, ULONGLONG* size, ULONG maxDrives = 0,
                      ULONGLONG mask = 0, BOOL mostlyReads = 0) {
        VDS_HINTS h{};
        h.ulMaximumDriveCount = maxDrives;
        h.ullHintMask = mask;
        h.bMostlyReads = mostlyReads;
        *size = 12345;
        return Sub()->QueryMaxLunCreateSize(type, drives.empty() ? nullptr : drives.data(),
                                            static_cast<LONG>(drives.size()), &h, size);
    }
    HRESULT MaxExtend(const std::string& lunName, std::vector<VDS_OBJECT_ID> drives, ULONGLONG* size) {
        auto luns = Luns();
        EXPECT_EQ(luns.count(lunName), 1u) << lunName;
        CComPtr<IUnknown> unk = Object(luns[lunName].prop.id, VDS_OT_LUN);
        CComPtr<IVdsLun> lun;
        if (unk) unk->QueryInterface(IID_IVdsLun, reinterpret_cast<void**>(&lun));
        if (!lun) return E_FAIL;
        return lun->QueryMaxLunExtendSize(drives.empty() ? nullptr : drives.data(), static_cast<LONG>(drives.size()),
                                          size);
    }
};

TEST_F(Capacity, CreateAnswersByFamily) {
    std::string state = ModelState();
    struct Case {
        const char* what;
        VDS_LUN_TYPE type;
        std::vector<VDS_OBJECT_ID> drives;
        ULONG maxDrives;
        ULONGLONG mask;
        BOOL reads;
        HRESULT expect;
        uint64_t size;
    } cases[] = {
        // Search: the six free SAS drives are the largest tier.
        {"raid5 by search", VDS_LT_RAID5, {}, 0, 0, 0, S_OK, 5 * kSasUsable},
        {"mirror by search", VDS_LT_MIRROR, {}, 0, 0, 0, S_OK, 3 * kSasUsable},
        {"raid50 by search", VDS_LT_RAID50, {}, 0, 0, 0, S_OK, 4 * kSasUsable},
        {"raid6 by search", VDS_LT_RAID6, {}, 0, 0, 0, S_OK, 4 * kSasUsable},
        {"stripe by search", VDS_LT_STRIPE, {}, 0, 0, 0, S_OK, 6 * kSasUsable},
        // Named free drives: sized as parity from three up, also when not fault tolerant (whose
        // RAID0 level takes nothing for parity).
        {"parity of four named", VDS_LT_PARITY, Drives({"S06", "S07", "S08", "S09"}), 4, 0, 0, S_OK, 2 * kSasUsable},
        {"default of three named", VDS_LT_DEFAULT, Drives({"S06", "S07", "S08"}), 3, 0, 0, S_OK, 2 * kSasUsable},
        {"nonfaulttolerant of three", VDS_LT_NON_FAULT_TOLERANT, Drives({"S06", "S07", "S08"}), 3, 0, 0, S_OK,
         3 * kSasUsable},
        {"default of two named", VDS_LT_DEFAULT, Drives({"T0", "T1"}), 0, 0, 0, S_OK, lab::kSataUsable},
        // Named members of an old vdisk: its free space (all free blocks).
        {"members of VD-R5", VDS_LT_RAID5, Drives({"S00", "S01", "S02", "S03"}), 0, 0, 0, S_OK, kR5Free},
        {"some members of VD-R5", VDS_LT_RAID5, Drives({"S00", "S01", "S02"}), 0, 0, 0, VDS_E_DEVICE_IN_USE, 0},
        // Too few drives are no error: 0.
        {"parity of two named", VDS_LT_PARITY, Drives({"T0", "T1"}), 0, 0, 0, S_OK, 0},
        {"stripe of one", VDS_LT_STRIPE, Drives({"S06"}), 0, 0, 0, S_OK, 0},
        {"raid10 of two", VDS_LT_RAID10, Drives({"S06", "S07"}), 0, 0, 0, S_OK, 0},
        {"raid50 of four", VDS_LT_RAID50, Drives({"S06", "S07", "S08", "S09"}), 0, 0, 0, S_OK, 0},
        // Refusals.
        {"span", VDS_LT_SPAN, {}, 0, 0, 0, E_INVALIDARG, 0},
        {"raid50 of seven", VDS_LT_RAID50, Drives({"S06", "S07", "S08", "S09", "S10", "S11", "S00"}), 0, 0, 0,
         VDS_E_NOT_SUPPORTED, 0},
        {"mixed", VDS_LT_STRIPE, Drives({"S06", "T0"}), 0, 0, 0, VDS_E_NOT_SUPPORTED, 0},
    };
    for (const Case& c : cases) {
        ULONGLONG size = 0;
        EXPECT_EQ(MaxCreate(c.type, c.drives, &size, c.maxDrives, c.mask, c.reads), c.expect) << c.what;
        EXPECT_EQ(size, c.size) << c.what;
    }
    ULONGLONG size = 0;
    EXPECT_EQ(Sub()->QueryMaxLunCreateSize(VDS_LT_RAID4, nullptr, 0, nullptr, &size), E_INVALIDARG);
    EXPECT_EQ(Sub()->QueryMaxLunCreateSize(VDS_LT_STRIPE, nullptr, 0, nullptr, nullptr), E_INVALIDARG);
    EXPECT_EQ(Sub()->QueryMaxLunCreateSize(VDS_LT_STRIPE, nullptr, 3, nullptr, &size), E_INVALIDARG);
    // Seventeen named drives of another level than RAID50: not supported (the creation says
    // invalid argument).
    std::vector<VDS_OBJECT_ID> many(17, Drive("S06"));
    EXPECT_EQ(MaxCreate(VDS_LT_RAID5, many, &size), VDS_E_NOT_SUPPORTED);
    EXPECT_EQ(ModelState(), state);
}

TEST_F(Capacity, TheAnswerOfAnOldVdiskWinsWhenItHasMore) {
    // Free drives gone: the RAID5 answer is VD-R5's free space.
    env.sim->WithModel([](trovsim::Model& m) {
        for (auto& d : m.subsystems()[0].drives)
            if (d.howUsed == 0) d.howUsed = 3;
        m.Touch(m.subsystems()[0]);
    });
    ASSERT_EQ(provider()->Reenumerate(), S_OK);
    ULONGLONG size = 0;
    EXPECT_EQ(MaxCreate(VDS_LT_RAID5, {}, &size), S_OK);
    EXPECT_EQ(size, kR5Free);
    // No free drive and no vdisk of the type: 0.
    EXPECT_EQ(MaxCreate(VDS_LT_MIRROR, {}, &size), S_OK);
    EXPECT_EQ(size, 0u);
}

TEST_F(Capacity, ExtendAnswers) {
    std::string state = ModelState();
    ULONGLONG size = 0;
    // Four of the six free drives of the members' size, each whole, and the free space.
    EXPECT_EQ(MaxExtend("v1", {}, &size), S_OK);
    EXPECT_EQ(size, kR5Free + 4 * kSasUsable);
    // The members themselves add nothing.
    EXPECT_EQ(MaxExtend("v1", Drives({"S00", "S01", "S02", "S03"}), &size), S_OK);
    EXPECT_EQ(size, kR5Free);
    EXPECT_EQ(MaxExtend("v1", Drives({"S06", "S07"}), &size), S_OK);
    EXPECT_EQ(size, kR5Free + 2 * kSasUsable);
    EXPECT_EQ(MaxExtend("v1", Drives({"T0"}), &size), VDS_E_NOT_SUPPORTED);
    // The stripe vdisk without volumes: its whole capacity and four drives.
    EXPECT_EQ(MaxExtend("VD-EMPTY(DummyVolume)", {}, &size), S_OK);
    EXPECT_EQ(size, 2 * kSasUsable + 4 * kSasUsable);
    EXPECT_EQ(ModelState(), state);

    // A mirror grows only into its free space.
    CComPtr<IVdsLun> mirror;
    ASSERT_EQ(Create(VDS_LT_MIRROR, 100 * MiB, Drives({"T0", "T1"}), 0, 0, 0, &mirror), S_OK);
    ASSERT_EQ(mirror->QueryMaxLunExtendSize(nullptr, 0, &size), S_OK);
    EXPECT_EQ(size, lab::kSataUsable - 100 * MiB);
    EXPECT_EQ(mirror->QueryMaxLunExtendSize(nullptr, 2, &size), E_INVALIDARG);
    EXPECT_EQ(mirror->QueryMaxLunExtendSize(nullptr, 0, nullptr), E_INVALIDARG);
}

TEST_F(Capacity, StoragePools) {
    CPool* sas = nullptr;
    CPool* r5 = nullptr;
    for (const auto& [id, e] : provider()->PoolMap()) {
        CPool* p = e.As<CPool>();
        if (!p) continue;
        std::string name = testlib::Narrow(p->Prop().pwszName);
        if (!p->IsConcrete() && name.find("SAS") != std::string::npos) sas = p;
        if (p->IsConcrete() && name.find("VD-R5") != std::string::npos) r5 = p;
    }
    ASSERT_NE(sas, nullptr);
    ASSERT_NE(r5, nullptr);
    IVdsHwProviderStoragePools* pools = env.Query<IVdsHwProviderStoragePools>(IID_IVdsHwProviderStoragePools);
    ASSERT_NE(pools, nullptr);
    VDS_HINTS2 h2{};
    ULONGLONG size = 0;
    // A primordial pool answers for its free drives; a concrete one with its free space.
    EXPECT_EQ(pools->QueryMaxLunCreateSizeInStoragePool(VDS_LT_RAID5, sas->Prop().id, &h2, &size), S_OK);
    EXPECT_EQ(size, 5 * kSasUsable);
    EXPECT_EQ(pools->QueryMaxLunCreateSizeInStoragePool(VDS_LT_MIRROR, r5->Prop().id, &h2, &size), S_OK);
    EXPECT_EQ(size, kR5Free);
    VDS_OBJECT_ID unknown{};
    CoCreateGuid(&unknown);
    EXPECT_EQ(pools->QueryMaxLunCreateSizeInStoragePool(VDS_LT_RAID5, unknown, &h2, &size), VDS_E_OBJECT_NOT_FOUND);

    // Creating in the concrete pool: a default LUN takes the pool's type and lands on its vdisk.
    IVdsAsync* async = nullptr;
    WCHAR empty[1] = {0};
    ASSERT_EQ(pools->CreateLunInStoragePool(VDS_LT_DEFAULT, 8 * MiB, r5->Prop().id, empty, &h2, &async), S_OK);
    HRESULT result = E_FAIL;
    VDS_ASYNC_OUTPUT out{};
    ASSERT_EQ(async->Wait(&result, &out), S_OK);
    async->Release();
    ASSERT_NE(out.cl.pLunUnk, nullptr);
    CComPtr<IVdsLun> lun;
    out.cl.pLunUnk->QueryInterface(IID_IVdsLun, reinterpret_cast<void**>(&lun));
    out.cl.pLunUnk->Release();
    EXPECT_NE(VdiskNamed("VD-R5").PartNamed(Facts(lun).name), nullptr);
    EXPECT_EQ(pools->CreateLunInStoragePool(VDS_LT_DEFAULT, 8 * MiB, unknown, empty, &h2, &async),
              VDS_E_OBJECT_NOT_FOUND);
    pools->Release();
}

}  // namespace
