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
    """One capture file's part of the tables: plain lists and NumPy columns,
    cheap to send between processes, from one pass over the file. A file that
    can't be read at all comes back with "error" set."""
    from .views.capture import Progress, Reading, ViewError
    from .views.samples import build_symbolizer
    from .views.survey import Survey

    part: Dict[str, Any] = {"path": path, "error": None, "problems": [], "unfinished": "",
                            "damaged": False, "gaps": []}
    try:
        part["bytes"] = os.path.getsize(path)
    except OSError:
        part["bytes"] = 0
    samples = _SampleParts()
    try:
        reading = Reading([path], Progress("zorvek export", False))
        survey = Survey(reading, on_samples=samples.add)
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
    part["ranges"], part["open_begins"], part["early_ends"] = _part_ranges(survey.annotations)
    part["samples"] = samples.columns(survey, build_symbolizer, part)
    _gpu(survey, part)
    return part


def _part_ranges(annotations):
    """The file's whole ranges as a table (name, pid, tid, start_ns, end_ns,
    end_tid), the begins whose end the file lacks (pid, token, tid, start, name)
    and the ends whose begin it lacks (pid, token, tid, ts)."""
    import pyarrow as pa

    b, e = annotations.begins, annotations.ends
    whole, opened, lone = annotations.whole, annotations.open, annotations.lone
    ends = annotations.end_of_begin[whole]
    msg = pa.LargeStringArray.from_buffers(
        len(annotations.msg_offsets) - 1, pa.py_buffer(annotations.msg_offsets),
        pa.py_buffer(annotations.msg))
    try:
        msg.validate(full=True)
        names = msg.take(pa.array(whole, pa.int64())).cast(pa.string())
    except pa.ArrowInvalid:
        # Bytes that aren't UTF-8 show as U+FFFD, as the survey's names give them.
        names = pa.array(annotations.names(whole), pa.string())
    table = pa.Table.from_arrays([
        names, pa.array(b["pid"][whole].view("int64")), pa.array(b["tid"][whole].view("int64")),
        pa.array(b["ts"][whole]), pa.array(e["ts"][ends]), pa.array(e["tid"][ends].view("int64"))],
        schema=_part_ranges_schema())
    open_begins = list(zip(*(b[key][opened].tolist() for key in ("pid", "token", "tid", "ts")),
                           annotations.names(opened)))
    early_ends = list(zip(*(e[key][lone].tolist() for key in ("pid", "token", "tid", "ts"))))
    return table, open_begins, early_ends


# A part's whole ranges: its columns, in order.
_PART_RANGES = ("name", "pid", "tid", "start_ns", "end_ns", "end_tid")


def _part_ranges_schema():
    import pyarrow as pa

    return pa.schema([("name", pa.string())] + [(key, pa.int64()) for key in _PART_RANGES[1:]])


class _SampleParts:
    """A file's samples as the survey reads them, as columns: each kind's rows of
    the wanted processes, with the id of their stack (`SampleStacks`)."""

    def __init__(self) -> None:
        from .views.samples import SampleStacks

        self.stacks = SampleStacks()
        self.parts: Dict[str, Dict[str, list]] = {
            kind: {key: [] for key in ("pid", "tid", "ts", "cpu", "clock", "id")}
            for kind in ("SAMPLE", "STACK")}

    def add(self, _index: int, kind: str, table: Dict[str, Any], wanted) -> None:
        import numpy as np

        rows = np.nonzero(wanted)[0]
        parts = self.parts[kind]
        parts["pid"].append(table["pid"][rows])
        parts["tid"].append(table["tid"][rows])
        parts["ts"].append(table["timestamp"][rows])
        if kind == "SAMPLE":
            parts["cpu"].append(table["device"][rows])
            parts["id"].append(self.stacks.chain_ids(table, rows))
        else:
            labels = np.array([label or "cpu" for label in table["clock_labels"]], object)
            parts["clock"].append(labels[table["clock"][rows]])
            parts["id"].append(self.stacks.stack_ids(table, rows))

    def columns(self, survey, build_symbolizer, part) -> Dict[str, Any]:
        """The samples' columns, each stack named once: `stack_id` indexes `stacks`
        and `leaves`, "root;...;leaf" as `zorvek flame --format collapsed` writes
        them; `cpu` is -1 for the stack sampler's samples."""
        import numpy as np

        from .stacks import StackNamer
        from .views.samples import name_stacks

        def joined(kind, key, dtype):
            pieces = self.parts[kind][key]
            return np.concatenate(pieces).astype(dtype) if pieces else np.zeros(0, dtype)

        perf_count = sum(len(p) for p in self.parts["SAMPLE"]["pid"])
        stack_count = sum(len(p) for p in self.parts["STACK"]["pid"])
        domain = survey.file_domain[0]
        # The stack sampler's clock is the system clock already.
        to_real = domain.perf_to_real
        perf_times = np.array([to_real(t) for t in joined("SAMPLE", "ts", np.int64).tolist()],
                              np.int64)
        chains, merged = self.stacks.chain_keys, self.stacks.stack_keys
        columns: Dict[str, Any] = {
            "pid": np.concatenate([joined(k, "pid", np.int64) for k in ("SAMPLE", "STACK")]),
            "tid": np.concatenate([joined(k, "tid", np.int64) for k in ("SAMPLE", "STACK")]),
            "time_ns": np.concatenate([perf_times, joined("STACK", "ts", np.int64)]),
            "cpu": np.concatenate([joined("SAMPLE", "cpu", np.int64),
                                   np.full(stack_count, -1, np.int64)]),
            "clock": np.concatenate([np.full(perf_count, "cpu", object),
                                     joined("STACK", "clock", object)]),
            # Merged stacks follow the chains.
            "stack_id": np.concatenate([joined("SAMPLE", "id", np.int64),
                                        len(chains) + joined("STACK", "id", np.int64)]),
            "stacks": [], "leaves": []}
        if not perf_count and not stack_count:
            return columns
        symbols = build_symbolizer(survey)
        try:
            def root(pid: int) -> str:
                own = survey.own_names.process(pid)
                if own:
                    return own.replace(";", ",")
                exe = symbols.executable(pid)
                return os.path.basename(exe) if exe else "pid %d" % pid

            named: List[List[str]] = []
            for (pid, _frames, _padded), frames in zip(chains, name_stacks(symbols, chains)):
                named.append([root(pid)] + frames[::-1])
            namer = StackNamer(symbols, survey.python_codes)
            for key, frames in zip(merged, namer.name_many(merged)):
                named.append([root(key[0])] + list(frames))
            part["gaps"] = list(symbols.gaps)
        finally:
            symbols.close()
        columns["stacks"] = [";".join(frames) for frames in named]
        columns["leaves"] = [frames[-1] for frames in named]
        return columns


def _gpu(survey, part: Dict[str, Any]) -> None:
    """The kernels, copies, memsets and API calls of the file from the survey's
    columns; each kernel and function named once."""
    import numpy as np
    import pyarrow as pa
    import pyarrow.compute as pc

    from .symbols import demangle
    from .views.columns import distinct
    from .views.samples import driver_call_name
    from .views.survey import COPY_KINDS

    def table_name(pid: int, table: str, ident: int) -> Optional[str]:
        found = survey.names.get((pid, table), {}).get(ident)
        if found is None:
            for (_other, t), known in sorted(survey.names.items()):
                if t == table and ident in known:
                    return known[ident]
        return found

    def column(table, field, rows, default=None):
        if field in table:
            return table[field][rows]
        return np.zeros(len(rows), np.uint64) if default is None else default

    def texts_of(keys, name):
        """name(*key) per distinct row of key columns, as a string array."""
        first, inverse = distinct(keys)
        values = [name(*(int(k[row]) for k in keys)) for row in first.tolist()]
        return pa.array(values, pa.string()).take(pa.array(inverse))

    # The raw names, for demangling all at once.
    raw: Dict[Tuple[str, int, int], Optional[str]] = {}
    for _index, kind, table, rows in survey.gpu_tables:
        if kind in ("KERNEL", "CONCURRENT_KERNEL", "CUDA_API"):
            which, field = ("function", "func_name_id") if kind == "CUDA_API" else ("kernel", "name_id")
            keys = [table["pid"][rows], column(table, field, rows)]
            first, _ = distinct(keys)
            for row in first.tolist():
                key = (which, int(keys[0][row]), int(keys[1][row]))
                if key not in raw:
                    raw[key] = table_name(key[1], which, key[2])
    readable = demangle([n for n in raw.values() if n])

    def kernel_name(pid, ident):
        found = raw.get(("kernel", pid, ident))
        return readable.get(found, found) if found else "kernel %d" % ident

    def mangled(pid, ident):
        found = raw.get(("kernel", pid, ident))
        return found if found and readable.get(found, found) != found else None

    def function(pid, ident):
        found = raw.get(("function", pid, ident))
        return readable.get(found, found) if found and found != "Unknown" else None

    def call_name(cb_domain, cbid):
        return driver_call_name(cbid) if cb_domain == 1 else "CUDA call %d.%d" % (cb_domain, cbid)

    def dims(table, field, rows, whole):
        if field not in table:
            return pa.nulls(len(rows), pa.string())
        triples = table[field][rows]
        found = texts_of([triples[:, 0], triples[:, 1], triples[:, 2]],
                         lambda *xyz: "x".join(str(v) for v in xyz))
        return found if whole.all() else pc.if_else(pa.array(whole), found,
                                                     pa.scalar(None, pa.string()))

    def numbers(values, kind, mask=None):
        values = np.asarray(values).astype(np.int64, copy=False)
        return pa.array(values, kind, mask=mask)

    out = {name: {key: [] for key, _ in COLUMNS[name]
                  if key not in ("rank", "host", "duration_ns", "launch_range")}
           for name in ("kernels", "copies", "memsets", "api_calls")}
    for index, kind, table, rows in survey.gpu_tables:
        if kind == "SYNCRONIZATION":
            continue
        offset = survey.file_domain[index].gpu_to_real(0)
        whole = table["decoded"][rows]
        pid = table["pid"][rows]
        start = table["timestamp"][rows].astype(np.int64)
        end = np.maximum(column(table, "end", rows).astype(np.int64), start) if "end" in table \
            else start
        row = {"pid": numbers(pid, pa.int64()), "correlation": numbers(
            column(table, "correlation", rows), pa.int64()),
               "start_ns": numbers(start + offset, pa.int64()),
               "end_ns": numbers(end + offset, pa.int64())}
        if kind != "CUDA_API":
            row["stream"] = numbers(column(table, "stream", rows), pa.int64())
        if kind in ("KERNEL", "CONCURRENT_KERNEL"):
            name_id = column(table, "name_id", rows)
            device = np.where(whole, column(table, "device_id", rows), table["tid"][rows])
            row.update(name=texts_of([pid, name_id], kernel_name),
                       mangled=texts_of([pid, name_id], mangled),
                       grid=dims(table, "grid", rows, whole), block=dims(table, "block", rows, whole),
                       device=numbers(device, pa.int32()))
            target = out["kernels"]
        elif kind in ("MEMCOPY", "MEMCOPY_P2P"):
            copy_kind = column(table, "copy_kind", rows)
            # Only a peer-to-peer copy names its devices.
            no_devices = np.ones(len(rows), bool) if kind == "MEMCOPY" else ~whole
            row.update(kind=texts_of([copy_kind], lambda k: COPY_KINDS.get(k, "copy")),
                       bytes=numbers(column(table, "bytes", rows), pa.int64(), ~whole),
                       src_device=numbers(column(table, "src_device", rows), pa.int32(), no_devices),
                       dst_device=numbers(column(table, "dst_device", rows), pa.int32(), no_devices),
                       device=numbers(table["tid"][rows], pa.int32()))
            target = out["copies"]
        elif kind == "MEMSET":
            row.update(bytes=numbers(column(table, "bytes", rows), pa.int64(), ~whole),
                       value=numbers(column(table, "value", rows), pa.int64(), ~whole),
                       device=numbers(table["tid"][rows], pa.int32()))
            target = out["memsets"]
        else:
            cbid = column(table, "cbid", rows)
            row.update(name=texts_of([column(table, "domain", rows), cbid], call_name),
                       function=texts_of([pid, column(table, "func_name_id", rows)], function),
                       tid=numbers(table["tid"][rows], pa.int64()), cbid=numbers(cbid, pa.int32()))
            target = out["api_calls"]
        for key, pieces in target.items():
            pieces.append(row[key])
    for name, columns in out.items():
        types = dict(COLUMNS[name])
        part[name] = {key: pa.concat_arrays(pieces) if pieces else
                      pa.array([], getattr(pa, types[key])())
                      for key, pieces in columns.items()}


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
        cpu = s["cpu"]
        pieces.append(pa.Table.from_arrays([
            codes.ranks(host, pids.to_numpy()), codes.names(host),
            pids, pa.array(s["tid"], pa.int64()),
            pa.array(s["time_ns"], pa.int64()), pa.array(s["clock"], pa.string()),
            stacks, leaves, pa.array(cpu, pa.int32(), mask=cpu < 0)], schema=schema("samples")))
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
                columns[field.name] = rows[field.name]
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
