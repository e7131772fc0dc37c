"""Element arrays in NumPy for the command line: faces and edges of solids, the flips of
every solid type, and the naming of the nodes an operation builds (by the corners they
are built from, in the orders of tessel3d.io.LIBRARY_ORDERS)."""

import numpy as np

from . import io as mio
from .mesh import ABSENT, SOLID_FACES, member_types

LINEAR_SOLIDS = ("TH4", "PY5", "W6", "H8")
# Every quadratic type lists its corners first: its linear type by the corners.
LINEAR_OF = {"TH10": "TH4", "PY13": "PY5", "PY14": "PY5", "W15": "W6", "W18": "W6", "H20": "H8", "H27": "H8",
             "T6": "T3", "Q8": "Q4", "Q9": "Q4", "E3": "E2"}
CORNER_COUNT = {"E2": 2, "T3": 3, "Q4": 4, "TH4": 4, "PY5": 5, "W6": 6, "H8": 8}
HEXAHEDRA_PER_SOLID = {"TH4": 4, "W6": 6, "H8": 8}
# How the split into hexahedra cuts a line, a triangle and a quadrangle: per piece, the
# corner sets its nodes are built from (a corner, the midpoints of its two sides, the
# centre), each piece oriented as its face.
SPLIT_PATTERNS = {"E2": [[(0,), (0, 1)], [(0, 1), (1,)]],
                  "T3": [[(i,), (i, (i + 1) % 3), (0, 1, 2), (i, (i + 2) % 3)] for i in range(3)],
                  "Q4": [[(i,), (i, (i + 1) % 4), (0, 1, 2, 3), (i, (i + 3) % 4)] for i in range(4)]}


def type_of_columns(connect):
    """The type name of a solid connectivity from the library, by its columns (and its
    absent entries for the mixed layouts)."""
    columns = connect.shape[1]
    if columns == 8:
        return "SOLID_MIX8" if (connect == ABSENT).any() else "H8"
    if columns == 27:
        return "SOLID_MIX27" if (connect == ABSENT).any() else "H27"
    return {4: "TH4", 5: "PY5", 6: "W6", 10: "TH10", 18: "W18", 14: "PY14"}[columns]


def pad(connect, width):
    """The rows widened to `width` columns with ABSENT."""
    out = np.full((len(connect), width), ABSENT, dtype=np.uint32)
    out[:, :connect.shape[1]] = connect
    return out


def node_names(type_name):
    """Per local node of a library type, the set of corners it is built from."""
    return mio.LIBRARY_ORDERS[type_name]


def build_cells(connect, pattern, new, coords):
    """Cells made of named nodes: pattern lists per sub-cell the corner sets of its nodes
    (one corner: that node; several: the node built from them, made when missing).
    Returns ((m * len(pattern), width) cells, coords grown by the made nodes); sub-cells of
    an input cell are consecutive."""
    a = np.asarray(connect, dtype=np.int64)
    out = np.empty((len(a), len(pattern), len(pattern[0])), dtype=np.int64)
    for s, sub in enumerate(pattern):
        for i, name in enumerate(sub):
            name = sorted(name)
            if len(name) == 1:
                out[:, s, i] = a[:, name[0]]
            else:
                out[:, s, i], coords = new.find_or_make(a[:, name], coords)
    return out.reshape(len(a) * len(pattern), -1).astype(np.uint32), coords


def name_nodes(new, connect, type_name, names_of):
    """Records the new nodes of a result connectivity: position p of an element of member
    type k holds the node built from the corners names_of(k)[p]."""
    if type_name in ("SOLID_MIX8", "SOLID_MIX27", "FACE_MIX4"):
        kinds = member_types(connect, type_name)
        parts = [(kind, connect[np.nonzero(kinds == kind)[0]]) for kind in dict.fromkeys(kinds)]
    else:
        parts = [(type_name, connect)]  # as it is: no copy of a large result
    for kind, block in parts:
        if new.record_focus_only:
            # only nodes built from focus nodes are kept: an element needs two corners
            # among them to hold one (one test per element, not one per node)
            corners = CORNER_COUNT[LINEAR_OF.get(kind, kind)]
            block = block[new.focus[block[:, :corners]].sum(axis=1) >= 2]
        for p, name in enumerate(names_of(kind)):
            if len(name) > 1:
                new.add(block[:, p], block[:, sorted(name)])


def face_edges(faces):
    """(k, 2) edges of (k, 3), (k, 4) or mixed faces, each as oriented in its face."""
    faces = np.asarray(faces, dtype=np.int64)
    if faces.shape[1] == 3:
        return np.concatenate([faces[:, [i, (i + 1) % 3]] for i in range(3)])
    quad = faces[:, 3] != ABSENT
    edges = [faces[:, [0, 1]], faces[:, [1, 2]], faces[quad][:, [2, 3]], faces[quad][:, [3, 0]],
             faces[~quad][:, [2, 0]]]
    return np.concatenate(edges)


def edge_keys(edges):
    e = np.sort(np.asarray(edges, dtype=np.uint64), axis=1)
    return e[:, 0] << np.uint64(32) | e[:, 1]


def boundary_edges(faces):
    """Edges used by exactly one face, oriented as in their face."""
    edges = face_edges(faces)
    keys = edge_keys(edges)
    _, inverse, counts = np.unique(keys, return_inverse=True, return_counts=True)
    return edges[counts[inverse.ravel()] == 1].astype(np.uint32)


def solid_faces(connect, type_name):
    """Every local face of every element: (element, local face, (k, 4) nodes with ABSENT
    closing a triangle), right-hand normals pointing into a positive element."""
    kinds = member_types(connect, type_name)
    elements, local, nodes = [], [], []
    for kind in dict.fromkeys(kinds):
        rows = np.nonzero(kinds == kind)[0]
        for f, face in enumerate(SOLID_FACES[kind]):
            elements.append(rows)
            local.append(np.full(len(rows), f))
            nodes.append(pad(connect[rows][:, list(face)], 4))
    return np.concatenate(elements), np.concatenate(local), np.concatenate(nodes)


def outer_faces(connect, type_name):
    """(k, 4) faces of the solids that no other solid shares (ABSENT closing a triangle)."""
    from .mesh import get_neighbors
    neighbors = get_neighbors(connect, type_name)
    element, local, nodes = solid_faces(connect, type_name)
    return nodes[neighbors[element, local] == ABSENT]


def area_vectors(coords, faces):
    x = coords[np.where(faces == ABSENT, faces[:, :1], faces).astype(np.int64)]
    return 0.5 * np.cross(x[:, 2] - x[:, 0], x[:, 3] - x[:, 1])  # a triangle repeats node 0 as its 4th


# Orientation flips: the library's flip for the types where it keeps every node on its
# edge or face; for PY13, W15 and H20 (which it leaves as they are) and PY14 (whose flip
# exchanges the nodes on edges 1-4 and 3-4 while corners 1 and 3 stay, moving them off
# their edges) the exchange is read off the node names, after the corner exchange.
CORNER_FLIP = {"TH4": (2, 1, 0, 3), "PY5": (2, 1, 0, 3, 4), "W6": (2, 1, 0, 5, 4, 3), "H8": (2, 1, 0, 3, 6, 5, 4, 7)}


LIBRARY_FLIPS = ("TH4", "TH10", "PY5", "W6", "W18", "H8", "H27")


def flip_permutation(type_name):
    corners = CORNER_FLIP[LINEAR_OF.get(type_name, type_name)]
    names = node_names(type_name)
    return np.array([names.index(frozenset(corners[c] for c in name)) for name in names])


def flip_cells(connect, type_name, chosen=None):
    """Reverses in place the orientation of the chosen rows (all by default) of a solid
    connectivity of one type."""
    from .mesh import flip
    rows = np.arange(len(connect)) if chosen is None else np.nonzero(chosen)[0]
    if not len(rows):
        return 0
    if type_name in LIBRARY_FLIPS:
        part = np.ascontiguousarray(connect[rows])
        flip(part, type_name)
        connect[rows] = part
    else:
        connect[rows] = connect[rows][:, flip_permutation(type_name)]
    return len(rows)


_SPLIT_NAMES = {}


def split_names(kind):
    """Per hexahedron r of a split element of this kind and per local node, the set of the
    element's corners the node is built from, read off the library's split of one
    element with distinct corner positions."""
    if kind not in _SPLIT_NAMES:
        from . import order
        reference = {"TH4": [[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]],
                     "W6": [[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [0, 1, 1]],
                     "H8": [[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]]}
        x = np.array(reference[kind], float) + np.random.default_rng(7).uniform(-0.05, 0.05, (len(reference[kind]), 3))
        n = len(x)
        quadratic = {"TH4": "TH10", "W6": "W18", "H8": "H27"}[kind]
        candidates = {frozenset(name) for name in node_names(quadratic) if len(name) > 1}
        candidates |= {frozenset(face) for face in SOLID_FACES[kind]} | {frozenset(range(n))}
        candidates = sorted(candidates, key=sorted)
        means = np.array([x[sorted(c)].mean(axis=0) for c in candidates])
        split = order.split_into_h8(x, np.arange(n, dtype=np.uint32)[None, :])
        table = []
        for hexahedron in split.hexahedra:
            row = []
            for node in hexahedron:
                if node < n:
                    row.append(frozenset([int(node)]))
                else:
                    row.append(candidates[int(np.argmin(np.linalg.norm(means - split.coords[node], axis=1)))])
            table.append(row)
        _SPLIT_NAMES[kind] = table
    return _SPLIT_NAMES[kind]


def face_owners(coords, connect, kind, faces):
    """For each (k, 4) face, the element on each side: (negative, positive), -1 for none.
    The positive one is the element its right-hand normal points into."""
    element, _, nodes = solid_faces(connect, kind)
    keys = sorted_row_keys(nodes)
    order = np.argsort(keys)
    keys, element = keys[order], element[order]
    query = sorted_row_keys(faces)
    first = np.searchsorted(keys, query, side="left")
    last = np.searchsorted(keys, query, side="right")
    normal = area_vectors(coords, faces)
    centre = centres(coords, faces)
    owners = np.full((len(faces), 2), -1, dtype=np.int64)
    for shift in (0, 1):
        has = last - first > shift
        e = element[np.minimum(first + shift, len(element) - 1)][has]
        into = np.einsum("ij,ij->i", normal[has], centres(coords, connect[e]) - centre[has]) > 0
        owners[np.nonzero(has)[0], into.astype(int)] = e
    return owners


def sorted_row_keys(rows):
    rows = np.sort(np.asarray(rows, dtype=np.uint32), axis=1)
    return np.ascontiguousarray(rows).view(np.dtype((np.void, 4 * rows.shape[1]))).ravel()


def centres(coords, rows):
    present = rows != ABSENT
    x = coords[np.where(present, rows, 0).astype(np.int64)] * present[..., None]
    return x.sum(axis=1) / present.sum(axis=1)[:, None]


def renumber_faces(faces, owner, before, after):
    """The faces with the node IDs that their owner element has after the operation."""
    rows = before[owner].astype(np.int64)
    position = np.argmax(rows[:, None, :] == faces[:, :, None].astype(np.int64), axis=2)
    out = after[owner[:, None], position].astype(np.uint32)
    return np.where(faces == ABSENT, ABSENT, out)
