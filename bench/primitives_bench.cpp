// Throughput of the signal primitives on the block sizes the chain uses.
// Rates are input samples per second (items processed).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "CommonFun.h"
#include "resampler.h"

namespace {

std::vector<Complex> noise_block(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1000.0);
    std::vector<Complex> x(n);
    for (Complex& v : x) v = Complex{g(rng), g(rng)};
    return x;
}

// The front end's spectrum: 16384-point forward FFT.
void BM_Fft16384(benchmark::State& state) {
    const int n = 16384;
    const std::vector<Complex> source = noise_block(n, 1);
    std::vector<Complex> x(n);
    CommonFun cf;
    for (auto _ : state) {
        x = source;
        cf.fft_radix2(x.data(), n);
        benchmark::DoNotOptimize(x.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Fft16384)->Unit(benchmark::kMicrosecond);

// A maximal block captured at 3 samples per symbol brought to 4: the ratio
// 4/3 becomes 1333333333/1000000000, a 2.7e10-tap filter evaluated on the fly.
void BM_Resample320kAt3Sps(benchmark::State& state) {
    const int n = 320000;
    const std::vector<Complex> in = noise_block(n, 2);
    const double fsIn = 3.0, fsOut = 4.0;
    std::vector<Complex> out(static_cast<size_t>(resample_output_count(n, fsOut, fsIn)));
    CommonFun cf;
    for (auto _ : state) {
        int len = 0;
        cf.resample(in.data(), n, fsOut, fsIn, out.data(), &len);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Resample320kAt3Sps)->Unit(benchmark::kMillisecond);

// A small fraction on the materialised filter (4.8/4 = 6/5, 121 taps).
void BM_Resample320kSixFifths(benchmark::State& state) {
    const int n = 320000;
    const std::vector<Complex> in = noise_block(n, 3);
    std::vector<Complex> out(static_cast<size_t>(resample_output_count(n, 4.8, 4.0)));
    CommonFun cf;
    for (auto _ : state) {
        int len = 0;
        cf.resample(in.data(), n, 4.8, 4.0, out.data(), &len);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Resample320kSixFifths)->Unit(benchmark::kMillisecond);

// Matched filter at 4 samples per symbol, RRC (49 taps), on a long block.
void BM_MatchFilterRrc4Sps(benchmark::State& state) {
    const int n = 320000;
    const std::vector<Complex> in = noise_block(n, 4);
    std::vector<Complex> out(n);
    ExParamOut param{};
    param.Rb = 1000.0;
    param.rolloff = 0.35;
    param.filterType = FILTER_RRC;
    CommonFun cf;
    for (auto _ : state) {
        int len = 0;
        cf.matchFilter(in.data(), n, 4000.0, param, out.data(), len);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_MatchFilterRrc4Sps)->Unit(benchmark::kMillisecond);

// Farrow interpolation from 10 to 4 samples per symbol, fresh state per block.
void BM_Farrow10To4Sps(benchmark::State& state) {
    const int n = 320000;
    const std::vector<Complex> in = noise_block(n, 5);
    std::vector<Complex> out(n);
    for (auto _ : state) {
        CommonFun cf;
        int len = 0;
        cf.FarrowInterp(in.data(), n, 4.0, 10.0, out.data(), &len);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Farrow10To4Sps)->Unit(benchmark::kMillisecond);

}  // namespace
