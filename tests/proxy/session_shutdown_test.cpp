// The unload's end of the session: the wait for the threads' running flags on the Platform
// clock, and a thread blocked in an exchange that the shutdown of the connection wakes.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "proxy/heartbeat.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "testlib/fake_platform.h"
#include "testlib/script_peer.h"
#include "testlib/session_env.h"

namespace {

using testlib::ScriptPeer;

// Real-time waits, bounded, for other threads.
template <class Pred>
bool WaitFor(Pred pred, int ms = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class SessionShutdown : public ::testing::Test {
protected:
    void SetUp() override { testlib::BeginSessionTest(tp); }
    void TearDown() override { testlib::EndSessionTest(); }
    bool Logged(const std::string& s) const { return tp.DebuggerText().find(s) != std::string::npos; }

    TestPlatform tp;
};

TEST_F(SessionShutdown, WaitsTenSecondsOfTheClockForARunningFlagOrUntilItGoesDown) {
    struct Case {
        const char* name;
        int endsInStep;  // the flag goes down during this one-second step; 0: never
        size_t waits;
        bool timedOut;
    } cases[] = {{"never", 0, 10, true}, {"in the third second", 3, 3, false}, {"in the tenth", 10, 10, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testlib::EndSessionTest();
        testlib::BeginSessionTest(tp);
        tp.ClearRecords();
        tp.clock().SetAuto(false);
        const size_t before = tp.clock().SleepCalls().size();
        g_session.processEventRunning = 1;  // as a monitor that doesn't end on its own
        std::thread unload([] { ProxyUnInit(); });
        for (int step = 1; step <= 10; ++step) {
            ASSERT_TRUE(tp.clock().WaitForSleepers(1)) << "step " << step;
            if (step == c.endsInStep) {
                NotifyThreadEnded(&g_session.processEventRunning);
                break;
            }
            tp.clock().Advance(1000);
            // Wait for the step to be over before the next one is counted.
            ASSERT_TRUE(WaitFor([&] { return tp.clock().SleepCalls().size() - before >= static_cast<size_t>(step + 1) ||
                                                  Logged("ProxyUnInit leave\n"); }));
        }
        unload.join();
        std::vector<uint32_t> calls = tp.clock().SleepCalls();
        calls.erase(calls.begin(), calls.begin() + static_cast<long>(before));
        EXPECT_EQ(calls, std::vector<uint32_t>(c.waits, 1000u));
        EXPECT_EQ(Logged("timed out waiting for threads to finish: recv_events=0 process_event=1\n"), c.timedOut)
            << tp.DebuggerText();
        EXPECT_TRUE(Logged("ProxyUnInit leave\n"));
        tp.clock().SetAuto(true);
    }
}

TEST_F(SessionShutdown, AnExchangeInFlightIsCutShortAndGetsNoGoodbyeIntoIt) {
    hVdsMutex = Plat()->CreateNamedMutex("kelvane_lock_vds");
    ScriptPeer peer;
    peer.Accept();
    peer.OnRequest(nullptr);  // the command is read and never answered
    peer.OnRequest(nullptr);  // a goodbye would be read here; the connection's end fails the step
    peer.Start();
    peer.AttachTransport();
    std::atomic<int> rc{1};
    AdoptSessionThread(Plat()->StartThread([&rc] {
        EventData ev{};
        rc = Kelvane::get_event(0x01000100, 0, 1, 0, &ev);
    }));
    ASSERT_TRUE(WaitFor([&] { return peer.requests().size() == 1; }));
    std::atomic<bool> returned{false};
    std::thread unload([&returned] {
        ProxyUnInit();  // returns only once the thread is joined
        returned = true;
    });
    bool inTime = WaitFor([&] { return returned.load(); });
    if (!inTime) ::shutdown(g_transport.sock.load(), SHUT_RDWR);  // lets the test end all the same
    unload.join();
    EXPECT_TRUE(inTime) << "the unload waited for the exchange";
    EXPECT_EQ(rc.load(), -1);
    EXPECT_FALSE(peer.Finish());
    EXPECT_EQ(peer.failure(), "request header not read");
    EXPECT_EQ(peer.requests().size(), 1u);
    EXPECT_TRUE(Logged("shut(): an exchange is in progress, no goodbye\n")) << tp.DebuggerText();
    EXPECT_EQ(SessionThreadCount(), 0);
    EXPECT_EQ(g_transport.PacketBuffer, nullptr);
    Plat()->CloseNamedMutex(hVdsMutex);
    hVdsMutex = nullptr;
}

}  // namespace
