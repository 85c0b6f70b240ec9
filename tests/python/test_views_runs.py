"""A folder that holds several runs is read whole and every view says so: how many
runs and processes it read and when each run started. A forked child belongs to
the run of its parent; the ranks of a job whose launcher ran unprofiled are runs
of their own."""

import json
import os
import re
import subprocess
import sys
import time

import pytest

from zvk_testing import run_python

from zorvek.views.capture import Runs

HOUR = 3600 * 10 ** 9
T0 = 1_795_600_000 * 10 ** 9


def _header(pid, start, end=0, host="h1"):
    return {"pid": pid, "start_time": start, "end_time": end, "hostname": host}


def _when(ns):
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(ns / 1e9))


# ---- The runs of some files, from their headers and the processes' marks ---------------


def test_one_run_says_nothing():
    runs = Runs()
    runs.file(_header(100, T0, T0 + HOUR), "/c/zorvek_h1_100_1_0.zvkraw")
    runs.file(_header(100, T0 + HOUR, T0 + 2 * HOUR), "/c/zorvek_h1_100_2_1.zvkraw")  # rotated
    runs.file(_header(101, T0 + 5, T0 + HOUR), "/c/zorvek_h1_101_3_0.zvkraw")
    runs.process("h1", 101, parent=100)  # a worker it started, by its name mark
    assert runs.runs() == [(T0, "h1", 100)]
    assert runs.line() is None


def test_unrelated_processes_are_runs_each_with_its_start():
    runs = Runs()
    runs.file(_header(300, T0 + 2 * HOUR), "/c/zorvek_h1_300_9_0.zvkraw")
    runs.file(_header(200, T0 + HOUR), "/c/zorvek_h1_200_8_0.zvkraw")
    runs.file(_header(201, T0 + HOUR + 7), "/c/zorvek_h1_201_8_0.zvkraw")
    runs.process("h1", 201, parent=200)
    runs.process("h1", 300, parent=1)  # started from a shell, not captured
    assert runs.line() == "read 2 runs, 3 processes: run 200 started %s, run 300 started %s" % (
        _when(T0 + HOUR), _when(T0 + 2 * HOUR))


def test_ranks_under_an_unprofiled_launcher_are_runs_and_hosts_are_named():
    runs = Runs()
    for rank, (host, pid) in enumerate([("a", 10), ("a", 11), ("b", 10)]):
        runs.file(_header(pid, T0 + rank, host=host), "/c/zorvek_%s_%d_5_0.zvkraw" % (host, pid))
        runs.process(host, pid, parent=7)  # torchrun's agent, not captured
    line = runs.line()
    assert line.startswith("read 3 runs, 3 processes: ")
    assert "run 10 on a started %s" % _when(T0) in line
    assert "run 11 on a started" in line and "run 10 on b started" in line


def test_a_forked_child_goes_on_with_its_parents_capture():
    # No marks: the child's first file carries on the parent's rotation count,
    # begun while the parent's second file was being written.
    runs = Runs()
    runs.file(_header(400, T0, T0 + 10), "/c/multi_400_0.zvkraw")
    runs.file(_header(400, T0 + 20, T0 + 100), "/c/multi_400_1.zvkraw")
    runs.file(_header(401, T0 + 50, T0 + 60), "/c/multi_401_1.zvkraw")
    assert runs.runs() == [(T0, "h1", 400)]
    # A process of its own starts at rotation 0: another run, though it overlaps.
    runs.file(_header(500, T0 + 55, T0 + 70), "/c/multi_500_0.zvkraw")
    assert [pid for _, _, pid in runs.runs()] == [400, 500]


def test_a_parent_cycle_ends():
    runs = Runs()
    runs.file(_header(1, T0), "/c/a_1_0.zvkraw")
    runs.file(_header(2, T0 + 1), "/c/a_2_0.zvkraw")
    runs.process("h1", 1, parent=2)
    runs.process("h1", 2, parent=1)  # a reused pid can make one
    assert len(runs.runs()) == 1


def test_processes_known_by_pid_alone_take_their_files_host():
    runs = Runs()
    runs.file(_header(600, T0, host="x"), "/c/z_600_0.zvkraw")
    runs.file(_header(700, T0 + HOUR, host="x"), "/c/z_700_0.zvkraw")
    runs.processes_by_pid([(600, None), (601, 600), (700, 1)])
    assert runs.processes == {("x", 600), ("x", 601), ("x", 700)}
    assert runs.line().startswith("read 2 runs, 3 processes: run 600 started")


# ---- Every view on a folder of two runs --------------------------------------------------

RUN = r'''
import json, os, sys, time
import zorvek

def busy(seconds):
    end = time.process_time() + seconds
    while time.process_time() < end:
        pass

with zorvek.profile(sys.argv[1], gpu=False, follow_forks=True, quiet=True):
    with zorvek.annotate("step"):
        busy(0.2)
    if sys.argv[2] == "fork":
        child = os.fork()
        if child == 0:
            with zorvek.annotate("step"):
                busy(0.2)
            sys.exit(0)  # through the capture's stop, which writes the child's file out
        os.waitpid(child, 0)
print(json.dumps({"pid": os.getpid()}))
'''


@pytest.fixture(scope="module")
def two_runs(tmp_path_factory):
    folder = tmp_path_factory.mktemp("runs")
    script = folder.parent / "run_twice.py"
    script.write_text(RUN)
    captures = folder / "captures"
    pids = []
    for how in ("fork", "plain"):
        code, out, err = run_python([str(script), str(captures), how], folder, {}, 120)
        assert code == 0, err[-4000:]
        pids.append(json.loads(out.strip().splitlines()[-1])["pid"])
        time.sleep(1.1)  # started in different seconds
    return captures, pids


def zorvek(args, cwd):
    done = subprocess.run([sys.executable, "-m", "zorvek", *map(str, args)], cwd=cwd,
                          capture_output=True, text=True, timeout=180)
    assert "Traceback" not in done.stderr, done.stderr
    return done


def runs_lines(stderr):
    return [line for line in stderr.splitlines() if re.search(r": read \d+ runs, ", line)]


def _need_pyarrow(view):
    if view in ("export", "ranks"):
        pytest.importorskip("pyarrow")


VIEWS = {
    "timeline": lambda out: ["timeline", "-o", out / "t.json"],
    "flame": lambda out: ["flame", "--format", "collapsed"],
    "summary": lambda out: ["summary"],
    "export": lambda out: ["export", "-o", out / "tables"],
    "ranks": lambda out: ["ranks", "--range", "step"],
}


@pytest.mark.parametrize("view", sorted(VIEWS))
def test_every_view_says_the_runs_of_a_folder(two_runs, tmp_path, view):
    _need_pyarrow(view)
    captures, (first, second) = two_runs
    assert len(os.listdir(captures)) == 3  # two runs, the first with a forked child
    done = zorvek(VIEWS[view](tmp_path) + [captures], tmp_path)
    assert done.returncode == 0, done.stderr
    (line,) = runs_lines(done.stderr)
    match = re.fullmatch(r"zorvek %s: read 2 runs, 3 processes: run (\d+) started ([-\d: ]+), "
                         r"run (\d+) started ([-\d: ]+)" % view, line)
    assert match, line
    assert [int(match.group(1)), int(match.group(3))] == [first, second]
    assert match.group(2) < match.group(4)


@pytest.mark.parametrize("view", sorted(VIEWS))
def test_a_view_of_one_run_says_nothing_of_runs(two_runs, tmp_path, view):
    _need_pyarrow(view)
    captures, (first, _) = two_runs
    files = [path for path in sorted(captures.iterdir()) if first in _pid_and_parent(path)]
    assert len(files) == 2  # the first run: the parent's file and its child's
    done = zorvek(VIEWS[view](tmp_path) + files, tmp_path)
    assert done.returncode == 0, done.stderr
    assert runs_lines(done.stderr) == []


def _pid_and_parent(path):
    from zorvek import _names, _reader

    names = _names.Names()
    capture = _reader.CaptureFile(str(path))
    pid = capture.header["pid"]
    for batch in capture.batches(kinds=["BEGIN"]):
        for record in batch:
            names.learn(record["pid"], record.get("msg", ""))
    return pid, names.parent(pid)


def test_pid_chooses_within_the_folder(two_runs, tmp_path):
    captures, (_, second) = two_runs
    out = tmp_path / "t.json"
    done = zorvek(["timeline", "--pid", second, "-o", out, captures], tmp_path)
    assert done.returncode == 0, done.stderr
    assert len(runs_lines(done.stderr)) == 1  # what was read, all of it
    assert "wrote %s: 1 process," % out in done.stderr
