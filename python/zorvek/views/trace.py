"""The timeline model: what a trace of the captures holds, written through a
`TraceSink` (`views.sink`), whatever the output format.

What goes in: annotation ranges as slices that nest on their threads (a range
that crosses another, or ends on another thread, as an async slice; markers as
instants), CPU samples on their threads with their symbolized stacks (the stack
sampler's merged with their Python frames, `zorvek.stacks`), GPU kernels, copies
and memsets on lanes per device and stream, driver API calls as slices on the
threads that made them with launch flows to the GPU work they launched, CUDA
synchronizations, process and thread names. Several files (rotation, forked
children, other hosts) share one time axis: every clock is put on the system
clock (`views.clock`).
"""

from __future__ import annotations

import os
import time
from typing import Callable, Dict, Iterator, List, Optional, Tuple

import numpy as np

from ..stacks import StackNamer
from ..symbols import Symbolizer, demangle
from .capture import Progress, Reading, ViewError
from .samples import (CONTEXT_MARKER_FLOOR, SampleStacks, build_symbolizer, driver_call_name,
                      name_stacks, sample_kinds)
from .sink import TraceSink
from .survey import Survey

# A device's pseudo-process id: above any real pid.
GPU_PID_BASE = 1 << 30


class _Slice:
    __slots__ = ("start", "end", "priority", "name", "category", "args", "flows_out", "flows_in")

    def __init__(self, start: int, end: int, priority: int, name: str, category: str, args: dict):
        self.start, self.end, self.priority = start, end, priority
        self.name, self.category, self.args = name, category, args
        self.flows_out: List[int] = []
        self.flows_in: List[int] = []


class _Tracks:
    """Slices per track, made to nest: a slice that would cross the end of the
    one it starts in goes to an async track of its process instead, where crossing
    is allowed."""

    def __init__(self):
        self.slices: Dict[Tuple[int, int], List[_Slice]] = {}
        # Ranges that end on another thread than they began: async from the start.
        self.async_slices: List[tuple] = []  # (pid, start, end, name, cat, args)

    def add(self, pid: int, tid: int, start: int, end: int, name: str, cat: str, args: dict,
            priority: int = 0) -> _Slice:
        s = _Slice(start, end, priority, name, cat, args)
        self.slices.setdefault((pid, tid), []).append(s)
        return s

    def nested(self) -> Iterator[Tuple[int, int, _Slice, bool]]:
        """(pid, tid, slice, nests) for every slice, track by track, in order."""
        for (pid, tid), slices in self.slices.items():
            slices.sort(key=lambda s: (s.start, s.start - s.end, s.priority))
            stack: List[int] = []
            for s in slices:
                while stack and stack[-1] <= s.start:
                    stack.pop()
                if stack and s.end > stack[-1]:
                    yield pid, tid, s, False
                    continue
                stack.append(s.end)
                yield pid, tid, s, True


def _profiler_frame(symbols: Symbolizer, pid: int, address: int) -> bool:
    """A frame of the profiler's own callback or of CUPTI, above the application's
    call in an API call's chain."""
    m = symbols.mapping(pid, address)
    if m is None:
        return False
    base = os.path.basename(m[3])
    return base.startswith(("_zorv", "libcupti", "libzorv_fake_cupti"))


def write_timeline(args, reading: Reading, progress: Progress,
                   make_sink: Callable[[], TraceSink]) -> Tuple[str, List[str]]:
    """Writes the trace through the sink `make_sink` gives once the captures are
    surveyed; returns the line that says what it holds, and the gaps in its
    symbols. `args`: output, pid, samples, gpu_clock of the command line."""
    pids = set(args.pid) if args.pid else None
    survey = Survey(reading, pids=pids, gpu_clock=args.gpu_clock).run(
        "reading (1 of 2)" if args.samples else "reading")
    if pids and not survey.pids_seen:
        raise ViewError("no records of process %s in the captures" % ", ".join(map(str, sorted(pids))))
    symbols = build_symbolizer(survey)
    try:
        model = _Model(survey, symbols)
        counts = model.write(make_sink(), reading, args.samples)
    finally:
        symbols.close()
    progress.done()
    parts = ["%d slices" % counts["slices"], "%d CPU samples" % counts["samples"]]
    if counts["gpu"]:
        parts.append("%d GPU operations" % counts["gpu"])
    if counts["flows"]:
        parts.append("%d launch arrows" % counts["flows"])
    processes = len(survey.pids_seen)
    line = "wrote %s: %d process%s, %s" % (args.output, processes, "" if processes == 1 else "es",
                                           ", ".join(parts))
    return line, list(symbols.gaps)


class _Model:
    """The slices, lanes and flows of one trace, worked out from a survey."""

    def __init__(self, survey: Survey, symbols: Symbolizer):
        self.survey = survey
        self.symbols = symbols
        self.multi_host = len({d.host for d in survey.domains}) > 1
        self.tracks = _Tracks()
        # GPU lanes: one process per (domain, device), one thread per (pid, stream).
        self.gpu_procs: Dict[tuple, int] = {}
        self.lane_names: Dict[Tuple[int, int], str] = {}
        self.gpu_hosts: Dict[int, str] = {}
        self.flows = 0
        self._ranges()
        self._gpu_and_calls()

    def _ranges(self) -> None:
        survey = self.survey
        for pid, tid, start, end, msg, token, unfinished, end_tid in survey.ranges:
            if end is None:
                end = max(survey.last_real.get(pid, start), start)
            args_ = {"token": token}
            name = msg
            if unfinished:
                args_["unfinished"] = ("never ended in the capture; closed at the process's last "
                                       "record or file end")
                name = msg + " (unfinished)"
            if end_tid != tid:
                # Begun on one thread and ended on another: no thread holds it.
                args_["ended_on_thread"] = end_tid
                self.tracks.async_slices.append((pid, start, end, name, "annotation", args_))
                continue
            self.tracks.add(pid, tid, start, end, name, "annotation", args_, priority=0)

    def _table_name(self, pid: int, table: str, ident: int) -> Optional[str]:
        # Kernel and function names, per process; a forked child uses its parent's ids.
        found = self.survey.names.get((pid, table), {}).get(ident)
        if found is None:
            for (_other, t), names in self.survey.names.items():
                if t == table and ident in names:
                    return names[ident]
        return found

    def _gpu_and_calls(self) -> None:
        survey, symbols, tracks = self.survey, self.symbols, self.tracks
        kernel_names = {}
        for op in survey.gpu_ops:
            if op[6] == "kernel":
                kernel_names[(op[1], op[7])] = self._table_name(op[1], "kernel", op[7])
        function_names = {}
        for call in survey.api_calls:
            function_names[(call[1], call[8])] = self._table_name(call[1], "function", call[8])
        readable = demangle([n for n in list(kernel_names.values()) + list(function_names.values())
                             if n])

        gpu_lanes: Dict[tuple, int] = {}
        device_pids: Dict[tuple, set] = {}
        for op in survey.gpu_ops:
            device_pids.setdefault((id(op[0]), op[2]), set()).add(op[1])
        # The Python line that launched each call's work, root first (without the
        # launcher's frames), and its leaf.
        launch_stacks: Dict[Tuple[int, int], List[str]] = {}
        for (pid, corr), frames in survey.api_python.items():
            stack = survey.python_codes.stack(pid, frames)
            if stack:
                launch_stacks[(pid, corr)] = stack
        work_by_corr: Dict[Tuple[int, int], List[_Slice]] = {}
        for op in survey.gpu_ops:
            domain, pid, device, stream, start, end, kind, name, corr, op_args = op
            key = (id(domain), device)
            if key not in self.gpu_procs:
                self.gpu_procs[key] = GPU_PID_BASE + len(self.gpu_procs)
                self.lane_names[(self.gpu_procs[key], -1)] = "GPU %d" % device
                self.gpu_hosts[self.gpu_procs[key]] = domain.host
            gpid = self.gpu_procs[key]
            lane_key = (key, pid, stream)
            if lane_key not in gpu_lanes:
                gpu_lanes[lane_key] = stream if len(device_pids[key]) == 1 else len(gpu_lanes) + 1
                label = "stream %d" % stream
                if len(device_pids[key]) > 1:
                    label += " (pid %d)" % pid
                self.lane_names[(gpid, gpu_lanes[lane_key])] = label
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
            work = tracks.add(gpid, tid, s, e, name, "gpu_" + kind, op_args)
            work_by_corr.setdefault((pid, corr), []).append(work)

        # Driver API calls on their threads, with their call chains.
        chains = set()
        for call in survey.api_calls:
            for address in call[9]:
                if address and address < CONTEXT_MARKER_FLOOR:
                    chains.add((call[1], address))
        names = symbols.frames_many(sorted(chains)) if chains else {}
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
            launch = tracks.add(pid, tid, s, e, name, "cuda_api", call_args, priority=1)
            # A launch flow from the call to each piece of work it launched.
            for work in work_by_corr.get((pid, corr), ()):
                self.flows += 1
                launch.flows_out.append(self.flows)
                work.flows_in.append(self.flows)

    def base(self) -> int:
        """The time axis starts at the first whole second before anything shown."""
        survey = self.survey
        candidates = [r[2] for r in survey.ranges] + [m[2] for m in survey.markers]
        for slices in self.tracks.slices.values():
            candidates.extend(s.start for s in slices)
        candidates.extend(s[1] for s in self.tracks.async_slices)
        if survey.first_stack is not None:
            candidates.append(survey.first_stack)
        for domain in survey.domains:
            if domain.sample_range[0] is not None:
                candidates.append(domain.perf_to_real(domain.sample_range[0]))
            if domain.earliest_start:
                candidates.append(domain.earliest_start)
        return (min(candidates) // 1_000_000_000) * 1_000_000_000 if candidates else 0

    def info(self, base: int, reading: Reading) -> dict:
        survey = self.survey
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
            other["samples_lost_by_the_kernel"] = {str(p): n for p, n in sorted(survey.lost.items())
                                                   if n}
        return other

    def write(self, sink: TraceSink, reading: Reading, samples: bool) -> Dict[str, int]:
        """Everything through `sink`, finished; abandoned when anything fails.
        Returns the counts of what it holds."""
        survey = self.survey
        try:
            base = self.base()
            sink.begin(base, self.info(base, reading))
            self._names(sink)
            counts = {"slices": 0, "samples": 0, "gpu": 0, "flows": 0}
            for pid, tid, s, nests in self.tracks.nested():
                if nests:
                    sink.slice(pid, tid, s.start, s.end, s.name, s.category, s.args,
                               flows_out=s.flows_out, flows_in=s.flows_in)
                else:
                    sink.async_slice(pid, tid, s.start, s.end, s.name, s.category, dict(
                        s.args, crossed="did not nest on its thread; shown on the process's "
                                        "async track"), flows_out=s.flows_out,
                        flows_in=s.flows_in)
                if s.category.startswith("gpu_"):
                    counts["gpu"] += 1
                else:
                    counts["slices"] += 1
            for pid, start, end, name, cat, a in self.tracks.async_slices:
                sink.async_slice(pid, pid, start, end, name, cat, a)
                counts["slices"] += 1
            for pid, tid, ts, msg in survey.markers:
                sink.instant(pid, tid, ts, msg, "marker")
            for domain, pid, start, end, sync_type, stream, corr in survey.syncs:
                sink.async_slice(pid, pid, domain.gpu_to_real(start),
                                 domain.gpu_to_real(max(end, start)), "CUDA synchronization",
                                 "cuda_sync", {"stream": stream, "correlation": corr,
                                               "type": sync_type})
            counts["flows"] = self.flows
            if samples and (survey.samples or survey.stack_samples):
                counts["samples"] = self._samples(sink, reading)
            sink.finish()
        except BaseException:
            sink.abandon()
            raise
        return counts

    def _names(self, sink: TraceSink) -> None:
        survey, symbols = self.survey, self.symbols
        for index, (pid, domain) in enumerate(sorted(survey.pids_seen.items())):
            own = survey.own_names.process(pid)
            exe = symbols.executable(pid)
            if own:
                name = "%s (pid %d)" % (own, pid)
            else:
                name = "%s (pid %d)" % (os.path.basename(exe), pid) if exe else "process %d" % pid
            rank = survey.own_names.rank(pid)
            sink.process(pid, name, index, rank=rank[0] if rank else None,
                         host=domain.host if self.multi_host else None)
            for tid in sorted(survey.threads.get(pid, ())):
                own = survey.own_names.thread(pid, tid)
                if own:
                    label = "%s (%d)" % (own, tid)
                else:
                    label = "main thread" if tid == pid else "thread %d" % tid
                sink.thread(pid, tid, label)
        for (gpid, tid), label in sorted(self.lane_names.items()):
            if tid == -1:
                sink.process(gpid, label, 100000 + gpid - GPU_PID_BASE, gpu=True,
                             host=self.gpu_hosts[gpid] if self.multi_host else None)
            else:
                sink.thread(gpid, tid, label)

    def _samples(self, sink: TraceSink, reading: Reading) -> int:
        """Every sample of the wanted processes, on its thread, read in the second
        pass as columns; each distinct stack named once."""
        survey, symbols = self.survey, self.symbols
        count = 0
        namer = StackNamer(symbols, survey.python_codes)
        stacks = SampleStacks()
        chain_names: List[List[str]] = []   # by chain id, root first
        stack_names: List[List[str]] = []   # by stack id, root first
        for index, group in reading.columns(kinds=sample_kinds(survey), what="reading (2 of 2)"):
            domain = survey.file_domain[index]
            table = group.get("SAMPLE")
            if table is not None and len(table["timestamp"]):
                rows = np.nonzero(survey.wanted_rows(table["pid"]))[0]
                ids = stacks.chain_ids(table, rows)
                if len(stacks.chains) > len(chain_names):
                    new = stacks.chain_keys[len(chain_names):]
                    chain_names.extend(frames[::-1] for frames in name_stacks(symbols, new))
                to_real = domain.perf_to_real
                for pid, tid, ts, cpu, i in zip(*(table[k][rows].tolist() for k in (
                        "pid", "tid", "timestamp", "device")), ids.tolist()):
                    sink.sample(pid, tid, to_real(ts), chain_names[i], {"cpu": cpu})
                count += len(rows)
            table = group.get("STACK")
            if table is not None and len(table["timestamp"]):
                rows = np.nonzero(survey.wanted_rows(table["pid"]))[0]
                ids = stacks.stack_ids(table, rows)
                if len(stacks.stacks) > len(stack_names):
                    new = stacks.stack_keys[len(stack_names):]
                    stack_names.extend(list(merged) for merged in namer.name_many(new))
                clocks = table["clock_labels"]
                for pid, tid, ts, cpu, clock, weight, waiting, i in zip(*(table[k][rows].tolist() for k in (
                        "pid", "tid", "timestamp", "device", "clock", "weight_ns", "waiting")),
                        ids.tolist()):
                    sample_args = {"cpu": cpu, "clock": clocks[clock], "weight_ns": weight}
                    if waiting:
                        sample_args["waiting"] = True
                    sink.sample(pid, tid, ts, stack_names[i], sample_args)
                count += len(rows)
        return count
