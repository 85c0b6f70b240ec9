"""CPU samples that show the Python code, on each CPython the machine has: real
programs recorded with `zorvek record` under that interpreter, read back with
`zorvek flame --format collapsed` and `zorvek summary` (run by this interpreter,
which has the viewers), and checked against what each program measured of
itself: which functions burned how much CPU, on which thread, in the kernel or
not, sleeping or not."""

import collections
import glob
import json
import os
import re
import shutil
import subprocess
import sys

import pytest

from zvk_testing import (STACK, build_shared_library, cpu_records, parse_reports, read_capture,
                         run_command)

# The interpreters the tests run programs under: this one, and pyenv's other
# versions where they are installed (make install-pythons puts zorvek into them).
PYENV = "/root/.pyenv/versions"
OTHER_VERSIONS = ("3.10", "3.12", "3.13")


def _interpreters():
    found = {"%d.%d" % sys.version_info[:2]: sys.executable}
    for version in OTHER_VERSIONS:
        paths = sorted(glob.glob(os.path.join(PYENV, version + ".*", "bin", "python" + version)))
        if paths:
            found.setdefault(version, paths[-1])
    return sorted(found.items(), key=lambda item: tuple(map(int, item[0].split("."))))


INTERPRETERS = _interpreters()

REPORT = r'''
import json, os
def report(key, value):
    os.write(1, ("@" + key + " " + json.dumps(value) + "\n").encode())
'''

# main -> step -> alpha, beta, gamma: 60, 30 and 10 % of each step's CPU time, and
# a second thread of the program's own that spends most of its CPU time in the
# kernel, zero-filling a buffer from /dev/zero. The steps vary in length, so that
# they never run in step with the sampling (CPU-time timers fire on the kernel's
# tick).
SHARES = REPORT + r'''
import random, resource, sys, threading, time

def alpha(scale):
    end = time.thread_time() + 0.006 * scale
    while time.thread_time() < end:
        for _ in range(300):
            pass

def beta(scale):
    end = time.thread_time() + 0.003 * scale
    while time.thread_time() < end:
        for _ in range(300):
            pass

def gamma(scale):
    end = time.thread_time() + 0.001 * scale
    while time.thread_time() < end:
        for _ in range(300):
            pass

def step(spent, scale):
    t0 = time.thread_time()
    alpha(scale)  # @alpha
    t1 = time.thread_time()
    beta(scale)  # @beta
    t2 = time.thread_time()
    gamma(scale)  # @gamma
    t3 = time.thread_time()
    spent["alpha"] += t1 - t0
    spent["beta"] += t2 - t1
    spent["gamma"] += t3 - t2

class Syscalls:
    def loop(self, cpu_seconds):
        report("syscalls_tid", threading.get_native_id())
        buffer = [bytearray(1 << 20)]
        began = resource.getrusage(resource.RUSAGE_THREAD)
        with open("/dev/zero", "rb", buffering=0) as zero:
            while True:
                os.readv(zero.fileno(), buffer)
                now = resource.getrusage(resource.RUSAGE_THREAD)
                if now.ru_utime + now.ru_stime - began.ru_utime - began.ru_stime >= cpu_seconds:
                    break
        report("syscalls_cpu", [now.ru_utime - began.ru_utime, now.ru_stime - began.ru_stime])

def main():
    report("pid", os.getpid())
    report("main_tid", threading.get_native_id())
    other = threading.Thread(target=Syscalls().loop, args=(1.0,))
    other.start()
    spent = {"alpha": 0.0, "beta": 0.0, "gamma": 0.0}
    scales = random.Random(17)
    began = time.thread_time()
    while time.thread_time() - began < 2.0:
        step(spent, scales.uniform(0.5, 1.5))  # @step
    report("main_cpu", time.thread_time() - began)
    other.join()
    report("spent", spent)

main()  # @main
'''

STRIPPED_LIBRARY = r'''
#include <stdint.h>

uint64_t zvk_neighbour(uint64_t x) { return x * 3 + 1; }

__attribute__((noinline)) static uint64_t hot_loop(uint64_t n) {
    volatile uint64_t acc = 0;
    for (uint64_t i = 0; i < n; i++) acc += i ^ (acc >> 3);
    return acc;
}

uint64_t zvk_run(uint64_t n) { return hot_loop(n) + 1; }
'''

# Native code under Python callers: a stripped C library through ctypes, numpy's
# BLAS, and a spin loop written into anonymous executable memory.
MIXED = REPORT + r'''
import ctypes, mmap, sys, threading, time

def burn(call, cpu_seconds=0.6):
    began = time.thread_time()
    while time.thread_time() - began < cpu_seconds:
        call()

def c_caller(library):
    run = ctypes.CDLL(library).zvk_run
    run.argtypes, run.restype = [ctypes.c_uint64], ctypes.c_uint64
    burn(lambda: run(2_000_000))  # @c

def matmul_caller():
    import numpy
    a = numpy.random.rand(300, 300)
    burn(lambda: a @ a)  # @numpy

def py_caller():
    def spin():
        for _ in range(100_000):
            pass
    burn(spin)  # @python

# mov rcx, rdi; loop: dec rcx; jnz loop; ret
SPIN_CODE = bytes.fromhex("4889f948ffc975fbc3")

def anon_caller():
    region = mmap.mmap(-1, mmap.PAGESIZE,
                       prot=mmap.PROT_READ | mmap.PROT_WRITE | mmap.PROT_EXEC)
    region.write(SPIN_CODE)
    address = ctypes.addressof(ctypes.c_char.from_buffer(region))
    spin = ctypes.CFUNCTYPE(None, ctypes.c_uint64)(address)
    burn(lambda: spin(20_000_000))  # @anon

report("pid", os.getpid())
for part in sys.argv[2].split(","):
    {"c": lambda: c_caller(sys.argv[1]), "numpy": matmul_caller, "anon": anon_caller,
     "python": py_caller}[part]()
'''

# Wall clock: the same time asleep and burning, in turns.
WALL = REPORT + r'''
import time

def sleeper():
    time.sleep(0.01)

def burner():
    end = time.monotonic() + 0.01
    while time.monotonic() < end:
        for _ in range(300):
            pass

report("pid", os.getpid())
for _ in range(100):
    sleeper()
    burner()
'''

# Thousands of samples across threads that start and exit, generators,
# coroutines and deep recursion.
STRESS = REPORT + r'''
import asyncio, sys, threading, time

sys.setrecursionlimit(10000)

def recurse(depth):
    if depth == 0:
        end = time.thread_time() + 0.002
        while time.thread_time() < end:
            pass
        return 0
    return recurse(depth - 1) + 1

def gen_body(n):
    for i in range(n):
        recurse(i % 20)
        yield i

async def coro_body(n):
    for i in range(n):
        recurse(5)
        await asyncio.sleep(0)
    return n

def worker(i):
    recurse(50 + i % 300)
    sum(gen_body(5))
    if i % 3 == 0:
        asyncio.run(coro_body(5))

def main():
    report("pid", os.getpid())
    for wave in range(10):
        threads = [threading.Thread(target=worker, args=(wave * 20 + i,)) for i in range(20)]
        for thread in threads:
            thread.start()
        recurse(2000)
        for thread in threads:
            thread.join()
    report("threads", 200)

main()
'''


def marked_line(source, mark):
    """The line number of the line of `source` that holds `# @mark`."""
    (number,) = [i for i, line in enumerate(source.splitlines(), 1) if line.endswith("# @" + mark)]
    return number


def function_lines(source, name):
    """The lines of function `name`'s body in `source`."""
    lines = source.splitlines()
    (start,) = [i for i, line in enumerate(lines, 1) if line.startswith("def %s(" % name)
                or line.startswith("    def %s(" % name)]
    end = start
    indent = len(lines[start - 1]) - len(lines[start - 1].lstrip())
    while end < len(lines) and (not lines[end].strip() or
                                len(lines[end]) - len(lines[end].lstrip()) > indent):
        end += 1
    return range(start + 1, end + 1)


# ---- Running a program under the profiler, in a given interpreter ----

def _environment(extra=None):
    env = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}
    # BLAS in the calling thread, under its Python caller.
    env["OPENBLAS_NUM_THREADS"] = "1"
    env.update(extra or {})
    return env


def _run(command, cwd, timeout=180):
    return run_command(command, cwd, _environment(), timeout)


@pytest.fixture(scope="module", params=INTERPRETERS, ids=[version for version, _ in INTERPRETERS])
def python(request):
    """(version, path) of an interpreter with zorvek installed. In CI each one the
    machine has must have it (make install-pythons); elsewhere one without it is
    skipped."""
    version, path = request.param
    check = subprocess.run([path, "-c", "import zorvek, _zorv"], capture_output=True, text=True)
    if check.returncode != 0:
        why = f"zorvek is not installed for {path}: run make install-pythons"
        if os.environ.get("CI"):
            pytest.fail(why + "\n" + check.stderr[-2000:])
        pytest.skip(why)
    return version, path


class Recording:
    """A program recorded under `zorvek record`: its reports, its capture, and the
    collapsed stacks of its process as [(frames root first, count)]."""

    def __init__(self, folder, python, name, source, options=(), interpreter_options=(),
                 args=()):
        self.folder = folder
        self.version = tuple(map(int, python[0].split(".")))
        self.source = source
        self.script = name + ".py"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / self.script).write_text(source)
        self.stderr = ""
        command = [python[1], "-m", "zorvek", "record", "-q", "-o", "out", *options, "--",
                   python[1], *interpreter_options, self.script, *args]
        code, stdout, stderr = _run(command, folder)
        self.stderr = stderr
        assert code == 0, stdout + stderr[-4000:]
        assert "Traceback" not in stderr, stderr[-4000:]
        self.got = parse_reports(stdout)
        (capture,) = [p for p in (folder / "out").iterdir()
                      if p.name.endswith(".zvkraw") and f"_{self.got['pid']}_" in p.name]
        self.capture = read_capture(capture)
        assert not self.capture.torn
        self.stacks = self._collapsed()

    def _collapsed(self):
        code, stdout, stderr = _run([sys.executable, "-m", "zorvek", "flame", "out", "--format",
                                     "collapsed", "--pid", str(self.got["pid"])], self.folder)
        assert code == 0, stderr[-4000:]
        stacks = []
        for line in stdout.splitlines():
            text, count = line.rsplit(" ", 1)
            assert int(count) > 0, line
            frames = text.split(";")
            assert all(frames), line
            stacks.append((frames, int(count)))
        assert stacks, stderr[-4000:]
        return stacks

    def frame(self, qualname, name=None):
        """The pattern of a frame of this program's function: "qualname (x.py:N)";
        3.10 keeps no qualified name, only the plain one."""
        if self.version < (3, 11):
            qualname = name or qualname.rsplit(".", 1)[-1]
        return re.compile(r"%s \(%s:(\d+)\)$" % (re.escape(qualname), re.escape(self.script)))

    def own_frames(self, frames):
        """The frames of this program's own file, root first."""
        suffix = re.compile(r" \(%s:\d+\)$" % re.escape(self.script))
        return [frame for frame in frames if suffix.search(frame)]

    def with_frame(self, pattern):
        return [(frames, count) for frames, count in self.stacks
                if any(pattern.match(frame) for frame in frames)]

    def samples(self, tid):
        return cpu_records(self.capture, STACK, pid=self.got["pid"], tid=tid)


_recordings = {}


@pytest.fixture
def record(python, tmp_path_factory):
    """record(name, source, ...) -> Recording; each program is recorded once per
    interpreter for the tests that look at it."""

    def recorded(name, source, options=(), interpreter_options=(), args=()):
        key = (python, name, tuple(options), tuple(interpreter_options), tuple(args))
        if key not in _recordings:
            folder = tmp_path_factory.mktemp(f"py{python[0]}_{name}")
            _recordings[key] = Recording(folder, python, name, source, options,
                                         interpreter_options, args)
        return _recordings[key]

    return recorded


def share(part, whole):
    return part / whole if whole else 0.0


# ---- Python frames, root first, in the shares the program burned ----

def test_nested_python_functions_in_their_shares_root_first(record):
    run = record("shares", SHARES)
    main, step = run.frame("main"), run.frame("step")
    callees = {name: run.frame(name) for name in ("alpha", "beta", "gamma")}
    counts = collections.Counter()
    for frames, count in run.with_frame(step):
        own = run.own_frames(frames)
        if len(own) == 3 and step.match(own[2]):
            continue  # step's own time, between its calls
        # <module> -> main -> step -> one of the three, each at its call's line.
        assert len(own) == 4, frames
        assert own[0] == f"<module> ({run.script}:{marked_line(run.source, 'main')})", frames
        assert main.match(own[1]) and int(main.match(own[1]).group(1)) == \
            marked_line(run.source, "step"), frames
        (name,) = [n for n, pattern in callees.items() if pattern.match(own[3])]
        assert int(step.match(own[2]).group(1)) == marked_line(run.source, name), frames
        assert int(callees[name].match(own[3]).group(1)) in function_lines(run.source, name), frames
        counts[name] += count
    spent = run.got["spent"]
    total, burned = sum(counts.values()), sum(spent.values())
    assert total > 300, counts
    for name in callees:
        assert abs(share(counts[name], total) - share(spent[name], burned)) < 0.05, (counts, spent)


def test_threads_are_never_mixed(record):
    run = record("shares", SHARES)
    loop = run.frame("Syscalls.loop", "loop")
    theirs = run.with_frame(loop)
    assert sum(count for _, count in theirs) > 150
    for frames, _ in theirs:
        # The thread's own stack: threading's frames, then the loop.
        assert run.own_frames(frames) == [next(f for f in frames if loop.match(f))], frames
        run_frame = "Thread.run (" if run.version >= (3, 11) else "run ("
        assert any(frame.startswith(run_frame) and "threading.py:" in frame for frame in frames), \
            frames
    for frames, _ in run.with_frame(run.frame("main")):
        assert not any(loop.match(frame) for frame in frames), frames


def test_samples_follow_cpu_time_in_the_kernel_too(record):
    run = record("shares", SHARES)
    user, system = run.got["syscalls_cpu"]
    # The program's design: most of this thread's CPU time is the kernel's.
    assert system > 0.5 * (user + system), (user, system)
    weight = sum(r["weight_ns"] for r in run.samples(run.got["syscalls_tid"])) / 1e9
    assert 0.75 * (user + system) < weight < 1.25 * (user + system), (weight, user, system)
    # And the main thread's samples stand for its CPU time as well.
    main_weight = sum(r["weight_ns"] for r in run.samples(run.got["main_tid"])) / 1e9
    assert 0.75 * run.got["main_cpu"] < main_weight < 1.3 * run.got["main_cpu"] + 0.1


def test_the_summary_names_the_users_functions(record):
    run = record("shares", SHARES)
    code, stdout, stderr = _run([sys.executable, "-m", "zorvek", "summary", "--json", "--top", "100",
                                 "out"], run.folder)
    assert code == 0, stderr[-4000:]
    (process,) = [p for p in json.loads(stdout)["processes"] if p["pid"] == run.got["pid"]]
    cpu = process["cpu"]

    def function(name):
        return re.compile(r"%s \(%s(:\d+)?\)$" % (name, re.escape(run.script)))

    def find(rows, name):
        (row,) = [row for row in rows if function(name).match(row["function"])]
        return row

    # By total time, in the shares they burned; by self time, among the top ones.
    python = cpu["python_functions"]
    alpha, beta, gamma = (find(python, name) for name in ("alpha", "beta", "gamma"))
    assert alpha["total_share"] > beta["total_share"] > gamma["total_share"] > 0
    assert find(python, "step")["total_share"] > alpha["total_share"]
    find(python, "main")
    top = [row["function"] for row in cpu["functions"][:15]]
    assert any(function("alpha").match(name) for name in top), top
    code, text, stderr = _run([sys.executable, "-m", "zorvek", "summary", "out"], run.folder)
    assert code == 0, stderr[-4000:]
    assert re.search(r"alpha \(%s" % re.escape(run.script), text), text


# ---- Native code under its Python caller ----

@pytest.fixture(scope="module")
def stripped_library(tmp_path_factory):
    folder = tmp_path_factory.mktemp("stripped")
    library = build_shared_library(folder, "zvkstripped", STRIPPED_LIBRARY, ("gcc", "cc"), ("-O2",))
    subprocess.run([shutil.which("strip") or "strip", str(library)], check=True)
    symbols = subprocess.run(["nm", str(library)], capture_output=True, text=True)
    assert "hot_loop" not in symbols.stdout
    return str(library)


def _has_numpy(python):
    return subprocess.run([python[1], "-c", "import numpy"], capture_output=True).returncode == 0


def test_a_stripped_library_is_named_by_offset_under_its_caller(record, stripped_library):
    run = record("mixed", MIXED, args=(stripped_library, "c"))
    caller = run.frame("c_caller")
    under = run.with_frame(caller)
    leafs = collections.Counter()
    burn = run.frame("burn")
    for frames, count in under:
        at = next(i for i, f in enumerate(frames) if caller.match(f))
        if any(burn.match(f) for f in frames):
            # Outside the loop, the library is being loaded.
            assert int(caller.match(frames[at]).group(1)) == marked_line(run.source, "c")
        leafs[frames[-1]] += count
        assert "zvk_neighbour" not in frames, frames
    total = sum(leafs.values())
    in_library = sum(c for leaf, c in leafs.items()
                     if re.fullmatch(r"libzvkstripped\.so\+0x[0-9a-f]+", leaf))
    assert total > 100 and in_library > 0.8 * total, leafs.most_common(8)
    # The loop is one function: its addresses lie close together.
    offsets = {int(leaf.split("+")[1], 16) for leaf in leafs
               if leaf.startswith("libzvkstripped.so+")}
    assert max(offsets) - min(offsets) < 256, sorted(map(hex, offsets))


def test_blas_frames_sit_under_the_python_caller(record, python):
    if not _has_numpy(python):
        pytest.skip(f"numpy is not installed for {python[1]}")
    run = record("blas", MIXED, args=("", "numpy"))
    caller = run.frame("matmul_caller")
    blas, total = 0, 0
    for frames, count in run.with_frame(caller):
        at = next(i for i, f in enumerate(frames) if caller.match(f))
        total += count
        if any(re.search(r"openblas|gemm", f, re.IGNORECASE) for f in frames[at + 1:]):
            blas += count
    assert total > 100 and blas > 0.7 * total, (blas, total, run.with_frame(caller)[:5])


def test_anonymous_code_is_one_frame_under_its_caller(record):
    run = record("anon", MIXED, args=("", "anon"))
    caller = run.frame("anon_caller")
    leafs = collections.Counter()
    for frames, count in run.with_frame(caller):
        leafs[frames[-1]] += count
    total = sum(leafs.values())
    (name, most), = leafs.most_common(1)
    assert total > 100 and most > 0.8 * total, leafs.most_common(8)
    assert name == "[anon]", leafs.most_common(8)


def test_a_perf_map_names_the_interpreters_trampolines(record, python):
    if tuple(map(int, python[0].split("."))) < (3, 12):
        pytest.skip("python -X perf came with 3.12")
    run = record("perfmap", MIXED, interpreter_options=("-X", "perf"), args=("", "python,anon"))
    perf_map = f"/tmp/perf-{run.got['pid']}.map"
    try:
        # Unwinding from the interpreter's code meets the trampolines that -X perf
        # puts in front of each Python call, named in the map "py::QUALNAME:FILE".
        named = {f for frames, _ in run.with_frame(run.frame("py_caller")) for f in frames
                 if f.startswith("py::")}
        assert any(re.search(r"py_caller.*perfmap\.py", f) for f in named), sorted(named)[:20]
        # The program's own region is not in the map: still one frame.
        assert run.with_frame(re.compile(r"\[anon\]$"))
    finally:
        if os.path.exists(perf_map):
            os.unlink(perf_map)


# ---- Wall clock ----

def test_wall_clock_counts_sleep_and_marks_it_waiting(record):
    run = record("wall", WALL, options=("--clock", "wall"))
    sleeper, burner = run.frame("sleeper"), run.frame("burner")
    slept = sum(c for _, c in run.with_frame(sleeper))
    waiting = sum(c for frames, c in run.with_frame(sleeper) if frames[-1] == "[waiting]")
    burned = sum(c for _, c in run.with_frame(burner))
    burned_waiting = sum(c for frames, c in run.with_frame(burner) if frames[-1] == "[waiting]")
    assert slept + burned > 1000, (slept, burned)
    assert 0.35 < share(slept, slept + burned) < 0.65, (slept, burned)
    assert waiting > 0.8 * slept, (waiting, slept)
    assert burned_waiting < 0.5 * burned, (burned_waiting, burned)
    assert {r["clock"] for r in cpu_records(run.capture, STACK)} == {1}


# ---- Stress: threads that come and go, generators, coroutines, recursion ----

@pytest.mark.parametrize("clock, least", [("cpu", 100), ("wall", 3000)])
def test_thousands_of_samples_across_threads_that_come_and_go(record, clock, least):
    # Each thread's CPU-time timer fires on the kernel's tick at most, and a
    # thread gets its timer at the sampler's next scan, which a loaded machine
    # delays; the wall clock's sampler reads every thread's frames from outside
    # at the rate.
    run = record("stress", STRESS, options=("-F", "4000", "--clock", clock))
    assert run.got["threads"] == 200
    samples = cpu_records(run.capture, STACK, pid=run.got["pid"])
    assert len(samples) > least
    assert len({r["tid"] for r in samples}) > 50
    recurse = run.frame("recurse")
    for name in ("worker", "gen_body", "coro_body"):
        assert run.with_frame(run.frame(name)), name
    for frames, _ in run.stacks:
        own = run.own_frames(frames)
        # Below the first recurse, only recurse: nothing of another thread or call.
        if own and any(recurse.match(f) for f in own):
            first = next(i for i, f in enumerate(own) if recurse.match(f))
            assert all(recurse.match(f) for f in own[first:]), frames
