// The 128/256-point QAM demodulator called directly: the timing loop's
// 3000-symbol minimum, the phase loop's power gate, and the display of a
// rotated 128-point block. Decisions against the truth are proven end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "VantrelClass.h"
#include "dense_qam_recovery.h"
#include "siggen.h"
#include "test_support.h"

namespace {

constexpr double kRb = 10000.0, kFs = 4 * kRb;

std::vector<Complex> captureAt4(int mode, long symbols, double phase, double esn0) {
    vantrel::siggen::Config cfg;
    cfg.mode = mode;
    cfg.Rb = kRb;
    cfg.sps = 4.0;
    cfg.numSymbols = symbols;
    cfg.carrierPhase = phase;
    cfg.esn0Db = esn0;
    cfg.timingOffset = 0.3;
    cfg.seed = 5;
    const auto g = vantrel::siggen::generate(cfg);
    std::vector<Complex> x;
    for (size_t i = 0; i < g.I.size(); ++i) x.push_back(Complex{double(g.I[i]), double(g.Q[i])});
    return x;
}

// Symbols the timing loop gives for the first n samples, filtered and scaled
// to unit RMS as the demodulator does before timing.
int timedSymbols(const std::vector<Complex>& x, int n, uint32_t mode) {
    CommonFun cf;
    cf.Reset();
    std::vector<Complex> f(n);
    int len = n;
    cf.matchFilter(x.data(), n, kFs, makeParam(kRb, mode), f.data(), len);
    double e = 0.0;
    for (int i = 0; i < len; ++i) e += Complex_abs2(f[i]);
    const double rms = std::sqrt(e / len);
    for (int i = 0; i < len; ++i) f[i] = complex_div_real(f[i], rms);
    std::vector<Complex> s(len / 4 + 1);
    return dense_qam_timing(f.data(), len, kFs, s.data());
}

// 2999 timing-loop symbols fail and leave the record as it was; 3000 pass,
// leaving 3000 - 499 - 499 = 2002 decided symbols: 2000 shown, all bits.
TEST(DemodQam128_256, TimingMinimumAndTheRecordCounts) {
    const std::vector<Complex> x = captureAt4(MOD_128QAM, 3100, 0.0, 40.0);
    int n2999 = -1, n3000 = -1;
    for (int n = 4 * 3000; n < 4 * 3030 && n3000 < 0; ++n) {
        const int c = timedSymbols(x, n, MOD_128QAM);
        if (c == 2999) n2999 = n;
        if (c == 3000) n3000 = n;
    }
    ASSERT_GT(n2999, 0);
    ASSERT_GT(n3000, 0);

    HostRecord host(20000);
    const DisplayData before = host.rec;
    VantrelClass inst;
    EXPECT_EQ(inst.demodQAM128_256(x.data(), n2999, kFs, makeParam(kRb, MOD_128QAM), &host.rec),
              -1);
    EXPECT_EQ(std::memcmp(&before, &host.rec, sizeof before), 0) << "failure wrote the record";

    ASSERT_EQ(inst.demodQAM128_256(x.data(), n3000, kFs, makeParam(kRb, MOD_128QAM), &host.rec),
              0);
    EXPECT_EQ(host.rec.constLen, 2000u);
    EXPECT_EQ(host.rec.symbolsLen, 2000u);
    EXPECT_EQ(host.rec.evmLen, 2000u);
    EXPECT_EQ(host.rec.bitsLen, 2002u * 7);
    EXPECT_EQ(host.rec.eyeLen, 4 * 2000u - 16);
    EXPECT_TRUE(host.intact());
}

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

// Points up to the gate never steer the loop: a rotated block of them leaves
// it at phase 0 and passes through bit for bit. With the outer points mixed
// in, the loop turns the block back onto the grid.
TEST_P(PhaseLoopGate, OnlyPointsAboveTheGateSteer) {
    const GateCase& g = GetParam();
    const DenseQamConstants c = dense_qam_constants(g.M);
    CommonFun cf;
    const double tilt = 0.05;

    const std::vector<Complex> inner = ring(g.inner, tilt, 200);
    std::vector<Complex> y(inner.size());
    dense_qam_phase_loop(cf, inner.data(), int(inner.size()), c, y.data());
    for (size_t i = 0; i < y.size(); ++i) {
        ASSERT_EQ(y[i].re, inner[i].re) << i;
        ASSERT_EQ(y[i].im, inner[i].im) << i;
    }

    std::vector<Complex> mixed;
    const std::vector<Complex> outer = ring(g.outer, tilt, 200);
    for (size_t i = 0; i < outer.size(); ++i) {
        mixed.push_back(outer[i]);
        mixed.push_back(inner[i % inner.size()]);
    }
    y.resize(mixed.size());
    dense_qam_phase_loop(cf, mixed.data(), int(mixed.size()), c, y.data());
    // The 0.05 rad tilt puts an outer point 0.6 off the grid; locked, it is
    // within 0.02.
    for (size_t i = y.size() - 100; i < y.size(); ++i) {
        ASSERT_NEAR(y[i].re, std::round((y[i].re - 1) / 2) * 2 + 1, 0.02) << i;
        ASSERT_NEAR(y[i].im, std::round((y[i].im - 1) / 2) * 2 + 1, 0.02) << i;
    }

    // The quadrant-phase estimate finds the tilt of a noiseless block exactly
    // (up to a quarter turn), whichever points it holds.
    const double theta = dense_qam_quadrant_phase(mixed.data(), int(mixed.size()));
    const double quarter = 1.5707963267948966;
    EXPECT_NEAR(theta - quarter * std::round((theta - tilt) / quarter), tilt, 1e-12);
}

INSTANTIATE_TEST_SUITE_P(
    Orders, PhaseLoopGate,
    ::testing::Values(
        // 128: (9,7) and (3,11) have power 130, below 144; (7,11), (11,7) 170.
        GateCase{128, {{1, 1}, {9, 7}, {7, 9}, {3, 11}, {11, 3}}, {{7, 11}, {11, 7}}},
        // 256: (15,13) has 394, up to 422 ignored; only the corners (450) steer.
        GateCase{256, {{1, 1}, {15, 13}, {13, 15}, {11, 15}}, {{15, 15}}}),
    [](const ::testing::TestParamInfo<GateCase>& info) {
        return "order" + std::to_string(info.param.M);
    });

// A noiseless 128-point capture turned by 0.1 rad is displayed on the grid:
// the quadrant-phase step removes the turn up to a quarter turn, the display
// rotation the outer points' residual offset. What is left is the timing
// loop's own residual (about 0.1 grid units RMS), well inside the decision
// distance of 1.
TEST(DemodQam128_256, RotatedCrossIsDisplayedOnTheGrid) {
    const std::vector<Complex> x = captureAt4(MOD_128QAM, 6000, 0.1, NAN);
    HostRecord host(60000);
    VantrelClass inst;
    ASSERT_EQ(inst.demodQAM128_256(x.data(), int(x.size()), kFs, makeParam(kRb, MOD_128QAM),
                                   &host.rec),
              0);
    ASSERT_EQ(host.rec.constLen, 2000u);
    double worst = 0.0;
    for (uint32_t i = 0; i < host.rec.constLen; ++i) {
        const double I = host.rec.constI[i] * 11, Q = host.rec.constQ[i] * 11;
        worst = std::max(worst, std::hypot(I - (std::round((I - 1) / 2) * 2 + 1),
                                           Q - (std::round((Q - 1) / 2) * 2 + 1)));
    }
    EXPECT_LT(worst, 0.45);
}

}  // namespace
