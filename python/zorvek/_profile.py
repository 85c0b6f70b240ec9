"""zorvek.profile: configure, start and stop a capture around a block or a call."""

from __future__ import annotations

import atexit
import errno
import functools
import inspect
import os
import re
import sys
import threading
from typing import Any, Callable, Dict, List, Mapping, Optional, Set, Tuple, TypeVar, Union

import _zorv

from . import _autostart
from . import _clocksync
from . import _names
from . import _stallmark
from . import _settings
from . import _sigterm
from . import nvtx as _nvtx

F = TypeVar("F", bound=Callable[..., Any])

DEFAULT_OUTPUT_DIR = "zorvek_out"

# The controller's answers that the package acts on, by their codes: for each
# call the package makes, FailedPrecondition has one meaning (configure: already
# configured; start: a capture is running; stop: none is running).
_OK = _zorv.ErrorCode.OK
_OUT_OF_ORDER = _zorv.ErrorCode.FailedPrecondition

# What a setting is called in messages.
_SETTING_NAMES = {
    "RecordFile": "output folder",
    "BucketCount": "buffer memory",
    "BucketSizeMB": "buffer memory",
    "ThreadSamplerHz": "CPU sampling",
    "ThreadSamplerClock": "sampling clock",
    "EnablePerf": "perf events",
    "EventConfigs": "perf events",
    "EnableCuda": "GPU tracing",
    "EnableForkFollow": "fork following",
    "ShareFiles": "file sharing",
}


def report(message: str) -> None:
    """One line on stderr, where the profiler's own lines go, never on stdout."""
    print(f"zorvek: {message}", file=sys.stderr, flush=True)


class _Process:
    """What the package knows of the process's one profiler."""

    def __init__(self) -> None:
        self.settings: Optional[_settings.Settings] = None  # as configured, once OK
        self.output_dir: Optional[str] = None               # as the first profile() named it
        self.configured_elsewhere = False                   # configured, not by us
        self.error: Optional[str] = None                    # a refused configure
        self.sampling_problem: Optional[Tuple[Optional[str]]] = None  # the probe's answer, once asked
        self.capture: Optional["profile"] = None            # whose start runs the capture
        self.variables_set_by_us: Set[str] = set()  # log variables a quiet profile() set


_state = _Process()
_lock = threading.RLock()


def _quiet_native_logs(verbose: bool) -> None:
    """The profiler's INFO lines (hook search, writer statistics) go to stderr from
    C++; the level is read from ZORV_MIN_LOG_LEVEL once per process, at its first
    line. Unless the user set the level, a quiet profile() sets WARNING before
    that first line, and a verbose one puts back what a quiet one set.

    ZORV_QUIET=1 leaves out the profiler's lines that report nothing (a stall of
    0 s, its fork warnings); a stall or a loss that happened is still told. Set
    the same way, so the job's standard error stays what it was, terminal and
    all, with only those lines gone."""
    for variable in ("ZORV_MIN_LOG_LEVEL", "ZORV_QUIET"):
        if not verbose and os.environ.get(variable) is None:
            # WARNING for the level, on for the switch.
            os.environ[variable] = "1"
            _state.variables_set_by_us.add(variable)
        elif verbose and variable in _state.variables_set_by_us:
            os.environ[variable] = "0"
            _state.variables_set_by_us.discard(variable)


def make_private_folder(directory: str, share: bool = False) -> None:
    """Makes `directory` and each missing folder above it 0700, or 0755 when
    `share`, whatever the umask: captures hold the command line, host names and
    the process's address layout. Folders that exist stay as they are."""
    mode = 0o755 if share else 0o700
    missing: List[str] = []
    path = os.path.abspath(directory)
    while not os.path.lexists(path) and os.path.dirname(path) != path:
        missing.append(path)
        path = os.path.dirname(path)
    for path in reversed(missing):
        try:
            os.mkdir(path, mode)
        except FileExistsError:
            if os.path.isdir(path):
                continue  # another process made it meanwhile: not ours to change
            raise
        os.chmod(path, mode)
    if not os.path.isdir(directory):
        raise NotADirectoryError(errno.ENOTDIR, os.strerror(errno.ENOTDIR), directory)


def _file_regex(pattern: str, pid: Optional[int]) -> "re.Pattern[str]":
    """The names the writer makes from `pattern`'s last part: as it does, the first
    %p, %t and %h are replaced (pid, nanoseconds, host), then "_N.zvkraw" follows."""
    replacements = {"%p": str(pid) if pid is not None else r"\d+", "%t": r"\d+", "%h": r".+"}
    parts: List[str] = []
    i = 0
    while i < len(pattern):
        token = pattern[i:i + 2]
        if token in replacements:
            parts.append(replacements.pop(token))
            i += 2
        else:
            parts.append(re.escape(pattern[i]))
            i += 1
    return re.compile("".join(parts) + r"_\d+\.zvkraw")


def _natural_key(name: str) -> List[Union[int, str]]:
    return [int(part) if part.isdigit() else part for part in re.split(r"(\d+)", name)]


def _size_text(count: float) -> str:
    for unit in ("bytes", "kB", "MB", "GB"):
        if count < 1000 or unit == "GB":
            return f"{count:.0f} {unit}" if unit == "bytes" else f"{count:.1f} {unit}"
        count /= 1000
    return ""


def describe_files(files: List[str], output_dir: str, extra: int = 0) -> str:
    """'wrote 2 files (1.4 MB) to DIR: a, b', the names cut after three."""
    size = 0
    for path in files:
        try:
            size += os.path.getsize(path)
        except OSError:
            pass
    names = [os.path.basename(path) for path in files]
    shown = ", ".join(names[:3]) + (f" and {len(names) - 3} more" if len(names) > 3 else "")
    plural = "file" if len(files) == 1 else "files"
    text = f"wrote {len(files)} {plural} ({_size_text(size)}) to {output_dir}: {shown}"
    if extra:
        text += f"; child processes wrote {extra} more there"
    return text


class profile:
    """profile(output_dir="zorvek_out", *, buffer_mb=None, sample_hz=1000, clock="cpu",
    gpu="auto", follow_forks=False, verbose=False, quiet=False, nvtx=True, settings=None,
    share=False)

    Captures what the process does while a block or a call runs, into .zvkraw files
    in `output_dir`, and says on stderr where they are. As a context manager:

        with zorvek.profile("runs/capture"):
            train()

    as a decorator, each call its own capture:

        @zorvek.profile(sample_hz=500)
        def train(): ...

    or with start() and stop().

    Settings:

    - output_dir: the folder for the files, made if missing (0700, like each
      folder above it that it makes). Files are named
      zorvek_HOST_PID_NANOSECONDS_N.zvkraw, readable by their owner only (0600).
    - buffer_mb: memory for the capture's buffers, reserved at the first start.
      None picks 2 % of the memory the process may use, between 16 and 256 MiB,
      split into buckets of at most 8 MiB.
    - sample_hz: samples a second of each thread (a whole number, at most
      10 000), each with the thread's Python stack merged with its native one.
      0 or None turns CPU sampling off. Every thread of the process is sampled,
      those already running at the start and those started later; child
      processes only with follow_forks. No perf_event is needed: each thread has
      a timer of its own, which any user may set.
    - clock: "cpu" (the default) samples each thread's CPU time, user and system
      (time in system calls and page faults counts); "wall" samples elapsed time,
      running or waiting, so time blocked on a lock, I/O or a data loader shows,
      with waiting samples marked as such.
    - gpu: trace CUDA kernels, copies and API calls through CUPTI: True, False, or
      "auto", on when an NVIDIA driver is present.
    - follow_forks: child processes write capture files of their own, with their
      CPU samples and annotations: a forked child (a multiprocessing or
      DataLoader worker) from the fork on, and a Python process started anew (a
      spawn or forkserver worker, `python` through subprocess) from its first
      line, through ZORVEK_OUTPUT and ZORVEK_OPTIONS, which the capture sets in
      os.environ while it runs. Without it, children are not profiled at all.
    - verbose: also show the profiler's INFO lines and the lines that report
      nothing (a stall of 0 s, fork warnings). Otherwise profile() sets
      ZORV_MIN_LOG_LEVEL to WARNING and ZORV_QUIET to 1 unless they are set; the
      profiler reads them once per process, at its first log line, so it must
      happen before anything else made the profiler log.
    - quiet: don't print where the files are; problems are still printed.
    - nvtx: take the NVTX ranges and marks of the process's libraries as
      annotations, "domain/message" for a named domain: once the profiler is
      configured, the start sets NVTX_INJECTION64_PATH to zorvek's injection
      library and loads it. NVTX reads the variable at a library's first NVTX
      call, so ranges of libraries that used NVTX before are not seen. A variable
      naming another tool is kept.

    The variables ZORV_MIN_LOG_LEVEL, ZORV_QUIET and NVTX_INJECTION64_PATH are set
    in os.environ, for the rest of the process, and child processes inherit them on
    purpose: a worker started through subprocess or a "spawn" start method that
    profiles itself has its NVTX ranges recorded and its INFO lines hidden too.
    - settings: {"profiler": {...}, "cuda": {...}, "perf": {...}}, the profiler's
      own string settings, laid over the ones chosen from the keywords; perf
      "EventConfigs" given here turn perf_event sampling on as well. Values
      are strings, whole numbers, or True and False for "1" and "0". Unknown
      keys, values the profiler would misread ("abc", "-1", "1.5", "" where a
      number is wanted) and values that could only spoil the capture
      (a "PerfSampleType" the decoder can't read, "SingleWorker" "0", a
      "Log2NumPages" the kernel won't map) raise ValueError here.
    - share: capture files readable by everyone (0644) and folders 0755,
      instead of 0600 and 0700.

    The profiler is configured once per process: a later profile() reuses it, and
    says so if its settings differ. A profile() entered while another one's
    capture runs becomes part of that capture. Profiling never stops the job: a
    configuration the profiler refuses, or a start that failed, is reported with
    its reason and the block runs unprofiled. `started` tells whether it ran,
    `error` why not, `files` what the capture wrote.
    """

    def __init__(self, output_dir: Union[str, "os.PathLike[str]"] = DEFAULT_OUTPUT_DIR, *,
                 buffer_mb: Optional[int] = None, sample_hz: Optional[float] = 1000,
                 clock: str = "cpu", gpu: Union[bool, str] = "auto", follow_forks: bool = False,
                 verbose: bool = False, quiet: bool = False, nvtx: bool = True,
                 settings: Optional[Mapping[str, Mapping[str, object]]] = None,
                 share: bool = False) -> None:
        # Mistakes in the arguments are raised here, before anything is touched:
        # the settings as the start will hand them over, but for what the machine
        # decides then (GPU, whether perf events are allowed).
        if not (gpu == "auto" or isinstance(gpu, bool)):
            raise ValueError(f'gpu must be True, False or "auto"; got {gpu!r}')
        _settings.build_settings(".", buffer_mb, sample_hz, False, follow_forks, settings, share,
                                 clock)
        self._kwargs: Dict[str, Any] = dict(
            output_dir=output_dir, buffer_mb=buffer_mb, sample_hz=sample_hz, clock=clock, gpu=gpu,
            follow_forks=follow_forks, verbose=verbose, quiet=quiet, nvtx=nvtx, settings=settings,
            share=share)
        self.output_dir = os.fspath(output_dir)
        self.buffer_mb = buffer_mb
        self.sample_hz = sample_hz
        self.clock = clock
        self.gpu = gpu
        self.follow_forks = follow_forks
        self.verbose = verbose
        self.quiet = quiet
        self.nvtx = nvtx
        self.settings = settings
        self.share = share
        self.started = False
        self.error: Optional[str] = None
        self.files: List[str] = []
        self.other_files: List[str] = []
        self._running = False   # this object's start began the capture
        self._joined = False    # this object joined a capture already running
        self._pid = 0
        self._before: Set[str] = set()
        self._pattern = ""
        self._handed: Dict[str, str] = {}  # the environment handed down to children

    def __repr__(self) -> str:
        return f"zorvek.profile({self.output_dir!r})"

    # ---- Context manager and decorator ----

    def __enter__(self) -> "profile":
        self.start()
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.stop()

    def __call__(self, func: F) -> F:
        kwargs = self._kwargs
        wrapper: Callable[..., Any]
        if inspect.iscoroutinefunction(func):
            async def coroutine_wrapper(*args: Any, **kw: Any) -> Any:
                with profile(**kwargs):
                    return await func(*args, **kw)
            wrapper = coroutine_wrapper
        else:
            def plain_wrapper(*args: Any, **kw: Any) -> Any:
                with profile(**kwargs):
                    return func(*args, **kw)
            wrapper = plain_wrapper
        return functools.update_wrapper(wrapper, func)  # type: ignore[return-value]

    # ---- Start and stop ----

    def start(self) -> bool:
        """Configures the profiler if nothing did yet, and starts a capture. True
        when a capture runs for this object (its own, or one it joined)."""
        with _lock:
            if self._running or self._joined:
                return True
            self._pid = os.getpid()
            self.error, self.files, self.other_files = None, [], []
            _quiet_native_logs(self.verbose)
            if not self._configure():
                return False
            if self.nvtx:
                # After a configure that worked, so that a profile() that can't
                # profile leaves NVTX alone; before the start, whose table goes
                # only to libraries loaded by then.
                _nvtx.enable(report, self.verbose)
            self._pattern = self._record_pattern()
            self._before = set(self._matching(None))
            status = _zorv._start_profiling()
            if status.code == _OK:
                self._running = self.started = True
                _state.capture = self
                atexit.register(self._stop_at_exit)
                self._mark_clocks()
                _names.start_marking()
                if self.follow_forks:
                    self._hand_down()
                if self.verbose:
                    report(f"capture started; files go to {self._shown_dir()}")
                return True
            if status.code == _OUT_OF_ORDER:
                self._joined = self.started = True
                if self.verbose:
                    report("a capture is already running in this process; this profile() is part of it")
                return True
            self.error = (f"the capture did not start: {status!r} (files were to go to "
                          f"{self._shown_dir()})")
            report(self.error)
            return False

    def stop(self) -> List[str]:
        """Stops the capture this object started, says where its files are (unless
        quiet) and returns their paths. Nothing happens for a profile() that joined
        another one's capture, or never started."""
        with _lock:
            if self._joined:
                self._joined = False
                return []
            if not self._running:
                return []
            self._running = False
            if _state.capture is self:
                _state.capture = None
            atexit.unregister(self._stop_at_exit)
            if os.getpid() == self._pid or self.follow_forks:
                _names.stop_marking()
            self._take_back()
            self._mark_clocks()
            status = _zorv.Zorvek.instance().stop_profiling()
            if os.getpid() != self._pid and status.code == _OUT_OF_ORDER:
                return []  # a forked child that doesn't follow: nothing ran here
            self._collect_files()
            if status.code == _OUT_OF_ORDER:
                # The program stopped the capture itself, through _zorv: its files
                # are whole all the same.
                if self.verbose:
                    report("the program stopped the capture itself")
            elif status.code != _OK:
                self.error = f"stopping the capture: {status!r}"
                report(self.error)
            if not self.quiet:
                self._report_files()
            return self.files

    def _stop_at_exit(self) -> None:
        self.stop()

    # ---- Configuration ----

    def _configure(self) -> bool:
        if _state.error is not None:
            self.error = f"not profiling: the profiler refused its settings earlier in this process: {_state.error}"
            report(self.error)
            return False
        if _state.configured_elsewhere:
            return True
        try:
            wanted = self._wanted_settings()
        except _settings.SettingError as e:
            self.error = f"not profiling: {e}"
            report(self.error)
            return False
        if _state.settings is not None:
            self._compare(wanted)
            return True
        directory = os.path.dirname(wanted["profiler"]["RecordFile"])
        folder = self._folder_name(directory)
        try:
            make_private_folder(directory, self.share)
        except OSError as e:
            self.error = f"not profiling: can't make the output folder {folder}: {e.strerror}"
            report(self.error)
            return False
        if not os.access(directory, os.W_OK | os.X_OK):
            self.error = f"not profiling: can't write to the output folder {folder}"
            report(self.error)
            return False
        config = _zorv.Config()
        config.profiler = wanted["profiler"]
        config.cuda = wanted["cuda"]
        config.perf = wanted["perf"]
        status = _zorv.Zorvek.instance().configure(config)
        if status.code == _OK:
            _state.settings, _state.output_dir = wanted, self.output_dir
            return True
        if status.code == _OUT_OF_ORDER:
            _state.configured_elsewhere = True
            report("the profiler was configured in this process before zorvek.profile(); "
                   "its settings stay, and its files go where they say")
            return True
        _state.error = repr(status)
        self.error = f"not profiling: the profiler refused the settings: {status!r}"
        report(self.error)
        return False

    def _folder_name(self, directory: str) -> str:
        """The folder as the user named it: output_dir, or the folder of a
        "RecordFile" given in settings."""
        return self.output_dir if directory == os.path.abspath(self.output_dir) else directory

    def _mark_clocks(self) -> None:
        """The profiler's own marks, at the start and before the stop: the
        producers' stall time so far, which summary turns into the capture's, and
        with CPU sampling a clock-sync tie, by which the views place samples to
        within tens of microseconds and follow the drift between the two."""
        if os.getpid() != self._pid:
            return
        _stallmark.mark_producer_stall()
        settings = _state.settings or {}
        if settings.get("profiler", {}).get("EnablePerf") == "1":
            _clocksync.mark_clock_sync()

    def _wanted_settings(self) -> _settings.Settings:
        perf_events = True
        if _settings.wants_perf_events(self.settings):
            if _state.sampling_problem is None:
                _state.sampling_problem = (_settings.probe_cpu_sampling(),)
            problem = _state.sampling_problem[0]
            if problem is not None:
                if _state.settings is None:
                    report(f"perf events are not available here ({problem}); profiling "
                           "without them")
                perf_events = False
        return _settings.build_settings(
            os.path.abspath(self.output_dir), self.buffer_mb, self.sample_hz,
            _settings.resolve_gpu(self.gpu), self.follow_forks, self.settings, self.share,
            self.clock, perf_events)

    def _compare(self, wanted: _settings.Settings) -> None:
        assert _state.settings is not None
        differing = []
        for section, keys in wanted.items():
            first = _state.settings[section]
            for key in sorted(set(keys) | set(first)):
                if keys.get(key) != first.get(key):
                    name = _SETTING_NAMES.get(key, key)
                    if name not in differing:
                        differing.append(name)
        if differing:
            report("the profiler is configured once per process; this profile() keeps the "
                   f"first one's settings ({', '.join(differing)} "
                   f"{'differs' if len(differing) == 1 else 'differ'}), files go to "
                   f"{_state.output_dir}")

    # ---- Files ----

    def _record_pattern(self) -> str:
        # The environment has the last word on the file name, as in the profiler.
        pattern = os.environ.get("ZVK_OUTPUT_FILE_NAME")
        if pattern:
            return os.path.abspath(pattern)
        if _state.settings is not None:
            return _state.settings["profiler"]["RecordFile"]
        return ""

    def _shown_dir(self) -> str:
        if os.environ.get("ZVK_OUTPUT_FILE_NAME"):
            return os.path.dirname(self._pattern) or "."
        return _state.output_dir or self.output_dir

    def _matching(self, pid: Optional[int]) -> List[str]:
        if not self._pattern:
            return []
        directory, base = os.path.split(self._pattern)
        regex = _file_regex(base, pid)
        try:
            names = os.listdir(directory or ".")
        except OSError:
            return []
        return [os.path.join(directory, name) for name in names if regex.fullmatch(name)]

    def _collect_files(self) -> None:
        own = [path for path in self._matching(os.getpid()) if path not in self._before]
        self.files = sorted(own, key=_natural_key)
        if self.follow_forks and "%p" in os.path.basename(self._pattern):
            others = set(self._matching(None)) - self._before - set(own)
            self.other_files = sorted(others, key=_natural_key)

    def _report_files(self) -> None:
        if not self._pattern:
            report("capture stopped; its files are where the profiler's own configuration put them")
        elif not self.files:
            report(f"capture stopped, but no file of this process was found in {self._shown_dir()}")
        else:
            report(describe_files(self.files, self._shown_dir(), len(self.other_files)))

    # ---- Children ----

    def _hand_down(self) -> None:
        """Python processes started from here (spawn and forkserver workers, any
        `python` command) profile themselves from their first line: zorvek's .pth
        hook reads what is handed down in the environment. Set for as long as the
        capture runs, unless the environment named a folder already."""
        if os.environ.get(_autostart.OUTPUT):
            return
        options = {key: value for key, value in self._kwargs.items()
                   if key not in ("output_dir", "follow_forks", "quiet")}
        if not self.verbose:
            options.pop("verbose")
        handed = _autostart.handed_down(self._shown_dir(), options)
        os.environ.update(handed)
        self._handed = handed

    def _take_back(self) -> None:
        for key, value in self._handed.items():
            if os.environ.get(key) == value:
                del os.environ[key]
        self._handed = {}

    def _stop_in_worker(self) -> None:
        """A multiprocessing worker leaves through os._exit, which runs no atexit
        handler and no destructor: its capture is stopped from multiprocessing's
        own exit finalizers, so that its file ends whole."""
        with _lock:
            if self._running:
                self._running = False
                _state.capture = None
                _names.stop_marking()
                _zorv.Zorvek.instance().stop_profiling()


def _register_worker_stop(capture: profile) -> None:
    mp_util = sys.modules.get("multiprocessing.util")
    if mp_util is not None:
        mp_util.Finalize(None, capture._stop_in_worker, exitpriority=-100)
        # Pool.terminate() and a DataLoader's shutdown end workers with SIGTERM.
        _sigterm.stop_before_sigterm(capture._stop_in_worker)


def stop_with_worker(capture: profile) -> None:
    """For a capture started in a process that may turn out to be a multiprocessing
    worker. A spawned one leaves through sys.exit, so the stop at exit holds, but
    for SIGTERM; one the forkserver forked leaves through os._exit, after the
    finalizers that its bootstrap's after-fork functions may register."""
    if "--multiprocessing-fork" in sys.argv:
        _sigterm.stop_before_sigterm(capture._stop_in_worker)
    elif "multiprocessing.util" in sys.modules:
        sys.modules["multiprocessing.util"].register_after_fork(capture, _register_worker_stop)


def _after_fork_in_child() -> None:
    global _lock
    # A lock another thread held at the fork would stay held in the child forever.
    _lock = threading.RLock()
    capture = _state.capture
    if capture is None or not capture.follow_forks:
        # Nothing writes this child's records: its new threads are not named.
        _names._marking = False
        return
    _names.start_marking()
    # A child started by multiprocessing runs its after-fork functions, and later its
    # exit finalizers, before it leaves by os._exit.
    mp_util = sys.modules.get("multiprocessing.util")
    if mp_util is not None:
        mp_util.register_after_fork(capture, _register_worker_stop)


os.register_at_fork(after_in_child=_after_fork_in_child)
