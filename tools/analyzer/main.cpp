// vantrel-analyze: the library as an instrument host uses it.
//
//   vantrel-analyze --demo
//   vantrel-analyze --in capture.bin --fs 100000 --rb 12500 --mode QPSK
//                   [--filter 1] [--rolloff 0.35] [--fsmin 0] [--dump]
//
// The capture file holds interleaved native int16 I, Q samples (the layout of
// the library's own debug capture and of vantrel-siggen's output).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "analysis_report.h"
#include "demo_capture.h"

using namespace vantrel::analyzer;

namespace {

void usage(FILE* to) {
    std::fputs(
        "usage: vantrel-analyze --demo\n"
        "       vantrel-analyze --in FILE --fs HZ --rb BAUD --mode MODE\n"
        "                       [--filter N] [--rolloff R] [--fsmin HZ] [--dump]\n"
        "\n"
        "  --demo        analyse the built-in demo capture (QPSK, 8 samples per symbol,\n"
        "                root raised cosine 0.35, 30 dB Es/N0, 300 Hz carrier offset,\n"
        "                small I/Q impairments) and compare the decisions with its truth\n"
        "  --in FILE     raw capture: interleaved native int16 I, Q\n"
        "  --fs HZ       sample rate of the capture\n"
        "  --rb BAUD     symbol rate (any value for the analog modes)\n"
        "  --mode MODE   modulation: a code 1..18 or a name (BPSK, QPSK, 8PSK, 16QAM,\n"
        "                32QAM, 64QAM, 128QAM, 256QAM, ASK, 2FSK, 4FSK, 2FSK_B, AM, FM,\n"
        "                PM, SHIFT, I_A, I_B)\n"
        "  --filter N    1 RRC (default), 2 RC, 3 Gaussian, 4 rectangular, 5 half-sine\n"
        "  --rolloff R   roll-off or Gaussian BT (default 0.35)\n"
        "  --fsmin HZ    lowest acceptable sample rate (default 0)\n"
        "  --dump        also write the library's debug capture files\n",
        to);
}

int modeCode(const std::string& s) {
    static const char* names[] = {nullptr, "2FSK", "4FSK", "2FSK_B", "BPSK", "QPSK",
                                  "8PSK",  "16QAM", "ASK", "64QAM", "AM", "FM",
                                  "PM",    "SHIFT", "I_A", "I_B", "128QAM", "256QAM",
                                  "32QAM"};
    for (int code = 1; code <= 18; ++code)
        if (s == names[code]) return code;
    char* end = nullptr;
    long v = std::strtol(s.c_str(), &end, 10);
    return (end != s.c_str() && *end == '\0') ? static_cast<int>(v) : -1;
}

bool parseDouble(const char* text, double& value) {
    char* end = nullptr;
    value = std::strtod(text, &end);
    return end != text && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
    Request request;
    request.param.rolloff = 0.35;
    request.param.filterType = FILTER_RRC;
    std::string input;
    bool demo = false, dump = false;
    int mode = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        double x = 0;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--demo") {
            demo = true;
        } else if (a == "--dump") {
            dump = true;
        } else if (v == nullptr) {
            std::fprintf(stderr, "missing value after %s\n", a.c_str());
            return 2;
        } else if (a == "--in") {
            input = v, ++i;
        } else if (a == "--mode") {
            mode = modeCode(v), ++i;
        } else if (parseDouble(v, x) && (a == "--fs" || a == "--rb" || a == "--filter" ||
                                         a == "--rolloff" || a == "--fsmin")) {
            if (a == "--fs") request.fs = x;
            if (a == "--rb") request.param.Rb = x;
            if (a == "--filter") request.param.filterType = static_cast<uint32_t>(x);
            if (a == "--rolloff") request.param.rolloff = x;
            if (a == "--fsmin") request.fsMin = x;
            ++i;
        } else {
            std::fprintf(stderr, "bad argument: %s %s\n", a.c_str(), v);
            usage(stderr);
            return 2;
        }
    }
    if (demo) return runDemo(dump);
    if (input.empty() || mode < 0 || request.fs <= 0) {
        usage(stderr);
        return 2;
    }
    request.param.mode = static_cast<uint32_t>(mode);
    if (!readCapture(input, request.I, request.Q)) {
        std::fprintf(stderr, "cannot read %s\n", input.c_str());
        return 2;
    }
    const Result result = analyse(request, dump);
    std::fputs(report(request, result).c_str(), stdout);
    return result.code < 0 ? 1 : 0;
}
