"""Which rank of a distributed job this process is, from what its launcher set:
torchrun and torch.distributed (RANK, LOCAL_RANK, WORLD_SIZE), Open MPI's mpirun
(OMPI_COMM_WORLD_*) and SLURM's srun (SLURM_PROCID, SLURM_LOCALID, SLURM_NTASKS).
A process started by none of them has no rank."""

import os
import socket
from typing import Mapping, NamedTuple, Optional

# (rank, local rank, world size) variables of each launcher, the most specific first:
# torchrun under srun sets both, and RANK is the one the training script sees.
_LAUNCHERS = (
    ("RANK", "LOCAL_RANK", "WORLD_SIZE"),
    ("OMPI_COMM_WORLD_RANK", "OMPI_COMM_WORLD_LOCAL_RANK", "OMPI_COMM_WORLD_SIZE"),
    ("SLURM_PROCID", "SLURM_LOCALID", "SLURM_NTASKS"),
)


class Rank(NamedTuple):
    rank: int
    local_rank: int   # -1 when the launcher didn't say
    world_size: int   # -1 when the launcher didn't say
    host: str


def _number(environ: Mapping[str, str], name: str) -> Optional[int]:
    text = environ.get(name, "").strip()
    try:
        value = int(text, 10)
    except ValueError:
        return None
    return value if value >= 0 else None


def detect(environ: Optional[Mapping[str, str]] = None) -> Optional[Rank]:
    """The rank the environment gives this process, or None outside a launcher."""
    env = os.environ if environ is None else environ
    for rank_name, local_name, world_name in _LAUNCHERS:
        rank = _number(env, rank_name)
        if rank is None:
            continue
        local = _number(env, local_name)
        world = _number(env, world_name)
        return Rank(rank, -1 if local is None else local, -1 if world is None else world,
                    socket.gethostname())
    return None
