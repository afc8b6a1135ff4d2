// One-dimensional decisions, ASK level normalisation and envelope depth.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CommonFun.h"

namespace {

struct Sliced {
    std::vector<int> symbols, bits;
    std::vector<double> evm, magErr;
};

Sliced slice(const std::vector<double>& re, int M) {
    std::vector<Complex> x;
    for (double r : re) x.push_back(Complex{r, 0.0});
    const int n = static_cast<int>(x.size());
    Sliced s{std::vector<int>(n, -7), std::vector<int>(2 * n, -7), std::vector<double>(n, -7.0),
             std::vector<double>(n, -7.0)};
    CommonFun().symbolDecisionForSingle(x.data(), n, M, s.symbols.data(), s.bits.data(),
                                        s.evm.data(), s.magErr.data());
    return s;
}

// The four-level slicer around its boundaries: |r| = 2 is inner, r = 0 is
// positive. {r, symbol, sign bit, inner bit}
TEST(LevelDecisions, FourLevelBoundaries) {
    const struct { double r; int symbol, sign, inner; } cases[] = {
        {2.0, 3, 1, 1}, {-2.0, 2, 0, 1}, {2.0000001, 1, 1, 0}, {-2.0000001, 0, 0, 0},
        {0.0, 3, 1, 1}, {-1e-300, 2, 0, 1}};
    for (const auto& c : cases) {
        const Sliced s = slice({c.r}, 4);
        EXPECT_EQ(s.symbols[0], c.symbol) << c.r;
        EXPECT_EQ(s.bits[0], c.sign) << c.r;
        EXPECT_EQ(s.bits[1], c.inner) << c.r;
    }
}

// Errors are measured against each class's mean; the scale is the level
// spacing for two levels and the mean outer magnitude for four, and an empty
// four-level class sits at 2s - 3 (so class 1, although sliced at +3, defaults
// to -1). Errors here come in +-e pairs: evm = |magErr| = e.
TEST(LevelDecisions, ClassMeansScalesAndEmptyClassDefaults) {
    const struct { std::vector<double> re; int M; std::vector<double> magErr; } cases[] = {
        // refs -1, 1.1; S = 2.1
        {{-1.0, 1.0, 1.2}, 2, {0.0, -0.1 / 2.1 * 100, 0.1 / 2.1 * 100}},
        // refs -3, 3.25; S = (3 + 3.25) / 2
        {{-3.0, 3.0, 3.5}, 4, {0.0, -8.0, 8.0}},
        // only class 3 (mean 1.25): defaults -3 and -1 give S = 2
        {{1.0, 1.5}, 4, {-12.5, 12.5}},
        // only class 1 at two levels (mean 2.5): default -1 for class 0, S = 3.5
        {{2.0, 3.0}, 2, {-0.5 / 3.5 * 100, 0.5 / 3.5 * 100}}, };
    for (const auto& c : cases) {
        const Sliced s = slice(c.re, c.M);
        for (size_t i = 0; i < c.re.size(); ++i) {
            EXPECT_NEAR(s.evm[i], std::fabs(c.magErr[i]), 1e-9) << "M " << c.M << " i " << i;
            EXPECT_NEAR(s.magErr[i], c.magErr[i], 1e-9) << "M " << c.M << " i " << i;
        }
    }
    // Any other order writes nothing.
    const Sliced none = slice({1.0}, 8);
    EXPECT_EQ(none.symbols[0], -7);
    EXPECT_EQ(none.evm[0], -7.0);
}

// The ASK level estimate: only the last 800 symbols count, a threshold needs
// more than 49 values above it, the upper group wins a tie of magnitudes,
// and blocks of 800 or fewer are left as they are.
TEST(AskLevels, ScaleFromTheLast800Symbols) {
    const struct {
        const char* name;
        int n, highs;      // of the last 800, how many sit at `high` (rest at `low`)
        double low, high;
        double first;      // value of symbol 0 (outside the span when n = 801)
        double mappedHigh, mappedFirst;
    } cases[] = {
        {"800 left unscaled", 800, 400, 0.0, 2.0, 2.0, 2.0, 2.0},
        {"801 uses 1..800", 801, 400, 0.0, 2.0, 100.0, 1.0, 99.0},
        {"49 above: unit scale", 801, 49, 0.0, 2.0, 0.0, 3.0, -1.0},
        {"50 above: level found", 801, 50, 0.0, 2.0, 0.0, 1.0, -1.0},
        {"tie: upper group wins", 801, 400, -1.0, 1.0, -1.0, 1.0, -3.0}, };
    for (const auto& c : cases) {
        std::vector<Complex> x(c.n);
        x[0] = Complex{c.first, 0.5};
        for (int i = 1; i < c.n; ++i) {
            const int k = i - (c.n - 800);  // position in the last 800
            x[i] = Complex{k >= 0 && k < c.highs ? c.high : c.low, 0.5};
        }
        CommonFun().normalize_constellationForASK(x.data(), c.n, 2);
        EXPECT_DOUBLE_EQ(x[1].re, c.mappedHigh) << c.name;
        EXPECT_DOUBLE_EQ(x[0].re, c.mappedFirst) << c.name;
        EXPECT_EQ(x[1].im, c.n == 800 ? 0.5 : 0.0) << c.name;
    }
}

// Envelope depth: the means of the lowest and highest fifth (at least one
// value); a constant envelope has none.
TEST(AskLevels, EnvelopeDepth) {
    CommonFun cf;
    const std::vector<Complex> three = {{3.0, 0.0}, {0.0, 1.0}, {0.0, -2.0}};
    double depth = -1.0;
    std::vector<double> dev(3);
    cf.getAmp(three.data(), 3, dev.data(), depth);
    EXPECT_DOUBLE_EQ(depth, 2.0 / (4.0 + 1e-12));
    EXPECT_DOUBLE_EQ(dev[0], 0.5);
    EXPECT_DOUBLE_EQ(dev[1], -0.5);
    const std::vector<Complex> flat(100, Complex{0.6, 0.8});
    cf.getAmp(flat.data(), 100, nullptr, depth);
    EXPECT_NEAR(depth, 0.0, 1e-12);
}

}  // namespace
