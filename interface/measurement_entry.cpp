// VantrelMeasure: the measurement-mode entry.
//
// The measurement has its own signal path and its own acceptance (any
// digital code from 1 to 64 samples per symbol), so it never inherits a
// limit of the standard chain. When the host passes a DisplayData, the
// standard analysis also runs, through VantrelExcute itself (so it is the
// standard one, unmodified), and its return code is kept in the record's
// standardCode; without one, only the measurement runs.
#include <cmath>
#include <limits>
#include <new>
#include <vector>

#include "VantrelClass.h"
#include "measurement.h"
#include "registry.h"

namespace {

void clearMeasurement(VantrelMeasurement* m) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    VantrelMeasurement r;
    r.size = static_cast<uint32_t>(sizeof(VantrelMeasurement));
    r.flags = 0;
    r.symbolCount = 0;
    r.standardCode = 0;
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

// The measurement's own acceptance: the standard call's handle, pointer and
// length rules, finite positive rates and, for digital codes, 1 to 64
// samples per symbol. Unknown codes cannot be measured.
bool acceptable(const ExParamOut* param, uint32_t inLen, double fsIn, ModType family, int order) {
    if (inLen < 16384 || inLen > 320000) return false;
    if (!std::isfinite(fsIn) || !(fsIn > 0.0)) return false;
    if (family == MT_ANALOG) return true;
    if (order < 2 || !std::isfinite(param->Rb) || !(param->Rb > 0.0)) return false;
    const double sps = fsIn / param->Rb;
    return sps >= 1.0 && sps <= 64.0;
}

int measure(int handle, const int16_t* I, const int16_t* Q, uint32_t inLen,
            const ExParamOut* param, double fsIn, VantrelMeasurement* m, DisplayData* out) {
    if (lookupInstance(handle) == nullptr) return VANTREL_NO_INSTANCE;
    if (m == nullptr || m->size < sizeof(VantrelMeasurement)) return VANTREL_BAD_ARGUMENT;
    clearMeasurement(m);
    if (I == nullptr || Q == nullptr || param == nullptr) return VANTREL_BAD_ARGUMENT;

    MeasurementPipeline p;
    CommonFun table;
    const uint32_t mode = param->mode;
    table.getDiscriminatorType(
        static_cast<modulationTypeOut>(mode <= MOD_32QAM ? mode : 0u), &p.family, &p.order);
    if (!acceptable(param, inLen, fsIn, p.family, p.order)) return VANTREL_BAD_ARGUMENT;

    // The standard analysis runs only for a host that asked for its arrays;
    // its verdict is kept beside the figures.
    if (out != nullptr) {
        m->standardCode = VantrelExcute(handle, I, Q, inLen, param, false, false, out, 0.0, fsIn);
        if (m->standardCode == VANTREL_OK || m->standardCode == VANTREL_TOO_FEW_POINTS)
            normaliseCounts(p.family, p.order, out);
    }

    p.fs = fsIn;
    p.rb = param->Rb;
    p.mode = mode;
    p.filterType = static_cast<int>(param->filterType);
    // The same defaulting as the standard analysis: a roll-off outside (0, 1)
    // reads as 0.35.
    p.rolloff = (param->rolloff <= 0 || param->rolloff >= 1) ? 0.35 : param->rolloff;
    p.raw.resize(inLen);
    for (uint32_t n = 0; n < inLen; ++n) p.raw[n] = vantrel::meas::cd(I[n], Q[n]);
    measureBlock(p, *m);
    return VANTREL_OK;
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

void measureBlock(MeasurementPipeline& p, VantrelMeasurement& m) {
    if (p.family == MT_ANALOG) {
        measureAnalog(p, m);
    } else {
        measureDigital(p, m);
    }
}
