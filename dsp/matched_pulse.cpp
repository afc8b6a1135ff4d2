// Receive filters and band-limited interpolation for the measurement mode.
#include <algorithm>
#include <cmath>

#include "measurement_dsp.h"

namespace vantrel::meas {

namespace {
constexpr double kPi = 3.141592653589793;

double sinc(double x) { return std::fabs(x) < 1e-12 ? 1.0 : std::sin(kPi * x) / (kPi * x); }

// Zeroth-order modified Bessel function, power series (converges for the
// Kaiser arguments used here, x <= 10).
double besselI0(double x) {
    double sum = 1.0, term = 1.0;
    const double q = 0.25 * x * x;
    for (int k = 1; k < 60; ++k) {
        term *= q / (double(k) * double(k));
        sum += term;
        if (term < 1e-17 * sum) break;
    }
    return sum;
}

double kaiser(double x, double halfWidth, double beta) {
    const double r = x / halfWidth;
    if (std::fabs(r) >= 1.0) return 0.0;
    return besselI0(beta * std::sqrt(1.0 - r * r)) / besselI0(beta);
}

// Root raised cosine p(t), t in symbols, with its two removable
// singularities (t = 0 and |t| = 1 / (4 beta)) written out.
double rootRaisedCosine(double t, double beta) {
    if (std::fabs(t) < 1e-12) return 1.0 - beta + 4.0 * beta / kPi;
    if (std::fabs(std::fabs(t) - 1.0 / (4.0 * beta)) < 1e-9) {
        return beta / std::sqrt(2.0) *
               ((1.0 + 2.0 / kPi) * std::sin(kPi / (4.0 * beta)) +
                (1.0 - 2.0 / kPi) * std::cos(kPi / (4.0 * beta)));
    }
    const double num = std::sin(kPi * t * (1.0 - beta)) +
                       4.0 * beta * t * std::cos(kPi * t * (1.0 + beta));
    const double den = kPi * t * (1.0 - 16.0 * beta * beta * t * t);
    return num / den;
}
}  // namespace

std::vector<double> receive_filter(int filterType, double beta, double sps) {
    double halfSpan = 0.5;  // symbols
    switch (filterType) {
    case 1: halfSpan = 8.0; break;
    case 2: halfSpan = 8.0; break;
    case 3: halfSpan = 4.0; break;
    default: halfSpan = 0.5; break;
    }
    const int H = static_cast<int>(std::floor(halfSpan * sps));
    std::vector<double> h(2 * static_cast<std::size_t>(H) + 1, 0.0);
    const double cutoff = std::fmin(0.5 * (1.0 + beta) + 0.1, 0.5 * sps);  // in Rb
    const double aGauss = std::sqrt(std::log(2.0) / 2.0) / beta;
    double sum = 0.0;
    for (int k = -H; k <= H; ++k) {
        const double t = double(k) / sps;  // symbols
        double v = 0.0;
        switch (filterType) {
        case 1: v = rootRaisedCosine(t, beta); break;
        case 2: v = 2.0 * cutoff * sinc(2.0 * cutoff * t) * kaiser(t, halfSpan + 1e-9, 6.0); break;
        case 3: v = std::exp(-(kPi * t / aGauss) * (kPi * t / aGauss)); break;
        case 5: v = std::fabs(t) <= 0.5 ? std::cos(kPi * t) : 0.0; break;
        default: v = (t >= -0.5 && t < 0.5) ? 1.0 : 0.0; break;
        }
        h[static_cast<std::size_t>(k + H)] = v;
        sum += v;
    }
    if (sum != 0.0)
        for (double& v : h) v /= sum;
    return h;
}

std::vector<cd> filter_centred(const std::vector<cd>& x, const std::vector<double>& h) {
    const long n = static_cast<long>(x.size());
    const long H = static_cast<long>(h.size() / 2);
    std::vector<cd> y(x.size(), cd(0.0, 0.0));
    for (long i = 0; i < n; ++i) {
        const long lo = std::max(0L, i - H), hi = std::min(n - 1, i + H);
        double re = 0.0, im = 0.0;
        for (long m = lo; m <= hi; ++m) {
            const double w = h[static_cast<std::size_t>(m - i + H)];
            re += w * x[static_cast<std::size_t>(m)].real();
            im += w * x[static_cast<std::size_t>(m)].imag();
        }
        y[static_cast<std::size_t>(i)] = cd(re, im);
    }
    return y;
}

namespace {
constexpr int kInterpHalf = 16;

template <class T>
T interpolateGeneric(const std::vector<T>& x, double t) {
    const long n = static_cast<long>(x.size());
    const double fl = std::floor(t);
    const long base = static_cast<long>(fl);
    const double frac = t - fl;
    T acc = T(0.0);
    if (frac == 0.0) return (base >= 0 && base < n) ? x[static_cast<std::size_t>(base)] : acc;
    for (long m = base - kInterpHalf + 1; m <= base + kInterpHalf; ++m) {
        if (m < 0 || m >= n) continue;
        const double d = t - double(m);
        acc += x[static_cast<std::size_t>(m)] * (sinc(d) * kaiser(d, kInterpHalf, 8.0));
    }
    return acc;
}
}  // namespace

cd interpolate_at(const std::vector<cd>& x, double t) { return interpolateGeneric(x, t); }
double interpolate_at(const std::vector<double>& x, double t) { return interpolateGeneric(x, t); }

}  // namespace vantrel::meas
