"""The tessel3d command line: python3 -m tessel3d COMMAND ... (or the `tessel3d` launcher).

Every command reads and writes mesh files through tessel3d.io (any format meshio knows,
chosen by the extension). Results keep what their input held: groups, cell data, point
data and boundary faces follow each operation as tessel3d.carry describes. A bad file or
argument gives one line on stderr and exit status 2; long steps show their progress.
"""

import argparse
import inspect
import math
import os
import sys
import warnings

import numpy as np

from . import io as mio
from .carry import Cells, NewNodes, assemble, point_data
from .errors import Error
from .elements import (CORNER_COUNT, HEXAHEDRA_PER_SOLID, LINEAR_OF, LINEAR_SOLIDS, SPLIT_PATTERNS, boundary_edges,
                       build_cells, edge_keys, face_edges, face_owners, flip_cells, name_nodes, node_names,
                       outer_faces, pad, renumber_faces, split_names, type_of_columns)
from .mesh import ABSENT, member_types, signed_volumes
from .progress import progress

DEG = 180.0 / np.pi


class UserError(Exception):
    """A problem with the user's files or arguments: one line, no traceback."""


# ---- files --------------------------------------------------------------------------------

def _parameters(function):
    try:
        return inspect.signature(function).parameters
    except (TypeError, ValueError):
        return {}


def _partitioned(path):
    return str(path).lower().endswith(".pvtu")


def read(path):
    if _partitioned(path):  # one rank: the whole partitioned file
        from . import _cli_mpi
        with progress(f"reading {path}"):
            mesh = _cli_mpi.read_mesh(path)
        _check_input(mesh, path)
        return mesh
    with progress(f"reading {path}") as update:
        keywords = {"progress": update} if "progress" in _parameters(mio.read) else {}
        mesh = mio.read(path, **keywords)
    _check_input(mesh, path)
    return mesh


def _check_input(mesh, path):
    """Refuses non-finite coordinates and node IDs past the nodes; drops the sets and data
    meshio adds for itself ("gmsh:...") and sets whose indices are not elements."""
    bad = ~np.isfinite(mesh.coords).all(axis=1)
    if bad.any():
        node = int(np.argmax(bad))
        raise UserError(f"{path}: node {node} has a non-finite coordinate {mesh.coords[node].tolist()} "
                        f"({int(bad.sum())} such node(s))")
    for name, cells in mesh.cells.items():
        present = cells[cells != ABSENT]
        if len(present) and present.max() >= len(mesh.coords):
            raise UserError(f"{path}: {name} elements use node {int(present.max())} of {len(mesh.coords)}")
    mesh.point_data = {k: v for k, v in mesh.point_data.items() if not k.startswith("gmsh:")}
    mesh.cell_data = {k: v for k, v in mesh.cell_data.items() if not k.startswith("gmsh:")}
    for group in list(mesh.groups):
        members = mesh.groups[group]
        valid = all(t in mesh.cells and (not len(i) or int(np.max(i)) < len(mesh.cells[t])) for t, i in members.items())
        if not valid and not group.startswith("gmsh:"):
            warnings.warn(f"{path}: set {group!r} left out: it lists elements the file does not hold")
        if group.startswith("gmsh:") or not valid:
            del mesh.groups[group]


_COMPRESSED = (".vtu", ".xdmf", ".xmf")


def _check_compression(path, args):
    if getattr(args, "compression", None) not in (None, "none") and \
            os.path.splitext(str(path))[1].lower() not in _COMPRESSED:
        raise UserError(f"{path}: --compression applies to .vtu and .xdmf files")


def write(path, mesh, args, say=True):
    """Writes with the user's --compression; says what was written."""
    keywords = {}
    accepted = _parameters(mio.write)
    compression = getattr(args, "compression", None)
    if compression is not None:
        _check_compression(path, args)
        if "compression" in accepted or str(path).lower().endswith(".vtu"):  # else meshio's keyword (.vtu)
            keywords["compression"] = None if compression == "none" else compression
    if _partitioned(path):  # one rank: a partitioned file of one piece
        from . import _cli_mpi
        with progress(f"writing {path}"):
            _cli_mpi.write_mesh(path, mesh)
        if say:
            print(f"wrote {path}: {mesh}")
        return
    with progress(f"writing {path}") as update:
        if "progress" in accepted:
            keywords["progress"] = update
        mio.write(str(path), mesh, **keywords)
    if say:
        print(f"wrote {path}: {mesh}")


DISTRIBUTED = ("info", "quadratic", "linear", "hexsplit", "extrude", "interpolate", "crack")


def _on_ranks(args):
    """Whether mpirun started several ranks for a command on partitioned files."""
    from . import _cli_mpi
    paths = [getattr(args, name, None) for name in ("file", "input", "source", "target", "output")]
    return _cli_mpi.ranks() > 1 and any(p is not None and _partitioned(p) for p in paths)


# ---- pieces of the commands -----------------------------------------------------------------

def linear_solids(cells, path, pad_to_mixed=()):
    """(type, connectivity, global numbers) of the linear solids; a pure type listed in
    pad_to_mixed comes in the 8-column mixed layout."""
    kind, connect, parents = cells.stack(LINEAR_SOLIDS, 8, "SOLID_MIX8")
    if connect is None:
        found = ", ".join(cells.mesh.counts()) or "no element"
        raise UserError(f"{path}: holds no linear solid elements (TH4, PY5, W6, H8; found {found})")
    if kind in pad_to_mixed:
        kind, connect = "SOLID_MIX8", pad(connect, 8)
    return kind, connect, parents


def corner_solids(mesh):
    """(type, connectivity, global numbers) of every solid by its corners (quadratic ones
    too), one pure type or SOLID_MIX8; (None, None, None) without solids."""
    cells = Cells(mesh)
    parts = []
    for name, connect in mesh.cells.items():
        base = LINEAR_OF.get(name, name)
        if base in LINEAR_SOLIDS and len(connect):
            parts.append((base, connect[:, :CORNER_COUNT[base]], cells.index(name)))
    if not parts:
        return None, None, None
    if len({b for b, _, _ in parts}) == 1:
        return parts[0][0], np.concatenate([c for _, c, _ in parts]), np.concatenate([g for _, _, g in parts])
    return "SOLID_MIX8", np.concatenate([pad(c, 8) for _, c, _ in parts]), np.concatenate([g for _, _, g in parts])


def _face_nodes(mesh):
    """The nodes of the cells that are not linear solids."""
    parts = [c[c != ABSENT] for name, c in mesh.cells.items() if name not in LINEAR_SOLIDS]
    return np.unique(np.concatenate(parts)) if parts else np.zeros(0, dtype=np.int64)


def _append(blocks, groups, name, connect, parents, group=None, inherit_groups=True):
    """Adds a result block, optionally as a new group (indices among the blocks of its type)."""
    start = sum(len(b[1]) for b in blocks if b[0] == name)
    blocks.append((name, connect, parents, inherit_groups))
    if group is not None and len(connect):
        groups.setdefault(group, {})[name] = np.arange(start, start + len(connect))


def _warn_inverted(coords, connect, path):
    from .measures import element_volumes  # the library's measure: one pass, no NumPy temporaries
    inverted = int((element_volumes(coords, connect) < 0).sum())
    if inverted:
        warnings.warn(f"{path}: {inverted} inverted element(s), inverted in the result too "
                      "(`tessel3d flip --inverted-only` turns them)")


def _available_memory():
    """Bytes of memory available now (MemAvailable), or the physical memory."""
    try:
        with open("/proc/meminfo") as info:
            for line in info:
                if line.startswith("MemAvailable:"):
                    return int(line.split()[1]) * 1024
    except OSError:
        pass
    try:
        return os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES")
    except (ValueError, OSError, AttributeError):
        return None


def _check_sweep_size(args, coords, faces, edges):
    """Refuses a layer count whose result cannot fit in memory, before the library tries:
    a crafted count must not take the machine down."""
    if args.layers is not None:
        layers = args.layers
    elif args.sizes is not None and args.translate is not None and min(args.sizes) > 0:
        layers = float(np.linalg.norm(args.translate)) / min(args.sizes)  # at most L / h, L the sweep length
    else:
        return
    surface_nodes = len(np.unique(faces[faces != ABSENT]))
    need = layers * (surface_nodes * 24 * 2 + len(faces) * 32 * 3 + len(edges) * 16 * 2)
    available = _available_memory()
    if available is not None and need > available:
        raise UserError(f"{layers:.4g} layers need about {need / 2**30:.3g} GiB, more than the "
                        f"{available / 2**30:.3g} GiB available")


def _check_finite(coords, what):
    bad = ~np.isfinite(coords).all(axis=1)
    if bad.any():
        raise UserError(f"{what}: {int(bad.sum())} node(s) got non-finite coordinates")


# ---- commands: one output element per input element ---------------------------------------

def cmd_info(args):
    if str(args.file).lower().endswith(".pvtu"):  # a partitioned file: every rank of mpirun reads its pieces
        from . import _cli_mpi
        return _cli_mpi.info(args.file)
    from . import measures
    mesh = read(args.file)
    lo, hi = (mesh.coords.min(axis=0), mesh.coords.max(axis=0)) if len(mesh.coords) else (np.zeros(3), np.zeros(3))
    print(f"{args.file}: {len(mesh.coords)} nodes")
    for kind, count in mesh.counts().items():
        print(f"  {kind:6s} {count:10d}")
    print(f"  bounding box {np.array2string(lo, precision=4)} - {np.array2string(hi, precision=4)}")
    if mesh.groups:
        print("  groups: " + ", ".join(f"{g} ({sum(len(v) for v in m.values())})" for g, m in mesh.groups.items()))
    for title, data in (("point data", mesh.point_data), ("cell data", mesh.cell_data)):
        if data:
            print(f"  {title}: " + ", ".join(data))
    kind, connect, _ = corner_solids(mesh)
    if connect is None:
        return 0
    with progress("measuring the volume"):
        total = measures.volume(mesh.coords, connect)
    print(f"  volume {total:.6g}")
    dmin, dmax, smin, smax = angle_summary(mesh.coords, connect)
    print(f"  dihedral angles {np.nanmin(dmin):.2f} - {np.nanmax(dmax):.2f} deg "
          f"(mean of the element minima {np.nanmean(dmin):.2f})")
    print(f"  solid angles {np.nanmin(smin):.4f} - {np.nanmax(smax):.4f} sr")
    inverted = int((signed_volumes(mesh.coords, connect, kind) < 0).sum())
    if inverted:
        print(f"  {inverted} inverted element(s) (negative volume; `tessel3d flip --inverted-only` turns them)")
    return 0


def angle_summary(coords, connect, strict=False):
    """(min dihedral, max dihedral, min solid, max solid) per element, in degrees and
    steradians. The checked forms unless strict: faces and corners without a direction
    are left out of the extremes."""
    from . import measures
    with progress("measuring angles"):
        dihedral = measures.dihedral_angles(coords, connect, strict=strict)
        solid = measures.solid_angles(coords, connect, strict=strict)
    return dihedral.min * DEG, dihedral.max * DEG, solid.min, solid.max


def histogram(values, bins, lo, hi, width=40, unit="deg"):
    counts, edges = np.histogram(values, bins=bins, range=(lo, hi))
    top = max(counts.max(), 1)
    return "\n".join(f"  {a:7.1f} - {b:6.1f} {unit} {c:8d} {'#' * int(round(width * c / top))}"
                     for c, a, b in zip(counts, edges[:-1], edges[1:]))


def cmd_quality(args):
    mesh = read(args.input)
    kind, connect, parents = corner_solids(mesh)
    if connect is None:
        raise UserError(f"{args.input}: holds no solid elements")
    from . import measures
    dmin, dmax, smin, smax = angle_summary(mesh.coords, connect, strict=args.strict)
    # Flat and collapsed elements are counted and listed apart (the checked measures only):
    # their angles say nothing about the shape of the others.
    degenerate = np.zeros(len(connect), bool)
    if not args.strict:
        degenerate[measures.degenerate_elements(mesh.coords, connect)] = True
    regular = ~degenerate
    print(f"{args.input}: {len(connect)} elements")
    if degenerate.any():
        listed = np.flatnonzero(degenerate)
        shown = ", ".join(str(i) for i in listed[:10]) + (", ..." if len(listed) > 10 else "")
        print(f"  degenerate (flat or collapsed) elements: {len(listed)}, left out below: {shown}")
    if not regular.any():
        print("  no element with defined angles")
    else:
        rmin, rmax, rsmin = dmin[regular], dmax[regular], smin[regular]
        print(f"  minimum dihedral angle per element: {np.nanmin(rmin):.2f} - {np.nanmax(rmin):.2f} deg, "
              f"mean {np.nanmean(rmin):.2f}")
        print(f"  maximum dihedral angle per element: {np.nanmin(rmax):.2f} - {np.nanmax(rmax):.2f} deg")
        print(f"  minimum solid angle per element: {np.nanmin(rsmin):.4f} - {np.nanmax(rsmin):.4f} sr")
        print("  histogram of the minimum dihedral angles:")
        print(histogram(rmin[np.isfinite(rmin)], args.bins, 0.0, 90.0))
    if args.output:
        # the input as it is, each element with its angles (NaN for faces and edges)
        cells = Cells(mesh)
        for key, values in (("min_dihedral", dmin), ("max_dihedral", dmax), ("min_solid", smin), ("max_solid", smax),
                            ("degenerate", degenerate.astype(float))):
            every = np.full(cells.count, np.nan)
            every[parents] = values
            mesh.cell_data[key] = {name: every[cells.index(name)] for name in mesh.cells}
        write(args.output, mesh, args)
    return 0


def cmd_flip(args):
    mesh = read(args.input)
    counts = {}
    for name, connect in mesh.cells.items():
        if LINEAR_OF.get(name, name) not in LINEAR_SOLIDS:
            continue  # faces and edges keep their orientation
        chosen = signed_volumes(mesh.coords, connect, name) < 0 if args.inverted_only else None
        done = flip_cells(connect, name, chosen)
        if done:
            counts[name] = done
    detail = ", ".join(f"{n} {k}" for k, n in counts.items())
    what = "inverted element(s)" if args.inverted_only else "element(s)"
    print(f"flipped {sum(counts.values())} {what}" + (f" ({detail})" if detail else ""))
    write(args.output, mesh, args)
    return 0


def cmd_quadratic(args):
    if _on_ranks(args):
        from . import _cli_mpi
        return _cli_mpi.run("quadratic", args)
    from . import order
    mesh = read(args.input)
    cells = Cells(mesh)
    kind, connect, parents = linear_solids(cells, args.input, pad_to_mixed=("PY5",))
    _warn_inverted(mesh.coords, connect, args.input)
    with progress("converting into quadratic elements"):
        result = order.convert_into_quadratic(mesh.coords, connect)
    with progress("carrying faces and data"):
        out_kind = type_of_columns(result.connect)
        new = NewNodes(len(mesh.coords))
        new.look_among(_face_nodes(mesh), record_only_these=not mesh.point_data)
        name_nodes(new, result.connect, out_kind, node_names)
        coords, blocks = result.coords, [(out_kind, result.connect, parents)]
        lift = {"E2": "E3", "T3": "T6", "Q4": "Q9"}
        for name, c in mesh.cells.items():
            if name in LINEAR_SOLIDS:
                continue
            global_index = cells.index(name)
            if name in lift:
                c, coords = build_cells(c, [node_names(lift[name])], new, coords)
                name = lift[name]
            blocks.append((name, c, global_index))
        values = point_data(mesh.point_data, len(coords), new)
    write(args.output, assemble(cells, coords, blocks, values), args)
    return 0


def cmd_hexsplit(args):
    if _on_ranks(args):
        from . import _cli_mpi
        return _cli_mpi.run("hexsplit", args)
    from . import order
    mesh = read(args.input)
    cells = Cells(mesh)
    kind, connect, parents = linear_solids(cells, args.input)
    kinds = member_types(connect, kind)
    if (kinds == "PY5").any():
        raise UserError(f"{args.input}: {int((kinds == 'PY5').sum())} pyramid(s): a pyramid cannot be split into "
                        "hexahedra")
    _warn_inverted(mesh.coords, connect, args.input)
    with progress("splitting into hexahedra"):
        result = order.split_into_h8(mesh.coords, connect)
    with progress("carrying faces and data"):
        pieces = hexahedra_per_element(kinds)
        new = split_new_nodes(connect, kinds, len(mesh.coords), result.coords, result.hexahedra,
                              faces=_face_nodes(mesh), record_only_faces=not mesh.point_data)
        coords = result.coords
        blocks = [("H8", result.hexahedra, np.repeat(parents, pieces))]
        for name, c in mesh.cells.items():
            if name in LINEAR_SOLIDS:
                continue
            global_index = cells.index(name)
            if name in SPLIT_PATTERNS:
                c, coords = build_cells(c, SPLIT_PATTERNS[name], new, coords)
                global_index = np.repeat(global_index, len(SPLIT_PATTERNS[name]))
            blocks.append(("Q4" if name == "T3" else name, c, global_index))
        values = point_data(mesh.point_data, len(coords), new)
    write(args.output, assemble(cells, coords, blocks, values), args)
    return 0


def hexahedra_per_element(kinds):
    pieces = np.zeros(len(kinds), dtype=np.int64)
    for k, count in HEXAHEDRA_PER_SOLID.items():
        pieces[kinds == k] = count
    return pieces


def split_new_nodes(connect, kinds, nb_old, coords, hexahedra, faces=None, record_only_faces=False):
    """The new nodes of a split into hexahedra (coords, hexahedra: the result; the
    hexahedra of each element consecutive, in element order), each named by the corners
    it is built from. With faces (node IDs) and record_only_faces, only the new nodes those
    faces need are named: enough to carry the faces when there is no point data."""
    pieces = hexahedra_per_element(kinds)
    start = np.concatenate([[0], np.cumsum(pieces)[:-1]])
    new = NewNodes(nb_old)
    if faces is not None:
        new.look_among(faces, record_only_these=record_only_faces)
    size = max(float(np.ptp(coords, axis=0).max()), 1e-300) if len(coords) else 1.0
    for k in dict.fromkeys(kinds):
        rows = np.nonzero(kinds == k)[0]
        block, first = connect[rows].astype(np.int64), start[rows]
        seen = {}  # each new node of an element from the first hexahedron that holds it
        for r, names in enumerate(split_names(k)):
            for i, name in enumerate(names):
                seen.setdefault(name, (r, i))
        sample = slice(None, None, max(1, len(rows) // 1000))
        if new.record_focus_only:  # only nodes of carried faces: elements with two corners on them
            chosen = new.focus[block[:, :CORNER_COUNT[k]]].sum(axis=1) >= 2
            named_block, named_first = block[chosen], first[chosen]
        else:
            named_block, named_first = block, first
        for name, (r, i) in seen.items():
            if len(name) > 1:
                made = hexahedra[first[sample] + r, i]
                where = coords[made] - coords[block[sample][:, sorted(name)]].mean(axis=1)
                if np.abs(where).max(initial=0.0) > 1e-9 * size:  # the pattern read off one element
                    raise UserError("the split's new nodes are not where expected: faces and data cannot follow")
                new.add(hexahedra[named_first + r, i], named_block[:, sorted(name)])
    return new


def cmd_linear(args):
    if _on_ranks(args):
        from . import _cli_mpi
        return _cli_mpi.run("linear", args)
    mesh = read(args.input)
    cells = Cells(mesh)
    if not any(name in LINEAR_OF and LINEAR_OF[name] in LINEAR_SOLIDS for name in mesh.cells):
        raise UserError(f"{args.input}: holds no quadratic solid elements (found {', '.join(mesh.counts()) or 'none'})")
    blocks = []
    for name, c in mesh.cells.items():
        base = LINEAR_OF.get(name, name)
        blocks.append((base, c[:, :CORNER_COUNT[base]] if base != name else c, cells.index(name)))
    coords, blocks, keep = _drop_unused(mesh.coords, blocks)
    dropped = len(mesh.coords) - len(coords)
    print(f"kept the corners: {len(coords)} node(s), {dropped} node(s) no element uses any more dropped")
    write(args.output, assemble(cells, coords, blocks, point_data(mesh.point_data, len(coords), None, keep)), args)
    return 0


def _drop_unused(coords, blocks, droppable=None):
    """Drops the nodes that no block uses (among those listed, or all) and renumbers the
    blocks; returns (coords, blocks, kept node IDs)."""
    used = np.ones(len(coords), dtype=bool)
    used[slice(None) if droppable is None else droppable] = False
    for _, c, *_ in blocks:
        used[c[c != ABSENT].astype(np.int64)] = True
    keep = np.nonzero(used)[0]
    renumber = np.full(len(coords) + 1, ABSENT, dtype=np.uint32)
    renumber[keep] = np.arange(len(keep), dtype=np.uint32)
    out = []
    for name, c, *rest in blocks:
        ids = np.where(c == ABSENT, len(coords), c).astype(np.int64)
        out.append((name, renumber[ids], *rest))
    return coords[keep], out, keep


# ---- extrusion --------------------------------------------------------------------------------

def turn_inverted(coords, solids):
    """(solids with the inverted ones turned, signed volumes before turning)."""
    solids = np.array(solids)
    solid_kind = type_of_columns(solids)
    volumes = signed_volumes(coords, solids, solid_kind)
    inverted = volumes < 0
    if inverted.any():
        kinds = member_types(solids, solid_kind)
        for k in dict.fromkeys(kinds):
            rows = kinds == k
            part = np.ascontiguousarray(solids[rows][:, :CORNER_COUNT[k]])
            flip_cells(part, k, inverted[rows])
            solids[rows, :CORNER_COUNT[k]] = part
    return solids, volumes


def cmd_extrude(args):
    if _on_ranks(args):
        from . import _cli_mpi
        return _cli_mpi.run("extrude", args)

    from . import extrude
    mesh = read(args.input)
    cells = Cells(mesh)
    kind, faces, parents = cells.stack(("T3", "Q4"), 4, "FACE_MIX4")
    if faces is None:
        raise UserError(f"{args.input}: holds no triangles or quadrangles to extrude "
                        f"(found {', '.join(mesh.counts()) or 'no element'})")
    if args.line is not None and (args.sizes is not None or args.layers is not None):
        raise UserError("--line makes one layer per polyline segment: no --layers or --sizes")
    if args.line is None and args.sizes is None and args.layers is None:
        raise UserError("give the number of layers (--layers) or their sizes (--sizes H0 H1)")
    layers = dict(layers=args.layers) if args.sizes is None else dict(h0=args.sizes[0], h1=args.sizes[1],
                                                                        even_layers=args.even)
    edges = boundary_edges(faces)
    x = mesh.coords
    _check_sweep_size(args, x, faces, edges)
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
            result = extrude.extrude_line(x, faces, args.line, args.direction, edges=edges, scales=args.scales)
    if not len(result.solids):
        raise UserError("the sweep made no layer")
    _check_finite(result.coords, "the sweep")
    solids, volumes = turn_inverted(result.coords, result.solids)
    solid_kind = type_of_columns(solids)
    nb_layers = len(solids) // len(faces)
    inverted = volumes < 0
    if inverted.any():
        why = "the sweep goes against their faces' normals" if inverted.all() else \
            "their faces are oriented against the sweep"
        print(f"flipped {int(inverted.sum())} of {len(solids)} element(s) that would have been inverted ({why})")
    flat = int((volumes == 0).sum())
    if flat:
        print(f"warning: {flat} element(s) have zero volume (nodes on the axis, or a zero normal)", file=sys.stderr)

    surface_nodes = list(dict.fromkeys(int(n) for n in faces.ravel() if n != ABSENT))
    new = NewNodes(len(x))
    new.add(np.arange(len(x), len(result.coords)), np.tile(surface_nodes, nb_layers))
    blocks, groups = [(solid_kind, solids, np.repeat(parents, nb_layers))], {}
    if args.faces:
        _append(blocks, groups, kind, faces, parents, "bottom", inherit_groups=False)
        # a lateral quadrangle takes the data and groups of the file's line on its edge
        line_of_edge = np.full(len(edges), -1, dtype=np.int64)
        if "E2" in mesh.cells and len(edges):
            lines = edge_keys(mesh.cells["E2"])
            order = np.argsort(lines)
            at = np.minimum(np.searchsorted(lines[order], edge_keys(edges)), len(lines) - 1)
            found = lines[order][at] == edge_keys(edges)
            line_of_edge[found] = cells.index("E2")[order[at[found]]]
        _append(blocks, groups, "Q4", result.lateral, np.repeat(line_of_edge, nb_layers), "lateral")
        _append(blocks, groups, kind, result.cap, parents, "top", inherit_groups=False)
    values = point_data(mesh.point_data, len(result.coords), new)
    write(args.output, assemble(cells, result.coords, blocks, values, groups), args)
    return 0


# ---- crack ------------------------------------------------------------------------------

def _surface_of_group(mesh, cells, name, path):
    if name not in mesh.groups:
        known = ", ".join(mesh.groups) or "none"
        raise UserError(f"{path}: no group named {name!r} (groups: {known})")
    parts, index = [], []
    for kind, members in mesh.groups[name].items():
        if kind in ("T3", "Q4"):
            members = np.asarray(members, dtype=np.int64)
            parts.append(pad(mesh.cells[kind][members], 4))
            index.append(cells.index(kind, members))
    if not parts:
        raise UserError(f"{path}: group {name!r} holds no triangles or quadrangles "
                        f"(it holds {', '.join(mesh.groups[name])})")
    return np.concatenate(parts), np.concatenate(index)


def _surface_of_file(mesh, path):
    from .mesh import NodeDetector
    faces_mesh = read(path)
    _, faces, _ = Cells(faces_mesh).stack(("T3", "Q4"), 4, "FACE_MIX4")
    if faces is None:
        raise UserError(f"{path}: holds no triangles or quadrangles")
    faces = pad(faces, 4)
    used = np.unique(faces[faces != ABSENT])
    found = NodeDetector(mesh.coords).find_closest(faces_mesh.coords[used])
    size = np.ptp(mesh.coords, axis=0).max() if len(mesh.coords) else 1.0
    far = np.linalg.norm(mesh.coords[found] - faces_mesh.coords[used], axis=1) > 1e-9 * max(size, 1e-300)
    if far.any():
        raise UserError(f"{path}: node {int(used[np.argmax(far)])} of the faces is not a node of the mesh")
    renumber = np.full(len(faces_mesh.coords), ABSENT, dtype=np.uint32)
    renumber[used] = found
    present = faces != ABSENT
    faces[present] = renumber[faces[present]]
    return faces


def _front_nodes(connect, kind, faces):
    """Nodes of the surface's rim edges that are not on the outer boundary of the mesh
    (its front inside the solid), with the front's ends."""
    rim = boundary_edges(faces)
    outer = edge_keys(face_edges(outer_faces(connect, kind)))
    front = rim[~np.isin(edge_keys(rim), outer)]
    return np.unique(front).astype(np.uint32)


def cmd_crack(args):
    if _on_ranks(args):
        from . import _cli_mpi
        return _cli_mpi.run("crack", args)
    from . import surface as tsurface
    from .mesh import get_neighbors
    mesh = read(args.input)
    cells = Cells(mesh)
    kind, connect, parents = linear_solids(cells, args.input, pad_to_mixed=("PY5", "W6"))
    if args.group:
        faces, face_index = _surface_of_group(mesh, cells, args.group, args.input)
    else:
        faces, face_index = _surface_of_file(mesh, args.faces), None
    triangles = faces[:, 3] == ABSENT
    if kind == "TH4" and not triangles.all():
        raise UserError("the surface of a tetrahedral mesh must be made of triangles")
    if kind == "H8" and triangles.any():
        raise UserError("the surface of a hexahedral mesh must be made of quadrangles")
    surface = faces[:, :3] if kind == "TH4" else faces
    _warn_inverted(mesh.coords, connect, args.input)
    excluded = _front_nodes(connect, kind, faces) if args.keep_front else None
    with progress("duplicating the surface nodes"):
        result = tsurface.duplicate_surface_nodes(mesh.coords, connect, surface, excluded=excluded,
                                                  positive_side=args.side in ("positive", "both"),
                                                  negative_side=args.side in ("negative", "both"), type=kind)
    after = result.connect
    new = NewNodes(len(mesh.coords))
    changed = after != connect
    new.add(after[changed], connect[changed])

    # what was opened: each face of the surface between two elements that no longer share it
    owners = face_owners(mesh.coords, connect, kind, faces)
    inside = (owners >= 0).all(axis=1)
    lips = [renumber_faces(faces[inside], owners[inside, s], connect, after) for s in (0, 1)]
    opened = np.zeros(len(faces), dtype=bool)
    opened[inside] = (np.sort(lips[0], axis=1) != np.sort(lips[1], axis=1)).any(axis=1)
    boundary_before = int((get_neighbors(connect, kind) == ABSENT).sum())
    boundary_after = int((get_neighbors(after, kind) == ABSENT).sum())
    torn = boundary_after - boundary_before - 2 * int(opened.sum())

    # faces of the file follow the element they bound (the one behind their normal first)
    blocks = [(type_of_columns(after), after, parents)]
    for name in ("T3", "Q4"):
        if name not in mesh.cells:
            continue
        c = pad(mesh.cells[name], 4)
        owner = face_owners(mesh.coords, connect, kind, c)
        chosen = np.where(owner[:, 0] >= 0, owner[:, 0], owner[:, 1])
        renumbered = c.copy()
        has = chosen >= 0
        renumbered[has] = renumber_faces(c[has], chosen[has], connect, after)
        blocks.append((name, renumbered[:, :3] if name == "T3" else renumbered, cells.index(name)))
    groups = {}
    if face_index is not None and opened.any():
        # the other lip, facing its own elements: the group's faces on the positive side
        lip = np.nonzero(opened)[0]
        positive = renumber_faces(faces[lip], owners[lip, 1], connect, after)
        for name, width in (("T3", 3), ("Q4", 4)):
            mask = (positive[:, 3] == ABSENT) if name == "T3" else (positive[:, 3] != ABSENT)
            if mask.any():
                _append(blocks, groups, name, positive[mask][:, :width][:, ::-1], face_index[lip[mask]],
                        f"{args.group}_positive", inherit_groups=False)
    coords = result.coords
    values = point_data(mesh.point_data, len(coords), new)
    # copies that no element took, and originals that every element around them left
    droppable = np.concatenate([np.unique(surface[surface != ABSENT]), np.arange(len(mesh.coords), len(coords))])
    coords, blocks, keep = _drop_unused(coords, blocks, droppable.astype(np.int64))
    values = {k: v[keep] for k, v in values.items()}
    text = (f"opened {int(opened.sum())} of {len(faces)} face(s) of the surface, "
            f"{len(coords) - len(mesh.coords)} node(s) added")
    if excluded is not None:
        text += f"; the front's {len(excluded)} node(s) kept single"
    print(text)
    if inside.sum() > opened.sum():
        print(f"  {int(inside.sum() - opened.sum())} face(s) stay closed: each of their nodes is kept single or "
              "has no element on the chosen side")
    if torn > 0:
        hint = "" if args.keep_front else " (its rim nodes inside the mesh were duplicated; --keep-front keeps them)"
        print(f"  {torn} other face(s) opened around the surface{hint}")
    write(args.output, assemble(cells, coords, blocks, values, groups), args)
    return 0


# ---- interpolation ------------------------------------------------------------------------

def cmd_interpolate(args):
    if _on_ranks(args):
        from . import _cli_mpi
        return _cli_mpi.run("interpolate", args)
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
        values = np.asarray(source.point_data[name])
        if values.dtype.kind not in "biuf" or len(values) != ns:
            raise UserError(f"{args.source}: field {name!r} is not one number (or vector) per node")
        shape = values.shape[1:]
        field = np.zeros((ns + nt, int(np.prod(shape, dtype=np.int64))))
        field[:ns] = values.reshape(ns, -1)
        with progress(f"interpolating {name}"):
            locate.interpolate(coords, connect, field, nodes, strict=args.strict, **adjacency)
        target.point_data[name] = field[ns:].reshape((nt,) + shape)
        print(f"interpolated {name} onto {nt} node(s)")
    write(args.output, target, args)
    return 0


def cmd_demo(args):
    from . import demo
    return demo.run(args.out, args.size, args.input, write=lambda path, mesh: write(path, mesh, args, say=False))


# ---- parser -----------------------------------------------------------------------------------

class _Parser(argparse.ArgumentParser):
    """Errors in one line on stderr, exit status 2."""

    def error(self, message):
        self.exit(2, f"{self.prog}: error: {message} (see {self.prog} --help)\n")


def _number(kind, low=None, high=None):
    def parse(text):
        try:
            value = kind(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"invalid {kind.__name__} value: {text!r}") from None
        if kind is float and not math.isfinite(value):
            raise argparse.ArgumentTypeError(f"{text!r} is not a finite number")
        if (low is not None and value < low) or (high is not None and value > high):
            raise argparse.ArgumentTypeError(f"{text} is not in [{low}, {high}]")
        return value
    parse.__name__ = kind.__name__
    return parse


FINITE = _number(float)
NODE_ID = _number(int, 0, 2**32 - 2)


def parser():
    p = _Parser(prog="tessel3d", description="Tools for three-dimensional finite-element meshes. Files are read "
                "and written in any format meshio knows (.msh, .vtu, .vtk, .inp, .med, .xdmf, ...), chosen by the "
                "extension. Results keep the groups, cell data, point data and faces of their input: new elements "
                "inherit their parent's data, new nodes get floating-point point data interpolated from the nodes "
                "they are built from (integer point data only where those agree, -1 otherwise).")
    p.add_argument("--version", action="store_true", help="print the library version and exit")
    sub = p.add_subparsers(dest="command", metavar="COMMAND", parser_class=_Parser)

    # options shared by every command, and by every command that writes a file
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("--threads", type=_number(int, 0, 1024), default=0, metavar="N",
                        help="threads one step may use (default 0: the cores this process may run on)")
    writing = argparse.ArgumentParser(add_help=False, parents=[common])
    writing.add_argument("--compression", choices=("none", "zlib", "lzma"),
                         help="compression of the written .vtu or .xdmf file (default: tessel3d.io's)")

    def command(name, run, text, description=None, writes=True):
        s = sub.add_parser(name, help=text, description=description or text[0].upper() + text[1:] + ".",
                           parents=[writing if writes else common])
        s.set_defaults(run=run)
        return s

    s = command("info", cmd_info, "counts by element type, volume, angle statistics",
                "Counts by element type, bounding box, groups, data, volume and angle statistics.", writes=False)
    s.add_argument("file")

    s = command("extrude", cmd_extrude, "extrude the surface of a file into layers of wedges and hexahedra",
                "Sweeps the triangles and quadrangles of INPUT into layers of wedges (W6) and hexahedra (H8). "
                "Elements that the sweep would leave inverted are flipped (and counted). "
                "Example: tessel3d extrude disc.vtu pipe.vtu --translate 0 0 2 --layers 8")
    s.add_argument("input")
    s.add_argument("output")
    how = s.add_mutually_exclusive_group(required=True)
    how.add_argument("--translate", nargs=3, type=FINITE, metavar=("DX", "DY", "DZ"), help="translation vector")
    how.add_argument("--rotate", nargs=6, type=FINITE, metavar=("CX", "CY", "CZ", "RX", "RY", "RZ"),
                     help="axis point C and rotation vector R (its length is the angle in radians)")
    how.add_argument("--spiral", nargs=9, type=FINITE, metavar=("CX", "CY", "CZ", "RX", "RY", "RZ", "TX", "TY", "TZ"),
                     help="axis point, rotation vector and translation of a helical sweep")
    how.add_argument("--normal", type=FINITE, metavar="THICKNESS", help="along the surface's nodal normals")
    how.add_argument("--line", nargs="+", type=NODE_ID, metavar="NODE",
                     help="along the polyline through these node IDs (one layer per segment)")
    s.add_argument("--direction", nargs=3, type=FINITE, default=(0.0, 0.0, 1.0), metavar=("VX", "VY", "VZ"),
                   help="with --line: the direction the section faces at the first node (default 0 0 1)")
    s.add_argument("--scales", nargs="+", type=FINITE, metavar="F", help="with --line: section scale per node")
    s.add_argument("--layers", type=_number(int, 1, 2**32 - 1), help="number of uniform layers (1 or more)")
    s.add_argument("--sizes", nargs=2, type=FINITE, metavar=("H0", "H1"),
                   help="layer thickness at the start and at the end (geometric progression)")
    s.add_argument("--even", action="store_true", help="with --sizes: an even number of layers")
    s.add_argument("--faces", action="store_true", help="also write the bottom, lateral and top faces (groups)")

    for name, run, text in (("quadratic", cmd_quadratic, "linear solids into quadratic ones (TH10, PY14, W18, "
                             "H27); triangles, quadrangles and lines become T6, Q9 and E3"),
                            ("linear", cmd_linear, "quadratic solids, faces and lines into linear ones (their "
                             "corners); nodes no element uses any more are dropped"),
                            ("hexsplit", cmd_hexsplit, "every TH4, W6 and H8 split into hexahedra; triangles, "
                             "quadrangles and lines are split with them")):
        s = command(name, run, text)
        s.add_argument("input")
        s.add_argument("output")

    s = command("flip", cmd_flip, "reverse the orientation of the solids",
                "Reverses the orientation of every solid element, linear or quadratic (or only of the inverted "
                "ones, whose volume by their corners is negative).")
    s.add_argument("input")
    s.add_argument("output")
    s.add_argument("--inverted-only", action="store_true", help="flip only the elements whose volume is negative")

    s = command("quality", cmd_quality, "dihedral and solid angles per element, with a histogram",
                "Smallest and largest dihedral and solid angle of every solid (by its corners), their ranges "
                "and a histogram of the smallest dihedral angles.")
    s.add_argument("input")
    s.add_argument("--output", "-o", help="write the mesh with the angles as cell data")
    s.add_argument("--bins", type=_number(int, 1, 10000), default=9, help="histogram bins over 0-90 degrees "
                   "(default 9)")
    s.add_argument("--strict", action="store_true",
                   help="the plain angle rules: no element counted apart, faces and corners without a direction "
                   "folded into the extremes")

    s = command("crack", cmd_crack, "duplicate the nodes of an internal surface",
                "Opens a solid mesh along an internal surface, given by a group of faces of the file or by a "
                "file of faces (matched to the mesh's nodes by position), and says how many of its faces were "
                "opened. The group's faces stay with the elements behind their normals; a new group "
                "NAME_positive holds the other lip, facing its own elements.")
    s.add_argument("input")
    s.add_argument("output")
    which = s.add_mutually_exclusive_group(required=True)
    which.add_argument("--group", help="name of a group of faces in INPUT")
    which.add_argument("--faces", metavar="FILE", help="a mesh file whose triangles / quadrangles are the surface")
    s.add_argument("--side", choices=("positive", "negative", "both"), default="positive",
                   help="the side(s) whose elements get the copies (positive: where the face normals point)")
    s.add_argument("--keep-front", action="store_true",
                   help="keep single the nodes of the surface's rim edges inside the mesh (a crack front), "
                   "its ends on the outer boundary included")

    s = command("interpolate", cmd_interpolate, "a nodal field from one mesh onto the nodes of another",
                "Interpolates nodal fields of SOURCE (a tetrahedral mesh) onto the nodes of TARGET and writes "
                "TARGET with them to OUTPUT. Nodes outside SOURCE get the value at the closest point of its "
                "boundary.")
    s.add_argument("source")
    s.add_argument("target")
    s.add_argument("output")
    s.add_argument("--field", action="append", help="name of a nodal field (default: all); may be repeated")
    s.add_argument("--strict", action="store_true",
                   help="the walk alone: nodes it does not place (outside SOURCE, or missed near slots and holes) "
                   "copy the nearest node")

    s = command("demo", cmd_demo, "build, extrude, convert, split and measure a mesh; write .vtu files and a PNG",
                "Builds a surface mesh (or reads --input), extrudes it, converts it into quadratic elements, "
                "splits a copy into hexahedra, measures the quality and writes .vtu files and a PNG picture "
                "coloured by the minimum dihedral angle. To run it on your own surface: "
                "python3 -m tessel3d demo --input my_surface.msh --out my-demo")
    s.add_argument("--out", default="demo-output", help="output directory (default ./demo-output)")
    s.add_argument("--size", type=_number(int, 1, 200), default=6, help="rings of the built surface (default 6)")
    s.add_argument("--input", help="a file holding a triangle / quadrangle surface to use instead")
    return p


def _one_line_warnings(command):
    def show(message, category, filename, lineno, file=None, line=None):
        print(f"tessel3d {command}: warning: {message}", file=sys.stderr)
    warnings.showwarning = show


def main(argv=None):
    p = parser()
    args = p.parse_args(argv)
    if args.version:
        from .mesh import version
        print(f"tessel3d {version()}")
        return 0
    if not args.command:
        p.print_help(sys.stderr)
        return 2
    _one_line_warnings(args.command)
    try:
        if getattr(args, "output", None):
            _check_compression(args.output, args)  # before the work, not after it
        if args.command not in DISTRIBUTED and _on_ranks(args):
            raise UserError(f"{args.command} has no form for several ranks: run it without mpirun, or with one rank")
        from . import _cli_mpi
        if not _on_ranks(args) and not (args.command == "info" and _partitioned(args.file)) and _cli_mpi.rank():
            return 0  # several ranks on unpartitioned files: rank 0 alone reads, prints and writes
        from .mesh import set_threads
        set_threads(args.threads)
        return args.run(args)
    except (UserError, Error, mio.FileError, ValueError, NotImplementedError, ImportError) as error:
        message = str(error).strip().splitlines()
        from . import _cli_mpi
        if _cli_mpi.rank():
            return 2  # every rank fails alike; rank 0 says why
        print(f"tessel3d {args.command}: error: {' '.join(message) if message else type(error).__name__}",
              file=sys.stderr)
    except BrokenPipeError:  # the reader of stdout left (e.g. `| head`): nothing to say
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    except OSError as error:
        print(f"tessel3d {args.command}: error: {error.filename or ''}: {error.strerror or error}", file=sys.stderr)
    except MemoryError:
        print(f"tessel3d {args.command}: error: out of memory", file=sys.stderr)
    except KeyboardInterrupt:
        print(f"tessel3d {args.command}: interrupted", file=sys.stderr)
        return 130
    except Exception as error:  # a defect of ours: still one line, the traceback on request
        if os.environ.get("TESSEL3D_TRACEBACK"):
            raise
        print(f"tessel3d {args.command}: internal error: {type(error).__name__}: {error} "
              "(TESSEL3D_TRACEBACK=1 shows where)", file=sys.stderr)
    return 2
