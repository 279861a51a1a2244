#include "shell.h"

#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

#include "platform/hresult.h"
#include "platform/platform.h"
#include "platform/vds_errors.h"
#include "platform/wstr.h"

namespace trovctl {

namespace {

using json = nlohmann::ordered_json;

const char* KindName(Kind k) {
    switch (k) {
    case Kind::Subsystem: return "subsystem";
    case Kind::Controller: return "controller";
    case Kind::Port: return "port";
    case Kind::Drive: return "drive";
    case Kind::Lun: return "lun";
    case Kind::Plex: return "plex";
    case Kind::Pool: return "pool";
    case Kind::Target: return "target";
    case Kind::Portal: return "portal";
    case Kind::PortalGroup: return "portalgroup";
    }
    return "?";
}

VDS_OBJECT_TYPE ObjectType(Kind k) {
    switch (k) {
    case Kind::Subsystem: return VDS_OT_SUB_SYSTEM;
    case Kind::Controller: return VDS_OT_CONTROLLER;
    case Kind::Port: return VDS_OT_PORT;
    case Kind::Drive: return VDS_OT_DRIVE;
    case Kind::Lun: return VDS_OT_LUN;
    case Kind::Plex: return VDS_OT_LUN_PLEX;
    case Kind::Pool: return VDS_OT_STORAGE_POOL;
    case Kind::Target: return VDS_OT_TARGET;
    case Kind::Portal: return VDS_OT_PORTAL;
    case Kind::PortalGroup: return VDS_OT_PORTAL_GROUP;
    }
    return VDS_OT_UNKNOWN;
}

// "drive", "drives": the kind; false for any other word.
bool ParseKind(const std::string& w, Kind* k) {
    static const struct {
        const char* one;
        const char* many;
        Kind kind;
    } names[] = {{"subsystem", "subsystems", Kind::Subsystem},
                 {"controller", "controllers", Kind::Controller},
                 {"port", "ports", Kind::Port},
                 {"drive", "drives", Kind::Drive},
                 {"lun", "luns", Kind::Lun},
                 {"plex", "plexes", Kind::Plex},
                 {"pool", "pools", Kind::Pool},
                 {"target", "targets", Kind::Target},
                 {"portal", "portals", Kind::Portal},
                 {"portalgroup", "portalgroups", Kind::PortalGroup}};
    for (const auto& n : names)
        if (w == n.one || w == n.many) {
            *k = n.kind;
            return true;
        }
    return false;
}

// A whole decimal number within [lo, hi].
bool ParseNumber(const std::string& w, long lo, long hi, long* v) {
    if (w.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long n = std::strtol(w.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || n < lo || n > hi) return false;
    *v = n;
    return true;
}

std::string Take(LPWSTR& s) {
    std::string out = s ? WideToUtf8(s) : std::string();
    CoTaskMemFree(s);
    s = nullptr;
    return out;
}

std::string Hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

template <class T>
CComPtr<T> As(IUnknown* unk, REFIID iid) {
    CComPtr<T> p;
    if (unk) unk->QueryInterface(iid, reinterpret_cast<void**>(&p));
    return p;
}

// Drains an enumerator into objects of one kind.
HRESULT Drain(IEnumVdsObject* e, Kind kind, std::vector<Object>* out) {
    if (!e) return E_POINTER;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    HRESULT hr;
    while ((hr = e->Next(1, &unk, &fetched)) == S_OK && fetched == 1) {
        Object o{kind, {}, {}};
        o.unk.Attach(unk);
        out->push_back(std::move(o));
    }
    e->Release();
    return FAILED(hr) ? hr : S_OK;
}

json SubsystemJson(VDS_SUB_SYSTEM_PROP2& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"ulFlags", p.ulFlags},
            {"ulStripeSizeFlags", p.ulStripeSizeFlags},
            {"ulSupportedRaidTypeFlags", p.ulSupportedRaidTypeFlags},
            {"status", p.status},
            {"health", p.health},
            {"sNumberOfInternalBuses", p.sNumberOfInternalBuses},
            {"sMaxNumberOfSlotsEachBus", p.sMaxNumberOfSlotsEachBus},
            {"sMaxNumberOfControllers", p.sMaxNumberOfControllers},
            {"sRebuildPriority", p.sRebuildPriority},
            {"ulNumberOfEnclosures", p.ulNumberOfEnclosures}};
}

json ControllerJson(VDS_CONTROLLER_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"status", p.status},
            {"health", p.health},
            {"sNumberOfPorts", p.sNumberOfPorts}};
}

json PortJson(VDS_PORT_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"status", p.status}};
}

json DriveJson(VDS_DRIVE_PROP2& p) {
    return {{"id", GuidToString(p.id)},
            {"ullSize", p.ullSize},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"ulFlags", p.ulFlags},
            {"status", p.status},
            {"health", p.health},
            {"sInternalBusNumber", p.sInternalBusNumber},
            {"sSlotNumber", p.sSlotNumber},
            {"ulEnclosureNumber", p.ulEnclosureNumber},
            {"busType", p.busType},
            {"ulSpindleSpeed", p.ulSpindleSpeed}};
}

json LunJson(VDS_LUN_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"ullSize", p.ullSize},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"pwszIdentification", Take(p.pwszIdentification)},
            {"pwszUnmaskingList", Take(p.pwszUnmaskingList)},
            {"ulFlags", p.ulFlags},
            {"type", p.type},
            {"status", p.status},
            {"health", p.health},
            {"TransitionState", p.TransitionState},
            {"sRebuildPriority", p.sRebuildPriority}};
}

json PlexJson(const VDS_LUN_PLEX_PROP& p) {
    return {{"id", GuidToString(p.id)},       {"ullSize", p.ullSize},
            {"type", p.type},                 {"status", p.status},
            {"health", p.health},             {"TransitionState", p.TransitionState},
            {"ulFlags", p.ulFlags},           {"ulStripeSize", p.ulStripeSize},
            {"sRebuildPriority", p.sRebuildPriority}};
}

json PoolJson(VDS_STORAGE_POOL_PROP& p, VDS_POOL_ATTRIBUTES* a) {
    json j = {{"id", GuidToString(p.id)},
              {"status", p.status},
              {"health", p.health},
              {"type", p.type},
              {"pwszName", Take(p.pwszName)},
              {"pwszDescription", Take(p.pwszDescription)},
              {"ullTotalConsumedSpace", p.ullTotalConsumedSpace},
              {"ullTotalManagedSpace", p.ullTotalManagedSpace},
              {"ullRemainingFreeSpace", p.ullRemainingFreeSpace}};
    if (a) {
        j["ullAttributeMask"] = a->ullAttributeMask;
        j["raidType"] = a->raidType;
        j["busType"] = a->busType;
        j["pwszIntendedUsage"] = Take(a->pwszIntendedUsage);
        j["bSpinDown"] = a->bSpinDown != 0;
        j["bIsThinProvisioned"] = a->bIsThinProvisioned != 0;
        j["ullProvisionedSpace"] = a->ullProvisionedSpace;
        j["bNoSinglePointOfFailure"] = a->bNoSinglePointOfFailure != 0;
        j["ulStripeSize"] = a->ulStripeSize;
        j["ulStripeSizeMax"] = a->ulStripeSizeMax;
        j["ulStripeSizeMin"] = a->ulStripeSizeMin;
        j["ulDefaultStripeSize"] = a->ulDefaultStripeSize;
    }
    return j;
}

json TargetJson(VDS_ISCSI_TARGET_PROP& p) {
    return {{"id", GuidToString(p.id)},
            {"pwszIscsiName", Take(p.pwszIscsiName)},
            {"pwszFriendlyName", Take(p.pwszFriendlyName)},
            {"bChapEnabled", p.bChapEnabled != 0}};
}

json PortalJson(const VDS_ISCSI_PORTAL_PROP& p) {
    const VDS_IPADDRESS& a = p.address;
    json addr = {{"type", a.type}, {"wszTextAddress", WideToUtf8(a.wszTextAddress)}, {"ulPort", a.ulPort}};
    if (a.type == VDS_IPT_IPV4) addr["ipv4Address"] = a.ipv4Address;
    return {{"id", GuidToString(p.id)}, {"address", addr}, {"status", p.status}};
}

json GroupJson(const VDS_ISCSI_PORTALGROUP_PROP& p) { return {{"id", GuidToString(p.id)}, {"tag", p.tag}}; }

// The words that name an object of a kind in a listing.
std::string RowLabel(Kind kind, const json& r) {
    switch (kind) {
    case Kind::Pool: return r["pwszName"].get<std::string>();
    case Kind::Target: return r["pwszIscsiName"].get<std::string>();
    case Kind::Portal: return r["address"]["wszTextAddress"].get<std::string>() + ":" +
                              std::to_string(r["address"]["ulPort"].get<uint32_t>());
    case Kind::PortalGroup: return "tag " + std::to_string(r["tag"].get<int>());
    case Kind::Plex: return "plex of " + std::to_string(r["ullSize"].get<uint64_t>()) + " bytes";
    default: return r["pwszFriendlyName"].get<std::string>();
    }
}

// The text form of a value: numbers as they are, flags also in hexadecimal.
std::string ValueText(const std::string& key, const json& v) {
    if (v.is_string()) return v.get<std::string>();
    if (v.is_boolean()) return v.get<bool>() ? "true" : "false";
    if (v.is_number_unsigned() && (key.rfind("ul", 0) == 0 && key.find("Flags") != std::string::npos))
        return std::to_string(v.get<uint64_t>()) + " (" + Hex(v.get<uint32_t>()) + ")";
    return v.dump();
}

std::string Gib(uint64_t bytes) {
    std::ostringstream s;
    s << std::fixed << std::setprecision(1) << double(bytes) / (1024.0 * 1024 * 1024) << " GiB";
    return s.str();
}

}  // namespace

bool SplitLine(const std::string& line, std::vector<std::string>* words, std::string* err) {
    words->clear();
    std::string cur;
    bool inWord = false, quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            cur += line[++i];
            inWord = true;
        } else if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (inWord) words->push_back(cur);
            cur.clear();
            inWord = false;
        } else if (!quoted && c == '#' && !inWord) {
            break;
        } else {
            cur += c;
            inWord = true;
        }
    }
    if (quoted) {
        *err = "unterminated quote";
        return false;
    }
    if (inWord) words->push_back(cur);
    return true;
}

std::string HrText(HRESULT hr) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08X", static_cast<uint32_t>(hr));
    const char* name = HResultName(hr);
    return name ? std::string(name) + " (" + buf + ")" : std::string(buf);
}

const char* HelpText() {
    return R"(Commands (one per line; in one-shot use the words follow the options):
  info                              the provider's properties
  list KINDS                        every object of a kind, numbered: subsystems, controllers,
                                    ports, drives, luns, plexes, pools, targets, portals,
                                    portalgroups
  select TARGET                     remember an object for the commands below
  detail [TARGET]                   every property of an object (default: the selection)
  name subsystem NAME [TARGET]      rename a subsystem (at most 80 characters)
  name lun NAME [TARGET]            rename a LUN (at most 20 characters; longer names are cut)
  reenumerate [subsystem [TARGET]]  rescan the provider, or one subsystem
  refresh                           rebuild the object tree from the array
  flushcache [TARGET]               write a controller's cache to the drives
  invalidatecache [TARGET]          drop a controller's cache
  maintenance beep|blink|stop [TARGET]
                                    silence the alarm (beep), start or stop the locate light
  maintenance pulse COUNT [TARGET]  flash the locate light COUNT times
  setflag drive hotspare [TARGET]   make a drive a global spare
  clearflag drive hotspare [TARGET] make a spare an ordinary free drive again
  extents [TARGET]                  the pieces of a drive, a LUN, a plex or a pool
  getdrive BUS SLOT [TARGET]        the drive at a bus and slot of a subsystem
  portprops N [TARGET]              the properties of a controller's port N
  pool luns [TARGET]                the LUNs a pool holds
  target secret SECRET|- [initiator NAME] [TARGET]
                                    set (or with - clear) a target's CHAP secret, for all
                                    initiators or for one
  initiator secret NAME SECRET|- [TARGET]
                                    remember (or with - forget) an initiator's secret
  initiators [TARGET]               the initiators the target's controller knows
  createportalgroup [TARGET]        the portal group a target hands out (none is ever made)
  watch SECONDS                     print the provider's notifications as they arrive, for a time
  watch on|off                      print them as they arrive (interactive), or keep them
  help                              this text
  quit | exit                       leave the shell
TARGET: KIND N (the N-th of "list KIND"), KIND ID, or ID, where KIND is one of the kinds above
in the singular (drive, lun, portalgroup, ...) and ID an object id
(xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx). Without a target a command uses the selection, or the
only object of its kind when there is just one.
Exit status: 0 done, 1 the provider refused (its result is printed by name and number),
2 a bad command line.)";
}

namespace {
const std::vector<Kind> kAllKinds = {Kind::Subsystem, Kind::Controller, Kind::Port,   Kind::Drive,
                                     Kind::Lun,       Kind::Plex,       Kind::Pool,   Kind::Target,
                                     Kind::Portal,    Kind::PortalGroup};
}  // namespace

Shell::Shell(IVdsProvider* provider, std::ostream& out, std::ostream& err, bool json)
    : provider_(provider), out_(out), err_(err), json_(json) {}

int Shell::Failed(const std::string& call, HRESULT hr) {
    err_ << "trovctl: " << call << " failed: " << HrText(hr) << "\n";
    return kFailed;
}

int Shell::Usage(const std::string& message) {
    err_ << "trovctl: " << message << "\n";
    return kUsage;
}

int Shell::ExecuteLine(const std::string& line) {
    std::vector<std::string> words;
    std::string err;
    if (!SplitLine(line, &words, &err)) return Usage(err);
    if (words.empty()) return kOk;
    return Execute(words);
}

int Shell::Execute(const std::vector<std::string>& words) {
    if (words.empty()) return Usage("no command (try help)");
    const std::string& cmd = words[0];
    std::vector<std::string> args(words.begin() + 1, words.end());
    if (cmd == "help" || cmd == "--help" || cmd == "-h") {
        out_ << HelpText() << "\n";
        return kOk;
    }
    if (cmd == "quit" || cmd == "exit") {
        quit_ = true;
        return kOk;
    }
    if (cmd == "info") return CmdInfo(args);
    if (cmd == "list") return CmdList(args);
    if (cmd == "select") return CmdSelect(args);
    if (cmd == "detail") return CmdDetail(args);
    if (cmd == "name") return CmdName(args);
    if (cmd == "reenumerate") return CmdReenumerate(args);
    if (cmd == "refresh") return CmdRefresh(args);
    if (cmd == "flushcache") return CmdCache(args, true);
    if (cmd == "invalidatecache") return CmdCache(args, false);
    if (cmd == "maintenance") return CmdMaintenance(args);
    if (cmd == "setflag") return CmdFlag(args, true);
    if (cmd == "clearflag") return CmdFlag(args, false);
    if (cmd == "extents") return CmdExtents(args);
    if (cmd == "getdrive") return CmdGetDrive(args);
    if (cmd == "portprops") return CmdPortProps(args);
    if (cmd == "pool") return CmdPool(args);
    if (cmd == "target") return CmdTarget(args);
    if (cmd == "initiator") return CmdInitiator(args);
    if (cmd == "initiators") return CmdInitiators(args);
    if (cmd == "createportalgroup") return CmdCreatePortalGroup(args);
    if (cmd == "watch") return CmdWatch(args);
    return Usage("unknown command \"" + cmd + "\" (try help)");
}

int Shell::RunScript(std::istream& in, const std::string& name) {
    std::string line;
    int lineNo = 0;
    while (!quit_ && std::getline(in, line)) {
        ++lineNo;
        int rc = ExecuteLine(line);
        if (rc != kOk) {
            err_ << "trovctl: " << name << ":" << lineNo << ": stopped at \"" << line << "\"\n";
            return rc;
        }
    }
    return kOk;
}

int Shell::RunInteractive() {
    int rc = kOk;
    bool tty = isatty(STDIN_FILENO);
    const char* histFile = std::getenv("HOME");
    std::string history = histFile ? std::string(histFile) + "/.trovctl_history" : std::string();
    if (tty && !history.empty()) read_history(history.c_str());
    while (!quit_) {
        std::string prompt = "trovctl";
        if (const Object* s = selection()) prompt += std::string(" ") + KindName(s->kind) + " " + GuidToString(s->id).substr(0, 8);
        prompt += "> ";
        std::string line;
        if (tty) {
            char* raw = readline(prompt.c_str());
            if (!raw) break;
            line = raw;
            std::free(raw);
            if (!line.empty()) add_history(line.c_str());
        } else if (!std::getline(std::cin, line)) {
            break;
        }
        rc = ExecuteLine(line);
        out_.flush();
    }
    if (tty && !history.empty()) write_history(history.c_str());
    return rc;
}

// --- objects ---------------------------------------------------------------------------------

HRESULT Shell::Enumerate(Kind kind, std::vector<Object>* out) {
    HRESULT hr;
    IEnumVdsObject* e = nullptr;
    if (kind == Kind::Pool) {
        CComPtr<IVdsHwProviderStoragePools> sp = As<IVdsHwProviderStoragePools>(provider_, IID_IVdsHwProviderStoragePools);
        if (!sp) return E_NOINTERFACE;
        if (FAILED(hr = sp->QueryStoragePools(0, 0, nullptr, &e)) || FAILED(hr = Drain(e, Kind::Pool, out))) return hr;
    } else {
        CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(provider_, IID_IVdsHwProvider);
        if (!hw) return E_NOINTERFACE;
        if (FAILED(hr = hw->QuerySubSystems(&e))) return hr;
        std::vector<Object> subsystems;
        if (FAILED(hr = Drain(e, Kind::Subsystem, &subsystems))) return hr;
        for (Object& s : subsystems) {
            CComPtr<IVdsSubSystem> ss = As<IVdsSubSystem>(s.unk, IID_IVdsSubSystem);
            CComPtr<IVdsSubSystemIscsi> si = As<IVdsSubSystemIscsi>(s.unk, IID_IVdsSubSystemIscsi);
            if (!ss) return E_NOINTERFACE;
            e = nullptr;
            switch (kind) {
            case Kind::Subsystem: out->push_back(s); break;
            case Kind::Drive:
                if (FAILED(hr = ss->QueryDrives(&e)) || FAILED(hr = Drain(e, Kind::Drive, out))) return hr;
                break;
            case Kind::Lun:
            case Kind::Plex: {
                std::vector<Object> luns;
                if (FAILED(hr = ss->QueryLuns(&e)) || FAILED(hr = Drain(e, Kind::Lun, &luns))) return hr;
                for (Object& l : luns) {
                    if (kind == Kind::Lun) {
                        out->push_back(l);
                        continue;
                    }
                    CComPtr<IVdsLun> lun = As<IVdsLun>(l.unk, IID_IVdsLun);
                    e = nullptr;
                    if (lun && (FAILED(hr = lun->QueryPlexes(&e)) || FAILED(hr = Drain(e, Kind::Plex, out)))) return hr;
                }
                break;
            }
            case Kind::Target:
                if (!si) return E_NOINTERFACE;
                if (FAILED(hr = si->QueryTargets(&e)) || FAILED(hr = Drain(e, Kind::Target, out))) return hr;
                break;
            case Kind::Portal:
                if (!si) return E_NOINTERFACE;
                if (FAILED(hr = si->QueryPortals(&e)) || FAILED(hr = Drain(e, Kind::Portal, out))) return hr;
                break;
            case Kind::PortalGroup: {
                if (!si) return E_NOINTERFACE;
                std::vector<Object> targets, groups;
                if (FAILED(hr = si->QueryTargets(&e)) || FAILED(hr = Drain(e, Kind::Target, &targets))) return hr;
                for (Object& t : targets) {
                    CComPtr<IVdsIscsiTarget> target = As<IVdsIscsiTarget>(t.unk, IID_IVdsIscsiTarget);
                    e = nullptr;
                    if (target && (FAILED(hr = target->QueryPortalGroups(&e)) ||
                                   FAILED(hr = Drain(e, Kind::PortalGroup, &groups))))
                        return hr;
                }
                // A target shared by both controllers lists every group once.
                for (Object& g : groups) {
                    bool seen = false;
                    for (const Object& o : *out) seen = seen || o.unk.get() == g.unk.get();
                    if (!seen) out->push_back(g);
                }
                break;
            }
            case Kind::Controller:
            case Kind::Port: {
                std::vector<Object> controllers;
                if (FAILED(hr = ss->QueryControllers(&e)) || FAILED(hr = Drain(e, Kind::Controller, &controllers)))
                    return hr;
                for (Object& c : controllers) {
                    if (kind == Kind::Controller) {
                        out->push_back(c);
                        continue;
                    }
                    CComPtr<IVdsControllerControllerPort> ccp =
                        As<IVdsControllerControllerPort>(c.unk, IID_IVdsControllerControllerPort);
                    if (!ccp) continue;
                    e = nullptr;
                    if (FAILED(hr = ccp->QueryControllerPorts(&e)) || FAILED(hr = Drain(e, Kind::Port, out)))
                        return hr;
                }
                break;
            }
            case Kind::Pool: break;
            }
        }
    }
    // The ids, from the properties every object has; the properties stay with the object.
    for (Object& o : *out) {
        if (FAILED(hr = Describe(o, &o.props))) return hr;
        GuidFromString(o.props["id"].get<std::string>(), &o.id);
    }
    return S_OK;
}

int Shell::Resolve(const std::vector<std::string>& target, const std::vector<Kind>& kinds, Object* out) {
    auto allowed = [&](Kind k) {
        for (Kind a : kinds)
            if (a == k) return true;
        return false;
    };
    std::string wanted;
    for (size_t i = 0; i < kinds.size(); ++i) wanted += std::string(i ? " or " : "") + KindName(kinds[i]);

    if (target.empty()) {
        if (selected_.unk && allowed(selected_.kind)) {
            // Looked up afresh, as a host would: the queries are where the provider brings a
            // stale tree up to date, and an object may have gone meanwhile.
            std::vector<Object> all;
            HRESULT hr = Enumerate(selected_.kind, &all);
            if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
            for (Object& o : all)
                if (o.id == selected_.id) {
                    selected_ = o;
                    *out = o;
                    return kOk;
                }
            std::string gone = std::string("the selected ") + KindName(selected_.kind) + " " +
                               GuidToString(selected_.id) + " is no longer there";
            selected_ = Object{Kind::Subsystem, {}, {}};
            return Usage(gone);
        }
        // With one object of the command's first kind there is nothing to choose.
        std::vector<Object> all;
        if (SUCCEEDED(Enumerate(kinds[0], &all)) && all.size() == 1) {
            *out = all[0];
            return kOk;
        }
        return Usage("this command needs a " + wanted + ": name one (" + KindName(kinds[0]) +
                     " N) or select it first");
    }
    if (target.size() > 2) return Usage("too many words in the target");

    Kind kind = kinds[0];
    std::string ref = target.back();
    bool kindGiven = false;
    if (target.size() == 2) {
        if (!ParseKind(target[0], &kind)) return Usage("\"" + target[0] + "\" is not a kind of object");
        kindGiven = true;
    }
    GUID id{};
    if (GuidFromString(ref, &id)) {
        CComPtr<IVdsProviderPrivate> priv = As<IVdsProviderPrivate>(provider_, IID_IVdsProviderPrivate);
        if (!priv) return Failed("QueryInterface(IVdsProviderPrivate)", E_NOINTERFACE);
        // An id alone may be of any kind the command takes: the provider checks the type.
        std::vector<Kind> tries = kindGiven ? std::vector<Kind>{kind} : kinds;
        HRESULT last = VDS_E_OBJECT_NOT_FOUND;
        for (Kind k : tries) {
            IUnknown* unk = nullptr;
            last = priv->GetObject(id, ObjectType(k), &unk);
            if (SUCCEEDED(last) && unk) {
                // GetObject hands out one reference more than its caller is to release: the
                // host gives that one back at once, or the object would outlive the provider.
                unk->Release();
                out->kind = k;
                out->id = id;
                out->unk.Release();
                out->unk.Attach(unk);
                if (!allowed(k)) return Usage(std::string("this command takes a ") + wanted + ", not a " + KindName(k));
                return kOk;
            }
        }
        // Not every object is reachable by GetObject (a portal group is registered under the
        // portal's kind): look for the id among the objects the queries list.
        for (Kind k : tries) {
            std::vector<Object> all;
            if (FAILED(Enumerate(k, &all))) continue;
            for (Object& o : all)
                if (o.id == id) {
                    *out = o;
                    if (!allowed(k)) return Usage(std::string("this command takes a ") + wanted + ", not a " + KindName(k));
                    return kOk;
                }
        }
        return Failed("GetObject", last);
    }
    long index;
    if (!ParseNumber(ref, 0, 1L << 20, &index))
        return Usage("\"" + ref + "\" is neither a number nor an object id");
    if (!kindGiven && kinds.size() > 1) return Usage("say which kind: " + wanted + " " + ref);
    if (!allowed(kind)) return Usage(std::string("this command takes a ") + wanted + ", not a " + KindName(kind));
    std::vector<Object> all;
    HRESULT hr = Enumerate(kind, &all);
    if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
    if (static_cast<size_t>(index) >= all.size())
        return Usage(std::string("there is no ") + KindName(kind) + " " + ref + " (there are " +
                     std::to_string(all.size()) + ")");
    *out = all[static_cast<size_t>(index)];
    return kOk;
}

HRESULT Shell::PropsOf(Object& o) { return o.props.is_null() ? Describe(o, &o.props) : S_OK; }

HRESULT Shell::Describe(const Object& o, json* j) {
    HRESULT hr = E_NOINTERFACE;
    switch (o.kind) {
    case Kind::Subsystem: {
        CComPtr<IVdsSubSystem2> s = As<IVdsSubSystem2>(o.unk, IID_IVdsSubSystem2);
        VDS_SUB_SYSTEM_PROP2 p{};
        if (s && SUCCEEDED(hr = s->GetProperties2(&p))) *j = SubsystemJson(p);
        break;
    }
    case Kind::Controller: {
        CComPtr<IVdsController> c = As<IVdsController>(o.unk, IID_IVdsController);
        VDS_CONTROLLER_PROP p{};
        if (c && SUCCEEDED(hr = c->GetProperties(&p))) *j = ControllerJson(p);
        break;
    }
    case Kind::Port: {
        CComPtr<IVdsControllerPort> c = As<IVdsControllerPort>(o.unk, IID_IVdsControllerPort);
        VDS_PORT_PROP p{};
        if (c && SUCCEEDED(hr = c->GetProperties(&p))) *j = PortJson(p);
        break;
    }
    case Kind::Drive: {
        CComPtr<IVdsDrive2> d = As<IVdsDrive2>(o.unk, IID_IVdsDrive2);
        VDS_DRIVE_PROP2 p{};
        if (d && SUCCEEDED(hr = d->GetProperties2(&p))) *j = DriveJson(p);
        break;
    }
    case Kind::Lun: {
        CComPtr<IVdsLun> l = As<IVdsLun>(o.unk, IID_IVdsLun);
        VDS_LUN_PROP p{};
        if (l && SUCCEEDED(hr = l->GetProperties(&p))) *j = LunJson(p);
        break;
    }
    case Kind::Plex: {
        CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(o.unk, IID_IVdsLunPlex);
        VDS_LUN_PLEX_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = PlexJson(p);
        break;
    }
    case Kind::Pool: {
        CComPtr<IVdsStoragePool> x = As<IVdsStoragePool>(o.unk, IID_IVdsStoragePool);
        VDS_STORAGE_POOL_PROP p{};
        VDS_POOL_ATTRIBUTES a{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) {
            bool attrs = SUCCEEDED(x->GetAttributes(&a));
            *j = PoolJson(p, attrs ? &a : nullptr);
        }
        break;
    }
    case Kind::Target: {
        CComPtr<IVdsIscsiTarget> x = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
        VDS_ISCSI_TARGET_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = TargetJson(p);
        break;
    }
    case Kind::Portal: {
        CComPtr<IVdsIscsiPortal> x = As<IVdsIscsiPortal>(o.unk, IID_IVdsIscsiPortal);
        VDS_ISCSI_PORTAL_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = PortalJson(p);
        break;
    }
    case Kind::PortalGroup: {
        CComPtr<IVdsIscsiPortalGroup> x = As<IVdsIscsiPortalGroup>(o.unk, IID_IVdsIscsiPortalGroup);
        VDS_ISCSI_PORTALGROUP_PROP p{};
        if (x && SUCCEEDED(hr = x->GetProperties(&p))) *j = GroupJson(p);
        break;
    }
    }
    return hr;
}

// --- output ----------------------------------------------------------------------------------

void Shell::PrintObject(const json& j) {
    if (json_) {
        out_ << j.dump(2) << "\n";
        return;
    }
    size_t width = 0;
    for (auto it = j.begin(); it != j.end(); ++it) width = std::max(width, it.key().size());
    for (auto it = j.begin(); it != j.end(); ++it)
        out_ << std::left << std::setw(int(width)) << it.key() << " : " << ValueText(it.key(), it.value()) << "\n";
}

void Shell::PrintTable(Kind kind, const json& rows) {
    if (json_) {
        out_ << rows.dump(2) << "\n";
        return;
    }
    out_ << (kind == Kind::Plex ? std::string("plexes") : std::string(KindName(kind)) + "s") << " (" << rows.size()
         << ")\n";
    int i = 0;
    for (const json& r : rows) {
        out_ << "  " << std::setw(2) << std::right << i++ << "  " << r["id"].get<std::string>() << "  " << std::left
             << std::setw(40) << RowLabel(kind, r);
        if (r.contains("status")) out_ << "  status " << r["status"].get<int>();
        if (r.contains("health")) out_ << "  health " << r["health"].get<int>();
        if (r.contains("ullSize")) out_ << "  " << Gib(r["ullSize"].get<uint64_t>());
        if (r.contains("ullTotalManagedSpace"))
            out_ << "  " << Gib(r["ullRemainingFreeSpace"].get<uint64_t>()) << " free of "
                 << Gib(r["ullTotalManagedSpace"].get<uint64_t>());
        if (kind == Kind::Drive) out_ << "  flags " << Hex(r["ulFlags"].get<uint32_t>());
        out_ << "\n";
    }
}

void Shell::PrintDone(const std::string& what) {
    if (json_)
        out_ << json{{"command", what}, {"result", "S_OK"}}.dump(2) << "\n";
    else
        out_ << what << ": done\n";
}

// --- commands --------------------------------------------------------------------------------

HRESULT Shell::ProviderJson(json* j) {
    VDS_PROVIDER_PROP p{};
    HRESULT hr = provider_->GetProperties(&p);
    if (FAILED(hr)) return hr;
    *j = {{"id", GuidToString(p.id)},
          {"pwszName", Take(p.pwszName)},
          {"guidVersionId", GuidToString(p.guidVersionId)},
          {"pwszVersion", Take(p.pwszVersion)},
          {"type", p.type},
          {"ulFlags", p.ulFlags},
          {"ulStripeSizeFlags", p.ulStripeSizeFlags},
          {"sRebuildPriority", p.sRebuildPriority}};
    return S_OK;
}

int Shell::ListJson(Kind kind, json* rows) {
    std::vector<Object> all;
    HRESULT hr = Enumerate(kind, &all);
    if (FAILED(hr)) return Failed("the enumeration of the tree", hr);
    *rows = json::array();
    for (Object& o : all) rows->push_back(std::move(o.props));
    return kOk;
}

int Shell::CmdInfo(const std::vector<std::string>& args) {
    if (!args.empty()) return Usage("info takes no arguments");
    json j;
    HRESULT hr = ProviderJson(&j);
    if (FAILED(hr)) return Failed("GetProperties", hr);
    PrintObject(j);
    return kOk;
}

int Shell::CmdList(const std::vector<std::string>& args) {
    Kind kind;
    if (args.size() != 1 || !ParseKind(args[0], &kind))
        return Usage("list what? subsystems, controllers, ports, drives, luns, plexes, pools, targets, portals or "
                     "portalgroups");
    json rows;
    int rc = ListJson(kind, &rows);
    if (rc != kOk) return rc;
    PrintTable(kind, rows);
    return kOk;
}

int Shell::Overview() {
    json provider;
    HRESULT hr = ProviderJson(&provider);
    if (FAILED(hr)) return Failed("GetProperties", hr);
    json doc = {{"provider", provider}};
    if (!json_) PrintObject(provider);
    for (Kind k : kAllKinds) {
        if (k == Kind::Plex) continue;  // one per LUN: listed on request
        json rows;
        if (k == Kind::Pool) {
            // A host without pools (or pools switched off) has none to show.
            std::vector<Object> pools;
            if (FAILED(Enumerate(k, &pools))) continue;
        }
        int rc = ListJson(k, &rows);
        if (rc != kOk) return rc;
        if (json_)
            doc[std::string(KindName(k)) + "s"] = rows;
        else
            PrintTable(k, rows);
    }
    if (json_) out_ << doc.dump(2) << "\n";
    return kOk;
}

int Shell::CmdSelect(const std::vector<std::string>& args) {
    if (args.empty()) return Usage("select what? (select drive 3, select controller 0, select ID)");
    Object o;
    int rc = Resolve(args, kAllKinds, &o);
    if (rc != kOk) return rc;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return Failed("GetProperties", hr);
    selected_ = o;
    const json& j = o.props;
    if (json_) {
        json sel = {{"selected", KindName(o.kind)}, {"id", j["id"]}};
        if (j.contains("pwszFriendlyName"))
            sel["pwszFriendlyName"] = j["pwszFriendlyName"];
        else
            sel["label"] = RowLabel(o.kind, j);
        out_ << sel.dump(2) << "\n";
    } else {
        out_ << "selected " << KindName(o.kind) << " " << j["id"].get<std::string>() << "  " << RowLabel(o.kind, j)
             << "\n";
    }
    return kOk;
}

int Shell::CmdDetail(const std::vector<std::string>& args) {
    Object o;
    int rc = Resolve(args, kAllKinds, &o);
    if (rc != kOk) return rc;
    HRESULT hr = PropsOf(o);
    if (FAILED(hr)) return Failed("GetProperties", hr);
    PrintObject(o.props);
    return kOk;
}

int Shell::CmdName(const std::vector<std::string>& args) {
    if (args.size() < 2 || (args[0] != "subsystem" && args[0] != "lun"))
        return Usage("usage: name subsystem|lun NAME [TARGET]");
    bool lun = args[0] == "lun";
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 2, args.end()), {lun ? Kind::Lun : Kind::Subsystem}, &o);
    if (rc != kOk) return rc;
    std::u16string name = Utf8ToWide(args[1]);
    LPWSTR text = const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(name.c_str()));
    HRESULT hr;
    if (lun) {
        CComPtr<IVdsLunNaming> n = As<IVdsLunNaming>(o.unk, IID_IVdsLunNaming);
        if (!n) return Failed("QueryInterface(IVdsLunNaming)", E_NOINTERFACE);
        hr = n->SetFriendlyName(text);
    } else {
        CComPtr<IVdsSubSystemNaming> n = As<IVdsSubSystemNaming>(o.unk, IID_IVdsSubSystemNaming);
        if (!n) return Failed("QueryInterface(IVdsSubSystemNaming)", E_NOINTERFACE);
        hr = n->SetFriendlyName(text);
    }
    if (FAILED(hr)) return Failed("SetFriendlyName", hr);
    // A name the provider had to cut succeeds with a word of its own.
    PrintDone(hr == S_OK ? "name " + args[0] : "name " + args[0] + " (" + HrText(hr) + ")");
    return kOk;
}

int Shell::CmdReenumerate(const std::vector<std::string>& args) {
    HRESULT hr;
    if (args.empty()) {
        CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(provider_, IID_IVdsHwProvider);
        if (!hw) return Failed("QueryInterface(IVdsHwProvider)", E_NOINTERFACE);
        if (FAILED(hr = hw->Reenumerate())) return Failed("Reenumerate", hr);
        PrintDone("reenumerate");
        return kOk;
    }
    if (args[0] != "subsystem") return Usage("usage: reenumerate [subsystem [TARGET]]");
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 1, args.end()), {Kind::Subsystem}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsSubSystem> s = As<IVdsSubSystem>(o.unk, IID_IVdsSubSystem);
    if (!s) return Failed("QueryInterface(IVdsSubSystem)", E_NOINTERFACE);
    if (FAILED(hr = s->Reenumerate())) return Failed("Reenumerate", hr);
    PrintDone("reenumerate subsystem");
    return kOk;
}

int Shell::CmdRefresh(const std::vector<std::string>& args) {
    if (!args.empty()) return Usage("refresh takes no arguments");
    CComPtr<IVdsHwProvider> hw = As<IVdsHwProvider>(provider_, IID_IVdsHwProvider);
    if (!hw) return Failed("QueryInterface(IVdsHwProvider)", E_NOINTERFACE);
    HRESULT hr = hw->Refresh();
    if (FAILED(hr)) return Failed("Refresh", hr);
    PrintDone("refresh");
    return kOk;
}

int Shell::CmdCache(const std::vector<std::string>& args, bool flush) {
    Object o;
    int rc = Resolve(args, {Kind::Controller}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsController> c = As<IVdsController>(o.unk, IID_IVdsController);
    if (!c) return Failed("QueryInterface(IVdsController)", E_NOINTERFACE);
    HRESULT hr = flush ? c->FlushCache() : c->InvalidateCache();
    if (FAILED(hr)) return Failed(flush ? "FlushCache" : "InvalidateCache", hr);
    PrintDone(flush ? "flushcache" : "invalidatecache");
    return kOk;
}

int Shell::CmdMaintenance(const std::vector<std::string>& args) {
    if (args.empty()) return Usage("usage: maintenance beep|blink|stop|pulse COUNT [TARGET]");
    const std::string& op = args[0];
    size_t fixed = 1;
    long count = 0;
    if (op == "pulse") {
        if (args.size() < 2 || !ParseNumber(args[1], 1, 0xFFFFFFFFL, &count))
            return Usage("maintenance pulse needs a COUNT of at least 1");
        fixed = 2;
    } else if (op != "beep" && op != "blink" && op != "stop") {
        return Usage("unknown maintenance operation \"" + op + "\" (beep, blink, stop, pulse)");
    }
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + long(fixed), args.end()), {Kind::Drive, Kind::Controller}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsMaintenance> m = As<IVdsMaintenance>(o.unk, IID_IVdsMaintenance);
    if (!m) return Failed("QueryInterface(IVdsMaintenance)", E_NOINTERFACE);
    HRESULT hr;
    const char* call;
    if (op == "beep") {
        call = "StartMaintenance(BeepAlarm)";
        hr = m->StartMaintenance(BeepAlarm);
    } else if (op == "blink") {
        call = "StartMaintenance(BlinkLight)";
        hr = m->StartMaintenance(BlinkLight);
    } else if (op == "stop") {
        call = "StopMaintenance(BlinkLight)";
        hr = m->StopMaintenance(BlinkLight);
    } else {
        call = "PulseMaintenance(BlinkLight)";
        hr = m->PulseMaintenance(BlinkLight, static_cast<ULONG>(count));
    }
    if (FAILED(hr)) return Failed(call, hr);
    PrintDone("maintenance " + op);
    return kOk;
}

int Shell::CmdFlag(const std::vector<std::string>& args, bool set) {
    const char* usage = set ? "usage: setflag drive hotspare [TARGET]" : "usage: clearflag drive hotspare [TARGET]";
    if (args.size() < 2 || args[0] != "drive" || args[1] != "hotspare") return Usage(usage);
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 2, args.end()), {Kind::Drive}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsDrive> d = As<IVdsDrive>(o.unk, IID_IVdsDrive);
    if (!d) return Failed("QueryInterface(IVdsDrive)", E_NOINTERFACE);
    HRESULT hr = set ? d->SetFlags(VDS_DRF_HOTSPARE) : d->ClearFlags(VDS_DRF_HOTSPARE);
    if (FAILED(hr)) return Failed(set ? "SetFlags(VDS_DRF_HOTSPARE)" : "ClearFlags(VDS_DRF_HOTSPARE)", hr);
    PrintDone(set ? "setflag drive hotspare" : "clearflag drive hotspare");
    return kOk;
}

int Shell::CmdExtents(const std::vector<std::string>& args) {
    Object o;
    int rc = Resolve(args, {Kind::Drive, Kind::Lun, Kind::Plex, Kind::Pool}, &o);
    if (rc != kOk) return rc;
    json rows = json::array();
    // Takes the array a query just filled (the query runs before this is called).
    auto driveExtents = [&](HRESULT hr, VDS_DRIVE_EXTENT* ext, LONG n) {
        if (FAILED(hr)) return hr;
        for (LONG i = 0; i < n && ext; ++i)
            rows.push_back({{"id", GuidToString(ext[i].id)},
                            {"LunId", GuidToString(ext[i].LunId)},
                            {"ullSize", ext[i].ullSize},
                            {"bUsed", ext[i].bUsed != 0}});
        CoTaskMemFree(ext);
        return S_OK;
    };
    HRESULT hr = S_OK;
    VDS_DRIVE_EXTENT* ext = nullptr;
    LONG n = 0;
    if (o.kind == Kind::Drive) {
        CComPtr<IVdsDrive> d = As<IVdsDrive>(o.unk, IID_IVdsDrive);
        if (!d) return Failed("QueryInterface(IVdsDrive)", E_NOINTERFACE);
        hr = d->QueryExtents(&ext, &n);
        hr = driveExtents(hr, ext, n);
    } else if (o.kind == Kind::Plex) {
        CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(o.unk, IID_IVdsLunPlex);
        if (!x) return Failed("QueryInterface(IVdsLunPlex)", E_NOINTERFACE);
        hr = x->QueryExtents(&ext, &n);
        hr = driveExtents(hr, ext, n);
    } else if (o.kind == Kind::Lun) {
        // A LUN's pieces are those of its plexes.
        CComPtr<IVdsLun> l = As<IVdsLun>(o.unk, IID_IVdsLun);
        IEnumVdsObject* e = nullptr;
        std::vector<Object> plexes;
        if (!l) return Failed("QueryInterface(IVdsLun)", E_NOINTERFACE);
        if (FAILED(hr = l->QueryPlexes(&e)) || FAILED(hr = Drain(e, Kind::Plex, &plexes))) return Failed("QueryPlexes", hr);
        for (Object& p : plexes) {
            CComPtr<IVdsLunPlex> x = As<IVdsLunPlex>(p.unk, IID_IVdsLunPlex);
            ext = nullptr;
            n = 0;
            if (!x) continue;
            hr = x->QueryExtents(&ext, &n);
            if (FAILED(hr = driveExtents(hr, ext, n))) break;
        }
    } else {
        CComPtr<IVdsStoragePool> x = As<IVdsStoragePool>(o.unk, IID_IVdsStoragePool);
        if (!x) return Failed("QueryInterface(IVdsStoragePool)", E_NOINTERFACE);
        VDS_STORAGE_POOL_DRIVE_EXTENT* pe = nullptr;
        hr = x->QueryDriveExtents(&pe, &n);
        if (SUCCEEDED(hr)) {
            for (LONG i = 0; i < n && pe; ++i)
                rows.push_back({{"id", GuidToString(pe[i].id)}, {"ullSize", pe[i].ullSize}, {"bUsed", pe[i].bUsed != 0}});
            CoTaskMemFree(pe);
        }
    }
    if (FAILED(hr)) return Failed(o.kind == Kind::Pool ? "QueryDriveExtents" : "QueryExtents", hr);
    if (json_) {
        out_ << rows.dump(2) << "\n";
    } else {
        out_ << "extents (" << rows.size() << ")\n";
        for (const json& r : rows) {
            bool used = r["bUsed"].get<bool>();
            out_ << "  drive " << r["id"].get<std::string>() << "  " << Gib(r["ullSize"].get<uint64_t>()) << "  "
                 << (used ? "used" : "free");
            if (used && r.contains("LunId")) out_ << " by LUN " << r["LunId"].get<std::string>();
            out_ << "\n";
        }
    }
    return kOk;
}

int Shell::CmdGetDrive(const std::vector<std::string>& args) {
    long bus, slot;
    if (args.size() < 2 || !ParseNumber(args[0], -32768, 32767, &bus) || !ParseNumber(args[1], -32768, 32767, &slot))
        return Usage("usage: getdrive BUS SLOT [TARGET] (numbers)");
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 2, args.end()), {Kind::Subsystem}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsSubSystem> s = As<IVdsSubSystem>(o.unk, IID_IVdsSubSystem);
    if (!s) return Failed("QueryInterface(IVdsSubSystem)", E_NOINTERFACE);
    IVdsDrive* drive = nullptr;
    HRESULT hr = s->GetDrive(static_cast<SHORT>(bus), static_cast<SHORT>(slot), &drive);
    if (FAILED(hr)) return Failed("GetDrive", hr);
    Object d{Kind::Drive, {}, {}};
    d.unk.Attach(drive);
    json j;
    if (FAILED(hr = Describe(d, &j))) return Failed("GetProperties2", hr);
    PrintObject(j);
    return kOk;
}

int Shell::CmdPortProps(const std::vector<std::string>& args) {
    long port;
    if (args.empty() || !ParseNumber(args[0], -32768, 32767, &port)) return Usage("usage: portprops N [TARGET]");
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 1, args.end()), {Kind::Controller}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsController> c = As<IVdsController>(o.unk, IID_IVdsController);
    if (!c) return Failed("QueryInterface(IVdsController)", E_NOINTERFACE);
    VDS_PORT_PROP p{};
    HRESULT hr = c->GetPortProperties(static_cast<SHORT>(port), &p);
    if (FAILED(hr)) return Failed("GetPortProperties", hr);
    PrintObject(PortJson(p));
    return kOk;
}

int Shell::CmdPool(const std::vector<std::string>& args) {
    if (args.empty() || args[0] != "luns") return Usage("usage: pool luns [TARGET]");
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 1, args.end()), {Kind::Pool}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsStoragePool> pool = As<IVdsStoragePool>(o.unk, IID_IVdsStoragePool);
    if (!pool) return Failed("QueryInterface(IVdsStoragePool)", E_NOINTERFACE);
    IEnumVdsObject* e = nullptr;
    std::vector<Object> luns;
    HRESULT hr = pool->QueryAllocatedLuns(&e);
    if (FAILED(hr) || FAILED(hr = Drain(e, Kind::Lun, &luns))) return Failed("QueryAllocatedLuns", hr);
    json rows = json::array();
    for (Object& l : luns) {
        json j;
        if (FAILED(hr = Describe(l, &j))) return Failed("GetProperties", hr);
        rows.push_back(std::move(j));
    }
    PrintTable(Kind::Lun, rows);
    return kOk;
}

namespace {
// A secret word of the command line: "-" stands for none.
bool SecretOf(const std::string& word, std::string* secret) {
    if (word == "-") return false;
    *secret = word;
    return true;
}
}  // namespace

int Shell::CmdTarget(const std::vector<std::string>& args) {
    const char* usage = "usage: target secret SECRET|- [initiator NAME] [TARGET]";
    if (args.size() < 2 || args[0] != "secret") return Usage(usage);
    std::string secret;
    bool present = SecretOf(args[1], &secret);
    size_t next = 2;
    std::u16string initiator;
    bool named = false;
    if (args.size() > next && args[next] == "initiator") {
        if (args.size() < next + 2) return Usage(usage);
        initiator = Utf8ToWide(args[next + 1]);
        named = true;
        next += 2;
    }
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + long(next), args.end()), {Kind::Target}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    VDS_ISCSI_SHARED_SECRET s{reinterpret_cast<UCHAR*>(secret.data()), static_cast<ULONG>(secret.size())};
    HRESULT hr = t->SetSharedSecret(present ? &s : nullptr,
                                    named ? const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(initiator.c_str())) : nullptr);
    if (FAILED(hr)) return Failed("SetSharedSecret", hr);
    PrintDone("target secret");
    return kOk;
}

int Shell::CmdInitiator(const std::vector<std::string>& args) {
    if (args.size() < 3 || args[0] != "secret") return Usage("usage: initiator secret NAME SECRET|- [TARGET]");
    std::string secret;
    bool present = SecretOf(args[2], &secret);
    Object o;
    int rc = Resolve(std::vector<std::string>(args.begin() + 3, args.end()), {Kind::Target}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    std::u16string name = Utf8ToWide(args[1]);
    VDS_ISCSI_SHARED_SECRET s{reinterpret_cast<UCHAR*>(secret.data()), static_cast<ULONG>(secret.size())};
    HRESULT hr = t->RememberInitiatorSharedSecret(const_cast<LPWSTR>(reinterpret_cast<const WCHAR*>(name.c_str())),
                                                  present ? &s : nullptr);
    if (FAILED(hr)) return Failed("RememberInitiatorSharedSecret", hr);
    PrintDone("initiator secret");
    return kOk;
}

int Shell::CmdInitiators(const std::vector<std::string>& args) {
    Object o;
    int rc = Resolve(args, {Kind::Target}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    LPWSTR* list = nullptr;
    LONG n = 0;
    HRESULT hr = t->GetConnectedInitiators(&list, &n);
    if (FAILED(hr)) return Failed("GetConnectedInitiators", hr);
    json names = json::array();
    for (LONG i = 0; i < n && list; ++i) {
        names.push_back(list[i] ? WideToUtf8(list[i]) : std::string());
        CoTaskMemFree(list[i]);
    }
    CoTaskMemFree(list);
    if (json_) {
        out_ << names.dump(2) << "\n";
    } else {
        out_ << "initiators (" << names.size() << ")\n";
        for (const json& name : names) out_ << "  " << name.get<std::string>() << "\n";
    }
    return kOk;
}

int Shell::CmdCreatePortalGroup(const std::vector<std::string>& args) {
    Object o;
    int rc = Resolve(args, {Kind::Target}, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsIscsiTarget> t = As<IVdsIscsiTarget>(o.unk, IID_IVdsIscsiTarget);
    if (!t) return Failed("QueryInterface(IVdsIscsiTarget)", E_NOINTERFACE);
    IVdsAsync* async = nullptr;
    HRESULT hr = t->CreatePortalGroup(&async);
    if (FAILED(hr)) return Failed("CreatePortalGroup", hr);
    HRESULT result = S_OK;
    VDS_ASYNC_OUTPUT output{};
    hr = async->Wait(&result, &output);
    async->Release();
    if (FAILED(hr)) return Failed("Wait", hr);
    if (FAILED(result)) return Failed("CreatePortalGroup", result);
    if (!output.cpg.pPortalGroupUnk) {
        err_ << "trovctl: CreatePortalGroup returned no portal group\n";
        return kFailed;
    }
    Object g{Kind::PortalGroup, {}, {}};
    g.unk.Attach(output.cpg.pPortalGroupUnk);
    json j;
    if (FAILED(hr = Describe(g, &j))) return Failed("GetProperties", hr);
    PrintObject(j);
    return kOk;
}

// Lock order: the provider's monitor calls in here holding the provider's own mutex, and prints
// under notifyMu_ (which calls into the provider again, on the same thread). The shell's thread
// never calls into the provider while it holds notifyMu_.
void Shell::OnNotification(const VDS_NOTIFICATION& n) {
    std::lock_guard<std::mutex> g(notifyMu_);
    if (watching_)
        PrintNotification(n);
    else
        pending_.push_back(n);
}

void Shell::StartWatching() {
    for (;;) {
        std::deque<VDS_NOTIFICATION> kept;
        {
            std::lock_guard<std::mutex> g(notifyMu_);
            if (pending_.empty()) {
                watching_ = true;
                return;
            }
            kept.swap(pending_);
        }
        for (const VDS_NOTIFICATION& n : kept) PrintNotification(n);
    }
}

void Shell::StopWatching() {
    std::lock_guard<std::mutex> g(notifyMu_);
    watching_ = false;
}

void Shell::PrintNotification(const VDS_NOTIFICATION& n) {
    const char* type = "object";
    const char* event = "event";
    GUID id{};
    Kind kind = Kind::Subsystem;
    switch (n.objectType) {
    case VDS_NTT_CONTROLLER:
        type = "controller";
        kind = Kind::Controller;
        id = n.Controller.controllerId;
        event = n.Controller.ulEvent == VDS_NF_CONTROLLER_ARRIVE ? "arrive" : "depart";
        break;
    case VDS_NTT_LUN:
        type = "lun";
        kind = Kind::Lun;
        id = n.Lun.LunId;
        event = n.Lun.ulEvent == VDS_NF_LUN_ARRIVE ? "arrive" : n.Lun.ulEvent == VDS_NF_LUN_DEPART ? "depart" : "modify";
        break;
    case VDS_NTT_DRIVE:
        type = "drive";
        kind = Kind::Drive;
        id = n.Drive.driveId;
        event = "depart";
        break;
    default: break;
    }
    // The name, when the object is still known to the provider.
    std::string name = "(unknown)";
    CComPtr<IVdsProviderPrivate> priv = As<IVdsProviderPrivate>(provider_, IID_IVdsProviderPrivate);
    IUnknown* unk = nullptr;
    if (priv && id != GUID{} && SUCCEEDED(priv->GetObject(id, ObjectType(kind), &unk)) && unk) {
        unk->Release();  // GetObject's extra reference
        Object o{kind, id, {}};
        o.unk.Attach(unk);
        json j;
        if (SUCCEEDED(Describe(o, &j)) && j.contains("pwszFriendlyName")) name = j["pwszFriendlyName"];
    }
    if (json_)
        out_ << json{{"objectType", n.objectType}, {"type", type}, {"event", event}, {"id", GuidToString(id)},
                     {"name", name}}
                    .dump()
             << "\n";
    else
        out_ << "notification: " << type << " " << event << " " << GuidToString(id) << " " << name << "\n";
    out_.flush();
}

void Shell::WatchFor(int ms) {
    StartWatching();
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    StopWatching();
}

int Shell::CmdWatch(const std::vector<std::string>& args) {
    long seconds = 0;
    if (args.size() == 1 && (args[0] == "on" || args[0] == "off")) {
        if (args[0] == "on")
            StartWatching();
        else
            StopWatching();
        return kOk;
    }
    if (args.size() != 1 || !ParseNumber(args[0], 0, 86400, &seconds))
        return Usage("usage: watch SECONDS | watch on|off");
    WatchFor(static_cast<int>(seconds * 1000));
    return kOk;
}

}  // namespace trovctl
