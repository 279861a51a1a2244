// The host registry: where trovctl, as the management host, keeps the providers registered with
// it and the class keys of their modules, in one file in the registry export format (the
// provider's settings use the same format).
//
//   [HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\vds\Providers\{PROVIDER-ID}]
//   "Name"="Halden iSCSI VDS Provider"   "CLSID"="{...}"   "Type"=dword:00000002  ...
//   [HKEY_CLASSES_ROOT\CLSID\{CLASS-ID}\InprocServer32]
//   @="/usr/lib/x86_64-linux-gnu/trovhwiprv/libtrovhwiprv.so"
//
// The file's path: TROVCTL_REGISTRY, else the value HostRegistry of the key
// HKEY_LOCAL_MACHINE\SOFTWARE\Trov\trovctl in the settings file (TROVHWIPRV_SETTINGS, else
// /etc/trovhwiprv/settings.reg), else /etc/trovhwiprv/host.reg.
//
// Promises: the file is read strictly (a line that is not understood is an error that names it,
// never skipped); every change is written to a temporary file beside it and renamed over it, so
// a reader sees the old file or the new one, never half of one; a file without any write
// permission bit is read-only and is never replaced; each read-change-write holds an exclusive
// lock on the file's folder, so that registrations at once lose no change. A missing file reads as an empty registry
// and is created by the first change (its folder must exist).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/com.h"
#include "platform/vds_interfaces.h"

namespace trovctl {

// Keys and their values, compared without regard to case as the registry does, spelled as
// written. A key may exist without values.
class RegistryFile {
public:
    struct CaseLess {
        bool operator()(const std::string& a, const std::string& b) const;
    };
    struct Value {
        bool isDword = false;
        std::string text;
        uint32_t dword = 0;
    };
    using Values = std::map<std::string, Value, CaseLess>;  // "" is the default value (@)

    // Applies a text in the export format: "[KEY]" makes a key current (and creates it),
    // "[-KEY]" removes the key and everything beneath it, "NAME"=... / @=... set a string
    // ("text") or dword (dword:8 hex digits), "NAME"=- removes a value. A header line, blank lines
    // and ";" comments are allowed. False with *err ("line N: ...") on anything else; then nothing
    // has changed.
    bool Apply(const std::string& text, std::string* err);
    // The whole registry in the export format, keys in order.
    std::string Text() const;

    bool KeyExists(const std::string& key) const;
    const Value* Find(const std::string& key, const std::string& name) const;
    // The names of the keys directly beneath `key`.
    std::vector<std::string> SubKeys(const std::string& key) const;
    void SetString(const std::string& key, const std::string& name, const std::string& text);
    void SetDword(const std::string& key, const std::string& name, uint32_t value);
    // Removes `key` and every key beneath it; false when there was none.
    bool RemoveTree(const std::string& key);

    // "HKLM\..." and "HKCR\..." spelled out, trailing separators dropped.
    static std::string NormalizeKey(const std::string& key);

private:
    std::map<std::string, Values, CaseLess> keys_;
};

// The outcome of reading or writing the host registry: 0, or an errno value (EINVAL for a
// malformed file), with a message that names the file.
struct RegistryResult {
    int error = 0;
    std::string message;
    bool ok() const { return error == 0; }
};

// The path of the host registry (see the top of this file).
std::string HostRegistryPath();
// Reads the file; a missing file gives an empty registry and *existed false.
RegistryResult LoadHostRegistry(const std::string& path, RegistryFile* out, bool* existed = nullptr);
// Writes the file atomically (temporary file in the same folder, then rename).
RegistryResult SaveHostRegistry(const std::string& path, const RegistryFile& data);
// The HRESULT a registry failure gives the module.
HRESULT RegistryHr(const RegistryResult& r);

// Where a provider's registration lives.
std::string ProviderKey(const GUID& providerId);
constexpr const char* kProvidersKey = "HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\vds\\Providers";
// "{5B7C1E2A-...}" in upper case, as class ids are written in the registry.
std::string BracedGuid(const GUID& g);

// A registered provider as the registry has it, and whether its module loads.
struct RegisteredProvider {
    std::string providerId, classId, name, version, versionId;
    uint32_t type = 0;
    std::string module;   // InprocServer32 of the class; empty when the class is not registered
    bool loads = false;
    std::string problem;  // why it doesn't load
};
// Every provider of the registry, in the order of their ids. With `probe` each module is opened
// and asked for its class factory.
std::vector<RegisteredProvider> ListProviders(const RegistryFile& reg, bool probe);
// Opens `module` and asks its DllGetClassObject for the factory of `classId`; false with *why.
bool ProbeModule(const std::string& module, const GUID& classId, std::string* why);

// The module a host should load when none is named: the first registered hardware provider whose
// class names a module file. Returns 1 (found: *module, *classId), 0 (no host registry file: the
// caller falls back on its development default) or -1 (*err says why: unreadable, malformed, or
// no provider registered).
int FindRegisteredModule(std::string* module, GUID* classId, std::string* err);

// The module a run loads and its class: `option` (--module) when given, else TROVCTL_MODULE, else
// the registered one (FindRegisteredModule), else DefaultModulePath(). False with *err when the
// host registry exists but gives none.
bool ResolveModule(const std::string& option, std::string* module, GUID* classId, std::string* err);

// The management service's IVdsAdmin over the host registry at `path`. The last failure's text is
// kept in *lastError (which must outlive the object).
IVdsAdmin* NewVdsAdmin(const std::string& path, std::string* lastError);

// Runs a module's DllRegisterServer or DllUnregisterServer with trovctl's services installed (the
// admin object above, and the class registry in the same file). Returns the entry point's result;
// *message says what went wrong (a module that doesn't open, a registry failure) or is empty.
HRESULT RunRegistration(const std::string& module, bool reg, const std::string& registryPath,
                        std::string* message);

}  // namespace trovctl
