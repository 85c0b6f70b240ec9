"""Profiling of Python processes started by a profiled one, from their first line.

A capture that follows its children (`zorvek record --follow-forks`,
`zorvek.profile(follow_forks=True)`) hands down two variables, which every
process started from it inherits:

    ZORVEK_OUTPUT    the folder for the capture files; set, it turns this on
    ZORVEK_OPTIONS   JSON of zorvek.profile's other keywords (optional)

zorvek's .pth file in site-packages runs main() while Python starts, importing
this module only where ZORVEK_OUTPUT is set; it starts a capture before the program's first
line (a multiprocessing spawn worker, a torchrun worker, any `python` command)
that stops when the process ends. multiprocessing's own helpers are left alone:
the resource tracker is not profiled, and the forkserver starts a capture in each
worker it forks instead of one of its own."""

import difflib
import inspect
import json
import os
import sys
from typing import Optional

OUTPUT = "ZORVEK_OUTPUT"
OPTIONS = "ZORVEK_OPTIONS"

_RESOURCE_TRACKER = "from multiprocessing.resource_tracker import"
_FORKSERVER = "from multiprocessing.forkserver import"


def handed_down(output_dir: str, options: dict) -> dict:
    """The environment that makes children profile themselves."""
    return {OUTPUT: os.path.abspath(output_dir),
            OPTIONS: json.dumps(options, sort_keys=True, default=str)}


def _options() -> Optional[dict]:
    """profile()'s keywords as handed down, or None (said in one line) where they
    can't be used: this process then runs unprofiled rather than profiled with
    settings nobody asked for."""
    from . import _profile

    text = os.environ.get(OPTIONS, "")
    if not text:
        return {}
    try:
        options = json.loads(text)
    except ValueError:
        options = None
    if not isinstance(options, dict):
        _refuse(f"{OPTIONS} is not a JSON object: {text!r}")
        return None
    known = [name for name in inspect.signature(_profile.profile).parameters
             if name != "output_dir"]
    for key in options:
        if key not in known:
            near = difflib.get_close_matches(str(key), known, n=1)
            hint = f'; did you mean "{near[0]}"?' if near else f" (known: {', '.join(known)})"
            _refuse(f'{OPTIONS} names no profile() keyword "{key}"{hint}')
            return None
    return options


def _refuse(why: str) -> None:
    print(f"zorvek: not profiling this process: {why}", file=sys.stderr, flush=True)


def _start() -> None:
    from . import _profile

    options = _options()
    if options is None:
        return
    options.setdefault("quiet", True)
    options["follow_forks"] = True
    try:
        capture = _profile.profile(os.environ[OUTPUT], **options)
    except (TypeError, ValueError) as e:
        _refuse(f"{OPTIONS} was refused: {e}")
        return
    if capture.start():
        _profile.stop_with_worker(capture)


def _command_line() -> list:
    """The interpreter's own arguments; before Python 3.10, which has no
    sys.orig_argv, as the kernel has them."""
    argv = getattr(sys, "orig_argv", None)
    if argv is not None:
        return list(argv)
    try:
        with open("/proc/self/cmdline", "rb") as f:
            return [word.decode(errors="replace") for word in f.read().split(b"\0")[:-1]]
    except OSError:
        return []


def _code() -> str:
    argv = _command_line()
    for i, word in enumerate(argv[:-1]):
        if word == "-c":
            return argv[i + 1]
    return ""


def main() -> None:
    """Runs from site's .pth processing: whatever goes wrong here is told in one
    line, never as a traceback that every child process would print."""
    if not os.environ.get(OUTPUT):
        return
    try:
        _main()
    except Exception as e:  # noqa: BLE001 - the job must start whatever happens
        _refuse(f"{type(e).__name__}: {e}")


def _main() -> None:
    code = _code()
    if code.startswith(_RESOURCE_TRACKER):
        return
    if code.startswith(_FORKSERVER):
        os.register_at_fork(after_in_child=_start)
        return
    _start()
