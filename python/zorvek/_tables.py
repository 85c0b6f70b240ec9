"""Captures as the tables of `zorvek export`, `zorvek sql` and `zorvek ranks`.

Work is split the way a cluster can run it: `read_file` reads one capture file
alone (its clocks put on the system clock by the timeline's model, its stacks
named) and returns plain columns, and `combine` joins the parts of all files in
the order of the files given: ranges begun in one file of a rotating capture and
ended in the next are paired, ranges nest per thread, each process gets the rank
its marks name (a worker process the rank of its parent), and GPU work the range
its launching call was made in. The same parts give the same tables whichever
processes or machines read them."""

from __future__ import annotations

import bisect
import os
from typing import Any, Dict, Iterable, List, Optional, Sequence, Tuple

TABLES = ("ranges", "samples", "kernels", "copies", "memsets", "api_calls", "processes", "threads")

# Each table's columns: (name, Arrow type name), in order, and its sort key.
COLUMNS: Dict[str, List[Tuple[str, str]]] = {
    "ranges": [("name", "string"), ("rank", "int32"), ("host", "string"), ("pid", "int64"),
               ("tid", "int64"), ("start_ns", "int64"), ("end_ns", "int64"),
               ("duration_ns", "int64"), ("depth", "int32"), ("parent", "string"),
               ("end_tid", "int64")],
    "samples": [("rank", "int32"), ("host", "string"), ("pid", "int64"), ("tid", "int64"),
                ("time_ns", "int64"), ("clock", "string"), ("stack", "string"), ("leaf", "string"),
                ("cpu", "int32")],
    "kernels": [("name", "string"), ("rank", "int32"), ("host", "string"), ("pid", "int64"),
                ("device", "int32"), ("stream", "int64"), ("correlation", "int64"),
                ("start_ns", "int64"), ("end_ns", "int64"), ("duration_ns", "int64"),
                ("launch_range", "string"), ("grid", "string"), ("block", "string"),
                ("mangled", "string")],
    "copies": [("kind", "string"), ("rank", "int32"), ("host", "string"), ("pid", "int64"),
               ("device", "int32"), ("stream", "int64"), ("correlation", "int64"),
               ("start_ns", "int64"), ("end_ns", "int64"), ("duration_ns", "int64"),
               ("launch_range", "string"), ("bytes", "int64"), ("src_device", "int32"),
               ("dst_device", "int32")],
    "memsets": [("rank", "int32"), ("host", "string"), ("pid", "int64"), ("device", "int32"),
                ("stream", "int64"), ("correlation", "int64"), ("start_ns", "int64"),
                ("end_ns", "int64"), ("duration_ns", "int64"), ("launch_range", "string"),
                ("bytes", "int64"), ("value", "int64")],
    "api_calls": [("name", "string"), ("rank", "int32"), ("host", "string"), ("pid", "int64"),
                  ("tid", "int64"), ("correlation", "int64"), ("start_ns", "int64"),
                  ("end_ns", "int64"), ("duration_ns", "int64"), ("launch_range", "string"),
                  ("cbid", "int32"), ("function", "string")],
    "processes": [("pid", "int64"), ("host", "string"), ("name", "string"), ("parent", "int64"),
                  ("rank", "int32"), ("local_rank", "int32"), ("world_size", "int32"),
                  ("start_ns", "int64"), ("end_ns", "int64"), ("files", "int32")],
    "threads": [("pid", "int64"), ("tid", "int64"), ("host", "string"), ("name", "string"),
                ("rank", "int32")],
}
SORT_KEYS = {
    "ranges": ["host", "pid", "tid", "start_ns", "depth", "name"],
    "samples": ["host", "pid", "tid", "time_ns", "stack"],
    "kernels": ["host", "pid", "device", "stream", "start_ns", "correlation"],
    "copies": ["host", "pid", "device", "stream", "start_ns", "correlation"],
    "memsets": ["host", "pid", "device", "stream", "start_ns", "correlation"],
    "api_calls": ["host", "pid", "tid", "start_ns", "correlation"],
    "processes": ["host", "pid"],
    "threads": ["host", "pid", "tid"],
}


def schema(table: str):
    import pyarrow as pa

    return pa.schema([(name, getattr(pa, kind)()) for name, kind in COLUMNS[table]])


# ---- One file ----------------------------------------------------------------------


def _columns(table: str) -> Dict[str, list]:
    return {name: [] for name, _ in COLUMNS[table]}


def read_file(path: str) -> Dict[str, Any]:
    """One capture file's part of the tables: plain lists, cheap to send between
    processes. A file that can't be read at all comes back with "error" set."""
    from .stacks import stack_key
    from .timeline import (Progress, Reading, Survey, ViewError, build_symbolizer, name_stacks,
                           sample_frames)

    part: Dict[str, Any] = {"path": path, "error": None, "problems": [], "unfinished": "",
                            "damaged": False, "gaps": []}
    try:
        part["bytes"] = os.path.getsize(path)
    except OSError:
        part["bytes"] = 0
    samples: List[tuple] = []  # the kernel's: (pid, tid, perf time, cpu, chain key)
    stack_samples: List[tuple] = []  # the stack sampler's: (pid, tid, time, clock, stack key)
    try:
        reading = Reading([path], Progress("zorvek export", False))
        survey = Survey(
            reading,
            on_sample=lambda _i, rec: samples.append(
                (rec["pid"], rec["tid"], rec["timestamp"], rec.get("device"), sample_frames(rec))),
            on_stack=lambda _i, rec: stack_samples.append(
                (rec["pid"], rec["tid"], rec["timestamp"], rec.get("clock") or "cpu",
                 stack_key(rec))))
        survey.run()
    except (ViewError, OSError, ValueError) as error:
        part["error"] = str(error)
        return part
    part["problems"] = reading.problems.get(path, [])
    part["unfinished"] = reading.unfinished.get(path, "")
    part["damaged"] = path in reading.damaged
    header = survey.headers[0]
    domain = survey.file_domain[0]
    part["host"] = domain.host
    part["header_pid"] = header.get("pid")
    part["start_ns"] = int(header.get("start_time") or 0)
    part["end_ns"] = int(header.get("end_time") or 0)
    names = survey.own_names
    part["ranks"] = dict(names.ranks)
    part["process_names"] = {pid: (entry[1], entry[2]) for pid, entry in names.processes.items()}
    part["thread_names"] = {key: entry[1] for key, entry in names.threads.items()}
    part["threads_seen"] = {pid: sorted(tids) for pid, tids in survey.threads.items()}
    part["last_ns"] = dict(survey.last_real)

    # Ranges: whole ones, and the halves whose other half may be in another file.
    ranges = _columns("ranges")
    part["open_begins"] = []
    for pid, tid, start, end, msg, token, unfinished, end_tid in survey.ranges:
        if unfinished:
            part["open_begins"].append((pid, token, tid, start, msg))
            continue
        for key, value in (("name", msg), ("pid", pid), ("tid", tid), ("start_ns", start),
                           ("end_ns", end), ("end_tid", end_tid)):
            ranges[key].append(value)
    part["ranges"] = ranges
    part["early_ends"] = _early_ends(survey)

    part["samples"] = _samples(survey, samples, stack_samples, build_symbolizer, name_stacks, part)
    _gpu(survey, part)
    return part


def _early_ends(survey) -> List[tuple]:
    """(pid, token, tid, ts) of the ends whose begin the file doesn't hold: the
    survey counts them only, so they are read again from its reading's records."""
    if not survey.unmatched_ends:
        return []
    begun = set()
    ends = []
    for _index, batch in survey.reading.records(kinds=["BEGIN", "END"]):
        for rec in batch:
            key = (rec["pid"], rec["token"])
            if rec["event"] == "BEGIN":
                begun.add(key)
            elif key not in begun:
                ends.append((rec["pid"], rec["token"], rec["tid"], rec["timestamp"]))
    return ends


def _samples(survey, samples: List[tuple], stack_samples: List[tuple], build_symbolizer,
             name_stacks, part) -> Dict[str, list]:
    """The samples' columns, each stack named once: `stack_id` indexes `stacks`
    and `leaves`, "root;...;leaf" as `zorvek flame --format collapsed` writes them."""
    from .stacks import StackNamer

    columns: Dict[str, list] = {"pid": [], "tid": [], "time_ns": [], "cpu": [], "stack_id": [],
                                "clock": [], "stacks": [], "leaves": []}
    if not samples and not stack_samples:
        return columns
    domain = survey.file_domain[0]
    chains: Dict[tuple, int] = {}
    merged: Dict[tuple, int] = {}
    for pid, tid, ts, cpu, frames in samples:
        for key, value in (("pid", pid), ("tid", tid), ("time_ns", domain.perf_to_real(ts)),
                           ("cpu", cpu), ("clock", "cpu"),
                           ("stack_id", chains.setdefault(frames, len(chains)))):
            columns[key].append(value)
    for pid, tid, ts, clock, key in stack_samples:
        # The stack sampler's clock is the system clock already.
        for column, value in (("pid", pid), ("tid", tid), ("time_ns", ts), ("cpu", None),
                              ("clock", clock), ("stack_id", -1 - merged.setdefault(key, len(merged)))):
            columns[column].append(value)
    symbols = build_symbolizer(survey)
    try:
        def root(pid: int) -> str:
            own = survey.own_names.process(pid)
            if own:
                return own.replace(";", ",")
            exe = symbols.executable(pid)
            return os.path.basename(exe) if exe else "pid %d" % pid

        named: List[List[str]] = []
        ordered = list(chains)
        for (pid, _frames, _padded), frames in zip(ordered, name_stacks(symbols, ordered)):
            named.append([root(pid)] + frames[::-1])
        ordered_merged = list(merged)
        namer = StackNamer(symbols, survey.python_codes)
        for key, frames in zip(ordered_merged, namer.name_many(ordered_merged)):
            named.append([root(key[0])] + list(frames))
        part["gaps"] = list(symbols.gaps)
    finally:
        symbols.close()
    # Merged stacks follow the chains: their ids counted down from -1 move up.
    columns["stack_id"] = [i if i >= 0 else len(chains) - 1 - i for i in columns["stack_id"]]
    columns["stacks"] = [";".join(frames) for frames in named]
    columns["leaves"] = [frames[-1] for frames in named]
    return columns


def _gpu(survey, part: Dict[str, Any]) -> None:
    from .symbols import demangle
    from .timeline import driver_call_name

    def table_name(pid: int, table: str, ident: int) -> Optional[str]:
        found = survey.names.get((pid, table), {}).get(ident)
        if found is None:
            for (_other, t), known in sorted(survey.names.items()):
                if t == table and ident in known:
                    return known[ident]
        return found

    raw_kernel_names = {}
    for op in survey.gpu_ops:
        if op[6] == "kernel":
            raw_kernel_names[(op[1], op[7])] = table_name(op[1], "kernel", op[7])
    raw_function_names = {}
    for call in survey.api_calls:
        raw_function_names[(call[1], call[8])] = table_name(call[1], "function", call[8])
    readable = demangle([n for n in list(raw_kernel_names.values()) +
                         list(raw_function_names.values()) if n])

    kernels, copies, memsets = _columns("kernels"), _columns("copies"), _columns("memsets")
    for domain, pid, device, stream, start, end, kind, name, corr, args in survey.gpu_ops:
        s, e = domain.gpu_to_real(start), domain.gpu_to_real(max(end, start))
        if kind == "kernel":
            raw = raw_kernel_names.get((pid, name))
            row = {"name": readable.get(raw, raw) if raw else "kernel %d" % name,
                   "mangled": raw if raw and readable.get(raw, raw) != raw else None,
                   "grid": _dims(args.get("grid")), "block": _dims(args.get("block"))}
            target = kernels
        elif kind == "copy":
            row = {"kind": args.get("kind"), "bytes": args.get("bytes"),
                   "src_device": args.get("src_device"), "dst_device": args.get("dst_device")}
            target = copies
        else:
            row = {"bytes": args.get("bytes"), "value": args.get("value")}
            target = memsets
        row.update(pid=pid, device=device, stream=stream, correlation=corr, start_ns=s, end_ns=e)
        for key in target:
            if key not in ("rank", "host", "duration_ns", "launch_range"):
                target[key].append(row.get(key))
    calls = _columns("api_calls")
    for domain, pid, tid, start, end, cbid, cb_domain, corr, func_id, _chain in survey.api_calls:
        symbol = raw_function_names.get((pid, func_id))
        row = {"name": driver_call_name(cbid) if cb_domain == 1 else
               "CUDA call %d.%d" % (cb_domain, cbid),
               "pid": pid, "tid": tid, "correlation": corr, "cbid": cbid,
               "start_ns": domain.gpu_to_real(start), "end_ns": domain.gpu_to_real(max(end, start)),
               "function": readable.get(symbol, symbol) if symbol and symbol != "Unknown" else None}
        for key in calls:
            if key not in ("rank", "host", "duration_ns", "launch_range"):
                calls[key].append(row.get(key))
    part["kernels"], part["copies"], part["memsets"], part["api_calls"] = kernels, copies, memsets, calls


def _dims(value) -> Optional[str]:
    if value is None:
        return None
    if isinstance(value, (list, tuple)):
        return "x".join(str(v) for v in value)
    return str(value)


# ---- All files ---------------------------------------------------------------------


class Combined:
    """The tables of all parts, as pyarrow Tables, and what was said about the files."""

    def __init__(self, tables: Dict[str, Any], notes: List[str], skipped: List[str],
                 damaged: List[str]):
        self.tables = tables
        self.notes = notes
        self.skipped = skipped
        self.damaged = damaged


def _order(parts: Sequence[Dict[str, Any]]) -> List[Dict[str, Any]]:
    """Readable parts in capture order (a rotating capture's files one after the
    other), whatever order the files were named in."""
    good = [p for p in parts if p["error"] is None]
    return sorted(good, key=lambda p: (p["host"], p["header_pid"] or 0, p["start_ns"], p["path"]))


def combine(parts: Sequence[Dict[str, Any]]) -> Combined:
    import pyarrow as pa

    notes: List[str] = []
    skipped: List[str] = []
    damaged: List[str] = []
    for part in parts:
        if part["error"] is not None:
            text = part["error"]
            if not text.startswith(part["path"]):
                text = "%s: %s" % (part["path"], text)
            skipped.append("%s; skipped, %s lost" % (text, _size(part["bytes"])))
        else:
            if part["problems"]:
                problems = part["problems"]
                text = problems[0] if len(problems) == 1 else "%s (and %d more)" % (
                    problems[0], len(problems) - 1)
                if not text.startswith(part["path"]):
                    text = "%s: %s" % (part["path"], text)
                damaged.append(text + "; used what was whole")
            if part["unfinished"]:
                notes.append(part["unfinished"])
            notes.extend(part.get("gaps", ()))
    good = _order(parts)

    # Processes: names, parents, ranks, time spans.
    ranks: Dict[Tuple[str, int], Tuple[int, int, int, str]] = {}
    names: Dict[Tuple[str, int], Tuple[str, int]] = {}
    spans: Dict[Tuple[str, int], List[int]] = {}
    files: Dict[Tuple[str, int], int] = {}
    thread_names: Dict[Tuple[str, int, int], str] = {}
    threads = set()
    for part in good:
        host = part["host"]
        for pid, rank in part["ranks"].items():
            ranks[(host, pid)] = rank
        for pid, entry in part["process_names"].items():
            names[(host, pid)] = entry
        for (pid, tid), name in part["thread_names"].items():
            thread_names[(host, pid, tid)] = name
        for pid, tids in part["threads_seen"].items():
            threads.update((host, pid, tid) for tid in tids)
        pids = set(part["threads_seen"]) | set(part["ranks"]) | set(part["process_names"])
        if part["header_pid"] is not None:
            pids.add(part["header_pid"])
        for pid in pids:
            key = (host, pid)
            span = spans.setdefault(key, [0, 0])
            start = part["start_ns"] if pid == part["header_pid"] else 0
            end = max(part["end_ns"] if pid == part["header_pid"] else 0, part["last_ns"].get(pid, 0))
            if start and (not span[0] or start < span[0]):
                span[0] = start
            span[1] = max(span[1], end)
            if pid == part["header_pid"]:
                files[key] = files.get(key, 0) + 1

    def rank_of(key: Tuple[str, int], seen=()) -> Optional[Tuple[int, int, int, str]]:
        # A worker started by a rank, unmarked itself, works for that rank.
        if key in ranks:
            return ranks[key]
        parent = names.get(key, (None, None))[1]
        if parent is None or (key[0], parent) in seen:
            return None
        return rank_of((key[0], parent), seen + (key,))

    process_rank = {key: rank_of(key) for key in spans}
    rank_number = {key: (r[0] if r else None) for key, r in process_rank.items()}

    tables: Dict[str, Any] = {}
    processes = _columns("processes")
    for key in sorted(spans):
        host, pid = key
        rank = process_rank[key]
        row = {"pid": pid, "host": host, "name": names.get(key, (None, None))[0],
               "parent": names.get(key, (None, None))[1],
               "rank": rank[0] if rank else None, "local_rank": rank[1] if rank and rank[1] >= 0 else None,
               "world_size": rank[2] if rank and rank[2] >= 0 else None,
               "start_ns": spans[key][0] or None, "end_ns": spans[key][1] or None,
               "files": files.get(key, 0)}
        for column in processes:
            processes[column].append(row[column])
    tables["processes"] = processes
    thread_rows = _columns("threads")
    for host, pid, tid in sorted(threads | set(thread_names)):
        for column, value in (("pid", pid), ("tid", tid), ("host", host),
                              ("name", thread_names.get((host, pid, tid))),
                              ("rank", rank_number.get((host, pid)))):
            thread_rows[column].append(value)
    tables["threads"] = thread_rows

    ranges, enclosing = _ranges(good, rank_number)
    tables["ranges"] = ranges
    launch = _launch_ranges(good, enclosing)
    for table in ("kernels", "copies", "memsets", "api_calls"):
        columns = _columns(table)
        for part in good:
            rows = part[table]
            count = len(rows["pid"])
            if not count:
                continue
            for column in columns:
                if column == "host":
                    columns[column].extend([part["host"]] * count)
                elif column == "rank":
                    columns[column].extend(rank_number.get((part["host"], p)) for p in rows["pid"])
                elif column == "duration_ns":
                    columns[column].extend(e - s for s, e in zip(rows["start_ns"], rows["end_ns"]))
                elif column == "launch_range":
                    columns[column].extend(launch.get((part["host"], p, c))
                                           for p, c in zip(rows["pid"], rows["correlation"]))
                else:
                    columns[column].extend(rows[column])
        tables[table] = columns

    arrow = {name: pa.Table.from_pydict(columns, schema=schema(name))
             for name, columns in tables.items()}
    arrow["samples"] = _samples_table(good, rank_number)
    for name in TABLES:
        table = arrow[name]
        if table.num_rows:
            arrow[name] = table.sort_by([(key, "ascending") for key in SORT_KEYS[name]])
    return Combined({name: arrow[name] for name in TABLES}, notes, skipped, damaged)


def _samples_table(good, rank_number):
    import pyarrow as pa

    pieces = []
    for part in good:
        s = part["samples"]
        count = len(s["pid"])
        if not count:
            continue
        ids = pa.array(s["stack_id"], pa.int32())
        stacks = pa.array(s["stacks"], pa.string()).take(ids)
        leaves = pa.array(s["leaves"], pa.string()).take(ids)
        pieces.append(pa.Table.from_arrays([
            pa.array([rank_number.get((part["host"], p)) for p in s["pid"]], pa.int32()),
            pa.array([part["host"]] * count, pa.string()),
            pa.array(s["pid"], pa.int64()), pa.array(s["tid"], pa.int64()),
            pa.array(s["time_ns"], pa.int64()), pa.array(s["clock"], pa.string()),
            stacks, leaves, pa.array(s["cpu"], pa.int32())], schema=schema("samples")))
    if not pieces:
        return schema("samples").empty_table()
    return pa.concat_tables(pieces)


def _ranges(good, rank_number) -> Tuple[Dict[str, list], Dict[tuple, tuple]]:
    """The ranges table's columns, and per thread the whole ranges sorted, for
    finding the range a call was made in."""
    rows: List[list] = []  # [host, pid, tid, start, end, name, end_tid]
    for part in good:
        host = part["host"]
        r = part["ranges"]
        for name, pid, tid, start, end, end_tid in zip(r["name"], r["pid"], r["tid"], r["start_ns"],
                                                       r["end_ns"], r["end_tid"]):
            rows.append([host, pid, tid, start, end, name, end_tid])
    # Halves across the files of one process, in capture order.
    open_begins: Dict[tuple, list] = {}
    for part in good:
        host = part["host"]
        for pid, token, tid, ts in part["early_ends"]:
            begun = open_begins.pop((host, pid, token), None)
            if begun is not None:
                begun[4], begun[6] = ts, tid
        for pid, token, tid, start, msg in part["open_begins"]:
            row = [host, pid, tid, start, None, msg, tid]
            rows.append(row)
            open_begins[(host, pid, token)] = row
    rows.sort(key=lambda r: (r[0], r[1], r[2], r[3], -((r[4] if r[4] is not None else r[3]) - r[3]), r[5]))
    depths: List[int] = []
    parents: List[Optional[str]] = []
    enclosing: Dict[tuple, tuple] = {}
    stack: List[list] = []
    thread = None
    per_thread: List[tuple] = []
    for row in rows:
        key = (row[0], row[1], row[2])
        if key != thread:
            if thread is not None:
                enclosing[thread] = tuple(per_thread)
            thread, stack, per_thread = key, [], []
        start, end = row[3], row[4]
        while stack and stack[-1][4] is not None and stack[-1][4] <= start:
            stack.pop()
        depths.append(len(stack))
        parents.append(stack[-1][5] if stack else None)
        if end is not None:
            per_thread.append((start, end, row[5], len(stack)))
        stack.append(row)
    if thread is not None:
        enclosing[thread] = tuple(per_thread)
    columns = _columns("ranges")
    if rows:
        hosts, pids, tids, starts, ends, names, end_tids = (list(c) for c in zip(*rows))
        columns.update(
            name=names, rank=[rank_number.get(k) for k in zip(hosts, pids)], host=hosts, pid=pids,
            tid=tids, start_ns=starts, end_ns=ends,
            duration_ns=[None if e is None else e - s for s, e in zip(starts, ends)],
            depth=depths, parent=parents, end_tid=end_tids)
    return columns, enclosing


def _innermost(spans: tuple, starts: List[int], t: int) -> Optional[str]:
    """The deepest range of a thread open at time t."""
    best = None
    i = bisect.bisect_right(starts, t)
    # Ranges are few per moment; walk back while one could still hold t.
    for start, end, name, depth in reversed(spans[max(0, i - 64):i]):
        if start <= t <= end and (best is None or depth > best[1]):
            best = (name, depth)
    return best[0] if best else None


def _launch_ranges(good, enclosing) -> Dict[tuple, str]:
    """(host, pid, correlation): the range the API call with that correlation was
    made in, on its own thread."""
    starts = {key: [s[0] for s in spans] for key, spans in enclosing.items()}
    found: Dict[tuple, str] = {}
    for part in good:
        host = part["host"]
        calls = part["api_calls"]
        for pid, tid, corr, start in zip(calls["pid"], calls["tid"], calls["correlation"],
                                         calls["start_ns"]):
            key = (host, pid, tid)
            if key in enclosing:
                name = _innermost(enclosing[key], starts[key], start)
                if name is not None:
                    found[(host, pid, corr)] = name
    return found


def _size(n: int) -> str:
    for unit, size in (("GB", 1 << 30), ("MB", 1 << 20), ("kB", 1 << 10)):
        if n >= size:
            return "%.1f %s" % (n / size, unit)
    return "%d bytes" % n


def run_parts(paths: Iterable[str], jobs: int = 1, scheduler: Optional[str] = None,
              progress=None) -> List[Dict[str, Any]]:
    """read_file over the files, in their order: here, in `jobs` processes, or as
    tasks of the Dask cluster at `scheduler`. progress(done, total) after each."""
    paths = list(paths)
    total = len(paths)
    if scheduler:
        return _run_on_dask(paths, scheduler, progress)
    if jobs <= 1 or total <= 1:
        parts = []
        for index, path in enumerate(paths):
            parts.append(read_file(path))
            if progress:
                progress(index + 1, total)
        return parts
    import concurrent.futures
    import multiprocessing

    context = multiprocessing.get_context("spawn")
    parts_by_index: Dict[int, Dict[str, Any]] = {}
    with concurrent.futures.ProcessPoolExecutor(max_workers=min(jobs, total), mp_context=context) as pool:
        futures = {pool.submit(read_file, path): index for index, path in enumerate(paths)}
        for future in concurrent.futures.as_completed(futures):
            parts_by_index[futures[future]] = future.result()
            if progress:
                progress(len(parts_by_index), total)
    return [parts_by_index[i] for i in range(total)]


class SchedulerError(Exception):
    """The Dask cluster could not be reached or used; the message is one line."""


# How long a scheduler that doesn't answer is waited for.
CONNECT_TIMEOUT_S = 3


def _run_on_dask(paths: List[str], scheduler: str, progress) -> List[Dict[str, Any]]:
    """read_file as one Dask task per file on an existing cluster; the workers
    read the files by the same paths, so they must lie on a file system (or an
    object store mounted as one) that every worker sees."""
    from distributed import Client, as_completed

    try:
        client = Client(scheduler, timeout=CONNECT_TIMEOUT_S, set_as_default=False)
    except (OSError, TimeoutError) as error:
        raise SchedulerError("%s: Dask scheduler not reachable (%s)" % (
            scheduler, " ".join(str(error).split()) or type(error).__name__)) from None
    try:
        futures = client.map(read_file, paths, pure=False)
        index = {future.key: i for i, future in enumerate(futures)}
        parts: Dict[int, Dict[str, Any]] = {}
        for future in as_completed(futures, loop=client.loop):
            parts[index[future.key]] = future.result()
            if progress:
                progress(len(parts), len(paths))
        return [parts[i] for i in range(len(paths))]
    finally:
        client.close()
