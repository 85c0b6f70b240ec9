"""zorvek summary: what a capture holds, in aligned tables or as JSON.

Per process (files of one process, a rotation say, are merged): annotation ranges
by name with their count, total, mean, p50, p99 and share of the wall time; the
CPU functions most often sampled (with stack samples: by self and total time over
the merged Python and native stacks, and the Python functions by total time); GPU
kernels by time, copies by kind, memsets and synchronizations; samples the kernel
dropped; and the records by kind.

The numbers are added up in C++ (`zorvek._reader.summarize`) while the files
stream through, so memory stays flat however large the capture. Instruction
pointers are named here, through `zorvek.symbols` and the capture's mappings; the
stack samples are read again here and merged through `zorvek.stacks`, their
distinct stacks counted once each.
"""

from __future__ import annotations

import argparse
import glob
import json
import os
import socket
import sys
import time
from typing import Any, Dict, Iterable, List, Optional, Sequence, Set, Tuple

from . import _names, _reader
from ._clocksync import CLOCK_SYNC
from ._stallmark import PRODUCER_STALL, stall_us
from .views.capture import Runs

__all__ = ["add_arguments", "run", "short_summary", "main"]

PROG = "zorvek summary"
EXAMPLES = """\
examples:
  zorvek summary zorvek_out/                 every .zvkraw in the folder
  zorvek summary run_1234_0.zvkraw run_1234_1.zvkraw
  zorvek summary --top 40 zorvek_out/        longer tables
  zorvek summary --json zorvek_out/ > summary.json

A damaged or cut file is summarized from its whole buckets.
"""

# Addresses beyond this many distinct ones per process are counted but not named:
# the symbolizer's time grows with them, the top of the table doesn't change.
_MAX_SYMBOLIZED_IPS = 20000
# Longest name a table row shows; JSON keeps names whole.
_MAX_NAME = 72


# ---- Command line -------------------------------------------------------------

def _summarize(paths, progress=None, marks: Optional[_names.Names] = None) -> dict:
    """The C++ summary, with the profiler's own marks taken out of the ranges: the
    clock-sync ties are hidden, and the producers' stall time is read from its
    marks (into `marks` where given, for names learnt later)."""
    result = _reader.summarize(paths, progress=progress)
    marks = _names.Names() if marks is None else marks
    pids = {process["pid"] for process in result["processes"]}
    for process in result["processes"]:
        names = [r["name"] for r in process["ranges"]]
        stalled = stall_us(names)
        if stalled is not None:
            process["producer_stall_ns"] = stalled * 1000
            process["producer_stall"] = _duration(stalled * 1000)
        process["ranges"] = [r for r in process["ranges"]
                             if not r["name"].startswith((CLOCK_SYNC, PRODUCER_STALL))
                             and not marks.learn(process["pid"], r["name"])]
        _add_names(process, marks, pids)
        process["cpu"]["stack_samples"] = process["records_by_kind"].get("CPU STACK", 0)
    return result


def _add_names(process: Dict[str, Any], marks: _names.Names, pids: Set[int]) -> None:
    """The names the process wrote for itself and its threads; its parent as it
    named it, where the kernel's fork records didn't (a worker of a forkserver)."""
    pid = process["pid"]
    process["name"] = marks.process(pid)
    parent = marks.parent(pid)
    if process["parent"] is None and parent in pids:
        process["parent"] = parent
    for thread in process["cpu"]["by_thread"]:
        thread["name"] = marks.thread(pid, thread["tid"])


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("files", nargs="*", metavar="FILE",
                        help="capture files (.zvkraw), or folders: their *.zvkraw")
    parser.add_argument("--json", action="store_true",
                        help="one JSON document for machines instead of tables")
    parser.add_argument("--top", type=int, default=15, metavar="N",
                        help="rows per table (default 15; 0 for all)")
    parser.add_argument("--no-symbols", action="store_true",
                        help="show CPU instruction pointers as addresses, unnamed")
    progress = parser.add_mutually_exclusive_group()
    progress.add_argument("--progress", dest="progress", action="store_true", default=None,
                          help="progress on stderr even when it isn't a terminal")
    progress.add_argument("--no-progress", dest="progress", action="store_false",
                          help="no progress, not even on a terminal")
    if not parser.epilog:
        parser.epilog = EXAMPLES + "\n" + _reader.EXIT_STATUS_HELP + "130 when interrupted.\n"
        parser.formatter_class = argparse.RawDescriptionHelpFormatter
    if not parser.description:
        parser.description = ("Summarizes capture files: annotation ranges, top CPU functions, "
                              "GPU kernels and copies, lost samples, per process.")


def _error(message: str) -> None:
    print(f"{PROG}: {message}", file=sys.stderr)


def _os_error(path: str, error: OSError) -> str:
    return f"{path}: {error.strerror or error}"


def _expand(arguments: Sequence[str]) -> Tuple[List[str], List[str]]:
    """The files the arguments name, a folder standing for its *.zvkraw; and one
    message per argument that names none."""
    files, errors = [], []
    for argument in arguments:
        if os.path.isdir(argument):
            found = sorted(glob.glob(os.path.join(glob.escape(argument), "*.zvkraw")))
            if not found:
                errors.append(f"{argument}: no capture files (*.zvkraw) in this folder")
            files.extend(found)
        elif not os.path.lexists(argument):
            errors.append(f"{argument}: no such file or folder")
        else:
            files.append(argument)
    return files, errors


def _open_all(paths: Iterable[str]) -> Tuple[List[_reader.CaptureFile], List[str]]:
    captures, errors = [], []
    for path in paths:
        try:
            captures.append(_reader.CaptureFile(path))
        except OSError as error:
            errors.append(_os_error(path, error))
        except ValueError as error:
            errors.append(str(error))
    return captures, errors


class _Progress:
    """Progress on stderr once a run is older than a second: one line rewritten in
    place on a terminal, a line per update elsewhere. Never on stdout."""

    def __init__(self, enabled: bool, in_place: bool):
        self.enabled, self.in_place = enabled, in_place
        self.start = time.monotonic()
        self.shown = False
        self.last = ""

    def __call__(self, done: int, total: int) -> None:
        if not self.enabled or time.monotonic() - self.start < 1.0:
            return
        percent = 100 * done // total if total else 100
        line = f"{PROG}: {percent}% ({_bytes(done)} of {_bytes(total)})"
        if line == self.last:
            return
        self.last, self.shown = line, True
        if self.in_place:
            sys.stderr.write("\r\033[K" + line)
        else:
            sys.stderr.write(line + "\n")
        sys.stderr.flush()

    def finish(self) -> None:
        """Takes the line away: what follows on the terminal starts clean."""
        if self.shown and self.in_place:
            sys.stderr.write("\r\033[K")
            sys.stderr.flush()
        self.shown = False


def run(args: argparse.Namespace) -> int:
    arguments = list(getattr(args, "files", None) or [])
    if not arguments:
        _error("no capture file given (a .zvkraw file or a folder of them); see --help")
        return _reader.EXIT_USAGE
    top = getattr(args, "top", 15)
    if top is None or top < 0:
        _error("--top takes a count, 0 for all")
        return _reader.EXIT_USAGE
    paths, errors = _expand(arguments)
    captures, open_errors = _open_all(dict.fromkeys(paths))  # each file once
    errors += open_errors
    for message in errors:
        _error(message)
    if not captures:
        return _reader.EXIT_NOT_READ

    choice = getattr(args, "progress", None)
    progress = _Progress(enabled=choice if choice is not None else sys.stderr.isatty(),
                         in_place=sys.stderr.isatty())
    marks = _names.Names()
    try:
        result = _summarize([c.path for c in captures], progress, marks)
    except KeyboardInterrupt:
        progress.finish()
        _error("interrupted")
        return 130
    except (OSError, ValueError) as error:  # a file went away since it was opened
        progress.finish()
        _error(str(error))
        return _reader.EXIT_NOT_READ
    progress.finish()

    symbolized = not getattr(args, "no_symbols", False)
    try:
        notes = _add_functions(result, symbolized, top, marks)
    except KeyboardInterrupt:
        _error("interrupted")
        return 130
    runs = Runs()
    for capture in captures:
        runs.file(capture.header, capture.path)
    runs.processes_by_pid((p["pid"], p["parent"]) for p in result["processes"])
    runs.say(PROG)
    _report_reading(result["files"])
    for note in notes:
        _error(note)

    if getattr(args, "json", False):
        document = _json_document(result, notes, top)
        json.dump(document, sys.stdout, indent=1)
        sys.stdout.write("\n")
    else:
        sys.stdout.write(_text(result, top))
    sys.stdout.flush()
    if errors:
        return _reader.EXIT_NOT_READ
    if any(file["damaged"] for file in result["files"]):
        return _reader.EXIT_DAMAGED
    return _reader.EXIT_READ_WHOLE


def _report_reading(files: List[Dict[str, Any]]) -> None:
    """One line on stderr per thing a file's reading met: damage skipped, a torn
    or cut end, a header that was never finished."""
    for file in files:
        for index, problem in enumerate(file["problems"]):
            if file["torn"] and index == len(file["problems"]) - 1 and " is torn" in problem:
                problem += f"; summarized the {file['buckets']} whole buckets before it"
            _error(f"{file['path']}: {problem}")
        if file["unfinished"]:
            _error(f"{file['path']}: {file['unfinished']}")


# ---- Names for the sampled addresses --------------------------------------------

def _generations(processes: List[Dict[str, Any]]) -> List[Dict[str, Any]]:
    """Parents before the children forked from them, so that a child can start
    with its parent's mappings."""
    by_pid = {p["pid"]: p for p in processes}

    def depth(process):
        seen, d = set(), 0
        while process["parent"] in by_pid and process["pid"] not in seen:
            seen.add(process["pid"])
            process, d = by_pid[process["parent"]], d + 1
        return d

    return sorted(processes, key=depth)


def _symbolizer(result: Dict[str, Any]):
    """A Symbolizer fed with every process's mappings, or None when the module
    isn't there or can't start."""
    try:
        from . import symbols
    except Exception:  # not built yet, or broken: the addresses stay hex
        return None
    hosts = {f.get("header", {}).get("hostname") for f in result["files"]}
    try:
        local = hosts <= {socket.gethostname()}
        try:
            sym = symbols.Symbolizer(local=local)
        except TypeError:
            sym = symbols.Symbolizer()
        for process in _generations(result["processes"]):
            if process["parent"] is not None and hasattr(sym, "inherit"):
                sym.inherit(process["pid"], process["parent"])
            for m in process["cpu"]["mappings"]:
                sym.add_mapping(process["pid"], m["addr"], m["len"], m["pgoff"], m["filename"])
        return sym
    except Exception:
        return None


def _add_functions(result: Dict[str, Any], symbolized: bool, top: int,
                   marks: Optional[_names.Names] = None) -> List[str]:
    """Adds "functions" to each process's CPU part: samples by function name, most
    first, from its samples by instruction pointer; for a process with stack
    samples, self and total time by function over their merged stacks instead
    (and "python_functions", its Python functions by total time). Returns notes
    on what couldn't be named."""
    notes: List[str] = []
    sampled = any(p["cpu"]["samples"] or p["cpu"].get("stack_samples")
                  for p in result["processes"])
    sym = _symbolizer(result) if symbolized and sampled else None
    if symbolized and sym is None and sampled:
        notes.append("CPU functions: no symbolizer available, instruction pointers shown as "
                     "addresses")
    for process in result["processes"]:
        cpu = process["cpu"]
        ips = cpu["ips"]
        named = ips[:_MAX_SYMBOLIZED_IPS]
        names: Dict[int, str] = {}
        if sym is not None and named:
            try:
                pid = process["pid"]
                if hasattr(sym, "lookup_many"):
                    found = sym.lookup_many([(pid, ip) for ip, _ in named])
                    names = {ip: found[(pid, ip)] for ip, _ in named}
                else:
                    names = {ip: sym.lookup(pid, ip) for ip, _ in named}
            except Exception as error:  # a symbolizer failure costs names, not the summary
                notes.append(f"CPU functions of process {process['pid']}: symbolizer failed "
                             f"({type(error).__name__}: {error}); shown as addresses")
                names = {}
        counts: Dict[str, int] = {}
        for ip, count in named:
            name = names.get(ip) or "0x%x" % ip
            counts[name] = counts.get(name, 0) + count
        rest = sum(count for _, count in ips[_MAX_SYMBOLIZED_IPS:])
        if rest:
            counts[f"({len(ips) - _MAX_SYMBOLIZED_IPS} more addresses, not named)"] = rest
        total = cpu["samples"] or 1
        cpu["functions"] = [{"function": name, "samples": count, "share": count / total}
                            for name, count in sorted(counts.items(),
                                                      key=lambda item: (-item[1], item[0]))]
    stacked = [p for p in result["processes"] if p["cpu"].get("stack_samples")]
    if stacked:
        from .symbols import Symbolizer
        # Without symbols the native frames stay addresses; the Python ones are
        # named all the same, from the capture itself.
        _add_stack_functions(stacked, sym if sym is not None else Symbolizer(local=False),
                             marks or _names.Names(), notes)
    launched = [p for p in result["processes"] if p["records_by_kind"].get("CPU APISTACK")]
    if launched:
        _add_launch_lines(launched, notes)
    if sym is not None:
        gaps = list(getattr(sym, "gaps", []) or [])
        for gap in gaps[:5]:
            notes.append(f"symbols: {gap}")
        if len(gaps) > 5:
            notes.append(f"symbols: {len(gaps) - 5} more gaps")
        try:
            sym.close()
        except Exception:
            pass
    return notes


def _add_stack_functions(stacked: List[Dict[str, Any]], sym, marks: _names.Names,
                         notes: List[str]) -> None:
    """Self and total time by function over the merged stacks of each process's
    stack samples, read again from its files (the C++ summary counts them only);
    and its samples by thread."""
    import numpy as np

    from .stacks import PythonCodes, StackNamer
    from .views.columns import records
    from .views.samples import SampleStacks

    pids = {p["pid"]: p for p in stacked}
    wanted = np.fromiter(pids, np.uint64, len(pids))
    codes = PythonCodes()
    keys = SampleStacks()
    samples = np.zeros(0, np.int64)  # by stack id: samples, and the time they stand for
    weights = np.zeros(0, np.int64)
    by_thread: Dict[int, Dict[int, int]] = {pid: {} for pid in pids}
    for path in dict.fromkeys(path for p in stacked for path in p["files"]):
        try:
            for group in _reader.CaptureFile(path).columns(kinds=["STACK", "PYCODE"]):
                table = group.get("PYCODE")
                if table is not None:
                    for rec in records(table, np.nonzero(np.isin(table["pid"], wanted))[0]):
                        codes.add(rec["pid"], rec)
                table = group.get("STACK")
                if table is None:
                    continue
                rows = np.nonzero(np.isin(table["pid"], wanted))[0]
                ids = keys.stack_ids(table, rows)
                grown = len(keys.stack_keys) - len(samples)
                if grown:
                    samples = np.concatenate([samples, np.zeros(grown, np.int64)])
                    weights = np.concatenate([weights, np.zeros(grown, np.int64)])
                samples += np.bincount(ids, minlength=len(samples))
                np.add.at(weights, ids, table["weight_ns"][rows].astype(np.int64))
                threads = np.stack([table["pid"][rows], table["tid"][rows]], axis=1)
                if len(threads):
                    found, counts = np.unique(threads, axis=0, return_counts=True)
                    for (pid, tid), n in zip(found.tolist(), counts.tolist()):
                        by_thread[pid][tid] = by_thread[pid].get(tid, 0) + n
        except ValueError as error:  # no longer a capture since the summary read it
            notes.append(f"CPU stack samples not read: {error}")
            return
        except OSError as error:  # gone since the summary read it
            notes.append(f"CPU stack samples of {_os_error(path, error)}")
    by_stack: Dict[int, Dict[tuple, List[int]]] = {pid: {} for pid in pids}
    for key, n, ns in zip(keys.stack_keys, samples.tolist(), weights.tolist()):
        by_stack[key[0]][key] = [n, ns]
    for pid, process in pids.items():
        if process["parent"] is not None:
            codes.inherit(pid, process["parent"])
    namer = StackNamer(sym, codes)
    for pid, process in pids.items():
        cpu = process["cpu"]
        stacks = by_stack[pid]
        keys = list(stacks)
        self_time: Dict[str, List[int]] = {}
        total_time: Dict[str, List[int]] = {}
        python = set()
        for key, stack in zip(keys, namer.name_many(keys)):
            samples, ns = stacks[key]
            functions = [namer.function(frame) for frame in stack] or ["[no frames]"]
            python.update(f for frame, f in zip(stack, functions) if codes.function(frame))
            for table, names in ((self_time, functions[-1:]), (total_time, set(functions))):
                for name in names:
                    entry = table.setdefault(name, [0, 0])
                    entry[0] += samples
                    entry[1] += ns
        all_samples = sum(n for n, _ in stacks.values()) or 1
        all_ns = sum(ns for _, ns in stacks.values())

        def share(entry: List[int]) -> float:
            # Time where the samples say how much each stands for, else samples.
            return entry[1] / all_ns if all_ns else entry[0] / all_samples

        rows = []
        for name, (total_samples, total_ns) in total_time.items():
            own = self_time.get(name, [0, 0])
            rows.append({"function": name, "samples": own[0], "share": share(own),
                         "self_ns": own[1], "total_samples": total_samples, "total_ns": total_ns,
                         "total_share": share([total_samples, total_ns]),
                         "python": name in python})
        cpu["functions"] = sorted(rows, key=lambda r: (-r["share"], -r["total_share"],
                                                       r["function"]))
        cpu["python_functions"] = sorted((r for r in rows if r["python"]),
                                         key=lambda r: (-r["total_share"], r["function"]))
        cpu["stack_time_ns"] = all_ns
        cpu["by_thread"] = [{"tid": tid, "samples": n, "name": marks.thread(pid, tid)}
                            for tid, n in sorted(by_thread[pid].items(),
                                                 key=lambda item: (-item[1], item[0]))]


# GPU work that a driver API call launched, and the field its time is in.
_LAUNCHED_KINDS = {"KERNEL": "kernel", "CONCURRENT_KERNEL": "kernel", "MEMCOPY": "copy",
                   "MEMCOPY_P2P": "copy", "MEMSET": "memset"}


def _add_launch_lines(launched: List[Dict[str, Any]], notes: List[str]) -> None:
    """GPU time by the Python line that launched it: each driver API call's
    Python frames (APISTACK) name the line, and the kernels, copies and memsets
    with the call's correlation id add their time to it."""
    import numpy as np

    from .stacks import PythonCodes
    from .views.columns import records

    pids = {p["pid"]: p for p in launched}
    wanted = np.fromiter(pids, np.uint64, len(pids))
    codes = PythonCodes()
    lines: Dict[Tuple[int, int], str] = {}
    work: List[Tuple[int, int, str, int]] = []  # (pid, correlation, kind, ns)
    for path in dict.fromkeys(path for p in launched for path in p["files"]):
        try:
            kinds = ["APISTACK", "PYCODE", *_LAUNCHED_KINDS]
            for group in _reader.CaptureFile(path).columns(kinds=kinds):
                for event, table in group.items():
                    rows = np.nonzero(np.isin(table["pid"], wanted))[0]
                    if event == "PYCODE":
                        for rec in records(table, rows[table["decoded"][rows]]):
                            codes.add(rec["pid"], rec)
                    elif event == "APISTACK":
                        offsets = table["py_offsets"]
                        rows = rows[offsets[rows + 1] > offsets[rows]]
                        leaf = offsets[rows]
                        lines.update(zip(zip(table["pid"][rows].tolist(),
                                             table["correlation"][rows].tolist()),
                                         zip(table["py_code_id"][leaf].tolist(),
                                             table["py_instruction"][leaf].tolist())))
                    elif event in _LAUNCHED_KINDS and table["hw_labels"][int(table["hw"][0])] == "GPU":
                        start = table["timestamp"][rows].astype(np.int64)
                        end = table["end"][rows].astype(np.int64) if "end" in table else start
                        span = np.maximum(end - start, 0)
                        correlation = table["correlation"][rows] if "correlation" in table \
                            else np.zeros(len(rows), np.uint64)
                        kind = _LAUNCHED_KINDS[event]
                        work.extend(zip(table["pid"][rows].tolist(), correlation.tolist(),
                                        [kind] * len(rows), span.tolist()))
        except ValueError as error:
            notes.append(f"GPU launch lines not read: {error}")
            return
        except OSError as error:
            notes.append(f"GPU launch lines of {_os_error(path, error)}")
    for pid, process in pids.items():
        if process["parent"] is not None:
            codes.inherit(pid, process["parent"])
    totals: Dict[int, Dict[str, Dict[str, int]]] = {pid: {} for pid in pids}
    for pid, correlation, kind, span in work:
        leaf = lines.get((pid, correlation))
        line = codes.frame(pid, *leaf) if leaf is not None else "(no Python frames)"
        entry = totals[pid].setdefault(line, {"kernel": 0, "copy": 0, "memset": 0, "count": 0,
                                              "total_ns": 0})
        entry[kind] += span
        entry["count"] += 1
        entry["total_ns"] += span
    for pid, process in pids.items():
        if set(totals[pid]) <= {"(no Python frames)"}:
            continue  # no work of a call whose frames were read: nothing to tell
        process["gpu"]["launch_lines"] = [
            {"line": line, **entry}
            for line, entry in sorted(totals[pid].items(),
                                      key=lambda item: (-item[1]["total_ns"], item[0]))]


# ---- Text -------------------------------------------------------------------------

def _duration(ns: float) -> str:
    ns = float(ns)
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            value = ns / scale
            return f"{value:.3g} {unit}" if value < 100 else f"{value:.0f} {unit}"
    return f"{ns:.0f} ns"


def _bytes(count: float) -> str:
    for unit, scale in (("GB", 1e9), ("MB", 1e6), ("kB", 1e3)):
        if count >= scale:
            return f"{count / scale:.3g} {unit}"
    return f"{int(count)} B"


def _percent(share: float) -> str:
    return f"{100 * share:.1f}%"


def _count(value: int) -> str:
    return f"{value:,}"


def _cut(name: str) -> str:
    return name if len(name) <= _MAX_NAME else name[:_MAX_NAME - 3] + "..."


def _table(headings: Sequence[str], rows: Sequence[Sequence[str]], align: str = "",
           indent: str = "  ") -> str:
    """Columns as wide as their widest cell. `align` has an "l" or "r" per column;
    by default the first is left-aligned (a name) and the others right (numbers)."""
    align = align or "l" + "r" * (len(headings) - 1)
    widths = [max(len(str(row[i])) for row in [headings, *rows]) for i in range(len(headings))]
    lines = []
    for row in [headings, *rows]:
        cells = [str(cell).ljust(width) if side == "l" else str(cell).rjust(width)
                 for cell, width, side in zip(row, widths, align)]
        lines.append((indent + "  ".join(cells)).rstrip())
    return "\n".join(lines) + "\n"


def _limit(rows: List[Any], top: int) -> List[Any]:
    return rows if top == 0 else rows[:top]


def _more(rows: List[Any], top: int, what: str) -> str:
    hidden = 0 if top == 0 else len(rows) - top
    return f"  ... {hidden} more {what} (--top N shows more)\n" if hidden > 0 else ""


def _process_text(process: Dict[str, Any], top: int) -> str:
    out = []
    title = f"Process {process['pid']}"
    if process.get("name"):
        title += f" {process['name']}"
    if process["parent"] is not None:
        title += f" (forked from {process['parent']})"
    names = [os.path.basename(f) for f in process["files"]]
    if len(names) > 4:  # a long rotation: its ends say which files
        names = [names[0], names[1], f"... {len(names) - 3} more ...", names[-1]]
    out.append(f"== {title}: {_count(process['records'])} records in {', '.join(names)}\n")
    if process["first_ns"] is not None:
        out.append(f"Wall time {_duration(process['wall_ns'])} (first to last annotation)\n")

    # Annotation ranges.
    ranges = process["ranges"]
    if ranges:
        rows = [(_cut(r["name"]), _count(r["count"]), _duration(r["total_ns"]),
                 _duration(r["mean_ns"]), _duration(r["p50_ns"]), _duration(r["p99_ns"]),
                 _percent(r["share"])) for r in _limit(ranges, top)]
        out.append("\nAnnotation ranges, most time first (share: of the wall time; ranges on "
                   "several threads or nested can pass 100%)\n")
        out.append(_table(("name", "count", "total", "mean", "p50", "p99", "share"), rows))
        out.append(_more(ranges, top, "names"))
    unmatched = []
    if process["begins_without_end"]:
        unmatched.append(f"{_count(process['begins_without_end'])} begins without an end")
    if process["ends_without_begin"]:
        unmatched.append(f"{_count(process['ends_without_begin'])} ends without a begin")
    if unmatched:
        out.append("  (" + ", ".join(unmatched) + ")\n")

    # CPU samples.
    cpu = process["cpu"]
    if cpu.get("stack_samples") and "python_functions" in cpu:
        out.append(_stack_text(cpu, top))
    elif cpu["samples"]:
        threads = len(cpu["by_thread"])
        out.append(f"\nTop CPU functions: {_count(cpu['samples'])} samples on {threads} "
                   f"thread{'s' if threads != 1 else ''}\n")
        rows = [(_count(f["samples"]), _percent(f["share"]), _cut(f["function"]))
                for f in _limit(cpu["functions"], top)]
        out.append(_table(("samples", "share", "function"), rows, align="rrl"))
        out.append(_more(cpu["functions"], top, "functions"))
        out.append(_threads_text(cpu, cpu["samples"], top))
    if cpu["samples"] or cpu["lost_records"] or cpu["configurations"]:
        out.append(f"Records lost by the kernel: {_count(cpu['lost'])} samples "
                   f"({_count(cpu['lost_records'])} LOST records); throttled "
                   f"{_count(cpu['throttles'])} times\n")

    # GPU.
    gpu = process["gpu"]
    if gpu["kernels"]:
        busy = sum(k["total_ns"] for k in gpu["kernels"]) or 1
        rows = [(_cut(k["name"] if k["name"] is not None else f"(name id {k['name_id']})"),
                 _count(k["count"]), _duration(k["total_ns"]), _duration(k["mean_ns"]),
                 _percent(k["total_ns"] / busy)) for k in _limit(gpu["kernels"], top)]
        out.append("\nTop GPU kernels by time (share: of all kernel time)\n")
        out.append(_table(("kernel", "count", "total", "mean", "share"), rows))
        out.append(_more(gpu["kernels"], top, "kernels"))
    if gpu.get("launch_lines"):
        busy = sum(k["total_ns"] for k in gpu["launch_lines"]) or 1
        rows = [(_cut(k["line"]), _count(k["count"]), _duration(k["kernel"]),
                 _duration(k["copy"] + k["memset"]), _percent(k["total_ns"] / busy))
                for k in _limit(gpu["launch_lines"], top)]
        out.append("\nGPU time by the Python line that launched it (share: of all GPU work)\n")
        out.append(_table(("line", "launches", "kernels", "copies", "share"), rows))
        out.append(_more(gpu["launch_lines"], top, "lines"))
    if gpu["copies"]:
        rows = [(c["kind"], _count(c["count"]), _bytes(c["bytes"]), _duration(c["total_ns"]),
                 _bytes(c["bytes"] / (c["total_ns"] / 1e9)) + "/s" if c["total_ns"] else "-")
                for c in gpu["copies"]]
        out.append("\nGPU copies by kind\n")
        out.append(_table(("kind", "count", "bytes", "total", "rate"), rows))
    if gpu["memsets"]["count"]:
        m = gpu["memsets"]
        out.append(f"GPU memsets: {_count(m['count'])}, {_bytes(m['bytes'])}, "
                   f"{_duration(m['total_ns'])}\n")
    if gpu["syncs"]:
        rows = [(s["type"], _count(s["count"]), _duration(s["total_ns"])) for s in gpu["syncs"]]
        out.append("\nGPU synchronizations by type\n")
        out.append(_table(("type", "count", "total"), rows))
    if gpu["api_calls"]:
        rows = [(_cut(c["name"] if c["name"] is not None else f"(name id {c['func_name_id']})"),
                 _count(c["count"]), _duration(c["total_ns"]), _duration(c["mean_ns"]))
                for c in _limit(gpu["api_calls"], top)]
        out.append("\nCUDA API calls by function\n")
        out.append(_table(("function", "count", "total", "mean"), rows))
        out.append(_more(gpu["api_calls"], top, "functions"))

    out.append(f"\nProducer stall time: {process['producer_stall']}\n")
    kinds = ", ".join(f"{kind} {_count(n)}" for kind, n in sorted(process["records_by_kind"].items()))
    out.append(f"Records by kind: {kinds}\n")
    if process["undecoded"]:
        out.append(f"  ({_count(process['undecoded'])} records not decoded: payload too short "
                   f"or kind unknown)\n")
    return "".join(out)


def _threads_text(cpu: Dict[str, Any], samples: int, top: int) -> str:
    if len(cpu["by_thread"]) <= 1:
        return ""
    rows = [(str(t["tid"]), _count(t["samples"]), _percent(t["samples"] / samples),
             _cut(t.get("name") or "")) for t in _limit(cpu["by_thread"], top)]
    return ("CPU samples by thread\n" + _table(("tid", "samples", "share", "thread"), rows,
                                               align="lrrl")
            + _more(cpu["by_thread"], top, "threads"))


def _stack_text(cpu: Dict[str, Any], top: int) -> str:
    """The functions of the merged stacks: by self time (in the function itself),
    with their total time (with what they called), then the Python functions by
    total time."""
    samples = cpu["stack_samples"]
    threads = len(cpu["by_thread"])
    timed = bool(cpu.get("stack_time_ns"))

    def amount(count: int, ns: int) -> str:
        return _duration(ns) if timed else _count(count)

    out = [f"\nTop CPU functions: {_count(samples)} stack samples on {threads} "
           f"thread{'s' if threads != 1 else ''}"
           + (f", {_duration(cpu['stack_time_ns'])}" if timed else "")
           + " (self: in the function itself; total: with what it called)\n"]
    rows = [(amount(f["samples"], f["self_ns"]), _percent(f["share"]),
             amount(f["total_samples"], f["total_ns"]), _percent(f["total_share"]),
             _cut(f["function"])) for f in _limit(cpu["functions"], top)]
    out.append(_table(("self", "share", "total", "share", "function"), rows, align="rrrrl"))
    out.append(_more(cpu["functions"], top, "functions"))
    python = cpu["python_functions"]
    if python:
        out.append("Python functions by total time\n")
        rows = [(amount(f["total_samples"], f["total_ns"]), _percent(f["total_share"]),
                 amount(f["samples"], f["self_ns"]), _percent(f["share"]), _cut(f["function"]))
                for f in _limit(python, top)]
        out.append(_table(("total", "share", "self", "share", "function"), rows, align="rrrrl"))
        out.append(_more(python, top, "functions"))
    out.append(_threads_text(cpu, samples, top))
    return "".join(out)


# What the kernel writes into a parent's capture about a child it forked.
_FORK_RECORDS = {"CPU FORK", "CPU EXIT"}


def _only_forked(process: Dict[str, Any]) -> bool:
    """A child known only through its parent's capture (its fork and exit): it
    wrote no capture of its own, since it wasn't followed or isn't profiled."""
    return bool(process["records_by_kind"]) and set(process["records_by_kind"]) <= _FORK_RECORDS \
        and not process.get("name")


def _unprofiled_line(children: List[Dict[str, Any]]) -> str:
    pids = ", ".join(str(p["pid"]) for p in children[:8]) + (", ..." if len(children) > 8 else "")
    plural = "es" if len(children) != 1 else ""
    return f"{len(children)} child process{plural} without a capture of their own: {pids}"


def _text(result: Dict[str, Any], top: int) -> str:
    files = result["files"]
    processes = [p for p in result["processes"] if not _only_forked(p)]
    unprofiled = [p for p in result["processes"] if _only_forked(p)]
    hosts = sorted({f.get("header", {}).get("hostname", "") for f in files} - {""})
    out = [f"{len(files)} file{'s' if len(files) != 1 else ''}, {_bytes(result['bytes'])}, "
           f"{len(processes)} process{'es' if len(processes) != 1 else ''}"
           + (f", host {', '.join(hosts)}" if hosts else "") + "\n"]
    if not processes:
        out.append("No records in the files.\n")
    for process in processes:
        out.append("\n")
        out.append(_process_text(process, top))
    if unprofiled:
        out.append("\n" + _unprofiled_line(unprofiled) + "\n")
    return "".join(out)


# ---- JSON -------------------------------------------------------------------------

def _hex(value: int) -> str:
    return "0x%x" % value


def _json_document(result: Dict[str, Any], notes: List[str], top: int) -> Dict[str, Any]:
    """The summary with addresses as hex strings, as zvkdump writes them: many
    JSON readers hold numbers as doubles, which can't hold every 64-bit address."""
    processes = []
    for process in result["processes"]:
        process = dict(process)
        cpu = dict(process["cpu"])
        cpu["distinct_ips"] = len(cpu["ips"])
        cpu["ips"] = [{"ip": _hex(ip), "samples": n} for ip, n in _limit(cpu["ips"], top)]
        cpu["functions"] = _limit(cpu["functions"], top)
        if "python_functions" in cpu:
            cpu["python_functions"] = _limit(cpu["python_functions"], top)
        cpu["mappings"] = [{"addr": _hex(m["addr"]), "len": _hex(m["len"]),
                            "pgoff": _hex(m["pgoff"]), "filename": m["filename"]}
                           for m in cpu["mappings"]]
        process["cpu"] = cpu
        processes.append(process)
    document = dict(result)
    document["processes"] = processes
    document["notes"] = notes
    return document


# ---- For `zorvek record` -----------------------------------------------------------

def short_summary(files: Iterable[str]) -> str:
    """A few lines on what the files hold, for the end of a recording: per
    process the busiest annotation ranges, CPU samples, GPU kernels and what was
    lost. Never raises: a problem becomes the line that says so."""
    try:
        paths, errors = _expand([os.fspath(f) for f in files])
        captures, open_errors = _open_all(dict.fromkeys(paths))
        errors += open_errors
        if not captures:
            return "\n".join(["No capture to summarize."] + errors)
        result = _summarize([c.path for c in captures])
        lines = []
        unprofiled = [p for p in result["processes"] if _only_forked(p)]
        for process in result["processes"]:
            if _only_forked(process):
                continue
            parts = []
            ranges = process["ranges"]
            if ranges:
                top = ", ".join(f"{_cut(r['name'])} {_count(r['count'])} x "
                                f"{_duration(r['mean_ns'])}" for r in ranges[:3])
                parts.append(f"ranges: {top}")
            cpu, gpu = process["cpu"], process["gpu"]
            if cpu["samples"]:
                parts.append(f"{_count(cpu['samples'])} CPU samples")
            if cpu["stack_samples"]:
                parts.append(f"{_count(cpu['stack_samples'])} stack samples")
            if cpu["lost"]:
                parts.append(f"{_count(cpu['lost'])} samples lost")
            if gpu["kernels"]:
                kernels = sum(k["count"] for k in gpu["kernels"])
                busy = sum(k["total_ns"] for k in gpu["kernels"])
                parts.append(f"{_count(kernels)} GPU kernels ({_duration(busy)})")
            if not parts:
                plural = "record" if process["records"] == 1 else "records"
                parts.append(f"{_count(process['records'])} {plural}")
            named = f" ({_cut(process['name'])})" if process.get("name") else ""
            lines.append(f"  process {process['pid']}{named}: " + "; ".join(parts))
        if unprofiled:
            lines.append("  " + _unprofiled_line(unprofiled))
        for file in result["files"]:
            if file["problems"]:
                lines.append(f"  {file['path']}: {file['problems'][-1]}")
        lines.extend(f"  {error}" for error in errors)
        return "\n".join(lines) if lines else "  no records"
    except Exception as error:  # the recording is done; its summary must not undo that
        return f"  (no summary: {type(error).__name__}: {error})"


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
