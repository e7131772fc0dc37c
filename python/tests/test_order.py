"""High order, quadratic, linear, hexahedra: node positions, counts and volumes."""

import numpy as np
import pytest
from conftest import CUBE, UNIT, box

import tessel3d as t3

A = t3.ABSENT
# The library's high-order node orders (edges, then face centres, then the centre).
TH_EDGES = [(1, 2), (2, 0), (0, 1), (3, 0), (3, 1), (3, 2)]
W_EDGES = [(0, 3), (1, 4), (2, 5), (1, 2), (2, 0), (0, 1), (4, 5), (5, 3), (3, 4)]
W_QUADS = [(2, 1, 4, 5), (0, 2, 5, 3), (1, 0, 3, 4)]
H_EDGES = [(0, 1), (1, 2), (2, 3), (3, 0), (4, 5), (5, 6), (6, 7), (7, 4), (0, 4), (1, 5), (2, 6), (3, 7)]
H_FACES = [(0, 3, 7, 4), (1, 2, 6, 5), (0, 1, 5, 4), (2, 3, 7, 6), (0, 1, 2, 3), (4, 5, 6, 7)]
# The same faces with the corner order that fixes their grids of nodes.
H_FACES_OWN = [(0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7), (0, 1, 2, 3), (4, 7, 6, 5)]


def expected_positions(coords, corners, edges, faces=(), centre=False):
    p = coords[corners]
    rows = list(p) + [(p[a] + p[b]) / 2 for a, b in edges] + [p[list(f)].mean(axis=0) for f in faces]
    if centre:
        rows.append(p.mean(axis=0))
    return np.array(rows)


@pytest.mark.parametrize("kind, edges, faces, centre, columns", [
    ("TH4", TH_EDGES, [], False, 10), ("W6", W_EDGES, W_QUADS, False, 18), ("H8", H_EDGES, H_FACES, True, 27)])
def test_quadratic_nodes_sit_on_edges_faces_and_centre(kind, edges, faces, centre, columns):
    coords, connect, volume = UNIT[kind]
    coords = coords * [1.0, 2.0, 3.0]  # not a cube, so that misplaced nodes show
    result = t3.convert_into_quadratic(coords, connect)
    assert result.connect.shape == (1, columns)
    assert len(result.coords) == len(coords) + columns - len(connect[0])
    np.testing.assert_allclose(result.coords[result.connect[0]],
                               expected_positions(coords, connect[0], edges, faces, centre))
    # a pure 18-column W18 keeps its first 8 columns (the rules look at the padding of
    # the 27-column layout only), so compare the corners
    np.testing.assert_array_equal(t3.convert_into_linear(result.connect)[:, :len(connect[0])], connect)


def test_shared_edges_and_faces_get_one_node():
    coords, connect = box("TH4", (1, 1, 1))
    result = t3.convert_into_quadratic(coords, connect)
    edges = {frozenset((int(e[a]), int(e[b]))) for e in connect for a, b in TH_EDGES}
    assert len(result.coords) == len(coords) + len(edges)
    assert t3.volume(result.coords, t3.convert_into_linear(result.connect)) == pytest.approx(1.0)


def test_mixed_input_gives_the_27_column_layout():
    tet = box("TH4", (1, 1, 1))
    mixed = t3.mixed([tet[1], box("H8", (1, 1, 1))[1]])
    result = t3.convert_into_quadratic(tet[0], mixed)
    assert result.connect.shape == (7, 27)
    assert (result.connect[:6, 10:] == A).all() and (result.connect[6] != A).all()
    linear = t3.convert_into_linear(result.connect)
    np.testing.assert_array_equal(linear, mixed)


def test_input_arrays_are_not_written():
    coords, connect, _ = UNIT["H8"]
    coords, connect = coords.copy(), np.array(connect, dtype=np.uint32)
    before = coords.copy(), connect.copy()
    t3.convert_into_quadratic(coords, connect)
    t3.split_into_h8(coords, connect)
    np.testing.assert_array_equal(coords, before[0])
    np.testing.assert_array_equal(connect, before[1])


def test_high_order_counts_and_errors():
    coords, connect, _ = UNIT["H8"]
    r = t3.convert_into_high_order(coords, connect, nodes_per_edge=2, nodes_in_q4=4, nodes_in_h8=8)
    assert r.connect.shape == (1, 8 + 12 * 2 + 6 * 4 + 8) and len(r.coords) == r.connect.shape[1]
    for kwargs, status, text in (({"nodes_in_q4": 2}, -4, "nodes_in_q4 (argument 4) must be a perfect square"),
                                 ({"nodes_in_t3": 2}, -5, "nodes_in_t3 (argument 5) must be 0, 1 or 3"),
                                 ({"nodes_in_h8": 63}, -6, "nodes_in_h8 (argument 6) must be a perfect cube"),
                                 ({"nodes_in_h8": 64, "strict": True}, -6, "nodes_in_h8 (argument 6) must be a"),
                                 ({"nodes_in_w6": 2}, -7, "nodes_in_w6 (argument 7) must be 0 or 1"),
                                 ({"nodes_in_th4": 2}, -9, "nodes_in_th4 (argument 9) must be 0 or 1")):
        with pytest.raises(t3.Error) as caught:
            t3.convert_into_high_order(coords, connect, **kwargs)
        assert caught.value.status == status
        assert str(caught.value).startswith("convert_into_high_order: " + text)
    with pytest.raises(t3.Error) as caught:
        t3.convert_into_quadratic(coords, connect, edges=[[0, 1]])
    assert caught.value.status == -12 and "edges (argument 4) must list 3 node IDs" in str(caught.value)


@pytest.mark.parametrize("strict", [False, True])
def test_face_grids_follow_each_element_unless_strict(strict):
    """Two hexahedra sharing the face x = 1, the second listed from another corner: each
    lists the shared face's 3 x 3 grid along its own face corners 0 -> 1 (fastest) and
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


def test_caller_edge_node_is_reused():
    coords, connect, _ = UNIT["TH4"]
    extra = np.concatenate([coords, [[0.5, 0.5, 0.1]]])  # node 4: a curved edge 1-2 node
    r = t3.convert_into_quadratic(extra, connect, edges=[[1, 2, 4]])
    assert r.connect[0, 4] == 4  # the TH10's first edge is (1, 2)
    np.testing.assert_allclose(r.coords[4], [0.5, 0.5, 0.1])


def test_convert_into_linear_row_counts():
    assert t3.convert_into_linear(np.zeros((2, 10), np.uint32)).shape == (2, 4)
    assert t3.convert_into_linear(np.zeros((2, 27), np.uint32)).shape == (2, 8)
    with pytest.raises(t3.Error) as caught:
        t3.convert_into_linear(np.zeros((1, 11), np.uint32))
    assert str(caught.value) == ("convert_into_linear: connect (argument 1) must have 10, 13, 14, 15, 18, 20 "
                                 "or 27 columns, not 11")


@pytest.mark.parametrize("kind, hexahedra, new_nodes", [("TH4", 4, 11), ("W6", 6, 15), ("H8", 8, 19)])
def test_split_into_hexahedra(kind, hexahedra, new_nodes):
    coords, connect, volume = UNIT[kind]
    r = t3.split_into_h8(coords, connect)
    assert r.hexahedra.shape == (hexahedra, 8)
    assert len(r.coords) == len(coords) + new_nodes
    assert t3.volume(r.coords, r.hexahedra) == pytest.approx(volume)
    assert (t3.element_volumes(r.coords, r.hexahedra) > 0).all()


def test_split_keeps_existing_hexahedra_and_refuses_pyramids():
    coords, connect = box("W6", (2, 1, 1))
    existing = np.arange(8, dtype=np.uint32).reshape(1, 8)
    r = t3.split_into_h8(coords, connect, hexahedra=existing)
    assert r.hexahedra.shape == (1 + 6 * len(connect), 8) and r.hexahedra[0].tolist() == list(range(8))
    assert t3.volume(r.coords, r.hexahedra[1:]) == pytest.approx(1.0)
    pc, pyramids = box("PY5", (1, 1, 1))
    with pytest.raises(t3.Error) as caught:
        t3.split_into_h8(pc, t3.mixed([pyramids]))
    assert caught.value.status == -2 and "holds pyramids" in str(caught.value)
    with pytest.raises(t3.Error, match="hexahedra \\(argument 3\\) must have 8 columns"):
        t3.split_into_h8(CUBE, [list(range(8))], hexahedra=np.zeros((1, 4), np.uint32))
