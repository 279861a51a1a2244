#include "objects/iscsi.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/async.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/controller_port.h"
#include "objects/enumerator.h"
#include "lun/lun.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {
constexpr ULONG kDefaultIscsiPort = 3260;

HRESULT NotSupported(const char* line) {
    DebugTrace("%s", line);
    return VDS_E_NOT_SUPPORTED;
}

// The host's copy of a target's name: a 514-byte block of task memory (256 characters and the
// NUL), which the host frees with CoTaskMemFree.
LPWSTR TaskName(const WCHAR* text) {
    constexpr size_t kChars = 257;
    auto* p = static_cast<WCHAR*>(CoTaskMemAlloc(kChars * sizeof(WCHAR)));
    if (!p) return nullptr;
    WStrNCpy(p, kChars, text ? text : u"");
    return p;
}

// A narrow copy of a wide text for the array's tables.
std::string Narrow(const WCHAR* s) { return s ? WideToUtf8(s) : std::string(); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// CIscsiTarget

CIscsiTarget::CIscsiTarget() : CVdsBase(VDS_OT_TARGET) {}
CIscsiTarget::~CIscsiTarget() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsIscsiTarget*>(this));
    Dispose();
}

HRESULT CIscsiTarget::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsIscsiTarget)
        *ppv = static_cast<IVdsIscsiTarget*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

std::u16string CIscsiTarget::TargetName(const UnifiedControllerData& unified, uint8_t controllerId, bool ulp) {
    std::u16string base = Utf8ToWide(FieldText(unified.iscsiBaseName, sizeof unified.iscsiBaseName));
    if (ulp) return base;
    return base + (controllerId == 1 ? u".a" : u".b");
}

uint32_t CIscsiTarget::Handle() const { return m_pController ? m_pController->Handle() : 0; }
bool CIscsiTarget::Shared() const { return m_pSubSystem && m_pSubSystem->SupportsUlp(); }

void CIscsiTarget::Dispose() {
    FreeObjectString(m_prop.pwszIscsiName);
    FreeObjectString(m_prop.pwszFriendlyName);
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    ReleaseParents(&m_pProvider, &m_pSubSystem, &m_pController);
}

void CIscsiTarget::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                              CController* controller, const ControllerData* record) {
    if (!id || !provider || !subsystem || !controller || !record) return;
    Dispose();
    HoldParents(provider, subsystem, controller, &m_pProvider, &m_pSubSystem, &m_pController);
    std::memset(&m_prop, 0, sizeof m_prop);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_TARGET, static_cast<IVdsIscsiTarget*>(this)});
    m_prop.pwszIscsiName = NewObjectString(u"");
    m_prop.pwszFriendlyName = NewObjectString(u"");
    m_Owner = subsystem->SupportsUlp() ? 2 : record->controller.controllerId;
    auto unified = std::make_unique<UnifiedControllerData>();
    if (Kelvane::get_unified_controller_data(controller->Handle(), unified.get()) != 0) {
        // Nothing to report to: the target stays without names, and nothing relies on them.
        DebugTrace("OOP!!! CIscsiTarget::Initialize get_unified_controller_data return VDS_E_INTERNAL_ERROR, line %d\n",
                   __LINE__);
        return;
    }
    std::u16string name = TargetName(*unified, record->controller.controllerId, subsystem->SupportsUlp());
    WStrNCpy(m_prop.pwszIscsiName, 257, name.c_str());
    m_prop.bChapEnabled = unified->chapEnabled();
    WStrNCpy(m_prop.pwszFriendlyName, 257, subsystem->SysName().c_str());
    provider->RememberObject(*id, name, this, static_cast<IVdsIscsiTarget*>(this));
    DebugTrace("CIscsiTarget::Initialize() owner = %d\n", m_Owner);
}

HRESULT CIscsiTarget::GetProperties(VDS_ISCSI_TARGET_PROP* pTargetProp) try {
    if (!pTargetProp) {
        DebugTrace("OOP!!! CIscsiTarget::GetProperties() pTargetProp == null, line %d\n", __LINE__);
        return E_POINTER;
    }
    CLockGuard lock("CIscsiTarget::GetProperties", hNotificationMutex);
    // A rename happens on the subsystem: the name is taken from there each time.
    if (m_pSubSystem && m_prop.pwszFriendlyName) WStrNCpy(m_prop.pwszFriendlyName, 257, m_pSubSystem->SysName().c_str());
    VDS_ISCSI_TARGET_PROP p = m_prop;
    p.pwszFriendlyName = TaskName(m_prop.pwszFriendlyName);
    if (!p.pwszFriendlyName) {
        DebugTrace("OOP!!! CIscsiTarget::GetProperties() pTargetProp->pwszFriendlyName == null, line %d\n", __LINE__);
        return E_OUTOFMEMORY;
    }
    p.pwszIscsiName = TaskName(m_prop.pwszIscsiName);
    if (!p.pwszIscsiName) {
        CoTaskMemFree(p.pwszFriendlyName);
        DebugTrace("OOP!!! CIscsiTarget::GetProperties() pTargetProp->pwszIscsiName == null, line %d\n", __LINE__);
        return E_OUTOFMEMORY;
    }
    *pTargetProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::GetSubSystem(IVdsSubSystem** ppSubSystem) try {
    return HandOutSubSystem(m_pSubSystem, ppSubSystem);
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::QueryPortalGroups(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CIscsiTarget::QueryPortalGroups", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) {
        DebugTrace("OOP!!! CIscsiTarget::QueryPortalGroups() pOutEnum == NULL return E_OUTOFMEMORY, line %d\n",
                   __LINE__);
        return E_OUTOFMEMORY;
    }
    if (m_pSubSystem) {
        m_pSubSystem->ForEach<CIscsiPortalGroup>([&](CIscsiPortalGroup* g) {
            if (Shared() || g->Owner() == m_Owner) out->Append(static_cast<IVdsIscsiPortalGroup*>(g));
        });
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::QueryAssociatedLuns(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CIscsiTarget::QueryAssociatedLuns", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    CComPtr<IEnumVdsObject> luns;
    HRESULT hr = m_pSubSystem ? m_pSubSystem->QueryLuns(&luns) : E_UNEXPECTED;
    PassOnOutOfMemory(hr);
    if (SUCCEEDED(hr) && luns) {
        IUnknown* unk = nullptr;
        ULONG fetched = 0;
        while (luns->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
            CComPtr<IUnknown> held;
            held.Attach(unk);
            auto* lun = dynamic_cast<CLun*>(unk);
            // A LUN that no host may see is not associated with any target.
            if (lun && (Shared() || lun->Owner() == m_Owner) && lun->HasUnmaskingList()) out->Append(unk);
        }
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::CreatePortalGroup(IVdsAsync** ppAsync) try {
    if (!ppAsync) return E_POINTER;
    CLockGuard lock("CIscsiTarget::CreatePortalGroup", hNotificationMutex);
    // No group is ever made: the answer hands the host the first existing one.
    CComPtr<IUnknown> first;
    if (m_pSubSystem) {
        CComPtr<IEnumVdsObject> groups;
        if (FAILED(m_pSubSystem->EnumeratePortalGroups(&groups)) || !groups) {
            DebugTrace("OOP!!! CIscsiTarget::QueryPortalGroups() pOutEnum == NULL return E_OUTOFMEMORY, line %d\n",
                       __LINE__);
            return E_OUTOFMEMORY;
        }
        ULONG fetched = 0;
        groups->Next(1, &first, &fetched);
    }
    CComObject<CVdsAsyncObject>* created = nullptr;
    if (FAILED(CComObject<CVdsAsyncObject>::CreateInstance(&created)) || !created) {
        DebugTrace("OOP!!! CIscsiTarget::QueryPortalGroups() pOutEnum == NULL return E_OUTOFMEMORY, line %d\n",
                   __LINE__);
        return E_OUTOFMEMORY;
    }
    CComPtr<CComObject<CVdsAsyncObject>> async(created);
    async->Initialize(m_pSubSystem, m_pController, VDS_ASYNCOUT_CREATEPORTALGROUP);
    async->SetResult(first);
    async->SetRunning(0);
    *ppAsync = async.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::Delete(IVdsAsync**) try { return NotSupported("OOP!! CIscsiTarget::Delete() not support\n"); }
TROV_CATCH_OOM

HRESULT CIscsiTarget::SetFriendlyName(LPWSTR pwszFriendlyName) try {
    // A target has no name of its own: it carries the subsystem's.
    if (!m_pSubSystem) return E_UNEXPECTED;
    HRESULT hr = m_pSubSystem->SetFriendlyName(pwszFriendlyName);
    if (SUCCEEDED(hr)) {
        CLockGuard lock("CIscsiTarget::SetFriendlyName", hNotificationMutex);
        if (m_prop.pwszFriendlyName) WStrNCpy(m_prop.pwszFriendlyName, 257, m_pSubSystem->SysName().c_str());
    }
    return hr;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::SetSharedSecret(VDS_ISCSI_SHARED_SECRET* pTargetSharedSecret, LPWSTR pwszInitiatorName) try {
    CLockGuard lock("CIscsiTarget::SetSharedSecret", hNotificationMutex);
    bool present = pTargetSharedSecret && pTargetSharedSecret->pSharedSecret && pTargetSharedSecret->ulSharedSecretSize;
    std::string shown = present ? std::string(reinterpret_cast<const char*>(pTargetSharedSecret->pSharedSecret),
                                              pTargetSharedSecret->ulSharedSecretSize)
                                : std::string();
    int rc;
    if (!pwszInitiatorName) {
        if (!present) {
            DebugTrace("pwszInitiatorName == NULL, pTargetSharedSecret == NULL, clear all targets secret\n");
            rc = Kelvane::clear_all_target_secret(Handle());
        } else {
            DebugTrace("pwszInitiatorName == NULL, pTargetSharedSecret.ulSharedSecretSize = %d, "
                       "pTargetSharedSecret->pSharedSecret = %s, set all targets secret\n",
                       static_cast<int>(pTargetSharedSecret->ulSharedSecretSize), shown.c_str());
            rc = Kelvane::set_target_secret(Handle(), pTargetSharedSecret->pSharedSecret,
                                            pTargetSharedSecret->ulSharedSecretSize);
        }
    } else {
        std::string name = Narrow(pwszInitiatorName);
        const auto* n = reinterpret_cast<const uint8_t*>(name.data());
        if (!present) {
            DebugTrace("pTargetSharedSecret == NULL, clear target secret\n");
            static const uint8_t empty[1] = {0};
            rc = Kelvane::set_target_secret(Handle(), n, empty, static_cast<uint32_t>(name.size()), 0);
        } else {
            DebugTrace("pTargetSharedSecret.ulSharedSecretSize = %d, pTargetSharedSecret->pSharedSecret = %s, set "
                       "target secret\n",
                       static_cast<int>(pTargetSharedSecret->ulSharedSecretSize), shown.c_str());
            rc = Kelvane::set_target_secret(Handle(), n, pTargetSharedSecret->pSharedSecret,
                                            static_cast<uint32_t>(name.size()),
                                            pTargetSharedSecret->ulSharedSecretSize);
        }
    }
    return rc != 0 ? VDS_E_INTERNAL_ERROR : S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::RememberInitiatorSharedSecret(LPWSTR pwszInitiatorName,
                                                    VDS_ISCSI_SHARED_SECRET* pInitiatorSharedSecret) try {
    if (!pwszInitiatorName) return VDS_E_NOT_SUPPORTED;
    CLockGuard lock("CIscsiTarget::RememberInitiatorSharedSecret", hNotificationMutex);
    std::string initiator = Narrow(pwszInitiatorName);
    std::string target = Narrow(m_prop.pwszIscsiName);
    bool present = pInitiatorSharedSecret && pInitiatorSharedSecret->pSharedSecret &&
                   pInitiatorSharedSecret->ulSharedSecretSize;
    static const uint8_t empty[1] = {0};
    const uint8_t* secret = empty;
    uint32_t secretLength = 0;
    if (present) {
        secret = pInitiatorSharedSecret->pSharedSecret;
        secretLength = pInitiatorSharedSecret->ulSharedSecretSize;
        DebugTrace("pInitiatorSharedSecret.ulSharedSecretSize = %d, pInitiatorSharedSecret->pSharedSecret = %s, "
                   "remeber initiator secret.\n",
                   static_cast<int>(secretLength),
                   std::string(reinterpret_cast<const char*>(secret), secretLength).c_str());
    } else {
        DebugTrace("pInitiatorSharedSecret == NULL, clear the secret.\n");
    }
    int rc = Kelvane::remeber_initiator_secret(Handle(), reinterpret_cast<const uint8_t*>(initiator.data()),
                                               reinterpret_cast<const uint8_t*>(target.data()), secret,
                                               static_cast<uint32_t>(initiator.size()),
                                               static_cast<uint32_t>(target.size()), secretLength);
    return rc != 0 ? VDS_E_INTERNAL_ERROR : S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiTarget::GetConnectedInitiators(LPWSTR** pppwszInitiatorList, LONG* plNumberOfInitiators) try {
    if (!pppwszInitiatorList || !plNumberOfInitiators) return E_POINTER;
    CLockGuard lock("CIscsiTarget::GetConnectedInitiators", hNotificationMutex);
    auto hosts = std::make_unique<KnownHostList>();
    if (Kelvane::get_flex_known_hosts(Handle(), hosts.get()) != 0) {
        DebugTrace("OOP!!! CIscsiTarget::GetConnectedInitiators get_flex_known_hosts return VDS_E_INTERNAL_ERROR, "
                   "line %d\n",
                   __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    uint32_t count = hosts->hostCount();
    std::vector<std::u16string> names;
    names.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const KnownHostEntry& h = hosts->entries[i];
        names.push_back(Utf8ToWide(FieldText(h.hostName, sizeof h.hostName)));
    }
    // From here on nothing throws: the blocks are the host's once the list is whole.
    auto** list = static_cast<LPWSTR*>(CoTaskMemAlloc((count ? count : 1) * sizeof(LPWSTR)));
    if (!list) return E_OUTOFMEMORY;
    for (uint32_t i = 0; i < count; ++i) {
        list[i] = FromU16(names[i]);
        if (!list[i]) {
            for (uint32_t j = 0; j < i; ++j) CoTaskMemFree(list[j]);
            CoTaskMemFree(list);
            return E_OUTOFMEMORY;
        }
    }
    *pppwszInitiatorList = list;
    *plNumberOfInitiators = static_cast<LONG>(count);
    return S_OK;
}
TROV_CATCH_OOM

// ---------------------------------------------------------------------------------------------
// CIscsiPortal

CIscsiPortal::CIscsiPortal() : CVdsBase(VDS_OT_PORTAL) {}
CIscsiPortal::~CIscsiPortal() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsIscsiPortal*>(this));
    Dispose();
}

HRESULT CIscsiPortal::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsIscsiPortal)
        *ppv = static_cast<IVdsIscsiPortal*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

std::u16string CIscsiPortal::KeyText(const PortData& port) {
    bool known = false;
    return CControllerPort::AddressName(port, &known) + u" Portal";
}

void CIscsiPortal::Dispose() {
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    ReleaseParents(&m_pProvider, &m_pSubSystem, &m_pController);
    m_initialised = 0;
}

HRESULT CIscsiPortal::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                                 CController* controller, const ControllerData* record, uint32_t index) {
    if (!id || !provider || !subsystem || !controller || !record) return E_POINTER;
    CLockGuard lock("CIscsiPortal::Initialize", hNotificationMutex);
    Dispose();
    m_initialised = CController::kInitialisedMark;
    HoldParents(provider, subsystem, controller, &m_pProvider, &m_pSubSystem, &m_pController);
    std::memset(&m_prop, 0, sizeof m_prop);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_PORTAL, static_cast<IVdsIscsiPortal*>(this)});
    const IscsiInterface& ip = record->port(index).interface.iscsi;
    m_prop.status = ip.linkUp ? VDS_IPS_ONLINE : VDS_IPS_OFFLINE;
    if (ip.ipVersion == 4) {
        m_prop.address.type = VDS_IPT_IPV4;
        std::memcpy(&m_prop.address.ipv4Address, ip.ipv4(), 4);  // first octet at the lowest address
        m_prop.address.ulPort = ip.servicePort ? ip.servicePort : kDefaultIscsiPort;
        DebugTrace("CIscsiPortal::Initialize() iSCSIinfo.servicePort = %d !!\n", static_cast<int>(ip.servicePort));
    } else if (ip.ipVersion == 6) {
        m_prop.address.type = VDS_IPT_IPV6;
        std::memcpy(m_prop.address.ipv6Address, ip.ipAddress, 16);
        // The default port is the IPv4 branch's alone.
        m_prop.address.ulPort = ip.servicePort;
    }
    bool known = false;
    WStrNCpy(m_prop.address.wszTextAddress, 257, CControllerPort::AddressName(record->port(index), &known).c_str());
    m_Owner = record->controller.controllerId;
    m_tag = TagFor(m_Owner, index);
    provider->RememberObject(*id, KeyText(record->port(index)), this, static_cast<IVdsIscsiPortal*>(this));
    return S_OK;
}

HRESULT CIscsiPortal::GetProperties(VDS_ISCSI_PORTAL_PROP* pPortalProp) try {
    if (!pPortalProp) return E_POINTER;
    CLockGuard lock("CIscsiPortal::GetProperties", hNotificationMutex);
    *pPortalProp = m_prop;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiPortal::GetSubSystem(IVdsSubSystem** ppSubSystem) try {
    return HandOutSubSystem(m_pSubSystem, ppSubSystem);
}
TROV_CATCH_OOM

HRESULT CIscsiPortal::QueryAssociatedPortalGroups(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CIscsiPortal::QueryAssociatedPortalGroups", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) {
        DebugTrace("OOP!!! CIscsiPortal::QueryAssociatedPortalGroups() pOutEnum == NULL return E_OUTOFMEMORY, line "
                   "%d\n",
                   __LINE__);
        return E_OUTOFMEMORY;
    }
    if (m_pSubSystem)
        m_pSubSystem->ForEach<CIscsiPortalGroup>([&](CIscsiPortalGroup* g) {
            if (g->Tag() == m_tag) out->Append(static_cast<IVdsIscsiPortalGroup*>(g));
        });
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiPortal::SetStatus(VDS_ISCSI_PORTAL_STATUS) try {
    return NotSupported("OOP!! CIscsiPortal::SetStatus() not support\n");
}
TROV_CATCH_OOM
HRESULT CIscsiPortal::SetIpsecTunnelAddress(VDS_IPADDRESS*, VDS_IPADDRESS*) try {
    return NotSupported("OOP!! CIscsiPortal::SetIpsecTunnelAddress() not support\n");
}
TROV_CATCH_OOM
HRESULT CIscsiPortal::GetIpsecSecurity(VDS_IPADDRESS*, ULONGLONG*) try {
    return NotSupported("OOP!! CIscsiPortal::GetIpsecSecurity() not support\n");
}
TROV_CATCH_OOM
HRESULT CIscsiPortal::SetIpsecSecurity(VDS_IPADDRESS*, ULONGLONG, VDS_ISCSI_IPSEC_KEY*) try {
    return NotSupported("OOP!! CIscsiPortal::SetIpsecSecurity() not support\n");
}
TROV_CATCH_OOM

// ---------------------------------------------------------------------------------------------
// CIscsiPortalGroup

CIscsiPortalGroup::CIscsiPortalGroup() : CVdsBase(VDS_OT_PORTAL_GROUP) {}
CIscsiPortalGroup::~CIscsiPortalGroup() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsIscsiPortalGroup*>(this));
    Dispose();
}

HRESULT CIscsiPortalGroup::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsIscsiPortalGroup)
        *ppv = static_cast<IVdsIscsiPortalGroup*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

std::u16string CIscsiPortalGroup::KeyText(uint16_t tag) { return AsciiToWide(std::to_string(tag).c_str()); }

void CIscsiPortalGroup::Dispose() {
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    ReleaseParents(&m_pProvider, &m_pSubSystem, &m_pController);
}

void CIscsiPortalGroup::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                                   CController* controller, const ControllerData* record, uint32_t index) {
    if (!id || !provider || !subsystem || !controller || !record) return;
    CLockGuard lock("CIscsiPortalGroup::Initialize", hNotificationMutex);
    Dispose();
    HoldParents(provider, subsystem, controller, &m_pProvider, &m_pSubSystem, &m_pController);
    std::memset(&m_prop, 0, sizeof m_prop);
    m_prop.id = *id;
    // Registered under the portal's kind and with the portal's log line: a slip kept as it is;
    // the subsystem's group map carries the group's own kind.
    provider->AddObject(*id, ObjectEntry{VDS_OT_PORTAL, static_cast<IVdsIscsiPortalGroup*>(this)});
    DebugTrace("CIscsiPortal::Initialize()\n");
    m_Owner = record->controller.controllerId;
    m_tag = CIscsiPortal::TagFor(m_Owner, index);
    m_prop.tag = m_tag;
    provider->RememberObject(*id, KeyText(m_tag), this, static_cast<IVdsIscsiPortalGroup*>(this));
}

HRESULT CIscsiPortalGroup::GetProperties(VDS_ISCSI_PORTALGROUP_PROP* pPortalGroupProp) try {
    if (!pPortalGroupProp) return E_POINTER;
    CLockGuard lock("CIscsiPortalGroup::GetProperties", hNotificationMutex);
    pPortalGroupProp->id = m_prop.id;
    pPortalGroupProp->tag = m_prop.tag;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiPortalGroup::GetTarget(IVdsIscsiTarget** ppTarget) try {
    if (!ppTarget) {
        DebugTrace("OOP!!! CIscsiPortalGroup::GetTarget() ppTarget == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    CLockGuard lock("CIscsiPortalGroup::GetTarget", hNotificationMutex);
    *ppTarget = nullptr;
    if (!m_pSubSystem) return S_OK;
    bool shared = m_pSubSystem->SupportsUlp();
    CIscsiTarget* t =
        m_pSubSystem->FindFirst<CIscsiTarget>([&](CIscsiTarget* x) { return shared || x->Owner() == m_Owner; });
    if (t) {
        *ppTarget = static_cast<IVdsIscsiTarget*>(t);
        (*ppTarget)->AddRef();
    }
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiPortalGroup::QueryAssociatedPortals(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CIscsiPortalGroup::QueryAssociatedPortals", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    if (m_pSubSystem)
        m_pSubSystem->ForEach<CIscsiPortal>([&](CIscsiPortal* p) {
            if (p->Tag() == m_tag) out->Append(static_cast<IVdsIscsiPortal*>(p));
        });
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CIscsiPortalGroup::AddPortal(VDS_OBJECT_ID, IVdsAsync**) try {
    return NotSupported("OOP!! CIscsiPortalGroup::AddPortal() not support\n");
}
TROV_CATCH_OOM
HRESULT CIscsiPortalGroup::RemovePortal(VDS_OBJECT_ID, IVdsAsync**) try {
    return NotSupported("OOP!! CIscsiPortalGroup::RemovePortal() not support\n");
}
TROV_CATCH_OOM
HRESULT CIscsiPortalGroup::Delete(IVdsAsync**) try {
    return NotSupported("OOP!! CIscsiPortalGroup::Delete() not support\n");
}
TROV_CATCH_OOM
