#include <gtest/gtest.h>

#include "testlib/fake_platform.h"
#include "platform/settings.h"

namespace {

const char* kExport = R"(Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\TroviSCSIVDSProvider\Parameters]
"Name"="Halden \"test\" provider"
"Options"=dword:0000000f
"StartingLUN"=dword:1
"Version"=hex:01,02
"PATH"="C:\\Program Files\\Trov\\svc.exe"

[HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\TroviSCSIVDSProvider\Debug]
)";

TEST(SettingsStore, TypedValuesAndWrongTypesCountAsMissing) {
    TestPlatform tp;
    tp.settings().Parse(kExport);
    std::u16string s;
    uint32_t d = 77;
    const std::string params = "SYSTEM\\CurrentControlSet\\Services\\TroviSCSIVDSProvider\\Parameters";
    ASSERT_TRUE(tp.ReadStringValue(params, "Name", &s));
    EXPECT_EQ(s, u"Halden \"test\" provider");
    ASSERT_TRUE(tp.ReadStringValue(params, "PATH", &s));
    EXPECT_EQ(s, u"C:\\Program Files\\Trov\\svc.exe");
    ASSERT_TRUE(tp.ReadDwordValue(params, "Options", &d));
    EXPECT_EQ(d, 15u);
    // A dword not written with eight digits, a binary value, and a string read as dword: missing.
    d = 77;
    EXPECT_FALSE(tp.ReadDwordValue(params, "StartingLUN", &d));
    EXPECT_FALSE(tp.ReadStringValue(params, "Version", &s));
    EXPECT_FALSE(tp.ReadDwordValue(params, "Name", &d));
    EXPECT_EQ(d, 77u);
    EXPECT_TRUE(tp.KeyExists("HKEY_LOCAL_MACHINE\\" TROV_DEBUG_KEY));
    EXPECT_TRUE(tp.KeyExists("system\\currentcontrolset\\services\\troviscsivdsprovider\\debug"));
    EXPECT_FALSE(tp.KeyExists(KELVANE_PARAMETERS_KEY));
}

TEST(FakeClock, AutoModeAdvancesWithoutRealTime) {
    FakeClock c;
    uint64_t t0 = c.NowMs();
    c.Sleep(45000);
    EXPECT_EQ(c.NowMs(), t0 + 45000);
    EXPECT_EQ(c.TotalSlept(), 45000u);
}

}  // namespace
