"""The library on meshes partitioned over MPI ranks (mpi4py communicators).

Each rank holds a Part: its nodes (coords (n, 3)) with their 64-bit global IDs, and its
elements (connect (m, rows), local node indices) with theirs. Every function here is
collective, like an MPI call: every rank of `comm` calls it, and every rank gets the same
outcome (the same exception when it fails anywhere).

    from mpi4py import MPI
    import tessel3d.mpi as tm
    part = tm.distribute(MPI.COMM_WORLD, coords, connect)   # the mesh on rank 0, cut by METIS
    tm.write_pvtu(MPI.COMM_WORLD, "out.pvtu", part, "TH4")  # one .vtu piece per rank
    file = tm.read_pvtu(MPI.COMM_WORLD, "out.pvtu")          # any number of pieces, any ranks

Needs the package built with the distributed component (tessel3d._native_mpi) and mpi4py.
"""

from typing import NamedTuple

import numpy as np

from .errors import check
from .mesh import ElementType, element_type

try:
    from . import _native_mpi as _native
except ImportError as error:  # built without MPI
    raise ImportError("tessel3d.mpi needs the package built with MPI and METIS (tessel3d._native_mpi)") from error


class Part(NamedTuple):
    """One rank's part: coords (n, 3) float64, connect (m, rows) uint32 of local node
    indices (~0 where a mixed layout's element has fewer nodes), node_ids (n,) and
    element_ids (m,) uint64."""
    coords: np.ndarray
    connect: np.ndarray
    node_ids: np.ndarray
    element_ids: np.ndarray


class PartitionedFile(NamedTuple):
    """What read_pvtu gives each rank: its Part, the layout of every rank's cells (an
    ElementType, NONE when no single layout holds them), the type of each local cell,
    and the point and cell arrays {name: (items, components)}."""
    part: Part
    type: ElementType
    cell_types: np.ndarray
    point_data: dict
    cell_data: dict


def _part(part):
    return (np.ascontiguousarray(part.coords, np.float64), np.ascontiguousarray(part.connect, np.uint32),
            np.ascontiguousarray(part.node_ids, np.uint64), np.ascontiguousarray(part.element_ids, np.uint64))


def _columns(values):
    values = np.asarray(values)
    values = values.reshape(len(values), -1)
    if np.issubdtype(values.dtype, np.integer) or values.dtype == np.bool_:
        return np.ascontiguousarray(values, np.int64)
    return np.ascontiguousarray(values, np.float64)


def distribute(comm, coords=None, connect=None, root=0):
    """Spreads the mesh held by rank `root` (coords (n, 3), connect (m, rows) of a solid
    layout; ignored elsewhere) over every rank; global IDs are the root's indices."""
    coords = np.zeros((0, 3)) if coords is None else np.ascontiguousarray(coords, np.float64)
    connect = np.zeros((0, 4), np.uint32) if connect is None else np.ascontiguousarray(connect, np.uint32)
    status, part = _native.distribute(comm, root, coords, connect)
    check("mpi.distribute", status)
    return Part(*part)


def gather(comm, part, root=0):
    """The one-machine mesh (coords, connect) on rank `root` (nodes in ascending global
    ID, elements likewise); None on the other ranks."""
    status, coords, connect = _native.gather(comm, root, *_part(part))
    check("mpi.gather", status)
    return (coords, connect) if comm.Get_rank() == root else None


def volume(comm, part):
    """The signed total volume of a partitioned solid mesh, the same bits on every rank."""
    status, total = _native.volume(comm, *_part(part))
    check("mpi.volume", status)
    return total


def write_pvtu(comm, path, part, type=None, cell_types=None, point_data=None, cell_data=None):
    """Writes `path` (.pvtu, by rank 0) and one piece <stem>_<rank>.vtu per rank. The
    element type is `type` (one type or a mixed layout, by value or name) or, per
    element, `cell_types`. point_data and cell_data: {name: (items,) or (items, k)}
    arrays, integers written as Int64 and the rest as Float64."""
    if (type is None) == (cell_types is None):
        raise ValueError("write_pvtu: give either type or cell_types")
    kind = -1 if type is None else int(element_type(type))
    types = None if cell_types is None else np.ascontiguousarray(cell_types, np.uint8)
    points = {str(k): _columns(v) for k, v in (point_data or {}).items()}
    cells = {str(k): _columns(v) for k, v in (cell_data or {}).items()}
    check("mpi.write_pvtu", _native.write_pvtu(comm, str(path), *_part(part), kind, types, points, cells))


def read_pvtu(comm, path):
    """Reads a .pvtu (or .vtu) with every rank: of M pieces, rank r of N reads pieces
    M r / N to M (r + 1) / N. Returns this rank's PartitionedFile."""
    status, part, kind, cell_types, point_data, cell_data = _native.read_pvtu(comm, str(path))
    check("mpi.read_pvtu", status)
    return PartitionedFile(Part(*part), ElementType(kind), cell_types, point_data, cell_data)
