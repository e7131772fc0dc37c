"""`mpirun -np N python3 -m tessel3d COMMAND in out.pvtu` on N = 1 .. 4 ranks against the
one-machine command: the partitioned file, read back by VTK's own reader, must hold the
same mesh as the serial command's .vtu (node positions, and every cell as its type with
the positions of its nodes in order, and the point data "x" at each position), on Gmsh
meshes: a block with a blind hole whose METIS parts meet at nodes shared by 3 or more ranks
(conversions, split, interpolation source), a disc with a hole (extrusions), a box partly
outside the block (interpolation target) and a block cut inside by a rectangle (crack: the
solids, since faces stay with one rank). Also: a .pvtu input read by every rank, the cell
data and groups following their elements, and a failure giving one line and status 2 on
every rank.
Skipped without the MPI build (tessel3d._native_mpi), mpi4py, mpirun, Gmsh or VTK."""

import shutil
import subprocess
import sys
from collections import Counter

import numpy as np
import pytest

pytest.importorskip("mpi4py")
pytest.importorskip("tessel3d._native_mpi")
gmsh = pytest.importorskip("gmsh")
vtk = pytest.importorskip("vtk")
from vtk.util.numpy_support import vtk_to_numpy  # noqa: E402

import tessel3d.io as tio  # noqa: E402

MPIRUN = shutil.which("mpirun")
pytestmark = pytest.mark.skipif(MPIRUN is None, reason="needs mpirun")


# name: (command, input, options); "linear" reads what "quadratic" wrote
CASES = {"quadratic": ("quadratic", "holes.vtu", ()), "hexsplit": ("hexsplit", "holes.vtu", ()),
         "linear": ("linear", "quadratic.vtu", ()),
         "translate": ("extrude", "disc.vtu", ("--translate", "0", "0", "0.5", "--sizes", "0.1", "0.2")),
         "rotate": ("extrude", "disc.vtu", ("--rotate", "0", "-2", "0", "1", "0", "0", "--layers", "3")),
         "interpolate": ("interpolate", "holes.vtu", ("target.vtu",)),
         "crack": ("crack", "cut.vtu", ("--group", "cut", "--side", "both")),
         "front": ("crack", "cut.vtu", ("--group", "cut", "--keep-front"))}


SOLID_CELLS = {vtk.VTK_TETRA, vtk.VTK_PYRAMID, vtk.VTK_WEDGE, vtk.VTK_HEXAHEDRON}


def run(ranks, *args):
    command = [sys.executable, "-m", "tessel3d", *map(str, args)]
    if ranks:
        command = [MPIRUN, "-n", str(ranks), "--allow-run-as-root", "--oversubscribe", *command]
    return subprocess.run(command, capture_output=True, text=True, timeout=300)


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    """A block with a blind cylindrical hole (Gmsh, in a physical group) as .vtu with point
    data, and the serial results of each command."""
    where = tmp_path_factory.mktemp("mpi_cli")
    gmsh.initialize(["-noenv"])
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        occ = gmsh.model.occ
        block = occ.addBox(0, 0, 0, 1.2, 1, 1)
        occ.cut([(3, block)], [(3, occ.addCylinder(0.6, 0.5, -0.1, 0, 0, 0.6, 0.2))])
        occ.synchronize()
        gmsh.model.setPhysicalName(3, gmsh.model.addPhysicalGroup(3, [1]), "body")
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.25)
        gmsh.model.mesh.generate(3)
        gmsh.write(str(where / "holes.msh"))
        gmsh.model.remove()  # the target of the interpolation: partly outside the block, across its hole
        occ.addBox(0.1, 0.2, 0.3, 1.4, 0.6, 0.9)
        occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.3)
        gmsh.model.mesh.generate(3)
        gmsh.write(str(where / "target.msh"))
        gmsh.model.remove()  # a block cut inside by a rectangle (the group "cut") for the crack
        box = occ.addBox(0, 0, 0, 1.2, 1, 1)
        cut = occ.addRectangle(0.2, 0.2, 0.5, 0.8, 0.6)
        occ.fragment([(3, box)], [(2, cut)])
        occ.synchronize()
        gmsh.model.setPhysicalName(3, gmsh.model.addPhysicalGroup(3, [1]), "body")
        gmsh.model.setPhysicalName(2, gmsh.model.addPhysicalGroup(2, [cut]), "cut")
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.25)
        gmsh.model.mesh.generate(3)
        gmsh.write(str(where / "cut.msh"))
        gmsh.model.remove()
        disc = occ.addDisk(0, 0, 0, 1, 0.7)
        occ.cut([(2, disc)], [(2, occ.addDisk(0.3, 0, 0, 0.25, 0.25))])
        occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.15)
        gmsh.model.mesh.generate(2)
        gmsh.write(str(where / "disc.msh"))
    finally:
        gmsh.finalize()
    surface = tio.read(str(where / "disc.msh"))
    surface.cells = {"T3": surface.cells["T3"]}
    surface.point_data["x"] = surface.coords[:, 0].copy()
    surface.cell_data["tag"] = {"T3": np.arange(len(surface.cells["T3"]), dtype=np.int64)}
    surface.groups = {"body": {"T3": np.arange(len(surface.cells["T3"]))}}
    tio.write(str(where / "disc.vtu"), surface)
    target = tio.read(str(where / "target.msh"))
    tio.write(str(where / "target.vtu"), tio.Mesh(target.coords, {"TH4": target.cells["TH4"]}))
    cut = tio.read(str(where / "cut.msh"))
    cut.point_data["x"] = cut.coords[:, 0].copy()
    tio.write(str(where / "cut.vtu"), cut)
    mesh = tio.read(str(where / "holes.msh"))
    mesh.point_data["x"] = mesh.coords[:, 0].copy()
    mesh.cell_data["tag"] = {"TH4": np.arange(len(mesh.cells["TH4"]), dtype=np.int64)}
    tio.write(str(where / "holes.vtu"), mesh)
    for name, (command, source, extra) in CASES.items():
        done = run(0, command, where / source, *(where / e for e in extra[:1] if e.endswith(".vtu")),
                   where / f"{name}.vtu", *(e for e in extra if not e.endswith(".vtu")))
        assert done.returncode == 0, done.stderr
    return where


def read_vtk(path):
    """(points, [(cell type, positions in order)], {cell array: values}) through VTK."""
    reader = vtk.vtkXMLPUnstructuredGridReader() if str(path).endswith(".pvtu") else vtk.vtkXMLUnstructuredGridReader()
    reader.SetFileName(str(path))
    reader.Update()
    grid = reader.GetOutput()
    points = vtk_to_numpy(grid.GetPoints().GetData()).astype(np.float64)
    offsets = vtk_to_numpy(grid.GetCells().GetOffsetsArray())
    nodes = vtk_to_numpy(grid.GetCells().GetConnectivityArray())
    types = vtk_to_numpy(grid.GetCellTypesArray())
    cells = [(int(t), tuple(map(tuple, points[nodes[a:b]]))) for t, a, b in zip(types, offsets[:-1], offsets[1:])]
    data = grid.GetCellData()
    arrays = {data.GetArrayName(i): vtk_to_numpy(data.GetArray(i)) for i in range(data.GetNumberOfArrays())}
    return points, cells, arrays, vtk_to_numpy(grid.GetPointData().GetArray("x"))


def assert_same_mesh(parted, serial, solids_only=False):
    """solids_only: the solids and their nodes (faces are carried by one rank only)."""
    p_points, p_cells, _, p_values = read_vtk(parted)
    s_points, s_cells, _, s_values = read_vtk(serial)
    if solids_only:
        s_cells = [c for c in s_cells if c[0] in SOLID_CELLS]
        p_cells = [c for c in p_cells if c[0] in SOLID_CELLS]
        used = {p for _, cell in s_cells for p in cell}
        keep = [tuple(p) in used for p in s_points]
        s_points, s_values = s_points[keep], s_values[keep]
        keep = [tuple(p) in used for p in p_points]
        p_points, p_values = p_points[keep], p_values[keep]
    assert np.array_equal(np.unique(p_points, axis=0), np.unique(s_points, axis=0))
    assert Counter(p_cells) == Counter(s_cells)
    # the point data "x" at each position (a shared node read on two ranks may differ in the last bits)
    at = dict(zip(map(tuple, s_points), s_values))
    assert np.allclose(p_values, [at[tuple(p)] for p in p_points], rtol=1e-12, atol=1e-14)


def pieces_per_node(path, ranks):
    """The largest number of pieces holding one global node."""
    holders = Counter()
    for r in range(ranks):
        reader = vtk.vtkXMLUnstructuredGridReader()
        reader.SetFileName(str(path).replace(".pvtu", f"_{r}.vtu"))
        reader.Update()
        holders.update(set(vtk_to_numpy(reader.GetOutput().GetPointData().GetArray("GlobalNodeID")).tolist()))
    return max(holders.values())


@pytest.mark.parametrize("ranks", [1, 2, 3, 4])
@pytest.mark.parametrize("name", list(CASES))
def test_each_command_on_n_ranks_writes_the_serial_mesh(files, name, ranks):
    command, source, extra = CASES[name]
    out = files / f"{name}_{ranks}.pvtu"
    done = run(ranks, command, files / source, *(files / e for e in extra[:1] if e.endswith(".vtu")), out,
               *(e for e in extra if not e.endswith(".vtu")))
    assert done.returncode == 0, done.stderr
    assert_same_mesh(out, files / f"{name}.vtu", solids_only=command == "crack")
    if ranks >= 3 and source != "disc.vtu" and command != "interpolate":  # (slabs of faces; the coarse target)
        assert pieces_per_node(out, ranks) >= 3
    arrays = read_vtk(out)[2]
    serial = read_vtk(files / f"{name}.vtu")[2]
    # each element keeps its parent's cell data and groups (compared as multisets)
    if command == "crack":  # the solids alone: every one still in its group
        assert (arrays["group:body"] == 1).sum() == (serial["group:body"] == 1).sum()
        return
    for key in set(serial) - {"GlobalElementID"}:
        assert Counter(arrays[key].ravel().tolist()) == Counter(serial[key].ravel().tolist()), key


def test_a_partitioned_input_is_read_by_every_rank(files):
    parted = files / "from_pieces.pvtu"
    assert run(3, "quadratic", files / "holes.vtu", files / "q3.pvtu").returncode == 0
    done = run(2, "linear", files / "q3.pvtu", parted)  # 3 pieces on 2 ranks
    assert done.returncode == 0, done.stderr
    assert_same_mesh(parted, files / "linear.vtu")


@pytest.mark.parametrize("args", [("quadratic", "missing.vtu", "out.pvtu"), ("hexsplit", "quadratic.vtu", "out.pvtu"),
                                  ("flip", "holes.vtu", "out.pvtu")])
def test_a_failure_is_one_line_and_status_2_on_every_rank(files, args):
    done = run(3, args[0], *(files / a for a in args[1:]))
    assert done.returncode == 2
    said = [line for line in done.stderr.splitlines() if line.startswith("tessel3d")]
    assert len(said) == 1 and "error" in said[0], done.stderr


BINDINGS = """
import sys
import numpy as np
from mpi4py import MPI
import tessel3d, tessel3d.io as tio, tessel3d.mpi as tm
comm = MPI.COMM_WORLD
mesh = tio.read(sys.argv[1]) if comm.rank == 0 else None
part = tm.distribute(comm, mesh.coords if mesh else None, mesh.cells["TH4"] if mesh else None)
inside = part.coords[part.connect].mean(axis=1)  # element centres: a linear field is read exactly
sizes = tm.interpolate_metrics(comm, part, 1 + part.coords[:, 0], inside, np.zeros(len(inside)))
assert np.allclose(sizes, 1 + inside[:, 0], rtol=1e-13), "sizes"
field = tm.interpolate(comm, part, part.coords, inside)
assert np.allclose(field, inside, rtol=1e-13), "field"
seen = None
try:  # a bad part on one rank only: every rank raises the same error
    tm.split_into_h8(comm, part._replace(connect=part.connect[:, :3]) if comm.rank == 1 else part)
except tessel3d.Error as error:
    seen = f"{error.status} {error.argument}"
seen = comm.gather(seen)  # one print: the ranks' lines would interleave
if comm.rank == 0:
    print("statuses", seen)
"""


def test_the_bindings_agree_on_every_rank(files):
    (files / "bindings.py").write_text(BINDINGS)
    done = subprocess.run([MPIRUN, "-n", "3", "--allow-run-as-root", "--oversubscribe", sys.executable,
                           str(files / "bindings.py"), str(files / "holes.vtu")], capture_output=True, text=True,
                          timeout=300)
    assert done.returncode == 0, done.stderr
    assert "statuses ['-2 part', '-2 part', '-2 part']" in done.stdout, done.stdout


def test_several_ranks_on_unpartitioned_files_leave_the_work_to_rank_0(files):
    done = run(3, "quadratic", files / "holes.vtu", files / "alone.vtu")
    assert done.returncode == 0 and done.stdout.count("wrote") == 1, done.stdout + done.stderr
    assert_same_mesh(files / "alone.vtu", files / "quadratic.vtu")
