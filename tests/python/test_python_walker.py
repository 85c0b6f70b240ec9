"""The samplers' Python frame walker on each CPython the machine has zorvek in: a
program calls `_zorv._python_stack()` from nested functions, a method, a
generator, a coroutine, a callback of a C function and a thread of its own, and
the frames read back name the functions, files, first lines and the lines the
calls stand at, with an entry mark on the first frame of every evaluation."""

import glob
import json
import os
import subprocess
import sys

import pytest

PYENV = "/root/.pyenv/versions"


def _interpreters():
    found = {"%d.%d" % sys.version_info[:2]: sys.executable}
    for version in ("3.10", "3.12", "3.13"):
        paths = sorted(glob.glob(os.path.join(PYENV, version + ".*", "bin", "python" + version)))
        if paths:
            found.setdefault(version, paths[-1])
    return sorted(found.items(), key=lambda item: tuple(map(int, item[0].split("."))))


INTERPRETERS = _interpreters()

# Each line that calls the hook, or calls towards it, ends in "# at NAME": the
# test finds the lines there. The program reports the frames of its own code as
# (name, file, first line, line of the instruction, entry), the line computed from
# the instruction offset with the interpreter's own table.
PROGRAM = r'''
import asyncio, json, os, sys, threading
import _zorv

CODES = {}

def here():
    code = sys._getframe(1).f_code
    CODES[getattr(code, "co_qualname", code.co_name)] = code

def line_of(code, offset):
    for start, end, line in code.co_lines():
        if start <= offset < end:
            return line
    return None

def described(stack):
    frames = []
    for name, filename, first_line, offset, entry in stack:
        code = CODES.get(name)
        line = line_of(code, offset) if code is not None and filename == __file__ else None
        frames.append([name, filename, first_line, line, entry])
    return frames

class Model:
    def method(self):
        here()
        return _zorv._python_stack()  # at method

def outer():
    here()
    def inner():
        here()
        return Model().method()  # at inner
    return inner()  # at outer

def numbers():
    here()
    yield _zorv._python_stack()  # at numbers

async def waiting():
    here()
    await asyncio.sleep(0)
    return _zorv._python_stack()  # at waiting

def with_callback():
    here()
    kept = []
    sorted([1], key=lambda _: kept.append(_zorv._python_stack()))  # at with_callback
    return kept[0]

def worker(into):
    here()
    into.append(_zorv._python_stack())  # at worker

here()
from_thread = []
thread = threading.Thread(target=worker, args=(from_thread,))
thread.start()
thread.join()
results = {
    "nested": outer(),  # at module
    "generator": next(numbers()),  # at module
    "coroutine": asyncio.run(waiting()),  # at module
    "callback": with_callback(),  # at module
    "thread": from_thread[0],
}
print(json.dumps({key: described(stack) for key, stack in results.items()}))
'''


def _marked_lines(source):
    lines = {}
    for number, text in enumerate(source.splitlines(), 1):
        if "# at " in text:
            lines.setdefault(text.split("# at ")[1].strip(), set()).add(number)
    return lines


def _first_lines(source):
    firsts = {}
    for number, text in enumerate(source.splitlines(), 1):
        stripped = text.strip()
        if stripped.startswith(("def ", "async def ")):
            firsts[stripped.split("def ")[1].split("(")[0]] = number
    return firsts


@pytest.fixture(params=INTERPRETERS, ids=[version for version, _ in INTERPRETERS])
def walked(request, tmp_path):
    version, python = request.param
    probe = subprocess.run([python, "-c", "import zorvek, _zorv; _zorv._python_stack"],
                           capture_output=True, text=True, timeout=120)
    if probe.returncode != 0:
        pytest.skip(f"zorvek is not installed for Python {version} ({python})")
    script = tmp_path / "walked.py"
    script.write_text(PROGRAM)
    run = subprocess.run([python, str(script)], capture_output=True, text=True, timeout=120,
                         cwd=tmp_path)
    assert run.returncode == 0, run.stderr
    assert "Python frames are off" not in run.stderr
    return tuple(map(int, version.split("."))), str(script), json.loads(run.stdout)


def _names(stack):
    return [frame[0] for frame in stack]


def _entries(stack):
    return [frame[4] for frame in stack]


def test_nested_functions_and_a_method(walked):
    version, script, results = walked
    stack = results["nested"]
    if version >= (3, 11):
        assert _names(stack) == ["Model.method", "outer.<locals>.inner", "outer", "<module>"]
        # Python calls Python within one evaluation: one entry, at the root.
        assert _entries(stack) == [False, False, False, True]
    else:
        assert _names(stack) == ["method", "inner", "outer", "<module>"]
        assert _entries(stack) == [True, True, True, True]
    assert all(frame[1] == script for frame in stack)
    firsts = _first_lines(PROGRAM)
    assert [frame[2] for frame in stack] == [firsts["method"], firsts["inner"], firsts["outer"], 1]
    marked = _marked_lines(PROGRAM)
    assert stack[0][3] in marked["method"]
    assert stack[1][3] in marked["inner"]
    assert stack[2][3] in marked["outer"]
    assert stack[3][3] in marked["module"]


def test_a_generator_resumed_from_c_is_an_entry(walked):
    version, script, results = walked
    stack = results["generator"]
    assert _names(stack) == ["numbers", "<module>"]
    assert _entries(stack) == [True, True]
    assert stack[0][1] == script
    assert stack[0][3] in _marked_lines(PROGRAM)["numbers"]
    assert stack[1][3] in _marked_lines(PROGRAM)["module"]


def test_a_coroutine_under_the_event_loop(walked):
    version, script, results = walked
    stack = results["coroutine"]
    assert stack[0][0] == "waiting"
    assert stack[0][4] is True  # the task steps the coroutine from C
    assert stack[0][3] in _marked_lines(PROGRAM)["waiting"]
    assert stack[-1][0] == "<module>" and stack[-1][4] is True
    assert stack[-1][3] in _marked_lines(PROGRAM)["module"]
    # Between them, the event loop's own frames, in the standard library.
    loop_frames = stack[1:-1]
    assert loop_frames and all(frame[1] != script for frame in loop_frames)
    assert any(frame[1].endswith(os.path.join("asyncio", "base_events.py")) for frame in loop_frames)
    if version >= (3, 11):
        assert "BaseEventLoop.run_until_complete" in _names(loop_frames)
    else:
        assert "run_until_complete" in _names(loop_frames)


def test_a_callback_of_a_c_function_starts_an_evaluation(walked):
    version, script, results = walked
    stack = results["callback"]
    if version >= (3, 11):
        assert _names(stack) == ["with_callback.<locals>.<lambda>", "with_callback", "<module>"]
        assert _entries(stack) == [True, False, True]
    else:
        assert _names(stack) == ["<lambda>", "with_callback", "<module>"]
        assert _entries(stack) == [True, True, True]
    assert stack[1][3] in _marked_lines(PROGRAM)["with_callback"]


def test_a_thread_of_the_program_walks_its_own_frames(walked):
    version, script, results = walked
    stack = results["thread"]
    assert stack[0][0] == "worker"
    assert stack[0][3] in _marked_lines(PROGRAM)["worker"]
    assert stack[-1][0] == ("Thread._bootstrap" if version >= (3, 11) else "_bootstrap")
    assert stack[-1][4] is True
    assert "<module>" not in _names(stack)
    assert all(frame[1].endswith("threading.py") for frame in stack[1:])
