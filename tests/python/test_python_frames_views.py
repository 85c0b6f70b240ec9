"""What the merged stacks show of real programs run under `zorvek record`: the
program's Python stack from its own first frame, whether the native walk reached
the root or was cut on a deep stack, and none of the launcher's frames above it."""

import json
import os
import re
import sys
import textwrap

import pytest

from zvk_testing import STACK, cpu_records, parse_reports, read_capture, run_command

# Spins in `spin` under a shallow stack and under a deep one: each level of
# `deep` goes through list() and map(), native calls that end in an evaluation
# call of their own, so the deep stack holds more native frames than a sample
# keeps, and the shallow one fewer.
PROGRAM = textwrap.dedent("""\
    import os
    import json
    import threading
    import time


    def spin(cpu_seconds):
        began = time.thread_time()
        while time.thread_time() - began < cpu_seconds:
            for _ in range(10000):
                pass


    def deep(levels, cpu_seconds):
        if levels == 0:
            spin(cpu_seconds)
            return [0]
        return list(map(lambda _: deep(levels - 1, cpu_seconds), [0]))


    def main():
        for _ in range(4):
            spin(0.15)
            deep(40, 0.15)


    main()
    os.write(1, ("@pid " + json.dumps(os.getpid()) + "\\n").encode())
    """)

def _environment():
    return {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZV_", "ZORV_"))}


def _run(command, cwd, timeout=180):
    code, stdout, stderr = run_command(command, cwd, _environment(), timeout)
    assert code == 0, stdout + stderr[-4000:]
    assert "Traceback" not in stderr, stderr[-4000:]
    return stdout


class Recorded:
    """A program run by `zorvek record` in `folder`: its pid, capture and
    collapsed stacks (frames root first, the process's name left out)."""

    def __init__(self, folder, program):
        stdout = _run([sys.executable, "-m", "zorvek", "record", "-q", "-o", "out", "--",
                       "python", *program], folder)
        self.folder = folder
        self.pid = parse_reports(stdout)["pid"]
        (path,) = [p for p in (folder / "out").iterdir()
                   if p.name.endswith(".zvkraw") and f"_{self.pid}_" in p.name]
        self.capture = read_capture(path)
        collapsed = _run([sys.executable, "-m", "zorvek", "flame", "out", "--format", "collapsed",
                          "--pid", str(self.pid)], folder)
        self.stacks = []
        for line in collapsed.splitlines():
            text, count = line.rsplit(" ", 1)
            self.stacks.append((text.split(";")[1:], int(count)))

    def summary(self):
        (process,) = [p for p in json.loads(_run(
            [sys.executable, "-m", "zorvek", "summary", "--json", "--top", "200", "out"],
            self.folder))["processes"] if p["pid"] == self.pid]
        return process


@pytest.fixture(scope="module")
def script(tmp_path_factory):
    """The program as a script of the user's named record.py, as the launcher's
    own module is."""
    folder = tmp_path_factory.mktemp("script")
    (folder / "record.py").write_text(PROGRAM)
    return Recorded(folder, ["record.py"])


@pytest.fixture(scope="module")
def module(tmp_path_factory):
    """The program as a package run with -m."""
    folder = tmp_path_factory.mktemp("module")
    (folder / "burner").mkdir()
    (folder / "burner" / "__init__.py").write_text("")
    (folder / "burner" / "__main__.py").write_text(PROGRAM)
    return Recorded(folder, ["-m", "burner"])


LAUNCHER = re.compile(r"\((cli\.py|record\.py|_profile\.py|runpy\.py|<frozen runpy>|zorvek):")


def spinning(recorded, file):
    return [(frames, count) for frames, count in recorded.stacks
            if any(frame.startswith("spin (%s:" % file) for frame in frames)]


def test_cut_and_whole_native_walks_give_one_tower(script):
    samples = cpu_records(script.capture, STACK, pid=script.pid, tid=script.pid)
    cut = [r for r in samples if r["flags"] & 2]
    whole = [r for r in samples if not r["flags"] & 2 and r["py"]]
    # The program's design: both kinds, for the one tower to be shown.
    assert len(cut) > 20 and len(whole) > 20, (len(cut), len(whole))
    stacks = spinning(script, "record.py")
    assert sum(count for _, count in stacks) > 200, script.stacks[:5]
    deep = 0
    for frames, count in stacks:
        # The user's record.py is the program, not the launcher's.
        assert frames[0].startswith("<module> (record.py:"), frames
        assert frames[1].startswith("main (record.py:"), frames
        deep += count if any(frame.startswith("deep (") for frame in frames) else 0
    assert deep > 100, stacks[:5]


def test_a_module_run_with_m_starts_at_its_own_module(module):
    stacks = spinning(module, "__main__.py")
    assert sum(count for _, count in stacks) > 200, module.stacks[:5]
    for frames, _ in stacks:
        assert frames[0].startswith("<module> (__main__.py:"), frames
        assert not any(LAUNCHER.search(frame) for frame in frames), frames


def test_no_frame_of_the_launcher_in_the_program_or_the_summary(module):
    for frames, _ in module.stacks:
        if any(frame.startswith("main (__main__.py:") for frame in frames):
            assert frames[0].startswith("<module> (__main__.py:"), frames
            assert not any(LAUNCHER.search(frame) for frame in frames), frames
    functions = [row["function"] for row in module.summary()["cpu"]["python_functions"]]
    assert any(name.startswith("spin (__main__.py") for name in functions), functions
    assert not any(re.search(r"\((cli|record|runpy)\.py\)|<frozen runpy>|_Program\.run", name)
                   for name in functions), functions
