"""What leaving the profiler on costs a training job: a small MLP trained on the CPU
(two torch threads) with no capture, and with a capture running and each step
annotated (step, forward, backward, optimizer), in interleaved rounds of one
process; then the writer thread's cost while a capture runs with nothing to write.
Prints the figures beside their targets and asserts nothing.

The profiler is configured once per process, so the rounds alternate
start_profiling / stop_profiling on one configuration; the starts and stops stand
outside the timed steps."""

import argparse
import os
import shutil
import statistics
import tempfile
import time

import torch
from torch import nn

import _zorv

TARGET_SLOWDOWN_PERCENT = 1.0
TARGET_IDLE_CORE_PERCENT = 0.1


class annotate:
    def __init__(self, name):
        self.name = name

    def __enter__(self):
        self.token = _zorv.annotation_begin(self.name)

    def __exit__(self, *exc):
        _zorv.annotation_end(self.token)


def make_model():
    torch.manual_seed(0)
    model = nn.Sequential(nn.Linear(256, 512), nn.ReLU(), nn.Linear(512, 512), nn.ReLU(),
                          nn.Linear(512, 10))
    return model, torch.optim.SGD(model.parameters(), lr=0.01), nn.CrossEntropyLoss()


def plain_steps(model, optimizer, loss_fn, batches):
    """Wall time and the process's CPU time (all its threads) of each step."""
    times, cpu = [], []
    for x, y in batches:
        began, began_cpu = time.perf_counter(), time.process_time()
        loss = loss_fn(model(x), y)
        optimizer.zero_grad()
        loss.backward()
        optimizer.step()
        times.append(time.perf_counter() - began)
        cpu.append(time.process_time() - began_cpu)
    return times, cpu


def annotated_steps(model, optimizer, loss_fn, batches):
    times, cpu = [], []
    for x, y in batches:
        began, began_cpu = time.perf_counter(), time.process_time()
        with annotate("step"):
            with annotate("forward"):
                loss = loss_fn(model(x), y)
            with annotate("backward"):
                optimizer.zero_grad()
                loss.backward()
            with annotate("optimizer"):
                optimizer.step()
        times.append(time.perf_counter() - began)
        cpu.append(time.process_time() - began_cpu)
    return times, cpu


def tasks():
    return set(os.listdir("/proc/self/task"))


def thread_cpu(tid):
    """(utime + stime in seconds, on-CPU nanoseconds from schedstat or None,
    voluntary context switches) of one thread of this process."""
    with open(f"/proc/self/task/{tid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = int(fields[11]) + int(fields[12])  # utime, stime: fields 14 and 15
    seconds = ticks / os.sysconf("SC_CLK_TCK")
    try:
        with open(f"/proc/self/task/{tid}/schedstat") as f:
            on_cpu_ns = int(f.read().split()[0])
    except OSError:
        on_cpu_ns = None
    switches = 0
    with open(f"/proc/self/task/{tid}/status") as f:
        for line in f:
            if line.startswith("voluntary_ctxt_switches:"):
                switches = int(line.split()[1])
    return seconds, on_cpu_ns, switches


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rounds", type=int, default=10, help="rounds each way (default 10)")
    parser.add_argument("--steps", type=int, default=100, help="steps a round (default 100)")
    parser.add_argument("--batch", type=int, default=64)
    parser.add_argument("--idle-seconds", type=float, default=5.0)
    args = parser.parse_args()

    torch.set_num_threads(2)
    out = tempfile.mkdtemp(prefix="zorvek_bench_")
    config = _zorv.Config()
    config.profiler = {"BucketCount": "8", "BucketSizeMB": "16",
                       "RecordFile": os.path.join(out, "train_%p")}
    profiler = _zorv.Zorvek.instance()
    status = repr(profiler.configure(config))
    if status != "OK":
        raise SystemExit(f"configure: {status}")

    model, optimizer, loss_fn = make_model()
    generator = torch.Generator().manual_seed(1)
    batches = [(torch.randn(args.batch, 256, generator=generator),
                torch.randint(0, 10, (args.batch,), generator=generator))
               for _ in range(args.steps)]
    plain_steps(model, optimizer, loss_fn, batches[:30])  # warm-up: allocator, thread pool

    off, on, off_cpu, on_cpu, round_medians = [], [], [], [], {"off": [], "on": []}
    for _ in range(args.rounds):
        times, cpu = plain_steps(model, optimizer, loss_fn, batches)
        off += times
        off_cpu += cpu
        round_medians["off"].append(statistics.median(times))
        profiler.start_profiling()
        times, cpu = annotated_steps(model, optimizer, loss_fn, batches)
        profiler.stop_profiling()
        on += times
        on_cpu += cpu
        round_medians["on"].append(statistics.median(times))

    # The profiler's own part of an annotated step, apart from the model: the four
    # ranges alone, capture on, best of five. A floor for the slowdown that doesn't
    # drown in the machine's noise as the step times can.
    profiler.start_profiling()
    ranges = []
    for _ in range(5):
        began = time.perf_counter()
        for _ in range(2000):
            with annotate("step"):
                with annotate("forward"):
                    pass
                with annotate("backward"):
                    pass
                with annotate("optimizer"):
                    pass
        ranges.append((time.perf_counter() - began) / 2000)
    profiler.stop_profiling()
    ranges_us = min(ranges) * 1e6

    # The writer with nothing to write: started by start_profiling, idle from then on.
    before = tasks()
    profiler.start_profiling()
    started = sorted(tasks() - before)
    writer = started[0] if len(started) == 1 else None
    if writer is not None:
        cpu0, ns0, sw0 = thread_cpu(writer)
        wall0 = time.monotonic()
        time.sleep(args.idle_seconds)
        cpu1, ns1, sw1 = thread_cpu(writer)
        wall = time.monotonic() - wall0
    profiler.stop_profiling()
    names = os.listdir(out)
    captured = sum(os.path.getsize(os.path.join(out, n)) for n in names)
    shutil.rmtree(out, ignore_errors=True)

    off_ms, on_ms = statistics.median(off) * 1e3, statistics.median(on) * 1e3
    slowdown = (on_ms / off_ms - 1) * 100
    round_off = statistics.median(round_medians["off"]) * 1e3
    round_on = statistics.median(round_medians["on"]) * 1e3
    print(f"training loop: MLP 256-512-512-10, batch {args.batch}, torch threads "
          f"{torch.get_num_threads()}, {args.rounds} rounds x {args.steps} steps each way, "
          f"interleaved")
    print(f"median step, no capture:               {off_ms:8.3f} ms")
    print(f"median step, capture on, 8 records:    {on_ms:8.3f} ms")
    print(f"slowdown:                              {slowdown:+8.2f} %   "
          f"(target at most {TARGET_SLOWDOWN_PERCENT:.0f} %)")
    cpu_off, cpu_on = statistics.median(off_cpu) * 1e3, statistics.median(on_cpu) * 1e3
    print(f"median CPU a step (all threads), off / on: {cpu_off:.3f} / {cpu_on:.3f} ms "
          f"({(cpu_on / cpu_off - 1) * 100:+.2f} %)")
    print(f"median of round medians, off / on:     {round_off:8.3f} / {round_on:.3f} ms "
          f"({(round_on / round_off - 1) * 100:+.2f} %)")
    # Each on round beside the off round just before it: drift of the machine
    # between rounds cancels out.
    pairs = [on_r / off_r for off_r, on_r in zip(round_medians["off"], round_medians["on"])]
    print(f"median of paired round ratios:         {(statistics.median(pairs) - 1) * 100:+8.2f} %")
    print(f"the four annotated ranges alone:       {ranges_us:8.2f} us a step = "
          f"{ranges_us / 1e3 / off_ms * 100:.3f} % of the median step")
    print(f"round medians off (ms): {' '.join(f'{t * 1e3:.3f}' for t in round_medians['off'])}")
    print(f"round medians on  (ms): {' '.join(f'{t * 1e3:.3f}' for t in round_medians['on'])}")
    print(f"captured: {captured} bytes in {len(names)} files")
    if writer is None:
        print(f"writer thread: not identified (threads started by start_profiling: {started})")
        return
    print(f"writer thread {writer}, idle capture for {wall:.1f} s:")
    print(f"  utime+stime:            {(cpu1 - cpu0) * 1e3:8.1f} ms = "
          f"{(cpu1 - cpu0) / wall * 100:.3f} % of a core   (clock ticks of "
          f"{1e3 / os.sysconf('SC_CLK_TCK'):.0f} ms; target under "
          f"{TARGET_IDLE_CORE_PERCENT} %)")
    if ns0 is not None:
        print(f"  on CPU (schedstat):     {(ns1 - ns0) / 1e6:8.3f} ms = "
              f"{(ns1 - ns0) / 1e9 / wall * 100:.4f} % of a core")
    print(f"  voluntary switches:     {(sw1 - sw0) / wall:8.2f} a second")


if __name__ == "__main__":
    main()
