"""Point location in tetrahedral meshes, interpolation of fields and metrics."""

import numpy as np

from . import _arrays as A
from .errors import Error, check
from .mesh import ElementType, NodeDetector, element_type, get_neighbors, get_node_element


def adjacency(coords, connect, neighbors, node_element, type):
    """neighbors and node_element, built when not given. When the mesh itself is invalid
    they are left empty, so that the library reports the mesh argument."""
    if neighbors is None:
        try:
            neighbors = get_neighbors(connect, type)
        except Error:
            neighbors = np.zeros((0, 0), dtype=np.uint32)
    if node_element is None:
        try:
            node_element = get_node_element(connect, coords.shape[0])
        except Error:
            node_element = np.zeros(0, dtype=np.uint32)
    return neighbors, node_element


def _mesh(function, coords, connect, neighbors, node_element, type=ElementType.TH4):
    x = A.real_matrix(coords, function, "coords", 1)
    c = A.id_matrix(connect, function, "connect", 2)
    n = A.optional(A.id_matrix, neighbors, function, "neighbors", 3)
    e = A.optional(A.id_vector, node_element, function, "node_element", 4)
    n, e = adjacency(x, c, n, e, type)
    return x, c, n, e


def _walk_error(function, status, args):
    """Error for a negative status; a walk stopped by an invalid element is reported as
    -1 once coords passed its check."""
    coords = args["coords"]
    if status == -1 and coords.ndim == 2 and coords.shape[1] == 3:
        raise Error(f"{function}: the walk met an inverted or flat tetrahedron; every element must have a "
                    "positive volume (flip the mesh first)", status=status, function=function)
    check(function, status, args)


class Locator:
    """A tetrahedral mesh prepared for many point searches, built once.

    By default the search cannot miss: every point that lies in an element (every
    barycentric coordinate >= -tolerance) is found, whatever the mesh's shape (slots,
    cracks, thin walls, holes), from a walk and, when the walk fails, a tree of the
    elements; the locator keeps its own copy of the mesh. strict=True gives the walk
    alone (get_element_containing_point), with the face neighbours, the node-to-element
    array and the node detector given or built here.
    """

    def __init__(self, coords, connect, *, neighbors=None, node_element=None, detector=None, type=ElementType.TH4,
                 strict=False):
        self.type = element_type(type)
        self.strict = bool(strict)
        self._native = None
        if not self.strict:
            f = "Locator"
            self.coords = A.real_matrix(coords, f, "coords", 1)
            self.connect = A.id_matrix(connect, f, "connect", 2)
            if self.type == ElementType.TH4:
                status, self._native = A.native("locate", f).build_locator(self.coords, self.connect)
                check(f, status, {"coords": self.coords, "connect": self.connect}, form="build")
            return
        f = "get_element_containing_point"
        self.coords, self.connect, self.neighbors, self.node_element = _mesh(f, coords, connect, neighbors,
                                                                             node_element, self.type)
        self.detector = detector if detector is not None else NodeDetector(self.coords)

    def _args(self):
        return {"coords": self.coords, "connect": self.connect, "neighbors": self.neighbors,
                "node_element": self.node_element}

    def find(self, point, tolerance=0.0):
        """The element that holds the point, or None (outside the mesh, or not a TH4 mesh)."""
        if not self.strict:
            f = "Locator"
            p = A.point(point, f, "point", 1)
            if self._native is None:
                return None
            status, element = self._native.find(p, float(tolerance))
            check(f, status, {"tolerance": tolerance})
            return element if status == 1 else None
        f = "get_element_containing_point"
        p = A.point(point, f, "point", 7)
        status, element = A.native("locate", f).get_element_containing_point(
            self.coords, self.connect, self.neighbors, self.node_element, self.detector.native, int(self.type), p,
            float(tolerance))
        if status < 0:
            _walk_error(f, status, {**self._args(), "tolerance": tolerance})
        return element if status == 1 else None

    def find_all(self, points, tolerance=0.0):
        """The element of every point of an (k, 3) array: (k,) uint32, ABSENT where none.

        One library call for all the points, searched in an order of their own along their
        positions, each exactly as find would search it."""
        strict = self.strict
        f = "get_elements_containing_points" if strict else "Locator"
        p = A.real_matrix(points, f, "points", 7 if strict else 1)
        if p.shape[0] == 0:  # no point (an empty list gives shape (0, 0))
            p = p.reshape(0, 3)
        if not strict:
            if self._native is None:
                if p.shape[1] != 3:
                    check(f, -1, {"points": p})
                return np.full(p.shape[0], A.ABSENT, dtype=np.uint32)
            status, elements = self._native.find_all(p, float(tolerance))
            check(f, status, {"points": p, "tolerance": tolerance})
            return elements
        status, elements = A.native("locate", f).locate_points(
            self.coords, self.connect, self.neighbors, self.node_element, self.detector.native, int(self.type), p,
            float(tolerance))
        if status < 0:
            _walk_error(f, status, {**self._args(), "points": p, "tolerance": tolerance})
        return elements


def get_element_containing_point(coords, connect, point, *, neighbors=None, node_element=None, detector=None,
                                 type=ElementType.TH4, tolerance=0.0, strict=False):
    """The tetrahedron of a TH4 mesh that holds `point`, or None.

    tolerance: a point whose barycentric coordinates are all >= -tolerance is inside. By
    default every point that lies in an element is found (see Locator); strict=True walks
    from an element next to a node near the point across faces towards it, and may miss
    points near slots and holes. neighbors, node_element and detector (strict only) are
    built from the mesh when not given (build a Locator to search many points). Any other
    element type is reported as not located.
    """
    return Locator(coords, connect, neighbors=neighbors, node_element=node_element, detector=detector,
                   type=type, strict=strict).find(point, tolerance)


def _field_in_out(value, function, name, position):
    if isinstance(value, np.ndarray) and value.ndim == 1:
        return A.in_out(value, lambda v, *a: np.ascontiguousarray(v, dtype=np.float64), function, name, position)
    return A.in_out(value, A.real_matrix, function, name, position)


def interpolate(coords, connect, field, nodes, *, neighbors=None, node_element=None, strict=False):
    """Fills `field` at the listed nodes that lie in no element of the TH4 mesh.

    coords (n, 3) holds the mesh's nodes and the nodes to fill (typically another mesh's
    nodes appended); field is (n, c) or (n,), written in place and returned. A node in
    the mesh gets the linear interpolation of its tetrahedron's values; a node outside
    gets the value at the closest point of the mesh's boundary (interpolated on the
    nearest boundary face), so the error of a linear field grows with the distance to
    the mesh. The nodes filled are those no element references.

    strict=True: the walk alone (tolerance 1e-6), and a node it does not place (outside,
    or missed near a slot) copies the nearest mesh node; node_element (ABSENT for nodes
    in no element) then says which nodes are filled and defaults to
    get_node_element(connect, n).
    """
    if not strict:
        f = "interpolate"
        x = A.real_matrix(coords, f, "coords", 1)
        c = A.id_matrix(connect, f, "connect", 2)
        v, back = _field_in_out(field, f, "field", 3)
        ids = A.id_vector(nodes, f, "nodes", 4)
        status = A.native("locate", f).interpolate_projected(x, c, v, ids)
        check(f, status, {"coords": x, "connect": c, "field": v, "nodes": ids}, form="projected")
        return back()
    f = "interpolate"
    x, c, n, e = _mesh(f, coords, connect, neighbors, node_element)
    v, back = _field_in_out(field, f, "field", 5)
    ids = A.id_vector(nodes, f, "nodes", 6)
    status = A.native("locate", f).interpolate(x, c, n, e, v, ids)
    check(f, status, {"coords": x, "connect": c, "neighbors": n, "node_element": e, "field": v, "nodes": ids})
    return back()


def interpolate_metrics(coords, connect, metrics, nodes=None, *, keep_valid=False, neighbors=None,
                        node_element=None, strict=False):
    """Fills metrics at the listed nodes (all nodes when None) that lie in no element,
    keeping every result a valid metric: (n, 6) packed symmetric tensors M11 M12 M22 M13
    M23 M33, or (n,) isotropic sizes. Written in place and returned. keep_valid leaves the
    nodes whose metric is already valid alone.

    Nodes are placed as interpolate places them (outside the mesh: the closest point of
    the boundary); a result is written only when it is a valid metric, else the node takes
    the valid metric of its element's node with the largest weight. strict=True: the walk
    alone, nodes outside copy the nearest mesh node, and a combination that fails leaves
    the node as it was.
    """
    if not strict:
        f = "interpolate_metrics"
        x = A.real_matrix(coords, f, "coords", 1)
        c = A.id_matrix(connect, f, "connect", 2)
        m, back = _field_in_out(metrics, f, "metrics", 3)
        ids = A.optional(A.id_vector, nodes, f, "nodes", 4)
        status = A.native("locate", f).interpolate_metrics_projected(x, c, m, ids, bool(keep_valid))
        check(f, status, {"coords": x, "connect": c, "metrics": m, "nodes": ids}, form="projected")
        return back()
    f = "interpolate_metrics"
    x, c, n, e = _mesh(f, coords, connect, neighbors, node_element)
    m, back = _field_in_out(metrics, f, "metrics", 5)
    ids = A.optional(A.id_vector, nodes, f, "nodes", 6)
    status = A.native("locate", f).interpolate_metrics(x, c, n, e, m, ids, bool(keep_valid))
    check(f, status, {"coords": x, "connect": c, "neighbors": n, "node_element": e, "metrics": m, "nodes": ids})
    return back()
