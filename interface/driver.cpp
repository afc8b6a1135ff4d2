// The analysis chain of one accepted call.
#include "driver.h"

int runPipeline(VantrelClass& inst, const int16_t* I, const int16_t* Q, uint32_t inLen,
                const ExParamOut* param, bool dumpFlag, DisplayData* out, double fsIn) {
    (void)I;
    (void)Q;
    (void)inLen;
    (void)param;
    (void)dumpFlag;
    (void)fsIn;
    initDisplay(out);
    ModType family;
    int order;
    inst.commonFun.getDiscriminatorType(static_cast<modulationTypeOut>(inst.exParam.mode),
                                        &family, &order);
    // No demodulator is connected yet: digital families cannot reach 800
    // constellation points, analog ones succeed with nothing to show.
    return family == MT_ANALOG ? 0 : -3;
}
