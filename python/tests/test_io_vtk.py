"""The node orders proven by VTK: quadratic meshes converted by the library, written to
.vtu, read by VTK's own reader; every VTK edge's mid node must sit between its ends,
every face centre at its face's centre, and the volumes of VTK's cells, integrated with
VTK's own interpolation of each cell, must equal the library's."""

import warnings

import numpy as np
import pytest
from conftest import box

import tessel3d as t3
from tessel3d import io as mio

vtk = pytest.importorskip("vtk", reason="VTK's Python module (Debian python3-vtk9) is not installed")
from vtk.util.numpy_support import vtk_to_numpy  # noqa: E402


def read_with_vtk(path):
    reader = vtk.vtkXMLUnstructuredGridReader()
    reader.SetFileName(path)
    reader.Update()
    return reader.GetOutput()


def vtk_volumes(grid):
    sizes = vtk.vtkCellSizeFilter()
    sizes.SetInputData(grid)
    sizes.ComputeVolumeOn()
    sizes.Update()
    return vtk_to_numpy(sizes.GetOutput().GetCellData().GetArray("Volume"))


GAUSS, WEIGHTS = np.polynomial.legendre.leggauss(4)
GAUSS, WEIGHTS = (GAUSS + 1) / 2, WEIGHTS / 2  # on [0, 1]


def integrated_volume(cell):
    """The signed volume of a VTK cell: the determinant of the Jacobian of VTK's own
    parametric map (EvaluateLocation, central differences) integrated by Gauss points
    over the unit cube, collapsed onto the wedge's and the tetrahedron's domains."""
    n = cell.GetNumberOfPoints()
    kind = {10: "tet", 24: "tet", 13: "wedge", 26: "wedge", 32: "wedge"}.get(cell.GetCellType(), "cube")

    def location(r, s, t):
        x, w = [0.0] * 3, [0.0] * n
        cell.EvaluateLocation(vtk.mutable(0), (r, s, t), x, w)
        return np.array(x)

    def mapped(u, v, w):  # cube -> cell domain, and the factor of that change
        if kind == "tet":
            return (u, v * (1 - u), w * (1 - u) * (1 - v)), (1 - u) ** 2 * (1 - v)
        if kind == "wedge":
            return (u, v * (1 - u), w), (1 - u)
        return (u, v, w), 1.0

    h, total = 1e-6, 0.0
    for u, wu in zip(GAUSS, WEIGHTS):
        for v, wv in zip(GAUSS, WEIGHTS):
            for w, ww in zip(GAUSS, WEIGHTS):
                p, factor = mapped(u, v, w)
                jac = np.empty((3, 3))
                for d in range(3):
                    a, b = list(p), list(p)
                    a[d] += h
                    b[d] -= h
                    jac[:, d] = (location(*a) - location(*b)) / (2 * h)
                total += wu * wv * ww * factor * np.linalg.det(jac)
    return total


# VTK orders a wedge's base against its parametric axes: the map of a wedge that VTK
# measures positive (vtkCellSizeFilter, test below) has a negative Jacobian.
PARAMETRIC_SIGN = {13: -1, 26: -1, 32: -1}


def check_cell_geometry(grid):
    """Mid-edge nodes at the middle of their edges, face and cell centres at the mean of
    their corners, as VTK numbers them."""
    points = vtk_to_numpy(grid.GetPoints().GetData())
    corners_of = {24: 4, 25: 8, 26: 6, 27: 5, 29: 8, 32: 6, 10: 4, 12: 8, 13: 6, 14: 5}
    for i in range(grid.GetNumberOfCells()):
        cell = grid.GetCell(i)
        for e in range(cell.GetNumberOfEdges()):
            edge = cell.GetEdge(e)
            ids = [edge.GetPointId(k) for k in range(edge.GetNumberOfPoints())]
            if len(ids) == 3:
                np.testing.assert_allclose(points[ids[2]], points[ids[:2]].mean(axis=0), atol=1e-12)
        for f in range(cell.GetNumberOfFaces()):
            face = cell.GetFace(f)
            ids = [face.GetPointId(k) for k in range(face.GetNumberOfPoints())]
            if len(ids) == 9:  # biquadratic quadrangle: the last node is its centre
                np.testing.assert_allclose(points[ids[8]], points[ids[:4]].mean(axis=0), atol=1e-12)
        if cell.GetCellType() == vtk.VTK_TRIQUADRATIC_HEXAHEDRON:
            ids = [cell.GetPointId(k) for k in range(27)]
            np.testing.assert_allclose(points[ids[26]], points[ids[:8]].mean(axis=0), atol=1e-12)
        n = corners_of[cell.GetCellType()]
        assert cell.GetNumberOfPoints() >= n


@pytest.mark.parametrize("kinds", [["TH4"], ["W6"], ["H8"], ["TH4", "W6", "H8"], ["PY5", "H8"]],
                         ids=lambda k: "+".join(k))
def test_quadratic_mesh_in_vtk_matches_the_library(tmp_path, kinds):
    coords = None
    blocks = []
    for k in kinds:
        c, connect = box(k, (2, 2, 1), size=(2.0, 1.5, 1.0), jitter=0.15, seed=4)
        if coords is None:
            coords = c
        elif len(c) > len(coords):  # the pyramids' centre nodes follow the shared grid nodes
            coords = c
        blocks.append(connect)
    linear = blocks[0] if len(blocks) == 1 and kinds[0] != "PY5" else t3.mixed(blocks)
    quadratic = t3.convert_into_quadratic(coords, linear)
    kind = {10: "TH10", 18: "W18"}.get(quadratic.connect.shape[1],
                                      "SOLID_MIX27" if (quadratic.connect == t3.ABSENT).any() else "H27")
    path = str(tmp_path / "quadratic.vtu")
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # PY14 is written as PY13: VTK has no 14-node pyramid
        mio.write(path, mio.Mesh(quadratic.coords, {kind: quadratic.connect}))
    grid = read_with_vtk(path)
    np.testing.assert_allclose(vtk_to_numpy(grid.GetPoints().GetData()), quadratic.coords)
    check_cell_geometry(grid)
    # VTK's cells come in the order the file lists them: the members of a mixed layout
    # by kind, each in the library's order
    order = np.concatenate([index for _, index, _ in mio.split_mixed(kind, quadratic.connect)])
    expected = t3.element_volumes(coords, linear)[order]
    volumes = np.array([integrated_volume(grid.GetCell(i)) * PARAMETRIC_SIGN.get(grid.GetCellType(i), 1)
                        for i in range(grid.GetNumberOfCells())])
    np.testing.assert_allclose(volumes, expected, rtol=1e-6)
    assert (volumes > 0).all()


@pytest.mark.parametrize("kind", ["TH4", "PY5", "W6", "H8"])
def test_linear_cells_in_vtk_have_the_library_volume(tmp_path, kind):
    coords, connect = box(kind, (2, 1, 1), jitter=0.1)
    path = str(tmp_path / "linear.vtu")
    mio.write(path, mio.Mesh(coords, {kind: connect}))
    grid = read_with_vtk(path)
    expected = t3.element_volumes(coords, connect)
    np.testing.assert_allclose(vtk_volumes(grid), expected, rtol=1e-9)
    integrated = [integrated_volume(grid.GetCell(i)) * PARAMETRIC_SIGN.get(grid.GetCellType(i), 1)
                  for i in range(grid.GetNumberOfCells())]
    np.testing.assert_allclose(integrated, expected, rtol=1e-6)


def test_serendipity_wedge_and_hexahedron_in_vtk(tmp_path):
    """W15 and H20 (the corners and edge nodes of W18 and H27) measured by VTK's filter."""
    for kind, columns, serendipity in (("W6", 18, "W15"), ("H8", 27, "H20")):
        coords, connect = box(kind, (2, 1, 1), jitter=0.1)
        quadratic = t3.convert_into_quadratic(coords, connect)
        path = str(tmp_path / f"{serendipity}.vtu")
        mio.write(path, mio.Mesh(quadratic.coords, {serendipity: quadratic.connect[:, :len(mio.LIBRARY_ORDERS[serendipity])]}))
        grid = read_with_vtk(path)
        check_cell_geometry(grid)
        np.testing.assert_allclose(vtk_volumes(grid), t3.element_volumes(coords, connect), rtol=1e-9)
