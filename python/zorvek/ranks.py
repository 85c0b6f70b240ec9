"""`zorvek ranks`: one annotation range across the ranks of a distributed job,
a line per rank, the slow ranks flagged.

A rank is what the job's launcher called the process (torchrun's RANK, mpirun's
OMPI_COMM_WORLD_RANK, SLURM_PROCID), written into its capture; a worker process
counts for the rank that started it, and a process of no rank is shown by its
pid. With GPU records, each rank's range time is split into the time some kernel
ran, some copy ran, and no GPU work ran at all.
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
from typing import Dict, List, Optional, Sequence, Tuple

PROG = "zorvek ranks"

# A rank is slow when its mean is above the median of the ranks' means by more
# than MAD_FACTOR scaled median absolute deviations, and by at least MIN_EXCESS
# of the median (ranks that agree to a microsecond have a MAD near 0).
MAD_FACTOR = 3.0
MAD_SCALE = 1.4826  # makes the MAD comparable to a standard deviation for normal data
MIN_EXCESS = 0.10

RULE = ("slow: a rank whose mean is above the median of the ranks' means by more than "
        "%g x MAD x %g (MAD: the median absolute deviation of the means from that median) "
        "and by at least %d%% of the median; it needs three ranks or more"
        % (MAD_FACTOR, MAD_SCALE, int(MIN_EXCESS * 100)))

EXAMPLES = """\
examples:
  zorvek ranks --range step runs/job42/          # every rank's captures in one folder
  zorvek ranks --range train_step tables/        # a folder zorvek export wrote
"""


def slow_ranks(means: Dict[object, float]) -> List[object]:
    """The keys whose mean is slow beside the others', by RULE."""
    if len(means) < 3:
        return []
    values = list(means.values())
    median = statistics.median(values)
    mad = statistics.median(abs(v - median) for v in values)
    limit = max(median + MAD_FACTOR * MAD_SCALE * mad, median * (1 + MIN_EXCESS))
    return [key for key, value in means.items() if value > limit]


def _percentile(ordered: List[int], fraction: float) -> int:
    """Nearest-rank percentile of sorted values."""
    index = max(0, min(len(ordered) - 1, int(-(-fraction * len(ordered) // 1)) - 1))
    return ordered[index]


def _merge(spans: List[Tuple[int, int]]) -> List[Tuple[int, int]]:
    merged: List[List[int]] = []
    for start, end in sorted(spans):
        if merged and start <= merged[-1][1]:
            merged[-1][1] = max(merged[-1][1], end)
        else:
            merged.append([start, end])
    return [(a, b) for a, b in merged]


def _overlap(a: List[Tuple[int, int]], b: List[Tuple[int, int]]) -> int:
    """Time two merged, sorted lists of spans have in common."""
    i = j = total = 0
    while i < len(a) and j < len(b):
        low, high = max(a[i][0], b[j][0]), min(a[i][1], b[j][1])
        if high > low:
            total += high - low
        if a[i][1] < b[j][1]:
            i += 1
        else:
            j += 1
    return total


def _duration(ns: float) -> str:
    if ns >= 10e9:
        return "%.1f s" % (ns / 1e9)
    if ns >= 1e9:
        return "%.2f s" % (ns / 1e9)
    if ns >= 1e6:
        return "%.2f ms" % (ns / 1e6)
    if ns >= 1e3:
        return "%.1f us" % (ns / 1e3)
    return "%d ns" % ns


def _key_label(key) -> str:
    kind, value = key
    return str(value) if kind == "rank" else "pid %s" % value


def report(tables: Dict[str, object], name: str) -> Tuple[str, List[object]]:
    """The table of lines for range `name`, and the keys of the slow ranks."""
    ranges = tables["ranges"].to_pydict()
    processes = tables["processes"].to_pydict()

    def key_of(rank, host, pid):
        return ("rank", rank) if rank is not None else ("pid", "%s:%s" % (host, pid))

    durations: Dict[tuple, List[int]] = {}
    spans: Dict[tuple, List[Tuple[int, int]]] = {}
    hosts: Dict[tuple, set] = {}
    names = set()
    for n, rank, host, pid, start, end in zip(ranges["name"], ranges["rank"], ranges["host"],
                                              ranges["pid"], ranges["start_ns"], ranges["end_ns"]):
        names.add(n)
        if n != name or end is None:
            continue
        key = key_of(rank, host, pid)
        durations.setdefault(key, []).append(end - start)
        spans.setdefault(key, []).append((start, end))
        hosts.setdefault(key, set()).add(host)
    if not durations:
        shown = sorted(names)
        hint = (" (names there: %s)" % ", ".join(shown[:8]) + (", ..." if len(shown) > 8 else "")
                ) if shown else " (the captures hold no annotation ranges)"
        raise LookupError("no annotation range named %r%s" % (name, hint))
    walls: Dict[tuple, List[int]] = {}
    for rank, host, pid, start, end in zip(processes["rank"], processes["host"], processes["pid"],
                                           processes["start_ns"], processes["end_ns"]):
        key = key_of(rank, host, pid)
        if start and end and key in durations:
            wall = walls.setdefault(key, [start, end])
            wall[0], wall[1] = min(wall[0], start), max(wall[1], end)

    gpu: Dict[tuple, Dict[str, List[Tuple[int, int]]]] = {}
    for table in ("kernels", "copies", "memsets"):
        rows = tables[table].to_pydict()
        for rank, host, pid, start, end in zip(rows["rank"], rows["host"], rows["pid"],
                                               rows["start_ns"], rows["end_ns"]):
            key = key_of(rank, host, pid)
            if key in durations:
                gpu.setdefault(key, {}).setdefault(table, []).append((start, end))

    means = {key: statistics.fmean(values) for key, values in durations.items()}
    slow = slow_ranks(means)
    columns = ["rank", "host", "count", "mean", "p50", "p99", "share of wall"]
    if gpu:
        columns += ["kernels", "copies", "no GPU work"]
    rows: List[List[str]] = []
    order = sorted(durations, key=lambda k: (k[0] != "rank", k[1] if k[0] == "rank" else 0, str(k[1])))
    for key in order:
        values = sorted(durations[key])
        inside = _merge(spans[key])
        inside_ns = sum(b - a for a, b in inside)
        wall = walls.get(key) or [inside[0][0], inside[-1][1]]
        share = inside_ns / max(wall[1] - wall[0], 1)
        row = [_key_label(key), ",".join(sorted(hosts[key])), str(len(values)),
               _duration(means[key]), _duration(_percentile(values, 0.5)),
               _duration(_percentile(values, 0.99)), "%.1f%%" % (100 * min(share, 1.0))]
        if gpu:
            work = gpu.get(key, {})
            kernels = _merge(work.get("kernels", []))
            copies = _merge(work.get("copies", []))
            busy = _merge(work.get("kernels", []) + work.get("copies", []) + work.get("memsets", []))
            for part in (kernels, copies):
                row.append("%.1f%%" % (100 * _overlap(inside, part) / max(inside_ns, 1)))
            row.append("%.1f%%" % (100 * (1 - _overlap(inside, busy) / max(inside_ns, 1))))
        row.append("slow" if key in slow else "")
        rows.append(row)
    columns.append("")
    widths = [max(len(c), *(len(r[i]) for r in rows)) for i, c in enumerate(columns)]
    lines = []
    for values in [columns] + rows:
        cells = [v.ljust(w) if i in (1, len(columns) - 1) else v.rjust(w)
                 for i, (v, w) in enumerate(zip(values, widths))]
        lines.append("  ".join(cells).rstrip())
    return "\n".join(lines) + "\n", slow


def _tables_from(files: Sequence[str], progress, jobs: int):
    """The tables of a folder zorvek export wrote, or of the captures named."""
    from . import _tables

    if len(files) == 1 and os.path.isdir(files[0]) and any(
            n.startswith("ranges-") and n.endswith(".parquet") for n in os.listdir(files[0])):
        import pyarrow as pa
        import pyarrow.parquet as pq

        tables = {}
        for name in _tables.TABLES:
            paths = sorted(os.path.join(files[0], n) for n in os.listdir(files[0])
                           if n.startswith(name + "-") and n.endswith(".parquet"))
            tables[name] = pa.concat_tables([pq.read_table(p) for p in paths]) if paths else \
                _tables.schema(name).empty_table()
        return tables
    from .export import load

    return load(files, jobs=jobs, progress_enabled=progress, prog=PROG).tables


def add_arguments(parser: argparse.ArgumentParser) -> None:
    from .views.capture import add_files_argument, add_progress_arguments

    parser.description = ("One annotation range across the ranks of a distributed job: per rank\n"
                          "its count, mean, p50, p99 and share of wall time, the slow ranks\n"
                          "flagged; with GPU records, how much of it kernels and copies took.")
    parser.epilog = EXAMPLES + "\n" + RULE + ".\n"
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    add_files_argument(parser)
    parser.add_argument("--range", required=True, metavar="NAME",
                        help="the annotation range to compare (a training step, say)")
    parser.add_argument("-j", "--jobs", type=int, default=1, metavar="N",
                        help="read the captures in N local processes (default: 1)")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    from . import _reader
    from .export import MissingPackage, require, say_runs
    from .views.capture import VIEW_FAILURES, Progress, view_failed

    try:
        require("pyarrow")
    except MissingPackage as error:
        sys.stderr.write("%s: %s\n" % (PROG, error))
        return 2
    try:
        tables = _tables_from(args.files, args.progress, args.jobs)
        text, slow = report(tables, args.range)
    except LookupError as error:
        sys.stderr.write("%s: %s\n" % (PROG, error.args[0]))
        return _reader.EXIT_NOT_READ
    except VIEW_FAILURES as error:
        return view_failed(PROG, Progress(PROG, False), error, "")
    say_runs(tables, PROG, args.files)
    sys.stdout.write("range %r, %s\n" % (args.range, "slow: rank %s" % ", ".join(
        _key_label(k) for k in slow) if slow else "no rank slow"))
    sys.stdout.write(text)
    return 0


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
