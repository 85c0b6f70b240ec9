"""zorvek record: runs a Python program, unchanged, under the profiler, in this very
process and as Python itself would run it: `__name__ == "__main__"`, the same
sys.argv and sys.path[0], the same exit status, the same traceback."""

from __future__ import annotations

import argparse
import atexit
import builtins
import importlib.machinery
import importlib.util
import io
import os
import re
import shutil
import signal
import subprocess
import sys
import time
import types
import zipfile
from typing import Any, Callable, List, NamedTuple, Optional, Union

from . import _names, _profile, _settings

HELP = "run a Python program under the profiler"

DESCRIPTION = """\
Runs a Python program under the profiler, in this process, exactly as Python would
run it: the capture starts before the program's first line and stops when it
ends, whether it returns, raises, calls sys.exit, is interrupted by Ctrl-C or is
sent SIGTERM. The exit status is the program's. At the end one line says which
files were written, followed by a short summary."""

EPILOG = """\
examples:
  zorvek record -- python train.py --epochs 3
  zorvek record train.py --epochs 3              # the same: "python" may be left out
  zorvek record -o runs/a -F 500 -- python -m mypkg.train
  zorvek record --clock wall -- python train.py  # time spent waiting shows too
  zorvek record --no-gpu --follow-forks -- python -u train.py
  zorvek record -F 0 -- python train.py          # annotations and GPU only, no CPU samples

"python" and "python3" name the interpreter zorvek itself runs in. Options of
Python's own (-u, -X dev, -W ...) are honoured: zorvek starts the interpreter again
with them. Another interpreter (python3.12, a virtual environment's) is handed the
whole command, and needs zorvek installed.

Exit status: the program's; 130 after Ctrl-C and 143 after SIGTERM, as a shell
reports a process ended by those signals; 2 for a usage error."""

_PROGRAM_FRAMES = ("<frozen runpy>", "<frozen importlib._bootstrap>")


class UsageError(Exception):
    pass


class Target(NamedTuple):
    kind: str                  # "script", "module" or "code"
    value: str                 # the path, the module's name or the code
    args: List[str]            # the program's arguments
    flags: List[str]           # Python's own options, other than -m and -c
    interpreter: Optional[str]  # another interpreter to hand the command to


def _rate(text: str) -> float:
    """-F's value: 0, or a rate the profiler can sample at."""
    try:
        rate = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number of samples a second") from None
    if rate != 0:
        try:
            _settings.sampler_hz(rate)
        except _settings.SettingError:
            raise argparse.ArgumentTypeError(
                f"{text!r}: give 0 (no CPU sampling) or a rate above 0 and at most "
                f"{_settings.MAX_SAMPLE_HZ}") from None
    return rate


def _buffer_mb(text: str) -> int:
    """--buffer-mb's value: a whole number of MiB the buffers can be made of."""
    try:
        value = int(text, 10)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a whole number of MiB") from None
    try:
        _settings.split_buffer(value)
    except _settings.SettingError as e:
        raise argparse.ArgumentTypeError(f"{text!r}: {e}") from None
    return value


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("-o", "--output", metavar="DIR", default=_profile.DEFAULT_OUTPUT_DIR,
                        help="folder for the capture files, made 0700 if missing (default: "
                             "%(default)s)")
    parser.add_argument("-F", "--freq", "-r", "--rate", dest="rate", metavar="HZ", type=_rate,
                        default=1000.0,
                        help="samples a second of each thread, each with its Python and native "
                             "frames; 0 turns CPU sampling off (default: %(default)g)")
    parser.add_argument("--clock", choices=_settings.CLOCKS, default="cpu",
                        help="what the rate counts: cpu, each thread's CPU time, user and "
                             "system; wall, elapsed time, so that time spent waiting (a lock, "
                             "I/O, a data loader) shows, marked as waiting (default: "
                             "%(default)s)")
    gpu = parser.add_mutually_exclusive_group()
    gpu.add_argument("--gpu", dest="gpu", action="store_true", default=None,
                     help="trace the GPU through CUPTI (default: when an NVIDIA driver is present)")
    gpu.add_argument("--no-gpu", dest="gpu", action="store_false", help="don't trace the GPU")
    forks = parser.add_mutually_exclusive_group()
    forks.add_argument("--follow-forks", dest="follow_forks", action="store_true", default=False,
                       help="child processes write captures of their own, with their CPU samples "
                            "and annotations: forked ones (multiprocessing fork, DataLoader "
                            "workers) and Python ones started with the environment handed down "
                            "(spawn, forkserver, subprocess)")
    forks.add_argument("--no-follow-forks", dest="follow_forks", action="store_false",
                       help="child processes are not profiled: no capture of their own and, "
                            "from Linux 5.13 on, no CPU samples in this one (the default)")
    parser.add_argument("--buffer-mb", metavar="MB", type=_buffer_mb, default=None,
                        help="buffer memory (default: 2%% of memory, 16 to 256 MiB)")
    parser.add_argument("--share", action="store_true",
                        help="capture files readable by everyone (0644) and folders 0755; by "
                             "default 0600 and 0700, as captures hold the command line, host "
                             "names and the process's address layout")
    parser.add_argument("--no-nvtx", dest="nvtx", action="store_false", default=True,
                        help="don't take NVTX ranges as annotations")
    parser.add_argument("-m", dest="module", metavar="MODULE", default=None,
                        help="run a module, as python -m does")
    loud = parser.add_mutually_exclusive_group()
    loud.add_argument("-v", "--verbose", action="store_true",
                      help="also show the profiler's own INFO lines, its lines that report "
                           "nothing (a stall of 0 s, fork warnings) and the settings chosen")
    loud.add_argument("-q", "--quiet", action="store_true",
                      help="print nothing but problems (a stall or a loss is always told)")
    parser.add_argument("command", nargs=argparse.REMAINDER, metavar="-- python PROGRAM ARGS",
                        help="the program: python train.py ARGS, python -m MODULE ARGS, or train.py ARGS")


# ---- Reading the command -------------------------------------------------------------

_PYTHON_NAME = re.compile(r"python(\d+(\.\d+)?)?")
_FLAG_LETTERS = "bBdEiIOqsSuvxPR"


def _is_python(word: str) -> bool:
    if _PYTHON_NAME.fullmatch(os.path.basename(word)):
        return True
    try:
        return os.path.sep in word and os.path.samefile(word, sys.executable)
    except OSError:
        return False


def _is_this_interpreter(word: str) -> bool:
    """A bare python, python3 or pythonX.Y of this version means this interpreter,
    whatever PATH holds (a pyenv shim, a venv); a path means it if it is the same
    file."""
    version = sys.version_info
    if os.path.sep not in word and word in (
            "python", f"python{version.major}", f"python{version.major}.{version.minor}"):
        return True
    path = word if os.path.sep in word else shutil.which(word)
    if path is None:
        raise UsageError(f"{word}: command not found")
    try:
        return os.path.samefile(path, sys.executable)
    except OSError as e:
        raise UsageError(f"{word}: {e.strerror}") from None


def parse_command(command: List[str], module: Optional[str] = None) -> Target:
    """Reads `python [OPTIONS] (SCRIPT | -m MODULE | -c CODE) ARGS`, with or
    without the interpreter's name in front."""
    if module is not None:
        return Target("module", module, list(command), [], None)
    if not command:
        raise UsageError("name the program to run: zorvek record [options] -- python train.py ARGS")
    interpreter = None
    words = list(command)
    if _is_python(words[0]):
        if not _is_this_interpreter(words[0]):
            interpreter = words[0]
        words = words[1:]
    flags: List[str] = []
    i = 0
    while i < len(words):
        word = words[i]
        if word == "-":
            raise UsageError("a program on standard input can't be recorded; save it to a file")
        if word == "--":
            i += 1
            break
        if not word.startswith("-"):
            break
        if word == "--check-hash-based-pycs" and i + 1 < len(words):
            flags += words[i:i + 2]
            i += 2
            continue
        if word.startswith("--"):
            raise UsageError(f"Python option {word} is not supported by zorvek record")
        j = 1
        consumed = 1
        while j < len(word):
            letter = word[j]
            if letter in "cmWX":
                value = word[j + 1:]
                if not value:
                    if i + 1 >= len(words):
                        raise UsageError(f"Python option -{letter} needs an argument")
                    value, consumed = words[i + 1], 2
                if letter == "c":
                    return Target("code", value, words[i + consumed:], flags, interpreter)
                if letter == "m":
                    return Target("module", value, words[i + consumed:], flags, interpreter)
                flags += [f"-{letter}", value]
                break
            if letter in _FLAG_LETTERS:
                flags.append(f"-{letter}")
                j += 1
                continue
            if letter in "hV?":
                raise UsageError(f"-{letter} asks for Python's help or version: run python itself")
            raise UsageError(f"unknown Python option -{letter}")
        i += consumed
    if i >= len(words):
        raise UsageError("no program given: an interactive interpreter can't be recorded")
    return Target("script", words[i], words[i + 1:], flags, interpreter)


def _record_options(args: argparse.Namespace) -> List[str]:
    """The options of this run, for a run of zorvek record in another interpreter."""
    options = ["-o", args.output, "-F", repr(args.rate), "--clock", args.clock]
    if args.gpu is not None:
        options.append("--gpu" if args.gpu else "--no-gpu")
    options.append("--follow-forks" if args.follow_forks else "--no-follow-forks")
    if args.buffer_mb is not None:
        options += ["--buffer-mb", str(args.buffer_mb)]
    if not args.nvtx:
        options.append("--no-nvtx")
    if args.share:
        options.append("--share")
    if args.verbose:
        options.append("-v")
    if args.quiet:
        options.append("-q")
    return options


def _hand_over(target: Target, args: argparse.Namespace) -> int:
    """Runs zorvek record again in the interpreter the command names, or in this
    one with Python's own options, by replacing this process: same pid, same
    signals, same exit status."""
    interpreter = target.interpreter or sys.executable
    if target.interpreter is not None:
        path = interpreter if os.path.sep in interpreter else shutil.which(interpreter)
        if path is None:
            raise UsageError(f"{interpreter}: command not found")
        check = subprocess.run([path, "-c", "import zorvek.record"], capture_output=True, text=True)
        if check.returncode != 0:
            last = (check.stderr.strip().splitlines() or ["it can't import zorvek"])[-1]
            raise UsageError(f"{interpreter} can't run zorvek ({last}): install zorvek for it, "
                             f"or name this interpreter, {sys.executable}")
        interpreter = path
    program = {"script": [target.value], "module": ["-m", target.value],
               "code": ["-c", target.value]}[target.kind]
    argv = [interpreter, *target.flags, "-m", "zorvek", "record", *_record_options(args), "--",
            *program, *target.args]
    if args.verbose:
        _profile.report("running " + " ".join(argv))
    sys.stdout.flush()
    sys.stderr.flush()
    os.execv(interpreter, argv)
    return 127  # not reached


# ---- Running the program -------------------------------------------------------------

class _Program:
    """A program made ready to run before the capture starts, so that a missing
    file or a syntax error ends the run without an empty capture."""

    def __init__(self, target: Target) -> None:
        self.target = target
        self.code: Optional[types.CodeType] = None
        self.script_path = ""
        self.path_entry: Optional[str] = None
        if target.kind == "script":
            self._prepare_script(target.value)
        elif target.kind == "code":
            self.code = compile(target.value, "<string>", "exec", dont_inherit=True)
            self.argv = ["-c", *target.args]
            self.path_entry = ""
        else:
            self.argv = [target.value, *target.args]
            self.path_entry = os.getcwd()

    def _prepare_script(self, path: str) -> None:
        self.argv = [path, *self.target.args]
        self.path_entry = os.path.dirname(os.path.realpath(path))
        if os.path.isdir(path) or zipfile.is_zipfile(path):
            return  # a folder or zip with __main__.py: runpy knows those
        with io.open_code(path) as f:
            source = f.read()
        # Python gives a script's __file__ and code an absolute path (sys.argv[0]
        # stays as typed).
        self.script_path = os.path.abspath(path)
        self.code = compile(source, self.script_path, "exec", dont_inherit=True)

    def run(self) -> None:
        import runpy

        sys.argv[:] = self.argv
        # As Python does, unless it was asked not to (-P, -I).
        if self.path_entry is not None and not getattr(sys.flags, "safe_path", False) \
                and not sys.flags.isolated:
            sys.path[0] = self.path_entry
        if self.target.kind == "module":
            runpy.run_module(self.target.value, run_name="__main__", alter_sys=True)
        elif self.code is None:
            runpy.run_path(self.target.value, run_name="__main__")
        else:
            # A __main__ of its own that stays after the program ends, as Python's
            # does: atexit handlers and pickling by reference still find it.
            main = types.ModuleType("__main__")
            main.__dict__["__builtins__"] = builtins
            if self.target.kind == "script":
                main.__file__ = self.script_path
                main.__cached__ = None  # type: ignore[attr-defined]
                main.__loader__ = importlib.machinery.SourceFileLoader("__main__", self.script_path)
            else:
                main.__loader__ = importlib.machinery.BuiltinImporter
            sys.modules["__main__"] = main
            exec(self.code, main.__dict__)


def _print_exception(exc: BaseException) -> None:
    """As Python prints an uncaught exception: through sys.excepthook, from the
    program's own first frame."""
    tb = exc.__traceback__
    here = os.path.abspath(__file__)
    while tb is not None:
        name = tb.tb_frame.f_code.co_filename
        if os.path.abspath(name) != here and not name.startswith(_PROGRAM_FRAMES) \
                and not name.endswith(os.path.join("", "runpy.py")):
            break
        tb = tb.tb_next
    # The hook prints the exception's own traceback where it has one.
    exc.__traceback__ = tb
    sys.excepthook(type(exc), exc, tb)


def _exit_status(exc: SystemExit) -> int:
    """What Python makes of SystemExit's code."""
    code = exc.code
    if code is None:
        return 0
    if isinstance(code, int):
        return code
    print(code, file=sys.stderr)
    return 1


class _Terminated(SystemExit):
    """SIGTERM, turned into an exit that runs the program's finally blocks and the
    profiler's stop."""


def _sigterm(signum: int, frame: object) -> None:
    raise _Terminated(128 + signal.SIGTERM)


def _restore_sigterm_in_child() -> None:
    # A forked child ends on SIGTERM as it would without zorvek.
    if signal.getsignal(signal.SIGTERM) is _sigterm:
        signal.signal(signal.SIGTERM, _Recording.previous_sigterm)


_Handler = Union[Callable[[int, Optional[types.FrameType]], Any], int, signal.Handlers, None]


class _Recording:
    previous_sigterm: _Handler = signal.SIG_DFL

    def __init__(self, args: argparse.Namespace, target: Target) -> None:
        self.args = args
        self.target = target
        self.began = time.monotonic()
        self.capture: Optional[_profile.profile] = None

    def start(self) -> None:
        args = self.args
        self.capture = _profile.profile(
            args.output, buffer_mb=args.buffer_mb, sample_hz=args.rate or None, clock=args.clock,
            gpu="auto" if args.gpu is None else args.gpu, follow_forks=args.follow_forks,
            verbose=args.verbose, quiet=True, nvtx=args.nvtx, share=args.share)
        if args.verbose:
            self._describe_settings()
        self.capture.start()
        # After the program's threads are joined and its own atexit functions ran,
        # as they would before Python exits: their work is in the capture too.
        atexit.register(self.finish)
        if threading_main():
            previous = signal.getsignal(signal.SIGTERM)
            _Recording.previous_sigterm = previous
            # A program started with SIGTERM ignored (nohup-like launchers, a parent
            # that shields its children) must go on ignoring it; and a handler set
            # outside Python (None here) could not be put back.
            if previous is not signal.SIG_IGN and previous is not None:
                signal.signal(signal.SIGTERM, _sigterm)

    def _describe_settings(self) -> None:
        args = self.args
        buffer_mb = args.buffer_mb or _settings.auto_buffer_mb()
        count, size = _settings.split_buffer(buffer_mb)
        counted = {"cpu": "of each thread's CPU time, user and system",
                   "wall": "of elapsed time, each thread running or waiting"}[args.clock]
        sampling = (f"{_settings.sampler_hz(args.rate)} Hz {counted} ({args.clock} clock), "
                    "Python and native frames" if args.rate else "off")
        gpu = _settings.resolve_gpu("auto" if args.gpu is None else args.gpu)
        _profile.report(f"recording into {args.output}: buffers {count} x {size} MiB, CPU sampling "
                        f"{sampling}, GPU tracing {'on' if gpu else 'off'}, fork following "
                        f"{'on' if args.follow_forks else 'off'}")

    def finish(self) -> None:
        capture = self.capture
        if capture is None:
            return
        self.capture = None
        # A second SIGTERM now would cut the stop short; the handler the program
        # had before comes back after.
        held = signal.getsignal(signal.SIGTERM) is _sigterm
        if held:
            signal.signal(signal.SIGTERM, signal.SIG_IGN)
        try:
            capture.stop()
            if capture.files and not self.args.quiet:
                self._report(capture)
        finally:
            if held and signal.getsignal(signal.SIGTERM) == signal.SIG_IGN:
                signal.signal(signal.SIGTERM, _Recording.previous_sigterm)

    def _report(self, capture: _profile.profile) -> None:
        elapsed = time.monotonic() - self.began
        _profile.report(f"recorded {elapsed:.1f} s; " + _profile.describe_files(
            capture.files, capture._shown_dir(), len(capture.other_files)))
        try:
            from .summary import short_summary
        except ImportError:
            return
        try:
            text = short_summary(capture.files + capture.other_files)
        except Exception as e:  # a summary that fails must not hide the files
            _profile.report(f"no summary: {e}")
            return
        if isinstance(text, str) and text:
            print(text.rstrip("\n"), file=sys.stderr, flush=True)


def threading_main() -> bool:
    import threading

    return threading.current_thread() is threading.main_thread()


def run(args: argparse.Namespace) -> int:
    command = list(args.command)
    if command[:1] == ["--"]:
        command = command[1:]
    try:
        target = parse_command(command, args.module)
        if target.interpreter is not None or target.flags:
            return _hand_over(target, args)
        program = _Program(target)
    except UsageError as e:
        print(f"zorvek record: {e}", file=sys.stderr)
        return 2
    except OSError as e:  # as Python reports a script it can't open
        print(f"{sys.executable}: can't open file {os.path.abspath(target.value)!r}: "
              f"[Errno {e.errno}] {e.strerror}", file=sys.stderr)
        return 2
    except SyntaxError as e:
        _print_exception(e)
        return 1
    if target.kind == "module":
        problem = _module_problem(target.value)
        if problem:
            print(f"{sys.executable}: {problem}", file=sys.stderr)
            return 1
    _names.set_command(["python", *{"script": [target.value], "module": ["-m", target.value],
                                    "code": ["-c", target.value]}[target.kind], *target.args])
    recording = _Recording(args, target)
    recording.start()
    try:
        program.run()
    except SystemExit as e:
        return _exit_status(e)
    except KeyboardInterrupt as e:
        _print_exception(e)
        return 128 + signal.SIGINT
    except BaseException as e:
        _print_exception(e)
        return 1
    return 0


def _module_problem(name: str) -> Optional[str]:
    """Python's complaint about `python -m name` before anything runs, if any."""
    saved = sys.path[0]
    if not getattr(sys.flags, "safe_path", False) and not sys.flags.isolated:
        sys.path[0] = os.getcwd()
    try:
        found = importlib.util.find_spec(name)
    except (ImportError, ValueError) as e:
        return f"Error while looking up module {name!r} ({type(e).__name__}: {e})"
    finally:
        sys.path[0] = saved
    if found is None:
        return f"No module named {name}"
    return None


os.register_at_fork(after_in_child=_restore_sigterm_in_child)
