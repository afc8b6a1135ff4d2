// Summary statistics of the per-symbol error arrays.
#include "statistics.h"

#include <cmath>
#include <cstdint>

double rms_of(const double* v, int n) {
    if (n <= 0) return 0.0;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += v[i] * v[i];
    return std::sqrt(sum / n);
}

double peak_of(const double* v, int n) {
    double peak = 0.0;
    for (int i = 0; i < n; ++i)
        if (v[i] > peak) peak = v[i];
    return peak;
}

double peak_abs_of(const double* v, int n) {
    double peak = 0.0;
    for (int i = 0; i < n; ++i)
        if (std::fabs(v[i]) > peak) peak = std::fabs(v[i]);
    return peak;
}

namespace {
constexpr uint32_t kSpan = 800;  // symbols summarised; every mean divides by 800.0
constexpr double kPi = 3.141592653589793;

struct RmsPeak {
    double rms;
    double peak;
};

// Over v[from] .. v[len - 1]: sqrt(sum v^2 / 800.0) and the largest value
// (running maximum from 0.0, strictly larger replaces, so negatives never
// become the peak). No term when from >= len; more than 800 terms are still
// divided by 800.0.
RmsPeak span_rms_peak(const double* v, uint32_t from, uint32_t len) {
    double sum = 0.0;
    double peak = 0.0;
    for (uint32_t i = from; i < len; ++i) {
        sum += v[i] * v[i];
        if (v[i] > peak) peak = v[i];
    }
    return RmsPeak{std::sqrt(sum / 800.0), peak};
}

// Phase errors in radians over the same span, figures in degrees:
// d = (e 180) / pi, RMS over 800.0, and the signed extreme: the largest d
// when its magnitude strictly exceeds that of the smallest d, else the
// smallest. With no term the extremes keep their starting values -1e30 and
// 1e30, a tie, so the peak is 1e30.
RmsPeak span_phase_degrees(const double* v, uint32_t from, uint32_t len) {
    double sum = 0.0;
    double hiDeg = -1e30;
    double loDeg = 1e30;
    for (uint32_t i = from; i < len; ++i) {
        const double d = (v[i] * 180.0) / kPi;
        sum += d * d;
        if (d > hiDeg) hiDeg = d;
        if (d < loDeg) loDeg = d;
    }
    const double peak = std::fabs(hiDeg) > std::fabs(loDeg) ? hiDeg : loDeg;
    return RmsPeak{std::sqrt(sum / 800.0), peak};
}
}  // namespace

// Replaces the six summary figures by statistics over the last 800 entries of
// the EVM array. One start index s = evmLen - 800 serves all three arrays, so
// the magnitude and phase spans are aligned on the EVM count, not their own:
// a shorter array contributes fewer (possibly no) terms, a longer one more.
// Counts and indices are unsigned 32-bit throughout.
//   analog, or evmLen <= 799           -> all six 0.0
//   magErrLen < 800                    -> magnitude figures 0.0
//   ASK, FSK, or phaseErrLen <= 799    -> phase figures 0.0
// A null array pointer with a count is treated like a short array (figures
// 0.0) rather than read.
void summariseLast800(ModType family, DisplayData* out) {
    const uint32_t evmLen = out->evmLen;
    const uint32_t magLen = out->magErrLen;
    const uint32_t phaseLen = out->phaseErrLen;
    const int fam = static_cast<int>(family);

    RmsPeak evm{0.0, 0.0};
    RmsPeak mag{0.0, 0.0};
    RmsPeak phase{0.0, 0.0};
    if (fam != MT_ANALOG && evmLen > kSpan - 1 && out->evm != nullptr) {
        const uint32_t s = evmLen - kSpan;
        evm = span_rms_peak(out->evm, s, evmLen);
        if (magLen >= kSpan && out->magErr != nullptr)
            mag = span_rms_peak(out->magErr, s, magLen);
        if (fam != MT_ASK && fam != MT_FSK && phaseLen > kSpan - 1 && out->phaseErr != nullptr)
            phase = span_phase_degrees(out->phaseErr, s, phaseLen);
    }

    // The record is packed: assign each field, never through a pointer.
    out->evmRms = evm.rms;
    out->evmPeak = evm.peak;
    out->magErrRms = mag.rms;
    out->magErrPeak = mag.peak;
    out->phaseErrRms = phase.rms;
    out->phaseErrPeak = phase.peak;
}
