"""_reader.python_line against the interpreters themselves: each installed
CPython from 3.10 to 3.13 compiles a module of nested functions, comprehensions,
try/except, lambdas, generators, coroutines, lines far apart and lines going
backwards, and some of its own standard library; for every code object it
reports co_linetable, co_firstlineno and co_lines(), and the line python_line
computes for every instruction must be the line co_lines() gives for it. And the
stack sampler's records as the reader hands them out: a sample's frames name a
code object, whose record carries the table that gives the frame's line."""

import glob
import json
import os
import struct
import subprocess
import sys
import zlib

import pytest

from zorvek import _reader

# The interpreter that gives one version, found among pyenv's installs; 3.11 is
# the one running the tests, the only one the reader module is built for.
PYENV = "/root/.pyenv/versions"


def interpreter(version):
    if sys.version_info[:2] == tuple(int(part) for part in version.split(".")):
        return sys.executable
    found = sorted(glob.glob(os.path.join(PYENV, version + ".*", "bin", "python" + version)))
    return found[-1] if found else None


def gap(lines):
    return "\n" * lines


# Constructs whose tables use each kind of entry: lines more than 127 and 255
# apart both ways, instructions on one line for more than 254 bytes, instructions
# with no line, columns past 80, every kind of nested code object.
SAMPLE = (
    '''
import asyncio
import contextlib


def outer(a):
    def inner(b):
        return [x * b for x in range(a) if x % 2]

    def closure():
        nonlocal a
        a += 1
        return {k: v for k, v in zip(range(a), range(a))}, {x for x in range(a)}

    return inner, closure


class Klass:
    attribute = [n for n in range(3)]

    def method(self, value):
        try:
            return 1 / value
        except ZeroDivisionError as error:
            raise ValueError(str(error)) from error
        except (TypeError, KeyError):
            return None
        else:
            pass
        finally:
            self.done = True

    @property
    def prop(self):
        return lambda y, z=2: (y + z, lambda: y)

    @staticmethod
    def nested_try():
        for i in range(3):
            try:
                try:
                    continue
                finally:
                    i += 1
            except Exception:
                break
        else:
            return i
        while i:
            i -= 1
        return i


def gen(n):
    yield from (i * i for i in range(n))
    received = yield n
    return received


async def coro(n):
    async with contextlib.AsyncExitStack() as stack:
        async for item in agen(n):
            await asyncio.sleep(0)
    return [x async for x in agen(n)], stack


async def agen(n):
    for i in range(n):
        yield i
        await asyncio.sleep(0)


def multiline(a,
              b):
    return dict(
        a=a,
        b=b,
    ).get(
        "a")


def with_statement(path):
    with open(path) as first, open(path) as second:
        return first.read() + second.read()


def match_it(value):
    match value:
        case [1, *rest]:
            return rest
        case {"k": x, **others}:
            return x, others
        case Klass(attribute=attr) if attr:
            return attr
        case str() | bytes():
            return "text"
        case _:
            return None


def long_line(a): return [a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a, a]  # noqa: E501


def far_apart():
    x = 1
''' + gap(300) + '''
    y = 2
''' + gap(140) + '''
    z = [x,
''' + gap(600) + '''
         y]
    return z
''' + gap(1000) + '''

def called_back(f):
    return f(1,
''' + gap(200) + '''
             2)(
''' + gap(130) + '''
        3)


def many_lines():
''' + "".join(f"    v{i} = {i}\n" for i in range(400)) + '''
    return v0 + v399
''')

DUMPER = r'''
import json, os, sys

def codes(code):
    yield code
    for const in code.co_consts:
        if hasattr(const, "co_lines"):
            yield from codes(const)

sample_path = sys.argv[1]
sources = [(sample_path, open(sample_path).read())]
library = os.path.dirname(os.__file__)
for name in ("argparse.py", "inspect.py", "typing.py", "asyncio/tasks.py", "json/decoder.py"):
    path = os.path.join(library, name)
    sources.append((path, open(path, encoding="utf-8").read()))
out = []
for path, source in sources:
    for code in codes(compile(source, path, "exec")):
        out.append({
            "name": getattr(code, "co_qualname", code.co_name),
            "file": path,
            "first_line": code.co_firstlineno,
            "linetable": code.co_linetable.hex(),
            "size": len(code.co_code),
            "lines": list(code.co_lines()),
        })
json.dump({"version": sys.hexversion, "codes": out}, sys.stdout)
'''


@pytest.mark.parametrize("version", ["3.10", "3.11", "3.12", "3.13"])
def test_lines_of_every_instruction_match_the_interpreters(version, tmp_path):
    python = interpreter(version)
    if python is None:
        pytest.skip(f"no Python {version} installed")
    sample = tmp_path / "sample.py"
    sample.write_text(SAMPLE)
    done = subprocess.run([python, "-I", "-c", DUMPER, str(sample)], capture_output=True,
                          text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    dumped = json.loads(done.stdout)
    py_version = dumped["version"]
    assert py_version >> 16 == int(version.split(".")[0]) << 8 | int(version.split(".")[1])

    checked = 0
    without_line = 0
    mismatches = []
    biggest_jump = 0
    for code in dumped["codes"]:
        table = bytes.fromhex(code["linetable"])
        last_line = None
        end_of_ranges = 0
        for start, end, line in code["lines"]:
            expected = -1 if line is None else line
            without_line += line is None
            for offset in range(start, end, 2):
                got = _reader.python_line(py_version, code["first_line"], table, offset)
                checked += 1
                if got != expected:
                    mismatches.append((code["file"], code["name"], offset, expected, got))
            if line is not None:
                if last_line is not None:
                    biggest_jump = max(biggest_jump, abs(line - last_line))
                last_line = line
            end_of_ranges = max(end_of_ranges, end)
        # Past the last instruction there is no line.
        for offset in (end_of_ranges, end_of_ranges + 2, 1 << 20):
            got = _reader.python_line(py_version, code["first_line"], table, offset)
            checked += 1
            if got != -1:
                mismatches.append((code["file"], code["name"], offset, -1, got))

    assert not mismatches, f"{len(mismatches)} of {checked} offsets differ: {mismatches[:20]}"
    # The sample and the library give hundreds of code objects, thousands of
    # instructions, some without a line, and lines more than 255 apart.
    assert len(dumped["codes"]) > 500
    assert checked > 20000
    assert without_line > 0
    assert biggest_jump > 255


def test_python_line_takes_any_bytes_like_table_and_refuses_the_rest():
    # Python 3.11: a no-column entry of 2 code units, line +1.
    table = bytes([0xe9, 0x02])
    assert _reader.python_line(0x030B07F0, 7, table, 0) == 8
    assert _reader.python_line(0x030B07F0, 7, bytearray(table), 2) == 8
    assert _reader.python_line(0x030B07F0, 7, memoryview(table), 4) == -1
    assert _reader.python_line(0x030B07F0, 7, b"", 0) == -1
    # The 3.10 format for a 3.10 interpreter, nothing for older ones.
    assert _reader.python_line(0x030A0DF0, 7, bytes([4, 3]), 2) == 10
    assert _reader.python_line(0x030912F0, 7, bytes([4, 3]), 2) == -1
    with pytest.raises(TypeError):
        _reader.python_line(0x030B07F0, 7, "text", 0)
    with pytest.raises(TypeError):
        _reader.python_line(0x030B07F0, 7, table, -2)


# ---- The stack sampler's records through the reader ----------------------------

STACK, PYCODE, APISTACK = 16, 17, 18
ENTRY = 0x80000000


def record(event_type, payload, timestamp=1000, pid=10, tid=11):
    """A CPU record (hardware type 0, device 0) without a call chain."""
    return struct.pack("<QIIIHH", timestamp, event_type, pid, tid, 0, len(payload)) + payload


def frames(python):
    return b"".join(struct.pack("<II", code, instruction) for code, instruction in python)


def stack_payload(weight_ns, clock, flags, native, python):
    return (struct.pack("<QHHBBH", weight_ns, len(native), len(python), clock, flags, 0) +
            b"".join(struct.pack("<Q", address) for address in native) + frames(python))


def code_payload(code_id, code, flags=0):
    qualname = code.co_qualname.encode()
    filename = code.co_filename.encode()
    table = code.co_linetable
    payload = struct.pack("<IiIHHII", code_id, code.co_firstlineno, sys.hexversion, len(qualname),
                          len(filename), len(table), flags) + qualname + filename + table
    return payload + b"\0" * (-len(payload) % 8)


def api_payload(correlation, python):
    return struct.pack("<QHHHH", correlation, len(python), 0, 0, 0) + frames(python)


def write_capture(path, records):
    """A finished capture file of one bucket."""
    body = b"".join(records)
    stream = zlib.compress(body, 1)
    header = struct.pack("<8sIIQQQQIIIIIIHHHHH", b"ZVKRAWDF", 3, 1, 1, 900, 2000, 0, 10,
                         len(stream) + 32, len(body), 1, 0, 0, 0, 0, 0, 0, 0)
    bucket = struct.pack("<QQQII", 1000, 1003, len(records), len(stream), len(body))
    path.write_bytes(header + b"\0" * 6 + bucket + stream)


def sampled_function(n):
    total = 0
    for i in range(n):
        total += i
    return total


def test_stack_records_come_as_dicts_whose_frames_find_their_lines(tmp_path):
    code = sampled_function.__code__
    # The instruction of each line of the function's body, by co_lines.
    offsets = {}
    for start, _, line in code.co_lines():
        if line is not None:
            offsets.setdefault(line, start)
    loop_line = code.co_firstlineno + 3
    offset = offsets[loop_line]
    caller = test_stack_records_come_as_dicts_whose_frames_find_their_lines.__code__
    capture = tmp_path / "stacks.zvkraw"
    write_capture(capture, [
        record(PYCODE, code_payload(1, code)),
        record(PYCODE, code_payload(2, caller, flags=1)),
        record(STACK, stack_payload(1000000, 0, 0, [0x401000, 0x7f0000001234],
                                    [(1, offset), (2, 4 | ENTRY)]), timestamp=1001),
        record(STACK, stack_payload(20000000, 1, 1 | 8, [], [(2, 0 | ENTRY)]), timestamp=1002,
               tid=12),
        record(APISTACK, api_payload(77, [(1, offset), (2, 6 | ENTRY)]), timestamp=1003),
        # A sample whose counts claim more frames than it holds: its bytes only.
        record(STACK, struct.pack("<QHHBBH", 5, 4, 0, 0, 0, 0) + b"\0" * 8, timestamp=1003),
    ])
    reader = _reader.CaptureFile(str(capture))

    stacks = [r for batch in reader.batches(kinds=["STACK"]) for r in batch]
    assert not reader.damaged, reader.problems
    assert [r["event"] for r in stacks] == ["STACK"] * 3
    cpu, wall, odd = stacks
    assert (cpu["hw"], cpu["pid"], cpu["tid"], cpu["timestamp"]) == ("CPU", 10, 11, 1001)
    assert cpu["weight_ns"] == 1000000 and cpu["clock"] == "cpu"
    assert cpu["waiting"] is False and cpu["flags"] == 0
    assert cpu["ips"] == [0x401000, 0x7f0000001234]
    assert cpu["py"] == [(1, offset, False), (2, 4, True)]
    assert wall["tid"] == 12 and wall["clock"] == "wall"
    assert wall["waiting"] is True and wall["flags"] == 9
    assert wall["ips"] == [] and wall["py"] == [(2, 0, True)]
    assert "py" not in odd and odd["raw"][:8] == struct.pack("<Q", 5)

    codes = {r["code_id"]: r for batch in reader.batches(kinds=["PYCODE"]) for r in batch}
    assert sorted(codes) == [1, 2]
    named = codes[1]
    assert named["qualname"] == "sampled_function"
    assert named["filename"] == __file__
    assert named["first_line"] == code.co_firstlineno
    assert named["py_version"] == sys.hexversion
    assert named["linetable"] == code.co_linetable and named["linetable_cut"] is False
    assert codes[2]["linetable_cut"] is True
    assert codes[2]["qualname"] == "test_stack_records_come_as_dicts_whose_frames_find_their_lines"

    # The sampled frame's line, from its code object's record.
    code_id, instruction, _ = cpu["py"][0]
    record_of = codes[code_id]
    assert _reader.python_line(record_of["py_version"], record_of["first_line"],
                               record_of["linetable"], instruction) == loop_line

    api = [r for batch in reader.batches(kinds=["APISTACK"]) for r in batch]
    assert [(r["event"], r["correlation"], r["py"]) for r in api] == [
        ("APISTACK", 77, [(1, offset, False), (2, 6, True)])]

    everything = [r["event"] for batch in reader.batches() for r in batch]
    assert everything == ["PYCODE", "PYCODE", "STACK", "STACK", "APISTACK", "STACK"]
    summary = _reader.summarize(str(capture))["processes"][0]
    assert summary["records_by_kind"] == {"CPU STACK": 3, "CPU PYCODE": 2, "CPU APISTACK": 1}
    assert summary["undecoded"] == 1
