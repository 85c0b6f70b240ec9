"""zorvek sql: DuckDB over the tables of four ranks' captures."""

import csv
import io

import pytest

from test_ranks import SLOW_RANK, STEPS, record_ranks, zorvek

pytest.importorskip("duckdb")
pytest.importorskip("pyarrow")

SLOWEST = ("select rank, avg(duration_ns) as mean_ns from ranges where name = 'step' "
           "group by rank order by mean_ns desc")


@pytest.fixture(scope="module")
def captures(tmp_path_factory):
    return record_ranks(tmp_path_factory.mktemp("sql"))


def test_sql_answers_the_slowest_rank_as_csv(captures):
    result = zorvek("sql", "--csv", SLOWEST, captures)
    assert result.returncode == 0, result.stderr
    rows = list(csv.reader(io.StringIO(result.stdout)))
    assert rows[0] == ["rank", "mean_ns"]
    assert [int(r[0]) for r in rows[1:]][0] == SLOW_RANK and len(rows) == 5


def test_sql_prints_an_aligned_table(captures):
    result = zorvek("sql", "select rank, count(*) as steps from ranges where name = 'step' "
                    "group by rank order by rank", captures)
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines[0].split() == ["rank", "steps"]
    assert set(lines[1]) == {"-", " "}
    assert [line.split() for line in lines[2:6]] == [[str(r), str(STEPS)] for r in range(4)]
    assert lines[6] == "(4 rows)"
    # Columns line up: every row as wide as the header's underline.
    assert len({len(line) for line in lines[1:6]}) == 1


def test_sql_reads_a_folder_that_export_wrote(captures, tmp_path):
    exported = zorvek("export", "-o", tmp_path / "t", captures)
    assert exported.returncode == 0, exported.stderr
    direct = zorvek("sql", "--csv", SLOWEST, captures).stdout
    via_parquet = zorvek("sql", "--csv", SLOWEST, tmp_path / "t")
    assert via_parquet.returncode == 0, via_parquet.stderr
    assert via_parquet.stdout == direct


def test_a_query_error_is_duckdbs_message_in_one_line(captures):
    result = zorvek("sql", "select no_such_column from ranges", captures)
    assert result.returncode == 1
    lines = result.stderr.splitlines()
    assert len(lines) == 1 and lines[0].startswith("zorvek sql: Binder Error: ")
    assert "no_such_column" in lines[0] and result.stdout == ""


def test_no_query_opens_a_prompt_on_the_same_tables(captures):
    result = zorvek("sql", "--csv", captures,
                    stdin="select count(*) as n\nfrom processes;\nselect bad;\nselect 7 as x;\n.quit\n")
    assert result.returncode == 0, result.stderr
    assert result.stdout.count("n\n4\n") == 1 and "x\n7\n" in result.stdout
    assert [l for l in result.stderr.splitlines() if "Error" in l][0].startswith("zorvek sql: ")
