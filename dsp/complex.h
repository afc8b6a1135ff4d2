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

Complex Complex_add(Complex a, Complex b);
Complex Complex_sub(Complex a, Complex b);
// a * s; the two names are the same operation, both spellings are in use.
Complex Complex_scalar_mul(Complex a, double s);
Complex complex_scalar_mul(Complex a, double s);
// a / s, with no test for s == 0 (gives infinities or NaN).
Complex complex_div_real(Complex a, double s);
Complex Complex_conj(Complex a);
// sqrt(re^2 + im^2): a plain square root, not a scaled hypotenuse.
double Complex_abs(Complex a);
double Complex_abs2(Complex a);
// (cos x, sin x)
Complex Complex_exp_j(double x);
