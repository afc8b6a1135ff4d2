// Test-signal generator: captures whose truth is known.
//
// generate() builds one block of int16 I/Q samples of any modulation code the
// library analyses, together with the transmitted symbols and bits labelled
// exactly as the library's decisions label them, so that a decided symbol or
// bit can be compared one for one with what was sent.
//
// Signal chain, in this order:
//
//   symbols -> pulse shaping at L samples per symbol (L integer)
//           -> [resampling L -> sps when sps is not an integer]
//           -> carrier offset and phase:  x[n] *= exp(j(2*pi*f0*n/fs + phi0))
//           -> AWGN
//           -> I/Q gain imbalance and quadrature skew
//           -> scaling to int16, DC offset, rounding (clipping is an error)
//
// Determinism: every random number comes from xoshiro256** seeded through
// splitmix64, and Gaussian values from the Box-Muller transform written out
// here; the symbol stream and the noise stream are separate generators, so
// adding noise never changes the symbols. The same seed gives the same int16
// samples with any conforming compiler and a correctly rounding libm (the
// build disables floating-point contraction so x86-64 and FMA machines agree).
//
// Definitions of the impairments (units in brackets):
//
//   Es/N0 [dB]  noise variance per complex sample
//                 sigma^2 = P * sps / 10^(EsN0/10),
//               where P is the mean power |x|^2 of the noiseless signal
//               measured over the whole output block and sps = fs/Rb. P*sps is
//               the mean energy per symbol in sample units and sigma^2 the
//               noise spectral density over the sampling band.
//   SNR [dB]    sigma^2 = P / 10^(SNR/10): the ratio over the full sampling
//               band. Only one of Es/N0 and SNR may be given.
//   gain        I/Q amplitude ratio: I' = gain * I (the ratio rms(I)/rms(Q) of
//               a balanced signal becomes gain).
//   skew [rad]  quadrature error: Q' = sin(skew) * I + cos(skew) * Q, so the
//               normalised I/Q correlation of a circular signal is sin(skew).
//   DC [raw]    added to the int16-scaled I and Q before rounding.
//   timing      a delay of the symbol clock in symbols: the ideal instant of
//               symbol j moves from j*sps to (j + timing)*sps samples. It is
//               built into the pulse taps, so it is exact at any sps.
//   carrier     frequency offset in Hz and initial phase in radians.
//   clock [ppm] symbol-clock error: the transmitted symbol rate is
//               Rb * (1 + ppm * 1e-6) while fs stays sps * Rb, so symbol j
//               sits at (j + timing) * sps / (1 + ppm * 1e-6) samples. The
//               waveform then takes the resampling path below.
//
// Resampling (non-integer sps): the pulses are generated at L = 2*ceil(sps)
// samples per symbol and interpolated to sps by a Kaiser-windowed sinc
// polyphase filter (see siggen_resampler.h): passband ripple within +/-0.0001 dB up
// to 0.4*fs_out, stopband rejection at least 99 dB beyond 0.6*fs_out (below
// two samples per symbol: up to 0.45*fs_out and beyond 0.55*fs_out).
#pragma once

#include <complex>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace vantrel::siggen {

// Filter codes, the same numbers as the library's FilterType.
enum PulseType { kRRC = 1, kRC = 2, kGauss = 3, kRect = 4, kHalfSine = 5 };

// Signal family of a mode code, as the library's mode table assigns it.
enum class Family { PSK, QAM, ASK, FSK, Analog };

struct Config {
    int mode = 5;              // library mode code (1..18)
    double Rb = 25000.0;       // symbol rate in Hz; fs = sps * Rb
    double sps = 8.0;          // samples per symbol, 1..64 (non-integer: resampled)
    int filterType = kRRC;     // shaping pulse, library FilterType code 1..5
    double rolloff = 0.35;     // roll-off of RRC/RC, or BT of the Gaussian
    int span = 12;             // pulse span in symbols (RRC, RC, Gaussian), even
    long numSymbols = 4000;    // capture length in symbols ...
    long numSamples = 0;       // ... or, when > 0, in samples
    std::uint64_t seed = 1;

    double carrierOffsetHz = 0.0;
    double carrierPhase = 0.0;  // rad
    double esn0Db = std::numeric_limits<double>::quiet_NaN();  // NaN: no noise
    double snrDb = std::numeric_limits<double>::quiet_NaN();   // NaN: no noise
    double gainImbalance = 1.0;
    double quadSkew = 0.0;      // rad
    double dcI = 0.0, dcQ = 0.0;  // int16 units
    double timingOffset = 0.0;  // symbols, |timing| <= 1
    double clockOffsetPpm = 0.0;  // symbol clock error, |ppm| <= 1000 (digital)

    double peak = 16384.0;  // largest |I| or |Q| (before DC) in int16 units ...
    double rms = 0.0;       // ... or, when > 0, the RMS of |I + jQ| instead

    // Digital families.
    double fskDeviationHz = std::numeric_limits<double>::quiet_NaN();  // NaN: Rb/2
    double askLowLevel = 0.0;  // amplitude of symbol 0 (symbol 1 is 1.0), 0..1

    // Analog codes 10..15.
    double toneHz = 1000.0;         // modulating tone
    double amDepth = 0.5;           // envelope 1 + depth*cos(2*pi*tone*t)
    double fmDeviationHz = 5000.0;  // instantaneous frequency dev*cos(2*pi*tone*t)
    double pmPeakRad = 1.0;         // phase peak*sin(2*pi*tone*t)
};

struct Result {
    std::vector<std::int16_t> I, Q;
    double fs = 0.0;  // sample rate, Hz
    Config config;    // the configuration with defaults resolved (deviation)

    Family family = Family::PSK;
    int order = 0;          // constellation size or FSK levels (0 for analog)
    int bitsPerSymbol = 0;  // bits per symbol as the library's decisions emit them

    // Truth, one entry per transmitted symbol in time order, and its bits in
    // the order the library's decisions write them (bitsPerSymbol each).
    std::vector<int> symbols;
    std::vector<int> bits;
    // Ideal point of each symbol: the complex PSK/QAM point on the decision
    // grid, the ASK amplitude, or the FSK level (+-1, +-3) on the real axis.
    std::vector<std::complex<double>> points;
    // Output sample index (may be negative or fractional) of the ideal instant
    // of symbols[0]; symbol j is at firstSymbolSample + j*symbolPeriod.
    double firstSymbolSample = 0.0;
    double symbolPeriod = 0.0;  // samples per transmitted symbol (sps with no clock error)

    // Complex baseband after every impairment except scaling and DC: the
    // int16 samples are round(scale * baseband + dc).
    std::vector<std::complex<double>> baseband;
    double scale = 0.0;           // int16 units per baseband unit
    double signalPower = 0.0;     // P, mean |x|^2 of the noiseless signal
    double noiseVariance = 0.0;   // sigma^2 per complex sample (0: no noise)
    int internalSps = 0;          // L, the integer rate of the pulse shaping
    bool resampled = false;       // true when L != sps
};

// The generator's single entry. Throws std::invalid_argument for a bad
// parameter and ClipError when the scaled samples would not fit in int16.
struct ClipError : std::range_error {
    using std::range_error::range_error;
};
Result generate(const Config& cfg);

// ---- Building blocks, exposed for the tests and the tools ----

// Family, order and bits per symbol of a mode code; false for an unknown code.
bool modeInfo(int mode, Family* family, int* order, int* bitsPerSymbol);
// "QPSK", "16QAM", ... for a code; "" for an unknown code.
std::string modeName(int mode);
// Code of a name (case-insensitive) or of a decimal number; -1 when unknown.
int modeFromName(const std::string& name);
// Code of a filter name ("rrc", "rc", "gauss", "rect", "halfsine") or number.
int filterFromName(const std::string& name);
std::string filterName(int filterType);

// The labelled alphabet of a digital mode: points[s] is the ideal point of
// symbol s, bits[s] its bits in decision order. Symbols are drawn uniformly
// from this alphabet. PSK: phase 0 / pi (BPSK), (2k+1)*pi/M otherwise, bits
// the Gray code of k, most significant first. QAM: every point of the
// odd-integer grid that the QAM decision accepts for the order, numbered by
// that decision, bit k = bit k of the number. ASK: symbol 0 = askLow,
// symbol 1 = 1.0. FSK levels on the real axis: code 1 -1 (0), +1 (1);
// code 2 -3 (0), +3 (1), -1 (2), +1 (3) with bits (sign, inner); code 3 two
// tones -3 (0), +3 (1) labelled in that four-level alphabet. Empty for
// analog or unknown codes.
struct Alphabet {
    std::vector<std::complex<double>> points;
    std::vector<std::vector<int>> bits;
    double outerLevel = 1.0;  // largest |point| coordinate (FSK: the +-dev level)
};
Alphabet alphabetFor(int mode, double askLow = 0.0);

// Continuous pulse p(t), t in symbols, centred on 0, unnormalised:
// RRC and RC the usual closed forms with roll-off beta, Gaussian
// exp(-(pi*t/a)^2) with a = sqrt(ln2/2)/BT, rectangle 1 on [-1/2, 1/2),
// half sine cos(pi*t) on [-1/2, 1/2].
double pulseValue(int filterType, double beta, double t);
// Taps p(d/L - delay) for d = -H..H with H = ceil((halfSupport + |delay|)*L),
// scaled to unit energy (sum of squares 1). halfSupport is span/2 for the
// raised-cosine and Gaussian pulses and 1/2 for the rectangle and half sine.
std::vector<double> pulseTaps(int filterType, double beta, int span, int L, double delay);

// xoshiro256** seeded by splitmix64, with a written-out Box-Muller.
class Rng {
public:
    explicit Rng(std::uint64_t seed);
    std::uint64_t next();
    double uniform();            // [0, 1), 53 random bits
    int below(int n);            // uniform integer 0..n-1 (n >= 1)
    std::complex<double> gaussian();  // circular, E|z|^2 = 1
    static std::uint64_t splitmix64(std::uint64_t* state);

private:
    std::uint64_t s_[4];
};

}  // namespace vantrel::siggen
