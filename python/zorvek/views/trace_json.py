"""The timeline as a Chrome trace-event JSON file, for the Perfetto UI and
chrome://tracing: slices as complete (`X`) events, async slices as `b`/`e`
pairs, markers as instants, launch flows as `s`/`f` pairs, names as metadata
(`M`), samples as instants whose `args.stack` is innermost first. Times are
microseconds from the trace's base; `otherData` holds the base and the rest of
what the trace says of itself. Gzip-compressed when the name ends in `.gz`."""

from __future__ import annotations

import json
from typing import Any, Dict, Optional, Sequence

from .output import AtomicFile
from .sink import TraceSink


class JsonTraceWriter(TraceSink):
    """The trace-event JSON written to `path`, event by event."""

    def __init__(self, path: str):
        self.path = path
        self.base = 0
        self.output = AtomicFile(path, gzipped=path.endswith(".gz"))
        self.out = self.output.file
        self.first = True
        self.async_id = 0
        # Where each flow starts and ends: the middle of the call, the middle of
        # the work it launched.
        self.flow_ends: Dict[int, tuple] = {}

    def _ts(self, ns: int) -> float:
        return round((ns - self.base) / 1000.0, 3)

    def _event(self, event: dict) -> None:
        if not self.first:
            self.out.write(",\n")
        self.first = False
        self.out.write(json.dumps(event, separators=(",", ":"), ensure_ascii=False))

    def begin(self, base_ns: int, info: Dict[str, Any]) -> None:
        self.base = base_ns
        self.out.write('{"displayTimeUnit":"ns","otherData":%s,"traceEvents":[\n'
                       % json.dumps(info, separators=(",", ":")))

    def process(self, pid: int, name: str, sort_index: int, *, gpu: bool = False,
                rank: Optional[int] = None, host: Optional[str] = None) -> None:
        if host:
            name += (" (%s)" if gpu else " on %s") % host
        tid = 0 if gpu else pid
        self._event({"ph": "M", "name": "process_name", "pid": pid, "tid": tid,
                     "args": {"name": name}})
        self._event({"ph": "M", "name": "process_sort_index", "pid": pid, "tid": tid,
                     "args": {"sort_index": sort_index}})

    def thread(self, pid: int, tid: int, name: str) -> None:
        self._event({"ph": "M", "name": "thread_name", "pid": pid, "tid": tid,
                     "args": {"name": name}})

    def slice(self, pid: int, tid: int, start_ns: int, end_ns: int, name: str, category: str,
              args: Dict[str, Any], flows_out: Sequence[int] = (),
              flows_in: Sequence[int] = ()) -> None:
        self._event({"ph": "X", "name": name, "cat": category, "pid": pid, "tid": tid,
                     "ts": self._ts(start_ns), "dur": round((end_ns - start_ns) / 1000.0, 3),
                     "args": args})
        self._flows(pid, tid, (start_ns + end_ns) // 2, flows_out, flows_in)

    def _flows(self, pid: int, tid: int, middle: int, flows_out: Sequence[int],
               flows_in: Sequence[int]) -> None:
        for flow_id in flows_out:
            self._flow_end(flow_id, "s", pid, tid, middle)
        for flow_id in flows_in:
            self._flow_end(flow_id, "f", pid, tid, middle)

    def _flow_end(self, flow_id: int, end: str, pid: int, tid: int, ts: int) -> None:
        # Both ends are written together, the start first, once both are known
        # (the deepest slice at the start is the call, the one enclosing the
        # finish the work).
        other = self.flow_ends.pop(flow_id, None)
        if other is None:
            self.flow_ends[flow_id] = (end, pid, tid, ts)
            return
        ends = sorted([other, (end, pid, tid, ts)], key=lambda e: e[0] != "s")
        for kind, p, t, at in ends:
            event: Dict[str, Any] = {"ph": kind}
            if kind == "f":
                event["bp"] = "e"
            event.update(name="launch", cat="cuda_flow", id=flow_id, pid=p, tid=t, ts=self._ts(at))
            self._event(event)

    def async_slice(self, pid: int, tid: int, start_ns: int, end_ns: int, name: str,
                    category: str, args: Dict[str, Any], flows_out: Sequence[int] = (),
                    flows_in: Sequence[int] = ()) -> None:
        self.async_id += 1
        self._event({"ph": "b", "name": name, "cat": category, "pid": pid, "tid": tid,
                     "id": self.async_id, "ts": self._ts(start_ns), "args": args})
        self._event({"ph": "e", "name": name, "cat": category, "pid": pid, "tid": tid,
                     "id": self.async_id, "ts": self._ts(end_ns)})
        self._flows(pid, tid, (start_ns + end_ns) // 2, flows_out, flows_in)

    def instant(self, pid: int, tid: int, ts_ns: int, name: str, category: str) -> None:
        self._event({"ph": "i", "s": "t", "name": name, "cat": category, "pid": pid,
                     "tid": tid, "ts": self._ts(ts_ns)})

    def sample(self, pid: int, tid: int, ts_ns: int, stack: Sequence[str],
               args: Dict[str, Any]) -> None:
        innermost_first = list(stack[::-1])
        self._event({"ph": "i", "s": "t",
                     "name": innermost_first[0] if innermost_first else "[no frames]",
                     "cat": "cpu_sample", "pid": pid, "tid": tid, "ts": self._ts(ts_ns),
                     "args": dict({"stack": innermost_first}, **args)})

    def finish(self) -> None:
        self.out.write("\n]}\n")
        self.output.commit()

    def abandon(self) -> None:
        self.output.abandon()
