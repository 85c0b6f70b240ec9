"""The producers' stall time, written into a capture. The record helpers count how
long producers waited for a free buffer, and no record of the file carries that,
so `zorvek.profile` writes the process's running total as the name of an empty
annotation range when a capture starts and before it stops; `zorvek summary`
reads the difference back, and hides the ranges."""

from typing import Iterable, Optional

# The range name's prefix; the total in microseconds follows it.
PRODUCER_STALL = "zorvek.producer_stall_us"


def mark_producer_stall() -> None:
    import _zorv
    total = _zorv._producer_stall_us()
    _zorv.annotation_end(_zorv.annotation_begin(f"{PRODUCER_STALL} {total}"))


def stall_us(range_names: Iterable[str]) -> Optional[int]:
    """The stall within the captures whose marks are among `range_names`: the last
    total less the first; None when there is no mark."""
    totals = []
    for name in range_names:
        if name.startswith(PRODUCER_STALL + " "):
            try:
                totals.append(int(name[len(PRODUCER_STALL) + 1:]))
            except ValueError:
                continue
    if not totals:
        return None
    return max(totals) - min(totals) if len(totals) > 1 else totals[0]
