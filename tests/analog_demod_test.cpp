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
    // Sum of the five trace counts, the shifted pairs counted once.
    uint32_t traceSamples() const {
        const DisplayData& d = host.rec;
        return d.envTraceLen + d.freqTraceLen + d.phaseTraceLen + d.iTraceLen +
               d.shiftedIQLen / 2;
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
    EXPECT_EQ(traceSamples(), 500u);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(CodesAndBounds, InPhase,
                         ::testing::Combine(::testing::Values(14u, 15u),
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

class ShortFiltered : public Analog, public ::testing::WithParamInterface<uint32_t> {};

// Filtered blocks of 32 samples or fewer leave nothing: the mode's own trace
// count and, for AM and FM, its figure are written as 0 over stale values.
TEST_P(ShortFiltered, BlocksOf32OrFewerGiveEmptyTracesAndZeroFigures) {
    const uint32_t mode = GetParam();
    DisplayData& d = host.rec;
    for (int n : {1, 32}) {
        d.amDepth = d.fmPeakDev = 5.0;
        d.envTraceLen = d.freqTraceLen = d.phaseTraceLen = d.iTraceLen = d.shiftedIQLen = 9;
        const auto x = ramp(n);
        ASSERT_EQ(inst.demodANALOG(x.data(), n, 48000, 12000, makeParam(0, mode), &d), 0);
        const uint32_t own = mode == MOD_ANALOG_AM      ? d.envTraceLen
                             : mode == MOD_ANALOG_FM    ? d.freqTraceLen
                             : mode == MOD_ANALOG_PM    ? d.phaseTraceLen
                             : mode == MOD_ANALOG_SHIFT ? d.shiftedIQLen
                                                        : d.iTraceLen;
        EXPECT_EQ(own, 0u) << n;
        const double depth = d.amDepth, dev = d.fmPeakDev;
        EXPECT_EQ(depth, mode == MOD_ANALOG_AM ? 0.0 : 5.0);
        EXPECT_EQ(dev, mode == MOD_ANALOG_FM ? 0.0 : 5.0);
    }
    ASSERT_EQ(run(ramp(33), mode, 48000, 12000), 0);  // one more sample than the taps
    EXPECT_EQ(traceSamples(), 1u);
    EXPECT_TRUE(host.intact());
}

INSTANTIATE_TEST_SUITE_P(Codes, ShortFiltered, ::testing::Values(10u, 11u, 12u, 13u, 14u));

TEST_F(Analog, RefusesOtherCodesAndBadArgumentsWithoutWriting) {
    const auto x = ramp(100);
    for (uint32_t mode : {0u, 4u, 9u, 16u, 99u}) {
        EXPECT_EQ(run(x, mode, 48000, 100), -1) << mode;
        EXPECT_EQ(run(x, mode, 48000, 12000), -1) << mode << " after the filter";
    }
    EXPECT_EQ(inst.demodANALOG(x.data(), 100, std::nan(""), 100,
                               makeParam(0, MOD_ANALOG_FM), &host.rec), -1);
    EXPECT_EQ(inst.demodANALOG(x.data(), 100, 48000, 0, makeParam(0, MOD_ANALOG_FM),
                               &host.rec), -1);
    EXPECT_EQ(traceSamples(), 0u);
    EXPECT_TRUE(host.intact());
}

}  // namespace
