"""A worker's capture stopped before SIGTERM ends the worker.

Pool.terminate() ends its workers with SIGTERM, most often while they wait in a
semaphore. A Python signal handler alone can't be relied on there: a signal that
comes between the interpreter's check and the wait is only run once the wait
ends, which for a terminated worker is never. So the signal is taken by Python
(with a handler that does nothing) only to have its number written to a pipe,
which a thread of ours reads whatever the main thread is doing: it stops the
capture and ends the process by SIGTERM, as the signal would have."""

import ctypes
import os
import signal
import threading
from typing import Callable, Optional, Tuple

_pipe: Optional[Tuple[int, int]] = None  # (read end, write end handed to set_wakeup_fd)


# How long the capture's stop may take before the worker ends all the same: a
# writer stuck on a hung disk must not keep a terminated worker alive.
STOP_PATIENCE_S = 5.0

_ending = threading.Lock()


def _end_by_sigterm() -> None:
    # signal.signal() is for the main thread only; the C library's is not.
    libc = ctypes.CDLL(None, use_errno=True)
    libc.signal.restype = ctypes.c_void_p
    libc.signal.argtypes = [ctypes.c_int, ctypes.c_void_p]
    libc.signal(signal.SIGTERM, None)
    os.kill(os.getpid(), signal.SIGTERM)


def _stop_then_end(stop: Callable[[], None]) -> None:
    """Stops the capture and ends the process by SIGTERM, once, whichever of the
    watcher and the handler comes first; within STOP_PATIENCE_S whatever the stop does."""
    if not _ending.acquire(blocking=False):
        return
    deadline = threading.Timer(STOP_PATIENCE_S, _end_by_sigterm)
    deadline.daemon = True
    deadline.start()
    try:
        stop()
    finally:
        _end_by_sigterm()


_stop: Optional[Callable[[], None]] = None


def _on_sigterm(signum: int, frame: object) -> None:
    # The watcher does the work, woken through the wakeup fd. Should the program
    # have put a wakeup fd of its own in place of ours (an asyncio loop), this
    # handler is the only one to see the signal: it hands the work to a thread,
    # since the stop may not run on the thread the signal interrupted.
    if _stop is None or _pipe is None:
        return
    current = signal.set_wakeup_fd(-1)
    signal.set_wakeup_fd(current, warn_on_full_buffer=False)
    if current != _pipe[1]:
        threading.Thread(target=_stop_then_end, args=(_stop,), name="zorvek SIGTERM",
                         daemon=True).start()


def _watch(read_end: int, stop: Callable[[], None]) -> None:
    while True:
        try:
            data = os.read(read_end, 64)
        except OSError:
            return
        if not data:
            return
        # Python writes every signal it handles here: a SIGTERM handler the
        # program installed since is the program's to run.
        if signal.SIGTERM in data and signal.getsignal(signal.SIGTERM) is _on_sigterm:
            _stop_then_end(stop)


def stop_before_sigterm(stop: Callable[[], None]) -> bool:
    """Runs `stop` when SIGTERM comes, then ends the process by it. Only from the
    main thread, only where SIGTERM has its default action and no wakeup fd is
    set (asyncio's, say): anything the program set up is left alone. True if
    installed."""
    global _pipe
    if _pipe is not None:
        return True
    try:
        if signal.getsignal(signal.SIGTERM) is not signal.SIG_DFL:
            return False
        # set_wakeup_fd is the only way to read the current fd, and it replaces it.
        current = signal.set_wakeup_fd(-1)
        if current != -1:
            signal.set_wakeup_fd(current)
            return False
        read_end, write_end = os.pipe()
        os.set_blocking(write_end, False)
        signal.set_wakeup_fd(write_end, warn_on_full_buffer=False)
        signal.signal(signal.SIGTERM, _on_sigterm)
    except ValueError:  # not the main thread
        return False
    global _stop
    _stop = stop
    _pipe = (read_end, write_end)
    threading.Thread(target=_watch, args=(read_end, stop), name="zorvek SIGTERM",
                     daemon=True).start()
    return True


def _after_fork_in_child() -> None:
    # The child has no watcher: it gets back SIGTERM's default and no wakeup fd,
    # which would otherwise write into its parent's pipe.
    global _pipe, _stop, _ending
    _stop = None
    _ending = threading.Lock()
    if _pipe is None:
        return
    for end in _pipe:
        os.close(end)
    _pipe = None
    try:
        if signal.getsignal(signal.SIGTERM) is _on_sigterm:
            signal.signal(signal.SIGTERM, signal.SIG_DFL)
        signal.set_wakeup_fd(-1)
    except ValueError:
        pass


os.register_at_fork(after_in_child=_after_fork_in_child)
