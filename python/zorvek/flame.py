"""`zorvek flame`: a flame graph of a capture's CPU samples.

Each sample's stack is put root first, under its process's name (its command
line or worker role where zorvek named it, else its program), and named through
the process's mappings and the symbols of the mapped files (`zorvek.symbols`). A
stack sampler's sample is its merged stack (`zorvek.stacks`): native frames with
the thread's Python frames, `function (file.py:line)`, where the interpreter's
evaluation frames stood, and a last `[waiting]` frame for a wall clock sample of a
thread that waited. A kernel's sample is its call chain without the kernel's
context markers. The graph is a self-contained SVG that a browser opens (each
frame's tooltip gives its name, samples and share), or with `--format collapsed`
one line per stack, "root;...;leaf count", the input of the usual flame graph
tools. Counts are samples.

`--range NAME` keeps the samples taken on a thread while an annotation range of
that name was open on the same thread. Ranges and the stack sampler's samples
carry the system clock, the kernel's samples perf's clock; the timeline's clock
model puts both on one axis, and its accuracy (README, "Clocks in the timeline")
bounds how exactly range edges cut.
"""

from __future__ import annotations

import argparse
import bisect
import collections
import html
import os
import sys
import zlib
from typing import Dict, List, Optional, Sequence, Tuple

from .stacks import StackNamer, stack_key
from .timeline import (VIEW_FAILURES, Progress, Reading, Survey, ViewError, add_files_argument,
                       add_progress_arguments, build_symbolizer, exit_status_help, name_stacks,
                       sample_frames, sample_kinds, view_failed)

PROG = "zorvek flame"


# ---- Stacks ------------------------------------------------------------------------


class _Ranges:
    """The open intervals of the named ranges, per thread, merged, for a bisect."""

    def __init__(self, survey: Survey, name: str):
        spans: Dict[Tuple[int, int], List[Tuple[int, int]]] = {}
        for pid, tid, start, end, msg, _token, _unfinished, end_tid in survey.ranges:
            if msg != name or end_tid != tid:
                continue
            if end is None:
                end = max(survey.last_real.get(pid, start), start)
            spans.setdefault((pid, tid), []).append((start, end))
        self.starts: Dict[Tuple[int, int], List[int]] = {}
        self.ends: Dict[Tuple[int, int], List[int]] = {}
        for key, intervals in spans.items():
            intervals.sort()
            merged: List[List[int]] = []
            for start, end in intervals:
                if merged and start <= merged[-1][1]:
                    merged[-1][1] = max(merged[-1][1], end)
                else:
                    merged.append([start, end])
            self.starts[key] = [m[0] for m in merged]
            self.ends[key] = [m[1] for m in merged]
        self.count = sum(len(v) for v in spans.values())

    def holds(self, pid: int, tid: int, t: int) -> bool:
        starts = self.starts.get((pid, tid))
        if not starts:
            return False
        i = bisect.bisect_right(starts, t) - 1
        return i >= 0 and t <= self.ends[(pid, tid)][i]


def _root_name(survey: Survey, symbols, pid: int) -> str:
    """The process a stack belongs to: the name zorvek gave it (its command line
    or worker role), else its program; never with the collapsed format's ";"."""
    own = survey.own_names.process(pid)
    if own:
        return own.replace(";", ",")
    exe = symbols.executable(pid)
    return os.path.basename(exe) if exe else "pid %d" % pid


def collect(args, reading: Reading) -> Tuple[collections.Counter, Survey, List[str]]:
    """Counts of each stack, root first, with the process's name as the root
    frame; and the survey, and the stated gaps of the symbolizer. The kernel's
    samples count one each by their call chains; the stack sampler's by their
    merged stacks, each as many sampling periods as it stands for."""
    pids = set(args.pid) if args.pid else None
    raw: collections.Counter = collections.Counter()
    merged_raw: collections.Counter = collections.Counter()
    periods: Dict[int, int] = {}

    def count(_index, rec):
        raw[sample_frames(rec)] += 1

    def count_stack(_index, rec):
        merged_raw[stack_key(rec)] += _weight(rec, periods)

    if args.range is None:
        survey = Survey(reading, pids=pids, keep_gpu=False, on_sample=count,
                        on_stack=count_stack).run()
    else:
        survey = Survey(reading, pids=pids, keep_gpu=False).run("reading (1 of 2)")
        ranges = _Ranges(survey, args.range)
        if not ranges.count:
            names = sorted({r[4] for r in survey.ranges})
            hint = (" (names there: %s)" % ", ".join(names[:8]) + (", ..." if len(names) > 8 else "")
                    ) if names else " (the captures hold no annotation ranges)"
            raise ViewError("no annotation range named %r%s" % (args.range, hint))
        for index, batch in reading.records(kinds=sample_kinds(survey), what="reading (2 of 2)"):
            domain = survey.file_domain[index]
            for rec in batch:
                if rec["hw"] != "CPU" or not survey.wanted(rec["pid"]):
                    continue
                if rec["event"] == "SAMPLE":
                    if ranges.holds(rec["pid"], rec["tid"], domain.perf_to_real(rec["timestamp"])):
                        raw[sample_frames(rec)] += 1
                elif rec["event"] == "STACK":
                    # The stack sampler's clock is the system clock already.
                    if ranges.holds(rec["pid"], rec["tid"], rec["timestamp"]):
                        merged_raw[stack_key(rec)] += _weight(rec, periods)
    if not survey.samples and not survey.stack_samples:
        raise ViewError("no CPU samples in the captures (was CPU sampling on?)")
    if not raw and not merged_raw:
        what = "of process %s" % ", ".join(map(str, sorted(pids))) if pids else ""
        within = " inside range %r" % args.range if args.range else ""
        raise ViewError("no CPU samples %s%s" % (what, within) if what or within else
                        "no CPU samples")
    symbols = build_symbolizer(survey)
    try:
        stacks: collections.Counter = collections.Counter()
        keys = list(raw)
        reading.progress.show("naming %d stacks" % (len(keys) + len(merged_raw)))
        for key, names in zip(keys, name_stacks(symbols, keys)):
            stacks[tuple([_root_name(survey, symbols, key[0])] + names[::-1])] += raw[key]
        merged_keys = list(merged_raw)
        namer = StackNamer(symbols, survey.python_codes)
        for key, merged in zip(merged_keys, namer.name_many(merged_keys)):
            count = max(1, round(merged_raw[key] / periods[key[0]]))
            stacks[(_root_name(survey, symbols, key[0]),) + merged] += count
        return stacks, survey, list(symbols.gaps)
    finally:
        symbols.close()


def _weight(rec: dict, periods: Dict[int, int]) -> int:
    """A stack sample's weight in nanoseconds, noting its process's sampling
    period: the smallest weight, that of a sample that covers one expiry of its
    timer. A CPU-time timer expires on the kernel's tick, so on a 250 Hz kernel a
    1 kHz sample mostly stands for four periods; counting it as four keeps the
    counts in samples at the asked rate."""
    weight = rec.get("weight_ns") or 1
    pid = rec["pid"]
    periods[pid] = min(periods.get(pid, weight), weight)
    return weight


def write_collapsed(stacks: collections.Counter, out) -> None:
    for stack, n in sorted(stacks.items()):
        out.write("%s %d\n" % (";".join(stack), n))


# ---- SVG -------------------------------------------------------------------------------


class _Node:
    __slots__ = ("name", "value", "children")

    def __init__(self, name: str):
        self.name, self.value, self.children = name, 0, {}


def _tree(stacks: collections.Counter) -> _Node:
    root = _Node("all")
    for stack, n in stacks.items():
        root.value += n
        node = root
        for frame in stack:
            node = node.children.setdefault(frame, _Node(frame))
            node.value += n
    return root


def _colour(name: str) -> str:
    """Warm colours, fixed per name so that one function keeps its colour."""
    h = zlib.crc32(name.encode("utf-8", "replace"))
    return "rgb(%d,%d,%d)" % (205 + (h & 0x31), 80 + ((h >> 8) % 150), (h >> 16) % 60)


FRAME_H = 16
CHAR_W = 7.0  # average advance of the 12 px monospace font


def render_svg(stacks: collections.Counter, title: str, subtitle: str, width: int = 1200) -> str:
    root = _tree(stacks)
    total = root.value
    pad = 10
    usable = width - 2 * pad

    def depth(node: _Node) -> int:
        return 1 + max((depth(c) for c in node.children.values()
                        if c.value * usable / total >= 0.1), default=0)

    levels = depth(root)
    top = 50
    height = top + levels * FRAME_H + 30
    parts = [
        '<?xml version="1.0" encoding="UTF-8" standalone="no"?>',
        '<svg xmlns="http://www.w3.org/2000/svg" version="1.1" width="%d" height="%d" '
        'viewBox="0 0 %d %d" font-family="monospace" font-size="12">' % (width, height, width, height),
        "<style>g.f:hover rect{stroke:#000;stroke-width:0.8} text{pointer-events:none}</style>",
        '<rect x="0" y="0" width="%d" height="%d" fill="#f8f8f8"/>' % (width, height),
        '<text x="%d" y="22" text-anchor="middle" font-size="16">%s</text>'
        % (width // 2, html.escape(title)),
        '<text x="%d" y="40" text-anchor="middle" fill="#555">%s</text>'
        % (width // 2, html.escape(subtitle)),
    ]

    def draw(node: _Node, x: float, level: int) -> None:
        w = node.value * usable / total
        if w < 0.1:
            return
        y = height - 20 - (level + 1) * FRAME_H
        share = 100.0 * node.value / total
        label = "%s (%d sample%s, %.2f%%)" % (node.name, node.value, "" if node.value == 1 else "s",
                                               share)
        fits = int((w - 6) / CHAR_W)
        text = node.name if len(node.name) <= fits else (node.name[:fits - 2] + ".." if fits >= 4 else "")
        parts.append('<g class="f"><title>%s</title><rect x="%.2f" y="%d" width="%.2f" height="%d" '
                     'fill="%s" rx="2"/>%s</g>'
                     % (html.escape(label), pad + x, y, w, FRAME_H - 1,
                        "#e0e0e0" if level == 0 else _colour(node.name),
                        '<text x="%.2f" y="%d">%s</text>' % (pad + x + 3, y + FRAME_H - 4,
                                                             html.escape(text)) if text else ""))
        child_x = x
        for name in sorted(node.children):
            child = node.children[name]
            draw(child, child_x, level + 1)
            child_x += child.value * usable / total

    sys.setrecursionlimit(max(sys.getrecursionlimit(), 10000))
    draw(root, 0.0, 0)
    parts.append("</svg>")
    return "\n".join(parts) + "\n"


# ---- Command line ------------------------------------------------------------------------

EXAMPLES = """\
examples:
  zorvek flame run_1234_0.zvkraw -o flame.svg
  zorvek flame captures/ --range step -o step.svg      # only samples inside "step"
  zorvek flame run_*.zvkraw --format collapsed > stacks.txt
  zorvek flame run_*.zvkraw --pid 1234 --format collapsed -o stacks.txt

Frames are named from the files the process had mapped, as they are on this
machine now; a file that is gone is named in one line, and its frames as
file+0xoffset.
"""


# Narrower, and a frame's name no longer fits beside its share.
MIN_WIDTH = 200


def _width(text: str) -> int:
    """--width's value: a whole number of pixels the graph can be drawn in."""
    try:
        width = int(text, 10)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a whole number of pixels") from None
    if width < MIN_WIDTH:
        raise argparse.ArgumentTypeError(f"{text!r}: the graph needs at least {MIN_WIDTH} pixels")
    return width


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.description = ("A flame graph of the CPU samples in captures: an SVG for a browser,\n"
                          "or collapsed stacks, one \"root;...;leaf count\" line per stack.")
    parser.epilog = EXAMPLES + "\n" + exit_status_help()
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    add_files_argument(parser)
    parser.add_argument("-o", "--output",
                        help="file to write (default: flame.svg, or stdout for --format collapsed)")
    parser.add_argument("--format", choices=("svg", "collapsed"), default="svg",
                        help="what to write (default: %(default)s)")
    parser.add_argument("--range", metavar="NAME",
                        help="only samples taken inside annotation ranges named NAME, on the "
                             "range's thread")
    parser.add_argument("--pid", type=int, action="append", metavar="PID",
                        help="only this process (repeatable)")
    parser.add_argument("--title", help="the SVG's title (default: the files' names)")
    parser.add_argument("--width", type=_width, default=1200,
                        help=f"SVG width in pixels, at least {MIN_WIDTH} (default: 1200)")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    progress = Progress(PROG, args.progress)
    output = args.output or ("-" if args.format == "collapsed" else "flame.svg")
    try:
        reading = Reading(args.files, progress, passes=1 if args.range is None else 2)
        stacks, survey, gaps = collect(args, reading)
        total = sum(stacks.values())
        if args.format == "collapsed":
            text_out = None
            if output == "-":
                write_collapsed(stacks, sys.stdout)
                sys.stdout.flush()
            else:
                text_out = _Atomic(output)
                write_collapsed(stacks, text_out.file)
                text_out.commit()
        else:
            title = args.title or ("CPU flame graph: " + ", ".join(
                os.path.basename(p) for p in reading.paths[:3]) + (" ..." if len(reading.paths) > 3 else ""))
            subtitle = "%d samples%s" % (total, " inside range %r" % args.range if args.range else "")
            svg = render_svg(stacks, title, subtitle, args.width)
            if output == "-":
                sys.stdout.write(svg)
            else:
                out = _Atomic(output)
                out.file.write(svg)
                out.commit()
    except VIEW_FAILURES as error:
        return view_failed(PROG, progress, error, output)
    progress.done()
    status = reading.report_problems(PROG)
    for gap in gaps:
        sys.stderr.write("%s: %s\n" % (PROG, gap))
    where = "stdout" if output == "-" else output
    sys.stderr.write("%s: wrote %s: %d samples in %d stacks%s\n" % (
        PROG, where, total, len(stacks), (", range %r" % args.range) if args.range else ""))
    return status


class _Atomic:
    """A file written beside its final name and moved there whole, so that a
    failed run leaves no half graph."""

    def __init__(self, path: str):
        self.path = path
        self.tmp = "%s.tmp%d" % (path, os.getpid())
        try:
            self.file = open(self.tmp, "w", encoding="utf-8")
        except OSError as error:
            raise ViewError("%s: %s" % (path, error.strerror or error)) from None

    def commit(self) -> None:
        self.file.close()
        os.replace(self.tmp, self.path)


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
