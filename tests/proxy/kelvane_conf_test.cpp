// The kelvane.conf reader: each reading rule on a file of its own.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "testlib/fake_platform.h"
#include "proxy/kelvane_conf.h"
#include "support/debuglog.h"
#include "support/temp_dir.h"

namespace {

const char* const kGood =
    "version  :1\n"
    "ipaddress:127.0.0.1\n"
    "username :manage\n"
    "password :!manage\n"
    "port     :9998\n";

struct Expect {
    int version;
    const char* ip;  // dotted, or nullptr for 0
    const char* username;
    const char* password;
    uint16_t port;
    bool complete;
};

struct Case {
    const char* name;
    std::string content;
    Expect want;
};

uint32_t Ip(const char* dotted) { return dotted ? static_cast<uint32_t>(inet_addr(dotted)) : 0; }

class KelvaneConfTest : public ::testing::Test {
protected:
    void SetUp() override {
        tp_.Install();
        DebugLogResetForTest();
        ASSERT_TRUE(dir_.ok());
    }
    void TearDown() override { DebugLogResetForTest(); }

    ProxyConfig Read(const std::string& content, int* rc = nullptr) {
        std::string path = dir_.File("kelvane.conf");
        TempDir::Write(path, content);
        ProxyConfig cfg;
        std::memset(&cfg, 0, sizeof cfg);
        int r = ReadProxyConfig(path.c_str(), &cfg);
        if (rc) *rc = r;
        return cfg;
    }

    TestPlatform tp_;
    TempDir dir_;
};

TEST_F(KelvaneConfTest, ReadingRules) {
    const std::string longName(40, 'u'), longPassword(60, 'p');
    const Case cases[] = {
        {"all five", kGood, {1, "127.0.0.1", "manage", "!manage", 9998, true}},
        {"last line without newline is lost",
         "version  :1\nipaddress:127.0.0.1\nusername :manage\npassword :!manage\nport     :9998",
         {1, "127.0.0.1", "manage", "!manage", 0, false}},
        {"keys without their blanks are skipped",
         "version:1\nipaddress:10.0.0.1\nusername:manage\npassword:x\nport:9998\n",
         {0, "10.0.0.1", "", "", 0, false}},
        {"blanks around the value go, the key keeps its own",
         "version  :  7  \nipaddress:\t10.1.2.3 \nusername : admin user \npassword :  pw  \nport     : 80\n",
         {7, "10.1.2.3", "admin user", "pw", 80, true}},
        {"key with blanks after its nine columns is another key",
         "username  :x\nusername :y\n", {0, nullptr, "y", "", 0, false}},
        {"value cut at a second colon", "password :abc:def\nipaddress:1.2.3.4:99\n",
         {0, "1.2.3.4", "", "abc", 0, false}},
        {"empty value between colons is skipped as strtok does", "username ::admin:x\n",
         {0, nullptr, "admin", "", 0, false}},
        {"leading colon is skipped as strtok does", ":username :joe\n", {0, nullptr, "joe", "", 0, false}},
        {"control characters and high bytes stripped from the tail",
         "username :bob\x01\x1f\r\npassword :s\xc3\xa9\xff\x80\n", {0, nullptr, "bob", "s", 0, false}},
        {"stripping stops at the first printable byte", "password :a\x80z\x81\n", {0, nullptr, "", "a\x80z", 0, false}},
        {"comments and leading blanks", "  # username :ghost\n#port     :1\n   username :real\n",
         {0, nullptr, "real", "", 0, false}},
        {"repeated keys: the last wins",
         "port     :1\nport     :2\nusername :first\nusername :second\nversion  :3\nversion  :0\n",
         {0, nullptr, "second", "", 2, false}},
        {"port keeps 16 bits", "port     :70000\n", {0, nullptr, "", "", static_cast<uint16_t>(70000), false}},
        {"bad address", "ipaddress:not.an.address\n", {0, "255.255.255.255", "", "", 0, false}},
        {"username stored up to 32 bytes", "username :" + longName + "\n",
         {0, nullptr, "uuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuu", "", 0, false}},
        {"password stored up to 48 bytes", "password :" + longPassword + "\n",
         {0, nullptr, "", "pppppppppppppppppppppppppppppppppppppppppppppppp", 0, false}},
        {"missing password", "version  :1\nipaddress:127.0.0.1\nusername :manage\nport     :9998\n",
         {1, "127.0.0.1", "manage", "", 9998, false}},
        {"version zero", "version  :0\nipaddress:127.0.0.1\nusername :m\npassword :p\nport     :1\n",
         {0, "127.0.0.1", "m", "p", 1, false}},
        {"blank and malformed lines are passed over",
         "\n   \nno colon here\nversion  :\n:\nversion  :2\n", {2, nullptr, "", "", 0, false}},
        {"empty file", "", {0, nullptr, "", "", 0, false}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        int rc = -2;
        ProxyConfig cfg = Read(c.content, &rc);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(cfg.version, c.want.version);
        EXPECT_EQ(cfg.ipaddress, Ip(c.want.ip));
        EXPECT_STREQ(cfg.username, c.want.username);
        EXPECT_STREQ(cfg.password, c.want.password);
        EXPECT_EQ(cfg.port, c.want.port);
        EXPECT_EQ(ProxyConfigComplete(cfg), c.want.complete);
    }
}

TEST_F(KelvaneConfTest, LongLinesAreReadInPieces) {
    // 259 characters fill the buffer; the rest of the line is read as a line of its own.
    std::string filler(259 - 10, 'x');
    ProxyConfig cfg = Read("username :" + filler + "port     :5\n");
    EXPECT_EQ(std::string(cfg.username), filler.substr(0, 32));
    EXPECT_EQ(cfg.port, 5);

    // A last line without its newline is lost only when the read ran into the end of the file;
    // one that fills the buffer exactly ends the read before that.
    const std::string pad(259 - 13, ' ');
    cfg = Read("port     :6" + pad + "  ");
    EXPECT_EQ(cfg.port, 6);
    cfg = Read("port     :7" + pad + " ");
    EXPECT_EQ(cfg.port, 0);
}

// A file that cannot be read is one that cannot be opened: logged, the caller's values kept.
TEST_F(KelvaneConfTest, AFileThatCannotBeOpenedOrReadIsLoggedAndLeftAlone) {
    tp_.settings().SetDword(TROV_DEBUG_KEY, "ToFile", 0);
    tp_.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
    DebugOpen(nullptr);
    const std::string path = dir_.File("kelvane.conf");
    TempDir::Write(path, kGood);
    const struct {
        std::string file;
        int injected;  // errno the platform fails the open with; 0: a real failure
    } cases[] = {{dir_.File("nowhere/kelvane.conf"), 0}, {path, EIO}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        tp_.FailFiles(c.injected ? "kelvane.conf" : "", c.injected);
        ProxyConfig cfg{};
        cfg.port = 77;
        errno = 0;
        EXPECT_EQ(ReadProxyConfig(c.file.c_str(), &cfg), -1);
        if (c.injected) {
            EXPECT_EQ(errno, c.injected);
        }
        EXPECT_EQ(cfg.port, 77);
        EXPECT_NE(tp_.DebuggerText().find("Cannot open file: " + c.file + "\n"), std::string::npos);
    }
    tp_.FailFiles("", 0);
    ProxyConfig cfg{};
    EXPECT_EQ(ReadProxyConfig(path.c_str(), &cfg), 0);
    EXPECT_EQ(cfg.port, 9998);
    EXPECT_NE(tp_.DebuggerText().find("Open " + path + " success.\n"), std::string::npos);
}

TEST_F(KelvaneConfTest, TextFieldsAreZeroFilledOnEachSet) {
    ProxyConfig cfg = Read("password :longerpassword\npassword :short\n");
    EXPECT_STREQ(cfg.password, "short");
    for (size_t i = 5; i < sizeof cfg.password; ++i) ASSERT_EQ(cfg.password[i], 0) << i;
}

TEST_F(KelvaneConfTest, UntouchedFieldsKeepTheCallersValues) {
    std::string path = dir_.File("partial.conf");
    TempDir::Write(path, "port     :42\n");
    ProxyConfig cfg;
    std::memset(&cfg, 0, sizeof cfg);
    cfg.version = 9;
    std::strcpy(cfg.username, "keep");
    ASSERT_EQ(ReadProxyConfig(path.c_str(), &cfg), 0);
    EXPECT_EQ(cfg.version, 9);
    EXPECT_STREQ(cfg.username, "keep");
    EXPECT_EQ(cfg.port, 42);
}

TEST(ProxyConfigCompleteTest, EachFieldIsMandatory) {
    ProxyConfig full{};
    full.version = 1;
    full.ipaddress = Ip("127.0.0.1");
    std::strcpy(full.username, "u");
    std::strcpy(full.password, "p");
    full.port = 1;
    EXPECT_TRUE(ProxyConfigComplete(full));
    for (int field = 0; field < 5; ++field) {
        ProxyConfig c = full;
        if (field == 0) c.version = 0;
        if (field == 1) c.ipaddress = 0;
        if (field == 2) c.username[0] = 0;
        if (field == 3) c.password[0] = 0;
        if (field == 4) c.port = 0;
        EXPECT_FALSE(ProxyConfigComplete(c)) << field;
    }
}

}  // namespace
