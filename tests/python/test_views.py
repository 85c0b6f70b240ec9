"""The timeline and flame graph views on real captures made here, each scenario in
a fresh interpreter through _zorv: CPU sampling (the software CPU clock, user
call chains, the mappings listed at the start) of a test library built with
symbols and frame pointers that burns time in known functions; annotation ranges
from several threads; GPU records from the CUPTI stand-in; several files of one
run. The views run as the `zorvek` command does, in their own processes."""

import ctypes
import dis
import glob
import gzip
import json
import shutil
import struct
import subprocess
import socket
import sys
import time
import xml.etree.ElementTree as ElementTree
import zlib

import pytest

from zvk_testing import APP, build_shared_library, fake_cupti_library, run_python

from zorvek import _reader
from zorvek._reader import EXIT_DAMAGED, EXIT_NOT_READ, EXIT_READ_WHOLE

CPU_CLOCK = "1,0,1000003,743,0,0,0"

# Two functions with the same loop, called for 3 and 1 units of work, and a third
# that only the worker thread runs. -O0 keeps the loops; frame pointers let the
# kernel's walk of the user stack get from them to their caller.
BURN_C = r"""
volatile unsigned long sink;
__attribute__((noinline)) void burn_a(unsigned long n) { for (unsigned long i = 0; i < n; i++) sink += i; }
__attribute__((noinline)) void burn_b(unsigned long n) { for (unsigned long i = 0; i < n; i++) sink += i; }
__attribute__((noinline)) void burn_c(unsigned long n) { for (unsigned long i = 0; i < n; i++) sink += i; }
"""

SCENARIO = r'''
import ctypes, json, os, sys, threading, time
import _zorv
from zorvek.timeline import mark_clock_sync

lib = ctypes.CDLL(sys.argv[1])
for f in (lib.burn_a, lib.burn_b, lib.burn_c):
    f.argtypes = [ctypes.c_ulong]
sync = sys.argv[2] == "sync"
UNIT = int(sys.argv[3])

config = _zorv.Config()
config.profiler = {"BucketCount": "4", "BucketSizeMB": "2", "EnablePerf": "1",
                   "RecordFile": "views_%p"}
config.perf = {"EventConfigs": "CPU_CLOCK", "InheritEvents": "1", "RecordMappings": "1"}
prof = _zorv.Zorvek.instance()
assert repr(prof.configure(config)) == "OK"
prof.start_profiling()

def worker():
    token = _zorv.annotation_begin("worker")
    lib.burn_c(UNIT)
    _zorv.annotation_end(token)

thread = threading.Thread(target=worker)
thread.start()
for _ in range(6):
    step = _zorv.annotation_begin("step")
    token = _zorv.annotation_begin("phase_a")
    lib.burn_a(3 * UNIT)
    _zorv.annotation_end(token)
    token = _zorv.annotation_begin("phase_b")
    lib.burn_b(UNIT)
    _zorv.annotation_end(token)
    _zorv.annotation_end(step)
thread.join()
handed = _zorv.annotation_begin("handed_over")  # ended by another thread
t = threading.Thread(target=_zorv.annotation_end, args=(handed,))
t.start(); t.join()
_zorv.annotation_begin("never_ended")
if sync:
    assert mark_clock_sync()
assert repr(prof.stop_profiling()) == "OK"
print(json.dumps({"pid": os.getpid(), "main": threading.get_native_id()}))
'''.replace("CPU_CLOCK", CPU_CLOCK)


def zorvek(args, cwd, timeout=120):
    """`zorvek ARGS` as the installed command runs it."""
    process = subprocess.run([sys.executable, "-m", "zorvek", *args], cwd=cwd, capture_output=True,
                             text=True, timeout=timeout)
    assert "Traceback" not in process.stderr, process.stderr
    return process


@pytest.fixture(scope="module")
def burn_library(tmp_path_factory):
    return build_shared_library(tmp_path_factory.mktemp("burn"), "burn", BURN_C, ("cc", "gcc"),
                                ("-O0", "-g", "-fno-omit-frame-pointer"))


def calibrate_unit(library):
    """Loop iterations that take about 25 ms here, so that the scenario burns
    about 0.6 s whatever the machine."""
    import ctypes
    import time
    lib = ctypes.CDLL(str(library))
    lib.burn_a.argtypes = [ctypes.c_ulong]
    n = 1_000_000
    began = time.process_time()
    lib.burn_a(n)
    spent = max(time.process_time() - began, 1e-4)
    return max(int(n * 0.025 / spent), 100_000)


def make_capture(folder, library, sync):
    folder.mkdir(parents=True, exist_ok=True)
    script = folder / "scenario.py"
    script.write_text(SCENARIO)
    code, out, err = run_python([str(script), str(library), "sync" if sync else "none",
                                 str(calibrate_unit(library))], folder, {}, 120)
    assert code == 0, err[-4000:]
    seen = json.loads(out.strip().splitlines()[-1])
    files = sorted(glob.glob(str(folder / "views_*.zvkraw")))
    assert files
    return seen, files


@pytest.fixture(scope="module")
def synced(tmp_path_factory, burn_library):
    return make_capture(tmp_path_factory.mktemp("synced"), burn_library, sync=True)


@pytest.fixture(scope="module")
def unsynced(tmp_path_factory, burn_library):
    return make_capture(tmp_path_factory.mktemp("unsynced"), burn_library, sync=False)


def load_trace(path):
    opener = gzip.open if str(path).endswith(".gz") else open
    with opener(path, "rt", encoding="utf-8") as f:
        return json.load(f)


def assert_slices_nest(events):
    """Complete slices of a thread, in time order, each either inside or after
    the one before it that is still open."""
    tracks = {}
    for e in events:
        if e["ph"] == "X":
            assert e["dur"] >= 0
            tracks.setdefault((e["pid"], e["tid"]), []).append((e["ts"], e["ts"] + e["dur"], e["name"]))
    for key, slices in tracks.items():
        slices.sort(key=lambda s: (s[0], -(s[1] - s[0])))
        stack = []
        for start, end, name in slices:
            while stack and stack[-1][1] <= start:
                stack.pop()
            assert not stack or end <= stack[-1][1] + 1e-3, (key, name, stack[-1])
            stack.append((start, end, name))
    return tracks


def samples_inside(events, leaf, range_name, tid):
    ranges = [(e["ts"], e["ts"] + e["dur"]) for e in events
              if e["ph"] == "X" and e["name"] == range_name and e["tid"] == tid]
    samples = [e["ts"] for e in events
               if e.get("cat") == "cpu_sample" and e["name"] == leaf and e["tid"] == tid]
    inside = [t for t in samples if any(lo <= t <= hi for lo, hi in ranges)]
    return len(inside), len(samples)


# ---- Timeline ----------------------------------------------------------------------


def test_timeline_of_a_sampled_capture(synced, tmp_path):
    seen, files = synced
    out = tmp_path / "trace.json.gz"
    done = zorvek(["timeline", *files, "-o", str(out)], tmp_path)
    assert done.returncode == 0, done.stderr
    assert done.stderr.count("\n") == 1 and "wrote" in done.stderr
    with open(out, "rb") as raw:
        assert raw.read(2) == b"\x1f\x8b"
    trace = load_trace(out)
    events = trace["traceEvents"]
    pid, main = seen["pid"], seen["main"]

    tracks = assert_slices_nest(events)
    names = {(e["pid"], e["tid"]): e["args"]["name"] for e in events
             if e["ph"] == "M" and e["name"] == "thread_name"}
    assert names[(pid, main)] == "main thread"
    process = [e for e in events if e["ph"] == "M" and e["name"] == "process_name" and e["pid"] == pid]
    assert process and "python" in process[0]["args"]["name"]

    # Ranges: nested per thread, the worker's on its own thread.
    main_slices = [s[2] for s in tracks[(pid, main)]]
    assert main_slices.count("step") == 6 and main_slices.count("phase_a") == 6
    workers = [key for key, slices in tracks.items() if any(s[2] == "worker" for s in slices)]
    assert len(workers) == 1 and workers[0][1] != main
    # A range never ended is closed at the end and says so; one ended on another
    # thread is an async slice; the clock-sync range is not shown.
    unfinished = [e for e in events if e["ph"] == "X" and e["name"].startswith("never_ended")]
    assert len(unfinished) == 1 and "unfinished" in unfinished[0]["args"]
    assert [e["ph"] for e in events if e["name"] == "handed_over"] == ["b", "e"]
    assert not [e for e in events if "clock_sync" in e.get("name", "")]
    # Every slice of a step lies inside it.
    for start, end, name in tracks[(pid, main)]:
        if name.startswith("phase_"):
            assert any(s[2] == "step" and s[0] <= start and end <= s[1] for s in tracks[(pid, main)])

    # Samples: on their threads, with symbolized stacks, innermost first.
    samples = [e for e in events if e.get("cat") == "cpu_sample"]
    assert len(samples) > 100
    leaves = {e["name"] for e in samples}
    assert {"burn_a", "burn_b", "burn_c"} <= leaves
    for e in samples:
        assert e["ph"] == "i" and e["args"]["stack"][0] == e["name"]
    assert all(e["tid"] != main for e in samples if e["name"] == "burn_c")

    # One time axis: the samples in burn_a fall inside the phase_a ranges, taken
    # on another clock (the clock-sync marks tie the two to microseconds).
    inside, total = samples_inside(events, "burn_a", "phase_a", main)
    assert total > 50 and inside >= 0.97 * total, (inside, total)
    inside, total = samples_inside(events, "burn_c", "worker", workers[0][1])
    assert total > 5 and inside >= 0.9 * total, (inside, total)
    assert "clock-sync" in trace["otherData"]["clocks"][0]["cpu_samples"]


def test_timeline_without_clock_sync_marks_still_lines_up(unsynced, tmp_path):
    seen, files = unsynced
    out = tmp_path / "trace.json"
    done = zorvek(["timeline", *files, "-o", str(out)], tmp_path)
    assert done.returncode == 0, done.stderr
    trace = load_trace(out)  # plain JSON when the name doesn't end in .gz
    inside, total = samples_inside(trace["traceEvents"], "burn_a", "phase_a", seen["main"])
    # Placed by the order of the capture's own events or this machine's monotonic
    # clock: within a couple of milliseconds, so only samples at range edges can
    # fall out.
    assert total > 50 and inside >= 0.85 * total, (inside, total, trace["otherData"]["clocks"])


def test_timeline_without_samples_and_for_one_process(synced, tmp_path):
    seen, files = synced
    out = tmp_path / "small.json"
    done = zorvek(["timeline", *files, "--no-samples", "--pid", str(seen["pid"]), "-o", str(out)],
                  tmp_path)
    assert done.returncode == 0, done.stderr
    events = load_trace(out)["traceEvents"]
    assert not [e for e in events if e.get("cat") == "cpu_sample"]
    assert {e["pid"] for e in events} == {seen["pid"]}


# ---- Flame graph -----------------------------------------------------------------------


def collapsed(files, cwd, *more):
    done = zorvek(["flame", *files, "--format", "collapsed", *more], cwd)
    assert done.returncode == 0, done.stderr
    counts = {}
    for line in done.stdout.splitlines():
        stack, n = line.rsplit(" ", 1)
        counts[stack] = counts.get(stack, 0) + int(n)
    return counts, done.stderr


def leaf_counts(counts):
    leaves = {}
    for stack, n in counts.items():
        leaf = stack.split(";")[-1]
        leaves[leaf] = leaves.get(leaf, 0) + n
    return leaves


def test_flame_collapsed_names_the_functions_in_proportion(synced, tmp_path):
    _, files = synced
    counts, _ = collapsed(files, tmp_path)
    for stack in counts:
        frames = stack.split(";")
        assert frames[0].startswith("python") and all(frames)
        assert not any(f.startswith("0xfffffffffffff") for f in frames)  # no context markers
    leaves = leaf_counts(counts)
    a, b = leaves.get("burn_a", 0), leaves.get("burn_b", 0)
    assert a > 60 and b > 20, leaves
    assert 2.0 <= a / b <= 4.5, leaves
    # Root first: the library's functions are called from somewhere else.
    assert any(s.endswith(";burn_a") and s.count(";") >= 2 for s in counts)


def test_flame_range_keeps_only_samples_inside_it(synced, tmp_path):
    seen, files = synced
    leaves = leaf_counts(collapsed(files, tmp_path, "--range", "phase_a")[0])
    assert leaves.get("burn_a", 0) > 50
    assert sum(n for leaf, n in leaves.items() if leaf != "burn_a") <= 0.05 * leaves["burn_a"], leaves
    leaves = leaf_counts(collapsed(files, tmp_path, "--range", "worker")[0])
    assert set(leaves) == {"burn_c"} or leaves.get("burn_c", 0) >= 0.9 * sum(leaves.values())
    leaves = leaf_counts(collapsed(files, tmp_path, "--pid", str(seen["pid"]))[0])
    assert leaves.get("burn_a", 0) > 50


def test_flame_svg_is_self_contained_and_proportional(synced, tmp_path):
    _, files = synced
    out = tmp_path / "flame.svg"
    done = zorvek(["flame", *files, "-o", str(out), "--title", "burn & <test>"], tmp_path)
    assert done.returncode == 0, done.stderr
    root = ElementTree.parse(out).getroot()
    ns = "{http://www.w3.org/2000/svg}"
    assert root.tag == ns + "svg"
    # Self-contained: the script inline, nothing fetched from elsewhere.
    (script,) = list(root.iter(ns + "script"))
    assert script.text and script.get("src") is None and script.get("href") is None
    assert not [e for e in root.iter() if any(k.endswith("href") for k in e.attrib)]
    frames = {}
    for group in root.iter(ns + "g"):
        if group.get("class") != "f":
            continue
        title = group.find(ns + "title").text
        name, samples = title.rsplit(" (", 1)
        rect = group.find(ns + "rect")
        frames.setdefault(name, []).append((int(samples.split()[0]), float(rect.get("width"))))
    (total, full_width), = frames["all"]
    (a, a_width), = frames["burn_a"]
    assert abs(a_width / full_width - a / total) < 0.01
    assert "%" in title
    text = out.read_text()
    assert "burn &amp; &lt;test&gt;" in text


# ---- GPU lanes and launch arrows ---------------------------------------------------------

GPU_SCENARIO = r'''
import ctypes, json, os, sys, threading
fake = ctypes.CDLL(os.environ["ZVK_CUPTI_LIBRARY"])
fake.fake_cupti_emit_kernel.argtypes = [ctypes.c_char_p] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
fake.fake_cupti_emit_memcpy.argtypes = [ctypes.c_uint8, ctypes.c_uint64] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
fake.fake_cupti_fire_api.argtypes = [ctypes.c_int, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_uint32]
fake.fake_cupti_fire_api.restype = ctypes.c_bool
import _zorv

config = _zorv.Config()
config.profiler = {"EnableCuda": "1", "BucketCount": "4", "BucketSizeMB": "4", "RecordFile": "gpu_%p"}
prof = _zorv.Zorvek.instance()
assert repr(prof.configure(config)) == "OK"
prof.start_profiling()
KERNEL = b"_Z11gemm_kernelPfS_i"
tids = {}
def launch(correlation):
    tids[correlation] = threading.get_native_id()
    token = _zorv.annotation_begin("launch")
    assert fake.fake_cupti_fire_api(1, 307, KERNEL, b"cuLaunchKernel", correlation)
    _zorv.annotation_end(token)
threads = [threading.Thread(target=launch, args=(c,)) for c in (21, 22)]
for t in threads: t.start()
for t in threads: t.join()
# The stand-in's clock starts at 1 s and steps 1 us a reading; the work follows
# the calls on it.
BASE = 1000000000
fake.fake_cupti_emit_kernel(KERNEL, 0, 7, 21, BASE + 100000, BASE + 150000)
fake.fake_cupti_emit_kernel(KERNEL, 1, 3, 22, BASE + 120000, BASE + 190000)
fake.fake_cupti_emit_memcpy(1, 1 << 20, 0, 7, 23, BASE + 200000, BASE + 210000)
assert repr(prof.stop_profiling()) == "OK"
print(json.dumps({"pid": os.getpid(), "tids": tids}))
'''


def test_timeline_gpu_lanes_and_flows(tmp_path):
    script = tmp_path / "gpu.py"
    script.write_text(GPU_SCENARIO)
    code, out, err = run_python([str(script)], tmp_path,
                                {"ZVK_CUPTI_LIBRARY": fake_cupti_library()}, 60)
    assert code == 0, err[-4000:]
    seen = json.loads(out.strip().splitlines()[-1])
    files = glob.glob(str(tmp_path / "gpu_*.zvkraw"))
    trace_path = tmp_path / "gpu.json.gz"
    done = zorvek(["timeline", *files, "-o", str(trace_path)], tmp_path)
    assert done.returncode == 0, done.stderr
    trace = load_trace(trace_path)
    events = trace["traceEvents"]
    assert_slices_nest(events)

    processes = {e["pid"]: e["args"]["name"] for e in events
                 if e["ph"] == "M" and e["name"] == "process_name"}
    gpu = {name: pid for pid, name in processes.items() if name.startswith("GPU")}
    assert set(gpu) == {"GPU 0", "GPU 1"}
    lanes = {(e["pid"], e["tid"]): e["args"]["name"] for e in events
             if e["ph"] == "M" and e["name"] == "thread_name" and e["pid"] in gpu.values()}
    assert lanes == {(gpu["GPU 0"], 7): "stream 7", (gpu["GPU 1"], 3): "stream 3"}

    work = [e for e in events if e["ph"] == "X" and e["cat"].startswith("gpu_")]
    kernels = sorted((e["pid"], e["tid"], e["name"], e["args"]["correlation"]) for e in work
                     if e["cat"] == "gpu_kernel")
    assert kernels == [(gpu["GPU 0"], 7, "gemm_kernel(float*, float*, int)", 21),
                       (gpu["GPU 1"], 3, "gemm_kernel(float*, float*, int)", 22)]
    (copy,) = [e for e in work if e["cat"] == "gpu_copy"]
    assert (copy["pid"], copy["tid"], copy["args"]["kind"], copy["args"]["bytes"]) == (
        gpu["GPU 0"], 7, "HtoD", 1 << 20)
    # The spacing on CUPTI's clock is kept: 50 us and 70 us kernels.
    assert sorted(round(e["dur"]) for e in work if e["cat"] == "gpu_kernel") == [50, 70]

    calls = [e for e in events if e["ph"] == "X" and e["cat"] == "cuda_api"]
    assert sorted((e["tid"], e["args"]["correlation"]) for e in calls) == sorted(
        (tid, int(c)) for c, tid in seen["tids"].items())
    assert {e["name"] for e in calls} == {"cuLaunchKernel"}
    # Each arrow starts inside the call on its thread and ends inside the work
    # with the call's correlation id.
    starts = {e["id"]: e for e in events if e["ph"] == "s"}
    finishes = {e["id"]: e for e in events if e["ph"] == "f"}
    assert len(starts) == 2 and set(starts) == set(finishes)
    for flow_id, s in starts.items():
        f = finishes[flow_id]
        assert f["bp"] == "e"
        (call,) = [c for c in calls if c["tid"] == s["tid"] and c["ts"] <= s["ts"] <= c["ts"] + c["dur"]]
        (target,) = [k for k in work if (k["pid"], k["tid"]) == (f["pid"], f["tid"])
                     and k["ts"] <= f["ts"] <= k["ts"] + k["dur"]]
        assert target["args"]["correlation"] == call["args"]["correlation"]
        assert target["ts"] >= call["ts"]
    assert "placed from the capture's start" in trace["otherData"]["clocks"][0]["gpu"]


# ---- Several files of one run ------------------------------------------------------------

FORK_SCENARIO = r'''
import json, os, sys, time
import _zorv
config = _zorv.Config()
config.profiler = {"BucketCount": "4", "BucketSizeMB": "1", "EnableForkFollow": "1",
                   "RecordFile": "multi_%p", "FlushIntervalMs": "100"}
prof = _zorv.Zorvek.instance()
assert repr(prof.configure(config)) == "OK"
prof.start_profiling()
outer = _zorv.annotation_begin("across_files")
time.sleep(0.2)
assert repr(prof.stop_profiling()) == "OK"  # a second capture, a second file
prof.start_profiling()
waiting = _zorv.annotation_begin("waiting_for_child")
child = os.fork()
if child == 0:
    token = _zorv.annotation_begin("child_work")
    time.sleep(0.05)
    _zorv.annotation_end(token)
    prof.stop_profiling()
    os._exit(0)
os.waitpid(child, 0)
_zorv.annotation_end(waiting)
_zorv.annotation_end(outer)
assert repr(prof.stop_profiling()) == "OK"
print(json.dumps({"pid": os.getpid(), "child": child}))
'''


def test_timeline_merges_files_of_a_run_and_a_forked_child(tmp_path):
    script = tmp_path / "multi.py"
    script.write_text(FORK_SCENARIO)
    code, out, err = run_python([str(script)], tmp_path, {}, 60)
    assert code == 0, err[-4000:]
    seen = json.loads(out.strip().splitlines()[-1])
    files = sorted(glob.glob(str(tmp_path / "multi_*.zvkraw")))
    assert len([f for f in files if "_%d_" % seen["pid"] in f]) >= 2, files
    assert [f for f in files if "_%d_" % seen["child"] in f], files
    out_path = tmp_path / "multi.json"
    done = zorvek(["timeline", str(tmp_path), "-o", str(out_path)], tmp_path)  # the folder
    assert done.returncode == 0, done.stderr
    events = load_trace(out_path)["traceEvents"]
    assert_slices_nest(events)
    slices = {e["name"]: e for e in events if e["ph"] == "X"}
    # A range begun in one file and ended in the next is one slice.
    outer = slices["across_files"]
    assert outer["dur"] > 0.2e6 and "unfinished" not in outer["args"]
    # The child's range, from its own file, sits on the same axis inside the time
    # the parent waited for it.
    child, waiting = slices["child_work"], slices["waiting_for_child"]
    assert child["pid"] == seen["child"] and waiting["pid"] == seen["pid"]
    assert waiting["ts"] <= child["ts"] and child["ts"] + child["dur"] <= waiting["ts"] + waiting["dur"]


# ---- Bad input --------------------------------------------------------------------------


@pytest.mark.parametrize("view", ["timeline", "flame"])
def test_bad_input_gets_one_line(view, tmp_path, synced):
    not_capture = tmp_path / "notes.zvkraw"
    not_capture.write_text("just some text, long enough to hold a header " * 4)
    empty = tmp_path / "empty"
    empty.mkdir()
    cases = {
        str(not_capture): "not a Zorvek capture file",
        str(empty): "no .zvkraw capture files",
        str(tmp_path / "missing.zvkraw"): "no such file",
    }
    for path, said in cases.items():
        done = zorvek([view, path, "-o", str(tmp_path / "out")], tmp_path)
        assert done.returncode == 1, (path, done.stderr)
        assert done.stderr.count("\n") == 1 and said in done.stderr, done.stderr
        assert done.stderr.startswith("zorvek %s: " % view)
        assert not (tmp_path / "out").exists()


def test_torn_file_is_read_as_far_as_it_is_whole(synced, tmp_path):
    """The capture's buckets, then the first half of a copy of its first bucket:
    a writer killed in the middle of a bucket leaves such a file."""
    seen, files = synced
    data = open(files[0], "rb").read()
    lengths = struct.unpack_from("<HHHHH", data, 72)
    first = 88 + sum(lengths)
    compressed = struct.unpack_from("<I", data, first + 24)[0]
    torn = tmp_path / "torn.zvkraw"
    torn.write_bytes(data + data[first:first + 32 + compressed // 2])
    whole_out = tmp_path / "whole.json"
    assert zorvek(["timeline", files[0], "-o", str(whole_out)], tmp_path).returncode == 0
    torn_out = tmp_path / "torn.json"
    done = zorvek(["timeline", str(torn), "-o", str(torn_out)], tmp_path)
    assert done.returncode == EXIT_DAMAGED, done.stderr
    (said,) = [line for line in done.stderr.splitlines() if "used what was whole" in line]
    assert said.startswith("zorvek timeline: %s" % torn) and " is torn" in said
    whole, read = load_trace(whole_out)["traceEvents"], load_trace(torn_out)["traceEvents"]
    assert len([e for e in read if e["ph"] == "X"]) == len([e for e in whole if e["ph"] == "X"])
    done = zorvek(["flame", str(torn), "--format", "collapsed"], tmp_path)
    assert done.returncode == EXIT_DAMAGED and "used what was whole" in done.stderr, done.stderr
    assert "burn_a" in done.stdout and "is torn" not in done.stdout


def damaged_variants(path):
    """A capture's bytes made into what a reader meets: buckets its header counts
    that the file lacks (cut at a bucket's end), a corrupted bucket followed by
    whole ones, and a header never finished."""
    data = open(path, "rb").read()
    first = 88 + sum(struct.unpack_from("<HHHHH", data, 72))
    header, buckets = data[:first], data[first:]
    counted = struct.unpack_from("<I", data, 60)[0]

    def with_count(count, end_time=None):
        changed = bytearray(header)
        struct.pack_into("<I", changed, 60, count)
        if end_time is not None:
            struct.pack_into("<Q", changed, 32, end_time)
        return bytes(changed)

    corrupted = bytearray(buckets)
    for i in range(40, 60):
        corrupted[i] ^= 0xFF
    return {
        "cut": (with_count(counted + 1) + buckets, EXIT_DAMAGED,
                "cut short: its header counts %d buckets, the file holds %d whole; used what was "
                "whole" % (counted + 1, counted)),
        "corrupted": (with_count(2 * counted) + bytes(corrupted) + buckets, EXIT_DAMAGED,
                      "bucket 0 at offset %d is damaged" % first),
        "unfinished": (with_count(0, 0) + buckets, EXIT_READ_WHOLE,
                       "unfinished capture: its header counts 0 buckets, the file holds %d whole"
                       % counted),
    }


@pytest.mark.parametrize("view", ["timeline", "flame"])
@pytest.mark.parametrize("case", ["cut", "corrupted", "unfinished"])
def test_damaged_cut_and_unfinished_files_say_so_on_stderr(view, case, synced, tmp_path):
    seen, files = synced
    data, status, said = damaged_variants(files[0])[case]
    path = tmp_path / ("%s.zvkraw" % case)
    path.write_bytes(data)
    if view == "timeline":
        out = tmp_path / "trace.json"
        done = zorvek(["timeline", str(path), "-o", str(out)], tmp_path)
        assert [e for e in load_trace(out)["traceEvents"] if e["ph"] == "X"]
    else:
        done = zorvek(["flame", str(path), "--format", "collapsed"], tmp_path)
        assert "burn_a" in done.stdout
    assert done.returncode == status, done.stderr
    notes = [line for line in done.stderr.splitlines() if said in line]
    assert len(notes) == 1, done.stderr
    assert notes[0].startswith("zorvek %s: %s: " % (view, path))
    assert said not in done.stdout


@pytest.mark.parametrize("view", ["timeline", "flame"])
def test_a_file_not_read_weighs_more_than_a_damaged_one(view, synced, tmp_path):
    seen, files = synced
    data, status, said = damaged_variants(files[0])["cut"]
    cut = tmp_path / "cut.zvkraw"
    cut.write_bytes(data)
    junk = tmp_path / "junk.zvkraw"
    junk.write_bytes(b"\0" * 200)
    done = zorvek([view, str(cut), str(junk), "-o", str(tmp_path / "out")], tmp_path)
    assert done.returncode == EXIT_NOT_READ, done.stderr
    assert "not a Zorvek capture file" in done.stderr


def test_missing_symbol_file_is_a_stated_gap(tmp_path, burn_library):
    library = tmp_path / "libgone.so"
    shutil.copy(burn_library, library)
    seen, files = make_capture(tmp_path / "capture", library, sync=False)
    library.unlink()
    counts, err = collapsed(files, tmp_path)
    gaps = [line for line in err.splitlines() if "(missing: %s)" % library in line]
    assert len(gaps) == 1, err
    assert any(";libgone.so+0x" in stack for stack in counts), list(counts)[:5]
    done = zorvek(["timeline", *files, "-o", str(tmp_path / "t.json")], tmp_path)
    assert done.returncode == 0, done.stderr


def test_help_has_examples_and_exit_statuses(tmp_path):
    for view in ("timeline", "flame"):
        done = zorvek([view, "--help"], tmp_path)
        assert done.returncode == 0
        assert "examples:" in done.stdout and "zorvek %s " % view in done.stdout
        assert " ".join(_reader.EXIT_STATUS_HELP.split()) in " ".join(done.stdout.split())


# ---- The clock model on its own --------------------------------------------------------


def _domain_here():
    from zorvek.views.clock import Domain
    real, raw = time.clock_gettime_ns(time.CLOCK_REALTIME), time.clock_gettime_ns(time.CLOCK_MONOTONIC_RAW)
    domain = Domain(socket.gethostname(), real - raw)
    domain.raw_points = [(raw, real - raw)]
    domain.earliest_start = real - 2_000_000_000
    domain.see_real(real - 2_000_000_000)
    domain.see_real(real)
    return domain, real


def test_gpu_clock_is_recognised_from_its_stamps():
    domain, real = _domain_here()
    domain.gpu_stamps = [real - 1_000_000_000]
    domain.settle([], "auto")
    assert domain.gpu_offset == 0 and "system clock" in domain.gpu_method

    domain, real = _domain_here()
    mono = time.clock_gettime_ns(time.CLOCK_MONOTONIC)
    domain.gpu_stamps = [mono - 1_000_000_000]
    domain.settle([], "auto")
    assert "CLOCK_MONOTONIC" in domain.gpu_method
    assert abs(domain.gpu_to_real(mono - 1_000_000_000) - (real - 1_000_000_000)) < 5_000_000

    domain, real = _domain_here()
    domain.gpu_stamps = [1_000_000_000, 1_000_500_000]  # no clock this host has
    domain.settle([], "auto")
    assert "not recognised" in domain.gpu_method
    assert domain.gpu_to_real(1_000_000_000) == domain.earliest_start
    assert domain.gpu_to_real(1_000_500_000) - domain.gpu_to_real(1_000_000_000) == 500_000


def test_raw_offsets_follow_a_drift_but_not_a_step():
    from zorvek.views.clock import _Offsets
    drifting = _Offsets([(0, 1000), (1_000_000_000, 1010)])  # 10 ns a second
    assert drifting.at(500_000_000) == 1005 and drifting.at(-5) == 1000 and drifting.at(2 * 10 ** 9) == 1010
    stepped = _Offsets([(0, 0), (1_000_000_000, 5_000_000_000)])  # the system clock was set
    assert stepped.at(400_000_000) == 0 and stepped.at(600_000_000) == 5_000_000_000


@pytest.mark.parametrize("width", ["-5", "0", "199", "wide", "1.5"])
def test_flame_refuses_a_width_it_cannot_draw_in(tmp_path, width):
    process = zorvek(["flame", "--width", width, "-o", str(tmp_path / "f.svg"), "whatever.zvkraw"],
                     tmp_path)
    assert process.returncode == 2
    assert f"argument --width: {width!r}" in process.stderr
    assert not (tmp_path / "f.svg").exists()


# ---- Stack samples: merged Python and native stacks --------------------------------


def _record(timestamp, hw, event, pid, tid, payload):
    payload += b"\0" * (-len(payload) % 8)
    return struct.pack("<QIIIHH", timestamp, (hw << 28) | event, pid, tid, 0,
                       len(payload)) + payload


def _stack_sample(ts, pid, tid, ips, frames, waiting=False):
    """A STACK record: ips leaf first, frames (code id, offset, entry) leaf first."""
    flags = (1 | 8) if waiting else 0  # waiting, no native walk
    payload = struct.pack("<QHHBBH", 10_000_000, len(ips), len(frames), 1 if waiting else 0,
                          flags, 0)
    payload += struct.pack("<%dQ" % len(ips), *ips)
    for code_id, offset, entry in frames:
        payload += struct.pack("<II", code_id, offset | (0x80000000 if entry else 0))
    return _record(ts, 0, 16, pid, tid, payload)


def _python_code(ts, pid, code_id, code, filename):
    qualname, name = code.co_qualname.encode(), filename.encode()
    table = code.co_linetable
    payload = struct.pack("<IiIHHII", code_id, code.co_firstlineno, sys.hexversion, len(qualname),
                          len(name), len(table), 0) + qualname + name + table
    return _record(ts, 0, 17, pid, tid=pid + 1, payload=payload)


def _mapping(ts, pid, start, length, pgoff, name):
    """An MMAP record as the stack sampler writes it: no kernel ids, the system
    clock, its own thread."""
    name = name.encode()
    payload = struct.pack("<QQQQQQ", 0, 0, start, length, pgoff, len(name)) + name + b"\0"
    return _record(ts, 0, 6, pid, pid + 1, payload)


def _annotation(ts, event, pid, tid, token, msg=""):
    payload = struct.pack("<Q", token) + (msg.encode() + b"\0" if event == 0 else b"")
    return _record(ts, 5, event, pid, tid, payload)


def _offsets(code, wanted):
    at = next(i for i in dis.get_instructions(code) if i.opname.startswith(wanted))
    return at.offset


@pytest.fixture(scope="module")
def stacked(tmp_path_factory, synced, burn_library):
    """A capture of stack samples of a process whose mappings are this test's
    own: its interpreter and the burn library, with Python code from app.py.
    Thread T1 runs main > step > (PyObject_Call) > inner > burn_a, 6 samples, the
    first 3 inside a range "phase"; thread T2 waits in main > step, 3 samples."""
    folder = tmp_path_factory.mktemp("stacked")
    app = folder / "app.py"
    app.write_text(APP)
    namespace = {}
    exec(compile(APP, str(app), "exec"), namespace)
    codes = {name: namespace[name].__code__ for name in ("main", "step", "inner")}
    ids = {"main": 1, "step": 2, "inner": 3}
    burn = ctypes.CDLL(str(burn_library))
    api = ctypes.pythonapi

    def address(function):
        return ctypes.cast(function, ctypes.c_void_p).value

    leaf = address(burn.burn_a) + 4
    native = [leaf, address(api._PyEval_EvalFrameDefault) + 5, address(api.PyObject_Call) + 5,
              address(api._PyEval_EvalFrameDefault) + 5, address(api.Py_RunMain) + 5]
    frames = [(ids["inner"], _offsets(codes["inner"], "RETURN"), True),
              (ids["step"], _offsets(codes["step"], "CALL"), False),
              (ids["main"], _offsets(codes["main"], "CALL"), True)]

    header = bucket_header(synced[1][0])
    pid = struct.unpack_from("<I", header, 48)[0]
    t1, t2 = pid + 7, pid + 8
    start = struct.unpack_from("<Q", header, 24)[0] + 1000
    records = []
    with open("/proc/self/maps") as maps:
        for line in maps:
            parts = line.split(None, 5)
            if parts[1][2] == "x":
                lo, hi = (int(x, 16) for x in parts[0].split("-"))
                records.append(_mapping(start, pid, lo, hi - lo, int(parts[2], 16),
                                        parts[5].strip() if len(parts) > 5 else ""))
    for name, code in codes.items():
        records.append(_python_code(start + 1, pid, ids[name], code, str(app)))
    records.append(_annotation(start + 2, 0, pid, t1, 41, "phase"))
    for i in range(6):
        records.append(_stack_sample(start + 10 + i * 10, pid, t1, native, frames))
        if i == 2:
            records.append(_annotation(start + 35, 1, pid, t1, 41))
    for i in range(3):
        records.append(_stack_sample(start + 15 + i * 10, pid, t2, [], frames[1:], waiting=True))
    path = folder / ("stacked_%d_0.zvkraw" % pid)
    data = b"".join(records)
    stream = zlib.compress(data, 1)
    stamps = [struct.unpack_from("<Q", r)[0] for r in records]
    header = bytearray(header)
    # One bucket, and room for it.
    struct.pack_into("<III", header, 52, max(struct.unpack_from("<I", header, 52)[0], len(stream)),
                     max(struct.unpack_from("<I", header, 56)[0], len(data)), 1)
    path.write_bytes(bytes(header) + struct.pack("<QQQII", min(stamps), max(stamps), len(records),
                                                 len(stream), len(data)) + stream)
    lines = {name: next(line for s, e, line in code.co_lines()
                        if s <= dict((f[0], f[1]) for f in frames)[ids[name]] < e)
             for name, code in codes.items()}
    return str(path), {name: "%s (app.py:%d)" % (name, lines[name]) for name in codes}, (t1, t2)


def bucket_header(path):
    """The header bytes of a capture file."""
    data = open(path, "rb").read()
    return data[:88 + sum(struct.unpack_from("<HHHHH", data, 72))]


def test_flame_shows_merged_python_and_native_stacks(stacked, tmp_path):
    path, frames, _ = stacked
    counts, stderr = collapsed([path], tmp_path)
    assert sum(counts.values()) == 9, counts
    (running,) = [s for s in counts if s.endswith(";burn_a")]
    python = ";".join([frames["main"], frames["step"]])
    # PyObject_Call, the interpreter's own call between two Python frames, is left out.
    assert running.endswith(";%s;%s;burn_a" % (python, frames["inner"])), running
    assert "_PyEval_EvalFrameDefault" not in running
    assert counts[running] == 6
    assert counts[running.split(";")[0] + ";" + python + ";[waiting]"] == 3, counts
    # The range's edges cut stack samples on the system clock.
    counts, _ = collapsed([path], tmp_path, "--range", "phase")
    assert counts == {running: 3}


def test_flame_svg_of_stack_samples_names_python_frames(stacked, tmp_path):
    path, frames, (t1, t2) = stacked
    out = tmp_path / "flame.svg"
    done = zorvek(["flame", path, "-o", str(out)], tmp_path)
    assert done.returncode == 0, done.stderr
    svg = ElementTree.parse(out).getroot()
    titles = [t.text for t in svg.iter("{http://www.w3.org/2000/svg}title")]
    assert any(t.startswith(frames["inner"] + " (6 samples") for t in titles), titles
    assert any(t.startswith("[waiting] (3 samples") for t in titles), titles
    # Threads that gave themselves no name are told apart by their ids.
    assert any(t.startswith("thread %d (6 samples" % t1) for t in titles), titles
    assert any(t.startswith("thread %d (3 samples" % t2) for t in titles), titles


def test_timeline_samples_hold_merged_stacks_leaf_first(stacked, tmp_path):
    path, frames, (t1, t2) = stacked
    out = tmp_path / "trace.json"
    done = zorvek(["timeline", path, "-o", str(out)], tmp_path)
    assert done.returncode == 0, done.stderr
    samples = [e for e in load_trace(out)["traceEvents"] if e.get("cat") == "cpu_sample"]
    assert len(samples) == 9
    running = [e for e in samples if e["tid"] == t1]
    waiting = [e for e in samples if e["tid"] == t2]
    assert len(running) == 6 and len(waiting) == 3
    stack = running[0]["args"]["stack"]
    assert running[0]["name"] == "burn_a" == stack[0]
    assert stack[1:3] == [frames["inner"], frames["step"]]
    # The interpreter's startup frames root-side of the Python code are left out.
    assert stack[3:] == [frames["main"]]
    assert running[0]["args"]["clock"] == "cpu" and "waiting" not in running[0]["args"]
    assert waiting[0]["args"]["stack"] == ["[waiting]", frames["step"], frames["main"]]
    assert waiting[0]["args"]["waiting"] is True and waiting[0]["args"]["clock"] == "wall"
    # On the system clock, 10 ns apart, in their order.
    assert sorted(e["ts"] for e in running) == [e["ts"] for e in running]


def test_summary_top_functions_are_the_users_by_self_and_total_time(stacked, tmp_path):
    path, frames, _ = stacked
    done = subprocess.run([sys.executable, "-m", "zorvek", "summary", "--json", path],
                          capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    (process,) = [p for p in json.loads(done.stdout)["processes"] if p["cpu"]["stack_samples"]]
    cpu = process["cpu"]
    assert cpu["stack_samples"] == 9
    functions = {f["function"]: f for f in cpu["functions"]}
    assert functions["burn_a"]["samples"] == 6 and functions["[waiting]"]["samples"] == 3
    assert functions["main (app.py)"]["total_samples"] == 9
    assert functions["main (app.py)"]["samples"] == 0
    assert functions["inner (app.py)"]["total_samples"] == 6
    assert abs(functions["burn_a"]["share"] - 6 / 9) < 1e-9
    python = [f["function"] for f in cpu["python_functions"]]
    assert python == ["main (app.py)", "step (app.py)", "inner (app.py)"]
    assert sorted(t["samples"] for t in cpu["by_thread"]) == [3, 6]
    text = subprocess.run([sys.executable, "-m", "zorvek", "summary", path], capture_output=True,
                          text=True, timeout=120).stdout
    assert "9 stack samples on 2 threads" in text, text
    assert "Python functions by total time" in text and "inner (app.py)" in text
