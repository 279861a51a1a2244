// Language set-up: the service folder from PATH, the catalogue folder, and translation of the
// event texts with and without a catalogue.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>
#include <sys/stat.h>

#include "testlib/fake_platform.h"
#include "support/debuglog.h"
#include "support/lang.h"
#include "support/temp_dir.h"

namespace {

const char* const kLost = "The VDS Provider has lost its connection to the TROV Proxy service.";
const char* const kRestored = "The VDS Provider has restored its connection to the TROV Proxy service.";

class LangTest : public ::testing::Test {
protected:
    void SetUp() override {
        tp_.Install();
        DebugLogResetForTest();
        tp_.settings().SetDword(TROV_DEBUG_KEY, "ToFile", 0);
        tp_.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
        DebugOpen(nullptr);
        ASSERT_TRUE(dir_.ok());
    }
    void TearDown() override {
        DebugLogResetForTest();
        std::setlocale(LC_ALL, "C");
    }
    void SetPath(const std::string& value) { tp_.settings().SetString(TROV_PARAMETERS_KEY, "PATH", value); }
    std::string ServicePath(size_t size = 1024) {
        std::string buf(size, '\x7f');
        GetServicePath(buf.data(), size);
        return std::string(buf.c_str());
    }

    TestPlatform tp_;
    TempDir dir_;
};

TEST_F(LangTest, ServicePathFromParameters) {
    struct Case {
        const char* path;  // nullptr: value missing
        const char* want;
    };
    const Case cases[] = {
        {nullptr, "/"},
        {"C:\\Program Files\\Trov\\TrovProxy.exe", "C:\\Program Files\\Trov\\"},
        {"/opt/trov/bin/trovproxy", "/opt/trov/bin/"},
        {"C:\\Trov/bin\\svc.exe", "C:\\Trov/bin\\"},
        {"/opt/trov\\odd/svc", "/opt/trov\\odd/"},
        {"svc.exe", "/"},
        {"", "/"},
        {"C:\\", "C:\\"},
        {"/srv/\xC5\x81/svc", "/srv/A/"},  // U+0141 keeps its low byte 0x41
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path ? c.path : "(missing)");
        if (c.path) SetPath(c.path);
        else tp_.settings().RemoveValue(TROV_PARAMETERS_KEY, "PATH");
        tp_.ClearRecords();
        EXPECT_EQ(ServicePath(), c.want);
        EXPECT_NE(tp_.DebuggerText().find(std::string("GetServicePath():szPath=") + c.want + "\n"), std::string::npos);
    }
}

TEST_F(LangTest, ServicePathOfWrongTypeOrTooLongCountsAsMissing) {
    tp_.settings().SetDword(TROV_PARAMETERS_KEY, "PATH", 1);
    EXPECT_EQ(ServicePath(), "/");
    // A 64-byte buffer reads at most 63 bytes: 30 characters and the terminator fit, 31 do not.
    SetPath("/a/" + std::string(27, 'x'));
    EXPECT_EQ(ServicePath(64), "/a/");
    SetPath("/a/" + std::string(28, 'x'));
    EXPECT_EQ(ServicePath(64), "/");
}

TEST_F(LangTest, InitLogsLocaleAndCatalogueFolder) {
    const struct {
        const char* path;  // nullptr: value missing
        const char* folder;
    } cases[] = {{"/opt/trov/bin/trovproxy", "/opt/trov/bin/locale"}, {nullptr, "/locale"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.folder);
        tp_.settings().RemoveValue(TROV_PARAMETERS_KEY, "PATH");
        if (c.path) SetPath(c.path);
        tp_.ClearRecords();
        LangInit();
        std::string log = tp_.DebuggerText();
        const char* locale = std::setlocale(LC_ALL, nullptr);
        ASSERT_NE(locale, nullptr);
        EXPECT_NE(log.find(std::string("LangInit: Current Locale is: ") + locale + "\n"), std::string::npos);
        EXPECT_NE(log.find(std::string("LangInit: bindtextdomain is: ") + c.folder + "\n"), std::string::npos);
        EXPECT_NE(log.find("LangInit: textdomain is: vdsprovider\n"), std::string::npos);
        // The order of the steps.
        EXPECT_LT(log.find("GetServicePath()"), log.find("Current Locale"));
        EXPECT_LT(log.find("Current Locale"), log.find("bindtextdomain"));
    }
}

TEST_F(LangTest, WithoutCatalogueTheEnglishTextComesBack) {
    SetPath(dir_.File("svc"));
    LangInit();
    EXPECT_STREQ(TranslateEventText(kLost), kLost);
    EXPECT_STREQ(TranslateEventText(kRestored), kRestored);
    EXPECT_EQ(TranslateEventText(nullptr), nullptr);
    // The event report goes out in English.
    LogWarningEvent("%s", TranslateEventText(kLost));
    ASSERT_EQ(tp_.Events().size(), 1u);
    EXPECT_EQ(tp_.Events()[0].text, kLost);
}

// Writes a GNU message catalogue (.mo) holding `messages`, without a hash table.
void WriteCatalogue(const std::string& file, std::map<std::string, std::string> messages) {
    messages[""] = "Content-Type: text/plain; charset=UTF-8\n";
    const uint32_t n = static_cast<uint32_t>(messages.size());
    const uint32_t origTable = 28, transTable = origTable + 8 * n, strings = transTable + 8 * n;
    std::string head(28, '\0'), origs, trans, data;
    auto put = [](std::string* s, size_t at, uint32_t v) { std::memcpy(&(*s)[at], &v, 4); };
    put(&head, 0, 0x950412de);
    put(&head, 4, 0);
    put(&head, 8, n);
    put(&head, 12, origTable);
    put(&head, 16, transTable);
    put(&head, 20, 0);
    put(&head, 24, strings);
    std::string table1(8 * n, '\0'), table2(8 * n, '\0');
    uint32_t i = 0;
    for (const auto& [id, text] : messages) {  // std::map keeps the ids sorted, as lookups need
        put(&table1, 8 * i, static_cast<uint32_t>(id.size()));
        put(&table1, 8 * i + 4, strings + static_cast<uint32_t>(data.size()));
        data += id + '\0';
        ++i;
    }
    i = 0;
    for (const auto& [id, text] : messages) {
        put(&table2, 8 * i, static_cast<uint32_t>(text.size()));
        put(&table2, 8 * i + 4, strings + static_cast<uint32_t>(data.size()));
        data += text + '\0';
        ++i;
    }
    TempDir::Write(file, head + table1 + table2 + data);
}

// Sets LANGUAGE and LANG for one scope: gettext takes the language from LANGUAGE once the
// locale is other than plain C, which C.UTF-8 is and every machine has.
class LanguageScope {
public:
    explicit LanguageScope(const char* language) {
        for (const char* name : {"LANGUAGE", "LANG", "LC_ALL", "LC_MESSAGES"}) {
            const char* v = std::getenv(name);
            saved_.push_back({name, v ? std::optional<std::string>(v) : std::nullopt});
        }
        setenv("LANGUAGE", language, 1);
        setenv("LANG", "C.UTF-8", 1);
        unsetenv("LC_ALL");
        unsetenv("LC_MESSAGES");
    }
    ~LanguageScope() {
        for (const auto& [name, value] : saved_) {
            if (value) setenv(name.c_str(), value->c_str(), 1);
            else unsetenv(name.c_str());
        }
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// The catalogue the build compiles from po/de.po, found as the installed provider finds it: in
// locale/ beside the module's file, which PATH names.
TEST_F(LangTest, ShippedGermanCatalogueTranslatesTheFiveReports) {
    const std::pair<const char*, const char*> texts[] = {
        {"The VDS Provider has started a vdisk expansion operation which may take a long time to complete.",
         "Der VDS-Provider hat die Erweiterung einer vdisk begonnen; sie kann lange dauern."},
        {"The VDS Provider has finished a vdisk expansion operation.",
         "Der VDS-Provider hat die Erweiterung einer vdisk abgeschlossen."},
        {"The VDS Provider has detected that expansion of a vdisk or volume has failed.",
         "Der VDS-Provider hat festgestellt, dass die Erweiterung einer vdisk oder eines Volumes fehlgeschlagen ist."},
        {kLost, "Der VDS-Provider hat die Verbindung zum Dienst TROV Proxy verloren."},
        {kRestored, "Der VDS-Provider hat die Verbindung zum Dienst TROV Proxy wiederhergestellt."},
    };
    SetPath(std::string(TROV_CATALOGUE_HOME) + "/libtrovhwiprv.so");
    {
        LanguageScope german("de");
        LangInit();
        if (std::string(std::setlocale(LC_MESSAGES, nullptr)) == "C") GTEST_SKIP() << "no C.UTF-8 locale";
        for (const auto& [english, german] : texts) EXPECT_STREQ(TranslateEventText(english), german);
        // The report that reaches the event log is the German one.
        LogWarningEvent("%s", TranslateEventText(kLost));
        ASSERT_EQ(tp_.Events().size(), 1u);
        EXPECT_EQ(tp_.Events()[0].type, EVENTLOG_WARNING_TYPE);
        EXPECT_EQ(tp_.Events()[0].text, texts[3].second);
        // The pipe errors have no translation.
        const char* pipe = "CreateNamedPipe failed with error 0x%x";
        EXPECT_STREQ(TranslateEventText(pipe), pipe);
    }
    {
        LanguageScope french("fr");  // a language without a catalogue: English
        LangInit();
        for (const auto& [english, german] : texts) EXPECT_STREQ(TranslateEventText(english), english);
    }
}

TEST_F(LangTest, CatalogueBesideTheServiceTranslates) {
    std::string base = dir_.File("locale");
    for (const std::string& d : {base, base + "/de", base + "/de/LC_MESSAGES"}) ASSERT_EQ(mkdir(d.c_str(), 0700), 0);
    WriteCatalogue(base + "/de/LC_MESSAGES/vdsprovider.mo",
                   {{kLost, "Verbindung zum TROV Proxy verloren."}, {kRestored, "Verbindung wiederhergestellt."}});

    const char* oldLanguage = std::getenv("LANGUAGE");
    std::string saved = oldLanguage ? oldLanguage : "";
    const char* oldLang = std::getenv("LANG");
    std::string savedLang = oldLang ? oldLang : "";
    setenv("LANGUAGE", "de", 1);
    setenv("LANG", "C.UTF-8", 1);  // translations need a locale other than plain C

    SetPath(dir_.File("svc"));
    LangInit();
    std::string lost = TranslateEventText(kLost);
    std::string restored = TranslateEventText(kRestored);
    std::string other = TranslateEventText("The VDS Provider has finished a vdisk expansion operation.");

    if (oldLanguage) setenv("LANGUAGE", saved.c_str(), 1);
    else unsetenv("LANGUAGE");
    if (oldLang) setenv("LANG", savedLang.c_str(), 1);
    else unsetenv("LANG");

    if (std::string(std::setlocale(LC_MESSAGES, nullptr)) == "C")
        GTEST_SKIP() << "no C.UTF-8 locale on this machine";
    EXPECT_EQ(lost, "Verbindung zum TROV Proxy verloren.");
    EXPECT_EQ(restored, "Verbindung wiederhergestellt.");
    EXPECT_EQ(other, "The VDS Provider has finished a vdisk expansion operation.");
    // The process's default domain is left to the host.
    EXPECT_STREQ(textdomain(nullptr), "messages");
}

}  // namespace
