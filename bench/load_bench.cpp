// Loading the largest array (the emulator's `max` scenario) through the provider, beside the
// floor of the same exchanges over raw loopback, in one run.
//
// The emulator's replies are recorded once (bench/replay.h) and replayed from memory, so that
// what is measured is the provider and the wire. Each iteration of BM_LoadMax times, in turn:
// the raw exchanges of a load (request bytes sent, reply bytes read, nothing done with them);
// a cold load (a new provider's OnLoad); and a refresh of the loaded tree. Counters (medians
// over the iterations): load_ms, raw_ms, ratio = load/raw (target at most 1.5), refresh_ms,
// refresh_ratio = refresh/load (target at most 1.1), and peak_mib, the peak resident memory of
// a separate process that loads and refreshes `max` (target at most 32). Wall figures on a shared
// machine move with its neighbours; raw_cpu_ms and load_cpu_ms, the CPU time of the thread that
// runs the exchanges (the provider's caller, for the load), show what the provider itself adds.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "module/module.h"
#include "platform/provider_ids.h"
#include "platform/vds_interfaces.h"
#include "replay.h"
#include "sim/sim.h"

namespace {

using Clock = std::chrono::steady_clock;

double Ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// A provider made as a host makes it, loaded without an advise sink (so no monitor threads).
struct Loaded {
    IVdsProvider* provider = nullptr;
    IVdsProviderPrivate* priv = nullptr;
    IVdsHwProvider* hw = nullptr;

    HRESULT Load() {
        IClassFactory* f = nullptr;
        if (FAILED(DllGetClassObject(CLSID_TrovHwProvider, IID_IClassFactory, reinterpret_cast<void**>(&f))))
            return E_FAIL;
        f->CreateInstance(nullptr, IID_IVdsProvider, reinterpret_cast<void**>(&provider));
        f->Release();
        if (!provider) return E_FAIL;
        provider->QueryInterface(IID_IVdsProviderPrivate, reinterpret_cast<void**>(&priv));
        provider->QueryInterface(IID_IVdsHwProvider, reinterpret_cast<void**>(&hw));
        return priv->OnLoad(nullptr, nullptr);
    }
    void Unload() {
        if (priv) priv->OnUnload(FALSE);
        if (hw) hw->Release();
        if (priv) priv->Release();
        if (provider) provider->Release();
        provider = nullptr;
        priv = nullptr;
        hw = nullptr;
    }
};

// The recorded session of one load and one refresh of `max`, and a peer that replays it.
struct Fixture {
    std::string dir;
    std::unique_ptr<bench::Tap> tap;
    std::unique_ptr<bench::ReplayPeer> peer;
    std::vector<bench::Exchange> loadSequence;
    std::string settings;
    std::string error;

    Fixture() {
        char tmpl[] = "/tmp/trovbench.XXXXXX";
        dir = mkdtemp(tmpl);
        trovsim::Options o;
        o.logRequests = false;
        o.heartbeatIntervalMs = 0;
        o.logSink = [](const std::string&) {};
        trovsim::Server sim(o);
        if (!sim.LoadScenario("max", &error) || !sim.Start(&error)) return;
        tap = std::make_unique<bench::Tap>(sim.port());
        setenv("TROVHWIPRV_SETTINGS", bench::WriteClientConfig(dir, tap->port(), o.user, o.password).c_str(), 1);
        Loaded p;
        if (FAILED(p.Load())) error = "recording load failed";
        size_t afterLoad = tap->recording().Sequence().size();
        if (p.hw) p.hw->Refresh();
        p.Unload();
        tap->Stop();
        sim.Stop();
        const auto& seq = tap->recording().Sequence();
        loadSequence.assign(seq.begin(), seq.begin() + static_cast<long>(afterLoad));
        peer = std::make_unique<bench::ReplayPeer>(tap->recording());
        settings = bench::WriteClientConfig(dir, peer->port(), o.user, o.password);
        setenv("TROVHWIPRV_SETTINGS", settings.c_str(), 1);
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

std::string g_self;

// Peak resident memory, in KiB, of a child process that loads and refreshes the array.
long ChildPeakKiB(const std::string& settings) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        execl(g_self.c_str(), g_self.c_str(), "--memory-child", settings.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    char buf[64] = {};
    ssize_t n = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return n > 0 ? std::atol(buf) : -1;
}

long VmHwmKiB() {
    std::ifstream f("/proc/self/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

int MemoryChild(const char* settings) {
    setenv("TROVHWIPRV_SETTINGS", settings, 1);
    Loaded p;
    if (FAILED(p.Load()) || !p.hw) return 1;
    // An empty provider (no array reached) would measure nothing: say so instead of a figure.
    IEnumVdsObject* e = nullptr;
    IUnknown* unk = nullptr;
    ULONG got = 0;
    if (FAILED(p.hw->QuerySubSystems(&e)) || !e || e->Next(1, &unk, &got) != S_OK) return 2;
    unk->Release();
    e->Release();
    p.hw->Refresh();
    std::printf("%ld\n", VmHwmKiB());
    std::fflush(stdout);
    p.Unload();
    return 0;
}

double ThreadCpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

void BM_LoadMax(benchmark::State& state) {
    Fixture& f = Shared();
    if (!f.error.empty() || !f.peer) {
        state.SkipWithError(("no recording: " + f.error).c_str());
        return;
    }
    std::vector<double> raw, load, refresh, rawCpu, loadCpu;
    for (auto _ : state) {
        double c0 = ThreadCpuMs();
        auto t0 = Clock::now();
        uint64_t bytes = bench::RawExchanges(f.peer->port(), f.loadSequence);
        auto t1 = Clock::now();
        double c1 = ThreadCpuMs();
        Loaded p;
        HRESULT hr = p.Load();
        auto t2 = Clock::now();
        double c2 = ThreadCpuMs();
        if (p.hw) p.hw->Refresh();
        auto t3 = Clock::now();
        p.Unload();
        if (bytes == 0 || FAILED(hr)) {
            state.SkipWithError("an exchange failed");
            return;
        }
        raw.push_back(Ms(t0, t1));
        load.push_back(Ms(t1, t2));
        refresh.push_back(Ms(t2, t3));
        rawCpu.push_back(c1 - c0);
        loadCpu.push_back(c2 - c1);
    }
    double r = Median(raw), l = Median(load), s = Median(refresh);
    state.counters["raw_ms"] = r;
    state.counters["load_ms"] = l;
    state.counters["refresh_ms"] = s;
    state.counters["raw_cpu_ms"] = Median(rawCpu);
    state.counters["load_cpu_ms"] = Median(loadCpu);
    state.counters["ratio"] = r > 0 ? l / r : 0;
    state.counters["refresh_ratio"] = l > 0 ? s / l : 0;
    state.counters["exchanges"] = double(f.loadSequence.size());
    uint64_t bytes = 0;
    for (const auto& e : f.loadSequence) bytes += e.request.size() + e.reply->size();
    state.counters["load_mib"] = double(bytes) / (1 << 20);
    state.counters["unknown_requests"] = double(f.peer->unknownRequests());
    long peak = ChildPeakKiB(f.settings);
    if (peak <= 0) state.SkipWithError("the memory child reached no array");
    state.counters["peak_mib"] = double(peak) / 1024.0;
}
BENCHMARK(BM_LoadMax)->Unit(benchmark::kMillisecond)->Iterations(7);

}  // namespace

int main(int argc, char** argv) {
    g_self = "/proc/self/exe";
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n > 0) g_self.assign(path, static_cast<size_t>(n));
    if (argc == 3 && std::strcmp(argv[1], "--memory-child") == 0) return MemoryChild(argv[2]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
