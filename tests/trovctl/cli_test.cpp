// trovctl as a user runs it: the built-in array, listings as text and JSON, bad commands.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct CliRun {
    int status;
    std::string out;
};

// Runs trovctl with its own built-in array; its standard error (the emulator's lines) is dropped.
CliRun Trovctl(const std::string& args) {
    std::string cmd = std::string("env -u TROVHWIPRV_SETTINGS ") + TROVCTL_BIN + " " + args + " 2>/dev/null";
    CliRun r{-1, {}};
    FILE* f = popen(cmd.c_str(), "r");
    if (!f) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) r.out.append(buf, n);
    int st = pclose(f);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

}  // namespace

TEST(Trovctl, ListsTheBuiltInArrayAsJson) {
    struct Case {
        const char* kind;
        size_t count;
        const char* key;
    } cases[] = {{"subsystems", 1, "ulSupportedRaidTypeFlags"},
                 {"controllers", 2, "sNumberOfPorts"},
                 {"ports", 4, "status"},
                 {"drives", 12, "ulSpindleSpeed"}};
    for (const Case& c : cases) {
        CliRun r = Trovctl(std::string("--json list ") + c.kind);
        ASSERT_EQ(r.status, 0) << c.kind << ": " << r.out;
        auto j = nlohmann::json::parse(r.out, nullptr, false);
        ASSERT_TRUE(j.is_array()) << r.out;
        EXPECT_EQ(j.size(), c.count) << c.kind;
        for (auto& o : j) {
            ASSERT_TRUE(o.contains(c.key)) << o.dump();
            std::string id = o["id"];
            EXPECT_EQ(id.size(), 36u);
            EXPECT_EQ(id[8], '-');
        }
    }
    CliRun r = Trovctl("--json list drives");
    auto drives = nlohmann::json::parse(r.out);
    EXPECT_EQ(drives[0]["pwszFriendlyName"], "SEAGATE ST3600057SS s/n 3SJ01201K rev 0008 id 0.0 (SAS)");
    EXPECT_EQ(drives[0]["pwszIdentification"], "3SJ01201K");
    EXPECT_EQ(drives[7]["ulFlags"], 0x15);  // the demo's global spare
    EXPECT_EQ(drives[11]["busType"], 11);   // SATA
    EXPECT_TRUE(drives[0]["ullSize"].is_number_unsigned());
}

TEST(Trovctl, OverviewAndErrors) {
    CliRun r = Trovctl("");
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Controller A;IP=10.0.0.2"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("drives (12)"), std::string::npos) << r.out;
    EXPECT_NE(Trovctl("list pools").status, 0);
    EXPECT_NE(Trovctl("frobnicate").status, 0);
    EXPECT_NE(Trovctl("--settings /nonexistent/settings.reg info").status, 0);
}
