// The module's entry points: load and unload with the named locks, the unload check, the class
// factory, registration with a stand-in host, and the set of exported symbols of the built module.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "core/globals.h"
#include "module/module.h"
#include "platform/provider_ids.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"
#include "testlib/fake_platform.h"

namespace {

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        tp_.Install();
        DebugLogResetForTest();
        tp_.settings().SetDword(TROV_DEBUG_KEY, "ToFile", 0);
        tp_.settings().SetDword(TROV_DEBUG_KEY, "ToDebugger", 1);
        DebugOpen(nullptr);
        tp_.ClearRecords();
    }
    void TearDown() override {
        TrovSetHostServices(nullptr);
        ResetProviderGlobalsForTest();
        DebugLogResetForTest();
    }
    // True when the lines appear in the log in this order.
    bool LoggedInOrder(const std::vector<std::string>& lines) {
        std::string log = tp_.DebuggerText();
        size_t at = 0;
        for (const std::string& l : lines) {
            at = log.find(l, at);
            if (at == std::string::npos) return false;
            at += l.size();
        }
        return true;
    }
    TestPlatform tp_;
};

TEST_F(ModuleTest, DetachClosesTheThreeLocksAndAttachMakesThemAgain) {
    EXPECT_TRUE(DllMain(nullptr, DLL_PROCESS_DETACH, nullptr));
    EXPECT_EQ(hVdsMutex, nullptr);
    EXPECT_EQ(hRefreshMutex, nullptr);
    EXPECT_EQ(hNotificationMutex, nullptr);
    EXPECT_TRUE(LoggedInOrder({"DllMain() Enter\n", "FreeLock enter\n", "FreeLock exit\n", "FreeRefreshLock enter\n",
                               "FreeRefreshLock exit\n", "DllMain() Exit\n"}));
    tp_.ClearRecords();
    EXPECT_TRUE(DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr));
    EXPECT_NE(hVdsMutex, nullptr);
    EXPECT_NE(hRefreshMutex, nullptr);
    EXPECT_NE(hNotificationMutex, nullptr);
    EXPECT_NE(hRefreshMutex, hNotificationMutex);
    EXPECT_NE(hVdsMutex, hRefreshMutex);
    EXPECT_TRUE(LoggedInOrder({"DllMain() Enter\n", "InitLock enter\n", "InitLock exit\n", "InitRefreshLock enter\n",
                               "InitRefreshLock exit\n", "DllMain() Exit\n"}));
    // Another reason touches nothing.
    MutexHandle before = hVdsMutex;
    EXPECT_TRUE(DllMain(nullptr, 2, nullptr));
    EXPECT_EQ(hVdsMutex, before);
}

TEST_F(ModuleTest, CanUnloadOnlyWithoutLocksOrObjects) {
    ASSERT_EQ(ModuleLockCount(), 0);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    EXPECT_NE(tp_.DebuggerText().find("DllCanUnloadNow() count= 0\n"), std::string::npos);

    IClassFactory* f = nullptr;
    ASSERT_EQ(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f)), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);  // the factory reference holds the module
    IVdsProvider* p = nullptr;
    ASSERT_EQ(f->CreateInstance(nullptr, IID_IVdsProvider, reinterpret_cast<void**>(&p)), S_OK);
    f->Release();
    tp_.ClearRecords();
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);  // a provider lives
    EXPECT_NE(tp_.DebuggerText().find("DllCanUnloadNow() count= 1\n"), std::string::npos);
    p->Release();
    EXPECT_EQ(DllCanUnloadNow(), S_OK);

    ASSERT_EQ(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f)), S_OK);
    f->LockServer(TRUE);
    f->Release();
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    ASSERT_EQ(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f)), S_OK);
    f->LockServer(FALSE);
    f->Release();
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(ModuleTest, ClassObjectOnlyForTheProviderClass) {
    void* out = reinterpret_cast<void*>(1);
    EXPECT_EQ(DllGetClassObject(TROV_PROVIDER_ID, IID_IClassFactory, &out), CLASS_E_CLASSNOTAVAILABLE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, nullptr), E_POINTER);
    EXPECT_EQ(DllGetClassObject(CLSID_TrovHwProvider, IID_IVdsProvider, &out), E_NOINTERFACE);
    EXPECT_NE(tp_.DebuggerText().find("DllGetClassObject()\n"), std::string::npos);
}

// A host that stands in for the management service and the class registry.
class FakeHost final : public IVdsAdmin {
public:
    HRESULT createResult = S_OK, registerResult = S_OK, unregisterResult = S_OK, applyResult = S_OK;
    struct Registration {
        GUID id, clsid, versionId;
        std::u16string name, version;
        VDS_PROVIDER_TYPE type;
        bool machineGiven;
    };
    std::vector<Registration> registered;
    std::vector<GUID> unregistered;
    std::vector<std::string> scripts;
    long refs = 0;

    TrovHostServices Services() { return TrovHostServices{this, &Create, &Apply}; }

    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (riid != IID_IVdsAdmin && riid != IID_IUnknown) return E_NOINTERFACE;
        *ppv = static_cast<IVdsAdmin*>(this);
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return static_cast<ULONG>(++refs); }
    ULONG Release() override { return static_cast<ULONG>(--refs); }
    HRESULT RegisterProvider(VDS_OBJECT_ID id, CLSID clsid, LPWSTR name, VDS_PROVIDER_TYPE type, LPWSTR machine,
                             LPWSTR version, GUID versionId) override {
        registered.push_back({id, clsid, versionId, name, version, type, machine != nullptr});
        return registerResult;
    }
    HRESULT UnregisterProvider(VDS_OBJECT_ID id) override {
        unregistered.push_back(id);
        return unregisterResult;
    }

private:
    static HRESULT Create(void* ctx, REFCLSID clsid, REFIID iid, void** ppv) {
        auto* h = static_cast<FakeHost*>(ctx);
        if (clsid != CLSID_VdsService) return REGDB_E_CLASSNOTREG;
        if (FAILED(h->createResult)) return h->createResult;
        return h->QueryInterface(iid, ppv);
    }
    static HRESULT Apply(void* ctx, const char* script) {
        auto* h = static_cast<FakeHost*>(ctx);
        h->scripts.push_back(script);
        return h->applyResult;
    }
};

TEST_F(ModuleTest, RegistrationFailuresStopBeforeTheClassKeys) {
    struct Case {
        const char* name;
        bool services;
        HRESULT create, reg, apply;
        HRESULT want;
        size_t registerCalls, scripts;
        const char* line;
    };
    const HRESULT kRefused = static_cast<HRESULT>(0x80070005L);
    const Case cases[] = {
        {"no host", false, S_OK, S_OK, S_OK, REGDB_E_CLASSNOTREG, 0, 0,
         "OOP!! DllRegisterServer(): CoCreateInstance () is failed!\n"},
        {"service unreachable", true, kRefused, S_OK, S_OK, kRefused, 0, 0,
         "OOP!! DllRegisterServer(): CoCreateInstance () is failed!\n"},
        {"registration refused", true, S_OK, VDS_E_OBJECT_NOT_FOUND, S_OK, VDS_E_OBJECT_NOT_FOUND, 1, 0,
         "OOP!! DllRegisterServer(): pVdsAdmin->RegisterProvider is failed!\n"},
        {"class keys refused", true, S_OK, S_OK, kRefused, kRefused, 1, 1,
         "OOP!! DllRegisterServer(): _Module.RegisterServer is failed!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeHost host;
        host.createResult = c.create;
        host.registerResult = c.reg;
        host.applyResult = c.apply;
        TrovHostServices s = host.Services();
        TrovSetHostServices(c.services ? &s : nullptr);
        tp_.ClearRecords();
        EXPECT_EQ(DllRegisterServer(), c.want);
        EXPECT_EQ(host.registered.size(), c.registerCalls);
        EXPECT_EQ(host.scripts.size(), c.scripts);
        EXPECT_EQ(host.refs, 0);  // the admin object was released
        EXPECT_NE(tp_.DebuggerText().find(c.line), std::string::npos) << tp_.DebuggerText();
        EXPECT_EQ(tp_.DebuggerText().find("DllRegisterServer() out\n"), std::string::npos);
    }
}

TEST_F(ModuleTest, RegistrationWithoutParametersUsesTheDefaults) {
    FakeHost host;
    TrovHostServices s = host.Services();
    TrovSetHostServices(&s);
    ASSERT_EQ(DllRegisterServer(), S_OK);
    ASSERT_EQ(host.registered.size(), 1u);
    const FakeHost::Registration& r = host.registered[0];
    EXPECT_EQ(r.id, TROV_PROVIDER_ID);
    EXPECT_EQ(r.clsid, CLSID_TrovHwProvider);
    EXPECT_EQ(r.versionId, TROV_PROVIDER_VERSION_ID);
    EXPECT_EQ(r.name, u"Halden iSCSI VDS Provider");
    EXPECT_EQ(r.version, u"2.8.5.45");
    EXPECT_EQ(r.type, VDS_PT_HARDWARE);
    EXPECT_FALSE(r.machineGiven);
    EXPECT_TRUE(LoggedInOrder({"DllRegisterServer()\n", "CProvider::GetProviderNameAndVersion RegOpenKeyEx error.",
                               "trovhwprv::DllRegisterServer GetProviderNameAndVersion failed.",
                               "DllRegisterServer() out\n"}));
    ASSERT_EQ(host.scripts.size(), 1u);
    EXPECT_EQ(host.scripts[0], RegistrationScript(ModuleFilePath()));
}

TEST_F(ModuleTest, RegistrationTakesNameAndVersionFromParameters) {
    tp_.settings().SetString(TROV_PARAMETERS_KEY, "Name", "Lab array");
    tp_.settings().SetString(TROV_PARAMETERS_KEY, "Version", "9.1");
    FakeHost host;
    TrovHostServices s = host.Services();
    TrovSetHostServices(&s);
    ASSERT_EQ(DllRegisterServer(), S_OK);
    ASSERT_EQ(host.registered.size(), 1u);
    EXPECT_EQ(host.registered[0].name, u"Lab array");
    EXPECT_EQ(host.registered[0].version, u"9.1");
    EXPECT_EQ(tp_.DebuggerText().find("GetProviderNameAndVersion failed"), std::string::npos);
}

TEST_F(ModuleTest, ClassKeysNameTheModuleAndAreRemovedWhole) {
    const std::string script = RegistrationScript("/opt/x/lib\"trov\\.so");
    const char* const lines[] = {
        "[HKEY_CLASSES_ROOT\\TrovHwPrv.TrovHwiSCSIProvider.1]\n@=\"TrovHwiSCSIProvider Class\"\n",
        "[HKEY_CLASSES_ROOT\\TrovHwPrv.TrovHwiSCSIProvider.1\\CLSID]\n@=\"{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}\"\n",
        "[HKEY_CLASSES_ROOT\\TrovHwPrv.TrovHwiSCSIProvider\\CurVer]\n@=\"TrovHwPrv.TrovHwiSCSIProvider.1\"\n",
        "[HKEY_CLASSES_ROOT\\CLSID\\{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}]\n@=\"TrovHwiSCSIPovider Class\"\n"
        "\"AppID\"=\"{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}\"\n",
        "\\VersionIndependentProgID]\n@=\"TrovHwiSCSIPovider\"\n",
        "\\InprocServer32]\n@=\"/opt/x/lib\\\"trov\\\\.so\"\n\"ThreadingModel\"=\"Free\"\n",
        "[HKEY_CLASSES_ROOT\\AppID\\{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}]\n@=\"TrovHwiSCSIPovider Class\"\n"
        "\"DllSurrogate\"=\"\"\n",
    };
    for (const char* l : lines) EXPECT_NE(script.find(l), std::string::npos) << l;
    const std::string removal = UnregistrationScript();
    for (const char* k : {"TrovHwPrv.TrovHwiSCSIProvider.1]", "TrovHwPrv.TrovHwiSCSIProvider]",
                          "CLSID\\{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}]", "AppID\\{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}]"})
        EXPECT_NE(removal.find(std::string("[-HKEY_CLASSES_ROOT\\") + k), std::string::npos) << k;
}

TEST_F(ModuleTest, UnregistrationMirrorsRegistration) {
    struct Case {
        const char* name;
        bool services;
        HRESULT unreg;
        HRESULT want;
        size_t calls, scripts;
        const char* line;
    };
    const Case cases[] = {
        {"no host", false, S_OK, REGDB_E_CLASSNOTREG, 0, 0, "OOP!! DllUnregisterServer(): CoCreateInstance is failed!\n"},
        {"not registered", true, VDS_E_OBJECT_NOT_FOUND, VDS_E_OBJECT_NOT_FOUND, 1, 0,
         "OOP!! DllUnregisterServer(): pVdsAdmin->UnregisterProvider is failed!\n"},
        {"registered", true, S_OK, S_OK, 1, 1, "DllUnregisterServer()\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeHost host;
        host.unregisterResult = c.unreg;
        TrovHostServices s = host.Services();
        TrovSetHostServices(c.services ? &s : nullptr);
        tp_.ClearRecords();
        EXPECT_EQ(DllUnregisterServer(), c.want);
        ASSERT_EQ(host.unregistered.size(), c.calls);
        if (c.calls) {
            EXPECT_EQ(host.unregistered[0], TROV_PROVIDER_ID);
        }
        ASSERT_EQ(host.scripts.size(), c.scripts);
        if (c.scripts) {
            EXPECT_EQ(host.scripts[0], UnregistrationScript());
        }
        EXPECT_NE(tp_.DebuggerText().find(c.line), std::string::npos);
    }
}

// The dynamic symbols the built module defines, demangled.
std::set<std::string> ExportedSymbols(const std::string& module) {
    std::set<std::string> out;
    std::string cmd = "nm -D -C --defined-only '" + module + "' 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char line[1024];
    while (fgets(line, sizeof line, p)) {
        std::string l(line);
        if (!l.empty() && l.back() == '\n') l.pop_back();
        // "<address> <type> <name>"; the name may hold blanks.
        size_t first = l.find(' '), second = first == std::string::npos ? first : l.find(' ', first + 1);
        if (second != std::string::npos) out.insert(l.substr(second + 1));
    }
    pclose(p);
    return out;
}

TEST(ModuleExports, OnlyTheEntryPointsAndTheEnumerator) {
    std::set<std::string> symbols = ExportedSymbols(TROV_MODULE_PATH);
    ASSERT_FALSE(symbols.empty()) << "nm found no symbols in " << TROV_MODULE_PATH;
    const std::set<std::string> entryPoints = {
        "DllMain", "DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer",
        "TrovSetHostSink", "TrovSetHostServices", "TrovHostHbaPorts", "TrovHostLunPaths", "TrovHostSetLunPolicy",
        "TrovHostSetPathStatus", "operator<(GUID const&, GUID const&)"};
    for (const std::string& e : entryPoints) EXPECT_EQ(symbols.count(e), 1u) << e << " is not exported";
    std::set<std::string> enumeratorMembers;
    for (const std::string& s : symbols) {
        if (entryPoints.count(s)) continue;
        ASSERT_EQ(s.rfind("CEnumerator::", 0), 0u) << s << " should not be exported";
        enumeratorMembers.insert(s.substr(13, s.find('(') - 13));
    }
    for (const char* m : {"CEnumerator", "~CEnumerator", "Append", "Clear", "Clone", "Next", "Reset", "Skip",
                          "SetPositionToLast"})
        EXPECT_EQ(enumeratorMembers.count(m), 1u) << "CEnumerator::" << m << " is not exported";
}

}  // namespace
