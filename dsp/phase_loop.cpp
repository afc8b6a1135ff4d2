// Carrier phase tracking: a second-order decision-directed phase-locked loop
// at one sample per symbol, and its three phase detectors.
//
// Loop (per symbol x):
//   x' = x . exp(-j theta)                       de-rotation
//   e  = detector(arg x')                        distance to the nearest ideal phase
//   v' = v + K1 (e - e_prev) + K2 e_prev          PI filter in incremental form
//   theta = theta + v;  v = v'                    the NCO lags the filter by a symbol
// Gains from the noise bandwidth Bn (Hz) at symbol rate Rs (Hz), zeta = 0.707:
//   wn = 8 zeta Bn / (1 + 4 zeta^2),  K1 = 2 zeta wn / Rs,  K2 = wn^2 / Rs^2.
// The integral term takes the previous error rather than the current one: the
// loop responds one symbol later than the textbook form, and that response is
// the one reported.
#include <cmath>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;
constexpr double kZeta = 0.707;

// Angle folded into [0, 2 pi).
double wrapPositive(double x) {
    double a = fmod_two_pi(x);
    if (a < 0) a += kTwoPi;
    return a;
}

struct LoopGains {
    double K1;
    double K2;
};

LoopGains loopGains(int M, double Rs, double Bn) {
    // The 32-point cross constellation has its own tuned gains.
    if (M == 32) return LoopGains{0.03, 1.82e-05};
    const double wn = 8 * kZeta * Bn / (1 + 4 * kZeta * kZeta);
    LoopGains g{2 * kZeta * wn / Rs, wn * wn / (Rs * Rs)};
    // A zero or non-finite symbol rate gives infinite or NaN gains that would
    // turn every output into NaN; the loop is left open instead (zero gains),
    // so the symbols are only de-rotated by the carried phase.
    if (!std::isfinite(g.K1) || !std::isfinite(g.K2)) g = LoopGains{0.0, 0.0};
    return g;
}

// One step of the QAM reference search at thresholds (a, b): the corner
// cases below a threshold or at or beyond the outermost one, in that order.
bool cornerReference(double I, double Q, int a, int b, int L, Complex* ref) {
    const int outer = L - 2;
    if (I < a && Q < b) {
        *ref = Complex{double(a - 1), double(b - 1)};
    } else if (I >= outer && Q < b) {
        *ref = Complex{double(L - 1), double(b - 1)};
    } else if (I < a && Q >= outer) {
        *ref = Complex{double(a - 1), double(L - 1)};
    } else if (I >= outer && Q >= outer) {
        *ref = Complex{double(L - 1), double(L - 1)};
    } else {
        return false;
    }
    return true;
}

}  // namespace

// Discriminator_BPSK(phase, M): sin of the distance from phase to the nearest
// multiple of 2 pi / M, the reference points being 0, 2 pi/M, ... (0 and pi
// for M = 2). Each reference owns [h(2j-1), h(2j+1)) with h = pi / M.
double CommonFun::Discriminator_BPSK(double phase, int M) {
    const double a = wrapPositive(phase);
    const double h = kPi / M;
    for (int j = 1; j <= M - 1; ++j) {
        if (h * (2 * j - 1) <= a && a < h * (2 * j + 1)) return std::sin(a - 2 * j * h);
    }
    double x = 0.0;
    if (a < h)
        x = a;
    else if (a >= (2 * M - 1) * kPi / M)
        x = a - kTwoPi;
    return std::sin(x);
}

// Discriminator_PSK(phase, M): 0.2 sin(a - c), c the centre (2k+1) pi / M of
// the sector [k d, (k+1) d) holding a, d = 2 pi / M (lower bound inclusive).
double CommonFun::Discriminator_PSK(double phase, int M) {
    const double a = wrapPositive(phase);
    const double d = kTwoPi / M;
    for (int k = 0; k < M; ++k) {
        if (k * d <= a && a < (k + 1) * d) return 0.2 * std::sin(a - (k * d + d / 2));
    }
    return 0.2 * std::sin(0.0);
}

// Discriminator_QAM(phase, symbol, M): 3 sin(phase - r), r the angle of a
// reference point on the odd-integer grid +-1, +-3, ... +-(L-1), found by
// scanning the decision thresholds a, b = 2-L, 4-L, ... L-2 (L = 6 for the
// 32-point cross, sqrt(M) otherwise) for the first corner that encloses the
// symbol. Points on the grid are their own reference.
double CommonFun::Discriminator_QAM(double phase, Complex symbol, int M) {
    const int L = M == 32 ? 6 : trunc_to_int(std::sqrt(static_cast<double>(M)));
    const double I = symbol.re;
    const double Q = symbol.im;
    Complex ref{1.0, 1.0};  // when no corner matches
    bool found = false;
    for (int a = 2 - L; a <= L - 2 && !found; a += 2) {
        for (int b = 2 - L; b <= L - 2 && !found; b += 2) {
            found = cornerReference(I, Q, a, b, L, &ref);
        }
    }
    double r = std::atan2(ref.im, ref.re);
    if (r < 0) r += kTwoPi;
    return 3 * std::sin(phase - r);
}

// PhaseLook(in, n, family, M, Rs, Bn, modType, out, outLen)
//   in/n    : symbols at one sample per symbol
//   family  : MT_PSK or MT_QAM selects the detector; anything else, no error
//   M       : constellation order; Rs, Bn in Hz (Bn is the loop bandwidth)
//   out     : de-rotated symbols, at least n; outLen receives n (0 if n < 1)
// The accumulated phase and filter state carry over to the next call until
// Reset. modType is carried for callers and does not change the loop.
void CommonFun::PhaseLook(const Complex* in, int n, ModType family, int M, double Rs,
                          double Bn, modulationTypeOut modType, Complex* out, int* outLen) {
    (void)modType;
    const LoopGains g = loopGains(M, Rs, Bn);
    if (n < 1) {
        *outLen = 0;
        return;
    }
    if (phaseLoopStarted == 0) {
        phaseAcc = 0.0;
        phaseFreq = 0.0;
        phaseLastErr = 0.0;
        phaseLastI = 0.0;
        phaseLastQ = 0.0;
        phaseLoopStarted = 1;
    }
    double theta = phaseAcc;
    double v = phaseFreq;
    double ePrev = phaseLastErr;

    for (int idx = 0; idx < n; ++idx) {
        const double I = in[idx].re;
        const double Q = in[idx].im;
        const double phi = fmod_two_pi(theta);
        const double c = std::cos(phi);
        const double s = std::sin(phi);
        const double I1 = I * c + Q * s;
        const double Q1 = Q * c - I * s;
        phaseLastI = I1;
        phaseLastQ = Q1;
        const double p = fmod_two_pi(std::atan2(Q1, I1) + kTwoPi);

        double e = 0.0;
        if (family == MT_PSK && M == 2)
            e = std::sin(Discriminator_BPSK(p, 2));  // a second sine, kept: it sets the loop gain
        else if (family == MT_PSK)
            e = Discriminator_PSK(p, M);
        else if (family == MT_QAM)
            e = Discriminator_QAM(p, Complex{I1, Q1}, M);

        const double vNew = v + g.K1 * (e - ePrev) + g.K2 * ePrev;
        theta = theta + v;
        v = vNew;
        ePrev = e;
        out[idx] = Complex{I1, Q1};
    }

    phaseAcc = theta;
    phaseFreq = v;
    phaseLastErr = ePrev;
    *outLen = n;
}
