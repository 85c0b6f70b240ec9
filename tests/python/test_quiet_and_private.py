"""What a run prints, and who may read what it writes. A clean run under `zorvek
record` adds one line and the short summary to the job's own output, `-q` adds
nothing, and `zorvek.profile()` adds its one line; the profiler's lines that
report nothing show only with `-v`. Captures are private to their owner unless
shared on purpose."""

import os
import pty
import re
import signal
import stat
import subprocess
import sys

import pytest

from zorvek._profile import describe_files
from zorvek.summary import short_summary

from zvk_testing import run_python

JOB = r'''
import os, sys
print("the job's own line", flush=True)
print("the job's own error", file=sys.stderr, flush=True)
child = os.fork()
if child == 0:
    os._exit(0)
os.waitpid(child, 0)
'''

PROFILED_JOB = r'''
import os, zorvek
with zorvek.profile("out"):
''' + "".join("    " + line + "\n" for line in JOB.strip().splitlines())

_PROFILER_VARIABLES = ("ZVK_", "ZV_", "ZORV_")


def record(tmp_path, *options, script=JOB):
    (tmp_path / "job.py").write_text(script)
    return run_python(["-m", "zorvek", "record", "-o", "out", *options, "job.py"], tmp_path, {}, 60)


def the_capture(directory):
    (path,) = sorted(directory.glob("*.zvkraw"))
    return str(path)


def test_a_clean_run_prints_the_jobs_output_one_line_and_the_summary(tmp_path):
    code, stdout, stderr = record(tmp_path)
    assert code == 0, stderr
    assert stdout == "the job's own line\n"
    path = the_capture(tmp_path / "out")
    lines = stderr.splitlines()
    assert lines[0] == "the job's own error"
    assert re.fullmatch(r"zorvek: recorded \d+\.\d s; " + re.escape(describe_files([path], "out")),
                        lines[1]), lines
    assert lines[2:] == short_summary([path]).rstrip("\n").splitlines()
    assert len(lines) > 2


def test_quiet_prints_nothing(tmp_path):
    code, stdout, stderr = record(tmp_path, "-q")
    assert code == 0
    assert stdout == "the job's own line\n"
    assert stderr == "the job's own error\n"
    assert the_capture(tmp_path / "out")


def test_verbose_shows_the_lines_that_report_nothing(tmp_path):
    code, _, stderr = record(tmp_path, "-v")
    assert code == 0, stderr
    assert "Stalled 0s while waiting for a buffer" in stderr
    assert "LOG(INFO)" in stderr
    # The perf collector's fork warnings, where perf events are asked for: shown
    # with verbose only.
    for verbose in (True, False):
        script = PROFILED_JOB.replace(
            'zorvek.profile("out")',
            'zorvek.profile("out", verbose=%r, settings={"perf": {"EventConfigs": '
            '"1,0,1000003,743,0,0,0"}})' % verbose)
        (tmp_path / "perf_job.py").write_text(script)
        code, _, stderr = run_python(["perf_job.py"], tmp_path, {}, 60)
        assert code == 0, stderr
        for line in ("PERFCollector Suspend not implemented",
                     "PERFCollector Resume not implemented"):
            assert (line in stderr) == verbose, stderr


def test_profile_at_its_defaults_adds_its_one_line(tmp_path):
    (tmp_path / "job.py").write_text(PROFILED_JOB)
    code, stdout, stderr = run_python(["job.py"], tmp_path, {}, 60)
    assert code == 0, stderr
    assert stdout == "the job's own line\n"
    path = the_capture(tmp_path / "out")
    assert stderr.splitlines() == ["the job's own error",
                                   "zorvek: " + describe_files([path], "out")]


def test_the_jobs_standard_error_stays_its_own(tmp_path):
    # Quiet by the environment the profiler reads, not by a pipe in stderr's
    # place: a job that had a terminal still has one.
    (tmp_path / "job.py").write_text(
        "import os, sys\n"
        "print(os.isatty(2), os.environ.get('ZORV_QUIET'), flush=True)\n"
        "print('to the terminal', file=sys.stderr, flush=True)\n")
    env = {k: v for k, v in os.environ.items() if not k.startswith(_PROFILER_VARIABLES)}
    master, terminal = pty.openpty()
    try:
        process = subprocess.Popen([sys.executable, "-m", "zorvek", "record", "-q", "-o", "out",
                                    "job.py"], cwd=tmp_path, env=env, stdout=subprocess.PIPE,
                                   stderr=terminal, text=True, start_new_session=True)
        os.close(terminal)
        terminal = -1
        try:
            stdout, _ = process.communicate(timeout=60)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            raise
        seen = b""
        while True:
            try:
                chunk = os.read(master, 4096)
            except OSError:  # EIO: the terminal's other end is closed
                break
            if not chunk:
                break
            seen += chunk
    finally:
        os.close(master)
        if terminal != -1:
            os.close(terminal)
    assert process.returncode == 0
    assert stdout == "True 1\n"
    assert seen.decode().splitlines() == ["to the terminal"]


# ---- Private captures ----

def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


def run_with_umask(tmp_path, umask, *args):
    env = {k: v for k, v in os.environ.items() if not k.startswith(_PROFILER_VARIABLES)}
    result = subprocess.run([sys.executable, *args], cwd=tmp_path, env=env, capture_output=True,
                            text=True, timeout=60, preexec_fn=lambda: os.umask(umask))
    assert result.returncode == 0, result.stderr
    return result


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
def test_captures_and_folders_are_private_whatever_the_umask(tmp_path, umask):
    (tmp_path / "job.py").write_text("pass\n")
    run_with_umask(tmp_path, umask, "-m", "zorvek", "record", "-q", "-o", "a/b/out", "job.py")
    assert mode(the_capture(tmp_path / "a" / "b" / "out")) == 0o600
    for folder in ("a", "a/b", "a/b/out"):
        assert mode(tmp_path / folder) == 0o700, folder


@pytest.mark.parametrize("umask", [0o000, 0o077])
def test_share_widens_them_on_purpose(tmp_path, umask):
    (tmp_path / "job.py").write_text("pass\n")
    run_with_umask(tmp_path, umask, "-m", "zorvek", "record", "-q", "--share", "-o", "a/out",
                   "job.py")
    for folder in ("a", "a/out"):
        assert mode(tmp_path / folder) == 0o755, folder
    assert mode(the_capture(tmp_path / "a" / "out")) == 0o644


def test_profile_share_argument(tmp_path):
    (tmp_path / "job.py").write_text(
        "import zorvek\n"
        "with zorvek.profile('a/shared', sample_hz=0, share=True, quiet=True):\n    pass\n")
    result = run_with_umask(tmp_path, 0o077, "job.py")
    assert result.stderr == ""
    assert mode(tmp_path / "a") == mode(tmp_path / "a" / "shared") == 0o755
    assert mode(the_capture(tmp_path / "a" / "shared")) == 0o644


def test_a_folder_that_exists_keeps_its_mode(tmp_path):
    (tmp_path / "out").mkdir()
    os.chmod(tmp_path / "out", 0o751)
    (tmp_path / "job.py").write_text("pass\n")
    run_with_umask(tmp_path, 0o022, "-m", "zorvek", "record", "-q", "-o", "out", "job.py")
    assert mode(tmp_path / "out") == 0o751
    assert mode(the_capture(tmp_path / "out")) == 0o600


def test_a_stall_that_happened_is_told_even_with_quiet(tmp_path):
    # Two buffers of 1 MiB and records that don't compress: the job outruns the
    # writer and waits for a buffer.
    script = ("import _zorv, os\n"
              "message = os.urandom(60000)\n"
              "for _ in range(300):\n"
              "    _zorv.annotation_end(_zorv.annotation_begin(message))\n"
              "print(_zorv._producer_stall_us(), flush=True)\n")
    code, stdout, stderr = record(tmp_path, "-q", "-F", "0", "--buffer-mb", "2", script=script)
    assert code == 0, stderr
    if int(stdout) == 0:
        pytest.skip("the writer kept up: no stall to tell")
    (line,) = stderr.splitlines()
    assert re.fullmatch(r"Stalled \d+(\.\d+)?s while waiting for a buffer", line), stderr
