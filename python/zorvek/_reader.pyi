"""Zorvek's capture file reader: records decoded in C++, as one list of dicts per
bucket or as NumPy columns per kind of record, and the summary's numbers added
up in C++ while the files stream through."""

import os
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Tuple, Union

_Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Progress = Callable[[int, int], Any]  # progress(bytes_done, bytes_total)
Record = Dict[str, Any]
# A kind's records as columns: field name -> numpy.ndarray (or, for F_labels, a
# tuple of str).
Columns = Dict[str, Any]

# Exit statuses of the commands that read captures (zvkdump, zorvek summary,
# timeline, flame). Where several apply, the lowest nonzero one wins.
EXIT_READ_WHOLE: int  # 0: every file read whole (an unfinished capture included)
EXIT_NOT_READ: int    # 1: a file missing, unreadable, or not a capture
EXIT_USAGE: int       # 2: a usage error
EXIT_DAMAGED: int     # 3: every file read, but one was damaged or cut
EXIT_STATUS_HELP: str  # those statuses in words, and where the notes go, for --help
EVENT_NAMES: tuple  # every kind of record batches() and columns() take, "UNKNOWN" last


class CaptureFile:
    """A capture file (.zvkraw), opened and its header read. Raises OSError when
    the file can't be read, ValueError ("PATH: not a Zorvek capture file") for
    bytes that aren't a capture."""

    def __init__(self, path: _Path) -> None: ...
    @property
    def path(self) -> str: ...
    @property
    def file_size(self) -> int: ...
    @property
    def header(self) -> Dict[str, Any]:
        """version, compression, config, pid, start_time, end_time, clock_shift,
        num_buckets, max_bucket_size, max_uncompressed_size, hostname, job_uid,
        instance_type, cpu_model."""
    @property
    def problems(self) -> List[str]:
        """What the last iteration found missing: damaged bytes skipped, a torn
        last bucket, buckets the header counts that the file lacks."""
    @property
    def torn(self) -> bool: ...
    @property
    def damaged(self) -> bool:
        """Whether the last iteration found the file damaged or cut (anything in
        `problems`)."""
    @property
    def unfinished(self) -> str:
        """After an iteration, "PATH: unfinished capture: ..." when the header was
        never finished (the process ended without stopping the capture): every
        bucket in the file was read, and the file doesn't count as damaged for
        it. Empty otherwise."""
    @property
    def buckets(self) -> int:
        """Whole buckets the last iteration read."""
    def batches(self, kinds: Optional[Iterable[str]] = None,
                progress: Optional[Progress] = None) -> Iterator[List[Record]]:
        """One list of record dicts per bucket, in file order. Every record has
        timestamp, hw ("CPU", "GPU", "ANNOTATION"), event ("BEGIN", "SAMPLE",
        "KERNEL", ...), pid, tid, device, then its payload's fields; a payload
        too short for its kind comes as "raw" bytes (with "event_type") instead.
        `kinds` keeps only those events (ValueError for an unknown name);
        `progress` is called at most five times a second. One iterator is read
        by one thread at a time: next() while another thread's next() is under
        way raises RuntimeError.

        The stack sampler's records: "STACK": weight_ns, clock ("cpu" or
        "wall"), waiting, flags, ips (native addresses, leaf first), py
        ((code_id, instruction_offset, entry) tuples, leaf first; entry marks
        the first frame of an evaluation call, the last of its group walking
        from the leaf); "PYCODE": code_id, first_line, py_version
        (PY_VERSION_HEX), qualname, filename, linetable (bytes), linetable_cut;
        "APISTACK": correlation, py."""
    def columns(self, kinds: Optional[Iterable[str]] = None,
                progress: Optional[Progress] = None) -> Iterator[Dict[str, Columns]]:
        """The same records as batches(), as NumPy arrays with no Python object
        per record: per group of whole buckets (about 4 MB of records), a dict
        of event name -> that kind's rows in file order. `kinds`, `progress`,
        the problems noted and the one-thread rule are those of batches().

        Each field batches() gives becomes:
        - a number: one array (uint64; int64 for first_line). "decoded" (bool)
          is false where the payload was too short for its kind; that row's
          payload fields hold zero, and "event_type" and "raw" say what it was;
        - waiting, linetable_cut: bool arrays;
        - hw, event, clock, table: uint8 codes F into the tuple F_labels;
        - msg, qualname, filename, name, linetable, raw: the bytes of all rows
          end to end (uint8 F) and int32 F_offsets, one more than the rows, row i
          being F[F_offsets[i]:F_offsets[i + 1]]: Arrow's string layout, so
          pyarrow.StringArray.from_buffers takes them as they are. Text is UTF-8
          as captured; MMAP's filename is the bytes of the path as mapped;
        - chain, ips, monotonic_raw, realtime: uint64 F and F_offsets (Arrow's
          list layout, for pyarrow.ListArray.from_arrays);
        - grid, block: int32 arrays of shape (rows, 3);
        - py: py_code_id, py_instruction (uint32), py_entry (bool), py_offsets."""


def python_line(py_version: int, first_line: int, linetable: bytes, offset: int) -> int:
    """The source line of the instruction at byte `offset` of a code object, from
    a PYCODE record's py_version, first_line and linetable; -1 when the
    instruction has no line or the table doesn't say."""


def pair_annotations(begin_pid: Any, begin_token: Any, end_pid: Any,
                     end_token: Any) -> Tuple[Any, Any]:
    """BEGIN and END records paired by (pid, token), from columns in file order:
    (end_of_begin, begin_of_end), int64 arrays, the index of each begin's end and
    of each end's begin, -1 where none. A token pairs once: the first end of a
    begun token ends it; a second begin or end of it stays alone."""


def nest_ranges(host: Any, pid: Any, tid: Any, start: Any, end: Any,
                ended: Any) -> Tuple[Any, Any]:
    """Ranges laid in each other per thread. Columns of one length (host, pid,
    tid as integers), rows sorted by thread, then start, the longer first where
    two start together; `ended` (bool) false for a range never ended, which then
    holds what follows it. Returns (depth, parent): int32 the ranges of the
    thread holding each row's start, int64 the row of the innermost, or -1."""


def innermost_ranges(host: Any, pid: Any, tid: Any, start: Any, end: Any, ended: Any,
                     depth: Any, query_host: Any, query_pid: Any, query_tid: Any,
                     query_time: Any, window: int = 64) -> Any:
    """For each query (host, pid, tid, time), the row of the deepest ended range
    of that thread open then (start <= time <= end), or -1 (int64), over the rows
    and depths of nest_ranges. Only the last `window` of a thread's ended ranges
    that start by the time are looked at; of equally deep ones, the later row."""


def summarize(paths: Union[_Path, Iterable[_Path]],
              progress: Optional[Progress] = None) -> Dict[str, Any]:
    """Adds up capture files: {"files": [...], "bytes", "processes": [...],
    "problems": [...]}, one process per pid over all files. Each file has
    "problems" (as CaptureFile's, without the path), "torn", "damaged" and
    "unfinished" (a note, or empty). Raises as CaptureFile does for a file that
    can't be opened."""
