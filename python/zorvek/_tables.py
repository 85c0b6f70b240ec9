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
    from .views.capture import Progress, Reading, ViewError
    from .views.samples import build_symbolizer, name_stacks, sample_frames
    from .views.survey import Survey

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
        annotations = _Annotations(reading.captures[0])
        survey = Survey(
            _RangesApart(reading, annotations),
            on_sample=lambda _i, rec: samples.append(
                (rec["pid"], rec["tid"], rec["timestamp"], rec.get("device"), sample_frames(rec))),
            on_stack=lambda _i, rec: stack_samples.append(
                (rec["pid"], rec["tid"], rec["timestamp"], rec.get("clock") or "cpu",
                 stack_key(rec))))
        annotations.seen_by(survey)
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
    part["ranges"], part["open_begins"], part["early_ends"] = annotations.ranges(survey)
    part["samples"] = _samples(survey, samples, stack_samples, build_symbolizer, name_stacks, part)
    _gpu(survey, part)
    return part


# The marks zorvek itself leaves in annotations (names, ranks, clock syncs,
# producer stalls) all start so; the survey reads those one by one.
_OWN_MARK = "zorvek."


class _Annotations:
    """A file's BEGIN and END records, read as columns in one pass and paired by
    (pid, token) in C++. The few that the survey must see one by one (zorvek's own
    marks, and the ends of their tokens) are handed to it as records; the ranges
    of all others are made here as columns."""

    def __init__(self, capture):
        import numpy as np
        import pyarrow as pa
        import pyarrow.compute as pc

        from ._reader import pair_annotations

        chunks: Dict[str, Dict[str, list]] = {
            "BEGIN": {"pid": [], "tid": [], "ts": [], "token": []},
            "END": {"pid": [], "tid": [], "ts": [], "token": []}}
        msgs = []
        for group in capture.columns(kinds=["BEGIN", "END"]):
            for kind, columns in chunks.items():
                table = group.get(kind)
                if table is None:
                    continue
                whole = table["decoded"]
                for key, field in (("pid", "pid"), ("tid", "tid"), ("ts", "timestamp"),
                                   ("token", "token")):
                    columns[key].append(table[field][whole])
                if kind == "BEGIN":
                    msgs.append(_texts(table, "msg").filter(pa.array(whole)))

        def joined(columns):
            return {key: (np.concatenate(parts) if parts else np.zeros(0, np.uint64)).astype(
                np.int64 if key == "ts" else np.uint64, copy=False)
                for key, parts in columns.items()}

        self.begins, self.ends = joined(chunks["BEGIN"]), joined(chunks["END"])
        self.msg = pa.chunked_array(msgs, pa.string()).combine_chunks()
        self.own = np.asarray(pc.starts_with(self.msg, _OWN_MARK).fill_null(False), bool)
        self.end_of_begin, self.begin_of_end = pair_annotations(
            self.begins["pid"], self.begins["token"], self.ends["pid"], self.ends["token"])
        ended = self.begin_of_end >= 0
        self.own_end = np.zeros(len(self.begin_of_end), bool)
        self.own_end[ended] = self.own[self.begin_of_end[ended]]

    def own_records(self) -> List[dict]:
        """zorvek's own marks and their ends as record dicts, in time order."""
        b, e = self.begins, self.ends
        records = [{"timestamp": ts, "hw": "ANNOTATION", "event": "BEGIN", "pid": pid,
                    "tid": tid, "device": 0, "token": token, "msg": msg}
                   for pid, tid, ts, token, msg in zip(
                       *(b[key][self.own].tolist() for key in ("pid", "tid", "ts", "token")),
                       self.msg.filter(self.own).to_pylist())]
        records += [{"timestamp": ts, "hw": "ANNOTATION", "event": "END", "pid": pid,
                     "tid": tid, "device": 0, "token": token}
                    for pid, tid, ts, token in zip(*(e[key][self.own_end].tolist() for key in (
                        "pid", "tid", "ts", "token")))]
        records.sort(key=lambda r: (r["timestamp"], r["event"] == "END"))
        return records

    def seen_by(self, survey) -> None:
        """What the survey learns from every annotation but the time marker: the
        span of the system clock, each thread's first and last annotation, the
        threads and last moment of each process."""
        import numpy as np
        import pyarrow as pa

        both = pa.table({key: np.concatenate([self.begins[key], self.ends[key]])
                         for key in ("pid", "tid", "ts")})
        if not both.num_rows:
            return
        spans = both.group_by(["pid", "tid"]).aggregate([("ts", "min"), ("ts", "max")])
        for pid, tid, first, last in zip(*(spans[key].to_pylist() for key in (
                "pid", "tid", "ts_min", "ts_max"))):
            survey.see_thread_span(0, pid, tid, first, last)

    def ranges(self, survey):
        """The file's whole ranges as a table (name, pid, tid, start_ns, end_ns,
        end_tid), the begins whose end the file lacks (pid, token, tid, start,
        name) and the ends whose begin it lacks (pid, token, tid, ts)."""
        import pyarrow as pa

        own: Dict[str, list] = {key: [] for key in _PART_RANGES}
        open_begins: List[tuple] = []
        for pid, tid, start, end, msg, token, unfinished, end_tid in survey.ranges:
            if unfinished:
                open_begins.append((pid, token, tid, start, msg))
                continue
            for key, value in zip(_PART_RANGES, (msg, pid, tid, start, end, end_tid)):
                own[key].append(value)
        b, e = self.begins, self.ends
        others = ~self.own
        whole = others & (self.end_of_begin >= 0)
        to_end = self.end_of_begin[whole]
        mask = pa.array(whole)
        table = pa.concat_tables([
            pa.table(own, schema=_part_ranges_schema()),
            pa.Table.from_arrays([
                self.msg.filter(mask), pa.array(b["pid"][whole].astype("int64")),
                pa.array(b["tid"][whole].astype("int64")), pa.array(b["ts"][whole]),
                pa.array(e["ts"][to_end]), pa.array(e["tid"][to_end].astype("int64"))],
                schema=_part_ranges_schema())])
        begun = others & (self.end_of_begin < 0)
        open_begins.extend(zip(*(b[key][begun].tolist() for key in ("pid", "token", "tid", "ts")),
                               self.msg.filter(pa.array(begun)).to_pylist()))
        alone = self.begin_of_end < 0
        early_ends = list(zip(*(e[key][alone].tolist() for key in ("pid", "token", "tid", "ts"))))
        return table, open_begins, early_ends


# A part's whole ranges: its columns, in order.
_PART_RANGES = ("name", "pid", "tid", "start_ns", "end_ns", "end_tid")


def _part_ranges_schema():
    import pyarrow as pa

    return pa.schema([("name", pa.string())] + [(key, pa.int64()) for key in _PART_RANGES[1:]])


def _texts(table: Dict[str, Any], field: str):
    """A text column of the reader's as an Arrow string array, without a copy;
    bytes that aren't UTF-8 show as U+FFFD, as the reader's dicts give them."""
    import pyarrow as pa

    data, offsets = table[field], table[field + "_offsets"]
    array = pa.StringArray.from_buffers(len(offsets) - 1, pa.py_buffer(offsets), pa.py_buffer(data))
    try:
        array.validate(full=True)
    except pa.ArrowInvalid:
        array = pa.array([data[lo:hi].tobytes().decode("utf-8", "replace")
                          for lo, hi in zip(offsets[:-1], offsets[1:])], pa.string())
    return array


class _RangesApart:
    """The file's reading as the survey takes it, without the BEGIN and END
    records _Annotations pairs itself: only zorvek's own marks among them."""

    def __init__(self, reading, annotations: _Annotations):
        self._reading = reading
        self._annotations = annotations

    def __getattr__(self, name):
        return getattr(self._reading, name)

    def records(self, kinds=None, what: str = "reading"):
        own = self._annotations.own_records()
        if own:
            yield 0, own
        yield from self._reading.records(kinds=_other_kinds(), what=what)


def _other_kinds() -> List[str]:
    """Every kind of record but BEGIN and END."""
    from ._reader import EVENT_NAMES

    return [name for name in EVENT_NAMES if name not in ("BEGIN", "END")]


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
    from .views.samples import driver_call_name

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

    codes = _HostCodes(good, rank_number)
    arrow = {name: pa.Table.from_pydict(columns, schema=schema(name))
             for name, columns in tables.items()}
    arrow["ranges"], nested = _ranges(good, codes)
    launch = _launch_ranges(good, codes, nested)
    for table in ("kernels", "copies", "memsets", "api_calls"):
        arrow[table] = _gpu_table(table, good, codes, launch)
    arrow["samples"] = _samples_table(good, codes)
    for name in TABLES:
        table = arrow[name]
        # The ranges come from _ranges in this order already.
        if table.num_rows and name != "ranges":
            arrow[name] = table.sort_by([(key, "ascending") for key in SORT_KEYS[name]])
    return Combined({name: arrow[name] for name in TABLES}, notes, skipped, damaged)


class _HostCodes:
    """Hosts as numbers, in the order of their names, so that columns of numbers
    sort as the names would; and the rank of each (host, pid), looked up once per
    distinct pair."""

    def __init__(self, good, rank_number: Dict[Tuple[str, int], Optional[int]]):
        self.hosts = sorted({part["host"] for part in good})
        self.code = {host: i for i, host in enumerate(self.hosts)}
        self._ranks = {(self.code[host], pid): rank for (host, pid), rank in rank_number.items()
                       if rank is not None}

    def of(self, part, count: int):
        import numpy as np

        return np.full(count, self.code[part["host"]], np.int64)

    def names(self, codes):
        """The host names of a column of codes."""
        import pyarrow as pa

        return pa.array(self.hosts, pa.string()).take(pa.array(codes, pa.int64()))

    def ranks(self, codes, pids):
        """The rank of each row's (host, pid), null where none is known."""
        import numpy as np
        import pyarrow as pa

        import pyarrow.compute as pc

        codes = np.asarray(codes, np.int64)
        pids = np.asarray(pids, np.int64)
        if not len(codes):
            return pa.array([], pa.int32())
        # A pid is less than 2**32: both in one number, found again by hashing.
        keys = pa.array((codes << 32) | pids)
        pairs = pc.unique(keys)
        index = np.asarray(pc.index_in(keys, value_set=pairs))
        found = [self._ranks.get((pair >> 32, pair & 0xFFFFFFFF)) for pair in pairs.to_pylist()]
        values = np.array([-1 if r is None else r for r in found], np.int32)
        known = np.array([r is not None for r in found], bool)
        return pa.array(values[index], pa.int32(), mask=~known[index])


def _samples_table(good, codes: _HostCodes):
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
        pids = pa.array(s["pid"], pa.int64())
        host = codes.of(part, count)
        pieces.append(pa.Table.from_arrays([
            codes.ranks(host, pids.to_numpy()), codes.names(host),
            pids, pa.array(s["tid"], pa.int64()),
            pa.array(s["time_ns"], pa.int64()), pa.array(s["clock"], pa.string()),
            stacks, leaves, pa.array(s["cpu"], pa.int32())], schema=schema("samples")))
    if not pieces:
        return schema("samples").empty_table()
    return pa.concat_tables(pieces)


class _Nested:
    """The ranges of all parts, sorted by thread and start, laid in each other:
    the columns the reader's range helpers take, the names, each range's depth
    and the row of its parent (-1 for none)."""

    def __init__(self, table):
        import numpy as np
        import pyarrow.compute as pc

        from ._reader import nest_ranges

        self.columns = [table[key].to_numpy() for key in ("host", "pid", "tid", "start_ns")]
        self.columns.append(table["end_ns"].fill_null(0).to_numpy())
        self.columns.append(np.asarray(pc.is_valid(table["end_ns"]), np.uint8))
        self.names = table["name"]
        self.depth, self.parent = nest_ranges(*self.columns)


def _ranges(good, codes: _HostCodes):
    """The ranges table, and the ranges nested, for finding the range a call was
    made in."""
    import pyarrow as pa
    import pyarrow.compute as pc

    pieces = []
    for part in good:
        table = part["ranges"]
        pieces.append(table.add_column(0, "host", pa.array(codes.of(part, table.num_rows))))
    # Halves across the files of one process, in capture order.
    halves: List[list] = []  # [host, pid, tid, start, end, name, end_tid]
    open_begins: Dict[tuple, list] = {}
    for part in good:
        host = codes.code[part["host"]]
        for pid, token, tid, ts in part["early_ends"]:
            begun = open_begins.pop((host, pid, token), None)
            if begun is not None:
                begun[4], begun[6] = ts, tid
        for pid, token, tid, start, msg in part["open_begins"]:
            row = [host, pid, tid, start, None, msg, tid]
            halves.append(row)
            open_begins[(host, pid, token)] = row
    part_schema = pa.schema([("host", pa.int64())] + list(_part_ranges_schema()))
    order = ("host", "pid", "tid", "start_ns", "end_ns", "name", "end_tid")  # a half's fields
    pieces.append(pa.table({key: [row[order.index(key)] for row in halves]
                            for key in part_schema.names}, schema=part_schema))
    rows = pa.concat_tables(pieces)
    # Of ranges that start together, the longer holds the other; one never ended
    # counts as none long.
    length = pc.subtract(pc.coalesce(rows["end_ns"], rows["start_ns"]), rows["start_ns"])
    rows = rows.append_column("_length", pc.negate(length))
    rows = rows.sort_by([(key, "ascending") for key in (
        "host", "pid", "tid", "start_ns", "_length", "name")]).drop_columns(["_length"])
    nested = _Nested(rows)
    host = rows["host"].to_numpy()
    parents = rows["name"].take(pa.array(nested.parent, pa.int64(), mask=nested.parent < 0))
    table = pa.Table.from_arrays([
        rows["name"], codes.ranks(host, rows["pid"].to_numpy()), codes.names(host),
        rows["pid"], rows["tid"], rows["start_ns"], rows["end_ns"],
        pc.subtract(rows["end_ns"], rows["start_ns"]), pa.array(nested.depth, pa.int32()),
        parents, rows["end_tid"]], schema=schema("ranges"))
    return table, nested


def _launch_ranges(good, codes: _HostCodes, nested: _Nested):
    """The range each API call was made in, on its own thread, by (host, pid,
    correlation): the found keys as three arrays, sorted, and the names."""
    import numpy as np
    import pyarrow as pa

    from ._reader import innermost_ranges

    host, pid, tid, start, corr = [], [], [], [], []
    for part in good:
        calls = part["api_calls"]
        host.append(codes.of(part, len(calls["pid"])))
        pid.append(np.asarray(calls["pid"], np.int64))
        tid.append(np.asarray(calls["tid"], np.int64))
        start.append(np.asarray(calls["start_ns"], np.int64))
        corr.append(np.asarray(calls["correlation"], np.int64))
    host, pid, tid, start, corr = (np.concatenate(c) if c else np.zeros(0, np.int64)
                                   for c in (host, pid, tid, start, corr))
    found = innermost_ranges(*nested.columns, nested.depth, host, pid, tid, start)
    made_in = found >= 0
    if not made_in.any():
        return np.zeros((0, 3), np.int64), pa.array([], pa.string())
    keys = np.stack([host[made_in], pid[made_in], corr[made_in]], axis=1)
    rows = found[made_in]
    # A correlation made again in a later call names the later call's range.
    keys, rows = keys[::-1], rows[::-1]
    keys, first = np.unique(keys, axis=0, return_index=True)
    return keys, nested.names.take(pa.array(rows[first], pa.int64()))


def _launch_names(launch, host, pid, corr):
    """The launching range of each row of (host, pid, correlation) columns."""
    import numpy as np
    import pyarrow as pa

    keys, names = launch
    count = len(host)
    if not len(keys) or not count:
        return pa.nulls(count, pa.string())
    queries = np.stack([host, pid, corr], axis=1)
    both, index = np.unique(np.concatenate([keys, queries]), axis=0, return_inverse=True)
    index = index.reshape(-1)
    at = np.full(len(both), -1, np.int64)
    at[index[:len(keys)]] = np.arange(len(keys))
    rows = at[index[len(keys):]]
    return names.take(pa.array(rows, pa.int64(), mask=rows < 0))


def _gpu_table(table: str, good, codes: _HostCodes, launch):
    """One GPU table from the parts' columns, with host, rank, duration and
    launching range added."""
    import numpy as np
    import pyarrow as pa
    import pyarrow.compute as pc

    pieces = []
    table_schema = schema(table)
    for part in good:
        rows = part[table]
        count = len(rows["pid"])
        if not count:
            continue
        host = codes.of(part, count)
        pid = np.asarray(rows["pid"], np.int64)
        columns = {}
        for field in table_schema:
            if field.name == "host":
                columns["host"] = codes.names(host)
            elif field.name == "rank":
                columns["rank"] = codes.ranks(host, pid)
            elif field.name == "duration_ns":
                columns["duration_ns"] = None
            elif field.name == "launch_range":
                columns["launch_range"] = _launch_names(
                    launch, host, pid, np.asarray(rows["correlation"], np.int64))
            else:
                columns[field.name] = pa.array(rows[field.name], field.type)
        columns["duration_ns"] = pc.subtract(columns["end_ns"], columns["start_ns"])
        pieces.append(pa.Table.from_arrays([columns[f.name] for f in table_schema],
                                           schema=table_schema))
    if not pieces:
        return table_schema.empty_table()
    return pa.concat_tables(pieces)


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
