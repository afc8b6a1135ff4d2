// Measurement mode: occupied bandwidth, carrier-to-noise ratio and the I/Q
// origin offset relative to the signal power, from one power spectrum.
#include <cmath>

#include "measurement.h"

using vantrel::meas::cd;
using vantrel::meas::WorkVec;

WorkVec<double> bandSpectrum(const MeasurementPipeline& p) {
    const std::size_t n = p.raw.size();
    if (n < 64 || !(p.fs > 0.0)) return WorkVec<double>();
    // Resolution: at least 1024 bins per symbol rate (so the window's main
    // lobe blurs the band edges by well under 1 % of the bandwidth), but at
    // least four segments of the capture.
    const double sps = p.rb > 0.0 ? p.fs / p.rb : 16.0;
    std::size_t nfft = 256;
    while (double(nfft) < 1024.0 * sps && nfft * 4 <= n) nfft <<= 1;
    while (nfft * 4 > n && nfft > 64) nfft >>= 1;
    // 24 segments average the noise floor to about a fifth of its spread,
    // inside the figures' accuracy; more would only cost time.
    return vantrel::meas::welch_psd(p.raw, nfft, p.dc, 24);
}

void measureBand(const MeasurementPipeline& p, double guardHz, VantrelMeasurement& m) {
    measureBand(p, bandSpectrum(p), guardHz, m);
}

void measureBand(const MeasurementPipeline& p, const WorkVec<double>& psd, double guardHz,
                 VantrelMeasurement& m) {
    const std::size_t n = p.raw.size();
    if (n < 64 || !(p.fs > 0.0) || psd.empty()) return;
    const vantrel::meas::BandFigures b =
        vantrel::meas::occupied_band(psd, p.fs, p.carrierHz, guardHz);
    m.occupiedBandwidthHz = b.obwHz;
    if (std::isfinite(b.obwHz) && b.obwHz > 0.0 && b.noiseDensity > 0.0)
        m.cnrDb = 10.0 * std::log10(b.signalPower / (b.noiseDensity * b.obwHz));
    double power = b.signalPower;
    if (!std::isfinite(power)) {
        power = 0.0;
        for (const cd& v : p.raw) power += std::norm(v - p.dc);
        power /= double(n);
    }
    if (power > 0.0 && std::norm(p.dc) > 0.0) m.iqOffsetDb = 10.0 * std::log10(std::norm(p.dc) / power);
    else if (power > 0.0) m.iqOffsetDb = -HUGE_VAL;
}
