"""The calls a timeline is written through.

The timeline model (`views.trace`) works out what the trace holds: tracks, slices
that nest on them, launch flows, samples with their merged stacks, names. A
writer for one output format takes these calls and nothing else, so the JSON and
the Perfetto trace hold the same things.

Times are nanoseconds on the system clock. Stacks are frame names, root first.
Calls come in this order: `begin`; every `process` and `thread`; then slices,
instants and samples in any order (a writer that needs order sorts); `finish`
once, or `abandon` when writing failed (no output is left behind).
"""

from __future__ import annotations

from typing import Any, Dict, Optional, Sequence


class TraceSink:
    """One output format of the timeline."""

    def begin(self, base_ns: int, info: Dict[str, Any]) -> None:
        """`base_ns`: the whole second before the first thing shown, where the
        time axis starts. `info`: what the trace says of itself (producer, files,
        clocks, losses), JSON-able."""
        raise NotImplementedError

    def process(self, pid: int, name: str, sort_index: int, *, gpu: bool = False,
                rank: Optional[int] = None, host: Optional[str] = None) -> None:
        """A process, or with `gpu` a device's pseudo-process (its `pid` is not a
        real process id; its threads are the device's streams)."""
        raise NotImplementedError

    def thread(self, pid: int, tid: int, name: str) -> None:
        """A thread of a process, or a stream's lane of a device."""
        raise NotImplementedError

    def slice(self, pid: int, tid: int, start_ns: int, end_ns: int, name: str, category: str,
              args: Dict[str, Any], flows_out: Sequence[int] = (),
              flows_in: Sequence[int] = ()) -> None:
        """A slice on its thread's track. Slices of one track nest: one that
        starts inside another ends inside it too. `flows_out`: ids of flows that
        start at this slice (a driver call's launch); `flows_in`: ids that end at
        it (the GPU work it launched). Every flow id has one start and one end."""
        raise NotImplementedError

    def async_slice(self, pid: int, tid: int, start_ns: int, end_ns: int, name: str,
                    category: str, args: Dict[str, Any], flows_out: Sequence[int] = (),
                    flows_in: Sequence[int] = ()) -> None:
        """A slice that need not nest: a range that crossed another on its
        thread, or ended on another thread, a CUDA synchronization, a driver call
        or GPU work that crossed a slice of its track (with its flows, as
        `slice`). `tid` is the thread it belongs to, or `pid` for the process."""
        raise NotImplementedError

    def instant(self, pid: int, tid: int, ts_ns: int, name: str, category: str) -> None:
        """A point in time on a thread (a marker)."""
        raise NotImplementedError

    def sample(self, pid: int, tid: int, ts_ns: int, stack: Sequence[str],
               args: Dict[str, Any]) -> None:
        """A CPU sample of a thread: its stack, root first (may be empty), and
        what else is known (`cpu`, `clock`, `weight_ns`, `waiting`)."""
        raise NotImplementedError

    def finish(self) -> None:
        """Writes the output whole, under its final name."""
        raise NotImplementedError

    def abandon(self) -> None:
        """Leaves nothing behind."""
        raise NotImplementedError
