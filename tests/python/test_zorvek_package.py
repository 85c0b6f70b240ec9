"""The zorvek package: profile() as a context manager and a decorator, annotate()
from threads, the settings it picks for the machine, and what it says when the
profiler refuses. The profiler is one per process and configured once, so each
scenario runs in a fresh interpreter."""

import os
import re

import pytest

from zvk_testing import (ANNOTATION, BEGIN, END, MMAP, REPORT_SOURCE, SAMPLE, SPIN_SOURCE, STACK,
                         begins, cpu_records, read_capture, run_scenario_script)

PRELUDE = r'''
import json, os, sys, threading, time
import zorvek
''' + REPORT_SOURCE + SPIN_SOURCE


def run_scenario(tmp_path, code, env=None, timeout=60, expect_ok=True):
    """Runs PRELUDE then code in tmp_path; returns what it reported under @keys,
    and its stderr."""
    return run_scenario_script(tmp_path, PRELUDE, code, env=env, timeout=timeout,
                               expect_ok=expect_ok)


def zorvek_lines(stderr):
    return [line for line in stderr.splitlines() if line.startswith("zorvek: ")]


def capture_files(directory, pid=None):
    return sorted(p for p in directory.iterdir() if p.name.endswith(".zvkraw")
                  and (pid is None or f"_{pid}_" in p.name))


def assert_finished(capture):
    """The header got its final rewrite: it counts every bucket in the file."""
    assert not capture.torn
    assert capture.header["num_buckets"] == capture.buckets > 0


def assert_nested(capture, pid):
    """Per thread, each END closes the innermost range still open, and none stays
    open. Returns {tid: [names in the order they began]}."""
    opened, names = {}, {}
    for record in capture.records:
        if record["hw"] != ANNOTATION or record["pid"] != pid or record["type"] not in (BEGIN, END):
            continue
        stack = opened.setdefault(record["tid"], [])
        if record["type"] == BEGIN:
            stack.append(record["token"])
            names.setdefault(record["tid"], []).append(record["msg"])
        else:
            assert stack and stack[-1] == record["token"], (record, stack)
            stack.pop()
    assert all(not stack for stack in opened.values()), opened
    return names


# ---- profile() and annotate() ----

def test_profile_as_context_manager_with_annotations_from_threads(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        def worker(n):
            report("tid%d" % n, threading.get_native_id())
            with zorvek.annotate("worker"):
                with zorvek.annotate(b"inner"):
                    spin(0.05)

        with zorvek.profile("out") as p:
            with zorvek.annotate("main"):
                threads = [threading.Thread(target=worker, args=(n,)) for n in range(3)]
                for t in threads: t.start()
                for t in threads: t.join()
        report("main_tid", threading.get_native_id())
        report("pid", os.getpid())
        report("files", p.files)
        report("started", p.started)
    """)
    pid = got["pid"]
    (path,) = capture_files(tmp_path / "out", pid)
    assert got["started"] and got["files"] == [str(path)]
    # One line says where the file is, and the profiler's INFO lines are hidden.
    lines = zorvek_lines(stderr)
    assert len(lines) == 1, stderr
    assert re.fullmatch(r"zorvek: wrote 1 file \(.*\) to out: " + re.escape(path.name), lines[0])
    assert "LOG(INFO)" not in stderr
    capture = read_capture(path)
    assert_finished(capture)
    names = assert_nested(capture, pid)
    assert names[got["main_tid"]] == ["main"]
    for n in range(3):
        assert names[got["tid%d" % n]] == ["worker", "inner"]


def test_profile_as_decorator_makes_one_capture_a_call(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        @zorvek.profile("out", sample_hz=0)
        def train(steps):
            for _ in range(steps):
                with zorvek.annotate("step"):
                    pass
            return steps

        report("results", [train(2), train(3)])
        report("name", train.__name__)
        report("pid", os.getpid())
    """)
    assert got["results"] == [2, 3] and got["name"] == "train"
    files = capture_files(tmp_path / "out", got["pid"])
    assert len(files) == 2
    counts = [len(begins(read_capture(path), "step")) for path in files]
    assert sorted(counts) == [2, 3]
    # Same settings: no word about reusing the configured profiler.
    lines = zorvek_lines(stderr)
    assert len(lines) == 2 and all(line.startswith("zorvek: wrote 1 file") for line in lines)


def test_annotate_decorator_from_threads_and_recursion(tmp_path):
    got, _ = run_scenario(tmp_path, """
        @zorvek.annotate("fib")
        def fib(n):
            return n if n < 2 else fib(n - 1) + fib(n - 2)

        def worker(n):
            report("tid%d" % n, threading.get_native_id())
            for _ in range(50):
                fib(4)

        with zorvek.profile("out", sample_hz=0):
            threads = [threading.Thread(target=worker, args=(n,)) for n in range(4)]
            for t in threads: t.start()
            for t in threads: t.join()
        report("pid", os.getpid())
        report("fib", fib(10))
    """)
    assert got["fib"] == 55
    (path,) = capture_files(tmp_path / "out", got["pid"])
    capture = read_capture(path)
    names = assert_nested(capture, got["pid"])
    # fib(4) makes 9 calls; every one is a range on its own thread.
    for n in range(4):
        assert names[got["tid%d" % n]] == ["fib"] * 9 * 50


def test_annotate_before_any_profile_does_nothing_and_configures_nothing(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        with zorvek.annotate("too early"):
            pass
        with zorvek.profile("out", buffer_mb=8, sample_hz=0) as p:
            with zorvek.annotate("in time"):
                pass
        report("pid", os.getpid())
        report("error", p.error)
    """)
    assert got["error"] is None
    # The profile()'s own settings were taken, not defaults: its folder has the file.
    (path,) = capture_files(tmp_path / "out", got["pid"])
    capture = read_capture(path)
    assert [r["msg"] for r in begins(capture)] == ["in time"]
    assert "not configured" not in stderr


def test_annotate_checks_its_name():
    import zorvek

    with pytest.raises(TypeError):
        zorvek.annotate(42)
    with pytest.raises(TypeError):
        zorvek.annotate()
    assert repr(zorvek.annotate("step")) == "annotate('step')"
    assert zorvek.annotate(b"x").name == b"x"


def test_a_second_profile_reuses_the_profiler_and_says_so(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        with zorvek.profile("first", sample_hz=0):
            with zorvek.annotate("one"):
                pass
        with zorvek.profile("second", sample_hz=0, buffer_mb=4) as p:
            with zorvek.annotate("two"):
                pass
        report("pid", os.getpid())
        report("files", p.files)
    """)
    lines = zorvek_lines(stderr)
    assert len(lines) == 3, stderr
    assert "configured once per process" in lines[1]
    assert "output folder" in lines[1] and "buffer memory" in lines[1] and "first" in lines[1]
    assert not (tmp_path / "second").exists()
    files = capture_files(tmp_path / "first", got["pid"])
    assert len(files) == 2 and got["files"] == [str(files[1])]
    assert [r["msg"] for r in begins(read_capture(files[1]))] == ["two"]


def test_a_nested_profile_joins_the_running_capture(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        with zorvek.profile("out", sample_hz=0) as outer:
            with zorvek.profile("out", sample_hz=0) as inner:
                with zorvek.annotate("inside"):
                    pass
            report("inner", [inner.started, inner.files])
            with zorvek.annotate("after inner"):
                pass
        report("pid", os.getpid())
    """)
    assert got["inner"] == [True, []]
    (path,) = capture_files(tmp_path / "out", got["pid"])
    assert [r["msg"] for r in begins(read_capture(path))] == ["inside", "after inner"]
    assert len(zorvek_lines(stderr)) == 1


def test_start_and_stop_without_with(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        p = zorvek.profile("out", sample_hz=0, quiet=True)
        report("start", p.start())
        with zorvek.annotate("x"):
            pass
        report("files", p.stop())
        report("again", p.stop())
    """)
    assert got["start"] is True and len(got["files"]) == 1 and got["again"] == []
    assert zorvek_lines(stderr) == []


def test_a_profile_left_running_stops_at_exit(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        zorvek.profile("out", sample_hz=0).start()
        with zorvek.annotate("x"):
            pass
        report("pid", os.getpid())
    """)
    (path,) = capture_files(tmp_path / "out", got["pid"])
    assert_finished(read_capture(path))
    assert zorvek_lines(stderr)[0].startswith("zorvek: wrote 1 file")


# ---- CPU samples, mappings and the automatic settings ----

def test_cpu_sampling_with_each_threads_timer_and_the_mappings(tmp_path):
    got, _ = run_scenario(tmp_path, """
        def worker():
            report("worker", threading.get_native_id())
            spin(0.3)
        with zorvek.profile("out"):
            t = threading.Thread(target=worker)
            t.start()
            spin(0.3)
            t.join()
        report("main", threading.get_native_id())
        report("pid", os.getpid())
    """)
    (path,) = capture_files(tmp_path / "out", got["pid"])
    capture = read_capture(path)
    samples = cpu_records(capture, STACK)
    tids = {r["tid"] for r in samples}
    # Threads started after the start are sampled too.
    assert got["main"] in tids and got["worker"] in tids
    assert len(samples) > 100
    # No perf_event unless the settings ask for one.
    assert cpu_records(capture, SAMPLE) == []
    # The mappings present at the start: the interpreter and this module's library.
    mapped = {os.path.basename(r["filename"]) for r in cpu_records(capture, MMAP)}
    assert any(name.startswith("_zorv") for name in mapped), mapped


def test_sampling_off_records_no_samples(tmp_path):
    got, _ = run_scenario(tmp_path, """
        with zorvek.profile("out", sample_hz=None):
            spin(0.2)
        report("pid", os.getpid())
    """)
    (path,) = capture_files(tmp_path / "out", got["pid"])
    capture = read_capture(path)
    assert cpu_records(capture, STACK) == cpu_records(capture, SAMPLE) == []


def test_automatic_settings_for_this_machine():
    from zorvek import _settings

    settings = _settings.build_settings("/tmp/o", None, 1000, False, False)
    perf, profiler = settings["perf"], settings["profiler"]
    # Each thread's own CPU-time timer, no perf_event: it works for any user on
    # any machine, and counts system time too.
    assert perf == {"ThreadSamplerHz": "1000", "ThreadSamplerClock": "cpu"}
    assert profiler["EnablePerf"] == "0"
    wall = _settings.build_settings("/tmp/o", None, 250.4, False, False, clock="wall")
    assert wall["perf"] == {"ThreadSamplerHz": "250", "ThreadSamplerClock": "wall"}
    # perf events only where the settings name them, with threads started later
    # and the mappings present at the start; the sampler runs beside them.
    events = _settings.build_settings("/tmp/o", None, 1000, False, False,
                                      {"perf": {"EventConfigs": "1,0,1000003,743,0,0,0"}})
    assert events["profiler"]["EnablePerf"] == "1"
    assert events["perf"] == {"ThreadSamplerHz": "1000", "ThreadSamplerClock": "cpu",
                              "InheritEvents": "1", "RecordMappings": "1",
                              "EventConfigs": "1,0,1000003,743,0,0,0"}
    # Where the probe refused them, they stay off.
    refused = _settings.build_settings("/tmp/o", None, 1000, False, False,
                                       {"perf": {"EventConfigs": ""}}, perf_events=False)
    assert refused["profiler"]["EnablePerf"] == "0"
    # Buffers: 2 % of memory, within 16 to 256 MiB, in buckets of at most 8 MiB.
    count, size = int(profiler["BucketCount"]), int(profiler["BucketSizeMB"])
    total = count * size
    share = _settings.memory_limit_bytes() * 0.02 / (1 << 20)
    assert 16 <= total <= 256 and size <= 8 and count >= 2
    assert total == max(16, min(256, int(share))) // size * size
    assert _settings.split_buffer(2) == (2, 1)
    assert _settings.split_buffer(256) == (32, 8)
    assert _settings.split_buffer(100) == (12, 8)
    assert profiler["RecordFile"] == "/tmp/o/zorvek_%h_%p_%t"
    assert profiler["EnableCuda"] == "0"
    assert "ThreadSamplerHz" not in _settings.build_settings("/tmp/o", 64, 0, True, True)["perf"]
    # GPU tracing only where a driver is.
    assert _settings.resolve_gpu("auto") == _settings.cuda_driver_present()
    if not os.path.exists("/proc/driver/nvidia"):
        assert _settings.resolve_gpu("auto") is False
    # This machine lets a process sample its own threads.
    assert _settings.probe_cpu_sampling() is None
    with pytest.raises(ValueError):
        _settings.sampler_hz(-5)
    with pytest.raises(ValueError):
        _settings.check_clock("CPU")
    with pytest.raises(ValueError):
        _settings.split_buffer(1)


def test_bad_arguments_are_raised_at_once():
    import zorvek

    with pytest.raises(ValueError):
        zorvek.profile(gpu="sometimes")
    with pytest.raises(ValueError):
        zorvek.profile(sample_hz=10 ** 9)
    with pytest.raises(ValueError):
        zorvek.profile(buffer_mb=1)
    with pytest.raises(ValueError):
        zorvek.profile(settings={"ZORV": {}})


def test_verbose_shows_the_profilers_info_lines(tmp_path):
    _, stderr = run_scenario(tmp_path, """
        with zorvek.profile("out", sample_hz=0, verbose=True):
            pass
    """)
    assert "LOG(INFO)" in stderr
    assert any(line.startswith("zorvek: capture started") for line in zorvek_lines(stderr))


# ---- When the profiler refuses ----

def test_refused_settings_are_reported_and_the_block_runs(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        # A software event number no kernel has.
        with zorvek.profile("out", settings={"perf": {"EventConfigs": "1,4242,1000003"}}) as p:
            report("ran", True)
        report("state", [p.started, p.error, p.files])
        with zorvek.profile("out") as q:
            pass
        report("again", q.error)
    """)
    assert got["ran"] is True
    started, error, files = got["state"]
    assert not started and files == []
    assert error == ("not profiling: the profiler refused the settings: Perf event "
                     "configuration is invalid! Event was 1,4242,1000003,743,3,0,0")
    assert "zorvek: " + error in zorvek_lines(stderr)
    assert got["again"].startswith("not profiling: the profiler refused its settings earlier")


def test_a_failed_start_says_why(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        with zorvek.profile("out", sample_hz=0) as p:
            report("ran", True)
        report("state", [p.started, p.error])
    """, env={"ZVK_OUTPUT_FILE_NAME": str(tmp_path / "missing" / "run_%p")})
    assert got["ran"] is True
    assert got["state"] == [False, "the capture did not start: Failed to open file No such file "
                                   f"or directory (files were to go to {tmp_path / 'missing'})"]
    assert zorvek_lines(stderr) == ["zorvek: " + got["state"][1]]


def test_a_start_failed_by_events_the_processor_lacks(tmp_path):
    # Left empty, the profiler samples four raw PMU events, which it doesn't try
    # at configure: the start fails where the processor lacks them.
    got, stderr = run_scenario(tmp_path, """
        with zorvek.profile("out", settings={"perf": {"EventConfigs": ""}}) as p:
            report("ran", True)
        report("state", [p.started, p.error])
    """)
    if got["state"][0]:
        pytest.skip("this machine has the raw PMU events")
    assert got["ran"] is True
    assert got["state"][1].startswith("the capture did not start: ")
    assert "zorvek: " + got["state"][1] in zorvek_lines(stderr)


def test_an_output_folder_that_cant_be_made(tmp_path):
    (tmp_path / "file").write_text("")
    got, stderr = run_scenario(tmp_path, """
        with zorvek.profile("file/out") as p:
            pass
        report("error", p.error)
    """)
    assert got["error"] == "not profiling: can't make the output folder file/out: Not a directory"
    assert zorvek_lines(stderr) == ["zorvek: " + got["error"]]


def test_files_named_by_the_environment_are_found(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        with zorvek.profile("out", sample_hz=0) as p:
            pass
        report("files", p.files)
        report("pid", os.getpid())
    """, env={"ZVK_OUTPUT_FILE_NAME": str(tmp_path / "elsewhere_%p")})
    assert got["files"] == [str(tmp_path / f"elsewhere_{got['pid']}_0.zvkraw")]


# ---- Forked children ----

def test_multiprocessing_workers_with_follow_forks_write_whole_captures(tmp_path):
    got, stderr = run_scenario(tmp_path, """
        import multiprocessing

        def work(n):
            with zorvek.annotate("child %d" % n):
                spin(0.1)

        if __name__ == "__main__":
            with zorvek.profile("out", follow_forks=True) as p:
                with zorvek.annotate("parent"):
                    context = multiprocessing.get_context("fork")
                    workers = [context.Process(target=work, args=(n,)) for n in range(2)]
                    for w in workers: w.start()
                    for w in workers: w.join()
            report("children", [w.pid for w in workers])
            report("codes", [w.exitcode for w in workers])
            report("pid", os.getpid())
            report("other_files", len(p.other_files))
    """)
    assert got["codes"] == [0, 0] and got["other_files"] == 2
    (parent,) = capture_files(tmp_path / "out", got["pid"])
    assert_finished(read_capture(parent))
    for n, child in enumerate(got["children"]):
        (path,) = capture_files(tmp_path / "out", child)
        capture = read_capture(path)
        assert_finished(capture)
        assert [r["msg"] for r in begins(capture, pid=child)] == ["child %d" % n]
    assert "child processes wrote 2 more" in zorvek_lines(stderr)[-1]


# ---- The package as installed ----

def test_the_package_is_typed_and_documented():
    import zorvek

    folder = os.path.dirname(zorvek.__file__)
    assert os.path.exists(os.path.join(folder, "py.typed"))
    assert os.path.exists(os.path.join(folder, "_annotate.pyi"))
    assert zorvek.profile.__doc__ and "sample_hz" in zorvek.profile.__doc__
    assert zorvek.annotate.__doc__ and "decorator" in zorvek.annotate.__doc__
    assert zorvek.annotate.__module__ == "zorvek"
    assert set(zorvek.__all__) == {"profile", "annotate", "SettingError", "__version__"}
    assert issubclass(zorvek.SettingError, ValueError) and zorvek.SettingError.__doc__
