// Deleting a LUN: CLun::Delete.
//
// A partition goes with delete_part, and its vdisk with delete_array when it was the vdisk's last
// partition (unless the vdisk expands or rebuilds: it then stays, empty, as a dummy volume). A
// dummy volume takes its vdisk with it at once. On an offline vdisk no delete_part is sent: each
// LUN is only marked in the subsystem, and the delete that marks the last one removes the vdisk.
//
// A partition's delete then gives the notification mutex up and waits, on the Platform clock, for
// the provider's own refresh (caused by the array's event) to take the LUN out of the object map:
// S_OK when it went, S_FALSE when 90 seconds passed without it. Nothing is undone on a failure;
// the next refresh shows what the array holds.
#include <cstring>
#include <memory>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/platform.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {

constexpr uint32_t kRefreshWaitMs = 90000;
constexpr uint32_t kRefreshPollMs = 1000;

const ArrayData* FindArray(const ControllerData& cd, const uint8_t* arraySn) {
    for (uint32_t a = 0; a < cd.arrayCount(); ++a)
        if (std::memcmp(cd.array(a).serialNumber, arraySn, 32) == 0) return &cd.array(a);
    return nullptr;
}

}  // namespace

void CLun::FreeMemberDrives() {
    if (!m_pSubSystem) return;
    m_pSubSystem->ForEach<CDrive>([&](CDrive* d) {
        if (!d->IsFree() && rec::ArrayKeyMatches(d->DriveBlock(), m_ArraySn)) d->InitializeAfterDelete();
    });
}

HRESULT CLun::DeleteVdisk(uint32_t handle) {
    Kelvane::abort_utility(handle, m_ArraySn);
    if (Kelvane::delete_array(handle, m_ArraySn) != 0) {
        DebugTrace("OOP!!! CLun::Delete() delete_array return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    FreeMemberDrives();
    return S_OK;
}

HRESULT CLun::DeleteOnArray(bool* waitForRefresh) {
    *waitForRefresh = false;
    if (!m_pController || !m_pSubSystem) return VDS_E_OBJECT_DELETED;
    const uint32_t handle = m_pController->Handle();
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) return VDS_E_INTERNAL_ERROR;
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());

    if (m_isDummy || m_prop.ullSize == 0) {
        HRESULT hr = DeleteVdisk(handle);
        if (FAILED(hr)) return hr;
        VDS_OBJECT_ID id = m_prop.id;
        CComPtr<IVdsLun> self(static_cast<IVdsLun*>(this));  // the map's reference goes next
        m_pSubSystem->DeleteLun(id);
        Withdraw();
        return S_OK;
    }

    const ArrayData* array = FindArray(*cd, m_ArraySn);
    if (!array) return VDS_E_OBJECT_DELETED;
    bool deleteVdisk = array->partitionCount() == 1 && array->utilityRunning != TROV_UTILITY_EXPAND &&
                       array->utilityRunning != TROV_UTILITY_RECONSTRUCT;
    if (array->health != 3) {
        if (Kelvane::delete_part(handle, m_partitionSn) != 0) {
            DebugTrace("OOP!!! CLun::Delete() delete_part return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
        std::string name = m_prop.pwszFriendlyName ? WideToUtf8(m_prop.pwszFriendlyName) : std::string();
        NewName(m_pSubSystem->Entry(), false, m_specialType, name.c_str());
    } else {
        m_pSubSystem->MarkLunDeleted(m_ArraySn, m_partitionSn, m_prop.id);
        bool allMarked = true;
        const uint32_t a = static_cast<uint32_t>(array - &cd->array(0));
        for (uint32_t p = 0; p < cd->partitionCountOf(a); ++p) {
            const PartitionData& part = cd->partition(a, p);
            if (part.inUse() && !m_pSubSystem->IsLunMarkDeleted(part.PartSn)) allMarked = false;
        }
        if (!allMarked) {
            DebugTrace("OOP!!! CLun::Delete() bAllMarkDeleted == false return VDS_E_OPERATION_PENDING, line %d\n",
                       __LINE__);
            return VDS_E_OPERATION_PENDING;
        }
        m_pSubSystem->ClearMarkDeleted(m_ArraySn);
        deleteVdisk = true;
    }
    // No notification here: the event monitor reports the array's change.
    if (deleteVdisk) {
        HRESULT hr = DeleteVdisk(handle);
        if (FAILED(hr)) return hr;
    }
    *waitForRefresh = true;
    return S_OK;
}

HRESULT CLun::Delete() try {
    DebugTrace("CLun::Delete()\n");
    const VDS_OBJECT_ID id = m_prop.id;
    CComPtr<IVdsProvider> provider;
    {
        CLockGuard lock("CLun::Delete", hNotificationMutex);
        // The operation count ends with the array's work: the refresh this delete waits for
        // runs only while no operation is counted.
        InitializeCounter counter;
        bool wait = false;
        HRESULT hr = DeleteOnArray(&wait);
        if (FAILED(hr) || !wait) return hr;
        if (!m_pProvider) return S_OK;
        provider = static_cast<IVdsProvider*>(m_pProvider);  // the refresh may take this LUN apart
    }
    auto* prov = static_cast<CProvider*>(provider.get());
    const uint32_t start = Plat()->TickCount();
    while (Plat()->TickCount() - start < kRefreshWaitMs) {
        Plat()->Sleep(kRefreshPollMs);
        bool found;
        {
            CLockGuard lock("CLun::Delete", hNotificationMutex);
            found = prov->Registry().Find(id) != nullptr;
            DebugTrace("CLun::Delete() foundGuid = %d\n", found ? 1 : 0);
        }
        if (!found) {
            DebugTrace("CLun::Delete() out\n");
            return S_OK;
        }
    }
    DebugTrace("CLun::Delete() out\n");
    return S_FALSE;
}
TROV_CATCH_OOM
