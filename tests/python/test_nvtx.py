"""NVTX ranges of the `nvtx` package (PyPI; it needs no GPU) reaching the capture
through the injection library, libzorv_nvtx.so, in fresh interpreters: NVTX reads
NVTX_INJECTION64_PATH once per library, at its first NVTX call, and the capture's
start hands its table only to libraries loaded by then."""

import importlib.util
import os
import re
import textwrap

import pytest

from zvk_testing import (ANNOTATION, BEGIN, END, REPORT_SOURCE, read_capture,
                         run_scenario_script)

pytest.importorskip("nvtx")

MARKER = 3
NOTHING_FOUND = "Couldn't find any library with annotations"


def injection_library():
    """The library installed with the zorvek package, or ZORV_NVTX_LIBRARY."""
    path = os.environ.get("ZORV_NVTX_LIBRARY")
    if path is None:
        package = importlib.util.find_spec("zorvek")
        assert package is not None, "the zorvek package is not installed"
        path = os.path.join(package.submodule_search_locations[0], "libzorv_nvtx.so")
    assert os.path.exists(path), f"{path} is missing"
    return path


# The variable comes from the test alone (TEST_NVTX_INJECTION), whatever the
# environment pytest runs in has.
PRELUDE = r'''
import ctypes, json, os, sys, threading, time
os.environ.pop("NVTX_INJECTION64_PATH", None)
if os.environ.get("TEST_NVTX_INJECTION"):
    os.environ["NVTX_INJECTION64_PATH"] = os.environ["TEST_NVTX_INJECTION"]
''' + REPORT_SOURCE + r'''
def load_injection():
    """What zorvek.profile does before the start, by hand."""
    ctypes.CDLL(os.environ["NVTX_INJECTION64_PATH"], mode=os.RTLD_LOCAL)

def injection_loaded():
    with open("/proc/self/maps") as maps:
        return "libzorv_nvtx.so" in maps.read()

def profiler(name="nvtx_%p"):
    import _zorv
    config = _zorv.Config()
    config.profiler = {"BucketCount": "4", "BucketSizeMB": "1",
                       "RecordFile": os.path.join(os.getcwd(), name)}
    z = _zorv.Zorvek.instance()
    assert repr(z.configure(config)) == "OK"
    return z
'''


def run_scenario(tmp_path, code, injection=True, env=None):
    """Runs PRELUDE then code in tmp_path, with the variable naming the injection
    library unless told otherwise. Returns what it reported under @keys, its
    stderr and the annotation records of each capture file, in file order."""
    full_env = dict(env or {})
    full_env["TEST_NVTX_INJECTION"] = injection_library() if injection else ""
    reported, stderr = run_scenario_script(tmp_path, PRELUDE, code, env=full_env, timeout=120)
    # In the order written: by the numbers in their names (time, running number).
    files = sorted(tmp_path.rglob("*.zvkraw"),
                   key=lambda p: [int(part) for part in re.findall(r"\d+", p.name)])
    captures = [[r for r in read_capture(str(p)).records if r["hw"] == ANNOTATION and r["type"] != 2]
                for p in files]
    return reported, stderr, captures


def messages(records, kind=BEGIN):
    return [r["msg"] for r in records if r["type"] == kind]


def replay(records):
    """Per thread, in time order, each END must close the innermost open BEGIN.
    Returns {tid: [(message, depth) in the order they began]}."""
    opened, began = {}, {}
    for record in sorted(records, key=lambda r: r["timestamp"]):
        if record["type"] not in (BEGIN, END):
            continue
        stack = opened.setdefault(record["tid"], [])
        if record["type"] == BEGIN:
            began.setdefault(record["tid"], []).append((record["msg"], len(stack)))
            stack.append(record["token"])
        else:
            assert stack and stack[-1] == record["token"], (record, stack)
            stack.pop()
    assert all(not stack for stack in opened.values()), opened
    return began


def test_push_pop_and_annotate_nest_by_time_on_the_calling_thread(tmp_path):
    reported, _, captures = run_scenario(tmp_path, """
        load_injection()
        z = profiler()
        z.start_profiling()
        import nvtx

        @nvtx.annotate()
        def decorated():
            with nvtx.annotate("in decorated"):
                pass

        nvtx.push_range("outer")
        with nvtx.annotate("context"):
            decorated()
        nvtx.pop_range()
        nvtx.pop_range()          # past the bottom: nothing recorded, nothing raised
        nvtx.pop_range()
        nvtx.push_range("after the extra pops")
        nvtx.pop_range()
        report("tid", threading.get_native_id())
        assert repr(z.stop_profiling()) == "OK"
    """)
    (records,) = captures
    began = replay(records)
    assert began == {reported["tid"]: [("outer", 0), ("context", 1), ("decorated", 2),
                                       ("in decorated", 3), ("after the extra pops", 0)]}
    assert len([r for r in records if r["type"] == END]) == 5
    assert len({r["token"] for r in records if r["type"] == BEGIN}) == 5
    outer, context = records[0], records[1]
    outer_end = next(r for r in records if r["type"] == END and r["token"] == outer["token"])
    context_end = next(r for r in records if r["type"] == END and r["token"] == context["token"])
    assert outer["timestamp"] <= context["timestamp"] <= context_end["timestamp"] <= outer_end["timestamp"]


def test_start_end_ranges_end_by_id_on_another_thread_and_marks(tmp_path):
    reported, _, captures = run_scenario(tmp_path, """
        load_injection()
        z = profiler()
        z.start_profiling()
        import nvtx
        ids, tids = {}, {}
        def starter():
            tids["start"] = threading.get_native_id()
            ids["first"] = nvtx.start_range("first")
            ids["second"] = nvtx.start_range("second", domain="loader")
        def ender():
            tids["end"] = threading.get_native_id()
            nvtx.end_range(ids["first"])   # not in reverse order: these overlap freely
            nvtx.end_range(ids["second"])
        for target in (starter, ender):
            t = threading.Thread(target=target)
            t.start()
            t.join()
        nvtx.mark("a mark")
        nvtx.mark("a mark in a domain", domain="loader")
        tids["main"] = threading.get_native_id()
        report("tids", tids)
        assert repr(z.stop_profiling()) == "OK"
    """)
    (records,) = captures
    tids = reported["tids"]
    assert messages(records) == ["first", "loader/second"]
    first, second = [r for r in records if r["type"] == BEGIN]
    ends = [r for r in records if r["type"] == END]
    assert [e["token"] for e in ends] == [first["token"], second["token"]]
    assert first["tid"] == second["tid"] == tids["start"]
    assert all(e["tid"] == tids["end"] for e in ends)
    marks = [r for r in records if r["type"] == MARKER]
    assert [m["msg"] for m in marks] == ["a mark", "loader/a mark in a domain"]
    assert all(m["token"] == 0 and m["tid"] == tids["main"] for m in marks)


def test_domains_prefix_their_messages_and_keep_their_own_stacks(tmp_path):
    _, _, captures = run_scenario(tmp_path, """
        load_injection()
        z = profiler()
        z.start_profiling()
        import nvtx
        nvtx.push_range("a0", domain="alpha")
        nvtx.push_range("b0", domain="beta")
        nvtx.push_range("a1", domain="alpha")
        nvtx.pop_range(domain="alpha")       # alpha's pops end alpha's ranges
        nvtx.pop_range(domain="alpha")
        nvtx.pop_range(domain="alpha")       # past alpha's bottom: nothing
        nvtx.pop_range(domain="beta")

        # The Domain API with its registered strings, reused as a training loop does.
        domain = nvtx.get_domain("lib")
        handle = domain.get_registered_string("step")
        attributes = domain.get_event_attributes(message="step")
        for _ in range(3):
            domain.push_range(attributes)
            domain.pop_range()
        range_id = domain.start_range(message="load")
        domain.end_range(range_id)
        domain.mark(message="tick")
        with nvtx.annotate("plain"):         # the default domain: no prefix
            pass
        # Colours, categories and payloads are taken and left out of the record.
        with nvtx.annotate("größe", domain="données", color="red", category="io", payload=3):
            pass
        assert repr(z.stop_profiling()) == "OK"
    """)
    (records,) = captures
    assert messages(records) == ["alpha/a0", "beta/b0", "alpha/a1", "lib/step", "lib/step",
                                 "lib/step", "lib/load", "plain", "données/größe"]
    assert messages(records, MARKER) == ["lib/tick"]
    by_message = {r["msg"]: r["token"] for r in records if r["type"] == BEGIN}
    ends = [r["token"] for r in records if r["type"] == END]
    # a1 and a0 ended first, by alpha's pops, though beta's b0 began between them.
    assert ends[:3] == [by_message["alpha/a1"], by_message["alpha/a0"], by_message["beta/b0"]]
    assert len(ends) == 9


def test_threads_nest_each_on_their_own(tmp_path):
    reported, _, captures = run_scenario(tmp_path, """
        load_injection()
        z = profiler()
        z.start_profiling()
        import nvtx
        tids = []
        def work(n):
            tids.append(threading.get_native_id())
            for _ in range(20):
                with nvtx.annotate(f"t{n}/0"):
                    nvtx.push_range(f"t{n}/1")
                    with nvtx.annotate(f"t{n}/2", domain="d"):
                        nvtx.mark(f"t{n} mark")
                    nvtx.pop_range()
        threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
        for t in threads: t.start()
        for t in threads: t.join()
        report("tids", tids)
        assert repr(z.stop_profiling()) == "OK"
    """)
    (records,) = captures
    # The domain has a stack of its own: its range is at depth 0 of that stack,
    # but in time it lies inside the thread's other two.
    began = replay(records)
    assert sorted(began) == sorted(reported["tids"])
    for tid, ranges in began.items():
        n = ranges[0][0][1]
        assert ranges == [(f"t{n}/0", 0), (f"t{n}/1", 1), (f"d/t{n}/2", 2)] * 20
        marks = [r for r in records if r["type"] == MARKER and r["tid"] == tid]
        assert [m["msg"] for m in marks] == [f"t{n} mark"] * 20


def test_nothing_is_recorded_before_the_start_or_after_the_stop(tmp_path):
    _, _, captures = run_scenario(tmp_path, """
        load_injection()
        import nvtx
        nvtx.push_range("before the start")
        nvtx.mark("mark before the start")
        early = nvtx.start_range("started before the start")
        z = profiler()
        z.start_profiling()
        with nvtx.annotate("during"):
            pass
        nvtx.pop_range()                     # began before the start: no end recorded
        nvtx.end_range(early)
        assert repr(z.stop_profiling()) == "OK"
        with nvtx.annotate("after the stop"):
            nvtx.mark("mark after the stop")
        nvtx.pop_range()
        # The next capture sends on whatever the buffers still hold; its own
        # annotation shows that it ran.
        import _zorv
        z.start_profiling()
        _zorv.annotation_end(_zorv.annotation_begin("next capture"))
        assert repr(z.stop_profiling()) == "OK"
    """)
    first, second = captures
    assert messages(first) == ["during"]
    assert len([r for r in first if r["type"] == END]) == 1
    assert messages(first, MARKER) == []
    assert messages(second) == ["next capture"]
    assert len(second) == 2


def test_without_the_variable_nothing_is_loaded_and_nothing_breaks(tmp_path):
    reported, stderr, captures = run_scenario(tmp_path, """
        z = profiler()
        z.start_profiling()
        import nvtx
        with nvtx.annotate("untraced"):
            nvtx.push_range("untraced")
            nvtx.pop_range()
            nvtx.pop_range()
            nvtx.mark("untraced")
            nvtx.end_range(nvtx.start_range("untraced"))
        report("loaded", injection_loaded())
        assert repr(z.stop_profiling()) == "OK"
    """, injection=False)
    assert reported["loaded"] is False
    assert captures == [[]]
    assert NOTHING_FOUND in stderr


def test_with_the_injection_loaded_the_hook_search_finds_it(tmp_path):
    _, stderr, captures = run_scenario(tmp_path, """
        load_injection()
        z = profiler()
        z.start_profiling()
        import nvtx
        nvtx.mark("found")
        assert repr(z.stop_profiling()) == "OK"
    """)
    assert NOTHING_FOUND not in stderr
    assert "Can't find libraries with annotations" not in stderr
    assert messages(captures[0], MARKER) == ["found"]


def test_nvtx_first_used_after_the_start_is_recorded_from_the_next_start(tmp_path):
    reported, stderr, captures = run_scenario(tmp_path, """
        z = profiler()
        z.start_profiling()
        import nvtx
        with nvtx.annotate("first capture"):   # loads the injection library: too late
            pass
        report("loaded", injection_loaded())
        assert repr(z.stop_profiling()) == "OK"
        z.start_profiling()
        with nvtx.annotate("second capture"):
            pass
        assert repr(z.stop_profiling()) == "OK"
    """)
    assert reported["loaded"] is True
    first, second = captures
    assert first == []
    assert messages(second) == ["second capture"]
    assert stderr.count(NOTHING_FOUND) == 1


def test_a_library_touching_nvtx_after_the_start_is_recorded_when_the_injection_was_loaded(tmp_path):
    _, _, captures = run_scenario(tmp_path, """
        load_injection()
        z = profiler()
        z.start_profiling()
        import nvtx                             # its NVTX attaches to the patched library
        with nvtx.annotate("late library"):
            pass
        assert repr(z.stop_profiling()) == "OK"
    """)
    assert messages(captures[0]) == ["late library"]


# ---- zorvek.profile and zorvek record turn it on ----

def test_profile_sets_the_variable_and_loads_the_injection(tmp_path):
    reported, stderr, captures = run_scenario(tmp_path, """
        import zorvek, zorvek.nvtx
        with zorvek.profile("out", sample_hz=0, gpu=False, quiet=True):
            report("variable", os.environ.get("NVTX_INJECTION64_PATH"))
            report("loaded", injection_loaded())
            import nvtx
            with nvtx.annotate("under profile", domain="app"):
                pass
        report("library", zorvek.nvtx.library_path())
    """, injection=False)
    assert reported["variable"] == reported["library"]
    assert reported["loaded"] is True
    assert messages(captures[0]) == ["app/under profile"]
    assert "zorvek:" not in stderr


def test_profile_without_nvtx_leaves_nvtx_alone(tmp_path):
    reported, _, captures = run_scenario(tmp_path, """
        import zorvek
        with zorvek.profile("out", sample_hz=0, gpu=False, quiet=True, nvtx=False):
            import nvtx
            with nvtx.annotate("not recorded"):
                pass
            report("variable", os.environ.get("NVTX_INJECTION64_PATH"))
            report("loaded", injection_loaded())
    """, injection=False)
    assert reported == {"variable": None, "loaded": False}
    assert captures == [[]]


def test_profile_keeps_a_variable_naming_another_tool_and_says_so(tmp_path):
    reported, stderr, captures = run_scenario(tmp_path, """
        os.environ["NVTX_INJECTION64_PATH"] = "/opt/another/tool.so"
        import zorvek
        for _ in range(2):                     # said once
            with zorvek.profile("out", sample_hz=0, gpu=False, quiet=True):
                import nvtx
                with nvtx.annotate("for the other tool"):
                    pass
        report("variable", os.environ.get("NVTX_INJECTION64_PATH"))
        report("loaded", injection_loaded())
    """, injection=False)
    assert reported == {"variable": "/opt/another/tool.so", "loaded": False}
    said = [line for line in stderr.splitlines() if "NVTX_INJECTION64_PATH" in line]
    assert said == ["zorvek: NVTX_INJECTION64_PATH is set to /opt/another/tool.so: NVTX ranges "
                    "go to that tool, not into the capture"]
    assert all(records == [] for records in captures)


@pytest.mark.parametrize("options, expected", [([], ["step"]), (["--no-nvtx"], [])])
def test_zorvek_record_turns_it_on_and_no_nvtx_off(tmp_path, options, expected):
    program = tmp_path / "train.py"
    program.write_text(textwrap.dedent("""
        import nvtx
        for _ in range(2):
            with nvtx.annotate("step"):
                pass
    """))
    _, _, captures = run_scenario(tmp_path, f"""
        sys.argv = ["zorvek", "record", "-o", "out", "-F", "0", "--no-gpu", "-q",
                    *{options!r}, "--", "python", {str(program)!r}]
        from zorvek.cli import main
        sys.exit(main())
    """, injection=False)
    (records,) = captures
    assert messages(records) == expected * 2
    assert len([r for r in records if r["type"] == END]) == len(expected) * 2
