"""`zorvek export`: captures as Parquet tables, for pandas, Polars, DuckDB, Spark.

One folder, and in it each table's rows in files named TABLE-NNNN.parquet, in row
groups: ranges, samples, kernels, copies, memsets, api_calls, processes, threads.
Times are nanoseconds on the system clock, as the timeline places them. Each
capture file is read by one task, here (--jobs N processes) or on a Dask cluster
(--scheduler); the rows are the same either way, and the same on every run.
"""

from __future__ import annotations

import argparse
import os
import sys
from typing import List, Optional, Sequence

PROG = "zorvek export"
INSTALL_HINT = "pip install 'zorvek[analysis]'"

# Rows per row group, and per file of a table.
ROW_GROUP_ROWS = 128 * 1024
FILE_ROWS = 4 * 1024 * 1024

EXAMPLES = """\
examples:
  zorvek export --format parquet -o tables/ zorvek_out/
  zorvek export -o tables/ --jobs 8 runs/*/               # 8 local processes
  zorvek export -o tables/ --scheduler tcp://10.0.0.5:8786 /shared/runs/

With --scheduler the files are read by the cluster's workers under the same
paths: put them on a file system every worker mounts. The tables come back to
this machine and are written here.
"""


class MissingPackage(Exception):
    pass


def require(*modules: str) -> None:
    """Imports the optional analysis packages, or says in one line what to install."""
    import importlib

    for module in modules:
        try:
            importlib.import_module(module)
        except ImportError:
            raise MissingPackage("needs the %s package: %s" % (module.split(".")[0], INSTALL_HINT)) from None


def say_runs(tables, prog: str, files: Sequence[str] = ()) -> None:
    """The runs the tables' processes come from, on stderr, when more than one;
    `files`: what they were read from (captures, or tables zorvek export wrote)."""
    from . import _reader
    from .views.capture import Runs, ViewError, capture_paths

    runs = Runs()
    try:
        paths = capture_paths(files)
    except ViewError:
        paths = []  # a folder of tables
    for path in paths:
        try:
            runs.file(_reader.CaptureFile(path).header, path)
        except (OSError, ValueError):
            continue  # told when the tables were read
    processes = tables["processes"].to_pydict()
    for pid, host, parent, start, files in zip(processes["pid"], processes["host"],
                                               processes["parent"], processes["start_ns"],
                                               processes["files"]):
        runs.process(host, pid, parent, start if files else None)
    runs.say(prog)


def load(files: Sequence[str], jobs: int = 1, scheduler: Optional[str] = None,
         progress_enabled: Optional[bool] = None, prog: str = PROG):
    """The combined tables of the captures named (files or folders), with
    progress on stderr and the files' problems told there."""
    from . import _tables
    from .views.capture import Progress, capture_paths

    paths = capture_paths(files)
    progress = Progress(prog, progress_enabled)

    def step(done: int, total: int) -> None:
        progress.show("read %d of %d files" % (done, total), done / total)

    parts = _tables.run_parts(paths, jobs=jobs, scheduler=scheduler, progress=step)
    progress.show("joining the tables")
    combined = _tables.combine(parts)
    progress.done()
    for line in combined.skipped + combined.damaged + combined.notes:
        sys.stderr.write("%s: %s\n" % (prog, line))
    if len(combined.skipped) == len(paths):
        from .views.capture import ViewError

        raise ViewError("no capture could be read")
    return combined


def write_parquet(tables, folder: str) -> List[str]:
    """Each table as TABLE-NNNN.parquet files in folder; earlier TABLE-*.parquet
    files there are replaced, others left alone. Returns the files written."""
    import pyarrow.parquet as pq

    os.makedirs(folder, exist_ok=True)
    written = []
    for name, table in tables.items():
        for old in os.listdir(folder):
            if old.startswith(name + "-") and old.endswith(".parquet") and \
                    old[len(name) + 1:-len(".parquet")].isdigit():
                os.unlink(os.path.join(folder, old))
        count = max(1, -(-table.num_rows // FILE_ROWS))
        for index in range(count):
            path = os.path.join(folder, "%s-%04d.parquet" % (name, index))
            tmp = path + ".tmp%d" % os.getpid()
            pq.write_table(table.slice(index * FILE_ROWS, FILE_ROWS), tmp,
                           row_group_size=ROW_GROUP_ROWS, compression="zstd")
            os.replace(tmp, path)
            written.append(path)
    return written


def add_arguments(parser: argparse.ArgumentParser) -> None:
    from .views.capture import add_files_argument, add_progress_arguments

    parser.description = ("Captures as Parquet tables: ranges, samples, kernels, copies, memsets,\n"
                          "api_calls, processes, threads, each in TABLE-NNNN.parquet files.")
    parser.epilog = EXAMPLES
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    add_files_argument(parser)
    parser.add_argument("--format", choices=("parquet",), default="parquet",
                        help="what to write (default: %(default)s)")
    parser.add_argument("-o", "--output", required=True, metavar="DIR",
                        help="folder for the tables (made if missing)")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("-j", "--jobs", type=int, default=1, metavar="N",
                       help="read the files in N local processes (default: 1)")
    where.add_argument("--scheduler", metavar="tcp://HOST:PORT",
                       help="read the files as tasks of this Dask cluster")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    from .views.capture import VIEW_FAILURES, Progress, view_failed
    from . import _reader, _tables

    try:
        require("pyarrow", *(["distributed"] if args.scheduler else []))
    except MissingPackage as error:
        sys.stderr.write("%s: %s\n" % (PROG, error))
        return 2
    if args.jobs < 1:
        sys.stderr.write("%s: --jobs must be at least 1\n" % PROG)
        return 2
    try:
        combined = load(args.files, args.jobs, args.scheduler, args.progress)
        written = write_parquet(combined.tables, args.output)
    except _tables.SchedulerError as error:
        sys.stderr.write("%s: %s\n" % (PROG, error))
        return _reader.EXIT_NOT_READ
    except VIEW_FAILURES as error:
        return view_failed(PROG, Progress(PROG, False), error, args.output)
    say_runs(combined.tables, PROG, args.files)
    counts = ", ".join("%d %s" % (t.num_rows, name) for name, t in combined.tables.items())
    sys.stderr.write("%s: wrote %d files to %s: %s\n" % (PROG, len(written), args.output, counts))
    if combined.skipped:
        return _reader.EXIT_NOT_READ
    return _reader.EXIT_DAMAGED if combined.damaged else _reader.EXIT_READ_WHOLE


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
