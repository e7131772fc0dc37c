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
    values = values.reshape(len(values), int(np.prod(values.shape[1:], dtype=np.int64)))  # (0, k) too
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


def _part_out(function, status, part):
    check(function, status)
    return Part(*part)


def convert_into_quadratic(comm, part):
    """TH4, PY5, W6, H8 (or the 8-column mixed layout) into TH10, PY14, W18, H27: each new
    edge or face node made once, with one global ID, wherever ranks share it."""
    return _part_out("mpi.convert_into_quadratic", *_native.convert_into_quadratic(comm, *_part(part)))


def convert_into_linear(comm, part):
    """Quadratic solids back to their corners; nodes no local element uses are dropped."""
    return _part_out("mpi.convert_into_linear", *_native.convert_into_linear(comm, *_part(part)))


def split_into_h8(comm, part):
    """Every TH4, W6 and H8 split into 4, 6 and 8 hexahedra; hexahedron k of element g
    gets the global ID 8 g + k."""
    return _part_out("mpi.split_into_h8", *_native.split_into_h8(comm, *_part(part)))


def _vector(v):
    return np.ascontiguousarray(np.zeros(3) if v is None else v, np.float64).reshape(3)


def extrude(comm, surface, *, translate=None, rotate=None, spiral=None, normal=None, layers=None, h0=None, h1=None,
            even_layers=False):
    """Sweeps a partitioned surface (connect (m, 3) or (m, 4), ABSENT in column 3 for a
    triangle of a mixed one) into layers of solids, each rank its own faces. One of:
    translate=T, rotate=(C, R), spiral=(C, R, T), normal=thickness (the surface's own
    normals) or normal=(n, 3) nodal vectors; layers=N, or h0 and h1 (graded)."""
    graded = layers is None
    count = -1 if graded else int(layers)
    a, b = (0.0, 0.0) if not graded else (float(h0), float(h1))
    if normal is not None and np.ndim(normal) == 0:
        status, solids = _native.extrude_normal_thickness(comm, *_part(surface), float(normal), count)
        return _part_out("mpi.extrude_normal", status, solids)
    if normal is not None:
        status, solids = _native.extrude(comm, "normal", *_part(surface), np.ascontiguousarray(normal, np.float64),
                                         None, None, count, a, b, even_layers)
        return _part_out("mpi.extrude_normal", status, solids)
    kind, (c, r, t) = (("translate", (None, None, translate)) if translate is not None else
                       ("rotate", (*rotate, None)) if rotate is not None else ("spiral", tuple(spiral)))
    status, solids = _native.extrude(comm, kind, *_part(surface), _vector(c), _vector(r), _vector(t), count, a, b,
                                     bool(even_layers))
    return _part_out("mpi.extrude_" + kind, status, solids)


def extrude_line(comm, surface, line_points, direction, scales=None):
    """Sweeps a partitioned surface along a polyline (points (S, 3), the same on every
    rank), one layer per segment, the section optionally scaled per point."""
    points = np.ascontiguousarray(line_points, np.float64)
    factors = None if scales is None else np.ascontiguousarray(scales, np.float64)
    status, solids = _native.extrude_line(comm, *_part(surface), points, _vector(direction), factors)
    return _part_out("mpi.extrude_line", status, solids)


def duplicate_surface_nodes(comm, part, surface, type, excluded=None, positive_side=True, negative_side=False):
    """Opens a partitioned solid mesh along an internal surface (local node IDs, each face
    listed on every rank that has an element carrying it). Returns (added count, part)."""
    faces = np.ascontiguousarray(surface, np.uint32)
    skip = np.zeros(0, np.uint32) if excluded is None else np.ascontiguousarray(excluded, np.uint32)
    status, result = _native.duplicate_surface_nodes(comm, *_part(part), faces, skip, bool(positive_side),
                                                     bool(negative_side), int(element_type(type)))
    return check("mpi.duplicate_surface_nodes", status), Part(*result)


def interpolate(comm, source, field, points):
    """A nodal field of a partitioned TH4 mesh (field (n,) or (n, k), one row per local
    node) read at this rank's points (p, 3); (p, k) values (NaN where nothing is known)."""
    field = np.asarray(field, np.float64)
    values = np.ascontiguousarray(field.reshape(len(field), -1))
    status, result = _native.interpolate(comm, *_part(source), values, np.ascontiguousarray(points, np.float64))
    check("mpi.interpolate", status)
    return result.reshape((len(result),) + field.shape[1:])


def interpolate_metrics(comm, source, metrics, points, values, keep_valid=False):
    """Metrics ((n, 6) packed tensors or (n,) sizes) of a partitioned TH4 mesh read at this
    rank's points; values (p, 6) or (p,) hold the points' metrics and are returned updated."""
    metrics = np.asarray(metrics, np.float64)
    m = np.ascontiguousarray(metrics.reshape(len(metrics), -1))
    v = np.ascontiguousarray(np.asarray(values, np.float64).reshape(len(values), -1))
    status, result = _native.interpolate_metrics(comm, *_part(source), m, np.ascontiguousarray(points, np.float64), v,
                                                 bool(keep_valid))
    check("mpi.interpolate_metrics", status)
    return result.reshape(np.shape(values))
