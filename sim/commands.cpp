#include "sim/commands.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <tuple>

#include "proxy/records.h"
#include "proxy/requests.h"
#include "proxy/wire.h"
#include "sim/encode.h"

namespace trovsim {

using wire::LoadBe32;
using wire::StoreBe32;

namespace {

// A packet's layout laid over its bytes (every layout has alignment 1).
template <class P>
const P& In(const uint8_t* pkt) {
    return *reinterpret_cast<const P*>(pkt);
}
template <class P>
P& Out(uint8_t* pkt) {
    return *reinterpret_cast<P*>(pkt);
}

template <size_t N>
Serial SerialAt(const uint8_t (&field)[N]) {
    static_assert(N == std::tuple_size<Serial>::value);
    Serial s;
    std::memcpy(s.data(), field, s.size());
    return s;
}

std::string TextAt(const uint8_t* p, size_t width) {
    size_t n = 0;
    while (n < width && p[n]) ++n;
    return std::string(reinterpret_cast<const char*>(p), n);
}
template <size_t N>
std::string TextAt(const uint8_t (&field)[N]) {
    return TextAt(field, N);
}

void PutText(uint8_t* p, const std::string& s, size_t width) {
    std::memset(p, 0, width);
    std::memcpy(p, s.data(), std::min(s.size(), width - 1));
}
template <size_t N>
void PutText(uint8_t (&field)[N], const std::string& s) {
    PutText(field, s, N);
}

constexpr size_t kHdr = wire::kHeaderSize;
// The reply of a command that hands nothing back but its result: the opening up to error_code.
constexpr uint32_t kOpeningOnly = static_cast<uint32_t>(wire::kBodyOffset - kHdr);
constexpr size_t kEventsPerReply = 100;

}  // namespace

const char* Commands::OpName(uint32_t op) {
    const CommandDef* d = cmd::ByOpcode(op);
    return d ? d->opName : "UNKNOWN";
}

uint32_t Commands::RequestLength(uint32_t op) {
    const CommandDef* d = cmd::ByOpcode(op);
    return d ? d->dataLen : 0;
}

uint32_t Commands::ReplyLength(uint32_t op) {
    const CommandDef* d = cmd::ByOpcode(op);
    if (!d) return kOpeningOnly;
    if (op == cmd::kGetControllerData.opcode) return static_cast<uint32_t>(Encoder::ControllerDataSize());
    // The version and the view table give back only their result.
    if (op == cmd::kGetVersion.opcode || op == cmd::kCreateCustomView.opcode) return kOpeningOnly;
    return d->dataLen;
}

void Commands::Refuse(uint32_t op, uint32_t error, CommandReply& r) {
    uint8_t* o = r.out->data();
    uint32_t len = ReplyLength(op);
    std::memset(o + kHdr, 0, len);
    // The subsystem list carries its error word at the start of the payload.
    StoreBe32(o + (op == cmd::kGetSubsystems.opcode ? offsetof(req::GetSubsystems, errorWord)
                                                     : wire::kErrorCodeOffset),
              error);
    r.length = kHdr + len;
    r.bulk.reset();
    r.error = error;
}

void Commands::Handle(const uint8_t* pkt, uint32_t len, CommandReply& r) {
    const uint32_t op = wire::OpCodeOf(pkt);
    const uint32_t payload = len - static_cast<uint32_t>(kHdr);
    uint8_t* o = r.out->data();
    const CommandDef* def = cmd::ByOpcode(op);
    if (!def) {
        Refuse(op, kErrUnknownCommand, r);
        r.note = "unknown opcode";
        return;
    }
    // Fields are read where the catalogue puts them: a request too short to hold them is refused.
    uint32_t need = def->dataLen;
    if (op == cmd::kCreateCustomView.opcode)  // one entry at least
        need = static_cast<uint32_t>(offsetof(req::CreateCustomView, entries) + sizeof(req::ViewEntry) - kHdr);
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
        StoreBe32(o + wire::kErrorCodeOffset, e);
    };

    // Commands without a controller handle.
    switch (op) {
    case cmd::kGetSubsystems.opcode: {
        auto& a = Out<req::GetSubsystems>(o);
        uint32_t n = 0;
        std::memset(o + kHdr, 0, replyLen);
        for (const Subsystem& s : m_.subsystems()) {
            if (n >= kMaxSubsystems || n >= std::size(a.entries)) break;
            uint8_t* e = a.entries[n];
            PutText(e + offsetof(SubsystemEntry, UniqueSN), s.uniqueSn, sizeof(SubsystemEntry::UniqueSN));
            StoreBe32(e + offsetof(SubsystemEntry, controllerA), s.ctrl[0].handle);
            StoreBe32(e + offsetof(SubsystemEntry, controllerB), s.ctrl[1].handle);
            ++n;
        }
        a.count = n;
        r.note = std::to_string(n) + " subsystem(s)";
        return;
    }
    case cmd::kGetHbaInfo.opcode:
        enc_.AdapterRecord(Out<req::GetHbaInfoList>(o).hbaInfo);
        r.note = std::to_string(m_.adapters().size()) + " adapter(s)";
        return;
    case cmd::kGetNeedRefresh.opcode: {
        Subsystem* s = m_.FindSubsystem(TextAt(In<req::GetNeedRefresh>(pkt).uniqueSN));
        if (!s) return fail(kErrNotFound);
        uint8_t& answer = Out<req::GetNeedRefresh>(o).answer;
        answer = s->needRefreshSeen != s->version ? 1 : 0;
        s->needRefreshSeen = s->version;
        r.note = answer ? "changed" : "unchanged";
        return;
    }
    case cmd::kGetVersion.opcode:
        // The word behind error_code: the service's version.
        StoreBe32(o + wire::kHandleOffset, 5);
        return;
    default:
        break;
    }

    // Everything else names a controller, where the command's layout puts its handle.
    uint32_t handle = LoadBe32(pkt + def->handleAt);
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
    if (c.c()->offline && op != cmd::kGetControllerData.opcode && op != cmd::kGetUnified.opcode) {
        Refuse(op, kErrControllerDown, r);
        r.note += ", controller offline";
        return;
    }

    switch (op) {
    case cmd::kGetControllerData.opcode: {  // the whole controller record, from the cache
        r.bulk = enc_.ControllerData(c);
        r.length = kHdr;
        return;
    }
    case cmd::kGetEvent.opcode: {  // newest event, one by number, or a range
        const auto& q = In<req::GetEvent>(pkt);
        std::vector<const EventRecord*> list;
        if (q.flagB == 1) {
            const EventRecord* e = m_.NewestEvent(c);
            if (e) list.push_back(e);
            r.note += ", newest";
        } else if (q.flagA == 1) {
            uint32_t n = q.number;
            list = m_.EventsBetween(c, n, n, 1);
        } else {
            uint32_t first = q.firstEventNum, last = q.lastEventNum;
            // At most a hundred a reply, as many as the client's list holds.
            list = m_.EventsBetween(c, first, last, kEventsPerReply);
            r.note += ", events " + std::to_string(first) + ".." + std::to_string(last);
        }
        constexpr size_t kFirst = offsetof(req::GetEvent, event);
        size_t n = list.size();
        size_t size = std::max<size_t>(def->dataLen, kFirst - kHdr + n * Encoder::EventSize());
        std::memset(o + kHdr, 0, size);
        std::memcpy(o + kHdr, pkt + kHdr, std::min<size_t>(payload, kFirst - kHdr));
        auto& a = Out<req::GetEvent>(o);
        a.head.errorCode = 0;
        a.count = static_cast<uint32_t>(n);
        // The records run on behind the request's layout.
        for (size_t i = 0; i < n; ++i) enc_.EventRecordAt(*list[i], o + kFirst + i * Encoder::EventSize());
        r.length = kHdr + size;
        r.note += ", " + std::to_string(n) + " event(s)";
        return;
    }
    case cmd::kSetPartName.opcode: {
        const auto& q = In<req::SetPartName>(pkt);
        return fail(m_.SetPartitionName(c, SerialAt(q.partSerial), TextAt(q.name)));
    }
    case cmd::kAddArrayPart.opcode: {
        const auto& q = In<req::AddArrayPart>(pkt);
        PartRef p;
        uint32_t e = m_.AddPartition(c, SerialAt(q.arraySerial), q.sizeBlocks, TextAt(q.name), q.partitionType,
                                     SerialAt(q.backingStoreId), &p);
        if (e) return fail(e);
        enc_.PartitionRecord(s, *p.vd, *p.p(), Out<req::AddArrayPart>(o).partitionData);
        r.note += ", volume " + p.p()->name;
        return;
    }
    case cmd::kDeletePart.opcode:
        return fail(m_.DeletePartition(c, SerialAt(In<req::HandleAndSerial52>(pkt).serial)));
    case cmd::kCreateArray.opcode: {
        const auto& q = In<req::CreateArray>(pkt);
        CreateArrayArgs a;
        uint32_t n = q.count;
        if (n == 0 || n > kMaxMembers || n > req::kMaxMembers) return fail(kErrBadRaidConfig);
        for (uint32_t i = 0; i < n; ++i) {
            a.locations.emplace_back(q.locations[i].channelIndex, q.locations[i].driveIndex);
            a.serials.push_back(TextAt(q.serials[i]));
        }
        a.numSpares = q.numSpares;
        a.raid = q.raidLevel;
        a.stripeKiB = q.stripeKiB;
        a.drivesPerLeg = q.drivesPerLeg;
        a.name = TextAt(q.name);
        Vdisk* v = nullptr;
        uint32_t e = m_.CreateArray(c, a, &v);
        if (e) return fail(e);
        enc_.ArrayRecord(s, *v, Out<req::CreateArray>(o).arrayData);
        r.note += ", vdisk " + v->name;
        return;
    }
    case cmd::kExpandPart.opcode: {
        ExpandPartRequest q;
        std::memcpy(&q, In<req::ExpandPart>(pkt).request, sizeof q);
        ConvertExpandPartRequest(0, &q);
        return fail(m_.ExpandPartition(c, SerialAt(q.vdiskSerial), SerialAt(q.partitionSerial), q.newSizeBlocks));
    }
    case cmd::kExpandArray.opcode: {
        const auto& q = In<req::ExpandArray>(pkt);
        uint32_t n = q.count;
        if (n == 0 || n > kMaxMembers || n > req::kMaxMembers) return fail(kErrBadRequest);
        std::vector<std::pair<uint32_t, uint32_t>> locs;
        for (uint32_t i = 0; i < n; ++i) locs.emplace_back(q.locations[i].channelIndex, q.locations[i].driveIndex);
        return fail(m_.ExpandArray(c, SerialAt(q.arraySerial), locs));
    }
    case cmd::kAssignSpare.opcode: {
        const auto& q = In<req::AssignSpare>(pkt);
        if (q.global != 1) return fail(kErrBadRequest);  // only global spares are assigned this way
        return fail(m_.AssignSpare(c, TextAt(q.driveSerial), q.on != 0));
    }
    case cmd::kBlinkDrive.opcode: {
        const auto& q = In<req::BlinkDrive>(pkt);
        return fail(m_.BlinkDrive(c, TextAt(q.driveSerial), q.on != 0));
    }
    case cmd::kFlushCache.opcode:
        return fail(m_.FlushCache(c, SerialAt(In<req::HandleAndSerial48>(pkt).serial)));
    case cmd::kFreeCache.opcode:
        return fail(m_.FlushCache(c, SerialAt(In<req::HandleAndSerial52>(pkt).serial)));
    case cmd::kSilenceAlarm.opcode:
        return;
    case cmd::kDeleteArray.opcode:
        return fail(m_.DeleteArray(c, SerialAt(In<req::HandleAndSerial52>(pkt).serial)));
    case cmd::kAbortUtility.opcode:
        return fail(m_.AbortUtility(c, SerialAt(In<req::HandleAndSerial48>(pkt).serial)));
    case cmd::kGetPercent.opcode: {
        Vdisk* v = m_.FindVdisk(s, SerialAt(In<req::GetPercent>(pkt).arraySerial));
        if (!v) return fail(kErrNotFound);
        uint32_t pct = m_.PercentOf(*v);
        Out<req::GetPercent>(o).percent = pct;
        r.note += ", " + std::to_string(pct) + "%";
        return;
    }
    case cmd::kSetAdvNet.opcode:
        return fail(m_.SetSystemName(c, enc_.SystemNameOf(In<req::SetAdvNet>(pkt).advNet)));
    case cmd::kSetPartLun.opcode: {
        const auto& q = In<req::SetPartLun>(pkt);
        return fail(m_.SetPartitionLun(c, SerialAt(q.partSerial), q.lun));
    }
    case cmd::kGetDmsTag.opcode: {
        uint8_t id = In<req::GetDmsTag>(pkt).controllerId;
        Controller& ctl = id == 1 ? s.ctrl[0] : id == 0 ? s.ctrl[1] : *c.c();
        Out<req::GetDmsTag>(o).tag = ctl.dmsTag;
        return;
    }
    case cmd::kCreateSnapshot.opcode: {
        const auto& q = In<req::CreateSnapshot>(pkt);
        uint8_t master[16];
        std::memcpy(master, q.masterId, sizeof master);
        PartRef p;
        uint32_t e = m_.CreateSnapshot(c, TextAt(q.name), q.tag, master, &p);
        if (e) return fail(e);
        // The list of what was made: a count, then the serials.
        uint8_t* made = Out<req::CreateSnapshot>(o).result;
        StoreBe32(made + offsetof(SnapshotResult, numElements), 1);
        std::memcpy(made + offsetof(SnapshotResult, serials), p.p()->serial.data(), 32);
        r.note += ", snapshot " + p.p()->name;
        return;
    }
    case cmd::kGetBackingStores.opcode: {  // backing stores of one controller
        uint8_t id = In<req::GetBackingStoreList>(pkt).controllerId;
        auto& a = Out<req::GetBackingStoreList>(o);
        int index = id == 1 ? 0 : id == 0 ? 1 : c.index;
        uint32_t n = 0;
        for (Vdisk* v : m_.VdisksOf(s, index))
            for (const Partition& p : v->parts) {
                if (p.type != 1 || n >= std::size(a.entries)) continue;
                auto* e = reinterpret_cast<BackingStoreEntry*>(a.entries[n++]);
                std::memcpy(e->id, p.serial.data(), 16);
                std::memcpy(e->vdiskSerial, v->serial.data(), 16);
            }
        a.count = n;
        r.note += ", " + std::to_string(n) + " backing store(s)";
        return;
    }
    case cmd::kGetMasterVolumes.opcode:
        return VolumeList<req::GetMasterVolumeList>(c, pkt, o, false, r);
    case cmd::kGetSnapshots.opcode:
        return VolumeList<req::GetSnapshotList>(c, pkt, o, true, r);
    case cmd::kConvertMaster.opcode: {
        const auto& q = In<req::ConvertMasterVolume>(pkt);
        uint8_t id[16];
        std::memcpy(id, q.id, sizeof id);
        return fail(m_.ConvertMasterVolume(c, q.subcommand, SerialAt(q.serial), id));
    }
    case cmd::kGetPartView.opcode: {
        PartRef p = m_.FindPartition(s, SerialAt(In<req::GetPartView>(pkt).partSerial));
        if (!p) return fail(kErrNotFound);
        enc_.ViewRecord(*p.p(), Out<req::GetPartView>(o).partitionView);
        return;
    }
    case cmd::kCreateCustomView.opcode: {  // a table of view entries, the controller named in each
        const auto& q = In<req::CreateCustomView>(pkt);
        uint32_t count = q.count;
        size_t room = (payload - (offsetof(req::CreateCustomView, entries) - kHdr)) / sizeof(req::ViewEntry);
        if (count == 0 || count > req::kMaxViewEntries || count > room) return fail(kErrBadRequest);
        for (uint32_t i = 0; i < count; ++i) {
            const req::ViewEntry& e = q.entries[i];
            CtrlRef ec = m_.FindController(e.handle);
            if (!ec) return fail(kErrBadHandle);
            Model::ViewChange vc;
            vc.part = SerialAt(e.partSerial);
            vc.removeAll = e.removeAll == 1;
            vc.view.hostType = e.hostType;
            vc.view.lun = e.lun16;
            vc.view.access = e.access[0];
            vc.create = e.access[0] != 0;
            auto any = [](const auto& field) {
                return std::any_of(std::begin(field), std::end(field), [](uint8_t b) { return b != 0; });
            };
            if (vc.view.hostType == 16) {
                std::memcpy(vc.view.wwn, e.wwn, sizeof e.wwn);
                vc.hasHost = any(e.wwn);
            } else if (vc.view.hostType == 0x40 || vc.view.hostType == 0x80) {
                std::memcpy(vc.view.address, e.address, sizeof e.address);
                vc.hasHost = any(e.address);
            } else {
                vc.view.host = TextAt(e.hostName);
                vc.hasHost = !vc.view.host.empty();
            }
            uint32_t err = m_.ChangeView(ec, vc);
            if (err) return fail(err);
        }
        return;
    }
    case cmd::kCacheParams.opcode: {
        const auto& q = In<req::SetCacheParams>(pkt);
        uint8_t cache[sizeof q.cacheParams];
        std::memcpy(cache, q.cacheParams, sizeof cache);
        return fail(m_.SetCacheParams(c, SerialAt(q.partSerial), cache));
    }
    case cmd::kResetController.opcode:
        return fail(m_.ResetController(c));
    case cmd::kSetOwner.opcode:
        return fail(m_.SetOwner(c, SerialAt(In<req::SetOwner>(pkt).arraySerial)));
    case cmd::kRescanBus.opcode:
        return fail(m_.RescanBus(c));
    case cmd::kGetUnified.opcode: {
        Bytes u = enc_.UnifiedData(c);
        auto& a = Out<req::GetUnifiedControllerData>(o);
        std::memcpy(a.unified, u->data(), std::min<size_t>(u->size(), sizeof a.unified));
        return;
    }
    case cmd::kGetAuthRecord.opcode: {
        const ChapRecord* found = m_.FindSecret(s, TextAt(In<req::AuthRecord>(pkt).firstName));
        if (!found) return fail(kErrNotFound);
        auto& a = Out<req::AuthRecord>(o);
        PutText(a.firstName, found->name);
        PutText(a.secondName, found->secondName);
        PutText(a.secret, found->secret);
        PutText(a.secondText, found->secondText);
        PutText(a.thirdText, found->thirdText);
        return;
    }
    case cmd::kSetTargetSecret.opcode:
    case cmd::kClearTargetSecrets.opcode:
    case cmd::kSetNamedTargetSecret.opcode:
    case cmd::kRememberInitiator.opcode: {
        const auto& q = In<req::AuthRecord>(pkt);
        ChapRecord rec{TextAt(q.firstName), TextAt(q.secondName), TextAt(q.secret), TextAt(q.secondText),
                       TextAt(q.thirdText)};
        return fail(m_.SetSecret(c, op, rec));
    }
    case cmd::kGetKnownHosts.opcode:
        enc_.KnownHostsRecord(s, Out<req::GetKnownHosts>(o).knownHosts);
        return;
    default:
        Refuse(op, kErrUnknownCommand, r);
        return;
    }
}

// The master volume (of a backing store) or snapshot (of a master volume) list.
template <class P>
void Commands::VolumeList(CtrlRef c, const uint8_t* pkt, uint8_t* o, bool snaps, CommandReply& r) {
    const auto& q = In<P>(pkt);
    auto& a = Out<P>(o);
    Subsystem& s = *c.sub;
    uint8_t selector = q.byteA, id = q.byteB;
    Serial key = SerialAt(q.key);
    bool keyed = key != Serial{};
    int index = id == 1 ? 0 : id == 0 ? 1 : c.index;
    uint32_t n = 0;
    for (Vdisk& v : s.vdisks)
        for (const Partition& p : v.parts) {
            if (p.type != (snaps ? 3 : 2) || n >= std::size(a.entries)) continue;
            if (selector == 4 || selector == 5) {
                // By the key: masters using that backing store, snapshots of that master.
                const Serial& link = snaps ? p.master : p.backingStore;
                if (keyed && link != key) continue;
            } else if (!s.ulp && (v.owner == 1 ? 0 : 1) != index) {
                continue;
            }
            auto* e = reinterpret_cast<VolumeEntry*>(a.entries[n++]);
            std::memcpy(e->id, p.serial.data(), 16);
            std::memcpy(e->vdiskSerial, v.serial.data(), 16);
        }
    a.count = n;
    r.note += ", " + std::to_string(n) + (snaps ? " snapshot(s)" : " master volume(s)");
}

}  // namespace trovsim
