// The emulator over loopback, driven by a scripted client: session, heartbeats, faults,
// restart and the state file.
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "platform/platform.h"
#include "sim/control.h"
#include "sim/sim.h"
#include "sim_client.h"

using namespace trovsim;
using simtest::Client;
using simtest::ErrorOf;

namespace {

// Waits (for real, briefly) until `pred` holds; the emulator's threads act at once, this only
// lets them run.
template <typename P>
bool Eventually(P pred) {
    for (int i = 0; i < 5000; ++i) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return pred();
}

struct SimFixture : ::testing::Test {
    Options opt;
    std::unique_ptr<Server> sim;
    Client cl;
    std::mutex logMu;
    std::vector<std::string> log;

    void SetUp() override {
        opt.manualClock = true;
        opt.heartbeatIntervalMs = 5000;
        opt.logSink = [this](const std::string& l) {
            std::lock_guard<std::mutex> g(logMu);
            log.push_back(l);
        };
    }
    void StartSim(const std::string& scenario = "demo") {
        sim = std::make_unique<Server>(opt);
        std::string err;
        ASSERT_TRUE(sim->LoadScenario(scenario, &err)) << err;
        ASSERT_TRUE(sim->Start(&err)) << err;
    }
    void Login() {
        ASSERT_TRUE(cl.Connect(sim->port()));
        ASSERT_EQ(cl.Login(opt.user, opt.password), 1);
    }
    bool Logged(const std::string& part) {
        std::lock_guard<std::mutex> g(logMu);
        for (auto& l : log)
            if (l.find(part) != std::string::npos) return true;
        return false;
    }
    void TearDown() override {
        cl.Close();
        if (sim) sim->Stop();
    }
};

// The provider's heartbeat channel, played by the platform's own local channel.
struct Channel {
    std::unique_ptr<LocalChannel> ch;
    std::thread th;
    std::atomic<int> answered{0};
    std::atomic<uint32_t> lastType{0};
    int port;
    explicit Channel(int p) : port(p) {
        uint32_t err = 0;
        ch = Platform::Default()->CreateLocalChannel("TROV_Proxy_" + std::to_string(p), LocalChannelPolicy{}, &err);
        th = std::thread([this] {
            while (ch && ch->Accept() == 0) {
                uint8_t buf[64];
                uint32_t got = 0;
                if (ch->Read(buf, sizeof buf, &got) == 0 && got >= 36) {
                    lastType = wire::DataTypeOf(buf);
                    uint8_t ans[36];
                    wire::FillHeader(ans, 1, 0, wire::RSHEARTBEAT, 0, 0);
                    uint32_t w = 0;
                    ch->Write(ans, 36, &w);
                    ++answered;
                }
                ch->Disconnect();
            }
        });
    }
    ~Channel() {
        if (ch) ch->Shutdown();
        th.join();
    }
};

int ChannelPort() { return 20000 + (getpid() % 20000); }

// ---------------------------------------------------------------------------------------------

TEST_F(SimFixture, LoginIsCheckedWithTheClientsCipher) {
    opt.password = "a-rather-long-password-of-forty-four-chars!";  // 41..47: the tail goes in clear
    ASSERT_EQ(opt.password.size(), 43u);
    StartSim();
    struct Row {
        std::string user, password;
        int64_t status;
    } rows[] = {
        {"admin", opt.password, 1},
        {"nobody", opt.password, 2},
        {"admin", "a-rather-long-password-of-forty-four-chars?", 5},  // differs in the clear tail
        {"admin", "a-rather-long-password-of-forty-four-char", 5},
        {"admin", "", 5},
    };
    for (const Row& r : rows) {
        ASSERT_TRUE(cl.Connect(sim->port()));
        EXPECT_EQ(cl.Login(r.user, r.password), r.status) << r.user << " / " << r.password;
    }
    // The token must be this connection's.
    ASSERT_TRUE(cl.Connect(sim->port()));
    EXPECT_EQ(cl.Login("admin", opt.password, 12345), 4);
    Stats st = sim->stats();
    EXPECT_EQ(st.logins, 1u);
    EXPECT_EQ(st.loginFailures, 5u);
    EXPECT_NE(st.lastSessionKey, 0u);
}

TEST_F(SimFixture, HandshakeAnswersVersionFiveAndFreshTokens) {
    StartSim();
    ASSERT_TRUE(cl.Connect(sim->port()));
    uint32_t t1 = 0, t2 = 0;
    int64_t vs = cl.Handshake(&t1);
    EXPECT_EQ((vs >> 8) & 0xFF, 5);
    EXPECT_EQ(vs & 0xFF, 1);
    EXPECT_EQ(cl.Handshake(&t2) & 0xFF, 1);
    EXPECT_NE(t1, t2);
    // A wrong word is answered with status 0.
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Send(wire::RSSESSION, 1, {'x', 'x', 'x', 'x', 'x', 'x'}));
    ASSERT_TRUE(cl.Recv(&r));
    EXPECT_EQ(wire::LoadBe32(r.data() + 36) & 0xFF, 0u);
    // The session answers can be bent for the client's error paths.
    SessionFaults f;
    f.handshakeVersion = 4;
    sim->SetSessionFaults(f);
    EXPECT_EQ((cl.Handshake(&t1) >> 8) & 0xFF, 4);
}

TEST_F(SimFixture, CommandsNeedALogin) {
    StartSim();
    ASSERT_TRUE(cl.Connect(sim->port()));
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Command(0, 312, [](uint8_t* p) { p[48] = 1; }, &r));
    EXPECT_EQ(wire::LoadBe32(r.data() + 36), static_cast<uint32_t>(kErrNotLoggedIn));
    ASSERT_EQ(cl.Login(opt.user, opt.password), 1);
    ASSERT_TRUE(cl.Command(0, 312, [](uint8_t* p) { p[48] = 1; }, &r));
    EXPECT_EQ(wire::DataTypeOf(r.data()), uint32_t(wire::RSREPLY));
    EXPECT_EQ(wire::LoadBe32(r.data() + 36), 0u);
    EXPECT_EQ(wire::LoadBe32(r.data() + 44), 1u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(r.data() + 52)), "00C0FF1A2B3C");
    EXPECT_EQ(wire::LoadBe32(r.data() + 84), 0x01000100u);
    EXPECT_EQ(wire::LoadBe32(r.data() + 88), 0x01000101u);
    // The reply's check value is made with the session key.
    EXPECT_EQ(wire::CheckValueOf(r.data()), wire::CheckValue(wire::SeqNumOf(r.data()), cl.key()));
}

TEST_F(SimFixture, HeartbeatsGoToTheAnnouncedChannel) {
    StartSim();
    Channel ch(ChannelPort());
    Login();
    ASSERT_TRUE(cl.ListenPort(static_cast<uint16_t>(ch.port)));
    EXPECT_EQ(sim->stats().heartbeatsOk, 0u);  // the clock stands still
    sim->AdvanceTime(5000);
    ASSERT_TRUE(Eventually([&] { return sim->stats().heartbeatsOk == 1; }));
    EXPECT_EQ(ch.lastType.load(), uint32_t(wire::RSHEARTBEAT));
    sim->AdvanceTime(5000);
    ASSERT_TRUE(Eventually([&] { return sim->stats().heartbeatsOk == 2; }));
    EXPECT_TRUE(sim->SendHeartbeatNow());
    // The channel counts its answer after writing it: the emulator may have read it first.
    EXPECT_TRUE(Eventually([&] { return ch.answered.load() == 3; }));
    // Goodbye: answered, closed, and one last heartbeat.
    std::vector<uint8_t> r;
    ASSERT_TRUE(cl.Send(wire::RSSESSION, 14, {}));
    ASSERT_TRUE(cl.Recv(&r));
    EXPECT_EQ(wire::OpCodeOf(r.data()), 14u);
    EXPECT_TRUE(cl.PeerClosed());
    EXPECT_TRUE(Eventually([&] { return ch.answered.load() == 4; }));
    EXPECT_EQ(sim->stats().goodbyes, 1u);
}

TEST_F(SimFixture, AHeartbeatWithNobodyListeningIsCountedAsFailed) {
    StartSim();
    Login();
    ASSERT_TRUE(cl.ListenPort(static_cast<uint16_t>(ChannelPort() + 1)));
    EXPECT_FALSE(sim->SendHeartbeatNow());
    EXPECT_EQ(sim->stats().heartbeatsFailed, 1u);
    EXPECT_TRUE(Logged("cannot connect"));
}

TEST_F(SimFixture, BadFramingIsLoggedAndDecided) {
    StartSim();
    Login();
    // A wrong check value is served and counted.
    std::vector<uint8_t> pkt = cl.Packet(wire::RSREQUEST, 11, {}), r;
    wire::StoreBe32(pkt.data() + wire::kCheckValueOffset, 0xDEADBEEF);
    ASSERT_TRUE(cl.SendRaw(pkt));
    ASSERT_TRUE(cl.Recv(&r));
    EXPECT_EQ(ErrorOf(r), 0u);
    EXPECT_EQ(sim->stats().badCheckValue, 1u);
    // A wrong magic closes the connection.
    pkt = cl.Packet(wire::RSREQUEST, 11, {});
    pkt[0] = 'X';
    ASSERT_TRUE(cl.SendRaw(pkt));
    EXPECT_TRUE(cl.PeerClosed());
    EXPECT_EQ(sim->stats().badMagic, 1u);
    // A DataLen no buffer holds closes it too.
    Login();
    pkt = cl.Packet(wire::RSREQUEST, 11, {});
    wire::StoreBe32(pkt.data() + wire::kDataLenOffset, 0x7FFFFFFF);
    ASSERT_TRUE(cl.SendRaw(pkt));
    EXPECT_TRUE(cl.PeerClosed());
    EXPECT_EQ(sim->stats().badDataLen, 1u);
    // A request too short for its fields is refused, an unknown opcode too.
    Login();
    ASSERT_TRUE(cl.Command(15, 8, &r));
    EXPECT_EQ(ErrorOf(r), static_cast<uint32_t>(kErrBadRequest));
    ASSERT_TRUE(cl.Command(77, 16, &r));
    EXPECT_EQ(ErrorOf(r), static_cast<uint32_t>(kErrUnknownCommand));
    EXPECT_TRUE(Logged("DataLen 8 below 48"));
}

TEST_F(SimFixture, FaultsOnDemand) {
    StartSim();
    std::vector<uint8_t> r;
    auto version = [&](std::vector<uint8_t>* out) { return cl.Command(11, 0, out); };

    // Close after two commands.
    Login();
    sim->CloseAfterCommands(2);
    EXPECT_TRUE(version(&r));
    EXPECT_TRUE(version(&r));
    EXPECT_FALSE(version(&r));
    EXPECT_TRUE(cl.PeerClosed());

    // An error code for one opcode, once.
    Login();
    sim->FailOpcode(11, 99);
    ASSERT_TRUE(version(&r));
    EXPECT_EQ(ErrorOf(r), 99u);
    ASSERT_TRUE(version(&r));
    EXPECT_EQ(ErrorOf(r), 0u);

    // A short header: 20 bytes and then nothing.
    sim->AddFault({FaultKind::kShortHeader, 11, 0, 1, 0});
    ASSERT_TRUE(cl.Send(wire::RSREQUEST, 11, {}));
    uint8_t buf[64];
    EXPECT_EQ(cl.RecvSome(buf, 36, 30), 20u);

    // A wrong opcode.
    Login();
    sim->AddFault({FaultKind::kWrongOpcode, 11, 0, 1, 0});
    ASSERT_TRUE(version(&r));
    EXPECT_EQ(wire::OpCodeOf(r.data()), 12u);

    // A DataLen larger than any buffer, then the end.
    sim->AddFault({FaultKind::kHugeDataLen, 11, 0, 1, 0});
    ASSERT_TRUE(cl.Send(wire::RSREQUEST, 11, {}));
    ASSERT_EQ(cl.RecvSome(buf, 36), 36u);
    EXPECT_EQ(wire::DataLenOf(buf), 0x7FFFFFF0u);
    EXPECT_TRUE(Eventually([&] { return cl.RecvSome(buf, 64, 100) < 64; }));

    // Random bytes instead of a reply.
    Login();
    sim->AddFault({FaultKind::kRandomBytes, 11, 0, 1, 10});
    ASSERT_TRUE(cl.Send(wire::RSREQUEST, 11, {}));
    EXPECT_EQ(cl.RecvSome(buf, 36, 30), 10u);

    // A delay on the emulator's clock: nothing until the clock moves.
    Login();
    sim->DelayReply(11, 3000);
    ASSERT_TRUE(cl.Send(wire::RSREQUEST, 11, {}));
    EXPECT_TRUE(cl.Silent(30));
    ASSERT_TRUE(Eventually([&] { return sim->stats().delayedReplies == 1; }));
    sim->AdvanceTime(3000);
    ASSERT_TRUE(cl.Recv(&r));
    EXPECT_EQ(wire::OpCodeOf(r.data()), 11u);

    // Accept and never answer.
    sim->NeverAnswer(true);
    ASSERT_TRUE(cl.Send(wire::RSREQUEST, 11, {}));
    EXPECT_TRUE(cl.Silent(30));
    sim->ClearFaults();

    // Close at an opcode.
    Login();
    sim->CloseAtOpcode(9);
    ASSERT_TRUE(version(&r));
    ASSERT_TRUE(cl.Send(wire::RSREQUEST, 9, std::vector<uint8_t>(444)));
    EXPECT_TRUE(cl.PeerClosed());
}

TEST_F(SimFixture, RefusedConnectionsAndRestart) {
    StartSim();
    uint16_t port = sim->port();
    sim->RefuseConnections(10000);
    EXPECT_FALSE(cl.Connect(port));
    sim->AdvanceTime(10000);
    ASSERT_TRUE(Eventually([&] { return !sim->refusing(); }));
    ASSERT_TRUE(cl.Connect(port));
    ASSERT_EQ(cl.Login(opt.user, opt.password), 1);

    // A change survives a restart, on the same port, with the same serials.
    Serial vdisk{};
    sim->WithModel([&](Model& m) { vdisk = m.subsystems()[0].vdisks[0].serial; });
    std::string err;
    ASSERT_TRUE(sim->Restart(&err)) << err;
    EXPECT_EQ(sim->port(), port);
    EXPECT_TRUE(cl.PeerClosed());
    Login();
    sim->WithModel([&](Model& m) { EXPECT_EQ(m.subsystems()[0].vdisks[0].serial, vdisk); });
}

TEST_F(SimFixture, StateFileCarriesTheModelAcrossRuns) {
    char dir[] = "/tmp/trovsim-state-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    opt.stateFile = std::string(dir) + "/state.json";
    StartSim();
    ASSERT_EQ(sim->SetDriveOffline("3SJ01205K", true), kOk);
    uint32_t events = 0;
    sim->WithModel([&](Model& m) { events = m.subsystems()[0].ctrl[0].nextEvent; });
    sim->Stop();
    sim.reset();

    StartSim("max");  // the state wins over the scenario
    sim->WithModel([&](Model& m) {
        ASSERT_EQ(m.subsystems()[0].drives.size(), 12u);
        EXPECT_TRUE(m.FindDrive(m.subsystems()[0], "3SJ01205K")->offline);
        EXPECT_EQ(m.subsystems()[0].ctrl[0].nextEvent, events);
    });
    sim->Stop();
    std::remove(opt.stateFile.c_str());
    rmdir(dir);
}

TEST_F(SimFixture, WritesAMatchingKelvaneConf) {
    opt.user = "operator";
    opt.password = "s3cret";
    StartSim();
    char path[] = "/tmp/trovsim-conf-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_TRUE(sim->WriteKelvaneConf(path));
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::string expect = "version  :1\nipaddress:127.0.0.1\nusername :operator\npassword :s3cret\nport     :" +
                         std::to_string(sim->port()) + "\n";
    EXPECT_NE(text.str().find(expect), std::string::npos) << text.str();
    std::remove(path);
    // A colon can't stand in a value.
    Options bad = opt;
    bad.password = "a:b";
    Server s2(bad);
    EXPECT_FALSE(s2.WriteKelvaneConf("/tmp/never-written"));
}

TEST_F(SimFixture, ControlLines) {
    StartSim();
    struct Row {
        std::string line;
        bool ok;
    } rows[] = {
        {"event 16777472 106 0", true},
        {"event 99 106", false},
        {"controller 16777473 offline", true},
        {"controller 16777473 online", true},
        {"drive 3SJ01206K offline", true},
        {"drive NOPE offline", false},
        {"drive 9WM03304Z state 5 3", true},
        {"drive 9WM03304Z state 300", false},
        {"vdisk VD-SATA-R1 health 3", true},
        {"vdisk NOPE health 3", false},
        {"fault delay ADD_ARRAY_PART 500", true},
        {"fault fail 14 78 0", true},
        {"fault bogus 1", false},
        {"fault clear", true},
        {"utility VD-SAS-R5 verify", true},
        {"advance 60000", true},
        {"frobnicate", false},
    };
    for (const Row& r : rows) {
        std::string answer = RunControl(*sim, r.line);
        EXPECT_EQ(answer.rfind("error: ", 0) != 0, r.ok) << r.line << " -> " << answer;
    }
    sim->WithModel([&](Model& m) {
        const EventRecord* e = m.NewestEvent(m.FindController(16777472));
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->code, kEvVerifyDone);  // the verify ran its minute
        Subsystem& s = m.subsystems()[0];
        EXPECT_EQ(m.FindDrive(s, "9WM03304Z")->howUsed, kLeftover);
        EXPECT_EQ(m.FindDrive(s, "9WM03304Z")->downReason, 3);
        EXPECT_EQ(s.vdisks[1].health, 3);
        EXPECT_EQ(m.NewestEvent(m.FindController(16777473))->code, kEvVdiskOffline);
    });
}

}  // namespace
