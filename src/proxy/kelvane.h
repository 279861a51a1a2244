// Kelvane: the client of the proxy service's management commands.
//
// Every command is one exchange in the packet buffer, run by CommandExchange, the one piece that
// carries the reply rule:
//
//   CommandExchange x(cmd::kGetPercent);         // takes kelvane_lock_vds
//   auto* p = x.Begin<req::GetPercent>();        // header, DataLen, payload zeroed if "cleared"
//   if (p) ... store the request fields by name ...
//   int rc = x.Run();                            // exchange and judge the reply: 0, -1 or the code
//   if (rc == 0) ... read the reply from p ...
//                                                // the lock goes with x at the end of the scope
//
// The layouts and the command table (OpCode, DataLen, cleared, result rule) are proxy/requests.h.
//
// Run() sends 36 + DataLen bytes, takes up to 36 bytes of reply with one receive, reads the
// payload only when exactly 36 came and DataLen isn't 0, then checks DataType (RSREPLY) and
// OpCode, then error_code. Each failure is logged in the method's own name (a few commands borrow
// another's) and fails with -1; a non-zero error_code is returned as the value for commands whose
// result kind is "code". A reply that announces more payload than the packet buffer holds fails
// without reading it: the buffer is never overrun.
//
// Every wait is bounded (see proxy/iasocket.h). A transport or format failure (no reply in time,
// a lost connection, a short header, a payload that doesn't all come, more than the buffer holds,
// another DataType or OpCode) tells the host why in one line (NoteHostFailure) and closes the
// connection (DropConnection): a late byte of that reply can never be read as another command's.
// A non-zero error_code in a well-formed reply is the array's answer: the connection stays.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "proxy/records.h"
#include "proxy/requests.h"
#include "proxy/wire.h"

// The mutex of one command exchange; made at module load. Null: commands run unlocked.
extern MutexHandle hVdsMutex;

class CommandExchange {
public:
    explicit CommandExchange(const CommandDef& cmd);
    ~CommandExchange();
    CommandExchange(const CommandExchange&) = delete;
    CommandExchange& operator=(const CommandExchange&) = delete;

    // Builds the header of the command in the packet buffer, stores DataLen and, for a "cleared"
    // command, zeroes the payload. Returns the packet as the command's layout P (whose size must
    // be 36 + the command's DataLen). Null when the session has no packet buffer (the connect
    // sequence never ran or the provider unloaded).
    template <class P>
    P* Begin() {
        return reinterpret_cast<P*>(BeginPacket(sizeof(P)));
    }
    // Steps of the reply rule. The error word is read at `errorOffset` (40; get_subsystems: 36,
    // where it is tested without conversion).
    int Run(size_t errorOffset = wire::kErrorCodeOffset);

    uint8_t* packet() const { return pkt_; }
    // The reply's error word (host order) once Run() got that far; 0 otherwise.
    uint32_t errorCode() const { return errorCode_; }
    // The reply's DataLen as received (0 when no reply was judged).
    uint32_t replyDataLen() const { return replyLen_; }
    // True when Run() failed on error_code alone: the reply itself was well formed.
    bool failedOnErrorCode() const { return failedOnCode_; }

private:
    uint8_t* BeginPacket(size_t packetSize);
    // A transport or format failure: the host is told why, the connection is closed
    // (DropConnection with `socketError`); returns -1.
    int Fail(const std::string& why, int32_t socketError);

    const CommandDef& cmd_;
    uint8_t* pkt_ = nullptr;
    uint32_t dataLen_ = 0;
    uint32_t errorCode_ = 0;
    uint32_t replyLen_ = 0;
    bool failedOnCode_ = false;
    bool locked_ = false;
};

// A member drive's place, as create_array and expand_array send it: two words, each big-endian.
struct DriveLocation {
    uint32_t channelIndex;
    uint32_t driveIndex;
};
using DriveSerial = std::array<uint8_t, 32>;

// Every management command of the service. Results: 0 on success; -1 for every failure of a
// "-1" command; for a "code" command a non-zero error_code comes back as the value and transport
// or format failures as -1. A serial is a pointer to 32 bytes. Outputs are written only on
// success (get_snapshot_list copies its list on any well-formed reply).
class Kelvane {
public:
    // The subsystem list: up to 7 entries of the reply, handles converted.
    static int get_subsystems(std::vector<SubsystemEntry>& list);

    // `out` holds rec::kControllerDataSize bytes; converted in place.
    static int get_controller_data(uint32_t handle, void* out);
    // The newest event (callers pass 0, 1, 0); one EventData into `out`.
    static int get_event(uint32_t handle, uint8_t flagA, uint8_t flagB, uint32_t number, EventData* out);
    // Events first..last inclusive into `out` (room for rec::kMaxEvents); the count, bounded by
    // the buffer and by the span asked for, into `outCount`.
    static int get_events(uint32_t handle, uint32_t firstEventNum, uint32_t lastEventNum, EventData* out,
                          uint32_t* outCount);
    static int get_version();
    static int set_part_name(uint32_t handle, const uint8_t* partSerial, const char* name);
    static int add_array_part(uint32_t handle, const uint8_t* arraySerial, uint64_t sizeBytes, const char* name,
                              uint8_t byte1, uint8_t byte2, const uint8_t* backingStoreId, PartitionData* out);
    static int delete_part(uint32_t handle, const uint8_t* partSerial);
    // vLoca and vSerial are parallel; n = vSerial.size(), at most rec::kMaxMembers.
    static int create_array(uint32_t handle, uint8_t controllerId, ArrayData* out, uint8_t raidLevel,
                            uint32_t stripeBytes, const std::vector<DriveLocation>& vLoca,
                            const std::vector<DriveSerial>& vSerial, const char* name,
                            uint32_t drivesPerLeg, uint32_t numSpares);
    static int expand_part(uint32_t handle, const ExpandPartRequest& request);
    static int expand_array(uint32_t handle, const uint8_t* arraySerial, const std::vector<DriveLocation>& vLoca);
    static int assign_spare(uint32_t handle, uint8_t on, const uint8_t* driveSerial);
    static int blink_drive(uint32_t handle, uint8_t on, const uint8_t* driveSerial);
    static int flush_cache(uint32_t handle, const uint8_t* serial);
    static int free_cache(uint32_t handle, const uint8_t* serial);
    static int silence_alarm(uint32_t handle);
    static int delete_array(uint32_t handle, const uint8_t* arraySerial);
    static int abort_utility(uint32_t handle, const uint8_t* arraySerial);
    static int get_percent(uint32_t handle, const uint8_t* arraySerial, uint32_t* percent);
    static int set_adv_net(uint32_t handle, const AdvNet& advNet);
    static int set_part_lun(uint32_t handle, uint8_t lun, const uint8_t* partSerial);
    static int get_dms_tag(uint32_t handle, uint8_t controllerId, uint64_t* tag);
    // `out` receives 264 bytes.
    static int create_snapshot(uint32_t handle, const char* name, uint8_t byte1, uint8_t byte2, uint64_t tag,
                               const uint8_t* masterId, SnapshotResult* out);
    static int get_backing_store_list(uint32_t handle, uint8_t controllerId, uint32_t* outCount,
                                      BackingStoreEntry* out);
    static int get_master_volume_list(uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key,
                                      uint32_t* outCount, VolumeEntry* out);
    static int get_snapshot_list(uint32_t handle, uint8_t byteB, uint8_t byteA, const uint8_t* key,
                                 uint32_t* outCount, VolumeEntry* out);
    static int convert_master_volume(uint32_t handle, uint8_t subcommand, const uint8_t* serial, const uint8_t* id);
    static int get_part_view(uint32_t handle, const uint8_t* partSerial, PartitionView* out);
    // By world-wide name (type 16: 16 hex digits; type 1: a 224-byte name).
    static int create_custom_view(uint32_t handle, const uint8_t* partSerial, uint32_t lun, bool bCreate,
                                  uint8_t type, const char* pWwpn, bool ulp);
    // By address: for type 0x40 or 0x80 the 16 bytes from ip + 4.
    static int create_custom_view(uint32_t handle, const uint8_t* partSerial, uint32_t lun, bool bCreate,
                                  uint8_t type, const uint8_t* ip);
    static int change_partition_cache_params(uint32_t handle, const uint8_t* partSerial, const uint8_t* cacheParams);
    static int reset_controller(uint32_t handle, uint8_t flag);
    static int set_owner(uint32_t handle, const uint8_t* arraySerial);
    static int rescan_bus(uint32_t handle);
    static int get_need_refresh(const char* uniqueSN, uint8_t* answer);
    static int get_unified_controller_data(uint32_t handle, UnifiedControllerData* out);
    // `out` receives 1,020 bytes.
    static int get_authDB_record(uint32_t handle, const uint8_t* name, uint32_t nameLength, uint8_t* out);
    static int set_target_secret(uint32_t handle, const uint8_t* secret, uint32_t secretLength);
    static int clear_all_target_secret(uint32_t handle);
    static int set_target_secret(uint32_t handle, const uint8_t* name, const uint8_t* secret, uint32_t nameLength,
                                 uint32_t secretLength);
    static int remeber_initiator_secret(uint32_t handle, const uint8_t* first, const uint8_t* second,
                                        const uint8_t* third, uint32_t firstLength, uint32_t secondLength,
                                        uint32_t thirdLength);
    static int get_flex_known_hosts(uint32_t handle, KnownHostList* out);
    static int get_connect_Hba_info_list(HbaInfoList* out);
};
