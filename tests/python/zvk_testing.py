"""What the Python tests share: running a scenario in a fresh interpreter under a
time limit, and a small reader of capture files of the tests' own.

The reader (read_capture and its _decode_cpu, _decode_stack, _decode_gpu) decodes
the bytes with struct by hand on purpose, apart from the package's reader and the
C++ layouts in zorv/format/: it is the tests' independent check of the file
format, so a changed layout fails a test even where the writer and the reader,
sharing those headers, change together."""

import collections
import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import textwrap
import zlib

import pytest

_PROFILER_VARIABLES = ("ZVK_", "ZV_", "ZORV_")


def run_command(command, cwd, env, timeout):
    """Runs `command` in cwd with the environment `env`, in a session of its own
    so that a hung command is killed with its children, and fails the test if it
    runs past `timeout` seconds. Returns the exit code, stdout and stderr."""
    process = subprocess.Popen(command, cwd=cwd, env=env, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True, start_new_session=True)
    try:
        stdout, stderr = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        stdout, stderr = process.communicate()
        pytest.fail(f"{command} hung for {timeout} s\n{stdout}\n{stderr[-4000:]}")
    return process.returncode, stdout, stderr


def run_python(args, cwd, env, timeout):
    """Runs the interpreter with `args` as run_command does. The caller's profiler
    variables don't leak in; `env` is added."""
    full_env = {k: v for k, v in os.environ.items() if not k.startswith(_PROFILER_VARIABLES)}
    full_env.update(env)
    return run_command([sys.executable, *args], cwd, full_env, timeout)


# ---- Scenario scripts that hand values back as "@key json" lines on stdout ----

# The definition a scenario script puts before its code to hand a value back. One
# write per line, so that lines of a parent and its children never interleave.
REPORT_SOURCE = r'''
def report(key, value):
    os.write(1, ("@" + key + " " + json.dumps(value) + "\n").encode())
'''

# Burns the calling thread's own CPU time, so that a machine busy with other
# tests doesn't thin the samples a scenario gets.
SPIN_SOURCE = r'''
def spin(cpu_seconds):
    began = time.thread_time()
    while time.thread_time() - began < cpu_seconds:
        for _ in range(10000):
            pass
'''


def parse_reports(stdout):
    """{key: value} of the "@key json" lines a scenario wrote, the last one of a
    key winning."""
    values = {}
    for line in stdout.splitlines():
        if line.startswith("@"):
            key, value = line[1:].split(" ", 1)
            values[key] = json.loads(value)
    return values


def run_scenario_script(tmp_path, prelude, code, env=None, timeout=60, expect_ok=True):
    """Writes prelude then the dedented code to tmp_path/scenario.py and runs it in
    tmp_path. Unless expect_ok is false, a non-zero exit or a traceback fails the
    test. Returns what it reported under @keys, and its stderr."""
    script = tmp_path / "scenario.py"
    script.write_text(prelude + textwrap.dedent(code), encoding="utf-8")
    returncode, stdout, stderr = run_python([str(script)], tmp_path, env or {}, timeout)
    if expect_ok:
        assert returncode == 0, stdout + stderr[-4000:]
        assert "Traceback" not in stderr, stderr[-4000:]
    return parse_reports(stdout), stderr


def capture_names(directory):
    """The names of the capture files in directory, sorted."""
    return sorted(p.name for p in directory.iterdir() if p.name.endswith(".zvkraw"))


# ---- A capture file reader: header, buckets to the end of the file, records ----

_HEADER = struct.Struct("<8sIIQQQQIIIIIIHHHHH")  # the fixed 82 bytes
_BUCKET = struct.Struct("<QQQII")
_RECORD = struct.Struct("<QIIIHH")
_HEADER_FIELDS = ("key", "version", "compression", "config", "start_time", "end_time",
                  "clock_shift", "pid", "max_bucket_size", "max_uncompressed_size",
                  "num_buckets", "dict_size", "cpu_model", "cpu_model_len", "job_len",
                  "host_len", "instance_len", "reserved")
ANNOTATION = 5
BEGIN, END, TIME_MARKER = 0, 1, 2

# CPU sampling records (hw_type 0): event types and the payload of each, decoded
# into the record's dict under these names. The event type of the record stays
# under "type"; the perf_event_attr type of a CONFIGURATION is "perf_type".
CPU = 0
CONFIGURATION, SAMPLE, THROTTLE, UNTHROTTLE, LOST, MMAP, FORK, EXIT = 0, 1, 2, 3, 4, 6, 7, 8
# The per-thread sampler's records: a stack sample (native and Python frames), a
# Python code object met for the first time.
STACK, PYCODE = 16, 17
_STACK = struct.Struct("<QHHBBH")
_CPU_PAYLOADS = {
    CONFIGURATION: (struct.Struct("<QQQIIQQ"), ("config", "config1", "config2", "perf_type",
                                                "precise", "period", "format_id")),
    SAMPLE: (struct.Struct("<QQQ"), ("ip", "id", "stream_id")),
    THROTTLE: (struct.Struct("<QQ"), ("id", "stream_id")),
    UNTHROTTLE: (struct.Struct("<QQ"), ("id", "stream_id")),
    LOST: (struct.Struct("<QQQ"), ("id", "stream_id", "lost")),
    MMAP: (struct.Struct("<QQQQQQ"), ("id", "stream_id", "addr", "len", "pgoff", "strsize")),
    FORK: (struct.Struct("<QQII"), ("id", "stream_id", "ppid", "ptid")),
    EXIT: (struct.Struct("<QQII"), ("id", "stream_id", "ppid", "ptid")),
}


def _decode_cpu(record, word, chain_bytes, payload):
    """Adds the CPU number and the payload's fields; a SAMPLE also gets its call
    chain as the plain list of 64-bit slots the record carries (two per entry, so
    an odd-length chain ends in one slot of whatever the buffer held)."""
    record["device"] = (word >> 20) & 0xFF
    if record["type"] == STACK:
        _decode_stack(record, payload)
        return
    layout = _CPU_PAYLOADS.get(record["type"])
    if layout is None:
        return
    shape, names = layout
    record.update(zip(names, shape.unpack_from(payload)))
    if record["type"] == SAMPLE:
        record["chain"] = list(struct.unpack_from("<%dQ" % (len(chain_bytes) // 8), chain_bytes))
    elif record["type"] == MMAP:
        name = payload[shape.size:shape.size + record["strsize"]]
        record["filename"] = name.decode(errors="replace")


def _decode_stack(record, payload):
    """A STACK sample's weight, clock, flags, native addresses and Python frames
    as (code id, instruction word) pairs, both leaf first."""
    (record["weight_ns"], native, python, record["clock"], record["flags"],
     _) = _STACK.unpack_from(payload)
    record["ips"] = list(struct.unpack_from(f"<{native}Q", payload, _STACK.size))
    words = struct.unpack_from(f"<{2 * python}I", payload, _STACK.size + 8 * native)
    record["py"] = list(zip(words[0::2], words[1::2]))


GPU = 1
KERNEL_NAME, KERNEL, MEMCOPY, CUDA_API = 0, 1, 4, 9


def _decode_gpu(record, chain_bytes, payload):
    """The fields of the GPU records the tests check: atype in `type` & 0xfff, akind
    above it."""
    atype, akind = record["type"] & 0xFFF, record["type"] >> 12
    record["atype"], record["akind"] = atype, akind
    if atype == KERNEL_NAME:
        record["id"], record["len_name"] = struct.unpack_from("<II", payload)
        record["name"] = payload[8:].split(b"\0", 1)[0].decode(errors="replace")
    elif atype == KERNEL:
        record["end"] = struct.unpack_from("<Q", payload, 0)[0]
        record["name_id"] = struct.unpack_from("<I", payload, 48)[0]
        record["device"], _, record["correlation"], record["stream"] = struct.unpack_from(
            "<IIII", payload, 56)
    elif atype == MEMCOPY:
        record["end"], record["bytes"] = struct.unpack_from("<QQ", payload)
        record["copy_kind"] = payload[16]
        record["correlation"], record["stream"] = struct.unpack_from("<II", payload, 24)
    elif atype == CUDA_API:
        (record["end"], record["domain"], record["cbid"], record["correlation"],
         record["func_name_id"]) = struct.unpack_from("<QIIII", payload)
        record["chain"] = list(struct.unpack_from(f"<{len(chain_bytes) // 8}Q", chain_bytes))


Capture = collections.namedtuple("Capture", "header buckets records torn")


def read_capture(path):
    """Reads every whole bucket, never trusting num_buckets (0 until the header's
    final rewrite, which a process ending in os._exit never gets). A torn last
    bucket ends the walk and is reported. Decodes by hand, independently of the
    package's reader: the tests' own check of the layouts."""
    data = open(path, "rb").read()
    header = dict(zip(_HEADER_FIELDS, _HEADER.unpack_from(data, 0)))
    assert header["key"] == b"ZVKRAWDF" and header["version"] == 3, path
    offset = 88 + sum(header[k] for k in ("cpu_model_len", "job_len", "host_len",
                                          "instance_len", "reserved"))
    buckets, records, torn = 0, [], False
    while offset + _BUCKET.size <= len(data):
        tmin, tmax, count, compressed, uncompressed = _BUCKET.unpack_from(data, offset)
        stream = data[offset + 32:offset + 32 + compressed]
        if len(stream) < compressed:
            torn = True
            break
        raw = zlib.decompress(stream)
        assert len(raw) == uncompressed, path
        at, walked = 0, 0
        while at < len(raw):
            stamp, word, pid, tid, chain, size = _RECORD.unpack_from(raw, at)
            payload = raw[at + 24 + 16 * chain:at + 24 + 16 * chain + size]
            record = {"timestamp": stamp, "hw": word >> 28, "type": word & 0xFFFFF,
                      "pid": pid, "tid": tid}
            if record["hw"] == CPU:
                _decode_cpu(record, word, raw[at + 24:at + 24 + 16 * chain], payload)
            if record["hw"] == GPU:
                _decode_gpu(record, raw[at + 24:at + 24 + 16 * chain], payload)
            if record["hw"] == ANNOTATION and record["type"] != TIME_MARKER:
                record["token"] = struct.unpack_from("<Q", payload)[0]
                if record["type"] != END:
                    record["msg"] = payload[8:].split(b"\0", 1)[0].decode()
            assert tmin <= stamp <= tmax, path
            records.append(record)
            at += 24 + 16 * chain + size
            walked += 1
        assert at == len(raw) and walked == count, path
        buckets += 1
        offset += 32 + compressed
    return Capture(header, buckets, _without_clock_sync(records), torn)


OWN_MARKS = ("zorvek.clock_sync", "zorvek.producer_stall_us", "zorvek.process ",
             "zorvek.thread ")


def _without_clock_sync(records):
    """The records less the ranges zorvek.profile writes of its own (clock-sync
    ties, the producers' stall time, names): the tests count the program's ranges."""
    sync_tokens = {(r["pid"], r["token"]) for r in records
                   if r["hw"] == ANNOTATION and r["type"] == BEGIN and r["msg"].startswith(OWN_MARKS)}
    if not sync_tokens:
        return records
    return [r for r in records if not (r["hw"] == ANNOTATION and r["type"] in (BEGIN, END)
                                       and (r["pid"], r["token"]) in sync_tokens)]


def begins(capture, msg=None, pid=None):
    return [r for r in capture.records if r["hw"] == ANNOTATION and r["type"] == BEGIN
            and (msg is None or r["msg"] == msg) and (pid is None or r["pid"] == pid)]


def ends(capture):
    return [r for r in capture.records if r["hw"] == ANNOTATION and r["type"] == END]


def cpu_records(capture, event_type, pid=None, tid=None):
    return [r for r in capture.records if r["hw"] == CPU and r["type"] == event_type
            and (pid is None or r["pid"] == pid) and (tid is None or r["tid"] == tid)]


def gpu_records(capture, atype, pid=None):
    return [r for r in capture.records if r["hw"] == GPU and r["atype"] == atype
            and (pid is None or r["pid"] == pid)]


def build_shared_library(folder, name, source, compilers, flags=()):
    """Compiles `source` (C or C++, by the compilers named) into folder/lib<name>.so
    and returns its path; fails the test where no compiler is installed (make deps
    installs g++)."""
    compiler = next((found for found in map(shutil.which, compilers) if found), None)
    if compiler is None:
        pytest.fail(f"none of {', '.join(compilers)} is installed to build lib{name}.so")
    suffix = ".c" if compilers[0] in ("cc", "gcc") else ".cpp"
    source_path = folder / (name + suffix)
    source_path.write_text(source)
    library = folder / f"lib{name}.so"
    subprocess.run([compiler, *flags, "-fPIC", "-shared", str(source_path), "-o", str(library)],
                   check=True)
    return library


def fake_cupti_library():
    """The test stand-in for CUPTI, built with the C++ tests (make test builds it
    before the Python tests run)."""
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    path = os.environ.get("ZORV_FAKE_CUPTI_LIBRARY",
                          os.path.join(root, "build", "dev", "tests", "libzorv_fake_cupti.so"))
    assert os.path.exists(path), f"{path} is missing: build it with make build"
    return path


# Python code whose frames the stack tests build samples of: main (line 2) calls
# step (line 7), which calls inner (line 12).
APP = """\
def main():
    step()


def step():
    total = 1
    inner()
    return total


def inner():
    return 2
"""
