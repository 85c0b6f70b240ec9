"""Merged stacks from STACK and PYCODE records as the reader gives them (dicts):
native frames named through a library built here and loaded into this process
(with functions of the interpreter's names), Python frames from this
interpreter's own code objects, their lines from their line tables."""

import ctypes
import dis
import os
import sys

import pytest

from zvk_testing import APP, build_shared_library

from zorvek.stacks import (LAUNCHER, SCRIPT, USER, WAITING, PythonCodes, StackNamer, launcher_frames,
                           launcher_role, merge, python_groups, stack_key)
from zorvek.symbols import Symbolizer

# The interpreter's functions a native stack passes through, and a kernel a
# Python function calls; the evaluation loop's cold part as the compiler names it.
NAMES_C = r"""
volatile int sink;
__attribute__((noinline)) void Py_RunMain(void) { sink++; sink++; sink++; }
__attribute__((noinline)) void _PyEval_EvalFrameDefault(void) { sink++; sink++; sink++; }
void eval_cold(void) __asm__("_PyEval_EvalFrameDefault.cold");
__attribute__((noinline)) void eval_cold(void) { sink++; sink++; sink++; }
__attribute__((noinline)) void PyObject_Call(void) { sink++; sink++; sink++; }
__attribute__((noinline)) void blas_kernel(void) { sink++; sink++; sink++; }
"""


@pytest.fixture(scope="module")
def native(tmp_path_factory):
    """{function: address} in the library loaded here, and this process's pid
    with its mappings in a Symbolizer."""
    library = build_shared_library(tmp_path_factory.mktemp("stacks"), "evalnames", NAMES_C,
                                   ("cc", "gcc"), ("-O0",))
    loaded = ctypes.CDLL(str(library))
    names = ("Py_RunMain", "_PyEval_EvalFrameDefault", "_PyEval_EvalFrameDefault.cold",
             "PyObject_Call", "blas_kernel")
    addresses = {n: ctypes.cast(getattr(loaded, n), ctypes.c_void_p).value for n in names}
    symbols = Symbolizer()
    pid = os.getpid()
    with open("/proc/self/maps") as maps:
        for line in maps:
            parts = line.split(None, 5)
            if parts[1][2] == "x":
                start, end = (int(x, 16) for x in parts[0].split("-"))
                symbols.add_mapping(pid, start, end - start, int(parts[2], 16),
                                    parts[5].strip() if len(parts) > 5 else "")
    yield pid, addresses, symbols, loaded
    symbols.close()


@pytest.fixture(scope="module")
def app(tmp_path_factory):
    """PYCODE dicts of main, step and inner (ids 1, 2, 3), compiled from a file
    app.py, and for each the offset of a call or return and its line."""
    path = tmp_path_factory.mktemp("app") / "app.py"
    path.write_text(APP)
    namespace = {}
    exec(compile(APP, str(path), "exec"), namespace)
    records, points = {}, {}
    for code_id, name in enumerate(("main", "step", "inner"), 1):
        code = namespace[name].__code__
        records[name] = {"code_id": code_id, "first_line": code.co_firstlineno,
                         "py_version": sys.hexversion,
                         "qualname": getattr(code, "co_qualname", code.co_name),
                         "filename": str(path), "linetable": code.co_linetable,
                         "linetable_cut": False}
        wanted = "RETURN" if name == "inner" else "CALL"
        at = next(i for i in dis.get_instructions(code) if i.opname.startswith(wanted))
        line = next(line for start, end, line in code.co_lines() if start <= at.offset < end)
        points[name] = (code_id, at.offset, line)
    return records, points


def codes_of(pid, app):
    codes = PythonCodes()
    for record in app[0].values():
        codes.add(pid, record)
    return codes


def py(app, *frames):
    """Python frames leaf first as the reader gives them: (code id, offset, entry)."""
    return [(app[1][name][0], app[1][name][1], entry) for name, entry in frames]


def text(app, name):
    return "%s (app.py:%d)" % (name, app[1][name][2])


def stack(pid, native, names, python, waiting=False):
    """A STACK dict: `names` the native functions leaf first; the leaf is an
    interrupted instruction, the others return addresses."""
    addresses = native[1]
    return {"pid": pid, "tid": pid, "event": "STACK", "hw": "CPU", "weight_ns": 1000000,
            "clock": "wall" if waiting else "cpu", "waiting": waiting, "flags": 0,
            "ips": [addresses[n] + (4 if i == 0 else 5) for i, n in enumerate(names)],
            "py": python}


def named(native, app, rec, codes=None):
    pid = native[0]
    namer = StackNamer(native[2], codes or codes_of(pid, app))
    return namer.name(stack_key(rec))


def test_lines_are_those_of_the_instructions(app):
    lines = {name: point[2] for name, point in app[1].items()}
    assert lines == {"main": 2, "step": 7, "inner": 12}


def test_groups_end_at_entry_frames_and_come_root_first():
    frames = [(5, 0, True), (4, 0, False), (3, 0, True), (2, 0, False), (1, 0, False)]
    # 1 and 2 are the root-most call's, its entry frame not read (a cut stack).
    assert python_groups(frames) == [[(1, 0, False), (2, 0, False)],
                                     [(3, 0, True), (4, 0, False)], [(5, 0, True)]]
    assert python_groups([]) == []
    assert merge(["root", "_PyEval_EvalFrameDefault", "leaf"], [["a", "b"]]) == [
        "a", "b", "leaf"]


def test_only_the_interpreters_own_frames_between_python_frames_are_left_out():
    native = ["main", "_PyEval_EvalFrameDefault", "_PyFunction_Vectorcall", "np_apply",
              "_PyEval_EvalFrameDefault", "list_sort"]
    modules = ["python", "python", "python", "numpy.so", "python", "python"]
    assert merge(native, [["outer"], ["callback"]], modules) == [
        "outer", "np_apply", "callback", "list_sort"]
    assert merge(native, [["outer"], ["callback"]]) == [
        "outer", "_PyFunction_Vectorcall", "np_apply", "callback", "list_sort"]


def test_each_evaluation_frame_gives_way_to_its_group(native, app):
    pid = native[0]
    rec = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault", "PyObject_Call",
                              "_PyEval_EvalFrameDefault", "Py_RunMain"],
                py(app, ("inner", True), ("step", False), ("main", True)))
    # PyObject_Call is the interpreter's own call between two Python functions.
    assert named(native, app, rec) == (text(app, "main"), text(app, "step"), text(app, "inner"),
                                       "blas_kernel")


def test_the_cold_part_of_the_evaluation_loop_is_an_evaluation_frame(native, app):
    pid = native[0]
    rec = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault.cold", "PyObject_Call",
                              "_PyEval_EvalFrameDefault", "Py_RunMain"],
                py(app, ("inner", True), ("step", False), ("main", True)))
    # PyObject_Call is the interpreter's own call between two Python functions.
    assert named(native, app, rec) == (text(app, "main"), text(app, "step"), text(app, "inner"),
                                       "blas_kernel")


def test_an_evaluation_frame_without_a_group_is_dropped(native, app):
    """The leaf-most call had not pushed its Python frame yet."""
    pid = native[0]
    rec = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault", "PyObject_Call",
                              "_PyEval_EvalFrameDefault", "Py_RunMain"],
                py(app, ("step", False), ("main", True)))
    assert named(native, app, rec) == (text(app, "main"), text(app, "step"), "blas_kernel")


def test_groups_beyond_a_cut_native_walk_stand_at_the_root(native, app):
    pid = native[0]
    rec = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault"],
                py(app, ("inner", True), ("step", False), ("main", True)))
    assert named(native, app, rec) == (text(app, "main"), text(app, "step"),
                                       text(app, "inner"), "blas_kernel")


def test_a_waiting_sample_without_native_frames_ends_in_waiting(native, app):
    pid = native[0]
    rec = stack(pid, native, [], py(app, ("step", False), ("main", True)), waiting=True)
    rec["ips"] = []
    assert named(native, app, rec) == (text(app, "main"), text(app, "step"), WAITING)


def test_a_root_group_without_its_entry_frame_still_leads(native, app):
    """A Python stack cut on its root side: the walk never met the entry frame."""
    pid = native[0]
    rec = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault", "Py_RunMain"],
                py(app, ("inner", False), ("step", False)))
    assert named(native, app, rec) == (text(app, "step"), text(app, "inner"), "blas_kernel")


def test_unknown_codes_and_lines_are_stated(native, app):
    pid = native[0]
    codes = PythonCodes(python_line=lambda version, first, table, offset: -1)
    codes.add(pid, app[0]["step"])
    rec = stack(pid, native, [], [(99, 4, False), (2, 0, True)])
    # No line for the instruction: the function's first line stands for it.
    assert named(native, app, rec, codes) == ("step (app.py:5)", "[python code 99]")


def test_a_forked_child_finds_the_codes_its_parent_announced(native, app):
    pid = native[0]
    codes = codes_of(pid, app)
    child = pid + 100000
    codes.inherit(child, pid)
    code_id, offset, line = app[1]["main"]
    assert codes.frame(child, code_id, offset) == text(app, "main")
    assert codes.function(text(app, "main")) == "main (app.py)"
    assert codes.frame(child + 1, code_id, offset) == "[python code %d]" % code_id


def test_the_readers_shapes_give_equal_keys(native, app):
    pid = native[0]
    as_lists = stack(pid, native, ["blas_kernel"], [[1, 4, True]])
    as_tuples = dict(as_lists, ips=tuple(as_lists["ips"]), py=[(1, 4, True)])
    assert stack_key(as_lists) == stack_key(as_tuples)
    assert stack_key(dict(as_lists, waiting=True)) != stack_key(as_lists)


def test_many_samples_are_named_from_caches(native, app):
    pid = native[0]
    namer = StackNamer(native[2], codes_of(pid, app))
    shapes = [["blas_kernel", "_PyEval_EvalFrameDefault", "Py_RunMain"],
              ["PyObject_Call", "_PyEval_EvalFrameDefault", "Py_RunMain"]]
    keys = [stack_key(stack(pid, native, shapes[i % 2],
                            py(app, ("inner" if i % 3 else "step", False), ("main", True))))
            for i in range(20000)]
    names = namer.name_many(keys)
    assert len(names) == 20000 and len(set(names)) == 4
    assert names[1] == (text(app, "main"), text(app, "inner"), "PyObject_Call")


def test_cut_and_whole_walks_of_one_python_stack_line_up(native, app):
    """The startup frames root-side of the outermost Python frame are left out, so
    a walk cut at any depth names the same stack as the whole one."""
    pid = native[0]
    python = py(app, ("inner", True), ("step", False), ("main", True))
    whole = ["blas_kernel", "_PyEval_EvalFrameDefault", "PyObject_Call",
             "_PyEval_EvalFrameDefault", "Py_RunMain"]
    expected = (text(app, "main"), text(app, "step"), text(app, "inner"), "blas_kernel")
    for depth in range(1, len(whole) + 1):
        assert named(native, app, stack(pid, native, whole[:depth], python)) == expected, depth


def test_a_stack_without_python_frames_keeps_its_native_frames(native, app):
    pid = native[0]
    rec = stack(pid, native, ["blas_kernel", "PyObject_Call", "Py_RunMain"], [])
    assert named(native, app, rec) == ("Py_RunMain", "PyObject_Call", "blas_kernel")


def test_a_library_between_a_root_group_and_the_first_evaluation_frame_stays():
    native = ["np_apply", "_PyFunction_Vectorcall", "_PyEval_EvalFrameDefault", "leaf"]
    modules = ["numpy.so", "python", "python", "python"]
    assert merge(native, [["outer"], ["callback"]], modules) == [
        "outer", "np_apply", "callback", "leaf"]


PACKAGE = "/usr/lib/python3/site-packages/zorvek/"


@pytest.mark.parametrize("qualname, filename, role", [
    ("main", PACKAGE + "cli.py", LAUNCHER),
    ("_Program.run", PACKAGE + "record.py", LAUNCHER),
    ("_run_code", "<frozen runpy>", LAUNCHER),
    ("_run_code", "/usr/lib/python3.10/runpy.py", LAUNCHER),
    ("<module>", "/usr/local/bin/zorvek", SCRIPT),
    ("run", "/home/me/project/record.py", USER),          # the user's own record.py
    ("run", "/home/me/zorvek/mine.py", USER),             # not one of the package's files
    ("<module>", "/home/me/train.py", USER),
    ("Thread._bootstrap", "/usr/lib/python3.11/threading.py", USER),
])
def test_launcher_roles(qualname, filename, role):
    assert launcher_role(qualname, filename) == role


def test_only_the_root_most_launcher_frames_are_left_out():
    assert launcher_frames([SCRIPT, LAUNCHER, LAUNCHER, USER, LAUNCHER]) == 3
    assert launcher_frames([LAUNCHER, LAUNCHER, USER]) == 2
    # A script of that name without the package's frames after it is the user's.
    assert launcher_frames([SCRIPT, USER]) == 0
    assert launcher_frames([USER, LAUNCHER, USER]) == 0
    # The profiler's own work, with no user frame under it, stays as it is.
    assert launcher_frames([SCRIPT, LAUNCHER, LAUNCHER]) == 0
    assert launcher_frames([]) == 0


def test_the_launchers_frames_and_the_glue_under_them_are_left_out(native, app):
    """zorvek record's frames stand above the program's: the script, cli.py,
    record.py, then the program's <module> run by exec (a call of the
    interpreter's between two evaluation frames)."""
    pid = native[0]
    codes = codes_of(pid, app)
    for code_id, (qualname, filename) in enumerate(
            [("<module>", "/usr/bin/zorvek"), ("main", PACKAGE + "cli.py"),
             ("_Program.run", PACKAGE + "record.py"), ("_run_code", "<frozen runpy>")], 10):
        codes.add(pid, {"code_id": code_id, "first_line": 7, "py_version": sys.hexversion,
                        "qualname": qualname, "filename": filename, "linetable": b""})
    launcher = [(13, 0, True), (12, 0, False), (11, 0, False), (10, 0, True)]
    rec = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault", "PyObject_Call",
                              "_PyEval_EvalFrameDefault", "Py_RunMain"],
                py(app, ("inner", False), ("main", True)) + launcher)
    assert named(native, app, rec, codes) == (text(app, "main"), text(app, "inner"),
                                              "blas_kernel")
    # Cut: the launcher's group stands at the root, and goes the same way.
    cut = dict(rec, ips=rec["ips"][:2])
    assert named(native, app, cut, codes) == (text(app, "main"), text(app, "inner"),
                                              "blas_kernel")
    # The profiler's own frames alone stay: there is nothing of the user's under them.
    alone = stack(pid, native, ["blas_kernel", "_PyEval_EvalFrameDefault", "Py_RunMain"],
                  [(12, 0, False), (11, 0, False), (10, 0, True)])
    assert named(native, app, alone, codes) == (
        "<module> (zorvek:7)", "main (cli.py:7)", "_Program.run (record.py:7)", "blas_kernel")


def test_a_launch_stack_leaves_the_launchers_frames_out(native, app):
    pid = native[0]
    codes = codes_of(pid, app)
    codes.add(pid, {"code_id": 10, "first_line": 7, "py_version": sys.hexversion,
                    "qualname": "_Program.run", "filename": PACKAGE + "record.py",
                    "linetable": b""})
    launch = py(app, ("inner", False), ("main", True)) + [(10, 0, True)]
    assert codes.stack(pid, launch) == [text(app, "main"), text(app, "inner")]
    assert codes.stack(pid, launch[:2]) == [text(app, "main"), text(app, "inner")]
    assert codes.stack(pid, [(10, 0, True)]) == ["_Program.run (record.py:7)"]

