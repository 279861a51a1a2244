// What the provider tells its host beyond the interfaces, as the shell shows it: Event Log reports
// on standard error as they come, the one line and status 3 of a command whose exchange failed,
// and listings that say they may be incomplete until the tree is read whole again. The provider is loaded in-process on the fake platform, the sink installed
// through the module's TrovSetHostSink as trovctl installs it.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "host_messages.h"
#include "platform/host_sink.h"
#include "shell.h"
#include "testlib/provider_env.h"

using testlib::ProviderEnv;
using trovctl::HostMessages;
using trovctl::Shell;

namespace {

struct Result {
    int rc;
    std::string out, err;
};

// A provider with trovctl's sink installed and a shell over it.
class Reporting {
public:
    Reporting() : env("demo", Quiet()), messages(events) {
        sink = messages.Sink();
        TrovSetHostSink(&sink);
        shell = std::make_unique<Shell>(nullptr, out, err, false);
        shell->SetMessages(&messages);
    }
    ~Reporting() {
        env.tp.clock().ReleaseAll();
        if (env.provider) env.Unload();
        TrovSetHostSink(nullptr);
    }
    static trovsim::Options Quiet() {
        trovsim::Options o;
        o.logSink = [](const std::string&) {};
        return o;
    }
    int Load(IUnknown* advise = nullptr) {
        shell->BeginLoad();
        HRESULT hr = env.Load(advise);
        shell->SetProvider(env.provider);
        return shell->EndLoad(hr);
    }
    Result Run(const std::string& line, bool json = false) {
        shell->SetJson(json);
        out.str({});
        err.str({});
        int rc = shell->ExecuteLine(line);
        return {rc, out.str(), err.str()};
    }

    ProviderEnv env;
    std::ostringstream events, out, err;
    HostMessages messages;
    TrovHostSink sink{};
    std::unique_ptr<Shell> shell;
};

TEST(Reporting, ACommandWhoseExchangeFailsSaysWhyInOneLineAndListingsDoubtTheTree) {
    const struct {
        const char* name;
        std::function<void(trovsim::Server&)> fault;
        const char* line;
        const char* said;  // how the one line starts
        size_t drivesLeft;
    } cases[] = {
        {"a refresh after the service closed the connection", [](trovsim::Server& s) { s.CloseAfterCommands(0); },
         "refresh", "trovctl: no array reached: the exchange with the proxy service failed at ", 0},
        {"a cache flush whose connection closes", [](trovsim::Server& s) { s.CloseAtOpcode(21); },
         "flushcache controller 0",
         "trovctl: the connection to the proxy service was lost: the exchange with the proxy service failed at ", 12},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Reporting r;
        ASSERT_EQ(r.Load(), trovctl::kOk) << r.err.str();
        EXPECT_EQ(r.Run("list drives").err, "");  // a whole tree says nothing
        c.fault(*r.env.sim);
        Result failed = r.Run(c.line);
        EXPECT_EQ(failed.rc, trovctl::kNoArray);
        EXPECT_EQ(failed.out.find("done"), std::string::npos) << failed.out;  // not after a failed exchange
        size_t at = failed.err.find(c.said);
        ASSERT_NE(at, std::string::npos) << failed.err;
        EXPECT_EQ(failed.err.find(c.said, at + 1), std::string::npos) << "one line: " << failed.err;

        std::string reason = failed.err.substr(failed.err.find("the exchange", at));
        reason.pop_back();  // the newline
        Result listed = r.Run("list drives");
        EXPECT_EQ(listed.rc, trovctl::kOk);
        EXPECT_EQ(listed.out.rfind("drives (" + std::to_string(c.drivesLeft) + ")\n", 0), 0u) << listed.out;
        EXPECT_EQ(listed.err, "trovctl: this listing may be incomplete: " + reason + "\n");
        auto doc = nlohmann::json::parse(r.Run("list drives", true).out);
        EXPECT_EQ(doc["incomplete"], true);
        EXPECT_EQ(doc["reason"], reason);
        EXPECT_EQ(doc["drives"].size(), c.drivesLeft);
        r.shell->SetJson(false);
        r.out.str({});
        EXPECT_EQ(r.shell->Overview(), trovctl::kOk);
        EXPECT_NE(r.err.str().find("this listing may be incomplete"), std::string::npos);
    }
}

TEST(Reporting, TheMonitorsLostAndRestoredConnectionAreReportedAsTheyHappen) {
    Reporting r;
    FakeClock& clock = r.env.tp.clock();
    clock.SetAuto(false);
    struct Quiet final : IVdsAdviseSink {  // a listener: the provider runs its monitor for it
        HRESULT QueryInterface(REFIID riid, void** ppv) override {
            if (riid != IID_IUnknown && riid != IID_IVdsAdviseSink) return E_NOINTERFACE;
            *ppv = static_cast<IVdsAdviseSink*>(this);
            return S_OK;
        }
        ULONG AddRef() override { return 2; }
        ULONG Release() override { return 1; }
        HRESULT OnNotify(LONG, VDS_NOTIFICATION*) override { return S_OK; }
    } listener;
    ASSERT_EQ(r.Load(&listener), trovctl::kOk);
    ASSERT_TRUE(testlib::Eventually([&] { return clock.Sleepers() == 1; }));
    r.env.sim->CloseAfterCommands(0);
    // A pass of the monitor finds the exchange failing, the next reconnects.
    uint64_t reconnects = r.env.sim->stats().logins;
    for (int i = 0; i < 30 && r.env.sim->stats().logins == reconnects; ++i) {
        size_t calls = clock.SleepCalls().size();
        clock.Advance(1000);
        ASSERT_TRUE(testlib::Eventually([&] { return clock.SleepCalls().size() > calls && clock.Sleepers() == 1; }));
    }
    ASSERT_GT(r.env.sim->stats().logins, reconnects) << "the monitor did not reconnect";
    // The monitor's failure came while no command ran: the next listing doubts the tree, until a
    // refresh reads it whole.
    Result listed = r.Run("list luns");
    EXPECT_EQ(listed.rc, trovctl::kOk);
    EXPECT_EQ(listed.err.rfind("trovctl: this listing may be incomplete: the exchange with the proxy service failed at ",
                               0),
              0u)
        << listed.err;
    EXPECT_EQ(r.Run("detail lun 0").err, "");  // a detail is no listing
    EXPECT_EQ(r.Run("refresh").out, "refresh: done\n");
    EXPECT_EQ(r.Run("list luns").err, "");
    clock.ReleaseAll();
    r.env.Unload();
    EXPECT_NE(r.events.str().find("trovctl: warning: The VDS Provider has lost its connection to the TROV Proxy "
                                  "service.\ntrovctl: information: The VDS Provider has restored its connection to "
                                  "the TROV Proxy service.\n"),
              std::string::npos)
        << r.events.str();
}

}  // namespace
