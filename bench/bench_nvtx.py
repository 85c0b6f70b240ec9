"""NVTX ranges of the `nvtx` package through the injection library into a running
capture, beside the same calls with no tool attached and beside a direct
_zorv.annotation_begin plus annotation_end, in one run. Prints ns a pair and the
ratios; asserts nothing.

NVTX reads NVTX_INJECTION64_PATH once, at its first call, so each side runs in a
fresh interpreter of its own: one without the variable, one with it and the
library loaded before the capture starts (as zorvek.profile does). Both run a
capture and time the direct pair too. Each side runs seven captures, and times
its calls again after each stop: on the injected side that is the library's idle
table, which parts the nvtx package's own Python work with a tool attached from
the recording. The two sides take turns, three rounds each, and the best of each
figure is kept.

The library: ZORV_NVTX_LIBRARY, else the one installed with the zorvek package.
"""

import importlib.util
import json
import os
import subprocess
import sys
import tempfile

ROUNDS = 3

CHILD = r'''
import ctypes, json, os, sys, tempfile, threading, timeit
injected = sys.argv[1] == "injected"
os.environ.pop("NVTX_INJECTION64_PATH", None)
if injected:
    os.environ["NVTX_INJECTION64_PATH"] = sys.argv[2]
    ctypes.CDLL(sys.argv[2], mode=os.RTLD_LOCAL)
import _zorv
import nvtx

N = 50_000
CAPTURES = 7

threading.Thread(target=lambda: None).start()
out = tempfile.mkdtemp()
config = _zorv.Config()
config.profiler = {"BucketCount": "8", "BucketSizeMB": "16",
                   "RecordFile": os.path.join(out, "bench_%p")}
prof = _zorv.Zorvek.instance()
prof.configure(config)
push, pop = nvtx.push_range, nvtx.pop_range
domain = nvtx.get_domain("bench")
attributes = domain.get_event_attributes(message="forward")
dpush, dpop = domain.push_range, domain.pop_range
begin, end = _zorv.annotation_begin, _zorv.annotation_end
annotate = nvtx.annotate("forward")

def with_annotate():
    with annotate:
        pass

forms = {
    "push_pop": lambda: (push("forward"), pop()),
    "domain": lambda: (dpush(attributes), dpop()),
    "annotate": with_annotate,
}
figures = {}

def keep(key, stmt):
    ns = timeit.timeit(stmt, number=N) / N * 1e9
    figures[key] = min(ns, figures.get(key, ns))

# Captures alternate with stopped stretches (the library's idle table), so that
# both meet the same drift of a busy machine.
for _ in range(CAPTURES):
    prof.start_profiling()
    for key, stmt in forms.items():
        keep(key, stmt)
    keep("direct", lambda: end(begin("forward")))
    prof.stop_profiling()
    for key, stmt in forms.items():
        keep(key + "_idle", stmt)
for name in os.listdir(out):
    os.remove(os.path.join(out, name))
os.rmdir(out)
print(json.dumps(figures))
'''


def library():
    path = os.environ.get("ZORV_NVTX_LIBRARY")
    if path is None:
        package = importlib.util.find_spec("zorvek")
        if package is None:
            sys.exit("bench_nvtx.py: set ZORV_NVTX_LIBRARY or install the zorvek package")
        path = os.path.join(package.submodule_search_locations[0], "libzorv_nvtx.so")
    return os.path.abspath(path)


def run(side, path):
    env = {k: v for k, v in os.environ.items() if not k.startswith(("ZVK_", "ZORV_"))}
    env["ZORV_MIN_LOG_LEVEL"] = "2"
    out = subprocess.run([sys.executable, "-c", CHILD, side, path], env=env,
                         capture_output=True, text=True)
    if out.returncode != 0:
        sys.exit(f"bench_nvtx.py: the {side} side failed:\n{out.stderr[-3000:]}")
    return json.loads(out.stdout.strip().splitlines()[-1])


def main():
    path = library()
    best = {"plain": {}, "injected": {}}
    for _ in range(ROUNDS):
        for side in ("plain", "injected"):
            for name, value in run(side, path).items():
                best[side][name] = min(value, best[side].get(name, value))
    plain, injected = best["plain"], best["injected"]
    direct = min(plain["direct"], injected["direct"])
    rows = [("nvtx.push_range + pop_range", "push_pop"),
            ("Domain.push_range(attributes) + pop_range", "domain"),
            ("with nvtx.annotate(...)", "annotate")]
    print(f"_zorv.annotation_begin + annotation_end, capturing: {direct:.1f} ns a pair")
    print(f"{'ns a pair':44s} {'capturing':>10s} {'stopped':>10s} {'no tool':>10s}")
    for label, key in rows:
        print(f"{label:44s} {injected[key]:10.1f} {injected[key + '_idle']:10.1f} "
              f"{plain[key]:10.1f}")
    for label, key in rows:
        recording = injected[key] - injected[key + "_idle"]
        print(f"{label}: {injected[key] / direct:.2f}x the direct pair (target at most 1.5); "
              f"recording itself {recording:.1f} ns = {recording / direct:.2f}x the direct pair, "
              f"the nvtx package's own work with a tool attached {injected[key + '_idle']:.1f} ns "
              f"(without one {plain[key]:.1f} ns)")
    sys.stdout.flush()


if __name__ == "__main__":
    main()
