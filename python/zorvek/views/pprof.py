"""The flame graph as a pprof profile: the `perftools.profiles.Profile` protobuf,
gzip-compressed, which `go tool pprof`, Pyroscope and Parca read.

The message classes are made here from a descriptor built in Python with the
field numbers of pprof's profile.proto, so that no generated code or protobuf
compiler is needed.

Each stack of a thread is one sample, its locations leaf first as the format
orders them, valued in samples (`samples/count`) and, where every sample's time
is known, in `cpu/nanoseconds` (`wall/nanoseconds` for the stack sampler's wall
clock, `time/nanoseconds` for both in one profile); labels say its process, thread and their
ids. A frame is a location with one line of its function: a Python frame's
function is its qualified name in its file, from its first line, and the line is
the sampled one; a native frame's function is its symbol name, its location in
the mapping of the file its code came from. With `--by-range` the ranges open
stand as frames at the root, as in the SVG.
"""

from __future__ import annotations

import gzip
from typing import Dict, List, Optional, Tuple

PACKAGE = "perftools.profiles"

_INT64, _UINT64, _STRING, _BOOL, _MESSAGE = 3, 4, 9, 8, 11
_OPTIONAL, _REPEATED = 1, 3

# message: [(field, number, type, repeated, message type)]
_FIELDS = {
    "Profile": [
        ("sample_type", 1, _MESSAGE, True, "ValueType"),
        ("sample", 2, _MESSAGE, True, "Sample"),
        ("mapping", 3, _MESSAGE, True, "Mapping"),
        ("location", 4, _MESSAGE, True, "Location"),
        ("function", 5, _MESSAGE, True, "Function"),
        ("string_table", 6, _STRING, True, None),
        ("drop_frames", 7, _INT64, False, None),
        ("keep_frames", 8, _INT64, False, None),
        ("time_nanos", 9, _INT64, False, None),
        ("duration_nanos", 10, _INT64, False, None),
        ("period_type", 11, _MESSAGE, False, "ValueType"),
        ("period", 12, _INT64, False, None),
        ("comment", 13, _INT64, True, None),
        ("default_sample_type", 14, _INT64, False, None),
    ],
    "ValueType": [
        ("type", 1, _INT64, False, None),
        ("unit", 2, _INT64, False, None),
    ],
    "Sample": [
        ("location_id", 1, _UINT64, True, None),
        ("value", 2, _INT64, True, None),
        ("label", 3, _MESSAGE, True, "Label"),
    ],
    "Label": [
        ("key", 1, _INT64, False, None),
        ("str", 2, _INT64, False, None),
        ("num", 3, _INT64, False, None),
        ("num_unit", 4, _INT64, False, None),
    ],
    "Mapping": [
        ("id", 1, _UINT64, False, None),
        ("memory_start", 2, _UINT64, False, None),
        ("memory_limit", 3, _UINT64, False, None),
        ("file_offset", 4, _UINT64, False, None),
        ("filename", 5, _INT64, False, None),
        ("build_id", 6, _INT64, False, None),
        ("has_functions", 7, _BOOL, False, None),
        ("has_filenames", 8, _BOOL, False, None),
        ("has_line_numbers", 9, _BOOL, False, None),
        ("has_inline_frames", 10, _BOOL, False, None),
    ],
    "Location": [
        ("id", 1, _UINT64, False, None),
        ("mapping_id", 2, _UINT64, False, None),
        ("address", 3, _UINT64, False, None),
        ("line", 4, _MESSAGE, True, "Line"),
        ("is_folded", 5, _BOOL, False, None),
    ],
    "Line": [
        ("function_id", 1, _UINT64, False, None),
        ("line", 2, _INT64, False, None),
    ],
    "Function": [
        ("id", 1, _UINT64, False, None),
        ("name", 2, _INT64, False, None),
        ("system_name", 3, _INT64, False, None),
        ("filename", 4, _INT64, False, None),
        ("start_line", 5, _INT64, False, None),
    ],
}

_classes: Optional[Dict[str, type]] = None


def message_classes() -> Dict[str, type]:
    """The profile's message classes by name, made once, in a descriptor pool of
    their own so that they never meet another copy of the same names."""
    global _classes
    if _classes is None:
        from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

        file = descriptor_pb2.FileDescriptorProto(name="zorvek/pprof_profile.proto",
                                                  package=PACKAGE, syntax="proto3")
        for name, fields in _FIELDS.items():
            message = file.message_type.add(name=name)
            for field, number, kind, repeated, type_name in fields:
                entry = message.field.add(name=field, number=number, type=kind,
                                          label=_REPEATED if repeated else _OPTIONAL)
                if type_name:
                    entry.type_name = ".%s.%s" % (PACKAGE, type_name)
        pool = descriptor_pool.DescriptorPool()
        pool.Add(file)
        # GetMessageClass from protobuf 4.22 on; the factory's prototypes before.
        make = getattr(message_factory, "GetMessageClass", None) or \
            message_factory.MessageFactory(pool).GetPrototype
        _classes = {name: make(pool.FindMessageTypeByName("%s.%s" % (PACKAGE, name)))
                    for name in _FIELDS}
    return _classes


class _Strings:
    """The string table: "" first, each string once."""

    def __init__(self, table):
        self.table = table
        self.index: Dict[str, int] = {}
        self("")

    def __call__(self, text: str) -> int:
        at = self.index.get(text)
        if at is None:
            at = self.index[text] = len(self.table)
            self.table.append(text)
        return at


def build_profile(profile, comment: str):
    """The Profile message of a flame profile (`zorvek.flame.FlameProfile`)."""
    Profile = message_classes()["Profile"]
    out = Profile()
    s = _Strings(out.string_table)
    timed = profile.timed
    out.sample_type.add(type=s("samples"), unit=s("count"))
    if timed:
        out.sample_type.add(type=s(profile.clock), unit=s("nanoseconds"))
    if profile.period_ns:
        out.period_type.type, out.period_type.unit = s(profile.clock), s("nanoseconds")
        out.period = profile.period_ns
    if profile.start_ns:
        out.time_nanos = profile.start_ns
        if profile.end_ns and profile.end_ns > profile.start_ns:
            out.duration_nanos = profile.end_ns - profile.start_ns
    out.comment.append(s(comment))

    mappings: Dict[str, int] = {}
    functions: Dict[Tuple[str, str], int] = {}
    locations: Dict[Tuple[str, str], int] = {}

    def mapping_id(mapping: Tuple[str, int, int, int]) -> int:
        path, start, end, offset = mapping
        at = mappings.get(path)
        if at is None:
            at = mappings[path] = len(out.mapping) + 1
            out.mapping.add(id=at, memory_start=start, memory_limit=end, file_offset=offset,
                            filename=s(path), has_functions=True)
        return at

    def function_id(name: str, file: str, start_line: int) -> int:
        at = functions.get((name, file))
        if at is None:
            at = functions[(name, file)] = len(out.function) + 1
            out.function.add(id=at, name=s(name), system_name=s(name), filename=s(file),
                             start_line=start_line)
        return at

    def location_id(kind: str, text: str) -> int:
        at = locations.get((kind, text))
        if at is not None:
            return at
        at = locations[(kind, text)] = len(out.location) + 1
        location = out.location.add(id=at)
        source = profile.sources.get(text) if kind == "frame" else None
        if source is not None and source.python:
            location.line.add(function_id=function_id(source.function, source.file,
                                                      source.start_line), line=source.line)
        else:
            location.line.add(function_id=function_id(text, "", 0))
            if source is not None and source.mapping is not None:
                location.mapping_id = mapping_id(source.mapping)
        return at

    # The format takes the first mapping for the program's own file.
    programs = set(profile.executables.values())
    for source in sorted((src for src in profile.sources.values()
                          if src.mapping is not None and src.mapping[0] in programs),
                         key=lambda src: src.mapping):
        mapping_id(source.mapping)
    keys = {name: s(name) for name in ("process", "thread", "pid", "tid")}
    for sample in profile.samples:
        ids: List[int] = [location_id("frame", f) for f in reversed(sample.frames)]
        ids.extend(location_id("range", r) for r in reversed(sample.ranges))
        values = [sample.count] + ([sample.nanoseconds] if timed else [])
        entry = out.sample.add(location_id=ids, value=values)
        entry.label.add(key=keys["process"], str=s(profile.processes[sample.pid]))
        entry.label.add(key=keys["thread"], str=s(profile.threads[(sample.pid, sample.tid)]))
        entry.label.add(key=keys["pid"], num=sample.pid)
        entry.label.add(key=keys["tid"], num=sample.tid)
    return out


def profile_bytes(profile, comment: str) -> bytes:
    """The gzip-compressed profile, as pprof's tools read it from a file."""
    return gzip.compress(build_profile(profile, comment).SerializeToString(), mtime=0)


def read_profile(data: bytes):
    """A profile written by profile_bytes, parsed back."""
    message = message_classes()["Profile"]()
    message.ParseFromString(gzip.decompress(data))
    return message
