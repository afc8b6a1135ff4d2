// FFT and spectrum shift.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "CommonFun.h"

namespace {

constexpr long double kPiL = 3.141592653589793238462643383279502884L;

// Direct DFT in extended precision, X[k] = sum_n x[n] exp(-j 2 pi k n / N),
// with each twiddle read from an exact table index k*n mod N.
std::vector<Complex> direct_dft(const std::vector<Complex>& x) {
    const size_t n = x.size();
    std::vector<Complex> out(n);
    for (size_t k = 0; k < n; ++k) {
        long double re = 0, im = 0;
        for (size_t i = 0; i < n; ++i) {
            const long double a = 2 * kPiL * ((k * i) % n) / n;
            re += x[i].re * std::cos(a) + x[i].im * std::sin(a);
            im += x[i].im * std::cos(a) - x[i].re * std::sin(a);
        }
        out[k] = Complex{static_cast<double>(re), static_cast<double>(im)};
    }
    return out;
}

// Catches a wrong twiddle sign, bit-reversal permutation or stage count.
TEST(Fft, RandomBlocksMatchTheDirectTransform) {
    for (int n : {1, 2, 8, 64, 1024}) {
        std::mt19937 rng(1234 + n);
        std::normal_distribution<double> g(0.0, 1000.0);
        std::vector<Complex> x(n);
        for (Complex& v : x) v = Complex{g(rng), g(rng)};
        const std::vector<Complex> ref = direct_dft(x);
        CommonFun().fft_radix2(x.data(), n);
        double err = 0, norm = 0;
        for (int k = 0; k < n; ++k) {
            err = std::max(err, std::hypot(x[k].re - ref[k].re, x[k].im - ref[k].im));
            norm = std::max(norm, std::hypot(ref[k].re, ref[k].im));
        }
        // Twiddle recurrences drift by a few ulps per stage; a real fault is
        // off by order 1.
        EXPECT_LT(err / norm, 1e-12) << "n = " << n;
    }
}

}  // namespace
