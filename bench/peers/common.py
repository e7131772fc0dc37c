"""Shared helpers of the side-by-side benchmark: the peers' packages, timing, NumPy
geometry and VTK grids built from NumPy arrays."""

import gc
import importlib
import pathlib
import subprocess
import sys
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Debian package of each module the benchmark imports.
PEER_PACKAGES = {"gmsh": "python3-gmsh", "vtkmodules": "python3-vtk9", "scipy": "python3-scipy",
                 "matplotlib": "python3-matplotlib"}


def ensure_peers():
    """Installs the Debian packages of the peers that cannot be imported (and the gmsh
    program), through the project's installer, which only installs what is missing."""
    missing = []
    for module, package in PEER_PACKAGES.items():
        try:
            importlib.import_module(module)
        except ImportError:
            missing.append(package)
    if missing:
        print("installing the peers' packages:", " ".join(missing + ["gmsh"]), flush=True)
        subprocess.run([str(ROOT / "tools" / "install-deps.sh"), "gmsh", *missing], check=True)
        importlib.invalidate_caches()


def import_tessel3d(build):
    """The tessel3d package of a build tree (build/<preset>/python)."""
    path = pathlib.Path(build) / "python"
    if not (path / "tessel3d").is_dir():
        sys.exit(f"no Python package in {path}: build the project first (make build)")
    sys.path.insert(0, str(path))
    return importlib.import_module("tessel3d")


def best_time(run, setup=None, repeat=5, budget=3.0):
    """(shortest wall time of `run` in seconds, the result of its last call). `setup`,
    untimed, runs before each call (a peer that changes its mesh in place reloads it).
    Stops after `repeat` calls or once `budget` seconds have gone by."""
    times, result = [], None
    start = time.perf_counter()
    for _ in range(max(1, repeat)):
        if setup is not None:
            setup()
        result = None
        gc.collect()
        gc.disable()
        try:
            t0 = time.perf_counter()
            result = run()
            times.append(time.perf_counter() - t0)
        finally:
            gc.enable()
        if time.perf_counter() - start > budget:
            break
    return min(times), result


# ---- NumPy geometry -----------------------------------------------------------------

def th4_six_volumes(coords, tets):
    """6 V of every TH4 in the library's orientation: (p0 - p3) . ((p1 - p3) x (p2 - p3))."""
    p3 = coords[tets[:, 3]]
    a, b, c = coords[tets[:, 0]] - p3, coords[tets[:, 1]] - p3, coords[tets[:, 2]] - p3
    return np.einsum("ij,ij->i", a, np.cross(b, c))


def orient_th4(coords, tets):
    """The tetrahedra with corners 1 and 2 swapped where the library's volume is negative."""
    tets = tets.copy()
    negative = th4_six_volumes(coords, tets) < 0
    tets[negative, 1], tets[negative, 2] = tets[negative, 2], tets[negative, 1].copy()
    return tets


def numpy_tet_volume(coords, tets_vtk):
    """Total volume of tetrahedra in VTK's (and Gmsh's) orientation, vectorised."""
    p0 = coords[tets_vtk[:, 0]]
    a, b, c = coords[tets_vtk[:, 1]] - p0, coords[tets_vtk[:, 2]] - p0, coords[tets_vtk[:, 3]] - p0
    return np.einsum("ij,ij->i", a, np.cross(b, c)).sum() / 6.0


# Six tetrahedra around the diagonal 0-6 of a hexahedron in VTK's order: exact for
# hexahedra with plane faces.
_HEX_TETS = np.array([(0, 1, 2, 6), (0, 2, 3, 6), (0, 3, 7, 6), (0, 7, 4, 6), (0, 4, 5, 6), (0, 5, 1, 6)])


def numpy_hex_volume(coords, hexa_vtk):
    p0, p6 = coords[hexa_vtk[:, 0]], coords[hexa_vtk[:, 6]]
    d = p6 - p0
    total = 0.0
    for _, b, c, _ in _HEX_TETS:
        total += np.einsum("ij,ij->", coords[hexa_vtk[:, b]] - p0, np.cross(coords[hexa_vtk[:, c]] - p0, d))
    return total / 6.0


_TH4_EDGES = ((0, 1, 2, 3), (0, 2, 1, 3), (0, 3, 1, 2), (1, 2, 0, 3), (1, 3, 0, 2), (2, 3, 0, 1))


def numpy_dihedral_angles(coords, tets):
    """The six dihedral angles (radians) of every tetrahedron, (m, 6), vectorised: at edge
    (i, j), the angle between the faces (i, j, k) and (i, j, l), from the cross products
    e x u and e x w (e the edge, u and w towards the other corners)."""
    p = [coords[tets[:, c]] for c in range(4)]
    out = np.empty((len(tets), 6))
    for column, (i, j, k, l) in enumerate(_TH4_EDGES):
        e = p[j] - p[i]
        n1, n2 = np.cross(e, p[k] - p[i]), np.cross(e, p[l] - p[i])
        cos = np.einsum("ij,ij->i", n1, n2) / np.sqrt(np.einsum("ij,ij->i", n1, n1) * np.einsum("ij,ij->i", n2, n2))
        out[:, column] = np.arccos(np.clip(cos, -1.0, 1.0))
    return out


def sorted_points(x, digits=9):
    """Coordinates rounded and sorted row-wise, to compare node sets of two meshes."""
    r = np.round(np.asarray(x, dtype=np.float64), digits) + 0.0  # + 0.0: no -0.0
    return r[np.lexsort(r.T[::-1])]


def same_points(a, b, digits=9):
    """(equal counts, largest coordinate difference) between two node sets."""
    if len(a) != len(b):
        return False, float("inf")
    if len(a) == 0:
        return True, 0.0
    return True, float(np.abs(sorted_points(a, digits) - sorted_points(b, digits)).max())


# ---- VTK ------------------------------------------------------------------------------

VTK_TETRA, VTK_WEDGE, VTK_HEXAHEDRON = 10, 13, 12


def vtk_one_thread():
    """VTK's threaded filters (Debian's build uses TBB) on one thread, as everyone else."""
    from vtkmodules.vtkCommonCore import vtkSMPTools
    vtkSMPTools.Initialize(1)
    return vtkSMPTools.GetBackend(), vtkSMPTools.GetEstimatedNumberOfThreads()


def vtk_grid(coords, cells, cell_type):
    """A vtkUnstructuredGrid of one cell type from (n, 3) coordinates and (m, k) cells in
    VTK's node order."""
    from vtkmodules.util import numpy_support as ns
    from vtkmodules.vtkCommonCore import VTK_ID_TYPE, vtkPoints
    from vtkmodules.vtkCommonDataModel import vtkCellArray, vtkUnstructuredGrid

    points = vtkPoints()
    points.SetData(ns.numpy_to_vtk(np.ascontiguousarray(coords, dtype=np.float64), deep=True))
    m, k = cells.shape
    offsets = np.arange(0, (m + 1) * k, k, dtype=np.int64)
    array = vtkCellArray()
    array.SetData(ns.numpy_to_vtk(offsets, deep=True, array_type=VTK_ID_TYPE),
                  ns.numpy_to_vtk(np.ascontiguousarray(cells, dtype=np.int64).ravel(), deep=True,
                                  array_type=VTK_ID_TYPE))
    grid = vtkUnstructuredGrid()
    grid.SetPoints(points)
    grid.SetCells(cell_type, array)
    return grid


def vtk_points(points):
    from vtkmodules.util import numpy_support as ns
    from vtkmodules.vtkCommonCore import vtkPoints
    from vtkmodules.vtkCommonDataModel import vtkPolyData

    p = vtkPoints()
    p.SetData(ns.numpy_to_vtk(np.ascontiguousarray(points, dtype=np.float64), deep=True))
    poly = vtkPolyData()
    poly.SetPoints(p)
    return poly


def to_numpy(vtk_array):
    from vtkmodules.util import numpy_support as ns
    return ns.vtk_to_numpy(vtk_array)


def machine():
    """The lines of lscpu and the memory that describe the machine."""
    keep = ("Model name", "CPU(s)", "Thread(s) per core", "L1d", "L2", "L3", "CPU max MHz", "Hypervisor")
    lines = []
    try:
        out = subprocess.run(["lscpu"], capture_output=True, text=True, check=True).stdout
        lines = [" ".join(l.split()) for l in out.splitlines() if l.split(":")[0].strip().startswith(keep)]
    except (OSError, subprocess.CalledProcessError):
        pass
    try:
        with open("/proc/meminfo") as f:
            total = int(f.readline().split()[1])
        lines.append(f"Memory: {total / 2**20:.1f} GiB")
    except OSError:
        pass
    lines.append(f"Python {sys.version.split()[0]}, NumPy {np.__version__}")
    return lines

