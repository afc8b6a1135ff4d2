// Gardner timing recovery: the block-edge bookkeeping (carried tail, strobe
// budget, symbol budget). Locking on real signals is proven end to end by
// every chain that times its symbols with this loop.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CommonFun.h"
#include "capture_runner.h"

namespace {

constexpr double kRs = 1000.0, kFs = 4 * kRs;

struct TimingRun {
    std::vector<Complex> out;
    int len = -1;
};

TimingRun gardner(CommonFun& cf, const std::vector<Complex>& in, double c1 = 0.002,
                  double c2 = 1.82e-08) {
    TimingRun r;
    r.out.assign(in.size() + 8, Complex{-99.0, -99.0});  // -99: never written
    cf.Gardner(in.data(), static_cast<int>(in.size()), kFs, kRs, c1, c2, r.out.data(), &r.len);
    return r;
}

// Raised-cosine QPSK (what a root-raised-cosine link looks like after its
// matched filter), as complex baseband.
std::vector<Complex> qpskRc(long nSamples, double timing, double sps = 4.0) {
    vantrel::siggen::Config cfg = captureConfig(MOD_QPSK, sps, nSamples, 11, kRs);
    cfg.filterType = vantrel::siggen::kRC;
    cfg.timingOffset = timing;
    std::vector<Complex> x;
    for (const auto& v : vantrel::siggen::generate(cfg).baseband) x.push_back(Complex{v.real(), v.imag()});
    return x;
}

// The tail of one call is prepended to the next: identical blocks give
// identical output only with a Reset in between.
TEST(Gardner, ResetClearsTheCarriedTail) {
    const auto x = qpskRc(4 * 800 + 3, 0.2);  // 3 samples past whole symbols
    CommonFun cf;
    const TimingRun first = gardner(cf, x);
    cf.Reset();
    const TimingRun again = gardner(cf, x);
    const TimingRun noReset = gardner(cf, x);
    ASSERT_EQ(first.len, again.len);
    bool differs = noReset.len != first.len;
    for (int i = 0; i < first.len; ++i) {
        ASSERT_EQ(first.out[i].re, again.out[i].re) << i;
        ASSERT_EQ(first.out[i].im, again.out[i].im) << i;
        differs = differs || noReset.out[i].re != first.out[i].re;
    }
    EXPECT_TRUE(differs);
    EXPECT_EQ(first.out[first.len].re, -99.0) << "nothing written past the count";
}

TEST(Gardner, CarriedStrobeCounterAtTheBudgetStopsAtOnce) {
    // The resumed block is the 4-sample tail plus 80 samples, 21 symbols, so
    // the strobe budget is 4 * 21 + 10 = 94 and mu holds 94 slots: a carried
    // counter at 93 or 94 stops on its first strobe, and the interval carried
    // out must be the fresh one, not a read of mu[94].
    const std::vector<Complex> x(80, Complex{1.0, -1.0});
    CommonFun cf;
    gardner(cf, x);
    ASSERT_EQ(cf.gardnerTailCount, 4);
    cf.gardnerContinue = 1;
    for (int strobe : {93, 94}) {
        cf.gardnerStrobe = strobe;
        EXPECT_EQ(gardner(cf, x).len, 0) << strobe;
        EXPECT_EQ(cf.gardnerMu, 0.6) << strobe;
    }
}

TEST(Gardner, FastTransmitterIsCutAtTheWholeSymbols) {
    // The transmitter runs 0.5 % fast (3.98 sps) against a loop fast enough
    // to follow it: 3200 samples hold about 804 symbols but the block counts
    // S = (3200 - offset) / 4, and no more may be written.
    CommonFun cf;
    const TimingRun r = gardner(cf, qpskRc(3200, 0.0, 3.98), 0.01, 1e-5);
    const int offset = (8 - cf.gardnerTailCount) % 4;  // tail = remainder + 4
    EXPECT_EQ(r.len, (3200 - offset) / 4);
    EXPECT_EQ(r.out[r.len].re, -99.0);
}

}  // namespace
