#include "objects/drive.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {
constexpr uint64_t kReservedBytes = 0x1000000;  // 16 MiB held back on every drive
constexpr uint32_t kPulseStepMs = 1000;

std::string TypeText(uint8_t type, bool log) {
    switch (type) {
        case TROV_DRIVE_FC: return "FC";
        case TROV_DRIVE_SATA: return "SATA";
        case TROV_DRIVE_SAS: return "SAS";
        default: {
            char b[8];
            std::snprintf(b, sizeof b, "0x%x", type);
            if (log) {
                std::u16string w = AsciiToWide(b);
                DebugTrace("MakeDriveName: unknown drive type %ls\n", w.c_str());
            }
            return b;
        }
    }
}

// Health and status of a drive the array left over, by why it went down.
void LeftoverState(uint8_t downReason, VDS_HEALTH* health, VDS_DRIVE_STATUS* status) {
    *status = VDS_DRS_OFFLINE;
    switch (downReason) {
        case 0: case 5: case 6: *health = VDS_H_HEALTHY; break;
        case 1: case 2: *health = VDS_H_FAILING; break;
        case 3: case 4: *health = VDS_H_FAILED; *status = VDS_DRS_FAILED; break;
        default: *health = VDS_H_UNKNOWN; break;
    }
}
}  // namespace

uint64_t DriveUsedSizeFor(uint64_t s, uint8_t raidLevel, uint32_t n, uint32_t g, uint8_t specialType) {
    if (specialType == TROV_PART_SNAPSHOT) return 0;
    switch (raidLevel) {
        case TROV_RAID3:
        case TROV_RAID5: return n < 2 ? 0 : s / (n - 1);
        case TROV_NRAID: return s;
        case TROV_RAID30:
        case TROV_RAID50: {
            // Undefined for fewer than two drives per leg; 0 rather than a division by zero.
            uint64_t d = g ? static_cast<uint64_t>(n / g) * (g - 1) : 0;
            return d ? s / d : 0;
        }
        case TROV_RAID10: return n < 2 ? 0 : s / (n / 2);
        case TROV_RAID6: return n <= 2 ? 0 : s / (n - 2);
        default: return n ? s / n : 0;
    }
}

CDrive::CDrive() : CVdsBase(VDS_OT_DRIVE) {}

CDrive::~CDrive() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsDrive*>(this));
    ReleaseAll();
}

HRESULT CDrive::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsDrive)
        *ppv = static_cast<IVdsDrive*>(this);
    else if (riid == IID_IVdsDrive2)
        *ppv = static_cast<IVdsDrive2*>(this);
    else if (riid == IID_IVdsMaintenance)
        *ppv = static_cast<IVdsMaintenance*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

void CDrive::ReleaseAll() {
    FreeObjectString(m_prop.pwszFriendlyName);
    FreeObjectString(m_prop.pwszIdentification);
    ReleaseParents(&m_pProvider, &m_pSubSystem, &m_pController);
}

void CDrive::Dispose() {
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    ReleaseAll();
}

std::u16string CDrive::MakeDriveName(const DriveData& d) {
    std::string type = TypeText(d.type, true);
    std::string vendor = TrimRight(FieldText(d.vendor, sizeof d.vendor));
    std::string product = TrimRight(FieldText(d.product, sizeof d.product));
    std::string revision = TrimRight(FieldText(d.revision, sizeof d.revision));
    std::string serial = TrimRight(FieldText(d.serialNumber, sizeof d.serialNumber));
    char b[200];
    std::snprintf(b, sizeof b, "%s %s s/n %s rev %s id %d.%d (%s)", vendor.c_str(), product.c_str(), serial.c_str(),
                  revision.c_str(), d.channel, d.scsiId, type.c_str());
    return AsciiToWide(b);
}

uint64_t CDrive::UsableBytes(uint64_t blocks, uint32_t overheadPerMille) {
    uint64_t raw = blocks * TROV_BLOCK_SIZE;
    // The overhead counts in steps of ten per mille.
    uint64_t keep = static_cast<uint64_t>(100 - overheadPerMille / 10) * 10;
    uint64_t size = (raw * keep) / 1000;
    size &= ~static_cast<uint64_t>(0xFFFF);
    return size - kReservedBytes;
}

uint32_t CDrive::Handle() const { return m_pController ? m_pController->Handle() : 0; }

HRESULT CDrive::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem,
                           CController* controller, const DriveData* record) {
    InitializeCounter counter;
    if (!id || !provider || !subsystem || !record) return E_POINTER;
    ReleaseAll();
    std::memset(&m_prop, 0, sizeof m_prop);
    HoldParents(provider, subsystem, controller, &m_pProvider, &m_pSubSystem, &m_pController);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_DRIVE, static_cast<IVdsDrive*>(this)});

    const DriveData& d = *record;
    std::u16string name = MakeDriveName(d);
    m_prop.pwszFriendlyName = NewObjectString(name);
    m_prop.pwszIdentification = NewObjectString(WidenField(d.serialNumber, sizeof d.serialNumber));

    m_prop.ullSize = UsableBytes(d.blockCount(), controller ? controller->OverheadPerMille() : 0);

    m_prop.ulFlags = 0;
    m_driveIndex = d.driveIndex;
    m_containerIndex = d.containerIndex;
    if (m_driveIndex == TROV_NO_INDEX && m_containerIndex == TROV_NO_INDEX) {
        m_prop.status = VDS_DRS_FAILED;
        m_prop.health = VDS_H_FAILED;
    } else {
        m_prop.status = VDS_DRS_ONLINE;
        m_prop.health = VDS_H_HEALTHY;
    }
    if (d.howUsed == TROV_HOWUSED_LEFTOVER) LeftoverState(d.downReason, &m_prop.health, &m_prop.status);
    if (d.howUsed == TROV_HOWUSED_FAILED) {
        m_prop.status = VDS_DRS_FAILED;
        m_prop.health = VDS_H_FAILED;
    }

    m_prop.sInternalBusNumber = d.enclosureNumber;
    m_enclosureNumber = d.enclosureNumber;
    m_prop.sSlotNumber = d.slotNumber;
    if (d.type == TROV_DRIVE_FC)
        m_busType = VDSBusTypeFibre;
    else if (rec::IsSataFamily(d.type))
        m_busType = VDSBusTypeSata;
    else if (rec::IsSasFamily(d.type))
        m_busType = VDSBusTypeSas;
    else
        m_busType = VDSBusTypeUnknown;
    m_spindleSpeed = rec::IsSolidState(d.type) ? 1 : static_cast<uint32_t>(d.spindleSpeed) * 1000;

    m_scsiId = d.scsiId;
    m_channel = d.channel;
    m_enclosure = d.enclosureNumber;
    m_arrayPosition = d.arrayPosition;
    std::memcpy(m_DriveSn, d.serialNumber, sizeof m_DriveSn);
    TakeUseFrom(d);
    std::memcpy(m_driveBlock, d.driveBlock(), sizeof m_driveBlock);
    provider->RememberObject(*id, name, this, static_cast<IVdsDrive*>(this));
    m_driveType = d.type;
    const char* word = rec::HowUsedWord(d.howUsed);
    DebugTrace("CDrive::Initialize() pDriveData info :\n howUsed = %d (%s), channel = %d, blinking = %d, lun = %d, "
               "scsiId = %d, slotNumber = %d, enclosureNumber = %d, realBlockCount %u<<32+%u=%I64u, "
               "usableBytes=%I64u, downReason=%d, status=%s\n",
               d.howUsed, m_isFreeDrive ? "FREE" : "not free", d.channel, d.blinking, d.lun, d.scsiId, d.slotNumber,
               d.enclosureNumber, d.realBlockCountHigh, d.realBlockCount, d.blockCount(), m_prop.ullSize,
               d.downReason, word ? word : "unknown");
    return S_OK;
}

void CDrive::TakeUseFrom(const DriveData& d) {
    m_howUsed = d.howUsed;
    m_isFreeDrive = 1;
    m_flags2 = 0;
    switch (d.howUsed) {
        case TROV_HOWUSED_AVAILABLE: m_flags2 = VDS_DRF_UNASSIGNED; break;
        case TROV_HOWUSED_MEMBER: m_isFreeDrive = 0; m_flags2 = VDS_DRF_ASSIGNED; break;
        case TROV_HOWUSED_DEDICATED_SPARE:
            m_isFreeDrive = 0;
            m_prop.ulFlags = VDS_DRF_HOTSPARE;
            m_flags2 = 0x13;
            break;
        case TROV_HOWUSED_POOL_SPARE:
            m_isFreeDrive = 0;
            m_prop.ulFlags = VDS_DRF_HOTSPARE;
            m_flags2 = 0x15;
            break;
        case TROV_HOWUSED_LEFTOVER: m_flags2 = VDS_DRF_UNASSIGNED; break;
        default: break;
    }
    if (d.useState == 3) {  // taken into an array's service
        m_isFreeDrive = 0;
        m_prop.ulFlags = 0;
        if (!(m_flags2 & VDS_DRF_HOTSPARE)) {
            m_flags2 |= VDS_DRF_ASSIGNED;
        } else {
            m_flags2 &= ~static_cast<ULONG>(VDS_DRF_UNASSIGNED | VDS_DRF_HOTSPARE_STANDBY);
            m_flags2 |= VDS_DRF_ASSIGNED | VDS_DRF_HOTSPARE_IN_USE;
        }
    }
}

void CDrive::InitializeAfterCreate(const DriveData& record, const uint8_t* arraySerial, CController* controller) {
    if (controller != m_pController) {
        if (controller) static_cast<IVdsController*>(controller)->AddRef();
        if (m_pController) static_cast<IVdsController*>(m_pController)->Release();
        m_pController = controller;
    }
    TakeUseFrom(record);
    m_isFreeDrive = 0;
    rec::ArrayKeyFromSerial(arraySerial, m_driveBlock);
    m_driveIndex = record.driveIndex;
    m_containerIndex = record.containerIndex;
    m_arrayPosition = record.arrayPosition;
}

void CDrive::InitializeAfterDelete() {
    m_prop.ulFlags = 0;
    m_flags2 = VDS_DRF_UNASSIGNED;
    if (HostIsWin7()) m_prop.ulFlags = VDS_DRF_UNASSIGNED;
    m_isFreeDrive = 1;
    m_howUsed = TROV_HOWUSED_AVAILABLE;
    // The vdisk reference and the place in the vdisk go with it.
    std::memset(m_driveBlock, 0, sizeof m_driveBlock);
    m_arrayPosition = 0;
}

void CDrive::TakePositionFrom(const DriveData& d) {
    m_driveIndex = d.driveIndex;
    m_containerIndex = d.containerIndex;
    m_prop.status = VDS_DRS_ONLINE;
    m_prop.health = VDS_H_HEALTHY;
    std::memcpy(m_driveBlock, d.driveBlock(), sizeof m_driveBlock);
}

HRESULT CDrive::GetProperties(VDS_DRIVE_PROP* pDriveProp) try {
    if (!pDriveProp) return E_POINTER;
    CLockGuard lock("CDrive::GetProperties", hNotificationMutex);
    VDS_DRIVE_PROP p = m_prop;
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) {
        DebugTrace("OOP!! CDrive::GetProperties() out of memory, line = %d\n", __LINE__);
        return hr;
    }
    *pDriveProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::GetProperties2(VDS_DRIVE_PROP2* pDriveProp2) try {
    if (!pDriveProp2) return E_POINTER;
    CLockGuard lock("CDrive::GetProperties2", hNotificationMutex);
    VDS_DRIVE_PROP2 p{};
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) {
        DebugTrace("OOP!! CDrive::GetProperties() out of memory, line = %d\n", __LINE__);
        return hr;
    }
    p.id = m_prop.id;
    p.ullSize = m_prop.ullSize;
    p.ulFlags = m_flags2;
    p.status = m_prop.status;
    p.health = m_prop.health;
    p.sInternalBusNumber = m_prop.sInternalBusNumber;
    p.sSlotNumber = m_prop.sSlotNumber;
    p.ulEnclosureNumber = m_enclosureNumber;
    p.busType = static_cast<VDS_STORAGE_BUS_TYPE>(m_busType);
    p.ulSpindleSpeed = m_spindleSpeed;
    *pDriveProp2 = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::GetSubSystem(IVdsSubSystem** ppSubSystem) try {
    if (!ppSubSystem) return E_POINTER;
    CLockGuard lock("CDrive::GetSubSystem", hNotificationMutex);
    return HandOutSubSystem(m_pSubSystem, ppSubSystem);
}
TROV_CATCH_OOM

HRESULT CDrive::SetStatus(VDS_DRIVE_STATUS) try {
    DebugTrace("CDrive::SetStatus() returning VDS_E_NOT_SUPPORTED\n");
    return VDS_E_NOT_SUPPORTED;
}
TROV_CATCH_OOM

HRESULT CDrive::SetFlags(ULONG ulFlags) try {
    CLockGuard lock("CDrive::SetFlags", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (m_howUsed == TROV_HOWUSED_POOL_SPARE) {
        DebugTrace("OOP!!! CDrive::SetFlags Input drive is spare drive, return VDS_E_NOT_SUPPORTED, line %d\n",
                   __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (ulFlags > 1) return E_INVALIDARG;
    if (!m_isFreeDrive) {
        DebugTrace("OOP!!! CDrive::SetFlags m_isFreeDrive = false return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (m_prop.status != VDS_DRS_ONLINE || m_prop.health != VDS_H_HEALTHY) {
        DebugTrace("OOP!!! CDrive::SetFlags drive status is wrong, return VDS_E_OBJECT_STATUS_FAILED, line %d\n",
                   __LINE__);
        return E_FAIL;
    }
    int spares = 0;
    if (m_pSubSystem)
        m_pSubSystem->ForEach<CDrive>([&](CDrive* d) { spares += d->HowUsed() == TROV_HOWUSED_POOL_SPARE ? 1 : 0; });
    if (spares >= kMaxGlobalSpares) {
        DebugTrace("OOP!!! CDrive::SetFlags spare num > 8, return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (Kelvane::assign_spare(Handle(), 1, reinterpret_cast<const uint8_t*>(m_DriveSn)) != 0) return E_FAIL;
    if (m_pProvider) m_pProvider->SetNeedRefresh(true);
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::ClearFlags(ULONG ulFlags) try {
    CLockGuard lock("CDrive::ClearFlags", hNotificationMutex);
    if (m_pProvider) m_pProvider->Refreshable();
    if (!(m_prop.ulFlags & VDS_DRF_HOTSPARE)) return VDS_E_NOT_SUPPORTED;
    if (ulFlags > 1) return E_INVALIDARG;
    if (Kelvane::assign_spare(Handle(), 0, reinterpret_cast<const uint8_t*>(m_DriveSn)) != 0)
        return VDS_E_INTERNAL_ERROR;
    if (m_pProvider) m_pProvider->SetNeedRefresh(true);
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::StartMaintenance(VDS_MAINTENANCE_OPERATION operation) try {
    if (m_prop.status != VDS_DRS_ONLINE) {
        DebugTrace("OOP!!! CDrive::StartMaintenance status is wrong, return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (operation != BlinkLight) return VDS_E_NOT_SUPPORTED;
    CLockGuard lock("CDrive::StartMaintenance", hNotificationMutex);
    // The light is best effort: what the array answers changes nothing for the host.
    Kelvane::blink_drive(Handle(), 1, reinterpret_cast<const uint8_t*>(m_DriveSn));
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::StopMaintenance(VDS_MAINTENANCE_OPERATION operation) try {
    if (m_prop.status != VDS_DRS_ONLINE) {
        DebugTrace("OOP!!! CDrive::StopMaintenance status is wrong, return VDS_E_NOT_SUPPORTED, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (operation != BlinkLight) return VDS_E_NOT_SUPPORTED;
    CLockGuard lock("CDrive::StopMaintenance", hNotificationMutex);
    Kelvane::blink_drive(Handle(), 0, reinterpret_cast<const uint8_t*>(m_DriveSn));
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::PulseMaintenance(VDS_MAINTENANCE_OPERATION operation, ULONG ulCount) try {
    if (m_prop.status != VDS_DRS_ONLINE) return VDS_E_NOT_SUPPORTED;
    if (operation < 1 || operation > 5) return E_INVALIDARG;
    // No lock across the waits: each step takes it for itself.
    for (ULONG i = 0; i < ulCount; ++i) {
        Plat()->Sleep(kPulseStepMs);
        HRESULT hr = StartMaintenance(operation);
        if (FAILED(hr)) return hr;
        Plat()->Sleep(kPulseStepMs);
        hr = StopMaintenance(operation);
        if (FAILED(hr)) return hr;
    }
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CDrive::QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) try {
    if (!ppExtentArray || !plNumberOfExtents) return E_POINTER;
    CLockGuard lock("CDrive::QueryExtents", hNotificationMutex);
    if (m_isFreeDrive) {
        auto* e = static_cast<VDS_DRIVE_EXTENT*>(CoTaskMemAlloc(sizeof(VDS_DRIVE_EXTENT)));
        if (!e) return E_OUTOFMEMORY;
        std::memset(e, 0, sizeof *e);
        e->id = m_prop.id;
        e->ullSize = m_prop.ullSize;
        e->bUsed = FALSE;
        *ppExtentArray = e;
        *plNumberOfExtents = 1;
        DebugTrace("CDrive::QueryExtents() out (drive is free)\n");
        return S_OK;
    }
    struct Share {
        VDS_OBJECT_ID lun;
        uint64_t used;
    };
    std::vector<Share> shares;
    CComPtr<IEnumVdsObject> luns;
    HRESULT hr = m_pSubSystem ? m_pSubSystem->QueryLuns(&luns) : E_UNEXPECTED;
    PassOnOutOfMemory(hr);
    if (SUCCEEDED(hr) && luns) {
        IUnknown* unk = nullptr;
        ULONG fetched = 0;
        while (luns->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
            CComPtr<IUnknown> lun;
            lun.Attach(unk);
            auto* base = dynamic_cast<CVdsBase*>(unk);
            const uint8_t* serial = base ? base->ArraySerial() : nullptr;
            Share s{};
            uint64_t lunSize = 0;
            if (serial && rec::ArrayKeyMatches(m_driveBlock, serial) && base->DriveShare(&s.lun, &s.used, &lunSize)) {
                DebugTrace("CDrive::QueryExtents() pLun->DriveUsedSize() = 0x%I64x, pLun->Size(): 0x%I64x\n", s.used,
                           lunSize);
                shares.push_back(s);
            }
        }
    }
    size_t count = shares.size() + 1;
    auto* ext = static_cast<VDS_DRIVE_EXTENT*>(CoTaskMemAlloc(count * sizeof(VDS_DRIVE_EXTENT)));
    if (!ext) return E_OUTOFMEMORY;
    std::memset(ext, 0, count * sizeof(VDS_DRIVE_EXTENT));
    uint64_t total = 0;
    for (size_t i = 0; i < shares.size(); ++i) {
        ext[i].id = m_prop.id;
        ext[i].LunId = shares[i].lun;
        ext[i].ullSize = std::min(shares[i].used, m_prop.ullSize);
        ext[i].bUsed = TRUE;
        total += shares[i].used;
        DebugTrace("CDrive::QueryExtents alloced extends i = %d, pExtent->ullSize : 0x%I64x, m_prop.ullSize : 0x%I64x, "
                   "extendUsedSize : 0x%I64x\n",
                   static_cast<int>(i), ext[i].ullSize, m_prop.ullSize, shares[i].used);
    }
    VDS_DRIVE_EXTENT& last = ext[count - 1];
    last.id = m_prop.id;
    last.bUsed = FALSE;
    last.ullSize = total > m_prop.ullSize ? 0 : m_prop.ullSize - total;
    DebugTrace("CDrive::QueryExtents The last unalloced extent  pExtent->ullSize() : 0x%I64x, m_prop.ullSize : "
               "0x%I64x, ullAllDriveUsedSize : 0x%I64x\n",
               last.ullSize, m_prop.ullSize, total);
    *ppExtentArray = ext;
    *plNumberOfExtents = static_cast<LONG>(count);
    return S_OK;
}
TROV_CATCH_OOM
