"""GPU tracing end to end from Python, in fresh interpreters, with the test
stand-in for CUPTI loaded through ZVK_CUPTI_LIBRARY. The scenario drives the
stand-in through ctypes: it emits a kernel on two devices and a copy, built from
CUPTI's own record structures, and fires driver API calls from several threads."""

import glob
import json
import os
import subprocess
import sys
import textwrap

from zvk_testing import (CUDA_API, KERNEL, KERNEL_NAME, MEMCOPY, fake_cupti_library,
                         gpu_records, read_capture, run_python)

SCENARIO = textwrap.dedent("""
    import ctypes, json, os, sys, threading, time
    fake = ctypes.CDLL(os.environ["ZVK_CUPTI_LIBRARY"])
    fake.fake_cupti_emit_kernel.argtypes = [ctypes.c_char_p] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
    fake.fake_cupti_emit_memcpy.argtypes = [ctypes.c_uint8, ctypes.c_uint64] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
    fake.fake_cupti_fire_api.argtypes = [ctypes.c_int, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_uint32]
    fake.fake_cupti_fire_api.restype = ctypes.c_bool
    import _zorv

    DRIVER_API, LAUNCH_KERNEL = 1, 307
    config = _zorv.Config()
    config.profiler = {"EnableCuda": "1", "BucketCount": "4", "BucketSizeMB": "4",
                       "RecordFile": sys.argv[1]}
    profiler = _zorv.Zorvek.instance()
    assert repr(profiler.configure(config)) == "OK"
    for round in range(int(sys.argv[2])):
        if round:
            time.sleep(1.2)  # past the capture time limit, which refuses a restart before it
        profiler.start_profiling()
        fake.fake_cupti_emit_kernel(b"gemm_kernel", 0, 7, 101 + round, 1000, 2000)
        fake.fake_cupti_emit_kernel(b"gemm_kernel", 1, 7, 201 + round, 3000, 4000)
        fake.fake_cupti_emit_memcpy(1, 4096, 0, 7, 301 + round, 5000, 6000)
        tids = []
        def launch(correlation):
            tids.append(threading.get_native_id())
            assert fake.fake_cupti_fire_api(DRIVER_API, LAUNCH_KERNEL, b"gemm_kernel",
                                            b"cuLaunchKernel", correlation)
        threads = [threading.Thread(target=launch, args=(1000 * (round + 1) + i,)) for i in range(3)]
        for t in threads: t.start()
        for t in threads: t.join()
        assert repr(profiler.stop_profiling()) == "OK"
        print(json.dumps({"pid": os.getpid(), "tids": sorted(tids)}), flush=True)
""")


def run_scenario(tmp_path, rounds):
    script = tmp_path / "scenario.py"
    script.write_text(SCENARIO)
    env = {"ZVK_CUPTI_LIBRARY": fake_cupti_library(), "ZVK_CAPTURE_LIMIT_SECONDS": "1"}
    code, out, err = run_python([str(script), str(tmp_path / "gpu_%p"), str(rounds)],
                                cwd=tmp_path, env=env, timeout=60)
    assert code == 0, err[-4000:]
    files = sorted(glob.glob(str(tmp_path / "gpu_*.zvkraw")))
    return [json.loads(line) for line in out.splitlines()], files, err


LAUNCH_SCENARIO = textwrap.dedent("""
    import ctypes, os, sys, threading
    fake = ctypes.CDLL(os.environ["ZVK_CUPTI_LIBRARY"])
    fake.fake_cupti_emit_kernel.argtypes = [ctypes.c_char_p] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
    fake.fake_cupti_fire_api.argtypes = [ctypes.c_int, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_uint32]
    fake.fake_cupti_fire_api.restype = ctypes.c_bool
    import _zorv

    config = _zorv.Config()
    config.profiler = {"EnableCuda": "1", "BucketCount": "4", "BucketSizeMB": "4",
                       "RecordFile": sys.argv[1]}
    profiler = _zorv.Zorvek.instance()
    assert repr(profiler.configure(config)) == "OK"
    profiler.start_profiling()

    class Model:
        def forward(self, correlation):
            fake.fake_cupti_emit_kernel(b"gemm_kernel", 0, 7, correlation, 1000, 4000)
            assert fake.fake_cupti_fire_api(1, 307, b"gemm_kernel", b"cuLaunchKernel", correlation)

    def train():
        model = Model()
        for correlation in (11, 12, 13):
            model.forward(correlation)

    thread = threading.Thread(target=train)
    thread.start()
    thread.join()
    assert repr(profiler.stop_profiling()) == "OK"
""")


def test_each_driver_api_call_names_the_python_line_that_made_it(tmp_path):
    script = tmp_path / "scenario.py"
    script.write_text(LAUNCH_SCENARIO)
    env = {"ZVK_CUPTI_LIBRARY": fake_cupti_library()}
    code, _, err = run_python([str(script), str(tmp_path / "gpu_%p")], cwd=tmp_path, env=env,
                              timeout=60)
    assert code == 0, err[-4000:]
    files = sorted(glob.glob(str(tmp_path / "gpu_*.zvkraw")))
    from zorvek import _reader
    codes, stacks = {}, {}
    for path in files:
        for batch in _reader.CaptureFile(path).batches(kinds=["PYCODE", "APISTACK"]):
            for rec in batch:
                if rec["event"] == "PYCODE":
                    codes[rec["code_id"]] = rec
                else:
                    stacks[rec["correlation"]] = rec["py"]
    assert sorted(stacks) == [11, 12, 13]
    call_line = next(i for i, text in enumerate(LAUNCH_SCENARIO.splitlines(), 1)
                     if "assert fake.fake_cupti_fire_api" in text)
    for frames in stacks.values():
        names = [codes[code_id]["qualname"] for code_id, _, _ in frames]
        # Leaf first, down to the thread's own start in threading.py.
        assert names[:3] == ["Model.forward", "train", "Thread.run"]
        assert names[-1] == "Thread._bootstrap"
        code_id, offset, _ = frames[0]
        leaf = codes[code_id]
        assert leaf["filename"].endswith("scenario.py")
        assert _reader.python_line(leaf["py_version"], leaf["first_line"], leaf["linetable"],
                                   offset) == call_line

    summary = subprocess.run([sys.executable, "-m", "zorvek", "summary", *files],
                             capture_output=True, text=True, timeout=120)
    assert summary.returncode == 0, summary.stderr
    assert "GPU time by the Python line that launched it" in summary.stdout
    assert "Model.forward (scenario.py:%d)" % call_line in summary.stdout


def test_every_record_kind_reaches_the_file_with_its_header_fields(tmp_path):
    (seen,), files, err = run_scenario(tmp_path, 1)
    capture = read_capture(files[0])
    pid = seen["pid"]

    names = gpu_records(capture, KERNEL_NAME, pid)
    kernel_names = [r for r in names if r["akind"] == 0]
    assert [(r["name"], r["len_name"], r["tid"]) for r in kernel_names] == [("gemm_kernel", 11, 0)]
    kernels = gpu_records(capture, KERNEL, pid)
    assert [(r["device"], r["tid"], r["correlation"], r["stream"]) for r in kernels] == [
        (0, 0, 101, 7), (1, 1, 201, 7)]
    assert all(r["name_id"] == kernel_names[0]["id"] for r in kernels)
    assert [r["timestamp"] for r in kernels] == [1000, 3000]
    assert capture.records.index(kernel_names[0]) < capture.records.index(kernels[0])

    (copy,) = gpu_records(capture, MEMCOPY, pid)
    assert (copy["type"], copy["bytes"], copy["copy_kind"], copy["correlation"], copy["tid"]) == (
        0x1004, 4096, 1, 301, 0)

    calls = gpu_records(capture, CUDA_API, pid)
    assert sorted(r["tid"] for r in calls) == seen["tids"]
    assert sorted(r["correlation"] for r in calls) == [1000, 1001, 1002]
    function_names = [r for r in names if r["akind"] == 1]
    assert [r["name"] for r in function_names] == ["gemm_kernel"]
    for call in calls:
        assert (call["domain"], call["cbid"], call["func_name_id"]) == (1, 307, function_names[0]["id"])
        assert call["end"] > call["timestamp"] > 0
        assert len(call["chain"]) > 0 and call["chain"][0] != 0
        assert capture.records.index(function_names[0]) < capture.records.index(call)


def test_names_are_written_once_and_ids_hold_across_captures(tmp_path):
    """The second capture starts once the first one's time limit has passed, which
    is when the GPU collector may start again."""
    _, files, _ = run_scenario(tmp_path, 2)
    assert len(files) == 2
    first, second = (read_capture(path) for path in files)
    (name,) = gpu_records(first, KERNEL_NAME)[:1]
    assert [r for r in gpu_records(second, KERNEL_NAME)] == []
    assert {r["name_id"] for r in gpu_records(second, KERNEL)} == {name["id"]}
    assert sorted(r["correlation"] for r in gpu_records(second, CUDA_API)) == [2000, 2001, 2002]


def test_without_cupti_everything_else_works(tmp_path):
    script = tmp_path / "plain.py"
    script.write_text(textwrap.dedent("""
        import sys, _zorv
        config = _zorv.Config()
        config.profiler = {"EnableCuda": "1", "BucketCount": "4", "BucketSizeMB": "4",
                           "RecordFile": sys.argv[1]}
        profiler = _zorv.Zorvek.instance()
        print(repr(profiler.configure(config)))
        profiler.start_profiling()
        _zorv.annotation_end(_zorv.annotation_begin("step"))
        print(repr(profiler.stop_profiling()))
    """))
    env = {"ZVK_CUPTI_LIBRARY": str(tmp_path / "no_such_libcupti.so")}
    code, out, err = run_python([str(script), str(tmp_path / "plain_%p")], cwd=tmp_path, env=env,
                                timeout=60)
    assert code == 0, err[-4000:]
    assert out.split() == ["OK", "OK"]
    warnings = [line for line in err.splitlines() if "no CUPTI library could be loaded" in line]
    # Where the wheel or a system CUPTI loads instead, that one answers; else one warning.
    if warnings:
        assert len(warnings) == 1 and "no_such_libcupti.so" in warnings[0]
        assert "failed with CUPTI is not loaded" in err
    (path,) = glob.glob(str(tmp_path / "plain_*.zvkraw"))
    assert any(r.get("msg") == "step" for r in read_capture(path).records)


def test_gpu_records_reach_the_file_about_a_second_after_they_happen(tmp_path):
    """CUPTI keeps its records until its buffer is full; the collector forces them out
    each second, so a process that ends without a stop (os._exit) keeps them."""
    script = tmp_path / "gone.py"
    script.write_text(textwrap.dedent("""
        import ctypes, os, sys, time
        fake = ctypes.CDLL(os.environ["ZVK_CUPTI_LIBRARY"])
        fake.fake_cupti_emit_kernel.argtypes = [ctypes.c_char_p] + [ctypes.c_uint32] * 3 + [ctypes.c_uint64] * 2
        import _zorv
        config = _zorv.Config()
        config.profiler = {"EnableCuda": "1", "BucketCount": "4", "BucketSizeMB": "4",
                           "RecordFile": sys.argv[1]}
        profiler = _zorv.Zorvek.instance()
        assert repr(profiler.configure(config)) == "OK"
        profiler.start_profiling()
        fake.fake_cupti_emit_kernel(b"early_kernel", 0, 7, 11, 1000, 2000)
        time.sleep(3)
        os._exit(0)
    """))
    env = {"ZVK_CUPTI_LIBRARY": fake_cupti_library()}
    code, out, err = run_python([str(script), str(tmp_path / "gone_%p")], cwd=tmp_path, env=env,
                                timeout=60)
    assert code == 0, err[-4000:]
    (path,) = glob.glob(str(tmp_path / "gone_*"))
    kernels = gpu_records(read_capture(path), KERNEL)
    assert [r["correlation"] for r in kernels] == [11]
