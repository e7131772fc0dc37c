"""Node orders of the element types: this library's, and those of the files and tools it
meets (VTK, Gmsh, Abaqus, and meshio's in-memory arrays).

A node is named by the set of corners it sits between: a corner by itself, an edge node
by its two ends, a face centre by the face's corners, an element centre by all corners.
An order is a list of such names; the permutation between two orders is read off by
matching names, after mapping the other order's corner numbers onto the library's.
Each order below was checked against its owner's definition (an element built on the
owner's reference coordinates, measured by the owner's validator or Jacobians, then read
here): see python/tests/test_io_referees.py and docs/node-orders.md.
"""

import numpy as np

from .mesh import SOLID_EDGES  # this library's edge orders, from the base mesh library


def _order(corners, edges=(), faces=(), centre=False):
    names = [frozenset([c]) for c in range(corners)]
    names += [frozenset(e) for e in edges] + [frozenset(f) for f in faces]
    if centre:
        names.append(frozenset(range(corners)))
    return names


# ---- this library -------------------------------------------------------------------

TH_EDGES = SOLID_EDGES["TH4"]
PY_EDGES = SOLID_EDGES["PY5"]
W_EDGES = SOLID_EDGES["W6"]
W_QUADS = ((2, 1, 4, 5), (0, 2, 5, 3), (1, 0, 3, 4))
H_EDGES = SOLID_EDGES["H8"]
H_FACES = ((0, 3, 7, 4), (1, 2, 6, 5), (0, 1, 5, 4), (2, 3, 7, 6), (0, 1, 2, 3), (4, 5, 6, 7))
Q_EDGES = ((0, 1), (1, 2), (2, 3), (3, 0))

LIBRARY_ORDERS = {
    "NODE": _order(1),
    "E2": _order(2),
    "E3": _order(2, [(0, 1)]),
    "T3": _order(3),
    "T6": _order(3, [(1, 2), (2, 0), (0, 1)]),
    "Q4": _order(4),
    "Q8": _order(4, Q_EDGES),
    "Q9": _order(4, Q_EDGES, centre=True),
    "TH4": _order(4),
    "TH10": _order(4, TH_EDGES),
    "PY5": _order(5),
    "PY13": _order(5, PY_EDGES),
    "PY14": _order(5, PY_EDGES, [(0, 1, 2, 3)]),
    "W6": _order(6),
    "W15": _order(6, W_EDGES),
    "W18": _order(6, W_EDGES, W_QUADS),
    "H8": _order(8),
    "H20": _order(8, H_EDGES),
    "H27": _order(8, H_EDGES, H_FACES, centre=True),
}

MESHIO_TYPES = {
    "NODE": "vertex", "E2": "line", "E3": "line3", "T3": "triangle", "T6": "triangle6", "Q4": "quad",
    "Q8": "quad8", "Q9": "quad9", "TH4": "tetra", "TH10": "tetra10", "PY5": "pyramid", "PY13": "pyramid13",
    "PY14": "pyramid14", "W6": "wedge", "W15": "wedge15", "W18": "wedge18", "H8": "hexahedron",
    "H20": "hexahedron20", "H27": "hexahedron27",
}
LIBRARY_TYPES = {v: k for k, v in MESHIO_TYPES.items()}

# ---- the other tools' orders, as (corner map, names): corner i of the other order is
# corner map[i] of the library's (None: the same corners) ----------------------------

# Their tetrahedra are oriented the other way round: node 3 on the positive side of 0-1-2.
_TET = (0, 2, 1, 3)
T6_SIDES = ((0, 1), (1, 2), (2, 0))

# VTK's own cell orders (VTK_TETRA ... VTK_TRIQUADRATIC_HEXAHEDRON). Its linear wedge has
# the normal of 0-1-2 pointing away from 3-4-5; its quadratic wedges the other way round,
# as this library's wedges.
VTK_ORDERS = {
    "T6": (None, _order(3, T6_SIDES)),
    "Q8": (None, _order(4, Q_EDGES)),
    "Q9": (None, _order(4, Q_EDGES, centre=True)),
    "TH4": (_TET, _order(4)),
    "TH10": (_TET, _order(4, [(0, 1), (1, 2), (2, 0), (0, 3), (1, 3), (2, 3)])),
    "PY13": (None, _order(5, Q_EDGES + ((0, 4), (1, 4), (2, 4), (3, 4)))),
    "W6": ((0, 2, 1, 3, 5, 4), _order(6)),
    "W15": (None, _order(6, ((0, 1), (1, 2), (2, 0), (3, 4), (4, 5), (5, 3), (0, 3), (1, 4), (2, 5)))),
    "W18": (None, _order(6, ((0, 1), (1, 2), (2, 0), (3, 4), (4, 5), (5, 3), (0, 3), (1, 4), (2, 5)),
                         [(0, 1, 4, 3), (1, 2, 5, 4), (2, 0, 3, 5)])),
    "H20": (None, _order(8, H_EDGES)),
    "H27": (None, _order(8, H_EDGES, [(0, 4, 7, 3), (1, 2, 6, 5), (0, 1, 5, 4), (3, 7, 6, 2), (0, 3, 2, 1),
                                      (4, 5, 6, 7)], centre=True)),
}

# Gmsh's own orders (its .msh files and its API).
GMSH_ORDERS = {
    "T6": (None, _order(3, T6_SIDES)),
    "Q8": (None, _order(4, Q_EDGES)),
    "Q9": (None, _order(4, Q_EDGES, centre=True)),
    "TH4": (_TET, _order(4)),
    "TH10": (_TET, _order(4, [(0, 1), (1, 2), (2, 0), (0, 3), (2, 3), (1, 3)])),
    "PY13": (None, _order(5, ((0, 1), (0, 3), (0, 4), (1, 2), (1, 4), (2, 3), (2, 4), (3, 4)))),
    "PY14": (None, _order(5, ((0, 1), (0, 3), (0, 4), (1, 2), (1, 4), (2, 3), (2, 4), (3, 4)), [(0, 1, 2, 3)])),
    "W15": (None, _order(6, ((0, 1), (0, 2), (0, 3), (1, 2), (1, 4), (2, 5), (3, 4), (3, 5), (4, 5)))),
    "W18": (None, _order(6, ((0, 1), (0, 2), (0, 3), (1, 2), (1, 4), (2, 5), (3, 4), (3, 5), (4, 5)),
                         [(0, 1, 4, 3), (0, 2, 5, 3), (1, 2, 5, 4)])),
    "H20": (None, _order(8, ((0, 1), (0, 3), (0, 4), (1, 2), (1, 5), (2, 3), (2, 6), (3, 7), (4, 5), (4, 7),
                             (5, 6), (6, 7)))),
    "H27": (None, _order(8, ((0, 1), (0, 3), (0, 4), (1, 2), (1, 5), (2, 3), (2, 6), (3, 7), (4, 5), (4, 7),
                             (5, 6), (6, 7)),
                         [(0, 3, 2, 1), (0, 1, 5, 4), (0, 4, 7, 3), (1, 2, 6, 5), (2, 3, 7, 6), (4, 5, 6, 7)],
                         centre=True)),
}

# meshio's arrays: VTK's orders, but the linear wedge as Gmsh's (and this library's) and
# the 14-node pyramid, which VTK lacks, as Gmsh's.
MESHIO_ORDERS = dict(VTK_ORDERS)
MESHIO_ORDERS.update({"W6": (None, _order(6)), "PY14": GMSH_ORDERS["PY14"]})

# meshio's arrays read from or written to .msh files: meshio converts Gmsh's orders into
# its own except for the 18-node wedge and the 14-node pyramid, which it passes as they are.
MESHIO_GMSH_ORDERS = dict(MESHIO_ORDERS)
MESHIO_GMSH_ORDERS.update({"W18": GMSH_ORDERS["W18"], "PY14": GMSH_ORDERS["PY14"]})

# Abaqus: VTK's orders for the tetrahedra, serendipity wedges and hexahedra, the linear
# wedge oriented as this library's; C3D27 as Gmsh writes it: the centre after the edge
# nodes, then the centres of the faces 1234, 5678, 1256, 2367, 3478, 1458.
ABAQUS_ORDERS = dict(MESHIO_ORDERS)
ABAQUS_ORDERS.update({
    "H27": (None, _order(8, H_EDGES) + [frozenset(range(8))]
            + [frozenset(f) for f in ((0, 1, 2, 3), (4, 5, 6, 7), (0, 1, 4, 5), (1, 2, 5, 6), (2, 3, 6, 7),
                                      (0, 3, 4, 7))]),
})

FAMILIES = {"vtk": VTK_ORDERS, "gmsh": GMSH_ORDERS, "meshio": MESHIO_ORDERS, "meshio-gmsh": MESHIO_GMSH_ORDERS,
            "abaqus": ABAQUS_ORDERS}


def _permutation(type_name, family):
    """p such that other_cells = library_cells[:, p] (None for the identity)."""
    if family not in FAMILIES:
        raise ValueError(f"unknown node order {family!r} (known: {', '.join(FAMILIES)})")
    entry = FAMILIES[family].get(type_name)
    if entry is None:
        return None
    corner_map, names = entry
    if corner_map is not None:
        names = [frozenset(corner_map[c] for c in name) for name in names]
    library = LIBRARY_ORDERS[type_name]
    p = np.array([library.index(name) for name in names])
    return None if (p == np.arange(len(p))).all() else p


_PERMUTATIONS = {(t, f): _permutation(t, f) for f in FAMILIES for t in LIBRARY_ORDERS}


def permutation(type_name, family):
    return _PERMUTATIONS[type_name, family] if (type_name, family) in _PERMUTATIONS else _permutation(type_name, family)


def to_other(type_name, cells, family):
    """Cells in this library's order -> the order of `family`."""
    p = permutation(type_name, family)
    return cells if p is None else _columns(cells, p)


def from_other(type_name, cells, family):
    """Cells in the order of `family` -> this library's order."""
    p = permutation(type_name, family)
    return cells if p is None else _columns(cells, np.argsort(p))


def _columns(cells, order):
    """cells[:, order] for a permutation `order` of the columns (np.take: twice as fast
    as indexing on a large array)."""
    cells = np.asarray(cells)
    if cells.ndim != 2 or cells.shape[1] != len(order):
        raise ValueError(f"cells of {cells.shape[-1] if cells.ndim else 0} columns where {len(order)} are expected")
    return np.take(cells, order, axis=1)
