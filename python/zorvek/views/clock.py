"""The clock model: every clock of a capture put on the system clock, so that
several files (rotation, forked children, other hosts) share one time axis.

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

import bisect
import socket
import statistics
import time
from typing import Dict, Iterable, List, Optional, Tuple


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
