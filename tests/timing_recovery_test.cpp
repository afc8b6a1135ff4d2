// Gardner timing recovery on synthetic raised-cosine PSK, with the
// transmitted symbols as the oracle.
#include <gtest/gtest.h>

#include <cmath>
#include <ostream>
#include <limits>
#include <vector>

#include "CommonFun.h"
#include "psk_test_signal.h"

namespace {

using psktest::Shape;

constexpr double kRs = 1000.0;

struct TimingRun {
    std::vector<Complex> out;
    int len = -1;
};

TimingRun runGardner(CommonFun& cf, const std::vector<Complex>& in, double fs, double c1 = 0.002,
               double c2 = 1.82e-08) {
    TimingRun r;
    r.out.assign(in.size() + 8, Complex{-99.0, -99.0});
    cf.Gardner(in.data(), static_cast<int>(in.size()), fs, kRs, c1, c2, r.out.data(), &r.len);
    return r;
}

// Spread of |y| relative to its mean over out[from .. len-1].
double modulusSpread(const TimingRun& r, int from) {
    double sum = 0.0, sum2 = 0.0;
    const int n = r.len - from;
    for (int i = from; i < r.len; ++i) {
        const double a = Complex_abs(r.out[i]);
        sum += a;
        sum2 += a * a;
    }
    const double mean = sum / n;
    return std::sqrt(sum2 / n - mean * mean) / mean;
}

std::vector<int> decide(const TimingRun& r, int from, int M) {
    std::vector<int> d;
    for (int i = from; i < r.len; ++i) d.push_back(psktest::nearestSector(r.out[i], M));
    return d;
}

struct TimingCase {
    int M;
    double delay;  // symbols
    double clock;  // transmitter / receiver symbol period
    double gainC1;
    double gainC2;
};

std::ostream& operator<<(std::ostream& os, const TimingCase& c) {
    return os << c.M << "-PSK delay " << c.delay << " clock " << c.clock;
}

class GardnerLocks : public ::testing::TestWithParam<TimingCase> {};

// After settling, the symbols sit on a circle with small spread and decide to
// the transmitted sequence without error; the count is S minus a few. A wrong
// error sign would settle on the zero crossings instead and fail both checks.
TEST_P(GardnerLocks, SymbolsSettleOnTheConstellation) {
    const TimingCase tc = GetParam();
    const int nSym = 3000;
    const int n = 4 * nSym;
    const auto sent = psktest::randomSectors(nSym, tc.M, 11);
    Shape sh;
    sh.root = false;  // already matched-filtered: raised-cosine pulses
    sh.delay = tc.delay;
    sh.clock = tc.clock;
    sh.amplitude = 3000.0;
    const auto x = psktest::shape(sent, tc.M, n, sh);

    CommonFun cf;
    const TimingRun r = runGardner(cf, x, 4 * kRs, tc.gainC1, tc.gainC2);
    // Any alignment offset leaves S = (n - offset) / 4 whole symbols.
    EXPECT_LE(r.len, nSym);
    EXPECT_GE(r.len, nSym - 1 - 4);
    const int settle = 500;
    const double spread = modulusSpread(r, settle);
    EXPECT_LT(spread, 0.05) << "spread " << spread;

    int lag = 0, rot = 0;
    const auto d = decide(r, settle, tc.M);
    const int errors = psktest::bestAlignment(d, sent, tc.M, settle - 4, 8, &lag, &rot);
    EXPECT_EQ(errors, 0);
    EXPECT_EQ(rot, 0) << "real pulses do not rotate the constellation";
    RecordProperty("spread", std::to_string(spread));
}

INSTANTIATE_TEST_SUITE_P(
    Offsets, GardnerLocks,
    ::testing::Values(TimingCase{4, 0.0, 1.0, 0.002, 1.82e-08},
                      TimingCase{4, 0.11, 1.0, 0.002, 1.82e-08},
                      TimingCase{4, 0.37, 1.0, 0.002, 1.82e-08},
                      TimingCase{8, 0.2, 1.0, 0.002, 1.82e-08},
                      TimingCase{4, 0.25, 1.0001, 0.002, 1.82e-08},
                      TimingCase{2, 0.3, 0.9999, 0.004, 1.82e-06}));

TEST(Gardner, ZeroInputGivesZeroSymbolsAtTheFreeRunningRate) {
    // All phases tie (offset 0), the RMS floor applies (r = 1), every error is
    // 0 and the step stays at 0.5: strobes at samples 1, 3, 5 ..., symbols at
    // 3, 7, 11 ... while m < N - 2, which is S - 1 symbols for N = 4 S.
    const int S = 50;
    std::vector<Complex> zeros(4 * S, Complex{0.0, 0.0});
    CommonFun cf;
    const TimingRun r = runGardner(cf, zeros, 4 * kRs);
    ASSERT_EQ(r.len, S - 1);
    for (int i = 0; i < r.len; ++i) {
        EXPECT_EQ(r.out[i].re, 0.0);
        EXPECT_EQ(r.out[i].im, 0.0);
    }
    EXPECT_EQ(r.out[r.len].re, -99.0) << "nothing written past the count";
}

// The tail of one call is prepended to the next: identical blocks give
// identical output only with a Reset in between.
TEST(Gardner, ResetBetweenCallsMakesThemRepeatable) {
    const int nSym = 800;
    const auto sent = psktest::randomSectors(nSym, 4, 5);
    Shape sh;
    sh.root = false;
    sh.delay = 0.2;
    const auto x = psktest::shape(sent, 4, 4 * nSym + 3, sh);  // 3 samples past whole symbols

    CommonFun cf;
    const TimingRun first = runGardner(cf, x, 4 * kRs);
    cf.Reset();
    const TimingRun again = runGardner(cf, x, 4 * kRs);
    ASSERT_EQ(first.len, again.len);
    for (int i = 0; i < first.len; ++i) {
        EXPECT_EQ(first.out[i].re, again.out[i].re) << i;
        EXPECT_EQ(first.out[i].im, again.out[i].im) << i;
    }
    const TimingRun noReset = runGardner(cf, x, 4 * kRs);
    bool differs = noReset.len != first.len;
    for (int i = 0; i < first.len && !differs; ++i)
        differs = noReset.out[i].re != first.out[i].re || noReset.out[i].im != first.out[i].im;
    EXPECT_TRUE(differs);
}

TEST(Gardner, AlignmentStartsAtTheStrongestPhaseAndKeepsTheTail) {
    // Energy only at phase 2 of every 4: the block is entered at sample 2.
    // 40 samples -> 38 remain, 9 symbols (36 samples), tail = 2 + 4 = 6
    // samples, the last six of the block.
    std::vector<Complex> x(40, Complex{0.0, 0.0});
    for (int j = 0; j < 10; ++j) x[4 * j + 2] = Complex{1.0 + j, -1.0};
    x[39] = Complex{0.0, 0.5};
    CommonFun cf;
    runGardner(cf, x, 4 * kRs);
    ASSERT_EQ(cf.gardnerTailCount, 6);
    EXPECT_EQ(cf.gardnerTail[0].re, x[34].re);
    EXPECT_EQ(cf.gardnerTail[5].im, 0.5);

    // Equal energy in every phase: no shift, and a tail of exactly 4.
    std::vector<Complex> flat(40, Complex{1.0, 1.0});
    cf.Reset();
    runGardner(cf, flat, 4 * kRs);
    EXPECT_EQ(cf.gardnerTailCount, 4);
}

TEST(Gardner, FewerThanFourSamplesAfterAlignmentStayInBounds) {
    // One symbol of four samples peaking at phase 3: one sample remains, no
    // whole symbol, and the tail is the whole (one-sample) block.
    std::vector<Complex> x = {{0.1, 0}, {0.2, 0}, {0.3, 0}, {5.0, 2.0}};
    CommonFun cf;
    const TimingRun r = runGardner(cf, x, 4 * kRs);
    EXPECT_EQ(r.len, 0);
    ASSERT_EQ(cf.gardnerTailCount, 1);
    EXPECT_EQ(cf.gardnerTail[0].re, 5.0);
    // The carried state is that of a fresh start.
    EXPECT_EQ(cf.gardnerNco, 0.7);
    EXPECT_EQ(cf.gardnerLastErr, 0.0);

    // Continuing from it with another short block is equally safe.
    cf.gardnerContinue = 1;
    const TimingRun r2 = runGardner(cf, x, 4 * kRs);
    EXPECT_EQ(r2.len, 0);
}

TEST(Gardner, NeverReturnsMoreThanTheWholeSymbols) {
    // The transmitter runs 0.5 % fast, so the 3200 samples hold about 804
    // symbols while the block counts S = 800 (or 799 after alignment); a loop
    // fast enough to follow it is stopped by the symbol budget.
    const auto sent = psktest::randomSectors(1000, 4, 2);
    Shape sh;
    sh.root = false;
    sh.clock = 0.995;
    const auto x = psktest::shape(sent, 4, 3200, sh);
    CommonFun cf;
    const TimingRun r = runGardner(cf, x, 4 * kRs, 0.01, 1e-5);
    // The alignment offset, recovered from the tail (remainder + 4 samples).
    const int offset = (4 - (cf.gardnerTailCount - 4)) % 4;
    const int S = (3200 - offset) / 4;
    EXPECT_EQ(r.len, S);
    EXPECT_EQ(r.out[r.len].re, -99.0);
}

TEST(Gardner, ACarriedStrobeCounterPastTheBlockStopsAtOnce) {
    // The resumed block is the 4-sample tail plus 80 samples, 21 symbols, so
    // its strobe budget is 4 * 21 + 10 = 94 strobes; a
    // resumed call whose carried counter is already past it stops on its
    // first strobe, writes nothing and carries a fresh fractional interval.
    std::vector<Complex> x(80, Complex{1.0, -1.0});
    CommonFun cf;
    runGardner(cf, x, 4 * kRs);
    ASSERT_GT(cf.gardnerTailCount, 0);
    cf.gardnerContinue = 1;
    for (int strobe : {93, 94, 1000}) {
        cf.gardnerStrobe = strobe;
        const TimingRun r = runGardner(cf, x, 4 * kRs);
        EXPECT_EQ(r.len, 0) << strobe;
        EXPECT_EQ(cf.gardnerMu, 0.6) << strobe;
    }
}

TEST(Gardner, DegenerateRatesLeaveTheCountUntouched) {
    std::vector<Complex> x(64, Complex{1.0, 0.0});
    std::vector<Complex> out(64);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const double rates[][2] = {{nan, kRs}, {4000.0, nan}, {inf, kRs}, {4000.0, 0.0},
                               {1000.0, 2000.0}, {4000.0, -kRs}, {1e300, 1e-300}};
    CommonFun cf;
    for (const auto& fr : rates) {
        int len = -7;
        cf.Gardner(x.data(), 64, fr[0], fr[1], 0.002, 1.82e-08, out.data(), &len);
        EXPECT_EQ(len, -7) << fr[0] << " / " << fr[1];
    }
    int len = -7;
    cf.Gardner(x.data(), 0, 4000.0, kRs, 0.002, 1.82e-08, out.data(), &len);
    EXPECT_EQ(len, -7);
    cf.Gardner(x.data(), 3, 4000.0, kRs, 0.002, 1.82e-08, out.data(), &len);
    EXPECT_EQ(len, -7) << "fewer samples than one symbol";
}

// With the continuation flag the second half of a stream picks up where the
// first left off: no re-acquisition, and the decided symbols run on in order
// with none lost or repeated. (The boundary falls on a whole symbol; the new
// block is re-aligned on its own, so a boundary mid-symbol costs a re-lock.)
TEST(Gardner, ContinuationCarriesTheLoopAcrossBlocks) {
    const int nSym = 2000;
    const auto sent = psktest::randomSectors(nSym, 4, 21);
    Shape sh;
    sh.root = false;
    sh.delay = 0.3;
    const auto x = psktest::shape(sent, 4, 4 * nSym, sh);
    const int half = 4 * 1000;
    std::vector<Complex> a(x.begin(), x.begin() + half), b(x.begin() + half, x.end());

    CommonFun cf;
    const TimingRun r1 = runGardner(cf, a, 4 * kRs);
    cf.gardnerContinue = 1;
    const TimingRun r2 = runGardner(cf, b, 4 * kRs);
    ASSERT_GT(r1.len, 900);
    ASSERT_GT(r2.len, 900);
    EXPECT_EQ(cf.gardnerStrobe == 4 || cf.gardnerStrobe == 5, true);

    int lag = 0, rot = 0;
    const auto d1 = decide(r1, 400, 4);
    ASSERT_EQ(psktest::bestAlignment(d1, sent, 4, 396, 8, &lag, &rot), 0);
    const int firstOfSecond = 400 + lag - 4 + static_cast<int>(d1.size());  // sent index after r1
    const auto d2 = decide(r2, 0, 4);
    int lag2 = 0, rot2 = 0;
    EXPECT_EQ(psktest::bestAlignment(d2, sent, 4, firstOfSecond - 4, 8, &lag2, &rot2), 0);
    EXPECT_EQ(lag2, 4) << "the second block's first symbol follows the first block's last";
    EXPECT_LT(modulusSpread(r2, 0), 0.05);
}

}  // namespace
