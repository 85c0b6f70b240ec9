"""What the Python tests share: running a scenario in a fresh interpreter under a
time limit, and a small reader of capture files of the tests' own."""

import collections
import os
import signal
import struct
import subprocess
import sys
import zlib

import pytest

_PROFILER_VARIABLES = ("ZVK_", "ZV_", "ZORV_")


def run_python(args, cwd, env, timeout):
    """Runs the interpreter with `args` in cwd, in a session of its own so that a
    hung scenario is killed with its children, and fails the test if it runs past
    `timeout` seconds. The caller's profiler variables don't leak in; `env` is
    added. Returns the exit code, stdout and stderr."""
    full_env = {k: v for k, v in os.environ.items() if not k.startswith(_PROFILER_VARIABLES)}
    full_env.update(env)
    process = subprocess.Popen([sys.executable, *args], cwd=cwd, env=full_env,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                               start_new_session=True)
    try:
        stdout, stderr = process.communicate(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        stdout, stderr = process.communicate()
        pytest.fail(f"scenario hung for {timeout} s\n{stdout}\n{stderr[-4000:]}")
    return process.returncode, stdout, stderr


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

Capture = collections.namedtuple("Capture", "header buckets records torn")


def read_capture(path):
    """Reads every whole bucket, never trusting num_buckets (0 until the header's
    final rewrite, which a process ending in os._exit never gets). A torn last
    bucket ends the walk and is reported."""
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
    return Capture(header, buckets, records, torn)


def begins(capture, msg=None, pid=None):
    return [r for r in capture.records if r["hw"] == ANNOTATION and r["type"] == BEGIN
            and (msg is None or r["msg"] == msg) and (pid is None or r["pid"] == pid)]


def ends(capture):
    return [r for r in capture.records if r["hw"] == ANNOTATION and r["type"] == END]
