"""Mesh files: node-order tables, round trips per format, groups, mixed layouts, errors."""

import importlib.util
import os

import numpy as np
import pytest
from conftest import CUBE

import tessel3d as t3
from tessel3d import io as mio

A = t3.ABSENT


def element(type_name, corners):
    """Coordinates and one element of `type_name` in the library's order: the high-order
    nodes are placed at the centres of the corner sets they are named by."""
    names = mio.LIBRARY_ORDERS[type_name]
    coords = np.array([corners[sorted(n)].mean(axis=0) for n in names])
    return coords, np.arange(len(names), dtype=np.uint32).reshape(1, -1)


CORNERS = {"TH4": np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]], float),
           "PY5": np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [.5, .5, 1]], float),
           "W6": np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [0, 1, 1]], float),
           "H8": CUBE, "T3": CUBE[:3], "Q4": CUBE[:4], "E2": CUBE[:2]}
FAMILY = {"TH4": "TH4", "TH10": "TH4", "PY5": "PY5", "PY13": "PY5", "PY14": "PY5", "W6": "W6", "W15": "W6",
          "W18": "W6", "H8": "H8", "H20": "H8", "H27": "H8", "T3": "T3", "T6": "T3", "Q4": "Q4", "Q8": "Q4",
          "Q9": "Q4", "E2": "E2", "E3": "E2"}


def mesh_of(types):
    """One element of each type, on nodes of its own."""
    coords, cells, offset = [], {}, 0
    for k, t in enumerate(types):
        x, c = element(t, CORNERS[FAMILY[t]])
        coords.append(x + [3.0 * k, 0, 0])
        cells[t] = c + offset
        offset += len(x)
    return mio.Mesh(np.concatenate(coords), cells)


@pytest.mark.parametrize("type_name", sorted(mio.LIBRARY_ORDERS))
@pytest.mark.parametrize("family", ["vtk", "gmsh"])
def test_orders_are_permutations_and_invert(type_name, family):
    n = len(mio.LIBRARY_ORDERS[type_name])
    cells = np.arange(2 * n, dtype=np.uint32).reshape(2, n)
    out = mio.to_file_order(type_name, cells, family)
    assert sorted(out[0]) == list(range(n))
    np.testing.assert_array_equal(mio.from_file_order(type_name, out, family), cells)


def test_tetrahedron_is_reoriented_for_vtk_and_gmsh():
    x, c = element("TH4", CORNERS["TH4"])
    for family in ("vtk", "gmsh"):
        p = x[mio.to_file_order("TH4", c, family)[0]]
        # VTK's and Gmsh's positive tetrahedron: node 3 on the positive side of 0-1-2
        assert np.dot(np.cross(p[1] - p[0], p[2] - p[0]), p[3] - p[0]) > 0


def test_file_orders_put_every_edge_node_between_its_ends():
    """In the file's order, VTK's mid-edge node k of a quadratic tetrahedron lies at the
    middle of VTK's edge k: (0,1) (1,2) (2,0) (0,3) (1,3) (2,3)."""
    x, c = element("TH10", CORNERS["TH4"])
    p = x[mio.to_file_order("TH10", c, "vtk")[0]]
    for k, (a, b) in enumerate(((0, 1), (1, 2), (2, 0), (0, 3), (1, 3), (2, 3))):
        np.testing.assert_allclose(p[4 + k], (p[a] + p[b]) / 2)


LINEAR = ["TH4", "PY5", "W6", "H8", "T3", "Q4"]
QUADRATIC = ["TH10", "PY13", "W15", "W18", "H20", "H27", "T6", "Q8", "Q9"]
HAS_H5PY = importlib.util.find_spec("h5py") is not None
# The element types that meshio writes and reads back in each format.
FORMATS = {
    "vtu": LINEAR + QUADRATIC, "vtk": LINEAR + QUADRATIC, "msh": LINEAR + QUADRATIC + ["PY14"],
    "inp": ["TH4", "W6", "H8", "T3", "Q4", "TH10", "W15", "H20", "T6", "Q8", "Q9"],
    "med": LINEAR + ["TH10", "PY13", "W15", "H20", "T6", "Q8"], "xdmf": LINEAR + QUADRATIC,
    "mesh": LINEAR, "bdf": LINEAR + ["TH10", "PY13", "W15", "H20", "T6", "Q8", "Q9"], "ugrid": LINEAR,
    "vol": LINEAR + ["TH10", "PY13", "W15", "H20", "T6", "Q8"],
    "mdpa": ["TH4", "W6", "H8", "T3", "Q4", "TH10", "H20", "H27", "T6", "Q8", "Q9"],
    "dato": LINEAR + ["H20", "H27", "Q8"],
}
H5PY_FORMATS = ("med", "xdmf")
CASES = [(extension, t) for extension, types in FORMATS.items() for t in types]


@pytest.mark.parametrize("extension, type_name", CASES, ids=[f"{e}-{t}" for e, t in CASES])
def test_round_trip_keeps_nodes_and_cells(tmp_path, extension, type_name):
    if extension in H5PY_FORMATS and not HAS_H5PY:
        pytest.skip(f".{extension} needs h5py (Debian python3-h5py), which is not installed")
    mesh = mesh_of([type_name])
    path = str(tmp_path / f"mesh.{extension}")
    mio.write(path, mesh)
    back = mio.read(path)
    np.testing.assert_allclose(back.coords, mesh.coords, atol=1e-6)
    assert list(back.cells) == [type_name]
    np.testing.assert_array_equal(back.cells[type_name], mesh.cells[type_name])


@pytest.mark.parametrize("extension", ["vtu", "vtk", "msh", "inp", "bdf"])
def test_round_trip_of_several_types_together(tmp_path, extension):
    types = [t for t in FORMATS[extension] if t != "PY5" or extension != "inp"]
    mesh = mesh_of(types)
    path = str(tmp_path / f"mixed.{extension}")
    mio.write(path, mesh)
    back = mio.read(path)
    assert sorted(back.cells) == sorted(types)
    for t, c in mesh.cells.items():
        np.testing.assert_array_equal(back.cells[t], c, err_msg=t)


@pytest.mark.parametrize("extension", ["msh", "inp"])
def test_groups_come_back(tmp_path, extension):
    mesh = mesh_of(["H8", "Q4", "T3"])
    mesh.groups = {"wall": {"Q4": [0]}, "crack": {"T3": [0]}}
    path = str(tmp_path / f"g.{extension}")
    mio.write(path, mesh)
    back = mio.read(path)
    assert back.groups["wall"]["Q4"].tolist() == [0] and back.groups["crack"]["T3"].tolist() == [0]


def test_point_and_cell_data_round_trip_in_vtu(tmp_path):
    mesh = mesh_of(["TH4", "H8"])
    mesh.point_data = {"t": np.arange(len(mesh.coords), dtype=float)}
    mesh.cell_data = {"q": {"TH4": np.array([1.0]), "H8": np.array([2.0])}}
    mio.write(str(tmp_path / "d.vtu"), mesh)
    back = mio.read(str(tmp_path / "d.vtu"))
    np.testing.assert_array_equal(back.point_data["t"], mesh.point_data["t"])
    assert back.cell_data["q"]["H8"].tolist() == [2.0]


def test_mixed_layouts_are_written_as_their_members(tmp_path):
    coords = np.concatenate([CUBE, CUBE + [2, 0, 0]])
    mixed = np.array([[0, 1, 2, 3, 4, 5, 6, 7], [8, 9, 11, 12, A, A, A, A], [8, 9, 10, 12, 13, 14, A, A]],
                     dtype=np.uint32)
    mesh = mio.Mesh(coords, {"SOLID_MIX8": mixed, "FACE_MIX4": [[0, 1, 2, A], [4, 5, 6, 7]]},
                    cell_data={"id": {"SOLID_MIX8": np.array([0.0, 1.0, 2.0]), "FACE_MIX4": np.array([3.0, 4.0])}})
    assert mesh.counts() == {"H8": 1, "TH4": 1, "W6": 1, "T3": 1, "Q4": 1}
    mio.write(str(tmp_path / "m.vtu"), mesh)
    back = mio.read(str(tmp_path / "m.vtu"))
    assert back.cells["TH4"].tolist() == [[8, 9, 11, 12]]
    assert back.cells["W6"].tolist() == [[8, 9, 10, 12, 13, 14]]
    assert back.cell_data["id"]["W6"].tolist() == [2.0]
    kind, solids = back.solids()
    assert kind == "SOLID_MIX8" and solids.shape == (3, 8)


def test_mix27_kinds_follow_their_padding():
    c = np.full((4, 27), A, dtype=np.uint32)
    c[0, :10] = 1
    c[1, :14] = 1
    c[2, :18] = 1
    c[3, :] = 1
    parts = {kind: (index.tolist(), part.shape[1]) for kind, index, part in mio.split_mixed("SOLID_MIX27", c)}
    assert parts == {"TH10": ([0], 10), "PY14": ([1], 14), "W18": ([2], 18), "H27": ([3], 27)}


def test_file_errors_are_one_line(tmp_path):
    with pytest.raises(mio.FileError, match="no such file"):
        mio.read(str(tmp_path / "missing.vtu"))
    bad = tmp_path / "bad.vtu"
    bad.write_text("this is not a mesh")
    with pytest.raises(mio.FileError, match="cannot read it"):
        mio.read(str(bad))
    with pytest.raises(mio.FileError, match="unknown file extension"):
        mio.write(str(tmp_path / "x.unknown"), mesh_of(["TH4"]))
    assert os.path.exists(str(bad))
