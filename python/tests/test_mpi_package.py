"""tessel3d.mpi and `mpirun python3 -m tessel3d info x.pvtu`, run under mpirun on 3 ranks:
a Gmsh mesh with holes spread by distribute, written with write_pvtu, read back with
read_pvtu and gathered must be the Gmsh mesh (positions and tetrahedra); a bad argument on
every rank raises the same error; info on the partitioned file says what info says of the
one-machine file. Skipped without the MPI build (tessel3d._native_mpi), mpi4py or mpirun."""

import shutil
import subprocess
import sys
import textwrap

import pytest

pytest.importorskip("mpi4py")
pytest.importorskip("tessel3d._native_mpi")
MPIRUN = shutil.which("mpirun")
pytestmark = pytest.mark.skipif(MPIRUN is None, reason="needs mpirun")

SCRIPT = textwrap.dedent("""
    import sys
    import numpy as np
    from mpi4py import MPI
    import tessel3d, tessel3d.mpi as tm
    comm, out = MPI.COMM_WORLD, sys.argv[1]
    coords = tets = None
    if comm.rank == 0:
        import gmsh
        gmsh.initialize(["-noenv"])
        gmsh.option.setNumber("General.Terminal", 0)
        occ = gmsh.model.occ
        block = occ.addBox(0, 0, 0, 2, 1, 0.6)
        occ.cut([(3, block)], [(3, occ.addCylinder(x, 0.5, -0.1, 0, 0, 0.8, 0.2)) for x in (0.5, 1.4)])
        occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.12)
        gmsh.model.mesh.generate(3)
        tags, xyz, _ = gmsh.model.mesh.getNodes()
        _, nodes = gmsh.model.mesh.getElementsByType(4)
        gmsh.finalize()
        index = np.zeros(int(tags.max()) + 1, np.int64)
        index[tags.astype(np.int64)] = np.arange(len(tags))
        coords = xyz.reshape(-1, 3)
        tets = index[nodes.astype(np.int64)].reshape(-1, 4)[:, [0, 2, 1, 3]]  # Gmsh's order -> the library's
    part = tm.distribute(comm, coords, tets)
    tm.write_pvtu(comm, out, part, "TH4", point_data={"x": part.coords[:, 0]})
    read = tm.read_pvtu(comm, out)
    assert read.type == tessel3d.ElementType.TH4 and np.array_equal(read.point_data["x"][:, 0], read.part.coords[:, 0])
    gathered = tm.gather(comm, read.part)
    if comm.rank == 0:
        used = np.unique(tets)
        assert np.array_equal(gathered[0], coords[used])
        assert np.array_equal(np.sort(used[gathered[1]], axis=None), np.sort(tets, axis=None))
        assert {tuple(t) for t in np.sort(used[gathered[1]], axis=1)} == {tuple(t) for t in np.sort(tets, axis=1)}
        assert tm.volume(comm, read.part) > 0
    else:
        assert gathered is None and tm.volume(comm, read.part) > 0
    try:
        tm.write_pvtu(comm, out, part, "PY14")
    except tessel3d.Error as error:
        assert error.status == -4 and error.argument == "type", error
    else:
        raise AssertionError("PY14 written")
    if comm.rank == 0:
        import tessel3d.io as tio
        mesh = tio.Mesh(coords[used], {"TH4": np.searchsorted(used, tets)})
        tio.write(out.replace(".pvtu", ".vtu"), mesh)
    done = comm.gather(comm.rank)  # one print: the ranks' lines would interleave
    if comm.rank == 0:
        print("done", *done)
""")


def mpirun(ranks, *args):
    return subprocess.run([MPIRUN, "-n", str(ranks), "--allow-run-as-root", "--oversubscribe", sys.executable, *args],
                          capture_output=True, text=True, timeout=300)


def test_a_gmsh_mesh_travels_through_distribute_files_and_gather_and_info_agrees(tmp_path):
    pytest.importorskip("gmsh")
    (tmp_path / "check.py").write_text(SCRIPT)
    result = mpirun(3, str(tmp_path / "check.py"), str(tmp_path / "holes.pvtu"))
    assert result.returncode == 0, result.stderr
    assert result.stdout.split() == "done 0 1 2".split(), result.stdout
    parted = mpirun(3, "-m", "tessel3d", "info", str(tmp_path / "holes.pvtu"))
    serial = subprocess.run([sys.executable, "-m", "tessel3d", "info", str(tmp_path / "holes.vtu")],
                            capture_output=True, text=True, timeout=300)
    assert parted.returncode == 0 and serial.returncode == 0, parted.stderr + serial.stderr
    # the same nodes, elements, bounding box and volume (the rest of the lines differ)
    said = [line.split(":", 1)[-1] for line in serial.stdout.splitlines() if "angles" not in line]
    for line in ("nodes", "TH4", "bounding box", "volume"):
        expected = [s for s in said if line in s]
        assert expected and any(expected[0] in p for p in parted.stdout.splitlines()), (line, parted.stdout)
