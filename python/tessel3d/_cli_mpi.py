"""The command line on partitioned files (.pvtu), run by every rank under mpirun:
`mpirun -np N python3 -m tessel3d info in.pvtu`. Rank 0 prints; the others compute."""

import numpy as np

from .elements import CORNER_COUNT, LINEAR_OF, LINEAR_SOLIDS
from .mesh import ABSENT, ElementType


def _world():
    try:
        from mpi4py import MPI
    except ImportError as error:
        raise ImportError("partitioned files need mpi4py (Debian: python3-mpi4py)") from error
    return MPI.COMM_WORLD


def distinct_count(comm, ids):
    """How many distinct values `ids` holds over every rank: each value goes to rank
    value % size, which counts its own (no rank holds more than its share)."""
    size = comm.Get_size()
    ids = np.ascontiguousarray(ids, np.uint64)
    owner = (ids % np.uint64(size)).astype(np.int64)
    order = np.argsort(owner, kind="stable")
    send_counts = np.bincount(owner, minlength=size).astype(np.int64)
    receive_counts = np.empty(size, np.int64)
    comm.Alltoall(send_counts, receive_counts)
    received = np.empty(int(receive_counts.sum()), np.uint64)
    comm.Alltoallv([ids[order], send_counts], [received, receive_counts])
    return comm.allreduce(len(np.unique(received)))


def corner_solids(part, cell_types):
    """The part's solids by their corners in the 8-row mixed layout (quadratic ones too),
    with their global element IDs."""
    columns, rows = [], []
    for t in np.unique(cell_types):
        name = ElementType(int(t)).name
        base = LINEAR_OF.get(name, name)
        if base in LINEAR_SOLIDS:
            chosen = np.nonzero(cell_types == t)[0]
            corners = np.full((len(chosen), 8), ABSENT, np.uint32)
            corners[:, :CORNER_COUNT[base]] = part.connect[chosen, :CORNER_COUNT[base]]
            columns.append(chosen)
            rows.append(corners)
    if not columns:
        return np.zeros((0, 8), np.uint32), np.zeros(0, np.uint64)
    chosen = np.concatenate(columns)
    return np.concatenate(rows), part.element_ids[chosen]


def info(path):
    from . import mpi as tm
    comm = _world()
    read = tm.read_pvtu(comm, path)
    part = read.part
    from mpi4py import MPI
    counts = np.zeros(25, np.int64)
    comm.Allreduce(np.bincount(read.cell_types.astype(np.int64), minlength=25), counts, op=MPI.SUM)
    nodes = distinct_count(comm, part.node_ids)
    # -min and max in one reduction (+-inf on a rank without nodes)
    box = np.r_[-part.coords.min(axis=0), part.coords.max(axis=0)] if len(part.coords) else np.full(6, -np.inf)
    extremes = np.empty(6)
    comm.Allreduce(box, extremes, op=MPI.MAX)
    lo, hi = -extremes[:3], extremes[3:]
    connect, element_ids = corner_solids(part, read.cell_types)
    has_solids = comm.allreduce(len(connect)) > 0
    total = tm.volume(comm, tm.Part(part.coords, connect, part.node_ids, element_ids)) if has_solids else None
    if comm.Get_rank() != 0:
        return 0
    if not nodes:
        lo, hi = np.zeros(3), np.zeros(3)
    print(f"{path}: {nodes} nodes")
    for t in np.nonzero(counts)[0]:
        print(f"  {ElementType(int(t)).name:6s} {int(counts[t]):10d}")
    print(f"  bounding box {np.array2string(lo, precision=4)} - {np.array2string(hi, precision=4)}")
    for title, data in (("point data", read.point_data), ("cell data", read.cell_data)):
        if data:
            print(f"  {title}: " + ", ".join(data))
    if total is not None:
        print(f"  volume {total:.6g}")
    print(f"  read by {comm.Get_size()} rank(s)")
    return 0

