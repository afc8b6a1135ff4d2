// Members of the instance class that belong to no single demodulator.
#include "VantrelClass.h"

#include "statistics.h"

// Summary figures over the last 800 symbols; uses no instance state.
void VantrelClass::calc_RMS_EVM(ModType family, DisplayData* out) {
    summariseLast800(family, out);
}
