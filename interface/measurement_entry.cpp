// VantrelMeasure: the measurement-mode entry.
//
// The call first runs the standard analysis through VantrelExcute itself, so
// that handles, validation and return codes are exactly the standard ones and
// the host's DisplayData (when given) receives the standard arrays; the
// standard call is not modified in any way. Then, for a block the analysis
// accepted, the measurement estimators run on the same raw samples and fill
// the VantrelMeasurement record.
#include <cmath>
#include <limits>
#include <new>
#include <vector>

#include "VantrelClass.h"
#include "measurement.h"
#include "registry.h"

namespace {

// Host-side arrays for a call without a DisplayData: sized by the published
// capacities, released when the call ends.
struct ScratchRecord {
    std::vector<double> eye, constI, constQ, evm, phaseErr, magErr, traces[4], shifted;
    std::vector<uint32_t> bits, symbols;
    DisplayData rec{};

    ScratchRecord(uint32_t inLen, uint32_t mode) {
        eye.resize(vantrel_capacity_eye(inLen, mode) + 1u);
        constI.resize(vantrel_capacity_constellation(mode) + 1u);
        constQ.resize(constI.size());
        const uint32_t sym = vantrel_capacity_symbols(inLen, mode) + 1u;
        evm.resize(sym);
        phaseErr.resize(sym);
        magErr.resize(sym);
        for (std::vector<double>& t : traces) t.resize(vantrel_capacity_trace(inLen, mode) + 1u);
        shifted.resize(vantrel_capacity_shifted_iq(inLen, mode) + 1u);
        bits.resize(vantrel_capacity_bits(inLen, mode) + 1u);
        symbols.resize(sym);
        rec.eye = eye.data();
        rec.constI = constI.data();
        rec.constQ = constQ.data();
        rec.evm = evm.data();
        rec.phaseErr = phaseErr.data();
        rec.magErr = magErr.data();
        rec.phaseTrace = traces[0].data();
        rec.freqTrace = traces[1].data();
        rec.envTrace = traces[2].data();
        rec.iTrace = traces[3].data();
        rec.shiftedIQ = shifted.data();
        rec.bits = bits.data();
        rec.symbols = symbols.data();
    }
};

void clearMeasurement(VantrelMeasurement* m) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    VantrelMeasurement r;
    r.size = static_cast<uint32_t>(sizeof(VantrelMeasurement));
    r.flags = 0;
    r.symbolCount = 0;
    r.reserved = 0;
    r.carrierOffsetHz = r.symbolRateErrorPpm = r.merDb = r.cnrDb = nan;
    r.evmRmsPercent = r.evmPeakPercent = r.evm95Percent = r.magErrRmsPercent = nan;
    r.phaseErrRmsDeg = r.iqOffsetDb = r.iqGainImbalanceDb = r.quadErrorDeg = nan;
    r.occupiedBandwidthHz = r.fskDeviationHz = r.fskErrorPercent = r.amDepthPercent = nan;
    r.fmDeviationHz = r.pmDeviationRad = r.modulationRateHz = nan;
    *m = r;
}

// The standard PSK and ASK paths store their symbol count in bitsLen and
// leave symbolsLen cleared; measurement hosts get counts that mean what their
// names say.
void normaliseCounts(ModType family, int order, DisplayData* out) {
    if (family != MT_PSK && family != MT_ASK) return;
    const uint32_t symbols = out->bitsLen;
    uint32_t bitsPerSymbol = 1;
    if (family == MT_PSK) bitsPerSymbol = order == 8 ? 3u : order == 4 ? 2u : 1u;
    out->symbolsLen = symbols;
    out->bitsLen = symbols * bitsPerSymbol;
}

int measure(int handle, const int16_t* I, const int16_t* Q, uint32_t inLen,
            const ExParamOut* param, double fsIn, VantrelMeasurement* m, DisplayData* out) {
    if (lookupInstance(handle) == nullptr) return VANTREL_NO_INSTANCE;
    if (m == nullptr || m->size < sizeof(VantrelMeasurement)) return VANTREL_BAD_ARGUMENT;
    clearMeasurement(m);
    if (I == nullptr || Q == nullptr || param == nullptr) return VANTREL_BAD_ARGUMENT;
    // Every family refuses these lengths; refusing them here also bounds the
    // scratch record below.
    if (inLen < 16384 || inLen > 320000) return VANTREL_BAD_ARGUMENT;

    std::vector<ScratchRecord> scratch;
    DisplayData* target = out;
    if (target == nullptr) {
        scratch.emplace_back(inLen, param->mode);
        target = &scratch.front().rec;
    }
    const int code =
        VantrelExcute(handle, I, Q, inLen, param, false, false, target, 0.0, fsIn);
    if (code != VANTREL_OK && code != VANTREL_TOO_FEW_POINTS) return code;

    MeasurementPipeline p;
    CommonFun table;
    const uint32_t mode = param->mode;
    table.getDiscriminatorType(
        static_cast<modulationTypeOut>(mode <= MOD_32QAM ? mode : 0u), &p.family, &p.order);
    if (out != nullptr) normaliseCounts(p.family, p.order, out);
    if (p.family != MT_ANALOG && p.order < 2) return code;  // unknown code: no figures

    p.fs = fsIn;
    p.rb = param->Rb;
    p.mode = mode;
    p.filterType = static_cast<int>(param->filterType);
    // The same defaulting as the standard analysis: a roll-off outside (0, 1)
    // reads as 0.35.
    p.rolloff = (param->rolloff <= 0 || param->rolloff >= 1) ? 0.35 : param->rolloff;
    p.raw.resize(inLen);
    for (uint32_t n = 0; n < inLen; ++n) p.raw[n] = vantrel::meas::cd(I[n], Q[n]);
    if (p.family == MT_ANALOG) {
        measureAnalog(p, *m);
    } else {
        measureDigital(p, *m);
    }
    return code;
}

}  // namespace

extern "C" VANTREL_API int VantrelMeasure(int handle, const int16_t* I, const int16_t* Q,
                                          uint32_t inLen, const ExParamOut* param, double fsIn,
                                          VantrelMeasurement* m, DisplayData* out) {
    // No exception may reach the host: memory exhaustion is reported as -4.
    try {
        return measure(handle, I, Q, inLen, param, fsIn, m, out);
    } catch (...) {
        return VANTREL_NO_INSTANCE;
    }
}
