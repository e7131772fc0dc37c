"""Extrusion bindings: layer counts and sizes, node numbering, outputs and errors."""

import numpy as np
import pytest

import tessel3d as t3

A = t3.ABSENT
SQUARE = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]], float)
TRIANGLES = np.array([[0, 1, 2], [0, 2, 3]], np.uint32)  # counter-clockwise seen from +z
QUAD = np.array([[0, 1, 2, 3]], np.uint32)
BOUNDARY = np.array([[0, 1], [1, 2], [2, 3], [3, 0]], np.uint32)


def test_translation_of_triangles_gives_positive_wedges():
    r = t3.extrude_translate(SQUARE, TRIANGLES, (0, 0, 2), 4)
    assert r.solids.shape == (8, 6)
    assert len(r.coords) == 4 + 4 * 4
    assert t3.volume(r.coords, r.solids) == pytest.approx(2.0)
    assert (t3.element_volumes(r.coords, r.solids) > 0).all()
    # copy of surface node n in layer k: 4 + (k - 1) * 4 + (index of n in order of appearance)
    np.testing.assert_allclose(r.coords[4 + 2 * 4 + 3], [0, 1, 1.5])
    assert r.solids[0].tolist() == [0, 1, 2, 4, 5, 6]  # layer 1 of face 0


def test_mixed_surface_gives_padded_wedges_and_hexahedra():
    coords = np.concatenate([SQUARE, [[2, 0.5, 0]]])
    surface = np.array([[0, 1, 2, 3], [1, 4, 2, A]], np.uint32)
    r = t3.extrude_translate(coords, surface, (0, 0, 1), 1)
    assert r.solids.shape == (2, 8) and (r.solids[1, 6:] == A).all()
    assert t3.volume(r.coords, r.solids) == pytest.approx(1.0 + 0.5)


def test_layer_count_from_sizes_rounds_at_the_geometric_mean():
    # ln 2 / 0.1 = 6.93 layers: 7; with even layers 6 or 8, and 6.93^2 >= 48 gives 8
    r = t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), h0=0.1, h1=0.2)
    assert len(r.solids) == 7
    r = t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), h0=0.1, h1=0.2, even_layers=True)
    assert len(r.solids) == 8
    heights = np.unique(np.round(r.coords[:, 2], 12))
    steps = np.diff(heights)
    assert steps[0] < steps[-1] and steps[0] == pytest.approx(0.1, rel=0.25)


def test_lateral_faces_and_cap():
    r = t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 2, edges=BOUNDARY)
    assert r.lateral.shape == (4 * 2, 4)
    assert r.lateral[0].tolist() == [1, 0, 4, 5]  # (b, a, a', b') of edge (0, 1), layer 1
    top = r.coords[r.cap[0]]
    assert r.cap.shape == (1, 4) and np.allclose(top[:, 2], 1.0)
    normal = np.cross(top[1] - top[0], top[2] - top[0])
    assert normal[2] < 0  # the far cap is reversed: it faces away from the solid


def test_existing_outputs_are_kept_and_zero_layers_change_nothing():
    existing = np.full((1, 8), 7, np.uint32)
    r = t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 1, solids=existing)
    assert r.solids.shape == (2, 8) and r.solids[0].tolist() == [7] * 8
    r = t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 0)
    np.testing.assert_array_equal(r.coords, SQUARE)
    assert r.solids.size == 0


def test_planar_coordinates_become_three_dimensional():
    r = t3.extrude_translate(SQUARE[:, :2], QUAD, (0, 0, 1), 2)
    assert r.coords.shape == (12, 3) and (r.coords[:4, 2] == 0).all()


def test_rotation_quarter_turn_places_layers_at_equal_angles():
    coords = np.array([[1, 0, 0], [2, 0, 0], [2, 0, 1], [1, 0, 1]], float)  # in the plane y = 0
    r = t3.extrude_rotate(coords, QUAD, (0, 0, 0), (0, 0, np.pi / 2), 4)
    angles = np.arctan2(r.coords[4:, 1], r.coords[4:, 0]).reshape(4, 4)
    np.testing.assert_allclose(angles, np.repeat(np.arange(1, 5)[:, None] * np.pi / 8, 4, axis=1), atol=1e-12)


def test_spiral_moves_along_the_axis_while_turning():
    r = t3.extrude_spiral(SQUARE + [1, 0, 0], QUAD, (0, 0, 0), (0, 0, np.pi / 2), (0, 0, 2), 2)
    np.testing.assert_allclose(r.coords[-4:, 2], 2.0)
    np.testing.assert_allclose(r.coords[-4:, :2], (SQUARE + [1, 0, 0])[:, [1, 0]] * [-1, 1], atol=1e-12)
    with pytest.raises(t3.Error) as caught:
        t3.extrude_spiral(SQUARE, QUAD, (0, 0, 0), (0, 0, 1), (0, 0, 0), 3)
    assert caught.value.status == -5 and "translation (argument 5) must not be zero" in str(caught.value)


def test_normal_extrusion_moves_along_unit_normals():
    r = t3.extrude_normal(SQUARE, QUAD, 1.0, 4)
    np.testing.assert_allclose(np.unique(np.round(r.coords[:, 2], 12)), [0, 0.25, 0.5, 0.75, 1.0])
    given = np.tile([0.0, 0.0, 0.5], (4, 1))
    g = t3.extrude_normal(SQUARE, QUAD, normals=given, layers=2)
    np.testing.assert_allclose(g.coords[-4:, 2], 0.5)
    with pytest.raises(t3.Error) as caught:
        t3.extrude_normal(SQUARE, QUAD, normals=given[:2], layers=2)
    assert caught.value.status == -2


def test_line_extrusion_along_a_straight_polyline_translates():
    coords = np.concatenate([SQUARE, [[0.5, 0.5, 0], [0.5, 0.5, 1], [0.5, 0.5, 3]]])
    r = t3.extrude_line(coords, QUAD, [4, 5, 6], (0, 0, 1))
    assert r.solids.shape == (2, 8)
    np.testing.assert_allclose(r.coords[r.solids[1, 4:]][:, 2], 3.0)
    scaled = t3.extrude_line(coords, QUAD, [4, 5, 6], (0, 0, 1), scales=[1, 2, 2])
    top = scaled.coords[scaled.solids[1, 4:]]
    np.testing.assert_allclose(np.ptp(top[:, 0]), 2.0)


@pytest.mark.parametrize("call, status, text", [
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), h0=0, h1=0.1), -4,
     "extrude_translate: h0 (argument 4) must be > 0"),
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), h0=0.1, h1=-1), -5,
     "extrude_translate: h1 (argument 5) must be > 0"),
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 0), 3), -4,
     "extrude_translate: vector (argument 3) must not be zero"),
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 2, solids=np.zeros((1, 5), np.uint32)), -7,
     "extrude_translate: solids (argument 5) must have 6 (W6) or 8"),
    (lambda: t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 2, edges=np.zeros((1, 3), np.uint32)), -8,
     "extrude_translate: edges (argument 6) must have 2"),
    (lambda: t3.extrude_rotate(SQUARE, QUAD, (0, 0, 0), (0, 0, 1), h0=1, h1=0), -6,
     "extrude_rotate: h1 (argument 6) must be > 0"),
    (lambda: t3.extrude_spiral(SQUARE, QUAD, (0, 0, 0), (0, 0, 1), (0, 0, 1), h0=-1, h1=1), -5,
     "extrude_spiral: h0 (argument 6) must be > 0"),
    (lambda: t3.extrude_normal(SQUARE, QUAD, -1.0, 2), -3, "extrude_normal: thickness (argument 3) must be > 0"),
    (lambda: t3.extrude_normal(SQUARE[:, :2], QUAD, 1.0, 2), -1, "extrude_normal: coords (argument 1) must be an (n, 3)"),
    (lambda: t3.extrude_line(SQUARE, QUAD, [0], (0, 0, 1)), -3, "extrude_line: line (argument 3) must list at least 2"),
    (lambda: t3.extrude_translate(SQUARE, [[0, 1, 9]], (0, 0, 1), 1), -2,
     "extrude_translate: surface (argument 2) must list 3 (triangles) or 4"),
])
def test_errors(call, status, text):
    with pytest.raises(t3.Error) as caught:
        call()
    assert caught.value.status == status
    assert str(caught.value).startswith(text), str(caught.value)


def test_layer_arguments_are_checked_in_python():
    with pytest.raises(ValueError, match="either layers or h0"):
        t3.extrude_translate(SQUARE, QUAD, (0, 0, 1), 2, h0=0.1)
    with pytest.raises(ValueError, match="number of layers or the sizes"):
        t3.extrude_translate(SQUARE, QUAD, (0, 0, 1))
