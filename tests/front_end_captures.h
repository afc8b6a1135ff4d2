// Small deterministic capture generators for the front-end tests: tones,
// PSK/QAM symbol streams and seeded Gaussian noise. Written independently of
// the library so that they can serve as the tests' truth.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "complex.h"

namespace captures {

constexpr double kTwoPi = 6.283185307179586;

// xorshift64* generator: a fixed seed gives the same capture on every run.
class Rng {
public:
    explicit Rng(std::uint64_t seed) : s_(seed ? seed : 0x9E3779B97F4A7C15ull) {}
    std::uint64_t next() {
        s_ ^= s_ >> 12;
        s_ ^= s_ << 25;
        s_ ^= s_ >> 27;
        return s_ * 0x2545F4914F6CDD1Dull;
    }
    // Uniform in (0, 1): 53 random bits, never exactly 0.
    double uniform() { return (static_cast<double>(next() >> 11) + 0.5) / 9007199254740992.0; }
    int below(int n) { return static_cast<int>(next() % static_cast<std::uint64_t>(n)); }
    // Standard normal by the Box-Muller transform.
    double gauss() {
        if (haveSpare_) {
            haveSpare_ = false;
            return spare_;
        }
        const double r = std::sqrt(-2.0 * std::log(uniform()));
        const double t = kTwoPi * uniform();
        spare_ = r * std::sin(t);
        haveSpare_ = true;
        return r * std::cos(t);
    }

private:
    std::uint64_t s_;
    bool haveSpare_ = false;
    double spare_ = 0.0;
};

// A complex tone A e^{j 2 pi f n / fs}, n = 0 .. len-1.
inline std::vector<Complex> tone(int len, double A, double f, double fs) {
    std::vector<Complex> x(static_cast<size_t>(len));
    for (int n = 0; n < len; ++n) {
        const double ph = kTwoPi * f * n / fs;
        x[static_cast<size_t>(n)] = Complex{A * std::cos(ph), A * std::sin(ph)};
    }
    return x;
}

// Rounds a double sample to int16 (the captures are well inside the range).
inline std::int16_t to_i16(double v) { return static_cast<std::int16_t>(std::lround(v)); }

// Random symbols of a square QAM (levels +-1, +-3, ...) or of M-PSK on the
// unit circle, one per symbol.
inline std::vector<Complex> qam_symbols(int count, int side, Rng& rng) {
    std::vector<Complex> s(static_cast<size_t>(count));
    for (Complex& c : s) {
        c.re = 2.0 * rng.below(side) - (side - 1);
        c.im = 2.0 * rng.below(side) - (side - 1);
    }
    return s;
}
inline std::vector<Complex> psk_symbols(int count, int M, Rng& rng) {
    std::vector<Complex> s(static_cast<size_t>(count));
    for (Complex& c : s) {
        const double ph = kTwoPi * rng.below(M) / M;
        c = Complex{std::cos(ph), std::sin(ph)};
    }
    return s;
}

// Holds each symbol for sps samples (rectangular pulses) and rotates the
// result by a carrier offset f (Hz) at rate fs.
inline std::vector<Complex> hold_and_rotate(const std::vector<Complex>& sym, int sps, double f,
                                            double fs) {
    std::vector<Complex> x(sym.size() * static_cast<size_t>(sps));
    for (size_t n = 0; n < x.size(); ++n) {
        const Complex s = sym[n / static_cast<size_t>(sps)];
        const double ph = kTwoPi * f * static_cast<double>(n) / fs;
        const double c = std::cos(ph), d = std::sin(ph);
        x[n] = Complex{s.re * c - s.im * d, s.re * d + s.im * c};
    }
    return x;
}

// Root-raised-cosine impulse response, span symbols long at sps samples per
// symbol, unit energy.
inline std::vector<double> rrc_taps(double beta, int span, int sps) {
    const double pi = kTwoPi / 2.0;
    const int len = span * sps + 1;
    std::vector<double> h(static_cast<size_t>(len));
    double energy = 0.0;
    for (int i = 0; i < len; ++i) {
        const double t = static_cast<double>(i - len / 2) / sps;
        double v;
        if (t == 0.0) {
            v = 1.0 - beta + 4.0 * beta / pi;
        } else if (std::fabs(std::fabs(4.0 * beta * t) - 1.0) < 1e-12) {
            v = beta / std::sqrt(2.0) *
                ((1.0 + 2.0 / pi) * std::sin(pi / (4.0 * beta)) +
                 (1.0 - 2.0 / pi) * std::cos(pi / (4.0 * beta)));
        } else {
            v = (std::sin(pi * t * (1.0 - beta)) + 4.0 * beta * t * std::cos(pi * t * (1.0 + beta))) /
                (pi * t * (1.0 - 16.0 * beta * beta * t * t));
        }
        h[static_cast<size_t>(i)] = v;
        energy += v * v;
    }
    for (double& v : h) v /= std::sqrt(energy);
    return h;
}

// Symbols upsampled by sps and shaped by taps (full convolution, the first
// len samples kept after the filter's fill-in).
inline std::vector<Complex> shape(const std::vector<Complex>& sym, int sps,
                                  const std::vector<double>& h, int len) {
    std::vector<Complex> x(static_cast<size_t>(len), Complex{0.0, 0.0});
    const int L = static_cast<int>(h.size());
    for (int n = 0; n < len; ++n) {
        const int t = n + L;  // skip the fill-in of the first L samples
        double re = 0.0, im = 0.0;
        for (int k = 0; k < L; ++k) {
            const int m = t - k;
            if (m % sps != 0) continue;
            const size_t idx = static_cast<size_t>(m / sps);
            if (idx >= sym.size()) continue;
            re += h[static_cast<size_t>(k)] * sym[idx].re;
            im += h[static_cast<size_t>(k)] * sym[idx].im;
        }
        x[static_cast<size_t>(n)] = Complex{re, im};
    }
    return x;
}

// Adds complex white Gaussian noise of total power sigma2 per sample.
inline void add_noise(std::vector<Complex>& x, double sigma2, Rng& rng) {
    const double s = std::sqrt(sigma2 / 2.0);
    for (Complex& c : x) {
        c.re += s * rng.gauss();
        c.im += s * rng.gauss();
    }
}

inline double mean_power(const std::vector<Complex>& x) {
    double p = 0.0;
    for (const Complex& c : x) p += c.re * c.re + c.im * c.im;
    return p / static_cast<double>(x.size());
}

// Rounding half away from zero, written out independently of the library.
inline long half_away(double x) { return x < 0 ? -static_cast<long>(std::floor(-x + 0.5))
                                               : static_cast<long>(std::floor(x + 0.5)); }

}  // namespace captures
