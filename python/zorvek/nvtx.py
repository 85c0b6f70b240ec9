"""NVTX ranges and marks of the process's libraries as annotations, with no change
to their code.

Code instrumented with NVTX (the `nvtx` package, PyTorch's ranges, data loaders,
collective communication) loads the library that NVTX_INJECTION64_PATH names, once
per library, at its first NVTX call. zorvek's own, libzorv_nvtx.so beside this
module, turns push/pop and start/end ranges into begin and end annotations and
marks into marker records, a domain's name in front of the message
("domain/message").

The capture hands its annotation table only to libraries already loaded when it
starts, so enable() both sets the variable (for the libraries still to come) and
loads the injection library itself (so that the start finds it). By hand, the same
is: NVTX_INJECTION64_PATH=.../zorvek/libzorv_nvtx.so in the environment, and the
library loaded, or one NVTX call made, before start_profiling().
"""

from __future__ import annotations

import ctypes
import os
from typing import Callable, Optional, Set

VARIABLE = "NVTX_INJECTION64_PATH"
LIBRARY_NAME = "libzorv_nvtx.so"

_handle: Optional[ctypes.CDLL] = None  # kept: the library stays loaded for the process
_said: Set[str] = set()


def library_path() -> str:
    """The injection library installed with the package."""
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), LIBRARY_NAME)


def _same_file(a: str, b: str) -> bool:
    try:
        return os.path.samefile(a, b)
    except OSError:
        return False


def _say_once(report: Callable[[str], None], message: str) -> None:
    if message not in _said:
        _said.add(message)
        report(message)


def enable(report: Callable[[str], None], verbose: bool = False) -> bool:
    """Sets NVTX_INJECTION64_PATH to the injection library and loads it, unless the
    variable already names another tool: that choice is the user's, and is kept
    and said. True when NVTX ranges will reach the capture. NVTX reads the
    variable at a library's first NVTX call, so this must come before those
    libraries touch NVTX; calling it again is cheap and changes nothing."""
    global _handle
    path = library_path()
    current = os.environ.get(VARIABLE)
    if current and not _same_file(current, path):
        _say_once(report, f"{VARIABLE} is set to {current}: NVTX ranges go to that tool, "
                          "not into the capture")
        return False
    if _handle is not None:
        return True
    if not os.path.exists(path):
        _say_once(report, f"NVTX ranges are not recorded: {path} is missing")
        return False
    try:
        # Local: the capture's hook search and NVTX both open the library by its
        # name and look its functions up through that handle, so nothing needs
        # them in the global scope, where they could stand in for another
        # library's symbols of the same names.
        _handle = ctypes.CDLL(path, mode=os.RTLD_LOCAL)
    except OSError as e:
        _say_once(report, f"NVTX ranges are not recorded: loading {path} failed: {e}")
        return False
    os.environ[VARIABLE] = path
    if verbose:
        _say_once(report, f"NVTX ranges are recorded through {path}")
    return True
