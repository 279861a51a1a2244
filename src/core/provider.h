// CProvider: the root object of the provider, the one object a host creates.
//
// OnLoad brings the whole session up (settings, connection to the proxy service, subsystems,
// online) and is run again with isRefreshing set to rebuild the tree; OnUnload ends the session.
// One instance lives per process, also reachable as g_pProvider. The provider owns the subsystems
// and the pools through its two maps; every object of the tree is in its registry.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/globals.h"
#include "core/registry.h"
#include "core/vds_base.h"
#include "host/host_facts.h"
#include "platform/provider_ids.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"
#include "proxy/wire.h"
#include "support/debuglog.h"

class CPool;

class CProvider : public CComObjectRootEx,
                  public CVdsBase,
                  public IVdsProvider,
                  public IVdsHwProvider,
                  public IVdsProviderPrivate,
                  public IVdsHwProviderPrivate,
                  public IVdsHwProviderType,
                  public IVdsProviderSupport,
                  public IVdsHwProviderStoragePools {
public:
    CProvider();
    ~CProvider() override;

    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsProvider
    HRESULT GetProperties(VDS_PROVIDER_PROP* pProviderProp) override;
    // IVdsHwProvider
    HRESULT QuerySubSystems(IEnumVdsObject** ppEnum) override;
    HRESULT Reenumerate() override;
    HRESULT Refresh() override;
    // IVdsProviderPrivate
    HRESULT GetObject(VDS_OBJECT_ID ObjectId, VDS_OBJECT_TYPE type, IUnknown** ppObjectUnk) override;
    HRESULT OnLoad(LPWSTR pwszMachineName, IUnknown* pCallbackObject) override;
    HRESULT OnUnload(BOOL bForceUnload) override;
    // IVdsHwProviderPrivate
    HRESULT QueryIfCreatedLun(LPWSTR pwszDevicePath, VDS_LUN_INFORMATION* pVdsLunInformation,
                              VDS_OBJECT_ID* pLunId) override;
    // IVdsHwProviderType
    HRESULT GetProviderType(VDS_HWPROVIDER_TYPE* pType) override;
    // IVdsProviderSupport
    HRESULT GetVersionSupport(ULONG* ulVersionSupport) override;
    // IVdsHwProviderStoragePools
    HRESULT QueryStoragePools(ULONG ulFlags, ULONGLONG ullRemainingFreeSpace, VDS_POOL_ATTRIBUTES* pPoolAttributes,
                              IEnumVdsObject** ppEnum) override;
    HRESULT CreateLunInStoragePool(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID StoragePoolId,
                                   LPWSTR pwszUnmaskingList, VDS_HINTS2* pHints2, IVdsAsync** ppAsync) override;
    HRESULT QueryMaxLunCreateSizeInStoragePool(VDS_LUN_TYPE type, VDS_OBJECT_ID StoragePoolId, VDS_HINTS2* pHints2,
                                               ULONGLONG* pullMaxLunSize) override;

    IVdsAdviseSink* Sink() const { return m_pSink.get(); }

    // --- Staleness of the tree ---
    // m_bNeedRefresh under the refresh mutex.
    bool IsNeedRefresh();
    void SetNeedRefresh(bool flag);
    // The check at the start of the host's queries (the caller holds the notification mutex):
    // rebuild the tree now if it is stale and no operation is under way. A failed allocation
    // travels up to the query.
    void Refreshable();

    // --- Registry (callers hold the notification mutex) ---
    bool AddObject(const VDS_OBJECT_ID& id, const ObjectEntry& entry) { return m_registry.AddObject(id, entry); }
    void RemoveObject(const VDS_OBJECT_ID& id) { m_registry.RemoveObject(id, isRefreshing.load() != 0); }
    // An object that dies leaves the object map, refreshing or not.
    void DropObject(const VDS_OBJECT_ID& id, const IUnknown* object) { m_registry.DropObject(id, object); }
    // Enters the object under its key text in the identity map (which keeps it alive).
    void RememberObject(const VDS_OBJECT_ID& id, const std::u16string& key, CVdsBase* object, IUnknown* unk) {
        m_registry.RememberObject(id, key, object->ObjectType(), unk, object);
    }
    const ObjectRegistry& Registry() const { return m_registry; }
    const OwningMap& SubSystemMap() const { return m_mapSubSystems; }
    const OwningMap& PoolMap() const { return m_mapPools; }
    // Enters a pool in the provider's pool map with a reference of the map's own.
    void EnterPool(const VDS_OBJECT_ID& id, CPool* pool);
    // The subsystem list of the last load, as the service gave it.
    const std::vector<SubsystemEntry>& SubsystemList() const { return m_subsystems; }

    // The GUID of the object an event speaks of (31 controller by handle, 32 drive by serial, 33
    // LUN by partition serial); the zero GUID when none. Event 108 takes the LUN out at once.
    VDS_OBJECT_ID GetUID(VDS_OBJECT_TYPE type, const EventData& event);
    // Takes the whole tree apart (at unload): subsystems disposed, every reference let go.
    void ReleaseTree();

    // What the last load learnt from the host (initWmi); readers hold the notification mutex.
    HostFacts& Host() { return m_host; }
    // Gathers the host's facts again (a load does it too).
    void initWmi();

private:
    // OnLoad's work; a failed allocation travels up to the interface method.
    HRESULT Load(LPWSTR pwszMachineName, IUnknown* pCallbackObject);
    // Refresh's work: empties the maps and loads again, finding every object by its key text.
    void RebuildTree();
    void ReadProviderSettings();
    // The served test of a subsystem entry (`isFC`, though what it asks for is an iSCSI port).
    bool IsServedSubsystem(const SubsystemEntry& entry);

    // The object map and the identity map.
    ObjectRegistry m_registry;
    OwningMap m_mapSubSystems;
    OwningMap m_mapPools;
    CComPtr<IVdsAdviseSink> m_pSink;
    bool m_bNeedRefresh = false;
    std::vector<SubsystemEntry> m_subsystems;
    HostFacts m_host;
};

// Makes an enumerator over the objects of a map, ordered by their kind's sort key.
HRESULT QueryObjects(CProvider* provider, const OwningMap& map, IEnumVdsObject** ppEnum);

// The object of class T that carried `key` before (its old id replaces *inOutGuid), or a new
// object with a count of 0 (the fresh id stays). Null when no object could be made. A key is
// looked up among objects of T's kind only.
template <class T>
CComObject<T>* FindObjAndGuid(CProvider* provider, VDS_OBJECT_ID* inOutGuid, const std::u16string& key) {
    VDS_OBJECT_ID found{};
    const ObjectRegistry::Identity* e = provider->Registry().FindIdentity(T::kObjectType, key, &found);
    if (e) {
        if (auto* obj = dynamic_cast<CComObject<T>*>(e->base)) {
            *inOutGuid = found;
            DebugTrace("FindObjAndGuid found %S @ %p\n", key.c_str(), static_cast<void*>(obj));
            return obj;
        }
    }
    CComObject<T>* obj = nullptr;
    if (FAILED(CComObject<T>::CreateInstance(&obj))) return nullptr;
    DebugTrace("FindObjAndGuid created %S @ %p\n", key.c_str(), static_cast<void*>(obj));
    return obj;
}

// Lets the next load delay again (tests only).
void ResetLoadDelayForTest();

// Reads Name and Version from the Parameters key; true only when both were read.
bool GetProviderNameAndVersion();
