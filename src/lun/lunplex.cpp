#include "lun/lunplex.h"

#include <cstring>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/drive.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

CLunPlex::CLunPlex() : CVdsBase(VDS_OT_LUN_PLEX) {}

CLunPlex::~CLunPlex() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsLunPlex*>(this));
    Dispose();
}

HRESULT CLunPlex::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsLunPlex)
        *ppv = static_cast<IVdsLunPlex*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

void CLunPlex::Dispose() {
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    if (m_pLun) static_cast<IVdsLun*>(m_pLun)->Release();
    m_pLun = nullptr;
    ReleaseParents(&m_pProvider, &m_pSubSystem, nullptr);
}

bool CLunPlex::HoldsDrive(const CDrive& d) const {
    bool spare = (d.Flags() & VDS_DRF_HOTSPARE) != 0;
    if (d.IsFree() && !spare) return false;
    if (!rec::ArrayKeyMatches(d.DriveBlock(), m_pLun->ArraySerial())) return false;
    if (d.DriveIndex() == TROV_NO_INDEX && d.ContainerIndex() == TROV_NO_INDEX) return false;
    if (m_isMirrorHalf && ((d.ArrayPosition() & 1) != 0) != m_isFirstHalf) return false;
    return true;
}

void CLunPlex::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CLun* lun,
                          bool mirrorHalf, bool firstHalf) {
    if (!id || !provider || !subsystem || !lun) return;
    Dispose();
    HoldParents(provider, subsystem, nullptr, &m_pProvider, &m_pSubSystem, nullptr);
    static_cast<IVdsLun*>(lun)->AddRef();
    m_pLun = lun;
    m_isMirrorHalf = mirrorHalf;
    m_isFirstHalf = firstHalf;
    std::memset(&m_prop, 0, sizeof m_prop);
    m_prop.id = *id;
    const VDS_LUN_PROP& lp = lun->Prop();
    m_prop.ullSize = lp.ullSize;
    m_prop.type = PlexTypeFor(lp.type, lun->MemberAmount());
    m_prop.status = static_cast<VDS_LUN_PLEX_STATUS>(lp.status);
    m_prop.health = lp.health;

    if (m_isMirrorHalf && lp.health == VDS_H_FAILING_REDUNDANCY) {
        // A mirror half that kept all its drives is whole; one that lost any has failed. Only
        // here are the drives counted: a walk over every drive for every plex is what made a
        // large load slow.
        uint32_t drives = 0;
        subsystem->ForEach<CDrive>([&](CDrive* d) { drives += HoldsDrive(*d) ? 1 : 0; });
        uint32_t half = lun->MemberAmount() / 2;
        if (drives == half) {
            m_prop.status = VDS_LPS_ONLINE;
            m_prop.health = VDS_H_HEALTHY;
        } else if (drives < half) {
            m_prop.status = VDS_LPS_FAILED;
            m_prop.health = VDS_H_FAILED;
        }
    }
    m_prop.TransitionState = VDS_TS_STABLE;
    m_prop.ulFlags = 0;
    m_prop.ulStripeSize = lun->StripeSize();
    m_prop.sRebuildPriority = 0;
    provider->AddObject(*id, ObjectEntry{VDS_OT_LUN_PLEX, static_cast<IVdsLunPlex*>(this)});
    std::u16string key = lun->SerialText() + (m_isMirrorHalf && !m_isFirstHalf ? u" Plex2" : u" Plex");
    provider->RememberObject(*id, key, this, static_cast<IVdsLunPlex*>(this));
    DebugTrace("CLunPlex::Initialize() PlexIden = %s, PlexType = %d, StripeSize=%d\n",
               DebugSinkActive() ? WideToUtf8(key).c_str() : "",
               static_cast<int>(m_prop.type), static_cast<int>(m_prop.ulStripeSize));
}

HRESULT CLunPlex::GetProperties(VDS_LUN_PLEX_PROP* pPlexProp) try {
    if (!pPlexProp) return E_POINTER;
    CLockGuard lock("CLunPlex::GetProperties", hNotificationMutex);
    *pPlexProp = m_prop;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLunPlex::GetLun(IVdsLun** ppLun) try {
    if (!ppLun) return E_POINTER;
    CLockGuard lock("CLunPlex::GetLun", hNotificationMutex);
    if (!m_pLun) return E_UNEXPECTED;
    *ppLun = static_cast<IVdsLun*>(m_pLun);
    (*ppLun)->AddRef();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLunPlex::QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) try {
    if (!ppExtentArray || !plNumberOfExtents) return E_INVALIDARG;
    CLockGuard lock("CLunPlex::QueryExtents", hNotificationMutex);
    *plNumberOfExtents = 0;
    if (!m_pSubSystem || !m_pLun) return S_OK;
    // The drives first: a drive's extents ask for the subsystem's LUNs, which may rebuild its maps.
    std::vector<CComPtr<IVdsDrive>> drives;
    m_pSubSystem->ForEach<CDrive>([&](CDrive* d) {
        if (HoldsDrive(*d)) drives.emplace_back(static_cast<IVdsDrive*>(d));
    });
    std::vector<VDS_DRIVE_EXTENT> kept;
    for (const CComPtr<IVdsDrive>& d : drives) {
        VDS_DRIVE_EXTENT* got = nullptr;
        LONG n = 0;
        HRESULT hr = d->QueryExtents(&got, &n);
        PassOnOutOfMemory(hr);
        TaskMem<VDS_DRIVE_EXTENT> ext(SUCCEEDED(hr) ? got : nullptr);
        if (!ext) continue;
        for (LONG i = 0; i < n; ++i) {
            if (ext.get()[i].LunId != m_pLun->Id()) continue;
            DebugTrace("CLunPlex::QueryExtents() find matched extend, ullSize = 0x%I64x, ", ext.get()[i].ullSize);
            kept.push_back(ext.get()[i]);
        }
    }
    if (!kept.empty()) {
        auto* out = static_cast<VDS_DRIVE_EXTENT*>(CoTaskMemAlloc(kept.size() * sizeof(VDS_DRIVE_EXTENT)));
        if (!out) return E_OUTOFMEMORY;
        std::memcpy(out, kept.data(), kept.size() * sizeof(VDS_DRIVE_EXTENT));
        *ppExtentArray = out;
        *plNumberOfExtents = static_cast<LONG>(kept.size());
    }
    DebugTrace("CLunPlex::QueryExtents() return S_OK, Extents.size =%d\n", static_cast<int>(kept.size()));
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLunPlex::ApplyHints(VDS_HINTS* pHints) try {
    if (!pHints) return E_POINTER;
    return VDS_E_NOT_SUPPORTED;
}
TROV_CATCH_OOM

