// VantrelExcute: the call entry. Looks up the instance, optionally captures the
// call's inputs for offline debugging, validates the parameters and hands an
// accepted block to the analysis chain.
#include <cstdio>
#include <new>
#include <vector>

#include "VantrelClass.h"
#include "driver.h"
#include "registry.h"

namespace {

bool isAnalogCode(uint32_t mode) { return mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B; }

// True when every host array the analysis of `mode` writes is present. Each
// analog code writes one trace; every digital code writes the eye, the
// constellation, bits, symbols, EVM and magnitude error, and the two-
// dimensional families (PSK, QAM, and every unknown code, which runs as PSK)
// the phase error too. A host that left one of those pointers null could only
// be answered by a write through it, so the call is refused first. Arrays the
// mode does not write may be null.
bool hostArraysPresent(uint32_t mode, const DisplayData* out) {
    switch (mode) {
    case MOD_ANALOG_AM: return out->envTrace != nullptr;
    case MOD_ANALOG_FM: return out->freqTrace != nullptr;
    case MOD_ANALOG_PM: return out->phaseTrace != nullptr;
    case MOD_ANALOG_SHIFT: return out->shiftedIQ != nullptr;
    case MOD_ANALOG_I_A:
    case MOD_ANALOG_I_B: return out->iTrace != nullptr;
    default: break;
    }
    const bool common = out->eye != nullptr && out->constI != nullptr && out->constQ != nullptr &&
                        out->bits != nullptr && out->symbols != nullptr && out->evm != nullptr &&
                        out->magErr != nullptr;
    const bool oneDimensional =
        mode == MOD_ASK || mode == MOD_2FSK || mode == MOD_4FSK || mode == MOD_2FSK_B;
    return common && (oneDimensional || out->phaseErr != nullptr);
}

// Writes the call's parameters (one text line, file rewritten) and samples
// (native int16, interleaved I, Q, appended) before any validation, so that a
// rejected call is captured too. The files are a debugging aid: an open that
// fails is not reported.
void captureInputs(const int16_t* I, const int16_t* Q, uint32_t inLen, const ExParamOut* param,
                   bool init, double fsIn) {
    std::vector<int16_t> interleaved(2 * static_cast<size_t>(inLen));  // may throw bad_alloc
    FILE* textFile = std::fopen("./Vantrel_Parameter.txt", "w");
    FILE* sampleFile = std::fopen("./Vantrel_IQData.bin", "ab+");
    if (textFile != nullptr) {
        std::fprintf(textFile,
                     "inLen = %d, fsIn = %1f, Rb = %1f,mode = % d,filterType= %d,  init=%d \n",
                     static_cast<int>(inLen), fsIn, param->Rb, static_cast<int>(param->mode),
                     static_cast<int>(param->filterType), static_cast<int>(init));
    }
    for (uint32_t k = 0; k < inLen; ++k) {
        interleaved[2 * static_cast<size_t>(k)] = I[k];
        interleaved[2 * static_cast<size_t>(k) + 1] = Q[k];
    }
    if (sampleFile != nullptr && inLen > 0) {
        std::fwrite(interleaved.data(), sizeof(int16_t), interleaved.size(), sampleFile);
    }
    if (textFile != nullptr) std::fclose(textFile);
    if (sampleFile != nullptr) std::fclose(sampleFile);
}

// Rate and length checks of a digital code. Every test is an ordered
// comparison that rejects only when it holds, so a NaN rate passes here; the
// analysis chain refuses non-finite rates before it sizes anything.
int validateDigital(ExParamOut& copy, const ExParamOut* param, uint32_t inLen, double fsMin,
                    double fsIn) {
    if (copy.rolloff <= 0 || copy.rolloff >= 1) copy.rolloff = 0.35;
    if (param->Rb < 1e-6 || static_cast<double>(inLen) < 1e-6 || fsMin > fsIn) return -1;
    if (inLen < 16384 || inLen > 320000) return -1;
    const double r = fsIn / param->Rb;  // samples per symbol
    if (r < 1 || r > 64) return -1;
    if (static_cast<double>(inLen) < r * 2000) return 1;  // fewer than 2000 symbols
    return 0;
}

int excute(int handle, const int16_t* I, const int16_t* Q, uint32_t inLen,
           const ExParamOut* param, bool init, bool dumpFlag, DisplayData* out, double fsMin,
           double fsIn) {
    VantrelClass* inst = lookupInstance(handle);
    if (inst == nullptr) return -4;
    // Null pointers cannot be analysed; refuse them before anything reads them.
    // The same holds for a null host array the mode would write: -1, with
    // nothing captured, copied or written (the record keeps its contents).
    if (I == nullptr || Q == nullptr || param == nullptr || out == nullptr) return -1;
    if (!hostArraysPresent(param->mode, out)) return -1;
    if (dumpFlag) captureInputs(I, Q, inLen, param, init, fsIn);

    inst->exParam = *param;
    if (isAnalogCode(param->mode)) {
        // Analog analyses need no symbol rate: only the length is checked and
        // the roll-off is left as given.
        if (inLen < 16384 || inLen > 320000) return -1;
    } else {
        const int verdict = validateDigital(inst->exParam, param, inLen, fsMin, fsIn);
        if (verdict != 0) return verdict;
    }
    return runPipeline(*inst, I, Q, inLen, param, dumpFlag, out, fsIn);
}

}  // namespace

extern "C" VANTREL_API int VantrelExcute(int handle, const int16_t* I, const int16_t* Q,
                                         uint32_t inLen, const ExParamOut* param, bool init,
                                         bool dumpFlag, DisplayData* out, double fsMin,
                                         double fsIn) {
    // No exception may reach the host: memory exhaustion anywhere in the call
    // (the capture buffer included) is reported as -4.
    try {
        return excute(handle, I, Q, inLen, param, init, dumpFlag, out, fsMin, fsIn);
    } catch (const std::bad_alloc&) {
        return -4;
    } catch (...) {
        return -4;
    }
}
