"""Fork following from Python, with real forks: os.fork and multiprocessing's fork
start method. The profiler is one per process and configured once, so each scenario
runs in a fresh interpreter, in a session of its own so that a hung child is killed
with it. Capture files are read by a small reader of this file's own."""

import os
import textwrap

import pytest

from zvk_testing import (END, REPORT_SOURCE, begins, capture_names, read_capture,
                         run_scenario_script)

def pids_of(capture):
    return {r["pid"] for r in capture.records}


def assert_finished(capture):
    """The header got its final rewrite: it counts every bucket in the file."""
    assert not capture.torn
    assert capture.header["num_buckets"] == capture.buckets > 0
    assert capture.header["end_time"] >= capture.header["start_time"] > 0


# ---- Running a scenario in a fresh interpreter ----

PRELUDE = r'''
import json, os, signal, sys, time
import _zorv

prof = _zorv.Zorvek.instance()
''' + REPORT_SOURCE + r'''
def files():
    return sorted(n for n in os.listdir(".") if ".zvkraw" in n)

def written(path=None, timeout=10):
    """Waits until the writer has put a bucket into the file after its header."""
    import struct
    path = path or files()[0]
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        with open(path, "rb") as f:
            head = f.read(82)
        header_size = 88 + sum(struct.unpack_from("<5H", head, 72)) if len(head) == 82 else None
        if header_size is not None and os.path.getsize(path) > header_size:
            return
        time.sleep(0.02)
    raise AssertionError("no bucket reached " + path)

def annotate(msg, n=1):
    for _ in range(n):
        _zorv.annotation_end(_zorv.annotation_begin(msg))

def start(**keys):
    config = _zorv.Config()
    settings = {"BucketCount": "4", "BucketSizeMB": "1"}
    settings.update(keys)
    config.profiler = settings
    assert repr(prof.configure(config)) == "OK"
    prof.start_profiling()

def fork(body):
    """Runs body in a forked child, which always ends with os._exit."""
    pid = os.fork()
    if pid == 0:
        code = 1
        try:
            body()
            code = 0
        except BaseException:
            import traceback
            traceback.print_exc()
        finally:
            sys.stdout.flush()
            sys.stderr.flush()
            os._exit(code)
    return pid

def wait(pid, timeout=30):
    deadline = time.monotonic() + timeout
    while True:
        done, status = os.waitpid(pid, os.WNOHANG)
        if done:
            assert os.waitstatus_to_exitcode(status) == 0, "child %d failed" % pid
            return
        if time.monotonic() > deadline:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            raise AssertionError("child %d hung" % pid)
        time.sleep(0.01)
'''


def run_script(tmp_path, code, timeout=90, first="", **env):
    """Runs `first`, PRELUDE, then code, in tmp_path; returns the @key values it
    reported and its stderr."""
    return run_scenario_script(tmp_path, textwrap.dedent(first) + PRELUDE, code, env=env,
                               timeout=timeout)


# ---- os.fork ----

def test_following_on_gives_the_child_a_file_of_its_own(tmp_path):
    got, _ = run_script(tmp_path, """
        start(RecordFile="run_%p", EnableForkFollow="1", FlushIntervalMs="100")
        annotate("before", 100)
        written()  # a bucket reaches the parent's file before the fork
        report("first_token", _zorv.annotation_begin("probe"))
        def child():
            report("child", os.getpid())
            report("child_token", _zorv.annotation_begin("child"))
            annotate("child", 299)
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        annotate("after", 300)
        wait(pid)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """)
    parent, child = got["parent"], got["child"]
    assert capture_names(tmp_path) == sorted([f"run_{parent}_0.zvkraw", f"run_{child}_0.zvkraw"])
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    theirs = read_capture(tmp_path / f"run_{child}_0.zvkraw")
    assert ours.header["pid"] == parent and theirs.header["pid"] == child
    assert_finished(ours)
    assert_finished(theirs)
    # The parent went on writing its own file across the fork.
    assert ours.buckets >= 2
    assert len(begins(ours, "before")) == 100 and len(begins(ours, "after")) == 300
    assert child not in pids_of(ours)
    # The child's records are all in its own file, and nothing of the parent's:
    # neither what it did after the fork nor what was still in the buffers before.
    assert len(begins(theirs, "child", pid=child)) == 300
    assert not begins(theirs, "after")
    assert not begins(theirs, "before")
    assert pids_of(theirs) == {child}
    # The child's tokens continue the parent's counter.
    assert got["child_token"] > got["first_token"]


def test_following_on_without_pid_in_the_name_takes_the_next_free_number(tmp_path):
    got, _ = run_script(tmp_path, """
        start(RecordFile="run", EnableForkFollow="1", FlushIntervalMs="100")
        annotate("before", 10)
        written()
        def child():
            report("child", os.getpid())
            annotate("child", 10)
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        annotate("after", 10)
        wait(pid)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """)
    assert capture_names(tmp_path) == ["run_0.zvkraw", "run_1.zvkraw"]
    ours, theirs = read_capture(tmp_path / "run_0.zvkraw"), read_capture(tmp_path / "run_1.zvkraw")
    assert ours.header["pid"] == got["parent"] and theirs.header["pid"] == got["child"]
    assert len(begins(ours, "after")) == 10 and not begins(ours, "child")
    assert len(begins(theirs, "child")) == 10 and not begins(theirs, "after")


# Before any bucket is written the parent's file is empty, and an empty file is
# removed when the writer suspends for the fork. The child, opening its new file
# at once, may find that name free; the parent, resuming later, must not reopen
# the child's file by name. The extra parent handler below only makes the parent
# slow to resume after the fork, as a busy machine can.
def test_child_never_takes_the_file_of_a_parent_slow_to_resume(tmp_path):
    # Registered before the profiler exists, so before its own handlers: in the
    # parent it runs first.
    slow_parent = """
        import ctypes
        libc = ctypes.CDLL("libc.so.6")
        @ctypes.CFUNCTYPE(None)
        def slow_parent():
            libc.usleep(500000)
        assert libc.__register_atfork(None, slow_parent, None, None) == 0
    """
    got, _ = run_script(tmp_path, """
        start(RecordFile="run", EnableForkFollow="1")
        annotate("before")
        def child():
            report("child", os.getpid())
            annotate("child")
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        annotate("after")
        wait(pid)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """, first=slow_parent)
    names = capture_names(tmp_path)
    files = {read_capture(tmp_path / n).header["pid"]: read_capture(tmp_path / n) for n in names}
    assert len(names) == 2 and set(files) == {got["parent"], got["child"]}
    assert len(begins(files[got["parent"]], "after")) == 1
    assert len(begins(files[got["child"]], "child")) == 1


def test_following_off_child_is_idle_and_never_blocks(tmp_path):
    got, stderr = run_script(tmp_path, """
        start(RecordFile="run_%p", FlushIntervalMs="100")
        annotate("before", 100)
        def child():
            report("child", os.getpid())
            assert repr(prof.stop_profiling()) == "Profiling not running"
            # Far more than the four inherited 1 MiB buffers hold.
            began = time.monotonic()
            annotate("idle child", 100000)
            report("idle_seconds", time.monotonic() - began)
            report("files_in_child", files())
            # Idle, not broken: the child can start a capture of its own.
            prof.start_profiling()
            annotate("own capture", 50)
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        annotate("after", 100)
        wait(pid, timeout=60)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """)
    parent, child = got["parent"], got["child"]
    assert got["idle_seconds"] < 20
    # No file was started for the child by the fork.
    assert got["files_in_child"] == [f"run_{parent}_0.zvkraw"]
    assert capture_names(tmp_path) == sorted([f"run_{parent}_0.zvkraw", f"run_{child}_0.zvkraw"])
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    assert_finished(ours)
    assert child not in pids_of(ours)
    assert len(begins(ours, "after")) == 100
    # The drops were counted and told when the child's own capture started.
    dropped = [line for line in stderr.splitlines() if "records were dropped" in line]
    assert len(dropped) == 1
    count = int(dropped[0].split("| ", 1)[1].split()[0])
    assert dropped[0].endswith(f"{count} records were dropped: all buffers were full and no "
                               "capture was running to write them")
    theirs = read_capture(tmp_path / f"run_{child}_0.zvkraw")
    assert_finished(theirs)
    # Every record the child made is either in its file or counted as dropped.
    kept = len([r for r in theirs.records if r["pid"] == child])
    assert count > 0 and kept + count == 2 * 100000 + 2 * 50
    assert len(begins(theirs, "own capture")) == 50


def test_second_fork_in_a_child_follows_as_the_first(tmp_path):
    got, _ = run_script(tmp_path, """
        start(RecordFile="run_%p", EnableForkFollow="1", FlushIntervalMs="100")
        annotate("parent", 10)
        def grandchild():
            report("grandchild", os.getpid())
            annotate("grandchild", 30)
            assert repr(prof.stop_profiling()) == "OK"
        def child():
            report("child", os.getpid())
            annotate("child", 20)
            written("run_%d_0.zvkraw" % os.getpid())
            pid = fork(grandchild)
            annotate("child after", 20)
            wait(pid)
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        annotate("parent after", 10)
        wait(pid)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """)
    parent, child, grandchild = got["parent"], got["child"], got["grandchild"]
    assert capture_names(tmp_path) == sorted(f"run_{p}_0.zvkraw" for p in (parent, child, grandchild))
    files = {p: read_capture(tmp_path / f"run_{p}_0.zvkraw") for p in (parent, child, grandchild)}
    for pid, capture in files.items():
        assert capture.header["pid"] == pid
        assert_finished(capture)
    assert pids_of(files[parent]) == {parent}
    assert pids_of(files[child]) == {child}
    assert pids_of(files[grandchild]) == {grandchild}
    assert len(begins(files[child], "child", pid=child)) == 20
    assert len(begins(files[child], "child after", pid=child)) == 20
    assert len(begins(files[grandchild], "grandchild", pid=grandchild)) == 30
    assert not begins(files[grandchild], "child after")
    assert len(begins(files[parent], "parent after")) == 10


def test_stop_in_a_child_closes_only_the_childs_file(tmp_path):
    got, _ = run_script(tmp_path, """
        start(RecordFile="run_%p", EnableForkFollow="1", FlushIntervalMs="100")
        annotate("before", 10)
        def child():
            report("child", os.getpid())
            annotate("child", 10)
            assert repr(prof.stop_profiling()) == "OK"
            assert repr(prof.stop_profiling()) == "Profiling not running"
        pid = fork(child)
        wait(pid)
        # The parent's capture runs on after the child's stop.
        annotate("parent after child stopped", 10)
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """)
    parent, child = got["parent"], got["child"]
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    theirs = read_capture(tmp_path / f"run_{child}_0.zvkraw")
    assert_finished(ours)
    assert_finished(theirs)
    assert len(begins(theirs, "child", pid=child)) == 10
    assert len(begins(ours, "parent after child stopped")) == 10
    assert child not in pids_of(ours)


def test_fork_while_suspended_changes_nothing(tmp_path):
    got, _ = run_script(tmp_path, """
        start(RecordFile="run_%p", EnableForkFollow="1", FlushIntervalMs="100")
        annotate("before", 10)
        written()
        assert repr(prof.suspend_profiling()) == "OK"
        files_at_fork = files()
        def child():
            report("child", os.getpid())
            report("child_files", files())
            assert repr(prof.stop_profiling()) == "Profiling not running"
            assert repr(prof.resume_profiling()) == "OK"
            annotate("child", 10)
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        report("parent_files", files())
        assert repr(prof.stop_profiling()) == "Profiling not running"
        assert repr(prof.resume_profiling()) == "OK"
        annotate("parent", 10)
        wait(pid)
        report("parent", os.getpid())
        report("files_at_fork", files_at_fork)
        assert repr(prof.stop_profiling()) == "OK"
    """)
    parent, child = got["parent"], got["child"]
    # No handler started, finished or moved a file.
    assert got["files_at_fork"] == [f"run_{parent}_0.zvkraw"]
    assert got["child_files"] == got["parent_files"] == got["files_at_fork"]
    # Resumed in the child, the inherited capture goes on in a file of the child's
    # own; the parent's file goes on in the parent.
    assert capture_names(tmp_path) == sorted([f"run_{parent}_0.zvkraw", f"run_{child}_0.zvkraw"])
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    theirs = read_capture(tmp_path / f"run_{child}_0.zvkraw")
    assert_finished(ours)
    assert_finished(theirs)
    assert ours.header["pid"] == parent and theirs.header["pid"] == child
    assert child not in pids_of(ours)
    assert len(begins(ours, "before")) == 10 and len(begins(ours, "parent")) == 10
    assert len(begins(theirs, "child", pid=child)) == 10 and not begins(theirs, "parent")


def test_kelvane_parent_file_keeps_its_tmp_name_across_a_fork(tmp_path):
    got, stderr = run_script(tmp_path, """
        start(EnableForkFollow="1", FlushIntervalMs="100")
        annotate("before", 10)
        written()
        report("before_fork", files())
        def child():
            report("child", os.getpid())
            annotate("child", 10)
            report("child_running", files())
            assert repr(prof.stop_profiling()) == "OK"
        pid = fork(child)
        wait(pid)
        annotate("after", 10)
        report("after_fork", files())
        report("parent", os.getpid())
        assert repr(prof.stop_profiling()) == "OK"
    """, ZV_CURRENT_HOST="node-1", ZVK_OUTPUT_FILE_NAME="kv_%p")
    parent, child = got["parent"], got["child"]
    ours, theirs = f"kv_{parent}_0.zvkraw", f"kv_{child}_0.zvkraw"
    assert got["before_fork"] == [ours + ".tmp"]
    assert got["child_running"] == sorted([ours + ".tmp", theirs + ".tmp"])
    # The suspend around the fork didn't finish the parent's file.
    assert got["after_fork"] == sorted([ours + ".tmp", theirs])
    assert capture_names(tmp_path) == sorted([ours, theirs])
    assert not [n for n in os.listdir(tmp_path) if n.endswith(".tmp")]
    capture = read_capture(tmp_path / ours)
    assert_finished(capture)
    assert len(begins(capture, "before")) == 10 and len(begins(capture, "after")) == 10
    assert len(begins(read_capture(tmp_path / theirs), "child", pid=child)) == 10
    assert f"Rename {ours}.tmp to {ours}" in stderr


# ---- multiprocessing, fork start method ----

def test_multiprocessing_pool_workers_each_keep_their_records(tmp_path):
    got, _ = run_script(tmp_path, """
        import multiprocessing

        def task(i):
            annotate("task%d" % i, 200)
            # Outlive the periodic flush: the worker ends in os._exit, with no stop.
            time.sleep(1.6)
            return os.getpid()

        start(RecordFile="run_%p", EnableForkFollow="1")
        annotate("parent", 10)
        context = multiprocessing.get_context("fork")
        pool = context.Pool(2)
        done_by = pool.map(task, range(4), chunksize=1)
        pool.close()
        pool.join()
        annotate("parent after", 10)
        report("parent", os.getpid())
        report("done_by", done_by)
        assert repr(prof.stop_profiling()) == "OK"
    """)
    parent, done_by = got["parent"], got["done_by"]
    ours = read_capture(tmp_path / f"run_{parent}_0.zvkraw")
    assert_finished(ours)
    assert pids_of(ours) == {parent}
    assert len(begins(ours, "parent after")) == 10
    for i, worker in enumerate(done_by):
        capture = read_capture(tmp_path / f"run_{worker}_0.zvkraw")
        assert capture.header["pid"] == worker
        # The parent's records in the buffers at the fork are the parent's alone.
        assert pids_of(capture) == {worker} and not begins(capture, "parent")
        assert len(begins(capture, f"task{i}", pid=worker)) == 200
        ends = [r for r in capture.records if r["type"] == END and r["pid"] == worker]
        assert len(ends) == 200 * done_by.count(worker)


def test_multiprocessing_workers_with_following_off_end_promptly(tmp_path):
    got, _ = run_script(tmp_path, """
        import multiprocessing

        def work(i):
            annotate("worker%d" % i, 100000)

        start(RecordFile="run_%p")
        context = multiprocessing.get_context("fork")
        workers = [context.Process(target=work, args=(i,)) for i in range(3)]
        began = time.monotonic()
        for w in workers:
            w.start()
        for w in workers:
            w.join(timeout=60)
        report("seconds", time.monotonic() - began)
        report("exitcodes", [w.exitcode for w in workers])
        for w in workers:
            if w.is_alive():
                w.kill()
        report("parent", os.getpid())
        annotate("parent", 10)
        assert repr(prof.stop_profiling()) == "OK"
    """)
    assert got["exitcodes"] == [0, 0, 0]
    assert got["seconds"] < 30
    assert capture_names(tmp_path) == [f"run_{got['parent']}_0.zvkraw"]
    ours = read_capture(tmp_path / f"run_{got['parent']}_0.zvkraw")
    assert pids_of(ours) == {got["parent"]} and len(begins(ours, "parent")) == 10


# ---- The periodic flush: what a process ending in os._exit keeps ----

@pytest.mark.parametrize("key,variable,kept", [
    ("100", None, True),
    ("60000", "100", True),    # the environment has the last word
    ("100", "60000", False),
])
def test_records_older_than_the_flush_interval_survive_os_exit(tmp_path, key, variable, kept):
    env = {"ZVK_FLUSH_INTERVAL_MS": variable} if variable else {}
    got, _ = run_script(tmp_path, f"""
        start(RecordFile="run_%p", FlushIntervalMs="{key}")
        annotate("kept", 25)
        time.sleep(0.8)
        report("pid", os.getpid())
        sys.stdout.flush()
        os._exit(0)  # no stop, no destructor: only what the writer already wrote
    """, **env)
    capture = read_capture(tmp_path / f"run_{got['pid']}_0.zvkraw")
    assert capture.header["num_buckets"] == 0  # never rewritten
    assert len(begins(capture, "kept")) == (25 if kept else 0)
