"""The comparisons: each times this library (through its Python package) and the peers
on the same mesh, adds one row per peer, and checks that the results agree."""

import numpy as np

import gmsh

import common as C
import meshes as M


def linear_field(x):
    """The field every interpolation is given: linear, so interpolated exactly."""
    return 1.0 + 2.0 * x[:, 0] - 3.0 * x[:, 1] + 0.5 * x[:, 2]


class Bench:
    """Rows of the comparison table and the disagreements met on the way."""

    def __init__(self, t3, t3io, repeat=5, budget=3.0, log=print):
        self.t3, self.io = t3, t3io
        self.repeat, self.budget = repeat, budget
        self.rows, self.disagreements, self.checks = [], [], 0
        self.log = log

    def time(self, run, setup=None):
        return C.best_time(run, setup, self.repeat, self.budget)

    def row(self, family, mesh, elements, ours, peer, theirs, note=""):
        r = dict(family=family, mesh=mesh, elements=int(elements), ours=ours, peer=peer, peer_time=theirs,
                 ratio=theirs / ours if ours > 0 else float("inf"), note=note)
        self.rows.append(r)
        self.log(f"  {family:<22} {mesh:<10} {elements:>9}  ours {ours * 1e3:10.2f} ms  {peer:<34} "
                 f"{theirs * 1e3:10.2f} ms  x{r['ratio']:.2f}")

    def check(self, what, ok, detail=""):
        self.checks += 1
        if not ok:
            self.disagreements.append(f"{what}: {detail}")
            self.log(f"  DISAGREEMENT {what}: {detail}")

    def close(self, what, a, b, tolerance, terms=1):
        """a and b equal within tolerance, relative, widened for sums of many terms (each
        term's rounding adds up in a plain running sum)."""
        bound = max(tolerance, 4e-16 * terms) * max(1.0, abs(a), abs(b))
        self.check(what, abs(a - b) <= bound, f"{a!r} vs {b!r}")

    def same_nodes(self, what, ours, theirs, digits=9):
        equal_counts, diff = C.same_points(ours, theirs, digits)
        self.check(f"{what}: node count", equal_counts, f"{len(ours)} vs {len(theirs)}")
        if equal_counts:
            self.check(f"{what}: node positions", diff <= 10.0 ** -digits * 2, f"largest difference {diff:.3g}")


def gmsh_reload(msh, options):
    """A setup that reopens the mesh file (Gmsh's operations change the mesh in place)."""
    def setup():
        gmsh.clear()
        for name, value in options.items():
            gmsh.option.setNumber(name, value)
        gmsh.open(msh)
    return setup


# ---- measures ---------------------------------------------------------------------------

def volume(b, name, coords, ours_cells, vtk_cells, vtk_type):
    t3 = b.t3
    m = len(ours_cells)
    ours_t, ours_v = b.time(lambda: t3.volume(coords, ours_cells))
    numpy_volume = C.numpy_tet_volume if vtk_type == C.VTK_TETRA else C.numpy_hex_volume
    np_t, np_v = b.time(lambda: numpy_volume(coords, vtk_cells))
    b.row("volume", name, m, ours_t, "NumPy (vectorised)", np_t)
    b.close(f"volume {name}: NumPy", ours_v, np_v, 1e-12, m)

    from vtkmodules.vtkFiltersVerdict import vtkCellSizeFilter
    grid = C.vtk_grid(coords, vtk_cells, vtk_type)
    state = {}

    def make():
        f = vtkCellSizeFilter()
        f.SetInputData(grid)
        f.ComputeVertexCountOff()
        f.ComputeLengthOff()
        f.ComputeAreaOff()
        f.ComputeVolumeOn()
        f.ComputeSumOn()
        state["filter"] = f

    def run():
        f = state["filter"]
        f.Update()
        return f.GetOutput().GetFieldData().GetArray("Volume").GetValue(0)
    vtk_t, vtk_v = b.time(run, make)
    b.row("volume", name, m, ours_t, "VTK vtkCellSizeFilter", vtk_t)
    b.close(f"volume {name}: VTK", ours_v, vtk_v, 1e-12, m)
    return ours_v


def angles(b, name, mesh):
    """NumPy computes the six dihedral angles of every element, as ours does. VTK 9.1's
    MinAngle (Verdict's tet_minimum_angle) takes the angle between face normals of mixed
    orientations, so on some elements it gives the supplement of an angle at one edge
    rather than the smallest angle: checked as such."""
    t3 = b.t3
    m = len(mesh.tets)
    ours_t, ours = b.time(lambda: t3.dihedral_angles(mesh.coords, mesh.tets))

    def numpy_run():
        a = C.numpy_dihedral_angles(mesh.coords, mesh.vtk_tets)
        return a.min(axis=1), a.max(axis=1)
    np_t, (lo, hi) = b.time(numpy_run)
    b.row("dihedral angles", name, m, ours_t, "NumPy (vectorised)", np_t, "NumPy: all six angles of each element")
    diff = max(np.abs(ours.min - lo).max(), np.abs(ours.max - hi).max()) if m else 0.0
    b.check(f"dihedral angles {name}: smallest and largest angle vs NumPy", diff < 1e-9,
            f"largest difference {diff:.3g} rad")

    from vtkmodules.vtkFiltersVerdict import vtkMeshQuality
    grid = C.vtk_grid(mesh.coords, mesh.vtk_tets, C.VTK_TETRA)
    state = {}

    def make():
        q = vtkMeshQuality()
        q.SetInputData(grid)
        q.SetTetQualityMeasureToMinAngle()
        state["filter"] = q

    def run():
        q = state["filter"]
        q.Update()
        return C.to_numpy(q.GetOutput().GetCellData().GetArray("Quality")).copy()
    vtk_t, vtk_min = b.time(run, make)
    b.row("dihedral angles", name, m, ours_t, "VTK vtkMeshQuality (MinAngle)", vtk_t,
          "VTK: one angle per element, tessel3d the smallest and the largest")
    six = np.degrees(C.numpy_dihedral_angles(mesh.coords, mesh.vtk_tets))
    candidates = np.concatenate([six, 180.0 - six], axis=1)
    gap = np.abs(candidates - vtk_min[:, None]).min(axis=1).max() if m else 0.0
    b.check(f"dihedral angles {name}: VTK's MinAngle is a dihedral angle of the element or its supplement",
            gap < 1e-8, f"largest gap {gap:.3g} degrees")
    equal = np.abs(np.degrees(ours.min) - vtk_min) < 1e-8
    b.log(f"  (VTK's MinAngle is the smallest dihedral angle on {equal.mean():.1%} of the elements)")


# ---- element order ----------------------------------------------------------------------

def quadratic(b, name, coords, ours_cells, msh, gmsh_type, nb_edges_faces):
    t3 = b.t3
    m = len(ours_cells)
    ours_t, ours = b.time(lambda: t3.convert_into_quadratic(coords, ours_cells))
    gmsh_t, _ = b.time(lambda: gmsh.model.mesh.setOrder(2), gmsh_reload(msh, {"Mesh.SecondOrderLinear": 1}))
    b.row("quadratic conversion", name, m, ours_t, "Gmsh setOrder(2)", gmsh_t)
    b.check(f"quadratic {name}: element count", len(ours.connect) == m, f"{len(ours.connect)} vs {m}")
    b.check(f"quadratic {name}: new nodes", len(ours.coords) == len(coords) + nb_edges_faces,
            f"{len(ours.coords) - len(coords)} vs {nb_edges_faces} edges (and faces, centres)")
    b.same_nodes(f"quadratic {name} vs Gmsh", ours.coords, M.all_nodes())
    b.check(f"quadratic {name}: Gmsh's element count",
            len(M.volume_elements(gmsh_type)) == m, "Gmsh made another number of elements")


def split(b, name, coords, ours_cells, msh, per_element, reference_volume):
    t3 = b.t3
    m = len(ours_cells)
    ours_t, ours = b.time(lambda: t3.split_into_h8(coords, ours_cells))
    gmsh_t, _ = b.time(lambda: gmsh.model.mesh.refine(),
                       gmsh_reload(msh, {"Mesh.SubdivisionAlgorithm": 2, "Mesh.SecondOrderLinear": 1}))
    b.row("split into hexahedra", name, m, ours_t, "Gmsh refine (all hexahedra)", gmsh_t,
          "Gmsh also splits the surface triangles into quadrangles")
    gmsh.option.setNumber("Mesh.SubdivisionAlgorithm", 0)
    b.check(f"split {name}: hexahedra", len(ours.hexahedra) == per_element * m,
            f"{len(ours.hexahedra)} vs {per_element} x {m}")
    b.close(f"split {name}: volume kept", t3.volume(ours.coords, ours.hexahedra), reference_volume, 1e-12,
            len(ours.hexahedra))
    b.same_nodes(f"split {name} vs Gmsh", ours.coords, M.all_nodes())
    b.check(f"split {name}: Gmsh's hexahedra", len(M.volume_elements(M.GMSH_HEX)) == per_element * m,
            "Gmsh made another number of hexahedra")


# ---- extrusion ----------------------------------------------------------------------------

def extrusion(b, faces, layers, quads):
    """Gmsh: the time to mesh the extruded volume (its base surface, the copies and the
    layers) less the time to mesh the base surface alone."""
    t3 = b.t3
    kind = "Q4 -> H8" if quads else "T3 -> W6"

    def mesh_base():
        M.square(faces, quads)
        gmsh.model.mesh.generate(2)

    def mesh_extruded():
        M.square(faces, quads, layers)
        gmsh.model.mesh.generate(3)

    base_t, _ = b.time(mesh_base, lambda: gmsh.clear())
    full_t, _ = b.time(mesh_extruded, lambda: gmsh.clear())
    surface = M.square(faces, quads, layers)
    gmsh.model.mesh.generate(3)
    coords, base = M.base_surface(surface, quads)
    gmsh_nodes = M.all_nodes()
    gmsh_solids = len(M.volume_elements(M.GMSH_HEX if quads else M.GMSH_PRISM))
    # The library sweeps along the faces' right-hand normals; Gmsh's base may face down.
    normal = np.cross(coords[base[0, 1]] - coords[base[0, 0]], coords[base[0, 2]] - coords[base[0, 0]])
    if normal[2] < 0:
        base = np.ascontiguousarray(base[:, ::-1])
    ours_t, ours = b.time(lambda: t3.extrude_translate(coords, base, (0, 0, 1), layers))
    m = len(base)
    b.row("extrusion", f"{kind}", m * layers, ours_t, f"Gmsh extrude, {layers} layers", max(full_t - base_t, 1e-9),
          "Gmsh: the meshing of the extruded volume less that of its base surface")
    b.check(f"extrusion {kind}: solids", len(ours.solids) == m * layers == gmsh_solids,
            f"ours {len(ours.solids)}, Gmsh {gmsh_solids}, expected {m * layers}")
    b.close(f"extrusion {kind}: volume", t3.volume(ours.coords, ours.solids), 1.0, 1e-12, len(ours.solids))
    b.same_nodes(f"extrusion {kind} vs Gmsh", ours.coords, gmsh_nodes)


# ---- point location and interpolation ------------------------------------------------------

def probe(grid, points, locator_class):
    from vtkmodules.vtkFiltersCore import vtkProbeFilter
    p = vtkProbeFilter()
    p.SetInputData(points)
    p.SetSourceData(grid)
    p.SetCellLocatorPrototype(locator_class())
    p.Update()
    return p.GetOutput().GetPointData()


def barycentric_min(coords, tets, points):
    """The smallest barycentric coordinate of each point in its tetrahedron (library
    order): >= 0 inside, slightly negative just outside."""
    six_v = C.th4_six_volumes(coords, tets)
    every = np.vstack([coords, points])
    lowest = np.full(len(tets), np.inf)
    for f in range(4):
        t = tets.copy()
        t[:, f] = np.arange(len(coords), len(coords) + len(points))
        lowest = np.minimum(lowest, C.th4_six_volumes(every, t) / six_v)
    return lowest


def in_mesh(points, h):
    """(surely inside, surely outside) the cube with a hole for mesh size h: the facets of
    the hole lie within h^2 / (4 r) inside the ball of radius r, whose nodes they join."""
    r = np.linalg.norm(points - 0.5, axis=1)
    return r > 0.25 + 1e-9, r < 0.25 - h * h / (4 * 0.25) - 1e-9


def location(b, name, mesh, points):
    """Ours: a Locator (adjacency, node detector) built in the timed call, then one search
    of all the points (the mesh checked once)."""
    t3 = b.t3
    coords, tets = mesh.coords, mesh.tets
    m, k = len(tets), len(points)

    def ours_run(p):
        locator = t3.Locator(coords, tets)
        return locator.find_all(p)
    ours_t, found = b.time(lambda: ours_run(points))
    note = "; tessel3d's time includes its adjacency and node detector"

    from scipy.spatial import Delaunay
    sp_t, simplex = b.time(lambda: Delaunay(coords).find_simplex(points))
    b.row("point location", name, k, ours_t, "SciPy Delaunay + find_simplex", sp_t,
          "random points in the cube, as many as elements (at most 10^5); SciPy triangulates the nodes "
          "itself, a mesh of their convex hull" + note)

    from vtkmodules.vtkCommonCore import vtkIdTypeArray
    from vtkmodules.vtkCommonDataModel import vtkStaticCellLocator
    grid = C.vtk_grid(coords, mesh.vtk_tets, C.VTK_TETRA)
    ids = vtkIdTypeArray()
    ids.SetName("cell")
    ids.SetNumberOfValues(m)
    C.to_numpy(ids)[:] = np.arange(m)
    grid.GetCellData().AddArray(ids)
    cloud = C.vtk_points(points)

    def vtk_run():
        data = probe(grid, cloud, vtkStaticCellLocator)
        return C.to_numpy(data.GetArray("cell")), C.to_numpy(data.GetArray("vtkValidPointMask"))
    vtk_t, (cells, valid) = b.time(vtk_run)
    b.row("point location", name, k, ours_t, "VTK vtkStaticCellLocator (probe)", vtk_t,
          "VTK's locator run by vtkProbeFilter on a cell-ID array")

    # Agreement, on the points that ours searched. Near the faces of the hole the tools
    # may differ: VTK accepts points within its tolerance of a cell.
    found = np.asarray(found, dtype=np.int64)
    p = points
    ours_in, vtk_in, sp_in = found != t3.ABSENT, valid.astype(bool), simplex >= 0
    inside, outside = in_mesh(p, M.tet_size(m))
    for who, got in (("ours", ours_in), ("VTK", vtk_in)):
        b.check(f"location {name}: {who} finds the points inside the mesh", got[inside].all(),
                f"{int((~got[inside]).sum())} of {int(inside.sum())} missed")
        b.check(f"location {name}: {who} finds none in the hole", not got[outside].any(),
                f"{int(got[outside].sum())} found")
    b.check(f"location {name}: SciPy's hull holds every point ours locates", not (ours_in & ~sp_in).any(),
            f"{int((ours_in & ~sp_in).sum())} points")
    lowest = barycentric_min(coords, tets[found[ours_in]], p[ours_in])
    b.check(f"location {name}: the elements found hold their points", (lowest >= -1e-12).all(),
            f"smallest barycentric coordinate {lowest.min():.3g}")
    both = np.nonzero(ours_in & vtk_in)[0]
    other = both[found[both] != cells[both]]
    if len(other):  # a point on a shared face lies in either element
        lowest = barycentric_min(coords, tets[cells[other]], p[other])
        b.check(f"location {name}: where the elements differ, VTK's holds the point (within its tolerance)",
                (lowest >= -1.001e-3).all(),
                f"{len(other)} points differ, VTK's smallest barycentric coordinate {lowest.min():.3g}")
    return inside


def interpolation(b, name, mesh, points):
    t3 = b.t3
    coords, tets = mesh.coords, mesh.tets
    n, k = len(coords), len(points)
    values = linear_field(coords)
    every = np.vstack([coords, points])
    nodes = np.arange(n, n + k, dtype=np.uint32)

    def ours_run():
        field = np.zeros(n + k)
        field[:n] = values
        return t3.interpolate(every, tets, field, nodes)[n:]
    ours_t, ours = b.time(ours_run)

    from scipy.interpolate import LinearNDInterpolator
    sp_t, sp = b.time(lambda: LinearNDInterpolator(coords, values)(points))
    b.row("interpolation", name, k, ours_t, "SciPy LinearNDInterpolator", sp_t,
          "a linear field at the points of the location; tessel3d's time includes the adjacency, SciPy's "
          "its triangulation")

    from vtkmodules.util import numpy_support as ns
    from vtkmodules.vtkCommonDataModel import vtkStaticCellLocator
    grid = C.vtk_grid(coords, mesh.vtk_tets, C.VTK_TETRA)
    array = ns.numpy_to_vtk(values, deep=True)
    array.SetName("f")
    grid.GetPointData().AddArray(array)
    cloud = C.vtk_points(points)

    def vtk_run():
        data = probe(grid, cloud, vtkStaticCellLocator)
        return C.to_numpy(data.GetArray("f")).copy(), C.to_numpy(data.GetArray("vtkValidPointMask")).astype(bool)
    vtk_t, (vt, valid) = b.time(vtk_run)
    b.row("interpolation", name, k, ours_t, "VTK vtkProbeFilter", vtk_t, "VTK's time includes its cell locator")

    # The library's call alone, given the adjacency a caller keeps between calls.
    neighbors, node_element = t3.get_neighbors(tets, t3.TH4), t3.get_node_element(tets, n + k)

    def given_run():
        field = np.zeros(n + k)
        field[:n] = values
        return t3.interpolate(every, tets, field, nodes, neighbors=neighbors, node_element=node_element)[n:]
    given_t, given = b.time(given_run)
    note = "the library's call alone: the caller passes the adjacency (neighbors=, node_element=)"
    b.row("interpolation, adjacency given", name, k, given_t, "SciPy LinearNDInterpolator", sp_t, note)
    b.row("interpolation, adjacency given", name, k, given_t, "VTK vtkProbeFilter", vtk_t, note)
    b.check(f"interpolation {name}: the same values with the adjacency given", np.array_equal(given, ours),
            "the values differ")

    exact = linear_field(points)
    inside = in_mesh(points, M.tet_size(len(tets)))[0]  # ours copies the nearest node's value outside
    b.check(f"interpolation {name}: VTK's probe covers the points inside the mesh", valid[inside].all(),
            f"{int((~valid[inside]).sum())} missed")
    for who, got in (("ours", ours), ("SciPy", sp), ("VTK", vt)):
        diff = np.abs(got[inside] - exact[inside]).max() if inside.any() else 0.0
        b.check(f"interpolation {name}: {who} reproduces the linear field", diff < 1e-9,
                f"largest error {diff:.3g}")


# ---- duplication of surface nodes --------------------------------------------------------

def duplication(b, name, mesh):
    """Gmsh's crack plugin gives the copies to the elements on the side the triangles'
    right-hand normals point to, the library's positive side."""
    t3 = b.t3
    coords, tets = mesh.coords, mesh.tets
    m = len(tets)

    def ours_run():
        return t3.duplicate_surface_nodes(coords, tets, mesh.crack, excluded=mesh.crack_edge)
    ours_t, ours = b.time(ours_run)

    def crack():
        gmsh.plugin.setNumber("Crack", "Dimension", 2)
        gmsh.plugin.setNumber("Crack", "PhysicalGroup", M.CRACK_GROUP)
        gmsh.plugin.run("Crack")
    gmsh_t, _ = b.time(crack, gmsh_reload(mesh.msh, {}))
    b.row("surface duplication", name, m, ours_t, "Gmsh Crack plugin", gmsh_t,
          "the internal square's nodes off its perimeter duplicated")
    neighbors, node_element = t3.get_neighbors(tets, t3.TH4), t3.get_node_element(tets, len(coords))
    given_t, given = b.time(lambda: t3.duplicate_surface_nodes(coords, tets, mesh.crack, excluded=mesh.crack_edge,
                                                               neighbors=neighbors, node_element=node_element))
    b.row("surface duplication, adjacency given", name, m, given_t, "Gmsh Crack plugin", gmsh_t,
          "the library's call alone: the caller passes the adjacency (neighbors=, node_element=)")
    b.check(f"duplication {name}: the same result with the adjacency given",
            given.added == ours.added and np.array_equal(given.connect, ours.connect), "the results differ")

    gmsh_added = len(M.all_nodes()) - len(coords)
    expected = len(np.unique(mesh.crack)) - len(mesh.crack_edge)
    b.check(f"duplication {name}: added nodes", ours.added == expected == gmsh_added,
            f"ours {ours.added}, Gmsh {gmsh_added}, surface nodes off the perimeter {expected}")
    tags, nodes = M.tagged_elements(M.GMSH_TET)
    same_elements = len(tags) == m and (np.sort(tags) == np.sort(mesh.tet_tags)).all()
    b.check(f"duplication {name}: Gmsh keeps the elements", same_elements, f"{len(tags)} elements after, {m} before")
    if same_elements:
        before = mesh.tet_node_tags[np.argsort(mesh.tet_tags)]
        gmsh_changed = np.zeros(m, dtype=bool)
        gmsh_changed[np.argsort(mesh.tet_tags)] = (nodes[np.argsort(tags)] != before).any(axis=1)
        ours_changed = (ours.connect != tets).any(axis=1)
        b.check(f"duplication {name}: the same elements take the copies as in Gmsh",
                (ours_changed == gmsh_changed).all(),
                f"{int((ours_changed != gmsh_changed).sum())} elements differ")
    b.close(f"duplication {name}: volume kept", t3.volume(ours.coords, ours.connect), t3.volume(coords, tets), 1e-12, m)
