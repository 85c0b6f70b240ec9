"""`zorvek sql`: SQL over the captures' tables in an embedded DuckDB.

The tables are those of `zorvek export` (ranges, samples, kernels, copies,
memsets, api_calls, processes, threads), made from the captures named, or read
from a folder `zorvek export` wrote. A query's result is printed as an aligned
table, or as CSV with --csv; with no query, an interactive prompt.
"""

from __future__ import annotations

import argparse
import csv
import os
import sys
from typing import List, Optional, Sequence, Tuple

PROG = "zorvek sql"

EXAMPLES = """\
examples:
  zorvek sql "select rank, avg(duration_ns) from ranges where name = 'step' group by rank" caps/
  zorvek sql --csv "select leaf, count(*) n from samples group by leaf order by n desc" caps/
  zorvek sql "select * from kernels limit 5" tables/        # a folder zorvek export wrote
  zorvek sql caps/                                          # an interactive prompt

Tables: ranges, samples, kernels, copies, memsets, api_calls, processes, threads
(`describe ranges` lists a table's columns). Times are nanoseconds on the system
clock.
"""


def _exported_folder(path: str) -> bool:
    return os.path.isdir(path) and any(n.endswith(".parquet") for n in os.listdir(path))


def connect(files: Sequence[str], progress: Optional[bool] = None, jobs: int = 1):
    """A DuckDB connection with the tables as views: over Parquet files where a
    folder of them is named, else over the captures read here."""
    import duckdb

    from . import _tables

    con = duckdb.connect(":memory:")
    if len(files) == 1 and _exported_folder(files[0]):
        folder = files[0]
        for name in _tables.TABLES:
            pattern = os.path.join(folder, name + "-*.parquet")
            if any(n.startswith(name + "-") and n.endswith(".parquet") for n in os.listdir(folder)):
                con.execute("create view %s as select * from read_parquet(%s)" % (
                    name, _quote(pattern)))
            else:
                con.register("_empty_" + name, _tables.schema(name).empty_table())
                con.execute("create view %s as select * from _empty_%s" % (name, name))
        return con
    from .export import load

    combined = load(files, jobs=jobs, progress_enabled=progress, prog=PROG)
    for name, table in combined.tables.items():
        con.register("_arrow_" + name, table)
        con.execute("create view %s as select * from _arrow_%s" % (name, name))
    return con


def _quote(text: str) -> str:
    return "'" + text.replace("'", "''") + "'"


def _cell(value) -> str:
    if value is None:
        return ""
    if isinstance(value, float):
        if value.is_integer() and abs(value) < 1e18:
            return "%d" % value
        if value != value or abs(value) < 1e-3 or abs(value) >= 1e15:
            return "%.6g" % value
        return ("%.4f" % value).rstrip("0").rstrip(".")
    return str(value)


def format_table(columns: List[str], rows: List[tuple]) -> str:
    """An aligned table: numbers to the right, text to the left."""
    cells = [[_cell(v) for v in row] for row in rows]
    numeric = [all(isinstance(row[i], (int, float)) or row[i] is None for row in rows) and bool(rows)
               for i in range(len(columns))]
    widths = [max([len(c)] + [len(r[i]) for r in cells]) for i, c in enumerate(columns)]

    def line(values: Sequence[str]) -> str:
        return "  ".join(v.rjust(w) if num else v.ljust(w)
                         for v, w, num in zip(values, widths, numeric)).rstrip()

    out = [line(columns), line(["-" * w for w in widths])]
    out.extend(line(r) for r in cells)
    out.append("(%d row%s)" % (len(rows), "" if len(rows) == 1 else "s"))
    return "\n".join(out) + "\n"


def query(con, text: str) -> Tuple[List[str], List[tuple]]:
    result = con.execute(text)
    if result.description is None:
        return [], []
    return [d[0] for d in result.description], result.fetchall()


def one_line(error: BaseException) -> str:
    return " ".join(str(error).split())


def _print_result(columns, rows, as_csv: bool, out) -> None:
    if not columns:
        return
    if as_csv:
        writer = csv.writer(out, lineterminator="\n")
        writer.writerow(columns)
        writer.writerows(["" if v is None else v for v in row] for row in rows)
    else:
        out.write(format_table(columns, rows))


def interactive(con, as_csv: bool) -> int:
    """Reads statements ending in ';' until .quit or end of input."""
    import duckdb

    try:
        import readline  # noqa: F401 (line editing and history for input())
    except ImportError:
        pass
    sys.stderr.write("%s: tables ranges, samples, kernels, copies, memsets, api_calls, processes, "
                     "threads; end a statement with ';', .quit to leave\n" % PROG)
    pending: List[str] = []
    while True:
        try:
            line = input("zorvek> " if not pending else "   ...> ")
        except EOFError:
            sys.stderr.write("\n")
            break
        except KeyboardInterrupt:
            sys.stderr.write("\n")
            pending = []
            continue
        if not pending and line.strip() in (".quit", ".exit", "quit", "exit"):
            break
        pending.append(line)
        text = "\n".join(pending).strip()
        if not text:
            pending = []
            continue
        if not text.endswith(";"):
            continue
        pending = []
        try:
            columns, rows = query(con, text)
        except duckdb.Error as error:  # told, and the prompt kept
            sys.stderr.write("%s: %s\n" % (PROG, one_line(error)))
            continue
        _print_result(columns, rows, as_csv, sys.stdout)
        sys.stdout.flush()
    return 0


def add_arguments(parser: argparse.ArgumentParser) -> None:
    from .views.capture import add_progress_arguments

    parser.description = ("SQL over the captures' tables (those of zorvek export) in an embedded\n"
                          "DuckDB: a query's result as an aligned table or CSV, or a prompt.")
    parser.epilog = EXAMPLES
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    parser.add_argument("words", nargs="+", metavar="[QUERY] FILE",
                        help="the query, then capture files, folders of them, or one folder "
                             "zorvek export wrote; without a query, an interactive prompt")
    parser.add_argument("--csv", action="store_true", help="CSV: a header line, then the rows")
    parser.add_argument("-j", "--jobs", type=int, default=1, metavar="N",
                        help="read the captures in N local processes (default: 1)")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    from . import _reader
    from .export import MissingPackage, require
    from .views.capture import VIEW_FAILURES, Progress, view_failed

    try:
        require("duckdb", "pyarrow")
    except MissingPackage as error:
        sys.stderr.write("%s: %s\n" % (PROG, error))
        return 2
    words = list(args.words)
    text = None
    if not os.path.exists(words[0]) and len(words) > 1:
        text, words = words[0], words[1:]
    elif not os.path.exists(words[0]):
        sys.stderr.write("%s: %s: no such file or folder (give the query first, then the captures)\n"
                         % (PROG, words[0]))
        return _reader.EXIT_NOT_READ
    try:
        con = connect(words, args.progress, args.jobs)
    except VIEW_FAILURES as error:
        return view_failed(PROG, Progress(PROG, False), error, "")
    if text is None:
        return interactive(con, args.csv)
    import duckdb

    try:
        columns, rows = query(con, text)
    except duckdb.Error as error:
        sys.stderr.write("%s: %s\n" % (PROG, one_line(error)))
        return 1
    _print_result(columns, rows, args.csv, sys.stdout)
    return 0


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
