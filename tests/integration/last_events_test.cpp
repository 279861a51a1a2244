// The monitor's record of each controller's last event: seeded by the subsystem's load, kept
// through a refresh (so that an event raised before the refresh is still told), and gone with the
// subsystem. The provider is loaded without a sink, so no monitor thread runs: the test runs the
// monitor's passes itself.
#include <gtest/gtest.h>

#include "core/monitor.h"
#include "core/provider.h"
#include "testlib/provider_env.h"

namespace {

using testlib::ProviderEnv;

constexpr uint32_t kHandleA = 0x01000100;

TEST(LastEvents, SeededByTheLoadKeptThroughARefreshAndGoneWithTheSubsystem) {
    ProviderEnv env;
    ASSERT_EQ(env.sim->RaiseEvent(kHandleA, 150, 0), 0u);  // something in the log before the load
    ASSERT_EQ(env.Load(), S_OK);
    auto* provider = static_cast<CProvider*>(env.provider);
    auto ss = env.SubSystems().at(0);
    VDS_SUB_SYSTEM_PROP prop{};
    ASSERT_EQ(ss->GetProperties(&prop), S_OK);
    CoTaskMemFree(prop.pwszFriendlyName);
    CoTaskMemFree(prop.pwszIdentification);
    const SubsystemEntry entry = provider->SubsystemList().at(0);
    ASSERT_EQ(entry.controllerA, kHandleA);

    // The load took each controller's newest event.
    const uint32_t seeded = LastEventsOf(prop.id).controller[0].sequenceNumber;
    const uint32_t newest = env.sim->WithModel([](trovsim::Model& m) { return m.subsystems()[0].ctrl[0].nextEvent - 1; });
    ASSERT_GT(seeded, 0u);
    EXPECT_EQ(seeded, newest);

    // An event that asks for a refresh, then a refresh before the monitor's next pass: the pass
    // still sees the event, because the record is the one from before the refresh.
    ASSERT_EQ(env.sim->RaiseEvent(kHandleA, 28, 0), 0u);
    CComPtr<IVdsHwProvider> hw;
    ASSERT_EQ(env.provider->QueryInterface(IID_IVdsHwProvider, reinterpret_cast<void**>(&hw)), S_OK);
    ASSERT_EQ(hw->Refresh(), S_OK);
    EXPECT_EQ(LastEventsOf(prop.id).controller[0].sequenceNumber, seeded);
    provider->SetNeedRefresh(false);
    EXPECT_EQ(CheckEventsFromRAIDController(provider, entry), 0);
    EXPECT_TRUE(provider->IsNeedRefresh());
    EXPECT_EQ(LastEventsOf(prop.id).controller[0].sequenceNumber, seeded + 1);

    // The subsystem dies with the provider, and its record with it: asked again, it starts empty.
    ss.Release();
    hw.Release();
    env.Unload();
    EXPECT_EQ(LastEventsOf(prop.id).controller[0].sequenceNumber, 0u);
    ForgetLastEvents(prop.id);
}

}  // namespace
