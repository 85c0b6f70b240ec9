"""zorvek record run by a user without privileges: every capability dropped with
setpriv, as most jobs run. Each thread's own CPU-time timer needs no privilege at
any perf_event_paranoid level, so the capture holds CPU samples as well as
annotations; perf events asked for where the kernel refuses them are left out,
and one line says so."""

import os
import shutil
import stat
import subprocess
import sys
import tempfile
import textwrap

import pytest

from zvk_testing import REPORT_SOURCE, SAMPLE, SPIN_SOURCE, STACK, begins, cpu_records, \
    parse_reports, read_capture

NOBODY = 65534
# Half of the 0.5 s of CPU time: samples come at most one a kernel tick, each
# weighing the time it stands for, so the weights are what adds up.
ENOUGH_NS = 250_000_000


def weight(samples):
    return sum(r["weight_ns"] for r in samples)

BUSY = r'''
import json, os, time
import zorvek
''' + REPORT_SOURCE + SPIN_SOURCE + r'''
report("pid", os.getpid())
report("uid", os.getuid())
with open("/proc/self/status") as f:
    report("caps", [line.split()[1] for line in f if line.startswith(("CapEff", "CapPrm"))])
with zorvek.annotate("busy"):
    spin(0.5)
'''

# The same work in a capture of its own that asks for perf events too.
BUSY_WITH_PERF_EVENTS = BUSY.replace(
    'with zorvek.annotate("busy"):',
    'with zorvek.profile("out", settings={"perf": {"EventConfigs": "1,0,1000003,743,0,0,0"}}), '
    'zorvek.annotate("busy"):')


def paranoid():
    with open("/proc/sys/kernel/perf_event_paranoid") as f:
        return int(f.read().strip())


@pytest.fixture
def shared_dir():
    """A folder the unprivileged user can enter and write to: pytest's own
    tmp_path lies under a folder only its owner may enter."""
    path = tempfile.mkdtemp(prefix="zvk-unprivileged-", dir="/tmp")
    os.chmod(path, 0o777)
    yield path
    shutil.rmtree(path, ignore_errors=True)


def without_privileges():
    """The command prefix that runs what follows with no capability at all: as the
    user nobody where that user can reach this interpreter and the package, else
    as this user with every capability dropped (root without capabilities is as
    unprivileged to perf_event as anyone)."""
    setpriv = shutil.which("setpriv")
    if setpriv is None:
        pytest.skip("setpriv is missing")
    drop = [setpriv, "--inh-caps=-all", "--bounding-set=-all"]
    if os.geteuid() != 0:
        return drop
    as_nobody = [setpriv, f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
                 "--inh-caps=-all", "--bounding-set=-all"]
    reachable = subprocess.run([*as_nobody, sys.executable, "-c", "import zorvek"],
                               cwd="/", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return as_nobody if reachable.returncode == 0 else drop


RECORD = ("-m", "zorvek", "record", "-o", "out", "--", sys.executable)


def record_busy_script(folder, source=BUSY, recorder=RECORD):
    """Runs `source` without privileges, after `recorder`'s arguments to the
    interpreter; returns its reports, its capture and its stderr."""
    script = os.path.join(folder, "busy.py")
    with open(script, "w") as f:
        f.write(textwrap.dedent(source))
    os.chmod(script, stat.S_IRUSR | stat.S_IWUSR | stat.S_IRGRP | stat.S_IROTH)
    env = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}
    command = [*without_privileges(), sys.executable, *recorder, "busy.py"]
    done = subprocess.run(command, cwd=folder, env=env, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=120)
    got = parse_reports(done.stdout)
    assert done.returncode == 0, done.stdout + done.stderr[-4000:]
    assert "Traceback" not in done.stderr, done.stderr[-4000:]
    # Truly without privileges: no capability, effective or permitted.
    assert got["caps"] == ["0000000000000000", "0000000000000000"], got
    out = os.path.join(folder, "out")
    (name,) = [n for n in os.listdir(out) if n.endswith(".zvkraw") and f"_{got['pid']}_" in n]
    return got, read_capture(os.path.join(out, name)), done.stderr


def test_a_user_without_privileges_gets_samples_and_annotations(shared_dir):
    got, capture, stderr = record_busy_script(shared_dir)
    assert len(begins(capture, "busy", pid=got["pid"])) == 1
    samples = cpu_records(capture, STACK, pid=got["pid"], tid=got["pid"])
    assert weight(samples) > ENOUGH_NS, stderr[-4000:]
    assert "not available" not in stderr
    assert "ERROR" not in stderr, stderr[-4000:]


def test_where_the_kernel_refuses_perf_events_the_rest_is_captured_and_told(shared_dir):
    if paranoid() <= 2:
        pytest.skip("perf_event_paranoid 2 or below lets any user sample a process of its own")
    got, capture, stderr = record_busy_script(shared_dir, BUSY_WITH_PERF_EVENTS, ())
    assert len(begins(capture, "busy", pid=got["pid"])) == 1
    assert not cpu_records(capture, SAMPLE)
    assert weight(cpu_records(capture, STACK, pid=got["pid"], tid=got["pid"])) > ENOUGH_NS
    told = [line for line in stderr.splitlines() if "perf events are not available here" in line]
    assert len(told) == 1, stderr[-4000:]
    assert "perf_event_paranoid is" in told[0]
