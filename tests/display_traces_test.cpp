// Display traces: eye interpolation, instantaneous frequency and phase
// unwrap with detrend. Expectations come from closed forms worked out by hand
// or from the generated signal's own parameters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "CommonFun.h"

namespace {
constexpr double kPi = 3.14159265358979323846;

std::vector<Complex> tone(int n, double radPerSample, double phase0 = 0.0, double amp = 1.0) {
    std::vector<Complex> x(n);
    for (int k = 0; k < n; ++k) {
        const double a = phase0 + radPerSample * k;
        x[k] = Complex{amp * std::cos(a), amp * std::sin(a)};
    }
    return x;
}

// Wraps into (-pi, pi], the way an atan2-based phase reading arrives.
double wrap(double a) { return std::atan2(std::sin(a), std::cos(a)); }
}  // namespace

// ---------------------------------------------------------------- getEye

struct EyeLengthCase {
    int n;
    int scale;
    int capacity;
    int expected;
};

class EyeLength : public ::testing::TestWithParam<EyeLengthCase> {};

TEST_P(EyeLength, WritesMinOfFourNMinusDelayAndCapacity) {
    const EyeLengthCase c = GetParam();
    std::vector<Complex> in(std::max(c.n, 1), Complex{1.0, 0.5});
    const double kGuard = -777.0;
    std::vector<double> out(std::max(c.capacity, 0) + 8, kGuard);
    int len = c.capacity;
    CommonFun cf;
    cf.getEye(in.data(), c.n, c.scale, out.data(), &len);
    EXPECT_EQ(len, c.expected);
    for (size_t k = std::max(c.expected, 0); k < out.size(); ++k)
        ASSERT_EQ(out[k], kGuard) << "write past the count at " << k;
}

INSTANTIATE_TEST_SUITE_P(
    Rules, EyeLength,
    ::testing::Values(EyeLengthCase{10, 1, 100, 24},  // 4*10 - 16
                      EyeLengthCase{10, 1, 5, 5},     // capacity wins
                      EyeLengthCase{10, 0, 100, 0},   // scale below 1
                      EyeLengthCase{3, 1, 100, 0},    // negative count raised to 0
                      EyeLengthCase{0, 1, 100, 0},
                      EyeLengthCase{10, 1, 0, 0}));

TEST(Eye, SymbolValuesPassThroughAtTheirInstantsScaled) {
    // The zero taps four apart from the centre mean neighbouring symbols add
    // nothing at a symbol instant: out[4i] = Re in[i] * centre tap / scale.
    const double centre = 1.001980578094065;
    const int n = 40;
    std::vector<Complex> in(n);
    for (int i = 0; i < n; ++i) in[i] = Complex{(i % 3 == 0 ? 3.0 : -1.0) * (1 + i % 5), 7.0};
    std::vector<double> out(4 * n);
    int len = 4 * n;
    CommonFun cf;
    cf.getEye(in.data(), n, 2, out.data(), &len);
    ASSERT_EQ(len, 4 * n - 16);
    for (int i = 0; 4 * i < len; ++i)
        EXPECT_DOUBLE_EQ(out[4 * i], in[i].re * centre / 2) << "symbol " << i;
}

TEST(Eye, ImpulseGivesASymmetricPulseCentredOnItsSymbol) {
    // One non-zero symbol at index 5 spreads over out[4 .. 36], centred on 20.
    std::vector<Complex> in(12, Complex{0.0, 0.0});
    in[5] = Complex{1.0, -9.0};  // the quadrature part never shows
    std::vector<double> out(100);
    int len = 100;
    CommonFun cf;
    cf.getEye(in.data(), 12, 1, out.data(), &len);
    ASSERT_EQ(len, 32);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k], 0.0);
    for (int d = 1; 20 + d < len; ++d) EXPECT_EQ(out[20 - d], out[20 + d]) << d;
    EXPECT_NEAR(out[19], 0.87280673827055, 1e-15);
}

TEST(Eye, ConstantSymbolsInterpolateToANearlyFlatTrace) {
    // Each of the four polyphase branches of an interpolator sums to about
    // one, so a constant sequence stays constant between the symbols once the
    // filter is filled (2 % covers the branch gains 0.9986 .. 1.0020).
    const int n = 30;
    std::vector<Complex> in(n, Complex{-2.0, 0.0});
    std::vector<double> out(4 * n);
    int len = 4 * n;
    CommonFun cf;
    cf.getEye(in.data(), n, 1, out.data(), &len);
    for (int k = 16; k < len - 16; ++k) EXPECT_NEAR(out[k], -2.0, 0.02) << "k " << k;
}

// ---------------------------------------------------------------- getFreq

TEST(Freq, ToneGivesZerosAfterTheMeanIsRemoved) {
    const double w = 0.05;
    auto x = tone(200, w, 0.4, 300.0);
    std::vector<double> f(200, 1e9);
    CommonFun cf;
    cf.getFreq(x.data(), 200, f.data());
    // sin(w) ~ w; the trace is that constant minus itself.
    for (double v : f) EXPECT_NEAR(v, 0.0, 1e-12);
}

TEST(Freq, StepIsNormalisedByThePowerOfTheLaterSample) {
    // (1,0) -> (0,2): cross product 2 over |q|^2 = 4 gives 0.5 (not the
    // 1.0 of the product of magnitudes). (0,2) -> (0,2): 0. Then out[0]
    // repeats out[1] and the mean of out[1..2] = 0.25 is removed.
    std::vector<Complex> x = {{1.0, 0.0}, {0.0, 2.0}, {0.0, 2.0}};
    std::vector<double> f(3);
    CommonFun cf;
    cf.getFreq(x.data(), 3, f.data());
    EXPECT_DOUBLE_EQ(f[0], 0.25);
    EXPECT_DOUBLE_EQ(f[1], 0.25);
    EXPECT_DOUBLE_EQ(f[2], -0.25);
}

TEST(Freq, ZeroPowerSampleGivesZeroStepNotADivision) {
    std::vector<Complex> x = {{0.0, 1.0}, {0.0, 0.0}, {1.0, 0.0}, {1.0, 0.0}};
    std::vector<double> f(4);
    CommonFun cf;
    cf.getFreq(x.data(), 4, f.data());
    for (double v : f) EXPECT_TRUE(std::isfinite(v));
    // Steps: (0,1)->(0,0) is 0 by the guard, (0,0)->(1,0) is 0, (1,0)->(1,0) 0.
    for (double v : f) EXPECT_EQ(v, 0.0);
}

TEST(Freq, SecondBlockContinuesFromTheLastSampleOfTheFirst) {
    const double w = 0.1;
    const double jump = 0.02;  // small extra phase at the block boundary
    auto whole = tone(201, w);
    std::vector<Complex> a(whole.begin(), whole.begin() + 100);
    // Block b continues the tone but starts jump radians ahead.
    std::vector<Complex> b(101);
    for (int k = 0; k < 101; ++k) {
        const double ph = w * (100 + k) + jump;
        b[k] = Complex{std::cos(ph), std::sin(ph)};
    }
    std::vector<double> fa(100), fb(101);
    CommonFun cf;
    cf.getFreq(a.data(), 100, fa.data());
    EXPECT_EQ(cf.freqHavePrev, 1);
    cf.getFreq(b.data(), 101, fb.data());
    // The mean over out[1..] is sin(w) exactly, so everything after the first
    // value is zero; the first value carries only the extra boundary step.
    const double expectedFirst = std::sin(w + jump) - std::sin(w);
    EXPECT_NEAR(fb[0], expectedFirst, 1e-12);
    for (int k = 1; k < 101; ++k) EXPECT_NEAR(fb[k], 0.0, 1e-12);

    // After Reset the first value is estimated from the block itself again.
    cf.Reset();
    cf.getFreq(b.data(), 101, fb.data());
    EXPECT_NEAR(fb[0], 0.0, 1e-12);
}

TEST(Freq, SingleSampleWithoutHistoryIsZeroAndWithHistoryIsTheStep) {
    CommonFun cf;
    Complex one{0.0, 5.0};
    double f = 42.0;
    cf.getFreq(&one, 1, &f);
    EXPECT_EQ(f, 0.0);
    Complex next{-5.0, 0.0};  // a quarter turn on from (0,5): 25 / 25
    cf.getFreq(&next, 1, &f);
    EXPECT_DOUBLE_EQ(f, 1.0);
}

// ------------------------------------------------- phaseUnwrapAndDetrend

TEST(Unwrap, RecoversAModulationThatIsOrthogonalToTheLine) {
    // A cosine symmetric about the block centre over whole periods has zero
    // sum and zero correlation with the sample index, so the least-squares
    // line is exactly the applied ramp and the cosine is what remains.
    const int n = 400;
    const double c = (n - 1) / 2.0, amp = 2.5, cycles = 3.0;
    std::vector<double> in(n), out(n);
    std::vector<double> truth(n);
    for (int i = 0; i < n; ++i) {
        truth[i] = amp * std::cos(2 * kPi * cycles * (i - c) / n);
        in[i] = wrap(1.0 + 1.0 * i + truth[i]);
    }
    double slope = 0, intercept = 0;
    CommonFun cf;
    cf.phaseUnwrapAndDetrend(in.data(), n, out.data(), &slope, &intercept);
    EXPECT_NEAR(slope, 1.0, 1e-12);
    // The intercept may differ from 1 by whole turns (the unwrap starts at
    // the wrapped first value).
    const double turns = (intercept - 1.0) / (2 * kPi);
    EXPECT_NEAR(turns, std::round(turns), 1e-9);
    for (int i = 0; i < n; ++i) EXPECT_NEAR(out[i], truth[i], 1e-9) << i;
}

TEST(Unwrap, HalfTurnStepsRoundAwayFromZero) {
    // A step of exactly +pi counts as +1 turn and -pi as -1 turn, so the
    // unwrapped sequences flip sign and the fitted slopes reveal the rule.
    CommonFun cf;
    const double up[3] = {0.0, kPi, kPi};
    const double down[3] = {0.0, -kPi, -kPi};
    double out[3];
    double slope = 0;
    cf.phaseUnwrapAndDetrend(up, 3, out, &slope, nullptr);
    EXPECT_DOUBLE_EQ(slope, -kPi / 2);  // unwrapped 0, -pi, -pi
    cf.phaseUnwrapAndDetrend(down, 3, out, &slope, nullptr);
    EXPECT_DOUBLE_EQ(slope, kPi / 2);   // unwrapped 0, pi, pi
}

TEST(Unwrap, ShortInputsAreCopiedWithAFlatLine) {
    CommonFun cf;
    double in = 1.25, out = 0.0, slope = 9, intercept = 9;
    cf.phaseUnwrapAndDetrend(&in, 1, &out, &slope, &intercept);
    EXPECT_EQ(out, 1.25);
    EXPECT_EQ(slope, 0.0);
    EXPECT_EQ(intercept, 1.25);
    slope = intercept = 9;
    cf.phaseUnwrapAndDetrend(&in, 0, &out, &slope, &intercept);
    EXPECT_EQ(slope, 0.0);
    EXPECT_EQ(intercept, 0.0);
    // Optional outputs may be null.
    const double two[2] = {0.5, 3.0};
    double twoOut[2];
    cf.phaseUnwrapAndDetrend(two, 2, twoOut, nullptr, nullptr);
    EXPECT_NEAR(twoOut[0], 0.0, 1e-15);
    EXPECT_NEAR(twoOut[1], 0.0, 1e-15);
}

TEST(Unwrap, InPlaceGivesTheSameResult) {
    const int n = 64;
    std::vector<double> in(n), separate(n);
    for (int i = 0; i < n; ++i) in[i] = wrap(0.3 * i + std::sin(0.2 * i));
    CommonFun cf;
    cf.phaseUnwrapAndDetrend(in.data(), n, separate.data(), nullptr, nullptr);
    cf.phaseUnwrapAndDetrend(in.data(), n, in.data(), nullptr, nullptr);
    for (int i = 0; i < n; ++i) EXPECT_EQ(in[i], separate[i]);
}

TEST(Unwrap, NanPhaseStaysNanWithoutUndefinedConversion) {
    const double in[4] = {0.0, std::nan(""), 1.0, 2.0};
    double out[4];
    double slope = 0;
    CommonFun cf;
    cf.phaseUnwrapAndDetrend(in, 4, out, &slope, nullptr);
    EXPECT_TRUE(std::isnan(slope));
}
