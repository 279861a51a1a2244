// Target resolution: which objects a word names (number, id, name, identification or serial,
// BUS:SLOT), ambiguous and missing names, and list numbers that stay with their objects for the
// run. The pure matching on made-up records; then the same through the shell against the
// emulator's demo array.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/wstr.h"
#include "shell.h"
#include "targets.h"
#include "testlib/provider_env.h"

using trovctl::Kind;
using trovctl::Object;

namespace {

Object Made(Kind kind, long number, nlohmann::ordered_json props) {
    Object o{kind, {}, {}};
    o.number = number;
    o.props = std::move(props);
    return o;
}

std::vector<Object> Objects() {
    return {
        Made(Kind::Drive, 0, {{"pwszFriendlyName", "SEAGATE s/n 3SJ01201K id 0.0"}, {"pwszIdentification", "3SJ01201K"},
                              {"sInternalBusNumber", 0}, {"sSlotNumber", 0}}),
        Made(Kind::Drive, 1, {{"pwszFriendlyName", "SEAGATE s/n 3SJ01202K id 0.1"}, {"pwszIdentification", "3SJ01202K"},
                              {"sInternalBusNumber", 0}, {"sSlotNumber", 1}}),
        Made(Kind::Drive, 2, {{"pwszFriendlyName", "WDC s/n WD77 id 1.10"}, {"pwszIdentification", "WD77"},
                              {"sInternalBusNumber", 1}, {"sSlotNumber", 10}}),
        Made(Kind::Lun, 0, {{"pwszFriendlyName", "db01"}, {"pwszIdentification", "00C0FF1A2B3C4D5E6F"}}),
        Made(Kind::Lun, 1, {{"pwszFriendlyName", "DB01"}, {"pwszIdentification", "00C0FF1A2B3C4D5E70"}}),
        Made(Kind::Lun, 2, {{"pwszFriendlyName", "logs"}, {"pwszIdentification", "00C0FF99"}}),
        Made(Kind::Pool, 0, {{"pwszName", "Vdisk VD-SAS-R5"}}),
        Made(Kind::Target, 0, {{"pwszIscsiName", "iqn.2002-09.com.trov:a"}, {"pwszFriendlyName", "Target A"}}),
        Made(Kind::Portal, 0, {{"address", {{"wszTextAddress", "10.0.0.2"}, {"ulPort", 3260}}}}),
    };
}

TEST(MatchByName, TheClosestFormWinsAndSeveralAtOneLevelAreAmbiguous) {
    const struct {
        const char* word;
        std::vector<std::string> found;  // ShortLabels, in order
    } cases[] = {
        {"3SJ01202K", {"drive 1"}},         // a serial
        {"3sj01202k", {"drive 1"}},         // in another case
        {"0:1", {"drive 1"}},               // BUS:SLOT
        {"1:10", {"drive 2"}},
        {"2:1", {}},
        {"db01", {"lun 0"}},                // exact beats the same name in another case
        {"DB01", {"lun 1"}},
        {"Db01", {"lun 0", "lun 1"}},       // only in another case: both, ambiguous
        {"00C0FF1A", {"lun 0", "lun 1"}},   // the beginning of two serials
        {"00c0ff99", {"lun 2"}},            // a whole serial in another case
        {"00C0FF1A2B3C4D5E70", {"lun 1"}},
        {"00C", {}},                        // too short a beginning to stand for a serial
        {"logs", {"lun 2"}},
        {"log", {}},                        // names are not matched by their beginning
        {"vd-sas-r5", {"pool 0"}},
        {"iqn.2002-09.com.trov:a", {"target 0"}},
        {"Target A", {"target 0"}},
        {"10.0.0.2:3260", {"portal 0"}},
        {"10.0.0.2", {"portal 0"}},
        {"", {}},
        {"nothing", {}},
    };
    std::vector<Object> all = Objects();
    std::vector<const Object*> candidates;
    for (const Object& o : all) candidates.push_back(&o);
    for (const auto& c : cases) {
        std::vector<std::string> found;
        for (const Object* o : trovctl::MatchByName(c.word, candidates)) {
            std::string label = trovctl::ShortLabel(*o);
            found.push_back(label.substr(0, label.find(" (")));
        }
        EXPECT_EQ(found, c.found) << c.word;
    }
    EXPECT_EQ(trovctl::ShortLabel(all[2]), "drive 2 (1:10 WD77)");
    EXPECT_EQ(trovctl::ShortLabel(all[3]), "lun 0 (db01)");
}

GUID Id(int n) {
    GUID g{};
    g.Data1 = static_cast<uint32_t>(n);
    return g;
}

TEST(Numbering, NumbersStayWithTheirObjectsAndAreNotGivenAgain) {
    trovctl::Numbering numbers;
    auto listed = [&](std::vector<int> order) {
        std::vector<Object> objs;
        for (int n : order) objs.push_back(Object{Kind::Lun, Id(n), {}});
        numbers.Assign(Kind::Lun, &objs);
        std::vector<std::pair<int, long>> out;  // (object, number) in listing order
        for (const Object& o : objs) out.push_back({static_cast<int>(o.id.Data1), o.number});
        return out;
    };
    using P = std::vector<std::pair<int, long>>;
    EXPECT_EQ(listed({10, 11, 12}), (P{{10, 0}, {11, 1}, {12, 2}}));
    // The provider's order changes (a rename moved 12 to the front): the numbers do not.
    EXPECT_EQ(listed({12, 10, 11}), (P{{10, 0}, {11, 1}, {12, 2}}));
    // 11 goes, 13 comes: 13 takes the next number, 1 stays free.
    EXPECT_EQ(listed({13, 12, 10}), (P{{10, 0}, {12, 2}, {13, 3}}));
    EXPECT_EQ(numbers.Issued(Kind::Lun), 4u);
    EXPECT_EQ(numbers.NumberOf(Kind::Lun, Id(11)), 1);
    EXPECT_EQ(numbers.NumberOf(Kind::Lun, Id(99)), -1);
    EXPECT_EQ(numbers.Issued(Kind::Drive), 0u);  // each kind counts on its own
}

// The same forms through the shell, against the demo array.
class Targets : public ::testing::Test {
protected:
    Targets() : env("demo", Quiet()) {}
    static trovsim::Options Quiet() {
        trovsim::Options o;
        o.logSink = [](const std::string&) {};
        return o;
    }
    void SetUp() override {
        ASSERT_EQ(env.Load(), S_OK);
        shell = std::make_unique<trovctl::Shell>(env.provider, out, err, true);
    }
    // The id a line's "detail" names, or the error it gives.
    std::string Named(const std::string& target) {
        out.str({});
        err.str({});
        int rc = shell->ExecuteLine("detail " + target);
        if (rc != 0) return "error " + std::to_string(rc) + ": " + err.str();
        return nlohmann::json::parse(out.str())["id"];
    }
    std::string IdOf(const std::string& kind, size_t n) {
        out.str({});
        shell->ExecuteLine("list " + kind);
        return nlohmann::json::parse(out.str())[n]["id"];
    }

    testlib::ProviderEnv env;
    std::ostringstream out, err;
    std::unique_ptr<trovctl::Shell> shell;
};

TEST_F(Targets, EveryFormNamesTheObjectAnOperatorMeans) {
    std::string drive3 = IdOf("drives", 3), db01 = IdOf("luns", 0);
    const struct {
        std::string target;
        std::string id;  // empty: refused, with `error` in the message
        const char* error;
    } cases[] = {
        {"drive 3", drive3, nullptr},
        {"DRIVE 3", drive3, nullptr},
        {"drive " + drive3, drive3, nullptr},
        {drive3, drive3, nullptr},
        {"drive 3SJ01204K", drive3, nullptr},
        {"drive 0:3", drive3, nullptr},
        {"3SJ01204K", drive3, nullptr},  // no kind: any kind detail takes
        {"lun db01", db01, nullptr},
        {"db01", db01, nullptr},
        {"lun DB01", db01, nullptr},
        {"drive 99", "", "there is no drive 99 (there are 12)"},
        {"drive 9:9", "", "there is no drive \"9:9\""},
        {"lun nosuch", "", "there is no lun \"nosuch\""},
        {"pool nosuch", "", "there is no pool \"nosuch\""},
        {"drive 3SJ012", "", "is ambiguous: drive 0 (0:0 3SJ01201K), drive 1 (0:1 3SJ01202K)"},
        {"widget 1", "", "\"widget\" is not a kind of object"},
    };
    for (const auto& c : cases) {
        std::string got = Named(c.target);
        if (c.id.empty())
            EXPECT_NE(got.find(c.error), std::string::npos) << c.target << ": " << got;
        else
            EXPECT_EQ(got, c.id) << c.target;
    }
}

TEST_F(Targets, ARenamedLunKeepsItsNumberAndPoolLunsNumbersAsListLunsDoes) {
    std::vector<std::string> before;
    for (size_t i = 0; i < 4; ++i) before.push_back(IdOf("luns", i));
    ASSERT_EQ(shell->ExecuteLine("name lun aaa-first lun 2"), 0) << err.str();
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(Named("lun " + std::to_string(i)), before[i]) << i;
    EXPECT_EQ(Named("lun aaa-first"), before[2]);

    // pool luns shows the same numbers: every LUN it lists is that LUN of list luns.
    shell->SetJson(false);
    out.str({});
    ASSERT_EQ(shell->ExecuteLine("pool luns pool VD-SAS-R5"), 0) << err.str();
    std::string table = out.str();
    size_t rows = 0;
    for (size_t i = 0; i < before.size(); ++i) {
        size_t at = table.find(before[i]);
        if (at == std::string::npos) continue;
        ++rows;
        size_t line = table.rfind('\n', at) + 1;
        EXPECT_EQ(std::stol(table.substr(line)), long(i)) << table;
    }
    EXPECT_EQ(rows, 3u) << table;
}

}  // namespace
