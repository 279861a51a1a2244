#include "objects/controller_port.h"

#include <cstdio>
#include <cstring>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/enumerator.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

CControllerPort::CControllerPort() : CVdsBase(VDS_OT_PORT) {}

CControllerPort::~CControllerPort() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsControllerPort*>(this));
    Dispose();
}

HRESULT CControllerPort::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsControllerPort) {
        *ppv = static_cast<IVdsControllerPort*>(this);
        return S_OK;
    }
    return E_NOINTERFACE;
}

std::u16string CControllerPort::AddressName(const PortData& port, bool* known) {
    *known = true;
    if (port.isFibre()) return AsciiToWide(HexBytes(port.interface.fc.portWwn, 8, "").c_str());
    if (port.isSas()) return AsciiToWide(HexBytes(port.interface.sas.sasAddress, 8, "").c_str());
    if (port.isIscsi()) {
        const IscsiInterface& ip = port.interface.iscsi;
        if (ip.ipVersion == 4) {
            const uint8_t* a = ip.ipv4();
            char b[20];
            std::snprintf(b, sizeof b, "%d.%d.%d.%d", a[0], a[1], a[2], a[3]);
            return AsciiToWide(b);
        }
        if (ip.ipVersion == 6) return AsciiToWide(HexBytes(ip.ipAddress, 16, ":").c_str());
    }
    *known = false;
    return {};
}

void CControllerPort::Dispose() {
    if (m_initialised != CController::kInitialisedMark) return;
    FreeObjectString(m_prop.pwszFriendlyName);
    FreeObjectString(m_prop.pwszIdentification);
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    std::memset(&m_prop, 0, sizeof m_prop);
    ReleaseParents(&m_pProvider, &m_pSubSystem, &m_pController);
    m_initialised = 0;
}

HRESULT CControllerPort::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                                    CController* controller, const ControllerData* record, uint32_t channel) {
    InitializeCounter counter;
    if (!id || !provider || !subsystem || !controller || !record) return E_POINTER;
    CLockGuard lock("CControllerPort::Initialize", hNotificationMutex);
    Dispose();
    m_initialised = CController::kInitialisedMark;
    HoldParents(provider, subsystem, controller, &m_pProvider, &m_pSubSystem, &m_pController);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_PORT, static_cast<IVdsControllerPort*>(this)});

    const PortData& port = record->port(channel);
    std::u16string name;
    VDS_PORT_STATUS status = VDS_PRS_UNKNOWN;
    if (port.isFibre()) {
        bool known;
        name = AddressName(port, &known);
        status = port.interface.fc.linkUp ? VDS_PRS_ONLINE : VDS_PRS_OFFLINE;
    } else if (port.isSas()) {
        bool known;
        name = AddressName(port, &known);
        const SasInterface& sas = port.interface.sas;
        status = sas.linkUp && sas.phyCount > 0 ? VDS_PRS_ONLINE : VDS_PRS_OFFLINE;
    } else if (port.isIscsi()) {
        bool known;
        name = AddressName(port, &known);
        if (!known)
            DebugTrace("CControllerPort::Initialize(ch=%d) BUG: interface not recognized as IPv4 or IPv6",
                       static_cast<int>(channel));
        status = port.interface.iscsi.linkUp ? VDS_PRS_ONLINE : VDS_PRS_OFFLINE;
    } else {
        char b[40];
        std::snprintf(b, sizeof b, "unknown port (ch %d)", static_cast<int>(channel));
        name = AsciiToWide(b);
    }
    m_prop.pwszFriendlyName = NewObjectString(name);
    m_prop.pwszIdentification = NewObjectString(name);
    m_prop.status = status;
    m_Owner = record->controller.controllerId;
    m_channel = channel;
    if (port.isFibre()) std::memcpy(m_portWwn, port.interface.fc.portWwn, sizeof m_portWwn);
    else std::memset(m_portWwn, 0, sizeof m_portWwn);
    provider->RememberObject(*id, name, this, static_cast<IVdsControllerPort*>(this));
    DebugTrace("CControllerPort::Initialize() id %s name %S status %d owner %d\n", LogGuid(*id).c_str(),
               m_prop.pwszFriendlyName, static_cast<int>(m_prop.status), static_cast<int>(m_Owner));
    return S_OK;
}

HRESULT CControllerPort::GetProperties(VDS_PORT_PROP* pPortProp) try {
    if (!pPortProp) return E_POINTER;
    CLockGuard lock("CControllerPort::GetProperties", hNotificationMutex);
    VDS_PORT_PROP p = m_prop;
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) return hr;
    *pPortProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CControllerPort::GetController(IVdsController** ppController) try {
    if (!ppController) return E_POINTER;
    if (!m_pController) return E_UNEXPECTED;
    *ppController = static_cast<IVdsController*>(m_pController);
    (*ppController)->AddRef();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CControllerPort::QueryAssociatedLuns(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CLockGuard lock("CControllerPort::QueryAssociatedLuns", hNotificationMutex);
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
            CComPtr<IUnknown> lun;
            lun.Attach(unk);
            auto* base = dynamic_cast<CVdsBase*>(unk);
            if (m_pSubSystem->SupportsUlp() || (base && base->OwnerId() == m_Owner)) out->Append(unk);
        }
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CControllerPort::Reset() try {
    DebugTrace("CControllerPort::Reset() returning VDS_E_NOT_SUPPORTED\n");
    return VDS_E_NOT_SUPPORTED;
}
TROV_CATCH_OOM

HRESULT CControllerPort::SetStatus(VDS_PORT_STATUS) try {
    DebugTrace("CControllerPort::SetStatus() returning VDS_E_NOT_SUPPORTED\n");
    return VDS_E_NOT_SUPPORTED;
}
TROV_CATCH_OOM
