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


def _angles(function, coords, connect, normalise):
    x, c = _mesh(function, coords, connect)
    status, lo, hi = getattr(A.native("measures", function), function)(x, c, bool(normalise))
    check(function, status, {"coords": x, "connect": c})
    return Angles(lo, hi)


def dihedral_angles(coords, connect, normalise=False):
    """Smallest and largest dihedral angle of every element, as Angles(min, max).

    Radians, or with normalise=True scaled per kind so that the regular element scores 1
    (the unit cube: pi/2, normalised 1). connect as for volume().
    """
    return _angles("dihedral_angles", coords, connect, normalise)


def solid_angles(coords, connect, normalise=False):
    """Smallest and largest solid angle at the vertices of every element (steradians, or
    normalised: a TH4's factor is 5/pi, so the regular tetrahedron scores about 0.877).
    Negative at the vertices of an inverted element."""
    return _angles("solid_angles", coords, connect, normalise)
