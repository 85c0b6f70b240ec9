"""zorvek export beside zlib's bare inflate of the same buckets, in one run: the
captures' buckets inflated and nothing more, then the whole export (reading,
clock placement, naming stacks, Parquet files) on one process and on two.
Prints seconds and the ratios; asserts nothing.

The captures: a folder given with --captures, else made here by running
--ranks programs side by side under `zorvek record`, each opening annotation
ranges in a loop with CPU sampling on, until its file holds about --mb MB of
records (uncompressed).

    python3 bench/bench_export.py --mb 200
    python3 bench/bench_export.py --captures runs/job42/
"""

import argparse
import os
import struct
import subprocess
import sys
import tempfile
import textwrap
import time
import zlib

_HEADER = struct.Struct("<8sIIQQQQIIIIIIHHHHH")
_BUCKET = struct.Struct("<QQQII")
# One range is a BEGIN and an END record, about 100 bytes together.
_RANGE_BYTES = 100

JOB = textwrap.dedent('''
    import sys, zorvek
    ranges = int(sys.argv[1])
    for i in range(ranges // 4):
        with zorvek.annotate("step"):
            with zorvek.annotate("forward"):
                pass
            with zorvek.annotate("backward"):
                pass
            with zorvek.annotate("optimizer"):
                pass
''')


def make_captures(folder: str, ranks: int, mb: int) -> str:
    script = os.path.join(folder, "job.py")
    with open(script, "w") as f:
        f.write(JOB)
    caps = os.path.join(folder, "caps")
    ranges = mb * 1_000_000 // _RANGE_BYTES
    processes = [subprocess.Popen(
        [sys.executable, "-m", "zorvek", "record", "-q", "--buffer-mb", "64", "-o", caps, "--",
         "python", script, str(ranges)],
        env=dict(os.environ, RANK=str(r), WORLD_SIZE=str(ranks))) for r in range(ranks)]
    for process in processes:
        process.wait()
    return caps


def inflate_all(paths):
    """Seconds to inflate every bucket, compressed and uncompressed bytes."""
    compressed = uncompressed = 0
    began = time.perf_counter()
    for path in paths:
        with open(path, "rb") as f:
            data = f.read()
        fields = _HEADER.unpack_from(data, 0)
        offset = 88 + sum(fields[-5:])
        while offset + _BUCKET.size <= len(data):
            _, _, _, size, raw_size = _BUCKET.unpack_from(data, offset)
            stream = data[offset + 32:offset + 32 + size]
            if len(stream) < size:
                break
            uncompressed += len(zlib.decompress(stream))
            compressed += size
            offset += 32 + size
    return time.perf_counter() - began, compressed, uncompressed


def export(paths, jobs: int, out: str):
    """Seconds for the whole export, and for its steps: reading the files into
    parts, combining them into tables, writing the Parquet files."""
    from zorvek import _tables
    from zorvek.export import write_parquet

    began = time.perf_counter()
    parts = _tables.run_parts(paths, jobs=jobs)
    read = time.perf_counter()
    combined = _tables.combine(parts)
    combine = time.perf_counter()
    write_parquet(combined.tables, out)
    ended = time.perf_counter()
    return ended - began, (read - began, combine - read, ended - combine)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--captures", help="a folder of captures to use")
    parser.add_argument("--ranks", type=int, default=4)
    parser.add_argument("--mb", type=int, default=100, help="uncompressed MB per rank to make")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        caps = args.captures or make_captures(folder, args.ranks, args.mb)
        paths = sorted(os.path.join(caps, n) for n in os.listdir(caps) if n.endswith(".zvkraw"))
        inflate_s, compressed, uncompressed = inflate_all(paths)
        one = export(paths, 1, os.path.join(folder, "one"))
        two = export(paths, 2, os.path.join(folder, "two"))
    print("captures: %d files, %.1f MB compressed, %.1f MB of records" % (
        len(paths), compressed / 1e6, uncompressed / 1e6))
    print("zlib inflate alone:    %7.2f s" % inflate_s)
    for label, (seconds, steps) in (("1 process:  ", one), ("2 processes:", two)):
        print("export, %s   %7.2f s  (%.1fx inflate; read %.2f s, combine %.2f s, write %.2f s)"
              % ((label, seconds, seconds / inflate_s) + steps))
    return 0


if __name__ == "__main__":
    sys.exit(main())
