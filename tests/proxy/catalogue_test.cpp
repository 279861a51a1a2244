// Every command of the catalogue against a scripted peer: the request bytes (OpCode, DataLen,
// each field at its offset, the payload cleared or left as the buffer held it), the lock held for
// the whole exchange, the pauses on the fake clock, and the handling of a success, an error code,
// a transport failure, a reply of another OpCode and a reply cut short (the host's failure line,
// the connection closed or kept). The command table agrees with these cases. Then malformed
// replies and a payload that stalls, the special forms and the bounds on hostile counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <atomic>
#include <iterator>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "testlib/fake_platform.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "support/debuglog.h"
#include "testlib/script_peer.h"
#include "testlib/session_env.h"

namespace {

using testlib::ScriptPeer;
using Bytes = ScriptPeer::Bytes;

constexpr uint32_t kHandle = 0x11223344;
constexpr uint8_t kStale = 0xAB;   // what the packet buffer holds before a command
constexpr uint8_t kUnset = 0x5C;   // what an output holds before a command

// The platform of these tests: the fake one, watching the command lock, so that a test can tell
// whether the peer saw a request and the pauses happened while the lock was held.
class LockWatch : public TestPlatform {
public:
    uint32_t WaitMutex(MutexHandle h) override {
        uint32_t r = TestPlatform::WaitMutex(h);
        ++depth;
        return r;
    }
    void ReleaseMutex(MutexHandle h) override {
        --depth;
        TestPlatform::ReleaseMutex(h);
    }
    void Sleep(uint32_t ms) override {
        sleptLocked.push_back(depth.load() > 0);
        TestPlatform::Sleep(ms);
    }
    std::atomic<int> depth{0};
    std::vector<bool> sleptLocked;
};

Bytes Serial(char first) {
    Bytes s(32);
    for (size_t i = 0; i < s.size(); ++i) s[i] = static_cast<uint8_t>(first + i % 26);
    return s;
}
const Bytes kSerialA = Serial('A');
const Bytes kSerialB = Serial('a');

struct Field {
    size_t at;
    Bytes bytes;
};
Field U32(size_t at, uint32_t v) {
    return {at, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}};
}
Field U16(size_t at, uint16_t v) { return {at, {uint8_t(v >> 8), uint8_t(v)}}; }
Field Byte(size_t at, uint8_t v) { return {at, {v}}; }
Field Raw(size_t at, const Bytes& b) { return {at, b}; }
Field Fill(size_t at, size_t n, uint8_t v) { return {at, Bytes(n, v)}; }
// A name field of `width` bytes: the text and zeros after it.
Field Name(size_t at, const std::string& text, size_t width = 32) {
    Bytes b(width, 0);
    std::memcpy(b.data(), text.data(), std::min(text.size(), width));
    return {at, b};
}
void PutBe32(Bytes& b, size_t at, uint32_t v) {
    b.at(at) = uint8_t(v >> 24);
    b.at(at + 1) = uint8_t(v >> 16);
    b.at(at + 2) = uint8_t(v >> 8);
    b.at(at + 3) = uint8_t(v);
}

// Outputs of the commands; every case writes into these, set to kUnset before each test.
struct Outputs {
    std::vector<uint8_t> controller = std::vector<uint8_t>(rec::kControllerDataSize);
    EventData events[rec::kMaxEvents];
    uint32_t count;
    uint32_t percent;
    uint64_t tag;
    uint8_t answer;
    PartitionData part;
    ArrayData array;
    SnapshotResult snapshot;
    BackingStoreEntry stores[rec::kMaxBackingStores];
    VolumeEntry volumes[rec::kMaxMasterVolumes];
    PartitionView view;
    UnifiedControllerData unified;
    uint8_t auth[1020];
    KnownHostList hosts;
    HbaInfoList hba;

    void Reset() {
        std::memset(controller.data(), kUnset, controller.size());
        auto set = [](auto& v) { std::memset(static_cast<void*>(&v), kUnset, sizeof v); };
        set(events), set(count), set(percent), set(tag), set(answer), set(part), set(array), set(snapshot);
        set(stores), set(volumes), set(view), set(unified), set(auth), set(hosts), set(hba);
    }
};
Outputs* out = nullptr;

bool AllBytes(const void* p, size_t n, uint8_t v) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    for (size_t i = 0; i < n; ++i)
        if (b[i] != v) return false;
    return true;
}

struct CommandCase {
    const char* name;  // the method's name in the log
    uint32_t opcode;
    uint32_t dataLen;
    bool cleared;
    bool codeResult;
    std::function<int()> call;
    std::vector<Field> fields;
    // The payload of a successful reply (DataLen as requested unless said otherwise).
    std::function<void(Bytes& payload)> fillReply = nullptr;
    uint32_t replyLen = 0;  // 0: the request's DataLen
    // After a success: the output holds what the reply carried. Null: nothing to check.
    std::function<void()> checkOutput = nullptr;
    // The output this command writes, to see it untouched after a failure.
    std::function<bool()> outputUnset = nullptr;
    // Pauses on the clock: before the exchange (always) and after a success.
    std::vector<uint32_t> pausesOnSuccess = {};
    std::vector<uint32_t> pausesOnFailure = {};
    const char* logName = nullptr;  // the name its failure lines bear, when not its own
    size_t errorAt = 40;
};

ExpandPartRequest MakeExpandRequest() {
    ExpandPartRequest r{};
    r.newSizeBlocks = 0x0000000500000007ull;
    std::memcpy(r.vdiskSerial, kSerialA.data(), 32);
    std::memcpy(r.partitionSerial, kSerialB.data(), 32);
    return r;
}

AdvNet MakeAdvNet() {
    AdvNet a;
    uint8_t* b = reinterpret_cast<uint8_t*>(&a);
    for (size_t i = 0; i < sizeof a; ++i) b[i] = static_cast<uint8_t>(i % 251);
    return a;
}

Bytes Converted(const void* rec, size_t n, void (*convert)(int, void*)) {
    Bytes b(static_cast<const uint8_t*>(rec), static_cast<const uint8_t*>(rec) + n);
    convert(1, b.data());
    return b;
}

std::vector<DriveSerial> Serials(int n) {
    std::vector<DriveSerial> v(n);
    for (int i = 0; i < n; ++i) std::memset(v[i].data(), 'D' + i % 20, 32);
    return v;
}
std::vector<DriveLocation> Locations(int n) {
    std::vector<DriveLocation> v;
    for (int i = 0; i < n; ++i) v.push_back({uint32_t(i % 4), uint32_t(0x100 + i)});
    return v;
}

// The ArrayData of a create_array reply carries the name the array gave.
void NameTheArray(Bytes& payload, const char* name) {
    std::memcpy(payload.data() + rec::kPktArrayData - 36 + offsetof(ArrayData, name), name, std::strlen(name));
}

const uint8_t kMasterId[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const uint8_t kAddress[20] = {0, 0, 0, 2, 192, 168, 7, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const uint8_t kSecret[12] = {'s', 'e', 'c', 'r', 'e', 't', '-', 's', 'e', 'c', 'r', 't'};
const uint8_t kIqn[20] = {'i', 'q', 'n', '.', '2', '0', '2', '6', '-', '1', '1', '.', 'h', 'o', 's', 't', ':', 'a', 'b', 'c'};

std::vector<CommandCase> Catalogue() {
    const AdvNet adv = MakeAdvNet();
    CacheParams cache{};
    cache.word0 = 0x01020304;
    cache.word4 = 0x0A0B0C0D;
    cache.writeBack = 1;
    cache.sequential = 2;
    const ExpandPartRequest expand = MakeExpandRequest();
    const uint8_t* A = kSerialA.data();

    return {
        {"get_subsystems", 0, 312, true, false,
         [] {
             std::vector<SubsystemEntry> list;
             return Kelvane::get_subsystems(list);
         },
         {Byte(48, 1)}, nullptr, 0, nullptr, nullptr, {}, {}, nullptr, 36},
        {"get_controller_data", 1, 4, false, false, [] { return Kelvane::get_controller_data(kHandle, out->controller.data()); },
         {U32(36, kHandle)}, nullptr, uint32_t(rec::kControllerDataSize),
         [] { EXPECT_TRUE(AllBytes(out->controller.data(), out->controller.size(), 0)); },
         [] { return AllBytes(out->controller.data(), out->controller.size(), kUnset); }},
        {"get_event", 9, 444, true, false, [] { return Kelvane::get_event(kHandle, 2, 1, 7, out->events); },
         {U32(44, kHandle), Byte(48, 2), Byte(49, 1), U32(52, 7)},
         [](Bytes& p) { PutBe32(p, 68 - 36 + 8, 19); },  // eventCode of the one record
         0, [] { EXPECT_EQ(out->events[0].eventCode, 19u); },
         [] { return AllBytes(out->events, sizeof out->events, kUnset); }},
        {"get_events", 9, 444, true, false,
         [] { return Kelvane::get_events(kHandle, 5, 9, out->events, &out->count); },
         {U32(44, kHandle), U32(60, 5), U32(64, 9)},
         [](Bytes& p) {
             PutBe32(p, rec::kPktEventCount - 36, 3);
             for (uint32_t i = 0; i < 3; ++i) PutBe32(p, 68 - 36 + i * 412, 5 + i);  // sequence numbers
         },
         uint32_t(32 + 3 * 412),
         [] {
             EXPECT_EQ(out->count, 3u);
             EXPECT_EQ(out->events[2].sequenceNumber, 7u);
         },
         [] { return AllBytes(&out->count, sizeof out->count, kUnset); }},
        {"get_version", 11, 0, false, false, [] { return Kelvane::get_version(); }, {}, nullptr, 12},
        {"set_part_name", 12, 80, false, false, [A] { return Kelvane::set_part_name(kHandle, A, "a-name-of-exactly-32-characters!"); },
         {U32(44, kHandle), Raw(52, kSerialA), Name(84, "a-name-of-exactly-32-characters!")}},
        {"add_array_part", 14, 728, true, true,
         [A] { return Kelvane::add_array_part(kHandle, A, 0x123456789A00ull, "vol1", 1, 2, kSerialB.data(), &out->part); },
         {U32(44, kHandle), U32(48, 0xFFFFFFFF), U32(52, 0x1A2B3C4D), U32(56, 0x9),
          Byte(60, 1), Byte(61, 2), Raw(68, kSerialA), Raw(132, kSerialB), Name(164, "vol1")},
         [](Bytes& p) { std::memcpy(p.data() + 196 - 36 + offsetof(PartitionData, name), "vol1", 4); }, 0,
         [] { EXPECT_STREQ(out->part.name, "vol1"); }, [] { return AllBytes(&out->part, sizeof out->part, kUnset); }},
        {"delete_part", 15, 48, false, false, [A] { return Kelvane::delete_part(kHandle, A); },
         {U32(44, kHandle), Raw(52, kSerialA)}, nullptr, 0, nullptr, nullptr, {2000}, {}},
        {"create_array", 16, 4548, true, false,
         [] {
             return Kelvane::create_array(kHandle, 1, &out->array, 5, 131072, Locations(3), Serials(3), "vd-five", 2, 1);
         },
         {U32(44, kHandle), U32(52, 0), U32(56, 0x100), U32(60, 1), U32(64, 0x101), U32(68, 2), U32(72, 0x102),
          U32(596, 3), U32(600, 1), Byte(604, 5), U32(608, 0), U32(612, 128), U32(616, 2), U32(620, 0xFFFFFFFF),
          Byte(624, 1), Byte(625, 0), Byte(628, 3), Byte(629, 0), Name(632, "vd-five"), Fill(772, 32, 'D'),
          Fill(804, 32, 'E'), Fill(836, 32, 'F')},
         [](Bytes& p) { NameTheArray(p, "vd-five"); }, 0, [] { EXPECT_STREQ(out->array.name, "vd-five"); },
         [] { return AllBytes(&out->array, sizeof out->array, kUnset); }, {1000}, {}},
        {"expand_part", 17, 312, true, false, [expand] { return Kelvane::expand_part(kHandle, expand); },
         {U32(44, kHandle), U32(60, 7), U32(64, 5), Raw(52 + 49, kSerialA), Raw(52 + 81, kSerialB)}},
        {"expand_array", 18, 592, true, false,
         [A] { return Kelvane::expand_array(kHandle, A, Locations(2)); },
         {U32(44, kHandle), U32(48, 2), Raw(52, kSerialA), U32(84, 0), U32(88, 0x100), U32(92, 1), U32(96, 0x101)},
         nullptr, 0, nullptr, nullptr, {}, {}, "get_version"},
        {"assign_spare", 19, 80, true, false, [A] { return Kelvane::assign_spare(kHandle, 1, A); },
         {U32(44, kHandle), Byte(48, 1), Byte(49, 1), Raw(84, kSerialA)}},
        {"blink_drive", 20, 48, true, false, [A] { return Kelvane::blink_drive(kHandle, 1, A); },
         {U32(44, kHandle), Byte(48, 1), Raw(52, kSerialA)}, nullptr, 0, nullptr, nullptr, {5000}, {5000}},
        {"flush_cache", 21, 44, true, false, [A] { return Kelvane::flush_cache(kHandle, A); },
         {U32(44, kHandle), Raw(48, kSerialA)}},
        {"free_cache", 22, 48, true, false, [A] { return Kelvane::free_cache(kHandle, A); },
         {U32(44, kHandle), Raw(52, kSerialA)}},
        {"silence_alarm", 23, 16, true, false, [] { return Kelvane::silence_alarm(kHandle); }, {U32(44, kHandle)}},
        {"delete_array", 24, 48, false, false, [A] { return Kelvane::delete_array(kHandle, A); },
         {U32(44, kHandle), Raw(52, kSerialA)}},
        {"abort_utility", 27, 44, true, false, [A] { return Kelvane::abort_utility(kHandle, A); },
         {U32(44, kHandle), Raw(48, kSerialA)}},
        {"get_percent", 28, 48, true, false, [A] { return Kelvane::get_percent(kHandle, A, &out->percent); },
         {U32(44, kHandle), Raw(48, kSerialA)}, [](Bytes& p) { PutBe32(p, 80 - 36, 57); }, 0,
         [] { EXPECT_EQ(out->percent, 57u); }, [] { return AllBytes(&out->percent, 4, kUnset); }},
        {"set_adv_net", 29, 2076, true, false, [adv] { return Kelvane::set_adv_net(kHandle, adv); },
         {U32(44, kHandle), U32(48, 1), Raw(52, Converted(&adv, sizeof adv, ConvertAdvNet))}},
        {"set_part_lun", 30, 48, true, false, [A] { return Kelvane::set_part_lun(kHandle, 5, A); },
         {U32(44, kHandle), Byte(48, 5), Raw(52, kSerialA)}},
        {"get_dms_tag", 50, 28, true, true, [] { return Kelvane::get_dms_tag(kHandle, 1, &out->tag); },
         {U32(44, kHandle), Byte(48, 1)},
         [](Bytes& p) {
             PutBe32(p, 56 - 36, 0x89ABCDEF);  // low word first
             PutBe32(p, 60 - 36, 0x01234567);
         },
         0, [] { EXPECT_EQ(out->tag, 0x0123456789ABCDEFull); }, [] { return AllBytes(&out->tag, 8, kUnset); }},
        {"create_snapshot", 51, 1140, true, true,
         [] { return Kelvane::create_snapshot(kHandle, "snap1", 1, 3, 0x0000000200000009ull, kMasterId, &out->snapshot); },
         {U32(44, kHandle), Byte(48, 1), Byte(49, 3), Byte(50, 2), Byte(51, 1), U32(56, 9), U32(60, 2),
          Raw(64, Bytes(kMasterId, kMasterId + 16)), Name(80, "snap1")},
         [](Bytes& p) {
             PutBe32(p, 912 - 36, 1);
             std::memcpy(p.data() + 920 - 36, kSerialB.data(), 32);
         },
         0,
         [] {
             EXPECT_EQ(out->snapshot.elementCount(), 1u);
             EXPECT_EQ(0, std::memcmp(out->snapshot.serials[0], kSerialB.data(), 32));
         },
         [] { return AllBytes(&out->snapshot, sizeof out->snapshot, kUnset); }, {}, {}, nullptr},
        {"get_backing_store_list", 55, 1304, false, true,
         [] { return Kelvane::get_backing_store_list(kHandle, 1, &out->count, out->stores); },
         {U32(44, kHandle), Byte(48, 1)},
         [](Bytes& p) {
             PutBe32(p, 52 - 36, 2);
             p[60 - 36 + 80] = 0x77;  // the second entry's id
         },
         0,
         [] {
             EXPECT_EQ(out->count, 2u);
             EXPECT_EQ(out->stores[1].id[0], 0x77);
             EXPECT_EQ(out->stores[2].id[0], kUnset);
         },
         [] { return AllBytes(&out->count, 4, kUnset) && AllBytes(out->stores, sizeof out->stores, kUnset); }},
        {"get_master_volume_list", 56, 90168, false, true,
         [A] { return Kelvane::get_master_volume_list(kHandle, 1, 4, A, &out->count, out->volumes); },
         {U32(44, kHandle), Byte(48, 4), Byte(49, 1), Raw(52, kSerialA)},
         [](Bytes& p) {
             PutBe32(p, 84 - 36, 3);
             p[92 - 36 + 2 * 88 + 16] = 0x66;  // the third entry's vdisk serial
         },
         0,
         [] {
             EXPECT_EQ(out->count, 3u);
             EXPECT_EQ(out->volumes[2].vdiskSerial[0], 0x66);
         },
         [] { return AllBytes(&out->count, 4, kUnset); }},
        {"get_snapshot_list", 57, 45112, false, true,
         [] { return Kelvane::get_snapshot_list(kHandle, 0, 5, nullptr, &out->count, out->volumes); },
         {U32(44, kHandle), Byte(48, 5), Byte(49, 0), Byte(50, 0), Fill(52, 32, 0), U32(84, 0)},
         [](Bytes& p) { PutBe32(p, 84 - 36, 1); }, 0, [] { EXPECT_EQ(out->count, 1u); },
         [] { return AllBytes(&out->count, 4, kUnset); }},
        {"convert_master_volume", 61, 312, false, true,
         [A] { return Kelvane::convert_master_volume(kHandle, 9, A, kMasterId); },
         {U32(44, kHandle), Raw(133, kSerialA), Byte(179, 9), Raw(188, Bytes(kMasterId, kMasterId + 16))}},
        {"get_part_view", 70, 37456, true, false, [A] { return Kelvane::get_part_view(kHandle, A, &out->view); },
         {U32(44, kHandle), Raw(52, kSerialA)}, nullptr, 0,
         [] { EXPECT_TRUE(AllBytes(&out->view, sizeof out->view, 0)); },
         [] { return AllBytes(&out->view, sizeof out->view, kUnset); }},
        {"create_custom_view", 71, 1359884, true, false,
         [A] { return Kelvane::create_custom_view(kHandle, A, 0x12345, true, 1, "iqn.2026-11.host:abc", true); },
         {U32(44, 1), U32(48, kHandle), Fill(52, 8, 1), U32(60, 0), Raw(64, kSerialA), Byte(96, 1), U32(124, 0x2345),
          U16(144, 0x2345), Fill(148, 8, 0xCC), Raw(156, Bytes(kIqn, kIqn + 20))}},
        {"create_custom_view", 71, 1359884, true, false,
         [A] { return Kelvane::create_custom_view(kHandle, A, 3, true, 16, "0123456789abcDEF", false); },
         {U32(44, 1), U32(48, kHandle), Fill(52, 8, 1), U32(60, 0), Raw(64, kSerialA), Byte(96, 16), U32(124, 3),
          Raw(116, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}), U16(144, 3), Fill(148, 8, 0xC0)}},
        {"create_custom_view", 71, 1359884, true, false,
         [A] { return Kelvane::create_custom_view(kHandle, A, 3, false, 1, static_cast<const char*>(nullptr), true); },
         {U32(44, 1), U32(48, kHandle), Fill(52, 8, 1), U32(60, 1), Raw(64, kSerialA), Byte(96, 1), U32(124, 3),
          U16(144, 3), Fill(148, 8, 0)}},
        {"create_custom_view", 71, 1359884, true, false,
         [A] { return Kelvane::create_custom_view(kHandle, A, 3, false, 1, "iqn.2026-11.host:abc", true); },
         {U32(44, 1), U32(48, kHandle), Fill(52, 8, 1), U32(60, 0), Raw(64, kSerialA), Byte(96, 1), U32(124, 3),
          U16(144, 3), Fill(148, 8, 0), Raw(156, Bytes(kIqn, kIqn + 20))}},
        {"create_custom_view", 71, 1359884, true, false,
         [A] { return Kelvane::create_custom_view(kHandle, A, 4, true, 0x40, kAddress); },
         {U32(44, 1), U32(48, kHandle), Fill(52, 8, 1), U32(60, 0), Raw(64, kSerialA), Byte(96, 0x40), U32(124, 4),
          Raw(128, Bytes(kAddress + 4, kAddress + 20)), U16(144, 4), Fill(148, 8, 0xC0)}},
        {"change_partition_cache_params", 80, 80, true, false,
         [A, cache] { return Kelvane::change_partition_cache_params(kHandle, A, reinterpret_cast<const uint8_t*>(&cache)); },
         {U32(44, kHandle), Raw(52, kSerialA), U32(84, 0x01020304), U32(88, 0x0A0B0C0D), Byte(92, 0), Byte(93, 1),
          Byte(94, 2)}},
        {"reset_controller", 85, 16, true, false, [] { return Kelvane::reset_controller(kHandle, 1); },
         {U32(44, kHandle), Byte(48, 1)}},
        {"set_owner", 92, 48, true, false, [A] { return Kelvane::set_owner(kHandle, A); },
         {U32(44, kHandle), Raw(48, kSerialA)}},
        {"rescan_bus", 105, 16, true, false, [] { return Kelvane::rescan_bus(kHandle); }, {U32(44, kHandle)}},
        {"get_need_refresh", 108, 56, false, true,
         [] { return Kelvane::get_need_refresh("SUBSYSTEM-UNIQUE-SERIAL-NUMBER-1", &out->answer); },
         {Name(44, "SUBSYSTEM-UNIQUE-SERIAL-NUMBER-1")}, [](Bytes& p) { p[76 - 36] = 1; }, 0,
         [] { EXPECT_EQ(out->answer, 1); }, [] { return out->answer == kUnset; }},
        {"get_unified_controller_data", 109, 55748, false, true,
         [] { return Kelvane::get_unified_controller_data(kHandle, &out->unified); }, {U32(44, kHandle)}, nullptr, 0,
         [] { EXPECT_TRUE(AllBytes(&out->unified, 16, 0)); },
         [] { return AllBytes(&out->unified, sizeof out->unified, kUnset); }},
        {"get_authDB_record", 113, 1036, true, true,
         [] { return Kelvane::get_authDB_record(kHandle, kIqn, 20, out->auth); },
         {U32(44, kHandle), Raw(52, Bytes(kIqn, kIqn + 20))},
         [](Bytes& p) {
             std::memcpy(p.data() + 52 - 36, kIqn, 20);
             std::memcpy(p.data() + 508 - 36, "stored", 6);
         },
         0,
         [] {
             EXPECT_EQ(0, std::memcmp(out->auth, kIqn, 20));
             EXPECT_EQ(0, std::memcmp(out->auth + 508 - 52, "stored", 6));
         },
         [] { return AllBytes(out->auth, sizeof out->auth, kUnset); }},
        {"set_target_secret", 115, 1036, true, true, [] { return Kelvane::set_target_secret(kHandle, kSecret, 12); },
         {U32(44, kHandle), Raw(508, Bytes(kSecret, kSecret + 12))}},
        {"clear_all_target_secret", 116, 1036, true, true, [] { return Kelvane::clear_all_target_secret(kHandle); },
         {U32(44, kHandle)}},
        {"set_target_secret", 117, 1036, true, true,
         [] { return Kelvane::set_target_secret(kHandle, kIqn, kSecret, 20, 12); },
         {U32(44, kHandle), Raw(52, Bytes(kIqn, kIqn + 20)), Raw(284, Bytes(kIqn, kIqn + 20)),
          Raw(508, Bytes(kSecret, kSecret + 12))}},
        {"remeber_initiator_secret", 118, 1036, true, true,
         [] { return Kelvane::remeber_initiator_secret(kHandle, kIqn, kSecret, kMasterId, 20, 12, 16); },
         {U32(44, kHandle), Raw(52, Bytes(kIqn, kIqn + 20)), Raw(525, Bytes(kSecret, kSecret + 12)),
          Raw(749, Bytes(kMasterId, kMasterId + 16))}},
        {"get_flex_known_hosts", 119, 63576, false, true,
         [] { return Kelvane::get_flex_known_hosts(kHandle, &out->hosts); }, {U32(44, kHandle)},
         [](Bytes& p) {
             PutBe32(p, 52 - 36, 2);
             std::memcpy(p.data() + 52 - 36 + 72 + 992 + 204, "host-two", 8);
         },
         0,
         [] {
             EXPECT_EQ(out->hosts.hostCount(), 2u);
             EXPECT_STREQ(out->hosts.entries[1].hostName, "host-two");
         },
         [] { return AllBytes(&out->hosts, sizeof out->hosts, kUnset); }},
        {"get_connect_Hba_info_list", 125, 58128, true, true, [] { return Kelvane::get_connect_Hba_info_list(&out->hba); },
         {}, [](Bytes& p) {
             PutBe32(p, 44 - 36, 1);
             p[44 - 36 + 4] = 'F';
         },
         0,
         [] {
             EXPECT_EQ(out->hba.entryCount(), 1u);
             EXPECT_EQ(out->hba.entries[0].typeLetter, 'F');
         },
         [] { return AllBytes(&out->hba, sizeof out->hba, kUnset); }},
    };
}

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        testlib::BeginSessionTest(tp);
        hVdsMutex = Plat()->CreateNamedMutex("kelvane_lock_vds_catalogue_test");
        outputs = std::make_unique<Outputs>();
        outputs->Reset();
        out = outputs.get();
    }
    void TearDown() override {
        out = nullptr;
        Plat()->CloseNamedMutex(hVdsMutex);
        hVdsMutex = nullptr;
        testlib::EndSessionTest();
    }
    // Connects to the peer and fills the packet buffer with stale bytes.
    void Attach(ScriptPeer& peer) {
        peer.Start();
        peer.AttachTransport();
        ASSERT_NE(g_transport.PacketBuffer, nullptr);
        std::memset(g_transport.PacketBuffer, kStale, wire::kPacketBufferSize);
    }
    bool Logged(const std::string& line) const { return tp.DebuggerText().find(line) != std::string::npos; }
    // After a transport or format failure of `method`: one line for the host, the connection
    // closed (the next command fails at once), the reason kept for the monitor's reconnect.
    void ExpectDropped(const std::string& method, const std::string& reason, int32_t lastSocketError) {
        const auto lines = failures.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0], "the exchange with the proxy service failed at " + method + " (" + reason + ")");
        EXPECT_EQ(g_transport.sock.load(), -1);
        EXPECT_EQ(g_transport.LastSocketError.load(), lastSocketError);
    }

    LockWatch tp;
    testlib::HostFailures failures;
    std::unique_ptr<Outputs> outputs;
};

enum class Scenario { Success, ErrorCode, TransportFailure, OtherOpcode, CutShort };
const char* ScenarioName(Scenario s) {
    switch (s) {
    case Scenario::Success: return "Success";
    case Scenario::ErrorCode: return "ErrorCode";
    case Scenario::TransportFailure: return "TransportFailure";
    case Scenario::OtherOpcode: return "OtherOpcode";
    case Scenario::CutShort: return "CutShort";
    }
    return "?";
}

void PrintTo(Scenario s, std::ostream* os) { *os << ScenarioName(s); }

class EachCommand : public CatalogueTest, public ::testing::WithParamInterface<std::tuple<size_t, Scenario>> {};

TEST_P(EachCommand, SendsItsRequestAndJudgesTheReply) {
    static const std::vector<CommandCase> cases = Catalogue();
    const CommandCase& c = cases.at(std::get<0>(GetParam()));
    const Scenario scenario = std::get<1>(GetParam());
    SCOPED_TRACE(std::string(c.name) + " / " + ScenarioName(scenario));
    constexpr uint32_t kCode = 42;

    std::atomic<int> depthSeen{-1};
    uint32_t replyLen = c.replyLen ? c.replyLen : c.dataLen;
    ScriptPeer peer;
    peer.Accept();
    peer.OnRequest([&](const Bytes&) -> Bytes {
        depthSeen = tp.depth.load();
        Bytes payload(replyLen, 0);
        if (c.fillReply) c.fillReply(payload);
        switch (scenario) {
        case Scenario::Success:
            return ScriptPeer::Reply(c.opcode, payload);
        case Scenario::ErrorCode:
            PutBe32(payload, c.errorAt - 36, kCode);
            return ScriptPeer::Reply(c.opcode, payload);
        case Scenario::TransportFailure:
            return {};
        case Scenario::OtherOpcode:
            return ScriptPeer::Reply(c.opcode + 1, payload);
        case Scenario::CutShort: {
            Bytes r = ScriptPeer::Reply(c.opcode, payload);
            PutBe32(r, 32, replyLen + 64);  // promises more than it sends
            return r;
        }
        }
        return {};
    });
    peer.CloseConnection();
    Attach(peer);

    int rc = c.call();
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(tp.depth.load(), 0) << "the lock is left held";
    EXPECT_EQ(depthSeen.load(), 1) << "the request went out without the lock";

    // The request, byte for byte.
    const std::vector<Bytes> requests = peer.requests();
    ASSERT_EQ(requests.size(), 1u);
    const Bytes& req = requests[0];
    ASSERT_EQ(req.size(), 36u + c.dataLen);
    EXPECT_EQ(wire::DataTypeOf(req.data()), wire::RSREQUEST);
    EXPECT_EQ(wire::OpCodeOf(req.data()), c.opcode);
    EXPECT_EQ(wire::DataLenOf(req.data()), c.dataLen);
    std::vector<bool> named(req.size(), false);
    for (const Field& f : c.fields) {
        ASSERT_LE(f.at + f.bytes.size(), req.size()) << "field at " << f.at;
        EXPECT_EQ(Bytes(req.begin() + f.at, req.begin() + f.at + f.bytes.size()), f.bytes) << "field at " << f.at;
        for (size_t i = 0; i < f.bytes.size(); ++i) named[f.at + i] = true;
    }
    size_t wrong = 0, firstWrong = 0;
    const uint8_t unnamed = c.cleared ? 0 : kStale;
    for (size_t i = 36; i < req.size(); ++i)
        if (!named[i] && req[i] != unnamed && wrong++ == 0) firstWrong = i;
    EXPECT_EQ(wrong, 0u) << "unnamed payload bytes not " << (c.cleared ? "cleared" : "left as they were")
                         << ", the first at " << firstWrong;

    // The result, the output and the log.
    std::string logName = c.logName ? c.logName : c.name;
    switch (scenario) {
    case Scenario::Success:
        EXPECT_EQ(rc, 0) << tp.DebuggerText();
        if (c.checkOutput) c.checkOutput();
        break;
    case Scenario::ErrorCode:
        EXPECT_EQ(rc, c.codeResult ? int(kCode) : -1);
        EXPECT_TRUE(Logged("OOP!! Kelvane::" + logName + " return error code")) << tp.DebuggerText();
        break;
    case Scenario::TransportFailure:
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(Logged("OOP!! Kelvane::" + logName + " exec_cmnd(Line")) << tp.DebuggerText();
        ExpectDropped(c.name, "connection closed by the service", kClosedByService);
        break;
    case Scenario::OtherOpcode:
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(Logged("OOP!! Kelvane::" + logName + " DataType or OpCode(Line")) << tp.DebuggerText();
        ExpectDropped(c.name, "a reply of DataType 2, OpCode " + std::to_string(c.opcode + 1), kMalformedReply);
        break;
    case Scenario::CutShort:
        EXPECT_EQ(rc, -1);
        EXPECT_TRUE(Logged("OOP!! Kelvane::" + logName + " ph->DataLen(Line")) << tp.DebuggerText();
        ExpectDropped(c.name,
                      "the reply's " + std::to_string(replyLen + 64) +
                          " bytes of payload did not all come: connection closed by the service",
                      kClosedByService);
        break;
    }
    // A well-formed reply, the array's error code included, keeps the connection.
    if (scenario == Scenario::Success || scenario == Scenario::ErrorCode) {
        EXPECT_TRUE(failures.lines().empty());
        EXPECT_GT(g_transport.sock.load(), 0);
        EXPECT_EQ(g_transport.LastSocketError.load(), 0);
    }
    // Outputs are written on success only (the snapshot list also with the array's code).
    bool delivered = scenario == Scenario::Success ||
                     (scenario == Scenario::ErrorCode && std::string(c.name) == "get_snapshot_list");
    if (c.outputUnset) {
        EXPECT_EQ(c.outputUnset(), !delivered);
    }

    // The pauses, each taken under the lock.
    const std::vector<uint32_t>& pauses = scenario == Scenario::Success ? c.pausesOnSuccess : c.pausesOnFailure;
    EXPECT_EQ(tp.clock().SleepCalls(), pauses);
    for (bool locked : tp.sleptLocked) EXPECT_TRUE(locked);
}

std::string CaseName(const ::testing::TestParamInfo<std::tuple<size_t, Scenario>>& info) {
    static const std::vector<CommandCase> cases = Catalogue();
    size_t i = std::get<0>(info.param);
    return std::to_string(i) + "_" + cases.at(i).name + "_" + ScenarioName(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Catalogue, EachCommand,
                         ::testing::Combine(::testing::Range<size_t>(0, Catalogue().size()),
                                            ::testing::Values(Scenario::Success, Scenario::ErrorCode,
                                                              Scenario::TransportFailure, Scenario::OtherOpcode,
                                                              Scenario::CutShort)),
                         CaseName);

// The shared table (which the emulator reads requests by) says what the cases above expect,
// command by command, and holds no command they don't test: OpCode, DataLen, cleared, result
// rule, the name in the failure lines, and where the handle stands.
TEST(CommandTable, AgreesWithTheCatalogueCases) {
    const std::vector<CommandCase> cases = Catalogue();
    const Bytes handleBytes = U32(0, kHandle).bytes;
    for (const CommandDef* d : cmd::kAll) {
        SCOPED_TRACE(std::string(d->method) + " " + std::to_string(d->opcode));
        auto it = std::find_if(cases.begin(), cases.end(), [d](const CommandCase& c) {
            return c.opcode == d->opcode && std::string(c.name) == d->method;
        });
        ASSERT_NE(it, cases.end()) << "no case for it";
        EXPECT_EQ(d->dataLen, it->dataLen);
        EXPECT_EQ(d->cleared, it->cleared);
        EXPECT_EQ(d->codeResult(), it->codeResult);
        EXPECT_STREQ(d->LogMethod(), it->logName ? it->logName : it->name);
        bool handleAt = std::any_of(it->fields.begin(), it->fields.end(), [&](const Field& f) {
            return f.at == d->handleAt && f.bytes == handleBytes;
        });
        EXPECT_EQ(handleAt, d->handleAt != 0);
        EXPECT_NE(cmd::ByOpcode(d->opcode), nullptr);
    }
    for (const CommandCase& c : cases) {
        bool listed = std::any_of(std::begin(cmd::kAll), std::end(cmd::kAll), [&c](const CommandDef* d) {
            return d->opcode == c.opcode && std::string(c.name) == d->method;
        });
        EXPECT_TRUE(listed) << c.name;
    }
}

// --- Malformed replies and a stalled payload (the reply rule is one for all commands) ----------

struct MalformedCase {
    const char* name;
    std::function<Bytes(Bytes good)> reply;  // made from a good reply to get_percent
    const char* logLine;
    std::string reason;
};

class MalformedReply : public CatalogueTest, public ::testing::WithParamInterface<MalformedCase> {};

// The original keeps the connection after a malformed reply, so that what is left of it is read
// as the next reply; and it takes a short header of the right kind for a reply. Here each fails,
// closes the connection, and the next command fails at once without reaching the peer.
TEST_P(MalformedReply, FailsClosesTheConnectionAndTheNextCommandFailsAtOnce) {
    const MalformedCase& c = GetParam();
    Bytes good = ScriptPeer::Reply(28, Bytes(48, 0));
    PutBe32(good, 80, 57);
    ScriptPeer peer;
    peer.Accept();
    peer.OnRequest([&](const Bytes&) { return c.reply(good); });
    peer.ExpectClosed();
    Attach(peer);

    EXPECT_EQ(Kelvane::get_percent(kHandle, kSerialA.data(), &out->percent), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged(std::string("OOP!! Kelvane::get_percent ") + c.logLine)) << tp.DebuggerText();
    EXPECT_TRUE(AllBytes(&out->percent, 4, kUnset));
    ExpectDropped("get_percent", c.reason, kMalformedReply);

    EXPECT_EQ(Kelvane::get_version(), -1);
    EXPECT_EQ(peer.requests().size(), 1u);
    const auto lines = failures.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1], "the exchange with the proxy service failed at get_version (no connection; it was closed "
                        "after a failed exchange and waits for the reconnect)");
    EXPECT_NE(g_transport.LastSocketError.load(), 0);
    EXPECT_EQ(tp.depth.load(), 0);
}

Bytes FirstBytes(Bytes b, size_t n) {
    b.resize(n);
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Replies, MalformedReply,
    ::testing::Values(
        // The request's own DataType 1 is judged in the 16 header bytes that didn't come.
        MalformedCase{"ShortHeader", [](Bytes g) { return FirstBytes(g, 20); }, "DataType or OpCode(Line",
                      "a reply header of 20 bytes"},
        MalformedCase{"ShortHeaderOfTheRightKind", [](Bytes g) { return FirstBytes(g, 28); },
                      "reply header of 28 bytes(Line", "a reply header of 28 bytes"},
        MalformedCase{"OtherDataType",
                      [](Bytes g) {
                          PutBe32(g, 20, 1);
                          return g;
                      },
                      "DataType or OpCode(Line", "a reply of DataType 1, OpCode 28"},
        MalformedCase{"HugeDataLen",
                      [](Bytes g) {
                          PutBe32(g, 32, 0x7FFFFFF0);
                          return FirstBytes(g, 36);
                      },
                      "reply of 2147483632 bytes does not fit the packet buffer",
                      "a reply of 2147483632 bytes, more than the packet buffer holds"}),
    [](const ::testing::TestParamInfo<MalformedCase>& i) { return std::string(i.param.name); });

// The original reads the rest of a payload without a limit. Here it must come within the limit of
// the first bytes: on the fake clock the command ends exactly there, with no real wait.
TEST_F(CatalogueTest, APayloadThatStallsFailsAtTheLimitAndClosesTheConnection) {
    ScriptPeer peer;
    peer.Accept();
    peer.OnRequest([](const Bytes&) { return FirstBytes(ScriptPeer::Reply(9, Bytes(444, 0)), 36 + 100); });
    peer.ExpectClosed();
    Attach(peer);
    tp.clock().SetAuto(false);

    testlib::CallOnClock call(tp.clock(), [] { return Kelvane::get_event(kHandle, 0, 1, 0, out->events); });
    ASSERT_TRUE(call.BlockedWhen([&] { return peer.stepsDone() >= 2 && testlib::CallOnClock::NothingUnread(); }));
    EXPECT_TRUE(call.AdvanceStillWaits(599999));
    EXPECT_TRUE(call.AdvanceEnds(1));
    EXPECT_EQ(call.Join(), -1);
    EXPECT_EQ(call.Elapsed(), 600000u);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("recvdata timed out after 600000 ms, 100 of 444 bytes\n")) << tp.DebuggerText();
    EXPECT_TRUE(Logged("OOP!! Kelvane::get_event ph->DataLen(Line")) << tp.DebuggerText();
    ExpectDropped("get_event", "the reply's 444 bytes of payload did not all come: no reply in time", kNoReplyInTime);
    EXPECT_TRUE(AllBytes(out->events, sizeof out->events, kUnset));
    EXPECT_EQ(tp.depth.load(), 0) << "the lock is left held";
}

// --- Special forms ---------------------------------------------------------------------------

// A peer that answers every request with `answer`; the tests below run one or more commands.
class FormsTest : public CatalogueTest {
protected:
    using Answer = std::function<Bytes(const Bytes& req)>;
    // Scripts `n` exchanges answered by `answer` and connects.
    void Serve(ScriptPeer& peer, int n, Answer answer) {
        peer.Accept();
        for (int i = 0; i < n; ++i) peer.OnRequest(answer);
        Attach(peer);
    }
    // A reply of the request's OpCode: `payload` bytes, zero unless `fill` writes them.
    static Answer Echo(uint32_t payloadLen, std::function<void(const Bytes& req, Bytes& payload)> fill = nullptr) {
        return [payloadLen, fill](const Bytes& req) {
            Bytes payload(payloadLen, 0);
            if (fill) fill(req, payload);
            return ScriptPeer::Reply(wire::OpCodeOf(req.data()), payload);
        };
    }
    // After a command that must not send: the next thing the peer reads is get_version.
    void ExpectNothingSentBefore(ScriptPeer& peer) {
        EXPECT_EQ(Kelvane::get_version(), 0);
        ASSERT_TRUE(peer.Finish()) << peer.failure();
        const std::vector<Bytes> requests = peer.requests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(wire::OpCodeOf(requests[0].data()), 11u);
    }
};

struct RaidCase {
    uint8_t raidLevel;
    int drives;
    uint32_t stripeBytes;
    uint8_t sentLevel;
    uint32_t sentStripeKiB;
};

class CreateArrayLevels : public FormsTest, public ::testing::WithParamInterface<RaidCase> {};

TEST_P(CreateArrayLevels, SendsTheLevelAndStripeTheArrayExpects) {
    const RaidCase& c = GetParam();
    ScriptPeer peer;
    Serve(peer, 1, Echo(4548, [](const Bytes&, Bytes& p) { NameTheArray(p, "mirror"); }));
    EXPECT_EQ(Kelvane::create_array(kHandle, 0, &out->array, c.raidLevel, c.stripeBytes, Locations(c.drives),
                                    Serials(c.drives), "mirror", 0, 0),
              0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    const Bytes req = peer.requests().at(0);
    EXPECT_EQ(req[604], c.sentLevel);
    EXPECT_EQ(wire::LoadBe32(req.data() + 612), c.sentStripeKiB);
    EXPECT_EQ(wire::LoadBe32(req.data() + 596), uint32_t(c.drives));
    for (int i = 0; i < c.drives; ++i)
        EXPECT_TRUE(Logged("Create Array Uses Drive: " + std::to_string(i % 4) + "." + std::to_string(0x100 + i) + "\n"));
}

INSTANTIATE_TEST_SUITE_P(Levels, CreateArrayLevels,
                         ::testing::Values(RaidCase{1, 2, 0, 1, 64},           // a mirror of two stays RAID1
                                           RaidCase{1, 4, 65536, 10, 64},      // more than two: RAID10
                                           RaidCase{1, 3, 131072, 10, 128},
                                           RaidCase{10, 2, 0, 10, 64},
                                           RaidCase{5, 68, 262144, 5, 256},    // the widest member table
                                           RaidCase{0, 1, 1023, 0, 0}),        // below a KiB: shifted away
                         [](const ::testing::TestParamInfo<RaidCase>& i) {
                             return "Raid" + std::to_string(i.param.raidLevel) + "Of" + std::to_string(i.param.drives) +
                                    "Stripe" + std::to_string(i.param.stripeBytes);
                         });

TEST_F(FormsTest, CreateArrayFailsWhenTheArrayTookAnotherName) {
    ScriptPeer peer;
    Serve(peer, 1, Echo(4548, [](const Bytes&, Bytes& p) { NameTheArray(p, "vd-fiv"); }));
    EXPECT_EQ(Kelvane::create_array(kHandle, 0, &out->array, 5, 0, Locations(3), Serials(3), "vd-five", 0, 0), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("OOP!! Kelvane::create_array the arrayName is not expected(Line "));
    EXPECT_TRUE(Logged("the expected name is vd-five, but now name is vd-fiv\n")) << tp.DebuggerText();
    EXPECT_STREQ(out->array.name, "vd-fiv");  // the record is handed over before the names are compared
    EXPECT_EQ(tp.clock().SleepCalls(), std::vector<uint32_t>{1000});
}

TEST_F(FormsTest, CreateArrayComparesAtMostThirtyOneCharacters) {
    const std::string longName(40, 'n');
    ScriptPeer peer;
    Serve(peer, 1, Echo(4548, [](const Bytes&, Bytes& p) { NameTheArray(p, std::string(31, 'n').c_str()); }));
    EXPECT_EQ(Kelvane::create_array(kHandle, 0, &out->array, 5, 0, Locations(3), Serials(3), longName.c_str(), 0, 0), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    const Bytes req = peer.requests().at(0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(req.data() + 632)), std::string(31, 'n'));
}

TEST_F(FormsTest, ExpandArrayBorrowsTheFailureTextsOfGetVersion) {
    ScriptPeer peer;
    Serve(peer, 1, [](const Bytes&) { return ScriptPeer::Reply(99, Bytes(12, 0)); });
    EXPECT_EQ(Kelvane::expand_array(kHandle, kSerialA.data(), Locations(1)), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("OOP!! Kelvane::get_version DataType or OpCode(Line ")) << tp.DebuggerText();
    EXPECT_TRUE(Logged("ph->DataType(=2), RSREPLY(=2), ph->OpCode(=99), EXPAND_ARRAY(=18) \n")) << tp.DebuggerText();
    EXPECT_TRUE(Logged("Kelvane::expand_array handle = 0x11223344"));
}

TEST_F(FormsTest, CreateSnapshotNamesAddArrayPartInItsFormatLine) {
    ScriptPeer peer;
    Serve(peer, 1, [](const Bytes&) { return ScriptPeer::Reply(52, Bytes(1140, 0)); });
    EXPECT_EQ(Kelvane::create_snapshot(kHandle, "s", 0, 3, 1, kMasterId, &out->snapshot), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("ph->OpCode(=52), ADD_ARRAY_PART(=14) \n")) << tp.DebuggerText();
}

TEST_F(FormsTest, ViewByAddressIgnoresTheAddressForOtherHostKinds) {
    ScriptPeer peer;
    Serve(peer, 1, Echo(12));
    EXPECT_EQ(Kelvane::create_custom_view(kHandle, kSerialA.data(), 2, true, 1, kAddress), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    const Bytes req = peer.requests().at(0);
    EXPECT_TRUE(AllBytes(req.data() + 128, 16, 0));
    EXPECT_EQ(wire::LoadBe32(req.data() + 60), 0u);  // an address was given: not a removal of all
    EXPECT_TRUE(Logged("Kelvane::create_custom_view hanndle = 287454020, PartSn = ")) << tp.DebuggerText();
}

// A test name made of a case's words: "a hostile count" gives "AHostileCount".
std::string Identifier(const char* words) {
    std::string out;
    bool upper = true;
    for (const char* p = words; *p; ++p) {
        if (!std::isalnum(static_cast<unsigned char>(*p))) {
            upper = true;
            continue;
        }
        out += upper ? char(std::toupper(static_cast<unsigned char>(*p))) : *p;
        upper = false;
    }
    return out;
}

struct EventsCase {
    const char* what;
    uint32_t first, last;
    uint32_t countSent;    // the count word of the reply
    uint32_t recordsSent;  // records the reply really carries
    uint32_t expected;
};

class EventsBounds : public FormsTest, public ::testing::WithParamInterface<EventsCase> {};

TEST_P(EventsBounds, TakeNoMoreThanTheSpanTheBufferAndTheReply) {
    const EventsCase& c = GetParam();
    ScriptPeer peer;
    uint32_t recs = c.recordsSent;
    Serve(peer, 1, Echo(std::max<uint32_t>(444, 32 + recs * 412), [&c, recs](const Bytes&, Bytes& p) {
              PutBe32(p, 20, c.countSent);
              for (uint32_t i = 0; i < recs; ++i) PutBe32(p, 32 + i * 412, c.first + i);
          }));
    // Room for the full buffer and one guard record behind it.
    std::vector<EventData> buf(rec::kMaxEvents + 1);
    std::memset(static_cast<void*>(buf.data()), kUnset, buf.size() * sizeof(EventData));
    uint32_t count = 12345;
    EXPECT_EQ(Kelvane::get_events(kHandle, c.first, c.last, buf.data(), &count), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(count, c.expected) << c.what;
    for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(buf[i].sequenceNumber, c.first + i);
    EXPECT_TRUE(AllBytes(&buf[count], (buf.size() - count) * sizeof(EventData), kUnset)) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Counts, EventsBounds,
    ::testing::Values(EventsCase{"fewer than asked", 10, 19, 4, 4, 4},
                      EventsCase{"more than the span", 10, 11, 4, 4, 2},
                      EventsCase{"more than the buffer", 1, 500, 150, 150, 100},
                      EventsCase{"a count the reply does not carry", 1, 50, 10, 1, 1},
                      EventsCase{"a hostile count", 1, 50, 0xFFFFFFFF, 3, 3},
                      EventsCase{"the last before the first", 9, 5, 3, 3, 0}),
    [](const ::testing::TestParamInfo<EventsCase>& i) { return Identifier(i.param.what); });

struct ListCase {
    const char* what;
    uint32_t countSent;
    uint32_t entriesSent;
    uint32_t expected;
};

class ListBounds : public FormsTest, public ::testing::WithParamInterface<std::tuple<int, ListCase>> {};

// 0: backing stores (16), 1: master volumes (1,024), 2: snapshots (512).
TEST_P(ListBounds, CountsAreClampedToTheTableAndTheReply) {
    const int list = std::get<0>(GetParam());
    const ListCase& c = std::get<1>(GetParam());
    const size_t countAt = list == 0 ? 52 : 84, entriesAt = list == 0 ? 60 : 92, entrySize = list == 0 ? 80 : 88;
    const uint32_t table = list == 0 ? 16 : list == 1 ? 1024 : 512;
    const uint32_t entries = std::min(c.entriesSent, table);
    ScriptPeer peer;
    Serve(peer, 1, Echo(uint32_t(entriesAt - 36 + entries * entrySize), [&](const Bytes&, Bytes& p) {
              PutBe32(p, countAt - 36, c.countSent);
              for (uint32_t i = 0; i < entries; ++i) p[entriesAt - 36 + i * entrySize] = uint8_t(i + 1);
          }));
    uint32_t count = 12345;
    int rc = list == 0   ? Kelvane::get_backing_store_list(kHandle, 1, &count, out->stores)
             : list == 1 ? Kelvane::get_master_volume_list(kHandle, 1, 4, nullptr, &count, out->volumes)
                         : Kelvane::get_snapshot_list(kHandle, 1, 5, nullptr, &count, out->volumes);
    EXPECT_EQ(rc, 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    uint32_t expected = std::min(c.expected, table);
    EXPECT_EQ(count, expected) << c.what;
    const uint8_t* first = list == 0 ? reinterpret_cast<const uint8_t*>(out->stores)
                                     : reinterpret_cast<const uint8_t*>(out->volumes);
    for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(first[i * entrySize], uint8_t(i + 1));
    // Nothing written past the last entry taken.
    size_t room = list == 0 ? sizeof out->stores : sizeof out->volumes;
    EXPECT_TRUE(AllBytes(first + count * entrySize, room - count * entrySize, kUnset)) << c.what;
}

std::string ListCaseName(const ::testing::TestParamInfo<std::tuple<int, ListCase>>& i) {
    const char* lists[] = {"BackingStores", "MasterVolumes", "Snapshots"};
    return std::string(lists[std::get<0>(i.param)]) + "_" + Identifier(std::get<1>(i.param).what);
}

INSTANTIATE_TEST_SUITE_P(Counts, ListBounds,
                         ::testing::Combine(::testing::Values(0, 1, 2),
                                            ::testing::Values(ListCase{"as sent", 3, 3, 3},
                                                              ListCase{"beyond the table", 5000, 5000, 5000},
                                                              ListCase{"beyond the reply", 9, 2, 2},
                                                              ListCase{"hostile", 0x80000000, 4, 4})),
                         ListCaseName);

TEST_F(FormsTest, SnapshotListIsHandedOverWithTheArraysCode) {
    ScriptPeer peer;
    Serve(peer, 1, Echo(45112, [](const Bytes&, Bytes& p) {
              PutBe32(p, 4, 77);
              PutBe32(p, 84 - 36, 2);
              p[92 - 36 + 88] = 0x42;
          }));
    uint32_t count = 0;
    EXPECT_EQ(Kelvane::get_snapshot_list(kHandle, 1, 5, kSerialA.data(), &count, out->volumes), 77);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(out->volumes[1].id[0], 0x42);
}

// Arguments a command can't carry are refused before anything is sent: the peer's next request
// is the get_version that follows.
struct RefusedCase {
    const char* name;
    std::function<int()> call;
    const char* logLine;  // in the debug log, or null
    std::function<bool()> outputUnset = nullptr;
};

void PrintTo(const RefusedCase& c, std::ostream* os) { *os << c.name; }

class RefusedBeforeSending : public FormsTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedBeforeSending, FailsAndTheNextRequestIsTheFirstTheArraySees) {
    const RefusedCase& c = GetParam();
    ScriptPeer peer;
    Serve(peer, 1, Echo(12));
    EXPECT_EQ(c.call(), -1);
    if (c.logLine) {
        EXPECT_TRUE(Logged(c.logLine)) << tp.DebuggerText();
    }
    if (c.outputUnset) {
        EXPECT_TRUE(c.outputUnset());
    }
    ExpectNothingSentBefore(peer);
}

const uint8_t kLong[300] = {};

int CreateArrayOf(int serials, int locations) {
    return Kelvane::create_array(kHandle, 0, &out->array, 5, 0, Locations(locations), Serials(serials), "x", 0, 0);
}
int ViewForWwn(const char* wwn) { return Kelvane::create_custom_view(kHandle, kSerialA.data(), 1, true, 16, wwn, false); }
bool ArrayUnset() { return AllBytes(&out->array, sizeof out->array, kUnset); }

INSTANTIATE_TEST_SUITE_P(
    Arguments, RefusedBeforeSending,
    ::testing::Values(
        RefusedCase{"CreateArrayOfNoDrives", [] { return CreateArrayOf(0, 0); }, nullptr, ArrayUnset},
        RefusedCase{"CreateArrayOf69Drives", [] { return CreateArrayOf(69, 69); }, nullptr, ArrayUnset},
        RefusedCase{"CreateArrayOfMoreSerialsThanLocations", [] { return CreateArrayOf(3, 2); }, nullptr, ArrayUnset},
        RefusedCase{"ExpandArrayByNoDrives", [] { return Kelvane::expand_array(kHandle, kSerialA.data(), Locations(0)); },
                    nullptr},
        RefusedCase{"ExpandArrayBy69Drives",
                    [] { return Kelvane::expand_array(kHandle, kSerialA.data(), Locations(69)); }, nullptr},
        // A world-wide name must be sixteen hexadecimal digits.
        RefusedCase{"WwnOf15Digits", [] { return ViewForWwn("0123456789abcde"); }, nullptr},
        RefusedCase{"WwnOf17Digits", [] { return ViewForWwn("0123456789abcdef0"); }, nullptr},
        RefusedCase{"WwnNotHex", [] { return ViewForWwn("0123456789abcdeg"); }, nullptr},
        RefusedCase{"WwnEmpty", [] { return ViewForWwn(""); }, nullptr},
        // A length beyond its field.
        RefusedCase{"SecretOf18", [] { return Kelvane::set_target_secret(kHandle, kLong, 18); }, "does not fit its"},
        RefusedCase{"NameOf225", [] { return Kelvane::set_target_secret(kHandle, kLong, kLong, 225, 12); },
                    "does not fit its"},
        RefusedCase{"ThirdTextOf225",
                    [] { return Kelvane::remeber_initiator_secret(kHandle, kLong, kLong, kLong, 1, 1, 225); },
                    "does not fit its"},
        RefusedCase{"LookupNameOf300", [] { return Kelvane::get_authDB_record(kHandle, kLong, 300, out->auth); },
                    "does not fit its"},
        RefusedCase{"NoSecretButALength", [] { return Kelvane::set_target_secret(kHandle, nullptr, 4); },
                    "does not fit its"}),
    [](const ::testing::TestParamInfo<RefusedCase>& i) { return std::string(i.param.name); });

TEST_F(FormsTest, AuthFieldsOfTheirFullWidthAreCopiedExactly) {
    Bytes name(224, 'n'), secret(17, 's');
    ScriptPeer peer;
    Serve(peer, 1, Echo(1036));
    EXPECT_EQ(Kelvane::set_target_secret(kHandle, name.data(), secret.data(), 224, 17), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    const Bytes req = peer.requests().at(0);
    EXPECT_EQ(Bytes(req.begin() + 52, req.begin() + 276), name);
    EXPECT_EQ(req[276], 0);
    EXPECT_EQ(req[277], 0);
    EXPECT_EQ(Bytes(req.begin() + 284, req.begin() + 508), name);
    EXPECT_EQ(Bytes(req.begin() + 508, req.begin() + 525), secret);
    EXPECT_EQ(req[525], 0);
}

TEST_F(FormsTest, GetEventLogsTheCodeBothWays) {
    ScriptPeer peer;
    Serve(peer, 1, Echo(444, [](const Bytes&, Bytes& p) { PutBe32(p, 4, 0x2A); }));
    EXPECT_EQ(Kelvane::get_event(kHandle, 0, 1, 0, out->events), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("OOP!! Kelvane::get_event return error code 0x2a (byte-swapped 0x2a000000), len 444 "
                       "(byteswapped -1140785152) (Line "))
        << tp.DebuggerText();
}

TEST_F(FormsTest, HbaListLogsItsOwnLinesForACodeAndALostExchange) {
    {
        ScriptPeer peer;
        Serve(peer, 1, Echo(58128, [](const Bytes&, Bytes& p) { PutBe32(p, 4, 9); }));
        EXPECT_EQ(Kelvane::get_connect_Hba_info_list(&out->hba), 9);
        ASSERT_TRUE(peer.Finish()) << peer.failure();
        EXPECT_TRUE(Logged("it return error_code = 9\n")) << tp.DebuggerText();
    }
    ResetSessionForTest();
    {
        ScriptPeer peer;
        peer.Accept();
        peer.OnRequest(nullptr);
        peer.CloseConnection();
        Attach(peer);
        EXPECT_EQ(Kelvane::get_connect_Hba_info_list(&out->hba), -1);
        ASSERT_TRUE(peer.Finish()) << peer.failure();
        EXPECT_TRUE(Logged("OOP!! Kelvane::get_connect_Hba_info_list exec_cmnd return error")) << tp.DebuggerText();
    }
    EXPECT_TRUE(AllBytes(&out->hba, sizeof out->hba, kUnset));
}

TEST_F(FormsTest, NeedRefreshSendsAShortSerialFollowedByZeros) {
    ScriptPeer peer;
    Serve(peer, 1, Echo(56));
    uint8_t answer = 9;
    EXPECT_EQ(Kelvane::get_need_refresh("SHORT", &answer), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(answer, 0);
    const Bytes req = peer.requests().at(0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(req.data() + 44), 5), "SHORT");
    EXPECT_TRUE(AllBytes(req.data() + 49, 27, 0));
    EXPECT_TRUE(AllBytes(req.data() + 76, 16, kStale));  // the rest is not cleared
}

TEST_F(FormsTest, NoPacketBufferFailsEveryCommandWithoutSending) {
    // Before the connect sequence ran (or after the unload) there is nothing to build in.
    ASSERT_EQ(g_transport.PacketBuffer, nullptr);
    EXPECT_EQ(Kelvane::silence_alarm(kHandle), -1);
    EXPECT_EQ(Kelvane::get_dms_tag(kHandle, 0, &out->tag), -1);
    EXPECT_EQ(tp.depth.load(), 0);
    EXPECT_TRUE(AllBytes(&out->tag, 8, kUnset));
}

}  // namespace
