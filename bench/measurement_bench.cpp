// Measurement-mode calls (VantrelMeasure without a DisplayData, so only the
// measurement path runs) on the same 320000-sample captures as the whole-call
// benchmark of the standard analysis (pipeline_bench.cpp): compare
// BM_Measure320k/<mode>/<sps> with BM_Analyse320k/<mode>/<sps>.
// Arguments: mode code, samples per symbol.
#include <benchmark/benchmark.h>

#include "siggen.h"
#include "wrapperVantrelClass.h"

namespace {

constexpr unsigned kLen = 320000;

void BM_Measure320k(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    vantrel::siggen::Config cfg;
    cfg.mode = mode;
    cfg.Rb = 25000.0;
    cfg.sps = static_cast<double>(state.range(1));
    cfg.numSamples = kLen;
    cfg.carrierOffsetHz = 300.0;
    cfg.esn0Db = 30.0;
    cfg.peak = 12000.0;
    const vantrel::siggen::Result capture = vantrel::siggen::generate(cfg);
    ExParamOut p{};
    p.Rb = cfg.Rb;
    p.mode = static_cast<uint32_t>(mode);
    p.rolloff = 0.35;
    p.filterType = static_cast<uint32_t>(cfg.filterType);
    const int handle = VantrelObjCreatSelfEncode();
    VantrelMeasurement m{};
    int code = 0;
    for (auto _ : state) {
        m.size = sizeof m;
        code = VantrelMeasure(handle, capture.I.data(), capture.Q.data(), kLen, &p, capture.fs, &m,
                              nullptr);
        benchmark::DoNotOptimize(code);
    }
    VantrelObjRelease(handle);
    state.counters["code"] = code;
    state.counters["MER_dB"] = m.merDb;
    state.SetItemsProcessed(state.iterations() * kLen);
}

void DigitalFamilies(benchmark::internal::Benchmark* b) {
    for (int mode : {MOD_QPSK, MOD_BPSK, MOD_8PSK, MOD_16QAM, MOD_32QAM, MOD_64QAM, MOD_128QAM,
                     MOD_256QAM, MOD_ASK, MOD_2FSK, MOD_4FSK}) {
        for (int sps : {3, 4, 8}) b->Args({mode, sps});
    }
    b->Args({MOD_QPSK, 16});
}
BENCHMARK(BM_Measure320k)->Apply(DigitalFamilies)->Unit(benchmark::kMillisecond);

}  // namespace
