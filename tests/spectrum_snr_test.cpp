// Windowed power spectrum and the two SNR band rules.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <ostream>
#include <cstdlib>
#include <limits>
#include <vector>

#include "CommonFun.h"
#include "front_end_captures.h"

namespace {

constexpr int kLen = 16384;

// The test's own symmetric Hamming window.
double hamming(int k, int N) { return 0.54 - 0.46 * std::cos(captures::kTwoPi * k / (N - 1)); }

// Total spectral power by Parseval: sum |FFT(w x)|^2 / N^2 = sum |w x|^2 / N.
double total_power(const std::vector<Complex>& x) {
    double t = 0.0;
    for (int k = 0; k < kLen; ++k) {
        const double w = hamming(k, kLen);
        t += w * w * (x[k].re * x[k].re + x[k].im * x[k].im);
    }
    return t / kLen;
}

struct Snr {
    double snr;
    double band;
};

Snr run_snr(const std::vector<Complex>& x, double fs, ModType family, double Rb,
            int len = kLen) {
    CommonFun cf;
    ExParamOut p{};
    p.Rb = Rb;
    Snr r{-555.0, -777.0};
    cf.calcSNR(x.data(), len, fs, family, &p, &r.snr, &r.band);
    return r;
}

// ---- power spectrum ----

TEST(PowerSpectrum, BinCentredToneLandsOnItsBinWithTheWindowGain) {
    for (int N : {1024, kLen}) {
        const int bin = 100;
        const double A = 3.0;
        const auto x = captures::tone(N, A, bin, N);  // fs = N: 1 Hz per bin
        double* P = CommonFun().pu(x.data(), N, N, N, 1);
        ASSERT_NE(P, nullptr);
        double wsum = 0.0;
        for (int k = 0; k < N; ++k) wsum += hamming(k, N);
        const double expected = (A * wsum / N) * (A * wsum / N);
        EXPECT_NEAR(P[N / 2 + bin], expected, expected * 1e-9) << N;
        // Peak at the tone's bin; far bins are down by the window's sidelobes.
        int peak = 0;
        for (int k = 1; k < N; ++k)
            if (P[k] > P[peak]) peak = k;
        EXPECT_EQ(peak, N / 2 + bin) << N;
        EXPECT_LT(P[N / 2 - bin], expected * 1e-8) << N;
        std::free(P);
    }
}

TEST(PowerSpectrum, RefusesShortInputAndNonPowerOfTwoLengths) {
    const auto x = captures::tone(kLen, 1.0, 5, kLen);
    CommonFun cf;
    EXPECT_EQ(cf.pu(x.data(), kLen - 1, 1.0, kLen, 0), nullptr);
    EXPECT_EQ(cf.pu(x.data(), kLen, 1.0, 3000, 0), nullptr);
    EXPECT_EQ(cf.pu(x.data(), kLen, 1.0, 0, 0), nullptr);
    EXPECT_EQ(cf.pu(x.data(), kLen, 1.0, -8, 0), nullptr);
}

TEST(CalcSNR, ShortBlockGivesZeroAndLeavesTheBandAlone) {
    const auto x = captures::tone(kLen, 1000.0, 5, kLen);
    for (ModType fam : {MT_PSK, MT_QAM, MT_ASK, MT_FSK, MT_ANALOG}) {
        const Snr r = run_snr(x, 4.0, fam, 1.0, kLen - 1);
        EXPECT_EQ(r.snr, 0.0) << fam;
        EXPECT_EQ(r.band, -777.0) << fam;
    }
}

// ---- symbol-rate band ----

// QPSK, root-raised-cosine shaped (roll-off 0.35, so all of the signal lies
// inside +-Rb), at four samples per symbol with complex white noise of power
// sigma^2 over the whole rate fs. The noise outside the band, which is what
// the estimator divides by, is sigma^2 (1 - 2 Rb/fs) = sigma^2 / 2, while
// Es/N0 = Ps (fs/Rb) / sigma^2 = 4 Ps / sigma^2. The figure is thus the SNR in
// a bandwidth of 2 Rb: Es/N0 - 10 log10(2) = Es/N0 - 3.01 dB (plus 0.0005 dB
// from the 8193/8191 split of the bins).
// Tolerances: over 20 seeds the error spreads by about +-0.2 dB from 10 to
// 40 dB Es/N0 (the windowed data power and the 8191-bin noise estimate each
// vary by about 1 %), and by +-0.55 dB at 0 dB, where the in-band noise that
// is subtracted exceeds the signal itself. Above ~50 dB the filter's
// truncation sidelobes outside the band start to read as noise (-0.1 dB at
// 50 dB, -0.8 dB at 60 dB), so the check stops at 30 dB.
struct SnrCase {
    double esn0Db;
    double tolDb;
};

void PrintTo(const SnrCase& c, std::ostream* os) {
    *os << "EsN0_" << c.esn0Db << "dB";
}

class QpskSnrTest : public ::testing::TestWithParam<SnrCase> {};

TEST_P(QpskSnrTest, ReportsEsN0LessThreeDecibels) {
    const SnrCase c = GetParam();
    const int sps = 4;
    const double Rb = 25000.0, fs = sps * Rb;
    captures::Rng rng(0xC0FFEEu + static_cast<unsigned>(c.esn0Db));
    const auto sym = captures::psk_symbols(kLen / sps + 64, 4, rng);
    auto x = captures::shape(sym, sps, captures::rrc_taps(0.35, 32, sps), kLen);
    const double Ps = captures::mean_power(x);
    const double sigma2 = sps * Ps / std::pow(10.0, c.esn0Db / 10.0);
    captures::add_noise(x, sigma2, rng);

    for (ModType fam : {MT_PSK, MT_QAM, MT_ASK}) {
        const Snr r = run_snr(x, fs, fam, Rb);
        EXPECT_NEAR(r.snr, c.esn0Db - 10.0 * std::log10(2.0), c.tolDb) << "Es/N0 " << c.esn0Db;
        EXPECT_EQ(r.band, 2.0 * Rb);
    }
}

INSTANTIATE_TEST_SUITE_P(EsN0, QpskSnrTest,
                         ::testing::Values(SnrCase{0.0, 0.6}, SnrCase{10.0, 0.3},
                                           SnrCase{20.0, 0.3}, SnrCase{30.0, 0.3}));

// Noise-free tones one bin apart around the band edges at Rb/fs = 0.25
// (band 4096..12288 inclusive). A tone on an edge bin keeps its main bin and
// its inner neighbour inside, its outer neighbour (Hamming: 0.23/0.54 of the
// amplitude) counts as noise and is also subtracted once more from S:
// SNR = 20 log10(0.54/0.23) = 7.41 dB. One bin further out only the inner
// neighbour is inside, less than the noise subtracted: S clamps to 0, -inf.
TEST(CalcSNR, SymbolRateBandEdgesAreInclusive) {
    const double fs = kLen, Rb = kLen / 4.0;
    const double edgeDb = 20.0 * std::log10(0.54 / 0.23);
    for (int bin : {4096, -4096}) {
        const Snr r = run_snr(captures::tone(kLen, 100.0, bin, fs), fs, MT_PSK, Rb);
        EXPECT_NEAR(r.snr, edgeDb, 0.02) << bin;
    }
    for (int bin : {4097, -4097}) {
        const Snr r = run_snr(captures::tone(kLen, 100.0, bin, fs), fs, MT_PSK, Rb);
        EXPECT_EQ(r.snr, -std::numeric_limits<double>::infinity()) << bin;
    }
    // Well inside: only window sidelobes (below -40 dB each) are noise.
    EXPECT_GT(run_snr(captures::tone(kLen, 100.0, 1000, fs), fs, MT_PSK, Rb).snr, 60.0);
}

// Half band of 8192 bins or more (Rb/fs >= 0.5, including huge and infinite
// ratios, and fs = 0): the band is the whole spectrum, the noise is 0 and
// replaced by 1e-30, so the figure is 10 log10(T / 1e-30).
TEST(CalcSNR, WholeSpectrumBandUsesTheNoiseFloorSentinel) {
    captures::Rng rng(3);
    std::vector<Complex> x(kLen, Complex{0.0, 0.0});
    captures::add_noise(x, 1.0, rng);
    const double expected = 10.0 * std::log10(total_power(x) / 1e-30);
    const double inf = std::numeric_limits<double>::infinity();
    for (double Rb : {0.5, 3.0, 1e12, inf}) {
        const Snr r = run_snr(x, 1.0, MT_QAM, Rb);
        EXPECT_NEAR(r.snr, expected, 1e-9) << Rb;
        EXPECT_EQ(r.band, 2.0 * Rb);
    }
    EXPECT_NEAR(run_snr(x, 0.0, MT_PSK, 1.0).snr, expected, 1e-9);  // Rb/fs = inf
}

// A NaN ratio reads as a half band of 0: the band is the centre bin alone.
// With a centre tone: S = P0 = (A sum(w) / N)^2 and the noise is the rest.
TEST(CalcSNR, NanRateGivesTheCentreBinAlone) {
    const auto x = captures::tone(kLen, 50.0, 0, kLen);
    double wsum = 0.0;
    for (int k = 0; k < kLen; ++k) wsum += hamming(k, kLen);
    const double P0 = (50.0 * wsum / kLen) * (50.0 * wsum / kLen);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Snr r = run_snr(x, kLen, MT_PSK, nan);
    EXPECT_NEAR(r.snr, 10.0 * std::log10(P0 / (total_power(x) - P0)), 1e-6);
    EXPECT_TRUE(std::isnan(r.band));
}

// A negative symbol rate gives an empty band (lo above hi): S = 0, all the
// power counts as noise, and the correction S = -2h Nz / ((8192 - h) 2)
// turns positive. h = -4096: S = T/3. For -inf the half band saturates at
// the 32-bit minimum and the index arithmetic is exact in 64 bits:
// S/T = 2^31 / (2^31 + 8192), not a wrapped value.
TEST(CalcSNR, NegativeRatesAreComputedWithoutOverflow) {
    captures::Rng rng(5);
    std::vector<Complex> x(kLen, Complex{0.0, 0.0});
    captures::add_noise(x, 2.0, rng);
    EXPECT_NEAR(run_snr(x, 4.0, MT_PSK, -1.0).snr, 10.0 * std::log10(1.0 / 3.0), 1e-9);
    const double ratio = 2147483648.0 / (2147483648.0 + 8192.0);
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_NEAR(run_snr(x, 4.0, MT_PSK, -inf).snr, 10.0 * std::log10(ratio), 1e-9);
    EXPECT_NEAR(run_snr(x, 1.0, MT_PSK, -1e300).snr, 10.0 * std::log10(ratio), 1e-9);
}

// ---- band found from the cumulative power (FSK, analog) ----

// Continuous-phase 2-FSK, deviation +-fd, at fs = 20 Rb, with white noise.
std::vector<Complex> two_fsk(double fd, double Rb, double fs, double sigma2, std::uint64_t seed,
                             double* Ps) {
    captures::Rng rng(seed);
    const int sps = static_cast<int>(fs / Rb);
    std::vector<Complex> x(kLen);
    double phase = 0.0;
    int bit = 0;
    for (int n = 0; n < kLen; ++n) {
        if (n % sps == 0) bit = rng.below(2);
        x[n] = Complex{1000.0 * std::cos(phase), 1000.0 * std::sin(phase)};
        phase += captures::kTwoPi * (bit ? fd : -fd) / fs;
    }
    *Ps = captures::mean_power(x);
    captures::add_noise(x, sigma2, rng);
    return x;
}

// The band rule finds the occupied band of the FSK signal itself: it must
// cover both tones (2 fd) and stay within a few symbol rates of them, and the
// SNR then compares the signal with the noise outside that band, i.e.
// Ps / (sigma^2 (1 - W/fs)) for a measured width W (about 2 fd + 4.3 Rb here).
// Tolerance 0.5 dB: noise-estimate spread plus this signal's own spectral
// tails outside W (about 0.5 % of its power), which also count as noise and
// cost 0.2-0.4 dB at 10 dB. The same tails cap the figure near 23 dB whatever
// the applied SNR (20 dB reads 20.0, 30 dB reads 23.1), and at 0 dB the band
// is sometimes not found at all, so the check uses 5 and 10 dB.
// FSK and analog must use the same rule.
TEST(CalcSNR, FskBandCoversTheTwoTones) {
    const double Rb = 2000.0, fs = 20 * Rb, fd = 4000.0;
    for (double snrDb : {5.0, 10.0}) {
        double Ps = 0.0;
        const double sigma2 = 1e6 / std::pow(10.0, snrDb / 10.0);
        const auto x = two_fsk(fd, Rb, fs, sigma2, 99, &Ps);
        const Snr r = run_snr(x, fs, MT_FSK, Rb);
        EXPECT_GE(r.band, 2 * fd) << snrDb;
        EXPECT_LE(r.band, 2 * fd + 6 * Rb) << snrDb;
        const double expected = 10.0 * std::log10(Ps / (sigma2 * (1.0 - r.band / fs)));
        EXPECT_NEAR(r.snr, expected, 0.5) << snrDb << " band " << r.band;

        const Snr a = run_snr(x, fs, MT_ANALOG, Rb);
        EXPECT_EQ(a.snr, r.snr);
        EXPECT_EQ(a.band, r.band);
        // The symbol-rate rule would give a different band (2 Rb).
        EXPECT_EQ(run_snr(x, fs, MT_PSK, Rb).band, 2 * Rb);
    }
}

// A flat block of equal lines over bins L..U (n = U - L + 1 of them) and no
// noise. The mean power below k rises through the block and then falls, so
// its maximum a sits at the top line; the mean power above k is largest just
// below the block, b = L - 1. The band is then widened by e = floor((a - b)/3)
// on each side: n + 2 floor(n/3) bins. The window's one-bin spill may move
// each edge by a bin, hence +-3 bins.
TEST(CalcSNR, CumulativeBandIsWidenedByAThirdEachSide) {
    const int lo = -100, hi = 199;  // 300 lines, off centre
    const int n = hi - lo + 1;
    captures::Rng rng(31);
    std::vector<Complex> x(kLen, Complex{0.0, 0.0});
    for (int bin = lo; bin <= hi; ++bin) {
        const double ph0 = captures::kTwoPi * rng.uniform();
        for (int t = 0; t < kLen; ++t) {
            const double ph = ph0 + captures::kTwoPi * bin * t / kLen;
            x[t].re += std::cos(ph);
            x[t].im += std::sin(ph);
        }
    }
    const double fs = 3.0 * kLen;  // 3 Hz per bin
    const Snr r = run_snr(x, fs, MT_FSK, 1.0);
    EXPECT_NEAR(r.band / 3.0, n + 2 * (n / 3), 3.0);
    EXPECT_GT(r.snr, 40.0);  // only window sidelobes lie outside the band
}

// Power only at the two ends of the spectrum: the mean below k peaks near the
// bottom and the mean above k near the top, so a < b and there is no band.
TEST(CalcSNR, FskWithoutAnInnerBandGivesZero) {
    auto x = captures::tone(kLen, 1000.0, -8190, kLen);
    const auto y = captures::tone(kLen, 1000.0, 8189, kLen);
    for (int n = 0; n < kLen; ++n) {
        x[n].re += y[n].re;
        x[n].im += y[n].im;
    }
    const Snr r = run_snr(x, kLen, MT_FSK, 1.0);
    EXPECT_EQ(r.snr, 0.0);
    EXPECT_EQ(r.band, -777.0);
}

// No power at all: both maxima stay at k = 1, the band is the single bin 1,
// S = 0 and log10(0) = -inf is passed on; the width is 0 Hz.
TEST(CalcSNR, FskSilentBlockGivesMinusInfinity) {
    const std::vector<Complex> x(kLen, Complex{0.0, 0.0});
    const Snr r = run_snr(x, 48000.0, MT_ANALOG, 0.0);
    EXPECT_EQ(r.snr, -std::numeric_limits<double>::infinity());
    EXPECT_EQ(r.band, 0.0);
}

}  // namespace
