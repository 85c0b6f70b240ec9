"""zorvek record and the SIGTERM disposition a program inherits: a program started
with SIGTERM ignored goes on ignoring it under zorvek record, as it would without."""

import os
import signal
import subprocess
import sys
import time

import pytest

from zvk_testing import REPORT_SOURCE, begins, ends, parse_reports, read_capture

SCRIPT = r'''
import json, os, signal, sys, time
import zorvek
''' + REPORT_SOURCE + r'''
report("pid", os.getpid())
report("ignored_at_start", signal.getsignal(signal.SIGTERM) == signal.SIG_IGN)
open("ready", "w").close()
deadline = time.monotonic() + 1.5
while time.monotonic() < deadline:
    with zorvek.annotate("step"):
        time.sleep(0.01)
report("ignored_at_end", signal.getsignal(signal.SIGTERM) == signal.SIG_IGN)
report("finished", True)
'''


def _ignore_sigterm():
    signal.signal(signal.SIGTERM, signal.SIG_IGN)


def test_a_program_started_with_sigterm_ignored_keeps_ignoring_it(tmp_path):
    (tmp_path / "train.py").write_text(SCRIPT)
    env = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}
    process = subprocess.Popen(
        [sys.executable, "-m", "zorvek", "record", "-o", "out", "-F", "0", "--", "python",
         "train.py"], cwd=tmp_path, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        text=True, start_new_session=True, preexec_fn=_ignore_sigterm)
    try:
        deadline = time.monotonic() + 30
        while not (tmp_path / "ready").exists():
            if process.poll() is not None or time.monotonic() > deadline:
                pytest.fail("the program did not start: " + process.stderr.read()[-4000:])
            time.sleep(0.02)
        os.kill(process.pid, signal.SIGTERM)
        stdout, stderr = process.communicate(timeout=60)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        stdout, stderr = process.communicate()
        pytest.fail("zorvek record did not end\n" + stderr[-4000:])
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
    got = parse_reports(stdout)
    assert process.returncode == 0, stderr[-4000:]
    assert got["ignored_at_start"] is True and got["ignored_at_end"] is True
    assert got["finished"] is True
    (path,) = [p for p in (tmp_path / "out").iterdir() if f"_{got['pid']}_" in p.name]
    capture = read_capture(path)
    assert not capture.torn and begins(capture, "step")
    assert {r["token"] for r in begins(capture)} == {r["token"] for r in ends(capture)}
