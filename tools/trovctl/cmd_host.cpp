// The host side of a LUN: its identification as the host sees the disk, which LUN a host disk is,
// the adapter ports, the host paths of a LUN and its load-balance policy. The identification and
// the disk match go through the provider's interfaces; the rest through the module's host
// library (platform/host_library.h), found beside the loaded provider's code.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "handlers.h"
#include "platform/host_disk.h"
#include "platform/host_library.h"
#include "platform/platform.h"
#include "platform/wstr.h"
#include "shell.h"
#include "targets.h"

namespace trovctl {
namespace {

HostLibrary g_library;
bool g_libraryGiven = false;

// The entry points of the module that holds the provider's code: the module file the provider's
// table of functions lies in, already loaded.
HostLibrary FindLibrary(IVdsProvider* provider) {
    if (g_libraryGiven) return g_library;
    HostLibrary lib;
    Dl_info info{};
    void* handle = nullptr;
    if (provider && dladdr(*reinterpret_cast<void**>(provider), &info) && info.dli_fname)
        handle = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (!handle) return lib;
    lib.hbaPorts = reinterpret_cast<TrovHostHbaPortsFn>(dlsym(handle, "TrovHostHbaPorts"));
    lib.lunPaths = reinterpret_cast<TrovHostLunPathsFn>(dlsym(handle, "TrovHostLunPaths"));
    lib.setLunPolicy = reinterpret_cast<TrovHostSetLunPolicyFn>(dlsym(handle, "TrovHostSetLunPolicy"));
    lib.setPathStatus = reinterpret_cast<TrovHostSetPathStatusFn>(dlsym(handle, "TrovHostSetPathStatus"));
    dlclose(handle);  // the host's own reference keeps it loaded
    return lib;
}

int NoLibrary(Shell& sh) {
    sh.render().Error("E_NOTIMPL", static_cast<uint32_t>(E_NOTIMPL),
                      "the provider module has no host library (TrovHostLunPaths)");
    return kFailed;
}

std::string Hex(const uint8_t* p, size_t n) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        s += b;
    }
    return s;
}

std::string GuidText(const GUID& g) {
    char b[40];
    std::snprintf(b, sizeof b, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", g.Data1, g.Data2, g.Data3,
                  g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return b;
}

const char* PolicyName(uint32_t p) {
    static const char* const kNames[] = {"unknown",    "failover",   "round-robin", "round-robin-subset",
                                         "least-queue", "weighted", "least-blocks", "vendor"};
    return p < sizeof kNames / sizeof kNames[0] ? kNames[p] : "?";
}

bool PolicyOfName(const std::string& s, uint32_t* out) {
    for (uint32_t p = 1; p <= 6; ++p)
        if (s == PolicyName(p)) return *out = p, true;
    return false;
}

const char* StatusName(VDS_PATH_STATUS s) {
    switch (s) {
    case VDS_MPS_ONLINE: return "online";
    case VDS_MPS_FAILED: return "failed";
    case VDS_MPS_STANDBY: return "standby";
    default: return "unknown";
    }
}

const char* TpgName(uint32_t s) {
    switch (s) {
    case 0: return "active/optimized";
    case 1: return "active/non-optimized";
    case 2: return "standby";
    case 3: return "unavailable";
    case 4: return "lba-dependent";
    case 0x0E: return "offline";
    case 0x0F: return "transitioning";
    default: return "-";
    }
}

// The friendly name of an object of the tree by id ("" when it has none or isn't there).
std::string NameOf(IVdsProvider* provider, const GUID& id, VDS_OBJECT_TYPE type) {
    CComPtr<IVdsProviderPrivate> priv = As<IVdsProviderPrivate>(provider, IID_IVdsProviderPrivate);
    IUnknown* unk = nullptr;
    if (!priv || FAILED(priv->GetObject(id, type, &unk)) || !unk) return {};
    CComPtr<IUnknown> hold;
    hold.Attach(unk);
    unk->Release();  // GetObject's extra reference
    std::string name;
    if (type == VDS_OT_LUN) {
        if (CComPtr<IVdsLun> l = As<IVdsLun>(unk, IID_IVdsLun)) {
            VDS_LUN_PROP p{};
            if (SUCCEEDED(l->GetProperties(&p))) {
                name = p.pwszFriendlyName ? WideToUtf8(p.pwszFriendlyName) : "";
                CoTaskMemFree(p.pwszFriendlyName), CoTaskMemFree(p.pwszIdentification);
                CoTaskMemFree(p.pwszUnmaskingList);
            }
        }
    } else if (CComPtr<IVdsControllerPort> c = As<IVdsControllerPort>(unk, IID_IVdsControllerPort)) {
        VDS_PORT_PROP p{};
        if (SUCCEEDED(c->GetProperties(&p))) {
            name = p.pwszFriendlyName ? WideToUtf8(p.pwszFriendlyName) : "";
            CoTaskMemFree(p.pwszFriendlyName), CoTaskMemFree(p.pwszIdentification);
        }
    }
    return name;
}

Json InformationJson(const VDS_LUN_INFORMATION& info) {
    Json ids = Json::array();
    for (ULONG i = 0; i < info.m_deviceIdDescriptor.m_cIdentifiers && i < 1024; ++i) {
        const VDS_STORAGE_IDENTIFIER& id = info.m_deviceIdDescriptor.m_rgIdentifiers[i];
        ids.push_back({{"m_CodeSet", static_cast<int>(id.m_CodeSet)},
                       {"m_Type", static_cast<int>(id.m_Type)},
                       {"m_rgbIdentifier", Hex(id.m_rgbIdentifier, id.m_rgbIdentifier ? id.m_cbIdentifier : 0)}});
    }
    auto text = [](const char* s) { return std::string(s ? s : ""); };
    return Json{{"m_version", info.m_version},
                {"m_DeviceType", info.m_DeviceType},
                {"m_BusType", static_cast<int>(info.m_BusType)},
                {"m_szVendorId", text(info.m_szVendorId)},
                {"m_szProductId", text(info.m_szProductId)},
                {"m_szProductRevision", text(info.m_szProductRevision)},
                {"m_szSerialNumber", text(info.m_szSerialNumber)},
                {"m_diskSignature", GuidText(info.m_diskSignature)},
                {"m_rgIdentifiers", ids}};
}

// The words of a command line: `key=value` options and --dry-run out, the rest left for a target.
struct Words {
    std::vector<std::string> rest;
    std::map<std::string, std::string> options;
    bool dryRun = false;
};
Words Split(const std::vector<std::string>& args, size_t from, std::initializer_list<const char*> keys) {
    Words w;
    for (size_t i = from; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--dry-run") {
            w.dryRun = true;
            continue;
        }
        bool taken = false;
        for (const char* k : keys)
            if (a.rfind(k, 0) == 0) {
                w.options[k] = a.substr(std::strlen(k));
                taken = true;
            }
        if (!taken) w.rest.push_back(a);
    }
    return w;
}

int ResolveLun(Shell& sh, const Call& c, const std::vector<std::string>& target, Object* o) {
    int rc = sh.Resolve(target, c.cmd->kinds, o);
    if (rc != kOk) return rc;
    if (o->id == GUID{}) {
        if (CComPtr<IVdsLun> l = As<IVdsLun>(o->unk, IID_IVdsLun)) {
            VDS_LUN_PROP p{};
            if (SUCCEEDED(l->GetProperties(&p))) {
                o->id = p.id;
                CoTaskMemFree(p.pwszFriendlyName), CoTaskMemFree(p.pwszIdentification);
                CoTaskMemFree(p.pwszUnmaskingList);
            }
        }
    }
    return kOk;
}

int ShowPlan(Shell& sh, const char* what, HRESULT hr, bool dryRun, const char* plan) {
    if (FAILED(hr)) {
        sh.render().Error(HrText(hr), static_cast<uint32_t>(hr), std::string(what) + ": " + plan);
        return kFailed;
    }
    if (sh.json()) {
        sh.render().out() << sh.render().Dump(Json{{"dryRun", dryRun}, {"plan", plan}}) << "\n";
        return kOk;
    }
    if (dryRun) sh.render().out() << "would " << plan;
    else sh.render().Done(what, hr);
    return kOk;
}

// "N" (the path's number in `paths`, from 1) or a path id in hexadecimal ("0x...").
bool PathIdOf(const std::string& word, const TrovHostLunPathList& list, uint64_t* id) {
    char* end = nullptr;
    if (word.rfind("0x", 0) == 0) {
        *id = std::strtoull(word.c_str() + 2, &end, 16);
        return end && *end == 0 && word.size() > 2;
    }
    unsigned long n = std::strtoul(word.c_str(), &end, 10);
    if (word.empty() || !end || *end != 0 || n < 1 || n > list.count) return false;
    *id = list.paths[n - 1].pathId;
    return true;
}

}  // namespace

void UseHostLibrary(const HostLibrary& lib) {
    g_library = lib;
    g_libraryGiven = true;
}

int CmdIdentify(Shell& sh, const Call& c) {
    Object o;
    int rc = sh.ResolveArgs(c, 0, &o);
    if (rc != kOk) return rc;
    CComPtr<IVdsLun> l = As<IVdsLun>(o.unk, IID_IVdsLun);
    if (!l) return sh.Failed("QueryInterface(IVdsLun)", E_NOINTERFACE);
    VDS_LUN_INFORMATION info{};
    HRESULT hr = l->GetIdentificationData(&info);
    if (FAILED(hr)) return sh.Failed("GetIdentificationData", hr);
    Json j = InformationJson(info);
    FreeHostLunInformation(&info);
    sh.render().Object(j);
    return kOk;
}

int CmdHostDisk(Shell& sh, const Call& c) {
    if (c.args.size() != 1) return sh.UsageOf(*c.cmd);
    HostDiskIdentity disk;
    std::string why;
    if (!ReadHostDiskIdentity(c.args[0], &disk, &why)) {
        sh.render().Error("ENOENT", 2, c.args[0] + ": " + why);
        return kFailed;
    }
    VDS_LUN_INFORMATION info{};
    HRESULT hr = MakeHostLunInformation(disk, &info);
    if (FAILED(hr)) return sh.Failed("MakeHostLunInformation", hr);
    CComPtr<IVdsHwProviderPrivate> priv = As<IVdsHwProviderPrivate>(sh.provider(), IID_IVdsHwProviderPrivate);
    if (!priv) {
        FreeHostLunInformation(&info);
        return sh.Failed("QueryInterface(IVdsHwProviderPrivate)", E_NOINTERFACE);
    }
    std::u16string path = Utf8ToWide("/dev/" + (disk.unit.blockName.empty() ? disk.unit.sgName : disk.unit.blockName));
    VDS_OBJECT_ID id{};
    hr = priv->QueryIfCreatedLun(const_cast<WCHAR*>(path.c_str()), &info, &id);
    Json j = InformationJson(info);
    FreeHostLunInformation(&info);
    if (FAILED(hr)) return sh.Failed("QueryIfCreatedLun", hr);
    Json out{{"device", WideToUtf8(path)}, {"address", disk.unit.address}, {"isLun", hr == S_OK}};
    if (hr == S_OK) out["lun"] = NameOf(sh.provider(), id, VDS_OT_LUN), out["lunId"] = GuidText(id);
    out["information"] = j;
    if (sh.json()) {
        sh.render().Object(out);
    } else if (hr == S_OK) {
        sh.render().out() << out["device"].get<std::string>() << " (" << disk.unit.address << ") is LUN "
                          << out["lun"].get<std::string>() << " {" << GuidText(id) << "}\n";
    } else {
        sh.render().out() << out["device"].get<std::string>() << " (" << disk.unit.address
                          << ") is not a LUN of this provider\n";
    }
    return kOk;
}

int CmdHbas(Shell& sh, const Call& c) {
    if (!c.args.empty()) return sh.UsageOf(*c.cmd);
    HostLibrary lib = FindLibrary(sh.provider());
    if (!lib.hbaPorts) return NoLibrary(sh);
    TrovHostHbaPort ports[64];
    uint32_t n = 0;
    HRESULT hr = lib.hbaPorts(ports, 64, &n);
    if (FAILED(hr)) return sh.Failed("TrovHostHbaPorts", hr);
    Json rows = Json::array();
    for (uint32_t i = 0; i < n && i < 64; ++i)
        rows.push_back({{"portNumber", ports[i].portNumber},
                        {"portWwn", Hex(ports[i].portWwn, 8)},
                        {"nodeWwn", Hex(ports[i].nodeWwn, 8)},
                        {"portType", ports[i].portType},
                        {"portState", ports[i].portState},
                        {"portSpeed", ports[i].portSpeed}});
    sh.render().List("adapter ports", rows, [](std::ostream& out, const Json& r) {
        out << "port " << r["portNumber"].get<uint32_t>() << "  wwpn " << r["portWwn"].get<std::string>() << "  wwnn "
            << r["nodeWwn"].get<std::string>() << "  state " << r["portState"].get<uint32_t>();
    });
    return kOk;
}

int CmdPaths(Shell& sh, const Call& c) {
    Object o;
    int rc = ResolveLun(sh, c, c.args, &o);
    if (rc != kOk) return rc;
    HostLibrary lib = FindLibrary(sh.provider());
    if (!lib.lunPaths) return NoLibrary(sh);
    TrovHostLunPathList list{};
    HRESULT hr = lib.lunPaths(&o.id, &list);
    if (FAILED(hr)) return sh.Failed("TrovHostLunPaths", hr);
    Json rows = Json::array();
    for (uint32_t i = 0; i < list.count; ++i) {
        const TrovHostPath& p = list.paths[i];
        char id[24], addr[64];
        std::snprintf(id, sizeof id, "0x%016llx", static_cast<unsigned long long>(p.pathId));
        std::snprintf(addr, sizeof addr, "%u:%u:%u:%u", p.portNumber, p.busNumber, p.targetId, p.lun);
        rows.push_back({{"number", i + 1},
                        {"pathId", id},
                        {"address", addr},
                        {"status", StatusName(p.status)},
                        {"alua", TpgName(p.tpgState)},
                        {"primary", p.primary != 0},
                        {"preferred", p.preferred != 0},
                        {"weight", p.weight},
                        {"targetPortId", p.targetPortId},
                        {"controllerPort", NameOf(sh.provider(), p.controllerPortId, VDS_OT_PORT)}});
    }
    if (hr == S_FALSE) {
        sh.render().Waiting("the host has no multipath disk for this LUN");
    }
    sh.render().List("host paths", rows, [](std::ostream& out, const Json& r) {
        std::string port = r["controllerPort"].get<std::string>();
        out << r["number"].get<uint32_t>() << "  " << r["address"].get<std::string>() << "  "
            << r["status"].get<std::string>() << "  " << r["alua"].get<std::string>() << "  port "
            << (port.empty() ? "-" : port);
    });
    return kOk;
}

int CmdPolicy(Shell& sh, const Call& c) {
    Object o;
    int rc = ResolveLun(sh, c, c.args, &o);
    if (rc != kOk) return rc;
    HostLibrary lib = FindLibrary(sh.provider());
    if (!lib.lunPaths) return NoLibrary(sh);
    TrovHostLunPathList list{};
    HRESULT hr = lib.lunPaths(&o.id, &list);
    if (FAILED(hr)) return sh.Failed("TrovHostLunPaths", hr);
    if (hr == S_FALSE) {
        sh.render().Error("S_FALSE", 1, "the host has no multipath disk for this LUN");
        return kFailed;
    }
    Json paths = Json::array();
    for (uint32_t i = 0; i < list.count; ++i)
        paths.push_back({{"number", i + 1}, {"primary", list.paths[i].primary != 0},
                         {"preferred", list.paths[i].preferred != 0}, {"weight", list.paths[i].weight}});
    sh.render().Object(Json{{"disk", list.disk}, {"policy", PolicyName(list.policy)}, {"paths", paths}});
    return kOk;
}

int CmdPolicySet(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    uint32_t policy = 0;
    if (!PolicyOfName(c.args[0], &policy))
        return sh.Usage("no load-balance policy \"" + c.args[0] +
                        "\" (failover, round-robin, round-robin-subset, least-queue, weighted, least-blocks)");
    Words w = Split(c.args, 1, {"primary=", "weight="});
    Object o;
    int rc = ResolveLun(sh, c, w.rest, &o);
    if (rc != kOk) return rc;
    HostLibrary lib = FindLibrary(sh.provider());
    if (!lib.lunPaths || !lib.setLunPolicy) return NoLibrary(sh);
    TrovHostLunPathList list{};
    HRESULT hr = lib.lunPaths(&o.id, &list);
    if (FAILED(hr)) return sh.Failed("TrovHostLunPaths", hr);
    std::vector<VDS_PATH_POLICY> inputs;
    if (w.options.count("primary=")) {
        VDS_PATH_POLICY p{};
        if (!PathIdOf(w.options["primary="], list, &p.pathId.ullPathId))
            return sh.Usage("primary= takes a path's number in `paths` or its id (0x...)");
        p.bPrimaryPath = TRUE;
        inputs.push_back(p);
    }
    if (w.options.count("weight=")) {
        const std::string& s = w.options["weight="];
        size_t colon = s.find(':');
        VDS_PATH_POLICY p{};
        char* end = nullptr;
        unsigned long weight = colon == std::string::npos ? 0 : std::strtoul(s.c_str() + colon + 1, &end, 10);
        if (colon == std::string::npos || !PathIdOf(s.substr(0, colon), list, &p.pathId.ullPathId) || !end ||
            *end != 0 || weight == 0 || weight > 1000000)
            return sh.Usage("weight= takes PATH:WEIGHT, a weight from 1 to 1000000");
        p.ulWeight = static_cast<ULONG>(weight);
        bool merged = false;
        for (VDS_PATH_POLICY& q : inputs)
            if (q.pathId.ullPathId == p.pathId.ullPathId) q.ulWeight = p.ulWeight, merged = true;
        if (!merged) inputs.push_back(p);
    }
    char plan[4096] = {};
    hr = lib.setLunPolicy(&o.id, policy, inputs.data(), static_cast<uint32_t>(inputs.size()), w.dryRun ? TRUE : FALSE,
                          plan, sizeof plan);
    return ShowPlan(sh, "TrovHostSetLunPolicy", hr, w.dryRun, plan);
}

int CmdPathStatus(Shell& sh, const Call& c) {
    if (c.args.empty()) return sh.UsageOf(*c.cmd);
    const VDS_PATH_STATUS status = c.fixed.back() == "fail" ? VDS_MPS_FAILED : VDS_MPS_ONLINE;
    Words w = Split(c.args, 1, {});
    Object o;
    int rc = ResolveLun(sh, c, w.rest, &o);
    if (rc != kOk) return rc;
    HostLibrary lib = FindLibrary(sh.provider());
    if (!lib.lunPaths || !lib.setPathStatus) return NoLibrary(sh);
    TrovHostLunPathList list{};
    HRESULT hr = lib.lunPaths(&o.id, &list);
    if (FAILED(hr)) return sh.Failed("TrovHostLunPaths", hr);
    uint64_t id = 0;
    if (!PathIdOf(c.args[0], list, &id)) return sh.Usage("PATH is a path's number in `paths` or its id (0x...)");
    char plan[1024] = {};
    hr = lib.setPathStatus(&o.id, &id, 1, status, w.dryRun ? TRUE : FALSE, plan, sizeof plan);
    return ShowPlan(sh, "TrovHostSetPathStatus", hr, w.dryRun, plan);
}

}  // namespace trovctl
