// trovctl: the host program. It loads the provider module as a management host does and drives
// it through the published interfaces only.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "platform/hresult.h"
#include "platform/platform.h"
#include "platform/settings.h"
#include "platform/wstr.h"
#include "provider_host.h"
#include "sim/sim.h"

namespace {

struct GlobalOptions {
    std::string settings;
    std::string proxyConf;
    std::string module;
    bool json = false;
};

// A settings file whose kelvane key names `conf`: how a kelvane.conf outside the two standard
// folders reaches the provider.
bool WriteSettingsFor(const std::string& conf, const std::string& path) {
    std::ofstream out(path);
    out << "Windows Registry Editor Version 5.00\n\n"
        << "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters]\n"
        << "\"ConfigurationFile\"=\"" << conf << "\"\n";
    return static_cast<bool>(out);
}

// The array trovctl shows when it is pointed at no service: the emulator in this process.
class BuiltInArray {
public:
    bool Start(std::string* err) {
        char tmpl[] = "/tmp/trovctl.XXXXXX";
        if (!mkdtemp(tmpl)) {
            *err = "cannot make a temporary folder";
            return false;
        }
        dir_ = tmpl;
        trovsim::Options o;
        o.logRequests = false;
        o.heartbeatIntervalMs = 0;
        server_ = std::make_unique<trovsim::Server>(o);
        if (!server_->LoadScenario("demo", err) || !server_->Start(err)) return false;
        if (!server_->WriteKelvaneConf(dir_ + "/kelvane.conf", err)) return false;
        settings_ = dir_ + "/settings.reg";
        if (!WriteSettingsFor(dir_ + "/kelvane.conf", settings_)) {
            *err = "cannot write " + settings_;
            return false;
        }
        return true;
    }
    ~BuiltInArray() {
        if (server_) server_->Stop();
        if (!dir_.empty()) {
            std::remove((dir_ + "/kelvane.conf").c_str());
            std::remove((dir_ + "/settings.reg").c_str());
            rmdir(dir_.c_str());
        }
    }
    const std::string& settings() const { return settings_; }

private:
    std::string dir_, settings_;
    std::unique_ptr<trovsim::Server> server_;
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

nlohmann::json Id(const GUID& g) { return GuidToString(g); }

template <class T>
std::vector<CComPtr<T>> Collect(IEnumVdsObject* e, REFIID iid) {
    std::vector<CComPtr<T>> out;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    while (e && e->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
        void* p = nullptr;
        if (SUCCEEDED(unk->QueryInterface(iid, &p)) && p) {
            CComPtr<T> ptr;
            ptr.Attach(static_cast<T*>(p));
            out.push_back(std::move(ptr));
        }
        unk->Release();
    }
    if (e) e->Release();
    return out;
}

std::string Take(LPWSTR& s) {
    std::string out = W(s);
    CoTaskMemFree(s);
    s = nullptr;
    return out;
}

struct Tree {
    std::vector<CComPtr<IVdsSubSystem>> subsystems;
    std::vector<CComPtr<IVdsController>> controllers;
    std::vector<CComPtr<IVdsControllerPort>> ports;
    std::vector<CComPtr<IVdsDrive>> drives;
};

HRESULT Walk(ProviderHost& host, Tree* t) {
    IVdsHwProvider* hw = host.Query<IVdsHwProvider>(IID_IVdsHwProvider);
    if (!hw) return E_NOINTERFACE;
    IEnumVdsObject* e = nullptr;
    HRESULT hr = hw->QuerySubSystems(&e);
    hw->Release();
    if (FAILED(hr)) return hr;
    t->subsystems = Collect<IVdsSubSystem>(e, IID_IVdsSubSystem);
    for (auto& ss : t->subsystems) {
        e = nullptr;
        if (FAILED(hr = ss->QueryControllers(&e))) return hr;
        for (auto& c : Collect<IVdsController>(e, IID_IVdsController)) {
            t->controllers.push_back(c);
            CComPtr<IVdsControllerControllerPort> ccp;
            if (SUCCEEDED(c->QueryInterface(IID_IVdsControllerControllerPort, reinterpret_cast<void**>(&ccp)))) {
                e = nullptr;
                if (FAILED(hr = ccp->QueryControllerPorts(&e))) return hr;
                for (auto& p : Collect<IVdsControllerPort>(e, IID_IVdsControllerPort)) t->ports.push_back(p);
            }
        }
        e = nullptr;
        if (FAILED(hr = ss->QueryDrives(&e))) return hr;
        for (auto& d : Collect<IVdsDrive>(e, IID_IVdsDrive)) t->drives.push_back(d);
    }
    return S_OK;
}

int CmdList(ProviderHost& host, const GlobalOptions& opt, const std::string& kind) {
    Tree t;
    HRESULT hr = Walk(host, &t);
    if (FAILED(hr)) return Fail("the walk of the tree", hr);
    nlohmann::json rows = nlohmann::json::array();
    if (kind == "subsystems") {
        for (auto& ss : t.subsystems) {
            CComPtr<IVdsSubSystem2> s2;
            VDS_SUB_SYSTEM_PROP2 p{};
            if (FAILED(ss->QueryInterface(IID_IVdsSubSystem2, reinterpret_cast<void**>(&s2))) ||
                FAILED(hr = s2->GetProperties2(&p)))
                return Fail("GetProperties2", hr);
            rows.push_back({{"id", Id(p.id)}, {"pwszFriendlyName", Take(p.pwszFriendlyName)},
                            {"pwszIdentification", Take(p.pwszIdentification)}, {"ulFlags", p.ulFlags},
                            {"ulStripeSizeFlags", p.ulStripeSizeFlags},
                            {"ulSupportedRaidTypeFlags", p.ulSupportedRaidTypeFlags}, {"status", p.status},
                            {"health", p.health}, {"sNumberOfInternalBuses", p.sNumberOfInternalBuses},
                            {"sMaxNumberOfSlotsEachBus", p.sMaxNumberOfSlotsEachBus},
                            {"sMaxNumberOfControllers", p.sMaxNumberOfControllers},
                            {"sRebuildPriority", p.sRebuildPriority}, {"ulNumberOfEnclosures", p.ulNumberOfEnclosures}});
        }
    } else if (kind == "controllers") {
        for (auto& c : t.controllers) {
            VDS_CONTROLLER_PROP p{};
            if (FAILED(hr = c->GetProperties(&p))) return Fail("GetProperties", hr);
            rows.push_back({{"id", Id(p.id)}, {"pwszFriendlyName", Take(p.pwszFriendlyName)},
                            {"pwszIdentification", Take(p.pwszIdentification)}, {"status", p.status},
                            {"health", p.health}, {"sNumberOfPorts", p.sNumberOfPorts}});
        }
    } else if (kind == "ports") {
        for (auto& c : t.ports) {
            VDS_PORT_PROP p{};
            if (FAILED(hr = c->GetProperties(&p))) return Fail("GetProperties", hr);
            rows.push_back({{"id", Id(p.id)}, {"pwszFriendlyName", Take(p.pwszFriendlyName)},
                            {"pwszIdentification", Take(p.pwszIdentification)}, {"status", p.status}});
        }
    } else if (kind == "drives") {
        for (auto& d : t.drives) {
            CComPtr<IVdsDrive2> d2;
            VDS_DRIVE_PROP2 p{};
            if (FAILED(d->QueryInterface(IID_IVdsDrive2, reinterpret_cast<void**>(&d2))) ||
                FAILED(hr = d2->GetProperties2(&p)))
                return Fail("GetProperties2", hr);
            rows.push_back({{"id", Id(p.id)}, {"ullSize", p.ullSize}, {"pwszFriendlyName", Take(p.pwszFriendlyName)},
                            {"pwszIdentification", Take(p.pwszIdentification)}, {"ulFlags", p.ulFlags},
                            {"status", p.status}, {"health", p.health}, {"sInternalBusNumber", p.sInternalBusNumber},
                            {"sSlotNumber", p.sSlotNumber}, {"ulEnclosureNumber", p.ulEnclosureNumber},
                            {"busType", p.busType}, {"ulSpindleSpeed", p.ulSpindleSpeed}});
        }
    } else {
        std::cerr << "trovctl: unknown kind \"" << kind << "\" (subsystems, controllers, ports, drives)\n";
        return 2;
    }
    if (opt.json) {
        std::cout << rows.dump(2) << "\n";
        return 0;
    }
    std::printf("%s (%zu)\n", kind.c_str(), rows.size());
    int i = 0;
    for (auto& r : rows) {
        std::printf("  %2d  %s  %-40s", i++, r["id"].get<std::string>().c_str(),
                    r["pwszFriendlyName"].get<std::string>().c_str());
        if (r.contains("status")) std::printf("  status %d", r["status"].get<int>());
        if (r.contains("health")) std::printf("  health %d", r["health"].get<int>());
        if (r.contains("ullSize")) std::printf("  %.1f GiB", r["ullSize"].get<double>() / (1024.0 * 1024 * 1024));
        if (r.contains("ulFlags") && kind == "drives") std::printf("  flags 0x%x", r["ulFlags"].get<unsigned>());
        std::printf("\n");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"trovctl: manage an iSCSI RAID array through the trovhwiprv provider"};
    GlobalOptions opt;
    app.add_option("--settings", opt.settings, "settings file in the registry export format (the provider's "
                                               "Parameters and Debug keys, and the kelvane key's ConfigurationFile)")
        ->check(CLI::ExistingFile);
    app.add_option("--proxy-conf", opt.proxyConf, "a kelvane.conf naming the proxy service to use")
        ->check(CLI::ExistingFile);
    app.add_option("--module", opt.module, "path of the provider module (default: the one built beside trovctl)");
    app.add_flag("--json", opt.json, "print one JSON document");
    app.require_subcommand(0, 1);
    auto* info = app.add_subcommand("info", "print the provider's properties");
    auto* list = app.add_subcommand("list", "list the objects of one kind: subsystems, controllers, ports, drives");
    std::string kind;
    list->add_option("kind", kind, "subsystems | controllers | ports | drives")->required();
    app.footer("With no command: the provider's properties and every object. With neither --settings, "
               "--proxy-conf nor TROVHWIPRV_SETTINGS, the built-in array emulator (demo scenario) is used.");
    CLI11_PARSE(app, argc, argv);

    BuiltInArray builtIn;
    std::string tmpSettings;
    if (!opt.settings.empty()) {
        setenv("TROVHWIPRV_SETTINGS", opt.settings.c_str(), 1);
    } else if (!opt.proxyConf.empty()) {
        char tmpl[] = "/tmp/trovctl-settings.XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd < 0 || !WriteSettingsFor(opt.proxyConf, tmpl)) {
            std::cerr << "trovctl: cannot write a settings file for " << opt.proxyConf << "\n";
            return 1;
        }
        close(fd);
        tmpSettings = tmpl;
        setenv("TROVHWIPRV_SETTINGS", tmpl, 1);
    } else if (!getenv("TROVHWIPRV_SETTINGS")) {
        std::string err;
        if (!builtIn.Start(&err)) {
            std::cerr << "trovctl: cannot start the built-in array: " << err << "\n";
            return 1;
        }
        setenv("TROVHWIPRV_SETTINGS", builtIn.settings().c_str(), 1);
    }

    ProviderHost host;
    std::string err;
    if (!host.Open(opt.module.empty() ? DefaultModulePath() : opt.module, &err)) {
        std::cerr << "trovctl: cannot open the provider module: " << err << "\n";
        return 1;
    }
    HRESULT hr = host.Load(nullptr);
    if (FAILED(hr)) return Fail("OnLoad", hr);
    int rc = 0;
    if (*info) {
        rc = CmdInfo(host, opt);
    } else if (*list) {
        rc = CmdList(host, opt, kind);
    } else if (opt.json) {
        rc = CmdList(host, opt, "drives");
    } else {
        rc = CmdInfo(host, opt);
        for (const char* k : {"subsystems", "controllers", "ports", "drives"})
            if (rc == 0) rc = CmdList(host, opt, k);
    }
    hr = host.Unload();
    if (FAILED(hr) && rc == 0) rc = Fail("OnUnload", hr);
    if (!tmpSettings.empty()) std::remove(tmpSettings.c_str());
    return rc;
}
