#include "lun/capacity.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/drive_search.h"
#include "lun/hints.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/object_util.h"
#include "objects/pool.h"
#include "objects/subsystem.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

// ---------------------------------------------------------------------------------------------
// Formulas.

uint64_t GetRaidSizeUsedDrivesUseLunType(uint8_t raid, int type, uint32_t n, uint64_t total, bool noParityLoss) {
    if (n == 0) return total;
    if (type == VDS_LT_MIRROR || type == VDS_LT_RAID10) return (total / 2) / n * (n & ~1u);
    switch (type) {
        case 14: case 16: case 18: case 19: case 25: case 26: break;
        default: return total;
    }
    if (noParityLoss) return total;
    switch (raid) {
        case TROV_RAID3:
        case TROV_RAID5: return (n - 1) * total / n;
        case TROV_RAID6: return n < 2 ? 0 : (n - 2) * total / n;
        case TROV_RAID30:
        case TROV_RAID50:
            if (n % 2 != 0) return n < 2 ? 0 : total / n * ((n / 2) - 1) * 2;
            {
                uint32_t d = std::max<uint32_t>(3, n / 3);
                return (n / d) * (total / n) * (d - 1);
            }
        default: return total;
    }
}

uint64_t GetRaidSizeUsedDrivesUseRaidLevel(uint8_t raid, uint32_t n, uint64_t total, uint32_t drivesPerLeg,
                                           bool noParityLoss) {
    if (n == 0 || raid < 3 || raid > 11) return total;
    switch (raid) {
        case TROV_RAID3:
        case TROV_RAID5: return noParityLoss ? total : (n - 1) * total / n;
        case TROV_RAID30:
        case TROV_RAID50:
            // A vdisk record without a leg size would divide by zero; its total stands then.
            if (noParityLoss || drivesPerLeg == 0) return total;
            return (n / drivesPerLeg) * (total / n) * (drivesPerLeg - 1);
        case TROV_RAID10: return (total / 2) / n * (n & ~1u);
        case TROV_RAID6: return noParityLoss || n < 2 ? total : (n - 2) * total / n;
        default: return total;
    }
}

uint64_t CreateCapacityFor(int type, uint8_t raid, uint32_t c, uint64_t single, uint32_t* drivesPerLeg) {
    *drivesPerLeg = 0;
    if (type == VDS_LT_STRIPE) return c * single;
    if (type == VDS_LT_MIRROR || type == VDS_LT_RAID10) return (c * single) / 2;
    switch (raid) {
        case TROV_RAID3:
        case TROV_RAID5: return c < 1 ? 0 : (c - 1) * single;
        case TROV_RAID6: return c < 2 ? 0 : (c - 2) * single;
        case TROV_RAID30:
        case TROV_RAID50: {
            uint32_t dpl = 0;
            if (c % 2 == 0)
                dpl = c / 2;
            else if (c % 3 == 0)
                dpl = std::max<uint32_t>(3, c / 3);
            if (dpl == 0) return 0;
            *drivesPerLeg = dpl;
            return static_cast<uint64_t>(c / dpl) * (dpl - 1) * single;
        }
        default: return c * single;
    }
}

uint32_t StartingDriveCount(int type, uint8_t raid) {
    if (type == VDS_LT_DEFAULT || type == VDS_LT_FAULT_TOLERANT || type == VDS_LT_SIMPLE) return 1;
    if (IsParityType(type)) {
        if (raid == TROV_RAID6) return 4;
        if (raid == TROV_RAID50 || raid == TROV_RAID30) return 6;
        return 3;
    }
    return 2;
}

uint32_t DriveCountForSize(int type, uint8_t raid, uint32_t start, uint64_t single, uint64_t size, uint32_t found,
                           uint32_t* drivesPerLeg) {
    uint32_t c = start;
    uint64_t capacity = CreateCapacityFor(type, raid, c, single, drivesPerLeg);
    if (size == 0) return c;
    uint32_t step = (type == VDS_LT_MIRROR || type == VDS_LT_RAID10) ? 2 : 1;
    while (capacity < size && c <= found) {
        c += step;
        capacity = CreateCapacityFor(type, raid, c, single, drivesPerLeg);
    }
    return c;
}

void GetMaxLunSizeExitArray(CSubSystem* subsystem, int type, const VDS_OBJECT_ID* drives, LONG n, ULONGLONG* result) {
    *result = 0;
    if (!subsystem) return;
    const CDrive* first = nullptr;
    if (n != 0) {
        first = subsystem->FindFirst<CDrive>([&](CDrive* d) { return d->Id() == drives[0]; });
        if (!first) return;
    }
    std::vector<CComPtr<IVdsLun>> luns;
    subsystem->ForEach<CLun>([&](CLun* l) {
        if (static_cast<int>(l->Prop().type) != type) return;
        if (first && !rec::ArrayKeyMatches(first->DriveBlock(), l->ArraySerial())) return;
        luns.emplace_back(static_cast<IVdsLun*>(l));
    });
    ULONGLONG best = 0;
    for (const CComPtr<IVdsLun>& p : luns) {
        ULONGLONG value = 0;
        if (SUCCEEDED(static_cast<CLun*>(p.get())->QueryMaxLunSizeCanBeCreate(drives, n, &value)))
            best = std::max(best, value);
    }
    *result = RoundDownToMb(best);
}

// ---------------------------------------------------------------------------------------------
// CLun

namespace {
// The total free bytes of the vdisk with this serial in a controller's record; 0 when it is gone.
uint64_t VdiskFreeBytes(const ControllerData& cd, const uint8_t* arraySn) {
    for (uint32_t a = 0; a < cd.arrayCount(); ++a)
        if (std::memcmp(cd.array(a).serialNumber, arraySn, 32) == 0) return cd.array(a).remainingBlocks.value() << 9;
    return 0;
}
}  // namespace

HRESULT CLun::QueryMaxLunSizeCanBeCreate(const VDS_OBJECT_ID* drives, LONG n, ULONGLONG* result) {
    if (!result || (n != 0 && !drives)) return E_INVALIDARG;
    *result = 0;
    if (n != 0) {
        if (!m_pSubSystem || !HasSameDriveType(*m_pSubSystem, m_driveType, drives, n)) {
            DebugTrace("OOP!! CLun::QueryMaxLunSizeCanBeCreate line %d : the input drives has not same type(Mixed "
                       "drives). return VDS_E_NOT_SUPPORTED\n",
                       __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        DriveLists lists;
        uint64_t sizeAll = 0;
        DriveGuids2TrovSn(*m_pSubSystem, drives, n, &lists, m_minDriveSize, &sizeAll);
        if (!HasSameMemberDrives(m_pController ? m_pController->Handle() : 0, m_ArraySn, lists))
            return VDS_E_NOT_SUPPORTED;
    }
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (!m_pController || Kelvane::get_controller_data(m_pController->Handle(), buf.get()) != 0) {
        DebugTrace("OOP!!! CLun::QueryMaxLunSizeCanBeCreate() get_controller_data return VDS_E_INTERNAL_ERROR, line "
                   "%d\n",
                   __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    *result = RoundDownToMb(VdiskFreeBytes(*reinterpret_cast<const ControllerData*>(buf.get()), m_ArraySn));
    return S_OK;
}

HRESULT CLun::QueryMaxLunExtendSize(VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                                    ULONGLONG* pullMaxBytesToBeAdded) try {
    DebugTrace("CLun::QueryMaxLunExtendSize()\n");
    CLockGuard lock("CLun::QueryMaxLunExtendSize", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (!pullMaxBytesToBeAdded || (lNumberOfDrives != 0 && !pDriveIdArray)) return E_INVALIDARG;
    *pullMaxBytesToBeAdded = 0;
    if (!m_pSubSystem || !m_pController) return VDS_E_INTERNAL_ERROR;
    const uint32_t handle = m_pController->Handle();
    uint32_t n = lNumberOfDrives < 0 ? 0 : static_cast<uint32_t>(lNumberOfDrives);
    uint64_t sizeAll = 0;
    DriveLists lists;
    if (n != 0) {
        if (!HasSameDriveType(*m_pSubSystem, m_driveType, pDriveIdArray, lNumberOfDrives)) {
            DebugTrace("OOP!! CLun::QueryMaxLunExtendSize line %d : the input drives has not same type(Mixed drives). "
                       "return VDS_E_NOT_SUPPORTED\n",
                       __LINE__);
            return VDS_E_NOT_SUPPORTED;
        }
        DriveGuids2TrovSn(*m_pSubSystem, pDriveIdArray, lNumberOfDrives, &lists, m_minDriveSize, &sizeAll);
        if (HasSameMemberDrives(handle, m_ArraySn, lists)) {
            DebugTrace("CLun::QueryMaxLunExtendSize() HasSameMemberDrives=true, so set the ullSizeAllDrives=0\n");
            sizeAll = 0;
        }
    } else {
        const int type = m_prop.type;
        bool grows = type == VDS_LT_STRIPE || type == VDS_LT_MIRROR || type == VDS_LT_RAID10 ||
                     type == VDS_LT_FAULT_TOLERANT || IsParityType(type);
        if (grows) {
            n = SeekNewDrives(*m_pSubSystem, type, m_driveType, m_minDriveSize, m_RaidLevel, 0, &lists, &sizeAll);
            uint64_t single = n ? sizeAll / n : 0;
            uint32_t capped = n;
            if (m_RaidLevel == TROV_RAID50 || m_RaidLevel == TROV_RAID30) {
                // One leg at a time.
                capped = n >= m_numDrivesPerLowLevelArray ? m_numDrivesPerLowLevelArray : 0;
            } else if (n > 4) {
                capped = 4;
            } else if (n % 2 != 0 && (type == VDS_LT_MIRROR || type == VDS_LT_RAID10)) {
                capped = n - 1;
            }
            if (capped != n) {
                n = capped;
                sizeAll = n * single;
                lists.KeepFirst(n);
            }
        }
    }
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) {
        DebugTrace("OOP!!! CLun::SetStatus() get_controller_data return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    uint64_t freeSpace = VdiskFreeBytes(*reinterpret_cast<const ControllerData*>(buf.get()), m_ArraySn);
    if (n < MemberAmount() && IsVdiskContainDrives(handle, m_ArraySn, lists)) {
        DebugTrace("CLun::QueryMaxLunExtendSize() IsVdiskContainDrives=true, so set the ullSizeAllDrives=0\n");
        n = MemberAmount();
        sizeAll = 0;
    }
    if (n != 0) sizeAll = GetRaidSizeUsedDrivesUseRaidLevel(m_RaidLevel, n, sizeAll, m_numDrivesPerLowLevelArray, true);
    if (m_RaidLevel == TROV_RAID1) {
        DebugTrace("CLun::QueryMaxLunExtendSize() RAID 1 cann't extend with add drive, set the ullSizeAllDrives = 0\n");
        sizeAll = 0;
    }
    DebugTrace("CLun::QueryMaxLunExtendSize() : before ROUND_DOWN_TO_MB_BOUNDARY, need %d drives, Max bytes to be "
               "added = 0x%I64x\n",
               static_cast<int>(n), freeSpace + sizeAll);
    *pullMaxBytesToBeAdded = RoundDownToMb(freeSpace + sizeAll);
    DebugTrace("CLun::QueryMaxLunExtendSize() : after ROUND_DOWN_TO_MB_BOUNDARY, need %d drives, Max bytes to be "
               "added = 0x%I64x\n",
               static_cast<int>(n), *pullMaxBytesToBeAdded);
    return S_OK;
}
TROV_CATCH_OOM

// ---------------------------------------------------------------------------------------------
// CSubSystem

HRESULT CSubSystem::QueryMaxLunCreateSize(VDS_LUN_TYPE type, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                                          VDS_HINTS* pHints, ULONGLONG* pullMaxLunSize) try {
    // A caller without hints asks with none set.
    VDS_HINTS hints = pHints ? *pHints : VDS_HINTS{};
    DebugTrace("CSubSystem::QueryMaxLunCreateSize(type=%d, numberofdrives=%d, hints=%llx) ENTER\n",
               static_cast<int>(type), static_cast<int>(lNumberOfDrives),
               static_cast<unsigned long long>(hints.ullHintMask));
    const uint32_t numSpares = NumSpares(hints);
    CLockGuard lock("CSubSystem::QueryMaxLunCreateSize", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    int t = type;
    bool known = IsParityType(t);
    switch (t) {
        case 1: case 2: case 3: case 10: case 11: case 12: case 13: case 23: case 14: known = true; break;
        default: break;
    }
    if (!known) {
        DebugTrace("OOP!!! CSubSystem::QueryMaxLunCreateSize type(%u) is wrong, return E_INVALIDARG, line %d\n",
                   static_cast<unsigned>(t), __LINE__);
        return E_INVALIDARG;
    }
    if (!pullMaxLunSize) return E_INVALIDARG;
    if (!pDriveIdArray && lNumberOfDrives != 0) return E_INVALIDARG;
    *pullMaxLunSize = 0;
    if (t == VDS_LT_SPAN) {
        DebugTrace("OOP!!! CSubSystem::QueryMaxLunCreateSize type is wrong, we don't support VDS_LT_SPAN, return "
                   "E_INVALIDARG, line %d\n",
                   __LINE__);
        return E_INVALIDARG;
    }
    uint8_t raid = GetRaidLevelForCreate(hints, t);
    const bool raid50 = raid == TROV_RAID50 || raid == TROV_RAID30;
    DriveLists lists;
    uint64_t sizeAll = 0;
    uint32_t n = 0;
    if (lNumberOfDrives > 0) {
        n = static_cast<uint32_t>(lNumberOfDrives);
        if (raid50 && n > 32) {
            DebugTrace("OOP!! CSubSystem::QueryMaxLunCreateSize() line %d : the input drives num to more(%d). return "
                       "VDS_E_NOT_SUPPORTED\n",
                       __LINE__, static_cast<int>(n));
            return VDS_E_NOT_SUPPORTED;
        }
        if (raid50 && n % 2 != 0 && n % 3 != 0) {
            DebugTrace("OOP!! CSubSystem::QueryMaxLunCreateSize() line %d : the input drives num (%d) cannot mod 2 or "
                       "3. return VDS_E_NOT_SUPPORTED\n",
                       __LINE__, static_cast<int>(n));
            return VDS_E_NOT_SUPPORTED;
        }
        if (!raid50 && n > 16) {
            DebugTrace("OOP!! CSubSystem::QueryMaxLunCreateSize() line %d : the input drives num to more(%d). return "
                       "VDS_E_NOT_SUPPORTED\n",
                       __LINE__, static_cast<int>(n));
            return VDS_E_NOT_SUPPORTED;
        }
        if (!HasSameDriveType(*this, pDriveIdArray, lNumberOfDrives)) return VDS_E_NOT_SUPPORTED;
        if (!DriveGuids2TrovSn(*this, pDriveIdArray, lNumberOfDrives, &lists, 0, &sizeAll)) {
            ULONGLONG existing = 0;
            GetMaxLunSizeExitArray(this, t, pDriveIdArray, lNumberOfDrives, &existing);
            if (existing == 0) return VDS_E_DEVICE_IN_USE;
            *pullMaxLunSize = existing;
            return S_OK;
        }
    } else {
        n = SeekNewDrivesForCreate(*this, raid, t, numSpares, &lists, &sizeAll);
    }
    if (n == 0) {
        GetMaxLunSizeExitArray(this, t, pDriveIdArray, 0, pullMaxLunSize);
        return S_OK;
    }
    if (IsParityType(t) && n < 3) {
        DebugTrace("CSubSystem::QueryMaxLunCreateSize() type is VDS_LT_PARITY but lNumberOfDrives < 3, reutrn OK, "
                   "out\n");
        return S_OK;
    }
    if (t == VDS_LT_MIRROR && n == 1) {
        DebugTrace("CSubSystem::QueryMaxLunCreateSize() type is VDS_LT_MIRROR but lNumberOfDrives == 1, reutrn OK, "
                   "out\n");
        return S_OK;
    }
    if (t == VDS_LT_RAID10 && n < 4) {
        DebugTrace("CSubSystem::QueryMaxLunCreateSize() type is VDS_LT_RAID10 but lNumberOfDrives(%d) < 4, return OK, "
                   "out\n",
                   static_cast<int>(n));
        return S_OK;
    }
    if (t == VDS_LT_STRIPE && n == 1) {
        DebugTrace("CSubSystem::QueryMaxLunCreateSize() type is VDS_LT_STRIPE but lNumberOfDrives == 1, reutrn OK, "
                   "out\n");
        return S_OK;
    }
    // Sized here as parity from three drives up, also for a non-fault-tolerant request, which
    // the creation makes a stripe.
    if (t == VDS_LT_DEFAULT || t == VDS_LT_FAULT_TOLERANT)
        t = n == 2 ? VDS_LT_MIRROR : n == 1 ? VDS_LT_SIMPLE : VDS_LT_PARITY;
    else if (t == VDS_LT_NON_FAULT_TOLERANT)
        t = n == 2 ? VDS_LT_STRIPE : n == 1 ? VDS_LT_SIMPLE : VDS_LT_PARITY;
    uint64_t total = sizeAll;
    if (IsParityType(t)) {
        if (raid == TROV_RAID6 && n < 4 && SupportsRaid6()) {
            DebugTrace("CSubSystem::QueryMaxLunCreateSize() create raid 6 need more than 4 drives, return S_OK, out\n");
            return S_OK;
        }
        if (raid50) {
            if (n < 6) {
                DebugTrace("CSubSystem::QueryMaxLunCreateSize() create raid 50 need more than 6 drives, return S_OK, "
                           "out\n");
                return S_OK;
            }
            uint64_t single = sizeAll / n;
            while (n % 2 != 0 && n % 3 != 0) --n;
            total = n * single;
        }
    }
    ULONGLONG newArraySize = RoundDownToMb(GetRaidSizeUsedDrivesUseLunType(raid, t, n, total, false));
    ULONGLONG existing = 0;
    GetMaxLunSizeExitArray(this, t, nullptr, 0, &existing);
    *pullMaxLunSize = std::max(newArraySize, existing);
    DebugTrace("CVdsSubSystem::QueryMaxLunCreateSize() Lun type = %d,  pullMaxLunSize=0x%I64x[B] "
               "maxLunSizeExitArray=0x%I64x[B] ullAllSizeDrives=0x%I64x[B] 0x%I64x[MB]\n",
               t, *pullMaxLunSize, existing, sizeAll, sizeAll >> 20);
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::QueryMaxLunCreateSize2(VDS_LUN_TYPE type, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                                           VDS_HINTS2* pHints2, ULONGLONG* pullMaxLunSize) try {
    CLockGuard lock("CSubSystem::QueryMaxLunCreateSize2", hNotificationMutex);
    VDS_HINTS hints = pHints2 ? HintsFromHints2(*pHints2) : VDS_HINTS{};
    HRESULT hr = QueryMaxLunCreateSize(type, pDriveIdArray, lNumberOfDrives, &hints, pullMaxLunSize);
    if (FAILED(hr)) DebugTrace("QueryMaxLunCreateSize failed with status 0x%x\n", static_cast<unsigned>(hr));
    return hr;
}
TROV_CATCH_OOM

// ---------------------------------------------------------------------------------------------
// CProvider

HRESULT CProvider::QueryMaxLunCreateSizeInStoragePool(VDS_LUN_TYPE type, VDS_OBJECT_ID StoragePoolId,
                                                      VDS_HINTS2* pHints2, ULONGLONG* pullMaxLunSize) try {
    if (Options.load() & kOptionPoolsOff) return VDS_E_NOT_SUPPORTED;
    CLockGuard lock("CProvider::QueryMaxLunCreateSizeInStoragePool", hNotificationMutex);
    if (!pullMaxLunSize) return E_POINTER;
    auto it = m_mapPools.find(StoragePoolId);
    CPool* pool = it != m_mapPools.end() ? it->second.As<CPool>() : nullptr;
    if (!pool) return VDS_E_OBJECT_NOT_FOUND;
    CComPtr<IVdsStoragePool> hold(static_cast<IVdsStoragePool*>(pool));
    switch (pool->Prop().type) {
        case VDS_SPT_PRIMORDIAL: {
            std::vector<VDS_OBJECT_ID> ids;
            pool->DriveIds(&ids, true, true);
            if (ids.empty()) return VDS_E_NOT_ENOUGH_DRIVE;
            if (!pool->SubSystem()) return VDS_E_INTERNAL_ERROR;
            VDS_HINTS hints = pHints2 ? HintsFromHints2(*pHints2) : VDS_HINTS{};
            return pool->SubSystem()->QueryMaxLunCreateSize(type, ids.data(), static_cast<LONG>(ids.size()), &hints,
                                                            pullMaxLunSize);
        }
        case VDS_SPT_CONCRETE: *pullMaxLunSize = pool->Prop().ullRemainingFreeSpace; return S_OK;
        default:
            DebugTrace("CreateLunInStoragePool(): pool type is not concrete or primordial; type=%d\n",
                       static_cast<int>(pool->Prop().type));
            return VDS_E_INTERNAL_ERROR;
    }
}
TROV_CATCH_OOM
