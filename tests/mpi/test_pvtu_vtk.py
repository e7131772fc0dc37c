"""VTK judges the partitioned files (python3-vtk9, Gmsh's Python module for the mesh):

- every element type written by write_pvtu over 3 ranks reads through VTK's own parallel
  reader, passes vtkCellValidator, has the sign of volume (vtkCellSizeFilter) of VTK's
  own cell of its type, and holds the same cells (as tuples of node positions) and distinct points as the mesh
  written by one rank;
- a Gmsh mesh with holes, split into pieces by VTK and written by VTK's parallel writer in
  each of its modes (its default: appended base64 zlib), is read by read_pvtu on 2 or 3
  ranks and written back; VTK reads that back as the same cells, global IDs and arrays.

Run by CTest (mpi.pvtu_vtk) with TESSEL3D_PVTU_TOOL naming the MPI build's
tessel3d_pvtu_tool; skipped without it.
"""

import os
import subprocess

import numpy as np
import pytest

TOOL = os.environ.get("TESSEL3D_PVTU_TOOL")
pytestmark = pytest.mark.skipif(not TOOL, reason="needs TESSEL3D_PVTU_TOOL (the MPI build's tessel3d_pvtu_tool)")
MPIEXEC = os.environ.get("TESSEL3D_MPIEXEC") or "mpirun"
MPIEXEC_FLAGS = os.environ.get("TESSEL3D_MPIEXEC_FLAGS", "--allow-run-as-root --oversubscribe").split()

vtk_xml = pytest.importorskip("vtkmodules.vtkIOXML")
from vtkmodules.util.numpy_support import numpy_to_vtk, numpy_to_vtkIdTypeArray, vtk_to_numpy  # noqa: E402

TYPES = ["T3", "T6", "Q4", "Q8", "Q9", "TH4", "TH10", "PY5", "PY13", "W6", "W15", "W18", "H8", "H20", "H27",
         "SOLID_MIX8"]
SURFACES = {"T3", "T6", "Q4", "Q8", "Q9"}


def run(ranks, *args):
    result = subprocess.run([MPIEXEC, "-n", str(ranks), *MPIEXEC_FLAGS, TOOL, *map(str, args)],
                            capture_output=True, text=True, timeout=240)
    assert result.returncode == 0, result.stderr


def read(path):
    from vtkmodules.vtkIOXML import vtkXMLPUnstructuredGridReader
    reader = vtkXMLPUnstructuredGridReader()
    reader.SetFileName(str(path))
    reader.Update()
    assert reader.GetErrorCode() == 0
    return reader.GetOutput()


def cells(grid):
    """Sorted (VTK type, node positions) of every cell."""
    points = vtk_to_numpy(grid.GetPoints().GetData()).astype(np.float64)
    offsets = vtk_to_numpy(grid.GetCells().GetOffsetsArray())
    connectivity = vtk_to_numpy(grid.GetCells().GetConnectivityArray())
    types = vtk_to_numpy(grid.GetCellTypesArray())
    return sorted((int(t), points[connectivity[a:b]].round(12).tobytes())
                  for t, a, b in zip(types, offsets[:-1], offsets[1:]))


def array(data, name):
    found = data.GetArray(name)
    assert found is not None, name
    return vtk_to_numpy(found)


def validity(grid):
    from vtkmodules.vtkFiltersGeneral import vtkCellValidator
    validator = vtkCellValidator()
    validator.SetInputData(grid)
    validator.Update()
    return vtk_to_numpy(validator.GetOutput().GetCellData().GetArray("ValidityState"))


def signed_volumes(grid):
    from vtkmodules.vtkFiltersVerdict import vtkCellSizeFilter
    sizes = vtkCellSizeFilter()
    sizes.SetInputData(grid)
    sizes.Update()
    return vtk_to_numpy(sizes.GetOutput().GetCellData().GetArray("Volume"))


def reference_signs():
    """{VTK solid type: the sign vtkCellSizeFilter gives VTK's own cell of that type on its
    parametric coordinates, or their mirror image where the validator refuses those}.
    The validator checks the orientation of every solid but the linear tetrahedron, and
    the filter's sign is not the same for every type (the quadratic wedge's is reversed;
    the triquadratic hexahedron's is 0), so each type is judged by VTK's own cell."""
    from vtkmodules import vtkCommonDataModel as model
    from vtkmodules.vtkCommonCore import vtkPoints
    classes = {10: "vtkTetra", 24: "vtkQuadraticTetra", 14: "vtkPyramid", 27: "vtkQuadraticPyramid", 13: "vtkWedge",
               26: "vtkQuadraticWedge", 32: "vtkBiQuadraticQuadraticWedge", 12: "vtkHexahedron",
               25: "vtkQuadraticHexahedron", 29: "vtkTriQuadraticHexahedron"}
    signs = {}
    for vtk_type, name in classes.items():
        cell = getattr(model, name)()
        corners = np.array(cell.GetParametricCoords()).reshape(-1, 3)
        for mirror in (1, -1):
            grid, points = model.vtkUnstructuredGrid(), vtkPoints()
            for x, y, z in corners:
                points.InsertNextPoint(mirror * x, y, z)
            grid.SetPoints(points)
            grid.InsertNextCell(vtk_type, len(corners), list(range(len(corners))))
            if validity(grid)[0] == 0:
                signs[vtk_type] = np.sign(signed_volumes(grid)[0])
                break
    return signs


def test_every_type_written_over_three_ranks_is_valid_and_whole_for_vtk(tmp_path):
    (tmp_path / "one").mkdir()
    (tmp_path / "three").mkdir()
    run(1, "types", tmp_path / "one")
    run(3, "types", tmp_path / "three")
    signs = reference_signs()
    for name in TYPES:
        serial, parted = read(tmp_path / "one" / f"{name}.pvtu"), read(tmp_path / "three" / f"{name}.pvtu")
        assert parted.GetNumberOfCells() == serial.GetNumberOfCells() > 0, name
        states = validity(parted)
        assert (states == 0).all(), (name, np.unique(states))
        if name not in SURFACES:
            expected = np.array([signs[t] for t in vtk_to_numpy(parted.GetCellTypesArray())])
            volumes = signed_volumes(parted)
            assert ((expected == 0) | (np.sign(volumes) == expected)).all(), name
        assert cells(parted) == cells(serial), name
        ids = array(parted.GetPointData(), "GlobalNodeID")
        assert len(np.unique(ids)) == serial.GetNumberOfPoints(), name
        assert sorted(array(parted.GetCellData(), "GlobalElementID")) == list(range(serial.GetNumberOfCells()))


@pytest.fixture(scope="module")
def mesh_with_holes(tmp_path_factory):
    """A Gmsh mesh of a block with two cylindrical holes and a thin slot, quadratic,
    as Gmsh writes it (tetrahedra, their boundary triangles, lines and points), with
    global IDs and arrays of several types added."""
    gmsh = pytest.importorskip("gmsh")
    from vtkmodules.vtkIOLegacy import vtkUnstructuredGridReader
    path = tmp_path_factory.mktemp("holes") / "holes.vtk"
    gmsh.initialize(["-noenv"])
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        occ = gmsh.model.occ
        block = occ.addBox(0, 0, 0, 2, 1, 0.6)
        holes = [(3, occ.addCylinder(x, 0.5, -0.1, 0, 0, 0.8, 0.2)) for x in (0.5, 1.4)]
        slot = (3, occ.addBox(0.9, -0.1, 0.2, 0.04, 0.7, 0.2))
        occ.cut([(3, block)], holes + [slot])
        occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.15)
        gmsh.model.mesh.generate(3)
        gmsh.model.mesh.setOrder(2)
        gmsh.write(str(path))
    finally:
        gmsh.finalize()
    reader = vtkUnstructuredGridReader()
    reader.SetFileName(str(path))
    reader.Update()
    grid = reader.GetOutput()
    points = vtk_to_numpy(grid.GetPoints().GetData()).astype(np.float64)
    n, m = grid.GetNumberOfPoints(), grid.GetNumberOfCells()
    node_ids = numpy_to_vtkIdTypeArray(np.arange(n, dtype=np.int64) * 7 + 3, deep=True)
    node_ids.SetName("GlobalNodeID")
    grid.GetPointData().AddArray(node_ids)  # VTK's piece filter drops arrays marked as global IDs
    element_ids = numpy_to_vtkIdTypeArray(np.arange(m, dtype=np.int64), deep=True)
    element_ids.SetName("GlobalElementID")
    grid.GetCellData().AddArray(element_ids)
    for name, values in (("displacement", np.sin(points)), ("temperature", points[:, 0].astype(np.float32))):
        values = numpy_to_vtk(np.ascontiguousarray(values), deep=True)
        values.SetName(name)
        grid.GetPointData().AddArray(values)
    region = numpy_to_vtk(np.arange(m, dtype=np.int32) % 5 - 2, deep=True)
    region.SetName("region")
    grid.GetCellData().AddArray(region)
    types = set(vtk_to_numpy(grid.GetCellTypesArray()).tolist())
    assert {24, 22}.issubset(types)  # quadratic tetrahedra and triangles
    return grid


WRITER_MODES = {
    "default": lambda w: None,  # appended, base64, zlib, 64-bit headers
    "raw": lambda w: (w.SetEncodeAppendedData(0), w.SetCompressorTypeToNone()),
    "inline": lambda w: w.SetDataModeToBinary(),
    "ascii": lambda w: w.SetDataModeToAscii(),
    "uint32-bigendian": lambda w: (w.SetHeaderTypeToUInt32(), w.SetByteOrderToBigEndian(), w.SetEncodeAppendedData(0)),
}


@pytest.mark.parametrize("mode,pieces,ranks", [("default", 3, 2), ("default", 2, 3), ("raw", 4, 3), ("inline", 3, 2),
                                               ("ascii", 2, 2), ("uint32-bigendian", 3, 3)])
def test_what_vtk_writes_in_pieces_reads_and_writes_back_whole(mesh_with_holes, tmp_path, mode, pieces, ranks):
    from vtkmodules.vtkFiltersParallel import vtkExtractUnstructuredGridPiece
    from vtkmodules.vtkIOParallelXML import vtkXMLPUnstructuredGridWriter
    grid = mesh_with_holes
    split = vtkExtractUnstructuredGridPiece()
    split.SetInputData(grid)
    writer = vtkXMLPUnstructuredGridWriter()
    writer.SetInputConnection(split.GetOutputPort())
    writer.SetFileName(str(tmp_path / "vtk.pvtu"))
    writer.SetNumberOfPieces(pieces)
    writer.SetStartPiece(0)
    writer.SetEndPiece(pieces - 1)
    WRITER_MODES[mode](writer)
    assert writer.Write() == 1
    run(ranks, "copy", tmp_path / "vtk.pvtu", tmp_path / "ours.pvtu")
    # What VTK reads from its own files (points as its piece filter made them) is the reference.
    theirs, ours = read(tmp_path / "vtk.pvtu"), read(tmp_path / "ours.pvtu")
    assert cells(ours) == cells(theirs)
    their_ids = array(theirs.GetPointData(), "GlobalNodeID")
    first = {node_id: k for k, node_id in reversed(list(enumerate(their_ids.tolist())))}
    node_ids = array(ours.GetPointData(), "GlobalNodeID")
    assert len(np.unique(node_ids)) == grid.GetNumberOfPoints()
    same = np.array([first[node_id] for node_id in node_ids.tolist()])
    assert (vtk_to_numpy(ours.GetPoints().GetData()) == vtk_to_numpy(theirs.GetPoints().GetData())[same]).all()
    for name in ("displacement", "temperature"):
        assert (array(ours.GetPointData(), name) == array(theirs.GetPointData(), name)[same]).all(), name
    element_ids = array(ours.GetCellData(), "GlobalElementID")
    assert sorted(element_ids) == list(range(grid.GetNumberOfCells()))
    assert (array(ours.GetCellData(), "region") == array(grid.GetCellData(), "region")[element_ids]).all()
