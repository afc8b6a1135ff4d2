// CommonFun: the shared signal toolkit.
//
// One object owns every signal routine of the chain and the little state that
// some of them carry from one stage (or one block) to the next: the Farrow
// interpolator's history, the Gardner loop's carry-over, the phase loop, the
// matched filter's history bookkeeping, the last sample seen by the frequency
// trace, and the running phase of the coarse-offset mixer.
//
// Lifecycle: the constructor zeroes the mixer phase (and, as a safeguard, the
// rest of the state); Reset() zeroes all the other state (and frees what it
// owns) but deliberately leaves the mixer phase alone. The driver constructs and resets a fresh object for each call's
// front end; each demodulator resets the instance's own object on entry.
//
// Conventions shared by all members:
//  - angles in radians; 2*pi is the double 6.283185307179586;
//  - "length" arguments of the stages are in/out: the caller passes the
//    capacity (or input length) and reads back the count produced;
//  - filter taps are single-precision floats, sample arithmetic is double;
//  - spectra use a forward, unnormalised 16384-point FFT followed by a shift
//    of zero frequency to index 8192: bin k is (k - 8192) * fs / 16384.
#pragma once

#include <cstdint>
#include <vector>

#include "complex.h"
#include "heap_array.h"
#include "wrapperVantrelClass.h"

class CommonFun {
public:
    CommonFun();
    ~CommonFun() = default;
    CommonFun(const CommonFun&) = delete;
    CommonFun& operator=(const CommonFun&) = delete;

    // Clears every piece of carried state except the mixer phase, and frees
    // the buffers the object owns.
    void Reset();

    // ---- records (mode code -> family and order) ----
    void getDiscriminatorType(modulationTypeOut mode, ModType* family, int* order);

    // ---- complex arithmetic and FFT ----
    // (a.re b.re - a.im b.im, a.re b.im + a.im b.re); inline for the inner loops.
    Complex Complex_mul(Complex a, Complex b) {
        return Complex{a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
    }
    void fft_radix2(Complex* x, int n);
    void fftshift_complex(Complex* x, int n);
    void fftshift_double(double* x, int n);

    // ---- rate conversion ----
    void resample(const Complex* in, int n, double fs_out, double fs_in, Complex* out,
                  int* out_len);
    void FarrowInterp(const Complex* in, int n, double fs_out, double fs_in, Complex* out,
                      int* out_len);
    // correctDF then FarrowInterp on a fresh interpolator, for a whole number
    // `factor` of input samples per output; mixes only what the outputs need
    // and the mixed samples out[count .. keep).
    void correctDFDecimated(const short* I, const short* Q, int n, double fs, int df,
                            int factor, int keep, Complex* out, int* out_len);

    // ---- pulse-shaping and matched filters ----
    void rcosdesignForC(double beta, int span, int sps, const char* shape, float* h, int* len);
    void gaussdesignForC(double bt, int span, int sps, float* h, int* len);
    void getFilter(FilterType type, double beta, int span, int sps, float* h, int* len,
                   int* err);
    void conv2_complex(const Complex* x, int n, const float* h, int L, Complex* y, int* ylen);
    void matchFilter(const Complex* in, int n, double fs, ExParamOut param, Complex* out,
                     int& out_len);
    // The matched filter of a real signal: out[i] = {y[i], +0}, bit for bit
    // what matchFilter gives for in[i] = {x[i], +0}. out must not overlap x.
    void matchFilterReal(const double* x, int n, double fs, ExParamOut param, Complex* out,
                         int& out_len);
    // Valid correlation of a real block with a real filter, each output's sum
    // in conv2_complex's order; out[i] = {y[i], +0}. *ylen as conv2_complex.
    void conv2_real(const double* x, int n, const float* h, int L, Complex* y, int* ylen);

    // ---- front-end estimation ----
    void calcdf(const short* I, const short* Q, int length, double fs, modulationTypeOut type,
                int* df, double* level);
    void correctDF(const short* I, const short* Q, int n, double fs, int df, Complex* out);
    void calcIQParams(const int16_t* I, const int16_t* Q, int n, DisplayData* out);
    double* pu(const Complex* in, int len, double fs, int N, int flag);
    void calcSNR(const Complex* in, int len, double fs, ModType family,
                 const ExParamOut* param, double* snrOut, double* bandOut);
    void calcFc(const Complex* x, int n, double fs, ModType type, int order, ExParamOut param,
                int* fc, double* level);

    // ---- synchronisation and equalisation ----
    void Gardner(const Complex* in, int n, double fs, double Rs, double C1, double C2,
                 Complex* out, int* outLen);
    void PhaseLook(const Complex* in, int n, ModType family, int M, double Rs, double Bn,
                   modulationTypeOut modType, Complex* out, int* outLen);
    double Discriminator_BPSK(double phase, int M);
    double Discriminator_PSK(double phase, int M);
    double Discriminator_QAM(double phase, Complex symbol, int M);
    void CMA_equlize(const Complex* in, int n, double mu, double R, int L, Complex* out,
                     int& outLen);
    void mcma_equalizeFORfsk(const Complex* in, int n, int taps, double mu, Complex* out);

    // ---- decisions and measurements ----
    void getAmp(const Complex* x, int n, double* dev, double& depth);
    void normalize_constellationForASK(Complex* x, int n, int M);
    void symbolDecisionForSingle(const Complex* x, int n, int M, int* symbols, int* bits,
                                 double* evm, double* magErr);
    void normStar(const Complex* in, int n, ExParamOut param, Complex* out);
    void symbolDecisionForPSK(const Complex* sym, int n, int M, int* symbols, int* bits,
                              int* bitCount, double* evm, double* magErr, double* phaseErr);
    void symbolDecisionForQAM(const Complex* points, int count, int order, int* symbols,
                              int* bits, int* bitCount, double* evmPercent,
                              double* magErrorPercent, double* phaseError,
                              double& phaseOffset);

    // ---- display traces ----
    void getEye(const Complex* in, int n, int scale, double* out, int* len);
    void getFreq(const Complex* in, int n, double* out);
    void phaseUnwrapAndDetrend(const double* in, int n, double* out, double* slope,
                               double* intercept);

    // ---- carried state, in the order Reset clears it ----
    // Group 1: Farrow interpolator (streaming continuation between blocks).
    int farrowInitialised;
    int farrowNextIndex;      // one-based index into the next block's extended buffer
    double farrowMu;          // fractional delay of the next output, [0, 1)
    Complex farrowHistory[3]; // last three inputs of the previous block, oldest first

    // Group 2: Gardner timing loop carry-over.
    int gardnerContinue;
    int gardnerTailCount;
    HeapArray<Complex> gardnerTail; // owned; freed by Reset and the destructor
    double gardnerRms;
    double gardnerW;
    double gardnerLastErr;
    double gardnerMu;
    int gardnerStrobe;
    double gardnerNco;
    double gardnerYI[2];
    double gardnerYQ[2];

    // Group 3: carrier phase loop.
    int phaseLoopStarted;
    double phaseAcc;
    double phaseFreq;
    double phaseLastErr;
    double phaseLastI;
    double phaseLastQ;

    // Group 4: matched-filter history bookkeeping (always empty in use).
    // Designs the matched filter into *h and does the history bookkeeping;
    // false (nothing to filter) on a failed design or allocation.
    bool matchedTaps(double fs, ExParamOut param, HeapArray<float>* h, int* L);
    int mfInitialised;
    HeapArray<double> mfHistRe;
    HeapArray<double> mfHistIm;
    int mfHistLen;
    int mfFilterLen;

    // Group 5: frequency trace continuity.
    int freqHavePrev;
    double freqPrevRe;
    double freqPrevIm;

    // Running phase of the coarse-offset mixer, radians, never wrapped.
    // Survives Reset; only the constructor clears it.
    double mixerPhase;
};

// ---- free helpers ----
void initDisplay(DisplayData* d);

void hamming_window(double* w, int n);
// hamming_window(w, 16384), formed on first use and kept.
const double* hamming_window_16384();
double sinc(double x);
double normalize_angle(double x);

// std::fmod(x, 2 pi) (2 pi the double 6.283185307179586), the same bits. The
// remainder is exact, so within one period either way it is formed directly:
// x itself below 2 pi in magnitude, and x - 2 pi (or x + 2 pi) below 4 pi, a
// difference of two numbers within a factor two of each other and hence exact;
// a zero remainder keeps the sign of x. Larger and non-finite x go to libm.
inline double fmod_two_pi(double x) {
    constexpr double kPeriod = 6.283185307179586;
    const double a = std::fabs(x);
    if (a < kPeriod) return x;
    if (a < 2 * kPeriod) {
        const double r = x - std::copysign(kPeriod, x);
        return r == 0.0 ? std::copysign(0.0, x) : r;
    }
    return std::fmod(x, kPeriod);
}
long gcd_int64(long a, long b);
int cmp_double(const void* a, const void* b);
int cmp_asc(const void* a, const void* b);
int cmp_desc(const void* a, const void* b);

// Reduced fraction num/den close to x. The numerator and denominator are kept
// in 64 bits so that every fallback fraction (up to 1e9 / gcd) is exact.
int ratio_to_fraction(double x, std::int64_t& num, std::int64_t& den, double tol);
std::vector<double> design_lowpass_fir(double fc, int taps, double extra);
