"""Operations along surfaces inside solid meshes."""

from collections import namedtuple
from enum import IntEnum

import numpy as np

from . import _arrays as A
from .errors import check
from .locate import adjacency
from .mesh import ElementType, element_type, solid_type

Duplication = namedtuple("Duplication", "coords connect added")
Duplication.__doc__ = "Coordinates with the copies appended, the rewritten connectivity, the number of copies."
SplitQ4 = namedtuple("SplitQ4", "coords connect failed reasons")
SplitQ4.__doc__ = ("Coordinates with the new nodes, the 8-column result, the listed solids (k,) and a "
                   "SplitReason for each (k,).")


class SplitReason(IntEnum):
    """Why split_solid_q4 lists a solid."""
    BELOW_QUALITY = 1     # left whole: a piece would not exceed min_quality
    FACES_KEPT_WHOLE = 2  # left whole: every listed face it carries is kept whole for a neighbour
    PARTLY_SPLIT = 3      # split, but some listed faces it carries are kept whole


def duplicate_surface_nodes(coords, connect, surface, *, excluded=None, positive_side=True, negative_side=False,
                            type=None, neighbors=None, node_element=None):
    """Opens a solid mesh along an internal surface; returns Duplication(coords, connect,
    added).

    Every surface node not in `excluded` gets a copy, used by the elements on the chosen
    side(s): the positive side is the one the surface faces' right-hand normals point to.
    connect: (m, 4) TH4, (m, 8) H8 or SOLID_MIX8 (type defaults from the columns);
    surface: (k, 3) triangles for TH4, (k, 4) quadrangles for H8, (k, 4) mixed faces for
    SOLID_MIX8. With both sides each node gets two copies. added is 0, and nothing
    changes, when a surface node's node_element entry is not an element holding it.
    """
    f = "duplicate_surface_nodes"
    x = A.real_matrix(coords, f, "coords", 1)
    c = A.id_matrix(connect, f, "connect", 2)
    s = A.id_matrix(surface, f, "surface", 5)
    t = element_type(type) if type is not None else (solid_type(c) if c.size else ElementType.TH4)
    n = A.optional(A.id_matrix, neighbors, f, "neighbors", 3)
    e = A.optional(A.id_vector, node_element, f, "node_element", 4)
    n, e = adjacency(x, c, n, e, t)
    skip = A.optional(A.id_vector, excluded, f, "excluded", 6)
    status, xo, co = A.native("surface", f).duplicate_surface_nodes(x, c, n, e, s, skip, bool(positive_side),
                                                                   bool(negative_side), int(t))
    check(f, status, {"coords": x, "connect": c, "neighbors": n, "node_element": e, "surface": s})
    return Duplication(xo, co, status)


def split_solid_q4(coords, connect, quads, min_quality, *, strict=False):
    """Splits the solids that carry one of the (k, 4) quadrangles `quads` so that each
    listed quadrangle becomes two triangles; returns SplitQ4(coords, connect, failed,
    reasons).

    connect: (m, 5) PY5, (m, 6) W6 or (m, 8) H8 / SOLID_MIX8. A PY5 on a listed base
    becomes two TH4; a W6 or H8 gets a node at its centre and one element per face (two
    TH4 on a listed quadrangle). The result is in the 8-column mixed layout, each solid's
    pieces in its place. A solid is split only when every piece's smallest normalised
    dihedral angle exceeds min_quality.
    By default the result conforms: a quadrangle is cut on both sides or on neither,
    whichever way it is listed; a solid that cannot be split keeps its listed faces
    whole, and its neighbours then put a pyramid on them. failed lists the solids left
    whole or split with some listed face kept whole, reasons says which (SplitReason).
    strict=True splits only the solids that see a quadrangle as listed and leaves a
    solid that fails whole next to split neighbours (every reason BELOW_QUALITY).
    """
    f = "split_solid_q4"
    x = A.real_matrix(coords, f, "coords", 1)
    c = A.id_matrix(connect, f, "connect", 2)
    q = A.id_matrix(quads, f, "quads", 3)
    native = A.native("split_q4", f)
    if strict:
        status, xo, co, failed = native.split_solid_Q4(x, c, q, float(min_quality))
        failed = np.asarray(failed, dtype=np.uint32)
        reasons = np.full(failed.shape, SplitReason.BELOW_QUALITY, dtype=np.uint32)
    else:
        status, xo, co, listed = native.split_solid_Q4_conforming(x, c, q, float(min_quality))
        listed = np.asarray(listed, dtype=np.uint32).reshape(-1, 2)
        failed, reasons = listed[:, 0].copy(), listed[:, 1].copy()
    check(f, status, {"coords": x, "connect": c, "quads": q})
    return SplitQ4(xo, co, failed, reasons)
