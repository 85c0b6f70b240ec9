"""The capture reader bound to Python (zorvek._reader) and `zorvek summary`, on
real captures made here in fresh interpreters: annotations from threads with
known counts and durations, CPU samples of the software CPU clock, among them
samples in a function of a library built here with symbols, and GPU records from
the CUPTI stand-in. The reader's dicts are checked record by record against the
tests' own decoder, the summary's numbers against what the scenario put in, and
bad input against one-line errors and exit codes."""

import collections
import glob
import json
import math
import os
import shutil
import struct
import subprocess
import sys
import textwrap
import time
import zlib

import pytest

from zvk_testing import (ANNOTATION, BEGIN, CPU, END, GPU, fake_cupti_library, read_capture,
                         run_python)

from zorvek import _reader

CPU_CLOCK = "1,0,1000003,743,0,0,0"
# (name, ranges per thread, threads, seconds each): "step" passes the summary's
# exactly kept durations, so its percentiles come from the histogram.
RANGES = {"step": (12, 3, 0.004), "load": (3, 1, 0.010)}
KERNELS = [  # name, device, start, end
    ("gemm_kernel", 0, 1000, 3000), ("gemm_kernel", 1, 5000, 6500), ("gemm_kernel", 0, 7000, 7100),
    ("relu_kernel", 0, 8000, 8400), ("relu_kernel", 0, 9000, 9600)]
COPIES = [(1, 4096, 10000, 11000), (1, 4096, 12000, 12500), (2, 8192, 13000, 15000)]  # kind, bytes
API_CALLS = 3
BURN_FUNCTION = "zvk_test_burn_cycles"

BURN_SOURCE = r"""
/* A function that takes CPU time where the samples can name it. */
unsigned long long zvk_test_burn_cycles(unsigned long long n) {
  volatile unsigned long long x = 0;
  for (unsigned long long i = 0; i < n; ++i) x += i * i;
  return x;
}
"""

SCENARIO = textwrap.dedent("""
    import ctypes, json, os, sys, threading, time
    fake = ctypes.CDLL(os.environ["ZVK_CUPTI_LIBRARY"])
    fake.fake_cupti_emit_kernel.argtypes = [ctypes.c_char_p] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
    fake.fake_cupti_emit_memcpy.argtypes = [ctypes.c_uint8, ctypes.c_uint64] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
    fake.fake_cupti_fire_api.argtypes = [ctypes.c_int, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_uint32]
    fake.fake_cupti_fire_api.restype = ctypes.c_bool
    import _zorv

    ranges, kernels, copies, api_calls = json.loads(sys.argv[2])
    config = _zorv.Config()
    config.profiler = {"EnableCuda": "1", "EnablePerf": "1", "BucketCount": "8", "BucketSizeMB": "1",
                       "FlushIntervalMs": "100", "RecordFile": sys.argv[1]}
    config.perf = {"EventConfigs": sys.argv[3], "InheritEvents": "1", "RecordMappings": "1"}
    profiler = _zorv.Zorvek.instance()
    assert repr(profiler.configure(config)) == "OK"
    profiler.start_profiling()

    for name, device, start, end in kernels:
        assert fake.fake_cupti_emit_kernel(name.encode(), device, 7, 100, start, end)
    for kind, size, start, end in copies:
        assert fake.fake_cupti_emit_memcpy(kind, size, 0, 7, 300, start, end)
    for i in range(api_calls):
        assert fake.fake_cupti_fire_api(1, 307, b"gemm_kernel", b"cuLaunchKernel", 1000 + i)

    def annotate(name, count, seconds):
        for _ in range(count):
            token = _zorv.annotation_begin(name)
            time.sleep(seconds)
            _zorv.annotation_end(token)

    threads = [threading.Thread(target=annotate, args=(name, count, seconds))
               for name, (count, nthreads, seconds) in ranges.items() for _ in range(nthreads)]
    for t in threads: t.start()
    # CPU time in a library loaded after sampling started: the kernel announces
    # its mapping, and its symbols name the samples.
    burn = None
    if len(sys.argv) > 4:
        burn = ctypes.CDLL(sys.argv[4])
        burn.zvk_test_burn_cycles.argtypes = [ctypes.c_ulonglong]
        began = time.thread_time()
        while time.thread_time() - began < 0.4:
            burn.zvk_test_burn_cycles(200000)
    for t in threads: t.join()
    assert repr(profiler.stop_profiling()) == "OK"
    print(json.dumps({"pid": os.getpid()}), flush=True)
""")


def build_burn_library(folder):
    compiler = shutil.which("cc") or shutil.which("gcc")
    if compiler is None:
        return None
    source = os.path.join(folder, "burn.c")
    library = os.path.join(folder, "libzvkburn.so")
    with open(source, "w") as f:
        f.write(BURN_SOURCE)
    built = subprocess.run([compiler, "-shared", "-fPIC", "-O1", "-g", "-o", library, source],
                           capture_output=True)
    return library if built.returncode == 0 else None


@pytest.fixture(scope="module")
def rich(tmp_path_factory):
    """One capture with every lane: (path, pid, whether a symbol-named library
    was sampled)."""
    folder = tmp_path_factory.mktemp("rich")
    script = folder / "scenario.py"
    script.write_text(SCENARIO)
    library = build_burn_library(str(folder))
    plan = json.dumps([RANGES, KERNELS, COPIES, API_CALLS])
    args = [str(script), str(folder / "rich_%p"), plan, CPU_CLOCK] + ([library] if library else [])
    env = {"ZVK_CUPTI_LIBRARY": fake_cupti_library()}
    code, out, err = run_python(args, cwd=folder, env=env, timeout=120)
    assert code == 0, err[-4000:]
    (path,) = glob.glob(str(folder / "rich_*.zvkraw"))
    return path, json.loads(out.splitlines()[-1])["pid"], library is not None


def summary_command(*args, cwd=None):
    """`zorvek summary` in a fresh interpreter: exit code, stdout, stderr."""
    process = subprocess.run([sys.executable, "-m", "zorvek", "summary", *args], cwd=cwd,
                             capture_output=True, text=True, timeout=300)
    return process.returncode, process.stdout, process.stderr


def all_records(capture):
    return [record for batch in capture.batches() for record in batch]


def bucket_spans(path):
    """(header bytes, [(offset, length) of each bucket]) of a whole file."""
    data = open(path, "rb").read()
    lengths = struct.unpack_from("<HHHHH", data, 72)
    at = 88 + sum(lengths)
    header, spans = data[:at], []
    while at + 32 <= len(data):
        compressed = struct.unpack_from("<I", data, at + 24)[0]
        spans.append((at, 32 + compressed))
        at += 32 + compressed
    return header, spans, data


# ---- The reader's records ----------------------------------------------------------

HW_NAMES = {CPU: "CPU", GPU: "GPU", ANNOTATION: "ANNOTATION"}
ANNOTATION_EVENTS = {0: "BEGIN", 1: "END", 2: "TIME_MARKER", 3: "MARKER"}
CPU_EVENTS = {0: "CONFIGURATION", 1: "SAMPLE", 2: "THROTTLE", 3: "UNTHROTTLE", 4: "LOST",
              6: "MMAP", 7: "FORK", 8: "EXIT", 16: "STACK", 17: "PYCODE", 18: "APISTACK"}
GPU_EVENTS = {0: "KERNEL_NAME", 1: "KERNEL", 2: "CONCURRENT_KERNEL", 3: "SYNCRONIZATION",
              4: "MEMCOPY", 5: "MEMCOPY_P2P", 6: "MEMSET", 7: "DRIVER", 8: "RUNTIME",
              9: "CUDA_API"}
# The fields the tests' decoder reads, by the reader's names where they differ.
CPU_FIELDS = ("perf_type", "config", "config1", "config2", "precise", "period", "format_id",
              "ip", "id", "stream_id", "chain", "lost", "addr", "len", "pgoff", "filename",
              "ppid", "ptid", "device")
GPU_FIELDS = {"KERNEL_NAME": {"id": "id", "name": "name"},
              "KERNEL": {"end": "end", "name_id": "name_id", "device": "device_id",
                         "correlation": "correlation", "stream": "stream"},
              "MEMCOPY": {"end": "end", "bytes": "bytes", "copy_kind": "copy_kind",
                          "correlation": "correlation", "stream": "stream"},
              "CUDA_API": {"end": "end", "domain": "domain", "cbid": "cbid",
                           "correlation": "correlation", "func_name_id": "func_name_id",
                           "chain": "chain"}}


def event_of(theirs):
    table = {CPU: CPU_EVENTS, GPU: GPU_EVENTS, ANNOTATION: ANNOTATION_EVENTS}[theirs["hw"]]
    return table[theirs["type"] & 0xFFF if theirs["hw"] == GPU else theirs["type"]]


def test_every_record_matches_the_tests_own_decoding(rich):
    path, pid, _ = rich
    capture = _reader.CaptureFile(path)
    expected = read_capture(path)
    header = capture.header
    for key in ("version", "compression", "pid", "start_time", "end_time", "clock_shift",
                "num_buckets"):
        assert header[key] == expected.header[key], key
    assert header["pid"] == pid and header["hostname"]
    assert capture.file_size == os.path.getsize(path) and capture.path == path

    ours = all_records(capture)
    assert capture.problems == [] and not capture.torn
    assert capture.buckets == expected.buckets > 1
    assert len(ours) == len(expected.records)
    seen = collections.Counter()
    for mine, theirs in zip(ours, expected.records):
        assert {k: mine[k] for k in ("timestamp", "pid", "tid")} == {
            k: theirs[k] for k in ("timestamp", "pid", "tid")}
        assert mine["hw"] == HW_NAMES[theirs["hw"]]
        assert mine["event"] == event_of(theirs)
        assert "raw" not in mine
        seen[mine["hw"], mine["event"]] += 1
        if theirs["hw"] == ANNOTATION:
            if mine["event"] == "TIME_MARKER":
                assert len(mine["monotonic_raw"]) == len(mine["realtime"]) == 16
                assert all(mine["realtime"]) and all(mine["monotonic_raw"])
            else:
                assert mine["token"] == theirs["token"]
                assert mine.get("msg") == theirs.get("msg")
        elif theirs["hw"] == CPU:
            for key in CPU_FIELDS:
                if key in theirs:
                    assert mine[key] == theirs[key], (key, mine, theirs)
        else:
            for their_key, my_key in GPU_FIELDS.get(mine["event"], {}).items():
                assert mine[my_key] == theirs[their_key], (my_key, mine, theirs)
    # Every lane reached the file, and so the comparison covered each.
    for kind in [("ANNOTATION", "BEGIN"), ("ANNOTATION", "END"), ("ANNOTATION", "TIME_MARKER"),
                 ("CPU", "CONFIGURATION"), ("CPU", "SAMPLE"), ("CPU", "MMAP"),
                 ("GPU", "KERNEL_NAME"), ("GPU", "KERNEL"), ("GPU", "MEMCOPY"),
                 ("GPU", "CUDA_API")]:
        assert seen[kind] > 0, kind


def test_gpu_records_have_every_named_field(rich):
    capture = _reader.CaptureFile(rich[0])
    records = [r for b in capture.batches(kinds={"KERNEL", "MEMCOPY", "KERNEL_NAME"}) for r in b]
    kernels = [r for r in records if r["event"] == "KERNEL"]
    assert [(r["timestamp"], r["end"], r["device_id"]) for r in kernels] == [
        (start, end, device) for _, device, start, end in KERNELS]
    for kernel in kernels:
        assert set(kernel) >= {"end", "completed", "grid", "block", "registers",
                               "static_shared_mem", "stream", "correlation", "name_id",
                               "device_id"}
        assert isinstance(kernel["grid"], tuple) and len(kernel["block"]) == 3
    names = {r["id"]: r["name"] for r in records
             if r["event"] == "KERNEL_NAME" and r["table"] == "kernel"}
    assert [names[r["name_id"]] for r in kernels] == [k[0] for k in KERNELS]
    copies = [r for r in records if r["event"] == "MEMCOPY"]
    assert [(r["copy_kind"], r["bytes"], r["end"] - r["timestamp"]) for r in copies] == [
        (kind, size, end - start) for kind, size, start, end in COPIES]
    assert all({"src_kind", "dst_kind", "stream", "correlation"} <= set(r) for r in copies)


def test_kinds_keep_only_those_records(rich):
    capture = _reader.CaptureFile(rich[0])
    every = collections.Counter(r["event"] for r in all_records(capture))
    samples = [r for b in capture.batches(kinds={"SAMPLE", "MMAP"}) for r in b]
    assert collections.Counter(r["event"] for r in samples) == {
        "SAMPLE": every["SAMPLE"], "MMAP": every["MMAP"]}
    assert all(len(r["chain"]) % 2 == 0 and r["chain"] for r in samples if r["event"] == "SAMPLE")
    assert [b for b in capture.batches(kinds=set())] == []
    with pytest.raises(ValueError, match="unknown record kind 'SAMPLES'"):
        capture.batches(kinds={"SAMPLES"})


def test_a_short_payload_comes_back_as_bytes(tmp_path, rich):
    """A BEGIN whose payload can't hold its token: the record keeps its name and
    comes with its bytes, no decoded field."""
    header, spans, data = bucket_spans(rich[0])
    record = struct.pack("<QIIIHH", 5, (5 << 28) | 0, 11, 12, 0, 4) + b"\x01\x02\x03\x04"
    stream = zlib.compress(record, 1)
    bucket = struct.pack("<QQQII", 5, 5, 1, len(stream), len(record)) + stream
    path = tmp_path / "short.zvkraw"
    path.write_bytes(header + bucket)
    (only,) = all_records(_reader.CaptureFile(str(path)))
    assert only == {"timestamp": 5, "hw": "ANNOTATION", "event": "BEGIN", "pid": 11, "tid": 12,
                    "device": 0, "event_type": 0, "raw": b"\x01\x02\x03\x04"}


def synthetic_record(timestamp, hw, event, pid, tid, payload, chain=(), device=0):
    word = (hw << 28) | ((device & 0xFF) << 20) | (event & 0xFFFFF)
    return (struct.pack("<QIIIHH", timestamp, word, pid, tid, len(chain) // 2, len(payload))
            + struct.pack(f"<{len(chain)}Q", *chain) + payload)


def write_synthetic(path, header, records):
    """A capture of the given header bytes and one bucket of `records`."""
    data = b"".join(records)
    stamps = [struct.unpack_from("<Q", r)[0] for r in records]
    stream = zlib.compress(data, 1)
    path.write_bytes(header + struct.pack("<QQQII", min(stamps), max(stamps), len(records),
                                          len(stream), len(data)) + stream)


def gpu_records_no_scenario_makes(pid, tid):
    """A synchronization, a peer copy, a memset and a driver call of `pid`, with
    known fields (the stand-in can't emit them from Python)."""
    return [
        synthetic_record(100, GPU, 3 | (3 << 12), pid, 5, struct.pack("<QII", 160, 9, 4)),
        synthetic_record(200, GPU, 5 | (10 << 12), pid, 0, struct.pack(
            "<QQBBBB4xIIIIII", 260, 1 << 20, 10, 3, 3, 0, 0, 1, 11, 6, 2, 3)),
        synthetic_record(300, GPU, 6 | (2 << 12), pid, 0, struct.pack(
            "<QQIIIHH", 340, 4096, 7, 12, 6, 0, 3)),
        synthetic_record(400, GPU, 7, pid, tid, struct.pack("<QIIII", 450, pid, tid, 13, 0)),
    ]


def test_the_kinds_no_scenario_makes_are_decoded_and_added_up(tmp_path, rich):
    """Records the stand-in can't emit from Python (memsets, synchronizations,
    driver and runtime activity, peer copies, LOST, THROTTLE, EXIT, MARKER),
    written here with known fields."""
    header = bucket_spans(rich[0])[0]
    pid, tid = 77, 78
    records = [
        *gpu_records_no_scenario_makes(pid, tid),
        synthetic_record(500, GPU, 8, pid, tid, struct.pack("<QIIII", 520, pid, tid, 14, 2)),
        synthetic_record(600, CPU, 4, pid, tid, struct.pack("<QQQ", 1, 2, 17)),
        synthetic_record(700, CPU, 2, pid, tid, struct.pack("<QQ", 1, 2)),
        synthetic_record(710, CPU, 3, pid, tid, struct.pack("<QQ", 1, 2)),
        synthetic_record(720, CPU, 8, pid, tid, struct.pack("<QQII", 1, 2, pid, tid)),
        # An END read before its BEGIN still closes the range, and a marker is counted.
        synthetic_record(2_000, ANNOTATION, END, pid, tid, struct.pack("<Q", 41)),
        synthetic_record(1_000, ANNOTATION, BEGIN, pid, tid, struct.pack("<Q", 41) + b"late\0\0\0\0"),
        synthetic_record(1_500, ANNOTATION, 3, pid, tid, struct.pack("<Q", 0) + b"mark\0\0\0\0"),
        synthetic_record(1_600, CPU, 1, pid, tid, struct.pack("<QQQ", 0x401000, 1, 2),
                         chain=(0xFFFFFFFFFFFFFE00, 0x401000, 0x402000, 0)),
    ]
    path = tmp_path / "kinds.zvkraw"
    write_synthetic(path, header, records)
    got = {r["event"]: r for r in all_records(_reader.CaptureFile(path))}
    common = {"pid": pid, "device": 0}
    assert got["SYNCRONIZATION"] == {**common, "timestamp": 100, "hw": "GPU", "tid": 5,
                                     "event": "SYNCRONIZATION", "end": 160, "sync_type": 3,
                                     "stream": 4, "correlation": 9}
    assert got["MEMCOPY_P2P"] == {**common, "timestamp": 200, "hw": "GPU", "tid": 0,
                                  "event": "MEMCOPY_P2P", "end": 260, "bytes": 1 << 20,
                                  "copy_kind": 10, "src_kind": 3, "dst_kind": 3, "stream": 6,
                                  "correlation": 11, "src_device": 0, "dst_device": 1}
    assert got["MEMSET"] == {**common, "timestamp": 300, "hw": "GPU", "tid": 0, "event": "MEMSET",
                             "end": 340, "bytes": 4096, "value": 7, "stream": 6,
                             "correlation": 12, "memkind": 3}
    assert got["DRIVER"] == {**common, "timestamp": 400, "hw": "GPU", "tid": tid,
                             "event": "DRIVER", "end": 450, "api_pid": pid, "api_tid": tid,
                             "correlation": 13, "return_value": 0}
    assert got["RUNTIME"]["return_value"] == 2 and got["RUNTIME"]["end"] == 520
    assert got["LOST"]["lost"] == 17 and got["THROTTLE"]["id"] == 1
    assert got["UNTHROTTLE"]["stream_id"] == 2
    assert (got["EXIT"]["ppid"], got["EXIT"]["ptid"]) == (pid, tid)
    assert got["MARKER"]["msg"] == "mark" and got["MARKER"]["token"] == 0
    assert got["SAMPLE"]["chain"] == [0xFFFFFFFFFFFFFE00, 0x401000, 0x402000, 0]

    (process,) = _reader.summarize(path)["processes"]
    gpu, cpu = process["gpu"], process["cpu"]
    assert gpu["syncs"] == [{"type": "STREAM_SYNCHRONIZE", "sync_type": 3, "count": 1,
                             "total_ns": 60}]
    assert gpu["copies"] == [{"kind": "PTOP", "copy_kind": 10, "count": 1, "bytes": 1 << 20,
                              "total_ns": 60}]
    assert gpu["memsets"] == {"count": 1, "bytes": 4096, "total_ns": 40}
    assert gpu["driver"] == {"count": 1, "total_ns": 50}
    assert gpu["runtime"] == {"count": 1, "total_ns": 20}
    assert (cpu["lost"], cpu["lost_records"], cpu["throttles"], cpu["unthrottles"],
            cpu["exits"]) == (17, 1, 1, 1, 1)
    assert cpu["ips"] == [(0x401000, 1)]
    (late,) = process["ranges"]
    assert (late["name"], late["count"], late["total_ns"], late["p50_ns"]) == ("late", 1, 1000, 1000)
    assert process["markers"] == 1 and process["ends_without_begin"] == 0
    assert process["wall_ns"] == 1000 and late["share"] == 1.0


def test_progress_is_called_a_few_times_a_second_and_ends_at_the_total(tmp_path, rich):
    """A file of the same bucket many times over, read slowly enough (records
    become dicts) to take more than a second."""
    header, spans, data = bucket_spans(rich[0])
    offset, length = max(spans, key=lambda span: span[1])
    path = tmp_path / "repeated.zvkraw"
    copies = 1
    with open(path, "wb") as f:
        f.write(header)
        while f.tell() < 12_000_000 and copies < 4000:
            f.write(data[offset:offset + length])
            copies += 1
    calls, times = [], []
    capture = _reader.CaptureFile(str(path))
    began = time.monotonic()
    for batch in capture.batches(progress=lambda done, total: (calls.append((done, total)),
                                                              times.append(time.monotonic()))):
        pass
    elapsed = time.monotonic() - began
    size = os.path.getsize(path)
    if elapsed < 0.5:
        pytest.skip(f"read in {elapsed:.2f} s: too fast to see progress")
    assert calls and calls[-1] == (size, size)
    assert [done for done, _ in calls] == sorted(done for done, _ in calls)
    assert all(total == size for _, total in calls)
    assert len(calls) <= elapsed * 5 + 2


# ---- summarize -----------------------------------------------------------------------

def exact_ranges(records):
    """Durations by name, matching BEGIN and END by token as the tests' decoder
    gives them."""
    begins, durations = {}, collections.defaultdict(list)
    for r in records:
        if r["hw"] == ANNOTATION and r["type"] == BEGIN:
            begins[r["token"]] = r
    for r in records:
        if r["hw"] == ANNOTATION and r["type"] == END and r["token"] in begins:
            begin = begins.pop(r["token"])
            durations[begin["msg"]].append(r["timestamp"] - begin["timestamp"])
    return durations


def nearest_rank(values, q):
    values = sorted(values)
    return values[min(max(math.ceil(q * len(values)), 1), len(values)) - 1]


def test_summarize_adds_up_what_the_scenario_put_in(rich):
    path, pid, _ = rich
    result = _reader.summarize([path])
    expected = read_capture(path)
    (process,) = result["processes"]
    assert process["pid"] == pid and process["files"] == [path]
    assert result["problems"] == [] and result["files"][0]["records"] == len(expected.records)
    assert process["records"] == len(expected.records) and process["undecoded"] == 0

    # Annotation ranges: counts as put in, durations at least the sleep and the
    # same as matched by hand, percentiles within the histogram's resolution.
    ranges = {r["name"]: r for r in process["ranges"]}
    durations = exact_ranges(expected.records)
    stamps = [r["timestamp"] for r in expected.records
              if r["hw"] == ANNOTATION and r["type"] != 2]
    assert process["wall_ns"] == max(stamps) - min(stamps)
    assert set(ranges) == set(RANGES)
    for name, (count, threads, seconds) in RANGES.items():
        r = ranges[name]
        assert r["count"] == count * threads == len(durations[name])
        assert r["total_ns"] == sum(durations[name])
        assert r["min_ns"] == min(durations[name]) >= seconds * 1e9
        assert r["max_ns"] == max(durations[name])
        assert seconds * 1e9 <= r["mean_ns"] < seconds * 1e9 + 0.2e9
        for key, q in (("p50_ns", 0.5), ("p99_ns", 0.99)):
            exact = nearest_rank(durations[name], q)
            assert abs(r[key] - exact) <= exact * 0.017 + 1, (name, key, r[key], exact)
        assert r["share"] == pytest.approx(r["total_ns"] / process["wall_ns"])
    assert process["begins_without_end"] == process["ends_without_begin"] == 0

    # CPU samples: every one counted, by thread and by instruction pointer.
    samples = [r for r in expected.records if r["hw"] == CPU and r["type"] == 1]
    cpu = process["cpu"]
    assert cpu["samples"] == len(samples) > 0
    assert {t["tid"]: t["samples"] for t in cpu["by_thread"]} == collections.Counter(
        r["tid"] for r in samples)
    assert dict(cpu["ips"]) == collections.Counter(r["ip"] for r in samples)
    assert [n for _, n in cpu["ips"]] == sorted((n for _, n in cpu["ips"]), reverse=True)
    mmaps = {(r["addr"], r["len"], r["pgoff"], r["filename"]) for r in expected.records
             if r["hw"] == CPU and r["type"] == 6}
    assert {(m["addr"], m["len"], m["pgoff"], m["filename"]) for m in cpu["mappings"]} == mmaps
    lost = [r for r in expected.records if r["hw"] == CPU and r["type"] == 4]
    assert cpu["lost"] == sum(r["lost"] for r in lost) and cpu["lost_records"] == len(lost)
    assert [c["period"] for c in cpu["configurations"]] and all(
        c["perf_type"] == 1 and c["period"] == 1000003 for c in cpu["configurations"])

    # GPU: kernels by name, copies by kind, calls by function.
    gpu = process["gpu"]
    by_name = collections.defaultdict(lambda: [0, 0])
    for name, _, start, end in KERNELS:
        by_name[name][0] += 1
        by_name[name][1] += end - start
    assert {k["name"]: [k["count"], k["total_ns"]] for k in gpu["kernels"]} == by_name
    assert [k["name"] for k in gpu["kernels"]] == ["gemm_kernel", "relu_kernel"]  # most time first
    kinds = collections.defaultdict(lambda: [0, 0, 0])
    for kind, size, start, end in COPIES:
        kinds[kind][0] += 1
        kinds[kind][1] += size
        kinds[kind][2] += end - start
    assert {c["copy_kind"]: [c["count"], c["bytes"], c["total_ns"]] for c in gpu["copies"]} == kinds
    assert [c["kind"] for c in gpu["copies"]] == ["HTOD", "DTOH"]
    (call,) = gpu["api_calls"]
    assert call["name"] == "gemm_kernel" and call["count"] == API_CALLS
    assert gpu["memsets"] == {"count": 0, "bytes": 0, "total_ns": 0} and gpu["syncs"] == []

    # Records by kind, and what the file can't say.
    counted = collections.Counter(
        f"{HW_NAMES[r['hw']]} {event_of(r)}" for r in expected.records)
    assert process["records_by_kind"] == counted
    assert process["producer_stall_ns"] is None
    assert process["producer_stall"] == "not recorded in the file"


def test_files_of_one_process_are_merged_in_time_order(tmp_path, rich):
    """The capture cut in two between buckets, the second half stamped later and
    given first: one process, the same numbers, ranges that straddle the cut
    matched all the same."""
    path = rich[0]
    header, spans, data = bucket_spans(path)
    cut = len(spans) // 2
    first, second = tmp_path / "part_0.zvkraw", tmp_path / "part_1.zvkraw"
    first.write_bytes(header + b"".join(data[o:o + n] for o, n in spans[:cut]))
    later = bytearray(header)
    struct.pack_into("<Q", later, 24, struct.unpack_from("<Q", header, 24)[0] + 1)
    second.write_bytes(bytes(later) + b"".join(data[o:o + n] for o, n in spans[cut:]))

    whole = _reader.summarize([path])["processes"][0]
    merged = _reader.summarize([str(second), str(first)])
    (process,) = merged["processes"]
    assert process["files"] == [str(first), str(second)]
    assert [f["path"] for f in merged["files"]] == [str(first), str(second)]
    for key in ("ranges", "records_by_kind", "wall_ns", "cpu", "gpu", "begins_without_end",
                "ends_without_begin"):
        assert process[key] == whole[key], key
    # Given out of order, with no later stamp to sort by, the ends read before
    # their begins still close the ranges.
    same_time = tmp_path / "same_time.zvkraw"
    same_time.write_bytes(header + b"".join(data[o:o + n] for o, n in spans[cut:]))
    reversed_order = _reader.summarize([str(same_time), str(first)])["processes"][0]
    assert reversed_order["ranges"] == whole["ranges"]


# ---- zorvek summary ------------------------------------------------------------------

def test_summary_prints_aligned_tables(rich):
    path, pid, burned = rich
    code, out, err = summary_command(path)
    assert code == 0, err
    assert err == ""
    assert f"== Process {pid}:" in out
    lines = out.splitlines()

    def row(first_cell):
        return next(line.split() for line in lines if line.split()[:1] == [first_cell])

    head = next(line for line in lines if line.split()[:2] == ["name", "count"])
    assert head.split() == ["name", "count", "total", "mean", "p50", "p99", "share"]
    step = row("step")
    assert step[1] == str(RANGES["step"][0] * RANGES["step"][1])
    # Right-aligned numbers: each row's cells end where the heading's do.
    step_line = next(line for line in lines if line.split()[:1] == ["step"])
    assert len(step_line) == len(head.rstrip())
    assert row("gemm_kernel")[1] == "3" and row("relu_kernel")[1] == "2"
    assert row("HTOD")[1:3] == ["2", "8.19"] and row("DTOH")[1] == "1"
    assert "Top CPU functions:" in out and "Records lost by the kernel: 0 samples" in out
    assert "Producer stall time: not recorded in the file" in out
    if burned and importable("zorvek.symbols") and shutil.which("addr2line"):
        functions = out.split("Top CPU functions:")[1].split("\n\n")[0]
        assert BURN_FUNCTION in functions, out


def importable(module):
    try:
        __import__(module)
        return True
    except Exception:
        return False


def test_summary_json_for_machines(rich):
    path, pid, burned = rich
    code, out, err = summary_command("--json", "--top", "0", path)
    assert code == 0, err
    document = json.loads(out)
    (process,) = document["processes"]
    assert process["pid"] == pid
    direct = _reader.summarize([path])["processes"][0]
    assert process["ranges"] == direct["ranges"]
    assert process["gpu"] == direct["gpu"]
    cpu = process["cpu"]
    assert cpu["samples"] == direct["cpu"]["samples"] == sum(f["samples"] for f in cpu["functions"])
    assert all(ip["ip"].startswith("0x") for ip in cpu["ips"])
    assert cpu["distinct_ips"] == len(direct["cpu"]["ips"]) == len(cpu["ips"])
    assert all(m["addr"].startswith("0x") for m in cpu["mappings"])
    if burned and importable("zorvek.symbols") and shutil.which("addr2line"):
        names = [f["function"] for f in cpu["functions"]]
        assert BURN_FUNCTION in names
        burn = next(f for f in cpu["functions"] if f["function"] == BURN_FUNCTION)
        # The library burned about 0.4 s of the main thread's CPU time.
        assert burn["samples"] >= 100


def test_a_folder_stands_for_its_captures(rich):
    folder = os.path.dirname(rich[0])
    code, out, err = summary_command(folder)
    assert code == 0, err
    assert "1 file," in out


def test_short_summary_for_the_end_of_a_recording(rich, tmp_path):
    from zorvek.summary import short_summary
    path, pid, _ = rich
    text = short_summary([path])
    assert f"process {pid}:" in text and "step" in text and "CPU samples" in text
    assert "GPU kernels" in text
    assert "No capture" in short_summary([str(tmp_path / "missing.zvkraw")])
    junk = tmp_path / "junk.zvkraw"
    junk.write_bytes(b"x" * 200)
    assert "not a Zorvek capture file" in short_summary([str(junk)])


# ---- Bad input --------------------------------------------------------------------

def one_error_line(err):
    lines = err.strip().splitlines()
    assert "Traceback" not in err
    assert len(lines) == 1, err
    assert lines[0].startswith("zorvek summary: ")
    return lines[0]


def test_capture_file_errors(tmp_path):
    with pytest.raises(FileNotFoundError):
        _reader.CaptureFile(str(tmp_path / "missing.zvkraw"))
    with pytest.raises(IsADirectoryError):
        _reader.CaptureFile(str(tmp_path))
    junk = tmp_path / "junk.zvkraw"
    junk.write_bytes(b"definitely not a capture, but long enough to hold a header" * 3)
    with pytest.raises(ValueError) as raised:
        _reader.CaptureFile(str(junk))
    assert str(raised.value) == f"{junk}: not a Zorvek capture file"
    short = tmp_path / "short.zvkraw"
    short.write_bytes(b"ZVKRAWDF")
    with pytest.raises(ValueError, match="not a Zorvek capture file"):
        _reader.CaptureFile(str(short))
    with pytest.raises(ValueError, match="not a Zorvek capture file"):
        _reader.summarize([str(junk)])


def test_a_file_that_is_not_a_capture(tmp_path):
    junk = tmp_path / "notes.txt"
    junk.write_text("these are notes, not a capture\n" * 10)
    code, out, err = summary_command(str(junk))
    assert code == 1 and out == ""
    assert one_error_line(err) == f"zorvek summary: {junk}: not a Zorvek capture file"


def test_a_missing_file(tmp_path):
    code, out, err = summary_command(str(tmp_path / "gone.zvkraw"))
    assert code == 1 and out == ""
    assert "no such file" in one_error_line(err)


def test_an_empty_folder(tmp_path):
    code, out, err = summary_command(str(tmp_path))
    assert code == 1 and out == ""
    assert "no capture files" in one_error_line(err)


def test_no_file_at_all():
    code, out, err = summary_command()
    assert code == 2 and out == ""
    assert "no capture file given" in one_error_line(err)


def test_exit_statuses_are_the_readers_own():
    """One set of statuses for every command that reads captures, zvkdump's too."""
    assert (_reader.EXIT_READ_WHOLE, _reader.EXIT_NOT_READ, _reader.EXIT_USAGE,
            _reader.EXIT_DAMAGED) == (0, 1, 2, 3)
    done = subprocess.run([sys.executable, "-m", "zorvek", "summary", "--help"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0
    assert " ".join(_reader.EXIT_STATUS_HELP.split()) in " ".join(done.stdout.split())
    assert "Exit status: 0 every file read whole" in _reader.EXIT_STATUS_HELP


def reading_notes(err):
    """The lines on stderr about how files were read (the symbolizer may add
    notes of its own)."""
    return [line for line in err.splitlines()
            if any(word in line for word in (" is torn", " is damaged", "cut short",
                                             "unfinished capture"))]


def test_a_whole_file_is_status_0_with_no_reading_notes(tmp_path, rich):
    code, out, err = summary_command(rich[0])
    assert code == _reader.EXIT_READ_WHOLE, err
    assert reading_notes(err) == [] and "Notes:" not in out
    (file,) = _reader.summarize([rich[0]])["files"]
    assert file["problems"] == [] and not file["damaged"] and file["unfinished"] == ""


def test_a_torn_file_is_summarized_up_to_the_tear(tmp_path, rich):
    header, spans, data = bucket_spans(rich[0])
    offset, length = spans[-1]
    torn = tmp_path / "torn.zvkraw"
    torn.write_bytes(data[:offset + length // 2])
    code, out, err = summary_command(str(torn))
    assert code == _reader.EXIT_DAMAGED, err
    assert "Traceback" not in err
    assert "Annotation ranges" in out
    (note,) = reading_notes(err)
    assert note.startswith(f"zorvek summary: {torn}: bucket ") and " is torn" in note
    assert f"summarized the {len(spans) - 1} whole buckets" in note
    assert "is torn" not in out and "summarized the" not in out
    result = _reader.summarize([str(torn)])
    (file,) = result["files"]
    assert file["torn"] and file["buckets"] == len(spans) - 1 and len(file["problems"]) == 1
    assert file["damaged"]
    capture = _reader.CaptureFile(str(torn))
    for _ in capture.batches():
        pass
    assert capture.torn and capture.damaged and capture.unfinished == ""


def test_damage_in_the_middle_is_skipped_and_reported(tmp_path, rich):
    header, spans, data = bucket_spans(rich[0])
    offset, length = spans[len(spans) // 2]
    damaged = bytearray(data)
    for i in range(offset + 40, offset + 60):
        damaged[i] ^= 0xFF
    path = tmp_path / "damaged.zvkraw"
    path.write_bytes(bytes(damaged))
    code, out, err = summary_command(str(path))
    assert code == _reader.EXIT_DAMAGED
    (note,) = reading_notes(err)
    assert note.startswith(f"zorvek summary: {path}: ") and "damaged" in note
    assert note.split(": ", 2)[2] not in out
    assert "Annotation ranges" in out


def with_header_count(data, num_buckets, end_time=None):
    """The file's bytes with its header's bucket count (and end time) set."""
    data = bytearray(data)
    struct.pack_into("<I", data, 60, num_buckets)
    if end_time is not None:
        struct.pack_into("<Q", data, 32, end_time)
    return bytes(data)


def test_a_header_counting_more_buckets_than_the_file_holds_means_cut(tmp_path, rich):
    header, spans, data = bucket_spans(rich[0])
    assert struct.unpack_from("<I", data, 60)[0] == len(spans)
    cut = tmp_path / "cut.zvkraw"  # cut at a bucket's end: the rest is all whole
    cut.write_bytes(data[:spans[-1][0]])
    claims = tmp_path / "claims.zvkraw"
    claims.write_bytes(with_header_count(data, len(spans) + 2))
    for path, counted, held in ((cut, len(spans), len(spans) - 1),
                                (claims, len(spans) + 2, len(spans))):
        code, out, err = summary_command(str(path))
        assert code == _reader.EXIT_DAMAGED, err
        assert reading_notes(err) == [f"zorvek summary: {path}: cut short: its header counts "
                                      f"{counted} buckets, the file holds {held} whole"]
        assert "cut short" not in out and "Annotation ranges" in out
        (file,) = _reader.summarize([str(path)])["files"]
        assert file["damaged"] and not file["torn"] and len(file["problems"]) == 1


def test_an_unfinished_capture_is_read_whole_and_said_so(tmp_path, rich):
    """A process killed before its stop leaves the header as it was opened: no
    buckets counted, no end time. Every bucket that reached the file is read."""
    header, spans, data = bucket_spans(rich[0])
    path = tmp_path / "killed.zvkraw"
    path.write_bytes(with_header_count(data, 0, 0))
    code, out, err = summary_command(str(path))
    assert code == _reader.EXIT_READ_WHOLE, err
    (note,) = reading_notes(err)
    assert note.startswith(f"zorvek summary: {path}: unfinished capture: its header counts 0 "
                           f"buckets, the file holds {len(spans)} whole")
    assert "unfinished" not in out and "Annotation ranges" in out
    code, out, err = summary_command("--json", str(path))
    assert code == _reader.EXIT_READ_WHOLE and len(reading_notes(err)) == 1
    (file,) = json.loads(out)["files"]
    assert not file["damaged"] and file["unfinished"].startswith("unfinished capture: ")
    assert file["buckets"] == len(spans)
    capture = _reader.CaptureFile(str(path))
    assert capture.unfinished == ""  # known once read
    for _ in capture.batches():
        pass
    assert capture.unfinished.startswith(f"{path}: unfinished capture: ")
    assert not capture.damaged and capture.problems == []


def test_good_files_are_summarized_beside_bad_ones(tmp_path, rich):
    junk = tmp_path / "junk.zvkraw"
    junk.write_bytes(b"\0" * 100)
    code, out, err = summary_command(rich[0], str(junk))
    assert code == _reader.EXIT_NOT_READ
    assert "not a Zorvek capture file" in one_error_line(err)
    assert f"== Process {rich[1]}:" in out
    # A file not read at all weighs more than one read in part.
    header, spans, data = bucket_spans(rich[0])
    cut = tmp_path / "cut.zvkraw"
    cut.write_bytes(data[:spans[-1][0]])
    code, out, err = summary_command(str(cut), str(junk))
    assert code == _reader.EXIT_NOT_READ and len(reading_notes(err)) == 1
    code, out, err = summary_command(rich[0], str(cut))
    assert code == _reader.EXIT_DAMAGED
