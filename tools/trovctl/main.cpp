// trovctl: the host program. It loads the provider module as a management host does and drives
// it through the published interfaces only.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "platform/hresult.h"
#include "platform/platform.h"
#include "platform/settings.h"
#include "platform/wstr.h"
#include "provider_host.h"

namespace {

struct GlobalOptions {
    std::string settings;
    std::string module;
    bool json = false;
};

std::string HrText(HRESULT hr) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%08X", static_cast<uint32_t>(hr));
    const char* name = HResultName(hr);
    return name ? std::string(name) + " (" + buf + ")" : std::string(buf);
}

int Fail(const std::string& what, HRESULT hr) {
    std::cerr << "trovctl: " << what << " failed: " << HrText(hr) << "\n";
    return 1;
}

std::string W(const WCHAR* s) { return s ? WideToUtf8(s) : std::string(); }

int CmdInfo(ProviderHost& host, const GlobalOptions& opt) {
    VDS_PROVIDER_PROP prop{};
    HRESULT hr = host.provider()->GetProperties(&prop);
    if (FAILED(hr)) return Fail("GetProperties", hr);
    if (opt.json) {
        nlohmann::json j;
        j["id"] = GuidToString(prop.id);
        j["pwszName"] = W(prop.pwszName);
        j["guidVersionId"] = GuidToString(prop.guidVersionId);
        j["pwszVersion"] = W(prop.pwszVersion);
        j["type"] = static_cast<int>(prop.type);
        j["ulFlags"] = prop.ulFlags;
        j["ulStripeSizeFlags"] = prop.ulStripeSizeFlags;
        j["sRebuildPriority"] = prop.sRebuildPriority;
        std::cout << j.dump(2) << "\n";
    } else {
        std::printf("Name            : %s\n", W(prop.pwszName).c_str());
        std::printf("Version         : %s\n", W(prop.pwszVersion).c_str());
        std::printf("Id              : %s\n", GuidToString(prop.id).c_str());
        std::printf("Version id      : %s\n", GuidToString(prop.guidVersionId).c_str());
        std::printf("Type            : %d (%s)\n", static_cast<int>(prop.type),
                    prop.type == VDS_PT_HARDWARE ? "hardware" : "other");
        std::printf("Flags           : 0x%x\n", prop.ulFlags);
        std::printf("Stripe sizes    : 0x%x\n", prop.ulStripeSizeFlags);
        std::printf("Rebuild priority: %d\n", prop.sRebuildPriority);
    }
    CoTaskMemFree(prop.pwszName);
    CoTaskMemFree(prop.pwszVersion);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"trovctl: manage an iSCSI RAID array through the trovhwiprv provider"};
    GlobalOptions opt;
    app.add_option("--settings", opt.settings, "settings file in the registry export format (the provider's "
                                               "Parameters and Debug keys, and the kelvane key's ConfigurationFile)")
        ->check(CLI::ExistingFile);
    app.add_option("--module", opt.module, "path of the provider module (default: the one built beside trovctl)");
    app.add_flag("--json", opt.json, "print one JSON document");
    app.require_subcommand(1);
    auto* info = app.add_subcommand("info", "load the provider, print its properties, unload");
    CLI11_PARSE(app, argc, argv);

    if (!opt.settings.empty()) setenv("TROVHWIPRV_SETTINGS", opt.settings.c_str(), 1);

    ProviderHost host;
    std::string err;
    if (!host.Open(opt.module.empty() ? DefaultModulePath() : opt.module, &err)) {
        std::cerr << "trovctl: cannot open the provider module: " << err << "\n";
        return 1;
    }
    HRESULT hr = host.Load(nullptr);
    if (FAILED(hr)) return Fail("OnLoad", hr);
    int rc = 0;
    if (*info) rc = CmdInfo(host, opt);
    hr = host.Unload();
    if (FAILED(hr) && rc == 0) rc = Fail("OnUnload", hr);
    return rc;
}
