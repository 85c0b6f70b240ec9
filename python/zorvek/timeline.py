"""`zorvek timeline`: captures as a trace for the Perfetto UI: Chrome trace-event
JSON (also for chrome://tracing), or Perfetto's own protobuf trace.

What the trace holds is worked out by `views.trace` (annotation ranges, CPU
samples with their stacks, GPU work per device and stream, driver API calls with
launch flows, names, one time axis for every clock: `views.clock`); a writer per
format (`views.trace_json`, `views.trace_perfetto`) writes it.
"""

from __future__ import annotations

import argparse
import sys
from typing import Callable, Optional, Sequence

from ._clocksync import mark_clock_sync  # noqa: F401 (mark_clock_sync: public here)
from .views.capture import (VIEW_FAILURES, Progress, Reading, ViewError, add_files_argument,
                            add_progress_arguments, exit_status_help, view_failed)
from .views.sink import TraceSink
from .views.trace import write_timeline

PROG = "zorvek timeline"

FORMATS = ("json", "perfetto")


def trace_format(args: argparse.Namespace) -> str:
    """--format, else what the output's name says: .pftrace and .perfetto-trace
    are Perfetto's protobuf, anything else JSON."""
    if args.format:
        return args.format
    return "perfetto" if args.output.endswith((".pftrace", ".perfetto-trace")) else "json"


def writer_class(fmt: str) -> Callable[[str], TraceSink]:
    """The writer of a format, asked for before the captures are read, so that a
    format that can't be written ends the command at once."""
    if fmt == "perfetto":
        try:
            from .views.trace_perfetto import PerfettoTraceWriter
        except ImportError as error:
            raise ViewError("--format perfetto is not available here (%s)" % error) from None
        return PerfettoTraceWriter
    from .views.trace_json import JsonTraceWriter
    return JsonTraceWriter


# ---- Command line ----------------------------------------------------------------------

EXAMPLES = """\
examples:
  zorvek timeline run_1234_0.zvkraw -o trace.json.gz
  zorvek timeline captures/ -o trace.pftrace      # every .zvkraw in the folder, Perfetto's format
  zorvek timeline run_*.zvkraw --pid 1234 --no-samples

Open the file in https://ui.perfetto.dev (the JSON also in chrome://tracing).
A folder is read whole; when its files come from several runs, the command says
which, and --pid chooses. Times are on the system clock; the JSON counts them
from the whole second before the first event (otherData holds that second, and
how each clock was placed).
"""


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.description = ("Captures as a timeline for the Perfetto UI: annotation ranges, CPU\n"
                          "samples with their stacks, GPU work per device and stream, CUDA API\n"
                          "calls with arrows to the work they launched.")
    parser.epilog = EXAMPLES + "\n" + exit_status_help()
    parser.formatter_class = argparse.RawDescriptionHelpFormatter
    add_files_argument(parser)
    parser.add_argument("-o", "--output", default="trace.json.gz",
                        help="trace file to write; JSON gzip-compressed when it ends in .gz "
                             "(default: %(default)s)")
    parser.add_argument("--format", choices=FORMATS,
                        help="json (Chrome trace events) or perfetto (Perfetto's protobuf "
                             "trace); default: perfetto for a name ending in .pftrace or "
                             ".perfetto-trace, else json")
    parser.add_argument("--pid", type=int, action="append", metavar="PID",
                        help="only this process (repeatable)")
    parser.add_argument("--no-samples", dest="samples", action="store_false",
                        help="leave the CPU samples out (a smaller trace)")
    parser.add_argument("--gpu-clock", choices=("auto", "realtime", "monotonic", "raw"),
                        default="auto",
                        help="the clock CUPTI's stamps are on (default: recognised from them)")
    add_progress_arguments(parser)


def run(args: argparse.Namespace) -> int:
    progress = Progress(PROG, args.progress)
    try:
        writer = writer_class(trace_format(args))
        reading = Reading(args.files, progress, passes=2 if args.samples else 1)
        line, gaps = write_timeline(args, reading, progress, lambda: writer(args.output))
    except VIEW_FAILURES as error:
        return view_failed(PROG, progress, error, args.output)
    status = reading.report_problems(PROG)
    for gap in gaps:
        sys.stderr.write("%s: %s\n" % (PROG, gap))
    sys.stderr.write("%s: %s\n" % (PROG, line))
    return status


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog=PROG)
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
