// Generated captures of every digital family through the public entry, with
// host arrays sized by the published capacities: return code, display length,
// decisions against the transmitted symbols (best rotation), EVM that falls
// as the noise does, and the family's own figure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "capture_runner.h"

namespace {

namespace sg = vantrel::siggen;

struct Case {
    int mode;
    double sps;
    double lowDb, highDb;  // Es/N0 of the two captures
    long maxLowErrors;     // decision errors allowed in the noisier capture
    long samples = 0;      // 0: enough for about 4200 symbols
};

// The record's counts and scalars (its array pointers die with the host).
struct Figures {
    int code;
    DisplayData d;
    sg::Match match;
    double outerI;  // mean |I| of the displayed points beyond 80 % of the largest
};

constexpr double kDeviation = 12500.0;  // Hz, FSK outer tone

Figures analyse(const Case& c, double esn0) {
    const bool dense = c.mode == MOD_128QAM || c.mode == MOD_256QAM;
    const long samples = c.samples > 0 ? c.samples : std::max<long>(16384, std::lround(4200 * c.sps));
    sg::Config cfg = captureConfig(c.mode, c.sps, samples, dense ? 21 : 23);
    cfg.carrierOffsetHz = dense ? 150.0 : 300.0;
    cfg.carrierPhase = dense ? 0.3 : 0.4;
    cfg.esn0Db = esn0;
    cfg.fskDeviationHz = kDeviation;
    cfg.peak = 12000.0;
    const sg::Result capture = sg::generate(cfg);
    HostRecord host(static_cast<uint32_t>(capture.I.size()), static_cast<uint32_t>(c.mode));
    Figures f{analyseCapture(capture, host), host.rec, matchTruth(capture, host), 0.0};
    const DisplayData& d = host.rec;
    double largest = 0.0, sum = 0.0;
    int count = 0;
    for (uint32_t i = 0; i < d.constLen; ++i) largest = std::max(largest, std::fabs(d.constI[i]));
    for (uint32_t i = 0; i < d.constLen; ++i)
        if (std::fabs(d.constI[i]) > 0.8 * largest) sum += std::fabs(d.constI[i]), ++count;
    f.outerI = count > 0 ? sum / count : 0.0;
    EXPECT_TRUE(host.intact());
    return f;
}

class EndToEnd : public ::testing::TestWithParam<Case> {};

TEST_P(EndToEnd, DecidesTheTransmittedSymbols) {
    const Case c = GetParam();
    int order = 0, B = 0;
    ASSERT_TRUE(sg::modeInfo(c.mode, nullptr, &order, &B));
    const Figures low = analyse(c, c.lowDb), high = analyse(c, c.highDb);
    const bool dense = order >= 128, psk = c.mode >= MOD_BPSK && c.mode <= MOD_8PSK;
    const bool qam = c.mode == MOD_16QAM || c.mode == MOD_32QAM || c.mode == MOD_64QAM;
    for (const Figures* f : {&low, &high}) {
        const DisplayData& d = f->d;
        std::printf("mode %d sps %g: code %d EVM %.3f %% errors %ld/%ld depth %.4f dev %.0f\n",
                    c.mode, c.sps, f->code, double(d.evmRms), f->match.errors, f->match.compared,
                    double(d.modDepth), double(d.freqDeviation));
        EXPECT_EQ(f->code, 0);
        EXPECT_EQ(d.constLen, dense ? 2000u : 800u);
        // PSK and ASK report their symbol count in bitsLen.
        const uint32_t decided = d.symbolsLen > 0 ? d.symbolsLen : d.bitsLen;
        EXPECT_EQ(f->match.compared, dense ? 2000 : long(decided));
        if (psk || qam) {
            EXPECT_EQ(f->match.compared, 800);
        }
        if (qam) {
            EXPECT_EQ(d.bitsLen, 800u * B);
        }
    }
    EXPECT_EQ(high.match.errors, 0);
    EXPECT_LE(low.match.errors, c.maxLowErrors);
    if (!dense) {
        EXPECT_GT(double(low.d.evmRms), double(high.d.evmRms));
    }
    // The display divides the grid by (int)sqrt(M) - 1: the outer level lands
    // on 1 for 16 and 64 points and on 5/4 for the 32-point cross.
    if (qam) {
        EXPECT_NEAR(high.outerI, order == 32 ? 1.25 : 1.0, 0.05);
    }
    // Equal marks and spaces; ringing and noise keep the extreme fifths of
    // the envelope off 0 and 1.
    if (c.mode == MOD_ASK) {
        EXPECT_GT(double(high.d.modDepth), 0.9);
        EXPECT_GT(double(low.d.modDepth), 0.8);
    }
    // The deviation is read on the matched-filtered trace at 4 Rb: a unit-
    // energy RRC (DC gain about sqrt(sps)) makes D read about 4 D / sqrt(sps),
    // within 4 % at 4 and 8 samples per symbol; at 16 the estimate reads the
    // averaged outer tone up to 17 % high. Averaging twice the share of the
    // largest values reads 7 to 9 % low at 4 and 8.
    const double reading = 4.0 * kDeviation / std::sqrt(c.sps);
    if (order > 0 && !psk && !qam && !dense && c.mode != MOD_ASK) {
        EXPECT_NEAR(double(high.d.freqDeviation), reading, (c.sps <= 8 ? 0.05 : 0.2) * reading);
    }
}

INSTANTIATE_TEST_SUITE_P(Families, EndToEnd, ::testing::Values(
        // 0.5 % errors at 20 dB is far above the PSK symbol error rate there.
        Case{MOD_BPSK, 4, 20, 30, 4}, Case{MOD_QPSK, 8, 20, 30, 4}, Case{MOD_8PSK, 10, 20, 30, 4},
        Case{MOD_BPSK, 10, 20, 30, 4}, Case{MOD_8PSK, 4, 20, 30, 4},
        Case{MOD_16QAM, 4, 25, 35, 800}, Case{MOD_32QAM, 8, 25, 35, 800},
        Case{MOD_64QAM, 3, 25, 35, 800}, Case{MOD_16QAM, 3, 25, 35, 800},
        Case{MOD_64QAM, 8, 25, 35, 800},
        Case{MOD_ASK, 4, 20, 30, 800}, Case{MOD_ASK, 10, 20, 30, 800},
        Case{MOD_2FSK, 4, 20, 30, 800}, Case{MOD_4FSK, 8, 20, 30, 800},
        Case{MOD_2FSK_B, 16, 20, 30, 800}, Case{MOD_4FSK, 16, 20, 30, 800},
        // At 35 dB the dense orders lose a few symbols to noise and, on some
        // seeds, a few dozen to the phase loop's pull-in; a quarter-turn slip
        // or a labelling fault would get most of them wrong.
        Case{MOD_128QAM, 4, 35, 40, 40, 40000}, Case{MOD_256QAM, 8, 35, 40, 40, 40000},
        Case{MOD_128QAM, 8, 35, 40, 40, 320000}, Case{MOD_256QAM, 4, 35, 40, 40, 320000}));

// Every mode code through the entry on a capture with I/Q impairments: the
// family's return code and the front end's figures on the raw samples.
class EveryMode : public ::testing::TestWithParam<int> {};

TEST_P(EveryMode, FrontEndFiguresMatchTheAppliedImpairments) {
    const int mode = GetParam();
    sg::Config cfg = captureConfig(mode, 8.0, 131072, 5, 20000.0);
    cfg.carrierOffsetHz = 600.0;
    const bool analog = mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B;
    (analog ? cfg.snrDb : cfg.esn0Db) = 30.0;
    cfg.gainImbalance = 1.05;
    cfg.quadSkew = 0.03;
    cfg.dcI = 150.0;
    cfg.dcQ = -80.0;
    cfg.rms = 5000.0;
    const sg::Result capture = sg::generate(cfg);
    HostRecord host(capture.I.size());
    EXPECT_EQ(analyseCapture(capture, host), 0);
    EXPECT_TRUE(host.intact());
    if (analog) return;  // the analog captures carry their own impairment model
    const DisplayData& d = host.rec;
    // Ratio and correlation of random symbols scatter by about 1/sqrt(16384
    // symbols); the DC estimate by the block mean (about 28 units per rail).
    EXPECT_NEAR(double(d.iqGainRatio), 1.05, 0.03);
    EXPECT_NEAR(double(d.quadError), 0.03, 0.03);
    EXPECT_NEAR(double(d.iqOffset), std::hypot(150.0, 80.0), 100.0);
    EXPECT_TRUE(std::isfinite(double(d.snr)));
    // The keyed carrier's line is found by the peak search, within a bin.
    if (mode == MOD_ASK) {
        EXPECT_NEAR(double(d.freqOffset), 600.0, capture.fs / 16384 + 0.5);
    }
}

INSTANTIATE_TEST_SUITE_P(Codes, EveryMode, ::testing::Range(1, 19));

// Below four samples per symbol every ratio goes through the rational
// resampler (the 1e-9 decimal fallback, numerators beyond 32 bits under
// about 1.86). Captures under 2 sps are made at a multiple and decimated;
// roll-off 0.2 keeps the signal inside the Nyquist band from 1.2 up.
sg::Result slowCapture(int mode, double sps) {
    const int factor = sps < 2.0 ? static_cast<int>(std::ceil(2.0 / sps)) : 1;
    const long samples = static_cast<long>(std::ceil(std::max(16384.0, 5000 * sps))) * factor;
    sg::Config cfg = captureConfig(mode, sps * factor, samples, 21, 10000.0);
    cfg.rolloff = 0.2;
    cfg.carrierOffsetHz = 120.0;
    cfg.esn0Db = 30.0;
    cfg.peak = 12000.0;
    sg::Result r = sg::generate(cfg);
    std::vector<int16_t> I, Q;
    for (size_t k = 0; k < r.I.size(); k += factor) I.push_back(r.I[k]), Q.push_back(r.Q[k]);
    r.I = I, r.Q = Q, r.fs /= factor;
    return r;
}

class SlowCapture : public ::testing::TestWithParam<double> {};

// The resampler's cutoff sits at 0.95 of the input rate, so the first image
// is not rejected and folds onto the signal once at 4 Rb, the more the
// closer the ratio is to 4: QPSK EVM at 30 dB is about 3.3 % up to 3.5 sps,
// 49 % at 3.9. Decisions are exact up to 3.5; 16-QAM's inner levels do not
// survive the band-edge aliasing at 1 sps.
TEST_P(SlowCapture, QpskAndSixteenQamDemodulate) {
    const double sps = GetParam();
    for (int mode : {MOD_QPSK, MOD_16QAM}) {
        const sg::Result capture = slowCapture(mode, sps);
        HostRecord host(40000);
        EXPECT_EQ(analyseCapture(capture, host), 0) << mode;
        EXPECT_EQ(host.rec.constLen, 800u) << mode;
        EXPECT_TRUE(host.intact());
        const sg::Match m = matchTruth(capture, host);
        std::printf("mode %d at %.1f sps: EVM %.2f %%, errors %ld/%ld\n", mode, sps,
                    double(host.rec.evmRms), m.errors, m.compared);
        EXPECT_EQ(m.compared, 800);
        if (sps <= 3.5 && (mode == MOD_QPSK || sps >= 1.2)) {
            EXPECT_EQ(m.errors, 0) << mode;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, SlowCapture, ::testing::Values(1.0, 1.2, 1.9, 2.5, 3.5, 3.9));

}  // namespace
