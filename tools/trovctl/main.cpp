// trovctl: the host program. It loads the provider module as a management host does and drives
// it through the published interfaces only.
#include <CLI/CLI.hpp>

#include <stdlib.h>
#include <termios.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host_messages.h"
#include "host_registry.h"
#include "interrupt.h"
#include "provider_host.h"
#include "settings_files.h"
#include "shell.h"
#include "sim/sim.h"

namespace {

using trovctl::kFailed;
using trovctl::kInterrupted;
using trovctl::kNoArray;
using trovctl::kOk;
using trovctl::kUsage;

constexpr const char* kDefaultSettings = "/etc/trovhwiprv/settings.reg";

// The environment variable that may hold the proxy service's password (see --proxy-conf).
constexpr const char* kPasswordVariable = "TROVCTL_PROXY_PASSWORD";

struct GlobalOptions {
    std::string settings;
    std::string proxyConf;
    std::string module;
    std::string script;
    std::string terse;
    std::vector<std::string> words;
    std::optional<long> timeout;
    bool json = false;
    bool simLog = false;
    bool header = false;
    bool noHeader = false;
    bool askPassword = false;
    bool yes = false;
};

// Reads the password from the terminal without echo; false when there is none or it was cut short.
bool AskPassword(std::string* password) {
    password->clear();
    if (!isatty(STDIN_FILENO)) return false;
    termios old{};
    if (tcgetattr(STDIN_FILENO, &old) != 0) return false;
    termios quiet = old;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    // Echo goes off before the prompt shows, so that nothing typed after it is echoed.
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    std::cerr << "password of the proxy service: " << std::flush;
    std::string line;
    bool ok = static_cast<bool>(std::getline(std::cin, line));
    tcsetattr(STDIN_FILENO, TCSANOW, &old);
    std::cerr << "\n";
    if (ok) password->swap(line);
    return ok && !password->empty();
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
        trovctl::interrupt::RemoveIfCutShort(dir_);
        trovctl::interrupt::RemoveIfCutShort(dir_ + "/kelvane.conf");
        trovctl::interrupt::RemoveIfCutShort(dir_ + "/settings.reg");
        trovsim::Options o;
        o.logRequests = false;
        o.heartbeatIntervalMs = 0;
        if (!log) o.logSink = [](const std::string&) {};
        server_ = std::make_unique<trovsim::Server>(o);
        if (!server_->LoadScenario("demo", err) || !server_->Start(err)) return false;
        if (!server_->WriteKelvaneConf(dir_ + "/kelvane.conf", err)) return false;
        settings_ = dir_ + "/settings.reg";
        if (!trovctl::WriteSettingsFor(dir_ + "/kelvane.conf", settings_)) {
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

const char* kFooter =
    "\n\nWith no command: the interactive shell on a terminal, else the provider's properties and every object.\n"
    "Listings are tables: states, types and flags in words, sizes in binary units, \"!\" on objects that are not\n"
    "healthy or not online; detail shows each word beside its number. Numbers of \"list\" stay with their objects.\n"
    "With neither --settings, --proxy-conf nor TROVHWIPRV_SETTINGS, the built-in array emulator (demo scenario)\n"
    "is used. The provider's event reports and console lines are shown on standard error as they come.\n"
    "The password of a kelvane.conf given with --proxy-conf may come from the environment variable\n"
    "TROVCTL_PROXY_PASSWORD or, with --ask-password, from the terminal; trovctl then gives the provider a private\n"
    "copy of the file (mode 0600, in /tmp) with the password filled in, and removes it when it ends.\n"
    "With --json a failure also prints {\"error\": NAME, \"code\": CODE, \"message\": TEXT} on standard output\n"
    "(CODE: the provider's result, or the exit status 2 or 3), and a listing that may be incomplete is an\n"
    "object {\"incomplete\": true, \"reason\": TEXT, KINDS: [...]} instead of a bare array.";

int Run(int argc, char** argv) {
    CLI::App app{"trovctl: manage an iSCSI RAID array through the trovhwiprv provider"};
    GlobalOptions opt;
    app.add_option("--settings", opt.settings, "settings file in the registry export format (the provider's "
                                               "Parameters and Debug keys, and the kelvane key's ConfigurationFile)");
    app.add_option("--proxy-conf", opt.proxyConf,
                   std::string("a kelvane.conf naming the proxy service to use; its password may come from ") +
                       kPasswordVariable + " or --ask-password instead");
    app.add_option("--module", opt.module,
                   "path of the provider module, for development (default: the registered provider, else the one "
                   "built beside trovctl)");
    app.add_option("--timeout", opt.timeout,
                   "seconds the provider waits for each reply of the proxy service in this run (1 to 600)");
    app.add_flag("--json", opt.json,
                 "print one JSON document per command (one per line in a script or the shell); enums carry a "
                 "text form beside them (\"type\": 18, \"typeText\": \"RAID5\")");
    app.add_option("-t,--terse", opt.terse, "print tables as their cells joined by SEP, one row a line, no header")
        ->type_name("SEP");
    app.add_flag("-H,--header", opt.header, "with --terse: print the header row too");
    app.add_flag("--no-header", opt.noHeader, "print tables without their header and count lines");
    app.add_flag("--ask-password", opt.askPassword,
                 "with --proxy-conf: ask for the proxy service's password (without echo) instead of reading it "
                 "from the file");
    app.add_flag("-y,--yes", opt.yes, "answer yes to the questions of commands that ask before they act (delete lun)");
    app.set_version_flag("-V,--version", std::string("trovctl ") + trovctl::kTrovctlVersion);
    app.add_flag("--sim-log", opt.simLog, "show the built-in array's log lines on standard error");
    app.add_option("-f,--file", opt.script, "run the commands of FILE, one per line; stop at the first failure");
    std::string hostRoot;
    app.add_option("--host-root", hostRoot, "a recorded host (a folder laid out like / with sys, dev, etc and "
                                            "multipathd replies) for every host source")
        ->type_name("DIR");
    app.add_option("command", opt.words, "a command and its words (see below); \"shell\" for the interactive shell");
    app.positionals_at_end(true);
    app.footer(std::string("\n") + trovctl::HelpText() + kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help is a success; every other complaint of the parser is a bad command line.
        return app.exit(e) == 0 ? kOk : kUsage;
    }

    trovctl::Render report(std::cout, std::cerr, opt.json);
    // Tables as the options ask; colours only for a terminal that wants them.
    const char* term = getenv("TERM");
    bool color = isatty(STDOUT_FILENO) && !getenv("NO_COLOR") && !(term && std::string(term) == "dumb");
    auto style = [&](trovctl::Render& r) {
        r.SetTerse(opt.terse);
        r.SetHeader(!opt.noHeader, opt.header);
        r.SetColor(color && opt.terse.empty());
    };
    auto usage = [&](const std::string& message) {
        report.Error("USAGE", kUsage, message);
        return kUsage;
    };
    // A file the command line names must be there to be read: a bad command line, not an array
    // that cannot be reached.
    const struct {
        const char* option;
        const std::string& path;
    } files[] = {{"--settings", opt.settings}, {"--proxy-conf", opt.proxyConf}, {"--file", opt.script}};
    for (const auto& f : files) {
        if (f.path.empty()) continue;
        std::string why = trovctl::UnreadableFile(f.path);
        if (!why.empty()) return usage(std::string(f.option) + " " + f.path + ": " + why);
    }
    if (!hostRoot.empty()) {
        struct stat st {};
        if (stat(hostRoot.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return usage("--host-root " + hostRoot + ": not a folder");
        setenv("TROVHWIPRV_HOST_ROOT", hostRoot.c_str(), 1);
    }
    if (!opt.terse.empty() && opt.json) return usage("--terse and --json do not go together");
    if (opt.header && opt.noHeader) return usage("--header and --no-header do not go together");
    const char* envPassword = getenv(kPasswordVariable);
    bool passwordAside = (envPassword && *envPassword) || opt.askPassword;
    if (passwordAside && opt.proxyConf.empty())
        return usage(std::string(opt.askPassword ? "--ask-password" : kPasswordVariable) +
                     " needs --proxy-conf: the password goes into that kelvane.conf");
    if (opt.timeout && (*opt.timeout < long(trovctl::kMinTimeout) || *opt.timeout > long(trovctl::kMaxTimeout)))
        return usage("--timeout takes " + std::to_string(trovctl::kMinTimeout) + " to " +
                     std::to_string(trovctl::kMaxTimeout) + " seconds, not " + std::to_string(*opt.timeout));

    const std::vector<std::string>& words = opt.words;
    bool shellMode = opt.script.empty() &&
                     ((words.size() == 1 && words[0] == "shell") ||
                      (words.empty() && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) && !opt.json));
    trovctl::Call call{nullptr, {}, {}};
    std::string ignored;
    const trovctl::Command* oneShot =
        !shellMode && !words.empty() ? trovctl::FindCommand(words, &call, &ignored) : nullptr;
    // The settings may name the host registry, which commands without a provider use too.
    if (!opt.settings.empty()) setenv("TROVHWIPRV_SETTINGS", opt.settings.c_str(), 1);
    if (opt.script.empty() && oneShot && (oneShot->flags & trovctl::kNeedsNoProvider)) {
        trovctl::Shell bare(nullptr, std::cout, std::cerr, opt.json);
        return bare.Execute(words);
    }
    // Options given after the command are taken as its words by the parser: point them out.
    for (size_t i = 1; i < words.size(); ++i)
        if (!(oneShot && (oneShot->flags & trovctl::kAsks) && words[i] == "--yes") && words[i].size() > 2 && words[i].compare(0, 2, "--") == 0 && app.get_option_no_throw(words[i]))
            return usage("\"" + words[i] + "\" is an option of trovctl: options go before the command (trovctl " +
                         words[i] + " " + words[0] + " ...)");

    // The module: --module, TROVCTL_MODULE, the host registry, or the one beside the build.
    std::string modulePath;
    GUID moduleClass{};
    {
        std::string why;
        if (!trovctl::ResolveModule(opt.module, &modulePath, &moduleClass, &why)) {
            std::cerr << "trovctl: " << why << "\n";
            return kFailed;
        }
    }

    // Before any thread starts, so that every thread inherits the blocked signals.
    trovctl::interrupt::Install();

    BuiltInArray builtIn;
    std::optional<trovctl::TempFile> confSettings, timeoutSettings, privateConf;  // removed as the run ends
    if (passwordAside) {
        // A private copy of the kelvane.conf with the password filled in, for the provider to
        // read; only this user can read it, and it goes when the run ends.
        std::string password = envPassword && *envPassword ? envPassword : "";
        if (opt.askPassword && !AskPassword(&password)) return usage("no password given");
        std::string why = trovctl::PasswordProblem(password);
        if (!why.empty()) return usage("the password " + why);
        const std::string& path = privateConf.emplace("trovctl-kelvane").path();
        trovctl::interrupt::RemoveIfCutShort(path);
        std::string err = "cannot make a temporary file";
        if (path.empty() || !trovctl::WriteConfWithPassword(opt.proxyConf, password, path, &err)) {
            std::cerr << "trovctl: " << err << "\n";
            return kFailed;
        }
        std::fill(password.begin(), password.end(), '\0');
        opt.proxyConf = path;
    }
    if (!opt.settings.empty()) {
        setenv("TROVHWIPRV_SETTINGS", opt.settings.c_str(), 1);
    } else if (!opt.proxyConf.empty()) {
        const std::string& path = confSettings.emplace("trovctl-settings").path();
        trovctl::interrupt::RemoveIfCutShort(path);
        if (path.empty() || !trovctl::WriteSettingsFor(opt.proxyConf, path)) {
            std::cerr << "trovctl: cannot write a settings file for " << opt.proxyConf << "\n";
            return kFailed;
        }
        setenv("TROVHWIPRV_SETTINGS", path.c_str(), 1);
    } else if (!getenv("TROVHWIPRV_SETTINGS")) {
        std::string err;
        if (!builtIn.Start(opt.simLog, &err)) {
            std::cerr << "trovctl: cannot start the built-in array: " << err << "\n";
            return kFailed;
        }
        setenv("TROVHWIPRV_SETTINGS", builtIn.settings().c_str(), 1);
    }
    if (opt.timeout) {
        const char* inUse = getenv("TROVHWIPRV_SETTINGS");
        const std::string& path = timeoutSettings.emplace("trovctl-timeout").path();
        trovctl::interrupt::RemoveIfCutShort(path);
        std::string err = "cannot make a temporary file";
        if (path.empty() || !trovctl::WriteTimeoutOverlay(inUse && *inUse ? inUse : kDefaultSettings,
                                                          static_cast<uint32_t>(*opt.timeout), path, &err)) {
            std::cerr << "trovctl: cannot write the settings for --timeout: " << err << "\n";
            return kFailed;
        }
        setenv("TROVHWIPRV_SETTINGS", path.c_str(), 1);
    }

    // Declared before the host: the provider may speak to the sink until the host unloads it.
    trovctl::HostMessages messages(std::cerr);
    ProviderHost host;
    std::string err;
    if (!host.Open(modulePath, &err, moduleClass)) {
        std::cerr << "trovctl: cannot open the provider module: " << err << "\n";
        return kFailed;
    }
    host.SetHostSink(messages.Sink());
    // The shell is made before the load so that the monitor's notifications have somewhere to go;
    // a one-shot command that does not listen needs none, and so runs no monitor.
    trovctl::Shell shell(nullptr, std::cout, std::cerr, opt.json);
    shell.SetMessages(&messages);
    style(shell.render());
    shell.SetMayAsk(isatty(STDIN_FILENO) != 0);
    shell.SetAssumeYes(opt.yes);
    // A progress bar only where someone watches it: a terminal, and not under --json.
    shell.SetProgress(isatty(STDERR_FILENO) != 0 && !opt.json);
    // A script or the shell writes one JSON document per line, for tools that read NDJSON.
    shell.render().SetNdjson(!opt.script.empty() || shellMode);
    bool listens = !opt.script.empty() || shellMode || words.empty() || (oneShot && (oneShot->flags & trovctl::kListens));
    shell.BeginLoad();
    HRESULT hr = host.Load(listens ? ProviderHost::NotifyFn([&shell](const VDS_NOTIFICATION& n) { shell.OnNotification(n); })
                                   : ProviderHost::NotifyFn());
    shell.SetProvider(host.provider());
    int loadRc = shell.EndLoad(hr);
    if (FAILED(hr)) {
        host.Unload();
        return loadRc;
    }

    int rc;
    if (trovctl::interrupt::Ending()) {
        rc = kInterrupted;
    } else if (loadRc == kNoArray && !shell.arrayReached() && !shellMode) {
        rc = kNoArray;  // nothing to show; the line said why
    } else {
        if (!opt.script.empty()) {
            std::ifstream in(opt.script);
            rc = shell.RunScript(in, opt.script);
            if (rc == kOk && !words.empty()) rc = shell.Execute(words);
        } else if (shellMode) {
            rc = shell.RunInteractive();
        } else if (!words.empty()) {
            rc = shell.Execute(words);
        } else {
            rc = shell.Overview();
        }
        // What was shown came from a partial tree: the run did not succeed.
        if (loadRc == kNoArray && !shellMode && rc != kUsage && rc != kInterrupted) rc = kNoArray;
    }
    std::cout.flush();
    HRESULT unload = host.Unload();
    if (FAILED(unload) && rc == kOk) {
        std::cerr << "trovctl: OnUnload failed: " << trovctl::HrText(unload) << "\n";
        rc = kFailed;
    }
    return rc;
}

}  // namespace

int main(int argc, char** argv) {
    int rc = Run(argc, argv);
    // A run that a signal ended ends as by that signal, once everything above has been undone.
    trovctl::interrupt::ExitAsSignalled();
    return rc;
}
