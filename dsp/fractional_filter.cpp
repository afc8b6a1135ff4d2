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
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
    // Every tap is stored twice, (h, h): one aligned load then scales the
    // (re, im) pair of a complex sample.
    rows_.assign(std::size_t(kPhases + 1) * std::size_t(2 * width), 0.0);
    for (int p = 0; p <= kPhases; ++p) {
        const double frac = double(p) / kPhases;
        for (int i = 0; i < width; ++i) {
            const double h = kernel(frac + double(K_ - 1 - i));
            double* pair = rows_.data() + 2 * (std::size_t(p) * std::size_t(width) + std::size_t(i));
            pair[0] = h;
            pair[1] = h;
        }
    }
    // A sinc's zeros come out of the sine as about 1e-17 of the peak, not 0.
    double peak = 0.0;
    for (int i = 0; i < width; ++i) peak = std::max(peak, std::fabs(rows_[2 * std::size_t(i)]));
    for (int i = 0; i < width; ++i) {
        const double h = rows_[2 * std::size_t(i)];
        if (std::fabs(h) > 1e-14 * peak) {
            sampleOffsets_.push_back(i);
            sampleTaps_.push_back(h);
            sampleTaps_.push_back(h);
        }
    }
}

namespace {

// sum_i x[i] h[i] over `width` complex samples with four partial sums
// (taps i = 0, 1, 2, 3 mod 4), added as (s0 + s1) + (s2 + s3) at the end.
// A single running sum waits a full add latency per tap; four keep the
// adder busy. The association is fixed, so every machine gives the same
// bits, and the SSE2 form does exactly the operations of the plain one.
// `pairs` holds each tap twice (h0, h0, h1, h1, ...); `offset`, when given,
// picks the samples (x[offset[i]]), otherwise they are x[0 .. width-1].
template <bool kGathered>
cd dotPairs(const cd* x, const int* offset, const double* pairs, int width) {
    const double* xv = reinterpret_cast<const double*>(x);  // re, im, re, im, ...
    auto at = [offset](int i) { return 2 * (kGathered ? offset[i] : i); };
#if defined(__SSE2__)
    __m128d s0 = _mm_setzero_pd(), s1 = s0, s2 = s0, s3 = s0;
    int i = 0;
    for (; i + 4 <= width; i += 4) {
        s0 = _mm_add_pd(s0, _mm_mul_pd(_mm_loadu_pd(xv + at(i)), _mm_loadu_pd(pairs + 2 * i)));
        s1 = _mm_add_pd(s1, _mm_mul_pd(_mm_loadu_pd(xv + at(i + 1)), _mm_loadu_pd(pairs + 2 * i + 2)));
        s2 = _mm_add_pd(s2, _mm_mul_pd(_mm_loadu_pd(xv + at(i + 2)), _mm_loadu_pd(pairs + 2 * i + 4)));
        s3 = _mm_add_pd(s3, _mm_mul_pd(_mm_loadu_pd(xv + at(i + 3)), _mm_loadu_pd(pairs + 2 * i + 6)));
    }
    for (; i < width; ++i)
        s0 = _mm_add_pd(s0, _mm_mul_pd(_mm_loadu_pd(xv + at(i)), _mm_loadu_pd(pairs + 2 * i)));
    const __m128d s = _mm_add_pd(_mm_add_pd(s0, s1), _mm_add_pd(s2, s3));
    double out[2];
    _mm_storeu_pd(out, s);
    return cd(out[0], out[1]);
#else
    double re[4] = {0, 0, 0, 0}, im[4] = {0, 0, 0, 0};
    int i = 0;
    for (; i + 4 <= width; i += 4) {
        for (int l = 0; l < 4; ++l) {
            re[l] = re[l] + xv[at(i + l)] * pairs[2 * (i + l)];
            im[l] = im[l] + xv[at(i + l) + 1] * pairs[2 * (i + l)];
        }
    }
    for (; i < width; ++i) {
        re[0] = re[0] + xv[at(i)] * pairs[2 * i];
        im[0] = im[0] + xv[at(i) + 1] * pairs[2 * i];
    }
    return cd((re[0] + re[1]) + (re[2] + re[3]), (im[0] + im[1]) + (im[2] + im[3]));
#endif
}

cd dot_pairs(const cd* x, const int* offset, const double* pairs, int width) {
    return offset ? dotPairs<true>(x, offset, pairs, width) : dotPairs<false>(x, nullptr, pairs, width);
}

double dot_pairs(const double* x, const int*, const double* pairs, int width) {
    double s = 0.0;
    for (int i = 0; i < width; ++i) s += x[i] * pairs[2 * i];
    return s;
}

}  // namespace

template <class T>
T FractionalFilter::eval(const T* x, long n, double t) const {
    // Truncation is the floor for t >= 0 and needs no library call.
    const double fl = t >= 0.0 && t < 9.0e15 ? double(static_cast<long long>(t)) : std::floor(t);
    const long first = static_cast<long>(fl) - K_ + 1;
    const double pos = (t - fl) * kPhases;
    const int p = std::min(kPhases - 1, static_cast<int>(pos));
    const double w = pos - double(p);
    const int width = 2 * K_;
    const double* r0 = rows_.data() + 2 * std::size_t(p) * std::size_t(width);
    const double* r1 = r0 + 2 * width;
    // The taps of this position, blended between the two rows, then one
    // sum over the samples.
    double blended[2 * kMaxWidth];
    const double* taps = r0;  // a position on a table phase needs no blend
    if (w != 0.0) {
        for (int i = 0; i < 2 * width; ++i) blended[i] = r0[i] + (r1[i] - r0[i]) * w;
        taps = blended;
    }
    if (first >= 0 && first + width <= n) return dot_pairs(x + first, nullptr, taps, width);
    T s = T(0.0);
    for (int i = 0; i < width; ++i) {
        const long j = first + i;
        if (j < 0 || j >= n) continue;
        s += x[j] * taps[2 * i];
    }
    return s;
}

cd FractionalFilter::at(const cd* x, long n, double t) const { return eval(x, n, t); }

cd FractionalFilter::atSample(const cd* x, long n, long j) const {
    // Phase 0 of the table: the taps of a position on a sample.
    const long first = j - K_ + 1;
    const int width = 2 * K_;
    if (first >= 0 && first + width <= n)
        return dot_pairs(x + first, sampleOffsets_.data(), sampleTaps_.data(),
                         int(sampleOffsets_.size()));
    return eval(x, n, double(j));
}
double FractionalFilter::at(const double* x, long n, double t) const { return eval(x, n, t); }

FilterRef cached_filter(const FilterKey& key, const std::function<FractionalFilter()>& design) {
    // A handful of designs per thread, replaced oldest first: a host that
    // analyses block after block with the same settings builds each table
    // once (a table costs about as much as converting a whole block).
    // Keys compare bit for bit, so a NaN parameter still finds its entry.
    struct Entry {
        FilterKey key;
        FilterRef filter;
    };
    constexpr std::size_t kEntries = 8;
    thread_local std::vector<Entry> cache;
    thread_local std::size_t next = 0;
    for (const Entry& e : cache)
        if (std::memcmp(e.key.data(), key.data(), sizeof(double) * key.size()) == 0) return e.filter;
    FilterRef made = std::make_shared<const FractionalFilter>(design());
    if (cache.size() < kEntries) {
        cache.push_back({key, made});
    } else {
        cache[next] = {key, made};
        next = (next + 1) % kEntries;
    }
    return made;
}

FilterRef rate_filter(double spsIn, double spsOut, double bandEdge, double attenuationDb) {
    return cached_filter({0.0, spsIn, spsOut, bandEdge, attenuationDb},
                         [=] { return design_rate_filter(spsIn, spsOut, bandEdge, attenuationDb); });
}

FractionalFilter design_rate_filter(double spsIn, double spsOut, double bandEdge,
                                    double attenuationDb) {
    // Everything in symbol rates. The lower of the two rates bounds the band:
    // images (upsampling) or aliases (downsampling) of a component at f land
    // at lower - f, so the stopband starts where they would reach the band.
    const double lower = std::min(spsIn, spsOut);
    const double pass = std::min(bandEdge, 0.45 * lower);
    const double stop = std::max(lower - pass, pass + 0.1 * lower);
    const double cutoff = 0.5 * (pass + stop);
    // Kaiser's estimate for A dB: length (A - 7.95) / (14.36 df) in symbols,
    // df the transition width in symbol rates (beta below holds for A > 50).
    const double attenuation = std::max(50.0, attenuationDb);
    const double lengthSymbols = (attenuation - 7.95) / (14.36 * (stop - pass));
    const int halfTaps = static_cast<int>(std::ceil(0.5 * lengthSymbols * spsIn)) + 1;
    return FractionalFilter(cutoff / spsIn, halfTaps, 0.1102 * (attenuation - 8.7));
}

WorkVec<cd> convert_rate(const WorkVec<cd>& x, double step, const FractionalFilter& f) {
    const long n = static_cast<long>(x.size());
    const std::size_t count = static_cast<std::size_t>(std::floor(double(n - 1) / step)) + 1;
    WorkVec<cd> y(count);
    // A whole number of input samples per output (decimation by an integer)
    // puts every output on an input sample: a plain decimating FIR.
    const long whole = step >= 1.0 && step == std::floor(step) && step < 1e9 ? long(step) : 0;
    for (std::size_t m = 0; m < count; ++m)
        y[m] = whole > 0 ? f.atSample(x.data(), n, long(m) * whole) : f.at(x.data(), n, double(m) * step);
    return y;
}

}  // namespace vantrel::meas
