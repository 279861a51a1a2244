// What ships beside trovctl agrees with trovctl: the manual page describes every command of the
// command table and every option, and the bash completion offers the commands, their words, the
// kinds and the objects' numbers.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "commands.h"
#include "support/temp_dir.h"

namespace {

std::string Output(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

// The text as a manual page writes it: a minus is "\-".
std::string Roff(const std::string& text) {
    std::string out;
    for (char c : text) out += c == '-' ? std::string("\\-") : std::string(1, c);
    return out;
}

TEST(ManualPage, DescribesEveryCommandOfTheTable) {
    const std::string page = TempDir::Read(std::string(TROV_SOURCE_DIR) + "/doc/trovctl.1");
    ASSERT_FALSE(page.empty());
    for (const trovctl::Command& c : trovctl::Commands()) {
        std::string item = "\n.TP\n\\fB" + Roff(c.path) + "\\fR";
        if (*c.args) item += " \\fI" + Roff(c.args) + "\\fR";
        EXPECT_NE(page.find(item + "\n"), std::string::npos) << "trovctl.1 lacks the command: " << c.path << " " << c.args;
    }
}

TEST(ManualPage, DescribesEveryOption) {
    const std::string page = TempDir::Read(std::string(TROV_SOURCE_DIR) + "/doc/trovctl.1");
    const std::string help = Output(std::string(TROVCTL_BIN) + " --help");
    std::regex option("(^|[ ,])(--?[a-zA-Z][a-zA-Z-]*)");
    std::set<std::string> options;
    std::string section = help.substr(0, help.find("Commands ("));
    for (std::sregex_iterator it(section.begin(), section.end(), option), end; it != end; ++it)
        options.insert((*it)[2].str());
    ASSERT_GT(options.size(), 10u) << help;
    for (const std::string& o : options) EXPECT_NE(page.find(Roff(o)), std::string::npos) << "trovctl.1 lacks " << o;
}

// Every value the provider's code reads from the settings has its entry in trovhwiprv-settings(5).
TEST(ManualPage, SettingsPageDescribesEverySettingTheProviderReads) {
    const std::string page = TempDir::Read(std::string(TROV_SOURCE_DIR) + "/doc/trovhwiprv-settings.5");
    ASSERT_FALSE(page.empty());
    std::regex read("(ReadStringValue|ReadDwordValue|ReadFlag|ReadNumber)\\([^;]*?\"([A-Za-z]+)\"");
    std::set<std::string> names;
    for (const auto& e : std::filesystem::recursive_directory_iterator(std::string(TROV_SOURCE_DIR) + "/src")) {
        if (e.path().extension() != ".cpp") continue;
        std::string text = TempDir::Read(e.path().string());
        for (std::sregex_iterator it(text.begin(), text.end(), read), end; it != end; ++it) names.insert((*it)[2].str());
    }
    ASSERT_GT(names.size(), 10u);
    for (const std::string& n : names)
        EXPECT_NE(page.find(" " + n + " \" ("), std::string::npos) << "trovhwiprv-settings.5 lacks the setting " << n;
}

// What the completion offers for a command line (the last word is the one being completed).
std::string Complete(const std::string& line) {
    std::string script = "source '" + std::string(TROV_SOURCE_DIR) +
                         "/packaging/trovctl.bash-completion'; COMP_WORDS=(" + line +
                         "); COMP_WORDS[0]='" TROVCTL_BIN "'; COMP_CWORD=$((${#COMP_WORDS[@]}-1)); _trovctl; "
                         "echo \"${COMPREPLY[*]}\"";
    std::string out = Output("env -u TROVHWIPRV_SETTINGS -u TROVCTL_REGISTRY TROVCTL_MODULE='" TROV_MODULE_PATH
                             "' bash -c '" + std::regex_replace(script, std::regex("'"), "'\\''") + "'");
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}

TEST(BashCompletion, OffersCommandsWordsKindsAndNumbers) {
    // Every first word of the table, and nothing else, for an empty word.
    std::set<std::string> want = {"shell"};
    for (const trovctl::Command& c : trovctl::Commands()) {
        std::string first = std::string(c.path).substr(0, std::string(c.path).find(' '));
        for (size_t at = 0, bar; at != std::string::npos; at = bar == std::string::npos ? bar : bar + 1) {
            bar = first.find('|', at);
            want.insert(first.substr(at, bar == std::string::npos ? bar : bar - at));
        }
    }
    std::set<std::string> got;
    std::string all = Complete("trovctl ''") + " ";
    for (size_t at = 0, sp; (sp = all.find(' ', at)) != std::string::npos; at = sp + 1)
        if (sp > at) got.insert(all.substr(at, sp - at));
    EXPECT_EQ(got, want);

    const struct {
        const char* line;
        const char* offer;
    } cases[] = {
        {"trovctl re", "reenumerate refresh register"},
        {"trovctl maintenance ''", "beep blink stop pulse"},
        {"trovctl setflag drive ''", "hotspare"},
        {"trovctl list po", "ports pools portals portalgroups"},
        {"trovctl detail dr", "drive"},
        {"trovctl --js", "--json"},
        {"trovctl select lun ''", "0 1 2 3"},  // the demo array's four LUNs
    };
    for (const auto& c : cases) EXPECT_EQ(Complete(c.line), c.offer) << c.line;
}

}  // namespace
