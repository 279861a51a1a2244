// CPool: a storage pool, read-only. A concrete pool stands for one vdisk (its RAID level, health
// and free space); a primordial pool for all drives of one class in a subsystem. Every value is
// worked out when the pool is initialised; a refresh initialises it again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"

class CProvider;
class CSubSystem;
class CDrive;

// The drive classes, from the array's raw drive-type codes.
constexpr uint8_t kClassUnknown = 0, kClassFc = 2, kClassSata = 3, kClassSas = 4, kClassSsd = 7;
uint8_t DriveClassOf(uint8_t rawType);
const char* DriveClassLabel(uint8_t driveClass);
// The bus a primordial pool of the class names, and the bus of a concrete pool by raw code (an
// SSD pool says SAS as a primordial pool, and SATA for the odd raw codes as a concrete one).
VDS_STORAGE_BUS_TYPE PrimordialBusType(uint8_t driveClass);
VDS_STORAGE_BUS_TYPE ConcreteBusType(uint8_t rawType);
VDS_RAID_TYPE RaidTypeOf(uint8_t raidLevel);
// Status and health of a vdisk pool by the vdisk's health, utility and RAID level.
void VdiskPoolState(uint8_t health, uint8_t utilityRunning, uint8_t raidLevel, VDS_STORAGE_POOL_STATUS* status,
                    VDS_HEALTH* poolHealth);
// Whether pools exist at all: a host of the win7 kind and Options bit 18 clear.
bool PoolsEnabled();

class CPool : public CComObjectRootEx, public CVdsBase, public IVdsStoragePool {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_STORAGE_POOL;

    CPool();
    ~CPool() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsStoragePool
    HRESULT GetProvider(IVdsProvider** ppProvider) override;
    HRESULT GetProperties(VDS_STORAGE_POOL_PROP* pStoragePoolProp) override;
    HRESULT GetAttributes(VDS_POOL_ATTRIBUTES* pStoragePoolAttributes) override;
    HRESULT QueryDriveExtents(VDS_STORAGE_POOL_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) override;
    HRESULT QueryAllocatedLuns(IEnumVdsObject** ppEnum) override;
    HRESULT QueryAllocatedStoragePools(IEnumVdsObject** ppEnum) override;

    // `vdisk` null: a primordial pool of `driveClass`.
    void Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, const ArrayData* vdisk,
                    uint8_t driveClass);
    void Dispose();
    void TearDown() override { Dispose(); }

    // The key texts: "%s Drives (%S)" and "Vdisk Pool %.32S (%S)".
    static std::u16string PrimordialKey(uint8_t driveClass, const std::u16string& subsystemName);
    static std::u16string VdiskKey(const ArrayData& vdisk, const std::u16string& subsystemName);

    // The GUIDs of the pool's drives (for LUN creation in a pool).
    void DriveIds(std::vector<VDS_OBJECT_ID>* ids, bool skipSpares, bool onlyFree) const;
    // The LUN type a LUN in this concrete pool has.
    VDS_LUN_TYPE vdsLunType() const;

    SortKey GetSortKey() const override { return {static_cast<int64_t>(m_vdisk.arrayOrderWord), 0, {}}; }
    const VDS_STORAGE_POOL_PROP& Prop() const { return m_prop; }
    const VDS_POOL_ATTRIBUTES& Attributes() const { return m_attr; }
    bool IsConcrete() const { return m_prop.type == VDS_SPT_CONCRETE; }
    CSubSystem* SubSystem() const { return m_pSub; }
    uint8_t DriveClass() const { return m_driveClass; }

private:
    void InitPrimordialPool(uint8_t driveClass);
    void InitVdiskPool(const ArrayData& vdisk);
    // The drive belongs to the pool: by class (primordial) or by vdisk (concrete).
    bool HoldsDrive(const CDrive& d) const;
    void Dump() const;

    CProvider* m_pProv = nullptr;  // counted
    CSubSystem* m_pSub = nullptr;  // counted
    VDS_STORAGE_POOL_PROP m_prop{};
    VDS_POOL_ATTRIBUTES m_attr{};
    uint8_t m_driveClass = 0;
    ArrayData m_vdisk{};
};
