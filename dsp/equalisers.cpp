// Blind adaptive equalisers at one sample per symbol.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "CommonFun.h"

// CMA_equlize(in, n, mu, R, L, out, outLen): constant-modulus equaliser.
//   y[k] = sum_j w[j] x[k-j],  j = 0 .. L-1   (newest input first)
//   w[j] += mu . conj(x[k-j]) . y[k] . (R - |y[k]|^2)
// Starts from a single unit tap at index 3 (index L-1 when L <= 3), so the
// output is the input delayed by 3 symbols (L-1 when L <= 3) until the taps
// move. Each output is formed before the update it drives. One pass, no
// re-filtering with the converged taps.
//   in/n   : symbols; mu step size; R target |y|^2; L taps
//   out    : n-L+1 equalised symbols (outputs for k = L-1 .. n-1)
//   outLen : out only: n-L+1, or 0 when n < L, L < 1 or memory runs out.
void CommonFun::CMA_equlize(const Complex* in, int n, double mu, double R, int L,
                            Complex* out, int& outLen) {
    if (n < L || L < 1) {
        outLen = 0;
        return;
    }
    HeapArray<Complex> w = heap_zeroed<Complex>(L);
    HeapArray<Complex> x = heap_alloc<Complex>(L);
    if (!w || !x) {
        outLen = 0;
        return;
    }
    // The reference tap sits at index 3 whatever the length, so a long
    // equaliser has more post-cursor than pre-cursor taps.
    w[L > 3 ? 3 : L - 1] = Complex{1.0, 0.0};

    for (int k = L - 1; k < n; ++k) {
        for (int j = 0; j < L; ++j) x[j] = in[k - j];
        Complex acc{0.0, 0.0};
        for (int j = 0; j < L; ++j) acc = Complex_add(acc, Complex_mul(w[j], x[j]));
        // Output k - (L - 1) is stored at once. in[k - L + 1], the oldest
        // input this step reads, is already copied into x and no later step
        // reads it, so out may even be the same array as in.
        out[k - (L - 1)] = acc;
        const Complex g = Complex_scalar_mul(acc, R - (acc.re * acc.re + acc.im * acc.im));
        for (int j = 0; j < L; ++j) {
            const Complex step = Complex_scalar_mul(Complex_mul(Complex_conj(x[j]), g), mu);
            w[j] = Complex_add(w[j], step);
        }
    }
    outLen = n - L + 1;
}

// mcma_equalizeFORfsk(in, n, taps, mu, out): two-ring constant-modulus
// equaliser for the FSK level stream (levels +-1 and +-3).
//   x_t[j] = in[t-1-j], j = 0 .. 8 (newest first)
//   y = sum_j x_t[j] w_j(t-1);  out[t-1] = y,  t = 9 .. n
//   R = 9 if |y|^2 >= 4 else 1 (the ring the output lies nearer to)
//   g = y (R - |y|^2) / R
//   w_j(t) = w_j(t-1) + mu conj(x_t[j]) g, then w(t) /= ||w(t)|| when the
//   norm exceeds 1e-12, so the equaliser shapes but never scales.
// Starts from a centre spike (tap 4 = 1) at time 8. The tap count is fixed at
// nine whatever `taps` says. out (n values) starts as a copy of in, so the
// first eight outputs are unequalised.
//
// Each update reads only the taps of the step before, so two sets of nine
// taps are kept and used in turn instead of the whole history (the loop's
// arithmetic is the same; the history was never read back). Nothing is
// allocated, so the equaliser cannot fail for lack of memory.
void CommonFun::mcma_equalizeFORfsk(const Complex* in, int n, int taps, double mu,
                                    Complex* out) {
    taps = 9;
    // A negative count has no samples to copy or equalise.
    if (n < 0) return;
    constexpr int kCentre = 4;
    Complex rows[2][9] = {};
    Complex* prev = rows[0];
    Complex* next = rows[1];
    // The spike at time 8 is the set the first update (t = 9) starts from;
    // a block of fewer than nine samples is never equalised.
    prev[kCentre] = Complex{1.0, 0.0};
    for (int i = 0; i < n; ++i) out[i] = in[i];

    Complex x[9];
    for (std::int64_t t = 9; t <= n; ++t) {
        for (int j = 0; j < taps; ++j) x[j] = in[t - 1 - j];
        Complex y{0.0, 0.0};
        for (int j = 0; j < taps; ++j) y = Complex_add(y, Complex_mul(x[j], prev[j]));
        out[t - 1] = y;
        const double r = Complex_abs2(y);
        const double R = r >= 4.0 ? 9.0 : 1.0;
        const Complex g = Complex_scalar_mul(y, (R - r) / R);
        for (int j = 0; j < taps; ++j) {
            const Complex step = Complex_scalar_mul(Complex_mul(Complex_conj(x[j]), g), mu);
            next[j] = Complex_add(prev[j], step);
        }
        double norm2 = 0.0;
        for (int j = 0; j < taps; ++j) norm2 += Complex_abs2(next[j]);
        const double s = std::sqrt(norm2);
        if (s > 1e-12) {
            for (int j = 0; j < taps; ++j) next[j] = complex_div_real(next[j], s);
        }
        Complex* const done = prev;
        prev = next;
        next = done;
    }
}
