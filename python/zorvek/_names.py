"""Names of processes and threads, written into a capture. The kernel knows a
process by the file it runs and a thread by a 15-character name, which say
`python3` for every worker; `zorvek.profile` writes what the program itself calls
them, as the names of empty annotation ranges:

    zorvek.process SEQ PPID COMMAND       the command line, or a worker's role
    zorvek.thread SEQ TID NAME            threading.Thread.name, or the OS name
    zorvek.rank RANK LOCAL WORLD HOST     the rank its launcher gave it (-1: not said)

SEQ grows within a process, so that a reader takes the latest of each (a spawned
worker knows its role only after its first line). The views read them back and
hide the ranges."""

import itertools
import os
import shlex
import sys
import threading
from typing import Dict, Iterable, Optional, Tuple

PROCESS_NAME = "zorvek.process"
THREAD_NAME = "zorvek.thread"
RANK = "zorvek.rank"

_sequence = itertools.count(1)
_command: Optional[str] = None   # the program's command line, where zorvek record ran it
_hooked = False
_marking = False                 # a capture runs in this process: new threads are named


def set_command(words: Iterable[str]) -> None:
    """The command line the process is known by, for a program run by zorvek record."""
    global _command
    _command = shlex.join(list(words))


def _command_line() -> str:
    if _command is not None:
        return _command
    argv = list(getattr(sys, "orig_argv", None) or [sys.executable, *sys.argv])
    if argv:
        argv[0] = os.path.basename(argv[0])
    return shlex.join(argv)


def _multiprocessing_child():
    """The multiprocessing Process object this process runs, if it is a worker."""
    process_module = sys.modules.get("multiprocessing.process")
    if process_module is None:
        return None
    try:
        if process_module.parent_process() is None:
            return None
        return process_module.current_process()
    except Exception:
        return None


def role() -> Tuple[Optional[str], Optional[int]]:
    """A worker's role and its parent's pid, or (None, None) for a process that is
    not one."""
    worker = _multiprocessing_child()
    if worker is None:
        return None, None
    parent = getattr(worker, "_parent_pid", None)
    target = getattr(worker, "_target", None)
    module = getattr(target, "__module__", "") or ""
    if module.startswith("torch.utils.data"):
        return "pt_data_worker", parent
    return f"multiprocessing worker {worker.name}", parent


def process_name() -> Tuple[str, int]:
    """(the name, the parent's pid) this process is shown by."""
    name, parent = role()
    return name or _command_line(), parent or os.getppid()


def _mark(text: str) -> None:
    import _zorv
    _zorv.annotation_end(_zorv.annotation_begin(text))


def mark_process() -> None:
    name, parent = process_name()
    _mark(f"{PROCESS_NAME} {next(_sequence)} {parent} {name}")
    mark_rank()


def mark_rank() -> None:
    """The rank of a distributed job, beside the process's name: every file a
    rotating capture writes starts and ends with it."""
    from . import _ranks

    found = _ranks.detect()
    if found is not None:
        _mark(f"{RANK} {found.rank} {found.local_rank} {found.world_size} {found.host}")


def _os_name(tid: int) -> Optional[str]:
    try:
        with open(f"/proc/self/task/{tid}/comm") as f:
            return f.read().rstrip("\n")
    except OSError:
        return None


# A thread's OS name is its program's file name, cut to 15 characters, until
# something names it; threads inherit it. Read once, before anything here renames.
_DEFAULT_OS_NAME = _os_name(threading.get_native_id())


def _tid(thread: threading.Thread) -> Optional[int]:
    # In a forked child the thread that forked keeps its parent's native_id until
    # something sets it anew.
    if thread is threading.current_thread():
        return threading.get_native_id()
    return thread.native_id


def thread_name(thread: threading.Thread, tid: int) -> str:
    """What a thread is shown by: for the main thread the OS name a library gave it
    (`pt_data_worker`), else its Python name."""
    if thread is threading.main_thread():
        os_name = _os_name(tid)
        if os_name and os_name != _DEFAULT_OS_NAME:
            return os_name
    return thread.name


def mark_thread(tid: int, name: str) -> None:
    _mark(f"{THREAD_NAME} {next(_sequence)} {tid} {name}")


def mark_threads() -> None:
    """Names every thread of the process: Python's by their Python name, others by
    the OS name something gave them."""
    named = set()
    for thread in threading.enumerate():
        tid = _tid(thread)
        if tid is not None:
            mark_thread(tid, thread_name(thread, tid))
            named.add(tid)
    try:
        tids = [int(t) for t in os.listdir("/proc/self/task")]
    except (OSError, ValueError):
        return
    for tid in tids:
        if tid in named:
            continue
        os_name = _os_name(tid)
        if os_name and os_name != _DEFAULT_OS_NAME:
            mark_thread(tid, os_name)


def start_marking() -> None:
    """Names the process and its threads now, and each thread started from now on
    while a capture runs."""
    global _marking
    _marking = True
    _hook_thread_start()
    try:
        mark_process()
        mark_threads()
    except Exception:
        pass


def stop_marking() -> None:
    """Names them once more before a stop: a worker knows its role by now, and
    threads may have been renamed."""
    global _marking
    try:
        mark_process()
        mark_threads()
    except Exception:
        pass
    _marking = False


def _hook_thread_start() -> None:
    global _hooked
    if _hooked:
        return
    _hooked = True
    original = threading.Thread.start

    def start(self: threading.Thread) -> None:
        original(self)
        # start() returns once the thread runs, so its OS id is known.
        if _marking:
            try:
                tid = self.native_id
                if tid is not None:
                    mark_thread(tid, self.name)
            except Exception:
                pass

    start.__doc__ = original.__doc__
    start.__wrapped__ = original  # type: ignore[attr-defined]
    threading.Thread.start = start  # type: ignore[method-assign]


# ---- Reading them back ----------------------------------------------------------

def parse(text: str) -> Optional[Tuple[str, int, int, str]]:
    """("process" or "thread", SEQ, PPID or TID, NAME) of a name mark, else None."""
    for kind, prefix in (("process", PROCESS_NAME), ("thread", THREAD_NAME)):
        if text.startswith(prefix + " "):
            parts = text[len(prefix) + 1:].split(" ", 2)
            if len(parts) < 3:
                return None
            try:
                return kind, int(parts[0]), int(parts[1]), parts[2]
            except ValueError:
                return None
    return None


def parse_rank(text: str) -> Optional[Tuple[int, int, int, str]]:
    """(RANK, LOCAL, WORLD, HOST) of a rank mark, else None."""
    if not text.startswith(RANK + " "):
        return None
    parts = text[len(RANK) + 1:].split(" ", 3)
    if len(parts) < 4:
        return None
    try:
        return int(parts[0]), int(parts[1]), int(parts[2]), parts[3]
    except ValueError:
        return None


def is_mark(text: str) -> bool:
    return text.startswith((PROCESS_NAME + " ", THREAD_NAME + " ", RANK + " "))


class Names:
    """The latest name marks of the processes and threads a reader met."""

    def __init__(self) -> None:
        self.processes: Dict[int, Tuple[int, str, int]] = {}        # pid: (seq, name, ppid)
        self.threads: Dict[Tuple[int, int], Tuple[int, str]] = {}  # (pid, tid): (seq, name)
        self.ranks: Dict[int, Tuple[int, int, int, str]] = {}      # pid: (rank, local, world, host)

    def learn(self, pid: int, text: str) -> bool:
        """Takes a range's name; True if it was a name or rank mark."""
        parsed = parse(text)
        if parsed is None:
            rank = parse_rank(text)
            if rank is None:
                return False
            self.ranks[pid] = rank
            return True
        kind, seq, number, name = parsed
        if kind == "process":
            if seq >= self.processes.get(pid, (0, "", 0))[0]:
                self.processes[pid] = (seq, name, number)
        elif seq >= self.threads.get((pid, number), (0, ""))[0]:
            self.threads[(pid, number)] = (seq, name)
        return True

    def process(self, pid: int) -> Optional[str]:
        entry = self.processes.get(pid)
        return entry[1] if entry else None

    def parent(self, pid: int) -> Optional[int]:
        entry = self.processes.get(pid)
        return entry[2] if entry else None

    def rank(self, pid: int) -> Optional[Tuple[int, int, int, str]]:
        return self.ranks.get(pid)

    def thread(self, pid: int, tid: int) -> Optional[str]:
        entry = self.threads.get((pid, tid))
        return entry[1] if entry else None
