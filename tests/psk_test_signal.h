// Test-side PSK signal synthesis, written independently of the library's
// pulse and timing code so that it can serve as the oracle.
//
// The transmitted truth is a list of sector indices; symbol j of M-PSK is
// sent at angle 2 pi j / M + pi / M (sector centres) for M >= 4 and at 0 / pi
// for BPSK. The waveform is evaluated from the continuous pulse at arbitrary
// instants, which gives fractional delays and clock offsets for free.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "complex.h"

namespace psktest {

constexpr double kPi = 3.14159265358979323846;

// Root-raised-cosine impulse response, t in symbols, unit energy over
// continuous time (the usual closed form with its two removable points).
inline double rrcPulse(double t, double beta) {
    if (std::fabs(t) < 1e-9) return 1.0 - beta + 4.0 * beta / kPi;
    const double edge = 1.0 / (4.0 * beta);
    if (std::fabs(std::fabs(t) - edge) < 1e-9) {
        return beta / std::sqrt(2.0) *
               ((1 + 2 / kPi) * std::sin(kPi / (4 * beta)) +
                (1 - 2 / kPi) * std::cos(kPi / (4 * beta)));
    }
    const double num = std::sin(kPi * t * (1 - beta)) + 4 * beta * t * std::cos(kPi * t * (1 + beta));
    const double den = kPi * t * (1 - (4 * beta * t) * (4 * beta * t));
    return num / den;
}

// Raised-cosine (Nyquist) pulse, t in symbols, value 1 at t = 0: what a
// root-raised-cosine link looks like after its matched filter.
inline double rcPulse(double t, double beta) {
    const double sincT = std::fabs(t) < 1e-12 ? 1.0 : std::sin(kPi * t) / (kPi * t);
    const double d = 1 - (2 * beta * t) * (2 * beta * t);
    if (std::fabs(d) < 1e-9) return kPi / 4 * std::sin(kPi / (2 * beta)) / (kPi / (2 * beta));
    return sincT * std::cos(kPi * beta * t) / d;
}

inline Complex pskPoint(int sector, int M) {
    const double offset = M == 2 ? 0.0 : kPi / M;
    const double a = 2 * kPi * sector / M + offset;
    return Complex{std::cos(a), std::sin(a)};
}

inline std::vector<int> randomSectors(int count, int M, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> pick(0, M - 1);
    std::vector<int> s(count);
    for (int& v : s) v = pick(rng);
    return s;
}

struct Shape {
    double sps = 4.0;        // samples per symbol of the receiver's clock
    double beta = 0.35;      // roll-off
    bool root = true;        // RRC (transmit pulse) or RC (after matched filter)
    double delay = 0.0;      // timing offset, in symbols
    double clock = 1.0;      // transmitter symbol period / receiver's idea of it
    double freq = 0.0;       // carrier offset, cycles per sample
    double phase = 0.0;      // carrier phase, radians
    double amplitude = 1.0;
    double esN0dB = 1000.0;  // symbol energy to noise density (per-sample sums)
    unsigned noiseSeed = 7;
};

// n samples of the shaped symbol stream: sample k sits at symbol time
// k / (sps . clock) - delay.
inline std::vector<Complex> shape(const std::vector<int>& sectors, int M, int n,
                                  const Shape& sh) {
    const int span = 12;
    std::vector<Complex> out(n);
    const int count = static_cast<int>(sectors.size());
    for (int k = 0; k < n; ++k) {
        const double t = k / (sh.sps * sh.clock) - sh.delay;
        const int centre = static_cast<int>(std::floor(t));
        double re = 0.0, im = 0.0;
        for (int s = centre - span; s <= centre + span; ++s) {
            if (s < 0 || s >= count) continue;
            const double p = sh.root ? rrcPulse(t - s, sh.beta) : rcPulse(t - s, sh.beta);
            const Complex a = pskPoint(sectors[s], M);
            re += a.re * p;
            im += a.im * p;
        }
        const double ph = sh.phase + 2 * kPi * sh.freq * k;
        const double c = std::cos(ph), sn = std::sin(ph);
        out[k] = Complex{sh.amplitude * (re * c - im * sn), sh.amplitude * (re * sn + im * c)};
    }
    if (sh.esN0dB < 999.0) {
        // Es = sps . amplitude^2 for a unit-energy pulse sampled sps times a
        // symbol; N0 is the complex noise variance per sample.
        const double n0 = sh.sps * sh.amplitude * sh.amplitude / std::pow(10.0, sh.esN0dB / 10);
        std::mt19937 rng(sh.noiseSeed);
        std::normal_distribution<double> g(0.0, std::sqrt(n0 / 2));
        for (Complex& x : out) {
            x.re += g(rng);
            x.im += g(rng);
        }
    }
    return out;
}

// Sector of a received point for the test's own constellation (nearest
// transmitted angle), independent of the library's decision code.
inline int nearestSector(Complex x, int M) {
    int best = 0;
    double bestD = 1e300;
    for (int j = 0; j < M; ++j) {
        const Complex p = pskPoint(j, M);
        const double d = (x.re - p.re) * (x.re - p.re) + (x.im - p.im) * (x.im - p.im);
        if (d < bestD) {
            bestD = d;
            best = j;
        }
    }
    return best;
}

// Finds the lag (symbols) and rotation (in units of 2 pi / M) that best align
// a decided sequence with the transmitted one, searching lags [0, maxLag].
// Returns the number of mismatches at the best alignment; lag and rotation
// through the pointers.
inline int bestAlignment(const std::vector<int>& decided, const std::vector<int>& sent, int M,
                         int firstSent, int maxLag, int* lagOut, int* rotOut) {
    int bestErr = 1 << 30;
    for (int lag = 0; lag <= maxLag; ++lag) {
        for (int rot = 0; rot < M; ++rot) {
            int err = 0;
            for (size_t i = 0; i < decided.size(); ++i) {
                const size_t s = static_cast<size_t>(firstSent + lag) + i;
                if (s >= sent.size()) {
                    err = 1 << 30;
                    break;
                }
                if ((sent[s] + rot) % M != decided[i]) ++err;
                if (err >= bestErr) break;
            }
            if (err < bestErr) {
                bestErr = err;
                *lagOut = lag;
                *rotOut = rot;
            }
        }
    }
    return bestErr;
}

}  // namespace psktest
