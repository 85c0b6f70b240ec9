"""annotation_begin + annotation_end from Python, beside the same two calls to a
no-op pybind11 module, in one run. Prints ns a pair and the ratio."""

import os
import sys
import tempfile
import threading
import timeit

import _zorv
import _zorv_bench_noop as noop

N = 200_000


def best_of(stmt, repeat=5):
    return min(timeit.repeat(stmt, number=N, repeat=repeat)) / N * 1e9


def main():
    threading.Thread(target=lambda: None).start()
    out = tempfile.mkdtemp()
    config = _zorv.Config()
    config.profiler = {"BucketCount": "8", "BucketSizeMB": "16",
                       "RecordFile": os.path.join(out, "bench_%p")}
    prof = _zorv.Zorvek.instance()
    prof.configure(config)
    prof.start_profiling()
    begin, end = _zorv.annotation_begin, _zorv.annotation_end
    nb, ne = noop.noop_str, noop.noop_int
    zorv_ns = best_of(lambda: end(begin("forward")))
    noop_ns = best_of(lambda: ne(nb("forward")))
    prof.stop_profiling()
    print(f"python annotation_begin+annotation_end: {zorv_ns:.1f} ns a pair")
    print(f"python no-op pybind11 pair:             {noop_ns:.1f} ns a pair")
    print(f"ratio: {zorv_ns / noop_ns:.2f}x; profiler's own share {zorv_ns - noop_ns:.1f} ns")
    for name in os.listdir(out):
        os.remove(os.path.join(out, name))
    os.rmdir(out)
    sys.stdout.flush()


if __name__ == "__main__":
    main()
