// One complex baseband sample and its value operations.
//
// Every complex array of the library is an array of Complex: two doubles,
// real part first, no padding. The operations are plain value functions with
// no checks; they are written out term by term so that the floating-point
// evaluation order is the one a reader sees.
#pragma once

struct Complex {
    double re;
    double im;
};

static_assert(sizeof(Complex) == 16, "Complex is two packed doubles");

// The helpers are defined here, inline, because they sit in the innermost
// loops (FFT butterflies, equaliser taps, spectra): an out-of-line call per
// term costs more than the arithmetic. Each expression is exactly the one a
// reader sees; the build forbids contraction into fused multiply-adds, so
// inlining changes no result.
#include <cmath>

inline Complex Complex_add(Complex a, Complex b) { return Complex{a.re + b.re, a.im + b.im}; }
inline Complex Complex_sub(Complex a, Complex b) { return Complex{a.re - b.re, a.im - b.im}; }
// a * s; the two names are the same operation, both spellings are in use.
inline Complex Complex_scalar_mul(Complex a, double s) { return Complex{a.re * s, a.im * s}; }
inline Complex complex_scalar_mul(Complex a, double s) { return Complex_scalar_mul(a, s); }
// a / s, with no test for s == 0 (gives infinities or NaN).
inline Complex complex_div_real(Complex a, double s) { return Complex{a.re / s, a.im / s}; }
inline Complex Complex_conj(Complex a) { return Complex{a.re, -a.im}; }
// sqrt(re^2 + im^2): a plain square root, not a scaled hypotenuse.
inline double Complex_abs(Complex a) { return std::sqrt(a.re * a.re + a.im * a.im); }
inline double Complex_abs2(Complex a) { return a.re * a.re + a.im * a.im; }
// (cos x, sin x)
inline Complex Complex_exp_j(double x) { return Complex{std::cos(x), std::sin(x)}; }
