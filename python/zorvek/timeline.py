"""`zorvek timeline`: captures as a Chrome trace-event JSON file for the Perfetto UI
and chrome://tracing.

What goes in: annotation ranges as nested slices on their threads (markers as
instants), CPU samples as instants on their threads with their symbolized stacks
(the stack sampler's merged with their Python frames, `zorvek.stacks`),
GPU kernels, copies and memsets on lanes per device and stream, driver API calls as
slices on the threads that made them with flow arrows to the GPU work they
launched, process and thread names. Several files (rotation, forked children, other
hosts) share one time axis: every clock is put on the system clock.

This module also holds what the flame graph shares with the timeline: reading
captures through the project's reader, the progress line, and the clock model.

Clocks (README, "Clocks in the timeline", says how accurate each is):

- annotations, file headers, the stack sampler's samples and mappings: the
  system clock already;
- CLOCK_MONOTONIC_RAW (CONFIGURATION records, the mappings listed at the start):
  the time marker's pairs and each file's `clock_shift`, interpolated between
  them;
- perf's clock (samples, the kernel's MMAP/FORK/EXIT): clock-sync brackets where
  the capture has them (`mark_clock_sync`), else perf's clock taken as this
  machine's CLOCK_MONOTONIC when the capture was made here in this boot, else
  estimated from when sampling started;
- CUPTI's clock (GPU records): recognised by what its stamps look like (the system
  clock, or a monotonic clock), else placed at the capture's start, and said so.
"""

from __future__ import annotations

import argparse
import bisect
import gzip
import json
import os
import socket
import statistics
import sys
import time
from typing import Dict, Iterable, Iterator, List, Optional, Sequence, Set, Tuple

from ._clocksync import CLOCK_SYNC, mark_clock_sync  # noqa: F401 (mark_clock_sync: public here)
from ._stallmark import PRODUCER_STALL
from . import _names
from .stacks import PythonCodes, StackNamer, stack_key
from .symbols import Symbolizer, demangle

PROG = "zorvek timeline"

# Call chain words at or above this are the kernel's context markers
# (PERF_CONTEXT_USER is 2**64 - 512, ..._MAX 2**64 - 4095), not addresses.
CONTEXT_MARKER_FLOOR = 2 ** 64 - 4095


class ViewError(Exception):
    """A failure that ends the command with its one-line message."""


# ---- Inputs ----------------------------------------------------------------------


def capture_paths(paths: Sequence[str]) -> List[str]:
    """The capture files named, a folder standing for the .zvkraw files in it."""
    files = []
    for path in paths:
        if os.path.isdir(path):
            found = sorted(os.path.join(path, n) for n in os.listdir(path) if n.endswith(".zvkraw"))
            if not found:
                raise ViewError("%s: no .zvkraw capture files in this folder" % path)
            files.extend(found)
        elif not os.path.exists(path):
            raise ViewError("%s: no such file or folder" % path)
        else:
            files.append(path)
    return files


def open_capture(path: str):
    """The project's reader on one file; a file that isn't a readable capture ends
    the command with the reader's one line."""
    from . import _reader
    try:
        return _reader.CaptureFile(path)
    except ValueError as error:
        raise ViewError(str(error)) from None
    except OSError as error:
        raise ViewError("%s: %s" % (path, error.strerror or error)) from None


class Progress:
    """A progress line on stderr for work that takes longer than a second: on a
    terminal by default, or wherever stderr goes when asked; never on stdout."""

    def __init__(self, prog: str, enabled: Optional[bool] = None):
        self.prog = prog
        self.enabled = sys.stderr.isatty() if enabled is None else enabled
        self.began = time.monotonic()
        self.shown = False
        self.last = 0.0
        self.tty = sys.stderr.isatty()

    def show(self, text: str, fraction: Optional[float] = None) -> None:
        if not self.enabled:
            return
        now = time.monotonic()
        if now - self.began < 1.0 or (now - self.last < 0.2 and self.tty):
            return
        self.last = now
        line = "%s: %s" % (self.prog, text)
        if fraction is not None:
            done = int(30 * min(max(fraction, 0.0), 1.0))
            line = "%s [%s%s] %3d%%" % (line, "#" * done, "." * (30 - done), int(100 * fraction))
        if self.tty:
            sys.stderr.write("\r\033[K" + line)
        else:
            sys.stderr.write(line + "\n")
        sys.stderr.flush()
        self.shown = True

    def done(self) -> None:
        if self.shown and self.tty:
            sys.stderr.write("\r\033[K")
            sys.stderr.flush()
        self.shown = False


class Reading:
    """The capture files of one command, opened once, read in passes. `passes` is
    how many times the files will be read, for the progress line."""

    def __init__(self, paths: Sequence[str], progress: Progress, passes: int = 1):
        self.paths = capture_paths(paths)
        self.captures = [open_capture(p) for p in self.paths]
        self.progress = progress
        self.passes = passes
        self.pass_index = 0
        self.sizes = [max(int(getattr(c, "file_size", 0) or os.path.getsize(p)), 1)
                      for c, p in zip(self.captures, self.paths)]
        self.problems: Dict[str, List[str]] = {}
        self.unfinished: Dict[str, str] = {}
        self.damaged: Set[str] = set()

    def records(self, kinds: Optional[Sequence[str]] = None, what: str = "reading"
                ) -> Iterator[Tuple[int, list]]:
        """(file index, batch of record dicts), file after file."""
        total = sum(self.sizes) * self.passes
        before = sum(self.sizes) * self.pass_index
        for index, capture in enumerate(self.captures):
            done_files = sum(self.sizes[:index])

            def progress(done, size, _base=before + done_files):
                self.progress.show(what, (_base + done) / total)

            try:
                for batch in capture.batches(kinds=kinds, progress=progress):
                    yield index, batch
            except (OSError, ValueError) as error:
                raise ViewError("%s: %s" % (self.paths[index], error)) from None
            path = self.paths[index]
            problems = list(capture.problems)
            if problems:
                self.problems[path] = problems
            if capture.unfinished:
                self.unfinished[path] = capture.unfinished
            if capture.damaged:
                self.damaged.add(path)
        self.pass_index += 1

    def report_problems(self, prog: str) -> int:
        """Says on stderr, once per file, what its reading met: a damaged or cut
        file was read as far as it was whole, an unfinished one to its end.
        Returns the command's exit status."""
        from . import _reader

        def said(path: str, text: str) -> str:
            return text if text.startswith(path) else "%s: %s" % (path, text)

        for path in self.paths:
            problems = self.problems.get(path)
            if problems:
                text = problems[0] if len(problems) == 1 else "%s (and %d more)" % (
                    problems[0], len(problems) - 1)
                sys.stderr.write("%s: %s; used what was whole\n" % (prog, said(path, text)))
            if path in self.unfinished:
                sys.stderr.write("%s: %s\n" % (prog, said(path, self.unfinished[path])))
        return _reader.EXIT_DAMAGED if self.damaged else _reader.EXIT_READ_WHOLE


# ---- What the view commands share around their work --------------------------------


def add_files_argument(parser: argparse.ArgumentParser) -> None:
    """The captures a view command reads: files, or folders standing for theirs."""
    parser.add_argument("files", nargs="+", metavar="FILE",
                        help="capture files (.zvkraw), or folders holding them")


def add_progress_arguments(parser: argparse.ArgumentParser) -> None:
    """--progress / --no-progress; neither leaves args.progress None, which means
    "on a terminal" to Progress."""
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--progress", dest="progress", action="store_true", default=None,
                       help="show progress on stderr even when it is not a terminal")
    group.add_argument("--no-progress", dest="progress", action="store_false",
                       help="never show progress")


# What a view command's run stops on: its own failures, an interrupt, and the
# system refusing a file.
VIEW_FAILURES = (ViewError, KeyboardInterrupt, OSError)


def view_failed(prog: str, progress: Progress, error: BaseException, output: str) -> int:
    """Ends a view command that stopped on one of VIEW_FAILURES: the progress line
    taken away, one line on stderr, and the exit status. An OSError without a file
    name of its own is told against `output`, the file being written."""
    from . import _reader

    progress.done()
    if isinstance(error, KeyboardInterrupt):
        sys.stderr.write("%s: interrupted\n" % prog)
        return 130
    if isinstance(error, OSError):
        sys.stderr.write("%s: %s: %s\n" % (prog, getattr(error, "filename", None) or output,
                                           error.strerror or error))
        return _reader.EXIT_NOT_READ
    sys.stderr.write("%s: %s\n" % (prog, error))
    return _reader.EXIT_NOT_READ


def exit_status_help() -> str:
    """The view commands' exit statuses, for the end of their help."""
    from . import _reader

    return _reader.EXIT_STATUS_HELP + (
        "%d also when the output can't be written; 130 when interrupted.\n" % _reader.EXIT_NOT_READ)


def user_frames(chain: Sequence[int]) -> List[int]:
    """A sample's call chain without the kernel's context markers, innermost first,
    ending at the first 0 (an odd-length chain is padded to whole entries)."""
    frames = []
    for address in chain:
        if address >= CONTEXT_MARKER_FLOOR:
            continue
        if address == 0:
            break
        frames.append(address)
    return frames


# ---- Clocks ----------------------------------------------------------------------


class _Offsets:
    """Offsets from one clock to the system clock measured at several moments of
    the source clock: piecewise linear between neighbours (a clock that drifts is
    followed), the nearest one outside them, and no interpolation across a step
    larger than the drift of any real clock (an NTP step, not a drift)."""

    def __init__(self, points: Iterable[Tuple[int, int]]):
        self.points = sorted(points)
        self.xs = [p[0] for p in self.points]

    def __bool__(self) -> bool:
        return bool(self.points)

    def at(self, t: int) -> int:
        points = self.points
        i = bisect.bisect_right(self.xs, t)
        if i == 0:
            return points[0][1]
        if i == len(points):
            return points[-1][1]
        (x0, o0), (x1, o1) = points[i - 1], points[i]
        if x1 == x0 or abs(o1 - o0) > 1e-3 * (x1 - x0) + 1_000_000:
            return o0 if t - x0 <= x1 - t else o1
        return o0 + (o1 - o0) * (t - x0) // (x1 - x0)


def _clock_ns(clock_id) -> int:
    return time.clock_gettime_ns(clock_id)


class Domain:
    """One machine in one boot: the clocks its files share. Files join the domain
    of their host whose system-minus-raw offset is near theirs (a reboot moves it
    by the boot's distance, far more than any drift)."""

    def __init__(self, host: str, offset: int):
        self.host = host
        self.offset_hint = offset
        self.raw_points: List[Tuple[int, int]] = []
        self.raw = _Offsets(())
        # Perf clock evidence.
        self.configs: List[Tuple[int, int, int]] = []  # (raw ts, format id, period ns or 0)
        self.first_sample: Dict[int, int] = {}  # format id -> earliest perf ts
        self.forks: Dict[Tuple[int, int], List[int]] = {}  # new task -> perf ts
        self.exits: Dict[Tuple[int, int], List[int]] = {}
        self.thread_real: Dict[Tuple[int, int], List[int]] = {}  # first, last annotation
        self.finished: Optional[int] = 0  # the latest end_time, if every file has one
        self.sample_range = [None, None]  # perf ts
        self.perf = _Offsets(())
        self.perf_offset = 0
        self.perf_method = "no CPU samples"
        # CUPTI clock.
        self.gpu_stamps: List[int] = []
        self.gpu_offset = 0
        self.gpu_method = "no GPU records"
        self.real_range = [None, None]  # system clock, from headers and annotations
        self.earliest_start: Optional[int] = None

    def see_real(self, t: int) -> None:
        if t <= 0:
            return
        lo, hi = self.real_range
        self.real_range = [t if lo is None else min(lo, t), t if hi is None else max(hi, t)]

    def raw_to_real(self, t: int) -> int:
        return t + (self.raw.at(t) if self.raw else self.offset_hint)

    def perf_to_real(self, t: int) -> int:
        return t + (self.perf.at(t) if self.perf else self.perf_offset)

    def gpu_to_real(self, t: int) -> int:
        return t + self.gpu_offset

    # -- Settling the clocks once the survey has seen everything --

    def settle(self, syncs: List[Tuple[int, int, int]], gpu_clock: str) -> None:
        self.raw = _Offsets(self.raw_points)
        self._settle_perf(syncs)
        self._settle_gpu(gpu_clock)

    def _perf_bounds(self) -> Tuple[Optional[int], Optional[int], int]:
        """What the capture itself proves about the perf-to-system offset, from
        events whose order is certain: (least offset, greatest offset, sampling
        period in ns or 0).

        At least: every descriptor's first sample comes after its CONFIGURATION
        record, written before the descriptor was enabled (and, for the CPU clock
        events, one period of the thread's CPU time later); a thread's last
        annotation comes before the kernel reports its exit.
        At most: a thread's first annotation comes after the kernel reports its
        creation; the last sample comes before the file was finished."""
        lows, highs, periods = [], [], []
        for raw_ts, format_id, period in self.configs:
            first = self.first_sample.get(format_id)
            if first is not None:
                lows.append(self.raw_to_real(raw_ts) - first)
                periods.append(period)
        for key, exits in self.exits.items():
            seen = self.thread_real.get(key)
            if seen and len(exits) == 1 and len(self.forks.get(key, ())) <= 1:
                lows.append(seen[1] - exits[0])
        for key, forks in self.forks.items():
            seen = self.thread_real.get(key)
            if seen and len(forks) == 1:
                highs.append(seen[0] - forks[0])
        if self.finished and self.sample_range[1] is not None:
            highs.append(self.finished - self.sample_range[1])
        return (max(lows) if lows else None, min(highs) if highs else None,
                min(periods) if periods else 0)

    def _settle_perf(self, syncs: List[Tuple[int, int, int]]) -> None:
        if syncs:
            points = [(perf_ts, (lo + hi) // 2 - perf_ts) for perf_ts, lo, hi in syncs]
            width = max(hi - lo for _, lo, hi in syncs)
            self.perf = _Offsets(points)
            self.perf_offset = points[0][1]
            self.perf_method = "clock-sync marks (%d), each within %s" % (len(points), _span(width))
            return
        if self.sample_range[0] is None and not self.forks and not self.exits:
            self.perf_offset = self.raw_to_real(0)
            return
        low, high, period = self._perf_bounds()
        if low is not None and high is not None and high < low:
            low = high = None  # contradictory evidence (a reused thread id): use none of it
        bracket = ("; the capture bounds it to %s" % _span(high - low)
                   if low is not None and high is not None else "")
        local = self._local_monotonic_offset()
        width = high - low if low is not None and high is not None else None
        if width is not None and width <= 4_000_000:
            offset = (low + high) // 2
            self.perf_method = "placed by the order of the capture's own events, within %s" % _span(
                width // 2 + 1)
        elif local is not None and (low is None or local >= low - 2_000_000) and (
                high is None or local <= high + 2_000_000):
            offset = local
            self.perf_method = ("perf's clock taken as CLOCK_MONOTONIC of this machine "
                                "(same host and boot), within about 2 ms" + bracket)
        elif width is not None and width <= 20_000_000:
            offset = (low + high) // 2
            self.perf_method = "placed by the order of the capture's own events, within %s" % _span(
                width // 2 + 1)
        elif low is not None:
            offset = low + period
            self.perf_method = ("estimated from the start of sampling (first sample one "
                                "period after it): late by as long as a thread slept "
                                "before its first sample" + bracket)
        else:
            offset = self.raw_to_real(0)
            self.perf_method = ("perf's clock taken as CLOCK_MONOTONIC_RAW for want of "
                                "evidence: off by the two clocks' divergence since boot" + bracket)
        if low is not None:
            offset = max(offset, low)
        if high is not None:
            offset = min(offset, high)
        self.perf_offset = offset

    def _local_monotonic_offset(self) -> Optional[int]:
        """System minus CLOCK_MONOTONIC now, when the capture was made on this host
        in this boot: perf's default clock (the kernel's local clock) follows
        CLOCK_MONOTONIC to a millisecond or two, and the two system-clock offsets
        stay the same across a boot but for clock steps."""
        if self.host != socket.gethostname() or not self.raw:
            return None
        now_real = _clock_ns(time.CLOCK_REALTIME)
        now_raw = _clock_ns(time.CLOCK_MONOTONIC_RAW)
        now_mono = _clock_ns(time.CLOCK_MONOTONIC)
        last_raw = self.raw.points[-1][0]
        if now_raw < last_raw:
            return None  # raw time went back: another boot
        drift_allowance = 2_000_000_000 + (now_raw - last_raw) // 1000
        if abs((now_real - now_raw) - self.raw.points[-1][1]) > drift_allowance:
            return None
        return now_real - now_mono

    def _settle_gpu(self, gpu_clock: str) -> None:
        if not self.gpu_stamps:
            return
        stamp = statistics.median_low(self.gpu_stamps)
        lo, hi = self.real_range
        if lo is None:
            lo = hi = self.earliest_start or 0
        window = (lo - 600_000_000_000, hi + 600_000_000_000)
        monotonic = self._local_monotonic_offset()
        if monotonic is None:
            monotonic = self.perf_offset if self.sample_range[0] is not None else self.raw_to_real(0)
        candidates = [
            ("realtime", 0, "CUPTI's stamps are on the system clock"),
            ("monotonic", monotonic, "CUPTI's stamps taken as CLOCK_MONOTONIC"),
            ("raw", self.raw_to_real(stamp) - stamp, "CUPTI's stamps taken as CLOCK_MONOTONIC_RAW"),
        ]
        for name, offset, method in candidates:
            if gpu_clock not in ("auto", name):
                continue
            if gpu_clock == name or window[0] <= stamp + offset <= window[1]:
                self.gpu_offset, self.gpu_method = offset, method
                return
        # Stamps on no clock this host has: a stand-in, or a clock CUPTI was told to
        # use. Their order and spacing are kept; their place is not known.
        anchor = self.earliest_start or lo
        self.gpu_offset = anchor - min(self.gpu_stamps)
        self.gpu_method = ("CUPTI's clock not recognised: GPU records placed from the "
                           "capture's start, their spacing kept")


def _span(ns: int) -> str:
    if ns < 10_000:
        return "%d ns" % ns
    if ns < 10_000_000:
        return "%.0f us" % (ns / 1e3)
    return "%.1f ms" % (ns / 1e6)


def time_marker_offset(record: dict) -> Optional[Tuple[int, int]]:
    """(raw time, system minus raw) from a TIME_MARKER: the median over its
    interleaved pairs (slots 0 to 10; slots 11 to 15 are two back-to-back bursts,
    one of each clock, whose differences carry five calls' delay)."""
    raw, real = record.get("monotonic_raw") or [], record.get("realtime") or []
    pairs = [(r, s) for r, s in list(zip(raw, real))[:11] if r and s]
    if not pairs:
        return None
    offsets = sorted(s - r for r, s in pairs)
    return pairs[len(pairs) // 2][0], offsets[len(offsets) // 2]


def header_offset(header: dict) -> Optional[Tuple[int, int]]:
    """(raw time, system minus raw) at the file's opening, from its header."""
    shift, start = int(header.get("clock_shift") or 0), int(header.get("start_time") or 0)
    if not shift or not start:
        return None
    return start - shift, shift


# ---- Survey: one pass that learns what the views need before they emit ----------


class Survey:
    """Everything but the samples' stacks: clocks, mappings, names, annotation
    ranges, GPU work and API calls. The samples come in a second pass, once their
    clock is known."""

    def __init__(self, reading: Reading, *, pids: Optional[set] = None,
                 keep_gpu: bool = True,
                 gpu_clock: str = "auto", on_sample=None, on_stack=None):
        self.reading = reading
        # Called with (file index, record) for each wanted perf SAMPLE (on_sample)
        # and each wanted STACK sample (on_stack), for a view that needs no second
        # pass.
        self.on_sample = on_sample
        self.on_stack = on_stack
        self.pids = pids
        self.keep_gpu = keep_gpu
        self.gpu_clock = gpu_clock
        self.headers = [c.header for c in reading.captures]
        self.domains: List[Domain] = []
        self.file_domain: List[Domain] = []
        for header in self.headers:
            self.file_domain.append(self._domain_for(header))
        # Annotations.
        self.ranges: List[tuple] = []  # (pid, tid, start, end, msg, token, unfinished, end_tid)
        self.markers: List[tuple] = []  # (pid, tid, ts, msg)
        self.unmatched_ends = 0
        # The names processes and threads gave themselves.
        self.own_names = _names.Names()
        # CPU: the kernel's samples, and the stack sampler's with the code
        # objects their Python frames name.
        self.samples = 0
        self.stack_samples = 0
        self.first_stack: Optional[int] = None  # system clock
        self.python_codes = PythonCodes()
        self.lost: Dict[int, int] = {}
        # GPU.
        self.names: Dict[Tuple[int, str], Dict[int, str]] = {}
        self.gpu_ops: List[tuple] = []  # (domain, pid, device, stream, start, end, kind, name_or_id, corr, args)
        # The Python frames of each driver API call, leaf first, by (pid, correlation).
        self.api_python: Dict[Tuple[int, int], tuple] = {}
        self.api_calls: List[tuple] = []  # (domain, pid, tid, start, end, cbid, domain_id, corr, func_id, chain)
        self.syncs: List[tuple] = []  # (domain, pid, start, end, sync_type, stream, corr)
        # Per process: the last system-clock time seen, for ranges never ended: its
        # last annotation, or the end of its file when that is later.
        self.last_real: Dict[int, int] = {}
        for header in self.headers:
            pid, end = header.get("pid"), int(header.get("end_time") or 0)
            if pid is not None and end > self.last_real.get(pid, 0):
                self.last_real[pid] = end
        self.pids_seen: Dict[int, Domain] = {}
        self.threads: Dict[int, set] = {}
        self.mapping_events: List[tuple] = []

    def _domain_for(self, header: dict) -> Domain:
        host = header.get("hostname") or "?"
        anchor = header_offset(header)
        offset = anchor[1] if anchor else 0
        for domain in self.domains:
            if domain.host == host and (not anchor or abs(domain.offset_hint - offset) < 10_000_000_000):
                break
        else:
            domain = Domain(host, offset)
            self.domains.append(domain)
        if anchor:
            domain.raw_points.append(anchor)
        start = int(header.get("start_time") or 0)
        if start:
            domain.see_real(start)
            domain.earliest_start = start if domain.earliest_start is None else min(
                domain.earliest_start, start)
        end = int(header.get("end_time") or 0)
        if end:
            domain.see_real(end)
        # Samples all precede the end of the last file only if every file ended.
        if end and domain.finished is not None:
            domain.finished = max(domain.finished, end)
        else:
            domain.finished = None
        return domain

    def wanted(self, pid: int) -> bool:
        return self.pids is None or pid in self.pids

    def run(self, what: str = "reading") -> "Survey":
        begins: Dict[Tuple[int, int], tuple] = {}
        early_ends: Dict[Tuple[int, int], tuple] = {}
        sync_begins: Dict[Tuple[int, int], tuple] = {}
        own_marks: Set[Tuple[int, int]] = set()  # the stall marks' tokens: not shown
        sync_brackets: List[tuple] = []  # (domain, pid, addr, size, lo, hi)
        perf_mmaps: List[tuple] = []  # (domain, pid, perf ts, addr, len, pgoff, filename)
        raw_mmaps: List[tuple] = []
        real_mmaps: List[tuple] = []
        perf_forks: List[tuple] = []
        order = 0
        for index, batch in self.reading.records(what=what):
            domain = self.file_domain[index]
            for rec in batch:
                hw, event, pid = rec["hw"], rec["event"], rec["pid"]
                ts = rec["timestamp"]
                if hw == "ANNOTATION":
                    if event == "TIME_MARKER":
                        marked = time_marker_offset(rec)
                        if marked:
                            domain.raw_points.append(marked)
                        continue
                    domain.see_real(ts)
                    seen = domain.thread_real.get((pid, rec["tid"]))
                    if seen is None:
                        domain.thread_real[(pid, rec["tid"])] = [ts, ts]
                    else:
                        seen[0], seen[1] = min(seen[0], ts), max(seen[1], ts)
                    if not self.wanted(pid):
                        continue
                    self._seen(pid, rec["tid"], ts, domain)
                    if event == "BEGIN":
                        msg = rec.get("msg", "")
                        if self.own_names.learn(pid, msg):
                            own_marks.add((pid, rec["token"]))
                            continue
                        if msg.startswith(CLOCK_SYNC):
                            sync_begins[(pid, rec["token"])] = (ts, msg)
                            continue
                        if msg.startswith(PRODUCER_STALL):
                            own_marks.add((pid, rec["token"]))
                            continue
                        key = (pid, rec["token"])
                        if key in early_ends:
                            end_ts, end_tid = early_ends.pop(key)
                            self.ranges.append((pid, rec["tid"], ts, end_ts, msg, rec["token"], False, end_tid))
                        else:
                            begins[key] = (ts, rec["tid"], msg)
                    elif event == "END":
                        key = (pid, rec["token"])
                        if key in own_marks:
                            own_marks.discard(key)
                            continue
                        sync = sync_begins.pop(key, None)
                        if sync is not None:
                            parts = sync[1].split()
                            try:
                                sync_brackets.append((domain, pid, int(parts[1], 16), int(parts[2]),
                                                      sync[0], ts))
                            except (IndexError, ValueError):
                                pass
                            continue
                        begun = begins.pop(key, None)
                        if begun is None:
                            early_ends[key] = (ts, rec["tid"])
                        else:
                            self.ranges.append((pid, begun[1], begun[0], ts, begun[2], rec["token"],
                                                False, rec["tid"]))
                    elif event == "MARKER":
                        self.markers.append((pid, rec["tid"], ts, rec.get("msg", "")))
                elif hw == "CPU":
                    if event == "SAMPLE":
                        self.samples += 1
                        fid = rec.get("id", 0)
                        first = domain.first_sample.get(fid)
                        if first is None or ts < first:
                            domain.first_sample[fid] = ts
                        lo, hi = domain.sample_range
                        domain.sample_range = [ts if lo is None else min(lo, ts),
                                               ts if hi is None else max(hi, ts)]
                        if self.wanted(pid):
                            self.threads.setdefault(pid, set()).add(rec["tid"])
                            self.pids_seen.setdefault(pid, domain)
                            if self.on_sample is not None:
                                self.on_sample(index, rec)
                    elif event == "CONFIGURATION":
                        period = rec.get("period", 0) if (rec.get("perf_type"), rec.get("config")) in (
                            (1, 0), (1, 1)) else 0
                        domain.configs.append((ts, rec.get("format_id", 0), period))
                    elif event == "MMAP":
                        order += 1
                        entry = (domain, pid, ts, rec["addr"], rec["len"], rec["pgoff"],
                                 rec.get("filename", ""), order)
                        # The mappings listed at the start carry no kernel ids and
                        # the raw monotonic clock, on the process's main thread;
                        # the stack sampler's no ids and the system clock, on its
                        # own thread; the kernel's carry perf's clock.
                        if rec.get("id", 0) == 0 and rec.get("stream_id", 0) == 0:
                            (raw_mmaps if rec["tid"] == pid else real_mmaps).append(entry)
                        else:
                            perf_mmaps.append(entry)
                    elif event == "STACK":
                        # On the system clock, like an annotation.
                        self.stack_samples += 1
                        domain.see_real(ts)
                        if self.first_stack is None or ts < self.first_stack:
                            self.first_stack = ts
                        if self.wanted(pid):
                            self._seen(pid, rec["tid"], ts, domain)
                            if self.on_stack is not None:
                                self.on_stack(index, rec)
                    elif event == "PYCODE":
                        self.python_codes.add(pid, rec)
                    elif event == "APISTACK":
                        if self.keep_gpu and self.wanted(pid) and rec.get("py"):
                            self.api_python[(pid, rec["correlation"])] = tuple(
                                map(tuple, rec["py"]))
                    elif event == "EXIT":
                        domain.exits.setdefault((pid, rec["tid"]), []).append(ts)
                    elif event == "FORK":
                        domain.forks.setdefault((pid, rec["tid"]), []).append(ts)
                        if rec.get("ppid") is not None and rec["ppid"] != pid:
                            perf_forks.append((domain, ts, pid, rec["ppid"]))
                    elif event == "LOST":
                        self.lost[pid] = self.lost.get(pid, 0) + rec.get("lost", 0)
                elif hw == "GPU":
                    self._gpu(domain, rec)
        # Ranges never ended: closed at the process's last moment, and marked.
        for (pid, token), (ts, tid, msg) in begins.items():
            self.ranges.append((pid, tid, ts, None, msg, token, True, tid))
        self.unmatched_ends = len(early_ends)

        syncs = self._pair_syncs(sync_brackets, perf_mmaps)
        sync_keys = {(d, pid, addr, size) for d, pid, addr, size, _, _ in sync_brackets}
        for domain in self.domains:
            domain.settle(syncs.get(id(domain), []), self.gpu_clock)
        # Mappings, in the order they happened on the system clock.
        events = []
        for domain, pid, ts, addr, length, pgoff, filename, order in raw_mmaps:
            events.append((domain.raw_to_real(ts), 0, order, pid, addr, length, pgoff, filename))
        for domain, pid, ts, addr, length, pgoff, filename, order in real_mmaps:
            events.append((ts, 0, order, pid, addr, length, pgoff, filename))
        for domain, pid, ts, addr, length, pgoff, filename, order in perf_mmaps:
            if (domain, pid, addr, length) in sync_keys:
                continue
            events.append((domain.perf_to_real(ts), 0, order, pid, addr, length, pgoff, filename))
        for domain, ts, pid, ppid in perf_forks:
            events.append((domain.perf_to_real(ts), 1, 0, pid, ppid, 0, 0, ""))
            self.python_codes.inherit(pid, ppid)
        events.sort(key=lambda e: (e[0], e[1], e[2]))
        self.mapping_events = events
        return self

    def _seen(self, pid: int, tid: int, ts: int, domain: Domain) -> None:
        self.pids_seen.setdefault(pid, domain)
        self.threads.setdefault(pid, set()).add(tid)
        if ts > self.last_real.get(pid, 0):
            self.last_real[pid] = ts

    @staticmethod
    def _stamp(domain: Domain, ts: int) -> None:
        # Enough stamps to recognise the clock by, not all of them.
        if len(domain.gpu_stamps) < 100000:
            domain.gpu_stamps.append(ts)

    def _gpu(self, domain: Domain, rec: dict) -> None:
        event, pid = rec["event"], rec["pid"]
        if event == "KERNEL_NAME":
            table = self.names.setdefault((pid, rec.get("table", "kernel")), {})
            table.setdefault(rec.get("id", 0), rec.get("name", ""))
            return
        if not self.keep_gpu or not self.wanted(pid):
            return
        ts = rec["timestamp"]
        end = rec.get("end", ts)
        if event in ("KERNEL", "CONCURRENT_KERNEL"):
            self._stamp(domain, ts)
            device = rec.get("device_id", rec["tid"])
            args = {"grid": rec.get("grid"), "block": rec.get("block"),
                    "correlation": rec.get("correlation")}
            self.gpu_ops.append((domain, pid, device, rec.get("stream", 0), ts, end, "kernel",
                                 rec.get("name_id", 0), rec.get("correlation", 0), args))
        elif event in ("MEMCOPY", "MEMCOPY_P2P"):
            self._stamp(domain, ts)
            kind = _COPY_KINDS.get(rec.get("copy_kind", 0), "copy")
            args = {"bytes": rec.get("bytes"), "kind": kind, "correlation": rec.get("correlation")}
            if event == "MEMCOPY_P2P":
                args.update(src_device=rec.get("src_device"), dst_device=rec.get("dst_device"))
            name = "Memcpy %s (%s)" % (kind, _bytes(rec.get("bytes", 0)))
            self.gpu_ops.append((domain, pid, rec["tid"], rec.get("stream", 0), ts, end, "copy",
                                 name, rec.get("correlation", 0), args))
        elif event == "MEMSET":
            self._stamp(domain, ts)
            args = {"bytes": rec.get("bytes"), "value": rec.get("value"),
                    "correlation": rec.get("correlation")}
            name = "Memset (%s)" % _bytes(rec.get("bytes", 0))
            self.gpu_ops.append((domain, pid, rec["tid"], rec.get("stream", 0), ts, end, "memset",
                                 name, rec.get("correlation", 0), args))
        elif event == "SYNCRONIZATION":
            self.syncs.append((domain, pid, ts, end, rec.get("sync_type", 0), rec.get("stream", 0),
                               rec.get("correlation", 0)))
        elif event == "CUDA_API":
            self._stamp(domain, ts)
            self.api_calls.append((domain, pid, rec["tid"], ts, end, rec.get("cbid", 0),
                                   rec.get("domain", 0), rec.get("correlation", 0),
                                   rec.get("func_name_id", 0), tuple(rec.get("chain") or ())))
            self.threads.setdefault(pid, set()).add(rec["tid"])
            self.pids_seen.setdefault(pid, domain)

    @staticmethod
    def _pair_syncs(brackets, perf_mmaps) -> Dict[int, List[Tuple[int, int, int]]]:
        """Each clock-sync bracket with the kernel's MMAP record of the mapping made
        inside it. A mapping's address may come back in a later bracket, so pairs
        are kept only where they agree with the offset most pairs give."""
        by_key: Dict[tuple, List[int]] = {}
        for domain, pid, ts, addr, length, _, _, _ in perf_mmaps:
            by_key.setdefault((id(domain), pid, addr, length), []).append(ts)
        candidates = []
        for domain, pid, addr, size, lo, hi in brackets:
            for perf_ts in by_key.get((id(domain), pid, addr, size), ()):
                candidates.append((id(domain), (lo + hi) // 2 - perf_ts, perf_ts, lo, hi))
        result: Dict[int, List[Tuple[int, int, int]]] = {}
        for key in {c[0] for c in candidates}:
            mine = sorted((c for c in candidates if c[0] == key), key=lambda c: c[1])
            offsets = [c[1] for c in mine]
            # The densest millisecond of implied offsets.
            best, best_count = 0, 0
            for i, offset in enumerate(offsets):
                count = bisect.bisect_right(offsets, offset + 1_000_000) - i
                if count > best_count:
                    best, best_count = i, count
            centre = offsets[best]
            chosen = {}
            for _, offset, perf_ts, lo, hi in mine:
                if centre <= offset <= centre + 1_000_000:
                    chosen[perf_ts] = (perf_ts, lo, hi)
            result[key] = sorted(chosen.values())
        return result


_COPY_KINDS = {0: "unknown", 1: "HtoD", 2: "DtoH", 3: "HtoA", 4: "AtoH", 5: "AtoA", 6: "AtoD",
               7: "DtoA", 8: "DtoD", 9: "HtoH", 10: "PtoP"}


def _bytes(n: Optional[int]) -> str:
    n = n or 0
    for unit, size in (("GB", 1 << 30), ("MB", 1 << 20), ("kB", 1 << 10)):
        if n >= size:
            return "%.1f %s" % (n / size, unit)
    return "%d B" % n


def build_symbolizer(survey: Survey) -> Symbolizer:
    """Mappings in the order they happened; a forked child starts from its
    parent's."""
    here = socket.gethostname()
    local = all(d.host == here for d in survey.domains)
    symbols = Symbolizer(local=local)
    if not local:
        hosts = sorted({d.host for d in survey.domains if d.host != here})
        symbols.gaps.append("(symbols read from this machine's files; the capture was made on %s)"
                            % ", ".join(hosts))
    for _, kind, _, pid, a, b, c, filename in survey.mapping_events:
        if kind == 0:
            symbols.add_mapping(pid, a, b, c, filename)
        else:
            symbols.inherit(pid, a)
    return symbols


# ---- CUDA API names ----------------------------------------------------------------

_CBID_NAMES: Optional[Dict[int, str]] = None


def driver_call_name(cbid: int) -> str:
    """The driver function of a callback id, from CUPTI's own header where one is
    installed (NVIDIA's wheels carry it); the number otherwise."""
    global _CBID_NAMES
    if _CBID_NAMES is None:
        _CBID_NAMES = {}
        for path in _cbid_headers():
            try:
                with open(path, errors="replace") as header:
                    for line in header:
                        line = line.strip()
                        if line.startswith("CUPTI_DRIVER_TRACE_CBID_") and "=" in line:
                            name, _, value = line.partition("=")
                            name = name.strip()[len("CUPTI_DRIVER_TRACE_CBID_"):]
                            try:
                                _CBID_NAMES.setdefault(int(value.strip().rstrip(",")), name)
                            except ValueError:
                                pass
            except OSError:
                continue
            if _CBID_NAMES:
                break
    return _CBID_NAMES.get(cbid) or "CUDA driver call %d" % cbid


def _cbid_headers() -> List[str]:
    places = []
    for entry in sys.path:
        for sub in ("nvidia/cu13/include", "nvidia/cuda_cupti/include", "nvidia/cu12/include"):
            places.append(os.path.join(entry, sub, "cupti_driver_cbid.h"))
    cuda = os.environ.get("CUDA_HOME") or os.environ.get("CUDA_PATH") or "/usr/local/cuda"
    places += [os.path.join(cuda, "include", "cupti_driver_cbid.h"),
               os.path.join(cuda, "extras", "CUPTI", "include", "cupti_driver_cbid.h")]
    return [p for p in places if os.path.isfile(p)]


# ---- The trace ----------------------------------------------------------------------

GPU_PID_BASE = 1 << 30


class _Tracks:
    """Slices per track, made to nest: a slice that would cross the end of the
    one it starts in goes to an async track of its process instead, where crossing
    is allowed."""

    def __init__(self):
        self.slices: Dict[Tuple[int, int], List[tuple]] = {}
        # Ranges that end on another thread than they began: async from the start.
        self.async_slices: List[tuple] = []  # (pid, start, end, name, cat, args)

    def add(self, pid: int, tid: int, start: int, end: int, name: str, cat: str, args: dict,
            priority: int = 0):
        self.slices.setdefault((pid, tid), []).append((start, -(end - start), priority, end, name,
                                                       cat, args))

    def nested(self) -> Iterator[Tuple[int, int, tuple, bool]]:
        """(pid, tid, slice, nests) for every slice, track by track, in order."""
        for (pid, tid), slices in self.slices.items():
            slices.sort(key=lambda s: (s[0], s[1], s[2]))
            stack: List[int] = []
            for s in slices:
                start, end = s[0], s[3]
                while stack and stack[-1] <= start:
                    stack.pop()
                if stack and end > stack[-1]:
                    yield pid, tid, s, False
                    continue
                stack.append(end)
                yield pid, tid, s, True


class TraceWriter:
    def __init__(self, path: str, base: int):
        self.path = path
        self.base = base
        # Written beside its final name and moved there whole, so that a failed
        # run leaves no half trace.
        self.tmp = "%s.tmp%d" % (path, os.getpid())
        try:
            if path.endswith(".gz"):
                self.out = gzip.open(self.tmp, "wt", compresslevel=3, encoding="utf-8")
            else:
                self.out = open(self.tmp, "w", encoding="utf-8")
        except OSError as error:
            raise ViewError("%s: %s" % (path, error.strerror or error)) from None
        self.first = True
        self.count = 0

    def ts(self, ns: int) -> float:
        return round((ns - self.base) / 1000.0, 3)

    def begin(self, other: dict) -> None:
        self.out.write('{"displayTimeUnit":"ns","otherData":%s,"traceEvents":[\n'
                       % json.dumps(other, separators=(",", ":")))

    def event(self, event: dict) -> None:
        if not self.first:
            self.out.write(",\n")
        self.first = False
        self.out.write(json.dumps(event, separators=(",", ":"), ensure_ascii=False))
        self.count += 1

    def finish(self) -> None:
        self.out.write("\n]}\n")
        self.out.close()
        os.replace(self.tmp, self.path)

    def abandon(self) -> None:
        try:
            self.out.close()
        finally:
            try:
                os.unlink(self.tmp)
            except OSError:
                pass


def _profiler_frame(symbols: Symbolizer, pid: int, address: int) -> bool:
    """A frame of the profiler's own callback or of CUPTI, above the application's
    call in an API call's chain."""
    m = symbols.mapping(pid, address)
    if m is None:
        return False
    base = os.path.basename(m[3])
    return base.startswith(("_zorv", "libcupti", "libzorv_fake_cupti"))


def write_timeline(args, reading: Reading, progress: Progress) -> Tuple[str, List[str]]:
    """Writes the trace; returns the line that says what it holds, and the gaps
    in its symbols."""
    pids = set(args.pid) if args.pid else None
    survey = Survey(reading, pids=pids, gpu_clock=args.gpu_clock).run(
        "reading (1 of 2)" if args.samples else "reading")
    if pids and not survey.pids_seen:
        raise ViewError("no records of process %s in the captures" % ", ".join(map(str, sorted(pids))))
    symbols = build_symbolizer(survey)
    try:
        line = _emit(args, reading, survey, symbols, progress)
        return line, list(symbols.gaps)
    finally:
        symbols.close()


def _emit(args, reading, survey: Survey, symbols: Symbolizer, progress: Progress) -> str:
    tracks = _Tracks()
    # Annotation ranges.
    for pid, tid, start, end, msg, token, unfinished, end_tid in survey.ranges:
        if end is None:
            end = max(survey.last_real.get(pid, start), start)
        args_ = {"token": token}
        name = msg
        if unfinished:
            args_["unfinished"] = "never ended in the capture; closed at the process's last record or file end"
            name = msg + " (unfinished)"
        if end_tid != tid:
            # Begun on one thread and ended on another: no thread holds it.
            args_["ended_on_thread"] = end_tid
            tracks.async_slices.append((pid, start, end, name, "annotation", args_))
            continue
        tracks.add(pid, tid, start, end, name, "annotation", args_, priority=0)

    # Kernel and function names, per process; a forked child uses its parent's ids.
    def table_name(pid: int, table: str, ident: int) -> Optional[str]:
        found = survey.names.get((pid, table), {}).get(ident)
        if found is None:
            for (other, t), names in survey.names.items():
                if t == table and ident in names:
                    return names[ident]
        return found

    kernel_names = {}
    for op in survey.gpu_ops:
        if op[6] == "kernel":
            kernel_names[(op[1], op[7])] = table_name(op[1], "kernel", op[7])
    function_names = {}
    for call in survey.api_calls:
        function_names[(call[1], call[8])] = table_name(call[1], "function", call[8])
    readable = demangle([n for n in list(kernel_names.values()) + list(function_names.values()) if n])

    # GPU lanes: one process per (domain, device), one thread per (pid, stream).
    gpu_lanes: Dict[tuple, int] = {}
    gpu_procs: Dict[tuple, int] = {}
    lane_names: Dict[Tuple[int, int], str] = {}
    multi_host = len({d.host for d in survey.domains}) > 1
    device_pids: Dict[tuple, set] = {}
    for op in survey.gpu_ops:
        device_pids.setdefault((id(op[0]), op[2]), set()).add(op[1])
    # The Python line that launched each call's work, root first, and its leaf.
    launch_stacks: Dict[Tuple[int, int], List[str]] = {}
    for (pid, corr), frames in survey.api_python.items():
        launch_stacks[(pid, corr)] = [survey.python_codes.frame(pid, code_id, instruction)
                                      for code_id, instruction, _ in reversed(frames)]
    work_by_corr: Dict[Tuple[int, int], List[tuple]] = {}
    for op in survey.gpu_ops:
        domain, pid, device, stream, start, end, kind, name, corr, op_args = op
        key = (id(domain), device)
        if key not in gpu_procs:
            gpu_procs[key] = GPU_PID_BASE + len(gpu_procs)
            lane_names[(gpu_procs[key], -1)] = "GPU %d%s" % (device, (" (%s)" % domain.host) if multi_host else "")
        gpid = gpu_procs[key]
        lane_key = (key, pid, stream)
        if lane_key not in gpu_lanes:
            gpu_lanes[lane_key] = stream if len(device_pids[key]) == 1 else len(gpu_lanes) + 1
            label = "stream %d" % stream
            if len(device_pids[key]) > 1:
                label += " (pid %d)" % pid
            lane_names[(gpid, gpu_lanes[lane_key])] = label
        tid = gpu_lanes[lane_key]
        if kind == "kernel":
            raw_name = kernel_names.get((pid, name))
            name = readable.get(raw_name, raw_name) if raw_name else "kernel %d" % name
            if raw_name and readable.get(raw_name, raw_name) != raw_name:
                op_args = dict(op_args, mangled=raw_name)
        op_args = {k: v for k, v in op_args.items() if v is not None}
        op_args["pid"] = pid
        if (pid, corr) in launch_stacks:
            op_args["launched_from"] = launch_stacks[(pid, corr)][-1]
        s, e = domain.gpu_to_real(start), domain.gpu_to_real(max(end, start))
        tracks.add(gpid, tid, s, e, name, "gpu_" + kind, op_args)
        work_by_corr.setdefault((pid, corr), []).append((gpid, tid, s, e))

    # Driver API calls on their threads, with their call chains.
    chains = set()
    for call in survey.api_calls:
        for address in call[9]:
            if address and address < CONTEXT_MARKER_FLOOR:
                chains.add((call[1], address))
    names = symbols.frames_many(sorted(chains)) if chains else {}
    flows = []
    for domain, pid, tid, start, end, cbid, cb_domain, corr, func_id, chain in survey.api_calls:
        s, e = domain.gpu_to_real(start), domain.gpu_to_real(max(end, start))
        call_args = {"correlation": corr, "cbid": cbid}
        symbol = function_names.get((pid, func_id))
        if symbol and symbol != "Unknown":
            call_args["function"] = readable.get(symbol, symbol)
        frames = [a for a in chain if a and a < CONTEXT_MARKER_FLOOR]
        while frames and _profiler_frame(symbols, pid, frames[0]):
            frames.pop(0)
        if frames:
            call_args["stack"] = [name for a in frames
                                  for name in names.get((pid, a), ("0x%x" % a,))]
        if (pid, corr) in launch_stacks:
            call_args["python"] = launch_stacks[(pid, corr)]
            call_args["launched_from"] = launch_stacks[(pid, corr)][-1]
        name = driver_call_name(cbid) if cb_domain == 1 else "CUDA call %d.%d" % (cb_domain, cbid)
        tracks.add(pid, tid, s, e, name, "cuda_api", call_args, priority=1)
        for target in work_by_corr.get((pid, corr), ()):
            flows.append((pid, tid, s, e, target))

    # The time axis starts at the first whole second before anything shown.
    candidates = [r[2] for r in survey.ranges] + [m[2] for m in survey.markers]
    for slices in tracks.slices.values():
        candidates.extend(s[0] for s in slices)
    candidates.extend(s[1] for s in tracks.async_slices)
    if survey.first_stack is not None:
        candidates.append(survey.first_stack)
    for domain in survey.domains:
        if domain.sample_range[0] is not None:
            candidates.append(domain.perf_to_real(domain.sample_range[0]))
        if domain.earliest_start:
            candidates.append(domain.earliest_start)
    base = (min(candidates) // 1_000_000_000) * 1_000_000_000 if candidates else 0

    other = {
        "producer": "zorvek timeline",
        "time_base_realtime_ns": base,
        "time_base_utc": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(base / 1e9)),
        "clocks": [{"host": d.host, "cpu_samples": d.perf_method, "gpu": d.gpu_method}
                   for d in survey.domains],
        "files": list(reading.paths),
    }
    if survey.unmatched_ends:
        other["ends_without_begin"] = survey.unmatched_ends
    if any(survey.lost.values()):
        other["samples_lost_by_the_kernel"] = {str(p): n for p, n in sorted(survey.lost.items()) if n}
    writer = TraceWriter(args.output, base)
    try:
        writer.begin(other)
        _metadata(writer, survey, symbols, lane_names, gpu_procs)
        counts = {"slices": 0, "samples": 0, "gpu": 0, "flows": 0}
        async_id = 0
        for pid, tid, s, nests in tracks.nested():
            start, _, _, end, name, cat, a = s
            if nests:
                writer.event({"ph": "X", "name": name, "cat": cat, "pid": pid, "tid": tid,
                              "ts": writer.ts(start), "dur": round((end - start) / 1000.0, 3),
                              "args": a})
            else:
                async_id += 1
                a = dict(a, crossed="did not nest on its thread; shown on the process's async track")
                writer.event({"ph": "b", "name": name, "cat": cat, "pid": pid, "tid": tid,
                              "id": async_id, "ts": writer.ts(start), "args": a})
                writer.event({"ph": "e", "name": name, "cat": cat, "pid": pid, "tid": tid,
                              "id": async_id, "ts": writer.ts(end)})
            if cat.startswith("gpu_"):
                counts["gpu"] += 1
            else:
                counts["slices"] += 1
        for pid, start, end, name, cat, a in tracks.async_slices:
            async_id += 1
            writer.event({"ph": "b", "name": name, "cat": cat, "pid": pid, "tid": pid,
                          "id": async_id, "ts": writer.ts(start), "args": a})
            writer.event({"ph": "e", "name": name, "cat": cat, "pid": pid, "tid": pid,
                          "id": async_id, "ts": writer.ts(end)})
            counts["slices"] += 1
        for pid, tid, ts, msg in survey.markers:
            writer.event({"ph": "i", "s": "t", "name": msg, "cat": "marker", "pid": pid,
                          "tid": tid, "ts": writer.ts(ts)})
        for domain, pid, start, end, sync_type, stream, corr in survey.syncs:
            async_id += 1
            a = {"stream": stream, "correlation": corr, "type": sync_type}
            name = "CUDA synchronization"
            writer.event({"ph": "b", "name": name, "cat": "cuda_sync", "pid": pid, "tid": pid,
                          "id": async_id, "ts": writer.ts(domain.gpu_to_real(start)), "args": a})
            writer.event({"ph": "e", "name": name, "cat": "cuda_sync", "pid": pid, "tid": pid,
                          "id": async_id, "ts": writer.ts(domain.gpu_to_real(max(end, start)))})
        # Flow arrows: from the middle of the call (the deepest slice there is the
        # call) to the middle of the work it launched.
        for flow_id, (pid, tid, s, e, (gpid, gtid, gs, ge)) in enumerate(flows, 1):
            writer.event({"ph": "s", "name": "launch", "cat": "cuda_flow", "id": flow_id,
                          "pid": pid, "tid": tid, "ts": writer.ts((s + e) // 2)})
            writer.event({"ph": "f", "bp": "e", "name": "launch", "cat": "cuda_flow",
                          "id": flow_id, "pid": gpid, "tid": gtid, "ts": writer.ts((gs + ge) // 2)})
        counts["flows"] = len(flows)
        if args.samples and (survey.samples or survey.stack_samples):
            counts["samples"] = _emit_samples(writer, reading, survey, symbols)
        writer.finish()
    except BaseException:
        writer.abandon()
        raise
    progress.done()
    parts = ["%d slices" % counts["slices"], "%d CPU samples" % counts["samples"]]
    if counts["gpu"]:
        parts.append("%d GPU operations" % counts["gpu"])
    if counts["flows"]:
        parts.append("%d launch arrows" % counts["flows"])
    processes = len(survey.pids_seen)
    return "wrote %s: %d process%s, %s" % (args.output, processes, "" if processes == 1 else "es",
                                          ", ".join(parts))


def _metadata(writer: TraceWriter, survey: Survey, symbols: Symbolizer,
              lane_names: Dict[Tuple[int, int], str], gpu_procs: Dict[tuple, int]) -> None:
    multi_host = len({d.host for d in survey.domains}) > 1
    for index, (pid, domain) in enumerate(sorted(survey.pids_seen.items())):
        own = survey.own_names.process(pid)
        exe = symbols.executable(pid)
        if own:
            name = "%s (pid %d)" % (own, pid)
        else:
            name = "%s (pid %d)" % (os.path.basename(exe), pid) if exe else "process %d" % pid
        if multi_host:
            name += " on " + domain.host
        writer.event({"ph": "M", "name": "process_name", "pid": pid, "tid": pid,
                      "args": {"name": name}})
        writer.event({"ph": "M", "name": "process_sort_index", "pid": pid, "tid": pid,
                      "args": {"sort_index": index}})
        for tid in sorted(survey.threads.get(pid, ())):
            own = survey.own_names.thread(pid, tid)
            if own:
                label = "%s (%d)" % (own, tid)
            else:
                label = "main thread" if tid == pid else "thread %d" % tid
            writer.event({"ph": "M", "name": "thread_name", "pid": pid, "tid": tid,
                          "args": {"name": label}})
    for (gpid, tid), label in sorted(lane_names.items()):
        if tid == -1:
            writer.event({"ph": "M", "name": "process_name", "pid": gpid, "tid": 0,
                          "args": {"name": label}})
            writer.event({"ph": "M", "name": "process_sort_index", "pid": gpid, "tid": 0,
                          "args": {"sort_index": 100000 + gpid - GPU_PID_BASE}})
        else:
            writer.event({"ph": "M", "name": "thread_name", "pid": gpid, "tid": tid,
                          "args": {"name": label}})


def sample_frames(rec: dict) -> Tuple[int, Tuple[int, ...], bool]:
    """(pid, user frames innermost first, whether the stored chain may end in a
    pad word) of one SAMPLE record."""
    chain = rec.get("chain") or ()
    frames = user_frames(chain)
    if not frames and rec.get("ip"):
        frames = [rec["ip"]]
    padded = len(frames) > 1 and len(chain) % 2 == 0 and chain[-1] == frames[-1]
    return rec["pid"], tuple(frames), padded


def name_stacks(symbols: Symbolizer, stacks: Sequence[Tuple[int, Tuple[int, ...], bool]]
                ) -> List[List[str]]:
    """Frame names, innermost first, for many stacks with one round of questions
    to the symbolizer; a function inlined at an address is a frame of its own,
    inside the one it was inlined into. Return addresses are asked one byte
    back, inside the call that made them. A chain of an odd number of words is
    stored padded to an even number, and the pad keeps what the buffer held
    before: a last frame that lies in no mapping of its process is taken for that
    pad and left out."""
    keyed, asks = [], set()
    for pid, frames, padded in stacks:
        if padded and symbols.has_mappings(pid) and symbols.mapping(pid, frames[-1]) is None:
            frames = frames[:-1]
        keys = [(pid, a if i == 0 else a - 1) for i, a in enumerate(frames)]
        asks.update(keys)
        keyed.append(keys)
    names = symbols.frames_many(sorted(asks)) if asks else {}
    return [[name for k in keys for name in names[k]] for keys in keyed]


def sample_stacks(batch: list, survey: Survey, symbols: Symbolizer):
    """(record, frame names innermost first) for the perf samples of a batch that
    the survey wants."""
    records = [r for r in batch if r["event"] == "SAMPLE" and r["hw"] == "CPU"
               and survey.wanted(r["pid"])]
    return zip(records, name_stacks(symbols, [sample_frames(r) for r in records]))


def merged_stacks(batch: list, survey: Survey, namer: StackNamer):
    """(record, merged stack root first) for the STACK samples of a batch that the
    survey wants."""
    records = [r for r in batch if r["event"] == "STACK" and r["hw"] == "CPU"
               and survey.wanted(r["pid"])]
    return zip(records, namer.name_many([stack_key(r) for r in records]))


def sample_kinds(survey: Survey) -> List[str]:
    """The record kinds that hold the samples the survey saw (a reader that
    doesn't know STACK isn't asked for it)."""
    return ["SAMPLE"] + (["STACK"] if survey.stack_samples else [])


def _emit_samples(writer: TraceWriter, reading: Reading, survey: Survey, symbols: Symbolizer) -> int:
    """One instant event per sample on its thread; its `stack` innermost first."""
    count = 0
    namer = StackNamer(symbols, survey.python_codes)
    for index, batch in reading.records(kinds=sample_kinds(survey), what="reading (2 of 2)"):
        domain = survey.file_domain[index]
        for rec, stack in sample_stacks(batch, survey, symbols):
            leaf = stack[0] if stack else "0x%x" % rec.get("ip", 0)
            writer.event({"ph": "i", "s": "t", "name": leaf, "cat": "cpu_sample",
                          "pid": rec["pid"], "tid": rec["tid"],
                          "ts": writer.ts(domain.perf_to_real(rec["timestamp"])),
                          "args": {"stack": stack, "cpu": rec.get("device")}})
            count += 1
        for rec, merged in merged_stacks(batch, survey, namer):
            stack = list(merged[::-1])
            sample_args = {"stack": stack, "cpu": rec.get("device"), "clock": rec.get("clock"),
                           "weight_ns": rec.get("weight_ns")}
            if rec.get("waiting"):
                sample_args["waiting"] = True
            writer.event({"ph": "i", "s": "t", "name": stack[0] if stack else "[no frames]",
                          "cat": "cpu_sample", "pid": rec["pid"], "tid": rec["tid"],
                          "ts": writer.ts(rec["timestamp"]), "args": sample_args})
            count += 1
    return count


# ---- Command line ----------------------------------------------------------------------

EXAMPLES = """\
examples:
  zorvek timeline run_1234_0.zvkraw -o trace.json.gz
  zorvek timeline captures/ -o trace.json         # every .zvkraw in the folder
  zorvek timeline run_*.zvkraw --pid 1234 --no-samples

Open the file in https://ui.perfetto.dev or chrome://tracing. Times are on the
system clock, counted from the whole second before the first event (otherData
holds that second, and how each clock was placed).
"""


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.description = ("Captures as a Chrome trace-event JSON timeline: annotation ranges,\n"
                          "CPU samples with their stacks, GPU work per device and stream, CUDA\n"
                          "API calls with arrows to the work they launched.")
    parser.epilog = EXAMPLES + "\n" + exit_status_help()
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    add_files_argument(parser)
    parser.add_argument("-o", "--output", default="trace.json.gz",
                        help="trace file to write; gzip-compressed when it ends in .gz "
                             "(default: %(default)s)")
    parser.add_argument("--pid", type=int, action="append", metavar="PID",
                        help="only this process (repeatable)")
    parser.add_argument("--no-samples", dest="samples", action="store_false",
                        help="leave the CPU samples out (a smaller trace)")
    parser.add_argument("--gpu-clock", choices=("auto", "realtime", "monotonic", "raw"),
                        default="auto",
                        help="the clock CUPTI's stamps are on (default: recognised from them)")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    progress = Progress(PROG, args.progress)
    try:
        reading = Reading(args.files, progress, passes=2 if args.samples else 1)
        line, gaps = write_timeline(args, reading, progress)
    except VIEW_FAILURES as error:
        return view_failed(PROG, progress, error, args.output)
    status = reading.report_problems(PROG)
    for gap in gaps:
        sys.stderr.write("%s: %s\n" % (PROG, gap))
    sys.stderr.write("%s: %s\n" % (PROG, line))
    return status


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
