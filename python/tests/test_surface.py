"""Duplication of the nodes of an internal surface, splitting along quadrangles."""

import numpy as np
import pytest
from conftest import box

import tessel3d as t3


def mid_plane(coords, connect, kind):
    """The faces of the elements that lie in the plane x = 0.5 (taken from the elements
    below it, so that their normals point to x > 0 for the library's face order)."""
    tables = {"TH4": ((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0)),
              "H8": ((0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7), (0, 1, 2, 3), (4, 7, 6, 5))}
    faces = []
    for element in connect:
        if coords[element, 0].max() > 0.5 + 1e-12:
            continue
        for face in tables[kind]:
            nodes = element[list(face)]
            if np.allclose(coords[nodes, 0], 0.5):
                faces.append(nodes[::-1])  # reversed: seen from the element it points outwards
    return np.array(faces, dtype=np.uint32)


@pytest.mark.parametrize("kind", ["TH4", "H8"])
def test_cutting_a_box_in_two(kind):
    coords, connect = box(kind, (2, 2, 2))
    surface = mid_plane(coords, connect, kind)
    plane_nodes = np.unique(surface)
    r = t3.duplicate_surface_nodes(coords, connect, surface, positive_side=True)
    assert r.added == len(plane_nodes)
    assert len(r.coords) == len(coords) + r.added
    copies = r.coords[len(coords):]
    np.testing.assert_array_equal(copies[np.lexsort(copies.T)], coords[plane_nodes][np.lexsort(coords[plane_nodes].T)])
    right = coords[connect].mean(axis=1)[:, 0] > 0.5
    # the two halves no longer share a node
    assert not set(r.connect[right].ravel()) & set(r.connect[~right].ravel())
    assert t3.volume(r.coords, r.connect) == pytest.approx(1.0)


def test_both_sides_and_excluded_nodes():
    coords, connect = box("TH4", (2, 2, 2))
    surface = mid_plane(coords, connect, "TH4")
    plane_nodes = np.unique(surface)
    r = t3.duplicate_surface_nodes(coords, connect, surface, positive_side=True, negative_side=True,
                                   excluded=plane_nodes[:1])
    assert r.added == 2 * (len(plane_nodes) - 1)
    assert plane_nodes[0] in r.connect
    assert not np.isin(plane_nodes[1:], r.connect).any()


def test_no_side_and_errors():
    coords, connect = box("TH4", (1, 1, 1))
    r = t3.duplicate_surface_nodes(coords, connect, [[0, 1, 2]], positive_side=False)
    assert r.added == 0
    with pytest.raises(t3.Error) as caught:
        t3.duplicate_surface_nodes(coords, connect, [[0, 1, 99]])
    assert caught.value.status == -5 and "duplicate_surface_nodes: surface (argument 5)" in str(caught.value)
    with pytest.raises(t3.Error) as caught:
        t3.duplicate_surface_nodes(coords, connect, [[0, 1, 2]], type=t3.W6)
    assert caught.value.status in (-3, -9)


def test_split_solid_q4_cuts_the_listed_faces():
    from conftest import CUBE, UNIT
    r = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2, 3]], 0.0)
    assert len(r.coords) == 9 and np.allclose(r.coords[8], [0.5, 0.5, 0.5])  # the centre node
    kinds = (r.connect[:, 4] != t3.ABSENT).sum(), (r.connect[:, 4] == t3.ABSENT).sum()
    assert kinds == (5, 2)  # a pyramid on each unlisted face, two tetrahedra on the listed one
    assert t3.volume(r.coords, r.connect) == pytest.approx(1.0)
    assert (t3.element_volumes(r.coords, r.connect) > 0).all() and r.failed.size == 0
    coords, pyramid, volume = UNIT["PY5"]
    p = t3.split_solid_q4(coords, pyramid, [[0, 1, 2, 3]], 0.0)
    assert p.connect.shape == (2, 8) and t3.volume(p.coords, p.connect) == pytest.approx(volume)
    # the face seen from outside: split all the same, unless strictly as listed
    outside = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 3, 2, 1]], 0.0)
    assert outside.connect.tolist() == r.connect.tolist()
    untouched = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 3, 2, 1]], 0.0, strict=True)
    assert untouched.connect.tolist() == [list(range(8))] and len(untouched.coords) == 8


def test_split_solid_q4_keeps_solids_whose_pieces_fail_the_quality():
    from conftest import CUBE
    for strict in (False, True):
        r = t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2, 3]], 0.99, strict=strict)
        assert r.failed.tolist() == [0] and r.connect.tolist() == [list(range(8))] and len(r.coords) == 8
        assert r.reasons.tolist() == [t3.SplitReason.BELOW_QUALITY]


def test_split_solid_q4_errors():
    from conftest import CUBE
    with pytest.raises(t3.Error) as caught:
        t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2]], 0.0)
    assert caught.value.status == -3 and "split_solid_q4: quads (argument 3)" in str(caught.value)
    with pytest.raises(t3.Error) as caught:
        t3.split_solid_q4(CUBE, [list(range(8))], [[0, 1, 2, 3]], float("nan"))
    assert str(caught.value) == "split_solid_q4: min_quality (argument 4) must be a finite number"
