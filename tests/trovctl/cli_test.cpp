// trovctl as a user runs it: the built-in array, listings as text and JSON, bad commands.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <string>

namespace {

struct CliRun {
    int status;
    std::string out;
};

// Runs trovctl with its own built-in array; its standard error (the emulator's lines) is dropped.
CliRun Trovctl(const std::string& args, const std::string& env = "") {
    std::string cmd = "env -u TROVHWIPRV_SETTINGS " + env + " " + TROVCTL_BIN + " " + args + " 2>/dev/null";
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

// The fields and ids of every kind are the shell tests' part; here, that the binary's own array
// and output reach the user.
TEST(Trovctl, ListsTheBuiltInArrayAsJson) {
    CliRun r = Trovctl("--json list drives");
    ASSERT_EQ(r.status, 0) << r.out;
    auto drives = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_TRUE(drives.is_array()) << r.out;
    ASSERT_EQ(drives.size(), 12u);
    EXPECT_EQ(drives[0]["pwszFriendlyName"], "SEAGATE ST3600057SS s/n 3SJ01201K rev 0008 id 0.0 (SAS)");
    EXPECT_EQ(drives[0]["pwszIdentification"], "3SJ01201K");
    EXPECT_EQ(drives[7]["ulFlags"], 0x15);  // the demo's global spare
    EXPECT_EQ(drives[11]["busType"], 11);   // SATA
    EXPECT_TRUE(drives[0]["ullSize"].is_number_unsigned());
}

TEST(Trovctl, OverviewAndErrors) {
    CliRun r = Trovctl("");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Overview: ", 0), 0u) << r.out;  // says what it is
    EXPECT_NE(r.out.find("Controller A;IP=10.0.0.2"), std::string::npos) << r.out;
    for (const char* kind : {"subsystems (1)", "drives (12)", "luns (4)", "plexes (5)", "pools (4)", "portalgroups (4)"})
        EXPECT_NE(r.out.find(kind), std::string::npos) << kind;
    EXPECT_NE(Trovctl("list widgets").status, 0);
    EXPECT_NE(Trovctl("frobnicate").status, 0);
    EXPECT_NE(Trovctl("--settings /nonexistent/settings.reg info").status, 0);
}

namespace {
std::string WriteTemp(const std::string& text) {
    char tmpl[] = "/tmp/trovctl-test.XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) return {};
    FILE* f = fdopen(fd, "w");
    std::fputs(text.c_str(), f);
    std::fclose(f);
    return tmpl;
}
}  // namespace

TEST(Trovctl, ShellTakesItsLinesFromStandardInput) {
    std::string input = WriteTemp("select drive 7\ndetail\nbogus\nlist controllers\nquit\nlist ports\n");
    CliRun r = Trovctl("shell < " + input);
    std::remove(input.c_str());
    // An interactive error doesn't end the session; quit does.
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("selected drive "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("ulFlags            : hotspare, unassigned, standby (0x15)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("controllers (2)"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("ports ("), std::string::npos) << r.out;
}

TEST(Trovctl, ScriptsStopAtTheirFirstFailureAndHelpListsTheCommands) {
    std::string script = WriteTemp("list subsystems\nportprops 9 controller 0\nlist drives\n");
    CliRun r = Trovctl("-f " + script);
    EXPECT_EQ(r.status, 1);  // the provider refused: E_INVALIDARG
    EXPECT_NE(r.out.find("subsystems (1)"), std::string::npos);
    EXPECT_EQ(r.out.find("drives ("), std::string::npos);
    std::remove(script.c_str());

    CliRun ok = Trovctl("--json getdrive 0 7");
    ASSERT_EQ(ok.status, 0);
    EXPECT_EQ(nlohmann::json::parse(ok.out)["pwszIdentification"], "3SJ01208K");
    EXPECT_EQ(Trovctl("getdrive 0").status, 2);

    // The reply time-out is laid over the settings in use: the built-in array is still found.
    CliRun timed = Trovctl("--timeout 30 --json list drives");
    EXPECT_EQ(timed.status, 0);
    EXPECT_EQ(nlohmann::json::parse(timed.out, nullptr, false).size(), 12u) << timed.out;
    // Help needs no provider: it runs where there is no module to load.
    CliRun bare = Trovctl("help", "TROVCTL_MODULE=/nonexistent/libtrovhwiprv.so");
    EXPECT_EQ(bare.status, 0);
    EXPECT_NE(bare.out.find("Exit status: 0 done"), std::string::npos) << bare.out;

    CliRun help = Trovctl("--help");
    EXPECT_EQ(help.status, 0);
    for (const char* word : {"select TARGET", "detail [TARGET]", "maintenance pulse COUNT", "setflag drive hotspare",
                             "getdrive BUS SLOT", "portprops N", "--sim-log", "-f,--file", "create lun TYPE [size=SIZE]",
                             "maxsize extend [drives=D,D,...]", "HINT: mostlyreads", "SIZE: bytes",
                             "extend [size=SIZE] [drives=D,D,...] [TARGET]", "shrink size=SIZE", "delete lun [--yes]",
                             "unmask LIST", "associate controllerports PORT", "associate targets TARGET",
                             "activecontrollers", "activeports", "associatedtargets", "hints set FIELD=VALUE",
                             "convert master|standard", "-y,--yes"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
}
