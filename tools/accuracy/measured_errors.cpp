#include "measured_errors.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

namespace vantrel::accuracy {

namespace sg = vantrel::siggen;
using Cplx = std::complex<double>;

namespace {

std::vector<Cplx> symmetries(sg::Family f, int order) {
    int n = 1;
    if (f == sg::Family::PSK) n = order;
    if (f == sg::Family::QAM) n = 4;
    std::vector<Cplx> r;
    for (int k = 0; k < n; ++k) r.push_back(std::polar(1.0, 2.0 * 3.141592653589793 * k / n));
    return r;
}

}  // namespace

MeasuredErrors countMeasuredErrors(const sg::Result& r, const MeasurementPipeline& p) {
    MeasuredErrors out;
    if (!(p.instantSps > 0.0)) return out;
    const double toRaw = (r.fs / r.config.Rb) / p.instantSps;
    std::vector<long> truthIndex(p.instants.size(), -1);
    for (std::size_t k = 0; k < p.instants.size(); ++k) {
        const double j = std::round((p.instants[k] * toRaw - r.firstSymbolSample) / r.symbolPeriod);
        if (j >= 0 && j < double(r.points.size())) truthIndex[k] = long(j);
    }
    if (r.family == sg::Family::FSK) {
        for (std::size_t k = 0; k < p.fskLevel.size() && k < truthIndex.size(); ++k) {
            if (truthIndex[k] < 0) continue;
            const double t = r.points[std::size_t(truthIndex[k])].real();
            // Two-level decisions are +-1 whatever the levels sent (code 3
            // sends the outer pair of the four-level alphabet).
            const bool ok = r.order == 2 ? (t > 0) == (p.fskLevel[k] > 0) : t == p.fskLevel[k];
            ++out.compared;
            if (!ok) ++out.errors;
        }
        return out;
    }
    double hi = -1e300;
    for (const Cplx& a : p.ideal) hi = std::max(hi, a.real());
    bool first = true;
    for (const Cplx& rot : symmetries(r.family, r.order)) {
        MeasuredErrors e;
        for (std::size_t k = 0; k < p.ideal.size() && k < truthIndex.size(); ++k) {
            if (truthIndex[k] < 0) continue;
            const Cplx t = r.points[std::size_t(truthIndex[k])];
            const bool ok = r.family == sg::Family::ASK ? (p.ideal[k].real() == hi) == (t.real() == 1.0)
                                                        : std::norm(p.ideal[k] * rot - t) < 1e-6;
            ++e.compared;
            if (!ok) ++e.errors;
        }
        if (first || e.errors < out.errors) out = e;
        first = false;
    }
    return out;
}

}  // namespace vantrel::accuracy
