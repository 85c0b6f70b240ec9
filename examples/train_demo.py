"""A small real model trained on the CPU, with each step and its forward, backward
and optimizer phases annotated, from a data-loading thread too. It knows nothing
of the profiler beyond `zorvek.annotate`: run it under `zorvek record`, which
samples every thread at about 1 kHz with its call chain (the kernel's software
clock, which every machine has), as `make demo` does:

    zorvek record -o build/demo -- python examples/train_demo.py

Run plainly, the annotations cost next to nothing and record nothing."""

import threading
import time

import torch
from torch import nn

import zorvek

STEPS = 60
BATCH = 64


def make_batches(queue, ready):
    """Data loading on a thread of its own, annotated like the training loop."""
    generator = torch.Generator().manual_seed(0)
    for _ in range(STEPS):
        with zorvek.annotate("load_batch"):
            x = torch.randn(BATCH, 128, generator=generator)
            y = (x[:, :16].sum(dim=1, keepdim=True) > 0).float()
        queue.append((x, y))
        ready.release()


@zorvek.annotate("train")
def train():
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
        with zorvek.annotate("step"):
            with zorvek.annotate("forward"):
                loss = loss_fn(model(x), y)
            with zorvek.annotate("backward"):
                optimizer.zero_grad()
                loss.backward()
            with zorvek.annotate("optimizer"):
                optimizer.step()
        if step % 20 == 0 or step == STEPS - 1:
            print(f"step {step:3d}  loss {loss.item():.4f}")
    loader.join()
    print(f"trained {STEPS} steps in {time.perf_counter() - started:.2f}s")


if __name__ == "__main__":
    train()
