"""Gmsh's side of test_io_referees.py, run in a process of its own: meshes that Gmsh
builds and writes itself, and Gmsh's Jacobians of files written by this package."""

import os

import gmsh


def _mixed_model():
    """Prisms (x 0..1) beside hexahedra (x 1..2), a tetrahedral block above the
    hexahedra with pyramids on its quadrangle floor; physical groups "solid" and "floor"."""
    g = gmsh.model.geo
    p = [g.addPoint(x, y, 0) for x, y in ((0, 0), (1, 0), (2, 0), (2, 1), (1, 1), (0, 1))]
    lines = [g.addLine(p[i], p[(i + 1) % 6]) for i in range(6)]
    middle = g.addLine(p[1], p[4])
    triangles = g.addPlaneSurface([g.addCurveLoop([lines[0], middle, lines[4], lines[5]])])
    quadrangles = g.addPlaneSurface([g.addCurveLoop([lines[1], lines[2], lines[3], -middle])])
    for c in (lines[1], lines[2], lines[3], middle):
        g.mesh.setTransfiniteCurve(c, 4)
    g.mesh.setTransfiniteSurface(quadrangles)
    g.mesh.setRecombine(2, quadrangles)
    g.synchronize()
    g.extrude([(2, triangles)], 0, 0, 1, numElements=[3], recombine=True)
    top = g.extrude([(2, quadrangles)], 0, 0, 1, numElements=[3], recombine=True)[0][1]
    g.extrude([(2, top)], 0, 0, 0.8)
    g.synchronize()
    volumes = [t for _, t in gmsh.model.getEntities(3)]
    gmsh.model.setPhysicalName(3, gmsh.model.addPhysicalGroup(3, volumes), "solid")
    gmsh.model.setPhysicalName(2, gmsh.model.addPhysicalGroup(2, [triangles]), "floor")
    gmsh.option.setNumber("Mesh.MeshSizeMax", 0.35)


def write_mixed_mesh(folder, name):
    """{format: path} of the mixed mesh, "linear", "quadratic" or "serendipity"."""
    order, incomplete = {"linear": (1, 0), "quadratic": (2, 0), "serendipity": (2, 1)}[name]
    if True:
        gmsh.initialize()
        try:
            gmsh.option.setNumber("General.Terminal", 0)
            _mixed_model()
            gmsh.option.setNumber("Mesh.SecondOrderIncomplete", incomplete)
            gmsh.model.mesh.generate(3)
            gmsh.model.mesh.setOrder(order)
            files = {}
            for key, version in (("msh22", 2.2), ("msh41", 4.1)):
                gmsh.option.setNumber("Mesh.MshFileVersion", version)
                files[key] = os.path.join(folder, f"{name}-{key}.msh")
                gmsh.write(files[key])
            for extension in ("vtk", "inp"):
                files[extension] = os.path.join(folder, f"{name}.{extension}")
                gmsh.write(files[extension])
            return files
        finally:
            gmsh.finalize()


def jacobians(paths):
    """[{element family: (smallest Jacobian determinant, volume integrated from the
    determinants)}] of the 3-D elements of each file, as Gmsh reads it."""
    out = []
    gmsh.initialize()
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        for path in paths:
            gmsh.clear()
            gmsh.open(path)
            found = {}
            for element_type in gmsh.model.mesh.getElementTypes(3):
                points, weights = gmsh.model.mesh.getIntegrationPoints(element_type, "Gauss4")
                _, determinants, _ = gmsh.model.mesh.getJacobians(element_type, points)
                n = len(weights)
                family = gmsh.model.mesh.getElementProperties(element_type)[0].split()[0]
                found[family] = (min(determinants), sum(d * weights[i % n] for i, d in enumerate(determinants)))
            out.append(found)
    finally:
        gmsh.finalize()
    return out
