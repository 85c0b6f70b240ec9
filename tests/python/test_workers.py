"""Worker processes under `zorvek record --follow-forks`: multiprocessing pools with
the fork, spawn and forkserver start methods, and a torch DataLoader with two
workers. Each process writes one whole capture of its own, with its own CPU
samples and annotations and nothing of another's; the job prints what it prints
without the profiler; processes and threads carry the names the job knows them
by. Each job runs in a fresh interpreter, as a user would run it."""

import json
import subprocess
import sys
import textwrap

import pytest

from zvk_testing import (ANNOTATION, FORK, SAMPLE, STACK, begins, capture_names, cpu_records,
                         parse_reports, read_capture, run_python)

POOL_JOB = r'''
import json, os, sys, threading, time
import multiprocessing as mp
import zorvek

def report(key, value):
    os.write(1, ("@" + key + " " + json.dumps(value) + "\n").encode())

def work(n):
    with zorvek.annotate("task"):
        began = time.thread_time()
        while time.thread_time() - began < 0.15:
            sum(i * i for i in range(1000))
        return os.getpid(), n * n

if __name__ == "__main__":
    feeder = threading.Thread(target=lambda: None, name="feeder")
    feeder.start()
    feeder.join()
    with mp.get_context(sys.argv[1]).Pool(2) as pool:
        results = pool.map(work, range(8), chunksize=1)
    print("squares", sorted(r for _, r in results))
    report("main", os.getpid())
    report("workers", sorted({pid for pid, _ in results}))
'''

LOADER_JOB = r'''
import json, os, time
import torch
from torch.utils.data import DataLoader, Dataset
import zorvek

def report(key, value):
    os.write(1, ("@" + key + " " + json.dumps(value) + "\n").encode())

class Items(Dataset):
    def __len__(self):
        return 8

    def __getitem__(self, i):
        with zorvek.annotate("item"):
            began = time.thread_time()
            while time.thread_time() - began < 0.1:
                sum(k * k for k in range(1000))
            return torch.tensor([i, os.getpid()])

if __name__ == "__main__":
    rows = [row.tolist() for batch in DataLoader(Items(), batch_size=2, num_workers=2)
            for row in batch]
    print("items", sorted(i for i, _ in rows))
    report("main", os.getpid())
    report("workers", sorted({pid for _, pid in rows}))
'''


def run_job(tmp_path, source, args, follow=True):
    """The job under zorvek record, and alone: (reports, stdout less reports, the
    same of the plain run, stderr)."""
    job = tmp_path / "job.py"
    job.write_text(textwrap.dedent(source))
    follow_option = "--follow-forks" if follow else "--no-follow-forks"
    code, out, err = run_python(["-m", "zorvek", "record", "-q", "-o", "out", follow_option,
                                 "--", "python", "job.py", *args], tmp_path, {}, 240)
    assert code == 0, out + err[-4000:]
    assert "Traceback" not in err, err[-4000:]
    plain_code, plain_out, plain_err = run_python(["job.py", *args], tmp_path, {}, 240)
    assert plain_code == 0, plain_out + plain_err[-4000:]

    def printed(text):
        return [line for line in text.splitlines() if not line.startswith("@")]

    return parse_reports(out), printed(out), printed(plain_out), err


def captures(directory):
    return {name: read_capture(directory / name) for name in capture_names(directory)}


def summary_json(tmp_path):
    result = subprocess.run([sys.executable, "-m", "zorvek", "summary", "--json", "out"],
                            cwd=tmp_path, capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
    return {p["pid"]: p for p in json.loads(result.stdout)["processes"]}


def check_one_capture_each(files, main, workers, range_name, ranges):
    """One whole capture per process, each with CPU samples and annotations of its
    own only, every range of the job counted once."""
    by_pid = {}
    for name, capture in files.items():
        pid = capture.header["pid"]
        assert pid not in by_pid, f"two captures of process {pid}"
        by_pid[pid] = capture
        assert not capture.torn and capture.header["num_buckets"] == capture.buckets > 0, name
        assert cpu_records(capture, STACK, pid=pid), f"{name}: no CPU samples of its own"
        strangers = [r for r in capture.records
                     if (r["hw"] == ANNOTATION or (r["hw"] == 0 and r["type"] == STACK))
                     and r["pid"] != pid]
        assert not strangers, f"{name} holds {len(strangers)} records of other processes"
    assert set(by_pid) == {main, *workers}
    for worker in workers:
        assert begins(by_pid[worker], range_name, pid=worker), worker
    assert sum(len(begins(c, range_name)) for c in files.values()) == ranges
    # Records of one scan share a stamp (the mappings listed at a start), so the
    # keys are compared between captures, not within one.
    seen = set()
    for capture in files.values():
        keys = {(r["pid"], r["tid"], r["timestamp"], r["hw"], r["type"]) for r in capture.records}
        assert not keys & seen, "a record is in two captures"
        seen |= keys


@pytest.mark.parametrize("method", ["fork", "spawn", "forkserver"])
def test_pool_workers_write_captures_of_their_own(tmp_path, method):
    reports, printed, plain, _ = run_job(tmp_path, POOL_JOB, [method])
    assert printed == plain == ["squares [0, 1, 4, 9, 16, 25, 36, 49]"]
    main, workers = reports["main"], reports["workers"]
    assert workers and main not in workers
    check_one_capture_each(captures(tmp_path / "out"), main, workers, "task", 8)

    processes = summary_json(tmp_path)
    assert processes[main]["name"] == f"python job.py {method}"
    assert "feeder" in _thread_names(tmp_path / "out", main).values()
    for worker in workers:
        assert processes[worker]["name"].startswith("multiprocessing worker ")
        assert "PoolWorker-" in processes[worker]["name"]
        assert processes[worker]["parent"] == main
        assert all(r["name"] == "task" for r in processes[worker]["ranges"])

    # The flame graph's roots are the processes' names.
    flame = subprocess.run([sys.executable, "-m", "zorvek", "flame", "--format", "collapsed",
                            "-o", "-", "out"], cwd=tmp_path, capture_output=True, text=True,
                           timeout=120)
    assert flame.returncode == 0, flame.stderr
    roots = {line.split(";", 1)[0] for line in flame.stdout.splitlines() if line}
    assert any(root.startswith("multiprocessing worker ") for root in roots), roots


def test_dataloader_workers_write_captures_of_their_own(tmp_path):
    pytest.importorskip("torch")
    reports, printed, plain, _ = run_job(tmp_path, LOADER_JOB, [])
    assert printed == plain == ["items [0, 1, 2, 3, 4, 5, 6, 7]"]
    main, workers = reports["main"], reports["workers"]
    assert len(workers) == 2
    check_one_capture_each(captures(tmp_path / "out"), main, workers, "item", 8)

    processes = summary_json(tmp_path)
    assert processes[main]["name"] == "python job.py"
    for worker in workers:
        assert processes[worker]["name"] == "pt_data_worker"
        assert processes[worker]["parent"] == main
        assert _thread_names(tmp_path / "out", worker)[worker] == "pt_data_worker"


@pytest.mark.parametrize("method", ["fork", "spawn"])
def test_children_get_nothing_without_following(tmp_path, method):
    reports, printed, plain, _ = run_job(tmp_path, POOL_JOB, [method], follow=False)
    assert printed == plain
    files = captures(tmp_path / "out")
    assert len(files) == 1
    (capture,) = files.values()
    assert capture.header["pid"] == reports["main"]
    assert not [r for r in capture.records
                if r["hw"] == 0 and r["type"] in (SAMPLE, STACK) and r["pid"] != reports["main"]]
    assert not [r for r in capture.records if r["hw"] == ANNOTATION and r["pid"] != reports["main"]]
    # The children the kernel saw forked are named once, not as processes of their own.
    text = subprocess.run([sys.executable, "-m", "zorvek", "summary", "out"], cwd=tmp_path,
                          capture_output=True, text=True, timeout=120).stdout
    assert text.count("== Process ") == 1, text
    # Children are known from the kernel's fork records, which only perf events
    # bring; the per-thread sampler has none.
    unprofiled = [line for line in text.splitlines() if "without a capture of their own" in line]
    if cpu_records(capture, FORK):
        assert len(unprofiled) == 1 and unprofiled[0].startswith(
            ("2 child processes", "3 child processes")), text
    else:
        assert not unprofiled, text


def test_spawned_python_profiles_itself_from_the_environment(tmp_path):
    """What a launcher other than multiprocessing hands down (torchrun, a shell
    script): ZORVEK_OUTPUT names the folder, and the process is captured from its
    first line to its exit, named by its command line."""
    (tmp_path / "child.py").write_text(textwrap.dedent(r'''
        import time
        import zorvek
        with zorvek.annotate("child work"):
            began = time.thread_time()
            while time.thread_time() - began < 0.2:
                sum(i * i for i in range(1000))
        print("child done")
    '''))
    code, out, err = run_python(["child.py", "x"], tmp_path,
                                {"ZORVEK_OUTPUT": str(tmp_path / "out"),
                                 "ZORVEK_OPTIONS": json.dumps({"sample_hz": 500})}, 120)
    assert code == 0, err
    assert out == "child done\n" and "Traceback" not in err
    files = captures(tmp_path / "out")
    assert len(files) == 1
    (capture,) = files.values()
    assert capture.header["num_buckets"] == capture.buckets > 0
    assert begins(capture, "child work")
    assert cpu_records(capture, STACK, pid=capture.header["pid"])
    assert summary_json(tmp_path)[capture.header["pid"]]["name"].endswith("child.py x")


@pytest.mark.parametrize("options, told", [
    ("{sample_hz", 'ZORVEK_OPTIONS is not a JSON object: \'{sample_hz\''),
    ('["sample_hz"]', "ZORVEK_OPTIONS is not a JSON object"),
    ('{"sampel_hz": 5}', 'ZORVEK_OPTIONS names no profile() keyword "sampel_hz"; did you mean '
                         '"sample_hz"?'),
    ('{"sample_hz": -1}', "ZORVEK_OPTIONS was refused: sample_hz must be"),
])
def test_options_that_cant_be_used_leave_the_process_unprofiled_with_one_line(tmp_path, options,
                                                                             told):
    (tmp_path / "child.py").write_text('print("child done")\n')
    code, out, err = run_python(["child.py"], tmp_path,
                                {"ZORVEK_OUTPUT": str(tmp_path / "out"),
                                 "ZORVEK_OPTIONS": options}, 120)
    assert code == 0 and out == "child done\n", err
    lines = [line for line in err.splitlines() if line.startswith("zorvek: ")]
    assert len(lines) == 1 and lines[0].startswith("zorvek: not profiling this process: " + told), err
    assert "Traceback" not in err
    assert not (tmp_path / "out").exists() or not capture_names(tmp_path / "out")


def test_no_environment_no_capture(tmp_path):
    code, out, err = run_python(["-c", "print('plain')"], tmp_path, {}, 60)
    assert (code, out, err) == (0, "plain\n", "")
    assert not list(tmp_path.iterdir())


def _thread_names(directory, pid):
    """{tid: name} of the thread names process `pid` wrote, the latest of each."""
    from zorvek import _names
    marks = _names.Names()
    for name in capture_names(directory):
        for record in _raw_begins(directory / name):
            if record[0] == pid:
                marks.learn(pid, record[1])
    return {tid: name for (p, tid), (_, name) in marks.threads.items() if p == pid}


def _raw_begins(path):
    """(pid, message) of every range begin, the profiler's own included."""
    import struct
    import zlib
    data = open(path, "rb").read()
    fields = struct.unpack_from("<8sIIQQQQIIIIIIHHHHH", data, 0)
    offset = 88 + sum(fields[13:18])
    while offset + 32 <= len(data):
        _, _, _, compressed, _ = struct.unpack_from("<QQQII", data, offset)
        raw = zlib.decompress(data[offset + 32:offset + 32 + compressed])
        at = 0
        while at < len(raw):
            _, word, pid, _, chain, size = struct.unpack_from("<QIIIHH", raw, at)
            payload = raw[at + 24 + 16 * chain:at + 24 + 16 * chain + size]
            if word >> 28 == ANNOTATION and word & 0xFFFFF == 0:
                yield pid, payload[8:].split(b"\0", 1)[0].decode()
            at += 24 + 16 * chain + size
        offset += 32 + compressed


TERMINATED_JOB = r'''
import json, os, sys, time
import multiprocessing as mp
import zorvek

def report(key, value):
    os.write(1, ("@" + key + " " + json.dumps(value) + "\n").encode())

def wait_forever(ready):
    with zorvek.annotate("before the wait"):
        pass
    ready.set()
    time.sleep(600)

if __name__ == "__main__":
    ctx = mp.get_context(sys.argv[1])
    ready = ctx.Event()
    worker = ctx.Process(target=wait_forever, args=(ready,))
    worker.start()
    ready.wait()
    worker.terminate()
    worker.join()
    print("exit code", worker.exitcode)
    report("worker", worker.pid)
'''


def assert_terminated_worker_stopped_its_capture(tmp_path, job, method):
    reports, printed, plain, _ = run_job(tmp_path, job, [method])
    assert printed == plain == ["exit code -15"]
    worker = reports["worker"]
    files = {c.header["pid"]: c for c in captures(tmp_path / "out").values()}
    capture = files[worker]
    assert not capture.torn and capture.header["num_buckets"] == capture.buckets > 0
    assert begins(capture, "before the wait", pid=worker)


@pytest.mark.parametrize("method", ["fork", "spawn"])
def test_a_terminated_worker_stops_its_capture_and_ends_by_sigterm(tmp_path, method):
    assert_terminated_worker_stopped_its_capture(tmp_path, TERMINATED_JOB, method)


OWN_HANDLER_JOB = TERMINATED_JOB.replace('''def wait_forever(ready):
    with zorvek.annotate("before the wait"):''', '''def on_term(signum, frame):
    os.write(1, b"own handler\\n")
    os._exit(7)

def wait_forever(ready):
    import signal
    signal.signal(signal.SIGTERM, on_term)
    with zorvek.annotate("before the wait"):''')


@pytest.mark.parametrize("method", ["fork", "spawn"])
def test_a_worker_that_handles_sigterm_itself_keeps_its_handler(tmp_path, method):
    _, printed, plain, _ = run_job(tmp_path, OWN_HANDLER_JOB, [method])
    assert printed == plain == ["own handler", "exit code 7"]


OWN_WAKEUP_FD_JOB = TERMINATED_JOB.replace('''    ready.set()
    time.sleep(600)''', '''    # As an asyncio loop does: a wakeup fd of the program's own in place of zorvek's.
    import signal, socket
    own, _ = socket.socketpair()
    own.setblocking(False)
    signal.set_wakeup_fd(own.fileno())
    ready.set()
    time.sleep(600)''')


def test_a_terminated_worker_with_its_own_wakeup_fd_still_stops_its_capture(tmp_path):
    assert_terminated_worker_stopped_its_capture(tmp_path, OWN_WAKEUP_FD_JOB, "fork")
