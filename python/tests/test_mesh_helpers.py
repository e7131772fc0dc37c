"""Neighbours, node-to-element arrays, the node detector and surface normals."""

import numpy as np
import pytest
from conftest import box

import tessel3d as t3

A = t3.ABSENT


def test_two_tetrahedra_sharing_a_face_are_neighbours():
    # face f of a TH4 is opposite its node f; the shared face is {1, 2, 3}
    connect = np.array([[0, 1, 2, 3], [4, 3, 2, 1]], dtype=np.uint32)
    neighbors = t3.get_neighbors(connect, t3.TH4)
    assert neighbors.tolist() == [[1, A, A, A], [0, A, A, A]]


def test_neighbours_of_a_box_are_symmetric_and_count_the_inner_faces():
    coords, connect = box("H8", (3, 2, 2))
    neighbors = t3.get_neighbors(connect)  # type from the columns: H8
    inner = (neighbors != A).sum()
    # inner faces of a 3 x 2 x 2 grid of cells, each seen from both sides
    assert inner == 2 * (2 * 2 * 2 + 3 * 1 * 2 + 3 * 2 * 1)
    for e, row in enumerate(neighbors):
        for other in row[row != A]:
            assert e in neighbors[other]


def test_node_element_points_at_an_element_holding_the_node():
    coords, connect = box("TH4", (2, 1, 1))
    node_element = t3.get_node_element(connect, len(coords) + 2)
    assert node_element.shape == (len(coords) + 2,)
    assert (node_element[-2:] == A).all()  # nodes in no element
    for n, e in enumerate(node_element[:-2]):
        assert n in connect[e]


def test_bad_arguments_of_helpers_raise_with_their_status():
    with pytest.raises(t3.Error) as caught:
        t3.get_neighbors(np.zeros((1, 5), np.uint32), t3.TH4)
    assert caught.value.status == -1 and "get_neighbors: connect (argument 1)" in str(caught.value)
    with pytest.raises(t3.Error) as caught:
        t3.get_node_element(np.array([[0, 1, 2, 9]], np.uint32), 5)
    assert caught.value.status == -1


def test_node_detector_finds_the_nearest_node():
    rng = np.random.default_rng(3)
    coords = rng.uniform(size=(300, 3))
    points = rng.uniform(-0.2, 1.2, size=(50, 3))
    detector = t3.NodeDetector(coords)
    assert len(detector) == 300
    brute = np.argmin(((points[:, None, :] - coords[None]) ** 2).sum(axis=2), axis=1)
    np.testing.assert_array_equal(detector.find_closest(points), brute)
    assert detector.find_closest(points[0]) == brute[0]
    close = detector.find_close(points)
    assert ((close < 300) | (close == A)).all()
    subset = t3.NodeDetector(coords, ids=[5, 7])
    assert subset.find_closest(coords[7] + 1e-3) == 7
    assert t3.NodeDetector(np.zeros((0, 3))).find_closest([0, 0, 0]) == A


def test_surface_normals_of_a_flat_square_point_up():
    coords = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [5, 5, 5]], float)
    normals = t3.surface_normals(coords, [[0, 1, 2], [0, 2, 3]])
    np.testing.assert_allclose(normals[:4], [[0, 0, 1]] * 4, atol=1e-12)
    assert (normals[4] == 0).all()  # node in no face
    with pytest.raises(t3.Error, match="surface_normals: angle"):
        t3.surface_normals(coords, [[0, 1, 2]], angle=-1)


def test_mixed_stacks_blocks_with_padding():
    m = t3.mixed([[[0, 1, 2, 3]], [[0, 1, 2, 3, 4, 5]]])
    assert m.shape == (2, 8) and m[0, 4] == A and m[1, 5] == 5 and m[1, 6] == A
    assert t3.solid_type(m) == t3.SOLID_MIX8
