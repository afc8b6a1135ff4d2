// The test-signal generator: its truth must be right before anything else is
// judged by it. Expectations come from independent facts: the decision rules
// re-implemented here, mean constellation energies, Nyquist properties of the
// pulses, spectral lines, and measured noise.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <functional>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

#include "siggen_resampler.h"
#include "siggen.h"
#include "test_support.h"
#include "siggen_writer.h"

namespace sg = vantrel::siggen;
using Cplx = std::complex<double>;

namespace {

constexpr double kPi = 3.141592653589793;

// ---- Decisions, written again from the rules the library applies ----

// Symbol and bits (in decision order) of a point on the odd-integer grid.
int decideQam(int order, double I, double Q, std::vector<int>* bits) {
    const double a = std::fabs(I), b = std::fabs(Q);
    std::vector<bool> c;
    if (order == 16) c = {b < 2, Q < 0, a < 2, I > 0};
    if (order == 32)
        c = {b < 2 || (a < 2 && b > 4), Q < 0, a >= 2 && b <= 4, a < 4 && b < 4, I > 0};
    if (order == 64) c = {2 <= b && b <= 6, b < 4, Q < 0, 2 <= a && a <= 6, a < 4, I > 0};
    if (order == 128)
        c = {(2 < b && b < 6) || b > 10, b < 4 || (b > 8 && a < 4), Q < 0,
             (2 < a && a < 6) || a > 10, a > 4 && b < 8, a < 8 && b < 8, I > 0};
    if (order == 256)
        c = {(2 <= b && b <= 6) || (10 <= b && b <= 14), 4 < b && b < 12, b < 8, Q < 0,
             (2 <= a && a <= 6) || (10 <= a && a <= 14), 4 < a && a < 12, a < 8, I > 0};
    int s = 0;
    bits->clear();
    for (std::size_t k = 0; k < c.size(); ++k) {
        bits->push_back(c[k] ? 1 : 0);
        s += (c[k] ? 1 : 0) << k;
    }
    return s;
}

// Sector of the phase, lower bound inclusive, and its Gray bits MSB first.
int decidePsk(int M, Cplx x, std::vector<int>* bits) {
    double a = std::atan2(x.imag(), x.real());
    if (a < 0) a += 2 * kPi;
    int s = 0;
    if (M == 2) {
        s = (a >= kPi / 2 && a < 3 * kPi / 2) ? 1 : 0;
    } else {
        s = std::min(M - 1, static_cast<int>(std::floor(a / (2 * kPi / M))));
    }
    const int g = s ^ (s >> 1);
    const int k = M == 2 ? 1 : (M == 4 ? 2 : 3);
    bits->clear();
    for (int t = k - 1; t >= 0; --t) bits->push_back((g >> t) & 1);
    return s;
}

// One-dimensional slicing: two levels by sign, four levels on the +-1, +-3
// scale as sign + 2 * inner.
int decideLevel(int M, double r, std::vector<int>* bits) {
    const int b0 = r >= 0 ? 1 : 0;
    if (M == 2) {
        *bits = {b0};
        return b0;
    }
    const int inner = std::fabs(r) <= 2.0 ? 1 : 0;
    *bits = {b0, inner};
    return b0 + 2 * inner;
}

int outerLevel(int order) {
    switch (order) {
    case 16: return 3;
    case 32: return 5;
    case 64: return 7;
    case 128: return 11;
    default: return 15;
    }
}

std::vector<Cplx> fft(std::vector<Cplx> x) {
    const std::size_t n = x.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(x[i], x[j]);
    }
    for (std::size_t len = 2; len <= n; len <<= 1) {
        const Cplx w = std::polar(1.0, -2 * kPi / double(len));
        for (std::size_t i = 0; i < n; i += len) {
            Cplx wk = 1.0;
            for (std::size_t k = 0; k < len / 2; ++k, wk *= w) {
                const Cplx u = x[i + k], v = x[i + k + len / 2] * wk;
                x[i + k] = u + v;
                x[i + k + len / 2] = u - v;
            }
        }
    }
    return x;
}

std::size_t peakBin(const std::vector<Cplx>& X) {
    std::size_t best = 0;
    for (std::size_t k = 1; k < X.size(); ++k)
        if (std::norm(X[k]) > std::norm(X[best])) best = k;
    return best;
}

Cplx sampleAt(const sg::Result& r, long n) { return {double(r.I[n]), double(r.Q[n])}; }

sg::Config digital(int mode, double sps, int filter = sg::kRC) {
    sg::Config c;
    c.mode = mode;
    c.sps = sps;
    c.filterType = filter;
    c.numSymbols = 1200;
    c.seed = 7;
    return c;
}

}  // namespace

// ---- Random source ----

TEST(SiggenRng, SplitmixMatchesItsPublishedSequence) {
    // The reference outputs of splitmix64 from state 0 pin the seeding on any
    // machine.
    std::uint64_t st = 0;
    EXPECT_EQ(sg::Rng::splitmix64(&st), 0xe220a8397b1dcdafULL);
    EXPECT_EQ(sg::Rng::splitmix64(&st), 0x6e789e6aa1b965f4ULL);
    EXPECT_EQ(sg::Rng::splitmix64(&st), 0x06c45d188009454fULL);
}

TEST(SiggenRng, GaussianHasUnitPowerAndNormalShape) {
    sg::Rng rng(99);
    const int n = 200000;
    double sum = 0, p = 0, m4 = 0, cross = 0;
    for (int i = 0; i < n; ++i) {
        const Cplx z = rng.gaussian();
        sum += z.real();
        p += std::norm(z);
        m4 += std::pow(z.real(), 4);
        cross += z.real() * z.imag();
    }
    EXPECT_NEAR(sum / n, 0.0, 0.01);
    EXPECT_NEAR(p / n, 1.0, 0.01);
    // Per-component variance 1/2: a normal law has E x^4 = 3 * (1/2)^2.
    EXPECT_NEAR(m4 / n, 0.75, 0.02);
    EXPECT_NEAR(cross / n, 0.0, 0.01);
}

// ---- Alphabets against the decision rules and known energies ----

TEST(SiggenAlphabet, QamPointsDecodeToTheirOwnLabelsWithTheKnownEnergy) {
    const std::pair<int, double> orders[] = {{7, 10}, {18, 20}, {9, 42}, {16, 82}, {17, 170}};
    for (auto [mode, energy] : orders) {
        const sg::Alphabet a = sg::alphabetFor(mode);
        const int M = int(a.points.size());
        double e = 0;
        std::set<std::pair<int, int>> seen;
        for (int s = 0; s < M; ++s) {
            std::vector<int> bits;
            const Cplx p = a.points[s];
            EXPECT_EQ(decideQam(M, p.real(), p.imag(), &bits), s) << "order " << M;
            EXPECT_EQ(bits, a.bits[s]) << "order " << M << " symbol " << s;
            EXPECT_EQ(std::abs(int(p.real())) % 2, 1);
            EXPECT_EQ(std::abs(int(p.imag())) % 2, 1);
            seen.insert({int(p.real()), int(p.imag())});
            e += std::norm(p);
        }
        EXPECT_EQ(int(seen.size()), M);
        EXPECT_DOUBLE_EQ(e / M, energy) << "order " << M;
    }
}

TEST(SiggenAlphabet, ReferenceSymbolsSitOnTheOuterPoints) {
    const sg::Alphabet q16 = sg::alphabetFor(7);
    EXPECT_EQ(q16.points[0], Cplx(-3, 3));
    EXPECT_EQ(q16.points[8], Cplx(3, 3));
    EXPECT_EQ(q16.points[2], Cplx(-3, -3));
    EXPECT_EQ(q16.points[10], Cplx(3, -3));
    const sg::Alphabet q128 = sg::alphabetFor(16);
    const int s128[] = {65, 88, 1, 24, 28, 5, 69, 92};
    const Cplx p128[] = {{7, 11}, {11, 7}, {-7, 11}, {-11, 7}, {-11, -7}, {-7, -11}, {7, -11}, {11, -7}};
    for (int k = 0; k < 8; ++k) EXPECT_EQ(q128.points[s128[k]], p128[k]) << s128[k];
    const sg::Alphabet q32 = sg::alphabetFor(18);
    for (int s : {0, 4, 6, 2, 18, 22, 16, 20}) EXPECT_DOUBLE_EQ(std::norm(q32.points[s]), 34.0) << s;
    for (int s : {0, 4, 32, 36}) EXPECT_DOUBLE_EQ(std::norm(sg::alphabetFor(9).points[s]), 98.0);
    for (int s : {0, 8, 128, 136}) EXPECT_DOUBLE_EQ(std::norm(sg::alphabetFor(17).points[s]), 450.0);
}

TEST(SiggenAlphabet, SquareQamAndPskNeighboursDifferInOneBit) {
    auto distance = [](const std::vector<int>& a, const std::vector<int>& b) {
        int d = 0;
        for (std::size_t k = 0; k < a.size(); ++k) d += a[k] != b[k];
        return d;
    };
    for (int mode : {7, 9, 17}) {
        const sg::Alphabet a = sg::alphabetFor(mode);
        for (std::size_t s = 0; s < a.points.size(); ++s)
            for (std::size_t t = 0; t < a.points.size(); ++t)
                if (std::abs(a.points[s] - a.points[t]) == 2.0) {
                    EXPECT_EQ(distance(a.bits[s], a.bits[t]), 1) << mode << ": " << s << "," << t;
                }
    }
    const sg::Alphabet qpsk = sg::alphabetFor(5);
    const std::vector<std::vector<int>> ccw = {{0, 0}, {0, 1}, {1, 1}, {1, 0}};
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(qpsk.bits[k], ccw[k]);
        EXPECT_NEAR(std::arg(qpsk.points[k]), std::remainder((2 * k + 1) * kPi / 4, 2 * kPi), 1e-12);
    }
    const sg::Alphabet psk8 = sg::alphabetFor(6);
    for (int k = 0; k < 8; ++k) EXPECT_EQ(distance(psk8.bits[k], psk8.bits[(k + 1) % 8]), 1);
    EXPECT_NEAR(sg::alphabetFor(4).points[1].real(), -1.0, 1e-15);
}

// ---- Pulses ----

TEST(SiggenPulse, RootRaisedCosinePairIsNyquistWithUnitEnergy) {
    for (double beta : {0.2, 0.25, 0.35, 0.5, 1.0}) {
        const int L = 8;
        const std::vector<double> h = sg::pulseTaps(sg::kRRC, beta, 16, L, 0.0);
        const int n = int(h.size());
        for (int lag = 0; lag <= 4 * L; lag += L) {
            double r = 0;
            for (int i = 0; i + lag < n; ++i) r += h[i] * h[i + lag];
            EXPECT_NEAR(r, lag == 0 ? 1.0 : 0.0, 5e-3) << "beta " << beta << " lag " << lag;
        }
    }
}

TEST(SiggenPulse, ClosedFormsAreContinuousAtTheirSingularPoints) {
    // RRC at t = 1/(4 beta) and RC at t = 1/(2 beta) use limit values.
    for (double beta : {0.25, 0.35, 0.5}) {
        const double t1 = 1.0 / (4 * beta), t2 = 1.0 / (2 * beta);
        EXPECT_NEAR(sg::pulseValue(sg::kRRC, beta, t1), sg::pulseValue(sg::kRRC, beta, t1 + 1e-6), 1e-5);
        EXPECT_NEAR(sg::pulseValue(sg::kRC, beta, t2), sg::pulseValue(sg::kRC, beta, t2 - 1e-6), 1e-5);
    }
    // Raised cosine: one at the centre, zero at every other symbol instant.
    for (int k = 1; k < 6; ++k) EXPECT_NEAR(sg::pulseValue(sg::kRC, 0.35, k), 0.0, 1e-15);
    EXPECT_NEAR(sg::pulseValue(sg::kRRC, 0.35, 0.0), 1 - 0.35 + 4 * 0.35 / kPi, 1e-15);
}

TEST(SiggenPulse, GaussianBandwidthTimeProductIsTheThreeDecibelPoint) {
    for (double bt : {0.3, 0.5, 1.0}) {
        const int L = 16;
        const std::vector<double> h = sg::pulseTaps(sg::kGauss, bt, 12, L, 0.0);
        auto response = [&](double fSym) {  // frequency in symbol rates
            Cplx acc = 0;
            for (std::size_t i = 0; i < h.size(); ++i) acc += h[i] * std::polar(1.0, -2 * kPi * fSym * i / L);
            return std::abs(acc);
        };
        EXPECT_NEAR(response(bt) / response(0), 1 / std::sqrt(2.0), 1e-4) << "BT " << bt;
    }
}

TEST(SiggenPulse, RectanglesTileAndHalfSinesTouchOnlyAtZeros) {
    for (int L : {1, 4, 7, 8}) {
        const std::vector<double> r = sg::pulseTaps(sg::kRect, 0.35, 12, L, 0.0);
        const std::vector<double> s = sg::pulseTaps(sg::kHalfSine, 0.35, 12, L, 0.0);
        // Overlap-add of one pulse per symbol must be flat (no overlap, no gap)
        const int H = int(r.size() / 2);
        for (int n = 0; n < L; ++n) {
            double sum = 0;
            for (int k = -2; k <= 2; ++k) {
                const int d = n - k * L;
                if (d >= -H && d <= H) sum += r[d + H];
            }
            EXPECT_NEAR(sum, 1 / std::sqrt(double(L)), 1e-12) << "L " << L << " n " << n;
        }
        const int Hs = int(s.size() / 2);
        int nonzero = 0;
        for (double v : s) nonzero += std::fabs(v) > 1e-12;
        EXPECT_EQ(nonzero, L % 2 ? L : L - 1) << "L " << L;  // sin(i pi / L), ends at 0
        EXPECT_GT(s[Hs], 0.0);
    }
}

// ---- Resampler ----

TEST(SiggenResampler, PassbandRippleAndStopbandRejectionHoldTheirBounds) {
    const double step = 12.0 / 5.5;  // 5.5 samples per symbol from 12
    const sg::Resampler rs(step);
    const int nIn = 6000;
    auto gainDb = [&](double fInCycles) {  // tone frequency in cycles per input sample
        std::vector<Cplx> x(nIn);
        for (int n = 0; n < nIn; ++n) x[n] = std::polar(1.0, 2 * kPi * fInCycles * n);
        const std::size_t count = std::size_t((nIn - 1) / step);
        const std::vector<Cplx> y = rs.run(x, 0.0, count);
        double worst = 0, p = 0;
        int used = 0;
        for (std::size_t m = 100; m + 100 < count; ++m) {
            const Cplx ideal = std::polar(1.0, 2 * kPi * fInCycles * m * step);
            worst = std::max(worst, std::abs(y[m] - ideal));
            p += std::norm(y[m]);
            ++used;
        }
        return std::make_pair(10 * std::log10(p / used), worst);
    };
    const double fOut = 1.0 / step;  // output rate in cycles per input sample
    for (double f = -0.4; f <= 0.4001; f += 0.05) {
        const auto [g, err] = gainDb(f * fOut);
        EXPECT_NEAR(g, 0.0, 0.0002) << "passband " << f;
        EXPECT_LT(err, 2.5e-5) << "passband " << f;
    }
    for (double f = 0.6; f * fOut <= 0.5; f += 0.05) {
        EXPECT_LT(gainDb(f * fOut).first, -95.0) << "stopband " << f;
        EXPECT_LT(gainDb(-f * fOut).first, -95.0) << "stopband " << -f;
    }
}

// ---- End to end: noiseless symbols at their ideal instants ----

struct LabelCase {
    int mode;
    double sps;
    int filter;
    double timing;
};

std::ostream& operator<<(std::ostream& os, const LabelCase& c) {
    return os << sg::modeName(c.mode) << " sps " << c.sps << " " << sg::filterName(c.filter)
              << " timing " << c.timing;
}

class SiggenLabels : public ::testing::TestWithParam<LabelCase> {};

TEST_P(SiggenLabels, DecisionsAtIdealInstantsReproduceTheTruth) {
    const LabelCase lc = GetParam();
    sg::Config c = digital(lc.mode, lc.sps, lc.filter);
    c.timingOffset = lc.timing;
    const sg::Result r = sg::generate(c);
    const long ns = long(r.I.size());
    // Instants that fall on output samples (all of them at integer sps, every
    // other one at 2.5 or 5.5).
    std::vector<std::pair<std::size_t, long>> at;
    for (std::size_t j = 0; j < r.symbols.size(); ++j) {
        const double n = r.firstSymbolSample + double(j) * c.sps;
        if (n >= 0 && n < ns && n == std::floor(n)) at.push_back({j, long(n)});
    }
    ASSERT_GT(at.size(), 500u);
    double gain = 0;  // int16 units per unit of the ideal grid, from the samples
    for (auto [j, n] : at) {
        const Cplx x = sampleAt(r, n);
        gain = std::max({gain, std::fabs(x.real()), std::fabs(x.imag())});
    }
    if (r.family == sg::Family::QAM) gain /= outerLevel(r.order);
    if (r.family == sg::Family::PSK) gain = std::abs(sampleAt(r, at[0].second));
    int wrong = 0;
    double worstError = 0;
    for (auto [j, n] : at) {
        const Cplx x = sampleAt(r, n) / gain;
        std::vector<int> bits;
        int s = 0;
        if (r.family == sg::Family::QAM) s = decideQam(r.order, x.real(), x.imag(), &bits);
        if (r.family == sg::Family::PSK) s = decidePsk(r.order, x, &bits);
        if (r.family == sg::Family::ASK) s = decideLevel(2, 2 * x.real() - 1, &bits);
        const std::vector<int> truthBits(r.bits.begin() + j * r.bitsPerSymbol,
                                         r.bits.begin() + (j + 1) * r.bitsPerSymbol);
        wrong += s != r.symbols[j] || bits != truthBits;
        worstError = std::max(worstError, std::abs(x - r.points[j]));
    }
    EXPECT_EQ(wrong, 0);
    // Zero intersymbol interference at the instants: only int16 rounding and
    // the interpolator's error remain.
    EXPECT_LT(worstError, 2e-3 * outerLevel(std::max(r.order, 16)));
}

INSTANTIATE_TEST_SUITE_P(
    AllDigitalModes, SiggenLabels,
    ::testing::Values(LabelCase{4, 8, sg::kRC, 0}, LabelCase{5, 8, sg::kRC, 0.25},
                      LabelCase{6, 8, sg::kRect, 0}, LabelCase{7, 8, sg::kRC, -0.375},
                      LabelCase{18, 8, sg::kHalfSine, 0}, LabelCase{9, 4, sg::kRC, 0},
                      LabelCase{16, 8, sg::kRC, 0.5}, LabelCase{17, 8, sg::kRC, 0},
                      LabelCase{8, 8, sg::kRect, 0}, LabelCase{5, 5.5, sg::kRC, 0},
                      LabelCase{17, 2.5, sg::kRC, 0}, LabelCase{18, 3, sg::kRC, 0}));

class SiggenFsk : public ::testing::TestWithParam<LabelCase> {};

TEST_P(SiggenFsk, FrequencyAtIdealInstantsGivesLevelAndDeviation) {
    const LabelCase lc = GetParam();
    sg::Config c = digital(lc.mode, lc.sps, lc.filter);
    c.timingOffset = lc.timing;
    c.fskDeviationHz = 9000.0;
    const sg::Result r = sg::generate(c);
    const int M = lc.mode == 1 ? 2 : 4;
    const double outer = lc.mode == 1 ? 1.0 : 3.0;
    int wrong = 0, checked = 0;
    double worstDev = 0;
    for (std::size_t j = 0; j < r.symbols.size(); ++j) {
        const double t = r.firstSymbolSample + double(j) * c.sps;
        const long n = long(t);
        if (t != std::floor(t) || n < 1 || n + 1 >= long(r.I.size())) continue;
        // Centred phase difference: the frequency at sample n in Hz.
        const double dphi = std::arg(sampleAt(r, n + 1) * std::conj(sampleAt(r, n - 1))) / 2;
        const double f = dphi * r.fs / (2 * kPi);
        std::vector<int> bits;
        const int s = decideLevel(M, f / c.fskDeviationHz * outer, &bits);
        const std::vector<int> truthBits(r.bits.begin() + j * r.bitsPerSymbol,
                                         r.bits.begin() + (j + 1) * r.bitsPerSymbol);
        wrong += s != r.symbols[j] || bits != truthBits;
        // Deviation on outer symbols between two equal ones, where a smooth
        // pulse train is nearly flat and the three-sample estimate unbiased.
        const bool run = j > 0 && j + 1 < r.symbols.size() && r.symbols[j - 1] == r.symbols[j] &&
                         r.symbols[j + 1] == r.symbols[j];
        if (run && std::fabs(r.points[j].real()) == outer)
            worstDev = std::max(worstDev, std::fabs(std::fabs(f) - c.fskDeviationHz));
        ++checked;
    }
    ASSERT_GT(checked, 500);
    EXPECT_EQ(wrong, 0);
    // The outer level is the deviation: within the int16 phase resolution
    // (about 1 Hz here) for a rectangle, within 2 % for a smooth pulse.
    EXPECT_LT(worstDev, lc.filter == sg::kRect ? 3.0 : 0.02 * c.fskDeviationHz);
}

INSTANTIATE_TEST_SUITE_P(CodesOneToThree, SiggenFsk,
                         ::testing::Values(LabelCase{1, 8, sg::kRect, 0}, LabelCase{2, 8, sg::kRect, 0},
                                           LabelCase{3, 8, sg::kRect, 0.25},
                                           LabelCase{2, 8, sg::kRC, 0}, LabelCase{2, 4.5, sg::kRC, 0}));

TEST(SiggenTruth, FskCodeThreeUsesTwoTonesLabelledInFourLevels) {
    const sg::Result r = sg::generate(digital(3, 8, sg::kRect));
    EXPECT_EQ(r.bitsPerSymbol, 2);
    for (std::size_t j = 0; j < r.symbols.size(); ++j) {
        ASSERT_TRUE(r.symbols[j] == 0 || r.symbols[j] == 1);
        EXPECT_EQ(r.bits[2 * j + 1], 0);  // never an inner level
    }
}

// ---- Energies and noise ----

TEST(SiggenEnergy, MeanSymbolEnergyIsTheAlphabetEnergyForEveryPulse) {
    // Unit-energy pulses and independent zero-mean symbols: P * L = E|a|^2.
    const std::pair<int, double> modes[] = {{5, 1.0}, {7, 10.0}, {9, 42.0}, {18, 20.0}};
    for (auto [mode, energy] : modes)
        for (int filter = sg::kRRC; filter <= sg::kHalfSine; ++filter)
            for (double sps : {4.0, 5.5}) {
                // A rectangle's sinc spectrum is cut by the interpolator's
                // band edge at 0.5 fs, about 3 % of its energy at 5.5.
                if (filter == sg::kRect && sps != 4.0) continue;
                sg::Config c = digital(mode, sps, filter);
                c.numSymbols = 20000;
                const sg::Result r = sg::generate(c);
                EXPECT_NEAR(r.signalPower * r.internalSps / energy, 1.0, 0.03)
                    << "mode " << mode << " filter " << filter << " sps " << sps;
            }
}

struct NoiseCase {
    int mode;
    double sps;
    double db;
    bool esn0;
};

std::ostream& operator<<(std::ostream& os, const NoiseCase& c) {
    return os << sg::modeName(c.mode) << " sps " << c.sps << (c.esn0 ? " Es/N0 " : " SNR ") << c.db;
}

class SiggenNoise : public ::testing::TestWithParam<NoiseCase> {};

// Tolerance 0.05 dB: over 200000 complex samples the noise power itself
// scatters by 0.014 dB RMS (0.036 dB at worst over 20 seeds).
TEST_P(SiggenNoise, RequestedRatioIsWhatTheSamplesShow) {
    const NoiseCase nc = GetParam();
    sg::Config c = digital(nc.mode, nc.sps, sg::kRRC);
    c.numSamples = 200000;
    c.carrierOffsetHz = 1234.5;
    const sg::Result clean = sg::generate(c);
    (nc.esn0 ? c.esn0Db : c.snrDb) = nc.db;
    const sg::Result noisy = sg::generate(c);
    ASSERT_EQ(noisy.symbols, clean.symbols);  // noise has its own stream
    double ps = 0, pn = 0;
    for (std::size_t n = 0; n < clean.baseband.size(); ++n) {
        ps += std::norm(clean.baseband[n]);
        pn += std::norm(noisy.baseband[n] - clean.baseband[n]);
    }
    const double measured = 10 * std::log10(ps * (nc.esn0 ? c.sps : 1.0) / pn);
    EXPECT_NEAR(measured, nc.db, 0.05);
    // The int16 samples carry the same noise, scaled.
    double pq = 0;
    for (std::size_t n = 0; n < noisy.I.size(); ++n)
        pq += std::norm(sampleAt(noisy, long(n)) / noisy.scale - clean.baseband[n]);
    EXPECT_NEAR(10 * std::log10(pq / pn), 0.0, 0.05);
}

INSTANTIATE_TEST_SUITE_P(EsN0AndSnr, SiggenNoise,
                         ::testing::Values(NoiseCase{5, 8, 10, true}, NoiseCase{7, 5.5, 20, true},
                                           NoiseCase{6, 4, 0, true}, NoiseCase{17, 2.5, 30, true},
                                           NoiseCase{4, 8, 6, false}));

// ---- Impairments ----

TEST(SiggenImpairments, CarrierOffsetAndPhaseShowAsTheExpectedLine) {
    sg::Config c;
    c.mode = 13;  // plain carrier
    c.Rb = 20480;
    c.sps = 8;  // fs = 163840 Hz: 10 Hz per bin over 16384 samples
    c.numSamples = 16384;
    c.carrierOffsetHz = -3000;
    c.carrierPhase = 0.7;
    sg::Result r = sg::generate(c);
    std::vector<Cplx> x(16384);
    for (int n = 0; n < 16384; ++n) x[n] = sampleAt(r, n);
    std::vector<Cplx> X = fft(x);
    const std::size_t k = peakBin(X);
    EXPECT_EQ(k, 16384u - 300u);
    EXPECT_NEAR(std::arg(X[k]), 0.7, 1e-3);
    double leak = 0;
    for (std::size_t i = 0; i < X.size(); ++i)
        if (i != k) leak = std::max(leak, std::abs(X[i]));
    EXPECT_LT(20 * std::log10(leak / std::abs(X[k])), -70.0);

    // QPSK: the fourth power strips the modulation and leaves a line at 4 f0.
    c.mode = 5;
    c.carrierOffsetHz = 1000;
    c.carrierPhase = 0.0;
    r = sg::generate(c);
    for (int n = 0; n < 16384; ++n) x[n] = std::pow(sampleAt(r, n) / 16384.0, 4);
    EXPECT_EQ(peakBin(fft(x)), 400u);
}

TEST(SiggenImpairments, GainSkewAndDcAreWhatTheRailsShow) {
    sg::Config c = digital(5, 8, sg::kRRC);
    c.numSymbols = 20000;
    c.gainImbalance = 1.2;
    c.quadSkew = 0.1;
    c.peak = 12000;
    const sg::Result r = sg::generate(c);
    double ii = 0, qq = 0, iq = 0;
    for (std::size_t n = 0; n < r.I.size(); ++n) {
        ii += double(r.I[n]) * r.I[n];
        qq += double(r.Q[n]) * r.Q[n];
        iq += double(r.I[n]) * r.Q[n];
    }
    EXPECT_NEAR(std::sqrt(ii / qq), 1.2, 0.01);
    EXPECT_NEAR(std::asin(iq / std::sqrt(ii * qq)), 0.1, 0.01);

    c.dcI = 1500;
    c.dcQ = -700;
    const sg::Result d = sg::generate(c);
    for (std::size_t n = 0; n < r.I.size(); n += 97) {
        ASSERT_EQ(d.I[n] - r.I[n], 1500);
        ASSERT_EQ(d.Q[n] - r.Q[n], -700);
    }
}

TEST(SiggenImpairments, AnalogWaveformsCarryTheirParameters) {
    sg::Config c;
    c.Rb = 25000;
    c.sps = 8;
    c.numSamples = 40000;
    c.toneHz = 1000;
    c.mode = 10;
    c.amDepth = 0.3;
    sg::Result r = sg::generate(c);
    double lo = 1e9, hi = 0;
    for (std::size_t n = 0; n < r.I.size(); ++n) {
        lo = std::min(lo, std::abs(sampleAt(r, long(n))));
        hi = std::max(hi, std::abs(sampleAt(r, long(n))));
    }
    EXPECT_NEAR((hi - lo) / (hi + lo), 0.3, 1e-3);

    c.mode = 11;
    c.fmDeviationHz = 7000;
    r = sg::generate(c);
    double fmax = 0;
    for (long n = 1; n + 1 < long(r.I.size()); ++n)
        fmax = std::max(fmax, std::arg(sampleAt(r, n + 1) * std::conj(sampleAt(r, n - 1))) / 2 * r.fs / (2 * kPi));
    EXPECT_NEAR(fmax, 7000, 7000 * 0.005);

    c.mode = 12;
    c.pmPeakRad = 1.2;
    r = sg::generate(c);
    double pmax = 0;
    for (std::size_t n = 0; n < r.I.size(); ++n) pmax = std::max(pmax, std::arg(sampleAt(r, long(n))));
    EXPECT_NEAR(pmax, 1.2, 1e-3);

    c.mode = 14;
    r = sg::generate(c);
    EXPECT_TRUE(std::all_of(r.Q.begin(), r.Q.end(), [](std::int16_t v) { return v == 0; }));
    int crossings = 0;
    for (std::size_t n = 1; n < r.I.size(); ++n) crossings += (r.I[n - 1] < 0) != (r.I[n] < 0);
    EXPECT_NEAR(crossings, 2 * 1000 * 40000 / 200000, 1);
}

// ---- Determinism, clipping, bad parameters ----

TEST(SiggenDeterminism, SameSeedSameSamplesOtherSeedOtherSamples) {
    sg::Config c = digital(18, 5.5, sg::kRRC);
    c.esn0Db = 15;
    c.carrierOffsetHz = 321;
    c.timingOffset = 0.3;
    const sg::Result a = sg::generate(c), b = sg::generate(c);
    EXPECT_EQ(a.I, b.I);
    EXPECT_EQ(a.Q, b.Q);
    EXPECT_EQ(a.bits, b.bits);
    c.seed = 8;
    const sg::Result other = sg::generate(c);
    EXPECT_NE(a.I, other.I);
    EXPECT_NE(a.symbols, other.symbols);
}

TEST(SiggenClip, ScalingBeyondInt16IsReported) {
    sg::Config c = digital(7, 8, sg::kRRC);
    c.peak = 30000;
    const sg::Result r = sg::generate(c);
    const int maxI = *std::max_element(r.I.begin(), r.I.end());
    const int minQ = *std::min_element(r.Q.begin(), r.Q.end());
    c.dcI = 32767 - maxI;  // the largest I lands exactly on the limit
    c.dcQ = -32768 - minQ;
    EXPECT_NO_THROW(sg::generate(c));
    c.dcI += 1;
    EXPECT_THROW(sg::generate(c), sg::ClipError);
    c.dcI -= 1;
    c.dcQ -= 1;
    EXPECT_THROW(sg::generate(c), sg::ClipError);
    c = digital(7, 8, sg::kRRC);
    c.rms = 28000;  // 16-QAM through RRC peaks well above 1.2 times its RMS
    try {
        sg::generate(c);
        ADD_FAILURE() << "no clip reported";
    } catch (const sg::ClipError& e) {
        EXPECT_NE(std::string(e.what()).find("clip"), std::string::npos);
    }
}

TEST(SiggenClip, BadParametersAreRejected) {
    std::vector<std::function<void(sg::Config&)>> bad = {
        [](sg::Config& c) { c.mode = 0; },
        [](sg::Config& c) { c.mode = 19; },
        [](sg::Config& c) { c.sps = 65; },
        [](sg::Config& c) { c.sps = 1.5; },
        [](sg::Config& c) { c.sps = std::nan(""); },
        [](sg::Config& c) { c.filterType = 6; },
        [](sg::Config& c) { c.rolloff = 0.0; },
        [](sg::Config& c) { c.esn0Db = 10, c.snrDb = 10; },
        [](sg::Config& c) { c.timingOffset = 1.5; },
        [](sg::Config& c) { c.carrierOffsetHz = 150000; },
        [](sg::Config& c) { c.peak = 40000; },
        [](sg::Config& c) { c.numSymbols = 0; },
        [](sg::Config& c) { c.span = 7; },
    };
    for (std::size_t i = 0; i < bad.size(); ++i) {
        sg::Config c = digital(5, 8, sg::kRRC);
        bad[i](c);
        EXPECT_THROW(sg::generate(c), std::invalid_argument) << "case " << i;
    }
}

// ---- Files ----

TEST(SiggenWriter, CaptureAndSidecarHoldSamplesAndTruth) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    sg::Config c = digital(9, 8, sg::kRRC);
    c.numSymbols = 500;
    c.esn0Db = 25;
    const sg::Result r = sg::generate(c);
    const auto names = sg::writeCapture(r, "cap", true, "test");
    ASSERT_EQ(names.size(), 4u);

    std::ifstream bin("cap.bin", std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(bin)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), 4 * r.I.size());
    std::vector<std::int16_t> iq(2 * r.I.size());
    std::memcpy(iq.data(), bytes.data(), bytes.size());
    for (std::size_t n = 0; n < r.I.size(); ++n) {
        ASSERT_EQ(iq[2 * n], r.I[n]);
        ASSERT_EQ(iq[2 * n + 1], r.Q[n]);
    }
    std::ifstream js("cap.json");
    const nlohmann::json doc = nlohmann::json::parse(js);
    EXPECT_EQ(doc["truth"]["symbols"].get<std::vector<int>>(), r.symbols);
    EXPECT_EQ(doc["truth"]["bits"].get<std::vector<int>>(), r.bits);
    EXPECT_EQ(doc["parameters"]["mode"].get<int>(), 9);
    EXPECT_DOUBLE_EQ(doc["impairments"]["esn0_db"].get<double>(), 25.0);
    EXPECT_TRUE(doc["impairments"]["snr_db"].is_null());
    std::ifstream meta("cap.sigmf-meta");
    const nlohmann::json m = nlohmann::json::parse(meta);
    EXPECT_EQ(m["global"]["core:datatype"], "ci16_le");
    EXPECT_DOUBLE_EQ(m["global"]["core:sample_rate"].get<double>(), 200000.0);
}

#if defined(VANTREL_SIGGEN_CLI) && defined(VANTREL_SIGGEN_CLI_CHECK)
TEST(SiggenCli, DemoCaptureTruthDeterminismAndClipStatus) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string cmd = std::string("bash ") + VANTREL_SIGGEN_CLI_CHECK + " " + VANTREL_SIGGEN_CLI +
                            " " + dir.path() + "/cli > " + dir.path() + "/log.txt 2>&1";
    const int status = std::system(cmd.c_str());
    std::ifstream log(dir.path() + "/log.txt");
    const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_EQ(status, 0) << text;
}
#endif
