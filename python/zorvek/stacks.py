"""Merged stacks: one stack per sample, root first, where the Python frames of the
sampled thread stand where the interpreter's evaluation frames stood.

A STACK record holds the thread's native frames (addresses, leaf first) and its
Python frames (code id and instruction offset, leaf first, the first frame each
evaluation call ran marked as its entry). Walking leaf first, the frames up to and
including an entry frame are the Python frames of one native
`_PyEval_EvalFrameDefault` call: a group. Walking the native frames root to leaf,
each evaluation frame gives way to the next group, root first, so native code
called from Python stays under the Python function that called it. When the
native walk was cut short (its root side lost), the groups it has no frame for are
the root-most ones, and stand at the root above the native frames; an evaluation
frame with no group left (a call that had not pushed its frame yet) is dropped.

A stack with Python frames starts at its outermost Python frame: the native
frames root-side of it (`_start`, `Py_RunMain`, ..., `PyEval_EvalCode` on the main
thread; `start_thread`, `thread_run` on a thread Python started) are the
interpreter's startup or thread-start glue, the same in every sample, and a walk
cut short has none of them, so leaving them out is what lines a cut sample up
with an uncut one of the same Python code. A stack without Python frames keeps
its native frames whole. Between Python frames, the interpreter's own calls are
left out, and a library's frames stay.

The profiler's launcher stands above the user's program when `zorvek record` runs
it (the `zorvek` script, `main` of cli.py, `run` and `_Program.run` of record.py,
runpy's frames for `-m` and folders): the root-most Python frames that belong to
the zorvek package or to runpy are left out, up to the first frame of other code,
with the native frames between them and it. A stack of such frames alone (the
profiler's own start and stop) keeps them. A launch stack (APISTACK, Python
frames only) is read the same way by `PythonCodes.stack`.

A Python frame reads `qualname (file.py:line)`: the code's qualified name, the
base name of its file, and the line of the instruction, computed from the code's
line table by the reader (`_reader.python_line`). Code objects come from the
PYCODE records, once per code and process.
"""

from __future__ import annotations

import os
from typing import Callable, Dict, FrozenSet, Iterable, List, Optional, Sequence, Tuple

from .symbols import Symbolizer

__all__ = ["EVAL_FRAME", "WAITING", "PythonCodes", "StackNamer", "stack_key", "python_groups",
           "merge", "launcher_role", "launcher_frames"]

EVAL_FRAME = "_PyEval_EvalFrameDefault"
WAITING = "[waiting]"

# (pid, native addresses leaf first, Python frames leaf first, waiting)
StackKey = Tuple[int, Tuple[int, ...], Tuple[Tuple[int, int, bool], ...], bool]


def stack_key(rec: dict) -> StackKey:
    """What names a STACK record's merged stack: equal keys, equal stacks."""
    return (rec["pid"], tuple(rec.get("ips") or ()), tuple(map(tuple, rec.get("py") or ())),
            bool(rec.get("waiting")))


def _package_files() -> FrozenSet[str]:
    """The base names of this package's own modules, which the launcher runs."""
    here = os.path.dirname(os.path.abspath(__file__))
    try:
        return frozenset(name for name in os.listdir(here) if name.endswith(".py"))
    except OSError:
        return frozenset()


_PACKAGE_FILES = _package_files()
_PACKAGE = os.path.basename(os.path.dirname(os.path.abspath(__file__)))
_RUNPY_FILES = ("<frozen runpy>",)

# What a code object is to the launcher's frames.
USER, LAUNCHER, SCRIPT = 0, 1, 2


def launcher_role(qualname: str, filename: str) -> int:
    """LAUNCHER for a module of the zorvek package or runpy; SCRIPT for the body
    of the `zorvek` command's script, which is the launcher only when a frame of
    the package follows it; USER for anything else."""
    base = os.path.basename(filename)
    if filename in _RUNPY_FILES or base == "runpy.py":
        return LAUNCHER
    if base in _PACKAGE_FILES and os.path.basename(os.path.dirname(filename)) == _PACKAGE:
        return LAUNCHER
    if base == _PACKAGE and qualname == "<module>":
        return SCRIPT
    return USER


def launcher_frames(roles: Sequence[int]) -> int:
    """How many of a stack's Python frames (their roles, root first) are the
    launcher's, to be left out: the root-most run of LAUNCHER frames (a SCRIPT
    frame leads it only when a LAUNCHER frame comes next), and none when no other
    frame follows them."""
    count = 0
    if len(roles) > 1 and roles[0] == SCRIPT and roles[1] == LAUNCHER:
        count = 1
    while count < len(roles) and roles[count] == LAUNCHER:
        count += 1
    return count if count < len(roles) else 0


def _line_reader() -> Optional[Callable[[int, int, bytes, int], int]]:
    try:
        from . import _reader
    except ImportError:
        return None
    return getattr(_reader, "python_line", None)


class PythonCodes:
    """The code objects of each process, from its PYCODE records, and the text of
    a Python frame. A forked child that meets a code only its parent announced
    finds it in the parent's table."""

    def __init__(self, python_line: Optional[Callable[[int, int, bytes, int], int]] = None):
        self._codes: Dict[int, Dict[int, tuple]] = {}
        self._roles: Dict[Tuple[int, int], int] = {}
        self._parents: Dict[int, int] = {}
        self._texts: Dict[Tuple[int, int, int], str] = {}
        self._functions: Dict[str, str] = {}
        self._python_line = python_line if python_line is not None else _line_reader()

    def add(self, pid: int, rec: dict) -> None:
        """One PYCODE record of process `pid`."""
        filename = rec.get("filename") or ""
        qualname = rec.get("qualname") or "?"
        self._codes.setdefault(pid, {})[int(rec["code_id"])] = (
            _clean(qualname), _clean(os.path.basename(filename) or "?"),
            int(rec.get("first_line") or 0), int(rec.get("py_version") or 0),
            bytes(rec.get("linetable") or b""), launcher_role(qualname, filename))

    def inherit(self, child: int, parent: int) -> None:
        if child != parent:
            self._parents.setdefault(child, parent)

    def __bool__(self) -> bool:
        return bool(self._codes)

    def _code(self, pid: int, code_id: int) -> Optional[tuple]:
        seen = set()
        while pid is not None and pid not in seen:
            seen.add(pid)
            code = self._codes.get(pid, {}).get(code_id)
            if code is not None:
                return code
            pid = self._parents.get(pid)
        return None

    def frame(self, pid: int, code_id: int, instruction: int) -> str:
        key = (pid, code_id, instruction)
        text = self._texts.get(key)
        if text is None:
            text = self._texts[key] = self._frame_text(pid, code_id, instruction)
        return text

    def _frame_text(self, pid: int, code_id: int, instruction: int) -> str:
        code = self._code(pid, code_id)
        if code is None:
            text = "[python code %d]" % code_id
            self._functions[text] = text
            return text
        qualname, filename, first_line, version, table, _ = code
        line = -1
        if self._python_line is not None and table:
            line = self._python_line(version, first_line, table, instruction)
        if line < 0:
            line = first_line
        text = "%s (%s:%d)" % (qualname, filename, line)
        self._functions[text] = "%s (%s)" % (qualname, filename)
        return text

    def role(self, pid: int, code_id: int) -> int:
        """What the code is to the launcher's frames (USER for an unknown code)."""
        key = (pid, code_id)
        role = self._roles.get(key)
        if role is None:
            code = self._code(pid, code_id)
            role = self._roles[key] = code[5] if code is not None else USER
        return role

    def stack(self, pid: int, py: Sequence[Tuple[int, int, bool]]) -> List[str]:
        """The texts of Python frames as a record holds them (leaf first), root
        first, the launcher's frames left out: a launch stack (APISTACK)."""
        roles = [self.role(pid, code_id) for code_id, _, _ in reversed(py)]
        hidden = launcher_frames(roles)
        return [self.frame(pid, code_id, instruction)
                for code_id, instruction, _ in list(reversed(py))[hidden:]]

    def function(self, frame: str) -> Optional[str]:
        """The function of a Python frame's text, without its line: `qualname
        (file.py)`; None for a frame that isn't one of this table's."""
        return self._functions.get(frame)


def _clean(text: str) -> str:
    return text.replace(";", ":").replace("\n", " ")


def python_groups(py: Sequence[Tuple[int, int, bool]]) -> List[List[Tuple[int, int, bool]]]:
    """The Python frames (leaf first) in groups, one per evaluation call: the
    groups root first, each group's frames root first."""
    groups: List[List[Tuple[int, int, bool]]] = []
    current: List[Tuple[int, int, bool]] = []
    for frame in py:
        current.append(frame)
        if frame[2]:
            groups.append(current)
            current = []
    if current:
        groups.append(current)  # the root-most evaluation call, its entry frame not read
    return [group[::-1] for group in reversed(groups)]


def is_eval_frame(name: str) -> bool:
    return name.startswith(EVAL_FRAME)


def merge(native: Sequence[str], groups: Sequence[Sequence[str]],
          modules: Optional[Sequence[Optional[str]]] = None, hidden: int = 0) -> List[str]:
    """One stack, root first, from native frame names (root first) and Python
    groups (root first, each root first).

    With Python frames, the stack starts at the outermost one: the native frames
    root-side of it are the interpreter's startup or thread-start glue. Where the
    native walk was cut (groups beyond its evaluation frames stand at the root),
    none of those are left, and the native frames before its first evaluation
    frame stand between two Python frames. `hidden` root-most Python frames (the
    launcher's) are left out, with the native frames root-side of the first
    Python frame that stays.

    With `modules` (the file of each native frame), the interpreter's own frames
    between two evaluation frames, or between a root group and the first
    evaluation frame, are left out: the calls by which one Python function reached
    the next (`_PyFunction_Vectorcall`, `method_vectorcall`, ...) say nothing the
    Python frames don't. A library's frames there stay: a C extension that called
    back into Python stands between its caller and the callback."""
    evals = [i for i, name in enumerate(native) if is_eval_frame(name)]
    extra = max(len(groups) - len(evals), 0)
    glue = set()
    if modules is not None and evals and (extra or len(evals) > 1):
        interpreter = {modules[i] for i in evals} - {None}
        first = 0 if extra else evals[0] + 1
        glue = {i for i in range(first, evals[-1])
                if modules[i] in interpreter and not is_eval_frame(native[i])}
    # (is a Python frame, name), root first
    frames: List[Tuple[bool, str]] = []
    for group in groups[:extra]:
        frames.extend((True, name) for name in group)
    left = iter(groups[extra:])
    for i, name in enumerate(native):
        if is_eval_frame(name):
            frames.extend((True, frame) for frame in next(left, ()))
        elif i not in glue:
            frames.append((False, name))
    python = [i for i, (is_python, _) in enumerate(frames) if is_python]
    if python and hidden < len(python):
        frames = frames[python[hidden]:]
    return [name for _, name in frames]


class StackNamer:
    """Names merged stacks, many at a time: one round of questions to the
    symbolizer for all their native addresses, then each stack from the caches.
    Return addresses are asked one byte back, inside the call that made them."""

    def __init__(self, symbols: Symbolizer, codes: PythonCodes):
        self.symbols = symbols
        self.codes = codes
        self._named: Dict[StackKey, Tuple[str, ...]] = {}

    def name_many(self, keys: Iterable[StackKey]) -> List[Tuple[str, ...]]:
        keys = list(keys)
        named = self._named
        result = [named.get(key) for key in keys]
        missing = [i for i, stack in enumerate(result) if stack is None]
        if not missing:
            return result
        asks = set()
        for i in missing:
            pid, ips = keys[i][0], keys[i][1]
            for depth, address in enumerate(ips):
                asks.add((pid, address if depth == 0 else address - 1))
        frames = self.symbols.frames_many(sorted(asks)) if asks else {}
        for i in missing:
            key = keys[i]
            stack = named.get(key)
            if stack is None:
                stack = named[key] = self._name(key, frames)
            result[i] = stack
        return result

    def name(self, key: StackKey) -> Tuple[str, ...]:
        named = self._named.get(key)
        return named if named is not None else self.name_many([key])[0]

    def _name(self, key: StackKey, frames) -> Tuple[str, ...]:
        pid, ips, py, waiting = key
        native: List[str] = []
        modules: List[Optional[str]] = []
        for i in range(len(ips) - 1, -1, -1):
            address = ips[i] if i == 0 else ips[i] - 1
            found = frames.get((pid, address))
            if found is None:
                found = self.symbols.frames_many([(pid, address)])[(pid, address)]
            mapping = self.symbols.mapping(pid, address)
            native.extend(reversed(found))
            modules.extend([mapping[3] if mapping is not None else None] * len(found))
        frame = self.codes.frame
        code_groups = python_groups(py)
        groups = [[frame(pid, code_id, instruction) for code_id, instruction, _ in group]
                  for group in code_groups]
        role = self.codes.role
        hidden = launcher_frames([role(pid, code_id) for group in code_groups
                                  for code_id, _, _ in group])
        merged = merge(native, groups, modules, hidden)
        if waiting:
            merged.append(WAITING)
        return tuple(merged)

    def function(self, frame: str) -> str:
        """The function a frame stands for: a Python frame without its line, a
        native frame as it is."""
        return self.codes.function(frame) or frame
