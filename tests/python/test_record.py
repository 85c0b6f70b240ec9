"""zorvek record on real scripts, each run in a fresh process as a user would run
it: the script sees what Python would show it (sys.argv, __main__, sys.path[0]),
the exit status is the script's, and every way of ending (return, exception,
sys.exit, SIGTERM, Ctrl-C, forked workers) leaves whole, readable captures."""

import os
import queue
import signal
import subprocess
import sys
import sysconfig
import textwrap
import threading
import time

import pytest

from zvk_testing import (MMAP, REPORT_SOURCE, SPIN_SOURCE, STACK, begins, cpu_records, ends,
                         parse_reports, read_capture, run_python)

PROBE = r'''
import json, os, sys, threading, time
import zorvek
''' + REPORT_SOURCE + SPIN_SOURCE + r'''
report("argv", sys.argv)
report("name", __name__)
report("path0", sys.path[0])
report("pid", os.getpid())
'''


def write(path, code="", probe=True):
    """A script: PROBE, which reports what the script sees, then `code`."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text((PROBE if probe else "") + textwrap.dedent(code))
    return path


def record(tmp_path, *args, env=None, timeout=60):
    """`python -m zorvek record ARGS` in tmp_path: exit status, what the script
    reported under @keys, stderr."""
    returncode, stdout, stderr = run_python(["-m", "zorvek", "record", *args], tmp_path,
                                            env or {}, timeout)
    return returncode, parse_reports(stdout), stderr


def zorvek_lines(stderr):
    return [line for line in stderr.splitlines() if line.startswith("zorvek: ")]


def capture_files(directory, pid=None):
    return sorted(p for p in directory.iterdir() if p.name.endswith(".zvkraw")
                  and (pid is None or f"_{pid}_" in p.name))


def whole_capture(directory, pid):
    """The process's one capture file, read, with its header's final rewrite."""
    (path,) = capture_files(directory, pid)
    capture = read_capture(path)
    assert not capture.torn
    assert capture.header["num_buckets"] == capture.buckets > 0
    return capture


def assert_closed(capture):
    """Every range that began has ended."""
    assert {r["token"] for r in begins(capture)} == {r["token"] for r in ends(capture)}


# ---- What the script sees ----

def test_argv_main_and_path_as_python_gives_them(tmp_path):
    script = write(tmp_path / "sub" / "train.py", """
        with zorvek.annotate("step"):
            spin(0.2)
    """)
    code, got, stderr = record(tmp_path, "-o", "out", "--", "python", "sub/train.py", "a", "-v",
                               "--lr", "3")
    assert code == 0, stderr
    assert got["argv"] == ["sub/train.py", "a", "-v", "--lr", "3"]
    assert got["name"] == "__main__"
    assert got["path0"] == str(script.parent)
    capture = whole_capture(tmp_path / "out", got["pid"])
    assert [r["msg"] for r in begins(capture)] == ["step"]
    assert_closed(capture)
    # The capture began before the script's first line: its samples and the
    # mappings of the libraries loaded before it.
    # Half of the 0.2 s of CPU time, by the time each sample stands for.
    assert sum(r["weight_ns"] for r in cpu_records(capture, STACK)) > 100_000_000
    assert cpu_records(capture, MMAP)
    # Quiet by default: one line says what was written, then the summary; no INFO.
    lines = zorvek_lines(stderr)
    assert len(lines) == 1 and lines[0].startswith("zorvek: recorded ")
    assert "wrote 1 file" in lines[0] and "to out: zorvek_" in lines[0]
    assert "LOG(INFO)" not in stderr


def test_file_and_tracebacks_name_the_script_by_its_absolute_path(tmp_path):
    write(tmp_path / "sub" / "fails.py", """
        report("file", __file__)
        raise ValueError("on purpose")
    """)
    code, got, stderr = record(tmp_path, "-q", "-F", "0", "-o", "out", "--", "python",
                               "sub/fails.py")
    plain_code, plain_out, plain_err = run_python(["sub/fails.py"], tmp_path, {}, 60)
    script = str(tmp_path / "sub" / "fails.py")
    assert code == plain_code == 1
    assert got["file"] == parse_reports(plain_out)["file"] == script
    assert f'File "{script}", line' in stderr
    assert f'File "{script}", line' in plain_err


def test_python_may_be_left_out_and_options_of_python_are_honoured(tmp_path):
    write(tmp_path / "train.py")
    code, got, stderr = record(tmp_path, "-o", "out", "train.py", "x")
    assert code == 0, stderr
    assert got["argv"] == ["train.py", "x"] and got["name"] == "__main__"
    whole_capture(tmp_path / "out", got["pid"])
    # Python's own option: zorvek starts the interpreter again with it.
    code, got, stderr = record(tmp_path, "-o", "out2", "--", "python3", "-u", "-X", "dev",
                               "train.py", "y")
    assert code == 0, stderr
    assert got["argv"] == ["train.py", "y"]
    whole_capture(tmp_path / "out2", got["pid"])


def test_a_module(tmp_path):
    write(tmp_path / "pkg" / "__init__.py", probe=False)
    module = write(tmp_path / "pkg" / "job.py")
    code, got, stderr = record(tmp_path, "-o", "out", "--", "python", "-m", "pkg.job", "b")
    assert code == 0, stderr
    assert got["argv"] == [str(module), "b"] and got["name"] == "__main__"
    assert got["path0"] == str(tmp_path)
    whole_capture(tmp_path / "out", got["pid"])
    # The same, as an option of record.
    code, got, _ = record(tmp_path, "-o", "out2", "-m", "pkg.job", "c")
    assert code == 0 and got["argv"] == [str(module), "c"]


def test_code_given_with_c(tmp_path):
    code, got, stderr = record(tmp_path, "-o", "out", "--", "python", "-c",
                               PROBE, "q")
    assert code == 0, stderr
    assert got["argv"] == ["-c", "q"] and got["path0"] == ""


# ---- How it ends ----

@pytest.mark.parametrize("ending,status", [
    ("pass", 0),
    ("sys.exit(3)", 3),
    ("sys.exit()", 0),
    ("sys.exit('bad input')", 1),
    ("raise ValueError('boom')", 1),
])
def test_exit_status_is_the_scripts(tmp_path, ending, status):
    write(tmp_path / "train.py", f"""
        import atexit
        atexit.register(lambda: report("atexit", True))
        try:
            with zorvek.annotate("work"):
                spin(0.05)
                {ending}
        finally:
            report("finally", True)
    """)
    code, got, stderr = record(tmp_path, "-o", "out", "--", "python", "train.py")
    assert code == status, stderr
    assert got["finally"] and got["atexit"]
    capture = whole_capture(tmp_path / "out", got["pid"])
    assert_closed(capture)
    if ending.startswith("raise"):
        # As Python prints it: from the script's own frame, nothing of zorvek's.
        traceback = stderr[stderr.index("Traceback"):]
        assert traceback.splitlines()[1].startswith(f'  File "{tmp_path / "train.py"}", line ')
        assert "zorvek" not in traceback.split("ValueError: boom")[0]
        assert "ValueError: boom" in stderr
    if ending == "sys.exit('bad input')":
        assert "bad input" in stderr.splitlines()


def test_threads_still_running_are_joined_before_the_stop(tmp_path):
    write(tmp_path / "train.py", """
        def late():
            time.sleep(0.3)
            with zorvek.annotate("late"):
                pass
        threading.Thread(target=late).start()
    """)
    code, got, stderr = record(tmp_path, "-o", "out", "--", "python", "train.py")
    assert code == 0, stderr
    assert [r["msg"] for r in begins(whole_capture(tmp_path / "out", got["pid"]))] == ["late"]


def start_record(tmp_path, *args):
    """zorvek record started in the background, in a session of its own, with a
    thread that gathers its stdout lines."""
    env = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}
    process = subprocess.Popen([sys.executable, "-m", "zorvek", "record", *args], cwd=tmp_path,
                               env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                               start_new_session=True)
    process.lines = queue.Queue()
    process.reader = threading.Thread(target=lambda: [process.lines.put(line) for line in process.stdout],
                                      daemon=True)
    process.reader.start()
    return process


def wait_for_line(process, wanted, timeout=30):
    """The lines up to `wanted`; the test fails if it doesn't come."""
    deadline = time.monotonic() + timeout
    lines = []
    while time.monotonic() < deadline:
        try:
            line = process.lines.get(timeout=0.1)
        except queue.Empty:
            continue
        lines.append(line)
        if line.strip() == wanted:
            return lines
    os.killpg(process.pid, signal.SIGKILL)
    pytest.fail(f"no {wanted!r} in {lines}: {process.stderr.read()[-4000:]}")


def finish(process, timeout=30):
    """Its remaining stdout lines and its stderr, once it ended."""
    try:
        process.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        pytest.fail("zorvek record did not end after the signal")
    process.reader.join()
    lines = []
    while not process.lines.empty():
        lines.append(process.lines.get())
    return "".join(lines), process.stderr.read()


@pytest.mark.parametrize("sent,status,told", [
    (signal.SIGTERM, 143, None),
    (signal.SIGINT, 130, "KeyboardInterrupt"),
])
def test_a_signal_mid_run_stops_the_capture_cleanly(tmp_path, sent, status, told):
    write(tmp_path / "train.py", """
        import signal
        # Python's own Ctrl-C handling, whatever the test runner left ignored.
        signal.signal(signal.SIGINT, signal.default_int_handler)
        try:
            with zorvek.annotate("training"):
                print("ready", flush=True)
                while True:
                    with zorvek.annotate("step"):
                        spin(0.01)
        finally:
            report("finally", True)
    """)
    process = start_record(tmp_path, "-o", "out", "--", "python", "train.py")
    lines = wait_for_line(process, "ready")
    time.sleep(0.2)
    os.kill(process.pid, sent)
    stdout, stderr = finish(process)
    got = parse_reports("".join(lines) + stdout)
    assert process.returncode == status, stderr
    assert got["finally"] is True
    if told:
        assert told in stderr
    capture = whole_capture(tmp_path / "out", got["pid"])
    assert_closed(capture)
    assert begins(capture, "step") and len(begins(capture, "training")) == 1
    assert zorvek_lines(stderr)[0].startswith("zorvek: recorded ")


def test_forked_workers(tmp_path):
    write(tmp_path / "train.py", """
        import multiprocessing

        def work(n):
            with zorvek.annotate("worker %d" % n):
                spin(0.1)

        if __name__ == "__main__":
            context = multiprocessing.get_context("fork")
            with zorvek.annotate("parent"):
                workers = [context.Process(target=work, args=(n,)) for n in range(2)]
                for w in workers: w.start()
                for w in workers: w.join()
                with context.Pool(2) as pool:
                    report("squares", pool.map(abs, [-1, -2, -3]))
                    pool.close()
                    pool.join()
            report("children", [w.pid for w in workers])
            report("codes", [w.exitcode for w in workers])
    """)
    code, got, stderr = record(tmp_path, "-o", "out", "--follow-forks", "--", "python", "train.py")
    assert code == 0, stderr
    assert got["codes"] == [0, 0] and got["squares"] == [1, 2, 3]
    parent = whole_capture(tmp_path / "out", got["pid"])
    assert [r["msg"] for r in begins(parent, pid=got["pid"])] == ["parent"]
    for n, child in enumerate(got["children"]):
        capture = whole_capture(tmp_path / "out", child)
        assert [r["msg"] for r in begins(capture, pid=child)] == ["worker %d" % n]
    # Two workers and the pool's two: each wrote a whole file of its own.
    files = capture_files(tmp_path / "out")
    assert len(files) == 5
    for path in files:
        assert not read_capture(path).torn
    assert "child processes wrote 4 more" in zorvek_lines(stderr)[0]

    # Without fork following the children record nothing.
    code, got, stderr = record(tmp_path, "-o", "alone", "--", "python", "train.py")
    assert code == 0, stderr
    assert len(capture_files(tmp_path / "alone")) == 1
    whole_capture(tmp_path / "alone", got["pid"])


def test_sampling_off(tmp_path):
    write(tmp_path / "train.py", "spin(0.2)\n")
    code, got, stderr = record(tmp_path, "-o", "out", "-F", "0", "--no-gpu", "train.py")
    assert code == 0, stderr
    assert cpu_records(whole_capture(tmp_path / "out", got["pid"]), STACK) == []


def test_the_sampling_clock(tmp_path):
    # A child started through subprocess profiles itself with the same clock.
    write(tmp_path / "child.py", "sum(range(10 ** 6))\n", probe=False)
    write(tmp_path / "train.py", """
        import subprocess
        report("options", json.loads(os.environ["ZORVEK_OPTIONS"]))
        subprocess.run([sys.executable, "child.py"], check=True)
        time.sleep(0.2)
    """)
    code, got, stderr = record(tmp_path, "-v", "--clock", "wall", "--follow-forks", "-o", "out",
                               "--", "python", "train.py")
    assert code == 0, stderr
    assert got["options"]["clock"] == "wall"
    assert ("CPU sampling 1000 Hz of elapsed time, each thread running or waiting (wall clock), "
            "Python and native frames") in zorvek_lines(stderr)[0]
    files = capture_files(tmp_path / "out")
    assert len(files) == 2
    for path in files:
        samples = cpu_records(read_capture(path), STACK)
        assert samples and {r["clock"] for r in samples} == {1}, path
    # Sleeping counts on the wall clock: about 200 samples at 1 kHz, or more.
    assert len(cpu_records(whole_capture(tmp_path / "out", got["pid"]), STACK)) > 150
    # The default counts CPU time; the clock goes along when another interpreter
    # run is started for Python's own options.
    write(tmp_path / "alone.py", "spin(0.1)\n")
    code, got, stderr = record(tmp_path, "-v", "-o", "cpu", "--", "python3", "-u", "alone.py")
    assert code == 0, stderr
    assert "(cpu clock), Python and native frames" in stderr
    capture = whole_capture(tmp_path / "cpu", got["pid"])
    assert {r["clock"] for r in cpu_records(capture, STACK)} == {0}
    code, _, stderr = record(tmp_path, "--clock", "both", "alone.py")
    assert code == 2 and "argument --clock: invalid choice: 'both'" in stderr


def test_quiet_and_verbose(tmp_path):
    write(tmp_path / "train.py")
    code, _, stderr = record(tmp_path, "-q", "-o", "out", "train.py")
    assert code == 0 and zorvek_lines(stderr) == [] and "LOG(INFO)" not in stderr
    code, _, stderr = record(tmp_path, "-v", "-o", "out", "train.py")
    assert code == 0 and "LOG(INFO)" in stderr
    assert zorvek_lines(stderr)[0].startswith("zorvek: recording into out: buffers ")


# ---- Mistakes ----

def test_usage_errors_are_one_line(tmp_path):
    code, _, stderr = record(tmp_path)
    assert code == 2 and stderr.strip().startswith("zorvek record: name the program to run")
    code, _, stderr = record(tmp_path, "--", "python")
    assert code == 2 and "interactive" in stderr and "Traceback" not in stderr
    code, _, stderr = record(tmp_path, "-o", "out", "missing.py")
    assert code == 2 and "can't open file" in stderr and "missing.py" in stderr
    assert not (tmp_path / "out").exists()
    code, _, stderr = record(tmp_path, "--", "python", "-m", "no_such_module_here")
    assert code == 1 and "No module named no_such_module_here" in stderr
    write(tmp_path / "bad.py", "def (:\n", probe=False)
    code, _, stderr = record(tmp_path, "-o", "out", "bad.py")
    assert code == 1 and "SyntaxError" in stderr and "zorvek/record.py" not in stderr
    code, _, stderr = record(tmp_path, "--bogus", "--", "python", "bad.py")
    assert code == 2 and stderr.startswith("usage: zorvek record ")
    assert "zorvek record: error: unrecognized arguments: --bogus" in stderr


# ---- The command ----

def test_help_with_examples(tmp_path):
    code, stdout, _ = run_python(["-m", "zorvek", "record", "--help"], tmp_path, {}, 30)
    assert code == 0
    assert "examples:" in stdout and "zorvek record -- python train.py" in stdout
    for option in ("-o DIR", "-F HZ", "--clock {cpu,wall}", "--gpu", "--no-gpu", "--follow-forks",
                   "--no-nvtx", "-q"):
        assert option in stdout
    code, stdout, _ = run_python(["-m", "zorvek", "--help"], tmp_path, {}, 30)
    assert code == 0
    for command in ("record", "summary", "timeline", "flame"):
        assert command in stdout
    code, _, stderr = run_python(["-m", "zorvek"], tmp_path, {}, 30)
    assert code == 2 and "usage: zorvek" in stderr
    for command in ("summary", "timeline", "flame"):
        code, stdout, stderr = run_python(["-m", "zorvek", command, "--help"], tmp_path, {}, 30)
        assert code == 0 and f"usage: zorvek {command}" in stdout, stderr


def test_the_zorvek_command_is_installed(tmp_path):
    command = os.path.join(sysconfig.get_path("scripts"), "zorvek")
    assert os.path.exists(command)
    result = subprocess.run([command, "--version"], capture_output=True, text=True, timeout=30)
    assert result.returncode == 0 and result.stdout.startswith("zorvek ")
