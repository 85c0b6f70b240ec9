"""Records as the reader's columns (`CaptureFile.columns`), the way the views read
them: rows told apart by value without a Python object per row (`distinct`),
text columns decoded once per distinct text (`texts`), and, for the few kinds
read one by one, a table's rows as the dicts `CaptureFile.batches` gives
(`records`)."""

from __future__ import annotations

import os
from typing import Any, Dict, List, Optional, Sequence, Tuple

import numpy as np

# Fields every record has, decoded or not.
_COMMON = ("timestamp", "hw", "event", "pid", "tid", "device")
_UNDECODED = ("event_type", "raw")
# Byte fields that read as text, and those that stay bytes; "filename" is a path
# for MMAP (its bytes as mapped) and text for PYCODE.
_BYTES = ("linetable", "raw")

def _unique_rows(matrix: np.ndarray) -> Tuple[np.ndarray, np.ndarray]:
    """(first row, inverse) of the distinct rows of a 2-D uint64 matrix."""
    rows, width = matrix.shape
    if width == 0:
        return np.zeros(1, np.int64), np.zeros(rows, np.int64)
    if width == 1:
        _, first, inverse = np.unique(matrix[:, 0], return_index=True, return_inverse=True)
    else:
        _, first, inverse = np.unique(matrix, axis=0, return_index=True, return_inverse=True)
    return first.astype(np.int64), inverse.reshape(-1).astype(np.int64)


def _words(values: np.ndarray, starts: np.ndarray, length: int) -> np.ndarray:
    """The `length` values from each of `starts`, as uint64 columns: bytes packed
    eight to a word."""
    taken = values[starts[:, None] + np.arange(length, dtype=np.int64)]
    if values.dtype != np.uint8:
        return taken.astype(np.uint64)
    width = (length + 7) // 8
    packed = np.zeros((len(starts), width * 8), np.uint8)
    packed[:, :length] = taken
    return packed.view(np.uint64)


def distinct(fixed: Sequence[np.ndarray] = (),
             lists: Sequence[Tuple[Sequence[np.ndarray], np.ndarray]] = (),
             count: Optional[int] = None) -> Tuple[np.ndarray, np.ndarray]:
    """The distinct rows of columns of one length: `fixed` arrays of one value a
    row, and `lists` of (value arrays sharing offsets, offsets). Returns (the first
    row of each distinct one, each row's index into those). Rows are compared by
    value, those of one shape (the lengths of their lists) at a time."""
    n = count if count is not None else (len(fixed[0]) if fixed else len(lists[0][1]) - 1)
    if n == 0:
        return np.zeros(0, np.int64), np.zeros(0, np.int64)
    fixed = [np.asarray(c).astype(np.uint64, copy=False) for c in fixed]
    offsets = [np.asarray(o).astype(np.int64, copy=False) for _, o in lists]
    if lists:
        shapes, shape_of = _unique_rows(np.stack([np.diff(o) for o in offsets], axis=1)
                                        .astype(np.uint64))
    else:
        shapes, shape_of = np.zeros(1, np.int64), np.zeros(n, np.int64)
    order = np.argsort(shape_of, kind="stable")
    bounds = np.concatenate([[0], np.cumsum(np.bincount(shape_of, minlength=len(shapes)))])
    firsts: List[np.ndarray] = []
    inverse = np.empty(n, np.int64)
    found = 0
    for shape in range(len(shapes)):
        rows = order[bounds[shape]:bounds[shape + 1]]
        columns = [c[rows][:, None] for c in fixed]
        for (arrays, _), offs in zip(lists, offsets):
            length = int(offs[rows[0] + 1] - offs[rows[0]])
            if length:
                starts = offs[rows]
                columns.extend(_words(np.asarray(v), starts, length) for v in arrays)
        matrix = np.hstack(columns) if columns else np.zeros((len(rows), 0), np.uint64)
        first, within = _unique_rows(matrix)
        firsts.append(rows[first])
        inverse[rows] = found + within
        found += len(first)
    return np.concatenate(firsts), inverse


def _decode(raw: bytes, path: bool) -> str:
    return os.fsdecode(raw) if path else raw.decode("utf-8", "replace")


def texts(table: Dict[str, Any], field: str, rows: Optional[np.ndarray] = None,
          path: bool = False) -> List[str]:
    """A text column's rows (all, or those `rows` indexes) as str, each distinct
    text decoded once: UTF-8 as captured, bytes that aren't as U+FFFD (a `path`
    as os.fsdecode reads it)."""
    values, offsets = table[field], table[field + "_offsets"]
    if rows is not None:
        rows = np.asarray(rows, np.int64)
        lo, hi = offsets[:-1][rows], offsets[1:][rows]
        lengths = (hi - lo).astype(np.int64)
        picked = np.concatenate([np.zeros(1, np.int64), np.cumsum(lengths)])
        within = np.arange(int(picked[-1]), dtype=np.int64) - np.repeat(picked[:-1], lengths)
        values = values[np.repeat(lo.astype(np.int64), lengths) + within]
        offsets = picked
    count = len(offsets) - 1
    if not count:
        return []
    first, inverse = distinct(lists=[([values], offsets)], count=count)
    decoded = np.empty(len(first), object)
    for i, row in enumerate(first.tolist()):
        decoded[i] = _decode(values[offsets[row]:offsets[row + 1]].tobytes(), path)
    return decoded[inverse].tolist()


def starts_with(table: Dict[str, Any], field: str, prefix: bytes) -> np.ndarray:
    """Whether each row of a text column starts with `prefix`."""
    values = table[field]
    offsets = np.asarray(table[field + "_offsets"]).astype(np.int64, copy=False)
    lo = offsets[:-1]
    found = (offsets[1:] - lo) >= len(prefix)
    if not prefix or not found.any():
        return found
    # Row by row only where the first byte agrees: mostly none.
    rows = np.nonzero(found)[0]
    rows = rows[values[lo[rows]] == prefix[0]]
    for i, byte in enumerate(prefix[1:], 1):
        rows = rows[values[lo[rows] + i] == byte]
    found = np.zeros(len(lo), bool)
    found[rows] = True
    return found


def records(table: Dict[str, Any], rows: Optional[Sequence[int]] = None) -> List[dict]:
    """A table's rows as the dicts CaptureFile.batches() gives: for the kinds
    that are few, read one by one."""
    count = len(table["timestamp"])
    rows = range(count) if rows is None else rows
    if not len(rows):
        return []
    kind = table["event_labels"][int(table["event"][0])] if len(table["event"]) else ""
    getters = []  # (key, getter(row), payload)
    for key, column in table.items():
        if key == "decoded" or key.endswith("_labels") or key.endswith("_offsets") or \
                key in ("py_code_id", "py_instruction", "py_entry"):
            continue
        getters.append((key, _getter(table, key, column, kind), key not in _COMMON))
    if "py_offsets" in table:
        getters.append(("py", _frames_getter(table), True))
    decoded = table["decoded"]
    out = []
    for row in rows:
        whole = bool(decoded[row])
        rec = {}
        for key, get, payload in getters:
            if payload and whole == (key in _UNDECODED):
                continue
            rec[key] = get(row)
        out.append(rec)
    return out


def _getter(table, key, column, kind):
    labels = table.get(key + "_labels")
    if labels is not None:
        return lambda row: labels[int(column[row])]
    offsets = table.get(key + "_offsets")
    if offsets is not None:
        if column.dtype == np.uint8:
            if key in _BYTES:
                return lambda row: column[offsets[row]:offsets[row + 1]].tobytes()
            path = key == "filename" and kind == "MMAP"
            return lambda row: _decode(column[offsets[row]:offsets[row + 1]].tobytes(), path)
        return lambda row: column[offsets[row]:offsets[row + 1]].tolist()
    if column.ndim == 2:
        return lambda row: tuple(column[row].tolist())
    if column.dtype == bool:
        return lambda row: bool(column[row])
    return lambda row: int(column[row])


def _frames_getter(table):
    code, instruction, entry = table["py_code_id"], table["py_instruction"], table["py_entry"]
    offsets = table["py_offsets"]

    def get(row):
        lo, hi = offsets[row], offsets[row + 1]
        return list(zip(code[lo:hi].tolist(), instruction[lo:hi].tolist(), entry[lo:hi].tolist()))
    return get
