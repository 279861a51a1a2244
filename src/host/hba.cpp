#include "host/hba.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/provider.h"
#include "host/multipath.h"
#include "platform/platform.h"
#include "platform/scsi_sysfs.h"
#include "proxy/kelvane.h"
#include "proxy/records.h"
#include "support/debuglog.h"

namespace {

std::string Attr(const std::string& dir, const char* name) {
    std::string s;
    ReadSysfsText(dir + "/" + name, &s);
    return s;
}

bool StartsWith(const std::string& s, const char* p) { return s.compare(0, std::strlen(p), p) == 0; }

std::vector<std::string> Entries(const std::string& dir, size_t limit) {
    std::vector<std::string> names, out;
    int err = 0;
    if (!Plat()->ListDirectory(dir, &names, &err)) return out;
    for (std::string& n : names)
        if (IsSafeSysfsName(n) && out.size() < limit) out.push_back(std::move(n));
    return out;
}

// "rport-H:B-N": the SCSI host and bus of a remote port.
bool RemotePortHost(const std::string& name, uint32_t* host, uint32_t* bus) {
    if (!StartsWith(name, "rport-")) return false;
    size_t colon = name.find(':', 6), dash = name.find('-', 6);
    if (colon == std::string::npos || dash == std::string::npos || dash < colon) return false;
    *host = static_cast<uint32_t>(DeviceNumberOf(name.substr(6, colon - 6)));
    *bus = static_cast<uint32_t>(DeviceNumberOf(name.substr(colon + 1, dash - colon - 1)));
    return colon > 6 && dash > colon + 1;
}

std::string Wwn(const uint8_t* w) {
    char b[32];
    std::snprintf(b, sizeof b, "%02X:%02X:%02X:%02X:%02X:%02X:%02X:%02X", w[0], w[1], w[2], w[3], w[4], w[5], w[6],
                  w[7]);
    return b;
}

}  // namespace

bool ParseWwn(const std::string& text, uint8_t out[8]) {
    std::string s = StartsWith(text, "0x") ? text.substr(2) : text;
    if (s.size() != 16) return false;
    uint8_t w[8];
    for (int i = 0; i < 8; ++i) {
        unsigned v;
        if (!std::isxdigit(static_cast<unsigned char>(s[2 * i])) ||
            !std::isxdigit(static_cast<unsigned char>(s[2 * i + 1])) ||
            std::sscanf(s.c_str() + 2 * i, "%2x", &v) != 1)
            return false;
        w[i] = static_cast<uint8_t>(v);
    }
    std::memcpy(out, w, 8);
    return true;
}

uint32_t HbaPortTypeOf(const std::string& t) {
    if (StartsWith(t, "NPort")) return HBA_PORTTYPE_NPORT;
    if (StartsWith(t, "NLPort")) return HBA_PORTTYPE_NLPORT;
    if (StartsWith(t, "LPort")) return HBA_PORTTYPE_LPORT;
    if (StartsWith(t, "Point-To-Point")) return HBA_PORTTYPE_PTP;
    if (StartsWith(t, "Not Present")) return HBA_PORTTYPE_NOTPRESENT;
    if (StartsWith(t, "Other") || StartsWith(t, "NPIV")) return HBA_PORTTYPE_OTHER;
    return HBA_PORTTYPE_UNKNOWN;
}

uint32_t HbaPortStateOf(const std::string& t) {
    if (t == "Online") return HBA_PORTSTATE_ONLINE;
    if (t == "Offline" || t == "Blocked" || t == "NotPresent") return HBA_PORTSTATE_OFFLINE;
    if (t == "Bypassed") return HBA_PORTSTATE_BYPASSED;
    if (t == "Diagnostics") return HBA_PORTSTATE_DIAGNOSTICS;
    if (t == "Linkdown") return HBA_PORTSTATE_LINKDOWN;
    if (t == "Error") return HBA_PORTSTATE_ERROR;
    if (t == "Loopback") return HBA_PORTSTATE_LOOPBACK;
    return HBA_PORTSTATE_UNKNOWN;
}

uint32_t HbaSpeedOf(const std::string& text) {
    static const struct {
        const char* name;
        uint32_t bit;
    } kSpeeds[] = {{"1 Gbit", 0x1},    {"2 Gbit", 0x2},    {"10 Gbit", 0x4},   {"4 Gbit", 0x8},
                   {"8 Gbit", 0x10},   {"16 Gbit", 0x20},  {"32 Gbit", 0x40},  {"20 Gbit", 0x80},
                   {"40 Gbit", 0x100}, {"128 Gbit", 0x200}, {"64 Gbit", 0x400}, {"256 Gbit", 0x800},
                   {"Not Negotiated", 1u << 15}};
    uint32_t bits = 0;
    size_t at = 0;
    while (at <= text.size()) {
        size_t end = text.find(',', at);
        std::string one = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        while (!one.empty() && one.front() == ' ') one.erase(0, 1);
        while (!one.empty() && one.back() == ' ') one.pop_back();
        for (const auto& s : kSpeeds)
            if (one == s.name) bits |= s.bit;
        if (end == std::string::npos) break;
        at = end + 1;
    }
    return bits;
}

int GetHbaPortProp(std::vector<HbaPort>& list) {
    std::string root = Plat()->HostRoot();
    std::vector<std::string> classes;
    int err = 0;
    // The host's adapter facilities are its sysfs classes; without them there is nothing to load.
    if (!Plat()->ListDirectory(root + "/sys/class", &classes, &err)) return 1;
    for (const std::string& name : Entries(root + "/sys/class/fc_host", kMaxFcHosts)) {
        if (!StartsWith(name, "host")) continue;
        std::string dir = root + "/sys/class/fc_host/" + name;
        HbaPort p;
        std::memset(&p, 0, sizeof p);
        if (!ParseWwn(Attr(dir, "port_name"), p.PortWWN)) {
            DebugTrace("Error get HBA adapter name\n");
            continue;
        }
        ParseWwn(Attr(dir, "node_name"), p.NodeWWN);
        p.PortType = HbaPortTypeOf(Attr(dir, "port_type"));
        p.PortState = HbaPortStateOf(Attr(dir, "port_state"));
        p.PortSpeed = HbaSpeedOf(Attr(dir, "speed"));
        p.PortSupportedSpeed = HbaSpeedOf(Attr(dir, "supported_speeds"));
        p.portNumber = static_cast<uint32_t>(DeviceNumberOf(name));
        list.push_back(p);
    }
    return 0;
}

void GetHbaPortPropsByProxy(CProvider*, std::vector<HbaPort>& list) {
    DebugTrace("GetHbaPortPropsByProxy() enter\n");
    std::unique_ptr<HbaInfoList> info(new HbaInfoList{});
    if (Kelvane::get_connect_Hba_info_list(info.get()) != 0) {
        DebugTrace("OOP!!! CProvider::get_connect_Hba_info_list()  return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
        return;
    }
    uint32_t count = info->entryCount();
    // The flag is not cleared between entries: once one entry matched a port, the later entries
    // count as found too (unless the list is empty). Hosts have always seen it so.
    bool found = false;
    for (uint32_t i = 0; i < count; ++i) {
        const HbaInfoEntry& e = info->entries[i];
        for (const HbaPort& p : list)
            if (std::memcmp(p.PortWWN, e.wwpn, 8) == 0) found = true;
        if (list.empty() || !found) {
            HbaPort p;
            std::memset(&p, 0, sizeof p);
            p.portNumber = e.portNumber;
            std::memcpy(p.NodeWWN, e.wwpn, 8);
            std::memcpy(p.PortWWN, e.wwpn, 8);
            p.PortType = HBA_PORTTYPE_NPORT;
            p.PortState = HBA_PORTSTATE_ONLINE;
            list.push_back(p);
            const uint8_t* w = e.wwpn;
            DebugTrace("GetHbaPortPropByProxy() adding HBA port=%d type=%c wwpn=%02x%02x%02x%02x%02x%02x%02x%02x\n",
                       e.portNumber, e.typeLetter, w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7]);
        }
    }
    DebugTrace("GetHbaPortPropsByProxy() exit (%d HBAs from kelvane)\n", static_cast<int>(count));
}

void GetFcpTargetMappings(const uint8_t portWWN[8], std::vector<HbaFcpScsiEntryV2>& mappings) {
    std::string root = Plat()->HostRoot();
    std::vector<std::string> classes;
    int err = 0;
    if (!Plat()->ListDirectory(root + "/sys/class", &classes, &err)) {
        DebugTrace("Error 0x%08X loading the HBA librarys.", static_cast<unsigned>(err));
        return;
    }
    std::vector<std::string> hosts = Entries(root + "/sys/class/fc_host", kMaxFcHosts);
    DebugTrace("The Host has %d Hba Adapters.\n", static_cast<int>(hosts.size()));
    std::vector<HostScsiDevice> units;
    ListHostScsiDevices(root, &units, &err);
    for (size_t a = 0; a < hosts.size(); ++a) {
        std::string dir = root + "/sys/class/fc_host/" + hosts[a];
        uint8_t wwn[8] = {};
        if (!ParseWwn(Attr(dir, "port_name"), wwn)) continue;
        DebugTrace("The Adapter[%d][%d] port WWN: %s OSDeviceName=%s\n", static_cast<int>(a), 0, Wwn(wwn).c_str(),
                   hosts[a].c_str());
        if (std::memcmp(wwn, portWWN, 8) != 0) continue;
        uint32_t hostNumber = static_cast<uint32_t>(DeviceNumberOf(hosts[a]));
        std::vector<HbaFcpScsiEntryV2> block;
        for (const std::string& rp : Entries(root + "/sys/class/fc_remote_ports", kMaxFcpMappings * 4)) {
            uint32_t h, bus;
            if (!RemotePortHost(rp, &h, &bus) || h != hostNumber) continue;
            std::string rdir = root + "/sys/class/fc_remote_ports/" + rp;
            std::string tid = Attr(rdir, "scsi_target_id");
            if (tid.empty() || tid[0] == '-') continue;  // not a SCSI target
            uint32_t target = static_cast<uint32_t>(DeviceNumberOf(tid));
            HbaFcpScsiEntryV2 e;
            std::memset(&e, 0, sizeof e);
            std::snprintf(e.ScsiId.OSDeviceName, sizeof e.ScsiId.OSDeviceName, "\\\\.\\Scsi%u:", hostNumber);
            e.ScsiId.ScsiBusNumber = bus;
            e.ScsiId.ScsiTargetNumber = target;
            ParseWwn(Attr(rdir, "port_name"), e.FcpId.PortWWN);
            ParseWwn(Attr(rdir, "node_name"), e.FcpId.NodeWWN);
            e.FcpId.FcId = static_cast<uint32_t>(std::strtoul(Attr(rdir, "port_id").c_str(), nullptr, 16));
            bool any = false;
            for (const HostScsiDevice& u : units) {
                if (u.host != hostNumber || u.channel != bus || u.target != target) continue;
                if (block.size() >= kMaxFcpMappings) break;
                e.ScsiId.ScsiOSLun = u.lun;
                e.FcpId.FcpLun = static_cast<uint64_t>(u.lun) << 48;
                block.push_back(e);
                any = true;
            }
            if (!any && block.size() < kMaxFcpMappings) block.push_back(e);
        }
        for (const HbaFcpScsiEntryV2& e : block) {
            DebugTrace("Target ScsiId: Port = %s, Bus = %d, Target = %d, Lun=%d\n", e.ScsiId.OSDeviceName,
                       e.ScsiId.ScsiBusNumber, e.ScsiId.ScsiTargetNumber, e.ScsiId.ScsiOSLun);
            DebugTrace("The target port WWN: %s\n", Wwn(e.FcpId.PortWWN).c_str());
            // One line stands for all LUNs behind a target.
            bool seen = std::any_of(mappings.begin(), mappings.end(), [&](const HbaFcpScsiEntryV2& m) {
                return std::memcmp(m.FcpId.PortWWN, e.FcpId.PortWWN, 8) == 0 &&
                       m.ScsiId.ScsiTargetNumber == e.ScsiId.ScsiTargetNumber;
            });
            if (!seen) mappings.push_back(e);
        }
    }
}

void ReadIscsiSessions(std::vector<IscsiSession>* sessions, std::string* initiatorName) {
    sessions->clear();
    initiatorName->clear();
    std::string root = Plat()->HostRoot();
    std::vector<InitiatorNode> nodes;
    if (VdsWmi::WmiGetInitiatorNodeInfo(nodes) == 0 && !nodes.empty()) {
        for (char16_t c : nodes[0].iSCSINodeName) initiatorName->push_back(static_cast<char>(c < 128 ? c : '?'));
    }
    for (const std::string& h : Entries(root + "/sys/class/iscsi_host", kMaxFcHosts)) {
        if (!StartsWith(h, "host")) continue;
        std::string dev = root + "/sys/class/iscsi_host/" + h + "/device";
        for (const std::string& s : Entries(dev, kMaxIscsiSessions)) {
            if (!StartsWith(s, "session") || sessions->size() >= kMaxIscsiSessions) continue;
            IscsiSession is;
            is.host = static_cast<uint32_t>(DeviceNumberOf(h));
            is.session = s;
            std::string sdir = dev + "/" + s + "/iscsi_session/" + s;
            is.targetName = Attr(sdir, "targetname");
            is.state = Attr(sdir, "state");
            is.tpgt = static_cast<uint32_t>(DeviceNumberOf(Attr(sdir, "tpgt")));
            for (const std::string& c : Entries(dev + "/" + s, 64)) {
                if (!StartsWith(c, "connection")) continue;
                std::string cdir = dev + "/" + s + "/" + c + "/iscsi_connection/" + c;
                is.address = Attr(cdir, "persistent_address");
                is.port = static_cast<uint32_t>(DeviceNumberOf(Attr(cdir, "persistent_port")));
                break;
            }
            sessions->push_back(std::move(is));
        }
    }
}
