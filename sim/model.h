// The emulated array: subsystems of two controllers each, enclosures, drives, vdisks, partitions,
// views, spares, utilities, snapshots, secrets, and a numbered event log per controller.
//
// The model is plain data plus the array's rules. Every operation that changes it returns the
// array's error number (0 = done), writes its events into the owning controller's log and bumps
// the subsystem's version (so that cached encodings are renewed). Nothing here knows about the
// wire: the record encoders (encode.h) and the command handlers read the model.
//
// Time: the model has no clock of its own. Its owner moves `now` forward with AdvanceTo(); the
// utilities (expansion, rebuild, verify) advance with it and finish inside that call.
//
// Not thread-safe: the server guards one model with one mutex.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace trovsim {

using Serial = std::array<uint8_t, 32>;

// Error numbers of the emulated array. 78, 186, 187, 214 and 215 are the array's own numbers that
// the provider knows; the rest are this emulator's choice (listed in sim/README.md).
enum ArrayError : uint32_t {
    kOk = 0,
    kErrBadHandle = 1,          // no controller has this handle
    kErrNotLoggedIn = 2,        // a command before a successful login
    kErrControllerDown = 3,     // the addressed controller is offline
    kErrBadRequest = 4,         // a field of the request is out of range or the payload is short
    kErrUnknownCommand = 5,     // an opcode the array doesn't have
    kErrNotFound = 10,          // no drive, vdisk or partition with this serial
    kErrDriveUnavailable = 11,  // a drive is not free for this use
    kErrBadRaidConfig = 12,     // drive count doesn't suit the RAID level
    kErrBadStripe = 13,
    kErrMixedDrives = 14,
    kErrArrayLimit = 15,        // the controller already holds 32 vdisks
    kErrNotOwner = 16,          // the object belongs to the other controller
    kErrBadName = 17,
    kErrUtilityRunning = 20,
    kErrCannotAbort = 21,
    kErrVdiskOffline = 22,
    kErrInUse = 23,             // a master volume with snapshots, a backing store with masters
    kErrLunInUse = 24,          // the LUN number is taken for that host
    kErrViewLimit = 25,         // 128 custom views on one partition
    kErrBadSize = 26,           // a shrink through expand_part
    kErrStaleTag = 27,          // create_snapshot with a DMS tag that is not the current one
    kErrMasterLimit = 215,      // convert_master_volume past the master volume limit
    kErrNoSpace = 77,           // no free segment large enough
    kErrTooSmall = 78,
    kErrSnapshotsPerMaster = 186,
    kErrSnapshotLimit = 187,
    kErrVdiskPartitionLimit = 214,
    kErrControllerPartitionLimit = 215,
};

// Event codes the emulated array writes. Those the provider reacts to are chosen from its refresh
// and notification tables; the table with texts is in sim/README.md.
enum EventCode : uint32_t {
    kEvVdiskCritical = 1,
    kEvVdiskOffline = 3,
    kEvVdiskCreated = 6,
    kEvDriveDown = 8,          // a member or spare drive went away
    kEvRebuildStarted = 9,
    kEvSpareAdded = 16,
    kEvRebuildDone = 18,
    kEvRescanDone = 19,        // eventParam 24
    kEvVerifyDone = 21,
    kEvVdiskDeleted = 24,
    kEvSettingsChanged = 28,
    kEvSpareRemoved = 31,
    kEvUtilityAborted = 35,
    kEvExpansionStarted = 42,
    kEvVerifyStarted = 43,
    kEvLocateLight = 49,
    kEvExpansionDone = 53,
    kEvDriveUp = 58,
    kEvDriveGone = 62,         // a drive that was in no vdisk went away
    kEvControllerReset = 68,
    kEvControllerDown = 71,
    kEvControllerUp = 72,
    kEvVdiskHealthy = 74,
    kEvVolumeModified = 103,
    kEvVolumeMapping = 105,
    kEvVolumeCreated = 106,
    kEvVolumeDeleted = 108,
    kEvOwnerChanged = 110,
    kEvCacheFlushed = 150,
    kEvSecretsChanged = 151,
};

enum HowUsed : uint8_t {
    kAvailable = 0,
    kMember = 1,
    kDedicatedSpare = 2,
    kPoolSpare = 3,
    kSingle = 4,
    kLeftover = 5,
    kFailedDrive = 7,
};

enum Utility : uint8_t {
    kUtilNone = 0,
    kUtilRebuild = 3,
    kUtilExpansion = 5,
    kUtilVerify = 6,
    kUtilMediaScan = 7,
};

enum RaidLevel : uint8_t {
    kRaid0 = 0, kRaid1 = 1, kRaid2 = 2, kRaid3 = 3, kRaid4 = 4, kRaid5 = 5, kNRaid = 6,
    kRaid30 = 7, kRaid50 = 8, kRaid51 = 9, kRaid10 = 10, kRaid6 = 11,
};

constexpr uint32_t kMaxSubsystems = 7;
constexpr uint32_t kMaxDrives = 250;
constexpr uint32_t kMaxVdisksPerController = 32;
constexpr uint32_t kMaxPartitionsPerVdisk = 128;
constexpr uint32_t kMaxMembers = 68;
constexpr uint32_t kMaxPorts = 8;
constexpr uint32_t kMaxEnclosures = 16;
constexpr uint32_t kMaxViews = 128;
constexpr uint32_t kMaxKnownHosts = 64;
constexpr uint32_t kMaxAdapters = 32;
constexpr uint32_t kMaxBackingStoreEntries = 16;
constexpr uint32_t kMaxMasterEntries = 1024;
constexpr uint32_t kMaxSnapshotEntries = 512;
constexpr uint32_t kEventLogCapacity = 1000;
constexpr uint64_t kMiBBlocks = 2048;  // 1 MiB in 512-byte blocks

struct Drive {
    std::string serial, vendor, product, revision;
    uint8_t type = 4;  // 2 FC, 3 SATA, 4 SAS, ...
    uint64_t blocks = 0;
    uint8_t channel = 0, scsiId = 0, lun = 0, enclosure = 0, slot = 0;
    uint8_t howUsed = kAvailable, downReason = 0, spindleSpeed = 10, useState = 0;
    bool blinking = false;
    bool offline = false;  // pulled or failed: not listed
    uint32_t vdiskId = 0;  // vdisk it serves as member or dedicated spare; 0 = none
};

struct View {
    std::string host;      // initiator name (iSCSI name), or empty for a WWN/address entry
    uint8_t wwn[8] = {};
    uint8_t address[16] = {};
    uint8_t hostType = 1;  // 1 iSCSI name, 16 WWN, 0x40/0x80 address
    uint16_t lun = 0;
    uint8_t access = 0xC0;
};

struct Partition {
    Serial serial{};
    std::string name;
    uint64_t start = 0, blocks = 0;
    uint8_t type = 0;  // 0 standard, 1 backing store, 2 master volume, 3 snapshot
    uint8_t cache[32] = {};
    uint16_t cacheFlags = 0;
    int32_t defaultLun = -1;  // -1: no default (all hosts) view
    uint8_t defaultAccess = 0;
    std::vector<View> views;
    Serial backingStore{};  // a master volume's backing store (its serial)
    Serial master{};        // a snapshot's master volume (its serial)
    // A snapshot takes no space of its own in the vdisk's layout.
    bool TakesSpace() const { return type != 3; }
    uint32_t LunNumber() const;  // the default view's number, else the first custom view's, else all ones
};

struct Vdisk {
    uint32_t id = 0;  // stable number within the subsystem, part of the serial
    Serial serial{};
    std::string name;
    uint8_t raid = kRaid5;
    uint32_t stripeKiB = 64;
    uint32_t drivesPerLeg = 0;  // RAID50/30 only
    std::vector<std::string> members;  // drive serials in position order; "" = missing member
    std::vector<std::string> spares;   // dedicated spares
    uint8_t owner = 1;                 // 1 = A, 0 = B
    uint8_t health = 0;
    uint8_t utility = kUtilNone;
    uint64_t utilityStart = 0, utilityDuration = 0;  // model time, ms
    std::vector<std::string> expanding;  // drives joining with the running expansion
    std::string rebuilding;              // the member being rebuilt
    bool failedOver = false;             // moved to the partner while its owner is offline
    uint64_t capacity = 0;               // blocks
    uint64_t memberBlocks = 0;           // usable blocks per member (the smallest)
    uint8_t driveType = 4;
    uint8_t cache[32] = {};
    uint32_t orderWord = 0;
    std::vector<Partition> parts;  // row order
};

struct Port {
    uint8_t busType = 9;
    uint8_t ipVersion = 4;
    bool linkUp = true;
    uint8_t ip[16] = {}, netmask[16] = {}, gateway[16] = {};  // IPv4 in the last four bytes
    uint32_t tcpPort = 3260;
    uint8_t wwn[8] = {};  // fibre and SAS ports
};

struct EventRecord {
    uint32_t sequence = 0;
    uint32_t code = 0;
    uint32_t errorCode = 0;
    uint32_t controllerHandle = 0;
    uint32_t param = 0;
    Serial driveSerial{};
    Serial partitionSerial{};
    uint8_t owner = 0;
    uint8_t duplicateCount = 0;
    std::string description;
};

struct Controller {
    uint32_t handle = 0;
    uint8_t id = 1;  // 1 = A, 0 = B
    std::string ident, serial, firmware;
    uint8_t ip[4] = {}, mac[6] = {};
    std::vector<Port> ports;
    std::vector<Port> diskPorts;
    uint8_t state = 0;  // controllerState of its record
    bool offline = false;
    uint64_t dmsTag = 1;
    std::deque<EventRecord> log;
    uint32_t nextEvent = 1;
};

struct ChapRecord {
    std::string name, secondName, secret, secondText, thirdText;
    bool operator==(const ChapRecord&) const = default;
};

struct Subsystem {
    std::string uniqueSn;
    uint8_t prefix[3] = {};  // serial bytes 3..5 of every vdisk and partition of this subsystem
    std::string brandName, productId = "R3000i", vendorName = "TROV", vendorId = "TROV";
    std::string iscsiBaseName, systemName;
    bool chapEnabled = false;
    uint8_t hostBusType = 9;
    bool ulp = false;
    uint32_t overheadPerMille = 0;
    uint32_t maxLuns = 256;
    uint32_t maxArrayPartitions = 1024;
    uint8_t allowedDriveType = 1;
    bool raid6 = true;
    uint32_t enclosures = 1, slotsPerEnclosure = 12;
    Controller ctrl[2];  // [0] = A, [1] = B
    std::vector<Drive> drives;
    std::vector<Vdisk> vdisks;
    std::vector<std::string> knownHosts;
    std::string targetSecret;
    std::vector<ChapRecord> chap;
    uint32_t snapshotsPerMaster = 8, snapshotLimit = 64, masterLimit = 16;
    uint32_t nextVdiskId = 1, nextPartitionId = 1;
    uint64_t version = 1;  // bumped by every change of what the records show
    uint64_t needRefreshSeen = 0;  // version last reported by get_need_refresh
};

struct Adapter {
    char typeLetter = 'I';
    uint8_t port = 0;
    uint8_t wwpn[8] = {};
};

struct Timing {
    uint64_t expansionMs = 120000, rebuildMs = 60000, verifyMs = 60000, mediaScanMs = 60000;
};

// Where a handle points.
struct CtrlRef {
    Subsystem* sub = nullptr;
    int index = -1;  // 0 = A, 1 = B
    Controller* c() const { return &sub->ctrl[index]; }
    explicit operator bool() const { return sub != nullptr; }
};

struct PartRef {
    Vdisk* vd = nullptr;
    int index = -1;
    Partition* p() const { return &vd->parts[static_cast<size_t>(index)]; }
    explicit operator bool() const { return vd != nullptr; }
};

// Free space of a vdisk, from its layout.
struct FreeSpace {
    uint64_t total = 0, largest = 0;
    uint32_t segments = 0;
    std::vector<std::pair<uint64_t, uint64_t>> list;  // (start, blocks), rising
};

// Arguments of create_array.
struct CreateArrayArgs {
    std::vector<std::string> serials;                   // members, spares last
    std::vector<std::pair<uint32_t, uint32_t>> locations;  // (channel, scsiId) of the same
    uint32_t numSpares = 0;
    uint8_t raid = kRaid5;
    uint32_t stripeKiB = 64;
    uint32_t drivesPerLeg = 0;
    std::string name;
};

class Model {
public:
    Model() = default;

    // --- building, loading and saving (scenario.cpp) ---
    // Replaces the model with the scenario in `doc`. False and *error set on a malformed document.
    bool Load(const nlohmann::json& doc, std::string* error);
    bool LoadFile(const std::string& path, std::string* error);
    bool LoadBuiltin(const std::string& name, std::string* error);  // "demo" or "max"
    // The whole state, in the same form: loading it gives back an equal model.
    nlohmann::json Save() const;
    bool SaveFile(const std::string& path, std::string* error) const;
    static nlohmann::json DemoScenario();
    static nlohmann::json MaxScenario();

    // --- time ---
    uint64_t now() const { return now_; }
    void AdvanceTo(uint64_t nowMs);  // finishes utilities that are due
    void AdvanceBy(uint64_t ms) { AdvanceTo(now_ + ms); }

    // --- lookups ---
    std::vector<Subsystem>& subsystems() { return subs_; }
    const std::vector<Subsystem>& subsystems() const { return subs_; }
    std::vector<Adapter>& adapters() { return adapters_; }
    Timing& timing() { return timing_; }
    CtrlRef FindController(uint32_t handle);
    Subsystem* FindSubsystem(const std::string& uniqueSn);
    Drive* FindDrive(Subsystem& s, const std::string& serial);
    Drive* FindDriveAt(Subsystem& s, uint32_t channel, uint32_t scsiId);
    Vdisk* FindVdisk(Subsystem& s, const Serial& serial);
    Vdisk* FindVdiskById(Subsystem& s, uint32_t id);
    PartRef FindPartition(Subsystem& s, const Serial& serial);
    // Partitions of the subsystem by their 16-byte id (the first 16 bytes of the serial).
    PartRef FindPartitionById(Subsystem& s, const uint8_t id[16]);
    // The vdisks a controller's record lists, in list order.
    std::vector<Vdisk*> VdisksOf(Subsystem& s, int ctrlIndex);
    uint32_t PartitionCountOf(Subsystem& s, int ctrlIndex);
    // Total of everything that was ever changed (for the state file).
    uint64_t changes() const { return changes_; }

    // --- the array's rules ---
    uint64_t UsableBlocks(const Subsystem& s, const Drive& d) const;
    static uint64_t CapacityFor(uint8_t raid, uint32_t dataDrives, uint32_t drivesPerLeg, uint64_t perDrive);
    static FreeSpace FreeOf(const Vdisk& v);
    // arrayKey of a vdisk serial: bytes 3, 4, 5, 8, 9, 10, 11.
    static std::array<uint8_t, 7> ArrayKey(const Serial& vdiskSerial);
    static Serial VdiskSerial(const Subsystem& s, uint32_t id);
    static Serial PartitionSerial(const Subsystem& s, uint32_t id);
    // Percent done of the vdisk's utility; 100 when none runs.
    uint32_t PercentOf(const Vdisk& v) const;

    // --- commands; each returns an ArrayError ---
    uint32_t CreateArray(CtrlRef c, const CreateArrayArgs& a, Vdisk** out);
    uint32_t DeleteArray(CtrlRef c, const Serial& vdisk);
    uint32_t AddPartition(CtrlRef c, const Serial& vdisk, uint64_t blocks, const std::string& name, uint8_t type,
                          const Serial& backingStore, PartRef* out);
    uint32_t DeletePartition(CtrlRef c, const Serial& part);
    uint32_t ExpandPartition(CtrlRef c, const Serial& vdiskOrZero, const Serial& part, uint64_t newBlocks);
    uint32_t ExpandArray(CtrlRef c, const Serial& vdisk, const std::vector<std::pair<uint32_t, uint32_t>>& locations);
    uint32_t SetPartitionName(CtrlRef c, const Serial& part, const std::string& name);
    uint32_t SetPartitionLun(CtrlRef c, const Serial& part, uint16_t lun);
    uint32_t SetCacheParams(CtrlRef c, const Serial& part, const uint8_t cache[32]);
    uint32_t AssignSpare(CtrlRef c, const std::string& drive, bool on);
    uint32_t BlinkDrive(CtrlRef c, const std::string& drive, bool on);
    uint32_t FlushCache(CtrlRef c, const Serial& serial);
    uint32_t AbortUtility(CtrlRef c, const Serial& vdisk);
    uint32_t SetOwner(CtrlRef c, const Serial& vdisk);
    uint32_t SetSystemName(CtrlRef c, const std::string& name);
    uint32_t ResetController(CtrlRef c);
    uint32_t RescanBus(CtrlRef c);
    // One view entry of create_custom_view. `create` false removes; with `removeAll` and no host
    // every view of the partition goes.
    struct ViewChange {
        Serial part{};
        bool create = true;
        bool removeAll = false;
        View view;
        bool hasHost = false;  // view.host / wwn / address name a host
    };
    uint32_t ChangeView(CtrlRef c, const ViewChange& vc);
    uint32_t CreateSnapshot(CtrlRef c, const std::string& name, uint64_t tag, const uint8_t masterId[16],
                            PartRef* out);
    uint32_t ConvertMasterVolume(CtrlRef c, uint8_t subcommand, const Serial& part, const uint8_t backingId[16]);
    // Secrets: 115 set target secret, 116 clear, 117 per-initiator target secret, 118 initiator's.
    uint32_t SetSecret(CtrlRef c, uint32_t opcode, const ChapRecord& r);
    const ChapRecord* FindSecret(Subsystem& s, const std::string& name);
    // Starts a utility by hand (verify, media scan, rebuild); the array's own rules apply.
    uint32_t StartUtility(Subsystem& s, const Serial& vdisk, uint8_t utility);

    // --- outside interventions (in-process API and command line) ---
    void RaiseEvent(CtrlRef c, uint32_t code, uint32_t param, const Serial* drive, const Serial* part,
                    const std::string& description);
    // Offline: its vdisks fail over to the partner, which logs 71; back online: they fail back, 72.
    uint32_t SetControllerOffline(CtrlRef c, bool offline, uint8_t state = 1);
    uint32_t SetDriveOffline(Subsystem& s, const std::string& serial, bool offline);

    // Event log reads (no change).
    const EventRecord* NewestEvent(CtrlRef c) const;
    std::vector<const EventRecord*> EventsBetween(CtrlRef c, uint32_t first, uint32_t last, size_t max) const;

    // Writes one event into the log of controller `ctrlIndex` of `s` (also used by the commands).
    void Log(Subsystem& s, int ctrlIndex, uint32_t code, uint32_t param, const std::string& description,
             const Serial* drive = nullptr, const Serial* part = nullptr, uint32_t aboutHandle = 0);
    // Marks the subsystem's records as changed.
    void Touch(Subsystem& s);

private:
    void RecomputeHealth(Subsystem& s, Vdisk& v, bool logChange);
    void FinishUtility(Subsystem& s, Vdisk& v);
    void BeginUtility(Vdisk& v, uint8_t utility);
    bool TryStartRebuild(Subsystem& s, Vdisk& v);
    void FreeDrive(Drive& d);
    int OwnerIndex(const Subsystem& s, const Vdisk& v) const;
    bool ControllerServes(CtrlRef c, const Vdisk& v) const;
    void IndexPartitions(Subsystem& s);
    void RecomputeCapacity(Subsystem& s, Vdisk& v);
    bool LunTaken(Subsystem& s, const Vdisk& self, const Partition& p, const View* forHost, uint16_t lun) const;

    std::vector<Subsystem> subs_;
    std::vector<Adapter> adapters_;
    Timing timing_;
    uint64_t now_ = 0;
    uint64_t changes_ = 0;
    // Partition index by serial, per subsystem; rebuilt when stale.
    struct PartIndex {
        uint64_t version = 0;
        std::unordered_map<std::string, std::pair<uint32_t, uint32_t>> bySerial;  // -> (vdisk index, part index)
    };
    std::vector<PartIndex> partIndex_;
};

// Text helpers shared by the encoders and the scenario reader.
std::string SerialHex(const Serial& s, size_t bytes = 32);
bool ParseHex(const std::string& text, uint8_t* out, size_t bytes);
Serial SerialFromText(const std::string& text);  // text copied, zero padded, cut at 32
std::string SerialText(const Serial& s);         // up to the first NUL

}  // namespace trovsim
