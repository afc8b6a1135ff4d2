#!/usr/bin/env python3
"""Writes the seed corpus of the VantrelExcute fuzz target (see
excute_fuzzer.cpp for the input layout): one accepted call per mode code,
built from a short cyclic waveform of rectangular symbols at four samples per
symbol, and a set of calls at and beyond the entry's limits. Deterministic:
rerunning rewrites the same files."""
import cmath
import math
import os
import random
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus")
SPS = 4
SYMBOLS = 240  # 960 sample pairs: the input stays under 4 KiB
AMP = 9000.0


def header(mode, filt, rolloff, rb, fs_in, fs_min, in_len, hold=0):
    return struct.pack("<IIddddIB", mode & 0xFFFFFFFF, filt & 0xFFFFFFFF, rolloff, rb,
                       fs_in, fs_min, in_len & 0xFFFFFFFF, hold)


def pairs(samples):
    out = b""
    for z in samples:
        i = max(-32768, min(32767, int(round(z.real))))
        q = max(-32768, min(32767, int(round(z.imag))))
        out += struct.pack("<hh", i, q)
    return out


def symbol_points(mode, rng):
    """One constellation point (or FSK tone index) per symbol."""
    if mode in (4, 5, 6) or mode == 0 or mode > 18:
        m = {4: 2, 5: 4, 6: 8}.get(mode, 8)
        return [cmath.exp(1j * (2 * math.pi * rng.randrange(m) / m + math.pi / 4))
                for _ in range(SYMBOLS)]
    if mode in (7, 9, 16, 17, 18):
        side = {7: 4, 9: 8, 16: 12, 17: 16, 18: 6}[mode]
        levels = [2 * k - side + 1 for k in range(side)]
        return [complex(rng.choice(levels), rng.choice(levels)) / side for _ in range(SYMBOLS)]
    if mode == 8:
        return [complex(rng.choice([0.3, 1.0]), 0) for _ in range(SYMBOLS)]
    raise ValueError(mode)


def waveform(mode, rng):
    if mode in (1, 2, 3):  # FSK: phase advances by a tone per symbol
        levels = [-1, 1] if mode != 2 else [-3, -1, 1, 3]
        phase, out = 0.0, []
        for _ in range(SYMBOLS):
            tone = rng.choice(levels)
            for _ in range(SPS):
                phase += tone * math.pi / 8
                out.append(AMP * cmath.exp(1j * phase))
        return out
    if 10 <= mode <= 15:  # analog: a carrier modulated by a slow tone
        out = []
        for k in range(SYMBOLS * SPS):
            m = math.sin(2 * math.pi * k / 96)
            if mode == 10:
                z = (1 + 0.5 * m) * cmath.exp(1j * 2 * math.pi * k / 16)
            else:
                z = cmath.exp(1j * (2 * math.pi * k / 16 + 1.2 * m))
            out.append(0.6 * AMP * z)
        return out
    out = []
    for p in symbol_points(mode, rng):
        out.extend([AMP * p] * SPS)
    return out


def write(name, data):
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)


def main():
    os.makedirs(OUT, exist_ok=True)
    rng = random.Random(17)
    for mode in range(1, 19):
        body = pairs(waveform(mode, rng))
        write("mode%02d_accepted" % mode,
              header(mode, 1, 0.35, 1000.0, 4000.0, 0.0, 16384) + body)
    qpsk = pairs(waveform(5, rng))
    nan, inf = float("nan"), float("inf")
    edges = {
        "rate_ratio_1": header(5, 1, 0.35, 8000.0, 8000.0, 0.0, 16384),
        "rate_ratio_64_hold16": header(5, 2, 0.22, 100.0, 6400.0, 0.0, 128000, 15),
        "rate_ratio_3_5": header(9, 1, 0.35, 1000.0, 3500.0, 0.0, 20000),
        "rate_ratio_10": header(7, 3, 0.5, 1000.0, 10000.0, 0.0, 20000, 1),
        "too_short": header(5, 1, 0.35, 1000.0, 10000.0, 0.0, 19999),
        "length_16383": header(5, 1, 0.35, 1000.0, 4000.0, 0.0, 16383),
        "length_320001": header(5, 1, 0.35, 1000.0, 4000.0, 0.0, 320001),
        "length_max_u32": header(12, 1, 0.35, 1000.0, 4000.0, 0.0, 0xFFFFFFFF),
        "length_zero": header(5, 1, 0.35, 1000.0, 4000.0, 0.0, 0),
        "rb_nan": header(5, 1, 0.35, nan, 4000.0, 0.0, 16384),
        "fs_inf": header(5, 1, 0.35, 1000.0, inf, 0.0, 16384),
        "fs_nan_analog": header(11, 1, 0.35, 1000.0, nan, 0.0, 16384),
        "fsmin_above": header(5, 1, 0.35, 1000.0, 4000.0, 5000.0, 16384),
        "rolloff_nan_gauss": header(5, 3, nan, 1000.0, 4000.0, 0.0, 16384),
        "rolloff_huge_gauss": header(5, 3, 1e308, 1000.0, 4000.0, 0.0, 16384),
        "rates_tiny": header(5, 1, 0.35, 1e-6, 4e-6, 0.0, 16384),
        "rates_huge": header(5, 1, 0.35, 1e300, 4e300, 0.0, 16384),
        "rates_denormal": header(5, 1, 0.35, 5e-324, 2e-323, -inf, 16384),
        "mode_max_u32": header(0xFFFFFFFF, 0xFFFFFFFF, -0.2, 1000.0, 4000.0, 0.0, 16384),
        "mode_zero_filter_zero": header(0, 0, 0.0, 1000.0, 4000.0, 0.0, 16384),
        "analog_rb_zero": header(12, 9, 7.0, 0.0, 48000.0, 1e9, 16384),
        "ask_long": header(8, 4, 0.35, 1000.0, 8000.0, 0.0, 64000),
        "qam256_long": header(17, 1, 0.35, 1000.0, 4000.0, 0.0, 40000),
    }
    for name, head in edges.items():
        write(name, head + qpsk)
    return 0


if __name__ == "__main__":
    sys.exit(main())
