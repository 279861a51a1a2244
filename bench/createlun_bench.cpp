// CreateLun on the largest array (the emulator's `max` scenario: 32 full vdisks of 128 volumes),
// beside the floor of the same exchanges over raw loopback, in one run.
//
// The request scans every vdisk of both controllers for room (first fit), finds none, chooses
// free drives for a new vdisk, creates it and its partition, and updates the member drives. Each
// iteration starts a fresh emulator and loads a fresh provider (not timed: a LUN made earlier
// would change what the next request finds), then times the CreateLun against the emulator, and
// the same exchanges raw: the requests of one recorded creation (bench/replay.h) replayed from
// memory over loopback, with nothing done with the bytes. The emulator keeps its encoded records
// and renews only what the creation changed. The fake clock lets the pauses a creation makes pass
// at once. Counters (medians): create_ms, raw_ms, ratio = create/raw, exchanges, create_mib.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/globals.h"
#include "lun/lun.h"
#include "module/module.h"
#include "platform/provider_ids.h"
#include "platform/vds_interfaces.h"
#include "replay.h"
#include "sim/sim.h"
#include "testlib/fake_platform.h"

namespace {

using Clock = std::chrono::steady_clock;

double Ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Loaded {
    IVdsProvider* provider = nullptr;
    IVdsProviderPrivate* priv = nullptr;
    IVdsSubSystem* sub = nullptr;

    HRESULT Load() {
        IClassFactory* f = nullptr;
        if (FAILED(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f))))
            return E_FAIL;
        f->CreateInstance(nullptr, IID_IVdsProvider, reinterpret_cast<void**>(&provider));
        f->Release();
        if (!provider) return E_FAIL;
        provider->QueryInterface(IID_IVdsProviderPrivate, reinterpret_cast<void**>(&priv));
        HRESULT hr = priv->OnLoad(nullptr, nullptr);
        IVdsHwProvider* hw = nullptr;
        provider->QueryInterface(IID_IVdsHwProvider, reinterpret_cast<void**>(&hw));
        IEnumVdsObject* e = nullptr;
        IUnknown* unk = nullptr;
        ULONG got = 0;
        if (hw && SUCCEEDED(hw->QuerySubSystems(&e)) && e && e->Next(1, &unk, &got) == S_OK) {
            unk->QueryInterface(IID_IVdsSubSystem, reinterpret_cast<void**>(&sub));
            unk->Release();
        }
        if (e) e->Release();
        if (hw) hw->Release();
        return sub ? hr : E_FAIL;
    }
    // A RAID5 LUN of 1 GiB, no drives named.
    HRESULT CreateLun() {
        // The generated names start again, so that every run sends the recorded requests.
        ResetNewNamesForTest();
        VDS_HINTS hints{};
        WCHAR empty[1] = {0};
        IVdsAsync* async = nullptr;
        HRESULT hr = sub->CreateLun(VDS_LT_RAID5, 1ull << 30, nullptr, 0, empty, &hints, &async);
        if (async) async->Release();
        return hr;
    }
    void Unload() {
        if (sub) sub->Release();
        if (priv) priv->OnUnload(FALSE);
        if (priv) priv->Release();
        if (provider) provider->Release();
        *this = Loaded{};
    }
};

struct Fixture {
    std::string dir, error;
    std::unique_ptr<TestPlatform> tp;

    // A fresh fake platform (its clock from zero). The old one goes first: each restores the
    // platform it replaced.
    void FreshPlatform() {
        tp.reset();
        tp = std::make_unique<TestPlatform>();
        tp->Install();
        tp->SetRecordDebugger(false);
        tp->SetSystemDirectories(dir, dir + "/none");
    }
    std::unique_ptr<bench::Tap> tap;
    std::unique_ptr<bench::ReplayPeer> peer;
    std::vector<bench::Exchange> createSequence;
    trovsim::Options options;

    // A fresh emulator of `max`, and a configuration that points the provider at it.
    std::unique_ptr<trovsim::Server> StartEmulator() {
        auto sim = std::make_unique<trovsim::Server>(options);
        if (!sim->LoadScenario("max", &error) || !sim->Start(&error)) return nullptr;
        bench::WriteClientConfig(dir, sim->port(), options.user, options.password);
        return sim;
    }

    Fixture() {
        char tmpl[] = "/tmp/trovbench.XXXXXX";
        dir = mkdtemp(tmpl);
        FreshPlatform();
        options.logRequests = false;
        options.heartbeatIntervalMs = 0;
        options.logSink = [](const std::string&) {};
        trovsim::Server sim(options);
        if (!sim.LoadScenario("max", &error) || !sim.Start(&error)) return;
        tap = std::make_unique<bench::Tap>(sim.port());
        bench::WriteClientConfig(dir, tap->port(), options.user, options.password);
        Loaded p;
        if (FAILED(p.Load())) error = "recording load failed";
        size_t afterLoad = tap->recording().Sequence().size();
        if (error.empty() && FAILED(p.CreateLun())) error = "recording create failed";
        size_t afterCreate = tap->recording().Sequence().size();
        p.Unload();
        tap->Stop();
        sim.Stop();
        const auto& seq = tap->recording().Sequence();
        createSequence.assign(seq.begin() + static_cast<long>(afterLoad),
                              seq.begin() + static_cast<long>(afterCreate));
        peer = std::make_unique<bench::ReplayPeer>(tap->recording());
    }
    ~Fixture() {
        peer.reset();
        std::string cmd = "rm -rf '" + dir + "'";
        if (std::system(cmd.c_str()) != 0) {
        }
    }
};

Fixture& Shared() {
    static Fixture* f = new Fixture();
    return *f;
}

void BM_CreateLunMax(benchmark::State& state) {
    Fixture& f = Shared();
    // The fake platform goes when the benchmark ends, so that the benchmarks after it find the
    // platform they started with.
    struct PutBack {
        Fixture& f;
        ~PutBack() { f.tp.reset(); }
    } putBack{f};
    if (!f.error.empty() || !f.peer) {
        state.SkipWithError(("no recording: " + f.error).c_str());
        return;
    }
    std::vector<double> raw, create;
    for (auto _ : state) {
        state.PauseTiming();
        f.FreshPlatform();
        std::unique_ptr<trovsim::Server> sim = f.StartEmulator();
        Loaded p;
        HRESULT loaded = sim ? p.Load() : E_FAIL;
        state.ResumeTiming();
        auto t0 = Clock::now();
        HRESULT hr = SUCCEEDED(loaded) ? p.CreateLun() : loaded;
        auto t1 = Clock::now();
        uint64_t bytes = bench::RawExchanges(f.peer->port(), f.createSequence);
        auto t2 = Clock::now();
        state.PauseTiming();
        p.Unload();
        if (sim) sim->Stop();
        state.ResumeTiming();
        if (FAILED(hr) || bytes == 0) {
            char why[96];
            std::snprintf(why, sizeof why, "creation 0x%08x, %llu raw bytes, %llu unknown requests",
                          static_cast<unsigned>(hr), static_cast<unsigned long long>(bytes),
                          static_cast<unsigned long long>(f.peer->unknownRequests()));
            state.SkipWithError(why);
            return;
        }
        create.push_back(Ms(t0, t1));
        raw.push_back(Ms(t1, t2));
    }
    double r = Median(raw), c = Median(create);
    state.counters["create_ms"] = c;
    state.counters["raw_ms"] = r;
    state.counters["ratio"] = r > 0 ? c / r : 0;
    state.counters["exchanges"] = double(f.createSequence.size());
    uint64_t bytes = 0;
    for (const auto& e : f.createSequence) bytes += e.request.size() + e.reply->size();
    state.counters["create_mib"] = double(bytes) / (1 << 20);
    state.counters["unknown_requests"] = double(f.peer->unknownRequests());
}
BENCHMARK(BM_CreateLunMax)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
