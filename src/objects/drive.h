// CDrive: one physical disk of the array, folded from both controllers' views, addressed on the
// wire by its serial number through the controller it was first seen by.
#pragma once

#include <cstdint>
#include <string>

#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"

class CProvider;
class CSubSystem;
class CController;

// A LUN's share on one member drive, all divisions integer: s the LUN's bytes, n its members, g
// the drives per low-level array; 0 for a snapshot (special type 3).
uint64_t DriveUsedSizeFor(uint64_t s, uint8_t raidLevel, uint32_t n, uint32_t g, uint8_t specialType);

class CDrive : public CComObjectRootEx, public CVdsBase, public IVdsDrive, public IVdsDrive2, public IVdsMaintenance {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_DRIVE;
    static constexpr int kMaxGlobalSpares = 8;

    CDrive();
    ~CDrive() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsDrive
    HRESULT GetProperties(VDS_DRIVE_PROP* pDriveProp) override;
    HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) override;
    HRESULT QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) override;
    HRESULT SetFlags(ULONG ulFlags) override;
    HRESULT ClearFlags(ULONG ulFlags) override;
    HRESULT SetStatus(VDS_DRIVE_STATUS status) override;
    // IVdsDrive2
    HRESULT GetProperties2(VDS_DRIVE_PROP2* pDriveProp2) override;
    // IVdsMaintenance
    HRESULT StartMaintenance(VDS_MAINTENANCE_OPERATION operation) override;
    HRESULT StopMaintenance(VDS_MAINTENANCE_OPERATION operation) override;
    HRESULT PulseMaintenance(VDS_MAINTENANCE_OPERATION operation, ULONG ulCount) override;

    HRESULT Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                       const DriveData* record);
    void Dispose();
    void TearDown() override { ReleaseAll(); }

    // "%s %s s/n %s rev %s id %d.%d (%s)": the friendly name and the key of the identity map.
    static std::u16string MakeDriveName(const DriveData& record);
    // ((raw * ((100 - perMille / 10) * 10)) / 1000), aligned down to 64 KiB, less 16 MiB; unsigned,
    // so a drive of less than 16 MiB wraps as the arithmetic does.
    static uint64_t UsableBytes(uint64_t blocks, uint32_t overheadPerMille);

    // The second view of the drive knows its place in an array: indices, driveBlock, online.
    void TakePositionFrom(const DriveData& record);
    // The drive became a member (or dedicated spare) of a vdisk just made: its vdisk reference,
    // place and use from the owner's record, the owner as its controller; no longer free.
    void InitializeAfterCreate(const DriveData& record, const uint8_t* arraySerial, CController* controller);
    // The drive's vdisk was deleted: unassigned, free, no vdisk reference.
    void InitializeAfterDelete();
    void SetArrayPosition(uint8_t position) { m_arrayPosition = position; }

    SortKey GetSortKey() const override {
        return {static_cast<int64_t>(m_enclosureNumber), static_cast<int64_t>(m_prop.sSlotNumber), {}};
    }

    const VDS_OBJECT_ID& Id() const { return m_prop.id; }
    const WCHAR* FriendlyName() const { return m_prop.pwszFriendlyName; }
    uint64_t Size() const { return m_prop.ullSize; }
    ULONG Flags() const { return m_prop.ulFlags; }
    ULONG Flags2() const { return m_flags2; }
    VDS_DRIVE_STATUS Status() const { return m_prop.status; }
    VDS_HEALTH Health() const { return m_prop.health; }
    uint32_t EnclosureNumber() const { return m_enclosureNumber; }
    SHORT SlotNumber() const { return m_prop.sSlotNumber; }
    uint8_t DriveIndex() const { return m_driveIndex; }
    uint8_t ContainerIndex() const { return m_containerIndex; }
    uint8_t HowUsed() const { return m_howUsed; }
    bool IsFree() const { return m_isFreeDrive != 0; }
    const char* Serial() const { return m_DriveSn; }
    const uint8_t* DriveBlock() const { return m_driveBlock; }
    uint8_t DriveType() const { return m_driveType; }
    uint8_t Channel() const { return m_channel; }
    uint8_t ScsiId() const { return m_scsiId; }
    uint8_t ArrayPosition() const { return m_arrayPosition; }
    CController* Controller() const { return m_pController; }

private:
    uint32_t Handle() const;
    void ReleaseAll();
    // howUsed and useState: the free flag, the hot-spare flag and the drive's second flags.
    void TakeUseFrom(const DriveData& record);

    CProvider* m_pProvider = nullptr;      // counted
    CSubSystem* m_pSubSystem = nullptr;    // counted
    CController* m_pController = nullptr;  // counted
    VDS_DRIVE_PROP m_prop{};
    ULONG m_flags2 = 0;
    uint32_t m_enclosureNumber = 0;
    uint32_t m_busType = 0;
    uint32_t m_spindleSpeed = 0;
    uint8_t m_howUsed = 0;
    uint8_t m_isFreeDrive = 1;
    char m_DriveSn[32]{};
    uint8_t m_driveBlock[12]{};
    uint8_t m_arrayPosition = 0;
    uint8_t m_containerIndex = 0;
    uint8_t m_driveIndex = 0;
    uint8_t m_driveType = 0;
    uint8_t m_scsiId = 0;
    uint8_t m_channel = 0;
    uint8_t m_enclosure = 0;
};
