// Symbol clock of the measurement mode: phase and rate of the symbol-rate
// line, fitted across the capture (see measurement_dsp.h for the model).
#include <algorithm>
#include <cmath>

#include "measurement_dsp.h"

namespace vantrel::meas {

namespace {
constexpr double kTwoPi = 6.283185307179586;
constexpr int kBlockSymbols = 64;
}  // namespace

SymbolClock estimate_symbol_clock(const WorkVec<double>& v, double spsNominal) {
    SymbolClock out;
    const std::size_t n = v.size();
    const std::size_t block = static_cast<std::size_t>(std::ceil(kBlockSymbols * spsNominal));
    if (!(spsNominal >= 2.0) || block == 0 || n < 4 * block) return out;
    const std::size_t blocks = n / block;

    // At a whole number of samples per symbol the reference phasor repeats
    // every symbol, so one table of it serves the whole stream.
    const bool whole = spsNominal == std::floor(spsNominal) && spsNominal <= 64.0;
    WorkVec<cd> table(whole ? static_cast<std::size_t>(spsNominal) : 0);
    for (std::size_t i = 0; i < table.size(); ++i)
        table[i] = std::polar(1.0, -kTwoPi * std::fmod(double(i) / spsNominal, 1.0));
    WorkVec<cd> c(blocks);
    WorkVec<double> centre(blocks);
    double total = 0.0;
    for (std::size_t b = 0; b < blocks; ++b) {
        cd acc(0.0, 0.0);
        for (std::size_t i = b * block; i < (b + 1) * block; ++i) {
            if (whole) {
                acc += v[i] * table[i % table.size()];
                total += v[i];
                continue;
            }
            const double cyc = std::fmod(double(i) / spsNominal, 1.0);
            acc += v[i] * std::polar(1.0, -kTwoPi * cyc);
            total += v[i];
        }
        c[b] = acc;
        centre[b] = (double(b) + 0.5) * double(block) - 0.5;
    }
    // Fit phase = p0 + s * n to the block phases, weighted by the line
    // magnitude of each block. The phases are unwrapped in time order; at
    // low SNR a single block's phase is noisy enough for a step between two
    // blocks to wrap, which slips the rest of the line by a turn (a rate
    // error of a few ppm that walks the instants off the symbols across a
    // long capture). So the turns are counted on the line summed over
    // kTrackBlocks neighbouring blocks, and each block's phase is taken at
    // the turn nearest to that track.
    constexpr std::size_t kTrackBlocks = 8;
    WorkVec<cd> running(blocks + 1, cd(0.0, 0.0));  // running[b] = c[0] + .. + c[b-1]
    for (std::size_t b = 0; b < blocks; ++b) running[b + 1] = running[b] + c[b];
    WorkVec<double> track(blocks);
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t lo = std::min(b - std::min(b, kTrackBlocks / 2), blocks - std::min(blocks, kTrackBlocks));
        const std::size_t hi = std::min(blocks, lo + kTrackBlocks);
        const double a = std::arg(running[hi] - running[lo]);
        track[b] = b == 0 ? a : track[b - 1] + std::remainder(a - track[b - 1], kTwoPi);
    }
    WorkVec<double> ph(blocks);
    for (std::size_t b = 0; b < blocks; ++b)
        ph[b] = track[b] + std::remainder(std::arg(c[b]) - track[b], kTwoPi);
    double sw = 0.0, sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
    for (std::size_t b = 0; b < blocks; ++b) {
        const double w = std::abs(c[b]);
        sw += w;
        sx += w * centre[b];
        sy += w * ph[b];
        sxx += w * centre[b] * centre[b];
        sxy += w * centre[b] * ph[b];
    }
    const double den = sw * sxx - sx * sx;
    if (!(sw > 0.0) || !(den > 0.0)) return out;
    const double slope = (sw * sxy - sx * sy) / den;  // rad per sample
    const double p0 = (sy - slope * sx) / sw;
    cd coherent(0.0, 0.0);
    for (std::size_t b = 0; b < blocks; ++b)
        coherent += c[b] * std::polar(1.0, -(p0 + slope * centre[b]));
    double mag = 0.0;
    for (const cd& z : c) mag += std::abs(z);

    const double freq = 1.0 / spsNominal + slope / kTwoPi;  // symbols per sample
    if (!(freq > 0.0)) return out;
    out.period = 1.0 / freq;
    // p0 = -2 pi tau0 / T at n = 0, so tau0 = -p0 T / 2 pi, reduced to [0, T).
    double tau = -p0 / kTwoPi * out.period;
    tau = std::fmod(tau, out.period);
    if (tau < 0.0) tau += out.period;
    out.firstInstant = tau;
    out.rateErrorPpm = (spsNominal / out.period - 1.0) * 1e6;
    out.coherence = mag > 0.0 ? std::abs(coherent) / mag : 0.0;
    out.lineRatio = total > 0.0 ? std::abs(coherent) / total : 0.0;
    // A clock more than 10 % from the nominal rate is not a symbol clock but a
    // misfit (noise); refusing it also bounds the number of instants.
    out.valid = std::isfinite(out.period) && std::isfinite(tau) &&
                std::fabs(out.rateErrorPpm) < 1e5;
    return out;
}

}  // namespace vantrel::meas
