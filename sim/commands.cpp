#include "sim/commands.h"

#include <algorithm>
#include <cstring>

#include "proxy/records.h"
#include "proxy/wire.h"
#include "sim/encode.h"

namespace trovsim {

using wire::LoadBe16;
using wire::LoadBe32;
using wire::StoreBe32;

namespace {

// A 64-bit value on the wire: two big-endian words, the low word first.
uint64_t Load64(const uint8_t* p) { return uint64_t(LoadBe32(p)) | uint64_t(LoadBe32(p + 4)) << 32; }
void Store64(uint8_t* p, uint64_t v) {
    StoreBe32(p, static_cast<uint32_t>(v));
    StoreBe32(p + 4, static_cast<uint32_t>(v >> 32));
}

Serial SerialAt(const uint8_t* p) {
    Serial s;
    std::memcpy(s.data(), p, s.size());
    return s;
}

std::string TextAt(const uint8_t* p, size_t width) {
    size_t n = 0;
    while (n < width && p[n]) ++n;
    return std::string(reinterpret_cast<const char*>(p), n);
}

void PutText(uint8_t* p, const std::string& s, size_t width) {
    std::memset(p, 0, width);
    std::memcpy(p, s.data(), std::min(s.size(), width - 1));
}

struct OpInfo {
    uint32_t op;
    const char* name;
    uint32_t request;  // DataLen of the request
    uint32_t reply;    // DataLen of the reply (0: computed)
};

// The catalogue: names as the array calls its operations, where it has a name for them.
const OpInfo kOps[] = {
    {0, "GET_CONTROLLERHANDLEDB", 312, 312},
    {1, "GET_CONTROLLER", 4, 0},
    {9, "GET_EVENT", 444, 0},
    {11, "GET_VERSION", 0, 12},
    {12, "SET_PART_NAME", 80, 80},
    {14, "ADD_ARRAY_PART", 728, 728},
    {15, "DELETE_PART", 48, 48},
    {16, "CREATE_ARRAY", 4548, 4548},
    {17, "EXPAND_PART", 312, 312},
    {18, "EXPAND_ARRAY", 592, 592},
    {19, "ASSIGN_POOL_SPARE", 80, 80},
    {20, "BLINK_DRIVE", 48, 48},
    {21, "FLUSH_CACHE", 44, 44},
    {22, "FREE_CACHE", 48, 48},
    {23, "SILENCE_ALARM", 16, 16},
    {24, "DELETE_ARRAY", 48, 48},
    {27, "ABORT_UTILITY", 44, 44},
    {28, "GET_PERCENT_COMPLETED", 48, 48},
    {29, "SET_ADV_NET_INTERFACE", 2076, 2076},
    {30, "CHANGE_PART_LUN", 48, 48},
    {50, "GET_DMS_TAG", 28, 28},
    {51, "CREATE_SNAPSHOT", 1140, 1140},
    {55, "GET_BACKING_STORE_LIST", 1304, 1304},
    {56, "GET_MASTER_VOLUME_LIST", 90168, 90168},
    {57, "GET_SNAPSHOT_LIST", 45112, 45112},
    {61, "CONVERT_MASTER_VOLUME", 312, 312},
    {70, "GET_PARTITION_VIEW", 37456, 37456},
    {71, "CREATE_CUSTOM_VIEW", 1359884, 12},
    {80, "SET_PARTITION_CACHE_PARAM", 80, 80},
    {85, "REBOOT_CONTROLLER", 16, 16},
    {92, "SET_PREFERRED_OWNER", 48, 48},
    {105, "RESCAN_ALL_BUS", 16, 16},
    {108, "GET_NEED_REFRESH", 56, 56},
    {109, "GET_UNIFIED_CONTROLLER", 55748, 55748},
    {113, "GET_AUTHDB_RECORD", 1036, 1036},
    {115, "SET_TARGET_SECRET", 1036, 1036},
    {116, "CLEAR_ALL_TARGET_SECRET", 1036, 1036},
    {117, "SET_TARGET_SECRET_NAME", 1036, 1036},
    {118, "REMEMBER_INITIATOR_SECRET", 1036, 1036},
    {119, "GET_FLEX_KNOWN_HOSTS", 63576, 63576},
    {125, "GET_CONNECT_HBA_INFO_LIST", 58128, 58128},
};

const OpInfo* Find(uint32_t op) {
    for (const OpInfo& i : kOps)
        if (i.op == op) return &i;
    return nullptr;
}

constexpr size_t kHdr = wire::kHeaderSize;
constexpr size_t kCreateViewEntry = 332;
constexpr size_t kMaxViewEntries = 4096;
constexpr size_t kEventsPerReply = 100;

}  // namespace

const char* Commands::OpName(uint32_t op) {
    const OpInfo* i = Find(op);
    return i ? i->name : "UNKNOWN";
}

uint32_t Commands::RequestLength(uint32_t op) {
    const OpInfo* i = Find(op);
    return i ? i->request : 0;
}

uint32_t Commands::ReplyLength(uint32_t op) {
    const OpInfo* i = Find(op);
    if (!i) return 12;
    if (op == 1) return static_cast<uint32_t>(Encoder::ControllerDataSize());
    if (op == 9) return 444;
    return i->reply;
}

void Commands::Refuse(uint32_t op, uint32_t error, CommandReply& r) {
    uint8_t* o = r.out->data();
    uint32_t len = ReplyLength(op);
    std::memset(o + kHdr, 0, len);
    // The subsystem list carries its error word at the start of the payload.
    StoreBe32(o + (op == 0 ? 36 : 40), error);
    r.length = kHdr + len;
    r.bulk.reset();
    r.error = error;
}

void Commands::Handle(const uint8_t* pkt, uint32_t len, CommandReply& r) {
    const uint32_t op = wire::OpCodeOf(pkt);
    const uint32_t payload = len - static_cast<uint32_t>(kHdr);
    uint8_t* o = r.out->data();
    const OpInfo* info = Find(op);
    if (!info) {
        Refuse(op, kErrUnknownCommand, r);
        r.note = "unknown opcode";
        return;
    }
    // Fields are read where the catalogue puts them: a request too short to hold them is refused.
    uint32_t need = info->request;
    if (op == 71) need = 48 + kCreateViewEntry;  // one entry at least
    if (payload < need) {
        Refuse(op, kErrBadRequest, r);
        r.note = "DataLen " + std::to_string(payload) + " below " + std::to_string(need);
        return;
    }
    // The reply has the request's layout with results written in; the rest is zero.
    uint32_t replyLen = ReplyLength(op);
    std::memset(o + kHdr, 0, replyLen);
    std::memcpy(o + kHdr, pkt + kHdr, std::min(payload, replyLen));
    r.length = kHdr + replyLen;
    r.bulk.reset();
    r.error = 0;
    auto fail = [&](uint32_t e) {
        r.error = e;
        StoreBe32(o + 40, e);
    };

    // Commands without a controller handle.
    if (op == 0) {
        uint32_t n = 0;
        std::memset(o + kHdr, 0, replyLen);
        for (const Subsystem& s : m_.subsystems()) {
            if (n >= kMaxSubsystems) break;
            uint8_t* e = o + 52 + 40 * n;
            PutText(e, s.uniqueSn, 32);
            StoreBe32(e + 32, s.ctrl[0].handle);
            StoreBe32(e + 36, s.ctrl[1].handle);
            ++n;
        }
        StoreBe32(o + 44, n);
        r.note = std::to_string(n) + " subsystem(s)";
        return;
    }
    if (op == 125) {
        enc_.AdapterRecord(o + rec::kPktHbaInfoList);
        r.note = std::to_string(m_.adapters().size()) + " adapter(s)";
        return;
    }
    if (op == 108) {
        Subsystem* s = m_.FindSubsystem(TextAt(pkt + 44, 32));
        if (!s) return fail(kErrNotFound);
        o[76] = s->needRefreshSeen != s->version ? 1 : 0;
        s->needRefreshSeen = s->version;
        r.note = o[76] ? "changed" : "unchanged";
        return;
    }
    if (op == 11) {
        StoreBe32(o + 44, 5);
        return;
    }

    // Everything else names a controller.
    uint32_t handle = LoadBe32(pkt + (op == 1 ? 36 : op == 71 ? 48 : 44));
    CtrlRef c = m_.FindController(handle);
    char hx[16];
    std::snprintf(hx, sizeof hx, "0x%08x", handle);
    r.note = std::string("handle ") + hx;
    if (!c) {
        Refuse(op, kErrBadHandle, r);
        r.note += ", no such controller";
        return;
    }
    Subsystem& s = *c.sub;
    if (c.c()->offline && op != 1 && op != 109) {
        Refuse(op, kErrControllerDown, r);
        r.note += ", controller offline";
        return;
    }

    switch (op) {
    case 1: {  // the whole controller record, from the cache
        r.bulk = enc_.ControllerData(c);
        r.length = kHdr;
        return;
    }
    case 9: {  // newest event, one by number, or a range
        const uint8_t flagA = pkt[48], flagB = pkt[49];
        std::vector<const EventRecord*> list;
        if (flagB == 1) {
            const EventRecord* e = m_.NewestEvent(c);
            if (e) list.push_back(e);
            r.note += ", newest";
        } else if (flagA == 1) {
            uint32_t n = LoadBe32(pkt + 52);
            list = m_.EventsBetween(c, n, n, 1);
        } else {
            uint32_t first = LoadBe32(pkt + 60), last = LoadBe32(pkt + 64);
            // At most a hundred a reply, as many as the client's list holds.
            list = m_.EventsBetween(c, first, last, kEventsPerReply);
            r.note += ", events " + std::to_string(first) + ".." + std::to_string(last);
        }
        size_t n = list.size();
        size_t size = std::max<size_t>(444, 32 + n * Encoder::EventSize());
        std::memset(o + kHdr, 0, size);
        std::memcpy(o + kHdr, pkt + kHdr, std::min<size_t>(payload, 32));
        StoreBe32(o + 40, 0);
        StoreBe32(o + rec::kPktEventCount, static_cast<uint32_t>(n));
        for (size_t i = 0; i < n; ++i) enc_.EventRecordAt(*list[i], o + rec::kPktEventData + i * Encoder::EventSize());
        r.length = kHdr + size;
        r.note += ", " + std::to_string(n) + " event(s)";
        return;
    }
    case 12:
        return fail(m_.SetPartitionName(c, SerialAt(pkt + 52), TextAt(pkt + 84, 32)));
    case 14: {
        uint64_t blocks = Load64(pkt + 52);
        uint8_t type = pkt[61];
        Serial backing = SerialAt(pkt + 132);
        PartRef p;
        uint32_t e = m_.AddPartition(c, SerialAt(pkt + 68), blocks, TextAt(pkt + 164, 32), type, backing, &p);
        if (e) return fail(e);
        enc_.PartitionRecord(s, *p.vd, *p.p(), o + rec::kPktPartitionData);
        r.note += ", volume " + p.p()->name;
        return;
    }
    case 15:
        return fail(m_.DeletePartition(c, SerialAt(pkt + 52)));
    case 16: {
        CreateArrayArgs a;
        uint32_t n = LoadBe32(pkt + 596);
        if (n == 0 || n > kMaxMembers) return fail(kErrBadRaidConfig);
        for (uint32_t i = 0; i < n; ++i) {
            a.locations.emplace_back(LoadBe32(pkt + 52 + 8 * i), LoadBe32(pkt + 56 + 8 * i));
            a.serials.push_back(TextAt(pkt + 772 + 32 * i, 32));
        }
        a.numSpares = LoadBe32(pkt + 600);
        a.raid = pkt[604];
        a.stripeKiB = LoadBe32(pkt + 612);
        a.drivesPerLeg = LoadBe32(pkt + 616);
        a.name = TextAt(pkt + 632, 32);
        Vdisk* v = nullptr;
        uint32_t e = m_.CreateArray(c, a, &v);
        if (e) return fail(e);
        enc_.ArrayRecord(s, *v, o + rec::kPktArrayData);
        r.note += ", vdisk " + v->name;
        return;
    }
    case 17: {
        ExpandPartRequest q;
        std::memcpy(&q, pkt + rec::kPktExpandPartRequest, sizeof q);
        ConvertExpandPartRequest(0, &q);
        return fail(m_.ExpandPartition(c, SerialAt(q.vdiskSerial), SerialAt(q.partitionSerial), q.newSizeBlocks));
    }
    case 18: {
        uint32_t n = LoadBe32(pkt + 48);
        if (n == 0 || n > kMaxMembers) return fail(kErrBadRequest);
        std::vector<std::pair<uint32_t, uint32_t>> locs;
        for (uint32_t i = 0; i < n; ++i) locs.emplace_back(LoadBe32(pkt + 84 + 8 * i), LoadBe32(pkt + 88 + 8 * i));
        return fail(m_.ExpandArray(c, SerialAt(pkt + 52), locs));
    }
    case 19:
        if (pkt[49] != 1) return fail(kErrBadRequest);  // only global spares are assigned this way
        return fail(m_.AssignSpare(c, TextAt(pkt + 84, 32), pkt[48] != 0));
    case 20:
        return fail(m_.BlinkDrive(c, TextAt(pkt + 52, 32), pkt[48] != 0));
    case 21:
        return fail(m_.FlushCache(c, SerialAt(pkt + 48)));
    case 22:
        return fail(m_.FlushCache(c, SerialAt(pkt + 52)));
    case 23:
        return;
    case 24:
        return fail(m_.DeleteArray(c, SerialAt(pkt + 52)));
    case 27:
        return fail(m_.AbortUtility(c, SerialAt(pkt + 48)));
    case 28: {
        Vdisk* v = m_.FindVdisk(s, SerialAt(pkt + 48));
        if (!v) return fail(kErrNotFound);
        uint32_t pct = m_.PercentOf(*v);
        StoreBe32(o + 80, pct);
        r.note += ", " + std::to_string(pct) + "%";
        return;
    }
    case 29:
        return fail(m_.SetSystemName(c, enc_.SystemNameOf(pkt + 52)));
    case 30:
        return fail(m_.SetPartitionLun(c, SerialAt(pkt + 52), pkt[48]));
    case 50: {
        uint8_t id = pkt[48];
        Controller& ctl = id == 1 ? s.ctrl[0] : id == 0 ? s.ctrl[1] : *c.c();
        Store64(o + 56, ctl.dmsTag);
        return;
    }
    case 51: {
        uint8_t master[16];
        std::memcpy(master, pkt + 64, 16);
        PartRef p;
        uint32_t e = m_.CreateSnapshot(c, TextAt(pkt + 80, 32), Load64(pkt + 56), master, &p);
        if (e) return fail(e);
        // The list of what was made: a count, then the serials.
        StoreBe32(o + 912, 1);
        std::memcpy(o + 912 + 8, p.p()->serial.data(), 32);
        r.note += ", snapshot " + p.p()->name;
        return;
    }
    case 55: {  // backing stores of one controller
        uint8_t id = pkt[48];
        int index = id == 1 ? 0 : id == 0 ? 1 : c.index;
        uint32_t n = 0;
        for (Vdisk* v : m_.VdisksOf(s, index))
            for (const Partition& p : v->parts) {
                if (p.type != 1 || n >= rec::kMaxBackingStores) continue;
                auto* e = reinterpret_cast<BackingStoreEntry*>(o + rec::kPktBackingStoreEntries) + n++;
                std::memcpy(e->id, p.serial.data(), 16);
                std::memcpy(e->vdiskSerial, v->serial.data(), 16);
            }
        StoreBe32(o + rec::kPktBackingStoreCount, n);
        r.note += ", " + std::to_string(n) + " backing store(s)";
        return;
    }
    case 56:
    case 57: {  // master volumes (of a backing store) or snapshots (of a master volume)
        uint8_t selector = pkt[48], id = pkt[49];
        Serial key = SerialAt(pkt + 52);
        bool keyed = key != Serial{};
        bool snaps = op == 57;
        uint32_t limit = snaps ? rec::kMaxSnapshots : rec::kMaxMasterVolumes;
        int index = id == 1 ? 0 : id == 0 ? 1 : c.index;
        uint32_t n = 0;
        for (Vdisk& v : s.vdisks)
            for (const Partition& p : v.parts) {
                if (p.type != (snaps ? 3 : 2) || n >= limit) continue;
                if (selector == 4 || selector == 5) {
                    // By the key: masters using that backing store, snapshots of that master.
                    const Serial& link = snaps ? p.master : p.backingStore;
                    if (keyed && link != key) continue;
                } else if (!s.ulp && (v.owner == 1 ? 0 : 1) != index) {
                    continue;
                }
                auto* e = reinterpret_cast<VolumeEntry*>(o + rec::kPktVolumeListEntries) + n++;
                std::memcpy(e->id, p.serial.data(), 16);
                std::memcpy(e->vdiskSerial, v.serial.data(), 16);
            }
        StoreBe32(o + rec::kPktVolumeListCount, n);
        r.note += ", " + std::to_string(n) + (snaps ? " snapshot(s)" : " master volume(s)");
        return;
    }
    case 61: {
        uint8_t id[16];
        std::memcpy(id, pkt + 188, 16);
        return fail(m_.ConvertMasterVolume(c, pkt[179], SerialAt(pkt + 133), id));
    }
    case 70: {
        PartRef p = m_.FindPartition(s, SerialAt(pkt + 52));
        if (!p) return fail(kErrNotFound);
        enc_.ViewRecord(*p.p(), o + rec::kPktPartitionView);
        return;
    }
    case 71: {  // a table of view entries, the controller named in each
        uint32_t count = LoadBe32(pkt + 44);
        size_t room = (payload - 12) / kCreateViewEntry;
        if (count == 0 || count > kMaxViewEntries || count > room) return fail(kErrBadRequest);
        for (uint32_t i = 0; i < count; ++i) {
            const uint8_t* e = pkt + 48 + kCreateViewEntry * i;
            CtrlRef ec = m_.FindController(LoadBe32(e));
            if (!ec) return fail(kErrBadHandle);
            Model::ViewChange vc;
            vc.part = SerialAt(e + 16);
            vc.removeAll = LoadBe32(e + 12) == 1;
            vc.view.hostType = e[48];
            vc.view.lun = LoadBe16(e + 96);
            vc.view.access = e[100];
            vc.create = e[100] != 0;
            if (vc.view.hostType == 16) {
                std::memcpy(vc.view.wwn, e + 68, 8);
                vc.hasHost = std::any_of(e + 68, e + 76, [](uint8_t b) { return b != 0; });
            } else if (vc.view.hostType == 0x40 || vc.view.hostType == 0x80) {
                std::memcpy(vc.view.address, e + 80, 16);
                vc.hasHost = std::any_of(e + 80, e + 96, [](uint8_t b) { return b != 0; });
            } else {
                vc.view.host = TextAt(e + 108, 224);
                vc.hasHost = !vc.view.host.empty();
            }
            uint32_t err = m_.ChangeView(ec, vc);
            if (err) return fail(err);
        }
        return;
    }
    case 80: {
        uint8_t cache[32];
        std::memcpy(cache, pkt + 84, 32);
        return fail(m_.SetCacheParams(c, SerialAt(pkt + 52), cache));
    }
    case 85:
        return fail(m_.ResetController(c));
    case 92:
        return fail(m_.SetOwner(c, SerialAt(pkt + 48)));
    case 105:
        return fail(m_.RescanBus(c));
    case 109: {
        Bytes u = enc_.UnifiedData(c);
        std::memcpy(o + rec::kPktUnifiedControllerData, u->data(), std::min<size_t>(u->size(), replyLen - 12));
        return;
    }
    case 113: {
        const ChapRecord* found = m_.FindSecret(s, TextAt(pkt + 52, 224));
        if (!found) return fail(kErrNotFound);
        PutText(o + 52, found->name, 224);
        PutText(o + 284, found->secondName, 224);
        PutText(o + 508, found->secret, 17);
        PutText(o + 525, found->secondText, 224);
        PutText(o + 749, found->thirdText, 224);
        return;
    }
    case 115:
    case 116:
    case 117:
    case 118: {
        ChapRecord rec{TextAt(pkt + 52, 224), TextAt(pkt + 284, 224), TextAt(pkt + 508, 17), TextAt(pkt + 525, 224),
                       TextAt(pkt + 749, 224)};
        return fail(m_.SetSecret(c, op, rec));
    }
    case 119:
        enc_.KnownHostsRecord(s, o + rec::kPktKnownHostList);
        return;
    default:
        Refuse(op, kErrUnknownCommand, r);
        return;
    }
}

}  // namespace trovsim
