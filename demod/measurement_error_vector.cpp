// Measurement mode: error-vector figures of the linear families.
//
// With r_k the received symbol in grid units (carrier, timing, gain and the
// origin offset removed) and a_k the decided ideal point, over every settled
// symbol of the block:
//   MER  = 10 log10( sum |a_k|^2 / sum |r_k - a_k|^2 )            dB
//   EVM  = 100 sqrt( sum |r_k - a_k|^2 / sum |a_k|^2 )            % rms
// so EVM is normalised to the RMS of the ideal points and
// EVM = 100 10^(-MER/20) holds exactly. The peak and the 95th percentile
// take the per-symbol EVM 100 |r_k - a_k| / rms(a). Magnitude error is
// (|r_k| - |a_k|) / rms(a) and phase error arg(r_k conj(a_k)), both as RMS
// (the phase error over symbols whose ideal point is not the origin).
#include <algorithm>
#include <cmath>

#include "measurement.h"

void measureErrorVector(const MeasurementPipeline& p, VantrelMeasurement& m) {
    const std::size_t K = std::min(p.symbols.size(), p.ideal.size());
    if (K == 0) return;
    double idealPower = 0.0, errorPower = 0.0, magSquares = 0.0, phaseSquares = 0.0;
    std::size_t phaseCount = 0;
    vantrel::meas::WorkVec<double> error(K);
    for (std::size_t k = 0; k < K; ++k) {
        const vantrel::meas::cd r = p.symbols[k], a = p.ideal[k];
        const double e2 = std::norm(r - a);
        idealPower += std::norm(a);
        errorPower += e2;
        error[k] = std::sqrt(e2);
        const double mag = std::sqrt(std::norm(r)) - std::sqrt(std::norm(a));
        magSquares += mag * mag;
        if (std::norm(a) > 0.0) {
            const vantrel::meas::cd q = r * std::conj(a);
            const double ph = vantrel::meas::phase_angle(q.imag(), q.real());
            phaseSquares += ph * ph;
            ++phaseCount;
        }
    }
    if (!(idealPower > 0.0)) return;
    const double rmsIdeal = std::sqrt(idealPower / double(K));
    m.merDb = 10.0 * std::log10(idealPower / errorPower);
    m.evmRmsPercent = 100.0 * std::sqrt(errorPower / idealPower);
    m.magErrRmsPercent = 100.0 * std::sqrt(magSquares / double(K)) / rmsIdeal;
    if (phaseCount > 0)
        m.phaseErrRmsDeg = std::sqrt(phaseSquares / double(phaseCount)) * 180.0 / 3.141592653589793;
    const auto rank95 = error.begin() + long(std::ceil(0.95 * double(K))) - 1;
    std::nth_element(error.begin(), rank95, error.end());
    m.evm95Percent = 100.0 * *rank95 / rmsIdeal;
    m.evmPeakPercent = 100.0 * *std::max_element(rank95, error.end()) / rmsIdeal;
}
