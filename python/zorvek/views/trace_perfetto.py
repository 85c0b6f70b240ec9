"""The timeline as Perfetto's own protobuf trace (`.pftrace`).

The file is a stream of `TracePacket` records, each written as field 1 of the
`Trace` message (a tag, a length, the packet), one at a time, all on one packet
sequence. The first packet clears the sequence's incremental state; every later
one needs it. Names, categories, argument names and strings, frames, callstacks
and mappings are interned: defined once in a packet's `interned_data`, before
the first packet that uses them, then named by their id.

Times are nanoseconds on the system clock: a clock snapshot makes it the trace's
own clock. Slice events, most of a trace's packets, are written in time order on
a clock of the sequence's own that counts from the packet before (the sequence's
default clock), so each carries a short delta instead of a whole time stamp;
samples and instants carry the system clock's time.

- A process is a track with its process descriptor; a thread a track with its
  thread descriptor. A device is a plain track named as the model names it
  ("GPU 0"), and each of its streams a child track ("stream 7").
- What the trace says of itself (files, clocks, losses) is the arguments of an
  instant at its start, on a track of its own.
- Slices are kept until `finish`, then written as begin and end events on their
  thread's track, in time order, each track's in nesting order (Perfetto closes
  the innermost open slice at an end, and orders events of one time as they
  stand in the file).
  Launch flows are flow ids on the begin events.
- Async slices, and any slice that does not nest after all, go to child tracks of
  the process, as many as the most that overlap at one moment.
- CPU samples are `perf_sample` packets with an interned callstack, from which
  the Perfetto UI draws a flame graph of any selected range. A Python frame
  `qualname (file.py:line)` becomes the function `qualname (file.py)` at that
  line of that file, so that one function is one node of the graph.
"""

from __future__ import annotations

import heapq
import re
from typing import Any, Dict, Hashable, List, Optional, Sequence, Tuple

from perfetto.protos.perfetto.trace import perfetto_trace_pb2 as pb

from ..stacks import WAITING
from .output import AtomicFile
from .sink import TraceSink

__all__ = ["PerfettoTraceWriter"]

_SEQUENCE = 1
_CLEARED = pb.TracePacket.SEQ_INCREMENTAL_STATE_CLEARED
_NEEDS = pb.TracePacket.SEQ_NEEDS_INCREMENTAL_STATE
_REALTIME = pb.BUILTIN_CLOCK_REALTIME
# The sequence's own clock for slice events: incremental, so a packet holds the
# time since the one before it. Ids 64 to 127 are a sequence's own.
_SLICE_CLOCK = 64
_BEGIN = pb.TrackEvent.TYPE_SLICE_BEGIN
_END = pb.TrackEvent.TYPE_SLICE_END
_INSTANT = pb.TrackEvent.TYPE_INSTANT
_U64 = (1 << 64) - 1
_I64_MIN, _I64_MAX = -(1 << 63), (1 << 63) - 1

_PYTHON_FRAME = re.compile(r"^(.*) \(([^()]+):(\d+)\)$")
_NO_FRAMES = "[no frames]"
_PYTHON_MAPPING, _NATIVE_MAPPING = "[python]", "[native]"


def _varint(value: int) -> bytes:
    out = bytearray()
    while value > 0x7F:
        out.append((value & 0x7F) | 0x80)
        value >>= 7
    out.append(value)
    return bytes(out)


class _Interned:
    """One interning table of the sequence: ids from 1, and the entries that
    the next packet must define."""

    def __init__(self, field: str, make):
        self.field = field
        self.make = make
        self.ids: Dict[Hashable, int] = {}
        self.pending: List[Tuple[int, Any]] = []

    def get(self, key: Hashable, value: Any = None) -> int:
        iid = self.ids.get(key)
        if iid is None:
            iid = self.ids[key] = len(self.ids) + 1
            self.pending.append((iid, key if value is None else value))
        return iid

    def flush(self, interned: "pb.InternedData") -> None:
        entries = getattr(interned, self.field)
        for iid, value in self.pending:
            self.make(entries.add(), iid, value)
        self.pending.clear()


def _named(entry, iid: int, name: str) -> None:
    entry.iid = iid
    entry.name = name


def _string(entry, iid: int, text: str) -> None:
    entry.iid = iid
    entry.str = text.encode("utf-8", "replace")


def _frame(entry, iid: int, value: Tuple[int, int, int, int]) -> None:
    function, mapping, path, line = value
    entry.iid = iid
    entry.function_name_id = function
    entry.mapping_id = mapping
    # A frame of its own for each iid: frames are told apart by their pc.
    entry.rel_pc = iid
    if path:
        entry.source_path_iid = path
        entry.line_number = line


def _callstack(entry, iid: int, frames: Tuple[int, ...]) -> None:
    entry.iid = iid
    entry.frame_ids.extend(frames)


def _mapping(entry, iid: int, path: int) -> None:
    entry.iid = iid
    entry.path_string_ids.append(path)


class _Track:
    """A thread's track: its uuid, its process, and the slices given for it."""

    __slots__ = ("uuid", "pid", "slices")

    def __init__(self, uuid: int, pid: int):
        self.uuid = uuid
        self.pid = pid
        self.slices: List[tuple] = []


class PerfettoTraceWriter(TraceSink):
    """Writes the calls of the timeline model to `path` as a Perfetto trace."""

    def __init__(self, path: str):
        self.path = path
        self.output = AtomicFile(path, binary=True)
        self.out = self.output.file
        self.first = True
        self.slice_clock = 0   # the slice clock's time: the last slice event's
        self.next_uuid = 1
        self.processes: Dict[int, int] = {}       # pid -> track uuid
        self.gpu_pids: set = set()
        self.threads: Dict[Tuple[int, int], _Track] = {}
        self.async_slices: Dict[int, List[tuple]] = {}   # pid -> slices
        self.names = _Interned("event_names", _named)
        self.categories = _Interned("event_categories", _named)
        self.arg_names = _Interned("debug_annotation_names", _named)
        self.arg_strings = _Interned("debug_annotation_string_values", _string)
        self.functions = _Interned("function_names", _string)
        self.source_paths = _Interned("source_paths", _string)
        self.mapping_paths = _Interned("mapping_paths", _string)
        self.mappings = _Interned("mappings", _mapping)
        self.frames = _Interned("frames", _frame)
        self.callstacks = _Interned("callstacks", _callstack)
        # Defined before what refers to them, in the same packet.
        self.tables = (self.names, self.categories, self.arg_names, self.arg_strings,
                       self.functions, self.source_paths, self.mapping_paths, self.mappings,
                       self.frames, self.callstacks)

    # ---- Packets ----

    def _packet(self) -> "pb.TracePacket":
        packet = pb.TracePacket()
        packet.trusted_packet_sequence_id = _SEQUENCE
        if self.first:
            packet.sequence_flags = _CLEARED
            packet.first_packet_on_sequence = True
            self.first = False
        else:
            packet.sequence_flags = _NEEDS
        return packet

    def _write(self, packet: "pb.TracePacket") -> None:
        if any(table.pending for table in self.tables):
            interned = packet.interned_data
            for table in self.tables:
                if table.pending:
                    table.flush(interned)
        data = packet.SerializeToString()
        self.out.write(b"\x0a" + _varint(len(data)) + data)

    def _uuid(self) -> int:
        uuid = self.next_uuid
        self.next_uuid += 1
        return uuid

    # ---- Tracks ----

    def begin(self, base_ns: int, info: Dict[str, Any]) -> None:
        packet = self._packet()
        packet.trace_packet_defaults.timestamp_clock_id = _SLICE_CLOCK
        self._write(packet)
        # The system clock is the trace's clock; the slice clock starts at the
        # base, on the same scale, so its times are the system clock's.
        self.slice_clock = max(base_ns, 0)
        packet = self._packet()
        snapshot = packet.clock_snapshot
        snapshot.primary_trace_clock = _REALTIME
        clock = snapshot.clocks.add()
        clock.clock_id = _REALTIME
        clock.timestamp = self.slice_clock
        clock = snapshot.clocks.add()
        clock.clock_id = _SLICE_CLOCK
        clock.timestamp = self.slice_clock
        clock.is_incremental = True
        self._write(packet)
        # What the trace says of itself: an instant at its start on a track of its own.
        packet = self._packet()
        uuid = self._uuid()
        packet.track_descriptor.uuid = uuid
        packet.track_descriptor.name = "zorvek"
        self._write(packet)
        packet = self._packet()
        packet.timestamp = max(base_ns, 0)
        packet.timestamp_clock_id = _REALTIME
        event = packet.track_event
        event.type = _INSTANT
        event.track_uuid = uuid
        event.name_iid = self.names.get("capture")
        event.category_iids.append(self.categories.get("zorvek"))
        self._annotate(event.debug_annotations, info)
        self._write(packet)

    def process(self, pid: int, name: str, sort_index: int, *, gpu: bool = False,
                rank: Optional[int] = None, host: Optional[str] = None) -> None:
        if pid in self.processes:
            return
        uuid = self.processes[pid] = self._uuid()
        packet = self._packet()
        track = packet.track_descriptor
        track.uuid = uuid
        if host:
            name += (" (%s)" if gpu else " on %s") % host
        if gpu:
            # A device: its streams are ordered by number, not by name.
            self.gpu_pids.add(pid)
            track.name = name
            track.child_ordering = pb.TrackDescriptor.EXPLICIT
        else:
            if rank is not None and ("rank %d" % rank) not in name:
                name = "%s [rank %d]" % (name, rank)
            track.process.pid = pid
            track.process.process_name = name
            if rank is not None:
                track.process.process_labels.append("rank=%d" % rank)
            if host:
                track.process.process_labels.append("host=%s" % host)
        self._write(packet)

    def thread(self, pid: int, tid: int, name: str) -> None:
        if (pid, tid) in self.threads:
            return
        if pid not in self.processes:
            self.process(pid, "process %d" % pid, 0)
        track = self.threads[(pid, tid)] = _Track(self._uuid(), pid)
        packet = self._packet()
        descriptor = packet.track_descriptor
        descriptor.uuid = track.uuid
        if pid in self.gpu_pids:
            descriptor.parent_uuid = self.processes[pid]
            descriptor.name = name
            descriptor.sibling_order_rank = max(min(tid, (1 << 31) - 1), -(1 << 31))
        else:
            descriptor.thread.pid = pid
            descriptor.thread.tid = tid
            descriptor.thread.thread_name = name
        self._write(packet)

    def _track(self, pid: int, tid: int) -> _Track:
        track = self.threads.get((pid, tid))
        if track is None:
            self.thread(pid, tid, "main thread" if tid == pid else "thread %d" % tid)
            track = self.threads[(pid, tid)]
        return track

    # ---- Events ----

    def slice(self, pid: int, tid: int, start_ns: int, end_ns: int, name: str, category: str,
              args: Dict[str, Any], flows_out: Sequence[int] = (),
              flows_in: Sequence[int] = ()) -> None:
        slices = self._track(pid, tid).slices
        slices.append((start_ns, -max(end_ns - start_ns, 0), len(slices), max(end_ns, start_ns),
                       name, category, args, tuple(flows_out), tuple(flows_in)))

    def async_slice(self, pid: int, tid: int, start_ns: int, end_ns: int, name: str,
                    category: str, args: Dict[str, Any], flows_out: Sequence[int] = (),
                    flows_in: Sequence[int] = ()) -> None:
        if tid != pid:
            self._track(pid, tid)
        elif pid not in self.processes:
            self.process(pid, "process %d" % pid, 0)
        self.async_slices.setdefault(pid, []).append(
            (start_ns, max(end_ns, start_ns), name, category, args, tuple(flows_out),
             tuple(flows_in)))

    def instant(self, pid: int, tid: int, ts_ns: int, name: str, category: str) -> None:
        track = self._track(pid, tid)
        packet = self._packet()
        packet.timestamp = max(ts_ns, 0)
        packet.timestamp_clock_id = _REALTIME
        event = packet.track_event
        event.type = _INSTANT
        event.track_uuid = track.uuid
        event.name_iid = self.names.get(name)
        event.category_iids.append(self.categories.get(category))
        self._write(packet)

    def sample(self, pid: int, tid: int, ts_ns: int, stack: Sequence[str],
               args: Dict[str, Any]) -> None:
        if (pid, tid) not in self.threads:
            self._track(pid, tid)
        frames = list(stack) or [_NO_FRAMES]
        if args.get("waiting") and frames[-1] != WAITING:
            frames.append(WAITING)
        packet = self._packet()
        packet.timestamp = max(ts_ns, 0)
        packet.timestamp_clock_id = _REALTIME
        sample = packet.perf_sample
        cpu = args.get("cpu")
        if isinstance(cpu, int) and cpu >= 0:
            sample.cpu = cpu
        sample.pid = pid & 0xFFFFFFFF
        sample.tid = tid & 0xFFFFFFFF
        sample.callstack_iid = self._callstack(frames)
        self._write(packet)

    def _callstack(self, frames: Sequence[str]) -> int:
        key = tuple(frames)
        iid = self.callstacks.ids.get(key)
        if iid is None:
            iid = self.callstacks.get(key, tuple(self._frame_iid(f) for f in frames))
        return iid

    def _frame_iid(self, text: str) -> int:
        iid = self.frames.ids.get(text)
        if iid is not None:
            return iid
        python = _PYTHON_FRAME.match(text)
        if python:
            qualname, filename, line = python.groups()
            function = self.functions.get("%s (%s)" % (qualname, filename))
            path, line_number = self.source_paths.get(filename), int(line)
            mapping = self.mappings.get(_PYTHON_MAPPING, self.mapping_paths.get(_PYTHON_MAPPING))
        else:
            function, path, line_number = self.functions.get(text), 0, 0
            mapping = self.mappings.get(_NATIVE_MAPPING, self.mapping_paths.get(_NATIVE_MAPPING))
        return self.frames.get(text, (function, mapping, path, line_number))

    # ---- Arguments ----

    def _annotate(self, annotations, args: Dict[str, Any]) -> None:
        for key, value in args.items():
            if value is None:
                continue
            annotation = annotations.add()
            annotation.name_iid = self.arg_names.get(str(key))
            self._value(annotation, value)

    def _value(self, annotation, value: Any) -> None:
        if isinstance(value, bool):
            annotation.bool_value = value
        elif isinstance(value, int):
            if _I64_MIN <= value <= _I64_MAX:
                annotation.int_value = value
            elif 0 <= value <= _U64:
                annotation.uint_value = value
            else:
                annotation.string_value_iid = self.arg_strings.get(str(value))
        elif isinstance(value, float):
            annotation.double_value = value
        elif isinstance(value, str):
            annotation.string_value_iid = self.arg_strings.get(value)
        elif isinstance(value, dict):
            for key, item in value.items():
                if item is None:
                    continue
                entry = annotation.dict_entries.add()
                entry.name = str(key)
                self._value(entry, item)
        elif isinstance(value, (list, tuple)):
            for item in value:
                self._value(annotation.array_values.add(), item)
        else:
            annotation.string_value_iid = self.arg_strings.get(str(value))

    # ---- Slices, in nesting order ----

    def _slice_event(self, uuid: int, ts: int, kind: int, name: str = "", category: str = "",
                     args: Optional[Dict[str, Any]] = None, flows_out: Sequence[int] = (),
                     flows_in: Sequence[int] = ()) -> None:
        packet = self._packet()
        ts = max(ts, 0)
        if ts >= self.slice_clock:
            packet.timestamp = ts - self.slice_clock
            self.slice_clock = ts
        else:
            # Before the slice clock (not in time order): the whole time stamp.
            packet.timestamp = ts
            packet.timestamp_clock_id = _REALTIME
        event = packet.track_event
        event.type = kind
        event.track_uuid = uuid
        if kind == _BEGIN:
            event.name_iid = self.names.get(name)
            event.category_iids.append(self.categories.get(category))
            if category == "annotation":
                # The token pairs a range's begin with its end in the capture;
                # here the track's nesting does, and the token tells a user nothing.
                args = {k: v for k, v in (args or {}).items() if k != "token"}
            if args:
                self._annotate(event.debug_annotations, args)
            # Flow ids are the model's plus one: 0 is no flow.
            event.flow_ids.extend((f + 1) & _U64 for f in flows_out)
            event.terminating_flow_ids.extend((f + 1) & _U64 for f in flows_in)
        self._write(packet)

    def _track_events(self, track: _Track) -> List[tuple]:
        """A track's slice events, begins and ends in the order that nests them:
        a slice that starts where another ends comes after that end. A slice that
        would cross the end of the one it starts in goes to the async tracks."""
        track.slices.sort(key=lambda s: (s[0], s[1], s[2]))
        events: List[tuple] = []
        open_ends: List[int] = []
        for start, _, _, end, name, category, args, flows_out, flows_in in track.slices:
            while open_ends and open_ends[-1] <= start:
                events.append((open_ends.pop(), track.uuid, _END))
            if open_ends and end > open_ends[-1]:
                self.async_slices.setdefault(track.pid, []).append(
                    (start, end, name, category, args, flows_out, flows_in))
                continue
            events.append((start, track.uuid, _BEGIN, name, category, args, flows_out, flows_in))
            open_ends.append(end)
        while open_ends:
            events.append((open_ends.pop(), track.uuid, _END))
        track.slices = []
        return events

    def _async_events(self, pid: int, slices: List[tuple]) -> List[tuple]:
        """A process's async slice events, on as few child tracks as keep each
        free of overlaps (the tracks are written here, before any event)."""
        slices.sort(key=lambda s: (s[0], -s[1]))
        events: List[tuple] = []
        lanes: List[int] = []               # lane uuids
        free: List[Tuple[int, int]] = []    # (end of its last slice, lane index)
        for start, end, name, category, args, flows_out, flows_in in slices:
            if free and free[0][0] <= start:
                lane = heapq.heappop(free)[1]
            else:
                lane = len(lanes)
                lanes.append(self._uuid())
                packet = self._packet()
                descriptor = packet.track_descriptor
                descriptor.uuid = lanes[lane]
                descriptor.parent_uuid = self.processes[pid]
                descriptor.name = "async" if lane == 0 else "async %d" % (lane + 1)
                self._write(packet)
            heapq.heappush(free, (end, lane))
            events.append((start, lanes[lane], _BEGIN, name, category, args, flows_out,
                           flows_in))
            events.append((end, lanes[lane], _END))
        # An end is listed beside its begin; the lane's events in time order.
        events.sort(key=lambda e: e[0])
        return events

    def finish(self) -> None:
        tracks = [self._track_events(track) for track in list(self.threads.values())
                  if track.slices]
        tracks += [self._async_events(pid, slices)
                   for pid, slices in sorted(self.async_slices.items())]
        self.async_slices = {}
        # In time order across tracks, each track's own order kept (merge is stable).
        for ts, uuid, kind, *rest in heapq.merge(*tracks, key=lambda e: e[0]):
            self._slice_event(uuid, ts, kind, *rest)
        self.output.commit()

    def abandon(self) -> None:
        self.output.abandon()
