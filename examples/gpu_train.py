"""GPU smoke test of the profiler: a small MLP trained on CUDA with PyTorch under a
capture with GPU tracing on, then a check of what the capture holds.

    python3 examples/gpu_train.py [--steps N] [--out DIR]
    python3 examples/gpu_train.py --check FILE...   # only check captures taken before

The capture is read back through `zvkdump --json` (installed beside the module),
or, where zvkdump can't be found, by a small reader of the file format here. The
GPU payloads are decoded here from their bytes in either case, so that the check
doesn't depend on what a given zvkdump decodes; where zvkdump does decode them, the
two must agree. The check wants kernel records with their names, CUDA_API records
(traced driver calls with host call chains), host-device copies, and kernels that
join their launching call by correlation id. It prints a short report.

Exit status: 0 when every check passed, 1 when one failed (with a line saying
which), 2 when this machine can't run it (no PyTorch with CUDA, no GPU, no _zorv).
Not part of `make test`: it needs a machine with an NVIDIA GPU.
"""

import argparse
import collections
import glob
import json
import os
import shutil
import struct
import subprocess
import sys
import sysconfig
import tempfile
import zlib

CANNOT_RUN = 2
FAILED = 1

BATCH, FEATURES, HIDDEN, CLASSES = 256, 512, 1024, 10

# GPU records (hw_type 1): the low 12 bits of event_type say which payload follows,
# the 8 bits above a kind within it.
GPU = 1
TYPE_NAMES = ("KERNEL_NAME", "KERNEL", "CONCURRENT_KERNEL", "SYNCRONIZATION", "MEMCOPY",
              "MEMCOPY_P2P", "MEMSET", "DRIVER", "RUNTIME", "CUDA_API")
(KERNEL_NAME, KERNEL, CONCURRENT_KERNEL, SYNCRONIZATION, MEMCOPY, MEMCOPY_P2P, MEMSET, DRIVER,
 RUNTIME, CUDA_API) = range(len(TYPE_NAMES))
COPY_KINDS = {1: "HtoD", 2: "DtoH", 8: "DtoD", 9: "HtoH", 10: "PtoP"}
# Where a payload's correlation id lies, and the least payload that holds it.
CORRELATION_AT = {KERNEL: 64, CONCURRENT_KERNEL: 64, SYNCRONIZATION: 8, MEMCOPY: 24,
                  MEMCOPY_P2P: 32, MEMSET: 20, DRIVER: 16, RUNTIME: 16, CUDA_API: 16}
PAYLOAD_SIZE = {KERNEL: 72, CONCURRENT_KERNEL: 72, SYNCRONIZATION: 16, MEMCOPY: 40,
                MEMCOPY_P2P: 48, MEMSET: 32, DRIVER: 24, RUNTIME: 24, CUDA_API: 24}

# Settings whose environment variables would override what this script asks for.
OVERRIDDEN_BY_ENVIRONMENT = ("ZVK_CUDA_CONFIG", "ZVK_OUTPUT_FILE_NAME")


class CheckFailed(Exception):
    pass


def cannot_run(message):
    print(f"gpu_train: cannot run here: {message}", file=sys.stderr)
    sys.exit(CANNOT_RUN)


# ---- Training ---------------------------------------------------------------------


def cuda_torch():
    """PyTorch, when it can reach a CUDA device; else the script ends here."""
    try:
        import torch
    except ImportError:
        cannot_run("PyTorch is not installed (pip install torch, a CUDA build)")
    if not torch.cuda.is_available():
        build = torch.version.cuda or "none: a CPU-only build"
        cannot_run(f"no CUDA device is available (PyTorch {torch.__version__}, CUDA {build})")
    return torch


def train(torch, record_pattern, steps):
    """Trains under a capture and returns the capture's files. Host-device copies
    each step: the batch pageable, the labels through pinned memory, and the loss
    back to the host now and then."""
    try:
        import _zorv
    except ImportError:
        cannot_run("the _zorv module is not installed (pip install . in the repository)")
    for name in OVERRIDDEN_BY_ENVIRONMENT:
        if os.environ.pop(name, None) is not None:
            print(f"note: {name} unset for this run: the checks assume this script's settings")

    config = _zorv.Config()
    # Small buffers: the defaults reserve 2 GiB.
    config.profiler = {"EnableCuda": "1", "BucketCount": "8", "BucketSizeMB": "4",
                       "RecordFile": record_pattern}
    profiler = _zorv.Zorvek.instance()
    status = repr(profiler.configure(config))
    if status != "OK":
        raise CheckFailed(f"configure answered {status}")
    # Before the first CUDA work, so that the context's whole life is traced.
    profiler.start_profiling()

    device = torch.device("cuda")
    torch.manual_seed(0)
    model = torch.nn.Sequential(
        torch.nn.Linear(FEATURES, HIDDEN), torch.nn.ReLU(), torch.nn.Linear(HIDDEN, HIDDEN),
        torch.nn.ReLU(), torch.nn.Linear(HIDDEN, CLASSES)).to(device)
    optimizer = torch.optim.SGD(model.parameters(), lr=0.05, momentum=0.9)
    loss_fn = torch.nn.CrossEntropyLoss()
    generator = torch.Generator().manual_seed(0)
    losses = []
    for step in range(steps):
        token = _zorv.annotation_begin("step")
        x_host = torch.randn(BATCH, FEATURES, generator=generator)
        x = x_host.to(device)
        labels = x_host[:, :CLASSES].argmax(dim=1).pin_memory().to(device, non_blocking=True)
        loss = loss_fn(model(x), labels)
        optimizer.zero_grad(set_to_none=True)
        loss.backward()
        optimizer.step()
        if step % 10 == 0 or step == steps - 1:
            losses.append(loss.item())
        _zorv.annotation_end(token)
    # Every kernel finished before the stop flushes CUPTI's buffers.
    torch.cuda.synchronize()
    status = repr(profiler.stop_profiling())
    if status != "OK":
        raise CheckFailed(f"stop_profiling answered {status}")
    print(f"trained {steps} steps on {torch.cuda.get_device_name(0)}: loss "
          f"{losses[0]:.4f} -> {losses[-1]:.4f}")
    prefix = record_pattern.replace("%p", str(os.getpid()))
    return sorted(glob.glob(glob.escape(prefix) + "_*.zvkraw"))


# ---- Reading the capture ----------------------------------------------------------


def zvkdump_path():
    found = shutil.which("zvkdump")
    if found:
        return found
    beside = os.path.join(sysconfig.get_path("scripts"), "zvkdump")
    return beside if os.access(beside, os.X_OK) else None


def records_by_zvkdump(zvkdump, paths):
    """Every record of the files as zvkdump --json gives it, with its payload as
    bytes under "payload" and zvkdump's own object under "dumped"."""
    result = subprocess.run([zvkdump, "--json", *paths], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)
    if result.returncode != 0:
        raise CheckFailed(f"zvkdump exited with {result.returncode}: {result.stderr.strip()}")
    document = json.loads(result.stdout)
    records = []
    for dumped_file in document if isinstance(document, list) else [document]:
        if not dumped_file.get("clean", False):
            raise CheckFailed(f"{dumped_file.get('file')}: {dumped_file.get('problem')}")
        for bucket in dumped_file["buckets"]:
            for dumped in bucket["records"]:
                record = {key: dumped[key] for key in ("timestamp", "hw_type", "event_type", "pid",
                                                       "tid", "call_chain_size")}
                record["payload"] = bytes.fromhex(dumped["payload_hex"])
                record["dumped"] = dumped
                records.append(record)
    return records


_HEADER = struct.Struct("<8sIIQQQQIIIIIIHHHHH")
_BUCKET = struct.Struct("<QQQII")
_RECORD = struct.Struct("<QIIIHH")


def records_by_reader(paths):
    """The same records read here: a header of 88 bytes plus its strings, then
    zlib-compressed buckets to the end of the file, each a run of records of a
    24-byte header, 16 bytes per call chain entry and the payload."""
    records = []
    for path in paths:
        with open(path, "rb") as capture:
            data = capture.read()
        fields = _HEADER.unpack_from(data, 0)
        if fields[0] != b"ZVKRAWDF" or fields[1] != 3:
            raise CheckFailed(f"{path}: not a capture file of version 3")
        offset = 88 + sum(fields[13:18])
        while offset + _BUCKET.size <= len(data):
            _, _, count, compressed, uncompressed = _BUCKET.unpack_from(data, offset)
            stream = data[offset + _BUCKET.size:offset + _BUCKET.size + compressed]
            if len(stream) < compressed:
                raise CheckFailed(f"{path}: the last bucket is torn")
            raw = zlib.decompress(stream)
            at = walked = 0
            while at < len(raw):
                stamp, word, pid, tid, chain, size = _RECORD.unpack_from(raw, at)
                start = at + _RECORD.size + 16 * chain
                records.append({"timestamp": stamp, "hw_type": word >> 28,
                                "event_type": word & 0xFFFFF, "pid": pid, "tid": tid,
                                "call_chain_size": chain, "payload": raw[start:start + size]})
                at = start + size
                walked += 1
            if at != uncompressed or walked != count:
                raise CheckFailed(f"{path}: bucket at {offset} doesn't add up")
            offset += _BUCKET.size + compressed
    return records


def decode_gpu(record):
    """Adds atype, akind and the payload's fields the checks use; False when the
    payload is too short for its type."""
    atype, akind = record["event_type"] & 0xFFF, record["event_type"] >> 12
    record["atype"], record["akind"] = atype, akind
    payload = record["payload"]
    if atype == KERNEL_NAME:
        if len(payload) < 8:
            return False
        record["id"] = struct.unpack_from("<I", payload)[0]
        record["name"] = payload[8:].split(b"\0", 1)[0].decode(errors="replace")
        return True
    if atype not in PAYLOAD_SIZE or len(payload) < PAYLOAD_SIZE[atype]:
        return False
    record["end"] = struct.unpack_from("<Q", payload)[0]
    record["correlation"] = struct.unpack_from("<I", payload, CORRELATION_AT[atype])[0]
    if atype in (KERNEL, CONCURRENT_KERNEL):
        record["name_id"] = struct.unpack_from("<I", payload, 48)[0]
    elif atype == MEMCOPY:
        record["bytes"], record["copy_kind"] = struct.unpack_from("<Q", payload, 8)[0], payload[16]
    elif atype == CUDA_API:
        record["cbid"], _, record["function_id"] = struct.unpack_from("<III", payload, 12)
    return True


# ---- Checking it ------------------------------------------------------------------


def check_capture(paths, pid, min_joined):
    if not paths:
        raise CheckFailed("the capture wrote no file")
    zvkdump = zvkdump_path()
    if zvkdump:
        records = records_by_zvkdump(zvkdump, paths)
        source = zvkdump
    else:
        records = records_by_reader(paths)
        source = "this script's reader (zvkdump not found)"
    gpu = [r for r in records if r["hw_type"] == GPU and (pid is None or r["pid"] == pid)]
    undecoded = [r for r in gpu if not decode_gpu(r)]
    print(f"capture: {len(paths)} file(s), {len(records)} records, {len(gpu)} GPU records, "
          f"read by {source}")
    for path in paths:
        print(f"  {path}")
    if undecoded:
        raise CheckFailed(f"{len(undecoded)} GPU records have a payload too short for their type")

    # Where zvkdump decodes GPU records too, it must say what the bytes say.
    compared = disagreed = 0
    for r in gpu:
        dumped = r.get("dumped", {})
        if "event" in dumped:
            compared += 1
            if dumped["event"] != TYPE_NAMES[r["atype"]] or dumped.get(
                    "correlation", r.get("correlation")) != r.get("correlation"):
                disagreed += 1
    if compared:
        print(f"zvkdump decodes GPU records: {compared} compared, {disagreed} disagree")
    if disagreed:
        raise CheckFailed(f"zvkdump's GPU decoding disagrees with the payload on {disagreed} "
                          "records")

    by_type = collections.Counter(TYPE_NAMES[r["atype"]] if r["atype"] < len(TYPE_NAMES)
                                  else str(r["atype"]) for r in gpu)
    print("GPU records by type: " + ", ".join(f"{k} {v}" for k, v in sorted(by_type.items())))

    names = {(r["pid"], r["akind"], r["id"]): r["name"] for r in gpu if r["atype"] == KERNEL_NAME}
    kernels = [r for r in gpu if r["atype"] in (KERNEL, CONCURRENT_KERNEL)]
    calls = [r for r in gpu if r["atype"] == CUDA_API]
    copies = [r for r in gpu if r["atype"] == MEMCOPY]
    if not kernels:
        raise CheckFailed("no KERNEL or CONCURRENT_KERNEL records: was CUPTI loaded? "
                          "(the log says where it was looked for)")
    if not calls:
        raise CheckFailed("no CUDA_API records: driver API calls were not traced")
    if not copies:
        raise CheckFailed("no MEMCOPY records, though every step copies to the device")

    unnamed = [k for k in kernels if (k["pid"], 0, k["name_id"]) not in names]
    by_name = collections.defaultdict(lambda: [0, 0])
    for k in kernels:
        totals = by_name[names.get((k["pid"], 0, k["name_id"]), f"(name id {k['name_id']})")]
        totals[0] += 1
        totals[1] += max(k["end"] - k["timestamp"], 0)
    print(f"kernels: {len(kernels)}, {len(by_name)} distinct; top by total time:")
    for name, (count, total) in sorted(by_name.items(), key=lambda item: -item[1][1])[:8]:
        shown = name if len(name) <= 90 else name[:87] + "..."
        print(f"  {total / 1e6:9.3f} ms {count:6d} x {total / count / 1e3:8.1f} us  {shown}")
    if unnamed:
        raise CheckFailed(f"{len(unnamed)} kernels name an id that no KERNEL_NAME record gives")

    call_by_id = {(c["pid"], c["correlation"]): c for c in calls}
    joined = [k for k in kernels if (k["pid"], k["correlation"]) in call_by_id]
    launch_cbids = collections.Counter(call_by_id[(k["pid"], k["correlation"])]["cbid"]
                                       for k in joined)
    early = sum(1 for k in joined if k["timestamp"] < call_by_id[(k["pid"], k["correlation"])]
                ["timestamp"])
    copies_joined = sum(1 for c in copies if (c["pid"], c["correlation"]) in call_by_id)
    copy_kinds = collections.Counter(COPY_KINDS.get(c["copy_kind"], str(c["copy_kind"]))
                                     for c in copies)
    with_chain = sum(1 for c in calls if c["call_chain_size"] > 0)
    print(f"kernels joined to a CUDA_API record by correlation id: {len(joined)} of "
          f"{len(kernels)} ({100.0 * len(joined) / len(kernels):.1f} %); launch cbids "
          + ", ".join(f"{cbid} x{n}" for cbid, n in launch_cbids.most_common(3)))
    print(f"  of those, {early} start before their launch call does")
    print(f"copies: {len(copies)} (" + ", ".join(f"{k} {n}" for k, n in sorted(copy_kinds.items()))
          + f"), {copies_joined} joined to a CUDA_API record")
    print(f"CUDA_API records: {len(calls)}, {with_chain} with a host call chain, mean "
          f"{sum(c['call_chain_size'] for c in calls) / len(calls):.1f} entries of two frames")
    if not joined:
        raise CheckFailed("no kernel joins a CUDA_API record by correlation id")
    if len(joined) < min_joined * len(kernels):
        raise CheckFailed(f"only {len(joined)} of {len(kernels)} kernels join a CUDA_API record "
                          f"(at least {min_joined:.0%} wanted)")
    if with_chain == 0:
        raise CheckFailed("no CUDA_API record has a host call chain")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--steps", type=int, default=40, help="training steps (40)")
    parser.add_argument("--out", help="directory for the capture (a new temporary one)")
    parser.add_argument("--min-joined", type=float, default=0.9,
                        help="fraction of kernels that must join a CUDA_API record (0.9)")
    parser.add_argument("--check", nargs="+", metavar="FILE",
                        help="check these captures only; no training")
    args = parser.parse_args()
    try:
        if args.check:
            check_capture(args.check, None, args.min_joined)
        else:
            torch = cuda_torch()
            out = args.out or tempfile.mkdtemp(prefix="zorvek_gpu_train_")
            os.makedirs(out, exist_ok=True)
            paths = train(torch, os.path.join(out, "gpu_train_%p"), args.steps)
            check_capture(paths, os.getpid(), args.min_joined)
    except CheckFailed as failure:
        print(f"gpu_train: FAILED: {failure}", file=sys.stderr)
        return FAILED
    print("gpu_train: every check passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
