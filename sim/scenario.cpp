// Scenario files: the JSON form of the model (sim/README.md documents it), and the two built-in
// scenarios. A saved state is a scenario with every field spelt out, so that loading it gives
// back the same model, serials and event logs included.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "sim/model.h"

namespace trovsim {

using nlohmann::json;

namespace {

// Reading errors travel as a message; the first one wins.
struct Reader {
    std::string error;
    bool ok() const { return error.empty(); }
    void Fail(const std::string& what) {
        if (error.empty()) error = what;
    }
};

template <typename T>
T Get(const json& j, const char* key, T def) {
    auto it = j.find(key);
    if (it == j.end() || it->is_null()) return def;
    try {
        return it->get<T>();
    } catch (const json::exception&) {
        return def;
    }
}

bool ParseIpv4(const std::string& text, uint8_t out[4]) {
    unsigned a, b, c, d;
    char tail;
    if (std::sscanf(text.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) != 4) return false;
    if (a > 255 || b > 255 || c > 255 || d > 255) return false;
    out[0] = static_cast<uint8_t>(a), out[1] = static_cast<uint8_t>(b);
    out[2] = static_cast<uint8_t>(c), out[3] = static_cast<uint8_t>(d);
    return true;
}

std::string Ipv4Text(const uint8_t ip[4]) {
    char buf[20];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", ip[0], ip[1], ip[2], ip[3]);
    return buf;
}

std::string Hex(const uint8_t* p, size_t n) {
    Serial s{};
    std::memcpy(s.data(), p, std::min(n, s.size()));
    return SerialHex(s, n);
}

bool IsZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i]) return false;
    return true;
}

uint8_t DriveType(const json& j, Reader& r) {
    if (j.is_number_unsigned()) return j.get<uint8_t>();
    std::string t = j.is_string() ? j.get<std::string>() : "";
    if (t == "FC") return 2;
    if (t == "SATA") return 3;
    if (t == "SAS") return 4;
    if (t == "SSD-SATA") return 7;
    if (t == "SSD-SAS") return 8;
    r.Fail("unknown drive type " + j.dump());
    return 4;
}

uint8_t OwnerOf(const json& j) {
    if (j.is_string()) return j.get<std::string>() == "B" ? 0 : 1;
    if (j.is_number_unsigned()) return j.get<uint8_t>() == 0 ? 0 : 1;
    return 1;
}

void ReadPort(const json& j, Port& p, Reader& r) {
    auto type = j.find("type");
    if (type != j.end()) {
        if (type->is_number_unsigned()) p.busType = type->get<uint8_t>();
        else if (*type == "iscsi") p.busType = 9;
        else if (*type == "sas") p.busType = 8;
        else if (*type == "fc") p.busType = 6;
        else r.Fail("unknown port type " + type->dump());
    }
    p.linkUp = Get(j, "linkUp", true);
    p.tcpPort = Get<uint32_t>(j, "tcpPort", 3260);
    std::string ip6 = Get<std::string>(j, "ipv6", "");
    if (!ip6.empty()) {
        p.ipVersion = 6;
        if (!ParseHex(ip6, p.ip, 16)) r.Fail("bad ipv6 " + ip6);
    } else {
        p.ipVersion = 4;
        std::string ip = Get<std::string>(j, "ip", "0.0.0.0");
        if (!ParseIpv4(ip, p.ip + 12)) r.Fail("bad ip " + ip);
        ParseIpv4(Get<std::string>(j, "netmask", "255.255.255.0"), p.netmask + 12);
        ParseIpv4(Get<std::string>(j, "gateway", "0.0.0.0"), p.gateway + 12);
    }
    std::string wwn = Get<std::string>(j, "wwn", "");
    if (!wwn.empty() && !ParseHex(wwn, p.wwn, 8)) r.Fail("bad wwn " + wwn);
}

json WritePort(const Port& p) {
    json j;
    j["type"] = p.busType;
    j["linkUp"] = p.linkUp;
    j["tcpPort"] = p.tcpPort;
    if (p.ipVersion == 6) {
        j["ipv6"] = Hex(p.ip, 16);
    } else {
        j["ip"] = Ipv4Text(p.ip + 12);
        j["netmask"] = Ipv4Text(p.netmask + 12);
        j["gateway"] = Ipv4Text(p.gateway + 12);
    }
    if (!IsZero(p.wwn, 8)) j["wwn"] = Hex(p.wwn, 8);
    return j;
}

void ReadEvent(const json& j, EventRecord& e) {
    e.sequence = Get<uint32_t>(j, "seq", 0);
    e.code = Get<uint32_t>(j, "code", 0);
    e.errorCode = Get<uint32_t>(j, "error", 0);
    e.controllerHandle = Get<uint32_t>(j, "handle", 0);
    e.param = Get<uint32_t>(j, "param", 0);
    ParseHex(Get<std::string>(j, "drive", ""), e.driveSerial.data(), 32);
    ParseHex(Get<std::string>(j, "partition", ""), e.partitionSerial.data(), 32);
    e.owner = Get<uint8_t>(j, "owner", 0);
    e.duplicateCount = Get<uint8_t>(j, "dup", 0);
    e.description = Get<std::string>(j, "text", "");
}

json WriteEvent(const EventRecord& e) {
    json j = {{"seq", e.sequence}, {"code", e.code}, {"handle", e.controllerHandle}, {"param", e.param},
              {"owner", e.owner}, {"text", e.description}};
    if (e.errorCode) j["error"] = e.errorCode;
    if (e.duplicateCount) j["dup"] = e.duplicateCount;
    if (!IsZero(e.driveSerial.data(), 32)) j["drive"] = SerialHex(e.driveSerial);
    if (!IsZero(e.partitionSerial.data(), 32)) j["partition"] = SerialHex(e.partitionSerial);
    return j;
}

uint64_t SizeBlocks(const json& j, Reader& r) {
    if (j.contains("blocks")) return Get<uint64_t>(j, "blocks", 0);
    if (j.contains("sizeMiB")) return Get<uint64_t>(j, "sizeMiB", 0) * kMiBBlocks;
    if (j.contains("sizeGiB")) return Get<uint64_t>(j, "sizeGiB", 0) * 1024 * kMiBBlocks;
    if (j.contains("sizeGB")) return Get<uint64_t>(j, "sizeGB", 0) * 1000000000ull / 512;
    r.Fail("no size in " + j.dump());
    return 0;
}

uint32_t Fnv(const std::string& s) {
    uint32_t h = 2166136261u;
    for (unsigned char ch : s) h = (h ^ ch) * 16777619u;
    return h;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Loading

bool Model::Load(const json& doc, std::string* error) {
    Reader r;
    std::vector<Subsystem> subs;
    std::vector<Adapter> adapters;
    Timing timing;
    if (!doc.is_object()) r.Fail("the scenario is not a JSON object");
    const json empty = json::object();
    const json& t = doc.contains("timing") ? doc["timing"] : empty;
    timing.expansionMs = Get<uint64_t>(t, "expansionMs", timing.expansionMs);
    timing.rebuildMs = Get<uint64_t>(t, "rebuildMs", timing.rebuildMs);
    timing.verifyMs = Get<uint64_t>(t, "verifyMs", timing.verifyMs);
    timing.mediaScanMs = Get<uint64_t>(t, "mediaScanMs", timing.mediaScanMs);
    uint64_t now = Get<uint64_t>(doc, "now", 0);

    if (doc.contains("adapters"))
        for (const json& a : doc["adapters"]) {
            Adapter ad;
            std::string letter = Get<std::string>(a, "type", "I");
            ad.typeLetter = letter.empty() ? 'I' : letter[0];
            ad.port = Get<uint8_t>(a, "port", 0);
            std::string w = Get<std::string>(a, "wwpn", "");
            if (!w.empty() && !ParseHex(w, ad.wwpn, 8)) r.Fail("bad wwpn " + w);
            adapters.push_back(ad);
        }
    if (adapters.size() > kMaxAdapters) r.Fail("more than 32 adapters");

    if (!doc.contains("subsystems") || !doc["subsystems"].is_array() || doc["subsystems"].empty())
        r.Fail("no subsystems");
    else if (doc["subsystems"].size() > kMaxSubsystems)
        r.Fail("more than 7 subsystems");

    size_t si = 0;
    for (const json& js : r.ok() ? doc["subsystems"] : json::array()) {
        Subsystem s;
        char def[40];
        std::snprintf(def, sizeof def, "00C0FF%06X", static_cast<unsigned>(0x1A2B30 + si));
        s.uniqueSn = Get<std::string>(js, "uniqueSN", def).substr(0, 31);
        uint32_t h = Fnv(s.uniqueSn);
        s.prefix[0] = static_cast<uint8_t>(h >> 16), s.prefix[1] = static_cast<uint8_t>(h >> 8);
        s.prefix[2] = static_cast<uint8_t>(h);
        std::string prefix = Get<std::string>(js, "serialPrefix", "");
        if (!prefix.empty() && !ParseHex(prefix, s.prefix, 3)) r.Fail("bad serialPrefix " + prefix);
        s.brandName = Get<std::string>(js, "brandName", "");
        s.productId = Get<std::string>(js, "productId", s.productId);
        s.vendorName = Get<std::string>(js, "vendorName", s.vendorName);
        s.vendorId = Get<std::string>(js, "vendorId", s.vendorId);
        std::string lower = s.uniqueSn;
        std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char ch) { return std::tolower(ch); });
        s.iscsiBaseName = Get<std::string>(js, "iscsiBaseName", "iqn.1995-03.com.trov:01.array." + lower);
        s.systemName = Get<std::string>(js, "systemName", "array-" + lower);
        s.chapEnabled = Get(js, "chapEnabled", false);
        s.hostBusType = Get<uint8_t>(js, "hostBusType", 9);
        s.ulp = Get(js, "ulp", false);
        s.overheadPerMille = Get<uint32_t>(js, "overheadPerMille", 0);
        if (s.overheadPerMille > 999) r.Fail("overheadPerMille above 999");
        s.maxLuns = Get<uint32_t>(js, "maxLuns", s.maxLuns);
        s.maxArrayPartitions = Get<uint32_t>(js, "maxArrayPartitions", s.maxArrayPartitions);
        s.allowedDriveType = Get<uint8_t>(js, "allowedDriveType", 1);
        s.raid6 = Get(js, "raid6", true);
        s.enclosures = Get<uint32_t>(js, "enclosures", 1);
        s.slotsPerEnclosure = Get<uint32_t>(js, "slotsPerEnclosure", 12);
        if (s.enclosures > kMaxEnclosures) r.Fail("more than 16 enclosures");
        const json& lim = js.contains("limits") ? js["limits"] : empty;
        s.snapshotsPerMaster = Get<uint32_t>(lim, "snapshotsPerMaster", s.snapshotsPerMaster);
        s.snapshotLimit = Get<uint32_t>(lim, "snapshots", s.snapshotLimit);
        s.masterLimit = Get<uint32_t>(lim, "masterVolumes", s.masterLimit);
        s.knownHosts = Get<std::vector<std::string>>(js, "knownHosts", {});
        if (s.knownHosts.size() > kMaxKnownHosts) r.Fail("more than 64 known hosts");
        s.targetSecret = Get<std::string>(js, "targetSecret", "");
        if (js.contains("chap"))
            for (const json& c : js["chap"])
                s.chap.push_back(ChapRecord{Get<std::string>(c, "name", ""), Get<std::string>(c, "secondName", ""),
                                            Get<std::string>(c, "secret", ""), Get<std::string>(c, "secondText", ""),
                                            Get<std::string>(c, "thirdText", "")});

        // Controllers.
        for (int ci = 0; ci < 2; ++ci) {
            Controller& c = s.ctrl[ci];
            const json* jc = &empty;
            if (js.contains("controllers") && js["controllers"].size() > static_cast<size_t>(ci))
                jc = &js["controllers"][static_cast<size_t>(ci)];
            char letter = ci == 0 ? 'A' : 'B';
            c.id = ci == 0 ? 1 : 0;
            c.handle = Get<uint32_t>(*jc, "handle", 0x01000100u + static_cast<uint32_t>(si) * 0x10 + static_cast<uint32_t>(ci));
            if (c.handle == 0) r.Fail("controller handle 0");
            c.ident = Get<std::string>(*jc, "ident", s.uniqueSn + "." + letter).substr(0, 35);
            c.serial = Get<std::string>(*jc, "serial", std::string("3CL0") + letter + s.uniqueSn.substr(std::min<size_t>(6, s.uniqueSn.size()))).substr(0, 79);
            c.firmware = Get<std::string>(*jc, "firmware", "J210P22").substr(0, 19);
            std::string ip = Get<std::string>(*jc, "ip", std::string("10.0.0.") + (ci == 0 ? "2" : "3"));
            if (!ParseIpv4(ip, c.ip)) r.Fail("bad controller ip " + ip);
            std::string mac = Get<std::string>(*jc, "mac", "");
            if (mac.empty()) {
                c.mac[0] = 0x00, c.mac[1] = 0xC0, c.mac[2] = 0xFF;
                c.mac[3] = s.prefix[1], c.mac[4] = s.prefix[2], c.mac[5] = static_cast<uint8_t>(0x0A + ci);
            } else if (!ParseHex(mac, c.mac, 6)) {
                r.Fail("bad mac " + mac);
            }
            c.state = Get<uint8_t>(*jc, "state", 0);
            c.offline = Get(*jc, "offline", false);
            c.dmsTag = Get<uint64_t>(*jc, "dmsTag", 1);
            if (jc->contains("ports"))
                for (const json& p : (*jc)["ports"]) {
                    Port port;
                    ReadPort(p, port, r);
                    c.ports.push_back(port);
                }
            if (jc->contains("diskPorts"))
                for (const json& p : (*jc)["diskPorts"]) {
                    Port port;
                    port.busType = 8;
                    ReadPort(p, port, r);
                    c.diskPorts.push_back(port);
                }
            else
                for (int k = 0; k < 2; ++k) {
                    Port port;
                    port.busType = 8;
                    port.wwn[0] = 0x50, port.wwn[1] = 0x0C, port.wwn[2] = 0x0F, port.wwn[3] = s.prefix[0];
                    port.wwn[4] = s.prefix[1], port.wwn[5] = s.prefix[2], port.wwn[6] = static_cast<uint8_t>(ci);
                    port.wwn[7] = static_cast<uint8_t>(k);
                    c.diskPorts.push_back(port);
                }
            if (c.ports.size() > kMaxPorts || c.diskPorts.size() > kMaxPorts) r.Fail("more than 8 ports");
            if (jc->contains("events"))
                for (const json& e : (*jc)["events"]) {
                    EventRecord ev;
                    ReadEvent(e, ev);
                    c.log.push_back(ev);
                }
            c.nextEvent = Get<uint32_t>(*jc, "nextEvent", c.log.empty() ? 1 : c.log.back().sequence + 1);
        }
        if (s.ctrl[0].handle == s.ctrl[1].handle) r.Fail("both controllers have the same handle");

        // Drives.
        if (js.contains("drives"))
            for (const json& jd : js["drives"]) {
                Drive d;
                uint32_t index = static_cast<uint32_t>(s.drives.size());
                char serial[40];
                std::snprintf(serial, sizeof serial, "SIM%06X%04u", s.prefix[1] << 8 | s.prefix[2], index);
                d.serial = Get<std::string>(jd, "serial", serial).substr(0, 32);
                d.vendor = Get<std::string>(jd, "vendor", "SEAGATE").substr(0, 8);
                d.product = Get<std::string>(jd, "product", "ST3600057SS").substr(0, 16);
                d.revision = Get<std::string>(jd, "revision", "0008").substr(0, 4);
                d.type = jd.contains("type") ? DriveType(jd["type"], r) : 4;
                d.blocks = SizeBlocks(jd, r);
                uint32_t slots = s.slotsPerEnclosure ? s.slotsPerEnclosure : 1;
                d.enclosure = Get<uint8_t>(jd, "enclosure", static_cast<uint8_t>(index / slots));
                d.slot = Get<uint8_t>(jd, "slot", static_cast<uint8_t>(index % slots));
                d.channel = Get<uint8_t>(jd, "channel", d.enclosure);
                d.scsiId = Get<uint8_t>(jd, "scsiId", d.slot);
                d.lun = Get<uint8_t>(jd, "lun", 0);
                d.spindleSpeed = Get<uint8_t>(jd, "rpm", 10);
                d.howUsed = Get<uint8_t>(jd, "howUsed", kAvailable);
                d.downReason = Get<uint8_t>(jd, "downReason", 0);
                d.useState = Get<uint8_t>(jd, "useState", 0);
                d.blinking = Get(jd, "blinking", false);
                d.offline = Get(jd, "offline", false);
                d.vdiskId = Get<uint32_t>(jd, "vdisk", 0);
                for (const Drive& o : s.drives) {
                    if (o.serial == d.serial) r.Fail("drive serial twice: " + d.serial);
                    if (o.channel == d.channel && o.scsiId == d.scsiId) r.Fail("two drives at one channel and id: " + d.serial);
                }
                s.drives.push_back(d);
            }
        if (s.drives.size() > kMaxDrives) r.Fail("more than 250 drives");

        // Vdisks and their partitions.
        bool explicitIds = js.contains("nextVdiskId");
        s.nextVdiskId = Get<uint32_t>(js, "nextVdiskId", 1);
        s.nextPartitionId = Get<uint32_t>(js, "nextPartitionId", 1);
        struct PendingLink {
            size_t vdisk, part;
            std::string backing, master;
        };
        std::vector<PendingLink> links;
        if (js.contains("vdisks"))
            for (const json& jv : js["vdisks"]) {
                Vdisk v;
                v.id = Get<uint32_t>(jv, "id", 0);
                if (v.id == 0) v.id = s.nextVdiskId++;
                else if (!explicitIds) s.nextVdiskId = std::max(s.nextVdiskId, v.id + 1);
                std::string serial = Get<std::string>(jv, "serial", "");
                if (serial.empty()) v.serial = VdiskSerial(s, v.id);
                else if (!ParseHex(serial, v.serial.data(), 32)) r.Fail("bad vdisk serial " + serial);
                v.name = Get<std::string>(jv, "name", "vd" + std::to_string(v.id)).substr(0, 31);
                v.raid = Get<uint8_t>(jv, "raid", kRaid5);
                v.stripeKiB = Get<uint32_t>(jv, "stripeKiB", 64);
                v.drivesPerLeg = Get<uint32_t>(jv, "drivesPerLeg", 0);
                v.owner = jv.contains("owner") ? OwnerOf(jv["owner"]) : 1;
                v.members = Get<std::vector<std::string>>(jv, "members", {});
                v.spares = Get<std::vector<std::string>>(jv, "spares", {});
                v.expanding = Get<std::vector<std::string>>(jv, "expanding", {});
                v.rebuilding = Get<std::string>(jv, "rebuilding", "");
                v.failedOver = Get(jv, "failedOver", false);
                v.health = Get<uint8_t>(jv, "health", 0);
                v.orderWord = Get<uint32_t>(jv, "orderWord", v.id);
                if (v.members.empty()) r.Fail("vdisk " + v.name + " has no members");
                if (v.members.size() + v.spares.size() > kMaxMembers) r.Fail("vdisk " + v.name + " has more than 68 members");
                if ((v.raid == kRaid50 || v.raid == kRaid30) && v.drivesPerLeg == 0)
                    v.drivesPerLeg = v.members.size() % 2 == 0 ? static_cast<uint32_t>(v.members.size() / 2) : 3;
                uint64_t smallest = 0;
                for (size_t k = 0; k < v.members.size() + v.spares.size(); ++k) {
                    bool spare = k >= v.members.size();
                    const std::string& ds = spare ? v.spares[k - v.members.size()] : v.members[k];
                    if (ds.empty()) continue;  // a missing member
                    Drive* d = FindDrive(s, ds);
                    if (!d) {
                        r.Fail("vdisk " + v.name + " names an unknown drive " + ds);
                        continue;
                    }
                    if (d->vdiskId != 0 && d->vdiskId != v.id) r.Fail("drive " + ds + " is in two vdisks");
                    d->vdiskId = v.id;
                    if (d->howUsed == kAvailable) d->howUsed = spare ? kDedicatedSpare : kMember;
                    if (!spare) {
                        v.driveType = d->type;
                        uint64_t u = UsableBlocks(s, *d);
                        if (smallest == 0 || u < smallest) smallest = u;
                    }
                }
                v.driveType = Get<uint8_t>(jv, "driveType", v.driveType);
                v.memberBlocks = Get<uint64_t>(jv, "memberBlocks", smallest);
                uint32_t dataDrives = static_cast<uint32_t>(v.members.size() - v.expanding.size());
                v.capacity = Get<uint64_t>(jv, "capacityBlocks", CapacityFor(v.raid, dataDrives, v.drivesPerLeg, v.memberBlocks));
                std::string cache = Get<std::string>(jv, "cache", "");
                if (cache.empty()) v.cache[9] = 1;
                else if (!ParseHex(cache, v.cache, 32)) r.Fail("bad cache block " + cache);
                if (jv.contains("utility")) {
                    const json& u = jv["utility"];
                    v.utility = Get<uint8_t>(u, "kind", 0);
                    v.utilityDuration = Get<uint64_t>(u, "durationMs", 1);
                    uint64_t elapsed = Get<uint64_t>(u, "elapsedMs", 0);
                    v.utilityStart = now >= elapsed ? now - elapsed : 0;
                }
                if (jv.contains("partitions"))
                    for (const json& jp : jv["partitions"]) {
                        Partition p;
                        std::string ps = Get<std::string>(jp, "serial", "");
                        if (ps.empty()) p.serial = PartitionSerial(s, s.nextPartitionId++);
                        else if (!ParseHex(ps, p.serial.data(), 32)) r.Fail("bad partition serial " + ps);
                        p.name = Get<std::string>(jp, "name", "vol" + std::to_string(s.nextPartitionId)).substr(0, 63);
                        p.type = Get<uint8_t>(jp, "type", 0);
                        p.blocks = SizeBlocks(jp, r);
                        std::string pc = Get<std::string>(jp, "cache", "");
                        if (pc.empty()) std::memcpy(p.cache, v.cache, 32);
                        else if (!ParseHex(pc, p.cache, 32)) r.Fail("bad cache block " + pc);
                        p.cacheFlags = Get<uint16_t>(jp, "cacheFlags", 0);
                        if (jp.contains("lun")) p.defaultLun = Get<int32_t>(jp, "lun", -1);
                        p.defaultAccess = Get<uint8_t>(jp, "defaultAccess", p.defaultLun >= 0 ? 0xC0 : 0);
                        if (jp.contains("views"))
                            for (const json& jw : jp["views"]) {
                                View w;
                                w.host = Get<std::string>(jw, "host", "");
                                w.hostType = Get<uint8_t>(jw, "hostType", 1);
                                w.lun = Get<uint16_t>(jw, "lun", 0);
                                w.access = Get<uint8_t>(jw, "access", 0xC0);
                                std::string wwn = Get<std::string>(jw, "wwn", "");
                                if (!wwn.empty() && !ParseHex(wwn, w.wwn, 8)) r.Fail("bad view wwn " + wwn);
                                std::string addr = Get<std::string>(jw, "address", "");
                                if (!addr.empty() && !ParseHex(addr, w.address, 16)) r.Fail("bad view address " + addr);
                                p.views.push_back(w);
                            }
                        if (p.views.size() > kMaxViews) r.Fail("more than 128 views on " + p.name);
                        links.push_back({s.vdisks.size(), v.parts.size(), Get<std::string>(jp, "backingStore", ""),
                                         Get<std::string>(jp, "master", "")});
                        if (jp.contains("start")) {
                            p.start = Get<uint64_t>(jp, "start", 0);
                        } else if (p.TakesSpace()) {
                            // Laid into the first free segment that takes it, as the array does.
                            bool placed = false;
                            for (auto [at, len] : FreeOf(v).list)
                                if (len >= p.blocks) {
                                    p.start = at;
                                    placed = true;
                                    break;
                                }
                            if (!placed) r.Fail("partition " + p.name + " doesn't fit in vdisk " + v.name);
                        }
                        v.parts.push_back(p);
                    }
                if (v.parts.size() > kMaxPartitionsPerVdisk) r.Fail("more than 128 partitions in " + v.name);
                s.vdisks.push_back(std::move(v));
            }
        // Links between snapshot volumes, by name or serial.
        auto byNameOrSerial = [&](const std::string& key) -> const Partition* {
            Serial ser{};
            bool isHex = key.size() == 64 && ParseHex(key, ser.data(), 32);
            for (const Vdisk& v : s.vdisks)
                for (const Partition& p : v.parts)
                    if (p.name == key || (isHex && p.serial == ser)) return &p;
            return nullptr;
        };
        for (const PendingLink& l : links) {
            Partition& p = s.vdisks[l.vdisk].parts[l.part];
            if (!l.backing.empty()) {
                const Partition* b = byNameOrSerial(l.backing);
                if (!b || b->type != 1) r.Fail("partition " + p.name + ": no backing store " + l.backing);
                else p.backingStore = b->serial;
            }
            if (!l.master.empty()) {
                const Partition* m = byNameOrSerial(l.master);
                if (!m || m->type != 2) r.Fail("partition " + p.name + ": no master volume " + l.master);
                else {
                    p.master = m->serial;
                    p.start = m->start;
                    p.blocks = m->blocks;
                }
            }
        }
        for (int ci = 0; ci < 2; ++ci) {
            uint32_t owned = 0;
            for (const Vdisk& v : s.vdisks) owned += (v.owner == s.ctrl[ci].id) ? 1 : 0;
            if (owned > kMaxVdisksPerController) r.Fail("more than 32 vdisks on one controller");
        }
        subs.push_back(std::move(s));
        ++si;
    }
    for (size_t a = 0; a < subs.size(); ++a)
        for (size_t b = a + 1; b < subs.size(); ++b) {
            // Serials are made from the prefix: two subsystems must not share one.
            if (std::memcmp(subs[a].prefix, subs[b].prefix, 3) == 0) r.Fail("two subsystems share a serial prefix");
            if (subs[a].uniqueSn == subs[b].uniqueSn) r.Fail("two subsystems share a uniqueSN");
        }
    for (size_t a = 0; a < subs.size(); ++a)
        for (size_t b = 0; b < subs.size(); ++b)
            for (int x = 0; x < 2 && a != b; ++x)
                for (int y = 0; y < 2; ++y)
                    if (subs[a].ctrl[x].handle == subs[b].ctrl[y].handle) r.Fail("a handle is used twice");

    if (!r.ok()) {
        if (error) *error = r.error;
        return false;
    }
    subs_ = std::move(subs);
    adapters_ = std::move(adapters);
    timing_ = timing;
    now_ = now;
    partIndex_.clear();
    ++changes_;
    return true;
}

bool Model::LoadFile(const std::string& path, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        if (error) *error = "cannot open " + path;
        return false;
    }
    json doc = json::parse(in, nullptr, false);
    if (doc.is_discarded()) {
        if (error) *error = path + " is not valid JSON";
        return false;
    }
    return Load(doc, error);
}

bool Model::LoadBuiltin(const std::string& name, std::string* error) {
    if (name == "demo") return Load(DemoScenario(), error);
    if (name == "max") return Load(MaxScenario(), error);
    if (error) *error = "no built-in scenario " + name;
    return false;
}

// ---------------------------------------------------------------------------------------------
// Saving

json Model::Save() const {
    json doc;
    doc["now"] = now_;
    doc["timing"] = {{"expansionMs", timing_.expansionMs}, {"rebuildMs", timing_.rebuildMs},
                     {"verifyMs", timing_.verifyMs}, {"mediaScanMs", timing_.mediaScanMs}};
    doc["adapters"] = json::array();
    for (const Adapter& a : adapters_)
        doc["adapters"].push_back({{"type", std::string(1, a.typeLetter)}, {"port", a.port}, {"wwpn", Hex(a.wwpn, 8)}});
    doc["subsystems"] = json::array();
    for (const Subsystem& s : subs_) {
        json js;
        js["uniqueSN"] = s.uniqueSn;
        js["serialPrefix"] = Hex(s.prefix, 3);
        js["brandName"] = s.brandName;
        js["productId"] = s.productId;
        js["vendorName"] = s.vendorName;
        js["vendorId"] = s.vendorId;
        js["iscsiBaseName"] = s.iscsiBaseName;
        js["systemName"] = s.systemName;
        js["chapEnabled"] = s.chapEnabled;
        js["hostBusType"] = s.hostBusType;
        js["ulp"] = s.ulp;
        js["overheadPerMille"] = s.overheadPerMille;
        js["maxLuns"] = s.maxLuns;
        js["maxArrayPartitions"] = s.maxArrayPartitions;
        js["allowedDriveType"] = s.allowedDriveType;
        js["raid6"] = s.raid6;
        js["enclosures"] = s.enclosures;
        js["slotsPerEnclosure"] = s.slotsPerEnclosure;
        js["limits"] = {{"snapshotsPerMaster", s.snapshotsPerMaster}, {"snapshots", s.snapshotLimit},
                        {"masterVolumes", s.masterLimit}};
        js["knownHosts"] = s.knownHosts;
        js["targetSecret"] = s.targetSecret;
        js["chap"] = json::array();
        for (const ChapRecord& c : s.chap)
            js["chap"].push_back({{"name", c.name}, {"secondName", c.secondName}, {"secret", c.secret},
                                  {"secondText", c.secondText}, {"thirdText", c.thirdText}});
        js["nextVdiskId"] = s.nextVdiskId;
        js["nextPartitionId"] = s.nextPartitionId;
        js["controllers"] = json::array();
        for (const Controller& c : s.ctrl) {
            json jc = {{"handle", c.handle}, {"ident", c.ident}, {"serial", c.serial}, {"firmware", c.firmware},
                       {"ip", Ipv4Text(c.ip)}, {"mac", Hex(c.mac, 6)}, {"state", c.state}, {"offline", c.offline},
                       {"dmsTag", c.dmsTag}, {"nextEvent", c.nextEvent}};
            jc["ports"] = json::array();
            for (const Port& p : c.ports) jc["ports"].push_back(WritePort(p));
            jc["diskPorts"] = json::array();
            for (const Port& p : c.diskPorts) jc["diskPorts"].push_back(WritePort(p));
            jc["events"] = json::array();
            for (const EventRecord& e : c.log) jc["events"].push_back(WriteEvent(e));
            js["controllers"].push_back(jc);
        }
        js["drives"] = json::array();
        for (const Drive& d : s.drives)
            js["drives"].push_back({{"serial", d.serial}, {"vendor", d.vendor}, {"product", d.product},
                                    {"revision", d.revision}, {"type", d.type}, {"blocks", d.blocks},
                                    {"channel", d.channel}, {"scsiId", d.scsiId}, {"lun", d.lun},
                                    {"enclosure", d.enclosure}, {"slot", d.slot}, {"rpm", d.spindleSpeed},
                                    {"howUsed", d.howUsed}, {"downReason", d.downReason}, {"useState", d.useState},
                                    {"blinking", d.blinking}, {"offline", d.offline}, {"vdisk", d.vdiskId}});
        js["vdisks"] = json::array();
        for (const Vdisk& v : s.vdisks) {
            json jv = {{"id", v.id}, {"serial", SerialHex(v.serial)}, {"name", v.name}, {"raid", v.raid},
                       {"stripeKiB", v.stripeKiB}, {"drivesPerLeg", v.drivesPerLeg}, {"owner", v.owner == 1 ? "A" : "B"},
                       {"members", v.members}, {"spares", v.spares}, {"expanding", v.expanding},
                       {"rebuilding", v.rebuilding}, {"failedOver", v.failedOver}, {"health", v.health},
                       {"orderWord", v.orderWord}, {"driveType", v.driveType}, {"memberBlocks", v.memberBlocks},
                       {"capacityBlocks", v.capacity}, {"cache", Hex(v.cache, 32)}};
            if (v.utility != kUtilNone)
                jv["utility"] = {{"kind", v.utility}, {"durationMs", v.utilityDuration},
                                 {"elapsedMs", now_ - std::min(now_, v.utilityStart)}};
            jv["partitions"] = json::array();
            for (const Partition& p : v.parts) {
                json jp = {{"serial", SerialHex(p.serial)}, {"name", p.name}, {"type", p.type}, {"start", p.start},
                           {"blocks", p.blocks}, {"cache", Hex(p.cache, 32)}, {"cacheFlags", p.cacheFlags},
                           {"defaultAccess", p.defaultAccess}};
                if (p.defaultLun >= 0) jp["lun"] = p.defaultLun;
                if (!IsZero(p.backingStore.data(), 32)) jp["backingStore"] = SerialHex(p.backingStore);
                if (!IsZero(p.master.data(), 32)) jp["master"] = SerialHex(p.master);
                jp["views"] = json::array();
                for (const View& w : p.views) {
                    json jw = {{"host", w.host}, {"hostType", w.hostType}, {"lun", w.lun}, {"access", w.access}};
                    if (!IsZero(w.wwn, 8)) jw["wwn"] = Hex(w.wwn, 8);
                    if (!IsZero(w.address, 16)) jw["address"] = Hex(w.address, 16);
                    jp["views"].push_back(jw);
                }
                jv["partitions"].push_back(jp);
            }
            js["vdisks"].push_back(jv);
        }
        doc["subsystems"].push_back(js);
    }
    return doc;
}

bool Model::SaveFile(const std::string& path, std::string* error) const {
    // Written aside and renamed, so that a stop in mid-write leaves the last good state.
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        if (!out) {
            if (error) *error = "cannot write " + tmp;
            return false;
        }
        // Names come from the wire and need not be UTF-8: such bytes are replaced, never thrown at.
        out << Save().dump(1, ' ', false, json::error_handler_t::replace) << "\n";
        if (!out) {
            if (error) *error = "cannot write " + tmp;
            return false;
        }
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        if (error) *error = "cannot rename " + tmp;
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Built-in scenarios

json Model::DemoScenario() {
    json s;
    s["uniqueSN"] = "00C0FF1A2B3C";
    s["productId"] = "R3000i";
    s["vendorName"] = "TROV";
    s["vendorId"] = "TROV";
    s["brandName"] = "Trovi";
    s["systemName"] = "demo-array";
    s["iscsiBaseName"] = "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c";
    s["enclosures"] = 1;
    s["slotsPerEnclosure"] = 12;
    s["maxLuns"] = 256;
    s["maxArrayPartitions"] = 1024;
    auto port = [](const char* ip) {
        return json{{"type", "iscsi"}, {"ip", ip}, {"netmask", "255.255.255.0"}, {"gateway", "192.168.10.1"}};
    };
    s["controllers"] = json::array(
        {json{{"handle", 0x01000100}, {"ip", "10.0.0.2"}, {"ports", {port("192.168.10.10"), port("192.168.10.11")}}},
         json{{"handle", 0x01000101}, {"ip", "10.0.0.3"}, {"ports", {port("192.168.10.20"), port("192.168.10.21")}}}});
    json drives = json::array();
    for (int i = 0; i < 8; ++i) {
        char serial[20];
        std::snprintf(serial, sizeof serial, "3SJ0%04dK", 1201 + i);
        drives.push_back({{"serial", serial}, {"vendor", "SEAGATE"}, {"product", "ST3600057SS"}, {"revision", "0008"},
                          {"type", "SAS"}, {"blocks", 1172123568ull}, {"rpm", 15}, {"slot", i}});
    }
    for (int i = 0; i < 4; ++i) {
        char serial[20];
        std::snprintf(serial, sizeof serial, "9WM0%04dZ", 3301 + i);
        drives.push_back({{"serial", serial}, {"vendor", "SEAGATE"}, {"product", "ST2000NM0011"}, {"revision", "SN02"},
                          {"type", "SATA"}, {"blocks", 3907029168ull}, {"rpm", 7}, {"slot", 8 + i}});
    }
    drives[7]["howUsed"] = kPoolSpare;
    s["drives"] = drives;
    s["vdisks"] = json::array(
        {json{{"name", "VD-SAS-R5"},
              {"raid", kRaid5},
              {"owner", "A"},
              {"members", {"3SJ01201K", "3SJ01202K", "3SJ01203K", "3SJ01204K"}},
              {"partitions",
               {json{{"name", "db01"},
                     {"sizeGiB", 200},
                     {"views", {json{{"host", "iqn.1991-05.com.microsoft:host01.demo.local"}, {"lun", 1}}}}},
                json{{"name", "logs01"}, {"sizeGiB", 50}},
                json{{"name", "scratch01"}, {"sizeGiB", 20}}}}},
         json{{"name", "VD-SATA-R1"},
              {"raid", kRaid1},
              {"owner", "B"},
              {"members", {"9WM03301Z", "9WM03302Z"}},
              {"partitions", {json{{"name", "archive01"}, {"sizeGiB", 500}}}}}});
    s["knownHosts"] = {"iqn.1991-05.com.microsoft:host01.demo.local", "iqn.1991-05.com.microsoft:host02.demo.local"};
    json doc;
    doc["subsystems"] = json::array({s});
    doc["adapters"] = json::array({json{{"type", "I"}, {"port", 0}, {"wwpn", "2100001B32A1B2C3"}}});
    return doc;
}

json Model::MaxScenario() {
    // Everything the records can carry: 250 drives in 16 enclosures, 32 vdisks (16 per
    // controller, within the 32 a record lists) with 128 partitions each, 8 iSCSI ports a side.
    json s;
    s["uniqueSN"] = "00C0FF7F7F7F";
    s["productId"] = "R3000i";
    s["vendorName"] = "TROV";
    s["vendorId"] = "TROV";
    s["systemName"] = "max-array";
    s["enclosures"] = 16;
    s["slotsPerEnclosure"] = 16;
    s["maxLuns"] = 1024;
    s["maxArrayPartitions"] = 8192;
    json ctrls = json::array();
    for (int c = 0; c < 2; ++c) {
        json ports = json::array();
        for (int p = 0; p < 8; ++p) {
            char ip[20];
            std::snprintf(ip, sizeof ip, "192.168.%d.%d", 20 + p, 10 + c);
            ports.push_back({{"type", "iscsi"}, {"ip", ip}, {"netmask", "255.255.255.0"}});
        }
        ctrls.push_back({{"handle", 0x02000200 + c}, {"ports", ports}});
    }
    s["controllers"] = ctrls;
    json drives = json::array();
    for (int i = 0; i < 250; ++i) {
        char serial[20];
        std::snprintf(serial, sizeof serial, "MX%08dS", i);
        drives.push_back({{"serial", serial}, {"type", "SAS"}, {"blocks", 585937500ull}, {"rpm", 15},
                          {"product", "ST3300657SS"}});
    }
    drives[248]["howUsed"] = kPoolSpare;
    drives[249]["howUsed"] = kPoolSpare;
    s["drives"] = drives;
    json vdisks = json::array();
    for (int v = 0; v < 32; ++v) {
        json members = json::array();
        for (int m = 0; m < 7; ++m) members.push_back(drives[static_cast<size_t>(v * 7 + m)]["serial"]);
        json parts = json::array();
        for (int p = 0; p < 128; ++p) {
            char name[32];
            std::snprintf(name, sizeof name, "mx%02d_%03d", v, p);
            json part = {{"name", name}, {"sizeGiB", 8}};
            if (p < 4)
                part["views"] = {json{{"host", "iqn.1991-05.com.microsoft:max-host"}, {"lun", (v / 2) * 4 + p + 1}}};
            parts.push_back(part);
        }
        char name[32];
        std::snprintf(name, sizeof name, "MXVD%02d", v);
        vdisks.push_back({{"name", name}, {"raid", kRaid5}, {"owner", v % 2 == 0 ? "A" : "B"}, {"members", members},
                          {"partitions", parts}});
    }
    s["vdisks"] = vdisks;
    s["knownHosts"] = {"iqn.1991-05.com.microsoft:max-host"};
    json doc;
    doc["subsystems"] = json::array({s});
    return doc;
}

}  // namespace trovsim
