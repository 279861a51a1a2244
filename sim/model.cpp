#include "sim/model.h"

#include <algorithm>
#include <cstring>

namespace trovsim {

namespace {

int IndexOfOwner(uint8_t owner) { return owner == 1 ? 0 : 1; }
uint8_t OwnerOfIndex(int index) { return index == 0 ? 1 : 0; }

std::string Key(const Serial& s) { return std::string(reinterpret_cast<const char*>(s.data()), s.size()); }

bool IsZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Text helpers

std::string SerialHex(const Serial& s, size_t bytes) {
    static const char* kDigits = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < bytes && i < s.size(); ++i) {
        out.push_back(kDigits[s[i] >> 4]);
        out.push_back(kDigits[s[i] & 15]);
    }
    return out;
}

bool ParseHex(const std::string& text, uint8_t* out, size_t bytes) {
    std::string digits;
    for (char ch : text)
        if (ch != ':' && ch != '-' && ch != ' ') digits.push_back(ch);
    if (digits.size() != bytes * 2) return false;
    for (size_t i = 0; i < bytes; ++i) {
        unsigned v = 0;
        for (int k = 0; k < 2; ++k) {
            char ch = digits[i * 2 + static_cast<size_t>(k)];
            v <<= 4;
            if (ch >= '0' && ch <= '9') v |= static_cast<unsigned>(ch - '0');
            else if (ch >= 'a' && ch <= 'f') v |= static_cast<unsigned>(ch - 'a' + 10);
            else if (ch >= 'A' && ch <= 'F') v |= static_cast<unsigned>(ch - 'A' + 10);
            else return false;
        }
        out[i] = static_cast<uint8_t>(v);
    }
    return true;
}

Serial SerialFromText(const std::string& text) {
    Serial s{};
    std::memcpy(s.data(), text.data(), std::min(text.size(), s.size()));
    return s;
}

std::string SerialText(const Serial& s) {
    size_t n = 0;
    while (n < s.size() && s[n] != 0) ++n;
    return std::string(reinterpret_cast<const char*>(s.data()), n);
}

uint32_t Partition::LunNumber() const {
    if (defaultLun >= 0) return static_cast<uint32_t>(defaultLun);
    if (!views.empty()) return views.front().lun;
    return 0xFFFFFFFFu;
}

// ---------------------------------------------------------------------------------------------
// Rules

uint64_t Model::UsableBlocks(const Subsystem& s, const Drive& d) const {
    // The same reckoning as the provider's drive size: overhead in steps of ten per mille, aligned
    // down to 64 KiB, 16 MiB held back.
    uint64_t raw = d.blocks * 512;
    uint64_t bytes = raw * ((100 - s.overheadPerMille / 10) * 10) / 1000;
    bytes &= ~uint64_t(0xFFFF);
    if (bytes <= 0x1000000) return 0;
    return (bytes - 0x1000000) / 512;
}

uint64_t Model::CapacityFor(uint8_t raid, uint32_t n, uint32_t dpl, uint64_t u) {
    uint64_t blocks = 0;
    switch (raid) {
    case kRaid0:
    case kNRaid: blocks = uint64_t(n) * u; break;
    case kRaid1: blocks = n >= 2 ? u : 0; break;
    case kRaid10: blocks = uint64_t(n / 2) * u; break;
    case kRaid2:
    case kRaid3:
    case kRaid4:
    case kRaid5: blocks = n >= 2 ? uint64_t(n - 1) * u : 0; break;
    case kRaid6: blocks = n >= 3 ? uint64_t(n - 2) * u : 0; break;
    case kRaid30:
    case kRaid50: blocks = dpl >= 2 ? uint64_t(n / dpl) * (dpl - 1) * u : 0; break;
    case kRaid51: blocks = n >= 4 ? uint64_t(n / 2 - 1) * u : 0; break;
    default: blocks = 0;
    }
    return blocks / kMiBBlocks * kMiBBlocks;  // whole MiB
}

FreeSpace Model::FreeOf(const Vdisk& v) {
    std::vector<std::pair<uint64_t, uint64_t>> used;
    for (const Partition& p : v.parts)
        if (p.TakesSpace()) used.emplace_back(p.start, p.blocks);
    std::sort(used.begin(), used.end());
    FreeSpace f;
    uint64_t at = 0;
    auto gap = [&](uint64_t from, uint64_t to) {
        if (to > from) {
            f.list.emplace_back(from, to - from);
            f.total += to - from;
            f.largest = std::max(f.largest, to - from);
            ++f.segments;
        }
    };
    for (auto& [start, blocks] : used) {
        gap(at, std::min(start, v.capacity));
        at = std::max(at, start + blocks);
    }
    gap(at, v.capacity);
    return f;
}

std::array<uint8_t, 7> Model::ArrayKey(const Serial& s) { return {s[3], s[4], s[5], s[8], s[9], s[10], s[11]}; }

Serial Model::VdiskSerial(const Subsystem& s, uint32_t id) {
    Serial out{};
    out[0] = 0x00, out[1] = 0xC0, out[2] = 0xFF;
    out[3] = s.prefix[0], out[4] = s.prefix[1], out[5] = s.prefix[2];
    out[6] = 0x56;  // 'V'
    out[8] = static_cast<uint8_t>(id >> 24), out[9] = static_cast<uint8_t>(id >> 16);
    out[10] = static_cast<uint8_t>(id >> 8), out[11] = static_cast<uint8_t>(id);
    out[12] = 0xA0;
    return out;
}

Serial Model::PartitionSerial(const Subsystem& s, uint32_t id) {
    Serial out = VdiskSerial(s, id);
    out[6] = 0x50;  // 'P'
    out[12] = 0xB0;
    return out;
}

uint32_t Model::PercentOf(const Vdisk& v) const {
    if (v.utility == kUtilNone || v.utilityDuration == 0) return 100;
    uint64_t done = now_ > v.utilityStart ? now_ - v.utilityStart : 0;
    if (done >= v.utilityDuration) return 100;
    return static_cast<uint32_t>(done * 100 / v.utilityDuration);
}

// ---------------------------------------------------------------------------------------------
// Lookups

CtrlRef Model::FindController(uint32_t handle) {
    if (handle == 0) return {};
    for (Subsystem& s : subs_)
        for (int i = 0; i < 2; ++i)
            if (s.ctrl[i].handle == handle) return CtrlRef{&s, i};
    return {};
}

Subsystem* Model::FindSubsystem(const std::string& uniqueSn) {
    for (Subsystem& s : subs_)
        if (s.uniqueSn == uniqueSn) return &s;
    return nullptr;
}

Drive* Model::FindDrive(Subsystem& s, const std::string& serial) {
    if (serial.empty()) return nullptr;
    for (Drive& d : s.drives)
        if (d.serial == serial) return &d;
    return nullptr;
}

Drive* Model::FindDriveAt(Subsystem& s, uint32_t channel, uint32_t scsiId) {
    for (Drive& d : s.drives)
        if (d.channel == channel && d.scsiId == scsiId && !d.offline) return &d;
    return nullptr;
}

Vdisk* Model::FindVdisk(Subsystem& s, const Serial& serial) {
    for (Vdisk& v : s.vdisks)
        if (v.serial == serial) return &v;
    return nullptr;
}

Vdisk* Model::FindVdiskById(Subsystem& s, uint32_t id) {
    for (Vdisk& v : s.vdisks)
        if (v.id == id) return &v;
    return nullptr;
}

void Model::IndexPartitions(Subsystem& s) {
    size_t at = static_cast<size_t>(&s - subs_.data());
    if (partIndex_.size() < subs_.size()) partIndex_.resize(subs_.size());
    PartIndex& ix = partIndex_[at];
    if (ix.version == s.version && !ix.bySerial.empty()) return;
    ix.bySerial.clear();
    for (uint32_t vi = 0; vi < s.vdisks.size(); ++vi)
        for (uint32_t pi = 0; pi < s.vdisks[vi].parts.size(); ++pi)
            ix.bySerial.emplace(Key(s.vdisks[vi].parts[pi].serial), std::make_pair(vi, pi));
    ix.version = s.version;
}

PartRef Model::FindPartition(Subsystem& s, const Serial& serial) {
    IndexPartitions(s);
    PartIndex& ix = partIndex_[static_cast<size_t>(&s - subs_.data())];
    auto it = ix.bySerial.find(Key(serial));
    if (it != ix.bySerial.end()) {
        auto [vi, pi] = it->second;
        if (vi < s.vdisks.size() && pi < s.vdisks[vi].parts.size() && s.vdisks[vi].parts[pi].serial == serial)
            return PartRef{&s.vdisks[vi], static_cast<int>(pi)};
    }
    // A change within the present operation isn't indexed yet: look the slow way.
    for (Vdisk& v : s.vdisks)
        for (size_t pi = 0; pi < v.parts.size(); ++pi)
            if (v.parts[pi].serial == serial) return PartRef{&v, static_cast<int>(pi)};
    return {};
}

PartRef Model::FindPartitionById(Subsystem& s, const uint8_t id[16]) {
    for (Vdisk& v : s.vdisks)
        for (size_t pi = 0; pi < v.parts.size(); ++pi)
            if (std::memcmp(v.parts[pi].serial.data(), id, 16) == 0) return PartRef{&v, static_cast<int>(pi)};
    return {};
}

std::vector<Vdisk*> Model::VdisksOf(Subsystem& s, int ctrlIndex) {
    std::vector<Vdisk*> out;
    for (Vdisk& v : s.vdisks)
        if (IndexOfOwner(v.owner) == ctrlIndex) out.push_back(&v);
    return out;
}

uint32_t Model::PartitionCountOf(Subsystem& s, int ctrlIndex) {
    uint32_t n = 0;
    for (Vdisk& v : s.vdisks)
        if (IndexOfOwner(v.owner) == ctrlIndex) n += static_cast<uint32_t>(v.parts.size());
    return n;
}

int Model::OwnerIndex(const Subsystem&, const Vdisk& v) const { return IndexOfOwner(v.owner); }

bool Model::ControllerServes(CtrlRef c, const Vdisk& v) const {
    return c.sub->ulp || IndexOfOwner(v.owner) == c.index;
}

// ---------------------------------------------------------------------------------------------
// Events and versions

void Model::Touch(Subsystem& s) {
    ++s.version;
    ++changes_;
}

void Model::Log(Subsystem& s, int ctrlIndex, uint32_t code, uint32_t param, const std::string& description,
                const Serial* drive, const Serial* part, uint32_t aboutHandle) {
    // A controller that is down keeps no log; its partner records what happens meanwhile.
    if (s.ctrl[ctrlIndex].offline && !s.ctrl[1 - ctrlIndex].offline) ctrlIndex = 1 - ctrlIndex;
    Controller& c = s.ctrl[ctrlIndex];
    EventRecord e;
    e.sequence = c.nextEvent++;
    e.code = code;
    e.controllerHandle = aboutHandle ? aboutHandle : c.handle;
    e.param = param;
    if (drive) e.driveSerial = *drive;
    if (part) e.partitionSerial = *part;
    e.owner = c.id;
    e.description = description.substr(0, 255);
    c.log.push_back(std::move(e));
    while (c.log.size() > kEventLogCapacity) c.log.pop_front();
    ++changes_;
}

void Model::RaiseEvent(CtrlRef c, uint32_t code, uint32_t param, const Serial* drive, const Serial* part,
                       const std::string& description) {
    Log(*c.sub, c.index, code, param, description.empty() ? "Event raised by hand" : description, drive, part);
}

const EventRecord* Model::NewestEvent(CtrlRef c) const {
    const Controller& ctl = c.sub->ctrl[c.index];
    return ctl.log.empty() ? nullptr : &ctl.log.back();
}

std::vector<const EventRecord*> Model::EventsBetween(CtrlRef c, uint32_t first, uint32_t last, size_t max) const {
    std::vector<const EventRecord*> out;
    const Controller& ctl = c.sub->ctrl[c.index];
    if (first > last || ctl.log.empty()) return out;
    uint32_t oldest = ctl.log.front().sequence;
    uint32_t from = std::max(first, oldest);
    for (uint32_t n = from; n <= last && out.size() < max; ++n) {
        size_t at = n - oldest;
        if (at >= ctl.log.size()) break;
        out.push_back(&ctl.log[at]);
        if (n == 0xFFFFFFFFu) break;
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// Time and utilities

void Model::BeginUtility(Vdisk& v, uint8_t utility) {
    v.utility = utility;
    v.utilityStart = now_;
    switch (utility) {
    case kUtilExpansion: v.utilityDuration = timing_.expansionMs; break;
    case kUtilRebuild: v.utilityDuration = timing_.rebuildMs; break;
    case kUtilVerify: v.utilityDuration = timing_.verifyMs; break;
    default: v.utilityDuration = timing_.mediaScanMs; break;
    }
    if (v.utilityDuration == 0) v.utilityDuration = 1;
}

void Model::AdvanceTo(uint64_t nowMs) {
    if (nowMs > now_) now_ = nowMs;
    for (Subsystem& s : subs_)
        for (size_t i = 0; i < s.vdisks.size(); ++i) {
            Vdisk& v = s.vdisks[i];
            if (v.utility != kUtilNone && now_ - v.utilityStart >= v.utilityDuration) FinishUtility(s, v);
        }
}

void Model::RecomputeCapacity(Subsystem& s, Vdisk& v) {
    uint64_t smallest = 0;
    for (const std::string& m : v.members) {
        Drive* d = FindDrive(s, m);
        if (!d) continue;
        uint64_t u = UsableBlocks(s, *d);
        if (smallest == 0 || u < smallest) smallest = u;
    }
    if (v.memberBlocks == 0 || (smallest != 0 && smallest < v.memberBlocks)) v.memberBlocks = smallest;
    v.capacity = CapacityFor(v.raid, static_cast<uint32_t>(v.members.size()), v.drivesPerLeg, v.memberBlocks);
}

void Model::FinishUtility(Subsystem& s, Vdisk& v) {
    int owner = OwnerIndex(s, v);
    uint8_t kind = v.utility;
    v.utility = kUtilNone;
    v.utilityDuration = 0;
    switch (kind) {
    case kUtilExpansion: {
        v.expanding.clear();
        RecomputeCapacity(s, v);
        Log(s, owner, kEvExpansionDone, 0, "Vdisk " + v.name + " expansion complete", nullptr, &v.serial);
        break;
    }
    case kUtilRebuild: {
        std::string rebuilt = v.rebuilding;
        v.rebuilding.clear();
        Drive* d = FindDrive(s, rebuilt);
        if (d) d->useState = 0;
        Log(s, owner, kEvRebuildDone, 0, "Vdisk " + v.name + " reconstruction complete", nullptr, &v.serial);
        RecomputeHealth(s, v, true);
        TryStartRebuild(s, v);
        break;
    }
    default:
        Log(s, owner, kEvVerifyDone, 0, "Vdisk " + v.name + " verify complete", nullptr, &v.serial);
        break;
    }
    Touch(s);
}

void Model::RecomputeHealth(Subsystem& s, Vdisk& v, bool logChange) {
    auto missing = [&](size_t i) {
        const std::string& m = v.members[i];
        if (m.empty() || m == v.rebuilding) return true;
        Drive* d = FindDrive(s, m);
        return d == nullptr || d->offline;
    };
    size_t n = v.members.size();
    uint32_t lost = 0;
    for (size_t i = 0; i < n; ++i) lost += missing(i) ? 1 : 0;
    uint8_t health = 0;
    if (lost > 0) {
        switch (v.raid) {
        case kRaid0:
        case kNRaid: health = 3; break;
        case kRaid1:
        case kRaid10:
        case kRaid51:
            health = 1;
            for (size_t i = 0; i + 1 < n; i += 2)
                if (missing(i) && missing(i + 1)) health = 3;
            break;
        case kRaid6: health = lost == 1 ? 2 : lost == 2 ? 1 : 3; break;
        case kRaid30:
        case kRaid50: {
            health = 1;
            uint32_t dpl = v.drivesPerLeg ? v.drivesPerLeg : static_cast<uint32_t>(n);
            for (size_t leg = 0; leg * dpl < n; ++leg) {
                uint32_t inLeg = 0;
                for (size_t i = leg * dpl; i < std::min(n, (leg + 1) * dpl); ++i) inLeg += missing(i) ? 1 : 0;
                if (inLeg > 1) health = 3;
            }
            break;
        }
        default: health = lost == 1 ? 1 : 3; break;
        }
    }
    if (health == v.health) return;
    v.health = health;
    Touch(s);
    if (!logChange) return;
    int owner = OwnerIndex(s, v);
    if (health == 0)
        Log(s, owner, kEvVdiskHealthy, 0, "Vdisk " + v.name + " is fault tolerant", nullptr, &v.serial);
    else if (health <= 2)
        Log(s, owner, kEvVdiskCritical, health, "Vdisk " + v.name + " is critical", nullptr, &v.serial);
    else
        Log(s, owner, kEvVdiskOffline, health, "Vdisk " + v.name + " is offline", nullptr, &v.serial);
}

bool Model::TryStartRebuild(Subsystem& s, Vdisk& v) {
    if (v.utility != kUtilNone || v.health == 0 || v.health >= 3) return false;
    // The first missing member.
    size_t slot = v.members.size();
    for (size_t i = 0; i < v.members.size(); ++i) {
        Drive* d = FindDrive(s, v.members[i]);
        if (v.members[i].empty() || d == nullptr || d->offline) {
            slot = i;
            break;
        }
    }
    if (slot == v.members.size()) return false;
    // A dedicated spare first, then a global one of the same kind and large enough.
    Drive* spare = nullptr;
    for (const std::string& sp : v.spares) {
        Drive* d = FindDrive(s, sp);
        if (d && !d->offline && UsableBlocks(s, *d) >= v.memberBlocks) {
            spare = d;
            break;
        }
    }
    if (!spare)
        for (Drive& d : s.drives)
            if (d.howUsed == kPoolSpare && !d.offline && d.type == v.driveType && UsableBlocks(s, d) >= v.memberBlocks) {
                spare = &d;
                break;
            }
    if (!spare) return false;
    v.spares.erase(std::remove(v.spares.begin(), v.spares.end(), spare->serial), v.spares.end());
    Drive* old = FindDrive(s, v.members[slot]);
    if (old) {
        old->vdiskId = 0;
        old->howUsed = kLeftover;
    }
    v.members[slot] = spare->serial;
    spare->howUsed = kMember;
    spare->vdiskId = v.id;
    spare->useState = 3;
    v.rebuilding = spare->serial;
    BeginUtility(v, kUtilRebuild);
    Serial ds = SerialFromText(spare->serial);
    Log(s, OwnerIndex(s, v), kEvRebuildStarted, 0, "Vdisk " + v.name + " reconstruction started", &ds, &v.serial);
    Touch(s);
    return true;
}

uint32_t Model::StartUtility(Subsystem& s, const Serial& serial, uint8_t utility) {
    Vdisk* v = FindVdisk(s, serial);
    if (!v) return kErrNotFound;
    if (v->utility != kUtilNone) return kErrUtilityRunning;
    if (utility == kUtilRebuild) return TryStartRebuild(s, *v) ? kOk : kErrDriveUnavailable;
    if (utility != kUtilVerify && utility != kUtilMediaScan) return kErrBadRequest;
    if (v->health >= 3) return kErrVdiskOffline;
    BeginUtility(*v, utility);
    Log(s, OwnerIndex(s, *v), kEvVerifyStarted, utility, "Vdisk " + v->name + " verify started", nullptr, &v->serial);
    Touch(s);
    return kOk;
}

void Model::FreeDrive(Drive& d) {
    d.howUsed = kAvailable;
    d.vdiskId = 0;
    d.useState = 0;
}

// ---------------------------------------------------------------------------------------------
// Vdisks

uint32_t Model::CreateArray(CtrlRef c, const CreateArrayArgs& a, Vdisk** out) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    size_t total = std::max(a.serials.size(), a.locations.size());
    if (total == 0 || total > kMaxMembers || a.numSpares >= total) return kErrBadRaidConfig;
    uint32_t n = static_cast<uint32_t>(total - a.numSpares);
    if (a.name.empty() || a.name.size() > 31) return kErrBadName;
    for (const Vdisk& v : s.vdisks)
        if (v.name == a.name) return kErrBadName;
    if (VdisksOf(s, c.index).size() >= kMaxVdisksPerController) return kErrArrayLimit;
    if (a.stripeKiB < 4 || a.stripeKiB > 1024 || (a.stripeKiB & (a.stripeKiB - 1)) != 0) return kErrBadStripe;

    uint32_t dpl = a.drivesPerLeg;
    switch (a.raid) {
    case kRaid0: if (n < 2) return kErrBadRaidConfig; break;
    case kNRaid: if (n < 1) return kErrBadRaidConfig; break;
    case kRaid1: if (n != 2) return kErrBadRaidConfig; break;
    case kRaid10: if (n < 4 || n % 2) return kErrBadRaidConfig; break;
    case kRaid51: if (n < 6 || n % 2) return kErrBadRaidConfig; break;
    case kRaid2:
    case kRaid3:
    case kRaid4:
    case kRaid5: if (n < 3) return kErrBadRaidConfig; break;
    case kRaid6:
        if (!s.raid6) return kErrBadRaidConfig;
        if (n < 4) return kErrBadRaidConfig;
        break;
    case kRaid30:
    case kRaid50:
        if (dpl == 0) dpl = n % 2 == 0 ? n / 2 : std::max<uint32_t>(3, n / 3);
        if (dpl < 3 || n % dpl != 0 || n / dpl < 2) return kErrBadRaidConfig;
        break;
    default: return kErrBadRaidConfig;
    }

    std::vector<Drive*> drives;
    for (size_t i = 0; i < total; ++i) {
        Drive* d = i < a.serials.size() ? FindDrive(s, a.serials[i]) : nullptr;
        if (!d && i < a.locations.size()) d = FindDriveAt(s, a.locations[i].first, a.locations[i].second);
        if (!d || d->offline) return kErrNotFound;
        if (d->howUsed != kAvailable) return kErrDriveUnavailable;
        if (std::find(drives.begin(), drives.end(), d) != drives.end()) return kErrDriveUnavailable;
        if (!drives.empty() && d->type != drives.front()->type) return kErrMixedDrives;
        drives.push_back(d);
    }

    Vdisk v;
    v.id = s.nextVdiskId++;
    v.serial = VdiskSerial(s, v.id);
    v.name = a.name;
    v.raid = a.raid;
    v.stripeKiB = a.stripeKiB;
    v.drivesPerLeg = (a.raid == kRaid50 || a.raid == kRaid30) ? dpl : 0;
    v.owner = OwnerOfIndex(c.index);
    v.driveType = drives.front()->type;
    v.orderWord = v.id;
    v.cache[9] = 1;  // write-back
    uint64_t smallest = 0;
    for (uint32_t i = 0; i < n; ++i) {
        uint64_t u = UsableBlocks(s, *drives[i]);
        if (smallest == 0 || u < smallest) smallest = u;
    }
    if (smallest < kMiBBlocks) return kErrTooSmall;
    for (size_t i = 0; i < drives.size(); ++i) {
        Drive* d = drives[i];
        d->vdiskId = v.id;
        if (i < n) {
            d->howUsed = kMember;
            v.members.push_back(d->serial);
        } else {
            d->howUsed = kDedicatedSpare;
            v.spares.push_back(d->serial);
        }
    }
    v.memberBlocks = smallest;
    v.capacity = CapacityFor(v.raid, n, v.drivesPerLeg, smallest);
    s.vdisks.push_back(std::move(v));
    Vdisk& made = s.vdisks.back();
    Log(s, c.index, kEvVdiskCreated, 0, "Vdisk " + made.name + " created", nullptr, &made.serial);
    Touch(s);
    if (out) *out = &made;
    return kOk;
}

uint32_t Model::DeleteArray(CtrlRef c, const Serial& serial) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Vdisk* v = FindVdisk(s, serial);
    if (!v) return kErrNotFound;
    if (!ControllerServes(c, *v)) return kErrNotOwner;
    if (v->utility == kUtilExpansion || v->utility == kUtilRebuild) return kErrUtilityRunning;
    // Volumes of other vdisks that depend on one of these stop the delete.
    for (const Partition& p : v->parts)
        for (const Vdisk& o : s.vdisks) {
            if (&o == v) continue;
            for (const Partition& q : o.parts)
                if ((q.type == 3 && q.master == p.serial) || (q.type == 2 && q.backingStore == p.serial)) return kErrInUse;
        }
    int owner = OwnerIndex(s, *v);
    for (const Partition& p : v->parts)
        Log(s, owner, kEvVolumeDeleted, 0, "Volume " + p.name + " deleted", nullptr, &p.serial);
    for (Drive& d : s.drives)
        if (d.vdiskId == v->id) FreeDrive(d);
    Serial vs = v->serial;
    std::string name = v->name;
    s.vdisks.erase(s.vdisks.begin() + (v - s.vdisks.data()));
    Log(s, owner, kEvVdiskDeleted, 0, "Vdisk " + name + " deleted", nullptr, &vs);
    Touch(s);
    return kOk;
}

uint32_t Model::ExpandArray(CtrlRef c, const Serial& serial, const std::vector<std::pair<uint32_t, uint32_t>>& locations) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Vdisk* v = FindVdisk(s, serial);
    if (!v) return kErrNotFound;
    if (!ControllerServes(c, *v)) return kErrNotOwner;
    if (v->utility == kUtilExpansion || v->utility == kUtilRebuild) return kErrUtilityRunning;
    if (v->health >= 3) return kErrVdiskOffline;
    // One expansion per controller at a time.
    for (const Vdisk& o : s.vdisks)
        if (o.utility == kUtilExpansion && OwnerIndex(s, o) == OwnerIndex(s, *v)) return kErrUtilityRunning;
    uint32_t add = static_cast<uint32_t>(locations.size());
    if (add == 0) return kErrBadRequest;
    if (v->members.size() + v->spares.size() + add > kMaxMembers) return kErrBadRaidConfig;
    switch (v->raid) {
    case kRaid1: return kErrBadRaidConfig;
    case kRaid10:
    case kRaid51:
        if (add % 2) return kErrBadRaidConfig;
        break;
    case kRaid30:
    case kRaid50:
        if (v->drivesPerLeg == 0 || add % v->drivesPerLeg) return kErrBadRaidConfig;
        break;
    default: break;
    }
    std::vector<Drive*> drives;
    for (auto [ch, id] : locations) {
        Drive* d = FindDriveAt(s, ch, id);
        if (!d) return kErrNotFound;
        if (d->howUsed != kAvailable || std::find(drives.begin(), drives.end(), d) != drives.end())
            return kErrDriveUnavailable;
        if (d->type != v->driveType) return kErrMixedDrives;
        if (UsableBlocks(s, *d) < v->memberBlocks) return kErrTooSmall;
        drives.push_back(d);
    }
    if (v->utility != kUtilNone) {  // a verify gives way
        v->utility = kUtilNone;
        Log(s, OwnerIndex(s, *v), kEvUtilityAborted, 0, "Vdisk " + v->name + " utility aborted", nullptr, &v->serial);
    }
    for (Drive* d : drives) {
        d->howUsed = kMember;
        d->vdiskId = v->id;
        v->members.push_back(d->serial);
        v->expanding.push_back(d->serial);
    }
    BeginUtility(*v, kUtilExpansion);
    Log(s, OwnerIndex(s, *v), kEvExpansionStarted, add, "Vdisk " + v->name + " expansion started", nullptr, &v->serial);
    Touch(s);
    return kOk;
}

uint32_t Model::AbortUtility(CtrlRef c, const Serial& serial) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Vdisk* v = FindVdisk(s, serial);
    if (!v) return kErrNotFound;
    if (v->utility == kUtilNone) return kOk;
    if (v->utility == kUtilExpansion || v->utility == kUtilRebuild) return kErrCannotAbort;
    v->utility = kUtilNone;
    v->utilityDuration = 0;
    Log(s, OwnerIndex(s, *v), kEvUtilityAborted, 0, "Vdisk " + v->name + " utility aborted", nullptr, &v->serial);
    Touch(s);
    return kOk;
}

uint32_t Model::SetOwner(CtrlRef c, const Serial& serial) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Vdisk* v = FindVdisk(s, serial);
    if (!v) return kErrNotFound;
    int to = 1 - OwnerIndex(s, *v);
    if (s.ctrl[to].offline) return kErrControllerDown;
    if (VdisksOf(s, to).size() >= kMaxVdisksPerController) return kErrArrayLimit;
    if (v->utility == kUtilExpansion) return kErrUtilityRunning;
    v->owner = OwnerOfIndex(to);
    v->failedOver = false;
    Log(s, to, kEvOwnerChanged, 0, "Vdisk " + v->name + " owner changed to controller " + (to == 0 ? "A" : "B"),
        nullptr, &v->serial);
    Touch(s);
    return kOk;
}

// ---------------------------------------------------------------------------------------------
// Partitions

uint32_t Model::AddPartition(CtrlRef c, const Serial& vdisk, uint64_t blocks, const std::string& name, uint8_t type,
                             const Serial& backingStore, PartRef* out) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Vdisk* v = FindVdisk(s, vdisk);
    if (!v) return kErrNotFound;
    if (!ControllerServes(c, *v)) return kErrNotOwner;
    if (v->health >= 3) return kErrVdiskOffline;
    if (type > 2) return kErrBadRequest;
    if (name.empty() || name.size() > 31) return kErrBadName;
    if (blocks < kMiBBlocks) return kErrTooSmall;
    if (v->parts.size() >= kMaxPartitionsPerVdisk) return kErrVdiskPartitionLimit;
    if (s.maxArrayPartitions != 0 && PartitionCountOf(s, OwnerIndex(s, *v)) >= s.maxArrayPartitions / 2)
        return kErrControllerPartitionLimit;
    for (const Vdisk& o : s.vdisks)
        for (const Partition& p : o.parts)
            if (p.name == name) return kErrBadName;
    Serial bsSerial{};
    if (type == 2) {
        PartRef bs = FindPartitionById(s, backingStore.data());
        if (!bs || bs.p()->type != 1) return kErrNotFound;
        bsSerial = bs.p()->serial;
        uint32_t masters = 0;
        for (const Vdisk& o : s.vdisks)
            for (const Partition& p : o.parts) masters += p.type == 2 ? 1 : 0;
        if (masters >= s.masterLimit) return kErrMasterLimit;
    }
    FreeSpace f = FreeOf(*v);
    uint64_t start = 0;
    bool found = false;
    for (auto [at, len] : f.list)
        if (len >= blocks) {
            start = at;
            found = true;
            break;
        }
    if (!found) return kErrNoSpace;
    Partition p;
    uint32_t id = s.nextPartitionId++;
    p.serial = PartitionSerial(s, id);
    p.name = name;
    p.start = start;
    p.blocks = blocks;
    p.type = type;
    std::memcpy(p.cache, v->cache, sizeof p.cache);
    p.backingStore = bsSerial;
    v->parts.push_back(std::move(p));
    Partition& made = v->parts.back();
    Log(s, OwnerIndex(s, *v), kEvVolumeCreated, 0, "Volume " + made.name + " created", nullptr, &made.serial);
    Touch(s);
    if (out) *out = PartRef{v, static_cast<int>(v->parts.size() - 1)};
    return kOk;
}

uint32_t Model::DeletePartition(CtrlRef c, const Serial& serial) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, serial);
    if (!r) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    const Partition& p = *r.p();
    for (const Vdisk& o : s.vdisks)
        for (const Partition& q : o.parts)
            if ((q.type == 3 && q.master == p.serial) || (q.type == 2 && q.backingStore == p.serial)) return kErrInUse;
    Serial ps = p.serial;
    std::string name = p.name;
    r.vd->parts.erase(r.vd->parts.begin() + r.index);
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeDeleted, 0, "Volume " + name + " deleted", nullptr, &ps);
    Touch(s);
    return kOk;
}

uint32_t Model::ExpandPartition(CtrlRef c, const Serial& vdiskOrZero, const Serial& serial, uint64_t newBlocks) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, serial);
    if (!r) return kErrNotFound;
    if (!IsZero(vdiskOrZero.data(), vdiskOrZero.size()) && r.vd->serial != vdiskOrZero) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    Partition& p = *r.p();
    if (p.type == 3 || p.type == 2) return kErrBadRequest;
    if (r.vd->utility == kUtilExpansion) return kErrUtilityRunning;
    if (newBlocks == p.blocks) return kOk;
    if (newBlocks < p.blocks) return kErrBadSize;
    // The partition grows into the free segment right behind it.
    uint64_t end = p.start + p.blocks, room = 0;
    for (auto [at, len] : FreeOf(*r.vd).list)
        if (at == end) room = len;
    if (newBlocks - p.blocks > room) return kErrNoSpace;
    p.blocks = newBlocks;
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeModified, 0, "Volume " + p.name + " expanded", nullptr, &p.serial);
    Touch(s);
    return kOk;
}

uint32_t Model::SetPartitionName(CtrlRef c, const Serial& serial, const std::string& name) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, serial);
    if (!r) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    if (name.empty() || name.size() > 31) return kErrBadName;
    for (const Vdisk& o : s.vdisks)
        for (const Partition& q : o.parts)
            if (q.name == name && &q != r.p()) return kErrBadName;
    r.p()->name = name;
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeModified, 0, "Volume name changed to " + name, nullptr, &r.p()->serial);
    Touch(s);
    return kOk;
}

bool Model::LunTaken(Subsystem& s, const Vdisk& self, const Partition& p, const View* forHost, uint16_t lun) const {
    auto sameHost = [](const View& a, const View& b) {
        if (a.hostType != b.hostType) return false;
        if (a.hostType == 16) return std::memcmp(a.wwn, b.wwn, 8) == 0;
        if (a.hostType == 0x40 || a.hostType == 0x80) return std::memcmp(a.address, b.address, 16) == 0;
        return a.host == b.host;
    };
    for (const Vdisk& v : s.vdisks) {
        if (!s.ulp && v.owner != self.owner) continue;
        for (const Partition& q : v.parts) {
            if (&q == &p) continue;
            if (q.defaultLun == lun) return true;
            for (const View& w : q.views)
                if (w.lun == lun && (forHost == nullptr || sameHost(w, *forHost))) return true;
        }
    }
    return false;
}

uint32_t Model::ChangeView(CtrlRef c, const ViewChange& vc) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, vc.part);
    if (!r) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    Partition& p = *r.p();
    if (p.type == 1) return kErrBadRequest;  // a backing store is never presented
    auto match = [&](const View& w) {
        if (w.hostType != vc.view.hostType) return false;
        if (w.hostType == 16) return std::memcmp(w.wwn, vc.view.wwn, 8) == 0;
        if (w.hostType == 0x40 || w.hostType == 0x80) return std::memcmp(w.address, vc.view.address, 16) == 0;
        return w.host == vc.view.host;
    };
    std::string what;
    if (vc.create) {
        if (vc.view.lun == 0xFFFF) return kErrBadRequest;
        if (vc.hasHost) {
            if (LunTaken(s, *r.vd, p, &vc.view, vc.view.lun)) return kErrLunInUse;
            auto it = std::find_if(p.views.begin(), p.views.end(), match);
            if (it != p.views.end()) {
                it->lun = vc.view.lun;
                it->access = vc.view.access;
            } else {
                if (p.views.size() >= kMaxViews) return kErrViewLimit;
                p.views.push_back(vc.view);
            }
            if (!vc.view.host.empty() &&
                std::find(s.knownHosts.begin(), s.knownHosts.end(), vc.view.host) == s.knownHosts.end() &&
                s.knownHosts.size() < kMaxKnownHosts)
                s.knownHosts.push_back(vc.view.host);
            what = "mapped to " + (vc.view.host.empty() ? std::string("a host") : vc.view.host);
        } else {
            if (LunTaken(s, *r.vd, p, nullptr, vc.view.lun)) return kErrLunInUse;
            p.defaultLun = vc.view.lun;
            p.defaultAccess = vc.view.access;
            what = "mapped to all hosts";
        }
        what += " as LUN " + std::to_string(vc.view.lun);
    } else if (vc.hasHost) {
        auto it = std::find_if(p.views.begin(), p.views.end(), match);
        if (it == p.views.end()) return kOk;
        p.views.erase(it);
        what = "unmapped from " + (vc.view.host.empty() ? std::string("a host") : vc.view.host);
    } else {
        if (p.defaultLun < 0 && (!vc.removeAll || p.views.empty())) return kOk;
        p.defaultLun = -1;
        p.defaultAccess = 0;
        if (vc.removeAll) p.views.clear();
        what = "unmapped";
    }
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeMapping, 0, "Volume " + p.name + " " + what, nullptr, &p.serial);
    Touch(s);
    return kOk;
}

uint32_t Model::SetPartitionLun(CtrlRef c, const Serial& serial, uint16_t lun) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, serial);
    if (!r) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    Partition& p = *r.p();
    if (p.defaultLun < 0) return kErrBadRequest;  // only a default view has a number of its own
    if (LunTaken(s, *r.vd, p, nullptr, lun)) return kErrLunInUse;
    p.defaultLun = lun;
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeMapping, 0, "Volume " + p.name + " LUN changed to " + std::to_string(lun),
        nullptr, &p.serial);
    Touch(s);
    return kOk;
}

uint32_t Model::SetCacheParams(CtrlRef c, const Serial& serial, const uint8_t cache[32]) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, serial);
    if (!r) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    std::memcpy(r.p()->cache, cache, 32);
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeModified, 1, "Volume " + r.p()->name + " cache parameters changed", nullptr,
        &r.p()->serial);
    Touch(s);
    return kOk;
}

uint32_t Model::FlushCache(CtrlRef c, const Serial& serial) {
    if (c.c()->offline) return kErrControllerDown;
    if (FindPartition(*c.sub, serial) || FindVdisk(*c.sub, serial)) return kOk;
    return kErrNotFound;
}

// ---------------------------------------------------------------------------------------------
// Drives

uint32_t Model::AssignSpare(CtrlRef c, const std::string& serial, bool on) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Drive* d = FindDrive(s, serial);
    if (!d || d->offline) return kErrNotFound;
    Serial ds = SerialFromText(d->serial);
    if (on) {
        if (d->howUsed != kAvailable) return kErrDriveUnavailable;
        d->howUsed = kPoolSpare;
        Log(s, c.index, kEvSpareAdded, 0, "Drive " + d->serial + " is now a global spare", &ds);
        Touch(s);
        for (Vdisk& v : s.vdisks) TryStartRebuild(s, v);
    } else {
        if (d->howUsed != kPoolSpare) return kErrDriveUnavailable;
        d->howUsed = kAvailable;
        Log(s, c.index, kEvSpareRemoved, 0, "Drive " + d->serial + " is no longer a global spare", &ds);
        Touch(s);
    }
    return kOk;
}

uint32_t Model::BlinkDrive(CtrlRef c, const std::string& serial, bool on) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    Drive* d = FindDrive(s, serial);
    if (!d || d->offline) return kErrNotFound;
    if (d->blinking == on) return kOk;
    d->blinking = on;
    Serial ds = SerialFromText(d->serial);
    Log(s, c.index, kEvLocateLight, on ? 1 : 0, "Drive " + d->serial + (on ? " locate light on" : " locate light off"),
        &ds);
    Touch(s);
    return kOk;
}

uint32_t Model::SetDriveOffline(Subsystem& s, const std::string& serial, bool offline) {
    Drive* d = FindDrive(s, serial);
    if (!d) return kErrNotFound;
    if (d->offline == offline) return kOk;
    d->offline = offline;
    Serial ds = SerialFromText(d->serial);
    Vdisk* v = d->vdiskId ? FindVdiskById(s, d->vdiskId) : nullptr;
    int logAt = v ? OwnerIndex(s, *v) : (s.ctrl[0].offline ? 1 : 0);
    if (offline) {
        d->blinking = false;
        bool inVdisk = v != nullptr;
        Log(s, logAt, inVdisk ? kEvDriveDown : kEvDriveGone, 0, "Drive " + d->serial + " is down", &ds,
            v ? &v->serial : nullptr);
        if (v) {
            if (v->rebuilding == d->serial) {  // the rebuild lost its target
                v->rebuilding.clear();
                v->utility = kUtilNone;
            }
            if (d->howUsed == kMember) {
                RecomputeHealth(s, *v, true);
                TryStartRebuild(s, *v);
            }
        }
    } else {
        Log(s, logAt, kEvDriveUp, 0, "Drive " + d->serial + " is up", &ds);
        if (v) {
            bool stillMember = std::find(v->members.begin(), v->members.end(), d->serial) != v->members.end();
            bool stillSpare = std::find(v->spares.begin(), v->spares.end(), d->serial) != v->spares.end();
            if (stillMember) RecomputeHealth(s, *v, true);
            else if (!stillSpare) {
                d->vdiskId = 0;
                d->howUsed = kLeftover;
            }
        } else if (d->howUsed == kMember || d->howUsed == kDedicatedSpare) {
            d->howUsed = kLeftover;  // its vdisk went on without it
        }
    }
    Touch(s);
    return kOk;
}

// ---------------------------------------------------------------------------------------------
// Controllers and system

uint32_t Model::SetSystemName(CtrlRef c, const std::string& name) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    s.systemName = name.substr(0, 80);  // the field's width; a name that fills it has no NUL
    Log(s, c.index, kEvSettingsChanged, 0, "System name changed to " + s.systemName);
    Touch(s);
    return kOk;
}

uint32_t Model::ResetController(CtrlRef c) {
    if (c.c()->offline) return kErrControllerDown;
    Log(*c.sub, c.index, kEvControllerReset, 0, "Controller restarted");
    Touch(*c.sub);
    return kOk;
}

uint32_t Model::RescanBus(CtrlRef c) {
    if (c.c()->offline) return kErrControllerDown;
    Log(*c.sub, c.index, kEvRescanDone, 24, "Rescan of all buses complete");
    return kOk;
}

uint32_t Model::SetControllerOffline(CtrlRef c, bool offline, uint8_t state) {
    Subsystem& s = *c.sub;
    Controller& ctl = s.ctrl[c.index];
    int partner = 1 - c.index;
    if (ctl.offline == offline && (!offline || ctl.state == state)) return kOk;
    if (offline) {
        // Its partner records the departure first, while the vdisks move over.
        Log(s, partner, kEvControllerDown, 2, std::string("Controller ") + (c.index == 0 ? "A" : "B") + " is down",
            nullptr, nullptr, ctl.handle);
        ctl.offline = true;
        ctl.state = state;
        if (!s.ctrl[partner].offline)
            for (Vdisk& v : s.vdisks)
                if (OwnerIndex(s, v) == c.index) {
                    v.owner = OwnerOfIndex(partner);
                    v.failedOver = true;
                }
    } else {
        ctl.offline = false;
        ctl.state = 0;
        for (Vdisk& v : s.vdisks)
            if (v.failedOver) {
                v.owner = OwnerOfIndex(c.index);
                v.failedOver = false;
            }
        std::string text = std::string("Controller ") + (c.index == 0 ? "A" : "B") + " is up";
        Log(s, partner, kEvControllerUp, 2, text, nullptr, nullptr, ctl.handle);
        Log(s, c.index, kEvControllerUp, 2, text, nullptr, nullptr, ctl.handle);
    }
    Touch(s);
    return kOk;
}

// ---------------------------------------------------------------------------------------------
// Snapshots

uint32_t Model::CreateSnapshot(CtrlRef c, const std::string& name, uint64_t tag, const uint8_t masterId[16],
                               PartRef* out) {
    Subsystem& s = *c.sub;
    Controller& ctl = *c.c();
    if (ctl.offline) return kErrControllerDown;
    if (tag != ctl.dmsTag) return kErrStaleTag;
    PartRef m = FindPartitionById(s, masterId);
    if (!m || m.p()->type != 2) return kErrNotFound;
    if (!ControllerServes(c, *m.vd)) return kErrNotOwner;
    if (name.empty() || name.size() > 31) return kErrBadName;
    uint32_t ofMaster = 0, all = 0;
    for (const Vdisk& v : s.vdisks)
        for (const Partition& p : v.parts) {
            if (p.name == name) return kErrBadName;
            if (p.type == 3) {
                ++all;
                if (p.master == m.p()->serial) ++ofMaster;
            }
        }
    if (ofMaster >= s.snapshotsPerMaster) return kErrSnapshotsPerMaster;
    if (all >= s.snapshotLimit) return kErrSnapshotLimit;
    if (m.vd->parts.size() >= kMaxPartitionsPerVdisk) return kErrVdiskPartitionLimit;
    ++ctl.dmsTag;
    Partition snap;
    snap.serial = PartitionSerial(s, s.nextPartitionId++);
    snap.name = name;
    snap.start = m.p()->start;
    snap.blocks = m.p()->blocks;
    snap.type = 3;
    std::memcpy(snap.cache, m.p()->cache, sizeof snap.cache);
    snap.master = m.p()->serial;
    Vdisk* vd = m.vd;
    vd->parts.push_back(std::move(snap));
    Partition& made = vd->parts.back();
    Log(s, OwnerIndex(s, *vd), kEvVolumeCreated, 3, "Snapshot " + made.name + " created", nullptr, &made.serial);
    Touch(s);
    if (out) *out = PartRef{vd, static_cast<int>(vd->parts.size() - 1)};
    return kOk;
}

uint32_t Model::ConvertMasterVolume(CtrlRef c, uint8_t subcommand, const Serial& serial, const uint8_t backingId[16]) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    PartRef r = FindPartition(s, serial);
    if (!r) return kErrNotFound;
    if (!ControllerServes(c, *r.vd)) return kErrNotOwner;
    Partition& p = *r.p();
    if (subcommand == 8) {
        if (p.type != 2) return kErrBadRequest;
        for (const Vdisk& v : s.vdisks)
            for (const Partition& q : v.parts)
                if (q.type == 3 && q.master == p.serial) return kErrInUse;
        p.type = 0;
        p.backingStore = Serial{};
    } else if (subcommand == 9) {
        if (p.type != 0) return kErrBadRequest;
        PartRef bs = FindPartitionById(s, backingId);
        if (!bs || bs.p()->type != 1) return kErrNotFound;
        uint32_t masters = 0;
        for (const Vdisk& v : s.vdisks)
            for (const Partition& q : v.parts) masters += q.type == 2 ? 1 : 0;
        if (masters >= s.masterLimit) return kErrMasterLimit;
        p.type = 2;
        p.backingStore = bs.p()->serial;
    } else {
        return kErrBadRequest;
    }
    Log(s, OwnerIndex(s, *r.vd), kEvVolumeModified, subcommand,
        "Volume " + p.name + (subcommand == 8 ? " is now a standard volume" : " is now a master volume"), nullptr,
        &p.serial);
    Touch(s);
    return kOk;
}

// ---------------------------------------------------------------------------------------------
// Secrets

const ChapRecord* Model::FindSecret(Subsystem& s, const std::string& name) {
    for (const ChapRecord& r : s.chap)
        if (r.name == name) return &r;
    return nullptr;
}

uint32_t Model::SetSecret(CtrlRef c, uint32_t opcode, const ChapRecord& in) {
    Subsystem& s = *c.sub;
    if (c.c()->offline) return kErrControllerDown;
    auto recordFor = [&](const std::string& name) -> ChapRecord& {
        for (ChapRecord& r : s.chap)
            if (r.name == name) return r;
        s.chap.push_back(ChapRecord{name, "", "", "", ""});
        return s.chap.back();
    };
    switch (opcode) {
    case 115:
        s.targetSecret = in.secret;
        break;
    case 116:
        s.targetSecret.clear();
        for (ChapRecord& r : s.chap) r.secret.clear();
        break;
    case 117: {
        if (in.name.empty()) return kErrBadRequest;
        ChapRecord& r = recordFor(in.name);
        r.secondName = in.secondName;
        r.secret = in.secret;
        break;
    }
    case 118: {
        if (in.name.empty()) return kErrBadRequest;
        ChapRecord& r = recordFor(in.name);
        r.secondText = in.secondText;
        r.thirdText = in.thirdText;
        break;
    }
    default: return kErrBadRequest;
    }
    Log(s, c.index, kEvSecretsChanged, opcode, "CHAP records changed");
    return kOk;
}

}  // namespace trovsim
