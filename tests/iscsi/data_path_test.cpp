// The emulator's data path against a real target daemon and a real initiator on loopback: what a
// host sees of the LUNs the array's commands create, extend, mask and delete. Skipped, with a
// message, only where tgtd is not installed.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "iscsi/initiator.h"
#include "sim/control.h"
#include "sim/iscsi_plan.h"
#include "sim/iscsi_service.h"
#include "sim/sim.h"

using iscsitest::Initiator;
using iscsitest::ScsiResult;

namespace {

const char* kTargetA = "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.a";
const char* kHost01 = "iqn.1991-05.com.microsoft:host01.demo.local";
const char* kStranger = "iqn.2024-01.test.trov:stranger";
constexpr uint32_t kStepMs = 10000;  // a generous bound for tgtd to follow a change

struct Log {
    std::mutex mu;
    std::vector<std::string> lines;
    void Add(const std::string& l) {
        std::lock_guard<std::mutex> g(mu);
        lines.push_back(l);
    }
    bool Has(const std::string& part) {
        std::lock_guard<std::mutex> g(mu);
        for (const auto& l : lines)
            if (l.find(part) != std::string::npos) return true;
        return false;
    }
    std::string All() {
        std::lock_guard<std::mutex> g(mu);
        std::string out;
        for (const auto& l : lines) out += l + "\n";
        return out;
    }
};

class DataPath : public ::testing::Test {
protected:
    void SetUp() override {
        if (trovsim::FindProgram("", "tgtd").empty() || trovsim::FindProgram("", "tgtadm").empty())
            GTEST_SKIP() << "tgtd or tgtadm is not installed (Debian package tgt): the iSCSI data path is not tested";
        char tmpl[] = "/tmp/trovsim-iscsi-test.XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        port_ = iscsitest::FreePort();
        ASSERT_NE(port_, 0);
    }
    void TearDown() override {
        sim_.reset();
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            if (::system(cmd.c_str()) != 0) {
            }
        }
    }

    trovsim::Options Opts(bool withState) {
        trovsim::Options o;
        o.logRequests = false;
        o.heartbeatIntervalMs = 0;
        o.logSink = [this](const std::string& l) { log_.Add(l); };
        o.iscsiPortal = "127.0.0.1:" + std::to_string(port_);
        if (withState) o.stateFile = dir_ + "/state.json";
        else o.iscsiFolder = dir_ + "/iscsi";
        return o;
    }
    bool Start(trovsim::Options o, std::string* err) {
        sim_ = std::make_unique<trovsim::Server>(o);
        if (!sim_->LoadScenario("demo", err)) return false;
        return sim_->Start(err);
    }
    void StartDemo(bool withState = false) {
        std::string err;
        ASSERT_TRUE(Start(Opts(withState), &err)) << err << "\n" << log_.All();
    }
    std::string Control(const std::string& line) {
        std::string r = trovsim::RunControl(*sim_, line);
        EXPECT_TRUE(sim_->IscsiWaitInStep(kStepMs)) << line << "\n" << log_.All();
        return r;
    }
    trovsim::Partition Volume(const std::string& name) {
        trovsim::Partition out;
        sim_->WithModel([&](trovsim::Model& m) {
            for (auto& s : m.subsystems())
                for (auto& v : s.vdisks)
                    for (auto& p : v.parts)
                        if (p.name == name) out = p;
        });
        return out;
    }
    bool LoginA(Initiator& ini, const std::string& who, std::string* err = nullptr) {
        return ini.Login("127.0.0.1", port_, who, kTargetA, err);
    }
    std::vector<uint32_t> Luns(const std::string& who) {
        Initiator ini;
        std::string err;
        std::vector<uint32_t> luns;
        EXPECT_TRUE(LoginA(ini, who, &err)) << err;
        EXPECT_TRUE(ini.ReportLuns(&luns));
        return luns;
    }
    std::vector<std::string> Discover(const std::string& who) {
        Initiator ini;
        std::string err;
        EXPECT_TRUE(ini.Login("127.0.0.1", port_, who, "", &err)) << err;
        std::vector<std::string> out = ini.SendTargets(&err);
        EXPECT_FALSE(out.empty()) << err;
        return out;
    }
    static bool Contains(const std::vector<std::string>& v, const std::string& s) {
        for (const auto& x : v)
            if (x == s) return true;
        return false;
    }
    static bool HasLun(const std::vector<uint32_t>& v, uint32_t lun) {
        for (uint32_t x : v)
            if (x == lun) return true;
        return false;
    }

    std::string dir_;
    uint16_t port_ = 0;
    Log log_;
    std::unique_ptr<trovsim::Server> sim_;
};

// The host-side identification reads page 0x80 as text from byte 4 and compares it with the
// serial's 32 hex digits; the match from a disk reads bytes 8..15 of its 16-byte NAA identifier.
void ExpectIdentification(Initiator& ini, uint32_t lun, const trovsim::Partition& p) {
    ScsiResult std = ini.Inquiry(lun, -1, 96);
    ASSERT_TRUE(std.ok && std.status == 0) << std.error;
    ASSERT_GE(std.data.size(), 36u);
    EXPECT_EQ(std::string(std.data.begin() + 8, std.data.begin() + 16), "TROV    ");
    EXPECT_EQ(std::string(std.data.begin() + 16, std.data.begin() + 32), "R3000i          ");

    ScsiResult p80 = ini.Inquiry(lun, 0x80, 0x30);  // as the host asks: 48 bytes
    ASSERT_TRUE(p80.ok && p80.status == 0) << p80.error;
    ASSERT_GE(p80.data.size(), 4u);
    EXPECT_EQ(p80.data[1], 0x80);
    std::vector<uint8_t> page(48, 0);
    std::memcpy(page.data(), p80.data.data(), std::min<size_t>(48, p80.data.size()));
    std::string text(reinterpret_cast<const char*>(page.data() + 4));
    EXPECT_EQ(text, trovsim::IscsiSerialText(p.serial));
    EXPECT_EQ(p80.data[3], 32) << "page length";

    ScsiResult p83 = ini.Inquiry(lun, 0x83, 0x80);
    ASSERT_TRUE(p83.ok && p83.status == 0) << p83.error;
    ASSERT_GE(p83.data.size(), 4u);
    EXPECT_EQ(p83.data[1], 0x83);
    // The first binary NAA designator of 16 bytes is the one the host takes.
    std::vector<uint8_t> naa;
    size_t end = std::min<size_t>(p83.data.size(), 4 + (size_t(p83.data[2]) << 8 | p83.data[3]));
    for (size_t at = 4; at + 4 <= end;) {
        size_t len = p83.data[at + 3];
        if (at + 4 + len > end) break;
        if ((p83.data[at] & 0x0F) == 1 && (p83.data[at + 1] & 0x0F) == 3 && len == 16 && naa.empty())
            naa.assign(p83.data.begin() + static_cast<long>(at + 4), p83.data.begin() + static_cast<long>(at + 20));
        at += 4 + len;
    }
    ASSERT_EQ(naa.size(), 16u) << "no 16-byte NAA designator in page 0x83";
    auto want = trovsim::IscsiDesignator(p.serial);
    EXPECT_EQ(naa, std::vector<uint8_t>(want.begin(), want.end()));
    EXPECT_EQ(std::vector<uint8_t>(naa.begin() + 8, naa.end()),
              std::vector<uint8_t>(p.serial.begin() + 8, p.serial.begin() + 16));
}

TEST_F(DataPath, AVolumeForEveryInitiatorIsSeenIdentifiedGrownAndGone) {
    StartDemo();
    EXPECT_EQ(Control("volume create VD-SAS-R5 shared01 1G"), "ok");
    EXPECT_EQ(Control("volume map shared01 * 5"), "ok");
    trovsim::Partition p = Volume("shared01");

    EXPECT_TRUE(Contains(Discover(kStranger), std::string("TargetName=") + kTargetA));
    Initiator ini;
    std::string err;
    ASSERT_TRUE(LoginA(ini, kStranger, &err)) << err;
    std::vector<uint32_t> luns;
    ASSERT_TRUE(ini.ReportLuns(&luns));
    EXPECT_TRUE(HasLun(luns, 5));
    ExpectIdentification(ini, 5, p);
    uint64_t blocks = 0;
    uint32_t bs = 0;
    ASSERT_TRUE(ini.Capacity(5, &blocks, &bs));
    EXPECT_EQ(uint64_t(bs) * blocks, 1ull << 30);
    ini.Close();

    EXPECT_EQ(Control("volume expand shared01 3G"), "ok");
    ASSERT_TRUE(LoginA(ini, kStranger, &err)) << err;
    ASSERT_TRUE(ini.Capacity(5, &blocks, &bs));
    EXPECT_EQ(uint64_t(bs) * blocks, 3ull << 30);
    ini.Close();

    std::string file = dir_ + "/iscsi/" + trovsim::IscsiLunFile(p.serial);
    struct stat st;
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(Control("volume delete shared01"), "ok");
    EXPECT_FALSE(HasLun(Luns(kHost01), 5));
    EXPECT_FALSE(LoginA(ini, kStranger, &err)) << "only host01's db01 is left on the target";
    EXPECT_NE(::stat(file.c_str(), &st), 0) << "the backing file of a deleted volume stays";
}

TEST_F(DataPath, ATargetWhoseVolumesAreAllMappedToOneHostRefusesAnother) {
    StartDemo();  // controller A serves db01 to host01 only
    Initiator ini;
    std::string err;
    EXPECT_FALSE(LoginA(ini, kStranger, &err));
    EXPECT_NE(err.find("status 0x02"), std::string::npos) << err;
    EXPECT_FALSE(Contains(Discover(kStranger), std::string("TargetName=") + kTargetA));
    ASSERT_TRUE(LoginA(ini, kHost01, &err)) << err;
    ExpectIdentification(ini, 1, Volume("db01"));
    ini.Close();

    // A second volume for every initiator: the daemon cannot hide db01 from the others, says so.
    EXPECT_EQ(Control("volume map logs01 * 2"), "ok");
    EXPECT_TRUE(log_.Has("views it cannot separate: db01 (" + std::string(kHost01) + "); logs01 (all initiators)"))
        << log_.All();
    std::vector<uint32_t> luns = Luns(kStranger);
    EXPECT_TRUE(HasLun(luns, 2) && HasLun(luns, 1));

    // Removing the last view removes the LUN; with db01 alone again the stranger is refused.
    EXPECT_EQ(Control("volume unmap logs01 all"), "ok");
    EXPECT_FALSE(LoginA(ini, kStranger, &err));
    EXPECT_FALSE(HasLun(Luns(kHost01), 2));
}

TEST_F(DataPath, DataWrittenSurvivesARestartWithStateAndTheFileIsSparse) {
    StartDemo(true);
    EXPECT_EQ(Control("volume create VD-SAS-R5 big01 500G"), "ok");
    EXPECT_EQ(Control("volume map big01 * 3"), "ok");
    std::vector<uint8_t> block(4096);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i * 7 + 1);
    const uint64_t lba = (400ull << 30) / 512;  // far into the volume
    {
        Initiator ini;
        std::string err;
        ASSERT_TRUE(LoginA(ini, kStranger, &err)) << err;
        ASSERT_TRUE(ini.Write(3, lba, block));
    }
    std::string file = dir_ + "/state.json.iscsi/" + trovsim::IscsiLunFile(Volume("big01").serial);
    struct stat st;
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(uint64_t(st.st_size), 500ull << 30);
    EXPECT_LT(uint64_t(st.st_blocks) * 512, 16ull << 20) << "the backing file is not sparse";

    sim_->Stop();
    sim_.reset();
    std::string err;
    trovsim::Options o = Opts(true);
    sim_ = std::make_unique<trovsim::Server>(o);
    ASSERT_TRUE(sim_->LoadScenario(o.stateFile, &err)) << err;  // as the program does with --state
    ASSERT_TRUE(sim_->Start(&err)) << err;
    ASSERT_TRUE(sim_->IscsiWaitInStep(kStepMs)) << log_.All();
    Initiator ini;
    ASSERT_TRUE(LoginA(ini, kStranger, &err)) << err;
    std::vector<uint8_t> back;
    ASSERT_TRUE(ini.Read(3, lba, 8, &back));
    EXPECT_EQ(back, block);
}

TEST_F(DataPath, ADaemonThatDiesIsRestartedWithTheModelsState) {
    StartDemo();
    EXPECT_EQ(Control("volume map logs01 * 4"), "ok");
    trovsim::IscsiService* svc = sim_->iscsi();
    ASSERT_NE(svc, nullptr);
    pid_t first = svc->daemonPid();
    ASSERT_GT(first, 0);
    ASSERT_EQ(::kill(first, SIGKILL), 0);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStepMs);
    while (svc->daemonStarts() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(svc->daemonStarts(), 2u) << log_.All();
    ASSERT_TRUE(sim_->IscsiWaitInStep(kStepMs)) << log_.All();
    EXPECT_NE(svc->daemonPid(), first);
    EXPECT_TRUE(log_.Has("iSCSI: tgtd was killed by signal 9; starting a new one")) << log_.All();
    EXPECT_TRUE(HasLun(Luns(kStranger), 4));
}

TEST_F(DataPath, AnInitiatorNameWithOddCharactersNeitherStopsTheEmulatorNorOthers) {
    StartDemo();
    const std::string odd = "iqn.2024-01.test:odd name,with=\"quotes\"&;$(x)";
    RunControl(*sim_, "volume map logs01 " + odd + " 6");
    sim_->IscsiWaitInStep(kStepMs);  // tgtadm may refuse such a name; that is logged, not fatal
    EXPECT_EQ(Control("volume map scratch01 * 7"), "ok");
    EXPECT_TRUE(HasLun(Luns(kHost01), 7));
}

TEST_F(DataPath, StartFailsClearlyWithoutTgtdAndThePortalMustBeFree) {
    std::string err;
    trovsim::Options o = Opts(false);
    o.tgtdPath = dir_ + "/no-such-tgtd";
    EXPECT_FALSE(Start(o, &err));
    EXPECT_NE(err.find("install the tgt package"), std::string::npos) << err;

    // The same portal held by someone else.
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port_);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::listen(fd, 1), 0);
    EXPECT_FALSE(Start(Opts(false), &err));
    EXPECT_NE(err.find("cannot listen on the iSCSI portal 127.0.0.1:" + std::to_string(port_)), std::string::npos) << err;
    ::close(fd);

    // Without the data path the management side starts as ever.
    trovsim::Options plain = Opts(false);
    plain.iscsiPortal.clear();
    plain.tgtdPath = dir_ + "/no-such-tgtd";
    EXPECT_TRUE(Start(plain, &err)) << err;
    EXPECT_EQ(sim_->iscsi(), nullptr);
}

// The program beside this test program (one build folder holds both).
std::string SimProgram() {
    char self[4096] = {};
    ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    std::string path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/') + 1) + "trovproxy-sim";
}

// Runs the emulator program with its standard input held open and its log in `logFile`; waits
// (bounded) until it serves iSCSI. The child's pid, or -1.
pid_t RunSim(const std::vector<std::string>& args, const std::string& logFile, int* stdinFd) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return -1;
    std::vector<std::string> argv{SimProgram()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> a;
    for (auto& s : argv) a.push_back(s.data());
    a.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(fds[0], 0);
        int log = ::open(logFile.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
        ::dup2(log, 2);
        ::execv(a[0], a.data());
        _exit(127);
    }
    ::close(fds[0]);
    *stdinFd = fds[1];
    for (int i = 0; i < 500; ++i) {
        std::ifstream in(logFile);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (text.find("iSCSI: serving on") != std::string::npos) return pid;
        if (::waitpid(pid, nullptr, WNOHANG) == pid) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pid;
}

bool ProcessAlive(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

TEST_F(DataPath, AnEmulatorKilledOutrightLeavesNothingTheNextStartCannotCleanUp) {
    struct stat st;
    ASSERT_EQ(::stat(SimProgram().c_str(), &st), 0) << SimProgram() << " is not built";
    std::vector<std::string> args{"--scenario", "demo", "--port", "0", "--heartbeat", "0", "--quiet",
                                  "--state", dir_ + "/state.json", "--iscsi", "127.0.0.1:" + std::to_string(port_)};
    int in1 = -1;
    pid_t first = RunSim(args, dir_ + "/first.log", &in1);
    ASSERT_GT(first, 0);
    std::ifstream pidFile(dir_ + "/state.json.iscsi/tgtd.pid");
    pid_t daemon = 0;
    pidFile >> daemon;
    ASSERT_GT(daemon, 0);
    ::kill(first, SIGKILL);
    ::waitpid(first, nullptr, 0);
    ::close(in1);

    // The next start on the same state and portal serves again, with no tgtd of the first left.
    int in2 = -1;
    pid_t second = RunSim(args, dir_ + "/second.log", &in2);
    ASSERT_GT(second, 0);
    EXPECT_FALSE(ProcessAlive(daemon)) << "the first emulator's tgtd still runs";
    Initiator ini;
    std::string err;
    EXPECT_TRUE(ini.Login("127.0.0.1", port_, kHost01, kTargetA, &err)) << err;
    ini.Close();
    ::close(in2);  // the end of its input stops it in order
    ::kill(second, SIGTERM);
    int status = 0;
    ::waitpid(second, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << status;
}

}  // namespace
