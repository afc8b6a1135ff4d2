"""The shared library seen through ctypes: the boundary records, the host
buffer capacities and the search for ``libvantrel.so.1``.

The records are packed to 4-byte alignment, so every double after a 32-bit
count sits at an offset that is a multiple of 4, not 8; ``_pack_ = 4`` gives
ctypes the same layout the C header pins with its static assertions.
"""

import ctypes
import os
from pathlib import Path

LIBRARY_NAME = "libvantrel.so.1"

# Public modulation codes (ExParamOut.mode) and the names the analyzer accepts.
MODES = {
    "2FSK": 1, "4FSK": 2, "2FSK_B": 3, "BPSK": 4, "QPSK": 5, "8PSK": 6,
    "16QAM": 7, "ASK": 8, "64QAM": 9, "AM": 10, "FM": 11, "PM": 12,
    "SHIFT": 13, "I_A": 14, "I_B": 15, "128QAM": 16, "256QAM": 17, "32QAM": 18,
}
MODE_NAMES = {code: name for name, code in MODES.items()}

# Shaping and matched filter codes (ExParamOut.filterType).
FILTERS = {"rrc": 1, "rc": 2, "gauss": 3, "gaussian": 3, "rect": 4,
           "rectangular": 4, "halfsine": 5, "half-sine": 5}

# Return codes of the analysis call and what they mean.
CODE_MEANINGS = {
    0: "success",
    1: "block shorter than 2000 symbols",
    -1: "invalid arguments",
    -3: "fewer than 800 constellation points",
    -4: "unknown handle or out of memory",
}

# The largest block one call accepts; longer blocks are refused with -1, so
# the buffers never need to be larger than this length calls for.
MIN_BLOCK = 16384
MAX_BLOCK = 320000


def family(mode):
    """Family of a public code: "PSK", "QAM", "ASK", "FSK" or "ANALOG".

    Unknown codes are analysed like PSK by the library, so they are "PSK" here.
    """
    if mode in (1, 2, 3):
        return "FSK"
    if mode == 8:
        return "ASK"
    if mode in (7, 9, 16, 17, 18):
        return "QAM"
    if 10 <= mode <= 15:
        return "ANALOG"
    return "PSK"


class ExParamOut(ctypes.Structure):
    """Parameters of one call (32 bytes)."""
    _pack_ = 4
    _fields_ = [
        ("reserved0", ctypes.c_uint8 * 8),
        ("Rb", ctypes.c_double),
        ("mode", ctypes.c_uint32),
        ("rolloff", ctypes.c_double),
        ("filterType", ctypes.c_uint32),
    ]


_D = ctypes.POINTER(ctypes.c_double)
_U = ctypes.POINTER(ctypes.c_uint32)


class DisplayData(ctypes.Structure):
    """Result record of one call (280 bytes)."""
    _pack_ = 4
    _fields_ = [
        ("eye", _D), ("eyeLen", ctypes.c_uint32),
        ("constI", _D), ("constQ", _D), ("constLen", ctypes.c_uint32),
        ("bits", _U), ("bitsLen", ctypes.c_uint32),
        ("symbols", _U), ("symbolsLen", ctypes.c_uint32),
        ("evm", _D), ("evmLen", ctypes.c_uint32),
        ("evmRms", ctypes.c_double), ("evmPeak", ctypes.c_double),
        ("phaseErr", _D), ("phaseErrLen", ctypes.c_uint32),
        ("phaseErrRms", ctypes.c_double), ("phaseErrPeak", ctypes.c_double),
        ("magErr", _D), ("magErrLen", ctypes.c_uint32),
        ("magErrRms", ctypes.c_double), ("magErrPeak", ctypes.c_double),
        ("amDepth", ctypes.c_double), ("fmPeakDev", ctypes.c_double),
        ("freqOffset", ctypes.c_double), ("peakLevel", ctypes.c_double),
        ("modDepth", ctypes.c_double), ("freqDeviation", ctypes.c_double),
        ("iqOffset", ctypes.c_double), ("iqGainRatio", ctypes.c_double),
        ("quadError", ctypes.c_double),
        ("phaseTrace", _D), ("phaseTraceLen", ctypes.c_uint32),
        ("freqTrace", _D), ("freqTraceLen", ctypes.c_uint32),
        ("envTrace", _D), ("envTraceLen", ctypes.c_uint32),
        ("iTrace", _D), ("iTraceLen", ctypes.c_uint32),
        ("shiftedIQ", _D), ("shiftedIQLen", ctypes.c_uint32),
        ("snr", ctypes.c_double),
    ]


# Scalars of DisplayData with their units, in record order.
SCALARS = [
    ("evmRms", "%"), ("evmPeak", "%"),
    ("phaseErrRms", "deg"), ("phaseErrPeak", "deg"),
    ("magErrRms", "%"), ("magErrPeak", "%"),
    ("amDepth", "ratio"), ("fmPeakDev", "Hz"),
    ("freqOffset", "Hz"), ("peakLevel", "dB"),
    ("modDepth", "ratio"), ("freqDeviation", "Hz"),
    ("iqOffset", "raw units"), ("iqGainRatio", "ratio"),
    ("quadError", "rad"), ("snr", "dB"),
]

# Arrays of DisplayData: (pointer field, count field, element type, capacity
# function name, unit).  constI and constQ share constLen.
ARRAYS = [
    ("eye", "eyeLen", "f8", "eye", "normalised amplitude"),
    ("constI", "constLen", "f8", "constellation", "normalised I"),
    ("constQ", "constLen", "f8", "constellation", "normalised Q"),
    ("bits", "bitsLen", "u4", "bits", "bit"),
    ("symbols", "symbolsLen", "u4", "symbols", "symbol index"),
    ("evm", "evmLen", "f8", "symbols", "%"),
    ("phaseErr", "phaseErrLen", "f8", "symbols", "rad"),
    ("magErr", "magErrLen", "f8", "symbols", "%"),
    ("phaseTrace", "phaseTraceLen", "f8", "trace", "rad"),
    ("freqTrace", "freqTraceLen", "f8", "trace", "Hz"),
    ("envTrace", "envTraceLen", "f8", "trace", "raw units"),
    ("iTrace", "iTraceLen", "f8", "trace", "raw units"),
    ("shiftedIQ", "shiftedIQLen", "f8", "shifted_iq", "values (2 per sample)"),
]


# ---- Host buffer capacities ----
# The public header publishes these as static inline C functions, which a
# shared library does not export; they are restated here and the test suite
# compiles the header to check that both agree for every code.

# The measurement record, natural alignment, 168 bytes: (field, unit).
MEASUREMENT_FIGURES = [
    ("carrierOffsetHz", "Hz"), ("symbolRateErrorPpm", "ppm"), ("merDb", "dB"),
    ("cnrDb", "dB"), ("evmRmsPercent", "%"), ("evmPeakPercent", "%"),
    ("evm95Percent", "%"), ("magErrRmsPercent", "%"), ("phaseErrRmsDeg", "deg"),
    ("iqOffsetDb", "dB"), ("iqGainImbalanceDb", "dB"), ("quadErrorDeg", "deg"),
    ("occupiedBandwidthHz", "Hz"), ("fskDeviationHz", "Hz"), ("fskErrorPercent", "%"),
    ("amDepthPercent", "%"), ("fmDeviationHz", "Hz"), ("pmDeviationRad", "rad"),
    ("modulationRateHz", "Hz"),
]
MEAS_TIMING_LOCKED = 1
MEAS_CARRIER_LOCKED = 2


class VantrelMeasurement(ctypes.Structure):
    _fields_ = ([("size", ctypes.c_uint32), ("flags", ctypes.c_uint32),
                 ("symbolCount", ctypes.c_uint32), ("standardCode", ctypes.c_int32)] +
                [(name, ctypes.c_double) for name, _ in MEASUREMENT_FIGURES])


assert ctypes.sizeof(VantrelMeasurement) == 168


def _u32(x):
    return x & 0xFFFFFFFF


def max_bits_per_symbol(mode):
    """Bits per decided symbol (2-FSK counted as 2, its four-level bound)."""
    return {1: 2, 2: 2, 3: 2, 4: 1, 8: 1, 5: 2, 6: 3, 7: 4, 18: 5, 9: 6,
            16: 7, 17: 8}.get(mode, 3)


def _is_analog(mode):
    return 10 <= mode <= 15


def capacity_constellation(mode):
    """constI and constQ, each."""
    if _is_analog(mode):
        return 0
    return 2000 if mode in (16, 17) else 800


def capacity_symbols(in_len, mode):
    """symbols, evm, magErr and phaseErr, each."""
    if _is_analog(mode):
        return 0
    if mode == 8:
        return _u32(in_len)
    return capacity_constellation(mode)


def capacity_bits(in_len, mode):
    if _is_analog(mode):
        return 0
    if mode == 8:
        return _u32(in_len)
    if mode in (16, 17):
        return _u32(in_len * max_bits_per_symbol(mode))
    return 800 * max_bits_per_symbol(mode)


def capacity_eye(in_len, mode):
    if _is_analog(mode):
        return 0
    if mode == 8:
        return _u32(4 * in_len)
    return _u32(4 * capacity_constellation(mode) - 16)


def capacity_trace(in_len, mode):
    """phaseTrace, freqTrace, envTrace and iTrace, each."""
    return _u32(in_len) if _is_analog(mode) else 0


def capacity_shifted_iq(in_len, mode):
    """shiftedIQ (real and imaginary interleaved)."""
    return _u32(2 * in_len) if _is_analog(mode) else 0


def capacity(kind, in_len, mode):
    """Capacity of one array kind ("eye", "constellation", ...)."""
    if kind == "constellation":
        return capacity_constellation(mode)
    return globals()["capacity_" + kind](in_len, mode)


# ---- Finding and loading the library ----

class LibraryNotFoundError(OSError):
    """The shared library could not be loaded from any of the places tried."""


_HOW_TO = (
    "build it from a clone with 'cmake --preset default && cmake --build "
    "--preset default' and point at it with "
    "VANTREL_LIBRARY=$PWD/build/default/" + LIBRARY_NAME + ", or install "
    "library and package together with 'cmake --install build/default "
    "--prefix PREFIX'")


def _candidates():
    """Places next to the package: its own directory (a library copied
    beside it), then the library directory of the prefix the CMake install
    put both under (recorded in _install_paths.py at install time)."""
    here = Path(__file__).resolve().parent
    places = [here / LIBRARY_NAME]
    try:
        from ._install_paths import LIBRARY_DIR
    except ImportError:  # running from a clone or a pip install
        return places
    return places + [(here / LIBRARY_DIR / LIBRARY_NAME).resolve()]


def _declare(lib):
    lib.VantrelObjCreatSelfEncode.argtypes = []
    lib.VantrelObjCreatSelfEncode.restype = ctypes.c_int
    lib.VantrelObjRelease.argtypes = [ctypes.c_int]
    lib.VantrelObjRelease.restype = ctypes.c_int
    lib.GetALGVersion.argtypes = [ctypes.c_char_p]
    lib.GetALGVersion.restype = ctypes.c_int
    lib.VantrelExcute.argtypes = [
        ctypes.c_int, ctypes.POINTER(ctypes.c_int16), ctypes.POINTER(ctypes.c_int16),
        ctypes.c_uint32, ctypes.POINTER(ExParamOut), ctypes.c_bool, ctypes.c_bool,
        ctypes.POINTER(DisplayData), ctypes.c_double, ctypes.c_double]
    lib.VantrelExcute.restype = ctypes.c_int
    lib.VantrelMeasure.argtypes = [
        ctypes.c_int, ctypes.POINTER(ctypes.c_int16), ctypes.POINTER(ctypes.c_int16),
        ctypes.c_uint32, ctypes.POINTER(ExParamOut), ctypes.c_double,
        ctypes.POINTER(VantrelMeasurement), ctypes.POINTER(DisplayData)]
    lib.VantrelMeasure.restype = ctypes.c_int
    return lib


_loaded = None


def load():
    """The loaded library: VANTREL_LIBRARY if set, else next to the package,
    else the system loader's search path.  Raises LibraryNotFoundError."""
    global _loaded
    if _loaded is not None:
        return _loaded
    explicit = os.environ.get("VANTREL_LIBRARY")
    if explicit:
        try:
            _loaded = _declare(ctypes.CDLL(explicit))
        except OSError as e:
            raise LibraryNotFoundError(
                f"VANTREL_LIBRARY={explicit} cannot be loaded ({e}); set it to the "
                f"path of {LIBRARY_NAME}, or {_HOW_TO}") from None
        return _loaded
    tried = []
    for path in _candidates():
        tried.append(str(path))
        if path.is_file():
            _loaded = _declare(ctypes.CDLL(str(path)))
            return _loaded
    tried.append(LIBRARY_NAME + " on the system loader path")
    try:
        _loaded = _declare(ctypes.CDLL(LIBRARY_NAME))
    except OSError:
        raise LibraryNotFoundError(
            f"{LIBRARY_NAME} not found (tried {', '.join(tried)}); {_HOW_TO}") from None
    return _loaded


def version():
    """The library's version text."""
    buf = ctypes.create_string_buffer(32)
    load().GetALGVersion(buf)
    return buf.value.decode("ascii", "replace")
