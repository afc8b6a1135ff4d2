// libFuzzer target for VantrelExcute and VantrelMeasure: the input bytes
// choose every argument a host passes, the way a careless or corrupted host
// could pass them.
//
// Input layout (little-endian, missing bytes read as zero):
//   0..3    mode code, any 32-bit value
//   4..7    filter code, any 32-bit value
//   8..15   roll-off, raw double bit pattern
//   16..23  Rb, raw double bit pattern
//   24..31  fsIn, raw double bit pattern
//   32..39  fsMin, raw double bit pattern
//   40..43  inLen, any 32-bit value
//   44      hold: each sample pair below is repeated 1 + (hold % 64) times
//   45..    sample pairs, int16 I then int16 Q, repeated cyclically (with the
//           hold) until inLen samples exist; no pairs gives an all-zero block
//
// The host record is sized by the published capacities of (inLen, mode) and
// followed by guard values (and, under AddressSanitizer, the guard zone is
// poisoned so that a write into it stops at the faulting instruction). Each
// call must return a documented code, agree with the entry's validation
// rules, report counts within the capacities and leave every guard and
// array pointer untouched.
#include <sanitizer/asan_interface.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "wrapperVantrelClass.h"

namespace {

constexpr uint32_t kMaxAccepted = 320000;
constexpr size_t kHeader = 45;
constexpr size_t kGuard = 64;  // values after each array
constexpr double kGuardValue = -123456.75;
constexpr uint32_t kGuardWord = 0xDEADBEEFu;

[[noreturn]] void fail(const char* what, uint32_t detail) {
    std::fprintf(stderr, "excute_fuzzer: %s (%u)\n", what, detail);
    std::abort();
}

template <class T>
T readRaw(const uint8_t* data, size_t size, size_t at) {
    uint8_t bytes[sizeof(T)] = {};
    for (size_t i = 0; i < sizeof(T) && at + i < size; ++i) bytes[i] = data[at + i];
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

// One host array: `capacity` values, then a guard zone.
template <class T>
struct Guarded {
    Guarded(size_t capacity, T guard) : cap(capacity), fill(guard), v(capacity + kGuard, guard) {
        ASAN_POISON_MEMORY_REGION(v.data() + cap, kGuard * sizeof(T));
    }
    ~Guarded() { ASAN_UNPOISON_MEMORY_REGION(v.data() + cap, kGuard * sizeof(T)); }
    bool intact() {
        ASAN_UNPOISON_MEMORY_REGION(v.data() + cap, kGuard * sizeof(T));
        for (size_t i = cap; i < v.size(); ++i)
            if (std::memcmp(&v[i], &fill, sizeof(T)) != 0) return false;
        ASAN_POISON_MEMORY_REGION(v.data() + cap, kGuard * sizeof(T));
        return true;
    }
    size_t cap;
    T fill;
    std::vector<T> v;
};

// The entry's documented verdict before any analysis (0: the block goes on).
int validationVerdict(uint32_t mode, uint32_t inLen, double rb, double fsIn, double fsMin) {
    if (vantrel_is_analog(mode)) return (inLen < 16384 || inLen > kMaxAccepted) ? -1 : 0;
    if (rb < 1e-6 || fsMin > fsIn) return -1;
    if (inLen < 16384 || inLen > kMaxAccepted) return -1;
    const double r = fsIn / rb;
    if (r < 1 || r > 64) return -1;
    if (inLen < r * 2000) return 1;
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint32_t mode = readRaw<uint32_t>(data, size, 0);
    const uint32_t filter = readRaw<uint32_t>(data, size, 4);
    const double rolloff = readRaw<double>(data, size, 8);
    const double rb = readRaw<double>(data, size, 16);
    const double fsIn = readRaw<double>(data, size, 24);
    const double fsMin = readRaw<double>(data, size, 32);
    const uint32_t inLen = readRaw<uint32_t>(data, size, 40);
    const uint32_t hold = 1u + readRaw<uint8_t>(data, size, 44) % 64u;

    // The samples exist only up to the longest accepted length: a call with a
    // longer inLen must be refused before it reads any of them, and an
    // attempt to read them runs into AddressSanitizer's redzone.
    const size_t available = inLen < kMaxAccepted ? inLen : kMaxAccepted;
    std::vector<int16_t> I(available), Q(available);
    const size_t pairs = size > kHeader ? (size - kHeader) / 4 : 0;
    for (size_t k = 0; k < available; ++k) {
        if (pairs == 0) break;
        const size_t at = kHeader + 4 * ((k / hold) % pairs);
        I[k] = readRaw<int16_t>(data, size, at);
        Q[k] = readRaw<int16_t>(data, size, at + 2);
    }

    // Host arrays sized by the published capacities; a length the entry
    // refuses is sized as the longest accepted one (the call writes nothing).
    const uint32_t sizedFor = inLen <= kMaxAccepted ? inLen : kMaxAccepted;
    const size_t eyeCap = vantrel_capacity_eye(sizedFor, mode);
    const size_t constCap = vantrel_capacity_constellation(mode);
    const size_t symCap = vantrel_capacity_symbols(sizedFor, mode);
    const size_t bitsCap = vantrel_capacity_bits(sizedFor, mode);
    const size_t traceCap = vantrel_capacity_trace(sizedFor, mode);
    const size_t shiftCap = vantrel_capacity_shifted_iq(sizedFor, mode);
    Guarded<double> eye(eyeCap, kGuardValue), constI(constCap, kGuardValue),
        constQ(constCap, kGuardValue), evm(symCap, kGuardValue), phaseErr(symCap, kGuardValue),
        magErr(symCap, kGuardValue), phaseTrace(traceCap, kGuardValue),
        freqTrace(traceCap, kGuardValue), envTrace(traceCap, kGuardValue),
        iTrace(traceCap, kGuardValue), shifted(shiftCap, kGuardValue);
    Guarded<uint32_t> bits(bitsCap, kGuardWord), symbols(symCap, kGuardWord);

    DisplayData out{};
    out.eye = eye.v.data();
    out.constI = constI.v.data();
    out.constQ = constQ.v.data();
    out.evm = evm.v.data();
    out.phaseErr = phaseErr.v.data();
    out.magErr = magErr.v.data();
    out.phaseTrace = phaseTrace.v.data();
    out.freqTrace = freqTrace.v.data();
    out.envTrace = envTrace.v.data();
    out.iTrace = iTrace.v.data();
    out.shiftedIQ = shifted.v.data();
    out.bits = bits.v.data();
    out.symbols = symbols.v.data();

    ExParamOut param{};
    param.Rb = rb;
    param.mode = mode;
    param.rolloff = rolloff;
    param.filterType = filter;
    const ExParamOut before = param;

    const int handle = VantrelObjCreatSelfEncode();
    if (handle < 0) fail("no instance", 0);
    const int16_t* iPtr = I.empty() ? nullptr : I.data();
    const int16_t* qPtr = Q.empty() ? nullptr : Q.data();
    int16_t none[1] = {0};
    const int code = VantrelExcute(handle, iPtr ? iPtr : none, qPtr ? qPtr : none, inLen, &param,
                                   false, false, &out, fsMin, fsIn);
    // The measurement mode on the same arguments (its own signal path): a
    // documented code, the parameter record untouched, and under the
    // sanitizers no invalid access, overflow or leak on any input.
    VantrelMeasurement measured{};
    measured.size = sizeof measured;
    const int measureCode = VantrelMeasure(handle, iPtr ? iPtr : none, qPtr ? qPtr : none, inLen,
                                           &param, fsIn, &measured, nullptr);
    VantrelObjRelease(handle);
    if (measureCode != 0 && measureCode != -1 && measureCode != -4)
        fail("undocumented measurement code", static_cast<uint32_t>(measureCode));

    if (code != 0 && code != 1 && code != -1 && code != -3 && code != -4)
        fail("undocumented return code", static_cast<uint32_t>(code));
    if (std::memcmp(&param, &before, sizeof param) != 0) fail("parameter record written", 0);
    const int verdict = validationVerdict(mode, inLen, rb, fsIn, fsMin);
    if (verdict != 0 && code != verdict) fail("validation verdict differs", mode);
    if (verdict == 0 && code == 1) fail("too-short verdict on an accepted block", mode);
    if (vantrel_is_analog(mode) && code == -3) fail("-3 from an analog code", mode);

    const bool pointersKept =
        out.eye == eye.v.data() && out.constI == constI.v.data() &&
        out.constQ == constQ.v.data() && out.evm == evm.v.data() &&
        out.phaseErr == phaseErr.v.data() && out.magErr == magErr.v.data() &&
        out.phaseTrace == phaseTrace.v.data() && out.freqTrace == freqTrace.v.data() &&
        out.envTrace == envTrace.v.data() && out.iTrace == iTrace.v.data() &&
        out.shiftedIQ == shifted.v.data() && out.bits == bits.v.data() &&
        out.symbols == symbols.v.data();
    if (!pointersKept) fail("array pointer replaced", mode);
    if (!eye.intact() || !constI.intact() || !constQ.intact() || !evm.intact() ||
        !phaseErr.intact() || !magErr.intact() || !phaseTrace.intact() || !freqTrace.intact() ||
        !envTrace.intact() || !iTrace.intact() || !shifted.intact() || !bits.intact() ||
        !symbols.intact())
        fail("guard zone written", mode);
    if (code == 0) {
        if (out.eyeLen > eyeCap || out.constLen > constCap || out.symbolsLen > symCap ||
            out.evmLen > symCap || out.phaseErrLen > symCap || out.magErrLen > symCap ||
            out.bitsLen > bitsCap || out.phaseTraceLen > traceCap ||
            out.freqTraceLen > traceCap || out.envTraceLen > traceCap ||
            out.iTraceLen > traceCap || out.shiftedIQLen > shiftCap)
            fail("count beyond the published capacity", mode);
    }
    return 0;
}
