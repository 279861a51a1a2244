// The event monitor against the emulator, on the fake clock: the test drives each ten-second pass
// by advancing the clock one second at a time, changes the array between passes, and reads what
// the host's sink received and what the tree shows afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <string>
#include <vector>

#include "core/globals.h"
#include "core/monitor.h"
#include "core/provider.h"
#include "proxy/session.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

using testlib::CollectFrom;
using testlib::Eventually;
using testlib::Narrow;
using testlib::ProviderEnv;

namespace {

constexpr uint32_t kHandleA = 0x01000100, kHandleB = 0x01000101;

// The host's advise sink: keeps every notification.
class TestSink final : public IVdsAdviseSink {
public:
    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IVdsAdviseSink) {
            *ppv = static_cast<IVdsAdviseSink*>(this);
            AddRef();
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return ++refs_; }
    ULONG Release() override { return --refs_; }  // lives on the test's stack
    HRESULT OnNotify(LONG n, VDS_NOTIFICATION* list) override {
        std::lock_guard<std::mutex> g(mu_);
        for (LONG i = 0; i < n; ++i) got_.push_back(list[i]);
        return S_OK;
    }
    std::vector<VDS_NOTIFICATION> Take() {
        std::lock_guard<std::mutex> g(mu_);
        std::vector<VDS_NOTIFICATION> out;
        out.swap(got_);
        return out;
    }

private:
    std::atomic<ULONG> refs_{1};
    std::mutex mu_;
    std::vector<VDS_NOTIFICATION> got_;
};

class Monitor : public ::testing::Test {
protected:
    void SetUp() override {
        env.tp.clock().SetAuto(false);
        ASSERT_EQ(env.Load(&sink), S_OK);
        // The monitor is in its first sleep.
        ASSERT_TRUE(Eventually([&] { return clock().Sleepers() == 1; }));
    }
    void TearDown() override {
        clock().ReleaseAll();
        if (env.provider) env.Unload();
    }
    FakeClock& clock() { return env.tp.clock(); }
    CProvider* provider() { return static_cast<CProvider*>(env.provider); }

    // One ten-second period: ten sleeps of a second, then the pass, then the next first sleep.
    void RunPass() {
        for (int i = 0; i < 10; ++i) {
            size_t calls = clock().SleepCalls().size();
            clock().Advance(1000);
            ASSERT_TRUE(Eventually([&] { return clock().SleepCalls().size() > calls && clock().Sleepers() == 1; }))
                << "the monitor did not come back to sleep";
        }
    }

    template <class F>
    auto Model(F f) {
        return env.sim->WithModel(f);
    }

    std::map<std::string, GUID> LunIds() {
        std::map<std::string, GUID> ids;
        auto ss = env.SubSystems().at(0);
        for (auto& l : CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return ss->QueryLuns(e); }, IID_IVdsLun)) {
            VDS_LUN_PROP p{};
            EXPECT_EQ(l->GetProperties(&p), S_OK);
            ids[Narrow(p.pwszFriendlyName)] = p.id;
            CoTaskMemFree(p.pwszFriendlyName);
            CoTaskMemFree(p.pwszIdentification);
            CoTaskMemFree(p.pwszUnmaskingList);
        }
        return ids;
    }

    GUID ControllerId(const char* letter) {
        auto ss = env.SubSystems().at(0);
        for (auto& c : CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                                   IID_IVdsController)) {
            VDS_CONTROLLER_PROP p{};
            EXPECT_EQ(c->GetProperties(&p), S_OK);
            std::string name = Narrow(p.pwszFriendlyName);
            CoTaskMemFree(p.pwszFriendlyName);
            CoTaskMemFree(p.pwszIdentification);
            if (name.rfind(std::string("Controller ") + letter + ";", 0) == 0) return p.id;
        }
        return GUID{};
    }

    TestSink sink;
    ProviderEnv env;
};

TEST_F(Monitor, TheUnloadWakesTheMonitorAtOnceAndJoinsIt) {
    // The monitor sits in the first second of its period; no time passes on the clock.
    const uint64_t now = clock().NowMs();
    std::atomic<bool> unloaded{false};
    std::thread unload([&] {
        env.Unload();
        unloaded = true;
    });
    bool inTime = Eventually([&] { return unloaded.load(); });
    if (!inTime) clock().ReleaseAll();  // lets the test end all the same
    unload.join();
    EXPECT_TRUE(inTime) << "the unload waited on the clock";
    EXPECT_EQ(clock().NowMs(), now);
    EXPECT_EQ(MonitorThreadsAlive(), 0);
    EXPECT_EQ(SessionThreadCount(), 0);
}

TEST_F(Monitor, ALunMadeAndDeletedOnTheArrayArrivesAndDeparts) {
    RunPass();
    EXPECT_TRUE(sink.Take().empty());  // nothing happened: nothing to say
    trovsim::Serial part{};
    ASSERT_EQ(Model([&](trovsim::Model& m) {
                  trovsim::PartRef p;
                  uint32_t e = m.AddPartition(m.FindController(kHandleA), m.subsystems()[0].vdisks[0].serial,
                                              (10ull << 30) / 512, "new01", 0, trovsim::Serial{}, &p);
                  if (e == 0) part = p.p()->serial;
                  return e;
              }),
              0u);
    RunPass();
    auto got = sink.Take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].objectType, VDS_NTT_LUN);
    EXPECT_EQ(got[0].Lun.ulEvent, static_cast<ULONG>(VDS_NF_LUN_ARRIVE));
    EXPECT_EQ(got[0].Lun.LunId, GUID{});  // not in the tree yet when the event is told
    EXPECT_TRUE(provider()->IsNeedRefresh());
    auto ids = LunIds();  // the query rebuilds the stale tree
    ASSERT_TRUE(ids.count("new01"));
    EXPECT_FALSE(provider()->IsNeedRefresh());
    GUID newId = ids["new01"];

    ASSERT_EQ(Model([&](trovsim::Model& m) { return m.DeletePartition(m.FindController(kHandleA), part); }), 0u);
    RunPass();
    got = sink.Take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].Lun.ulEvent, static_cast<ULONG>(VDS_NF_LUN_DEPART));
    EXPECT_EQ(got[0].Lun.LunId, newId);
    // Taken out at once, before any refresh.
    IUnknown* unk = nullptr;
    auto* priv = env.Query<IVdsProviderPrivate>(IID_IVdsProviderPrivate);
    EXPECT_EQ(priv->GetObject(newId, VDS_OT_LUN, &unk), VDS_E_OBJECT_NOT_FOUND);
    priv->Release();
    EXPECT_FALSE(LunIds().count("new01"));
}

TEST_F(Monitor, AControllerDepartsAndReturns) {
    GUID b = ControllerId("B");
    ASSERT_NE(b, GUID{});
    RunPass();
    ASSERT_EQ(env.sim->SetControllerOffline(kHandleB, true), 0u);
    RunPass();
    auto got = sink.Take();
    ASSERT_FALSE(got.empty());
    bool departed = false;
    for (auto& n : got)
        if (n.objectType == VDS_NTT_CONTROLLER && n.Controller.ulEvent == VDS_NF_CONTROLLER_DEPART)
            departed = n.Controller.controllerId == b;
    EXPECT_TRUE(departed);
    ASSERT_EQ(env.sim->SetControllerOffline(kHandleB, false), 0u);
    RunPass();
    bool arrived = false;
    for (auto& n : sink.Take())
        if (n.objectType == VDS_NTT_CONTROLLER && n.Controller.ulEvent == VDS_NF_CONTROLLER_ARRIVE)
            arrived = n.Controller.controllerId == b;
    EXPECT_TRUE(arrived);
    EXPECT_EQ(ControllerId("B"), b);  // the same id after the refresh
}

TEST_F(Monitor, OnlyTheLastHundredEventsBetweenTwoPassesAreSeen) {
    RunPass();
    for (int i = 0; i < 150; ++i)
        ASSERT_EQ(env.sim->RaiseEvent(kHandleA, 62, 0, "3SJ01205K", nullptr, "drive " + std::to_string(i)), 0u);
    RunPass();
    auto got = sink.Take();
    EXPECT_EQ(got.size(), 100u);
    for (auto& n : got) EXPECT_EQ(n.objectType, VDS_NTT_DRIVE);
}

TEST_F(Monitor, ARepeatThatOnlyRaisesTheDuplicateCountIsNew) {
    RunPass();
    ASSERT_EQ(env.sim->RaiseEvent(kHandleA, 62, 0, "3SJ01205K"), 0u);
    RunPass();
    EXPECT_EQ(sink.Take().size(), 1u);
    RunPass();
    EXPECT_TRUE(sink.Take().empty());  // the same newest event: nothing new
    Model([](trovsim::Model& m) { return ++m.subsystems()[0].ctrl[0].log.back().duplicateCount; });
    RunPass();
    auto got = sink.Take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].objectType, VDS_NTT_DRIVE);
}

TEST_F(Monitor, RefreshByCodeAndParameterWithoutOrWithNotification) {
    struct Case {
        uint32_t code, param;
        bool refresh;
        size_t notifications;
    } cases[] = {
        {19, 24, true, 0},   // a rescan: stale, nothing to tell
        {19, 23, false, 0},
        {71, 3, false, 1},   // a controller departs: told, not stale
        {71, 2, true, 1},
        {150, 0, false, 0},  // neither
        {28, 0, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.code) + "/" + std::to_string(c.param));
        provider()->SetNeedRefresh(false);
        ASSERT_EQ(env.sim->RaiseEvent(kHandleA, c.code, c.param), 0u);
        RunPass();
        EXPECT_EQ(provider()->IsNeedRefresh(), c.refresh);
        EXPECT_EQ(sink.Take().size(), c.notifications);
    }
}

TEST_F(Monitor, NoRefreshWhileAnOperationIsUnderWay) {
    provider()->SetNeedRefresh(true);
    NumOperation = 1;
    EXPECT_EQ(env.SubSystems().size(), 1u);
    EXPECT_FALSE(LunIds().empty());
    EXPECT_TRUE(provider()->IsNeedRefresh());  // the query passed without a rebuild
    NumOperation = 0;
    LunIds();
    EXPECT_FALSE(provider()->IsNeedRefresh());
}

TEST_F(Monitor, ARestartedServiceIsReconnectedAndTheTreeKeepsItsIds) {
    auto before = LunIds();
    GUID a = ControllerId("A");
    RunPass();
    ASSERT_TRUE(env.sim->Restart());
    RunPass();  // the reads fail: the connection is gone
    RunPass();  // reconnected, and a refresh is asked for
    EXPECT_TRUE(provider()->IsNeedRefresh());
    EXPECT_EQ(LunIds(), before);
    EXPECT_EQ(ControllerId("A"), a);
    // The warning once per process, the information each time.
    int warnings = 0, restored = 0;
    for (auto& e : env.tp.Events()) {
        if (e.type == EVENTLOG_WARNING_TYPE) ++warnings;
        if (e.type == EVENTLOG_INFORMATION_TYPE) ++restored;
    }
    EXPECT_LE(warnings, 1);
    EXPECT_GE(restored, 1);
}

}  // namespace
