#include "host_registry.h"
#include "host_object.h"
#include "provider_host.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "platform/host_services.h"
#include "platform/provider_ids.h"
#include "platform/settings.h"
#include "platform/vds.h"

namespace trovctl {

namespace {

constexpr const char* kDefaultRegistry = "/etc/trovhwiprv/host.reg";
constexpr const char* kDefaultSettings = "/etc/trovhwiprv/settings.reg";
constexpr const char* kHeader = "Windows Registry Editor Version 5.00";

// Results the platform gives for these failures (HRESULT_FROM_WIN32 of its error numbers).
constexpr HRESULT kHrFileNotFound = static_cast<HRESULT>(0x80070002L);
constexpr HRESULT kHrPathNotFound = static_cast<HRESULT>(0x80070003L);
constexpr HRESULT kHrInvalidData = static_cast<HRESULT>(0x8007000DL);
constexpr HRESULT kHrModNotFound = static_cast<HRESULT>(0x8007007EL);
constexpr HRESULT kHrProcNotFound = static_cast<HRESULT>(0x8007007FL);

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

// Reads "..." at s[i]; advances i past the closing quote. \\ and \" are escapes.
bool ReadQuoted(const std::string& s, size_t& i, std::string* out) {
    if (i >= s.size() || s[i] != '"') return false;
    std::string r;
    for (++i; i < s.size(); ++i) {
        char c = s[i];
        if (c == '\\' && i + 1 < s.size()) {
            r += s[++i];
        } else if (c == '"') {
            ++i;
            *out = r;
            return true;
        } else {
            r += c;
        }
    }
    return false;
}

std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '\\' || c == '"') out += '\\';
        out += c;
    }
    return out + "\"";
}

bool StartsWithKey(const std::string& key, const std::string& parent) {
    return key.size() > parent.size() + 1 && strncasecmp(key.c_str(), parent.c_str(), parent.size()) == 0 &&
           key[parent.size()] == '\\';
}

std::string Dirname(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string Basename(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The whole file; false with *err (an errno value).
bool ReadAll(const std::string& path, std::string* out, int* err) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *err = errno;
        return false;
    }
    out->clear();
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *err = errno;
            close(fd);
            return false;
        }
        if (n == 0) break;
        out->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

// Holds an exclusive lock on the registry's folder for one read-change-write, so that two
// registrations at once (a package's and an operator's) can't lose one another's change. Without
// the folder there is nothing to lock, and the write will fail anyway.
class FolderLock {
public:
    explicit FolderLock(const std::string& path) {
        fd_ = open(Dirname(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd_ >= 0)
            while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
    }
    ~FolderLock() {
        if (fd_ >= 0) close(fd_);  // closing drops the lock
    }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

private:
    int fd_ = -1;
};

RegistryResult Fail(int error, std::string message) { return RegistryResult{error, std::move(message)}; }

}  // namespace

bool RegistryFile::CaseLess::operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

std::string RegistryFile::NormalizeKey(const std::string& key) {
    std::string k = key;
    static const struct {
        const char* abbreviation;
        const char* root;
    } kRoots[] = {{"HKLM\\", "HKEY_LOCAL_MACHINE\\"}, {"HKCR\\", "HKEY_CLASSES_ROOT\\"}};
    for (const auto& r : kRoots) {
        size_t n = std::strlen(r.abbreviation);
        if (k.size() >= n && strncasecmp(k.c_str(), r.abbreviation, n) == 0) k = r.root + k.substr(n);
    }
    while (!k.empty() && k.back() == '\\') k.pop_back();
    return k;
}

bool RegistryFile::Apply(const std::string& text, std::string* err) {
    RegistryFile next = *this;
    std::istringstream in(text);
    std::string raw;
    std::string current;
    bool haveKey = false;
    int lineNo = 0;
    auto bad = [&](const std::string& why) {
        if (err) *err = "line " + std::to_string(lineNo) + ": " + why;
        return false;
    };
    while (std::getline(in, raw)) {
        ++lineNo;
        std::string line = Trim(raw);
        if (line.empty() || line[0] == ';' || line == kHeader || line == "REGEDIT4") continue;
        if (line[0] == '[') {
            if (line.back() != ']') return bad("a key without its closing bracket");
            std::string k = line.substr(1, line.size() - 2);
            bool remove = !k.empty() && k[0] == '-';
            if (remove) k.erase(0, 1);
            k = NormalizeKey(k);
            if (k.compare(0, 5, "HKEY_") != 0 || k.find('\\') == std::string::npos)
                return bad("\"" + k + "\" is no key beneath a registry root (HKEY_...)");
            if (remove) {
                next.RemoveTree(k);
                haveKey = false;
            } else {
                next.keys_[k];
                current = k;
                haveKey = true;
            }
            continue;
        }
        if (line[0] != '"' && line[0] != '@') return bad("neither a key, a value nor a comment");
        if (!haveKey) return bad("a value before any key");
        size_t i = 0;
        std::string name;
        if (line[0] == '@') {
            i = 1;
        } else if (!ReadQuoted(line, i, &name)) {
            return bad("a value name without its closing quote");
        }
        while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
        if (i >= line.size() || line[i] != '=') return bad("a value name without \"=\"");
        std::string rest = Trim(line.substr(i + 1));
        if (rest == "-") {
            next.keys_[current].erase(name);
            continue;
        }
        Value v;
        if (!rest.empty() && rest[0] == '"') {
            size_t j = 0;
            if (!ReadQuoted(rest, j, &v.text)) return bad("a text value without its closing quote");
            if (j != rest.size()) return bad("text after a quoted value");
        } else if (rest.compare(0, 6, "dword:") == 0) {
            std::string hex = rest.substr(6);
            bool ok = hex.size() == 8;
            for (char c : hex) ok = ok && std::isxdigit(static_cast<unsigned char>(c));
            if (!ok) return bad("a dword that is not eight hex digits");
            v.isDword = true;
            v.dword = static_cast<uint32_t>(std::strtoul(hex.c_str(), nullptr, 16));
        } else {
            return bad("a value that is neither \"text\" nor dword:XXXXXXXX");
        }
        next.keys_[current][name] = v;
    }
    *this = std::move(next);
    return true;
}

std::string RegistryFile::Text() const {
    std::string out = std::string(kHeader) + "\n";
    for (const auto& [key, values] : keys_) {
        out += "\n[" + key + "]\n";
        for (const auto& [name, v] : values) {
            out += name.empty() ? "@" : Quoted(name);
            if (v.isDword) {
                char hex[16];
                std::snprintf(hex, sizeof hex, "%08x", v.dword);
                out += std::string("=dword:") + hex + "\n";
            } else {
                out += "=" + Quoted(v.text) + "\n";
            }
        }
    }
    return out;
}

bool RegistryFile::KeyExists(const std::string& key) const { return keys_.count(NormalizeKey(key)) != 0; }

const RegistryFile::Value* RegistryFile::Find(const std::string& key, const std::string& name) const {
    auto k = keys_.find(NormalizeKey(key));
    if (k == keys_.end()) return nullptr;
    auto v = k->second.find(name);
    return v == k->second.end() ? nullptr : &v->second;
}

std::vector<std::string> RegistryFile::SubKeys(const std::string& key) const {
    std::string parent = NormalizeKey(key);
    std::vector<std::string> out;
    for (const auto& [k, values] : keys_) {
        if (!StartsWithKey(k, parent)) continue;
        std::string child = k.substr(parent.size() + 1);
        child = child.substr(0, child.find('\\'));
        bool seen = false;
        for (const std::string& o : out) seen = seen || strcasecmp(o.c_str(), child.c_str()) == 0;
        if (!seen) out.push_back(child);
    }
    return out;
}

void RegistryFile::SetString(const std::string& key, const std::string& name, const std::string& text) {
    Value v;
    v.text = text;
    keys_[NormalizeKey(key)][name] = v;
}

void RegistryFile::SetDword(const std::string& key, const std::string& name, uint32_t value) {
    Value v;
    v.isDword = true;
    v.dword = value;
    keys_[NormalizeKey(key)][name] = v;
}

bool RegistryFile::RemoveTree(const std::string& key) {
    std::string k = NormalizeKey(key);
    bool removed = keys_.erase(k) != 0;
    for (auto it = keys_.begin(); it != keys_.end();) {
        if (StartsWithKey(it->first, k)) {
            it = keys_.erase(it);
            removed = true;
        } else {
            ++it;
        }
    }
    return removed;
}

std::string HostRegistryPath() {
    const char* env = std::getenv("TROVCTL_REGISTRY");
    if (env && *env) return env;
    const char* settings = std::getenv("TROVHWIPRV_SETTINGS");
    std::string text;
    int err = 0;
    if (ReadAll(settings && *settings ? settings : kDefaultSettings, &text, &err)) {
        SettingsStore store;
        store.Parse(text);
        const SettingsStore::Value* v = store.Find("SOFTWARE\\Trov\\trovctl", "HostRegistry");
        if (v && v->type == SettingsStore::Type::String && !v->text.empty()) return v->text;
    }
    return kDefaultRegistry;
}

RegistryResult LoadHostRegistry(const std::string& path, RegistryFile* out, bool* existed) {
    *out = RegistryFile();
    if (existed) *existed = false;
    struct stat st{};
    if (stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return {};
        return Fail(errno, "cannot read the host registry " + path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(st.st_mode)) return Fail(EISDIR, "cannot read the host registry " + path + ": it is not a file");
    std::string text;
    int err = 0;
    if (!ReadAll(path, &text, &err))
        return Fail(err ? err : EIO, "cannot read the host registry " + path + ": " + std::strerror(err ? err : EIO));
    if (existed) *existed = true;
    std::string why;
    if (!out->Apply(text, &why)) return Fail(EINVAL, "the host registry " + path + " is malformed: " + why);
    return {};
}

RegistryResult SaveHostRegistry(const std::string& path, const RegistryFile& data) {
    mode_t mode = 0644;
    struct stat st{};
    if (stat(path.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode)) return Fail(EISDIR, "cannot write the host registry " + path + ": it is not a file");
        // A file nobody may write is read-only to trovctl too, even for root, who could.
        if ((st.st_mode & 0222) == 0 || access(path.c_str(), W_OK) != 0)
            return Fail(EACCES, "the host registry " + path + " is read-only");
        mode = st.st_mode & 07777;
    }
    std::string tmp = Dirname(path) + "/." + Basename(path) + ".XXXXXX";
    int fd = mkstemp(tmp.data());
    if (fd < 0) {
        int e = errno;
        return Fail(e, "cannot write the host registry " + path + ": " + std::strerror(e));
    }
    std::string text = data.Text();
    const char* p = text.data();
    size_t left = text.size();
    int e = 0;
    while (left > 0 && e == 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) e = n < 0 ? errno : EIO;
        else p += n, left -= static_cast<size_t>(n);
    }
    if (e == 0 && fchmod(fd, mode) != 0) e = errno;
    if (e == 0 && fsync(fd) != 0) e = errno;
    if (close(fd) != 0 && e == 0) e = errno;
    if (e == 0 && rename(tmp.c_str(), path.c_str()) != 0) e = errno;
    if (e != 0) {
        unlink(tmp.c_str());
        return Fail(e, "cannot write the host registry " + path + ": " + std::strerror(e));
    }
    return {};
}

HRESULT RegistryHr(const RegistryResult& r) {
    switch (r.error) {
        case 0: return S_OK;
        case EACCES:
        case EPERM:
        case EROFS: return E_ACCESSDENIED;
        case EINVAL: return kHrInvalidData;
        case ENOENT:
        case ENOTDIR: return kHrPathNotFound;
        default: return E_FAIL;
    }
}

std::string BracedGuid(const GUID& g) {
    std::string s = GuidToString(g);
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return "{" + s + "}";
}

std::string ProviderKey(const GUID& providerId) { return std::string(kProvidersKey) + "\\" + BracedGuid(providerId); }

bool ProbeModule(const std::string& module, const GUID& classId, std::string* why) {
    struct stat st{};
    if (stat(module.c_str(), &st) != 0) {
        *why = "module " + module + ": " + std::strerror(errno);
        return false;
    }
    // The module stays mapped: unmapping would run its detach for nothing.
    void* h = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!h) {
        const char* e = dlerror();
        *why = e ? e : "cannot open " + module;
        return false;
    }
    auto get = reinterpret_cast<HRESULT (*)(REFCLSID, REFIID, void**)>(dlsym(h, "DllGetClassObject"));
    if (!get) {
        *why = "module " + module + " has no DllGetClassObject";
        return false;
    }
    IClassFactory* factory = nullptr;
    HRESULT hr = get(classId, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (FAILED(hr) || !factory) {
        *why = "module " + module + " has no class " + BracedGuid(classId);
        return false;
    }
    factory->Release();
    return true;
}

std::vector<RegisteredProvider> ListProviders(const RegistryFile& reg, bool probe) {
    std::vector<RegisteredProvider> out;
    auto text = [&](const std::string& key, const char* name) {
        const RegistryFile::Value* v = reg.Find(key, name);
        return v && !v->isDword ? v->text : std::string();
    };
    for (const std::string& id : reg.SubKeys(kProvidersKey)) {
        std::string key = std::string(kProvidersKey) + "\\" + id;
        RegisteredProvider p;
        p.providerId = id;
        p.name = text(key, "Name");
        p.classId = text(key, "CLSID");
        p.version = text(key, "Version");
        p.versionId = text(key, "VersionId");
        const RegistryFile::Value* type = reg.Find(key, "Type");
        p.type = type && type->isDword ? type->dword : 0;
        GUID clsid{};
        bool validClass = GuidFromString(p.classId, &clsid);
        if (validClass) p.module = text("HKEY_CLASSES_ROOT\\CLSID\\" + BracedGuid(clsid) + "\\InprocServer32", "");
        if (!probe) {
            p.loads = validClass && !p.module.empty();
        } else if (!validClass) {
            p.problem = "its class id \"" + p.classId + "\" is no GUID";
        } else if (p.module.empty()) {
            p.problem = "its class " + BracedGuid(clsid) + " names no module";
        } else {
            p.loads = ProbeModule(p.module, clsid, &p.problem);
        }
        out.push_back(std::move(p));
    }
    return out;
}

int FindRegisteredModule(std::string* module, GUID* classId, std::string* err) {
    std::string path = HostRegistryPath();
    RegistryFile reg;
    bool existed = false;
    RegistryResult r = LoadHostRegistry(path, &reg, &existed);
    if (!r.ok()) {
        *err = r.message;
        return -1;
    }
    if (!existed) return 0;
    for (const RegisteredProvider& p : ListProviders(reg, false)) {
        if (p.type != VDS_PT_HARDWARE || !p.loads) continue;
        GuidFromString(p.classId, classId);
        *module = p.module;
        return 1;
    }
    *err = "no hardware provider with a module is registered in " + path +
           " (\"trovctl register MODULE\" registers one; --module PATH loads one without registering)";
    return -1;
}

bool ResolveModule(const std::string& option, std::string* module, GUID* classId, std::string* err) {
    *classId = CLSID_TrovHwProvider;
    const char* env = std::getenv("TROVCTL_MODULE");
    if (!option.empty() || (env && *env)) {
        *module = !option.empty() ? option : env;
        return true;
    }
    int found = FindRegisteredModule(module, classId, err);
    if (found == 0) *module = DefaultModulePath();
    return found >= 0;
}

namespace {

class VdsAdmin final : public trovctl::HostObject<IVdsAdmin> {
public:
    VdsAdmin(std::string path, std::string* lastError)
        : HostObject(IID_IVdsAdmin), path_(std::move(path)), lastError_(lastError) {}


    HRESULT RegisterProvider(VDS_OBJECT_ID providerId, CLSID providerClsid, LPWSTR pwszName, VDS_PROVIDER_TYPE type,
                             LPWSTR pwszMachineName, LPWSTR pwszVersion, GUID guidVersionId) override {
        if (!pwszName || !pwszVersion) return E_POINTER;
        std::string name = Utf16ToUtf8(pwszName), version = Utf16ToUtf8(pwszVersion);
        std::string machine = pwszMachineName ? Utf16ToUtf8(pwszMachineName) : std::string();
        // The file holds one value a line.
        for (const std::string* s : {&name, &version, &machine})
            if (s->find_first_of("\r\n") != std::string::npos) return Failed(E_INVALIDARG, "a line break in a provider's name or version");
        FolderLock lock(path_);
        RegistryFile reg;
        RegistryResult r = LoadHostRegistry(path_, &reg);
        if (!r.ok()) return Failed(RegistryHr(r), r.message);
        std::string key = ProviderKey(providerId);
        reg.RemoveTree(key);  // registering again replaces the old entry whole
        reg.SetString(key, "Name", name);
        reg.SetString(key, "CLSID", BracedGuid(providerClsid));
        reg.SetDword(key, "Type", static_cast<uint32_t>(type));
        reg.SetString(key, "Version", version);
        reg.SetString(key, "VersionId", BracedGuid(guidVersionId));
        if (!machine.empty()) reg.SetString(key, "MachineName", machine);
        r = SaveHostRegistry(path_, reg);
        return r.ok() ? S_OK : Failed(RegistryHr(r), r.message);
    }

    HRESULT UnregisterProvider(VDS_OBJECT_ID providerId) override {
        FolderLock lock(path_);
        RegistryFile reg;
        RegistryResult r = LoadHostRegistry(path_, &reg);
        if (!r.ok()) return Failed(RegistryHr(r), r.message);
        if (!reg.RemoveTree(ProviderKey(providerId)))
            return Failed(VDS_E_OBJECT_NOT_FOUND,
                          "provider " + BracedGuid(providerId) + " is not registered in " + path_);
        r = SaveHostRegistry(path_, reg);
        return r.ok() ? S_OK : Failed(RegistryHr(r), r.message);
    }

private:
    ~VdsAdmin() override = default;
    HRESULT Failed(HRESULT hr, const std::string& message) {
        if (lastError_) *lastError_ = message;
        return hr;
    }
    std::string path_;
    std::string* lastError_;
};

struct RegistrationContext {
    std::string path;
    std::string lastError;
};

HRESULT CreateInstance(void* context, REFCLSID clsid, REFIID iid, void** ppv) {
    auto* c = static_cast<RegistrationContext*>(context);
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (clsid != CLSID_VdsService) return REGDB_E_CLASSNOTREG;
    IVdsAdmin* admin = NewVdsAdmin(c->path, &c->lastError);
    HRESULT hr = admin->QueryInterface(iid, ppv);
    admin->Release();
    return hr;
}

HRESULT ApplyRegistry(void* context, const char* script) {
    auto* c = static_cast<RegistrationContext*>(context);
    if (!script) return E_POINTER;
    FolderLock lock(c->path);
    RegistryFile reg;
    RegistryResult r = LoadHostRegistry(c->path, &reg);
    if (r.ok()) {
        std::string why;
        if (!reg.Apply(script, &why)) {
            c->lastError = "the module's class keys are malformed: " + why;
            return E_INVALIDARG;
        }
        r = SaveHostRegistry(c->path, reg);
    }
    if (r.ok()) return S_OK;
    c->lastError = r.message;
    return RegistryHr(r);
}

}  // namespace

IVdsAdmin* NewVdsAdmin(const std::string& path, std::string* lastError) { return new VdsAdmin(path, lastError); }

HRESULT RunRegistration(const std::string& module, bool reg, const std::string& registryPath, std::string* message) {
    message->clear();
    struct stat st{};
    if (stat(module.c_str(), &st) != 0) {
        *message = "module " + module + ": " + std::strerror(errno);
        return kHrFileNotFound;
    }
    void* h = dlopen(module.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!h) {
        const char* e = dlerror();
        *message = e ? e : "cannot open " + module;
        return kHrModNotFound;
    }
    const char* entryName = reg ? "DllRegisterServer" : "DllUnregisterServer";
    auto entry = reinterpret_cast<HRESULT (*)()>(dlsym(h, entryName));
    auto setServices = reinterpret_cast<TrovSetHostServicesFn>(dlsym(h, "TrovSetHostServices"));
    if (!entry || !setServices) {
        *message = "module " + module + " has no " + (entry ? "TrovSetHostServices" : entryName);
        return kHrProcNotFound;
    }
    RegistrationContext context{registryPath, {}};
    TrovHostServices services{&context, CreateInstance, ApplyRegistry};
    setServices(&services);
    HRESULT hr = entry();
    setServices(nullptr);
    if (FAILED(hr)) *message = context.lastError;
    return hr;
}

}  // namespace trovctl
