/* The public header as a C99 host sees it: compiled with -std=c99 -pedantic
 * -Werror, its own static assertions pin the record layouts in this very
 * translation unit; the program checks what they do not, the enumeration
 * and flag values and the size of the C bool. */
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
    CHECK(VANTREL_MEAS_TIMING_LOCKED == 1u && VANTREL_MEAS_CARRIER_LOCKED == 2u);
    CHECK(MOD_128QAM == 16 && MOD_256QAM == 17 && MOD_32QAM == 18);
    CHECK(MT_ANALOG == 4 && FILTER_HALFSINE == 5);
    CHECK(sizeof(bool) == 1);
    return 0;
}
