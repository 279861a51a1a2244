// The host registry and registration: the file's reader and writer, the management service's
// IVdsAdmin over it, and trovctl's register, unregister and providers commands with the built
// module, including loading the provider through the registry.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "child.h"
#include "host_registry.h"
#include "module/module.h"
#include "platform/provider_ids.h"
#include "platform/settings.h"
#include "platform/vds.h"
#include "support/temp_dir.h"

namespace {

using trovctl::RegistryFile;

constexpr const char* kClassKey = "HKEY_CLASSES_ROOT\\CLSID\\{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}";
constexpr const char* kOurProviderKey =
    "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\vds\\Providers\\{8E3F6A51-C2B7-4D08-9F1E-2A6B5C4D7E90}";

TEST(RegistryFile, ReadsWritesAndReadsBackTheSame) {
    RegistryFile reg;
    std::string err;
    ASSERT_TRUE(reg.Apply("Windows Registry Editor Version 5.00\n\n; a comment\n"
                          "[HKLM\\Software\\A]\n@=\"default \\\"quoted\\\" \\\\ back\"\n\"N\"=dword:0000002a\n"
                          "[HKEY_CLASSES_ROOT\\CLSID\\{X}\\Empty]\r\n",
                          &err))
        << err;
    ASSERT_NE(reg.Find("HKEY_LOCAL_MACHINE\\SOFTWARE\\a", ""), nullptr);  // keys compare without case
    EXPECT_EQ(reg.Find("HKEY_LOCAL_MACHINE\\Software\\A", "")->text, "default \"quoted\" \\ back");
    EXPECT_EQ(reg.Find("HKLM\\Software\\A", "n")->dword, 42u);
    EXPECT_TRUE(reg.KeyExists("HKCR\\CLSID\\{X}\\Empty"));
    RegistryFile again;
    ASSERT_TRUE(again.Apply(reg.Text(), &err)) << err;
    EXPECT_EQ(again.Text(), reg.Text());
}

TEST(RegistryFile, MalformedTextIsRefusedWithItsLineAndChangesNothing) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"[HKLM\\A]\n\"v\"=hex:01,02\n", "line 2: a value that is neither"},
        {"[HKLM\\A]\n\"v\"=dword:123\n", "line 2: a dword that is not eight hex digits"},
        {"\"v\"=\"x\"\n", "line 1: a value before any key"},
        {"[HKLM\\A]\n\n\"v=\"x\"\n", "line 3: a value name without \"=\""},
        {"[HKLM\\A]\n\"v\"=\"open\n", "line 2: a text value without its closing quote"},
        {"[HKLM\\A\n", "line 1: a key without its closing bracket"},
        {"[Software\\A]\n", "line 1: \"Software\\A\" is no key beneath a registry root"},
        {"[HKLM\\A]\ngarbage\n", "line 2: neither a key, a value nor a comment"},
        {"[HKLM\\A]\n\"v\"=\"x\" tail\n", "line 2: text after a quoted value"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        RegistryFile reg;
        std::string err;
        ASSERT_TRUE(reg.Apply("[HKLM\\Keep]\n\"k\"=\"1\"\n", &err));
        std::string before = reg.Text();
        EXPECT_FALSE(reg.Apply(c.text, &err));
        EXPECT_EQ(err.rfind(c.error, 0), 0u) << err;
        EXPECT_EQ(reg.Text(), before);
    }
}

TEST(RegistryFile, RemovingAKeyTakesItsSubtreeAndNothingBeside) {
    RegistryFile reg;
    std::string err;
    ASSERT_TRUE(reg.Apply("[HKCR\\CLSID\\{A}]\n[HKCR\\CLSID\\{A}\\InprocServer32]\n@=\"x\"\n"
                          "[HKCR\\CLSID\\{A}X]\n[HKCR\\CLSID\\{B}]\n\"v\"=\"1\"\n\"w\"=\"2\"\n",
                          &err));
    ASSERT_TRUE(reg.Apply("[-HKCR\\clsid\\{a}]\n[HKCR\\CLSID\\{B}]\n\"w\"=-\n", &err)) << err;
    EXPECT_FALSE(reg.KeyExists("HKCR\\CLSID\\{A}"));
    EXPECT_FALSE(reg.KeyExists("HKCR\\CLSID\\{A}\\InprocServer32"));
    EXPECT_TRUE(reg.KeyExists("HKCR\\CLSID\\{A}X"));
    EXPECT_NE(reg.Find("HKCR\\CLSID\\{B}", "v"), nullptr);
    EXPECT_EQ(reg.Find("HKCR\\CLSID\\{B}", "w"), nullptr);
    EXPECT_EQ(reg.SubKeys("HKCR\\CLSID"), (std::vector<std::string>{"{A}X", "{B}"}));
}

TEST(RegistryFile, ClassKeysOfTheModuleComeAndGoWithoutTouchingOthers) {
    RegistryFile reg;
    std::string err;
    ASSERT_TRUE(reg.Apply("[HKCR\\CLSID\\{OTHER}\\InprocServer32]\n@=\"/other.so\"\n[HKCR\\AppID]\n", &err));
    const std::string before = reg.Text();
    ASSERT_TRUE(reg.Apply(RegistrationScript("/usr/lib/x/libtrovhwiprv.so"), &err)) << err;
    const RegistryFile::Value* server = reg.Find(std::string(kClassKey) + "\\InprocServer32", "");
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->text, "/usr/lib/x/libtrovhwiprv.so");
    EXPECT_EQ(reg.Find(std::string(kClassKey) + "\\InprocServer32", "ThreadingModel")->text, "Free");
    EXPECT_EQ(reg.Find("HKCR\\TrovHwPrv.TrovHwiSCSIProvider\\CurVer", "")->text, "TrovHwPrv.TrovHwiSCSIProvider.1");
    ASSERT_TRUE(reg.Apply(UnregistrationScript(), &err)) << err;
    EXPECT_EQ(reg.Text(), before);
}

class HostRegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.ok());
        path_ = dir_.File("host.reg");
    }
    // The files of the folder: a failed write leaves no temporary file behind.
    std::vector<std::string> Files() {
        std::vector<std::string> out;
        if (DIR* d = opendir(dir_.path().c_str())) {
            while (dirent* e = readdir(d))
                if (e->d_name[0] != '.' || (std::string(e->d_name) != "." && std::string(e->d_name) != ".."))
                    out.push_back(e->d_name);
            closedir(d);
        }
        return out;
    }
    HRESULT Register(IVdsAdmin* admin, const GUID& id, const char16_t* name) {
        return admin->RegisterProvider(id, CLSID_TrovHwProvider, const_cast<LPWSTR>(name), VDS_PT_HARDWARE, nullptr,
                                       const_cast<LPWSTR>(u"1.0"), TROV_PROVIDER_VERSION_ID);
    }
    TempDir dir_;
    std::string path_;
    std::string lastError_;
};

TEST_F(HostRegistryTest, AdminRegistersTwoProvidersAndUnregistersOne) {
    IVdsAdmin* admin = trovctl::NewVdsAdmin(path_, &lastError_);
    const GUID other = MakeGuid(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
    EXPECT_EQ(Register(admin, TROV_PROVIDER_ID, u"First"), S_OK);  // the file did not exist
    EXPECT_EQ(Register(admin, other, u"Second"), S_OK);
    EXPECT_EQ(Register(admin, TROV_PROVIDER_ID, u"First again"), S_OK);  // replaces, doesn't add

    RegistryFile reg;
    ASSERT_TRUE(trovctl::LoadHostRegistry(path_, &reg).ok());
    std::vector<trovctl::RegisteredProvider> list = trovctl::ListProviders(reg, false);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].providerId, "{00000001-0002-0003-0405-060708090A0B}");
    EXPECT_EQ(list[0].name, "Second");
    EXPECT_EQ(list[1].name, "First again");
    EXPECT_EQ(list[1].classId, "{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}");
    EXPECT_EQ(list[1].versionId, "{1D4A7B2C-9E36-4C85-B0F7-6E2D3A9C8B15}");
    EXPECT_EQ(list[1].type, 2u);
    EXPECT_EQ(list[1].version, "1.0");

    EXPECT_EQ(admin->UnregisterProvider(other), S_OK);
    EXPECT_EQ(admin->UnregisterProvider(other), VDS_E_OBJECT_NOT_FOUND);
    EXPECT_NE(lastError_.find("is not registered in " + path_), std::string::npos) << lastError_;
    ASSERT_TRUE(trovctl::LoadHostRegistry(path_, &reg).ok());
    ASSERT_EQ(trovctl::ListProviders(reg, false).size(), 1u);
    EXPECT_TRUE(reg.KeyExists(kOurProviderKey));
    EXPECT_EQ(Files(), std::vector<std::string>{"host.reg"});
    admin->Release();
}

TEST_F(HostRegistryTest, BadRegistriesGiveClearErrorsAndStayAsTheyWere) {
    const std::string good = "Windows Registry Editor Version 5.00\n\n[HKLM\\Keep]\n\"k\"=\"1\"\n";
    const struct {
        const char* name;
        void (*prepare)(const std::string& path, const std::string& good);
        HRESULT want;
        const char* message;
    } cases[] = {
        {"malformed",
         [](const std::string& p, const std::string&) { TempDir::Write(p, "[HKLM\\Keep]\n\"k\"=oops\n"); },
         static_cast<HRESULT>(0x8007000DL), "is malformed: line 2"},
        {"read-only",
         [](const std::string& p, const std::string& g) {
             TempDir::Write(p, g);
             chmod(p.c_str(), 0444);
         },
         E_ACCESSDENIED, "is read-only"},
        {"unreadable (a folder)", [](const std::string& p, const std::string&) { mkdir(p.c_str(), 0755); }, E_FAIL,
         "cannot read the host registry"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        std::string path = dir.File("host.reg");
        c.prepare(path, good);
        std::string before = TempDir::Read(path);
        std::string error;
        IVdsAdmin* admin = trovctl::NewVdsAdmin(path, &error);
        EXPECT_EQ(Register(admin, TROV_PROVIDER_ID, u"P"), c.want);
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
        EXPECT_NE(error.find(path), std::string::npos) << error;
        EXPECT_EQ(TempDir::Read(path), before);
        admin->Release();
    }
    // A folder that doesn't exist: nothing can be written there.
    std::string error;
    IVdsAdmin* admin = trovctl::NewVdsAdmin(dir_.File("none/host.reg"), &error);
    EXPECT_EQ(Register(admin, TROV_PROVIDER_ID, u"P"), static_cast<HRESULT>(0x80070003L));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    admin->Release();
    EXPECT_TRUE(Files().empty());
}

TEST_F(HostRegistryTest, RegistrationsAtOnceLoseNothing) {
    // Two processes register and unregister providers of their own at the same time; each
    // read-change-write holds the folder's lock, so every last registration survives.
    constexpr int kRounds = 40;
    pid_t children[2];
    for (int p = 0; p < 2; ++p) {
        children[p] = fork();
        if (children[p] == 0) {
            std::string error;
            IVdsAdmin* admin = trovctl::NewVdsAdmin(path_, &error);
            bool ok = true;
            for (int i = 0; i < kRounds; ++i) {
                GUID id = MakeGuid(static_cast<uint32_t>(p + 1), static_cast<uint16_t>(i), 0, 0, 0, 0, 0, 0, 0, 0, 0);
                ok = ok && Register(admin, id, u"P") == S_OK;
                if (i % 2) ok = ok && admin->UnregisterProvider(id) == S_OK;
            }
            _exit(ok ? 0 : 1);
        }
    }
    for (pid_t c : children) {
        int status = 0;
        ASSERT_EQ(waitpid(c, &status, 0), c);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    RegistryFile reg;
    ASSERT_TRUE(trovctl::LoadHostRegistry(path_, &reg).ok());
    EXPECT_EQ(trovctl::ListProviders(reg, false).size(), static_cast<size_t>(kRounds));  // the even rounds of both
}

TEST_F(HostRegistryTest, AWriteKeepsTheFileModeAndLeavesNoTemporaryFile) {
    TempDir::Write(path_, "[HKLM\\Keep]\n");
    chmod(path_.c_str(), 0640);
    RegistryFile reg;
    ASSERT_TRUE(trovctl::LoadHostRegistry(path_, &reg).ok());
    reg.SetString("HKLM\\Keep", "v", "new");
    ASSERT_TRUE(trovctl::SaveHostRegistry(path_, reg).ok());
    struct stat st{};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(Files(), std::vector<std::string>{"host.reg"});
    EXPECT_NE(TempDir::Read(path_).find("[HKEY_LOCAL_MACHINE\\Keep]\n\"v\"=\"new\"\n"), std::string::npos);
}

// trovctl itself, on the built module, with the host registry in a folder of the test's own.
class RegistrationCli : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.ok());
        registry_ = dir_.File("host.reg");
        settings_ = dir_.File("settings.reg");
        TempDir::Write(settings_, "Windows Registry Editor Version 5.00\n");
    }
    testchild::Child* Run(const std::vector<std::string>& words, const std::vector<std::string>& env = {}) {
        std::vector<std::string> argv = {TROVCTL_BIN};
        argv.insert(argv.end(), words.begin(), words.end());
        // The caller's changes come last, so that they may undo these.
        std::vector<std::string> all = {"TROVCTL_REGISTRY=" + registry_, "TROVHWIPRV_SETTINGS=" + settings_,
                                        "-TROVCTL_MODULE"};
        all.insert(all.end(), env.begin(), env.end());
        child_ = std::make_unique<testchild::Child>(argv, all);
        EXPECT_TRUE(child_->Finish(60000)) << "trovctl did not end";
        return child_.get();
    }
    // A copy of the built module in the test's folder, which the test may delete.
    std::string CopyOfModule() {
        std::string copy = dir_.File("libtrovhwiprv.so");
        TempDir::Write(copy, TempDir::Read(TROV_MODULE_PATH));
        return copy;
    }
    TempDir dir_;
    std::string registry_, settings_;
    std::unique_ptr<testchild::Child> child_;
};

TEST_F(RegistrationCli, RegisterListLoadAndUnregister) {
    std::string module = CopyOfModule();
    testchild::Child* c = Run({"register", module});
    ASSERT_EQ(c->exitCode(), 0) << c->err;
    EXPECT_EQ(c->out, "registered " + module + " in " + registry_ + "\n");
    RegistryFile reg;
    ASSERT_TRUE(trovctl::LoadHostRegistry(registry_, &reg).ok());
    ASSERT_NE(reg.Find(std::string(kClassKey) + "\\InprocServer32", ""), nullptr);
    EXPECT_EQ(reg.Find(std::string(kClassKey) + "\\InprocServer32", "")->text, module);
    // No Parameters key in the settings: the defaults.
    EXPECT_EQ(reg.Find(kOurProviderKey, "Name")->text, "Halden iSCSI VDS Provider");

    c = Run({"providers"});
    ASSERT_EQ(c->exitCode(), 0) << c->err;
    EXPECT_NE(c->out.find("Halden iSCSI VDS Provider  2.8.5.45  hardware  {8E3F6A51-C2B7-4D08-9F1E-2A6B5C4D7E90}"),
              std::string::npos)
        << c->out;
    EXPECT_NE(c->out.find(module + "  yes\n"), std::string::npos) << c->out;
    EXPECT_NE(c->out.find("1 provider in " + registry_), std::string::npos);

    // The provider comes from the registered module: gone, it can't load, and providers says so.
    const std::vector<std::string> builtInArray = {"-TROVHWIPRV_SETTINGS"};
    c = Run({"info"}, builtInArray);
    EXPECT_EQ(c->exitCode(), 0) << c->err;
    unlink(module.c_str());
    c = Run({"info"}, builtInArray);
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("cannot open the provider module: " + module), std::string::npos) << c->err;
    c = Run({"--json", "providers"});
    ASSERT_EQ(c->exitCode(), 0) << c->err;
    EXPECT_NE(c->out.find("\"loads\": false"), std::string::npos) << c->out;
    EXPECT_NE(c->out.find("No such file or directory"), std::string::npos) << c->out;

    c = Run({"unregister", TROV_MODULE_PATH});
    ASSERT_EQ(c->exitCode(), 0) << c->err;
    ASSERT_TRUE(trovctl::LoadHostRegistry(registry_, &reg).ok());
    EXPECT_FALSE(reg.KeyExists(kClassKey));
    EXPECT_FALSE(reg.KeyExists(kOurProviderKey));
    EXPECT_FALSE(reg.KeyExists("HKEY_CLASSES_ROOT\\TrovHwPrv.TrovHwiSCSIProvider"));

    // Registered nothing: loading says how to register, and a second unregister fails cleanly.
    c = Run({"info"}, builtInArray);
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("no hardware provider with a module is registered in " + registry_), std::string::npos);
    std::string before = TempDir::Read(registry_);
    c = Run({"unregister", TROV_MODULE_PATH});
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("is not registered in " + registry_), std::string::npos) << c->err;
    EXPECT_EQ(TempDir::Read(registry_), before);
}

TEST_F(RegistrationCli, NameAndVersionFromTheSettingsAndTheRegistryPathFromThem) {
    std::string other = dir_.File("elsewhere.reg");
    TempDir::Write(settings_, "Windows Registry Editor Version 5.00\n\n"
                              "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\TroviSCSIVDSProvider\\Parameters]\n"
                              "\"Name\"=\"Lab array\"\n\"Version\"=\"3.1\"\n"
                              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Trov\\trovctl]\n\"HostRegistry\"=\"" + other + "\"\n");
    testchild::Child* c = Run({"register", TROV_MODULE_PATH}, {"-TROVCTL_REGISTRY"});
    ASSERT_EQ(c->exitCode(), 0) << c->err;
    RegistryFile reg;
    ASSERT_TRUE(trovctl::LoadHostRegistry(other, &reg).ok());
    EXPECT_EQ(reg.Find(kOurProviderKey, "Name")->text, "Lab array");
    EXPECT_EQ(reg.Find(kOurProviderKey, "Version")->text, "3.1");
    EXPECT_EQ(access(registry_.c_str(), F_OK), -1);  // TROVCTL_REGISTRY was not set
}

TEST_F(RegistrationCli, BadRegistriesAndModules) {
    TempDir::Write(registry_, "[HKLM\\Broken\n");
    testchild::Child* c = Run({"register", TROV_MODULE_PATH});
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("is malformed: line 1: a key without its closing bracket"), std::string::npos) << c->err;
    c = Run({"providers"});
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("is malformed"), std::string::npos) << c->err;
    c = Run({"info"});
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("is malformed"), std::string::npos) << c->err;
    EXPECT_EQ(TempDir::Read(registry_), "[HKLM\\Broken\n");

    unlink(registry_.c_str());
    c = Run({"register", dir_.File("missing.so")});
    EXPECT_EQ(c->exitCode(), 1);
    EXPECT_NE(c->err.find("missing.so: No such file or directory"), std::string::npos) << c->err;
    EXPECT_EQ(access(registry_.c_str(), F_OK), -1);
    c = Run({"register", "a", "b"});
    EXPECT_EQ(c->exitCode(), 2);
    c = Run({"providers"});
    EXPECT_EQ(c->exitCode(), 0);
    EXPECT_NE(c->err.find("no host registry at " + registry_), std::string::npos) << c->err;
    EXPECT_NE(c->out.find("0 providers"), std::string::npos);
}

}  // namespace
