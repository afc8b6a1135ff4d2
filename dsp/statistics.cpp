// Summary statistics of the per-symbol error arrays.
#include "statistics.h"

#include <cmath>

double rms_of(const double* v, int n) {
    if (n <= 0) return 0.0;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += v[i] * v[i];
    return std::sqrt(sum / n);
}

double peak_of(const double* v, int n) {
    double peak = 0.0;
    for (int i = 0; i < n; ++i)
        if (v[i] > peak) peak = v[i];
    return peak;
}

double peak_abs_of(const double* v, int n) {
    double peak = 0.0;
    for (int i = 0; i < n; ++i)
        if (std::fabs(v[i]) > peak) peak = std::fabs(v[i]);
    return peak;
}
