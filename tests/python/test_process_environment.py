"""What zorvek.profile leaves in the process besides its capture: the variables it
sets (and children inherit), the NVTX injection library it loads, and nothing
loaded by the GPU driver probe. Each scenario runs in a fresh interpreter."""

from zvk_testing import REPORT_SOURCE, run_scenario_script

# The variable comes from the scenario alone, whatever the environment pytest runs in has.
PRELUDE = r'''
import ctypes, json, os, subprocess, sys
os.environ.pop("NVTX_INJECTION64_PATH", None)
import zorvek
''' + REPORT_SOURCE + r'''
def loaded(name):
    with open("/proc/self/maps") as maps:
        return name in maps.read()
'''


def run_scenario(tmp_path, code):
    got, _ = run_scenario_script(tmp_path, PRELUDE, code)
    return got


def test_the_injection_library_is_loaded_local_and_the_variables_reach_children(tmp_path):
    got = run_scenario(tmp_path, """
        import zorvek.nvtx
        with zorvek.profile("out", sample_hz=0) as p:
            report("started", p.started)
            report("loaded", loaded("libzorv_nvtx.so"))
            # Found by the hook search through its own handle, and nowhere else.
            report("global", hasattr(ctypes.CDLL(None), "ZVKI_update_functable"))
        child = subprocess.run(
            [sys.executable, "-c", "import json, os; print(json.dumps([os.environ.get(k) for k in "
             "('NVTX_INJECTION64_PATH', 'ZORV_MIN_LOG_LEVEL')]))"],
            capture_output=True, text=True, check=True)
        report("child", json.loads(child.stdout))
        report("library", zorvek.nvtx.library_path())
    """)
    assert got["started"] and got["loaded"]
    assert got["global"] is False
    assert got["child"] == [got["library"], "1"]


def test_a_profile_that_cant_configure_leaves_nvtx_alone(tmp_path):
    (tmp_path / "a_file").write_text("")
    got = run_scenario(tmp_path, """
        with zorvek.profile("a_file/out", sample_hz=0) as p:
            report("error", p.error)
        report("variable", os.environ.get("NVTX_INJECTION64_PATH"))
        report("loaded", loaded("libzorv_nvtx.so"))
    """)
    assert got["error"] and "can't make the output folder" in got["error"]
    assert got["variable"] is None
    assert got["loaded"] is False


def test_the_gpu_driver_probe_loads_nothing(tmp_path):
    # A libcuda.so.1 where the loader would look counts, without being loaded:
    # this one is empty and couldn't be.
    (tmp_path / "driver").mkdir()
    (tmp_path / "driver" / "libcuda.so.1").write_bytes(b"")
    got = run_scenario(tmp_path, """
        from zorvek import _settings
        os.environ["LD_LIBRARY_PATH"] = os.path.abspath("driver")
        report("present", _settings.cuda_driver_present())
        report("loaded", loaded("libcuda"))
        del os.environ["LD_LIBRARY_PATH"]
        report("without", _settings.cuda_driver_present())
        report("without_loaded", loaded("libcuda"))
    """)
    assert got["present"] is True
    assert got["loaded"] is False and got["without_loaded"] is False
