"""The pictures an instrument shows, drawn with matplotlib from an
:class:`vantrel.Analysis`.

Every function takes the analysis first and an optional ``ax`` to draw on (a
new figure is made when it is None), passes extra keyword arguments to the
matplotlib call that draws the data, labels its axes with units and returns
the axes it drew on.  Nothing here calls ``plt.show()``; :func:`report`
returns a whole :class:`~matplotlib.figure.Figure` to save or show.
"""

import numpy as np
from matplotlib.collections import LineCollection
from matplotlib.figure import Figure

__all__ = ["constellation", "levels", "eye", "errors", "traces", "report",
           "ideal_points", "panels"]

# The demodulators bring the eye trace to four points per symbol, with the
# symbol instants at indices 0, 4, 8, ...
_EYE_SPS = 4

# QAM orders: the largest level of the odd-integer grid, the display divisor
# the library divides the constellation by, and for the cross shapes the
# largest |level| both axes may reach together (the corners beyond it are not
# part of the constellation).
_QAM = {7: (3, 3, None), 18: (5, 4, 3), 9: (7, 7, None), 16: (11, 11, 7),
        17: (15, 15, None)}


def _axes(ax):
    if ax is not None:
        return ax
    return Figure(figsize=(6, 4.5), layout="constrained").add_subplot()


def ideal_points(mode):
    """The ideal constellation of a mode, on the scale the library displays.

    Parameters
    ----------
    mode : int
        Public modulation code.

    Returns
    -------
    ndarray of complex or None
        PSK: the unit circle at the decision sectors' centres (BPSK at 0 and
        pi, QPSK and 8PSK at (2k+1)pi/M).  QAM: the odd-integer grid (cross
        shaped for 32 and 128) divided by the display divisor.  ASK: levels 0
        and 1.  FSK: the levels +-1 (and +-1/3 for four levels).  None for
        the analog modes.
    """
    if mode in _QAM:
        top, div, cross = _QAM[mode]
        odd = np.arange(-top, top + 1, 2)
        i, q = np.meshgrid(odd, odd)
        keep = np.ones(i.shape, bool) if cross is None else ~(
            (np.abs(i) > cross) & (np.abs(q) > cross))
        return (i[keep] + 1j * q[keep]) / div
    if mode == 4:
        return np.array([1, -1], dtype=complex)
    if mode in (5, 6):
        m = 4 if mode == 5 else 8
        return np.exp(1j * (2 * np.arange(m) + 1) * np.pi / m)
    if mode == 8:
        return np.array([0, 1], dtype=complex)
    if mode == 1 or mode == 3:
        return np.array([-1, 1], dtype=complex)
    if mode == 2:
        return np.array([-1, -1 / 3, 1 / 3, 1], dtype=complex)
    if 10 <= mode <= 15:
        return None
    return np.exp(1j * (2 * np.arange(8) + 1) * np.pi / 8)  # unknown codes: PSK


def constellation(a, ax=None, **kwargs):
    """Received symbols in the I/Q plane, on an equal-aspect grid with the
    ideal points marked.

    Parameters
    ----------
    a : Analysis
    ax : matplotlib.axes.Axes, optional
    **kwargs
        Passed to ``ax.scatter`` for the received points.

    Returns
    -------
    matplotlib.axes.Axes
    """
    ax = _axes(ax)
    style = dict(s=4, alpha=0.6, color="tab:blue", label="received", linewidths=0)
    style.update(kwargs)
    ax.scatter(a.constI, a.constQ, **style)
    ideal = ideal_points(a.mode)
    if ideal is not None:
        ax.scatter(ideal.real, ideal.imag, marker="+", s=80, color="tab:red",
                   linewidths=1.2, label="ideal", zorder=3)
    ax.set_aspect("equal", adjustable="datalim")
    ax.grid(True, alpha=0.4)
    ax.set_xlabel("I (normalised amplitude)")
    ax.set_ylabel("Q (normalised amplitude)")
    ax.set_title(f"Constellation, {len(a.constI)} symbols")
    ax.legend(loc="best", fontsize="small")
    return ax


def levels(a, ax=None, **kwargs):
    """Decided levels of a one-dimensional family (ASK, FSK) per symbol, with
    the ideal levels drawn as lines.

    Parameters
    ----------
    a : Analysis
    ax : matplotlib.axes.Axes, optional
    **kwargs
        Passed to ``ax.plot`` for the symbol values.

    Returns
    -------
    matplotlib.axes.Axes
    """
    ax = _axes(ax)
    style = dict(linestyle="none", marker=".", markersize=3, color="tab:blue")
    style.update(kwargs)
    ax.plot(np.arange(len(a.constI)), a.constI, **style)
    ideal = ideal_points(a.mode)
    if ideal is not None:
        for level in ideal.real:
            ax.axhline(level, color="tab:red", linewidth=0.8, linestyle="--")
    ax.grid(True, alpha=0.4)
    ax.set_xlabel("symbol")
    ax.set_ylabel("level (normalised amplitude)")
    ax.set_title(f"Levels, {len(a.constI)} symbols")
    return ax


def eye(a, ax=None, **kwargs):
    """Eye diagram of the in-phase trace: two-symbol windows centred on each
    symbol instant, overlaid.

    Parameters
    ----------
    a : Analysis
    ax : matplotlib.axes.Axes, optional
    **kwargs
        Passed to the ``LineCollection`` of the traces.

    Returns
    -------
    matplotlib.axes.Axes
    """
    ax = _axes(ax)
    trace = np.asarray(a.eye)
    # Window k runs from one symbol before symbol instant k + 1 to one symbol
    # after it: trace[4k .. 4k + 8], every window that fits.
    span = 2 * _EYE_SPS + 1
    starts = np.arange(0, len(trace) - span + 1, _EYE_SPS)
    t = (np.arange(span) - _EYE_SPS) / _EYE_SPS
    if len(starts):
        segs = np.stack([np.broadcast_to(t, (len(starts), span)),
                         trace[starts[:, None] + np.arange(span)]], axis=2)
        style = dict(colors="tab:blue", linewidths=0.5, alpha=0.25)
        style.update(kwargs)
        ax.add_collection(LineCollection(segs, **style))
        ax.set_xlim(t[0], t[-1])
        lo, hi = float(trace.min()), float(trace.max())
        pad = 0.05 * (hi - lo) if hi > lo else 1.0
        ax.set_ylim(lo - pad, hi + pad)
    ax.grid(True, alpha=0.4)
    ax.set_xlabel("time (symbols)")
    ax.set_ylabel("in-phase (normalised amplitude)")
    ax.set_title(f"Eye, {len(starts)} traces")
    return ax


def errors(a, ax=None, **kwargs):
    """Error-vector magnitude, magnitude error and phase error per symbol.

    EVM and magnitude error share the left axis (percent); the phase error
    is drawn in degrees on a twin axis at the right.

    Parameters
    ----------
    a : Analysis
    ax : matplotlib.axes.Axes, optional
    **kwargs
        Passed to every ``ax.plot`` call.

    Returns
    -------
    matplotlib.axes.Axes
        The left (percent) axes; the twin is ``ax.right_ax``.
    """
    ax = _axes(ax)
    style = dict(linewidth=0.7)
    style.update(kwargs)
    lines = ax.plot(np.arange(len(a.evm)), a.evm, color="tab:blue", label="EVM", **style)
    lines += ax.plot(np.arange(len(a.magErr)), a.magErr, color="tab:green",
                     label="magnitude error", **style)
    right = ax.twinx()
    lines += right.plot(np.arange(len(a.phaseErr)), np.degrees(a.phaseErr),
                        color="tab:orange", label="phase error", **style)
    ax.right_ax = right
    ax.grid(True, alpha=0.4)
    ax.set_xlabel("symbol")
    ax.set_ylabel("EVM, magnitude error (%)")
    right.set_ylabel("phase error (deg)")
    ax.set_title(f"Errors per symbol: EVM {a.evmRms:.3g} % rms")
    ax.legend(lines, [ln.get_label() for ln in lines], loc="upper right", fontsize="small")
    return ax


# Analog traces: attribute, label with unit.
_TRACES = [
    ("envTrace", "envelope (raw int16 units)"),
    ("freqTrace", "instantaneous frequency (Hz)"),
    ("phaseTrace", "phase, detrended (rad)"),
    ("iTrace", "in-phase (raw int16 units)"),
]


def traces(a, ax=None, **kwargs):
    """The analog traces the call produced against time: envelope (AM),
    instantaneous frequency (FM), detrended phase (PM), in-phase waveform
    (I) or the shifted I and Q (carrier moved to 1 kHz).

    Parameters
    ----------
    a : Analysis
    ax : matplotlib.axes.Axes, optional
    **kwargs
        Passed to every ``ax.plot`` call.

    Returns
    -------
    matplotlib.axes.Axes
    """
    ax = _axes(ax)
    style = dict(linewidth=0.6)
    style.update(kwargs)
    labels = []
    for name, label in _TRACES:
        values = getattr(a, name)
        if len(values):
            ax.plot(np.arange(len(values)) / a.fs * 1e3, values, label=label, **style)
            labels.append(label)
    if len(a.shiftedIQ):
        t = np.arange(len(a.shiftedIQ) // 2) / a.fs * 1e3
        ax.plot(t, a.shiftedIQ[0::2], label="I, carrier at 1 kHz", **style)
        ax.plot(t, a.shiftedIQ[1::2], label="Q, carrier at 1 kHz", **style)
        labels.append("shifted I and Q (raw int16 units)")
    ax.grid(True, alpha=0.4)
    ax.set_xlabel("time (ms)")
    ax.set_ylabel("; ".join(labels) if labels else "no trace")
    ax.set_title(f"Traces, {a.mode_name}")
    if len(labels) > 1 or len(a.shiftedIQ):
        ax.legend(loc="upper right", fontsize="small")
    return ax


def panels(family):
    """Names of the data panels :func:`report` draws for a family."""
    if family in ("PSK", "QAM"):
        return ["constellation", "eye", "errors"]
    if family in ("ASK", "FSK"):
        return ["levels", "eye", "errors"]
    return ["traces"]


# Figures listed in the report's table, per family, after the common ones.
_COMMON = ["freqOffset", "snr", "peakLevel", "iqOffset", "iqGainRatio", "quadError"]
_QUALITY = ["evmRms", "evmPeak", "magErrRms", "magErrPeak", "phaseErrRms", "phaseErrPeak"]
_EXTRA = {"ASK": ["modDepth"], "FSK": ["freqDeviation"]}
_ANALOG = {10: ["amDepth"], 11: ["fmPeakDev"]}


def _table_rows(a):
    names = list(_QUALITY) if a.family != "ANALOG" else []
    names += _EXTRA.get(a.family, []) + _ANALOG.get(a.mode, []) + _COMMON
    return [[n, f"{getattr(a, n):.6g}", a.UNITS[n]] for n in names]


def report(a, fig=None, **kwargs):
    """One figure with the panels that fit the family and the figures as a
    text table.

    PSK and QAM: constellation, eye, errors.  ASK and FSK: levels, eye,
    errors.  Analog: the traces.  Every report ends with the table.

    Parameters
    ----------
    a : Analysis
    fig : matplotlib.figure.Figure, optional
        Drawn into (cleared first); a new one is made when None.
    **kwargs
        Passed to :class:`~matplotlib.figure.Figure` when a new one is made.

    Returns
    -------
    matplotlib.figure.Figure
    """
    names = panels(a.family)
    if fig is None:
        size = (12, 9) if len(names) > 1 else (12, 7)
        fig = Figure(**dict(dict(figsize=size, layout="constrained"), **kwargs))
    else:
        fig.clear()
    draw = {"constellation": constellation, "levels": levels, "eye": eye,
            "errors": errors, "traces": traces}
    if len(names) > 1:
        grid = fig.add_gridspec(2, 2)
        cells = [grid[0, 0], grid[0, 1], grid[1, 0]]
        table_cell = grid[1, 1]
    else:
        grid = fig.add_gridspec(2, 1, height_ratios=[3, 2])
        cells, table_cell = [grid[0, 0]], grid[1, 0]
    for name, cell in zip(names, cells):
        draw[name](a, ax=fig.add_subplot(cell))
    tab = fig.add_subplot(table_cell)
    tab.axis("off")
    tab.set_title("Figures")
    table = tab.table(cellText=_table_rows(a), colLabels=["figure", "value", "unit"],
                      loc="center", cellLoc="left", colLoc="left")
    table.auto_set_font_size(False)
    table.set_fontsize(9)
    table.scale(1, 1.2)
    rb = f", Rb {a.rb:g} Bd" if a.family != "ANALOG" else ""
    fig.suptitle(f"{a.mode_name}: fs {a.fs:g} Hz{rb}, {a.n_samples} samples, "
                 f"return code {a.return_code} ({a.meaning})")
    return fig
