// Windowed power spectrum and the two SNR band rules.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <vector>

#include "CommonFun.h"
#include "capture_runner.h"

namespace {

namespace sg = vantrel::siggen;
constexpr int kLen = 16384;
constexpr double kTwoPi = 6.283185307179586;
const double kInf = std::numeric_limits<double>::infinity();

// Bin-centred tones of amplitude A at `bins` (cycles per len samples),
// summed with spread phases.
std::vector<Complex> tones(const std::vector<int>& bins, double A, int len = kLen) {
    std::vector<Complex> x(len, Complex{0.0, 0.0});
    for (int b : bins)
        for (int n = 0; n < len; ++n) {
            const double ph = 0.37 * b * b + kTwoPi * b * n / len;
            x[n] = Complex{x[n].re + A * std::cos(ph), x[n].im + A * std::sin(ph)};
        }
    return x;
}

std::vector<Complex> baseband(const sg::Result& r) {
    std::vector<Complex> x;
    for (const auto& v : r.baseband) x.push_back(Complex{v.real(), v.imag()});
    return x;
}

struct Snr {
    double snr, band;
};

Snr snr(const std::vector<Complex>& x, double fs, ModType family, double Rb, int len = kLen) {
    ExParamOut p{};
    p.Rb = Rb;
    Snr r{-555.0, -777.0};
    CommonFun().calcSNR(x.data(), len, fs, family, &p, &r.snr, &r.band);
    return r;
}

// QPSK, RRC 0.35 (all of the signal inside +-Rb) at 4 samples per symbol,
// white noise over fs. The noise outside the band is sigma^2 (1 - 2 Rb/fs) =
// sigma^2/2 and Es/N0 = 4 Ps/sigma^2, so the figure is the SNR in 2 Rb:
// Es/N0 - 3.01 dB. Over seeds the error spreads by about +-0.2 dB from 10 to
// 30 dB and +-0.55 dB at 0 dB, where the in-band noise subtracted exceeds the
// signal. The three symbol-rate families share the rule.
TEST(CalcSNR, QpskReportsEsN0LessThreeDecibels) {
    for (const auto& c : {std::pair<double, double>{0.0, 0.6}, {10.0, 0.3}, {30.0, 0.3}}) {
        sg::Config cfg = captureConfig(MOD_QPSK, 4, kLen, 7 + static_cast<unsigned>(c.first));
        cfg.span = 32;
        cfg.esn0Db = c.first;
        const auto x = baseband(sg::generate(cfg));
        for (ModType fam : {MT_PSK, MT_QAM, MT_ASK}) {
            const Snr r = snr(x, 4 * cfg.Rb, fam, cfg.Rb);
            EXPECT_NEAR(r.snr, c.first - 10.0 * std::log10(2.0), c.second) << c.first;
            EXPECT_EQ(r.band, 2.0 * cfg.Rb);
        }
    }
}

// Band = centre +- h bins, h = round(16384 Rb/fs), edges inclusive. At
// Rb/fs = 1/4 a tone on edge bin 4096 keeps its main bin and inner neighbour;
// its outer neighbour (Hamming 0.23/0.54 of it) is noise and is subtracted
// once more from S: 20 log10(0.54/0.23). One bin further out S clamps to 0.
TEST(CalcSNR, SymbolRateBandEdgesAreInclusive) {
    for (int bin : {4096, -4096}) {
        EXPECT_NEAR(snr(tones({bin}, 100.0), kLen, MT_PSK, kLen / 4.0).snr,
                    20.0 * std::log10(0.54 / 0.23), 0.02) << bin;
        EXPECT_EQ(snr(tones({bin + bin / 4096}, 100.0), kLen, MT_PSK, kLen / 4.0).snr, -kInf) << bin;
    }
}

// 2-FSK (deviation +-fd, fs = 20 Rb): the band rule must find the signal's
// own occupied band, covering both tones (2 fd) and at most a few symbol
// rates more, and compare the signal with the noise outside it:
// Ps / (sigma^2 (1 - W/fs)). Tolerance 0.5 dB: noise-estimate spread plus the
// signal's own tails outside W, which count as noise. Analog uses the same
// rule.
TEST(CalcSNR, FskBandCoversTheTwoTones) {
    for (double snrDb : {5.0, 10.0}) {
        sg::Config cfg = captureConfig(MOD_2FSK, 20, kLen, 1, 2000.0);
        cfg.filterType = sg::kRect;
        cfg.fskDeviationHz = 4000.0;
        cfg.snrDb = snrDb;
        const sg::Result g = sg::generate(cfg);
        const auto x = baseband(g);
        const double fs = g.fs, fd = cfg.fskDeviationHz;
        const Snr r = snr(x, fs, MT_FSK, cfg.Rb);
        EXPECT_GE(r.band, 2 * fd) << snrDb;
        EXPECT_LE(r.band, 2 * fd + 6 * cfg.Rb) << snrDb;
        EXPECT_NEAR(r.snr, 10.0 * std::log10(g.signalPower / (g.noiseVariance * (1.0 - r.band / fs))),
                    0.5) << snrDb << " band " << r.band;
        EXPECT_EQ(snr(x, fs, MT_ANALOG, cfg.Rb).snr, r.snr);
    }
}

// Equal lines over bins -100..199 (n = 300): the band [b, a] found from the
// cumulative power is the block itself and is widened by floor(n/3) on each
// side (+-3 bins for the window's spill). Power only at the two ends of the
// spectrum gives a < b: no band, SNR 0 and the band left alone.
TEST(CalcSNR, CumulativeBandIsWidenedByAThirdEachSide) {
    std::vector<int> bins(300);
    std::iota(bins.begin(), bins.end(), -100);
    const auto x = tones(bins, 1.0);
    const Snr r = snr(x, 3.0 * kLen, MT_FSK, 1.0);  // 3 Hz per bin
    EXPECT_NEAR(r.band / 3.0, 300 + 2 * 100, 3.0);
    EXPECT_GT(r.snr, 40.0);
    const Snr none = snr(tones({-8190, 8189}, 1000.0), kLen, MT_FSK, 1.0);
    EXPECT_EQ(none.snr, 0.0);
    EXPECT_EQ(none.band, -777.0);
}

}  // namespace
