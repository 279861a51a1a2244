// The command table as the shell's help, usage and completion read it; the progress bar; the
// settings trovctl writes for one run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "platform/settings.h"
#include "render.h"
#include "settings_files.h"

namespace {

using Words = std::vector<std::string>;

TEST(CommandTable, CompletionOffersTheWordsThatMayComeNext) {
    const struct {
        Words before;
        const char* partial;
        Words offer;
    } cases[] = {
        {{}, "re", {"reenumerate", "refresh"}},
        {{}, "q", {"quit"}},
        {{}, "zz", {}},
        {{"name"}, "", {"lun", "subsystem"}},
        {{"maintenance"}, "", {"beep", "blink", "pulse", "stop"}},
        {{"maintenance", "pulse", "3"}, "", {"controller", "drive"}},
        {{"list"}, "po", {"pools", "portalgroups", "portals", "ports"}},
        {{"watch"}, "", {"off", "on"}},
        {{"setflag"}, "", {"drive"}},
        {{"setflag", "drive"}, "", {"hotspare"}},
        {{"setflag", "drive", "hotspare"}, "", {"drive"}},
        {{"target", "secret", "s3cret"}, "", {"initiator", "target"}},
        {{"extents"}, "p", {"plex", "pool"}},
        {{"refresh"}, "", {}},
        {{"frobnicate"}, "", {}},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const std::string& w : c.before) line += w + " ";
        EXPECT_EQ(trovctl::Completions(c.before, c.partial, nullptr), c.offer) << line << c.partial;
    }
    // Every command's first word, once each.
    Words first = trovctl::Completions({}, "", nullptr);
    EXPECT_EQ(std::count(first.begin(), first.end(), "maintenance"), 1);
    EXPECT_NE(std::find(first.begin(), first.end(), "exit"), first.end());
}

TEST(CommandTable, AGroupsUsageJoinsTheWordsOfItsCommands) {
    const struct {
        const char* path;
        const char* usage;
    } cases[] = {
        {"name lun", "name subsystem|lun NAME [TARGET]"},
        {"maintenance pulse", "maintenance beep|blink|stop|pulse COUNT [TARGET]"},
        {"setflag drive hotspare", "setflag drive hotspare [TARGET]"},
        {"info", "info"},
    };
    for (const auto& c : cases) {
        const trovctl::Command* found = nullptr;
        for (const trovctl::Command& cmd : trovctl::Commands())
            if (std::string(cmd.path) == c.path) found = &cmd;
        ASSERT_NE(found, nullptr) << c.path;
        EXPECT_EQ(trovctl::GroupUsage(*found), c.usage);
    }
}

TEST(CommandTable, TheHelpShowsEveryEntryAndTheExitStatuses) {
    std::string help = trovctl::HelpText();
    for (const trovctl::Command& c : trovctl::Commands()) {
        std::string usage = std::string("  ") + c.path + (*c.args ? std::string(" ") + c.args : std::string());
        std::string summary = c.summary;
        summary = summary.substr(0, summary.find('\n'));
        size_t at = help.find(usage + " ");
        if (at == std::string::npos) at = help.find(usage + "\n");
        ASSERT_NE(at, std::string::npos) << usage;
        // The summary follows in the column (on the next line when the words fill it).
        EXPECT_NE(help.find(summary, at), std::string::npos) << usage;
        EXPECT_LT(help.find(summary, at) - at, usage.size() + 40) << usage;
    }
    for (const char* status : {"0 done", "1 the provider refused", "2 a bad command line", "3 the array was not reached"})
        EXPECT_NE(help.find(status), std::string::npos) << status;
}

TEST(ProgressBar, DrawsInPlaceOnATerminalAndOnceElsewhere) {
    const struct {
        int percent;
        const char* text;
    } cases[] = {{0, "copy [          ]   0%"},
                 {37, "copy [###       ]  37%"},
                 {100, "copy [##########] 100%"},
                 {-4, "copy [          ]   0%"},
                 {250, "copy [##########] 100%"}};
    for (const auto& c : cases) EXPECT_EQ(trovctl::ProgressBar::Text("copy", c.percent, 10), c.text);

    std::ostringstream tty, log;
    {
        trovctl::ProgressBar onTty(tty, "copy", true, 10), onLog(log, "copy", false, 10);
        for (int p : {10, 10, 50}) {
            onTty.Update(p);
            onLog.Update(p);
        }
    }
    EXPECT_EQ(tty.str(), "\rcopy [#         ]  10%\rcopy [#####     ]  50%\n");
    EXPECT_EQ(log.str(), "copy [#####     ]  50%\n");
}

std::string Slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(SettingsFiles, TheTimeoutOverlayKeepsTheSettingsAndItsValueWins) {
    trovctl::TempFile base("trovctl-base"), overlay("trovctl-overlay");
    ASSERT_FALSE(base.path().empty());
    const std::string key = trovctl::kParametersKey;
    const struct {
        const char* name;
        std::string base;  // "-": no file
    } cases[] = {
        {"no settings file", "-"},
        {"settings of its own",
         "Windows Registry Editor Version 5.00\n\n[" + key + "]\n\"Name\"=\"lab\"\n\"ReplyTimeout\"=dword:00000258\n"
         "\n[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters]\n"
         "\"ConfigurationFile\"=\"/tmp/k.conf\""},  // no newline at the end
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string from = c.base == "-" ? "/nonexistent/settings.reg" : base.path();
        if (c.base != "-") std::ofstream(base.path()) << c.base;
        std::string err;
        ASSERT_TRUE(trovctl::WriteTimeoutOverlay(from, 45, overlay.path(), &err)) << err;
        SettingsStore s;
        s.Parse(Slurp(overlay.path()));
        const SettingsStore::Value* v = s.Find(key, "ReplyTimeout");
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(v->type, SettingsStore::Type::Dword);
        EXPECT_EQ(v->dword, 45u);
        if (c.base != "-") {
            ASSERT_NE(s.Find(key, "Name"), nullptr);
            EXPECT_EQ(s.Find(key, "Name")->text, "lab");
            const SettingsStore::Value* conf =
                s.Find("HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters",
                       "ConfigurationFile");
            ASSERT_NE(conf, nullptr);
            EXPECT_EQ(conf->text, "/tmp/k.conf");
        }
    }
}

}  // namespace
