"""The package against the analyzer, and the mapping of every failure."""

import json
import math
import os
import subprocess
import sys

import numpy as np
import pytest

import vantrel
from vantrel import (Analyzer, BadArgumentError, NoInstanceError, TooFewPointsError,
                     TooShortError)

FS, RB = 200000.0, 25000.0


def _cf32_copy(meta, tmp):
    """The same recording as cf32_le SigMF (values / 32768), which goes
    through the peak scaling rule on both sides."""
    samples, fs = vantrel.read_sigmf(meta)
    floats = (samples.astype(np.float32) / np.float32(32768)).reshape(-1)
    base = tmp / "float"
    floats.astype("<f4").tofile(f"{base}.sigmf-data")
    (tmp / "float.sigmf-meta").write_text(json.dumps(
        {"global": {"core:datatype": "cf32_le", "core:sample_rate": fs}}))
    return tmp / "float.sigmf-meta"


CASES = [  # capture, float copy, mode, symbol rate (None: analog)
    ("qpsk", False, "QPSK", RB),
    ("qpsk", True, "QPSK", RB),
    ("am", False, "AM", None),
]


@pytest.mark.parametrize("name,as_float,mode,rb", CASES)
def test_package_and_command_match_the_analyzer(captures, analyzer_exe, tmp_path, name,
                                                as_float, mode, rb):
    meta = _cf32_copy(captures[name], tmp_path) if as_float else captures[name]
    rate = ["--rb", str(rb)] if rb else []
    ref_dir, py_dir = tmp_path / "analyzer", tmp_path / "python"
    ref_dir.mkdir(), py_dir.mkdir()
    subprocess.run([analyzer_exe, "--in", str(meta), "--mode", mode, *rate, "--json",
                    "out.json", "--dump"], cwd=ref_dir, check=True, capture_output=True)
    cli = subprocess.run([sys.executable, "-m", "vantrel", str(meta), "--mode", mode, *rate,
                          "--json", "out.json", "--plot", "report.png"], cwd=py_dir,
                         capture_output=True, text=True)
    assert cli.returncode == 0, cli.stderr
    assert (py_dir / "report.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    ref = json.loads((ref_dir / "out.json").read_text())
    mine = json.loads((py_dir / "out.json").read_text())
    # The command's report is the analyzer's, field for field, but for its name.
    ref.pop("tool"), mine.pop("tool")
    assert mine == ref

    samples, fs = vantrel.read_sigmf(meta)
    a = vantrel.analyze(samples, fs, rb, mode)
    result = ref["results"][0]
    assert result["return_code"]["value"] == a.return_code == 0
    for field, s in result["scalars"].items():
        value = getattr(a, field)
        assert s["value"] == (value if math.isfinite(value) else None), field
    for field, arr in result["arrays"].items():
        assert arr["count"] == len(getattr(a, "constI" if field == "constellation" else field))
    # The analyzer's debug capture prints the constellation with six decimals.
    lines = (ref_dir / "Vantrel_const.txt").read_text().splitlines()
    points = np.array([[float(v) for v in ln.split(",")] for ln in lines]).reshape(-1, 2)
    assert len(points) == len(a.constI) == (800 if rb else 0)
    np.testing.assert_allclose(points[:, 0], a.constI, rtol=0, atol=5.01e-7)
    np.testing.assert_allclose(points[:, 1], a.constQ, rtol=0, atol=5.01e-7)


def _same_report(cmd_args, analyzer_exe, tmp_path, cwd=None):
    """Runs the analyzer and the command on the same arguments and returns the
    command's report after checking it equals the analyzer's."""
    docs = []
    for name in ("ref.json", "mine.json"):
        (tmp_path / name).unlink(missing_ok=True)
    for name, cmd in (("ref.json", [analyzer_exe]), ("mine.json", [sys.executable, "-m",
                                                                  "vantrel"])):
        run = subprocess.run([*cmd, *cmd_args, "--json", str(tmp_path / name)], cwd=cwd,
                             capture_output=True, text=True)
        docs.append((run.returncode, json.loads((tmp_path / name).read_text())))
    (rc_ref, ref), (rc, mine) = docs
    ref.pop("tool"), mine.pop("tool")
    assert (rc, mine) == (rc_ref, ref)
    return mine


def test_replay_and_blocks_match_the_analyzer(captures, analyzer_exe, tmp_path):
    # A call captured with the library's debug files, repeated from them.
    host = tmp_path / "host"
    host.mkdir()
    subprocess.run([analyzer_exe, "--in", str(captures["qpsk"]), "--rb", str(RB), "--mode",
                    "QPSK", "--filter", "2", "--dump"], cwd=host, check=True,
                   capture_output=True)
    doc = _same_report(["--replay", str(host)], analyzer_exe, tmp_path)
    assert doc["parameters"]["filter_type"] == 2
    # Three whole blocks of a longer capture, with the spread over them.
    doc = _same_report(["--in", str(captures["long"]), "--rb", str(RB), "--mode", "QPSK",
                        "--blocks", "--count", "20000"], analyzer_exe, tmp_path)
    assert len(doc["results"]) == 3 and doc["spread"]["evmRms"]["max"] > 0
    # An annotation of the same recording, and a block inside it.
    meta = json.loads(captures["long"].read_text())
    meta["annotations"] = [{"core:sample_start": 10000, "core:sample_count": 40000}]
    (tmp_path / "ann.sigmf-meta").write_text(json.dumps(meta))
    (tmp_path / "ann.sigmf-data").symlink_to(captures["long"].with_suffix(".sigmf-data"))
    doc = _same_report(["--in", str(tmp_path / "ann"), "--annotation", "0", "--offset", "500",
                        "--rb", str(RB), "--mode", "QPSK"], analyzer_exe, tmp_path)
    assert doc["input"]["offset"] == 10500 and doc["input"]["count"] == 39500


FAILURES = [  # what, call arguments changed, exception, code, words in the message
    ("rate ratio", dict(rb=2000.0), BadArgumentError, -1, "samples per symbol"),
    ("short block", dict(n=10000), BadArgumentError, -1, "16384"),
    ("fs_min above fs", dict(fs_min=3e5), BadArgumentError, -1, "fs_min"),
    ("under 2000 symbols", dict(rb=12000.0), TooShortError, 1, "fewer than 2000"),
    ("no matched filter", dict(filter=9), TooFewPointsError, -3, "800"),
]


@pytest.mark.parametrize("what,change,exc,code,words", FAILURES, ids=[f[0] for f in FAILURES])
def test_return_codes_raise_their_exception(captures, what, change, exc, code, words):
    samples, fs = vantrel.read_sigmf(captures["qpsk"])
    kw = dict(fs=fs, rb=RB, mode="QPSK", filter="rrc", fs_min=0.0)
    kw.update(change)
    n = kw.pop("n", len(samples))
    with pytest.raises(exc, match=words) as info:
        vantrel.analyze(samples[:n], **kw)
    assert info.value.code == code
    assert isinstance(info.value, ValueError) == (code == -1)


def test_unknown_instance_raises_no_instance(captures):
    samples, fs = vantrel.read_sigmf(captures["qpsk"])
    with Analyzer() as an:
        an._lib.VantrelObjRelease(an.handle)  # gone behind the package's back
        with pytest.raises(NoInstanceError) as info:
            an.analyze(samples, fs, RB, "QPSK")
        assert info.value.code == -4
        an.handle = None


class _Refuse:
    """Stands in for the library: any analysis call is a test failure."""

    def __init__(self, lib):
        self._lib = lib

    def __getattr__(self, name):
        if name == "VantrelExcute":
            raise AssertionError("the library was called")
        return getattr(self._lib, name)


GOOD = np.zeros((20000, 2), np.int16)
REFUSED = [  # what, samples, fs, rb, exception
    ("real floats", np.zeros(20000), FS, RB, TypeError),
    ("int32 pairs", np.zeros((20000, 2), np.int32), FS, RB, TypeError),
    ("three columns", np.zeros((20000, 3), np.int16), FS, RB, ValueError),
    ("2-D complex", np.zeros((10000, 2), complex), FS, RB, ValueError),
    ("NaN sample", np.full(20000, np.nan + 0j), FS, RB, ValueError),
    ("NaN fs", GOOD, float("nan"), RB, ValueError),
    ("infinite rb", GOOD, FS, float("inf"), ValueError),
    ("missing rb", GOOD, FS, None, TypeError),
]


@pytest.mark.parametrize("what,samples,fs,rb,exc", REFUSED, ids=[r[0] for r in REFUSED])
def test_invalid_input_is_refused_before_the_call(what, samples, fs, rb, exc):
    with Analyzer() as an:
        an._lib = _Refuse(an._lib)
        with pytest.raises(exc):
            an.analyze(samples, fs, rb, "QPSK")


EXITS = [  # what, arguments after the capture, exit status, words on stderr
    ("missing file", ["nothere.bin", "--fs", "2e5", "--mode", "AM"], 2, "no such file"),
    ("unknown mode", ["{raw}", "--fs", "2e5", "--rb", "25000", "--mode", "QPSX"], 2,
     "unknown mode"),
    ("raw without rate", ["{raw}", "--rb", "25000", "--mode", "QPSK"], 2, "--fs"),
    ("short block", ["{raw}", "--fs", "2e5", "--mode", "AM", "--count", "9000"], 2,
     "shorter than 16384"),
    ("call fails", ["{raw}", "--fs", "2e5", "--rb", "25000", "--mode", "QPSK", "--filter",
                    "9"], 1, ""),
    ("no library", ["{raw}", "--fs", "2e5", "--mode", "AM", "VANTREL_LIBRARY=/nowhere.so"], 2,
     "cmake --build"),
]


@pytest.mark.parametrize("what,args,status,words", EXITS, ids=[e[0] for e in EXITS])
def test_command_exit_status(captures, tmp_path, what, args, status, words):
    raw = str(captures["qpsk"]).replace(".sigmf-meta", ".bin")
    out = tmp_path / "out.json"
    env = dict(os.environ, **dict(a.split("=", 1) for a in args if "=" in a))
    args = [a.format(raw=raw) for a in args if "=" not in a]
    run = subprocess.run([sys.executable, "-m", "vantrel", *args, "--json", str(out)],
                         capture_output=True, text=True, cwd=tmp_path, env=env)
    assert run.returncode == status
    if status == 2:  # one line naming the problem, and no report
        assert run.stderr.count("\n") == 1 and words in run.stderr
        assert not out.exists()
    else:
        assert json.loads(out.read_text())["results"][0]["return_code"]["value"] == -3


def test_measure_reports_the_applied_offset_with_units(captures):
    """Measurement mode on the 300 Hz QPSK capture: the whole carrier offset
    in Hz, the loops' flags, NaN for what is not measured, and the standard
    analysis of the same block alongside; refusals raise as analyze does."""
    iq, fs = vantrel.read_sigmf(captures["qpsk"])
    m = vantrel.measure(iq, fs, 25000, "QPSK")
    assert abs(m.carrierOffsetHz - 300.0) < 1.0
    assert m.timing_locked and m.carrier_locked
    assert np.isnan(m.amDepthPercent)  # not a figure of a digital family
    assert m.merDb > 20 and abs(m.evmRmsPercent - 100 * 10 ** (-m.merDb / 20)) < 1e-9
    assert m.units["carrierOffsetHz"] == "Hz" and m.figures()["cnrDb"][1] == "dB"
    assert len(m.analysis.constI) == 800
    with pytest.raises(vantrel.BadArgumentError):
        vantrel.measure(iq[:16000], fs, 25000, "QPSK")
