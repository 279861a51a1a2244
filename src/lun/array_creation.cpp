// Making a LUN on the array: CLun::CreateAndInitialize and its two ways, a partition of an old
// vdisk (CreateLunByAddPartition, a first fit over controllers and vdisks) or a new vdisk and its
// partition (CreateLunByCreateArray, controller A before B). Snapshots, master volumes, backing
// stores and dummy requests (a vdisk without a partition) go the same ways.
//
// The new LUN and its plexes are built from the array's answer at once; after a new vdisk its
// member drives are updated from the owner's record, and the dummy volume of a vdisk that gets its
// first partition leaves the tree. Nothing is rolled back: what the array did stays, and the next
// refresh shows it. Every step reads the controller's record afresh.
#include <cstring>
#include <memory>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/capacity.h"
#include "lun/drive_search.h"
#include "lun/hints.h"
#include "lun/lun.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {

constexpr uint32_t kMaxPartitionsPerVdisk = 128;
constexpr uint32_t kSettleAfterCreateMs = 1000;

bool Offline(const ArrayData& a) { return a.health == 3 || a.health == 4 || a.health == 5; }

uint32_t PartitionLimitOf(const ControllerData& cd) {
    return cd.controller.maxArrayPartitions != 0 ? cd.controller.maxArrayPartitions / 2 : kMaxPartitionsPerVdisk;
}

std::unique_ptr<uint8_t[]> ReadRecord(uint32_t handle) {
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) return nullptr;
    return buf;
}

const ControllerData* AsRecord(const std::unique_ptr<uint8_t[]>& buf) {
    return reinterpret_cast<const ControllerData*>(buf.get());
}

// The RAID level a parity request of this type must find on an old vdisk.
int WantedRaid(int type, uint8_t requested) {
    switch (type) {
        case VDS_LT_PARITY: return requested;
        case VDS_LT_RAID3: return TROV_RAID3;
        case VDS_LT_RAID5: return TROV_RAID5;
        case VDS_LT_RAID6: return TROV_RAID6;
        case VDS_LT_RAID30: return TROV_RAID30;
        case VDS_LT_RAID50: return TROV_RAID50;
        default: return 12;
    }
}

// Whether the vdisk takes a stripe size of `stripe` bytes for a LUN of `type`.
bool StripeFits(const ArrayData& a, int type, ULONG stripe) {
    if (stripe == 0) return true;
    uint32_t dataDrives = a.numDrives - a.numSpares;
    if (type == VDS_LT_STRIPE || IsParityType(type)) return stripe == (a.stripeKiB << 10);
    if (type == VDS_LT_MIRROR || type == VDS_LT_RAID10) {
        if (dataDrives == 2) return false;
        if (dataDrives >= 4) return stripe == (a.stripeKiB << 10);
    }
    return true;
}

}  // namespace

HRESULT CLun::CreateAndInitialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                                  VDS_LUN_TYPE type, ULONGLONG ullSize, const VDS_OBJECT_ID* pDriveIdArray,
                                  LONG lNumberOfDrives, ULONG ulStripeSize, const VDS_HINTS& hints) {
    DebugTrace("CLun::CreateAndInitialize()\n");
    if (!id || !provider || !subsystem) return E_INVALIDARG;
    InitializeCounter counter;
    uint8_t requested = m_requestedRaidLevel;
    Dispose();
    m_requestedRaidLevel = requested;
    HoldParents(provider, subsystem, nullptr, &m_pProvider, &m_pSubSystem, nullptr);

    const LONG n = pDriveIdArray && lNumberOfDrives > 0 ? lNumberOfDrives : 0;
    DriveLists drives;
    bool allFree = true;
    if (n != 0) {
        if (!HasSameDriveType(*subsystem, pDriveIdArray, n)) {
            DebugTrace("OOP!! CLun::CreateAndInitialize() line %d : the input drives has not same type(Mixed "
                       "drives). return VDS_E_NOT_SUPPORTED\n",
                       __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        uint64_t sizeDrives = 0;
        allFree = DriveGuids2TrovSn(*subsystem, pDriveIdArray, n, &drives, 0, &sizeDrives);
        if (sizeDrives < ullSize) return VDS_E_NOT_ENOUGH_SPACE;
    }
    if (ullSize != 0) ullSize = RoundUpToMb(ullSize);

    auto newArray = std::make_unique<ArrayData>();
    auto newPart = std::make_unique<PartitionData>();
    std::memset(newArray.get(), 0, sizeof *newArray);
    std::memset(newPart.get(), 0, sizeof *newPart);
    HRESULT hr = CreateLunByAddPartition(type, ullSize, n, ulStripeSize, drives, hints, newArray.get(), newPart.get());
    if (FAILED(hr)) {
        DebugTrace("OOP!! CLun::CreateAndInitialize() CreateLunByAddPartition return Error!!\n");
        return hr;
    }
    bool newVdisk = false;
    if (newArray->numDrives == 0) {
        if (!allFree) {
            DebugTrace("Need create lun by create array, but it contain a used drive, so return VDS_E_DEVICE_IN_USE.\n");
            return VDS_E_DEVICE_IN_USE;
        }
        newVdisk = true;
        hr = CreateLunByCreateArray(type, ullSize, ulStripeSize, &drives, hints, newArray.get(), newPart.get());
        if (FAILED(hr)) {
            DebugTrace("OOP!! CLun::CreateAndInitialize() CreateLunByCreateArray return Error!!\n");
            return hr;
        }
        if (newArray->numDrives == 0) {
            DebugTrace("Error: in CLun::CreateAndInitialize(), numDrives == %d at line %d (should be > 0)\n", 0,
                       __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
    }
    const bool dummy = IsDummyRequest(hints);
    if (!dummy && newPart->name[0] == '\0') {
        DebugTrace("Error: in CLun::CreateAndInitialize(), strlen(NewPart.name) == 0 at line %d\n", __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }

    std::vector<CComPtr<IVdsController>> controllers;
    subsystem->ForEach<CController>([&](CController* c) { controllers.emplace_back(static_cast<IVdsController*>(c)); });
    bool built = false;
    for (const CComPtr<IVdsController>& p : controllers) {
        auto* c = static_cast<CController*>(p.get());
        if (c->Owner() != newArray->owner) continue;
        Initialize(id, provider, subsystem, c, newArray.get(), dummy ? nullptr : newPart.get());
        built = true;
    }
    // The owner the array named is not among the controllers: nothing to build the LUN under.
    if (!built || !m_pController) return VDS_E_INTERNAL_ERROR;

    if (newVdisk) {
        Plat()->Sleep(kSettleAfterCreateMs);
        std::unique_ptr<uint8_t[]> buf = ReadRecord(m_pController->Handle());
        if (!buf) {
            DebugTrace("OOP!!! CLun::CreateAndInitialize() get_controller_data false(m_pController->Handle() = %d)  "
                       "return VDS_E_INTERNAL_ERROR, line %d\n",
                       static_cast<int>(m_pController->Handle()), __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
        const ControllerData* cd = AsRecord(buf);
        subsystem->ForEach<CDrive>([&](CDrive* d) {
            for (uint32_t i = 0; i < cd->driveCount(); ++i) {
                const DriveData& r = cd->drive(i);
                if (std::memcmp(r.serialNumber, d->Serial(), 32) != 0) continue;
                if (!rec::ArrayKeyMatches(r.arrayKey, m_ArraySn)) continue;
                d->InitializeAfterCreate(r, m_ArraySn, m_pController);
                break;
            }
        });
        m_driveType = newArray->driveType;
    }
    DebugTrace("CLun::CreateAndInitialize() out\n");
    return S_OK;
}

void CLun::Withdraw() {
    for (const auto& [plexId, e] : m_mapPlexes) m_pProvider->RemoveObject(plexId);
    m_pProvider->RemoveObject(m_prop.id);
}

HRESULT CLun::CreateLunByAddPartition(VDS_LUN_TYPE type, ULONGLONG size, LONG nDrives, ULONG stripe,
                                      const DriveLists& drives, const VDS_HINTS& hints, ArrayData* newArray,
                                      PartitionData* newPart) {
    DebugTrace("CLun::CreateLunByAddPartition()\n");
    const int wantedRaid = WantedRaid(type, m_requestedRaidLevel);
    const uint32_t numSpares = nDrives != 0 ? NumSpares(hints) : 0;
    if (IsDummyRequest(hints)) return S_OK;
    const uint8_t special = SpecialLunType(hints);
    const bool win7 = HostIsWin7();
    bool aliveA = true, aliveB = true;

    std::vector<CComPtr<IVdsController>> controllers;
    m_pSubSystem->ForEach<CController>(
        [&](CController* c) { controllers.emplace_back(static_cast<IVdsController*>(c)); });
    for (const CComPtr<IVdsController>& p : controllers) {
        auto* ctrl = static_cast<CController*>(p.get());
        const uint32_t handle = ctrl->Handle();
        std::unique_ptr<uint8_t[]> buf = ReadRecord(handle);
        if (!buf) {
            DebugTrace("OOP!! CLun::CreateLunByAddPartition(Line %d), VDS_E_INTERNAL_ERROR\n", __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
        const ControllerData* cd = AsRecord(buf);
        const uint8_t controllerId = cd->controller.controllerId;
        const uint32_t limit = PartitionLimitOf(*cd);
        DebugTrace("CLun::CreateLunByAddPartition maxPartitionPerArray = %d, maxArrayPartitions = %d, maxLuns = %d!\n",
                   static_cast<int>(kMaxPartitionsPerVdisk), static_cast<int>(cd->controller.maxArrayPartitions),
                   static_cast<int>(cd->controller.maxLuns));
        bool& alive = controllerId != 0 ? aliveA : aliveB;
        if (ctrl->Status() != VDS_CS_ONLINE || ctrl->Health() != VDS_H_HEALTHY) {
            alive = false;
            continue;
        }
        if (nDrives != 0) {
            DebugTrace("CLun::CreateLunByAddPartition: scanning arrays (phase 1)\n");
            for (uint32_t a = 0; a < cd->arrayCount(); ++a) {
                const ArrayData& ad = cd->array(a);
                if (Offline(ad)) {
                    DebugTrace("skipping array %.20s because it's offline or quarantined\n", ad.name);
                    continue;
                }
                if (HasSameMemberDrives(handle, ad.serialNumber, drives) && cd->parititionCount >= limit) {
                    DebugTrace("pCtrlData->parititionCount(%d) >= maxPartitionPerController(%d), return "
                               "VDS_E_PARTITION_LIMIT_REACHED, line %d\n",
                               static_cast<int>(cd->parititionCount), static_cast<int>(limit), __LINE__);
                    return VDS_E_PARTITION_LIMIT_REACHED;
                }
                if (ad.partitionCount() >= kMaxPartitionsPerVdisk)
                    DebugTrace("this vdisk already contains the max number of partitions\n");
            }
        }
        if (cd->parititionCount >= limit) {
            alive = false;
            continue;
        }
        DebugTrace("CLun::CreateLunByAddPartition: scanning arrays (phase 2)\n");
        for (uint32_t a = 0; a < cd->arrayCount(); ++a) {
            const ArrayData& ad = cd->array(a);
            DebugTrace("CLun::CreateLunByAddPartition: examining vdisk %.20s (%d drive(s) %d spare(s))\n", ad.name,
                       static_cast<int>(ad.numDrives), static_cast<int>(numSpares));
            if (Offline(ad) || ad.partitionCount() >= kMaxPartitionsPerVdisk) continue;
            if (static_cast<int>(VdsTypeFromArray(ad, win7)) != static_cast<int>(type)) continue;
            if (IsParityType(type) && wantedRaid != ad.raidLevel) continue;
            if (!StripeFits(ad, type, stripe)) continue;
            const uint64_t largest = ad.largestFreeSegment.value() << 9;
            if (largest < kMinLunBytes || largest < size) continue;
            if (nDrives != 0 && !HasSameMemberDrives(handle, ad.serialNumber, drives)) continue;

            *newArray = ad;
            const bool hadNoPartition = ad.partitionCount() == 0;
            const uint64_t partSize = size != 0 ? size : (ad.largestFreeSegment.value() >> 11) << 20;
            uint8_t storeId[32] = {};
            if (special == TROV_PART_SNAPSHOT) {
                uint32_t count = 0;
                auto list = std::make_unique<VolumeEntry[]>(1024);
                int rc = Kelvane::get_master_volume_list(handle, controllerId, controllerId, nullptr, &count,
                                                         list.get());
                if (rc != 0) {
                    DebugTrace("OOP!! CLun::CreateLunByAddPartition() get_master_volume_list return false, rtn(%d), "
                               "line(%d)!\n",
                               rc, __LINE__);
                    return S_OK;
                }
                if (count == 0) {
                    DebugTrace("Lun::CreateLunByAddPartition get_master_volume_list numEntries=0, can't create "
                               "snapshot, return VDS_E_NOT_SUPPORTED\n");
                    return VDS_E_NOT_SUPPORTED;
                }
                count = rec::BoundedMasterVolumeCount(count);
                const VolumeEntry* master = &list[0];
                for (uint32_t i = 0; i < count; ++i)
                    if (std::memcmp(list[i].vdiskSerial, ad.serialNumber, 16) == 0) {
                        master = &list[i];
                        break;
                    }
                uint64_t tag = 0;
                if (Kelvane::get_dms_tag(handle, controllerId, &tag) != 0) {
                    DebugTrace("OOP!! CLun::CreateLunByAddPartition get_dms_tag failed!\n");
                    continue;
                }
                std::string name = NewName(m_pSubSystem->Entry(), false, TROV_PART_SNAPSHOT);
                auto made = std::make_unique<SnapshotResult>();
                rc = Kelvane::create_snapshot(handle, name.c_str(), 1, TROV_PART_SNAPSHOT, tag, master->id, made.get());
                if (rc == 186 || rc == 187) {
                    DebugTrace("OOP!! CLun::CreateLunByAddPartition create_snapshot TROV_ERROR_EXCEED_MAX_SNAPSHOT!\n");
                    return VDS_E_PARTITION_LIMIT_REACHED;
                }
                if (rc != 0) {
                    DebugTrace("OOP!! CLun::CreateLunByAddPartition create_snapshot failed!\n");
                    continue;
                }
                if (made->elementCount() == 0) {
                    DebugTrace("OOP!! CLun::CreateLunByAddPartition create_snapshot RetndSnList.numElements is 0!\n");
                    continue;
                }
                std::unique_ptr<uint8_t[]> again = ReadRecord(handle);
                if (again) {
                    const ControllerData* cd2 = AsRecord(again);
                    for (uint32_t b = 0; b < cd2->arrayCount(); ++b)
                        for (uint32_t q = 0; q < cd2->partitionCountOf(b); ++q) {
                            const PartitionData& pd = cd2->partition(b, q);
                            if (pd.partitionType != TROV_PART_SNAPSHOT ||
                                std::memcmp(pd.PartSn, made->serials[0], 32) != 0)
                                continue;
                            *newPart = pd;
                            // The snapshot lives on its master's vdisk, which may not be the one
                            // examined: the LUN is built on the vdisk that holds it, as the next
                            // refresh will show it.
                            *newArray = cd2->array(b);
                        }
                }
            } else {
                if (special == TROV_PART_MASTER_VOLUME) {
                    uint32_t count = 0;
                    auto list = std::make_unique<BackingStoreEntry[]>(16);
                    int rc = Kelvane::get_backing_store_list(handle, controllerId, &count, list.get());
                    if (rc != 0) {
                        DebugTrace("OOP!! CLun::CreateLunByAddPartition() get_backing_store_list return false, "
                                   "rtn(%d), line(%d)!\n",
                                   rc, __LINE__);
                        return VDS_E_INTERNAL_ERROR;
                    }
                    if (count == 0) {
                        DebugTrace("Lun::CreateLunByAddPartition get_backing_store_list numEntries=0, can't create "
                                   "mastervolume, return VDS_E_NOT_SUPPORTED\n");
                        return VDS_E_NOT_SUPPORTED;
                    }
                    count = rec::BoundedBackingStoreCount(count);
                    const BackingStoreEntry* store = &list[0];
                    for (uint32_t i = 0; i < count; ++i)
                        if (std::memcmp(list[i].vdiskSerial, ad.serialNumber, 16) == 0) {
                            store = &list[i];
                            break;
                        }
                    std::memcpy(storeId, store->id, sizeof store->id);
                }
                std::string name = NewName(m_pSubSystem->Entry(), false, special);
                int rc = Kelvane::add_array_part(handle, ad.serialNumber, partSize, name.c_str(), special != 0 ? 1 : 0,
                                                 special, storeId, newPart);
                if (rc == 78) return VDS_E_VOLUME_TOO_SMALL;
                if (rc == 214 || rc == 215) return VDS_E_PARTITION_LIMIT_REACHED;
                if (rc != 0) {
                    DebugTrace("OOP!! CLun::CreateLunByAddPartition add_array_part failed(0x%x)!\n", rc);
                    std::memset(newArray, 0, sizeof *newArray);
                    continue;
                }
            }
            if (hadNoPartition) {
                std::u16string key = AsciiToWide(HexBytes(ad.serialNumber, 16).c_str());
                VDS_OBJECT_ID dummyId{};
                if (!m_pProvider->Registry().FindIdentity(VDS_OT_LUN, key, &dummyId)) {
                    DebugTrace("OOP!! Delete Dummy Lun after create lun error, can't found Dummy lun's GUID");
                } else {
                    DebugTrace("Delete Dummy Lun after create lun");
                    if (CLun* old = m_pSubSystem->FindFirst<CLun>([&](CLun* l) { return l->Id() == dummyId; }))
                        old->Withdraw();
                    m_pSubSystem->DeleteLun(dummyId);
                    m_pProvider->RemoveObject(dummyId);
                }
            }
            return S_OK;
        }
        // No vdisk of this controller took it: nothing of its records stays in the answer.
        std::memset(newArray, 0, sizeof *newArray);
    }
    if (!aliveA && !aliveB) {
        DebugTrace("OOP!! CLun::CreateLunByAddPartition(Line %d) VDS_E_PARTITION_LIMIT_REACHED: Ctrl A and B shutdown "
                   "both!\n",
                   __LINE__);
        return VDS_E_PARTITION_LIMIT_REACHED;
    }
    std::memset(newArray, 0, sizeof *newArray);
    return S_OK;
}

HRESULT CLun::CreateLunByCreateArray(VDS_LUN_TYPE type, ULONGLONG size, ULONG stripe, DriveLists* drives,
                                     const VDS_HINTS& hints, ArrayData* newArray, PartitionData* newPart) {
    DebugTrace("CLun::CreateLunByCreateArray()\n");
    const uint8_t special = SpecialLunType(hints);
    if (special == TROV_PART_SNAPSHOT) {
        DebugTrace("OOP!! CLun::CreateLunByCreateArray() line %d : create snapshot will create new vdisk, must "
                   "error!\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    const uint32_t numSpares = NumSpares(hints);
    int t = type;
    uint32_t drivesPerLeg = 0;
    const bool named = !drives->empty();
    if (!named) {
        const uint8_t raid = GetRaidLevelForCreate(m_pSubSystem->LastHints(), t);
        uint64_t total = 0;
        const uint32_t found = SeekNewDrivesForCreate(*m_pSubSystem, raid, t, numSpares, drives, &total);
        const bool parity = IsParityType(t) || t == VDS_LT_PARITY;
        bool tooFew = found == 0 || (t == VDS_LT_RAID60 && found < 8) || (t == VDS_LT_RAID50 && found < 6) ||
                      (t == VDS_LT_RAID6 && found < 4) || (parity && found < 3) ||
                      ((t == VDS_LT_MIRROR || t == VDS_LT_RAID10 || t == VDS_LT_STRIPE) && found < 2);
        if (t == VDS_LT_PARITY) {
            if (raid == TROV_RAID6 && m_pSubSystem->SupportsRaid6() && found < 4) tooFew = true;
            if ((raid == TROV_RAID50 || raid == TROV_RAID30) && found < 6) tooFew = true;
        }
        if (tooFew) return VDS_E_NOT_ENOUGH_DRIVE;
        if (t == VDS_LT_DEFAULT || t == VDS_LT_FAULT_TOLERANT) t = VDS_LT_SIMPLE;
        const uint32_t start = StartingDriveCount(t, raid);
        const uint64_t single = total / found;
        uint32_t c = start;
        if (t == VDS_LT_SIMPLE) {
            if (size != 0 && size > single) return E_INVALIDARG;
        } else {
            c = DriveCountForSize(t, raid, start, single, size, found, &drivesPerLeg);
        }
        if (c > found) return VDS_E_NOT_ENOUGH_DRIVE;
        drives->KeepFirst(c);
    }
    DebugTrace("CLun::CreateLunByCreateArray after recalc, lNumberOfDrives %d\n", static_cast<int>(drives->size()));
    if (t == VDS_LT_MIRROR && drives->size() < 4 && stripe != 0) return VDS_E_NOT_SUPPORTED;

    const uint32_t handles[2] = {m_pSubSystem->Entry().controllerA, m_pSubSystem->Entry().controllerB};
    uint8_t storeId[32] = {};
    bool created = false, storeFound = false;
    for (int i = 0; i < 2 && !created; ++i) {
        const uint32_t handle = handles[i];
        if (handle == 0) continue;
        std::unique_ptr<uint8_t[]> buf = ReadRecord(handle);
        if (!buf) return VDS_E_INTERNAL_ERROR;
        const ControllerData* cd = AsRecord(buf);
        if (cd->controllerState == TROV_CTRL_STATE_NO_CONFIG2 || cd->controllerState == TROV_CTRL_STATE_NO_CONFIG3)
            continue;
        const uint32_t limit = PartitionLimitOf(*cd);
        DebugTrace("CLun::CreateLunByCreateArray maxPartitionPerController = %d!\n", static_cast<int>(limit));
        if (cd->parititionCount >= limit) continue;
        const uint8_t controllerId = cd->controller.controllerId;
        if (special == TROV_PART_MASTER_VOLUME) {
            uint32_t count = 0;
            auto list = std::make_unique<BackingStoreEntry[]>(16);
            if (Kelvane::get_backing_store_list(handle, controllerId, &count, list.get()) != 0)
                return VDS_E_INTERNAL_ERROR;
            if (count == 0) {
                DebugTrace("Lun::CreateLunByAddPartition get_backing_store_list numEntries=0, cann't create "
                           "mastervolume, continue\n");
                continue;
            }
            storeFound = true;
            std::memcpy(storeId, list[0].id, sizeof list[0].id);
        }
        const uint8_t level = VdsType2TrovRaidLevel(m_requestedRaidLevel, t);
        for (int attempt = 0; attempt < 2 && !created; ++attempt) {
            // Each try takes a fresh name: the failed one stays in the list of used names.
            std::string name = NewName(m_pSubSystem->Entry(), true, 0);
            int rc = Kelvane::create_array(handle, controllerId, newArray, level, stripe, drives->vLoca,
                                           drives->vSerial, name.c_str(), drivesPerLeg, numSpares);
            created = rc == 0;
            if (!created) std::memset(newArray, 0, sizeof *newArray);
        }
        if (!created && i == 1) {
            DebugTrace("OOP!! CLun::CreateLunByCreateArray create_array failed!\n");
            return VDS_E_INTERNAL_ERROR;
        }
    }
    if (special == TROV_PART_MASTER_VOLUME && !storeFound) {
        DebugTrace("Lun::CreateLunByAddPartition get_backing_store_list numEntries=0, cann't create mastervolume, "
                   "return VDS_E_NOT_SUPPORTED\n");
        return VDS_E_NOT_SUPPORTED;
    }
    if (IsDummyRequest(hints)) {
        DebugTrace("CLun::CreateLunByCreateArray isCreateDummyLun, array is created, return ok!\n");
        return S_OK;
    }
    const uint64_t largest = RoundDownToMb(newArray->largestFreeSegment.value() << 9);
    const uint64_t partSize = (size == 0 || size > largest) ? largest : size;
    uint32_t handle;
    if (newArray->owner == 1)
        handle = handles[0];
    else if (newArray->owner == 0)
        handle = handles[1];
    else
        return VDS_E_INTERNAL_ERROR;
    std::string name = NewName(m_pSubSystem->Entry(), false, special);
    int rc = Kelvane::add_array_part(handle, newArray->serialNumber, partSize, name.c_str(), special != 0 ? 1 : 0,
                                     special, storeId, newPart);
    if (rc == 0) {
        DebugTrace("OOP!! CLun::CreateLunByCreateArray add_array_part OK!\n");
        return S_OK;
    }
    if (rc == 78) return VDS_E_VOLUME_TOO_SMALL;
    if (rc == 214 || rc == 215) return VDS_E_PARTITION_LIMIT_REACHED;
    return VDS_E_INTERNAL_ERROR;
}
