// The heartbeat channel as the service sees it: a client of the local channel sends a packet and
// reads the answer. Heartbeats, garbage, short and empty packets, silent clients, strangers and
// the shutdown; the thread's pauses run on the fake clock.
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testlib/fake_platform.h"
#include "testlib/session_env.h"
#include "proxy/heartbeat.h"
#include "proxy/iasocket.h"
#include "proxy/session.h"
#include "support/debuglog.h"
#include "wire_bytes.h"

namespace {

using Bytes = std::vector<uint8_t>;

using wirebytes::Header;

// Real-time waits, bounded, for the channel's own thread.
template <class Pred>
bool WaitFor(Pred pred, int ms = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A client of the channel, as the service opens it.
class Client {
public:
    Client() {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        std::string name = "TROV_Proxy_" + std::to_string(getpid() & 0xFFFF);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path + 1, name.data(), name.size());
        socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        connected_ = fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), len) == 0;
    }
    ~Client() { Close(); }
    bool connected() const { return connected_; }
    bool Send(const Bytes& b) { return ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size()); }
    // Reads until n bytes came, the channel ended or ms passed.
    Bytes Read(size_t n, int ms = 5000) {
        Bytes out;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (out.size() < n) {
            int left = static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())
                    .count());
            if (left <= 0) break;
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, left) <= 0) break;
            uint8_t buf[256];
            ssize_t r = ::recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
            if (r <= 0) {
                ended_ = true;
                break;
            }
            out.insert(out.end(), buf, buf + r);
        }
        return out;
    }
    // True when the channel's side ended the connection (within ms), having sent nothing more.
    bool SeesEnd(int ms = 5000) {
        Bytes rest = Read(1, ms);
        return rest.empty() && ended_;
    }
    void Close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
    bool connected_ = false;
    bool ended_ = false;
};

// The fake platform with the channel's policy recorded (and its read time-out shortened on
// request), a settable effective user and a user table of its own.
class ChannelPlatform : public TestPlatform {
public:
    std::unique_ptr<LocalChannel> CreateLocalChannel(const std::string& name, const LocalChannelPolicy& policy,
                                                     uint32_t* err) override {
        LocalChannelPolicy used = policy;
        {
            std::lock_guard<std::mutex> g(mu);
            policies.push_back(policy);
            if (readTimeoutMs) used.readTimeoutMs = readTimeoutMs;
        }
        return PlatformWrapper::CreateLocalChannel(name, used, err);
    }
    uint32_t EffectiveUserId() override { return euid; }
    bool LookupUserId(const std::string& name, uint32_t* uid) override {
        auto it = users.find(name);
        if (it == users.end()) return false;
        *uid = it->second;
        return true;
    }

    std::mutex mu;
    std::vector<LocalChannelPolicy> policies;
    uint32_t readTimeoutMs = 0;  // 0: as the logic asks
    uint32_t euid = static_cast<uint32_t>(geteuid());  // the test's clients run as this user
    std::map<std::string, uint32_t> users = {{"trovsvc", 4321}, {"root", 0}};
};

class HeartbeatChannel : public ::testing::Test {
protected:
    void SetUp() override {
        testlib::BeginSessionTest(tp);
        ASSERT_EQ(create_listen(), 0);
        ASSERT_TRUE(ListenerValid());
    }
    void TearDown() override {
        Stop();
        testlib::EndSessionTest();
    }
    // The shutdown as the provider's unload runs it; the thread is joined by it.
    void Stop() {
        tp.clock().SetAuto(true);
        const bool running = recvEventsRunning.load() != 0;
        const size_t exits = Count("recv_events() out\n");
        ProxyUnInit();
        EXPECT_EQ(SessionThreadCount(), 0);
        if (running) {
            EXPECT_EQ(Count("recv_events() out\n"), exits + 1);
        }
        EXPECT_EQ(recvEventsRunning.load(), 0);
        EXPECT_FALSE(ListenerValid());
        EXPECT_FALSE(Logged("timed out waiting for threads to finish")) << tp.DebuggerText();
    }
    bool Logged(const std::string& s) const { return tp.DebuggerText().find(s) != std::string::npos; }
    size_t Count(const std::string& s) const {
        const std::string text = tp.DebuggerText();
        size_t n = 0;
        for (size_t at = text.find(s); at != std::string::npos; at = text.find(s, at + 1)) ++n;
        return n;
    }
    bool WaitLogged(const std::string& s) {
        return WaitFor([&] { return Logged(s); });
    }
    // A heartbeat from a new client, and its answer.
    Bytes Beat(uint32_t opcode = 0) {
        Client c;
        EXPECT_TRUE(c.connected());
        EXPECT_TRUE(c.Send(Header(12345, 0, 5, opcode, 0)));
        Bytes answer = c.Read(36);
        EXPECT_TRUE(c.SeesEnd());
        return answer;
    }

    ChannelPlatform tp;
};

TEST_F(HeartbeatChannel, NameIsFormedFromTheLowBitsOfTheProcessId) {
    const std::string number = std::to_string(getpid() & 0xFFFF);
    EXPECT_EQ(ListenerName(), "TROV_Proxy_" + number);
    EXPECT_EQ(ListenPort(), static_cast<uint16_t>(getpid() & 0xFFFF));
    EXPECT_TRUE(Logged("create_listen()\n"));
    EXPECT_TRUE(Logged("create_listen: creating named pipe @TROV_Proxy_" + number + "\n")) << tp.DebuggerText();
    EXPECT_TRUE(Logged("starting recv_events thread\n"));
}

TEST_F(HeartbeatChannel, HeartbeatIsAnsweredWithAHeaderOfTheSession) {
    g_transport.sequence = 100;  // before login: key 0
    EXPECT_EQ(Beat(3), Header(100, 0, 5, 0, 0));
    EXPECT_EQ(g_transport.sequence.load(), 101u);
    EXPECT_TRUE(WaitLogged("pipe disconnected\n"));
    EXPECT_TRUE(Logged("pipe read 36 bytes, DataLen=0\n")) << tp.DebuggerText();
    EXPECT_TRUE(Logged("WriteFile(pipe) wrote 36 bytes\n"));
    EXPECT_FALSE(Logged("ADDITIONAL"));
}

TEST_F(HeartbeatChannel, AnswersShareTheSequenceAndKeyWithCommands) {
    g_transport.sequence = 63;
    g_transport.SessionKey = 0xFFFFFFF0;  // the check value's sum wraps
    EXPECT_EQ(Beat(), Header(63, 0xFFFFFFF0, 5, 0, 0));
    EXPECT_EQ(Beat(), Header(64, 0xFFFFFFF0, 5, 0, 0));
    uint8_t cmd[36];
    MakeHeader(cmd, 1, 0);
    EXPECT_EQ(Bytes(cmd, cmd + 36), Header(65, 0xFFFFFFF0, 1, 0, 0));
}

TEST_F(HeartbeatChannel, AnswerLeavesThePacketBufferAlone) {
    ASSERT_TRUE(AllocatePacketBuffer());
    std::memset(g_transport.PacketBuffer, 0xA5, 4096);
    EXPECT_EQ(Beat().size(), 36u);
    for (int i = 0; i < 4096; ++i) ASSERT_EQ(g_transport.PacketBuffer[i], 0xA5) << i;
}

TEST_F(HeartbeatChannel, HeaderAndPayloadInOneWriteNeedNoSecondRead) {
    Client c;
    ASSERT_TRUE(c.connected());
    Bytes pkt = Header(1, 0, 5, 0, 8);
    pkt.insert(pkt.end(), 8, 0xEE);
    ASSERT_TRUE(c.Send(pkt));
    EXPECT_EQ(c.Read(36).size(), 36u);
    EXPECT_TRUE(c.SeesEnd());
    EXPECT_TRUE(WaitLogged("pipe disconnected\n"));
    EXPECT_TRUE(Logged("pipe read 44 bytes, DataLen=8\n")) << tp.DebuggerText();
    EXPECT_FALSE(Logged("ADDITIONAL"));
}

TEST_F(HeartbeatChannel, PayloadBehindALoneHeaderIsReadSecond) {
    Client c;
    ASSERT_TRUE(c.connected());
    ASSERT_TRUE(c.Send(Header(1, 0, 5, 0, 8)));
    ASSERT_TRUE(WaitLogged("pipe read 36 bytes, DataLen=8\n")) << tp.DebuggerText();
    ASSERT_TRUE(c.Send(Bytes(8, 0x11)));
    EXPECT_EQ(c.Read(36).size(), 36u);
    EXPECT_TRUE(c.SeesEnd());
    EXPECT_TRUE(Logged("pipe read 8 ADDITIONAL bytes, DataLen=8 read=44\n")) << tp.DebuggerText();
}

struct Garbage {
    const char* name;
    Bytes packet;
    const char* logLine;
};

class HeartbeatGarbage : public HeartbeatChannel, public ::testing::WithParamInterface<Garbage> {};

TEST_P(HeartbeatGarbage, IsIgnoredAndTheClientDisconnected) {
    g_transport.sequence = 7;
    Client c;
    ASSERT_TRUE(c.connected());
    ASSERT_TRUE(c.Send(GetParam().packet));
    EXPECT_TRUE(c.SeesEnd());  // no answer, only the end
    EXPECT_TRUE(WaitLogged("pipe disconnected\n"));
    EXPECT_TRUE(Logged(GetParam().logLine)) << tp.DebuggerText();
    EXPECT_EQ(g_transport.sequence.load(), 7u);
    // The channel serves the next client as before.
    EXPECT_EQ(Beat(), Header(7, 0, 5, 0, 0));
}

Bytes Noise(size_t n, uint8_t typeByte) {
    Bytes b(n);
    uint32_t x = 0x2545F491;
    for (auto& v : b) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        v = static_cast<uint8_t>(x);
    }
    std::memset(b.data() + 20, 0, 4);
    b[23] = typeByte;
    std::memset(b.data() + 32, 0, 4);  // no promise of more
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Packets, HeartbeatGarbage,
    ::testing::Values(
        Garbage{"Request", Header(1, 0, 1, 5, 0), "Received non-HB packet, ignoring (DataType=1==0x1...\n"},
        Garbage{"Session", Header(1, 0, 3, 1, 0), "Received non-HB packet, ignoring (DataType=3==0x3...\n"},
        Garbage{"TypeFour", Header(1, 0, 4, 0, 0), "Received non-HB packet, ignoring (DataType=4==0x4...\n"},
        Garbage{"Noise", Noise(100, 0x42), "Received non-HB packet, ignoring (DataType=66==0x42...\n"}),
    [](const ::testing::TestParamInfo<Garbage>& i) { return std::string(i.param.name); });

TEST_F(HeartbeatChannel, ShortPacketPausesAndReadsOnFromTheSameClient) {
    tp.clock().SetAuto(false);
    Client c;
    ASSERT_TRUE(c.connected());
    ASSERT_TRUE(c.Send(Bytes(10, 0x05)));
    ASSERT_TRUE(tp.clock().WaitForSleepers(1));
    EXPECT_TRUE(Logged("error: message too short, size=10 at ")) << tp.DebuggerText();
    ASSERT_FALSE(tp.clock().SleepCalls().empty());
    EXPECT_EQ(tp.clock().SleepCalls().back(), 5000u);
    // Not disconnected: after the pause the same client is read again.
    g_transport.sequence = 3;
    ASSERT_TRUE(c.Send(Header(0, 0, 5, 0, 0)));
    tp.clock().Advance(5000);
    EXPECT_EQ(c.Read(36), Header(3, 0, 5, 0, 0));
    EXPECT_TRUE(c.SeesEnd());
}

TEST_F(HeartbeatChannel, ClientThatLeavesAtOncePausesThenTheNextIsServed) {
    tp.clock().SetAuto(false);
    {
        Client c;
        ASSERT_TRUE(c.connected());
    }
    ASSERT_TRUE(tp.clock().WaitForSleepers(1));
    EXPECT_TRUE(Logged("error: size=0 at ")) << tp.DebuggerText();
    EXPECT_EQ(tp.clock().SleepCalls().back(), 5000u);
    tp.clock().Advance(5000);
    g_transport.sequence = 20;
    EXPECT_EQ(Beat(), Header(20, 0, 5, 0, 0));
}

TEST_F(HeartbeatChannel, ClientThatLeavesInsideThePayloadDoesNotStopTheChannel) {
    tp.clock().SetAuto(false);
    {
        Client c;
        ASSERT_TRUE(c.connected());
        ASSERT_TRUE(c.Send(Header(1, 0, 5, 0, 64)));
        ASSERT_TRUE(WaitLogged("pipe read 36 bytes, DataLen=64\n"));
        ASSERT_TRUE(c.Send(Bytes(5, 0)));
    }
    // Whatever the channel makes of the end, the next client is answered.
    EXPECT_TRUE(WaitFor([&] { return Logged("pipe disconnected\n") || tp.clock().Sleepers() > 0; }));
    tp.clock().SetAuto(true);
    g_transport.sequence = 30;
    EXPECT_EQ(Beat(), Header(30, 0, 5, 0, 0));
    EXPECT_EQ(recvEventsRunning.load(), 1);
}

TEST_F(HeartbeatChannel, SilentClientGetsNothingAndShutdownStillEndsTheThread) {
    Client c;
    ASSERT_TRUE(c.connected());
    ASSERT_TRUE(WaitLogged("pipe read...\n"));
    EXPECT_TRUE(c.Read(1, 50).empty());
    Stop();
    EXPECT_TRUE(Logged("closing pipe handle...\n"));
    EXPECT_TRUE(Logged("closed pipe handle\n"));
    EXPECT_TRUE(Logged("recv_events thread exit.\n"));
    EXPECT_TRUE(Logged("delete_listener: deleting named pipe @TROV_Proxy_")) << tp.DebuggerText();
    // The name is free again: a new channel can be made under it.
    ResetSessionForTest();
    EXPECT_EQ(create_listen(), 0);
}

TEST_F(HeartbeatChannel, ClientsOfRootAndOfThisProcessAreAcceptedWithAReadTimeOut) {
    ASSERT_EQ(tp.policies.size(), 1u);
    const uint32_t self = static_cast<uint32_t>(geteuid());
    const std::vector<uint32_t> allowed = self == 0 ? std::vector<uint32_t>{0} : std::vector<uint32_t>{0, self};
    EXPECT_EQ(tp.policies[0].allowedUids, allowed);
    EXPECT_EQ(tp.policies[0].readTimeoutMs, kHeartbeatReadTimeoutMs);
    EXPECT_TRUE(Logged("create_listen: uid 0 may connect\n")) << tp.DebuggerText();
}

TEST(HeartbeatPolicyTest, RootAndTheServiceUserOrElseThisProcesssUser) {
    struct Case {
        const char* name;
        const char* serviceUser;  // nullptr: no value
        uint32_t euid;
        std::vector<uint32_t> allowed;
        bool logged;  // "names no user"
    } cases[] = {
        {"no value, run as root", nullptr, 0, {0}, false},
        {"no value, run as a user", nullptr, 1000, {0, 1000}, false},
        {"a user name", "trovsvc", 1000, {0, 4321}, false},
        {"a numeric uid", "2000", 1000, {0, 2000}, false},
        {"root by name", "root", 1000, {0}, false},
        {"an unknown name allows root only", "nosuchuser", 1000, {0}, true},
        {"a uid past 32 bits is a name", "4294967296", 1000, {0}, true},
        {"an empty value", "", 1000, {0}, true},
    };
    ChannelPlatform tp;
    testlib::BeginSessionTest(tp);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tp.ClearRecords();
        tp.euid = c.euid;
        tp.settings().RemoveValue(TROV_PARAMETERS_KEY, "ServiceUser");
        if (c.serviceUser) tp.settings().SetString(TROV_PARAMETERS_KEY, "ServiceUser", c.serviceUser);
        LocalChannelPolicy p = HeartbeatPolicy();
        EXPECT_EQ(p.allowedUids, c.allowed);
        EXPECT_EQ(p.readTimeoutMs, kHeartbeatReadTimeoutMs);
        EXPECT_EQ(tp.DebuggerText().find("names no user, only root may connect") != std::string::npos, c.logged)
            << tp.DebuggerText();
    }
    // A value of another type counts as missing.
    tp.settings().SetDword(TROV_PARAMETERS_KEY, "ServiceUser", 4321);
    tp.euid = 77;
    EXPECT_EQ(HeartbeatPolicy().allowedUids, (std::vector<uint32_t>{0, 77}));
    testlib::EndSessionTest();
}

TEST_F(HeartbeatChannel, AStrangerIsRefusedAndTheServiceStillAnswered) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as the user nobody";
    passwd* pw = getpwnam("nobody");
    ASSERT_NE(pw, nullptr);
    const uid_t uid = pw->pw_uid;
    const gid_t gid = pw->pw_gid;
    // Everything the child needs is made before the fork: it only makes system calls.
    const std::string name = ListenerName();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    const Bytes beat = Header(1, 0, 5, 0, 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (setgid(gid) != 0 || setuid(uid) != 0) _exit(10);
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), len) != 0) _exit(11);
        (void)!::send(fd, beat.data(), beat.size(), MSG_NOSIGNAL);
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0) _exit(12);  // neither an answer nor an end
        uint8_t buf[64];
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        // 0: the channel ended the connection without a word.
        _exit(n == 0 || (n < 0 && errno == ECONNRESET) ? 0 : 13);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no setuid, 11: no connect, 12: no end, 13: answered";
    EXPECT_TRUE(WaitLogged(TrovFormatString("recv_events: refused a connection from uid %u pid %u\n",
                                            static_cast<unsigned>(uid), static_cast<unsigned>(pid))))
        << tp.DebuggerText();
    EXPECT_FALSE(Logged("ConnectNamedPipe failed"));
    g_transport.sequence = 50;
    EXPECT_EQ(Beat(), Header(50, 0, 5, 0, 0));
}

// The read time-out of the channel, shortened so that the test waits for real only briefly.
class HeartbeatChannelTimeOut : public HeartbeatChannel {
protected:
    void SetUp() override {
        tp.readTimeoutMs = 100;
        HeartbeatChannel::SetUp();
    }
};

TEST_F(HeartbeatChannelTimeOut, ASilentClientIsDroppedAndTheNextServed) {
    struct Case {
        const char* name;
        Bytes sent;
    } cases[] = {{"nothing at all", {}}, {"a header whose payload never comes", Header(1, 0, 5, 0, 8)}};
    uint32_t seq = 70;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tp.ClearRecords();
        Client silent;
        ASSERT_TRUE(silent.connected());
        if (!c.sent.empty()) {
            ASSERT_TRUE(silent.Send(c.sent));
        }
        EXPECT_TRUE(silent.SeesEnd()) << "the channel kept the silent client";
        EXPECT_TRUE(WaitLogged("recv_events: the client sent nothing in time, disconnected\n")) << tp.DebuggerText();
        g_transport.sequence = seq;
        EXPECT_EQ(Beat(), Header(seq, 0, 5, 0, 0));
        ++seq;
        EXPECT_TRUE(tp.Events().empty());  // no error event, no pause
        EXPECT_TRUE(tp.clock().SleepCalls().empty());
    }
}

TEST_F(HeartbeatChannel, SecondChannelOfTheSameNameFailsWithAnErrorEvent) {
    EXPECT_NE(create_listen(), 0);
    bool found = false;
    for (const auto& e : tp.Events())
        if (e.type == EVENTLOG_ERROR_TYPE && e.text.rfind("CreateNamedPipe failed with error 0x", 0) == 0) found = true;
    EXPECT_TRUE(found);
    // The first channel is untouched.
    EXPECT_TRUE(ListenerValid());
    g_transport.sequence = 0;
    EXPECT_EQ(Beat(), Header(0, 0, 5, 0, 0));
}

}  // namespace
