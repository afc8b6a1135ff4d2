// Symbol error rates of the constellations on an AWGN channel, as functions
// of Es/N0 (linear, Es the mean energy of the ideal points).
#pragma once

#include <cmath>
#include <complex>
#include <vector>

namespace vantrel::accuracy {

inline double qfunc(double x) { return 0.5 * std::erfc(x / std::sqrt(2.0)); }

// M-PSK, coherent, by Craig's integral
//   Ps = (1/pi) int_0^{(M-1) pi / M} exp(-g sin^2(pi/M) / sin^2 t) dt,
// exact for every M (M = 2 gives Q(sqrt(2 g))).
inline double pskSymbolErrorRate(int M, double esn0) {
    const double pi = 3.141592653589793;
    const double s = std::sin(pi / M);
    const double top = (M - 1) * pi / M;
    const int steps = 4000;
    double sum = 0.0;
    for (int i = 0; i < steps; ++i) {  // midpoint rule; the integrand is smooth
        const double t = (i + 0.5) * top / steps;
        const double st = std::sin(t);
        sum += std::exp(-esn0 * s * s / (st * st));
    }
    return sum * top / steps / pi;
}

// Points on the odd-integer grid (QAM, square or cross): each point is
// decided correctly when the noise keeps it inside its cell, and a cell is
// bounded on the sides where a neighbour lies (distance 2). Per axis the
// error is Q(1/sigma) per bounded side; the two axes are independent:
//   Ps = 1 - mean_k (1 - nI_k Q(1/s)) (1 - nQ_k Q(1/s)),  s^2 = Es / (2 g).
// Exact for the square grids; for the cross shapes the cells next to an
// absent corner are taken as rectangles.
inline double gridSymbolErrorRate(const std::vector<std::complex<double>>& pts, double esn0) {
    double es = 0.0;
    for (const auto& p : pts) es += std::norm(p);
    es /= double(pts.size());
    const double q = qfunc(1.0 / std::sqrt(es / (2.0 * esn0)));
    auto has = [&](std::complex<double> c) {
        for (const auto& p : pts)
            if (std::norm(p - c) < 1e-9) return true;
        return false;
    };
    double correct = 0.0;
    for (const auto& p : pts) {
        const int nI = has(p + 2.0) + has(p - 2.0);
        const int nQ = has(p + std::complex<double>(0, 2)) + has(p - std::complex<double>(0, 2));
        correct += (1.0 - nI * q) * (1.0 - nQ * q);
    }
    return 1.0 - correct / double(pts.size());
}

// On-off keying (levels 0 and 1, threshold midway): Ps = Q(sqrt(g)).
inline double onOffSymbolErrorRate(double esn0) { return qfunc(std::sqrt(esn0)); }

// M orthogonal tones, non-coherent detection:
//   Ps = sum_{n=1}^{M-1} (-1)^{n+1} C(M-1, n) / (n+1) exp(-n g / (n+1)).
inline double orthogonalFskSymbolErrorRate(int M, double esn0) {
    double sum = 0.0, binom = 1.0;
    for (int n = 1; n < M; ++n) {
        binom = binom * (M - n) / n;
        sum += ((n % 2) ? 1.0 : -1.0) * binom / (n + 1) * std::exp(-n * esn0 / (n + 1));
    }
    return sum;
}

}  // namespace vantrel::accuracy
