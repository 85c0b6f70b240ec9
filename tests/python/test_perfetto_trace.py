"""The timeline's Perfetto trace: the writer fed the model's calls directly, the
file parsed back with the perfetto package's own `Trace` message, and the whole
command on a capture recorded here."""

import json
import os
import random
import re
import subprocess
import sys
import textwrap
from collections import Counter, defaultdict

import pytest

pb = pytest.importorskip("perfetto.protos.perfetto.trace.perfetto_trace_pb2")

from zorvek.stacks import WAITING  # noqa: E402
from zorvek.views.trace_json import JsonTraceWriter  # noqa: E402
from zorvek.views.trace_perfetto import PerfettoTraceWriter  # noqa: E402

BASE = 1_795_624_048_000_000_000
PID, MAIN, HELPER = 4242, 4242, 4250
GPU, STREAM = (1 << 30), 7
SEQ_CLEARED = pb.TracePacket.SEQ_INCREMENTAL_STATE_CLEARED
SEQ_NEEDS = pb.TracePacket.SEQ_NEEDS_INCREMENTAL_STATE
T = pb.TrackEvent


def ms(x):
    return BASE + int(x * 1_000_000)


# (pid, tid, start, end, name, category, args, flows_out, flows_in): nesting on
# their tracks, with the ties that need care: equal starts, equal ends, one
# slice starting where another ends, a slice of no length.
SLICES = [
    (PID, MAIN, ms(0), ms(100), "step 0", "annotation", {"token": 1}, (), ()),
    (PID, MAIN, ms(0), ms(40), "forward", "annotation", {"token": 2}, (), ()),
    (PID, MAIN, ms(40), ms(100), "backward", "annotation", {"token": 3}, (), ()),
    (PID, MAIN, ms(60), ms(100), "optimizer", "annotation", {"token": 4}, (), ()),
    (PID, MAIN, ms(70), ms(70), "empty", "annotation", {"token": 5}, (), ()),
    (PID, MAIN, ms(10), ms(12), "cuLaunchKernel", "cuda_api",
     {"correlation": 9, "cbid": 307, "stack": ["main", "train (t.py:3)"],
      "python": ["<module> (t.py:9)", "train (t.py:3)"], "big": 1 << 63, "ratio": 0.5,
      "nested": {"a": True, "b": None}}, (1,), ()),
    (PID, MAIN, ms(20), ms(21), "cuLaunchKernel", "cuda_api",
     {"correlation": 10, "cbid": 307, "stack": ["main", "train (t.py:3)"]}, (2,), ()),
    (PID, MAIN, ms(100), ms(200), "step 1", "annotation", {"token": 6}, (), ()),
    (PID, HELPER, ms(5), ms(50), "load", "annotation", {"token": 7}, (), ()),
    (GPU, STREAM, ms(13), ms(30), "gemm", "gpu_kernel", {"pid": PID, "grid": [4, 1, 1]}, (), (1,)),
    (GPU, STREAM, ms(30), ms(35), "relu", "gpu_kernel", {"pid": PID}, (), (2,)),
]
ASYNC = [
    (PID, PID, ms(5), ms(150), "CUDA synchronization", "cuda_sync", {"stream": 7}),
    (PID, PID, ms(10), ms(20), "handoff", "annotation", {"ended_on_thread": HELPER}),
    (PID, PID, ms(20), ms(160), "crossing", "annotation", {}),
]
INSTANTS = [(PID, MAIN, ms(3), "clock sync", "marker")]
SAMPLES = [
    (PID, MAIN, ms(1), ["main", "train (t.py:3)", "matmul"], {"cpu": 1}),
    (PID, MAIN, ms(2), ["main", "train (t.py:4)", "matmul"], {"cpu": 1}),
    (PID, MAIN, ms(2.5), ["main", "train (t.py:3)", "matmul"], {"cpu": 2}),
    (PID, HELPER, ms(6), ["start_thread", "load (data.py:12)", WAITING],
     {"cpu": 0, "waiting": True, "clock": "wall", "weight_ns": 1000}),
    (PID, HELPER, ms(7), ["start_thread", "load (data.py:12)"], {"cpu": 0, "waiting": True}),
    (PID, HELPER, ms(8), [], {"cpu": None}),
]


def feed(writer, shuffle_seed=None):
    """The model's calls, in its order: names first, then events in any order."""
    writer.begin(BASE, {"producer": "zorvek timeline", "files": ["a.zvkraw"],
                        "clocks": [{"host": "node1", "gpu": None}]})
    writer.process(PID, "python train.py (pid %d)" % PID, 0, rank=3, host="node1")
    writer.thread(PID, MAIN, "MainThread (%d)" % MAIN)
    writer.thread(PID, HELPER, "pt_data_worker (%d)" % HELPER)
    writer.process(GPU, "GPU 0", 100000, gpu=True)
    writer.thread(GPU, STREAM, "stream %d" % STREAM)
    calls = ([("slice", s) for s in SLICES] + [("async_slice", a) for a in ASYNC]
             + [("instant", i) for i in INSTANTS] + [("sample", s) for s in SAMPLES])
    if shuffle_seed is not None:
        random.Random(shuffle_seed).shuffle(calls)
    for kind, call in calls:
        if kind == "slice":
            *head, flows_out, flows_in = call
            writer.slice(*head, flows_out=flows_out, flows_in=flows_in)
        else:
            getattr(writer, kind)(*call)


def read_trace(path):
    """The file as the `Trace` message, after checking that it is nothing but
    packets: field 1, length-delimited, one after another."""
    with open(path, "rb") as f:
        data = f.read()
    at, count = 0, 0
    while at < len(data):
        assert data[at] == 0x0A, "byte %d is not the start of a packet" % at
        at, length, shift = at + 1, 0, 0
        while True:
            byte = data[at]
            at += 1
            length |= (byte & 0x7F) << shift
            shift += 7
            if byte < 0x80:
                break
        pb.TracePacket.FromString(data[at:at + length])
        at += length
        count += 1
    assert at == len(data)
    trace = pb.Trace.FromString(data)
    assert len(trace.packet) == count
    return trace


class Interned:
    """The interned tables of the sequence, filled packet by packet in file
    order; every lookup asserts that the id was defined before (or in) the packet
    that uses it."""

    TABLES = {"event_names": "name", "event_categories": "name",
              "debug_annotation_names": "name", "debug_annotation_string_values": "str",
              "function_names": "str", "source_paths": "str", "mapping_paths": "str",
              "mappings": None, "frames": None, "callstacks": None}

    def __init__(self):
        self.tables = {name: {} for name in self.TABLES}

    def add(self, interned):
        for table, value_field in self.TABLES.items():
            for entry in getattr(interned, table):
                assert entry.iid not in self.tables[table], "%s %d defined twice" % (
                    table, entry.iid)
                self.tables[table][entry.iid] = (getattr(entry, value_field) if value_field
                                                 else entry)
        for frame in interned.frames:
            self.get("function_names", frame.function_name_id)
            self.get("mappings", frame.mapping_id)
            if frame.source_path_iid:
                self.get("source_paths", frame.source_path_iid)
        for stack in interned.callstacks:
            for frame in stack.frame_ids:
                self.get("frames", frame)
        for mapping in interned.mappings:
            for path in mapping.path_string_ids:
                self.get("mapping_paths", path)

    def get(self, table, iid):
        assert iid in self.tables[table], "%s %d used before it was defined" % (table, iid)
        return self.tables[table][iid]

    def text(self, table, iid):
        value = self.get(table, iid)
        return value.decode() if isinstance(value, bytes) else value

    def assert_each_value_once(self):
        for table, value_field in self.TABLES.items():
            if value_field:
                values = list(self.tables[table].values())
                assert len(values) == len(set(values)), "%s holds a value twice" % table

    def frame_name(self, iid):
        frame = self.get("frames", iid)
        name = self.text("function_names", frame.function_name_id)
        return name, frame.line_number


def annotation_value(interned, a):
    kind = a.WhichOneof("value")
    if kind == "string_value_iid":
        return interned.text("debug_annotation_string_values", a.string_value_iid)
    if kind is not None:
        return getattr(a, kind)
    if a.dict_entries:
        return {e.name: annotation_value(interned, e) for e in a.dict_entries}
    return [annotation_value(interned, v) for v in a.array_values]


class Parsed:
    """What a trace file holds, as the Perfetto UI would place it: slices per
    track rebuilt from begins and ends in timestamp order (ties in file order),
    with their names, categories, arguments and flows."""

    def __init__(self, path):
        self.trace = read_trace(path)
        self.interned = Interned()
        self.tracks = {}
        self.events = defaultdict(list)   # track uuid -> [(ts, file order, event)]
        self.samples = []
        self.snapshots = []
        self.defaults = []
        self.incremental = {}   # clock id -> its time: the last packet's on it
        default_clock = pb.BUILTIN_CLOCK_BOOTTIME
        for order, packet in enumerate(self.trace.packet):
            if packet.HasField("interned_data"):
                self.interned.add(packet.interned_data)
            if packet.HasField("trace_packet_defaults"):
                self.defaults.append(packet.trace_packet_defaults)
                default_clock = packet.trace_packet_defaults.timestamp_clock_id
            if packet.HasField("clock_snapshot"):
                self.snapshots.append(packet.clock_snapshot)
                for clock in packet.clock_snapshot.clocks:
                    if clock.is_incremental:
                        self.incremental[clock.clock_id] = clock.timestamp
            clock = (packet.timestamp_clock_id if packet.HasField("timestamp_clock_id")
                     else default_clock)
            ts = packet.timestamp
            if clock in self.incremental and packet.HasField("timestamp"):
                ts = self.incremental[clock] = self.incremental[clock] + packet.timestamp
            elif packet.HasField("timestamp"):
                assert clock == pb.BUILTIN_CLOCK_REALTIME, "a time on clock %d" % clock
            if packet.HasField("track_descriptor"):
                d = packet.track_descriptor
                assert d.uuid not in self.tracks
                if d.parent_uuid:
                    assert d.parent_uuid in self.tracks, "a parent described after its child"
                self.tracks[d.uuid] = d
            if packet.HasField("track_event"):
                e = packet.track_event
                assert e.track_uuid in self.tracks, "an event before its track"
                self.events[e.track_uuid].append((ts, order, e))
            if packet.HasField("perf_sample"):
                s = packet.perf_sample
                frames = [self.interned.frame_name(f)
                          for f in self.interned.get("callstacks", s.callstack_iid).frame_ids]
                self.samples.append((s.pid, s.tid, ts, s.cpu, frames))

    def slices(self, uuid):
        """(name, category, start, end, depth, args, flows out, flows in) of a track."""
        done, stack = [], []
        for ts, _, e in sorted(self.events[uuid], key=lambda x: (x[0], x[1])):
            if e.type == T.TYPE_SLICE_BEGIN:
                args = {self.interned.text("debug_annotation_names", a.name_iid):
                        annotation_value(self.interned, a) for a in e.debug_annotations}
                stack.append([self.interned.text("event_names", e.name_iid),
                              self.interned.text("event_categories", e.category_iids[0]),
                              ts, None, len(stack), args, list(e.flow_ids),
                              list(e.terminating_flow_ids)])
            elif e.type == T.TYPE_SLICE_END:
                assert stack, "an end with no slice open on track %d" % uuid
                s = stack.pop()
                s[3] = ts
                done.append(tuple(s))
        assert not stack, "slices left open on track %d" % uuid
        return done

    def instants(self, uuid):
        return [(self.interned.text("event_names", e.name_iid), ts)
                for ts, _, e in self.events[uuid] if e.type == T.TYPE_INSTANT]

    def track_of_thread(self, pid, tid):
        found = [u for u, d in self.tracks.items()
                 if d.HasField("thread") and (d.thread.pid, d.thread.tid) == (pid, tid)]
        assert len(found) == 1
        return found[0]

    def children(self, uuid):
        return [u for u, d in self.tracks.items() if d.parent_uuid == uuid]

    def process_track(self, pid):
        found = [u for u, d in self.tracks.items()
                 if d.HasField("process") and d.process.pid == pid]
        assert len(found) == 1
        return found[0]


@pytest.fixture(params=[None, 1, 2], ids=["model order", "shuffled", "shuffled again"])
def written(request, tmp_path):
    path = tmp_path / "t.pftrace"
    writer = PerfettoTraceWriter(str(path))
    feed(writer, request.param)
    assert not path.exists(), "the final name holds something before finish"
    writer.finish()
    assert os.listdir(tmp_path) == ["t.pftrace"], "a temporary file was left"
    return Parsed(str(path))


def test_one_sequence_first_packet_clears_later_need(written):
    packets = written.trace.packet
    assert {p.trusted_packet_sequence_id for p in packets} == {1}
    assert packets[0].sequence_flags == SEQ_CLEARED
    assert all(p.sequence_flags == SEQ_NEEDS for p in packets[1:])


def test_times_are_the_system_clock_in_nanoseconds(written):
    realtime = pb.BUILTIN_CLOCK_REALTIME
    snapshot = written.snapshots[0]
    assert snapshot.primary_trace_clock == realtime
    clocks = {c.clock_id: c for c in snapshot.clocks}
    # The slice clock is the sequence's own, incremental, on the system clock's scale.
    slice_clock = written.defaults[0].timestamp_clock_id
    assert set(clocks) == {realtime, slice_clock} and 64 <= slice_clock <= 127
    assert clocks[slice_clock].is_incremental and not clocks[realtime].is_incremental
    assert clocks[slice_clock].timestamp == clocks[realtime].timestamp
    main = written.track_of_thread(PID, MAIN)
    assert ("step 0", ms(0)) in [(s[0], s[2]) for s in written.slices(main)]
    assert written.instants(main) == [("clock sync", ms(3))]


def test_names_and_strings_are_interned_once(written):
    written.interned.assert_each_value_once()
    names = set(written.interned.tables["event_names"].values())
    assert {"step 0", "cuLaunchKernel", "gemm", "clock sync"} <= names
    for packet in written.trace.packet:
        if packet.HasField("track_event"):
            assert not packet.track_event.name and not packet.track_event.categories
            for a in packet.track_event.debug_annotations:
                assert a.name_iid and not a.name
    strings = set(written.interned.tables["debug_annotation_string_values"].values())
    assert b"train (t.py:3)" in strings


def test_processes_threads_and_gpu_tracks_are_named(written):
    process = written.tracks[written.process_track(PID)].process
    assert process.process_name == "python train.py (pid %d) on node1 [rank 3]" % PID
    assert set(process.process_labels) == {"rank=3", "host=node1"}
    main = written.tracks[written.track_of_thread(PID, MAIN)]
    helper = written.tracks[written.track_of_thread(PID, HELPER)]
    assert main.thread.thread_name == "MainThread (%d)" % MAIN
    assert helper.thread.thread_name == "pt_data_worker (%d)" % HELPER
    devices = [u for u, d in written.tracks.items() if d.name == "GPU 0"]
    assert len(devices) == 1 and not written.tracks[devices[0]].parent_uuid
    streams = written.children(devices[0])
    assert [written.tracks[u].name for u in streams] == ["stream 7"]
    on_stream = sorted(written.slices(streams[0]), key=lambda s: s[2])
    assert [s[0] for s in on_stream] == ["gemm", "relu"]


def test_slices_balance_and_nest_as_given(written):
    expected = defaultdict(set)
    for pid, tid, start, end, name, cat, args, _, _ in SLICES:
        expected[(pid, tid)].add((name, cat, start, end))
    tracks = {(PID, MAIN): written.track_of_thread(PID, MAIN),
              (PID, HELPER): written.track_of_thread(PID, HELPER),
              (GPU, STREAM): [u for u, d in written.tracks.items() if d.name == "stream 7"][0]}
    for key, uuid in tracks.items():
        got = written.slices(uuid)
        assert {(s[0], s[1], s[2], s[3]) for s in got} == expected[key]
    depth = {s[0]: s[4] for s in written.slices(tracks[(PID, MAIN)]) if s[0] != "cuLaunchKernel"}
    assert depth == {"step 0": 0, "forward": 1, "backward": 1, "optimizer": 2, "empty": 3,
                     "step 1": 0}
    launch = [s for s in written.slices(tracks[(PID, MAIN)]) if s[0] == "cuLaunchKernel"]
    assert all(s[4] == 2 for s in launch)  # step 0 > forward > the call
    first = [s for s in launch if s[5]["correlation"] == 9][0]
    assert first[5] == {"correlation": 9, "cbid": 307, "stack": ["main", "train (t.py:3)"],
                        "python": ["<module> (t.py:9)", "train (t.py:3)"], "big": 1 << 63,
                        "ratio": 0.5, "nested": {"a": True}}


def test_async_slices_cross_on_tracks_of_their_own(written):
    process = written.process_track(PID)
    lanes = written.children(process)
    got = [s for uuid in lanes for s in written.slices(uuid)]
    assert sorted((s[0], s[2], s[3]) for s in got) == sorted((a[4], a[2], a[3]) for a in ASYNC)
    for uuid in lanes:
        spans = sorted((s[2], s[3]) for s in written.slices(uuid))
        assert all(a[1] <= b[0] for a, b in zip(spans, spans[1:])), "a lane holds an overlap"
    # The synchronization overlaps both others, which touch: two lanes are enough.
    assert len(lanes) == 2


def test_launch_flows_pair_from_call_to_work(written):
    main = written.track_of_thread(PID, MAIN)
    stream = [u for u, d in written.tracks.items() if d.name == "stream 7"][0]
    outs, ins = Counter(), Counter()
    by_out, by_in = {}, {}
    for uuid in written.tracks:
        for s in written.slices(uuid):
            for f in s[6]:
                outs[f] += 1
                by_out[f] = (uuid, s[0], s[5].get("correlation"))
            for f in s[7]:
                ins[f] += 1
                by_in[f] = (uuid, s[0])
    assert len(outs) == 2 and set(outs) == set(ins)
    assert set(outs.values()) == {1} and set(ins.values()) == {1}
    pairs = {by_out[f][2]: by_in[f] for f in outs}
    assert all(by_out[f][0] == main for f in outs)
    assert pairs == {9: (stream, "gemm"), 10: (stream, "relu")}


def test_a_call_on_an_async_track_keeps_its_launch_flow(tmp_path):
    """A driver call that crossed a range on its thread is on the process's async
    track; its arrow still runs to the work it launched."""
    path = tmp_path / "a.pftrace"
    writer = PerfettoTraceWriter(str(path))
    writer.begin(BASE, {})
    writer.process(PID, "python train.py (pid %d)" % PID, 0)
    writer.thread(PID, MAIN, "MainThread")
    writer.process(GPU, "GPU 0", 100000, gpu=True)
    writer.thread(GPU, STREAM, "stream %d" % STREAM)
    writer.slice(PID, MAIN, ms(0), ms(10), "step", "annotation", {})
    writer.async_slice(PID, MAIN, ms(9), ms(12), "cuLaunchKernel", "cuda_api",
                       {"correlation": 4}, flows_out=(3,))
    writer.slice(GPU, STREAM, ms(13), ms(20), "gemm", "gpu_kernel", {}, flows_in=(3,))
    writer.finish()
    parsed = Parsed(str(path))
    lanes = parsed.children(parsed.process_track(PID))
    call = [s for uuid in lanes for s in parsed.slices(uuid)]
    stream = [u for u, d in parsed.tracks.items() if d.name == "stream 7"][0]
    work = parsed.slices(stream)
    assert [s[0] for s in call] == ["cuLaunchKernel"] and [s[0] for s in work] == ["gemm"]
    assert call[0][6] and call[0][6] == work[0][7]


def test_samples_carry_their_stacks_root_first(written):
    assert len(written.samples) == len(SAMPLES)
    got = sorted(written.samples, key=lambda s: s[2])
    assert [(s[0], s[1], s[2]) for s in got] == [(p, t, ts) for p, t, ts, _, _ in SAMPLES]
    assert [s[3] for s in got[:3]] == [1, 1, 2]
    first, second, third, waited, waited_bare, empty = [s[4] for s in got]
    assert first == [("main", 0), ("train (t.py)", 3), ("matmul", 0)]
    assert second == [("main", 0), ("train (t.py)", 4), ("matmul", 0)]
    assert third == first
    # A waiting sample ends in the waiting frame, once, whether the model put it there or not.
    assert waited == waited_bare == [("start_thread", 0), ("load (data.py)", 12), (WAITING, 0)]
    assert empty == [("[no frames]", 0)]
    stacks = written.interned.tables["callstacks"]
    assert len(stacks) == 4  # first and third share one
    functions = set(written.interned.tables["function_names"].values())
    assert {b"train (t.py)", b"load (data.py)", b"matmul"} <= functions
    paths = {written.interned.text("mapping_paths", m.path_string_ids[0])
             for m in written.interned.tables["mappings"].values()}
    assert paths == {"[python]", "[native]"}


def test_abandon_leaves_nothing(tmp_path):
    path = tmp_path / "t.pftrace"
    writer = PerfettoTraceWriter(str(path))
    feed(writer)
    writer.abandon()
    assert os.listdir(tmp_path) == []


def test_unwritable_place_names_the_output(tmp_path):
    from zorvek.views.capture import ViewError
    path = tmp_path / "missing" / "t.pftrace"
    with pytest.raises(ViewError, match="^%s: No such file or directory$" % re.escape(str(path))):
        PerfettoTraceWriter(str(path))


def test_a_third_of_the_json_for_the_same_calls(tmp_path):
    """Samples and launches as a training step makes them: many samples of a few
    stacks, calls with their call chains, kernels."""
    stacks = [["_start", "main", "<module> (train.py:40)", "train (train.py:%d)" % (20 + i % 4),
               "forward (model.py:%d)" % (7 + i % 3), "at::matmul", "gemm_%d" % (i % 5)]
              for i in range(24)]

    def many(writer):
        feed(writer)
        t = ms(300)
        for i in range(3000):
            writer.sample(PID, MAIN if i % 3 else HELPER, t, stacks[i % len(stacks)],
                          {"cpu": i % 8, "clock": "cpu", "weight_ns": 1_001_001})
            if i % 10 == 0:
                writer.slice(PID, MAIN, t, t + 20_000, "cuLaunchKernel", "cuda_api",
                             {"correlation": 100 + i, "cbid": 307, "stack": stacks[i % 24][:5],
                              "launched_from": stacks[i % 24][4]}, flows_out=(100 + i,))
                writer.slice(GPU, STREAM, t + 30_000, t + 500_000, "gemm_%d" % (i % 5),
                             "gpu_kernel", {"pid": PID, "launched_from": stacks[i % 24][4]},
                             flows_in=(100 + i,))
            t += 1_001_001
        writer.finish()

    many(PerfettoTraceWriter(str(tmp_path / "t.pftrace")))
    many(JsonTraceWriter(str(tmp_path / "t.json")))
    size, json_size = (os.path.getsize(tmp_path / n) for n in ("t.pftrace", "t.json"))
    assert size * 3 <= json_size, (size, json_size)


def test_a_third_of_the_json_for_annotation_ranges_alone(tmp_path):
    """A capture of short nested ranges on a few threads, where each slice's two
    time stamps are most of what a packet holds."""

    def ranges(writer):
        feed(writer)
        t = ms(300)
        for i in range(5000):
            tid = (MAIN, HELPER)[i % 2]
            writer.slice(PID, tid, t, t + 90_000, "outer", "annotation", {"token": 2 * i})
            writer.slice(PID, tid, t + 1_000, t + 40_000, "inner", "annotation",
                         {"token": 2 * i + 1})
            t += 100_003
        writer.finish()

    ranges(PerfettoTraceWriter(str(tmp_path / "r.pftrace")))
    ranges(JsonTraceWriter(str(tmp_path / "r.json")))
    size, json_size = (os.path.getsize(tmp_path / n) for n in ("r.pftrace", "r.json"))
    assert size * 3 <= json_size, (size, json_size)
    parsed = Parsed(str(tmp_path / "r.pftrace"))
    first = sorted((s[2], s[4], s[0], s[3]) for s in parsed.slices(parsed.track_of_thread(PID, MAIN))
                   if s[0] in ("outer", "inner"))[:2]
    assert first == [(ms(300), 0, "outer", ms(300) + 90_000),
                     (ms(300) + 1_000, 1, "inner", ms(300) + 40_000)]


# ---- The command on a capture recorded here ----

PROGRAM = textwrap.dedent('''
    import threading, time
    import zorvek

    def perfetto_inner_loop(cpu_seconds):
        began = time.thread_time()
        total = 0
        while time.thread_time() - began < cpu_seconds:
            for i in range(2000):
                total += i * i
        return total

    def perfetto_step(k):
        with zorvek.annotate("perfetto step %d" % (k % 3)):
            perfetto_inner_loop(0.01)

    def perfetto_worker():
        for k in range(30):
            perfetto_step(k)

    helper = threading.Thread(target=perfetto_worker, name="perfetto_helper")
    helper.start()
    for k in range(40):
        perfetto_step(k)
    helper.join()
''')


def zorvek(args, cwd, timeout=180):
    done = subprocess.run([sys.executable, "-m", "zorvek", *args], cwd=cwd, capture_output=True,
                          text=True, timeout=timeout)
    assert "Traceback" not in done.stderr, done.stderr
    assert done.returncode == 0, done.stderr
    return done


@pytest.fixture(scope="module")
def recorded(tmp_path_factory):
    folder = tmp_path_factory.mktemp("perfetto_capture")
    (folder / "program.py").write_text(PROGRAM)
    zorvek(["record", "-q", "--no-gpu", "-F", "999", "-o", "cap", "--", sys.executable,
            "program.py"], folder)
    zorvek(["timeline", "cap", "-o", "t.json"], folder)
    return folder


@pytest.mark.parametrize("options, out", [([], "t.pftrace"), (["--format", "perfetto"], "t.pb")])
def test_timeline_of_a_recorded_capture(recorded, options, out, tmp_path):
    zorvek(["timeline", str(recorded / "cap"), *options, "-o", str(tmp_path / out)], tmp_path)
    with open(recorded / "t.json", encoding="utf-8") as f:
        whole = json.load(f)
    events, base = whole["traceEvents"], whole["otherData"]["time_base_realtime_ns"]
    parsed = Parsed(str(tmp_path / out))
    parsed.interned.assert_each_value_once()

    json_ranges = Counter((e["tid"], e["name"], round(e["ts"], 3)) for e in events
                          if e["ph"] == "X" and e.get("cat") == "annotation")
    ranges = Counter()
    for uuid, d in parsed.tracks.items():
        if d.HasField("thread"):
            for s in parsed.slices(uuid):
                if s[1] == "annotation":
                    ranges[(d.thread.tid, s[0], round((s[2] - base) / 1000.0, 3))] += 1
    assert sum(ranges.values()) == 70
    assert ranges == json_ranges

    json_samples = [e for e in events if e.get("cat") == "cpu_sample"]
    assert len(parsed.samples) == len(json_samples) > 20
    functions = {v.decode() for v in parsed.interned.tables["function_names"].values()}
    assert {"perfetto_inner_loop (program.py)", "perfetto_step (program.py)",
            "perfetto_worker (program.py)"} <= functions
    assert any(name == "perfetto_inner_loop (program.py)" for s in parsed.samples
               for name, _ in s[4])
    threads = {d.thread.thread_name for d in parsed.tracks.values() if d.HasField("thread")}
    assert any(name.startswith("perfetto_helper") for name in threads)

    size, json_size = os.path.getsize(tmp_path / out), os.path.getsize(recorded / "t.json")
    assert size * 3 <= json_size, (size, json_size)
