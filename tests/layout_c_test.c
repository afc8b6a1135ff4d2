/* The public header as a C99 host sees it: the record layouts (also pinned by
 * the header's own static assertions) and the enumeration values. */
#include <stddef.h>
#include <stdio.h>

#include "wrapperVantrelClass.h"

#define CHECK(cond)                                              \
    do {                                                         \
        if (!(cond)) {                                           \
            fprintf(stderr, "layout check failed: %s\n", #cond); \
            return 1;                                            \
        }                                                        \
    } while (0)

int main(void) {
    CHECK(sizeof(ExParamOut) == 32);
    CHECK(offsetof(ExParamOut, rolloff) == 20);
    CHECK(offsetof(ExParamOut, filterType) == 28);
    CHECK(sizeof(DisplayData) == 280);
    CHECK(offsetof(DisplayData, constI) == 12);
    CHECK(offsetof(DisplayData, constQ) == 20);
    CHECK(offsetof(DisplayData, evmRms) == 68);
    CHECK(offsetof(DisplayData, peakLevel) == 164);
    CHECK(offsetof(DisplayData, shiftedIQLen) == 268);
    CHECK(offsetof(DisplayData, snr) == 272);
    CHECK(sizeof(VantrelMeasurement) == 168);
    CHECK(offsetof(VantrelMeasurement, carrierOffsetHz) == 16);
    CHECK(offsetof(VantrelMeasurement, iqOffsetDb) == 88);
    CHECK(offsetof(VantrelMeasurement, modulationRateHz) == 160);
    CHECK(VANTREL_MEAS_TIMING_LOCKED == 1u && VANTREL_MEAS_CARRIER_LOCKED == 2u);
    CHECK(MOD_128QAM == 16 && MOD_256QAM == 17 && MOD_32QAM == 18);
    CHECK(MT_ANALOG == 4 && FILTER_HALFSINE == 5);
    CHECK(sizeof(bool) == 1);
    return 0;
}
