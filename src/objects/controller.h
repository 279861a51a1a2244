// CController: one of the array's two controllers, and the heart of the object graph: its
// Initialize turns one ControllerData record into the drives, ports (and, with the volume and
// iSCSI objects, LUNs, pools, target, portals and portal groups) of the subsystem.
//
// Initialize runs with the notification mutex held by its caller; the other methods take it
// themselves. Status and health change only in Initialize: a controller that stopped answering
// keeps its last values until the next refresh.
#pragma once

#include <cstdint>
#include <string>

#include "core/registry.h"
#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"

class CProvider;
class CSubSystem;

class CController : public CComObjectRootEx,
                    public CVdsBase,
                    public IVdsController,
                    public IVdsControllerControllerPort,
                    public IVdsMaintenance {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_CONTROLLER;
    static constexpr uint32_t kInitialisedMark = 20100122;

    CController();
    ~CController() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsController
    HRESULT GetProperties(VDS_CONTROLLER_PROP* pControllerProp) override;
    HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) override;
    HRESULT GetPortProperties(SHORT sPortNumber, VDS_PORT_PROP* pPortProp) override;
    HRESULT FlushCache() override;
    HRESULT InvalidateCache() override;
    HRESULT Reset() override;
    HRESULT QueryAssociatedLuns(IEnumVdsObject** ppEnum) override;
    HRESULT SetStatus(VDS_CONTROLLER_STATUS status) override;
    // IVdsControllerControllerPort
    HRESULT QueryControllerPorts(IEnumVdsObject** ppEnum) override;
    // IVdsMaintenance
    HRESULT StartMaintenance(VDS_MAINTENANCE_OPERATION operation) override;
    HRESULT StopMaintenance(VDS_MAINTENANCE_OPERATION operation) override;
    HRESULT PulseMaintenance(VDS_MAINTENANCE_OPERATION operation, ULONG ulCount) override;

    HRESULT Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, uint32_t handle,
                       const ControllerData* record);
    void Dispose();
    void TearDown() override { Dispose(); }

    SortKey GetSortKey() const override { return {-static_cast<int64_t>(m_Owner), 0, {}}; }
    int OwnerId() const override { return m_Owner; }

    uint32_t Handle() const { return m_handle; }
    uint8_t Owner() const { return m_Owner; }
    uint32_t OverheadPerMille() const { return m_overheadPerMille; }
    const VDS_OBJECT_ID& Id() const { return m_prop.id; }
    const WCHAR* FriendlyName() const { return m_prop.pwszFriendlyName; }
    VDS_CONTROLLER_STATUS Status() const { return m_prop.status; }
    VDS_HEALTH Health() const { return m_prop.health; }
    CSubSystem* SubSystem() const { return m_pSubSystem; }
    // The controller's ports (the caller holds the notification mutex).
    const OwningMap& Ports() const { return m_ports; }
    const char* VendorName() const { return m_vendorName; }
    const char* ProductId() const { return m_productId; }
    const char* FirmwareRevision() const { return m_firmwareRevision; }
    const uint8_t* IpAddress() const { return m_ipAddress; }
    const uint8_t* MacAddress() const { return m_macAddress; }
    // The record's UniqueSN, 32 bytes, not terminated.
    const char* UniqueSerial() const { return m_UniqueSn; }
    uint32_t NumHostPorts() const { return m_numPorts; }
    // Calls f(T*) for each port (T is CControllerPort), in id order; the caller holds the
    // notification mutex.
    template <class T, class F>
    void ForEachPort(F&& f) const {
        for (const auto& [id, e] : m_ports)
            if (T* o = e.template As<T>()) f(o);
    }

private:
    HRESULT CacheCommand(const char* method, bool flush);
    void AddDrives(const ControllerData& cd);
    void AddPorts(const ControllerData& cd);
    // The LUNs of array `a` (or its dummy volume), its pool, the target, portals and groups.
    void AddVolumes(const ControllerData& cd, uint32_t a);
    // One LUN of the array: a partition, or the dummy volume when `partition` is null.
    void AddLun(const ArrayData& array, const PartitionData* partition);
    void AddPool(const ArrayData& array);
    void AddTarget(const ControllerData& cd, const UnifiedControllerData& unified);
    void AddPortals(const ControllerData& cd);
    void AddPortalGroups(const ControllerData& cd);

    CProvider* m_pProvider = nullptr;     // counted
    CSubSystem* m_pSubSystem = nullptr;   // counted
    VDS_CONTROLLER_PROP m_prop{};
    uint8_t m_Owner = 3;
    uint32_t m_handle = 0;
    uint8_t m_macAddress[6]{};
    uint8_t m_ipAddress[4]{};
    char m_vendorName[9]{};
    char m_productId[17]{};
    char m_firmwareRevision[20]{};
    uint32_t m_overheadPerMille = 0;
    char m_UniqueSn[32]{};
    uint32_t m_numPorts = 0;
    uint32_t m_initialised = 0;
    OwningMap m_ports;
};
