"""Vantrel from Python: one call turns a block of I/Q samples into numpy arrays
and figures, and :mod:`vantrel.plot` draws what an instrument shows.

>>> import vantrel
>>> samples, fs = vantrel.read_sigmf("capture.sigmf-meta")
>>> a = vantrel.analyze(samples, fs, rb=25000, mode="QPSK")
>>> a.evmRms, a.constI.shape

The package is a thin layer over the shared library ``libvantrel.so.1``
(loaded with ctypes; see :func:`vantrel._lib.load` for where it is looked for).
"""

import atexit
import math
import numbers
import threading

import numpy as np

from . import _lib
from ._capture import CaptureError, read_raw, read_sigmf, to_int16
from ._lib import (CODE_MEANINGS, FILTERS, MODE_NAMES, MODES, LibraryNotFoundError,
                   family)

__all__ = [
    "analyze", "measure", "Measurement", "Analyzer", "Analysis", "AnalysisError", "BadArgumentError",
    "TooShortError", "TooFewPointsError", "NoInstanceError", "CaptureError",
    "LibraryNotFoundError", "read_sigmf", "read_raw", "to_int16", "MODES",
    "FILTERS", "mode_code", "family", "version",
]
__version__ = "1.0.0"

# The library keeps a process-wide registry and must not serve two calls at
# once; one lock serialises every call made through this package.
_call_lock = threading.Lock()


class AnalysisError(Exception):
    """The library refused or could not finish an analysis.

    Attributes
    ----------
    code : int
        The return code of the call.
    meaning : str
        What the code means.
    analysis : Analysis or None
        What the call left in the result record (front-end figures survive a
        -3, for instance); None when the call never ran.
    """

    def __init__(self, message, code, analysis=None):
        super().__init__(message)
        self.code = code
        self.meaning = CODE_MEANINGS.get(code, "unknown code")
        self.analysis = analysis


class BadArgumentError(AnalysisError, ValueError):
    """Return code -1: an argument broke one of the call's rules (named in the
    message)."""


class TooShortError(AnalysisError):
    """Return code 1: the block holds fewer than 2000 symbols."""


class TooFewPointsError(AnalysisError):
    """Return code -3: fewer than 800 constellation points were produced."""


class NoInstanceError(AnalysisError):
    """Return code -4: no analysis instance, or the library ran out of memory."""


_ERRORS = {-1: BadArgumentError, 1: TooShortError, -3: TooFewPointsError,
           -4: NoInstanceError}


def version():
    """The library's version text."""
    return _lib.version()


def mode_code(mode):
    """The public code of a mode given as a code 1..18 or a name ("QPSK",
    "16QAM", "AM", ... as the analyzer accepts them, any case)."""
    if isinstance(mode, numbers.Integral) and not isinstance(mode, bool):
        if 1 <= mode <= 18:
            return int(mode)
    elif isinstance(mode, str):
        name = mode.strip().upper()
        if name in MODES:
            return MODES[name]
        if name.isdigit() and 1 <= int(name) <= 18:
            return int(name)
    raise ValueError(f"unknown mode {mode!r}; use a code 1..18 or one of "
                     + ", ".join(MODES))


def _filter_code(filter):
    # Codes are passed through as the analyzer passes them: the library
    # itself decides what an unknown code does (the matched filter comes out
    # empty and a digital analysis fails with -3).
    if isinstance(filter, numbers.Integral) and not isinstance(filter, bool):
        if 0 <= filter <= 0xFFFFFFFF:
            return int(filter)
    elif isinstance(filter, str) and filter.strip().lower() in FILTERS:
        return FILTERS[filter.strip().lower()]
    raise ValueError(f"unknown filter {filter!r}; use rrc, rc, gauss, rect, halfsine "
                     "or a code 1..5")


def _finite(name, value):
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a number, not {type(value).__name__}")
    value = float(value)
    if not math.isfinite(value):
        raise ValueError(f"{name} must be a finite number, not {value}")
    return value


def _bad_argument_rule(n, fs, rb, mode, fs_min):
    """The rule of the call's entry that refused these arguments."""
    length = (f"the block holds {n} samples; one call takes {_lib.MIN_BLOCK} to "
              f"{_lib.MAX_BLOCK}")
    if family(mode) == "ANALOG":
        return length
    if rb < 1e-6:
        return f"rb = {rb:g} is below 1e-6: the symbol rate must be positive"
    if fs_min > fs:
        return f"fs_min = {fs_min:g} is above fs = {fs:g}"
    if not _lib.MIN_BLOCK <= n <= _lib.MAX_BLOCK:
        return length
    sps = fs / rb
    if not 1 <= sps <= 64:
        return f"fs / rb = {sps:g} samples per symbol; the call accepts 1 to 64"
    return "the library refused the arguments"


class Analysis:
    """The result of one call.

    Every scalar of the library's result record is a float attribute of the
    same name (``evmRms``, ``snr``, ``freqOffset``, ...) and every array a numpy
    array of exactly the count the library set (``eye``, ``constI``,
    ``constQ``, ``bits``, ``symbols``, ``evm``, ``phaseErr``, ``magErr``,
    ``phaseTrace``, ``freqTrace``, ``envTrace``, ``iTrace``, ``shiftedIQ``).
    The arrays are those of the record as the library fills it: a PSK call,
    for instance, leaves ``symbols`` empty and reports its symbol count as
    the length of ``bits``.

    Attributes
    ----------
    return_code : int
        0 for a finished analysis.
    meaning : str
        What the return code means.
    fs, rb, fs_min, rolloff : float
        Sample rate, symbol rate and lowest accepted rate in Hz; roll-off (or
        Gaussian BT) as passed.
    mode : int
        Public modulation code; ``mode_name`` its name, ``family`` its family.
    filter_type : int
        Shaping filter code.
    n_samples : int
        Samples in the analysed block.
    scale, scale_rule, clipped
        How the samples were brought to int16 (see :func:`vantrel.to_int16`).
    """

    SCALARS = tuple(name for name, _ in _lib.SCALARS)
    ARRAYS = tuple(name for name, *_ in _lib.ARRAYS)
    UNITS = dict(_lib.SCALARS, **{a[0]: a[4] for a in _lib.ARRAYS})

    def __init__(self, record, buffers, code, params):
        for name in self.SCALARS:
            setattr(self, name, float(getattr(record, name)))
        for name, count_field, _, _, _ in _lib.ARRAYS:
            buf = buffers[name]
            # The count can never exceed the capacity the buffer was sized
            # with; the clamp only keeps a faulty count from reading past it.
            n = min(int(getattr(record, count_field)), len(buf))
            setattr(self, name, buf[:n].copy())
        self.return_code = int(code)
        self.meaning = CODE_MEANINGS.get(code, "unknown code")
        for key, value in params.items():
            setattr(self, key, value)
        self.mode_name = MODE_NAMES.get(self.mode, "unknown")
        self.family = family(self.mode)

    def figures(self):
        """The scalars as a dict, in record order."""
        return {name: getattr(self, name) for name in self.SCALARS}

    def arrays(self):
        """The arrays as a dict, in record order."""
        return {name: getattr(self, name) for name in self.ARRAYS}

    def __repr__(self):
        return (f"<Analysis {self.mode_name} code {self.return_code}: evmRms "
                f"{self.evmRms:.4g} %, snr {self.snr:.4g} dB, {len(self.constI)} points>")


class Measurement:
    """The figures of one measurement-mode call (:func:`vantrel.measure`).

    Every field of the library's ``VantrelMeasurement`` record is an attribute
    of the same name: floats in the unit its name ends with (``Hz``, ``Ppm``,
    ``Db``, ``Deg``, ``Rad``, ``Percent``), NaN where the figure does not apply
    to the family or is not measured yet.  ``flags``, ``timing_locked`` and
    ``carrier_locked`` say which loops converged; ``analysis`` is the
    :class:`Analysis` of the same block (its arrays and standard figures).
    ``units`` maps each figure to its unit.
    """

    units = dict(_lib.MEASUREMENT_FIGURES)

    def __init__(self, record, code, analysis):
        self.return_code = code
        self.flags = int(record.flags)
        self.symbolCount = int(record.symbolCount)
        self.timing_locked = bool(self.flags & _lib.MEAS_TIMING_LOCKED)
        self.carrier_locked = bool(self.flags & _lib.MEAS_CARRIER_LOCKED)
        for name, _ in _lib.MEASUREMENT_FIGURES:
            setattr(self, name, float(getattr(record, name)))
        self.analysis = analysis

    def figures(self):
        """{name: (value, unit)} of every figure, NaN included."""
        return {name: (getattr(self, name), unit) for name, unit in _lib.MEASUREMENT_FIGURES}

    def __repr__(self):
        shown = ", ".join(f"{name}={value:.6g} {unit}"
                          for name, (value, unit) in self.figures().items()
                          if not math.isnan(value))
        return f"Measurement({shown})"


class Analyzer:
    """One analysis instance of the library, for many calls.

    Use it as a context manager; the instance is released on exit (or by
    :meth:`close`, or when the object is collected).

    >>> with vantrel.Analyzer() as an:
    ...     for block in blocks:
    ...         results.append(an.analyze(block, fs, rb, "QPSK"))
    """

    def __init__(self):
        self._lib = _lib.load()
        with _call_lock:
            handle = self._lib.VantrelObjCreatSelfEncode()
        if handle < 0:
            raise NoInstanceError("the library could not create an instance (out of "
                                  "memory)", -4)
        self.handle = handle

    def close(self):
        """Release the instance; later calls raise NoInstanceError."""
        handle, self.handle = getattr(self, "handle", None), None
        if handle is not None:
            with _call_lock:
                self._lib.VantrelObjRelease(handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:  # interpreter shutdown: the library may be gone
            pass

    def analyze(self, iq, fs, rb, mode, filter="rrc", rolloff=0.35, fs_min=0.0,
                scale=None, dump=False):
        """Analyse one block; see :func:`vantrel.analyze`."""
        code, ftype, fs, rb, rolloff = self._arguments(mode, filter, fs, rb, rolloff)
        fs_min = _finite("fs_min", fs_min)
        block, used_scale, rule, clipped = to_int16(iq, scale)
        n = self._length(block)

        record, buffers = _host_record(n, code)
        param = _lib.ExParamOut(Rb=rb, mode=code, rolloff=rolloff, filterType=ftype)
        i_part, q_part = _rails(block)
        with _call_lock:
            rc = self._lib.VantrelExcute(
                self.handle, i_part, q_part, n, _lib.ctypes.byref(param), False, bool(dump),
                _lib.ctypes.byref(record), fs_min, fs)
        result = Analysis(record, buffers, rc, dict(
            fs=fs, rb=rb, mode=code, filter_type=ftype, rolloff=rolloff, fs_min=fs_min,
            n_samples=n, scale=used_scale, scale_rule=rule, clipped=clipped))
        if rc == 0:
            return result
        raise _failure(rc, result, n, fs, rb, code, fs_min)

    def measure(self, iq, fs, rb, mode, filter="rrc", rolloff=0.35, scale=None):
        """Measure one block in measurement mode; see :func:`vantrel.measure`."""
        code, ftype, fs, rb, rolloff = self._arguments(mode, filter, fs, rb, rolloff)
        block, used_scale, rule, clipped = to_int16(iq, scale)
        n = self._length(block)
        record, buffers = _host_record(n, code)
        param = _lib.ExParamOut(Rb=rb, mode=code, rolloff=rolloff, filterType=ftype)
        figures = _lib.VantrelMeasurement(size=_lib.ctypes.sizeof(_lib.VantrelMeasurement))
        i_part, q_part = _rails(block)
        with _call_lock:
            rc = self._lib.VantrelMeasure(
                self.handle, i_part, q_part, n, _lib.ctypes.byref(param), fs,
                _lib.ctypes.byref(figures), _lib.ctypes.byref(record))
        params = dict(fs=fs, rb=rb, mode=code, filter_type=ftype, rolloff=rolloff,
                      fs_min=0.0, n_samples=n, scale=used_scale, scale_rule=rule,
                      clipped=clipped)
        # The standard analysis ran beside the measurement; its own verdict is
        # in the record.
        analysis = Analysis(record, buffers, figures.standardCode if rc == 0 else rc, params)
        result = Measurement(figures, rc, analysis)
        if rc == 0:
            return result
        raise _failure(rc, analysis, n, fs, rb, code, 0.0)

    def _arguments(self, mode, filter, fs, rb, rolloff):
        code = mode_code(mode)
        ftype = _filter_code(filter)
        fs = _finite("fs", fs)
        if rb is None and family(code) == "ANALOG":
            rb = 0.0  # the analog analyses need no symbol rate
        return code, ftype, fs, _finite("rb", rb), _finite("rolloff", rolloff)

    def _length(self, block):
        n = block.shape[0]
        if n > 0xFFFFFFFF:
            raise ValueError(f"{n} samples do not fit the call's 32-bit length")
        if self.handle is None:
            raise NoInstanceError("this Analyzer has been closed", -4)
        return n


def _host_record(n, code):
    """A DisplayData whose arrays are numpy buffers sized with the published
    capacities for this length and mode; longer blocks than a call accepts are
    refused before anything is written, so the sizing stops at that length."""
    sized = min(n, _lib.MAX_BLOCK)
    buffers, record = {}, _lib.DisplayData()
    for name, _, dtype, kind, _ in _lib.ARRAYS:
        cap = _lib.capacity(kind, sized, code)
        buffers[name] = np.zeros(max(cap, 1), dtype=dtype)[:cap]
        ctype = _lib.ctypes.c_uint32 if dtype == "u4" else _lib.ctypes.c_double
        setattr(record, name, buffers[name].ctypes.data_as(_lib.ctypes.POINTER(ctype)))
    return record, buffers


def _rails(block):
    """The I and Q rails of an (n, 2) int16 block as C pointers (the arrays
    stay alive through the pointers' _objects)."""
    p16 = _lib.ctypes.POINTER(_lib.ctypes.c_int16)
    return (np.ascontiguousarray(block[:, 0]).ctypes.data_as(p16),
            np.ascontiguousarray(block[:, 1]).ctypes.data_as(p16))


def _failure(rc, result, n, fs, rb, code, fs_min):
    """The exception for a non-zero return code, with a message that says why."""
    if rc == -1:
        msg = _bad_argument_rule(n, fs, rb, code, fs_min)
    elif rc == 1:
        msg = (f"the block holds {n * rb / fs:.1f} symbols, fewer than 2000; give at "
               f"least {math.ceil(2000 * fs / rb)} samples")
    elif rc == -3:
        msg = (f"{result.mode_name}: fewer than 800 constellation points came out of "
               "the demodulator (signal not locked, wrong mode or rate, or a family "
               "the library cannot demodulate yet)")
    elif rc == -4:
        msg = "unknown instance, or the library ran out of memory"
    else:
        msg = f"the library returned the unknown code {rc}"
    return _ERRORS.get(rc, AnalysisError)(f"{msg} (return code {rc})", rc, result)


_shared = None


def _shared_analyzer():
    global _shared
    if _shared is None:
        _shared = Analyzer()
        atexit.register(_shared.close)
    return _shared


def analyze(iq, fs, rb, mode, filter="rrc", rolloff=0.35, fs_min=0.0, scale=None,
            dump=False):
    """Analyse one block of I/Q samples.

    Parameters
    ----------
    iq : ndarray
        Complex samples (1-D complex64/complex128), brought to int16 by the
        analyzer's rule (see :func:`to_int16`), or int16 pairs of shape (n, 2)
        used as they are.  One call takes 16384 to 320000 samples.
    fs : float
        Sample rate in Hz.
    rb : float or None
        Symbol rate in Hz (None for the analog modes).
    mode : int or str
        Code 1..18 or name ("BPSK", "QPSK", "8PSK", "16QAM", "32QAM",
        "64QAM", "128QAM", "256QAM", "ASK", "2FSK", "4FSK", "2FSK_B", "AM",
        "FM", "PM", "SHIFT", "I_A", "I_B").
    filter : str or int, default "rrc"
        Shaping filter: "rrc", "rc", "gauss", "rect", "halfsine" or 1..5.
    rolloff : float, default 0.35
        Roll-off, or the Gaussian filter's BT.
    fs_min : float, default 0.0
        Lowest sample rate the host accepts, in Hz.
    scale : float, optional
        int16 = round(sample * scale) instead of the peak rule.
    dump : bool, default False
        Let the library write its debug capture files in the working directory.

    Returns
    -------
    Analysis

    Raises
    ------
    TypeError, ValueError
        Wrong dtype or shape, non-finite rates or samples, unknown mode or
        filter: refused before the library is called.
    BadArgumentError
        (a ValueError) the library refused an argument; the message names the
        rule.
    TooShortError, TooFewPointsError, NoInstanceError
        Return codes 1, -3 and -4 (all :class:`AnalysisError`, with ``code``).
    LibraryNotFoundError
        The shared library could not be loaded.
    """
    return _shared_analyzer().analyze(iq, fs, rb, mode, filter=filter, rolloff=rolloff,
                                      fs_min=fs_min, scale=scale, dump=dump)


def measure(iq, fs, rb, mode, filter="rrc", rolloff=0.35, scale=None):
    """Measure one block in measurement mode: the figures an instrument user
    reads (carrier offset in Hz, symbol-clock error, MER and EVM over every
    symbol, magnitude and phase error, I/Q offset and imbalance in dB and
    degrees, occupied bandwidth, C/N, FSK deviation and error, true AM depth
    and FM/PM deviation), beside the standard analysis of the same block
    (``m.analysis``, whose return code the record's ``standardCode`` keeps).

    Parameters are those of :func:`analyze` (``fs_min`` is not taken).

    Returns
    -------
    Measurement

    Raises
    ------
    The exceptions of :func:`analyze` for the measurement's own return codes
    (bad arguments, unknown handle or no memory); a block the standard
    analysis refuses is still measured.

    Examples
    --------
    >>> m = vantrel.measure(samples, fs, rb=25000, mode="QPSK")
    >>> m.carrierOffsetHz, m.units["carrierOffsetHz"]
    """
    return _shared_analyzer().measure(iq, fs, rb, mode, filter=filter, rolloff=rolloff,
                                      scale=scale)
