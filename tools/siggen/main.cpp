// vantrel-siggen: writes a test capture and its truth.
//
//   vantrel-siggen --mode QPSK --sps 8 --esno 30 --out demo
//
// writes demo.bin (interleaved native int16 I,Q) and demo.json; --sigmf adds
// demo.sigmf-data and demo.sigmf-meta. Exit status 0 on success, 1 on a bad
// argument, 2 when the signal would clip, 3 when a file cannot be written.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>

#include "siggen.h"
#include "siggen_writer.h"

namespace sg = vantrel::siggen;

namespace {

const char* kUsage =
    "usage: vantrel-siggen --mode NAME|CODE [options] --out PREFIX\n"
    "\n"
    "Writes PREFIX.bin (interleaved native int16 I,Q, the layout of the library's\n"
    "debug capture) and PREFIX.json (parameters, impairments, transmitted symbols\n"
    "and bits labelled as the library decides them).\n"
    "\n"
    "Signal:\n"
    "  --mode M          BPSK QPSK 8PSK 16QAM 32QAM 64QAM 128QAM 256QAM ASK 2FSK\n"
    "                    4FSK 2FSK_B AM FM PM SHIFT I_A I_B, or the code 1..18\n"
    "  --rb HZ           symbol rate (default 25000); sample rate fs = sps * rb\n"
    "  --sps X           samples per symbol, 1..64 (non-integer: resampled)\n"
    "                    (resampled; default 8)\n"
    "  --fs HZ           sample rate instead of --rb (rb = fs / sps)\n"
    "  --symbols N       capture length in symbols (default 4000)\n"
    "  --samples N       capture length in samples (overrides --symbols)\n"
    "  --filter F        rrc rc gauss rect halfsine, or 1..5 (default rrc)\n"
    "  --rolloff B       roll-off of rrc/rc, BT of gauss (default 0.35)\n"
    "  --span N          pulse span in symbols, even (default 12)\n"
    "  --seed N          random seed (default 1); same seed, same samples\n"
    "  --deviation HZ    FSK deviation: frequency of the outer level (default rb/2)\n"
    "  --ask-low A       ASK amplitude of symbol 0, 0..1 (default 0)\n"
    "  --tone HZ         analog modulating tone (default 1000)\n"
    "  --am-depth D      AM depth, envelope 1 + D cos (default 0.5)\n"
    "  --fm-dev HZ       FM peak deviation (default 5000)\n"
    "  --pm-peak RAD     PM peak phase (default 1.0)\n"
    "\n"
    "Impairments:\n"
    "  --cfo HZ          carrier frequency offset (SHIFT: the carrier's offset)\n"
    "  --phase RAD       carrier phase\n"
    "  --esno DB         AWGN at Es/N0: noise variance = P * sps / 10^(DB/10)\n"
    "  --snr DB          AWGN at SNR over the sampling band: P / 10^(DB/10)\n"
    "  --gain R          I/Q gain ratio, I multiplied by R (default 1)\n"
    "  --skew RAD        quadrature skew, Q' = sin(skew) I + cos(skew) Q\n"
    "  --dc-i X, --dc-q X  DC offset added to the int16 I and Q\n"
    "  --timing T        symbol-timing delay in symbols, -1..1\n"
    "  --clock-ppm P     symbol-clock error in ppm, -1000..1000\n"
    "\n"
    "Output:\n"
    "  --peak P          largest |I| or |Q| before DC, int16 units (default 16384)\n"
    "  --rms R           RMS of |I + jQ| instead of --peak\n"
    "  --out PREFIX      output file prefix (required)\n"
    "  --sigmf           also write PREFIX.sigmf-data (ci16_le) and .sigmf-meta\n"
    "  --quiet           print nothing on success\n"
    "  --help            this text\n"
    "\n"
    "Exit status: 0 written, 1 bad argument, 2 the signal would clip (nothing\n"
    "written), 3 a file could not be written.\n";

struct BadArgument : std::runtime_error {
    using std::runtime_error::runtime_error;
};

double toDouble(const std::string& flag, const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        throw BadArgument(flag + ": not a number: '" + text + "'");
    return v;
}

long long toInteger(const std::string& flag, const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        throw BadArgument(flag + ": not an integer: '" + text + "'");
    return v;
}

struct Options {
    sg::Config cfg;
    std::string out;
    bool sigmf = false, quiet = false, help = false;
    double fs = 0.0;
};

Options parse(int argc, char** argv) {
    Options o;
    bool haveMode = false;
    using Setter = std::function<void(const std::string&, const std::string&)>;
    sg::Config& c = o.cfg;
    const std::map<std::string, Setter> valued = {
        {"--mode",
         [&](const std::string& f, const std::string& v) {
             c.mode = sg::modeFromName(v);
             if (c.mode < 0) throw BadArgument(f + ": unknown mode '" + v + "'");
             haveMode = true;
         }},
        {"--rb", [&](const std::string& f, const std::string& v) { c.Rb = toDouble(f, v); }},
        {"--sps", [&](const std::string& f, const std::string& v) { c.sps = toDouble(f, v); }},
        {"--fs", [&](const std::string& f, const std::string& v) { o.fs = toDouble(f, v); }},
        {"--symbols",
         [&](const std::string& f, const std::string& v) { c.numSymbols = long(toInteger(f, v)); }},
        {"--samples",
         [&](const std::string& f, const std::string& v) { c.numSamples = long(toInteger(f, v)); }},
        {"--filter",
         [&](const std::string& f, const std::string& v) {
             c.filterType = sg::filterFromName(v);
             if (c.filterType < 0) throw BadArgument(f + ": unknown filter '" + v + "'");
         }},
        {"--rolloff", [&](const std::string& f, const std::string& v) { c.rolloff = toDouble(f, v); }},
        {"--span", [&](const std::string& f, const std::string& v) { c.span = int(toInteger(f, v)); }},
        {"--seed",
         [&](const std::string& f, const std::string& v) {
             const long long s = toInteger(f, v);
             if (s < 0) throw BadArgument(f + ": the seed must not be negative");
             c.seed = static_cast<std::uint64_t>(s);
         }},
        {"--deviation",
         [&](const std::string& f, const std::string& v) { c.fskDeviationHz = toDouble(f, v); }},
        {"--ask-low", [&](const std::string& f, const std::string& v) { c.askLowLevel = toDouble(f, v); }},
        {"--tone", [&](const std::string& f, const std::string& v) { c.toneHz = toDouble(f, v); }},
        {"--am-depth", [&](const std::string& f, const std::string& v) { c.amDepth = toDouble(f, v); }},
        {"--fm-dev", [&](const std::string& f, const std::string& v) { c.fmDeviationHz = toDouble(f, v); }},
        {"--pm-peak", [&](const std::string& f, const std::string& v) { c.pmPeakRad = toDouble(f, v); }},
        {"--cfo", [&](const std::string& f, const std::string& v) { c.carrierOffsetHz = toDouble(f, v); }},
        {"--phase", [&](const std::string& f, const std::string& v) { c.carrierPhase = toDouble(f, v); }},
        {"--esno", [&](const std::string& f, const std::string& v) { c.esn0Db = toDouble(f, v); }},
        {"--snr", [&](const std::string& f, const std::string& v) { c.snrDb = toDouble(f, v); }},
        {"--gain", [&](const std::string& f, const std::string& v) { c.gainImbalance = toDouble(f, v); }},
        {"--skew", [&](const std::string& f, const std::string& v) { c.quadSkew = toDouble(f, v); }},
        {"--dc-i", [&](const std::string& f, const std::string& v) { c.dcI = toDouble(f, v); }},
        {"--dc-q", [&](const std::string& f, const std::string& v) { c.dcQ = toDouble(f, v); }},
        {"--timing", [&](const std::string& f, const std::string& v) { c.timingOffset = toDouble(f, v); }},
        {"--clock-ppm", [&](const std::string& f, const std::string& v) { c.clockOffsetPpm = toDouble(f, v); }},
        {"--peak", [&](const std::string& f, const std::string& v) { c.peak = toDouble(f, v); }},
        {"--rms", [&](const std::string& f, const std::string& v) { c.rms = toDouble(f, v); }},
        {"--out", [&](const std::string&, const std::string& v) { o.out = v; }},
    };
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i], value;
        const std::size_t eq = flag.find('=');
        const bool inlineValue = flag.rfind("--", 0) == 0 && eq != std::string::npos;
        if (inlineValue) {
            value = flag.substr(eq + 1);
            flag = flag.substr(0, eq);
        }
        if (flag == "--help" || flag == "-h") {
            o.help = true;
            return o;
        }
        if (flag == "--sigmf" || flag == "--quiet") {
            (flag == "--sigmf" ? o.sigmf : o.quiet) = true;
            continue;
        }
        const auto it = valued.find(flag);
        if (it == valued.end()) throw BadArgument("unknown option '" + flag + "'");
        if (!inlineValue) {
            if (i + 1 >= argc) throw BadArgument(flag + " needs a value");
            value = argv[++i];
        }
        it->second(flag, value);
    }
    if (!haveMode) throw BadArgument("--mode is required");
    if (o.out.empty()) throw BadArgument("--out is required");
    if (o.fs != 0.0) {
        if (!(o.fs > 0.0) || !(c.sps > 0.0)) throw BadArgument("--fs needs a positive rate and sps");
        c.Rb = o.fs / c.sps;
    }
    return o;
}

std::string joinArgs(int argc, char** argv) {
    std::string s;
    for (int i = 0; i < argc; ++i) s += (i ? " " : "") + std::string(argv[i]);
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    try {
        o = parse(argc, argv);
    } catch (const BadArgument& e) {
        std::fprintf(stderr, "vantrel-siggen: %s\n(try --help)\n", e.what());
        return 1;
    }
    if (o.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    sg::Result r;
    try {
        r = sg::generate(o.cfg);
    } catch (const sg::ClipError& e) {
        std::fprintf(stderr, "vantrel-siggen: error: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vantrel-siggen: error: %s\n", e.what());
        return 1;
    }
    try {
        const auto names = sg::writeCapture(r, o.out, o.sigmf, joinArgs(argc, argv));
        if (!o.quiet) {
            std::printf("%s: %zu samples at %.6g Hz", sg::modeName(r.config.mode).c_str(),
                        r.I.size(), r.fs);
            if (r.family != sg::Family::Analog) std::printf(", %zu symbols", r.symbols.size());
            std::printf(", scale %.6g\n", r.scale);
            for (const std::string& n : names) std::printf("  wrote %s\n", n.c_str());
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vantrel-siggen: error: %s\n", e.what());
        return 3;
    }
    return 0;
}
