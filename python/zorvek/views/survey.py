"""The survey: one pass over the captures that learns what the views need before
they show anything: clocks, mappings, process and thread names, annotation
ranges, GPU work and driver API calls. A view's samples come in a second pass,
once their clock is known."""

from __future__ import annotations

import bisect
from typing import Dict, Iterator, List, Optional, Tuple

import numpy as np

from .._clocksync import CLOCK_SYNC
from .._stallmark import PRODUCER_STALL
from .. import _names
from ..stacks import PythonCodes
from .capture import Reading
from .clock import Domain, header_offset, time_marker_offset
from .columns import distinct, records, starts_with, texts


class Survey:
    """Everything but the samples' stacks: clocks, mappings, names, annotation
    ranges, GPU work and API calls. The samples come in a second pass, once their
    clock is known."""

    def __init__(self, reading: Reading, *, pids: Optional[set] = None,
                 keep_gpu: bool = True,
                 gpu_clock: str = "auto", on_samples=None):
        self.reading = reading
        # Called with (file index, "SAMPLE" or "STACK", the kind's columns of a
        # group, a mask of the rows of wanted processes) where any is wanted, for
        # a view that needs no second pass.
        self.on_samples = on_samples
        self.pids = pids
        self.keep_gpu = keep_gpu
        self.gpu_clock = gpu_clock
        self.headers = [c.header for c in reading.captures]
        self.domains: List[Domain] = []
        self.file_domain: List[Domain] = []
        for header in self.headers:
            self.file_domain.append(self._domain_for(header))
        # Annotations: BEGIN and END as columns, paired once all are read; the
        # ranges as tuples (`ranges`) only when a view asks.
        self._annotations = Annotations()
        self._ranges: Optional[List[tuple]] = None
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
        # GPU work, driver API calls and synchronizations of the wanted processes
        # as columns: (file index, kind, the kind's columns of a group, its rows
        # to keep); as tuples (`gpu_ops`, `api_calls`, `syncs`) when a view asks.
        self.gpu_tables: List[Tuple[int, str, dict, np.ndarray]] = []
        self._gpu_tuples: Optional[Tuple[list, list, list]] = None
        # The Python frames of each driver API call, leaf first, by (pid, correlation).
        self.api_python: Dict[Tuple[int, int], tuple] = {}
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

    @property
    def ranges(self) -> List[tuple]:
        """(pid, tid, start, end, msg, token, unfinished, end_tid) of every range of
        the wanted processes: the ended ones in the order of their ends, then those
        never ended (end None) in the order of their begins."""
        if self._ranges is None:
            self._ranges = self._annotations.tuples()
        return self._ranges

    @property
    def gpu_ops(self) -> List[tuple]:
        """(domain, pid, device, stream, start, end, kind, name_or_id, corr, args) of
        the kernels, copies and memsets."""
        return self._gpu_records()[0]

    @property
    def api_calls(self) -> List[tuple]:
        """(domain, pid, tid, start, end, cbid, domain_id, corr, func_id, chain)."""
        return self._gpu_records()[1]

    @property
    def syncs(self) -> List[tuple]:
        """(domain, pid, start, end, sync_type, stream, corr)."""
        return self._gpu_records()[2]

    @property
    def annotations(self) -> "Annotations":
        """The ranges as columns (`Annotations`)."""
        return self._annotations

    def wanted(self, pid: int) -> bool:
        return self.pids is None or pid in self.pids

    def run(self, what: str = "reading") -> "Survey":
        """One pass over the captures, as columns: the kinds that come by the
        million (annotations, samples, GPU work) a group of rows at a time, the
        few others (mappings, code objects, names) one record at a time."""
        self._annotations = Annotations()
        self._ranges = None
        perf_mmaps: List[tuple] = []  # (domain, pid, perf ts, addr, len, pgoff, filename)
        raw_mmaps: List[tuple] = []
        real_mmaps: List[tuple] = []
        perf_forks: List[tuple] = []
        order = 0
        for index, group in self.reading.columns(what=what):
            domain = self.file_domain[index]
            spans = []
            for kind, table in group.items():
                if not len(table["timestamp"]):
                    continue
                hw = table["hw_labels"][int(table["hw"][0])]
                if kind in ("BEGIN", "END"):
                    self._annotations.add(index, kind, table)
                    spans.append(table)
                elif kind == "MARKER":
                    spans.append(table)
                    wanted = self.wanted_rows(table["pid"])
                    rows = np.arange(len(wanted))[wanted]
                    self.markers.extend(zip(*(table[k][rows].tolist() for k in (
                        "pid", "tid", "timestamp")), texts(table, "msg", rows)))
                elif kind == "TIME_MARKER":
                    for rec in records(table):
                        marked = time_marker_offset(rec)
                        if marked:
                            domain.raw_points.append(marked)
                elif kind == "SAMPLE":
                    self._perf_samples(index, domain, table)
                elif kind == "STACK":
                    self._stack_samples(index, domain, table)
                elif kind == "KERNEL_NAME":
                    for rec in records(table):
                        names = self.names.setdefault((rec["pid"], rec.get("table", "kernel")), {})
                        names.setdefault(rec.get("id", 0), rec.get("name", ""))
                elif kind in _GPU_KINDS:
                    self._gpu_columns(index, domain, kind, table)
                elif hw != "CPU":
                    continue
                elif kind == "MMAP":
                    for rec in records(table):
                        order += 1
                        pid = rec["pid"]
                        entry = (domain, pid, rec["timestamp"], rec["addr"], rec["len"],
                                 rec["pgoff"], rec.get("filename", ""), order)
                        # The mappings listed at the start carry no kernel ids and
                        # the raw monotonic clock, on the process's main thread;
                        # the stack sampler's no ids and the system clock, on its
                        # own thread; the kernel's carry perf's clock.
                        if rec.get("id", 0) == 0 and rec.get("stream_id", 0) == 0:
                            (raw_mmaps if rec["tid"] == pid else real_mmaps).append(entry)
                        else:
                            perf_mmaps.append(entry)
                elif kind in _ONE_BY_ONE:
                    for rec in records(table):
                        self._cpu_record(domain, rec, perf_forks)
            if spans:
                self._annotation_spans(domain, spans)
        sync_brackets = self._annotations.finish(self)
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

    def _cpu_record(self, domain: Domain, rec: dict, perf_forks: List[tuple]) -> None:
        event, pid, ts = rec["event"], rec["pid"], rec["timestamp"]
        if event == "CONFIGURATION":
            period = rec.get("period", 0) if (rec.get("perf_type"), rec.get("config")) in (
                (1, 0), (1, 1)) else 0
            domain.configs.append((ts, rec.get("format_id", 0), period))
        elif event == "PYCODE":
            self.python_codes.add(pid, rec)
        elif event == "APISTACK":
            if self.keep_gpu and self.wanted(pid) and rec.get("py"):
                self.api_python[(pid, rec["correlation"])] = tuple(map(tuple, rec["py"]))
        elif event == "EXIT":
            domain.exits.setdefault((pid, rec["tid"]), []).append(ts)
        elif event == "FORK":
            domain.forks.setdefault((pid, rec["tid"]), []).append(ts)
            if rec.get("ppid") is not None and rec["ppid"] != pid:
                perf_forks.append((domain, ts, pid, rec["ppid"]))
        elif event == "LOST":
            self.lost[pid] = self.lost.get(pid, 0) + rec.get("lost", 0)

    def wanted_rows(self, pids: np.ndarray) -> np.ndarray:
        """wanted() of each of a column of pids."""
        if self.pids is None:
            return np.ones(len(pids), bool)
        return np.isin(pids, np.fromiter(self.pids, np.uint64, len(self.pids)))

    def _annotation_spans(self, domain: Domain, tables: List[dict]) -> None:
        """Each thread's first and last annotation of a group (time markers aside)."""
        pid = np.concatenate([t["pid"] for t in tables])
        tid = np.concatenate([t["tid"] for t in tables])
        ts = np.concatenate([t["timestamp"] for t in tables]).astype(np.int64)
        for p, t, first, last, _ in _per_thread(pid, tid, ts):
            domain.see_real(first)
            domain.see_real(last)
            seen = domain.thread_real.get((p, t))
            if seen is None:
                domain.thread_real[(p, t)] = [first, last]
            else:
                seen[0], seen[1] = min(seen[0], first), max(seen[1], last)
            if self.wanted(p):
                self._seen(p, t, last, domain)

    def _perf_samples(self, index: int, domain: Domain, table: dict) -> None:
        """The kernel's samples of a group: counted, their clock's span and each
        event's first sample noted, their threads."""
        ts = table["timestamp"].astype(np.int64)
        self.samples += len(ts)
        ids = table["id"] if "id" in table else np.zeros(len(ts), np.uint64)
        order = np.lexsort((ts, ids))
        heads = np.concatenate([[True], ids[order][1:] != ids[order][:-1]])
        for fid, first in zip(ids[order][heads].tolist(), ts[order][heads].tolist()):
            known = domain.first_sample.get(fid)
            if known is None or first < known:
                domain.first_sample[fid] = first
        lo, hi = domain.sample_range
        low, high = int(ts.min()), int(ts.max())
        domain.sample_range = [low if lo is None else min(lo, low), high if hi is None else max(hi, high)]
        wanted = self.wanted_rows(table["pid"])
        if not wanted.any():
            return
        for p, t, _, _, _ in _per_thread(table["pid"][wanted], table["tid"][wanted], ts[wanted]):
            self.threads.setdefault(p, set()).add(t)
            self.pids_seen.setdefault(p, domain)
        if self.on_samples is not None:
            self.on_samples(index, "SAMPLE", table, wanted)

    def _stack_samples(self, index: int, domain: Domain, table: dict) -> None:
        """The stack sampler's samples of a group, on the system clock like an
        annotation."""
        ts = table["timestamp"].astype(np.int64)
        self.stack_samples += len(ts)
        positive = ts[ts > 0]
        if len(positive):
            domain.see_real(int(positive.min()))
            domain.see_real(int(positive.max()))
        first = int(ts.min())
        if self.first_stack is None or first < self.first_stack:
            self.first_stack = first
        wanted = self.wanted_rows(table["pid"])
        if not wanted.any():
            return
        for p, t, _, last, _ in _per_thread(table["pid"][wanted], table["tid"][wanted], ts[wanted]):
            self._seen(p, t, last, domain)
        if self.on_samples is not None:
            self.on_samples(index, "STACK", table, wanted)

    def _seen(self, pid: int, tid: int, ts: int, domain: Domain) -> None:
        self.pids_seen.setdefault(pid, domain)
        self.threads.setdefault(pid, set()).add(tid)
        if ts > self.last_real.get(pid, 0):
            self.last_real[pid] = ts

    def _gpu_columns(self, index: int, domain: Domain, kind: str, table: dict) -> None:
        """A group's GPU work, calls or synchronizations of one kind, kept as columns."""
        if not self.keep_gpu:
            return
        rows = np.nonzero(self.wanted_rows(table["pid"]))[0]
        if not len(rows):
            return
        if kind != "SYNCRONIZATION":
            # Enough stamps to recognise the clock by, not all of them.
            room = 100000 - len(domain.gpu_stamps)
            if room > 0:
                domain.gpu_stamps.extend(table["timestamp"][rows[:room]].tolist())
        if kind == "CUDA_API":
            for pid, tid, _, _, _ in _per_thread(table["pid"][rows], table["tid"][rows],
                                                 table["timestamp"][rows]):
                self.threads.setdefault(pid, set()).add(tid)
                self.pids_seen.setdefault(pid, domain)
        self.gpu_tables.append((index, kind, table, rows))
        self._gpu_tuples = None

    def _gpu_records(self) -> Tuple[list, list, list]:
        """The GPU columns as tuples, in the order of their times on each clock (a
        group's columns come kind by kind, not in the order of the records)."""
        if self._gpu_tuples is None:
            ops: List[tuple] = []
            calls: List[tuple] = []
            syncs: List[tuple] = []
            for index, _kind, table, rows in self.gpu_tables:
                domain = self.file_domain[index]
                for rec in records(table, rows):
                    self._gpu(domain, rec, ops, calls, syncs)
            clocks = {id(domain): i for i, domain in enumerate(self.domains)}
            ops.sort(key=lambda op: (clocks[id(op[0])], op[4]))
            calls.sort(key=lambda call: (clocks[id(call[0])], call[3]))
            syncs.sort(key=lambda sync: (clocks[id(sync[0])], sync[2]))
            self._gpu_tuples = (ops, calls, syncs)
        return self._gpu_tuples

    @staticmethod
    def _gpu(domain: Domain, rec: dict, ops: list, calls: list, syncs: list) -> None:
        event, pid = rec["event"], rec["pid"]
        ts = rec["timestamp"]
        end = rec.get("end", ts)
        if event in ("KERNEL", "CONCURRENT_KERNEL"):
            device = rec.get("device_id", rec["tid"])
            args = {"grid": rec.get("grid"), "block": rec.get("block"),
                    "correlation": rec.get("correlation")}
            ops.append((domain, pid, device, rec.get("stream", 0), ts, end, "kernel",
                        rec.get("name_id", 0), rec.get("correlation", 0), args))
        elif event in ("MEMCOPY", "MEMCOPY_P2P"):
            kind = COPY_KINDS.get(rec.get("copy_kind", 0), "copy")
            args = {"bytes": rec.get("bytes"), "kind": kind, "correlation": rec.get("correlation")}
            if event == "MEMCOPY_P2P":
                args.update(src_device=rec.get("src_device"), dst_device=rec.get("dst_device"))
            name = "Memcpy %s (%s)" % (kind, _bytes(rec.get("bytes", 0)))
            ops.append((domain, pid, rec["tid"], rec.get("stream", 0), ts, end, "copy",
                        name, rec.get("correlation", 0), args))
        elif event == "MEMSET":
            args = {"bytes": rec.get("bytes"), "value": rec.get("value"),
                    "correlation": rec.get("correlation")}
            name = "Memset (%s)" % _bytes(rec.get("bytes", 0))
            ops.append((domain, pid, rec["tid"], rec.get("stream", 0), ts, end, "memset",
                        name, rec.get("correlation", 0), args))
        elif event == "SYNCRONIZATION":
            syncs.append((domain, pid, ts, end, rec.get("sync_type", 0), rec.get("stream", 0),
                          rec.get("correlation", 0)))
        elif event == "CUDA_API":
            calls.append((domain, pid, rec["tid"], ts, end, rec.get("cbid", 0),
                          rec.get("domain", 0), rec.get("correlation", 0),
                          rec.get("func_name_id", 0), tuple(rec.get("chain") or ())))

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


COPY_KINDS = {0: "unknown", 1: "HtoD", 2: "DtoH", 3: "HtoA", 4: "AtoH", 5: "AtoA", 6: "AtoD",
               7: "DtoA", 8: "DtoD", 9: "HtoH", 10: "PtoP"}


def _bytes(n: Optional[int]) -> str:
    n = n or 0
    for unit, size in (("GB", 1 << 30), ("MB", 1 << 20), ("kB", 1 << 10)):
        if n >= size:
            return "%.1f %s" % (n / size, unit)
    return "%d B" % n


def _per_thread(pid: np.ndarray, tid: np.ndarray, ts: np.ndarray
                ) -> Iterator[Tuple[int, int, int, int, int]]:
    """(pid, tid, first time, last time, rows) per thread of columns."""
    if not len(pid):
        return iter(())
    order = np.lexsort((ts, tid, pid))
    p, t, s = pid[order], tid[order], ts[order]
    heads = np.nonzero(np.concatenate([[True], (p[1:] != p[:-1]) | (t[1:] != t[:-1])]))[0]
    tails = np.concatenate([heads[1:], [len(p)]]) - 1
    return zip(p[heads].tolist(), t[heads].tolist(), s[heads].tolist(), s[tails].tolist(),
               (tails - heads + 1).tolist())


# The marks zorvek itself leaves in annotations (names, ranks, clock syncs,
# producer stalls) all start so.
_OWN_MARK = b"zorvek."
_ONE_BY_ONE = ("CONFIGURATION", "PYCODE", "APISTACK", "EXIT", "FORK", "LOST")
_GPU_KINDS = ("KERNEL", "CONCURRENT_KERNEL", "MEMCOPY", "MEMCOPY_P2P", "MEMSET", "SYNCRONIZATION",
              "CUDA_API")


class Annotations:
    """The BEGIN and END records of a reading as columns, paired by (pid, token)
    in C++ once all are read. zorvek's own marks among them (a few: names, ranks,
    clock syncs, producer stalls) are read one by one; all other begins of the
    wanted processes are ranges: `whole` (begun and ended) and `open` (never
    ended) index the begins, `end_of_begin` their ends, `lone` the ends of wanted
    processes that nothing begun here ends."""

    _FIELDS = (("file", None), ("pid", "pid"), ("tid", "tid"), ("ts", "timestamp"),
               ("token", "token"))

    def __init__(self) -> None:
        self._parts: Dict[str, Dict[str, list]] = {
            kind: {key: [] for key, _ in self._FIELDS} for kind in ("BEGIN", "END")}
        self._msgs: List[np.ndarray] = []
        self._msg_offsets: List[np.ndarray] = []
        self._msg_size = 0
        self.begins: Dict[str, np.ndarray] = {}
        self.ends: Dict[str, np.ndarray] = {}
        self.msg = np.zeros(0, np.uint8)
        self.msg_offsets = np.zeros(1, np.int64)
        empty = np.zeros(0, np.int64)
        self.end_of_begin, self.begin_of_end = empty, empty
        self.whole, self.open, self.lone = empty, empty, empty

    def add(self, index: int, kind: str, table: dict) -> None:
        whole = table["decoded"]
        every = bool(whole.all())
        count = len(whole) if every else int(whole.sum())
        parts = self._parts[kind]
        for key, field in self._FIELDS:
            parts[key].append(np.full(count, index, np.int64) if field is None
                              else table[field] if every else table[field][whole])
        if kind != "BEGIN":
            return
        offsets = table["msg_offsets"].astype(np.int64)
        if every:
            self._msgs.append(table["msg"][offsets[0]:offsets[-1]])
            self._msg_offsets.append(self._msg_size + offsets[1:] - offsets[0])
            self._msg_size += int(offsets[-1] - offsets[0])
            return
        rows = np.nonzero(whole)[0]
        lo, hi = offsets[rows], offsets[rows + 1]
        lengths = hi - lo
        within = np.arange(int(lengths.sum()), dtype=np.int64) - np.repeat(
            np.cumsum(lengths) - lengths, lengths)
        self._msgs.append(table["msg"][np.repeat(lo, lengths) + within])
        self._msg_offsets.append(self._msg_size + np.cumsum(lengths))
        self._msg_size += int(lengths.sum())

    def finish(self, survey: "Survey") -> List[tuple]:
        """Pairs what was read, reads zorvek's own marks into `survey` (names and
        ranks, for every process), and returns the clock-sync brackets (domain,
        pid, addr, size, begin, end) of the wanted processes."""
        from .._reader import pair_annotations

        for kind, target in (("BEGIN", self.begins), ("END", self.ends)):
            for key, parts in self._parts[kind].items():
                dtype = np.int64 if key in ("file", "ts") else np.uint64
                # Every field is eight bytes wide: times become signed in place.
                target[key] = np.concatenate(parts).view(dtype) if parts else np.zeros(0, dtype)
        self._parts = {}
        self.msg = np.concatenate(self._msgs) if self._msgs else np.zeros(0, np.uint8)
        self.msg_offsets = np.concatenate([np.zeros(1, np.int64)] + self._msg_offsets)
        self._msgs, self._msg_offsets = [], []
        b, e = self.begins, self.ends
        self.end_of_begin, self.begin_of_end = pair_annotations(b["pid"], b["token"], e["pid"],
                                                                e["token"])
        wanted_begin = survey.wanted_rows(b["pid"])
        wanted_end = survey.wanted_rows(e["pid"])
        table = {"msg": self.msg, "msg_offsets": self.msg_offsets}
        own = np.nonzero(starts_with(table, "msg", _OWN_MARK))[0]
        marks = np.zeros(len(b["pid"]), bool)
        brackets = []
        files = survey.file_domain
        for i, msg in zip(own.tolist(), texts(table, "msg", own)):
            pid = int(b["pid"][i])
            domain = files[int(b["file"][i])]
            if survey.own_names.learn(pid, msg):
                survey.reading.runs.process(domain.host, pid, survey.own_names.parent(pid))
                marks[i] = True
            elif not wanted_begin[i]:
                continue
            elif msg.startswith(CLOCK_SYNC):
                marks[i] = True
                end = int(self.end_of_begin[i])
                if end < 0:
                    continue
                parts = msg.split()
                try:
                    brackets.append((files[int(e["file"][end])], pid, int(parts[1], 16),
                                     int(parts[2]), int(b["ts"][i]), int(e["ts"][end])))
                except (IndexError, ValueError):
                    pass
            elif msg.startswith(PRODUCER_STALL):
                marks[i] = True
        ranges = wanted_begin & ~marks
        ended = self.end_of_begin >= 0
        whole = np.nonzero(ranges & ended)[0]
        # The ended ones in the order of their ends, as they were read.
        self.whole = whole[np.argsort(self.end_of_begin[whole], kind="stable")]
        self.open = np.nonzero(ranges & ~ended)[0]
        lone = np.nonzero(wanted_end & (self.begin_of_end < 0))[0]
        self.lone = lone
        if len(lone):
            first, _ = distinct([e["pid"][lone], e["token"][lone]])
            survey.unmatched_ends = len(first)
        else:
            survey.unmatched_ends = 0
        return brackets

    def names(self, rows: np.ndarray) -> List[str]:
        """The names of the begins `rows` indexes."""
        return texts({"msg": self.msg, "msg_offsets": self.msg_offsets}, "msg", rows)

    def tuples(self) -> List[tuple]:
        b, e = self.begins, self.ends
        whole, opened = self.whole, self.open
        ends = self.end_of_begin[whole]
        out = list(zip(*(b[key][whole].tolist() for key in ("pid", "tid", "ts")),
                       e["ts"][ends].tolist(), self.names(whole), b["token"][whole].tolist(),
                       [False] * len(whole), e["tid"][ends].tolist()))
        tids = b["tid"][opened].tolist()
        out.extend(zip(b["pid"][opened].tolist(), tids, b["ts"][opened].tolist(),
                       [None] * len(opened), self.names(opened), b["token"][opened].tolist(),
                       [True] * len(opened), tids))
        return out
