"""The tessel3d command line: python3 -m tessel3d COMMAND ... (or the `tessel3d` launcher).

Every command reads and writes mesh files through tessel3d.io (any format meshio knows,
chosen by the extension). A bad file or argument gives a one-line error and exit
status 2; operations that take longer than a second print a progress line.
"""

import argparse
import sys
import threading
import time

import numpy as np

from . import io as mio
from .errors import Error

DEG = 180.0 / np.pi


class UserError(Exception):
    """A problem with the user's files or arguments: one line, no traceback."""


class progress:
    """Prints "label ..." on stderr when the block runs longer than a second, and how long
    it took at its end (the library releases the interpreter while it works)."""

    def __init__(self, label, stream=None, delay=1.0):
        self.label, self.stream, self.delay, self.shown = label, stream or sys.stderr, delay, False

    def _show(self):
        self.shown = True
        print(f"tessel3d: {self.label} ...", file=self.stream, flush=True)

    def __enter__(self):
        self.start = time.monotonic()
        self.timer = threading.Timer(self.delay, self._show)
        self.timer.daemon = True
        self.timer.start()
        return self

    def __exit__(self, *exc):
        self.timer.cancel()
        if self.shown:
            print(f"tessel3d: {self.label}: {time.monotonic() - self.start:.1f} s", file=self.stream, flush=True)
        return False


# ---- shared pieces -----------------------------------------------------------------------

def read(path):
    with progress(f"reading {path}"):
        return mio.read(path)


def write(path, mesh):
    with progress(f"writing {path}"):
        mio.write(path, mesh)
    print(f"wrote {path}: {mesh}")


def linear_solids(mesh, path, pad_pyramids=False):
    kind, connect = mesh.solids()
    if connect is None:
        raise UserError(f"{path}: holds no linear solid elements (TH4, PY5, W6, H8)")
    if pad_pyramids and kind == "PY5":
        kind, connect = "SOLID_MIX8", _pad(connect, 8)
    return kind, connect


def solids_or_corners(mesh):
    """(type, connectivity) of the linear solids, or of the corners of the quadratic ones."""
    kind, connect = mesh.solids()
    if connect is not None:
        return kind, connect
    kind, connect = mesh.quadratic_solids()
    if connect is None:
        return None, None
    from . import order
    if connect.shape[1] not in (10, 27):
        connect = _pad(connect, 27)
    corners = order.convert_into_linear(connect)
    return type_of_columns(corners), corners


def _pad(connect, width):
    out = np.full((len(connect), width), mio.ABSENT, dtype=np.uint32)
    out[:, :connect.shape[1]] = connect
    return out


def type_of_columns(connect, quadratic=False):
    columns = connect.shape[1]
    if columns == 8:
        return "SOLID_MIX8" if (connect == mio.ABSENT).any() else "H8"
    if columns == 27:
        return "SOLID_MIX27" if (connect == mio.ABSENT).any() else "H27"
    return {4: "TH4", 5: "PY5", 6: "W6", 10: "TH10", 18: "W18", 14: "PY14"}[columns]


def boundary_edges(faces):
    """Edges used by exactly one face of a (m, 3) or (m, 4) face array (ABSENT in the 4th
    column for a triangle), oriented as in their face."""
    edges = []
    for face in faces:
        nodes = [int(n) for n in face if n != mio.ABSENT]
        edges += [(nodes[i], nodes[(i + 1) % len(nodes)]) for i in range(len(nodes))]
    count = {}
    for a, b in edges:
        key = (min(a, b), max(a, b))
        count[key] = count.get(key, 0) + 1
    return np.array([e for e in edges if count[(min(e), max(e))] == 1], dtype=np.uint32).reshape(-1, 2)


def histogram(values, bins, lo, hi, width=40, unit="deg"):
    counts, edges = np.histogram(values, bins=bins, range=(lo, hi))
    top = max(counts.max(), 1)
    lines = []
    for c, a, b in zip(counts, edges[:-1], edges[1:]):
        lines.append(f"  {a:7.1f} - {b:6.1f} {unit} {c:8d} {'#' * int(round(width * c / top))}")
    return "\n".join(lines)


def angle_summary(coords, kind, connect):
    """(min dihedral, max dihedral, min solid, max solid) per element, in degrees and
    steradians."""
    from . import measures
    with progress("measuring angles"):
        dihedral = measures.dihedral_angles(coords, connect)
        solid = measures.solid_angles(coords, connect)
    return dihedral.min * DEG, dihedral.max * DEG, solid.min, solid.max


# ---- commands ------------------------------------------------------------------------------

def cmd_info(args):
    from . import measures
    mesh = read(args.file)
    lo, hi = (mesh.coords.min(axis=0), mesh.coords.max(axis=0)) if len(mesh.coords) else (np.zeros(3), np.zeros(3))
    print(f"{args.file}: {len(mesh.coords)} nodes")
    for kind, count in mesh.counts().items():
        print(f"  {kind:6s} {count:10d}")
    print(f"  bounding box {np.array2string(lo, precision=4)} - {np.array2string(hi, precision=4)}")
    if mesh.groups:
        print("  groups: " + ", ".join(f"{g} ({sum(len(v) for v in m.values())})" for g, m in mesh.groups.items()))
    if mesh.point_data:
        print("  point data: " + ", ".join(mesh.point_data))
    kind, connect = solids_or_corners(mesh)
    if connect is None:
        return 0
    with progress("measuring the volume"):
        total = measures.volume(mesh.coords, connect)
    print(f"  volume {total:.6g}")
    dmin, dmax, smin, smax = angle_summary(mesh.coords, kind, connect)
    print(f"  dihedral angles {np.nanmin(dmin):.2f} - {np.nanmax(dmax):.2f} deg "
          f"(mean of the element minima {np.nanmean(dmin):.2f})")
    print(f"  solid angles {np.nanmin(smin):.4f} - {np.nanmax(smax):.4f} sr")
    inverted = int((smin < 0).sum())
    if inverted:
        print(f"  {inverted} inverted element(s) (negative solid angles)")
    return 0


def cmd_extrude(args):
    from . import extrude
    mesh = read(args.input)
    kind, faces = mesh.faces()
    if faces is None:
        raise UserError(f"{args.input}: holds no triangles or quadrangles to extrude")
    layers = dict(layers=args.layers) if args.sizes is None else dict(h0=args.sizes[0], h1=args.sizes[1],
                                                                        even_layers=args.even)
    edges = boundary_edges(faces)
    x = mesh.coords
    with progress("extruding"):
        if args.translate is not None:
            result = extrude.extrude_translate(x, faces, args.translate, edges=edges, **layers)
        elif args.rotate is not None:
            result = extrude.extrude_rotate(x, faces, args.rotate[:3], args.rotate[3:], edges=edges, **layers)
        elif args.spiral is not None:
            s = args.spiral
            result = extrude.extrude_spiral(x, faces, s[:3], s[3:6], s[6:], edges=edges, **layers)
        elif args.normal is not None:
            result = extrude.extrude_normal(x, faces, args.normal, edges=edges, **layers)
        else:
            if args.sizes is not None or args.layers is not None:
                raise UserError("--line makes one layer per polyline segment: no --layers or --sizes")
            result = extrude.extrude_line(x, faces, args.line, args.direction, edges=edges,
                                          scales=args.scales)
    cells = {type_of_columns(result.solids): result.solids}
    groups = {}
    if args.faces:
        faces_out = [("bottom", faces), ("lateral", result.lateral), ("top", result.cap)]
        stacked = np.concatenate([_pad(f, 4) for _, f in faces_out if len(f)])
        cells["FACE_MIX4"] = stacked
        start = 0
        for name, f in faces_out:
            groups[name] = {"FACE_MIX4": np.arange(start, start + len(f))}
            start += len(f)
    write(args.output, mio.Mesh(result.coords, cells, groups=groups))
    return 0


def cmd_quadratic(args):
    from . import order
    mesh = read(args.input)
    kind, connect = linear_solids(mesh, args.input, pad_pyramids=True)
    with progress("converting into quadratic elements"):
        result = order.convert_into_quadratic(mesh.coords, connect)
    write(args.output, mio.Mesh(result.coords, {type_of_columns(result.connect): result.connect}))
    return 0


def cmd_linear(args):
    from . import order
    mesh = read(args.input)
    kind, connect = mesh.quadratic_solids()
    if connect is None:
        raise UserError(f"{args.input}: holds no quadratic solid elements")
    if connect.shape[1] not in (10, 27):
        connect = _pad(connect, 27)  # the 27-column layout marks each kind by its padding
    result = order.convert_into_linear(connect)
    write(args.output, mio.Mesh(mesh.coords, {type_of_columns(result): result}, point_data=mesh.point_data))
    return 0


def cmd_hexsplit(args):
    from . import order
    mesh = read(args.input)
    kind, connect = linear_solids(mesh, args.input)
    with progress("splitting into hexahedra"):
        result = order.split_into_h8(mesh.coords, connect)
    write(args.output, mio.Mesh(result.coords, {"H8": result.hexahedra}))
    return 0


# The library's flip of a PY14 also exchanges rows 6 and 8 (the nodes on edges 1-4 and
# 3-4) while corners 1 and 3 stay, which moves those nodes off their edges; the command
# line applies the exchanges that keep every node on its edge instead.
_PY14_FLIP = [2, 1, 0, 3, 4, 7, 6, 5, 8, 10, 9, 12, 11, 13]


def cmd_flip(args):
    from . import measures, mesh as tmesh
    mesh = read(args.input)
    flipped = 0
    for kind, connect in list(mesh.cells.items()):
        if kind in ("PY13", "W15", "H20"):
            print(f"{kind} elements left as they are: the library has no flip for them", file=sys.stderr)
        if kind == "PY14" and not args.inverted_only:
            mesh.cells[kind] = np.ascontiguousarray(connect[:, _PY14_FLIP])
            flipped += len(connect)
            continue
        if kind not in ("TH4", "TH10", "PY5", "W6", "W18", "H8", "H27"):
            continue
        if args.inverted_only:
            if kind not in ("TH4", "PY5", "W6", "H8"):
                continue
            negative = measures.element_volumes(mesh.coords, connect) < 0
            part = np.ascontiguousarray(connect[negative])
            tmesh.flip(part, kind)
            connect[negative] = part
            flipped += int(negative.sum())
        else:
            tmesh.flip(connect, kind)
            flipped += len(connect)
    print(f"flipped {flipped} element(s)")
    write(args.output, mesh)
    return 0


def cmd_quality(args):
    mesh = read(args.input)
    kind, connect = solids_or_corners(mesh)
    if connect is None:
        raise UserError(f"{args.input}: holds no solid elements")
    dmin, dmax, smin, smax = angle_summary(mesh.coords, kind, connect)
    print(f"{args.input}: {len(connect)} elements")
    print(f"  minimum dihedral angle per element: {np.nanmin(dmin):.2f} - {np.nanmax(dmin):.2f} deg, "
          f"mean {np.nanmean(dmin):.2f}")
    print(f"  maximum dihedral angle per element: {np.nanmin(dmax):.2f} - {np.nanmax(dmax):.2f} deg")
    print(f"  minimum solid angle per element: {np.nanmin(smin):.4f} - {np.nanmax(smin):.4f} sr")
    print("  histogram of the minimum dihedral angles:")
    print(histogram(dmin[np.isfinite(dmin)], args.bins, 0.0, 90.0))
    if args.output:
        cells = {kind: connect}
        data = {"min_dihedral": dmin, "max_dihedral": dmax, "min_solid": smin, "max_solid": smax}
        write(args.output, mio.Mesh(mesh.coords, cells, cell_data={k: {kind: v} for k, v in data.items()}))
    return 0


def _surface_of_group(mesh, name, path):
    if name not in mesh.groups:
        known = ", ".join(mesh.groups) or "none"
        raise UserError(f"{path}: no group named {name!r} (groups: {known})")
    parts = []
    for kind, index in mesh.groups[name].items():
        if kind in ("T3", "Q4", "FACE_MIX4"):
            parts.append(_pad(mesh.cells[kind][np.asarray(index, dtype=np.int64)], 4) if kind != "T3"
                         else mesh.cells[kind][np.asarray(index, dtype=np.int64)])
    if not parts:
        raise UserError(f"{path}: group {name!r} holds no triangles or quadrangles")
    if len(parts) == 1:
        return parts[0]
    return np.concatenate([_pad(p, 4) for p in parts])


def _surface_of_file(mesh, path):
    from .mesh import NodeDetector
    faces_mesh = read(path)
    kind, faces = faces_mesh.faces()
    if faces is None:
        raise UserError(f"{path}: holds no triangles or quadrangles")
    used = np.unique(faces[faces != mio.ABSENT])
    detector = NodeDetector(mesh.coords)
    found = detector.find_closest(faces_mesh.coords[used])
    size = np.ptp(mesh.coords, axis=0).max() if len(mesh.coords) else 1.0
    far = np.linalg.norm(mesh.coords[found] - faces_mesh.coords[used], axis=1) > 1e-9 * max(size, 1e-300)
    if far.any():
        raise UserError(f"{path}: node {int(used[np.argmax(far)])} of the faces is not a node of the mesh")
    renumber = np.full(len(faces_mesh.coords), mio.ABSENT, dtype=np.uint32)
    renumber[used] = found
    out = faces.copy()
    present = out != mio.ABSENT
    out[present] = renumber[out[present]]
    return out


def cmd_crack(args):
    from . import surface as tsurface
    from .mesh import get_neighbors
    mesh = read(args.input)
    kind, connect = linear_solids(mesh, args.input)
    if kind not in ("TH4", "H8", "SOLID_MIX8"):
        raise UserError(f"{args.input}: crack needs tetrahedra, hexahedra or both (found {kind})")
    faces = _surface_of_group(mesh, args.group, args.input) if args.group else _surface_of_file(mesh, args.faces)
    if kind == "H8" and faces.shape[1] == 3:
        raise UserError("the surface of a hexahedral mesh must be made of quadrangles")
    if kind == "SOLID_MIX8" and faces.shape[1] == 3:
        faces = _pad(faces, 4)
    excluded = None
    if args.keep_front:
        neighbors = get_neighbors(connect, kind)
        outer = _boundary_nodes(connect, kind, neighbors)
        rim = np.unique(boundary_edges(faces))
        excluded = np.setdiff1d(rim, outer).astype(np.uint32)
    positive = args.side in ("positive", "both")
    negative = args.side in ("negative", "both")
    with progress("duplicating the surface nodes"):
        result = tsurface.duplicate_surface_nodes(mesh.coords, connect, faces, excluded=excluded,
                                                  positive_side=positive, negative_side=negative, type=kind)
    if result.added == 0:
        print("no node duplicated (the surface touches no element on the chosen side)")
    else:
        print(f"duplicated the surface nodes: {result.added} new node(s)")
    cells = {type_of_columns(result.connect): result.connect}
    for face_kind in ("T3", "Q4", "FACE_MIX4"):
        if face_kind in mesh.cells:
            cells[face_kind] = mesh.cells[face_kind]
    write(args.output, mio.Mesh(result.coords, cells, groups=mesh.groups))
    return 0


_FACES = {"TH4": ((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0)),
          "H8": ((0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7), (0, 1, 2, 3), (4, 7, 6, 5))}


def _boundary_nodes(connect, kind, neighbors):
    """Nodes on the faces that have no neighbour (the outer boundary of the mesh)."""
    nodes = set()
    for e, row in enumerate(neighbors):
        for f, other in enumerate(row):
            if other != mio.ABSENT:
                continue
            element = connect[e]
            if kind == "SOLID_MIX8":
                kinds = mio._kinds_mix8(connect[e:e + 1])[0]
                table = {"TH4": _FACES["TH4"], "H8": _FACES["H8"]}.get(kinds, ())
            else:
                table = _FACES[kind]
            if f < len(table):
                nodes.update(int(element[i]) for i in table[f] if element[i] != mio.ABSENT)
    return np.array(sorted(nodes), dtype=np.uint32)


def cmd_interpolate(args):
    from . import locate
    source, target = read(args.source), read(args.target)
    kind, connect = source.solids()
    if kind != "TH4":
        raise UserError(f"{args.source}: interpolation needs a tetrahedral source mesh (found {kind or 'no solids'})")
    names = args.field or list(source.point_data)
    if not names:
        raise UserError(f"{args.source}: holds no nodal field to interpolate")
    missing = [n for n in names if n not in source.point_data]
    if missing:
        raise UserError(f"{args.source}: no nodal field named {missing[0]!r} "
                        f"(fields: {', '.join(source.point_data) or 'none'})")
    ns, nt = len(source.coords), len(target.coords)
    coords = np.concatenate([source.coords, target.coords])
    nodes = np.arange(ns, ns + nt, dtype=np.uint32)
    # The strict search takes the adjacency, built once here for every field.
    adjacency = {}
    if args.strict:
        loc = locate.Locator(coords, connect, strict=True)
        adjacency = {"neighbors": loc.neighbors, "node_element": loc.node_element}
    for name in names:
        values = np.asarray(source.point_data[name], dtype=np.float64)
        shape = values.shape[1:]
        field = np.zeros((ns + nt, int(np.prod(shape, dtype=np.int64))))
        field[:ns] = values.reshape(ns, -1)
        with progress(f"interpolating {name}"):
            locate.interpolate(coords, connect, field, nodes, strict=args.strict, **adjacency)
        target.point_data[name] = field[ns:].reshape((nt,) + shape)
        print(f"interpolated {name} onto {nt} node(s)")
    write(args.output, target)
    return 0


def cmd_demo(args):
    from . import demo
    return demo.run(args.out, args.size, args.input)


# ---- parser --------------------------------------------------------------------------------

def parser():
    p = argparse.ArgumentParser(prog="tessel3d", description="Tools for three-dimensional finite-element meshes. "
                                "Files are read and written in any format meshio knows (.msh, .vtu, .vtk, .inp, "
                                ".med, .xdmf, ...), chosen by the extension.")
    p.add_argument("--version", action="store_true", help="print the library version and exit")
    sub = p.add_subparsers(dest="command", metavar="COMMAND")

    s = sub.add_parser("info", help="counts by element type, volume, angle statistics",
                       description="Counts by element type, bounding box, groups, volume and angle statistics.")
    s.add_argument("file")
    s.set_defaults(run=cmd_info)

    s = sub.add_parser("extrude", help="extrude the surface of a file into layers of wedges and hexahedra",
                       description="Sweeps the triangles and quadrangles of INPUT into layers of wedges (W6) and "
                       "hexahedra (H8). Example: tessel3d extrude disc.vtu pipe.vtu --translate 0 0 2 --layers 8")
    s.add_argument("input")
    s.add_argument("output")
    how = s.add_mutually_exclusive_group(required=True)
    how.add_argument("--translate", nargs=3, type=float, metavar=("DX", "DY", "DZ"), help="translation vector")
    how.add_argument("--rotate", nargs=6, type=float, metavar=("CX", "CY", "CZ", "RX", "RY", "RZ"),
                     help="axis point C and rotation vector R (its length is the angle in radians)")
    how.add_argument("--spiral", nargs=9, type=float, metavar=("CX", "CY", "CZ", "RX", "RY", "RZ", "TX", "TY", "TZ"),
                     help="axis point, rotation vector and translation of a helical sweep")
    how.add_argument("--normal", type=float, metavar="THICKNESS", help="along the surface's nodal normals")
    how.add_argument("--line", nargs="+", type=int, metavar="NODE",
                     help="along the polyline through these node IDs (one layer per segment)")
    s.add_argument("--direction", nargs=3, type=float, default=(0.0, 0.0, 1.0), metavar=("VX", "VY", "VZ"),
                   help="with --line: the direction the section faces at the first node (default 0 0 1)")
    s.add_argument("--scales", nargs="+", type=float, metavar="F", help="with --line: section scale per node")
    s.add_argument("--layers", type=int, help="number of uniform layers")
    s.add_argument("--sizes", nargs=2, type=float, metavar=("H0", "H1"),
                   help="layer thickness at the start and at the end (geometric progression)")
    s.add_argument("--even", action="store_true", help="with --sizes: an even number of layers")
    s.add_argument("--faces", action="store_true", help="also write the bottom, lateral and top faces (groups)")
    s.set_defaults(run=cmd_extrude)

    for name, run, text in (("quadratic", cmd_quadratic, "linear solids into quadratic ones (TH10, PY14, W18, H27)"),
                            ("linear", cmd_linear, "quadratic solids into linear ones (their corners)"),
                            ("hexsplit", cmd_hexsplit, "every TH4, W6 and H8 split into hexahedra")):
        s = sub.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".")
        s.add_argument("input")
        s.add_argument("output")
        s.set_defaults(run=run)

    s = sub.add_parser("flip", help="reverse the orientation of the solids",
                       description="Reverses the orientation of every solid element (or only the inverted ones).")
    s.add_argument("input")
    s.add_argument("output")
    s.add_argument("--inverted-only", action="store_true", help="flip only the elements whose volume is negative")
    s.set_defaults(run=cmd_flip)

    s = sub.add_parser("quality", help="dihedral and solid angles per element, with a histogram",
                       description="Smallest and largest dihedral and solid angle of every linear solid, their "
                       "ranges and a histogram of the smallest dihedral angles.")
    s.add_argument("input")
    s.add_argument("--output", "-o", help="write the mesh with the angles as cell data")
    s.add_argument("--bins", type=int, default=9, help="histogram bins over 0-90 degrees (default 9)")
    s.set_defaults(run=cmd_quality)

    s = sub.add_parser("crack", help="duplicate the nodes of an internal surface",
                       description="Opens a TH4 / H8 mesh along an internal surface, given by a physical group of "
                       "the file or by a file of faces (matched to the mesh's nodes by position).")
    s.add_argument("input")
    s.add_argument("output")
    which = s.add_mutually_exclusive_group(required=True)
    which.add_argument("--group", help="name of a group of faces in INPUT")
    which.add_argument("--faces", metavar="FILE", help="a mesh file whose triangles / quadrangles are the surface")
    s.add_argument("--side", choices=("positive", "negative", "both"), default="positive",
                   help="the side(s) whose elements get the copies (positive: where the face normals point)")
    s.add_argument("--keep-front", action="store_true",
                   help="do not duplicate the surface's rim nodes that lie inside the mesh (a crack front)")
    s.set_defaults(run=cmd_crack)

    s = sub.add_parser("interpolate", help="a nodal field from one mesh onto the nodes of another",
                       description="Interpolates nodal fields of SOURCE (a tetrahedral mesh) onto the nodes of "
                       "TARGET and writes TARGET with them to OUTPUT. Nodes outside SOURCE get the value at the "
                       "closest point of its boundary.")
    s.add_argument("source")
    s.add_argument("target")
    s.add_argument("output")
    s.add_argument("--field", action="append", help="name of a nodal field (default: all); may be repeated")
    s.add_argument("--strict", action="store_true",
                   help="the walk alone: nodes it does not place (outside SOURCE, or missed near slots and holes) "
                   "copy the nearest node")
    s.set_defaults(run=cmd_interpolate)

    s = sub.add_parser("demo", help="build, extrude, convert, split and measure a mesh; write .vtu files and a PNG",
                       description="Builds a surface mesh (or reads --input), extrudes it, converts it into "
                       "quadratic elements, splits a copy into hexahedra, measures the quality and writes .vtu "
                       "files and a PNG picture coloured by the minimum dihedral angle. To run it on your own "
                       "surface: python3 -m tessel3d demo --input my_surface.msh --out my-demo")
    s.add_argument("--out", default="demo-output", help="output directory (default ./demo-output)")
    s.add_argument("--size", type=int, default=6, help="rings of the built surface (default 6)")
    s.add_argument("--input", help="a file holding a triangle / quadrangle surface to use instead")
    s.set_defaults(run=cmd_demo)
    return p


def main(argv=None):
    p = parser()
    args = p.parse_args(argv)
    if args.version:
        from .mesh import version
        print(f"tessel3d {version()}")
        return 0
    if not args.command:
        p.print_help()
        return 2
    try:
        return args.run(args)
    except (UserError, Error, mio.FileError, NotImplementedError) as error:
        print(f"tessel3d {args.command}: error: {error}", file=sys.stderr)
        return 2
    except ValueError as error:  # argument values the library's Python layer refused
        print(f"tessel3d {args.command}: error: {error}", file=sys.stderr)
        return 2
    except OSError as error:
        print(f"tessel3d {args.command}: error: {error.filename or ''}: {error.strerror or error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(f"tessel3d {args.command}: interrupted", file=sys.stderr)
        return 130
