"""Names for the addresses of a capture's call chains.

A sample holds process addresses. The capture's MMAP records say which file each
range of a process came from (the mappings listed when sampling started, and those
the kernel reported afterwards); this module turns an address into the name of the
function it lies in, read from that file's symbols on this machine.

The symbolizer is GNU binutils' `addr2line`, one long-lived process per file that
reads addresses on its standard input, with the file's program headers from
`readelf` of the same package. Why these and not a Python ELF library: addr2line
is a compiled, long-maintained reader of DWARF, of full and of dynamic symbol tables
and of separate debug files (`.gnu_debuglink`, build ids under /usr/lib/debug), and
it demangles C++ (`-C`). A Python symbol-table reader spends seconds on a library
such as libtorch's, with hundreds of thousands of symbols, where addr2line answers
at once, and its demangling would need a second package. binutils comes with every
compiler that builds this project, so it adds no dependency.

What has no name gets a stated one: `file+0xoffset` for a file without a symbol
there (or one that is gone: `symbols.gaps` says so, once per file), a hex address
for anonymous memory and for an address in no known mapping.
"""

from __future__ import annotations

import bisect
import os
import re
import shutil
import subprocess
import tempfile
from typing import Dict, Iterable, List, Optional, Sequence, Tuple

__all__ = ["Symbolizer", "demangle"]

# An address is asked of addr2line in chunks, each written whole and then its
# answers read whole. That can't deadlock because a chunk of 256 addresses (about
# 5 KB) fits in the pipe's buffer (64 KiB): the write returns even while
# addr2line is blocked writing answers nobody reads yet.
_CHUNK = 256
# addr2line processes kept open at once; the least recently used is closed beyond.
_MAX_OPEN = 48
_C_LOCALE = dict(os.environ, LC_ALL="C", LANG="C")

_LOAD_LINE = re.compile(r"^\s*LOAD\s+(0x[0-9a-fA-F]+)\s+(0x[0-9a-fA-F]+)\s+0x[0-9a-fA-F]+\s+"
                        r"(0x[0-9a-fA-F]+)\s+(0x[0-9a-fA-F]+)")


def _hex(address: int) -> str:
    return "0x%x" % address


def _clean(name: str) -> str:
    """One frame of a collapsed stack can't hold ';' (the separator) or a line end."""
    return name.replace(";", ":").replace("\n", " ").strip()


class _Mapping:
    __slots__ = ("start", "end", "pgoff", "filename")

    def __init__(self, start: int, end: int, pgoff: int, filename: str):
        self.start, self.end, self.pgoff, self.filename = start, end, pgoff, filename


class _ElfFile:
    """One file on disk: its loadable segments, to turn a file offset into the
    address the file's symbols use, and its addr2line process, opened on first
    use."""

    def __init__(self, path: str, segments: List[Tuple[int, int, int]]):
        self.path = path
        self.segments = segments  # (p_offset, p_vaddr, p_filesz)
        self.process: Optional[subprocess.Popen] = None
        self.failed = False
        self.names: Dict[int, Optional[str]] = {}

    def vaddr(self, offset: int) -> Optional[int]:
        for p_offset, p_vaddr, p_filesz in self.segments:
            if p_offset <= offset < p_offset + max(p_filesz, 1):
                return offset - p_offset + p_vaddr
        return None


def _read_segments(path: str) -> Optional[List[Tuple[int, int, int]]]:
    """The PT_LOAD segments of an ELF file, from `readelf -lW`; None when the file
    is not ELF or readelf can't read it."""
    try:
        out = subprocess.run(["readelf", "-lW", path], capture_output=True, text=True,
                             env=_C_LOCALE, timeout=60)
    except (OSError, subprocess.SubprocessError):
        return None
    segments = []
    for line in out.stdout.splitlines():
        match = _LOAD_LINE.match(line)
        if match:
            p_offset, p_vaddr, _, p_filesz = (int(g, 16) for g in match.groups())
            segments.append((p_offset, p_vaddr, p_filesz))
    return segments if out.returncode == 0 and segments else None


class Symbolizer:
    """Process mappings, and names for the addresses in them.

    `add_mapping` in the order the capture tells them: a later mapping over the
    same addresses replaces the earlier one, as the process's own did. `lookup`
    names one address; `lookup_many` names many at a time, which is how they should
    be asked (one round trip per file, not per address). Answers are cached.

    `local` says that the capture was made on this machine: only then is the
    kernel's vDSO image of this process used for `[vdso]` frames, and a JIT's
    /tmp/perf-PID.map (Python's `-X perf`, for one) for anonymous code.
    """

    def __init__(self, local: bool = True):
        self.local = local
        self.gaps: List[str] = []
        self._gap_set = set()
        self._maps: Dict[int, List[_Mapping]] = {}
        self._starts: Dict[int, List[int]] = {}
        self._cache: Dict[Tuple[int, int], str] = {}
        self._files: Dict[str, Optional[_ElfFile]] = {}
        self._open: List[_ElfFile] = []
        self._perf_maps: Dict[int, Optional[Tuple[List[int], List[Tuple[int, str]]]]] = {}
        self._vdso: Optional[str] = None
        self._vdso_tried = False
        self._tools = shutil.which("addr2line") is not None and shutil.which("readelf") is not None

    # ---- Mappings ----

    def add_mapping(self, pid: int, start: int, length: int, pgoff: int, filename: str) -> None:
        if length <= 0:
            return
        end = start + length
        maps = self._maps.setdefault(pid, [])
        kept = []
        for m in maps:
            if m.end <= start or m.start >= end:
                kept.append(m)
                continue
            # The part of an older mapping outside the new one stays.
            if m.start < start:
                kept.append(_Mapping(m.start, start, m.pgoff, m.filename))
            if m.end > end:
                kept.append(_Mapping(end, m.end, m.pgoff + (end - m.start), m.filename))
        kept.append(_Mapping(start, end, pgoff, filename))
        kept.sort(key=lambda m: m.start)
        self._maps[pid] = kept
        self._starts[pid] = [m.start for m in kept]
        # Cached answers for this process may name what was there before.
        if self._cache:
            self._cache = {k: v for k, v in self._cache.items()
                           if k[0] != pid or not start <= k[1] < end}

    def inherit(self, child: int, parent: int) -> None:
        """A forked child starts with its parent's mappings."""
        if child in self._maps or parent not in self._maps:
            return
        self._maps[child] = list(self._maps[parent])
        self._starts[child] = list(self._starts[parent])

    def has_mappings(self, pid: int) -> bool:
        return pid in self._maps

    def pids(self) -> List[int]:
        return list(self._maps)

    def mapping(self, pid: int, address: int) -> Optional[Tuple[int, int, int, str]]:
        """(start, end, pgoff, filename) of the mapping holding `address`, or None."""
        m = self._find(pid, address)
        return None if m is None else (m.start, m.end, m.pgoff, m.filename)

    def _find(self, pid: int, address: int) -> Optional[_Mapping]:
        starts = self._starts.get(pid)
        if not starts:
            return None
        i = bisect.bisect_right(starts, address) - 1
        if i >= 0:
            m = self._maps[pid][i]
            if m.start <= address < m.end:
                return m
        return None

    def executable(self, pid: int) -> Optional[str]:
        """The file of the process's lowest file-backed mapping, which is its
        program for a process the profiler saw start its sampling."""
        for m in self._maps.get(pid, ()):
            if m.filename.startswith("/"):
                return m.filename
        return None

    # ---- Names ----

    def lookup(self, pid: int, address: int) -> str:
        return self.lookup_many([(pid, address)])[(pid, address)]

    def lookup_many(self, items: Iterable[Tuple[int, int]]) -> Dict[Tuple[int, int], str]:
        result: Dict[Tuple[int, int], str] = {}
        pending: Dict[_ElfFile, List[Tuple[Tuple[int, int], int, str]]] = {}
        for key in items:
            if key in result:
                continue
            cached = self._cache.get(key)
            if cached is not None:
                result[key] = cached
                continue
            pid, address = key
            name, elf, vaddr, fallback = self._place(pid, address)
            if name is not None:
                result[key] = self._cache[key] = name
            else:
                pending.setdefault(elf, []).append((key, vaddr, fallback))
        for elf, asks in pending.items():
            names = self._ask(elf, [vaddr for _, vaddr, _ in asks])
            for (key, _, fallback), name in zip(asks, names):
                result[key] = self._cache[key] = name or fallback
        return result

    def _place(self, pid: int, address: int):
        """(name, None, None, None) when the answer needs no symbol file, else
        (None, file, address in the file, name to use if it has no symbol)."""
        m = self._find(pid, address)
        if m is None:
            jit = self._perf_map_name(pid, address)
            return (jit or _hex(address)), None, None, None
        path = m.filename
        offset = address - m.start + m.pgoff
        if path.startswith("[vdso]"):
            elf = self._vdso_file()
            fallback = "[vdso]+" + _hex(address - m.start)
            if elf is None:
                return fallback, None, None, None
            vaddr = elf.vaddr(address - m.start)
            return (fallback, None, None, None) if vaddr is None else (None, elf, vaddr, fallback)
        if not path.startswith("/"):
            # Anonymous memory: code a JIT wrote, which only its own map can name.
            jit = self._perf_map_name(pid, address)
            label = path if path.startswith("[") else ""
            return (jit or (label + " " + _hex(address)).strip()), None, None, None
        base = os.path.basename(path)
        fallback = "%s+%s" % (base, _hex(offset))
        elf = self._elf(path)
        if elf is None:
            return fallback, None, None, None
        vaddr = elf.vaddr(offset)
        if vaddr is None:
            return fallback, None, None, None
        return None, elf, vaddr, fallback

    def _gap(self, text: str) -> None:
        if text not in self._gap_set:
            self._gap_set.add(text)
            self.gaps.append(text)

    def _elf(self, path: str) -> Optional[_ElfFile]:
        if path in self._files:
            return self._files[path]
        elf = None
        if path.endswith(" (deleted)"):
            self._gap("(missing: %s)" % path)
        elif not os.path.isfile(path):
            self._gap("(missing: %s)" % path)
        elif not self._tools:
            self._gap("(no symbols: addr2line and readelf of GNU binutils are not installed)")
        else:
            segments = _read_segments(path)
            if segments is None:
                self._gap("(no symbols: %s is not an ELF file readelf can read)" % path)
            else:
                elf = _ElfFile(path, segments)
        self._files[path] = elf
        return elf

    def _ask(self, elf: _ElfFile, vaddrs: Sequence[int]) -> List[Optional[str]]:
        """Names for addresses of one file, from its addr2line process; None where
        it has no symbol."""
        todo = sorted({v for v in vaddrs if v not in elf.names})
        for i in range(0, len(todo), _CHUNK):
            chunk = todo[i:i + _CHUNK]
            for vaddr, name in zip(chunk, self._ask_chunk(elf, chunk)):
                elf.names[vaddr] = name
        return [elf.names.get(v) for v in vaddrs]

    def _ask_chunk(self, elf: _ElfFile, chunk: Sequence[int]) -> List[Optional[str]]:
        if elf.failed:
            return [None] * len(chunk)
        process = self._process(elf)
        names: List[Optional[str]] = []
        try:
            process.stdin.write("".join(_hex(v) + "\n" for v in chunk))
            process.stdin.flush()
            for _ in chunk:
                function = process.stdout.readline()
                location = process.stdout.readline()
                if not location:
                    raise EOFError
                function = function.strip()
                names.append(None if not function or function.startswith("??")
                             else _clean(function))
        except (OSError, EOFError, ValueError):
            elf.failed = True
            self._gap("(no symbols: addr2line stopped on %s)" % elf.path)
            self._close(elf)
            names.extend([None] * (len(chunk) - len(names)))
        return names

    def _process(self, elf: _ElfFile) -> subprocess.Popen:
        if elf.process is not None:
            self._open.remove(elf)
            self._open.append(elf)
            return elf.process
        while len(self._open) >= _MAX_OPEN:
            self._close(self._open[0])
        elf.process = subprocess.Popen(["addr2line", "-f", "-C", "-e", elf.path],
                                       stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       stderr=subprocess.DEVNULL, text=True, bufsize=1,
                                       env=_C_LOCALE)
        self._open.append(elf)
        return elf.process

    def _close(self, elf: _ElfFile) -> None:
        process, elf.process = elf.process, None
        if elf in self._open:
            self._open.remove(elf)
        if process is None:
            return
        try:
            process.stdin.close()
        except OSError:
            pass
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        process.stdout.close()

    def close(self) -> None:
        for elf in list(self._open):
            self._close(elf)
        if self._vdso:
            try:
                os.unlink(self._vdso)
            except OSError:
                pass
            self._vdso = None

    def __enter__(self) -> "Symbolizer":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:  # interpreter shutdown: nothing left to tidy
            pass

    # ---- The vDSO and JIT maps of this machine ----

    def _vdso_file(self) -> Optional[_ElfFile]:
        """This process's vDSO, written to a file for addr2line: the kernel maps the
        same image into every process, so it names the capture's [vdso] frames when
        the capture was made here."""
        if self._vdso_tried:
            return self._files.get("[vdso]")
        self._vdso_tried = True
        self._files["[vdso]"] = None
        if not self.local or not self._tools:
            return None
        try:
            with open("/proc/self/maps") as maps:
                line = next((l for l in maps if l.rstrip().endswith("[vdso]")), None)
            if line is None:
                return None
            start, end = (int(x, 16) for x in line.split()[0].split("-"))
            with open("/proc/self/mem", "rb", buffering=0) as mem:
                mem.seek(start)
                image = mem.read(end - start)
            handle, path = tempfile.mkstemp(prefix="zorvek-vdso-", suffix=".so")
            with os.fdopen(handle, "wb") as out:
                out.write(image)
        except (OSError, ValueError):
            return None
        self._vdso = path
        segments = _read_segments(path)
        if segments is None:
            return None
        elf = _ElfFile(path, segments)
        self._files["[vdso]"] = elf
        return elf

    def _perf_map_name(self, pid: int, address: int) -> Optional[str]:
        if not self.local:
            return None
        if pid not in self._perf_maps:
            self._perf_maps[pid] = _read_perf_map("/tmp/perf-%d.map" % pid)
        table = self._perf_maps[pid]
        if table is None:
            return None
        starts, entries = table
        i = bisect.bisect_right(starts, address) - 1
        if i >= 0:
            end, name = entries[i]
            if address < end:
                return name
        return None


def _read_perf_map(path: str):
    """A JIT's symbol map, lines of "START SIZE name" in hex, as perf reads them."""
    try:
        with open(path, errors="replace") as f:
            rows = []
            for line in f:
                parts = line.rstrip("\n").split(" ", 2)
                if len(parts) == 3:
                    try:
                        start, size = int(parts[0], 16), int(parts[1], 16)
                    except ValueError:
                        continue
                    rows.append((start, start + size, _clean(parts[2])))
    except OSError:
        return None
    rows.sort()
    return [r[0] for r in rows], [(r[1], r[2]) for r in rows]


def demangle(names: Iterable[str]) -> Dict[str, str]:
    """Readable forms of C++ symbol names (CUDA kernels' among them), through one
    run of binutils' c++filt; a name it can't read, or every name when it is not
    installed, stays as it was."""
    mangled = sorted({n for n in names if n.startswith("_Z")})
    result = {n: n for n in names}
    if not mangled or shutil.which("c++filt") is None:
        return result
    try:
        out = subprocess.run(["c++filt"], input="\n".join(mangled) + "\n", capture_output=True,
                             text=True, env=_C_LOCALE, timeout=120)
    except (OSError, subprocess.SubprocessError):
        return result
    lines = out.stdout.splitlines()
    if out.returncode == 0 and len(lines) == len(mangled):
        for name, readable in zip(mangled, lines):
            result[name] = _clean(readable) or name
    return result
