// The analysis chain of one accepted call.
//
// Front end, on a toolkit object of its own so that nothing carries over from
// the previous call: clear the record, estimate and remove the coarse carrier
// offset, measure the I/Q impairments on the raw samples, bring digital
// signals to four samples per symbol, measure SNR and occupied bandwidth.
// Then the demodulator of the signal's family runs on the instance's own
// toolkit, and for digital families the summary statistics over the last 800
// symbols decide the outcome.
#include "driver.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "resampler.h"
#include "safe_convert.h"

namespace {

constexpr double kMinusTwoPi = -6.283185307179586;
constexpr int kSnrLength = 16384;

bool isDigital(ModType family) { return family != MT_ANALOG; }

// The mode code as the enumeration the stages take. Every code outside the
// table is "unknown" in the same way, so codes above it are passed as 0 (also
// unknown): that keeps the conversion inside the enumeration's range.
modulationTypeOut modeOf(uint32_t code) {
    return static_cast<modulationTypeOut>(code <= MOD_32QAM ? code : 0u);
}
bool changesRate(ModType family) { return family != MT_FSK && family != MT_ANALOG; }

// Capacity of the two work buffers, in Complex values: the larger of the
// captured length and ceil(inLen * 4 Rb / fs), so one allocation serves the
// captured block, the block at four samples per symbol and the fixed SNR
// length. The resampler's own count is folded in as well: its fraction is
// rounded to 1e-9 and can produce one sample more than the exact ratio.
int64_t workCapacity(uint32_t inLen, double rb, double fs, ModType family) {
    const double ratio = rb * 4 / fs;
    int64_t cap = saturate_cast<int64_t>(std::ceil(inLen * ratio));
    if (cap < static_cast<int64_t>(inLen)) cap = inLen;
    if (changesRate(family) && fs / rb < 4) {
        // Only the resampler can lengthen the block (the interpolator runs
        // only above four samples per symbol and shortens it).
        const int64_t produced = resample_output_count(static_cast<int>(inLen), 4 * rb, fs);
        if (produced > cap) cap = produced;
    }
    return cap;
}

// Rate change to four samples per symbol: the Farrow interpolator from above,
// the rational resampler from below. The result is copied back to the start
// of `work`; `spare` is scratch of the same capacity.
void toFourSamplesPerSymbol(CommonFun& fe, Complex* work, Complex* spare, uint32_t& n,
                            double& fs, double rb) {
    int produced = 0;
    if (fs / rb > 4) {
        fe.FarrowInterp(work, static_cast<int>(n), 4 * rb, fs, spare, &produced);
        std::memcpy(work, spare, sizeof(Complex) * static_cast<size_t>(produced));
        n = static_cast<uint32_t>(produced);
        fs = 4 * rb;
    }
    if (fs / rb < 4) {
        fe.resample(work, static_cast<int>(n), 4 * rb, fs, spare, &produced);
        std::memcpy(work, spare, sizeof(Complex) * static_cast<size_t>(produced));
        n = static_cast<uint32_t>(produced);
        fs = 4 * rb;
    }
}

// Input samples per analysis sample when the interpolator's step
// fs / (4 Rb) is a whole number (above four samples per symbol), else 0.
// Then every interpolated sample falls on a captured one.
int wholeFarrowStep(double fs, double rb) {
    if (!(fs / rb > 4)) return 0;
    const double step = fs / (4 * rb);
    if (!(step <= 65536.0) || step != std::floor(step)) return 0;
    return static_cast<int>(step);
}

// Removes the residual carrier fc (Hz) found by the refinement stage:
// x[i] *= exp(j * (i / fs) * (fc * -2 pi)), products formed in that order.
void removeResidualCarrier(Complex* work, uint32_t n, double fs, int fc) {
    for (uint32_t i = 0; i < n; ++i) {
        const double t = i / fs;
        const double phi = t * (fc * kMinusTwoPi);
        const double c = std::cos(phi);
        const double s = std::sin(phi);
        const double re = work[i].re;
        const double im = work[i].im;
        work[i].re = re * c - im * s;
        work[i].im = im * c + re * s;
    }
}

// Carrier refinement for PSK and QAM up to 64 points; the measured line level
// replaces the coarse stage's figure.
void refineCarrier(CommonFun& fe, Complex* work, uint32_t n, double fs, ModType family, int M,
                   const ExParamOut& copy, DisplayData* out) {
    int fc = 0;
    double level = 0.0;
    fe.calcFc(work, static_cast<int>(n), fs, family, M, copy, &fc, &level);
    out->peakLevel = level;
    removeResidualCarrier(work, n, fs, fc);
}

// Hands the block to the demodulator of its family. The demodulators' own
// results are deliberately ignored: what they left in `out` decides.
void dispatch(VantrelClass& inst, CommonFun& fe, Complex* work, uint32_t n, double fs,
              ModType family, int M, double bandIn, DisplayData* out) {
    const ExParamOut copy = inst.exParam;
    const int len = static_cast<int>(n);
    switch (family) {
    case MT_PSK:
        refineCarrier(fe, work, n, fs, MT_PSK, M, copy, out);
        inst.demodPSK(work, len, fs, copy, out);
        break;
    case MT_QAM:
        if (M != 128 && M != 256) {
            refineCarrier(fe, work, n, fs, MT_QAM, M, copy, out);
            inst.demodQAM(work, len, fs, copy, out);
        } else {
            // The dense orders find their own residual carrier.
            inst.demodQAM128_256(work, len, fs, copy, out);
        }
        break;
    case MT_ANALOG:
        inst.demodANALOG(work, len, fs, bandIn, copy, out);
        break;
    case MT_ASK:
        inst.demodASK(work, len, fs, copy, out);
        break;
    case MT_FSK:
        inst.demodFSK(work, len, fs, copy, out);
        break;
    }
}

// Appends the constellation, one "I , Q" line per point, to the debug file.
void captureConstellation(const DisplayData* out) {
    FILE* f = std::fopen("./Vantrel_const.txt", "ab+");
    if (f == nullptr) return;
    for (uint32_t k = 0; k < out->constLen; ++k) {
        std::fprintf(f, "%1f , %1f\n", out->constI[k], out->constQ[k]);
    }
    std::fclose(f);
}

}  // namespace

int runFrontEnd(CommonFun& frontEnd, const ExParamOut& copy, const int16_t* I, const int16_t* Q,
                uint32_t inLen, const ExParamOut* param, DisplayData* out, double fsIn,
                FrontEndBlock& block) {
    initDisplay(out);
    const modulationTypeOut mode = modeOf(copy.mode);
    frontEnd.getDiscriminatorType(mode, &block.family, &block.order);

    // Non-finite rates pass the entry's ordered comparisons. Nothing below can
    // give them a meaning (sample counts, FFT bins and buffer sizes all derive
    // from them), so the call is refused cleanly before anything is sized.
    const double rb = copy.Rb;
    if (!std::isfinite(fsIn) || (isDigital(block.family) && !std::isfinite(rb))) return -1;

    block.fs = fsIn;
    block.n = inLen;
    int df = 0;
    double level = 0.0;
    frontEnd.calcdf(I, Q, static_cast<int>(inLen), block.fs, mode, &df, &level);
    out->peakLevel = level;
    out->freqOffset = static_cast<double>(df);
    frontEnd.calcIQParams(I, Q, static_cast<int>(inLen), out);

    block.capacity =
        isDigital(block.family) ? workCapacity(inLen, rb, block.fs, block.family) : inLen;
    block.work = heap_alloc<Complex>(block.capacity);
    if (!block.work) return -4;
    // The second buffer is taken for every family, so that running out of
    // memory ends every call the same way; only the rate change uses it.
    HeapArray<Complex> spare = heap_alloc<Complex>(block.capacity);
    if (!spare) return -4;  // the work buffer is released with the block

    const int whole = changesRate(block.family) && frontEnd.farrowInitialised == 0
                          ? wholeFarrowStep(block.fs, rb)
                          : 0;
    if (whole > 0) {
        // Mixing and interpolation in one pass that mixes only the samples
        // the interpolated ones are made of. The SNR stage reads the first
        // kSnrLength values of the buffer, which for a short block reach past
        // the interpolated samples into the mixed ones: those are mixed too.
        int produced = 0;
        frontEnd.correctDFDecimated(I, Q, static_cast<int>(inLen), block.fs, df, whole,
                                    kSnrLength, block.work.get(), &produced);
        block.n = static_cast<uint32_t>(produced);
        block.fs = 4 * rb;
    } else {
        frontEnd.correctDF(I, Q, static_cast<int>(inLen), block.fs, df, block.work.get());
        if (changesRate(block.family)) {
            toFourSamplesPerSymbol(frontEnd, block.work.get(), spare.get(), block.n, block.fs,
                                   rb);
        }
    }
    spare.reset();

    double snr = 0.0;
    frontEnd.calcSNR(block.work.get(), kSnrLength, block.fs, block.family, param, &snr,
                     &block.bandIn);
    out->snr = snr;
    return 0;
}

int runPipeline(VantrelClass& inst, const int16_t* I, const int16_t* Q, uint32_t inLen,
                const ExParamOut* param, bool dumpFlag, DisplayData* out, double fsIn) {
    CommonFun frontEnd;  // constructed (mixer phase 0) and reset for this call
    frontEnd.Reset();
    FrontEndBlock block;
    const int code = runFrontEnd(frontEnd, inst.exParam, I, Q, inLen, param, out, fsIn, block);
    if (code != 0) return code;

    dispatch(inst, frontEnd, block.work.get(), block.n, block.fs, block.family, block.order,
             block.bandIn, out);

    if (isDigital(block.family)) {
        inst.calc_RMS_EVM(block.family, out);
        if (out->constLen <= 799) return -3;
    }
    if (dumpFlag) captureConstellation(out);
    return 0;
}
