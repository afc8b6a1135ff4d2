// Estimators of the measurement mode (VantrelMeasure).
//
// These routines serve only the measurement figures; the standard analysis
// never calls them, so nothing here can move a figure of VantrelExcute. They
// work in double precision on std::complex<double> and WorkVec (the entry
// turns an allocation failure into the out-of-memory return code).
//
// Units: sample indices and "cycles per sample" unless a name says Hz; phases
// in radians.
#pragma once

#include <array>
#include <complex>
#include <functional>
#include <memory>
#include <cstddef>
#include <vector>

#include "work_pool.h"

namespace vantrel::meas {

using cd = std::complex<double>;

// ---- line_search.cpp ----

// In-place forward DFT X[k] = sum_n x[n] exp(-j 2 pi k n / N); N a power of two.
void fft_pow2(WorkVec<cd>& x);

// sum_{n<len} w[n] x[n] exp(-j 2 pi f n), w the Hann window over len samples
// when hann is true, else 1. f in cycles per sample. The phasor is advanced by
// multiplication and re-seeded every 256 samples (error below 1e-13).
cd dtft_at(const cd* x, std::size_t len, double f, bool hann);

// The strongest spectral line of x within [-0.5, 0.5) cycles per sample:
// coarse search on a zero-padded FFT (at least four times the length, Hann
// window), then golden-section refinement of |DTFT|^2 within +-1 coarse bin.
// Returns the frequency in cycles per sample; *amp (if given) receives the
// rectangular-window DTFT at it divided by len (the line's complex amplitude
// for a pure tone), *strength the ratio |amp|^2 / mean |x|^2 (1 for a pure
// tone, about 1/len for noise). realOnly folds the search onto [0, 0.5] (for
// real signals, whose lines come in +-f pairs).
// zeroPad sets the coarse FFT to at least zeroPad times the length (the
// refinement makes the final figure independent of it).
double strongest_line(const cd* x, std::size_t len, bool realOnly, cd* amp, double* strength,
                      int zeroPad = 4);

// A quick estimate of the strongest line, for a search that refines it
// later: Hann-windowed FFT of at least twice the length and a parabola
// through the log powers of the peak bin and its neighbours (error a few
// hundredths of a bin on a clean line). Cycles per sample in [-0.5, 0.5).
double coarse_line(const cd* x, std::size_t len);

// Least-squares fit of y[n] = c0 + a cos(2 pi f n) + b sin(2 pi f n)
// (+ c1 n when withSlope): returns {c0, a, b, c1}.
struct ToneFit {
    double c0 = 0.0, a = 0.0, b = 0.0, c1 = 0.0;
    double amplitude() const;
};
ToneFit fit_tone(const double* y, std::size_t len, double f, bool withSlope);

// ---- phase_angle.cpp ----

// atan2(y, x) within 3e-13 rad, for the discriminators that take one angle
// per sample (zero, infinite and NaN inputs: atan2's own value).
double phase_angle(double y, double x);

// ---- fractional_filter.cpp ----

// Zeroth-order modified Bessel function I0(x) by its power series
// sum ((x/2)^k / k!)^2 (the Kaiser window's shape).
double bessel_i0(double x);

// Band-limited value of a sampled signal at any position t (input samples):
//   x(t) = sum_j x[j] h(t - j),  h(d) = 2 fc sinc(2 fc d) kaiser(d / K, beta),
// fc the cut-off in cycles per input sample and K taps on each side; samples
// outside 0..n-1 count as zero. The kernel is tabulated at 512 fractional
// positions (polyphase rows, blended linearly), so an evaluation costs 4K
// multiply-adds and no transcendental function. Unit gain at 0 Hz.
class FractionalFilter {
public:
    FractionalFilter(double cutoff, int halfTaps, double kaiserBeta);
    // Any kernel k(d) that is zero for |d| >= halfTaps, d in input samples.
    FractionalFilter(int halfTaps, const std::function<double(double)>& kernel);
    int halfTaps() const { return K_; }
    cd at(const cd* x, long n, double t) const;
    double at(const double* x, long n, double t) const;
    // The same at a sample position j (t = j), without the phase search.
    cd atSample(const cd* x, long n, long j) const;

private:
    template <class T>
    T eval(const T* x, long n, double t) const;
    static constexpr int kPhases = 512;
    static constexpr int kMaxWidth = 1024;  // taps at most (K <= 512)
    int K_;
    std::vector<double> rows_;  // (kPhases + 1) rows of 2K taps, each stored twice
    // Row 0 without its zeros (a half-band or quarter-band design has a
    // zero on every second or fourth sample): offsets into the 2K samples
    // and their taps, for atSample.
    std::vector<int> sampleOffsets_;
    std::vector<double> sampleTaps_;  // stored twice, as rows_
};

// A designed filter shared by its users; cached_filter returns the one made
// earlier on this thread for the same key (compared bit for bit), or makes it
// with `design`. A few designs are kept per thread.
using FilterRef = std::shared_ptr<const FractionalFilter>;
using FilterKey = std::array<double, 5>;
FilterRef cached_filter(const FilterKey& key, const std::function<FractionalFilter()>& design);

// Anti-alias / anti-image filter for a change from spsIn to spsOut samples
// per symbol of a signal occupying |f| <= bandEdge symbol rates: flat to the
// band edge, at least attenuationDb down from (lower rate - band edge),
// where the images or aliases would start to reach the band (Kaiser design;
// 90 dB keeps them under any measurable noise floor).
// The design is kept per thread (see cached_filter); design_rate_filter
// builds it afresh.
FilterRef rate_filter(double spsIn, double spsOut, double bandEdge, double attenuationDb = 90.0);
FractionalFilter design_rate_filter(double spsIn, double spsOut, double bandEdge,
                                    double attenuationDb = 90.0);

// y[m] = x(m step) through f, for every m with m step inside the block;
// step = input samples per output sample.
WorkVec<cd> convert_rate(const WorkVec<cd>& x, double step, const FractionalFilter& f);

// ---- matched_pulse.cpp ----

// Receive filter for a shaping pulse at sps samples per symbol (sps may be
// non-integer): taps h[k], k = 0..2H, centred on H, scaled to unit DC gain
// (sum h = 1) so that a constant (an I/Q origin offset) passes unchanged.
//   RRC  (1): the matched root raised cosine, span +-8 symbols;
//   RC   (2): the transmit pulse is already free of inter-symbol
//             interference, so a Kaiser-windowed low-pass with cut-off
//             ((1 + beta) / 2 + 0.1) Rb removes out-of-band noise only;
//   Gauss(3): the matched Gaussian (BT = beta), span +-4 symbols;
//   rect (4), half sine (5): the matched one-symbol pulse.
// maxHalfSpan (symbols) cuts the span shorter.
WorkVec<double> receive_filter(int filterType, double beta, double sps,
                                   double maxHalfSpan = 8.0);

// The receive filter above as a continuous kernel, h(d) = pulse(d / sps) / sum
// (the same unit DC gain): x(t) through it at any position t gives the
// matched-filter output between samples directly, in place of filtering
// every sample and interpolating.
FilterRef matched_interpolator(int filterType, double beta, double sps);
FractionalFilter design_matched_interpolator(int filterType, double beta, double sps);

// y[n] = sum_k h[k] x[n + k - H] (zero-phase, zeros outside the block).
// Computed tap by tap over blocks of outputs, so the inner loop is a plain
// multiply-add over contiguous memory that the compiler vectorises.
WorkVec<cd> filter_centred(const WorkVec<cd>& x, const WorkVec<double>& h);
WorkVec<double> filter_centred(const WorkVec<double>& x, const WorkVec<double>& h);

// Value at fractional position t (samples) by a 32-tap Kaiser-windowed sinc
// (beta 8, a FractionalFilter with fc = 0.5); zero outside the block.
cd interpolate_at(const WorkVec<cd>& x, double t);
double interpolate_at(const WorkVec<double>& x, double t);

// ---- symbol_clock.cpp ----

// Symbol clock from the spectral line that a squared-magnitude (or squared
// frequency) stream v carries at the symbol rate. The stream is cut into
// blocks of 64 nominal symbols; each block's line phasor
//   c_b = sum_{n in b} v[n] exp(-j 2 pi n / spsNominal)
// has the phase -2 pi tau0 / T + 2 pi n_b (1/T - 1/spsNominal), T the true
// symbol period and tau0 the first symbol instant. The unwrapped phases are
// fitted by a straight line weighted by |c_b|.
struct SymbolClock {
    bool valid = false;
    double period = 0.0;      // measured samples per symbol
    double firstInstant = 0.0;  // tau0 in [0, period)
    double rateErrorPpm = 0.0;  // (nominal period / period - 1) * 1e6
    double coherence = 0.0;   // |sum_b c_b exp(-j fit_b)| / sum_b |c_b|, 1 = perfectly steady
    double lineRatio = 0.0;   // |sum_b c_b exp(-j fit_b)| / sum v: line strength
};
SymbolClock estimate_symbol_clock(const WorkVec<double>& v, double spsNominal);

// ---- widely_linear_fit.cpp ----

// Complex least squares y[k] = sum_j p[j] u_j[k] for up to four regressors;
// returns false when the normal equations are singular.
bool complex_least_squares(const WorkVec<cd>& y, const std::vector<WorkVec<cd>>& u,
                           WorkVec<cd>& p);
// The same system given by its sums, G[i][j] = sum conj(u_i) u_j and
// G[i][m] = sum conj(u_i) y, for a caller that forms them faster.
struct NormalEquations {
    std::size_t m = 0;
    cd G[4][5] = {};
};
bool solve_normal_equations(NormalEquations eq, WorkVec<cd>& p);

// I/Q impairments from the widely-linear coefficients of y = alpha s +
// beta conj(s) (+ c): with s = u + jv the received (I, Q) = W (u, v),
//   W = [[Re(alpha+beta), -Im(alpha-beta)], [Im(alpha+beta), Re(alpha-beta)]],
// and W = A M R(theta) for a scale A, a rotation R and the impairment
//   M = [[g, 0], [sin(phi), cos(phi)]]   (I' = g I, Q' = sin(phi) I + cos(phi) Q),
// so P = W W^T = A^2 M M^T gives g^2 = P11 / P22 and sin(phi) =
// P12 / sqrt(P11 P22) independently of the unknown carrier phase and scale.
struct IqImbalance {
    double gainDb = 0.0;   // 20 log10 g
    double quadDeg = 0.0;  // phi in degrees
};
IqImbalance iq_imbalance(cd alpha, cd beta);

// ---- occupied_bandwidth.cpp ----

// Welch power spectral density of x: Blackman-Harris (4-term) segments of
// nfft samples, half overlapping, scaled so that sum(psd) * fs / nfft equals
// the mean power. Bin k (0..nfft-1) is at frequency (k - nfft/2) fs / nfft.
// offset is subtracted from every sample first. maxSegments (0: no limit)
// caps the number of segments, spread evenly over the block.
WorkVec<double> welch_psd(const WorkVec<cd>& x, std::size_t nfft, cd offset = cd(0.0, 0.0),
                              std::size_t maxSegments = 0);

// 99 % occupied bandwidth and the noise floor around a carrier at fc (Hz).
// The noise density is the mean PSD over the bins farther than `guard` Hz
// from fc (needs at least 16 such bins); it is subtracted from every bin,
// and the band [fc - guard, fc + guard] is integrated: the 0.5 % and 99.5 %
// points of the cumulative power (interpolated within a bin) bound the
// occupied band. Signal power is the integral of the band less the noise.
struct BandFigures {
    double obwHz;          // NaN when no noise region exists
    double signalPower;    // sample units^2, NaN likewise
    double noiseDensity;   // power per Hz, NaN likewise
};
BandFigures occupied_band(const WorkVec<double>& psd, double fs, double fc, double guard);

// Edge of the band a signal occupies above the noise: the largest |f| (Hz,
// about 0 Hz) where the spectrum, smoothed over 1/128 of its bins, exceeds
// `above` times the floor. The floor is the smoothed spectrum's 20th
// percentile: the noise while the signal fills less than four fifths of the
// band; a signal filling more makes it a skirt of the signal, which still
// leaves the edge near the signal's own.
double signal_band_edge(const WorkVec<double>& psd, double fs, double above);

}  // namespace vantrel::meas
