#include <cstring>

#include "core/globals.h"
#include "core/provider.h"
#include "core/registry.h"
#include "host/host_facts.h"
#include "host/hba.h"
#include "host/identification.h"
#include "host/paths.h"
#include "host/policy.h"
#include "objects/controller.h"
#include "objects/controller_port.h"
#include "lun/lun.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

namespace {

// Clears allowQueryRefresh for one lookup and sets it again on every way out.
class NoRefreshWhileWalking {
public:
    NoRefreshWhileWalking() { allowQueryRefresh = 0; }
    ~NoRefreshWhileWalking() { allowQueryRefresh = 1; }
};

// The first port, over the subsystem's controllers and their ports in order, for which pred holds.
template <class P>
CControllerPort* FindPort(CSubSystem* ss, P&& pred) {
    CControllerPort* hit = nullptr;
    if (!ss) return nullptr;
    ss->ForEach<CController>([&](CController* c) {
        if (hit) return;
        c->ForEachPort<CControllerPort>([&](CControllerPort* p) {
            if (!hit && pred(c, p)) hit = p;
        });
    });
    return hit;
}

}  // namespace

const char* PathStatusName(VDS_PATH_STATUS status) {
    switch (status) {
    case VDS_MPS_UNKNOWN: return "UNKNOWN";
    case VDS_MPS_ONLINE: return "ONLINE";
    case VDS_MPS_FAILED: return "FAILED";
    case VDS_MPS_STANDBY: return "STANDBY";
    }
    DebugTrace("unknown path status 0x%x", static_cast<unsigned>(status));
    return "<unknown>";
}

const char* HwProviderTypeName(VDS_HWPROVIDER_TYPE type) {
    static const char* const kNames[] = {"UNKNOWN", "PCI_RAID", "FC", "iSCSI", "SAS", "Hybrid"};
    auto i = static_cast<uint32_t>(type);
    if (i < sizeof kNames / sizeof kNames[0]) return kNames[i];
    DebugTrace("unknown hardware provider type 0x%x", i);
    return "<unknown>";
}

VDS_PATH_STATUS PathStatusOf(uint32_t failed, uint32_t primary, uint32_t optimized) {
    if (failed) return VDS_MPS_FAILED;
    if (!primary && !optimized) return VDS_MPS_STANDBY;
    return VDS_MPS_ONLINE;
}

VDS_OBJECT_ID CLun::GetCtrlPortIdByPortWWN(CSubSystem* subsystem, const char* identification) {
    DebugTrace("%s()\n", "CLun::GetCtrlPortIdByPortWWN");
    NoRefreshWhileWalking guard;
    std::u16string wanted = Utf8ToWide(identification ? identification : "");
    CControllerPort* p = FindPort(subsystem, [&](CController*, CControllerPort* port) {
        const WCHAR* id = port->Identification();
        return id && std::u16string(id) == wanted;
    });
    if (!p) {
        DebugTrace("CLun::GetCtrlPortIdByPortWWN out, return GUID_NULL.\n");
        return GUID{};
    }
    DebugTrace("CLun::GetCtrlPortIdByPortWWN out, return %s\n", LogGuid(p->Id()).c_str());
    return p->Id();
}

VDS_OBJECT_ID CLun::GetCtrlPortIdByTargetPortIdentifier(uint32_t id, bool isULP) {
    DebugTrace("%s()\n", "CLun::GetCtrlPortIdByTargetPortIdentifier");
    DebugTrace("CLun::GetCtrlPortIdByTargetPortIdentifier (isULP %d, id %lx)\n", isULP ? 1 : 0,
               static_cast<unsigned long>(id));
    NoRefreshWhileWalking guard;
    const uint64_t n = m_pController ? m_pController->NumHostPorts() : 0;
    const uint64_t wanted = id;
    CControllerPort* p = FindPort(m_pSubSystem, [&](CController*, CControllerPort* port) {
        if (isULP) {
            // Target port identifiers run through A's ports first, then B's.
            if (wanted >= 1 && wanted <= n) return port->OwnerId() == 1 && port->PortNumber() == wanted - 1;
            return wanted > n && port->OwnerId() == 0 && port->PortNumber() == wanted - n - 1;
        }
        return wanted >= 1 && port->OwnerId() == m_Owner && port->PortNumber() == wanted - 1;
    });
    if (!p) {
        DebugTrace("CLun::GetCtrlPortIdByTargetPortIdentifier out but return GUID_NULL, it exist a error.\n");
        return GUID{};
    }
    DebugTrace("%s%s\n",
               isULP ? "CLun::GetCtrlPortIdByTargetPortIdentifier out, isULP is true, return "
                     : "CLun::GetCtrlPortIdByTargetPortIdentifier out, isULP is false, return ",
               LogGuid(p->Id()).c_str());
    return p->Id();
}

VDS_OBJECT_ID CLun::GetCtrlPortIdByTargetPortIdentifier(const uint8_t wwn[8]) {
    DebugTrace("%s()\n", "CLun::GetCtrlPortIdByTargetPortIdentifier");
    NoRefreshWhileWalking guard;
    uint64_t wanted;
    std::memcpy(&wanted, wwn, 8);
    CControllerPort* p = FindPort(m_pSubSystem, [&](CController*, CControllerPort* port) {
        uint64_t have;
        std::memcpy(&have, port->PortWwn(), 8);
        return have == wanted;
    });
    if (!p) {
        DebugTrace("CLun::GetCtrlPortIdByTargetPortIdentifier out but return GUID_NULL, it exist a error.\n");
        return GUID{};
    }
    DebugTrace("CLun::GetCtrlPortIdByTargetPortIdentifier out, return %s\n", LogGuid(p->Id()).c_str());
    return p->Id();
}

VDS_OBJECT_ID CLun::GetPathInfo(uint32_t portNumber, uint32_t targetId) {
    if (!m_pProvider) return GUID{};
    const std::vector<HbaPort>& hbas = m_pProvider->Host().HBA_vec;
    const HbaPort* hba = nullptr;
    for (const HbaPort& h : hbas)
        if (h.portNumber == portNumber) {
            hba = &h;
            break;
        }
    if (!hba) return GUID{};
    std::vector<HbaFcpScsiEntryV2> mappings;
    GetFcpTargetMappings(hba->PortWWN, mappings);
    // With no mapping for the target the WWN stays zero, which no port of the array has.
    uint8_t wwn[8] = {};
    for (const HbaFcpScsiEntryV2& m : mappings)
        if (m.ScsiId.ScsiTargetNumber == targetId) {
            std::memcpy(wwn, m.FcpId.PortWWN, 8);
            break;
        }
    DebugTrace("CLun::GetPathInfo portNumber = %d, targetId = %d, targetWWN = "
               "%02X:%02X:%02X:%02X:%02X:%02X:%02X:%02X\n",
               portNumber, targetId, wwn[0], wwn[1], wwn[2], wwn[3], wwn[4], wwn[5], wwn[6], wwn[7]);
    return GetCtrlPortIdByTargetPortIdentifier(wwn);
}

void CLun::requestWmiUpdate() {
    DebugTrace("requesting future wmi update\n");
    m_wmiUpdateCookie = kWmiUpdateMarker;
}

void CLun::refreshWmiIfRequested() {
    if (m_wmiUpdateCookie == 0 || !m_pProvider) return;
    DebugTrace("calling initWmi() to refresh path info\n");
    m_pProvider->initWmi();
    m_wmiUpdateCookie = 0;
}

bool FindLunHostPaths(CLun* lun, const HostFacts& facts, std::u16string* instance, uint32_t* policy,
                      std::vector<LunHostPath>* paths) {
    paths->clear();
    MpioDsmPathV2 v;
    if (EnumDsmQueryLBPolicy_V2(facts.mpioDiskInfoVec, LunSerialText(lun->PartitionSerial()),
                                facts.mpioDsmPathV2Vec, &v, instance) != 0)
        return false;
    *policy = v.LoadBalancePolicy;
    const bool ulp = lun->SubSystem() && lun->SubSystem()->SupportsUlp();
    for (uint32_t i = 0; i < v.numDsmPathV2 && i < kDsmPathV2Slots; ++i) {
        const MpioDsmPathV2Entry& e = v.paths[i];
        LunHostPath p;
        p.pathId = e.DsmPathId;
        p.portNumber = static_cast<uint32_t>(e.DsmPathId >> 48);
        p.busNumber = static_cast<uint32_t>(e.DsmPathId >> 32) & 0xFFFF;
        p.targetId = static_cast<uint32_t>(e.DsmPathId >> 16) & 0xFFFF;
        p.lun = static_cast<uint32_t>(e.DsmPathId) & 0xFFFF;
        p.primary = e.PrimaryPath, p.optimized = e.OptimizedPath, p.preferred = e.PreferredPath;
        p.failed = e.FailedPath, p.weight = e.PathWeight;
        p.tpgState = e.TargetPortGroup_State, p.tpgId = e.TargetPortGroup_Identifier;
        p.targetPortId = e.TargetPort_Identifier;
        p.status = PathStatusOf(e.FailedPath, e.PrimaryPath, e.OptimizedPath);
        if (e.TargetPort_Identifier) p.controllerPortId = lun->GetCtrlPortIdByTargetPortIdentifier(e.TargetPort_Identifier, ulp);
        paths->push_back(p);
    }
    return true;
}
