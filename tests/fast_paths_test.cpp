// Fast routines against their plain versions, bit for bit, on random inputs.
// The plain versions are literal transcriptions of the straightforward loops
// the fast ones replaced; every comparison is on exact bits (EXPECT_EQ on the
// bytes, so that NaN payloads and signed zeros count too). The streaming
// timing loop is held bit for bit by the golden record, through every chain
// that times its symbols with it, and its block-edge bookkeeping by the
// timing tests.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "CommonFun.h"
#include "safe_convert.h"
#include "sorting.h"
#include "test_support.h"

namespace plain {

// Valid correlation, one output at a time.
void conv2(const Complex* x, int n, const float* h, int L, Complex* y, int* ylen) {
    if (L < 1 || n - L + 1 <= 0) {
        *ylen = 0;
        return;
    }
    const int count = n - L + 1;
    for (int i = 0; i < count; ++i) {
        Complex sum{0.0, 0.0};
        for (int j = 0; j < L; ++j) {
            sum.re += x[i + j].re * h[j];
            sum.im += x[i + j].im * h[j];
        }
        y[i] = sum;
    }
    *ylen = count;
}

// Radix-2 FFT with the twiddle advanced by complex multiplication in every
// block, and the Hamming window, as the chain formed them on every call.
void fft(Complex* x, int n) {
    int j = 0;
    for (int i = 0; i < n; ++i) {
        if (i < j) std::swap(x[i], x[j]);
        int m = n / 2;
        while (m >= 1 && j >= m) {
            j -= m;
            m /= 2;
        }
        j += m;
    }
    CommonFun cf;
    for (int len = 2; len <= n; len *= 2) {
        const Complex w = Complex_exp_j(-6.283185307179586 / len);
        const int half = len / 2;
        for (int start = 0; start < n; start += len) {
            Complex wk{1.0, 0.0};
            for (int k = 0; k < half; ++k) {
                const Complex u = x[start + k];
                const Complex t = cf.Complex_mul(x[start + k + half], wk);
                x[start + k] = Complex_add(u, t);
                x[start + k + half] = Complex_sub(u, t);
                wk = cf.Complex_mul(wk, w);
            }
        }
    }
}

// The FSK equaliser with its whole tap history, 9 x (n + 1) values, as it
// was first written.
void mcmaFsk(const Complex* in, int n, double mu, Complex* out) {
    if (n < 0) return;
    const int taps = 9;
    const std::int64_t slots = static_cast<std::int64_t>(n) + 1;
    std::vector<Complex> w(static_cast<size_t>(taps * slots), Complex{0.0, 0.0});
    if (8 < slots) w[8 * taps + 4] = Complex{1.0, 0.0};
    for (int i = 0; i < n; ++i) out[i] = in[i];
    Complex x[9];
    for (std::int64_t t = 9; t <= n; ++t) {
        const Complex* prev = w.data() + (t - 1) * taps;
        Complex* next = w.data() + t * taps;
        for (int j = 0; j < taps; ++j) x[j] = in[t - 1 - j];
        Complex y{0.0, 0.0};
        for (int j = 0; j < taps; ++j) y = Complex_add(y, CommonFun().Complex_mul(x[j], prev[j]));
        out[t - 1] = y;
        const double r = Complex_abs2(y);
        const double R = r >= 4.0 ? 9.0 : 1.0;
        const Complex g = Complex_scalar_mul(y, (R - r) / R);
        for (int j = 0; j < taps; ++j) {
            const Complex step =
                Complex_scalar_mul(CommonFun().Complex_mul(Complex_conj(x[j]), g), mu);
            next[j] = Complex_add(prev[j], step);
        }
        double norm2 = 0.0;
        for (int j = 0; j < taps; ++j) norm2 += Complex_abs2(next[j]);
        const double s = std::sqrt(norm2);
        if (s > 1e-12)
            for (int j = 0; j < taps; ++j) next[j] = complex_div_real(next[j], s);
    }
}

// The eye trace by scattering every nonzero symbol value through the
// 33-tap filter into a block-length array (taps copied from the library).
void eye(const Complex* in, int n, int scale, double* out, int* len) {
    static const double h[33] = {
        -0.0, -0.001631969083967, -0.001312840904288, 0.00059465793684, -0.0,
        -0.005022174366379, -0.00902315597244, -0.005359314112772, -0.0, -0.012154412643025,
        -0.048354861493334, -0.070341634758917, 0.0, 0.220851293758382, 0.557957384322318,
        0.87280673827055, 1.001980578094065, 0.87280673827055, 0.557957384322318,
        0.220851293758382, 0.0, -0.070341634758917, -0.048354861493334, -0.012154412643025,
        -0.0, -0.005359314112772, -0.00902315597244, -0.005022174366379, -0.0, 0.00059465793684,
        -0.001312840904288, -0.001631969083967, -0.0};
    if (n <= 0 || scale < 1 || *len <= 0) {
        *len = 0;
        return;
    }
    std::vector<double> y(static_cast<size_t>(4 * n + 32), 0.0);
    for (int i = 0; i < n; ++i) {
        const double value = in[i].re;
        if (value == 0.0) continue;
        for (int t = 0; t < 33; ++t) y[4 * i + t] += value * h[t];
    }
    std::int64_t m = 4 * static_cast<std::int64_t>(n) - 16;
    if (m > *len) m = *len;
    if (m < 0) m = 0;
    for (std::int64_t k = 0; k < m; ++k) out[k] = y[16 + k] / scale;
    *len = static_cast<int>(m);
}

// The cubic interpolator's loop, one weight computation and one position
// per output, on the state fields of a CommonFun (fresh or continued).
void farrow(CommonFun& st, const Complex* in, int n, double fs_out, double fs_in, Complex* out,
            int* out_len) {
    const double step = fs_in / fs_out;
    std::vector<Complex> ext;
    const Complex* x = in;
    int N = n, k = 1;
    double mu = 0.0;
    if (st.farrowInitialised) {
        N = n + 3;
        ext.assign(st.farrowHistory, st.farrowHistory + 3);
        ext.insert(ext.end(), in, in + n);
        x = ext.data();
        k = st.farrowNextIndex;
        mu = st.farrowMu;
    }
    auto at = [&](int i) { return i >= 1 ? x[i - 1] : Complex{0.0, 0.0}; };
    const int k0 = k;
    const double mu0 = mu;
    int m = 0;
    while (k >= 1 && k <= N - 2 && m < INT32_MAX) {
        const double mu2 = mu * mu, mu3 = mu2 * mu;
        const double wa = -0.16666666666666666 * mu3 + 0.5 * mu2 - 0.3333333333333333 * mu;
        const double wb = 0.5 * mu3 - mu2 - 0.5 * mu + 1.0;
        const double wc = -0.5 * mu3 + 0.5 * mu2 + mu;
        const double wd = 0.16666666666666666 * mu3 - 0.16666666666666666 * mu;
        const Complex a = at(k - 1), b = at(k), c = at(k + 1), d = at(k + 2);
        out[m] = Complex{wa * a.re + wb * b.re + wc * c.re + wd * d.re,
                         wa * a.im + wb * b.im + wc * c.im + wd * d.im};
        m += 1;
        const double t = m * step + mu0 + k0;
        if (std::isnan(t)) break;
        k = floor_to_int(t);
        mu = t - k;
    }
    for (int h = 0; h < 3; ++h) st.farrowHistory[h] = N < 3 ? Complex{0.0, 0.0} : x[N - 3 + h];
    st.farrowNextIndex = saturate_cast<int>(static_cast<double>(static_cast<std::int64_t>(k) + 3 - N));
    st.farrowMu = mu;
    st.farrowInitialised = 1;
    *out_len = m;
}

}  // namespace plain

namespace {

template <class T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

std::vector<Complex> randomBlock(std::mt19937& rng, int n, double scale) {
    std::normal_distribution<double> g(0.0, scale);
    std::vector<Complex> x(static_cast<size_t>(n));
    for (Complex& v : x) v = Complex{g(rng), g(rng)};
    return x;
}

// Every output count around the eight- and sixteen-wide blocks, filters of 1 to 97 taps,
// and the in-place form the matched filter may use.
TEST(FastPaths, Conv2MatchesPlainLoop) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int L : {1, 2, 7, 8, 9, 25, 49, 97}) {
        for (int count : {1, 3, 7, 8, 9, 15, 16, 17, 24, 31, 33, 64, 1001}) {
            const int n = count + L - 1;
            std::vector<float> h(static_cast<size_t>(L));
            for (float& v : h) v = u(rng);
            std::vector<Complex> x = randomBlock(rng, n, 1000.0), want(x.size()), got(x.size());
            int wl = -1, gl = -1;
            plain::conv2(x.data(), n, h.data(), L, want.data(), &wl);
            CommonFun().conv2_complex(x.data(), n, h.data(), L, got.data(), &gl);
            ASSERT_EQ(gl, wl);
            EXPECT_TRUE(sameBits(got, want)) << "L " << L << " count " << count;
            CommonFun().conv2_complex(x.data(), n, h.data(), L, x.data(), &gl);  // in place
            x.resize(static_cast<size_t>(count));
            want.resize(static_cast<size_t>(count));
            EXPECT_TRUE(sameBits(x, want)) << "in place, L " << L << " count " << count;
        }
    }
}

// The real correlation against the plain complex loop on {x, +0}: output
// counts around the 16- and 32-wide blocks, filters of 1 to 97 taps, zeros,
// infinities and NaN in x. Then the real matched filter against the complex
// one on a frequency-like trace, for finite taps (RRC, Gaussian, rectangle)
// and for the NaN taps of a NaN roll-off, which take the complex form.
TEST(FastPaths, RealCorrelationMatchesComplexForm) {
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::normal_distribution<double> g(0.0, 0.5);
    for (int L : {1, 2, 9, 33, 97}) {
        for (int count : {1, 15, 16, 17, 31, 32, 33, 48, 63, 65, 1001}) {
            const int n = count + L - 1;
            std::vector<float> h(static_cast<size_t>(L));
            for (float& v : h) v = u(rng);
            std::vector<double> x(static_cast<size_t>(n));
            for (double& v : x) v = g(rng);
            if (n > 8) x[1] = 0.0, x[2] = -0.0, x[n / 2] = -1e300;
            std::vector<Complex> xc(x.size()), want(x.size()), got(x.size(), Complex{5.0, 5.0});
            for (int i = 0; i < n; ++i) xc[i] = Complex{x[i], 0.0};
            int wl = -1, gl = -1;
            plain::conv2(xc.data(), n, h.data(), L, want.data(), &wl);
            CommonFun().conv2_real(x.data(), n, h.data(), L, got.data(), &gl);
            ASSERT_EQ(gl, wl);
            got.resize(static_cast<size_t>(count));
            want.resize(static_cast<size_t>(count));
            EXPECT_TRUE(sameBits(got, want)) << "L " << L << " count " << count;
        }
    }
    const int n = 3000;
    std::vector<double> trace(n);
    for (double& v : trace) v = g(rng);
    trace[100] = std::numeric_limits<double>::infinity();
    trace[200] = std::nan("");
    std::vector<Complex> asComplex(n);
    for (int i = 0; i < n; ++i) asComplex[i] = Complex{trace[i], 0.0};
    struct Filter { std::uint32_t type; double beta; };
    for (const Filter f : {Filter{FILTER_RRC, 0.35}, Filter{FILTER_GAUSS, 0.5},
                           Filter{FILTER_RECT, 0.0}, Filter{FILTER_RRC, std::nan("")}}) {
        for (double sps : {4.0, 8.0}) {
            ExParamOut p{};
            p.Rb = 25000;
            p.rolloff = f.beta;
            p.filterType = f.type;
            std::vector<Complex> want(n), got(n);
            int wl = -1, gl = -1;
            CommonFun a, b;
            a.matchFilter(asComplex.data(), n, sps * p.Rb, p, want.data(), wl);
            b.matchFilterReal(trace.data(), n, sps * p.Rb, p, got.data(), gl);
            ASSERT_EQ(gl, wl);
            ASSERT_GT(gl, 0);
            want.resize(static_cast<size_t>(wl));
            got.resize(static_cast<size_t>(gl));
            EXPECT_TRUE(sameBits(got, want)) << "filter " << f.type << " sps " << sps;
            EXPECT_EQ(a.mfHistLen, b.mfHistLen);
            EXPECT_EQ(a.mfFilterLen, b.mfFilterLen);
        }
    }
}

// Mixer and whole-step interpolator in one pass against the two stages run in
// turn, as the front end runs them (interpolated samples copied over the start
// of the mixed block): outputs, the mixed samples up to `keep`, the count and
// both stages' state. Zero samples force the full weighted sum; an infinite
// phase step makes every sample NaN.
TEST(FastPaths, MixAndWholeStepInterpolationMatchTwoStages) {
    std::mt19937 rng(13);
    std::uniform_int_distribution<int> u(-32768, 32767);
    for (int factor : {1, 2, 3, 4, 8, 16}) {
        for (int n : {1, 2, 3, 4, 5, 18, 1001, 4099}) {
            for (int variant = 0; variant < 4; ++variant) {
                const double fsOut = variant == 3 ? 1e-305 : 1e5;
                const double fs = fsOut * factor;
                ASSERT_EQ(fs / fsOut, factor);
                const int df = variant == 0 ? 0 : (variant == 1 ? 1234 : -310);
                const int keep = (n / factor + n) / 2 + variant;
                std::vector<short> I(static_cast<size_t>(n)), Q(I.size());
                for (int i = 0; i < n; ++i) {
                    I[i] = static_cast<short>(i % 5 == 2 ? 0 : u(rng));
                    Q[i] = static_cast<short>(i % 7 == 3 ? 0 : u(rng));
                }
                CommonFun ref, fast;
                ref.mixerPhase = fast.mixerPhase = variant == 2 ? 12345.678 : 0.0;
                std::vector<Complex> want(I.size() + 1), spare(want.size()), got(want.size());
                ref.correctDF(I.data(), Q.data(), n, fs, df, want.data());
                int wl = -1, gl = -1;
                ref.FarrowInterp(want.data(), n, fsOut, fs, spare.data(), &wl);
                std::copy(spare.begin(), spare.begin() + wl, want.begin());
                fast.correctDFDecimated(I.data(), Q.data(), n, fs, df, factor, keep, got.data(),
                                        &gl);
                ASSERT_EQ(gl, wl) << factor << " " << n;
                const size_t upTo = static_cast<size_t>(std::max(wl, std::min(keep, n)));
                EXPECT_EQ(std::memcmp(got.data(), want.data(), upTo * sizeof(Complex)), 0)
                    << "factor " << factor << " n " << n << " variant " << variant;
                EXPECT_EQ(std::memcmp(fast.farrowHistory, ref.farrowHistory,
                                      sizeof ref.farrowHistory), 0);
                const double fd[] = {fast.mixerPhase, fast.farrowMu};
                const double rd[] = {ref.mixerPhase, ref.farrowMu};
                EXPECT_EQ(std::memcmp(fd, rd, sizeof fd), 0) << factor << " " << n;
                EXPECT_EQ(fast.farrowNextIndex, ref.farrowNextIndex);
                EXPECT_EQ(fast.farrowInitialised, ref.farrowInitialised);
            }
        }
    }
}

// The I/Q sums formed in integers against the double running sums, at full
// scale (the largest terms) and on random samples.
TEST(FastPaths, IqFiguresMatchDoubleSums) {
    std::mt19937 rng(17);
    std::uniform_int_distribution<int> u(-32768, 32767);
    for (int n : {1, 3, 1000, 320000}) {
        for (int variant = 0; variant < 2; ++variant) {
            std::vector<int16_t> I(static_cast<size_t>(n)), Q(I.size());
            for (int k = 0; k < n; ++k) {
                I[k] = static_cast<int16_t>(variant == 0 ? -32768 : u(rng));
                Q[k] = static_cast<int16_t>(variant == 0 ? (k % 3 ? -32768 : 32767) : u(rng));
            }
            double sI = 0.0, sQ = 0.0, sII = 0.0, sQQ = 0.0, sIQ = 0.0;
            for (int k = 0; k < n; ++k) {
                const int32_t i = I[k], q = Q[k];
                sI += i;
                sQ += q;
                sII += static_cast<double>(i * i);
                sQQ += static_cast<double>(q * q);
                sIQ += static_cast<double>(i * q);
            }
            const double mI = sI / n, mQ = sQ / n, rI = std::sqrt(sII / n),
                         rQ = std::sqrt(sQQ / n);
            const double x = std::min(1.0, std::max(-1.0, (sIQ / n) / (rI * rQ)));
            const double want[] = {std::sqrt(mI * mI + mQ * mQ), rI / rQ, std::asin(x)};
            DisplayData d{};
            CommonFun().calcIQParams(I.data(), Q.data(), n, &d);
            const double got[] = {d.iqOffset, d.iqGainRatio, d.quadError};
            EXPECT_EQ(std::memcmp(got, want, sizeof want), 0) << n << " " << variant;
        }
    }
}

// The remainder by 2 pi against libm's fmod: random angles within two periods
// and far beyond, the period's multiples and their neighbours, zeros,
// infinities and NaN.
TEST(FastPaths, RemainderByTwoPiMatchesFmod) {
    const double P = 6.283185307179586;
    std::vector<double> xs = {0.0, -0.0, P, -P, 2 * P, -2 * P, 3 * P, 1e300, -1e-310,
                              std::numeric_limits<double>::infinity(),
                              -std::numeric_limits<double>::infinity(), std::nan("")};
    for (double m : {P, 2 * P, 4 * P}) {
        for (double x : {std::nextafter(m, 0.0), std::nextafter(m, 1e9)}) {
            xs.push_back(x);
            xs.push_back(-x);
        }
    }
    std::mt19937_64 rng(19);
    std::uniform_real_distribution<double> near(-4.5 * P, 4.5 * P), far(-1e6, 1e6);
    for (int i = 0; i < 200000; ++i) xs.push_back(i % 2 ? near(rng) : far(rng));
    for (double x : xs) {
        const double want = std::fmod(x, P), got = fmod_two_pi(x);
        ASSERT_EQ(std::memcmp(&got, &want, 8), 0) << x;
    }
}

// The tabled, paired FFT against the recursion in every block, on noise, on
// int16-scale samples and with infinities and NaN in the input; the kept
// window against a fresh one.
TEST(FastPaths, FftMatchesPlainRecursion) {
    std::mt19937 rng(23);
    for (int variant = 0; variant < 3; ++variant) {
        std::vector<Complex> x = randomBlock(rng, 16384, variant == 1 ? 30000.0 : 1.0);
        if (variant == 2) {
            x[5].re = std::numeric_limits<double>::infinity();
            x[900].im = std::nan("");
            x[16000] = Complex{-std::numeric_limits<double>::infinity(), 0.0};
        }
        std::vector<Complex> want = x;
        plain::fft(want.data(), 16384);
        CommonFun().fft_radix2(x.data(), 16384);
        EXPECT_TRUE(sameBits(x, want)) << "variant " << variant;
    }
    std::vector<double> w(16384);
    hamming_window(w.data(), 16384);
    EXPECT_EQ(std::memcmp(w.data(), hamming_window_16384(), sizeof(double) * 16384), 0);
}

// normStar's selection of the largest magnitudes against the full qsort, for
// the PSK rule (all magnitudes) and every QAM order's share and outer radius, with ties, odd lengths,
// and NaN (which keeps the qsort).
TEST(FastPaths, NormStarMatchesFullSort) {
    std::mt19937 rng(5);
    for (uint32_t mode : {MOD_QPSK, MOD_16QAM, MOD_64QAM, MOD_128QAM, MOD_256QAM, MOD_32QAM}) {
        for (int n : {1, 2, 3, 17, 64, 1001, 40000}) {
            for (int variant = 0; variant < 3; ++variant) {
                std::vector<Complex> x = randomBlock(rng, n, 3.0);
                if (variant == 1)  // ties: a coarse grid of points
                    for (Complex& v : x) v = Complex{std::round(v.re), std::round(v.im)};
                if (variant == 2) x[static_cast<size_t>(n / 2)].re = std::nan("");
                std::vector<Complex> got(x.size()), want(x.size());
                CommonFun().normStar(x.data(), n, makeParam(0.0, mode), got.data());
                // Plain: magnitudes, full qsort, mean of the largest count.
                std::vector<double> mag(x.size());
                for (int i = 0; i < n; ++i) mag[i] = Complex_abs(x[i]);
                std::qsort(mag.data(), mag.size(), sizeof(double), cmp_asc);
                const double fraction = mode == MOD_QPSK ? 1.0
                                        : mode == MOD_16QAM || mode == MOD_32QAM ? 0.25
                                        : mode == MOD_64QAM || mode == MOD_128QAM ? 0.0625 : 0.015625;
                const double radius = mode == MOD_QPSK ? 1.0 : mode == MOD_16QAM ? 4.242640687119285
                                      : mode == MOD_64QAM ? 9.899494936611665
                                      : mode == MOD_128QAM ? 13.0384
                                      : mode == MOD_256QAM ? 21.2132 : 5.831;
                const int count = std::clamp(trunc_to_int(n * fraction), 1, n);
                double sum = 0.0;
                for (int i = n - count; i < n; ++i) sum += mag[i];
                const double m = sum / count;
                for (int i = 0; i < n; ++i)
                    want[i] = m > 1e-10 ? Complex_scalar_mul(x[i], radius / m) : x[i];
                EXPECT_TRUE(sameBits(got, want)) << "mode " << mode << " n " << n << " v " << variant;
            }
        }
    }
}

// The radix sort against std::sort on mixed signs, ties, infinities and
// subnormals at lengths around its byte passes; a NaN or a -0 is refused and
// the array left as it was. The selections of one or both tails against the
// ends of the full sort.
TEST(FastPaths, RadixSortMatchesComparisonSort) {
    std::mt19937 rng(3);
    std::normal_distribution<double> g(0.0, 1e3);
    for (int n : {1, 2, 5, 255, 256, 257, 10001}) {
        for (int variant = 0; variant < 3; ++variant) {
            std::vector<double> v(static_cast<size_t>(n));
            for (double& x : v) x = variant == 1 ? std::round(g(rng) / 200) : g(rng);
            if (variant == 2 && n > 4) {
                const double inf = std::numeric_limits<double>::infinity();
                const double tiny = std::numeric_limits<double>::denorm_min();
                v[0] = inf, v[1] = -inf, v[2] = tiny, v[3] = -tiny, v[4] = 0.0;
            }
            for (double& x : v) if (x == 0.0) x = 0.0;  // no -0 here
            std::vector<double> want = v;
            std::sort(want.begin(), want.end());
            ASSERT_TRUE(radix_sort_doubles(v.data(), n));
            EXPECT_TRUE(sameBits(v, want)) << "n " << n << " variant " << variant;
        }
    }
    for (double odd : {std::nan(""), -0.0}) {
        std::vector<double> v = {3.0, odd, 1.0, 2.0};
        const std::vector<double> before = v;
        EXPECT_FALSE(radix_sort_doubles(v.data(), 4));
        EXPECT_FALSE(sort_both_tails(v.data(), 4, 1));
        EXPECT_FALSE(sort_upper_tail(v.data(), 4, 1));
        EXPECT_TRUE(sameBits(v, before));
    }
    // Both tails of a selection against the ends of a full sort.
    for (int n : {2, 5, 100, 10001}) {
        std::vector<double> v(static_cast<size_t>(n));
        for (double& x : v) x = std::round(g(rng) / 50) + 0.0;  // ties, no -0
        std::vector<double> want = v;
        std::sort(want.begin(), want.end());
        const int k = std::max(1, n / 5);
        std::vector<double> u = v;
        std::vector<std::uint64_t> keys(static_cast<size_t>(k));
        ASSERT_TRUE(sort_both_tails(v.data(), n, k, n > 5 ? keys.data() : nullptr));
        EXPECT_EQ(std::memcmp(v.data(), want.data(), 8 * k), 0) << n;
        EXPECT_EQ(std::memcmp(&v[n - k], &want[n - k], 8 * k), 0) << n;
        // The upper tail alone, its keys in the caller's scratch or its own,
        // for one value, a share, and the whole array.
        for (const int top : {1, std::max(1, n / 8), n}) {
            std::vector<double> w = u;
            std::vector<std::uint64_t> room(static_cast<size_t>(top));
            ASSERT_TRUE(sort_upper_tail(w.data(), n, top, top > 1 ? room.data() : nullptr));
            EXPECT_EQ(std::memcmp(&w[n - top], &want[n - top], 8 * top), 0) << n << " " << top;
        }
    }
}

// The FSK equaliser keeping two tap sets against the full history: noisy
// four-level streams (both rings, the taps moving all the time), lengths
// around the eight unequalised outputs, and a stream with a zero run (the
// norm floor) and a NaN.
TEST(FastPaths, FskEqualiserMatchesFullTapHistory) {
    std::mt19937 rng(11);
    std::normal_distribution<double> g(0.0, 0.3);
    const double levels[4] = {-3.0, -1.0, 1.0, 3.0};
    for (int n : {0, 1, 8, 9, 10, 17, 5000}) {
        for (int variant = 0; variant < 2; ++variant) {
            std::vector<Complex> in(static_cast<size_t>(n));
            for (Complex& x : in) x = Complex{levels[rng() % 4] + g(rng), g(rng)};
            if (variant == 1 && n > 40) {
                for (int i = 10; i < 30; ++i) in[i] = Complex{0.0, 0.0};
                in[n - 5].re = std::nan("");
            }
            std::vector<Complex> want(in.size() + 1, Complex{-7.0, 7.0}), got = want;
            plain::mcmaFsk(in.data(), n, 0.005, want.data());
            CommonFun().mcma_equalizeFORfsk(in.data(), n, 9, 0.005, got.data());
            EXPECT_TRUE(sameBits(got, want)) << "n " << n << " variant " << variant;
        }
    }
}

// The eye formed output by output against the scatter into a full array:
// short and long blocks, every scale the chains use, capacities below and
// above 4n - 16, and zeros, signed zeros, infinities and NaN among the
// symbols (an infinite value meets the filter's zero taps).
TEST(FastPaths, EyeMatchesScatteredFilter) {
    std::mt19937 rng(5);
    std::normal_distribution<double> g(0.0, 1.0);
    for (int n : {1, 2, 4, 5, 9, 800, 5000}) {
        std::vector<Complex> in = randomBlock(rng, n, 1.0);
        for (int i = 0; i < n; i += 7) in[i].re = i % 2 ? 0.0 : -0.0;
        if (n > 100) {
            in[50].re = std::numeric_limits<double>::infinity();
            in[90].re = std::nan("");
        }
        for (int scale : {1, 2, 3}) {
            for (int cap : {4 * n, 4 * n - 16, 4 * n - 17, 3}) {
                std::vector<double> want(static_cast<size_t>(4 * n), -5.0), got = want;
                int wl = cap, gl = cap;
                plain::eye(in.data(), n, scale, want.data(), &wl);
                CommonFun().getEye(in.data(), n, scale, got.data(), &gl);
                ASSERT_EQ(gl, wl);
                EXPECT_TRUE(sameBits(got, want)) << "n " << n << " scale " << scale << " cap " << cap;
            }
        }
    }
}

// The interpolator on whole steps (weights formed once, positions counted)
// against the plain loop: steps of 1 to 4 input samples, zero, signed-zero,
// infinite and NaN samples, real blocks with +0 imaginary parts, and a
// second block continuing the first (the stored position and mu, then a
// fractional step, take the general loop): outputs, counts and stored state.
TEST(FastPaths, WholeStepInterpolationMatchesPlainLoop) {
    std::mt19937 rng(13);
    for (double ratio : {1.0, 2.0, 3.0, 4.0, 2.5}) {
        for (int n : {1, 2, 3, 4, 5, 9, 4001}) {
            std::vector<Complex> in = randomBlock(rng, n, 1.0);
            if (n > 20) {
                in[3] = Complex{0.0, -0.0};
                in[4] = Complex{-0.0, 0.0};
                in[10].re = std::numeric_limits<double>::infinity();
                in[15].im = std::nan("");
                for (int i = 20; i < n; ++i) in[i].im = 0.0;
            }
            CommonFun fast, slow;
            fast.Reset();
            slow.Reset();
            for (int call = 0; call < 2; ++call) {
                std::vector<Complex> want(static_cast<size_t>(n + 8)), got(want.size());
                int wl = -1, gl = -1;
                const double fsIn = 100000.0 * ratio, fsOut = 100000.0;
                plain::farrow(slow, in.data(), n, fsOut, fsIn, want.data(), &wl);
                fast.FarrowInterp(in.data(), n, fsOut, fsIn, got.data(), &gl);
                ASSERT_EQ(gl, wl) << ratio << " " << n;
                want.resize(static_cast<size_t>(wl));
                got.resize(static_cast<size_t>(gl));
                EXPECT_TRUE(sameBits(got, want)) << "ratio " << ratio << " n " << n;
                EXPECT_EQ(fast.farrowNextIndex, slow.farrowNextIndex);
                EXPECT_EQ(std::memcmp(&fast.farrowMu, &slow.farrowMu, 8), 0);
                EXPECT_EQ(std::memcmp(fast.farrowHistory, slow.farrowHistory, 48), 0);
            }
        }
    }
}

// A recycled block handed out as zero-filled really is zero, and an ordinary
// one keeps its size.
TEST(FastPaths, RecycledBlocksAreClearedWhenZeroFillIsAsked) {
    const int n = 100000;  // 1.6 MB: recycled
    {
        HeapArray<Complex> a = heap_alloc<Complex>(n);
        ASSERT_TRUE(a);
        std::memset(a.get(), 0xFF, sizeof(Complex) * n);
    }
    HeapArray<Complex> z = heap_zeroed<Complex>(n - 3);
    ASSERT_TRUE(z);
    for (int i = 0; i < n - 3; ++i) ASSERT_TRUE(z[i].re == 0.0 && z[i].im == 0.0) << i;
    heap_recycled_clear();
    EXPECT_EQ(heap_recycled_bytes(), 0u);
}

}  // namespace
