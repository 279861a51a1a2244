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
#include "shell.h"
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
    // `log`: the emulator's lines go to standard error; otherwise they are dropped.
    bool Start(bool log, std::string* err) {
        char tmpl[] = "/tmp/trovctl.XXXXXX";
        if (!mkdtemp(tmpl)) {
            *err = "cannot make a temporary folder";
            return false;
        }
        dir_ = tmpl;
        trovsim::Options o;
        o.logRequests = false;
        o.heartbeatIntervalMs = 0;
        if (!log) o.logSink = [](const std::string&) {};
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

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"trovctl: manage an iSCSI RAID array through the trovhwiprv provider"};
    GlobalOptions opt;
    std::string script;
    std::vector<std::string> words;
    app.add_option("--settings", opt.settings, "settings file in the registry export format (the provider's "
                                               "Parameters and Debug keys, and the kelvane key's ConfigurationFile)")
        ->check(CLI::ExistingFile);
    app.add_option("--proxy-conf", opt.proxyConf, "a kelvane.conf naming the proxy service to use")
        ->check(CLI::ExistingFile);
    app.add_option("--module", opt.module, "path of the provider module (default: the one built beside trovctl)");
    app.add_flag("--json", opt.json, "print one JSON document per command");
    bool simLog = false;
    app.add_flag("--sim-log", simLog, "show the built-in array's log lines on standard error");
    app.add_option("-f,--file", script, "run the commands of FILE, one per line; stop at the first failure")
        ->check(CLI::ExistingFile);
    app.add_option("command", words, "a command and its words (see below); \"shell\" for the interactive shell");
    app.positionals_at_end(true);
    app.footer(std::string("\n") + trovctl::HelpText() +
               "\n\nWith no command: the interactive shell on a terminal, else the provider's properties and "
               "every object.\nWith neither --settings, --proxy-conf nor TROVHWIPRV_SETTINGS, the built-in array "
               "emulator (demo scenario) is used.");
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
        if (!builtIn.Start(simLog, &err)) {
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
    // The shell is made before the load so that the monitor's notifications have somewhere to go;
    // a one-shot command other than watch needs none, and so runs no monitor.
    trovctl::Shell shell(nullptr, std::cout, std::cerr, opt.json);
    bool listens = !script.empty() || words.empty() || words[0] == "shell" || words[0] == "watch";
    HRESULT hr = host.Load(listens ? ProviderHost::NotifyFn([&shell](const VDS_NOTIFICATION& n) { shell.OnNotification(n); })
                                   : ProviderHost::NotifyFn());
    if (FAILED(hr)) {
        std::cerr << "trovctl: OnLoad failed: " << trovctl::HrText(hr) << "\n";
        return 1;
    }
    int rc;
    shell.SetProvider(host.provider());
    {
        if (!script.empty()) {
            std::ifstream in(script);
            rc = shell.RunScript(in, script);
            if (rc == trovctl::kOk && !words.empty()) rc = shell.Execute(words);
        } else if (words.size() == 1 && words[0] == "shell") {
            rc = shell.RunInteractive();
        } else if (!words.empty()) {
            rc = shell.Execute(words);
        } else if (isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) && !opt.json) {
            rc = shell.RunInteractive();
        } else {
            rc = shell.Overview();
        }
    }
    hr = host.Unload();
    if (FAILED(hr) && rc == 0) {
        std::cerr << "trovctl: OnUnload failed: " << trovctl::HrText(hr) << "\n";
        rc = 1;
    }
    if (!tmpSettings.empty()) std::remove(tmpSettings.c_str());
    return rc;
}
