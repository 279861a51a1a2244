// trovctl's host commands as a user runs them: the built-in demo array, and --host-root pointing
// at a copy of a recorded host of tests/host/data whose disks are the demo array's LUNs.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

struct CliRun {
    int status;
    std::string out;
};

class HostCommands : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/trovctlhost.XXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        dir_ = tmpl;
        Copy("iscsi-array");
    }
    void TearDown() override {
        if (system(("rm -rf '" + dir_ + "'").c_str()) != 0) {
        }
    }
    void Copy(const char* host) {
        root_ = dir_ + "/" + host;
        ASSERT_EQ(system(("cp -r '" + std::string(TROV_SOURCE_DIR) + "/tests/host/data/" + host + "' '" + root_ + "'")
                             .c_str()),
                  0);
    }
    // Runs trovctl with its built-in array on the recorded host; standard error is dropped.
    CliRun Trovctl(const std::string& args) {
        std::string cmd = "env -u TROVHWIPRV_SETTINGS " + std::string(TROVCTL_BIN) + " --host-root '" + root_ + "' " +
                          args + " 2>/dev/null";
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
    nlohmann::json Json(const std::string& args) {
        CliRun r = Trovctl("--json " + args);
        EXPECT_EQ(r.status, 0) << args << ": " << r.out;
        return nlohmann::json::parse(r.out, nullptr, false);
    }
    std::string Read(const std::string& rel) {
        std::ifstream f(root_ + "/" + rel);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
    std::string dir_, root_;
};

TEST_F(HostCommands, IdentifyAndHostDiskMatchTheRecordedDisks) {
    nlohmann::json id = Json("identify db01");
    EXPECT_EQ(id["m_szSerialNumber"], "00c0ff49fe0a500000000001b0000000");
    EXPECT_EQ(id["m_szProductId"], "R3000i");
    EXPECT_EQ(id["m_diskSignature"], "33221100-5544-7766-8899-aabbccddeeff");  // the GPT disk's GUID
    ASSERT_EQ(id["m_rgIdentifiers"].size(), 4u);
    EXPECT_EQ(id["m_rgIdentifiers"][0]["m_rgbIdentifier"], "600c0ff00049fe0a00000001b0000000");

    struct Case {
        const char* device;
        bool isLun;
        const char* lun;
    } cases[] = {{"/dev/sdc", true, "db01"}, {"3:0:0:2", true, "archive01"}, {"sda", false, ""}};
    for (const Case& c : cases) {
        nlohmann::json d = Json(std::string("hostdisk ") + c.device);
        EXPECT_EQ(d["isLun"], c.isLun) << c.device;
        if (c.isLun) EXPECT_EQ(d["lun"], c.lun) << c.device;
    }
    EXPECT_EQ(Trovctl("hostdisk sdz").status, 1);
    EXPECT_EQ(Trovctl("hostdisk").status, 2);
}

TEST_F(HostCommands, PathsPolicyAndAdapters) {
    nlohmann::json paths = Json("paths db01");
    ASSERT_EQ(paths.size(), 2u) << paths.dump();
    EXPECT_EQ(paths[0]["address"], "3:0:0:1");
    EXPECT_EQ(paths[0]["status"], "online");
    EXPECT_EQ(paths[0]["alua"], "active/optimized");
    EXPECT_EQ(paths[0]["controllerPort"], "192.168.10.10");
    EXPECT_EQ(paths[1]["status"], "standby");
    nlohmann::json policy = Json("policy db01");
    EXPECT_EQ(policy["disk"], "mpatha");
    EXPECT_EQ(policy["policy"], "failover");
    nlohmann::json hbas = Json("hbas");
    ASSERT_EQ(hbas.size(), 1u) << hbas.dump();  // the proxy's initiator: the host has no FC port
    EXPECT_EQ(hbas[0]["portWwn"], "2100001b32a1b2c3");
    // A LUN the host doesn't see has no paths and no policy.
    EXPECT_EQ(Json("paths scratch01").size(), 0u);
    EXPECT_EQ(Trovctl("policy scratch01").status, 1);
}

TEST_F(HostCommands, WritesAndTheirDryRuns) {
    CliRun dry = Trovctl("policy set failover primary=2 --dry-run db01");
    ASSERT_EQ(dry.status, 0) << dry.out;
    EXPECT_NE(dry.out.find("would write " + root_ + "/etc/multipath/conf.d/trovhwiprv-"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("multipathd reconfigure"), std::string::npos) << dry.out;
    EXPECT_EQ(access((root_ + "/multipathd/received").c_str(), F_OK), -1);

    ASSERT_EQ(Trovctl("policy set weighted weight=1:9 db01").status, 0);
    EXPECT_NE(Read("etc/multipath/conf.d/trovhwiprv-3600c0ff00049fe0a00000001b0000000.conf")
                  .find("prio_args \"hbtl 3:0:0:1 9 4:0:0:1 10\""),
              std::string::npos);
    ASSERT_EQ(Trovctl("paths fail 2 db01").status, 0);
    EXPECT_EQ(Read("multipathd/received"), "reconfigure\nfail path sdc\n");

    struct Bad {
        const char* args;
        int status;
    } bad[] = {{"policy set sideways db01", 2}, {"policy set failover primary=7 db01", 2},
               {"policy set weighted weight=1:0 db01", 2}, {"paths fail 9 db01", 2}};
    for (const Bad& b : bad) EXPECT_EQ(Trovctl(b.args).status, b.status) << b.args;
    EXPECT_EQ(Read("multipathd/received"), "reconfigure\nfail path sdc\n");
}

TEST_F(HostCommands, HostRootMustBeAFolderAndAnEmptyHostHasNothing) {
    EXPECT_EQ(system((std::string(TROVCTL_BIN) + " --host-root /nonexistent/trov hbas >/dev/null 2>&1").c_str()) >> 8,
              2);
    Copy("empty");
    EXPECT_EQ(Json("paths db01").size(), 0u);
    EXPECT_EQ(Json("hbas").size(), 0u);
    EXPECT_EQ(Json("identify db01")["m_szSerialNumber"], "00c0ff49fe0a500000000001b0000000");
}

}  // namespace
