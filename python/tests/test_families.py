"""Each family through the package, one case per binding: values known independently
(unit elements, box volumes, brute force) that a swapped argument, a lost output or a
wrong position in the binding would change. The numerics themselves are the C++ tests'."""

import numpy as np
import pytest
from conftest import CUBE, UNIT, box

import tessel3d as t3

A = t3.ABSENT
SQUARE = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]], float)
QUAD = np.array([[0, 1, 2, 3]], np.uint32)  # counter-clockwise seen from +z


# ---- flips, measures -------------------------------------------------------------------

@pytest.mark.parametrize("flip, rows, expected", [
    (t3.flip_th4, 4, [1, 0, 2, 3]), (t3.flip_w6, 6, [3, 4, 5, 0, 1, 2]), (t3.flip_h8, 8, [4, 5, 6, 7, 0, 1, 2, 3]),
    (lambda c: t3.flip(c, t3.H8), 8, [2, 1, 0, 3, 6, 5, 4, 7])])
def test_flips(flip, rows, expected):
    assert flip(np.arange(rows, dtype=np.uint32).reshape(1, rows)).tolist() == [expected]


@pytest.mark.parametrize("kind", sorted(UNIT))
def test_volumes_of_unit_elements_and_their_flips(kind):
    coords, connect, expected = UNIT[kind]
    assert t3.volume(coords, connect) == pytest.approx(expected)
    assert t3.volume(coords, t3.flip(np.array(connect, np.uint32), kind)) == pytest.approx(-expected)


def test_element_volumes_are_the_volumes_of_single_elements():
    parts = [box(k, (2, 1, 1), jitter=0.2) for k in ("TH4", "W6", "H8")]
    coords, mixed = parts[0][0], t3.mixed([p[1] for p in parts])
    volumes = t3.element_volumes(coords, mixed)
    assert volumes.tolist() == [t3.volume(coords, mixed[j:j + 1]) for j in range(len(mixed))]  # bit for bit
    assert volumes.sum() == pytest.approx(3.0) and (volumes > 0).all()
    assert t3.element_volumes(coords, np.zeros((0, 4), np.uint32)).shape == (0,)
    with pytest.raises(t3.Error, match="element 1 holds node ID 99") as caught:
        t3.element_volumes(coords, [[0, 1, 2, 3], [0, 1, 2, 99]])
    assert caught.value.status == -2


def test_circumcentres_and_angles():
    tet = np.array([[0, 1, 2, 3]], np.uint32)
    np.testing.assert_allclose(t3.circumcenters(UNIT["TH4"][0], tet), [[0.5, 0.5, 0.5]])
    angles = t3.dihedral_angles(CUBE, [list(range(8))])
    assert (angles.min[0], angles.max[0]) == pytest.approx((np.pi / 2, np.pi / 2))
    assert t3.dihedral_angles(CUBE, [list(range(8))], normalise=True).max[0] == pytest.approx(1.0)
    right = t3.solid_angles(UNIT["TH4"][0], tet, normalise=True)
    assert right.max[0] == pytest.approx(2.5)  # pi/2 at the right corner, times 5/pi


# ---- element order ---------------------------------------------------------------------

def test_conversions_keep_the_volume_and_count_the_new_nodes():
    coords, connect = box("TH4", (1, 1, 1))
    edges = {frozenset(map(int, e[[a, b]])) for e in connect for a in range(4) for b in range(a)}
    quadratic = t3.convert_into_quadratic(coords, connect)
    assert quadratic.connect.shape == (6, 10) and len(quadratic.coords) == len(coords) + len(edges)
    np.testing.assert_array_equal(t3.convert_into_linear(quadratic.connect), connect)
    hexa = t3.split_into_h8(coords, connect, hexahedra=np.arange(8, dtype=np.uint32).reshape(1, 8))
    assert hexa.hexahedra.shape == (1 + 24, 8) and t3.volume(hexa.coords, hexa.hexahedra[1:]) == pytest.approx(1.0)


def test_high_order_counts_reach_their_own_arguments():
    # distinct counts per argument: a swapped pair changes the column count
    r = t3.convert_into_high_order(CUBE, [list(range(8))], nodes_per_edge=2, nodes_in_q4=4, nodes_in_h8=8)
    assert r.connect.shape == (1, 8 + 12 * 2 + 6 * 4 + 8) and len(r.coords) == r.connect.shape[1]
    w = t3.convert_into_high_order(*UNIT["W6"][:2], nodes_per_edge=1, nodes_in_t3=1, nodes_in_w6=1)
    assert w.connect.shape == (1, 6 + 9 + 2 + 1)
    for kwargs, status in (({"nodes_in_q4": 2}, -4), ({"nodes_in_t3": 2}, -5), ({"nodes_in_h8": 63}, -6),
                           ({"nodes_in_h8": 64, "strict": True}, -6),
                           ({"nodes_in_w6": 2}, -7), ({"nodes_in_th4": 2}, -9)):
        with pytest.raises(t3.Error) as caught:
            t3.convert_into_high_order(CUBE, [list(range(8))], **kwargs)
        assert caught.value.status == status and caught.value.argument == next(iter(kwargs))


# Faces of the hexahedron with the corner order that fixes their grids of nodes.
H_FACES_OWN = [(0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7), (0, 1, 2, 3), (4, 7, 6, 5)]


@pytest.mark.parametrize("strict", [False, True])
def test_face_grids_follow_each_element_unless_strict(strict):
    """Two hexahedra sharing the face x = 1, the second listed from another corner: each
    lists the shared face's 4 x 4 grid along its own face corners 0 -> 1 (fastest) and
    0 -> 3; strict lists the second one's run rotated as a flat list, the same nodes."""
    coords, connect = box("H8", (2, 1, 1), jitter=0.0)
    connect = np.array(connect)
    connect[1] = connect[1][[1, 2, 3, 0, 5, 6, 7, 4]]  # the same hexahedron, turned a quarter
    r = t3.convert_into_high_order(coords, connect, 4, 16, 0, 0, strict=strict)
    face_rows = 8 + 12 * 4 + 16 * np.arange(6)[:, None] + np.arange(16)
    misplaced = 0
    for element, corners in zip(r.connect, connect):
        for f, rows in zip(H_FACES_OWN, face_rows):
            c = coords[corners[list(f)]]
            i, j = np.meshgrid(np.arange(1, 5) / 5, np.arange(1, 5) / 5)
            expected = c[0] + i.reshape(-1, 1) * (c[1] - c[0]) + j.reshape(-1, 1) * (c[3] - c[0])
            misplaced += not np.allclose(r.coords[element[rows]], expected)
    assert misplaced == (1 if strict else 0)
    assert len(r.coords) == len(coords) + 4 * 20 + 16 * 11


def test_caller_edge_nodes_are_reused():
    coords, connect, _ = UNIT["TH4"]
    extra = np.concatenate([coords, [[0.5, 0.5, 0.1]]])  # node 4: a curved edge 1-2 node
    assert t3.convert_into_quadratic(extra, connect, edges=[[1, 2, 4]]).connect[0, 4] == 4


# ---- extrusion -------------------------------------------------------------------------

@pytest.mark.parametrize("sweep, volume", [
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 2), 4), 2.0),
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), h0=0.1, h1=0.2), 1.0),
    (lambda: t3.extrude_rotate(SQUARE[:, [0, 2, 1]] + [1, 0, 0], QUAD[:, ::-1], (0, 0, 0), (0, 0, np.pi), 16),
     np.pi * 1.5),  # a half turn of the square [1, 2] x [0, 1]: pi (2^2 - 1^2) / 2
    (lambda: t3.extrude_spiral(SQUARE, QUAD, (5, 5, 0), (0, 0, 0.0), (0, 0, 3), 3), 3.0),
    (lambda: t3.extrude_normal(SQUARE, QUAD, 0.5, 2), 0.5),
    (lambda: t3.extrude_normal(SQUARE, QUAD, normals=np.tile([0, 0, 0.25], (4, 1)), layers=2), 0.25),
    (lambda: t3.extrude_line(np.concatenate([SQUARE, [[0.5, 0.5, 0], [0.5, 0.5, 3]]]), QUAD, [4, 5], (0, 0, 1)),
     3.0),
    (lambda: t3.extrude_line(np.concatenate([SQUARE, [[0.5, 0.5, 0], [0.5, 0.5, 1]]]), QUAD, [4, 5], (0, 0, 1),
                             scales=[1, 2]), 7 / 3),  # a frustum from side 1 to side 2
])
def test_extrusions_give_positive_solids_of_the_swept_volume(sweep, volume):
    r = sweep()
    assert (t3.element_volumes(r.coords, r.solids) > 0).all()
    assert t3.volume(r.coords, r.solids) == pytest.approx(volume, rel=1e-2)


def test_extrusion_outputs_reach_their_own_arguments():
    existing = np.full((1, 8), 7, np.uint32)
    r = t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 2, edges=[[0, 1], [1, 2]], solids=existing,
                             cap=np.zeros((0, 4), np.uint32))
    assert r.solids.shape == (3, 8) and r.solids[0].tolist() == [7] * 8
    assert r.lateral.shape == (2 * 2, 4) and r.lateral[0].tolist() == [1, 0, 4, 5]  # (b, a, a', b')
    assert r.cap.shape == (1, 4) and np.allclose(r.coords[r.cap[0], 2], 1.0)
    with pytest.raises(t3.Error) as caught:
        t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 2, edges=np.zeros((1, 3), np.uint32))
    assert caught.value.status == -8 and caught.value.argument == "edges"


# ---- mesh helpers and surfaces ----------------------------------------------------------

def test_neighbours_node_elements_and_normals():
    connect = np.array([[0, 1, 2, 3], [4, 3, 2, 1]], np.uint32)  # sharing face {1, 2, 3}, opposite node 0
    assert t3.get_neighbors(connect, t3.TH4).tolist() == [[1, A, A, A], [0, A, A, A]]
    node_element = t3.get_node_element(connect, 6)
    assert node_element[5] == A and all(n in connect[e] for n, e in enumerate(node_element[:5]))
    normals = t3.surface_normals(np.concatenate([SQUARE, [[5, 5, 5]]]), [[0, 1, 2], [0, 2, 3]])
    np.testing.assert_allclose(normals, [[0, 0, 1]] * 4 + [[0, 0, 0]], atol=1e-12)


def test_node_detector_matches_brute_force():
    rng = np.random.default_rng(3)
    coords, points = rng.uniform(size=(300, 3)), rng.uniform(-0.2, 1.2, size=(50, 3))
    brute = np.argmin(((points[:, None, :] - coords[None]) ** 2).sum(axis=2), axis=1)
    np.testing.assert_array_equal(t3.NodeDetector(coords).find_closest(points), brute)
    assert t3.NodeDetector(coords, ids=[5, 7]).find_closest(coords[7] + 1e-3) == 7


@pytest.mark.parametrize("kind, faces", [("TH4", ((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0))),
                                         ("H8", ((0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7),
                                                 (0, 1, 2, 3), (4, 7, 6, 5)))])
def test_duplicating_the_mid_plane_cuts_a_box_in_two(kind, faces):
    coords, connect = box(kind, (2, 2, 2))
    left = coords[connect, 0].max(axis=1) < 0.5 + 1e-12
    surface = np.array([e[list(f)][::-1] for e in connect[left] for f in faces
                        if np.allclose(coords[e[list(f)], 0], 0.5)], np.uint32)
    r = t3.duplicate_surface_nodes(coords, connect, surface, positive_side=True)
    assert r.added == len(np.unique(surface)) and len(r.coords) == len(coords) + r.added
    assert not set(r.connect[~left].ravel()) & set(r.connect[left].ravel())


def test_split_solid_q4_cuts_the_listed_face_only():
    r = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2, 3]], 0.0)
    assert len(r.coords) == 9 and r.failed.size == 0
    assert ((r.connect[:, 4] != A).sum(), (r.connect[:, 4] == A).sum()) == (5, 2)  # 5 PY5, 2 TH4
    assert t3.volume(r.coords, r.connect) == pytest.approx(1.0)
    kept = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2, 3]], 0.99)
    assert kept.failed.tolist() == [0] and kept.connect.tolist() == [list(range(8))]
    assert kept.reasons.tolist() == [t3.SplitReason.BELOW_QUALITY]
    # the face seen from outside: split all the same, unless strictly as listed
    outside = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 3, 2, 1]], 0.0)
    assert outside.connect.tolist() == r.connect.tolist()
    untouched = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 3, 2, 1]], 0.0, strict=True)
    assert untouched.connect.tolist() == [list(range(8))] and len(untouched.coords) == 8


def test_angles_of_flat_and_collapsed_elements():
    # node 3 inside face (0, 1, 2): flat, angles 0 and pi; nodes 0 and 1 at one point:
    # a single defined dihedral angle; a regular element: not degenerate
    flat = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0.25, 0.25, 0]], float)
    collapsed = np.array([[0, 0, 0], [0, 0, 0], [0, 1, 0], [0, 0, 1]], float)
    right = np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]], float)
    coords = np.vstack([flat, collapsed, right])
    connect = np.arange(12, dtype=np.uint32).reshape(3, 4)
    angles = t3.dihedral_angles(coords, connect)
    np.testing.assert_allclose(angles.min[:2], [0, 0], atol=1e-15)
    np.testing.assert_allclose(angles.max[:2], [np.pi, 0], atol=1e-15)
    assert t3.degenerate_elements(coords, connect).tolist() == [0, 1]
    strict = t3.dihedral_angles(coords, connect, strict=True)
    assert strict.max[1] == 0 and not np.isnan(angles.max).any()
    solid = t3.solid_angles(coords, connect)
    assert np.isnan(solid.min[1]) and solid.max[0] == 0  # no corner left; the +-2 pi corner left out
    strict = t3.solid_angles(coords, connect, strict=True)
    assert max(abs(strict.min[0]), abs(strict.max[0])) == pytest.approx(2 * np.pi)  # kept, its sign a rounding
