"""Volume, circumcentres, dihedral and solid angles."""

from collections import namedtuple

import numpy as np

from . import _arrays as A
from .errors import check

Angles = namedtuple("Angles", "min max")
Angles.__doc__ = "Smallest and largest angle of every element, two (m,) float64 arrays."


def _mesh(function, coords, connect):
    return (A.real_matrix(coords, function, "coords", 1), A.id_matrix(connect, function, "connect", 2))


def volume(coords, connect):
    """Signed total volume of a solid mesh (inverted elements subtract).

    coords: (n, 3). connect: (m, 4) TH4, (m, 5) PY5, (m, 6) W6 or (m, 8) H8 / SOLID_MIX8
    (absent entries padding the smaller kinds). A TH4 is positive when node 3 lies on
    the negative side of the right-hand normal of 0-1-2; PY5, W6, H8 when the normal of
    their base 0-1-2(-3) points into the element.
    """
    x, c = _mesh("volume", coords, connect)
    status, result = A.native("measures", "volume").volume(x, c)
    check("volume", status, {"coords": x, "connect": c})
    return result


def element_volumes(coords, connect):
    """The signed volume of every element, an (m,) float64 array: entry j is exactly
    volume(coords, connect[j:j + 1]). connect as for volume()."""
    x, c = _mesh("element_volumes", coords, connect)
    status, volumes = A.native().element_volumes(x, c)
    check("element_volumes", status, {"coords": x, "connect": c})
    return volumes


def circumcenters(coords, connect):
    """Centre of the sphere through the nodes of each tetrahedron: (m, 3). connect is
    (m, 4); an inverted tetrahedron gives the circumcentre of its face (1, 2, 3), one
    with nodes 1, 2, 3 on a line the coordinates of node 3."""
    x, c = _mesh("circumcenters", coords, connect)
    status, centers = A.native("measures", "circumcenters").circumcenters(x, c)
    check("circumcenters", status, {"coords": x, "connect": c})
    return centers


def _angles(function, coords, connect, normalise, strict):
    """Angles(min, max) and the indices of the degenerate elements (None when strict)."""
    x, c = _mesh(function, coords, connect)
    if strict:
        status, lo, hi = getattr(A.native("measures", function), function)(x, c, bool(normalise))
        degenerate = None
    else:
        name = function + "_checked"
        status, lo, hi, degenerate = getattr(A.native("measures", name), name)(x, c, bool(normalise))
    check(function, status, {"coords": x, "connect": c})
    return Angles(lo, hi), degenerate


def dihedral_angles(coords, connect, normalise=False, *, strict=False):
    """Smallest and largest dihedral angle of every element, as Angles(min, max).

    Radians, or with normalise=True scaled per kind so that the regular element scores 1
    (the unit cube: pi/2, normalised 1). connect as for volume().
    By default the angles are always in [0, pi] and precise on nearly flat elements; a
    face without a normal (a collapsed edge, three nodes on a line) is left out of its
    element's extremes, which are NaN only when nothing is left: see
    degenerate_elements(). strict=True gives the plain arc-cosine rule, where rounding
    can give NaN and a face without a normal counts as an angle of 0.
    """
    return _angles("dihedral_angles", coords, connect, normalise, strict)[0]


def solid_angles(coords, connect, normalise=False, *, strict=False):
    """Smallest and largest solid angle at the vertices of every element (steradians, or
    normalised: a TH4's factor is 5/pi, so the regular tetrahedron scores about 0.877).
    Negative at the vertices of an inverted element.
    By default a corner without a defined solid angle (an edge of length 0, two edges on
    a line, or three edges in a plane around the corner) is left out of its element's
    extremes; strict=True keeps every corner."""
    return _angles("solid_angles", coords, connect, normalise, strict)[0]


def degenerate_elements(coords, connect):
    """Indices, ascending, of the elements whose angles are not all defined or whose
    volume vanishes: a face without a normal, a corner without a solid angle, or a
    volume below 1e-12 times the cube of the element's longest edge (an (k,) array).
    connect as for volume()."""
    lists = [_angles(f, coords, connect, False, False)[1] for f in ("dihedral_angles", "solid_angles")]
    return np.union1d(*lists).astype(np.int64)
