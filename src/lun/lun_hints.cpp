// A LUN's hints: QueryHints and ApplyHints (IVdsLun), QueryHints2 and ApplyHints2 (IVdsLun2), the
// plex's QueryHints, and the conversion between a standard LUN and a master volume.
//
// The array honours two hints on an existing LUN, write-back caching (byte 9 of the partition's
// cache parameters) and sequential optimisation (byte 10, one switch for reads and writes), set
// with change_partition_cache_params. The upper byte of the mask is this provider's own: it
// reports the RAID level and the snapshot role, and bit 59 asks for a conversion. Every refusal is
// decided before anything is sent, apart from the test that the array answers.
#include <cstring>
#include <memory>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "lun/hints.h"
#include "lun/lun.h"
#include "lun/lunplex.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/object_util.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {

constexpr ULONGLONG kQueriedMask = 0x10C;
constexpr ULONGLONG kMaskFastCrashRecovery = 0x1;
constexpr ULONGLONG kMaskSeqReads = 0x4;
constexpr ULONGLONG kMaskSeqWrites = 0x8;
constexpr ULONGLONG kMaskRemap = 0x20;
constexpr ULONGLONG kMaskWriteThrough = 0x40;
constexpr ULONGLONG kMaskChecksum = 0x80;
constexpr ULONGLONG kMaskYankable = 0x100;
constexpr ULONGLONG kMaskMirroredCache = 0x800;
constexpr ULONGLONG kMaskReadCaching = 0x1000;
constexpr ULONGLONG kMaskWriteCaching = 0x2000;
constexpr ULONGLONG kMaskMediaScan = 0x4000;
constexpr ULONGLONG kMaskConsistencyCheck = 0x8000;
constexpr uint8_t kSubcmdConvertToStd = 8;
constexpr uint8_t kSubcmdConvertToMaster = 9;
constexpr uint32_t kErrMasterLimit = 215;

void DumpHints(const char* title, const VDS_HINTS& h) {
    DebugTrace("%s", title);
    DebugTrace("ullHintMask = 0x%I64x, ulStripeSize = %d, bMostlyReads = %d, bOptimizeForSequentialReads = %d, "
               "bOptimizeForSequentialWrites = %d, bWriteThroughCachingEnabled = %d, bIsYankable = %d\n",
               h.ullHintMask, static_cast<int>(h.ulStripeSize), h.bMostlyReads, h.bOptimizeForSequentialReads,
               h.bOptimizeForSequentialWrites, h.bWriteThroughCachingEnabled, h.bIsYankable);
}

}  // namespace

ULONGLONG RaidHintMask(uint8_t raidLevel, BOOL* mostlyReads) {
    switch (raidLevel) {
        case TROV_RAID5: *mostlyReads = 1; return TROV_HINT_RAID5 | 0x10E;
        case TROV_RAID50: *mostlyReads = 1; return TROV_HINT_RAID50 | 0x10E;
        case TROV_RAID3: *mostlyReads = 1; return TROV_HINT_RAID3 | 0x10E;
        default: return kQueriedMask;
    }
}

ULONGLONG RoleHintBits(uint8_t specialType, bool related) {
    switch (specialType) {
        case TROV_PART_BACKING_STORE: return TROV_HINT_BACKING_STORE | (related ? TROV_HINT_MASTER_VOLUME : 0);
        case TROV_PART_MASTER_VOLUME: return TROV_HINT_MASTER_VOLUME | (related ? TROV_HINT_SNAPSHOT : 0);
        case TROV_PART_SNAPSHOT: return TROV_HINT_SNAPSHOT;
        default: return 0;
    }
}

VDS_STORAGE_BUS_TYPE BusTypeOfDriveType(uint8_t driveType) {
    switch (driveType) {
        case 2: return static_cast<VDS_STORAGE_BUS_TYPE>(6);
        case 3: case 5: case 7: case 9: return static_cast<VDS_STORAGE_BUS_TYPE>(11);
        case 4: case 6: case 8: case 10: return static_cast<VDS_STORAGE_BUS_TYPE>(10);
        default: return static_cast<VDS_STORAGE_BUS_TYPE>(0);
    }
}

HRESULT CheckAppliedHints(const VDS_HINTS& h) {
    const ULONGLONG m = h.ullHintMask;
    if ((m & kMaskSeqReads) && (m & kMaskSeqWrites) && h.bOptimizeForSequentialReads != h.bOptimizeForSequentialWrites)
        return VDS_E_NOT_SUPPORTED;  // the array has one switch for both
    if (m & (kMaskFastCrashRecovery | kMaskRemap | kMaskChecksum | kMaskYankable)) return VDS_E_NOT_SUPPORTED;
    if (h.sRebuildPriority != 0 || h.ullExpectedMaximumSize != 0 || h.ulMaximumDriveCount != 0 ||
        h.ulOptimalReadSize != 0 || h.ulOptimalReadAlignment != 0 || h.ulOptimalWriteSize != 0 ||
        h.ulOptimalWriteAlignment != 0 || h.ulStripeSize != 0)
        return VDS_E_NOT_SUPPORTED;
    return S_OK;
}

void CacheParamsWithHints(const VDS_HINTS& h, uint8_t cache[32]) {
    if (h.ullHintMask & kMaskWriteThrough) cache[9] = h.bWriteThroughCachingEnabled ? 0 : 1;
    if (h.ullHintMask & kMaskSeqReads) cache[10] = static_cast<uint8_t>(h.bOptimizeForSequentialReads);
    if (h.ullHintMask & kMaskSeqWrites) cache[10] = static_cast<uint8_t>(h.bOptimizeForSequentialWrites);
}

bool CLun::HasMasterVolume() {
    if (!m_pController) return false;
    const uint32_t handle = m_pController->Handle();
    const uint8_t controllerId = m_pController->Owner();
    uint32_t count = 0;
    int rc;
    if (m_specialType == TROV_PART_BACKING_STORE) {
        auto list = std::make_unique<VolumeEntry[]>(rec::kMaxMasterVolumes);
        rc = Kelvane::get_master_volume_list(handle, controllerId, 4, m_partitionSn, &count, list.get());
    } else if (m_specialType == TROV_PART_MASTER_VOLUME) {
        auto list = std::make_unique<VolumeEntry[]>(rec::kMaxSnapshots);
        rc = Kelvane::get_snapshot_list(handle, controllerId, 5, m_partitionSn, &count, list.get());
    } else {
        return false;
    }
    if (rc != 0) {
        DebugTrace("OOP!! CLun::HasMasterVolume() get_backing_store_list return false!\n");
        return false;
    }
    return count > 0;
}

void CLun::FillHints(VDS_HINTS* h, bool askRelated) {
    std::memset(h, 0, sizeof *h);
    h->ullHintMask = RaidHintMask(m_RaidLevel, &h->bMostlyReads);
    h->ullHintMask |= RoleHintBits(m_specialType, askRelated && HasMasterVolume());
    h->ulOptimalReadSize = h->ulOptimalReadAlignment = h->ulOptimalWriteSize = h->ulOptimalWriteAlignment =
        m_stripeSize;
    h->ulMaximumDriveCount = 128;
    h->ulStripeSize = m_stripeSize;
    h->bOptimizeForSequentialReads = h->bOptimizeForSequentialWrites = m_cacheParams[10];
    h->bWriteThroughCachingEnabled = m_cacheParams[9] == 0 ? 1 : 0;
    h->bIsYankable = 1;
}

HRESULT CLun::QueryHints(VDS_HINTS* pHints) try {
    if (!pHints) return E_INVALIDARG;
    std::memset(pHints, 0, sizeof *pHints);
    CLockGuard lock("CLun::QueryHints", hNotificationMutex);
    FillHints(pHints, true);
    DumpHints("Hints info : \n", *pHints);
    DebugTrace("Hints info end\n");
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::QueryHints2(VDS_HINTS2* pHints2) try {
    if (!pHints2) return E_INVALIDARG;
    std::memset(pHints2, 0, sizeof *pHints2);
    CLockGuard lock("CLun::QueryHints2", hNotificationMutex);
    VDS_HINTS h;
    FillHints(&h, true);
    VDS_HINTS2& o = *pHints2;
    o.ullHintMask = h.ullHintMask | kMaskReadCaching;
    o.ullExpectedMaximumSize = h.ullExpectedMaximumSize;
    o.ulOptimalReadSize = h.ulOptimalReadSize;
    o.ulOptimalReadAlignment = h.ulOptimalReadAlignment;
    o.ulOptimalWriteSize = h.ulOptimalWriteSize;
    o.ulOptimalWriteAlignment = h.ulOptimalWriteAlignment;
    o.ulMaximumDriveCount = h.ulMaximumDriveCount;
    o.ulStripeSize = h.ulStripeSize;
    o.bMostlyReads = h.bMostlyReads;
    o.bOptimizeForSequentialReads = h.bOptimizeForSequentialReads;
    o.bOptimizeForSequentialWrites = h.bOptimizeForSequentialWrites;
    o.bWriteThroughCachingEnabled = h.bWriteThroughCachingEnabled;
    o.bIsYankable = h.bIsYankable;
    o.bReadCachingEnabled = 1;
    if (m_cacheParams[9]) {
        o.ullHintMask |= kMaskMirroredCache | kMaskWriteCaching;
        o.bUseMirroredCache = 1;
        o.bWriteCachingEnabled = 1;
    }
    if (m_utilityRunning == TROV_UTILITY_MEDIA_SCAN) {
        o.ullHintMask |= kMaskMediaScan;
        o.bMediaScanEnabled = 1;
    }
    if (m_utilityRunning == TROV_UTILITY_VERIFY) {
        o.ullHintMask |= kMaskConsistencyCheck;
        o.bConsistencyCheckEnabled = 1;
    }
    o.BusType = BusTypeOfDriveType(m_driveType);
    DebugTrace("Hints2 info : \n");
    DebugTrace("ullHintMask = 0x%I64x, BusType = %d\n", o.ullHintMask, static_cast<int>(o.BusType));
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::ApplyHints(VDS_HINTS* pHints) try {
    if (!pHints) return E_INVALIDARG;
    if (m_isDummy) {
        DebugTrace("CLun::ApplyHints(), it is a dummy volume, cann't ApplyHints, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    CLockGuard lock("CLun::ApplyHints", hNotificationMutex);
    HRESULT hr = CheckAppliedHints(*pHints);
    if (FAILED(hr)) return hr;
    if (!m_pController) return VDS_E_OBJECT_DELETED;
    const uint32_t handle = m_pController->Handle();
    {
        std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
        if (Kelvane::get_controller_data(handle, buf.get()) != 0) {
            DebugTrace("OOP!!! CLun::ApplyHints() get_controller_data return VDS_E_INTERNAL_ERROR, line %d\n",
                       __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
    }
    if (pHints->ullHintMask & TROV_HINT_CONVERT_MASTER) return Convert(pHints->bReadBackVerifyEnabled != 0);

    uint8_t copy[32];
    std::memcpy(copy, m_cacheParams, sizeof copy);
    CacheParamsWithHints(*pHints, copy);
    if (Kelvane::change_partition_cache_params(handle, m_partitionSn, copy) != 0) {
        DebugTrace("OOP!!! CLun::ApplyHints() change_partition_cache_params return VDS_E_INTERNAL_ERROR, line %d\n",
                   __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    std::memcpy(m_cacheParams, copy, sizeof copy);
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::ApplyHints2(VDS_HINTS2* pHints2) try {
    if (!pHints2) return E_INVALIDARG;
    VDS_HINTS h = HintsFromHints2(*pHints2);
    HRESULT hr = ApplyHints(&h);
    if (FAILED(hr)) DebugTrace("ApplyHints failed with status 0x%x\n", static_cast<unsigned>(hr));
    return hr;
}
TROV_CATCH_OOM

HRESULT CLun::Convert(bool toMaster) {
    if (!IsSupportSpecialLun()) return VDS_E_NOT_SUPPORTED;
    const uint32_t handle = m_pController->Handle();
    if (!toMaster) {
        if (m_specialType != TROV_PART_MASTER_VOLUME) {
            DebugTrace("OOP!!! CLun::ApplyHints() convert MV to STD Lun, but the input Lun is not MV, it's type is %d, "
                       "return VDS_E_NOT_SUPPORTED\n",
                       m_specialType);
            return VDS_E_NOT_SUPPORTED;
        }
        if (HasMasterVolume()) {
            DebugTrace("OOP!!! CLun::ApplyHints() convert MV to STD Lun, but the input MV has snapshots, return "
                       "VDS_E_NOT_SUPPORTED\n");
            return VDS_E_NOT_SUPPORTED;
        }
        int rc = Kelvane::convert_master_volume(handle, kSubcmdConvertToStd, m_partitionSn, nullptr);
        if (rc != 0) {
            DebugTrace("OOP!! CLun::ApplyHints() convert_master_volume[TROV_SUBCMD_PTSNAP_CONVERT_TO_STD] return false, "
                       "rtn(%d), line(%d)!\n",
                       rc, __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
        m_specialType = TROV_PART_STANDARD;
        DebugTrace("CLun::ApplyHints() convert_master_volume[TROV_SUBCMD_PTSNAP_CONVERT_TO_STD] ok\n");
        return S_OK;
    }
    if (m_specialType != TROV_PART_STANDARD) {
        DebugTrace("OOP!!! CLun::ApplyHints() convert STD Lun to MV, but the input Lun is not STD, it's type is %d, "
                   "return VDS_E_NOT_SUPPORTED\n",
                   m_specialType);
        return VDS_E_NOT_SUPPORTED;
    }
    auto stores = std::make_unique<BackingStoreEntry[]>(rec::kMaxBackingStores);
    uint32_t count = 0;
    int rc = Kelvane::get_backing_store_list(handle, m_pController->Owner(), &count, stores.get());
    if (rc != 0) {
        DebugTrace("OOP!! CLun::ApplyHints() get_backing_store_list return false, rtn(%d), line(%d)!\n", rc, __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    if (count == 0) {
        DebugTrace("Lun::ApplyHints get_backing_store_list numEntries=0, cann't create mastervolume, reuturn "
                   "VDS_E_NOT_SUPPORTED\n");
        return VDS_E_NOT_SUPPORTED;
    }
    const BackingStoreEntry* chosen = &stores[0];
    for (uint32_t i = 0; i < count; ++i)
        if (std::memcmp(stores[i].vdiskSerial, m_ArraySn, 16) == 0) {
            chosen = &stores[i];
            break;
        }
    rc = Kelvane::convert_master_volume(handle, kSubcmdConvertToMaster, m_partitionSn, chosen->id);
    if (rc == 0) {
        m_specialType = TROV_PART_MASTER_VOLUME;
        DebugTrace("CLun::ApplyHints() convert_master_volume[TROV_SUBCMD_PTSNAP_CONVERT_TO_MASTER] ok\n");
        return S_OK;
    }
    if (rc == static_cast<int>(kErrMasterLimit)) {
        DebugTrace("OOP!! CLun::ApplyHints convert_master_volumee[TROV_SUBCMD_PTSNAP_CONVERT_TO_MASTER] faild, return "
                   "VDS_E_PARTITION_LIMIT_REACHED!\n");
        return VDS_E_PARTITION_LIMIT_REACHED;
    }
    DebugTrace("OOP!! CLun::ApplyHints() convert_master_volume[TROV_SUBCMD_PTSNAP_CONVERT_TO_MASTER] return false, "
               "rtn(%d)!\n",
               rc);
    return VDS_E_INTERNAL_ERROR;
}

HRESULT CLunPlex::QueryHints(VDS_HINTS* pHints) try {
    if (!pHints) return E_INVALIDARG;
    std::memset(pHints, 0, sizeof *pHints);
    CLockGuard lock("CLunPlex::QueryHints", hNotificationMutex);
    if (!m_pLun) return E_UNEXPECTED;
    m_pLun->FillHints(pHints, false);
    // A plex is always optimised for sequential work and never writes through.
    pHints->bOptimizeForSequentialReads = pHints->bOptimizeForSequentialWrites = 1;
    pHints->bWriteThroughCachingEnabled = 0;
    DumpHints("Hints info : \n", *pHints);
    DebugTrace("Hints info end\n");
    return S_OK;
}
TROV_CATCH_OOM
