"""`zorvek flame`: a flame graph of a capture's CPU samples.

Each sample's stack is put root first and named through the process's mappings
and the symbols of the mapped files (`zorvek.symbols`). A stack sampler's sample
is its merged stack (`zorvek.stacks`): native frames with the thread's Python
frames, `function (file.py:line)`, where the interpreter's evaluation frames
stood, and a last `[waiting]` frame for a wall clock sample of a thread that
waited. A kernel's sample is its call chain without the kernel's context markers.

Samples are counted per process, thread, open annotation ranges (with
`--by-range`) and stack, in samples: a stack sampler's sample counts as many
sampling periods as it stands for, a kernel's as one. Where the sampling period
is known each also carries the time it stands for: CPU time, or elapsed time for
the stack sampler's wall clock.

Outputs, chosen by `--format` or the output's name (`zorvek.views`):
- an interactive SVG for a browser (`.svg`, `views.flame_svg`): processes and
  their threads as named roots, a search field, a click zooms;
- speedscope's JSON (`.speedscope.json`, `views.speedscope`): one profile a thread;
- pprof's profile protobuf (`.pb.gz`, `.pprof`, `views.pprof`), for `go tool
  pprof`, Pyroscope and Parca;
- collapsed stacks (`.collapsed`, `.txt`), one line per stack, "root;...;leaf
  count" with the process's name as the root (then the ranges open, with
  `--by-range`), the input of the usual flame graph tools.

`--range NAME` keeps the samples taken on a thread while an annotation range of
that name was open on the same thread. Ranges and the stack sampler's samples
carry the system clock, the kernel's samples perf's clock; the timeline's clock
model puts both on one axis, and its accuracy (README, "Clocks in the timeline")
bounds how exactly range edges cut.
"""

from __future__ import annotations

import argparse
import collections
import os
import re
import sys
from typing import Dict, List, NamedTuple, Optional, Sequence, Set, Tuple

import numpy as np

from .stacks import PythonCodes, StackNamer
from .views.capture import (VIEW_FAILURES, Progress, Reading, ViewError, add_files_argument,
                            add_progress_arguments, exit_status_help, view_failed)
from .views.output import AtomicFile
from .views.samples import SampleStacks, build_symbolizer, name_stacks, sample_kinds
from .views.survey import Survey

PROG = "zorvek flame"


# ---- What a flame graph is made of ---------------------------------------------------


class FlameSample(NamedTuple):
    """The samples of one stack of one thread, under one set of open ranges."""
    pid: int
    tid: int
    ranges: Tuple[str, ...]      # outermost first; empty without --by-range
    frames: Tuple[str, ...]      # root first
    count: int                   # samples
    nanoseconds: Optional[int]   # the time they stand for; None where not known


class FrameSource(NamedTuple):
    """Where a frame's code is: a Python function's name, file and lines, or the
    mapped file of native code."""
    function: str
    file: str = ""
    line: int = 0
    start_line: int = 0
    mapping: Optional[Tuple[str, int, int, int]] = None  # (file, start, end, offset)
    python: bool = False


class FlameProfile:
    """The samples of a flame graph, with what names their processes and threads
    and where their frames' code is."""

    def __init__(self) -> None:
        self.samples: List[FlameSample] = []
        self.processes: Dict[int, str] = {}             # "python train.py (pid 123)"
        self.roots: Dict[int, str] = {}                 # the collapsed stacks' root
        self.threads: Dict[Tuple[int, int], str] = {}   # "MainThread", "thread 1234"
        self.sources: Dict[str, FrameSource] = {}
        self.start_ns: Optional[int] = None             # system clock
        self.end_ns: Optional[int] = None
        self.period_ns: Optional[int] = None            # where one period serves all
        self.clock = "cpu"                              # what the time is: cpu, wall or both
        self.executables: Dict[int, str] = {}           # each process's program file
        self.gaps: List[str] = []

    @property
    def total(self) -> int:
        return sum(s.count for s in self.samples)

    @property
    def timed(self) -> bool:
        """Whether every sample's CPU time is known."""
        return all(s.nanoseconds is not None for s in self.samples)

    def collapsed(self) -> collections.Counter:
        """Counts of "root;...;leaf" stacks, the process's name as the root."""
        stacks: collections.Counter = collections.Counter()
        for s in self.samples:
            stacks[(self.roots[s.pid],) + s.ranges + s.frames] += s.count
        return stacks


# ---- Ranges --------------------------------------------------------------------------


def _thread_ranges(survey: Survey, name: Optional[str] = None
                   ) -> Dict[Tuple[int, int], List[Tuple[int, int, str]]]:
    """(start, end, name) of the ranges of each thread that began and ended on it;
    one never ended lasts to its process's last moment."""
    spans: Dict[Tuple[int, int], List[Tuple[int, int, str]]] = {}
    for pid, tid, start, end, msg, _token, _unfinished, end_tid in survey.ranges:
        if end_tid != tid or (name is not None and msg != name):
            continue
        if end is None:
            end = max(survey.last_real.get(pid, start), start)
        spans.setdefault((pid, tid), []).append((start, end, msg))
    return spans


class _Ranges:
    """The open intervals of the named ranges, per thread, merged, for a search."""

    def __init__(self, survey: Survey, name: str):
        spans = _thread_ranges(survey, name)
        self.starts: Dict[Tuple[int, int], List[int]] = {}
        self.ends: Dict[Tuple[int, int], List[int]] = {}
        for key, intervals in spans.items():
            intervals.sort()
            merged: List[List[int]] = []
            for start, end, _ in intervals:
                if merged and start <= merged[-1][1]:
                    merged[-1][1] = max(merged[-1][1], end)
                else:
                    merged.append([start, end])
            self.starts[key] = [m[0] for m in merged]
            self.ends[key] = [m[1] for m in merged]
        self.count = sum(len(v) for v in spans.values())

    def holds(self, pid: np.ndarray, tid: np.ndarray, t: np.ndarray) -> np.ndarray:
        """Whether a range of the name is open on its thread at each row's time."""
        held = np.zeros(len(t), bool)
        for (p, th), rows in _by_thread(pid, tid):
            starts = self.starts.get((p, th))
            if not starts:
                continue
            at = t[rows]
            i = np.searchsorted(np.asarray(starts, np.int64), at, side="right") - 1
            ends = np.asarray(self.ends[(p, th)], np.int64)
            held[rows] = (i >= 0) & (at <= ends[np.maximum(i, 0)])
        return held


class _OpenRanges:
    """The ranges open on a thread at any moment, outermost first: each thread's
    time cut where a range begins or ends, each piece with the names open in it."""

    def __init__(self, survey: Survey):
        self.starts: Dict[Tuple[int, int], List[int]] = {}
        self.paths: Dict[Tuple[int, int], List[Tuple[str, ...]]] = {}
        interned: Dict[Tuple[str, ...], Tuple[str, ...]] = {}
        for key, spans in _thread_ranges(survey).items():
            # A range holds its end too: it closes just after it.
            # Of ranges that begin together the longer is the outer one.
            edges = sorted([(start, 1, -end, i) for i, (start, end, _) in enumerate(spans)] +
                           [(end + 1, 0, 0, i) for i, (_, end, _) in enumerate(spans)])
            open_now: List[int] = []
            starts: List[int] = []
            paths: List[Tuple[str, ...]] = []
            at = 0
            while at < len(edges):
                t = edges[at][0]
                while at < len(edges) and edges[at][0] == t:
                    _, opens, _, i = edges[at]
                    if opens:
                        open_now.append(i)
                    else:
                        open_now.remove(i)
                    at += 1
                path = tuple(spans[i][2] for i in open_now)
                path = interned.setdefault(path, path)
                if paths and paths[-1] == path:
                    continue
                starts.append(t)
                paths.append(path)
            self.starts[key], self.paths[key] = starts, paths
        self._known: Dict[Tuple[str, ...], int] = {(): 0}
        self._ids: Dict[Tuple[int, int], np.ndarray] = {}

    def at(self, pid: int, tid: int, t: int) -> Tuple[str, ...]:
        return self.known[int(self.at_many(np.array([pid]), np.array([tid]), np.array([t]))[0])]

    def at_many(self, pid: np.ndarray, tid: np.ndarray, t: np.ndarray) -> np.ndarray:
        """at() of each row of columns, as indexes into `known`."""
        found = np.zeros(len(t), np.int64)
        for (p, th), rows in _by_thread(pid, tid):
            starts = self.starts.get((p, th))
            if not starts:
                continue
            ids = self._ids.get((p, th))
            if ids is None:
                ids = self._ids[(p, th)] = np.array(
                    [self._known.setdefault(path, len(self._known)) for path in self.paths[(p, th)]],
                    np.int64)
            i = np.searchsorted(np.asarray(starts, np.int64), t[rows], side="right") - 1
            found[rows] = np.where(i >= 0, ids[np.maximum(i, 0)], 0)
        return found

    @property
    def known(self) -> List[Tuple[str, ...]]:
        """The paths at_many() indexes, () first."""
        return list(self._known)


# ---- Collecting the samples -------------------------------------------------------------


class _Codes(PythonCodes):
    """The code objects, and the first line of each function, by the text a
    frame's function reads (`qualname (file.py)`)."""

    def __init__(self) -> None:
        super().__init__()
        self.first_lines: Dict[str, int] = {}

    def add(self, pid: int, rec: dict) -> None:
        super().add(pid, rec)
        qualname = _clean(rec.get("qualname") or "?")
        filename = _clean(os.path.basename(rec.get("filename") or "") or "?")
        self.first_lines["%s (%s)" % (qualname, filename)] = int(rec.get("first_line") or 0)


def _clean(text: str) -> str:
    # As a frame's text has it.
    return text.replace(";", ":").replace("\n", " ")


def _root_name(survey: Survey, symbols, pid: int) -> str:
    """The process a collapsed stack belongs to: the name zorvek gave it (its
    command line or worker role), else its program; never with the collapsed
    format's ";"."""
    own = survey.own_names.process(pid)
    if own:
        return own.replace(";", ",")
    exe = symbols.executable(pid)
    return os.path.basename(exe) if exe else "pid %d" % pid


def _process_label(survey: Survey, symbols, pid: int) -> str:
    own = survey.own_names.process(pid)
    if own:
        return "%s (pid %d)" % (own, pid)
    exe = symbols.executable(pid)
    return "%s (pid %d)" % (os.path.basename(exe), pid) if exe else "process %d" % pid


def _thread_labels(survey: Survey, pid: int, tids: Sequence[int]) -> Dict[int, str]:
    """A thread by the name it gave itself; one that gave none by its id. A name
    that several threads of the process share gets each one's id."""
    names = {}
    for tid in tids:
        own = survey.own_names.thread(pid, tid)
        names[tid] = own or ("main thread" if tid == pid else "thread %d" % tid)
    shared = collections.Counter(names.values())
    return {tid: "%s (%d)" % (name, tid) if shared[name] > 1 else name
            for tid, name in names.items()}


def _perf_period(domain) -> Optional[int]:
    """Nanoseconds of CPU time a kernel sample stands for: the period of the
    software CPU clock events the files of this clock domain sampled on."""
    periods = {period for _, _, period in domain.configs if period}
    return min(periods) if periods else None


def _by_thread(pid: np.ndarray, tid: np.ndarray):
    """((pid, tid), the rows of that thread) for each thread of columns."""
    if not len(pid):
        return
    pairs, inverse = np.unique(np.stack([pid.astype(np.uint64), tid.astype(np.uint64)], axis=1),
                               axis=0, return_inverse=True)
    inverse = inverse.reshape(-1)
    order = np.argsort(inverse, kind="stable")
    bounds = np.concatenate([[0], np.cumsum(np.bincount(inverse, minlength=len(pairs)))])
    for i, (p, t) in enumerate(pairs.tolist()):
        yield (p, t), order[bounds[i]:bounds[i + 1]]


class _Counts:
    """The samples as read: the kernel's by file, thread, ranges and call chain;
    the stack sampler's by thread, ranges and stack key, in nanoseconds. A stack
    sample's weight also notes its process's sampling period: the smallest weight,
    that of a sample that covers one expiry of its timer. A CPU-time timer expires
    on the kernel's tick, so on a 250 Hz kernel a 1 kHz sample mostly stands for
    four periods; counting it as four keeps the counts in samples at the asked
    rate."""

    def __init__(self) -> None:
        self.perf: collections.Counter = collections.Counter()
        self.stacks: collections.Counter = collections.Counter()
        self.periods: Dict[int, int] = {}
        self.clocks: Set[str] = set()  # "cpu", "wall"
        self.keys = SampleStacks()

    def add(self, index: int, kind: str, table: dict, rows: np.ndarray,
            ranges: Optional[np.ndarray] = None, paths: Sequence[Tuple[str, ...]] = ((),)) -> None:
        """The `rows` of a group's SAMPLE or STACK columns, each under the open
        ranges `paths[ranges[i]]` (none where `ranges` is None)."""
        if not len(rows):
            return
        tid = table["tid"][rows]
        path = np.zeros(len(rows), np.int64) if ranges is None else ranges
        if kind == "SAMPLE":
            ids = self.keys.chain_ids(table, rows)
            first, inverse = _distinct_rows(tid, path, ids)
            counts = np.bincount(inverse, minlength=len(first))
            for row, n in zip(first.tolist(), counts.tolist()):
                self.perf[(index, int(tid[row]), paths[path[row]],
                           self.keys.chain_keys[ids[row]])] += n
            self.clocks.add("cpu")
            return
        ids = self.keys.stack_ids(table, rows)
        weight = table["weight_ns"][rows].astype(np.int64)
        weight[weight == 0] = 1
        pid = table["pid"][rows]
        for p in np.unique(pid).tolist():
            least = int(weight[pid == p].min())
            self.periods[p] = min(self.periods.get(p, least), least)
        first, inverse = _distinct_rows(tid, path, ids)
        sums = np.zeros(len(first), np.int64)
        np.add.at(sums, inverse, weight)
        for row, ns in zip(first.tolist(), sums.tolist()):
            self.stacks[(int(tid[row]), paths[path[row]], self.keys.stack_keys[ids[row]])] += ns
        # The stack sampler's clock: each thread's CPU time, or elapsed time.
        labels = table["clock_labels"]
        self.clocks.update("wall" if labels[c] == "wall" else "cpu"
                           for c in np.unique(table["clock"][rows]).tolist())

    def __bool__(self) -> bool:
        return bool(self.perf) or bool(self.stacks)


def _distinct_rows(*columns: np.ndarray):
    from .views.columns import distinct

    return distinct(list(columns))


def collect(args, reading: Reading) -> FlameProfile:
    """The samples of the captures, named, per process, thread, ranges and stack."""
    pids = set(args.pid) if args.pid else None
    by_range = getattr(args, "by_range", False)
    counts = _Counts()
    if args.range is None and not by_range:
        survey = Survey(reading, pids=pids, keep_gpu=False,
                        on_samples=lambda index, kind, table, wanted: counts.add(
                            index, kind, table, np.nonzero(wanted)[0]))
        survey.python_codes = _Codes()
        survey.run()
    else:
        survey = Survey(reading, pids=pids, keep_gpu=False)
        survey.python_codes = _Codes()
        survey.run("reading (1 of 2)")
        _second_pass(args, reading, survey, counts, by_range)
    if not survey.samples and not survey.stack_samples:
        raise ViewError("no CPU samples in the captures (was CPU sampling on?)")
    if not counts:
        what = "of process %s" % ", ".join(map(str, sorted(pids))) if pids else ""
        within = " inside range %r" % args.range if args.range else ""
        raise ViewError("no CPU samples %s%s" % (what, within) if what or within else
                        "no CPU samples")
    symbols = build_symbolizer(survey)
    try:
        return _name(reading, survey, symbols, counts)
    finally:
        symbols.close()


def _second_pass(args, reading: Reading, survey: Survey, counts: _Counts, by_range: bool) -> None:
    """The samples again, now that the clocks are known, kept by the ranges open
    on their threads."""
    keep = None
    if args.range is not None:
        keep = _Ranges(survey, args.range)
        if not keep.count:
            names = sorted({r[4] for r in survey.ranges})
            hint = (" (names there: %s)" % ", ".join(names[:8]) + (", ..." if len(names) > 8 else "")
                    ) if names else " (the captures hold no annotation ranges)"
            raise ViewError("no annotation range named %r%s" % (args.range, hint))
    open_ranges = _OpenRanges(survey) if by_range else None
    for index, group in reading.columns(kinds=sample_kinds(survey), what="reading (2 of 2)"):
        domain = survey.file_domain[index]
        for kind in ("SAMPLE", "STACK"):
            table = group.get(kind)
            if table is None or not len(table["timestamp"]):
                continue
            rows = np.nonzero(survey.wanted_rows(table["pid"]))[0]
            pid, tid = table["pid"][rows], table["tid"][rows]
            if kind == "SAMPLE":
                to_real = domain.perf_to_real
                t = np.array([to_real(ts) for ts in table["timestamp"][rows].tolist()], np.int64)
            else:
                t = table["timestamp"][rows].astype(np.int64)  # the system clock already
            if keep is not None:
                held = keep.holds(pid, tid, t)
                rows, pid, tid, t = rows[held], pid[held], tid[held], t[held]
            if open_ranges is None:
                counts.add(index, kind, table, rows)
            else:
                counts.add(index, kind, table, rows, open_ranges.at_many(pid, tid, t),
                           open_ranges.known)


def _name(reading: Reading, survey: Survey, symbols, counts: _Counts) -> FlameProfile:
    profile = FlameProfile()
    merged: Dict[Tuple[int, int, Tuple[str, ...], Tuple[str, ...]], List] = {}

    def add(pid, tid, ranges, frames, n, ns):
        entry = merged.setdefault((pid, tid, ranges, frames), [0, 0])
        entry[0] += n
        entry[1] = None if ns is None or entry[1] is None else entry[1] + ns

    chains = sorted({key[3] for key in counts.perf})
    stack_keys = sorted({key[2] for key in counts.stacks})
    reading.progress.show("naming %d stacks" % (len(chains) + len(stack_keys)))
    named = dict(zip(chains, name_stacks(symbols, chains)))
    periods = {index: _perf_period(domain) for index, domain in enumerate(survey.file_domain)}
    for (index, tid, ranges, chain), n in counts.perf.items():
        period = periods[index]
        add(chain[0], tid, ranges, tuple(named[chain][::-1]), n,
            None if period is None else n * period)
    namer = StackNamer(symbols, survey.python_codes)
    stacks = dict(zip(stack_keys, namer.name_many(stack_keys)))
    for (tid, ranges, key), ns in counts.stacks.items():
        pid = key[0]
        add(pid, tid, ranges, stacks[key], max(1, round(ns / counts.periods[pid])), ns)

    for (pid, tid, ranges, frames), (n, ns) in sorted(merged.items(), key=lambda kv: kv[0]):
        profile.samples.append(FlameSample(pid, tid, ranges, frames, n, ns))
    threads: Dict[int, List[int]] = {}
    for pid, tid in {(s.pid, s.tid) for s in profile.samples}:
        threads.setdefault(pid, []).append(tid)
    for pid, tids in threads.items():
        profile.processes[pid] = _process_label(survey, symbols, pid)
        profile.roots[pid] = _root_name(survey, symbols, pid)
        exe = symbols.executable(pid)
        if exe:
            profile.executables[pid] = exe
        for tid, label in _thread_labels(survey, pid, sorted(tids)).items():
            profile.threads[(pid, tid)] = label
    profile.sources = _sources(profile, survey, symbols, counts)
    known = {p for p in periods.values() if p} | set(counts.periods.values())
    profile.period_ns = known.pop() if len(known) == 1 else None
    profile.clock = counts.clocks.pop() if len(counts.clocks) == 1 else "time"
    starts = [int(h.get("start_time") or 0) for h in survey.headers]
    ends = [int(h.get("end_time") or 0) for h in survey.headers]
    profile.start_ns = min((s for s in starts if s), default=None)
    profile.end_ns = max((e for e in ends if e), default=None)
    profile.gaps = list(symbols.gaps)
    return profile


# A Python frame's text: "qualname (file.py:line)".
_PYTHON_FRAME = re.compile(r"^(.*) \((.*):(\d+)\)$")


def _sources(profile: FlameProfile, survey: Survey, symbols, counts: _Counts
             ) -> Dict[str, FrameSource]:
    """Where each frame's code is: a Python frame's function, file and lines from
    its text and the code objects; a native frame's mapped file from the
    addresses it was named from (the symbolizer has them cached)."""
    codes = survey.python_codes
    first_lines = getattr(codes, "first_lines", {})
    sources: Dict[str, FrameSource] = {}
    shown = {f for s in profile.samples for f in s.frames}
    for frame in shown:
        function = codes.function(frame)
        if function is None:
            continue
        parts = _PYTHON_FRAME.match(frame)
        if parts is None:
            sources[frame] = FrameSource(frame, python=True)
        else:
            sources[frame] = FrameSource(parts.group(1), parts.group(2), int(parts.group(3)),
                                         first_lines.get(function, 0), None, True)
    asks = set()
    for _, _, _, (pid, chain, _padded) in counts.perf:
        asks.update((pid, a if i == 0 else a - 1) for i, a in enumerate(chain))
    for _, _, (pid, ips, _py, _waiting) in counts.stacks:
        asks.update((pid, a if i == 0 else a - 1) for i, a in enumerate(ips))
    if asks:
        for key, names in symbols.frames_many(sorted(asks)).items():
            mapping = symbols.mapping(*key)
            if mapping is None or not mapping[3].startswith("/"):
                continue
            start, end, offset, path = mapping
            for name in names:
                if name in shown and name not in sources:
                    sources[name] = FrameSource(name, mapping=(path, start, end, offset))
    return sources


# ---- Command line ------------------------------------------------------------------------

EXAMPLES = """\
examples:
  zorvek flame run_1234_0.zvkraw -o flame.svg
  zorvek flame captures/ --range step -o step.svg      # only samples inside "step"
  zorvek flame captures/ --by-range -o ranges.svg      # samples under the ranges open
  zorvek flame captures/ -o run.speedscope.json        # for speedscope.app
  zorvek flame captures/ -o cpu.pb.gz                  # for go tool pprof, Pyroscope, Parca
  zorvek flame run_*.zvkraw --format collapsed > stacks.txt
  zorvek flame run_*.zvkraw --pid 1234 --format collapsed -o stacks.txt

The SVG opens in a browser: each process and thread is a root of its own; type in
the search field to see a function's share, click a frame to zoom to it.
Frames are named from the files the process had mapped, as they are on this
machine now; a file that is gone is named in one line, and its frames as
file+0xoffset.
"""

FORMATS = ("svg", "speedscope", "pprof", "collapsed")

# The output's name, when --format doesn't say, chooses the format.
SUFFIXES = ((".speedscope.json", "speedscope"), (".pb.gz", "pprof"), (".pprof", "pprof"),
            (".collapsed", "collapsed"), (".txt", "collapsed"), (".svg", "svg"))

DEFAULT_OUTPUT = {"svg": "flame.svg", "speedscope": "flame.speedscope.json",
                  "pprof": "flame.pb.gz", "collapsed": "-"}


def output_format(fmt: Optional[str], output: Optional[str]) -> str:
    if fmt:
        return fmt
    name = (output or "").lower()
    for suffix, chosen in SUFFIXES:
        if name.endswith(suffix):
            return chosen
    return "svg"


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
    parser.description = ("A flame graph of the CPU samples in captures: an interactive SVG for a\n"
                          "browser, speedscope's JSON, a pprof profile, or collapsed stacks, one\n"
                          "\"root;...;leaf count\" line per stack.")
    parser.epilog = EXAMPLES + "\n" + exit_status_help()
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    add_files_argument(parser)
    parser.add_argument("-o", "--output",
                        help="file to write, - for stdout (default: flame.svg, flame.speedscope.json "
                             "or flame.pb.gz; stdout for --format collapsed)")
    parser.add_argument("--format", choices=FORMATS, default=None,
                        help="what to write (default: by the output's name: .svg, "
                             ".speedscope.json, .pb.gz or .pprof, .collapsed or .txt; else svg)")
    parser.add_argument("--range", metavar="NAME",
                        help="only samples taken inside annotation ranges named NAME, on the "
                             "range's thread")
    parser.add_argument("--by-range", action="store_true",
                        help="each thread's samples under the annotation ranges open on it when "
                             "they were taken")
    parser.add_argument("--pid", type=int, action="append", metavar="PID",
                        help="only this process (repeatable)")
    parser.add_argument("--title", help="the graph's title (default: the files' names)")
    parser.add_argument("--width", type=_width, default=1200,
                        help=f"SVG width in pixels, at least {MIN_WIDTH} (default: 1200)")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    progress = Progress(PROG, args.progress)
    fmt = output_format(args.format, args.output)
    output = args.output or DEFAULT_OUTPUT[fmt]
    try:
        passes = 1 if args.range is None and not args.by_range else 2
        reading = Reading(args.files, progress, passes=passes)
        profile = collect(args, reading)
        title = args.title or ("CPU flame graph: " + ", ".join(
            os.path.basename(p) for p in reading.paths[:3]) + (" ..." if len(reading.paths) > 3 else ""))
        _write(fmt, output, profile, args, title)
    except VIEW_FAILURES as error:
        return view_failed(PROG, progress, error, output)
    progress.done()
    status = reading.report_problems(PROG)
    for gap in profile.gaps:
        sys.stderr.write("%s: %s\n" % (PROG, gap))
    where = "stdout" if output == "-" else output
    sys.stderr.write("%s: wrote %s: %d samples in %d stacks%s\n" % (
        PROG, where, profile.total, len(profile.collapsed()),
        (", range %r" % args.range) if args.range else ""))
    return status


def _write(fmt: str, output: str, profile: FlameProfile, args, title: str) -> None:
    if fmt == "collapsed":
        _emit(output, lambda out: write_collapsed(profile.collapsed(), out))
    elif fmt == "speedscope":
        from .views.speedscope import write_speedscope
        _emit(output, lambda out: write_speedscope(profile, out, title))
    elif fmt == "pprof":
        from .views.pprof import profile_bytes
        data = profile_bytes(profile, title)
        _emit(output, lambda out: out.write(data), binary=True)
    else:
        from .views.flame_svg import render_svg
        within = []
        if args.range:
            within.append("inside range %r" % args.range)
        if args.by_range:
            within.append("under the ranges open")
        subtitle = "%d samples, %d process%s, %d thread%s%s" % (
            profile.total, len(profile.processes), "" if len(profile.processes) == 1 else "es",
            len(profile.threads), "" if len(profile.threads) == 1 else "s",
            "".join(", " + w for w in within))
        svg = render_svg(profile, title, subtitle, args.width)
        _emit(output, lambda out: out.write(svg))


def write_collapsed(stacks: collections.Counter, out) -> None:
    for stack, n in sorted(stacks.items()):
        out.write("%s %d\n" % (";".join(stack), n))


def _emit(output: str, write, binary: bool = False) -> None:
    """Writes to stdout, or to a file that appears whole."""
    if output == "-":
        out = sys.stdout.buffer if binary else sys.stdout
        write(out)
        out.flush()
        return
    atomic = AtomicFile(output, binary)
    try:
        write(atomic.file)
    except BaseException:
        atomic.abandon()
        raise
    atomic.commit()


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
