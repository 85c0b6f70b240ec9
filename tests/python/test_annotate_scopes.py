"""zorvek.annotate on code whose calls outlive one stretch of a thread: coroutines
that overlap on one event loop, generators and async generators resumed step by
step, and a range left open by a thread that ended. Each scenario runs in a fresh
interpreter: the profiler is configured once per process."""

import os

from zvk_testing import (ANNOTATION, BEGIN, END, REPORT_SOURCE, begins, read_capture,
                         run_scenario_script)

PRELUDE = r'''
import asyncio, json, os, sys, threading, time
import zorvek
''' + REPORT_SOURCE


def run_scenario(tmp_path, code):
    got, _ = run_scenario_script(tmp_path, PRELUDE, code)
    return got


def the_capture(directory, pid):
    (path,) = [p for p in directory.iterdir() if p.name.endswith(".zvkraw") and f"_{pid}_" in p.name]
    return read_capture(path)


def ranges(capture, name):
    """[(begin record, end record or None)] of the ranges named `name`, in the
    order they began: each BEGIN with the END that carries its token."""
    ends = {r["token"]: r for r in capture.records
            if r["hw"] == ANNOTATION and r["type"] == END}
    ordered = sorted(begins(capture, name), key=lambda r: r["timestamp"])
    return [(r, ends.get(r["token"])) for r in ordered]


def assert_nested(capture):
    """Per thread, each END closes the innermost range still open, and none stays
    open."""
    opened = {}
    for record in capture.records:
        if record["hw"] != ANNOTATION or record["type"] not in (BEGIN, END):
            continue
        stack = opened.setdefault(record["tid"], [])
        if record["type"] == BEGIN:
            stack.append(record["token"])
        else:
            assert stack and stack[-1] == record["token"], (record, stack)
            stack.pop()
    assert all(not stack for stack in opened.values()), opened


def test_overlapping_coroutines_each_end_their_own_range(tmp_path):
    # "short" begins first and ends first: with one range object shared by the
    # calls, its exit would end "long"'s entry, the innermost of the thread.
    got = run_scenario(tmp_path, """
        @zorvek.annotate("call")
        async def call(label, seconds):
            report("began_" + label, time.monotonic_ns())
            await asyncio.sleep(seconds)
            return label

        async def main():
            short = asyncio.ensure_future(call("short", 0.1))
            await asyncio.sleep(0.02)
            long = asyncio.ensure_future(call("long", 0.4))
            return await asyncio.gather(short, long)

        with zorvek.profile("out", sample_hz=0):
            report("results", asyncio.run(main()))
        report("pid", os.getpid())
    """)
    assert got["results"] == ["short", "long"]
    assert got["began_short"] < got["began_long"]
    calls = ranges(the_capture(tmp_path / "out", got["pid"]), "call")
    assert len(calls) == 2
    (short_begin, short_end), (long_begin, long_end) = calls
    assert short_end is not None and long_end is not None
    assert short_begin["tid"] == long_begin["tid"]
    short_ns = short_end["timestamp"] - short_begin["timestamp"]
    long_ns = long_end["timestamp"] - long_begin["timestamp"]
    assert 0.08e9 < short_ns < long_ns, (short_ns, long_ns)
    assert long_ns > 0.35e9
    assert short_end["timestamp"] < long_end["timestamp"]


def test_each_resume_of_a_generator_is_a_range_of_its_own(tmp_path):
    got = run_scenario(tmp_path, """
        @zorvek.annotate("produce")
        def produce(count):
            received = []
            try:
                for n in range(count):
                    time.sleep(0.03)
                    got = yield n
                    if got is not None:
                        received.append(got)
            except KeyError as e:
                yield "caught " + str(e.args[0])
            return received

        def consume():
            generator = produce(3)
            values = [next(generator), generator.send("a"), generator.send("b")]
            try:
                generator.send("c")
            except StopIteration as stop:
                values.append(stop.value)
            return values

        with zorvek.profile("out", sample_hz=0):
            with zorvek.annotate("consumer"):
                report("values", consume())
                time.sleep(0.05)  # between the values: the consumer's time, in no range
                thrown = produce(5)
                next(thrown)
                report("thrown", thrown.throw(KeyError("k")))
                thrown.close()
                report("name", produce.__name__)
                import inspect
                report("is_generator_function", inspect.isgeneratorfunction(produce))
            # A generator resumed from two threads: each resume on its own thread.
            shared = produce(2)
            next(shared)
            worker = threading.Thread(target=lambda: next(shared))
            worker.start(); worker.join()
            report("worker_tid", worker.native_id)
        report("pid", os.getpid())
        report("main_tid", threading.get_native_id())
    """)
    assert got["values"] == [0, 1, 2, ["a", "b", "c"]]
    assert got["thrown"] == "caught k"
    assert got["name"] == "produce" and got["is_generator_function"] is True
    capture = the_capture(tmp_path / "out", got["pid"])
    assert_nested(capture)
    steps = ranges(capture, "produce")
    # Four resumes of the first (three values and the end), two of the second
    # (its first value and the thrown one), two of the third.
    assert len(steps) == 8
    assert all(end is not None for _, end in steps)
    for begin, end in steps[:3]:
        assert end["timestamp"] - begin["timestamp"] > 0.02e9
    assert [begin["tid"] for begin, _ in steps[-2:]] == [got["main_tid"], got["worker_tid"]]
    # The consumer's sleep lies between two of the generator's ranges, in none.
    (consumer_begin, consumer_end), = ranges(capture, "consumer")
    busy = sum(end["timestamp"] - begin["timestamp"] for begin, end in steps[:6])
    assert consumer_end["timestamp"] - consumer_begin["timestamp"] > busy + 0.04e9


def test_each_step_of_an_async_generator_is_a_range_with_its_awaits(tmp_path):
    got = run_scenario(tmp_path, """
        @zorvek.annotate("ticks")
        async def ticks(count):
            for n in range(count):
                await asyncio.sleep(0.03)
                got = yield n
                if got is not None:
                    yield "sent " + got

        @zorvek.annotate("other")
        async def other():
            await asyncio.sleep(0.01)

        async def main():
            values = []
            async for n in ticks(2):
                values.append(n)
                await asyncio.sleep(0.02)
            generator = ticks(3)
            values.append(await generator.__anext__())
            values.append(await generator.asend("x"))
            await generator.aclose()
            third = ticks(1)
            both = await asyncio.gather(third.__anext__(), other())
            await third.aclose()
            return values, both[0]

        with zorvek.profile("out", sample_hz=0):
            report("values", asyncio.run(main()))
            import inspect
            report("is_async_generator_function", inspect.isasyncgenfunction(ticks))
        report("pid", os.getpid())
    """)
    assert got["values"] == [[0, 1, 0, "sent x"], 0]
    assert got["is_async_generator_function"] is True
    capture = the_capture(tmp_path / "out", got["pid"])
    steps = ranges(capture, "ticks")
    # Three steps of the first (two values and the end), two of the second, one of
    # the third.
    assert len(steps) == 6
    assert all(end is not None for _, end in steps)
    for index in (0, 1, 3, 5):
        begin, end = steps[index]
        assert end["timestamp"] - begin["timestamp"] > 0.02e9, index
    (other_begin, other_end), = ranges(capture, "other")
    assert other_end is not None


def test_a_thread_that_ended_inside_a_range_leaves_it_to_no_other_thread(tmp_path):
    # The first thread's state is freed when it ends, and the next thread's is
    # likely to get its address; the shared object must not take the new thread
    # for the old one and end the old thread's range from there.
    got = run_scenario(tmp_path, """
        shared = zorvek.annotate("left open")

        with zorvek.profile("out", sample_hz=0):
            first = threading.Thread(target=shared.__enter__)
            first.start(); first.join()
            second = threading.Thread(target=lambda: shared.__exit__(None, None, None))
            second.start(); second.join()
            with zorvek.annotate("after"):
                pass
        report("pid", os.getpid())
    """)
    capture = the_capture(tmp_path / "out", got["pid"])
    ((_, end),) = ranges(capture, "left open")
    assert end is None
    ((_, after_end),) = ranges(capture, "after")
    assert after_end is not None
