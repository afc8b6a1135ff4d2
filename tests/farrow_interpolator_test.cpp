// Cubic Farrow interpolator: output grid and exactness on cubics. Every call
// starts from a reset state (the front end is built afresh per call).
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "CommonFun.h"

namespace {

std::vector<Complex> run(CommonFun& cf, const std::vector<Complex>& in, double fsOut, double fsIn) {
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

}  // namespace
