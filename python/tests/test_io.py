"""Mesh files: round trips per format, groups and data, mixed layouts, meshio interop,
Abaqus keywords, hostile files. The node orders themselves are proven against VTK and
Gmsh in test_io_referees.py."""

import importlib.util
import os
import warnings

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


@pytest.mark.parametrize("order", ["meshio", "vtk", "gmsh", "abaqus"])
def test_library_order_conversions_are_inverse_permutations(order):
    for type_name, names in mio.LIBRARY_ORDERS.items():
        cells = np.arange(2 * len(names), dtype=np.uint32).reshape(2, -1)
        other = mio.from_library_order(cells, mio.MESHIO_TYPES[type_name], order)
        assert sorted(other[0]) == list(range(len(names))), type_name
        np.testing.assert_array_equal(mio.to_library_order(other, type_name, order), cells)
    with pytest.raises(ValueError, match="shape"):
        mio.to_library_order(np.zeros((1, 4)), "tetra10")


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


@pytest.mark.parametrize("extension", ["msh", "inp", "vtu", "vtk", "xdmf", "med"])
def test_groups_and_data_come_back(tmp_path, extension):
    if extension in H5PY_FORMATS and not HAS_H5PY:
        pytest.skip(f".{extension} needs h5py (Debian python3-h5py), which is not installed")
    mesh = mesh_of(["H8", "TH4", "Q4", "T3"])
    mesh.cells["H8"] = np.concatenate([mesh.cells["H8"], mesh.cells["H8"][:, ::-1]])
    mesh.groups = {"wall": {"Q4": [0]}, "crack": {"T3": [0]}, "solid": {"H8": [1], "TH4": [0]}}
    mesh.point_data = {"t": np.arange(len(mesh.coords), dtype=float)}
    mesh.cell_data = {"q": {"H8": np.array([1.0, 2.0]), "TH4": [3.0], "Q4": [4.0], "T3": [5.0]}}
    path = str(tmp_path / f"g.{extension}")
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # .msh and .inp say what they cannot hold
        mio.write(path, mesh)
    back = mio.read(path)
    got = {g: {t: v.tolist() for t, v in per.items()} for g, per in back.groups.items()}
    assert got == {"wall": {"Q4": [0]}, "crack": {"T3": [0]}, "solid": {"H8": [1], "TH4": [0]}}
    if extension in ("vtu", "vtk", "xdmf", "med"):
        np.testing.assert_array_equal(back.point_data["t"], mesh.point_data["t"])
        assert {t: v.tolist() for t, v in back.cell_data["q"].items()} == {
            "H8": [1.0, 2.0], "TH4": [3.0], "Q4": [4.0], "T3": [5.0]}


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


def test_file_errors_are_one_line_and_nothing_else_is_printed(tmp_path, capfd):
    with pytest.raises(mio.FileError, match="no such file"):
        mio.read(str(tmp_path / "missing.vtu"))
    bad = tmp_path / "bad.vtu"
    bad.write_text("this is not a mesh")
    with pytest.raises(mio.FileError, match="cannot read it"):
        mio.read(str(bad))
    with pytest.raises(mio.FileError, match="unknown file extension"):
        mio.write(str(tmp_path / "x.unknown"), mesh_of(["TH4"]))
    assert os.path.exists(str(bad))
    good = tmp_path / "good.vtu"
    mio.write(str(good), mesh_of(["H27"]))
    (tmp_path / "truncated.vtu").write_bytes(good.read_bytes()[:-200])
    with pytest.raises(mio.FileError, match="damaged or truncated"):
        mio.read(str(tmp_path / "truncated.vtu"))
    for extension in ("vtu", "vtk", "inp", "msh"):
        with pytest.raises(mio.FileError, match="cannot write it"):
            mio.write(str(tmp_path / "no-such-folder" / f"x.{extension}"), mesh_of(["TH4"]))
    assert capfd.readouterr().err == ""  # VTK's own messages kept off the terminal


def test_meshio_meshes_go_in_and_out():
    meshio = pytest.importorskip("meshio")
    x = CORNERS["TH4"]
    # meshio's (VTK's) positive tetrahedron and its quadratic nodes: edges 01 12 20 03 13 23
    vtk_tet = [0, 2, 1, 3]
    coords = np.concatenate([x, [(x[a] + x[b]) / 2 for a, b in ((0, 2), (2, 1), (1, 0), (0, 3), (2, 3), (1, 3))]])
    m = meshio.Mesh(coords, [("tetra", [vtk_tet]), ("tetra10", [vtk_tet + list(range(4, 10))])],
                    cell_sets={"part": [np.array([0]), np.array([], int)]})
    for mesh in (mio.from_meshio(m), mio.Mesh(m)):
        assert t3.element_volumes(mesh.coords, mesh.cells["TH4"])[0] > 0
        q = t3.convert_into_quadratic(mesh.coords[:4], mesh.cells["TH4"])
        np.testing.assert_allclose(q.coords[q.connect], mesh.coords[mesh.cells["TH10"]])
        assert mesh.groups == {"part": {"TH4": [0]}}
    out = mio.to_meshio(mio.from_meshio(m))
    assert [b.type for b in out.cells] == ["tetra", "tetra10"]
    np.testing.assert_array_equal(out.cells[1].data, m.cells[1].data)
    assert t3.element_type("tetra10") == t3.TH10 and mio.Mesh(coords, {"tetra": [[0, 1, 2, 3]]}).cells.keys() == {"TH4"}
    with pytest.raises(mio.FileError, match="1 cells of kinds this library has no type for \\(polygon"):
        mio.from_meshio(meshio.Mesh(coords, [("polygon", [[0, 1, 2, 3, 4]])]))


def test_conversions_refuse_tetrahedra_in_another_tools_order():
    x = CORNERS["TH4"]
    vtk_order = mio.from_library_order(np.array([[0, 1, 2, 3]], np.uint32), "tetra")
    for convert in (t3.convert_into_quadratic, t3.split_into_h8):
        with pytest.raises(t3.Error, match="to_library_order"):
            convert(x, vtk_order)
        convert(x, mio.to_library_order(vtk_order, "tetra"))
    hexahedron_and_tet = t3.mixed([vtk_order + 8, [list(range(8))]])  # inverted tetrahedra beside a hexahedron
    with pytest.raises(t3.Error, match="all 1 tetrahedra"):
        t3.convert_into_quadratic(np.concatenate([CUBE, x]), hexahedron_and_tet)


def test_abaqus_keywords_and_refusals(tmp_path):
    mesh = mesh_of(["TH4", "TH10", "PY5", "W6", "W15", "H8", "H20", "H27", "T3", "Q4"])
    path = tmp_path / "all.inp"
    mio.write(str(path), mesh)
    keywords = [line.split("=")[1] for line in path.read_text().splitlines() if line.startswith("*ELEMENT")]
    assert keywords == ["C3D4", "C3D10", "C3D8", "C3D6", "C3D15", "C3D8", "C3D20", "C3D27", "S3", "S4"]
    back = mio.read(str(path))
    for t, c in mesh.cells.items():
        np.testing.assert_array_equal(back.cells[t], c, err_msg=t)
    for kind in ("W18", "PY13"):
        with pytest.raises(mio.FileError, match=f"{kind} have no Abaqus keyword"):
            mio.write(str(tmp_path / "x.inp"), mesh_of([kind]))
    text = path.read_text().replace("TYPE=C3D6", "TYPE=C3D12").replace("TYPE=S4", "TYPE=SPRINGA")
    (tmp_path / "odd.inp").write_text(text)
    with pytest.raises(mio.FileError, match=r"2 elements of types this library cannot map \(C3D12: 1, SPRINGA: 1\)"):
        mio.read(str(tmp_path / "odd.inp"))


def hostile_files(tmp_path):
    """(file, text the error must hold): cells naming nodes a file does not define."""
    vtk = pytest.importorskip("vtk")
    out = []
    for name, node in (("wrapped", 2 ** 32 + 3), ("negative", -1)):
        grid = vtk.vtkUnstructuredGrid()
        points = vtk.vtkPoints()
        for p in CORNERS["TH4"]:
            points.InsertNextPoint(*p)
        grid.SetPoints(points)
        ids = vtk.vtkIdList()
        for i in (0, 1, 2, node):
            ids.InsertNextId(i)
        grid.InsertNextCell(vtk.VTK_TETRA, ids)
        writer = vtk.vtkXMLUnstructuredGridWriter()
        writer.SetFileName(str(tmp_path / f"{name}.vtu"))
        writer.SetInputData(grid)
        writer.Write()
        out.append((tmp_path / f"{name}.vtu", f"TH4 element 0 names node {node}, which the file does not define"))
    nodes = "$Nodes\n4\n1 0 0 0\n2 1 0 0\n3 0 1 0\n{} 0 0 1\n$EndNodes\n"
    elements = "$Elements\n1\n1 4 2 0 1 1 2 3 {}\n$EndElements\n"
    for name, tag, used, error in (("sparse", 300_000_000, 300_000_000, "too sparse"),
                                   ("undefined", 4, 5, "does not define|cannot read it"),
                                   ("wrapped", 4, 2 ** 32 + 4, "does not define|cannot read it")):
        path = tmp_path / f"{name}.msh"
        path.write_text("$MeshFormat\n2.2 0 8\n$EndMeshFormat\n" + nodes.format(tag) + elements.format(used))
        out.append((path, error))
    inp = "*NODE\n1, 0, 0, 0\n2, 1, 0, 0\n3, 0, 1, 0\n4, 0, 0, 1\n*ELEMENT, TYPE=C3D4\n1, 1, 2, 3, {}\n"
    for name, node in (("wrapped", 2 ** 32 + 4), ("negative", -1)):
        (tmp_path / f"{name}.inp").write_text(inp.format(node))
        out.append((tmp_path / f"{name}.inp", f"names node {node}, which the file does not define"))
    (tmp_path / "empty.msh").write_text("")
    out.append((tmp_path / "empty.msh", "cannot read it"))
    return out


def test_hostile_files_are_refused_in_one_line(tmp_path):
    for path, error in hostile_files(tmp_path):
        with pytest.raises(mio.FileError, match=error) as caught:
            mio.read(str(path))
        assert str(path) in str(caught.value) and "\n" not in str(caught.value), path


def test_sparse_node_tags_of_a_text_msh41_cost_nothing_more(tmp_path):
    path = tmp_path / "sparse41.msh"
    path.write_text("$MeshFormat\n4.1 0 8\n$EndMeshFormat\n$Nodes\n1 4 1 300000000\n3 1 0 4\n1\n2\n3\n300000000\n"
                    "0 0 0\n1 0 0\n0 1 0\n0 0 1\n$EndNodes\n$Elements\n1 1 1 1\n3 1 4 1\n1 1 2 3 300000000\n"
                    "$EndElements\n")
    mesh = mio.read(str(path))
    assert mesh.cells["TH4"].tolist() == [[0, 2, 1, 3]]
    path.write_text(path.read_text().replace("1 1 2 3 300000000", "1 1 2 3 4294967300"))
    with pytest.raises(mio.FileError, match="names node 4294967300, which the file does not define"):
        mio.read(str(path))


def test_nonfinite_coordinates_are_read_and_reported(tmp_path):
    mesh = mesh_of(["TH4"])
    mesh.coords[1] = [np.nan, 0, 0]
    mesh.coords[3] = [0, np.inf, 0]
    mio.write(str(tmp_path / "n.vtu"), mesh)
    assert mio.read(str(tmp_path / "n.vtu")).nonfinite_nodes().tolist() == [1, 3]


@pytest.mark.parametrize("compression", [None, "lz4", "zlib", "lzma"])
def test_compression_and_progress(tmp_path, compression):
    mesh = mesh_of(["H27", "W18", "TH10"])
    fractions = []
    path = str(tmp_path / "c.vtu")
    mio.write(path, mesh, compression=compression, progress=fractions.append)
    back = mio.read(path, progress=fractions.append)
    assert fractions[0] == 0.0 and fractions[-1] == 1.0 and all(0.0 <= f <= 1.0 for f in fractions)
    for t, c in mesh.cells.items():
        np.testing.assert_array_equal(back.cells[t], c)
    if compression != "lz4":  # meshio (the reader when VTK is missing) reads all but LZ4
        assert len(mio._read_meshio(path, ["vtu"]).cells) == 3
    with pytest.raises(mio.FileError, match="unknown compression"):
        mio.write(path, mesh, compression="zip")


@pytest.mark.skipif(not os.path.isdir("/proc/self/fdinfo"), reason="needs Linux's /proc")
def test_progress_of_files_meshio_opens_itself(tmp_path):
    """The watch reports how far the reader's own descriptor got, and how far the file
    grew towards the size given for a writer."""
    from tessel3d._io_watch import FileWatch
    path = tmp_path / "data.bin"
    path.write_bytes(bytes(1000))
    with open(path, "rb", buffering=0) as reader:
        for read, expected in ((0, 0.0), (250, 0.25), (750, 1.0)):
            reader.read(read)
            assert FileWatch(path, None).fraction() == expected
    assert FileWatch(path, None).fraction() is None  # nobody reads it now: nothing to tell
    assert FileWatch(path, None, expected_size=4000).fraction() == 0.25
    assert FileWatch(tmp_path / "missing", None, expected_size=10).fraction() is None
    # through meshio's own reader and writer, on a file large enough to be watched
    mesh = mesh_of(["H8"])
    big = mio.Mesh(np.repeat(mesh.coords, 20000, axis=0), {"H8": np.repeat(mesh.cells["H8"], 20000, axis=0)})
    fractions = []
    mio.write(str(tmp_path / "big.msh"), big, progress=fractions.append, binary=False)
    mio.read(str(tmp_path / "big.msh"), progress=fractions.append)
    assert fractions == sorted(fractions[:fractions.index(1.0) + 1]) + sorted(fractions[fractions.index(1.0) + 1:])
    assert all(0.0 <= f <= 1.0 for f in fractions)
