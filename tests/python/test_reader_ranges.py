"""zorvek._reader's range helpers over columns: BEGIN and END records paired by
(pid, token), ranges laid in each other per thread, and the range a call was
made in. Checked against plain Python walks of the same rows, on hand-made
cases, on many random ones, and on the records of a real capture."""

import bisect
import random

import numpy as np
import pytest

from zorvek import _reader


def python_pairs(begins, ends):
    """The pairing, one record at a time: the first end of a begun token ends it."""
    open_tokens, end_of_begin, begin_of_end = {}, [-1] * len(begins), [-1] * len(ends)
    for i, key in enumerate(begins):
        open_tokens.setdefault(key, i)
    for i, key in enumerate(ends):
        begun = open_tokens.pop(key, None)
        if begun is not None:
            end_of_begin[begun], begin_of_end[i] = i, begun
    return end_of_begin, begin_of_end


def python_nest(rows):
    """rows: (host, pid, tid, start, end or None), sorted. Depth and parent row."""
    depth, parent, stack, thread = [], [], [], None
    for i, (host, pid, tid, start, _end) in enumerate(rows):
        if (host, pid, tid) != thread:
            thread, stack = (host, pid, tid), []
        while stack and rows[stack[-1]][4] is not None and rows[stack[-1]][4] <= start:
            stack.pop()
        depth.append(len(stack))
        parent.append(stack[-1] if stack else -1)
        stack.append(i)
    return depth, parent


def python_innermost(rows, depth, query, window):
    host, pid, tid, t = query
    mine = [i for i, r in enumerate(rows) if r[:3] == (host, pid, tid) and r[4] is not None]
    starts = [rows[i][3] for i in mine]
    upto = bisect.bisect_right(starts, t)
    best = -1
    for i in reversed(mine[max(0, upto - window):upto]):
        if rows[i][3] <= t <= rows[i][4] and (best < 0 or depth[i] > depth[best]):
            best = i
    return best


def columns(rows):
    host, pid, tid, start, end = zip(*rows) if rows else ((),) * 5
    return (np.array(host, np.int64), np.array(pid, np.int64), np.array(tid, np.int64),
            np.array(start, np.int64), np.array([e or 0 for e in end], np.int64),
            np.array([e is not None for e in end], np.uint8))


def sorted_rows(rows):
    return sorted(rows, key=lambda r: (r[0], r[1], r[2], r[3],
                                       -((r[4] if r[4] is not None else r[3]) - r[3])))


def test_pairs_by_pid_and_token_whatever_the_order():
    # pid 1 token 5 ends before it begins (the begin came first in another
    # file); pid 2 reuses token 5; token 7 ends twice; token 9 never ends.
    begins = [(1, 5), (2, 5), (1, 7), (1, 9), (1, 7)]
    ends = [(2, 5), (1, 7), (1, 5), (1, 7), (3, 1)]
    end_of_begin, begin_of_end = _reader.pair_annotations(
        *(np.array(c, np.uint64) for c in zip(*begins)), *(np.array(c, np.uint64) for c in zip(*ends)))
    assert end_of_begin.tolist() == [2, 0, 1, -1, -1]
    assert begin_of_end.tolist() == [1, 2, 0, -1, -1]
    assert (end_of_begin.tolist(), begin_of_end.tolist()) == python_pairs(begins, ends)


def test_nests_per_thread_with_unended_ranges_holding_what_follows():
    rows = sorted_rows([
        (0, 1, 1, 0, 100), (0, 1, 1, 10, 50), (0, 1, 1, 20, 30), (0, 1, 1, 50, 60),
        (0, 1, 1, 200, None), (0, 1, 1, 300, 310),
        (0, 1, 2, 15, 40),  # another thread: nothing holds it
        (1, 1, 1, 20, 25)])  # another host, same pid and tid
    depth, parent = _reader.nest_ranges(*columns(rows))
    assert depth.dtype == np.int32 and parent.dtype == np.int64
    assert depth.tolist() == [0, 1, 2, 1, 0, 1, 0, 0]
    assert parent.tolist() == [-1, 0, 1, 0, -1, 4, -1, -1]


def test_innermost_range_of_a_call():
    rows = sorted_rows([(0, 1, 1, 0, 100), (0, 1, 1, 10, 50), (0, 1, 1, 20, 30),
                        (0, 1, 1, 200, None), (0, 1, 2, 0, 1000)])
    depth, _ = _reader.nest_ranges(*columns(rows))
    queries = [(0, 1, 1, 25), (0, 1, 1, 40), (0, 1, 1, 100), (0, 1, 1, 101), (0, 1, 1, 250),
               (0, 1, 2, 5), (0, 2, 1, 25), (0, 1, 1, -1)]
    found = _reader.innermost_ranges(*columns(rows), depth,
                                     *(np.array(c, np.int64) for c in zip(*queries)))
    # At 250 only the unended range holds the call: it isn't a whole range.
    assert found.tolist() == [2, 1, 0, -1, -1, 4, -1, -1]


def test_innermost_looks_back_only_over_the_window():
    # 100 short ranges inside one long one: the long one starts too far back.
    rows = sorted_rows([(0, 1, 1, 0, 10_000)] + [(0, 1, 1, 10 + 10 * i, 12 + 10 * i)
                                                 for i in range(100)])
    depth, _ = _reader.nest_ranges(*columns(rows))
    query = [np.array([v], np.int64) for v in (0, 1, 1, 5_000)]
    assert _reader.innermost_ranges(*columns(rows), depth, *query).tolist() == [-1]
    assert _reader.innermost_ranges(*columns(rows), depth, *query, window=200).tolist() == [0]


@pytest.mark.parametrize("seed", range(5))
def test_random_rows_match_the_python_walks(seed):
    rng = random.Random(seed)
    rows = []
    for _ in range(400):
        start = rng.randrange(0, 2000)
        end = None if rng.random() < 0.05 else start + rng.choice([0, 1, 5, 50, 400])
        rows.append((rng.randrange(2), rng.randrange(1, 3), rng.randrange(1, 4), start, end))
    rows = sorted_rows(rows)
    depth, parent = _reader.nest_ranges(*columns(rows))
    want_depth, want_parent = python_nest(rows)
    assert depth.tolist() == want_depth
    assert parent.tolist() == want_parent
    queries = [(rng.randrange(2), rng.randrange(1, 3), rng.randrange(1, 4), rng.randrange(-10, 2500))
               for _ in range(300)]
    for window in (4, 64):
        found = _reader.innermost_ranges(*columns(rows), depth,
                                         *(np.array(c, np.int64) for c in zip(*queries)),
                                         window=window)
        assert found.tolist() == [python_innermost(rows, want_depth, q, window) for q in queries]
    # Tokens close together (as a process counts them) and far apart.
    for tokens in ([rng.randrange(50) for _ in range(50)],
                   [rng.randrange(1 << 63) for _ in range(50)]):
        begins = [(rng.randrange(1, 4), rng.choice(tokens)) for _ in range(200)]
        ends = [(rng.randrange(1, 5), rng.choice(tokens)) for _ in range(200)]
        got = _reader.pair_annotations(*(np.array(c, np.uint64) for c in zip(*begins)),
                                       *(np.array(c, np.uint64) for c in zip(*ends)))
        assert (got[0].tolist(), got[1].tolist()) == python_pairs(begins, ends)


def test_columns_that_disagree_are_refused():
    good = columns([(0, 1, 1, 0, 10)])
    with pytest.raises(ValueError):
        _reader.nest_ranges(*good[:4], np.zeros(2, np.int64), good[5])
    with pytest.raises(ValueError):
        _reader.pair_annotations(np.zeros(2, np.uint64), np.zeros(1, np.uint64),
                                 np.zeros(0, np.uint64), np.zeros(0, np.uint64))


SCRIPT = r"""
import threading, _zorv
config = _zorv.Config()
config.profiler = {"BucketCount": "4", "BucketSizeMB": "1", "RecordFile": "ranges_%p"}
prof = _zorv.Zorvek.instance()
assert repr(prof.configure(config)) == "OK"
prof.start_profiling()
handed = []
def work(n):
    for i in range(n):
        outer = _zorv.annotation_begin("outer")
        inner = _zorv.annotation_begin("inner")
        _zorv.annotation_end(inner)
        if i % 7 == 0:
            handed.append(_zorv.annotation_begin("handed"))  # ended by another thread
        _zorv.annotation_end(outer)
threads = [threading.Thread(target=work, args=(300,)) for _ in range(3)]
for t in threads: t.start()
for t in threads: t.join()
for token in handed[:-2]:
    _zorv.annotation_end(token)
_zorv.annotation_begin("never ended")
assert repr(prof.stop_profiling()) == "OK"
"""


def test_a_real_capture_pairs_as_its_records_do(tmp_path):
    import glob
    import subprocess
    import sys

    script = tmp_path / "ranges.py"
    script.write_text(SCRIPT)
    subprocess.run([sys.executable, str(script)], cwd=tmp_path, check=True, timeout=60)
    (path,) = glob.glob(str(tmp_path / "ranges_*.zvkraw"))
    capture = _reader.CaptureFile(path)
    begins, ends = [], []
    for batch in capture.batches(kinds=["BEGIN", "END"]):
        for rec in batch:
            (begins if rec["event"] == "BEGIN" else ends).append((rec["pid"], rec["token"]))
    cols = {"BEGIN": {"pid": [], "token": []}, "END": {"pid": [], "token": []}}
    for group in capture.columns(kinds=["BEGIN", "END"]):
        for kind, table in group.items():
            for key in ("pid", "token"):
                cols[kind][key].append(table[key])
    got = _reader.pair_annotations(*(np.concatenate(cols[k][f]) for k in ("BEGIN", "END")
                                     for f in ("pid", "token")))
    want = python_pairs(begins, ends)
    assert (got[0].tolist(), got[1].tolist()) == want
    # 2 x 900 nested ranges and 129 handed over, of which 2 and "never ended" stay open.
    assert len(begins) >= 2 * 900 + 129 + 1
    assert sum(1 for e in want[0] if e < 0) >= 3
