"""Stacks and symbols for the views: the kernel's call chains named through the
symbolizer, the stack sampler's stacks merged with their Python frames
(`zorvek.stacks`), and the names of CUDA driver calls."""

from __future__ import annotations

import os
import socket
import sys
from typing import TYPE_CHECKING, Dict, List, Optional, Sequence, Tuple

import numpy as np

from ..stacks import StackKey
from ..symbols import Symbolizer
from .columns import distinct

if TYPE_CHECKING:
    from .survey import Survey

# Call chain words at or above this are the kernel's context markers
# (PERF_CONTEXT_USER is 2**64 - 512, ..._MAX 2**64 - 4095), not addresses.
CONTEXT_MARKER_FLOOR = 2 ** 64 - 4095


def user_frames(chain: Sequence[int]) -> List[int]:
    """A sample's call chain without the kernel's context markers, innermost first,
    ending at the first 0 (an odd-length chain is padded to whole entries)."""
    frames = []
    for address in chain:
        if address >= CONTEXT_MARKER_FLOOR:
            continue
        if address == 0:
            break
        frames.append(address)
    return frames


def sample_frames(rec: dict) -> Tuple[int, Tuple[int, ...], bool]:
    """(pid, user frames innermost first, whether the stored chain may end in a
    pad word) of one SAMPLE record."""
    chain = rec.get("chain") or ()
    frames = user_frames(chain)
    if not frames and rec.get("ip"):
        frames = [rec["ip"]]
    padded = len(frames) > 1 and len(chain) % 2 == 0 and chain[-1] == frames[-1]
    return rec["pid"], tuple(frames), padded


def name_stacks(symbols: Symbolizer, stacks: Sequence[Tuple[int, Tuple[int, ...], bool]]
                ) -> List[List[str]]:
    """Frame names, innermost first, for many stacks with one round of questions
    to the symbolizer; a function inlined at an address is a frame of its own,
    inside the one it was inlined into. Return addresses are asked one byte
    back, inside the call that made them. A chain of an odd number of words is
    stored padded to an even number, and the pad keeps what the buffer held
    before: a last frame that lies in no mapping of its process is taken for that
    pad and left out."""
    keyed, asks = [], set()
    for pid, frames, padded in stacks:
        if padded and symbols.has_mappings(pid) and symbols.mapping(pid, frames[-1]) is None:
            frames = frames[:-1]
        keys = [(pid, a if i == 0 else a - 1) for i, a in enumerate(frames)]
        asks.update(keys)
        keyed.append(keys)
    names = symbols.frames_many(sorted(asks)) if asks else {}
    return [[name for k in keys for name in names[k]] for keys in keyed]


class SampleStacks:
    """The distinct stacks of sample columns, each given an id once: the kernel's
    samples by `sample_frames`, the stack sampler's by `stack_key`. A group's
    rows are told apart in NumPy; a key tuple is made once per distinct stack."""

    def __init__(self) -> None:
        self.chains: Dict[Tuple[int, Tuple[int, ...], bool], int] = {}
        self.stacks: Dict[StackKey, int] = {}
        # The keys by id.
        self.chain_keys: List[Tuple[int, Tuple[int, ...], bool]] = []
        self.stack_keys: List[StackKey] = []

    @staticmethod
    def _id(ids: dict, keys: list, key) -> int:
        found = ids.get(key)
        if found is None:
            found = ids[key] = len(keys)
            keys.append(key)
        return found

    @staticmethod
    def _list(table: dict, field: str, rows: np.ndarray) -> Tuple[np.ndarray, np.ndarray]:
        """The values and offsets of a list field for `rows` only."""
        offsets = table[field + "_offsets"].astype(np.int64)
        lo, hi = offsets[rows], offsets[rows + 1]
        lengths = hi - lo
        starts = np.cumsum(lengths) - lengths
        within = np.arange(int(lengths.sum()), dtype=np.int64) - np.repeat(starts, lengths)
        picks = np.repeat(lo, lengths) + within
        return picks, np.concatenate([starts, [int(lengths.sum())]])

    def chain_ids(self, table: dict, rows: np.ndarray) -> np.ndarray:
        """The id in `chains` of each of a SAMPLE table's `rows`."""
        if not len(rows):
            return np.zeros(0, np.int64)
        pid = table["pid"][rows]
        ip = table["ip"][rows] if "ip" in table else np.zeros(len(rows), np.uint64)
        if "chain" in table:
            picks, offsets = self._list(table, "chain", rows)
            chain = table["chain"][picks]
        else:
            chain, offsets = np.zeros(0, np.uint64), np.zeros(len(rows) + 1, np.int64)
        first, inverse = distinct([pid, ip], [([chain], offsets)])
        ids = np.empty(len(first), np.int64)
        for i, row in enumerate(first.tolist()):
            rec = {"pid": int(pid[row]), "ip": int(ip[row]),
                   "chain": chain[offsets[row]:offsets[row + 1]].tolist()}
            ids[i] = self._id(self.chains, self.chain_keys, sample_frames(rec))
        return ids[inverse]

    def stack_ids(self, table: dict, rows: np.ndarray) -> np.ndarray:
        """The id in `stacks` of each of a STACK table's `rows`."""
        if not len(rows):
            return np.zeros(0, np.int64)
        pid = table["pid"][rows]
        waiting = table["waiting"][rows]
        ip_picks, ip_offsets = self._list(table, "ips", rows)
        ips = table["ips"][ip_picks]
        py_picks, py_offsets = self._list(table, "py", rows)
        code, instruction, entry = (table[key][py_picks] for key in (
            "py_code_id", "py_instruction", "py_entry"))
        first, inverse = distinct([pid, waiting], [([ips], ip_offsets),
                                                   ([code, instruction, entry], py_offsets)])
        ids = np.empty(len(first), np.int64)
        for i, row in enumerate(first.tolist()):
            lo, hi = py_offsets[row], py_offsets[row + 1]
            key = (int(pid[row]), tuple(ips[ip_offsets[row]:ip_offsets[row + 1]].tolist()),
                   tuple(zip(code[lo:hi].tolist(), instruction[lo:hi].tolist(),
                             entry[lo:hi].tolist())), bool(waiting[row]))
            ids[i] = self._id(self.stacks, self.stack_keys, key)
        return ids[inverse]


def sample_kinds(survey: Survey) -> List[str]:
    """The record kinds that hold the samples the survey saw (a reader that
    doesn't know STACK isn't asked for it)."""
    return ["SAMPLE"] + (["STACK"] if survey.stack_samples else [])


def build_symbolizer(survey: Survey) -> Symbolizer:
    """Mappings in the order they happened; a forked child starts from its
    parent's."""
    here = socket.gethostname()
    local = all(d.host == here for d in survey.domains)
    symbols = Symbolizer(local=local)
    if not local:
        hosts = sorted({d.host for d in survey.domains if d.host != here})
        symbols.gaps.append("(symbols read from this machine's files; the capture was made on %s)"
                            % ", ".join(hosts))
    for _, kind, _, pid, a, b, c, filename in survey.mapping_events:
        if kind == 0:
            symbols.add_mapping(pid, a, b, c, filename)
        else:
            symbols.inherit(pid, a)
    return symbols


# ---- CUDA API names ----------------------------------------------------------------

_CBID_NAMES: Optional[Dict[int, str]] = None


def driver_call_name(cbid: int) -> str:
    """The driver function of a callback id, from CUPTI's own header where one is
    installed (NVIDIA's wheels carry it); the number otherwise."""
    global _CBID_NAMES
    if _CBID_NAMES is None:
        _CBID_NAMES = {}
        for path in _cbid_headers():
            try:
                with open(path, errors="replace") as header:
                    for line in header:
                        line = line.strip()
                        if line.startswith("CUPTI_DRIVER_TRACE_CBID_") and "=" in line:
                            name, _, value = line.partition("=")
                            name = name.strip()[len("CUPTI_DRIVER_TRACE_CBID_"):]
                            try:
                                _CBID_NAMES.setdefault(int(value.strip().rstrip(",")), name)
                            except ValueError:
                                pass
            except OSError:
                continue
            if _CBID_NAMES:
                break
    return _CBID_NAMES.get(cbid) or "CUDA driver call %d" % cbid


def _cbid_headers() -> List[str]:
    places = []
    for entry in sys.path:
        for sub in ("nvidia/cu13/include", "nvidia/cuda_cupti/include", "nvidia/cu12/include"):
            places.append(os.path.join(entry, sub, "cupti_driver_cbid.h"))
    cuda = os.environ.get("CUDA_HOME") or os.environ.get("CUDA_PATH") or "/usr/local/cuda"
    places += [os.path.join(cuda, "include", "cupti_driver_cbid.h"),
               os.path.join(cuda, "extras", "CUPTI", "include", "cupti_driver_cbid.h")]
    return [p for p in places if os.path.isfile(p)]
