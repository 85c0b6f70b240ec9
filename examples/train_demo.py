"""A small real model trained on the CPU under the profiler: each step and its
forward, backward and optimizer phases are annotated, from a data-loading thread
too, and every thread is sampled with its call chain. Run by `make demo`, which
then shows what was captured."""

import threading
import time

import torch
from torch import nn

import _zorv

STEPS = 60
BATCH = 64


class annotate:
    """A range in the capture: `with annotate("forward"): ...`."""

    def __init__(self, name):
        self.name = name

    def __enter__(self):
        self.token = _zorv.annotation_begin(self.name)

    def __exit__(self, *exc):
        _zorv.annotation_end(self.token)


def make_batches(queue, ready):
    """Data loading on a thread of its own, annotated like the training loop."""
    generator = torch.Generator().manual_seed(0)
    for _ in range(STEPS):
        with annotate("load_batch"):
            x = torch.randn(BATCH, 128, generator=generator)
            y = (x[:, :16].sum(dim=1, keepdim=True) > 0).float()
        queue.append((x, y))
        ready.release()


def main():
    config = _zorv.Config()
    config.profiler = {"BucketCount": "8", "BucketSizeMB": "4", "RecordFile": "zorvek_demo_%p",
                       "EnablePerf": "1"}
    # CPU samples at about 1 kHz from the kernel's software clock, which every
    # machine has (many VMs have no hardware PMU), of this thread and of every
    # thread started after the start: the data loader and torch's workers.
    config.perf = {"EventConfigs": "1,0,1000003,743,0,0,0", "InheritEvents": "1"}
    profiler = _zorv.Zorvek.instance()
    print("configure:", repr(profiler.configure(config)))
    profiler.start_profiling()

    torch.manual_seed(0)
    model = nn.Sequential(nn.Linear(128, 256), nn.ReLU(), nn.Linear(256, 256), nn.ReLU(),
                          nn.Linear(256, 1))
    optimizer = torch.optim.SGD(model.parameters(), lr=0.05)
    loss_fn = nn.BCEWithLogitsLoss()

    batches, ready = [], threading.Semaphore(0)
    loader = threading.Thread(target=make_batches, args=(batches, ready))
    loader.start()
    started = time.perf_counter()
    for step in range(STEPS):
        ready.acquire()
        x, y = batches[step]
        with annotate("step"):
            with annotate("forward"):
                loss = loss_fn(model(x), y)
            with annotate("backward"):
                optimizer.zero_grad()
                loss.backward()
            with annotate("optimizer"):
                optimizer.step()
        if step % 20 == 0 or step == STEPS - 1:
            print(f"step {step:3d}  loss {loss.item():.4f}")
    loader.join()
    elapsed = time.perf_counter() - started
    print(f"trained {STEPS} steps in {elapsed:.2f}s")
    print("stop:", repr(profiler.stop_profiling()))


if __name__ == "__main__":
    main()
