// Blind adaptive equalisers at one sample per symbol.
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
