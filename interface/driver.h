// The analysis chain of one accepted call: front end, dispatch, statistics.
#pragma once

#include <cstdint>

#include "VantrelClass.h"

// The working block the front end hands to a demodulator: the coarse offset
// removed, at four samples per symbol for every family but FSK and analog.
struct FrontEndBlock {
    HeapArray<Complex> work;  // `capacity` values, the first `n` valid
    std::int64_t capacity = 0;
    std::uint32_t n = 0;      // samples in the block
    double fs = 0.0;          // its sample rate
    ModType family = MT_PSK;
    int order = 0;
    double bandIn = 0.0;      // occupied bandwidth from the SNR stage, Hz
};

// Front end of one call: clears `out`, estimates and removes the coarse
// offset, measures the I/Q figures and the SNR, changes the rate. Returns 0,
// or the call's failure code (-1 non-finite rate, -4 out of memory).
int runFrontEnd(CommonFun& frontEnd, const ExParamOut& copy, const int16_t* I, const int16_t* Q,
                uint32_t inLen, const ExParamOut* param, DisplayData* out, double fsIn,
                FrontEndBlock& block);

// Runs the front end on the host's block and dispatches to the demodulator of
// the signal's family. `param` is the host's record; the instance's copy
// (already defaulted by the entry) is inst.exParam. Returns the call's code.
int runPipeline(VantrelClass& inst, const int16_t* I, const int16_t* Q, uint32_t inLen,
                const ExParamOut* param, bool dumpFlag, DisplayData* out, double fsIn);
