// The renderers: sizes in binary units, enums and flags in words with their numbers kept, tables
// with headers and aligned columns (four-digit numbers included), terse output, NDJSON, error
// objects and a success other than S_OK.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <string>
#include <vector>

#include "platform/vds_errors.h"
#include "render.h"
#include "words.h"

using trovctl::Json;
using trovctl::Kind;
using trovctl::Row;

namespace {

TEST(Words, SizesTakeTheLargestFittingBinaryUnit) {
    const struct {
        uint64_t bytes;
        const char* text;
    } cases[] = {{0, "0 B"},
                 {1023, "1023 B"},
                 {1024, "1 KiB"},
                 {1536, "1.5 KiB"},
                 {(1ull << 20) - 1, "1024.0 KiB"},  // rounds up in its unit, never into the next
                 {1ull << 20, "1 MiB"},
                 {200ull << 30, "200 GiB"},
                 {600127266816ull, "558.9 GiB"},
                 {1ull << 40, "1 TiB"},
                 {(3ull << 40) + (1ull << 39), "3.5 TiB"},
                 {1ull << 50, "1 PiB"},
                 {~0ull, "16.0 EiB"}};
    for (const auto& c : cases) EXPECT_EQ(trovctl::SizeText(c.bytes), c.text) << c.bytes;
}

TEST(Words, EnumsAndFlagsInWordsAndUnknownNumbersShown) {
    const struct {
        Kind kind;
        const char* field;
        int64_t value;
        const char* text;
    } cases[] = {
        {Kind::Lun, "type", 18, "RAID5"},        {Kind::Plex, "type", 26, "RAID50"},
        {Kind::Lun, "type", 13, "mirror"},       {Kind::Pool, "type", 1, "primordial"},
        {Kind::Pool, "raidType", 15, "RAID5"},   {Kind::Drive, "status", 1, "online"},
        {Kind::Drive, "status", 8, "removed"},   {Kind::Subsystem, "status", 9, "partially managed"},
        {Kind::Lun, "health", 2, "rebuilding"},  {Kind::Lun, "health", 11, "degraded"},
        {Kind::Drive, "busType", 10, "SAS"},     {Kind::Drive, "busType", 11, "SATA"},
        {Kind::Lun, "TransitionState", 5, "restriping"},
        {Kind::Portal, "type", 1, "IPv4"},       {Kind::Lun, "type", 99, "99"},
        {Kind::Drive, "ullSize", 5, ""},         {Kind::Controller, "type", 1, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(trovctl::EnumText(c.kind, c.field, c.value), c.text) << c.field << c.value;
    EXPECT_EQ(trovctl::FlagsText(Kind::Drive, "ulFlags", 0x15), "hotspare, unassigned, standby");
    EXPECT_EQ(trovctl::FlagsText(Kind::Drive, "ulFlags", 0x102), "assigned, 0x100");
    EXPECT_EQ(trovctl::FlagsText(Kind::Lun, "ulFlags", 0x4), "write-through");
    EXPECT_EQ(trovctl::FlagsText(Kind::Drive, "ulFlags", 0), "");
}

TEST(Words, TextFormsSitBesideTheirFieldsAndThePublishedOnesStay) {
    Json lun = {{"id", "x"}, {"ullSize", 1}, {"ulFlags", 4}, {"type", 18}, {"status", 1}, {"health", 2}};
    Json shown = trovctl::WithTextForms(Kind::Lun, lun);
    std::vector<std::string> keys;
    for (auto it = shown.begin(); it != shown.end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "ullSize", "ulFlags", "ulFlagsText", "type", "typeText", "status",
                                              "statusText", "health", "healthText"}));
    EXPECT_EQ(shown["type"], 18);
    EXPECT_EQ(shown["typeText"], "RAID5");
    Json portal = {{"id", "p"}, {"address", {{"type", 1}, {"wszTextAddress", "10.0.0.2"}, {"ulPort", 3260}}}};
    EXPECT_EQ(trovctl::WithTextForms(Kind::Portal, portal)["address"]["typeText"], "IPv4");

    const struct {
        Json record;
        const char* state;
        bool attention;
    } states[] = {{{{"status", 1}, {"health", 1}}, "online", false},
                  {{{"status", 1}, {"health", 11}}, "degraded", true},
                  {{{"status", 1}, {"health", 2}}, "rebuilding", true},
                  {{{"status", 4}, {"health", 8}}, "offline, failed", true},
                  {{{"status", 4}}, "offline", true},
                  {{{"status", 0}, {"health", 0}}, "unknown", false}};
    for (const auto& s : states) {
        EXPECT_EQ(trovctl::StateText(Kind::Lun, s.record), s.state) << s.record;
        EXPECT_EQ(trovctl::NeedsAttention(s.record), s.attention) << s.record;
    }
}

Row LunRow(long number, const char* name, uint64_t size, int health) {
    Json p = trovctl::WithTextForms(Kind::Lun, {{"id", std::string(36, 'a')},
                                                {"ullSize", size},
                                                {"pwszFriendlyName", name},
                                                {"type", 18},
                                                {"status", 1},
                                                {"health", health}});
    return Row{number, p, {{"POOL", "VD-SAS-R5"}, {"LUN", std::to_string(number)}, {"HOSTS", "host01"}}};
}

TEST(Tables, AHeaderRowAlignedColumnsAndAMarkerOnObjectsThatWantAttention) {
    std::vector<Row> rows = {LunRow(7, "db01", 200ull << 30, 1), LunRow(1234, "a-much-longer-name", 1ull << 40, 11)};
    trovctl::TableText t = trovctl::TableOf(Kind::Lun, rows);
    std::string text = trovctl::FormatTable(t, true, false);
    std::istringstream in(text);
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    ASSERT_EQ(lines.size(), 3u) << text;
    EXPECT_EQ(lines[0].rfind("   #  !  NAME", 0), 0u) << text;
    EXPECT_EQ(lines[1].rfind("   7     db01", 0), 0u) << text;
    EXPECT_EQ(lines[2].rfind("1234  !  a-much-longer-name", 0), 0u) << text;
    // Every column starts where its header does, whatever the widths of the cells before it.
    for (const char* header : {"SIZE", "TYPE", "STATE", "POOL", "ID"}) {
        size_t at = lines[0].find(header);
        ASSERT_NE(at, std::string::npos) << header;
        size_t end = at + std::string(header).size();
        if (std::string(header) == "SIZE") {  // right-aligned: the cells end where the header ends
            EXPECT_EQ(lines[1].substr(end - 7, 7), "200 GiB") << text;
            EXPECT_EQ(lines[2].substr(end - 5, 5), "1 TiB") << text;
        } else {
            EXPECT_NE(lines[1][at], ' ') << header << "\n" << text;
            EXPECT_EQ(lines[1][at - 1], ' ') << header << "\n" << text;
            EXPECT_NE(lines[2][at], ' ') << header << "\n" << text;
        }
    }
    EXPECT_NE(lines[2].find("degraded"), std::string::npos);
    EXPECT_EQ(text.find('\033'), std::string::npos);  // no colour unless asked for

    std::string coloured = trovctl::FormatTable(t, false, true);
    EXPECT_EQ(coloured.find("   7     db01"), 0u) << coloured;               // no header, row 7 plain
    EXPECT_NE(coloured.find("\033[1;33m!\033[0m"), std::string::npos) << coloured;  // the degraded row's marker
    EXPECT_NE(coloured.find("\033[1;33mdegraded\033[0m"), std::string::npos) << coloured;

    EXPECT_EQ(trovctl::FormatTerse(t, "|", false),
              "7||db01|200 GiB|RAID5|online|VD-SAS-R5|7|host01|" + std::string(36, 'a') +
                  "\n1234|!|a-much-longer-name|1 TiB|RAID5|degraded|VD-SAS-R5|1234|host01|" + std::string(36, 'a') +
                  "\n");
    EXPECT_EQ(trovctl::FormatTerse(t, ",", true).rfind("#,!,NAME,SIZE,TYPE,STATE,POOL,LUN,HOSTS,ID\n", 0), 0u);
}

struct Out {
    std::ostringstream out, err;
};

TEST(Render, JsonIsOneDocumentPerLineForScriptsAndErrorsAreObjects) {
    Out o;
    trovctl::Render r(o.out, o.err, true);
    std::vector<Row> rows = {LunRow(0, "db01", 1024, 1)};
    r.Table(Kind::Lun, rows);
    EXPECT_NE(o.out.str().find("\n  "), std::string::npos);  // one command: indented
    o.out.str({});
    r.SetNdjson(true);
    r.Table(Kind::Lun, rows);
    r.Error("VDS_E_NOT_SUPPORTED", 0x80042400, "SetFlags failed");
    r.Done("name lun", VDS_S_NAME_TRUNCATED);
    std::istringstream in(o.out.str());
    std::vector<nlohmann::json> docs;
    for (std::string line; std::getline(in, line);) docs.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(docs.size(), 3u) << o.out.str();
    EXPECT_EQ(docs[0][0]["typeText"], "RAID5");
    EXPECT_EQ(docs[1], (nlohmann::json{{"error", "VDS_E_NOT_SUPPORTED"}, {"code", 0x80042400}, {"message", "SetFlags failed"}}));
    EXPECT_EQ(o.err.str(), "trovctl: SetFlags failed\n");
    EXPECT_EQ(docs[2]["result"], "VDS_S_NAME_TRUNCATED");
    EXPECT_EQ(docs[2]["code"], 0x42700);
    EXPECT_NE(docs[2]["message"].get<std::string>().find("cut"), std::string::npos);

    Out t;
    trovctl::Render text(t.out, t.err, false);
    text.Done("name subsystem", VDS_S_NAME_TRUNCATED);
    EXPECT_EQ(t.out.str().rfind("name subsystem: done, VDS_S_NAME_TRUNCATED (0x00042700): the name was too long", 0), 0u)
        << t.out.str();
    EXPECT_NE(t.out.str().find("the old name stays in view until the next refresh"), std::string::npos);
}

TEST(Render, DetailsShowWordsBesideNumbersAndSizesInUnits) {
    Out o;
    trovctl::Render r(o.out, o.err, false);
    r.Object(trovctl::WithTextForms(Kind::Drive, {{"id", "d"}, {"ullSize", 600127266816ull}, {"ulFlags", 0x15},
                                                  {"status", 1}, {"busType", 10}}));
    EXPECT_EQ(o.out.str(),
              "id      : d\n"
              "ullSize : 558.9 GiB (600127266816 bytes)\n"
              "ulFlags : hotspare, unassigned, standby (0x15)\n"
              "status  : online (1)\n"
              "busType : SAS (10)\n");
}

}  // namespace
