// The built-in demo: a QPSK capture with known impairments, analysed as a host
// would, with the instrument's figures printed beside the applied truth.
#include "demo_capture.h"

#include <cstdio>

#include "analysis_report.h"
#include "siggen.h"
#include "truth_match.h"

using namespace vantrel;

int runDemo(bool dump) {
    siggen::Config cfg;
    cfg.mode = MOD_QPSK;
    cfg.Rb = 25000.0;
    cfg.sps = 8.0;
    cfg.filterType = siggen::kRRC;
    cfg.rolloff = 0.35;
    cfg.numSamples = 320000;
    cfg.seed = 2026;
    cfg.carrierOffsetHz = 300.0;
    cfg.carrierPhase = 0.4;
    cfg.esn0Db = 30.0;
    cfg.gainImbalance = 1.02;
    cfg.quadSkew = 0.01;
    cfg.dcI = 40.0;
    cfg.dcQ = -25.0;
    cfg.peak = 12000.0;
    const siggen::Result capture = siggen::generate(cfg);

    analyzer::Request request;
    request.I = capture.I;
    request.Q = capture.Q;
    request.fs = capture.fs;
    request.param.Rb = cfg.Rb;
    request.param.mode = static_cast<uint32_t>(cfg.mode);
    request.param.rolloff = cfg.rolloff;
    request.param.filterType = static_cast<uint32_t>(cfg.filterType);
    const analyzer::Result result = analyzer::analyse(request, dump);

    std::printf("Vantrel demo capture: QPSK, %.0f Bd, %.0f samples/symbol, RRC 0.35\n",
                cfg.Rb, cfg.sps);
    std::printf("applied: carrier %+.0f Hz, Es/N0 %.0f dB, gain ratio %.2f, skew %.3f rad, "
                "DC (%+.0f, %+.0f)\n\n",
                cfg.carrierOffsetHz, cfg.esn0Db, cfg.gainImbalance, cfg.quadSkew, cfg.dcI,
                cfg.dcQ);
    std::fputs(analyzer::report(request, result).c_str(), stdout);

    // The PSK path reports its symbol count in bitsLen (symbolsLen is left
    // as the record was cleared).
    const DisplayData& d = result.record;
    const size_t decided = d.symbolsLen > 0 ? d.symbolsLen : d.bitsLen;
    const siggen::Match m =
        siggen::matchDecisions(capture, result.symbols.data(), decided);
    if (m.compared > 0) {
        std::printf("decisions vs truth: %ld symbol errors in %ld (rotation %d x 90 deg)\n",
                    m.errors, m.compared, m.rotation);
    }
    return result.code == 0 ? 0 : 1;
}
