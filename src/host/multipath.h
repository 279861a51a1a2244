// The host's multipath facts: device-mapper multipath as its daemon reports it, read into the
// plain records the provider keeps (one per multipath disk: its descriptor, disk info, DSM id,
// load-balance policy and paths).
//
// The source is the daemon's "show maps json" (through Platform::MultipathCommand), with each
// path's facts from sysfs under the host root: its address H:C:T:L, its ALUA access_state and
// preferred_path, its unit's standard inquiry (ALUA support) and page 0x83 (target port group and
// relative target port), and the disk's serial from page 0x80. A path's id is made from its
// address (see PathIdFromAddress), so that the same path has the same id in every record.
//
// The readers keep the names of the management classes they stand in for (VdsWmi::...). They
// work inside a VdsWmiInit scope, which reaches the daemon (three attempts) for as long as one
// gathering lasts. Every count the daemon or sysfs gives is bounded: at most kMaxMaps disks,
// kMaxPathsPerMap paths of a disk read, and the fixed slots of each record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// --- The records ---

struct PdoInformation {
    uint32_t PortNumber = 0, ScsiPathId = 0, TargetId = 0, Lun = 0;
    uint64_t PathIdentifier = 0;
};
constexpr size_t kPdoSlots = 16;

struct mpioDescriptor {
    std::u16string instanceName;
    uint32_t numPdoInfo = 0;
    PdoInformation PdoInfo[kPdoSlots];
};

struct mpioDiskInfo {
    std::string SerialNumber;
    std::u16string Name;
    int deviceNumber = 0;
    std::u16string instanceName;
};

struct DsmPath {  // 24 bytes
    uint64_t DsmPathId;
    uint64_t Reserved;
    uint32_t PathWeight;
    uint32_t PrimaryPath;
};
static_assert(sizeof(DsmPath) == 24);
constexpr size_t kDsmPathSlots = 128;

struct DsmLoadPolicy {
    uint32_t Version = 1;
    uint32_t LoadBalancePolicy = 0;
    uint32_t DSMPathCount = 0;
    uint32_t Reserved = 0;
    std::u16string instanceName;
    DsmPath paths[kDsmPathSlots] = {};
};

struct MpioDsmPathV2Entry {  // 64 bytes
    uint64_t DsmPathId;
    uint64_t Reserved;
    uint32_t PathWeight;
    uint32_t PrimaryPath;
    uint32_t OptimizedPath;
    uint32_t PreferredPath;
    uint32_t FailedPath;
    uint32_t TargetPortGroup_State;
    uint32_t ALUASupport;
    uint8_t SymmetricLUA;
    uint8_t TargetPortGroup_Preferred;
    uint16_t TargetPortGroup_Identifier;
    uint32_t TargetPort_Identifier;
    uint32_t Reserved32;
    uint64_t Reserved64;
};
static_assert(sizeof(MpioDsmPathV2Entry) == 64);
constexpr size_t kDsmPathV2Slots = 16;

struct MpioDsmPathV2 {
    uint32_t numDsmPathV2 = 0;
    uint32_t Version = 0;
    uint32_t LoadBalancePolicy = 0;
    uint32_t DSMPathCount = 0;
    uint32_t Reserved = 0;
    std::u16string instanceName;
    MpioDsmPathV2Entry paths[kDsmPathV2Slots] = {};
};

struct DsmInfo {
    std::u16string instanceName;
    uint64_t DsmUniqueId = 0;
};

struct DevicePerf {
    uint64_t PathId = 0;
    uint32_t PortNumber = 0, ScsiPathId = 0, TargetId = 0, Lun = 0;
    uint64_t Identifier = 0;
    // The counters behind the identifier; nothing reads them.
    uint64_t NumberReads = 0, NumberWrites = 0, BytesRead = 0, BytesWritten = 0;
};

struct InitiatorNode {
    std::u16string iSCSINodeName;
};

// ALUA states of TargetPortGroup_State; 16 stands for "not used" (no ALUA state known).
constexpr uint32_t kTpgActiveOptimized = 0, kTpgActiveNonOptimized = 1, kTpgStandby = 2, kTpgUnavailable = 3,
                   kTpgLbaDependent = 4, kTpgOffline = 0x0E, kTpgTransitioning = 0x0F, kTpgStateNotUsed = 16;

// --- The source ---

struct MultipathPath {
    std::string dev;           // "sdb"
    std::string dmState;       // "active" or "failed"
    std::string checkerState;  // "ready", "faulty", "ghost", ...
    int priority = 0;
    uint32_t group = 0;        // 1-based path group
    bool groupActive = false;  // its group is the one the map uses now
    std::string hostAdapter, targetName;
    // From sysfs; false when the node isn't a SCSI unit of this host.
    bool haveAddress = false;
    uint32_t host = 0, channel = 0, target = 0, lun = 0;
    uint32_t tpgState = kTpgStateNotUsed;
    bool preferred = false;
    uint32_t aluaSupport = 0;  // TPGS of the standard inquiry
    uint32_t tpgId = 0, relativePortId = 0;
    uint64_t pathId = 0;
};

struct MultipathMap {
    std::string name, uuid, sysfs;  // "mpatha", the WWID, "dm-0"
    std::string vendor, product, revision;
    std::string selector;          // of the first group: "round-robin 0", "service-time 0", ...
    uint32_t groupCount = 0;
    std::string serial;            // page 0x80 of the first path that answers one
    std::vector<MultipathPath> paths;
};

constexpr size_t kMaxMaps = 1024;
constexpr size_t kMaxPathsPerMap = 256;
constexpr size_t kMaxMultipathText = 256;

// A path's id from its address: port in bits 48..63, path id, target and LUN 16 bits each below.
uint64_t PathIdFromAddress(uint32_t host, uint32_t channel, uint32_t target, uint32_t lun);
// The ALUA state of a sysfs access_state text; kTpgStateNotUsed for anything else.
uint32_t TpgStateFromText(const std::string& accessState);
// The load-balance policy (VDS_LOADBALANCE_POLICY_ENUM) that a map's grouping and selector give.
uint32_t PolicyOfMap(const MultipathMap& m);

// Parses the daemon's "show maps json" (format 0.x). False with *why for text that isn't JSON,
// a format it doesn't know, or a shape it can't take; fields of the wrong type are left out.
bool ParseMultipathMaps(const std::string& json, std::vector<MultipathMap>* out, std::string* why);
// Adds each path's sysfs facts and the map's serial.
void AddSysfsFacts(MultipathMap* map);
// One attempt at reaching the daemon ("show daemon"); false with *err when it doesn't answer.
bool ReachMultipathDaemon(int* err);
// Asks the daemon and adds the sysfs facts. 0, or an errno-style number on failure.
int ReadMultipathMaps(std::vector<MultipathMap>* out);

// --- The readers, inside a VdsWmiInit scope ---

// The connection of one gathering: three attempts at reaching the daemon, each logged on failure.
class VdsWmiInit {
public:
    VdsWmiInit();
    ~VdsWmiInit();
    VdsWmiInit(const VdsWmiInit&) = delete;
    VdsWmiInit& operator=(const VdsWmiInit&) = delete;
    static bool Connected();
};

namespace VdsWmi {
int WmiGetMpioDescriptor(std::vector<mpioDescriptor>& out);
int WmiGetMpioDiskInfo(std::vector<mpioDiskInfo>& out);
int WmiAddMpioInstanceNames(std::vector<mpioDiskInfo>& disks);
int WmiGetMpioDsmPathV2(std::vector<MpioDsmPathV2>& out);
int WmiGetDSMInfo(std::vector<DsmInfo>& out);
int WmiGetDevicePerf(std::vector<DevicePerf>& out);
int WmiGetPDOInfo(std::vector<PdoInformation>& out);
int WmiGetInitiatorNodeInfo(std::vector<InitiatorNode>& out);
// Prints one disk's V2 path list.
void PrintMpioDsmPathV2(const MpioDsmPathV2& v);
}  // namespace VdsWmi

// Fills the older policy list; connects by itself.
int QueryLBPolicy(std::vector<DsmLoadPolicy>& out);

// The number that stands at the first digit of `name` (0 when it has none), at most INT32_MAX.
int DeviceNumberOf(const std::string& name);
