#include "sim/iscsi_plan.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace trovsim {

namespace {

std::string Hex(const uint8_t* p, size_t n) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

int ControllerIndexOf(uint8_t owner) { return owner == 1 ? 0 : 1; }

std::string AddressText(const uint8_t a[16]) {
    char buf[INET6_ADDRSTRLEN] = {};
    static const uint8_t zero[12] = {};
    if (std::memcmp(a, zero, 12) == 0) {
        std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", a[12], a[13], a[14], a[15]);
    } else {
        in6_addr six;
        std::memcpy(&six, a, 16);
        ::inet_ntop(AF_INET6, &six, buf, sizeof buf);
    }
    return buf;
}

std::string PortText(const Port& p) {
    if (p.ipVersion == 6) {
        char buf[INET6_ADDRSTRLEN] = {};
        in6_addr six;
        std::memcpy(&six, p.ip, 16);
        ::inet_ntop(AF_INET6, &six, buf, sizeof buf);
        return "[" + std::string(buf) + "]:" + std::to_string(p.tcpPort ? p.tcpPort : 3260);
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u:%u", p.ip[12], p.ip[13], p.ip[14], p.ip[15],
                  p.tcpPort ? p.tcpPort : 3260);
    return buf;
}

// Who may see one LUN.
struct Audience {
    bool all = false;
    std::set<std::string> names, addresses;
    bool operator==(const Audience&) const = default;
    bool empty() const { return !all && names.empty() && addresses.empty(); }
    std::string Text() const {
        if (all) return "all initiators";
        std::string out;
        for (const auto& n : names) out += (out.empty() ? "" : ", ") + n;
        for (const auto& a : addresses) out += (out.empty() ? "" : ", ") + a;
        return out;
    }
};

struct Candidate {
    const Partition* part;
    uint32_t lun;
    Audience audience;
};

std::string Fit(const std::string& text, size_t width) { return text.substr(0, std::min(text.size(), width)); }

// One target: the partitions of `vdisks` that have a view, at their numbers, and who may log in.
IscsiTargetPlan PlanTarget(const Subsystem& s, const std::string& name, const std::vector<const Vdisk*>& vdisks,
                           const Controller& ctl, std::vector<std::string>& warnings) {
    IscsiTargetPlan t;
    t.name = name;
    std::vector<Candidate> served;
    for (const Vdisk* v : vdisks) {
        for (const Partition& p : v->parts) {
            if (p.type == 1) continue;  // a backing store is never presented
            if (p.defaultLun < 0 && p.views.empty()) continue;
            Audience aud;
            int64_t lun = -1;
            if (p.defaultLun >= 0) {
                aud.all = true;
                lun = p.defaultLun;
            }
            std::vector<std::string> numbers;
            for (const View& w : p.views) {
                std::string who;
                if (w.hostType == 0x40 || w.hostType == 0x80) {
                    who = AddressText(w.address);
                    aud.addresses.insert(who);
                } else if (w.hostType == 16) {
                    warnings.push_back("volume " + p.name + ": a view for WWN " + Hex(w.wwn, 8) +
                                       " has no meaning over iSCSI; ignored");
                    continue;
                } else {
                    who = w.host;
                    aud.names.insert(who);
                }
                numbers.push_back("LUN " + std::to_string(w.lun) + " for " + who);
                if (lun < 0) lun = w.lun;  // without a default view, the first view's number stands
            }
            if (aud.empty()) continue;
            bool mixed = false;
            for (const View& w : p.views)
                if (w.hostType != 16 && w.lun != lun) mixed = true;
            if (mixed) {
                std::string list = p.defaultLun >= 0 ? "LUN " + std::to_string(p.defaultLun) + " for all initiators" : "";
                for (const auto& n : numbers) list += (list.empty() ? "" : ", ") + n;
                warnings.push_back("volume " + p.name + " is " + list + "; tgtd serves one number to every initiator: LUN " +
                                   std::to_string(lun));
            }
            if (lun == kIscsiReservedLun) {
                warnings.push_back("volume " + p.name + " is LUN 0, which tgtd keeps for its own controller device; not served");
                continue;
            }
            if (lun > kIscsiMaxLun) {
                warnings.push_back("volume " + p.name + " is LUN " + std::to_string(lun) + ", above tgtd's " +
                                   std::to_string(kIscsiMaxLun) + "; not served");
                continue;
            }
            served.push_back({&p, static_cast<uint32_t>(lun), aud});
        }
    }

    std::vector<const Candidate*> kept;
    for (const Candidate& c : served) {
        auto it = t.luns.find(c.lun);
        if (it != t.luns.end()) {
            warnings.push_back("volumes " + it->second.volume + " and " + c.part->name + " are both LUN " +
                               std::to_string(c.lun) + " of " + name + " (for different initiators); tgtd serves one: " +
                               it->second.volume);
            continue;
        }
        IscsiLunPlan l;
        l.lun = c.lun;
        l.file = IscsiLunFile(c.part->serial);
        l.bytes = c.part->blocks * 512;
        l.volume = c.part->name;
        l.inquiry.vendor = Fit(s.vendorId, 8);
        l.inquiry.product = Fit(s.productId, 16);
        l.inquiry.revision = Fit(ctl.firmware, 4);
        l.inquiry.serial = IscsiSerialText(c.part->serial);
        auto id = IscsiDesignator(c.part->serial);
        l.inquiry.deviceId = Hex(id.data(), id.size());
        t.luns.emplace(c.lun, l);
        kept.push_back(&c);
    }

    // The daemon admits initiators per target. When every LUN has the same audience it is exact;
    // otherwise every admitted initiator sees every LUN, and the log says which views suffer.
    if (kept.empty()) {
        t.admitAll = true;  // nothing to hide: any initiator may log in and find no LUN
        return t;
    }
    Audience all;
    bool same = true;
    for (const Candidate* c : kept) {
        same = same && c->audience == kept.front()->audience;
        all.all = all.all || c->audience.all;
        all.names.insert(c->audience.names.begin(), c->audience.names.end());
        all.addresses.insert(c->audience.addresses.begin(), c->audience.addresses.end());
    }
    if (!same) {
        std::string list;
        for (const Candidate* c : kept) list += (list.empty() ? "" : "; ") + c->part->name + " (" + c->audience.Text() + ")";
        warnings.push_back("target " + name +
                           ": tgtd admits initiators per target, not per LUN, so every initiator it admits sees all "
                           "of its LUNs; views it cannot separate: " + list);
    }
    t.admitAll = all.all;
    if (!all.all) {
        t.initiatorNames = all.names;
        t.initiatorAddresses = all.addresses;
    }
    return t;
}

}  // namespace

std::string IscsiSerialText(const Serial& serial) { return Hex(serial.data(), 16); }

std::array<uint8_t, 16> IscsiDesignator(const Serial& s) {
    std::array<uint8_t, 16> d{};
    d[0] = static_cast<uint8_t>(0x60 | (s[0] >> 4));
    d[1] = static_cast<uint8_t>((s[0] << 4) | (s[1] >> 4));
    d[2] = static_cast<uint8_t>((s[1] << 4) | (s[2] >> 4));
    d[3] = static_cast<uint8_t>(s[2] << 4);
    d[4] = 0;
    d[5] = s[3];
    d[6] = s[4];
    d[7] = s[5];
    for (int i = 8; i < 16; ++i) d[i] = s[i];
    return d;
}

std::string IscsiLunFile(const Serial& serial) { return "lun-" + Hex(serial.data(), 16) + ".img"; }

bool IsIscsiLunFile(const std::string& name) {
    if (name.size() != 4 + 32 + 4 || name.compare(0, 4, "lun-") != 0 || name.compare(36, 4, ".img") != 0) return false;
    return std::all_of(name.begin() + 4, name.begin() + 36,
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

IscsiPlan PlanIscsi(const Model& model, bool loopback) {
    IscsiPlan plan;
    std::map<std::string, std::string> accountOrigin;  // user -> subsystem, for the clash warning
    for (const Subsystem& s : model.subsystems()) {
        for (const Vdisk& v : s.vdisks)
            for (const Partition& p : v.parts) plan.files.insert(IscsiLunFile(p.serial));

        // CHAP: a secret for a named initiator is that initiator's account; the secret for all
        // initiators becomes an account for each initiator the array knows by name.
        std::set<std::string> users;
        auto addAccount = [&](const std::string& user, const std::string& secret) {
            if (user.empty() || secret.empty()) return;
            auto it = plan.accounts.find(user);
            if (it != plan.accounts.end() && it->second != secret) {
                plan.warnings.push_back("CHAP user " + user + " has other secrets in subsystems " + accountOrigin[user] +
                                        " and " + s.uniqueSn + "; tgtd keeps the first");
                return;
            }
            if (it == plan.accounts.end()) {
                plan.accounts[user] = secret;
                accountOrigin[user] = s.uniqueSn;
            }
            users.insert(user);
        };
        std::set<std::string> own;
        for (const ChapRecord& r : s.chap)
            if (!r.secret.empty()) {
                addAccount(r.name, r.secret);
                own.insert(r.name);
            }
        if (!s.targetSecret.empty()) {
            std::set<std::string> names(s.knownHosts.begin(), s.knownHosts.end());
            for (const Vdisk& v : s.vdisks)
                for (const Partition& p : v.parts)
                    for (const View& w : p.views)
                        if (w.hostType == 1 && !w.host.empty()) names.insert(w.host);
            for (const auto& n : names)
                if (!own.count(n)) addAccount(n, s.targetSecret);
        }

        auto portalsOf = [&](int index) {
            std::vector<std::string> out;
            if (!loopback) return out;
            for (int c = 0; c < 2; ++c) {
                if (index >= 0 && c != index) continue;
                for (const Port& p : s.ctrl[c].ports)
                    if (p.busType == 9) out.push_back(PortText(p));
            }
            return out;
        };
        auto finish = [&](IscsiTargetPlan t, int index) {
            t.portals = portalsOf(index);
            t.accounts = users;
            // Mutual CHAP: the daemon keeps one account per target for answering initiators.
            std::vector<const ChapRecord*> mutual;
            for (const ChapRecord& r : s.chap)
                if (!r.thirdText.empty() && r.secondText == t.name) mutual.push_back(&r);
            if (!mutual.empty()) {
                t.outgoingAccount = t.name;
                if (!plan.accounts.count(t.name)) plan.accounts[t.name] = mutual.front()->thirdText;
                if (mutual.size() > 1) {
                    std::string list;
                    for (const ChapRecord* r : mutual) list += (list.empty() ? "" : ", ") + r->name;
                    plan.warnings.push_back("target " + t.name + ": initiator secrets for mutual CHAP of " + list +
                                            "; tgtd answers every initiator with one, that of " + mutual.front()->name);
                }
            }
            plan.targets.push_back(std::move(t));
        };

        if (s.ulp) {
            int up = !s.ctrl[0].offline ? 0 : !s.ctrl[1].offline ? 1 : -1;
            if (up < 0) continue;
            std::vector<const Vdisk*> all;
            for (const Vdisk& v : s.vdisks) all.push_back(&v);
            finish(PlanTarget(s, s.iscsiBaseName, all, s.ctrl[up], plan.warnings), -1);
            continue;
        }
        for (int c = 0; c < 2; ++c) {
            if (s.ctrl[c].offline) continue;
            std::vector<const Vdisk*> mine;
            for (const Vdisk& v : s.vdisks)
                if (ControllerIndexOf(v.owner) == c) mine.push_back(&v);
            finish(PlanTarget(s, s.iscsiBaseName + (c == 0 ? ".a" : ".b"), mine, s.ctrl[c], plan.warnings), c);
        }
    }
    return plan;
}

std::vector<std::string> MapPortsToLoopback(Model& model, uint16_t tcpPort) {
    std::vector<std::string> out;
    uint8_t si = 1;
    for (Subsystem& s : model.subsystems()) {
        for (int c = 0; c < 2; ++c) {
            uint8_t pi = 1;
            for (Port& p : s.ctrl[c].ports) {
                if (p.busType != 9) continue;
                std::memset(p.ip, 0, sizeof p.ip);
                p.ipVersion = 4;
                p.ip[12] = 127;
                p.ip[13] = si;
                p.ip[14] = static_cast<uint8_t>(c + 1);
                p.ip[15] = pi++;
                p.tcpPort = tcpPort;
                out.push_back(PortText(p));
            }
        }
        model.Touch(s);
        ++si;
    }
    return out;
}

}  // namespace trovsim
