"""Mesh files through meshio, in this library's node orders.

    mesh = tessel3d.io.read("part.msh")          # a Mesh: coords (n, 3), cells by type
    tessel3d.io.write("part.vtu", mesh)

Every format that meshio knows is read and written (.msh, .vtu, .vtk, .inp, .med, .xdmf,
.mesh, .bdf, ...). Cells are stored by this library's type names ("TH4", "H27", "T3",
...) in this library's node orders, which differ from the files' (VTK's and Gmsh's):

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
"""

import os
import pathlib
import warnings

import numpy as np

ABSENT = 0xFFFFFFFF

# ---- node orders --------------------------------------------------------------------
#
# A node is named by the set of corners it sits between: a corner by itself, an edge node
# by its two ends, a face centre by the face's corners, an element centre by all corners.
# A type's order is a list of names; the permutation between two orders is read off by
# matching names, after mapping the file's corner numbers onto the library's.


def _order(corners, edges=(), faces=(), centre=False):
    names = [frozenset([c]) for c in range(corners)]
    names += [frozenset(e) for e in edges] + [frozenset(f) for f in faces]
    if centre:
        names.append(frozenset(range(corners)))
    return names


_TH_EDGES = ((1, 2), (2, 0), (0, 1), (3, 0), (3, 1), (3, 2))
_PY_EDGES = ((0, 4), (1, 4), (2, 4), (3, 4), (0, 1), (1, 2), (2, 3), (3, 0))
_W_EDGES = ((0, 3), (1, 4), (2, 5), (1, 2), (2, 0), (0, 1), (4, 5), (5, 3), (3, 4))
_W_QUADS = ((2, 1, 4, 5), (0, 2, 5, 3), (1, 0, 3, 4))
_H_EDGES = ((0, 1), (1, 2), (2, 3), (3, 0), (4, 5), (5, 6), (6, 7), (7, 4), (0, 4), (1, 5), (2, 6), (3, 7))
_H_FACES = ((0, 3, 7, 4), (1, 2, 6, 5), (0, 1, 5, 4), (2, 3, 7, 6), (0, 1, 2, 3), (4, 5, 6, 7))

# This library's orders, by type name.
LIBRARY_ORDERS = {
    "NODE": _order(1),
    "E2": _order(2),
    "E3": _order(2, [(0, 1)]),
    "T3": _order(3),
    "T6": _order(3, [(1, 2), (2, 0), (0, 1)]),
    "Q4": _order(4),
    "Q8": _order(4, [(0, 1), (1, 2), (2, 3), (3, 0)]),
    "Q9": _order(4, [(0, 1), (1, 2), (2, 3), (3, 0)], centre=True),
    "TH4": _order(4),
    "TH10": _order(4, _TH_EDGES),
    "PY5": _order(5),
    "PY13": _order(5, _PY_EDGES),
    "PY14": _order(5, _PY_EDGES, [(0, 1, 2, 3)]),
    "W6": _order(6),
    "W15": _order(6, _W_EDGES),
    "W18": _order(6, _W_EDGES, _W_QUADS),
    "H8": _order(8),
    "H20": _order(8, _H_EDGES),
    "H27": _order(8, _H_EDGES, _H_FACES, centre=True),
}

MESHIO_TYPES = {
    "NODE": "vertex", "E2": "line", "E3": "line3", "T3": "triangle", "T6": "triangle6", "Q4": "quad",
    "Q8": "quad8", "Q9": "quad9", "TH4": "tetra", "TH10": "tetra10", "PY5": "pyramid", "PY13": "pyramid13",
    "PY14": "pyramid14", "W6": "wedge", "W15": "wedge15", "W18": "wedge18", "H8": "hexahedron",
    "H20": "hexahedron20", "H27": "hexahedron27",
}
LIBRARY_TYPES = {v: k for k, v in MESHIO_TYPES.items()}

# The orders of the cells meshio hands over, as (corner map, order): corner i of the file
# is corner map[i] of the library. meshio keeps VTK's orders, except for the linear wedge
# (Gmsh's, oriented as this library's) and, for Gmsh files, the quadratic wedges and the
# 14-node pyramid, which it passes in Gmsh's corner orientation or order.
_TET = (0, 2, 1, 3)
_VTK_WEDGE = (0, 2, 1, 3, 5, 4)
_VTK_W_EDGES = ((0, 1), (1, 2), (2, 0), (3, 4), (4, 5), (5, 3), (0, 3), (1, 4), (2, 5))
_VTK_H_EDGES = _H_EDGES
_VTK_ORDERS = {
    "E3": (None, _order(2, [(0, 1)])),
    "T6": (None, _order(3, [(0, 1), (1, 2), (2, 0)])),
    "Q8": (None, _order(4, [(0, 1), (1, 2), (2, 3), (3, 0)])),
    "Q9": (None, _order(4, [(0, 1), (1, 2), (2, 3), (3, 0)], centre=True)),
    "TH4": (_TET, _order(4)),
    "TH10": (_TET, _order(4, [(0, 1), (1, 2), (2, 0), (0, 3), (1, 3), (2, 3)])),
    "PY13": (None, _order(5, [(0, 1), (1, 2), (2, 3), (3, 0), (0, 4), (1, 4), (2, 4), (3, 4)])),
    "W15": (_VTK_WEDGE, _order(6, _VTK_W_EDGES)),
    "W18": (_VTK_WEDGE, _order(6, _VTK_W_EDGES, [(0, 1, 4, 3), (1, 2, 5, 4), (2, 0, 3, 5)])),
    "H20": (None, _order(8, _VTK_H_EDGES)),
    "H27": (None, _order(8, _VTK_H_EDGES, [(0, 4, 7, 3), (1, 2, 6, 5), (0, 1, 5, 4), (3, 7, 6, 2), (0, 3, 2, 1),
                                           (4, 5, 6, 7)], centre=True)),
}
_GMSH_ORDERS = dict(_VTK_ORDERS)
_GMSH_ORDERS.update({
    "W15": (None, _order(6, _VTK_W_EDGES)),
    "W18": (None, _order(6, ((0, 1), (0, 2), (0, 3), (1, 2), (1, 4), (2, 5), (3, 4), (3, 5), (4, 5)),
                         [(0, 1, 4, 3), (0, 2, 5, 3), (1, 2, 5, 4)])),
    "PY14": (None, _order(5, ((0, 1), (0, 3), (0, 4), (1, 2), (1, 4), (2, 3), (2, 4), (3, 4)), [(0, 1, 2, 3)])),
})


def _permutation(type_name, family):
    """p such that file_cells = library_cells[:, p] (None for the identity)."""
    entry = (_GMSH_ORDERS if family == "gmsh" else _VTK_ORDERS).get(type_name)
    if entry is None:
        return None
    corner_map, names = entry
    if corner_map is not None:
        names = [frozenset(corner_map[c] for c in name) for name in names]
    library = LIBRARY_ORDERS[type_name]
    p = np.array([library.index(name) for name in names])
    return None if (p == np.arange(len(p))).all() else p


def to_file_order(type_name, cells, family="vtk"):
    """Cells in this library's order -> the order meshio expects for the format family
    ("gmsh" for .msh files, "vtk" for every other format)."""
    p = _permutation(type_name, family)
    return cells if p is None else cells[:, p]


def from_file_order(type_name, cells, family="vtk"):
    """The inverse of to_file_order."""
    p = _permutation(type_name, family)
    if p is None:
        return cells
    out = np.empty_like(cells)
    out[:, p] = cells
    return out


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
    """A type name from a name or an element type ("TH4" from t3.TH4 or 14)."""
    if isinstance(key, str):
        return key
    from .mesh import ElementType
    return ElementType(int(key)).name


class Mesh:
    """Coordinates and cells in this library's conventions.

    coords: (n, 3) float64. cells: {type name: (m, k) uint32}, in the library's node
    orders ("TH4", "H27", "T3", ..., or a mixed layout "SOLID_MIX8", "SOLID_MIX27",
    "FACE_MIX4"). point_data: {name: (n, ...) array}. cell_data: {name: {type name:
    (m, ...) array}}. groups: {name: {type name: element indices}} (Gmsh physical groups
    and meshio cell sets).
    """

    SOLIDS = ("TH4", "PY5", "W6", "H8", "SOLID_MIX8")
    QUADRATIC_SOLIDS = ("TH10", "PY13", "PY14", "W15", "W18", "H20", "H27", "SOLID_MIX27")
    FACES = ("T3", "Q4", "FACE_MIX4")

    def __init__(self, coords, cells=None, point_data=None, cell_data=None, groups=None):
        self.coords = np.ascontiguousarray(coords, dtype=np.float64)
        self.cells = {_type_name(k): np.ascontiguousarray(v, dtype=np.uint32) for k, v in (cells or {}).items()}
        self.point_data = dict(point_data or {})
        self.cell_data = {k: {_type_name(t): a for t, a in v.items()} for k, v in (cell_data or {}).items()}
        self.groups = {k: {_type_name(t): a for t, a in v.items()} for k, v in (groups or {}).items()}

    def __repr__(self):
        counts = ", ".join(f"{k}: {len(v)}" for k, v in self.cells.items())
        return f"Mesh({len(self.coords)} nodes; {counts})"

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


def _file_formats(path, file_format):
    """The formats to try, best first: .msh is Gmsh's before ANSYS's."""
    if file_format:
        return [file_format]
    meshio = _meshio()
    try:
        found = list(meshio._helpers._filetypes_from_path(pathlib.Path(path)))
    except Exception:  # an unknown extension
        raise FileError(f"{path}: unknown file extension (known: {', '.join(sorted(_extensions()))})") from None
    return sorted(found, key=lambda f: not f.startswith("gmsh"))


def _extensions():
    meshio = _meshio()
    return set(meshio._helpers.extension_to_filetypes)


def _family(file_format):
    return "gmsh" if file_format and file_format.startswith("gmsh") else "vtk"


_FORMATS_WITH_SETS = ("abaqus", "med", "nastran", "permas")


class FileError(ValueError):
    """A mesh file could not be read or written."""


def read(path, file_format=None):
    """Reads a mesh file into a Mesh in this library's orders (see the module doc)."""
    meshio = _meshio()
    if not os.path.exists(path):
        raise FileError(f"{path}: no such file")
    if os.path.isdir(path):
        raise FileError(f"{path}: is a directory")
    errors = []
    for fmt in _file_formats(path, file_format):
        try:
            m = meshio._helpers.reader_map[fmt](str(path))  # meshio.read exits the process on failure
            break
        except Exception as error:  # meshio raises many kinds on bad files
            errors.append(f"{fmt}: {type(error).__name__}: {error}".strip())
    else:
        raise FileError(f"{path}: cannot read it as a mesh file ({'; '.join(errors)})")
    family = _family(fmt)
    points = np.asarray(m.points, dtype=np.float64)
    if points.ndim != 2 or points.shape[1] not in (1, 2, 3):
        raise FileError(f"{path}: points of shape {points.shape}")
    coords = np.zeros((len(points), 3))
    coords[:, :points.shape[1]] = points

    blocks, data, block_of = {}, {}, []
    for i, block in enumerate(m.cells):
        name = LIBRARY_TYPES.get(block.type)
        block_of.append((name, sum(len(b) for b in blocks.get(name, [])) if name else 0))
        if name is None:
            continue
        cells = from_file_order(name, np.asarray(block.data), family).astype(np.uint32)
        blocks.setdefault(name, []).append(cells)
        for key, values in m.cell_data.items():
            data.setdefault(key, {}).setdefault(name, []).append(np.asarray(values[i]))
    cells = {k: np.concatenate(v) for k, v in blocks.items()}
    cell_data = {key: {k: np.concatenate(v) for k, v in per.items()} for key, per in data.items()
                 if not key.startswith("gmsh:")}

    groups = {}
    physical = {k: np.concatenate(v) for k, v in data.get("gmsh:physical", {}).items()} if family == "gmsh" else {}
    for group, value in (m.field_data or {}).items() if physical else ():
        tag = np.asarray(value).ravel()[0]
        for name, tags in physical.items():
            index = np.nonzero(tags == tag)[0]
            if len(index):
                groups.setdefault(group, {})[name] = index.astype(np.uint32)
    sets = {} if physical else (getattr(m, "cell_sets", None) or {})  # Gmsh's sets repeat its groups
    for group, per_block in sets.items():
        for i, index in enumerate(per_block):
            name, start = block_of[i] if i < len(block_of) else (None, 0)
            if name is not None and index is not None and len(index):
                old = groups.setdefault(group, {}).get(name, np.zeros(0, np.uint32))
                groups[group][name] = np.unique(np.concatenate([old, np.asarray(index, dtype=np.uint32) + start]))
    return Mesh(coords, cells, dict(m.point_data), cell_data, groups)


def write(path, mesh, file_format=None, **kwargs):
    """Writes a Mesh (or a (coords, {type name: cells}) pair) to a file whose format
    meshio takes from the extension (or `file_format`); kwargs go to meshio.write."""
    meshio = _meshio()
    if not isinstance(mesh, Mesh):
        mesh = Mesh(*mesh)
    fmt = _file_formats(path, file_format)[0]
    if fmt == "gmsh":
        fmt = "gmsh22"  # Gmsh's 2.2 format holds several cell types without entity tables
    family = _family(fmt)
    cells, cell_data, physical, cell_sets = [], {}, [], {g: [] for g in mesh.groups}
    group_tags = {g: i + 1 for i, g in enumerate(mesh.groups)}
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
            cells.append((MESHIO_TYPES[kind], to_file_order(kind, part, family).astype(np.int64)))
            for key, per in mesh.cell_data.items():
                values = per.get(name)
                cell_data.setdefault(key, []).append(
                    np.asarray(values)[index] if values is not None else np.zeros(len(index)))
            tags = np.zeros(len(index), dtype=np.int64)
            for group, members in mesh.groups.items():
                chosen = np.asarray(members.get(name, []), dtype=np.int64)
                inside = np.isin(index, chosen)
                tags[inside] = group_tags[group]
                cell_sets[group].append(np.nonzero(inside)[0])
            physical.append(tags)
    field_data = {}
    if family == "gmsh":
        if len(cells) > 1 and any(not k.startswith("gmsh:") for k in cell_data):
            # meshio cannot read back element data spread over several cell types
            warnings.warn(f"{path}: cell data not written (the Gmsh writer holds it for one element type only)")
            cell_data = {}
        cell_data["gmsh:physical"] = physical
        cell_data["gmsh:geometrical"] = physical
        for group, tag in group_tags.items():
            dim = max((_dimension(k) for k in mesh.groups[group]), default=3)
            field_data[group] = np.array([tag, dim])
    else:
        cell_sets = {g: v for g, v in cell_sets.items() if sum(len(i) for i in v)}
    m = meshio.Mesh(mesh.coords, cells, point_data=mesh.point_data, cell_data=cell_data, field_data=field_data,
                    cell_sets=cell_sets if fmt in _FORMATS_WITH_SETS else None)
    try:
        meshio.write(path, m, file_format=fmt, **kwargs)
    except KeyError as error:
        raise FileError(f"{path}: the format cannot hold elements of type {error}") from None
    except Exception as error:
        raise FileError(f"{path}: cannot write it ({type(error).__name__}: {error})") from None


def _dimension(type_name):
    if type_name in ("NODE",):
        return 0
    if type_name in ("E2", "E3"):
        return 1
    if type_name in ("T3", "T6", "Q4", "Q8", "Q9", "FACE_MIX4"):
        return 2
    return 3
