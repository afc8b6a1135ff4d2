// Runs the golden-record matrix. Every array of the host record is sized by
// the published capacities and pre-filled with a fixed pattern, and hashed
// over its whole capacity: values written beyond a count change the
// fingerprint as surely as a changed figure.
#include "golden_cases.h"

#include <cstdio>
#include <cstring>

#include "sha256.h"
#include "siggen.h"
#include "wrapperVantrelClass.h"

namespace golden {

namespace {

constexpr double kRates[] = {3.0, 4.0, 5.5, 8.0};
constexpr long kLengths[] = {20000, 36000};  // samples (the entry takes 16384 .. 320000)
constexpr double kRb = 25000.0;

bool isAnalog(int mode) { return mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B; }

// A host's arrays at the published capacities, refilled before every call.
struct Host {
    std::vector<double> eye, constI, constQ, evm, phaseErr, magErr;
    std::vector<double> phaseTrace, freqTrace, envTrace, iTrace, shiftedIQ;
    std::vector<std::uint32_t> bits, symbols;
    DisplayData rec{};

    Host(std::uint32_t n, std::uint32_t m)
        : eye(vantrel_capacity_eye(n, m)), constI(vantrel_capacity_constellation(m)),
          constQ(constI.size()), evm(vantrel_capacity_symbols(n, m)), phaseErr(evm.size()),
          magErr(evm.size()), phaseTrace(vantrel_capacity_trace(n, m)),
          freqTrace(phaseTrace.size()), envTrace(phaseTrace.size()),
          iTrace(phaseTrace.size()), shiftedIQ(vantrel_capacity_shifted_iq(n, m)),
          bits(vantrel_capacity_bits(n, m)), symbols(vantrel_capacity_symbols(n, m)) {
        for (auto* v : doubles()) v->assign(v->size(), -7.25);
        bits.assign(bits.size(), 0xA5A5A5A5u);
        symbols.assign(symbols.size(), 0x5A5A5A5Au);
        rec.eye = eye.data();
        rec.constI = constI.data();
        rec.constQ = constQ.data();
        rec.evm = evm.data();
        rec.phaseErr = phaseErr.data();
        rec.magErr = magErr.data();
        rec.phaseTrace = phaseTrace.data();
        rec.freqTrace = freqTrace.data();
        rec.envTrace = envTrace.data();
        rec.iTrace = iTrace.data();
        rec.shiftedIQ = shiftedIQ.data();
        rec.bits = bits.data();
        rec.symbols = symbols.data();
    }
    std::vector<std::vector<double>*> doubles() {
        return {&eye,       &constI,    &constQ,   &evm,    &phaseErr, &magErr,
                &phaseTrace, &freqTrace, &envTrace, &iTrace, &shiftedIQ};
    }
};

template <class T>
void hashValue(Sha256& h, T v) {
    h.update(&v, sizeof v);
}

template <class T>
void hashArray(Sha256& h, const std::vector<T>& v) {
    hashValue(h, static_cast<std::uint64_t>(v.size()));
    if (!v.empty()) h.update(v.data(), v.size() * sizeof(T));
}

// Return code, every scalar and count of the record in declaration order,
// then every array over its whole capacity.
std::string fingerprint(int code, Host& host) {
    const DisplayData& d = host.rec;
    Sha256 h;
    hashValue(h, code);
    hashValue(h, d.eyeLen);
    hashValue(h, d.constLen);
    hashValue(h, d.bitsLen);
    hashValue(h, d.symbolsLen);
    hashValue(h, d.evmLen);
    hashValue(h, d.evmRms);
    hashValue(h, d.evmPeak);
    hashValue(h, d.phaseErrLen);
    hashValue(h, d.phaseErrRms);
    hashValue(h, d.phaseErrPeak);
    hashValue(h, d.magErrLen);
    hashValue(h, d.magErrRms);
    hashValue(h, d.magErrPeak);
    hashValue(h, d.amDepth);
    hashValue(h, d.fmPeakDev);
    hashValue(h, d.freqOffset);
    hashValue(h, d.peakLevel);
    hashValue(h, d.modDepth);
    hashValue(h, d.freqDeviation);
    hashValue(h, d.iqOffset);
    hashValue(h, d.iqGainRatio);
    hashValue(h, d.quadError);
    hashValue(h, d.phaseTraceLen);
    hashValue(h, d.freqTraceLen);
    hashValue(h, d.envTraceLen);
    hashValue(h, d.iTraceLen);
    hashValue(h, d.shiftedIQLen);
    hashValue(h, d.snr);
    for (auto* v : host.doubles()) hashArray(h, *v);
    hashArray(h, host.bits);
    hashArray(h, host.symbols);
    return h.hexDigest();
}

vantrel::siggen::Config configOf(const Case& c) {
    vantrel::siggen::Config cfg;
    cfg.mode = c.mode;
    cfg.Rb = kRb;
    cfg.sps = c.sps;
    cfg.numSamples = c.samples;
    cfg.seed = c.seed;
    cfg.carrierOffsetHz = 310.0;
    cfg.carrierPhase = 0.4;
    cfg.gainImbalance = 1.02;
    cfg.quadSkew = 0.01;
    cfg.dcI = 21.0;
    cfg.dcQ = -13.0;
    cfg.peak = 12000.0;
    if (isAnalog(c.mode)) {
        cfg.snrDb = 35.0;
    } else {
        cfg.esn0Db = 28.0;
        cfg.timingOffset = 0.2;
        cfg.filterType = c.filterType;
        cfg.rolloff = c.rolloff;
    }
    return cfg;
}

}  // namespace

std::vector<Case> casesFor(int mode) {
    std::vector<Case> out;
    int rateIndex = 0;
    for (double sps : kRates) {
        for (int l = 0; l < 2; ++l) {
            Case c{};
            c.mode = mode;
            c.sps = sps;
            c.samples = kLengths[l];
            // The shorter captures use the root raised cosine throughout; the
            // longer ones cycle through every pulse so that each matched
            // filter design is covered by some code and rate.
            c.filterType = l == 0 ? FILTER_RRC : 1 + (mode + rateIndex) % 5;
            c.rolloff = c.filterType == FILTER_GAUSS ? 0.5 : 0.35;
            c.seed = 1000u + 16u * static_cast<unsigned>(mode) + 2u * rateIndex + l;
            out.push_back(c);
        }
        ++rateIndex;
    }
    return out;
}

std::vector<std::string> runMode(int mode) {
    std::vector<std::string> lines;
    const int handle = VantrelObjCreatSelfEncode();
    for (const Case& c : casesFor(mode)) {
        const vantrel::siggen::Result capture = vantrel::siggen::generate(configOf(c));
        const std::uint32_t n = static_cast<std::uint32_t>(capture.I.size());
        Host host(n, static_cast<std::uint32_t>(mode));
        ExParamOut p{};
        p.Rb = kRb;
        p.mode = static_cast<std::uint32_t>(mode);
        p.rolloff = c.rolloff;
        p.filterType = static_cast<std::uint32_t>(c.filterType);
        const int code = VantrelExcute(handle, capture.I.data(), capture.Q.data(), n, &p, false,
                                       false, &host.rec, 0.0, capture.fs);
        char head[96];
        std::snprintf(head, sizeof head, "%d %.1f %ld %d %d ", mode, c.sps, c.samples,
                      c.filterType, code);
        lines.push_back(head + fingerprint(code, host));
    }
    VantrelObjRelease(handle);
    return lines;
}

}  // namespace golden
