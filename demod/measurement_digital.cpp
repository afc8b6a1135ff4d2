// Measurement mode, digital families.
//
// PSK, QAM and ASK:
//  1. matched filter at the capture's own rate (any samples per symbol);
//  2. symbol clock from the symbol-rate line of |y|^2, rate and phase fitted
//     across the whole capture (symbol-rate error, instants);
//  3. coarse carrier from the M-th power of the symbols (M = 2, 4, 8 for
//     PSK, 4 for QAM, 1 for ASK whose amplitudes are never negative);
//  4. carrier removed from the raw samples, matched filter again, symbols
//     interpolated at the instants;
//  5. decision-directed fit of a straight phase line (phase and residual
//     frequency) through arg(z_k conj(a_k)), iterated with the decisions;
//  6. widely-linear least squares of the symbols on the ideal points, their
//     image and a constant: gain, image (gain imbalance, quadrature error)
//     and the origin offset; the symbols are compensated and steps 5-6 run
//     once more.
// FSK: the instantaneous frequency, its symbol-rate line for the clock, and a
// regression of each symbol's phase advance on the decided levels of the
// symbol and its neighbours for the carrier.
#include <algorithm>
#include <cmath>
#include <limits>

#include "measurement.h"

using vantrel::meas::cd;

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 6.283185307179586;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Ideal points of the linear families, on the grid of odd integers for QAM
// and on the unit circle for PSK. ASK is handled apart (its levels are
// measured).
std::vector<cd> alphabet(ModType family, int order) {
    std::vector<cd> a;
    if (family == MT_PSK) {
        if (order == 2) return {cd(1, 0), cd(-1, 0)};
        for (int k = 0; k < order; ++k) a.push_back(std::polar(1.0, (2 * k + 1) * kPi / order));
        return a;
    }
    if (family != MT_QAM) return a;
    int side = 0, corner = 1000;  // corner: |i| and |q| both beyond it are absent
    switch (order) {
    case 16: side = 4; break;
    case 32: side = 6; corner = 3; break;
    case 64: side = 8; break;
    case 128: side = 12; corner = 7; break;
    case 256: side = 16; break;
    default: return a;
    }
    for (int i = 0; i < side; ++i) {
        for (int q = 0; q < side; ++q) {
            const int re = 2 * i - side + 1, im = 2 * q - side + 1;
            if (std::abs(re) > corner && std::abs(im) > corner) continue;
            a.emplace_back(re, im);
        }
    }
    return a;
}

int powerOrder(ModType family, int order) {
    if (family == MT_PSK) return order;
    if (family == MT_QAM) return 4;
    return 1;  // ASK
}

double meanPower(const std::vector<cd>& v) {
    double p = 0.0;
    for (const cd& z : v) p += std::norm(z);
    return v.empty() ? 0.0 : p / double(v.size());
}

cd nearest(const std::vector<cd>& alpha, cd z) {
    cd best = alpha.front();
    double bd = std::norm(z - best);
    for (const cd& a : alpha) {
        const double d = std::norm(z - a);
        if (d < bd) {
            bd = d;
            best = a;
        }
    }
    return best;
}

// Two-level decisions of ASK on the real axis: the levels are the means of
// the two clusters (k-means from the 10th and 90th percentiles).
std::vector<cd> askDecisions(const std::vector<cd>& r) {
    std::vector<double> re(r.size());
    for (std::size_t k = 0; k < r.size(); ++k) re[k] = r[k].real();
    std::vector<double> sorted = re;
    std::sort(sorted.begin(), sorted.end());
    double lo = sorted[sorted.size() / 10], hi = sorted[sorted.size() * 9 / 10];
    for (int it = 0; it < 20; ++it) {
        const double thr = 0.5 * (lo + hi);
        double sl = 0, sh = 0;
        std::size_t nl = 0, nh = 0;
        for (double v : re) {
            if (v < thr) {
                sl += v;
                ++nl;
            } else {
                sh += v;
                ++nh;
            }
        }
        if (nl == 0 || nh == 0) break;
        lo = sl / double(nl);
        hi = sh / double(nh);
    }
    const double thr = 0.5 * (lo + hi);
    std::vector<cd> a(r.size());
    for (std::size_t k = 0; k < r.size(); ++k) a[k] = cd(re[k] < thr ? lo : hi, 0.0);
    return a;
}

struct PhaseLine {
    double phase0 = 0.0;  // rad at sample 0
    double omega = 0.0;   // rad per sample
};

// Decision-directed phase line through the symbols z_k at instants t_k:
// repeated decisions and weighted straight-line fits of the phase error.
// Returns the decided ideal points (grid units) in `ideal` and the symbols
// normalised to the grid in `norm`.
PhaseLine decisionDirectedLine(const std::vector<cd>& z, const std::vector<double>& t,
                               const std::vector<cd>& alpha, ModType family, int M,
                               std::vector<cd>& ideal, std::vector<cd>& norm) {
    const std::size_t K = z.size();
    PhaseLine line;
    // Initial phase from the M-th power against the alphabet's own M-th power.
    cd sz(0, 0), sa(0, 0);
    for (const cd& v : z) sz += std::pow(v, M);
    if (family == MT_ASK) {
        sa = 1.0;
    } else {
        for (const cd& a : alpha) sa += std::pow(a, M);
    }
    line.phase0 = (std::arg(sz) - std::arg(sa)) / M;
    const double tmid = 0.5 * (t.front() + t.back());
    const double alphaPower = family == MT_ASK ? 1.0 : meanPower(alpha);
    double gain = std::sqrt(meanPower(z) / alphaPower);
    cd cgain(gain, 0.0);
    ideal.assign(K, cd(0, 0));
    norm.assign(K, cd(0, 0));
    for (int it = 0; it < 6; ++it) {
        for (std::size_t k = 0; k < K; ++k)
            norm[k] = z[k] * std::polar(1.0, -(line.phase0 + line.omega * t[k])) / cgain;
        if (family == MT_ASK) {
            ideal = askDecisions(norm);
        } else {
            for (std::size_t k = 0; k < K; ++k) ideal[k] = nearest(alpha, norm[k]);
        }
        double sw = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
        cd num(0, 0);
        double den = 0;
        for (std::size_t k = 0; k < K; ++k) {
            const double w = std::norm(ideal[k]);
            if (!(w > 0.0)) continue;
            const double e = std::arg(norm[k] * std::conj(ideal[k]));
            const double x = t[k] - tmid;
            sw += w;
            sx += w * x;
            sy += w * e;
            sxx += w * x * x;
            sxy += w * x * e;
            num += norm[k] * std::conj(ideal[k]);
            den += w;
        }
        const double d = sw * sxx - sx * sx;
        if (!(sw > 0.0) || !(d > 0.0)) break;
        const double dw = (sw * sxy - sx * sy) / d;
        const double dp = (sy - dw * sx) / sw;
        line.phase0 += dp - dw * tmid;
        line.omega += dw;
        if (den > 0.0) cgain *= std::abs(num) / den;
    }
    for (std::size_t k = 0; k < K; ++k)
        norm[k] = z[k] * std::polar(1.0, -(line.phase0 + line.omega * t[k])) / cgain;
    return line;
}

// Matched-filter outputs of the raw block with a carrier of omega (rad per
// sample) removed, at the given instants.
std::vector<cd> symbolsAt(const std::vector<cd>& raw, double omega,
                          const std::vector<double>& h, const std::vector<double>& t) {
    std::vector<cd> x(raw.size());
    for (std::size_t n = 0; n < raw.size(); ++n)
        x[n] = raw[n] * std::polar(1.0, -kTwoPi * std::fmod(omega / kTwoPi * double(n), 1.0));
    const std::vector<cd> y = vantrel::meas::filter_centred(x, h);
    std::vector<cd> z(t.size());
    for (std::size_t k = 0; k < t.size(); ++k) z[k] = vantrel::meas::interpolate_at(y, t[k]);
    return z;
}

std::vector<double> instantsOf(const vantrel::meas::SymbolClock& c, std::size_t n,
                               double margin) {
    std::vector<double> t;
    if (!c.valid || !(c.period > 0.0)) return t;
    const double first = c.firstInstant + std::ceil((margin - c.firstInstant) / c.period) * c.period;
    for (double v = first; v < double(n) - margin; v += c.period) t.push_back(v);
    return t;
}

// Normalised strength of the carrier's M-th power line over the derotated
// symbols, relative to that of the ideal alphabet (1 when locked). ASK levels
// are never negative, so its line is compared with 1 (the decided levels of
// noise alone could be of either sign and would excuse a missing line).
double carrierCoherence(const std::vector<cd>& norm, const std::vector<cd>& ideal, int M,
                        bool absolute) {
    cd s(0, 0), sa(0, 0);
    double m = 0.0, ma = 0.0;
    for (std::size_t k = 0; k < norm.size(); ++k) {
        s += std::pow(norm[k], M);
        m += std::pow(std::abs(norm[k]), M);
        sa += std::pow(ideal[k], M);
        ma += std::pow(std::abs(ideal[k]), M);
    }
    if (absolute) return m > 0.0 ? std::abs(s) / m : 0.0;
    if (!(m > 0.0) || !(ma > 0.0) || !(std::abs(sa) > 0.0)) return 0.0;
    return (std::abs(s) / m) / (std::abs(sa) / ma);
}

void measureLinear(MeasurementPipeline& p, VantrelMeasurement& m) {
    const double sps = p.fs / p.rb;
    const std::vector<double> h = vantrel::meas::receive_filter(p.filterType, p.rolloff, sps);
    const std::vector<cd> y = vantrel::meas::filter_centred(p.raw, h);
    std::vector<double> v(y.size());
    for (std::size_t n = 0; n < y.size(); ++n) v[n] = std::norm(y[n]);
    p.clock = vantrel::meas::estimate_symbol_clock(v, sps);
    const double margin = double(h.size() / 2) + 20.0;
    p.instants = instantsOf(p.clock, p.raw.size(), margin);
    const std::vector<double>& t = p.instants;
    if (t.size() < 64) return;
    const double T = p.clock.period;
    m.symbolRateErrorPpm = p.clock.rateErrorPpm;
    m.modulationRateHz = p.fs / T;
    if (p.clock.coherence > 0.8 && p.clock.lineRatio > 0.01) m.flags |= VANTREL_MEAS_TIMING_LOCKED;

    const std::vector<cd> alpha = alphabet(p.family, p.order);
    if (p.family != MT_ASK && alpha.empty()) return;
    const int M = powerOrder(p.family, p.order);

    // Coarse carrier from the M-th power line of the symbols.
    std::vector<cd> z0(t.size()), zM(t.size());
    for (std::size_t k = 0; k < t.size(); ++k) {
        z0[k] = vantrel::meas::interpolate_at(y, t[k]);
        zM[k] = std::pow(z0[k], M);
    }
    const double fSym = vantrel::meas::strongest_line(zM.data(), zM.size(), false, nullptr,
                                                      nullptr) / M;  // cycles per symbol
    const double Omega = kTwoPi * fSym / T;                          // rad per sample
    const std::vector<cd> z = symbolsAt(p.raw, Omega, h, t);

    // Blind first compensation, so that the first decisions of a dense
    // constellation are not thrown by a large origin offset or image: the
    // symbols average to zero, so the mean of z_k exp(j Omega t_k) is the
    // origin offset; for constellations with E[a^2] = 0 (PSK of 4 or more
    // points, QAM), E[d^2 exp(j 2 Omega t)] = 2 alpha beta E|s|^2 gives the
    // image ratio beta / conj(alpha).
    std::vector<cd> zc(t.size());
    {
        cd dc(0, 0);
        for (std::size_t k = 0; k < t.size(); ++k) dc += z[k] * std::polar(1.0, Omega * t[k]);
        dc /= double(t.size());
        cd sq(0, 0);
        double pw = 0.0;
        for (std::size_t k = 0; k < t.size(); ++k) {
            zc[k] = z[k] - dc * std::polar(1.0, -Omega * t[k]);
            sq += zc[k] * zc[k] * std::polar(1.0, 2.0 * Omega * t[k]);
            pw += std::norm(zc[k]);
        }
        const bool circular = (p.family == MT_PSK && p.order >= 4) || p.family == MT_QAM;
        if (circular && pw > 0.0) {
            const cd ratio = sq / (2.0 * pw);
            for (std::size_t k = 0; k < t.size(); ++k)
                zc[k] -= ratio * std::polar(1.0, -2.0 * Omega * t[k]) * std::conj(zc[k]);
        }
    }
    std::vector<cd> ideal, norm;
    PhaseLine line;
    std::vector<cd> coef;
    bool imbalanceKnown = false;
    for (int outer = 0; outer < 3; ++outer) {
        line = decisionDirectedLine(zc, t, alpha, p.family, M, ideal, norm);
        // Widely-linear fit on the uncompensated symbols: reference, its
        // image (which the derotation by Omega turns at -2 Omega) and the
        // origin offset (turning at -Omega).
        std::vector<std::vector<cd>> u(3, std::vector<cd>(t.size()));
        for (std::size_t k = 0; k < t.size(); ++k) {
            const cd s = ideal[k] * std::polar(1.0, line.phase0 + line.omega * t[k]);
            u[0][k] = s;
            u[1][k] = std::conj(s) * std::polar(1.0, -2.0 * Omega * t[k]);
            u[2][k] = std::polar(1.0, -Omega * t[k]);
        }
        // The image of a one-dimensional constellation (BPSK, ASK) is only
        // separable from the signal while the carrier turns.
        cd cross(0, 0);
        double n0 = 0, n1 = 0;
        for (std::size_t k = 0; k < t.size(); ++k) {
            cross += std::conj(u[0][k]) * u[1][k];
            n0 += std::norm(u[0][k]);
            n1 += std::norm(u[1][k]);
        }
        const bool separable = n0 > 0 && n1 > 0 && std::abs(cross) / std::sqrt(n0 * n1) < 0.9;
        if (!separable || !vantrel::meas::complex_least_squares(z, u, coef)) {
            imbalanceKnown = false;
            break;
        }
        imbalanceKnown = true;
        const cd ratio = coef[1] / std::conj(coef[0]);
        for (std::size_t k = 0; k < t.size(); ++k) {
            const cd off = coef[2] * std::polar(1.0, -Omega * t[k]);
            const cd d = z[k] - off;
            zc[k] = d - ratio * std::polar(1.0, -2.0 * Omega * t[k]) * std::conj(d);
        }
    }
    if (!imbalanceKnown) line = decisionDirectedLine(z, t, alpha, p.family, M, ideal, norm);

    p.carrierHz = (Omega + line.omega) * p.fs / kTwoPi;
    p.phase0 = line.phase0;
    p.symbols = norm;
    p.ideal = ideal;
    m.carrierOffsetHz = p.carrierHz;
    m.symbolCount = static_cast<uint32_t>(t.size());
    if (carrierCoherence(norm, ideal, M, p.family == MT_ASK) > 0.5)
        m.flags |= VANTREL_MEAS_CARRIER_LOCKED;

    if (imbalanceKnown) {
        p.alpha = coef[0];
        p.beta = coef[1];
        p.dc = coef[2];
        const vantrel::meas::IqImbalance iq = vantrel::meas::iq_imbalance(coef[0], coef[1]);
        m.iqGainImbalanceDb = iq.gainDb;
        m.quadErrorDeg = iq.quadDeg;
    }
    const double excess = p.filterType == FILTER_RRC || p.filterType == FILTER_RC
                              ? 0.5 * (1.0 + p.rolloff) + 0.15
                              : 2.0;
    measureBand(p, excess * m.modulationRateHz, m);
    if (!imbalanceKnown) m.iqOffsetDb = kNaN;
}

// Real least squares by Gaussian elimination with partial pivoting; n <= 8.
bool realLeastSquares(const std::vector<std::vector<double>>& rows, const std::vector<double>& y,
                      std::vector<double>& p) {
    const std::size_t n = rows.empty() ? 0 : rows[0].size();
    if (n == 0 || n > 8) return false;
    double A[8][9] = {};
    for (std::size_t k = 0; k < y.size(); ++k)
        for (std::size_t i = 0; i < n; ++i) {
            for (std::size_t j = 0; j < n; ++j) A[i][j] += rows[k][i] * rows[k][j];
            A[i][n] += rows[k][i] * y[k];
        }
    for (std::size_t c = 0; c < n; ++c) {
        std::size_t piv = c;
        for (std::size_t r = c + 1; r < n; ++r)
            if (std::fabs(A[r][c]) > std::fabs(A[piv][c])) piv = r;
        for (std::size_t k = 0; k <= n; ++k) std::swap(A[c][k], A[piv][k]);
        if (!(std::fabs(A[c][c]) > 0.0)) return false;
        for (std::size_t r = 0; r < n; ++r) {
            if (r == c) continue;
            const double q = A[r][c] / A[c][c];
            for (std::size_t k = c; k <= n; ++k) A[r][k] -= q * A[c][k];
        }
    }
    p.assign(n, 0.0);
    for (std::size_t i = 0; i < n; ++i) p[i] = A[i][n] / A[i][i];
    return true;
}

double linearAt(const std::vector<double>& x, double t) {
    if (x.empty()) return 0.0;
    if (t <= 0.0) return x.front();
    const std::size_t i = static_cast<std::size_t>(t);
    if (i + 1 >= x.size()) return x.back();
    const double f = t - double(i);
    return x[i] + f * (x[i + 1] - x[i]);
}

void measureFsk(MeasurementPipeline& p, VantrelMeasurement& m) {
    const std::size_t n = p.raw.size();
    const double sps = p.fs / p.rb;
    // Unwrapped phase and instantaneous frequency (Hz).
    std::vector<double> phase(n, 0.0);
    std::vector<cd> freq(n, cd(0, 0));
    for (std::size_t i = 1; i < n; ++i) {
        const double d = std::arg(p.raw[i] * std::conj(p.raw[i - 1]));
        phase[i] = phase[i - 1] + d;
        freq[i] = d * p.fs / kTwoPi;
    }
    if (n > 1) freq[0] = freq[1];
    // One-symbol average of the frequency: free of interference between
    // symbols for rectangular frequency pulses, and its square carries the
    // symbol-rate line used for the clock.
    const std::vector<double> h = vantrel::meas::receive_filter(FILTER_RECT, 0.0, sps);
    const std::vector<cd> g = vantrel::meas::filter_centred(freq, h);
    double mean = 0.0;
    for (const cd& v : g) mean += v.real();
    mean /= double(n);
    std::vector<double> v(n), gr(n);
    for (std::size_t i = 0; i < n; ++i) {
        gr[i] = g[i].real();
        v[i] = (gr[i] - mean) * (gr[i] - mean);
    }
    p.clock = vantrel::meas::estimate_symbol_clock(v, sps);
    p.instants = instantsOf(p.clock, n, double(h.size() / 2) + 20.0 + 2.0 * sps);
    const std::vector<double>& t = p.instants;
    if (t.size() < 64) return;
    const double T = p.clock.period;
    m.symbolRateErrorPpm = p.clock.rateErrorPpm;
    m.modulationRateHz = p.fs / T;
    if (p.clock.coherence > 0.8 && p.clock.lineRatio > 0.01) m.flags |= VANTREL_MEAS_TIMING_LOCKED;

    // Per-symbol phase advance in Hz and the symbol-centre frequency.
    const std::size_t K = t.size();
    std::vector<double> adv(K), centre(K);
    for (std::size_t k = 0; k < K; ++k) {
        adv[k] = (linearAt(phase, t[k] + 0.5 * T) - linearAt(phase, t[k] - 0.5 * T)) * p.fs /
                 (kTwoPi * T);
        centre[k] = vantrel::meas::interpolate_at(gr, t[k]);
    }
    const bool four = p.order == 4;
    double fc = 0.0;
    for (double a : adv) fc += a;
    fc /= double(K);
    std::vector<int> level(K, 0);
    std::vector<double> coef;
    double residual = 0.0;
    for (int it = 0; it < 4; ++it) {
        // Decisions about the current carrier estimate; four levels are
        // spaced by the mean distance from the carrier, E|v| = 2.
        double meanAbs = 0.0;
        for (double c : centre) meanAbs += std::fabs(c - fc);
        meanAbs /= double(K);
        for (std::size_t k = 0; k < K; ++k) {
            const double d = centre[k] - fc;
            if (!four) {
                level[k] = d < 0 ? -1 : 1;
            } else {
                const double unit = meanAbs / 2.0;
                level[k] = d < -2 * unit ? -3 : d < 0 ? -1 : d < 2 * unit ? 1 : 3;
            }
        }
        // Regression adv_k = fc + sum_{j=-2..2} d_j level_{k+j}: the
        // neighbours' terms absorb the interference of a shaped frequency
        // pulse, so the intercept is the carrier alone.
        std::vector<std::vector<double>> rows;
        std::vector<double> y;
        for (std::size_t k = 2; k + 2 < K; ++k) {
            rows.push_back({1.0, double(level[k - 2]), double(level[k - 1]), double(level[k]),
                            double(level[k + 1]), double(level[k + 2])});
            y.push_back(adv[k]);
        }
        if (!realLeastSquares(rows, y, coef)) return;
        fc = coef[0];
        residual = 0.0;
        for (std::size_t r = 0; r < rows.size(); ++r) {
            double model = 0.0;
            for (std::size_t j = 0; j < coef.size(); ++j) model += coef[j] * rows[r][j];
            residual += (y[r] - model) * (y[r] - model);
        }
        residual = std::sqrt(residual / double(rows.size()));
    }
    p.carrierHz = fc;
    p.fskFrequency.assign(K, 0.0);
    for (std::size_t k = 0; k < K; ++k) p.fskFrequency[k] = centre[k] - fc;
    p.fskLevel = level;
    m.carrierOffsetHz = fc;
    m.symbolCount = static_cast<uint32_t>(K);
    const double step = std::fabs(coef[3]);
    if (step > 0.0 && residual < 0.2 * step) m.flags |= VANTREL_MEAS_CARRIER_LOCKED;
    const double outer = step * (four ? 3.0 : 1.0);
    measureBand(p, outer + 1.5 * m.modulationRateHz, m);
    // The I/Q figures of a constant-envelope FSK signal are not estimated in
    // this release.
    m.iqOffsetDb = kNaN;
}

}  // namespace

void measureDigital(MeasurementPipeline& p, VantrelMeasurement& m) {
    if (!(p.rb > 0.0) || !(p.fs / p.rb >= 2.0)) return;
    if (p.family == MT_FSK) {
        measureFsk(p, m);
    } else {
        measureLinear(p, m);
    }
}
