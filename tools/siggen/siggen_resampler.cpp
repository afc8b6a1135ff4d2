// Kaiser-windowed sinc interpolator (see siggen_resampler.h for the design).
#include "siggen_resampler.h"

#include <cmath>
#include <stdexcept>

#include "safe_convert.h"

namespace vantrel::siggen {

namespace {

constexpr double kPi = 3.141592653589793;

// Modified Bessel function of the first kind, order 0, by its power series
// sum ((x/2)^k / k!)^2, summed until the terms no longer change the total.
double besselI0(double x) {
    double sum = 1.0, term = 1.0;
    const double q = x * x / 4.0;
    for (int k = 1; k < 500; ++k) {
        term *= q / (double(k) * k);
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

}  // namespace

Resampler::Resampler(double step, double transition) : step_(step) {
    if (!(step >= 1.0 && step <= 64.0))
        throw std::invalid_argument("resampler step must lie in [1, 64]");
    if (!(transition >= 0.05 && transition <= 0.2))
        throw std::invalid_argument("resampler transition must lie in [0.05, 0.2]");
    // Kaiser's length estimate for 100 dB over a transition of
    // transition/step cycles per input sample: N = (A - 7.95) / (14.36 * df),
    // 32 * step for the usual 0.2.
    const double attenuation = 100.0;
    const double beta = 0.1102 * (attenuation - 8.7);
    K_ = static_cast<int>(std::ceil(3.2 * step / transition + 1.0));
    const double fc = 0.5 / step;
    const double i0beta = besselI0(beta);
    const int n = K_ * kPhases + 2;
    table_.assign(n, 0.0);
    for (int k = 0; k < n; ++k) {
        const double x = double(k) / kPhases;
        if (x > K_) continue;
        const double r = x / K_;
        const double w = besselI0(beta * std::sqrt(1.0 - r * r)) / i0beta;
        const double arg = 2.0 * fc * x;
        const double sinc = x == 0.0 ? 1.0 : std::sin(kPi * arg) / (kPi * arg);
        table_[k] = 2.0 * fc * sinc * w;
    }
}

double Resampler::kernel(double x) const {
    const double pos = std::fabs(x) * kPhases;
    if (pos >= double(K_) * kPhases) return 0.0;
    const int k = trunc_to_int(pos);
    const double frac = pos - k;
    return table_[k] + frac * (table_[k + 1] - table_[k]);
}

std::vector<std::complex<double>> Resampler::run(const std::vector<std::complex<double>>& in,
                                                 double start, std::size_t count) const {
    std::vector<std::complex<double>> out(count);
    const long n = static_cast<long>(in.size());
    for (std::size_t m = 0; m < count; ++m) {
        const double u = start + double(m) * step_;
        const long first = static_cast<long>(std::floor(u)) - K_ + 1;
        double re = 0.0, im = 0.0;
        for (long j = first; j < first + 2 * K_; ++j) {
            if (j < 0 || j >= n) continue;
            const double h = kernel(u - double(j));
            re += in[j].real() * h;
            im += in[j].imag() * h;
        }
        out[m] = {re, im};
    }
    return out;
}

}  // namespace vantrel::siggen
