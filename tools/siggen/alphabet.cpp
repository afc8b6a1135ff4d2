// Mode codes, labelled symbol alphabets, pulse shapes and the random source
// of the test-signal generator.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "siggen.h"

namespace vantrel::siggen {

namespace {

constexpr double kPi = 3.141592653589793;

struct ModeRow {
    int code;
    const char* name;
    Family family;
    int order;          // constellation points or FSK levels (0: analog)
    int bitsPerSymbol;  // as the decisions write them
};

// Codes 1 and 3 are both two-tone FSK; the FSK decisions slice code 1 in two
// levels and every other FSK code in four, so code 3 carries two bits per
// symbol (sign, inner) like code 2.
const ModeRow kModes[] = {
    {1, "2FSK", Family::FSK, 2, 1},        {2, "4FSK", Family::FSK, 4, 2},
    {3, "2FSK_B", Family::FSK, 2, 2},      {4, "BPSK", Family::PSK, 2, 1},
    {5, "QPSK", Family::PSK, 4, 2},        {6, "8PSK", Family::PSK, 8, 3},
    {7, "16QAM", Family::QAM, 16, 4},      {8, "ASK", Family::ASK, 2, 1},
    {9, "64QAM", Family::QAM, 64, 6},      {10, "AM", Family::Analog, 0, 0},
    {11, "FM", Family::Analog, 0, 0},      {12, "PM", Family::Analog, 0, 0},
    {13, "SHIFT", Family::Analog, 0, 0},   {14, "I_A", Family::Analog, 0, 0},
    {15, "I_B", Family::Analog, 0, 0},     {16, "128QAM", Family::QAM, 128, 7},
    {17, "256QAM", Family::QAM, 256, 8},   {18, "32QAM", Family::QAM, 32, 5},
};

const ModeRow* findMode(int mode) {
    for (const ModeRow& row : kModes)
        if (row.code == mode) return &row;
    return nullptr;
}

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// A decimal integer, or -1 when s is not one.
int parseSmallInt(const std::string& s) {
    if (s.empty() || s.size() > 6) return -1;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return -1;
    return std::atoi(s.c_str());
}

// Symbol number that the QAM decision gives to the grid point (i, q): bit k
// is the k-th condition of the order's table, the number is sum bit_k * 2^k.
// The comparisons keep their strictness: a point on an axis counts as
// negative I and positive Q.
int qamLabel(int order, double i, double q) {
    const double ai = std::fabs(i), aq = std::fabs(q);
    bool b[8] = {};
    switch (order) {
    case 16:
        b[0] = aq < 2;
        b[1] = q < 0;
        b[2] = ai < 2;
        b[3] = i > 0;
        break;
    case 32:
        b[0] = aq < 2 || (ai < 2 && aq > 4);
        b[1] = q < 0;
        b[2] = ai >= 2 && aq <= 4;
        b[3] = ai < 4 && aq < 4;
        b[4] = i > 0;
        break;
    case 64:
        b[0] = aq >= 2 && aq <= 6;
        b[1] = aq < 4;
        b[2] = q < 0;
        b[3] = ai >= 2 && ai <= 6;
        b[4] = ai < 4;
        b[5] = i > 0;
        break;
    case 128:
        b[0] = (aq > 2 && aq < 6) || aq > 10;
        b[1] = aq < 4 || (aq > 8 && ai < 4);
        b[2] = q < 0;
        b[3] = (ai > 2 && ai < 6) || ai > 10;
        b[4] = ai > 4 && aq < 8;
        b[5] = ai < 8 && aq < 8;
        b[6] = i > 0;
        break;
    case 256:
        b[0] = (aq >= 2 && aq <= 6) || (aq >= 10 && aq <= 14);
        b[1] = aq > 4 && aq < 12;
        b[2] = aq < 8;
        b[3] = q < 0;
        b[4] = (ai >= 2 && ai <= 6) || (ai >= 10 && ai <= 14);
        b[5] = ai > 4 && ai < 12;
        b[6] = ai < 8;
        b[7] = i > 0;
        break;
    default:
        return -1;
    }
    int s = 0;
    for (int k = 0; k < 8; ++k) s |= (b[k] ? 1 : 0) << k;
    return s;
}

// Largest odd level per axis, and whether the corners where both magnitudes
// exceed cornerCut are left out (the cross shapes of 32 and 128 points).
void qamGrid(int order, int* maxLevel, int* cornerCut) {
    switch (order) {
    case 16: *maxLevel = 3; *cornerCut = 99; break;
    case 32: *maxLevel = 5; *cornerCut = 4; break;
    case 64: *maxLevel = 7; *cornerCut = 99; break;
    case 128: *maxLevel = 11; *cornerCut = 8; break;
    default: *maxLevel = 15; *cornerCut = 99; break;
    }
}

Alphabet qamAlphabet(int order, int bitsPerSymbol) {
    int maxLevel = 0, cornerCut = 0;
    qamGrid(order, &maxLevel, &cornerCut);
    Alphabet a;
    a.points.assign(order, {0.0, 0.0});
    std::vector<int> hits(order, 0);
    for (int i = -maxLevel; i <= maxLevel; i += 2) {
        for (int q = -maxLevel; q <= maxLevel; q += 2) {
            if (std::abs(i) > cornerCut && std::abs(q) > cornerCut) continue;
            const int s = qamLabel(order, i, q);
            if (s < 0 || s >= order || hits[s]++ != 0)
                throw std::logic_error("QAM labelling is not one-to-one for order " +
                                       std::to_string(order));
            a.points[s] = {double(i), double(q)};
        }
    }
    if (std::count(hits.begin(), hits.end(), 1) != order)
        throw std::logic_error("QAM grid does not cover every symbol of order " +
                               std::to_string(order));
    for (int s = 0; s < order; ++s) {
        std::vector<int> bits(bitsPerSymbol);
        for (int k = 0; k < bitsPerSymbol; ++k) bits[k] = (s >> k) & 1;
        a.bits.push_back(bits);
    }
    a.outerLevel = maxLevel;
    return a;
}

Alphabet pskAlphabet(int M, int bitsPerSymbol) {
    Alphabet a;
    for (int k = 0; k < M; ++k) {
        // BPSK decides around 0 and pi; the larger orders around sector centres.
        const double phase = M == 2 ? k * kPi : (2 * k + 1) * kPi / M;
        a.points.push_back(std::polar(1.0, phase));
        const int gray = k ^ (k >> 1);
        std::vector<int> bits(bitsPerSymbol);
        for (int t = 0; t < bitsPerSymbol; ++t) bits[t] = (gray >> (bitsPerSymbol - 1 - t)) & 1;
        a.bits.push_back(bits);
    }
    return a;
}

Alphabet fskAlphabet(int mode) {
    Alphabet a;
    if (mode == 1) {  // two levels, symbol 1 = positive
        a.points = {{-1.0, 0.0}, {1.0, 0.0}};
        a.bits = {{0}, {1}};
        a.outerLevel = 1.0;
        return a;
    }
    // Four-level slicing: symbol = sign + 2*inner on the +-1, +-3 scale.
    const double levels[4] = {-3.0, 3.0, -1.0, 1.0};
    const int count = mode == 2 ? 4 : 2;
    for (int s = 0; s < count; ++s) {
        a.points.push_back({levels[s], 0.0});
        a.bits.push_back({s & 1, s >> 1});
    }
    a.outerLevel = 3.0;
    return a;
}

}  // namespace

bool modeInfo(int mode, Family* family, int* order, int* bitsPerSymbol) {
    const ModeRow* row = findMode(mode);
    if (!row) return false;
    if (family) *family = row->family;
    if (order) *order = row->order;
    if (bitsPerSymbol) *bitsPerSymbol = row->bitsPerSymbol;
    return true;
}

std::string modeName(int mode) {
    const ModeRow* row = findMode(mode);
    return row ? row->name : "";
}

int modeFromName(const std::string& name) {
    const int code = parseSmallInt(name);
    if (code >= 0) return findMode(code) ? code : -1;
    const std::string u = upper(name);
    for (const ModeRow& row : kModes)
        if (u == row.name) return row.code;
    return -1;
}

int filterFromName(const std::string& name) {
    const int code = parseSmallInt(name);
    if (code >= 0) return code >= kRRC && code <= kHalfSine ? code : -1;
    const std::string u = upper(name);
    if (u == "RRC") return kRRC;
    if (u == "RC") return kRC;
    if (u == "GAUSS" || u == "GAUSSIAN") return kGauss;
    if (u == "RECT" || u == "RECTANGULAR") return kRect;
    if (u == "HALFSINE" || u == "HALF_SINE" || u == "HALF-SINE") return kHalfSine;
    return -1;
}

std::string filterName(int filterType) {
    switch (filterType) {
    case kRRC: return "rrc";
    case kRC: return "rc";
    case kGauss: return "gauss";
    case kRect: return "rect";
    case kHalfSine: return "halfsine";
    default: return "";
    }
}

Alphabet alphabetFor(int mode, double askLow) {
    Family family;
    int order = 0, bps = 0;
    if (!modeInfo(mode, &family, &order, &bps)) return {};
    switch (family) {
    case Family::PSK: return pskAlphabet(order, bps);
    case Family::QAM: return qamAlphabet(order, bps);
    case Family::FSK: return fskAlphabet(mode);
    case Family::ASK: {
        Alphabet a;
        a.points = {{askLow, 0.0}, {1.0, 0.0}};
        a.bits = {{0}, {1}};
        return a;
    }
    default: return {};
    }
}

// ---- Pulses ----

double pulseValue(int filterType, double beta, double t) {
    const double eps = 1e-9;
    switch (filterType) {
    case kRRC: {
        // [sin(pi t (1-b)) + 4 b t cos(pi t (1+b))] / [pi t (1 - (4 b t)^2)]
        if (std::fabs(t) < eps) return 1.0 - beta + 4.0 * beta / kPi;
        const double x = 4.0 * beta * t;
        if (std::fabs(std::fabs(x) - 1.0) < eps) {
            const double a = kPi / (4.0 * beta);
            return beta / std::sqrt(2.0) *
                   ((1.0 + 2.0 / kPi) * std::sin(a) + (1.0 - 2.0 / kPi) * std::cos(a));
        }
        return (std::sin(kPi * t * (1.0 - beta)) + x * std::cos(kPi * t * (1.0 + beta))) /
               (kPi * t * (1.0 - x * x));
    }
    case kRC: {
        // sinc(t) cos(pi b t) / (1 - (2 b t)^2), limit pi/4 sinc(1/(2b)) at the poles
        auto sinc = [](double u) { return u == 0.0 ? 1.0 : std::sin(kPi * u) / (kPi * u); };
        const double x = 2.0 * beta * t;
        if (std::fabs(std::fabs(x) - 1.0) < eps) return kPi / 4.0 * sinc(1.0 / (2.0 * beta));
        return sinc(t) * std::cos(kPi * beta * t) / (1.0 - x * x);
    }
    case kGauss: {
        const double a = std::sqrt(std::log(2.0) / 2.0) / beta;
        const double u = kPi * t / a;
        return std::exp(-u * u);
    }
    case kRect: return (t >= -0.5 && t < 0.5) ? 1.0 : 0.0;
    case kHalfSine: return std::fabs(t) <= 0.5 ? std::cos(kPi * t) : 0.0;
    default: return 0.0;
    }
}

std::vector<double> pulseTaps(int filterType, double beta, int span, int L, double delay) {
    const bool shortPulse = filterType == kRect || filterType == kHalfSine;
    const double halfSupport = shortPulse ? 0.5 : span / 2.0;
    const int H = static_cast<int>(std::ceil((halfSupport + std::fabs(delay)) * L - 1e-9));
    std::vector<double> h(2 * H + 1, 0.0);
    double energy = 0.0;
    for (int d = -H; d <= H; ++d) {
        const double t = double(d) / L - delay;
        if (std::fabs(t) > halfSupport + 1e-12) continue;  // truncation to the span
        h[d + H] = pulseValue(filterType, beta, t);
        energy += h[d + H] * h[d + H];
    }
    if (energy > 0.0)
        for (double& v : h) v /= std::sqrt(energy);
    return h;
}

// ---- Random source ----

std::uint64_t Rng::splitmix64(std::uint64_t* state) {
    std::uint64_t z = (*state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

Rng::Rng(std::uint64_t seed) {
    std::uint64_t st = seed;
    for (std::uint64_t& w : s_) w = splitmix64(&st);
}

static inline std::uint64_t rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

std::uint64_t Rng::next() {
    const std::uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const std::uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
}

double Rng::uniform() { return double(next() >> 11) * 0x1.0p-53; }

int Rng::below(int n) {
    // Rejection of the top partial range keeps every value equally likely.
    const std::uint64_t un = static_cast<std::uint64_t>(n);
    const std::uint64_t limit = UINT64_MAX - (UINT64_MAX % un);
    std::uint64_t r;
    do r = next();
    while (r >= limit);
    return static_cast<int>(r % un);
}

std::complex<double> Rng::gaussian() {
    // Box-Muller: r = sqrt(-ln U1) gives E r^2 = 1, split over two components.
    const double u1 = 1.0 - uniform();  // (0, 1]: the log stays finite
    const double u2 = uniform();
    const double r = std::sqrt(-std::log(u1));
    const double a = 2.0 * kPi * u2;
    return {r * std::cos(a), r * std::sin(a)};
}

}  // namespace vantrel::siggen
