#include "objects/subsystem.h"

#include <cstring>
#include <memory>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/monitor.h"
#include "core/provider.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/iscsi.h"
#include "lun/lun.h"
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

CSubSystem::~CSubSystem() {
    ForgetLastEvents(m_prop.id);
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsSubSystem*>(this));
    Dispose();
}

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

void CSubSystem::ReleaseMaps() {
    m_controllers.Clear();
    m_drives.Clear();
    m_luns.Clear();
    m_portals.Clear();
    m_targets.Clear();
    m_portalGroups.Clear();
}

void CSubSystem::Dispose() {
    ReleaseMaps();
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
        std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
        if (Kelvane::get_controller_data(handle, buf.get()) == 0)
            m_allowedDriveType = reinterpret_cast<const ControllerData*>(buf.get())->allowedDriveType();
    }

    provider->RememberObject(*id, KeyText(entry), this, static_cast<IVdsSubSystem*>(this));

    // The monitor's starting point: each controller's newest event, unless the record kept from an
    // earlier load of this subsystem already has one. Events from before the load are not told.
    LastEvents& last = LastEventsOf(*id);
    const uint32_t handles[2] = {m_entry.controllerA, m_entry.controllerB};
    for (int i = 0; i < 2; ++i) {
        if (last.controller[i].sequenceNumber != 0 || handles[i] == 0) continue;
        if (Kelvane::get_event(handles[i], 0, 1, 0, &last.controller[i]) != 0)
            DebugTrace(i == 0 ? "OOP!!! CSubSystem::Initialize() Controller A Last Event failed! \n"
                              : "OOP!!! CSubSystem::Initialize() Controller B Last Event failed! \n");
    }
    return S_OK;
}

void CSubSystem::AddPrimordialPools() {
    bool present[8] = {};
    ForEach<CDrive>([&](CDrive* d) { present[DriveClassOf(d->DriveType())] = true; });
    // SATA, SAS, SSD in this order; never one for FC or an unknown class.
    for (uint8_t cls : {kClassSata, kClassSas, kClassSsd}) {
        if (!present[cls]) continue;
        VDS_OBJECT_ID id{};
        TreePtr<CPool> pool = MakeTreeObject<CPool>(m_pProvider, &id, CPool::PrimordialKey(cls, m_SysName));
        pool->Initialize(&id, m_pProvider, this, nullptr, cls);
        m_pProvider->EnterPool(id, pool);
    }
}

void CSubSystem::RecordControllerFacts(const ControllerData& cd, const std::u16string& systemName,
                                       const std::u16string& longName) {
    const ControllerSection& cs = cd.controller;
    m_portCount = static_cast<uint16_t>(m_portCount + (cs.numDiskChannels & 0xFFFF) + (cs.numPorts & 0xFFFF));
    m_maxSlots = cd.diskPort(0).maxDevices;
    if (cd.enclosureCount > m_enclosureCount) m_enclosureCount = cd.enclosureCount;
    m_enclosureDrives = cd.enclosure(0).numDrives;
    m_SysName = systemName;
    if (m_identString.empty()) m_identString = longName;
}

bool CSubSystem::FirstViewOfDrive(uint16_t channel, uint16_t scsiId) {
    std::pair<uint16_t, uint16_t> pair{channel, scsiId};
    for (const auto& p : m_driveSeen)
        if (p == pair) return false;
    m_driveSeen.push_back(pair);
    return true;
}

void CSubSystem::EnterDrive(const VDS_OBJECT_ID& id, CDrive* drive) {
    m_drives.Enter(id, VDS_OT_DRIVE, static_cast<IVdsDrive*>(drive));
}
void CSubSystem::EnterLun(const VDS_OBJECT_ID& id, CLun* lun) {
    m_luns.Enter(id, VDS_OT_LUN, static_cast<IVdsLun*>(lun));
}
void CSubSystem::EnterTarget(const VDS_OBJECT_ID& id, CIscsiTarget* target) {
    m_targets.Enter(id, VDS_OT_TARGET, static_cast<IVdsIscsiTarget*>(target));
}
void CSubSystem::EnterPortal(const VDS_OBJECT_ID& id, CIscsiPortal* portal) {
    m_portals.Enter(id, VDS_OT_PORTAL, static_cast<IVdsIscsiPortal*>(portal));
}
void CSubSystem::EnterPortalGroup(const VDS_OBJECT_ID& id, CIscsiPortalGroup* group) {
    m_portalGroups.Enter(id, VDS_OT_PORTAL_GROUP, static_cast<IVdsIscsiPortalGroup*>(group));
}

HRESULT CSubSystem::EnumeratePortalGroups(IEnumVdsObject** ppEnum) { return EnumerateMap(m_portalGroups, ppEnum); }

HRESULT CSubSystem::FillCtrlDriveLunList(const SubsystemEntry& entry) {
    m_driveSeen.clear();
    m_portCount = 0;
    for (int i = 0; i < 2; ++i) {
        uint32_t handle = i == 0 ? entry.controllerA : entry.controllerB;
        (i == 0 ? m_handleA : m_handleB) = handle;
        if (handle == 0) continue;
        // 2.5 MB: read whole, kept only for this controller's turn.
        std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
        if (Kelvane::get_controller_data(handle, buf.get()) != 0) {
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
        TreePtr<CController> ctrl = MakeTreeObject<CController>(m_pProvider, &id, name);
        ctrl->Initialize(&id, m_pProvider, this, handle, cd);
        m_controllers.Enter(id, VDS_OT_CONTROLLER, static_cast<IVdsController*>(ctrl.get()));
    }
    DebugTrace("number of Controllers: %d\n", static_cast<int>(m_controllers.size()));
    DebugTrace("number of Luns: %d\n", static_cast<int>(m_luns.size()));
    DebugTrace("number of Drives: %d\n", static_cast<int>(m_drives.size()));
    return 0;
}

HRESULT CSubSystem::GetProperties(VDS_SUB_SYSTEM_PROP* pSubSystemProp) try {
    if (!pSubSystemProp) return E_POINTER;
    CLockGuard lock("CSubSystem::GetProperties", hNotificationMutex);
    VDS_SUB_SYSTEM_PROP p = m_prop;
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) return hr;
    *pSubSystemProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::GetProperties2(VDS_SUB_SYSTEM_PROP2* pSubSystemProp2) try {
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
TROV_CATCH_OOM

HRESULT CSubSystem::GetProvider(IVdsProvider** ppProvider) try {
    if (!ppProvider) return E_POINTER;
    if (!m_pProvider) return E_UNEXPECTED;
    *ppProvider = static_cast<IVdsProvider*>(m_pProvider);
    (*ppProvider)->AddRef();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::EnumerateMap(const OwningMap& map, IEnumVdsObject** ppEnum) {
    return QueryObjects(m_pProvider, map, ppEnum);
}

HRESULT CSubSystem::QueryControllers(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CSubSystem::QueryControllers", hNotificationMutex);
    if (allowQueryRefresh.load() && m_pProvider) m_pProvider->Refreshable();
    if (!ppEnum) {
        DebugTrace("OOP!!! CSubSystem::QueryControllers ppEnum == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    return EnumerateMap(m_controllers, ppEnum);
}
TROV_CATCH_OOM

HRESULT CSubSystem::QueryLuns(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CSubSystem::QueryLuns", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (!ppEnum) {
        DebugTrace("OOP!!! CSubSystem::QueryLuns ppEnum == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    return EnumerateMap(m_luns, ppEnum);
}
TROV_CATCH_OOM

HRESULT CSubSystem::QueryDrives(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CSubSystem::QueryDrives", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (!ppEnum) {
        DebugTrace("OOP!!! CSubSystem::QueryDrives ppEnum == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    CComPtr<IEnumVdsObject> drives;
    HRESULT hr = EnumerateMap(m_drives, &drives);
    if (FAILED(hr)) return hr;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    while (drives->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
        CComPtr<IUnknown> drive;
        drive.Attach(unk);
        if (auto* d = dynamic_cast<CDrive*>(unk)) DebugTrace("CSubSystem::QueryDrives() drive %S\n", d->FriendlyName());
    }
    drives->Reset();
    *ppEnum = drives.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::QueryTargets(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CSubSystem::QueryTargets", hNotificationMutex);
    if (!ppEnum) return E_POINTER;
    return EnumerateMap(m_targets, ppEnum);
}
TROV_CATCH_OOM

HRESULT CSubSystem::QueryPortals(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CSubSystem::QueryPortals", hNotificationMutex);
    if (!ppEnum) return E_POINTER;
    return EnumerateMap(m_portals, ppEnum);
}
TROV_CATCH_OOM

HRESULT CSubSystem::GetDrive(SHORT sBusNumber, SHORT sSlotNumber, IVdsDrive** ppDrive) try {
    if (!ppDrive) {
        DebugTrace("OOP!!! CSubSystem::QueryDrives ppDrive == NULL return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    CLockGuard lock("CSubSystem::GetDrive", hNotificationMutex);
    CDrive* d = FindFirst<CDrive>([&](CDrive* x) {
        return static_cast<int>(x->EnclosureNumber()) == sBusNumber && x->SlotNumber() == sSlotNumber;
    });
    if (d) {
        *ppDrive = static_cast<IVdsDrive*>(d);
        (*ppDrive)->AddRef();
        return S_OK;
    }
    DebugTrace("BUGBUGBUG!!! CSubSystem::GetDrive() return VDS_E_OBJECT_NOT_FOUND %d.%d\n", sBusNumber, sSlotNumber);
    return VDS_E_OBJECT_NOT_FOUND;
}
TROV_CATCH_OOM

HRESULT CSubSystem::GetDrive2(SHORT sBusNumber, SHORT sSlotNumber, ULONG, IVdsDrive** ppDrive) try {
    // The bus already is the enclosure: the enclosure number adds nothing.
    return GetDrive(sBusNumber, sSlotNumber, ppDrive);
}
TROV_CATCH_OOM

HRESULT CSubSystem::Reenumerate() try {
    if (isRefreshing.load()) return S_OK;
    CLockGuard lock("CSubSystem::Reenumerate", hNotificationMutex);
    RefreshingScope refreshing;
    if (Options.load() & kOptionRescanOnReenumerate) {
        for (uint32_t handle : {m_entry.controllerA, m_entry.controllerB}) {
            if (!handle) continue;
            Kelvane::rescan_bus(handle);
            Plat()->Sleep(kRescanPauseMs);
        }
    }
    ReleaseMaps();
    HRESULT rc;
    try {
        rc = FillCtrlDriveLunList(m_entry);
    } catch (...) {
        // A fill cut short by a failed allocation leaves part of the tree: the next query builds
        // it again.
        if (m_pProvider) m_pProvider->SetNeedRefresh(true);
        throw;
    }
    return rc != 0 ? VDS_E_INTERNAL_ERROR : S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::SetFriendlyName(LPWSTR pwszFriendlyName) try {
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
        for (const auto& [id, e] : m_pProvider->SubSystemMap()) {
            auto* other = e.As<CSubSystem>();
            if (!other) continue;
            VDS_SUB_SYSTEM_PROP p{};
            HRESULT hr = other->GetProperties(&p);
            PassOnOutOfMemory(hr);
            if (FAILED(hr)) continue;
            TaskMem<WCHAR> friendly(p.pwszFriendlyName), ident(p.pwszIdentification);
            if (friendly && name == std::u16string(friendly.get(), WStrLen(friendly.get())))
                return VDS_E_NAME_NOT_UNIQUE;
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
    m_SysName = name;
    WStrNCpy(m_prop.pwszFriendlyName, 257, name.c_str());
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CSubSystem::DeleteLun(const VDS_OBJECT_ID& id) {
    DebugTrace("CSubSystem::DeleteLun()\n");
    m_luns.Remove(id);
    return S_OK;
}

void CSubSystem::MarkLunDeleted(const uint8_t* arraySn, const uint8_t* partitionSn, const VDS_OBJECT_ID& lunId) {
    if (IsLunMarkDeleted(partitionSn)) return;
    DeleteMark m{};
    std::memcpy(m.arraySn.data(), arraySn, 32);
    std::memcpy(m.partitionSn.data(), partitionSn, 32);
    m.lunId = lunId;
    m_deleteMarks.push_back(m);
}

bool CSubSystem::IsLunMarkDeleted(const uint8_t* partitionSn) const {
    for (const DeleteMark& m : m_deleteMarks)
        if (std::memcmp(m.partitionSn.data(), partitionSn, 32) == 0) return true;
    return false;
}

void CSubSystem::ClearMarkDeleted(const uint8_t* arraySn) {
    std::erase_if(m_deleteMarks,
                  [&](const DeleteMark& m) { return std::memcmp(m.arraySn.data(), arraySn, 32) == 0; });
}

HRESULT CSubSystem::SetControllerStatus(VDS_OBJECT_ID*, LONG, VDS_OBJECT_ID*, LONG) try {
    return NotSupported("CSubSystem::SetControllerStatus");
}
TROV_CATCH_OOM
HRESULT CSubSystem::ReplaceDrive(VDS_OBJECT_ID, VDS_OBJECT_ID) try { return NotSupported("CSubSystem::ReplaceDrive"); }
TROV_CATCH_OOM
HRESULT CSubSystem::SetStatus(VDS_SUB_SYSTEM_STATUS) try { return NotSupported("CSubSystem::SetStatus"); }
TROV_CATCH_OOM
HRESULT CSubSystem::CreateTarget(LPWSTR, LPWSTR, IVdsAsync**) try { return NotSupported("CSubSystem::CreateTarget"); }
TROV_CATCH_OOM
HRESULT CSubSystem::SetIpsecGroupPresharedKey(VDS_ISCSI_IPSEC_KEY*) try {
    return NotSupported("CSubSystem::SetIpsecGroupPresharedKey");
}
TROV_CATCH_OOM
