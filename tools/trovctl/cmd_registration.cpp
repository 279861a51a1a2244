// Registration of provider modules with trovctl as their host: register, unregister, providers.
// These run without a loaded provider; the module's own entry points do the registering.
#include <limits.h>
#include <stdlib.h>

#include "handlers.h"
#include "host_registry.h"
#include "provider_host.h"
#include "shell.h"

namespace trovctl {

namespace {

const char* TypeText(uint32_t type) {
    switch (type) {
        case VDS_PT_SOFTWARE: return "software";
        case VDS_PT_HARDWARE: return "hardware";
        case VDS_PT_VIRTUALDISK: return "virtualdisk";
        default: return "unknown";
    }
}

int Registration(Shell& sh, const Call& c, bool reg) {
    const char* verb = reg ? "register" : "unregister";
    if (c.args.size() > 1) return sh.Usage(std::string(verb) + " takes at most one MODULE");
    std::string module = c.args.empty() ? DefaultModulePath() : c.args[0];
    // The module writes the path it was loaded from; an absolute one is what a host can load later.
    char resolved[PATH_MAX];
    if (realpath(module.c_str(), resolved)) module = resolved;
    std::string registry = HostRegistryPath();
    std::string message;
    HRESULT hr = RunRegistration(module, reg, registry, &message);
    if (FAILED(hr)) {
        std::string what = std::string(reg ? "registering " : "unregistering ") + module + " failed: " + HrText(hr);
        sh.render().Error(reg ? "REGISTER" : "UNREGISTER", hr, message.empty() ? what : what + ": " + message);
        return kFailed;
    }
    if (sh.json()) {
        sh.render().out() << sh.render().Dump(Json{{"result", reg ? "registered" : "unregistered"},
                                                   {"module", module}, {"registry", registry}})
                          << "\n";
    } else {
        sh.render().out() << (reg ? "registered " : "unregistered ") << module << (reg ? " in " : " from ") << registry
                          << "\n";
    }
    return kOk;
}

}  // namespace

int CmdRegister(Shell& sh, const Call& c) { return Registration(sh, c, true); }

int CmdUnregister(Shell& sh, const Call& c) { return Registration(sh, c, false); }

int CmdProviders(Shell& sh, const Call& c) {
    if (!c.args.empty()) return sh.Usage("providers takes no arguments");
    std::string path = HostRegistryPath();
    RegistryFile reg;
    bool existed = false;
    RegistryResult r = LoadHostRegistry(path, &reg, &existed);
    if (!r.ok()) {
        sh.render().Error("REGISTRY", RegistryHr(r), r.message);
        return kFailed;
    }
    std::vector<RegisteredProvider> list = ListProviders(reg, true);
    if (sh.json()) {
        Json rows = Json::array();
        for (const RegisteredProvider& p : list)
            rows.push_back(Json{{"name", p.name}, {"version", p.version}, {"type", p.type},
                                {"typeText", TypeText(p.type)}, {"providerId", p.providerId},
                                {"classId", p.classId}, {"versionId", p.versionId}, {"module", p.module},
                                {"loads", p.loads}, {"problem", p.problem}});
        sh.render().out() << sh.render().Dump(Json{{"registry", path}, {"providers", rows}}) << "\n";
        return kOk;
    }
    if (!existed) sh.render().Note("no host registry at " + path + " yet: no provider is registered");
    TableText t;
    t.header = {"#", "NAME", "VERSION", "TYPE", "PROVIDER", "CLASS", "VERSIONID", "MODULE", "LOADS"};
    t.rightAligned = {true, false, false, false, false, false, false, false, false};
    long n = 0;
    for (const RegisteredProvider& p : list) {
        t.cells.push_back({std::to_string(++n), p.name, p.version, TypeText(p.type), p.providerId, p.classId,
                           p.versionId, p.module.empty() ? "-" : p.module, p.loads ? "yes" : "no: " + p.problem});
        t.attention.push_back(!p.loads);
    }
    sh.render().out() << FormatTable(t, true, false);
    sh.render().out() << list.size() << (list.size() == 1 ? " provider" : " providers") << " in " << path << "\n";
    return kOk;
}

}  // namespace trovctl
