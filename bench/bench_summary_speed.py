"""`zorvek summary` on a capture of about 1 GB, beside Python's zlib doing nothing
but inflate every bucket of the same file, in one run. Prints the seconds of
each, their ratio (target: summary at most 2 times the inflating), the rates, and
how much anonymous memory the summary took (it streams: that stays flat however
large the file).

The capture is written here, fast: one realistic bucket, made of the records a
training process writes (annotation ranges from four threads, CPU samples with
32-address call chains, GPU kernels, copies, memsets and traced API calls), is
compressed once with zlib level 1, as the profiler's default does, and written
again and again behind a capture file header. It lives in a temporary folder
that is removed afterwards. ZVK_BENCH_SUMMARY_MB sets the size (default 1024)."""

import os
import random
import resource
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import zlib

from zorvek import _reader

TARGET_MB = int(os.environ.get("ZVK_BENCH_SUMMARY_MB", "1024"))
BUCKET_BYTES = 8 << 20  # records per bucket, inflated, as with 8 MiB buffers
ROUNDS = 2  # each measurement this many times, interleaved; the best is kept

PID = 4242
THREADS = [4242, 4250, 4251, 4252]
ANNOTATION, CPU, GPU = 5, 0, 1
BEGIN, END, TIME_MARKER = 0, 1, 2
SAMPLE, MMAP = 1, 6
KERNEL_NAME, CONCURRENT_KERNEL, MEMCOPY, MEMSET, CUDA_API = 0, 2, 4, 6, 9
RANGES = ["step", "forward", "backward", "optimizer", "data_load"]


def record(timestamp, hw, event, tid, payload, chain=(), device=0):
    """One record: the 24-byte header, the call chain's slots, two to an entry
    (an odd chain is padded with a zero), then the payload."""
    slots = list(chain) + [0] * (len(chain) % 2)
    word = (hw << 28) | ((device & 0xFF) << 20) | (event & 0xFFFFF)
    return (struct.pack("<QIIIHH", timestamp, word, PID, tid, len(slots) // 2, len(payload))
            + struct.pack(f"<{len(slots)}Q", *slots) + payload)


def padded_text(text):
    """A name with its terminator, padded to a multiple of 8."""
    data = text.encode() + b"\0"
    return data + b"\0" * (-len(data) % 8)


def make_bucket(rng):
    """(inflated records, record count, tmin, tmax) of about BUCKET_BYTES."""
    records = []
    size = 0
    t0 = 1_700_000_000_000_000_000
    gpu_t0 = 5_000_000_000

    def add(data):
        nonlocal size
        records.append(data)
        size += len(data)

    # What a process writes once: the time marker, its mappings, kernel names.
    add(record(t0, ANNOTATION, TIME_MARKER, PID, struct.pack("<32Q", *range(32))))
    libraries = ["/usr/bin/python3.11", "/usr/lib/libpython3.11.so.1.0",
                 "/opt/torch/lib/libtorch_cpu.so", "/opt/torch/lib/libtorch_cuda.so",
                 "/usr/lib/x86_64-linux-gnu/libc.so.6"]
    bases = [0x400000, 0x7F0000000000, 0x7F1000000000, 0x7F2000000000, 0x7F3000000000]
    for base, name in zip(bases, libraries):
        add(record(t0, CPU, MMAP, PID, struct.pack("<6Q", 0, 0, base, 0x4000000, 0, len(name))
                   + padded_text(name)))
    kernels = [f"void at::native::elementwise_kernel<128, 4, lambda_{i}>(int, lambda_{i})"
               for i in range(48)]
    for i, name in enumerate(kernels):
        add(record(gpu_t0, GPU, KERNEL_NAME, 0, struct.pack("<II", i, len(name))
                   + padded_text(name)))

    # Frames: a few thousand distinct addresses, stacks from a few hundred paths.
    frames = [rng.choice(bases) + rng.randrange(0, 0x4000000) for _ in range(3000)]
    paths = [[rng.choice(frames) for _ in range(31)] for _ in range(300)]
    token = 0
    t, gpu_t = t0, gpu_t0
    while size < BUCKET_BYTES:
        # One training step: nested ranges on the main thread, a data_load
        # range on a loader thread, and what happens meanwhile.
        open_ranges = []
        for name in RANGES[:4]:
            add(record(t, ANNOTATION, BEGIN, THREADS[0], struct.pack("<Q", token) + padded_text(name)))
            open_ranges.append(token)
            token += 1
            t += rng.randrange(1000, 5000)
        loader = token
        add(record(t, ANNOTATION, BEGIN, THREADS[1], struct.pack("<Q", loader) + padded_text("data_load")))
        token += 1
        for _ in range(40):  # 40 ms of the step
            for tid in THREADS:  # each thread sampled every millisecond
                path = rng.choice(paths)
                ip = rng.choice(frames) if rng.random() < 0.5 else path[0]
                chain = [0xFFFFFFFFFFFFFE00, ip] + path[1:31]
                add(record(t, CPU, SAMPLE, tid, struct.pack("<3Q", ip, 7203, 7205), chain,
                           device=rng.randrange(16)))
            for _ in range(4):  # GPU work launched in that millisecond
                name_id = rng.randrange(len(kernels))
                duration = rng.randrange(2_000, 200_000)
                correlation = rng.randrange(1 << 31)
                add(record(gpu_t, GPU, CONCURRENT_KERNEL, 0, struct.pack(
                    "<QQ6iqIHBBIIII", gpu_t + duration, gpu_t + duration, 128, 1, 1, 256, 1, 1,
                    1, name_id, 32, 0, 0, 0, 0, correlation, 7)))
                add(record(t, GPU, CUDA_API, THREADS[0], struct.pack(
                    "<QIIII", t + 3000, 1, 307, correlation, 1), rng.choice(paths)[:20]))
                gpu_t += duration
            if rng.random() < 0.2:
                add(record(gpu_t, GPU, MEMCOPY | (1 << 12), 0, struct.pack(
                    "<QQBBBB4xIIII", gpu_t + 50_000, 1 << 20, 1, 2, 3, 0, 9, 7, 0, 1)))
            if rng.random() < 0.05:
                add(record(gpu_t, GPU, MEMSET | (2 << 12), 0, struct.pack(
                    "<QQIIIHH", gpu_t + 8_000, 1 << 16, 0, 10, 7, 0, 3)))
            t += 1_000_000
        for opened in reversed(open_ranges):
            add(record(t, ANNOTATION, END, THREADS[0], struct.pack("<Q", opened)))
            t += rng.randrange(1000, 5000)
        add(record(t, ANNOTATION, END, THREADS[1], struct.pack("<Q", loader)))
    stamps = [struct.unpack_from("<Q", r)[0] for r in records]
    return b"".join(records), len(records), min(stamps), max(stamps)


def file_header(payload_strings):
    cpu_model, job, host, instance = (s.encode() for s in payload_strings)
    fixed = struct.pack("<8sIIQQQQIIIIIIHHHHH", b"ZVKRAWDF", 3, 1000001, 1,
                        1_700_000_000_000_000_000, 1_700_000_100_000_000_000, 0, PID, 0, 0, 0, 0,
                        0, len(cpu_model), len(job), len(host), len(instance), 0)
    return fixed + cpu_model + job + host + instance + b"\0" * 6


def write_capture(path):
    """Returns (file size, buckets, records, inflated bytes)."""
    rng = random.Random(20240611)
    records, count, tmin, tmax = make_bucket(rng)
    stream = zlib.compress(records, 1)
    bucket = struct.pack("<QQQII", tmin, tmax, count, len(stream), len(records)) + stream
    copies = max(1, (TARGET_MB << 20) // len(bucket))
    with open(path, "wb") as f:
        f.write(file_header(["Bench CPU", "bench-job", "bench-host", "bench"]))
        for _ in range(copies):
            f.write(bucket)
    return os.path.getsize(path), copies, copies * count, copies * len(records)


def inflate_only(path):
    """Python's zlib inflating every bucket, and nothing else."""
    inflated = 0
    with open(path, "rb") as f:
        fixed = f.read(88)
        f.seek(88 + sum(struct.unpack_from("<HHHHH", fixed, 72)))
        while True:
            head = f.read(32)
            if len(head) < 32:
                break
            compressed, size = struct.unpack_from("<II", head, 24)
            # Told the size, zlib inflates into one buffer of it, as the reader does.
            inflated += len(zlib.decompress(f.read(compressed), bufsize=size))
    return inflated


def rss_anon_kb():
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("RssAnon:"):
                return int(line.split()[1])
    return 0


def timed(function, *args):
    began = time.perf_counter()
    result = function(*args)
    return time.perf_counter() - began, result


def summary_command(path):
    """The whole command, from a fresh interpreter, its tables to /dev/null."""
    subprocess.run([sys.executable, "-m", "zorvek", "summary", "--no-progress", path],
                   stdout=subprocess.DEVNULL, check=True)


def main():
    folder = tempfile.mkdtemp(prefix="zvk_bench_summary_")
    try:
        path = os.path.join(folder, "bench.zvkraw")
        seconds, (size, buckets, records, inflated) = timed(write_capture, path)
        print(f"bench_summary_speed: capture of {size / 1e6:.0f} MB written in {seconds:.1f} s: "
              f"{buckets} buckets, {records / 1e6:.1f} M records, {inflated / 1e9:.2f} GB inflated "
              f"(level 1, {inflated / size:.1f}:1)")
        best = {"zlib": float("inf"), "summarize": float("inf"), "command": float("inf")}
        anon_before = rss_anon_kb()
        anon_peak = 0
        for _ in range(ROUNDS):
            seconds, got = timed(inflate_only, path)
            assert got == inflated
            best["zlib"] = min(best["zlib"], seconds)
            seconds, result = timed(_reader.summarize, [path])
            anon_peak = max(anon_peak, rss_anon_kb())
            (process,) = result["processes"]
            assert process["records"] == records, process["records"]
            best["summarize"] = min(best["summarize"], seconds)
            seconds, _ = timed(summary_command, path)
            best["command"] = min(best["command"], seconds)
        zlib_s = best["zlib"]
        print(f"  zlib.decompress of every bucket:  {zlib_s:7.2f} s  "
              f"{size / zlib_s / 1e6:7.0f} MB/s of file, {inflated / zlib_s / 1e6:7.0f} MB/s inflated")
        for name, label in (("summarize", "_reader.summarize (C++):"),
                            ("command", "zorvek summary (whole command):")):
            s = best[name]
            print(f"  {label:33} {s:7.2f} s  {size / s / 1e6:7.0f} MB/s of file, "
                  f"{records / s / 1e6:6.1f} M records/s, ratio to zlib {s / zlib_s:.2f} "
                  f"(target at most 2)")
        print(f"  anonymous memory after summarize: {anon_peak / 1024:.0f} MiB "
              f"({(anon_peak - anon_before) / 1024:+.0f} MiB over before, for a "
              f"{size / 2**20:.0f} MiB file; the file itself is mapped, page cache)")
        print(f"  peak resident set of this process: "
              f"{resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024:.0f} MiB")
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
