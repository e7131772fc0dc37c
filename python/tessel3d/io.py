"""Mesh files, in this library's node orders.

    mesh = tessel3d.io.read("part.msh")          # a Mesh: coords (n, 3), cells by type
    tessel3d.io.write("part.vtu", mesh)          # compression=None | "lz4" | "zlib" | "lzma"
    mesh = tessel3d.io.from_meshio(meshio_mesh)  # and to_meshio(mesh), or Mesh(meshio_mesh)
    tet10 = tessel3d.io.to_library_order(cells, "tetra10")        # raw arrays, VTK/meshio order
    back = tessel3d.io.from_library_order(tet10, "tetra10", "gmsh")

.vtu files go through VTK's own XML reader and writer when python3-vtk9 is installed,
.inp files through this package's Abaqus reader and writer (standard keywords), every
other format through meshio (.msh, .vtk, .med, .xdmf, .mesh, .bdf, ...). Cells are stored
by this library's type names ("TH4", "H27", "T3", ...) in this library's node orders,
which differ from the files' (docs/node-orders.md has each type's numbering and its map
to VTK, Gmsh and Abaqus):

- TH4 is oriented the other way (its node 3 lies on the negative side of the right-hand
  normal of 0-1-2), so corners 1 and 2 change places;
- the quadratic solids list their edge nodes in the order of the library's edge tables
  (TH10: edges 1-2 2-0 0-1 3-0 3-1 3-2; PY13/PY14: 0-4 1-4 2-4 3-4 0-1 1-2 2-3 3-0, then
  the base centre; W15/W18: 0-3 1-4 2-5 1-2 2-0 0-1 4-5 5-3 3-4, then the centres of the
  quadrangles opposite corners 0, 1, 2; H20/H27: 0-1 1-2 2-3 3-0 4-5 5-6 6-7 7-4 0-4 1-5
  2-6 3-7, then the centres of the faces 0374, 1265, 0154, 2376, 0123, 4567 and the
  centre), and the quadratic triangle T6 its mid-side nodes opposite corners 0, 1, 2.

The mixed layouts SOLID_MIX8 (TH4, PY5, W6, H8 in 8 columns), SOLID_MIX27 (TH10, PY14,
W18, H27 in 27 columns) and FACE_MIX4 (T3 and Q4 in 4 columns) are written as their
member types.

What a round trip keeps: coordinates, cells, point data and cell data (every format that
holds them; .inp holds neither), and groups: Gmsh's physical groups in .msh, element sets
in .inp, .med and the other formats with cell sets, and in .vtu/.vtk/.xdmf one cell-data
array "group:<name>" per group (1 for its members, 0 elsewhere), which ParaView can
threshold. Reading refuses, with a one-line FileError naming the file and the cell, any
cell that names a node the file does not define; coordinates that are NaN or infinite are
read as they are (Mesh.nonfinite_nodes() lists them).
"""

import os
import pathlib
import warnings

import numpy as np

from . import _io_abaqus, _io_msh, _io_vtk
from ._io_orders import LIBRARY_ORDERS, LIBRARY_TYPES, MESHIO_TYPES, from_other, permutation, to_other
from ._io_watch import FileWatch
from ._orientation import refuse_inverted  # noqa: F401  (part of this module's interface)

ABSENT = 0xFFFFFFFF
GROUP_PREFIX = "group:"
# Raw binary: the fastest to write and to read, and readable by every VTK-based tool and by
# meshio. Measured on 4 million hexahedra (docs/performance.md): "lz4" writes as fast but
# saves under 10% on mesh arrays and meshio cannot read it; "zlib" (at its fastest level)
# saves 40% and takes 5 to 10 times longer; "lzma" is smaller still and slower again.
DEFAULT_COMPRESSION = None


class FileError(ValueError):
    """A mesh file could not be read or written."""


# ---- node orders ------------------------------------------------------------------------

def library_type(name):
    """This library's type name from its own name ("TH4", "th4"), meshio's ("tetra"),
    an ElementType or its value."""
    if isinstance(name, str):
        if name in LIBRARY_TYPES:
            return LIBRARY_TYPES[name]
        if name.upper() in LIBRARY_ORDERS or name.upper() in ("SOLID_MIX8", "SOLID_MIX27", "FACE_MIX4"):
            return name.upper()
        raise ValueError(f"unknown element type {name!r}")
    from .mesh import ElementType
    return ElementType(int(name)).name


def to_library_order(cells, type_name, order="meshio"):
    """Cells of `type_name` (this library's or meshio's name) in another tool's node order
    -> this library's. order: "meshio" (meshio's arrays, VTK's orders but the linear wedge
    as Gmsh's), "vtk" (VTK's cells), "gmsh" (Gmsh's API and .msh files), "abaqus"."""
    name = library_type(type_name)
    cells = np.asarray(cells)
    _check_width(cells, name)
    return from_other(name, cells, order)


def from_library_order(cells, type_name, order="meshio"):
    """The inverse of to_library_order: this library's order -> the other tool's."""
    name = library_type(type_name)
    cells = np.asarray(cells)
    _check_width(cells, name)
    return to_other(name, cells, order)


def _check_width(cells, name):
    if name not in LIBRARY_ORDERS:
        raise ValueError(f"{name} is a mixed layout: convert the arrays of its member types one by one")
    if cells.ndim != 2 or cells.shape[1] != len(LIBRARY_ORDERS[name]):
        raise ValueError(f"{name} cells must have the shape (m, {len(LIBRARY_ORDERS[name])}), not {cells.shape}")


# ---- mixed layouts --------------------------------------------------------------------

def _kinds_mix8(c):
    """Kind of each column of a SOLID_MIX8 array (the library's test order on rows 3-6)."""
    a = c == ABSENT
    kinds = np.full(len(c), "H8", dtype=object)
    present4 = ~a[:, 4]
    kinds[~a[:, 3] & a[:, 4]] = "TH4"
    kinds[present4 & a[:, 5]] = "PY5"
    kinds[present4 & ~a[:, 5] & a[:, 6]] = "W6"
    kinds[a[:, 3] & a[:, 4] & ~a[:, 5] & a[:, 6]] = "W6"
    return kinds


def _kinds_mix27(c):
    a = c == ABSENT
    kinds = np.full(len(c), "H27", dtype=object)
    kinds[a[:, 18]] = "W18"
    kinds[a[:, 14]] = "PY14"
    kinds[a[:, 10]] = "TH10"
    return kinds


def split_mixed(type_name, cells):
    """[(member type, element indices, cells)] of a mixed or pure array."""
    cells = np.asarray(cells)
    if type_name in ("SOLID_MIX8", "SOLID_MIX27", "FACE_MIX4"):
        if type_name == "SOLID_MIX8":
            kinds = _kinds_mix8(cells)
        elif type_name == "SOLID_MIX27":
            kinds = _kinds_mix27(cells)
        else:
            kinds = np.where(cells[:, 3] == ABSENT, "T3", "Q4").astype(object)
        out = []
        for kind in dict.fromkeys(kinds):
            index = np.nonzero(kinds == kind)[0]
            rows = len(LIBRARY_ORDERS[kind])
            out.append((kind, index, np.ascontiguousarray(cells[index, :rows])))
        return out
    return [(type_name, np.arange(len(cells)), cells)]


# ---- the mesh ---------------------------------------------------------------------------

def _type_name(key):
    """A type name from a name, meshio's name or an element type ("TH4" from "tetra",
    t3.TH4 or 14)."""
    return library_type(key)


class Mesh:
    """Coordinates and cells in this library's conventions.

    coords: (n, 3) float64. cells: {type name: (m, k) uint32}, in the library's node
    orders ("TH4", "H27", "T3", ..., or a mixed layout "SOLID_MIX8", "SOLID_MIX27",
    "FACE_MIX4"). point_data: {name: (n, ...) array}. cell_data: {name: {type name:
    (m, ...) array}}. groups: {name: {type name: element indices}} (Gmsh physical groups
    and meshio cell sets). Mesh(meshio_mesh) converts a meshio.Mesh (see from_meshio).
    """

    SOLIDS = ("TH4", "PY5", "W6", "H8", "SOLID_MIX8")
    QUADRATIC_SOLIDS = ("TH10", "PY13", "PY14", "W15", "W18", "H20", "H27", "SOLID_MIX27")
    FACES = ("T3", "Q4", "FACE_MIX4")

    def __init__(self, coords, cells=None, point_data=None, cell_data=None, groups=None):
        if cells is None and _is_meshio(coords):
            other = from_meshio(coords)
            coords, cells, point_data, cell_data, groups = (other.coords, other.cells, other.point_data,
                                                            other.cell_data, other.groups)
        self.coords = np.ascontiguousarray(coords, dtype=np.float64)
        self.cells = {_type_name(k): np.ascontiguousarray(v, dtype=np.uint32) for k, v in (cells or {}).items()}
        self.point_data = dict(point_data or {})
        self.cell_data = {k: {_type_name(t): a for t, a in v.items()} for k, v in (cell_data or {}).items()}
        self.groups = {k: {_type_name(t): a for t, a in v.items()} for k, v in (groups or {}).items()}

    def __repr__(self):
        counts = ", ".join(f"{k}: {len(v)}" for k, v in self.cells.items())
        return f"Mesh({len(self.coords)} nodes; {counts})"

    def nonfinite_nodes(self):
        """Indices of the nodes with a NaN or infinite coordinate (files may hold them;
        the library's measures and conversions give no meaning to them)."""
        return np.nonzero(~np.isfinite(self.coords).all(axis=1))[0]

    def counts(self):
        """{member type: element count}, mixed layouts split into their members."""
        out = {}
        for name, cells in self.cells.items():
            for kind, index, _ in split_mixed(name, cells):
                out[kind] = out.get(kind, 0) + len(index)
        return out

    def _collect(self, names, mixed_name, width):
        blocks = [(k, self.cells[k]) for k in names if k in self.cells and len(self.cells[k])]
        if not blocks:
            return None, None
        if len(blocks) == 1:
            return blocks[0]
        out = np.full((sum(len(b) for _, b in blocks), width), ABSENT, dtype=np.uint32)
        start = 0
        for _, b in blocks:
            out[start:start + len(b), :b.shape[1]] = b
            start += len(b)
        return mixed_name, out

    def solids(self):
        """(type name, connectivity) of the linear solids: one pure type as it is, several
        in the 8-column SOLID_MIX8 layout; (None, None) when there are none."""
        return self._collect(self.SOLIDS, "SOLID_MIX8", 8)

    def quadratic_solids(self):
        """As solids() for the quadratic solids (SOLID_MIX27 when mixed)."""
        return self._collect(self.QUADRATIC_SOLIDS, "SOLID_MIX27", 27)

    def faces(self):
        """(type name, connectivity) of the triangles and quadrangles (FACE_MIX4 when both)."""
        return self._collect(self.FACES, "FACE_MIX4", 4)


# ---- files ----------------------------------------------------------------------------

def _meshio():
    """meshio, with the dimensions of the 13-node pyramid and the 15-node wedge that some
    of its versions leave out of their table (without them no such cell can be made)."""
    import meshio
    import meshio._mesh
    table = getattr(meshio._mesh, "topological_dimension", None)
    if isinstance(table, dict):
        table.setdefault("pyramid13", 3)
        table.setdefault("wedge15", 3)
    return meshio


def formats():
    """The file formats meshio can write, as {name: file extensions}."""
    meshio = _meshio()
    return {name: [e for e, names in meshio._helpers.extension_to_filetypes.items() if name in names]
            for name in sorted(meshio._helpers.writer_map)}


def _extensions():
    return set(_meshio()._helpers.extension_to_filetypes)


def _file_formats(path, file_format):
    """The formats to try, best first: .msh is Gmsh's before ANSYS's."""
    if file_format:
        return [file_format]
    suffix = pathlib.Path(path).suffix.lower()
    if suffix in (".vtu", ".vtk"):
        return [suffix[1:]]
    if suffix == ".inp":
        return ["abaqus"]
    if suffix == ".msh":  # Gmsh's before ANSYS's, without importing meshio for the fast path
        return ["gmsh", "ansys"]
    meshio = _meshio()
    try:
        found = list(meshio._helpers._filetypes_from_path(pathlib.Path(path)))
    except Exception:  # an unknown extension
        raise FileError(f"{path}: unknown file extension (known: {', '.join(sorted(_extensions()))})") from None
    return sorted(found, key=lambda f: not f.startswith("gmsh"))


def _order_family(file_format):
    if file_format.startswith("gmsh"):
        return "meshio-gmsh"
    return "abaqus" if file_format == "abaqus" else "meshio"


def _holds_groups_as_data(file_format):
    return file_format in ("vtu", "vtk", "xdmf")


def _checked_cells(path, name, cells, nb_nodes):
    """The cells as uint32 node indices, refusing any index the file does not define
    (negative, too large, or wrapped around 32 bits)."""
    cells = np.asarray(cells)
    if cells.dtype.kind not in "iu":
        raise FileError(f"{path}: {name} cells are not integers ({cells.dtype})")
    if cells.size and (cells.max() >= nb_nodes or cells.min() < 0):
        bad = (cells >= nb_nodes) | (cells < 0)
        row = int(np.nonzero(bad.any(axis=1))[0][0])
        node = cells[row][bad[row]][0]
        raise FileError(f"{path}: {name} element {row} names node {node}, which the file does not define "
                        f"({nb_nodes} nodes)")
    if cells.dtype.itemsize == 4:
        return cells.view(np.uint32)  # checked non-negative: the same values, no copy
    return cells.astype(np.uint32)


def _assemble(path, points, blocks, point_data):
    """A Mesh from blocks [(type, cells in the library's order, {key: values}, {group:
    element indices})], several blocks of one type put end to end."""
    points = np.asarray(points, dtype=np.float64)
    if points.ndim != 2 or points.shape[1] not in (1, 2, 3):
        raise FileError(f"{path}: points of shape {points.shape}")
    coords = np.zeros((len(points), 3))
    coords[:, :points.shape[1]] = points
    cells, data, groups, counts = {}, {}, {}, {}
    for name, block, block_data, block_groups in blocks:
        block = _checked_cells(path, name, block, len(coords))
        start = counts.get(name, 0)
        cells.setdefault(name, []).append(block)
        for key, values in block_data.items():
            if key.startswith(GROUP_PREFIX):
                chosen = np.nonzero(np.asarray(values).reshape(len(block), -1)[:, 0])[0]
                block_groups = dict(block_groups)
                block_groups[key[len(GROUP_PREFIX):]] = chosen
                continue
            data.setdefault(key, {}).setdefault(name, []).append(np.asarray(values))
        for group, index in block_groups.items():
            index = np.asarray(index, dtype=np.int64)
            if len(index):
                groups.setdefault(group, {}).setdefault(name, []).append(index + start)
        counts[name] = start + len(block)
    cells = {k: v[0] if len(v) == 1 else np.concatenate(v) for k, v in cells.items()}
    cell_data = {}
    for key, per in data.items():
        if all(sum(len(v) for v in values) == counts[name] for name, values in per.items()):
            cell_data[key] = {name: np.concatenate(values) for name, values in per.items()}
    groups = {g: {name: np.unique(np.concatenate(v)).astype(np.uint32) for name, v in per.items()}
              for g, per in groups.items()}
    point_data = {k: np.asarray(v) for k, v in point_data.items()
                  if not k.startswith("gmsh:") and len(np.asarray(v)) == len(coords)}
    return Mesh(coords, cells, point_data, cell_data, groups)


def _read_vtu(path, progress):
    points, blocks, point_data, cell_data = _io_vtk.read_vtu(path, progress)
    out = []
    for vtk_type, index, cells in blocks:
        name = _io_vtk.VTK_TYPES[vtk_type]
        data = {k: np.asarray(v)[index] for k, v in cell_data.items()}
        out.append((name, from_other(name, cells, "vtk"), data, {}))
    return _assemble(path, points, out, point_data)


def _read_abaqus(path):
    points, blocks, sets = _io_abaqus.read(path)
    out = []
    for name, ids, cells in blocks:
        groups = {}
        for group, members in sets.items():
            chosen = np.isin(ids, members)
            if chosen.any():
                groups[group] = np.nonzero(chosen)[0]
        out.append((name, from_other(name, cells, "abaqus"), {}, groups))
    return _assemble(path, points, out, {})


def _meshio_blocks(m, family):
    """Blocks of a meshio.Mesh whose arrays are in `family`'s orders, refusing cells of
    kinds this library has no type for."""
    unknown = {}
    for block in m.cells:
        if block.type not in LIBRARY_TYPES:
            unknown[block.type] = unknown.get(block.type, 0) + len(block.data)
    if unknown:
        listed = ", ".join(f"{k}: {v}" for k, v in sorted(unknown.items()))
        raise ValueError(f"{sum(unknown.values())} cells of kinds this library has no type for ({listed})")
    physical = (m.cell_data or {}).get("gmsh:physical")
    tag_names = {}
    for group, value in (m.field_data or {}).items():
        value = np.asarray(value).ravel()
        if len(value):
            tag_names.setdefault(int(value[0]), []).append((group, int(value[1]) if len(value) > 1 else None))
    sets = {} if physical is not None else {k: v for k, v in (getattr(m, "cell_sets", None) or {}).items()
                                            if not k.startswith("gmsh:")}
    families = (m.cell_data or {}).get("cell_tags") if getattr(m, "cell_tags", None) else None
    blocks = []
    for i, block in enumerate(m.cells):
        name = LIBRARY_TYPES[block.type]
        data = {k: v[i] for k, v in (m.cell_data or {}).items()
                if not k.startswith("gmsh:") and i < len(v) and (k != "cell_tags" or families is None)}
        groups = {}
        if families is not None and i < len(families):  # MED's families: each a set of groups
            tags = np.asarray(families[i])
            for tag in np.unique(tags):
                for group in m.cell_tags.get(int(tag), []):
                    groups[group] = np.concatenate([groups.get(group, np.zeros(0, np.int64)),
                                                    np.nonzero(tags == tag)[0]])
        if physical is not None and i < len(physical):
            tags = np.asarray(physical[i])
            dim = _dimension(name)
            for tag in np.unique(tags):
                for group, group_dim in tag_names.get(int(tag), []):
                    if group_dim in (None, dim):
                        groups[group] = np.nonzero(tags == tag)[0]
        for group, per_block in sets.items():
            if i < len(per_block) and per_block[i] is not None and len(per_block[i]):
                groups[group] = np.asarray(per_block[i], dtype=np.int64)
        cells = np.asarray(block.data)
        if cells.ndim != 2 or cells.shape[1] != len(LIBRARY_ORDERS[name]):
            raise ValueError(f"{block.type} cells of shape {cells.shape}")
        blocks.append((name, from_other(name, cells, family), data, groups))
    return blocks


def _msh_node_tags(path):
    """(node count, largest node tag) from the $Nodes section of a .msh file, found
    without reading the rest; None where the file does not say (meshio reports it)."""
    import mmap
    with open(path, "rb") as f:
        try:
            data = mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ)
        except ValueError:  # an empty file
            return None
        with data:
            head = data.find(b"$MeshFormat")
            nodes = data.find(b"$Nodes")
            if head < 0 or nodes < 0:
                return None
            version, binary, size = data[head:head + 200].split(b"\n")[1].split()[:3]
            start = data.find(b"\n", nodes) + 1
            if version.startswith(b"4"):
                if int(binary):
                    width = int(size)
                    values = np.frombuffer(data[start:start + 4 * width], dtype=f"<u{width}")
                    return int(values[1]), int(values[3])
                values = data[start:data.find(b"\n", start)].split()
                return int(values[1]), int(values[3])
            line_end = data.find(b"\n", start)
            count = int(data[start:line_end])
            if int(binary):
                record = np.dtype([("tag", "<i4"), ("x", "<f8", 3)])
                tags = np.frombuffer(data[line_end + 1:line_end + 1 + count * record.itemsize], dtype=record)["tag"]
            else:
                block = data[line_end + 1:data.find(b"$EndNodes", line_end)]
                tags = np.fromstring(block, sep=" ").reshape(-1, 4)[:, 0] if count else np.zeros(0)
            return count, int(tags.max()) if len(tags) else 0


def _refuse_sparse_node_tags(path):
    """meshio's .msh readers index a table by node tag: refuse tags far beyond the node
    count rather than let a small file cost gigabytes (cost stays linear in the file)."""
    try:
        found = _msh_node_tags(path)
    except (ValueError, IndexError, TypeError, OverflowError):
        return  # malformed: meshio says what is wrong
    if found is not None and found[1] > 16 * found[0] + 2 ** 24:
        raise FileError(f"{path}: node tags up to {found[1]} for {found[0]} nodes, too sparse to read "
                        f"(renumber them, e.g. gmsh {os.path.basename(path)} -0 -o renumbered.msh)")


def _read_msh_text(path, progress):
    """A Mesh through the fast path of text .msh 4.1 files, None when it does not apply."""
    found = _io_msh.read(path, progress)
    if found is None:
        return None
    points, blocks, groups = found
    out = []
    for name, cells in blocks:
        out.append((name, from_other(name, cells, "gmsh"), {}, {}))
    mesh = _assemble(path, points, out, {})
    for group, members in groups.items():
        per = mesh.groups.setdefault(group, {})
        for name, index in members:
            per[name] = np.union1d(per.get(name, np.zeros(0, np.uint32)), index).astype(np.uint32)
    return mesh


def _read_meshio(path, formats, progress=None):
    meshio = _meshio()
    if formats[0].startswith("gmsh"):
        _refuse_sparse_node_tags(path)
    errors = []
    for fmt in formats:
        try:
            with warnings.catch_warnings():
                # an ID beyond 32 bits that a reader would wrap into its int32 arrays: refuse it
                warnings.filterwarnings("error", message=".*out-of-bound Python integers", category=DeprecationWarning)
                with FileWatch(path, progress):
                    m = meshio._helpers.reader_map[fmt](str(path))  # meshio.read exits the process on failure
            break
        except DeprecationWarning:
            errors.append(f"{fmt}: a node or element ID beyond 32 bits")
        except Exception as error:  # meshio raises many kinds on bad files
            errors.append(f"{fmt}: {type(error).__name__}: {str(error).splitlines()[0] if str(error) else ''}".strip())
    else:
        raise FileError(f"{path}: cannot read it as a mesh file ({'; '.join(errors)})")
    return _assemble(path, m.points, _meshio_blocks(m, _order_family(fmt)), m.point_data or {})


def read(path, file_format=None, progress=None):
    """Reads a mesh file into a Mesh in this library's orders (see the module doc).
    progress: None or a callable taking the fraction done (0.0 to 1.0)."""
    path = str(path)
    if not os.path.exists(path):
        raise FileError(f"{path}: no such file")
    if os.path.isdir(path):
        raise FileError(f"{path}: is a directory")
    formats = _file_formats(path, file_format)
    if progress is not None:
        progress(0.0)
    try:
        if formats in (["vtu"], ["vtk"]) and _io_vtk.available():
            mesh = _read_vtu(path, progress)
        elif formats == ["abaqus"]:
            mesh = _read_abaqus(path)
        else:
            mesh = _read_msh_text(path, progress) if formats[0].startswith("gmsh") else None
            if mesh is None:
                mesh = _read_meshio(path, formats, progress)
    except FileError:
        raise
    except (ValueError, OSError, UnicodeDecodeError, MemoryError, IndexError, KeyError) as error:
        raise FileError(f"{path}: {error}") from None
    if progress is not None:
        progress(1.0)
    return mesh


def _write_blocks(path, mesh, family):
    """[(member type, element indices in the mixed array, cells, array name)] to write."""
    out = []
    for name, connect in mesh.cells.items():
        for kind, index, part in split_mixed(name, connect):
            if not len(part):
                continue
            if kind not in MESHIO_TYPES:
                raise FileError(f"{path}: cannot write elements of type {kind}")
            if kind == "PY14" and family == "vtk":
                # VTK has no 14-node pyramid; the base centre of a straight-sided one is redundant
                warnings.warn(f"{path}: PY14 elements written as PY13 (without their base centre)")
                kind, part = "PY13", part[:, :13]
            out.append((kind, index, part, name))
    return out


def write(path, mesh, file_format=None, compression=DEFAULT_COMPRESSION, progress=None, **kwargs):
    """Writes a Mesh (or a (coords, {type name: cells}) pair, or a meshio.Mesh) to a file
    whose format is taken from the extension (or `file_format`).

    compression: None (DEFAULT_COMPRESSION, raw binary), "lz4", "zlib" or "lzma" for
    .vtu; .xdmf is gzip-compressed unless None; other formats ignore it. progress: None
    or a callable taking the fraction done. kwargs go to meshio.write (e.g. binary=False
    for a text .msh)."""
    path = str(path)
    if not isinstance(mesh, Mesh):
        mesh = Mesh(mesh) if _is_meshio(mesh) else Mesh(*mesh)
    if compression not in (None, "zlib", "lz4", "lzma"):
        raise FileError(f"{path}: unknown compression {compression!r} (None, 'zlib', 'lz4' or 'lzma')")
    fmt = _file_formats(path, file_format)[0]
    if fmt == "gmsh":
        fmt = "gmsh22"  # Gmsh's 2.2 format holds several cell types without entity tables
    if progress is not None:
        progress(0.0)
    try:
        if fmt in ("vtu", "vtk") and _io_vtk.available():
            _write_vtu(path, mesh, compression, progress)
        elif fmt == "abaqus":
            _write_abaqus(path, mesh)
        else:
            _write_meshio(path, mesh, fmt, compression, kwargs, progress)
    except FileError:
        raise
    except KeyError as error:
        raise FileError(f"{path}: the format cannot hold elements of type {error}") from None
    except Exception as error:  # the writers raise many kinds
        raise FileError(f"{path}: cannot write it ({type(error).__name__}: {error})") from None
    if progress is not None:
        progress(1.0)


def _block_data(mesh, blocks, with_groups):
    """{key: [per block values]}, cell data of the mixed arrays split along the blocks,
    and with_groups: one 0/1 array per group."""
    data = {}
    for key, per in mesh.cell_data.items():
        if all(per.get(name) is not None for _, _, _, name in blocks):
            data[key] = [np.asarray(per[name])[index] for _, index, _, name in blocks]
        else:  # some blocks lack it: zeros of the same shape there
            sample = next(np.asarray(v) for v in per.values())
            data[key] = [np.asarray(per[name])[index] if per.get(name) is not None
                         else np.zeros((len(index),) + sample.shape[1:], sample.dtype) for _, index, _, name in blocks]
    if with_groups:
        for group, members in mesh.groups.items():
            data[GROUP_PREFIX + group] = [_member_mask(mesh, members, name)[index].view(np.uint8)
                                          for _, index, _, name in blocks]
    return data


def _member_mask(mesh, members, name):
    """Per element of mesh.cells[name], whether the group `members` lists it (a table:
    linear in the counts, where a search would sort)."""
    mask = np.zeros(len(mesh.cells[name]), dtype=bool)
    index = np.asarray(members.get(name, []), dtype=np.int64)
    mask[index[(index >= 0) & (index < len(mask))]] = True
    return mask


def _group_members(mesh, blocks):
    """{group: [per block: indices into the block]}."""
    return {group: [np.nonzero(_member_mask(mesh, members, name)[index])[0] for _, index, _, name in blocks]
            for group, members in mesh.groups.items()}


def _write_vtu(path, mesh, compression, progress):
    blocks = _write_blocks(path, mesh, "vtk")
    data = {k: np.concatenate(v) if v else np.zeros(0) for k, v in _block_data(mesh, blocks, True).items()}
    _io_vtk.write_vtu(path, mesh.coords, [(kind, part, permutation(kind, "vtk")) for kind, _, part, _ in blocks],
                      mesh.point_data, data, compression, progress)


def _write_abaqus(path, mesh):
    blocks = _write_blocks(path, mesh, "abaqus")
    if mesh.point_data or mesh.cell_data:
        warnings.warn(f"{path}: point and cell data not written (.inp holds neither)")
    try:
        _io_abaqus.write(path, mesh.coords, [(kind, to_other(kind, part, "abaqus")) for kind, _, part, _ in blocks],
                         _group_members(mesh, blocks))
    except ValueError as error:
        raise FileError(f"{path}: {error}") from None


def _to_meshio(mesh, fmt, path="mesh"):
    meshio = _meshio()
    family = _order_family(fmt) if fmt else "meshio"
    vtk_like = fmt is not None and _holds_groups_as_data(fmt)
    blocks = _write_blocks(path, mesh, "vtk" if vtk_like else family)
    cells = [(MESHIO_TYPES[kind], to_other(kind, part, family).astype(np.int64)) for kind, _, part, _ in blocks]
    cell_data = _block_data(mesh, blocks, vtk_like)
    field_data, cell_sets = {}, {}
    if fmt is not None and fmt.startswith("gmsh"):
        if len(cells) > 1 and cell_data:
            # meshio cannot read back element data spread over several cell types
            warnings.warn(f"{path}: cell data not written (the Gmsh writer holds it for one element type only)")
            cell_data = {}
        group_tags = {g: i + 1 for i, g in enumerate(mesh.groups)}
        physical = [np.zeros(len(index), dtype=np.int64) for _, index, _, _ in blocks]
        for group, per_block in _group_members(mesh, blocks).items():
            for tags, chosen in zip(physical, per_block):
                tags[chosen] = group_tags[group]
        cell_data["gmsh:physical"] = physical
        cell_data["gmsh:geometrical"] = physical
        for group, tag in group_tags.items():
            dim = max((_dimension(k) for k in mesh.groups[group]), default=3)
            field_data[group] = np.array([tag, dim])
    elif not vtk_like:
        cell_sets = {g: v for g, v in _group_members(mesh, blocks).items() if sum(len(i) for i in v)}
    families = {}
    if fmt == "med" and mesh.groups:
        # MED gives each element one family, a set of groups; element families are negative
        members = _group_members(mesh, blocks)
        cell_data["cell_tags"] = []
        for b in range(len(blocks)):
            key = np.zeros((len(blocks[b][1]), len(members)), dtype=bool)
            for j, per_block in enumerate(members.values()):
                key[per_block[b], j] = True
            combinations, inverse = np.unique(key, axis=0, return_inverse=True)
            tags = np.zeros(len(key), dtype=np.int64)
            for c, combination in enumerate(combinations):
                if combination.any():
                    names = tuple(g for g, chosen in zip(members, combination) if chosen)
                    tag = families.setdefault(names, -1 - len(families))
                    tags[inverse.ravel() == c] = tag
            cell_data["cell_tags"].append(tags)
        cell_sets = {}
    m = meshio.Mesh(mesh.coords, cells, point_data=dict(mesh.point_data), cell_data=cell_data,
                    field_data=field_data, cell_sets=cell_sets or None)
    if families:
        m.cell_tags = {tag: list(names) for names, tag in families.items()}
    return m


def _write_meshio(path, mesh, fmt, compression, kwargs, progress=None):
    meshio = _meshio()
    m = _to_meshio(mesh, fmt, path)
    if progress is not None:
        progress(0.05)
    if fmt not in ("abaqus", "med", "nastran", "permas"):
        m.cell_sets = {}
    if fmt == "vtu":
        kwargs.setdefault("compression", compression)
    elif fmt == "xdmf":
        kwargs.setdefault("compression", "gzip" if compression else None)
    with FileWatch(path, None if progress is None else lambda f: progress(0.05 + 0.95 * f),
                   _expected_size(m, fmt in _TEXT_FORMATS or not kwargs.get("binary", True))):
        meshio.write(path, m, file_format=fmt, **kwargs)


# meshio's writers that write text whatever they are asked (others write binary by default)
_TEXT_FORMATS = {"avsucd", "dolfin-xml", "flac3d", "mdpa", "medit", "nastran", "netgen", "obj", "off", "permas",
                 "su2", "tecplot", "wkt"}


def _expected_size(m, text):
    """About the size of a file holding the arrays of meshio.Mesh m, for a progress
    fraction: their bytes in binary; in text, a printed float ~ 24 characters and an
    integer its digits and a separator (compressed files end smaller: the fraction then
    stops short, and the caller reports 1 when the writing is done)."""
    arrays = [m.points] + [c.data for c in m.cells] + [np.asarray(v) for v in m.point_data.values()] + \
        [np.asarray(a) for v in m.cell_data.values() for a in v]
    if not text:
        return sum(a.nbytes for a in arrays)
    size = 0
    for a in arrays:
        if a.dtype.kind in "iu" and a.size:
            size += a.size * (len(str(max(int(a.max()), -int(a.min())))) + 2)
        else:
            size += a.size * 24
    return size


def _is_meshio(value):
    return hasattr(value, "points") and hasattr(value, "cells") and not isinstance(value, Mesh)


def from_meshio(m):
    """A Mesh from a meshio.Mesh (meshio's node orders converted to this library's; cell
    sets become groups; cells of kinds this library has no type for are refused)."""
    try:
        return _assemble("meshio.Mesh", m.points, _meshio_blocks(m, "meshio"), m.point_data or {})
    except ValueError as error:
        raise FileError(str(error) if str(error).startswith("meshio.Mesh") else f"meshio.Mesh: {error}") from None


def to_meshio(mesh):
    """A meshio.Mesh of a Mesh, in meshio's node orders, groups as cell sets."""
    if not isinstance(mesh, Mesh):
        mesh = Mesh(*mesh)
    return _to_meshio(mesh, None)


def _dimension(type_name):
    if type_name in ("NODE",):
        return 0
    if type_name in ("E2", "E3"):
        return 1
    if type_name in ("T3", "T6", "Q4", "Q8", "Q9", "FACE_MIX4"):
        return 2
    return 3
