// Measurement mode, analog codes.
//
//  AM (10): the carrier is the strongest line of the capture (its frequency
//    to a small fraction of a bin, its phase); the in-phase component of the
//    derotated signal is A (1 + m cos(2 pi f t)) for any depth, including
//    over-modulation, and a least-squares sinusoid fit at the tone's own
//    frequency gives m.
//  FM (11): instantaneous frequency from successive phase differences; a
//    constant-plus-sinusoid fit gives the carrier (the constant) and the peak
//    deviation. The phase difference over one sample averages the frequency
//    over that sample, which scales a tone by sin(pi f / fs) / (pi f / fs);
//    the deviation is divided by that factor.
//  PM (12): unwrapped phase fitted by a line (the carrier) plus a sinusoid
//    (the peak phase deviation).
//  Carrier only (13): the strongest line.
//  In-phase waveforms (14, 15): a real message on the carrier, x = s(t)
//    exp(j(2 pi fc t + phi)); the square has a line at 2 fc; the in-phase
//    component after derotation is the message, whose strongest line is the
//    tone.
#include <cmath>

#include "measurement.h"

using vantrel::meas::cd;
using vantrel::meas::WorkVec;

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Strongest line of a real sequence, cycles per sample in [0, 0.5].
double toneOf(const WorkVec<double>& r) {
    double mean = 0.0;
    for (double v : r) mean += v;
    mean /= double(r.size());
    WorkVec<cd> c(r.size());
    for (std::size_t i = 0; i < r.size(); ++i) c[i] = cd(r[i] - mean, 0.0);
    return std::fabs(vantrel::meas::strongest_line(c.data(), c.size(), true, nullptr, nullptr));
}

// In-phase component after removing a carrier of f cycles per sample and
// phase phi.
WorkVec<double> inPhase(const WorkVec<cd>& x, double f, double phi) {
    WorkVec<double> r(x.size());
    for (std::size_t n = 0; n < x.size(); ++n)
        r[n] = (x[n] * std::polar(1.0, -(kTwoPi * std::fmod(f * double(n), 1.0) + phi))).real();
    return r;
}

// Instantaneous frequency (cycles per sample) and unwrapped phase.
void phaseAndFrequency(const WorkVec<cd>& x, WorkVec<double>& phase,
                       WorkVec<double>& freq) {
    const std::size_t n = x.size();
    phase.assign(n, 0.0);
    freq.assign(n, 0.0);
    if (n == 0) return;
    phase[0] = std::arg(x[0]);
    for (std::size_t i = 1; i < n; ++i) {
        const double d = std::arg(x[i] * std::conj(x[i - 1]));
        phase[i] = phase[i - 1] + d;
        freq[i] = d / kTwoPi;
    }
    if (n > 1) freq[0] = freq[1];
}

// Frequency-discriminator lock: the residual of the fitted frequency model
// is small against the spread of a noise-only discriminator (1/sqrt(12)
// cycles per sample).
bool discriminatorLocked(const WorkVec<double>& freq, const vantrel::meas::ToneFit& fit,
                         double f) {
    double res = 0.0;
    for (std::size_t n = 0; n < freq.size(); ++n) {
        const double ph = kTwoPi * std::fmod(f * double(n), 1.0);
        const double model = fit.c0 + fit.a * std::cos(ph) + fit.b * std::sin(ph);
        res += (freq[n] - model) * (freq[n] - model);
    }
    return std::sqrt(res / double(freq.size())) < 0.1;
}

}  // namespace

void measureAnalog(MeasurementPipeline& p, VantrelMeasurement& m) {
    const WorkVec<cd>& x = p.raw;
    const std::size_t n = x.size();
    if (n < 64 || !(p.fs > 0.0)) return;
    const double fs = p.fs;
    switch (p.mode) {
    case MOD_ANALOG_AM:
    case MOD_ANALOG_SHIFT: {
        cd amp;
        double strength = 0.0;
        const double f = vantrel::meas::strongest_line(x.data(), n, false, &amp, &strength);
        p.carrierHz = f * fs;
        p.phase0 = std::arg(amp);
        m.carrierOffsetHz = p.carrierHz;
        if (strength > 0.2) m.flags |= VANTREL_MEAS_CARRIER_LOCKED;
        if (p.mode == MOD_ANALOG_AM) {
            const WorkVec<double> r = inPhase(x, f, p.phase0);
            const double tone = toneOf(r);
            const vantrel::meas::ToneFit fit = vantrel::meas::fit_tone(r.data(), n, tone, false);
            m.modulationRateHz = tone * fs;
            if (fit.c0 != 0.0) m.amDepthPercent = 100.0 * fit.amplitude() / std::fabs(fit.c0);
        }
        break;
    }
    case MOD_ANALOG_FM: {
        WorkVec<double> phase, freq;
        phaseAndFrequency(x, phase, freq);
        const double tone = toneOf(freq);
        const vantrel::meas::ToneFit fit = vantrel::meas::fit_tone(freq.data(), n, tone, false);
        p.carrierHz = fit.c0 * fs;
        m.carrierOffsetHz = p.carrierHz;
        m.modulationRateHz = tone * fs;
        const double arg = 3.141592653589793 * tone;
        const double gain = arg > 0.0 ? std::sin(arg) / arg : 1.0;
        m.fmDeviationHz = fit.amplitude() * fs / gain;
        if (discriminatorLocked(freq, fit, tone)) m.flags |= VANTREL_MEAS_CARRIER_LOCKED;
        break;
    }
    case MOD_ANALOG_PM: {
        WorkVec<double> phase, freq;
        phaseAndFrequency(x, phase, freq);
        const double tone = toneOf(freq);
        const vantrel::meas::ToneFit fit = vantrel::meas::fit_tone(phase.data(), n, tone, true);
        p.carrierHz = fit.c1 / kTwoPi * fs;
        m.carrierOffsetHz = p.carrierHz;
        m.modulationRateHz = tone * fs;
        m.pmDeviationRad = fit.amplitude();
        const vantrel::meas::ToneFit ffit = vantrel::meas::fit_tone(freq.data(), n, tone, false);
        if (discriminatorLocked(freq, ffit, tone)) m.flags |= VANTREL_MEAS_CARRIER_LOCKED;
        break;
    }
    default: {  // in-phase waveforms
        WorkVec<cd> sq(n);
        for (std::size_t i = 0; i < n; ++i) sq[i] = x[i] * x[i];
        cd amp;
        double strength = 0.0;
        const double f2 = vantrel::meas::strongest_line(sq.data(), n, false, &amp, &strength);
        p.carrierHz = 0.5 * f2 * fs;
        p.phase0 = 0.5 * std::arg(amp);
        m.carrierOffsetHz = p.carrierHz;
        if (strength > 0.1) m.flags |= VANTREL_MEAS_CARRIER_LOCKED;
        const WorkVec<double> r = inPhase(x, 0.5 * f2, p.phase0);
        m.modulationRateHz = toneOf(r) * fs;
        break;
    }
    }
}
