"""Extrusion of a triangle / quadrangle surface into layers of wedges and hexahedra.

Every function takes the coordinates (n, 3) (translation, rotation and spiral also
(n, 2): a planar mesh at z = 0) and the surface, (m, 3) triangles or (m, 4) quadrangles
(a triangle among quadrangles has ABSENT, or -1, in its 4th column), and returns
Extrusion(coords, solids, lateral, cap):

- coords: the input nodes followed by one copy of the surface nodes per layer, layer by
  layer, in order of first appearance in the surface;
- solids: (m * layers, 6) wedges for a triangle surface, (m * layers, 8) hexahedra and
  padded wedges for a 4-column surface, element j * layers + k - 1 being layer k of face j;
- lateral: the (k * layers, 4) quadrangles swept by the given `edges` ((k, 2) node pairs
  of the surface, typically its boundary);
- cap: the far cap, the last layer's faces reversed.

The layers are given either by a count (`layers`, uniform) or by the layer thickness at
the start and at the end of the sweep (`h0`, `h1`, varying geometrically; `even_layers`
asks for an even count). solids, lateral and cap may hold existing elements, kept ahead
of the new ones. The solids are positive when the sweep goes the way the surface's
right-hand normals point.
"""

import math
from collections import namedtuple

import numpy as np

from . import _arrays as A
from .errors import OUT_OF_MEMORY, Error, check

Extrusion = namedtuple("Extrusion", "coords solids lateral cap")

_ID_LIMIT = 0xFFFFFFFF  # node IDs and layer counts stay below 2^32


class _Layers:
    """How the layers are given: a count (at argument `position`) or sizes (h0, h1 at
    `position`, `position` + 1), and the sweep length that turns sizes into a count."""

    def __init__(self, function, layers, h0, h1, position):
        self.function, self.position = function, position
        if layers is not None:
            if h0 is not None or h1 is not None:
                raise ValueError(f"{function}: give either layers or h0 (and h1), not both")
            self.count, self.sizes = _layer_count(function, layers, position), None
            return
        if h0 is None and h1 is None:
            raise ValueError(f"{function}: give the number of layers or the sizes h0 and h1")
        h0 = float(h1 if h0 is None else h0)
        h1 = float(h0 if h1 is None else h1)
        self.count, self.sizes = None, (h0, h1)

    def problem(self, length, coords, surface):
        """The Error for a layer count the library cannot represent (the library gives
        -199 for it, as for memory), or None when memory was what ran out."""
        f = self.function
        if self.sizes is None:
            count, what = self.count, f"layers (argument {self.position}) = {self.count}:"
            name, position = "layers", self.position
        else:
            h0, h1 = self.sizes
            x = length * _layers_per_length(h0, h1)
            what = (f"h0 = {h0!r} and h1 = {h1!r} (arguments {self.position}, {self.position + 1}) over a sweep "
                    f"of length {length!r} give")
            name, position = "h0", self.position
            if not x < 2.0 ** 32:
                return Error(f"{f}: {what} {x!r} layers; a layer count must be below 2^32",
                             status=OUT_OF_MEMORY, function=f, argument=name, position=position)
            count = max(1, round(x))
        nodes = np.unique(surface[:, :4]) if surface.size else surface.ravel()
        per_layer = int((nodes != A.ABSENT).sum())
        if coords.shape[0] + count * per_layer > _ID_LIMIT:
            return Error(f"{f}: {what} {count} layers of {per_layer} surface nodes on top of {coords.shape[0]} "
                         "nodes need more than the 2^32 - 1 node IDs a mesh can hold",
                         status=OUT_OF_MEMORY, function=f, argument=name, position=position)
        return None


def _layer_count(function, layers, position):
    count = int(layers)
    if not 0 <= count <= _ID_LIMIT:
        raise Error(f"{function}: layers (argument {position}) = {count} is not a layer count (0 to {_ID_LIMIT})",
                    status=-position, function=function, argument="layers", position=position)
    return count


def _layers_per_length(h0, h1):
    """Layers per unit of sweep length for thicknesses growing geometrically from h0 to
    h1 (1 / h when they are equal), as the library counts them."""
    hmin, hmax = min(h0, h1), max(h0, h1)
    if not hmax > 0:
        return math.inf
    x = (hmin - hmax) / hmax
    return (math.log1p(x) / x if x < -1e-12 else 1.0) / hmax


def _sweep(function, coords, surface, edges, solids, lateral, cap, edges_position):
    return dict(coords=A.real_matrix(coords, function, "coords", 1),
                surface=A.id_matrix(surface, function, "surface", 2),
                solids=A.optional(A.id_matrix, solids, function, "solids", edges_position - 1),
                edges=A.optional(A.id_matrix, edges, function, "edges", edges_position),
                lateral=A.optional(A.id_matrix, lateral, function, "lateral", edges_position + 1),
                cap=A.optional(A.id_matrix, cap, function, "cap", edges_position + 2))


def _run(function, form, native_name, sweep, parameters, layers=None, length=None, extra_args=None):
    """Calls the binding; on -199 asks `layers` whether the count was the problem
    (`length()` gives the sweep length of the size forms)."""
    s = sweep
    outputs = (s["solids"], s["edges"], s["lateral"], s["cap"])
    status, coords, solids, lateral, cap = getattr(A.native(), native_name)(s["coords"], s["surface"], *parameters,
                                                                           outputs)
    if status == OUT_OF_MEMORY and layers is not None:
        problem = layers.problem(length() if length else 0.0, s["coords"], s["surface"])
        if problem is not None:
            raise problem
    check(function, status, dict(s, **(extra_args or {})), form)
    return Extrusion(coords, solids, lateral, cap)


def _norm(v):
    return math.sqrt(float(np.dot(v, v)))


def extrude_translate(coords, surface, vector, layers=None, *, h0=None, h1=None, even_layers=False, edges=None,
                      solids=None, lateral=None, cap=None):
    """Sweeps the surface along `vector` (the whole translation); see the module doc."""
    f = "extrude_translate"
    n = _Layers(f, layers, h0, h1, 4)
    t = A.point(vector, f, "vector", 3)
    if n.sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 6), (t, n.count), n)
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 8),
                (t, *n.sizes, bool(even_layers)), n, lambda: _norm(t))


def extrude_rotate(coords, surface, center, rotation, layers=None, *, h0=None, h1=None, even_layers=False,
                   edges=None, solids=None, lateral=None, cap=None):
    """Sweeps the surface about the axis through `center` along `rotation`, whose length
    is the total angle in radians (right-hand rule). The sweep length that sizes the
    layers is the arc travelled by the first node of the first face."""
    f = "extrude_rotate"
    n = _Layers(f, layers, h0, h1, 5)
    c, r = A.point(center, f, "center", 3), A.point(rotation, f, "rotation", 4)
    s = _sweep(f, coords, surface, edges, solids, lateral, cap, 7 if n.sizes is None else 9)

    def arc():
        first = s["coords"][s["surface"][0, 0]]
        p0 = np.array([first[0], first[1], first[2] if first.size > 2 else 0.0])
        return _norm(p0 - c) * _norm(r)
    if n.sizes is None:
        return _run(f, None, f, s, (c, r, n.count), n)
    return _run(f, "sizes", f + "_sizes", s, (c, r, *n.sizes, bool(even_layers)), n, arc)


def extrude_spiral(coords, surface, center, rotation, translation, layers=None, *, h0=None, h1=None,
                   even_layers=False, edges=None, solids=None, lateral=None, cap=None):
    """Rotation about the axis (center, rotation) combined with a translation: the layers
    follow a helix. The sweep length that sizes the layers is |translation|, which must
    not be zero."""
    f = "extrude_spiral"
    n = _Layers(f, layers, h0, h1, 6)
    c, r = A.point(center, f, "center", 3), A.point(rotation, f, "rotation", 4)
    t = A.point(translation, f, "translation", 5)
    if n.sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 8), (c, r, t, n.count), n)
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 10),
                (c, r, t, *n.sizes, bool(even_layers)), n, lambda: _norm(t))


def extrude_normal(coords, surface, thickness=None, layers=None, *, normals=None, h0=None, h1=None,
                   even_layers=False, edges=None, solids=None, lateral=None, cap=None):
    """Sweeps every surface node along its own normal: the surface's unit nodal normals
    times `thickness`, or the given `normals` ((n, 3), one vector per node, whose length
    is the node's whole displacement; then `layers` is required and used as it is)."""
    f = "extrude_normal"
    if normals is not None:
        if thickness is not None or h0 is not None or h1 is not None or layers is None:
            raise ValueError(f"{f}: with normals give layers only (no thickness, h0, h1)")
        n = _Layers(f, layers, None, None, 4)
        given = A.real_matrix(normals, f, "normals", 3)
        return _run(f, "normals", "extrude_normal_given", _sweep(f, coords, surface, edges, solids, lateral, cap, 6),
                    (given, n.count), n, extra_args={"normals": given})
    if thickness is None:
        raise ValueError(f"{f}: give a thickness, or normals")
    n = _Layers(f, layers, h0, h1, 4)
    thickness = float(thickness)
    if n.sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 6), (thickness, n.count), n)
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 8),
                (thickness, *n.sizes, bool(even_layers)), n, lambda: thickness)


def extrude_line(coords, surface, line, direction, *, metrics=None, scales=None, edges=None, solids=None,
                 lateral=None, cap=None):
    """Sweeps the surface (a cross-section) along the polyline of node IDs `line`, one
    layer per segment, the section turning with the polyline. `direction` is the way the
    section faces at line[0]. The section may be scaled per polyline node by `scales`
    ((S,) factors, entry 0 unused) or `metrics` ((S, 6) packed tensors a11 a12 a22 a13 a23
    a33). When line[0] is a node of the section, the polyline's nodes replace its copies."""
    f = "extrude_line"
    if metrics is not None and scales is not None:
        raise ValueError(f"{f}: give metrics or scales, not both")
    l = A.id_vector(line, f, "line", 3)
    v = A.point(direction, f, "direction", 4)
    s = _sweep(f, coords, surface, edges, solids, lateral, cap, 7)
    if scales is not None:
        return _run(f, "scales", "extrude_line_scales", s, (l, v, A.real_vector(scales, f, "scales", 5)))
    m = A.optional(A.real_matrix, metrics, f, "metrics", 5)
    return _run(f, None, "extrude_line_metrics", s, (l, v, m))
