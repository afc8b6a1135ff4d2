// Runs generated captures through the public entry, as a host would.
#pragma once

#include <cstdint>

#include "siggen.h"
#include "test_support.h"
#include "truth_match.h"

// Generator settings for a capture of `mode` at `sps` samples per symbol and
// Rb symbols per second, `samples` long; everything else at its default.
inline vantrel::siggen::Config captureConfig(int mode, double sps, long samples, uint64_t seed = 1,
                                             double Rb = 25000.0) {
    vantrel::siggen::Config c;
    c.mode = mode, c.sps = sps, c.numSamples = samples, c.seed = seed, c.Rb = Rb;
    return c;
}

// One analysis of a generated capture on a fresh instance.
inline int analyseCapture(const vantrel::siggen::Result& capture, HostRecord& host,
                          uint32_t filterType, double rolloff, bool dump = false) {
    const vantrel::siggen::Config& cfg = capture.config;
    ExParamOut p = makeParam(cfg.Rb, static_cast<uint32_t>(cfg.mode), rolloff, filterType);
    const int handle = VantrelObjCreatSelfEncode();
    const int code = VantrelExcute(handle, capture.I.data(), capture.Q.data(),
                                   static_cast<uint32_t>(capture.I.size()), &p, false, dump,
                                   &host.rec, 0.0, capture.fs);
    VantrelObjRelease(handle);
    return code;
}

inline int analyseCapture(const vantrel::siggen::Result& capture, HostRecord& host) {
    return analyseCapture(capture, host, static_cast<uint32_t>(capture.config.filterType),
                          capture.config.rolloff);
}

// Decided symbols against the truth. The PSK path reports its symbol count in
// bitsLen and leaves symbolsLen as the record was cleared.
inline vantrel::siggen::Match matchTruth(const vantrel::siggen::Result& capture,
                                         const HostRecord& host) {
    const uint32_t count = host.rec.symbolsLen > 0 ? host.rec.symbolsLen : host.rec.bitsLen;
    return vantrel::siggen::matchDecisions(capture, host.rec.symbols, count);
}
