#include "objects/subsystem.h"

#include <cstring>
#include <memory>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/enumerator.h"
#include "objects/pool.h"
#include "objects/object_util.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {
constexpr ULONG kSubsystemFlags = 0x0007E68D;
constexpr ULONG kStripeSizeFlags = 0x0001C000;
constexpr ULONG kSupportedRaidTypeFlags = 2330;
constexpr size_t kMaxFriendlyNameChars = 80;
constexpr uint32_t kRescanPauseMs = 3000;

HRESULT NotSupported(const char* method) {
    DebugTrace("%s() returning VDS_E_NOT_SUPPORTED\n", method);
    return VDS_E_NOT_SUPPORTED;
}

std::string SerialText(const SubsystemEntry& e) { return FieldText(e.UniqueSN, sizeof e.UniqueSN); }
}  // namespace

CSubSystem::CSubSystem() : CVdsBase(VDS_OT_SUB_SYSTEM) {}

CSubSystem::~CSubSystem() { Dispose(); }

HRESULT CSubSystem::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsSubSystem)
        *ppv = static_cast<IVdsSubSystem*>(this);
    else if (riid == IID_IVdsSubSystem2)
        *ppv = static_cast<IVdsSubSystem2*>(this);
    else if (riid == IID_IVdsSubSystemIscsi)
        *ppv = static_cast<IVdsSubSystemIscsi*>(this);
    else if (riid == IID_IVdsSubSystemNaming)
        *ppv = static_cast<IVdsSubSystemNaming*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

std::u16string CSubSystem::KeyText(const SubsystemEntry& entry) {
    std::string sn = SerialText(entry);
    return AsciiToWide(("Sub " + sn + " " + sn).c_str());
}

void CSubSystem::Dispose() {
    ReleaseMap(m_controllers);
    ReleaseMap(m_drives);
    ReleaseMap(m_luns);
    ReleaseMap(m_portals);
    ReleaseMap(m_targets);
    ReleaseMap(m_portalGroups);
    FreeObjectString(m_prop.pwszFriendlyName);
    FreeObjectString(m_prop.pwszIdentification);
    if (m_pProvider) {
        CProvider* p = m_pProvider;
        m_pProvider = nullptr;
        static_cast<IVdsProvider*>(p)->Release();
    }
}

HRESULT CSubSystem::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, const SubsystemEntry& entry) {
    if (!id || !provider) return E_POINTER;
    CLockGuard lock("CSubSystem::Initialize", hNotificationMutex);
    InitializeCounter counter;
    std::string sn = SerialText(entry);
    DebugTrace("CProvider::Initialize() UniqueSN = %s, controllerA = %d, controllerB = %d\n", sn.c_str(),
               entry.controllerA, entry.controllerB);
    Dispose();
    static_cast<IVdsProvider*>(provider)->AddRef();
    m_pProvider = provider;
    provider->AddObject(*id, ObjectEntry{VDS_OT_SUB_SYSTEM, static_cast<IVdsSubSystem*>(this)});

    std::memset(&m_prop, 0, sizeof m_prop);
    m_prop.id = *id;
    m_prop.pwszFriendlyName = NewObjectString(u"");
    m_prop.pwszIdentification = NewObjectString(u"");
    if (!m_prop.pwszFriendlyName || !m_prop.pwszIdentification) return E_OUTOFMEMORY;
    m_prop.ulFlags = kSubsystemFlags;
    m_prop.ulStripeSizeFlags = kStripeSizeFlags;
    m_prop.status = VDS_SSS_ONLINE;
    m_prop.health = VDS_H_HEALTHY;
    m_prop.sMaxNumberOfControllers = 2;
    m_prop.sRebuildPriority = 0;
    m_entry = entry;
    m_identString.clear();

    FillCtrlDriveLunList(entry);
    if (PoolsEnabled()) AddPrimordialPools();

    WStrNCpy(m_prop.pwszFriendlyName, 257, m_SysName.c_str());
    WStrNCpy(m_prop.pwszIdentification, 257, m_identString.c_str());
    m_prop.sNumberOfInternalBuses = static_cast<SHORT>(m_enclosureCount);
    m_prop.sMaxNumberOfSlotsEachBus = static_cast<SHORT>(m_enclosureDrives);

    m_allowedDriveType = 0;
    uint32_t handle = m_entry.controllerA ? m_entry.controllerA : m_entry.controllerB;
    if (handle) {
        std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[rec::kControllerDataSize]);
        if (buf && Kelvane::get_controller_data(handle, buf.get()) == 0)
            m_allowedDriveType = reinterpret_cast<const ControllerData*>(buf.get())->allowedDriveType();
    }

    provider->RememberObject(*id, KeyText(entry), this, static_cast<IVdsSubSystem*>(this));

    if (!m_lastEventsSet) {
        std::memset(m_lastEvent, 0, sizeof m_lastEvent);
        m_lastEventsSet = true;
    }
    const uint32_t handles[2] = {m_entry.controllerA, m_entry.controllerB};
    for (int i = 0; i < 2; ++i) {
        if (m_lastEvent[i].sequenceNumber != 0 || handles[i] == 0) continue;
        if (Kelvane::get_event(handles[i], 0, 1, 0, &m_lastEvent[i]) != 0)
            DebugTrace(i == 0 ? "OOP!!! CSubSystem::Initialize() Controller A Last Event failed! \n"
                              : "OOP!!! CSubSystem::Initialize() Controller B Last Event failed! \n");
    }
    return S_OK;
}

void CSubSystem::AddPrimordialPools() {
    bool present[8] = {};
    for (auto& [id, e] : m_drives)
        if (auto* d = dynamic_cast<CDrive*>(e.pObject)) present[DriveClassOf(d->DriveType())] = true;
    // SATA, SAS, SSD in this order; never one for FC or an unknown class.
    for (uint8_t cls : {kClassSata, kClassSas, kClassSsd}) {
        if (!present[cls]) continue;
        VDS_OBJECT_ID id{};
        CComObject<CPool>* pool = MakeTreeObject<CPool>(m_pProvider, &id, CPool::PrimordialKey(cls, m_SysName));
        if (!pool) continue;
        static_cast<IVdsStoragePool*>(pool)->AddRef();
        pool->Initialize(&id, m_pProvider, this, nullptr, cls);
        EnterInMap(m_pProvider->PoolMap(), id, VDS_OT_STORAGE_POOL, static_cast<IVdsStoragePool*>(pool));
    }
}

HRESULT CSubSystem::FillCtrlDriveLunList(const SubsystemEntry& entry) {
    m_driveSeen.clear();
    m_portCount = 0;
    for (int i = 0; i < 2; ++i) {
        uint32_t handle = i == 0 ? entry.controllerA : entry.controllerB;
        (i == 0 ? m_handleA : m_handleB) = handle;
        if (handle == 0) continue;
        // 2.5 MB: read whole, kept only for this controller's turn.
        std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[rec::kControllerDataSize]);
        if (!buf || Kelvane::get_controller_data(handle, buf.get()) != 0) {
            DebugTrace("OOP!!! CSubSystem::FillCtrlDriveLunList get_controller_data return VDS_E_INTERNAL_ERROR, "
                       "line %d\n",
                       __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
        const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
        VDS_OBJECT_ID id{};
        m_maxLuns = cd->controller.maxLuns;
        if (cd->controller.supportsRaid6()) m_SupportRaid6 = 1;
        if (cd->dualPortUlp()) b_SupportULP = 1;
        m_hostBusType = cd->port(0).busType;
        std::u16string name = WidenField(cd->controller.controllerIdent, sizeof cd->controller.controllerIdent);
        CComObject<CController>* ctrl = MakeTreeObject<CController>(m_pProvider, &id, name);
        if (!ctrl) return E_OUTOFMEMORY;
        ctrl->AddRef();
        ctrl->Initialize(&id, m_pProvider, this, handle, cd);
        EnterInMap(m_controllers, id, VDS_OT_CONTROLLER, static_cast<IVdsController*>(ctrl));
    }
    DebugTrace("number of Controllers: %d\n", static_cast<int>(m_controllers.size()));
    DebugTrace("number of Luns: %d\n", static_cast<int>(m_luns.size()));
    DebugTrace("number of Drives: %d\n", static_cast<int>(m_drives.size()));
    return 0;
}

HRESULT CSubSystem::GetProperties(VDS_SUB_SYSTEM_PROP* pSubSystemProp) {
    if (!pSubSystemProp) return E_POINTER;
    CLockGuard lock("CSubSystem::GetProperties", hNotificationMutex);
    VDS_SUB_SYSTEM_PROP p = m_prop;
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) return hr;
    *pSubSystemProp = p;
    return S_OK;
}

HRESULT CSubSystem::GetProperties2(VDS_SUB_SYSTEM_PROP2* pSubSystemProp2) {
    if (!pSubSystemProp2) return E_POINTER;
    CLockGuard lock("CSubSystem::GetProperties2", hNotificationMutex);
    VDS_SUB_SYSTEM_PROP2 p{};
    p.id = m_prop.id;
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) return hr;
    p.ulFlags = m_prop.ulFlags;
    p.ulStripeSizeFlags = m_prop.ulStripeSizeFlags;
    p.ulSupportedRaidTypeFlags = kSupportedRaidTypeFlags;
    p.status = m_prop.status;
    p.health = m_prop.health;
    p.sNumberOfInternalBuses = m_prop.sNumberOfInternalBuses;
    p.sMaxNumberOfSlotsEachBus = m_prop.sMaxNumberOfSlotsEachBus;
    p.sMaxNumberOfControllers = m_prop.sMaxNumberOfControllers;
    p.sRebuildPriority = m_prop.sRebuildPriority;
    p.ulNumberOfEnclosures = static_cast<ULONG>(m_prop.sNumberOfInternalBuses);
    *pSubSystemProp2 = p;
    return S_OK;
}

HRESULT CSubSystem::GetProvider(IVdsProvider** ppProvider) {
    if (!ppProvider) return E_POINTER;
    if (!m_pProvider) return E_UNEXPECTED;
    *ppProvider = static_cast<IVdsProvider*>(m_pProvider);
    (*ppProvider)->AddRef();
    return S_OK;
}

HRESULT CSubSystem::EnumerateMap(const ObjectMap& map, IEnumVdsObject** ppEnum) {
    return QueryObjects(m_pProvider, map, ppEnum);
}

HRESULT CSubSystem::QueryControllers(IEnumVdsObject** ppEnum) {
    CLockGuard lock("CSubSystem::QueryControllers", hNotificationMutex);
    if (allowQueryRefresh.load() && m_pProvider) m_pProvider->Refreshable();
    if (!ppEnum) {
        DebugTrace("OOP!!! CSubSystem::QueryControllers ppEnum == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    return EnumerateMap(m_controllers, ppEnum);
}

HRESULT CSubSystem::QueryLuns(IEnumVdsObject** ppEnum) {
    CLockGuard lock("CSubSystem::QueryLuns", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (!ppEnum) {
        DebugTrace("OOP!!! CSubSystem::QueryLuns ppEnum == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    return EnumerateMap(m_luns, ppEnum);
}

HRESULT CSubSystem::QueryDrives(IEnumVdsObject** ppEnum) {
    CLockGuard lock("CSubSystem::QueryDrives", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (!ppEnum) {
        DebugTrace("OOP!!! CSubSystem::QueryDrives ppEnum == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    HRESULT hr = EnumerateMap(m_drives, ppEnum);
    if (FAILED(hr)) return hr;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    while ((*ppEnum)->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
        if (auto* d = dynamic_cast<CDrive*>(unk))
            DebugTrace("CSubSystem::QueryDrives() drive %S\n", d->FriendlyName());
        unk->Release();
    }
    (*ppEnum)->Reset();
    return S_OK;
}

HRESULT CSubSystem::QueryTargets(IEnumVdsObject** ppEnum) {
    CLockGuard lock("CSubSystem::QueryTargets", hNotificationMutex);
    if (!ppEnum) return E_POINTER;
    return EnumerateMap(m_targets, ppEnum);
}

HRESULT CSubSystem::QueryPortals(IEnumVdsObject** ppEnum) {
    CLockGuard lock("CSubSystem::QueryPortals", hNotificationMutex);
    if (!ppEnum) return E_POINTER;
    return EnumerateMap(m_portals, ppEnum);
}

HRESULT CSubSystem::GetDrive(SHORT sBusNumber, SHORT sSlotNumber, IVdsDrive** ppDrive) {
    if (!ppDrive) {
        DebugTrace("OOP!!! CSubSystem::QueryDrives ppDrive == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    CLockGuard lock("CSubSystem::GetDrive", hNotificationMutex);
    for (auto& [id, e] : m_drives) {
        auto* d = dynamic_cast<CDrive*>(e.pObject);
        if (d && static_cast<int>(d->EnclosureNumber()) == sBusNumber && d->SlotNumber() == sSlotNumber) {
            *ppDrive = static_cast<IVdsDrive*>(d);
            (*ppDrive)->AddRef();
            return S_OK;
        }
    }
    DebugTrace("BUGBUGBUG!!! CSubSystem::GetDrive() return VDS_E_OBJECT_NOT_FOUND %d.%d\n", sBusNumber, sSlotNumber);
    return VDS_E_OBJECT_NOT_FOUND;
}

HRESULT CSubSystem::GetDrive2(SHORT sBusNumber, SHORT sSlotNumber, ULONG, IVdsDrive** ppDrive) {
    // The bus already is the enclosure: the enclosure number adds nothing.
    return GetDrive(sBusNumber, sSlotNumber, ppDrive);
}

HRESULT CSubSystem::Reenumerate() {
    if (isRefreshing.load()) return S_OK;
    CLockGuard lock("CSubSystem::Reenumerate", hNotificationMutex);
    isRefreshing = 1;
    if (Options.load() & kOptionRescanOnReenumerate) {
        for (uint32_t handle : {m_entry.controllerA, m_entry.controllerB}) {
            if (!handle) continue;
            Kelvane::rescan_bus(handle);
            Plat()->Sleep(kRescanPauseMs);
        }
    }
    ReleaseMap(m_controllers);
    ReleaseMap(m_drives);
    ReleaseMap(m_luns);
    ReleaseMap(m_targets);
    ReleaseMap(m_portals);
    ReleaseMap(m_portalGroups);
    HRESULT rc = FillCtrlDriveLunList(m_entry);
    isRefreshing = 0;
    return rc != 0 ? VDS_E_INTERNAL_ERROR : S_OK;
}

HRESULT CSubSystem::SetFriendlyName(LPWSTR pwszFriendlyName) {
    if (!pwszFriendlyName) return E_POINTER;
    if (m_prop.pwszFriendlyName && WStrCmp(pwszFriendlyName, m_prop.pwszFriendlyName) == 0) return S_OK;
    std::u16string name(pwszFriendlyName, WStrLen(pwszFriendlyName));
    bool cut = false;
    if (name.size() > kMaxFriendlyNameChars) {
        name.resize(kMaxFriendlyNameChars);
        cut = true;
    }
    CLockGuard lock("CSubSystem::SetFriendlyName", hNotificationMutex);
    if (m_pProvider) {
        for (auto& [id, e] : m_pProvider->SubSystemMap()) {
            auto* other = dynamic_cast<CSubSystem*>(e.pObject);
            if (!other) continue;
            VDS_SUB_SYSTEM_PROP p{};
            if (FAILED(other->GetProperties(&p))) continue;
            bool same = p.pwszFriendlyName && name == std::u16string(p.pwszFriendlyName, WStrLen(p.pwszFriendlyName));
            CoTaskMemFree(p.pwszFriendlyName);
            CoTaskMemFree(p.pwszIdentification);
            if (same) return VDS_E_NAME_NOT_UNIQUE;
        }
    }
    auto adv = std::make_unique<AdvNet>();
    std::memset(adv.get(), 0, sizeof *adv);
    std::string narrow = WideToUtf8(name);
    size_t n = std::min(narrow.size(), sizeof adv->systemName);
    while (n > 0 && n < narrow.size() && (static_cast<unsigned char>(narrow[n]) & 0xC0) == 0x80) --n;  // whole characters
    std::memcpy(adv->systemName, narrow.data(), n);
    auto unified = std::make_unique<UnifiedControllerData>();
    bool sent = false;
    for (uint32_t handle : {m_entry.controllerA, m_entry.controllerB}) {
        if (!handle) continue;
        if (Kelvane::get_unified_controller_data(handle, unified.get()) != 0) continue;
        if (Kelvane::set_adv_net(handle, *adv) == 0) {
            sent = true;
            break;
        }
    }
    if (!sent) return VDS_E_INTERNAL_ERROR;
    // A name that had to be cut stays unseen here until the next refresh reads it back.
    if (cut) return S_OK;
    WStrNCpy(m_prop.pwszFriendlyName, 257, name.c_str());
    m_SysName = name;
    return S_OK;
}

HRESULT CSubSystem::DeleteLun(const VDS_OBJECT_ID& id) {
    DebugTrace("CSubSystem::DeleteLun()\n");
    auto it = m_luns.find(id);
    if (it != m_luns.end()) {
        IUnknown* lun = it->second.pObject;
        m_luns.erase(it);
        if (lun) lun->Release();
    }
    return S_OK;
}

HRESULT CSubSystem::SetControllerStatus(VDS_OBJECT_ID*, LONG, VDS_OBJECT_ID*, LONG) {
    return NotSupported("CSubSystem::SetControllerStatus");
}
HRESULT CSubSystem::ReplaceDrive(VDS_OBJECT_ID, VDS_OBJECT_ID) { return NotSupported("CSubSystem::ReplaceDrive"); }
HRESULT CSubSystem::SetStatus(VDS_SUB_SYSTEM_STATUS) { return NotSupported("CSubSystem::SetStatus"); }
HRESULT CSubSystem::CreateTarget(LPWSTR, LPWSTR, IVdsAsync**) { return NotSupported("CSubSystem::CreateTarget"); }
HRESULT CSubSystem::SetIpsecGroupPresharedKey(VDS_ISCSI_IPSEC_KEY*) {
    return NotSupported("CSubSystem::SetIpsecGroupPresharedKey");
}

// LUN creation and its size queries come with provisioning.
HRESULT CSubSystem::CreateLun(VDS_LUN_TYPE, ULONGLONG, VDS_OBJECT_ID*, LONG, LPWSTR, VDS_HINTS*, IVdsAsync**) {
    return E_NOTIMPL;
}
HRESULT CSubSystem::QueryMaxLunCreateSize(VDS_LUN_TYPE, VDS_OBJECT_ID*, LONG, VDS_HINTS*, ULONGLONG*) {
    return E_NOTIMPL;
}
HRESULT CSubSystem::CreateLun2(VDS_LUN_TYPE, ULONGLONG, VDS_OBJECT_ID*, LONG, LPWSTR, VDS_HINTS2*, IVdsAsync**) {
    return E_NOTIMPL;
}
HRESULT CSubSystem::QueryMaxLunCreateSize2(VDS_LUN_TYPE, VDS_OBJECT_ID*, LONG, VDS_HINTS2*, ULONGLONG*) {
    return E_NOTIMPL;
}
