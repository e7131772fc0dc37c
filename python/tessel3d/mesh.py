"""Element types, the orientation flips and the helpers that the location and surface
functions need: face neighbours, node-to-element arrays, the node detector, normals."""

import enum

import numpy as np

from . import _arrays as A
from .errors import check

ABSENT = A.ABSENT


class ElementType(enum.IntEnum):
    """The library's element types (values fixed: TH4 == 14)."""
    NONE = 0
    NODE = 1
    E2 = 2
    E3 = 3
    E4 = 4
    FACE_MIX4 = 5
    FACE_MIX9 = 6
    T3 = 7
    T6 = 8
    Q4 = 9
    Q8 = 10
    Q9 = 11
    SOLID_MIX8 = 12
    SOLID_MIX27 = 13
    TH4 = 14
    TH10 = 15
    PY5 = 16
    PY13 = 17
    PY14 = 18
    W6 = 19
    W15 = 20
    W18 = 21
    H8 = 22
    H20 = 23
    H27 = 24


# The element tables of the base mesh library, the one home of the element combinatorics.
_TABLES = A.native("core", "element_tables").element_tables()

# Nodes per element and faces (sides, ends) per element, by type.
ROWS = {t: _TABLES["types"][int(t)][0] for t in ElementType}
FACES = {t: _TABLES["types"][int(t)][3] for t in ElementType}


def version():
    """The library version, "5.5.0.0"."""
    return A.native("core", "version").version()


def set_threads(n=0):
    """Sets how many threads one call may use: n, or with 0 (the default) the cores the process
    may run on (its affinity mask). Results are the same whatever the count. Calls release the
    GIL, so Python threads can run calls side by side; they share the library's threads."""
    n = int(n)
    if not 0 <= n < 2**32:
        raise ValueError(f"set_threads: n must be 0 or a positive count, not {n}")
    A.native("core", "set_threads").set_threads(n)


def threads():
    """How many threads one call may use (at least 1)."""
    return A.native("core", "threads").threads()


def element_type(value):
    """An ElementType from a type, its value, its name ("TH4", "th4") or meshio's name
    of it ("tetra")."""
    if isinstance(value, str):
        from ._io_orders import LIBRARY_TYPES
        try:
            return ElementType[LIBRARY_TYPES.get(value, value).upper()]
        except KeyError:
            raise ValueError(f"unknown element type {value!r}") from None
    return ElementType(int(value))


def solid_type(connect):
    """The type of a linear solid connectivity by its columns: TH4, PY5, W6, then H8 (8
    columns, no absent entry) or SOLID_MIX8 (8 columns with absent entries)."""
    columns = connect.shape[1]
    if columns == 8:
        return ElementType.SOLID_MIX8 if (np.asarray(connect) == ABSENT).any() else ElementType.H8
    by_columns = {4: ElementType.TH4, 5: ElementType.PY5, 6: ElementType.W6}
    if columns not in by_columns:
        raise ValueError(f"a linear solid connectivity has 4, 5, 6 or 8 columns, not {columns}")
    return by_columns[columns]


def flip(connect, type):
    """Reverses the orientation of every element in place and returns `connect`.

    connect: (m, k) node IDs, modified in place (a uint32 array is the library's own
    memory; another integer array is converted, flipped and copied back).
    type: the element type; k must be its node count (27 for SOLID_MIX8, which here
    stands for the 27-column mixed high-order layout). Exchanges per type: TH4, PY5 0-2;
    W6 0-2 3-5; H8 0-2 4-6; the quadratic types their matching pairs; PY13, W15, H20 and
    the face types are left as they are.
    """
    c, back = A.in_out(connect, A.id_matrix, "flip", "connect", 1)
    t = element_type(type)
    status = A.native("core", "flip").flip(c, int(t))
    check("flip", status, {"connect": c, "type_name": t.name,
                           "type_rows": 27 if t == ElementType.SOLID_MIX8 else ROWS[t]})
    return back()


def _flip_single(name, native_name):
    def flip_single(connect):
        c, back = A.in_out(connect, A.id_matrix, name, "connect", 1)
        check(name, getattr(A.native("core", name), native_name)(c), {"connect": c})
        return back()
    flip_single.__name__ = name
    return flip_single


flip_th4 = _flip_single("flip_th4", "flip_TH4")
flip_th4.__doc__ = "Exchanges nodes 0 and 1 of every (m, 4) tetrahedron in place; returns connect."
flip_w6 = _flip_single("flip_w6", "flip_W6")
flip_w6.__doc__ = "Exchanges the two triangles (0-3, 1-4, 2-5) of every (m, 6) wedge in place; returns connect."
flip_h8 = _flip_single("flip_h8", "flip_H8")
flip_h8.__doc__ = "Exchanges the two quadrangles (0-4 ... 3-7) of every (m, 8) hexahedron in place; returns connect."


def get_neighbors(connect, type=None):
    """Face adjacency: an (m, faces) uint32 array, entry (e, f) the element across face f
    of element e, ABSENT on the boundary. type defaults to solid_type(connect). Faces:
    TH4 face f opposite node f; PY5 (0,4,1) (1,4,2) (2,4,3) (3,4,0) (0,1,2,3); W6 (0,1,2)
    (3,5,4) (2,1,4,5) (0,2,5,3) (1,0,3,4); H8 (0,3,7,4) (1,5,6,2) (0,4,5,1) (3,2,6,7)
    (0,1,2,3) (4,7,6,5)."""
    c = A.id_matrix(connect, "get_neighbors", "connect", 1)
    t = solid_type(c) if type is None else element_type(type)
    status, neighbors = A.native("mesh", "get_neighbors").get_neighbors(c, int(t))
    check("get_neighbors", status, {"connect": c})
    return neighbors


def get_node_element(connect, nb_nodes):
    """For each node 0 .. nb_nodes - 1 the first element that holds it, ABSENT for none."""
    c = A.id_matrix(connect, "get_node_element", "connect", 1)
    status, node_element = A.native("mesh", "get_node_element").get_node_element(c, int(nb_nodes))
    check("get_node_element", status, {"connect": c})
    return node_element


def surface_normals(coords, surface, angle=0.0, unit=True):
    """Nodal normals (n, 3) of a triangle / quadrangle surface: per node the average of
    the normals of its faces weighted by their angles at the node (right-hand rule),
    unit length when `unit`; angle > 0 is a feature angle in radians."""
    x = A.real_matrix(coords, "surface_normals", "coords", 1)
    s = A.id_matrix(surface, "surface_normals", "surface", 2)
    status, normals = A.native("mesh", "surface_normals").normals(x, s, float(angle), bool(unit))
    check("surface_normals", status, {"coords": x, "surface": s})
    return normals


class NodeDetector:
    """Nearest-node search over the nodes of coords (all, or those listed in ids)."""

    def __init__(self, coords, ids=None):
        x = A.real_matrix(coords, "NodeDetector", "coords", 1)
        ids = None if ids is None else A.id_vector(ids, "NodeDetector", "ids", 2)
        self.native = A.native("mesh", "NodeDetector").NodeDetector(x, ids)

    def __len__(self):
        return len(self.native)

    def _query(self, points, closest):
        p = np.asarray(points, dtype=np.float64)
        single = p.ndim == 1
        p = np.ascontiguousarray(p.reshape(-1, 3))
        found = self.native.find_closest(p) if closest else self.native.find_close(p)
        return int(found[0]) if single else found

    def find_close(self, points):
        """Some node near each point (cheap); ABSENT when there is none."""
        return self._query(points, False)

    def find_closest(self, points):
        """The node nearest each point; ABSENT only when the detector holds no node."""
        return self._query(points, True)


def mixed(blocks):
    """Stacks linear solid blocks (arrays of 4, 5, 6 or 8 columns) into one 8-column
    SOLID_MIX8 array, absent entries padding the smaller kinds."""
    parts = []
    for block in blocks:
        b = np.asarray(block, dtype=np.uint32)
        if b.size == 0:
            continue
        padded = np.full((b.shape[0], 8), ABSENT, dtype=np.uint32)
        padded[:, :b.shape[1]] = b
        parts.append(padded)
    return np.concatenate(parts) if parts else np.zeros((0, 8), dtype=np.uint32)


# Faces and edges of the linear solids (the get_neighbors order for the faces), right-hand
# normals pointing into a positive element.
SOLID_FACES = {name: _TABLES["solids"][int(ElementType[name])]["faces"] for name in ("TH4", "PY5", "W6", "H8")}
SOLID_EDGES = {name: _TABLES["solids"][int(ElementType[name])]["edges"] for name in ("TH4", "PY5", "W6", "H8")}

# Member type of a column of a mixed layout by its number of present entries.
_MEMBERS = {8: {4: "TH4", 5: "PY5", 6: "W6", 8: "H8"}, 27: {10: "TH10", 14: "PY14", 18: "W18", 27: "H27"},
            4: {3: "T3", 4: "Q4"}}


def member_types(connect, type_name):
    """The type name of every element of a connectivity: its own type for a pure one, the
    member type (by its count of present entries) for SOLID_MIX8, SOLID_MIX27, FACE_MIX4."""
    connect = np.asarray(connect)
    if type_name not in ("SOLID_MIX8", "SOLID_MIX27", "FACE_MIX4"):
        return np.full(len(connect), type_name, dtype=object)
    present = (connect != ABSENT).sum(axis=1)
    names = np.full(len(connect), None, dtype=object)
    for count, name in _MEMBERS[connect.shape[1]].items():
        names[present == count] = name
    return names


def signed_volumes(coords, connect, type_name):
    """The signed volume of every linear solid (m,), by the corners of its faces: each face
    is cut into triangles around its centre, each triangle makes a tetrahedron with the
    element's centre. Exact for plane faces, positive for a positive element; quadratic
    types are measured by their corners (which come first)."""
    coords = np.asarray(coords, dtype=np.float64)
    connect = np.asarray(connect)
    out = np.zeros(len(connect))
    kinds = member_types(connect, type_name)
    for kind in dict.fromkeys(kinds):
        rows = np.nonzero(kinds == kind)[0]
        base = {"TH10": "TH4", "PY13": "PY5", "PY14": "PY5", "W15": "W6", "W18": "W6", "H20": "H8",
                "H27": "H8"}.get(kind, kind)
        if base not in SOLID_FACES:
            continue
        corners = len(set(sum(SOLID_FACES[base], ())))
        x = coords[connect[rows, :corners].astype(np.int64)]
        centre = x.mean(axis=1)
        total = np.zeros(len(rows))
        for face in SOLID_FACES[base]:
            p = x[:, list(face)]
            middle = p.mean(axis=1)
            for i in range(len(face)):
                a, b = p[:, i], p[:, (i + 1) % len(face)]
                total += np.einsum("ij,ij->i", np.cross(a - middle, b - middle), centre - middle)
        out[rows] = total / 6.0
    return out
