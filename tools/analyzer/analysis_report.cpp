#include "analysis_report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vantrel::analyzer {

namespace {

constexpr size_t kMaxSamples = 320000;

void line(std::ostringstream& os, const char* name, double value, const char* unit) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "  %-16s %14.4f %s\n", name, value, unit);
    os << buf;
}

const char* const kModeNames[] = {nullptr, "2FSK", "4FSK", "2FSK_B", "BPSK", "QPSK", "8PSK",
                                  "16QAM", "ASK", "64QAM", "AM", "FM", "PM", "SHIFT", "I_A",
                                  "I_B", "128QAM", "256QAM", "32QAM"};

}  // namespace

const char* codeMeaning(int code) {
    switch (code) {
    case 0: return "success";
    case 1: return "block shorter than 2000 symbols";
    case -1: return "invalid arguments";
    case -3: return "fewer than 800 constellation points";
    case -4: return "unknown handle or out of memory";
    default: return "unknown code";
    }
}

const char* modeName(int code) { return code >= 1 && code <= 18 ? kModeNames[code] : "unknown"; }

int modeCode(const std::string& s) {
    for (int code = 1; code <= 18; ++code)
        if (s == kModeNames[code]) return code;
    char* end = nullptr;
    const long v = std::strtol(s.c_str(), &end, 10);
    return (end != s.c_str() && *end == '\0' && v >= 1 && v <= 18) ? static_cast<int>(v) : -1;
}

Result analyse(const Request& request, bool dump) {
    // Every array sized by the capacities the public header publishes for
    // this block length and mode, as a host should.
    Result r;
    const uint32_t n = static_cast<uint32_t>(std::min(request.I.size(), kMaxSamples));
    const uint32_t mode = request.param.mode;
    r.eye.assign(vantrel_capacity_eye(n, mode), 0.0);
    r.constI.assign(vantrel_capacity_constellation(mode), 0.0);
    r.constQ.assign(vantrel_capacity_constellation(mode), 0.0);
    for (auto* v : {&r.evm, &r.phaseErr, &r.magErr})
        v->assign(vantrel_capacity_symbols(n, mode), 0.0);
    for (auto* v : {&r.phaseTrace, &r.freqTrace, &r.envTrace, &r.iTrace})
        v->assign(vantrel_capacity_trace(n, mode), 0.0);
    r.shiftedIQ.assign(vantrel_capacity_shifted_iq(n, mode), 0.0);
    r.bits.assign(vantrel_capacity_bits(n, mode), 0);
    r.symbols.assign(vantrel_capacity_symbols(n, mode), 0);
    DisplayData& d = r.record;
    d.eye = r.eye.data();
    d.constI = r.constI.data();
    d.constQ = r.constQ.data();
    d.bits = r.bits.data();
    d.symbols = r.symbols.data();
    d.evm = r.evm.data();
    d.phaseErr = r.phaseErr.data();
    d.magErr = r.magErr.data();
    d.phaseTrace = r.phaseTrace.data();
    d.freqTrace = r.freqTrace.data();
    d.envTrace = r.envTrace.data();
    d.iTrace = r.iTrace.data();
    d.shiftedIQ = r.shiftedIQ.data();

    const int handle = VantrelObjCreatSelfEncode();
    r.code = VantrelExcute(handle, request.I.data(), request.Q.data(),
                           static_cast<uint32_t>(request.I.size()), &request.param, false, dump,
                           &d, request.fsMin, request.fs);
    VantrelObjRelease(handle);
    return r;
}

std::string report(const Request& request, const Result& result) {
    const DisplayData& d = result.record;
    std::ostringstream os;
    char head[256];
    std::snprintf(head, sizeof head,
                  "capture: %zu samples, fs %.1f Hz, Rb %.1f Bd, mode %u, filter %u, "
                  "roll-off %.3f\nreturn code %d (%s)\n",
                  request.I.size(), request.fs, double(request.param.Rb),
                  unsigned(request.param.mode), unsigned(request.param.filterType),
                  double(request.param.rolloff), result.code, codeMeaning(result.code));
    os << head;
    os << "front end\n";
    line(os, "freqOffset", d.freqOffset, "Hz");
    line(os, "peakLevel", d.peakLevel, "dB");
    line(os, "snr", d.snr, "dB");
    line(os, "iqOffset", d.iqOffset, "(raw units)");
    line(os, "iqGainRatio", d.iqGainRatio, "");
    line(os, "quadError", d.quadError, "rad");
    if (d.constLen > 0 || d.evmLen > 0) {
        os << "modulation quality (last 800 symbols)\n";
        line(os, "evmRms", d.evmRms, "%");
        line(os, "evmPeak", d.evmPeak, "%");
        line(os, "magErrRms", d.magErrRms, "%");
        line(os, "magErrPeak", d.magErrPeak, "%");
        line(os, "phaseErrRms", d.phaseErrRms, "deg");
        line(os, "phaseErrPeak", d.phaseErrPeak, "deg");
        line(os, "modDepth", d.modDepth, "");
        line(os, "freqDeviation", d.freqDeviation, "Hz");
        char counts[200];
        std::snprintf(counts, sizeof counts,
                      "  counts: constellation %u, eye %u, bits %u, symbols %u, evm %u\n",
                      d.constLen, d.eyeLen, d.bitsLen, d.symbolsLen, d.evmLen);
        os << counts;
    }
    if (d.envTraceLen + d.freqTraceLen + d.phaseTraceLen + d.iTraceLen + d.shiftedIQLen > 0) {
        os << "analog\n";
        line(os, "amDepth", d.amDepth, "");
        line(os, "fmPeakDev", d.fmPeakDev, "Hz");
        char counts[200];
        std::snprintf(counts, sizeof counts,
                      "  traces: envelope %u, frequency %u, phase %u, in-phase %u, shifted %u\n",
                      d.envTraceLen, d.freqTraceLen, d.phaseTraceLen, d.iTraceLen,
                      d.shiftedIQLen);
        os << counts;
    }
    return os.str();
}

}  // namespace vantrel::analyzer
