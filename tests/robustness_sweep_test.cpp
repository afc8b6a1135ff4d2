// Every input the entry accepts, tried as a careless host would: every mode
// code (and a few that are not), every filter code, sample rates from 1 to 64
// samples per symbol and lengths at the limits. The host's arrays are sized exactly by the capacities the public
// header publishes and followed by guard values; each call must return a
// documented code, leave every guard and every array pointer untouched, and
// (under the sanitizer preset) do nothing undefined and leak nothing.
#include <gtest/gtest.h>

#include <cmath>
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

const std::vector<int16_t>& blockI() { static const auto b = testBlock(320001, 1, false); return b; }
const std::vector<int16_t>& blockQ() { static const auto b = testBlock(320001, 2, true); return b; }

struct Call {
    int mode;
    uint32_t filter;
    uint32_t inLen;
    double rb, fsIn, fsMin, rolloff;
};

void check(int handle, const Call& c) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << " filter " << c.filter << " len " << c.inLen
                                    << " Rb " << c.rb << " fs " << c.fsIn);
    HostRecord host(c.inLen, static_cast<uint32_t>(c.mode));
    ExParamOut p = makeParam(c.rb, static_cast<uint32_t>(c.mode), c.rolloff, c.filter);
    const int code = VantrelExcute(handle, blockI().data(), blockQ().data(), c.inLen, &p,
                                   false, false, &host.rec, c.fsMin, c.fsIn);
    // The entry's own rules are tested in entry_test; here any documented
    // code will do, as long as nothing is written past the capacities.
    EXPECT_TRUE(code == 0 || code == 1 || code == -1 || code == -3) << code;
    ASSERT_TRUE(host.intact());
}

const double kRatios[] = {1, 1.5, 2.5, 3.9, 4, 5.5, 10, 64};

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
