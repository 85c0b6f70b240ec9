"""zorvek._reader's columns(): the records of a capture as NumPy arrays per kind,
checked field by field against the record dicts of batches() on real captures:
one with annotations, CPU samples, GPU records from the CUPTI stand-in and every
kind the stand-in can't make (the summary tests' capture and synthetic records),
one recorded by `zorvek record` with Python stacks (STACK and PYCODE records),
and damaged ones, which must report the same problems either way."""

import glob
import os
import struct
import subprocess
import sys
import textwrap

import numpy as np
import pyarrow as pa
import pytest

from test_reader_summary import (bucket_spans, gpu_records_no_scenario_makes, rich,  # noqa: F401
                                 synthetic_record, write_synthetic)
from zvk_testing import ANNOTATION, BEGIN, CPU

from zorvek import _reader

# The fields columns() keeps as text; "filename" is a file name in MMAP records
# (its bytes as mapped) and text in PYCODE ones.
TEXT = {"msg", "qualname", "name"}
BYTES = {"linetable", "raw"}
LISTS = {"chain", "ips", "monotonic_raw", "realtime"}


def rows_of(kind, table):
    """The table's rows as the dicts batches() gives, rebuilt from the columns."""
    rows = len(table["timestamp"])
    out = []
    for i in range(rows):
        row = {}
        for key, column in table.items():
            if key.endswith(("_offsets", "_labels")) or key in ("decoded", "py_code_id",
                                                                 "py_instruction", "py_entry"):
                continue
            if key + "_labels" in table:
                row[key] = table[key + "_labels"][column[i]]
            elif key + "_offsets" in table:
                lo, hi = table[key + "_offsets"][i], table[key + "_offsets"][i + 1]
                value = column[lo:hi]
                if key in LISTS:
                    row[key] = [int(v) for v in value]
                elif key in BYTES:
                    row[key] = value.tobytes()
                elif key == "filename" and kind == "MMAP":
                    row[key] = os.fsdecode(value.tobytes())
                else:
                    row[key] = value.tobytes().decode("utf-8", "replace")
            elif column.ndim == 2:
                row[key] = tuple(int(v) for v in column[i])
            elif column.dtype == np.bool_:
                row[key] = bool(column[i])
            else:
                row[key] = int(column[i])
        if "py_offsets" in table:
            lo, hi = table["py_offsets"][i], table["py_offsets"][i + 1]
            row["py"] = [(int(c), int(o), bool(e)) for c, o, e in zip(
                table["py_code_id"][lo:hi], table["py_instruction"][lo:hi], table["py_entry"][lo:hi])]
        if table["decoded"][i]:
            row.pop("event_type", None)
            row.pop("raw", None)
        else:
            row = {k: row[k] for k in ("timestamp", "hw", "event", "pid", "tid", "device",
                                       "event_type", "raw")}
        out.append(row)
    return out


def by_kind_from_columns(capture, **options):
    kinds = {}
    for group in capture.columns(**options):
        assert group, "an empty group"
        for kind, table in group.items():
            kinds.setdefault(kind, []).extend(rows_of(kind, table))
    return kinds


def by_kind_from_batches(capture, **options):
    kinds = {}
    for batch in capture.batches(**options):
        for record in batch:
            kinds.setdefault(record["event"], []).append(record)
    return kinds


def assert_same_records(path, **options):
    capture = _reader.CaptureFile(path)
    expected = by_kind_from_batches(capture, **options)
    expected_state = (capture.problems, capture.torn, capture.damaged, capture.unfinished,
                      capture.buckets)
    got = by_kind_from_columns(capture, **options)
    assert sorted(got) == sorted(expected)
    for kind in expected:
        assert len(got[kind]) == len(expected[kind]), kind
        for mine, theirs in zip(got[kind], expected[kind]):
            assert mine == theirs, kind
    assert (capture.problems, capture.torn, capture.damaged, capture.unfinished,
            capture.buckets) == expected_state
    return expected


def test_the_columns_equal_the_record_dicts(rich):
    kinds = assert_same_records(rich[0])
    # The capture holds what the comparison is meant to cover.
    for kind in ("BEGIN", "END", "SAMPLE", "MMAP", "KERNEL", "CONCURRENT_KERNEL", "MEMCOPY",
                 "KERNEL_NAME", "CUDA_API", "CONFIGURATION"):
        if kind in ("KERNEL", "CONCURRENT_KERNEL"):
            assert kinds.get("KERNEL") or kinds.get("CONCURRENT_KERNEL")
        else:
            assert kinds.get(kind), kind


def test_kinds_keep_only_those_records(rich):
    capture = _reader.CaptureFile(rich[0])
    seen = set()
    for group in capture.columns(kinds=["BEGIN", "KERNEL_NAME"]):
        seen.update(group)
    assert seen == {"BEGIN", "KERNEL_NAME"}
    assert_same_records(rich[0], kinds=["END", "SAMPLE"])
    with pytest.raises(ValueError):
        capture.columns(kinds=["NO_SUCH_KIND"])


def test_the_kinds_no_scenario_makes_and_a_short_payload(tmp_path, rich):
    header = bucket_spans(rich[0])[0]
    pid, tid = 77, 78

    records = [
        *gpu_records_no_scenario_makes(pid, tid),
        synthetic_record(600, CPU, 4, pid, tid, struct.pack("<QQQ", 1, 2, 17)),
        synthetic_record(720, CPU, 8, pid, tid, struct.pack("<QQII", 1, 2, pid, tid)),
        synthetic_record(1_000, ANNOTATION, BEGIN, pid, tid, struct.pack("<Q", 41) + b"late\0\0\0\0"),
        # A BEGIN too short for its token, between two whole ones.
        synthetic_record(1_100, ANNOTATION, BEGIN, pid, tid, b"\x01\x02\x03"),
        synthetic_record(1_200, ANNOTATION, BEGIN, pid, tid, struct.pack("<Q", 42) + b"\xffbad\0\0\0\0"),
        synthetic_record(1_500, ANNOTATION, 3, pid, tid, struct.pack("<Q", 0) + b"mark\0\0\0\0"),
        synthetic_record(0x999, 9, 5, pid, tid, b"odd"),
    ]
    path = tmp_path / "kinds.zvkraw"
    write_synthetic(path, header, records)
    kinds = assert_same_records(str(path))
    assert [r.get("token") for r in kinds["BEGIN"]] == [41, None, 42]
    (group,) = list(_reader.CaptureFile(str(path)).columns())
    begins = group["BEGIN"]
    assert begins["decoded"].tolist() == [True, False, True]
    assert begins["token"].tolist() == [41, 0, 42]
    # Arrow takes the text as it is.
    msg = pa.StringArray.from_buffers(3, pa.py_buffer(begins["msg_offsets"]),
                                      pa.py_buffer(begins["msg"]))
    assert msg.slice(0, 2).to_pylist() == ["late", ""]


PROGRAM = textwrap.dedent("""
    import zorvek

    def inner(n):
        total = 0
        for i in range(n):
            total += i * i
        return total

    def outer():
        with zorvek.annotate("work"):
            return inner(3_000_000)

    for _ in range(3):
        outer()
""")


@pytest.fixture(scope="module")
def stacks_capture(tmp_path_factory):
    folder = tmp_path_factory.mktemp("stacks")
    (folder / "program.py").write_text(PROGRAM)
    process = subprocess.run([sys.executable, "-m", "zorvek", "record", "-q", "-o", "out", "--",
                              sys.executable, "program.py"], cwd=folder, capture_output=True,
                             text=True, timeout=120)
    assert process.returncode == 0, process.stderr[-3000:]
    (path,) = glob.glob(str(folder / "out" / "*.zvkraw"))
    return path


def test_python_stacks_as_columns(stacks_capture):
    kinds = assert_same_records(stacks_capture)
    assert kinds.get("STACK") and kinds.get("PYCODE")
    assert any(r["py"] for r in kinds["STACK"])
    # The frames' flat arrays line up with their offsets.
    for group in _reader.CaptureFile(stacks_capture).columns(kinds=["STACK"]):
        table = group["STACK"]
        offsets = table["py_offsets"]
        assert offsets[0] == 0 and offsets[-1] == len(table["py_code_id"])
        assert np.all(np.diff(offsets) >= 0) and len(offsets) == len(table["timestamp"]) + 1
        frames = pa.ListArray.from_arrays(pa.array(offsets), pa.array(table["py_code_id"]))
        assert len(frames) == len(table["timestamp"])


def test_damage_gives_the_same_problems(tmp_path, rich):
    header, spans, data = bucket_spans(rich[0])
    offset, length = spans[len(spans) // 2]
    damaged = bytearray(data)
    for i in range(offset + 40, offset + 60):
        damaged[i] ^= 0xFF
    path = tmp_path / "damaged.zvkraw"
    path.write_bytes(bytes(damaged))
    assert_same_records(str(path))
    capture = _reader.CaptureFile(str(path))
    for _ in capture.columns():
        pass
    assert capture.damaged and capture.problems
    last, last_length = spans[-1]
    torn = tmp_path / "torn.zvkraw"
    torn.write_bytes(data[:last + last_length // 2])
    assert_same_records(str(torn))
    capture = _reader.CaptureFile(str(torn))
    for _ in capture.columns():
        pass
    assert capture.torn and capture.damaged

