// Fast routines against their plain versions, bit for bit, on random inputs.
// The plain versions are literal transcriptions of the straightforward loops
// the fast ones replaced; every comparison is on exact bits (EXPECT_EQ on the
// bytes, so that NaN payloads and signed zeros count too).
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

namespace plain {


constexpr double kNcoStart = 0.7;
constexpr double kMuStart = 0.6;
constexpr double kRmsFloor = 1e-12;
// Five-tap symmetric pre-filter in front of the error detector.
constexpr double kPreTaps[5] = {-1.16138e-06, -0.633281, 1.0, -0.633281, -1.16138e-06};

// Index (0 .. sps-1) of the sample phase carrying the most energy over the
// whole symbols of the block; ties keep the lowest index. Returns -1 when the
// accumulators cannot be allocated.
int strongestPhase(const Complex* in, int sps, int symbols) {
    HeapArray<double> acc = heap_zeroed<double>(sps);
    if (!acc) return -1;
    const std::int64_t whole = static_cast<std::int64_t>(sps) * symbols;
    for (std::int64_t i = 0; i < whole; ++i) acc[i % sps] += Complex_abs2(in[i]);
    int best = 0;
    for (int p = 1; p < sps; ++p)
        if (acc[p] > acc[best]) best = p;
    return best;
}

// Work arrays of one call. All are zero-filled, so a slot the loop never
// writes (for instance the NCO value at N-2 when the loop stops early on its
// strobe or symbol budget) reads as 0 rather than as stale heap contents.
struct LoopArrays {
    HeapArray<double> I, Q, nco, step, mu, yI, yQ, fI, fQ, err;
    bool allocate(std::int64_t N, std::int64_t S) {
        const std::int64_t strobes = 4 * S + 10;
        I = heap_zeroed<double>(N);
        Q = heap_zeroed<double>(N);
        // At least two NCO and step slots: a resumed call writes index 1
        // even when the block holds less than one symbol.
        nco = heap_zeroed<double>(N > 2 ? N : 2);
        step = heap_zeroed<double>(4 * S + 1 > 2 ? 4 * S + 1 : 2);
        mu = heap_zeroed<double>(strobes);
        yI = heap_zeroed<double>(strobes);
        yQ = heap_zeroed<double>(strobes);
        fI = heap_zeroed<double>(strobes);
        fQ = heap_zeroed<double>(strobes);
        err = heap_zeroed<double>(2 * S + 1);
        return I && Q && nco && step && mu && yI && yQ && fI && fQ && err;
    }
};

// Piecewise-parabolic interpolant between x[m] and x[m+1] at fraction mu,
// with the left neighbour x[p] (p = m-1, clamped to 0 at the block start).
double parabolic(const double* x, std::int64_t m, std::int64_t p, double mu) {
    const double c2 = 0.5 * x[m + 2] - 0.5 * x[m + 1] - 0.5 * x[m] + 0.5 * x[p];
    const double c1 = -0.5 * x[m + 2] + 1.5 * x[m + 1] - 0.5 * x[m] - 0.5 * x[p];
    return (c2 * mu + c1) * mu + x[m];
}

// Pre-filtered value at strobe i: the first six strobes pass unfiltered,
// later ones go through the five taps over strobes i-4 .. i.
double prefilter(const double* y, std::int64_t i) {
    if (i <= 5) return y[i];
    double acc = 0.0;
    for (int t = 0; t < 5; ++t) acc += y[i - t] * kPreTaps[t];
    return acc;
}

// Gardner error at the symbol strobe i (even).
double timingError(const double* fI, const double* fQ, std::int64_t i) {
    if (i <= 2) return fI[i - 1] * fI[i] + fQ[i - 1] * fQ[i];
    const double aI = (fI[i] + fI[i - 2]) / 2;
    const double aQ = (fQ[i] + fQ[i - 2]) / 2;
    return (fI[i - 1] - aI) * (fI[i] - fI[i - 2]) + (fQ[i - 1] - aQ) * (fQ[i] - fQ[i - 2]);
}


void gardnerPlain(CommonFun& cf, const Complex* in, int n, double fs, double Rs, double C1,
                  double C2, Complex* out, int* outLen) {
    // A NaN or infinite ratio converts to 0 or saturates, and both end here.
    const int sps = floor_to_int(fs / Rs);
    if (sps <= 0 || n <= 0) return;
    const int S0 = n / sps;
    if (S0 == 0) return;

    // 1. Symbol-phase alignment.
    const int offset = strongestPhase(in, sps, S0);
    if (offset < 0) return;
    const int remaining = n - offset;
    if (remaining < 1) {
        *outLen = 0;
        return;
    }

    // 2. Join the previous tail and this block.
    const int prevCount = (cf.gardnerTailCount > 0 && cf.gardnerTail) ? cf.gardnerTailCount : 0;
    const std::int64_t total = static_cast<std::int64_t>(prevCount) + remaining;
    HeapArray<Complex> joined = heap_alloc<Complex>(total);
    if (!joined) return;
    if (prevCount > 0)
        std::memcpy(joined.get(), cf.gardnerTail.get(), sizeof(Complex) * size_t(prevCount));
    std::memcpy(joined.get() + prevCount, in + offset, sizeof(Complex) * size_t(remaining));
    const std::int64_t S = total / sps;
    const std::int64_t N = S * sps;

    // New tail: the samples after the last whole symbol plus four. When the
    // block is shorter than four samples that would reach before its start;
    // the tail is then the whole joined block.
    std::int64_t tailCount = total - N + 4;
    if (tailCount > total) tailCount = total;
    cf.gardnerTail = heap_alloc<Complex>(tailCount);
    cf.gardnerTailCount = cf.gardnerTail ? static_cast<int>(tailCount) : 0;
    if (cf.gardnerTail)
        std::memcpy(cf.gardnerTail.get(), joined.get() + (total - tailCount),
                    sizeof(Complex) * size_t(tailCount));

    // 3. Unit-RMS normalisation (the RMS is kept when continuing a stream).
    if (cf.gardnerContinue == 0) {
        double energy = 0.0;
        for (std::int64_t j = 0; j < total; ++j) energy += Complex_abs2(joined[j]);
        cf.gardnerRms = std::sqrt(energy / static_cast<double>(total));
    }
    const double r = cf.gardnerRms < kRmsFloor ? 1.0 : cf.gardnerRms;

    LoopArrays a;
    if (!a.allocate(N, S)) return;
    for (std::int64_t j = 0; j < N; ++j) {
        a.I[j] = joined[j].re / r;
        a.Q[j] = joined[j].im / r;
    }
    joined.reset();

    // 4. Initial loop state, or the state saved by the previous call.
    const std::int64_t strobeLimit = 4 * S + 10;
    a.step[0] = 2 * Rs / fs;
    a.nco[0] = kNcoStart;
    a.mu[0] = kMuStart;
    std::int64_t m = 0, k = 0, i = 0;
    int count = 0;
    if (cf.gardnerContinue != 0 && cf.gardnerTailCount > 0) {
        m = 1;
        k = 1;
        // The library saves 4 or 5 here; a negative value set from outside
        // would index before the arrays, so it is read as 0.
        i = cf.gardnerStrobe > 0 ? cf.gardnerStrobe : 0;
        a.nco[1] = cf.gardnerNco;
        a.step[1] = cf.gardnerW;
        if (i < strobeLimit) a.mu[i] = cf.gardnerMu;
        if (i > 1 && i <= strobeLimit) {
            a.fI[i - 2] = cf.gardnerYI[0];
            a.fI[i - 1] = cf.gardnerYI[1];
            a.fQ[i - 2] = cf.gardnerYQ[0];
            a.fQ[i - 1] = cf.gardnerYQ[1];
        }
        a.err[0] = cf.gardnerLastErr;
    }

    // 5. The loop, over whole-symbol samples; the interpolator reads m+2.
    for (; m < N - 2; ++m) {
        const double eta = a.nco[m] - a.step[k];
        if (eta > 0) {
            a.nco[m + 1] = eta;
            continue;
        }
        a.nco[m + 1] = eta - std::floor(eta);
        ++i;
        if (i >= strobeLimit) break;
        a.mu[i] = a.nco[m] / a.step[k];

        const std::int64_t p = m > 0 ? m - 1 : 0;
        a.yI[i] = parabolic(a.I.get(), m, p, a.mu[i]);
        a.yQ[i] = parabolic(a.Q.get(), m, p, a.mu[i]);
        a.fI[i] = prefilter(a.yI.get(), i);
        a.fQ[i] = prefilter(a.yQ.get(), i);
        if (i % 2 != 0) continue;  // mid-symbol strobe

        a.err[k] = timingError(a.fI.get(), a.fQ.get(), i);
        const double diff = k == 0 ? a.err[k] : a.err[k] - a.err[k - 1];
        a.step[k + 1] = a.step[k] + C1 * diff + C2 * a.err[k];
        // The symbol budget, and the caller's capacity of n symbols, which
        // only a one-sample-per-symbol block with a carried tail could reach.
        if (count >= S || count >= n) break;
        out[count] = Complex{a.yI[i], a.yQ[i]};
        ++count;
        ++k;
    }

    // 6. Count and carry-over state. Reads that would fall outside the
    // arrays take the value a fresh start uses: no previous error (0), the
    // initial fractional interval and the initial NCO accumulator.
    *outLen = count;
    cf.gardnerW = a.step[k];
    cf.gardnerLastErr = k >= 1 ? a.err[k - 1] : 0.0;
    cf.gardnerMu = i < strobeLimit ? a.mu[i] : kMuStart;
    cf.gardnerStrobe = static_cast<int>(i % 2) + 4;
    cf.gardnerNco = N >= 2 ? a.nco[N - 2] : kNcoStart;
    if (i < 2 || i > strobeLimit) {
        cf.gardnerYI[0] = cf.gardnerYI[1] = 0.0;
        cf.gardnerYQ[0] = cf.gardnerYQ[1] = 0.0;
    } else {
        cf.gardnerYI[0] = a.fI[i - 2];
        cf.gardnerYI[1] = a.fI[i - 1];
        cf.gardnerYQ[0] = a.fQ[i - 2];
        cf.gardnerYQ[1] = a.fQ[i - 1];
    }
}

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
            std::vector<Complex> x = randomBlock(rng, n, 1000.0);
            std::vector<Complex> want(x.size()), got(x.size());
            int wl = -1, gl = -1;
            plain::conv2(x.data(), n, h.data(), L, want.data(), &wl);
            CommonFun().conv2_complex(x.data(), n, h.data(), L, got.data(), &gl);
            ASSERT_EQ(gl, wl);
            EXPECT_TRUE(sameBits(got, want)) << "L " << L << " count " << count;
            std::vector<Complex> inPlace = x;
            CommonFun().conv2_complex(inPlace.data(), n, h.data(), L, inPlace.data(), &gl);
            inPlace.resize(static_cast<size_t>(count));
            want.resize(static_cast<size_t>(count));
            EXPECT_TRUE(sameBits(inPlace, want)) << "in place, L " << L << " count " << count;
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

struct GardnerCase {
    int n;
    double fs;  // Rs = 1000
    double c1, c2;
    double forcedStep;  // > 0: carried step set for the resumed blocks
    int forcedStrobe = 0;  // > 0: carried strobe number set for the resumed blocks
};

// The streaming loop against the array-based one: output, count and every
// field of the carried state, on a fresh start and on a resumed second block
// (carried tail, strobe parity, pre-filter history), at several rates, block
// lengths that are not whole symbols, and gains large enough to make the loop
// run away; a carried step of a strobe or more per sample makes the loop stop
// on its symbol budget before the end of the block, and a carried strobe
// number at the strobe budget stops it at its first strobe.
TEST(FastPaths, GardnerMatchesArrayLoop) {
    const GardnerCase cases[] = {
        {4001, 4000, 0.002, 1.82e-08, 0}, {4003, 4000, 0.004, 1.82e-06, 0},
        {3333, 8700, 0.002, 1.82e-08, 0}, {777, 3000, 0.01, 1e-4, 0},
        {5, 4000, 0.002, 1.82e-08, 0},    {2000, 2000, 0.5, 0.2, 0},
        {1999, 1000, 0.002, 1.82e-08, 0}, {4000, 4000, -3.0, -2.0, 0},
        {4000, 4000, 0.0, 0.0, 1.5},      {4001, 8000, 0.0, 0.0, 1.25},
        {4002, 4000, 0.001, 0.0, 1.0},    {400, 4000, 0.002, 1.82e-08, 0, 409}};
    std::mt19937 rng(11);
    for (const GardnerCase& c : cases) {
        CommonFun fast, ref;
        for (int block = 0; block < 3; ++block) {
            const std::vector<Complex> x = randomBlock(rng, c.n + block, 0.7);
            std::vector<Complex> want(x.size() + 8, Complex{-9.0, -9.0}), got = want;
            int wl = -7, gl = -7;
            plain::gardnerPlain(ref, x.data(), static_cast<int>(x.size()), c.fs, 1000.0, c.c1,
                                c.c2, want.data(), &wl);
            fast.Gardner(x.data(), static_cast<int>(x.size()), c.fs, 1000.0, c.c1, c.c2,
                         got.data(), &gl);
            ASSERT_EQ(gl, wl) << "n " << c.n << " block " << block;
            EXPECT_TRUE(sameBits(got, want)) << "n " << c.n << " block " << block;
            EXPECT_EQ(fast.gardnerTailCount, ref.gardnerTailCount);
            ASSERT_EQ(fast.gardnerTailCount > 0, ref.gardnerTailCount > 0);
            if (fast.gardnerTailCount > 0) {
                EXPECT_EQ(std::memcmp(fast.gardnerTail.get(), ref.gardnerTail.get(),
                                      sizeof(Complex) * size_t(fast.gardnerTailCount)),
                          0);
            }
            const double fs[] = {fast.gardnerRms, fast.gardnerW, fast.gardnerLastErr,
                                 fast.gardnerMu, fast.gardnerNco, fast.gardnerYI[0],
                                 fast.gardnerYI[1], fast.gardnerYQ[0], fast.gardnerYQ[1]};
            const double rs[] = {ref.gardnerRms, ref.gardnerW, ref.gardnerLastErr,
                                 ref.gardnerMu, ref.gardnerNco, ref.gardnerYI[0],
                                 ref.gardnerYI[1], ref.gardnerYQ[0], ref.gardnerYQ[1]};
            EXPECT_EQ(std::memcmp(fs, rs, sizeof fs), 0) << "n " << c.n << " block " << block;
            EXPECT_EQ(fast.gardnerStrobe, ref.gardnerStrobe);
            // Later blocks continue the stream from the carried state.
            fast.gardnerContinue = ref.gardnerContinue = 1;
            if (c.forcedStep > 0) fast.gardnerW = ref.gardnerW = c.forcedStep;
            if (c.forcedStrobe > 0) fast.gardnerStrobe = ref.gardnerStrobe = c.forcedStrobe;
        }
    }
}

// normStar's selection of the largest magnitudes against the full qsort, for
// the PSK rule (all magnitudes) and the QAM fractions, with ties, odd lengths,
// and NaN (which keeps the qsort).
TEST(FastPaths, NormStarMatchesFullSort) {
    std::mt19937 rng(5);
    for (uint32_t mode : {MOD_QPSK, MOD_16QAM, MOD_64QAM, MOD_256QAM, MOD_32QAM}) {
        for (int n : {1, 2, 3, 17, 64, 1001, 40000}) {
            for (int variant = 0; variant < 3; ++variant) {
                std::vector<Complex> x = randomBlock(rng, n, 3.0);
                if (variant == 1)  // ties: a coarse grid of points
                    for (Complex& v : x) v = Complex{std::round(v.re), std::round(v.im)};
                if (variant == 2) x[static_cast<size_t>(n / 2)].re = std::nan("");
                ExParamOut p{};
                p.mode = mode;
                std::vector<Complex> got(x.size());
                CommonFun().normStar(x.data(), n, p, got.data());
                // Plain: magnitudes, full qsort, mean of the largest count.
                std::vector<double> mag(x.size());
                for (int i = 0; i < n; ++i) mag[i] = Complex_abs(x[i]);
                std::qsort(mag.data(), mag.size(), sizeof(double), cmp_asc);
                const double fraction = mode == MOD_QPSK ? 1.0
                                        : mode == MOD_16QAM || mode == MOD_32QAM ? 0.25
                                        : mode == MOD_64QAM ? 0.0625 : 0.015625;
                const double radius = mode == MOD_QPSK ? 1.0
                                      : mode == MOD_16QAM ? 4.242640687119285
                                      : mode == MOD_64QAM ? 9.899494936611665
                                      : mode == MOD_256QAM ? 21.2132 : 5.831;
                int count = trunc_to_int(n * fraction);
                count = count < 1 ? 1 : (count > n ? n : count);
                double sum = 0.0;
                for (int i = n - count; i < n; ++i) sum += mag[i];
                const double m = sum / count;
                std::vector<Complex> want(x.size());
                for (int i = 0; i < n; ++i)
                    want[i] = m > 1e-10 ? Complex_scalar_mul(x[i], radius / m) : x[i];
                EXPECT_TRUE(sameBits(got, want)) << "mode " << mode << " n " << n << " v " << variant;
            }
        }
    }
}

// The radix sort against std::sort on mixed signs, ties, infinities and
// subnormals at lengths around its byte passes; a NaN or a -0 is refused and
// the array left as it was.
TEST(FastPaths, RadixSortMatchesComparisonSort) {
    std::mt19937 rng(3);
    std::normal_distribution<double> g(0.0, 1e3);
    for (int n : {1, 2, 5, 255, 256, 257, 10001}) {
        for (int variant = 0; variant < 3; ++variant) {
            std::vector<double> v(static_cast<size_t>(n));
            for (double& x : v) x = variant == 1 ? std::round(g(rng) / 200) : g(rng);
            if (variant == 2 && n > 4) {
                v[0] = std::numeric_limits<double>::infinity();
                v[1] = -std::numeric_limits<double>::infinity();
                v[2] = std::numeric_limits<double>::denorm_min();
                v[3] = -std::numeric_limits<double>::denorm_min();
                v[4] = 0.0;
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
        EXPECT_TRUE(sameBits(v, before));
    }
    // Both tails of a selection against the ends of a full sort.
    for (int n : {2, 5, 100, 10001}) {
        std::vector<double> v(static_cast<size_t>(n));
        for (double& x : v) x = std::round(g(rng) / 50) + 0.0;  // ties, no -0
        std::vector<double> want = v;
        std::sort(want.begin(), want.end());
        const int k = std::max(1, n / 5);
        ASSERT_TRUE(sort_both_tails(v.data(), n, k));
        for (int i = 0; i < k; ++i) {
            EXPECT_EQ(std::memcmp(&v[i], &want[i], 8), 0) << n;
            EXPECT_EQ(std::memcmp(&v[n - 1 - i], &want[n - 1 - i], 8), 0) << n;
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
