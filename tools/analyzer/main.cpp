// vantrel-analyze: the library as an instrument host uses it, on captures
// from files (raw int16, SigMF, or the library's own debug capture).
//
// Exit status: 0 every call returned 0; 1 a call returned another code (the
// report says which); 2 the command line or the input is unusable (one line
// on standard error names the problem and the fix; no report is written).
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "analysis_report.h"
#include "capture_input.h"
#include "demo_capture.h"
#include "json_report.h"
#include "measurement_report.h"

using namespace vantrel::analyzer;

namespace {

void usage(FILE* to) {
    std::fputs(
        "usage: vantrel-analyze --demo\n"
        "       vantrel-analyze (--in FILE | --replay DIR) [options]\n"
        "\n"
        "input\n"
        "  --in FILE        raw capture (interleaved native int16 I, Q), or a SigMF\n"
        "                   recording: NAME.sigmf-meta, NAME.sigmf-data or NAME\n"
        "                   (datatypes ci16_le, ci8, cf32_le, cf64_le)\n"
        "  --replay DIR     repeat a call captured with dumpFlag set: the parameters of\n"
        "                   DIR/Vantrel_Parameter.txt, the last block of\n"
        "                   DIR/Vantrel_IQData.bin\n"
        "  --annotation N   SigMF: analyse annotation N (core:sample_start/count)\n"
        "  --offset N       first sample of the block (within the annotation, if any)\n"
        "  --count N        samples per block (16384..320000; default: the rest)\n"
        "  --blocks         analyse every whole block of --count samples from --offset\n"
        "  --scale S        int16 = round(sample * S), clamped; default: int16 as\n"
        "                   stored, ci8 * 256, float peak |I|,|Q| to 0.9*32767\n"
        "call parameters (a replay takes them from the recorded call)\n"
        "  --fs HZ          sample rate (default: the SigMF core:sample_rate)\n"
        "  --rb BAUD        symbol rate (not needed for the analog modes)\n"
        "  --mode MODE      modulation: a code 1..18 or a name (BPSK, QPSK, 8PSK, 16QAM,\n"
        "                   32QAM, 64QAM, 128QAM, 256QAM, ASK, 2FSK, 4FSK, 2FSK_B, AM, FM,\n"
        "                   PM, SHIFT, I_A, I_B)\n"
        "  --filter N       1 RRC (default), 2 RC, 3 Gaussian, 4 rectangular, 5 half-sine\n"
        "  --rolloff R      roll-off or Gaussian BT (default 0.35)\n"
        "  --fsmin HZ       lowest acceptable sample rate (default 0)\n"
        "output\n"
        "  --json FILE      also write the JSON report (docs/analyzer-json.md); '-' writes\n"
        "                   it to standard output instead of the text report\n"
        "  --dump           let the library write its debug capture files here\n"
        "  --measure        also run the measurement mode (VantrelMeasure) on each block\n"
        "                   and print its figures with units (docs/measurements.md)\n"
        "  --demo           analyse the built-in demo capture (QPSK, 8 samples per symbol,\n"
        "                   RRC 0.35, 30 dB Es/N0, 300 Hz offset, small I/Q impairments)\n",
        to);
}

[[noreturn]] void fail(const std::string& message) {
    std::fprintf(stderr, "vantrel-analyze: %s\n", message.c_str());
    std::exit(2);
}

double number(const std::string& opt, const char* text) {
    char* end = nullptr;
    const double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(v))
        fail(opt + " needs a number, not '" + text + "'");
    return v;
}

uint64_t count(const std::string& opt, const char* text) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || text[0] == '-' || errno != 0)
        fail(opt + " needs a whole non-negative number, not '" + text + "'");
    return v;
}

struct Options {
    InputRequest input;
    std::optional<double> fs, rb, rolloff, fsMin;
    std::optional<int> mode, filter;
    std::string json;
    bool demo = false, dump = false, measure = false;
};

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            std::exit(0);
        }
        if (a == "--demo") { o.demo = true; continue; }
        if (a == "--dump") { o.dump = true; continue; }
        if (a == "--measure") { o.measure = true; continue; }
        if (a == "--blocks") { o.input.blocks = true; continue; }
        if (a.rfind("--", 0) != 0) fail("unexpected argument '" + a + "'; see --help");
        if (i + 1 >= argc) fail("missing value after " + a + "; see --help");
        const char* v = argv[++i];
        if (a == "--in") o.input.in = v;
        else if (a == "--replay") o.input.replayDir = v;
        else if (a == "--json") o.json = v;
        else if (a == "--fs") o.fs = number(a, v);
        else if (a == "--rb") o.rb = number(a, v);
        else if (a == "--rolloff") o.rolloff = number(a, v);
        else if (a == "--fsmin") o.fsMin = number(a, v);
        else if (a == "--scale") o.input.scale = number(a, v);
        else if (a == "--offset") o.input.offset = count(a, v);
        else if (a == "--count") o.input.count = count(a, v);
        else if (a == "--annotation") o.input.annotation = static_cast<long>(count(a, v));
        else if (a == "--filter") o.filter = static_cast<int>(count(a, v));
        else if (a == "--mode") {
            const int code = modeCode(v);
            if (code < 0)
                fail(std::string("unknown mode '") + v + "'; use a code 1..18 or one of BPSK, "
                     "QPSK, 8PSK, 16QAM, 32QAM, 64QAM, 128QAM, 256QAM, ASK, 2FSK, 4FSK, "
                     "2FSK_B, AM, FM, PM, SHIFT, I_A, I_B");
            o.mode = code;
        } else {
            fail("unknown option " + a + "; see --help");
        }
    }
    return o;
}

// One text line per block of a --blocks run.
void blockLine(size_t b, uint64_t offset, const Result& r) {
    const DisplayData& d = r.record;
    std::printf("block %3zu @%-9llu code %2d  evmRms %8.4f %%  snr %7.2f dB  freqOffset %8.1f Hz"
                "  iqGainRatio %.5f  quadError %+.5f rad\n",
                b, static_cast<unsigned long long>(offset), r.code, d.evmRms, d.snr,
                d.freqOffset, d.iqGainRatio, d.quadError);
}

}  // namespace

int main(int argc, char** argv) {
    const Options o = parse(argc, argv);
    if (o.demo) return runDemo(o.dump);
    if (o.input.in.empty() == o.input.replayDir.empty())
        fail("give one input: --in FILE or --replay DIR (see --help)");
    if (o.input.scale && !(*o.input.scale > 0)) fail("--scale must be a positive number");

    Capture capture;
    try {
        capture = loadCapture(o.input);
    } catch (const InputError& e) {
        fail(e.what());
    }

    // The call's parameters: the recorded call's for a replay, then the
    // command line on top.
    Request request;
    request.param.rolloff = o.rolloff.value_or(0.35);
    request.param.filterType = FILTER_RRC;
    request.fs = capture.fs;
    if (capture.replay) {
        request.param.Rb = capture.replay->Rb;
        request.param.mode = static_cast<uint32_t>(capture.replay->mode);
        request.param.filterType = static_cast<uint32_t>(capture.replay->filterType);
    }
    if (o.fs) request.fs = *o.fs;
    if (o.rb) request.param.Rb = *o.rb;
    if (o.mode) request.param.mode = static_cast<uint32_t>(*o.mode);
    if (o.filter) request.param.filterType = static_cast<uint32_t>(*o.filter);
    request.fsMin = o.fsMin.value_or(0.0);
    if (!capture.replay && !o.mode) fail("--mode is required (see --help for the names)");
    if (!(request.fs > 0)) {
        if (capture.kind == "sigmf")
            fail(capture.metaPath + ": no core:sample_rate in the metadata; give the rate "
                 "with --fs HZ");
        fail("--fs HZ is required: a raw capture does not record its sample rate");
    }
    const bool analog = request.param.mode >= 10 && request.param.mode <= 15;
    if (!capture.replay && !analog && !o.rb) fail("--rb BAUD is required for a digital mode");

    std::vector<Result> results;
    for (uint64_t b = 0; b < capture.numBlocks; ++b) {
        Request block = request;
        const auto from = static_cast<std::ptrdiff_t>(b * capture.count);
        const auto to = from + static_cast<std::ptrdiff_t>(capture.count);
        block.I.assign(capture.I.begin() + from, capture.I.begin() + to);
        block.Q.assign(capture.Q.begin() + from, capture.Q.begin() + to);
        results.push_back(analyse(block, o.dump));
    }

    if (o.json != "-") {
        std::printf("input: %s %s, %s, %llu samples in the file, block %llu+%llu x %llu, "
                    "scale %.6g (%s), %llu clipped\n",
                    capture.kind.c_str(), capture.dataPath.c_str(), capture.datatype.c_str(),
                    static_cast<unsigned long long>(capture.fileSamples),
                    static_cast<unsigned long long>(capture.offset),
                    static_cast<unsigned long long>(capture.count),
                    static_cast<unsigned long long>(capture.numBlocks), capture.scale,
                    capture.scaleRule.c_str(), static_cast<unsigned long long>(capture.clipped));
        if (results.size() == 1) {
            Request shown = request;
            shown.I.resize(capture.count);
            std::fputs(report(shown, results[0]).c_str(), stdout);
        } else {
            for (size_t b = 0; b < results.size(); ++b)
                blockLine(b, capture.offset + b * capture.count, results[b]);
            std::puts("spread over the blocks that returned 0 (min .. max, standard deviation)");
            for (const Figure& f : figures()) {
                const Spread sp = spreadOf(results, f);
                if (sp.n > 0)
                    std::printf("  %-14s %14.6g .. %-14.6g  std %.4g %s\n", f.name, sp.min,
                                sp.max, sp.std, f.unit);
            }
        }
    }
    if (o.measure && o.json != "-") {
        for (uint64_t b = 0; b < capture.numBlocks; ++b) {
            Request block = request;
            const auto from = static_cast<std::ptrdiff_t>(b * capture.count);
            const auto to = from + static_cast<std::ptrdiff_t>(capture.count);
            block.I.assign(capture.I.begin() + from, capture.I.begin() + to);
            block.Q.assign(capture.Q.begin() + from, capture.Q.begin() + to);
            int code = 0;
            if (capture.numBlocks > 1) std::printf("block %llu ", static_cast<unsigned long long>(b));
            std::fputs(measurementReport(block, &code).c_str(), stdout);
        }
    }
    if (!o.json.empty()) {
        try {
            writeReport(o.json, jsonReport(capture, request, results));
        } catch (const InputError& e) {
            fail(e.what());
        }
    }
    for (const Result& r : results)
        if (r.code != 0) return 1;
    return 0;
}
