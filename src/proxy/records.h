// The proxy service's fixed records: layouts, converters, bounded accessors and small helpers.
//
// Every record is a packed struct whose members sit at the exact wire offsets (checked below with
// static_assert), so code reads and writes fields by name and never by raw offset. The structs
// have alignment 1: they may be laid over any byte pointer, e.g. a reply inside the packet buffer.
// Reading a member by value is right at any address. 16- and 32-bit members sit at offsets of
// their own alignment, so they may be bound to references when the record starts at a multiple
// of 4 (as every record the service sends does); 64-bit members are RecU64, safe anywhere.
//
// Byte order. On the wire every 16- and 32-bit integer is big-endian and a 64-bit value travels as
// two big-endian words, low word first. A record is converted in place, once, by the converter of
// its type; afterwards every integer member holds its host-order value and a 64-bit member reads
// as one little-endian u64. Members named unreadNNN are swapped by the converter and read by
// nobody; members named reservedNNN are never touched. Bytes, characters, serials, WWNs and
// addresses are not converted. Three words stay exactly as delivered, on purpose:
// DriveData::realBlockCountHigh, ControllerSection::maxLuns and ::maxArrayPartitions.
//
// Converters take (direction, record): 1 before sending, 0 after receiving. They swap every
// multi-byte field unconditionally, so applying direction 1 and then 0 gives back the original
// record. Direction matters only where a count chooses how many entries are walked (the view
// tables of PartitionView): the count is read before it is swapped when sending and after when
// receiving. The big tables of ControllerData (drives, arrays, partitions, enclosures, ports) are
// always converted whole, whatever their counts say.
//
// Counts from the wire are untrusted. Every count that indexes a table has a bounded accessor
// (driveCount(), arrayCount(), ...) that clamps it to the table's capacity and logs one line when
// it had to; the raw member keeps the delivered value. Index accessors (drive(i), ...) never reach
// outside the record either.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "records are read as little-endian after conversion");

// ---------------------------------------------------------------------------------------------
// Enumerations of the array.

// DriveData::howUsed
constexpr uint8_t TROV_HOWUSED_AVAILABLE = 0;
constexpr uint8_t TROV_HOWUSED_MEMBER = 1;
constexpr uint8_t TROV_HOWUSED_DEDICATED_SPARE = 2;
constexpr uint8_t TROV_HOWUSED_POOL_SPARE = 3;
constexpr uint8_t TROV_HOWUSED_SINGLE = 4;
constexpr uint8_t TROV_HOWUSED_LEFTOVER = 5;
constexpr uint8_t TROV_HOWUSED_FAILED = 7;  // has no log word; treated as failed

// DriveData::type, ArrayData::driveType
constexpr uint8_t TROV_DRIVE_FC = 2;
constexpr uint8_t TROV_DRIVE_SATA = 3;
constexpr uint8_t TROV_DRIVE_SAS = 4;
constexpr uint8_t TROV_DRIVE_SATA_FAMILY = 5;
constexpr uint8_t TROV_DRIVE_SAS_FAMILY = 6;
constexpr uint8_t TROV_DRIVE_SSD_SATA = 7;
constexpr uint8_t TROV_DRIVE_SSD_SAS = 8;
constexpr uint8_t TROV_DRIVE_SSD_SATA_FAMILY = 9;
constexpr uint8_t TROV_DRIVE_SSD_SAS_FAMILY = 10;

// ArrayData::raidLevel
constexpr uint8_t TROV_RAID0 = 0;
constexpr uint8_t TROV_RAID1 = 1;
constexpr uint8_t TROV_RAID2 = 2;
constexpr uint8_t TROV_RAID3 = 3;
constexpr uint8_t TROV_RAID4 = 4;
constexpr uint8_t TROV_RAID5 = 5;
constexpr uint8_t TROV_NRAID = 6;
constexpr uint8_t TROV_RAID30 = 7;
constexpr uint8_t TROV_RAID50 = 8;
constexpr uint8_t TROV_RAID51 = 9;
constexpr uint8_t TROV_RAID10 = 10;
constexpr uint8_t TROV_RAID6 = 11;

// ArrayData::health: 0 fault tolerant; 1, 2 lost redundancy; 3..6 not serving; 7 not serving,
// health unknown; above 7 unknown.
constexpr uint8_t TROV_HEALTH_FAULT_TOLERANT = 0;
constexpr uint8_t TROV_HEALTH_DEGRADED = 1;
constexpr uint8_t TROV_HEALTH_CRITICAL = 2;
constexpr uint8_t TROV_HEALTH_OFFLINE_FIRST = 3;
constexpr uint8_t TROV_HEALTH_OFFLINE_LAST = 6;
constexpr uint8_t TROV_HEALTH_OFFLINE_UNKNOWN = 7;

// ArrayData::utilityRunning
constexpr uint8_t TROV_UTILITY_NONE = 0;
constexpr uint8_t TROV_UTILITY_2 = 2;  // forbids an expansion
constexpr uint8_t TROV_UTILITY_RECONSTRUCT = 3;
constexpr uint8_t TROV_UTILITY_4 = 4;  // forbids an expansion
constexpr uint8_t TROV_UTILITY_EXPAND = 5;
constexpr uint8_t TROV_UTILITY_VERIFY = 6;
constexpr uint8_t TROV_UTILITY_MEDIA_SCAN = 7;

// PartitionData::partitionType; 4 and up are never shown to the host, nor is 1.
constexpr uint8_t TROV_PART_STANDARD = 0;
constexpr uint8_t TROV_PART_BACKING_STORE = 1;
constexpr uint8_t TROV_PART_MASTER_VOLUME = 2;
constexpr uint8_t TROV_PART_SNAPSHOT = 3;

// PortData::busType, UnifiedControllerData::hostBusType
constexpr uint8_t TROV_BUS_FC4 = 4;  // 4, 5, 6: the fibre family
constexpr uint8_t TROV_BUS_FC5 = 5;
constexpr uint8_t TROV_BUS_FC6 = 6;
constexpr uint8_t TROV_BUS_UNNAMED = 7;  // an unknown port
constexpr uint8_t TROV_BUS_SAS = 8;
constexpr uint8_t TROV_BUS_ISCSI = 9;

// ControllerData::controllerState
constexpr uint8_t TROV_CTRL_STATE_NORMAL = 0;
constexpr uint8_t TROV_CTRL_STATE_NOT_SERVING = 1;  // reachable; drives and volumes not listed
constexpr uint8_t TROV_CTRL_STATE_NO_CONFIG2 = 2;   // 2 and 3: no usable configuration
constexpr uint8_t TROV_CTRL_STATE_NO_CONFIG3 = 3;

// ControllerSection::capabilities, ParamBlock::controllerMode
constexpr uint32_t TROV_CAPABILITY_RAID6 = 0x00200000;
constexpr uint8_t TROV_CONTROLLER_MODE_AA_DUAL_PORT_ULP = 8;

// DriveData::containerIndex / driveIndex of a drive in no array; ArrayData member "missing" pair.
constexpr uint8_t TROV_NO_INDEX = 0xFF;
constexpr uint32_t TROV_MEMBER_MISSING = 0xFFFFFFFF;

constexpr uint32_t TROV_BLOCK_SIZE = 512;

namespace rec {

// Table capacities.
constexpr uint32_t kMaxPorts = 8;  // host ports, and drive-side channels
constexpr uint32_t kMaxEnclosures = 16;
constexpr uint32_t kMaxDrives = 250;
constexpr uint32_t kMaxArrays = 32;
constexpr uint32_t kMaxPartitionsPerArray = 128;
constexpr uint32_t kMaxMembers = 68;
constexpr uint32_t kMaxViews = 128;
constexpr uint32_t kMaxKnownHosts = 64;
constexpr uint32_t kMaxHbaEntries = 32;
constexpr uint32_t kMaxEvents = 100;  // records one get_events reply is read into
constexpr uint32_t kMaxBackingStores = 16;
constexpr uint32_t kMaxMasterVolumes = 1024;
constexpr uint32_t kMaxSnapshots = 512;

// Record sizes.
constexpr size_t kControllerDataSize = 2520884;
constexpr size_t kControllerViewSize = 22648;
constexpr size_t kControllerSectionSize = 22628;
constexpr size_t kParamBlockSize = 284;
constexpr size_t kPortDataSize = 1284;
constexpr size_t kPortInterfaceSize = 624;
constexpr size_t kAdvNetSize = 2060;
constexpr size_t kEnclosureDataSize = 4072;
constexpr size_t kDriveDataSize = 212;
constexpr size_t kArrayDataSize = 1604;
constexpr size_t kArrayConfigSize = 344;
constexpr size_t kPartitionDataSize = 568;
constexpr size_t kCacheParamsSize = 32;
constexpr size_t kUnifiedControllerDataSize = 55732;
constexpr size_t kSystemInfoSize = 3076;
constexpr size_t kPartitionViewSize = 37408;
constexpr size_t kEventDataSize = 412;
constexpr size_t kKnownHostListSize = 63560;
constexpr size_t kKnownHostEntrySize = 992;
constexpr size_t kHbaInfoListSize = 58116;
constexpr size_t kHbaInfoEntrySize = 1816;
constexpr size_t kExpandPartRequestSize = 296;
constexpr size_t kBackingStoreEntrySize = 80;
constexpr size_t kVolumeEntrySize = 88;  // master volume and snapshot lists
constexpr size_t kSerialSize = 32;
constexpr size_t kArrayKeySize = 7;
constexpr size_t kDriveBlockSize = 12;

// Where records sit in their replies, as packet offsets (the payload begins at 36).
constexpr size_t kPktControllerData = 36;
constexpr size_t kPktEventCount = 56;  // get_events: u32 count of the records that follow
constexpr size_t kPktEventData = 68;
constexpr size_t kPktPartitionData = 196;  // add_array_part reply
constexpr size_t kPktArrayData = 2980;     // create_array reply
constexpr size_t kPktPartitionView = 84;   // payload offset 48
constexpr size_t kPktUnifiedControllerData = 48;
constexpr size_t kPktKnownHostList = 52;
constexpr size_t kPktHbaInfoList = 44;
constexpr size_t kPktExpandPartRequest = 52;
constexpr size_t kPktBackingStoreCount = 52;
constexpr size_t kPktBackingStoreEntries = 60;
constexpr size_t kPktVolumeListCount = 84;  // master volume and snapshot lists
constexpr size_t kPktVolumeListEntries = 92;
constexpr size_t kPktSnapshotResult = 912;
constexpr size_t kSnapshotResultSize = 264;
constexpr uint32_t kMaxSnapshotSerials = 8;

}  // namespace rec

// The text of a fixed-width character field: up to the first NUL, never past the width.
template <size_t N>
inline std::string_view RecordText(const char (&field)[N]) {
    return std::string_view(field, strnlen(field, N));
}
template <size_t N>
inline std::string_view RecordText(const uint8_t (&field)[N]) {
    const char* p = reinterpret_cast<const char*>(field);
    return std::string_view(p, strnlen(p, N));
}
// Copies `text` into a fixed-width field, cut to N-1 characters, NUL-padded.
template <size_t N>
inline void SetRecordText(char (&field)[N], std::string_view text) {
    size_t n = text.size() < N - 1 ? text.size() : N - 1;
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), n);
}
template <size_t N>
inline void SetRecordText(uint8_t (&field)[N], std::string_view text) {
    size_t n = text.size() < N - 1 ? text.size() : N - 1;
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), n);
}

// A 64-bit value inside a record, in host order once converted. Records place these at offsets
// that are not multiples of 8 (every PartitionData in ControllerData, every other ArrayData), so
// a plain uint64_t member there could not be bound to a reference (std::min, EXPECT_EQ) without
// undefined behaviour. This type has alignment 1 and reads and assigns like a uint64_t; pass
// value() to printf-style calls.
struct RecU64 {
    uint8_t bytes[8];

    uint64_t value() const {
        uint64_t v;
        std::memcpy(&v, bytes, 8);
        return v;
    }
    operator uint64_t() const { return value(); }
    RecU64& operator=(uint64_t v) {
        std::memcpy(bytes, &v, 8);
        return *this;
    }
};
static_assert(sizeof(RecU64) == 8 && alignof(RecU64) == 1);

#pragma pack(push, 1)

// ---------------------------------------------------------------------------------------------
// Pieces of the controller section.

// Parameter block (284 bytes). controllerMode is read in the first block (controllerParams),
// overheadPerMille, macAddress and ipAddress in the second (activeParams).
struct ParamBlock {
    uint32_t unread0[2];
    uint8_t reserved8[14];
    uint8_t controllerMode;  // 22, bit set; TROV_CONTROLLER_MODE_AA_DUAL_PORT_ULP
    uint8_t reserved23;
    uint32_t overheadPerMille;  // 24, parts per thousand of raw capacity held back
    uint8_t reserved28[182];
    uint8_t macAddress[6];  // 210
    uint8_t ipAddress[4];   // 216, first octet first
    uint8_t reserved220[28];
    uint32_t unread248;
    uint8_t reserved252[4];
    uint32_t unread256;
    uint32_t unread260;
    uint8_t reserved264[4];
    uint32_t unread268;
    uint8_t reserved272[4];
    uint32_t unread276;
    uint8_t reserved280[4];
};

// Port statistics (72 bytes): a u32, twelve u16 (groups of 5, 5 and 2, back to back), a u32 at 44.
struct PortStats {
    uint32_t unread0;
    uint16_t unread4[12];
    uint8_t reserved28[16];
    uint32_t unread44;
    uint8_t reserved48[24];
};

// A u16 in the first two bytes of a 4-byte slot.
struct U16Slot4 {
    uint16_t value;
    uint8_t reserved2[2];
};
// A u16 in the first two bytes of a 16-byte slot.
struct U16Slot16 {
    uint16_t value;
    uint8_t reserved2[14];
};

struct DriveSummaryEntry {
    uint32_t unread0[3];
    uint8_t reserved12[4];
};
// Drive summary (368 bytes). Only totalDrives is read: the loop bound of the member matching.
struct DriveSummary {
    uint32_t unread0[2];
    uint32_t totalDrives;  // +8
    uint32_t unread12[2];
    uint8_t reserved20[48];
    DriveSummaryEntry entries[16];  // +68
    uint8_t reserved324[4];
    uint32_t unread328;
    uint8_t reserved332[36];
};

// Drive bus information (280 bytes in the controller section; the unified record holds a
// 268-byte span of the same shape). The u16 group is the six words at +0.
struct DriveBusInfo {
    uint16_t unread0[6];
    uint8_t allowedDriveType;  // +12
    uint8_t reserved13[67];
    uint32_t unread80[2];
    uint8_t reserved88[192];
};
struct DriveBusInfoShort {
    uint16_t unread0[6];
    uint8_t allowedDriveType;
    uint8_t reserved13[67];
    uint32_t unread80[2];
    uint8_t reserved88[180];
};

// ---------------------------------------------------------------------------------------------
// PortData (1,284 bytes) and its interface union, chosen by busType.

struct FcInterface {  // busType 4, 5, 6
    uint8_t linkUp;   // nonzero = link up
    uint8_t reserved1[515];
    uint16_t unread516;  // type 6 only
    uint8_t reserved518[2];
    uint32_t unread520;  // type 6 only
    uint8_t reserved524[8];
    uint8_t portWwn[8];  // 532
    uint8_t reserved540[32];
    uint32_t unread572;  // type 6 only
    uint8_t reserved576[48];
};
struct UnnamedInterface {  // busType 7
    uint8_t reserved0[4];
    uint16_t unread4;
    uint16_t unread6;
    uint8_t reserved8[4];
    uint32_t unread12;
    uint8_t reserved16[608];
};
struct SasInterface {  // busType 8
    uint8_t linkUp;    // nonzero = port present
    uint8_t reserved1[7];
    uint8_t sasAddress[8];  // 8
    uint8_t reserved16[10];
    uint8_t phyCount;  // 26; the port is up only if linkUp and phyCount > 0
    uint8_t reserved27[597];
};
// iSCSI (busType 9). Addresses are 16 bytes; an IPv4 address is the last four bytes, converted
// as one u32, after which they hold the first octet at the lowest address.
struct IscsiInterface {
    uint8_t ipVersion;  // 4 or 6
    uint8_t linkUp;
    uint8_t reserved2[2];
    uint8_t ipAddress[16];  // 4; IPv4 word at 16
    uint8_t netmask[16];    // 20; IPv4 word at 32
    uint8_t gateway[16];    // 36; IPv4 word at 48
    uint32_t servicePort;   // 52; 0 = default (3260 for IPv4)
    uint8_t reserved56[256];
    uint32_t unread312;  // words of the second address block
    uint8_t reserved316[12];
    uint32_t unread328;
    uint8_t reserved332[12];
    uint32_t unread344;
    uint32_t unread348;
    uint8_t reserved352[272];

    const uint8_t* ipv4() const { return ipAddress + 12; }
    const uint8_t* netmaskIpv4() const { return netmask + 12; }
    const uint8_t* gatewayIpv4() const { return gateway + 12; }
    uint8_t* ipv4() { return ipAddress + 12; }
    uint8_t* netmaskIpv4() { return netmask + 12; }
    uint8_t* gatewayIpv4() { return gateway + 12; }
};
union PortInterface {
    FcInterface fc;
    UnnamedInterface unnamed;
    SasInterface sas;
    IscsiInterface iscsi;
    uint8_t raw[624];
};

struct LinkStats {
    uint8_t reserved0[108];
    uint16_t unread108;
    uint8_t reserved110[12];
    uint16_t unread122;
    uint8_t reserved124[10];
    uint16_t unread134;
    uint8_t reserved136[92];
};

struct PortData {
    uint32_t unread0;
    uint8_t reserved4[132];
    PortInterface interface;  // 136
    LinkStats linkStats[2];   // 760
    uint8_t busType;          // 1216
    uint8_t reserved1217[2];
    uint8_t maxDevices;  // 1219, slots on this channel (read on diskPorts[0])
    uint8_t reserved1220[4];
    uint32_t unread1224[2];
    uint8_t reserved1232[52];

    bool isFibre() const { return busType >= TROV_BUS_FC4 && busType <= TROV_BUS_FC6; }
    bool isSas() const { return busType == TROV_BUS_SAS; }
    bool isIscsi() const { return busType == TROV_BUS_ISCSI; }
};

// ---------------------------------------------------------------------------------------------
// The controller section (22,628 bytes, at 20 of ControllerData). Comments give the offset in
// ControllerData.
struct ControllerSection {
    uint32_t unread20[2];
    uint32_t numPorts;         // 28, host ports in ports[]; see ControllerData::portCount()
    uint32_t numDiskChannels;  // 32, low 16 bits used; see ControllerData::diskChannelCount()
    uint32_t unread36;
    uint32_t capabilities;  // 40, TROV_CAPABILITY_RAID6
    uint32_t unread44;
    U16Slot4 unread48[4];
    ParamBlock controllerParams;  // 64
    ParamBlock activeParams;      // 348
    PortStats portStats;          // 632
    uint8_t controllerId;         // 704: 1 = controller "A", 0 = "B"
    uint8_t reserved705[99];
    uint32_t unread804;
    uint8_t reserved808[96];
    PortData ports[8];      // 904, host side
    PortData diskPorts[8];  // 11176, drive side
    uint8_t reserved21448[40];
    char firmwareRevision[20];  // 21488
    char controllerSerial[80];  // 21508
    char controllerIdent[36];   // 21588
    uint32_t unread21624;
    uint8_t reserved21628[8];
    DriveSummary driveSummary;  // 21636; totalDrives at 21644
    uint32_t unread22004;
    uint8_t reserved22008[100];
    uint32_t unread22108[4];
    uint8_t reserved22124[20];
    U16Slot16 unread22144[4];
    uint8_t reserved22208[124];
    DriveBusInfo driveBusInfo;  // 22332; allowedDriveType at 22344
    uint32_t maxLuns;           // 22612, never converted
    uint8_t reserved22616[4];
    uint32_t maxArrayPartitions;  // 22620, never converted
    uint8_t reserved22624[24];

    // Half of maxArrayPartitions, as delivered.
    uint32_t maxPartitionPerController() const { return maxArrayPartitions / 2; }
    bool supportsRaid6() const { return (capabilities & TROV_CAPABILITY_RAID6) != 0; }
    bool dualPortUlp() const {
        return (controllerParams.controllerMode & TROV_CONTROLLER_MODE_AA_DUAL_PORT_ULP) != 0;
    }
};

// A controller view (22,648 bytes): the opening of ControllerData and its controller section. The
// unified record holds two of them.
struct ControllerView {
    uint32_t reservedWord;  // 0, converted, not read
    uint32_t error_code;    // 4
    int32_t unread8[2];
    uint32_t unread16;
    ControllerSection controller;  // 20
};

// ---------------------------------------------------------------------------------------------
// advNet, the system settings record (2,060 bytes); also the body of SET_ADV_NET, where the
// provider writes systemName and sends the other named words as zero.
struct AdvNet {
    uint32_t zero0;
    uint8_t reserved4[348];
    uint32_t zero352;
    char systemName[80];  // 356
    uint8_t reserved436[1316];
    uint16_t zero1752[2];
    uint8_t reserved1756[36];
    uint32_t zero1792;
    uint8_t reserved1796[128];
    uint32_t zero1924[8];
    uint8_t reserved1956[104];
};

// ---------------------------------------------------------------------------------------------
// EnclosureData (4,072 bytes); only numDrives is read, on enclosures[0].
struct EnclosureData {
    uint8_t reserved0[180];
    uint8_t numDrives;  // 180, drive slots of this enclosure
    uint8_t reserved181[67];
    struct {
        uint16_t value;
        uint8_t reserved2[6];
    } unread248[8];
    uint8_t reserved312[158];
    U16Slot4 unread470[40];
    uint8_t reserved630[3138];
    uint32_t unread3768[4];
    uint8_t reserved3784[288];
};

// ---------------------------------------------------------------------------------------------
// DriveData (212 bytes).
struct DriveData {
    uint32_t realBlockCount;  // 0, low word of the capacity in blocks
    char serialNumber[33];    // 4, the drive's key; compared over 32 bytes
    char vendor[9];           // 37
    char product[17];         // 46
    char revision[5];         // 63
    uint8_t howUsed;          // 68, TROV_HOWUSED_*
    uint8_t channel;          // 69
    uint8_t reserved70;
    uint8_t containerIndex;  // 71, 0xFF = in no container
    uint8_t arrayPosition;   // 72, bit 0: the half of a mirror
    uint8_t type;            // 73, TROV_DRIVE_*
    uint8_t useState;        // 74, 3 = taken into an array's service
    uint8_t blinking;        // 75
    uint16_t unread76;
    uint8_t scsiId;  // 78
    uint8_t lun;     // 79
    uint8_t reserved80[8];
    uint32_t unread88;
    uint32_t unread92;
    uint8_t reserved96[16];
    uint32_t unread112;
    uint8_t reserved116[20];
    uint32_t unread136;
    uint32_t unread140;
    uint8_t reserved144[16];
    uint32_t unread160;
    uint8_t reserved164[20];
    uint32_t unread184;
    uint8_t downReason;  // 188, read when howUsed is 5
    uint8_t arrayKey[7];  // 189, bytes 3,4,5,8,9,10,11 of the array's serialNumber
    uint8_t reserved196;
    uint8_t driveIndex;       // 197, 0xFF = no position in an array
    uint8_t spindleSpeed;     // 198, thousands per minute
    uint8_t enclosureNumber;  // 199
    uint8_t slotNumber;       // 200
    uint8_t reserved201[3];
    uint32_t realBlockCountHigh;  // 204, high word, used as delivered (never converted)
    uint8_t reserved208[4];

    // Capacity in 512-byte blocks: (realBlockCountHigh << 32) + realBlockCount.
    uint64_t blockCount() const { return (uint64_t(realBlockCountHigh) << 32) + realBlockCount; }
    // driveBlock: the twelve bytes 189..200 (arrayKey to slotNumber) as one block.
    const uint8_t* driveBlock() const { return reinterpret_cast<const uint8_t*>(this) + 189; }
    uint8_t* driveBlock() { return reinterpret_cast<uint8_t*>(this) + 189; }
};

// ---------------------------------------------------------------------------------------------
// Cache block (32 bytes) of arrays and partitions: only its first two words are converted.
struct CacheParams {
    uint32_t word0;
    uint32_t word4;
    uint8_t byte8;
    uint8_t writeBack;   // byte 9: write-back enabled
    uint8_t sequential;  // byte 10: sequential optimisation
    uint8_t reserved11[21];
};

// ArrayConfig (344 bytes), in ArrayData at 64 and in PartitionData at 116; converted, not read.
struct ArrayConfigEntry {
    uint16_t unread0;
    uint16_t unread2;
    uint32_t unread4;
    uint8_t reserved8[16];
};
struct ArrayConfig {
    uint32_t unread0;
    uint32_t unread4[2];
    uint32_t unread12;
    uint32_t unread16[12];
    uint32_t unread64[12];
    ArrayConfigEntry entries[8];  // 112
    uint8_t reserved304[40];
};

struct ArrayMember {
    uint32_t unread0;
    uint32_t channelIndex;  // +4
    uint32_t driveIndex;    // +8
    uint8_t reserved12[4];

    // Missing only when both indices are 0xFFFFFFFF.
    bool missing() const { return channelIndex == TROV_MEMBER_MISSING && driveIndex == TROV_MEMBER_MISSING; }
};

// ArrayData, the vdisk record (1,604 bytes).
struct ArrayData {
    RecU64 blockCapacity;  // 0, blocks
    uint32_t unread8;
    uint32_t numDrives;       // 12, member drives; see memberCount()
    uint32_t numSpares;       // 16
    uint32_t stripeKiB;       // 20
    uint32_t minDriveBlocks;  // 24
    uint32_t arrayOrderWord;  // 28
    CacheParams cacheParams;  // 32
    ArrayConfig arrayConfig;  // 64
    ArrayMember members[68];  // 408
    char name[32];            // 1496
    uint8_t serialNumber[32];  // 1528, the array's key
    uint8_t reserved1560;
    uint8_t health;          // 1561, TROV_HEALTH_*
    uint8_t utilityRunning;  // 1562, TROV_UTILITY_*
    uint8_t raidLevel;       // 1563, TROV_RAID*
    uint8_t reserved1564;
    uint8_t owner;  // 1565, 1 = A, 0 = B
    uint8_t reserved1566;
    uint8_t numArrayPartitions;  // 1567, partitions in use in this array's row; see partitionCount()
    uint32_t unread1568;
    RecU64 remainingBlocks;              // 1572
    uint8_t numDrivesPerLowLevelArray;   // 1580
    uint8_t reserved1581[2];
    uint8_t numFreeArrayPartitionSegments;  // 1583
    RecU64 largestFreeSegment;              // 1584, blocks
    uint8_t driveType;                      // 1592, TROV_DRIVE_*
    uint8_t reserved1593[3];
    uint32_t noFreeSegment;  // 1596, read as a flag
    uint8_t reserved1600[4];

    // numDrives bounded by the 68 member slots (logs once when clamped).
    uint32_t memberCount() const;
    // numArrayPartitions bounded by the 128 slots of the row (logs once when clamped).
    uint32_t partitionCount() const;
    // A member slot; an index past 67 gives the last slot (and a log line).
    const ArrayMember& member(uint32_t i) const;
};

// ---------------------------------------------------------------------------------------------
// PartitionData, a volume (568 bytes).
struct PartitionData {
    RecU64 startBlock;  // 0
    RecU64 blockCount;  // 8
    uint32_t lunNumber;   // 16
    char name[64];        // 20, empty = slot not in use
    uint8_t PartSn[32];   // 84, the partition's key
    ArrayConfig arrayConfig;  // 116
    CacheParams cacheParams;  // 460
    uint32_t unread492[2];
    uint8_t reserved500[2];
    uint16_t cacheFlags;  // 502
    uint16_t unread504[2];
    uint32_t unread508[2];
    uint8_t reserved516;
    uint8_t partitionType;  // 517, TROV_PART_*
    uint8_t reserved518[50];

    bool inUse() const { return name[0] != '\0'; }
};

// ---------------------------------------------------------------------------------------------
// ControllerData, the reply of GET_CONTROLLER (2,520,884 bytes). Far too large for a stack:
// allocate it on the heap.
struct ControllerData {
    uint32_t reservedWord;  // 0, converted, not read
    uint32_t error_code;    // 4
    int32_t unread8[2];
    uint32_t unread16;
    ControllerSection controller;  // 20
    AdvNet advNet;                 // 22648
    uint32_t enclosureCount;       // 24708; see enclosureCountBounded()
    EnclosureData enclosures[16];  // 24712
    uint32_t unread89864[10];
    uint32_t numDrives;                   // 89904; see driveCount()
    DriveData drives[250];                // 89908
    uint32_t numArrays;                   // 142908; see arrayCount()
    ArrayData arrays[32];                 // 142912
    uint32_t parititionCount;             // 194240, partitions in all arrays
    PartitionData partitions[32][128];    // 194244
    char UniqueSN[32];                    // 2520772
    uint8_t controllerState;              // 2520804, TROV_CTRL_STATE_*
    uint8_t reserved2520805[79];

    // Bounded counts: each clamps to its table and logs one line when the delivered value is
    // larger. The raw member keeps what was delivered.
    uint32_t driveCount() const;             // numDrives, at most 250
    uint32_t arrayCount() const;             // numArrays, at most 32
    uint32_t portCount() const;              // numPorts, at most 8
    uint32_t diskChannelCount() const;       // low 16 bits of numDiskChannels, at most 8
    uint32_t enclosureCountBounded() const;  // enclosureCount, at most 16
    uint32_t totalDrivesBounded() const;     // driveSummary.totalDrives, at most 250
    // Partitions in use in array i's row: arrays[i].partitionCount().
    uint32_t partitionCountOf(uint32_t arrayIndex) const;

    // Table entries. An index past the table's end gives its last slot (and a log line), so no
    // index ever reaches outside the record.
    const DriveData& drive(uint32_t i) const;
    DriveData& drive(uint32_t i);
    const ArrayData& array(uint32_t i) const;
    ArrayData& array(uint32_t i);
    const PartitionData& partition(uint32_t arrayIndex, uint32_t partIndex) const;
    PartitionData& partition(uint32_t arrayIndex, uint32_t partIndex);
    const PortData& port(uint32_t i) const;
    PortData& port(uint32_t i);
    const PortData& diskPort(uint32_t i) const;
    PortData& diskPort(uint32_t i);
    const EnclosureData& enclosure(uint32_t i) const;
    EnclosureData& enclosure(uint32_t i);

    bool dualPortUlp() const { return controller.dualPortUlp(); }
    uint32_t overheadPerMille() const { return controller.activeParams.overheadPerMille; }
    uint8_t allowedDriveType() const { return controller.driveBusInfo.allowedDriveType; }
};

// ---------------------------------------------------------------------------------------------
// systemInfo (3,076 bytes) of the unified record; systemName and chapEnabled are read in [1].
struct SystemInfo {
    uint8_t reserved0[76];
    uint32_t unread76;
    uint8_t reserved80[384];
    char systemName[80];  // 464
    uint8_t reserved544[936];
    uint32_t unread1480;
    uint8_t reserved1484[36];
    uint32_t unread1520;
    uint8_t reserved1524[128];
    uint16_t unread1652[2];
    uint8_t reserved1656[4];
    uint32_t unread1660[8];
    uint8_t reserved1692[160];
    uint32_t unread1852[2];
    uint8_t reserved1860[16];
    uint32_t unread1876;
    uint8_t reserved1880[176];
    uint32_t unread2056[4];
    uint8_t reserved2072[17];
    uint8_t chapEnabled;  // 2089
    uint8_t reserved2090[986];
};

// UnifiedControllerData, the reply record of GET_UNIFIED_CONTROLLER (55,732 bytes, at payload
// offset 12 of a 55,748-byte payload).
struct UnifiedControllerData {
    uint8_t reserved0[20];
    char brandName[20];   // 20, may be empty
    char productId[20];   // 40
    char vendorName[20];  // 60, used when brandName is empty
    char vendorId[8];     // 80, 8 characters, not terminated
    uint8_t reserved88[120];
    uint32_t unread208;
    uint32_t unread212;
    uint8_t reserved216[4];
    uint32_t unread220;
    uint8_t reserved224[52];
    uint32_t unread276[4];
    U16Slot4 unread292[4];
    uint8_t hostBusType;  // 308, bus type of the controller views' ports; 0 is taken as 6
    uint8_t reserved309[835];
    uint32_t unread1144[3];
    uint8_t reserved1156[20];
    U16Slot16 unread1176[4];
    uint8_t reserved1240[80];
    DriveBusInfoShort driveBusInfo;  // 1320, unread
    char iscsiBaseName[2696];        // 1588, NUL-terminated within this span
    SystemInfo systemInfo[2];        // 4284, 7360
    ControllerView controllers[2];   // 10436, converted by hostBusType, not read

    // The bus type that converts the views' port unions.
    uint8_t effectiveHostBusType() const { return hostBusType == 0 ? TROV_BUS_FC6 : hostBusType; }
    std::string_view systemName() const { return RecordText(systemInfo[1].systemName); }  // 7824
    uint8_t chapEnabled() const { return systemInfo[1].chapEnabled; }                     // 9449
};

// ---------------------------------------------------------------------------------------------
// PartitionView, the masking table of one partition (37,408 bytes, at payload offset 48 of the
// GET_PARTITION_VIEW reply).
struct ViewLun {
    uint16_t lun;
    uint8_t reserved2[10];
};
struct ViewPort {
    uint8_t reserved0[4];
    uint32_t unread4;
    uint32_t unread8;
    uint8_t reserved12[16];
    uint32_t unread28;
    uint8_t reserved32[16];
};
struct PartitionView {
    uint8_t reserved0[16];
    uint16_t defaultLun;  // 16, 0xFFFF = no default mapping
    uint8_t reserved18[2];
    uint8_t defaultAccess[8];  // 20, all zero = no access
    uint16_t numViews;         // 28; see viewCount()
    uint8_t reserved30[2];
    uint8_t viewWwns[128][8];   // 32
    ViewLun viewLuns[128];      // 1056
    ViewPort viewPorts[128];    // 2592
    char viewHosts[128][224];   // 8736, the host's name as text

    uint32_t viewCount() const;  // numViews, at most 128 (logs when clamped)
    bool hasDefaultAccess() const;
    std::string_view viewHost(uint32_t i) const;  // i past 127: empty
};

// ---------------------------------------------------------------------------------------------
// EventData (412 bytes), the unit of get_event and get_events.
struct EventData {
    uint32_t sequenceNumber;  // 0
    uint32_t word4;           // compared
    uint32_t eventCode;       // 8
    uint32_t errorcode;       // 12
    uint8_t bytes16[2];       // compared
    uint8_t reserved18[2];
    uint32_t controllerHandle;  // 20
    uint32_t words24[4];        // compared
    uint32_t eventParam;        // 40
    uint32_t words44[3];        // compared
    uint8_t driveSerial[32];      // 56
    uint8_t partitionSerial[32];  // 88
    uint8_t spans120[20];  // three 8-byte spans at 120, 128, 136, compared; the last ends in
    uint32_t word140;      // this converted word
    uint8_t owner;           // 144
    uint8_t duplicateCount;  // 145
    uint8_t reserved146[6];
    uint16_t word152;  // converted
    uint8_t reserved154[2];
    char description[256];  // 156
};

// ---------------------------------------------------------------------------------------------
// KnownHostList (63,560 bytes, at payload offset 16 of the get_flex_known_hosts reply).
struct KnownHostEntry {
    uint8_t reserved0[204];
    char hostName[224];  // +204
    uint8_t reserved428[564];
};
struct KnownHostList {
    uint32_t count;  // see hostCount()
    uint8_t reserved4[68];
    KnownHostEntry entries[64];  // 72

    uint32_t hostCount() const;  // count, at most 64 (logs when clamped)
};

// HbaInfoList (58,116 bytes, at packet offset 44 of the get_connect_Hba_info_list reply).
struct HbaInfoEntry {
    char typeLetter;  // +0
    uint8_t reserved1[3];
    uint8_t portNumber;  // +4
    uint8_t reserved5[3];
    uint8_t wwpn[8];  // +8
    uint8_t reserved16[1800];
};
struct HbaInfoList {
    uint32_t count;  // see entryCount()
    HbaInfoEntry entries[32];  // 4

    uint32_t entryCount() const;  // count, at most 32 (logs when clamped)
};

// ---------------------------------------------------------------------------------------------
// ExpandPartRequest, the 296-byte payload of expand_part at packet offset 52; every byte not
// named here is sent as zero.
struct ExpandPartRequest {
    uint8_t reserved0[8];
    RecU64 newSizeBlocks;  // 8, the partition's new total size in blocks (two-word form)
    uint8_t reserved16[33];
    uint8_t vdiskSerial[32];      // 49, or zeros
    uint8_t partitionSerial[32];  // 81
    uint8_t reserved113[183];
};

// Entries of the backing store (80 bytes), master volume and snapshot (88 bytes) lists.
struct BackingStoreEntry {
    uint8_t id[16];           // the store's id
    uint8_t vdiskSerial[16];  // first 16 bytes of the vdisk's serial
    uint8_t reserved32[48];
};
struct VolumeEntry {
    uint8_t id[16];
    uint8_t vdiskSerial[16];
    uint8_t reserved32[56];
};

// The 264 bytes create_snapshot hands back (packet offset 912): how many volumes were made and
// their serials.
struct SnapshotResult {
    uint32_t numElements;  // see elementCount()
    uint8_t reserved4[4];
    uint8_t serials[8][32];  // 8

    uint32_t elementCount() const;  // numElements, at most 8 (logs when clamped)
};

#pragma pack(pop)

// ---------------------------------------------------------------------------------------------
// Converters: (direction, record); direction 1 before sending, 0 after receiving. Any byte
// pointer will do: the records have alignment 1.
void ConvertControllerData(int direction, void* record);
// The 22,648-byte view: port unions of ports and diskPorts converted as `busType` when it is
// nonzero, else by each port's own busType.
void ConvertControllerView(int direction, void* record, uint8_t busType);
void ConvertPortData(int direction, void* record);  // the union by the port's own busType
void ConvertPortDataAs(int direction, void* record, uint8_t busType);
void ConvertAdvNet(int direction, void* record);
void ConvertEnclosureData(int direction, void* record);
void ConvertDriveData(int direction, void* record);
void ConvertArrayData(int direction, void* record);
void ConvertArrayConfig(int direction, void* record);
void ConvertCacheParams(int direction, void* record);
void ConvertPartitionData(int direction, void* record);
void ConvertUnifiedControllerData(int direction, void* record);
void ConvertSystemInfo(int direction, void* record);
void ConvertPartitionView(int direction, void* record);
void ConvertEventData(int direction, void* record);
void ConvertKnownHostList(int direction, void* record);
void ConvertHbaInfoList(int direction, void* record);
void ConvertExpandPartRequest(int direction, void* record);
// The common opening of a command payload: the word at 0 and error_code at 4.
void ConvertCommonOpening(int direction, void* payload);

namespace rec {

// Bounds for the list replies' counts (each logs one line when it clamps).
uint32_t BoundedEventCount(uint32_t count);         // at most 100
uint32_t BoundedBackingStoreCount(uint32_t count);  // at most 16
uint32_t BoundedMasterVolumeCount(uint32_t count);  // at most 1,024
uint32_t BoundedSnapshotCount(uint32_t count);      // at most 512

// The drive-to-array link: the seven bytes of arrayKey equal bytes 3, 4, 5, 8, 9, 10, 11 of the
// array's 32-byte serial, in this order.
constexpr size_t kArrayKeySerialBytes[7] = {3, 4, 5, 8, 9, 10, 11};
bool ArrayKeyMatches(const uint8_t* arrayKey, const uint8_t* arraySerial);
void ArrayKeyFromSerial(const uint8_t* arraySerial, uint8_t* arrayKey);
inline bool DriveBelongsTo(const DriveData& d, const ArrayData& a) { return ArrayKeyMatches(d.arrayKey, a.serialNumber); }

// Log words.
// "AVAILABLE", "MEMBER", "DEDICATED SPARE", "POOL SPARE", "SINGLE", "LEFTOVER"; nullptr for
// values without a word.
const char* HowUsedWord(uint8_t howUsed);
// "FC", "SATA", "SAS" for 2, 3, 4; any other value as "0x%x".
std::string DriveTypeText(uint8_t type);
// "TROV_RAID0" ... "TROV_RAID6"; nullptr past 11.
const char* RaidLevelName(uint8_t raidLevel);

// Drive type families.
inline bool IsSataFamily(uint8_t t) { return t == 3 || t == 5 || t == 7 || t == 9; }
inline bool IsSasFamily(uint8_t t) { return t == 4 || t == 6 || t == 8 || t == 10; }
inline bool IsSolidState(uint8_t t) { return t >= 7 && t <= 10; }
inline bool IsFibreBus(uint8_t busType) { return busType >= TROV_BUS_FC4 && busType <= TROV_BUS_FC6; }

}  // namespace rec

// ---------------------------------------------------------------------------------------------
// Layout checks.
#define TROV_REC_AT(T, m, off) static_assert(offsetof(T, m) == (off), #T "." #m)

static_assert(sizeof(ParamBlock) == rec::kParamBlockSize);
TROV_REC_AT(ParamBlock, controllerMode, 22);
TROV_REC_AT(ParamBlock, overheadPerMille, 24);
TROV_REC_AT(ParamBlock, macAddress, 210);
TROV_REC_AT(ParamBlock, ipAddress, 216);
TROV_REC_AT(ParamBlock, unread248, 248);
TROV_REC_AT(ParamBlock, unread256, 256);
TROV_REC_AT(ParamBlock, unread260, 260);
TROV_REC_AT(ParamBlock, unread268, 268);
TROV_REC_AT(ParamBlock, unread276, 276);
static_assert(sizeof(PortStats) == 72);
TROV_REC_AT(PortStats, unread44, 44);
static_assert(sizeof(DriveSummary) == 368);
TROV_REC_AT(DriveSummary, totalDrives, 8);
TROV_REC_AT(DriveSummary, entries, 68);
TROV_REC_AT(DriveSummary, unread328, 328);
static_assert(sizeof(DriveBusInfo) == 280);
static_assert(sizeof(DriveBusInfoShort) == 268);
TROV_REC_AT(DriveBusInfo, allowedDriveType, 12);
TROV_REC_AT(DriveBusInfo, unread80, 80);

static_assert(sizeof(FcInterface) == rec::kPortInterfaceSize);
static_assert(sizeof(UnnamedInterface) == rec::kPortInterfaceSize);
static_assert(sizeof(SasInterface) == rec::kPortInterfaceSize);
static_assert(sizeof(IscsiInterface) == rec::kPortInterfaceSize);
static_assert(sizeof(PortInterface) == rec::kPortInterfaceSize);
TROV_REC_AT(FcInterface, unread516, 516);
TROV_REC_AT(FcInterface, unread520, 520);
TROV_REC_AT(FcInterface, portWwn, 532);
TROV_REC_AT(FcInterface, unread572, 572);
TROV_REC_AT(UnnamedInterface, unread4, 4);
TROV_REC_AT(UnnamedInterface, unread6, 6);
TROV_REC_AT(UnnamedInterface, unread12, 12);
TROV_REC_AT(SasInterface, sasAddress, 8);
TROV_REC_AT(SasInterface, phyCount, 26);
TROV_REC_AT(IscsiInterface, linkUp, 1);
TROV_REC_AT(IscsiInterface, ipAddress, 4);
TROV_REC_AT(IscsiInterface, netmask, 20);
TROV_REC_AT(IscsiInterface, gateway, 36);
TROV_REC_AT(IscsiInterface, servicePort, 52);
TROV_REC_AT(IscsiInterface, unread312, 312);
TROV_REC_AT(IscsiInterface, unread328, 328);
TROV_REC_AT(IscsiInterface, unread344, 344);
TROV_REC_AT(IscsiInterface, unread348, 348);
static_assert(sizeof(LinkStats) == 228);
TROV_REC_AT(LinkStats, unread108, 108);
TROV_REC_AT(LinkStats, unread122, 122);
TROV_REC_AT(LinkStats, unread134, 134);
static_assert(sizeof(PortData) == rec::kPortDataSize);
TROV_REC_AT(PortData, interface, 136);
TROV_REC_AT(PortData, linkStats, 760);
TROV_REC_AT(PortData, busType, 1216);
TROV_REC_AT(PortData, maxDevices, 1219);
TROV_REC_AT(PortData, unread1224, 1224);

// Controller section members, as offsets of ControllerData (the section starts at 20).
static_assert(sizeof(ControllerSection) == rec::kControllerSectionSize);
TROV_REC_AT(ControllerSection, numPorts, 28 - 20);
TROV_REC_AT(ControllerSection, numDiskChannels, 32 - 20);
TROV_REC_AT(ControllerSection, capabilities, 40 - 20);
TROV_REC_AT(ControllerSection, unread48, 48 - 20);
TROV_REC_AT(ControllerSection, controllerParams, 64 - 20);
TROV_REC_AT(ControllerSection, activeParams, 348 - 20);
TROV_REC_AT(ControllerSection, portStats, 632 - 20);
TROV_REC_AT(ControllerSection, controllerId, 704 - 20);
TROV_REC_AT(ControllerSection, unread804, 804 - 20);
TROV_REC_AT(ControllerSection, ports, 904 - 20);
TROV_REC_AT(ControllerSection, diskPorts, 11176 - 20);
TROV_REC_AT(ControllerSection, firmwareRevision, 21488 - 20);
TROV_REC_AT(ControllerSection, controllerSerial, 21508 - 20);
TROV_REC_AT(ControllerSection, controllerIdent, 21588 - 20);
TROV_REC_AT(ControllerSection, unread21624, 21624 - 20);
TROV_REC_AT(ControllerSection, driveSummary, 21636 - 20);
TROV_REC_AT(ControllerSection, unread22004, 22004 - 20);
TROV_REC_AT(ControllerSection, unread22108, 22108 - 20);
TROV_REC_AT(ControllerSection, unread22144, 22144 - 20);
TROV_REC_AT(ControllerSection, driveBusInfo, 22332 - 20);
TROV_REC_AT(ControllerSection, maxLuns, 22612 - 20);
TROV_REC_AT(ControllerSection, maxArrayPartitions, 22620 - 20);
static_assert(offsetof(ControllerSection, driveSummary) + offsetof(DriveSummary, totalDrives) == 21644 - 20);
static_assert(offsetof(ControllerSection, driveBusInfo) + offsetof(DriveBusInfo, allowedDriveType) == 22344 - 20);
static_assert(offsetof(ControllerSection, driveBusInfo) + offsetof(DriveBusInfo, unread80) == 22412 - 20);
static_assert(sizeof(ControllerView) == rec::kControllerViewSize);
TROV_REC_AT(ControllerView, error_code, 4);
TROV_REC_AT(ControllerView, controller, 20);

static_assert(sizeof(AdvNet) == rec::kAdvNetSize);
TROV_REC_AT(AdvNet, zero352, 352);
TROV_REC_AT(AdvNet, systemName, 356);
TROV_REC_AT(AdvNet, zero1752, 1752);
TROV_REC_AT(AdvNet, zero1792, 1792);
TROV_REC_AT(AdvNet, zero1924, 1924);

static_assert(sizeof(EnclosureData) == rec::kEnclosureDataSize);
TROV_REC_AT(EnclosureData, numDrives, 180);
TROV_REC_AT(EnclosureData, unread248, 248);
TROV_REC_AT(EnclosureData, unread470, 470);
TROV_REC_AT(EnclosureData, unread3768, 3768);

static_assert(sizeof(DriveData) == rec::kDriveDataSize);
TROV_REC_AT(DriveData, serialNumber, 4);
TROV_REC_AT(DriveData, vendor, 37);
TROV_REC_AT(DriveData, product, 46);
TROV_REC_AT(DriveData, revision, 63);
TROV_REC_AT(DriveData, howUsed, 68);
TROV_REC_AT(DriveData, channel, 69);
TROV_REC_AT(DriveData, containerIndex, 71);
TROV_REC_AT(DriveData, arrayPosition, 72);
TROV_REC_AT(DriveData, type, 73);
TROV_REC_AT(DriveData, useState, 74);
TROV_REC_AT(DriveData, blinking, 75);
TROV_REC_AT(DriveData, unread76, 76);
TROV_REC_AT(DriveData, scsiId, 78);
TROV_REC_AT(DriveData, lun, 79);
TROV_REC_AT(DriveData, unread88, 88);
TROV_REC_AT(DriveData, unread92, 92);
TROV_REC_AT(DriveData, unread112, 112);
TROV_REC_AT(DriveData, unread136, 136);
TROV_REC_AT(DriveData, unread140, 140);
TROV_REC_AT(DriveData, unread160, 160);
TROV_REC_AT(DriveData, unread184, 184);
TROV_REC_AT(DriveData, downReason, 188);
TROV_REC_AT(DriveData, arrayKey, 189);
TROV_REC_AT(DriveData, driveIndex, 197);
TROV_REC_AT(DriveData, spindleSpeed, 198);
TROV_REC_AT(DriveData, enclosureNumber, 199);
TROV_REC_AT(DriveData, slotNumber, 200);
TROV_REC_AT(DriveData, realBlockCountHigh, 204);

static_assert(sizeof(CacheParams) == rec::kCacheParamsSize);
TROV_REC_AT(CacheParams, writeBack, 9);
TROV_REC_AT(CacheParams, sequential, 10);
static_assert(sizeof(ArrayConfigEntry) == 24);
static_assert(sizeof(ArrayConfig) == rec::kArrayConfigSize);
TROV_REC_AT(ArrayConfig, unread4, 4);
TROV_REC_AT(ArrayConfig, unread12, 12);
TROV_REC_AT(ArrayConfig, unread16, 16);
TROV_REC_AT(ArrayConfig, unread64, 64);
TROV_REC_AT(ArrayConfig, entries, 112);
static_assert(sizeof(ArrayMember) == 16);
TROV_REC_AT(ArrayMember, channelIndex, 4);
TROV_REC_AT(ArrayMember, driveIndex, 8);

static_assert(sizeof(ArrayData) == rec::kArrayDataSize);
TROV_REC_AT(ArrayData, unread8, 8);
TROV_REC_AT(ArrayData, numDrives, 12);
TROV_REC_AT(ArrayData, numSpares, 16);
TROV_REC_AT(ArrayData, stripeKiB, 20);
TROV_REC_AT(ArrayData, minDriveBlocks, 24);
TROV_REC_AT(ArrayData, arrayOrderWord, 28);
TROV_REC_AT(ArrayData, cacheParams, 32);
TROV_REC_AT(ArrayData, arrayConfig, 64);
TROV_REC_AT(ArrayData, members, 408);
TROV_REC_AT(ArrayData, name, 1496);
TROV_REC_AT(ArrayData, serialNumber, 1528);
TROV_REC_AT(ArrayData, health, 1561);
TROV_REC_AT(ArrayData, utilityRunning, 1562);
TROV_REC_AT(ArrayData, raidLevel, 1563);
TROV_REC_AT(ArrayData, owner, 1565);
TROV_REC_AT(ArrayData, numArrayPartitions, 1567);
TROV_REC_AT(ArrayData, unread1568, 1568);
TROV_REC_AT(ArrayData, remainingBlocks, 1572);
TROV_REC_AT(ArrayData, numDrivesPerLowLevelArray, 1580);
TROV_REC_AT(ArrayData, numFreeArrayPartitionSegments, 1583);
TROV_REC_AT(ArrayData, largestFreeSegment, 1584);
TROV_REC_AT(ArrayData, driveType, 1592);
TROV_REC_AT(ArrayData, noFreeSegment, 1596);

static_assert(sizeof(PartitionData) == rec::kPartitionDataSize);
TROV_REC_AT(PartitionData, blockCount, 8);
TROV_REC_AT(PartitionData, lunNumber, 16);
TROV_REC_AT(PartitionData, name, 20);
TROV_REC_AT(PartitionData, PartSn, 84);
TROV_REC_AT(PartitionData, arrayConfig, 116);
TROV_REC_AT(PartitionData, cacheParams, 460);
TROV_REC_AT(PartitionData, unread492, 492);
TROV_REC_AT(PartitionData, cacheFlags, 502);
TROV_REC_AT(PartitionData, unread504, 504);
TROV_REC_AT(PartitionData, unread508, 508);
TROV_REC_AT(PartitionData, partitionType, 517);

static_assert(sizeof(ControllerData) == rec::kControllerDataSize);
TROV_REC_AT(ControllerData, error_code, 4);
TROV_REC_AT(ControllerData, unread8, 8);
TROV_REC_AT(ControllerData, unread16, 16);
TROV_REC_AT(ControllerData, controller, 20);
TROV_REC_AT(ControllerData, advNet, 22648);
TROV_REC_AT(ControllerData, enclosureCount, 24708);
TROV_REC_AT(ControllerData, enclosures, 24712);
TROV_REC_AT(ControllerData, unread89864, 89864);
TROV_REC_AT(ControllerData, numDrives, 89904);
TROV_REC_AT(ControllerData, drives, 89908);
TROV_REC_AT(ControllerData, numArrays, 142908);
TROV_REC_AT(ControllerData, arrays, 142912);
TROV_REC_AT(ControllerData, parititionCount, 194240);
TROV_REC_AT(ControllerData, partitions, 194244);
TROV_REC_AT(ControllerData, UniqueSN, 2520772);
TROV_REC_AT(ControllerData, controllerState, 2520804);
static_assert(sizeof(PartitionData[128]) == 72704);

static_assert(sizeof(SystemInfo) == rec::kSystemInfoSize);
TROV_REC_AT(SystemInfo, unread76, 76);
TROV_REC_AT(SystemInfo, systemName, 464);
TROV_REC_AT(SystemInfo, unread1480, 1480);
TROV_REC_AT(SystemInfo, unread1520, 1520);
TROV_REC_AT(SystemInfo, unread1652, 1652);
TROV_REC_AT(SystemInfo, unread1660, 1660);
TROV_REC_AT(SystemInfo, unread1852, 1852);
TROV_REC_AT(SystemInfo, unread1876, 1876);
TROV_REC_AT(SystemInfo, unread2056, 2056);
TROV_REC_AT(SystemInfo, chapEnabled, 2089);
static_assert(sizeof(UnifiedControllerData) == rec::kUnifiedControllerDataSize);
TROV_REC_AT(UnifiedControllerData, brandName, 20);
TROV_REC_AT(UnifiedControllerData, productId, 40);
TROV_REC_AT(UnifiedControllerData, vendorName, 60);
TROV_REC_AT(UnifiedControllerData, vendorId, 80);
TROV_REC_AT(UnifiedControllerData, unread208, 208);
TROV_REC_AT(UnifiedControllerData, unread212, 212);
TROV_REC_AT(UnifiedControllerData, unread220, 220);
TROV_REC_AT(UnifiedControllerData, unread276, 276);
TROV_REC_AT(UnifiedControllerData, unread292, 292);
TROV_REC_AT(UnifiedControllerData, hostBusType, 308);
TROV_REC_AT(UnifiedControllerData, unread1144, 1144);
TROV_REC_AT(UnifiedControllerData, unread1176, 1176);
TROV_REC_AT(UnifiedControllerData, driveBusInfo, 1320);
TROV_REC_AT(UnifiedControllerData, iscsiBaseName, 1588);
TROV_REC_AT(UnifiedControllerData, systemInfo, 4284);
TROV_REC_AT(UnifiedControllerData, controllers, 10436);
static_assert(offsetof(UnifiedControllerData, systemInfo) + sizeof(SystemInfo) + offsetof(SystemInfo, systemName) == 7824);
static_assert(offsetof(UnifiedControllerData, systemInfo) + sizeof(SystemInfo) + offsetof(SystemInfo, chapEnabled) == 9449);

static_assert(sizeof(ViewLun) == 12);
static_assert(sizeof(ViewPort) == 48);
static_assert(sizeof(PartitionView) == rec::kPartitionViewSize);
TROV_REC_AT(PartitionView, defaultLun, 16);
TROV_REC_AT(PartitionView, defaultAccess, 20);
TROV_REC_AT(PartitionView, numViews, 28);
TROV_REC_AT(PartitionView, viewWwns, 32);
TROV_REC_AT(PartitionView, viewLuns, 1056);
TROV_REC_AT(PartitionView, viewPorts, 2592);
TROV_REC_AT(PartitionView, viewHosts, 8736);
TROV_REC_AT(ViewPort, unread4, 4);
TROV_REC_AT(ViewPort, unread8, 8);
TROV_REC_AT(ViewPort, unread28, 28);

static_assert(sizeof(EventData) == rec::kEventDataSize);
TROV_REC_AT(EventData, eventCode, 8);
TROV_REC_AT(EventData, errorcode, 12);
TROV_REC_AT(EventData, bytes16, 16);
TROV_REC_AT(EventData, controllerHandle, 20);
TROV_REC_AT(EventData, words24, 24);
TROV_REC_AT(EventData, eventParam, 40);
TROV_REC_AT(EventData, words44, 44);
TROV_REC_AT(EventData, driveSerial, 56);
TROV_REC_AT(EventData, partitionSerial, 88);
TROV_REC_AT(EventData, spans120, 120);
TROV_REC_AT(EventData, word140, 140);
TROV_REC_AT(EventData, owner, 144);
TROV_REC_AT(EventData, duplicateCount, 145);
TROV_REC_AT(EventData, word152, 152);
TROV_REC_AT(EventData, description, 156);

static_assert(sizeof(KnownHostEntry) == rec::kKnownHostEntrySize);
static_assert(sizeof(KnownHostList) == rec::kKnownHostListSize);
TROV_REC_AT(KnownHostList, entries, 72);
TROV_REC_AT(KnownHostEntry, hostName, 204);
static_assert(sizeof(HbaInfoEntry) == rec::kHbaInfoEntrySize);
static_assert(sizeof(HbaInfoList) == rec::kHbaInfoListSize);
TROV_REC_AT(HbaInfoList, entries, 4);
TROV_REC_AT(HbaInfoEntry, portNumber, 4);
TROV_REC_AT(HbaInfoEntry, wwpn, 8);

static_assert(sizeof(ExpandPartRequest) == rec::kExpandPartRequestSize);
TROV_REC_AT(ExpandPartRequest, newSizeBlocks, 8);
TROV_REC_AT(ExpandPartRequest, vdiskSerial, 49);
TROV_REC_AT(ExpandPartRequest, partitionSerial, 81);
static_assert(sizeof(BackingStoreEntry) == rec::kBackingStoreEntrySize);
static_assert(sizeof(VolumeEntry) == rec::kVolumeEntrySize);
static_assert(sizeof(SnapshotResult) == rec::kSnapshotResultSize);

#undef TROV_REC_AT
