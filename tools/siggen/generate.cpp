// The test-signal generator: symbols, shaping, impairments, int16 scaling.
#include <algorithm>
#include <cmath>
#include <memory>
#include <sstream>

#include "siggen_resampler.h"
#include "safe_convert.h"
#include "siggen.h"

namespace vantrel::siggen {

namespace {

using Cplx = std::complex<double>;
constexpr double kPi = 3.141592653589793;
constexpr long kMaxSamples = 20000000;

void require(bool ok, const std::string& message) {
    if (!ok) throw std::invalid_argument(message);
}

bool isInteger(double x) { return std::fabs(x - std::round(x)) < 1e-9; }

// Checks every parameter that could make the signal meaningless or a loop
// run away, and resolves the FSK deviation default (half the symbol rate).
Config validated(const Config& in, Family family) {
    Config c = in;
    require(std::isfinite(c.Rb) && c.Rb > 0.0, "symbol rate must be a positive number of Hz");
    require(std::isfinite(c.sps) && c.sps >= 1.0 && c.sps <= 64.0,
            "samples per symbol must lie in [1, 64]");
    const double fs = c.sps * c.Rb;
    require(c.numSamples > 0 || (c.numSymbols > 0 && c.numSymbols * c.sps <= kMaxSamples),
            "symbol count must be positive and give at most 20000000 samples");
    require(c.numSamples <= kMaxSamples, "sample count must be at most 20000000");
    require(std::isfinite(c.carrierOffsetHz) && std::fabs(c.carrierOffsetHz) < fs / 2.0,
            "carrier offset must lie inside +-fs/2");
    require(std::isfinite(c.carrierPhase), "carrier phase must be finite");
    require(!(std::isfinite(c.esn0Db) && std::isfinite(c.snrDb)),
            "give either Es/N0 or SNR, not both");
    require(!std::isinf(c.esn0Db) && !std::isinf(c.snrDb), "Es/N0 and SNR must be finite");
    require(std::isfinite(c.gainImbalance) && c.gainImbalance > 0.0,
            "I/Q gain ratio must be positive");
    require(std::isfinite(c.quadSkew) && std::fabs(c.quadSkew) < kPi / 2.0,
            "quadrature skew must lie inside +-pi/2");
    require(std::isfinite(c.dcI) && std::isfinite(c.dcQ), "DC offsets must be finite");
    require(std::isfinite(c.timingOffset) && std::fabs(c.timingOffset) <= 1.0,
            "timing offset must lie in [-1, 1] symbols");
    require(std::isfinite(c.clockOffsetPpm) && std::fabs(c.clockOffsetPpm) <= 1000.0,
            "symbol clock offset must lie in [-1000, 1000] ppm");
    require(std::isfinite(c.peak) && c.peak > 0.0 && c.peak <= 32767.0,
            "peak must lie in (0, 32767]");
    require(std::isfinite(c.rms) && c.rms >= 0.0 && c.rms <= 32767.0,
            "rms must lie in [0, 32767]");

    if (family == Family::Analog) {
        require(std::isfinite(c.toneHz) && std::fabs(c.toneHz) < fs / 2.0,
                "tone frequency must lie inside +-fs/2");
        require(std::isfinite(c.amDepth) && c.amDepth >= 0.0, "AM depth must be >= 0");
        require(std::isfinite(c.fmDeviationHz) && c.fmDeviationHz >= 0.0,
                "FM deviation must be >= 0 Hz");
        require(std::isfinite(c.pmPeakRad), "PM peak phase must be finite");
        require(std::isnan(c.esn0Db), "analog signals take --snr, not Es/N0");
        require(c.fmDeviationHz == 0.0 || c.toneHz != 0.0, "FM needs a non-zero tone");
        return c;
    }
    require(c.filterType >= kRRC && c.filterType <= kHalfSine,
            "filter type must be 1..5 (rrc, rc, gauss, rect, halfsine)");
    if (c.filterType == kRRC || c.filterType == kRC)
        require(std::isfinite(c.rolloff) && c.rolloff > 0.0 && c.rolloff <= 1.0,
                "roll-off must lie in (0, 1]");
    if (c.filterType == kGauss)
        require(std::isfinite(c.rolloff) && c.rolloff > 0.0 && c.rolloff <= 10.0,
                "Gaussian BT must lie in (0, 10]");
    require(c.span >= 2 && c.span <= 64 && c.span % 2 == 0,
            "filter span must be an even number of symbols, 2..64");
    if (family == Family::FSK) {
        if (std::isnan(c.fskDeviationHz)) c.fskDeviationHz = c.Rb / 2.0;
        require(std::isfinite(c.fskDeviationHz) && c.fskDeviationHz > 0.0 &&
                    c.fskDeviationHz < fs / 2.0,
                "FSK deviation must lie in (0, fs/2) Hz");
    }
    if (family == Family::ASK)
        require(std::isfinite(c.askLowLevel) && c.askLowLevel >= 0.0 && c.askLowLevel < 1.0,
                "ASK low level must lie in [0, 1)");
    return c;
}

long sampleCount(const Config& c) {
    if (c.numSamples > 0) return c.numSamples;
    return std::max<long>(1, static_cast<long>(std::llround(double(c.numSymbols) * c.sps)));
}

// Adds a_k * h[n - k*L] for every symbol into x, whose index 0 stands for
// input sample nMin; symbol k0 + j carries value[j].
void scatterPulses(const std::vector<double>& values, long k0, int L,
                   const std::vector<double>& h, long nMin, std::vector<double>& x) {
    const long H = static_cast<long>(h.size() / 2);
    const long n = static_cast<long>(x.size());
    for (std::size_t j = 0; j < values.size(); ++j) {
        if (values[j] == 0.0) continue;
        const long centre = (k0 + long(j)) * L - nMin;
        const long lo = std::max(0L, centre - H), hi = std::min(n - 1, centre + H);
        for (long i = lo; i <= hi; ++i) x[i] += values[j] * h[i - centre + H];
    }
}

// The digital waveform at the output rate and the truth that goes with it.
std::vector<Cplx> digitalWaveform(const Config& c, long Ns, Result& r) {
    // Output samples per transmitted symbol: the clock error stretches or
    // shrinks the symbol period against the fixed sample rate.
    const double period = c.sps / (1.0 + c.clockOffsetPpm * 1e-6);
    const bool resample = !isInteger(c.sps) || c.clockOffsetPpm != 0.0;
    const int L = resample ? 2 * static_cast<int>(std::ceil(period))
                           : static_cast<int>(std::lround(c.sps));
    const double step = double(L) / period;  // input samples per output sample
    std::unique_ptr<Resampler> rs;
    long K = 0;
    if (resample) {
        // Below two samples per symbol the band edge of a shaped pulse comes
        // close to half the output rate: a narrower transition keeps it.
        rs = std::make_unique<Resampler>(step, period < 2.0 ? 0.1 : 0.2);
        K = rs->halfLength();
    }
    r.internalSps = L;
    r.resampled = resample;

    // Input samples that the output needs, and the symbols that reach them.
    const long nMin = -K - 1;
    const long nMax = static_cast<long>(std::ceil(double(Ns - 1) * step)) + K + 1;
    std::vector<double> h = pulseTaps(c.filterType, c.rolloff, c.span, L, c.timingOffset);
    const long H = static_cast<long>(h.size() / 2);
    const long k0 = static_cast<long>(std::floor(double(nMin - H) / L));
    const long k1 = static_cast<long>(std::ceil(double(nMax + H) / L));

    const Alphabet alpha = alphabetFor(c.mode, c.askLowLevel);
    Rng rng(c.seed);
    const long count = k1 - k0 + 1;
    std::vector<double> re(count), im(count);
    for (long j = 0; j < count; ++j) {
        const int s = rng.below(static_cast<int>(alpha.points.size()));
        r.symbols.push_back(s);
        r.points.push_back(alpha.points[s]);
        r.bits.insert(r.bits.end(), alpha.bits[s].begin(), alpha.bits[s].end());
        re[j] = alpha.points[s].real();
        im[j] = alpha.points[s].imag();
    }
    r.firstSymbolSample = (double(k0) + c.timingOffset) * period;
    r.symbolPeriod = period;

    std::vector<double> xi(nMax - nMin + 1, 0.0), xq(nMax - nMin + 1, 0.0);
    std::vector<Cplx> x(xi.size());
    if (r.family == Family::FSK) {
        // Continuous-phase FSK: the pulse shapes the instantaneous frequency,
        // scaled so that a symbol of level v advances the phase by
        // 2*pi*dev*(v/outer)/Rb, as a rectangular pulse would.
        double sum = 0.0;
        for (double v : h) sum += v;
        for (double& v : h) v *= L / sum;
        for (double& v : re) v *= c.fskDeviationHz / alpha.outerLevel;
        scatterPulses(re, k0, L, h, nMin, xi);
        // The phase integrates the frequency by the trapezoidal rule, so the
        // centred difference arg(x[n+1] conj(x[n-1])) sees the frequency of
        // sample n itself (no half-sample lag).
        const double fsIn = L * c.Rb * (1.0 + c.clockOffsetPpm * 1e-6);
        double phase = 0.0;
        for (std::size_t n = 0; n < x.size(); ++n) {
            x[n] = std::polar(1.0, phase);
            const double next = n + 1 < x.size() ? xi[n + 1] : xi[n];
            phase = std::remainder(phase + kPi * (xi[n] + next) / fsIn, 2.0 * kPi);
        }
    } else {
        scatterPulses(re, k0, L, h, nMin, xi);
        scatterPulses(im, k0, L, h, nMin, xq);
        for (std::size_t n = 0; n < x.size(); ++n) x[n] = {xi[n], xq[n]};
    }
    if (!resample) return std::vector<Cplx>(x.begin() - nMin, x.begin() - nMin + Ns);
    return rs->run(x, double(-nMin), static_cast<std::size_t>(Ns));
}

std::vector<Cplx> analogWaveform(const Config& c, long Ns, double fs) {
    std::vector<Cplx> x(Ns);
    for (long n = 0; n < Ns; ++n) {
        // The tone's phase is reduced to one cycle before scaling by 2*pi so
        // that long captures keep full precision.
        const double cyc = std::fmod(c.toneHz * double(n) / fs, 1.0);
        const double a = 2.0 * kPi * cyc;
        switch (c.mode) {
        case 10: x[n] = 1.0 + c.amDepth * std::cos(a); break;
        case 11:
            x[n] = c.fmDeviationHz == 0.0 ? Cplx(1.0, 0.0)
                                          : std::polar(1.0, c.fmDeviationHz / c.toneHz * std::sin(a));
            break;
        case 12: x[n] = std::polar(1.0, c.pmPeakRad * std::sin(a)); break;
        case 13: x[n] = 1.0; break;  // plain carrier; its offset is the carrier offset
        default: x[n] = std::cos(a); break;  // in-phase waveform, Q = 0
        }
    }
    return x;
}

void applyCarrier(std::vector<Cplx>& x, double f0, double phi0, double fs) {
    if (f0 == 0.0 && phi0 == 0.0) return;
    for (std::size_t n = 0; n < x.size(); ++n) {
        const double cyc = std::fmod(f0 * double(n) / fs, 1.0);
        x[n] *= std::polar(1.0, 2.0 * kPi * cyc + phi0);
    }
}

double meanPower(const std::vector<Cplx>& x) {
    double p = 0.0;
    for (const Cplx& v : x) p += std::norm(v);
    return x.empty() ? 0.0 : p / double(x.size());
}

// Receiver-side imbalance: Q' = sin(skew) I + cos(skew) Q, then I' = gain I.
void applyIqImbalance(std::vector<Cplx>& x, double gain, double skew) {
    if (gain == 1.0 && skew == 0.0) return;
    const double s = std::sin(skew), co = std::cos(skew);
    for (Cplx& v : x) v = {gain * v.real(), s * v.real() + co * v.imag()};
}

// round(scale * x + dc) into int16, or ClipError naming the worst sample.
void quantise(const Config& c, Result& r) {
    const std::vector<Cplx>& x = r.baseband;
    double maxAbs = 0.0;
    for (const Cplx& v : x) maxAbs = std::max({maxAbs, std::fabs(v.real()), std::fabs(v.imag())});
    if (c.rms > 0.0) {
        const double p = meanPower(x);
        r.scale = p > 0.0 ? c.rms / std::sqrt(p) : 0.0;
    } else {
        r.scale = maxAbs > 0.0 ? c.peak / maxAbs : 0.0;
    }
    r.I.resize(x.size());
    r.Q.resize(x.size());
    double worst = 0.0;
    std::size_t worstAt = 0;
    for (std::size_t n = 0; n < x.size(); ++n) {
        const double vi = std::round(r.scale * x[n].real() + c.dcI);
        const double vq = std::round(r.scale * x[n].imag() + c.dcQ);
        for (double v : {vi, vq}) {
            const double excess = v > 32767.0 ? v - 32767.0 : (v < -32768.0 ? -32768.0 - v : 0.0);
            if (excess > worst) {
                worst = excess;
                worstAt = n;
            }
        }
        r.I[n] = saturate_cast<std::int16_t>(vi);
        r.Q[n] = saturate_cast<std::int16_t>(vq);
    }
    if (worst > 0.0) {
        std::ostringstream msg;
        msg << "signal would clip: sample " << worstAt << " exceeds the int16 range by "
            << worst << " (scale " << r.scale << ", DC " << c.dcI << "/" << c.dcQ
            << "); lower the peak or rms level or the DC offset";
        throw ClipError(msg.str());
    }
}

}  // namespace

Result generate(const Config& cfg) {
    Result r;
    if (!modeInfo(cfg.mode, &r.family, &r.order, &r.bitsPerSymbol))
        throw std::invalid_argument("unknown mode code " + std::to_string(cfg.mode) +
                                    " (valid: 1..18)");
    r.config = validated(cfg, r.family);
    const Config& c = r.config;
    r.fs = c.sps * c.Rb;
    const long Ns = sampleCount(c);

    r.baseband = r.family == Family::Analog ? analogWaveform(c, Ns, r.fs)
                                            : digitalWaveform(c, Ns, r);
    applyCarrier(r.baseband, c.carrierOffsetHz, c.carrierPhase, r.fs);

    r.signalPower = meanPower(r.baseband);
    double ratioDb = std::numeric_limits<double>::quiet_NaN(), bandFactor = 1.0;
    if (std::isfinite(c.esn0Db)) {
        ratioDb = c.esn0Db;
        bandFactor = c.sps;
    } else if (std::isfinite(c.snrDb)) {
        ratioDb = c.snrDb;
    }
    if (std::isfinite(ratioDb)) {
        r.noiseVariance = r.signalPower * bandFactor / std::pow(10.0, ratioDb / 10.0);
        const double sigma = std::sqrt(r.noiseVariance);
        Rng noise(c.seed ^ 0xa5a5a5a5a5a5a5a5ULL);
        for (Cplx& v : r.baseband) v += sigma * noise.gaussian();
    }
    applyIqImbalance(r.baseband, c.gainImbalance, c.quadSkew);
    quantise(c, r);
    return r;
}

}  // namespace vantrel::siggen
