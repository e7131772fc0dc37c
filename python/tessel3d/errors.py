"""tessel3d.Error, tessel3d.OutOfMemoryError and the tables that turn a negative status
into a message.

The library reports a bad argument k as the status -k and running out of memory as -199
(OUT_OF_MEMORY). Each table below lists, per function and form, the statuses it can
return, the argument each one names (by its Python name and its position in the
library's signature) and what is wrong. Where the arrays tell more (which element holds
a bad node ID, which shapes disagree) the message says so. -199 is the same for every
function: OutOfMemoryError, a MemoryError.
"""

import numpy as np

ABSENT = 0xFFFFFFFF
OUT_OF_MEMORY = -199


class Error(ValueError):
    """A tessel3d call was given an invalid argument (or ran out of memory).

    Attributes: ``status`` (the library's negative status), ``function``, ``argument`` and
    ``position`` (the argument the status names, when it names one).
    """

    def __init__(self, message, status=None, function=None, argument=None, position=None):
        super().__init__(message)
        self.status = status
        self.function = function
        self.argument = argument
        self.position = position


class OutOfMemoryError(MemoryError):
    """A tessel3d call ran out of memory (the library's status -199). The outputs are
    rolled back as the function's documentation says; the caller's arrays are unchanged,
    except an interpolated field that may hold the nodes treated before memory ran out.

    Attributes: ``status`` (-199) and ``function``.
    """

    def __init__(self, message, function=None):
        super().__init__(message)
        self.status = OUT_OF_MEMORY
        self.function = function


# ---- details read from the arguments ----------------------------------------------

def _nodes(args):
    coords = args.get("coords")
    return None if coords is None else coords.shape[0]


def _id_problem(connect, nb_nodes, columns=None, absent_ok=False):
    """The first thing wrong with a connectivity, in words, or None."""
    if connect is None:
        return None
    if columns and connect.size and connect.shape[1] not in columns:
        return f"it has {connect.shape[1]} per element"
    if connect.size == 0 or nb_nodes is None:
        return None
    if isinstance(absent_ok, tuple):  # the column counts of the mixed layouts
        absent_ok = connect.shape[1] in absent_ok
    absent = connect == ABSENT
    if absent.any() and not absent_ok:
        j = int(np.argwhere(absent)[0][0])
        return f"element {j} holds the absent marker, which only the mixed layouts accept"
    bad = (connect >= nb_nodes) & ~absent
    if bad.any():
        j, i = np.argwhere(bad)[0]
        return f"element {j} holds node ID {connect[j, i]}, not below the node count {nb_nodes}"
    return None


def _ids(name, what, columns=None, absent_ok=False, nodes=_nodes):
    def text(args):
        problem = _id_problem(args.get(name), nodes(args), columns, absent_ok)
        return what + (f" ({problem})" if problem else "")
    return text


def _coords(columns="3"):
    def text(args):
        coords = args.get("coords")
        shape = "" if coords is None else f", not of shape {coords.shape}"
        return f"must be an (n, {columns}) array of node coordinates{shape}"
    return text


def _columns(name, expected):
    def text(args):
        a = args.get(name)
        got = "" if a is None else f", not {a.shape[1]}"
        return f"must have {expected} columns{got}"
    return text


def _shapes(what, *names):
    """`what`, followed by the shapes of the named arguments as the call received them."""
    def text(args):
        shown = ", ".join(f"{n} has shape {args[n].shape}" for n in names if args.get(n) is not None)
        return what + (f" ({shown})" if shown else "")
    return text


_SOLIDS = "must list 4 (TH4), 5 (PY5), 6 (W6) or 8 (mixed, H8) node IDs per element, each below the node count"
_SURFACE = ("must list 3 (triangles) or 4 (quadrangles; a triangle with the absent marker last) node IDs "
            "per face, each below the node count")


def _extrusion_outputs(solids, edges, lateral, cap):
    """Status -> entry for the four output matrices of an extrusion, at their positions."""
    table = {}
    for (status, position), name, what in (
            (solids, "solids", _columns("solids", "6 (W6) or 8 (H8 and W6 padded with the absent marker)")),
            (edges, "edges", _columns("edges", "2 (end nodes of the edges to sweep)")),
            (lateral, "lateral", _columns("lateral", "4")),
            (cap, "cap", _columns("cap", "3 or 4"))):
        if status is not None:
            table[status] = (name, position, what)
    return table


def _extrusion(*, sizes=None, extra=None, outputs, coords_columns="2) or (n, 3"):
    table = {-1: ("coords", 1, _coords(coords_columns)),
             -2: ("surface", 2, _ids("surface", _SURFACE, (3, 4), absent_ok=(4,)))}
    table.update(sizes or {})
    table.update(extra or {})
    table.update(_extrusion_outputs(*outputs))
    return table


_POSITIVE = "must be > 0"
_LOCATE_MESH = {
    -1: ("coords", 1, _coords()),
    -2: ("connect", 2, "must be an (m, 4) array of tetrahedra with node IDs below the node count"),
    -3: ("neighbors", 3, _shapes("must have the shape of connect, with element indices or ABSENT (use "
                                 "get_neighbors)", "neighbors", "connect")),
    -4: ("node_element", 4, _shapes("must have one entry per node (use get_node_element)", "node_element", "coords")),
}

TABLES = {
    "flip": {-2: ("type", 2, lambda a: f"{a['type_name']} needs {a['type_rows']} node IDs per element, "
                                       f"connect has {a['connect'].shape[1]}")},
    "flip_th4": {-1: ("connect", 1, _columns("connect", "4"))},
    "flip_w6": {-1: ("connect", 1, _columns("connect", "6"))},
    "flip_h8": {-1: ("connect", 1, _columns("connect", "8"))},
    "volume": {-1: ("coords", 1, _coords()),
               -2: ("connect", 2, _ids("connect", _SOLIDS, (4, 5, 6, 8), absent_ok=(8,)))},
    "circumcenters": {-1: ("coords", 1, _coords()),
                      -2: ("connect", 2, _ids("connect", "must list 4 node IDs per tetrahedron, each below the "
                                              "node count", (4,)))},
    "dihedral_angles": {-1: ("coords", 1, _coords()),
                        -2: ("connect", 2, _ids("connect", _SOLIDS, (4, 5, 6, 8), absent_ok=(8,))),
                        -5: ("max_values", 5, "must not share memory with min_values"),
                        -6: ("degenerate", 6, "must not share memory with min_values or max_values")},
    "convert_into_high_order": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, _ids("connect", "must list 4 (TH4), 6 (W6) or 8 (mixed, H8) node IDs per element, "
                                "each below the node count", (4, 6, 8), absent_ok=(8,))),
        -4: ("nodes_in_q4", 4, "must be a perfect square (0, 1, 4, 9, ...)"),
        -5: ("nodes_in_t3", 5, "must be 0, 1 or 3"),
        -6: ("nodes_in_h8", 6, "must be a perfect cube (0, 1, 8 or 27 with strict=True)"),
        -7: ("nodes_in_w6", 7, "must be 0 or 1"),
        -9: ("nodes_in_th4", 9, "must be 0 or 1"),
        -11: ("faces", 11, lambda a: "must list, per face, the corners, nodes_per_edge nodes per side and the "
                                     "interior nodes (" + a["face_rows"] + " columns), IDs below the node count"),
        -12: ("edges", 12, lambda a: f"must list {a['edge_rows']} node IDs per edge (two ends, then the edge "
                                     "nodes), each below the node count")},
    "convert_into_quadratic": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, _ids("connect", "must list 4 (TH4), 6 (W6) or 8 (mixed, H8) node IDs per element, "
                                "each below the node count", (4, 6, 8), absent_ok=(8,))),
        -11: ("faces", 3, "must list 6 node IDs per triangle (3 corners, 3 mid-side nodes) or 9 per quadrangle "
                          "(4 corners, 4 mid-side nodes, centre; the absent marker last for a triangle), each "
                          "below the node count"),
        -12: ("edges", 4, "must list 3 node IDs per edge (two ends, then the mid node), each below the node count")},
    "convert_into_linear": {
        -1: ("connect", 1, _columns("connect", "10, 13, 14, 15, 18, 20 or 27"))},
    "split_into_h8": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, lambda a: _split_connect(a)),
        -3: ("hexahedra", 3, _columns("hexahedra", "8")),
        -4: ("faces", 4, "must hold node IDs below the node count"),
        -5: ("edges", 5, "must hold node IDs below the node count"),
        -11: ("faces", 4, "must list 7 node IDs per triangle (corners, mid-side nodes, centre) or 9 per "
                          "quadrangle"),
        -12: ("edges", 5, "must list 3 node IDs per edge (two ends, then the mid node)")},
    # Extrusions: layer-count forms, then size forms (their own codes).
    "extrude_translate": _extrusion(
        extra={-4: ("vector", 3, "must not be zero (the layer size |vector| / layers would be 0)"),
               -5: ("vector", 3, "must not be zero (the layer size |vector| / layers would be 0)")},
        outputs=((-7, 5), (-8, 6), (-9, 7), (-10, 8))),
    "extrude_translate/sizes": _extrusion(
        sizes={-4: ("h0", 4, _POSITIVE), -5: ("h1", 5, _POSITIVE)}, outputs=((-7, 7), (-8, 8), (-9, 9), (-10, 10))),
    "extrude_rotate": _extrusion(
        extra={-5: ("rotation", 4, "gives a zero sweep: the first node of the surface lies on the axis through "
                                   "center, or the angle |rotation| is 0")},
        outputs=((-6, 6), (-7, 7), (-8, 8), (-9, 9))),
    "extrude_rotate/sizes": _extrusion(
        sizes={-5: ("h0", 5, _POSITIVE), -6: ("h1", 6, _POSITIVE)}, outputs=((-8, 8), (-9, 9), (-10, 10), (-11, 11))),
    "extrude_spiral": _extrusion(
        extra={-5: ("translation", 5, "must not be zero: the layer count sizes the layers by |translation| "
                                      "(use extrude_rotate for a pure rotation)")},
        outputs=((-7, 7), (-9, 8), (-10, 9), (-8, 10))),
    "extrude_spiral/sizes": _extrusion(
        sizes={-5: ("h0", 6, _POSITIVE), -6: ("h1", 7, _POSITIVE)}, outputs=((-8, 9), (-9, 10), (-10, 11), (-11, 12))),
    "extrude_normal/normals": _extrusion(
        coords_columns="3",
        extra={-2: ("surface", 2, _ids("surface", _SURFACE + " and below the number of normals", (3, 4), (4,),
                                       nodes=lambda a: min(a["coords"].shape[0], a["normals"].shape[0]))),
               -3: ("normals", 3, "must be an (n, 3) array, one vector per node")},
        outputs=((-5, 5), (-6, 6), (-7, 7), (-8, 8))),
    "extrude_normal": _extrusion(
        coords_columns="3",
        extra={-3: ("thickness", 3, _POSITIVE), -4: ("thickness", 3, _POSITIVE)},
        outputs=((-5, 5), (-8, 6), (-9, 7), (-6, 8))),
    "extrude_normal/sizes": _extrusion(
        coords_columns="3",
        sizes={-3: ("thickness", 3, _POSITIVE), -4: ("h0", 4, _POSITIVE), -5: ("h1", 5, _POSITIVE)},
        outputs=((-7, 7), (-8, 8), (-9, 9), (-10, 10))),
    "extrude_line": _extrusion(
        coords_columns="3",
        extra={-3: ("line", 3, "must list at least 2 node IDs, each below the node count"),
               -5: ("metrics", 5, "must be an (S, 6) array of packed symmetric tensors (a11 a12 a22 a13 a23 a33), "
                                  "one per line node")},
        outputs=((-6, 6), (-7, 7), (-8, 8), (-9, 9))),
    "get_element_containing_point": {
        **_LOCATE_MESH,
        -9: ("tolerance", 9, "must be a finite number"),
        -2: ("connect", 2, _ids("connect", "must hold node IDs below the node count for its element type",
                                absent_ok=True))},
    "get_elements_containing_points": {
        **_LOCATE_MESH,
        -2: ("connect", 2, _ids("connect", "must hold node IDs below the node count for its element type",
                                absent_ok=True)),
        -7: ("points", 7, lambda a: "must be a (k, 3) array of points"
             + ("" if a.get("points") is None else f", not of shape {a['points'].shape}")),
        -9: ("tolerance", 9, "must be a finite number")},
    # The search that cannot miss, many points in one call (Python: Locator.find_all).
    "locate_points": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, "must be an (m, 4) array of tetrahedra with node IDs below the node count"),
        -3: ("points", 3, "must be a (k, 3) array of points"),
        -5: ("tolerance", 5, "must be a finite number")},
    "Locator/build": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, "must be an (m, 4) array of tetrahedra with node IDs below the node count")},
    "Locator": {
        -1: ("points", 1, lambda a: "must be a (k, 3) array of points"
             + ("" if a.get("points") is None else f", not of shape {a['points'].shape}")),
        -2: ("connect", 2, "must be an (m, 4) array of tetrahedra with node IDs below the node count"),
        -3: ("tolerance", 2, "must be a finite number")},
    "interpolate/projected": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, "must be an (m, 4) array of tetrahedra with node IDs below the node count"),
        -3: ("field", 3, _shapes("must have one row (or entry) per node", "field", "coords")),
        -4: ("nodes", 4, "must list node IDs below the node count")},
    "interpolate_metrics/projected": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, "must be an (m, 4) array of tetrahedra with node IDs below the node count"),
        -3: ("metrics", 3, "must be an (n, 6) array of packed tensors (M11 M12 M22 M13 M23 M33) or an (n,) "
                           "array of sizes, one per node"),
        -4: ("nodes", 4, "must list node IDs below the node count")},
    "interpolate": {
        **_LOCATE_MESH,
        -5: ("field", 5, _shapes("must have one row (or entry) per node", "field", "coords")),
        -6: ("nodes", 6, "must list node IDs below the node count")},
    "interpolate_metrics": {
        **_LOCATE_MESH,
        -5: ("metrics", 5, _shapes("must be an (n, 6) array of packed tensors (M11 M12 M22 M13 M23 M33) or an "
                                   "(n,) array of sizes, one per node", "metrics", "coords")),
        -6: ("nodes", 6, "must list node IDs below the node count")},
    "duplicate_surface_nodes": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, _ids("connect", "must hold node IDs below the node count for its element type",
                                absent_ok=True)),
        -3: ("neighbors", 3, _shapes("must have the shape of the face adjacency of connect, with element indices "
                                     "or ABSENT (use get_neighbors)", "neighbors", "connect")),
        -4: ("node_element", 4, _shapes("must have an entry for every node of connect (use get_node_element)",
                                        "node_element")),
        -5: ("surface", 5, "must be (m, 3) triangles for TH4, (m, 4) quadrangles for H8 or (m, 4) mixed faces for "
                           "SOLID_MIX8, with node IDs below the node count"),
        -9: ("type", 9, "must be TH4, H8 or SOLID_MIX8")},
    "split_solid_q4": {
        -1: ("coords", 1, _coords()),
        -2: ("connect", 2, _ids("connect", "must list 5 (PY5), 6 (W6) or 8 (H8, mixed) node IDs per element, "
                                "each below the node count", (5, 6, 8), absent_ok=(8,))),
        -3: ("quads", 3, "must be an (m, 4) array of quadrangles with node IDs below the node count"),
        -4: ("min_quality", 4, "must be a finite number"),
        -6: ("failed", 6, "must not share memory with connectOut")},
    "get_neighbors": {-1: ("connect", 1, _shapes("has a number of node IDs per element that does not fit type",
                                                 "connect")),
                      -2: ("type", 2, "must be TH4, PY5, W6, H8 or SOLID_MIX8")},
    "get_node_element": {-1: ("connect", 1, "holds an entry that is neither below nb_nodes nor ABSENT")},
    "surface_normals": {-1: ("coords", 1, _coords()),
                        -2: ("surface", 2, _ids("surface", _SURFACE, (3, 4), absent_ok=(4,))),
                        -3: ("angle", 3, "must be >= 0")},
}
# The distributed component (tessel3d.mpi, its functions named mpi.<name>): argument 1 is
# the communicator.
TABLES.update({
    "mpi.distribute": {-1: ("comm", 1, "is MPI_COMM_NULL"), -2: ("root", 2, "is not a rank of comm, or differs between ranks"),
                   -3: ("coords", 3, "must have 3 columns"),
                   -4: ("connect", 4, "must be a solid layout whose node IDs are rows of coords"),
                   -5: (None, None, "the partitioner failed")},
    "mpi.gather": {-1: ("comm", 1, "is MPI_COMM_NULL"), -2: ("root", 2, "is not a rank of comm, or differs between ranks"),
               -3: ("part", 3, "is not a valid part (shapes, node indices, or a repeated element ID)")},
    "mpi.volume": {-1: ("comm", 1, "is MPI_COMM_NULL"), -2: ("part", 2, "is not a valid solid part")},
    "mpi.write_pvtu": {-1: ("comm", 1, "is MPI_COMM_NULL"),
                   -2: ("path", 2, "is empty, differs between ranks, or a file cannot be written"),
                   -3: ("part", 3, "is not a valid part (coords shape, ID counts, or a node index out of range)"),
                   -4: ("type", 4, "has no VTK cell (PY14), or does not fit connect's rows"),
                   -5: ("point_data", 5, "must have one row per node, the same arrays on every rank, no "
                                         "'GlobalNodeID'"),
                   -6: ("cell_data", 6, "must have one row per element, the same arrays on every rank, no "
                                        "'GlobalElementID'")},
    "mpi.read_pvtu": {-1: ("comm", 1, "is MPI_COMM_NULL"),
                  -2: ("path", 2, "cannot be read as a VTK unstructured grid (missing or damaged file, or cells "
                                  "of a kind the library has no type for)")},
})
_COMM = ("comm", 1, "is MPI_COMM_NULL")
_PART = ("part", 2, "is not a valid part (coords shape, ID counts, a repeated ID, or node indices and row count "
                    "the one-machine call refuses)")
TABLES.update({
    "mpi.convert_into_quadratic": {-1: _COMM, -2: _PART},
    "mpi.convert_into_linear": {-1: _COMM, -2: _PART},
    "mpi.split_into_h8": {-1: _COMM, -2: ("part", 2, _PART[2] + "; pyramids cannot be split")},
    "mpi.duplicate_surface_nodes": {-1: _COMM, -2: _PART,
                                    -3: ("surface", 3, "must have 3 or 4 columns of local node indices"),
                                    -4: ("excluded", 4, "holds an index that is not a local node"),
                                    -7: ("type", 7, "must be TH4, H8 or SOLID_MIX8")},
    "mpi.interpolate": {-1: _COMM, -2: ("source", 2, "is not a valid TH4 part"),
                        -3: ("field", 3, "must have one row per local source node, the same columns on every rank"),
                        -4: ("points", 4, "must have 3 columns")},
    "mpi.interpolate_metrics": {-1: _COMM, -2: ("source", 2, "is not a valid TH4 part"),
                                -3: ("metrics", 3, "must be (n, 6) or (n,) per local source node, alike on every "
                                                   "rank"),
                                -4: ("points", 4, "must have 3 columns"),
                                -5: ("values", 5, "must have one row per point, as many columns as metrics")},
})
for _name, _sizes in (("translate", (-4, -5)), ("rotate", (-5, -6)), ("spiral", (-5, -6)), ("normal", (-3, -4)),
                      ("line", (-3, -5))):
    TABLES["mpi.extrude_" + _name] = {
        -1: _COMM, -2: ("surface", 2, "is not a valid surface part (3 or 4 columns, ID counts)"),
        -3: (None, None, "the sweep's parameters differ between ranks, or are refused"),
        _sizes[0]: (None, None, "the sweep's vector, layer count or first size is refused"),
        _sizes[1]: (None, None, "the sweep's last size or line parameters are refused")}
TABLES["element_volumes"] = TABLES["volume"]
TABLES["solid_angles"] = TABLES["dihedral_angles"]
TABLES["extrude_line/scales"] = {k: v for k, v in TABLES["extrude_line"].items() if k != -5}


def _split_connect(args):
    connect = args.get("connect")
    if connect is not None and connect.size and connect.shape[1] == 8:
        rows = connect
        pyramid = (rows[:, 4] != ABSENT) & (rows[:, 5] == ABSENT)
        if pyramid.any():
            return f"holds pyramids (element {int(np.argmax(pyramid))}), which cannot be split into hexahedra"
    what = "must list 4 (TH4), 6 (W6) or 8 (mixed, H8) node IDs per element, each below the node count"
    return _ids("connect", what, (4, 6, 8), absent_ok=(8,))(args)


def message(function, status, args, form=None):
    """The message of a negative status, and the (argument, position) it names."""
    key = function + ("/" + form if form else "")
    entry = TABLES.get(key, {}).get(status)
    if entry is None:
        return f"{function}: failed with status {status}", None, None
    name, position, what = entry
    text = what(args) if callable(what) else what
    if name is None:
        return f"{function}: {text} (status {status})", None, None
    return f"{function}: {name} (argument {position}) {text}", name, position


def check(function, status, args=None, form=None):
    """Returns a non-negative status; raises OutOfMemoryError for -199 and Error for any
    other negative one."""
    if status >= 0:
        return status
    if status == OUT_OF_MEMORY:
        raise OutOfMemoryError(f"{function}: out of memory (status {status})", function)
    text, name, position = message(function, status, args or {}, form)
    raise Error(text, status=status, function=function, argument=name, position=position)
