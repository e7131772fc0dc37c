"""The meshes every tool works on, generated once with Gmsh and converted to this
library's conventions.

- Tetrahedral cube with a spherical hole: [0, 1]^3 minus the ball of radius 0.25 at its
  centre, with an internal square (x = 0.125, y and z in [0.2, 0.8]) that the mesh
  conforms to: the surface that the duplication of nodes opens (Gmsh's crack plugin
  takes it as a physical group).
- Hexahedral box: [0, 1]^3, a structured (transfinite) grid of k^3 hexahedra.
- Surfaces for the extrusion: the unit square meshed with triangles, or recombined into
  quadrangles.

Gmsh gives every element in its own node order, VTK's for the linear solids, with the
tetrahedra oriented the other way round from this library's: `tessel3d.io` converts.
"""

import math

import numpy as np

import gmsh

GMSH_TET, GMSH_HEX, GMSH_TRIANGLE, GMSH_QUAD, GMSH_PRISM = 4, 5, 2, 3, 6

CRACK_GROUP = 1  # physical group tag of the internal square


class Tet:
    """A tetrahedral mesh: coords (n, 3); tets (m, 4) in this library's order, vtk_tets
    in VTK's and Gmsh's, tet_tags and tet_node_tags Gmsh's tags of them; crack (k, 3) the
    triangles of the internal square and crack_edge the IDs of the nodes on its
    perimeter; msh the file Gmsh reloads."""


class Hex:
    """A hexahedral box: coords (n, 3), hexa (m, 8) (the same order for everyone), msh."""


def start():
    gmsh.initialize(readConfigFiles=False)
    gmsh.option.setNumber("General.Terminal", 0)
    gmsh.option.setNumber("General.Verbosity", 2)


def stop():
    gmsh.finalize()


def _nodes():
    """(coords (n, 3), index: Gmsh node tag -> row) of the whole model."""
    tags, x, _ = gmsh.model.mesh.getNodes()
    index = np.zeros(int(tags.max()) + 1, dtype=np.int64)
    index[tags.astype(np.int64)] = np.arange(len(tags))
    # astype: Gmsh's arrays carry an explicitly little-endian dtype, which the package's
    # native modules do not take as float64.
    return x.astype(np.float64).reshape(-1, 3), index


def _elements(dim, element_type, index, tag=-1):
    _, nodes = gmsh.model.mesh.getElementsByType(element_type, tag)
    k = gmsh.model.mesh.getElementProperties(element_type)[3]
    return index[nodes.astype(np.int64)].reshape(-1, k).astype(np.uint32)


def tagged_elements(element_type):
    """(element tags (m,), their nodes' tags (m, k)) of the whole model: Gmsh keeps the
    tags of the nodes and elements an operation leaves alone."""
    tags, nodes = gmsh.model.mesh.getElementsByType(element_type)
    k = gmsh.model.mesh.getElementProperties(element_type)[3]
    return tags.astype(np.int64), nodes.astype(np.int64).reshape(-1, k)


def tet_size(elements):
    """Mesh size giving about `elements` tetrahedra in the cube with a hole."""
    return 0.0733 * (1e4 / elements) ** (1.0 / 3.0)


def tet_cube(elements, path, t3io):
    """The tetrahedral cube with a spherical hole and an internal square, about
    `elements` tetrahedra, written (binary .msh) to `path`."""
    gmsh.clear()
    gmsh.model.add("cube_with_hole")
    occ = gmsh.model.occ
    cube = occ.addBox(0, 0, 0, 1, 1, 1)
    ball = occ.addSphere(0.5, 0.5, 0.5, 0.25)
    solid, _ = occ.cut([(3, cube)], [(3, ball)])
    corners = [occ.addPoint(0.125, y, z) for y, z in ((0.2, 0.2), (0.8, 0.2), (0.8, 0.8), (0.2, 0.8))]
    lines = [occ.addLine(corners[i], corners[(i + 1) % 4]) for i in range(4)]
    square = occ.addPlaneSurface([occ.addCurveLoop(lines)])
    occ.fragment(solid, [(2, square)])
    occ.synchronize()
    crack = [t for d, t in gmsh.model.getEntities(2) if abs(occ.getCenterOfMass(d, t)[0] - 0.125) < 1e-9]
    gmsh.model.addPhysicalGroup(2, crack, CRACK_GROUP)
    gmsh.model.addPhysicalGroup(3, [t for _, t in gmsh.model.getEntities(3)], 2)
    h = tet_size(elements)
    gmsh.option.setNumber("Mesh.MeshSizeMin", h)
    gmsh.option.setNumber("Mesh.MeshSizeMax", h)
    gmsh.option.setNumber("Mesh.Algorithm3D", 10)  # HXT: the fastest for 10^6 tetrahedra
    gmsh.option.setNumber("General.NumThreads", 2)
    gmsh.model.mesh.generate(3)
    gmsh.option.setNumber("General.NumThreads", 1)
    # HXT on two threads now and then leaves two nodes at one place, each used by some
    # elements: the mesh would not be conforming there.
    gmsh.model.mesh.removeDuplicateNodes()
    gmsh.option.setNumber("Mesh.Binary", 1)
    gmsh.option.setNumber("Mesh.SaveAll", 0)
    gmsh.write(str(path))

    mesh = Tet()
    mesh.msh = str(path)
    mesh.coords, index = _nodes()
    mesh.vtk_tets = _elements(3, GMSH_TET, index)
    mesh.tet_tags, mesh.tet_node_tags = tagged_elements(GMSH_TET)
    mesh.tets = np.ascontiguousarray(t3io.to_library_order(mesh.vtk_tets, "TH4", "gmsh"))
    mesh.crack = np.concatenate([_elements(2, GMSH_TRIANGLE, index, t) for t in crack])
    mesh.crack_edge = np.unique(np.concatenate(
        [index[gmsh.model.mesh.getNodes(1, t, includeBoundary=True)[0].astype(np.int64)]
         for _, t in gmsh.model.getBoundary([(2, s) for s in crack], oriented=False)])).astype(np.uint32)
    return mesh


def hex_box(elements, path):
    """The structured box of about `elements` hexahedra, written to `path`."""
    k = max(1, round(elements ** (1.0 / 3.0)))
    gmsh.clear()
    gmsh.model.add("box")
    gmsh.model.occ.addBox(0, 0, 0, 1, 1, 1)
    gmsh.model.occ.synchronize()
    for _, c in gmsh.model.getEntities(1):
        gmsh.model.mesh.setTransfiniteCurve(c, k + 1)
    for _, s in gmsh.model.getEntities(2):
        gmsh.model.mesh.setTransfiniteSurface(s)
        gmsh.model.mesh.setRecombine(2, s)
    for _, v in gmsh.model.getEntities(3):
        gmsh.model.mesh.setTransfiniteVolume(v)
    gmsh.model.mesh.generate(3)
    gmsh.option.setNumber("Mesh.Binary", 1)
    gmsh.write(str(path))
    mesh = Hex()
    mesh.msh = str(path)
    mesh.coords, index = _nodes()
    mesh.hexa = _elements(3, GMSH_HEX, index)
    return mesh


def square(faces, quads, layers=0):
    """The unit square meshed with about `faces` triangles (unstructured) or quadrangles
    (a structured grid), extruded along z by 1 in `layers` layers when layers > 0: Gmsh's
    structured extrusion, recombined (wedges from triangles, hexahedra from quadrangles).
    Builds the model only; the caller meshes it."""
    gmsh.clear()
    gmsh.model.add("square")
    gmsh.option.setNumber("Mesh.MeshSizeMin", 0)
    gmsh.option.setNumber("Mesh.MeshSizeMax", 1e22)
    geo = gmsh.model.geo
    h = math.sqrt(4.0 / (faces * math.sqrt(3.0)))  # equilateral triangles of area 1 / faces
    points = [geo.addPoint(x, y, 0, h) for x, y in ((0, 0), (1, 0), (1, 1), (0, 1))]
    lines = [geo.addLine(points[i], points[(i + 1) % 4]) for i in range(4)]
    surface = geo.addPlaneSurface([geo.addCurveLoop(lines)])
    if quads:
        k = max(1, round(math.sqrt(faces)))
        for line in lines:
            geo.mesh.setTransfiniteCurve(line, k + 1)
        geo.mesh.setTransfiniteSurface(surface)
        geo.mesh.setRecombine(2, surface)
    if layers:
        geo.extrude([(2, surface)], 0, 0, 1, numElements=[layers], recombine=True)
    geo.synchronize()
    gmsh.option.setNumber("Mesh.Algorithm", 6)
    return surface


def base_surface(surface, quads):
    """(coords (n, 3), faces (m, 3|4)) of the meshed base surface, numbered from 0."""
    tags, x, _ = gmsh.model.mesh.getNodes(2, surface, includeBoundary=True)
    index = np.zeros(int(tags.max()) + 1, dtype=np.int64)
    index[tags.astype(np.int64)] = np.arange(len(tags))
    faces = _elements(2, GMSH_QUAD if quads else GMSH_TRIANGLE, index, surface)
    return x.astype(np.float64).reshape(-1, 3), faces


def all_nodes():
    return _nodes()[0]


def volume_elements(element_type):
    _, index = _nodes()
    return _elements(3, element_type, index)
