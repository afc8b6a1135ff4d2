// Band-limited evaluation of a sampled signal between its samples, and rate
// conversion built on it (measurement mode).
//
// The kernel is a Kaiser-windowed sinc low-pass
//   h(d) = 2 fc sinc(2 fc d) I0(b sqrt(1 - (d/K)^2)) / I0(b),   |d| < K,
// with fc in cycles per input sample. It is tabulated once in polyphase
// layout: row p holds the 2K taps that weight x[j] for a position whose
// fractional part is p / kPhases, so an evaluation reads two neighbouring
// rows contiguously and blends them linearly. With 512 phases the blend
// adds an error below 1e-6 of the kernel's peak, far under the noise floor
// a measurement can reach.
#include <algorithm>
#include <cmath>

#include "measurement_dsp.h"

namespace vantrel::meas {

namespace {
constexpr double kPi = 3.141592653589793;
}  // namespace

double bessel_i0(double x) {
    double sum = 1.0, term = 1.0;
    const double q = 0.25 * x * x;
    for (int k = 1; k < 200; ++k) {
        term *= q / (double(k) * double(k));
        sum += term;
        if (term < 1e-17 * sum) break;
    }
    return sum;
}

FractionalFilter::FractionalFilter(double cutoff, int halfTaps, double kaiserBeta)
    : FractionalFilter(halfTaps, [cutoff, halfTaps, kaiserBeta](double d) {
          const double r = d / double(std::max(1, halfTaps));
          if (std::fabs(r) >= 1.0) return 0.0;
          const double arg = 2.0 * cutoff * d;
          const double sinc = std::fabs(arg) < 1e-12 ? 1.0 : std::sin(kPi * arg) / (kPi * arg);
          const double w = bessel_i0(kaiserBeta * std::sqrt(1.0 - r * r)) / bessel_i0(kaiserBeta);
          return 2.0 * cutoff * sinc * w;
      }) {}

FractionalFilter::FractionalFilter(int halfTaps, const std::function<double(double)>& kernel)
    : K_(std::min(kMaxWidth / 2, std::max(1, halfTaps))) {
    const int width = 2 * K_;
    rows_.assign(std::size_t(kPhases + 1) * std::size_t(width), 0.0);
    for (int p = 0; p <= kPhases; ++p) {
        const double frac = double(p) / kPhases;
        for (int i = 0; i < width; ++i)
            rows_[std::size_t(p) * std::size_t(width) + std::size_t(i)] =
                kernel(frac + double(K_ - 1 - i));
    }
}

template <class T>
T FractionalFilter::eval(const T* x, long n, double t) const {
    const double fl = std::floor(t);
    const long first = static_cast<long>(fl) - K_ + 1;
    const double pos = (t - fl) * kPhases;
    const int p = std::min(kPhases - 1, static_cast<int>(pos));
    const double w = pos - double(p);
    const int width = 2 * K_;
    const double* r0 = rows_.data() + std::size_t(p) * std::size_t(width);
    const double* r1 = r0 + width;
    // The taps of this position, blended between the two rows, then one
    // sum over the samples.
    double blended[kMaxWidth];
    const double* taps = r0;  // a position on a table phase needs no blend
    if (w != 0.0) {
        for (int i = 0; i < width; ++i) blended[i] = r0[i] + (r1[i] - r0[i]) * w;
        taps = blended;
    }
    T s = T(0.0);
    if (first >= 0 && first + width <= n) {
        const T* xs = x + first;
        for (int i = 0; i < width; ++i) s += xs[i] * taps[i];
    } else {
        for (int i = 0; i < width; ++i) {
            const long j = first + i;
            if (j < 0 || j >= n) continue;
            s += x[j] * taps[i];
        }
    }
    return s;
}

cd FractionalFilter::at(const cd* x, long n, double t) const { return eval(x, n, t); }
double FractionalFilter::at(const double* x, long n, double t) const { return eval(x, n, t); }

FractionalFilter rate_filter(double spsIn, double spsOut, double bandEdge) {
    // Everything in symbol rates. The lower of the two rates bounds the band:
    // images (upsampling) or aliases (downsampling) of a component at f land
    // at lower - f, so the stopband starts where they would reach the band.
    const double lower = std::min(spsIn, spsOut);
    const double pass = std::min(bandEdge, 0.45 * lower);
    const double stop = std::max(lower - pass, pass + 0.1 * lower);
    const double cutoff = 0.5 * (pass + stop);
    // Kaiser's estimate for 90 dB: length (A - 7.95) / (14.36 df) in symbols,
    // df the transition width in symbol rates.
    const double attenuation = 90.0;
    const double lengthSymbols = (attenuation - 7.95) / (14.36 * (stop - pass));
    const int halfTaps = static_cast<int>(std::ceil(0.5 * lengthSymbols * spsIn)) + 1;
    return FractionalFilter(cutoff / spsIn, halfTaps, 0.1102 * (attenuation - 8.7));
}

std::vector<cd> convert_rate(const std::vector<cd>& x, double step, const FractionalFilter& f) {
    const long n = static_cast<long>(x.size());
    const std::size_t count = static_cast<std::size_t>(std::floor(double(n - 1) / step)) + 1;
    std::vector<cd> y(count);
    for (std::size_t m = 0; m < count; ++m) y[m] = f.at(x.data(), n, double(m) * step);
    return y;
}

}  // namespace vantrel::meas
