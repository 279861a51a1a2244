#include "objects/async.h"

#include <cstring>

#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/subsystem.h"
#include "proxy/kelvane.h"
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
        // An extension the array still works on: its own wait follows the growth.
        return m_expandWait ? m_expandWait(*this) : S_OK;
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
    const CVdsBase* lun = m_pResult ? dynamic_cast<const CVdsBase*>(m_pResult.get()) : nullptr;
    const uint8_t* serial = lun ? lun->ArraySerial() : nullptr;
    if (serial && m_pController) {
        uint32_t percent = 100;
        // What the array answers is taken as it stands; its result isn't looked at.
        Kelvane::get_percent(m_pController->Handle(), serial, &percent);
        *pulPercentCompleted = percent;
    }
    DebugTrace("CVdsAsyncObject::QueryStatus() : pulPercentCompleted = %d\n", static_cast<int>(*pulPercentCompleted));
    return S_OK;
}
TROV_CATCH_OOM
