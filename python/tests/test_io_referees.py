"""Node orders judged by their owners, VTK and Gmsh, never by this package's tables:

- a cell of every VTK type built on VTK's own parametric coordinates (vtkCellValidator
  accepts it), written by VTK's writers, reads as a positive element whose quadratic nodes
  lie where the library's own conversion puts them;
- a mixed mesh meshed by Gmsh (prisms, hexahedra, tetrahedra, pyramids; linear, quadratic,
  serendipity) and written by Gmsh itself to .msh 2.2 and 4.1, .vtk and .inp, and by VTK
  from Gmsh's .vtk to .vtu, reads with positive volumes equal in every format;
- what this package writes from the library's meshes is valid for vtkCellValidator, and
  Gmsh's own Jacobians of it are positive and integrate to the library's volumes.
Gmsh runs in subprocesses (it keeps state across initialize() calls)."""

import json
import os
import subprocess
import sys
import warnings

import numpy as np
import pytest
from conftest import box

import tessel3d as t3
from tessel3d import io as mio

HERE = os.path.dirname(os.path.abspath(__file__))
CORNERS = {"TH4": 4, "TH10": 4, "PY5": 5, "PY13": 5, "PY14": 5, "W6": 6, "W15": 6, "W18": 6, "H8": 8, "H20": 8,
           "H27": 8}
LINEAR = {"TH10": "TH4", "PY13": "PY5", "PY14": "PY5", "W15": "W6", "W18": "W6", "H20": "H8", "H27": "H8"}


def solids_of(mesh):
    return {t: c for t, c in mesh.cells.items() if t in CORNERS}


def signed_volumes(mesh):
    """{type: volumes of the elements' corner solids}, measured by the library."""
    return {t: t3.element_volumes(mesh.coords, np.ascontiguousarray(c[:, :CORNERS[t]]))
            for t, c in solids_of(mesh).items()}


def assert_nodes_where_the_library_puts_them(mesh):
    """The library's quadratic conversion of each element's corners puts its new nodes
    where the file has the element's nodes (same nodes, same order)."""
    for t, cells in solids_of(mesh).items():
        if t not in LINEAR:
            continue
        corners = np.ascontiguousarray(cells[:, :CORNERS[t]])
        corners = t3.mixed([corners]) if CORNERS[t] == 5 else corners  # PY5 goes in the mixed layout
        ours = t3.convert_into_quadratic(mesh.coords, corners)
        width = cells.shape[1]
        np.testing.assert_allclose(ours.coords[ours.connect[:, :width]], mesh.coords[cells], atol=1e-9, err_msg=t)


# ---- VTK ----------------------------------------------------------------------------------

vtk = pytest.importorskip("vtk", reason="VTK's Python module (Debian python3-vtk9) is not installed")
from vtk.util.numpy_support import vtk_to_numpy  # noqa: E402

VTK_CELLS = {"TH4": vtk.VTK_TETRA, "PY5": vtk.VTK_PYRAMID, "W6": vtk.VTK_WEDGE, "H8": vtk.VTK_HEXAHEDRON,
             "TH10": vtk.VTK_QUADRATIC_TETRA, "PY13": vtk.VTK_QUADRATIC_PYRAMID, "W15": vtk.VTK_QUADRATIC_WEDGE,
             "W18": vtk.VTK_BIQUADRATIC_QUADRATIC_WEDGE, "H20": vtk.VTK_QUADRATIC_HEXAHEDRON,
             "H27": vtk.VTK_TRIQUADRATIC_HEXAHEDRON, "T6": vtk.VTK_QUADRATIC_TRIANGLE, "Q8": vtk.VTK_QUADRATIC_QUAD,
             "Q9": vtk.VTK_BIQUADRATIC_QUAD}


def validity(grid):
    """vtkCellValidator's state of every cell (0: valid)."""
    validator = vtk.vtkCellValidator()
    validator.SetInputData(grid)
    validator.Update()
    return vtk_to_numpy(validator.GetOutput().GetCellData().GetArray("ValidityState"))


LINEAR_OF = {vtk.VTK_QUADRATIC_TETRA: vtk.VTK_TETRA, vtk.VTK_QUADRATIC_PYRAMID: vtk.VTK_PYRAMID,
             vtk.VTK_QUADRATIC_WEDGE: vtk.VTK_WEDGE, vtk.VTK_BIQUADRATIC_QUADRATIC_WEDGE: vtk.VTK_WEDGE,
             vtk.VTK_QUADRATIC_HEXAHEDRON: vtk.VTK_HEXAHEDRON, vtk.VTK_TRIQUADRATIC_HEXAHEDRON: vtk.VTK_HEXAHEDRON,
             vtk.VTK_QUADRATIC_TRIANGLE: vtk.VTK_TRIANGLE, vtk.VTK_QUADRATIC_QUAD: vtk.VTK_QUAD,
             vtk.VTK_BIQUADRATIC_QUAD: vtk.VTK_QUAD}
LINEAR_OF.update({t: t for t in (vtk.VTK_TETRA, vtk.VTK_PYRAMID, vtk.VTK_WEDGE, vtk.VTK_HEXAHEDRON)})


def vtk_cell_on_its_parametric_coordinates(cell_type):
    """A grid of one VTK cell: its nodes where VTK's linear cell of the same kind, on
    VTK's reference corners, maps their parametric coordinates (the reference element,
    straight-sided); mirrored when the validator finds it inside out (VTK's linear wedge)."""
    cell = vtk.vtkGenericCell()
    cell.SetCellType(cell_type)
    n = cell.GetNumberOfPoints()
    reference = np.array([cell.GetParametricCoords()[i] for i in range(3 * n)]).reshape(n, 3)
    linear_type = LINEAR_OF[cell_type]
    linear = vtk.vtkGenericCell()
    linear.SetCellType(linear_type)
    corners = linear.GetNumberOfPoints()
    for i in range(corners):
        linear.GetPoints().SetPoint(i, *reference[i])
        linear.GetPointIds().SetId(i, i)
    physical = []
    for p in reference:
        x, weights = [0.0] * 3, [0.0] * corners
        linear.EvaluateLocation(vtk.mutable(0), list(p), x, weights)
        physical.append(x)
    for mirror in (1.0, -1.0):
        grid = vtk.vtkUnstructuredGrid()
        points = vtk.vtkPoints()
        for p in np.array(physical) * [1.0, 1.0, mirror] + [0.1, 0.2, 0.3]:
            points.InsertNextPoint(*p)
        grid.SetPoints(points)
        ids = vtk.vtkIdList()
        for i in range(n):
            ids.InsertNextId(i)
        grid.InsertNextCell(cell_type, ids)
        if validity(grid)[0] == 0:
            return grid
    raise AssertionError(f"VTK finds its cell {cell_type} invalid either way")


def vtk_write(grid, path):
    writer = vtk.vtkXMLUnstructuredGridWriter() if path.endswith(".vtu") else vtk.vtkUnstructuredGridWriter()
    writer.SetFileName(path)
    writer.SetInputData(grid)
    writer.Write()


def vtk_read(path):
    reader = vtk.vtkXMLUnstructuredGridReader() if path.endswith(".vtu") else vtk.vtkUnstructuredGridReader()
    reader.SetFileName(path)
    reader.Update()
    return reader.GetOutput()


@pytest.mark.parametrize("extension", ["vtu", "vtk"])
def test_vtk_reference_cells_read_positive_with_the_library_nodes(tmp_path, extension):
    for name, cell_type in VTK_CELLS.items():
        path = str(tmp_path / f"{name}.{extension}")
        vtk_write(vtk_cell_on_its_parametric_coordinates(cell_type), path)
        mesh = mio.read(path)
        assert list(mesh.cells) == [name], name
        if name in CORNERS:
            assert signed_volumes(mesh)[name][0] > 0, name
            assert_nodes_where_the_library_puts_them(mesh)
        else:  # faces: edge nodes at the middle of the library's edges, centre at the centre
            x, c = mesh.coords, mesh.cells[name][0]
            corners = 3 if name == "T6" else 4
            names = mio.LIBRARY_ORDERS[name]
            for k in range(corners, len(c)):
                np.testing.assert_allclose(x[c[k]], x[c[sorted(names[k])]].mean(axis=0), err_msg=name)


def library_mesh(kinds, quadratic, jitter=0.12):
    """A jittered box of the given linear kinds, converted to quadratic by the library."""
    blocks, coords = [], None
    for k in kinds:
        c, connect = box(k, (2, 2, 1), size=(2.0, 1.5, 1.0), jitter=jitter, seed=4)
        coords = c if coords is None or len(c) > len(coords) else coords
        blocks.append(connect)
    linear = blocks[0] if len(blocks) == 1 else t3.mixed(blocks)
    if not quadratic:
        return mio.Mesh(coords, {"SOLID_MIX8" if len(blocks) > 1 else kinds[0]: linear}), t3.volume(coords, linear)
    q = t3.convert_into_quadratic(coords, linear)
    kind = "SOLID_MIX27" if len(blocks) > 1 else {10: "TH10", 14: "PY14", 18: "W18", 27: "H27"}[q.connect.shape[1]]
    return mio.Mesh(q.coords, {kind: q.connect}), t3.volume(coords, linear)


def serendipity(mesh):
    return mio.Mesh(mesh.coords, {{"W18": "W15", "H27": "H20", "PY14": "PY13"}.get(k, k):
                                  c[:, :{"W18": 15, "H27": 20, "PY14": 13}.get(k, c.shape[1])]
                                  for k, c in mesh.cells.items()})


WRITTEN = [(("TH4", "PY5", "W6", "H8"), False), (("TH4", "PY5", "W6", "H8"), True), (("W6",), True),
           (("H8",), True)]


@pytest.mark.parametrize("extension", ["vtu", "vtk"])
@pytest.mark.parametrize("kinds, quadratic", WRITTEN, ids=["linear", "quadratic", "W18", "H27"])
def test_what_we_write_is_valid_for_vtk(tmp_path, extension, kinds, quadratic):
    mesh, volume = library_mesh(kinds, quadratic)
    cases = [mesh, serendipity(mesh)] if quadratic else [mesh]
    for case in cases:
        path = str(tmp_path / f"out.{extension}")
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")  # PY14 is written as PY13: VTK has no 14-node pyramid
            mio.write(path, case)
        grid = vtk_read(path)
        states = validity(grid)
        types = vtk_to_numpy(grid.GetCellTypesArray())
        assert (states == 0).all(), f"VTK rejects cell types {sorted(set(types[states != 0]))}"
        if quadratic:
            continue  # vtkCellSizeFilter measures the quadratic cells by their corners only
        sizes = vtk.vtkCellSizeFilter()
        sizes.SetInputData(grid)
        sizes.Update()
        measured = vtk_to_numpy(sizes.GetOutput().GetCellData().GetArray("Volume"))
        assert measured.sum() == pytest.approx(volume, rel=1e-9)


# ---- Gmsh ---------------------------------------------------------------------------------

pytest.importorskip("gmsh", reason="Gmsh's Python module (Debian python3-gmsh) is not installed")


def run_gmsh(code):
    """Runs `code` (functions of gmsh_tasks.py) in a Python of its own; its JSON output."""
    out = subprocess.run([sys.executable, "-c", f"import gmsh_tasks as g, json; print(json.dumps({code}))"],
                         cwd=HERE, check=True, capture_output=True, text=True)
    return json.loads(out.stdout.strip().splitlines()[-1])


@pytest.fixture(scope="module")
def gmsh_files(tmp_path_factory):
    folder = str(tmp_path_factory.mktemp("gmsh"))
    return {name: run_gmsh(f"g.write_mixed_mesh({folder!r}, {name!r})")
            for name in ("linear", "quadratic", "serendipity")}


@pytest.mark.parametrize("mesh_order", ["linear", "quadratic", "serendipity"])
def test_files_gmsh_wrote_read_positive_and_equal(tmp_path, gmsh_files, mesh_order):
    files = gmsh_files[mesh_order]
    reference = mio.read(files["msh41"])
    kinds = {"linear": {"TH4", "PY5", "W6", "H8"}, "quadratic": {"TH10", "PY14", "W18", "H27"},
             "serendipity": {"TH10", "PY13", "W15", "H20"}}[mesh_order]
    assert set(solids_of(reference)) == kinds
    volumes = signed_volumes(reference)
    assert all((v > 0).all() for v in volumes.values())
    assert sum(v.sum() for v in volumes.values()) == pytest.approx(2.8)
    assert_nodes_where_the_library_puts_them(reference)
    # VTK's copy of Gmsh's .vtk, written by VTK as .vtu (without the quadratic pyramids,
    # which Gmsh's .vtk writer labels as linear ones)
    vtu = str(tmp_path / "from_gmsh.vtu")
    vtk_write(cells_of_the_right_size(vtk_read(files["vtk"])), vtu)
    for key, path in list(files.items()) + [("vtu", vtu)]:
        if key == "inp" and mesh_order == "quadratic":
            # Gmsh writes its 18-node wedges under the 6-node keyword: refused, with the count
            with pytest.raises(mio.FileError, match=r"C3D6 with 18 nodes: \d+"):
                mio.read(path)
            continue
        if key == "vtk" and mesh_order != "linear":
            with pytest.raises(mio.FileError, match=r"VTK type 14 has 1[34] nodes instead of 5"):
                mio.read(path)
            continue
        mesh = mio.read(path)
        if key == "msh22":  # read by meshio, the .msh 4.1 file by this package's text reader
            assert {g: {t: v.tolist() for t, v in per.items()} for g, per in mesh.groups.items()} == \
                {g: {t: v.tolist() for t, v in per.items()} for g, per in reference.groups.items()}
            assert set(reference.groups) == {"solid", "floor"}
        got = signed_volumes(mesh)
        for t, v in volumes.items():
            if key in ("inp", "vtu") and t.startswith("PY"):
                continue  # left out by Gmsh's .inp writer and above
            np.testing.assert_allclose(np.sort(got[t]), np.sort(v), rtol=1e-9, err_msg=f"{key} {t}")


def cells_of_the_right_size(grid):
    sizes = {vtk.VTK_PYRAMID: 5}
    keep = vtk.vtkIdList()
    for i in range(grid.GetNumberOfCells()):
        if sizes.get(grid.GetCellType(i), grid.GetCell(i).GetNumberOfPoints()) == grid.GetCell(i).GetNumberOfPoints():
            keep.InsertNextId(i)
    extract = vtk.vtkExtractCells()
    extract.SetInputData(grid)
    extract.SetCellList(keep)
    extract.Update()
    return extract.GetOutput()


def test_what_we_write_has_positive_gmsh_jacobians(tmp_path):
    paths = []
    for kinds, quadratic in WRITTEN[:2]:  # each kind fills a box of volume 3
        mesh, _ = library_mesh(kinds, quadratic)
        for i, case in enumerate([mesh, serendipity(mesh)] if quadratic else [mesh]):
            for extension in ("msh",):  # Gmsh's reader of legacy .vtk files overflows on binary ones
                path = str(tmp_path / f"{'q' if quadratic else 'l'}{i}.{extension}")
                with warnings.catch_warnings():
                    warnings.simplefilter("ignore")
                    mio.write(path, case)
                paths.append(path)
    measured = run_gmsh(f"g.jacobians({paths!r})")
    for path, found in zip(paths, measured):
        assert set(found) == {"Tetrahedron", "Pyramid", "Prism", "Hexahedron"}, path
        for family, (smallest, total) in found.items():
            assert smallest > 0, f"Gmsh finds an inverted {family} in {os.path.basename(path)}"
            if family != "Pyramid":  # Gmsh's pyramid rules integrate over a collapsed cube
                assert total == pytest.approx(3.0, rel=1e-6), f"{family} in {os.path.basename(path)}"
