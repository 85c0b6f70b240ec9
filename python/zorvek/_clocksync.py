"""Clock-sync marks: ties between perf's clock, on which the kernel stamps CPU
samples and mappings, and the system clock of annotations. `zorvek.profile` writes
one when a capture with CPU sampling starts and one before it stops; the views
place samples by them and hide their ranges."""

import os

# The range name of the marks; views hide these ranges.
CLOCK_SYNC = "zorvek.clock_sync"

_LIBC = None


def mark_clock_sync() -> bool:
    """Ties perf's clock to the system clock inside a running capture: an
    annotation range, whose ends carry the system clock, around the mapping of one
    executable page, which the kernel reports with perf's clock to every sampling
    descriptor of the calling thread. Call it on a sampled thread while sampling
    runs (before stop, for instance); each call costs a few microseconds. Returns
    whether the mapping was made (not whether a descriptor saw it)."""
    global _LIBC
    import ctypes
    import _zorv
    if _LIBC is None:
        libc = ctypes.CDLL(None, use_errno=True)
        libc.mmap.restype = ctypes.c_void_p
        libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int,
                              ctypes.c_int, ctypes.c_long]
        libc.munmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t]
        _LIBC = libc
    libc = _LIBC
    prot_none, prot_read, prot_exec = 0, 1, 4
    map_private, map_fixed, map_anonymous = 0x02, 0x10, 0x20
    size = os.sysconf("SC_PAGESIZE")
    # Reserved first, without execute permission, so the address is known for the
    # range's name; only the mapping inside the range is executable and reported.
    address = libc.mmap(None, size, prot_none, map_private | map_anonymous, -1, 0)
    if not address or address == ctypes.c_void_p(-1).value:
        return False
    token = _zorv.annotation_begin("%s 0x%x %d" % (CLOCK_SYNC, address, size))
    mapped = libc.mmap(address, size, prot_read | prot_exec, map_private | map_anonymous | map_fixed,
                       -1, 0)
    _zorv.annotation_end(token)
    libc.munmap(address, size)
    return mapped == address
