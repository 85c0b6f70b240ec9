"""GPU records in the exported tables and in `zorvek ranks`: a job launching
kernels, copies and memsets through the CUPTI stand-in, inside annotation ranges
on two threads, on one rank and on four."""

import glob
import os
import re
import subprocess
import sys

import pytest

from test_ranks import zorvek
from zvk_testing import build_shared_library, fake_cupti_library, parse_reports

pa = pytest.importorskip("pyarrow")
pq = pytest.importorskip("pyarrow.parquet")
pytest.importorskip("duckdb")

GPU_TABLES = ("kernels", "copies", "memsets", "api_calls")
STEPS = 3
WORLD = 4

KERNEL = "_Z11gemm_kernelPfS_i"
KERNEL_NAME = "gemm_kernel(float*, float*, int)"
BACKWARD = "_Z8backwardPKfPfi"
BACKWARD_NAME = "backward(float const*, float*, int)"

# Reads the stand-in's clock until it has been read `until` times in all: in C,
# since each reading moves it 1 us and a reading from Python can take longer.
WINDER_C = r'''
#include <stddef.h>
#include <stdint.h>

typedef int (*get_timestamp_fn)(uint64_t*);
typedef size_t (*count_fn)(void);

void wind(get_timestamp_fn get_timestamp, count_fn count, size_t until) {
  uint64_t stamp;
  for (size_t n = count(); n < until; ++n) get_timestamp(&stamp);
}
'''

# The job. The stand-in's clock starts at 1 s and moves one step a reading, so
# before each launch the job winds it until it has moved as far as the system
# clock has since just before the capture began: its stamps then keep the
# spacing of real time, and the first reading, of the launch made before any
# range, is the earliest GPU stamp, which the reader places at the capture's
# start. Every call then lands at most the capture's start-up later than when it
# was made; each range stays open well past that after its last launch.
JOB = r'''
import ctypes, json, os, threading, time
import zorvek

def report(key, value):
    os.write(1, ("@" + key + " " + json.dumps(value) + "\n").encode())

u8, u16, u32, u64 = ctypes.c_uint8, ctypes.c_uint16, ctypes.c_uint32, ctypes.c_uint64
fake = ctypes.CDLL(os.environ["ZVK_CUPTI_LIBRARY"])
fake.fake_cupti_emit_kernel.argtypes = [ctypes.c_char_p] + [u32] * 3 + [u64] * 2
fake.fake_cupti_emit_kernel.restype = ctypes.c_bool
fake.fake_cupti_emit_memcpy.argtypes = [u8, u64] + [u32] * 3 + [u64] * 2
fake.fake_cupti_emit_memcpy.restype = ctypes.c_bool
fake.fake_cupti_emit.argtypes = [ctypes.c_void_p, ctypes.c_size_t]
fake.fake_cupti_emit.restype = ctypes.c_bool
fake.fake_cupti_fire_api.argtypes = [ctypes.c_int, u32, ctypes.c_char_p, ctypes.c_char_p, u32]
fake.fake_cupti_fire_api.restype = ctypes.c_bool
fake.fake_cupti_timestamp_calls.restype = ctypes.c_size_t
winder = ctypes.CDLL(os.environ["CLOCK_WINDER"])
winder.wind.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t]


class Memset(ctypes.Structure):  # CUpti_ActivityMemset4
    _fields_ = [("kind", u32), ("value", u32), ("bytes", u64), ("start", u64), ("end", u64),
                ("deviceId", u32), ("contextId", u32), ("streamId", u32),
                ("correlationId", u32), ("flags", u16), ("memoryKind", u16), ("pad", u32),
                ("reserved0", ctypes.c_void_p), ("graphNodeId", u64), ("graphId", u32),
                ("channelID", u32), ("channelType", u32), ("isDeviceLaunched", u8),
                ("pad2", u8 * 3)]


BASE, STEP = 1000000000, 1000
RANK = int(os.environ["RANK"])
DEVICE = RANK % 2
SCALE = RANK + 1  # each rank's work a different length
lock = threading.Lock()
correlations = iter(range(100 * (RANK + 1), 100 * (RANK + 2)))


def launch(what, expected_range):
    """One API call and the work it launches, 50 us after the call on the GPU's
    clock; reported with the range it was made in."""
    with lock:
        if fake.fake_cupti_timestamp_calls():  # the first reading stays at BASE
            winder.wind(fake.cuptiGetTimestamp, fake.fake_cupti_timestamp_calls,
                        -(-(time.time_ns() - t0) // STEP))
        stamp = BASE + fake.fake_cupti_timestamp_calls() * STEP
        corr = next(correlations)
        kind = what[0]
        start = stamp + 50000
        if kind == "kernel":
            _, symbol, stream, length = what
            cbid, function = 307, b"cuLaunchKernel"
            end = start + length * SCALE
            assert fake.fake_cupti_fire_api(1, cbid, symbol.encode(), function, corr)
            assert fake.fake_cupti_emit_kernel(symbol.encode(), DEVICE, stream, corr, start, end)
        elif kind == "copy":
            _, copy_kind, stream, length, size = what
            cbid = 277 if copy_kind == 1 else 279
            function = b"cuMemcpyHtoDAsync_v2" if copy_kind == 1 else b"cuMemcpyDtoHAsync_v2"
            end = start + length * SCALE
            assert fake.fake_cupti_fire_api(1, cbid, None, function, corr)
            assert fake.fake_cupti_emit_memcpy(copy_kind, size, DEVICE, stream, corr, start, end)
        else:
            _, stream, length, size, value = what
            cbid, function = 220, b"cuMemsetD32Async"
            end = start + length * SCALE
            assert fake.fake_cupti_fire_api(1, cbid, None, function, corr)
            record = Memset(kind=2, value=value, bytes=size, start=start, end=end,
                            deviceId=DEVICE, streamId=stream, correlationId=corr, memoryKind=2)
            assert fake.fake_cupti_emit(ctypes.byref(record), ctypes.sizeof(record))
    report("launch.%d" % corr, {"what": list(what), "range": expected_range, "cbid": cbid,
                                "function": function.decode(), "tid": threading.get_native_id(),
                                "device": DEVICE, "stamp": stamp, "start": start, "end": end})
    time.sleep(settle)


prof = zorvek.profile("caps", sample_hz=0, gpu=True, quiet=True)
t0 = time.time_ns()
prof.start()
assert prof.started, prof.error
settle = max(0.02, 2 * (time.time_ns() - t0) / 1e9)
report("pid", os.getpid())

# Before any range: the upload of the weights.
launch(("copy", 1, 7, 2000000, 1 << 22), None)

# A range another thread opened and holds while this one opens its own: each
# thread's launches belong to its own innermost range.
opened, main_done, other_done = threading.Event(), threading.Event(), threading.Event()


def prefetch():
    with zorvek.annotate("prefetch"):
        opened.set()
        main_done.wait()
        launch(("copy", 1, 9, 300000, 1 << 16), "prefetch")
        other_done.set()


other = threading.Thread(target=prefetch)
other.start()
opened.wait()
with zorvek.annotate("warmup"):
    launch(("kernel", KERNEL, 7, 100000), "warmup")
    main_done.set()
    other_done.wait()
other.join()

for _ in range(STEPS):
    with zorvek.annotate("step"):
        with zorvek.annotate("forward"):
            launch(("kernel", KERNEL, 7, 3000000), "forward")
            launch(("memset", 8, 400000, 4096, 0), "forward")
        with zorvek.annotate("backward"):
            launch(("kernel", BACKWARD, 7, 4000000), "backward")
        launch(("copy", 2, 8, 1000000, 1 << 20), "step")
prof.stop()
report("files", prof.files)
'''


def record(folder, ranks):
    """Runs the job as each rank of `ranks`, side by side; returns the captures'
    folder and, per rank, what it reported."""
    winder = build_shared_library(folder, "winder", WINDER_C, ("cc", "gcc"), ("-O2",))
    script = folder / "job.py"
    script.write_text("STEPS, KERNEL, BACKWARD = %d, %r, %r\n" % (STEPS, KERNEL, BACKWARD) + JOB)
    processes = []
    for rank in ranks:
        full = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}
        full.update(ZVK_CUPTI_LIBRARY=fake_cupti_library(), CLOCK_WINDER=str(winder), RANK=str(rank),
                    LOCAL_RANK=str(rank), WORLD_SIZE=str(len(ranks)))
        processes.append(subprocess.Popen([sys.executable, str(script)], cwd=folder, env=full,
                                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                          text=True))
    reports = {}
    for rank, process in zip(ranks, processes):
        out, err = process.communicate(timeout=120)
        assert process.returncode == 0, out + err[-4000:]
        reports[rank] = parse_reports(out)
    caps = folder / "caps"
    assert len(glob.glob(str(caps / "*.zvkraw"))) == len(ranks)
    return caps, reports


def launches(reported):
    return {int(key.split(".")[1]): value for key, value in reported.items()
            if key.startswith("launch.")}


def export(captures, out):
    result = zorvek("export", "--format", "parquet", "-o", out, captures)
    assert result.returncode == 0, result.stderr
    return {table: read(out, table) for table in ("ranges",) + GPU_TABLES}


def read(out, table):
    files = sorted(glob.glob(os.path.join(str(out), table + "-*.parquet")))
    assert files
    return pa.concat_tables([pq.read_table(f) for f in files])


def rows(table):
    columns = table.to_pydict()
    return [dict(zip(columns, values)) for values in zip(*columns.values())]


@pytest.fixture(scope="module")
def one_rank(tmp_path_factory):
    return record(tmp_path_factory.mktemp("gpu_export"), [0])


@pytest.fixture(scope="module")
def four_ranks(tmp_path_factory):
    return record(tmp_path_factory.mktemp("gpu_ranks"), list(range(WORLD)))


def innermost(ranges, pid, tid, at):
    """The deepest range on thread (pid, tid) open at `at`."""
    open_ = [r for r in ranges if r["pid"] == pid and r["tid"] == tid and
             r["start_ns"] <= at and r["end_ns"] is not None and at < r["end_ns"]]
    return max(open_, key=lambda r: r["depth"]) if open_ else None


def test_every_gpu_record_in_its_table_with_device_stream_and_launching_range(one_rank, tmp_path):
    captures, reports = one_rank
    made = launches(reports[0])
    pid = reports[0]["pid"]
    tables = export(captures, tmp_path / "tables")
    ranges = rows(tables["ranges"])
    kernels = {r["correlation"]: r for r in rows(tables["kernels"])}
    copies = {r["correlation"]: r for r in rows(tables["copies"])}
    memsets = {r["correlation"]: r for r in rows(tables["memsets"])}
    calls = {r["correlation"]: r for r in rows(tables["api_calls"])}
    wanted = {kind: {c for c, m in made.items() if m["what"][0] == kind}
              for kind in ("kernel", "copy", "memset")}
    assert set(kernels) == wanted["kernel"] and len(kernels) == 1 + 2 * STEPS
    assert set(copies) == wanted["copy"] and len(copies) == 2 + STEPS
    assert set(memsets) == wanted["memset"] and len(memsets) == STEPS
    assert set(calls) == set(made)
    assert tables["api_calls"].num_rows == len(made)

    for corr, launch in made.items():
        call = calls[corr]
        assert (call["pid"], call["tid"], call["cbid"], call["name"]) == (
            pid, launch["tid"], launch["cbid"], launch["function"])
        assert call["launch_range"] == launch["range"], (corr, launch)
        # On the system clock, inside the process's ranges: the call lies in the
        # range it was made in, and that is the innermost one open on its thread.
        found = innermost(ranges, pid, launch["tid"], call["start_ns"])
        if launch["range"] is None:
            assert found is None, (corr, found)
        else:
            assert found is not None and found["name"] == launch["range"], (corr, found)
            assert found["start_ns"] <= call["start_ns"] <= call["end_ns"] <= found["end_ns"]
            if launch["range"] == "prefetch":
                # Meanwhile the main thread had begun a range of its own, later.
                assert [r for r in ranges if r["tid"] != launch["tid"] and r["name"] == "warmup"
                        and found["start_ns"] < r["start_ns"] <= call["start_ns"] < r["end_ns"]]
        work = {"kernel": kernels, "copy": copies, "memset": memsets}[launch["what"][0]][corr]
        assert (work["pid"], work["device"], work["stream"]) == (
            pid, launch["device"], launch["what"][2 if launch["what"][0] != "memset" else 1])
        assert work["launch_range"] == launch["range"]
        # One offset puts all of CUPTI's stamps on the system clock: spacing kept.
        assert work["start_ns"] - call["start_ns"] == launch["start"] - launch["stamp"]
        assert work["end_ns"] - work["start_ns"] == work["duration_ns"] == \
            launch["end"] - launch["start"]
        assert call["duration_ns"] == call["end_ns"] - call["start_ns"] > 0

    for corr, kernel in kernels.items():
        symbol = made[corr]["what"][1]
        assert kernel["mangled"] == symbol
        assert kernel["name"] == {KERNEL: KERNEL_NAME, BACKWARD: BACKWARD_NAME}[symbol]
        assert calls[corr]["function"] == kernel["name"]
        assert (kernel["grid"], kernel["block"]) == ("1x1x1", "128x1x1")
    for corr, copy in copies.items():
        kind, _stream, _length, size = made[corr]["what"][1:]
        assert (copy["kind"], copy["bytes"]) == ({1: "HtoD", 2: "DtoH"}[kind], size)
    for corr, memset in memsets.items():
        assert (memset["bytes"], memset["value"]) == tuple(made[corr]["what"][3:5])


def test_sql_reads_the_gpu_tables_back(one_rank, tmp_path):
    captures, reports = one_rank
    made = launches(reports[0])
    expected = {}
    for launch in made.values():
        if launch["what"][0] == "kernel":
            expected[launch["range"]] = expected.get(launch["range"], 0) + \
                launch["end"] - launch["start"]
    query = ("select launch_range, sum(duration_ns) as busy, count(*) as n from kernels "
             "group by launch_range order by launch_range")
    export(captures, tmp_path / "tables")
    for source in (captures, tmp_path / "tables"):
        result = zorvek("sql", "--csv", query, source)
        assert result.returncode == 0, result.stderr
        lines = result.stdout.strip().splitlines()
        assert lines[0] == "launch_range,busy,n"
        got = {line.split(",")[0]: int(line.split(",")[1]) for line in lines[1:]}
        assert got == expected
    calls = zorvek("sql", "--csv", "select name, cbid, count(*) from api_calls "
                   "group by name, cbid order by cbid", captures)
    assert calls.returncode == 0, calls.stderr
    assert calls.stdout.strip().splitlines()[1:] == [
        "cuMemsetD32Async,220,%d" % STEPS, "cuMemcpyHtoDAsync_v2,277,2",
        "cuMemcpyDtoHAsync_v2,279,%d" % STEPS, "cuLaunchKernel,307,%d" % (1 + 2 * STEPS)]


def test_a_second_export_gives_the_same_rows(one_rank, tmp_path):
    captures, _ = one_rank
    first = export(captures, tmp_path / "first")
    second = export(captures, tmp_path / "second")
    for table in ("ranges",) + GPU_TABLES:
        assert first[table].num_rows
        assert first[table].equals(second[table]), table


def _merge(spans):
    merged = []
    for start, end in sorted(spans):
        if merged and start <= merged[-1][1]:
            merged[-1][1] = max(merged[-1][1], end)
        else:
            merged.append([start, end])
    return merged


def _common(a, b):
    """Time two unions of intervals share."""
    return sum(max(0, min(x[1], y[1]) - max(x[0], y[0])) for x in a for y in b)


def test_ranks_splits_each_ranks_step_into_kernels_copies_and_no_gpu_work(four_ranks, tmp_path):
    captures, reports = four_ranks
    tables = export(captures, tmp_path / "tables")
    ranges = rows(tables["ranges"])
    expected = {}
    for rank in range(WORLD):
        steps = _merge([(r["start_ns"], r["end_ns"]) for r in ranges
                        if r["rank"] == rank and r["name"] == "step"])
        assert len(steps) == STEPS
        inside = sum(b - a for a, b in steps)
        spans = {table: _merge([(r["start_ns"], r["end_ns"]) for r in rows(tables[table])
                                if r["rank"] == rank]) for table in ("kernels", "copies", "memsets")}
        busy = _merge(spans["kernels"] + spans["copies"] + spans["memsets"])
        shares = [100 * _common(steps, spans["kernels"]) / inside,
                  100 * _common(steps, spans["copies"]) / inside,
                  100 * (1 - _common(steps, busy) / inside)]
        assert shares[0] > 0 and shares[1] > 0 and shares[2] < 100
        expected[rank] = shares
    # Each rank's GPU rows carry its rank and its launches.
    for table in ("kernels", "api_calls"):
        for row in rows(tables[table]):
            assert row["correlation"] in launches(reports[row["rank"]]), (table, row)

    for source in (captures, tmp_path / "tables"):
        result = zorvek("ranks", "--range", "step", source)
        assert result.returncode == 0, result.stderr
        lines = result.stdout.splitlines()
        assert re.split(r"\s{2,}", lines[1].strip())[-3:] == ["kernels", "copies", "no GPU work"]
        printed = {}
        for line in lines[2:]:
            percents = [float(t[:-1]) for t in line.split() if t.endswith("%")]
            assert len(percents) == 4, line
            printed[int(line.split()[0])] = percents[1:]
        assert sorted(printed) == list(range(WORLD))
        for rank, shares in expected.items():
            for got, want in zip(printed[rank], shares):
                assert abs(got - want) <= 0.051, (source, rank, printed[rank], shares)
