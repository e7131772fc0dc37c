"""Volume, circumcentres, dihedral and solid angles against analytic values."""

import numpy as np
import pytest
from conftest import UNIT, box

import tessel3d as t3

A = t3.ABSENT


@pytest.mark.parametrize("kind", sorted(UNIT))
def test_unit_elements_have_their_analytic_volume(kind):
    coords, connect, expected = UNIT[kind]
    assert t3.volume(coords, connect) == pytest.approx(expected)
    flipped = t3.flip(np.array(connect, dtype=np.uint32), kind)
    assert t3.volume(coords, flipped) == pytest.approx(-expected)


def test_tetrahedron_sign_convention():
    # node 3 above 0-1-2 (counter-clockwise seen from it) is negative in this library
    coords = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1]], float)
    assert t3.volume(coords, [[0, 1, 2, 3]]) == pytest.approx(-1 / 6)
    # a dtype object equal to float64 but not numpy's own instance (as other libraries
    # hand out) is the same type and is accepted
    import pickle
    other_float64 = pickle.loads(pickle.dumps(np.dtype(float)))
    assert other_float64 is not np.dtype(float)
    assert t3.volume(coords.astype(other_float64), [[0, 1, 2, 3]]) == pytest.approx(-1 / 6)


@pytest.mark.parametrize("kind", ["TH4", "PY5", "W6", "H8"])
def test_box_volume_is_exact_with_jittered_inner_nodes(kind):
    coords, connect = box(kind, (3, 2, 2), size=(2.0, 3.0, 5.0), jitter=0.2)
    assert t3.volume(coords, connect) == pytest.approx(30.0)
    volumes = t3.element_volumes(coords, connect)
    assert (volumes > 0).all() and volumes.sum() == pytest.approx(30.0)


def test_mixed_layout_measures_each_kind_with_its_kernel():
    parts = [box(k, (1, 1, 1)) for k in ("TH4", "W6", "H8")]
    coords = parts[0][0]  # the same grid nodes for TH4, W6 and H8
    mixed = t3.mixed([p[1] for p in parts])
    assert t3.volume(coords, mixed) == pytest.approx(3.0)


def test_column_slice_is_read_in_place():
    coords, connect = box("TH4", (1, 1, 1))
    wide = np.full((len(connect), 7), 12345, dtype=np.uint32)
    wide[:, :4] = connect
    assert t3.volume(coords, wide[:, :4]) == pytest.approx(1.0)


def test_volume_errors():
    coords, connect, _ = UNIT["TH4"]
    with pytest.raises(t3.Error) as caught:
        t3.volume(coords[:, :2], connect)
    assert str(caught.value) == ("volume: coords (argument 1) must be an (n, 3) array of node coordinates, "
                                 "not of shape (4, 2)")
    assert caught.value.status == -1 and caught.value.argument == "coords" and caught.value.position == 1
    with pytest.raises(t3.Error) as caught:
        t3.volume(coords, [[0, 1, 2, 9]])
    assert caught.value.status == -2
    assert "element 0 holds node ID 9, not below the node count 4" in str(caught.value)
    with pytest.raises(t3.Error, match="absent marker"):
        t3.volume(coords, [[0, 1, 2, A]])
    assert t3.volume(np.zeros((0, 2)), np.zeros((0, 4), np.uint32)) == 0.0  # empty: no check


def test_circumcenters():
    coords = np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]], float)
    np.testing.assert_allclose(t3.circumcenters(coords, [[0, 1, 2, 3]]), [[0.5, 0.5, 0.5]])
    # inverted: the circumcentre of the face (1, 2, 3)
    np.testing.assert_allclose(t3.circumcenters(coords, [[0, 2, 1, 3]]), [[1 / 3, 1 / 3, 1 / 3]])
    c, connect = box("TH4", (2, 2, 2), jitter=0.2)
    centers = t3.circumcenters(c, connect)
    distances = np.linalg.norm(c[connect] - centers[:, None, :], axis=2)
    np.testing.assert_allclose(distances, distances[:, :1].repeat(4, axis=1), rtol=1e-9)
    assert t3.circumcenters(c, np.zeros((0, 4), np.uint32)).shape == (0, 3)
    with pytest.raises(t3.Error, match="circumcenters: connect \\(argument 2\\) must list 4 node IDs") as caught:
        t3.circumcenters(c, connect[:, :3])
    assert caught.value.status == -2


def test_dihedral_angles_of_cube_and_regular_tetrahedron():
    coords, connect, _ = UNIT["H8"]
    angles = t3.dihedral_angles(coords, connect)
    np.testing.assert_allclose([angles.min[0], angles.max[0]], [np.pi / 2] * 2)
    np.testing.assert_allclose(t3.dihedral_angles(coords, connect, normalise=True).max, [1.0])
    s = 1 / np.sqrt(2)
    regular = np.array([[1, 0, -s], [-1, 0, -s], [0, 1, s], [0, -1, s]], float)
    tet = np.array([[0, 1, 2, 3]], np.uint32)
    if t3.volume(regular, tet) < 0:
        tet = tet[:, [1, 0, 2, 3]]
    angles = t3.dihedral_angles(regular, tet)
    np.testing.assert_allclose([angles.min[0], angles.max[0]], [np.arccos(1 / 3)] * 2)
    np.testing.assert_allclose(t3.dihedral_angles(regular, tet, normalise=True).min, [1.0])


def test_solid_angles():
    coords, connect, _ = UNIT["H8"]
    np.testing.assert_allclose(t3.solid_angles(coords, connect).min, [np.pi / 2])
    right = np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]], float)
    angles = t3.solid_angles(right, [[0, 1, 2, 3]], normalise=True)
    assert angles.max[0] == pytest.approx(2.5)  # pi/2 at node 0, times 5/pi
    inverted = t3.solid_angles(right, [[0, 2, 1, 3]])
    assert inverted.max[0] < 0


def test_angles_of_an_empty_mesh_and_a_bad_one():
    coords, _, _ = UNIT["H8"]
    assert t3.dihedral_angles(coords, np.zeros((0, 8), np.uint32)).min.shape == (0,)
    with pytest.raises(t3.Error) as caught:
        t3.solid_angles(coords, [[0, 1, 2, 3, 4, 5, 6, 99]])
    assert caught.value.status == -2 and "solid_angles: connect (argument 2)" in str(caught.value)


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
