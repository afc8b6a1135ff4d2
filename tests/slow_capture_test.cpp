// Captures below four samples per symbol, down to one, analysed end to end.
// Every such ratio goes through the rational resampler, whose fraction for
// most of them is the 1e-9 decimal fallback with a filter of billions of
// taps (evaluated lazily) and, below about 1.86 samples per symbol, a
// numerator beyond 32 bits.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "capture_runner.h"

namespace {

using vantrel::siggen::Config;
using vantrel::siggen::generate;
using vantrel::siggen::Result;

// A capture at `sps` samples per symbol. The generator shapes non-integer
// rates from 2 upward, so slower captures are made at an integer multiple of
// the rate and decimated; with a roll-off of 0.2 the signal occupies
// +-0.6 Rb, inside the Nyquist band of every rate from 1.2 up (1.0 aliases
// its outer edges, as a real capture at that rate would).
Result slowCapture(int mode, double sps) {
    const int factor = sps < 2.0 ? static_cast<int>(std::ceil(2.0 / sps)) : 1;
    Config cfg;
    cfg.mode = mode;
    cfg.Rb = 10000.0;
    cfg.sps = sps * factor;
    cfg.rolloff = 0.2;
    cfg.numSamples = static_cast<long>(std::ceil(std::max(16384.0, 5000 * sps))) * factor;
    cfg.seed = 21;
    cfg.carrierOffsetHz = 120.0;
    cfg.esn0Db = 30.0;
    cfg.peak = 12000.0;
    Result r = generate(cfg);
    if (factor > 1) {
        std::vector<int16_t> I, Q;
        for (size_t k = 0; k < r.I.size(); k += factor) {
            I.push_back(r.I[k]);
            Q.push_back(r.Q[k]);
        }
        r.I = I;
        r.Q = Q;
        r.fs /= factor;
    }
    return r;
}

class SlowCapture : public ::testing::TestWithParam<double> {};

TEST_P(SlowCapture, QpskAndSixteenQamDemodulate) {
    const double sps = GetParam();
    const Result qpsk = slowCapture(MOD_QPSK, sps);
    HostRecord host(40000);
    const int code = analyseCapture(qpsk, host);
    const vantrel::siggen::Match m = matchTruth(qpsk, host);
    std::printf("QPSK at %.1f sps: code %d, constLen %u, EVM %.2f %%, snr %.2f dB, "
                "errors %ld/%ld\n",
                sps, code, host.rec.constLen, double(host.rec.evmRms), double(host.rec.snr),
                m.errors, m.compared);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(host.rec.constLen, 800u);
    EXPECT_TRUE(host.intact());
    // The resampler's low-pass is deliberately wide: its cutoff sits at 0.95
    // of the input rate, so the first image of the zero-stuffed stream (at
    // fs_in - f) is not rejected. Once the block is at 4 Rb that image folds
    // back onto the signal band, the closer the ratio is to 4 the more of it
    // passes: QPSK EVM at 30 dB is about 3.3 % up to 3.5 samples per symbol,
    // then 10, 22, 36 and 49 % at 3.6, 3.7, 3.8 and 3.9. Decisions are
    // exact up to 3.5; just below 4 the call still completes.
    EXPECT_EQ(m.compared, 800);
    if (sps <= 3.5) {
        EXPECT_EQ(m.errors, 0);
    }

    // 16-QAM through the same resampler, carrier refinement and its own
    // demodulator.
    const Result qam = slowCapture(MOD_16QAM, sps);
    HostRecord qamHost(40000);
    const int qamCode = analyseCapture(qam, qamHost);
    const vantrel::siggen::Match qm = matchTruth(qam, qamHost);
    std::printf("16QAM at %.1f sps: code %d, constLen %u, EVM %.2f %%, snr %.2f dB, "
                "errors %ld/%ld\n",
                sps, qamCode, qamHost.rec.constLen, double(qamHost.rec.evmRms),
                double(qamHost.rec.snr), qm.errors, qm.compared);
    EXPECT_EQ(qamCode, 0);
    EXPECT_EQ(qamHost.rec.constLen, 800u);
    // At one sample per symbol the band edges alias onto the signal: QPSK
    // still decides, but 16-QAM's inner levels do not survive the resulting
    // intersymbol interference (EVM about 19 %, most symbols wrong).
    if (sps >= 1.2 && sps <= 3.5) {
        EXPECT_EQ(qm.errors, 0);
    }
    EXPECT_TRUE(qamHost.intact());
}

INSTANTIATE_TEST_SUITE_P(Rates, SlowCapture,
                         ::testing::Values(1.0, 1.2, 1.5, 1.9, 2.0, 2.5, 3.0, 3.5, 3.9),
                         [](const ::testing::TestParamInfo<double>& info) {
                             return "sps" + std::to_string(static_cast<int>(info.param * 100));
                         });

}  // namespace
