// Summary statistics of the per-symbol error arrays.
#pragma once

#include "wrapperVantrelClass.h"

// sqrt(sum v[i]^2 / n) over n values; 0 when n <= 0.
double rms_of(const double* v, int n);
// The largest value, the running maximum starting at 0 and replaced only by a
// strictly larger value (so an all-negative array gives 0).
double peak_of(const double* v, int n);
// The largest |v[i]|, starting at 0.
double peak_abs_of(const double* v, int n);

// The driver's summary over the last 800 symbols of the EVM array: replaces
// evmRms/evmPeak, magErrRms/magErrPeak and phaseErrRms/phaseErrPeak (degrees).
void summariseLast800(ModType family, DisplayData* out);
