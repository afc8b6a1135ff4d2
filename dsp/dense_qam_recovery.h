// Synchronisation stages of the 128- and 256-point QAM chain.
//
// The dense constellations do not use the shared Gardner loop, phase loop or
// blind equaliser: their own timing loop, a fourth-power frequency step, a
// quadrant-phase estimate weighted towards the outer points, an outer-ring
// amplitude scaling and a phase-locked loop that listens only to the
// outermost points are built for them. Each stage is a free function here so
// that the demodulator reads as the chain it is, and each can be checked on
// its own.
#pragma once

#include "CommonFun.h"

// The per-order constants of the chain (128-point cross or 256-point square).
struct DenseQamConstants {
    int order;               // 128 or 256; 0 for any other order
    double outerRadius;      // radius the outermost points are scaled to
    double powerGate;        // the phase loop listens only above this |y|^2
    double detectorGain;     // phase-detector gain
    double detectorOffset;   // angle of the outer points off the diagonal (rad)
    double loopKp, loopKi;   // proportional and integral gains of the phase loop
    double displayDivisor;   // the constellation is shown divided by this
    int eyeScale;            // order / (divisor + 1), integer division
    bool rotateDisplay;      // display turned by the decisions' phase offset
};

// Constants of order M (128 or 256); `order` is 0 for any other M.
DenseQamConstants dense_qam_constants(int M);

// Symbol timing of a block at four samples per symbol (unit RMS expected):
// a second-order loop (damping 0.707, noise bandwidth 0.005 fs) steering an
// NCO that underflows twice per symbol; piecewise-parabolic interpolation,
// a five-tap pre-filter and a Gardner detector with the mid-point correction.
//   in/n  : n samples at fs Hz
//   out   : at least n / 4 values; receives one interpolant per symbol
// Returns the number of symbols written (0 when n < 4 or memory runs out).
int dense_qam_timing(const Complex* in, int n, double fs, Complex* out);

// Residual carrier of a symbol-spaced QAM block in whole hertz, from the
// spectral line of x^4 over the first min(n, 16384) symbols at symbol rate
// Rs: f = round((-Rs/2 + (Rs/16384) k) / 4), k the strongest FFT bin.
// Returns false when the FFT buffer cannot be allocated.
bool dense_qam_offset_hz(CommonFun& cf, const Complex* s, int n, double Rs, int* fHz);

// Rotation (rad) that brings the outer points of a square or cross QAM block
// back onto the diagonals, up to a multiple of pi/2:
//   theta = atan2(sum r^6 sin 4phi, sum r^6 cos 4phi) / 4 - pi/4
// over the first min(n, 3000) symbols. The block is turned by -theta.
double dense_qam_quadrant_phase(const Complex* s, int n);

// Mean of the floor(4n/M) largest magnitudes (at least 1, at most n), summed
// from the largest down; 1.0 when the mean is below 1e-12. Returns false
// when the sorting buffer cannot be allocated.
bool dense_qam_outer_mean(const Complex* s, int n, int M, double* mean);

// Decision-directed phase loop over n symbols. Only points whose power
// exceeds the order's gate steer it; their angle is compared with the
// diagonal of their quadrant (for 128 points, with the outer cross points'
// offset of +-0.2187 rad taken off). out[i] is s[i] turned by the loop's
// phase before this symbol's update.
void dense_qam_phase_loop(CommonFun& cf, const Complex* s, int n,
                          const DenseQamConstants& c, Complex* out);
