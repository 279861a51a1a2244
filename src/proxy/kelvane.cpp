#include "proxy/kelvane.h"

#include <cstring>

#include "proxy/iasocket.h"
#include "support/debuglog.h"

MutexHandle hVdsMutex = nullptr;

CommandExchange::CommandExchange(const CommandSpec& spec) : spec_(spec) {
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
    MakeHeader(pkt_, wire::RSREQUEST, spec_.opcode);
    wire::StoreBe32(pkt_ + wire::kDataLenOffset, dataLen);
    if (cleared) std::memset(pkt_ + wire::kHeaderSize, 0, dataLen);
    return pkt_;
}

int CommandExchange::Run(size_t errorOffset) {
    const char* name = spec_.logMethod ? spec_.logMethod : spec_.method;
    if (!pkt_) {
        DebugTrace("OOP!! Kelvane::%s exec_cmnd(Line %d) error, it return len = %d\n", name, __LINE__, -1);
        return -1;
    }
    int n = exec_cmnd(pkt_, static_cast<int>(wire::kHeaderSize + dataLen_), pkt_, static_cast<int>(wire::kHeaderSize));
    if (n <= 0) {
        DebugTrace("OOP!! Kelvane::%s exec_cmnd(Line %d) error, it return len = %d\n", name, __LINE__, n);
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
    if (type != wire::RSREPLY || op != spec_.opcode) {
        uint32_t shown = spec_.shownOpcode != UINT32_MAX ? spec_.shownOpcode : spec_.opcode;
        DebugTrace("OOP!! Kelvane::%s DataType or OpCode(Line %d) error, ph->DataType(=%d), RSREPLY(=%d), "
                   "ph->OpCode(=%d), %s(=%d) \n",
                   name, __LINE__, static_cast<int>(type), static_cast<int>(wire::RSREPLY), static_cast<int>(op),
                   spec_.opName, static_cast<int>(shown));
        return -1;
    }
    replyLen_ = len;
    // get_subsystems tests its word at 36 without conversion; a zero test is the same either way.
    errorCode_ = errorOffset == wire::kErrorCodeOffset ? wire::LoadBe32(pkt_ + errorOffset)
                                                       : wire::LoadLe32(pkt_ + errorOffset);
    if (errorCode_ != 0) {
        DebugTrace("OOP!! Kelvane::%s return error code(Line %d) error, it return len = %d\n", name, __LINE__, n);
        failedOnCode_ = true;
        return spec_.codeResult ? static_cast<int>(errorCode_) : -1;
    }
    return 0;
}

namespace {
const CommandSpec kGetSubsystems{"get_subsystems", "GET_CONTROLLERHANDLEDB", 0, false};
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

const CommandSpec kGetControllerData{"get_controller_data", "GET_CONTROLLER", 1, false};
const CommandSpec kGetEvent{"get_event", "GET_EVENT", 9, false};
const CommandSpec kGetEvents{"get_events", "GET_EVENT", 9, false};
const CommandSpec kAssignSpare{"assign_spare", "ASSIGN_POOL_SPARE", 19, false};
const CommandSpec kBlinkDrive{"blink_drive", "BLINK_DRIVE", 20, false};
const CommandSpec kFlushCache{"flush_cache", "FLUSH_CACHE", 21, false};
const CommandSpec kFreeCache{"free_cache", "FREE_CACHE", 22, false};
const CommandSpec kSilenceAlarm{"silence_alarm", "SILENCE_ALARM", 23, false};
const CommandSpec kGetPercent{"get_percent", "GET_PERCENT_COMPLETED", 28, false};
const CommandSpec kSetAdvNet{"set_adv_net", "SET_ADV_NET_INTERFACE", 29, false};
const CommandSpec kGetPartView{"get_part_view", "GET_PARTITION_VIEW", 70, false};
const CommandSpec kRescanBus{"rescan_bus", "RESCAN_ALL_BUS", 105, false};
const CommandSpec kGetNeedRefresh{"get_need_refresh", "GET_NEED_REFRESH", 108, true};
const CommandSpec kGetUnified{"get_unified_controller_data", "GET_UNIFIED_CONTROLLER", 109, true};

constexpr uint32_t kBlinkPauseMs = 5000;

void PutSerial(uint8_t* pkt, size_t offset, const uint8_t* serial) {
    if (serial) std::memcpy(pkt + offset, serial, rec::kSerialSize);
}

// A cleared command of a handle and, where given, a byte and a serial; answered by error_code.
int HandleCommand(const CommandSpec& spec, uint32_t dataLen, uint32_t handle, int byteAt48, size_t serialAt,
                  const uint8_t* serial) {
    CommandExchange x(spec);
    DebugTrace("Kelvane::%s handle = 0x%08x\n", spec.method, handle);
    uint8_t* pkt = x.Begin(dataLen, true);
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
    uint32_t carried = x.replyDataLen() > rec::kPktEventData - wire::kHeaderSize
                           ? static_cast<uint32_t>((x.replyDataLen() - (rec::kPktEventData - wire::kHeaderSize)) /
                                                   rec::kEventDataSize)
                           : 0;
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
    if (pkt && uniqueSN) std::memcpy(pkt + 44, uniqueSN, 32);
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
