// The trovctl command language against a provider loaded the way a host loads it, on the fake
// platform, with the emulator's demo array behind it: listings and details with the published
// field names, targets and the selection, every action command, scripts, and bad command lines.
#include <cctype>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <memory>
#include <set>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "shell.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

using testlib::ProviderEnv;
using trovctl::Shell;

namespace {

struct Result {
    int rc;
    std::string out, err;
};

class ShellTest : public ::testing::Test {
protected:
    ShellTest() : env("demo", SimOptions()) {}

    trovsim::Options SimOptions() {
        trovsim::Options o;
        o.logRequests = true;
        o.logSink = [this](const std::string& line) {
            std::lock_guard<std::mutex> g(mu);
            simLog += line + "\n";
        };
        return o;
    }

    void SetUp() override {
        ASSERT_EQ(env.Load(), S_OK);
        shell = std::make_unique<Shell>(env.provider, out, err, false);
    }

    Result Run(const std::string& line, bool json = false) {
        shell->SetJson(json);
        out.str({});
        err.str({});
        int rc = shell->ExecuteLine(line);
        return {rc, out.str(), err.str()};
    }
    nlohmann::ordered_json Json(const std::string& line) {
        Result r = Run(line, true);
        EXPECT_EQ(r.rc, 0) << line << ": " << r.err;
        return nlohmann::ordered_json::parse(r.out, nullptr, false);
    }
    std::string SimLog() {
        std::lock_guard<std::mutex> g(mu);
        return simLog;
    }
    std::vector<std::string> Ids(const std::string& kind) {
        std::vector<std::string> ids;
        for (auto& o : Json("list " + kind)) ids.push_back(o["id"]);
        return ids;
    }

    std::mutex mu;
    std::string simLog;
    ProviderEnv env;
    std::ostringstream out, err;
    std::unique_ptr<Shell> shell;  // bound to the provider once it is loaded
};

using LoadedShell = ShellTest;

bool IsId(const nlohmann::ordered_json& v) {
    if (!v.is_string()) return false;
    std::string s = v;
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash != (s[i] == '-')) return false;
        if (!dash && !isxdigit(static_cast<unsigned char>(s[i]))) return false;
    }
    return true;
}

TEST_F(LoadedShell, EveryKindListsAndDetailsWithThePublishedFieldsAndIds) {
    struct Case {
        const char* kind;
        const char* one;
        size_t count;
        std::vector<const char*> keys;
    } cases[] = {
        {"subsystems", "subsystem", 1, {"id", "pwszFriendlyName", "pwszIdentification", "ulFlags", "ulStripeSizeFlags",
                                        "ulSupportedRaidTypeFlags", "status", "statusText", "health", "healthText",
                                        "sNumberOfInternalBuses", "sMaxNumberOfSlotsEachBus", "sMaxNumberOfControllers",
                                        "sRebuildPriority", "ulNumberOfEnclosures"}},
        {"controllers", "controller", 2,
         {"id", "pwszFriendlyName", "pwszIdentification", "status", "statusText", "health", "healthText",
          "sNumberOfPorts"}},
        {"ports", "port", 4, {"id", "pwszFriendlyName", "pwszIdentification", "status", "statusText"}},
        {"drives", "drive", 12, {"id", "ullSize", "pwszFriendlyName", "pwszIdentification", "ulFlags", "ulFlagsText",
                                 "status", "statusText", "health", "healthText", "sInternalBusNumber", "sSlotNumber",
                                 "ulEnclosureNumber", "busType", "busTypeText", "ulSpindleSpeed"}},
        {"luns", "lun", 4, {"id", "ullSize", "pwszFriendlyName", "pwszIdentification", "pwszUnmaskingList", "ulFlags",
                            "ulFlagsText", "type", "typeText", "status", "statusText", "health", "healthText",
                            "TransitionState", "TransitionStateText", "sRebuildPriority"}},
        {"plexes", "plex", 5, {"id", "ullSize", "type", "typeText", "status", "statusText", "health", "healthText",
                               "TransitionState", "TransitionStateText", "ulFlags", "ulStripeSize", "sRebuildPriority"}},
        {"pools", "pool", 4, {"id", "status", "statusText", "health", "healthText", "type", "typeText", "pwszName",
                              "pwszDescription", "ullTotalConsumedSpace", "ullTotalManagedSpace",
                              "ullRemainingFreeSpace", "ullAttributeMask", "raidType", "raidTypeText", "busType",
                              "busTypeText", "pwszIntendedUsage", "bSpinDown", "bIsThinProvisioned",
                              "ullProvisionedSpace", "bNoSinglePointOfFailure", "ulStripeSize", "ulStripeSizeMax",
                              "ulStripeSizeMin", "ulDefaultStripeSize"}},
        {"targets", "target", 2, {"id", "pwszIscsiName", "pwszFriendlyName", "bChapEnabled"}},
        {"portals", "portal", 4, {"id", "address", "status", "statusText"}},
        {"portalgroups", "portalgroup", 4, {"id", "tag"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.kind);
        nlohmann::ordered_json rows = Json(std::string("list ") + c.kind);
        ASSERT_TRUE(rows.is_array());
        ASSERT_EQ(rows.size(), c.count);
        for (size_t i = 0; i < rows.size(); ++i) {
            const auto& row = rows[i];
            std::vector<std::string> keys;  // in record order
            for (auto it = row.begin(); it != row.end(); ++it) keys.push_back(it.key());
            EXPECT_EQ(keys, std::vector<std::string>(c.keys.begin(), c.keys.end()));
            EXPECT_TRUE(IsId(row["id"])) << row["id"];
            // The same object by its number, by its id alone, and by kind and id. A target's detail
            // adds the portals to connect to.
            std::string id = row["id"];
            auto detail = [&](const std::string& line) {
                auto j = Json(line);
                j.erase("portals");
                return j;
            };
            EXPECT_EQ(detail(std::string("detail ") + c.one + " " + std::to_string(i)), row);
            EXPECT_EQ(detail("detail " + id), row);
            EXPECT_EQ(detail(std::string("detail ") + c.one + " " + id), row);
        }
    }
    auto portal = Json("detail portal 0")["address"];
    EXPECT_EQ(portal["type"], 1);
    EXPECT_EQ(portal["ulPort"], 3260);
    EXPECT_TRUE(Json("detail drive 0")["status"].is_number());
    EXPECT_EQ(Json("list luns")[0]["pwszUnmaskingList"], "iqn.1991-05.com.microsoft:host01.demo.local");
    // Where an initiator connects to each target: the portals of its groups.
    for (const char* target : {"target 0", "target 1"}) {
        auto portals = Json(std::string("detail ") + target)["portals"];
        ASSERT_TRUE(portals.is_array()) << target;
        ASSERT_FALSE(portals.empty()) << target;
        for (auto& p : portals) {
            std::string at = p;
            EXPECT_NE(at.find(":3260"), std::string::npos) << at;
            bool listed = false;
            for (auto& portal : Json("list portals"))
                listed = listed || at == portal["address"]["wszTextAddress"].get<std::string>() + ":3260";
            EXPECT_TRUE(listed) << at;
        }
    }
}

TEST_F(LoadedShell, SelectionIsUsedUntilAnotherIsMade) {
    nlohmann::ordered_json drives = Json("list drives");
    Result r = Run("select drive 7");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_NE(r.out.find(drives[7]["id"].get<std::string>()), std::string::npos) << r.out;
    EXPECT_EQ(Json("detail"), drives[7]);
    // A command of another kind does not take the drive.
    r = Run("flushcache");
    EXPECT_EQ(r.rc, trovctl::kUsage);
    EXPECT_NE(r.err.find("needs a controller"), std::string::npos) << r.err;
    ASSERT_EQ(Run("select controller 1").rc, 0);
    EXPECT_EQ(Run("flushcache").rc, 0);
    EXPECT_EQ(Json("detail"), Json("list controllers")[1]);
    // A subsystem command finds the only subsystem without a selection of its own.
    EXPECT_EQ(Json("getdrive 0 7"), drives[7]);
}

struct BadLine {
    const char* line;
    int rc;
    const char* message;
};

void PrintTo(const BadLine& b, std::ostream* os) { *os << '"' << b.line << '"'; }

class BadLines : public LoadedShell, public ::testing::WithParamInterface<BadLine> {};

TEST_P(BadLines, AreRefusedWithAClearMessageAndStatus) {
    const BadLine& c = GetParam();
    Result r = Run(c.line);
    EXPECT_EQ(r.rc, c.rc) << c.line << ": " << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.line << ": " << r.err;
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Lines, BadLines,
    ::testing::Values(BadLine{"frobnicate", 2, "unknown command \"frobnicate\""},
                      BadLine{"list widgets", 2, "list what?"},
                      BadLine{"list", 2, "list what?"},
                      BadLine{"info now", 2, "info takes no arguments"},
                      BadLine{"select", 2, "select what?"},
                      BadLine{"detail drive 99", 2, "there is no drive 99 (there are 12)"},
                      BadLine{"detail drive -1", 2, "there is no drive \"-1\""},
                      BadLine{"detail widget 1", 2, "\"widget\" is not a kind of object"},
                      BadLine{"detail drive 1 2", 2, "too many words"},
                      BadLine{"detail 3", 2, "say which kind"},
                      BadLine{"detail 12345678-1234-1234-1234-123456789012", 1,
                              "GetObject failed: VDS_E_OBJECT_NOT_FOUND (0x80042405)"},
                      BadLine{"extents", 2, "needs a drive"},
                      BadLine{"flushcache drive 1", 2, "takes a controller, not a drive"},
                      BadLine{"maintenance beep port 0", 2, "takes a drive or controller, not a port"},
                      BadLine{"maintenance", 2, "usage: maintenance"},
                      BadLine{"maintenance dance drive 1", 2, "unknown maintenance operation \"dance\""},
                      BadLine{"maintenance pulse 0 drive 1", 2, "takes a COUNT from 1 to 100, not \"0\""},
                      BadLine{"maintenance pulse many drive 1", 2, "takes a COUNT from 1 to 100"},
                      BadLine{"maintenance pulse 101 drive 1", 2, "takes a COUNT from 1 to 100, not \"101\""},
                      BadLine{"maintenance pulse", 2, "takes a COUNT from 1 to 100"},
                      BadLine{"setflag drive", 2, "usage: setflag drive hotspare"},
                      BadLine{"clearflag drive readonly", 2, "usage: clearflag drive hotspare"},
                      BadLine{"setflag drive hotspare drive 0", 2, "drive 0 (0:0 3SJ01201K) belongs to a vdisk"},
                      BadLine{"setflag drive hotspare drive 7", 2, "drive 7 (0:7 3SJ01208K) is already a spare"},
                      BadLine{"clearflag drive hotspare drive 4", 2, "drive 4 (0:4 3SJ01205K) is not a spare"},
                      BadLine{"getdrive 0", 2, "usage: getdrive BUS SLOT"},
                      BadLine{"getdrive x 1", 2, "usage: getdrive BUS SLOT"},
                      BadLine{"getdrive 0 99", 1, "GetDrive failed: VDS_E_OBJECT_NOT_FOUND"},
                      BadLine{"portprops", 2, "usage: portprops N"},
                      BadLine{"portprops 9 controller 0", 1, "GetPortProperties failed: E_INVALIDARG (0x80070057)"},
                      BadLine{"name subsystem", 2, "usage: name subsystem|lun NAME"},
                      BadLine{"name controller x", 2, "usage: name subsystem|lun NAME"},
                      BadLine{"reenumerate everything", 2, "usage: reenumerate"},
                      BadLine{"refresh now", 2, "refresh takes no arguments"},
                      BadLine{"detail \"drive 1", 2, "unterminated quote"},
                      BadLine{"name lun", 2, "usage: name subsystem|lun NAME"},
                      BadLine{"name lun x drive 1", 2, "takes a lun, not a drive"},
                      BadLine{"name lun logs01 lun 0", 1, "SetFriendlyName failed: VDS_E_NAME_NOT_UNIQUE"},
                      BadLine{"pool", 2, "usage: pool luns"},
                      BadLine{"pool luns drive 1", 2, "takes a pool, not a drive"},
                      BadLine{"target secret", 2, "needs a target"},
                      BadLine{"target secret target 0", 2, "no terminal to ask the secret on"},
                      BadLine{"target secret abc initiator", 2, "usage: target secret"},
                      BadLine{"target secret abc", 2, "needs a target"},
                      BadLine{"initiator secret iqn.x", 2, "needs a target"},
                      BadLine{"initiator secret", 2, "usage: initiator secret"},
                      BadLine{"name lun \"\" lun 0", 2, "a LUN name cannot be empty"},
                      BadLine{"name subsystem \"\"", 2, "a subsystem name cannot be empty"},
                      BadLine{"list drives --json", 2, "\"--json\" is an option of trovctl"},
                      BadLine{"detail nosuchname", 2, "\"nosuchname\" (not a number, id, name or identification"},
                      BadLine{"initiators portal 0", 2, "takes a target, not a portal"},
                      BadLine{"extents controller 0", 2, "takes a drive or lun or plex or pool, not a controller"}),
    // The line itself names the case ("detail drive 99" -> "7_detail_drive_99").
    [](const ::testing::TestParamInfo<BadLine>& info) {
        std::string name = std::to_string(info.index);
        bool gap = true;
        for (const char* p = info.param.line; *p; ++p) {
            bool word = std::isalnum(static_cast<unsigned char>(*p));
            if (word && gap) name += '_';
            if (word) name += *p;
            gap = !word;
        }
        return name;
    });

TEST_F(LoadedShell, LunNamesExtentsPoolLunsAndTheTargetCommands) {
    std::string db = Json("detail lun 0")["id"], logs = Json("detail lun 1")["id"];
    Result r = Run("name lun \"an-overlong-volume-name\" " + logs);
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out.rfind("name lun: done, VDS_S_NAME_TRUNCATED (0x00042700): the name was too long and was cut", 0), 0u)
        << r.out;
    EXPECT_EQ(Json("detail " + logs)["pwszFriendlyName"], "an-overlong-volume-n");

    // db01 on a four-drive RAID5: a third of it on each member.
    auto ext = Json("extents " + db);
    ASSERT_EQ(ext.size(), 4u);
    for (auto& e : ext) {
        EXPECT_EQ(e["LunId"], db);
        EXPECT_EQ(e["ullSize"], (200ull << 30) / 3);
    }
    auto poolExt = Json("extents pool 2");
    EXPECT_EQ(poolExt.size(), 4u);

    auto poolLuns = Json("pool luns pool 2");
    std::set<std::string> names;
    for (auto& l : poolLuns) names.insert(l["pwszFriendlyName"]);
    EXPECT_EQ(names, (std::set<std::string>{"db01", "an-overlong-volume-n", "scratch01"}));

    EXPECT_EQ(Json("initiators target 0"), nlohmann::ordered_json::parse(
                                              R"(["iqn.1991-05.com.microsoft:host01.demo.local",
                                                  "iqn.1991-05.com.microsoft:host02.demo.local"])"));
    for (const char* line : {"target secret twelve-chars target 0", "target secret - target 0",
                             "target secret twelve-chars initiator iqn.x target 1", "target secret - initiator iqn.x target 1",
                             "initiator secret iqn.x secret12 target 0", "initiator secret iqn.x - target 0"}) {
        Result t = Run(line);
        EXPECT_EQ(t.rc, 0) << line << ": " << t.err;
    }
    std::string log = SimLog();
    for (const char* op : {"(115)", "(116)", "(117)", "(118)"}) EXPECT_NE(log.find(op), std::string::npos) << op;

    auto group = Json("createportalgroup target 0");
    EXPECT_TRUE(IsId(group["id"]));
    EXPECT_EQ(Json("createportalgroup target 1"), group);  // the same first group each time
}

TEST_F(LoadedShell, ADriveBecomesASpareAndAnOrdinaryDriveAgain) {
    auto howUsed = [&] {
        return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].drives[4].howUsed; });
    };
    uint8_t before = howUsed();
    ASSERT_EQ(Run("select drive 4").rc, 0);
    EXPECT_EQ(Json("detail")["ulFlags"], 0x4);  // unassigned
    Result r = Run("setflag drive hotspare");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "setflag drive hotspare: done\n");
    EXPECT_NE(howUsed(), before);
    EXPECT_EQ(Json("detail")["ulFlags"], 0x15);  // the next look at it sees the array's new state
    ASSERT_EQ(Run("clearflag drive hotspare").rc, 0);
    EXPECT_EQ(howUsed(), before);
    EXPECT_EQ(Json("detail")["ulFlags"], 0x4);
}

TEST_F(LoadedShell, SubsystemNamesUpToEightyCharacters) {
    auto arrayName = [&] { return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].systemName; }); };
    Result r = Run("name subsystem \"lab array one\"");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(arrayName(), "lab array one");
    EXPECT_EQ(Json("detail subsystem 0")["pwszFriendlyName"], "lab array one");

    const std::string eighty(80, 'n');
    EXPECT_EQ(Run("name subsystem " + eighty).rc, 0);
    EXPECT_EQ(arrayName(), eighty);
    r = Run("name subsystem " + eighty + "x");
    EXPECT_EQ(r.rc, trovctl::kFailed);
    EXPECT_NE(r.err.find("SetFriendlyName failed: "), std::string::npos) << r.err;
    EXPECT_EQ(arrayName(), eighty);  // nothing lost
}

TEST_F(LoadedShell, ReenumerateAndRefreshKeepEveryId) {
    std::vector<std::vector<std::string>> before;
    for (const char* k : {"subsystems", "controllers", "ports", "drives"}) before.push_back(Ids(k));
    auto reads = [&] {
        std::string log = SimLog();
        size_t n = 0;
        for (size_t at = log.find("GET_CONTROLLER(1)"); at != std::string::npos; at = log.find("GET_CONTROLLER(1)", at + 1))
            ++n;
        return n;
    };
    for (const char* line : {"reenumerate", "reenumerate subsystem", "reenumerate subsystem 0", "refresh"}) {
        size_t readsBefore = reads();
        Result r = Run(line);
        EXPECT_GT(reads(), readsBefore) << line << ": the tree was not read again";
        ASSERT_EQ(r.rc, 0) << line << ": " << r.err;
        size_t i = 0;
        for (const char* k : {"subsystems", "controllers", "ports", "drives"}) EXPECT_EQ(Ids(k), before[i++]) << line;
    }
}

TEST_F(LoadedShell, CacheAndMaintenanceReachTheArray) {
    struct Case {
        const char* line;
        const char* request;  // as the emulator logs it
    } cases[] = {{"flushcache controller 0", "FLUSH_CACHE(21)"},
                 {"invalidatecache controller 1", "FREE_CACHE(22)"},
                 {"maintenance beep controller 0", "SILENCE_ALARM(23)"}};
    for (const Case& c : cases) {
        Result r = Run(c.line);
        ASSERT_EQ(r.rc, 0) << c.line << ": " << r.err;
        EXPECT_NE(SimLog().find(c.request), std::string::npos) << c.line;
    }
    auto blinking = [&] { return env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].drives[1].blinking; }); };
    uint64_t slept = env.tp.clock().TotalSlept();
    ASSERT_EQ(Run("maintenance blink drive 1").rc, 0);
    EXPECT_TRUE(blinking());
    ASSERT_EQ(Run("maintenance stop drive 1").rc, 0);
    EXPECT_FALSE(blinking());
    ASSERT_EQ(Run("maintenance pulse 2 drive 1").rc, 0);
    EXPECT_FALSE(blinking());
    // Each light command waits its pause on the fake clock, none for real.
    EXPECT_GE(env.tp.clock().TotalSlept() - slept, 2u * 5000u);
}

TEST_F(LoadedShell, ExtentsAndPortPropertiesAsJson) {
    nlohmann::ordered_json ext = Json("extents drive 4");
    ASSERT_TRUE(ext.is_array());
    ASSERT_EQ(ext.size(), 1u);  // a free drive: one extent, unused
    EXPECT_EQ(ext[0]["bUsed"], false);
    EXPECT_EQ(ext[0]["LunId"], "00000000-0000-0000-0000-000000000000");
    EXPECT_EQ(ext[0]["ullSize"], Json("detail drive 4")["ullSize"]);

    nlohmann::ordered_json port = Json("portprops 0 controller 0");
    EXPECT_TRUE(IsId(port["id"]));
    EXPECT_EQ(port.size(), 4u);
    Result text = Run("portprops 0 controller 0");
    EXPECT_NE(text.out.find("pwszFriendlyName   : " + port["pwszFriendlyName"].get<std::string>()), std::string::npos)
        << text.out;
}

TEST_F(LoadedShell, TextOutputIsATableInWordsAndDetailsKeepTheNumbers) {
    Result r = Run("list drives");
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.out.rfind("drives (12)\n #  !  SLOT  SERIAL", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\n 7     0:7   3SJ01208K"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("hotspare, unassigned, standby"), std::string::npos) << r.out;
    r = Run("detail drive 7");
    EXPECT_NE(r.out.find("ulFlags            : hotspare, unassigned, standby (0x15)\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("busType            : SAS (10)\n"), std::string::npos) << r.out;
    // A LUN listing: its pool (vdisk) and mapped hosts; extents name their drives.
    r = Run("list luns");
    EXPECT_NE(r.out.find("POOL"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("host01.demo.local"), std::string::npos) << r.out;
    r = Run("extents lun db01");
    EXPECT_NE(r.out.find("drive 0 (0:0 3SJ01201K)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("used by lun 0 (db01)"), std::string::npos) << r.out;
}

TEST_F(LoadedShell, ScriptStopsAtTheFirstFailureAndNamesItsLine) {
    std::istringstream script("list controllers\n# a comment\n\nselect drive 1\nbogus words\nlist ports\n");
    out.str({});
    err.str({});
    int rc = shell->RunScript(script, "setup.trov");
    EXPECT_EQ(rc, trovctl::kUsage);
    EXPECT_NE(err.str().find("setup.trov:5: stopped at \"bogus words\""), std::string::npos) << err.str();
    EXPECT_NE(out.str().find("controllers (2)"), std::string::npos);
    EXPECT_EQ(out.str().find("ports ("), std::string::npos);  // not reached
    ASSERT_NE(shell->selection(), nullptr);
    EXPECT_EQ(shell->selection()->kind, trovctl::Kind::Drive);

    std::istringstream quits("select controller 0\nquit\nbogus\n");
    EXPECT_EQ(shell->RunScript(quits, "q.trov"), 0);
    EXPECT_TRUE(shell->quitRequested());
}

TEST_F(LoadedShell, OverviewIsOneJsonDocument) {
    out.str({});
    shell->SetJson(true);
    ASSERT_EQ(shell->Overview(), 0);
    auto doc = nlohmann::ordered_json::parse(out.str());
    EXPECT_EQ(doc["provider"]["type"], 2);
    EXPECT_EQ(doc["subsystems"].size(), 1u);
    EXPECT_EQ(doc["controllers"].size(), 2u);
    EXPECT_EQ(doc["ports"].size(), 4u);
    EXPECT_EQ(doc["drives"].size(), 12u);
    EXPECT_EQ(doc["plexes"].size(), 5u);  // every kind
    EXPECT_TRUE(doc["overview"].is_string());
}

TEST_F(LoadedShell, ASelectionThatWentAwayIsSaidSo) {
    ASSERT_EQ(Run("select drive 11").rc, 0);
    // The drive leaves the array; the next look finds it gone.
    env.sim->WithModel([](trovsim::Model& m) {
        m.subsystems()[0].drives.pop_back();
        m.Touch(m.subsystems()[0]);
    });
    ASSERT_EQ(Run("refresh").rc, 0);
    Result r = Run("detail");
    EXPECT_EQ(r.rc, trovctl::kUsage);
    EXPECT_NE(r.err.find("is no longer there"), std::string::npos) << r.err;
    EXPECT_EQ(shell->selection(), nullptr);
}

TEST_F(LoadedShell, CompletionNumbersTheObjectsOfTheKindNamed) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(trovctl::Completions({"flushcache", "controller"}, "", shell.get()), (Words{"0", "1"}));
    EXPECT_EQ(trovctl::Completions({"detail", "drive"}, "1", shell.get()), (Words{"1", "10", "11"}));
    // A kind the command does not take is not counted.
    EXPECT_EQ(trovctl::Completions({"flushcache", "drive"}, "", shell.get()), (Words{"controller"}));
    // Names and serials as they are written, found in any case; without a kind word once a word
    // has begun.
    EXPECT_EQ(trovctl::Completions({"detail", "lun"}, "DB", shell.get()), (Words{"db01"}));
    EXPECT_EQ(trovctl::Completions({"setflag", "drive", "hotspare", "drive"}, "3sj0120", shell.get()),
              (Words{"3SJ01201K", "3SJ01202K", "3SJ01203K", "3SJ01204K", "3SJ01205K", "3SJ01206K", "3SJ01207K",
                     "3SJ01208K"}));
    EXPECT_EQ(trovctl::Completions({"extents"}, "arch", shell.get()), (Words{"archive01"}));
}

struct SplitCase {
    const char* line;
    std::vector<std::string> words;
};

TEST(SplitLine, WordsQuotesEscapesAndComments) {
    const SplitCase cases[] = {
        {"", {}},
        {"   # only a comment", {}},
        {"list drives", {"list", "drives"}},
        {"  detail\tdrive   3  ", {"detail", "drive", "3"}},
        {"name subsystem \"lab array\"", {"name", "subsystem", "lab array"}},
        {"name subsystem lab\\ array", {"name", "subsystem", "lab array"}},
        {"name subsystem \"say \\\"hi\\\"\"", {"name", "subsystem", "say \"hi\""}},
        {"name subsystem a#b # the rest", {"name", "subsystem", "a#b"}},
        {"name subsystem \"\"", {"name", "subsystem", ""}},
    };
    for (const SplitCase& c : cases) {
        std::vector<std::string> words;
        std::string err;
        ASSERT_TRUE(trovctl::SplitLine(c.line, &words, &err)) << c.line;
        EXPECT_EQ(words, c.words) << c.line;
    }
    std::vector<std::string> words;
    std::string err;
    EXPECT_FALSE(trovctl::SplitLine("detail \"drive", &words, &err));
    EXPECT_EQ(err, "unterminated quote");
}

TEST(HelpText, NamesEveryCommand) {
    std::string help = trovctl::HelpText();
    for (const char* cmd : {"info", "list", "select", "detail", "name subsystem", "reenumerate", "refresh",
                            "flushcache", "invalidatecache", "maintenance beep|blink|stop", "maintenance pulse",
                            "setflag drive hotspare", "clearflag drive hotspare", "extents", "getdrive BUS SLOT",
                            "portprops N", "help", "quit"})
        EXPECT_NE(help.find(std::string("  ") + cmd), std::string::npos) << cmd;
    for (const char* status : {"0 done", "1 the provider refused", "2 a bad command line", "3 the array was not reached"})
        EXPECT_NE(help.find(status), std::string::npos) << status;
}

}  // namespace

namespace {

// The shell as the host's listener: notifications kept until "watch" shows them.
class ShellSink final : public IVdsAdviseSink {
public:
    explicit ShellSink(Shell& shell) : shell_(shell) {}
    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IVdsAdviseSink) {
            *ppv = static_cast<IVdsAdviseSink*>(this);
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return 2; }
    ULONG Release() override { return 1; }  // lives on the test's stack
    HRESULT OnNotify(LONG n, VDS_NOTIFICATION* list) override {
        for (LONG i = 0; i < n; ++i) shell_.OnNotification(list[i]);
        return S_OK;
    }

private:
    Shell& shell_;
};

TEST(ShellWatch, PrintsTheMonitorsNotificationsWithTypeEventIdAndName) {
    ProviderEnv env;
    std::ostringstream out, err;
    Shell shell(nullptr, out, err, false);
    ShellSink sink(shell);
    env.tp.clock().SetAuto(false);
    ASSERT_EQ(env.Load(&sink), S_OK);
    shell.SetProvider(env.provider);
    FakeClock& clock = env.tp.clock();
    ASSERT_TRUE(testlib::Eventually([&] { return clock.Sleepers() == 1; }));
    ASSERT_EQ(env.sim->RaiseEvent(0x01000100, 62, 0, "3SJ01205K"), 0u);
    for (int i = 0; i < 10; ++i) {
        size_t calls = clock.SleepCalls().size();
        clock.Advance(1000);
        ASSERT_TRUE(testlib::Eventually([&] { return clock.SleepCalls().size() > calls && clock.Sleepers() == 1; }));
    }
    EXPECT_EQ(out.str(), "");  // kept, not printed, until asked for
    ASSERT_EQ(shell.ExecuteLine("watch 0"), 0);
    std::string text = out.str();
    EXPECT_EQ(text.rfind("notification: drive depart ", 0), 0u) << text;
    EXPECT_NE(text.find("s/n 3SJ01205K"), std::string::npos) << text;
    EXPECT_EQ(shell.ExecuteLine("watch soon"), trovctl::kUsage);
    clock.ReleaseAll();
    env.Unload();
}

}  // namespace
