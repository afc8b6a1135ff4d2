"""Capture files and the conversion of samples to the int16 block a call takes.

The rules are the analyzer's, so a capture gives the same block here and in
``vantrel-analyze``:

- raw files: interleaved native int16 I, Q, no sample rate recorded;
- SigMF: ``core:datatype`` ci16_le, ci8, cf32_le or cf64_le, the rate from
  ``core:sample_rate``, an annotation's ``core:sample_start`` and
  ``core:sample_count`` on request;
- int16 values are kept as stored, ci8 values are moved to the top byte
  (times 256), and floating-point samples are scaled so that the largest |I|
  or |Q| becomes 0.9 * 32767, rounded half away from zero and clamped.
"""

import json
import os

import numpy as np

# SigMF datatypes read, as numpy dtypes of one component.
_SIGMF_TYPES = {"ci16_le": "<i2", "ci8": "i1", "cf32_le": "<f4", "cf64_le": "<f8"}


class CaptureError(ValueError):
    """A capture file or selection that cannot be analysed; the text names the
    problem and the fix."""


def _round_half_away(x):
    # x - trunc(x) is exact in binary floating point, so this rounds exactly
    # as C's round() does, including values just below one half.
    whole = np.trunc(x)
    return whole + np.where(np.abs(x - whole) >= 0.5, np.sign(x), 0.0)


def to_int16(iq, scale=None):
    """Convert samples to the (n, 2) int16 block one call takes.

    Parameters
    ----------
    iq : ndarray
        Complex samples (1-D, complex64 or complex128), or int16 pairs of
        shape (n, 2), which are used as they are.
    scale : float, optional
        int16 = round(sample * scale), halves away from zero, clamped to the
        int16 range.  Default for complex input: the largest |I| or |Q| goes
        to 0.9 * 32767 (10 % headroom); 1 for an all-zero block.

    Returns
    -------
    block : ndarray of int16, shape (n, 2)
    scale : float
        The scale used (1.0 for int16 input).
    rule : str
        How the scale was chosen.
    clipped : int
        Values clamped to the int16 range.
    """
    iq = np.asarray(iq)
    if iq.dtype == np.int16:
        if iq.ndim != 2 or iq.shape[1] != 2:
            raise ValueError(f"int16 samples must have shape (n, 2), not {iq.shape}")
        if scale is None:
            return np.ascontiguousarray(iq), 1.0, "none (int16 as stored)", 0
        values = iq.astype(np.float64)
    elif np.iscomplexobj(iq) and iq.dtype in (np.complex64, np.complex128):
        if iq.ndim != 1:
            raise ValueError(f"complex samples must be a 1-D array, not shape {iq.shape}")
        values = np.stack([iq.real.astype(np.float64), iq.imag.astype(np.float64)], axis=1)
    else:
        raise TypeError(f"samples must be a complex array or int16 of shape (n, 2), "
                        f"not {iq.dtype}")
    if not np.all(np.isfinite(values)):
        raise ValueError("samples contain NaN or infinite values")
    if scale is not None:
        if not (np.isfinite(scale) and scale > 0):
            raise ValueError(f"scale must be a positive finite number, not {scale}")
        rule = "--scale"
    else:
        peak = float(np.max(np.abs(values))) if values.size else 0.0
        scale = 0.9 * 32767.0 / peak if peak > 0 else 1.0
        rule = "peak |I|,|Q| to 0.9*32767"
    scaled = _round_half_away(values * scale)
    clipped = int(np.count_nonzero((scaled > 32767.0) | (scaled < -32768.0)))
    block = np.clip(scaled, -32768.0, 32767.0).astype(np.int16)
    return block, float(scale), rule, clipped


def _whole(path, nbytes, per_sample, what):
    if nbytes % per_sample:
        raise CaptureError(
            f"{path}: odd byte count {nbytes}, not a whole number of {what} samples "
            f"({per_sample} bytes each); the file is truncated or of another type")
    return nbytes // per_sample


def _size(path):
    if not os.path.exists(path):
        raise FileNotFoundError(f"{path}: no such file; check the path")
    if not os.path.isfile(path):
        raise CaptureError(f"{path}: not a regular file")
    return os.path.getsize(path)


def read_raw(path, fs):
    """Read a raw capture: interleaved native int16 I, Q.

    Parameters
    ----------
    path : str or path-like
    fs : float
        Sample rate in Hz (a raw file does not record it).

    Returns
    -------
    samples : ndarray of int16, shape (n, 2)
    fs : float
    """
    path = os.fspath(path)
    n = _whole(path, _size(path), 4, "interleaved int16 I,Q")
    return np.fromfile(path, dtype=np.int16, count=2 * n).reshape(n, 2), float(fs)


def sigmf_paths(path):
    """(meta, data) paths of a SigMF recording named by its metadata file,
    its data file or its base name."""
    path = os.fspath(path)
    for tail in (".sigmf-meta", ".sigmf-data"):
        if path.endswith(tail):
            base = path[: -len(tail)]
            return base + ".sigmf-meta", base + ".sigmf-data"
    return path + ".sigmf-meta", path + ".sigmf-data"


def is_sigmf(path):
    """True when the path names a SigMF recording rather than a raw file."""
    path = os.fspath(path)
    if path.endswith((".sigmf-meta", ".sigmf-data")):
        return True
    return not os.path.exists(path) and os.path.exists(path + ".sigmf-meta")


def read_sigmf(path, annotation=None, info=None):
    """Read a SigMF recording.

    Parameters
    ----------
    path : str or path-like
        ``NAME.sigmf-meta``, ``NAME.sigmf-data`` or ``NAME``.
    annotation : int, optional
        Return only the samples of this annotation (``core:sample_start`` and
        ``core:sample_count``; numbered from 0).
    info : dict, optional
        Filled with ``meta``, ``data``, ``datatype``, ``samples_in_file`` and
        ``start`` (first returned sample within the file).

    Returns
    -------
    samples : ndarray
        int16 of shape (n, 2) for ci16_le (as stored) and ci8 (times 256),
        complex128 for cf32_le and cf64_le (scaled when analysed).
    fs : float or None
        ``core:sample_rate``, or None when the metadata has none.
    """
    meta_path, data_path = sigmf_paths(path)
    _size(meta_path)
    try:
        with open(meta_path, encoding="utf-8") as f:
            meta = json.load(f)
    except (ValueError, UnicodeDecodeError) as e:
        raise CaptureError(f"{meta_path}: not valid JSON ({e})") from None
    glob = meta.get("global") if isinstance(meta, dict) else None
    dtype_name = glob.get("core:datatype") if isinstance(glob, dict) else None
    if not isinstance(dtype_name, str):
        raise CaptureError(f"{meta_path}: no global core:datatype; the metadata must name "
                           "the sample type (ci16_le, ci8, cf32_le or cf64_le)")
    if dtype_name not in _SIGMF_TYPES:
        raise CaptureError(f'{meta_path}: unknown core:datatype "{dtype_name}"; convert the '
                           "capture to ci16_le, ci8, cf32_le or cf64_le")
    fs = None
    if "core:sample_rate" in glob:
        fs = glob["core:sample_rate"]
        if isinstance(fs, bool) or not isinstance(fs, (int, float)) or not fs > 0:
            raise CaptureError(f"{meta_path}: core:sample_rate is not a positive number")
        fs = float(fs)
    comp = np.dtype(_SIGMF_TYPES[dtype_name])
    total = _whole(data_path, _size(data_path), 2 * comp.itemsize, dtype_name)
    start, count = 0, total
    if annotation is not None:
        anns = meta.get("annotations", [])
        if not isinstance(anns, list) or not 0 <= annotation < len(anns):
            have = len(anns) if isinstance(anns, list) else 0
            raise CaptureError(f"{meta_path}: no annotation {annotation}; it has {have} "
                               "(numbered from 0)")
        ann = anns[annotation]
        if not isinstance(ann, dict) or "core:sample_start" not in ann:
            raise CaptureError(f"{meta_path}: annotation {annotation} has no core:sample_start")
        for key in ("core:sample_start", "core:sample_count"):
            v = ann.get(key, 0)
            if isinstance(v, bool) or not isinstance(v, int) or v < 0:
                raise CaptureError(f"{meta_path}: {key} is not a non-negative integer")
        start = ann["core:sample_start"]
        if start >= total:
            raise CaptureError(f"{data_path}: truncated, annotation {annotation} starts at "
                               f"sample {start} but the file holds {total}")
        count = ann.get("core:sample_count", total - start)
        if count > total - start:
            raise CaptureError(f"{data_path}: truncated, annotation {annotation} ends at "
                               f"sample {start + count} but the file holds {total}")
    raw = np.fromfile(data_path, dtype=comp, count=2 * count,
                      offset=2 * comp.itemsize * start).reshape(count, 2)
    if info is not None:
        info.update(meta=meta_path, data=data_path, datatype=dtype_name,
                    samples_in_file=total, start=start)
    if dtype_name == "ci16_le":
        return raw.astype(np.int16), fs
    if dtype_name == "ci8":
        # Moved to the top byte: full-scale ci8 stays full scale in int16.
        return raw.astype(np.int16) * np.int16(256), fs
    samples = np.empty(count, dtype=np.complex128)
    samples.real = raw[:, 0]
    samples.imag = raw[:, 1]
    return samples, fs
