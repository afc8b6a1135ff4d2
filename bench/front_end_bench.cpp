// Front-end estimators on one 16384-sample analysis block: samples per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr int kLen = 16384;

struct Capture {
    std::vector<std::int16_t> I, Q;
    std::vector<Complex> x;
    Capture() : I(kLen), Q(kLen), x(kLen) {
        for (int n = 0; n < kLen; ++n) {
            const double ph = 6.283185307179586 * 123.4 * n / kLen;
            I[n] = static_cast<std::int16_t>(std::lround(8000.0 * std::cos(ph)));
            Q[n] = static_cast<std::int16_t>(std::lround(8000.0 * std::sin(ph)));
            x[n] = Complex{double(I[n]), double(Q[n])};
        }
    }
};

void BM_calcdf(benchmark::State& state) {
    Capture c;
    CommonFun cf;
    int df = 0;
    double level = 0.0;
    for (auto _ : state) {
        cf.calcdf(c.I.data(), c.Q.data(), kLen, 1e6, MOD_QPSK, &df, &level);
        benchmark::DoNotOptimize(df);
    }
    state.SetItemsProcessed(state.iterations() * kLen);
}
BENCHMARK(BM_calcdf);

void BM_correctDF(benchmark::State& state) {
    Capture c;
    CommonFun cf;
    std::vector<Complex> out(kLen);
    for (auto _ : state) {
        cf.correctDF(c.I.data(), c.Q.data(), kLen, 1e6, 1234, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * kLen);
}
BENCHMARK(BM_correctDF);

void BM_calcSNR(benchmark::State& state) {
    Capture c;
    CommonFun cf;
    ExParamOut p{};
    p.Rb = 2.5e5;
    const ModType family = static_cast<ModType>(state.range(0));
    double snr = 0.0, band = 0.0;
    for (auto _ : state) {
        cf.calcSNR(c.x.data(), kLen, 1e6, family, &p, &snr, &band);
        benchmark::DoNotOptimize(snr);
    }
    state.SetItemsProcessed(state.iterations() * kLen);
}
BENCHMARK(BM_calcSNR)->Arg(MT_PSK)->Arg(MT_FSK);

void BM_calcFc(benchmark::State& state) {
    Capture c;
    CommonFun cf;
    ExParamOut p{};
    p.mode = MOD_QPSK;
    const ModType family = static_cast<ModType>(state.range(0));
    int fc = 0;
    double level = 0.0;
    for (auto _ : state) {
        cf.calcFc(c.x.data(), kLen, 1e6, family, 4, p, &fc, &level);
        benchmark::DoNotOptimize(fc);
    }
    state.SetItemsProcessed(state.iterations() * kLen);
}
BENCHMARK(BM_calcFc)->Arg(MT_PSK)->Arg(MT_QAM);

}  // namespace
