"""CPU sampling from Python, against the real kernel: the software CPU clock, which
works without a hardware PMU, sampled through perf_event into the same capture as
the annotations. Each scenario runs in a fresh interpreter under a time limit: the
profiler is one per process and configured once, and a regression here (a worker
that can't be joined after a fork, a start that fails half-way) shows as a hang."""

import os
import re

import pytest

from zvk_testing import (CONFIGURATION, EXIT, FORK, REPORT_SOURCE, SAMPLE, begins,
                         capture_names, cpu_records, ends, read_capture, run_scenario_script)

CPU_CLOCK = "1,0,1000003,743,0,0,0"  # software CPU clock every 1 000 003 ns of CPU time
PERF_CONTEXT_USER = 0xFFFFFFFFFFFFFE00

# The clock fires about once per millisecond of a thread's CPU time in user
# mode, and the scenarios spin by CPU time, not wall time, so a machine busy with
# other tests doesn't thin the samples: 0.4 s of spinning gives close to 400. The
# floor is far below that on purpose.
SPIN = 0.4
ENOUGH = 100


def log_lines(stderr, severity, text):
    pattern = re.compile(r"^LOG\(%s\) .*\| %s$" % (severity, re.escape(text)))
    return [line for line in stderr.splitlines() if pattern.match(line)]


def samples_by_tid(capture, pid=None):
    counts = {}
    for record in cpu_records(capture, SAMPLE, pid=pid):
        counts[record["tid"]] = counts.get(record["tid"], 0) + 1
    return counts


# ---- Running a scenario in a fresh interpreter ----

PRELUDE = r'''
import json, os, signal, sys, threading, time
import _zorv

prof = _zorv.Zorvek.instance()
''' + REPORT_SOURCE + r'''
def spin(cpu_seconds, wall_limit=4.0):
    """Burns the calling thread's own CPU time: two Python threads share the GIL,
    so wall time would say little about how often either was on a CPU. The clock
    is read between runs of plain bytecode, as reading it is a system call, and
    time in the kernel is not sampled."""
    began, deadline = time.thread_time(), time.monotonic() + wall_limit
    while time.thread_time() - began < cpu_seconds and time.monotonic() < deadline:
        for _ in range(10000):
            pass

def spin_in_thread(key, cpu_seconds):
    """A thread started now that spins; its kernel thread id is reported under key."""
    def body():
        report(key, threading.get_native_id())
        spin(cpu_seconds)
    thread = threading.Thread(target=body)
    thread.start()
    return thread

def annotate(msg, n=1):
    for _ in range(n):
        _zorv.annotation_end(_zorv.annotation_begin(msg))

def configure(perf=None, **keys):
    config = _zorv.Config()
    settings = {"BucketCount": "4", "BucketSizeMB": "1", "EnablePerf": "1",
                "RecordFile": "run_%p"}
    settings.update(keys)
    config.profiler = settings
    config.perf = {"EventConfigs": "CPU_CLOCK"} if perf is None else perf
    return prof.configure(config)

def start(perf=None, **keys):
    assert repr(configure(perf, **keys)) == "OK"
    prof.start_profiling()

def wait(pid, timeout=20):
    deadline = time.monotonic() + timeout
    while True:
        done, status = os.waitpid(pid, os.WNOHANG)
        if done:
            return os.waitstatus_to_exitcode(status)
        if time.monotonic() > deadline:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            raise AssertionError("child %d hung" % pid)
        time.sleep(0.01)
'''.replace("CPU_CLOCK", CPU_CLOCK)


def run_script(tmp_path, code, timeout=60):
    """Runs PRELUDE then code in tmp_path; returns the @key values it reported and
    its stderr."""
    return run_scenario_script(tmp_path, PRELUDE, code, timeout=timeout)


# ---- What a capture holds ----

def test_inherited_sampling_covers_threads_started_later(tmp_path):
    got, _ = run_script(tmp_path, """
        start(perf={"EventConfigs": "%s", "InheritEvents": "1"})
        token = _zorv.annotation_begin("spin")
        worker = spin_in_thread("worker", %r)
        report("main", threading.get_native_id())
        spin(%r)
        worker.join()
        _zorv.annotation_end(token)
        report("pid", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """ % (CPU_CLOCK, SPIN, SPIN))
    pid, main, worker = got["pid"], got["main"], got["worker"]
    assert capture_names(tmp_path) == [f"run_{pid}_0.zvkraw"]
    capture = read_capture(tmp_path / f"run_{pid}_0.zvkraw")

    # One group of one event per CPU the system has configured (online or not, as
    # the profiler counts them) for each thread there was at the start (the
    # profiler's writer among them), each opened as asked and told apart by the
    # id the kernel gave it.
    cpus = os.sysconf("SC_NPROCESSORS_CONF")
    configurations = cpu_records(capture, CONFIGURATION)
    assert len(configurations) >= cpus and len(configurations) % cpus == 0
    for record in configurations:
        assert (record["perf_type"], record["config"], record["period"]) == (1, 0, 1000003)
        assert (record["config1"], record["config2"], record["precise"]) == (0, 0, 0)
        assert record["pid"] == record["tid"] == pid
    format_ids = [r["format_id"] for r in configurations]
    assert len(set(format_ids)) == len(format_ids) and 0 not in format_ids

    samples = cpu_records(capture, SAMPLE)
    counts = samples_by_tid(capture)
    assert counts.get(main, 0) > ENOUGH and counts.get(worker, 0) > ENOUGH, counts
    for record in samples:
        assert record["pid"] == pid
        assert record["id"] in format_ids
        assert record["device"] < cpus
        # Only user call chains are asked for: the kernel's marker, then the
        # sampled instruction itself.
        assert len(record["chain"]) >= 2
        assert record["chain"][0] == PERF_CONTEXT_USER
        assert record["chain"][1] == record["ip"]
    # A descriptor's CONFIGURATION comes ahead of its first sample: a reader joins
    # on format_id as it goes.
    position = {id(r): i for i, r in enumerate(capture.records)}
    for record in configurations:
        firsts = [position[id(s)] for s in samples if s["id"] == record["format_id"]]
        assert not firsts or position[id(record)] < min(firsts)

    # The worker thread's end is told as an EXIT of the process's thread.
    assert [r["tid"] for r in cpu_records(capture, EXIT, pid=pid) if r["tid"] == worker]

    # Annotations share the file; their clock differs from the samples', so only
    # presence is checked.
    (spin_range,) = begins(capture, "spin", pid=pid)
    assert spin_range["tid"] == main
    assert [r for r in ends(capture) if r["token"] == spin_range["token"]]


def test_a_late_start_samples_the_threads_that_already_run(tmp_path):
    got, _ = run_script(tmp_path, """
        # Threads that spin before the start and on through the capture, as a
        # thread pool that a late start finds already running.
        started = threading.Event()
        def early(key):
            report(key, threading.get_native_id())
            while not started.is_set():
                for _ in range(10000):
                    pass
            spin(%r)
        threads = [threading.Thread(target=early, args=(key,)) for key in ("first", "second")]
        for thread in threads:
            thread.start()
        time.sleep(0.2)
        start(perf={"EventConfigs": "%s", "InheritEvents": "1"})
        started.set()
        for thread in threads:
            thread.join()
        report("pid", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """ % (SPIN, CPU_CLOCK))
    capture = read_capture(tmp_path / f"run_{got['pid']}_0.zvkraw")
    counts = samples_by_tid(capture, pid=got["pid"])
    assert counts.get(got["first"], 0) > ENOUGH, counts
    assert counts.get(got["second"], 0) > ENOUGH, counts
    # Every sample's event has its configuration in the file.
    format_ids = {r["format_id"] for r in cpu_records(capture, CONFIGURATION)}
    assert {r["id"] for r in cpu_records(capture, SAMPLE)} <= format_ids


def test_without_inheritance_only_the_starting_thread_is_sampled(tmp_path):
    got, _ = run_script(tmp_path, """
        start()
        worker = spin_in_thread("worker", %r)
        report("main", threading.get_native_id())
        spin(%r)
        worker.join()
        report("pid", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """ % (SPIN, SPIN))
    capture = read_capture(tmp_path / f"run_{got['pid']}_0.zvkraw")
    counts = samples_by_tid(capture)
    # Not the spinning worker, nor the profiler's own threads started after it.
    assert set(counts) == {got["main"]} and counts[got["main"]] > ENOUGH, counts


# ---- A process that ends without a stop ----

def test_a_killed_process_loses_about_the_last_second_of_samples(tmp_path):
    # Three seconds of CPU time at about a thousand samples a second, then SIGKILL:
    # the writer's flush, every second by default, has put all but about the last
    # second into the file.
    cpu_seconds = 3.0
    got, _ = run_scenario_script(tmp_path, PRELUDE, """
        start(perf={"EventConfigs": "%s", "InheritEvents": "1"})
        report("pid", os.getpid())
        began = time.thread_time()
        spin(%r, wall_limit=60)
        report("spun", time.thread_time() - began)
        os.kill(os.getpid(), signal.SIGKILL)
    """ % (CPU_CLOCK, cpu_seconds), timeout=90, expect_ok=False)
    capture = read_capture(tmp_path / f"run_{got['pid']}_0.zvkraw")
    samples = len(cpu_records(capture, SAMPLE, pid=got["pid"], tid=got["pid"]))
    # One sample per 1 000 003 ns of the thread's CPU time; at most about 1.1 s
    # of them (the ring's read interval and the flush's) may be missing, and half
    # a second more is allowed for a machine too busy to run the profiler's
    # threads on time.
    per_second = 1e9 / 1000003
    assert samples >= (got["spun"] - 1.6) * per_second * 0.9, (samples, got["spun"])


# ---- Events this machine can't sample ----

def test_default_events_without_a_pmu_fail_the_start_and_the_process_ends(tmp_path):
    got, stderr = run_script(tmp_path, """
        # Empty: the raw PMU events, which configure doesn't try.
        report("configure", repr(configure(perf={"EventConfigs": ""})))
        # The binding drops the start's Status; what it said is in the log.
        report("start", repr(prof.start_profiling()))
        annotate("after a failed start")
        report("stop", repr(prof.stop_profiling()))
    """, timeout=30)
    if got["stop"] == "OK":
        pytest.skip("this machine has the raw PMU events of the defaults")
    assert got["configure"] == "OK" and got["start"] == "None"
    assert got["stop"] == "Profiling not running"
    # The status carried the kernel's refusal as strerror's text.
    failed = [line for line in stderr.splitlines() if "| Failed to open perf handle! " in line]
    assert failed, stderr[-4000:]
    text, errno = re.search(r"\| Failed to open perf handle! (.*) errno=(\d+)$", failed[0]).groups()
    assert text == os.strerror(int(errno))
    for name in capture_names(tmp_path):
        read_capture(tmp_path / name)


@pytest.mark.parametrize("events,told", [
    # The defaults' first event: raw, absent from a machine without a PMU.
    ("4,8401,100007", "4,8401,100007,743,3,0,0"),
    # A software event number no kernel has.
    ("1,4242,1000003", "1,4242,1000003,743,3,0,0"),
])
def test_an_event_the_kernel_refuses_fails_configure(tmp_path, events, told):
    got, stderr = run_script(tmp_path, """
        report("configure", repr(configure(perf={"EventConfigs": %r})))
        # Whatever follows a refused configure, the process goes on and ends.
        prof.start_profiling()
        annotate("after a refused configure")
        report("stop", repr(prof.stop_profiling()))
    """ % events, timeout=30)
    if got["configure"] == "OK":
        pytest.skip("this machine samples " + events)
    assert got["configure"] == "Perf event configuration is invalid! Event was " + told
    assert len(log_lines(stderr, "ERROR", "Invalid perf configuration " + told)) == 1
    assert got["stop"] == "Profiling not running"


# ---- Forks while sampling ----

@pytest.mark.parametrize("child_exit", ["sys.exit(0)", "os._exit(0)"])
def test_fork_while_sampling_neither_hangs_nor_mixes_files(tmp_path, child_exit):
    got, _ = run_script(tmp_path, """
        start(perf={"EventConfigs": "%s", "InheritEvents": "1"}, EnableForkFollow="1",
              FlushIntervalMs="100")
        spin(0.1)
        pid = os.fork()
        if pid == 0:
            report("child", os.getpid())
            annotate("child")
            spin(0.2)
            # Time for the periodic flush, the only way into the file for a child
            # that ends in os._exit.
            time.sleep(0.8)
            sys.stdout.flush()
            # sys.exit runs the static destructors, which stop the capture: the
            # stop must not try to join the parent's worker thread.
            %s
        report("child_exit", wait(pid))
        spin(%r)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """ % (CPU_CLOCK, child_exit, SPIN))
    parent, child = got["parent"], got["child"]
    assert got["child_exit"] == 0
    assert capture_names(tmp_path) == sorted([f"run_{parent}_0.zvkraw", f"run_{child}_0.zvkraw"])
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    theirs = read_capture(tmp_path / f"run_{child}_0.zvkraw")
    assert theirs.header["pid"] == child
    assert samples_by_tid(ours, pid=parent).get(parent, 0) > ENOUGH
    # The parent's events are inherited by its threads only: the child, following
    # the fork, samples itself into its own file.
    assert not samples_by_tid(ours, pid=child)
    assert [r for r in cpu_records(ours, FORK) if r["pid"] == r["tid"] == child]
    assert cpu_records(theirs, SAMPLE, pid=child)
    assert len(begins(theirs, "child", pid=child)) == 1
    assert not begins(ours, "child")


def test_multiprocessing_pool_while_sampling_completes(tmp_path):
    got, _ = run_script(tmp_path, """
        import multiprocessing

        def task(i):
            spin(0.1)
            return os.getpid()

        start(perf={"EventConfigs": "%s", "InheritEvents": "1"}, EnableForkFollow="1")
        began = time.monotonic()
        pool = multiprocessing.get_context("fork").Pool(2)
        done_by = pool.map(task, range(4), chunksize=1)
        pool.close()
        pool.join()
        report("seconds", time.monotonic() - began)
        report("done_by", done_by)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """ % CPU_CLOCK, timeout=60)
    assert got["seconds"] < 20
    parent = got["parent"]
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    # The workers sample themselves, each into its own file, not into the parent's.
    sampled = {r["pid"] for r in cpu_records(ours, SAMPLE)}
    assert not set(got["done_by"]) & sampled
    for name in capture_names(tmp_path):
        read_capture(tmp_path / name)


# ---- Suspend and resume ----

def test_sampling_runs_on_through_suspend_and_says_so(tmp_path):
    got, stderr = run_script(tmp_path, """
        start(perf={"EventConfigs": "%s", "InheritEvents": "1"})
        spin(0.1)
        assert repr(prof.suspend_profiling()) == "OK"
        spin_in_thread("while_suspended", %r).join()
        assert repr(prof.resume_profiling()) == "OK"
        spin_in_thread("after_resume", %r).join()
        report("pid", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """ % (CPU_CLOCK, SPIN, SPIN))
    assert len(log_lines(stderr, "WARNING", "PERFCollector Suspend not implemented")) == 1
    assert len(log_lines(stderr, "WARNING", "PERFCollector Resume not implemented")) == 1
    capture = read_capture(tmp_path / f"run_{got['pid']}_0.zvkraw")
    counts = samples_by_tid(capture, pid=got["pid"])
    # Each thread lived only on one side of the resume, so its samples tell when
    # sampling ran without comparing clocks.
    assert counts.get(got["while_suspended"], 0) > ENOUGH, counts
    assert counts.get(got["after_resume"], 0) > ENOUGH, counts
