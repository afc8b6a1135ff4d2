// Throughput of the symbol-rate synchronisation stages on a fixed QPSK block.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

// A QPSK stream at four samples per symbol with a simple smooth pulse; the
// benchmarks measure work per sample, not lock quality.
std::vector<Complex> qpskBlock(int symbols) {
    std::mt19937 rng(1);
    std::vector<Complex> x(4 * static_cast<size_t>(symbols));
    for (int s = 0; s < symbols; ++s) {
        const double re = (rng() & 1) ? 1.0 : -1.0, im = (rng() & 1) ? 1.0 : -1.0;
        for (int t = 0; t < 4; ++t) {
            const double w = std::sin(3.141592653589793 * (t + 0.5) / 4);
            x[4 * s + t] = Complex{re * w, im * w};
        }
    }
    return x;
}

void BM_Gardner(benchmark::State& state) {
    const int symbols = static_cast<int>(state.range(0));
    const auto in = qpskBlock(symbols);
    std::vector<Complex> out(in.size());
    CommonFun cf;
    for (auto _ : state) {
        cf.Reset();
        int len = 0;
        cf.Gardner(in.data(), static_cast<int>(in.size()), 4000.0, 1000.0, 0.002, 1.82e-08,
                   out.data(), &len);
        benchmark::DoNotOptimize(len);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
}
BENCHMARK(BM_Gardner)->Arg(2400)->Arg(20000);

void BM_PhaseLookAndCma(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    std::vector<Complex> in(n), mid(n), out(n);
    for (int i = 0; i < n; ++i) in[i] = Complex{(i & 1) ? 0.7 : -0.7, (i & 2) ? 0.7 : -0.7};
    CommonFun cf;
    for (auto _ : state) {
        cf.Reset();
        int l3 = 0, l4 = 0;
        cf.PhaseLook(in.data(), n, MT_PSK, 4, 1000.0, 30.0, MOD_QPSK, mid.data(), &l3);
        cf.CMA_equlize(mid.data(), l3, 0.005, 1.0, 10, out.data(), l4);
        benchmark::DoNotOptimize(l4);
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_PhaseLookAndCma)->Arg(1900);

// Unit-mean-modulus scaling of the timed symbols (the sort of every
// magnitude) on the symbol count of a 320000-sample capture at 4 samples per
// symbol; QPSK sorts all of them, 16QAM selects a quarter.
void BM_NormStar(benchmark::State& state) {
    const int n = 79500;
    std::mt19937 rng(2);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<Complex> in(n), out(n);
    for (Complex& v : in) v = Complex{g(rng), g(rng)};
    ExParamOut p{};
    p.mode = static_cast<uint32_t>(state.range(0));
    CommonFun cf;
    for (auto _ : state) {
        cf.normStar(in.data(), n, p, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_NormStar)->Arg(MOD_QPSK)->Arg(MOD_16QAM)->Unit(benchmark::kMillisecond);

}  // namespace
