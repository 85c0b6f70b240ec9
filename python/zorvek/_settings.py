"""The profiler's settings, chosen for the machine: what `zorvek.profile` hands to
`_zorv` as its three string maps, and the probes behind each automatic choice."""

from __future__ import annotations

import ctypes
import errno
import os
import platform
from typing import Dict, List, Mapping, Optional, Tuple, Union

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
# cpu, stream id and the call chain).
_SOFTWARE = 1
_CPU_CLOCK = 0
_SAMPLE_TYPE = 743
MAX_SAMPLE_HZ = 100_000

Settings = Dict[str, Dict[str, str]]


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
    if total_mb < 2:
        raise ValueError(f"buffer_mb must be at least 2 (two buckets of 1 MiB); got {total_mb}")
    size = min(MAX_BUCKET_MB, max(1, total_mb // 8))
    return max(2, total_mb // size), size


def _is_prime(n: int) -> bool:
    if n < 2 or n % 2 == 0:
        return n == 2
    f = 3
    while f * f <= n:
        if n % f == 0:
            return False
        f += 2
    return True


def sampling_period_ns(sample_hz: float) -> int:
    """The CPU clock period for about `sample_hz` samples a second of CPU time: the
    first prime at or above 1e9 / sample_hz, so that sampling doesn't run in step
    with the job's own periodic work (timer ticks, a loop of a round length)."""
    if not 0 < sample_hz <= MAX_SAMPLE_HZ:
        raise ValueError(f"sample_hz must be above 0 and at most {MAX_SAMPLE_HZ}, or 0/None "
                         f"to turn CPU sampling off; got {sample_hz}")
    period = max(3, round(1e9 / sample_hz))
    while not _is_prime(period):
        period += 1
    return period


def software_clock_event(sample_hz: float) -> str:
    """The "EventConfigs" entry that samples the software CPU clock at about
    `sample_hz`: seven fields, type, config, period, sample type, precise, config1,
    config2."""
    return f"{_SOFTWARE},{_CPU_CLOCK},{sampling_period_ns(sample_hz)},{_SAMPLE_TYPE},0,0,0"


def has_hardware_pmu() -> bool:
    """Whether the processor's performance counters are offered to perf_event (many
    cloud VMs offer none). Sampling uses the software clock either way; this is
    reported by `zorvek record -v`."""
    return any(os.path.isdir(f"/sys/bus/event_source/devices/{name}")
               for name in ("cpu", "cpu_core", "armv8_pmuv3_0", "armv8_pmuv3"))


# perf_event_open's system call number where the probe below knows it.
_PERF_EVENT_OPEN = {"x86_64": 298, "aarch64": 241}


def probe_cpu_sampling() -> Optional[str]:
    """Opens the software CPU clock for this thread and closes it again: None when
    that works (or can't be tried here), else why not. A container's seccomp filter
    and perf_event_paranoid at 3 refuse it; with the reason in hand the capture goes
    on without CPU samples instead of being refused whole."""
    number = _PERF_EVENT_OPEN.get(platform.machine())
    if number is None:
        return None
    try:
        libc = ctypes.CDLL(None, use_errno=True)
    except OSError:
        return None
    # perf_event_attr in its first published size (64 bytes): type, size, config,
    # sample_period, sample_type, read_format, then the flag bits: disabled (bit 0),
    # exclude_kernel (bit 5), exclude_hv (bit 6).
    attr = (ctypes.c_uint64 * 8)()
    attr[0] = _SOFTWARE | (64 << 32)
    attr[1] = _CPU_CLOCK
    attr[2] = 1_000_003
    attr[5] = 1 | (1 << 5) | (1 << 6)
    libc.syscall.restype = ctypes.c_long
    fd = libc.syscall(ctypes.c_long(number), ctypes.byref(attr), ctypes.c_long(0),
                      ctypes.c_long(-1), ctypes.c_long(-1), ctypes.c_long(8))  # FD_CLOEXEC
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


def build_settings(output_dir: str, buffer_mb: Optional[int], sample_hz: Optional[float],
                   gpu: bool, follow_forks: bool,
                   overrides: Optional[Mapping[str, Mapping[str, str]]] = None) -> Settings:
    """The three maps, keyed "profiler", "cuda", "perf" as `_zorv.Config` names
    them. `overrides` is laid over them last, for settings without a keyword."""
    count, size = split_buffer(buffer_mb if buffer_mb is not None else auto_buffer_mb())
    profiler = {
        "BucketCount": str(count),
        "BucketSizeMB": str(size),
        "RecordFile": os.path.join(output_dir, "zorvek_%h_%p_%t"),
        "EnableCuda": "1" if gpu else "0",
        "EnablePerf": "1" if sample_hz else "0",
        "EnableForkFollow": "1" if follow_forks else "0",
    }
    perf: Dict[str, str] = {}
    if sample_hz:
        perf = {
            "EventConfigs": software_clock_event(sample_hz),
            # Threads and processes started after the start are sampled too.
            "InheritEvents": "1",
            # Libraries loaded before the start (libpython, torch's) get their
            # mappings into the capture, so that their addresses can be named.
            "RecordMappings": "1",
        }
    settings: Settings = {"profiler": profiler, "cuda": {}, "perf": perf}
    for section, keys in (overrides or {}).items():
        if section not in settings:
            raise ValueError(f'settings sections are "profiler", "cuda" and "perf"; got {section!r}')
        settings[section].update({str(k): str(v) for k, v in keys.items()})
    return settings
