// Converters and bounded accessors of the proxy service's records.
//
// The converters are straight-line lists of swaps at constant offsets, inlined into the loops
// over the big tables, so that converting a whole ControllerData costs about one pass over the
// bytes that hold integers. Offsets are taken from the record structs (offsetof), never written
// out twice.
#include "proxy/records.h"

#include <cstdio>

#include "support/debuglog.h"

namespace {

#define TROV_INLINE inline __attribute__((always_inline))

TROV_INLINE void S32(uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}
TROV_INLINE void S16(uint8_t* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    v = __builtin_bswap16(v);
    std::memcpy(p, &v, 2);
}
// n consecutive 32-bit words.
template <size_t N>
TROV_INLINE void S32Run(uint8_t* p) {
    for (size_t i = 0; i < N; ++i) S32(p + 4 * i);
}
template <size_t N>
TROV_INLINE void S16Run(uint8_t* p) {
    for (size_t i = 0; i < N; ++i) S16(p + 2 * i);
}

#define AT(T, m) (p + offsetof(T, m))

TROV_INLINE void CacheParamsBody(uint8_t* p) { S32Run<2>(p); }

TROV_INLINE void ArrayConfigBody(uint8_t* p) {
    // u32 at 0, 4, 8, 12, twelve at 16 and twelve at 64: 28 consecutive words.
    static_assert(offsetof(ArrayConfig, entries) == 28 * 4);
    S32Run<28>(p);
    for (size_t e = 0; e < 8; ++e) {
        uint8_t* q = AT(ArrayConfig, entries) + e * sizeof(ArrayConfigEntry);
        S16Run<2>(q);
        S32(q + offsetof(ArrayConfigEntry, unread4));
    }
}

TROV_INLINE void DriveBody(uint8_t* p) {
    S32(AT(DriveData, realBlockCount));
    S16(AT(DriveData, unread76));
    S32Run<2>(AT(DriveData, unread88));
    S32(AT(DriveData, unread112));
    S32Run<2>(AT(DriveData, unread136));
    S32(AT(DriveData, unread160));
    S32(AT(DriveData, unread184));
    // realBlockCountHigh stays as delivered.
}

TROV_INLINE void ArrayBody(uint8_t* p) {
    // blockCapacity (two words), unread8, numDrives, numSpares, stripeKiB, minDriveBlocks,
    // arrayOrderWord: eight consecutive words.
    static_assert(offsetof(ArrayData, cacheParams) == 8 * 4);
    S32Run<8>(p);
    CacheParamsBody(AT(ArrayData, cacheParams));
    ArrayConfigBody(AT(ArrayData, arrayConfig));
    for (size_t m = 0; m < rec::kMaxMembers; ++m) S32Run<3>(AT(ArrayData, members) + m * sizeof(ArrayMember));
    S32(AT(ArrayData, unread1568));
    S32Run<2>(AT(ArrayData, remainingBlocks));
    S32Run<2>(AT(ArrayData, largestFreeSegment));
    S32(AT(ArrayData, noFreeSegment));
}

TROV_INLINE void PartitionBody(uint8_t* p) {
    // startBlock, blockCount (two words each) and lunNumber: five consecutive words.
    static_assert(offsetof(PartitionData, name) == 5 * 4);
    S32Run<5>(p);
    ArrayConfigBody(AT(PartitionData, arrayConfig));
    CacheParamsBody(AT(PartitionData, cacheParams));
    S32Run<2>(AT(PartitionData, unread492));
    // cacheFlags and the two u16 behind it.
    static_assert(offsetof(PartitionData, unread504) == offsetof(PartitionData, cacheFlags) + 2);
    S16Run<3>(AT(PartitionData, cacheFlags));
    S32Run<2>(AT(PartitionData, unread508));
}

TROV_INLINE void EnclosureBody(uint8_t* p) {
    for (size_t i = 0; i < 8; ++i) S16(AT(EnclosureData, unread248) + 8 * i);
    for (size_t i = 0; i < 40; ++i) S16(AT(EnclosureData, unread470) + 4 * i);
    S32Run<4>(AT(EnclosureData, unread3768));
}

void InterfaceBody(uint8_t* p, uint8_t busType) {
    switch (busType) {
    case TROV_BUS_FC6:
        S16(AT(FcInterface, unread516));
        S32(AT(FcInterface, unread520));
        S32(AT(FcInterface, unread572));
        break;
    case TROV_BUS_UNNAMED:
        S16Run<2>(AT(UnnamedInterface, unread4));
        S32(AT(UnnamedInterface, unread12));
        break;
    case TROV_BUS_ISCSI:
        S32(AT(IscsiInterface, ipAddress) + 12);
        S32(AT(IscsiInterface, netmask) + 12);
        S32(AT(IscsiInterface, gateway) + 12);
        S32(AT(IscsiInterface, servicePort));
        S32(AT(IscsiInterface, unread312));
        S32(AT(IscsiInterface, unread328));
        S32Run<2>(AT(IscsiInterface, unread344));
        break;
    default:  // 4, 5 (fibre) and 8 (SAS) carry only bytes; other types are unknown
        break;
    }
}

void PortBody(uint8_t* p, uint8_t busType) {
    S32(AT(PortData, unread0));
    InterfaceBody(AT(PortData, interface), busType);
    for (size_t i = 0; i < 2; ++i) {
        uint8_t* q = AT(PortData, linkStats) + i * sizeof(LinkStats);
        S16(q + offsetof(LinkStats, unread108));
        S16(q + offsetof(LinkStats, unread122));
        S16(q + offsetof(LinkStats, unread134));
    }
    S32Run<2>(AT(PortData, unread1224));
}

void ParamBlockBody(uint8_t* p) {
    S32Run<2>(AT(ParamBlock, unread0));
    S32(AT(ParamBlock, overheadPerMille));
    S32(AT(ParamBlock, unread248));
    S32Run<2>(AT(ParamBlock, unread256));
    S32(AT(ParamBlock, unread268));
    S32(AT(ParamBlock, unread276));
}

void DriveBusInfoBody(uint8_t* p) {
    S16Run<6>(AT(DriveBusInfo, unread0));
    S32Run<2>(AT(DriveBusInfo, unread80));
}

// busType 0: each port by its own busType.
void ControllerSectionBody(uint8_t* p, uint8_t busType) {
    // unread20[2], numPorts, numDiskChannels, unread36, capabilities, unread44.
    static_assert(offsetof(ControllerSection, unread48) == 7 * 4);
    S32Run<7>(p);
    for (size_t i = 0; i < 4; ++i) S16(AT(ControllerSection, unread48) + i * sizeof(U16Slot4));
    ParamBlockBody(AT(ControllerSection, controllerParams));
    ParamBlockBody(AT(ControllerSection, activeParams));
    uint8_t* ps = AT(ControllerSection, portStats);
    S32(ps + offsetof(PortStats, unread0));
    S16Run<12>(ps + offsetof(PortStats, unread4));
    S32(ps + offsetof(PortStats, unread44));
    S32(AT(ControllerSection, unread804));
    for (size_t i = 0; i < rec::kMaxPorts; ++i) {
        uint8_t* q = AT(ControllerSection, ports) + i * sizeof(PortData);
        PortBody(q, busType ? busType : q[offsetof(PortData, busType)]);
    }
    for (size_t i = 0; i < rec::kMaxPorts; ++i) {
        uint8_t* q = AT(ControllerSection, diskPorts) + i * sizeof(PortData);
        PortBody(q, busType ? busType : q[offsetof(PortData, busType)]);
    }
    S32(AT(ControllerSection, unread21624));
    uint8_t* ds = AT(ControllerSection, driveSummary);
    S32Run<5>(ds);
    for (size_t i = 0; i < 16; ++i) S32Run<3>(ds + offsetof(DriveSummary, entries) + i * sizeof(DriveSummaryEntry));
    S32(ds + offsetof(DriveSummary, unread328));
    S32(AT(ControllerSection, unread22004));
    S32Run<4>(AT(ControllerSection, unread22108));
    for (size_t i = 0; i < 4; ++i) S16(AT(ControllerSection, unread22144) + i * sizeof(U16Slot16));
    DriveBusInfoBody(AT(ControllerSection, driveBusInfo));
    // maxLuns and maxArrayPartitions stay as delivered.
}

void ViewBody(uint8_t* p, uint8_t busType) {
    static_assert(offsetof(ControllerView, controller) == 5 * 4);
    S32Run<5>(p);
    ControllerSectionBody(AT(ControllerView, controller), busType);
}

void AdvNetBody(uint8_t* p) {
    S32(AT(AdvNet, zero0));
    S32(AT(AdvNet, zero352));
    S16Run<2>(AT(AdvNet, zero1752));
    S32(AT(AdvNet, zero1792));
    S32Run<8>(AT(AdvNet, zero1924));
}

void SystemInfoBody(uint8_t* p) {
    S32(AT(SystemInfo, unread76));
    S32(AT(SystemInfo, unread1480));
    S32(AT(SystemInfo, unread1520));
    S16Run<2>(AT(SystemInfo, unread1652));
    S32Run<8>(AT(SystemInfo, unread1660));
    S32Run<2>(AT(SystemInfo, unread1852));
    S32(AT(SystemInfo, unread1876));
    S32Run<4>(AT(SystemInfo, unread2056));
}

uint32_t Clamp(uint32_t value, uint32_t capacity, const char* what) {
    if (value <= capacity) return value;
    DebugTrace("OOP!!! %s = %u is above the table's %u entries, only %u are read\n", what, value, capacity, capacity);
    return capacity;
}

uint32_t ClampIndex(uint32_t i, uint32_t capacity, const char* what) {
    if (i < capacity) return i;
    DebugTrace("OOP!!! %s index %u is past the table's %u entries, the last one is used\n", what, i, capacity);
    return capacity - 1;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Converters.

void ConvertControllerData(int direction, void* record) {
    uint8_t* p = static_cast<uint8_t*>(record);
    ViewBody(p, 0);
    AdvNetBody(AT(ControllerData, advNet));
    S32(AT(ControllerData, enclosureCount));
    for (size_t i = 0; i < rec::kMaxEnclosures; ++i) EnclosureBody(AT(ControllerData, enclosures) + i * sizeof(EnclosureData));
    S32Run<10>(AT(ControllerData, unread89864));
    S32(AT(ControllerData, numDrives));
    uint8_t* d = AT(ControllerData, drives);
    for (size_t i = 0; i < rec::kMaxDrives; ++i) DriveBody(d + i * sizeof(DriveData));
    S32(AT(ControllerData, numArrays));
    uint8_t* a = AT(ControllerData, arrays);
    for (size_t i = 0; i < rec::kMaxArrays; ++i) ArrayBody(a + i * sizeof(ArrayData));
    S32(AT(ControllerData, parititionCount));
    uint8_t* part = AT(ControllerData, partitions);
    for (size_t i = 0; i < size_t(rec::kMaxArrays) * rec::kMaxPartitionsPerArray; ++i)
        PartitionBody(part + i * sizeof(PartitionData));
}

void ConvertControllerView(int direction, void* record, uint8_t busType) {
    ViewBody(static_cast<uint8_t*>(record), busType);
}

void ConvertPortData(int direction, void* record) {
    uint8_t* p = static_cast<uint8_t*>(record);
    PortBody(p, p[offsetof(PortData, busType)]);
}

void ConvertPortDataAs(int direction, void* record, uint8_t busType) {
    PortBody(static_cast<uint8_t*>(record), busType);
}

void ConvertAdvNet(int direction, void* record) { AdvNetBody(static_cast<uint8_t*>(record)); }
void ConvertEnclosureData(int direction, void* record) { EnclosureBody(static_cast<uint8_t*>(record)); }
void ConvertDriveData(int direction, void* record) { DriveBody(static_cast<uint8_t*>(record)); }
void ConvertArrayData(int direction, void* record) { ArrayBody(static_cast<uint8_t*>(record)); }
void ConvertArrayConfig(int direction, void* record) { ArrayConfigBody(static_cast<uint8_t*>(record)); }
void ConvertCacheParams(int direction, void* record) { CacheParamsBody(static_cast<uint8_t*>(record)); }
void ConvertPartitionData(int direction, void* record) { PartitionBody(static_cast<uint8_t*>(record)); }
void ConvertSystemInfo(int direction, void* record) { SystemInfoBody(static_cast<uint8_t*>(record)); }

void ConvertUnifiedControllerData(int direction, void* record) {
    uint8_t* p = static_cast<uint8_t*>(record);
    S32Run<2>(AT(UnifiedControllerData, unread208));
    S32(AT(UnifiedControllerData, unread220));
    S32Run<4>(AT(UnifiedControllerData, unread276));
    for (size_t i = 0; i < 4; ++i) S16(AT(UnifiedControllerData, unread292) + i * sizeof(U16Slot4));
    S32Run<3>(AT(UnifiedControllerData, unread1144));
    for (size_t i = 0; i < 4; ++i) S16(AT(UnifiedControllerData, unread1176) + i * sizeof(U16Slot16));
    static_assert(offsetof(DriveBusInfoShort, unread80) == offsetof(DriveBusInfo, unread80));
    DriveBusInfoBody(AT(UnifiedControllerData, driveBusInfo));
    for (size_t i = 0; i < 2; ++i) SystemInfoBody(AT(UnifiedControllerData, systemInfo) + i * sizeof(SystemInfo));
    // hostBusType is a byte: the same on both sides of the conversion.
    uint8_t bus = p[offsetof(UnifiedControllerData, hostBusType)];
    if (bus == 0) bus = TROV_BUS_FC6;
    for (size_t i = 0; i < 2; ++i) ViewBody(AT(UnifiedControllerData, controllers) + i * sizeof(ControllerView), bus);
}

void ConvertPartitionView(int direction, void* record) {
    uint8_t* p = static_cast<uint8_t*>(record);
    S16(AT(PartitionView, defaultLun));
    uint8_t* c = AT(PartitionView, numViews);
    uint16_t n;
    if (direction == 1) {  // sending: the count is still in host order
        std::memcpy(&n, c, 2);
        S16(c);
    } else {
        S16(c);
        std::memcpy(&n, c, 2);
    }
    uint32_t views = Clamp(n, rec::kMaxViews, "PartitionView numViews");
    for (uint32_t i = 0; i < views; ++i) {
        S16(AT(PartitionView, viewLuns) + i * sizeof(ViewLun));
        uint8_t* q = AT(PartitionView, viewPorts) + i * sizeof(ViewPort);
        S32Run<2>(q + offsetof(ViewPort, unread4));
        S32(q + offsetof(ViewPort, unread28));
    }
}

void ConvertEventData(int direction, void* record) {
    uint8_t* p = static_cast<uint8_t*>(record);
    S32Run<4>(p);  // sequenceNumber, word4, eventCode, errorcode
    S32(AT(EventData, controllerHandle));
    S32Run<4>(AT(EventData, words24));
    S32(AT(EventData, eventParam));
    S32Run<3>(AT(EventData, words44));
    S32(AT(EventData, word140));
    S16(AT(EventData, word152));
}

void ConvertKnownHostList(int direction, void* record) { S32(static_cast<uint8_t*>(record)); }
void ConvertHbaInfoList(int direction, void* record) { S32(static_cast<uint8_t*>(record)); }

void ConvertExpandPartRequest(int direction, void* record) {
    uint8_t* p = static_cast<uint8_t*>(record);
    S32Run<2>(AT(ExpandPartRequest, newSizeBlocks));
}

void ConvertCommonOpening(int direction, void* payload) { S32Run<2>(static_cast<uint8_t*>(payload)); }

// ---------------------------------------------------------------------------------------------
// Bounded accessors.

uint32_t ArrayData::memberCount() const { return Clamp(numDrives, rec::kMaxMembers, "ArrayData numDrives"); }
uint32_t ArrayData::partitionCount() const {
    return Clamp(numArrayPartitions, rec::kMaxPartitionsPerArray, "ArrayData numArrayPartitions");
}
const ArrayMember& ArrayData::member(uint32_t i) const {
    return members[ClampIndex(i, rec::kMaxMembers, "ArrayData member")];
}

uint32_t ControllerData::driveCount() const { return Clamp(numDrives, rec::kMaxDrives, "ControllerData numDrives"); }
uint32_t ControllerData::arrayCount() const { return Clamp(numArrays, rec::kMaxArrays, "ControllerData numArrays"); }
uint32_t ControllerData::portCount() const {
    return Clamp(controller.numPorts, rec::kMaxPorts, "ControllerData numPorts");
}
uint32_t ControllerData::diskChannelCount() const {
    return Clamp(controller.numDiskChannels & 0xFFFF, rec::kMaxPorts, "ControllerData numDiskChannels");
}
uint32_t ControllerData::enclosureCountBounded() const {
    return Clamp(enclosureCount, rec::kMaxEnclosures, "ControllerData enclosureCount");
}
uint32_t ControllerData::totalDrivesBounded() const {
    return Clamp(controller.driveSummary.totalDrives, rec::kMaxDrives, "ControllerData totalDrives");
}
uint32_t ControllerData::partitionCountOf(uint32_t arrayIndex) const { return array(arrayIndex).partitionCount(); }

const DriveData& ControllerData::drive(uint32_t i) const { return drives[ClampIndex(i, rec::kMaxDrives, "drive")]; }
DriveData& ControllerData::drive(uint32_t i) { return drives[ClampIndex(i, rec::kMaxDrives, "drive")]; }
const ArrayData& ControllerData::array(uint32_t i) const { return arrays[ClampIndex(i, rec::kMaxArrays, "array")]; }
ArrayData& ControllerData::array(uint32_t i) { return arrays[ClampIndex(i, rec::kMaxArrays, "array")]; }
const PartitionData& ControllerData::partition(uint32_t a, uint32_t p) const {
    return partitions[ClampIndex(a, rec::kMaxArrays, "partition row")]
                     [ClampIndex(p, rec::kMaxPartitionsPerArray, "partition")];
}
PartitionData& ControllerData::partition(uint32_t a, uint32_t p) {
    return partitions[ClampIndex(a, rec::kMaxArrays, "partition row")]
                     [ClampIndex(p, rec::kMaxPartitionsPerArray, "partition")];
}
const PortData& ControllerData::port(uint32_t i) const {
    return controller.ports[ClampIndex(i, rec::kMaxPorts, "port")];
}
PortData& ControllerData::port(uint32_t i) { return controller.ports[ClampIndex(i, rec::kMaxPorts, "port")]; }
const PortData& ControllerData::diskPort(uint32_t i) const {
    return controller.diskPorts[ClampIndex(i, rec::kMaxPorts, "disk port")];
}
PortData& ControllerData::diskPort(uint32_t i) {
    return controller.diskPorts[ClampIndex(i, rec::kMaxPorts, "disk port")];
}
const EnclosureData& ControllerData::enclosure(uint32_t i) const {
    return enclosures[ClampIndex(i, rec::kMaxEnclosures, "enclosure")];
}
EnclosureData& ControllerData::enclosure(uint32_t i) {
    return enclosures[ClampIndex(i, rec::kMaxEnclosures, "enclosure")];
}

uint32_t PartitionView::viewCount() const { return Clamp(numViews, rec::kMaxViews, "PartitionView numViews"); }
bool PartitionView::hasDefaultAccess() const {
    for (uint8_t b : defaultAccess)
        if (b) return true;
    return false;
}
std::string_view PartitionView::viewHost(uint32_t i) const {
    if (i >= rec::kMaxViews) return {};
    return RecordText(viewHosts[i]);
}

uint32_t KnownHostList::hostCount() const { return Clamp(count, rec::kMaxKnownHosts, "KnownHostList count"); }
uint32_t HbaInfoList::entryCount() const { return Clamp(count, rec::kMaxHbaEntries, "HbaInfoList count"); }
uint32_t SnapshotResult::elementCount() const {
    return Clamp(numElements, rec::kMaxSnapshotSerials, "SnapshotResult numElements");
}

namespace rec {

uint32_t BoundedEventCount(uint32_t count) { return Clamp(count, kMaxEvents, "get_events count"); }
uint32_t BoundedBackingStoreCount(uint32_t count) { return Clamp(count, kMaxBackingStores, "backing store count"); }
uint32_t BoundedMasterVolumeCount(uint32_t count) { return Clamp(count, kMaxMasterVolumes, "master volume count"); }
uint32_t BoundedSnapshotCount(uint32_t count) { return Clamp(count, kMaxSnapshots, "snapshot count"); }

bool ArrayKeyMatches(const uint8_t* arrayKey, const uint8_t* arraySerial) {
    for (size_t i = 0; i < kArrayKeySize; ++i)
        if (arrayKey[i] != arraySerial[kArrayKeySerialBytes[i]]) return false;
    return true;
}

void ArrayKeyFromSerial(const uint8_t* arraySerial, uint8_t* arrayKey) {
    for (size_t i = 0; i < kArrayKeySize; ++i) arrayKey[i] = arraySerial[kArrayKeySerialBytes[i]];
}

const char* HowUsedWord(uint8_t howUsed) {
    switch (howUsed) {
    case TROV_HOWUSED_AVAILABLE: return "AVAILABLE";
    case TROV_HOWUSED_MEMBER: return "MEMBER";
    case TROV_HOWUSED_DEDICATED_SPARE: return "DEDICATED SPARE";
    case TROV_HOWUSED_POOL_SPARE: return "POOL SPARE";
    case TROV_HOWUSED_SINGLE: return "SINGLE";
    case TROV_HOWUSED_LEFTOVER: return "LEFTOVER";
    default: return nullptr;
    }
}

std::string DriveTypeText(uint8_t type) {
    switch (type) {
    case TROV_DRIVE_FC: return "FC";
    case TROV_DRIVE_SATA: return "SATA";
    case TROV_DRIVE_SAS: return "SAS";
    default: {
        char buf[8];
        std::snprintf(buf, sizeof buf, "0x%x", unsigned(type));
        return buf;
    }
    }
}

const char* RaidLevelName(uint8_t raidLevel) {
    static const char* const kNames[] = {"TROV_RAID0", "TROV_RAID1",  "TROV_RAID2",  "TROV_RAID3",
                                         "TROV_RAID4", "TROV_RAID5",  "TROV_NRAID",  "TROV_RAID30",
                                         "TROV_RAID50", "TROV_RAID51", "TROV_RAID10", "TROV_RAID6"};
    return raidLevel < sizeof kNames / sizeof kNames[0] ? kNames[raidLevel] : nullptr;
}

}  // namespace rec
