"""The views read the reader's columns, not a dict per record: the helpers that
tell rows apart and decode text (`zorvek.views.columns`), the survey's pass and
the samples' stack ids, each checked against what the record dicts of
CaptureFile.batches() give on real captures."""

import numpy as np
import pytest

from test_reader_columns import stacks_capture  # noqa: F401
from test_reader_summary import rich  # noqa: F401

from zorvek import _reader
from zorvek.stacks import stack_key
from zorvek.views.capture import Progress, Reading
from zorvek.views.columns import distinct, records, starts_with, texts
from zorvek.views.samples import SampleStacks, sample_frames
from zorvek.views.survey import Survey


def by_kind(path):
    kinds = {}
    for batch in _reader.CaptureFile(path).batches():
        for record in batch:
            kinds.setdefault(record["event"], []).append(record)
    return kinds


def assert_groups_match(first, inverse, keys):
    """`first` and `inverse` group the rows exactly as their `keys` are equal."""
    assert len(inverse) == len(keys)
    assert len(first) == len(set(keys))
    for row, group in enumerate(inverse.tolist()):
        assert keys[first[group]] == keys[row]
    assert len({keys[row] for row in first.tolist()}) == len(first)


def flat(lists, dtype):
    offsets = np.concatenate([[0], np.cumsum([len(v) for v in lists])]).astype(np.int32)
    values = np.array([x for v in lists for x in v], dtype)
    return values, offsets


def test_distinct_tells_rows_apart_by_every_value():
    rng = np.random.default_rng(7)
    count = 3000
    pid = rng.integers(1, 4, count).astype(np.uint64)
    lists = [tuple(rng.integers(0, 3, rng.integers(0, 5)).tolist()) for _ in range(count)]
    # Long values too, where only the last word differs.
    lists[10] = (2 ** 64 - 1,) * 9
    lists[11] = (2 ** 64 - 1,) * 8 + (2 ** 64 - 2,)
    values, offsets = flat(lists, np.uint64)
    first, inverse = distinct([pid], [([values], offsets)])
    assert_groups_match(first, inverse, [(p, v) for p, v in zip(pid.tolist(), lists)])


def test_distinct_bytes_of_many_lengths_and_shared_prefixes():
    words = [b"", b"a", b"ab", b"abcdefgh", b"abcdefghi", b"abcdefghj", b"abcdefgh\x00",
             b"zorvek.x", "\u00e9t\u00e9".encode()]
    rows = [words[i % len(words)] for i in range(500)] + [b"abcdefgh" * 5, b"abcdefgh" * 5 + b"!"]
    values, offsets = flat(rows, np.uint8)
    first, inverse = distinct(lists=[([values], offsets)])
    assert_groups_match(first, inverse, rows)


def test_lists_that_share_offsets_are_compared_together():
    # (code, instruction) pairs: the same codes with other instructions differ.
    codes = [(1, 2), (1, 2), (1, 2), (), (3,)]
    instructions = [(10, 20), (10, 20), (10, 21), (), (5,)]
    code_values, offsets = flat(codes, np.uint32)
    instruction_values, _ = flat(instructions, np.uint32)
    first, inverse = distinct(lists=[([code_values, instruction_values], offsets)])
    assert_groups_match(first, inverse, list(zip(codes, instructions)))


def test_texts_decode_as_the_record_dicts_do():
    rows = [b"step", "b\u00fc\u00df".encode(), b"bad \xff\xfe utf-8", b"", b"step"]
    values, offsets = flat(rows, np.uint8)
    table = {"msg": values, "msg_offsets": offsets}
    assert texts(table, "msg") == [r.decode("utf-8", "replace") for r in rows]
    assert texts(table, "msg", np.array([4, 2])) == ["step", rows[2].decode("utf-8", "replace")]
    assert starts_with(table, "msg", b"st").tolist() == [True, False, False, False, True]


@pytest.mark.parametrize("which", ["rich", "stacks"])
def test_records_of_the_few_kinds_equal_the_record_dicts(which, rich, stacks_capture):  # noqa: F811
    path = rich[0] if which == "rich" else stacks_capture
    expected = by_kind(path)
    got = {}
    for group in _reader.CaptureFile(path).columns():
        for kind, table in group.items():
            got.setdefault(kind, []).extend(records(table))
    assert got == expected


def test_the_survey_pairs_ranges_as_the_records_say(rich):  # noqa: F811
    path = rich[0]
    kinds = by_kind(path)
    # The test's own pairing: by (pid, token), zorvek's own marks left out.
    begins = {(r["pid"], r["token"]): r for r in kinds["BEGIN"]}
    expected = set()
    for end in kinds["END"]:
        begun = begins.pop((end["pid"], end["token"]), None)
        if begun is not None and not begun["msg"].startswith("zorvek."):
            expected.add((begun["pid"], begun["tid"], begun["timestamp"], end["timestamp"],
                          begun["msg"], begun["token"], False, end["tid"]))
    for (pid, token), begun in begins.items():
        if not begun["msg"].startswith("zorvek."):
            expected.add((pid, begun["tid"], begun["timestamp"], None, begun["msg"], token, True,
                          begun["tid"]))
    survey = Survey(Reading([path], Progress("test", False))).run()
    assert expected and set(survey.ranges) == expected
    assert len(survey.ranges) == len(expected)
    # Its threads and counts, from every kind.
    assert survey.samples == len(kinds.get("SAMPLE", []))
    threads = {(r["pid"], r["tid"]) for kind in ("BEGIN", "END", "SAMPLE") for r in kinds.get(kind, [])}
    assert {(pid, tid) for pid, tids in survey.threads.items() for tid in tids} >= threads


def test_a_process_left_out_has_no_ranges_but_still_its_names(rich):  # noqa: F811
    path, pid = rich[0], rich[1]
    survey = Survey(Reading([path], Progress("test", False)), pids={pid + 1_000_000}).run()
    assert survey.ranges == [] and survey.unmatched_ends == 0
    whole = Survey(Reading([path], Progress("test", False))).run()
    assert survey.own_names.processes == whole.own_names.processes


@pytest.mark.parametrize("which", ["rich", "stacks"])
def test_stack_ids_follow_the_stack_keys(which, rich, stacks_capture):  # noqa: F811
    path = rich[0] if which == "rich" else stacks_capture
    expected = {"SAMPLE": [], "STACK": []}
    for batch in _reader.CaptureFile(path).batches(kinds=["SAMPLE", "STACK"]):
        for record in batch:
            expected[record["event"]].append(
                sample_frames(record) if record["event"] == "SAMPLE" else stack_key(record))
    stacks = SampleStacks()
    got = {"SAMPLE": [], "STACK": []}
    for group in _reader.CaptureFile(path).columns(kinds=["SAMPLE", "STACK"]):
        for kind, table in group.items():
            rows = np.arange(len(table["timestamp"]))
            if kind == "SAMPLE":
                got[kind].extend(stacks.chain_keys[i] for i in stacks.chain_ids(table, rows))
            else:
                got[kind].extend(stacks.stack_keys[i] for i in stacks.stack_ids(table, rows))
    assert got == expected
    assert expected["SAMPLE" if which == "rich" else "STACK"]
    assert len(stacks.chain_keys) == len(set(expected["SAMPLE"]))
    assert len(stacks.stack_keys) == len(set(expected["STACK"]))
