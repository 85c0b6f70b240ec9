"""The survey: one pass over the captures that learns what the views need before
they show anything: clocks, mappings, process and thread names, annotation
ranges, GPU work and driver API calls. A view's samples come in a second pass,
once their clock is known."""

from __future__ import annotations

import bisect
from typing import Dict, List, Optional, Set, Tuple

from .._clocksync import CLOCK_SYNC
from .._stallmark import PRODUCER_STALL
from .. import _names
from ..stacks import PythonCodes
from .capture import Reading
from .clock import Domain, header_offset, time_marker_offset


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
                    wanted = self.wanted(pid)
                    if wanted:
                        self._seen(pid, rec["tid"], ts, domain)
                    # Every process's name marks, wanted or not: they tell which
                    # run a process belongs to.
                    if event == "BEGIN" and self.own_names.learn(pid, rec.get("msg", "")):
                        if wanted:
                            own_marks.add((pid, rec["token"]))
                        self.reading.runs.process(domain.host, pid, self.own_names.parent(pid))
                        continue
                    if not wanted:
                        continue
                    if event == "BEGIN":
                        msg = rec.get("msg", "")
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
        for pid, domain in self.pids_seen.items():
            self.reading.runs.process(domain.host, pid)
        return self

    def see_thread_span(self, index: int, pid: int, tid: int, first: int, last: int) -> None:
        """A thread's annotations read apart from the survey's pass (a reader of
        columns pairs its ranges itself), between `first` and `last` on the system
        clock, in the file `index`: what the survey would have learned from them
        but the ranges."""
        domain = self.file_domain[index]
        domain.see_real(first)
        domain.see_real(last)
        seen = domain.thread_real.get((pid, tid))
        if seen is None:
            domain.thread_real[(pid, tid)] = [first, last]
        else:
            seen[0], seen[1] = min(seen[0], first), max(seen[1], last)
        if self.wanted(pid):
            self._seen(pid, tid, last, domain)

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
