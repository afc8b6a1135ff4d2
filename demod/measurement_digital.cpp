// Measurement mode, linear digital families (PSK, QAM, ASK).
//
//  1. the block is brought to the analysis rate of four samples per symbol
//     by a designed anti-alias (or anti-image) filter, at any input ratio;
//  2. matched filter, and the symbol clock from the symbol-rate line of
//     |y|^2, rate and phase fitted across the whole block (symbol-rate
//     error, the instant of every symbol);
//  3. coarse carrier from the M-th power of the symbols (M = 2, 4, 8 for
//     PSK, 4 for QAM, 1 for ASK whose amplitudes are never negative);
//  4. carrier removed from the analysis stream, matched filter again,
//     symbols interpolated at the instants;
//  5. decision-directed fit of a straight phase line (phase and residual
//     frequency), the line of least error power sum |z_k - a_k|^2 found by
//     Gauss-Newton steps iterated with the decisions;
//  6. widely-linear least squares of the symbols on the ideal points, their
//     image and a constant: gain, image (gain imbalance, quadrature error)
//     and the origin offset; the symbols are compensated and steps 5-6 run
//     again;
//  7. the error vector of every settled symbol (measurement_error_vector.cpp).
// FSK takes its own path (measurement_fsk.cpp).
#include <algorithm>
#include <cmath>
#include <limits>

#include "measurement.h"

using vantrel::meas::cd;
using vantrel::meas::WorkVec;

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;

// Ideal points of the linear families, on the grid of odd integers for QAM
// and on the unit circle for PSK. ASK is handled apart (its levels are
// measured).
struct Constellation {
    WorkVec<cd> points;
    int side = 0;       // QAM: points per row of the full square grid
    int corner = 1000;  // QAM: |i| and |q| both beyond it are absent (cross shapes)
};

Constellation constellation(ModType family, int order) {
    Constellation c;
    if (family == MT_PSK) {
        if (order == 2) {
            c.points = {cd(1, 0), cd(-1, 0)};
            return c;
        }
        for (int k = 0; k < order; ++k)
            c.points.push_back(std::polar(1.0, (2 * k + 1) * kPi / order));
        return c;
    }
    if (family != MT_QAM) return c;
    switch (order) {
    case 16: c.side = 4; break;
    case 32: c.side = 6; c.corner = 3; break;
    case 64: c.side = 8; break;
    case 128: c.side = 12; c.corner = 7; break;
    case 256: c.side = 16; break;
    default: return c;
    }
    for (int i = 0; i < c.side; ++i) {
        for (int q = 0; q < c.side; ++q) {
            const int re = 2 * i - c.side + 1, im = 2 * q - c.side + 1;
            if (std::abs(re) > c.corner && std::abs(im) > c.corner) continue;
            c.points.emplace_back(re, im);
        }
    }
    return c;
}

int powerOrder(ModType family, int order) {
    if (family == MT_PSK) return order;
    if (family == MT_QAM) return 4;
    return 1;  // ASK
}

cd integerPower(cd z, int M) {
    cd r(1.0, 0.0);
    for (int i = 0; i < M; ++i) r *= z;
    return r;
}

double meanPower(const WorkVec<cd>& v) {
    double p = 0.0;
    for (const cd& z : v) p += std::norm(z);
    return v.empty() ? 0.0 : p / double(v.size());
}

// Nearest odd integer within [-(side-1), side-1].
double sliceAxis(double v, int side) {
    if (!(v == v)) return v;  // a NaN symbol stays NaN
    const double top = double(side - 1);
    // Clamped first (every point beyond the grid slices to its edge), so
    // h + 64 is positive and its truncation is the floor: no library call
    // and no branch on the sign of the noise. (Only a value within 1e-14 of
    // a decision boundary can round across it.)
    const double h = 0.5 * std::min(std::max(v, -top), top);
    const double f = double(static_cast<long long>(h + 64.0)) - 64.0;
    return 2.0 * f + 1.0;
}

// Nearest constellation point: PSK by search over its (at most eight)
// points; QAM by slicing each axis to the odd-integer grid and, for the
// cross shapes, moving a point of an absent corner to the nearer of its two
// neighbours on the corner's edge.
cd nearest(const Constellation& c, cd z) {
    // BPSK and QPSK decide by signs alone.
    if (c.side == 0 && c.points.size() == 2) return z.real() < 0.0 ? c.points[1] : c.points[0];
    if (c.side == 0 && c.points.size() == 4) {
        const double h = c.points[0].real();  // 1 / sqrt(2)
        return cd(z.real() < 0.0 ? -h : h, z.imag() < 0.0 ? -h : h);
    }
    if (c.side == 0 && c.points.size() == 8) {
        // 8PSK: point k sits at (2k + 1) pi / 8, in the middle of octant k,
        // so the nearest point is the octant's, found by signs and |re| vs |im|.
        const double x = z.real(), y = z.imag();
        int k;
        if (y >= 0.0) k = x >= 0.0 ? (y < x ? 0 : 1) : (y > -x ? 2 : 3);
        else k = x < 0.0 ? (-y < -x ? 4 : 5) : (-y > x ? 6 : 7);
        return c.points[std::size_t(k)];
    }
    if (c.side == 0) {
        cd best = c.points.front();
        double bd = std::norm(z - best);
        for (const cd& a : c.points) {
            const double d = std::norm(z - a);
            if (d < bd) {
                bd = d;
                best = a;
            }
        }
        return best;
    }
    const double re = sliceAxis(z.real(), c.side), im = sliceAxis(z.imag(), c.side);
    if (std::fabs(re) <= c.corner || std::fabs(im) <= c.corner) return cd(re, im);
    const cd a(std::copysign(double(c.corner), re), im), b(re, std::copysign(double(c.corner), im));
    return std::norm(z - a) <= std::norm(z - b) ? a : b;
}

// Two-level decisions of ASK on the real axis: the levels are the means of
// the two clusters (k-means). `levels` carries the pair from one round of
// the phase fit to the next: a round that finds it unset (lo >= hi) starts
// from the 10th and 90th percentiles, a later one from the previous means,
// which the slightly moved symbols leave nearly where they were.
struct AskLevels {
    double lo = 0.0, hi = 0.0;
};

void askDecisions(const WorkVec<cd>& r, WorkVec<cd>& a, AskLevels& levels) {
    WorkVec<double> re(r.size());
    for (std::size_t k = 0; k < r.size(); ++k) re[k] = r[k].real();
    double lo = levels.lo, hi = levels.hi;
    if (!(lo < hi)) {
        WorkVec<double> work = re;
        std::nth_element(work.begin(), work.begin() + long(work.size() / 10), work.end());
        lo = work[work.size() / 10];
        std::nth_element(work.begin(), work.begin() + long(work.size() * 9 / 10), work.end());
        hi = work[work.size() * 9 / 10];
    }
    for (int it = 0; it < 20; ++it) {
        const double thr = 0.5 * (lo + hi);
        // Sums of both clusters without a branch on the noise.
        double sl = 0, sh = 0;
        std::size_t nl = 0;
        for (double v : re) {
            const bool low = v < thr;
            sl += low ? v : 0.0;
            sh += low ? 0.0 : v;
            nl += low;
        }
        const std::size_t nh = re.size() - nl;
        if (nl == 0 || nh == 0) break;
        const double newLo = sl / double(nl), newHi = sh / double(nh);
        // The split is final once the two means stop moving.
        const bool settled = newLo == lo && newHi == hi;
        lo = newLo;
        hi = newHi;
        if (settled) break;
    }
    levels.lo = lo;
    levels.hi = hi;
    const double thr = 0.5 * (lo + hi);
    a.resize(r.size());
    for (std::size_t k = 0; k < r.size(); ++k) a[k] = cd(re[k] < thr ? lo : hi, 0.0);
}

// Uniformly spaced symbol instants t_k = t0 + k T (samples of the stream).
struct Instants {
    double t0 = 0.0, T = 0.0;
    std::size_t count = 0;
    double at(std::size_t k) const { return t0 + double(k) * T; }
};

// exp(j (phase0 + omega t_k)) for every instant: advanced by one complex
// multiplication per symbol and re-seeded from the exact phase every 256
// symbols, so the error stays near 1e-14 without a sine per symbol.
WorkVec<cd> rotations(double phase0, double omega, const Instants& t) {
    WorkVec<cd> r(t.count);
    const cd step = std::polar(1.0, omega * t.T);
    cd v(1.0, 0.0);
    for (std::size_t k = 0; k < t.count; ++k) {
        v = (k % 256 == 0) ? std::polar(1.0, phase0 + omega * t.at(k)) : v * step;
        r[k] = v;
    }
    return r;
}

struct PhaseLine {
    double phase0 = 0.0;  // rad at sample 0
    double omega = 0.0;   // rad per sample
    cd gain{1.0, 0.0};    // grid units -> stream units
};

void decide(const WorkVec<cd>& norm, const Constellation& c, ModType family,
            WorkVec<cd>& ideal, AskLevels& levels) {
    if (family == MT_ASK) {
        askDecisions(norm, ideal, levels);
        return;
    }
    ideal.resize(norm.size());
    for (std::size_t k = 0; k < norm.size(); ++k) ideal[k] = nearest(c, norm[k]);
}

// Starting line of the decision-directed fit: the phase from the M-th power
// of the symbols against the alphabet's own M-th power, no residual
// frequency, and the gain that matches the mean powers.
PhaseLine blindLine(const WorkVec<cd>& z, const Constellation& c, ModType family, int M) {
    PhaseLine line;
    cd sz(0, 0), sa(0, 0);
    for (const cd& v : z) sz += integerPower(v, M);
    if (family == MT_ASK) {
        sa = 1.0;
    } else {
        for (const cd& a : c.points) sa += integerPower(a, M);
    }
    line.phase0 = (std::arg(sz) - std::arg(sa)) / M;
    const double alphaPower = family == MT_ASK ? 1.0 : meanPower(c.points);
    line.gain = cd(std::sqrt(meanPower(z) / alphaPower), 0.0);
    return line;
}

PhaseLine fitLine(const WorkVec<cd>& z, const Instants& t, const Constellation& c,
                  ModType family, PhaseLine line, int passes, WorkVec<cd>& ideal,
                  WorkVec<cd>& norm);

// The fit on a long block first runs on every stride-th symbol (some 8192 of
// them) until it settles, then once on all (not for ASK, whose levels are
// measured from the decisions and need the whole block at low SNR): the line is then already right
// to a fraction of the noise, so one full-length pass (the costly one) takes
// the decisions it would keep.
PhaseLine decisionDirectedLine(const WorkVec<cd>& z, const Instants& t, const Constellation& c,
                               ModType family, PhaseLine line, WorkVec<cd>& ideal,
                               WorkVec<cd>& norm, bool lineFitted = false) {
    const std::size_t stride = z.size() / 8192;
    // A line already fitted on these symbols (before a small compensation)
    // needs only the full-length pass.
    if (lineFitted && stride >= 2 && family != MT_ASK) return fitLine(z, t, c, family, line, 1, ideal, norm);
    if (stride >= 2 && family != MT_ASK) {
        Instants sparse = t;
        sparse.T = t.T * double(stride);
        sparse.count = (t.count + stride - 1) / stride;
        WorkVec<cd> zs(sparse.count);
        for (std::size_t k = 0; k < sparse.count; ++k) zs[k] = z[k * stride];
        line = fitLine(zs, sparse, c, family, line, 12, ideal, norm);
        return fitLine(z, t, c, family, line, 1, ideal, norm);
    }
    return fitLine(z, t, c, family, line, 12, ideal, norm);
}

// norm_k = z_k exp(-j (phase0 + omega t_k)) / gain: the symbols on the grid
// of the ideal points under a line. One phasor advanced per symbol and
// re-seeded from the exact phase every 256 symbols.
void normalise(const WorkVec<cd>& z, const Instants& t, const PhaseLine& line,
               WorkVec<cd>& norm) {
    norm.resize(z.size());
    const cd inverse = 1.0 / line.gain;
    const cd step = std::polar(1.0, -line.omega * t.T);
    cd v(1.0, 0.0);
    for (std::size_t k = 0; k < z.size(); ++k) {
        v = (k % 256 == 0) ? std::polar(1.0, -(line.phase0 + line.omega * t.at(k))) * inverse
                           : v * step;
        norm[k] = z[k] * v;
    }
}

// Up to `passes` rounds of decisions and line fit, stopping once settled;
// `norm` and `ideal` are left for the final line.
PhaseLine fitLine(const WorkVec<cd>& z, const Instants& t, const Constellation& c,
                  ModType family, PhaseLine line, int passes, WorkVec<cd>& ideal,
                  WorkVec<cd>& norm) {
    const std::size_t K = z.size();
    const double tmid = 0.5 * (t.at(0) + t.at(K - 1));
    WorkVec<cd> previous;
    AskLevels levels;  // ASK: carried from round to round
    for (int it = 0; it < passes; ++it) {
        normalise(z, t, line, norm);
        previous.swap(ideal);
        decide(norm, c, family, ideal, levels);
        // Gauss-Newton step of the squared error sum |r_k - a_k|^2 over the
        // line: with r_k = |r_k| exp(j e_k) a_k / |a_k|, its derivatives in
        // phase and slope are the sums of Im(r_k conj(a_k)) = |r_k||a_k|
        // sin(e_k), near |a_k|^2 e_k. So the weighted fit of e_k (weights
        // |a_k|^2) needs no angle at all, and its fixed point is the line of
        // least error power, which is what MER and EVM are measured against.
        double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
        cd num(0, 0);
        for (std::size_t k = 0; k < K; ++k) {
            const double w = std::norm(ideal[k]);
            const cd prod = norm[k] * std::conj(ideal[k]);
            const double x = t.at(k) - tmid;
            sw += w;
            sx += w * x;
            sy += prod.imag();
            sxx += w * x * x;
            sxy += x * prod.imag();
            num += prod;
        }
        const double den = sw;
        const double d = sw * sxx - sx * sx;
        if (!(sw > 0.0) || !(d > 0.0)) break;
        const double dw = (sw * sxy - sx * sy) / d;
        const double dp = (sy - dw * sx) / sw;
        line.phase0 += dp - dw * tmid;
        line.omega += dw;
        if (den > 0.0) line.gain *= std::abs(num) / den;
        // Settled: same decisions, and the line moved by under a microradian
        // anywhere in the block.
        // ASK levels are re-measured from the decisions on every round and
        // move by rounding alone, so there the line's movement decides.
        const bool sameDecisions = family == MT_ASK ? it > 0 : previous == ideal;
        const bool settled = sameDecisions && std::fabs(dp) < 1e-6 &&
                             std::fabs(dw) * double(K) * t.T < 1e-6;
        if (settled) break;
    }
    normalise(z, t, line, norm);
    decide(norm, c, family, ideal, levels);
    return line;
}

// The stream with a carrier of omega (rad per sample) removed, into out
// (whose storage is reused): one phasor advanced per sample, re-seeded
// every 1024 samples.
void removeCarrier(const WorkVec<cd>& x, double omega, WorkVec<cd>& out) {
    out.resize(x.size());
    const cd step = std::polar(1.0, -omega);
    cd v(1.0, 0.0);
    for (std::size_t n = 0; n < x.size(); ++n) {
        if (n % 1024 == 0) v = std::polar(1.0, -kTwoPi * std::fmod(omega / kTwoPi * double(n), 1.0));
        out[n] = x[n] * v;
        v *= step;
    }
}

WorkVec<cd> symbolsAt(const WorkVec<cd>& y, const Instants& t,
                          const vantrel::meas::FractionalFilter& f) {
    WorkVec<cd> z(t.count);
    for (std::size_t k = 0; k < t.count; ++k) z[k] = f.at(y.data(), long(y.size()), t.at(k));
    return z;
}

Instants instantsOf(const vantrel::meas::SymbolClock& c, std::size_t n, double margin) {
    Instants t;
    if (!c.valid || !(c.period > 0.0)) return t;
    t.T = c.period;
    t.t0 = c.firstInstant + std::ceil((margin - c.firstInstant) / c.period) * c.period;
    const double last = double(n) - margin;
    if (t.t0 < last) t.count = static_cast<std::size_t>(std::ceil((last - t.t0) / t.T));
    return t;
}

// Normalised strength of the carrier's M-th power line over the derotated
// symbols, relative to that of the alphabet with its points equally likely
// (1 when locked). The reference is the alphabet, not the decisions: the
// decisions of noise alone follow the noise and would excuse a missing line.
// ASK levels are never negative, so its line is compared with 1.
double carrierCoherence(const WorkVec<cd>& norm, const WorkVec<cd>& alphabet, int M,
                        bool absolute) {
    auto strength = [M](const WorkVec<cd>& v) {
        cd s(0, 0);
        double mag = 0.0;
        for (const cd& z : v) {
            s += integerPower(z, M);
            mag += integerPower(cd(std::sqrt(std::norm(z)), 0.0), M).real();
        }
        return mag > 0.0 ? std::abs(s) / mag : 0.0;
    };
    const double measured = strength(norm);
    if (absolute) return measured;
    const double reference = strength(alphabet);
    return reference > 0.0 ? measured / reference : 0.0;
}

// Occupied band edge of the shaping pulse in symbol rates: the raised-cosine
// pulses end at (1 + beta) / 2; the others are taken to one symbol rate.
double bandEdge(int filterType, double rolloff) {
    if (filterType == FILTER_RRC || filterType == FILTER_RC) return 0.5 * (1.0 + rolloff);
    return 1.0;
}

// Blind first compensation, so that the first decisions of a dense
// constellation are not thrown by a large origin offset or image: the
// symbols average to zero, so the mean of z_k exp(j Omega t_k) is the
// origin offset; for constellations with E[a^2] = 0 (PSK of 4 or more
// points, QAM), E[d^2 exp(j 2 Omega t)] = 2 alpha beta E|s|^2 gives the
// image ratio beta / conj(alpha).
WorkVec<cd> blindCompensation(const WorkVec<cd>& z, const WorkVec<cd>& turn,
                                  bool circular) {
    const std::size_t K = z.size();
    cd dc(0, 0);
    for (std::size_t k = 0; k < K; ++k) dc += z[k] * turn[k];
    dc /= double(K);
    WorkVec<cd> zc(K);
    cd sq(0, 0);
    double pw = 0.0;
    for (std::size_t k = 0; k < K; ++k) {
        zc[k] = z[k] - dc * std::conj(turn[k]);
        sq += zc[k] * zc[k] * turn[k] * turn[k];
        pw += std::norm(zc[k]);
    }
    if (circular && pw > 0.0) {
        const cd ratio = sq / (2.0 * pw);
        for (std::size_t k = 0; k < K; ++k)
            zc[k] -= ratio * std::conj(turn[k] * turn[k]) * std::conj(zc[k]);
    }
    return zc;
}

}  // namespace

WorkVec<cd> to_analysis_rate(const WorkVec<cd>& raw, double sps, double edge) {
    if (sps == kAnalysisSps) return raw;
    return vantrel::meas::convert_rate(raw, sps / kAnalysisSps,
                                       *vantrel::meas::rate_filter(sps, kAnalysisSps, edge));
}

void measureLinear(MeasurementPipeline& p, VantrelMeasurement& m) {
    const double sps = p.fs / p.rb;
    const double rate = kAnalysisSps * p.rb;  // analysis sample rate, Hz
    WorkVec<cd> converted;
    if (sps != kAnalysisSps) converted = to_analysis_rate(p.raw, sps, bandEdge(p.filterType, p.rolloff));
    const WorkVec<cd>& x = sps != kAnalysisSps ? converted : p.raw;
    const WorkVec<double> h = vantrel::meas::receive_filter(p.filterType, p.rolloff, kAnalysisSps);
    // The clock and the coarse carrier need only a line of |y|^2 and of the
    // M-th power, not symbols free of interference: a receive filter cut to
    // +-2 symbols gives them at a quarter of the cost (it is symmetric, so
    // it moves no instant).
    WorkVec<cd> y = vantrel::meas::filter_centred(
        x, vantrel::meas::receive_filter(p.filterType, p.rolloff, kAnalysisSps, 2.0));
    WorkVec<double> v(y.size());
    for (std::size_t n = 0; n < y.size(); ++n) v[n] = std::norm(y[n]);
    p.clock = vantrel::meas::estimate_symbol_clock(v, kAnalysisSps);
    const Instants t = instantsOf(p.clock, y.size(), double(h.size() / 2) + 20.0);
    if (t.count < 64) return;
    p.instantSps = kAnalysisSps;
    p.instants.resize(t.count);
    for (std::size_t k = 0; k < t.count; ++k) p.instants[k] = t.at(k);
    m.symbolRateErrorPpm = p.clock.rateErrorPpm;
    m.modulationRateHz = rate / t.T;
    if (p.clock.coherence > 0.8 && p.clock.lineRatio > 0.01) m.flags |= VANTREL_MEAS_TIMING_LOCKED;

    const Constellation alpha = constellation(p.family, p.order);
    if (p.family != MT_ASK && alpha.points.empty()) return;
    const int M = powerOrder(p.family, p.order);

    // Coarse carrier from the M-th power line of the symbols (a short
    // interpolator is enough for a line).
    static const vantrel::meas::FractionalFilter coarseInterpolator(0.5, 6, 6.0);
    WorkVec<cd> zM(t.count);
    for (std::size_t k = 0; k < t.count; ++k)
        zM[k] = integerPower(coarseInterpolator.at(y.data(), long(y.size()), t.at(k)), M);
    // The decision-directed fit below refines the frequency over the whole
    // block, so a parabola on the FFT's peak is enough here.
    const double fSym = vantrel::meas::coarse_line(zM.data(), zM.size()) / M;
    const double Omega = kTwoPi * fSym / t.T;  // rad per sample
    // The matched filter evaluated at the instants only, on the stream with
    // the coarse carrier removed.
    const vantrel::meas::FilterRef matched =
        vantrel::meas::matched_interpolator(p.filterType, p.rolloff, kAnalysisSps);
    removeCarrier(x, Omega, y);  // y is spent: its storage takes the derotated stream
    const WorkVec<cd> z = symbolsAt(y, t, *matched);

    const WorkVec<cd> turn = rotations(0.0, Omega, t);  // exp(j Omega t_k)
    const bool circular = (p.family == MT_PSK && p.order >= 4) || p.family == MT_QAM;
    WorkVec<cd> zc = blindCompensation(z, turn, circular);
    WorkVec<cd> ideal, norm, coef, previousCoef;
    PhaseLine line;
    bool imbalanceKnown = false;
    line = blindLine(zc, alpha, p.family, M);
    for (int outer = 0; outer < 3; ++outer) {
        // Each pass starts from the previous line: after the first, the
        // decisions rarely change and one step confirms the fit.
        line = decisionDirectedLine(zc, t, alpha, p.family, line, ideal, norm, outer > 0);
        // Widely-linear fit on the uncompensated symbols: reference s_k, its
        // image conj(s_k) b_k^2 (the derotation by Omega turns it at -2 Omega)
        // and the origin offset b_k = exp(-j Omega t_k), with |b_k| = 1. The
        // normal equations need only five sums:
        //   G = [[S, C, D], [C*, S, E], [D*, E*, K]],  S = sum |s|^2,
        //   C = sum conj(s)^2 b^2, D = sum conj(s) b, E = sum s conj(b).
        const WorkVec<cd> rot = rotations(line.phase0, line.omega, t);
        double S = 0.0;
        cd C(0, 0), D(0, 0), E(0, 0), r0(0, 0), r1(0, 0), r2(0, 0);
        for (std::size_t k = 0; k < t.count; ++k) {
            const cd back = std::conj(turn[k]);
            const cd sk = ideal[k] * rot[k];
            const cd image = std::conj(sk) * back * back;
            S += std::norm(sk);
            C += std::conj(sk) * image;
            D += std::conj(sk) * back;
            E += std::conj(image) * back;
            r0 += std::conj(sk) * z[k];
            r1 += std::conj(image) * z[k];
            r2 += std::conj(back) * z[k];
        }
        vantrel::meas::NormalEquations eq;
        eq.m = 3;
        const cd row0[4] = {S, C, D, r0}, row1[4] = {std::conj(C), S, E, r1},
                 row2[4] = {std::conj(D), std::conj(E), double(t.count), r2};
        for (int j = 0; j < 4; ++j) {
            eq.G[0][j] = row0[j];
            eq.G[1][j] = row1[j];
            eq.G[2][j] = row2[j];
        }
        // The image of a one-dimensional constellation (BPSK, ASK) is only
        // separable from the signal while the carrier turns: |C| / S is the
        // correlation of the reference with its image.
        const bool separable = S > 0 && std::abs(C) / S < 0.9;
        if (!separable || !vantrel::meas::solve_normal_equations(eq, coef)) {
            imbalanceKnown = false;
            break;
        }
        // Once a pass no longer moves the fit, another would not either.
        const bool converged = imbalanceKnown && std::abs(coef[0] - previousCoef[0]) +
                                                         std::abs(coef[1] - previousCoef[1]) +
                                                         std::abs(coef[2] - previousCoef[2]) <
                                                     1e-5 * std::abs(coef[0]);
        imbalanceKnown = true;
        previousCoef = coef;
        if (converged) break;
        const cd ratio = coef[1] / std::conj(coef[0]);
        for (std::size_t k = 0; k < t.count; ++k) {
            const cd back = std::conj(turn[k]);
            const cd d = z[k] - coef[2] * back;
            zc[k] = d - ratio * back * back * std::conj(d);
        }
    }
    if (!imbalanceKnown)
        line = decisionDirectedLine(z, t, alpha, p.family, blindLine(z, alpha, p.family, M), ideal,
                                    norm);

    p.carrierHz = (Omega + line.omega) * rate / kTwoPi;
    p.phase0 = line.phase0;
    p.ideal = ideal;
    m.carrierOffsetHz = p.carrierHz;
    m.symbolCount = static_cast<uint32_t>(t.count);
    if (carrierCoherence(norm, alpha.points, M, p.family == MT_ASK) > 0.5)
        m.flags |= VANTREL_MEAS_CARRIER_LOCKED;

    if (imbalanceKnown) {
        p.alpha = coef[0];
        p.beta = coef[1];
        p.dc = coef[2];
        const vantrel::meas::IqImbalance iq = vantrel::meas::iq_imbalance(coef[0], coef[1]);
        m.iqGainImbalanceDb = iq.gainDb;
        m.quadErrorDeg = iq.quadDeg;
        // The received symbols in grid units with only the origin offset
        // removed: the I/Q imbalance stays in the error vector.
        const WorkVec<cd> rot = rotations(-line.phase0, -line.omega, t);
        const cd inverse = 1.0 / coef[0];
        p.symbols.resize(t.count);
        for (std::size_t k = 0; k < t.count; ++k)
            p.symbols[k] = (z[k] - coef[2] * std::conj(turn[k])) * rot[k] * inverse;
    } else {
        p.symbols = norm;
    }
    measureErrorVector(p, m);
    const double excess = p.filterType == FILTER_RRC || p.filterType == FILTER_RC
                              ? 0.5 * (1.0 + p.rolloff) + 0.15
                              : 2.0;
    measureBand(p, excess * m.modulationRateHz, m);
    if (!imbalanceKnown) m.iqOffsetDb = std::numeric_limits<double>::quiet_NaN();
}

void measureDigital(MeasurementPipeline& p, VantrelMeasurement& m) {
    if (!(p.rb > 0.0) || !(p.fs / p.rb >= 1.0)) return;
    if (p.family == MT_FSK) {
        measureFsk(p, m);
    } else {
        measureLinear(p, m);
    }
}
