// The analysis chain of one accepted call: front end, dispatch, statistics.
#pragma once

#include <cstdint>

#include "VantrelClass.h"

// Runs the front end on the host's block and dispatches to the demodulator of
// the signal's family. `param` is the host's record; the instance's copy
// (already defaulted by the entry) is inst.exParam. Returns the call's code.
int runPipeline(VantrelClass& inst, const int16_t* I, const int16_t* Q, uint32_t inLen,
                const ExParamOut* param, bool dumpFlag, DisplayData* out, double fsIn);
