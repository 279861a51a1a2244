// A provider loaded as a host loads it (the module's class factory), on the fake platform, with
// the emulator in-process as the proxy service. Shared by the provider's integration tests.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "core/globals.h"
#include "platform/provider_ids.h"
#include "testlib/fake_platform.h"
#include "platform/vds_interfaces.h"
#include "proxy/session.h"
#include "sim/sim.h"
#include "support/debuglog.h"
#include "module/module.h"

namespace testlib {

inline int CountEntries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n - 2;
}
inline int ThreadCount() { return CountEntries("/proc/self/task"); }
inline int FdCount() { return CountEntries("/proc/self/fd") - 1; }  // less the one opendir holds

// What each descriptor points at, for the message of a failed count.
inline std::string FdList() {
    std::string out;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            char target[256] = {};
            std::string path = std::string("/proc/self/fd/") + e->d_name;
            ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
            out += std::string(e->d_name) + "->" + (n > 0 ? target : "?") + " ";
        }
        closedir(d);
    }
    return out;
}

// Waits (for real, briefly) until pred() holds; for threads that end on their own.
template <class Pred>
bool Eventually(Pred pred, int ms = 5000) {
    for (int i = 0; i < ms / 5; ++i) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

// Every object of an enumeration, as interface T (each a counted reference).
template <class T>
std::vector<CComPtr<T>> Collect(IEnumVdsObject* e, REFIID iid) {
    std::vector<CComPtr<T>> out;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    while (e->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
        void* p = nullptr;
        if (SUCCEEDED(unk->QueryInterface(iid, &p)) && p) {
            CComPtr<T> ptr;
            ptr.Attach(static_cast<T*>(p));
            out.push_back(std::move(ptr));
        }
        unk->Release();
    }
    return out;
}

// Runs a query method that hands out an enumerator and collects it.
template <class T, class Q>
std::vector<CComPtr<T>> CollectFrom(Q query, REFIID iid, HRESULT* hr = nullptr) {
    IEnumVdsObject* e = nullptr;
    HRESULT r = query(&e);
    if (hr) *hr = r;
    std::vector<CComPtr<T>> out;
    if (SUCCEEDED(r) && e) {
        out = Collect<T>(e, iid);
        e->Release();
    }
    return out;
}

inline std::string Narrow(const WCHAR* s) {
    std::string out;
    for (; s && *s; ++s) out.push_back(static_cast<char>(*s));
    return out;
}

class ProviderEnv {
public:
    explicit ProviderEnv(const std::string& scenario = "demo", trovsim::Options simOptions = {}) {
        char tmpl[] = "/tmp/trovtest.XXXXXX";
        dir_ = mkdtemp(tmpl);
        tp.Install();
        tp.SetSystemDirectories(dir_, dir_ + "/none");
        ResetProcessStateForTest();
        if (!simOptions.logSink) simOptions.logRequests = false;
        simOptions.heartbeatIntervalMs = 0;
        sim = std::make_unique<trovsim::Server>(simOptions);
        std::string err;
        EXPECT_TRUE(sim->LoadScenario(scenario, &err)) << err;
        EXPECT_TRUE(sim->Start(&err)) << err;
        EXPECT_TRUE(sim->WriteKelvaneConf(dir_ + "/kelvane.conf", &err)) << err;
    }
    ~ProviderEnv() {
        if (provider) Unload();
        sim->Stop();
        ResetProcessStateForTest();
        std::string cmd = "rm -rf '" + dir_ + "'";
        if (system(cmd.c_str()) != 0) {
        }
    }
    const std::string& dir() const { return dir_; }

    // Creates a provider through the class factory; the caller owns the reference.
    static IVdsProvider* Create() {
        IClassFactory* f = nullptr;
        EXPECT_EQ(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f)), S_OK);
        if (!f) return nullptr;
        IVdsProvider* p = nullptr;
        EXPECT_EQ(f->CreateInstance(nullptr, IID_IVdsProvider, reinterpret_cast<void**>(&p)), S_OK);
        f->Release();
        return p;
    }

    HRESULT Load(IUnknown* sink = nullptr) {
        provider = Create();
        if (!provider) return E_FAIL;
        IVdsProviderPrivate* priv = nullptr;
        provider->QueryInterface(IID_IVdsProviderPrivate, reinterpret_cast<void**>(&priv));
        HRESULT hr = priv->OnLoad(nullptr, sink);
        priv->Release();
        return hr;
    }
    HRESULT Unload() {
        IVdsProviderPrivate* priv = nullptr;
        provider->QueryInterface(IID_IVdsProviderPrivate, reinterpret_cast<void**>(&priv));
        HRESULT hr = priv->OnUnload(FALSE);
        priv->Release();
        provider->Release();
        provider = nullptr;
        return hr;
    }
    // The subsystems of the loaded provider (each a counted reference).
    std::vector<CComPtr<IVdsSubSystem>> SubSystems() {
        std::vector<CComPtr<IVdsSubSystem>> out;
        IVdsHwProvider* hw = Query<IVdsHwProvider>(IID_IVdsHwProvider);
        if (!hw) return out;
        IEnumVdsObject* e = nullptr;
        if (SUCCEEDED(hw->QuerySubSystems(&e)) && e) {
            out = Collect<IVdsSubSystem>(e, IID_IVdsSubSystem);
            e->Release();
        }
        hw->Release();
        return out;
    }
    template <class T>
    T* Query(REFIID iid) {
        void* p = nullptr;
        if (!provider || FAILED(provider->QueryInterface(iid, &p))) return nullptr;
        return static_cast<T*>(p);
    }

    TestPlatform tp;
    std::unique_ptr<trovsim::Server> sim;
    IVdsProvider* provider = nullptr;

private:
    std::string dir_;
};

}  // namespace testlib
