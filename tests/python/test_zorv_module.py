"""The _zorv module as a training script sees it. The controller is one per process
and can be configured once, so each scenario runs in a fresh interpreter."""

import json
import os
import shutil
import subprocess
import sys
import sysconfig
import textwrap

import pytest

ZVKDUMP = shutil.which("zvkdump")


def run_script(code, tmp_path, **env):
    """Runs `code` in a fresh interpreter inside tmp_path with small buffers."""
    full_env = dict(os.environ)
    for name in ("ZV_CURRENT_HOST", "ZVK_OUTPUT_FILE_NAME", "ZORV_MIN_LOG_LEVEL"):
        full_env.pop(name, None)
    full_env.update({"ZVK_BUCKET_COUNT": "4", "ZVK_BUCKET_SIZE_MB": "1"})
    full_env.update(env)
    result = subprocess.run(
        [sys.executable, "-c", textwrap.dedent(code)],
        cwd=tmp_path, env=full_env, capture_output=True, text=True, timeout=120,
    )
    assert result.returncode == 0, result.stderr
    return result


def log_messages(stderr):
    """Log lines as 'SEVERITY| message', without the time stamp and source."""
    lines = []
    for line in stderr.splitlines():
        if line.startswith("LOG(") and "| " in line:
            lines.append(line[4:line.index(")")] + "| " + line.split("| ", 1)[1])
    return lines


def dump_json(path):
    out = subprocess.run([ZVKDUMP, "--json", str(path)], capture_output=True, text=True, check=True)
    return json.loads(out.stdout)


def captures(tmp_path):
    return sorted(p for p in tmp_path.iterdir() if p.suffix == ".zvkraw")


def test_start_profiling_as_first_call_configures_with_defaults(tmp_path):
    result = run_script("""
        import _zorv
        z = _zorv.Zorvek.instance()
        print(repr(z.start_profiling()))
        print(repr(z.configure(_zorv.Config())))
        print(repr(z.stop_profiling()))
    """, tmp_path)
    assert result.stdout.splitlines() == ["None", "Already configured!", "OK"]
    messages = log_messages(result.stderr)
    assert messages[0] == "WARNING| Profiler is not configured. Use default settings"
    assert "INFO| CUDA capture enabled " in messages
    # The message carries a line end of its own, ahead of the one every log line gets.
    assert "| CUDA capture enabled \n\n" in result.stderr


def test_annotation_begin_first_configures_but_does_not_start(tmp_path):
    result = run_script("""
        import _zorv
        token = _zorv.annotation_begin("early")
        z = _zorv.Zorvek.instance()
        print(repr(z.stop_profiling()))
        z.start_profiling()
        _zorv.annotation_end(token)
        print(repr(z.stop_profiling()))
    """, tmp_path, ZVK_OUTPUT_FILE_NAME="early_%p")
    assert result.stdout.splitlines() == ["Profiling not running", "OK"]
    warnings = [m for m in log_messages(result.stderr) if "Use default settings" in m]
    assert warnings == ["WARNING| Profiler is not configured. Use default settings"]
    (path,) = captures(tmp_path)
    records = [r for b in dump_json(path)["buckets"] for r in b["records"]]
    assert [r.get("msg") for r in records if r["event_type"] == 0] == ["early"]


def test_annotation_end_first_logs_error_and_does_not_configure(tmp_path):
    result = run_script("""
        import _zorv
        _zorv.annotation_end(5)
        print(repr(_zorv.Zorvek.instance().configure(_zorv.Config())))
    """, tmp_path)
    assert result.stdout.splitlines() == ["OK"]
    assert log_messages(result.stderr)[0] == \
        "ERROR| Profiler is not configured. Configure profiler first!"


def test_status_config_and_enum_surface(tmp_path):
    run_script("""
        import _zorv
        assert repr(_zorv.Status(_zorv.ErrorCode.Failure, "x")) == "x"
        assert _zorv.Status(_zorv.ErrorCode.Failure, "x").code == _zorv.ErrorCode.Failure
        assert _zorv.Zorvek.instance().stop_profiling().code == _zorv.ErrorCode.FailedPrecondition
        assert repr(_zorv.Config()) == "ZORV:\\nCUDA:\\nPERF:\\n"
        assert repr(_zorv.Zorvek.instance().suspend_profiling()) == "OK"
        assert _zorv.ErrorCode.Failure == 7 and int(_zorv.ErrorCode.EndOfData) == 8
        assert not hasattr(_zorv, "Failure") and not hasattr(_zorv.ErrorCode, "NUM_ERROR_CODES")
        assert _zorv.__doc__ == "This is a thin layer of python over zorv implementation"
        c = _zorv.Config()
        c.profiler = {"b": "2", "a": "1"}
        c.profiler["c"] = "3"  # a copy: doesn't reach the Config
        assert repr(c) == "ZORV:\\n\\t a : 1\\n\\t b : 2\\nCUDA:\\nPERF:\\n"
        for call in (lambda: _zorv.Zorvek(),
                     lambda: _zorv.annotation_begin(5),
                     lambda: _zorv.annotation_begin(text="x"),
                     lambda: setattr(c, "perf", {"k": 1})):
            try:
                call()
            except TypeError:
                continue
            raise AssertionError("no TypeError")
    """, tmp_path)


def test_module_is_built_for_this_interpreter():
    import _zorv
    assert _zorv.__file__.endswith(sysconfig.get_config_var("EXT_SUFFIX"))


def test_threads_annotate_into_one_finished_file(tmp_path):
    threads, pairs = 4, 6000
    result = run_script(f"""
        import threading, _zorv
        c = _zorv.Config()
        c.profiler = {{"BucketCount": "6", "BucketSizeMB": "1", "RecordFile": "e2e_%p"}}
        z = _zorv.Zorvek.instance()
        print(repr(z.configure(c)))
        z.start_profiling()
        tokens = {{}}
        def work(n):
            mine = tokens.setdefault(n, [])
            for i in range({pairs}):
                t = _zorv.annotation_begin("thread%d-step%d" % (n, i % 10))
                mine.append(t)
                _zorv.annotation_end(t)
        ts = [threading.Thread(target=work, args=(n,)) for n in range({threads})]
        [t.start() for t in ts]
        [t.join() for t in ts]
        _zorv.annotation_end(_zorv.annotation_begin(b"bytes message"))
        print(repr(z.stop_profiling()))
        print(sorted(t for v in tokens.values() for t in v) == list(range({threads * pairs})))
    """, tmp_path, ZVK_BUCKET_COUNT="", ZVK_BUCKET_SIZE_MB="")
    assert result.stdout.splitlines() == ["OK", "OK", "True"]
    (path,) = captures(tmp_path)
    dump = dump_json(path)
    assert dump["clean"] and dump["problem"] == ""
    buckets = dump["buckets"]
    records = [r for b in buckets for r in b["records"]]
    assert dump["header"]["num_buckets"] == len(buckets) > 1  # 1 MiB buffers fill up
    assert sum(b["number_of_records"] for b in buckets) == len(records)
    for bucket in buckets:
        stamps = [r["timestamp"] for r in bucket["records"]]
        assert bucket["tmin"] == min(stamps) and bucket["tmax"] == max(stamps)
        assert bucket["number_of_records"] == len(stamps)
    assert records[0]["event_type"] == 2 and records[0]["payload_size"] == 256
    begins = [r for r in records if r["hw_type"] == 5 and r["event_type"] == 0]
    ends = [r for r in records if r["hw_type"] == 5 and r["event_type"] == 1]
    assert len(records) == 1 + 2 * (threads * pairs + 1)
    assert sorted(r["token"] for r in begins) == list(range(threads * pairs + 1))
    assert sorted(r["token"] for r in ends) == sorted(r["token"] for r in begins)
    for r in begins:
        # "threadN-stepM" and "bytes message": 13 bytes, a terminator and padding
        # to 16, behind the 8-byte correlation.
        assert len(r["msg"]) == 13 and r["payload_size"] == 24
        assert r["pid"] == dump["header"]["pid"] and r["call_chain_size"] == 0
    by_tid = {}
    for r in begins[:-1]:
        by_tid.setdefault(r["tid"], set()).add(r["msg"].split("-")[0])
    assert len(by_tid) == threads and all(len(v) == 1 for v in by_tid.values())
    assert begins[-1]["msg"] == "bytes message"
    assert dump["header"]["max_uncompressed_size"] == max(b["uncompressed_size"] for b in buckets) + 8
    assert dump["header"]["max_bucket_size"] == max(b["compressed_size"] for b in buckets)
    assert dump["header"]["end_time"] >= dump["header"]["start_time"] > 0


def test_zvkdump_rejects_what_is_not_a_capture_file(tmp_path):
    short = tmp_path / "short.zvkraw"
    short.write_bytes(b"ZVKRAWDF")
    other = tmp_path / "other.zvkraw"
    other.write_bytes(b"x" * 200)
    for path, reason in ((short, "too short to be a capture file"),
                         (other, "not a capture file"),
                         (tmp_path / "absent.zvkraw", "No such file or directory")):
        out = subprocess.run([ZVKDUMP, str(path)], capture_output=True, text=True)
        assert out.returncode == 1
        assert out.stderr.count("\n") == 1 and out.stderr.startswith(f"zvkdump: {path}: ")
        assert reason in out.stderr


def test_zvkdump_reads_torn_and_unfinished_files(tmp_path):
    run_script("""
        import _zorv
        c = _zorv.Config()
        c.profiler = {"RecordFile": "torn"}
        z = _zorv.Zorvek.instance()
        z.configure(c)
        z.start_profiling()
        for i in range(100):
            _zorv.annotation_end(_zorv.annotation_begin("x" * i))
        z.stop_profiling()
    """, tmp_path)
    (path,) = captures(tmp_path)
    data = bytearray(path.read_bytes())
    data[60:64] = b"\0\0\0\0"  # num_buckets and end_time as a killed writer leaves them
    data[32:40] = bytes(8)
    torn = tmp_path / "cut.zvkraw"
    torn.write_bytes(bytes(data[:-10]))
    out = subprocess.run([ZVKDUMP, str(torn)], capture_output=True, text=True)
    assert out.returncode == 3, out.stderr  # read, but cut
    assert "unfinished capture" in out.stderr
    assert "is torn" in out.stderr
    whole = tmp_path / "whole.zvkraw"
    whole.write_bytes(bytes(data))
    dump = dump_json(whole)
    assert dump["clean"] and dump["unfinished"] and len(dump["buckets"]) == 1
