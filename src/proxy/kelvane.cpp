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
