// CProvider: the root object of the provider, the one object a host creates.
//
// OnLoad brings the whole session up (settings, connection to the proxy service, subsystems,
// online) and is run again with isRefreshing set to rebuild the tree; OnUnload ends the session.
// One instance lives per process, also reachable as g_pProvider.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/globals.h"
#include "core/registry.h"
#include "core/vds_base.h"
#include "core/provider_ids.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/wire.h"

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

    IVdsAdviseSink* Sink() const { return m_pSink; }
    // The subsystem list of the last load, as the service gave it.
    const std::vector<SubsystemEntry>& SubsystemList() const { return m_subsystems; }

private:
    void ReadProviderSettings();
    void initWmi();

    // The object map and the identity map.
    ObjectRegistry m_registry;
    ObjectMap m_mapSubSystems;
    ObjectMap m_mapPools;
    IVdsAdviseSink* m_pSink = nullptr;
    bool m_bNeedRefresh = false;
    std::vector<SubsystemEntry> m_subsystems;
};

// Lets the next load delay again (tests only).
void ResetLoadDelayForTest();

// Reads Name and Version from the Parameters key; true only when both were read.
bool GetProviderNameAndVersion();
