"""The profiler's settings, chosen for the machine: what `zorvek.profile` hands to
`_zorv` as its three string maps, and the probes behind each automatic choice."""

from __future__ import annotations

import ctypes
import difflib
import errno
import json
import os
import platform
import re
import resource
from typing import Callable, Dict, List, Mapping, Optional, Tuple, Union

from . import _ranks

MiB = 1 << 20

# The buffers take at most this much memory, and at most this share of what the
# process may use: the profiler must never be what pushes a job out of memory.
MAX_BUFFER_MB = 256
BUFFER_SHARE_OF_MEMORY = 0.02
MIN_BUFFER_MB = 16
# Smaller buckets reach the file sooner and compress in shorter bursts; 8 MiB is
# large enough that the writer wakes a few times a second at most.
MAX_BUCKET_MB = 8

# The kernel's software CPU clock (PERF_TYPE_SOFTWARE, PERF_COUNT_SW_CPU_CLOCK),
# with the sample layout the capture format decodes (743: ip, tid, time, id,
# cpu, stream id and the call chain): what the probe opens for perf events.
_SOFTWARE = 1
_CPU_CLOCK = 0
_SAMPLE_TYPE = 743
# The per-thread sampler takes at most 10 kHz: each sample is a signal to the thread.
MAX_SAMPLE_HZ = 10_000
# What the per-thread sampler measures: each thread's CPU time (user and system),
# or elapsed time, whether the thread runs or waits.
CLOCKS = ("cpu", "wall")

Settings = Dict[str, Dict[str, str]]


class SettingError(ValueError):
    """A setting refused before it reached the profiler."""


def memory_limit_bytes() -> int:
    """What this process may use: the machine's memory, or its control group's
    limit where that is lower (a container sees the host's memory in sysconf)."""
    limit = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    for path in ("/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"):
        try:
            with open(path) as f:
                text = f.read().strip()
        except OSError:
            continue
        if text.isdigit() and 0 < int(text) < limit:
            limit = int(text)
    return limit


def auto_buffer_mb() -> int:
    """The buffer memory used when none is asked for: 2 % of the memory the
    process may use, between 16 and 256 MiB."""
    share = int(memory_limit_bytes() * BUFFER_SHARE_OF_MEMORY) // MiB
    return max(MIN_BUFFER_MB, min(MAX_BUFFER_MB, share))


def split_buffer(total_mb: int) -> Tuple[int, int]:
    """Splits `total_mb` into (bucket count, bucket size in MiB): about eight
    buckets or more, each at most 8 MiB, never fewer than two."""
    if isinstance(total_mb, bool) or not isinstance(total_mb, int):
        raise SettingError(f"buffer_mb must be a whole number of MiB; got {total_mb!r}")
    if total_mb < 2:
        raise SettingError(f"buffer_mb must be at least 2 (two buckets of 1 MiB); got {total_mb}")
    limit = memory_limit_bytes() // MiB
    if total_mb > limit:
        raise SettingError(f"buffer_mb must be at most {limit}, the memory this process may use; "
                           f"got {total_mb}")
    size = min(MAX_BUCKET_MB, max(1, total_mb // 8))
    return max(2, total_mb // size), size


def sampler_hz(sample_hz: float) -> int:
    """The per-thread sampler's rate for `sample_hz`: a whole number of samples a
    second, at least 1."""
    if isinstance(sample_hz, bool) or not isinstance(sample_hz, (int, float)) \
            or not 0 < sample_hz <= MAX_SAMPLE_HZ:
        raise SettingError(f"sample_hz must be above 0 and at most {MAX_SAMPLE_HZ}, or 0/None "
                           f"to turn CPU sampling off; got {sample_hz!r}")
    return max(1, round(sample_hz))


def check_clock(clock: object) -> str:
    if clock not in CLOCKS:
        raise SettingError(f'clock must be "cpu" (each thread\'s CPU time) or "wall" (elapsed '
                           f"time, running or waiting); got {clock!r}")
    return str(clock)


# perf_event_open's system call number where the probe below knows it.
_PERF_EVENT_OPEN = {"x86_64": 298, "aarch64": 241}


def probe_cpu_sampling() -> Optional[str]:
    """Opens the software CPU clock as a capture with perf events does, and closes
    it again: None when that works (or can't be tried here), else why not. Such a
    capture samples this process, each thread on each CPU with children
    inherited, which perf_event_paranoid 2 allows any user; a CPU-wide probe
    would refuse users the capture serves. A container's seccomp filter and
    perf_event_paranoid at 3 refuse it; with the reason in hand the capture goes
    on without the perf events instead of being refused whole. The per-thread
    sampler needs no perf_event and is not probed."""
    number = _PERF_EVENT_OPEN.get(platform.machine())
    if number is None:
        return None
    try:
        libc = ctypes.CDLL(None, use_errno=True)
    except OSError:
        return None
    # perf_event_attr of 112 bytes (PERF_ATTR_SIZE_VER5): type and size, config,
    # sample_period, sample_type, read_format (PERF_FORMAT_ID), then the capture's
    # flag bits: disabled, inherit, exclude_kernel, exclude_hv, exclude_idle, mmap,
    # task, sample_id_all, exclude_callchain_kernel.
    attr = (ctypes.c_uint64 * 14)()
    attr[0] = _SOFTWARE | (112 << 32)
    attr[1] = _CPU_CLOCK
    attr[2] = 1_000_003
    attr[3] = _SAMPLE_TYPE
    attr[4] = 4
    attr[5] = 0x2421E1 | 0x2
    libc.syscall.restype = ctypes.c_long
    # This thread (pid 0) on CPU 0, the first group the capture opens.
    fd = libc.syscall(ctypes.c_long(number), ctypes.byref(attr), ctypes.c_long(0),
                      ctypes.c_long(0), ctypes.c_long(-1), ctypes.c_long(8))  # FD_CLOEXEC
    if fd >= 0:
        os.close(fd)
        return None
    code = ctypes.get_errno()
    reason = f"perf_event_open: {os.strerror(code)}"
    if code in (errno.EACCES, errno.EPERM):
        try:
            with open("/proc/sys/kernel/perf_event_paranoid") as f:
                reason += f" (perf_event_paranoid is {f.read().strip()})"
        except OSError:
            pass
    return reason


# Where an NVIDIA driver's libcuda.so.1 lies when the loader's cache doesn't list
# it: WSL's folder, and the usual library folders.
_LIBCUDA = "libcuda.so.1"
_LIBCUDA_FOLDERS = ("/usr/lib/wsl/lib", "/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu",
                    "/usr/lib64", "/usr/lib", "/lib64", "/lib")


def _libcuda_paths() -> List[str]:
    """Paths the dynamic loader could take libcuda.so.1 from: LD_LIBRARY_PATH's
    folders, the paths the loader's cache (/etc/ld.so.cache) lists, and the usual
    folders."""
    folders = [d for d in os.environ.get("LD_LIBRARY_PATH", "").split(":") if d]
    paths = [os.path.join(d, _LIBCUDA) for d in folders]
    try:
        with open("/etc/ld.so.cache", "rb") as f:
            cache = f.read()
    except OSError:
        cache = b""
    # The cache's strings are NUL-terminated; its paths are what it maps names to.
    suffix = ("/" + _LIBCUDA).encode()
    paths += [entry.decode(errors="replace") for entry in cache.split(b"\0")
              if entry.startswith(b"/") and entry.endswith(suffix)]
    paths += [os.path.join(d, _LIBCUDA) for d in _LIBCUDA_FOLDERS]
    return paths


def cuda_driver_present() -> bool:
    """Whether an NVIDIA driver seems present: its /proc folder, or a libcuda.so.1
    where the dynamic loader would find it (WSL has no /proc/driver/nvidia). GPU
    tracing on a machine without one would only log CUPTI's failures.

    Nothing is loaded to find out: a driver library can't be unloaded safely, so
    a libcuda.so.1 loaded just to probe would stay in the process for good. Nor
    is ctypes.util.find_library asked: where the loader's cache lacks the name, it
    runs the compiler and the linker in child processes to search."""
    if os.path.exists("/proc/driver/nvidia"):
        return True
    return any(os.path.isfile(path) for path in _libcuda_paths())


def resolve_gpu(gpu: Union[bool, str]) -> bool:
    if gpu == "auto":
        return cuda_driver_present()
    if isinstance(gpu, bool):
        return gpu
    raise ValueError(f'gpu must be True, False or "auto"; got {gpu!r}')


def wants_perf_events(overrides: Optional[Mapping[str, Mapping[str, object]]]) -> bool:
    """Whether the settings ask for perf events: "EventConfigs" given in the perf
    section (left empty, it means the processor's raw events)."""
    return "EventConfigs" in (overrides or {}).get("perf", {})


def record_file_name(environ: Optional[Mapping[str, str]] = None) -> str:
    """The capture files' name pattern: host, pid and start time, so that no two
    processes' files collide in a shared folder, and the rank where a launcher set
    one, so that a folder of a job's captures lists by rank."""
    found = _ranks.detect(environ)
    return "zorvek_%h_%p_%t" if found is None else "zorvek_%%h_rank%d_%%p_%%t" % found.rank


def build_settings(output_dir: str, buffer_mb: Optional[int], sample_hz: Optional[float],
                   gpu: bool, follow_forks: bool,
                   overrides: Optional[Mapping[str, Mapping[str, object]]] = None,
                   share: bool = False, clock: str = "cpu", perf_events: bool = True) -> Settings:
    """The three maps, keyed "profiler", "cuda", "perf" as `_zorv.Config` names
    them. `sample_hz` is the per-thread sampler's rate on `clock`; perf events
    are on only where `overrides` give "EventConfigs" (and `perf_events` allows
    them). `overrides` is laid over the maps last, for settings without a
    keyword. Raises SettingError for any value the profiler would misread or that
    could only spoil the capture (see check_settings)."""
    clock = check_clock(clock)
    count, size = split_buffer(buffer_mb if buffer_mb is not None else auto_buffer_mb())
    perf_on = perf_events and wants_perf_events(overrides)
    profiler = {
        "BucketCount": str(count),
        "BucketSizeMB": str(size),
        "RecordFile": os.path.join(output_dir, record_file_name()),
        "EnableCuda": "1" if gpu else "0",
        "EnablePerf": "1" if perf_on else "0",
        "EnableForkFollow": "1" if follow_forks else "0",
        # Captures hold the command line, host names and the address layout:
        # readable by their owner only unless shared on purpose.
        "ShareFiles": "1" if share else "0",
    }
    perf: Dict[str, str] = {}
    if sample_hz:
        # Each thread's own timer signals that thread, which walks its native and
        # Python frames; its CPU clock counts system time too.
        perf["ThreadSamplerHz"] = str(sampler_hz(sample_hz))
        perf["ThreadSamplerClock"] = clock
    if perf_on:
        # Threads and processes started after the start are sampled too, and
        # libraries loaded before it (libpython, torch's) get their mappings into
        # the capture, so that their addresses can be named.
        perf.update({"InheritEvents": "1", "RecordMappings": "1"})
    settings: Settings = {"profiler": profiler, "cuda": {}, "perf": perf}
    for section, keys in (overrides or {}).items():
        if section not in settings:
            raise SettingError(f"unknown settings section {_quoted(str(section))}"
                               f"{_suggestion(str(section), settings)} The sections are "
                               '"profiler", "cuda" and "perf".')
        settings[section].update({str(k): _setting_text(v) for k, v in keys.items()})
    check_settings(settings)
    return settings


# ---- Checking what the profiler is handed ----------------------------------------
#
# The profiler reads every setting with C's conversions and never complains: "abc"
# is 0, "true" is false, an unknown key is ignored. What the package hands it is
# checked here first, so that a mistake is refused with the value as given.

_U32 = (1 << 32) - 1
_U64 = (1 << 64) - 1
_I32 = (1 << 31) - 1

# perf_event's sample type bits, by the names its documentation gives them.
_SAMPLE_BITS = ("IP", "TID", "TIME", "ADDR", "READ", "CALLCHAIN", "ID", "CPU", "PERIOD",
                "STREAM_ID", "RAW", "BRANCH_STACK", "REGS_USER", "STACK_USER", "WEIGHT",
                "DATA_SRC", "IDENTIFIER", "TRANSACTION", "REGS_INTR", "PHYS_ADDR", "AUX",
                "CGROUP", "DATA_PAGE_SIZE", "CODE_PAGE_SIZE", "WEIGHT_STRUCT")
_CALLCHAIN = 0x20
_BRANCH_STACK = 0x800
# The one sample layout the capture's decoder reads, at fixed offsets: IP, TID,
# TIME, ID, STREAM_ID, CPU and the call chain.
DECODED_SAMPLE_TYPE = _SAMPLE_TYPE
# The four raw processor events the profiler samples when "EventConfigs" is empty.
_DEFAULT_EVENT_COUNT = 4
# The profiler itself warns about rings above 2^20 pages (4 GiB each).
MAX_LOG2_PAGES = 20


def _quoted(text: str) -> str:
    """A setting's key or value as given, in double quotes."""
    return json.dumps(text, ensure_ascii=False)


def _bit_names(bits: int) -> str:
    names = [name for i, name in enumerate(_SAMPLE_BITS) if bits >> i & 1]
    unnamed = bits & ~((1 << len(_SAMPLE_BITS)) - 1)
    if unnamed:
        names.append(hex(unnamed))
    return ", ".join(names)


def _setting_text(value: object) -> str:
    """A value as the profiler is to read it: True and False as "1" and "0" (their
    str() would read as 0 both), anything else as its str()."""
    if isinstance(value, bool):
        return "1" if value else "0"
    return value if isinstance(value, str) else str(value)


def _whole(text: str, low: int, high: int) -> Optional[int]:
    """`text` as a decimal whole number within [low, high], else None."""
    if not re.fullmatch(r"-?[0-9]+", text):
        return None
    number = int(text)
    return number if low <= number <= high else None


class _Number:
    """A whole number within [low, high]; `check` says what else is wrong with it."""

    def __init__(self, low: int, high: int,
                 check: Optional[Callable[[int, Settings], Optional[str]]] = None,
                 what: str = "") -> None:
        self.low, self.high, self.check, self.what = low, high, check, what

    def problem(self, text: str, settings: Settings) -> Optional[str]:
        number = _whole(text, self.low, self.high)
        if number is None:
            return self.what or f"a whole number from {self.low} to {self.high}"
        return self.check(number, settings) if self.check else None


_FLAG = _Number(0, 1, what='"1" (on) or "0" (off)')


class _Text:
    def __init__(self, check: Optional[Callable[[str, Settings], Optional[str]]] = None) -> None:
        self.check = check

    def problem(self, text: str, settings: Settings) -> Optional[str]:
        return self.check(text, settings) if self.check else None


def _compression(number: int, settings: Settings) -> Optional[str]:
    if number <= 9 or 1_000_000 <= number <= 1_000_009:
        return None
    return "1000000 plus a zlib level from 0 to 9 (1000001 is level 1), or the level alone"


def _single_worker(number: int, settings: Settings) -> Optional[str]:
    if number == 1:
        return None
    return ('"1": with "0" the profiler builds per-CPU workers that never start, and no CPU '
            "sample is recorded")


def _cpu(number: int, settings: Settings) -> Optional[str]:
    cpus = os.sysconf("SC_NPROCESSORS_CONF")
    if number < cpus:
        return None
    return f"-1 (every CPU) or a CPU of this machine, 0 to {cpus - 1}"


def _sample_type(number: int, settings: Settings) -> Optional[str]:
    # The profiler always adds the call chain and removes branch stacks.
    effective = (number & ~(_CALLCHAIN | _BRANCH_STACK)) | _CALLCHAIN
    if effective == DECODED_SAMPLE_TYPE:
        return None
    missing = DECODED_SAMPLE_TYPE & ~effective
    extra = effective & ~DECODED_SAMPLE_TYPE
    why = []
    if missing:
        why.append(f"it leaves out {_bit_names(missing)}")
    if extra:
        why.append(f"it adds {_bit_names(extra)}")
    return (f"{DECODED_SAMPLE_TYPE}, or 2791 (its default, the same once the profiler adds the "
            f"call chain and drops branch stacks): CPU samples are decoded with exactly "
            f"{_bit_names(DECODED_SAMPLE_TYPE)}, and {' and '.join(why)}, so every sample would "
            "be misread")


_EVENT_FIELDS = ("type", "config", "period", "sample_type", "precise", "config1", "config2")


def _event_configs(text: str, settings: Settings) -> Optional[str]:
    if not text:
        return None
    for piece in text.split("|"):
        fields = piece.split(",")
        if not 3 <= len(fields) <= len(_EVENT_FIELDS) or \
                any(_whole(field, 0, _U64) is None for field in fields):
            return ("events parted by \"|\", each as three to seven whole numbers parted by "
                    f"commas: {','.join(_EVENT_FIELDS)}; {_quoted(piece)} is not")
        values = dict(zip(_EVENT_FIELDS, (int(field) for field in fields)))
        if values["period"] == 0:
            return (f"events with a sampling period above 0; {_quoted(piece)} counts without "
                    "ever sampling")
        sample_type = values.get("sample_type", DECODED_SAMPLE_TYPE)
        if sample_type & DECODED_SAMPLE_TYPE != DECODED_SAMPLE_TYPE:
            missing = _bit_names(DECODED_SAMPLE_TYPE & ~sample_type)
            return (f"events whose sample type holds {DECODED_SAMPLE_TYPE} "
                    f"({_bit_names(DECODED_SAMPLE_TYPE)}); {_quoted(piece)} leaves out {missing}, "
                    "so its samples would be misread")
    return None


def _event_count(settings: Settings) -> int:
    text = settings["perf"].get("EventConfigs", "")
    return len(text.split("|")) if text else _DEFAULT_EVENT_COUNT


def _proc_int(path: str) -> Optional[int]:
    try:
        with open(path) as f:
            return int(f.read().split()[0])
    except (OSError, ValueError, IndexError):
        return None


def _may_lock_memory() -> bool:
    """CAP_IPC_LOCK in the effective set: perf rings then have no locked-memory limit."""
    try:
        with open("/proc/self/status") as f:
            for line in f:
                if line.startswith("CapEff:"):
                    return bool(int(line.split()[1], 16) >> 14 & 1)
    except (OSError, ValueError, IndexError):
        pass
    return os.geteuid() == 0


def locked_ring_pages() -> Optional[int]:
    """The pages the kernel maps into perf rings for this process, all rings
    together: perf_event_mlock_kb per online CPU for the user, and this process's
    RLIMIT_MEMLOCK beyond that. None where no limit applies (CAP_IPC_LOCK, or
    perf_event_paranoid at -1)."""
    if _may_lock_memory() or _proc_int("/proc/sys/kernel/perf_event_paranoid") == -1:
        return None
    mlock_kb = _proc_int("/proc/sys/kernel/perf_event_mlock_kb")
    if mlock_kb is None:
        return None
    page = os.sysconf("SC_PAGE_SIZE")
    pages = mlock_kb * 1024 // page * (os.sysconf("SC_NPROCESSORS_ONLN") or 1)
    soft, _ = resource.getrlimit(resource.RLIMIT_MEMLOCK)
    if soft == resource.RLIM_INFINITY:
        return None
    return pages + soft // page


def _log2_pages(number: int, settings: Settings) -> Optional[str]:
    if number > MAX_LOG2_PAGES:
        return f"at most {MAX_LOG2_PAGES} (a ring of 2^{MAX_LOG2_PAGES} pages per CPU)"
    allowed = locked_ring_pages()
    if allowed is None or settings["profiler"].get("EnablePerf") != "1":
        return None
    cpus = 1 if settings["perf"].get("CPU", "-1") != "-1" else os.sysconf("SC_NPROCESSORS_CONF")
    rings = cpus * _event_count(settings)
    # Each ring is its data pages and one page of its own header; the profiler
    # never uses fewer than 128.
    per_ring = max(1 << number, 128) + 1
    if rings * per_ring <= allowed:
        return None
    fits = [k for k in range(7, MAX_LOG2_PAGES + 1) if rings * ((1 << k) + 1) <= allowed]
    best = f"at most {fits[-1]}" if fits else "left out"
    return (f"{best} here: {rings} rings of {per_ring} pages need {rings * per_ring} pages of "
            f"locked memory, and the kernel maps {allowed} for this process "
            "(/proc/sys/kernel/perf_event_mlock_kb per CPU, and RLIMIT_MEMLOCK beyond that); "
            "larger rings would not be mapped and no CPU sample would be recorded")


def _clock(text: str, settings: Settings) -> Optional[str]:
    return None if text in CLOCKS else '"cpu" or "wall"'


_KEYS: Dict[str, Dict[str, Union[_Number, _Text]]] = {
    "profiler": {
        "BucketCount": _Number(2, _U32),
        "BucketSizeMB": _Number(1, 4095),
        "Compression": _Number(0, _U32, _compression),
        "EnableCuda": _FLAG,
        "EnablePerf": _FLAG,
        "SharedBuffers": _FLAG,
        "SharedAnnotations": _FLAG,
        "EnableForkFollow": _FLAG,
        "FlushIntervalMs": _Number(0, _U32),
        "ShareFiles": _FLAG,
        "RecordFile": _Text(),
    },
    # The GPU collector reads no key: ZVK_CUDA_CONFIG picks what it traces.
    "cuda": {},
    "perf": {
        "PID": _Number(0, _I32),
        "CPU": _Number(-1, _I32, _cpu),
        "InheritEvents": _FLAG,
        "SingleWorker": _Number(0, 1, _single_worker, _FLAG.what),
        "SharedBuckets": _FLAG,
        "RecordMappings": _FLAG,
        "UseSoftBacktrace": _FLAG,
        "Log2NumPages": _Number(0, _U32, _log2_pages),
        "PerfEventType": _Number(0, _U32),
        "CgroupDir": _Text(),
        "PerfSampleType": _Number(0, _U64, _sample_type),
        "OverflowThreshold": _Number(0, _U64),
        "EventConfigs": _Text(_event_configs),
        "ThreadSamplerHz": _Number(0, MAX_SAMPLE_HZ),
        "ThreadSamplerClock": _Text(_clock),
    },
}


def _suggestion(name: str, choices: Mapping[str, object]) -> str:
    close = difflib.get_close_matches(name, list(choices), n=1)
    return f"; did you mean {_quoted(close[0])}?" if close else ""


def check_settings(settings: Settings) -> None:
    """Raises SettingError, naming the setting and the value as given, for an
    unknown key and for a value that the profiler would misread (text that isn't
    a whole number where one is wanted, a negative, fractional or empty one) or
    that could only corrupt or silence the capture."""
    for section, keys in settings.items():
        known = _KEYS[section]
        for key, text in keys.items():
            kind = known.get(key)
            if kind is None:
                raise SettingError(_unknown(section, key))
            if isinstance(kind, _Number) and text == "":
                raise SettingError(f"{section} setting {key} is empty; leave it out to keep its "
                                   "default")
            problem = kind.problem(text, settings)
            if problem is not None:
                raise SettingError(f"{section} setting {key}={_quoted(text)} is refused: it must "
                                   f"be {problem}")


def _unknown(section: str, key: str) -> str:
    for other, keys in _KEYS.items():
        if other != section and key in keys:
            return f"{section} has no setting {_quoted(key)}: it is a {other} setting"
    if not _KEYS[section]:
        return (f"unknown {section} setting {_quoted(key)}: the {section} section takes no keys "
                "(ZVK_CUDA_CONFIG picks what the GPU collector traces)")
    return f"unknown {section} setting {_quoted(key)}{_suggestion(key, _KEYS[section])}"
