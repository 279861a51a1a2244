// CLun: one volume (a partition of a vdisk) as the host sees it, or the dummy volume that stands
// for a vdisk without partitions. Its plexes are CLunPlex (lun/lunplex.h).
//
// A LUN holds a snapshot of what the array said when it was built; a refresh builds it again and
// finds it under its old id through its key text (the LUN's serial text; its plexes use that text
// with " Plex" or " Plex2"). A new LUN is made on the array by CreateAndInitialize
// (lun/array_creation.cpp), which a request judged by CSubSystem::CreateLun (lun/creation.cpp)
// calls; its size answers are in lun/capacity.cpp.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "core/registry.h"
#include "core/vds_base.h"
#include "lun/lunplex.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"
#include "proxy/wire.h"

class CProvider;
class CSubSystem;
class CController;
class CLun;
struct DriveLists;

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

    // --- Creation (lun/array_creation.cpp); the caller holds the notification mutex ---
    // The RAID level CSubSystem::CreateLun settled, read by the creation below.
    void SetRequestedRaidLevel(uint8_t raid) { m_requestedRaidLevel = raid; }
    uint8_t RequestedRaidLevel() const { return m_requestedRaidLevel; }
    // Makes the LUN on the array (a partition of an old vdisk, or a new vdisk and its partition)
    // and builds this object from the array's answer. `type` and the drives are settled by the
    // caller; a size of 0 is all that fits. Nothing the array has done is undone on a failure.
    HRESULT CreateAndInitialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                                VDS_LUN_TYPE type, ULONGLONG ullSize, const VDS_OBJECT_ID* pDriveIdArray,
                                LONG lNumberOfDrives, ULONG ulStripeSize, const VDS_HINTS& hints);
    // First fit over controllers and vdisks. S_OK with newArray zeroed: no vdisk took it.
    HRESULT CreateLunByAddPartition(VDS_LUN_TYPE type, ULONGLONG size, LONG nDrives, ULONG stripe,
                                    const DriveLists& drives, const VDS_HINTS& hints, ArrayData* newArray,
                                    PartitionData* newPart);
    // A new vdisk (controller A before B) and its partition; `drives` empty: chosen by search.
    HRESULT CreateLunByCreateArray(VDS_LUN_TYPE type, ULONGLONG size, ULONG stripe, DriveLists* drives,
                                   const VDS_HINTS& hints, ArrayData* newArray, PartitionData* newPart);

    // --- Growth (lun/extend.cpp); the caller holds the notification mutex ---
    // Widens the drive lists with free, online drives of at least the lists' average size until
    // the drives' capacity with `ullFreeInVdisk` reaches `ullBytesNeeded`. True when it does.
    bool ReCalcDriveList(uint8_t raid, uint64_t ullBytesNeeded, uint64_t ullFreeInVdisk, DriveLists* lists,
                         uint64_t* ullSizeAllDrives, uint32_t* numDrives);
    HRESULT ExtendLocked(ULONGLONG bytes, const VDS_OBJECT_ID* drives, LONG count, IVdsAsync** ppAsync);
    // The partition's new size after an expand_part; `unconfirmed`: counted as grown after twenty
    // refusals, so the tree is marked stale.
    void GrownTo(ULONGLONG bytes, bool unconfirmed);

    // --- Hints (lun/lun_hints.cpp); the caller holds the notification mutex ---
    // The LUN's VDS_HINTS; `askRelated`: ask the array whether master volumes use this backing
    // store, or whether this master volume has snapshots.
    void FillHints(VDS_HINTS* hints, bool askRelated);
    // Whether the array reports master volumes of this backing store, or snapshots of this master
    // volume; false for other LUNs and when the list cannot be read.
    bool HasMasterVolume();
    // To a master volume (`toMaster`) or back to a standard LUN.
    HRESULT Convert(bool toMaster);

    // --- Deletion (lun/delete.cpp); the caller holds the notification mutex ---
    // The array's half of Delete; *waitForRefresh when the LUN leaves the tree only with the
    // refresh the array's event causes.
    HRESULT DeleteOnArray(bool* waitForRefresh);
    // abort_utility and delete_array of the LUN's vdisk; its member drives become free.
    HRESULT DeleteVdisk(uint32_t handle);
    void FreeMemberDrives();

    // --- Masking (lun/masking.cpp); the caller holds the notification mutex ---
    // SetMask's work after its first checks, with the list as UTF-8.
    HRESULT SetMaskLocked(const std::string& newList);
    HRESULT SetMaskSteps(const std::string& newList, bool* sent);
    // The stored unmaskingList becomes `list`, in a block of its own size.
    void StoreUnmaskingList(const std::string& list);

    // Takes the LUN and its plexes out of the provider's object map (a dummy volume whose vdisk
    // got its first partition).
    void Withdraw();

    // --- Sizes (lun/capacity.cpp) ---
    // The free space of this LUN's vdisk (all free blocks, whole MiB); the named drives, when
    // given, must be exactly its members.
    HRESULT QueryMaxLunSizeCanBeCreate(const VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives, ULONGLONG* pullSize);

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
    uint8_t DriveType() const { return m_driveType; }
    uint64_t MinDriveSize() const { return m_minDriveSize; }
    uint8_t DrivesPerLowLevelArray() const { return m_numDrivesPerLowLevelArray; }

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
    uint8_t m_requestedRaidLevel = 0;
    // Atomic: SetFriendlyName tests it before it takes the notification mutex, while a refresh
    // under that mutex may be building the LUN again.
    std::atomic<bool> m_isDummy{false};
};
