// Fuzzes every command of the catalogue with arbitrary reply bytes, through the real transport.
//
// Input: byte 0 picks the command, byte 1 the shape of the reply, the rest is reply material.
// Shape bit 0 set: a well-formed header of the command's OpCode goes first (so that the fuzzer
// reaches the reading of payloads), with DataLen taken from the next four bytes when bit 1 is set
// and else the length of what follows; bit 2 puts a zero error_code at the front of the payload.
// Shape bit 0 clear: the bytes are the whole reply. The reply is written into a socket pair before
// the command runs and the far side then stops writing, so that a short reply ends in a failed
// receive, never a wait. A thread drains the requests (up to 1.3 MB) so that no send blocks. After
// a failed exchange the transport has closed its end itself (and must have).
// Every output lives in a heap block of exactly its size: a write past it is an ASan report.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "testlib/fake_platform.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/wire.h"

namespace {

struct Env {
    Env() {
        tp.SetRecordDebugger(false);
        tp.Install();
        AllocatePacketBuffer();
    }
    TestPlatform tp;
};

template <typename T>
std::unique_ptr<T> Out() {
    return std::make_unique<T>();
}

#define CHECK(cond) \
    if (!(cond)) __builtin_trap()

const uint8_t kSerial[32] = "serial-serial-serial-serial-ser";
const uint8_t kId[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const uint8_t kAddr[20] = {0, 0, 0, 2, 10, 0, 0, 1};

struct Command {
    uint32_t opcode;
    std::function<void()> run;
};

const std::vector<Command>& Commands() {
    static const std::vector<Command> list = {
        {cmd::kGetSubsystems.opcode, [] {
             std::vector<SubsystemEntry> v;
             if (Kelvane::get_subsystems(v) == 0) CHECK(v.size() <= 7);
         }},
        {cmd::kGetControllerData.opcode, [] {
             std::unique_ptr<uint8_t[]> b(new uint8_t[rec::kControllerDataSize]);
             Kelvane::get_controller_data(7, b.get());
         }},
        {cmd::kGetEvent.opcode, [] { Kelvane::get_event(7, 0, 1, 0, Out<EventData>().get()); }},
        {cmd::kGetEvents.opcode, [] {
             std::unique_ptr<EventData[]> b(new EventData[rec::kMaxEvents]);
             uint32_t n = 0;
             if (Kelvane::get_events(7, 1, 1000, b.get(), &n) == 0) CHECK(n <= rec::kMaxEvents);
         }},
        {cmd::kGetVersion.opcode, [] { Kelvane::get_version(); }},
        {cmd::kSetPartName.opcode, [] { Kelvane::set_part_name(7, kSerial, "name"); }},
        {cmd::kAddArrayPart.opcode,
         [] { Kelvane::add_array_part(7, kSerial, 1 << 20, "v", 0, 0, nullptr, Out<PartitionData>().get()); }},
        {cmd::kDeletePart.opcode, [] { Kelvane::delete_part(7, kSerial); }},
        {cmd::kCreateArray.opcode, [] {
             std::vector<DriveLocation> l(3, DriveLocation{0, 1});
             std::vector<DriveSerial> s(3);
             Kelvane::create_array(7, 0, Out<ArrayData>().get(), 1, 0, l, s, "vd", 0, 0);
         }},
        {cmd::kExpandPart.opcode, [] { Kelvane::expand_part(7, ExpandPartRequest{}); }},
        {cmd::kExpandArray.opcode, [] { Kelvane::expand_array(7, kSerial, std::vector<DriveLocation>(2)); }},
        {cmd::kAssignSpare.opcode, [] { Kelvane::assign_spare(7, 1, kSerial); }},
        {cmd::kBlinkDrive.opcode, [] { Kelvane::blink_drive(7, 1, kSerial); }},
        {cmd::kFlushCache.opcode, [] { Kelvane::flush_cache(7, kSerial); }},
        {cmd::kFreeCache.opcode, [] { Kelvane::free_cache(7, kSerial); }},
        {cmd::kSilenceAlarm.opcode, [] { Kelvane::silence_alarm(7); }},
        {cmd::kDeleteArray.opcode, [] { Kelvane::delete_array(7, kSerial); }},
        {cmd::kAbortUtility.opcode, [] { Kelvane::abort_utility(7, kSerial); }},
        {cmd::kGetPercent.opcode, [] {
             uint32_t p;
             Kelvane::get_percent(7, kSerial, &p);
         }},
        {cmd::kSetAdvNet.opcode, [] { Kelvane::set_adv_net(7, *Out<AdvNet>()); }},
        {cmd::kSetPartLun.opcode, [] { Kelvane::set_part_lun(7, 1, kSerial); }},
        {cmd::kGetDmsTag.opcode, [] {
             uint64_t t;
             Kelvane::get_dms_tag(7, 0, &t);
         }},
        {cmd::kCreateSnapshot.opcode, [] {
             auto r = Out<SnapshotResult>();
             if (Kelvane::create_snapshot(7, "s", 0, 3, 1, kId, r.get()) == 0) CHECK(r->elementCount() <= 8);
         }},
        {cmd::kGetBackingStores.opcode, [] {
             std::unique_ptr<BackingStoreEntry[]> b(new BackingStoreEntry[rec::kMaxBackingStores]);
             uint32_t n = 0;
             if (Kelvane::get_backing_store_list(7, 0, &n, b.get()) == 0) CHECK(n <= rec::kMaxBackingStores);
         }},
        {cmd::kGetMasterVolumes.opcode, [] {
             std::unique_ptr<VolumeEntry[]> b(new VolumeEntry[rec::kMaxMasterVolumes]);
             uint32_t n = 0;
             if (Kelvane::get_master_volume_list(7, 0, 4, kSerial, &n, b.get()) == 0) CHECK(n <= rec::kMaxMasterVolumes);
         }},
        {cmd::kGetSnapshots.opcode, [] {
             std::unique_ptr<VolumeEntry[]> b(new VolumeEntry[rec::kMaxSnapshots]);
             uint32_t n = 0;
             if (Kelvane::get_snapshot_list(7, 0, 5, nullptr, &n, b.get()) >= 0) CHECK(n <= rec::kMaxSnapshots);
         }},
        {cmd::kConvertMaster.opcode, [] { Kelvane::convert_master_volume(7, 9, kSerial, kId); }},
        {cmd::kGetPartView.opcode, [] { Kelvane::get_part_view(7, kSerial, Out<PartitionView>().get()); }},
        {cmd::kCreateCustomView.opcode,
         [] { Kelvane::create_custom_view(7, kSerial, 1, true, 16, "0123456789abcdef", true); }},
        {cmd::kCreateCustomView.opcode, [] { Kelvane::create_custom_view(7, kSerial, 1, true, 0x40, kAddr); }},
        {cmd::kCacheParams.opcode, [] { Kelvane::change_partition_cache_params(7, kSerial, kSerial); }},  // 32 bytes
        {cmd::kResetController.opcode, [] { Kelvane::reset_controller(7, 1); }},
        {cmd::kSetOwner.opcode, [] { Kelvane::set_owner(7, kSerial); }},
        {cmd::kRescanBus.opcode, [] { Kelvane::rescan_bus(7); }},
        {cmd::kGetNeedRefresh.opcode, [] {
             uint8_t a;
             Kelvane::get_need_refresh("unique-serial", &a);
         }},
        {cmd::kGetUnified.opcode, [] { Kelvane::get_unified_controller_data(7, Out<UnifiedControllerData>().get()); }},
        {cmd::kGetAuthRecord.opcode, [] {
             std::unique_ptr<uint8_t[]> b(new uint8_t[1020]);
             Kelvane::get_authDB_record(7, kSerial, 32, b.get());
         }},
        {cmd::kSetTargetSecret.opcode, [] { Kelvane::set_target_secret(7, kSerial, 12); }},
        {cmd::kClearTargetSecrets.opcode, [] { Kelvane::clear_all_target_secret(7); }},
        {cmd::kSetNamedTargetSecret.opcode, [] { Kelvane::set_target_secret(7, kSerial, kSerial, 32, 16); }},
        {cmd::kRememberInitiator.opcode,
         [] { Kelvane::remeber_initiator_secret(7, kSerial, kSerial, kSerial, 32, 32, 32); }},
        {cmd::kGetKnownHosts.opcode, [] {
             auto k = Out<KnownHostList>();
             if (Kelvane::get_flex_known_hosts(7, k.get()) == 0) CHECK(k->hostCount() <= rec::kMaxKnownHosts);
         }},
        {cmd::kGetHbaInfo.opcode, [] {
             auto h = Out<HbaInfoList>();
             if (Kelvane::get_connect_Hba_info_list(h.get()) == 0) CHECK(h->entryCount() <= rec::kMaxHbaEntries);
         }},
    };
    return list;
}

}  // namespace

constexpr size_t kMaxReply = 64 * 1024;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Env env;
    if (size < 2) return 0;
    const Command& cmd = Commands()[data[0] % Commands().size()];
    const uint8_t shape = data[1];
    data += 2;
    size -= 2;

    std::vector<uint8_t> reply;
    if (shape & 1) {
        uint32_t dataLen = static_cast<uint32_t>(size);
        if ((shape & 2) && size >= 4) {
            dataLen = wire::LoadBe32(data);
            data += 4;
            size -= 4;
        }
        reply.resize(wire::kHeaderSize);
        wire::FillHeader(reply.data(), 0, 0, wire::RSREPLY, cmd.opcode, dataLen);
        if (shape & 4) reply.insert(reply.end(), 8, 0);  // the opening word and a zero error_code
    }
    reply.insert(reply.end(), data, data + size);
    // All of it must fit the socket's buffer before anyone reads: a longer reply is cut.
    if (reply.size() > kMaxReply) reply.resize(kMaxReply);

    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    // The reply waits in the socket before the request goes out; then the far side stops writing.
    size_t off = 0;
    while (off < reply.size()) {
        ssize_t w = ::send(sv[1], reply.data() + off, reply.size() - off, MSG_NOSIGNAL);
        if (w <= 0) break;
        off += static_cast<size_t>(w);
    }
    ::shutdown(sv[1], SHUT_WR);
    std::thread drain([fd = sv[1]] {
        char sink[65536];
        while (::recv(fd, sink, sizeof sink, 0) > 0) {
        }
    });
    g_transport.sock = sv[0];
    g_transport.LastSocketError = 0;
    cmd.run();
    // A failed or malformed exchange closes the connection itself (and leaves -1): then sv[0] is
    // gone already and must not be closed twice.
    const bool closedByTransport = g_transport.sock.load() != sv[0];
    CHECK(!closedByTransport || g_transport.sock.load() == -1);
    if (!closedByTransport) ::shutdown(sv[0], SHUT_RDWR);
    drain.join();
    g_transport.sock = 0;
    if (!closedByTransport) ::close(sv[0]);
    ::close(sv[1]);
    return 0;
}
