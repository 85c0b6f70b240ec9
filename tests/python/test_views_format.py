"""`zorvek timeline` picks its writer by --format, else by the output's name; a
format that can't be written here ends the command in one line, before any
capture is read."""

import argparse
import sys

import pytest

from zorvek import timeline


@pytest.mark.parametrize("output, chosen, expected", [
    ("trace.json", None, "json"),
    ("trace.json.gz", None, "json"),
    ("trace.pftrace", None, "perfetto"),
    ("run.perfetto-trace", None, "perfetto"),
    ("trace.pftrace", "json", "json"),
    ("trace.json", "perfetto", "perfetto"),
])
def test_the_format_follows_the_name_unless_chosen(output, chosen, expected):
    assert timeline.trace_format(argparse.Namespace(output=output, format=chosen)) == expected


def test_the_json_writer_is_the_default():
    from zorvek.views.trace_json import JsonTraceWriter

    assert timeline.writer_class("json") is JsonTraceWriter


def test_a_perfetto_writer_that_cannot_load_is_one_line(monkeypatch, capsys, tmp_path):
    # None in sys.modules makes the import fail as a missing module would.
    monkeypatch.setitem(sys.modules, "zorvek.views.trace_perfetto", None)
    status = timeline.main([str(tmp_path / "never_read.zvkraw"), "-o", str(tmp_path / "t.pftrace")])
    err = capsys.readouterr().err
    assert status == 1
    assert err.startswith("zorvek timeline: --format perfetto is not available here (")
    assert len(err.splitlines()) == 1 and "never_read" not in err
    assert list(tmp_path.iterdir()) == []
