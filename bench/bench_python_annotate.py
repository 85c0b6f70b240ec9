"""annotation_begin + annotation_end from Python, beside the same two calls to a
no-op pybind11 module, and the zorvek package's annotate() as a context manager and
as a decorator beside the bare pair, in one run. Prints ns a range and the ratios
(the package's target: at most 1.3 times the bare pair)."""

import os
import sys
import tempfile
import threading
import time
import timeit

import _zorv
import _zorv_bench_noop as noop
import zorvek

N = 20_000   # ranges a sample
ROUNDS = 30  # samples of each kind, interleaved; the best of each is kept


def main():
    threading.Thread(target=lambda: None).start()
    out = tempfile.mkdtemp()
    config = _zorv.Config()
    config.profiler = {"BucketCount": "16", "BucketSizeMB": "16",
                       "RecordFile": os.path.join(out, "bench_%p")}
    prof = _zorv.Zorvek.instance()
    prof.configure(config)
    prof.start_profiling()
    begin, end = _zorv.annotation_begin, _zorv.annotation_end
    nb, ne = noop.noop_str, noop.noop_int
    annotate = zorvek.annotate

    # Each kind is a function of the same shape, so that the call around it
    # weighs the same in all.
    def noop_pair():
        ne(nb("forward"))

    def bare_pair():
        end(begin("forward"))

    def context_manager():
        with annotate("forward"):
            pass

    def body():
        pass

    def bare_pair_around_call():
        token = begin("forward")
        try:
            body()
        finally:
            end(token)

    decorated = annotate("forward")(body)

    kinds = {"noop": noop_pair, "bare": bare_pair, "with": context_manager,
             "bare_call": bare_pair_around_call, "decorated": decorated}
    best = dict.fromkeys(kinds, float("inf"))
    for _ in range(ROUNDS):
        for name, function in kinds.items():
            best[name] = min(best[name], timeit.timeit(function, number=N) / N * 1e9)
            # The writer catches up, so that no sample waits for a free buffer.
            time.sleep(0.005)
    prof.stop_profiling()

    zorv_ns, noop_ns = best["bare"], best["noop"]
    print(f"python annotation_begin+annotation_end: {zorv_ns:.1f} ns a pair")
    print(f"python no-op pybind11 pair:             {noop_ns:.1f} ns a pair")
    print(f"ratio: {zorv_ns / noop_ns:.2f}x; profiler's own share {zorv_ns - noop_ns:.1f} ns")
    print(f"with zorvek.annotate(...):              {best['with']:.1f} ns a range, "
          f"{best['with'] / zorv_ns:.2f}x the bare pair (target at most 1.3)")
    print(f"@zorvek.annotate(...) on a function:    {best['decorated']:.1f} ns a call, "
          f"{best['decorated'] / best['bare_call']:.2f}x the bare pair around the same call "
          f"({best['bare_call']:.1f} ns; target at most 1.3)")
    for name in os.listdir(out):
        os.remove(os.path.join(out, name))
    os.rmdir(out)
    sys.stdout.flush()


if __name__ == "__main__":
    main()
