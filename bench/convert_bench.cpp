// Converting one whole ControllerData in place against a memcpy of the same 2,520,884 bytes.
//
// BM_ConvertControllerData and BM_MemcpyControllerData time each alone; BM_ConvertVsMemcpy runs
// both in every iteration and reports the ratio convert/memcpy as the counter "ratio" (target:
// at most 2).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>

#include "proxy/records.h"

namespace {

// A record full of varied bytes, its 16 ports of every bus kind, so that every branch of the
// union conversion is taken.
std::unique_ptr<uint8_t[]> MakeRecord() {
    std::unique_ptr<uint8_t[]> buf(new uint8_t[rec::kControllerDataSize]);
    std::mt19937 gen(42);
    for (size_t i = 0; i < rec::kControllerDataSize; ++i) buf[i] = static_cast<uint8_t>(gen());
    auto* cd = reinterpret_cast<ControllerData*>(buf.get());
    const uint8_t kinds[8] = {9, 9, 9, 9, 6, 8, 4, 7};
    for (int i = 0; i < 8; ++i) {
        cd->controller.ports[i].busType = kinds[i];
        cd->controller.diskPorts[i].busType = TROV_BUS_SAS;
    }
    return buf;
}

void BM_ConvertControllerData(benchmark::State& state) {
    auto rec = MakeRecord();
    for (auto _ : state) {
        ConvertControllerData(0, rec.get());
        benchmark::DoNotOptimize(rec.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(rec::kControllerDataSize));
}
BENCHMARK(BM_ConvertControllerData);

void BM_MemcpyControllerData(benchmark::State& state) {
    auto src = MakeRecord();
    std::unique_ptr<uint8_t[]> dst(new uint8_t[rec::kControllerDataSize]());
    for (auto _ : state) {
        std::memcpy(dst.get(), src.get(), rec::kControllerDataSize);
        benchmark::DoNotOptimize(dst.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(rec::kControllerDataSize));
}
BENCHMARK(BM_MemcpyControllerData);

// Both in one run, alternating, so that both see the same machine state.
void BM_ConvertVsMemcpy(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    auto rec = MakeRecord();
    auto src = MakeRecord();
    std::unique_ptr<uint8_t[]> dst(new uint8_t[rec::kControllerDataSize]());
    double convertNs = 0, memcpyNs = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        std::memcpy(dst.get(), src.get(), rec::kControllerDataSize);
        benchmark::DoNotOptimize(dst.get());
        benchmark::ClobberMemory();
        auto t1 = Clock::now();
        ConvertControllerData(0, rec.get());
        benchmark::DoNotOptimize(rec.get());
        benchmark::ClobberMemory();
        auto t2 = Clock::now();
        memcpyNs += std::chrono::duration<double, std::nano>(t1 - t0).count();
        convertNs += std::chrono::duration<double, std::nano>(t2 - t1).count();
    }
    double n = double(state.iterations());
    state.counters["convert_us"] = convertNs / n / 1000.0;
    state.counters["memcpy_us"] = memcpyNs / n / 1000.0;
    state.counters["ratio"] = memcpyNs > 0 ? convertNs / memcpyNs : 0.0;
}
BENCHMARK(BM_ConvertVsMemcpy)->MinTime(1.0);

}  // namespace

// Weak, so that a bench file with its own main takes over when the benchmarks are linked together.
__attribute__((weak)) int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
