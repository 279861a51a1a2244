#include "sim/control.h"

#include <cctype>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "sim/commands.h"
#include "sim/iscsi_service.h"
#include "sim/sim.h"

namespace trovsim {

namespace {

bool Number(const std::string& text, uint64_t* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (*end != 0) return false;
    *out = v;
    return true;
}

// An opcode by number, by the array's name of it, or "any".
bool Opcode(const std::string& text, int64_t* out) {
    if (text == "any" || text == "*") {
        *out = -1;
        return true;
    }
    uint64_t v;
    if (Number(text, &v)) {
        *out = static_cast<int64_t>(v);
        return true;
    }
    for (uint32_t op = 0; op < 256; ++op)
        if (text == Commands::OpName(op)) {
            *out = op;
            return true;
        }
    return false;
}

std::string Err(const std::string& what) { return "error: " + what; }

std::string Result(uint32_t code) { return code == 0 ? "ok" : Err("the array answered " + std::to_string(code)); }

std::string FaultLine(Server& s, const std::vector<std::string>& w) {
    if (w.size() < 2) return Err("fault what?");
    const std::string& kind = w[1];
    uint64_t a = 0, b = 0, n = 1;
    int64_t op = -1;
    if (kind == "clear") {
        s.ClearFaults();
        return "ok";
    }
    if (kind == "close-after") {
        if (w.size() != 3 || !Number(w[2], &a)) return Err("fault close-after N");
        s.CloseAfterCommands(static_cast<uint32_t>(a));
        return "ok";
    }
    if (kind == "never-answer") {
        if (w.size() != 3 || (w[2] != "on" && w[2] != "off")) return Err("fault never-answer on|off");
        s.NeverAnswer(w[2] == "on");
        return "ok";
    }
    if (kind == "handshake-version" || kind == "handshake-status" || kind == "login-status") {
        if (w.size() != 3 || !Number(w[2], &a)) return Err("fault " + kind + " N");
        SessionFaults f;
        if (kind == "handshake-version") f.handshakeVersion = static_cast<int32_t>(a);
        if (kind == "handshake-status") f.handshakeStatus = static_cast<int32_t>(a);
        if (kind == "login-status") f.loginStatus = static_cast<int32_t>(a);
        s.SetSessionFaults(f);
        return "ok";
    }
    if (w.size() < 3 || !Opcode(w[2], &op)) return Err("fault " + kind + " OPCODE ...");
    FaultKind fk;
    if (kind == "close-at") fk = FaultKind::kClose;
    else if (kind == "no-answer") fk = FaultKind::kNeverAnswer;
    else if (kind == "delay") fk = FaultKind::kDelay;
    else if (kind == "fail") fk = FaultKind::kError;
    else if (kind == "short-header") fk = FaultKind::kShortHeader;
    else if (kind == "wrong-opcode") fk = FaultKind::kWrongOpcode;
    else if (kind == "huge-datalen") fk = FaultKind::kHugeDataLen;
    else if (kind == "random-bytes") fk = FaultKind::kRandomBytes;
    else return Err("unknown fault " + kind);
    if (w.size() > 3 && !Number(w[3], &a)) return Err("not a number: " + w[3]);
    if (w.size() > 4 && !Number(w[4], &n)) return Err("not a number: " + w[4]);
    if ((fk == FaultKind::kDelay || fk == FaultKind::kError) && w.size() < 4) return Err("fault " + kind + " OPCODE VALUE");
    (void)b;
    int32_t count = w.size() > 4 ? static_cast<int32_t>(n) : 1;
    if (w.size() > 4 && n == 0) count = -1;  // 0: for good
    s.AddFault({fk, op, 0, count, static_cast<uint32_t>(a)});
    return "ok";
}

// A size in MiB, or with a suffix M, G or T.
bool SizeBlocks(const std::string& text, uint64_t* blocks) {
    if (text.empty()) return false;
    uint64_t unit = 1;
    std::string digits = text;
    char last = static_cast<char>(std::toupper(static_cast<unsigned char>(text.back())));
    if (last == 'M' || last == 'G' || last == 'T') {
        unit = last == 'M' ? 1 : last == 'G' ? 1024 : 1024 * 1024;
        digits.pop_back();
    }
    uint64_t n;
    if (!Number(digits, &n) || n == 0 || n > (uint64_t(1) << 40) / unit) return false;
    *blocks = n * unit * kMiBBlocks;
    return true;
}

// volume create VDISK NAME SIZE | map NAME HOST|* LUN | unmap NAME HOST|*|all | expand NAME SIZE |
// delete NAME: the array's volume commands, sent by the controller that owns the vdisk.
std::string VolumeLine(Server& s, const std::vector<std::string>& w) {
    const char* usage = "volume create VDISK NAME SIZE | map NAME HOST|* LUN | unmap NAME HOST|*|all | "
                        "expand NAME SIZE | delete NAME";
    if (w.size() < 3) return Err(usage);
    const std::string& op = w[1];
    uint64_t blocks = 0, lun = 0;
    if (op == "create" && (w.size() != 5 || !SizeBlocks(w[4], &blocks))) return Err(usage);
    if (op == "expand" && (w.size() != 4 || !SizeBlocks(w[3], &blocks))) return Err(usage);
    if (op == "map" && (w.size() != 5 || !Number(w[4], &lun) || lun > 0xFFFE)) return Err(usage);
    if (op == "unmap" && w.size() != 4) return Err(usage);
    if (op == "delete" && w.size() != 3) return Err(usage);
    if (op != "create" && op != "expand" && op != "map" && op != "unmap" && op != "delete") return Err(usage);
    return s.WithModel([&](Model& m) -> std::string {
        for (Subsystem& sub : m.subsystems())
            for (Vdisk& v : sub.vdisks) {
                CtrlRef owner{&sub, v.owner == 1 ? 0 : 1};
                if (op == "create") {
                    if (v.name != w[2]) continue;
                    PartRef out;
                    return Result(m.AddPartition(owner, v.serial, blocks, w[3], 0, Serial{}, &out));
                }
                for (Partition& p : v.parts) {
                    if (p.name != w[2]) continue;
                    Serial serial = p.serial;
                    if (op == "expand") return Result(m.ExpandPartition(owner, Serial{}, serial, blocks));
                    if (op == "delete") return Result(m.DeletePartition(owner, serial));
                    Model::ViewChange vc;
                    vc.part = serial;
                    vc.create = op == "map";
                    const std::string& host = w[3];
                    vc.removeAll = host == "all";
                    vc.hasHost = host != "*" && host != "all";
                    vc.view.host = vc.hasHost ? host : "";
                    vc.view.lun = static_cast<uint16_t>(lun);
                    return Result(m.ChangeView(owner, vc));
                }
            }
        return Err("no " + std::string(op == "create" ? "vdisk " : "volume ") + w[2]);
    });
}

}  // namespace

std::string RunControl(Server& s, const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> w;
    for (std::string word; in >> word;) w.push_back(word);
    if (w.empty() || w[0][0] == '#') return "";
    const std::string& verb = w[0];
    uint64_t a = 0, b = 0;

    if (verb == "fault") return FaultLine(s, w);
    if (verb == "volume") return VolumeLine(s, w);
    if (verb == "iscsi") {
        IscsiService* service = s.iscsi();
        if (!service) return Err("the emulator serves no iSCSI (start it with --iscsi PORTAL)");
        std::string text = service->Describe();
        if (!text.empty() && text.back() == '\n') text.pop_back();
        return text.empty() ? "no targets" : text;
    }
    if (verb == "event") {
        // event HANDLE CODE [PARAM [DRIVE-SERIAL]]
        if (w.size() < 3 || !Number(w[1], &a) || !Number(w[2], &b)) return Err("event HANDLE CODE [PARAM [DRIVE]]");
        uint64_t param = 0;
        if (w.size() > 3 && !Number(w[3], &param)) return Err("not a number: " + w[3]);
        return Result(s.RaiseEvent(static_cast<uint32_t>(a), static_cast<uint32_t>(b), static_cast<uint32_t>(param),
                                   w.size() > 4 ? w[4] : ""));
    }
    if (verb == "controller") {
        // controller HANDLE offline [STATE] | online
        if (w.size() < 3 || !Number(w[1], &a) || (w[2] != "offline" && w[2] != "online"))
            return Err("controller HANDLE offline [STATE] | online");
        uint64_t state = 1;
        if (w.size() > 3 && (!Number(w[3], &state) || state == 0 || state > 3)) return Err("state is 1, 2 or 3");
        return Result(s.SetControllerOffline(static_cast<uint32_t>(a), w[2] == "offline", static_cast<uint8_t>(state)));
    }
    if (verb == "drive") {
        // drive SERIAL offline|online, or drive SERIAL state HOWUSED [DOWNREASON]
        if (w.size() >= 4 && w[2] == "state") {
            uint64_t reason = 0;
            if (!Number(w[3], &a) || a > 255 || (w.size() > 4 && (!Number(w[4], &reason) || reason > 255)))
                return Err("drive SERIAL state HOWUSED [DOWNREASON]");
            return Result(s.WithModel([&](Model& m) -> uint32_t {
                for (Subsystem& sub : m.subsystems())
                    if (Drive* d = m.FindDrive(sub, w[1])) {
                        d->howUsed = static_cast<uint8_t>(a);
                        d->downReason = static_cast<uint8_t>(reason);
                        m.Touch(sub);
                        return kOk;
                    }
                return kErrNotFound;
            }));
        }
        if (w.size() != 3 || (w[2] != "offline" && w[2] != "online")) return Err("drive SERIAL offline|online");
        return Result(s.SetDriveOffline(w[1], w[2] == "offline"));
    }
    if (verb == "vdisk") {
        // vdisk NAME health N: the array's judgement of the vdisk, set by hand
        if (w.size() != 4 || w[2] != "health" || !Number(w[3], &a) || a > 255) return Err("vdisk NAME health N");
        return Result(s.WithModel([&](Model& m) -> uint32_t {
            for (Subsystem& sub : m.subsystems())
                for (Vdisk& v : sub.vdisks)
                    if (v.name == w[1]) {
                        v.health = static_cast<uint8_t>(a);
                        m.Log(sub, v.owner == 1 ? 0 : 1, a == 0 ? kEvVdiskHealthy : a <= 2 ? kEvVdiskCritical : kEvVdiskOffline,
                              static_cast<uint32_t>(a), "Vdisk " + v.name + " health set by hand", nullptr, &v.serial);
                        m.Touch(sub);
                        return kOk;
                    }
            return kErrNotFound;
        }));
    }
    if (verb == "utility") {
        // utility VDISK-NAME verify|scan|rebuild
        if (w.size() != 3) return Err("utility VDISK verify|scan|rebuild");
        uint8_t kind = w[2] == "verify" ? kUtilVerify : w[2] == "scan" ? kUtilMediaScan : w[2] == "rebuild" ? kUtilRebuild : 0;
        if (!kind) return Err("utility VDISK verify|scan|rebuild");
        return Result(s.WithModel([&](Model& m) -> uint32_t {
            for (Subsystem& sub : m.subsystems())
                for (Vdisk& v : sub.vdisks)
                    if (v.name == w[1]) return m.StartUtility(sub, v.serial, kind);
            return kErrNotFound;
        }));
    }
    if (verb == "refuse") {
        if (w.size() != 2 || !Number(w[1], &a)) return Err("refuse MS");
        s.RefuseConnections(a);
        return "ok";
    }
    if (verb == "advance") {
        if (w.size() != 2 || !Number(w[1], &a)) return Err("advance MS");
        s.AdvanceTime(a);
        return "ok";
    }
    if (verb == "restart") {
        std::string err;
        return s.Restart(&err) ? "ok" : Err(err);
    }
    if (verb == "heartbeat") return s.SendHeartbeatNow() ? "ok" : Err("the heartbeat was not answered");
    if (verb == "stats") {
        Stats st = s.stats();
        std::ostringstream out;
        out << "connections " << st.connections << ", commands " << st.commands << ", logins " << st.logins
            << ", login failures " << st.loginFailures << ", bad magic " << st.badMagic << ", bad check values "
            << st.badCheckValue << ", heartbeats " << st.heartbeatsOk << " ok " << st.heartbeatsFailed
            << " failed, encodings " << st.encodings;
        return out.str();
    }
    if (verb == "help")
        return "event, controller, drive, vdisk, volume, iscsi, utility, fault, refuse, advance, restart, heartbeat, "
               "stats, quit";
    return Err("unknown command " + verb);
}

}  // namespace trovsim
