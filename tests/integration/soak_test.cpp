// A bounded soak of the provider's threads together: host threads list the LUNs and rename
// them, the monitor's passes run as fast as a thread advances the fake clock, the emulator sends
// heartbeats and restarts under it. Afterwards the tree must agree with the array and with
// itself, and the monitor must still work. Meant to run under TSan as well (about two seconds).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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

constexpr auto kSoak = std::chrono::milliseconds(1500);

// The host's advise sink: counts notifications.
class CountingSink final : public IVdsAdviseSink {
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
    HRESULT OnNotify(LONG n, VDS_NOTIFICATION*) override {
        notified += n;
        return S_OK;
    }
    std::atomic<long> notified{0};

private:
    std::atomic<ULONG> refs_{1};
};

struct LunView {
    GUID id;
    std::string name;
};

// The LUNs of the first subsystem as the host sees them; empty when the query failed.
std::vector<LunView> ListLuns(ProviderEnv& env, std::vector<CComPtr<IVdsLun>>* objects = nullptr) {
    std::vector<LunView> out;
    auto subsystems = env.SubSystems();
    if (subsystems.empty()) return out;
    auto luns = CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return subsystems[0]->QueryLuns(e); }, IID_IVdsLun);
    for (auto& l : luns) {
        VDS_LUN_PROP p{};
        if (l->GetProperties(&p) != S_OK) continue;
        out.push_back(LunView{p.id, Narrow(p.pwszFriendlyName)});
        CoTaskMemFree(p.pwszFriendlyName);
        CoTaskMemFree(p.pwszIdentification);
        CoTaskMemFree(p.pwszUnmaskingList);
    }
    if (objects) *objects = std::move(luns);
    return out;
}

TEST(Soak, HostCallsMonitorHeartbeatsAndARestartTogetherLeaveAConsistentTree) {
    CountingSink sink;
    ProviderEnv env;
    FakeClock& clock = env.tp.clock();
    clock.SetAuto(false);
    ASSERT_EQ(env.Load(&sink), S_OK);
    ASSERT_TRUE(Eventually([&] { return clock.Sleepers() == 1; }));
    const std::vector<LunView> before = ListLuns(env);
    ASSERT_FALSE(before.empty());

    std::atomic<bool> stop{false};
    std::atomic<long> listings{0}, renames{0}, beats{0}, advances{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; !stop; ++i) {
                std::vector<CComPtr<IVdsLun>> objects;
                std::vector<LunView> luns = ListLuns(env, &objects);
                if (!luns.empty()) ++listings;
                for (size_t k = static_cast<size_t>(t); k < objects.size(); k += 2) {
                    CComPtr<IVdsLunNaming> naming;
                    if (objects[k]->QueryInterface(IID_IVdsLunNaming, reinterpret_cast<void**>(&naming)) != S_OK)
                        continue;
                    std::u16string name = Utf8ToUtf16("s" + std::to_string(t) + "-" + std::to_string(i) + "-" +
                                                      std::to_string(k));
                    if (naming->SetFriendlyName(name.data()) == S_OK) ++renames;
                }
            }
        });
    threads.emplace_back([&] {  // the monitor's clock
        while (!stop) {
            clock.Advance(1000);
            ++advances;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    threads.emplace_back([&] {  // the service's heartbeats
        while (!stop) {
            if (env.sim->SendHeartbeatNow()) ++beats;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    std::this_thread::sleep_for(kSoak / 2);
    ASSERT_TRUE(env.sim->Restart());
    ASSERT_EQ(env.sim->RaiseEvent(0x01000100, 28, 0), 0u);  // asks for a refresh
    std::this_thread::sleep_for(kSoak / 2);
    stop = true;
    for (auto& th : threads) th.join();
    EXPECT_GT(listings.load(), 0);
    EXPECT_GT(renames.load(), 0);
    EXPECT_GT(beats.load(), 0);
    EXPECT_GE(advances.load(), 20);  // two passes at least

    // The monitor is alive: it reconnects if need be, and a new event reaches the sink.
    const long notified = sink.notified.load();
    ASSERT_EQ(env.sim->RaiseEvent(0x01000100, 62, 0, "3SJ01205K"), 0u);
    for (int i = 0; i < 30 && sink.notified.load() == notified; ++i) {
        size_t calls = clock.SleepCalls().size();
        clock.Advance(1000);
        ASSERT_TRUE(Eventually([&] { return clock.SleepCalls().size() > calls && clock.Sleepers() == 1; }))
            << "the monitor did not come back to its pause";
    }
    EXPECT_GT(sink.notified.load(), notified);
    EXPECT_EQ(MonitorThreadsAlive(), 1);

    // The tree after a rebuild: every LUN of before, under its id, named as the array names it,
    // each id once, and the same object for an id when asked again.
    IVdsHwProvider* hw = env.Query<IVdsHwProvider>(IID_IVdsHwProvider);
    ASSERT_NE(hw, nullptr);
    EXPECT_EQ(hw->Reenumerate(), S_OK);
    hw->Release();
    std::vector<CComPtr<IVdsLun>> objects;
    std::vector<LunView> after = ListLuns(env, &objects);
    ASSERT_EQ(after.size(), before.size());
    std::set<std::string> ids;
    for (const LunView& l : after) ids.insert(std::string(reinterpret_cast<const char*>(&l.id), sizeof l.id));
    EXPECT_EQ(ids.size(), after.size());
    for (const LunView& l : before)
        EXPECT_TRUE(ids.count(std::string(reinterpret_cast<const char*>(&l.id), sizeof l.id))) << l.name;
    std::multiset<std::string> arrayNames = env.sim->WithModel([](trovsim::Model& m) {
        std::multiset<std::string> names;
        for (auto& vd : m.subsystems()[0].vdisks)
            for (auto& p : vd.parts) names.insert(p.name);
        return names;
    });
    std::multiset<std::string> treeNames;
    for (const LunView& l : after) treeNames.insert(l.name);
    for (const std::string& n : arrayNames) EXPECT_TRUE(treeNames.count(n)) << n;
    std::vector<CComPtr<IVdsLun>> again;
    std::vector<LunView> second = ListLuns(env, &again);
    ASSERT_EQ(second.size(), after.size());
    for (size_t i = 0; i < after.size(); ++i) {  // the same object under the same id
        EXPECT_EQ(second[i].id, after[i].id);
        EXPECT_EQ(again[i].get(), objects[i].get()) << after[i].name;
    }

    clock.ReleaseAll();
    env.Unload();
    EXPECT_EQ(SessionThreadCount(), 0);
    EXPECT_EQ(MonitorThreadsAlive(), 0);
}

}  // namespace
