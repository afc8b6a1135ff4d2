// Analog demodulator called directly: the optional band-limit filter, the
// short-block and in-phase paths and the refused codes. The estimators on
// real modulation are proven end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "VantrelClass.h"
#include "test_support.h"

namespace {

std::vector<Complex> ramp(int n) {
    std::vector<Complex> x(n);
    for (int i = 0; i < n; ++i) x[i] = Complex{(i % 7) - 3.0 + 0.01 * i, 1.0 - 0.5 * i};
    return x;
}

class Analog : public ::testing::Test {
protected:
    int run(const std::vector<Complex>& x, uint32_t mode, double fs, double bandwidth) {
        initDisplay(&host.rec);
        return inst.demodANALOG(x.data(), static_cast<int>(x.size()), fs, bandwidth,
                                makeParam(0.0, mode), &host.rec);
    }
    VantrelClass inst;
    HostRecord host{4000};
};

// Codes 14 and 15 copy the real part of every sample, exactly, and only
// that trace. Band ratios at or outside the exclusive bounds 0.125 and 0.5
// leave the block unfiltered.
class InPhase : public Analog,
                public ::testing::WithParamInterface<std::tuple<uint32_t, double>> {};

TEST_P(InPhase, CopiesTheRealPartOfAnUnfilteredBlock) {
    const auto [mode, ratio] = GetParam();
    const auto x = ramp(500);
    ASSERT_EQ(run(x, mode, 48000, ratio * 48000), 0);
    ASSERT_EQ(host.rec.iTraceLen, 500u);
    for (int i = 0; i < 500; ++i) ASSERT_EQ(host.rec.iTrace[i], x[i].re) << i;
    EXPECT_EQ(host.rec.envTraceLen + host.rec.freqTraceLen + host.rec.phaseTraceLen, 0u);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(CodesAndBounds, InPhase, ::testing::Combine(::testing::Values(14u, 15u),
                                                                     ::testing::Values(0.125, 0.5, 0.01, 0.7)));

TEST_F(Analog, FilteredBlockKeepsNMinus32SamplesWithoutDelayCompensation) {
    // An impulse at p comes out as the symmetric 33-tap pulse centred on
    // p - 16: the valid part of the convolution is not moved back.
    const int n = 200, p = 100;
    std::vector<Complex> x(n, Complex{0.0, 0.0});
    x[p] = Complex{1.0, 0.0};
    ASSERT_EQ(run(x, MOD_ANALOG_I_A, 48000, 0.25 * 48000), 0);
    ASSERT_EQ(host.rec.iTraceLen, static_cast<uint32_t>(n - 32));
    int peak = 0;
    double energy = 0;
    for (int i = 0; i < n - 32; ++i) {
        if (std::fabs(host.rec.iTrace[i]) > std::fabs(host.rec.iTrace[peak])) peak = i;
        energy += host.rec.iTrace[i] * host.rec.iTrace[i];
    }
    EXPECT_EQ(peak, p - 16);
    for (int d = 1; d <= 16; ++d)
        EXPECT_NEAR(host.rec.iTrace[peak - d], host.rec.iTrace[peak + d], 1e-7) << d;
    EXPECT_EQ(host.rec.iTrace[peak - 17], 0.0);
    EXPECT_EQ(host.rec.iTrace[peak + 17], 0.0);
    EXPECT_NEAR(energy, 1.0, 1e-6);  // unit-energy root-raised-cosine taps (float)
}

}  // namespace
