"""The flame graph in speedscope's JSON file format, which speedscope's viewer
(speedscope.app, or its package offline) opens as it is.

One `sampled` profile per thread, named "process / thread", over one shared
table of frames: a Python frame by its function's qualified name with its file
and line, a native frame by its name with the file its code was mapped from, an
annotation range (with `--by-range`) by its name. A profile's samples are its
distinct stacks as frame indexes, root first as the format orders them, each
weighing its number of samples; the unit is "none" (samples), from 0 to the
thread's total.
"""

from __future__ import annotations

import json
from typing import Dict, List, Tuple

SCHEMA = "https://www.speedscope.app/file-format-schema.json"


def speedscope_document(profile, name: str) -> dict:
    """The file's JSON object for a flame profile (`zorvek.flame.FlameProfile`)."""
    frames: List[dict] = []
    index: Dict[Tuple[str, str], int] = {}

    def frame(kind: str, text: str) -> int:
        at = index.get((kind, text))
        if at is not None:
            return at
        entry = {"name": text}
        source = profile.sources.get(text) if kind == "frame" else None
        if source is not None and source.python:
            entry["name"] = source.function
            if source.file:
                entry["file"] = source.file
            if source.line:
                entry["line"] = source.line
        elif source is not None and source.mapping is not None:
            entry["file"] = source.mapping[0]
        at = index[(kind, text)] = len(frames)
        frames.append(entry)
        return at

    threads: Dict[Tuple[int, int], Tuple[List[List[int]], List[int]]] = {}
    for s in profile.samples:
        stack = [frame("range", r) for r in s.ranges] + [frame("frame", f) for f in s.frames]
        samples, weights = threads.setdefault((s.pid, s.tid), ([], []))
        samples.append(stack)
        weights.append(s.count)
    profiles = []
    for (pid, tid), (samples, weights) in sorted(
            threads.items(), key=lambda kv: (kv[0][0], kv[0][1] != kv[0][0], kv[0][1])):
        total = sum(weights)
        profiles.append({
            "type": "sampled",
            "name": "%s / %s" % (profile.processes[pid], profile.threads[(pid, tid)]),
            "unit": "none",
            "startValue": 0,
            "endValue": total,
            "samples": samples,
            "weights": weights,
        })
    busiest = max(range(len(profiles)), key=lambda i: profiles[i]["endValue"], default=0)
    return {
        "$schema": SCHEMA,
        "shared": {"frames": frames},
        "profiles": profiles,
        "name": name,
        "activeProfileIndex": busiest,
        "exporter": "zorvek flame",
    }


def write_speedscope(profile, out, name: str) -> None:
    json.dump(speedscope_document(profile, name), out, separators=(",", ":"))
    out.write("\n")
