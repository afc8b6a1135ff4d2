// Whole analysis calls through the public entry, as a host makes them: a
// 320000-sample QPSK capture at 3, 4 and 8 samples per symbol (the rational
// resampler, no rate change, the Farrow interpolator).
#include <benchmark/benchmark.h>

#include <vector>

#include "siggen.h"
#include "wrapperVantrelClass.h"

namespace {

void BM_AnalyseQpsk320k(benchmark::State& state) {
    vantrel::siggen::Config cfg;
    cfg.mode = MOD_QPSK;
    cfg.Rb = 25000.0;
    cfg.sps = static_cast<double>(state.range(0));
    cfg.numSamples = 320000;
    cfg.carrierOffsetHz = 300.0;
    cfg.esn0Db = 30.0;
    cfg.peak = 12000.0;
    const vantrel::siggen::Result capture = vantrel::siggen::generate(cfg);

    const size_t cap = 400000;
    std::vector<double> eye(cap), ci(cap), cq(cap), evm(cap), pe(cap), me(cap);
    std::vector<uint32_t> bits(cap), symbols(cap);
    DisplayData out{};
    out.eye = eye.data();
    out.constI = ci.data();
    out.constQ = cq.data();
    out.evm = evm.data();
    out.phaseErr = pe.data();
    out.magErr = me.data();
    out.bits = bits.data();
    out.symbols = symbols.data();
    ExParamOut p{};
    p.Rb = cfg.Rb;
    p.mode = MOD_QPSK;
    p.rolloff = 0.35;
    p.filterType = FILTER_RRC;
    const int handle = VantrelObjCreatSelfEncode();
    for (auto _ : state) {
        const int code = VantrelExcute(handle, capture.I.data(), capture.Q.data(), 320000, &p,
                                       false, false, &out, 0.0, capture.fs);
        benchmark::DoNotOptimize(code);
    }
    VantrelObjRelease(handle);
    state.SetItemsProcessed(state.iterations() * 320000);
}
BENCHMARK(BM_AnalyseQpsk320k)->Arg(3)->Arg(4)->Arg(8)->Unit(benchmark::kMillisecond);

}  // namespace
