"""The report draws for one code of every family and has that family's panels.

PSK and analog are analysed by the library; QAM, ASK and FSK are drawn from
an analysis whose mode and points are replaced (their shapes are what the
demodulators write: points on the ideal grid or levels, the same counts)."""

import copy
import io

import numpy as np
import pytest

import vantrel
from vantrel import plot

# Family: data panels, plus the errors panel's phase twin, plus the table.
AXES = {"PSK": 3 + 1 + 1, "QAM": 3 + 1 + 1, "ASK": 3 + 1 + 1, "FSK": 3 + 1 + 1,
        "ANALOG": 1 + 1}


@pytest.fixture(scope="module")
def real(captures):
    qpsk, fs = vantrel.read_sigmf(captures["qpsk"])
    am, fs_am = vantrel.read_sigmf(captures["am"])
    return {"QPSK": vantrel.analyze(qpsk, fs, 25000, "QPSK"),
            "AM": vantrel.analyze(am, fs_am, None, "AM")}


def _synthetic(psk, mode):
    a = copy.copy(psk)
    a.mode, a.mode_name, a.family = mode, vantrel._lib.MODE_NAMES[mode], vantrel.family(mode)
    rng = np.random.default_rng(mode)
    pts = rng.choice(plot.ideal_points(mode), len(psk.constI))
    pts = pts + 0.02 * (rng.standard_normal(len(pts)) + 1j * rng.standard_normal(len(pts)))
    if a.family in ("ASK", "FSK"):
        pts = pts.real + 0j
    a.constI, a.constQ = pts.real, pts.imag
    return a


@pytest.mark.parametrize("mode", ["QPSK", "16QAM", "ASK", "4FSK", "AM"])
def test_report_has_the_family_panels(real, mode):
    code = vantrel.mode_code(mode)
    a = real[mode] if mode in real else _synthetic(real["QPSK"], code)
    fig = plot.report(a)
    assert len(fig.axes) == AXES[a.family]
    data_axes = [ax for ax in fig.axes if ax.axison]
    for ax in data_axes:  # every drawn axis says what it shows and in which unit
        if ax.get_title():  # not the errors panel's right-hand twin
            assert "(" in ax.get_xlabel() or ax.get_xlabel() == "symbol", ax.get_title()
        assert "(" in ax.get_ylabel(), ax.get_title()
    titles = " ".join(ax.get_title() for ax in fig.axes)
    for panel in plot.panels(a.family):
        assert panel.capitalize()[:4] in titles
    png = io.BytesIO()
    fig.savefig(png, format="png", dpi=50)
    assert png.getvalue()[:8] == b"\x89PNG\r\n\x1a\n"
    if a.family in ("PSK", "QAM"):
        const = fig.axes[0]
        assert const.get_aspect() == 1.0
        ideal = const.collections[1].get_offsets()
        assert len(ideal) == len(plot.ideal_points(code))


def test_ideal_points_sit_on_the_received_clusters(real):
    a = real["QPSK"]
    pts = a.constI + 1j * a.constQ
    ideal = plot.ideal_points(a.mode)
    nearest = np.min(np.abs(pts[:, None] - ideal[None, :]), axis=1)
    assert np.sqrt(np.mean(nearest ** 2)) < 0.1
