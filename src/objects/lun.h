// CLun: one volume (a partition of a vdisk) as the host sees it, or the dummy volume that stands
// for a vdisk without partitions; CLunPlex: one plex of a LUN (a mirror has two).
//
// Both hold a snapshot of what the array said when they were built; a refresh builds them again
// and finds each under its old id through its key text (the LUN's serial text, and that text
// with " Plex" or " Plex2" for the plexes).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "core/registry.h"
#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"
#include "proxy/wire.h"

class CProvider;
class CSubSystem;
class CController;
class CLun;

// The LUN type of a vdisk by its RAID level; the newer types only on a host of the win7 kind.
VDS_LUN_TYPE VdsTypeFromArray(const ArrayData& array, bool win7);
bool IsParityType(int type);
// Status, health and transition state of a LUN by its vdisk's state (before the plex rule).
void LunStateFromArray(const ArrayData& array, VDS_LUN_TYPE type, VDS_LUN_STATUS* status, VDS_HEALTH* health,
                       VDS_TRANSITION_STATE* transition);
// The RAID level the host reads in sRebuildPriority: 16 RAID6, 15 RAID50, 14 RAID3, else 0.
SHORT RaidCarrier(uint8_t raidLevel);
// The plex type of a LUN type (13: simple for a two-member mirror, stripe otherwise).
VDS_LUN_PLEX_TYPE PlexTypeFor(VDS_LUN_TYPE lunType, uint32_t members);

// The 16-byte disk serial made from a partition serial, as text: two digits per byte (New) or as
// few as the value needs (Old).
std::string DiskSnFromPartitionSnNew(const uint8_t* partSn);
std::string DiskSnFromPartitionSnOld(const uint8_t* partSn);

// The process-wide generated names: "VDS_VDISK_%d", "VDS_LUN_%d", "VDS_SP_LUN_%d", ... The list
// is filled from the array on first use and never cleared; the callers hold the notification
// mutex. With `nameToForget` the name leaves the list and the result is empty.
std::string NewName(const SubsystemEntry& entry, bool isVdisk, uint8_t specialType,
                    const char* nameToForget = nullptr);
void ResetNewNamesForTest();

class CLunPlex : public CComObjectRootEx, public CVdsBase, public IVdsLunPlex {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_LUN_PLEX;

    CLunPlex();
    ~CLunPlex() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsLunPlex
    HRESULT GetProperties(VDS_LUN_PLEX_PROP* pPlexProp) override;
    HRESULT GetLun(IVdsLun** ppLun) override;
    HRESULT QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) override;
    HRESULT QueryHints(VDS_HINTS* pHints) override;
    HRESULT ApplyHints(VDS_HINTS* pHints) override;

    // `mirrorHalf`: a plex of a mirror; `firstHalf`: the first of the two.
    void Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CLun* lun, bool mirrorHalf,
                    bool firstHalf);
    void Dispose();
    void TearDown() override { Dispose(); }

    const VDS_LUN_PLEX_PROP& Prop() const { return m_prop; }
    bool IsMirrorHalf() const { return m_isMirrorHalf; }
    bool IsFirstHalf() const { return m_isFirstHalf; }

private:
    // A drive of this plex: a member of the LUN's vdisk holding a slot in it, of this half.
    bool HoldsDrive(const class CDrive& d) const;

    CProvider* m_pProvider = nullptr;    // counted
    CSubSystem* m_pSubSystem = nullptr;  // counted
    CLun* m_pLun = nullptr;              // counted
    VDS_LUN_PLEX_PROP m_prop{};
    bool m_isMirrorHalf = false;
    bool m_isFirstHalf = false;
};

class CLun : public CComObjectRootEx,
             public CVdsBase,
             public IVdsLun,
             public IVdsLun2,
             public IVdsLunNaming,
             public IVdsLunIscsi,
             public IVdsLunControllerPorts {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_LUN;
    static constexpr size_t kMaxNameChars = 20;

    CLun();
    ~CLun() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsLun
    HRESULT GetProperties(VDS_LUN_PROP* pLunProp) override;
    HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) override;
    HRESULT GetIdentificationData(VDS_LUN_INFORMATION* pLunInfo) override;
    HRESULT QueryActiveControllers(IEnumVdsObject** ppEnum) override;
    HRESULT Extend(ULONGLONG ullNumberOfBytesToAdd, VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                   IVdsAsync** ppAsync) override;
    HRESULT Shrink(ULONGLONG ullNumberOfBytesToRemove, IVdsAsync** ppAsync) override;
    HRESULT QueryPlexes(IEnumVdsObject** ppEnum) override;
    HRESULT AddPlex(VDS_OBJECT_ID lunId, IVdsAsync** ppAsync) override;
    HRESULT RemovePlex(VDS_OBJECT_ID plexId, IVdsAsync** ppAsync) override;
    HRESULT Recover(IVdsAsync** ppAsync) override;
    HRESULT SetMask(LPWSTR pwszUnmaskingList) override;
    HRESULT Delete() override;
    HRESULT AssociateControllers(VDS_OBJECT_ID* pActiveControllerIdArray, LONG lNumberOfActiveControllers,
                                 VDS_OBJECT_ID* pInactiveControllerIdArray, LONG lNumberOfInactiveControllers) override;
    HRESULT QueryHints(VDS_HINTS* pHints) override;
    HRESULT ApplyHints(VDS_HINTS* pHints) override;
    HRESULT SetStatus(VDS_LUN_STATUS status) override;
    HRESULT QueryMaxLunExtendSize(VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                                  ULONGLONG* pullMaxBytesToBeAdded) override;
    // IVdsLun2
    HRESULT QueryHints2(VDS_HINTS2* pHints2) override;
    HRESULT ApplyHints2(VDS_HINTS2* pHints2) override;
    // IVdsLunNaming
    HRESULT SetFriendlyName(LPWSTR pwszFriendlyName) override;
    // IVdsLunIscsi
    HRESULT AssociateTargets(VDS_OBJECT_ID* pTargetIdArray, LONG lNumberOfTargets) override;
    HRESULT QueryAssociatedTargets(IEnumVdsObject** ppEnum) override;
    // IVdsLunControllerPorts
    HRESULT AssociateControllerPorts(VDS_OBJECT_ID* pActiveControllerPortIdArray, LONG lNumberOfActiveControllerPorts,
                                     VDS_OBJECT_ID* pInactiveControllerPortIdArray,
                                     LONG lNumberOfInactiveControllerPorts) override;
    HRESULT QueryActiveControllerPorts(IEnumVdsObject** ppEnum) override;

    // `partition` null: the dummy volume of a vdisk without partitions.
    void Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                    const ArrayData* array, const PartitionData* partition);
    void Dispose();
    void TearDown() override;
    // Enters a plex in the plex map; the same plex again (found by its key text) is kept once.
    HRESULT AddPlexToMap(CLunPlex* plex);
    void DumpMySelf() const;
    // Whether a change may be asked of the LUN in its present state.
    bool CanOperate() const;

    // Host paths (defined in host/lun_paths.cpp): from host-side facts to the id of the
    // controller port a path reaches; the zero GUID when none does.
    VDS_OBJECT_ID GetPathInfo(uint32_t portNumber, uint32_t targetId);
    VDS_OBJECT_ID GetCtrlPortIdByPortWWN(CSubSystem* subsystem, const char* identification);
    VDS_OBJECT_ID GetCtrlPortIdByTargetPortIdentifier(uint32_t id, bool isULP);
    VDS_OBJECT_ID GetCtrlPortIdByTargetPortIdentifier(const uint8_t wwn[8]);
    void requestWmiUpdate();
    void refreshWmiIfRequested();
    uint32_t WmiUpdateCookie() const { return m_wmiUpdateCookie; }

    // The key text of a LUN: 26 hexadecimal digits of its partition serial, or 32 of its vdisk's
    // serial for the dummy volume.
    static std::u16string KeyText(const ArrayData& array, const PartitionData* partition);

    SortKey GetSortKey() const override;
    const uint8_t* ArraySerial() const override { return m_ArraySn; }
    int OwnerId() const override { return m_Owner; }
    bool DriveShare(VDS_OBJECT_ID* id, uint64_t* usedSize, uint64_t* lunSize) override;

    const VDS_LUN_PROP& Prop() const { return m_prop; }
    const VDS_OBJECT_ID& Id() const { return m_prop.id; }
    uint8_t Owner() const { return m_Owner; }
    bool IsDummy() const { return m_isDummy; }
    uint8_t SpecialType() const { return m_specialType; }
    uint8_t RaidLevel() const { return m_RaidLevel; }
    uint32_t MemberAmount() const { return m_memberCount; }
    uint32_t StripeSize() const { return m_stripeSize; }
    uint32_t UnitNumber() const { return m_unitNumber; }
    uint32_t PercentOfVdisk() const { return m_percentOfVdisk; }
    const uint8_t* PartitionSerial() const { return m_partitionSn; }
    // The LUN's key text (KeyText), from which its plexes' key texts are made.
    const std::u16string& SerialText() const { return m_lunSn; }
    const uint8_t* CacheParamBytes() const { return m_cacheParams; }
    // An empty unmasking list: no host may see the LUN.
    bool HasUnmaskingList() const { return m_prop.pwszUnmaskingList && m_prop.pwszUnmaskingList[0] != 0; }
    CSubSystem* SubSystem() const { return m_pSubSystem; }
    CController* Controller() const { return m_pController; }

private:
    void ReadUnmaskingList(const PartitionData& partition);
    CLunPlex* MakePlex(bool second);
    HRESULT NotSupported(const char* method);

    CProvider* m_pProvider = nullptr;        // counted
    CSubSystem* m_pSubSystem = nullptr;      // counted
    CController* m_pController = nullptr;    // counted
    OwningMap m_mapPlexes;
    VDS_LUN_PROP m_prop{};
    std::u16string m_lunSn;
    uint32_t m_percentOfVdisk = 100;
    uint8_t m_Owner = 3;
    uint8_t m_partitionSn[32]{};
    uint8_t m_ArraySn[32]{};
    uint32_t m_unitNumber = 0;
    uint8_t m_cacheParams[32]{};
    uint32_t m_stripeSize = 0;
    uint32_t m_memberCount = 0;
    uint64_t m_minDriveSize = 0;
    uint8_t m_driveType = 0;
    uint8_t m_RaidLevel = 0;
    uint8_t m_numDrivesPerLowLevelArray = 0;
    uint8_t m_utilityRunning = 0;
    uint8_t m_specialType = 0;
    uint32_t m_wmiUpdateCookie = 0;
    // Atomic: SetFriendlyName tests it before it takes the notification mutex, while a refresh
    // under that mutex may be building the LUN again.
    std::atomic<bool> m_isDummy{false};
};
