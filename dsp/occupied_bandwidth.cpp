// Power spectral density, 99 % occupied bandwidth and the noise floor.
#include <algorithm>
#include <cmath>

#include "measurement_dsp.h"

namespace vantrel::meas {

namespace {
constexpr double kTwoPi = 6.283185307179586;
}  // namespace

WorkVec<double> welch_psd(const WorkVec<cd>& x, std::size_t nfft, cd offset,
                              std::size_t maxSegments) {
    WorkVec<double> psd(nfft, 0.0);
    if (nfft < 2 || x.size() < nfft) return psd;
    WorkVec<double> w(nfft);
    double wpow = 0.0;
    for (std::size_t n = 0; n < nfft; ++n) {
        const double a = kTwoPi * double(n) / double(nfft);
        w[n] = 0.35875 - 0.48829 * std::cos(a) + 0.14128 * std::cos(2 * a) -
               0.01168 * std::cos(3 * a);
        wpow += w[n] * w[n];
    }
    // Half-overlapping segments; past maxSegments they are spread evenly
    // over the block instead (less overlap, the same span).
    std::size_t hop = nfft / 2;
    const std::size_t halfOverlapped = (x.size() - nfft) / hop + 1;
    if (maxSegments >= 2 && halfOverlapped > maxSegments)
        hop = (x.size() - nfft) / (maxSegments - 1);
    std::size_t segments = 0;
    WorkVec<cd> buf(nfft);
    for (std::size_t start = 0; start + nfft <= x.size(); start += hop) {
        for (std::size_t n = 0; n < nfft; ++n) buf[n] = (x[start + n] - offset) * w[n];
        fft_pow2(buf);
        // Bin k goes to k + nfft/2 (mod nfft): zero frequency in the middle.
        const std::size_t mid = nfft / 2;
        for (std::size_t k = 0; k < mid; ++k) psd[k + mid] += std::norm(buf[k]);
        for (std::size_t k = mid; k < nfft; ++k) psd[k - mid] += std::norm(buf[k]);
        ++segments;
    }
    // For white noise of power P, E|X_k|^2 = P sum w^2, so dividing by
    // nfft * sum w^2 leaves P / nfft per bin: the bins sum to the mean power.
    const double norm = 1.0 / (double(segments) * wpow * double(nfft));
    for (double& p : psd) p *= norm;
    return psd;
}

BandFigures occupied_band(const WorkVec<double>& psd, double fs, double fc, double guard) {
    const double nan = std::nan("");
    BandFigures r{nan, nan, nan};
    const std::size_t nfft = psd.size();
    if (nfft < 32 || !(fs > 0.0) || !std::isfinite(fc) || !(guard > 0.0)) return r;
    const double df = fs / double(nfft);
    auto freqOf = [&](std::size_t k) { return (double(k) - double(nfft / 2)) * df; };
    double noise = 0.0;
    std::size_t noiseBins = 0;
    for (std::size_t k = 0; k < nfft; ++k) {
        if (std::fabs(freqOf(k) - fc) > guard) {
            noise += psd[k];
            ++noiseBins;
        }
    }
    if (noiseBins < 16) return r;
    noise /= double(noiseBins);  // power per bin

    WorkVec<double> band;
    WorkVec<double> edges;  // lower edge frequency of each bin in the band
    for (std::size_t k = 0; k < nfft; ++k) {
        if (std::fabs(freqOf(k) - fc) <= guard) {
            band.push_back(psd[k] - noise);
            edges.push_back(freqOf(k) - 0.5 * df);
        }
    }
    double total = 0.0;
    for (double p : band) total += p;
    if (!(total > 0.0)) return r;
    auto crossing = [&](double target) {
        double cum = 0.0;
        for (std::size_t i = 0; i < band.size(); ++i) {
            const double next = cum + band[i];
            if (next >= target && band[i] > 0.0)
                return edges[i] + df * (target - cum) / band[i];
            cum = next;
        }
        return edges.back() + df;
    };
    r.obwHz = crossing(0.995 * total) - crossing(0.005 * total);
    r.signalPower = total;
    r.noiseDensity = noise / df;
    return r;
}

double signal_band_edge(const WorkVec<double>& psd, double fs, double above) {
    const std::size_t nfft = psd.size();
    if (nfft < 256 || !(fs > 0.0)) return std::nan("");
    // The spectrum smoothed over nfft / 128 bins (circularly).
    const std::size_t width = nfft / 128;
    WorkVec<double> smooth(nfft);
    double run = 0.0;
    for (std::size_t k = 0; k < width; ++k) run += psd[(k + nfft - width / 2) % nfft];
    for (std::size_t k = 0; k < nfft; ++k) {
        smooth[k] = run / double(width);
        run += psd[(k + width - width / 2) % nfft] - psd[(k + nfft - width / 2) % nfft];
    }
    WorkVec<double> sorted = smooth;
    const auto rank = sorted.begin() + long(nfft / 5);
    std::nth_element(sorted.begin(), rank, sorted.end());
    const double floor = *rank;
    if (!(floor > 0.0)) return std::nan("");
    double edge = 0.0;
    const double df = fs / double(nfft);
    for (std::size_t k = 0; k < nfft; ++k)
        if (smooth[k] > above * floor)
            edge = std::max(edge, std::fabs((double(k) - double(nfft / 2)) * df) + 0.5 * df);
    return edge;
}

}  // namespace vantrel::meas
