// The layouts of every request the client sends, and the one table of the management commands.
//
// Each packet is a struct laid over the whole packet, header included, so that its members sit at
// their packet offsets (checked below with static_assert) and its size is 36 + DataLen. Where a
// command's reply has the request's layout with results written in, the struct names the reply's
// fields too (get_percent's `percent`, the list tables). Multi-byte numbers are wire::Be32, Be16
// and BeWords64: big-endian bytes that read and assign as host-order values; serials, names and
// records are byte arrays (a record is converted in place by its converter of proxy/records.h).
// Every struct has alignment 1 and may be laid over any byte pointer, the packet buffer included.
// A member named reservedNNN is sent as the buffer holds it (zero for a "cleared" command).
//
// The command table (cmd::) holds each command's fixed facts: the method's name (its log lines
// read "Kelvane::<method> ..."), the array's name of the operation, OpCode, DataLen (taken from the
// packet struct), whether the payload is cleared before the fields are stored, the result rule,
// where the controller handle stands, and the names a few commands' failure lines borrow from
// another command. The client (Kelvane), the emulator and the tests all take them from here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "proxy/records.h"
#include "proxy/wire.h"

namespace req {

using wire::Be16;
using wire::Be32;
using wire::BeWords64;
using wire::CommandHead;
using wire::PacketHeader;

constexpr size_t kSerial = rec::kSerialSize;  // a 32-byte key copied whole
constexpr size_t kName = 32;                  // a name field

// A member drive's place: two words.
struct Location {
    Be32 channelIndex;
    Be32 driveIndex;
};

// --- Commands ----------------------------------------------------------------------------------

// GET_CONTROLLERHANDLEDB. The reply's error word stands at 36 (not 40) and is tested for zero
// without conversion; the count at 44, then up to 7 entries of 40 bytes (SubsystemEntry).
struct GetSubsystems {
    PacketHeader header;
    uint8_t errorWord[4];  // 36, reply
    uint8_t reserved40[4];
    Be32 count;    // 44, reply
    uint8_t flag;  // 48, 1 in the request
    uint8_t reserved49[3];
    uint8_t entries[7][40];  // 52, reply
    uint8_t reserved332[16];
};

// GET_CONTROLLER: the handle alone, at 36. The reply is a whole ControllerData from 36.
struct GetControllerData {
    PacketHeader header;
    Be32 handle;  // 36
};

// GET_EVENT, for get_event (flags and number) and get_events (first and last). A get_events
// reply carries its count at 56 and that many EventData records from 68.
struct GetEvent {
    CommandHead head;
    uint8_t flagA;  // 48
    uint8_t flagB;  // 49
    uint8_t reserved50[2];
    Be32 number;          // 52
    Be32 count;           // 56, reply of get_events
    Be32 firstEventNum;   // 60
    Be32 lastEventNum;    // 64
    uint8_t event[rec::kEventDataSize];  // 68, reply: the first record
};

// GET_VERSION: no payload; the reply carries error_code only.
struct GetVersion {
    PacketHeader header;
};

struct SetPartName {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t partSerial[kSerial];  // 52
    uint8_t name[kName];          // 84, up to 32 characters
};

struct AddArrayPart {
    CommandHead head;
    Be32 minusOne;          // 48, 0xFFFFFFFF
    BeWords64 sizeBlocks;   // 52
    uint8_t special;        // 60, 1 for a special volume
    uint8_t partitionType;  // 61
    uint8_t reserved62[6];
    uint8_t arraySerial[kSerial];  // 68
    uint8_t reserved100[32];
    uint8_t backingStoreId[kSerial];  // 132, or zeros
    uint8_t name[kName];              // 164, terminated
    uint8_t partitionData[rec::kPartitionDataSize];  // 196, reply
};

// DELETE_PART, FREE_CACHE, DELETE_ARRAY: a handle and a serial at 52.
struct HandleAndSerial52 {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t serial[kSerial];  // 52
};

// FLUSH_CACHE, ABORT_UTILITY: a handle and a serial at 48.
struct HandleAndSerial48 {
    CommandHead head;
    uint8_t serial[kSerial];  // 48
};

constexpr uint32_t kMaxMembers = rec::kMaxMembers;

struct CreateArray {
    CommandHead head;
    uint8_t reserved48[4];
    Location locations[kMaxMembers];  // 52
    Be32 count;                       // 596
    Be32 numSpares;                   // 600
    uint8_t raidLevel;                // 604
    uint8_t reserved605[3];
    Be32 zero608;
    Be32 stripeKiB;     // 612
    Be32 drivesPerLeg;  // 616
    Be32 minusOne;      // 620, 0xFFFFFFFF
    uint8_t controllerId;  // 624
    uint8_t zero625;
    uint8_t reserved626[2];
    uint8_t three628;  // 3
    uint8_t zero629;
    uint8_t reserved630[2];
    uint8_t name[kName];  // 632, terminated
    uint8_t reserved664[108];
    uint8_t serials[kMaxMembers][kSerial];  // 772
    uint8_t reserved2948[32];
    uint8_t arrayData[rec::kArrayDataSize];  // 2980, reply
};

struct ExpandPart {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t request[rec::kExpandPartRequestSize];  // 52, an ExpandPartRequest
};

struct ExpandArray {
    CommandHead head;
    Be32 count;                       // 48
    uint8_t arraySerial[kSerial];     // 52
    Location locations[kMaxMembers];  // 84, up to 628
};

struct AssignSpare {
    CommandHead head;
    uint8_t on;      // 48
    uint8_t global;  // 49, 1
    uint8_t reserved50[34];
    uint8_t driveSerial[kSerial];  // 84
};

struct BlinkDrive {
    CommandHead head;
    uint8_t on;  // 48
    uint8_t reserved49[3];
    uint8_t driveSerial[kSerial];  // 52
};

// SILENCE_ALARM, RESCAN_ALL_BUS, REBOOT_CONTROLLER: a handle and a byte at 48.
struct HandleAndByte {
    CommandHead head;
    uint8_t flag;  // 48 (REBOOT_CONTROLLER's flag; otherwise 0)
    uint8_t reserved49[3];
};

struct GetPercent {
    CommandHead head;
    uint8_t arraySerial[kSerial];  // 48
    Be32 percent;                  // 80, reply
};

struct SetAdvNet {
    CommandHead head;
    Be32 one;                           // 48, 1
    uint8_t advNet[rec::kAdvNetSize];   // 52
};

struct SetPartLun {
    CommandHead head;
    uint8_t lun;  // 48
    uint8_t reserved49[3];
    uint8_t partSerial[kSerial];  // 52
};

struct GetDmsTag {
    CommandHead head;
    uint8_t controllerId;  // 48
    uint8_t reserved49[7];
    BeWords64 tag;  // 56, reply
};

struct CreateSnapshot {
    CommandHead head;
    uint8_t special;  // 48, 1 for a special volume
    uint8_t byte2;    // 49
    uint8_t two50;    // 2
    uint8_t one51;    // 1
    uint8_t reserved52[4];
    BeWords64 tag;         // 56, from get_dms_tag
    uint8_t masterId[16];  // 64
    uint8_t name[kName];   // 80, terminated
    uint8_t reserved112[800];
    uint8_t result[rec::kSnapshotResultSize];  // 912, reply
};

struct GetBackingStoreList {
    CommandHead head;
    uint8_t controllerId;  // 48
    uint8_t reserved49[3];
    Be32 count;  // 52, reply
    uint8_t reserved56[4];
    uint8_t entries[rec::kMaxBackingStores][rec::kBackingStoreEntrySize];  // 60, reply
};

// The master volume (1,024 entries) and snapshot (512 entries) lists.
template <uint32_t N>
struct VolumeList {
    CommandHead head;
    uint8_t byteA;   // 48
    uint8_t byteB;   // 49
    uint8_t zero50;  // 50, the snapshot list's
    uint8_t reserved51;
    uint8_t key[kSerial];  // 52, or zeros
    Be32 count;            // 84; 0 in the snapshot list's request
    uint8_t reserved88[4];
    uint8_t entries[N][rec::kVolumeEntrySize];  // 92, reply
};
using GetMasterVolumeList = VolumeList<rec::kMaxMasterVolumes>;
using GetSnapshotList = VolumeList<rec::kMaxSnapshots>;

struct ConvertMasterVolume {
    CommandHead head;
    uint8_t reserved48[85];
    uint8_t serial[kSerial];  // 133, unaligned, as the array's table lays it out
    uint8_t reserved165[14];
    uint8_t subcommand;  // 179
    uint8_t reserved180[8];
    uint8_t id[16];  // 188
    uint8_t reserved204[144];
};

struct GetPartView {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t partSerial[kSerial];                       // 52
    uint8_t partitionView[rec::kPartitionViewSize];    // 84, reply
};

// One entry of the view table (332 bytes); the offsets in the comments are those of the first
// entry in the packet.
struct ViewEntry {
    Be32 handle;          // 48
    uint8_t ones[8];      // 52, eight bytes of value 1
    Be32 removeAll;       // 60, 1: remove every view of the partition
    uint8_t partSerial[kSerial];  // 64
    uint8_t hostType;     // 96
    uint8_t reserved97[19];
    uint8_t wwn[8];       // 116, type 16
    Be32 lun;             // 124
    uint8_t address[16];  // 128, types 0x40 and 0x80
    Be16 lun16;           // 144
    uint8_t reserved146[2];
    uint8_t access[8];    // 148, the access byte eight times
    uint8_t hostName[224];  // 156, type 1
};

constexpr uint32_t kMaxViewEntries = 4096;

// CREATE_CUSTOM_VIEW: a count at 44 and a table of entries, each naming its controller.
struct CreateCustomView {
    PacketHeader header;
    uint8_t reserved36[4];
    Be32 errorCode;  // 40
    Be32 count;      // 44, 1
    ViewEntry entries[kMaxViewEntries];  // 48
};

struct SetCacheParams {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t partSerial[kSerial];                  // 52
    uint8_t cacheParams[rec::kCacheParamsSize];   // 84, a CacheParams
};

struct SetOwner {
    CommandHead head;
    uint8_t arraySerial[kSerial];  // 48
    uint8_t reserved80[4];
};

// The subsystem's unique serial stands where the handle would.
struct GetNeedRefresh {
    PacketHeader header;
    uint8_t reserved36[4];
    Be32 errorCode;         // 40
    uint8_t uniqueSN[32];   // 44
    uint8_t answer;         // 76, reply
    uint8_t reserved77[15];
};

struct GetUnifiedControllerData {
    CommandHead head;
    uint8_t unified[rec::kUnifiedControllerDataSize];  // 48, reply
    uint8_t reserved55780[4];
};

// The authentication table's shared payload (113 to 118); bytes 276 and 277 are zero.
struct AuthRecord {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t firstName[224];  // 52
    uint8_t reserved276[4];
    Be32 unread280;
    uint8_t secondName[224];  // 284
    uint8_t secret[17];       // 508
    uint8_t secondText[224];  // 525
    uint8_t thirdText[224];   // 749
    uint8_t reserved973[99];
};
// What get_authDB_record hands back: from the first name on.
constexpr size_t kAuthRecordSize = 1020;

struct GetKnownHosts {
    CommandHead head;
    uint8_t reserved48[4];
    uint8_t knownHosts[rec::kKnownHostListSize];  // 52, reply
};

// No handle: the error word at 40 and the adapter list from 44.
struct GetHbaInfoList {
    PacketHeader header;
    uint8_t reserved36[4];
    Be32 errorCode;                          // 40
    uint8_t hbaInfo[rec::kHbaInfoListSize];  // 44, reply
    uint8_t reserved58160[4];
};

// --- Session -----------------------------------------------------------------------------------

constexpr uint32_t kHandshakeOp = 1, kHandshakeAnswerOp = 2, kLoginOp = 3, kLoginAnswerOp = 4;
constexpr uint32_t kListenPortOp = 7, kListenPortAnswerOp = 8, kGoodbyeOp = 14;

struct Handshake {
    PacketHeader header;
    char word[6];  // "qvemid", no terminator
};

struct HandshakeAnswer {
    PacketHeader header;
    Be32 versionStatus;   // 36: bits 8..15 the protocol version, bits 0..7 the status
    Be32 handshakeToken;  // 40
};

struct Login {
    PacketHeader header;
    uint8_t userName[32];  // 36, terminated
    uint8_t password[48];  // 68, enciphered in place
    uint8_t passwordLength;  // 116
    uint8_t reserved117[3];
    Be32 handshakeToken;  // 120
    uint8_t reserved124[256];
};

struct LoginAnswer {
    PacketHeader header;
    Be32 status;      // 36
    Be32 sessionKey;  // 40
    Be32 unread44;
};

struct ListenPort {
    PacketHeader header;
    Be16 port;  // 36
};

struct Goodbye {
    PacketHeader header;
};

// --- Layout checks -----------------------------------------------------------------------------

#define TROV_REQ_AT(T, m, off) static_assert(offsetof(T, m) == (off), #T "." #m)
#define TROV_REQ_LEN(T, dataLen) static_assert(sizeof(T) == wire::kHeaderSize + (dataLen) && alignof(T) == 1, #T)

TROV_REQ_LEN(GetSubsystems, 312);
TROV_REQ_AT(GetSubsystems, errorWord, 36);
TROV_REQ_AT(GetSubsystems, count, 44);
TROV_REQ_AT(GetSubsystems, flag, 48);
TROV_REQ_AT(GetSubsystems, entries, 52);
TROV_REQ_LEN(GetControllerData, 4);
TROV_REQ_AT(GetControllerData, handle, 36);
TROV_REQ_LEN(GetEvent, 444);
TROV_REQ_AT(GetEvent, flagA, 48);
TROV_REQ_AT(GetEvent, flagB, 49);
TROV_REQ_AT(GetEvent, number, 52);
TROV_REQ_AT(GetEvent, count, rec::kPktEventCount);
TROV_REQ_AT(GetEvent, firstEventNum, 60);
TROV_REQ_AT(GetEvent, lastEventNum, 64);
TROV_REQ_AT(GetEvent, event, rec::kPktEventData);
TROV_REQ_LEN(GetVersion, 0);
TROV_REQ_LEN(SetPartName, 80);
TROV_REQ_AT(SetPartName, partSerial, 52);
TROV_REQ_AT(SetPartName, name, 84);
TROV_REQ_LEN(AddArrayPart, 728);
TROV_REQ_AT(AddArrayPart, minusOne, 48);
TROV_REQ_AT(AddArrayPart, sizeBlocks, 52);
TROV_REQ_AT(AddArrayPart, special, 60);
TROV_REQ_AT(AddArrayPart, partitionType, 61);
TROV_REQ_AT(AddArrayPart, arraySerial, 68);
TROV_REQ_AT(AddArrayPart, backingStoreId, 132);
TROV_REQ_AT(AddArrayPart, name, 164);
TROV_REQ_AT(AddArrayPart, partitionData, rec::kPktPartitionData);
TROV_REQ_LEN(HandleAndSerial52, 48);
TROV_REQ_AT(HandleAndSerial52, serial, 52);
TROV_REQ_LEN(HandleAndSerial48, 44);
TROV_REQ_AT(HandleAndSerial48, serial, 48);
TROV_REQ_LEN(CreateArray, 4548);
TROV_REQ_AT(CreateArray, locations, 52);
TROV_REQ_AT(CreateArray, count, 596);
TROV_REQ_AT(CreateArray, numSpares, 600);
TROV_REQ_AT(CreateArray, raidLevel, 604);
TROV_REQ_AT(CreateArray, zero608, 608);
TROV_REQ_AT(CreateArray, stripeKiB, 612);
TROV_REQ_AT(CreateArray, drivesPerLeg, 616);
TROV_REQ_AT(CreateArray, minusOne, 620);
TROV_REQ_AT(CreateArray, controllerId, 624);
TROV_REQ_AT(CreateArray, zero625, 625);
TROV_REQ_AT(CreateArray, three628, 628);
TROV_REQ_AT(CreateArray, zero629, 629);
TROV_REQ_AT(CreateArray, name, 632);
TROV_REQ_AT(CreateArray, serials, 772);
TROV_REQ_AT(CreateArray, arrayData, rec::kPktArrayData);
TROV_REQ_LEN(ExpandPart, 312);
TROV_REQ_AT(ExpandPart, request, rec::kPktExpandPartRequest);
TROV_REQ_LEN(ExpandArray, 592);
TROV_REQ_AT(ExpandArray, count, 48);
TROV_REQ_AT(ExpandArray, arraySerial, 52);
TROV_REQ_AT(ExpandArray, locations, 84);
TROV_REQ_LEN(AssignSpare, 80);
TROV_REQ_AT(AssignSpare, on, 48);
TROV_REQ_AT(AssignSpare, global, 49);
TROV_REQ_AT(AssignSpare, driveSerial, 84);
TROV_REQ_LEN(BlinkDrive, 48);
TROV_REQ_AT(BlinkDrive, on, 48);
TROV_REQ_AT(BlinkDrive, driveSerial, 52);
TROV_REQ_LEN(HandleAndByte, 16);
TROV_REQ_AT(HandleAndByte, flag, 48);
TROV_REQ_LEN(GetPercent, 48);
TROV_REQ_AT(GetPercent, arraySerial, 48);
TROV_REQ_AT(GetPercent, percent, 80);
TROV_REQ_LEN(SetAdvNet, 2076);
TROV_REQ_AT(SetAdvNet, one, 48);
TROV_REQ_AT(SetAdvNet, advNet, 52);
TROV_REQ_LEN(SetPartLun, 48);
TROV_REQ_AT(SetPartLun, lun, 48);
TROV_REQ_AT(SetPartLun, partSerial, 52);
TROV_REQ_LEN(GetDmsTag, 28);
TROV_REQ_AT(GetDmsTag, controllerId, 48);
TROV_REQ_AT(GetDmsTag, tag, 56);
TROV_REQ_LEN(CreateSnapshot, 1140);
TROV_REQ_AT(CreateSnapshot, special, 48);
TROV_REQ_AT(CreateSnapshot, byte2, 49);
TROV_REQ_AT(CreateSnapshot, two50, 50);
TROV_REQ_AT(CreateSnapshot, one51, 51);
TROV_REQ_AT(CreateSnapshot, tag, 56);
TROV_REQ_AT(CreateSnapshot, masterId, 64);
TROV_REQ_AT(CreateSnapshot, name, 80);
TROV_REQ_AT(CreateSnapshot, result, rec::kPktSnapshotResult);
TROV_REQ_LEN(GetBackingStoreList, 1304);
TROV_REQ_AT(GetBackingStoreList, controllerId, 48);
TROV_REQ_AT(GetBackingStoreList, count, rec::kPktBackingStoreCount);
TROV_REQ_AT(GetBackingStoreList, entries, rec::kPktBackingStoreEntries);
TROV_REQ_LEN(GetMasterVolumeList, 90168);
TROV_REQ_LEN(GetSnapshotList, 45112);
TROV_REQ_AT(GetSnapshotList, byteA, 48);
TROV_REQ_AT(GetSnapshotList, byteB, 49);
TROV_REQ_AT(GetSnapshotList, zero50, 50);
TROV_REQ_AT(GetSnapshotList, key, 52);
TROV_REQ_AT(GetSnapshotList, count, rec::kPktVolumeListCount);
TROV_REQ_AT(GetSnapshotList, entries, rec::kPktVolumeListEntries);
TROV_REQ_AT(GetMasterVolumeList, count, rec::kPktVolumeListCount);
TROV_REQ_AT(GetMasterVolumeList, entries, rec::kPktVolumeListEntries);
TROV_REQ_LEN(ConvertMasterVolume, 312);
TROV_REQ_AT(ConvertMasterVolume, serial, 133);
TROV_REQ_AT(ConvertMasterVolume, subcommand, 179);
TROV_REQ_AT(ConvertMasterVolume, id, 188);
TROV_REQ_LEN(GetPartView, 37456);
TROV_REQ_AT(GetPartView, partSerial, 52);
TROV_REQ_AT(GetPartView, partitionView, rec::kPktPartitionView);
static_assert(sizeof(ViewEntry) == 332);
TROV_REQ_AT(ViewEntry, removeAll, 60 - 48);
TROV_REQ_AT(ViewEntry, partSerial, 64 - 48);
TROV_REQ_AT(ViewEntry, hostType, 96 - 48);
TROV_REQ_AT(ViewEntry, wwn, 116 - 48);
TROV_REQ_AT(ViewEntry, lun, 124 - 48);
TROV_REQ_AT(ViewEntry, address, 128 - 48);
TROV_REQ_AT(ViewEntry, lun16, 144 - 48);
TROV_REQ_AT(ViewEntry, access, 148 - 48);
TROV_REQ_AT(ViewEntry, hostName, 156 - 48);
TROV_REQ_LEN(CreateCustomView, 1359884);
TROV_REQ_AT(CreateCustomView, count, 44);
TROV_REQ_AT(CreateCustomView, entries, 48);
TROV_REQ_LEN(SetCacheParams, 80);
TROV_REQ_AT(SetCacheParams, partSerial, 52);
TROV_REQ_AT(SetCacheParams, cacheParams, 84);
TROV_REQ_LEN(SetOwner, 48);
TROV_REQ_AT(SetOwner, arraySerial, 48);
TROV_REQ_LEN(GetNeedRefresh, 56);
TROV_REQ_AT(GetNeedRefresh, errorCode, 40);
TROV_REQ_AT(GetNeedRefresh, uniqueSN, 44);
TROV_REQ_AT(GetNeedRefresh, answer, 76);
TROV_REQ_LEN(GetUnifiedControllerData, 55748);
TROV_REQ_AT(GetUnifiedControllerData, unified, rec::kPktUnifiedControllerData);
TROV_REQ_LEN(AuthRecord, 1036);
TROV_REQ_AT(AuthRecord, firstName, 52);
TROV_REQ_AT(AuthRecord, unread280, 280);
TROV_REQ_AT(AuthRecord, secondName, 284);
TROV_REQ_AT(AuthRecord, secret, 508);
TROV_REQ_AT(AuthRecord, secondText, 525);
TROV_REQ_AT(AuthRecord, thirdText, 749);
static_assert(sizeof(AuthRecord) - offsetof(AuthRecord, firstName) == kAuthRecordSize);
TROV_REQ_LEN(GetKnownHosts, 63576);
TROV_REQ_AT(GetKnownHosts, knownHosts, rec::kPktKnownHostList);
TROV_REQ_LEN(GetHbaInfoList, 58128);
TROV_REQ_AT(GetHbaInfoList, errorCode, 40);
TROV_REQ_AT(GetHbaInfoList, hbaInfo, rec::kPktHbaInfoList);

TROV_REQ_LEN(Handshake, 6);
TROV_REQ_LEN(HandshakeAnswer, 8);
TROV_REQ_AT(HandshakeAnswer, handshakeToken, 40);
TROV_REQ_LEN(Login, 344);
TROV_REQ_AT(Login, password, 68);
TROV_REQ_AT(Login, passwordLength, 116);
TROV_REQ_AT(Login, handshakeToken, 120);
TROV_REQ_LEN(LoginAnswer, 12);
TROV_REQ_AT(LoginAnswer, sessionKey, 40);
TROV_REQ_LEN(ListenPort, 2);
TROV_REQ_LEN(Goodbye, 0);

#undef TROV_REQ_AT
#undef TROV_REQ_LEN

}  // namespace req

// --- The command table -------------------------------------------------------------------------

enum class ResultRule : uint8_t {
    kMinusOne,  // every failure, error_code included, returns -1
    kCode,      // a non-zero error_code is the method's value; transport and format failures -1
};

struct CommandDef {
    const char* method;  // "get_percent": log lines read "Kelvane::get_percent ..."
    const char* opName;  // the array's name of the operation
    uint32_t opcode;
    uint32_t dataLen;    // of the request
    bool cleared;        // the payload is zeroed before the fields are stored
    ResultRule result;
    uint32_t handleAt;   // packet offset of the controller handle; 0: the command has none
    // Where a command's failure lines borrow another command's texts (kept on purpose): the
    // method name used in them, and the OpCode name and value shown in the DataType-or-OpCode
    // line. Null / UINT32_MAX: its own.
    const char* logMethod = nullptr;
    const char* logOpName = nullptr;
    uint32_t logOpcode = UINT32_MAX;

    bool codeResult() const { return result == ResultRule::kCode; }
    const char* LogMethod() const { return logMethod ? logMethod : method; }
    const char* LogOpName() const { return logOpName ? logOpName : opName; }
    uint32_t LogOpcode() const { return logOpcode != UINT32_MAX ? logOpcode : opcode; }
};

namespace cmd {

// Where packet P names its controller handle (0: nowhere).
template <class P>
constexpr uint32_t HandleAt() {
    if constexpr (requires(P p) { p.head.handle; })
        return static_cast<uint32_t>(offsetof(P, head) + wire::kHandleOffset);
    else if constexpr (requires(P p) { p.entries[0].handle; })
        return static_cast<uint32_t>(offsetof(P, entries) + offsetof(req::ViewEntry, handle));
    else if constexpr (requires(P p) { p.handle; })
        return static_cast<uint32_t>(offsetof(P, handle));
    else
        return 0;
}

struct Borrowed {
    const char* method = nullptr;
    const char* opName = nullptr;
    uint32_t opcode = UINT32_MAX;
};

constexpr bool kCleared = true, kAsHeld = false;
constexpr ResultRule kMinusOne = ResultRule::kMinusOne, kCode = ResultRule::kCode;

// A command of packet P: DataLen and the handle's place come from P.
template <class P>
constexpr CommandDef Def(const char* method, const char* opName, uint32_t opcode, bool cleared, ResultRule result,
                         Borrowed b = {}) {
    return CommandDef{method, opName, opcode, static_cast<uint32_t>(sizeof(P) - wire::kHeaderSize),
                      cleared, result, HandleAt<P>(), b.method, b.opName, b.opcode};
}

inline constexpr CommandDef kGetSubsystems =
    Def<req::GetSubsystems>("get_subsystems", "GET_CONTROLLERHANDLEDB", 0, kCleared, kMinusOne);
inline constexpr CommandDef kGetControllerData =
    Def<req::GetControllerData>("get_controller_data", "GET_CONTROLLER", 1, kAsHeld, kMinusOne);
inline constexpr CommandDef kGetEvent = Def<req::GetEvent>("get_event", "GET_EVENT", 9, kCleared, kMinusOne);
inline constexpr CommandDef kGetEvents = Def<req::GetEvent>("get_events", "GET_EVENT", 9, kCleared, kMinusOne);
inline constexpr CommandDef kGetVersion = Def<req::GetVersion>("get_version", "GET_VERSION", 11, kAsHeld, kMinusOne);
inline constexpr CommandDef kSetPartName =
    Def<req::SetPartName>("set_part_name", "SET_PART_NAME", 12, kAsHeld, kMinusOne);
inline constexpr CommandDef kAddArrayPart =
    Def<req::AddArrayPart>("add_array_part", "ADD_ARRAY_PART", 14, kCleared, kCode);
inline constexpr CommandDef kDeletePart =
    Def<req::HandleAndSerial52>("delete_part", "DELETE_PART", 15, kAsHeld, kMinusOne);
inline constexpr CommandDef kCreateArray =
    Def<req::CreateArray>("create_array", "CREATE_ARRAY", 16, kCleared, kMinusOne);
inline constexpr CommandDef kExpandPart = Def<req::ExpandPart>("expand_part", "EXPAND_PART", 17, kCleared, kMinusOne);
// Its failure lines bear get_version's name; the OpCode shown is its own.
inline constexpr CommandDef kExpandArray =
    Def<req::ExpandArray>("expand_array", "EXPAND_ARRAY", 18, kCleared, kMinusOne, {"get_version"});
inline constexpr CommandDef kAssignSpare =
    Def<req::AssignSpare>("assign_spare", "ASSIGN_POOL_SPARE", 19, kCleared, kMinusOne);
inline constexpr CommandDef kBlinkDrive = Def<req::BlinkDrive>("blink_drive", "BLINK_DRIVE", 20, kCleared, kMinusOne);
inline constexpr CommandDef kFlushCache =
    Def<req::HandleAndSerial48>("flush_cache", "FLUSH_CACHE", 21, kCleared, kMinusOne);
inline constexpr CommandDef kFreeCache =
    Def<req::HandleAndSerial52>("free_cache", "FREE_CACHE", 22, kCleared, kMinusOne);
inline constexpr CommandDef kSilenceAlarm =
    Def<req::HandleAndByte>("silence_alarm", "SILENCE_ALARM", 23, kCleared, kMinusOne);
inline constexpr CommandDef kDeleteArray =
    Def<req::HandleAndSerial52>("delete_array", "DELETE_ARRAY", 24, kAsHeld, kMinusOne);
inline constexpr CommandDef kAbortUtility =
    Def<req::HandleAndSerial48>("abort_utility", "ABORT_UTILITY", 27, kCleared, kMinusOne);
inline constexpr CommandDef kGetPercent =
    Def<req::GetPercent>("get_percent", "GET_PERCENT_COMPLETED", 28, kCleared, kMinusOne);
inline constexpr CommandDef kSetAdvNet =
    Def<req::SetAdvNet>("set_adv_net", "SET_ADV_NET_INTERFACE", 29, kCleared, kMinusOne);
inline constexpr CommandDef kSetPartLun =
    Def<req::SetPartLun>("set_part_lun", "CHANGE_PART_LUN", 30, kCleared, kMinusOne);
inline constexpr CommandDef kGetDmsTag = Def<req::GetDmsTag>("get_dms_tag", "GET_DMS_TAG", 50, kCleared, kCode);
// Its format line names ADD_ARRAY_PART and 14 though the OpCode is 51.
inline constexpr CommandDef kCreateSnapshot =
    Def<req::CreateSnapshot>("create_snapshot", "CREATE_SNAPSHOT", 51, kCleared, kCode,
                             {nullptr, "ADD_ARRAY_PART", 14});
inline constexpr CommandDef kGetBackingStores =
    Def<req::GetBackingStoreList>("get_backing_store_list", "GET_BACKING_STORE_LIST", 55, kAsHeld, kCode);
inline constexpr CommandDef kGetMasterVolumes =
    Def<req::GetMasterVolumeList>("get_master_volume_list", "GET_MASTER_VOLUME_LIST", 56, kAsHeld, kCode);
inline constexpr CommandDef kGetSnapshots =
    Def<req::GetSnapshotList>("get_snapshot_list", "GET_SNAPSHOT_LIST", 57, kAsHeld, kCode);
inline constexpr CommandDef kConvertMaster =
    Def<req::ConvertMasterVolume>("convert_master_volume", "CONVERT_MASTER_VOLUME", 61, kAsHeld, kCode);
inline constexpr CommandDef kGetPartView =
    Def<req::GetPartView>("get_part_view", "GET_PARTITION_VIEW", 70, kCleared, kMinusOne);
inline constexpr CommandDef kCreateCustomView =
    Def<req::CreateCustomView>("create_custom_view", "CREATE_CUSTOM_VIEW", 71, kCleared, kMinusOne);
inline constexpr CommandDef kCacheParams =
    Def<req::SetCacheParams>("change_partition_cache_params", "SET_PARTITION_CACHE_PARAM", 80, kCleared, kMinusOne);
inline constexpr CommandDef kResetController =
    Def<req::HandleAndByte>("reset_controller", "REBOOT_CONTROLLER", 85, kCleared, kMinusOne);
inline constexpr CommandDef kSetOwner = Def<req::SetOwner>("set_owner", "SET_PREFERRED_OWNER", 92, kCleared, kMinusOne);
inline constexpr CommandDef kRescanBus =
    Def<req::HandleAndByte>("rescan_bus", "RESCAN_ALL_BUS", 105, kCleared, kMinusOne);
inline constexpr CommandDef kGetNeedRefresh =
    Def<req::GetNeedRefresh>("get_need_refresh", "GET_NEED_REFRESH", 108, kAsHeld, kCode);
inline constexpr CommandDef kGetUnified =
    Def<req::GetUnifiedControllerData>("get_unified_controller_data", "GET_UNIFIED_CONTROLLER", 109, kAsHeld, kCode);
inline constexpr CommandDef kGetAuthRecord =
    Def<req::AuthRecord>("get_authDB_record", "GET_AUTHDB_RECORD", 113, kCleared, kCode);
inline constexpr CommandDef kSetTargetSecret =
    Def<req::AuthRecord>("set_target_secret", "SET_TARGET_SECRET", 115, kCleared, kCode);
inline constexpr CommandDef kClearTargetSecrets =
    Def<req::AuthRecord>("clear_all_target_secret", "CLEAR_ALL_TARGET_SECRET", 116, kCleared, kCode);
inline constexpr CommandDef kSetNamedTargetSecret =
    Def<req::AuthRecord>("set_target_secret", "SET_TARGET_SECRET_BY_NAME", 117, kCleared, kCode);
inline constexpr CommandDef kRememberInitiator =
    Def<req::AuthRecord>("remeber_initiator_secret", "REMEMBER_INITIATOR_SECRET", 118, kCleared, kCode);
inline constexpr CommandDef kGetKnownHosts =
    Def<req::GetKnownHosts>("get_flex_known_hosts", "GET_FLEX_KNOWN_HOSTS", 119, kAsHeld, kCode);
inline constexpr CommandDef kGetHbaInfo =
    Def<req::GetHbaInfoList>("get_connect_Hba_info_list", "GET_CONNECT_HBA_INFO_LIST", 125, kCleared, kCode);

// Every command, in OpCode order; forms that share an OpCode follow one another.
inline constexpr const CommandDef* kAll[] = {
    &kGetSubsystems, &kGetControllerData, &kGetEvent, &kGetEvents, &kGetVersion, &kSetPartName, &kAddArrayPart,
    &kDeletePart, &kCreateArray, &kExpandPart, &kExpandArray, &kAssignSpare, &kBlinkDrive, &kFlushCache,
    &kFreeCache, &kSilenceAlarm, &kDeleteArray, &kAbortUtility, &kGetPercent, &kSetAdvNet, &kSetPartLun,
    &kGetDmsTag, &kCreateSnapshot, &kGetBackingStores, &kGetMasterVolumes, &kGetSnapshots, &kConvertMaster,
    &kGetPartView, &kCreateCustomView, &kCacheParams, &kResetController, &kSetOwner, &kRescanBus, &kGetNeedRefresh,
    &kGetUnified, &kGetAuthRecord, &kSetTargetSecret, &kClearTargetSecrets, &kSetNamedTargetSecret,
    &kRememberInitiator, &kGetKnownHosts, &kGetHbaInfo,
};

// The first command of that OpCode; null for an OpCode the catalogue doesn't hold.
constexpr const CommandDef* ByOpcode(uint32_t opcode) {
    for (const CommandDef* d : kAll)
        if (d->opcode == opcode) return d;
    return nullptr;
}

}  // namespace cmd
