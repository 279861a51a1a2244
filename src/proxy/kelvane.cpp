#include "proxy/kelvane.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "proxy/iasocket.h"
#include "support/debuglog.h"
#include "support/host_notice.h"

MutexHandle hVdsMutex = nullptr;

CommandExchange::CommandExchange(const CommandDef& cmd) : cmd_(cmd) {
    if (hVdsMutex) {
        Plat()->WaitMutex(hVdsMutex);  // no time-out; the result isn't looked at
        locked_ = true;
    }
}

CommandExchange::~CommandExchange() {
    if (locked_) Plat()->ReleaseMutex(hVdsMutex);
}

uint8_t* CommandExchange::Begin(uint32_t dataLen, bool cleared) {
    pkt_ = g_transport.PacketBuffer;
    if (!pkt_) return nullptr;
    if (dataLen > wire::kPacketBufferSize - wire::kHeaderSize) dataLen = 0;  // a caller's fault; never overrun
    dataLen_ = dataLen;
    MakeHeader(pkt_, wire::RSREQUEST, cmd_.opcode);
    wire::StoreBe32(pkt_ + wire::kDataLenOffset, dataLen);
    if (cleared) std::memset(pkt_ + wire::kHeaderSize, 0, dataLen);
    return pkt_;
}

int CommandExchange::Run(size_t errorOffset) {
    const char* name = cmd_.logMethod ? cmd_.logMethod : cmd_.method;
    if (!pkt_) {
        DebugTrace("OOP!! Kelvane::%s exec_cmnd(Line %d) error, it return len = %d\n", name, __LINE__, -1);
        return -1;
    }
    int n = exec_cmnd(pkt_, static_cast<int>(wire::kHeaderSize + dataLen_), pkt_, static_cast<int>(wire::kHeaderSize));
    if (n <= 0) {
        DebugTrace("OOP!! Kelvane::%s exec_cmnd(Line %d) error, it return len = %d\n", name, __LINE__, n);
        NoteHostFailure("the exchange with the proxy service failed at %s (%s)", cmd_.method,
                        TransportErrorText(g_transport.LastSocketError.load()).c_str());
        return -1;
    }
    uint32_t len = wire::DataLenOf(pkt_);
    if (n == static_cast<int>(wire::kHeaderSize) && len != 0) {
        // Our bound: a reply larger than the packet buffer is refused before a byte of it lands.
        if (len > wire::kPacketBufferSize - wire::kHeaderSize) {
            DebugTrace("OOP!! Kelvane::%s ph->DataLen(Line %d) error, the len = %d, ntohl(ph->DataLen) = %d\n", name,
                       __LINE__, -1, static_cast<int>(len));
            DebugTrace("OOP!! Kelvane::%s reply of %u bytes does not fit the packet buffer\n", name, len);
            return -1;
        }
        int got = recvdata(pkt_ + wire::kHeaderSize, static_cast<int>(len));
        if (got != static_cast<int>(len)) {
            DebugTrace("OOP!! Kelvane::%s ph->DataLen(Line %d) error, the len = %d, ntohl(ph->DataLen) = %d\n", name,
                       __LINE__, got, static_cast<int>(len));
            return -1;
        }
    }
    uint32_t type = wire::DataTypeOf(pkt_), op = wire::OpCodeOf(pkt_);
    if (type != wire::RSREPLY || op != cmd_.opcode) {
        uint32_t shown = cmd_.shownOpcode != UINT32_MAX ? cmd_.shownOpcode : cmd_.opcode;
        DebugTrace("OOP!! Kelvane::%s DataType or OpCode(Line %d) error, ph->DataType(=%d), RSREPLY(=%d), "
                   "ph->OpCode(=%d), %s(=%d) \n",
                   name, __LINE__, static_cast<int>(type), static_cast<int>(wire::RSREPLY), static_cast<int>(op),
                   cmd_.opName, static_cast<int>(shown));
        return -1;
    }
    replyLen_ = len;
    // get_subsystems tests its word at 36 without conversion; a zero test is the same either way.
    errorCode_ = errorOffset == wire::kErrorCodeOffset ? wire::LoadBe32(pkt_ + errorOffset)
                                                       : wire::LoadLe32(pkt_ + errorOffset);
    if (errorCode_ != 0) {
        DebugTrace("OOP!! Kelvane::%s return error code(Line %d) error, it return len = %d\n", name, __LINE__, n);
        failedOnCode_ = true;
        return cmd_.codeResult ? static_cast<int>(errorCode_) : -1;
    }
    return 0;
}

namespace {
const CommandDef kGetSubsystems{"get_subsystems", "GET_CONTROLLERHANDLEDB", 0, false};
constexpr uint32_t kGetSubsystemsDataLen = 312;
constexpr size_t kSubsystemCountOffset = 44;
constexpr size_t kSubsystemEntriesOffset = 52;
// The 312-byte payload holds at most this many 40-byte entries behind the count.
constexpr uint32_t kMaxSubsystemEntries = 7;
}  // namespace

int Kelvane::get_subsystems(std::vector<SubsystemEntry>& list) {
    CommandExchange x(kGetSubsystems);
    DebugTrace("Kelvane::get_subsystems\n");
    uint8_t* pkt = x.Begin(kGetSubsystemsDataLen, true);
    if (pkt) pkt[wire::kBodyOffset] = 1;
    int rc = x.Run(36);
    if (rc != 0) return rc;
    uint32_t count = wire::LoadBe32(pkt + kSubsystemCountOffset);
    if (count > kMaxSubsystemEntries) {
        // More entries than the payload can carry: the rest would be read from beyond the reply.
        DebugTrace("OOP!! Kelvane::get_subsystems count %u is more than %u entries, only %u taken\n", count,
                   kMaxSubsystemEntries, kMaxSubsystemEntries);
        count = kMaxSubsystemEntries;
    }
    for (uint32_t i = 0; i < count; ++i) {
        SubsystemEntry e;
        std::memcpy(&e, pkt + kSubsystemEntriesOffset + i * sizeof(SubsystemEntry), sizeof e);
        e.controllerA = wire::LoadBe32(&e.controllerA);
        e.controllerB = wire::LoadBe32(&e.controllerB);
        list.push_back(e);
    }
    DebugTrace("Kelvane::get_subsystems Out!\n");
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The commands the object tree reads and drives the array with.

namespace {
constexpr size_t kHandleOffset = 44;

const CommandDef kGetControllerData{"get_controller_data", "GET_CONTROLLER", 1, false};
const CommandDef kGetEvent{"get_event", "GET_EVENT", 9, false};
const CommandDef kGetEvents{"get_events", "GET_EVENT", 9, false};
const CommandDef kAssignSpare{"assign_spare", "ASSIGN_POOL_SPARE", 19, false};
const CommandDef kBlinkDrive{"blink_drive", "BLINK_DRIVE", 20, false};
const CommandDef kFlushCache{"flush_cache", "FLUSH_CACHE", 21, false};
const CommandDef kFreeCache{"free_cache", "FREE_CACHE", 22, false};
const CommandDef kSilenceAlarm{"silence_alarm", "SILENCE_ALARM", 23, false};
const CommandDef kGetPercent{"get_percent", "GET_PERCENT_COMPLETED", 28, false};
const CommandDef kSetAdvNet{"set_adv_net", "SET_ADV_NET_INTERFACE", 29, false};
const CommandDef kGetPartView{"get_part_view", "GET_PARTITION_VIEW", 70, false};
const CommandDef kRescanBus{"rescan_bus", "RESCAN_ALL_BUS", 105, false};
const CommandDef kGetNeedRefresh{"get_need_refresh", "GET_NEED_REFRESH", 108, true};
const CommandDef kGetUnified{"get_unified_controller_data", "GET_UNIFIED_CONTROLLER", 109, true};

constexpr uint32_t kBlinkPauseMs = 5000;

// How many entries of `entrySize` at packet offset `entriesAt` the reply's payload really held.
uint32_t CarriedEntries(uint32_t replyDataLen, size_t entriesAt, size_t entrySize) {
    size_t end = wire::kHeaderSize + replyDataLen;
    return end > entriesAt ? static_cast<uint32_t>((end - entriesAt) / entrySize) : 0;
}

void PutSerial(uint8_t* pkt, size_t offset, const uint8_t* serial) {
    if (serial) std::memcpy(pkt + offset, serial, rec::kSerialSize);
}

// A cleared command of a handle and, where given, a byte and a serial; answered by error_code.
int HandleCommand(const CommandDef& cmd, uint32_t dataLen, uint32_t handle, int byteAt48, size_t serialAt,
                  const uint8_t* serial, bool cleared = true) {
    CommandExchange x(cmd);
    DebugTrace("Kelvane::%s handle = 0x%08x\n", cmd.method, handle);
    uint8_t* pkt = x.Begin(dataLen, cleared);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        if (byteAt48 >= 0) pkt[48] = static_cast<uint8_t>(byteAt48);
        if (serialAt) PutSerial(pkt, serialAt, serial);
    }
    return x.Run();
}
}  // namespace

int Kelvane::get_controller_data(uint32_t handle, void* out) {
    CommandExchange x(kGetControllerData);
    DebugTrace("Kelvane::get_controller_data, handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(4, false);
    if (pkt) wire::StoreBe32(pkt + wire::kHeaderSize, handle);  // at 36, not 44
    int rc = x.Run();
    if (rc != 0) return rc;
    // Anything shorter than the record leaves the rest as the buffer held it; never more.
    if (x.replyDataLen() < rec::kControllerDataSize)
        DebugTrace("OOP!! Kelvane::get_controller_data reply of %u bytes is shorter than the record\n",
                   x.replyDataLen());
    std::memcpy(out, pkt + rec::kPktControllerData, rec::kControllerDataSize);
    ConvertControllerData(0, out);
    return 0;
}

int Kelvane::get_event(uint32_t handle, uint8_t flagA, uint8_t flagB, uint32_t number, EventData* out) {
    CommandExchange x(kGetEvent);
    DebugTrace("Kelvane::get_event handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(444, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = flagA;
        pkt[49] = flagB;
        wire::StoreBe32(pkt + 52, number);
    }
    int rc = x.Run();
    if (rc != 0) {
        if (x.failedOnErrorCode())
            DebugTrace("OOP!! Kelvane::get_event return error code 0x%x (byte-swapped 0x%x), len %d (byteswapped %d) "
                       "(Line %d)\n",
                       x.errorCode(), __builtin_bswap32(x.errorCode()), static_cast<int>(x.replyDataLen()),
                       static_cast<int>(__builtin_bswap32(x.replyDataLen())), __LINE__);
        return rc;
    }
    std::memcpy(out, pkt + rec::kPktEventData, sizeof *out);
    ConvertEventData(0, out);
    return 0;
}

int Kelvane::get_events(uint32_t handle, uint32_t firstEventNum, uint32_t lastEventNum, EventData* out,
                        uint32_t* outCount) {
    CommandExchange x(kGetEvents);
    DebugTrace("Kelvane::get_events firstEventNum = %d, lastEventNum = %d\n", static_cast<int>(firstEventNum),
               static_cast<int>(lastEventNum));
    uint8_t* pkt = x.Begin(444, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        wire::StoreBe32(pkt + 60, firstEventNum);
        wire::StoreBe32(pkt + 64, lastEventNum);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    uint32_t count = rec::BoundedEventCount(wire::LoadBe32(pkt + rec::kPktEventCount));
    // Never more than the span asked for, and never more than the reply carried.
    uint64_t span = lastEventNum >= firstEventNum ? uint64_t(lastEventNum) - firstEventNum + 1 : 0;
    if (count > span) {
        DebugTrace("OOP!! Kelvane::get_events count %u is more than the %u events asked for, %u taken\n", count,
                   static_cast<uint32_t>(span), static_cast<uint32_t>(span));
        count = static_cast<uint32_t>(span);
    }
    uint32_t carried = CarriedEntries(x.replyDataLen(), rec::kPktEventData, rec::kEventDataSize);
    if (count > carried) {
        DebugTrace("OOP!! Kelvane::get_events count %u but the reply carries %u records, %u taken\n", count, carried,
                   carried);
        count = carried;
    }
    for (uint32_t i = 0; i < count; ++i) {
        std::memcpy(&out[i], pkt + rec::kPktEventData + i * rec::kEventDataSize, rec::kEventDataSize);
        ConvertEventData(0, &out[i]);
    }
    *outCount = count;
    return 0;
}

int Kelvane::assign_spare(uint32_t handle, uint8_t on, const uint8_t* driveSerial) {
    CommandExchange x(kAssignSpare);
    DebugTrace("Kelvane::assign_spare handle = 0x%08x, on = %d\n", handle, on);
    uint8_t* pkt = x.Begin(80, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = on;
        pkt[49] = 1;
        PutSerial(pkt, 84, driveSerial);
    }
    return x.Run();
}

int Kelvane::blink_drive(uint32_t handle, uint8_t on, const uint8_t* driveSerial) {
    CommandExchange x(kBlinkDrive);
    // The array wants the light's commands spaced out: the pause is taken under the lock.
    Plat()->Sleep(kBlinkPauseMs);
    DebugTrace("Kelvane::blink_drive handle = 0x%08x, on = %d\n", handle, on);
    uint8_t* pkt = x.Begin(48, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = on;
        PutSerial(pkt, 52, driveSerial);
    }
    return x.Run();
}

int Kelvane::flush_cache(uint32_t handle, const uint8_t* serial) {
    return HandleCommand(kFlushCache, 44, handle, -1, 48, serial);
}

int Kelvane::free_cache(uint32_t handle, const uint8_t* serial) {
    return HandleCommand(kFreeCache, 48, handle, -1, 52, serial);
}

int Kelvane::silence_alarm(uint32_t handle) { return HandleCommand(kSilenceAlarm, 16, handle, -1, 0, nullptr); }

int Kelvane::rescan_bus(uint32_t handle) { return HandleCommand(kRescanBus, 16, handle, -1, 0, nullptr); }

int Kelvane::get_percent(uint32_t handle, const uint8_t* arraySerial, uint32_t* percent) {
    CommandExchange x(kGetPercent);
    DebugTrace("Kelvane::get_percent handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(48, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        PutSerial(pkt, 48, arraySerial);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    *percent = wire::LoadBe32(pkt + 80);
    return 0;
}

int Kelvane::set_adv_net(uint32_t handle, const AdvNet& advNet) {
    CommandExchange x(kSetAdvNet);
    DebugTrace("Kelvane::set_adv_net handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(2076, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        wire::StoreBe32(pkt + 48, 1);
        std::memcpy(pkt + 52, &advNet, sizeof advNet);
        ConvertAdvNet(1, pkt + 52);
    }
    return x.Run();
}

int Kelvane::get_part_view(uint32_t handle, const uint8_t* partSerial, PartitionView* out) {
    CommandExchange x(kGetPartView);
    DebugTrace("Kelvane::get_part_view handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(37456, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        PutSerial(pkt, 52, partSerial);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    std::memcpy(out, pkt + rec::kPktPartitionView, sizeof *out);
    ConvertPartitionView(0, out);
    return 0;
}

int Kelvane::get_need_refresh(const char* uniqueSN, uint8_t* answer) {
    CommandExchange x(kGetNeedRefresh);
    DebugTrace("Kelvane::get_need_refresh\n");
    uint8_t* pkt = x.Begin(56, false);
    if (pkt) {
        // The field holds 32 characters; a shorter text is followed by zeros, never by what lies
        // behind it in the caller's memory.
        std::memset(pkt + 44, 0, 32);
        if (uniqueSN) std::memcpy(pkt + 44, uniqueSN, strnlen(uniqueSN, 32));
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    *answer = pkt[76];
    return 0;
}

int Kelvane::get_unified_controller_data(uint32_t handle, UnifiedControllerData* out) {
    CommandExchange x(kGetUnified);
    DebugTrace("Kelvane::get_unified_controller_data handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(55748, false);
    if (pkt) wire::StoreBe32(pkt + kHandleOffset, handle);
    int rc = x.Run();
    if (rc != 0) return rc;
    ConvertUnifiedControllerData(0, pkt + rec::kPktUnifiedControllerData);
    std::memcpy(out, pkt + rec::kPktUnifiedControllerData, sizeof *out);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Provisioning, snapshots, views, cache and ownership, the authentication table, host lists.

namespace {
const CommandDef kGetVersion{"get_version", "GET_VERSION", 11, false};
const CommandDef kSetPartName{"set_part_name", "SET_PART_NAME", 12, false};
const CommandDef kAddArrayPart{"add_array_part", "ADD_ARRAY_PART", 14, true};
const CommandDef kDeletePart{"delete_part", "DELETE_PART", 15, false};
const CommandDef kCreateArray{"create_array", "CREATE_ARRAY", 16, false};
const CommandDef kExpandPart{"expand_part", "EXPAND_PART", 17, false};
// Its failure lines borrow get_version's name; the OpCode shown is its own.
const CommandDef kExpandArray{"expand_array", "EXPAND_ARRAY", 18, false, "get_version"};
const CommandDef kDeleteArray{"delete_array", "DELETE_ARRAY", 24, false};
const CommandDef kAbortUtility{"abort_utility", "ABORT_UTILITY", 27, false};
const CommandDef kSetPartLun{"set_part_lun", "CHANGE_PART_LUN", 30, false};
const CommandDef kGetDmsTag{"get_dms_tag", "GET_DMS_TAG", 50, true};
// Its format line names ADD_ARRAY_PART and 14 though the OpCode is 51.
const CommandDef kCreateSnapshot{"create_snapshot", "ADD_ARRAY_PART", 51, true, nullptr, 14};
const CommandDef kGetBackingStores{"get_backing_store_list", "GET_BACKING_STORE_LIST", 55, true};
const CommandDef kGetMasterVolumes{"get_master_volume_list", "GET_MASTER_VOLUME_LIST", 56, true};
const CommandDef kGetSnapshots{"get_snapshot_list", "GET_SNAPSHOT_LIST", 57, true};
const CommandDef kConvertMaster{"convert_master_volume", "CONVERT_MASTER_VOLUME", 61, true};
const CommandDef kCreateCustomView{"create_custom_view", "CREATE_CUSTOM_VIEW", 71, false};
const CommandDef kCacheParams{"change_partition_cache_params", "SET_PARTITION_CACHE_PARAM", 80, false};
const CommandDef kResetController{"reset_controller", "REBOOT_CONTROLLER", 85, false};
const CommandDef kSetOwner{"set_owner", "SET_PREFERRED_OWNER", 92, false};
const CommandDef kGetAuthRecord{"get_authDB_record", "GET_AUTHDB_RECORD", 113, true};
const CommandDef kSetTargetSecret{"set_target_secret", "SET_TARGET_SECRET", 115, true};
const CommandDef kClearTargetSecrets{"clear_all_target_secret", "CLEAR_ALL_TARGET_SECRET", 116, true};
const CommandDef kSetNamedTargetSecret{"set_target_secret", "SET_TARGET_SECRET_BY_NAME", 117, true};
const CommandDef kRememberInitiator{"remeber_initiator_secret", "REMEMBER_INITIATOR_SECRET", 118, true};
const CommandDef kGetKnownHosts{"get_flex_known_hosts", "GET_FLEX_KNOWN_HOSTS", 119, true};
const CommandDef kGetHbaInfo{"get_connect_Hba_info_list", "GET_CONNECT_HBA_INFO_LIST", 125, true};

constexpr uint32_t kDeletePartPauseMs = 2000;
constexpr uint32_t kCreateArrayPauseMs = 1000;
constexpr size_t kNameField = 32;
constexpr uint8_t kRaid1 = 1;
constexpr uint8_t kRaid10 = 10;
constexpr uint32_t kDefaultStripeKiB = 64;

// A name field "terminated": at most 31 characters and a zero, the rest of the field zero.
void PutTerminatedName(uint8_t* field, const char* name) {
    std::memset(field, 0, kNameField);
    if (name) std::memcpy(field, name, strnlen(name, kNameField - 1));
}

// A name field of exactly 32 characters, as strncpy fills it.
void PutFullName(uint8_t* field, const char* name) {
    std::memset(field, 0, kNameField);
    if (name) std::memcpy(field, name, strnlen(name, kNameField));
}

// A 32-byte serial as log text: it need not be terminated.
std::string SerialText(const uint8_t* serial) {
    if (!serial) return "(null)";
    return std::string(reinterpret_cast<const char*>(serial), strnlen(reinterpret_cast<const char*>(serial), 32));
}

// A list's count bounded by its table (by `bound`, which logs) and by the entries the reply carried.
uint32_t ListCount(const char* method, uint32_t count, uint32_t (*bound)(uint32_t), uint32_t carried) {
    count = bound(count);
    if (count > carried) {
        DebugTrace("OOP!! Kelvane::%s count %u but the reply carries %u entries, %u taken\n", method, count, carried,
                   carried);
        count = carried;
    }
    return count;
}

// The two location words of each member, big-endian, 8 bytes apart.
void PutLocations(uint8_t* at, const std::vector<DriveLocation>& vLoca) {
    for (size_t i = 0; i < vLoca.size(); ++i) {
        wire::StoreBe32(at + 8 * i, vLoca[i].channelIndex);
        wire::StoreBe32(at + 8 * i + 4, vLoca[i].driveIndex);
    }
}
}  // namespace

int Kelvane::get_version() {
    CommandExchange x(kGetVersion);
    DebugTrace("Kelvane::get_version\n");
    x.Begin(0, false);
    return x.Run();
}

int Kelvane::set_part_name(uint32_t handle, const uint8_t* partSerial, const char* name) {
    CommandExchange x(kSetPartName);
    DebugTrace("Kelvane::set_part_name handle = 0x%08x, name = %s\n", handle, name ? name : "(null)");
    uint8_t* pkt = x.Begin(80, false);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        PutSerial(pkt, 52, partSerial);
        PutFullName(pkt + 84, name);
    }
    return x.Run();
}

int Kelvane::add_array_part(uint32_t handle, const uint8_t* arraySerial, uint64_t sizeBytes, const char* name,
                            uint8_t byte1, uint8_t byte2, const uint8_t* backingStoreId, PartitionData* out) {
    CommandExchange x(kAddArrayPart);
    DebugTrace("Kelvane::add_array_part handle = 0x%08x, size = %llu, name = %s\n", handle,
               static_cast<unsigned long long>(sizeBytes), name ? name : "(null)");
    uint8_t* pkt = x.Begin(728, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        wire::StoreBe32(pkt + 48, 0xFFFFFFFFu);
        wire::StoreWords64(pkt + 52, sizeBytes >> 9);
        pkt[60] = byte1;
        pkt[61] = byte2;
        PutSerial(pkt, 68, arraySerial);
        PutSerial(pkt, 132, backingStoreId);
        PutTerminatedName(pkt + 164, name);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    ConvertPartitionData(0, pkt + rec::kPktPartitionData);
    std::memcpy(out, pkt + rec::kPktPartitionData, sizeof *out);
    return 0;
}

int Kelvane::delete_part(uint32_t handle, const uint8_t* partSerial) {
    CommandExchange x(kDeletePart);
    DebugTrace("Kelvane::delete_part handle = 0x%08x, PartSn = %s\n", handle, SerialText(partSerial).c_str());
    uint8_t* pkt = x.Begin(48, false);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        PutSerial(pkt, 52, partSerial);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    // The array settles its tables before the next command: the pause holds the lock.
    Plat()->Sleep(kDeletePartPauseMs);
    return 0;
}

int Kelvane::create_array(uint32_t handle, uint8_t controllerId, ArrayData* out, uint8_t raidLevel,
                          uint32_t stripeBytes, const std::vector<DriveLocation>& vLoca,
                          const std::vector<DriveSerial>& vSerial, const char* name, uint32_t drivesPerLeg,
                          uint32_t numSpares) {
    CommandExchange x(kCreateArray);
    DebugTrace("Kelvane::create_array handle = 0x%08x, raidLevel = %d, drives = %d, name = %s\n", handle, raidLevel,
               static_cast<int>(vSerial.size()), name ? name : "(null)");
    size_t n = vSerial.size();
    // Refused before anything is sent: the member tables hold 68 entries, and the two lists
    // describe the same drives.
    if (n == 0 || n > rec::kMaxMembers || vLoca.size() != n) {
        DebugTrace("OOP!! Kelvane::create_array %d drives with %d locations, 1 to %u expected\n", static_cast<int>(n),
                   static_cast<int>(vLoca.size()), rec::kMaxMembers);
        return -1;
    }
    uint8_t* pkt = x.Begin(4548, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        PutLocations(pkt + 52, vLoca);
        for (const DriveLocation& l : vLoca)
            DebugTrace("Create Array Uses Drive: %d.%d\n", static_cast<int>(l.channelIndex),
                       static_cast<int>(l.driveIndex));
        wire::StoreBe32(pkt + 596, static_cast<uint32_t>(n));
        wire::StoreBe32(pkt + 600, numSpares);
        pkt[604] = raidLevel == kRaid1 && n > 2 ? kRaid10 : raidLevel;
        wire::StoreBe32(pkt + 608, 0);
        wire::StoreBe32(pkt + 612, stripeBytes == 0 ? kDefaultStripeKiB : stripeBytes >> 10);
        wire::StoreBe32(pkt + 616, drivesPerLeg);
        wire::StoreBe32(pkt + 620, 0xFFFFFFFFu);
        pkt[624] = controllerId;
        pkt[625] = 0;
        pkt[628] = 3;
        pkt[629] = 0;
        PutTerminatedName(pkt + 632, name);
        for (size_t i = 0; i < n; ++i) std::memcpy(pkt + 772 + 32 * i, vSerial[i].data(), 32);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    ConvertArrayData(0, pkt + rec::kPktArrayData);
    std::memcpy(out, pkt + rec::kPktArrayData, sizeof *out);
    Plat()->Sleep(kCreateArrayPauseMs);
    // The array may have taken another name (a duplicate, or cut): the caller's name must stand.
    char wanted[kNameField] = {}, got[kNameField + 1] = {};
    if (name) std::memcpy(wanted, name, strnlen(name, kNameField - 1));
    std::memcpy(got, out->name, kNameField);
    if (std::strncmp(wanted, got, kNameField) != 0) {
        DebugTrace("OOP!! Kelvane::create_array the arrayName is not expected(Line %d), the expected name is %s, but "
                   "now name is %s\n",
                   __LINE__, wanted, got);
        return -1;
    }
    return 0;
}

int Kelvane::expand_part(uint32_t handle, const ExpandPartRequest& request) {
    CommandExchange x(kExpandPart);
    DebugTrace("Kelvane::expand_part handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(312, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        std::memcpy(pkt + rec::kPktExpandPartRequest, &request, sizeof request);
        ConvertExpandPartRequest(1, pkt + rec::kPktExpandPartRequest);
    }
    return x.Run();
}

int Kelvane::expand_array(uint32_t handle, const uint8_t* arraySerial, const std::vector<DriveLocation>& vLoca) {
    CommandExchange x(kExpandArray);
    DebugTrace("Kelvane::expand_array handle = 0x%08x, drives = %d\n", handle, static_cast<int>(vLoca.size()));
    // The location list ends at 628, the end of its area: 68 entries.
    if (vLoca.empty() || vLoca.size() > rec::kMaxMembers) {
        DebugTrace("OOP!! Kelvane::expand_array %d drives, 1 to %u expected\n", static_cast<int>(vLoca.size()),
                   rec::kMaxMembers);
        return -1;
    }
    uint8_t* pkt = x.Begin(592, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        wire::StoreBe32(pkt + 48, static_cast<uint32_t>(vLoca.size()));
        PutSerial(pkt, 52, arraySerial);
        PutLocations(pkt + 84, vLoca);
    }
    return x.Run();
}

int Kelvane::delete_array(uint32_t handle, const uint8_t* arraySerial) {
    return HandleCommand(kDeleteArray, 48, handle, -1, 52, arraySerial, false);
}

int Kelvane::abort_utility(uint32_t handle, const uint8_t* arraySerial) {
    return HandleCommand(kAbortUtility, 44, handle, -1, 48, arraySerial);
}

int Kelvane::set_part_lun(uint32_t handle, uint8_t lun, const uint8_t* partSerial) {
    return HandleCommand(kSetPartLun, 48, handle, lun, 52, partSerial);
}

int Kelvane::get_dms_tag(uint32_t handle, uint8_t controllerId, uint64_t* tag) {
    CommandExchange x(kGetDmsTag);
    DebugTrace("Kelvane::get_dms_tag handle = 0x%08x, controllerId = %d\n", handle, controllerId);
    uint8_t* pkt = x.Begin(28, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = controllerId;
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    *tag = wire::LoadWords64(pkt + 56);
    return 0;
}

int Kelvane::create_snapshot(uint32_t handle, const char* name, uint8_t byte1, uint8_t byte2, uint64_t tag,
                             const uint8_t* masterId, SnapshotResult* out) {
    CommandExchange x(kCreateSnapshot);
    DebugTrace("Kelvane::create_snapshot handle = 0x%08x, name = %s\n", handle, name ? name : "(null)");
    uint8_t* pkt = x.Begin(1140, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = byte1;
        pkt[49] = byte2;
        pkt[50] = 2;
        pkt[51] = 1;
        wire::StoreWords64(pkt + 56, tag);
        if (masterId) std::memcpy(pkt + 64, masterId, 16);
        PutTerminatedName(pkt + 80, name);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    // Only the count of the returned list is a number; the serials travel as bytes.
    wire::Swap32(pkt + rec::kPktSnapshotResult);
    std::memcpy(out, pkt + rec::kPktSnapshotResult, sizeof *out);
    return 0;
}

int Kelvane::get_backing_store_list(uint32_t handle, uint8_t controllerId, uint32_t* outCount,
                                    BackingStoreEntry* out) {
    CommandExchange x(kGetBackingStores);
    DebugTrace("Kelvane::get_backing_store_list handle = 0x%08x, controllerId = %d\n", handle, controllerId);
    uint8_t* pkt = x.Begin(1304, false);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = controllerId;
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    uint32_t count = ListCount(kGetBackingStores.method, wire::LoadBe32(pkt + rec::kPktBackingStoreCount),
                               rec::BoundedBackingStoreCount,
                               CarriedEntries(x.replyDataLen(), rec::kPktBackingStoreEntries,
                                              rec::kBackingStoreEntrySize));
    std::memcpy(out, pkt + rec::kPktBackingStoreEntries, count * rec::kBackingStoreEntrySize);
    *outCount = count;
    return 0;
}

namespace {
// The master volume and snapshot lists: one request, one reply layout, different table sizes.
int VolumeList(const CommandDef& cmd, uint32_t dataLen, uint32_t (*bound)(uint32_t), bool snapshots,
               uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key, uint32_t* outCount,
               VolumeEntry* out) {
    CommandExchange x(cmd);
    DebugTrace("Kelvane::%s handle = 0x%08x, %d, %d\n", cmd.method, handle, byteA, byteB);
    uint8_t* pkt = x.Begin(dataLen, false);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[48] = byteA;
        pkt[49] = byteB;
        if (key)
            std::memcpy(pkt + 52, key, rec::kSerialSize);
        else
            std::memset(pkt + 52, 0, rec::kSerialSize);
        if (snapshots) {
            pkt[50] = 0;
            wire::StoreBe32(pkt + rec::kPktVolumeListCount, 0);
        }
    }
    int rc = x.Run();
    // The snapshot list is handed over with the array's code too, as long as the reply was sound.
    bool deliver = rc == 0 || (snapshots && x.failedOnErrorCode());
    if (!deliver) return rc;
    uint32_t count = ListCount(cmd.method, wire::LoadBe32(pkt + rec::kPktVolumeListCount), bound,
                               CarriedEntries(x.replyDataLen(), rec::kPktVolumeListEntries, rec::kVolumeEntrySize));
    std::memcpy(out, pkt + rec::kPktVolumeListEntries, count * rec::kVolumeEntrySize);
    *outCount = count;
    return rc;
}
}  // namespace

int Kelvane::get_master_volume_list(uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key,
                                    uint32_t* outCount, VolumeEntry* out) {
    return VolumeList(kGetMasterVolumes, 90168, rec::BoundedMasterVolumeCount, false, handle, byteB, byteA, key,
                      outCount, out);
}

int Kelvane::get_snapshot_list(uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key,
                               uint32_t* outCount, VolumeEntry* out) {
    return VolumeList(kGetSnapshots, 45112, rec::BoundedSnapshotCount, true, handle, byteB, byteA, key, outCount,
                      out);
}

int Kelvane::convert_master_volume(uint32_t handle, uint8_t subcommand, const uint8_t* serial, const uint8_t* id) {
    CommandExchange x(kConvertMaster);
    DebugTrace("Kelvane::convert_master_volume handle = 0x%08x, subcommand = %d, serial = %s\n", handle, subcommand,
               SerialText(serial).c_str());
    uint8_t* pkt = x.Begin(312, false);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        pkt[179] = subcommand;
        PutSerial(pkt, 133, serial);  // unaligned, as the array's table lays it out
        if (id) std::memcpy(pkt + 188, id, 16);
    }
    return x.Run();
}

namespace {
constexpr uint32_t kViewDataLen = 1359884;
constexpr uint8_t kAccessReadWrite = 0xC0;
constexpr uint8_t kAccessReadWriteShared = 0xCC;  // both controllers serve the LUN

// The fields both forms of create_custom_view share. The controller's handle stands in the
// entry; the count at 44 is always 1.
void PutViewEntry(uint8_t* pkt, uint32_t handle, const uint8_t* partSerial, uint32_t lun, bool removeAll,
                  uint8_t type, uint8_t access) {
    wire::StoreBe32(pkt + 44, 1);
    wire::StoreBe32(pkt + 48, handle);
    std::memset(pkt + 52, 1, 8);
    wire::StoreBe32(pkt + 60, removeAll ? 1 : 0);
    PutSerial(pkt, 64, partSerial);
    pkt[96] = type;
    wire::StoreBe32(pkt + 124, lun & 0xFFFF);
    wire::StoreBe16(pkt + 144, static_cast<uint16_t>(lun & 0xFFFF));
    std::memset(pkt + 148, access, 8);
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// 16 hexadecimal digits into 8 bytes, first digit highest; anything else is refused.
bool ParseWwn(const char* text, uint8_t out[8]) {
    if (strnlen(text, 17) != 16) return false;
    for (int i = 0; i < 8; ++i) {
        int hi = HexDigit(text[2 * i]), lo = HexDigit(text[2 * i + 1]);
        if (hi < 0 || lo < 0) return false;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}
}  // namespace

int Kelvane::create_custom_view(uint32_t handle, const uint8_t* partSerial, uint32_t lun, bool bCreate, uint8_t type,
                                const char* pWwpn, bool ulp) {
    CommandExchange x(kCreateCustomView);
    DebugTrace("Kelvane::create_custom_view handle = %d, PartSn = %s, lun = %d, bCreate = %d, pWwpn = %s\n",
               static_cast<int>(handle), SerialText(partSerial).c_str(), static_cast<int>(lun), bCreate ? 1 : 0,
               pWwpn ? pWwpn : "(null)");
    uint8_t wwn[8] = {};
    if (pWwpn && type == 16 && !ParseWwn(pWwpn, wwn)) {
        DebugTrace("OOP!! Kelvane::create_custom_view the world-wide name %s is not 16 hexadecimal digits\n", pWwpn);
        return -1;
    }
    uint8_t access = !bCreate ? 0 : ulp ? kAccessReadWriteShared : kAccessReadWrite;
    uint8_t* pkt = x.Begin(kViewDataLen, true);
    if (pkt) {
        PutViewEntry(pkt, handle, partSerial, lun, !bCreate && !pWwpn, type, access);
        if (pWwpn && type == 16) std::memcpy(pkt + 116, wwn, 8);
        if (pWwpn && type == 1) std::memcpy(pkt + 156, pWwpn, strnlen(pWwpn, 224));
    }
    return x.Run();
}

int Kelvane::create_custom_view(uint32_t handle, const uint8_t* partSerial, uint32_t lun, bool bCreate, uint8_t type,
                                const uint8_t* ip) {
    CommandExchange x(kCreateCustomView);
    char ipText[64] = "(null)";
    if (ip) {
        const uint8_t* a = ip + 4;
        std::snprintf(ipText, sizeof ipText, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
    }
    DebugTrace("Kelvane::create_custom_view hanndle = %d, PartSn = %s, lun = %d, bCreate = %d, ip = %s\n",
               static_cast<int>(handle), SerialText(partSerial).c_str(), static_cast<int>(lun), bCreate ? 1 : 0,
               ipText);
    uint8_t* pkt = x.Begin(kViewDataLen, true);
    if (pkt) {
        PutViewEntry(pkt, handle, partSerial, lun, !bCreate && !ip, type, bCreate ? kAccessReadWrite : 0);
        if (ip && (type == 0x40 || type == 0x80)) std::memcpy(pkt + 128, ip + 4, 16);
    }
    return x.Run();
}

int Kelvane::change_partition_cache_params(uint32_t handle, const uint8_t* partSerial, const uint8_t* cacheParams) {
    CommandExchange x(kCacheParams);
    DebugTrace("Kelvane::change_partition_cache_params handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(80, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        PutSerial(pkt, 52, partSerial);
        if (cacheParams) {
            std::memcpy(pkt + 84, cacheParams, rec::kCacheParamsSize);
            ConvertCacheParams(1, pkt + 84);
        }
    }
    return x.Run();
}

int Kelvane::reset_controller(uint32_t handle, uint8_t flag) {
    return HandleCommand(kResetController, 16, handle, flag, 0, nullptr);
}

int Kelvane::set_owner(uint32_t handle, const uint8_t* arraySerial) {
    return HandleCommand(kSetOwner, 48, handle, -1, 48, arraySerial);
}

namespace {
// The authentication table's shared payload.
constexpr uint32_t kAuthDataLen = 1036;
constexpr size_t kAuthFirstName = 52, kAuthSecondName = 284, kAuthSecret = 508, kAuthSecondText = 525,
                 kAuthThirdText = 749;
constexpr uint32_t kAuthNameMax = 224;
constexpr uint32_t kAuthSecretMax = 17;  // up to the second text at 525
constexpr size_t kAuthRecordSize = 1020;

struct AuthField {
    size_t at;
    const uint8_t* data;
    uint32_t length;
    uint32_t max;
};

// Lengths are the caller's and the copy is exact; a length beyond its field is refused before
// anything is sent, rather than spilling into the next field.
// `out`, when given, receives the record from 52 on a zero error_code.
int AuthCommand(const CommandDef& cmd, uint32_t handle, std::initializer_list<AuthField> fields,
                uint8_t* out = nullptr) {
    CommandExchange x(cmd);
    DebugTrace("Kelvane::%s handle = 0x%08x\n", cmd.method, handle);
    for (const AuthField& f : fields) {
        if (f.length > f.max || (f.length > 0 && !f.data)) {
            DebugTrace("OOP!! Kelvane::%s a field of %u bytes at %u does not fit its %u bytes\n", cmd.method,
                       f.length, static_cast<unsigned>(f.at), f.max);
            return -1;
        }
    }
    uint8_t* pkt = x.Begin(kAuthDataLen, true);
    if (pkt) {
        wire::StoreBe32(pkt + kHandleOffset, handle);
        for (const AuthField& f : fields)
            if (f.length) std::memcpy(pkt + f.at, f.data, f.length);
    }
    int rc = x.Run();
    if (rc == 0 && out) std::memcpy(out, pkt + kAuthFirstName, kAuthRecordSize);
    return rc;
}
}  // namespace

int Kelvane::get_authDB_record(uint32_t handle, const uint8_t* name, uint32_t nameLength, uint8_t* out) {
    return AuthCommand(kGetAuthRecord, handle, {{kAuthFirstName, name, nameLength, kAuthNameMax}}, out);
}

int Kelvane::set_target_secret(uint32_t handle, const uint8_t* secret, uint32_t secretLength) {
    return AuthCommand(kSetTargetSecret, handle, {{kAuthSecret, secret, secretLength, kAuthSecretMax}});
}

int Kelvane::clear_all_target_secret(uint32_t handle) { return AuthCommand(kClearTargetSecrets, handle, {}); }

int Kelvane::set_target_secret(uint32_t handle, const uint8_t* name, const uint8_t* secret, uint32_t nameLength,
                               uint32_t secretLength) {
    return AuthCommand(kSetNamedTargetSecret, handle,
                       {{kAuthFirstName, name, nameLength, kAuthNameMax},
                        {kAuthSecondName, name, nameLength, kAuthNameMax},
                        {kAuthSecret, secret, secretLength, kAuthSecretMax}});
}

int Kelvane::remeber_initiator_secret(uint32_t handle, const uint8_t* first, const uint8_t* second,
                                      const uint8_t* third, uint32_t firstLength, uint32_t secondLength,
                                      uint32_t thirdLength) {
    return AuthCommand(kRememberInitiator, handle,
                       {{kAuthFirstName, first, firstLength, kAuthNameMax},
                        {kAuthSecondText, second, secondLength, kAuthNameMax},
                        {kAuthThirdText, third, thirdLength, kAuthNameMax}});
}

int Kelvane::get_flex_known_hosts(uint32_t handle, KnownHostList* out) {
    CommandExchange x(kGetKnownHosts);
    DebugTrace("Kelvane::get_flex_known_hosts handle = 0x%08x\n", handle);
    uint8_t* pkt = x.Begin(63576, false);
    if (pkt) wire::StoreBe32(pkt + kHandleOffset, handle);
    int rc = x.Run();
    if (rc != 0) return rc;
    ConvertKnownHostList(0, pkt + rec::kPktKnownHostList);
    std::memset(out, 0, sizeof *out);
    std::memcpy(out, pkt + rec::kPktKnownHostList, sizeof *out);
    return 0;
}

int Kelvane::get_connect_Hba_info_list(HbaInfoList* out) {
    CommandExchange x(kGetHbaInfo);
    DebugTrace("Kelvane::get_connect_Hba_info_list\n");
    x.Begin(58128, true);
    int rc = x.Run();
    if (rc != 0) {
        if (x.failedOnErrorCode())
            DebugTrace("OOP!! Kelvane::get_connect_Hba_info_list return error code(Line %d), it return error_code = "
                       "%d\n",
                       __LINE__, static_cast<int>(x.errorCode()));
        else
            DebugTrace("OOP!! Kelvane::get_connect_Hba_info_list exec_cmnd return error");
        return rc;
    }
    uint8_t* pkt = x.packet();
    ConvertHbaInfoList(0, pkt + rec::kPktHbaInfoList);
    std::memcpy(out, pkt + rec::kPktHbaInfoList, sizeof *out);
    return 0;
}
