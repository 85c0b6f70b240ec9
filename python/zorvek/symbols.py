"""Names for the addresses of a capture's call chains.

A sample holds process addresses. The capture's MMAP records say which file each
range of a process came from (the mappings listed when sampling started, and those
the kernel or the stack sampler reported afterwards); this module turns an address
into the names of the functions it lies in, read from that file's symbols on this
machine: the function itself and, where the file's debug information says so, the
functions inlined into it at that address, each a frame of its own.

The symbolizer is LLVM's `llvm-symbolizer` (Debian package `llvm`), ONE
long-lived process for every file, asked "path" address lines on its standard
input and answering one JSON line each. It reads DWARF (inline frames included),
full and dynamic symbol tables and separate debug files, and demangles C++. The
file offset of an address is turned into the address the file's symbols use from
the file's loadable segments, read here from its program headers.

What has no symbol gets a stated name, never a neighbour's: `file+0xoffset` (the
offset in the file) for a file without a symbol there, or one that is gone
(`symbols.gaps` says so, once per file); anonymous executable memory is named from
the process's /tmp/perf-PID.map (a JIT's, Python's `-X perf` for one) where it
wrote one, else `[anon]`, the same for every address of the mapping; a hex
address for an address in no known mapping.
"""

from __future__ import annotations

import bisect
import glob
import json
import os
import shutil
import struct
import subprocess
import tempfile
from typing import Dict, Iterable, List, Optional, Sequence, Tuple

__all__ = ["Symbolizer", "demangle", "load_segments", "ANON"]

ANON = "[anon]"

# Questions go to llvm-symbolizer in chunks, each written whole and then its
# answers read whole. That can't deadlock while a chunk fits in the pipe's buffer
# (64 KiB): the write returns even while the symbolizer is blocked writing
# answers nobody reads yet.
_CHUNK_BYTES = 32 * 1024
_C_LOCALE = dict(os.environ, LC_ALL="C", LANG="C")
# Never a network fetch of debug files for a view.
_C_LOCALE.pop("DEBUGINFOD_URLS", None)

_INSTALL_LLVM = ("(no symbols: llvm-symbolizer is not installed; install the llvm package "
                 "(apt-get install llvm) for function names)")

Frames = Tuple[str, ...]


def _hex(address: int) -> str:
    return "0x%x" % address


def _clean(name: str) -> str:
    """One frame of a collapsed stack can't hold ';' (the separator) or a line end."""
    return name.replace(";", ":").replace("\n", " ").strip()


# ---- ELF program headers ----------------------------------------------------------

_EHDR = struct.Struct("<16sHHIQQQIHHHHHH")
_PHDR = struct.Struct("<IIQQQQQQ")
_SHDR0_INFO = struct.Struct("<I")  # sh_info of section 0, at byte 44 of it
_PT_LOAD = 1
_PN_XNUM = 0xFFFF


def load_segments(path: str) -> Optional[List[Tuple[int, int, int]]]:
    """(p_offset, p_vaddr, p_filesz) of each PT_LOAD segment of a 64-bit
    little-endian ELF file; None when the file can't be read or isn't one."""
    try:
        with open(path, "rb") as f:
            head = f.read(_EHDR.size)
            if len(head) < _EHDR.size or head[:4] != b"\x7fELF" or head[4] != 2 or head[5] != 1:
                return None
            (_, _, _, _, _, phoff, shoff, _, _, phentsize, phnum, shentsize, _, _) = \
                _EHDR.unpack(head)
            if phnum == _PN_XNUM and shoff:
                # More headers than the field holds: the count is in section 0.
                f.seek(shoff + 44)
                phnum = _SHDR0_INFO.unpack(f.read(4))[0]
            if phentsize < _PHDR.size or not phoff or not phnum:
                return None
            f.seek(phoff)
            table = f.read(phentsize * phnum)
    except (OSError, struct.error):
        return None
    segments = []
    for i in range(min(phnum, len(table) // phentsize)):
        p_type, _, p_offset, p_vaddr, _, p_filesz, _, _ = _PHDR.unpack_from(table, i * phentsize)
        if p_type == _PT_LOAD:
            segments.append((p_offset, p_vaddr, p_filesz))
    return segments or None


# ---- Mappings -------------------------------------------------------------------


class _Mapping:
    __slots__ = ("start", "end", "pgoff", "filename")

    def __init__(self, start: int, end: int, pgoff: int, filename: str):
        self.start, self.end, self.pgoff, self.filename = start, end, pgoff, filename


def _is_anonymous(filename: str) -> bool:
    """Memory no file on disk holds: what the kernel calls //anon, the empty name
    of /proc/PID/maps, a named anonymous region, and the files that vanish with
    the process (memfd, /dev/zero), where JITs put their code too."""
    return (not filename or filename == "//anon" or filename.startswith(("[anon", "/memfd:",
                                                                          "/dev/zero",
                                                                          "anon_inode:")))


class _ElfFile:
    """One file on disk: its loadable segments, to turn a file offset into the
    address the file's symbols use, and the frames found at its addresses."""

    def __init__(self, path: str, segments: List[Tuple[int, int, int]]):
        self.path = path
        self.segments = segments
        self.frames: Dict[int, Optional[Frames]] = {}

    def vaddr(self, offset: int) -> Optional[int]:
        for p_offset, p_vaddr, p_filesz in self.segments:
            if p_offset <= offset < p_offset + max(p_filesz, 1):
                return offset - p_offset + p_vaddr
        return None


# ---- The symbolizer process -------------------------------------------------------


def _tool(name: str) -> Optional[str]:
    """An LLVM tool on the PATH, else the newest of the versioned installs."""
    found = shutil.which(name)
    if found:
        return found

    def version(path: str) -> int:
        digits = path.split("/llvm-")[1].split("/")[0]
        return int(digits) if digits.isdigit() else 0

    installed = sorted(glob.glob("/usr/lib/llvm-*/bin/" + name), key=version)
    return installed[-1] if installed else None


def _number(text) -> Optional[int]:
    if isinstance(text, int):
        return text
    try:
        return int(text, 0)
    except (TypeError, ValueError):
        return None


class _Llvm:
    """The one llvm-symbolizer process of a Symbolizer, started on first use."""

    def __init__(self, executable: str, gap):
        self.executable = executable
        self.gap = gap
        self.process: Optional[subprocess.Popen] = None
        self.failed = False

    def frames(self, asks: Sequence[Tuple[str, int]]) -> List[Optional[Frames]]:
        """Frames, innermost first, at each (file, address in the file); None
        where the file has no symbol there."""
        answers = self._ask(["%s %s" % (_quoted(path), _hex(v)) for path, v in asks])
        result: List[Optional[Frames]] = []
        checks = []
        for i, answer in enumerate(answers):
            frames, needs_check = _code_frames(answer)
            result.append(frames)
            if frames is not None and needs_check:
                checks.append(i)
        if checks:
            # Names that came from a symbol table alone: llvm-symbolizer takes a
            # symbol of size 0 (an assembly function without .size, often the
            # only thing a stripped library exports) to reach the next symbol.
            # The address must lie inside the symbol it was named after.
            data = self._ask(["DATA %s %s" % (_quoted(asks[i][0]), _hex(asks[i][1]))
                              for i in checks])
            for i, answer in zip(checks, data):
                if not _inside_symbol(answer, asks[i][1]):
                    result[i] = None
        return result

    def _ask(self, lines: List[str]) -> List[Optional[dict]]:
        answers: List[Optional[dict]] = []
        chunk: List[str] = []
        size = 0
        for line in lines:
            if chunk and size + len(line) + 1 > _CHUNK_BYTES:
                answers.extend(self._ask_chunk(chunk))
                chunk, size = [], 0
            chunk.append(line)
            size += len(line) + 1
        if chunk:
            answers.extend(self._ask_chunk(chunk))
        return answers

    def _ask_chunk(self, chunk: List[str]) -> List[Optional[dict]]:
        if self.failed:
            return [None] * len(chunk)
        answers: List[Optional[dict]] = []
        try:
            process = self._process()
            process.stdin.write("".join(line + "\n" for line in chunk))
            process.stdin.flush()
            for _ in chunk:
                line = process.stdout.readline()
                if not line:
                    raise EOFError
                try:
                    answer = json.loads(line)
                except ValueError:
                    answer = None
                answers.append(answer if isinstance(answer, dict) else None)
        except (OSError, EOFError, ValueError) as error:
            self.failed = True
            self.gap("(no symbols: llvm-symbolizer stopped: %s)" % (error or type(error).__name__))
            self.close()
            answers.extend([None] * (len(chunk) - len(answers)))
        return answers

    def _process(self) -> subprocess.Popen:
        if self.process is None:
            self.process = subprocess.Popen(
                [self.executable, "--output-style=JSON", "--inlines", "--demangle",
                 "--functions=linkage"],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                text=True, encoding="utf-8", errors="replace", bufsize=1, env=_C_LOCALE)
        return self.process

    def close(self) -> None:
        process, self.process = self.process, None
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


def _quoted(path: str) -> str:
    return '"%s"' % path


def _code_frames(answer: Optional[dict]) -> Tuple[Optional[Frames], bool]:
    """The frames of a CODE answer, innermost first, and whether they came from a
    symbol table alone (no line anywhere: no debug information there)."""
    if not answer or "Error" in answer:
        return None, False
    symbols = answer.get("Symbol") or []
    names = []
    located = False
    for frame in symbols:
        if not isinstance(frame, dict):
            continue
        name = frame.get("FunctionName") or ""
        if frame.get("Line"):
            located = True
        if name and not name.startswith("??"):
            names.append(_clean(name))
    if not names:
        return None, False
    return tuple(names), not located


def _inside_symbol(answer: Optional[dict], address: int) -> bool:
    data = (answer or {}).get("Data") or {}
    start, size = _number(data.get("Start")), _number(data.get("Size"))
    if not data.get("Name") or start is None or size is None:
        return False
    return start <= address < start + size or address == start


# ---- The symbolizer -----------------------------------------------------------------


class Symbolizer:
    """Process mappings, and names for the addresses in them.

    `add_mapping` in the order the capture tells them: a later mapping over the
    same addresses replaces the earlier one, as the process's own did. `frames_many`
    names many addresses at a time, each as its frames innermost first (inlined
    functions, then the function they were inlined into); `lookup_many` gives the
    innermost name only. Ask many at a time: one round trip for all of them.
    Answers are cached.

    `local` says that the capture was made on this machine: only then is the
    kernel's vDSO image of this process used for `[vdso]` frames, and a JIT's
    /tmp/perf-PID.map for anonymous code.
    """

    def __init__(self, local: bool = True):
        self.local = local
        self.gaps: List[str] = []
        self._gap_set = set()
        self._maps: Dict[int, List[_Mapping]] = {}
        self._starts: Dict[int, List[int]] = {}
        self._cache: Dict[Tuple[int, int], Frames] = {}
        self._files: Dict[str, Optional[_ElfFile]] = {}
        self._perf_maps: Dict[int, Optional[Tuple[List[int], List[Tuple[int, str]]]]] = {}
        self._vdso: Optional[str] = None
        self._vdso_tried = False
        executable = _tool("llvm-symbolizer")
        self._llvm = _Llvm(executable, self._gap) if executable else None

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
            if m.filename.startswith("/") and not _is_anonymous(m.filename):
                return m.filename
        return None

    # ---- Names ----

    def lookup(self, pid: int, address: int) -> str:
        return self.lookup_many([(pid, address)])[(pid, address)]

    def lookup_many(self, items: Iterable[Tuple[int, int]]) -> Dict[Tuple[int, int], str]:
        """The innermost function at each (pid, address)."""
        return {key: frames[0] for key, frames in self.frames_many(items).items()}

    def frames_many(self, items: Iterable[Tuple[int, int]]) -> Dict[Tuple[int, int], Frames]:
        """The frames at each (pid, address), innermost first: never empty."""
        result: Dict[Tuple[int, int], Frames] = {}
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
                result[key] = self._cache[key] = (name,)
                continue
            known = elf.frames.get(vaddr, False)
            if known is not False:
                result[key] = self._cache[key] = known or (fallback,)
            else:
                pending.setdefault(elf, []).append((key, vaddr, fallback))
        if pending:
            asks = [(elf, vaddr) for elf, keyed in pending.items()
                    for vaddr in sorted({v for _, v, _ in keyed})]
            answers = self._llvm.frames([(elf.path, vaddr) for elf, vaddr in asks])
            for (elf, vaddr), frames in zip(asks, answers):
                elf.frames[vaddr] = frames
            for elf, keyed in pending.items():
                for key, vaddr, fallback in keyed:
                    result[key] = self._cache[key] = elf.frames.get(vaddr) or (fallback,)
        return result

    def _place(self, pid: int, address: int):
        """(name, None, None, None) when the answer needs no symbol file, else
        (None, file, address in the file, name to use if it has no symbol)."""
        m = self._find(pid, address)
        if m is None:
            return (self._perf_map_name(pid, address) or _hex(address)), None, None, None
        path = m.filename
        offset = address - m.start + m.pgoff
        if path.startswith("[vdso]"):
            fallback = "[vdso]+" + _hex(address - m.start)
            elf = self._vdso_file()
            vaddr = None if elf is None else elf.vaddr(address - m.start)
            return (fallback, None, None, None) if vaddr is None else (None, elf, vaddr, fallback)
        if _is_anonymous(path):
            # Code a JIT wrote: only its own map can name it; else the mapping is
            # one frame, whichever address in it.
            return (self._perf_map_name(pid, address) or ANON), None, None, None
        if not path.startswith("/"):
            return path, None, None, None  # [heap], [stack], [vsyscall]: the region's name
        fallback = "%s+%s" % (_clean(os.path.basename(path)), _hex(offset))
        elf = self._elf(path)
        vaddr = None if elf is None else elf.vaddr(offset)
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
        if path.endswith(" (deleted)") or not os.path.isfile(path):
            self._gap("(missing: %s)" % path)
        elif self._llvm is None:
            self._gap(_INSTALL_LLVM)
        elif '"' in path:
            self._gap("(no symbols: %s: a name llvm-symbolizer can't be given)" % path)
        else:
            segments = load_segments(path)
            if segments is None:
                self._gap("(no symbols: %s is not an ELF file that can be read)" % path)
            else:
                elf = _ElfFile(path, segments)
        self._files[path] = elf
        return elf

    def close(self) -> None:
        if self._llvm is not None:
            self._llvm.close()
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
        """This process's vDSO, written to a file for the symbolizer: the kernel
        maps the same image into every process, so it names the capture's [vdso]
        frames when the capture was made here."""
        if self._vdso_tried:
            return self._files.get("[vdso]")
        self._vdso_tried = True
        self._files["[vdso]"] = None
        if not self.local or self._llvm is None:
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
        segments = load_segments(path)
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
    run of LLVM's llvm-cxxfilt (binutils' c++filt where LLVM isn't installed); a
    name it can't read, or every name when neither is there, stays as it was."""
    names = list(names)
    mangled = sorted({n for n in names if n.startswith("_Z")})
    result = {n: n for n in names}
    tool = (_tool("llvm-cxxfilt") or shutil.which("c++filt")) if mangled else None
    if tool is None:
        return result
    try:
        out = subprocess.run([tool], input="\n".join(mangled) + "\n", capture_output=True,
                             text=True, env=_C_LOCALE, timeout=120)
    except (OSError, subprocess.SubprocessError):
        return result
    lines = out.stdout.splitlines()
    if out.returncode == 0 and len(lines) == len(mangled):
        for name, readable in zip(mangled, lines):
            result[name] = _clean(readable) or name
    return result
