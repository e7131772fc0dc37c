"""Shared meshes for the tessel3d Python tests: unit elements and structured boxes built
here with NumPy, so that the expected values are known independently of the library."""

import os
import sys

import numpy as np
import pytest

try:
    import tessel3d  # noqa: F401  (PYTHONPATH set by CTest)
except ImportError:  # run by hand from the source tree: use the release build
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path.insert(0, os.path.join(here, "..", "..", "build", "release", "python"))

ABSENT = 0xFFFFFFFF

CUBE = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [1, 1, 1], [0, 1, 1]], float)
# Unit elements of this library, positively oriented (a TH4 with node 3 below 0-1-2).
UNIT = {
    "TH4": (np.array([[0, 0, 0], [0, 1, 0], [1, 0, 0], [0, 0, 1]], float), [[0, 1, 2, 3]], 1 / 6),
    "PY5": (np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0], [0, 0, 1]], float), [[0, 1, 2, 3, 4]], 1 / 3),
    "W6": (np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [0, 0, 1], [1, 0, 1], [0, 1, 1]], float),
           [[0, 1, 2, 3, 4, 5]], 1 / 2),
    "H8": (CUBE, [list(range(8))], 1.0),
}


def signed_volume_th4(p):
    """Six times the signed volume in this library's TH4 convention."""
    return np.einsum("ij,ij->i", p[:, 0] - p[:, 3], np.cross(p[:, 1] - p[:, 3], p[:, 2] - p[:, 3]))


def box(kind, n=(2, 2, 2), size=(1.0, 1.0, 1.0), jitter=0.0, seed=1):
    """An nx x ny x nz box of H8, W6 (2 per cell), TH4 (6 per cell around the diagonal
    0-6) or PY5 (6 per cell, apex at the cell centre), every element positive."""
    nx, ny, nz = n
    px, py, pz = nx + 1, ny + 1, nz + 1
    g = np.stack(np.meshgrid(np.linspace(0, size[0], px), np.linspace(0, size[1], py), np.linspace(0, size[2], pz),
                             indexing="ij"), axis=-1)
    coords = g.transpose(2, 1, 0, 3).reshape(-1, 3).copy()
    if jitter:
        rng = np.random.default_rng(seed)
        interior = np.all((coords > 1e-12) & (coords < np.array(size) - 1e-12), axis=1)
        h = np.array(size) / np.array(n)
        coords[interior] += rng.uniform(-jitter, jitter, (interior.sum(), 3)) * h

    def node(i, j, k):
        return (k * py + j) * px + i
    cells, centres = [], []
    for k in range(nz):
        for j in range(ny):
            for i in range(nx):
                c = [node(i, j, k), node(i + 1, j, k), node(i + 1, j + 1, k), node(i, j + 1, k),
                     node(i, j, k + 1), node(i + 1, j, k + 1), node(i + 1, j + 1, k + 1), node(i, j + 1, k + 1)]
                if kind == "H8":
                    cells.append(c)
                elif kind == "W6":
                    cells += [[c[0], c[1], c[2], c[4], c[5], c[6]], [c[0], c[2], c[3], c[4], c[6], c[7]]]
                elif kind == "TH4":
                    for a, b in ((1, 2), (2, 3), (3, 7), (7, 4), (4, 5), (5, 1)):
                        cells.append([c[0], c[a], c[b], c[6]])
                elif kind == "PY5":
                    apex = len(coords) + len(centres)
                    centres.append(coords[c].mean(axis=0))
                    for face in ((0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7), (0, 1, 2, 3), (4, 7, 6, 5)):
                        cells.append([c[f] for f in face] + [apex])
    if centres:
        coords = np.concatenate([coords, centres])
    cells = np.array(cells, dtype=np.uint32)
    if kind == "TH4":
        negative = signed_volume_th4(coords[cells]) < 0
        cells[negative] = cells[negative][:, [1, 0, 2, 3]]
    return coords, cells


@pytest.fixture
def unit():
    return UNIT
