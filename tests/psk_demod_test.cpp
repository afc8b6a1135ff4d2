// The PSK demodulator called directly: the two settling discards and the
// record's counts. Decisions against the truth are proven end to end.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "VantrelClass.h"
#include "siggen.h"
#include "test_support.h"

namespace {

constexpr double kRb = 10000.0, kFs = 4 * kRb;

// Number of symbols the timing stage gives for the first n samples of x.
int timingSymbols(const std::vector<Complex>& x, int n) {
    CommonFun cf;
    std::vector<Complex> f(n), s(n);
    int l1 = n;
    cf.matchFilter(x.data(), n, kFs, makeParam(kRb, MOD_QPSK), f.data(), l1);
    int l2 = l1;
    cf.Gardner(f.data(), l1, kFs, kRb, 0.002, 1.82e-08, s.data(), &l2);
    return l2;
}

// 501 timing symbols pass the first discard of 500 (one symbol left) and
// must fail the second; a block leaving fewer than 800 equalised symbols
// succeeds with what it has, K = timed - 500 - 500 - 9 (ten-tap equaliser).
TEST(DemodPsk, SettlingDiscardsAndTheRecordCounts) {
    vantrel::siggen::Config cfg;
    cfg.mode = MOD_QPSK;
    cfg.Rb = kRb;
    cfg.sps = 4.0;
    cfg.numSymbols = 1400;
    cfg.timingOffset = 0.23;
    cfg.carrierPhase = 0.4;
    cfg.esn0Db = 30.0;
    cfg.seed = 9;
    const auto g = vantrel::siggen::generate(cfg);
    std::vector<Complex> x;
    for (size_t i = 0; i < g.I.size(); ++i) x.push_back(Complex{double(g.I[i]), double(g.Q[i])});

    int n501 = -1;
    for (int n = 4 * 480; n < 4 * 560 && n501 < 0; ++n)
        if (timingSymbols(x, n) == 501) n501 = n;
    ASSERT_GT(n501, 0) << "no length gives exactly 501 symbols";
    HostRecord host(4000);
    constexpr uint32_t kUntouched = 12345u;
    host.rec.symbolsLen = kUntouched;
    const DisplayData before = host.rec;
    VantrelClass inst;
    EXPECT_EQ(inst.demodPSK(x.data(), n501, kFs, makeParam(kRb, MOD_QPSK), &host.rec), -1);
    EXPECT_EQ(std::memcmp(&before, &host.rec, sizeof before), 0) << "failure wrote the record";

    const int n = static_cast<int>(x.size());
    const uint32_t K = static_cast<uint32_t>(timingSymbols(x, n) - 500 - 500 - 9);
    ASSERT_EQ(inst.demodPSK(x.data(), n, kFs, makeParam(kRb, MOD_QPSK), &host.rec), 0);
    EXPECT_EQ(host.rec.constLen, K);
    EXPECT_EQ(host.rec.evmLen, K);
    // Hosts read the symbol count from bitsLen (not the 2K bits written);
    // symbolsLen keeps whatever it held.
    EXPECT_EQ(host.rec.bitsLen, K);
    EXPECT_EQ(host.rec.symbolsLen, kUntouched);
    EXPECT_EQ(host.rec.eyeLen, 4 * K - 16);
    for (uint32_t i = 0; i < K; ++i) {  // QPSK Gray labels of the symbols
        const uint32_t s = host.rec.symbols[i], gray = s ^ (s >> 1);
        ASSERT_EQ(host.rec.bits[2 * i] * 2 + host.rec.bits[2 * i + 1], gray) << i;
    }
    EXPECT_TRUE(host.intact());
}

}  // namespace
