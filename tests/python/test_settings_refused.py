"""What the package and the command hand to the profiler is checked first: the
profiler reads "abc" as 0 and ignores a key it doesn't know, so a mistake would
otherwise be misread without a word. Each refusal names the setting and the value
as given. Python sees a Status's code, and the package branches on codes only."""

import glob
import os
import resource

import pytest

import _zorv
import zorvek
from zorvek import _settings

from zvk_testing import REPORT_SOURCE, run_python, run_scenario_script

PRELUDE = r'''
import json, os, sys
import zorvek
''' + REPORT_SOURCE


def refusal(settings):
    """The message profile() raises for `settings`."""
    with pytest.raises(ValueError) as raised:
        zorvek.profile("out", settings=settings)
    return str(raised.value)


# ---- Values the profiler would misread ----

@pytest.mark.parametrize("section,key,value,expected", [
    ("profiler", "BucketCount", "abc",
     'profiler setting BucketCount="abc" is refused: it must be a whole number from 2 to 4294967295'),
    ("profiler", "FlushIntervalMs", "-5",
     'profiler setting FlushIntervalMs="-5" is refused: it must be a whole number from 0 to 4294967295'),
    ("profiler", "BucketSizeMB", "1.5",
     'profiler setting BucketSizeMB="1.5" is refused: it must be a whole number from 1 to 4095'),
    ("profiler", "BucketSizeMB", " 7",
     'profiler setting BucketSizeMB=" 7" is refused: it must be a whole number from 1 to 4095'),
    ("profiler", "BucketCount", "4294967296",
     'profiler setting BucketCount="4294967296" is refused: it must be a whole number from 2 to 4294967295'),
    ("profiler", "EnableForkFollow", "true",
     'profiler setting EnableForkFollow="true" is refused: it must be "1" (on) or "0" (off)'),
    ("profiler", "ShareFiles", "2",
     'profiler setting ShareFiles="2" is refused: it must be "1" (on) or "0" (off)'),
    ("perf", "InheritEvents", "yes",
     'perf setting InheritEvents="yes" is refused: it must be "1" (on) or "0" (off)'),
    ("perf", "PID", "-1",
     'perf setting PID="-1" is refused: it must be a whole number from 0 to 2147483647'),
    ("profiler", "Compression", "1000010",
     'profiler setting Compression="1000010" is refused: it must be 1000000 plus a zlib level '
     'from 0 to 9 (1000001 is level 1), or the level alone'),
    ("perf", "ThreadSamplerHz", "1e3",
     'perf setting ThreadSamplerHz="1e3" is refused: it must be a whole number from 0 to 10000'),
    ("perf", "ThreadSamplerClock", "CPU",
     'perf setting ThreadSamplerClock="CPU" is refused: it must be "cpu" or "wall"'),
])
def test_a_value_that_would_be_misread_is_refused_as_given(section, key, value, expected):
    assert refusal({section: {key: value}}) == expected


@pytest.mark.parametrize("section,key", [
    ("profiler", "BucketCount"), ("profiler", "EnablePerf"), ("perf", "Log2NumPages"),
])
def test_an_empty_number_is_refused(section, key):
    assert refusal({section: {key: ""}}) == \
        f"{section} setting {key} is empty; leave it out to keep its default"


def test_python_values_are_handed_over_as_the_profiler_reads_them():
    settings = _settings.build_settings("/tmp/o", 16, 1000, False, False, {
        "profiler": {"FlushIntervalMs": 250, "SharedBuffers": True, "EnableCuda": False}})
    profiler = settings["profiler"]
    # str(True) would be "True", which the profiler reads as 0.
    assert profiler["SharedBuffers"] == "1" and profiler["EnableCuda"] == "0"
    assert profiler["FlushIntervalMs"] == "250"
    assert refusal({"profiler": {"FlushIntervalMs": 2.5}}) == \
        'profiler setting FlushIntervalMs="2.5" is refused: it must be a whole number from 0 to 4294967295'


def test_the_keywords_are_checked_too():
    with pytest.raises(ValueError, match=r"buffer_mb must be a whole number of MiB; got 2\.5"):
        zorvek.profile(buffer_mb=2.5)
    with pytest.raises(ValueError, match=r"buffer_mb must be a whole number of MiB; got '64'"):
        zorvek.profile(buffer_mb="64")
    with pytest.raises(ValueError, match=r"buffer_mb must be at most \d+, the memory this process"):
        zorvek.profile(buffer_mb=1 << 40)
    with pytest.raises(ValueError, match=r"sample_hz must be above 0 .* got -5"):
        zorvek.profile(sample_hz=-5)
    with pytest.raises(ValueError, match=r"sample_hz .* got 'abc'"):
        zorvek.profile(sample_hz="abc")
    with pytest.raises(ValueError, match=r"sample_hz .* got nan"):
        zorvek.profile(sample_hz=float("nan"))
    with pytest.raises(zorvek.SettingError, match=r'clock must be "cpu" .* or "wall" .*got \'both\''):
        zorvek.profile(clock="both")


# ---- Keys the profiler doesn't know ----

def test_an_unknown_key_is_refused_with_the_nearest_known_one():
    assert refusal({"profiler": {"BucketCont": "4"}}) == \
        'unknown profiler setting "BucketCont"; did you mean "BucketCount"?'
    assert refusal({"perf": {"log2numpages": "8"}}) == \
        'unknown perf setting "log2numpages"; did you mean "Log2NumPages"?'
    assert refusal({"perf": {"Frequency": "99"}}) == 'unknown perf setting "Frequency"'
    assert refusal({"profiler": {"InheritEvents": "1"}}) == \
        'profiler has no setting "InheritEvents": it is a perf setting'
    assert refusal({"cuda": {"EnableCuda": "1"}}) == \
        'cuda has no setting "EnableCuda": it is a profiler setting'
    assert refusal({"cuda": {"Kinds": "1"}}) == (
        'unknown cuda setting "Kinds": the cuda section takes no keys '
        "(ZVK_CUDA_CONFIG picks what the GPU collector traces)")
    assert refusal({"prof": {}}) == ('unknown settings section "prof"; did you mean "perf"? '
                                     'The sections are "profiler", "cuda" and "perf".')


def test_every_key_the_profiler_reads_is_known():
    known = {
        "profiler": ["BucketCount", "BucketSizeMB", "Compression", "EnableCuda", "EnablePerf",
                     "SharedBuffers", "SharedAnnotations", "EnableForkFollow", "FlushIntervalMs",
                     "ShareFiles", "RecordFile"],
        "perf": ["PID", "CPU", "InheritEvents", "SingleWorker", "SharedBuckets", "RecordMappings",
                 "UseSoftBacktrace", "Log2NumPages", "PerfEventType", "CgroupDir",
                 "PerfSampleType", "OverflowThreshold", "EventConfigs", "ThreadSamplerHz",
                 "ThreadSamplerClock"],
    }
    values = {"BucketCount": "4", "BucketSizeMB": "1", "Compression": "1000006", "FlushIntervalMs": "0",
              "RecordFile": "/tmp/x_%p", "CPU": "-1", "Log2NumPages": "7", "PerfEventType": "3",
              "CgroupDir": "/sys/fs/cgroup", "PerfSampleType": "2791", "OverflowThreshold": "50",
              "EventConfigs": "1,0,1000003,743,0,0,0", "SingleWorker": "1", "PID": "0",
              "ThreadSamplerHz": "250", "ThreadSamplerClock": "wall"}
    for section, keys in known.items():
        settings = _settings.build_settings(
            "/tmp/o", 16, 1000, False, False, {section: {k: values.get(k, "1") for k in keys}})
        assert all(settings[section][k] == values.get(k, "1") for k in keys)


# ---- Values that could only spoil the capture ----

@pytest.mark.parametrize("value,missing,extra", [
    ("1", "TID, TIME, ID, CPU, STREAM_ID", ""),
    ("0", "IP, TID, TIME, ID, CPU, STREAM_ID", ""),
    ("463", "STREAM_ID", "ADDR, PERIOD"),
    ("999", "", "PERIOD"),
    (str(743 | 0x10000), "", "IDENTIFIER"),
])
def test_a_sample_type_the_decoder_cant_read_is_refused(value, missing, extra):
    message = refusal({"perf": {"PerfSampleType": value}})
    assert message.startswith(f'perf setting PerfSampleType="{value}" is refused: it must be 743, '
                              "or 2791")
    assert "decoded with exactly IP, TID, TIME, CALLCHAIN, ID, CPU, STREAM_ID" in message
    if missing:
        assert f"it leaves out {missing}" in message
    if extra:
        assert f"it adds {extra}" in message


@pytest.mark.parametrize("value", ["743", "711", "2791", "2759"])
def test_sample_types_that_become_the_decoded_layout_are_taken(value):
    # The profiler adds the call chain and drops branch stacks itself.
    settings = _settings.build_settings("/tmp/o", 16, 1000, False, False,
                                        {"perf": {"PerfSampleType": value}})
    assert settings["perf"]["PerfSampleType"] == value


@pytest.mark.parametrize("events,why", [
    ("1,0,1000003,1,0,0,0", '"1,0,1000003,1,0,0,0" leaves out TID, TIME, CALLCHAIN, ID, CPU, STREAM_ID'),
    ("1,0,0", '"1,0,0" counts without ever sampling'),
    ("1,0", '"1,0" is not'),
    ("1,0,1000003|", '"" is not'),
    ("1;0;1000003", '"1;0;1000003" is not'),
])
def test_events_the_decoder_cant_read_are_refused(events, why):
    message = refusal({"perf": {"EventConfigs": events}})
    assert message.startswith(f'perf setting EventConfigs="{events}" is refused: it must be events')
    assert why in message


def test_single_worker_off_is_refused():
    assert refusal({"perf": {"SingleWorker": "0"}}) == (
        'perf setting SingleWorker="0" is refused: it must be "1": with "0" the profiler builds '
        "per-CPU workers that never start, and no CPU sample is recorded")


def test_a_cpu_the_machine_lacks_is_refused():
    cpus = os.sysconf("SC_NPROCESSORS_CONF")
    assert refusal({"perf": {"CPU": str(cpus)}}) == (
        f'perf setting CPU="{cpus}" is refused: it must be -1 (every CPU) or a CPU of this '
        f"machine, 0 to {cpus - 1}")
    assert _settings.build_settings("/tmp/o", 16, 1000, False, False,
                                    {"perf": {"CPU": "0"}})["perf"]["CPU"] == "0"


def test_rings_beyond_what_the_kernel_maps_are_refused(monkeypatch):
    assert refusal({"perf": {"Log2NumPages": "21"}}) == \
        'perf setting Log2NumPages="21" is refused: it must be at most 20 (a ring of 2^20 pages per CPU)'
    # Without CAP_IPC_LOCK the kernel maps perf_event_mlock_kb per online CPU, and
    # RLIMIT_MEMLOCK beyond that.
    if _settings._proc_int("/proc/sys/kernel/perf_event_paranoid") == -1:
        pytest.skip("perf_event_paranoid is -1: rings have no locked-memory limit")
    monkeypatch.setattr(_settings, "_may_lock_memory", lambda: False)
    soft, hard = resource.getrlimit(resource.RLIMIT_MEMLOCK)
    page = os.sysconf("SC_PAGE_SIZE")
    resource.setrlimit(resource.RLIMIT_MEMLOCK, (64 * page, hard))
    try:
        mlock_kb = _settings._proc_int("/proc/sys/kernel/perf_event_mlock_kb")
        allowed = mlock_kb * 1024 // page * os.sysconf("SC_NPROCESSORS_ONLN") + 64
        assert _settings.locked_ring_pages() == allowed
        cpus = os.sysconf("SC_NPROCESSORS_CONF")
        # One software clock event per CPU: a ring each.
        fits = max(k for k in range(7, 21) if cpus * ((1 << k) + 1) <= allowed)
        events = {"EventConfigs": "1,0,1000003,743,0,0,0"}
        taken = _settings.build_settings("/tmp/o", 16, 1000, False, False,
                                         {"perf": {**events, "Log2NumPages": str(fits)}})
        assert taken["perf"]["Log2NumPages"] == str(fits)
        message = refusal({"perf": {**events, "Log2NumPages": str(fits + 1)}})
        need = cpus * ((1 << (fits + 1)) + 1)
        assert message == (
            f'perf setting Log2NumPages="{fits + 1}" is refused: it must be at most {fits} here: '
            f"{cpus} rings of {(1 << (fits + 1)) + 1} pages need {need} pages of locked memory, "
            f"and the kernel maps {allowed} for this process (/proc/sys/kernel/perf_event_mlock_kb "
            "per CPU, and RLIMIT_MEMLOCK beyond that); larger rings would not be mapped and no "
            "CPU sample would be recorded")
        # Without perf events, the perf settings reach nothing.
        assert _settings.build_settings("/tmp/o", 16, None, False, False,
                                        {"perf": {"Log2NumPages": "20"}})
    finally:
        resource.setrlimit(resource.RLIMIT_MEMLOCK, (soft, hard))


def test_a_refusal_at_the_start_never_stops_the_block(tmp_path):
    # Checked again at the start, where the machine's answers are in: there a
    # refusal is told and the block runs unprofiled.
    got, stderr = run_scenario_script(tmp_path, PRELUDE, """
        from zorvek import _settings
        p = zorvek.profile("out", sample_hz=0, settings={"perf": {"Log2NumPages": "8"}})
        def refuse(settings):
            raise _settings.SettingError("refused at the start")
        _settings.check_settings = refuse
        with p:
            report("ran", True)
        report("state", [p.started, p.error])
    """)
    assert got == {"ran": True, "state": [False, "not profiling: refused at the start"]}
    assert "zorvek: not profiling: refused at the start" in stderr.splitlines()


# ---- Output paths ----

def test_a_folder_that_cant_be_written_is_named(tmp_path):
    (tmp_path / "file").write_text("")
    got, stderr = run_scenario_script(tmp_path, PRELUDE, """
        with zorvek.profile("file/out") as p:
            report("ran", True)
        report("error", p.error)
        with zorvek.profile("out", settings={"profiler": {"RecordFile": "/proc/self/x/run_%p"}}) as q:
            pass
        report("other", q.error)
    """)
    assert got["error"] == "not profiling: can't make the output folder file/out: Not a directory"
    assert got["other"].startswith("not profiling: can't make the output folder /proc/self/x: ")


def test_a_start_that_fails_to_open_its_file_names_the_folder(tmp_path):
    got, stderr = run_scenario_script(tmp_path, PRELUDE, """
        with zorvek.profile("out", sample_hz=0) as p:
            report("ran", True)
        report("state", [p.started, p.error])
    """, env={"ZVK_OUTPUT_FILE_NAME": str(tmp_path / "missing" / "run_%p")})
    assert got["state"] == [False, "the capture did not start: Failed to open file No such file "
                                   f"or directory (files were to go to {tmp_path / 'missing'})"]


# ---- The command's own options ----

@pytest.mark.parametrize("option,value,why", [
    ("-F", "-5", "'-5': give 0 (no CPU sampling) or a rate above 0 and at most 10000"),
    ("-F", "1e9", "'1e9': give 0 (no CPU sampling) or a rate above 0 and at most 10000"),
    ("-F", "nan", "'nan': give 0 (no CPU sampling) or a rate above 0 and at most 10000"),
    ("--rate", "abc", "'abc' is not a number of samples a second"),
    ("--buffer-mb", "1", "'1': buffer_mb must be at least 2 (two buckets of 1 MiB); got 1"),
    ("--buffer-mb", "-3", "'-3': buffer_mb must be at least 2 (two buckets of 1 MiB); got -3"),
    ("--buffer-mb", "2.5", "'2.5' is not a whole number of MiB"),
])
def test_out_of_range_options_are_usage_errors(tmp_path, option, value, why):
    (tmp_path / "job.py").write_text("print('ran')\n")
    code, stdout, stderr = run_python(["-m", "zorvek", "record", "-o", "out", f"{option}={value}",
                                       "job.py"], tmp_path, {}, 60)
    assert code == 2 and stdout == ""
    assert stderr.startswith("usage: zorvek record ")
    names = {"-F": "-F/--freq/-r/--rate", "--rate": "-F/--freq/-r/--rate",
             "--buffer-mb": "--buffer-mb"}[option]
    assert stderr.splitlines()[-1] == f"zorvek record: error: argument {names}: {why}"
    assert "Traceback" not in stderr and not (tmp_path / "out").exists()


# ---- Status codes ----

def test_the_package_branches_on_codes_never_on_messages():
    # The controller's answers that the package acts on, as their messages read.
    messages = ("Already configured!", "Profiling is still running", "Profiling not running",
                "There is no recording ongoing to stop!", "Profiler is not configured")
    folder = os.path.dirname(zorvek.__file__)
    for path in glob.glob(os.path.join(folder, "*.py")):
        with open(path, encoding="utf-8") as f:
            text = f.read()
        for message in messages:
            assert message not in text, (path, message)


def test_a_status_has_its_code(tmp_path):
    got, _ = run_scenario_script(tmp_path, PRELUDE, """
        import _zorv
        z = _zorv.Zorvek.instance()
        stopped = z.stop_profiling()
        started = _zorv._start_profiling()
        c = _zorv.Config()
        c.profiler = {"BucketCount": "2", "BucketSizeMB": "1", "RecordFile": "run_%p"}
        first, second = z.configure(c), z.configure(c)
        report("codes", [int(s.code) for s in (stopped, started, first, second)])
        report("texts", [repr(s) for s in (stopped, first, second)])
        report("made", int(_zorv.Status(_zorv.ErrorCode.EndOfData, "x").code))
        report("enum", stopped.code == _zorv.ErrorCode.FailedPrecondition)
        try:
            stopped.code = _zorv.ErrorCode.OK
            report("settable", True)
        except AttributeError:
            report("settable", False)
    """)
    assert got["codes"] == [int(_zorv.ErrorCode.FailedPrecondition), int(_zorv.ErrorCode.Failure),
                            int(_zorv.ErrorCode.OK), int(_zorv.ErrorCode.FailedPrecondition)]
    assert got["texts"] == ["Profiling not running", "OK", "Already configured!"]
    assert got["made"] == 8 and got["enum"] is True and got["settable"] is False
