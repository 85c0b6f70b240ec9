"""zorvek export: four ranks' captures as Parquet tables that DuckDB reads back,
the same rows on every run and from several processes, and bad input told."""

import glob
import os
import shutil

import pytest

from test_ranks import SLOW_RANK, STEPS, record_ranks, zorvek

pa = pytest.importorskip("pyarrow")
pq = pytest.importorskip("pyarrow.parquet")
duckdb = pytest.importorskip("duckdb")

TABLES = ("ranges", "samples", "kernels", "copies", "memsets", "api_calls", "processes", "threads")


@pytest.fixture(scope="module")
def captures(tmp_path_factory):
    return record_ranks(tmp_path_factory.mktemp("export"))


def export(captures, out, *extra):
    result = zorvek("export", "--format", "parquet", "-o", out, *extra, captures)
    assert result.returncode == 0, result.stderr
    return result


def read(out, table):
    files = sorted(glob.glob(os.path.join(str(out), table + "-*.parquet")))
    assert files and all(os.path.basename(f)[len(table) + 1:-8].isdigit() for f in files)
    return pa.concat_tables([pq.read_table(f) for f in files])


def counted_in_captures(captures):
    """Per pid: the ranges the job opened, and the samples taken, read directly."""
    from zorvek import _reader

    ranges, samples = {}, {}
    for name in os.listdir(captures):
        for batch in _reader.CaptureFile(str(captures / name)).batches():
            for rec in batch:
                if rec["event"] == "BEGIN" and rec["msg"] in ("step", "compute"):
                    ranges[rec["pid"]] = ranges.get(rec["pid"], 0) + 1
                elif rec["hw"] == "CPU" and rec["event"] in ("SAMPLE", "STACK"):
                    samples[rec["pid"]] = samples.get(rec["pid"], 0) + 1
    return ranges, samples


def test_tables_hold_every_range_with_its_rank_and_every_sample(captures, tmp_path):
    out = tmp_path / "tables"
    result = export(captures, out)
    assert "wrote" in result.stderr
    assert sorted({os.path.basename(f).split("-")[0] for f in glob.glob(str(out / "*.parquet"))}) == \
        sorted(TABLES)
    processes = read(out, "processes").to_pydict()
    rank_of = dict(zip(processes["pid"], processes["rank"]))
    assert sorted(rank_of.values()) == [0, 1, 2, 3]
    assert set(processes["world_size"]) == {4}
    ranges = read(out, "ranges")
    in_captures, samples_in_captures = counted_in_captures(captures)
    rows = ranges.to_pylist()
    assert not [r for r in rows if r["name"].startswith("zorvek.")]
    by_pid = {}
    for row in rows:
        by_pid[row["pid"]] = by_pid.get(row["pid"], 0) + 1
        assert row["rank"] == rank_of[row["pid"]]
        assert row["duration_ns"] == row["end_ns"] - row["start_ns"] > 0
        if row["name"] == "step":
            assert (row["depth"], row["parent"]) == (0, None)
        else:
            assert (row["name"], row["depth"], row["parent"]) == ("compute", 1, "step")
    assert by_pid == in_captures
    samples = read(out, "samples")
    per_pid = {}
    for pid in samples.column("pid").to_pylist():
        per_pid[pid] = per_pid.get(pid, 0) + 1
    assert per_pid == samples_in_captures
    for row in samples.slice(0, 200).to_pylist():
        assert row["rank"] == rank_of[row["pid"]] and row["clock"] in ("cpu", "wall")
        assert row["stack"].split(";")[-1] == row["leaf"]
        assert row["stack"].startswith("python ")
    # DuckDB reads the files back, and the slowed rank's steps are the longest.
    slowest = duckdb.sql(
        "select rank, count(*) from read_parquet('%s/ranges-*.parquet') where name = 'step' "
        "group by rank order by avg(duration_ns) desc" % out).fetchall()
    assert slowest[0] == (SLOW_RANK, STEPS) and len(slowest) == 4
    threads = read(out, "threads").to_pylist()
    assert {(t["pid"], t["name"]) for t in threads if t["tid"] == t["pid"]} == \
        {(pid, "MainThread") for pid in rank_of}


def test_a_second_export_and_one_in_two_processes_give_the_same_rows(captures, tmp_path):
    export(captures, tmp_path / "one")
    export(captures, tmp_path / "two")
    export(captures, tmp_path / "jobs", "--jobs", "2")
    for table in TABLES:
        first = read(tmp_path / "one", table)
        assert read(tmp_path / "two", table).equals(first), table
        assert read(tmp_path / "jobs", table).equals(first), table


def test_a_damaged_capture_among_good_ones_is_told_and_skipped(captures, tmp_path):
    mixed = tmp_path / "mixed"
    shutil.copytree(captures, mixed)
    victim = sorted(mixed.iterdir())[0]
    data = bytearray(victim.read_bytes())
    middle = len(data) // 2
    data[middle:middle + 64] = bytes(b ^ 0xFF for b in data[middle:middle + 64])
    victim.write_bytes(bytes(data))
    junk = mixed / "zorvek_junk.zvkraw"
    junk.write_bytes(b"not a capture at all, only text" * 10)
    result = zorvek("export", "-o", tmp_path / "out", mixed)
    assert result.returncode == 1, result.stderr
    lines = result.stderr.splitlines()
    assert "zorvek export: %s: not a Zorvek capture file" % junk in lines[0]
    assert lines[0].endswith("; skipped, 310 bytes lost")
    damaged = [l for l in lines if str(victim) in l]
    assert len(damaged) == 1 and "damaged" in damaged[0] and "skipped" in damaged[0] and \
        damaged[0].endswith("used what was whole"), lines
    assert "Traceback" not in result.stderr
    # The other ranks are whole (the damaged file held one bucket: nothing of it is).
    ranges = read(tmp_path / "out", "ranges").to_pydict()
    assert len(set(ranges["rank"])) == 3 and None not in ranges["rank"]
    assert ranges["name"].count("step") == 3 * STEPS


def test_no_captures_and_a_bad_option_are_one_line(tmp_path):
    (tmp_path / "empty").mkdir()
    result = zorvek("export", "-o", tmp_path / "out", tmp_path / "empty")
    assert result.returncode == 1
    assert len(result.stderr.splitlines()) == 1 and "no .zvkraw capture files" in result.stderr
    result = zorvek("export", "-o", tmp_path / "out", "--jobs", "0", tmp_path / "empty")
    assert result.returncode == 2 and result.stderr.strip() == "zorvek export: --jobs must be at least 1"


def test_missing_analysis_package_is_one_line_and_capture_side_needs_none(tmp_path):
    blocker = tmp_path / "sitecustomize.py"
    blocker.write_text(
        "import sys\n"
        "class _Block:\n"
        "    def find_spec(self, name, path=None, target=None):\n"
        "        if name.split('.')[0] in ('pyarrow', 'duckdb', 'dask', 'distributed'):\n"
        "            raise ImportError('blocked: ' + name)\n"
        "sys.meta_path.insert(0, _Block())\n")
    env = dict(os.environ, PYTHONPATH=str(tmp_path) + os.pathsep + os.environ.get("PYTHONPATH", ""))
    import subprocess
    import sys

    for command in (["export", "-o", str(tmp_path / "o"), str(tmp_path)],
                    ["sql", "select 1", str(tmp_path)], ["ranks", "--range", "x", str(tmp_path)]):
        result = subprocess.run([sys.executable, "-m", "zorvek", *command], env=env,
                                capture_output=True, text=True, timeout=60)
        assert result.returncode == 2, result.stderr
        assert result.stderr.count("\n") == 1 and \
            "pip install 'zorvek[analysis]'" in result.stderr, result.stderr
    # Recording imports none of them.
    script = tmp_path / "job.py"
    script.write_text("import sys, zorvek\n"
                      "with zorvek.annotate('x'):\n"
                      "    pass\n"
                      "print(sorted(m for m in ('pyarrow', 'duckdb', 'dask') if m in sys.modules))\n")
    result = subprocess.run([sys.executable, "-m", "zorvek", "record", "-q", "-o", str(tmp_path / "c"),
                             "--", "python", str(script)], env=env, capture_output=True, text=True,
                            timeout=60)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "[]"
