"""zorvek export on a Dask cluster: a scheduler and two workers started here, on
127.0.0.1, give the rows a local export gives; a scheduler nobody runs is one line."""

import os
import shutil
import signal
import socket
import subprocess
import time

import pytest

from test_export import TABLES, read
from test_ranks import record_ranks, zorvek

pytest.importorskip("pyarrow")
pytest.importorskip("distributed")


def _dask(*args, log):
    executable = shutil.which("dask") or pytest.fail("the dask command is not installed")
    return subprocess.Popen([executable, *args], stdout=log, stderr=subprocess.STDOUT,
                            start_new_session=True)


def _stop(process):
    """Ends a process this test started, with whatever it started in its session."""
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGTERM)
        try:
            process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()


@pytest.fixture
def cluster(tmp_path):
    """(address, the two workers' processes) of a scheduler and two workers."""
    scheduler_file = tmp_path / "scheduler.json"
    log = open(tmp_path / "dask.log", "w")
    started = [_dask("scheduler", "--host", "127.0.0.1", "--port", "0", "--no-dashboard",
                     "--scheduler-file", str(scheduler_file), log=log)]
    try:
        deadline = time.monotonic() + 30
        while not scheduler_file.exists() and time.monotonic() < deadline:
            time.sleep(0.1)
        assert scheduler_file.exists(), (tmp_path / "dask.log").read_text()
        for _ in range(2):
            started.append(_dask("worker", "--scheduler-file", str(scheduler_file), "--host",
                                 "127.0.0.1", "--nthreads", "1", "--no-nanny", "--no-dashboard",
                                 log=log))
        from distributed import Client

        with Client(scheduler_file=str(scheduler_file), timeout=30) as client:
            client.wait_for_workers(2, timeout=30)
            address = client.scheduler.address
        yield address, started
    finally:
        for process in reversed(started):
            _stop(process)
        log.close()


def test_the_cluster_gives_the_rows_of_a_local_export(tmp_path, cluster):
    address, started = cluster
    captures = record_ranks(tmp_path)
    local = zorvek("export", "-o", tmp_path / "local", captures)
    assert local.returncode == 0, local.stderr
    remote = zorvek("export", "-o", tmp_path / "remote", "--scheduler", address, captures)
    assert remote.returncode == 0, remote.stderr
    for table in TABLES:
        assert read(tmp_path / "remote", table).equals(read(tmp_path / "local", table)), table
    assert read(tmp_path / "remote", "ranges").num_rows > 0
    assert all(p.poll() is None for p in started)


def test_an_unreachable_scheduler_is_one_line(tmp_path):
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]  # free once closed: nobody listens there
    (tmp_path / "caps").mkdir()
    shutil.copy(__file__, tmp_path / "caps" / "x.zvkraw")
    # The connection gives up after a few seconds; the limit here only catches a hang.
    result = zorvek("export", "-o", tmp_path / "out", "--scheduler", "tcp://127.0.0.1:%d" % port,
                    tmp_path / "caps", timeout=30)
    assert result.returncode == 1
    lines = result.stderr.splitlines()
    assert len(lines) == 1, result.stderr
    assert lines[0].startswith("zorvek export: tcp://127.0.0.1:%d: Dask scheduler not reachable" % port)
