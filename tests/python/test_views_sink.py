"""The timeline's model and its writers meet only through `TraceSink`: a sink that
records the calls gets, in the contract's order, exactly the slices, flows and
samples that the JSON writer fed the same calls puts in its file."""

import argparse
import glob
import json
import time

import pytest

from zvk_testing import fake_cupti_library, run_python
from test_views import GPU_SCENARIO

from zorvek.views.capture import Progress, Reading
from zorvek.views.sink import TraceSink
from zorvek.views.trace import write_timeline
from zorvek.views.trace_json import JsonTraceWriter


class Recorder(TraceSink):
    def __init__(self):
        self.calls = []

    def begin(self, base_ns, info):
        self.calls.append(("begin", base_ns, info))

    def process(self, pid, name, sort_index, *, gpu=False, rank=None, host=None):
        self.calls.append(("process", pid, name, sort_index, gpu, rank, host))

    def thread(self, pid, tid, name):
        self.calls.append(("thread", pid, tid, name))

    def slice(self, pid, tid, start_ns, end_ns, name, category, args, flows_out=(), flows_in=()):
        self.calls.append(("slice", pid, tid, start_ns, end_ns, name, category, args,
                           tuple(flows_out), tuple(flows_in)))

    def async_slice(self, pid, tid, start_ns, end_ns, name, category, args, flows_out=(),
                    flows_in=()):
        self.calls.append(("async_slice", pid, tid, start_ns, end_ns, name, category, args,
                           tuple(flows_out), tuple(flows_in)))

    def instant(self, pid, tid, ts_ns, name, category):
        self.calls.append(("instant", pid, tid, ts_ns, name, category))

    def sample(self, pid, tid, ts_ns, stack, args):
        self.calls.append(("sample", pid, tid, ts_ns, tuple(stack), args))

    def finish(self):
        self.calls.append(("finish",))

    def abandon(self):
        self.calls.append(("abandon",))

    def of(self, kind):
        return [c for c in self.calls if c[0] == kind]


class Both(TraceSink):
    """Every call to each of its sinks."""

    def __init__(self, *sinks):
        self.sinks = sinks

    def __getattribute__(self, name):
        if name == "sinks" or name.startswith("__"):
            return object.__getattribute__(self, name)

        def each(*args, **kwargs):
            for sink in self.sinks:
                getattr(sink, name)(*args, **kwargs)
        return each


def model(files, sink, samples=True):
    args = argparse.Namespace(output="out", pid=None, samples=samples, gpu_clock="auto")
    progress = Progress("test", False)
    reading = Reading(files, progress, passes=2 if samples else 1)
    return write_timeline(args, reading, progress, lambda: sink)


def us(ns, base):
    return round((ns - base) / 1000.0, 3)


SAMPLED = r'''
import sys, threading, time
import zorvek

def busy(seconds):
    # The thread's own CPU time: a thread gets its timer at the sampler's next
    # scan of the threads (every 100 ms), so the helper burns well past that.
    end = time.thread_time() + seconds
    while time.thread_time() < end:
        pass

with zorvek.profile(sys.argv[1], gpu=False, quiet=True):
    with zorvek.annotate("outer"):
        with zorvek.annotate("inner"):
            busy(0.2)
        worker = threading.Thread(target=busy, args=(0.4,), name="helper")
        worker.start()
        worker.join()
'''


@pytest.fixture(scope="module")
def captures(tmp_path_factory):
    """A capture with ranges and CPU samples on two threads, and one with GPU work
    launched from two threads."""
    folder = tmp_path_factory.mktemp("sink")
    (folder / "sampled.py").write_text(SAMPLED)
    code, _, err = run_python([str(folder / "sampled.py"), str(folder / "cpu")], folder, {}, 120)
    assert code == 0, err[-4000:]
    (folder / "gpu.py").write_text(GPU_SCENARIO)
    code, _, err = run_python([str(folder / "gpu.py")], folder,
                              {"ZVK_CUPTI_LIBRARY": fake_cupti_library()}, 60)
    assert code == 0, err[-4000:]
    return {"cpu": sorted(glob.glob(str(folder / "cpu" / "*.zvkraw"))),
            "gpu": sorted(glob.glob(str(folder / "gpu_*.zvkraw")))}


@pytest.mark.parametrize("which", ["cpu", "gpu"])
def test_the_model_gives_the_json_writer_what_a_recording_sink_gets(captures, tmp_path, which):
    recorder = Recorder()
    out = tmp_path / "trace.json"
    line, _ = model(captures[which], Both(recorder, JsonTraceWriter(str(out))))
    trace = json.loads(out.read_text())
    events = trace["traceEvents"]
    kinds = [c[0] for c in recorder.calls]

    # The contract's order: begin; names; the rest; finish once.
    assert kinds[0] == "begin" and kinds[-1] == "finish" and kinds.count("finish") == 1
    first_other = min(i for i, k in enumerate(kinds) if k not in ("begin", "process", "thread"))
    assert all(k not in ("process", "thread") for k in kinds[first_other:])
    (_, base, info), = recorder.of("begin")
    assert trace["otherData"] == info and info["time_base_realtime_ns"] == base

    slices = sorted((c[1], c[2], us(c[3], base), round((c[4] - c[3]) / 1000.0, 3), c[5], c[6],
                     json.dumps(c[7], sort_keys=True)) for c in recorder.of("slice"))
    in_json = sorted((e["pid"], e["tid"], e["ts"], e["dur"], e["name"], e["cat"],
                      json.dumps(e["args"], sort_keys=True)) for e in events if e["ph"] == "X")
    assert slices and slices == in_json
    assert len(recorder.of("async_slice")) == len([e for e in events if e["ph"] == "b"])

    # Slices of one track nest.
    tracks = {}
    for c in recorder.of("slice"):
        tracks.setdefault((c[1], c[2]), []).append((c[3], -c[4], c[4]))
    for spans in tracks.values():
        open_ends = []
        for start, _, end in sorted(spans):
            while open_ends and open_ends[-1] <= start:
                open_ends.pop()
            assert not open_ends or end <= open_ends[-1]
            open_ends.append(end)

    # Each flow: one start on a call, one end on the work, at their middles.
    starts = {f: c for c in recorder.of("slice") for f in c[8]}
    ends = {f: c for c in recorder.of("slice") for f in c[9]}
    assert set(starts) == set(ends)
    assert sum(len(c[8]) for c in recorder.of("slice")) == len(starts)
    flows = sorted((f, "s", c[1], c[2], us((c[3] + c[4]) // 2, base)) for f, c in starts.items())
    flows += sorted((f, "f", c[1], c[2], us((c[3] + c[4]) // 2, base)) for f, c in ends.items())
    assert sorted(flows) == sorted((e["id"], e["ph"], e["pid"], e["tid"], e["ts"]) for e in events
                                   if e["ph"] in ("s", "f"))
    if which == "gpu":
        assert len(starts) == 2 and all(starts[f][6] == "cuda_api" for f in starts)
        assert all(ends[f][6] == "gpu_kernel" for f in ends)
        assert "2 launch arrows" in line
        gpus = [c for c in recorder.of("process") if c[4]]
        assert sorted(c[2] for c in gpus) == ["GPU 0", "GPU 1"]

    # Samples: the stack root first to the sink, innermost first in the JSON.
    samples = sorted((c[1], c[2], us(c[3], base), list(c[4][::-1]), json.dumps(c[5], sort_keys=True))
                     for c in recorder.of("sample"))
    in_json = sorted((e["pid"], e["tid"], e["ts"], e["args"]["stack"],
                      json.dumps({k: v for k, v in e["args"].items() if k != "stack"},
                                 sort_keys=True))
                     for e in events if e.get("cat") == "cpu_sample")
    assert samples == in_json
    if which == "cpu":
        assert len({s[1] for s in samples}) == 2
        assert all(e["name"] == e["args"]["stack"][0] for e in events
                   if e.get("cat") == "cpu_sample")

    # Names: a process and thread name for each one the sink was told of.
    named = {(e["pid"], e["tid"]): e["args"]["name"] for e in events
             if e["ph"] == "M" and e["name"] == "thread_name"}
    assert named == {(c[1], c[2]): c[3] for c in recorder.of("thread")}


class Failing(Recorder):
    def sample(self, pid, tid, ts_ns, stack, args):
        raise OSError(28, "No space left on device")


def test_a_sink_that_fails_is_abandoned_and_the_json_leaves_nothing(captures, tmp_path):
    failing = Failing()
    out = tmp_path / "trace.json.gz"
    with pytest.raises(OSError):
        model(captures["cpu"], Both(failing, JsonTraceWriter(str(out))))
    assert failing.calls[-1] == ("abandon",) and ("finish",) not in failing.calls
    assert list(tmp_path.iterdir()) == []


def test_without_samples_the_sink_gets_none(captures):
    recorder = Recorder()
    line, _ = model(captures["cpu"], recorder, samples=False)
    assert recorder.of("sample") == [] and "0 CPU samples" in line
    assert recorder.of("slice")


def test_the_time_base_is_a_whole_second_before_everything(captures):
    recorder = Recorder()
    model(captures["cpu"], recorder)
    (_, base, info), = recorder.of("begin")
    assert base % 1_000_000_000 == 0
    times = [c[3] for c in recorder.calls if c[0] in ("slice", "async_slice", "instant", "sample")]
    assert base <= min(times) < base + 1_000_000_000 * 10
    assert info["time_base_utc"] == time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(base / 1e9))
