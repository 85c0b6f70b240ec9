"""Reading captures for the view commands: the files named (a folder standing for
its files), the project's reader on each, the progress line, the runs the files
come from, and what every view command shares around its work (arguments, how a
failure ends it, its exit statuses).

The views read records as the reader's NumPy columns (`Reading.columns`), a
group of rows per kind at a time, never a dict per record: the kinds that come
by the million (annotations, samples, GPU work) stay columns (`views.columns`),
and the few read one by one (mappings, code objects, names) are made dicts from
their columns there; the timeline alone makes a tuple per GPU operation. CaptureFile.batches() stays for tests and users."""

from __future__ import annotations

import argparse
import os
import re
import sys
import time
from typing import Dict, Iterable, Iterator, List, Optional, Sequence, Set, Tuple


class ViewError(Exception):
    """A failure that ends the command with its one-line message."""


def capture_paths(paths: Sequence[str]) -> List[str]:
    """The capture files named, a folder standing for the .zvkraw files in it."""
    files = []
    for path in paths:
        if os.path.isdir(path):
            found = sorted(os.path.join(path, n) for n in os.listdir(path) if n.endswith(".zvkraw"))
            if not found:
                raise ViewError("%s: no .zvkraw capture files in this folder" % path)
            files.extend(found)
        elif not os.path.exists(path):
            raise ViewError("%s: no such file or folder" % path)
        else:
            files.append(path)
    return files


def open_capture(path: str):
    """The project's reader on one file; a file that isn't a readable capture ends
    the command with the reader's one line."""
    from .. import _reader
    try:
        return _reader.CaptureFile(path)
    except ValueError as error:
        raise ViewError(str(error)) from None
    except OSError as error:
        raise ViewError("%s: %s" % (path, error.strerror or error)) from None


class Progress:
    """A progress line on stderr for work that takes longer than a second: on a
    terminal by default, or wherever stderr goes when asked; never on stdout."""

    def __init__(self, prog: str, enabled: Optional[bool] = None):
        self.prog = prog
        self.enabled = sys.stderr.isatty() if enabled is None else enabled
        self.began = time.monotonic()
        self.shown = False
        self.last = 0.0
        self.tty = sys.stderr.isatty()

    def show(self, text: str, fraction: Optional[float] = None) -> None:
        if not self.enabled:
            return
        now = time.monotonic()
        if now - self.began < 1.0 or (now - self.last < 0.2 and self.tty):
            return
        self.last = now
        line = "%s: %s" % (self.prog, text)
        if fraction is not None:
            done = int(30 * min(max(fraction, 0.0), 1.0))
            line = "%s [%s%s] %3d%%" % (line, "#" * done, "." * (30 - done), int(100 * fraction))
        if self.tty:
            sys.stderr.write("\r\033[K" + line)
        else:
            sys.stderr.write(line + "\n")
        sys.stderr.flush()
        self.shown = True

    def done(self) -> None:
        if self.shown and self.tty:
            sys.stderr.write("\r\033[K")
            sys.stderr.flush()
        self.shown = False


# The writer names a capture's files "<pattern>_<rotation>.zvkraw".
_ROTATION = re.compile(r"_(\d+)\.zvkraw$")


class Runs:
    """The recordings a command's files come from, so that a folder of several is
    read whole but not merged silently. Every process writes files of its own
    (rotation adds more), its host and pid in their header; a process started by
    another names that parent in its name marks. A run is a process whose parent
    wasn't captured, with every captured process it started, on its host: one
    `zorvek record`, or one rank of a job whose launcher ran unprofiled."""

    def __init__(self) -> None:
        self.started: Dict[Tuple[str, int], int] = {}  # (host, pid): its first file's start
        self.parents: Dict[Tuple[str, int], int] = {}
        self.processes: Set[Tuple[str, int]] = set()
        # Per process its files' (start, end or 0 when never finished), and the
        # rotation number in the name of its first file.
        self.spans: Dict[Tuple[str, int], List[Tuple[int, int]]] = {}
        self.first_rotation: Dict[Tuple[str, int], Tuple[int, int]] = {}

    def file(self, header: dict, path: str = "") -> None:
        """A file read, by its header and name."""
        if header.get("pid") is None:
            return
        key = (header.get("hostname") or "?", int(header["pid"]))
        start = int(header.get("start_time") or 0)
        self.process(key[0], key[1], started=start)
        if not start:
            return
        self.spans.setdefault(key, []).append((start, int(header.get("end_time") or 0)))
        rotation = _ROTATION.search(os.path.basename(path))
        if rotation and (key not in self.first_rotation or start < self.first_rotation[key][0]):
            self.first_rotation[key] = (start, int(rotation.group(1)))

    def process(self, host: str, pid: int, parent: Optional[int] = None,
                started: Optional[int] = None) -> None:
        """A process read, with its parent where it named one, and when its first
        file started where that is known."""
        key = (host, pid)
        self.processes.add(key)
        if parent is not None:
            self.parents[key] = parent
        if started and (key not in self.started or started < self.started[key]):
            self.started[key] = started

    def processes_by_pid(self, processes: Iterable[Tuple[int, Optional[int]]]) -> None:
        """(pid, parent) of processes a reader knew by pid alone: each on the host of
        its own files, or else of its parent's."""
        hosts = {pid: host for host, pid in self.processes}
        for pid, parent in processes:
            host = hosts.get(pid) or hosts.get(parent)
            if host is not None:
                self.process(host, pid, parent)

    def _parent(self, key: Tuple[str, int]) -> Optional[int]:
        """The parent a process named; else, for a forked child that went on with
        the capture it inherited (its first file's rotation number goes on from
        its parent's), the process whose capture ran when it began."""
        if key in self.parents:
            return self.parents[key]
        start, rotation = self.first_rotation.get(key, (0, 0))
        if not rotation:
            return None
        best: Optional[Tuple[int, int]] = None
        for other, spans in self.spans.items():
            if other == key or other[0] != key[0]:
                continue
            for begun, ended in spans:
                if begun <= start and (not ended or ended >= start) and (
                        best is None or begun > best[0]):
                    best = (begun, other[1])
        return best[1] if best else None

    def runs(self) -> List[Tuple[Optional[int], str, int]]:
        """(start or None, host, pid of the process that began it), earliest first."""
        members: Dict[Tuple[str, int], List[Tuple[str, int]]] = {}
        parents = {key: self._parent(key) for key in self.processes}
        for key in self.processes:
            path = [key]
            while True:
                parent = parents[path[-1]]
                above = (key[0], parent)
                if parent is None or above not in self.processes:
                    root = path[-1]
                    break
                if above in path:
                    # Parents that go round (a pid used again): one of them begins it.
                    root = min(path[path.index(above):])
                    break
                path.append(above)
            members.setdefault(root, []).append(key)
        found = []
        for (host, pid), keys in members.items():
            starts = [self.started[k] for k in keys if k in self.started]
            found.append((min(starts) if starts else None, host, pid))
        return sorted(found, key=lambda r: (r[0] is None, r[0] or 0, r[1], r[2]))

    def line(self) -> Optional[str]:
        """What was read, when the files come from more than one run."""
        runs = self.runs()
        if len(runs) < 2:
            return None
        several_hosts = len({host for _, host, _ in runs}) > 1
        told = []
        for start, host, pid in runs:
            text = "run %d" % pid
            if several_hosts:
                text += " on %s" % host
            if start:
                text += " started %s" % time.strftime("%Y-%m-%d %H:%M:%S",
                                                      time.localtime(start / 1e9))
            told.append(text)
        count = len(self.processes)
        return "read %d runs, %d process%s: %s" % (len(runs), count, "" if count == 1 else "es",
                                                   ", ".join(told))

    def say(self, prog: str) -> None:
        line = self.line()
        if line:
            sys.stderr.write("%s: %s\n" % (prog, line))


class Reading:
    """The capture files of one command, opened once, read in passes. `passes` is
    how many times the files will be read, for the progress line."""

    def __init__(self, paths: Sequence[str], progress: Progress, passes: int = 1):
        self.paths = capture_paths(paths)
        self.captures = [open_capture(p) for p in self.paths]
        self.progress = progress
        self.passes = passes
        self.pass_index = 0
        self.sizes = [max(int(getattr(c, "file_size", 0) or os.path.getsize(p)), 1)
                      for c, p in zip(self.captures, self.paths)]
        self.runs = Runs()
        for capture, path in zip(self.captures, self.paths):
            self.runs.file(capture.header, path)
        self.problems: Dict[str, List[str]] = {}
        self.unfinished: Dict[str, str] = {}
        self.damaged: Set[str] = set()

    def columns(self, kinds: Optional[Sequence[str]] = None, what: str = "reading"
                ) -> Iterator[Tuple[int, Dict[str, dict]]]:
        """(file index, group of records as columns: event name -> that kind's
        rows, as CaptureFile.columns gives them), file after file."""
        total = sum(self.sizes) * self.passes
        before = sum(self.sizes) * self.pass_index
        for index, capture in enumerate(self.captures):
            done_files = sum(self.sizes[:index])

            def progress(done, size, _base=before + done_files):
                self.progress.show(what, (_base + done) / total)

            try:
                for group in capture.columns(kinds=kinds, progress=progress):
                    yield index, group
            except (OSError, ValueError) as error:
                raise ViewError("%s: %s" % (self.paths[index], error)) from None
            path = self.paths[index]
            problems = list(capture.problems)
            if problems:
                self.problems[path] = problems
            if capture.unfinished:
                self.unfinished[path] = capture.unfinished
            if capture.damaged:
                self.damaged.add(path)
        self.pass_index += 1

    def report_problems(self, prog: str) -> int:
        """Says on stderr the runs read, when more than one, and once per file
        what its reading met: a damaged or cut file was read as far as it was
        whole, an unfinished one to its end. Returns the command's exit status."""
        from .. import _reader

        self.runs.say(prog)

        def said(path: str, text: str) -> str:
            return text if text.startswith(path) else "%s: %s" % (path, text)

        for path in self.paths:
            problems = self.problems.get(path)
            if problems:
                text = problems[0] if len(problems) == 1 else "%s (and %d more)" % (
                    problems[0], len(problems) - 1)
                sys.stderr.write("%s: %s; used what was whole\n" % (prog, said(path, text)))
            if path in self.unfinished:
                sys.stderr.write("%s: %s\n" % (prog, said(path, self.unfinished[path])))
        return _reader.EXIT_DAMAGED if self.damaged else _reader.EXIT_READ_WHOLE


# ---- What the view commands share around their work --------------------------------


def add_files_argument(parser: argparse.ArgumentParser) -> None:
    """The captures a view command reads: files, or folders standing for theirs."""
    parser.add_argument("files", nargs="+", metavar="FILE",
                        help="capture files (.zvkraw), or folders holding them")


def add_progress_arguments(parser: argparse.ArgumentParser) -> None:
    """--progress / --no-progress; neither leaves args.progress None, which means
    "on a terminal" to Progress."""
    group = parser.add_mutually_exclusive_group()
    group.add_argument("--progress", dest="progress", action="store_true", default=None,
                       help="show progress on stderr even when it is not a terminal")
    group.add_argument("--no-progress", dest="progress", action="store_false",
                       help="never show progress")


# What a view command's run stops on: its own failures, an interrupt, and the
# system refusing a file.
VIEW_FAILURES = (ViewError, KeyboardInterrupt, OSError)


def view_failed(prog: str, progress: Progress, error: BaseException, output: str) -> int:
    """Ends a view command that stopped on one of VIEW_FAILURES: the progress line
    taken away, one line on stderr, and the exit status. An OSError without a file
    name of its own is told against `output`, the file being written."""
    from .. import _reader

    progress.done()
    if isinstance(error, KeyboardInterrupt):
        sys.stderr.write("%s: interrupted\n" % prog)
        return 130
    if isinstance(error, OSError):
        sys.stderr.write("%s: %s: %s\n" % (prog, getattr(error, "filename", None) or output,
                                           error.strerror or error))
        return _reader.EXIT_NOT_READ
    sys.stderr.write("%s: %s\n" % (prog, error))
    return _reader.EXIT_NOT_READ


def exit_status_help() -> str:
    """The view commands' exit statuses, for the end of their help."""
    from .. import _reader

    return _reader.EXIT_STATUS_HELP + (
        "%d also when the output can't be written; 130 when interrupted.\n" % _reader.EXIT_NOT_READ)
