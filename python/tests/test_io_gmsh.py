"""The node orders proven by Gmsh: meshes that Gmsh builds and writes itself read back with
positive volumes, and their quadratic nodes lie where the library's own conversion puts
them (so Gmsh's and the library's orders are matched for every solid type)."""

import os
import subprocess
import sys

import numpy as np
import pytest

import tessel3d as t3
from tessel3d import io as mio

gmsh = pytest.importorskip("gmsh", reason="Gmsh's Python module (Debian python3-gmsh) is not installed")

CORNERS = {"TH10": 4, "PY13": 5, "PY14": 5, "W15": 6, "W18": 6, "H20": 8, "H27": 8}


def gmsh_mesh(path, kind, incomplete=False, version=4.1):
    """A unit box meshed by Gmsh with second-order elements: tetrahedra with pyramids under
    one quadrangle face ("tet"), hexahedra ("hex") or prisms ("prism"). Each mesh is made
    in a process of its own: Gmsh keeps state across initialize() calls."""
    code = f"import test_io_gmsh as t; t.generate({path!r}, {kind!r}, {incomplete!r}, {version!r})"
    subprocess.run([sys.executable, "-c", code], cwd=os.path.dirname(os.path.abspath(__file__)), check=True)


def generate(path, kind, incomplete, version):
    gmsh.initialize()
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        gmsh.model.add(kind)
        if kind == "prism":
            gmsh.model.occ.addRectangle(0, 0, 0, 1, 1)
            gmsh.model.occ.extrude([(2, 1)], 0, 0, 1, numElements=[3], recombine=True)
        else:
            gmsh.model.occ.addBox(0, 0, 0, 1, 1, 1)
        gmsh.model.occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.4)
        if kind == "hex":
            for dim, tag in gmsh.model.getEntities(1):
                gmsh.model.mesh.setTransfiniteCurve(tag, 3)
            for dim, tag in gmsh.model.getEntities(2):
                gmsh.model.mesh.setTransfiniteSurface(tag)
                gmsh.model.mesh.setRecombine(2, tag)
            gmsh.model.mesh.setTransfiniteVolume(1)
        elif kind == "tet":
            gmsh.model.mesh.setRecombine(2, 1)
        gmsh.option.setNumber("Mesh.SecondOrderIncomplete", 1 if incomplete else 0)
        gmsh.model.mesh.generate(3)
        gmsh.model.mesh.setOrder(2)
        gmsh.option.setNumber("Mesh.MshFileVersion", version)
        gmsh.option.setNumber("Mesh.SaveAll", 1)
        gmsh.write(path)
    finally:
        gmsh.finalize()


CASES = [("tet", False, 4.1), ("tet", True, 2.2), ("hex", False, 4.1), ("hex", True, 2.2), ("prism", False, 2.2),
         ("prism", True, 4.1)]


@pytest.mark.parametrize("kind, incomplete, version", CASES, ids=[f"{k}-{'serendipity' if i else 'full'}-{v}"
                                                                   for k, i, v in CASES])
def test_gmsh_mesh_reads_back_positive_and_matches_the_library(tmp_path, kind, incomplete, version):
    path = str(tmp_path / f"{kind}.msh")
    gmsh_mesh(path, kind, incomplete, version)
    mesh = mio.read(path)
    solids = {t: c for t, c in mesh.cells.items() if t in CORNERS}
    assert solids, f"Gmsh wrote no quadratic solid: {mesh}"
    if kind == "tet":
        assert set(solids) == ({"TH10", "PY13"} if incomplete else {"TH10", "PY14"})
    corners = [c[:, :CORNERS[t]] for t, c in solids.items()]
    linear = t3.mixed(corners)
    volumes = t3.element_volumes(mesh.coords, linear)
    assert (volumes > 0).all()
    assert volumes.sum() == pytest.approx(1.0)
    # the library's own quadratic nodes of the same elements lie where Gmsh put its nodes
    quadratic = t3.convert_into_quadratic(mesh.coords, linear)
    start = 0
    for t, cells in solids.items():
        ours = quadratic.coords[quadratic.connect[start:start + len(cells), :cells.shape[1]]]
        np.testing.assert_allclose(ours, mesh.coords[cells], atol=1e-12, err_msg=t)
        start += len(cells)


def test_gmsh_boundary_faces_have_their_mid_nodes_in_the_library_order(tmp_path):
    path = str(tmp_path / "tet.msh")
    gmsh_mesh(path, "tet")
    mesh = mio.read(path)
    x = mesh.coords
    t6 = mesh.cells["T6"]  # mid-side nodes opposite corners 0, 1, 2
    for row, (a, b) in zip((3, 4, 5), ((1, 2), (2, 0), (0, 1))):
        np.testing.assert_allclose(x[t6[:, row]], (x[t6[:, a]] + x[t6[:, b]]) / 2, atol=1e-12)
    q9 = mesh.cells["Q9"]
    np.testing.assert_allclose(x[q9[:, 8]], x[q9[:, :4]].mean(axis=1), atol=1e-12)
