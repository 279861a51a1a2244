#include "proxy/kelvane.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
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

uint8_t* CommandExchange::BeginPacket(size_t packetSize) {
    pkt_ = g_transport.PacketBuffer;
    if (!pkt_) return nullptr;
    if (packetSize != wire::kHeaderSize + cmd_.dataLen) {
        // A layout that isn't the command's: a slip in the code, refused rather than sent.
        DebugTrace("OOP!! Kelvane::%s packet of %u bytes for DataLen %u\n", cmd_.method,
                   static_cast<unsigned>(packetSize), cmd_.dataLen);
        pkt_ = nullptr;
        return nullptr;
    }
    dataLen_ = cmd_.dataLen;
    MakeHeader(pkt_, wire::RSREQUEST, cmd_.opcode);
    wire::StoreBe32(pkt_ + wire::kDataLenOffset, dataLen_);
    if (cmd_.cleared) std::memset(pkt_ + wire::kHeaderSize, 0, dataLen_);
    return pkt_;
}

int CommandExchange::Fail(const std::string& why, int32_t socketError) {
    NoteHostFailure("the exchange with the proxy service failed at %s (%s)", cmd_.method, why.c_str());
    DropConnection(socketError);
    return -1;
}

int CommandExchange::Run(size_t errorOffset) {
    const char* name = cmd_.LogMethod();
    if (!pkt_) {
        DebugTrace("OOP!! Kelvane::%s exec_cmnd(Line %d) error, it return len = %d\n", name, __LINE__, -1);
        return -1;
    }
    // A connection closed by an earlier failure stays closed until the reconnect: the command
    // fails at once, with the reason said when it was closed.
    const bool closedBefore = g_transport.sock.load() < 0;
    int n = exec_cmnd(pkt_, static_cast<int>(wire::kHeaderSize + dataLen_), pkt_, static_cast<int>(wire::kHeaderSize));
    if (n <= 0) {
        DebugTrace("OOP!! Kelvane::%s exec_cmnd(Line %d) error, it return len = %d\n", name, __LINE__, n);
        return Fail(closedBefore ? std::string("no connection; it was closed after a failed exchange and waits "
                                               "for the reconnect")
                                 : TransportErrorText(g_transport.LastSocketError.load()),
                    0);
    }
    // One receive takes the header, as in the original; a header that comes short is a malformed
    // reply here (the original judges the request's own bytes that it leaves in the buffer).
    const bool shortHeader = n != static_cast<int>(wire::kHeaderSize);
    uint32_t len = wire::DataLenOf(pkt_);
    if (!shortHeader && len != 0) {
        // Our bound: a reply larger than the packet buffer is refused before a byte of it lands.
        if (len > wire::kPacketBufferSize - wire::kHeaderSize) {
            DebugTrace("OOP!! Kelvane::%s ph->DataLen(Line %d) error, the len = %d, ntohl(ph->DataLen) = %d\n", name,
                       __LINE__, -1, static_cast<int>(len));
            DebugTrace("OOP!! Kelvane::%s reply of %u bytes does not fit the packet buffer\n", name, len);
            return Fail(TrovFormatString("a reply of %u bytes, more than the packet buffer holds", len),
                        kMalformedReply);
        }
        int got = recvdata(pkt_ + wire::kHeaderSize, static_cast<int>(len));
        if (got != static_cast<int>(len)) {
            DebugTrace("OOP!! Kelvane::%s ph->DataLen(Line %d) error, the len = %d, ntohl(ph->DataLen) = %d\n", name,
                       __LINE__, got, static_cast<int>(len));
            return Fail(TrovFormatString("the reply's %u bytes of payload did not all come: %s", len,
                                         TransportErrorText(g_transport.LastSocketError.load()).c_str()),
                        0);
        }
    }
    uint32_t type = wire::DataTypeOf(pkt_), op = wire::OpCodeOf(pkt_);
    if (type != wire::RSREPLY || op != cmd_.opcode) {
        DebugTrace("OOP!! Kelvane::%s DataType or OpCode(Line %d) error, ph->DataType(=%d), RSREPLY(=%d), "
                   "ph->OpCode(=%d), %s(=%d) \n",
                   name, __LINE__, static_cast<int>(type), static_cast<int>(wire::RSREPLY), static_cast<int>(op),
                   cmd_.LogOpName(), static_cast<int>(cmd_.LogOpcode()));
        if (shortHeader) return Fail(TrovFormatString("a reply header of %d bytes", n), kMalformedReply);
        return Fail(TrovFormatString("a reply of DataType %u, OpCode %u", type, op), kMalformedReply);
    }
    if (shortHeader) {
        // What the short header left of the request could pass for a reply: refused all the same.
        DebugTrace("OOP!! Kelvane::%s reply header of %d bytes(Line %d) error\n", name, n, __LINE__);
        return Fail(TrovFormatString("a reply header of %d bytes", n), kMalformedReply);
    }
    replyLen_ = len;
    // get_subsystems tests its word at 36 without conversion; a zero test is the same either way.
    errorCode_ = errorOffset == wire::kErrorCodeOffset ? wire::LoadBe32(pkt_ + errorOffset)
                                                       : wire::LoadLe32(pkt_ + errorOffset);
    if (errorCode_ != 0) {
        DebugTrace("OOP!! Kelvane::%s return error code(Line %d) error, it return len = %d\n", name, __LINE__, n);
        failedOnCode_ = true;
        return cmd_.codeResult() ? static_cast<int>(errorCode_) : -1;
    }
    return 0;
}

namespace {

using wire::StoreBe32;

// A 32-byte serial copied whole; a null serial leaves the field as it is.
void PutSerial(uint8_t (&field)[req::kSerial], const uint8_t* serial) {
    if (serial) std::memcpy(field, serial, req::kSerial);
}

// A name field "terminated": at most 31 characters and a zero, the rest of the field zero.
void PutTerminatedName(uint8_t (&field)[req::kName], const char* name) {
    std::memset(field, 0, req::kName);
    if (name) std::memcpy(field, name, strnlen(name, req::kName - 1));
}

// A name field of exactly 32 characters, as strncpy fills it.
void PutFullName(uint8_t (&field)[req::kName], const char* name) {
    std::memset(field, 0, req::kName);
    if (name) std::memcpy(field, name, strnlen(name, req::kName));
}

// A 32-byte serial as log text: it need not be terminated.
std::string SerialText(const uint8_t* serial) {
    if (!serial) return "(null)";
    return std::string(reinterpret_cast<const char*>(serial), strnlen(reinterpret_cast<const char*>(serial), 32));
}

// The two location words of each member.
void PutLocations(req::Location* at, const std::vector<DriveLocation>& vLoca) {
    for (size_t i = 0; i < vLoca.size(); ++i) {
        at[i].channelIndex = vLoca[i].channelIndex;
        at[i].driveIndex = vLoca[i].driveIndex;
    }
}

// How many entries of `entrySize` at packet offset `entriesAt` the reply's payload really held.
uint32_t CarriedEntries(uint32_t replyDataLen, size_t entriesAt, size_t entrySize) {
    size_t end = wire::kHeaderSize + replyDataLen;
    return end > entriesAt ? static_cast<uint32_t>((end - entriesAt) / entrySize) : 0;
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

// A command of a handle and what `fill` stores; answered by error_code.
template <class P, class Fill>
int HandleCommand(const CommandDef& cmd, uint32_t handle, Fill fill) {
    CommandExchange x(cmd);
    DebugTrace("Kelvane::%s handle = 0x%08x\n", cmd.method, handle);
    P* p = x.Begin<P>();
    if (p) {
        p->head.handle = handle;
        fill(*p);
    }
    return x.Run();
}

constexpr uint32_t kBlinkPauseMs = 5000;
constexpr uint32_t kDeletePartPauseMs = 2000;
constexpr uint32_t kCreateArrayPauseMs = 1000;
constexpr uint8_t kRaid1 = 1;
constexpr uint8_t kRaid10 = 10;
constexpr uint32_t kDefaultStripeKiB = 64;
// The 312-byte payload holds at most this many 40-byte entries behind the count.
constexpr uint32_t kMaxSubsystemEntries = std::size(req::GetSubsystems{}.entries);

}  // namespace

int Kelvane::get_subsystems(std::vector<SubsystemEntry>& list) {
    CommandExchange x(cmd::kGetSubsystems);
    DebugTrace("Kelvane::get_subsystems\n");
    auto* p = x.Begin<req::GetSubsystems>();
    if (p) p->flag = 1;
    int rc = x.Run(offsetof(req::GetSubsystems, errorWord));
    if (rc != 0) return rc;
    uint32_t count = p->count;
    if (count > kMaxSubsystemEntries) {
        // More entries than the payload can carry: the rest would be read from beyond the reply.
        DebugTrace("OOP!! Kelvane::get_subsystems count %u is more than %u entries, only %u taken\n", count,
                   kMaxSubsystemEntries, kMaxSubsystemEntries);
        count = kMaxSubsystemEntries;
    }
    for (uint32_t i = 0; i < count; ++i) {
        SubsystemEntry e;
        static_assert(sizeof e == sizeof p->entries[0]);
        std::memcpy(&e, p->entries[i], sizeof e);
        e.controllerA = wire::LoadBe32(&e.controllerA);
        e.controllerB = wire::LoadBe32(&e.controllerB);
        list.push_back(e);
    }
    DebugTrace("Kelvane::get_subsystems Out!\n");
    return 0;
}

// ---------------------------------------------------------------------------------------------
// The commands the object tree reads and drives the array with.

int Kelvane::get_controller_data(uint32_t handle, void* out) {
    CommandExchange x(cmd::kGetControllerData);
    DebugTrace("Kelvane::get_controller_data, handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::GetControllerData>();
    if (p) p->handle = handle;  // at 36, not 44
    int rc = x.Run();
    if (rc != 0) return rc;
    // Anything shorter than the record leaves the rest as the buffer held it; never more.
    if (x.replyDataLen() < rec::kControllerDataSize)
        DebugTrace("OOP!! Kelvane::get_controller_data reply of %u bytes is shorter than the record\n",
                   x.replyDataLen());
    std::memcpy(out, x.packet() + rec::kPktControllerData, rec::kControllerDataSize);
    ConvertControllerData(0, out);
    return 0;
}

int Kelvane::get_event(uint32_t handle, uint8_t flagA, uint8_t flagB, uint32_t number, EventData* out) {
    CommandExchange x(cmd::kGetEvent);
    DebugTrace("Kelvane::get_event handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::GetEvent>();
    if (p) {
        p->head.handle = handle;
        p->flagA = flagA;
        p->flagB = flagB;
        p->number = number;
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
    static_assert(sizeof *out == sizeof p->event);
    std::memcpy(out, p->event, sizeof *out);
    ConvertEventData(0, out);
    return 0;
}

int Kelvane::get_events(uint32_t handle, uint32_t firstEventNum, uint32_t lastEventNum, EventData* out,
                        uint32_t* outCount) {
    CommandExchange x(cmd::kGetEvents);
    DebugTrace("Kelvane::get_events firstEventNum = %d, lastEventNum = %d\n", static_cast<int>(firstEventNum),
               static_cast<int>(lastEventNum));
    auto* p = x.Begin<req::GetEvent>();
    if (p) {
        p->head.handle = handle;
        p->firstEventNum = firstEventNum;
        p->lastEventNum = lastEventNum;
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    uint32_t count = rec::BoundedEventCount(p->count);
    // Never more than the span asked for, and never more than the reply carried.
    uint64_t span = lastEventNum >= firstEventNum ? uint64_t(lastEventNum) - firstEventNum + 1 : 0;
    if (count > span) {
        DebugTrace("OOP!! Kelvane::get_events count %u is more than the %u events asked for, %u taken\n", count,
                   static_cast<uint32_t>(span), static_cast<uint32_t>(span));
        count = static_cast<uint32_t>(span);
    }
    constexpr size_t kFirst = offsetof(req::GetEvent, event);
    uint32_t carried = CarriedEntries(x.replyDataLen(), kFirst, rec::kEventDataSize);
    if (count > carried) {
        DebugTrace("OOP!! Kelvane::get_events count %u but the reply carries %u records, %u taken\n", count, carried,
                   carried);
        count = carried;
    }
    // The records run on behind the request's layout, as far as the reply carried them.
    for (uint32_t i = 0; i < count; ++i) {
        std::memcpy(&out[i], x.packet() + kFirst + i * rec::kEventDataSize, rec::kEventDataSize);
        ConvertEventData(0, &out[i]);
    }
    *outCount = count;
    return 0;
}

int Kelvane::assign_spare(uint32_t handle, uint8_t on, const uint8_t* driveSerial) {
    CommandExchange x(cmd::kAssignSpare);
    DebugTrace("Kelvane::assign_spare handle = 0x%08x, on = %d\n", handle, on);
    auto* p = x.Begin<req::AssignSpare>();
    if (p) {
        p->head.handle = handle;
        p->on = on;
        p->global = 1;
        PutSerial(p->driveSerial, driveSerial);
    }
    return x.Run();
}

int Kelvane::blink_drive(uint32_t handle, uint8_t on, const uint8_t* driveSerial) {
    CommandExchange x(cmd::kBlinkDrive);
    // The array wants the light's commands spaced out: the pause is taken under the lock.
    Plat()->Sleep(kBlinkPauseMs);
    DebugTrace("Kelvane::blink_drive handle = 0x%08x, on = %d\n", handle, on);
    auto* p = x.Begin<req::BlinkDrive>();
    if (p) {
        p->head.handle = handle;
        p->on = on;
        PutSerial(p->driveSerial, driveSerial);
    }
    return x.Run();
}

int Kelvane::flush_cache(uint32_t handle, const uint8_t* serial) {
    return HandleCommand<req::HandleAndSerial48>(cmd::kFlushCache, handle,
                                                 [&](auto& p) { PutSerial(p.serial, serial); });
}

int Kelvane::free_cache(uint32_t handle, const uint8_t* serial) {
    return HandleCommand<req::HandleAndSerial52>(cmd::kFreeCache, handle,
                                                 [&](auto& p) { PutSerial(p.serial, serial); });
}

int Kelvane::silence_alarm(uint32_t handle) {
    return HandleCommand<req::HandleAndByte>(cmd::kSilenceAlarm, handle, [](auto&) {});
}

int Kelvane::rescan_bus(uint32_t handle) {
    return HandleCommand<req::HandleAndByte>(cmd::kRescanBus, handle, [](auto&) {});
}

int Kelvane::get_percent(uint32_t handle, const uint8_t* arraySerial, uint32_t* percent) {
    CommandExchange x(cmd::kGetPercent);
    DebugTrace("Kelvane::get_percent handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::GetPercent>();
    if (p) {
        p->head.handle = handle;
        PutSerial(p->arraySerial, arraySerial);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    *percent = p->percent;
    return 0;
}

int Kelvane::set_adv_net(uint32_t handle, const AdvNet& advNet) {
    CommandExchange x(cmd::kSetAdvNet);
    DebugTrace("Kelvane::set_adv_net handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::SetAdvNet>();
    if (p) {
        p->head.handle = handle;
        p->one = 1;
        static_assert(sizeof advNet == sizeof p->advNet);
        std::memcpy(p->advNet, &advNet, sizeof advNet);
        ConvertAdvNet(1, p->advNet);
    }
    return x.Run();
}

int Kelvane::get_part_view(uint32_t handle, const uint8_t* partSerial, PartitionView* out) {
    CommandExchange x(cmd::kGetPartView);
    DebugTrace("Kelvane::get_part_view handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::GetPartView>();
    if (p) {
        p->head.handle = handle;
        PutSerial(p->partSerial, partSerial);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    static_assert(sizeof *out == sizeof p->partitionView);
    std::memcpy(out, p->partitionView, sizeof *out);
    ConvertPartitionView(0, out);
    return 0;
}

int Kelvane::get_need_refresh(const char* uniqueSN, uint8_t* answer) {
    CommandExchange x(cmd::kGetNeedRefresh);
    DebugTrace("Kelvane::get_need_refresh\n");
    auto* p = x.Begin<req::GetNeedRefresh>();
    if (p) {
        // The field holds 32 characters; a shorter text is followed by zeros, never by what lies
        // behind it in the caller's memory.
        std::memset(p->uniqueSN, 0, sizeof p->uniqueSN);
        if (uniqueSN) std::memcpy(p->uniqueSN, uniqueSN, strnlen(uniqueSN, sizeof p->uniqueSN));
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    *answer = p->answer;
    return 0;
}

int Kelvane::get_unified_controller_data(uint32_t handle, UnifiedControllerData* out) {
    CommandExchange x(cmd::kGetUnified);
    DebugTrace("Kelvane::get_unified_controller_data handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::GetUnifiedControllerData>();
    if (p) p->head.handle = handle;
    int rc = x.Run();
    if (rc != 0) return rc;
    static_assert(sizeof *out == sizeof p->unified);
    ConvertUnifiedControllerData(0, p->unified);
    std::memcpy(out, p->unified, sizeof *out);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Provisioning, snapshots, views, cache and ownership, the authentication table, host lists.

int Kelvane::get_version() {
    CommandExchange x(cmd::kGetVersion);
    DebugTrace("Kelvane::get_version\n");
    x.Begin<req::GetVersion>();
    return x.Run();
}

int Kelvane::set_part_name(uint32_t handle, const uint8_t* partSerial, const char* name) {
    CommandExchange x(cmd::kSetPartName);
    DebugTrace("Kelvane::set_part_name handle = 0x%08x, name = %s\n", handle, name ? name : "(null)");
    auto* p = x.Begin<req::SetPartName>();
    if (p) {
        p->head.handle = handle;
        PutSerial(p->partSerial, partSerial);
        PutFullName(p->name, name);
    }
    return x.Run();
}

int Kelvane::add_array_part(uint32_t handle, const uint8_t* arraySerial, uint64_t sizeBytes, const char* name,
                            uint8_t byte1, uint8_t byte2, const uint8_t* backingStoreId, PartitionData* out) {
    CommandExchange x(cmd::kAddArrayPart);
    DebugTrace("Kelvane::add_array_part handle = 0x%08x, size = %llu, name = %s\n", handle,
               static_cast<unsigned long long>(sizeBytes), name ? name : "(null)");
    auto* p = x.Begin<req::AddArrayPart>();
    if (p) {
        p->head.handle = handle;
        p->minusOne = 0xFFFFFFFFu;
        p->sizeBlocks = sizeBytes >> 9;
        p->special = byte1;
        p->partitionType = byte2;
        PutSerial(p->arraySerial, arraySerial);
        PutSerial(p->backingStoreId, backingStoreId);
        PutTerminatedName(p->name, name);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    static_assert(sizeof *out == sizeof p->partitionData);
    ConvertPartitionData(0, p->partitionData);
    std::memcpy(out, p->partitionData, sizeof *out);
    return 0;
}

int Kelvane::delete_part(uint32_t handle, const uint8_t* partSerial) {
    CommandExchange x(cmd::kDeletePart);
    DebugTrace("Kelvane::delete_part handle = 0x%08x, PartSn = %s\n", handle, SerialText(partSerial).c_str());
    auto* p = x.Begin<req::HandleAndSerial52>();
    if (p) {
        p->head.handle = handle;
        PutSerial(p->serial, partSerial);
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
    CommandExchange x(cmd::kCreateArray);
    DebugTrace("Kelvane::create_array handle = 0x%08x, raidLevel = %d, drives = %d, name = %s\n", handle, raidLevel,
               static_cast<int>(vSerial.size()), name ? name : "(null)");
    size_t n = vSerial.size();
    // Refused before anything is sent: the member tables hold 68 entries, and the two lists
    // describe the same drives.
    if (n == 0 || n > req::kMaxMembers || vLoca.size() != n) {
        DebugTrace("OOP!! Kelvane::create_array %d drives with %d locations, 1 to %u expected\n", static_cast<int>(n),
                   static_cast<int>(vLoca.size()), req::kMaxMembers);
        return -1;
    }
    auto* p = x.Begin<req::CreateArray>();
    if (p) {
        p->head.handle = handle;
        PutLocations(p->locations, vLoca);
        for (const DriveLocation& l : vLoca)
            DebugTrace("Create Array Uses Drive: %d.%d\n", static_cast<int>(l.channelIndex),
                       static_cast<int>(l.driveIndex));
        p->count = static_cast<uint32_t>(n);
        p->numSpares = numSpares;
        p->raidLevel = raidLevel == kRaid1 && n > 2 ? kRaid10 : raidLevel;
        p->zero608 = 0;
        p->stripeKiB = stripeBytes == 0 ? kDefaultStripeKiB : stripeBytes >> 10;
        p->drivesPerLeg = drivesPerLeg;
        p->minusOne = 0xFFFFFFFFu;
        p->controllerId = controllerId;
        p->zero625 = 0;
        p->three628 = 3;
        p->zero629 = 0;
        PutTerminatedName(p->name, name);
        for (size_t i = 0; i < n; ++i) std::memcpy(p->serials[i], vSerial[i].data(), req::kSerial);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    static_assert(sizeof *out == sizeof p->arrayData);
    ConvertArrayData(0, p->arrayData);
    std::memcpy(out, p->arrayData, sizeof *out);
    Plat()->Sleep(kCreateArrayPauseMs);
    // The array may have taken another name (a duplicate, or cut): the caller's name must stand.
    char wanted[req::kName] = {}, got[req::kName + 1] = {};
    if (name) std::memcpy(wanted, name, strnlen(name, req::kName - 1));
    std::memcpy(got, out->name, req::kName);
    if (std::strncmp(wanted, got, req::kName) != 0) {
        DebugTrace("OOP!! Kelvane::create_array the arrayName is not expected(Line %d), the expected name is %s, but "
                   "now name is %s\n",
                   __LINE__, wanted, got);
        return -1;
    }
    return 0;
}

int Kelvane::expand_part(uint32_t handle, const ExpandPartRequest& request) {
    CommandExchange x(cmd::kExpandPart);
    DebugTrace("Kelvane::expand_part handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::ExpandPart>();
    if (p) {
        p->head.handle = handle;
        static_assert(sizeof request == sizeof p->request);
        std::memcpy(p->request, &request, sizeof request);
        ConvertExpandPartRequest(1, p->request);
    }
    return x.Run();
}

int Kelvane::expand_array(uint32_t handle, const uint8_t* arraySerial, const std::vector<DriveLocation>& vLoca) {
    CommandExchange x(cmd::kExpandArray);
    DebugTrace("Kelvane::expand_array handle = 0x%08x, drives = %d\n", handle, static_cast<int>(vLoca.size()));
    // The location list ends at 628, the end of its area: 68 entries.
    if (vLoca.empty() || vLoca.size() > req::kMaxMembers) {
        DebugTrace("OOP!! Kelvane::expand_array %d drives, 1 to %u expected\n", static_cast<int>(vLoca.size()),
                   req::kMaxMembers);
        return -1;
    }
    auto* p = x.Begin<req::ExpandArray>();
    if (p) {
        p->head.handle = handle;
        p->count = static_cast<uint32_t>(vLoca.size());
        PutSerial(p->arraySerial, arraySerial);
        PutLocations(p->locations, vLoca);
    }
    return x.Run();
}

int Kelvane::delete_array(uint32_t handle, const uint8_t* arraySerial) {
    return HandleCommand<req::HandleAndSerial52>(cmd::kDeleteArray, handle,
                                                 [&](auto& p) { PutSerial(p.serial, arraySerial); });
}

int Kelvane::abort_utility(uint32_t handle, const uint8_t* arraySerial) {
    return HandleCommand<req::HandleAndSerial48>(cmd::kAbortUtility, handle,
                                                 [&](auto& p) { PutSerial(p.serial, arraySerial); });
}

int Kelvane::set_part_lun(uint32_t handle, uint8_t lun, const uint8_t* partSerial) {
    return HandleCommand<req::SetPartLun>(cmd::kSetPartLun, handle, [&](auto& p) {
        p.lun = lun;
        PutSerial(p.partSerial, partSerial);
    });
}

int Kelvane::get_dms_tag(uint32_t handle, uint8_t controllerId, uint64_t* tag) {
    CommandExchange x(cmd::kGetDmsTag);
    DebugTrace("Kelvane::get_dms_tag handle = 0x%08x, controllerId = %d\n", handle, controllerId);
    auto* p = x.Begin<req::GetDmsTag>();
    if (p) {
        p->head.handle = handle;
        p->controllerId = controllerId;
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    *tag = p->tag;
    return 0;
}

int Kelvane::create_snapshot(uint32_t handle, const char* name, uint8_t byte1, uint8_t byte2, uint64_t tag,
                             const uint8_t* masterId, SnapshotResult* out) {
    CommandExchange x(cmd::kCreateSnapshot);
    DebugTrace("Kelvane::create_snapshot handle = 0x%08x, name = %s\n", handle, name ? name : "(null)");
    auto* p = x.Begin<req::CreateSnapshot>();
    if (p) {
        p->head.handle = handle;
        p->special = byte1;
        p->byte2 = byte2;
        p->two50 = 2;
        p->one51 = 1;
        p->tag = tag;
        if (masterId) std::memcpy(p->masterId, masterId, sizeof p->masterId);
        PutTerminatedName(p->name, name);
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    // Only the count of the returned list is a number; the serials travel as bytes.
    static_assert(sizeof *out == sizeof p->result);
    wire::Swap32(p->result);
    std::memcpy(out, p->result, sizeof *out);
    return 0;
}

int Kelvane::get_backing_store_list(uint32_t handle, uint8_t controllerId, uint32_t* outCount,
                                    BackingStoreEntry* out) {
    CommandExchange x(cmd::kGetBackingStores);
    DebugTrace("Kelvane::get_backing_store_list handle = 0x%08x, controllerId = %d\n", handle, controllerId);
    auto* p = x.Begin<req::GetBackingStoreList>();
    if (p) {
        p->head.handle = handle;
        p->controllerId = controllerId;
    }
    int rc = x.Run();
    if (rc != 0) return rc;
    uint32_t count = ListCount(cmd::kGetBackingStores.method, p->count, rec::BoundedBackingStoreCount,
                               CarriedEntries(x.replyDataLen(), offsetof(req::GetBackingStoreList, entries),
                                              rec::kBackingStoreEntrySize));
    std::memcpy(out, p->entries, count * rec::kBackingStoreEntrySize);
    *outCount = count;
    return 0;
}

namespace {
// The master volume and snapshot lists: one request, one reply layout, different table sizes.
template <class P>
int VolumeList(const CommandDef& cmd, uint32_t (*bound)(uint32_t), bool snapshots, uint32_t handle, uint8_t byteB,
               uint8_t byteA, const uint8_t* key, uint32_t* outCount, VolumeEntry* out) {
    CommandExchange x(cmd);
    DebugTrace("Kelvane::%s handle = 0x%08x, %d, %d\n", cmd.method, handle, byteA, byteB);
    P* p = x.template Begin<P>();
    if (p) {
        p->head.handle = handle;
        p->byteA = byteA;
        p->byteB = byteB;
        if (key)
            std::memcpy(p->key, key, sizeof p->key);
        else
            std::memset(p->key, 0, sizeof p->key);
        if (snapshots) {
            p->zero50 = 0;
            p->count = 0;
        }
    }
    int rc = x.Run();
    // The snapshot list is handed over with the array's code too, as long as the reply was sound.
    bool deliver = rc == 0 || (snapshots && x.failedOnErrorCode());
    if (!deliver) return rc;
    uint32_t count = ListCount(cmd.method, p->count, bound,
                               CarriedEntries(x.replyDataLen(), offsetof(P, entries), rec::kVolumeEntrySize));
    std::memcpy(out, p->entries, count * rec::kVolumeEntrySize);
    *outCount = count;
    return rc;
}
}  // namespace

int Kelvane::get_master_volume_list(uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key,
                                    uint32_t* outCount, VolumeEntry* out) {
    return VolumeList<req::GetMasterVolumeList>(cmd::kGetMasterVolumes, rec::BoundedMasterVolumeCount, false, handle,
                                                byteB, byteA, key, outCount, out);
}

int Kelvane::get_snapshot_list(uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key,
                               uint32_t* outCount, VolumeEntry* out) {
    return VolumeList<req::GetSnapshotList>(cmd::kGetSnapshots, rec::BoundedSnapshotCount, true, handle, byteB, byteA,
                                            key, outCount, out);
}

int Kelvane::convert_master_volume(uint32_t handle, uint8_t subcommand, const uint8_t* serial, const uint8_t* id) {
    CommandExchange x(cmd::kConvertMaster);
    DebugTrace("Kelvane::convert_master_volume handle = 0x%08x, subcommand = %d, serial = %s\n", handle, subcommand,
               SerialText(serial).c_str());
    auto* p = x.Begin<req::ConvertMasterVolume>();
    if (p) {
        p->head.handle = handle;
        p->subcommand = subcommand;
        PutSerial(p->serial, serial);
        if (id) std::memcpy(p->id, id, sizeof p->id);
    }
    return x.Run();
}

namespace {
constexpr uint8_t kAccessReadWrite = 0xC0;
constexpr uint8_t kAccessReadWriteShared = 0xCC;  // both controllers serve the LUN

// The fields both forms of create_custom_view share: one entry, which names the controller.
req::ViewEntry& PutViewEntry(req::CreateCustomView& v, uint32_t handle, const uint8_t* partSerial, uint32_t lun,
                             bool removeAll, uint8_t type, uint8_t access) {
    v.count = 1;
    req::ViewEntry& e = v.entries[0];
    e.handle = handle;
    std::memset(e.ones, 1, sizeof e.ones);
    e.removeAll = removeAll ? 1 : 0;
    PutSerial(e.partSerial, partSerial);
    e.hostType = type;
    e.lun = lun & 0xFFFF;
    e.lun16 = static_cast<uint16_t>(lun & 0xFFFF);
    std::memset(e.access, access, sizeof e.access);
    return e;
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
    CommandExchange x(cmd::kCreateCustomView);
    DebugTrace("Kelvane::create_custom_view handle = %d, PartSn = %s, lun = %d, bCreate = %d, pWwpn = %s\n",
               static_cast<int>(handle), SerialText(partSerial).c_str(), static_cast<int>(lun), bCreate ? 1 : 0,
               pWwpn ? pWwpn : "(null)");
    uint8_t wwn[8] = {};
    if (pWwpn && type == 16 && !ParseWwn(pWwpn, wwn)) {
        DebugTrace("OOP!! Kelvane::create_custom_view the world-wide name %s is not 16 hexadecimal digits\n", pWwpn);
        return -1;
    }
    uint8_t access = !bCreate ? 0 : ulp ? kAccessReadWriteShared : kAccessReadWrite;
    auto* p = x.Begin<req::CreateCustomView>();
    if (p) {
        req::ViewEntry& e = PutViewEntry(*p, handle, partSerial, lun, !bCreate && !pWwpn, type, access);
        if (pWwpn && type == 16) std::memcpy(e.wwn, wwn, sizeof e.wwn);
        if (pWwpn && type == 1) std::memcpy(e.hostName, pWwpn, strnlen(pWwpn, sizeof e.hostName));
    }
    return x.Run();
}

int Kelvane::create_custom_view(uint32_t handle, const uint8_t* partSerial, uint32_t lun, bool bCreate, uint8_t type,
                                const uint8_t* ip) {
    CommandExchange x(cmd::kCreateCustomView);
    char ipText[64] = "(null)";
    if (ip) {
        const uint8_t* a = ip + 4;
        std::snprintf(ipText, sizeof ipText, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
    }
    DebugTrace("Kelvane::create_custom_view hanndle = %d, PartSn = %s, lun = %d, bCreate = %d, ip = %s\n",
               static_cast<int>(handle), SerialText(partSerial).c_str(), static_cast<int>(lun), bCreate ? 1 : 0,
               ipText);
    auto* p = x.Begin<req::CreateCustomView>();
    if (p) {
        req::ViewEntry& e =
            PutViewEntry(*p, handle, partSerial, lun, !bCreate && !ip, type, bCreate ? kAccessReadWrite : 0);
        if (ip && (type == 0x40 || type == 0x80)) std::memcpy(e.address, ip + 4, sizeof e.address);
    }
    return x.Run();
}

int Kelvane::change_partition_cache_params(uint32_t handle, const uint8_t* partSerial, const uint8_t* cacheParams) {
    CommandExchange x(cmd::kCacheParams);
    DebugTrace("Kelvane::change_partition_cache_params handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::SetCacheParams>();
    if (p) {
        p->head.handle = handle;
        PutSerial(p->partSerial, partSerial);
        if (cacheParams) {
            std::memcpy(p->cacheParams, cacheParams, sizeof p->cacheParams);
            ConvertCacheParams(1, p->cacheParams);
        }
    }
    return x.Run();
}

int Kelvane::reset_controller(uint32_t handle, uint8_t flag) {
    return HandleCommand<req::HandleAndByte>(cmd::kResetController, handle, [&](auto& p) { p.flag = flag; });
}

int Kelvane::set_owner(uint32_t handle, const uint8_t* arraySerial) {
    return HandleCommand<req::SetOwner>(cmd::kSetOwner, handle,
                                        [&](auto& p) { PutSerial(p.arraySerial, arraySerial); });
}

namespace {
// Where a field of the authentication table's payload stands, and the room it has.
struct AuthPlace {
    size_t at;
    uint32_t max;
};
#define TROV_AUTH_FIELD(member) \
    offsetof(req::AuthRecord, member), static_cast<uint32_t>(sizeof(req::AuthRecord::member))
constexpr AuthPlace kAuthFirstName{TROV_AUTH_FIELD(firstName)};
constexpr AuthPlace kAuthSecondName{TROV_AUTH_FIELD(secondName)};
constexpr AuthPlace kAuthSecret{TROV_AUTH_FIELD(secret)};
constexpr AuthPlace kAuthSecondText{TROV_AUTH_FIELD(secondText)};
constexpr AuthPlace kAuthThirdText{TROV_AUTH_FIELD(thirdText)};
#undef TROV_AUTH_FIELD

// A field to store: its place, the caller's bytes and their length.
struct AuthField {
    size_t at;
    const uint8_t* data;
    uint32_t length;
    uint32_t max;
};

AuthField Field(AuthPlace place, const uint8_t* data, uint32_t length) { return {place.at, data, length, place.max}; }

// Lengths are the caller's and the copy is exact; a length beyond its field is refused before
// anything is sent, rather than spilling into the next field.
// `out`, when given, receives the record from the first name on, on a zero error_code.
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
    auto* p = x.Begin<req::AuthRecord>();
    if (p) {
        p->head.handle = handle;
        for (const AuthField& f : fields)
            if (f.length) std::memcpy(x.packet() + f.at, f.data, f.length);
    }
    int rc = x.Run();
    if (rc == 0 && out) std::memcpy(out, x.packet() + kAuthFirstName.at, req::kAuthRecordSize);
    return rc;
}
}  // namespace

int Kelvane::get_authDB_record(uint32_t handle, const uint8_t* name, uint32_t nameLength, uint8_t* out) {
    return AuthCommand(cmd::kGetAuthRecord, handle, {Field(kAuthFirstName, name, nameLength)}, out);
}

int Kelvane::set_target_secret(uint32_t handle, const uint8_t* secret, uint32_t secretLength) {
    return AuthCommand(cmd::kSetTargetSecret, handle, {Field(kAuthSecret, secret, secretLength)});
}

int Kelvane::clear_all_target_secret(uint32_t handle) { return AuthCommand(cmd::kClearTargetSecrets, handle, {}); }

int Kelvane::set_target_secret(uint32_t handle, const uint8_t* name, const uint8_t* secret, uint32_t nameLength,
                               uint32_t secretLength) {
    return AuthCommand(cmd::kSetNamedTargetSecret, handle,
                       {Field(kAuthFirstName, name, nameLength), Field(kAuthSecondName, name, nameLength),
                        Field(kAuthSecret, secret, secretLength)});
}

int Kelvane::remeber_initiator_secret(uint32_t handle, const uint8_t* first, const uint8_t* second,
                                      const uint8_t* third, uint32_t firstLength, uint32_t secondLength,
                                      uint32_t thirdLength) {
    return AuthCommand(cmd::kRememberInitiator, handle,
                       {Field(kAuthFirstName, first, firstLength), Field(kAuthSecondText, second, secondLength),
                        Field(kAuthThirdText, third, thirdLength)});
}

int Kelvane::get_flex_known_hosts(uint32_t handle, KnownHostList* out) {
    CommandExchange x(cmd::kGetKnownHosts);
    DebugTrace("Kelvane::get_flex_known_hosts handle = 0x%08x\n", handle);
    auto* p = x.Begin<req::GetKnownHosts>();
    if (p) p->head.handle = handle;
    int rc = x.Run();
    if (rc != 0) return rc;
    static_assert(sizeof *out == sizeof p->knownHosts);
    ConvertKnownHostList(0, p->knownHosts);
    std::memset(out, 0, sizeof *out);
    std::memcpy(out, p->knownHosts, sizeof *out);
    return 0;
}

int Kelvane::get_connect_Hba_info_list(HbaInfoList* out) {
    CommandExchange x(cmd::kGetHbaInfo);
    DebugTrace("Kelvane::get_connect_Hba_info_list\n");
    auto* p = x.Begin<req::GetHbaInfoList>();
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
    static_assert(sizeof *out == sizeof p->hbaInfo);
    ConvertHbaInfoList(0, p->hbaInfo);
    std::memcpy(out, p->hbaInfo, sizeof *out);
    return 0;
}
