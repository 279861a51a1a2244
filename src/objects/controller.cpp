#include "objects/controller.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/boundary.h"
#include "objects/controller_port.h"
#include "objects/drive.h"
#include "objects/enumerator.h"
#include "objects/iscsi.h"
#include "lun/lun.h"
#include "objects/pool.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {
const char* OwnerLetter(uint8_t owner) {
    switch (owner) {
        case 0: return "B";
        case 1: return "A";
        case 2: return "BOTH";
        default: return "UNKNOWN";
    }
}

void CopyField(char* dst, size_t dstSize, const char* src, size_t srcWidth) {
    std::memset(dst, 0, dstSize);
    std::memcpy(dst, src, std::min(dstSize - 1, srcWidth));
}
}  // namespace

CController::CController() : CVdsBase(VDS_OT_CONTROLLER) {}

CController::~CController() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsController*>(this));
    Dispose();
}

HRESULT CController::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsController)
        *ppv = static_cast<IVdsController*>(this);
    else if (riid == IID_IVdsControllerControllerPort)
        *ppv = static_cast<IVdsControllerControllerPort*>(this);
    else if (riid == IID_IVdsMaintenance)
        *ppv = static_cast<IVdsMaintenance*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

void CController::Dispose() {
    if (m_initialised != kInitialisedMark) return;
    FreeObjectString(m_prop.pwszFriendlyName);
    FreeObjectString(m_prop.pwszIdentification);
    // The ports are released also during a refresh: the identity map holds each of them, so the
    // rebuild finds them alive and its new references keep the counts balanced.
    m_ports.Clear();
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    std::memset(&m_prop, 0, sizeof m_prop);
    ReleaseParents(&m_pProvider, &m_pSubSystem, nullptr);
    m_initialised = 0;
}

HRESULT CController::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, uint32_t handle,
                                const ControllerData* record) {
    InitializeCounter counter;
    if (!id || !provider || !subsystem || !record) {
        DebugTrace("OOP!!! CController::Initialize pControllerId/pProvider/pSubSystem == NULL return E_POINTER, "
                   "line %d\n",
                   __LINE__);
        return E_POINTER;
    }
    Dispose();
    m_initialised = kInitialisedMark;
    HoldParents(provider, subsystem, nullptr, &m_pProvider, &m_pSubSystem, nullptr);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_CONTROLLER, static_cast<IVdsController*>(this)});

    const ControllerData& cd = *record;
    const ControllerSection& cs = cd.controller;
    auto unified = std::make_unique<UnifiedControllerData>();
    if (Kelvane::get_unified_controller_data(handle, unified.get()) != 0) {
        DebugTrace("OOP!!! CController::Initialize get_unified_controller_data return VDS_E_INTERNAL_ERROR, line %d\n",
                   __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }

    m_handle = handle;
    m_Owner = cs.controllerId;
    const uint8_t* ip = cs.activeParams.ipAddress;
    char name[64];
    std::snprintf(name, sizeof name, "Controller %s;IP=%d.%d.%d.%d", OwnerLetter(m_Owner), ip[0], ip[1], ip[2], ip[3]);
    std::u16string ident = WidenField(cs.controllerIdent, sizeof cs.controllerIdent);
    m_prop.pwszFriendlyName = NewObjectString(AsciiToWide(name));
    m_prop.pwszIdentification = NewObjectString(ident);
    m_prop.status = VDS_CS_ONLINE;
    m_prop.health = VDS_H_HEALTHY;
    m_prop.sNumberOfPorts = static_cast<SHORT>(cs.numPorts & 0xFFFF);

    m_overheadPerMille = cs.activeParams.overheadPerMille;
    m_numPorts = cs.numPorts;

    std::string brand = FieldText(unified->brandName, sizeof unified->brandName);
    if (brand.empty()) brand = FieldText(unified->vendorName, sizeof unified->vendorName);
    std::string longName = brand + " " + FieldText(unified->productId, sizeof unified->productId) + " " +
                           FieldText(cs.controllerSerial, sizeof cs.controllerSerial);
    subsystem->RecordControllerFacts(cd, Utf8ToWide(std::string(unified->systemName())),
                                     AsciiToWide(longName.c_str()));

    CopyField(m_vendorName, sizeof m_vendorName, unified->vendorId, sizeof unified->vendorId);
    CopyField(m_productId, sizeof m_productId, unified->productId, sizeof unified->productId);
    CopyField(m_firmwareRevision, sizeof m_firmwareRevision, cs.firmwareRevision, sizeof cs.firmwareRevision);
    std::memcpy(m_macAddress, cs.activeParams.macAddress, sizeof m_macAddress);
    std::memcpy(m_ipAddress, cs.activeParams.ipAddress, sizeof m_ipAddress);
    std::memcpy(m_UniqueSn, cd.UniqueSN, sizeof m_UniqueSn);
    DebugTrace("m_vendorName = %s, m_productId = %s, m_firmwareRevision = %s\n", m_vendorName, m_productId,
               m_firmwareRevision);

    bool listsVolumes = true;
    if (cd.controllerState != TROV_CTRL_STATE_NORMAL) {
        m_prop.status = VDS_CS_OFFLINE;
        m_prop.health = VDS_H_FAILED;
        listsVolumes = false;
    }
    // A controller without a usable configuration lists nothing behind its name.
    if (cd.controllerState == TROV_CTRL_STATE_NORMAL || cd.controllerState == TROV_CTRL_STATE_NOT_SERVING) {
        DebugTrace("CController::Initialize() num dirves = %d\n", static_cast<int>(cd.driveCount()));
        if (listsVolumes) AddDrives(cd);
        DebugTrace("CController::Initialize() numArrays %d\n", static_cast<int>(cd.arrayCount()));
        for (uint32_t a = 0; a < cd.arrayCount(); ++a) {
            DebugTrace("CController::Initialize() numArrayPartitions %d\n", static_cast<int>(cd.partitionCountOf(a)));
            AddVolumes(cd, a);
            if (PoolsEnabled()) AddPool(cd.array(a));
        }
        DebugTrace("CController::Initialize() nPort %d\n", static_cast<int>(cd.portCount()));
        AddPorts(cd);
        DebugTrace("CController::Initialize() nTarget %d\n", 2);
        AddTarget(cd, *unified);
        DebugTrace("CController::Initialize() nTargetPortal %d\n", static_cast<int>(cd.portCount()));
        AddPortals(cd);
        DebugTrace("CController::Initialize() nTargetPortalGroup %d\n", static_cast<int>(cd.portCount()));
        AddPortalGroups(cd);
    }

    provider->RememberObject(*id, ident, this, static_cast<IVdsController*>(this));
    DebugTrace("CController::Initialize() id %s name %S ident %S status %d health %d ports %d handle 0x%08x\n",
               LogGuid(*id).c_str(), m_prop.pwszFriendlyName, m_prop.pwszIdentification, static_cast<int>(m_prop.status),
               static_cast<int>(m_prop.health), static_cast<int>(m_prop.sNumberOfPorts), m_handle);
    DebugTrace("CController::Initialize() out\n");
    return S_OK;
}

void CController::AddDrives(const ControllerData& cd) {
    CSubSystem* ss = m_pSubSystem;
    for (uint32_t i = 0; i < cd.driveCount(); ++i) {
        if (cd.controllerState != TROV_CTRL_STATE_NORMAL) break;
        const DriveData& d = cd.drive(i);
        DebugTrace("CController::Initialize() drive %d: howUsed = %d, channel = %d, blinking = %d, lun = %d, "
                   "scsiId = %d, slotNumber = %d, enclosureNumber = %d, type = %d\n",
                   static_cast<int>(i), d.howUsed, d.channel, d.blinking, d.lun, d.scsiId, d.slotNumber,
                   d.enclosureNumber, d.type);
        if (ss->FirstViewOfDrive(d.channel, d.scsiId)) {
            VDS_OBJECT_ID id{};
            TreePtr<CDrive> drive = MakeTreeObject<CDrive>(m_pProvider, &id, CDrive::MakeDriveName(d));
            drive->Initialize(&id, m_pProvider, ss, this, &d);
            ss->EnterDrive(id, drive);
            std::string sn = FieldText(d.serialNumber, 32);
            DebugTrace("  Drive %-20s encl %d bus %d slot %2d guid %08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X\n",
                       sn.c_str(), d.enclosureNumber, d.channel, d.slotNumber, id.Data1, id.Data2, id.Data3,
                       id.Data4[0], id.Data4[1], id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6],
                       id.Data4[7]);
            continue;
        }
        DebugTrace("Already found a drive at chan %d id %d\n", d.channel, d.scsiId);
        CComPtr<IVdsDrive> found;
        HRESULT hr = ss->GetDrive(d.enclosureNumber, d.slotNumber, &found);
        PassOnOutOfMemory(hr);
        if (hr == VDS_E_OBJECT_NOT_FOUND || !found) {
            DebugTrace("GetDrive returned OBJECT_NOT_FOUND, skipping (nDrive=%d)\n", static_cast<int>(i));
            continue;
        }
        auto* drive = static_cast<CDrive*>(found.get());
        if (d.driveIndex == TROV_NO_INDEX && d.containerIndex == TROV_NO_INDEX) {
            DebugTrace("skipping nDrive=%d because pDriveData->driveIndex == containerIndex == 0xff\n",
                       static_cast<int>(i));
        } else if (drive->DriveIndex() != TROV_NO_INDEX) {
            DebugTrace("skipping nDrive=%d because pTempDrive->DriveIndex() != 0xff (%d)\n", static_cast<int>(i),
                       drive->DriveIndex());
        } else if (drive->ContainerIndex() != TROV_NO_INDEX) {
            DebugTrace("skipping nDrive=%d because pTempDrive->DriveIndex() or ContainerIndex() != 0xff (%d)\n",
                       static_cast<int>(i), drive->ContainerIndex());
        } else {
            // The first view did not know the drive's place in an array; this one does.
            drive->TakePositionFrom(d);
        }
    }
}

void CController::AddVolumes(const ControllerData& cd, uint32_t a) {
    const ArrayData& array = cd.array(a);
    uint32_t parts = cd.partitionCountOf(a);
    for (uint32_t p = 0; p < parts; ++p) {
        if (cd.controllerState != TROV_CTRL_STATE_NORMAL) break;
        const PartitionData& part = cd.partition(a, p);
        std::string name = FieldText(part.name, sizeof part.name);
        if (name.empty()) {
            std::string arrayName = FieldText(array.name, sizeof array.name);
            DebugTrace("CController::Initialize() skipping volume with empty name (array %d (%s) partition %d)\n",
                       static_cast<int>(a), arrayName.c_str(), static_cast<int>(p));
            continue;
        }
        if (part.partitionType != TROV_PART_STANDARD && part.partitionType != TROV_PART_MASTER_VOLUME &&
            part.partitionType != TROV_PART_SNAPSHOT) {
            DebugTrace("CController::Initialize() ignoring partition type %d name \"%s\"\n", part.partitionType,
                       name.c_str());
            continue;
        }
        DebugTrace("CController::Initialize() adding partition type %d name \"%s\"\n", part.partitionType,
                   name.c_str());
        AddLun(array, &part);
    }
    if (parts == 0 && cd.controllerState == TROV_CTRL_STATE_NORMAL) {
        std::string arrayName = FieldText(array.name, sizeof array.name);
        DebugTrace("CController::Initialize() adding partition-less container \"%s\"\n", arrayName.c_str());
        AddLun(array, nullptr);
    }
}

void CController::AddLun(const ArrayData& array, const PartitionData* partition) {
    VDS_OBJECT_ID id{};
    TreePtr<CLun> lun = MakeTreeObject<CLun>(m_pProvider, &id, CLun::KeyText(array, partition));
    lun->Initialize(&id, m_pProvider, m_pSubSystem, this, &array, partition);
    m_pSubSystem->EnterLun(id, lun);
}

void CController::AddPool(const ArrayData& array) {
    VDS_OBJECT_ID id{};
    TreePtr<CPool> pool = MakeTreeObject<CPool>(m_pProvider, &id, CPool::VdiskKey(array, m_pSubSystem->SysName()));
    pool->Initialize(&id, m_pProvider, m_pSubSystem, &array, DriveClassOf(array.driveType));
    m_pProvider->EnterPool(id, pool);
}

void CController::AddTarget(const ControllerData& cd, const UnifiedControllerData& unified) {
    CSubSystem* ss = m_pSubSystem;
    bool ulp = ss->SupportsUlp();
    std::u16string name = CIscsiTarget::TargetName(unified, cd.controller.controllerId, ulp);
    VDS_OBJECT_ID found{};
    // One target serves both controllers: the second controller finds the first one's.
    if (!isRefreshing.load() && ulp && m_pProvider->Registry().FindIdentity(VDS_OT_TARGET, name, &found)) return;
    VDS_OBJECT_ID id{};
    TreePtr<CIscsiTarget> target = MakeTreeObject<CIscsiTarget>(m_pProvider, &id, name);
    target->Initialize(&id, m_pProvider, ss, this, &cd);
    ss->EnterTarget(id, target);
}

void CController::AddPortals(const ControllerData& cd) {
    for (uint32_t i = 0; i < cd.portCount(); ++i) {
        if (!cd.port(i).isIscsi()) continue;
        VDS_OBJECT_ID id{};
        TreePtr<CIscsiPortal> portal = MakeTreeObject<CIscsiPortal>(m_pProvider, &id, CIscsiPortal::KeyText(cd.port(i)));
        portal->Initialize(&id, m_pProvider, m_pSubSystem, this, &cd, i);
        m_pSubSystem->EnterPortal(id, portal);
    }
}

void CController::AddPortalGroups(const ControllerData& cd) {
    for (uint32_t i = 0; i < cd.portCount(); ++i) {
        if (!cd.port(i).isIscsi()) continue;
        VDS_OBJECT_ID id{};
        uint16_t tag = CIscsiPortal::TagFor(cd.controller.controllerId, i);
        TreePtr<CIscsiPortalGroup> group =
            MakeTreeObject<CIscsiPortalGroup>(m_pProvider, &id, CIscsiPortalGroup::KeyText(tag));
        group->Initialize(&id, m_pProvider, m_pSubSystem, this, &cd, i);
        m_pSubSystem->EnterPortalGroup(id, group);
    }
}

void CController::AddPorts(const ControllerData& cd) {
    for (uint32_t ch = 0; ch < cd.portCount(); ++ch) {
        const PortData& port = cd.port(ch);
        bool known = false;
        std::u16string key = CControllerPort::AddressName(port, &known);
        if (!port.isFibre() && !port.isSas() && !port.isIscsi()) {
            DebugTrace("OOP! unknown bus type %d for ch %d", port.busType, static_cast<int>(ch));
            if (isRefreshing.load()) continue;  // no name to find it by
        }
        VDS_OBJECT_ID id{};
        TreePtr<CControllerPort> p = MakeTreeObject<CControllerPort>(m_pProvider, &id, key);
        DebugTrace("CControllerPort::Initialize(): pPort = %p\n", static_cast<void*>(p.get()));
        p->Initialize(&id, m_pProvider, m_pSubSystem, this, &cd, ch);
        m_ports.Enter(id, VDS_OT_PORT, static_cast<IVdsControllerPort*>(p.get()));
    }
}

HRESULT CController::GetProperties(VDS_CONTROLLER_PROP* pControllerProp) try {
    if (!pControllerProp) return E_POINTER;
    CLockGuard lock("CController::GetProperties", hNotificationMutex);
    VDS_CONTROLLER_PROP p = m_prop;
    HRESULT hr = CopyPropStrings(m_prop.pwszFriendlyName, m_prop.pwszIdentification, &p.pwszFriendlyName,
                                 &p.pwszIdentification);
    if (FAILED(hr)) return hr;
    *pControllerProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CController::GetSubSystem(IVdsSubSystem** ppSubSystem) try {
    return HandOutSubSystem(m_pSubSystem, ppSubSystem);
}
TROV_CATCH_OOM

HRESULT CController::GetPortProperties(SHORT sPortNumber, VDS_PORT_PROP* pPortProp) try {
    if (!pPortProp) return E_POINTER;
    // The number equal to the port count passes and finds nothing: S_OK with nothing filled.
    if (sPortNumber < 0 || sPortNumber > m_prop.sNumberOfPorts) return E_INVALIDARG;
    CLockGuard lock("CController::GetPortProperties", hNotificationMutex);
    int i = 0;
    for (const auto& [id, e] : m_ports) {
        if (i++ != sPortNumber) continue;
        auto* port = e.As<CControllerPort>();
        return port ? port->GetProperties(pPortProp) : S_OK;
    }
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CController::CacheCommand(const char* method, bool flush) {
    CLockGuard lock(method, hNotificationMutex);
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(m_handle, buf.get()) != 0) {
        DebugTrace(flush ? "OOP!!! CController::FlushCache get_controller_data return VDS_E_INTERNAL_ERROR, line %d\n"
                         : "OOP!!! CController::InvalidateCache get_controller_data return VDS_E_INTERNAL_ERROR, "
                           "line %d\n",
                   __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    for (uint32_t a = 0; a < cd->arrayCount(); ++a) {
        // Each array's answer is of no consequence to the others.
        if (flush)
            Kelvane::flush_cache(m_handle, cd->array(a).serialNumber);
        else
            Kelvane::free_cache(m_handle, cd->array(a).serialNumber);
    }
    return S_OK;
}

HRESULT CController::FlushCache() try { return CacheCommand("CController::FlushCache", true); }
TROV_CATCH_OOM
HRESULT CController::InvalidateCache() try { return CacheCommand("CController::InvalidateCache", false); }
TROV_CATCH_OOM

HRESULT CController::Reset() try {
    DebugTrace("CController::Reset() returning VDS_E_NOT_SUPPORTED\n");
    return VDS_E_NOT_SUPPORTED;
}
TROV_CATCH_OOM

HRESULT CController::SetStatus(VDS_CONTROLLER_STATUS) try {
    DebugTrace("CController::SetStatus() returning VDS_E_NOT_SUPPORTED\n");
    return VDS_E_NOT_SUPPORTED;
}
TROV_CATCH_OOM

HRESULT CController::QueryAssociatedLuns(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
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
            if (base && base->OwnerId() == m_Owner) out->Append(unk);
        }
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CController::QueryControllerPorts(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CLockGuard lock("CController::QueryControllerPorts", hNotificationMutex);
    CComPtr<CComObject<CEnumerator>> out;
    out.Attach(CEnumerator::Create());
    if (!out) return E_OUTOFMEMORY;
    for (const auto& [id, e] : m_ports) {
        HRESULT hr = out->Append(e.pObject);
        if (FAILED(hr)) return hr;
    }
    out->Reset();
    *ppEnum = out.Detach();
    return S_OK;
}
TROV_CATCH_OOM

// The array has no way to sound its alarm from here: the one meaning of these calls is to silence it.
HRESULT CController::StartMaintenance(VDS_MAINTENANCE_OPERATION operation) try {
    if (operation != BeepAlarm) return VDS_E_NOT_SUPPORTED;
    return static_cast<HRESULT>(Kelvane::silence_alarm(m_handle));
}
TROV_CATCH_OOM

HRESULT CController::StopMaintenance(VDS_MAINTENANCE_OPERATION) try { return S_OK; }
TROV_CATCH_OOM

HRESULT CController::PulseMaintenance(VDS_MAINTENANCE_OPERATION operation, ULONG) try {
    if (operation != BeepAlarm) return VDS_E_NOT_SUPPORTED;
    return static_cast<HRESULT>(Kelvane::silence_alarm(m_handle));
}
TROV_CATCH_OOM
