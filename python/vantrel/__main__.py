"""python3 -m vantrel: analyse a capture file, print the figures, write the
JSON report and the picture.

Same inputs, options, JSON layout and exit status as ``vantrel-analyze``:
0 every call returned 0; 1 a call returned another code (the report says
which); 2 the command line or the input is unusable (one line on standard
error names the problem and the fix; nothing is written).
"""

import argparse
import json
import math
import os
import re
import sys

from . import MODES, AnalysisError, Analyzer, CaptureError, mode_code
from . import _lib
from ._capture import is_sigmf, read_raw, read_sigmf, to_int16

JSON_FORMAT = 1


class UsageError(Exception):
    pass


def _parser():
    p = argparse.ArgumentParser(
        prog="python3 -m vantrel",
        description="Analyse a capture with the Vantrel library and draw what an "
                    "instrument shows.",
        epilog="exit status: 0 every call returned 0, 1 a call returned another code, "
               "2 the command line or the input is unusable")
    p.add_argument("capture", nargs="?", help="raw capture (interleaved native int16 I, Q) "
                   "or SigMF recording (NAME.sigmf-meta, NAME.sigmf-data or NAME)")
    p.add_argument("--in", dest="inp", metavar="FILE", help="the capture, as an option")
    p.add_argument("--replay", metavar="DIR", help="repeat a call captured with the "
                   "library's debug capture (Vantrel_Parameter.txt, Vantrel_IQData.bin)")
    p.add_argument("--annotation", type=int, metavar="N", help="SigMF: analyse annotation N")
    p.add_argument("--offset", type=int, metavar="N", help="first sample of the block")
    p.add_argument("--count", type=int, metavar="N", help="samples per block "
                   f"({_lib.MIN_BLOCK}..{_lib.MAX_BLOCK}; default: the rest)")
    p.add_argument("--blocks", action="store_true", help="analyse every whole block of "
                   "--count samples from --offset")
    p.add_argument("--scale", type=float, metavar="S", help="int16 = round(sample * S); "
                   "default: int16 as stored, ci8 * 256, float peak |I|,|Q| to 0.9*32767")
    p.add_argument("--fs", type=float, metavar="HZ", help="sample rate (default: the "
                   "SigMF core:sample_rate)")
    p.add_argument("--rb", type=float, metavar="BAUD", help="symbol rate (not needed for "
                   "the analog modes)")
    p.add_argument("--mode", metavar="MODE", help="code 1..18 or " + ", ".join(MODES))
    p.add_argument("--filter", default=None, metavar="F", help="1 rrc (default), 2 rc, "
                   "3 gauss, 4 rect, 5 halfsine")
    p.add_argument("--rolloff", type=float, default=0.35, metavar="R",
                   help="roll-off or Gaussian BT (default 0.35)")
    p.add_argument("--fsmin", type=float, default=0.0, metavar="HZ",
                   help="lowest acceptable sample rate (default 0)")
    p.add_argument("--json", metavar="FILE", help="write the JSON report ('-': standard "
                   "output instead of the text report)")
    p.add_argument("--plot", metavar="PNG", help="draw the report picture of the first "
                   "block (any format matplotlib writes, by extension)")
    p.add_argument("--dump", action="store_true", help="let the library write its debug "
                   "capture files here")
    return p


def _select(args, avail):
    """The analyzer's block selection: (first sample, count, blocks)."""
    off = args.offset or 0
    if off < 0 or (args.count is not None and args.count < 0):
        raise UsageError("--offset and --count need whole non-negative numbers")
    if off >= avail:
        raise UsageError(f"--offset {off} is beyond the {avail} samples of the input; "
                         "give an offset below that")
    rest = avail - off
    if args.count == 0:
        raise UsageError("--count must be at least 1")
    count = args.count if args.count is not None else rest
    if not args.blocks and count > rest:
        raise UsageError(f"the input holds {rest} samples from offset {off}, fewer than "
                         f"--count {count}; the file is truncated or the count is too large")
    if count < _lib.MIN_BLOCK:
        raise UsageError(f"a block of {count} samples is shorter than {_lib.MIN_BLOCK}, the "
                         "least one call analyses; use a longer capture or a larger --count")
    if count > _lib.MAX_BLOCK:
        raise UsageError(f"a block of {count} samples is longer than {_lib.MAX_BLOCK}, the "
                         "most one call analyses; choose a block with --offset N --count N, "
                         "or --blocks --count N")
    blocks = rest // count if args.blocks else 1
    if blocks == 0:
        raise UsageError(f"the input holds {rest} samples from offset {off}, not one whole "
                         f"block of --count {count}")
    return off, count, blocks


# The line the library writes: "inLen = %d, fsIn = %1f, Rb = %1f,mode = % d,
# filterType= %d,  init=%d "; any run of spaces is accepted where it pads.
_REPLAY = re.compile(r"inLen\s*=\s*(-?\d+),\s*fsIn\s*=\s*([^,\s]+),\s*Rb\s*=\s*([^,\s]+),"
                     r"\s*mode\s*=\s*(-?\d+),\s*filterType=\s*(-?\d+),\s*init=\s*(-?\d+)\s*")


def parse_replay_line(line, path):
    """The call recorded in the parameter line of the library's debug capture."""
    m = _REPLAY.fullmatch(line)
    try:
        fs, rb = float(m.group(2)), float(m.group(3))
    except (AttributeError, ValueError):
        raise UsageError(f'{path}: not a parameter line of the library\'s debug capture '
                         '(expected "inLen = N, fsIn = F, Rb = R,mode = M,filterType= T,  '
                         'init=I"); point --replay at the directory the call wrote into')
    # The length is printed as a signed int: values above 2^31 read negative.
    return dict(inLen=int(m.group(1)) % 2**32, fsIn=fs, Rb=rb, mode=int(m.group(4)),
                filterType=int(m.group(5)), init=int(m.group(6)))


def load_input(args):
    """(description dict, the samples a block may be taken from, the file
    index of the first of them, the sample rate from the file or None)."""
    src = args.capture or args.inp
    if bool(src) == bool(args.replay):
        raise UsageError("give one input: a capture file or --replay DIR (see --help)")
    if args.replay:
        if args.annotation is not None:
            raise UsageError("--annotation needs a SigMF input (NAME.sigmf-meta)")
        meta = os.path.join(args.replay, "Vantrel_Parameter.txt")
        data = os.path.join(args.replay, "Vantrel_IQData.bin")
        if not os.path.isfile(meta):
            raise UsageError(f"{meta}: no such file; check the path given to --replay")
        with open(meta, encoding="ascii", errors="replace") as f:
            rec = parse_replay_line(f.readline().rstrip("\n"), meta)
        samples, _ = read_raw(data, rec["fsIn"])
        if len(samples) < rec["inLen"]:
            raise UsageError(f"{data}: truncated, it holds {len(samples)} samples but the "
                             f"recorded call had inLen = {rec['inLen']}; the two files come "
                             "from different runs")
        # The sample file grows with every captured call; the parameter line
        # (rewritten each time) describes the last block.
        start = len(samples) - rec["inLen"]
        desc = dict(kind="replay", data_file=data, meta_file=meta, datatype="ci16",
                    samples_in_file=len(samples), annotation=None, recorded_call=rec)
        return desc, samples[start:], start, rec["fsIn"]
    if is_sigmf(src):
        info = {}
        samples, fs = read_sigmf(src, args.annotation, info)
        desc = dict(kind="sigmf", data_file=info["data"], meta_file=info["meta"],
                    datatype=info["datatype"], samples_in_file=info["samples_in_file"],
                    annotation=args.annotation)
        return desc, samples, info["start"], fs
    if args.annotation is not None:
        raise UsageError("--annotation needs a SigMF input (NAME.sigmf-meta)")
    samples, _ = read_raw(src, 0.0)
    desc = dict(kind="raw", data_file=src, meta_file=None, datatype="ci16",
                samples_in_file=len(samples), annotation=None)
    return desc, samples, 0, None


# The arrays' counts as the analyzer reports them: constI and constQ share
# one "constellation" count.
_JSON_ARRAYS = [
    (key, key if key != "constellation" else "constI", unit) for key, unit in [
        ("eye", "normalised amplitude"),
        ("constellation", "normalised I and Q (constI, constQ)"),
        ("bits", "bit"), ("symbols", "symbol index"), ("evm", "%"), ("phaseErr", "rad"),
        ("magErr", "%"), ("phaseTrace", "rad"), ("freqTrace", "Hz"),
        ("envTrace", "raw units"), ("iTrace", "raw units"),
        ("shiftedIQ", "values (2 per sample)")]]


def _num(v):
    return v if math.isfinite(v) else None  # JSON has no NaN or infinity


def json_report(desc, params, results):
    """The report in the analyzer's versioned layout."""
    def result(a, offset, count):
        return {
            "offset": offset, "count": count,
            "return_code": {"value": a.return_code, "meaning": a.meaning},
            "scalars": {n: {"value": _num(getattr(a, n)), "unit": u} for n, u in _lib.SCALARS},
            "arrays": {key: {"count": len(getattr(a, name)), "unit": unit}
                       for key, name, unit in _JSON_ARRAYS},
        }

    def spread(name):
        vals = [getattr(a, name) for a, _, _ in results if a.return_code == 0]
        if not vals:
            return None
        # Summed in block order, one value at a time, as the analyzer sums:
        # the spread comes out the same to the last bit.
        total = total2 = 0.0
        for v in vals:
            total += v
            total2 += v * v
        mean = total / len(vals)
        # Population standard deviation: the blocks are the whole set measured.
        std = math.sqrt(max(0.0, total2 / len(vals) - mean * mean))
        return {"min": _num(min(vals)), "max": _num(max(vals)), "mean": _num(mean),
                "std": _num(std), "unit": dict(_lib.SCALARS)[name]}

    doc = {
        "format": JSON_FORMAT,
        "tool": "python3 -m vantrel",
        "input": desc,
        "parameters": params,
        "results": [result(a, off, cnt) for a, off, cnt in results],
        "spread": {n: spread(n) for n, _ in _lib.SCALARS} if len(results) > 1 else None,
    }
    return doc


def write_atomically(path, text):
    """Write text to path in one piece (beside it, then renamed), or to
    standard output for '-'."""
    if path == "-":
        sys.stdout.write(text)
        sys.stdout.flush()
        return
    tmp = f"{path}.tmp{os.getpid()}"
    try:
        with open(tmp, "w", encoding="utf-8") as f:
            f.write(text)
        os.replace(tmp, path)
    except OSError as e:
        try:
            os.remove(tmp)
        except OSError:
            pass
        raise UsageError(f"{path}: cannot write the report ({e.strerror}); check the "
                         "directory exists and is writable") from None


def text_report(a):
    lines = [f"return code {a.return_code} ({a.meaning})"]
    if getattr(a, "reason", None):
        lines.append(f"  why: {a.reason}")
    for name, unit in _lib.SCALARS:
        lines.append(f"  {name:<16} {getattr(a, name):14.4f} {unit}")
    counts = ", ".join(f"{n} {len(getattr(a, n))}" for n in a.ARRAYS
                       if len(getattr(a, n)) and n != "constQ")
    lines.append(f"  arrays: {counts or 'none'}")
    return "\n".join(lines) + "\n"


def run(argv=None):
    args = _parser().parse_args(argv)
    desc, samples, start, file_fs = load_input(args)
    rec = desc.get("recorded_call")
    if rec is None and args.mode is None:
        raise UsageError("--mode is required (see --help for the names)")
    try:
        mode = mode_code(args.mode) if args.mode is not None else rec["mode"]
    except ValueError as e:
        raise UsageError(str(e)) from None
    fs = args.fs if args.fs is not None else file_fs
    if fs is None or not fs > 0:
        if desc["kind"] == "sigmf":
            raise UsageError(f"{desc['meta_file']}: no core:sample_rate in the metadata; give "
                             "the rate with --fs HZ")
        raise UsageError("--fs HZ is required: a raw capture does not record its sample rate")
    analog = _lib.family(mode) == "ANALOG"
    rb = args.rb if args.rb is not None else (rec["Rb"] if rec else None)
    if rb is None and not analog:
        raise UsageError("--rb BAUD is required for a digital mode")
    if args.filter is not None:
        filt = int(args.filter) if args.filter.isdigit() else args.filter
    else:
        filt = rec["filterType"] if rec else 1
    if args.scale is not None and not args.scale > 0:
        raise UsageError("--scale must be a positive number")
    if not all(math.isfinite(v) for v in (fs, rb or 0.0, args.rolloff, args.fsmin)):
        raise UsageError("--fs, --rb, --rolloff and --fsmin need finite numbers")

    first, count, blocks = _select(args, len(samples))
    chosen = samples[first:first + count * blocks]
    try:
        block, scale, rule, clipped = to_int16(chosen, args.scale)
    except (TypeError, ValueError) as e:
        raise UsageError(f"{desc['data_file']}: {e}") from None
    desc.update(offset=start + first, count=count, blocks=blocks,
                sample_rate_in_file_hz=file_fs, scale=scale, scale_rule=rule,
                clipped_values=clipped)
    order = ["kind", "data_file", "meta_file", "datatype", "samples_in_file", "offset",
             "count", "blocks", "annotation", "sample_rate_in_file_hz", "scale",
             "scale_rule", "clipped_values", "recorded_call"]
    desc = {k: desc[k] for k in order if k in desc}

    results = []
    with Analyzer() as an:
        for b in range(blocks):
            part = block[b * count:(b + 1) * count]
            try:
                a = an.analyze(part, fs, rb if rb is not None else 0.0, mode, filter=filt,
                               rolloff=args.rolloff, fs_min=args.fsmin, dump=args.dump)
            except AnalysisError as e:
                a = e.analysis
                a.reason = str(e)  # which rule failed, for the text report
            except ValueError as e:  # an unknown filter name
                raise UsageError(str(e)) from None
            # The blocks were scaled together; report that scale, as the
            # analyzer does.
            a.scale, a.scale_rule, a.clipped = scale, rule, clipped
            results.append((a, start + first + b * count, count))

    if args.json != "-":
        print(f"input: {desc['kind']} {desc['data_file']}, {desc['datatype']}, "
              f"{desc['samples_in_file']} samples in the file, block {desc['offset']}+"
              f"{count} x {blocks}, scale {scale:.6g} ({rule}), {clipped} clipped")
        print(f"call: fs {fs:g} Hz, Rb {rb or 0:g} Bd, mode {mode} "
              f"({_lib.MODE_NAMES.get(mode, 'unknown')}), filter {results[0][0].filter_type}, "
              f"roll-off {args.rolloff:g}")
        for b, (a, off, _) in enumerate(results):
            if blocks > 1:
                print(f"block {b} @{off}: ", end="")
            sys.stdout.write(text_report(a))
    if args.json:
        params = {"fs_hz": fs, "fs_min_hz": args.fsmin, "symbol_rate_hz": rb or 0.0,
                  "mode": mode, "mode_name": _lib.MODE_NAMES.get(mode, "unknown"),
                  "filter_type": results[0][0].filter_type, "rolloff": args.rolloff}
        doc = json_report(desc, params, results)
        write_atomically(args.json, json.dumps(doc, indent=1) + "\n")
    if args.plot:
        from .plot import report
        fig = report(results[0][0])
        try:
            fig.savefig(args.plot, dpi=100)
        except (OSError, ValueError) as e:
            raise UsageError(f"{args.plot}: cannot write the picture ({e})") from None
    return 0 if all(a.return_code == 0 for a, _, _ in results) else 1


def main(argv=None):
    try:
        return run(argv)
    except UsageError as e:
        msg = str(e)
    except (CaptureError, OSError) as e:  # unreadable input, library not found
        msg = str(e)
    print(f"vantrel: {msg}", file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main())
