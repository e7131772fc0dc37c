"""The demo: a surface mesh built here (or read from a file) is extruded, converted into
quadratic elements, split into hexahedra and measured; the results go to .vtu files and
a PNG picture of the solid coloured by the minimum dihedral angle of its elements."""

import os
import time

import numpy as np

from . import extrude, io as mio, measures, mesh as tmesh, order
from .progress import progress

DEG = 180.0 / np.pi


def disc(rings=6, sectors=12):
    """A wavy disc (radius 1 +- 0.15) in the plane z = 0: a fan of triangles around the
    centre, then rings of quadrangles; (coords, (m, 4) faces with ABSENT closing the
    triangles), every face counter-clockwise seen from +z."""
    coords = [(0.0, 0.0, 0.0)]
    for k in range(1, rings + 1):
        for s in range(sectors):
            a = 2 * np.pi * s / sectors
            r = k / rings * (1 + 0.15 * np.sin(3 * a))
            coords.append((r * np.cos(a), r * np.sin(a), 0.0))

    def node(k, s):
        return 1 + (k - 1) * sectors + s % sectors
    faces = [(0, node(1, s), node(1, s + 1), tmesh.ABSENT) for s in range(sectors)]
    for k in range(1, rings):
        for s in range(sectors):
            faces.append((node(k, s), node(k + 1, s), node(k + 1, s + 1), node(k, s + 1)))
    return np.array(coords), np.array(faces, dtype=np.uint32)


def boundary_faces(connect, kind):
    """(element, node list) of every face without a neighbour."""
    neighbors = tmesh.get_neighbors(connect, kind)
    kinds = tmesh.member_types(connect, kind)
    out = []
    for e, (row, element_kind) in enumerate(zip(neighbors, kinds)):
        for f, face in enumerate(tmesh.SOLID_FACES[element_kind]):
            if row[f] == tmesh.ABSENT:
                out.append((e, [int(connect[e, i]) for i in face]))
    return out


def picture(path, coords, connect, kind, values, title):
    """A PNG of the solid's boundary faces coloured by `values` (one per element)."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from mpl_toolkits.mplot3d.art3d import Poly3DCollection

    faces = boundary_faces(connect, kind)
    polygons = [coords[nodes] for _, nodes in faces]
    colour_values = np.array([values[e] for e, _ in faces])
    norm = matplotlib.colors.Normalize(vmin=np.nanmin(values), vmax=np.nanmax(values))
    cmap = matplotlib.colormaps["viridis"]
    figure = plt.figure(figsize=(8, 6.5), dpi=110)
    axes = figure.add_subplot(projection="3d")
    axes.add_collection3d(Poly3DCollection(polygons, facecolors=cmap(norm(colour_values)), edgecolors="k",
                                           linewidths=0.2))
    lo, hi = coords.min(axis=0), coords.max(axis=0)
    centre, half = (lo + hi) / 2, (hi - lo).max() / 2
    for set_lim, c in zip((axes.set_xlim, axes.set_ylim, axes.set_zlim), centre):
        set_lim(c - half, c + half)
    axes.set_box_aspect((1, 1, 1))
    axes.view_init(elev=25, azim=-60)
    axes.set_title(title)
    figure.colorbar(matplotlib.cm.ScalarMappable(norm=norm, cmap=cmap), ax=axes, shrink=0.7,
                    label="minimum dihedral angle of the element (degrees)")
    figure.savefig(path)
    plt.close(figure)


def run(out="demo-output", size=6, input_path=None, write=None):
    """Runs the demo into directory `out`; write(path, mesh) writes a file (default:
    tessel3d.io.write)."""
    start = time.monotonic()
    os.makedirs(out, exist_ok=True)
    written = []

    def save(name, mesh):
        path = os.path.join(out, name)
        if write is not None:
            write(path, mesh)
        else:
            with progress(f"writing {path}"):
                mio.write(path, mesh)
        written.append((path, repr(mesh)))

    print(f"tessel3d {tmesh.version()} demo")
    if input_path:
        source = mio.read(input_path)
        surface_kind, surface = source.faces()
        if surface is None:
            raise ValueError(f"{input_path}: holds no triangles or quadrangles to extrude")
        if not np.isfinite(source.coords).all():
            raise ValueError(f"{input_path}: non-finite coordinates")
        coords = source.coords
        size_of = float(np.ptp(coords, axis=0).max()) or 1.0
        with progress("extruding along the normals"):
            solid = extrude.extrude_normal(coords, surface, 0.1 * size_of, 4)
        how = f"{input_path}: {len(surface)} faces extruded along their normals by {0.1 * size_of:.3g}, 4 layers"
    else:
        surface_kind = "FACE_MIX4"
        coords, surface = disc(rings=max(1, size))
        with progress("extruding"):
            solid = extrude.extrude_spiral(coords, surface, (0.0, 0.0, 0.0), (0.0, 0.0, np.pi / 3), (0.0, 0.0, 1.0),
                                           h0=0.05, h1=0.25)
        how = (f"wavy disc of {len(surface)} faces (triangles and quadrangles) swept along a helix: 1 up, "
               "a sixth of a turn, layers from 0.05 to 0.25 thick")
    print(how)
    save("surface.vtu", mio.Mesh(coords, {surface_kind: surface}))

    connect = solid.solids
    kind = tmesh.solid_type(connect).name
    dihedral = measures.dihedral_angles(solid.coords, connect)
    solid_angle = measures.solid_angles(solid.coords, connect)
    total = measures.volume(solid.coords, connect)
    dmin = dihedral.min * DEG
    save("solid.vtu", mio.Mesh(solid.coords, {kind: connect},
                               cell_data={"min_dihedral": {kind: dmin}, "max_dihedral": {kind: dihedral.max * DEG},
                                          "min_solid_angle": {kind: solid_angle.min}}))

    with progress("converting into quadratic elements"):
        quadratic = order.convert_into_quadratic(solid.coords, connect)
    qkind = "SOLID_MIX27" if quadratic.connect.shape[1] == 27 and (quadratic.connect == tmesh.ABSENT).any() else {
        18: "W18", 27: "H27", 10: "TH10"}[quadratic.connect.shape[1]]
    save("quadratic.vtu", mio.Mesh(quadratic.coords, {qkind: quadratic.connect}))

    with progress("splitting into hexahedra"):
        hexa = order.split_into_h8(solid.coords, connect)
    hexa_angles = measures.dihedral_angles(hexa.coords, hexa.hexahedra)
    hexa_volume = measures.volume(hexa.coords, hexa.hexahedra)
    save("hexahedra.vtu", mio.Mesh(hexa.coords, {"H8": hexa.hexahedra},
                                   cell_data={"min_dihedral": {"H8": hexa_angles.min * DEG}}))

    png = os.path.join(out, "solid.png")
    with progress(f"drawing {png}"):
        picture(png, solid.coords, connect, kind, dmin, "extruded solid, coloured by element quality")
    written.append((png, "picture of the solid coloured by the minimum dihedral angle"))

    counts = mio.Mesh(solid.coords, {kind: connect}).counts()
    print(f"solid: {len(solid.coords)} nodes, " + ", ".join(f"{n} {k}" for k, n in counts.items())
          + f", volume {total:.6f}")
    print(f"quadratic: {len(quadratic.coords)} nodes, {len(quadratic.connect)} elements of "
          f"{quadratic.connect.shape[1]} nodes")
    print(f"hexahedra: {len(hexa.hexahedra)} H8 on {len(hexa.coords)} nodes, volume {hexa_volume:.6f}")
    if abs(hexa_volume - total) > 1e-9 * abs(total):
        print("  (the volume splits every element into tetrahedra, so elements with twisted faces measure a "
              "little differently once split)")
    print(f"minimum dihedral angle: solid {np.nanmin(dmin):.1f} deg (mean of the element minima "
          f"{np.nanmean(dmin):.1f}), hexahedra {np.nanmin(hexa_angles.min) * DEG:.1f} deg")
    print("wrote:")
    for path, what in written:
        print(f"  {path}  {what}")
    print(f"done in {time.monotonic() - start:.1f} s; open the .vtu files in a VTK viewer")
    return 0
