"""Point location and interpolation through the package: one call against many, in-place
writes, errors, and meshes made by Gmsh with slots, holes and curved sides."""

import os
import subprocess
import sys

import numpy as np
import pytest
from conftest import box, signed_volume_th4

import tessel3d as t3

A = t3.ABSENT


def barycentric_inside(coords, connect, p, tol=1e-12):
    """Elements whose barycentric coordinates of p are all >= -tol (brute force)."""
    q = coords[connect]
    v = signed_volume_th4(q)
    out = []
    for e in range(len(connect)):
        lam = []
        for f, (a, b, c) in enumerate(((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0))):
            s = np.dot(q[e, a] - p, np.cross(q[e, b] - p, q[e, c] - p))
            lam.append(-s / v[e])
        if min(lam) >= -tol:
            out.append(e)
    return out


def test_find_all_gives_what_find_gives_for_each_point():
    # one call for all the points, searched in an order of their own: inside, on nodes,
    # just outside, far outside and not finite, in random order
    coords, connect = box("TH4", (4, 4, 4), jitter=0.2)
    rng = np.random.default_rng(8)
    points = np.concatenate([rng.uniform(0, 1, (60, 3)), coords[::9], rng.uniform(1, 1.001, (10, 3)),
                             rng.uniform(-2, 3, (20, 3)), [[np.nan, 0.5, 0.5], [0.5, np.inf, 0.5]]])
    rng.shuffle(points)
    locator = t3.Locator(coords, connect)
    for tolerance in (0.0, 1e-3):
        one_by_one = [locator.find(p, tolerance) for p in points]
        found = locator.find_all(points, tolerance)
        assert found.dtype == np.uint32 and found.shape == (len(points),)
        assert found.tolist() == [A if e is None else e for e in one_by_one]
        walked = [t3.get_element_containing_point(coords, connect, p, tolerance=tolerance) for p in points[:20]]
        assert [e is None for e in walked] == [e is None for e in one_by_one[:20]]
        assert all(e is None or e in barycentric_inside(coords, connect, p, tolerance + 1e-12)
                   for p, e in zip(points[:20], walked))
    assert locator.find_all(np.zeros((0, 3))).shape == (0,)
    assert locator.find_all([]).shape == (0,)


def test_find_all_errors():
    coords, connect = box("TH4", (2, 2, 2))
    for strict, status in ((True, -7), (False, -1)):
        with pytest.raises(t3.Error) as caught:
            t3.Locator(coords, connect, strict=strict).find_all(np.zeros((4, 2)))
        assert caught.value.status == status and caught.value.argument == "points"
        assert "(k, 3)" in str(caught.value) and "(4, 2)" in str(caught.value)
        with pytest.raises(t3.Error) as caught:
            t3.Locator(coords, connect, strict=strict).find((0.5, 0.5, 0.5), tolerance=np.nan)
        assert caught.value.argument == "tolerance" and "finite" in str(caught.value)
    inverted = connect.copy()
    t3.flip(inverted, t3.TH4)
    for search in (lambda: t3.Locator(coords, inverted, strict=True).find_all([[0.5, 0.5, 0.5], [0.2, 0.2, 0.2]]),
                   lambda: t3.get_element_containing_point(coords, inverted, (0.5, 0.5, 0.5), strict=True)):
        with pytest.raises(t3.Error) as caught:
            search()
        assert caught.value.status == -1 and "inverted or flat" in str(caught.value)
    # inverted elements hold no point for the search that cannot miss
    assert (t3.Locator(coords, inverted).find_all([[0.5, 0.5, 0.5], [0.2, 0.2, 0.2]]) == A).all()
    with pytest.raises(t3.Error) as caught:
        t3.Locator(coords, connect[:, :3])
    assert caught.value.argument == "connect"
    # neighbors must have the rows of connect and the face count of the type: 6 columns
    # pass as H8 and are reported as not located; 8 cannot match the 6 faces of an H8
    wedges = box("W6", (1, 1, 1))
    no_neighbors = np.full(wedges[1].shape, A, dtype=np.uint32)
    for strict in (True, False):
        locator = t3.Locator(*wedges, type=t3.H8, neighbors=no_neighbors, strict=strict)
        assert (locator.find_all([[0.5, 0.5, 0.5], [0.1, 0.1, 0.1]]) == A).all()
    assert t3.get_element_containing_point(*wedges, (0.5, 0.5, 0.5), type=t3.H8, neighbors=no_neighbors,
                                           strict=True) is None
    hexa = box("H8", (1, 1, 1))
    with pytest.raises(t3.Error) as caught:
        t3.get_element_containing_point(hexa[0], hexa[1], (0.5, 0.5, 0.5), type=t3.H8, strict=True)
    assert caught.value.status == -3


def test_interpolations_write_in_place_and_strict_copies_the_nearest_node():
    # outside the box, the default gives the value at the closest boundary point
    # (1, 0.5, 0.5), strict the nearest node's
    coords, connect = box("TH4", (3, 3, 3), jitter=0.15)
    n = len(coords)
    allc = np.concatenate([coords, [[0.3, 0.4, 0.5], [2.0, 0.5, 0.5]]])
    gradient = np.array([2.0, -1.0, 3.0])
    field = np.zeros((n + 2, 2))
    field[:n, 0], field[:n, 1] = coords @ gradient, 1
    strict = field.copy()
    assert t3.interpolate(allc, connect, field, [n, n + 1]) is field
    np.testing.assert_allclose(field[n:], [[allc[n] @ gradient, 1], [[1.0, 0.5, 0.5] @ gradient, 1]], atol=1e-9)
    t3.interpolate(allc, connect, strict, np.array([n, n + 1]), strict=True)
    nearest = np.argmin(np.linalg.norm(coords - allc[n + 1], axis=1))
    np.testing.assert_array_equal(strict[n + 1], strict[nearest])
    sizes = np.zeros(n + 2)
    sizes[:n] = 1 + coords[:, 0]
    assert t3.interpolate_metrics(allc, connect, sizes) is sizes and sizes[n] == pytest.approx(1.3)
    kept = np.full(n + 2, 2.0)
    t3.interpolate_metrics(allc, connect, kept, keep_valid=True)
    assert (kept == 2.0).all()
    metrics = np.zeros((n + 2, 6))
    metrics[:n] = [4.0, 1.0, 3.0, 0.0, 0.5, 2.0]
    t3.interpolate_metrics(allc, connect, metrics, [n])
    np.testing.assert_allclose(metrics[n], metrics[0], rtol=1e-9)


def test_interpolation_errors():
    coords, connect = box("TH4", (1, 1, 1))
    for strict, field_status in ((True, -5), (False, -3)):
        with pytest.raises(t3.Error) as caught:
            t3.interpolate(coords, connect, np.zeros(len(coords) - 1), [0], strict=strict)
        assert caught.value.status == field_status and "interpolate: field (argument" in str(caught.value)
        with pytest.raises(t3.Error) as caught:
            t3.interpolate(coords, connect, np.zeros(len(coords)), [len(coords)], strict=strict)
        assert caught.value.argument == "nodes"
        with pytest.raises(t3.Error) as caught:
            t3.interpolate_metrics(coords, connect, np.zeros((len(coords), 5)), strict=strict)
        assert caught.value.argument == "metrics"
    assert t3.interpolate(coords, connect, np.zeros(len(coords)), []).shape == (len(coords),)


# ---- meshes made by Gmsh: a slotted block, a block with a hole, cylinders ---------------------

def gmsh_shape(path, shape, size):
    """Writes a TH4 mesh made by Gmsh: "slot" (unit cube with a slot 0.01 wide at z = 0.37
    from x = 0.2 to the side x = 1), "hole" (unit cube with a cylindrical hole of radius
    0.2 along z) or "cylinder" (radius 0.5, height 1). Each in a process of its own: Gmsh
    keeps state across initialize() calls."""
    code = f"import test_locate as t; t.generate({path!r}, {shape!r}, {size!r})"
    subprocess.run([sys.executable, "-c", code], cwd=os.path.dirname(os.path.abspath(__file__)), check=True)


def generate(path, shape, size):
    import gmsh
    gmsh.initialize()
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        occ = gmsh.model.occ
        if shape == "cylinder":
            occ.addCylinder(0, 0, 0, 0, 0, 1, 0.5)
        else:
            block = occ.addBox(0, 0, 0, 1, 1, 1)
            cut = (occ.addBox(0.2, -0.1, 0.365, 1.0, 1.2, 0.01) if shape == "slot"
                   else occ.addCylinder(0.5, 0.5, -0.1, 0, 0, 1.2, 0.2))
            occ.cut([(3, block)], [(3, cut)])
        occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", size)
        gmsh.model.mesh.generate(3)
        gmsh.write(path)
    finally:
        gmsh.finalize()


@pytest.fixture(scope="module")
def gmsh_meshes(tmp_path_factory):
    pytest.importorskip("gmsh", reason="Gmsh's Python module (Debian python3-gmsh) is not installed")
    from tessel3d import io as mio
    meshes = {}
    for shape, size in (("slot", 0.08), ("hole", 0.1), ("cylinder", 0.15), ("fine cylinder", 0.07)):
        path = str(tmp_path_factory.mktemp("gmsh") / "mesh.msh")
        gmsh_shape(path, shape.split()[-1], size)
        mesh = mio.read(path)
        meshes[shape] = (mesh.coords, mesh.cells["TH4"])
    return meshes


def barycentric(coords, connect, elements, points):
    """Barycentric coordinates of each point in its element (rows), by volume ratios."""
    q = coords[connect[elements]]
    v = signed_volume_th4(q)
    out = np.empty((len(points), 4))
    for k in range(4):
        r = q.copy()
        r[:, k] = points
        out[:, k] = signed_volume_th4(r) / v
    return out


def points_in_elements(coords, connect, elements, rng):
    """One random point in each listed element (a third of them on a face)."""
    w = rng.uniform(0, 1, (len(elements), 4))
    w[::3, 0] = 0
    w /= w.sum(axis=1, keepdims=True)
    return np.einsum("ij,ijk->ik", w, coords[connect[elements]])


@pytest.mark.parametrize("shape", ["slot", "hole"])
def test_every_point_in_an_element_is_found_near_slots_and_holes(gmsh_meshes, shape):
    coords, connect = gmsh_meshes[shape]
    assert (signed_volume_th4(coords[connect]) > 0).all()
    centroids = coords[connect].mean(axis=1)
    if shape == "slot":  # the elements within 0.05 of the slot's faces
        near = np.flatnonzero((np.abs(centroids[:, 2] - 0.37) < 0.05) & (centroids[:, 0] > 0.15))
    else:  # and around the hole
        near = np.flatnonzero(np.hypot(centroids[:, 0] - 0.5, centroids[:, 1] - 0.5) < 0.3)
    rng = np.random.default_rng(3)
    points = points_in_elements(coords, connect, near, rng)
    locator = t3.Locator(coords, connect)
    found = locator.find_all(points, 1e-12)
    assert (found != A).all()
    assert (barycentric(coords, connect, found, points).min(axis=1) >= -1e-9).all()
    # points in the gap or the hole lie in no element (every element tested)
    gap = (np.column_stack([rng.uniform(0.3, 1, 50), rng.uniform(0, 1, 50), rng.uniform(0.3665, 0.3735, 50)])
           if shape == "slot" else
           np.column_stack([0.5 + rng.uniform(-0.12, 0.12, (50, 2)), rng.uniform(0, 1, 50)]))
    assert (locator.find_all(gap) == A).all()
    for p in gap[:10]:
        assert barycentric_inside(coords, connect, p, 0.0) == []
        assert locator.find(p) is None


def test_a_linear_field_onto_a_finer_cylinder(gmsh_meshes):
    # Target nodes just outside the coarse cylinder (on the true curved surface) get the
    # value at the closest point of its boundary: the error is that of the chords, not
    # that of the nearest node.
    coords, connect = gmsh_meshes["cylinder"]
    target, _ = gmsh_meshes["fine cylinder"]
    n = len(coords)
    allc = np.concatenate([coords, target])
    gradient = np.array([2.5, -1.0, 0.5])
    field = np.zeros(len(allc))
    field[:n] = coords @ gradient
    nodes = np.arange(n, len(allc), dtype=np.uint32)
    strict = field.copy()
    t3.interpolate(allc, connect, field, nodes)
    t3.interpolate(allc, connect, strict, nodes, strict=True)
    exact = target @ gradient
    error, strict_error = np.abs(field[n:] - exact), np.abs(strict[n:] - exact)
    # the largest gap between the cylinder and its chords of length <= 0.15 is 0.15^2 / 4
    assert error.max() < np.linalg.norm(gradient) * 0.15 ** 2 / 4
    assert error.max() < strict_error.max() / 3
    # sizes the same way, and every interpolated tensor positive definite
    sizes = np.zeros(len(allc))
    sizes[:n] = 1 + coords @ (gradient / 10)
    t3.interpolate_metrics(allc, connect, sizes, nodes)
    assert np.abs(sizes[n:] - (1 + exact / 10)).max() < np.linalg.norm(gradient / 10) * 0.15 ** 2 / 4
    rng = np.random.default_rng(4)
    metrics = np.zeros((len(allc), 6))
    for k in range(n):
        a = rng.normal(size=(3, 3))
        m = a @ a.T + 1e-3 * np.eye(3)
        metrics[k] = m[[0, 0, 1, 0, 1, 2], [0, 1, 1, 2, 2, 2]]
    t3.interpolate_metrics(allc, connect, metrics, nodes)
    full = metrics[n:][:, [[0, 1, 3], [1, 2, 4], [3, 4, 5]]]
    assert (np.linalg.eigvalsh(full)[:, 0] > 0).all()
