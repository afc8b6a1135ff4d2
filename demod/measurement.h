// Measurement mode: the estimators behind VantrelMeasure.
//
// The measurement runs on the host's raw samples, beside (never inside) the
// standard analysis, so the standard figures cannot move. One pipeline record
// carries every intermediate result from stage to stage; a later stage (the
// error-vector figures, the FSK figures) reads the symbol instants, the
// decided ideal points and the carrier model from it instead of estimating
// them again.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "measurement_dsp.h"
#include "wrapperVantrelClass.h"

// Samples per symbol of the analysis stream of the linear families: every
// capture is brought to this rate before matched filtering and recovery.
constexpr double kAnalysisSps = 4.0;

struct MeasurementPipeline {
    // Inputs.
    vantrel::meas::WorkVec<vantrel::meas::cd> raw;  // I + jQ in int16 units
    double fs = 0.0;                     // sample rate, Hz
    double rb = 0.0;                     // nominal symbol rate, Hz (digital)
    uint32_t mode = 0;
    int filterType = FILTER_RRC;
    double rolloff = 0.35;
    ModType family = MT_PSK;
    int order = 0;

    // Symbol clock (digital families).
    vantrel::meas::SymbolClock clock;
    vantrel::meas::WorkVec<double> instants;  // symbol instants, in samples of the analysis stream
    double instantSps = 0.0;       // samples per symbol of that stream (raw: fs / rb)

    // Carrier model: phase(n) = 2 pi carrierHz n / fs + phase0 (radians).
    double carrierHz = 0.0;
    double phase0 = 0.0;

    // Symbol-domain results (PSK, QAM, ASK): matched-filter outputs at the
    // instants with the carrier removed and the I/Q impairments compensated,
    // normalised to the ideal grid, and the decided ideal points.
    vantrel::meas::WorkVec<vantrel::meas::cd> symbols;
    vantrel::meas::WorkVec<vantrel::meas::cd> ideal;
    // FSK: the per-symbol mean frequency (Hz, carrier removed) and the
    // decided levels (+-1, and +-3 for four levels).
    vantrel::meas::WorkVec<double> fskFrequency;
    vantrel::meas::WorkVec<int> fskLevel;

    // I/Q impairment model of the raw samples: raw = alpha s + beta conj(s) + dc.
    vantrel::meas::cd alpha{1.0, 0.0}, beta{0.0, 0.0}, dc{0.0, 0.0};
};

// Fills the figures of a digital family (PSK, QAM, ASK, FSK) into m; figures
// that cannot be estimated stay NaN.
void measureDigital(MeasurementPipeline& p, VantrelMeasurement& m);
void measureFsk(MeasurementPipeline& p, VantrelMeasurement& m);
// The error-vector figures (MER, EVM, magnitude and phase error) of the
// symbols in p.symbols against the decided points in p.ideal.
void measureErrorVector(const MeasurementPipeline& p, VantrelMeasurement& m);
// The raw block (sps samples per symbol) at kAnalysisSps, through a filter
// flat to `edge` symbol rates and free of aliases and images beyond it.
vantrel::meas::WorkVec<vantrel::meas::cd> to_analysis_rate(const vantrel::meas::WorkVec<vantrel::meas::cd>& raw,
                                                double sps, double edge);
// The whole measurement of one block (what VantrelMeasure runs after its
// checks): fills m and leaves every intermediate result in p. Inputs of p
// (raw, fs, rb, mode, filterType, rolloff, family, order) must be set.
void measureBlock(MeasurementPipeline& p, VantrelMeasurement& m);
// Fills the figures of the analog codes.
void measureAnalog(MeasurementPipeline& p, VantrelMeasurement& m);
// Occupied bandwidth, carrier-to-noise ratio and I/Q origin offset from the
// power spectrum, around the measured carrier; guardHz bounds the signal band.
void measureBand(const MeasurementPipeline& p, double guardHz, VantrelMeasurement& m);
// The same from a spectrum already taken by bandSpectrum, the Welch power
// spectrum of the raw block at the resolution these figures need.
void measureBand(const MeasurementPipeline& p, const vantrel::meas::WorkVec<double>& psd,
                 double guardHz, VantrelMeasurement& m);
vantrel::meas::WorkVec<double> bandSpectrum(const MeasurementPipeline& p);
