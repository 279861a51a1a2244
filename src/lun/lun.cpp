#include "lun/lun.h"
#include "lun/lunplex.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/drive.h"
#include "objects/enumerator.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

// ---------------------------------------------------------------------------------------------
// Mappings and text helpers.

bool IsParityType(int type) {
    switch (type) {
        case 14: case 16: case 18: case 19: case 25: case 26: case 29: return true;
        default: return false;
    }
}

VDS_LUN_TYPE VdsTypeFromArray(const ArrayData& array, bool win7) {
    if (win7) {
        switch (array.raidLevel) {
            case TROV_RAID3: return VDS_LT_RAID3;
            case TROV_RAID5: return VDS_LT_RAID5;
            case TROV_RAID30: return VDS_LT_RAID30;
            case TROV_RAID50: return VDS_LT_RAID50;
            case TROV_RAID10: return VDS_LT_RAID10;
            case TROV_RAID6: return VDS_LT_RAID6;
            default: break;
        }
    }
    switch (array.raidLevel) {
        case TROV_RAID0: return VDS_LT_STRIPE;
        case TROV_RAID1:
        case TROV_RAID10: return VDS_LT_MIRROR;
        case TROV_RAID3:
        case TROV_RAID5:
        case TROV_RAID30:
        case TROV_RAID50:
        case TROV_RAID6: return VDS_LT_PARITY;
        case TROV_NRAID: return array.memberCount() == 1 ? VDS_LT_SIMPLE : VDS_LT_SPAN;
        default: return VDS_LT_UNKNOWN;
    }
}

void LunStateFromArray(const ArrayData& array, VDS_LUN_TYPE type, VDS_LUN_STATUS* status, VDS_HEALTH* health,
                       VDS_TRANSITION_STATE* transition) {
    *status = VDS_LS_ONLINE;
    *health = VDS_H_HEALTHY;
    *transition = VDS_TS_STABLE;
    switch (array.health) {
        case 1:
        case 4: *health = VDS_H_FAILING_REDUNDANCY; break;
        case 2: {
            bool missing = false;
            for (uint32_t i = 0; i < array.memberCount(); ++i)
                if (array.member(i).missing()) missing = true;
            bool redundant = type == VDS_LT_MIRROR || type == VDS_LT_RAID10 || IsParityType(type);
            if ((array.utilityRunning != TROV_UTILITY_2 || missing) && redundant) *health = VDS_H_FAILING_REDUNDANCY;
            break;
        }
        case 3:
            *status = VDS_LS_OFFLINE;
            *health = VDS_H_FAILED;
            break;
        case 5:
            *status = VDS_LS_FAILED;
            *health = VDS_H_FAILED;
            break;
        default: break;
    }
    if (array.utilityRunning == TROV_UTILITY_RECONSTRUCT) *health = VDS_H_REBUILDING;
    if (array.utilityRunning == TROV_UTILITY_EXPAND) *transition = VDS_TS_EXTENDING;
}

SHORT RaidCarrier(uint8_t raidLevel) {
    switch (raidLevel) {
        case TROV_RAID6: return 16;
        case TROV_RAID50: return 15;
        case TROV_RAID3: return 14;
        default: return 0;
    }
}

VDS_LUN_PLEX_TYPE PlexTypeFor(VDS_LUN_TYPE lunType, uint32_t members) {
    switch (lunType) {
        case VDS_LT_FAULT_TOLERANT: return VDS_LPT_RAID2;
        case VDS_LT_MIRROR: return members == 2 ? VDS_LPT_SIMPLE : VDS_LPT_STRIPE;
        case 10: case 11: case 12: case 14: case 15: case 16: case 18: case 19: case 23: case 25: case 26: case 29:
            return static_cast<VDS_LUN_PLEX_TYPE>(lunType);
        default: return VDS_LPT_UNKNOWN;
    }
}

namespace {
void DiskSnBytes(const uint8_t* p, uint8_t out[16]) {
    std::memset(out, 0, 16);
    out[0] = static_cast<uint8_t>(0x60 | (p[0] >> 4));
    out[1] = static_cast<uint8_t>((p[1] >> 4) ^ (p[0] << 4));
    out[2] = static_cast<uint8_t>((p[2] >> 4) ^ (p[1] << 4));
    out[3] = static_cast<uint8_t>(p[2] << 4);
    out[5] = p[3];
    out[6] = p[4];
    out[7] = p[5];
    for (int i = 8; i <= 12; ++i) out[i] = p[i];
}
}  // namespace

std::string DiskSnFromPartitionSnNew(const uint8_t* partSn) {
    uint8_t b[16];
    DiskSnBytes(partSn, b);
    std::string s = HexBytes(b, 16);
    DebugTrace("DiskSn string: %s\n", s.c_str());
    return s;
}

std::string DiskSnFromPartitionSnOld(const uint8_t* partSn) {
    uint8_t b[16];
    DiskSnBytes(partSn, b);
    std::string s;
    char t[3];
    for (uint8_t v : b) {
        std::snprintf(t, sizeof t, "%X", v);
        s += t;
    }
    DebugTrace("DiskSn string: %s\n", s.c_str());
    return s;
}

// ---------------------------------------------------------------------------------------------
// Generated names.

namespace {
std::vector<std::string>& UsedNames() {
    static std::vector<std::string> names;
    return names;
}
}  // namespace

void ResetNewNamesForTest() { UsedNames().clear(); }

std::string NewName(const SubsystemEntry& entry, bool isVdisk, uint8_t specialType, const char* nameToForget) {
    std::vector<std::string>& used = UsedNames();
    if (nameToForget) {
        auto it = std::find(used.begin(), used.end(), std::string(nameToForget));
        if (it != used.end()) used.erase(it);
        return {};
    }
    if (used.empty()) {
        std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
        for (uint32_t handle : {entry.controllerA, entry.controllerB}) {
            if (Kelvane::get_controller_data(handle, buf.get()) != 0) return "VDS_LNU_ERROR";
            const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
            for (uint32_t a = 0; a < cd->arrayCount(); ++a) {
                used.push_back(FieldText(cd->array(a).name, sizeof cd->array(a).name));
                for (uint32_t p = 0; p < cd->partitionCountOf(a); ++p) {
                    const PartitionData& part = cd->partition(a, p);
                    if (part.inUse()) used.push_back(FieldText(part.name, sizeof part.name));
                }
            }
        }
    }
    const char* pattern = isVdisk                 ? "VDS_VDISK_%d"
                          : specialType == 1 ? "VDS_SP_LUN_%d"
                          : specialType == 2 ? "VDS_MV_LUN_%d"
                          : specialType == 3 ? "VDS_SS_LUN_%d"
                                             : "VDS_LUN_%d";
    char name[32];
    for (int n = 0;; ++n) {
        std::snprintf(name, sizeof name, pattern, n);
        if (std::find(used.begin(), used.end(), std::string(name)) == used.end()) break;
    }
    used.push_back(name);
    DebugTrace("NewName %s\n", name);
    return name;
}

// ---------------------------------------------------------------------------------------------
// CLun

CLun::CLun() : CVdsBase(VDS_OT_LUN) {}

CLun::~CLun() {
    if (m_pProvider) m_pProvider->DropObject(m_prop.id, static_cast<IVdsLun*>(this));
    Dispose();
}

HRESULT CLun::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IVdsLun)
        *ppv = static_cast<IVdsLun*>(this);
    else if (riid == IID_IVdsLun2)
        *ppv = static_cast<IVdsLun2*>(this);
    else if (riid == IID_IVdsLunNaming)
        *ppv = static_cast<IVdsLunNaming*>(this);
    else if (riid == IID_IVdsLunIscsi)
        *ppv = static_cast<IVdsLunIscsi*>(this);
    else if (riid == IID_IVdsLunControllerPorts)
        *ppv = static_cast<IVdsLunControllerPorts*>(this);
    else
        return E_NOINTERFACE;
    return S_OK;
}

std::u16string CLun::KeyText(const ArrayData& array, const PartitionData* partition) {
    return AsciiToWide((partition ? HexBytes(partition->PartSn, 13) : HexBytes(array.serialNumber, 16)).c_str());
}

CVdsBase::SortKey CLun::GetSortKey() const {
    SortKey k;
    k.k1 = -static_cast<int64_t>(m_Owner);
    k.k2 = m_specialType;
    if (m_prop.pwszFriendlyName) k.name.assign(m_prop.pwszFriendlyName, WStrLen(m_prop.pwszFriendlyName));
    return k;
}

bool CLun::DriveShare(VDS_OBJECT_ID* id, uint64_t* usedSize, uint64_t* lunSize) {
    *id = m_prop.id;
    *lunSize = m_prop.ullSize;
    *usedSize = DriveUsedSizeFor(m_prop.ullSize, m_RaidLevel, m_memberCount, m_numDrivesPerLowLevelArray,
                                 m_specialType);
    return true;
}

bool CLun::CanOperate() const {
    if (m_prop.status == VDS_LS_ONLINE && m_prop.health == VDS_H_HEALTHY) return true;
    switch (m_prop.health) {
        case VDS_H_REBUILDING:
        case VDS_H_FAILING_REDUNDANCY:
        case VDS_H_FAILED_REDUNDANCY:
        case VDS_H_FAILED_REDUNDANCY_FAILING: return true;
        default: return false;
    }
}

void CLun::Dispose() {
    // During a refresh the plexes stay: the rebuild finds them again by their key texts.
    if (!isRefreshing.load()) m_mapPlexes.Clear();
    FreeObjectString(m_prop.pwszFriendlyName);
    FreeObjectString(m_prop.pwszIdentification);
    FreeObjectString(m_prop.pwszUnmaskingList);
    if (m_pProvider) m_pProvider->RemoveObject(m_prop.id);
    std::memset(&m_prop, 0, sizeof m_prop);
    ReleaseParents(&m_pProvider, &m_pSubSystem, &m_pController);
}

void CLun::TearDown() {
    m_mapPlexes.Clear();
    Dispose();
}

HRESULT CLun::AddPlexToMap(CLunPlex* plex) {
    if (!plex) return E_INVALIDARG;
    m_mapPlexes.Enter(plex->Prop().id, VDS_OT_LUN_PLEX, static_cast<IVdsLunPlex*>(plex));
    return S_OK;
}

void CLun::ReadUnmaskingList(const PartitionData& partition) {
    auto view = std::make_unique<PartitionView>();
    if (Kelvane::get_part_view(m_pController->Handle(), partition.PartSn, view.get()) != 0) return;
    std::u16string list;
    uint32_t n = view->viewCount();
    for (uint32_t i = 0; i < n; ++i) {
        if (i) list += u";";
        std::string_view host = view->viewHost(i);
        list += Utf8ToWide(std::string(host));
    }
    if (n == 0 && view->defaultLun == partition.lunNumber) list = u"*";
    if (list.size() + 1 > 257) {
        // A list longer than the standard block gets a block of its own size.
        LPWSTR block = NewObjectBlock(list.size() + 1);
        std::memcpy(block, list.c_str(), list.size() * sizeof(WCHAR));
        FreeObjectString(m_prop.pwszUnmaskingList);
        m_prop.pwszUnmaskingList = block;
    } else if (m_prop.pwszUnmaskingList) {
        WStrNCpy(m_prop.pwszUnmaskingList, 257, list.c_str());
    }
}

CLunPlex* CLun::MakePlex(bool second) {
    VDS_OBJECT_ID id{};
    std::u16string key = m_lunSn + (second ? u" Plex2" : u" Plex");
    TreePtr<CLunPlex> plex = MakeTreeObject<CLunPlex>(m_pProvider, &id, key);
    bool mirror = m_prop.type == VDS_LT_MIRROR;
    plex->Initialize(&id, m_pProvider, m_pSubSystem, this, mirror, mirror && !second);
    AddPlexToMap(plex);
    return plex;  // the plex map holds it
}

void CLun::Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CController* controller,
                      const ArrayData* array, const PartitionData* partition) {
    if (!id || !provider || !subsystem || !controller || !array) return;
    InitializeCounter counter;
    Dispose();
    HoldParents(provider, subsystem, controller, &m_pProvider, &m_pSubSystem, &m_pController);
    m_prop.id = *id;
    provider->AddObject(*id, ObjectEntry{VDS_OT_LUN, static_cast<IVdsLun*>(this)});

    m_isDummy = partition == nullptr;
    m_lunSn = KeyText(*array, partition);
    std::u16string name;
    if (partition) {
        name = WidenField(partition->name, sizeof partition->name);
    } else {
        name = WidenField(array->name, sizeof array->name) + u"(DummyVolume)";
    }
    m_prop.pwszFriendlyName = NewObjectString(name);
    m_prop.pwszIdentification = NewObjectString(m_lunSn);
    m_prop.pwszUnmaskingList = NewObjectString(u"");
    if (partition) ReadUnmaskingList(*partition);

    bool win7 = HostIsWin7();
    m_prop.ullSize = partition ? partition->blockCount.value() << 9 : 0;
    m_prop.ulFlags = 0;
    m_prop.type = VdsTypeFromArray(*array, win7);
    m_RaidLevel = array->raidLevel;
    LunStateFromArray(*array, m_prop.type, &m_prop.status, &m_prop.health, &m_prop.TransitionState);
    m_specialType = partition ? partition->partitionType : 0;

    m_prop.sRebuildPriority = RaidCarrier(array->raidLevel);
    m_utilityRunning = array->utilityRunning;
    m_Owner = array->owner;
    if (partition)
        std::memcpy(m_partitionSn, partition->PartSn, sizeof m_partitionSn);
    else
        std::memset(m_partitionSn, 0, sizeof m_partitionSn);
    std::memcpy(m_ArraySn, array->serialNumber, sizeof m_ArraySn);
    m_unitNumber = partition ? partition->lunNumber : 0xFFFFFFFFu;
    std::memcpy(m_cacheParams, partition ? static_cast<const void*>(&partition->cacheParams)
                                         : static_cast<const void*>(&array->cacheParams),
                sizeof m_cacheParams);
    if (m_cacheParams[9] == 0) m_prop.ulFlags |= VDS_LF_WRITE_THROUGH_CACHING_ENABLED;
    if (win7 && m_specialType == TROV_PART_SNAPSHOT) m_prop.ulFlags |= VDS_LF_SNAPSHOT;
    uint64_t capacity = array->blockCapacity.value() << 9;
    // A vdisk of no capacity is not expected; 0 rather than a division by zero.
    m_percentOfVdisk = capacity ? static_cast<uint32_t>(m_prop.ullSize * 100 / capacity) : 0;
    m_memberCount = array->memberCount();
    m_numDrivesPerLowLevelArray = array->numDrivesPerLowLevelArray;
    m_stripeSize = array->stripeKiB << 10;
    m_minDriveSize = static_cast<uint64_t>(array->minDriveBlocks) << 9;
    m_driveType = array->driveType;

    CLunPlex* first = MakePlex(false);
    CLunPlex* second = m_prop.type == VDS_LT_MIRROR ? MakePlex(true) : nullptr;
    if (m_prop.health == VDS_H_FAILING_REDUNDANCY &&
        ((first && first->Prop().status == VDS_LPS_ONLINE) || (second && second->Prop().status == VDS_LPS_ONLINE)) &&
        second)
        m_prop.health = VDS_H_FAILED_REDUNDANCY;

    provider->RememberObject(*id, m_lunSn, this, static_cast<IVdsLun*>(this));
    DumpMySelf();
}

void CLun::DumpMySelf() const {
    const bool text = DebugSinkActive();
    DebugTrace("m_Owner = %d, m_stripeSize = %d, LunSn = %ls, MemberAmount() = %d, m_RaidLevel = %d, "
               "m_numDrivesPerLowLevelArray=%d\n",
               m_Owner, static_cast<int>(m_stripeSize), m_prop.pwszIdentification, static_cast<int>(m_memberCount),
               m_RaidLevel, m_numDrivesPerLowLevelArray);
    DebugTrace("m_ArraySn = %s\n", text ? HexBytes(m_ArraySn, sizeof m_ArraySn).c_str() : "");
    DebugTrace("VDS_LUN_PROP: id %s size 0x%I64x name %S ident %S unmask %S flags 0x%x type %d status %d health %d "
               "transition %d rebuild %d\n",
               text ? LogGuid(m_prop.id).c_str() : "", m_prop.ullSize, m_prop.pwszFriendlyName, m_prop.pwszIdentification,
               m_prop.pwszUnmaskingList, m_prop.ulFlags, static_cast<int>(m_prop.type), static_cast<int>(m_prop.status),
               static_cast<int>(m_prop.health), static_cast<int>(m_prop.TransitionState),
               static_cast<int>(m_prop.sRebuildPriority));
}

HRESULT CLun::GetProperties(VDS_LUN_PROP* pLunProp) try {
    if (!pLunProp) return E_POINTER;
    CLockGuard lock("CLun::GetProperties", hNotificationMutex);
    VDS_LUN_PROP p = m_prop;
    TaskMem<WCHAR> name(CopyPropString(m_prop.pwszFriendlyName));
    TaskMem<WCHAR> ident(name ? CopyPropString(m_prop.pwszIdentification) : nullptr);
    TaskMem<WCHAR> unmask(ident ? WStrDup(m_prop.pwszUnmaskingList ? m_prop.pwszUnmaskingList
                                                                   : reinterpret_cast<const WCHAR*>(u""))
                                : nullptr);
    if (!unmask) {
        DebugTrace("OOP!! CLun::GetProperties() out of memory, line = %d\n", __LINE__);
        return E_OUTOFMEMORY;
    }
    DebugTrace("CLun::GetProperties() print VDS_LUN_PROP:\n");
    DumpMySelf();
    p.pwszFriendlyName = name.release();
    p.pwszIdentification = ident.release();
    p.pwszUnmaskingList = unmask.release();
    *pLunProp = p;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::GetSubSystem(IVdsSubSystem** ppSubSystem) try {
    if (!ppSubSystem) return E_POINTER;
    CLockGuard lock("CLun::GetSubSystem", hNotificationMutex);
    return HandOutSubSystem(m_pSubSystem, ppSubSystem);
}
TROV_CATCH_OOM

HRESULT CLun::QueryPlexes(IEnumVdsObject** ppEnum) try {
    if (!ppEnum) return E_POINTER;
    CLockGuard lock("CLun::QueryPlexes", hNotificationMutex);
    DebugTrace("m_mapPlexes.size() %d\n", static_cast<int>(m_mapPlexes.size()));
    return QueryObjects(m_pProvider, m_mapPlexes, ppEnum);
}
TROV_CATCH_OOM

HRESULT CLun::SetFriendlyName(LPWSTR pwszFriendlyName) try {
    if (m_isDummy) {
        DebugTrace("CLun::SetFriendlyName(), it is a dummy volume, cann't SetFriendlyName, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    CLockGuard lock("CLun::SetFriendlyName", hNotificationMutex);
    if (!CanOperate()) return VDS_E_OBJECT_STATUS_FAILED;
    if (!pwszFriendlyName) {
        DebugTrace("OOP!!! CLun::SetFriendlyName() pwszFriendlyName == NULL  return E_POINTER, line %d\n", __LINE__);
        return E_POINTER;
    }
    std::u16string name(pwszFriendlyName, WStrLen(pwszFriendlyName));
    bool cut = name.size() > kMaxNameChars;
    if (cut) name.resize(kMaxNameChars);
    std::u16string present = m_prop.pwszFriendlyName
                                 ? std::u16string(m_prop.pwszFriendlyName, WStrLen(m_prop.pwszFriendlyName))
                                 : std::u16string();
    if (name == present) return cut ? VDS_S_NAME_TRUNCATED : S_OK;
    if (m_pSubSystem && m_pSubSystem->FindFirst<CLun>([&](CLun* other) {
            return other != this && other->m_prop.pwszFriendlyName &&
                   name == std::u16string(other->m_prop.pwszFriendlyName, WStrLen(other->m_prop.pwszFriendlyName));
        }))
        return VDS_E_NAME_NOT_UNIQUE;
    std::string narrow = WideToUtf8(name);
    if (Kelvane::set_part_name(m_pController ? m_pController->Handle() : 0, m_partitionSn, narrow.c_str()) != 0) {
        DebugTrace("OOP!!! CLun::SetFriendlyName() set_part_name  return E_POINTER, line %d\n", __LINE__);
        return VDS_E_INTERNAL_ERROR;
    }
    WStrNCpy(m_prop.pwszFriendlyName, 257, name.c_str());
    return cut ? VDS_S_NAME_TRUNCATED : S_OK;
}
TROV_CATCH_OOM

HRESULT CLun::NotSupported(const char* method) {
    DebugTrace("%s() returning VDS_E_NOT_SUPPORTED\n", method);
    return VDS_E_NOT_SUPPORTED;
}

HRESULT CLun::AddPlex(VDS_OBJECT_ID, IVdsAsync** ppAsync) try {
    *ppAsync = nullptr;
    return NotSupported("CLun::AddPlex");
}
TROV_CATCH_OOM

HRESULT CLun::RemovePlex(VDS_OBJECT_ID, IVdsAsync** ppAsync) try {
    *ppAsync = nullptr;
    return NotSupported("CLun::RemovePlex");
}
TROV_CATCH_OOM

HRESULT CLun::Recover(IVdsAsync** ppAsync) try {
    if (!ppAsync) return E_POINTER;
    *ppAsync = nullptr;
    return NotSupported("CLun::Recover");
}
TROV_CATCH_OOM

HRESULT CLun::AssociateControllers(VDS_OBJECT_ID*, LONG, VDS_OBJECT_ID*, LONG) try {
    return NotSupported("CLun::AssociateControllers");
}
TROV_CATCH_OOM

HRESULT CLun::SetStatus(VDS_LUN_STATUS) try { return NotSupported("CLun::SetStatus"); }
TROV_CATCH_OOM

