#include "sim/iscsi_reconcile.h"

#include <sstream>

namespace trovsim {

namespace {

std::vector<std::string> Iscsi(std::initializer_list<std::string> args) {
    std::vector<std::string> out{"--lld", "iscsi"};
    out.insert(out.end(), args);
    return out;
}

std::string Params(const IscsiInquiry& q) {
    return "vendor_id=" + TgtParamValue(q.vendor) + ",product_id=" + TgtParamValue(q.product) +
           ",product_rev=" + TgtParamValue(q.revision) + ",scsi_sn=" + TgtParamValue(q.serial) +
           ",scsi_id=" + TgtParamValue(q.deviceId);
}

std::string FirstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    return line.empty() ? "no message" : line;
}

std::string Trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

}  // namespace

std::string TgtParamValue(const std::string& text) {
    std::string out;
    for (char c : text) out += (c == ',' || c == '=' || static_cast<unsigned char>(c) < 0x20) ? '_' : c;
    return out;
}

bool IscsiReconciler::Note(const std::string& what, bool ok, const std::string& detail) {
    attempted_.insert(what);
    auto it = failing_.find(what);
    if (ok) {
        if (it != failing_.end()) {
            log_("iSCSI: " + what + ": done after " + std::to_string(it->second) + " refusal(s)");
            failing_.erase(it);
        }
        return true;
    }
    ++failures_;
    if (it == failing_.end()) {
        log_("iSCSI: " + what + " refused: " + detail + " (tried again at each sync)");
        failing_[what] = 1;
    } else {
        ++it->second;
    }
    return false;
}

bool IscsiReconciler::Run(const std::string& what, const std::vector<std::string>& args, std::string* output) {
    std::string out;
    bool ok = d_.Tgtadm(args, &out);
    if (output) *output = out;
    return Note(what, ok, FirstLine(out));
}

void IscsiReconciler::ForgetDaemon() {
    std::set<std::string> files = applied_.files;
    applied_ = IscsiApplied{};
    applied_.files = files;
}

void IscsiReconciler::DropSessions(const std::string& name, IscsiApplied::Target& t) {
    std::string out;
    if (!Run("list the sessions of " + name, Iscsi({"--op", "show", "--mode", "conn", "--tid", std::to_string(t.tid)}), &out))
        return;
    std::istringstream in(out);
    std::string line, sid, cid, who, address;
    auto judge = [&] {
        if (sid.empty() || cid.empty()) return;
        bool admitted = t.admitAll || t.names.count(who) || t.addresses.count(address);
        if (!admitted)
            Run("close the session of " + who + " on " + name,
                Iscsi({"--op", "delete", "--mode", "conn", "--tid", std::to_string(t.tid), "--sid", sid, "--cid", cid}));
        cid.clear();
        who.clear();
        address.clear();
    };
    while (std::getline(in, line)) {
        std::string l = Trim(line);
        if (l.rfind("Session:", 0) == 0) {
            judge();
            sid = Trim(l.substr(8));
        } else if (l.rfind("Connection:", 0) == 0) {
            judge();
            cid = Trim(l.substr(11));
        } else if (l.rfind("Initiator:", 0) == 0) {
            who = Trim(l.substr(10));
            size_t alias = who.find(" alias:");
            if (alias != std::string::npos) who = who.substr(0, alias);
        } else if (l.rfind("IP Address:", 0) == 0) {
            address = Trim(l.substr(11));
        }
    }
    judge();
}

uint32_t IscsiReconciler::Sync(const IscsiPlan& plan) {
    failures_ = 0;
    attempted_.clear();
    std::map<std::string, const IscsiTargetPlan*> wanted;
    for (const IscsiTargetPlan& t : plan.targets) wanted[t.name] = &t;

    // Targets that went (a controller offline, a shared target no more) go first, sessions and all.
    for (auto it = applied_.targets.begin(); it != applied_.targets.end();) {
        if (wanted.count(it->first) ||
            !Run("remove target " + it->first,
                 Iscsi({"--op", "delete", "--mode", "target", "--tid", std::to_string(it->second.tid), "--force"}))) {
            ++it;
            continue;
        }
        it = applied_.targets.erase(it);
    }

    // New targets, at the lowest free number; then the LUNs that went or changed.
    for (const IscsiTargetPlan& t : plan.targets) {
        if (!applied_.targets.count(t.name)) {
            std::set<uint32_t> used;
            for (const auto& [n, a] : applied_.targets) used.insert(a.tid);
            uint32_t tid = 1;
            while (used.count(tid)) ++tid;
            if (!Run("create target " + t.name,
                     Iscsi({"--op", "new", "--mode", "target", "--tid", std::to_string(tid), "--targetname", t.name})))
                continue;
            applied_.targets[t.name].tid = tid;
        }
        IscsiApplied::Target& a = applied_.targets[t.name];
        for (auto it = a.luns.begin(); it != a.luns.end();) {
            auto w = t.luns.find(it->first);
            bool keep = w != t.luns.end() && w->second.file == it->second.file && w->second.bytes == it->second.bytes;
            if (keep || !Run("remove LUN " + std::to_string(it->first) + " of " + t.name,
                             Iscsi({"--op", "delete", "--mode", "logicalunit", "--tid", std::to_string(a.tid), "--lun",
                                    std::to_string(it->first)}))) {
                ++it;
                continue;
            }
            it = a.luns.erase(it);
        }
    }

    // Accounts: one that went or whose secret changed is unbound everywhere and removed.
    for (auto it = applied_.accounts.begin(); it != applied_.accounts.end();) {
        auto w = plan.accounts.find(it->first);
        if (w != plan.accounts.end() && w->second == it->second) {
            ++it;
            continue;
        }
        bool unbound = true;
        for (auto& [name, a] : applied_.targets) {
            bool in = a.accounts.count(it->first), out = a.outgoing == it->first;
            if (!in && !out) continue;
            std::vector<std::string> args =
                Iscsi({"--op", "unbind", "--mode", "account", "--tid", std::to_string(a.tid), "--user", it->first});
            if (out) args.push_back("--outgoing");
            if (Run("unbind CHAP user " + it->first + " from " + name, args)) {
                a.accounts.erase(it->first);
                if (out) a.outgoing.clear();
            } else {
                unbound = false;
            }
        }
        if (unbound && Run("remove CHAP user " + it->first, Iscsi({"--op", "delete", "--mode", "account", "--user", it->first})))
            it = applied_.accounts.erase(it);
        else
            ++it;
    }
    for (const auto& [user, secret] : plan.accounts)
        if (!applied_.accounts.count(user) &&
            Run("add CHAP user " + user, Iscsi({"--op", "new", "--mode", "account", "--user", user, "--password", secret})))
            applied_.accounts[user] = secret;

    for (const IscsiTargetPlan& t : plan.targets) {
        auto at = applied_.targets.find(t.name);
        if (at == applied_.targets.end()) continue;
        IscsiApplied::Target& a = at->second;
        std::string tid = std::to_string(a.tid);

        // LUNs: the file at its size, the LUN, then its inquiry data.
        for (const auto& [lun, l] : t.luns) {
            std::string what = "LUN " + std::to_string(lun) + " (" + l.volume + ") of " + t.name;
            if (!a.luns.count(lun)) {
                std::string err;
                if (!Note("size the file of " + l.volume, d_.SizeFile(l.file, l.bytes, &err), err)) continue;
                applied_.files.insert(l.file);
                if (!Run("add " + what, Iscsi({"--op", "new", "--mode", "logicalunit", "--tid", tid, "--lun",
                                               std::to_string(lun), "--backing-store", d_.PathOf(l.file)})))
                    continue;
                a.luns[lun] = IscsiApplied::Lun{l.file, l.bytes, {}};
            }
            IscsiApplied::Lun& have = a.luns[lun];
            if (!(have.inquiry == l.inquiry) &&
                Run("set the inquiry data of " + what, Iscsi({"--op", "update", "--mode", "logicalunit", "--tid", tid,
                                                             "--lun", std::to_string(lun), "--params", Params(l.inquiry)})))
                have.inquiry = l.inquiry;
        }

        // Who may log in: the new entries before the old go, so nobody admitted is locked out
        // between the two.
        bool narrowed = false;
        auto bind = [&](const char* opt, const std::string& who, bool on) {
            return Run(std::string(on ? "admit " : "stop admitting ") + who + " to " + t.name,
                       Iscsi({"--op", on ? "bind" : "unbind", "--mode", "target", "--tid", tid, opt, who}));
        };
        if (t.admitAll && !a.admitAll && bind("--initiator-address", "ALL", true)) a.admitAll = true;
        for (const auto& n : t.initiatorNames)
            if (!a.names.count(n) && bind("--initiator-name", n, true)) a.names.insert(n);
        for (const auto& n : t.initiatorAddresses)
            if (!a.addresses.count(n) && bind("--initiator-address", n, true)) a.addresses.insert(n);
        if (!t.admitAll && a.admitAll && bind("--initiator-address", "ALL", false)) {
            a.admitAll = false;
            narrowed = true;
        }
        for (auto it = a.names.begin(); it != a.names.end();) {
            if (!t.initiatorNames.count(*it) && bind("--initiator-name", *it, false)) {
                it = a.names.erase(it);
                narrowed = true;
            } else {
                ++it;
            }
        }
        for (auto it = a.addresses.begin(); it != a.addresses.end();) {
            if (!t.initiatorAddresses.count(*it) && bind("--initiator-address", *it, false)) {
                it = a.addresses.erase(it);
                narrowed = true;
            } else {
                ++it;
            }
        }
        if (narrowed) DropSessions(t.name, a);

        // CHAP bindings.
        auto account = [&](const std::string& user, bool on, bool outgoing) {
            std::vector<std::string> args =
                Iscsi({"--op", on ? "bind" : "unbind", "--mode", "account", "--tid", tid, "--user", user});
            if (outgoing) args.push_back("--outgoing");
            return Run(std::string(on ? "bind" : "unbind") + (outgoing ? " outgoing" : "") + " CHAP user " + user +
                           (on ? " to " : " from ") + t.name,
                       args);
        };
        for (auto it = a.accounts.begin(); it != a.accounts.end();) {
            if (!t.accounts.count(*it) && account(*it, false, false)) it = a.accounts.erase(it);
            else ++it;
        }
        for (const auto& u : t.accounts)
            if (!a.accounts.count(u) && applied_.accounts.count(u) && account(u, true, false)) a.accounts.insert(u);
        if (!a.outgoing.empty() && a.outgoing != t.outgoingAccount && account(a.outgoing, false, true)) a.outgoing.clear();
        if (!t.outgoingAccount.empty() && a.outgoing.empty() && applied_.accounts.count(t.outgoingAccount) &&
            account(t.outgoingAccount, true, true))
            a.outgoing = t.outgoingAccount;
    }

    // Files of partitions that are gone, once no LUN uses them.
    std::set<std::string> inUse;
    for (const auto& [n, a] : applied_.targets)
        for (const auto& [l, lun] : a.luns) inUse.insert(lun.file);
    for (auto it = applied_.files.begin(); it != applied_.files.end();) {
        std::string err;
        if (plan.files.count(*it) || inUse.count(*it) || !Note("remove " + *it, d_.RemoveFile(*it, &err), err)) {
            ++it;
            continue;
        }
        it = applied_.files.erase(it);
    }

    // A change the model no longer asks for is no longer failing.
    for (auto it = failing_.begin(); it != failing_.end();)
        it = attempted_.count(it->first) ? std::next(it) : failing_.erase(it);
    return failures_;
}

}  // namespace trovsim
