"""The command line on partitioned files (.pvtu), run by every rank under mpirun:
`mpirun -np N python3 -m tessel3d COMMAND in out.pvtu` for info, quadratic, linear,
hexsplit, extrude, crack and interpolate. Rank 0 prints; every rank computes its part and
writes its piece. Also the one-rank reading and writing of whole meshes as .pvtu files."""

import os
import sys
import warnings

import numpy as np

from .elements import CORNER_COUNT, LINEAR_OF, LINEAR_SOLIDS, node_names
from .mesh import ABSENT, ElementType


def _world():
    try:
        from mpi4py import MPI
    except ImportError:
        from .cli import UserError
        raise UserError("partitioned files need mpi4py (Debian: python3-mpi4py)") from None
    return MPI.COMM_WORLD


def _self():
    """The communicator of this process alone: a whole file read or written by one rank."""
    _world()
    from mpi4py import MPI
    return MPI.COMM_SELF


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



# ---- the commands on partitioned meshes ------------------------------------------------------
#
# `mpirun -np N python3 -m tessel3d COMMAND in out.pvtu`: rank 0 reads `in` (any format the
# one-machine command reads) and `distribute` spreads its solids, their cell data and groups
# (as "group:<name>" cell arrays, by global element ID) and the point data (by global node
# ID); a .pvtu input is read by every rank at once instead. Each rank runs the distributed
# form of the command on its part and writes its piece of out.pvtu. Faces, edges and points
# of the input are not carried (they are counted in a warning). With one rank the
# one-machine command runs and writes a single piece (write_mesh / read_mesh below).

def rank():
    """This process's rank under mpirun (0 without it), from the environment."""
    for name in ("OMPI_COMM_WORLD_RANK", "PMI_RANK", "PMIX_RANK"):
        if os.environ.get(name, "").isdigit():
            return int(os.environ[name])
    return 0


def ranks():
    """The number of ranks mpirun started, read from the environment so that mpi4py is
    imported (and MPI initialised) only when it is needed."""
    for name in ("OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "PMIX_SIZE"):
        if os.environ.get(name, "").isdigit():
            return int(os.environ[name])
    return 1


class Piece:
    """One rank's share of a command's input or result: a Part, the layout of its
    connectivity, {name: (n, ...)} point data and {name: (m, ...)} cell data."""

    def __init__(self, part, kind, point_data, cell_data):
        self.part, self.kind, self.point_data, self.cell_data = part, kind, point_data, cell_data


def _agree(comm, step):
    """Runs a step that may fail on some ranks only; every rank raises the first failing
    rank's error, or every rank goes on (no rank left waiting in a collective)."""
    from .cli import UserError
    try:
        result, message = step(), None
    except (UserError, ValueError) as error:
        result, message = None, str(error)
    messages = comm.allgather(message)
    failed = [m for m in messages if m is not None]
    if failed:
        raise UserError(failed[0])
    return result


def _flat_cell_values(mesh, cells):
    """{name: values per cell of the whole file (global numbers of `cells`)}, as the
    one-machine commands carry them, groups as "group:<name>" 0/1 arrays."""
    out = {key: values for key, (values, _) in cells.data.items() if values.dtype.kind in "biuf"}
    out.update({"group:" + group: mask.astype(np.int64) for group, mask in cells.groups.items()})
    return out


def _solids_of_file(mesh, command, path):
    """(kind, connect, global cell numbers) of the solids the command works on."""
    from .carry import Cells
    from .cli import UserError, linear_solids
    cells = Cells(mesh)
    if command == "linear":
        present = [n for n in mesh.cells if n in LINEAR_OF and LINEAR_OF[n] in LINEAR_SOLIDS and len(mesh.cells[n])]
        if len(present) != 1:
            raise UserError(f"{path}: one kind of quadratic solid is expected on several ranks "
                            f"(found {', '.join(present) or 'none'})")
        return cells, present[0], mesh.cells[present[0]], cells.index(present[0])
    pad_to_mixed = {"quadratic": ("PY5",), "crack": ("PY5", "W6")}.get(command, ())
    kind, connect, parents = linear_solids(cells, path, pad_to_mixed=pad_to_mixed)
    return cells, kind, connect, parents


def _read_and_distribute(comm, command, path, prepare=None):
    """Rank 0 reads `path` and spreads its solids; prepare(mesh, cells, kind, connect), run
    on rank 0, gives what every rank gets beside its Piece (returned as its `extra`)."""
    from . import cli, mpi as tm
    header = coords = connect = None
    if comm.Get_rank() == 0:
        try:
            mesh = cli.read(path)
            cells, kind, connect, parents = _solids_of_file(mesh, command, path)
            coords = mesh.coords
            others = cells.count - len(connect)
            header = (None, kind, others, prepare(mesh, cells, kind, connect) if prepare else None)
        except (cli.UserError, cli.mio.FileError, ValueError, OSError) as error:
            header = (str(error) if not isinstance(error, OSError) else f"{path}: {error.strerror or error}",)
    header = comm.bcast(header, root=0)
    if header[0] is not None:
        raise cli.UserError(header[0])
    kind, others, extra = header[1:]
    if others and comm.Get_rank() == 0 and command != "crack":
        warnings.warn(f"{path}: {others} face(s), edge(s) or point(s) left out: on several ranks only the "
                      "solids are carried")
    part = tm.distribute(comm, coords, connect)
    # the data follow their elements and nodes: rank 0 hands each rank the values of its IDs
    element_ids, node_ids = comm.gather(part.element_ids, root=0), comm.gather(part.node_ids, root=0)
    cell_share = point_share = None
    if comm.Get_rank() == 0:
        flat = _flat_cell_values(mesh, cells)
        cell_share = [{k: v[parents[ids.astype(np.int64)]] for k, v in flat.items()} for ids in element_ids]
        values = {k: np.asarray(v) for k, v in mesh.point_data.items()
                  if np.asarray(v).dtype.kind in "biuf" and len(v) == len(coords)}
        point_share = [{k: v[ids.astype(np.int64)] for k, v in values.items()} for ids in node_ids]
    piece = Piece(part, kind, comm.scatter(point_share, root=0), comm.scatter(cell_share, root=0))
    piece.extra = extra
    return piece


def _read_partitioned(comm, command, path):
    """A .pvtu read by every rank: the solids the command works on, with the nodes they use."""
    from . import mpi as tm
    from .cli import UserError
    read = tm.read_pvtu(comm, path)
    names = np.array([ElementType(int(t)).name for t in read.cell_types], dtype=object)
    wanted = ({n for n in LINEAR_OF if LINEAR_OF[n] in LINEAR_SOLIDS} if command == "linear" else set(LINEAR_SOLIDS))
    chosen = np.nonzero(np.isin(names, list(wanted)))[0]
    kinds = sorted(set().union(*comm.allgather(set(names[chosen]))))
    others = comm.allreduce(len(names) - len(chosen))
    if not kinds:
        raise UserError(f"{path}: holds no {'quadratic' if command == 'linear' else 'linear'} solid elements")
    if len(kinds) == 1 and not (command == "quadratic" and kinds == ["PY5"]):
        kind = kinds[0]
        width = len(node_names(kind))
    elif command != "linear":
        kind, width = "SOLID_MIX8", 8
    else:
        raise UserError(f"{path}: one kind of quadratic solid is expected on several ranks (found {', '.join(kinds)})")
    if others and comm.Get_rank() == 0:
        warnings.warn(f"{path}: {others} face(s), edge(s) or point(s) left out: on several ranks only the "
                      "solids are carried")
    connect = np.full((len(chosen), width), ABSENT, np.uint32)
    present = min(width, read.part.connect.shape[1])
    connect[:, :present] = read.part.connect[chosen, :present]
    used = np.unique(connect[connect != ABSENT]).astype(np.int64)
    renumber = np.full(len(read.part.coords) + 1, ABSENT, np.uint32)
    renumber[used] = np.arange(len(used), dtype=np.uint32)
    connect = renumber[np.where(connect == ABSENT, len(read.part.coords), connect).astype(np.int64)]
    part = tm.Part(read.part.coords[used], connect, read.part.node_ids[used], read.part.element_ids[chosen])
    point_data = {k: v[used] for k, v in read.point_data.items()}
    cell_data = {k: v[chosen] for k, v in read.cell_data.items()}
    return Piece(part, kind, point_data, cell_data)


def _quadratic(comm, piece):
    from . import mpi as tm
    from .carry import NewNodes, point_data
    from .elements import name_nodes, type_of_columns
    result = tm.convert_into_quadratic(comm, piece.part)
    kind = type_of_columns(result.connect)
    new = NewNodes(len(piece.part.coords))
    name_nodes(new, result.connect, kind, node_names)
    return Piece(result, kind, point_data(piece.point_data, len(result.coords), new), piece.cell_data)


def _linear(comm, piece):
    from . import mpi as tm
    from .elements import type_of_columns
    result = tm.convert_into_linear(comm, piece.part)
    old = piece.part.node_ids
    order = np.argsort(old, kind="stable")
    keep = order[np.searchsorted(old[order], result.node_ids)]
    return Piece(result, type_of_columns(result.connect), {k: v[keep] for k, v in piece.point_data.items()},
                 piece.cell_data)


def _hexsplit(comm, piece):
    from . import mpi as tm
    from .carry import point_data
    from .cli import UserError, hexahedra_per_element, split_new_nodes
    from .mesh import member_types
    kinds = member_types(piece.part.connect, piece.kind)
    pyramids = comm.allreduce(int((kinds == "PY5").sum()))
    if pyramids:
        raise UserError(f"{pyramids} pyramid(s): a pyramid cannot be split into hexahedra")
    result = tm.split_into_h8(comm, piece.part)
    new = _agree(comm, lambda: split_new_nodes(piece.part.connect, kinds, len(piece.part.coords), result.coords,
                                               result.connect))
    pieces = hexahedra_per_element(kinds)
    return Piece(result, "H8", point_data(piece.point_data, len(result.coords), new),
                 {k: np.repeat(v, pieces, axis=0) for k, v in piece.cell_data.items()})


STEPS = {"quadratic": _quadratic, "linear": _linear, "hexsplit": _hexsplit}


def _scatter_faces(comm, mesh, cells, faces, parents):
    """Rank 0's faces handed out in slabs along the longest side of their box (each rank
    its faces in ascending global ID, with the nodes they use); global IDs are the
    file's node indices and the faces' rows in `faces`."""
    from . import mpi as tm
    shares = None
    if comm.Get_rank() == 0:
        present = faces != ABSENT
        centres = np.where(present[:, :, None], mesh.coords[np.where(present, faces, 0).astype(np.int64)], 0).sum(1)
        centres /= present.sum(1)[:, None]
        axis = int(np.argmax(np.ptp(centres, axis=0))) if len(centres) else 0
        order = np.argsort(centres[:, axis], kind="stable")
        flat = _flat_cell_values(mesh, cells)
        values = {k: np.asarray(v) for k, v in mesh.point_data.items()
                  if np.asarray(v).dtype.kind in "biuf" and len(v) == len(mesh.coords)}
        shares = []
        for chosen in np.array_split(order, comm.Get_size()):
            chosen = np.sort(chosen)
            mine = faces[chosen]
            nodes = np.unique(mine[mine != ABSENT]).astype(np.int64)
            local = np.full(mine.shape, ABSENT, np.uint32)
            local[mine != ABSENT] = np.searchsorted(nodes, mine[mine != ABSENT])
            part = tm.Part(mesh.coords[nodes], local, nodes.astype(np.uint64), chosen.astype(np.uint64))
            shares.append((part, {k: v[nodes] for k, v in values.items()},
                           {k: v[parents[chosen]] for k, v in flat.items()}))
    return comm.scatter(shares, root=0)


def _extrude(comm, args):
    from . import mpi as tm
    from .carry import Cells
    from .cli import UserError, _check_sweep_size, read
    from .elements import boundary_edges, type_of_columns
    header, mesh, faces, parents, cells = None, None, None, None, None
    if comm.Get_rank() == 0:
        try:
            if args.faces:
                raise UserError("--faces is written by one rank only: run without mpirun, or with one rank")
            if args.normal is not None and args.sizes is not None:
                raise UserError("--normal with --sizes is done by one rank only: give --layers")
            if args.line is not None and (args.sizes is not None or args.layers is not None):
                raise UserError("--line makes one layer per polyline segment: no --layers or --sizes")
            if args.line is None and args.sizes is None and args.layers is None:
                raise UserError("give the number of layers (--layers) or their sizes (--sizes H0 H1)")
            mesh = read(args.input)
            cells = Cells(mesh)
            kind, faces, parents = cells.stack(("T3", "Q4"), 4, "FACE_MIX4")
            if faces is None:
                raise UserError(f"{args.input}: holds no triangles or quadrangles to extrude "
                                f"(found {', '.join(mesh.counts()) or 'no element'})")
            _check_sweep_size(args, mesh.coords, faces, boundary_edges(faces))
            line = None
            if args.line is not None:
                if max(args.line) >= len(mesh.coords):
                    raise UserError(f"--line: node {max(args.line)} of {len(mesh.coords)}")
                line = mesh.coords[np.asarray(args.line, np.int64)]
            header = (None, kind, line, cells.count - len(faces))
        except (UserError, ValueError, OSError) as error:
            header = (str(error),)
    header = comm.bcast(header, root=0)
    if header[0] is not None:
        raise UserError(header[0])
    kind, line, others = header[1:]
    if others and comm.Get_rank() == 0:
        warnings.warn(f"{args.input}: {others} other cell(s) left out: on several ranks only the swept solids "
                      "are written")
    surface, point_values, cell_values = _scatter_faces(comm, mesh, cells, faces, parents)
    if kind == "T3":
        surface = tm.Part(surface.coords, np.ascontiguousarray(surface.connect[:, :3]), surface.node_ids,
                          surface.element_ids)
    sizes = dict(layers=args.layers) if args.sizes is None else dict(h0=args.sizes[0], h1=args.sizes[1],
                                                                     even_layers=args.even)
    if args.translate is not None:
        result = tm.extrude(comm, surface, translate=args.translate, **sizes)
    elif args.rotate is not None:
        result = tm.extrude(comm, surface, rotate=(args.rotate[:3], args.rotate[3:]), **sizes)
    elif args.spiral is not None:
        s = args.spiral
        result = tm.extrude(comm, surface, spiral=(s[:3], s[3:6], s[6:]), **sizes)
    elif args.normal is not None:
        result = tm.extrude(comm, surface, normal=args.normal, layers=args.layers)
    else:
        result = tm.extrude_line(comm, surface, line, args.direction, args.scales)
    nb_layers = comm.allreduce(len(result.element_ids) // max(len(surface.element_ids), 1), op=_max())
    if not nb_layers:
        raise UserError("the sweep made no layer")
    _agree(comm, lambda: _finite(result.coords))
    from .cli import turn_inverted
    solids, volumes = turn_inverted(result.coords, result.connect)
    flipped, flat, total = (comm.reduce(int(n), root=0) for n in ((volumes < 0).sum(), (volumes == 0).sum(),
                                                                   len(solids)))
    if comm.Get_rank() == 0 and flipped:
        print(f"flipped {flipped} of {total} element(s) that would have been inverted")
    if comm.Get_rank() == 0 and flat:
        print(f"warning: {flat} element(s) have zero volume (nodes on the axis, or a zero normal)", file=sys.stderr)
    # a solid inherits its face's cell data, a node copy its node's point data
    face = np.searchsorted(surface.element_ids, result.element_ids // np.uint64(nb_layers))
    largest = comm.allreduce(int(surface.node_ids.max()) if len(surface.node_ids) else 0, op=_max())
    node = np.searchsorted(surface.node_ids, result.node_ids % np.uint64(largest + 1))
    part = tm.Part(result.coords, solids, result.node_ids, result.element_ids)
    return Piece(part, type_of_columns(solids), {k: v[node] for k, v in point_values.items()},
                 {k: v[face] for k, v in cell_values.items()})


def _max():
    from mpi4py import MPI
    return MPI.MAX


def _finite(coords):
    from .cli import UserError
    bad = ~np.isfinite(coords).all(axis=1)
    if bad.any():
        raise UserError(f"the sweep: {int(bad.sum())} node(s) got non-finite coordinates")


def _solids_on_ranks(comm, path):
    """The linear solids of a file on every rank: distributed from rank 0, or read by
    every rank from a .pvtu."""
    if str(path).lower().endswith(".pvtu"):
        return _read_partitioned(comm, "interpolate", path)
    return _read_and_distribute(comm, "interpolate", path)


def _interpolate(comm, args):
    from . import mpi as tm
    from .cli import UserError
    if args.strict:
        raise UserError("--strict is done by one rank only: run without mpirun, or with one rank")
    source = _solids_on_ranks(comm, args.source)
    if source.kind != "TH4":
        raise UserError(f"{args.source}: interpolation needs a tetrahedral source mesh (found {source.kind})")
    target = _solids_on_ranks(comm, args.target)
    names = args.field or list(source.point_data)
    if not names:
        raise UserError(f"{args.source}: holds no nodal field to interpolate")
    missing = [n for n in names if n not in source.point_data]
    if missing:
        raise UserError(f"{args.source}: no nodal field named {missing[0]!r} "
                        f"(fields: {', '.join(source.point_data) or 'none'})")
    count = distinct_count(comm, target.part.node_ids)
    for name in names:
        values = np.asarray(source.point_data[name])
        columns = values.reshape(len(values), int(np.prod(values.shape[1:], dtype=np.int64)))
        found = tm.interpolate(comm, source.part, columns, target.part.coords)
        target.point_data[name] = found.reshape((len(found),) + values.shape[1:])
        if comm.Get_rank() == 0:
            print(f"interpolated {name} onto {count} node(s)")
    return target


def _crack_surface(args):
    """prepare() of the crack: (the surface by global node IDs, 4 columns, the front's
    nodes to keep single or None, the count of the file's other cells)."""
    def prepare(mesh, cells, kind, connect):
        from .cli import UserError, _front_nodes, _surface_of_file, _surface_of_group
        if args.group:
            faces, _ = _surface_of_group(mesh, cells, args.group, args.input)
        else:
            faces = _surface_of_file(mesh, args.faces)
        triangles = faces[:, 3] == ABSENT
        if kind == "TH4" and not triangles.all():
            raise UserError("the surface of a tetrahedral mesh must be made of triangles")
        if kind == "H8" and triangles.any():
            raise UserError("the surface of a hexahedral mesh must be made of quadrangles")
        excluded = _front_nodes(connect, kind, faces) if args.keep_front else None
        return faces, excluded, cells.count - len(connect)
    return prepare


def _crack(comm, args):
    from . import mpi as tm
    piece = _read_and_distribute(comm, "crack", args.input, _crack_surface(args))
    faces, excluded, others = piece.extra
    if others and comm.Get_rank() == 0:
        warnings.warn(f"{args.input}: {others} face(s), edge(s) or point(s) left out: on several ranks only the "
                      "solids are written")
    ids = piece.part.node_ids  # ascending (distribute)

    def local(global_ids):
        """(local index, held) of global node IDs on this rank."""
        global_ids = np.asarray(global_ids, np.uint64)
        if not len(ids):
            return np.zeros(global_ids.shape, np.int64), np.zeros(global_ids.shape, bool)
        at = np.minimum(np.searchsorted(ids, global_ids), len(ids) - 1)
        return at, ids[at] == global_ids

    present = faces != ABSENT
    at, held = local(np.where(present, faces, 0))
    mine = (held | ~present).all(axis=1)
    surface = np.where(present, at, ABSENT).astype(np.uint32)[mine]
    if piece.kind == "TH4":
        surface = np.ascontiguousarray(surface[:, :3])
    skip = np.zeros(0, np.uint32)
    if excluded is not None:
        at, held = local(excluded)
        skip = at[held].astype(np.uint32)
    _, result = tm.duplicate_surface_nodes(comm, piece.part, surface, piece.kind, excluded=skip,
                                               positive_side=args.side in ("positive", "both"),
                                               negative_side=args.side in ("negative", "both"))
    # a copy takes its node's point data; nodes no local element uses any more are dropped
    largest = comm.allreduce(int(ids.max()) if len(ids) else 0, op=_max())
    origin = np.searchsorted(ids, result.node_ids % np.uint64(largest + 1))
    used = np.unique(result.connect[result.connect != ABSENT]).astype(np.int64)
    renumber = np.full(len(result.coords) + 1, ABSENT, np.uint32)
    renumber[used] = np.arange(len(used), dtype=np.uint32)
    connect = renumber[np.where(result.connect == ABSENT, len(result.coords), result.connect).astype(np.int64)]
    part = tm.Part(result.coords[used], connect, result.node_ids[used], result.element_ids)
    grown = distinct_count(comm, part.node_ids) - distinct_count(comm, ids)
    if comm.Get_rank() == 0:
        print(f"opened the surface on {comm.Get_size()} ranks: {grown} node(s) added")
    return Piece(part, piece.kind, {k: v[origin[used]] for k, v in piece.point_data.items()}, piece.cell_data)


FLOWS = {"extrude": _extrude, "interpolate": _interpolate, "crack": _crack}


def write_piece(comm, path, piece):
    from . import mpi as tm
    from .mesh import member_types
    names = member_types(piece.part.connect, piece.kind)
    types = np.array([int(ElementType[n]) for n in names], np.uint8)
    tm.write_pvtu(comm, path, piece.part, cell_types=types, point_data=piece.point_data, cell_data=piece.cell_data)


def run(command, args):
    """The command on every rank of mpirun; the status every rank exits with. The errors
    raised here on one rank are raised on all (the library's statuses are agreed, and the
    checks of the inputs are made after a collective); anything else ends the job."""
    from .cli import UserError
    from .errors import Error
    comm = _world()
    rank = comm.Get_rank()
    try:
        if not str(args.output).lower().endswith(".pvtu"):
            raise UserError(f"{args.output}: on several ranks the output is a partitioned file (.pvtu)")
        if command in FLOWS:
            result = FLOWS[command](comm, args)
        else:
            if str(args.input).lower().endswith(".pvtu"):
                piece = _read_partitioned(comm, command, args.input)
            else:
                piece = _read_and_distribute(comm, command, args.input)
            result = STEPS[command](comm, piece)
        write_piece(comm, args.output, result)
    except (UserError, Error, ImportError) as error:  # raised alike on every rank (collective outcomes)
        if rank == 0:
            print(f"tessel3d {command}: error: {' '.join(str(error).split())}", file=sys.stderr)
        return 2
    except Exception as error:  # a fault on one rank: the others may wait in a collective
        print(f"tessel3d {command}: internal error on rank {rank}: {type(error).__name__}: {error}", file=sys.stderr)
        sys.stderr.flush()
        comm.Abort(2)
    if rank == 0:
        total = comm.reduce(len(result.part.element_ids), root=0)
        print(f"wrote {args.output}: {total} element(s) in {comm.Get_size()} piece(s)")
    else:
        comm.reduce(len(result.part.element_ids), root=0)
    return 0


# ---- one rank: whole meshes to and from partitioned files -----------------------------------

def write_mesh(path, mesh):
    """A Mesh as a partitioned file of one piece (global IDs: node and cell indices)."""
    from . import mpi as tm
    from .io import split_mixed
    blocks = [(kind, name, index, cells) for name, all_cells in mesh.cells.items()
              for kind, index, cells in split_mixed(name, all_cells)]
    width = max([c.shape[1] for *_, c in blocks] + [1])
    connect = np.concatenate([np.pad(np.asarray(c, np.uint32), ((0, 0), (0, width - c.shape[1])),
                                     constant_values=ABSENT) for *_, c in blocks]) if blocks else \
        np.zeros((0, 1), np.uint32)
    types = np.array([int(ElementType[k]) for k, _, _, c in blocks for _ in range(len(c))], np.uint8)
    cell_data = {}
    for key, by_type in mesh.cell_data.items():
        if all(name in by_type for _, name, _, _ in blocks):
            values = [np.asarray(by_type[name])[index] for _, name, index, _ in blocks]
            if values and len({v.shape[1:] for v in values}) == 1 and all(v.dtype.kind in "biuf" for v in values):
                cell_data[key] = np.concatenate(values)
    for group, members in mesh.groups.items():
        cell_data["group:" + group] = np.concatenate(
            [np.isin(index, np.asarray(members.get(name, []), np.int64)) for _, name, index, _ in blocks]
        ).astype(np.int64) if blocks else np.zeros(0, np.int64)
    point_data = {k: np.asarray(v) for k, v in mesh.point_data.items() if np.asarray(v).dtype.kind in "biuf"}
    part = tm.Part(mesh.coords, connect, np.arange(len(mesh.coords), dtype=np.uint64),
                   np.arange(len(connect), dtype=np.uint64))
    tm.write_pvtu(_self(), path, part, cell_types=types, point_data=point_data, cell_data=cell_data)


def read_mesh(path):
    """A partitioned file read whole by one rank, as a Mesh (groups from "group:<name>")."""
    from . import mpi as tm
    from .io import Mesh
    read = tm.read_pvtu(_self(), path)
    cells, cell_data, groups = {}, {}, {}
    types = read.cell_types
    for t in dict.fromkeys(types.tolist()):
        name = ElementType(int(t)).name
        chosen = np.nonzero(types == t)[0]
        width = CORNER_COUNT.get(name) or int((read.part.connect[chosen[0]] != ABSENT).sum())
        cells[name] = np.ascontiguousarray(read.part.connect[chosen, :width])
        for key, values in read.cell_data.items():
            if key.startswith("group:"):
                members = np.nonzero(values[chosen].ravel() != 0)[0]
                if len(members):
                    groups.setdefault(key[len("group:"):], {})[name] = members
            else:
                cell_data.setdefault(key, {})[name] = values[chosen][:, 0] if values.shape[1] == 1 else values[chosen]
    point_data = {k: v[:, 0] if v.shape[1] == 1 else v for k, v in read.point_data.items()}
    return Mesh(read.part.coords, cells, point_data, cell_data, groups)
