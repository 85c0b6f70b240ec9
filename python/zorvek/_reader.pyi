"""Zorvek's capture file reader: records decoded in C++, one list of dicts per
bucket, and the summary's numbers added up in C++ while the files stream through."""

import os
from typing import Any, Callable, Dict, Iterable, Iterator, List, Optional, Union

_Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Progress = Callable[[int, int], Any]  # progress(bytes_done, bytes_total)
Record = Dict[str, Any]

# Exit statuses of the commands that read captures (zvkdump, zorvek summary,
# timeline, flame). Where several apply, the lowest nonzero one wins.
EXIT_READ_WHOLE: int  # 0: every file read whole (an unfinished capture included)
EXIT_NOT_READ: int    # 1: a file missing, unreadable, or not a capture
EXIT_USAGE: int       # 2: a usage error
EXIT_DAMAGED: int     # 3: every file read, but one was damaged or cut
EXIT_STATUS_HELP: str  # those statuses in words, and where the notes go, for --help


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


def python_line(py_version: int, first_line: int, linetable: bytes, offset: int) -> int:
    """The source line of the instruction at byte `offset` of a code object, from
    a PYCODE record's py_version, first_line and linetable; -1 when the
    instruction has no line or the table doesn't say."""


def summarize(paths: Union[_Path, Iterable[_Path]],
              progress: Optional[Progress] = None) -> Dict[str, Any]:
    """Adds up capture files: {"files": [...], "bytes", "processes": [...],
    "problems": [...]}, one process per pid over all files. Each file has
    "problems" (as CaptureFile's, without the path), "torn", "damaged" and
    "unfinished" (a note, or empty). Raises as CaptureFile does for a file that
    can't be opened."""
