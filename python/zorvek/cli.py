"""The zorvek command: record a program, and view captures.

Each command lives in a module of its own, which offers add_arguments(parser) and
run(args) -> exit status; only the module of the command given is imported, so
that `zorvek record` doesn't wait for (or depend on) the viewers' imports.
"""

from __future__ import annotations

import argparse
import importlib
import sys
from typing import List, Optional, Sequence

# name: (module, one line for `zorvek --help`)
COMMANDS = {
    "record": ("zorvek.record", "run a Python program under the profiler"),
    "summary": ("zorvek.summary", "what captures hold, in tables: ranges, CPU functions, GPU kernels"),
    "timeline": ("zorvek.timeline", "captures as a trace for Perfetto and chrome://tracing"),
    "flame": ("zorvek.flame", "a flame graph of the CPU samples"),
    "export": ("zorvek.export", "captures as Parquet tables, here or on a Dask cluster"),
    "sql": ("zorvek.sql", "SQL over the captures' tables, in an embedded DuckDB"),
    "ranks": ("zorvek.ranks", "a range per rank of a distributed job, the slow ranks flagged"),
}

DESCRIPTION = """\
Zorvek, a low-overhead profiler for ML training: record a program, then look at
the capture as a summary, a timeline or a flame graph."""

EPILOG = """\
examples:
  zorvek record -- python train.py --epochs 3      # writes zorvek_out/*.zvkraw
  zorvek summary zorvek_out/*.zvkraw
  zorvek timeline zorvek_out/*.zvkraw -o trace.json.gz
  zorvek flame zorvek_out/*.zvkraw -o flame.svg

`zorvek COMMAND --help` tells more about each."""


def _version() -> str:
    from . import __version__

    return __version__


def _fill_help(parser: argparse.ArgumentParser, module: object) -> None:
    """Description and examples from the module, where add_arguments didn't set them."""
    if not parser.description:
        parser.description = getattr(module, "DESCRIPTION", None) or \
            (getattr(module, "__doc__", None) or "").strip().split("\n\n")[0] or None
    if not parser.epilog:
        parser.epilog = getattr(module, "EPILOG", None) or getattr(module, "EXAMPLES", None)


def build_parser(selected: Optional[str] = None) -> argparse.ArgumentParser:
    """The parser, with the arguments of the `selected` command only (its module
    is imported here: ImportError when it can't be)."""
    parser = argparse.ArgumentParser(prog="zorvek", description=DESCRIPTION, epilog=EPILOG,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=f"zorvek {_version()}")
    commands = parser.add_subparsers(dest="command_name", metavar="COMMAND")
    for name, (module_name, line) in COMMANDS.items():
        sub = commands.add_parser(name, help=line, prog=f"zorvek {name}",
                                  formatter_class=argparse.RawDescriptionHelpFormatter)
        if name == selected:
            module = importlib.import_module(module_name)
            module.add_arguments(sub)
            _fill_help(sub, module)
            sub.set_defaults(run=module.run)
            parser.set_defaults(selected_parser=sub)
    return parser


def main(argv: Optional[Sequence[str]] = None) -> int:
    """`zorvek ARGS`; returns the exit status."""
    words: List[str] = list(sys.argv[1:] if argv is None else argv)
    selected = words[0] if words and words[0] in COMMANDS else None
    try:
        parser = build_parser(selected)
    except ImportError as e:
        print(f"zorvek {selected}: not available in this installation ({e})", file=sys.stderr)
        return 2
    args, unknown = parser.parse_known_args(words)
    if unknown:
        # An option the command doesn't know is the command's usage error, shown
        # with the command's own usage rather than zorvek's.
        getattr(args, "selected_parser", parser).error(
            "unrecognized arguments: %s" % " ".join(unknown))
    if selected is None:
        parser.print_help(sys.stderr)
        return 2
    return int(args.run(args) or 0)


if __name__ == "__main__":
    sys.exit(main())
