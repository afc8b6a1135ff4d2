"""Shared fixtures: the built library and tools (paths from the environment the
CMake test sets up), and captures with known content from the generator."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest

import vantrel

REPO = Path(__file__).resolve().parents[2]


def _tool(name):
    path = os.environ.get("VANTREL_" + name.upper())
    if not path:
        for build in ("default", "demo"):
            cand = REPO / "build" / build / "tools" / name / f"vantrel-{name}"
            if cand.is_file():
                return str(cand)
        pytest.skip(f"vantrel-{name} not built (set VANTREL_{name.upper()})")
    return path


@pytest.fixture(scope="session", autouse=True)
def library():
    try:
        vantrel._lib.load()
    except vantrel.LibraryNotFoundError as e:
        pytest.skip(str(e))


@pytest.fixture(scope="session")
def analyzer_exe():
    exe = _tool("analyze")
    usage = subprocess.run([exe, "--help"], capture_output=True, text=True).stdout
    if "--json" not in usage:
        pytest.skip("this vantrel-analyze writes no JSON report")
    return exe


@pytest.fixture(scope="session")
def captures(tmp_path_factory):
    """SigMF recordings from the generator: QPSK (8 samples per symbol,
    30 dB Es/N0, 32000 samples), a longer QPSK one (64000 samples), AM
    (depth 0.6, 1 kHz tone, 32000 samples), and one capture each of 16-QAM,
    ASK and 4-FSK for the report panels."""
    siggen = _tool("siggen")
    out = tmp_path_factory.mktemp("captures")
    made = {}
    for name, flags in {
        "qpsk": ["--mode", "QPSK", "--sps", "8", "--esno", "30", "--cfo", "300"],
        "long": ["--mode", "QPSK", "--sps", "8", "--esno", "25", "--symbols", "8000"],
        "am": ["--mode", "AM", "--am-depth", "0.6", "--tone", "1000", "--snr", "40"],
        "16qam": ["--mode", "16QAM", "--sps", "4", "--esno", "35", "--cfo", "300",
                  "--symbols", "6000"],
        "ask": ["--mode", "ASK", "--sps", "8", "--esno", "30"],
        "4fsk": ["--mode", "4FSK", "--sps", "8", "--esno", "30"],
    }.items():
        subprocess.run([siggen, *flags, "--out", str(out / name), "--sigmf"], check=True,
                       capture_output=True)
        made[name] = out / f"{name}.sigmf-meta"
    return made


@pytest.fixture()
def in_tmp(tmp_path, monkeypatch):
    """Run in a scratch directory (the library's debug files land there)."""
    monkeypatch.chdir(tmp_path)
    return tmp_path


def cc():
    return shutil.which(os.environ.get("CC", "cc")) or shutil.which("gcc")
