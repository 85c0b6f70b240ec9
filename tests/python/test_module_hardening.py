"""The _zorv module never hangs or crashes a training script: annotations that no
capture can take are dropped and counted instead of blocking, configure refuses
settings that could only hang or lose everything, and a bad argument raises before
anything runs. Each scenario runs in a fresh interpreter, under a time limit, since
the profiler is one per process and a regression here is a hang."""

import re
import shutil
import struct
import subprocess
import textwrap
import zlib

import pytest

import _zorv
from zvk_testing import begins, ends, read_capture, run_python

DROPPED = re.compile(r"\| (\d+) records were dropped: all buffers were full and no capture "
                     r"was running to write them$")


def run_script(tmp_path, code, timeout=60, expect_rc=0, **env):
    """Runs code in a fresh interpreter in tmp_path with 4 buffers of 1 MiB; returns
    its stdout lines and stderr."""
    returncode, stdout, stderr = run_python(
        ["-c", textwrap.dedent(code)], tmp_path,
        {"ZVK_BUCKET_COUNT": "4", "ZVK_BUCKET_SIZE_MB": "1", **env}, timeout)
    assert returncode == expect_rc, stdout + stderr[-4000:]
    return stdout.splitlines(), stderr


def dropped_counts(stderr):
    return [int(m.group(1)) for m in map(DROPPED.search, stderr.splitlines()) if m]


def annotation_messages(path):
    """Every BEGIN record's message in a capture file, and the number of END
    records, read bucket by bucket to the end of the file."""
    capture = read_capture(path)
    return [r["msg"] for r in begins(capture)], len(ends(capture))


def captures(tmp_path, under="."):
    return sorted((tmp_path / under).glob("*.zvkraw"))


# ---- No annotation ever blocks ----

PAIRS = 100_000  # 7.2 MB of records: far more than the four 1 MiB buffers hold

IDLE_CASES = {
    "after_stop": ("""
        z.start_profiling()
        annotate("captured", 10)
        assert repr(z.stop_profiling()) == "OK"
    """, """
        z.start_profiling()
    """),
    "after_failed_start": ("""
        z.start_profiling()  # its folder doesn't exist yet
        assert repr(z.stop_profiling()) == "Profiling not running"
    """, """
        os.mkdir("missing")
        z.start_profiling()
    """),
    "while_suspended": ("""
        z.start_profiling()
        annotate("captured", 10)
        assert repr(z.suspend_profiling()) == "OK"
    """, """
        assert repr(z.resume_profiling()) == "OK"
    """),
}


IDLE_SCENARIO = """
import os, sys, time, _zorv
def mark(text):
    sys.stderr.write("MARK " + text + "\\n")
    sys.stderr.flush()
def annotate(msg, n):
    for _ in range(n):
        _zorv.annotation_end(_zorv.annotation_begin(msg))
c = _zorv.Config()
c.profiler = {"RecordFile": "missing/run_%p"}
z = _zorv.Zorvek.instance()
assert repr(z.configure(c)) == "OK"
BEFORE
began = time.monotonic()
annotate("idle", PAIRS)
print("seconds", time.monotonic() - began, flush=True)
mark("capture comes back")
AFTER
mark("capture is back")
assert repr(z.stop_profiling()) == "OK"
"""


@pytest.mark.parametrize("case", sorted(IDLE_CASES))
def test_annotating_with_no_capture_running_drops_and_counts(tmp_path, case):
    before, after = (textwrap.dedent(code).strip() for code in IDLE_CASES[case])
    if case != "after_failed_start":
        (tmp_path / "missing").mkdir()
    code = IDLE_SCENARIO.replace("BEFORE", before).replace("AFTER", after)
    out, stderr = run_script(tmp_path, code.replace("PAIRS", str(PAIRS)))
    seconds = float(next(line for line in out if line.startswith("seconds")).split()[1])
    assert seconds < 20
    # Told once, when the capture came back.
    log = stderr.splitlines()
    counts = dropped_counts(stderr)
    assert len(counts) == 1 and counts[0] > 0
    told = next(i for i, line in enumerate(log) if DROPPED.search(line))
    assert log.index("MARK capture comes back") < told < log.index("MARK capture is back")
    if case == "after_failed_start":
        assert any("Failed to open file missing/run_" in line for line in log)
    # Every idle record is in the next capture, or counted.
    files = captures(tmp_path, "missing")
    idle_begins = sum(annotation_messages(p)[0].count("idle") for p in files)
    ends = sum(annotation_messages(p)[1] for p in files)
    captured = 10 if case != "after_failed_start" else 0
    assert idle_begins <= PAIRS
    assert idle_begins + (ends - captured) + counts[0] == 2 * PAIRS


def test_fifty_thousand_pairs_after_stop_finish_promptly(tmp_path):
    out, _ = run_script(tmp_path, """
        import time, _zorv
        c = _zorv.Config()
        c.profiler = {"BucketCount": "4", "BucketSizeMB": "1", "RecordFile": "run"}
        z = _zorv.Zorvek.instance()
        print(repr(z.configure(c)))
        z.start_profiling()
        print(repr(z.stop_profiling()))
        began = time.monotonic()
        for i in range(50000):
            _zorv.annotation_end(_zorv.annotation_begin("after stop"))
        print(time.monotonic() - began < 10)
    """, timeout=30, ZVK_BUCKET_COUNT="", ZVK_BUCKET_SIZE_MB="")
    assert out == ["OK", "OK", "True"]


# ---- configure refuses what could only hang or lose everything ----

REFUSALS = [
    ({"BucketCount": "1"}, "BucketCount must be at least 2, one buffer for each record "
                           "producer and one for the writer; got 1"),
    ({"BucketCount": "0"}, "BucketCount must be at least 2, one buffer for each record "
                           "producer and one for the writer; got 0"),
    ({"BucketSizeMB": "0"}, "BucketSizeMB must be between 1 and 4095; got 0"),
    ({"BucketSizeMB": "4096"}, "BucketSizeMB must be between 1 and 4095; got 4096"),
    ({"Compression": "1000042"}, "Compression must be 1000000 plus a zlib level from 0 to 9 "
                                 "(1000001 is level 1), or the level alone; got 1000042"),
    ({"Compression": "10"}, "Compression must be 1000000 plus a zlib level from 0 to 9 "
                            "(1000001 is level 1), or the level alone; got 10"),
]


@pytest.mark.parametrize("keys,message", REFUSALS, ids=lambda v: str(v)[:30])
def test_configure_refuses_then_accepts_a_corrected_configuration(tmp_path, keys, message):
    out, stderr = run_script(tmp_path, f"""
        import _zorv
        z = _zorv.Zorvek.instance()
        c = _zorv.Config()
        c.profiler = {{"BucketCount": "4", "BucketSizeMB": "1", "RecordFile": "run"}}
        c.profiler = dict(c.profiler, **{keys!r})
        print(repr(z.configure(c)))
        print(repr(z.stop_profiling()))
        _zorv.annotation_end(1)  # still unconfigured: an error line, nothing else
        c.profiler = {{"BucketCount": "4", "BucketSizeMB": "1", "RecordFile": "run"}}
        print(repr(z.configure(c)))
        z.start_profiling()
        _zorv.annotation_end(_zorv.annotation_begin("corrected"))
        print(repr(z.stop_profiling()))
    """, ZVK_BUCKET_COUNT="", ZVK_BUCKET_SIZE_MB="")
    assert out == [message, "Profiling not running", "OK", "OK"]
    assert "Profiler is not configured. Configure profiler first!" in stderr
    (path,) = captures(tmp_path)
    assert annotation_messages(path) == (["corrected"], 1)


@pytest.mark.parametrize("variable,value,message", [
    ("ZVK_BUCKET_COUNT", "1", REFUSALS[0][1]),
    ("ZVK_BUCKET_SIZE_MB", "0", REFUSALS[2][1]),
    ("ZVK_BUCKET_COMPRESSION", "1000042", REFUSALS[4][1]),
])
def test_environment_settings_are_refused_alike(tmp_path, variable, value, message):
    out, _ = run_script(tmp_path, """
        import _zorv
        c = _zorv.Config()
        c.profiler = {"RecordFile": "run"}
        print(repr(_zorv.Zorvek.instance().configure(c)))
    """, **{variable: value})
    assert out == [message]


def test_annotating_after_an_impossible_bucket_count_does_not_crash(tmp_path):
    out, stderr = run_script(tmp_path, """
        import _zorv
        token = _zorv.annotation_begin("x")
        _zorv.annotation_end(token)
        _zorv.annotation_end(_zorv.annotation_begin(b"y"))
        z = _zorv.Zorvek.instance()
        print(type(token).__name__)
        print(repr(z.stop_profiling()))
        z.start_profiling()
        print(repr(z.stop_profiling()))
    """, ZVK_BUCKET_COUNT="-1", ZVK_BUCKET_SIZE_MB="")
    assert out == ["int", "Profiling not running", "Profiling not running"]
    assert "Profiler is not configured. Use default settings" in stderr
    assert not captures(tmp_path)


# ---- annotation_begin: str or bytes, checked before anything runs ----

def test_annotation_begin_rejects_other_types_before_configuring(tmp_path):
    out, stderr = run_script(tmp_path, r"""
        import _zorv
        rejected = []
        for bad in (5, None, 1.5, bytearray(b"x"), memoryview(b"x"), ["x"], "\ud800",
                    "ok\udcffok"):
            try:
                _zorv.annotation_begin(bad)
            except TypeError as error:
                rejected.append(str(error) != "")
        for args in ((), ("a", "b")):
            try:
                _zorv.annotation_begin(*args)
            except TypeError:
                rejected.append(True)
        print(rejected)
        c = _zorv.Config()
        c.profiler = {"RecordFile": "run"}
        print(repr(_zorv.Zorvek.instance().configure(c)))
        _zorv.Zorvek.instance().start_profiling()
        _zorv.annotation_end(_zorv.annotation_begin("é ok"))
        _zorv.annotation_end(_zorv.annotation_begin(b"\xff raw bytes"))
        print(repr(_zorv.Zorvek.instance().stop_profiling()))
    """)
    assert out == [str([True] * 10), "OK", "OK"]
    assert "Use default settings" not in stderr
    (path,) = captures(tmp_path)
    data = path.read_bytes()
    offset = 88 + sum(struct.unpack_from("<5H", data, 72))
    raw = zlib.decompress(data[offset + 32:offset + 32 + struct.unpack_from("<I", data,
                                                                             offset + 24)[0]])
    assert "é ok".encode() + b"\0" in raw and b"\xff raw bytes\0" in raw


def test_annotation_begin_is_one_documented_function():
    doc = _zorv.annotation_begin.__doc__
    assert "Overloaded function" not in doc
    assert "message" in doc and "str or bytes" in doc


def test_only_the_hook_interface_is_exported():
    nm = shutil.which("nm")
    if nm is None:
        pytest.skip("nm is not installed")
    out = subprocess.run([nm, "-D", "--defined-only", _zorv.__file__], capture_output=True,
                         text=True, check=True, timeout=60).stdout
    names = {line.split()[-1] for line in out.splitlines() if line.strip()}
    assert {"instrumentation_funcs", "fork_suspend", "PyInit__zorv"} <= names
    assert not {"ann_begin", "ann_end", "ann_marker"} & names
