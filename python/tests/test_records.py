"""The ctypes records and the restated capacities against the C header, so
that neither can drift from the library's binary interface."""

import ctypes
import os
import re
import subprocess

import pytest

from vantrel import _lib

from conftest import REPO, cc

HEADER = os.environ.get("VANTREL_HEADER", str(REPO / "interface" / "wrapperVantrelClass.h"))


def test_record_layout_matches_header_pins():
    text = open(HEADER, encoding="utf-8").read()
    records = {"ExParamOut": _lib.ExParamOut, "DisplayData": _lib.DisplayData,
               "VantrelMeasurement": _lib.VantrelMeasurement}
    sizes = re.findall(r"sizeof\((\w+)\) == (\d+)", text)
    offsets = re.findall(r"offsetof\((\w+), (\w+)\) == (\d+)", text)
    assert len(sizes) == 3 and len(offsets) >= 60
    for rec, size in sizes:
        assert ctypes.sizeof(records[rec]) == int(size), rec
    for rec, field, off in offsets:
        assert getattr(records[rec], field).offset == int(off), f"{rec}.{field}"
    # Every field of the Python records is pinned by the header.
    pinned = {(r, f) for r, f, _ in offsets}
    for rec, cls in records.items():
        assert {(rec, f[0]) for f in cls._fields_ if not f[0].startswith("reserved")} <= pinned


def test_capacities_match_the_header(tmp_path):
    compiler = cc()
    if not compiler:
        pytest.skip("no C compiler to build the header's capacity functions")
    lengths = [16384, 99999, 320000]
    src = tmp_path / "caps.c"
    src.write_text(
        '#include <stdio.h>\n#include "wrapperVantrelClass.h"\n'
        "int main(void) {\n"
        f"  unsigned lens[] = {{{', '.join(map(str, lengths))}}};\n"
        "  for (unsigned m = 0; m <= 20; ++m) for (int k = 0; k < 3; ++k) {\n"
        "    unsigned n = lens[k];\n"
        '    printf("%u %u %u %u %u %u %u %u\\n", m, n, vantrel_capacity_constellation(m),\n'
        "           vantrel_capacity_symbols(n, m), vantrel_capacity_bits(n, m),\n"
        "           vantrel_capacity_eye(n, m), vantrel_capacity_trace(n, m),\n"
        "           vantrel_capacity_shifted_iq(n, m));\n"
        "  }\n  return 0;\n}\n")
    exe = tmp_path / "caps"
    subprocess.run([compiler, "-std=c99", "-I", os.path.dirname(HEADER), str(src), "-o",
                    str(exe)], check=True)
    rows = subprocess.run([str(exe)], check=True, capture_output=True, text=True).stdout
    for row in rows.split("\n")[:-1]:
        m, n, *c = map(int, row.split())
        assert c == [_lib.capacity_constellation(m), _lib.capacity_symbols(n, m),
                     _lib.capacity_bits(n, m), _lib.capacity_eye(n, m),
                     _lib.capacity_trace(n, m), _lib.capacity_shifted_iq(n, m)], (m, n)
