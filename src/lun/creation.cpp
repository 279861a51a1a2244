// Judging a create request: CSubSystem::CreateLun and CreateLun2, CProvider::CreateLunInStoragePool.
//
// The request runs its ladders (lun/hints.h) in their order, settles type and RAID level, checks
// the named drives against the subsystem's drive map and hands the array work to
// CLun::CreateAndInitialize (lun/array_creation.cpp). On success the new LUN is in the LUN map at
// once and an asynchronous object of output type VDS_ASYNCOUT_CREATELUN carries it; the creation
// itself is done before the call returns. Everything runs under the notification mutex and the
// operation counter, so no refresh rebuilds the tree under it.
#include <algorithm>
#include <string>
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
#include "objects/pool.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {

constexpr uint32_t kDefaultMaxLuns = 256;
constexpr size_t kLogPiece = 256;

void LogRequest(VDS_LUN_TYPE type, ULONGLONG size, LONG n, const WCHAR* list) {
    std::string text = WideToUtf8(std::u16string(list, WStrLen(list)));
    bool pieces = text.size() > kLogPiece;
    DebugTrace("CSubSystem::CreateLun(type=%d, ullSizeInBytes=0x%I64x, lNumberOfDrives=%d, pwszUnmaskingList=%s)\n",
               static_cast<int>(type), size, static_cast<int>(n), pieces ? "(below)" : text.c_str());
    for (size_t at = 0; pieces && at < text.size(); at += kLogPiece)
        DebugTrace("%s\n", text.substr(at, kLogPiece).c_str());
}

void DumpHints(const VDS_HINTS& h) {
    DebugTrace("VDS_HINTS: mask 0x%I64x, expected max 0x%I64x, max drives %u, stripe %u, mostly reads %d, "
               "rebuild priority %d\n",
               h.ullHintMask, h.ullExpectedMaximumSize, h.ulMaximumDriveCount, h.ulStripeSize, h.bMostlyReads,
               static_cast<int>(h.sRebuildPriority));
}

}  // namespace

HRESULT CSubSystem::CreateLun(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID* pDriveIdArray,
                              LONG lNumberOfDrives, LPWSTR pwszUnmaskingList, VDS_HINTS* pHints,
                              IVdsAsync** ppAsync) try {
    DebugTrace("CSubSystem::CreateLun()\n");
    CLockGuard lock("CSubSystem::CreateLun", hNotificationMutex);
    InitializeCounter counter;
    if (!pwszUnmaskingList || !pHints || !ppAsync) return E_POINTER;
    LogRequest(type, ullSizeInBytes, lNumberOfDrives, pwszUnmaskingList);
    DumpHints(*pHints);
    const VDS_HINTS hints = *pHints;
    RememberHints(hints);

    if (SpecialLunType(hints) == TROV_PART_SNAPSHOT && ullSizeInBytes != 0) {
        DebugTrace("OOP!!! CSubSystem::CreateLun will create a snapshot, ullSize should be 0, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (IsDummyRequest(hints) && ullSizeInBytes != 0) {
        DebugTrace("OOP!!! CSubSystem::CreateLun will create a dummy Lun, ullSize should be 0, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }

    uint32_t maxLuns = kDefaultMaxLuns;
    {
        std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
        for (uint32_t handle : {m_entry.controllerA, m_entry.controllerB}) {
            if (handle == 0) continue;
            if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
            const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
            if (cd->controllerState == TROV_CTRL_STATE_NO_CONFIG2 || cd->controllerState == TROV_CTRL_STATE_NO_CONFIG3)
                continue;
            if (cd->controller.maxArrayPartitions != 0) maxLuns = cd->controller.maxArrayPartitions;
            break;
        }
    }
    DebugTrace("CSubSystem::CreateLun maxLuns = %d!\n", static_cast<int>(maxLuns));
    // Dummy volumes count: each stands for a vdisk.
    if (m_luns.size() >= maxLuns) return VDS_E_PARTITION_LIMIT_REACHED;

    int t = type;
    HRESULT hr = CheckCreateArguments(t, ullSizeInBytes, pDriveIdArray == nullptr, lNumberOfDrives, hints.ulStripeSize);
    if (FAILED(hr)) return hr;

    uint8_t raid = GetRaidLevelForCreate(hints, t);
    DebugTrace("CSubSystem::CreateLun  will create the Raid[TROV_RAID_LEVEL] = %d \n", raid);

    const LONG n = lNumberOfDrives < 0 ? 0 : lNumberOfDrives;
    if (n == 0) {
        if (t == VDS_LT_NON_FAULT_TOLERANT) t = VDS_LT_STRIPE;
    } else {
        hr = SettleNamedDrives(
            &t, &raid, n, [&] { return HasSameDriveType(*this, pDriveIdArray, n); }, SupportsRaid6());
        if (FAILED(hr)) return hr;
    }

    VDS_OBJECT_ID id{};
    CoCreateGuid(&id);
    CComObject<CLun>* created = nullptr;
    if (FAILED(CComObject<CLun>::CreateInstance(&created)) || !created) return E_OUTOFMEMORY;
    CComPtr<IVdsLun> lunRef(static_cast<IVdsLun*>(created));
    CLun* lun = created;

    if (n != 0) {
        LONG found = 0;
        bool offline = false;
        int spares = 0;
        // The walk stops at the first named drive that is not online, so that a later unknown
        // drive shows as not found even then.
        FindFirst<CDrive>([&](CDrive* d) {
            if (std::find(pDriveIdArray, pDriveIdArray + n, d->Id()) == pDriveIdArray + n) return false;
            ++found;
            if (d->Status() != VDS_DRS_ONLINE) {
                offline = true;
                return true;
            }
            if (d->HowUsed() == TROV_HOWUSED_POOL_SPARE) ++spares;
            return false;
        });
        if (found != n) return VDS_E_OBJECT_NOT_FOUND;
        if (offline) return VDS_E_DISK_NOT_ONLINE;
        if (spares) return VDS_E_DISK_NOT_EMPTY;
    }

    lun->SetRequestedRaidLevel(raid);
    // A failure leaves what the array has done and lets go of the unfinished object.
    hr = lun->CreateAndInitialize(&id, m_pProvider, this, static_cast<VDS_LUN_TYPE>(t), ullSizeInBytes,
                                  n ? pDriveIdArray : nullptr, n, hints.ulStripeSize, hints);
    DebugTrace("create lun hResult = %X\n", static_cast<unsigned>(hr));
    if (FAILED(hr)) {
        DebugTrace("OOP!!! CSubSystem::CreateLun CreateAndInitialize's hResult == %08x, line %d\n",
                   static_cast<unsigned>(hr), __LINE__);
        return hr;
    }
    EnterLun(lun->Id(), lun);

    if (pwszUnmaskingList[0] != 0) {
        hr = lun->SetMask(pwszUnmaskingList);
        if (FAILED(hr)) {
            DebugTrace("OOP!!! CSubSystem::CreateLun hResult == %08x, line %d\n", static_cast<unsigned>(hr), __LINE__);
            return hr;
        }
    }

    CComObject<CVdsAsyncObject>* asyncCreated = nullptr;
    if (FAILED(CComObject<CVdsAsyncObject>::CreateInstance(&asyncCreated)) || !asyncCreated) return E_OUTOFMEMORY;
    CComPtr<CComObject<CVdsAsyncObject>> async(asyncCreated);
    async->Initialize(this, lun->Controller(), VDS_ASYNCOUT_CREATELUN);
    async->SetResult(static_cast<IVdsLun*>(lun));
    async->SetRunning(0);
    *ppAsync = async.Detach();
    DebugTrace("CSubSystem::CreateLun() return 0x%X\n", static_cast<unsigned>(S_OK));
    DebugTrace("CSubSystem::CreateLun() out\n");
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::CreateLun2(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID* pDriveIdArray,
                               LONG lNumberOfDrives, LPWSTR pwszUnmaskingList, VDS_HINTS2* pHints2,
                               IVdsAsync** ppAsync) try {
    CLockGuard lock("CSubSystem::CreateLun2", hNotificationMutex);
    if (!pHints2) return E_POINTER;
    VDS_HINTS hints = HintsFromHints2(*pHints2);
    HRESULT hr = static_cast<IVdsSubSystem*>(this)->CreateLun(type, ullSizeInBytes, pDriveIdArray, lNumberOfDrives,
                                                                pwszUnmaskingList, &hints, ppAsync);
    if (FAILED(hr)) DebugTrace("CreateLun failed with status 0x%x\n", static_cast<unsigned>(hr));
    return hr;
}
TROV_CATCH_OOM

HRESULT CProvider::CreateLunInStoragePool(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID StoragePoolId,
                                          LPWSTR pwszUnmaskingList, VDS_HINTS2* pHints2, IVdsAsync** ppAsync) try {
    if (Options.load() & kOptionPoolsOff) return VDS_E_NOT_SUPPORTED;
    CLockGuard lock("CProvider::CreateLunInStoragePool", hNotificationMutex);
    auto it = m_mapPools.find(StoragePoolId);
    CPool* pool = it != m_mapPools.end() ? it->second.As<CPool>() : nullptr;
    if (!pool) return VDS_E_OBJECT_NOT_FOUND;
    CComPtr<IVdsStoragePool> hold(static_cast<IVdsStoragePool*>(pool));
    if (!pHints2) return E_POINTER;
    VDS_HINTS hints = HintsFromHints2(*pHints2);
    std::vector<VDS_OBJECT_ID> ids;
    pool->DriveIds(&ids, true, true);
    if (ids.empty()) return VDS_E_NOT_ENOUGH_DRIVE;
    CSubSystem* subsystem = pool->SubSystem();
    HRESULT hr;
    switch (pool->Prop().type) {
        case VDS_SPT_PRIMORDIAL:
        case VDS_SPT_CONCRETE:
            if (!subsystem) return VDS_E_INTERNAL_ERROR;
            if (pool->Prop().type == VDS_SPT_CONCRETE && type == VDS_LT_DEFAULT) type = pool->vdsLunType();
            hr = subsystem->CreateLun(type, ullSizeInBytes, ids.data(), static_cast<LONG>(ids.size()),
                                      pwszUnmaskingList, &hints, ppAsync);
            break;
        default:
            DebugTrace("CreateLunInStoragePool(): pool type is not concrete or primordial; type=%d\n",
                       static_cast<int>(pool->Prop().type));
            hr = VDS_E_INTERNAL_ERROR;
            break;
    }
    DebugTrace("CProvider::CreateLunInStoragePool(): hResult = 0x%x\n", static_cast<unsigned>(hr));
    return hr;
}
TROV_CATCH_OOM
