"""Loading the profiler changes nothing about how other libraries throw and catch
C++ exceptions. Every C++ library in the process unwinds through the C++ runtime's
own unwinder, libgcc_s; a shared object of ours that exported an unwinder of its
own, or pulled in one that does (libunwind), would be bound to in its place by
every library loaded after it, libstdc++'s __cxa_throw included, and torch's first
caught error would end the process with SIGABRT.

Each case runs in a fresh interpreter with the dynamic loader reporting its symbol
bindings (LD_DEBUG=bindings): every binding of an _Unwind_ symbol must land in
libgcc_s, whatever was loaded first."""

import importlib.metadata
import os
import re
import subprocess
import sys
import textwrap

import pytest

from zvk_testing import build_shared_library, fake_cupti_library, run_python

THROWER_SOURCE = r"""
#include <stdexcept>
#include <string>

// Throws and catches inside itself, as a C++ library does with its own errors.
extern "C" int throw_and_catch(int times) {
  int caught = 0;
  for (int i = 0; i < times; ++i) {
    try {
      throw std::runtime_error("thrown inside " + std::to_string(i));
    } catch (const std::exception&) {
      ++caught;
    }
  }
  return caught;
}
"""

# "binding file A [0] to B [0]: normal symbol `NAME' [VERSION]"
BINDING = re.compile(r"binding file (\S+) \[\d+\] to (\S+) \[\d+\]: \w+ symbol `(_Unwind_\w+)'")

# What each shared object of the package may export: its entry point and the names
# other code looks up in it.
ALLOWED_EXPORTS = {
    "_zorv": {"PyInit__zorv", "fork_suspend", "instrumentation_funcs"},
    "_reader": {"PyInit__reader"},
    "libzorv_nvtx": {"InitializeInjectionNvtx2", "ZVKI_get_default_functable",
                     "ZVKI_update_functable"},
}


@pytest.fixture(scope="module")
def thrower(tmp_path_factory):
    return build_shared_library(tmp_path_factory.mktemp("thrower"), "thrower", THROWER_SOURCE,
                                ("c++", "g++"), ("-O1",))


def installed_shared_objects():
    """{stem: path} of every shared object the zorvek distribution installed."""
    found = {}
    for entry in importlib.metadata.files("zorvek") or ():
        name = str(entry)
        if name.endswith(".so"):
            stem = os.path.basename(name).split(".")[0]
            found[stem] = str(entry.locate())
    return found


def unwinder_bindings(debug_prefix):
    """(file, provider, symbol) of every _Unwind_ binding in the loader's reports."""
    folder = os.path.dirname(debug_prefix)
    bindings = []
    for name in os.listdir(folder):
        if name.startswith(os.path.basename(debug_prefix)):
            with open(os.path.join(folder, name), errors="replace") as report:
                bindings += [m.groups() for m in map(BINDING.search, report) if m]
    return bindings


def loaded_objects(tmp_path):
    """Paths of the files the loader reported a binding from."""
    return {b[0] for b in unwinder_bindings(str(tmp_path / "ld-debug"))}


def assert_runtime_unwinder_only(tmp_path):
    bindings = unwinder_bindings(str(tmp_path / "ld-debug"))
    assert bindings, "the loader reported no _Unwind_ binding: the case threw nothing"
    # The profiler's private libunwind may bind its own names to itself; nothing
    # else may bind to it.
    strays = [b for b in bindings if not os.path.basename(b[1]).startswith("libgcc_s.so")
              and not (b[0] == b[1] and "libunwind" in b[0])]
    assert not strays, f"_Unwind_ symbols bound outside the C++ runtime: {strays[:5]}"


def loader_env(tmp_path):
    return {"LD_DEBUG": "bindings", "LD_DEBUG_OUTPUT": str(tmp_path / "ld-debug"),
            "ZVK_BUCKET_COUNT": "4", "ZVK_BUCKET_SIZE_MB": "1"}


STEPS = {
    "load": "lib = ctypes.CDLL(THROWER)",
    "load_global": "lib = ctypes.CDLL(THROWER, mode=os.RTLD_GLOBAL)",
    "zorvek": "import zorvek",
    "_zorv": "import _zorv",
    "reader": "import zorvek._reader",
    "nvtx_global": "ctypes.CDLL(zorvek.nvtx.library_path(), mode=os.RTLD_GLOBAL)",
    "capture": "prof = zorvek.profile(OUT, sample_hz=0, gpu=False, quiet=True); prof.start()",
    # GPU tracing through the fake CUPTI: its start loads the profiler's unwinder.
    "gpu_capture": "prof = zorvek.profile(OUT, sample_hz=0, gpu=True, quiet=True); prof.start()",
}

ORDERS = [
    ("load", "zorvek"),
    ("zorvek", "load"),
    ("_zorv", "load"),
    ("load_global", "_zorv"),
    ("reader", "load"),
    ("zorvek", "nvtx_global", "load"),
    ("load", "zorvek", "capture"),
    ("zorvek", "capture", "load"),
    ("zorvek", "gpu_capture", "load"),
    ("load", "zorvek", "gpu_capture"),
]


@pytest.mark.parametrize("order", ORDERS, ids=["-then-".join(o) for o in ORDERS])
def test_library_throws_and_catches_whatever_loads_first(tmp_path, thrower, order):
    lines = ["import ctypes, os, sys", "import zorvek.nvtx" if "nvtx_global" in order else "",
             f"THROWER = {str(thrower)!r}", f"OUT = {str(tmp_path / 'out')!r}"]
    capturing = "capture" in order or "gpu_capture" in order
    if capturing and "zorvek" not in order:
        lines.append("import zorvek")
    lines += [STEPS[step] for step in order]
    lines.append("print('caught', lib.throw_and_catch(5))")
    if capturing:
        lines.append("print('stopped', bool(prof.stop()) and prof.error is None)")
    env = loader_env(tmp_path)
    if "gpu_capture" in order:
        env["ZVK_CUPTI_LIBRARY"] = fake_cupti_library()
    rc, stdout, stderr = run_python(["-c", "\n".join(lines)], tmp_path, env, 60)
    assert rc == 0, stderr[-3000:]
    assert "caught 5" in stdout
    if capturing:
        assert "stopped True" in stdout, stdout + stderr[-3000:]
    if "gpu_capture" in order:
        assert any("libunwind.so" in name for name in loaded_objects(tmp_path)), \
            "the GPU capture did not load the profiler's unwinder"
    assert_runtime_unwinder_only(tmp_path)


def test_library_throws_and_catches_under_zorvek_record(tmp_path, thrower):
    script = tmp_path / "job.py"
    script.write_text(textwrap.dedent(f"""
        import ctypes
        lib = ctypes.CDLL({str(thrower)!r})
        print("caught", lib.throw_and_catch(5))
    """))
    rc, stdout, stderr = run_python(
        ["-m", "zorvek", "record", "-q", "-F", "0", "--no-gpu", "-o", str(tmp_path / "out"),
         "--", sys.executable, str(script)], tmp_path, loader_env(tmp_path), 120)
    assert rc == 0, stderr[-3000:]
    assert "caught 5" in stdout
    assert_runtime_unwinder_only(tmp_path)


def test_shared_objects_export_only_their_entry_points():
    objects = installed_shared_objects()
    assert set(objects) >= set(ALLOWED_EXPORTS), objects
    for stem, path in objects.items():
        needed = subprocess.run(["readelf", "-d", path], check=True, capture_output=True,
                                text=True).stdout
        assert "libunwind" not in needed, f"{stem} links libunwind:\n{needed}"
        exported = subprocess.run(["nm", "-D", "--defined-only", path], check=True,
                                  capture_output=True, text=True).stdout.split("\n")
        names = {line.split()[-1].split("@")[0] for line in exported if line.strip()}
        assert names <= ALLOWED_EXPORTS[stem], f"{stem} exports {sorted(names - ALLOWED_EXPORTS[stem])[:10]}"
        imported = subprocess.run(["nm", "-D", "--undefined-only", path], check=True,
                                  capture_output=True, text=True).stdout
        assert "unw_" not in imported, f"{stem} imports libunwind's functions"


def test_torch_shape_error_is_a_runtime_error_after_import_zorvek(tmp_path):
    pytest.importorskip("torch", reason="torch is installed by make test and make demo")
    code = textwrap.dedent("""
        import zorvek
        import torch
        try:
            torch.zeros(2, 3) @ torch.zeros(4, 5)
        except RuntimeError as error:
            print("RuntimeError:", str(error).splitlines()[0])
    """)
    rc, stdout, stderr = run_python(["-c", code], tmp_path, {}, 300)
    assert rc == 0, f"status {rc}\n{stderr[-3000:]}"
    assert "RuntimeError: mat1 and mat2 shapes cannot be multiplied" in stdout
