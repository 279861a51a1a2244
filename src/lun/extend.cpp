// Growing and shrinking a LUN: CLun::Extend, CLun::Shrink, CLun::ReCalcDriveList, and the
// decisions and the expand_part retry loop of lun/extend.h.
#include "lun/extend.h"

#include <cstring>
#include <memory>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/drive_search.h"
#include "lun/hints.h"
#include "lun/lun.h"
#include "objects/async.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/platform.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "support/debuglog.h"

namespace {

constexpr int kExpandPartTries = 20;
constexpr uint32_t kExpandPartPauseMs = 3000;
constexpr uint32_t kSettleAfterExpandMs = 10000;

bool IsRaid50Kind(uint8_t raid) { return raid == TROV_RAID50 || raid == TROV_RAID30; }

// Stripe, or any parity type (the newer RAID types of a parity vdisk count as parity).
bool StripeOrParity(int type) { return type == VDS_LT_STRIPE || IsParityType(type); }

const ArrayData* FindArray(const ControllerData& cd, const uint8_t* arraySn) {
    for (uint32_t a = 0; a < cd.arrayCount(); ++a)
        if (std::memcmp(cd.array(a).serialNumber, arraySn, 32) == 0) return &cd.array(a);
    return nullptr;
}

}  // namespace

HRESULT ExtendLadder(int lunType, uint8_t raidLevel, LONG nDrives, uint32_t vdiskDrives, uint8_t drivesPerLeg) {
    if (!StripeOrParity(lunType) && raidLevel != TROV_RAID10 && raidLevel != TROV_RAID30 && raidLevel != TROV_RAID6 &&
        raidLevel != TROV_RAID50) {
        DebugTrace("OOP!!! CLun::Extend() Type() != VDS_LT_STRIPE &&\tType() != VDS_LT_PARITY && "
                   "\tpArrayData->raidLevel != TROV_RAID10 && \tpArrayData->raidLevel != TROV_RAID6 return "
                   "VDS_E_NOT_SUPPORTED, line %d\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (raidLevel == TROV_RAID10) {
        if (nDrives != 0 && nDrives != 2 && nDrives != 4) {
            DebugTrace("OOP!!! CLun::Extend() lNumberOfDrives != 0 && lNumberOfDrives != 2 && lNumberOfDrives != 4 "
                       "return VDS_E_NOT_SUPPORTED, line %d\n",
                       __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        return S_OK;
    }
    if (IsRaid50Kind(raidLevel)) {
        if (nDrives != 0 && nDrives != drivesPerLeg) {
            DebugTrace("OOP!!! CLun::Extend() lNumberOfDrives != m_numDrivesPerLowLevelArray[RAID50] return "
                       "VDS_E_NOT_SUPPORTED, line %d\n",
                       __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        if (static_cast<uint64_t>(vdiskDrives) + static_cast<uint64_t>(nDrives) > 32) {
            DebugTrace("OOP!!! CLun::Extend() pArrayData->numDrives(%d) + lNumberOfDrives(%d)> 32[RAID50], cann't "
                       "expand with add drive return VDS_E_NOT_SUPPORTED, line %d\n",
                       static_cast<int>(vdiskDrives), static_cast<int>(nDrives), __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        return S_OK;
    }
    if (nDrives > 4) {
        DebugTrace("OOP!!! CLun::Extend() lNumberOfDrives > 4 return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (static_cast<uint64_t>(vdiskDrives) + static_cast<uint64_t>(nDrives) > 16) {
        DebugTrace("OOP!!! CLun::Extend() pArrayData->numDrives(%d) + lNumberOfDrives(%d) > 16 return "
                   "VDS_E_NOT_SUPPORTED, line %d\n",
                   static_cast<int>(vdiskDrives), static_cast<int>(nDrives), __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    return S_OK;
}

uint64_t CapacityOfAddedDrives(uint8_t raid, uint64_t sizeAll, uint32_t d) {
    if (d == 0) return 0;
    if (raid == TROV_RAID10) return (sizeAll / 2) / d * (d / 2 * 2);
    return sizeAll;
}

HRESULT DriveCountToAdd(uint8_t raidLevel, int lunType, uint64_t single, uint64_t freeBytes, uint64_t bytesWanted,
                        uint8_t drivesPerLeg, size_t available, uint32_t* count) {
    uint32_t d = raidLevel == TROV_RAID10 ? 2 : IsRaid50Kind(raidLevel) ? drivesPerLeg : 1;
    const uint32_t step = raidLevel == TROV_RAID10 ? 2 : 1;
    // The original raises the count without limit; past the most drives a vdisk holds every count
    // is refused below anyway, so the search stops there (drives of no size never reach the goal).
    while (d <= kMaxDrivesPerArray && CapacityOfAddedDrives(raidLevel, uint64_t{d} * single, d) + freeBytes < bytesWanted)
        d += step;
    if ((d & 1) && (lunType == VDS_LT_MIRROR || lunType == VDS_LT_RAID10)) ++d;
    if (!IsRaid50Kind(raidLevel)) {
        if (d > 4) {
            DebugTrace("OOP!!! CLun::Extend() DriveCount2Add > 4 return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
    } else if (d != drivesPerLeg) {
        DebugTrace("OOP!!! CLun::Extend() for raid50 DriveCount2Add(%d) != m_numDrivesPerLowLevelArray(%d) return "
                   "VDS_E_NOT_SUPPORTED, line %d\n",
                   static_cast<int>(d), static_cast<int>(drivesPerLeg), __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (d > available) {
        DebugTrace("OOP!!! CLun::Extend() DriveCount2Add > vSeriNum.size() return VDS_E_NOT_ENOUGH_DRIVE, line %d\n",
                   __LINE__);
        return VDS_E_NOT_ENOUGH_DRIVE;
    }
    *count = d;
    return S_OK;
}

ExpandPartEnd ExpandPartRetryLoop(uint32_t handle, ExpandPartRequest* request, const uint8_t* arraySn,
                                  const char* retryFormat) {
    int counter = kExpandPartTries;
    for (;;) {
        --counter;
        DebugTrace(retryFormat, counter);
        Plat()->Sleep(kExpandPartPauseMs);
        if (counter & 1)
            std::memcpy(request->vdiskSerial, arraySn, sizeof request->vdiskSerial);
        else
            std::memset(request->vdiskSerial, 0, sizeof request->vdiskSerial);
        int rc = Kelvane::expand_part(handle, *request);
        if (rc != 0 && counter > 0) {
            // A lost line is repaired before the next try; the original waits for the monitor to
            // do it, which cannot happen while an extension holds the notification mutex.
            if (rc == -1) {
                CLockGuard lock("ExpandPartRetryLoop", hNotificationMutex);
                ProxyReconnect();
            }
            continue;
        }
        if (rc == 0 && counter > 0) return ExpandPartEnd::kGrown;
        if (rc != 0) return ExpandPartEnd::kTakenAsGrown;
        return ExpandPartEnd::kFailed;
    }
}

bool CLun::ReCalcDriveList(uint8_t raid, uint64_t ullBytesNeeded, uint64_t ullFreeInVdisk, DriveLists* lists,
                           uint64_t* ullSizeAllDrives, uint32_t* numDrives) {
    if (*numDrives == 0 || !m_pSubSystem) return false;
    const uint64_t single = *ullSizeAllDrives / *numDrives;
    bool reached = false;
    m_pSubSystem->ForEach<CDrive>([&](CDrive* d) {
        if (reached) return;
        if (!d->IsFree() || (d->Flags() & 1) != 0 || d->Status() != VDS_DRS_ONLINE || d->Size() < single ||
            lists->Contains(d->Serial()))
            return;
        *ullSizeAllDrives += single;
        ++*numDrives;
        lists->Append(*d);
        if ((raid == TROV_RAID1 || raid == TROV_RAID10) && (*numDrives & 1)) return;
        if (CapacityOfAddedDrives(raid, *ullSizeAllDrives, *numDrives) + ullFreeInVdisk >= ullBytesNeeded) reached = true;
    });
    return reached;
}

HRESULT CLun::Shrink(ULONGLONG ullNumberOfBytesToRemove, IVdsAsync** ppAsync) try {
    DebugTrace("CLun::Shrink()\n");
    if (!ppAsync) return E_POINTER;
    *ppAsync = nullptr;
    if (ullNumberOfBytesToRemove != 0 && ullNumberOfBytesToRemove < m_prop.ullSize) return VDS_E_NOT_SUPPORTED;
    DebugTrace("OOP!!! CLun::Shrink() uNumberOfBytesToRemove == 0 || uNumberOfBytesToRemove >= m_prop.ullSize return "
               "E_INVALIDARG, line %d\n",
               __LINE__);
    return E_INVALIDARG;
}
TROV_CATCH_OOM

HRESULT CLun::Extend(ULONGLONG ullNumberOfBytesToAdd, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                     IVdsAsync** ppAsync) try {
    DebugTrace("CLun::Extend() ullNumberOfBytesToAdd=0x%I64x, lNumberOfDrives=%d\n", ullNumberOfBytesToAdd,
               static_cast<int>(lNumberOfDrives));
    if (m_isDummy) {
        DebugTrace("CLun::Extend(), it is a dummy volume, cann't Extend, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (m_specialType == TROV_PART_MASTER_VOLUME || m_specialType == TROV_PART_SNAPSHOT) {
        DebugTrace("CLun::Extend(), it is a snapshot/master volume, cann't Extend, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (!ppAsync) return E_POINTER;
    if (ullNumberOfBytesToAdd != 0) ullNumberOfBytesToAdd = RoundUpToMb(ullNumberOfBytesToAdd);
    DebugTrace("CLun::Extend() after ROUND_UP_TO_MB_BOUNDARY lNumberOfDrives=%d, ullNumberOfBytesToAdd=0x%I64x\n",
               static_cast<int>(lNumberOfDrives), ullNumberOfBytesToAdd);

    CLockGuard lock("CLun::Extend", hNotificationMutex);
    InitializeCounter counter;
    if (!CanOperate()) {
        DebugTrace("OOP!!! CLun::Extend() CanOperate return false  return VDS_E_OBJECT_STATUS_FAILED, line %d\n",
                   __LINE__);
        DumpMySelf();
        return VDS_E_OBJECT_STATUS_FAILED;
    }
    *ppAsync = nullptr;
    if (lNumberOfDrives < 0 || (lNumberOfDrives > 0 && !pDriveIdArray)) return E_POINTER;
    return ExtendLocked(ullNumberOfBytesToAdd, pDriveIdArray, lNumberOfDrives, ppAsync);
}
TROV_CATCH_OOM

HRESULT CLun::ExtendLocked(ULONGLONG bytes, const VDS_OBJECT_ID* drives, LONG count, IVdsAsync** ppAsync) {
    if (!m_pController || !m_pSubSystem) return VDS_E_OBJECT_DELETED;
    const uint32_t handle = m_pController->Handle();
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    const ArrayData* array = FindArray(*cd, m_ArraySn);
    bool anyExpanding = false;
    for (uint32_t a = 0; a < cd->arrayCount(); ++a)
        if (cd->array(a).utilityRunning == TROV_UTILITY_EXPAND) anyExpanding = true;
    if (!array) {
        DebugTrace("OOP!!! CLun::Extend() pArrayData == NULL return VDS_E_OBJECT_DELETED, line %d\n", __LINE__);
        return VDS_E_OBJECT_DELETED;
    }
    const uint64_t freeBytes = array->remainingBlocks.value() << 9;
    uint32_t driveCount2Add = 0;
    const uint8_t numFreeSegments = array->numFreeArrayPartitionSegments;

    if (count != 0 || freeBytes < bytes) {
        switch (array->utilityRunning) {
            case TROV_UTILITY_2:
            case TROV_UTILITY_RECONSTRUCT:
            case TROV_UTILITY_4:
            case TROV_UTILITY_EXPAND: return VDS_E_ANOTHER_CALL_IN_PROGRESS;
            default: break;
        }
        HRESULT hr = ExtendLadder(m_prop.type, array->raidLevel, count, array->memberCount(),
                                  array->numDrivesPerLowLevelArray);
        if (FAILED(hr)) return hr;
        if (array->utilityRunning == TROV_UTILITY_VERIFY) Kelvane::abort_utility(handle, m_ArraySn);
        // Only one vdisk of a controller may expand at a time.
        if (anyExpanding) return VDS_E_ANOTHER_CALL_IN_PROGRESS;

        DriveLists lists;
        uint64_t sizeAll = 0;
        uint32_t named = static_cast<uint32_t>(count);
        if (count != 0) {
            if (!HasSameDriveType(*m_pSubSystem, m_driveType, drives, count)) return VDS_E_NOT_SUPPORTED;
            if (!DriveGuids2TrovSn(*m_pSubSystem, drives, count, &lists, m_minDriveSize, &sizeAll)) {
                DebugTrace("OOP!!! CLun::Extend() return VDS_E_DEVICE_IN_USE, line %d\n", __LINE__);
                return VDS_E_DEVICE_IN_USE;
            }
            // Drives the subsystem doesn't know, or smaller than the vdisk's, are left out.
            named = static_cast<uint32_t>(lists.size());
            uint64_t gain = CapacityOfAddedDrives(m_RaidLevel, sizeAll, named);
            if (bytes == 0) bytes = RoundDownToMb(gain + freeBytes);
            if (bytes > gain + freeBytes) {
                if (!ReCalcDriveList(m_RaidLevel, bytes, freeBytes, &lists, &sizeAll, &named)) {
                    if (IsRaid50Kind(m_RaidLevel) && named != m_numDrivesPerLowLevelArray) return VDS_E_NOT_SUPPORTED;
                    if (!IsRaid50Kind(m_RaidLevel) && named > 4) return VDS_E_NOT_SUPPORTED;
                    DebugTrace("OOP!!! CLun::Extend() return VDS_E_NOT_ENOUGH_DRIVE, line %d\n", __LINE__);
                    return VDS_E_NOT_ENOUGH_DRIVE;
                }
            }
            if (IsRaid50Kind(m_RaidLevel) && named != m_numDrivesPerLowLevelArray) {
                DebugTrace("OOP!!! CLun::Extend() lNumberOfDrives(%d) != m_numDrivesPerLowLevelArray(%d)[RAID50] "
                           "return VDS_E_NOT_SUPPORTED, line %d\n",
                           static_cast<int>(named), static_cast<int>(m_numDrivesPerLowLevelArray), __LINE__);
                return VDS_E_NOT_SUPPORTED;
            }
            if (!IsRaid50Kind(m_RaidLevel) && named > 4) return VDS_E_NOT_SUPPORTED;
        } else {
            SeekNewDrives(*m_pSubSystem, m_prop.type, m_driveType, m_minDriveSize, m_RaidLevel, 0, &lists, &sizeAll);
        }
        if (lists.empty()) {
            if (count == 0) return VDS_E_NOT_ENOUGH_DRIVE;
            DebugTrace("OOP!!! CLun::Extend() lNumberOfDrives != 0 return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        const uint64_t single = sizeAll / lists.size();
        if (count != 0) {
            driveCount2Add = named;
        } else {
            HRESULT hc = DriveCountToAdd(array->raidLevel, m_prop.type, single, freeBytes, bytes,
                                         m_numDrivesPerLowLevelArray, lists.size(), &driveCount2Add);
            if (FAILED(hc)) return hc;
        }
        DebugTrace("CLun::Extend() DriveCount2Add = %d, vSeriNum# = %d, vLoca# = %d\n",
                   static_cast<int>(driveCount2Add), static_cast<int>(lists.vSerial.size()),
                   static_cast<int>(lists.vLoca.size()));
        if (driveCount2Add + array->memberCount() > kMaxDrivesPerArray) {
            DebugTrace("OOP!! CLun::Extend() the total drive num is large than TROV_MAX_DRIVES_PER_ARRAY!");
            return VDS_E_NOT_SUPPORTED;
        }
        if (lists.size() < driveCount2Add) return VDS_E_NOT_ENOUGH_DRIVE;
        lists.KeepFirst(driveCount2Add);

        if (Kelvane::expand_array(handle, m_ArraySn, lists.vLoca) != 0) {
            DebugTrace("OOP!! CLun::Extend() expand_array return error!");
            return VDS_E_INTERNAL_ERROR;
        }
        Plat()->Sleep(kSettleAfterExpandMs);
        if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
        m_pSubSystem->ForEach<CDrive>([&](CDrive* d) {
            for (uint32_t i = 0; i < cd->driveCount(); ++i) {
                const DriveData& r = cd->drive(i);
                if (std::memcmp(r.serialNumber, d->Serial(), 32) != 0) continue;
                if (!rec::ArrayKeyMatches(r.arrayKey, m_ArraySn)) continue;
                d->InitializeAfterCreate(r, m_ArraySn, m_pController);
                d->SetArrayPosition(r.arrayPosition);
                break;
            }
        });
        if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
        m_pSubSystem->ForEach<CLun>([&](CLun* lun) {
            if (const ArrayData* a = FindArray(*cd, lun->m_ArraySn)) lun->m_memberCount = a->memberCount();
        });
        array = FindArray(*cd, m_ArraySn);
        if (!array) return VDS_E_OBJECT_DELETED;
    }

    const bool needExpandSizeAfterAddDisk = count != 0 || driveCount2Add > 0;
    if (!needExpandSizeAfterAddDisk && numFreeSegments == 0) {
        DebugTrace("OOP!!! CLun::Extend() needExpandSizeAfterAddDisk == false && "
                   "pArrayData->numFreeArrayPartitionSegments == 0 return VDS_E_NOT_SUPPORTED, line %d\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }

    CComObject<CVdsAsyncObject>* async = nullptr;
    if (FAILED(CComObject<CVdsAsyncObject>::CreateInstance(&async)) || !async) return E_OUTOFMEMORY;
    CComPtr<IVdsAsync> handle54(static_cast<IVdsAsync*>(async));
    async->Initialize(m_pSubSystem, m_pController, VDS_ASYNCOUT_EXTENDLUN);
    async->SetResult(static_cast<IVdsLun*>(this));

    if (count != 0 && bytes == 0) bytes = (array->remainingBlocks.value() >> 11) << 20;
    const uint64_t newBlocks = (bytes + m_prop.ullSize) >> 9;
    ExpandPartRequest& request = async->ExpandRequest();
    std::memset(&request, 0, sizeof request);
    request.newSizeBlocks = newBlocks;
    std::memcpy(request.partitionSerial, m_partitionSn, sizeof request.partitionSerial);
    DebugTrace("CLun::Extend(), before we expande size requestToAddSize = 0x%I64x\n", bytes);

    if (needExpandSizeAfterAddDisk) {
        async->SetExpandLun(static_cast<IVdsLun*>(this));
    } else {
        ExpandPartEnd end = ExpandPartRetryLoop(handle, &request, m_ArraySn, "retry expand part %d\n");
        async->SetRunning(0);
        if (end == ExpandPartEnd::kFailed) {
            // The original hands the object out with this failure; a caller does not release what
            // a failed call gave, so it is kept back here.
            return VDS_E_INTERNAL_ERROR;
        }
        GrownTo(newBlocks << 9, end == ExpandPartEnd::kTakenAsGrown);
    }
    LogWarningEvent("The VDS Provider has started a vdisk expansion operation which may take a long time to complete.");
    *ppAsync = handle54.Detach();
    DebugTrace("CLun::Extend() out\n");
    return S_OK;
}

void CLun::GrownTo(ULONGLONG bytes, bool unconfirmed) {
    m_prop.ullSize = bytes;
    // Twenty refusals count as a growth; the array may not hold it, so the next query rebuilds
    // the tree from what the array says.
    if (unconfirmed && m_pProvider) m_pProvider->SetNeedRefresh(true);
}
