// Rational resampler: helpers shared with the driver and the tests.
//
// CommonFun::resample converts a block from fs_in to fs_out through the
// fraction L/M of the two rates (upsample by L, windowed-sinc low-pass,
// downsample by M, evaluated only at the output instants). The driver sizes
// its work buffers with resample_output_count, which returns exactly the
// count resample() writes.
#pragma once

#include <cstdint>

#include "complex.h"

// Number of samples CommonFun::resample writes for an n-sample block, i.e.
// ceil(n * L / M) for the fraction L/M it chooses; 0 whenever it refuses
// (n < 1, a non-positive or non-finite rate, a fraction whose filter length
// or output count does not fit the index types).
std::int64_t resample_output_count(int n, double fs_out, double fs_in);

namespace resampler_detail {

// Filters longer than this are never materialised: their coefficients are
// evaluated where they meet an input sample.
constexpr std::int64_t kMaterialisedTapLimit = 4000001;

// Polyphase evaluation of the L/M chain with the low-pass filter of
// 20 * max(L, M) + 1 taps and cutoff 0.95 / max(L, M), writing `count`
// outputs. The first builds the filter as a table (design_lowpass_fir); the
// second computes each coefficient on the fly and normalises with
// windowed_sinc_sum. Both return false (writing nothing) when they cannot
// run (no memory for the table, invalid L or M).
bool polyphase_materialised(const Complex* in, int n, std::int64_t L, std::int64_t M,
                            Complex* out, int count);
bool polyphase_on_the_fly(const Complex* in, int n, std::int64_t L, std::int64_t M,
                          Complex* out, int count);

// Sum over all `taps` coefficients (taps odd, >= 3) of the Hamming-windowed
// sinc sin(2 pi fc m) / (pi m), m = -c .. c, c = (taps - 1) / 2, obtained
// without visiting the taps (see resampler.cpp for the method).
double windowed_sinc_sum(double fc, std::int64_t taps);

}  // namespace resampler_detail
