// Receive filters and band-limited interpolation for the measurement mode.
#include <algorithm>
#include <cmath>

#include "measurement_dsp.h"

namespace vantrel::meas {

namespace {
constexpr double kPi = 3.141592653589793;

double sinc(double x) { return std::fabs(x) < 1e-12 ? 1.0 : std::sin(kPi * x) / (kPi * x); }

double kaiser(double x, double halfWidth, double beta) {
    const double r = x / halfWidth;
    if (std::fabs(r) >= 1.0) return 0.0;
    return bessel_i0(beta * std::sqrt(1.0 - r * r)) / bessel_i0(beta);
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

// Shape of the receive filter: its half span in symbols and its value at t
// symbols from the centre (not normalised).
struct ReceivePulse {
    int filterType;
    double beta, halfSpan, cutoff, aGauss;
    ReceivePulse(int type, double b, double sps, double maxHalfSpan)
        : filterType(type), beta(b) {
        switch (type) {
        case 1: halfSpan = 8.0; break;
        case 2: halfSpan = 8.0; break;
        case 3: halfSpan = 4.0; break;
        default: halfSpan = 0.5; break;
        }
        halfSpan = std::fmin(halfSpan, maxHalfSpan);
        cutoff = std::fmin(0.5 * (1.0 + beta) + 0.1, 0.5 * sps);  // in Rb
        aGauss = std::sqrt(std::log(2.0) / 2.0) / beta;
    }
    double operator()(double t) const {
        if (std::fabs(t) > halfSpan + 1e-9) return 0.0;
        switch (filterType) {
        case 1: return rootRaisedCosine(t, beta);
        case 2: return 2.0 * cutoff * sinc(2.0 * cutoff * t) * kaiser(t, halfSpan + 1e-9, 6.0);
        case 3: return std::exp(-(kPi * t / aGauss) * (kPi * t / aGauss));
        case 5: return std::fabs(t) <= 0.5 ? std::cos(kPi * t) : 0.0;
        default: return (t >= -0.5 && t < 0.5) ? 1.0 : 0.0;
        }
    }
};

WorkVec<double> receive_filter(int filterType, double beta, double sps, double maxHalfSpan) {
    const ReceivePulse pulse(filterType, beta, sps, maxHalfSpan);
    const int H = static_cast<int>(std::floor(pulse.halfSpan * sps));
    WorkVec<double> h(2 * static_cast<std::size_t>(H) + 1, 0.0);
    double sum = 0.0;
    for (int k = -H; k <= H; ++k) {
        const double v = pulse(double(k) / sps);
        h[static_cast<std::size_t>(k + H)] = v;
        sum += v;
    }
    if (sum != 0.0)
        for (double& v : h) v /= sum;
    return h;
}

FilterRef matched_interpolator(int filterType, double beta, double sps) {
    return cached_filter({1.0, double(filterType), beta, sps, 0.0},
                         [=] { return design_matched_interpolator(filterType, beta, sps); });
}

FractionalFilter design_matched_interpolator(int filterType, double beta, double sps) {
    const ReceivePulse pulse(filterType, beta, sps, 6.0);
    const int H = static_cast<int>(std::floor(pulse.halfSpan * sps));
    double sum = 0.0;
    for (int k = -H; k <= H; ++k) sum += pulse(double(k) / sps);
    const double scale = sum != 0.0 ? 1.0 / sum : 1.0;
    return FractionalFilter(H + 1, [&](double d) { return pulse(d / sps) * scale; });
}

namespace {

// The centred filter over samples of `lanes` doubles each (2 for complex,
// 1 for real): a real tap scales every lane alike, so the sums run over the
// interleaved doubles.
template <class T>
WorkVec<T> filterCentred(const WorkVec<T>& x, const WorkVec<double>& h) {
    constexpr std::size_t lanes = sizeof(T) / sizeof(double);
    const std::size_t n = x.size(), taps = h.size(), H = taps / 2;
    WorkVec<T> y(n, T(0.0));
    if (n == 0 || taps == 0) return y;
    const double* xd = reinterpret_cast<const double*>(x.data());
    double* yd = reinterpret_cast<double*>(y.data());
    // Outputs whose taps all fall inside the block read x in place; the few
    // near either end read a zero-padded copy of the first and last 2H.
    const std::size_t edge = std::min(n, 2 * H);
    WorkVec<double> head(lanes * (edge + 2 * H), 0.0), tail(lanes * (edge + 2 * H), 0.0);
    for (std::size_t i = 0; i < lanes * edge; ++i) {
        head[lanes * H + i] = xd[i];
        tail[lanes * H + i] = xd[lanes * (n - edge) + i];
    }
    auto run = [&](double* out, const double* in, std::size_t count) {
        // Four taps per sweep of a block of outputs (added in tap order, as
        // one tap per sweep would), so each output is loaded and stored a
        // quarter as often; blocks of 1024 outputs stay in cache.
        constexpr std::size_t kBlock = 1024;
        for (std::size_t b = 0; b < count; b += kBlock) {
            const std::size_t len = lanes * (std::min(count, b + kBlock) - b);
            double* __restrict o = out + lanes * b;
            std::size_t k = 0;
            for (; k + 4 <= taps; k += 4) {
                const double w0 = h[k], w1 = h[k + 1], w2 = h[k + 2], w3 = h[k + 3];
                const double* __restrict v = in + lanes * (b + k);
                for (std::size_t i = 0; i < len; ++i)
                    o[i] = (((o[i] + w0 * v[i]) + w1 * v[i + lanes]) + w2 * v[i + 2 * lanes]) +
                           w3 * v[i + 3 * lanes];
            }
            for (; k < taps; ++k) {
                const double w = h[k];
                const double* __restrict v = in + lanes * (b + k);
                for (std::size_t i = 0; i < len; ++i) o[i] += w * v[i];
            }
        }
    };
    if (n <= 2 * H) {
        // Short block: everything from the padded copy.
        WorkVec<double> padded(lanes * (n + 2 * H), 0.0);
        for (std::size_t i = 0; i < lanes * n; ++i) padded[lanes * H + i] = xd[i];
        run(yd, padded.data(), n);
        return y;
    }
    run(yd, head.data(), H);                                           // outputs 0 .. H-1
    run(yd + lanes * H, xd, n - 2 * H);                                // outputs H .. n-H-1
    run(yd + lanes * (n - H), tail.data() + lanes * (edge - H), H);    // outputs n-H .. n-1
    return y;
}

}  // namespace

WorkVec<cd> filter_centred(const WorkVec<cd>& x, const WorkVec<double>& h) {
    return filterCentred(x, h);
}

WorkVec<double> filter_centred(const WorkVec<double>& x, const WorkVec<double>& h) {
    return filterCentred(x, h);
}

namespace {
const FractionalFilter& symbolInterpolator() {
    static const FractionalFilter f(0.5, 16, 8.0);
    return f;
}
}  // namespace

cd interpolate_at(const WorkVec<cd>& x, double t) {
    return symbolInterpolator().at(x.data(), static_cast<long>(x.size()), t);
}
double interpolate_at(const WorkVec<double>& x, double t) {
    return symbolInterpolator().at(x.data(), static_cast<long>(x.size()), t);
}

}  // namespace vantrel::meas
