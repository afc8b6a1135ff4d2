// The PSK demodulator called directly on synthetic root-raised-cosine
// captures, with the transmitted symbols as the oracle.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <ostream>
#include <vector>

#include "VantrelClass.h"
#include "psk_test_signal.h"
#include "test_support.h"

namespace {

using psktest::Shape;

constexpr double kRb = 10000.0;
constexpr uint32_t kUntouched = 12345u;

uint32_t modeOf(int M) { return M == 2 ? MOD_BPSK : (M == 4 ? MOD_QPSK : MOD_8PSK); }

struct Capture {
    std::vector<int> sent;
    std::vector<Complex> samples;
};

Capture makeCapture(int M, int nSym, double sps, double esN0dB, unsigned seed) {
    Capture c;
    c.sent = psktest::randomSectors(nSym, M, seed);
    Shape sh;
    sh.sps = sps;
    sh.delay = 0.23;
    sh.freq = 2e-5;  // residual carrier after the front end, cycles per sample
    sh.phase = 0.4;
    sh.amplitude = 2000.0;
    sh.esN0dB = esN0dB;
    sh.noiseSeed = seed + 1;
    c.samples = psktest::shape(c.sent, M, static_cast<int>(nSym * sps), sh);
    return c;
}

struct DemodCase {
    int M;
    int sps;
    double esN0dB;
};

std::ostream& operator<<(std::ostream& os, const DemodCase& c) {
    return os << c.M << "-PSK " << c.sps << " sps " << c.esN0dB << " dB";
}

class DemodPsk : public ::testing::TestWithParam<DemodCase> {};

// 800 points decided to the transmitted symbols up to the constellation's
// rotational ambiguity, with the record's counts as the host reads them.
TEST_P(DemodPsk, DecidesTheTransmittedSymbols) {
    const DemodCase c = GetParam();
    const Capture cap = makeCapture(c.M, 2400, c.sps, c.esN0dB, 40 + c.M);
    HostRecord host(4000);
    host.rec.symbolsLen = kUntouched;
    VantrelClass inst;
    const int rc = inst.demodPSK(cap.samples.data(), static_cast<int>(cap.samples.size()),
                                 c.sps * kRb, makeParam(kRb, modeOf(c.M)), &host.rec);
    ASSERT_EQ(rc, 0);
    ASSERT_TRUE(host.intact());
    const DisplayData& r = host.rec;
    ASSERT_EQ(r.constLen, 800u);
    EXPECT_EQ(r.bitsLen, 800u) << "the symbol count lands in bitsLen";
    EXPECT_EQ(r.symbolsLen, kUntouched);
    EXPECT_EQ(r.evmLen, 800u);
    EXPECT_EQ(r.phaseErrLen, 800u);
    EXPECT_EQ(r.magErrLen, 800u);
    EXPECT_EQ(r.eyeLen, 4u * 800 - 16);

    std::vector<int> decided(800);
    for (int i = 0; i < 800; ++i) decided[i] = static_cast<int>(r.symbols[i]);
    int lag = 0, rot = 0;
    const int errors = psktest::bestAlignment(decided, cap.sent, c.M, 0,
                                              static_cast<int>(cap.sent.size()) - 800, &lag,
                                              &rot);
    EXPECT_EQ(errors, 0);

    // The bits are the Gray labels of the decided sectors, MSB first, k each.
    const int k = c.M == 2 ? 1 : (c.M == 4 ? 2 : 3);
    for (int i = 0; i < 800; ++i) {
        const int g = decided[i] ^ (decided[i] >> 1);
        for (int t = 0; t < k; ++t)
            ASSERT_EQ(r.bits[i * k + t], static_cast<uint32_t>((g >> (k - 1 - t)) & 1)) << i;
    }
    // The summary figures are those of the per-symbol arrays.
    double s = 0.0, peak = 0.0;
    for (int i = 0; i < 800; ++i) {
        s += r.evm[i] * r.evm[i];
        peak = std::max(peak, double(r.evm[i]));
    }
    const double evmRms = r.evmRms;
    const double evmPeak = r.evmPeak;
    EXPECT_NEAR(evmRms, std::sqrt(s / 800), 1e-9);
    EXPECT_EQ(evmPeak, peak);
    // Expected EVM from the noise alone: sqrt(N0 / Es) in percent; the chain
    // adds a little of its own (residual ISI and loop jitter).
    const double noiseEvm = 100.0 * std::pow(10.0, -c.esN0dB / 20);
    EXPECT_GT(evmRms, 0.7 * noiseEvm);
    EXPECT_LT(evmRms, 1.6 * noiseEvm + 0.5);
    RecordProperty("evmRms", std::to_string(evmRms));
}

INSTANTIATE_TEST_SUITE_P(
    Captures, DemodPsk,
    ::testing::Values(DemodCase{2, 4, 20.0}, DemodCase{2, 4, 30.0}, DemodCase{4, 4, 20.0},
                      DemodCase{4, 4, 30.0}, DemodCase{8, 4, 20.0}, DemodCase{8, 4, 30.0},
                      DemodCase{4, 8, 30.0}));

// A record equal, byte for byte, to the one it started as.
bool unchanged(const DisplayData& a, const DisplayData& b) {
    return std::memcmp(&a, &b, sizeof(DisplayData)) == 0;
}

TEST(DemodPskChecks, InvalidArgumentsFailWithoutWriting) {
    const Capture cap = makeCapture(4, 400, 4, 30.0, 3);
    const int n = static_cast<int>(cap.samples.size());
    const double nan = std::numeric_limits<double>::quiet_NaN();
    HostRecord host(4000);
    const DisplayData before = host.rec;
    VantrelClass inst;
    EXPECT_EQ(inst.demodPSK(nullptr, n, 4 * kRb, makeParam(kRb, MOD_QPSK), &host.rec), -1);
    EXPECT_EQ(inst.demodPSK(cap.samples.data(), 0, 4 * kRb, makeParam(kRb, MOD_QPSK),
                            &host.rec), -1);
    EXPECT_EQ(inst.demodPSK(cap.samples.data(), n, nan, makeParam(kRb, MOD_QPSK), &host.rec),
              -1);
    EXPECT_EQ(inst.demodPSK(cap.samples.data(), n, 4 * kRb, makeParam(0.0, MOD_QPSK),
                            &host.rec), -1);
    EXPECT_EQ(inst.demodPSK(cap.samples.data(), n, 4 * kRb, makeParam(kRb, MOD_16QAM),
                            &host.rec), -1);
    EXPECT_EQ(inst.demodPSK(cap.samples.data(), n, 4 * kRb, makeParam(kRb, MOD_QPSK),
                            nullptr), -1);
    EXPECT_TRUE(unchanged(before, host.rec));
    EXPECT_TRUE(host.intact());
}

// Number of symbols the timing stage gives for the first n samples of x.
int timingSymbols(const std::vector<Complex>& x, int n, double fs) {
    CommonFun cf;
    std::vector<Complex> f(n), s(n);
    int l1 = n;
    cf.matchFilter(x.data(), n, fs, makeParam(kRb, MOD_QPSK), f.data(), l1);
    int l2 = l1;
    cf.Gardner(f.data(), l1, fs, kRb, 0.002, 1.82e-08, s.data(), &l2);
    return l2;
}

// The two settling discards: 501 timing symbols pass the first (one symbol
// left) and fail the second; a block that leaves fewer than 800 equalised
// symbols succeeds with what it has.
TEST(DemodPskChecks, SettlingDiscards) {
    const Capture cap = makeCapture(4, 1400, 4, 30.0, 9);
    const double fs = 4 * kRb;
    int n501 = -1;
    for (int n = 4 * 480; n < 4 * 560 && n501 < 0; ++n)
        if (timingSymbols(cap.samples, n, fs) == 501) n501 = n;
    ASSERT_GT(n501, 0) << "no length gives exactly 501 symbols";

    HostRecord host(4000);
    const DisplayData before = host.rec;
    VantrelClass inst;
    EXPECT_EQ(inst.demodPSK(cap.samples.data(), n501, fs, makeParam(kRb, MOD_QPSK), &host.rec),
              -1);
    EXPECT_TRUE(unchanged(before, host.rec));

    // 1400 symbols: about 1390 after timing, 890 after the first discard,
    // 390 after the second, 381 after the ten-tap equaliser.
    const int n = static_cast<int>(cap.samples.size());
    const int timed = timingSymbols(cap.samples, n, fs);
    ASSERT_EQ(inst.demodPSK(cap.samples.data(), n, fs, makeParam(kRb, MOD_QPSK), &host.rec), 0);
    const uint32_t K = static_cast<uint32_t>(timed - 500 - 500 - 9);
    EXPECT_EQ(host.rec.constLen, K);
    EXPECT_EQ(host.rec.bitsLen, K);
    EXPECT_EQ(host.rec.eyeLen, 4 * K - 16);
    EXPECT_TRUE(host.intact());
}

}  // namespace
