"""The report draws for one code of every family and has that family's panels,
each from a real analysis of a generated capture."""

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
    def run(name, mode, rb=25000):
        iq, fs = vantrel.read_sigmf(captures[name])
        return vantrel.analyze(iq, fs, rb, mode)
    return {"QPSK": run("qpsk", "QPSK"), "16QAM": run("16qam", "16QAM"),
            "ASK": run("ask", "ASK"), "4FSK": run("4fsk", "4FSK"),
            "AM": run("am", "AM", None)}


@pytest.mark.parametrize("mode", ["QPSK", "16QAM", "ASK", "4FSK", "AM"])
def test_report_has_the_family_panels(real, mode):
    code = vantrel.mode_code(mode)
    a = real[mode]
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
