// DllRegisterServer and DllUnregisterServer: the provider announces itself to the management
// service through IVdsAdmin and writes (or removes) its class keys, through the services its host
// lends it (platform/host_services.h).
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <cctype>
#include <mutex>
#include <string>

#include "core/globals.h"
#include "core/provider.h"
#include "module/module.h"
#include "platform/provider_ids.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "support/debuglog.h"

namespace {

std::mutex g_servicesLock;
TrovHostServices g_services{};
bool g_haveServices = false;

bool CurrentServices(TrovHostServices* out) {
    std::lock_guard<std::mutex> g(g_servicesLock);
    if (g_haveServices) *out = g_services;
    return g_haveServices;
}

// "{5B7C1E2A-3D94-4F61-A8E2-7C0D9B4E6F13}", as the class registry spells class ids.
std::string Braced(const GUID& g) {
    std::string s = GuidToString(g);
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return "{" + s + "}";
}

// A string value in the export format: backslashes and quotes escaped.
std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '\\' || c == '"') out += '\\';
        out += c;
    }
    return out + "\"";
}

constexpr const char* kProgId = "TrovHwPrv.TrovHwiSCSIProvider.1";
constexpr const char* kIndependentProgId = "TrovHwPrv.TrovHwiSCSIProvider";

// Creates the management service's object through the host; REGDB_E_CLASSNOTREG without a host.
HRESULT CreateVdsAdmin(IVdsAdmin** admin) {
    *admin = nullptr;
    TrovHostServices s;
    if (!CurrentServices(&s) || !s.createInstance) return REGDB_E_CLASSNOTREG;
    return s.createInstance(s.context, CLSID_VdsService, IID_IVdsAdmin, reinterpret_cast<void**>(admin));
}

HRESULT ApplyScript(const std::string& script) {
    TrovHostServices s;
    if (!CurrentServices(&s) || !s.applyRegistry) return REGDB_E_CLASSNOTREG;
    return s.applyRegistry(s.context, script.c_str());
}

}  // namespace

std::string ModuleFilePath() {
    Dl_info info{};
    if (!dladdr(reinterpret_cast<void*>(&ModuleFilePath), &info) || !info.dli_fname) return {};
    char resolved[PATH_MAX];
    if (realpath(info.dli_fname, resolved)) return resolved;
    return info.dli_fname;
}

std::string RegistrationScript(const std::string& modulePath) {
    const std::string clsid = Braced(CLSID_TrovHwProvider);
    const std::string root = "HKEY_CLASSES_ROOT\\";
    std::string s = "Windows Registry Editor Version 5.00\n\n";
    auto key = [&](const std::string& path) { s += "[" + root + path + "]\n"; };
    auto value = [&](const char* name, const std::string& text) {
        s += (name ? Quoted(name) : std::string("@")) + "=" + Quoted(text) + "\n";
    };
    key(kProgId);
    value(nullptr, "TrovHwiSCSIProvider Class");
    key(std::string(kProgId) + "\\CLSID");
    value(nullptr, clsid);
    key(kIndependentProgId);
    value(nullptr, "TrovHwiSCSIProvider Class");
    key(std::string(kIndependentProgId) + "\\CLSID");
    value(nullptr, clsid);
    key(std::string(kIndependentProgId) + "\\CurVer");
    value(nullptr, kProgId);
    key("CLSID\\" + clsid);
    value(nullptr, "TrovHwiSCSIPovider Class");
    value("AppID", clsid);
    key("CLSID\\" + clsid + "\\ProgID");
    value(nullptr, kProgId);
    key("CLSID\\" + clsid + "\\VersionIndependentProgID");
    value(nullptr, "TrovHwiSCSIPovider");
    key("CLSID\\" + clsid + "\\InprocServer32");
    value(nullptr, modulePath);
    value("ThreadingModel", "Free");
    key("AppID\\" + clsid);
    value(nullptr, "TrovHwiSCSIPovider Class");
    value("DllSurrogate", "");
    return s;
}

std::string UnregistrationScript() {
    const std::string clsid = Braced(CLSID_TrovHwProvider);
    std::string s = "Windows Registry Editor Version 5.00\n\n";
    for (const std::string& k : {std::string(kProgId), std::string(kIndependentProgId), "CLSID\\" + clsid, "AppID\\" + clsid})
        s += "[-HKEY_CLASSES_ROOT\\" + k + "]\n";
    return s;
}

extern "C" TROV_EXPORT void TrovSetHostServices(const TrovHostServices* services) {
    std::lock_guard<std::mutex> g(g_servicesLock);
    g_haveServices = services != nullptr;
    g_services = services ? *services : TrovHostServices{};
}

extern "C" TROV_EXPORT HRESULT DllRegisterServer() {
    DebugTrace("DllRegisterServer()\n");
    IVdsAdmin* admin = nullptr;
    HRESULT hr = CreateVdsAdmin(&admin);
    if (!GetProviderNameAndVersion())
        DebugTrace("trovhwprv::DllRegisterServer GetProviderNameAndVersion failed.");
    if (FAILED(hr) || !admin) {
        if (SUCCEEDED(hr)) hr = E_NOINTERFACE;
        DebugTrace("OOP!! DllRegisterServer(): CoCreateInstance () is failed!\n");
    } else {
        hr = admin->RegisterProvider(TROV_PROVIDER_ID, CLSID_TrovHwProvider, g_ProviderName, VDS_PT_HARDWARE, nullptr,
                                     g_ProviderVersion, TROV_PROVIDER_VERSION_ID);
        admin->Release();
    }
    if (FAILED(hr)) {
        DebugTrace("OOP!! DllRegisterServer(): pVdsAdmin->RegisterProvider is failed!\n");
        return hr;
    }
    // The module has one class; its keys name the file the host loads it from.
    hr = ApplyScript(RegistrationScript(ModuleFilePath()));
    if (FAILED(hr)) {
        DebugTrace("OOP!! DllRegisterServer(): _Module.RegisterServer is failed!\n");
        return hr;
    }
    DebugTrace("DllRegisterServer() out\n");
    return S_OK;
}

extern "C" TROV_EXPORT HRESULT DllUnregisterServer() {
    DebugTrace("DllUnregisterServer()\n");
    IVdsAdmin* admin = nullptr;
    HRESULT hr = CreateVdsAdmin(&admin);
    if (FAILED(hr) || !admin) {
        if (SUCCEEDED(hr)) hr = E_NOINTERFACE;
        DebugTrace("OOP!! DllUnregisterServer(): CoCreateInstance is failed!\n");
        return hr;
    }
    hr = admin->UnregisterProvider(TROV_PROVIDER_ID);
    admin->Release();
    if (FAILED(hr)) {
        DebugTrace("OOP!! DllUnregisterServer(): pVdsAdmin->UnregisterProvider is failed!\n");
        return hr;
    }
    hr = ApplyScript(UnregistrationScript());
    if (FAILED(hr)) return hr;
    DebugTrace("DllUnregisterServer() out\n");
    return S_OK;
}
