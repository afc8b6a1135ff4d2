// The PSK, QAM and dense-QAM demodulators called directly at 4 samples per
// symbol: the settling discards and minimum lengths, the record's counts, and
// the dense chain's phase-loop power gate. Decisions against the truth are
// proven end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "VantrelClass.h"
#include "dense_qam_recovery.h"
#include "capture_runner.h"

namespace {

constexpr double kRb = 10000.0, kFs = 4 * kRb;

std::vector<Complex> captureAt4(int mode, long symbols, double phase, double esn0, double timing,
                                unsigned seed) {
    vantrel::siggen::Config cfg = captureConfig(mode, 4.0, 0, seed, kRb);
    cfg.numSymbols = symbols;
    cfg.carrierPhase = phase;
    cfg.esn0Db = esn0;
    cfg.timingOffset = timing;
    const auto g = vantrel::siggen::generate(cfg);
    std::vector<Complex> x(g.I.size());
    for (size_t i = 0; i < g.I.size(); ++i) x[i] = Complex{double(g.I[i]), double(g.Q[i])};
    return x;
}

// Symbols the timing stage gives for the first n samples: the Gardner loop
// with the chain's gains (c1 > 0), or the dense chain's loop on the unit-RMS
// matched filter output (c1 = 0).
int timedSymbols(const std::vector<Complex>& x, int n, uint32_t mode, double c1, double c2) {
    CommonFun cf;
    cf.Reset();
    std::vector<Complex> f(n), s(n);
    int len = n, out = n;
    cf.matchFilter(x.data(), n, kFs, makeParam(kRb, mode), f.data(), len);
    if (c1 > 0) {
        cf.Gardner(f.data(), len, kFs, kRb, c1, c2, s.data(), &out);
        return out;
    }
    double e = 0.0;
    for (int i = 0; i < len; ++i) e += Complex_abs2(f[i]);
    for (int i = 0; i < len; ++i) f[i] = complex_div_real(f[i], std::sqrt(e / len));
    return dense_qam_timing(f.data(), len, kFs, s.data());
}

// The shortest prefix of x whose timing gives `want` symbols, searched from
// `from` samples.
int lengthFor(const std::vector<Complex>& x, int want, int from, uint32_t mode, double c1, double c2) {
    for (int n = from; n < from + 4 * 80; ++n)
        if (timedSymbols(x, n, mode, c1, c2) == want) return n;
    return -1;
}

int demod(VantrelClass& inst, uint32_t mode, const std::vector<Complex>& x, int n, DisplayData* d) {
    const ExParamOut p = makeParam(kRb, mode);
    return mode == MOD_QPSK    ? inst.demodPSK(x.data(), n, kFs, p, d)
           : mode == MOD_16QAM ? inst.demodQAM(x.data(), n, kFs, p, d)
                               : inst.demodQAM128_256(x.data(), n, kFs, p, d);
}

struct Minimum {
    uint32_t mode;
    int refused;          // timing symbols that must fail without writing the record
    double c1, c2;        // the chain's timing gains (0: dense chain)
    int discarded;        // symbols dropped by the settling discards and equaliser
    uint32_t shown, bitsPerSymbol;
};

class DemodMinimum : public ::testing::TestWithParam<Minimum> {};

// PSK: 501 timing symbols pass the first discard of 500 and fail the second;
// a block leaving fewer than 800 succeeds with K = timed - 500 - 500 - 9
// (ten-tap equaliser), the count in bitsLen. QAM: 1501 are refused, 1502
// leave K = 1502 - 1004 (five taps). Dense QAM: 2999 timing-loop symbols
// fail, 3000 leave 2002 decided symbols, 2000 shown, all bits.
TEST_P(DemodMinimum, RefusesWithoutWritingThenCountsTheRecord) {
    const Minimum c = GetParam();
    const bool psk = c.mode == MOD_QPSK, dense = c.c1 == 0;
    const std::vector<Complex> x = captureAt4(c.mode, psk ? 1400 : dense ? 3100 : 1700,
                                              psk ? 0.4 : dense ? 0.0 : 0.3, psk ? 30 : dense ? 40 : 35,
                                              dense ? 0.3 : 0.23, psk ? 9 : 5);
    const int from = 4 * (c.refused - (psk ? 20 : 0));
    const int nRefused = lengthFor(x, c.refused, from, c.mode, c.c1, c.c2);
    ASSERT_GT(nRefused, 0) << "no length gives exactly " << c.refused << " symbols";
    const int n = psk ? int(x.size()) : lengthFor(x, c.refused + 1, nRefused, c.mode, c.c1, c.c2);
    ASSERT_GT(n, 0);
    HostRecord host(20000);
    host.rec.symbolsLen = 12345u;
    const DisplayData before = host.rec;
    VantrelClass inst;
    EXPECT_EQ(demod(inst, c.mode, x, nRefused, &host.rec), -1);
    EXPECT_EQ(std::memcmp(&before, &host.rec, sizeof before), 0) << "failure wrote the record";

    ASSERT_EQ(demod(inst, c.mode, x, n, &host.rec), 0);
    const uint32_t K = c.shown ? c.shown : uint32_t(timedSymbols(x, n, c.mode, c.c1, c.c2) - c.discarded);
    const DisplayData& d = host.rec;
    EXPECT_EQ(d.constLen, K);
    EXPECT_EQ(d.evmLen, K);
    EXPECT_EQ(d.eyeLen, 4 * K - 16);
    EXPECT_EQ(d.symbolsLen, psk ? 12345u : K);  // PSK leaves it as it was
    EXPECT_EQ(d.bitsLen, psk ? K : (dense ? 2002u : K) * c.bitsPerSymbol);
    EXPECT_TRUE(host.intact());
    if (!psk && !dense) {  // a mode code outside the QAM family is refused
        EXPECT_EQ(inst.demodQAM(x.data(), n, kFs, makeParam(kRb, MOD_QPSK), &host.rec), -1);
    }
}

INSTANTIATE_TEST_SUITE_P(Chains, DemodMinimum,
                         ::testing::Values(Minimum{MOD_QPSK, 501, 0.002, 1.82e-08, 1009, 0, 2},
                                           Minimum{MOD_16QAM, 1501, 0.00541, 3.82e-6, 1004, 0, 4},
                                           Minimum{MOD_128QAM, 2999, 0, 0, 0, 2000, 7}));

// Grid points of one quadrant's power band, repeated in all four quadrants
// and turned by `angle`.
std::vector<Complex> ring(const std::vector<std::pair<int, int>>& pts, double angle, int reps) {
    std::vector<Complex> v;
    const double c = std::cos(angle), s = std::sin(angle);
    for (int r = 0; r < reps; ++r)
        for (auto [a, b] : pts)
            for (int q = 0; q < 4; ++q) {
                const double I = q & 1 ? -a : a, Q = q & 2 ? -b : b;
                v.push_back(Complex{I * c - Q * s, I * s + Q * c});
            }
    return v;
}

struct GateCase {
    int M;
    std::vector<std::pair<int, int>> inner;  // power at or below the gate
    std::vector<std::pair<int, int>> outer;  // power above it
};

class PhaseLoopGate : public ::testing::TestWithParam<GateCase> {};

// Points up to the gate never steer the loop: a rotated block of them passes
// through bit for bit. With the outer points mixed in, the loop turns the
// block back onto the grid, and the quadrant-phase estimate finds the tilt
// of the noiseless block exactly (up to a quarter turn).
TEST_P(PhaseLoopGate, OnlyPointsAboveTheGateSteer) {
    const GateCase& g = GetParam();
    const DenseQamConstants c = dense_qam_constants(g.M);
    CommonFun cf;
    const double tilt = 0.05;
    const std::vector<Complex> inner = ring(g.inner, tilt, 200), outer = ring(g.outer, tilt, 200);
    std::vector<Complex> y(inner.size()), mixed;
    dense_qam_phase_loop(cf, inner.data(), int(inner.size()), c, y.data());
    for (size_t i = 0; i < y.size(); ++i) ASSERT_TRUE(y[i].re == inner[i].re && y[i].im == inner[i].im) << i;
    for (size_t i = 0; i < outer.size(); ++i) mixed.push_back(outer[i]), mixed.push_back(inner[i % inner.size()]);
    y.resize(mixed.size());
    dense_qam_phase_loop(cf, mixed.data(), int(mixed.size()), c, y.data());
    // The tilt puts an outer point 0.6 off the grid; locked, it is within 0.02.
    for (size_t i = y.size() - 100; i < y.size(); ++i) {
        ASSERT_NEAR(y[i].re, std::round((y[i].re - 1) / 2) * 2 + 1, 0.02) << i;
        ASSERT_NEAR(y[i].im, std::round((y[i].im - 1) / 2) * 2 + 1, 0.02) << i;
    }
    const double theta = dense_qam_quadrant_phase(mixed.data(), int(mixed.size()));
    const double quarter = 1.5707963267948966;
    EXPECT_NEAR(theta - quarter * std::round((theta - tilt) / quarter), tilt, 1e-12);
}

INSTANTIATE_TEST_SUITE_P(Orders, PhaseLoopGate, ::testing::Values(
        // 128: (9,7) and (3,11) have power 130, below 144; (7,11), (11,7) 170.
        GateCase{128, {{1, 1}, {9, 7}, {7, 9}, {3, 11}, {11, 3}}, {{7, 11}, {11, 7}}},
        // 256: (15,13) has 394, up to 422 ignored; only the corners (450) steer.
        GateCase{256, {{1, 1}, {15, 13}, {13, 15}, {11, 15}}, {{15, 15}}}));

}  // namespace
