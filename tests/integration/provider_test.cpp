#include <gtest/gtest.h>

#include "objects/enumerator.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "platform/wstr.h"
#include "testlib/provider_env.h"

namespace {

using testlib::ProviderEnv;

std::string U8(const WCHAR* s) { return s ? WideToUtf8(s) : std::string(); }

TEST(ProviderLoad, LiveServiceGoesOnlineAndUnloadsCleanly) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    EXPECT_EQ(isProviderOnline.load(), 1);
    auto* hw = env.Query<IVdsHwProvider>(IID_IVdsHwProvider);
    ASSERT_NE(hw, nullptr);
    hw->Release();
    EXPECT_EQ(env.Unload(), S_OK);
    EXPECT_EQ(isProviderOnline.load(), 0);
}

TEST(ProviderLoad, ServiceDownGivesAnEmptyProvider) {
    ProviderEnv env;
    env.sim->Stop();
    int threadsBefore = testlib::ThreadCount();
    ASSERT_EQ(env.Load(), S_OK);
    EXPECT_EQ(isProviderOnline.load(), 0);
    auto* hw = env.Query<IVdsHwProvider>(IID_IVdsHwProvider);
    IEnumVdsObject* e = nullptr;
    ASSERT_EQ(hw->QuerySubSystems(&e), S_OK);
    IUnknown* obj = nullptr;
    ULONG fetched = 7;
    EXPECT_EQ(e->Next(1, &obj, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);
    e->Release();
    hw->Release();
    EXPECT_EQ(env.Unload(), S_OK);
    EXPECT_TRUE(testlib::Eventually([&] { return testlib::ThreadCount() <= threadsBefore; }))
        << "threads left: " << testlib::ThreadCount() - threadsBefore;
}

TEST(ProviderLoad, MissingOrIncompleteConfigurationGivesAnEmptyProvider) {
    ProviderEnv env;
    std::string conf = env.dir() + "/kelvane.conf";
    FILE* f = fopen(conf.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fputs("version  :1\nipaddress:127.0.0.1\nusername :admin\n", f);  // no password, no port
    fclose(f);
    ASSERT_EQ(env.Load(), S_OK);
    EXPECT_EQ(isProviderOnline.load(), 0);
    EXPECT_EQ(env.sim->stats().logins, 0u);
}

TEST(ProviderLoad, LoadDelayHappensOncePerProcess) {
    ProviderEnv env;
    ResetLoadDelayForTest();
    env.tp.settings().SetDword(TROV_PARAMETERS_KEY, "Options", 0x3);
    uint64_t before = env.tp.clock().TotalSlept();
    ASSERT_EQ(env.Load(), S_OK);
    uint64_t slept = env.tp.clock().TotalSlept() - before;
    EXPECT_GE(slept, 45000u);
    EXPECT_LT(slept, 46000u);
    // A second load in the same process (as a refresh re-reads the settings) isn't delayed again.
    IVdsProviderPrivate* priv = env.Query<IVdsProviderPrivate>(IID_IVdsProviderPrivate);
    before = env.tp.clock().TotalSlept();
    isRefreshing = 1;
    EXPECT_EQ(priv->OnLoad(nullptr, nullptr), S_OK);
    isRefreshing = 0;
    EXPECT_LT(env.tp.clock().TotalSlept() - before, 15000u);
    priv->Release();
}

TEST(ProviderProperties, DefaultsAndTheNameAndVersionTakenOnlyTogether) {
    struct Case {
        const char *name, *version;  // in the settings; null: absent
        const char *shownName, *shownVersion;
    } cases[] = {
        {nullptr, nullptr, "Halden iSCSI VDS Provider", "2.8.5.45"},
        {"Other name", nullptr, "Halden iSCSI VDS Provider", "2.8.5.45"},  // no Version: neither
        {"Other name", "9.9", "Other name", "9.9"},
    };
    for (const Case& c : cases) {
        ProviderEnv env;
        if (c.name) env.tp.settings().SetString(TROV_PARAMETERS_KEY, "Name", c.name);
        if (c.version) env.tp.settings().SetString(TROV_PARAMETERS_KEY, "Version", c.version);
        ASSERT_EQ(env.Load(), S_OK);
        VDS_PROVIDER_PROP prop{};
        ASSERT_EQ(env.provider->GetProperties(&prop), S_OK);
        EXPECT_EQ(U8(prop.pwszName), c.shownName);
        EXPECT_EQ(U8(prop.pwszVersion), c.shownVersion);
        EXPECT_EQ(prop.id, TROV_PROVIDER_ID);
        EXPECT_EQ(prop.guidVersionId, TROV_PROVIDER_VERSION_ID);
        EXPECT_EQ(prop.type, VDS_PT_HARDWARE);
        EXPECT_EQ(prop.ulFlags, 2u);
        EXPECT_EQ(prop.ulStripeSizeFlags, 0x1C000u);
        EXPECT_EQ(prop.sRebuildPriority, 0);
        CoTaskMemFree(prop.pwszName);
        CoTaskMemFree(prop.pwszVersion);
        EXPECT_EQ(env.provider->GetProperties(nullptr), E_POINTER);
    }
}

TEST(ProviderProperties, ExhaustedAllocatorFreesWhatItTook) {
    ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    for (int n : {1, 2}) {
        env.tp.FailAllocAfter(n);
        VDS_PROVIDER_PROP prop{};
        EXPECT_EQ(env.provider->GetProperties(&prop), E_OUTOFMEMORY) << n;
        EXPECT_EQ(prop.pwszName, nullptr);
        EXPECT_EQ(prop.pwszVersion, nullptr);
    }
}

TEST(ProviderProperties, TypeAndVersionSupportByHostGeneration) {
    struct Case {
        uint32_t major, minor;
        ULONG support;
    } cases[] = {{6, 2, 31}, {6, 1, 31}, {6, 0, 3}, {5, 2, 3}, {10, 0, 3}};
    for (const Case& c : cases) {
        ProviderEnv env;
        env.tp.SetHostVersion(c.major, c.minor);
        ResetHostVersionForTest();
        IVdsProvider* p = ProviderEnv::Create();
        auto* type = static_cast<IVdsHwProviderType*>(nullptr);
        ASSERT_EQ(p->QueryInterface(IID_IVdsHwProviderType, reinterpret_cast<void**>(&type)), S_OK);
        VDS_HWPROVIDER_TYPE t{};
        EXPECT_EQ(type->GetProviderType(&t), S_OK);
        EXPECT_EQ(t, VDS_HWT_ISCSI);
        EXPECT_EQ(type->GetProviderType(nullptr), E_FAIL);  // not E_POINTER
        auto* sup = static_cast<IVdsProviderSupport*>(nullptr);
        ASSERT_EQ(p->QueryInterface(IID_IVdsProviderSupport, reinterpret_cast<void**>(&sup)), S_OK);
        ULONG v = 0;
        EXPECT_EQ(sup->GetVersionSupport(&v), S_OK);
        EXPECT_EQ(v, c.support) << c.major << "." << c.minor;
        EXPECT_EQ(sup->GetVersionSupport(nullptr), E_POINTER);
        type->Release();
        sup->Release();
        p->Release();
        ResetHostVersionForTest();
    }
}

// Under the sanitizers a load costs a hundred times more; ten loads show a leak as well.
#ifdef TROV_UNDER_SANITIZER
constexpr int kRepeatedLoads = 10;
#else
constexpr int kRepeatedLoads = 100;
#endif

TEST(ProviderLoad, RepeatedLoadsLeaveNoThreadAndNoDescriptor) {
    ProviderEnv env;
    // One load first, so that lazily made process-wide things exist before the baseline.
    ASSERT_EQ(env.Load(), S_OK);
    env.Unload();
    ASSERT_TRUE(testlib::Eventually([&] { return env.sim->stats().connections >= 1; }));
    int threads = testlib::ThreadCount(), fds = testlib::FdCount();
    std::string before = testlib::FdList();
    for (int i = 0; i < kRepeatedLoads; ++i) {
        ASSERT_EQ(env.Load(), S_OK) << i;
        ASSERT_EQ(isProviderOnline.load(), 1) << i;
        env.Unload();
    }
    EXPECT_TRUE(testlib::Eventually([&] { return testlib::ThreadCount() <= threads; }))
        << testlib::ThreadCount() - threads << " threads left";
    EXPECT_TRUE(testlib::Eventually([&] { return testlib::FdCount() <= fds; }))
        << testlib::FdCount() - fds << " descriptors left: " << before << " / " << testlib::FdList();
    EXPECT_GE(env.sim->stats().logins, kRepeatedLoads + 1u);
}

TEST(LockGuard, TracesOnlyAboveOneAndMarksACleanAcquisition) {
    TestPlatform tp;
    tp.Install();
    tp.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
    DebugLogResetForTest();
    DebugOpen(nullptr);
    ResetProviderGlobalsForTest();
    MutexHandle m = Plat()->CreateNamedMutex("lock_guard_test");
    { CLockGuard g("CTest::Quiet", m); }
    EXPECT_EQ(tp.DebuggerText().find("CTest::Quiet"), std::string::npos);
    DebugLogging = 2;
    { CLockGuard g("CTest::Loud", m); }
    { CLockGuard g("CTest::Null", nullptr); }
    std::string text = tp.DebuggerText();
    EXPECT_NE(text.find("CTest::Loud waiting on mutex"), std::string::npos) << text;
    EXPECT_NE(text.find("(NotificationMutex) (n=0) \n"), std::string::npos) << text;
    EXPECT_NE(text.find("CTest::Loud releasing mutex"), std::string::npos) << text;
    EXPECT_NE(text.find("CTest::Null trying to acquire lock with null mutex pointer\n"), std::string::npos);
    DebugClose();
    DebugLogging = 0;
    DebugLogResetForTest();
}

TEST(InitializeCounter, CountsAndNeverGoesBelowZero) {
    ResetProviderGlobalsForTest();
    {
        InitializeCounter a;
        EXPECT_EQ(NumOperation.load(), 1u);
        {
            InitializeCounter b;
            EXPECT_EQ(NumOperation.load(), 2u);
        }
        EXPECT_EQ(NumOperation.load(), 1u);
        NumOperation = 0;  // as if released once too often
    }
    EXPECT_EQ(NumOperation.load(), 0u);
}

}  // namespace
