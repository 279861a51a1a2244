#include "objects/async.h"

#include <cstring>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "lun/extend.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/subsystem.h"
#include "platform/platform.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "support/debuglog.h"

CVdsAsyncObject::CVdsAsyncObject() : CVdsBase(VDS_OT_UNKNOWN) {}

CVdsAsyncObject::~CVdsAsyncObject() {
    // The event handle is never created here; -1 means there is nothing to close.
    m_event = -1;
    if (m_pController) static_cast<IVdsController*>(m_pController)->Release();
    if (m_pSubSystem) static_cast<IVdsSubSystem*>(m_pSubSystem)->Release();
}

HRESULT CVdsAsyncObject::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsAsync) {
        *ppv = static_cast<IVdsAsync*>(this);
        return S_OK;
    }
    return E_NOINTERFACE;
}

void CVdsAsyncObject::Initialize(CSubSystem* subsystem, CController* controller, uint32_t type) {
    if (subsystem) static_cast<IVdsSubSystem*>(subsystem)->AddRef();
    if (m_pSubSystem) static_cast<IVdsSubSystem*>(m_pSubSystem)->Release();
    m_pSubSystem = subsystem;
    if (controller) static_cast<IVdsController*>(controller)->AddRef();
    if (m_pController) static_cast<IVdsController*>(m_pController)->Release();
    m_pController = controller;
    m_type = type;
    m_running = 1;
    SetExpandLun(nullptr);
    DebugTrace("CAsync::Initialize() vdsType : %d\n", static_cast<int>(type));
}

void CVdsAsyncObject::SetResult(IUnknown* object) { m_pResult = object; }

void CVdsAsyncObject::SetExpandLun(IUnknown* lun) { m_pExpandLun = lun; }

HRESULT CVdsAsyncObject::Cancel() try { return E_NOTIMPL; }
TROV_CATCH_OOM

HRESULT CVdsAsyncObject::Wait(HRESULT* pHrResult, VDS_ASYNC_OUTPUT* pAsyncOut) try {
    if (!pHrResult || !pAsyncOut) return E_POINTER;
    std::memset(pAsyncOut, 0, sizeof *pAsyncOut);
    *pHrResult = S_OK;
    pAsyncOut->type = static_cast<VDS_ASYNC_OUTPUT_TYPE>(m_type);
    if (m_type == VDS_ASYNCOUT_CREATELUN || m_type == VDS_ASYNCOUT_EXTENDLUN) {
        if (m_pResult) {
            m_pResult->AddRef();
            pAsyncOut->cl.pLunUnk = m_pResult.get();
        }
        if (m_type == VDS_ASYNCOUT_CREATELUN || m_running == 0) return S_OK;
        *pHrResult = WaitForExpansion();
        return *pHrResult;
    }
    if (m_type == VDS_ASYNCOUT_CREATEPORTALGROUP && m_pResult) {
        m_pResult->AddRef();
        pAsyncOut->cpg.pPortalGroupUnk = m_pResult.get();
    }
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CVdsAsyncObject::QueryStatus(HRESULT* pHrResult, ULONG* pulPercentCompleted) try {
    if (!pHrResult || !pulPercentCompleted) return E_POINTER;
    *pHrResult = 0;
    *pulPercentCompleted = 100;
    if (m_type != VDS_ASYNCOUT_CREATELUN && m_type != VDS_ASYNCOUT_EXTENDLUN) return S_OK;
    if (m_type == VDS_ASYNCOUT_CREATELUN && m_running == 0) return S_OK;
    uint32_t percent = 100;
    // What the array answers is taken as it stands; its result isn't looked at.
    ReadPercent(&percent);
    *pulPercentCompleted = percent;
    DebugTrace("CVdsAsyncObject::QueryStatus() : pulPercentCompleted = %d\n", static_cast<int>(*pulPercentCompleted));
    return S_OK;
}
TROV_CATCH_OOM

int CVdsAsyncObject::ReadPercent(uint32_t* percent) const {
    const CVdsBase* lun = m_pResult ? dynamic_cast<const CVdsBase*>(m_pResult.get()) : nullptr;
    const uint8_t* serial = lun ? lun->ArraySerial() : nullptr;
    if (!serial || !m_pController) return -1;
    uint32_t p = 0;
    int rc = Kelvane::get_percent(m_pController->Handle(), serial, &p);
    if (rc == 0) *percent = p;
    return rc;
}

HRESULT CVdsAsyncObject::WaitForExpansion() {
    // The original polls until 100 percent without limit, and a failed read counts as 100. Here a
    // failed read repairs the line and polls on; only a line that stays lost ends the wait.
    int failures = 0;
    for (;;) {
        uint32_t percent = 0;
        int rc = ReadPercent(&percent);
        DebugTrace("CVdsAsyncObject::QueryStatus() : pulPercentCompleted = %d\n", static_cast<int>(percent));
        if (rc == 0) {
            failures = 0;
            if (percent >= 100) break;
        } else {
            if (++failures >= kMaxProgressFailures) {
                DebugTrace("OOP!!! CVdsAsyncObject::Wait() the progress could not be read %d times, return "
                           "VDS_E_INTERNAL_ERROR\n",
                           failures);
                LogErrorEvent("The VDS Provider has detected that expansion of a vdisk or volume has failed.");
                return VDS_E_INTERNAL_ERROR;
            }
            if (rc == -1) {
                CLockGuard lock("CVdsAsyncObject::Wait", hNotificationMutex);
                ProxyReconnect();
            }
        }
        Plat()->Sleep(kProgressPollMs);
    }
    auto* lun = m_pExpandLun ? dynamic_cast<CLun*>(m_pExpandLun.get()) : nullptr;
    if (lun && m_pController) {
        const uint8_t* arraySn = lun->ArraySerial();
        ExpandPartEnd end = ExpandPartRetryLoop(m_pController->Handle(), &m_expandRequest, arraySn,
                                                "CVdsAsyncObject::Wait() retry expand part %d\n");
        if (end == ExpandPartEnd::kFailed) {
            LogErrorEvent("The VDS Provider has detected that expansion of a vdisk or volume has failed.");
            return VDS_E_INTERNAL_ERROR;
        }
        m_running = 1;
        const uint64_t bytes = m_expandRequest.newSizeBlocks.value() << 9;
        {
            CLockGuard lock("CVdsAsyncObject::Wait", hNotificationMutex);
            lun->GrownTo(bytes, end == ExpandPartEnd::kTakenAsGrown);
        }
        DebugTrace("CVdsAsyncObject::Wait(), after we expande size requestToAddSize = 0x%I64x\n", bytes);
        // Grown once: a second wait only follows the progress.
        m_pExpandLun = nullptr;
    }
    LogWarningEvent("The VDS Provider has finished a vdisk expansion operation.");
    return S_OK;
}
