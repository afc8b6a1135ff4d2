// Widely-linear least squares and the I/Q impairments it reveals.
#include <cmath>

#include "measurement_dsp.h"

namespace vantrel::meas {

// Normal equations G p = r with G_ij = sum conj(u_i) u_j and r_i = sum
// conj(u_i) y, solved by complex Gaussian elimination with partial pivoting.
bool complex_least_squares(const WorkVec<cd>& y, const std::vector<WorkVec<cd>>& u,
                           WorkVec<cd>& p) {
    const std::size_t m = u.size();
    if (m == 0 || m > 4) return false;
    NormalEquations eq;
    eq.m = m;
    for (std::size_t k = 0; k < y.size(); ++k) {
        for (std::size_t i = 0; i < m; ++i) {
            const cd ci = std::conj(u[i][k]);
            for (std::size_t j = 0; j < m; ++j) eq.G[i][j] += ci * u[j][k];
            eq.G[i][m] += ci * y[k];
        }
    }
    return solve_normal_equations(eq, p);
}

bool solve_normal_equations(NormalEquations eq, WorkVec<cd>& p) {
    const std::size_t m = eq.m;
    if (m == 0 || m > 4) return false;
    double scale = 0.0;
    for (std::size_t i = 0; i < m; ++i) scale = std::fmax(scale, std::abs(eq.G[i][i]));
    for (std::size_t c = 0; c < m; ++c) {
        std::size_t piv = c;
        for (std::size_t r = c + 1; r < m; ++r)
            if (std::abs(eq.G[r][c]) > std::abs(eq.G[piv][c])) piv = r;
        for (std::size_t k = 0; k <= m; ++k) std::swap(eq.G[c][k], eq.G[piv][k]);
        if (!(std::abs(eq.G[c][c]) > 1e-12 * scale)) return false;
        for (std::size_t r = 0; r < m; ++r) {
            if (r == c) continue;
            const cd q = eq.G[r][c] / eq.G[c][c];
            for (std::size_t k = c; k <= m; ++k) eq.G[r][k] -= q * eq.G[c][k];
        }
    }
    p.assign(m, cd(0.0, 0.0));
    for (std::size_t i = 0; i < m; ++i) p[i] = eq.G[i][m] / eq.G[i][i];
    return true;
}

IqImbalance iq_imbalance(cd alpha, cd beta) {
    const double w11 = (alpha + beta).real(), w12 = -(alpha - beta).imag();
    const double w21 = (alpha + beta).imag(), w22 = (alpha - beta).real();
    const double p11 = w11 * w11 + w12 * w12;
    const double p22 = w21 * w21 + w22 * w22;
    const double p12 = w11 * w21 + w12 * w22;
    IqImbalance r;
    if (!(p11 > 0.0) || !(p22 > 0.0)) {
        r.gainDb = r.quadDeg = std::nan("");
        return r;
    }
    r.gainDb = 10.0 * std::log10(p11 / p22);
    double s = p12 / std::sqrt(p11 * p22);
    s = std::fmax(-1.0, std::fmin(1.0, s));
    r.quadDeg = std::asin(s) * 57.29577951308232;
    return r;
}

}  // namespace vantrel::meas
