// Completion from the command table; the progress bar; the settings trovctl writes for one run.
#include <gtest/gtest.h>

#include <sys/stat.h>

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
        {{}, "re", {"reenumerate", "refresh", "register"}},
        {{"name"}, "", {"lun", "subsystem"}},
        {{"maintenance"}, "", {"beep", "blink", "pulse", "stop"}},
        {{"maintenance", "pulse", "3"}, "", {"controller", "drive"}},
        {{"list"}, "po", {"pools", "portalgroups", "portals", "ports"}},
        {{"watch"}, "", {"off", "on"}},
        {{"setflag", "drive"}, "", {"hotspare"}},
        {{"setflag", "drive", "hotspare"}, "", {"drive"}},
        {{"target", "secret", "s3cret"}, "", {"initiator", "target"}},
        {{"extents"}, "p", {"plex", "pool"}},
        {{"frobnicate"}, "", {}},
        {{}, "LI", {"list"}},  // commands in any case
        {{"LIST"}, "PORTA", {"portalgroups", "portals"}},
        {{"Maintenance"}, "B", {"beep", "blink"}},
        {{"SetFlag", "DRIVE"}, "", {"hotspare"}},
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

TEST(SettingsFiles, TheTimeoutOverlayKeepsTheSettingsAndItsValueWins) {
    trovctl::TempFile base("trovctl-base"), overlay("trovctl-overlay");
    const std::string key = trovctl::kParametersKey;
    const std::string kelvane = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters";
    std::ofstream(base.path()) << "Windows Registry Editor Version 5.00\n\n[" + key +
                                      "]\n\"Name\"=\"lab\"\n\"ReplyTimeout\"=dword:00000258\n\n[" + kelvane +
                                      "]\n\"ConfigurationFile\"=\"/tmp/k.conf\"";  // no newline at the end
    std::string err;
    ASSERT_TRUE(trovctl::WriteTimeoutOverlay(base.path(), 45, overlay.path(), &err)) << err;
    std::stringstream text;
    text << std::ifstream(overlay.path()).rdbuf();
    SettingsStore s;
    s.Parse(text.str());
    const SettingsStore::Value* timeout = s.Find(key, "ReplyTimeout");
    ASSERT_NE(timeout, nullptr);
    EXPECT_EQ(timeout->type, SettingsStore::Type::Dword);
    EXPECT_EQ(timeout->dword, 45u);
    ASSERT_NE(s.Find(key, "Name"), nullptr);
    EXPECT_EQ(s.Find(key, "Name")->text, "lab");
    ASSERT_NE(s.Find(kelvane, "ConfigurationFile"), nullptr);
    EXPECT_EQ(s.Find(kelvane, "ConfigurationFile")->text, "/tmp/k.conf");
}

TEST(SettingsFiles, APasswordKeptOutOfTheFileGoesIntoAPrivateCopy) {
    const struct {
        std::string password;
        const char* problem;  // empty: fine
    } cases[] = {{"s3cret", ""},
                 {std::string(48, 'p'), ""},
                 {std::string(49, 'p'), "longer than 48"},
                 {"", "is empty"},
                 {"a:b", "colon"},
                 {"two\nlines", "line break"},
                 {" padded", "blank"}};
    for (const auto& c : cases) {
        std::string why = trovctl::PasswordProblem(c.password);
        if (*c.problem == '\0')
            EXPECT_EQ(why, "") << c.password;
        else
            EXPECT_NE(why.find(c.problem), std::string::npos) << c.password << ": " << why;
    }

    trovctl::TempFile conf("trovctl-conf"), copy("trovctl-copy");
    std::ofstream(conf.path()) << "version  :1\nipaddress:127.0.0.1\nusername :admin\npassword :old\n  password :older\n"
                                  "port     :9000\n";
    std::string err;
    ASSERT_TRUE(trovctl::WriteConfWithPassword(conf.path(), "n3w", copy.path(), &err)) << err;
    std::stringstream text;
    text << std::ifstream(copy.path()).rdbuf();
    EXPECT_EQ(text.str(), "version  :1\nipaddress:127.0.0.1\nusername :admin\nport     :9000\npassword :n3w\n");
    struct stat st {};
    ASSERT_EQ(stat(copy.path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_FALSE(trovctl::WriteConfWithPassword("/nonexistent/kelvane.conf", "x", copy.path(), &err));
    EXPECT_NE(err.find("/nonexistent/kelvane.conf"), std::string::npos) << err;
}

}  // namespace
