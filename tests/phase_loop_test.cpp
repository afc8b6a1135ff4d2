// Carrier phase loop and its detectors.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <random>
#include <vector>

#include "CommonFun.h"
#include "psk_test_signal.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

// Distance of angle a from the nearest of the M reference phases
// offset + 2 pi k / M, folded into (-pi/M, pi/M].
double residual(double a, int M, double offset) {
    const double step = 2 * kPi / M;
    double d = std::fmod(a - offset, step);
    if (d > step / 2) d -= step;
    if (d <= -step / 2) d += step;
    return d;
}

struct PullCase {
    int M;
    double rotation;   // constant rotation, radians
    double freq;       // residual carrier, radians per symbol
    double reference;  // where the loop must put the constellation
};

std::ostream& operator<<(std::ostream& os, const PullCase& c) {
    return os << c.M << "-PSK rotation " << c.rotation << " freq " << c.freq;
}

class PhaseLookPulls : public ::testing::TestWithParam<PullCase> {};

// A rotated (and slowly spinning) constellation is pulled onto the reference
// phases, and every symbol keeps its identity up to a whole-sector rotation.
TEST_P(PhaseLookPulls, OntoTheReferencePhases) {
    const PullCase pc = GetParam();
    const int n = 3000;
    const auto sent = psktest::randomSectors(n, pc.M, 17);
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 0.02);
    std::vector<Complex> in(n), out(n);
    for (int i = 0; i < n; ++i) {
        const Complex p = psktest::pskPoint(sent[i], pc.M);
        const double a = pc.rotation + pc.freq * i;
        in[i] = Complex{p.re * std::cos(a) - p.im * std::sin(a) + noise(rng),
                        p.re * std::sin(a) + p.im * std::cos(a) + noise(rng)};
    }
    CommonFun cf;
    int len = -1;
    const double Rs = 2400.0;
    cf.PhaseLook(in.data(), n, MT_PSK, pc.M, Rs, 0.03 * Rs, MOD_QPSK, out.data(), &len);
    ASSERT_EQ(len, n);

    double meanErr = 0.0;
    const int from = 1000;
    for (int i = from; i < n; ++i)
        meanErr += residual(std::atan2(out[i].im, out[i].re), pc.M, pc.reference);
    meanErr /= (n - from);
    EXPECT_LT(std::fabs(meanErr), 0.01) << "final phase error " << meanErr;

    int lag = 0, rot = 0;
    std::vector<int> decided;
    for (int i = from; i < n; ++i) decided.push_back(psktest::nearestSector(out[i], pc.M));
    EXPECT_EQ(psktest::bestAlignment(decided, sent, pc.M, from, 0, &lag, &rot), 0);
    RecordProperty("phaseError", std::to_string(meanErr));
}

INSTANTIATE_TEST_SUITE_P(
    Rotations, PhaseLookPulls,
    ::testing::Values(PullCase{4, 0.3, 0.0, kPi / 4}, PullCase{4, -0.6, 0.0, kPi / 4},
                      PullCase{4, 2.0, 0.001, kPi / 4}, PullCase{8, 0.25, 0.0, kPi / 8},
                      PullCase{8, -0.1, -0.002, kPi / 8}, PullCase{2, 0.5, 0.0, 0.0},
                      PullCase{2, -1.2, 0.001, 0.0}));

struct FirstSymbolsCase {
    ModType family;
    int M;
    double angle;  // of every input symbol
};

std::ostream& operator<<(std::ostream& os, const FirstSymbolsCase& c) {
    return os << "family " << c.family << " M " << c.M << " angle " << c.angle;
}

class PhaseLookEquations : public ::testing::TestWithParam<FirstSymbolsCase> {};

// The first three symbols of a fresh loop, from the loop equations with
// gains computed here: the NCO lags the filter by a symbol and the integral
// term takes the previous error.
TEST_P(PhaseLookEquations, FirstSymbolsFollowTheLoop) {
    const FirstSymbolsCase c = GetParam();
    const double Rs = 1000.0, Bn = 30.0;
    const double zeta = 0.707;
    const double wn = 8 * zeta * Bn / 2.999396;
    const double K1 = 2 * zeta * wn / Rs, K2 = wn * wn / (Rs * Rs);

    // Detector outputs written out for a symbol at angle x.
    auto detector = [&](double x) {
        if (c.M == 2) return std::sin(std::sin(x));  // BPSK: reference 0, doubled sine
        return 0.2 * std::sin(x - kPi / c.M);        // PSK: first sector's centre
    };
    std::vector<Complex> in(3, Complex{std::cos(c.angle), std::sin(c.angle)}), out(3);
    CommonFun cf;
    int len = 0;
    cf.PhaseLook(in.data(), 3, c.family, c.M, Rs, Bn, MOD_BPSK, out.data(), &len);
    const double e0 = detector(c.angle);
    const double v1 = K1 * e0;  // eprev = 0
    const double theta1 = 0.0;  // theta += v with v = 0 before the first update
    const double e1 = detector(c.angle - theta1);
    const double theta2 = theta1 + v1;
    EXPECT_NEAR(std::atan2(out[0].im, out[0].re), c.angle, 1e-12);
    EXPECT_NEAR(std::atan2(out[1].im, out[1].re), c.angle - theta1, 1e-12);
    EXPECT_NEAR(std::atan2(out[2].im, out[2].re), c.angle - theta2, 1e-12);
    // Stored state after three symbols.
    const double e2 = detector(c.angle - theta2);
    const double v2 = v1 + K1 * (e1 - e0) + K2 * e0;
    const double v3 = v2 + K1 * (e2 - e1) + K2 * e1;
    EXPECT_NEAR(cf.phaseAcc, theta2 + v2, 1e-15);
    EXPECT_NEAR(cf.phaseFreq, v3, 1e-15);
    EXPECT_NEAR(cf.phaseLastErr, e2, 1e-15);
}

INSTANTIATE_TEST_SUITE_P(Families, PhaseLookEquations,
                         ::testing::Values(FirstSymbolsCase{MT_PSK, 2, 0.4},
                                           FirstSymbolsCase{MT_PSK, 2, -0.3},
                                           FirstSymbolsCase{MT_PSK, 4, 0.5},
                                           FirstSymbolsCase{MT_PSK, 4, 1.2}));

TEST(PhaseLook, EmptyBlockLeavesTheStateAlone) {
    CommonFun cf;
    std::vector<Complex> in(50, Complex{0.8, 0.9}), out(50);
    int len = 0;
    cf.PhaseLook(in.data(), 50, MT_PSK, 4, 1000.0, 30.0, MOD_QPSK, out.data(), &len);
    const double acc = cf.phaseAcc, freq = cf.phaseFreq, err = cf.phaseLastErr;
    len = 7;
    cf.PhaseLook(in.data(), 0, MT_PSK, 4, 1000.0, 30.0, MOD_QPSK, out.data(), &len);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(cf.phaseAcc, acc);
    EXPECT_EQ(cf.phaseFreq, freq);
    EXPECT_EQ(cf.phaseLastErr, err);
}

TEST(PhaseLook, UnknownFamilyOnlyAppliesTheCarriedPhase) {
    std::vector<Complex> in = {{0.3, -0.7}, {1.0, 0.0}, {-0.2, 0.5}, {0.0, -1.0}};
    std::vector<Complex> out(4);
    CommonFun cf;
    int len = 0;
    cf.PhaseLook(in.data(), 4, MT_ASK, 4, 1000.0, 30.0, MOD_ASK, out.data(), &len);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(out[i].re, in[i].re);
        EXPECT_EQ(out[i].im, in[i].im);
    }
    // A loop already turning keeps turning by its carried frequency.
    cf.phaseAcc = 0.1;
    cf.phaseFreq = 0.01;
    cf.PhaseLook(in.data(), 4, MT_FSK, 4, 1000.0, 30.0, MOD_ASK, out.data(), &len);
    for (int i = 0; i < 4; ++i) {
        const double a = 0.1 + 0.01 * i;
        EXPECT_NEAR(out[i].re, in[i].re * std::cos(a) + in[i].im * std::sin(a), 1e-15);
        EXPECT_NEAR(out[i].im, in[i].im * std::cos(a) - in[i].re * std::sin(a), 1e-15);
    }
}

TEST(PhaseLook, ThirtyTwoPointsUseFixedGains) {
    // The 32-point cross on the odd grid, slightly rotated.
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
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(o1[i].re, o2[i].re);
        EXPECT_EQ(o1[i].im, o2[i].im);
    }
    // And they pull the rotation out.
    EXPECT_NEAR(cf1.phaseAcc, 0.05, 0.01);
}

TEST(Discriminators, SectorBoundariesBelongToTheSectorTheyOpen) {
    CommonFun cf;
    // QPSK: pi/2 opens sector 1, centre 3 pi/4.
    EXPECT_NEAR(cf.Discriminator_PSK(kPi / 2, 4), 0.2 * std::sin(-kPi / 4), 1e-15);
    EXPECT_NEAR(cf.Discriminator_PSK(0.0, 4), 0.2 * std::sin(-kPi / 4), 1e-15);
    EXPECT_NEAR(cf.Discriminator_PSK(-0.1, 8), 0.2 * std::sin(2 * kPi - 0.1 - 15 * kPi / 8),
                1e-15);
    EXPECT_NEAR(cf.Discriminator_PSK(4 * kPi + 1.0, 4), 0.2 * std::sin(1.0 - kPi / 4), 1e-14);
    // BPSK: references 0 and pi, the edges at pi/2 and 3 pi/2.
    EXPECT_NEAR(cf.Discriminator_BPSK(0.2, 2), std::sin(0.2), 1e-15);
    EXPECT_NEAR(cf.Discriminator_BPSK(kPi + 0.3, 2), std::sin(0.3), 1e-14);
    EXPECT_NEAR(cf.Discriminator_BPSK(kPi / 2, 2), std::sin(-kPi / 2), 1e-15);
    EXPECT_NEAR(cf.Discriminator_BPSK(2 * kPi - 0.25, 2), std::sin(-0.25), 1e-14);
    EXPECT_NEAR(cf.Discriminator_BPSK(-0.25, 2), std::sin(-0.25), 1e-14);
}

TEST(Discriminators, QamGridPointsAreTheirOwnReference) {
    CommonFun cf;
    for (int M : {16, 32, 64}) {
        const int L = M == 32 ? 6 : static_cast<int>(std::sqrt(M));
        for (int a = 1 - L; a <= L - 1; a += 2) {
            for (int b = 1 - L; b <= L - 1; b += 2) {
                if (M == 32 && std::abs(a) == 5 && std::abs(b) == 5) continue;
                double p = std::atan2(double(b), double(a));
                if (p < 0) p += 2 * kPi;
                EXPECT_NEAR(cf.Discriminator_QAM(p, Complex{double(a), double(b)}, M), 0.0,
                            1e-12)
                    << M << ": " << a << "," << b;
                // A small turn is reported with the detector's gain of 3.
                EXPECT_NEAR(cf.Discriminator_QAM(p + 0.01, Complex{double(a), double(b)}, M),
                            3 * std::sin(0.01), 1e-12);
            }
        }
    }
}

}  // namespace
