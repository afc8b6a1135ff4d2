// Whole analysis calls through the public entry, as a host makes them: a
// 320000-sample capture of each family at 3, 4 and 8 samples per symbol (the
// rational resampler, no rate change, the Farrow interpolator), analysed
// block after block on one instance. Arguments: mode code, samples per symbol.
// The peer ratio is printed by vantrel_peer_compare (bench/peer/).
#include <benchmark/benchmark.h>

#include <vector>

#include "siggen.h"
#include "wrapperVantrelClass.h"

namespace {

constexpr unsigned kLen = 320000;

void BM_Analyse320k(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    vantrel::siggen::Config cfg;
    cfg.mode = mode;
    cfg.Rb = 25000.0;
    cfg.sps = static_cast<double>(state.range(1));
    cfg.numSamples = kLen;
    cfg.carrierOffsetHz = 300.0;
    if (mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B) {
        cfg.snrDb = 30.0;
    } else {
        cfg.esn0Db = 30.0;
    }
    cfg.peak = 12000.0;
    const vantrel::siggen::Result capture = vantrel::siggen::generate(cfg);

    const size_t cap = 2 * kLen;
    std::vector<double> d[11];
    for (auto& v : d) v.assign(cap, 0.0);
    std::vector<uint32_t> bits(8 * kLen), symbols(kLen);
    DisplayData out{};
    out.eye = d[0].data();
    out.constI = d[1].data();
    out.constQ = d[2].data();
    out.evm = d[3].data();
    out.phaseErr = d[4].data();
    out.magErr = d[5].data();
    out.phaseTrace = d[6].data();
    out.freqTrace = d[7].data();
    out.envTrace = d[8].data();
    out.iTrace = d[9].data();
    out.shiftedIQ = d[10].data();
    out.bits = bits.data();
    out.symbols = symbols.data();
    ExParamOut p{};
    p.Rb = cfg.Rb;
    p.mode = static_cast<uint32_t>(mode);
    p.rolloff = 0.35;
    p.filterType = FILTER_RRC;
    const int handle = VantrelObjCreatSelfEncode();
    int code = 0;
    for (auto _ : state) {
        code = VantrelExcute(handle, capture.I.data(), capture.Q.data(), kLen, &p, false, false,
                             &out, 0.0, capture.fs);
        benchmark::DoNotOptimize(code);
    }
    VantrelObjRelease(handle);
    state.counters["code"] = code;
    state.SetItemsProcessed(state.iterations() * kLen);
}

void AllFamilies(benchmark::internal::Benchmark* b) {
    // QPSK first (the reference), then one code of every other family and order.
    for (int mode : {MOD_QPSK, MOD_BPSK, MOD_8PSK, MOD_16QAM, MOD_32QAM, MOD_64QAM, MOD_128QAM,
                     MOD_256QAM, MOD_ASK, MOD_2FSK, MOD_4FSK, MOD_ANALOG_AM, MOD_ANALOG_FM}) {
        for (int sps : {3, 4, 8}) b->Args({mode, sps});
    }
    b->Args({MOD_QPSK, 16});
}
BENCHMARK(BM_Analyse320k)->Apply(AllFamilies)->Unit(benchmark::kMillisecond);

}  // namespace
