// Carrier phase loop and its detectors.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

struct PullCase {
    int M;
    double rotation;   // constant rotation, radians
    double freq;       // residual carrier, radians per symbol
    double reference;  // where the loop must put the constellation
};

class PhaseLookPulls : public ::testing::TestWithParam<PullCase> {};

// A rotated (and slowly spinning) noisy constellation ends on the reference
// phases 45 + k 90 deg (QPSK), 22.5 + k 45 deg (8PSK) or 0 / 180 deg (BPSK):
// a detector with the wrong sign or reference pushes it away or onto the
// sector edges, a mis-wired filter leaves the spin in.
TEST_P(PhaseLookPulls, OntoTheReferencePhases) {
    const PullCase c = GetParam();
    const int n = 3000, from = 1000;
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 0.02);
    std::vector<Complex> in(n), out(n);
    for (int i = 0; i < n; ++i) {
        const double a = c.reference + 2 * kPi * (rng() % c.M) / c.M + c.rotation + c.freq * i;
        in[i] = Complex{std::cos(a) + noise(rng), std::sin(a) + noise(rng)};
    }
    CommonFun cf;
    int len = -1;
    cf.PhaseLook(in.data(), n, MT_PSK, c.M, 2400.0, 72.0, MOD_QPSK, out.data(), &len);
    ASSERT_EQ(len, n);
    const double step = 2 * kPi / c.M;
    double meanErr = 0.0;
    for (int i = from; i < n; ++i) {
        double d = std::fmod(std::atan2(out[i].im, out[i].re) - c.reference + 4 * kPi, step);
        meanErr += d > step / 2 ? d - step : d;
    }
    meanErr /= n - from;
    EXPECT_LT(std::fabs(meanErr), 0.01) << "final phase error " << meanErr;
}

INSTANTIATE_TEST_SUITE_P(Rotations, PhaseLookPulls,
    ::testing::Values(PullCase{4, 0.3, 0.0, kPi / 4}, PullCase{4, 2.0, 0.001, kPi / 4},
                      PullCase{8, -0.1, -0.002, kPi / 8}, PullCase{2, 0.5, 0.0, 0.0},
                      PullCase{2, -1.2, 0.001, 0.0}));

TEST(PhaseLook, ThirtyTwoPointsUseFixedGainsAndPullTheRotationOut) {
    // The 32-point cross on the odd grid, turned by 0.05 rad. The tuned gains
    // ignore Rs and Bn, so two very different rates give identical output.
    std::vector<Complex> in;
    for (int i = 0; i < 400; ++i) {
        const int a = 2 * ((i * 7) % 6) - 5, b = 2 * ((i * 11 + 3) % 6) - 5;
        if (std::abs(a) == 5 && std::abs(b) == 5) continue;
        in.push_back(Complex{a * std::cos(0.05) - b * std::sin(0.05),
                             a * std::sin(0.05) + b * std::cos(0.05)});
    }
    const int n = static_cast<int>(in.size());
    std::vector<Complex> o1(n), o2(n);
    CommonFun cf1, cf2;
    int l1 = 0, l2 = 0;
    cf1.PhaseLook(in.data(), n, MT_QAM, 32, 1000.0, 30.0, MOD_32QAM, o1.data(), &l1);
    cf2.PhaseLook(in.data(), n, MT_QAM, 32, 77.0, 900.0, MOD_32QAM, o2.data(), &l2);
    ASSERT_EQ(l1, n);
    for (int i = 0; i < n; ++i) ASSERT_EQ(o1[i].re, o2[i].re) << i;
    EXPECT_NEAR(cf1.phaseAcc, 0.05, 0.01);
}

}  // namespace
