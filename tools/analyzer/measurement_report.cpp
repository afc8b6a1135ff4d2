#include "measurement_report.h"

#include <cmath>
#include <cstdio>

namespace vantrel::analyzer {

namespace {
void line(std::string& out, const char* name, double v, const char* unit, const char* fmt) {
    char buf[160];
    if (std::isnan(v)) {
        std::snprintf(buf, sizeof buf, "  %-22s %14s\n", name, "-");
    } else {
        char num[64];
        std::snprintf(num, sizeof num, fmt, v);
        std::snprintf(buf, sizeof buf, "  %-22s %14s %s\n", name, num, unit);
    }
    out += buf;
}
}  // namespace

std::string measurementReport(const Request& request, int* code) {
    VantrelMeasurement m{};
    m.size = sizeof m;
    const int handle = VantrelObjCreatSelfEncode();
    *code = VantrelMeasure(handle, request.I.data(), request.Q.data(),
                           static_cast<uint32_t>(request.I.size()), &request.param, request.fs,
                           &m, nullptr);
    VantrelObjRelease(handle);
    std::string out = "measurement (VantrelMeasure, code " + std::to_string(*code) + ")\n";
    char buf[160];
    std::snprintf(buf, sizeof buf, "  %-22s %14s\n", "timing locked",
                  (m.flags & VANTREL_MEAS_TIMING_LOCKED) ? "yes" : "no");
    out += buf;
    std::snprintf(buf, sizeof buf, "  %-22s %14s\n", "carrier locked",
                  (m.flags & VANTREL_MEAS_CARRIER_LOCKED) ? "yes" : "no");
    out += buf;
    std::snprintf(buf, sizeof buf, "  %-22s %14u\n", "symbols", m.symbolCount);
    out += buf;
    line(out, "carrier offset", m.carrierOffsetHz, "Hz", "%.4f");
    line(out, "symbol rate error", m.symbolRateErrorPpm, "ppm", "%.3f");
    line(out, "modulation rate", m.modulationRateHz, "Hz", "%.4f");
    line(out, "MER", m.merDb, "dB", "%.2f");
    line(out, "C/N", m.cnrDb, "dB", "%.2f");
    line(out, "EVM rms", m.evmRmsPercent, "%", "%.3f");
    line(out, "EVM peak", m.evmPeakPercent, "%", "%.3f");
    line(out, "EVM 95th percentile", m.evm95Percent, "%", "%.3f");
    line(out, "magnitude error rms", m.magErrRmsPercent, "%", "%.3f");
    line(out, "phase error rms", m.phaseErrRmsDeg, "deg", "%.3f");
    line(out, "I/Q offset", m.iqOffsetDb, "dB", "%.2f");
    line(out, "I/Q gain imbalance", m.iqGainImbalanceDb, "dB", "%.4f");
    line(out, "quadrature error", m.quadErrorDeg, "deg", "%.3f");
    line(out, "occupied bandwidth", m.occupiedBandwidthHz, "Hz", "%.1f");
    line(out, "FSK deviation", m.fskDeviationHz, "Hz", "%.2f");
    line(out, "FSK error", m.fskErrorPercent, "%", "%.3f");
    line(out, "AM depth", m.amDepthPercent, "%", "%.3f");
    line(out, "FM deviation", m.fmDeviationHz, "Hz", "%.2f");
    line(out, "PM deviation", m.pmDeviationRad, "rad", "%.5f");
    return out;
}

}  // namespace vantrel::analyzer
