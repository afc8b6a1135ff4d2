// One short, clean capture of every mode code, for the reliability checks
// (allocation-failure sweep, memcheck run): 16384 samples at four samples per
// symbol, so that every chain runs through all of its stages, including the
// 2000-symbol display of the dense QAM orders.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "../capture_runner.h"

namespace reliability {

constexpr int kFirstCode = 1;
constexpr int kLastCode = 18;
constexpr uint32_t kSamples = 16384;

inline vantrel::siggen::Result captureOf(int mode) {
    // fs = 50 kHz: room for the analog tone and deviation.
    vantrel::siggen::Config cfg = captureConfig(mode, 4.0, kSamples, 100 + static_cast<uint64_t>(mode), 12500.0);
    cfg.carrierOffsetHz = 150.0;
    cfg.carrierPhase = 0.3;
    (vantrel_is_analog(static_cast<uint32_t>(mode)) ? cfg.snrDb : cfg.esn0Db) = 30.0;
    cfg.peak = 12000.0;
    return vantrel::siggen::generate(cfg);
}

// Analyses a capture on an existing instance, as a host would.
inline int analyse(int handle, const vantrel::siggen::Result& c, HostRecord& host,
                   bool dump = false) {
    ExParamOut p = makeParam(c.config.Rb, static_cast<uint32_t>(c.config.mode),
                             c.config.rolloff, static_cast<uint32_t>(c.config.filterType));
    return VantrelExcute(handle, c.I.data(), c.Q.data(), static_cast<uint32_t>(c.I.size()), &p,
                         false, dump, &host.rec, 0.0, c.fs);
}

// Every figure of a record as raw bits: the scalars and each array up to its
// count, so that two analyses compare bit for bit.
inline std::vector<uint64_t> snapshot(const DisplayData& r) {
    std::vector<uint64_t> s;
    auto word = [&s](double v) {
        uint64_t u;
        std::memcpy(&u, &v, sizeof u);
        s.push_back(u);
    };
    // The record is packed: its fields are copied by value, never bound to
    // references.
    const struct { const double* a; uint32_t n; } arrays[] = {
        {r.eye, r.eyeLen},           {r.constI, r.constLen},         {r.constQ, r.constLen},
        {r.evm, r.evmLen},           {r.phaseErr, r.phaseErrLen},    {r.magErr, r.magErrLen},
        {r.phaseTrace, r.phaseTraceLen}, {r.freqTrace, r.freqTraceLen}, {r.envTrace, r.envTraceLen},
        {r.iTrace, r.iTraceLen},     {r.shiftedIQ, r.shiftedIQLen}};
    for (const auto& [a, n] : arrays) {
        s.push_back(n);
        for (uint32_t i = 0; i < n; ++i) word(a[i]);
    }
    const struct { const uint32_t* a; uint32_t n; } words[] = {{r.bits, r.bitsLen}, {r.symbols, r.symbolsLen}};
    for (const auto& [a, n] : words) {
        s.push_back(n);
        s.insert(s.end(), a, a + n);
    }
    const double scalars[] = {r.evmRms,      r.evmPeak,   r.phaseErrRms, r.phaseErrPeak,
                              r.magErrRms,   r.magErrPeak, r.amDepth,    r.fmPeakDev,
                              r.freqOffset,  r.peakLevel,  r.modDepth,   r.freqDeviation,
                              r.iqOffset,    r.iqGainRatio, r.quadError, r.snr};
    for (double v : scalars) word(v);
    return s;
}

}  // namespace reliability
