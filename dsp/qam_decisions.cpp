// QAM decisions on the odd-integer grid, with per-symbol error figures.
#include <cmath>
#include <cstdint>
#include <limits>

#include "CommonFun.h"
#include "safe_convert.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;

// Bits of the decision for one point (I, Q) on the odd-integer grid; b[k] is
// bit k of the symbol number. Fixed thresholds sit halfway between levels.
// The comparisons are strict or inclusive exactly as the labelling needs
// them: a point on a threshold goes where these tests put it, and a point on
// an axis counts as negative I (I > 0 is the I-sign bit) and positive Q
// (Q < 0 is the Q-sign bit). The Q-sign bit sits at bit 1 (16, 32), bit 2
// (64, 128) or bit 3 (256); the I-sign bit is always the top bit. Inside a
// quadrant the magnitude bits are a reflected code of the level, so that
// neighbouring levels differ in one bit; 32 and 128 points are crosses.
// Returns false for an order without a table.
bool qamBits(int order, double I, double Q, bool b[8]) {
    const double ai = std::fabs(I);
    const double aq = std::fabs(Q);
    for (int k = 0; k < 8; ++k) b[k] = false;
    switch (order) {
    case 16:
        b[0] = aq < 2;
        b[1] = Q < 0;
        b[2] = ai < 2;
        b[3] = I > 0;
        return true;
    case 32:
        b[0] = aq < 2 || (ai < 2 && aq > 4);
        b[1] = Q < 0;
        b[2] = ai >= 2 && aq <= 4;
        b[3] = ai < 4 && aq < 4;
        b[4] = I > 0;
        return true;
    case 64:
        b[0] = 2 <= aq && aq <= 6;
        b[1] = aq < 4;
        b[2] = Q < 0;
        b[3] = 2 <= ai && ai <= 6;
        b[4] = ai < 4;
        b[5] = I > 0;
        return true;
    case 128:
        b[0] = (2 < aq && aq < 6) || aq > 10;
        b[1] = aq < 4 || (aq > 8 && ai < 4);
        b[2] = Q < 0;
        b[3] = (2 < ai && ai < 6) || ai > 10;
        b[4] = ai > 4 && aq < 8;
        b[5] = ai < 8 && aq < 8;
        b[6] = I > 0;
        return true;
    case 256:
        b[0] = (2 <= aq && aq <= 6) || (10 <= aq && aq <= 14);
        b[1] = 4 < aq && aq < 12;
        b[2] = aq < 8;
        b[3] = Q < 0;
        b[4] = (2 <= ai && ai <= 6) || (10 <= ai && ai <= 14);
        b[5] = 4 < ai && ai < 12;
        b[6] = ai < 8;
        b[7] = I > 0;
        return true;
    default:
        return false;
    }
}

// The outermost symbols of each order whose cluster centroids set the
// reference amplitude: the four corners of the square orders, the eight
// outer points of the crosses. For 128 points the list runs with the ideal
// points (7, 11), (11, 7), (-7, 11), (-11, 7), (-11, -7), (-7, -11),
// (7, -11), (11, -7), which also give the mean rotation of the block.
struct Reference {
    int count;
    int symbols[8];
};

Reference referenceSymbols(int order) {
    switch (order) {
    case 16:  return Reference{4, {0, 8, 2, 10}};
    case 32:  return Reference{8, {0, 4, 6, 2, 18, 22, 16, 20}};
    case 64:  return Reference{4, {0, 4, 32, 36}};
    case 128: return Reference{8, {65, 88, 1, 24, 28, 5, 69, 92}};
    default:  return Reference{4, {0, 8, 128, 136}};  // 256
    }
}

constexpr double kOuter128[8][2] = {{7, 11},   {11, 7},   {-7, 11}, {-11, 7},
                                    {-11, -7}, {-7, -11}, {7, -11}, {11, -7}};

}  // namespace

// symbolDecisionForQAM(points, count, order, symbols, bits, bitCount,
//                      evmPercent, magErrorPercent, phaseError, phaseOffset)
//   points  : count points already scaled onto the odd-integer grid
//             (levels +-1, +-3, ...); order 16, 32, 64, 128 or 256
//   symbols : count symbol numbers 0 .. order-1, number = sum b_k 2^k
//   bits    : count . B values 0/1, bit k of point i at i . B + k,
//             B = (int)(log2 order + 0.5); *bitCount = count . B
//   Errors are measured against the centroid c_s of the points decided as the
//   same symbol, so only the spread of each cluster shows, and are scaled by
//   R, the mean centroid modulus of the order's outer reference symbols (an
//   empty cluster adds 0 but still counts; R < 1e-6 becomes 1):
//     evm = |p - c_s| / R . 100,  magErr = (|p| - |c_s|) / R . 100   [%]
//     phaseErr = wrap(arg p) - wrap(arg c_s)   [rad], wrap into [0, 2 pi);
//   the difference is deliberately not wrapped again, so it lies in
//   (-2 pi, 2 pi) and a point across the 0 rad line from its centroid reads
//   close to +-2 pi.
//   phaseOffset: order 128 only, the mean angle of the eight outer centroids
//   from their ideal points, each difference in (-pi, pi]; 0 otherwise.
//   Failure (bad arguments, unknown order, bit count beyond int, no memory):
//   *bitCount = 0 and phaseOffset = 0; only the memory failure leaves the
//   symbols and bits already decided.
void CommonFun::symbolDecisionForQAM(const Complex* points, int count, int order, int* symbols,
                                     int* bits, int* bitCount, double* evmPercent,
                                     double* magErrorPercent, double* phaseError,
                                     double& phaseOffset) {
    if (count <= 0 || !points || !symbols || !bits || !bitCount || !evmPercent ||
        !magErrorPercent || !phaseError) {
        // Every caller passes a count pointer; guarded all the same.
        if (bitCount) *bitCount = 0;
        phaseOffset = 0;
        return;
    }
    int B = trunc_to_int(std::log2(static_cast<double>(order)) + 0.5);
    if (B < 1) B = 1;
    bool probe[8];
    const std::int64_t totalBits = static_cast<std::int64_t>(count) * B;
    // An order without a table, or a bit count an int cannot report: nothing
    // is decided.
    if (!qamBits(order, 0.0, 0.0, probe) || totalBits > std::numeric_limits<int>::max()) {
        *bitCount = 0;
        phaseOffset = 0;
        return;
    }
    *bitCount = static_cast<int>(totalBits);

    for (int i = 0; i < count; ++i) {
        bool b[8];
        qamBits(order, points[i].re, points[i].im, b);
        int s = 0;
        for (int k = 0; k < B; ++k) {
            bits[static_cast<std::int64_t>(i) * B + k] = b[k] ? 1 : 0;
            if (b[k]) s += 1 << k;
        }
        symbols[i] = s;
    }

    HeapArray<Complex> sum = heap_zeroed<Complex>(order);
    HeapArray<int> hits = heap_zeroed<int>(order);
    HeapArray<Complex> centroid = heap_alloc<Complex>(order);
    HeapArray<double> angle = heap_alloc<double>(order);
    if (!sum || !hits || !centroid || !angle) {
        *bitCount = 0;
        phaseOffset = 0;
        return;
    }

    // Cluster centroids and their angles in [0, 2 pi).
    for (int i = 0; i < count; ++i) {
        sum[symbols[i]] = Complex_add(sum[symbols[i]], points[i]);
        ++hits[symbols[i]];
    }
    for (int k = 0; k < order; ++k) {
        if (hits[k] < 1) {
            centroid[k] = Complex{0.0, 0.0};
            angle[k] = 0.0;
        } else {
            centroid[k] = complex_div_real(sum[k], hits[k]);
            angle[k] = normalize_angle(std::atan2(centroid[k].im, centroid[k].re));
        }
    }

    // Reference amplitude from the outer clusters; for 128 points their mean
    // rotation as well, each difference brought into (-pi, pi].
    phaseOffset = 0;
    const Reference ref = referenceSymbols(order);
    double R = 0.0;
    for (int j = 0; j < ref.count; ++j) R += Complex_abs(centroid[ref.symbols[j]]);
    R = R / ref.count;
    if (order == 128) {
        double total = 0.0;
        for (int j = 0; j < 8; ++j) {
            const Complex c = centroid[ref.symbols[j]];
            double d = normalize_angle(std::atan2(c.im, c.re) -
                                       std::atan2(kOuter128[j][1], kOuter128[j][0]));
            if (d > kPi) d -= kTwoPi;
            if (d < -kPi) d += kTwoPi;
            total += d;
        }
        phaseOffset = total / 8;
    }
    if (R < 1e-6) R = 1.0;

    for (int i = 0; i < count; ++i) {
        const Complex c = centroid[symbols[i]];
        evmPercent[i] = Complex_abs(Complex_sub(points[i], c)) / R * 100;
        magErrorPercent[i] = (Complex_abs(points[i]) - Complex_abs(c)) / R * 100;
        phaseError[i] =
            normalize_angle(std::atan2(points[i].im, points[i].re)) - angle[symbols[i]];
    }
}
