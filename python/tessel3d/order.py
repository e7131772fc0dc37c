"""Conversion into high order and back, splitting into hexahedra."""

from collections import namedtuple

from . import _arrays as A
from ._orientation import refuse_inverted
from .errors import check

Converted = namedtuple("Converted", "coords connect")
Converted.__doc__ = "Coordinates with the new nodes appended, and the new connectivity."
Split = namedtuple("Split", "coords hexahedra")
Split.__doc__ = "Coordinates with the new nodes appended, and the (m, 8) hexahedra."


def convert_into_high_order(coords, connect, nodes_per_edge=1, nodes_in_q4=0, nodes_in_t3=0, nodes_in_h8=0,
                            nodes_in_w6=0, nodes_in_py5=0, nodes_in_th4=0, faces=None, edges=None, strict=False):
    """High-order elements from a linear solid mesh; returns Converted(coords, connect).

    connect: (m, 4) TH4, (m, 6) W6 or (m, 8) H8 / mixed with PY5 and the others. The counts
    give the new nodes per edge (e), inside each quadrangle (q, a square), triangle (t: 0,
    1 or 3), H8 (a cube), W6 (0, 1), PY5 (any) and TH4 (0, 1); shared edges and faces get
    one set of nodes. The result lists per element its corners, e nodes per edge, the face
    nodes and the interior nodes, absent entries padding the smaller kinds. Every element
    lists a face's nodes at the positions of its own face order (a quadrangle's grid with
    the first direction from its face corner 0 to 1, a triangle's three nodes next to face
    corners 2, 0, 1), so the elements are valid Lagrange elements.
    faces, edges: optional caller's high-order faces and edges whose nodes are reused.
    strict: True lists the face nodes of the element that meets a face second by rotating
    the first one's list (the library's fixed rule, wrong for q > 1 and t = 3) and refuses
    h = 64 and larger cubes; the same nodes, coordinates and other rows either way.
    """
    f = "convert_into_high_order"
    x = A.real_matrix(coords, f, "coords", 1)
    c = A.id_matrix(connect, f, "connect", 2)
    fc = A.optional(A.id_matrix, faces, f, "faces", 11)
    ed = A.optional(A.id_matrix, edges, f, "edges", 12)
    counts = [int(v) for v in (nodes_per_edge, nodes_in_q4, nodes_in_t3, nodes_in_h8, nodes_in_w6,
                               nodes_in_py5, nodes_in_th4)]
    if min(counts) < 0:
        raise ValueError(f"{f}: node counts must be >= 0")
    refuse_inverted(f, x, c)
    native = A.native("order", f)
    status, xo, co = native.convert_into_high_order(x, c, *counts, fc, ed, not strict)
    e, q, t = counts[:3]
    check(f, status, {"coords": x, "connect": c, "faces": fc, "edges": ed,
                      "face_rows": f"{t + 3 * (e + 1)} for triangles, {q + 4 * (e + 1)} for quadrangles",
                      "edge_rows": e + 2})
    return Converted(xo, co)


def convert_into_quadratic(coords, connect, faces=None, edges=None):
    """Quadratic elements (TH10, PY14, W18, H27) from a linear solid mesh, as
    Converted(coords, connect). A mixed (m, 8) input gives 27 columns per element:
    corners, one node per edge, the quadrangle centres, the hexahedron centre, then
    absent entries. faces ((k, 6) triangles or (k, 9) quadrangles) and edges ((k, 3): two
    ends and the mid node) are the caller's nodes, reused."""
    f = "convert_into_quadratic"
    x = A.real_matrix(coords, f, "coords", 1)
    c = A.id_matrix(connect, f, "connect", 2)
    fc = A.optional(A.id_matrix, faces, f, "faces", 3)
    ed = A.optional(A.id_matrix, edges, f, "edges", 4)
    refuse_inverted(f, x, c)
    status, xo, co = A.native("order", f).convert_into_quadratic(x, c, fc, ed)
    check(f, status, {"coords": x, "connect": c, "faces": fc, "edges": ed})
    return Converted(xo, co)


def convert_into_linear(connect):
    """The corner nodes of a quadratic connectivity: (m, 10) gives (m, 4); (m, 13), (14),
    (15), (18), (20) and (27) give (m, 8), with absent entries after the corners of the
    TH4, PY5 and W6 of the 27-column mixed layout. A pure PY13, PY14, W15 or W18 array
    keeps its first 8 columns (corners, then edge nodes): pad it to 27 columns with ABSENT
    first to get the corners alone. Returns a new array; coordinates are untouched."""
    f = "convert_into_linear"
    c = A.id_matrix(connect, f, "connect", 1)
    status, out = A.native("order", f).convert_into_linear(c)
    check(f, status, {"connect": c})
    return out


def split_into_h8(coords, connect, hexahedra=None, faces=None, edges=None):
    """Every TH4 into 4, W6 into 6 and H8 into 8 hexahedra; returns Split(coords,
    hexahedra). New nodes on every edge, face and element centre are appended; pyramids
    cannot be split. hexahedra: existing (k, 8) columns kept ahead of the new ones.
    faces ((k, 7) triangles, (k, 9) quadrangles) and edges ((k, 3)) are reused."""
    f = "split_into_h8"
    x = A.real_matrix(coords, f, "coords", 1)
    c = A.id_matrix(connect, f, "connect", 2)
    h = A.optional(A.id_matrix, hexahedra, f, "hexahedra", 3)
    fc = A.optional(A.id_matrix, faces, f, "faces", 4)
    ed = A.optional(A.id_matrix, edges, f, "edges", 5)
    refuse_inverted(f, x, c)
    status, xo, ho = A.native("order", f).split_into_H8(x, c, h, fc, ed)
    check(f, status, {"coords": x, "connect": c, "hexahedra": h, "faces": fc, "edges": ed})
    return Split(xo, ho)
