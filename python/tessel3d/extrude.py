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

from collections import namedtuple

from . import _arrays as A
from .errors import check

Extrusion = namedtuple("Extrusion", "coords solids lateral cap")


def _layers(function, layers, h0, h1):
    if layers is not None:
        if h0 is not None or h1 is not None:
            raise ValueError(f"{function}: give either layers or h0 (and h1), not both")
        if int(layers) < 0:
            raise ValueError(f"{function}: layers must be >= 0")
        return int(layers), None
    if h0 is None and h1 is None:
        raise ValueError(f"{function}: give the number of layers or the sizes h0 and h1")
    h0 = float(h1 if h0 is None else h0)
    h1 = float(h0 if h1 is None else h1)
    return None, (h0, h1)


def _sweep(function, coords, surface, edges, solids, lateral, cap, edges_position):
    return dict(coords=A.real_matrix(coords, function, "coords", 1),
                surface=A.id_matrix(surface, function, "surface", 2),
                solids=A.optional(A.id_matrix, solids, function, "solids", edges_position - 1),
                edges=A.optional(A.id_matrix, edges, function, "edges", edges_position),
                lateral=A.optional(A.id_matrix, lateral, function, "lateral", edges_position + 1),
                cap=A.optional(A.id_matrix, cap, function, "cap", edges_position + 2))


def _run(function, form, native_name, sweep, parameters, extra_args=None):
    native = getattr(A.native("extrude", function), native_name)
    s = sweep
    status, coords, solids, lateral, cap = native(s["coords"], s["surface"], *parameters, s["solids"], s["edges"],
                                                  s["lateral"], s["cap"])
    check(function, status, dict(s, **(extra_args or {})), form)
    return Extrusion(coords, solids, lateral, cap)


def extrude_translate(coords, surface, vector, layers=None, *, h0=None, h1=None, even_layers=False, edges=None,
                      solids=None, lateral=None, cap=None):
    """Sweeps the surface along `vector` (the whole translation); see the module doc."""
    f = "extrude_translate"
    count, sizes = _layers(f, layers, h0, h1)
    t = A.point(vector, f, "vector", 3)
    if sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 6), (t, count))
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 8),
                (t, *sizes, bool(even_layers)))


def extrude_rotate(coords, surface, center, rotation, layers=None, *, h0=None, h1=None, even_layers=False,
                   edges=None, solids=None, lateral=None, cap=None):
    """Sweeps the surface about the axis through `center` along `rotation`, whose length
    is the total angle in radians (right-hand rule). The sweep length that sizes the
    layers is the arc travelled by the first node of the first face."""
    f = "extrude_rotate"
    count, sizes = _layers(f, layers, h0, h1)
    c, r = A.point(center, f, "center", 3), A.point(rotation, f, "rotation", 4)
    if sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 7), (c, r, count))
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 9),
                (c, r, *sizes, bool(even_layers)))


def extrude_spiral(coords, surface, center, rotation, translation, layers=None, *, h0=None, h1=None,
                   even_layers=False, edges=None, solids=None, lateral=None, cap=None):
    """Rotation about the axis (center, rotation) combined with a translation: the layers
    follow a helix. The sweep length that sizes the layers is |translation|, which must
    not be zero."""
    f = "extrude_spiral"
    count, sizes = _layers(f, layers, h0, h1)
    c, r = A.point(center, f, "center", 3), A.point(rotation, f, "rotation", 4)
    t = A.point(translation, f, "translation", 5)
    if sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 8), (c, r, t, count))
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 10),
                (c, r, t, *sizes, bool(even_layers)))


def extrude_normal(coords, surface, thickness=None, layers=None, *, normals=None, h0=None, h1=None,
                   even_layers=False, edges=None, solids=None, lateral=None, cap=None):
    """Sweeps every surface node along its own normal: the surface's unit nodal normals
    times `thickness`, or the given `normals` ((n, 3), one vector per node, whose length
    is the node's whole displacement; then `layers` is required and used as it is)."""
    f = "extrude_normal"
    if normals is not None:
        if thickness is not None or h0 is not None or h1 is not None or layers is None:
            raise ValueError(f"{f}: with normals give layers only (no thickness, h0, h1)")
        if int(layers) < 0:
            raise ValueError(f"{f}: layers must be >= 0")
        n = A.real_matrix(normals, f, "normals", 3)
        return _run(f, "normals", "extrude_normal_given", _sweep(f, coords, surface, edges, solids, lateral, cap, 6),
                    (n, int(layers)), {"normals": n})
    if thickness is None:
        raise ValueError(f"{f}: give a thickness, or normals")
    count, sizes = _layers(f, layers, h0, h1)
    if sizes is None:
        return _run(f, None, f, _sweep(f, coords, surface, edges, solids, lateral, cap, 6), (float(thickness), count))
    return _run(f, "sizes", f + "_sizes", _sweep(f, coords, surface, edges, solids, lateral, cap, 8),
                (float(thickness), *sizes, bool(even_layers)))


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
