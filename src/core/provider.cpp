#include "core/provider.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "core/lock_guard.h"
#include "core/monitor.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/enumerator.h"
#include "lun/lun.h"
#include "objects/object_util.h"
#include "objects/pool.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "support/debuglog.h"
#include "support/lang.h"

namespace {
// How long the unload waits for the monitor threads: one pass's sleeps and a little more.
constexpr int kMonitorEndWaitMs = 11000;
}  // namespace

namespace {

// The load delay of the Options word is done once per process; a refresh isn't delayed again.
std::atomic<bool> g_loadDelayDone{false};

const char* HostGenerationText() {
    if (HostIsWin7()) return "win7";
    if (HostIsWin2008()) return "win2008";
    return "win2003";
}

}  // namespace

void ResetLoadDelayForTest() { g_loadDelayDone = false; }

CProvider::CProvider() : CVdsBase(VDS_OT_PROVIDER) {
    isRefreshing = 0;
    m_bNeedRefresh = false;
    NumOperation = 0;
}

CProvider::~CProvider() {
    // The pools first: they hold references on the subsystems. The object map holds no reference
    // of its own; the identity map lets go of what it holds when m_registry dies.
    m_mapPools.Clear();
    m_mapSubSystems.Clear();
    m_pSink.Release();
    CProvider* self = this;
    g_pProvider.compare_exchange_strong(self, nullptr);
    DebugTrace("CProvider::~CProvider out\n");
}

HRESULT CProvider::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsProvider)
        *ppv = static_cast<IVdsProvider*>(this);
    else if (riid == IID_IVdsHwProvider)
        *ppv = static_cast<IVdsHwProvider*>(this);
    else if (riid == IID_IVdsProviderPrivate)
        *ppv = static_cast<IVdsProviderPrivate*>(this);
    else if (riid == IID_IVdsHwProviderPrivate)
        *ppv = static_cast<IVdsHwProviderPrivate*>(this);
    else if (riid == IID_IVdsHwProviderType)
        *ppv = static_cast<IVdsHwProviderType*>(this);
    else if (riid == IID_IVdsProviderSupport)
        *ppv = static_cast<IVdsProviderSupport*>(this);
    else if (riid == IID_IVdsHwProviderStoragePools)
        *ppv = static_cast<IVdsHwProviderStoragePools*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

HRESULT CProvider::GetProperties(VDS_PROVIDER_PROP* pProviderProp) try {
    DebugTrace("%s()\n", "CProvider::GetProperties");
    if (!pProviderProp) {
        DebugTrace("OOP!!! CProvider::GetProperties pProviderProp is NULL, return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    std::memset(pProviderProp, 0, sizeof *pProviderProp);
    pProviderProp->id = TROV_PROVIDER_ID;
    pProviderProp->guidVersionId = TROV_PROVIDER_VERSION_ID;
    // The host frees both blocks; their sizes are those the host has always been given.
    auto* name = static_cast<WCHAR*>(CoTaskMemAlloc(768));
    if (!name) {
        DebugTrace("OOP!!! CProvider::GetProperties CoTaskMemAlloc failed, return E_OUTOFMEMORY, line %d\n", __LINE__);
        return E_OUTOFMEMORY;
    }
    auto* version = static_cast<WCHAR*>(CoTaskMemAlloc(128));
    if (!version) {
        CoTaskMemFree(name);
        DebugTrace("OOP!!! CProvider::GetProperties CoTaskMemAlloc failed, return E_OUTOFMEMORY, line %d\n", __LINE__);
        return E_OUTOFMEMORY;
    }
    WStrNCpy(name, 768 / sizeof(WCHAR), g_ProviderName);
    WStrNCpy(version, 128 / sizeof(WCHAR), g_ProviderVersion);
    pProviderProp->pwszName = name;
    pProviderProp->pwszVersion = version;
    pProviderProp->type = VDS_PT_HARDWARE;
    pProviderProp->ulFlags = 2;
    pProviderProp->ulStripeSizeFlags = 0x1C000;
    pProviderProp->sRebuildPriority = 0;
    DebugTrace("%s() out\n", "CProvider::GetProperties");
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CProvider::GetProviderType(VDS_HWPROVIDER_TYPE* pType) try {
    DebugTrace("%s()\n", "CProvider::GetProviderType");
    if (!pType) {
        // Deliberately E_FAIL rather than E_POINTER: that is what hosts have always seen here.
        DebugTrace("OOP!!! CProvider::GetProviderType pType is NULL, return E_FAIL, line %d\n", __LINE__);
        return E_FAIL;
    }
    *pType = VDS_HWT_ISCSI;
    DebugTrace("%s() out\n", "CProvider::GetProviderType");
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CProvider::GetVersionSupport(ULONG* ulVersionSupport) try {
    DebugTrace("%s()\n", "CProvider::GetVersionSupport");
    if (!ulVersionSupport) {
        DebugTrace("OOP!!! CProvider::GetVersionSupport ulVersionSupport is NULL, return E_POINTER, line %d\n",
                   __LINE__);
        return E_POINTER;
    }
    ULONG v = 3;
    if (HostIsWin7()) v |= 28;
    *ulVersionSupport = v;
    DebugTrace("%s() out\n", "CProvider::GetVersionSupport");
    return S_OK;
}
TROV_CATCH_OOM

bool GetProviderNameAndVersion() {
    bool bRtn = false;
    if (!Plat()->KeyExists(TROV_PARAMETERS_KEY)) {
        DebugTrace("CProvider::GetProviderNameAndVersion RegOpenKeyEx error.");
    } else {
        std::u16string name, version;
        // Each value is read into a 640-byte buffer: longer text doesn't fit and counts as unread.
        bool okName = Plat()->ReadStringValue(TROV_PARAMETERS_KEY, "Name", &name) && name.size() * 2 + 2 <= 640;
        bool okVersion =
            Plat()->ReadStringValue(TROV_PARAMETERS_KEY, "Version", &version) && version.size() * 2 + 2 <= 640;
        if (okName && okVersion) {
            WStrNCpy(g_ProviderName, kProviderNameChars, name.c_str());
            WStrNCpy(g_ProviderVersion, kProviderVersionChars, version.c_str());
            DebugTrace("    Name=%ls\n    Version=%ls\n", g_ProviderName, g_ProviderVersion);
            bRtn = true;
        }
    }
    DebugTrace("GetProviderNameAndVersion bRtn=%d out\n", bRtn ? 1 : 0);
    return bRtn;
}

void CProvider::ReadProviderSettings() {
    uint32_t v;
    if (Plat()->ReadDwordValue(TROV_PARAMETERS_KEY, "StartingLUN", &v)) StartingLUN = v;
    if (Plat()->ReadDwordValue(TROV_PARAMETERS_KEY, "DebugLogging", &v)) DebugLogging = v;
    if (Plat()->ReadDwordValue(TROV_PARAMETERS_KEY, "Options", &v)) Options = v;
    // A value of our own: the original always waits 600 s for a reply; ReplyTimeout (seconds,
    // 1..600) lowers that limit for every wait of the transport. 0 or absent: 600.
    uint32_t replyTimeout = 0;
    Plat()->ReadDwordValue(TROV_PARAMETERS_KEY, "ReplyTimeout", &replyTimeout);
    SetReplyTimeout(replyTimeout);
    int delay = static_cast<int>(Options.load() & kOptionLoadDelayMask) * 15;
    if (delay >= 1 && !g_loadDelayDone.exchange(true)) {
        DebugTrace("Sleeping %d seconds; PID=%d\n", delay, static_cast<int>(Plat()->ProcessId()));
        Plat()->Sleep(static_cast<uint32_t>(delay) * 1000);
    }
}

void CProvider::initWmi() {
    VdsWmiInit wmi;
    DebugTrace("CProvider::initWmi()\n");
    // Refilled whole: a step that fails leaves the ones after it empty.
    m_host = HostFacts{};
    HostFacts& h = m_host;
    if (HostIsWin2008()) {
        if (VdsWmi::WmiGetMpioDescriptor(h.mpioDescriptorVec) != 0) {
            DebugTrace("OOP!!! CProvider::initWmi() WmiGetMpioDescriptor return error, line %d\n", __LINE__);
            return;
        }
        if (VdsWmi::WmiGetMpioDiskInfo(h.mpioDiskInfoVec) != 0) {
            DebugTrace("OOP!!! CProvider::initWmi() WmiGetMpioDiskInfo return error, line %d\n", __LINE__);
            return;
        }
        if (VdsWmi::WmiGetMpioDsmPathV2(h.mpioDsmPathV2Vec) != 0) {
            DebugTrace("OOP!!! CProvider::initWmi() WmiGetMpioDsmPathV2 return error, line %d\n", __LINE__);
            return;
        }
    } else if (VdsWmi::WmiGetDevicePerf(h.DevPerfVec) != 0) {
        DebugTrace("OOP!! CProvider::initWmi WmiGetDevicePerf(DevPerfVec) error\n");
        return;
    }
    if (VdsWmi::WmiGetDSMInfo(h.DsmVec) != 0) {
        DebugTrace("OOP!! CProvider::initWmi WmiGetDSMInfo(DsmVec) error\n");
        return;
    }
    if (GetHbaPortProp(h.HBA_vec) != 0) {
        DebugTrace("OOP!! CProvider::initWmi GetHbaPortProp(HBA_vec) error\n");
        return;
    }
    if (HostIsWin2008()) GetHbaPortPropsByProxy(this, h.HBA_vec);
    if (QueryLBPolicy(h.DsmLoadPolicyVec) != 0) {
        DebugTrace("OOP!! CProvider::initWmi QueryLBPolicy(DsmLoadPolicyVec) error\n");
        return;
    }
    DebugTrace("CProvider::initWmi() out\n");
}

HRESULT CProvider::OnLoad(LPWSTR pwszMachineName, IUnknown* pCallbackObject) try {
    return Load(pwszMachineName, pCallbackObject);
}
TROV_CATCH_OOM

HRESULT CProvider::Load(LPWSTR pwszMachineName, IUnknown* pCallbackObject) {
    DebugOpen(nullptr);
    DebugTrace("CProvider::OnLoad() g_pProvider %p this %p pCallbackObject %p online %d %s\n",
               static_cast<void*>(g_pProvider.load()), static_cast<void*>(this), static_cast<void*>(pCallbackObject),
               isProviderOnline.load(), HostGenerationText());
    if (pCallbackObject) {
        IVdsAdviseSink* sink = nullptr;
        if (SUCCEEDED(pCallbackObject->QueryInterface(IID_IVdsAdviseSink, reinterpret_cast<void**>(&sink))) && sink)
            m_pSink.Attach(sink);
    }
    g_pProvider = this;
    GetProviderNameAndVersion();
    ReadProviderSettings();
    DebugTrace("OnLoad: StartingLUN %d Options 0x%x\n", StartingLUN.load(), Options.load());

    if (isRefreshing) {
        if (Options & kOptionReconnectAtRefresh) ProxyReconnect();
    } else if (ProxyConnect() != 0) {
        // An empty provider rather than a failed load: the host keeps working without the array.
        return S_OK;
    }

    std::vector<SubsystemEntry> list;
    if (Kelvane::get_subsystems(list) != 0) {
        DebugTrace("OOP!!! CProvider::OnLoad() get_subsystems(VecSub) failed!, line = %d\n", __LINE__);
        return VDS_E_INITIALIZED_FAILED;
    }
    m_subsystems = list;
    DebugTrace("nSubSystem = %d\n", static_cast<int>(list.size()));
    initWmi();
    LangInit();
    DebugTrace("OnLoad: Enumerating subsystems\n");
    for (const SubsystemEntry& e : list) {
        if (!IsServedSubsystem(e)) continue;
        VDS_OBJECT_ID id{};
        TreePtr<CSubSystem> ss = MakeTreeObject<CSubSystem>(this, &id, CSubSystem::KeyText(e));
        DebugTrace("OnLoad: initializing subsystem\n");
        ss->Initialize(&id, this, e);
        DebugTrace("OnLoad: finished initializing subsystem %ls\n", ss->FriendlyName() ? ss->FriendlyName() : u"");
        m_mapSubSystems.Enter(id, VDS_OT_SUB_SYSTEM, static_cast<IVdsSubSystem*>(ss.get()));
    }
    DebugTrace("Setting provider online\n");
    isProviderOnline = 1;
    // The monitors are started once, for the subsystems of the first load, and only for a host
    // that listens.
    if (!isRefreshing && m_pSink) DealEventProvider(this);
    DebugTrace("CProvider::OnLoad() out\n");
    return S_OK;
}

bool CProvider::IsServedSubsystem(const SubsystemEntry& e) {
    uint32_t handle = e.controllerA ? e.controllerA : e.controllerB;
    if (!handle) return false;
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) {
        DebugTrace("OOP!!! Provider::isFC get_controller_data return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
        return false;
    }
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    for (uint32_t i = 0; i < rec::kMaxPorts; ++i)
        if (cd->port(i).busType == TROV_BUS_ISCSI) return true;
    std::string sn(e.UniqueSN, strnlen(e.UniqueSN, sizeof e.UniqueSN));
    DebugTrace("CProvider::OnLoad() non-iSCSI subsystem will be be skipped, UniqueSN = %s, controllerA = %d, "
               "controllerB = %d\n",
               sn.c_str(), e.controllerA, e.controllerB);
    return false;
}

void CProvider::ReleaseTree() {
    CLockGuard lock("CProvider::ReleaseTree", hNotificationMutex);
    // Children hold counted references on their parents and on the provider: the tree is taken
    // apart from the top, so that every object dies and the provider's own count can reach 0.
    m_mapPools.Clear();
    m_mapSubSystems.Clear();
    // Every object the tree ever made is in the identity map, which still holds each of them:
    // first every object lets go of the others, then the map lets go of them all.
    for (auto& [id, ident] : m_registry.Identities())
        if (ident.base) ident.base->TearDown();
    m_registry.ClearObjects();
    m_registry.ReleaseIdentities();
    m_registry.ClearObjects();
}

HRESULT CProvider::OnUnload(BOOL bForceUnload) try {
    DebugTrace("CProvider::OnUnload enter\n");
    isProviderOnline = 0;
    ProxyUnInit();
    // Every monitor thread has let go of the tree before it is taken apart: the shared running
    // flag that ProxyUnInit waits for is cleared by the first monitor to end, not the last.
    if (!WaitForMonitorThreads(kMonitorEndWaitMs))
        DebugTrace("CProvider::OnUnload %d monitor thread(s) still running\n", MonitorThreadsAlive());
    ReleaseTree();
    DebugTrace("CProvider::OnUnload exit\n");
    DebugClose();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CProvider::QuerySubSystems(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CProvider::QuerySubSystems", hNotificationMutex);
    DebugTrace("%s()\n", "CProvider::QuerySubSystems");
    if (m_mapSubSystems.empty()) Refreshable();
    HRESULT hr = QueryObjects(this, m_mapSubSystems, ppEnum);
    DebugTrace("%s() out\n", "CProvider::QuerySubSystems");
    return hr;
}
TROV_CATCH_OOM

bool CProvider::IsNeedRefresh() {
    bool need;
    {
        CLockGuard lock("CProvider::IsNeedRefresh", hRefreshMutex);
        need = m_bNeedRefresh;
    }
    DebugTrace("CProvider::IsNeedRefresh() returns %s\n", need ? "TRUE" : "FALSE");
    return need;
}

void CProvider::SetNeedRefresh(bool flag) {
    CLockGuard lock("CProvider::SetNeedRefresh", hRefreshMutex);
    DebugTrace("CProvider::SetNeedRefresh IN  IsNeedRefresh = %d\n", m_bNeedRefresh ? 1 : 0);
    m_bNeedRefresh = flag;
    DebugTrace("CProvider::SetNeedRefresh OUT m_bNeedRefresh = %d\n", m_bNeedRefresh ? 1 : 0);
}

void CProvider::Refreshable() {
    DebugTrace("Refreshable() : enter !\n");
    if (IsNeedRefresh() && NumOperation.load() == 0) {
        DebugTrace("Refreshable() : Need a refresh\n");
        RebuildTree();
    }
    DebugTrace("Refreshable() : OUT!\n");
}

HRESULT CProvider::Refresh() try {
    RebuildTree();
    return S_OK;
}
TROV_CATCH_OOM

void CProvider::RebuildTree() {
    if (isRefreshing) {
        DebugTrace("CProvider::Refresh() : The provider is in refresh, return ok.\n");
        return;
    }
    CLockGuard lock("CProvider::Refresh", hNotificationMutex);
    SetNeedRefresh(false);
    // The objects live on through the identity map, which holds its own reference, and the
    // rebuild finds them there again by their key texts; the maps' references go with the maps,
    // so that the rebuild's new references keep every count balanced.
    m_mapPools.Clear();
    m_mapSubSystems.Clear();
    m_registry.ClearObjects();
    RefreshingScope refreshing;
    try {
        WCHAR empty[1] = {0};
        Load(empty, nullptr);
    } catch (...) {
        // A rebuild cut short by a failed allocation leaves part of the tree: the next query
        // builds it again.
        SetNeedRefresh(true);
        throw;
    }
}

HRESULT CProvider::Reenumerate() try {
    CLockGuard lock("CProvider::Reenumerate", hNotificationMutex);
    return Refresh();
}
TROV_CATCH_OOM
namespace {

// The interface by which GetObject hands out an object of each kind.
const IID* PrimaryInterface(VDS_OBJECT_TYPE type) {
    switch (type) {
        case VDS_OT_SUB_SYSTEM: return &IID_IVdsSubSystem;
        case VDS_OT_CONTROLLER: return &IID_IVdsController;
        case VDS_OT_DRIVE: return &IID_IVdsDrive;
        case VDS_OT_LUN: return &IID_IVdsLun;
        case VDS_OT_LUN_PLEX: return &IID_IVdsLunPlex;
        case VDS_OT_PORT: return &IID_IVdsControllerPort;
        case VDS_OT_PORTAL: return &IID_IVdsIscsiPortal;
        case VDS_OT_TARGET: return &IID_IVdsIscsiTarget;
        case VDS_OT_PORTAL_GROUP: return &IID_IVdsIscsiPortalGroup;
        case VDS_OT_STORAGE_POOL: return &IID_IVdsStoragePool;
        default: return nullptr;
    }
}

}  // namespace

HRESULT CProvider::GetObject(VDS_OBJECT_ID ObjectId, VDS_OBJECT_TYPE type, IUnknown** ppObjectUnk) try {
    CLockGuard lock("CProvider::GetObject", hNotificationMutex);
    if (!ppObjectUnk) return E_POINTER;
    if (type < VDS_OT_SUB_SYSTEM || type > VDS_OT_STORAGE_POOL) return E_INVALIDARG;
    *ppObjectUnk = nullptr;
    const ObjectEntry* e = m_registry.Find(ObjectId, type);
    IUnknown* unk = nullptr;
    if (!e || !e->pObject || FAILED(e->pObject->QueryInterface(*PrimaryInterface(type), reinterpret_cast<void**>(&unk)))) {
        DebugTrace("BUGBUGBUG: CProvider::GetObject() return VDS_E_OBJECT_NOT_FOUND, type=%d, ObjectId:", type);
        DebugTrace("%s\n", LogGuid(ObjectId).c_str());
        return VDS_E_OBJECT_NOT_FOUND;
    }
    // Two references, deliberately, as this provider has always handed them out here: one for
    // the caller and one more, so that an object handed out stays alive past the caller's Release
    // even when the tree lets go of it. Hosts that know this provider give the extra one back at
    // once (trovctl does). The identity map keeps every object alive by now, so the extra one
    // protects nothing more; it stays because hosts count on it.
    unk->AddRef();
    *ppObjectUnk = unk;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT QueryObjects(CProvider* provider, const OwningMap& map, IEnumVdsObject** ppEnum) {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CComPtr<CComObject<CEnumerator>> e;
    e.Attach(CEnumerator::Create());
    if (!e) return E_OUTOFMEMORY;
    struct Item {
        IUnknown* unk;
        CVdsBase::SortKey key;
    };
    std::vector<Item> items;
    items.reserve(map.size());
    for (const auto& [id, entry] : map) {
        auto* base = entry.As<CVdsBase>();
        items.push_back(Item{entry.pObject.get(), base ? base->GetSortKey() : CVdsBase::SortKey{}});
    }
    std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
        if (a.key.k1 != b.key.k1) return a.key.k1 < b.key.k1;
        if (a.key.k2 != b.key.k2) return a.key.k2 < b.key.k2;
        return a.key.name < b.key.name;
    });
    for (const Item& it : items) {
        HRESULT hr = e->Append(it.unk);
        if (FAILED(hr)) return hr;
    }
    e->Reset();
    *ppEnum = e.Detach();
    return S_OK;
}

void CProvider::EnterPool(const VDS_OBJECT_ID& id, CPool* pool) {
    m_mapPools.Enter(id, VDS_OT_STORAGE_POOL, static_cast<IVdsStoragePool*>(pool));
}

HRESULT CProvider::QueryStoragePools(DWORD, ULONGLONG, VDS_POOL_ATTRIBUTES*, IEnumVdsObject** ppEnum) try {
    if (!PoolsEnabled()) return VDS_E_NOT_SUPPORTED;
    CLockGuard lock("CProvider::QueryStoragePools", hNotificationMutex);
    DebugTrace("CProvider::QueryStoragePools() %d pools\n", static_cast<int>(m_mapPools.size()));
    if (allowQueryRefresh.load()) Refreshable();
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CComPtr<IEnumVdsObject> pools;
    HRESULT hr = QueryObjects(this, m_mapPools, &pools);
    if (FAILED(hr)) return hr;
    for (const auto& [id, e] : m_mapPools)
        if (auto* p = e.As<CPool>())
            DebugTrace("  Pool %S (%S) guid %s\n", p->Prop().pwszName, p->Prop().pwszDescription, LogGuid(id).c_str());
    pools->Reset();
    *ppEnum = pools.Detach();
    return S_OK;
}
TROV_CATCH_OOM
namespace {
constexpr uint32_t kEventVolumeDeleted = 108;

}  // namespace

VDS_OBJECT_ID CProvider::GetUID(VDS_OBJECT_TYPE type, const EventData& event) {
    ObjectMap objects;
    {
        CLockGuard lock("CProvider::GetUID", hNotificationMutex);
        objects = m_registry.Objects();
    }
    for (auto& [id, e] : objects) {
        if (e.type != type) continue;
        if (type == VDS_OT_CONTROLLER) {
            auto* c = dynamic_cast<CController*>(e.pObject);
            if (c && c->Handle() == event.controllerHandle) return id;
        } else if (type == VDS_OT_DRIVE) {
            auto* d = dynamic_cast<CDrive*>(e.pObject);
            if (d && std::memcmp(d->Serial(), event.driveSerial, 32) == 0) return id;
        } else if (type == VDS_OT_LUN) {
            auto* lun = dynamic_cast<CLun*>(e.pObject);
            if (!lun || std::memcmp(lun->PartitionSerial(), event.partitionSerial, 32) != 0) continue;
            if (event.eventCode == kEventVolumeDeleted) {
                // The volume is gone on the array: the tree lets go of it now, not at the next refresh.
                DebugTrace("CProvider::GetUID delete lun %s\n", LogGuid(id).c_str());
                CLockGuard lock("CProvider::GetUID", hNotificationMutex);
                if (CSubSystem* ss = lun->SubSystem()) ss->DeleteLun(id);
                RemoveObject(id);
            }
            return id;
        }
    }
    return VDS_OBJECT_ID{};
}
