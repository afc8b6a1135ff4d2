// Every input the entry accepts, tried as a careless host would: every mode
// code (and a few that are not), every filter code, sample rates from 1 to 64
// samples per symbol, lengths at the limits, and non-finite rates and
// roll-offs. The host's arrays are sized exactly by the capacities the public
// header publishes and followed by guard values; each call must return a
// documented code, leave every guard and every array pointer untouched, and
// (under the sanitizer preset) do nothing undefined and leak nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

// A busy test block: a few tones plus pseudo-random noise, so that every
// stage of every chain has something to work on.
std::vector<int16_t> testBlock(size_t n, uint32_t seed, bool quadrature) {
    std::vector<int16_t> v(n);
    uint32_t s = seed;
    for (size_t k = 0; k < n; ++k) {
        s = s * 1664525u + 1013904223u;
        const double noise = static_cast<double>(s >> 8) / 16777216.0 - 0.5;
        const double t = static_cast<double>(k);
        const double tone = quadrature ? std::sin(0.031 * t) + 0.4 * std::sin(0.77 * t)
                                       : std::cos(0.031 * t) + 0.4 * std::cos(0.77 * t);
        v[k] = static_cast<int16_t>(std::lround(6000.0 * tone + 3000.0 * noise));
    }
    return v;
}

const std::vector<int16_t>& blockI() {
    static const std::vector<int16_t> b = testBlock(320001, 1, false);
    return b;
}
const std::vector<int16_t>& blockQ() {
    static const std::vector<int16_t> b = testBlock(320001, 2, true);
    return b;
}

bool isAnalog(int mode) { return mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B; }

// The outcome the entry's validation alone decides (0: the block goes on to
// the analysis chain), computed from the documented rules.
int validationOutcome(int mode, uint32_t inLen, double rb, double fsIn, double fsMin) {
    if (isAnalog(mode)) return (inLen < 16384 || inLen > 320000) ? -1 : 0;
    if (rb < 1e-6 || fsMin > fsIn) return -1;
    if (inLen < 16384 || inLen > 320000) return -1;
    const double r = fsIn / rb;
    if (r < 1 || r > 64) return -1;
    if (inLen < r * 2000) return 1;
    return 0;
}

struct Call {
    int mode;
    uint32_t filter;
    uint32_t inLen;
    double rb, fsIn, fsMin, rolloff;
};

std::string describe(const Call& c) {
    return "mode " + std::to_string(c.mode) + " filter " + std::to_string(c.filter) + " len " +
           std::to_string(c.inLen) + " Rb " + std::to_string(c.rb) + " fs " +
           std::to_string(c.fsIn) + " fsMin " + std::to_string(c.fsMin) + " rolloff " +
           std::to_string(c.rolloff);
}

void check(int handle, const Call& c) {
    HostRecord host(c.inLen, static_cast<uint32_t>(c.mode));
    ExParamOut p = makeParam(c.rb, static_cast<uint32_t>(c.mode), c.rolloff, c.filter);
    const int code = VantrelExcute(handle, blockI().data(), blockQ().data(), c.inLen, &p,
                                   false, false, &host.rec, c.fsMin, c.fsIn);
    const int validated = validationOutcome(c.mode, c.inLen, c.rb, c.fsIn, c.fsMin);
    const bool finiteRates = std::isfinite(c.fsIn) && (isAnalog(c.mode) || std::isfinite(c.rb));
    if (validated != 0) {
        EXPECT_EQ(code, validated) << describe(c);
    } else if (!finiteRates) {
        EXPECT_EQ(code, -1) << describe(c);
    } else if (isAnalog(c.mode)) {
        EXPECT_EQ(code, 0) << describe(c);
    } else {
        EXPECT_TRUE(code == 0 || code == -3) << code << ": " << describe(c);
    }
    ASSERT_TRUE(host.intact()) << describe(c);
}

const double kRatios[] = {1, 1.2, 1.5, 1.9, 2, 2.5, 3, 3.5, 3.9, 4, 5.5, 8, 10, 16, 64};

class Sweep : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { handle = VantrelObjCreatSelfEncode(); }
    void TearDown() override { VantrelObjRelease(handle); }
    int handle = -1;
};

// Every filter code at every ratio, on the shortest block the ratio allows,
// and the lengths around the limits.
TEST_P(Sweep, EveryFilterAndRatioAtTheLengthLimits) {
    const int mode = GetParam();
    const double rb = 1000.0;
    for (double r : kRatios) {
        const uint32_t shortest =
            std::max<uint32_t>(16384, static_cast<uint32_t>(std::ceil(2000 * r)));
        for (uint32_t filter = 0; filter <= 6; ++filter) {
            check(handle, {mode, filter, shortest, rb, r * rb, 0.0, 0.35});
        }
        // One sample short of 2000 symbols, and the absolute length limits.
        check(handle, {mode, 1, shortest - 1, rb, r * rb, 0.0, 0.35});
        check(handle, {mode, 1, 16383, rb, r * rb, 0.0, 0.35});
        check(handle, {mode, 1, 320001, rb, r * rb, 0.0, 0.35});
    }
    // The longest block, once per code.
    check(handle, {mode, 1, 320000, rb, 3.0 * rb, 0.0, 0.35});
}

// Non-finite rates and roll-offs pass the entry's ordered tests.
TEST_P(Sweep, NonFiniteRatesAndRolloffs) {
    const int mode = GetParam();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const uint32_t n = 20000;
    const Call calls[] = {
        {mode, 1, n, nan, 4000, 0, 0.35},   {mode, 1, n, 1000, nan, 0, 0.35},
        {mode, 1, n, 1000, 4000, nan, 0.35}, {mode, 1, n, inf, 4000, 0, 0.35},
        {mode, 1, n, 1000, inf, 0, 0.35},   {mode, 1, n, 1000, -inf, -inf, 0.35},
        {mode, 1, n, -inf, 4000, 0, 0.35},  {mode, 1, n, 1000, 4000, inf, 0.35},
        {mode, 1, n, 1000, 4000, 0, nan},   {mode, 2, n, 1000, 4000, 0, nan},
        {mode, 3, n, 1000, 4000, 0, nan},   {mode, 1, n, 1000, 3000, 0, nan},
        {mode, 1, n, 1000, 4000, 0, inf},   {mode, 3, n, 1000, 4000, 0, 1e308},
        {mode, 1, n, 1e300, 4e300, 0, 0.35}, {mode, 1, n, 1e-6, 4e-6, 0, 0.35},
    };
    for (const Call& c : calls) check(handle, c);
}

std::vector<int> sweepModes() {
    std::vector<int> modes = {-1};
    for (int m = 0; m <= 19; ++m) modes.push_back(m);
    return modes;
}

INSTANTIATE_TEST_SUITE_P(Modes, Sweep, ::testing::ValuesIn(sweepModes()),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param < 0 ? std::string("minus1")
                                                   : "code" + std::to_string(info.param);
                         });

}  // namespace
