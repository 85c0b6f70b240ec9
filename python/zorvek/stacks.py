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

A Python frame reads `qualname (file.py:line)`: the code's qualified name, the
base name of its file, and the line of the instruction, computed from the code's
line table by the reader (`_reader.python_line`). Code objects come from the
PYCODE records, once per code and process.
"""

from __future__ import annotations

import os
from typing import Callable, Dict, Iterable, List, Optional, Sequence, Tuple

from .symbols import Symbolizer

__all__ = ["EVAL_FRAME", "WAITING", "PythonCodes", "StackNamer", "stack_key", "python_groups",
           "merge"]

EVAL_FRAME = "_PyEval_EvalFrameDefault"
WAITING = "[waiting]"

# (pid, native addresses leaf first, Python frames leaf first, waiting)
StackKey = Tuple[int, Tuple[int, ...], Tuple[Tuple[int, int, bool], ...], bool]


def stack_key(rec: dict) -> StackKey:
    """What names a STACK record's merged stack: equal keys, equal stacks."""
    return (rec["pid"], tuple(rec.get("ips") or ()), tuple(map(tuple, rec.get("py") or ())),
            bool(rec.get("waiting")))


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
        self._parents: Dict[int, int] = {}
        self._texts: Dict[Tuple[int, int, int], str] = {}
        self._functions: Dict[str, str] = {}
        self._python_line = python_line if python_line is not None else _line_reader()

    def add(self, pid: int, rec: dict) -> None:
        """One PYCODE record of process `pid`."""
        filename = rec.get("filename") or ""
        self._codes.setdefault(pid, {})[int(rec["code_id"])] = (
            _clean(rec.get("qualname") or "?"), _clean(os.path.basename(filename) or "?"),
            int(rec.get("first_line") or 0), int(rec.get("py_version") or 0),
            bytes(rec.get("linetable") or b""))

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
        qualname, filename, first_line, version, table = code
        line = -1
        if self._python_line is not None and table:
            line = self._python_line(version, first_line, table, instruction)
        if line < 0:
            line = first_line
        text = "%s (%s:%d)" % (qualname, filename, line)
        self._functions[text] = "%s (%s)" % (qualname, filename)
        return text

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
          modules: Optional[Sequence[Optional[str]]] = None) -> List[str]:
    """One stack, root first, from native frame names (root first) and Python
    groups (root first, each root first). With `modules` (the file of each native
    frame), the interpreter's own frames between two evaluation frames are left
    out: the calls by which one Python function reached the next
    (`_PyFunction_Vectorcall`, `method_vectorcall`, ...) say nothing the Python
    frames don't. A library's frames there stay: a C extension that called back
    into Python stands between its caller and the callback."""
    evals = [i for i, name in enumerate(native) if is_eval_frame(name)]
    extra = max(len(groups) - len(evals), 0)
    glue = set()
    if modules is not None and len(evals) > 1:
        interpreter = {modules[i] for i in evals} - {None}
        glue = {i for i in range(evals[0] + 1, evals[-1])
                if modules[i] in interpreter and not is_eval_frame(native[i])}
    merged: List[str] = []
    for group in groups[:extra]:
        merged.extend(group)
    left = iter(groups[extra:])
    for i, name in enumerate(native):
        if is_eval_frame(name):
            merged.extend(next(left, ()))
        elif i not in glue:
            merged.append(name)
    return merged


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
        groups = [[frame(pid, code_id, instruction) for code_id, instruction, _ in group]
                  for group in python_groups(py)]
        merged = merge(native, groups, modules)
        if waiting:
            merged.append(WAITING)
        return tuple(merged)

    def function(self, frame: str) -> str:
        """The function a frame stands for: a Python frame without its line, a
        native frame as it is."""
        return self.codes.function(frame) or frame
