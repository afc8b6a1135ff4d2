// Cubic Farrow interpolator: output grid, exactness on cubics, streaming.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

std::vector<Complex> run(CommonFun& cf, const std::vector<Complex>& in, double fsOut,
                         double fsIn) {
    std::vector<Complex> out(4 * in.size() + 16);
    int len = -1;
    cf.FarrowInterp(in.data(), static_cast<int>(in.size()), fsOut, fsIn, out.data(), &len);
    out.resize(len);
    return out;
}

// Cubic Lagrange interpolation reproduces any cubic once all four neighbours
// are real samples, so the output at t = 1 + m * step must equal the
// polynomial there. Steps 1 and 2 check the grid (every / every other sample,
// stopping at x(N - 2)); the fractional steps check the four weights, which
// an integer step never exercises (mu = 0 leaves only the centre weight).
TEST(Farrow, InterpolatesACubicOnTheExpectedGrid) {
    auto p = [](double t) { return 0.002 * t * t * t - 0.3 * t * t + 2.0 * t - 5.0; };
    auto q = [](double t) { return -0.001 * t * t * t + 0.05 * t * t + 1.0; };
    const int n = 60;
    std::vector<Complex> x(n);
    for (int i = 1; i <= n; ++i) x[i - 1] = Complex{p(i), q(i)};
    // {step, outputs while floor(t) <= n - 2 = 58}
    const std::pair<double, size_t> cases[] = {{1.0, 58}, {2.0, 29}, {0.37, 157}, {2.5, 24}};
    for (const auto& [step, count] : cases) {
        CommonFun cf;
        const std::vector<Complex> y = run(cf, x, 1.0, step);
        ASSERT_EQ(y.size(), count) << "step " << step;
        for (size_t m = 0; m < y.size(); ++m) {
            const double t = 1.0 + m * step;
            if (t > 1.0 && t < 2.0) continue;  // left neighbour x(0) is silence
            ASSERT_NEAR(y[m].re, p(t), 1e-10) << "step " << step << " t " << t;
            ASSERT_NEAR(y[m].im, q(t), 1e-10) << "step " << step << " t " << t;
        }
    }
}

// Two calls on one state continue the grid of a single call on the joined
// block: no gap, no repeated sample, whether the split falls early or late.
TEST(Farrow, TwoCallsEqualOneCallOnTheJoinedBlock) {
    std::mt19937 rng(5);
    std::normal_distribution<double> g;
    std::vector<Complex> x(400);
    for (Complex& v : x) v = Complex{g(rng), g(rng)};
    // {fs_in, split point} at fs_out = 4
    const std::pair<double, int> cases[] = {{10.0, 201}, {7.3, 123}, {17.0, 3}, {4.0, 77}};
    for (const auto& [fsIn, at] : cases) {
        CommonFun whole, split;
        const std::vector<Complex> ref = run(whole, x, 4.0, fsIn);
        std::vector<Complex> y = run(split, {x.begin(), x.begin() + at}, 4.0, fsIn);
        const std::vector<Complex> y2 = run(split, {x.begin() + at, x.end()}, 4.0, fsIn);
        y.insert(y.end(), y2.begin(), y2.end());
        ASSERT_EQ(y.size(), ref.size()) << fsIn << " split " << at;
        for (size_t i = 0; i < y.size(); ++i) {
            // Only the rounding of the position (counted from another origin)
            // may differ.
            ASSERT_NEAR(y[i].re, ref[i].re, 1e-12) << fsIn << " split " << at << " " << i;
            ASSERT_NEAR(y[i].im, ref[i].im, 1e-12) << fsIn << " split " << at << " " << i;
        }
    }
}

}  // namespace
