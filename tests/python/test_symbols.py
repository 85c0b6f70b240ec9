"""Names of native addresses through llvm-symbolizer, on libraries built here and
loaded into this test's own process: its mappings, read from /proc/self/maps, are
what a capture's MMAP records would hold. A stripped library's functions are
`libname.so+0xOFFSET`, never a neighbouring export; one with symbols names them,
inlined functions as frames of their own; anonymous executable memory is named
from the process's perf map, else one `[anon]` frame."""

import ctypes
import mmap
import os
import shutil
import subprocess

import pytest

from zvk_testing import build_shared_library

from zorvek import symbols as symbols_module
from zorvek.symbols import ANON, Symbolizer, demangle, load_segments

# An export of size 0 (assembly without .size), then a static function right
# behind it: a symbolizer that trusts symbols of size 0 to reach the next one
# names the static function after the export once the library is stripped.
# `outer` holds the loop of an always-inlined function.
LIBRARY_C = r"""
__asm__(".text\n.globl asm_export\n.type asm_export,@function\nasm_export:\n ret\n");
static __attribute__((noinline)) int hidden_work(int n) {
  volatile int s = 0;
  for (int i = 0; i < n; i++) s += i * 3;
  return s;
}
int (*hidden_pointer)(int) = hidden_work;
int exported_work(int n) { return hidden_work(n) + 1; }
static inline __attribute__((always_inline)) int inner_step(int n) {
  volatile int s = 0;
  for (int i = 0; i < n; i++) s += i ^ 5;
  return s;
}
__attribute__((noinline)) int outer(int n) { return inner_step(n) * 2; }
"""


@pytest.fixture(scope="module")
def libraries(tmp_path_factory):
    """(named, stripped) libraries, both loaded here."""
    folder = tmp_path_factory.mktemp("symbols")
    named = build_shared_library(folder, "named", LIBRARY_C, ("cc", "gcc"),
                                 ("-O2", "-g", "-fno-toplevel-reorder"))
    stripped = folder / "libbare.so"
    shutil.copy(named, stripped)
    strip = shutil.which("strip")
    assert strip, "strip (binutils) is needed to build the stripped library"
    subprocess.run([strip, str(stripped)], check=True)
    return ctypes.CDLL(str(named)), ctypes.CDLL(str(stripped)), str(named), str(stripped)


def this_process(symbolizer):
    """Feeds the symbolizer this process's executable mappings, as a capture's
    MMAP records hold them; returns its pid."""
    pid = os.getpid()
    with open("/proc/self/maps") as maps:
        for line in maps:
            parts = line.split(None, 5)
            if parts[1][2] != "x":
                continue
            start, end = (int(x, 16) for x in parts[0].split("-"))
            name = parts[5].strip() if len(parts) > 5 else ""
            symbolizer.add_mapping(pid, start, end - start, int(parts[2], 16), name)
    return pid


def address_of(library, name):
    return ctypes.cast(getattr(library, name), ctypes.c_void_p).value


def hidden_address(library):
    return ctypes.c_void_p.in_dll(library, "hidden_pointer").value


def file_offset(symbolizer, pid, address):
    start, _end, pgoff, _name = symbolizer.mapping(pid, address)
    return address - start + pgoff


def test_llvm_symbolizer_is_installed():
    assert symbols_module._tool("llvm-symbolizer"), "install the llvm package (make deps)"


def test_a_library_with_symbols_names_its_functions(libraries):
    named = libraries[0]
    with Symbolizer() as symbolizer:
        pid = this_process(symbolizer)
        hidden = hidden_address(named)
        exported = address_of(named, "exported_work")
        found = symbolizer.lookup_many([(pid, hidden + 2), (pid, exported + 1)])
        assert found == {(pid, hidden + 2): "hidden_work", (pid, exported + 1): "exported_work"}
        assert symbolizer.gaps == []


def test_a_stripped_library_is_named_by_file_offset_not_by_a_neighbour(libraries):
    stripped = libraries[1]
    with Symbolizer() as symbolizer:
        pid = this_process(symbolizer)
        hidden = hidden_address(stripped)
        exported = address_of(stripped, "exported_work")
        export_of_size_0 = address_of(stripped, "asm_export")
        assert export_of_size_0 < hidden  # the neighbour a symbol table would offer
        found = symbolizer.frames_many([(pid, hidden + 2), (pid, exported + 1)])
        assert found[(pid, hidden + 2)] == (
            "libbare.so+0x%x" % file_offset(symbolizer, pid, hidden + 2),)
        # What the library still exports with a size is named from its dynamic table.
        assert found[(pid, exported + 1)] == ("exported_work",)


def test_an_inlined_function_is_a_frame_of_its_own(libraries):
    named = libraries[0]
    with Symbolizer() as symbolizer:
        pid = this_process(symbolizer)
        outer = address_of(named, "outer")
        found = symbolizer.frames_many([(pid, outer + i) for i in range(48)])
        assert ("inner_step", "outer") in found.values()
        # Past its end, the padding before the next function belongs to none.
        assert {v for v in found.values() if not v[0].startswith("libnamed.so+0x")} <= {
            ("outer",), ("inner_step", "outer")}
        # The innermost one is the function a single name stands for.
        assert "inner_step" in symbolizer.lookup_many(found).values()


def anonymous_code(size=2 * mmap.PAGESIZE):
    """A fresh anonymous executable mapping of this process: its address."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.mmap.restype = ctypes.c_void_p
    libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int,
                          ctypes.c_int, ctypes.c_long]
    address = libc.mmap(None, size, mmap.PROT_READ | mmap.PROT_EXEC,
                        mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, -1, 0)
    assert address not in (None, ctypes.c_void_p(-1).value), os.strerror(ctypes.get_errno())
    return address


def test_anonymous_code_without_a_perf_map_is_one_anon_frame():
    code = anonymous_code()
    assert not os.path.exists("/tmp/perf-%d.map" % os.getpid())
    with Symbolizer() as symbolizer:
        pid = this_process(symbolizer)
        found = symbolizer.lookup_many([(pid, code + 16), (pid, code + mmap.PAGESIZE + 40)])
        assert set(found.values()) == {ANON}


def test_a_perf_map_names_anonymous_code():
    code = anonymous_code()
    path = "/tmp/perf-%d.map" % os.getpid()
    with open(path, "w") as perf_map:
        perf_map.write("%x 40 py::spin:/work/app.py\n%x 20 py::Model.step:/work/app.py\n"
                       % (code, code + 0x40))
    try:
        with Symbolizer() as symbolizer:
            pid = this_process(symbolizer)
            found = symbolizer.lookup_many([(pid, code + 8), (pid, code + 0x48),
                                            (pid, code + 0x100)])
            assert found == {(pid, code + 8): "py::spin:/work/app.py",
                             (pid, code + 0x48): "py::Model.step:/work/app.py",
                             (pid, code + 0x100): ANON}
        with Symbolizer(local=False) as symbolizer:  # another machine's process
            pid = this_process(symbolizer)
            assert symbolizer.lookup(pid, code + 8) == ANON
    finally:
        os.unlink(path)


def test_without_llvm_symbolizer_addresses_are_file_offsets_and_one_line_says_why(
        libraries, monkeypatch):
    monkeypatch.setattr(symbols_module, "_tool", lambda name: None)
    named = libraries[0]
    with Symbolizer() as symbolizer:
        pid = this_process(symbolizer)
        exported = address_of(named, "exported_work")
        assert symbolizer.lookup(pid, exported) == "libnamed.so+0x%x" % file_offset(
            symbolizer, pid, exported)
        assert symbolizer.lookup(pid, hidden_address(named)).startswith("libnamed.so+0x")
        assert len(symbolizer.gaps) == 1 and "install the llvm package" in symbolizer.gaps[0]


def test_a_file_gone_is_a_stated_gap_and_unmapped_addresses_are_hex():
    with Symbolizer() as symbolizer:
        symbolizer.add_mapping(5, 0x10000, 0x2000, 0x3000, "/nonexistent/libgone.so")
        found = symbolizer.lookup_many([(5, 0x10010), (5, 0x90000)])
        assert found == {(5, 0x10010): "libgone.so+0x3010", (5, 0x90000): "0x90000"}
        assert symbolizer.gaps == ["(missing: /nonexistent/libgone.so)"]


def test_a_later_mapping_replaces_the_names_cached_for_an_earlier_one(libraries):
    named, _, _, stripped_path = libraries
    hidden = hidden_address(named)
    with Symbolizer() as symbolizer:
        pid = this_process(symbolizer)
        start, end, pgoff, _ = symbolizer.mapping(pid, hidden)
        assert symbolizer.lookup(pid, hidden) == "hidden_work"
        symbolizer.add_mapping(pid, start, end - start, pgoff, stripped_path)
        assert symbolizer.lookup(pid, hidden) == "libbare.so+0x%x" % (hidden - start + pgoff)
        symbolizer.add_mapping(pid, start, end - start, pgoff, "")
        assert symbolizer.lookup(pid, hidden) == ANON


def test_program_headers_are_read_without_binutils(libraries, tmp_path):
    segments = load_segments(libraries[2])
    assert segments and all(len(s) == 3 for s in segments)
    assert any(offset == 0 for offset, _, _ in segments)
    not_elf = tmp_path / "notes.txt"
    not_elf.write_text("just text\n")
    assert load_segments(str(not_elf)) is None
    assert load_segments(str(tmp_path / "missing.so")) is None


def test_demangle_reads_cpp_names():
    readable = demangle(["_ZN5torch8autograd4gradEv", "plain_c", "_Zbroken"])
    assert readable["_ZN5torch8autograd4gradEv"] == "torch::autograd::grad()"
    assert readable["plain_c"] == "plain_c"
    assert readable["_Zbroken"] == "_Zbroken"
