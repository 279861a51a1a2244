// CSubSystem: the root of one dual-controller array as the host sees it.
//
// One object per served entry of the service's subsystem list. It owns the maps of the array's
// objects, builds them from both controllers' records (FillCtrlDriveLunList, through
// CController::Initialize), and answers the subsystem interfaces. Every method that reads or
// changes the maps holds the notification mutex; Initialize and Reenumerate hold it throughout,
// array reads included. Its state is its own: the controllers enter what they build and record
// what their records say through the named operations below, and other objects read the maps
// through ForEach and FindFirst. LUN creation and its size answers are defined in src/lun/. The
// monitor's view of the array's event logs lives with the monitor (core/monitor.h).
#pragma once

#include <array>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/registry.h"
#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"
#include "proxy/wire.h"

class CProvider;
class CDrive;
class CLun;
class CIscsiTarget;
class CIscsiPortal;
class CIscsiPortalGroup;

class CSubSystem : public CComObjectRootEx,
                   public CVdsBase,
                   public IVdsSubSystem,
                   public IVdsSubSystem2,
                   public IVdsSubSystemIscsi,
                   public IVdsSubSystemNaming {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_SUB_SYSTEM;

    CSubSystem();
    ~CSubSystem() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsSubSystem
    HRESULT GetProperties(VDS_SUB_SYSTEM_PROP* pSubSystemProp) override;
    HRESULT GetProvider(IVdsProvider** ppProvider) override;
    HRESULT QueryControllers(IEnumVdsObject** ppEnum) override;
    HRESULT QueryLuns(IEnumVdsObject** ppEnum) override;
    HRESULT QueryDrives(IEnumVdsObject** ppEnum) override;
    HRESULT GetDrive(SHORT sBusNumber, SHORT sSlotNumber, IVdsDrive** ppDrive) override;
    HRESULT Reenumerate() override;
    HRESULT SetControllerStatus(VDS_OBJECT_ID* pOnlineControllerIdArray, LONG lNumberOfOnlineControllers,
                                VDS_OBJECT_ID* pOfflineControllerIdArray, LONG lNumberOfOfflineControllers) override;
    HRESULT CreateLun(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                      LPWSTR pwszUnmaskingList, VDS_HINTS* pHints, IVdsAsync** ppAsync) override;
    HRESULT ReplaceDrive(VDS_OBJECT_ID DriveToBeReplaced, VDS_OBJECT_ID ReplacementDrive) override;
    HRESULT SetStatus(VDS_SUB_SYSTEM_STATUS status) override;
    HRESULT QueryMaxLunCreateSize(VDS_LUN_TYPE type, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                                  VDS_HINTS* pHints, ULONGLONG* pullMaxLunSize) override;
    virtual HRESULT FillCtrlDriveLunList(const SubsystemEntry& entry);
    // IVdsSubSystem2
    HRESULT GetProperties2(VDS_SUB_SYSTEM_PROP2* pSubSystemProp2) override;
    HRESULT GetDrive2(SHORT sBusNumber, SHORT sSlotNumber, ULONG ulEnclosureNumber, IVdsDrive** ppDrive) override;
    HRESULT CreateLun2(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID* pDriveIdArray,
                       LONG lNumberOfDrives, LPWSTR pwszUnmaskingList, VDS_HINTS2* pHints2,
                       IVdsAsync** ppAsync) override;
    HRESULT QueryMaxLunCreateSize2(VDS_LUN_TYPE type, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                                   VDS_HINTS2* pHints2, ULONGLONG* pullMaxLunSize) override;
    // IVdsSubSystemIscsi
    HRESULT QueryTargets(IEnumVdsObject** ppEnum) override;
    HRESULT QueryPortals(IEnumVdsObject** ppEnum) override;
    HRESULT CreateTarget(LPWSTR pwszIscsiName, LPWSTR pwszFriendlyName, IVdsAsync** ppAsync) override;
    HRESULT SetIpsecGroupPresharedKey(VDS_ISCSI_IPSEC_KEY* pIpsecKey) override;
    // IVdsSubSystemNaming
    HRESULT SetFriendlyName(LPWSTR pwszFriendlyName) override;

    HRESULT Initialize(const VDS_OBJECT_ID* id, CProvider* provider, const SubsystemEntry& entry);
    void Dispose();
    void TearDown() override { Dispose(); }
    // Takes a LUN out of the LUN map (its reference goes with the entry).
    HRESULT DeleteLun(const VDS_OBJECT_ID& id);
    // Marks of LUNs deleted on an offline vdisk, which takes no delete_part: the last LUN of the
    // vdisk to be marked removes the vdisk. A mark carries its vdisk's serial so that the vdisk's
    // marks can go together.
    void MarkLunDeleted(const uint8_t* arraySn, const uint8_t* partitionSn, const VDS_OBJECT_ID& lunId);
    bool IsLunMarkDeleted(const uint8_t* partitionSn) const;
    void ClearMarkDeleted(const uint8_t* arraySn);

    // "Sub " + UniqueSN + " " + UniqueSN: the key of the identity map.
    static std::u16string KeyText(const SubsystemEntry& entry);

    CProvider* Provider() const { return m_pProvider; }
    const VDS_OBJECT_ID& Id() const { return m_prop.id; }
    const WCHAR* FriendlyName() const { return m_prop.pwszFriendlyName; }
    const SubsystemEntry& Entry() const { return m_entry; }
    // The friendly name as last delivered by the array (or set by the host).
    const std::u16string& SysName() const { return m_SysName; }
    // One target serves both controllers (b_SupportULP).
    bool SupportsUlp() const { return b_SupportULP != 0; }
    // The drive type the array allows in a vdisk (1: any), as its record said at the last load.
    uint8_t AllowedDriveType() const { return m_allowedDriveType; }
    // A controller's record offered RAID6 at the last fill.
    bool SupportsRaid6() const { return m_SupportRaid6 != 0; }
    size_t LunCount() const { return m_luns.size(); }
    // Controller handles of A and B as the last load found them (0: none), and the LUN number
    // limit of the array.
    uint32_t HandleA() const { return m_handleA; }
    uint32_t HandleB() const { return m_handleB; }
    uint32_t MaxLuns() const { return m_maxLuns; }
    // The hints of the last create request, read again when a new vdisk's drives are chosen.
    void RememberHints(const VDS_HINTS& hints) { m_lastHints = hints; }
    const VDS_HINTS& LastHints() const { return m_lastHints; }

    // --- What a controller's Initialize enters (the caller holds the notification mutex) ---
    // The facts of one controller's record: ports and channels counted, slots, enclosures, the
    // system's name; the long name only from the first controller that gives one.
    void RecordControllerFacts(const ControllerData& record, const std::u16string& systemName,
                               const std::u16string& longName);
    // True the first time a drive view of (channel, scsiId) is met in this fill, which records it.
    bool FirstViewOfDrive(uint16_t channel, uint16_t scsiId);
    // Each enters an object in its map with a reference of the map's own; an id already there
    // keeps its entry.
    void EnterDrive(const VDS_OBJECT_ID& id, CDrive* drive);
    void EnterLun(const VDS_OBJECT_ID& id, CLun* lun);
    void EnterTarget(const VDS_OBJECT_ID& id, CIscsiTarget* target);
    void EnterPortal(const VDS_OBJECT_ID& id, CIscsiPortal* portal);
    void EnterPortalGroup(const VDS_OBJECT_ID& id, CIscsiPortalGroup* group);

    // --- Reading the maps (the caller holds the notification mutex) ---
    // Calls f(T*) for each object of T's kind, in id order. f must not call what may rebuild the
    // tree (a query's refresh check): the walk is over the map itself.
    template <class T, class F>
    void ForEach(F&& f) const {
        for (const auto& [id, e] : MapOf<T>())
            if (T* o = e.template As<T>()) f(o);
    }
    // The first object of T's kind, in id order, for which pred(T*) holds; null when none.
    template <class T, class P>
    T* FindFirst(P&& pred) const {
        for (const auto& [id, e] : MapOf<T>())
            if (T* o = e.template As<T>(); o && pred(o)) return o;
        return nullptr;
    }
    // An enumerator over the portal groups, in the order of a query.
    HRESULT EnumeratePortalGroups(IEnumVdsObject** ppEnum);

private:
    template <class T>
    const OwningMap& MapOf() const {
        if constexpr (T::kObjectType == VDS_OT_CONTROLLER) return m_controllers;
        else if constexpr (T::kObjectType == VDS_OT_DRIVE) return m_drives;
        else if constexpr (T::kObjectType == VDS_OT_LUN) return m_luns;
        else if constexpr (T::kObjectType == VDS_OT_PORTAL) return m_portals;
        else if constexpr (T::kObjectType == VDS_OT_TARGET) return m_targets;
        else {
            static_assert(T::kObjectType == VDS_OT_PORTAL_GROUP, "no map of this kind in a subsystem");
            return m_portalGroups;
        }
    }
    HRESULT EnumerateMap(const OwningMap& map, IEnumVdsObject** ppEnum);
    // One primordial pool per drive class present (SATA, SAS, SSD).
    void AddPrimordialPools();
    // Lets go of every object of the six maps.
    void ReleaseMaps();

    CProvider* m_pProvider = nullptr;  // counted
    VDS_SUB_SYSTEM_PROP m_prop{};
    SubsystemEntry m_entry{};

    // The array's objects.
    OwningMap m_controllers, m_drives, m_luns, m_portals, m_targets, m_portalGroups;

    // What the controllers' records said in the last fill.
    std::u16string m_SysName;
    std::u16string m_identString;
    std::vector<std::pair<uint16_t, uint16_t>> m_driveSeen;  // (channel, scsiId) of each view met
    uint16_t m_portCount = 0;
    uint16_t m_maxSlots = 0;
    uint32_t m_enclosureCount = 0;
    uint16_t m_enclosureDrives = 0;
    uint8_t m_allowedDriveType = 0;
    uint16_t m_SupportRaid6 = 0;
    uint8_t b_SupportULP = 0;
    uint32_t m_handleA = 0, m_handleB = 0;
    uint32_t m_maxLuns = 0;
    uint8_t m_hostBusType = 0;
    VDS_HINTS m_lastHints{};
    struct DeleteMark {
        std::array<uint8_t, 32> arraySn, partitionSn;
        VDS_OBJECT_ID lunId;
    };
    std::vector<DeleteMark> m_deleteMarks;
};
