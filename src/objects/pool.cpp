#include "objects/pool.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/boundary.h"
#include "objects/drive.h"
#include "objects/enumerator.h"
#include "lun/lun.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

namespace {
constexpr ULONGLONG kPrimordialAttributes = 0x1A;
constexpr ULONGLONG kVdiskAttributes = 0x781F;
constexpr ULONG kStripeSizeMax = 0x100000;
constexpr ULONG kStripeSizeMin = 0x4000;
constexpr ULONG kStripeSizeDefault = 0x10000;
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

std::u16string Narrowed32(const char* field, size_t width) {
    std::u16string s = WidenField(field, width);
    if (s.size() > 32) s.resize(32);
    return s;
}

void SetString(LPWSTR& s, const std::u16string& text) {
    FreeObjectString(s);
    s = NewObjectString(text);
}
}  // namespace

uint8_t DriveClassOf(uint8_t rawType) {
    switch (rawType) {
        case 2: return kClassFc;
        case 3: case 5: return kClassSata;
        case 4: case 6: return kClassSas;
        case 7: case 8: case 9: case 10: return kClassSsd;
        default: return kClassUnknown;
    }
}

const char* DriveClassLabel(uint8_t driveClass) {
    switch (driveClass) {
        case kClassFc: return "FC";
        case kClassSata: return "SATA";
        case kClassSas: return "SAS";
        case kClassSsd: return "SSD";
        default: return "Unknown";
    }
}

VDS_STORAGE_BUS_TYPE PrimordialBusType(uint8_t driveClass) {
    switch (driveClass) {
        case kClassFc: return VDSBusTypeFibre;
        case kClassSata: return VDSBusTypeSata;
        case kClassSas:
        case kClassSsd: return VDSBusTypeSas;
        default: return VDSBusTypeUnknown;
    }
}

VDS_STORAGE_BUS_TYPE ConcreteBusType(uint8_t rawType) {
    switch (rawType) {
        case 2: return VDSBusTypeFibre;
        case 3: case 5: case 7: case 9: return VDSBusTypeSata;
        case 4: case 6: case 8: case 10: return VDSBusTypeSas;
        default: return VDSBusTypeUnknown;
    }
}

VDS_RAID_TYPE RaidTypeOf(uint8_t raidLevel) {
    switch (raidLevel) {
        case 0: return VDS_RT_RAID0;
        case 1: return VDS_RT_RAID1;
        case 2: return VDS_RT_RAID2;
        case 3: return VDS_RT_RAID3;
        case 4: return VDS_RT_RAID4;
        case 5: return VDS_RT_RAID5;
        case 6: return VDS_RT_RAID0;  // a plain concatenation
        case 7: return VDS_RT_RAID30;
        case 8: return VDS_RT_RAID50;
        case 9: return VDS_RT_RAID51;
        case 10: return VDS_RT_RAID10;
        case 11: return VDS_RT_RAID6;
        default: return VDS_RT_UNKNOWN;
    }
}

void VdiskPoolState(uint8_t health, uint8_t utilityRunning, uint8_t raidLevel, VDS_STORAGE_POOL_STATUS* status,
                    VDS_HEALTH* poolHealth) {
    *status = VDS_SPS_ONLINE;
    *poolHealth = VDS_H_HEALTHY;
    if (health == 0 || (health == 2 && raidLevel == TROV_NRAID)) return;
    if (health == 1 || health == 2) {
        bool rebuilding = utilityRunning == 3 || utilityRunning == 4 || utilityRunning == 5;
        *poolHealth = rebuilding ? VDS_H_REBUILDING : VDS_H_DEGRADED;
    } else if (health >= 3 && health <= 6) {
        *status = VDS_SPS_OFFLINE;
        *poolHealth = VDS_H_FAILED;
    } else if (health == 7) {
        *status = VDS_SPS_OFFLINE;
        *poolHealth = VDS_H_UNKNOWN;
    } else {
        *status = VDS_SPS_UNKNOWN;
        *poolHealth = VDS_H_UNKNOWN;
    }
}

bool PoolsEnabled() { return HostIsWin7() && (Options.load() & kOptionPoolsOff) == 0; }

CPool::CPool() : CVdsBase(VDS_OT_STORAGE_POOL) {}

CPool::~CPool() {
    CLockGuard lock("CPool::~CPool", hNotificationMutex);
    if (m_pProv) m_pProv->DropObject(m_prop.id, static_cast<IVdsStoragePool*>(this));
    Dispose();
}

HRESULT CPool::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsStoragePool)
        *ppv = static_cast<IVdsStoragePool*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

std::u16string CPool::PrimordialKey(uint8_t driveClass, const std::u16string& subsystemName) {
    return AsciiToWide(DriveClassLabel(driveClass)) + u" Drives (" + subsystemName + u")";
}

std::u16string CPool::VdiskKey(const ArrayData& vdisk, const std::u16string& subsystemName) {
    return u"Vdisk Pool " + Narrowed32(vdisk.name, sizeof vdisk.name) + u" (" + subsystemName + u")";
}

void CPool::Dispose() {
    for (LPWSTR* s : {&m_prop.pwszName, &m_prop.pwszDescription, &m_attr.pwszIntendedUsage}) {
        if (!*s) DebugTrace("calling CoTaskMemFree() with null pointer\n");
        FreeObjectString(*s);
    }
    if (m_pSub) static_cast<IVdsSubSystem*>(m_pSub)->Release();
    if (m_pProv) static_cast<IVdsProvider*>(m_pProv)->Release();
    m_pSub = nullptr;
    m_pProv = nullptr;
}

void CPool::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, const ArrayData* vdisk,
                       uint8_t driveClass) {
    if (!id || !provider || !subsystem) return;
    static_cast<IVdsProvider*>(provider)->AddRef();
    static_cast<IVdsSubSystem*>(subsystem)->AddRef();
    Dispose();
    m_pProv = provider;
    m_pSub = subsystem;
    std::memset(&m_prop, 0, sizeof m_prop);
    std::memset(&m_attr, 0, sizeof m_attr);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_STORAGE_POOL, static_cast<IVdsStoragePool*>(this)});
    if (vdisk)
        InitVdiskPool(*vdisk);
    else
        InitPrimordialPool(driveClass);
    std::u16string key = m_prop.pwszDescription ? std::u16string(m_prop.pwszDescription, WStrLen(m_prop.pwszDescription))
                                                : std::u16string();
    provider->RememberObject(*id, key, this, static_cast<IVdsStoragePool*>(this));
    Dump();
}

void CPool::InitPrimordialPool(uint8_t driveClass) {
    std::memset(&m_vdisk, 0, sizeof m_vdisk);
    m_driveClass = driveClass;
    const char* label = DriveClassLabel(driveClass);
    SetString(m_prop.pwszName, AsciiToWide(label) + u" Primordial Pool");
    SetString(m_prop.pwszDescription, PrimordialKey(driveClass, m_pSub->SysName()));
    // Constant for a primordial pool, whatever the drives' state.
    m_prop.status = VDS_SPS_ONLINE;
    m_prop.health = VDS_H_HEALTHY;
    m_prop.type = VDS_SPT_PRIMORDIAL;
    uint32_t count = 0;
    uint64_t total = 0, available = 0, smallest = 0;
    m_pSub->ForEach<CDrive>([&](CDrive* d) {
        if (DriveClassOf(d->DriveType()) != driveClass) return;
        ++count;
        total += d->Size();
        if (d->Size() != 0 && (smallest == 0 || d->Size() < smallest)) smallest = d->Size();
        if (d->IsFree() && !(d->Flags() & VDS_DRF_HOTSPARE) && d->Health() == VDS_H_HEALTHY) available += d->Size();
    });
    DebugTrace("%d drives, min=%.1fgb total=%.1fgb avail=%.1fgb\n", static_cast<int>(count), smallest / kGiB,
               total / kGiB, available / kGiB);
    m_prop.ullTotalConsumedSpace = total;
    m_prop.ullTotalManagedSpace = total;
    m_prop.ullRemainingFreeSpace = available;
    m_attr.ullAttributeMask = kPrimordialAttributes;
    m_attr.busType = PrimordialBusType(driveClass);
    SetString(m_attr.pwszIntendedUsage, AsciiToWide(label) + u" storage");
}

void CPool::InitVdiskPool(const ArrayData& vdisk) {
    m_vdisk = vdisk;
    std::u16string name = Narrowed32(vdisk.name, sizeof vdisk.name);
    SetString(m_prop.pwszName, u"Vdisk " + name);
    SetString(m_prop.pwszDescription, VdiskKey(vdisk, m_pSub->SysName()));
    VdiskPoolState(vdisk.health, vdisk.utilityRunning, vdisk.raidLevel, &m_prop.status, &m_prop.health);
    m_prop.type = VDS_SPT_CONCRETE;
    m_prop.ullTotalManagedSpace = vdisk.blockCapacity.value() * 512;
    m_prop.ullRemainingFreeSpace = vdisk.remainingBlocks.value() * 512;
    m_prop.ullTotalConsumedSpace = 0;
    m_attr.ullAttributeMask = kVdiskAttributes;
    m_attr.raidType = RaidTypeOf(vdisk.raidLevel);
    m_driveClass = DriveClassOf(vdisk.driveType);
    m_attr.busType = ConcreteBusType(vdisk.driveType);
    SetString(m_attr.pwszIntendedUsage, name);
    m_attr.bSpinDown = (vdisk.noFreeSegment & 0xFF) != 0;
    m_attr.bIsThinProvisioned = FALSE;
    m_attr.ullProvisionedSpace = 0;
    m_attr.bNoSinglePointOfFailure = m_attr.raidType != VDS_RT_UNKNOWN && m_attr.raidType != VDS_RT_RAID0;
    // As the array gives it, in KiB, beside limits in bytes.
    m_attr.ulStripeSize = vdisk.stripeKiB;
    m_attr.ulStripeSizeMax = kStripeSizeMax;
    m_attr.ulStripeSizeMin = kStripeSizeMin;
    m_attr.ulDefaultStripeSize = kStripeSizeDefault;
}

void CPool::Dump() const {
    DebugTrace("CPool: id %s name %S description %S status %d health %d type %d total 0x%I64x managed 0x%I64x free "
               "0x%I64x\n",
               LogGuid(m_prop.id).c_str(), m_prop.pwszName, m_prop.pwszDescription, static_cast<int>(m_prop.status),
               static_cast<int>(m_prop.health), static_cast<int>(m_prop.type), m_prop.ullTotalConsumedSpace,
               m_prop.ullTotalManagedSpace, m_prop.ullRemainingFreeSpace);
    DebugTrace("CPool: attributes 0x%I64x raid %d bus %d usage %S spindown %d thin %d nospof %d stripe %u max %u min "
               "%u default %u\n",
               m_attr.ullAttributeMask, static_cast<int>(m_attr.raidType), static_cast<int>(m_attr.busType),
               m_attr.pwszIntendedUsage, m_attr.bSpinDown, m_attr.bIsThinProvisioned, m_attr.bNoSinglePointOfFailure,
               m_attr.ulStripeSize, m_attr.ulStripeSizeMax, m_attr.ulStripeSizeMin, m_attr.ulDefaultStripeSize);
}

HRESULT CPool::GetProvider(IVdsProvider** ppProvider) try {
    if (!ppProvider) {
        DebugTrace("CSubSystem::GetProvider ppProvider == NULL, returning E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    if (!m_pProv) return E_UNEXPECTED;
    *ppProvider = static_cast<IVdsProvider*>(m_pProv);
    (*ppProvider)->AddRef();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CPool::GetProperties(VDS_STORAGE_POOL_PROP* pStoragePoolProp) try {
    if (!pStoragePoolProp) return E_POINTER;
    CLockGuard lock("CPool::GetProperties", hNotificationMutex);
    VDS_STORAGE_POOL_PROP p = m_prop;
    HRESULT hr = CopyPropStrings(m_prop.pwszName, m_prop.pwszDescription, &p.pwszName, &p.pwszDescription);
    if (FAILED(hr)) return hr;
    TaskMem<WCHAR> name(p.pwszName), description(p.pwszDescription);
    DebugTrace("CPool::GetProperties() print VDS_STORAGE_POOL_PROP:\n");
    Dump();
    name.release();
    description.release();
    *pStoragePoolProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CPool::GetAttributes(VDS_POOL_ATTRIBUTES* pStoragePoolAttributes) try {
    if (!pStoragePoolAttributes) return E_POINTER;
    VDS_POOL_ATTRIBUTES a = m_attr;
    TaskMem<WCHAR> usage(CopyPropString(m_attr.pwszIntendedUsage));
    if (m_attr.pwszIntendedUsage && !usage) return E_OUTOFMEMORY;
    Dump();
    a.pwszIntendedUsage = usage.release();
    *pStoragePoolAttributes = a;
    return S_OK;
}
TROV_CATCH_OOM

bool CPool::HoldsDrive(const CDrive& d) const {
    if (m_prop.type == VDS_SPT_PRIMORDIAL) return DriveClassOf(d.DriveType()) == m_driveClass;
    if (m_prop.type == VDS_SPT_CONCRETE) return rec::ArrayKeyMatches(d.DriveBlock(), m_vdisk.serialNumber);
    return false;
}

HRESULT CPool::QueryDriveExtents(VDS_STORAGE_POOL_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) try {
    if (!ppExtentArray || !plNumberOfExtents) return E_POINTER;
    CLockGuard lock("CPool::QueryDriveExtents", hNotificationMutex);
    std::vector<VDS_STORAGE_POOL_DRIVE_EXTENT> ext;
    if (m_pSub) {
        m_pSub->ForEach<CDrive>([&](CDrive* d) {
            if (!HoldsDrive(*d)) return;
            VDS_STORAGE_POOL_DRIVE_EXTENT x{};
            x.id = d->Id();
            x.ullSize = d->Size();
            x.bUsed = d->IsFree() && !(d->Flags() & VDS_DRF_HOTSPARE) ? FALSE : TRUE;
            ext.push_back(x);
        });
    }
    *ppExtentArray = nullptr;
    *plNumberOfExtents = 0;
    if (ext.empty()) return S_OK;
    auto* out = static_cast<VDS_STORAGE_POOL_DRIVE_EXTENT*>(
        CoTaskMemAlloc(ext.size() * sizeof(VDS_STORAGE_POOL_DRIVE_EXTENT)));
    if (!out) return E_OUTOFMEMORY;
    std::memcpy(out, ext.data(), ext.size() * sizeof(VDS_STORAGE_POOL_DRIVE_EXTENT));
    *ppExtentArray = out;
    *plNumberOfExtents = static_cast<LONG>(ext.size());
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CPool::QueryAllocatedLuns(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CPool::QueryAllocatedLuns", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    if (m_pSub) {
        m_pSub->ForEach<CLun>([&](CLun* lun) {
            DebugTrace("Checking SN for LUN %S\n", lun->Prop().pwszFriendlyName);
            if (std::memcmp(lun->ArraySerial(), m_vdisk.serialNumber, sizeof m_vdisk.serialNumber) != 0) return;
            DebugTrace("LUN %S matches\n", lun->Prop().pwszFriendlyName);
            out->Append(static_cast<IVdsLun*>(lun));
        });
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CPool::QueryAllocatedStoragePools(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CPool::QueryAllocatedStoragePools", hNotificationMutex);
    if (!m_pProv) return E_UNEXPECTED;
    // Every pool of the provider, this one included: no filter by parent.
    HRESULT hr = QueryObjects(m_pProv, m_pProv->PoolMap(), ppEnum);
    if (FAILED(hr)) return hr;
    for (const auto& [pid, e] : m_pProv->PoolMap())
        if (auto* p = e.As<CPool>()) DebugTrace("  Returning pool \"%S\"\n", p->m_prop.pwszName);
    (*ppEnum)->Reset();
    return S_OK;
}
TROV_CATCH_OOM

void CPool::DriveIds(std::vector<VDS_OBJECT_ID>* ids, bool skipSpares, bool onlyFree) const {
    ids->clear();
    int spares = 0, unfit = 0;
    if (m_pSub) {
        m_pSub->ForEach<CDrive>([&](CDrive* d) {
            if (!HoldsDrive(*d)) return;
            bool spare = d->HowUsed() == TROV_HOWUSED_POOL_SPARE;
            if (m_prop.type == VDS_SPT_PRIMORDIAL) {
                if (spare && skipSpares) {
                    ++spares;
                } else if (onlyFree && (!d->IsFree() || (d->Flags() & VDS_DRF_HOTSPARE) ||
                                        d->Health() != VDS_H_HEALTHY)) {
                    ++unfit;
                } else {
                    ids->push_back(d->Id());
                }
            } else if (spare && skipSpares) {
                ++spares;
            } else {
                ids->push_back(d->Id());
            }
        });
    }
    if (skipSpares || onlyFree)
        DebugTrace("CPool::DriveIds returning %d drives (skipped %d spares, %d assigned or unhealthy drives)\n",
                   static_cast<int>(ids->size()), spares, unfit);
    else
        DebugTrace("CPool::DriveIds returning %d drives\n", static_cast<int>(ids->size()));
}

VDS_LUN_TYPE CPool::vdsLunType() const {
    if (m_prop.type != VDS_SPT_CONCRETE) {
        DebugTrace("CPool::vdsLunType(): ERROR: called on non-concrete pool\n");
        return VDS_LT_DEFAULT;
    }
    bool win7 = HostIsWin7();
    VDS_LUN_TYPE t;
    switch (m_vdisk.raidLevel) {
        case 0: t = VDS_LT_STRIPE; break;
        case 1: t = VDS_LT_MIRROR; break;
        case 3: t = win7 ? VDS_LT_RAID3 : VDS_LT_PARITY; break;
        case 5: t = win7 ? VDS_LT_RAID5 : VDS_LT_PARITY; break;
        case 6: t = m_vdisk.numDrives == 1 ? VDS_LT_SIMPLE : VDS_LT_SPAN; break;
        case 7: t = win7 ? VDS_LT_RAID30 : VDS_LT_PARITY; break;
        case 8: t = win7 ? VDS_LT_RAID50 : VDS_LT_PARITY; break;
        case 10: t = win7 ? VDS_LT_RAID10 : VDS_LT_MIRROR; break;
        case 11: t = win7 ? VDS_LT_RAID6 : VDS_LT_PARITY; break;
        default: t = VDS_LT_UNKNOWN; break;
    }
    DebugTrace("CPool::vdsLunType(): vdisk.raidLevel=%d => VDS_LUN_TYPE=%d\n", m_vdisk.raidLevel, static_cast<int>(t));
    return t;
}
