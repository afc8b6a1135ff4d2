// One analysis call as a host makes it, and the printed report.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wrapperVantrelClass.h"

namespace vantrel::analyzer {

struct Request {
    std::vector<int16_t> I, Q;
    double fs = 0;
    double fsMin = 0;
    ExParamOut param{};
};

// Host-owned result arrays sized for the largest block the library accepts.
struct Result {
    int code = 0;
    DisplayData record{};
    std::vector<double> eye, constI, constQ, evm, phaseErr, magErr, phaseTrace, freqTrace,
        envTrace, iTrace, shiftedIQ;
    std::vector<uint32_t> bits, symbols;
};

// Creates an instance, analyses the block, releases the instance.
Result analyse(const Request& request, bool dump);

// The figures an instrument displays, one per line.
std::string report(const Request& request, const Result& result);

// The meaning of a return code of the library's call.
const char* codeMeaning(int code);

// The analyzer's name of a modulation code ("QPSK", "AM", ...), or "unknown".
const char* modeName(int code);
// The code of a name or of a decimal code 1..18; -1 when it is neither.
int modeCode(const std::string& name);

}  // namespace vantrel::analyzer
