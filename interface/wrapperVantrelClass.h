/*
 * Vantrel modulation-analysis library: the public C interface.
 *
 * A host creates an instance, hands each captured block of int16 I/Q samples
 * to VantrelExcute together with an ExParamOut record, and reads the figures
 * back from its own DisplayData record. Both records are packed to 4-byte
 * alignment; their layout is part of the binary interface and is pinned by the
 * static assertions at the end of this header (in C and in C++).
 *
 * Buffer ownership: the host owns ExParamOut, DisplayData and every array that
 * DisplayData points to. The library only copies values into those arrays and
 * sets the counts; it never allocates, frees or replaces the pointers.
 *
 * Which arrays a call writes depends on the mode: every digital code writes
 * eye, constI, constQ, bits, symbols, evm and magErr, and the PSK and QAM
 * codes (and every code outside the table) phaseErr as well; analog AM writes
 * envTrace, FM freqTrace, PM phaseTrace, the shift analysis shiftedIQ, the two
 * in-phase analyses iTrace. Arrays a mode does not write are never touched and
 * may be null. A null array that the mode writes makes VantrelExcute return -1
 * before anything is read, captured or written; the record keeps its contents.
 *
 * The library cannot see how long a host array is. It never writes more than
 * the capacities published below for the call's inLen and mode; those
 * capacities are part of the binary interface of this major version and will
 * not grow within it, so a host that sizes its arrays with them, from any 1.x
 * header, is safe. A host that sizes an array it passes below them (a guess
 * made before the capacities were published, a hard-coded 800) risks a write
 * past its buffer that no check inside the library can prevent.
 *
 * Threading: the library starts no threads and takes no locks. The instance
 * registry is process-wide, so the host must not call these functions from two
 * threads at once.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef VANTREL_WRAPPER_VANTREL_CLASS_H
#define VANTREL_WRAPPER_VANTREL_CLASS_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(VANTREL_BUILDING_LIBRARY)
#define VANTREL_API __attribute__((visibility("default")))
#else
#define VANTREL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Public modulation code, carried in ExParamOut.mode. */
typedef enum modulationTypeOut {
    MOD_2FSK = 1,
    MOD_4FSK = 2,
    MOD_2FSK_B = 3,
    MOD_BPSK = 4,
    MOD_QPSK = 5,
    MOD_8PSK = 6,
    MOD_16QAM = 7,
    MOD_ASK = 8,
    MOD_64QAM = 9,
    MOD_ANALOG_AM = 10,
    MOD_ANALOG_FM = 11,
    MOD_ANALOG_PM = 12,
    MOD_ANALOG_SHIFT = 13,
    MOD_ANALOG_I_A = 14,
    MOD_ANALOG_I_B = 15,
    MOD_128QAM = 16,
    MOD_256QAM = 17,
    MOD_32QAM = 18
} modulationTypeOut;

/* Internal modulation family derived from the public code. */
typedef enum ModType {
    MT_PSK = 0,
    MT_QAM = 1,
    MT_ASK = 2,
    MT_FSK = 3,
    MT_ANALOG = 4
} ModType;

/* Shaping and matched filter, carried in ExParamOut.filterType. */
typedef enum FilterType {
    FILTER_RRC = 1,      /* root raised cosine, roll-off in ExParamOut.rolloff */
    FILTER_RC = 2,       /* raised cosine */
    FILTER_GAUSS = 3,    /* Gaussian, bandwidth-time product in rolloff */
    FILTER_RECT = 4,     /* rectangular */
    FILTER_HALFSINE = 5  /* half sine */
} FilterType;

#pragma pack(push, 4)

/* Parameters of one call (32 bytes). */
typedef struct ExParamOut {
    uint8_t reserved0[8]; /* never read by the library, copied through */
    double Rb;            /* symbol rate, same unit as the sample rate */
    uint32_t mode;        /* a modulationTypeOut value */
    double rolloff;       /* roll-off, or BT of the Gaussian filter */
    uint32_t filterType;  /* a FilterType value */
} ExParamOut;

/* Result record of one call (280 bytes). Counts are numbers of values
 * written into the host's arrays. */
typedef struct DisplayData {
    double* eye;             /* eye-diagram trace */
    uint32_t eyeLen;
    double* constI;          /* constellation, in-phase */
    double* constQ;          /* constellation, quadrature */
    uint32_t constLen;
    uint32_t* bits;          /* decided bits, one per element */
    uint32_t bitsLen;
    uint32_t* symbols;       /* decided symbol indices */
    uint32_t symbolsLen;
    double* evm;             /* error-vector magnitude per symbol */
    uint32_t evmLen;
    double evmRms;
    double evmPeak;
    double* phaseErr;        /* phase error per symbol, radians */
    uint32_t phaseErrLen;
    double phaseErrRms;      /* degrees after the summary statistics */
    double phaseErrPeak;     /* signed extreme, degrees */
    double* magErr;          /* magnitude error per symbol */
    uint32_t magErrLen;
    double magErrRms;
    double magErrPeak;
    double amDepth;          /* AM depth, ratio (analog AM) */
    double fmPeakDev;        /* FM peak deviation, Hz (analog FM) */
    double freqOffset;       /* coarse carrier offset, Hz */
    double peakLevel;        /* spectral line level, dB; -1000 = not measured */
    double modDepth;         /* ASK modulation depth */
    double freqDeviation;    /* FSK deviation, Hz */
    double iqOffset;         /* I/Q origin offset, raw int16 units */
    double iqGainRatio;      /* I/Q amplitude ratio */
    double quadError;        /* quadrature error, radians */
    double* phaseTrace;      /* unwrapped, detrended phase (analog PM) */
    uint32_t phaseTraceLen;
    double* freqTrace;       /* instantaneous frequency, Hz (analog FM) */
    uint32_t freqTraceLen;
    double* envTrace;        /* envelope (analog AM) */
    uint32_t envTraceLen;
    double* iTrace;          /* in-phase waveform (analog I) */
    uint32_t iTraceLen;
    double* shiftedIQ;       /* carrier moved to 1000 Hz, re/im interleaved */
    uint32_t shiftedIQLen;   /* twice the sample count */
    double snr;              /* signal-to-noise ratio, dB */
} DisplayData;

#pragma pack(pop)

/* Return codes of VantrelExcute. */
#define VANTREL_OK 0
#define VANTREL_TOO_SHORT 1          /* fewer than 2000 symbols in the block */
#define VANTREL_BAD_ARGUMENT (-1)    /* invalid arguments or parameters */
#define VANTREL_TOO_FEW_POINTS (-3)  /* fewer than 800 constellation points */
#define VANTREL_NO_INSTANCE (-4)     /* unknown handle, or out of memory */

/* Creates an instance and returns its handle: 0, 1, 2 ... in creation order,
 * never reused. Returns -1 (and creates nothing) if memory runs out. */
VANTREL_API int VantrelObjCreatSelfEncode(void);

/* Liveness check: 0 if the handle names a live instance, -1 otherwise. */
VANTREL_API int VantrelObjReset(int handle);

/* Destroys an instance: 0 if one was destroyed, -1 otherwise. */
VANTREL_API int VantrelObjRelease(int handle);

/* Copies the 27-byte version text (with its terminating zero) into dst, which
 * must hold at least 27 bytes, and returns 26. */
VANTREL_API int GetALGVersion(char* dst);

/* Analyses one block. I and Q hold inLen samples each; fsIn is their sample
 * rate and fsMin the lowest rate the host accepts (same unit as param->Rb).
 * init is only logged; dumpFlag non-zero writes the debug capture files
 * "./Vantrel_Parameter.txt", "./Vantrel_IQData.bin" and "./Vantrel_const.txt"
 * in the working directory. Returns one of the VANTREL_* codes above; -1 also
 * for a null I, Q, param or out, or a null DisplayData array the mode writes
 * (see "Buffer ownership" at the top). */
VANTREL_API int VantrelExcute(int handle, const int16_t* I, const int16_t* Q,
                              uint32_t inLen, const ExParamOut* param,
                              bool init, bool dumpFlag, DisplayData* out,
                              double fsMin, double fsIn);

/* The next handle to be given out. */
VANTREL_API extern int objcount;

/* ---- Measurement mode ----
 * A second analysis of the same block that reports what the signal physically
 * is, in instrument units (docs/measurements.md defines every figure). This
 * record has natural alignment (it is not packed like the two above). A figure
 * that does not apply to the signal's family, or that the block does not let
 * the estimators reach, is NaN, never 0. */
typedef struct VantrelMeasurement {
    uint32_t size;               /* in: sizeof(VantrelMeasurement); out: bytes filled */
    uint32_t flags;              /* VANTREL_MEAS_* bits */
    uint32_t symbolCount;        /* symbols the symbol figures cover (0 for analog) */
    int32_t standardCode;        /* VantrelExcute's code when out was given, else 0 */
    double carrierOffsetHz;      /* carrier frequency relative to the capture's 0 Hz */
    double symbolRateErrorPpm;   /* (measured - nominal) / nominal * 1e6 */
    double merDb;                /* modulation error ratio */
    double cnrDb;                /* carrier power / noise power in the occupied band */
    double evmRmsPercent;        /* RMS error vector / RMS of the ideal points */
    double evmPeakPercent;
    double evm95Percent;         /* 95th percentile */
    double magErrRmsPercent;
    double phaseErrRmsDeg;
    double iqOffsetDb;           /* origin offset relative to the signal, dB */
    double iqGainImbalanceDb;    /* 20 log10(gain I / gain Q) */
    double quadErrorDeg;         /* quadrature error, degrees */
    double occupiedBandwidthHz;  /* bandwidth holding 99 % of the power */
    double fskDeviationHz;       /* peak deviation of the outer tone */
    double fskErrorPercent;      /* RMS FSK error / deviation */
    double amDepthPercent;       /* AM modulation depth */
    double fmDeviationHz;        /* FM peak deviation */
    double pmDeviationRad;       /* PM peak deviation */
    double modulationRateHz;     /* digital: measured symbol rate; analog: tone frequency */
} VantrelMeasurement;

/* The symbol clock (resp. carrier) estimator has converged; the criteria are
 * given in docs/measurements.md. */
#define VANTREL_MEAS_TIMING_LOCKED 1u
#define VANTREL_MEAS_CARRIER_LOCKED 2u

/* Measures one block on the measurement signal path. Returns 0 when the block
 * was measured (figures it could not estimate are NaN), -4 for an unknown
 * handle or no memory, -1 for a null m, I, Q or param, m->size below
 * sizeof(VantrelMeasurement), inLen outside 16384..320000, a non-finite or
 * non-positive fsIn or Rb, a digital code outside 1..64 samples per symbol,
 * or an unknown code. out may be NULL, and then only the measurement runs;
 * when given, the standard analysis (VantrelExcute with fsMin 0 and no debug
 * capture) also fills it, within the published capacities, with symbolsLen
 * counting symbols and bitsLen counting bits, and its return code is stored
 * in m->standardCode. */
VANTREL_API int VantrelMeasure(int handle, const int16_t* I, const int16_t* Q, uint32_t inLen,
                               const ExParamOut* param, double fsIn, VantrelMeasurement* m,
                               DisplayData* out);

/* ---- Host buffer capacities ----
 * The largest count the library can write into each DisplayData array for a
 * block of inLen samples (inLen <= 320000 for any accepted call) analysed as
 * `mode`. A host that sizes every array with these never sees a write past
 * its buffers.
 *
 * Derivation. Digital blocks are analysed at four samples per symbol; since
 * the entry accepts 1..64 samples per symbol, the block at that rate holds at
 * most 4 * inLen + 2 samples, hence fewer than inLen symbols after the
 * matched filter and the timing loop.
 *  - PSK, FSK, QAM 16/32/64: decisions and displays use at most the last 800
 *    symbols: 800 points and per-symbol values, 800 * bits-per-symbol bits
 *    (PSK up to 3, FSK 2, QAM 4..6), an eye of 4 * 800 - 16 values.
 *  - ASK: the constellation is limited to 800 points, but symbols, bits and
 *    the EVM and magnitude arrays cover every equalised symbol (< inLen), and
 *    the eye holds 4 per symbol.
 *  - QAM 128/256: the display window is 2000 symbols (eye 4 * 2000 - 16); the
 *    bit array holds the bits of every decided symbol, < inLen * 7 or 8.
 *  - Analog: one trace value per sample (<= inLen), the shifted I/Q pairs
 *    2 * inLen; no constellation, symbols or bits.
 * Every code outside 1..18 is treated like PSK. */
/* Bits per decided symbol (2-FSK is counted as 2, its four-level bound). */
static inline uint32_t vantrel_max_bits_per_symbol(uint32_t mode) {
    switch (mode) {
    case MOD_2FSK: case MOD_2FSK_B: case MOD_4FSK: return 2;
    case MOD_BPSK: case MOD_ASK: return 1;
    case MOD_QPSK: return 2;
    case MOD_8PSK: return 3;
    case MOD_16QAM: return 4;
    case MOD_32QAM: return 5;
    case MOD_64QAM: return 6;
    case MOD_128QAM: return 7;
    case MOD_256QAM: return 8;
    default: return 3;
    }
}

static inline int vantrel_is_analog(uint32_t mode) {
    return mode >= MOD_ANALOG_AM && mode <= MOD_ANALOG_I_B;
}

/* constI and constQ, each. */
static inline uint32_t vantrel_capacity_constellation(uint32_t mode) {
    if (vantrel_is_analog(mode)) return 0;
    return (mode == MOD_128QAM || mode == MOD_256QAM) ? 2000u : 800u;
}

/* symbols, evm, magErr and phaseErr, each. */
static inline uint32_t vantrel_capacity_symbols(uint32_t inLen, uint32_t mode) {
    if (vantrel_is_analog(mode)) return 0;
    if (mode == MOD_ASK) return inLen;
    return vantrel_capacity_constellation(mode);
}

static inline uint32_t vantrel_capacity_bits(uint32_t inLen, uint32_t mode) {
    if (vantrel_is_analog(mode)) return 0;
    if (mode == MOD_ASK) return inLen;
    if (mode == MOD_128QAM || mode == MOD_256QAM) return inLen * vantrel_max_bits_per_symbol(mode);
    return 800u * vantrel_max_bits_per_symbol(mode);
}

static inline uint32_t vantrel_capacity_eye(uint32_t inLen, uint32_t mode) {
    if (vantrel_is_analog(mode)) return 0;
    if (mode == MOD_ASK) return 4u * inLen;
    return 4u * vantrel_capacity_constellation(mode) - 16u;
}

/* phaseTrace, freqTrace, envTrace and iTrace, each. */
static inline uint32_t vantrel_capacity_trace(uint32_t inLen, uint32_t mode) {
    return vantrel_is_analog(mode) ? inLen : 0u;
}

/* shiftedIQ (real and imaginary interleaved). */
static inline uint32_t vantrel_capacity_shifted_iq(uint32_t inLen, uint32_t mode) {
    return vantrel_is_analog(mode) ? 2u * inLen : 0u;
}

#ifdef __cplusplus
} /* extern "C" */
#endif

/* ---- Layout pins: the byte offsets of the boundary records. ---- */
#if defined(__cplusplus)
#define VANTREL_STATIC_ASSERT(cond, name) static_assert(cond, #name)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define VANTREL_STATIC_ASSERT(cond, name) _Static_assert(cond, #name)
#else
#define VANTREL_STATIC_ASSERT(cond, name) \
    typedef char vantrel_layout_##name[(cond) ? 1 : -1]
#endif

VANTREL_STATIC_ASSERT(sizeof(ExParamOut) == 32, ExParamOut_size);
VANTREL_STATIC_ASSERT(offsetof(ExParamOut, Rb) == 8, ExParamOut_Rb);
VANTREL_STATIC_ASSERT(offsetof(ExParamOut, mode) == 16, ExParamOut_mode);
VANTREL_STATIC_ASSERT(offsetof(ExParamOut, rolloff) == 20, ExParamOut_rolloff);
VANTREL_STATIC_ASSERT(offsetof(ExParamOut, filterType) == 28, ExParamOut_filterType);

VANTREL_STATIC_ASSERT(sizeof(DisplayData) == 280, DisplayData_size);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, eye) == 0, DD_eye);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, eyeLen) == 8, DD_eyeLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, constI) == 12, DD_constI);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, constQ) == 20, DD_constQ);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, constLen) == 28, DD_constLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, bits) == 32, DD_bits);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, bitsLen) == 40, DD_bitsLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, symbols) == 44, DD_symbols);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, symbolsLen) == 52, DD_symbolsLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, evm) == 56, DD_evm);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, evmLen) == 64, DD_evmLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, evmRms) == 68, DD_evmRms);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, evmPeak) == 76, DD_evmPeak);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, phaseErr) == 84, DD_phaseErr);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, phaseErrLen) == 92, DD_phaseErrLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, phaseErrRms) == 96, DD_phaseErrRms);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, phaseErrPeak) == 104, DD_phaseErrPeak);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, magErr) == 112, DD_magErr);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, magErrLen) == 120, DD_magErrLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, magErrRms) == 124, DD_magErrRms);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, magErrPeak) == 132, DD_magErrPeak);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, amDepth) == 140, DD_amDepth);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, fmPeakDev) == 148, DD_fmPeakDev);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, freqOffset) == 156, DD_freqOffset);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, peakLevel) == 164, DD_peakLevel);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, modDepth) == 172, DD_modDepth);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, freqDeviation) == 180, DD_freqDeviation);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, iqOffset) == 188, DD_iqOffset);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, iqGainRatio) == 196, DD_iqGainRatio);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, quadError) == 204, DD_quadError);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, phaseTrace) == 212, DD_phaseTrace);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, phaseTraceLen) == 220, DD_phaseTraceLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, freqTrace) == 224, DD_freqTrace);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, freqTraceLen) == 232, DD_freqTraceLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, envTrace) == 236, DD_envTrace);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, envTraceLen) == 244, DD_envTraceLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, iTrace) == 248, DD_iTrace);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, iTraceLen) == 256, DD_iTraceLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, shiftedIQ) == 260, DD_shiftedIQ);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, shiftedIQLen) == 268, DD_shiftedIQLen);
VANTREL_STATIC_ASSERT(offsetof(DisplayData, snr) == 272, DD_snr);

VANTREL_STATIC_ASSERT(sizeof(VantrelMeasurement) == 168, VantrelMeasurement_size);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, size) == 0, VM_size);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, flags) == 4, VM_flags);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, symbolCount) == 8, VM_symbolCount);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, standardCode) == 12, VM_standardCode);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, carrierOffsetHz) == 16, VM_carrierOffsetHz);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, symbolRateErrorPpm) == 24, VM_symbolRateErrorPpm);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, merDb) == 32, VM_merDb);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, cnrDb) == 40, VM_cnrDb);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, evmRmsPercent) == 48, VM_evmRmsPercent);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, evmPeakPercent) == 56, VM_evmPeakPercent);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, evm95Percent) == 64, VM_evm95Percent);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, magErrRmsPercent) == 72, VM_magErrRmsPercent);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, phaseErrRmsDeg) == 80, VM_phaseErrRmsDeg);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, iqOffsetDb) == 88, VM_iqOffsetDb);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, iqGainImbalanceDb) == 96, VM_iqGainImbalanceDb);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, quadErrorDeg) == 104, VM_quadErrorDeg);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, occupiedBandwidthHz) == 112, VM_occupiedBandwidthHz);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, fskDeviationHz) == 120, VM_fskDeviationHz);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, fskErrorPercent) == 128, VM_fskErrorPercent);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, amDepthPercent) == 136, VM_amDepthPercent);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, fmDeviationHz) == 144, VM_fmDeviationHz);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, pmDeviationRad) == 152, VM_pmDeviationRad);
VANTREL_STATIC_ASSERT(offsetof(VantrelMeasurement, modulationRateHz) == 160, VM_modulationRateHz);

/* ---- C++ only: the process-wide instance registry. ---- */
#ifdef __cplusplus
#include <map>
class VantrelClass;
/* Handle -> instance. Looking up an unknown handle with operator[] leaves a
 * null entry behind; null means "no instance". */
VANTREL_API extern std::map<int, VantrelClass*> VantrelObjCounter;
#endif

#endif /* VANTREL_WRAPPER_VANTREL_CLASS_H */
