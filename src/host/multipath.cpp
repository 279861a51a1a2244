#include "host/multipath.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/platform.h"
#include "platform/scsi_pages.h"
#include "platform/scsi_sysfs.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

using json = nlohmann::json;

namespace {

// The daemon's JSON formats this reader knows: major version 0.
constexpr int64_t kKnownMajorVersion = 0;

std::string Text(const json& obj, const char* key) {
    auto it = obj.find(key);
    if (it == obj.end() || !it->is_string()) return {};
    std::string s = it->get<std::string>();
    if (s.size() > kMaxMultipathText) s.resize(kMaxMultipathText);
    return s;
}

int64_t Number(const json& obj, const char* key, int64_t fallback) {
    auto it = obj.find(key);
    if (it == obj.end() || !it->is_number_integer()) return fallback;
    return it->get<int64_t>();
}

std::u16string Wide(const std::string& s) { return Utf8ToWide(s); }

// The process-wide connection of one gathering: the locator stands for the platform's facilities
// (always there on Linux), the service for a daemon that answered.
struct WmiConnection {
    bool locator = false;
    bool service = false;
};
WmiConnection g_wmi;

// One attempt at reaching the daemon.
bool ReachDaemon(int* err) {
    std::string reply;
    if (!Plat()->MultipathCommand("show daemon", &reply, err)) return false;
    if (reply.empty() || reply.compare(0, 4, "fail") == 0) {
        *err = EPROTO;
        return false;
    }
    return true;
}

uint64_t Fnv64(const std::string& s) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : s) h = (h ^ c) * 0x100000001b3ull;
    return h;
}

}  // namespace

bool ReachMultipathDaemon(int* err) { return ReachDaemon(err); }

uint64_t PathIdFromAddress(uint32_t host, uint32_t channel, uint32_t target, uint32_t lun) {
    return static_cast<uint64_t>(host & 0xFFFF) << 48 | static_cast<uint64_t>(channel & 0xFFFF) << 32 |
           static_cast<uint64_t>(target & 0xFFFF) << 16 | (lun & 0xFFFF);
}

uint32_t TpgStateFromText(const std::string& s) {
    if (s == "active/optimized") return kTpgActiveOptimized;
    if (s == "active/non-optimized") return kTpgActiveNonOptimized;
    if (s == "standby") return kTpgStandby;
    if (s == "unavailable") return kTpgUnavailable;
    if (s == "lba-dependent") return kTpgLbaDependent;
    if (s == "offline") return kTpgOffline;
    if (s == "transitioning") return kTpgTransitioning;
    return kTpgStateNotUsed;
}

uint32_t PolicyOfMap(const MultipathMap& m) {
    // Values of VDS_LOADBALANCE_POLICY_ENUM.
    if (m.groupCount > 1) {
        bool onePathEach = true;
        for (uint32_t g = 1; g <= m.groupCount && onePathEach; ++g)
            onePathEach = std::count_if(m.paths.begin(), m.paths.end(),
                                        [g](const MultipathPath& p) { return p.group == g; }) <= 1;
        return onePathEach ? 1 /* failover */ : 3 /* round robin with subset */;
    }
    if (m.selector.compare(0, 12, "queue-length") == 0) return 4;  // least queue depth
    if (m.selector.compare(0, 12, "service-time") == 0) return 6;  // least blocks
    return 2;                                                       // round robin
}

int DeviceNumberOf(const std::string& name) {
    size_t at = name.find_first_of("0123456789");
    if (at == std::string::npos) return 0;
    int64_t v = 0;
    for (size_t i = at; i < name.size() && name[i] >= '0' && name[i] <= '9'; ++i)
        v = std::min<int64_t>(v * 10 + (name[i] - '0'), INT32_MAX);
    return static_cast<int>(v);
}

bool ParseMultipathMaps(const std::string& text, std::vector<MultipathMap>* out, std::string* why) {
    out->clear();
    json doc = json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        *why = "not a JSON object";
        return false;
    }
    int64_t major = Number(doc, "major_version", -1);
    if (major != kKnownMajorVersion) {
        *why = "unknown format version " + std::to_string(major);
        return false;
    }
    auto maps = doc.find("maps");
    if (maps == doc.end()) return true;  // no multipath disks
    if (!maps->is_array()) {
        *why = "maps is not a list";
        return false;
    }
    for (const json& jm : *maps) {
        if (out->size() >= kMaxMaps) break;
        if (!jm.is_object()) continue;
        MultipathMap m;
        m.name = Text(jm, "name");
        m.uuid = Text(jm, "uuid");
        m.sysfs = Text(jm, "sysfs");
        m.vendor = Text(jm, "vend");
        m.product = Text(jm, "prod");
        m.revision = Text(jm, "rev");
        if (m.name.empty()) continue;
        auto groups = jm.find("path_groups");
        if (groups != jm.end() && groups->is_array()) {
            for (const json& jg : *groups) {
                if (!jg.is_object()) continue;
                ++m.groupCount;
                if (m.selector.empty()) m.selector = Text(jg, "selector");
                int64_t number = Number(jg, "group", m.groupCount);
                uint32_t group = number >= 1 && number <= 1024 ? static_cast<uint32_t>(number) : m.groupCount;
                bool active = Text(jg, "dm_st") == "active";
                auto paths = jg.find("paths");
                if (paths == jg.end() || !paths->is_array()) continue;
                for (const json& jp : *paths) {
                    if (m.paths.size() >= kMaxPathsPerMap) break;
                    if (!jp.is_object()) continue;
                    MultipathPath p;
                    p.dev = Text(jp, "dev");
                    if (!IsSafeSysfsName(p.dev)) continue;
                    p.dmState = Text(jp, "dm_st");
                    p.checkerState = Text(jp, "chk_st");
                    int64_t pri = Number(jp, "pri", 0);
                    p.priority = static_cast<int>(std::clamp<int64_t>(pri, -1, 1000000));
                    p.group = group;
                    p.groupActive = active;
                    p.hostAdapter = Text(jp, "host_adapter");
                    p.targetName = Text(jp, "target_wwnn");
                    m.paths.push_back(std::move(p));
                }
            }
        }
        out->push_back(std::move(m));
    }
    return true;
}

void AddSysfsFacts(MultipathMap* map) {
    std::string root = Plat()->HostRoot();
    for (MultipathPath& p : map->paths) {
        HostScsiDevice unit;
        if (!FindHostScsiDevice(root, p.dev, &unit)) continue;
        p.haveAddress = true;
        p.host = unit.host, p.channel = unit.channel, p.target = unit.target, p.lun = unit.lun;
        p.pathId = PathIdFromAddress(p.host, p.channel, p.target, p.lun);
        std::string text;
        if (ReadSysfsText(unit.sysPath + "/access_state", &text)) p.tpgState = TpgStateFromText(text);
        if (ReadSysfsText(unit.sysPath + "/preferred_path", &text)) p.preferred = text == "1";
        std::string bytes;
        StandardInquiry inq;
        if (ReadSysfsBytes(unit.sysPath + "/inquiry", 255, &bytes) &&
            ParseStandardInquiry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &inq))
            p.aluaSupport = inq.tpgs;
        std::vector<Designator> ds;
        if (ReadSysfsBytes(unit.sysPath + "/vpd_pg83", 4096, &bytes)) {
            ParseDeviceIdPage(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &ds);
            FindTargetPortGroup(ds, &p.tpgId);
            FindRelativeTargetPort(ds, &p.relativePortId);
        }
        if (map->serial.empty() && ReadSysfsBytes(unit.sysPath + "/vpd_pg80", 255, &bytes))
            ParseUnitSerialPage(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &map->serial);
    }
}

int ReadMultipathMaps(std::vector<MultipathMap>* out) {
    out->clear();
    std::string reply;
    int err = 0;
    if (!Plat()->MultipathCommand("show maps json", &reply, &err)) {
        DebugTrace("multipathd show maps json failed, error %d\n", err);
        return err ? err : EIO;
    }
    std::string why;
    if (!ParseMultipathMaps(reply, out, &why)) {
        DebugTrace("multipathd answered what it can't be: %s\n", why.c_str());
        return EPROTO;
    }
    for (MultipathMap& m : *out) AddSysfsFacts(&m);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The connection

VdsWmiInit::VdsWmiInit() {
    DebugTrace("VdsWmiInit\n");
    g_wmi = WmiConnection{};
    for (int attempt = 0; attempt < 3; ++attempt) {
        g_wmi.locator = true;
        int err = 0;
        g_wmi.service = ReachDaemon(&err);
        if (g_wmi.locator && g_wmi.service) break;
        g_wmi = WmiConnection{};
        DebugTrace("OOP!! Error, pLocG or pSvcG is NULL, will retry\n");
    }
}

VdsWmiInit::~VdsWmiInit() {
    DebugTrace("~VdsWmiInit\n");
    g_wmi = WmiConnection{};
}

bool VdsWmiInit::Connected() { return g_wmi.service; }

// ---------------------------------------------------------------------------------------------
// The readers

namespace VdsWmi {

namespace {

// The maps of the daemon, for a reader inside the scope. 0 with `*none` set when there is no
// service: the reader logs its null and keeps an empty list.
int Enumerate(const char* reader, std::vector<MultipathMap>* maps, bool* none) {
    *none = false;
    if (!VdsWmiInit::Connected()) {
        DebugTrace("VdsWmi::%s pSvcG is null.\n", reader);
        *none = true;
        return 0;
    }
    return ReadMultipathMaps(maps);
}

}  // namespace

int WmiGetMpioDescriptor(std::vector<mpioDescriptor>& out) {
    std::vector<MultipathMap> maps;
    bool none;
    if (int rc = Enumerate("WmiGetMpioDescriptor", &maps, &none)) return rc;
    for (const MultipathMap& m : maps) {
        mpioDescriptor d;
        d.instanceName = Wide(m.name);
        for (const MultipathPath& p : m.paths) {
            if (!p.haveAddress) continue;
            if (d.numPdoInfo >= kPdoSlots) {
                // The original writes past its sixteen slots; the rest are left out here.
                DebugTrace("VdsWmi::WmiGetMpioDescriptor %s has more than %d paths, %s left out\n", m.name.c_str(),
                           static_cast<int>(kPdoSlots), p.dev.c_str());
                continue;
            }
            PdoInformation& pdo = d.PdoInfo[d.numPdoInfo++];
            pdo.PortNumber = p.host, pdo.ScsiPathId = p.channel, pdo.TargetId = p.target, pdo.Lun = p.lun;
            pdo.PathIdentifier = p.pathId;
        }
        out.push_back(std::move(d));
    }
    DebugTrace("VdsWmi::WmiGetMpioDescriptor out (%d entries)\n", static_cast<int>(out.size()));
    return 0;
}

int WmiGetMpioDiskInfo(std::vector<mpioDiskInfo>& out) {
    std::vector<MultipathMap> maps;
    bool none;
    if (int rc = Enumerate("WmiGetMpioDiskInfo", &maps, &none)) return rc;
    for (const MultipathMap& m : maps) {
        mpioDiskInfo d;
        d.SerialNumber = m.serial;
        d.Name = Wide(m.sysfs);
        d.deviceNumber = DeviceNumberOf(m.sysfs);
        out.push_back(std::move(d));
        DebugTrace("VdsWmi::WmiGetMpioDiskInfo add one mpioDiskInfo to mpioDiskInfoVec\n");
    }
    if (!none) WmiAddMpioInstanceNames(out);
    DebugTrace("VdsWmi::WmiGetMpioDiskInfo out (%d entries)\n", static_cast<int>(out.size()));
    return 0;
}

int WmiAddMpioInstanceNames(std::vector<mpioDiskInfo>& disks) {
    std::vector<MultipathMap> maps;
    bool none;
    if (int rc = Enumerate("WmiAddMpioInstanceNames", &maps, &none)) return rc;
    for (const MultipathMap& m : maps) {
        int dev = DeviceNumberOf(m.sysfs);
        std::u16string instance = Wide(m.name);
        DebugTrace("VdsWmi::WmiAddMpioInstanceNames() DevName %s dev %d = %S\n", m.sysfs.c_str(), dev,
                   instance.c_str());
        for (mpioDiskInfo& d : disks) {
            if (d.deviceNumber != dev) continue;
            d.instanceName = instance;
            DebugTrace("VdsWmi::WmiAddMpioInstanceNames() dev %d = %s\n", dev, m.name.c_str());
        }
    }
    return 0;
}

void PrintMpioDsmPathV2(const MpioDsmPathV2& v) {
    DebugTrace("DSMPathCount=%d, instanceName=%ls, LoadBalancePolicy=%d, numDsmPathV2=%d, Version=%d\n",
               v.DSMPathCount, v.instanceName.c_str(), v.LoadBalancePolicy, v.numDsmPathV2, v.Version);
    for (uint32_t i = 0; i < v.numDsmPathV2 && i < kDsmPathV2Slots; ++i) {
        const MpioDsmPathV2Entry& p = v.paths[i];
        DebugTrace("[%d] : ALUASupport=%d, DsmPathId=0x%I64x, FailedPath=%d, OptimizedPath=%d, PathWeight=%d, "
                   "PreferredPath=%d,\n",
                   i, p.ALUASupport, p.DsmPathId, p.FailedPath, p.OptimizedPath, p.PathWeight, p.PreferredPath);
        DebugTrace("PrimaryPath=%d, TargetPortIdentifier=%d, TPGState=%d, SymmetricLUA=%d, TPGIdentifier=%d, "
                   "TPGPreferred=%d\n",
                   p.PrimaryPath, p.TargetPort_Identifier, p.TargetPortGroup_State, p.SymmetricLUA,
                   p.TargetPortGroup_Identifier, p.TargetPortGroup_Preferred);
    }
}

int WmiGetMpioDsmPathV2(std::vector<MpioDsmPathV2>& out) {
    std::vector<MultipathMap> maps;
    bool none;
    if (int rc = Enumerate("WmiGetMpioDsmPathV2", &maps, &none)) {
        DebugTrace("OOP!! VdsWmi::WmiGetMpioDsmPathV2 CreateInstanceEnum return faild.\n");
        return rc;
    }
    for (const MultipathMap& m : maps) {
        MpioDsmPathV2 v;
        v.instanceName = Wide(m.name);
        v.Version = 1;
        v.LoadBalancePolicy = PolicyOfMap(m);
        for (const MultipathPath& p : m.paths) {
            if (!p.haveAddress) continue;
            if (v.numDsmPathV2 >= kDsmPathV2Slots) {
                // The original writes past its sixteen slots; the rest are left out here.
                DebugTrace("VdsWmi::WmiGetMpioDsmPathV2 %s has more than %d paths, %s left out\n", m.name.c_str(),
                           static_cast<int>(kDsmPathV2Slots), p.dev.c_str());
                continue;
            }
            MpioDsmPathV2Entry& e = v.paths[v.numDsmPathV2++];
            e.DsmPathId = p.pathId;
            e.PathWeight = static_cast<uint32_t>(std::max(p.priority, 0));
            e.PrimaryPath = p.groupActive ? 1 : 0;
            e.OptimizedPath = p.tpgState == kTpgStateNotUsed ? e.PrimaryPath : p.tpgState == kTpgActiveOptimized;
            e.PreferredPath = p.preferred ? 1 : 0;
            e.FailedPath = p.dmState == "failed" || p.checkerState == "faulty" ? 1 : 0;
            e.TargetPortGroup_State = p.tpgState;
            e.ALUASupport = p.aluaSupport;
            e.SymmetricLUA = p.aluaSupport == 0 ? 1 : 0;
            e.TargetPortGroup_Preferred = p.preferred ? 1 : 0;
            e.TargetPortGroup_Identifier = static_cast<uint16_t>(p.tpgId);
            e.TargetPort_Identifier = p.relativePortId;
        }
        v.DSMPathCount = v.numDsmPathV2;
        PrintMpioDsmPathV2(v);
        out.push_back(std::move(v));
    }
    return 0;
}

int WmiGetDSMInfo(std::vector<DsmInfo>& out) {
    std::vector<MultipathMap> maps;
    bool none;
    if (int rc = Enumerate("WmiGetDSMInfo", &maps, &none)) return rc;
    for (const MultipathMap& m : maps) {
        DsmInfo d;
        d.instanceName = Wide(m.name);
        d.DsmUniqueId = Fnv64(m.uuid.empty() ? m.name : m.uuid);
        DebugTrace("VdsWmi::WmiGetDsmInfo: dsm uid=%I64x for %S\n", d.DsmUniqueId, d.instanceName.c_str());
        out.push_back(std::move(d));
    }
    return 0;
}

int WmiGetDevicePerf(std::vector<DevicePerf>& out) {
    std::vector<MultipathMap> maps;
    bool none;
    int rc = Enumerate("WmiGetDevicePerf", &maps, &none);
    DebugTrace("VdsWmi::WmiGetDevicePerf enumeration returned %d\n", rc);
    if (rc) return rc;
    for (const MultipathMap& m : maps) {
        if (m.paths.empty()) {
            DebugTrace("OOP!! VdsWmi::WmiGetDevicePerf pclsObj->Get(PerfInfo) varPerfInfo.vt == VT_NULL.\n");
            continue;
        }
        for (const MultipathPath& p : m.paths) {
            if (!p.haveAddress) continue;
            DevicePerf d;
            d.PathId = p.pathId;
            d.PortNumber = p.host, d.ScsiPathId = p.channel, d.TargetId = p.target, d.Lun = p.lun;
            d.Identifier = p.pathId;
            out.push_back(d);
        }
    }
    return 0;
}

int WmiGetPDOInfo(std::vector<PdoInformation>& out) {
    std::vector<mpioDescriptor> descriptors;
    int rc = WmiGetMpioDescriptor(descriptors);
    for (const mpioDescriptor& d : descriptors)
        for (uint32_t i = 0; i < d.numPdoInfo && i < kPdoSlots; ++i) out.push_back(d.PdoInfo[i]);
    DebugTrace("VdsWmi::WmiGetPDOInfo returning %d objects\n", static_cast<int>(out.size()));
    return rc;
}

int WmiGetInitiatorNodeInfo(std::vector<InitiatorNode>& out) {
    std::string text;
    int err = 0;
    if (!Plat()->ReadTextFile(Plat()->HostRoot() + "/etc/iscsi/initiatorname.iscsi", &text, &err)) return err ? err : 1;
    size_t at = 0;
    while (at < text.size() && out.size() < 16) {
        size_t end = text.find('\n', at);
        std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        at = end == std::string::npos ? text.size() : end + 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        const std::string key = "InitiatorName=";
        if (line.compare(0, key.size(), key) != 0) continue;
        std::string name = line.substr(key.size());
        // An iSCSI name is at most 223 bytes.
        if (name.empty() || name.size() > 223) continue;
        out.push_back(InitiatorNode{Wide(name)});
    }
    return 0;
}

}  // namespace VdsWmi

int QueryLBPolicy(std::vector<DsmLoadPolicy>& out) {
    // Its own connection, released at the end.
    int err = 0;
    if (!ReachDaemon(&err)) {
        DebugTrace("Could not connect. Error code = 0x%x\n", err);
        return err ? err : 1;
    }
    std::vector<MultipathMap> maps;
    if (int rc = ReadMultipathMaps(&maps)) return rc;
    for (const MultipathMap& m : maps) {
        DsmLoadPolicy p;
        p.Version = 1;
        p.LoadBalancePolicy = PolicyOfMap(m);
        p.instanceName = Wide(m.name);
        for (const MultipathPath& mp : m.paths) {
            if (!mp.haveAddress || p.DSMPathCount >= kDsmPathSlots) continue;
            DsmPath& d = p.paths[p.DSMPathCount++];
            d.DsmPathId = mp.pathId;
            d.Reserved = 0;
            d.PathWeight = static_cast<uint32_t>(std::max(mp.priority, 0));
            d.PrimaryPath = mp.groupActive ? 1 : 0;
        }
        out.push_back(std::move(p));
    }
    return 0;
}
