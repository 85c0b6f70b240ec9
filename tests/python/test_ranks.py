"""Ranks of a distributed job: found in the launcher's variables, written into each
rank's capture and hidden by the views, and `zorvek ranks` naming the slow one."""

import os
import subprocess
import sys
import textwrap

import pytest

from zorvek import _names, _ranks

SLOW_RANK = 2
STEPS = 12

JOB = textwrap.dedent('''
    import os, time, zorvek
    slow = os.environ["RANK"] == "{slow}"
    for _ in range({steps}):
        with zorvek.annotate("step"):
            with zorvek.annotate("compute"):
                began = time.thread_time()
                while time.thread_time() - began < 0.001:
                    pass
            time.sleep(0.25 if slow else 0.05)
''').format(slow=SLOW_RANK, steps=STEPS)


def record_ranks(folder, world=4, launcher="torchrun"):
    """Runs `world` ranks of a small job side by side under zorvek record, each
    writing its capture into folder/caps; rank SLOW_RANK sleeps five times longer
    per step, and the steps are mostly sleep, so that other work on the machine
    doesn't make a rank slow. Returns the captures' folder."""
    script = folder / "job.py"
    script.write_text(JOB)
    caps = folder / "caps"
    base = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}
    processes = []
    for rank in range(world):
        env = dict(base)
        if launcher == "torchrun":
            env.update(RANK=str(rank), LOCAL_RANK=str(rank), WORLD_SIZE=str(world))
        else:
            env.update(SLURM_PROCID=str(rank), SLURM_LOCALID=str(rank), SLURM_NTASKS=str(world))
        processes.append(subprocess.Popen(
            [sys.executable, "-m", "zorvek", "record", "-q", "-o", str(caps), "--",
             "python", str(script)], cwd=folder, env=env, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True))
    for process in processes:
        out, err = process.communicate(timeout=60)
        assert process.returncode == 0, out + err
    assert len([n for n in os.listdir(caps) if n.endswith(".zvkraw")]) == world
    return caps


def zorvek(*args, cwd=None, stdin=None, timeout=60):
    return subprocess.run([sys.executable, "-m", "zorvek", *map(str, args)], cwd=cwd, input=stdin,
                          capture_output=True, text=True, timeout=timeout)


@pytest.fixture(scope="module")
def captures(tmp_path_factory):
    return record_ranks(tmp_path_factory.mktemp("ranks"))


@pytest.mark.parametrize("env,expected", [
    ({"RANK": "3", "LOCAL_RANK": "1", "WORLD_SIZE": "8"}, (3, 1, 8)),
    ({"OMPI_COMM_WORLD_RANK": "5", "OMPI_COMM_WORLD_LOCAL_RANK": "1",
      "OMPI_COMM_WORLD_SIZE": "6"}, (5, 1, 6)),
    ({"SLURM_PROCID": "7", "SLURM_LOCALID": "3", "SLURM_NTASKS": "16"}, (7, 3, 16)),
    # torchrun under srun: the rank the script sees wins.
    ({"RANK": "2", "SLURM_PROCID": "9"}, (2, -1, -1)),
    ({"RANK": "x", "SLURM_PROCID": "4"}, (4, -1, -1)),
])
def test_rank_comes_from_the_launchers_variables(env, expected):
    found = _ranks.detect(env)
    assert (found.rank, found.local_rank, found.world_size) == expected
    assert found.host


def test_no_launcher_no_rank():
    assert _ranks.detect({"PATH": "/bin"}) is None


def test_capture_names_carry_the_rank_where_a_launcher_set_one():
    from zorvek import _settings
    assert _settings.record_file_name({"PATH": "/bin"}) == "zorvek_%h_%p_%t"
    assert _settings.record_file_name({"RANK": "12"}) == "zorvek_%h_rank12_%p_%t"
    assert _settings.record_file_name({"SLURM_PROCID": "3"}) == "zorvek_%h_rank3_%p_%t"


def test_rank_mark_is_read_back_and_is_a_mark():
    names = _names.Names()
    assert _names.is_mark("zorvek.rank 3 1 8 node7")
    assert names.learn(42, "zorvek.rank 3 1 8 node7")
    assert names.rank(42) == (3, 1, 8, "node7")
    assert not names.learn(42, "zorvek.ranking")


def test_each_capture_names_its_rank_and_views_hide_the_mark(captures):
    from zorvek import _reader

    ranks = set()
    for name in sorted(os.listdir(captures)):
        marks = [r["msg"] for batch in _reader.CaptureFile(str(captures / name)).batches(kinds=["BEGIN"])
                 for r in batch if r["msg"].startswith("zorvek.rank ")]
        assert marks, name
        rank, local, world, host = _names.parse_rank(marks[0])
        assert (local, world) == (rank, 4) and host
        # The file's name says its rank too, so a shared folder lists by rank.
        assert name.startswith("zorvek_%s_rank%d_" % (host, rank)), name
        ranks.add(rank)
    assert ranks == {0, 1, 2, 3}
    summary = zorvek("summary", captures)
    assert summary.returncode == 0, summary.stderr
    assert "zorvek.rank" not in summary.stdout and "step" in summary.stdout
    trace = captures.parent / "trace.json"
    timeline = zorvek("timeline", captures, "-o", trace)
    assert timeline.returncode == 0, timeline.stderr
    assert "zorvek.rank" not in trace.read_text()


def test_ranks_flags_the_slowed_rank_and_only_it(captures):
    result = zorvek("ranks", "--range", "step", captures)
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines[0] == "range 'step', slow: rank %d" % SLOW_RANK
    assert lines[1].split()[:6] == ["rank", "host", "count", "mean", "p50", "p99"]
    rows = {int(line.split()[0]): line for line in lines[2:]}
    assert sorted(rows) == [0, 1, 2, 3]
    for rank, line in rows.items():
        assert line.split()[2] == str(STEPS)
        assert line.endswith("slow") == (rank == SLOW_RANK), line


def test_ranks_help_says_the_rule_and_a_missing_range_is_one_line(captures):
    help_text = zorvek("ranks", "--help").stdout
    assert "median absolute deviation" in " ".join(help_text.split())
    result = zorvek("ranks", "--range", "nope", captures)
    assert result.returncode == 1
    assert result.stderr.strip().splitlines() == [
        "zorvek ranks: no annotation range named 'nope' (names there: compute, step)"]


def test_slow_rule():
    from zorvek.ranks import slow_ranks

    assert slow_ranks({0: 10.0, 1: 10.2, 2: 30.0, 3: 9.9}) == [2]
    assert slow_ranks({0: 10.0, 1: 10.0001, 2: 10.0002, 3: 10.0}) == []  # a MAD near 0
    assert slow_ranks({0: 10.0, 1: 30.0}) == []  # two ranks: neither is the odd one
