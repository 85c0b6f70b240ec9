"""What sampling Python and native stacks at 1 kHz costs, beside py-spy and perf.

Two workloads, each in fresh processes:

- python: a CPU-bound pure-Python loop (dict and integer work) in one thread;
- torch: a small MLP trained on the CPU by two torch threads.

Each runs five ways, in interleaved rounds of one run (the order of the ways
rotated each round, so drift of the machine hits them all alike):

- plain: nothing samples it;
- zorvek: `zorvek.profile(sample_hz=1000)` around the loop, the per-thread timers
  of each thread's CPU time, Python and native frames in every sample;
- py-spy: `py-spy record -r 1000`, from outside the process (installed with pip
  if missing);
- py-spy --native: the same with native frames;
- perf: `perf record -F 1000 -g` (skipped, with a note, where it can't run).

`--ways` runs a subset (shorter rounds, so more of them fit), and each
`--zorvek-build NAME=DIR` adds a way "zorvek NAME" whose child imports the `_zorv`
module built in DIR ahead of the installed one: two builds of the sampler measured
side by side in one run.

Each child imports and warms up first, then waits: the peers attach to it by
its pid (`--pid`, `-p`) and zorvek starts its capture, and only then is the loop
run and timed, so interpreter startup, imports (torch's take seconds, and much
longer under a sampler that stops the process for every sample) and each
profiler's own start and stop stay out of the figures. The parent also counts the
CPU of every process of the run (the profiler's own process included), since an
out-of-process sampler spends its CPU outside the loop's process. Printed: medians,
each way's overhead in % over plain, the samples each got and per second of the
loop, and Zorvek's capture bytes per sample. Asserts nothing."""

import argparse
import glob
import json
import os
import re
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

RATE = 1000
WORKLOADS = ("python", "torch")
WAYS = ("plain", "zorvek", "py-spy", "py-spy --native", "perf")
TARGET = "zorvek at most +3 % of the loop's time, and below py-spy and perf"


# ---- The workloads, run in the child ----

def python_loop(iterations):
    """Bytecode with dict lookups and stores, in nested calls: the frames a sampler
    walks in a training script's own code."""
    def inner(table, i):
        key = i & 1023
        table[key] = table.get(key, 0) + i * 3 % 7
        return key

    def outer(n):
        table, acc = {}, 0
        for i in range(n):
            acc ^= inner(table, i)
        return acc + len(table)

    return outer(iterations)


def torch_loop(steps):
    import torch
    from torch import nn

    torch.set_num_threads(2)
    torch.manual_seed(0)
    model = nn.Sequential(nn.Linear(256, 512), nn.ReLU(), nn.Linear(512, 512), nn.ReLU(),
                          nn.Linear(512, 10))
    optimizer = torch.optim.SGD(model.parameters(), lr=0.01)
    loss_fn = nn.CrossEntropyLoss()
    generator = torch.Generator().manual_seed(1)
    batches = [(torch.randn(64, 256, generator=generator),
                torch.randint(0, 10, (64,), generator=generator)) for _ in range(16)]

    def run(n):
        for i in range(n):
            x, y = batches[i % len(batches)]
            loss = loss_fn(model(x), y)
            optimizer.zero_grad()
            loss.backward()
            optimizer.step()

    run(20)  # warm-up: allocator, thread pool
    return run


def child(workload, size, zorvek_dir):
    """One measured run: says it is ready, waits for a line on stdin, runs the
    loop and prints its wall and process CPU time as JSON."""
    if workload == "torch":
        body = torch_loop(size)
        work = lambda: body(size)  # noqa: E731
    else:
        work = lambda: python_loop(size)  # noqa: E731
    capture = None
    if zorvek_dir:
        import zorvek
        capture = zorvek.profile(zorvek_dir, sample_hz=RATE, gpu=False, quiet=True, nvtx=False)
        if not capture.start():
            print(json.dumps({"error": "zorvek: %s" % capture.error}), flush=True)
            return 1
    print(json.dumps({"ready": os.getpid()}), flush=True)
    sys.stdin.readline()
    began, began_cpu = time.perf_counter(), time.process_time()
    work()
    elapsed, cpu = time.perf_counter() - began, time.process_time() - began_cpu
    if capture is not None:
        capture.stop()
    print(json.dumps({"loop_s": elapsed, "loop_cpu_s": cpu}), flush=True)
    return 0


# ---- The peers ----

def ensure_py_spy():
    found = shutil.which("py-spy")
    if found is None:
        print("py-spy not found; installing it with pip", flush=True)
        subprocess.run([sys.executable, "-m", "pip", "install", "-q", "--disable-pip-version-check",
                        "py-spy"], check=False)
        found = shutil.which("py-spy") or next(iter(glob.glob(
            os.path.join(os.path.dirname(sys.executable), "py-spy"))), None)
    if found is None:
        print("NOTE: py-spy can't be installed here; its rows are left out.")
        return None
    with tempfile.TemporaryDirectory() as tmp:
        probe = subprocess.run([found, "record", "-r", str(RATE), "-f", "raw", "-o",
                                os.path.join(tmp, "probe.txt"), "--", sys.executable, "-c",
                                "sum(range(10**6))"], capture_output=True, text=True)
    if probe.returncode != 0:
        print("NOTE: py-spy fails here (%s); its rows are left out."
              % (probe.stderr.strip().splitlines() or ["exit %d" % probe.returncode])[-1])
        return None
    return found


def ensure_perf():
    perf = shutil.which("perf")
    if perf is None:
        print("NOTE: perf is missing (Debian's linux-perf); its rows are left out.")
        return None
    with tempfile.TemporaryDirectory() as tmp:
        probe = subprocess.run([perf, "record", "-F", str(RATE), "-g", "-o",
                                os.path.join(tmp, "probe.data"), "--", "true"],
                               capture_output=True, text=True)
    if probe.returncode != 0:
        print("NOTE: `perf record` fails here (%s); its rows are left out."
              % (probe.stderr.strip().splitlines() or ["exit %d" % probe.returncode])[-1])
        return None
    return perf


# ---- Counting samples ----

def zorvek_samples(run_dir):
    """(stack samples, capture bytes) of one run's capture files, from zvkdump."""
    files = sorted(glob.glob(os.path.join(run_dir, "*.zvkraw")))
    samples, size = 0, sum(os.path.getsize(path) for path in files)
    for path in files:
        dump = subprocess.run(["zvkdump", "--json", "--summary", "--no-progress", path],
                              capture_output=True, text=True, check=False)
        try:
            cpu = json.loads(dump.stdout).get("cpu", {})
        except json.JSONDecodeError:
            return None, size
        samples += cpu.get("events", {}).get("STACK", 0)
    return samples, size


def py_spy_samples(path):
    """Samples in py-spy's raw (collapsed) output: the sum of its counts."""
    total = 0
    try:
        with open(path) as f:
            for line in f:
                count = line.rstrip().rsplit(" ", 1)[-1]
                total += int(count) if count.isdigit() else 0
    except OSError:
        return None
    return total


def perf_samples(perf, data):
    report = subprocess.run([perf, "report", "-i", data, "--stats"], capture_output=True,
                            text=True, check=False)
    match = re.search(r"SAMPLE events:\s+(\d+)", report.stdout)
    return int(match.group(1)) if match else None


# ---- One run ----

def attach(way, pid, tools, out):
    """Starts the peer `way` on process `pid` and returns it once it samples."""
    if way.startswith("py-spy"):
        command = [tools["py-spy"], "record", "-r", str(RATE), "-f", "raw", "-o", out,
                   "--pid", str(pid)] + (["--native"] if way.endswith("--native") else [])
        peer = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True)
        # It says so once it has read the process and started sampling.
        for line in peer.stdout:
            if "Sampling process" in line:
                break
        return peer
    peer = subprocess.Popen([tools["perf"], "record", "-F", str(RATE), "-g", "-o", out, "-p",
                             str(pid)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True)
    time.sleep(1.0)  # perf says nothing when its events are open; they are by then
    return peer


def is_zorvek(way):
    return way.split()[0] == "zorvek"


def run_once(workload, way, size, tools, work_dir, serial, env, builds):
    run_dir = os.path.join(work_dir, "%s_%d" % (workload, serial))
    os.makedirs(run_dir)
    command = [sys.executable, os.path.abspath(__file__), "--child", workload, "--size", str(size)]
    if is_zorvek(way):
        command += ["--zorvek-dir", run_dir]
    if way in builds:
        env = dict(env, PYTHONPATH=os.pathsep.join(
            p for p in (builds[way], env.get("PYTHONPATH", "")) if p))
    out = os.path.join(run_dir, "samples")
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    began = time.perf_counter()
    proc = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, env=env)
    ready = json.loads(proc.stdout.readline() or "{}")
    peer = None
    if "ready" in ready and way != "plain" and not is_zorvek(way):
        peer = attach(way, ready["ready"], tools, out)
    stdout, stderr = proc.communicate(input="go\n")
    peer_error = ""
    if peer is not None:
        peer_error = peer.communicate()[0] or ""
    wall = time.perf_counter() - began
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    run_cpu = (after.ru_utime - usage.ru_utime) + (after.ru_stime - usage.ru_stime)
    lines = [line for line in stdout.splitlines() if line.startswith("{")]
    result = json.loads(lines[-1]) if lines else ready
    if proc.returncode != 0 or "loop_s" not in result:
        raise RuntimeError("%s %s failed (exit %d): %s %s" % (
            workload, way, proc.returncode, result.get("error", ""), stderr.strip()[-800:]))
    samples = size_bytes = None
    if is_zorvek(way):
        samples, size_bytes = zorvek_samples(run_dir)
    elif way.startswith("py-spy"):
        samples = py_spy_samples(out)
    elif way == "perf":
        samples = perf_samples(tools["perf"], out)
    if peer is not None and samples is None:
        raise RuntimeError("%s %s: no samples (%s)" % (workload, way, peer_error.strip()[-500:]))
    shutil.rmtree(run_dir, ignore_errors=True)
    return {"loop": result["loop_s"], "loop_cpu": result["loop_cpu_s"], "wall": wall,
            "run_cpu": run_cpu, "samples": samples, "bytes": size_bytes}


def overhead(value, base):
    return (value / base - 1.0) * 100.0


def report(workload, ways, runs, rounds):
    def median(way, key):
        values = [r[key] for r in runs[way] if r[key] is not None]
        return statistics.median(values) if values else None

    keys = (("loop", "loop"), ("loop_cpu", "loop CPU"), ("wall", "process"),
            ("run_cpu", "run CPU"))
    print()
    print("%s: medians of %d runs each (seconds; samples also per second of the loop's "
          "wall time and of its CPU time)" % (workload, rounds))
    print("%-16s" % "way" + "".join("%10s" % name for _, name in keys)
          + "%10s%10s%10s" % ("samples", "/s", "/CPU s"))
    for way in ways:
        got = median(way, "samples")
        rates = ("%10s%10s" % ("-", "-") if got is None else "%10.0f%10.0f" % (
            got / median(way, "loop"), got / median(way, "loop_cpu")))
        print("%-16s" % way + "".join("%10.3f" % median(way, k) for k, _ in keys)
              + "%10s" % ("-" if got is None else "%d" % got) + rates)
    print("%s: overhead over plain (%%)" % workload)
    for way in ways[1:]:
        print("%-16s" % way + "".join("%+10.2f" % overhead(median(way, k), median("plain", k))
                                      for k, _ in keys))
    for key, name in (("loop", "loop"), ("loop_cpu", "loop CPU")):
        spread = overhead(max(r[key] for r in runs["plain"]), min(r[key] for r in runs["plain"]))
        print("plain %s spread (max / min): %.1f %%; smaller overheads are within noise"
              % (name, spread))
    for way in ways:
        if not is_zorvek(way):
            continue
        samples, size = median(way, "samples"), median(way, "bytes")
        if samples:
            print("%s capture: %.1f bytes per sample (%d samples, %d bytes, medians)"
                  % (way, size / samples, samples, size))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--child", choices=WORKLOADS, help=argparse.SUPPRESS)
    parser.add_argument("--size", type=int, help=argparse.SUPPRESS)
    parser.add_argument("--zorvek-dir", help=argparse.SUPPRESS)
    parser.add_argument("--rounds", type=int, default=5, help="rounds each way (default 5)")
    parser.add_argument("--iterations", type=int, default=6_000_000,
                        help="pure-Python loop iterations (default: about 1.5 s)")
    parser.add_argument("--steps", type=int, default=800,
                        help="torch training steps (default: about 1.5 s)")
    parser.add_argument("--workloads", default=",".join(WORKLOADS))
    parser.add_argument("--ways", default=",".join(WAYS),
                        help="the ways to run, of %s; plain always runs" % ", ".join(WAYS))
    parser.add_argument("--zorvek-build", action="append", default=[], metavar="NAME=DIR",
                        help="also run zorvek with the _zorv module built in DIR (repeatable)")
    args = parser.parse_args()
    if args.child:
        return child(args.child, args.size, args.zorvek_dir)

    builds = {}
    for build in args.zorvek_build:
        name, _, folder = build.partition("=")
        if not name or not glob.glob(os.path.join(folder, "_zorv*.so")):
            parser.error("--zorvek-build %s: no _zorv module in %r" % (build, folder))
        builds["zorvek " + name] = os.path.abspath(folder)
    asked = set(w.strip() for w in args.ways.split(","))
    unknown = asked - set(WAYS)
    if unknown:
        parser.error("unknown ways: %s" % ", ".join(sorted(unknown)))
    tools = {"py-spy": ensure_py_spy() if asked & {"py-spy", "py-spy --native"} else None,
             "perf": ensure_perf() if "perf" in asked else None}
    ways = [w for w in WAYS if (w == "plain" or w in asked) and tools.get(w.split()[0], True)]
    ways += list(builds)
    workloads = [w for w in args.workloads.split(",") if w]
    if "torch" in workloads and subprocess.run([sys.executable, "-c", "import torch"],
                                               capture_output=True).returncode != 0:
        print("NOTE: torch is not installed; the torch workload is left out (make torch).")
        workloads.remove("torch")
    sizes = {"python": args.iterations, "torch": args.steps}
    env = dict(os.environ)
    env.setdefault("ZORV_MIN_LOG_LEVEL", "1")
    work_dir = tempfile.mkdtemp(prefix="zvk_bench_python_sampling_")
    print("bench_python_sampling: %d Hz; %s; %d rounds of %s (+1 warm-up round)"
          % (RATE, ", ".join(workloads), args.rounds, ", ".join(ways)), flush=True)
    runs = {w: {way: [] for way in ways} for w in workloads}
    try:
        serial = 0
        for rnd in range(args.rounds + 1):
            for workload in workloads:
                order = ways[rnd % len(ways):] + ways[:rnd % len(ways)]
                line = []
                for way in order:
                    serial += 1
                    try:
                        run = run_once(workload, way, sizes[workload], tools, work_dir, serial,
                                       env, builds)
                    except RuntimeError as exc:
                        print("ERROR: %s" % exc)
                        return 1
                    line.append("%s %.3f s" % (way, run["loop"]))
                    if rnd > 0:
                        runs[workload][way].append(run)
                print("  round %d%s, %s: %s" % (rnd, " (warm-up)" if rnd == 0 else "", workload,
                                                ", ".join(line)), flush=True)
    finally:
        shutil.rmtree(work_dir, ignore_errors=True)
    for workload in workloads:
        report(workload, ways, runs[workload], args.rounds)
    print()
    print("target: %s" % TARGET)
    return 0


if __name__ == "__main__":
    sys.exit(main())
