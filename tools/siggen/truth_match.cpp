#include "truth_match.h"

#include <cmath>
#include <complex>
#include <vector>

namespace vantrel::siggen {

namespace {

constexpr double kPi = 3.141592653589793;

// Label of the alphabet point nearest to p.
int nearestLabel(const Alphabet& a, std::complex<double> p) {
    int best = 0;
    double bestDist = INFINITY;
    for (size_t s = 0; s < a.points.size(); ++s) {
        const double d = std::norm(a.points[s] - p);
        if (d < bestDist) {
            bestDist = d;
            best = static_cast<int>(s);
        }
    }
    return best;
}

// relabel[r][s]: the label symbol s carries once the constellation is rotated
// by the r-th symmetry.
std::vector<std::vector<int>> rotatedLabels(const Result& capture) {
    const Alphabet a = alphabetFor(capture.config.mode, capture.config.askLowLevel);
    const int size = static_cast<int>(a.points.size());
    int rotations = 1;
    double step = 0.0;
    if (capture.family == Family::PSK) {
        rotations = capture.order;
        step = 2.0 * kPi / capture.order;
    } else if (capture.family == Family::QAM) {
        rotations = 4;
        step = kPi / 2.0;
    }
    std::vector<std::vector<int>> relabel(rotations, std::vector<int>(size));
    for (int r = 0; r < rotations; ++r) {
        const std::complex<double> turn = std::polar(1.0, r * step);
        for (int s = 0; s < size; ++s) relabel[r][s] = nearestLabel(a, a.points[s] * turn);
    }
    return relabel;
}

}  // namespace

Match matchDecisions(const Result& capture, const std::uint32_t* decided, std::size_t count) {
    Match best;
    const std::vector<int>& sent = capture.symbols;
    if (count == 0 || decided == nullptr || count > sent.size()) return best;
    const std::vector<std::vector<int>> relabel = rotatedLabels(capture);
    best.errors = static_cast<long>(count) + 1;
    const long lastOffset = static_cast<long>(sent.size() - count);
    for (size_t r = 0; r < relabel.size(); ++r) {
        for (long offset = 0; offset <= lastOffset; ++offset) {
            long errors = 0;
            for (size_t i = 0; i < count && errors < best.errors; ++i) {
                const int s = sent[static_cast<size_t>(offset) + i];
                if (static_cast<std::uint32_t>(relabel[r][s]) != decided[i]) ++errors;
            }
            if (errors < best.errors) {
                best = Match{offset, static_cast<int>(r), static_cast<long>(count), errors};
            }
        }
    }
    return best;
}

}  // namespace vantrel::siggen
