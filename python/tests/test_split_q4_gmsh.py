"""The conforming split along quadrangles on meshes that Gmsh builds: a plate with a hole
and a slot, its quadrangles and leftover triangles extruded into hexahedra and wedges."""

import os
import subprocess
import sys

import numpy as np
import pytest

import tessel3d as t3
from tessel3d import io as mio

gmsh = pytest.importorskip("gmsh", reason="Gmsh's Python module (Debian python3-gmsh) is not installed")

# Faces of the 8-column layout, by kind (right-hand normals pointing into the element).
FACES = {4: [(1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0)],
         5: [(0, 4, 1), (1, 4, 2), (2, 4, 3), (3, 4, 0), (0, 1, 2, 3)],
         6: [(0, 1, 2), (3, 5, 4), (2, 1, 4, 5), (0, 2, 5, 3), (1, 0, 3, 4)],
         8: [(0, 3, 7, 4), (1, 5, 6, 2), (0, 4, 5, 1), (3, 2, 6, 7), (0, 1, 2, 3), (4, 7, 6, 5)]}


def generate(path):
    gmsh.initialize()
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        occ = gmsh.model.occ
        plate = occ.addRectangle(0, 0, 0, 2, 1)
        hole, slot = occ.addDisk(0.6, 0.5, 0, 0.25, 0.25), occ.addRectangle(1.3, 0.2, 0, 0.05, 0.8)
        occ.cut([(2, plate)], [(2, hole), (2, slot)])
        occ.synchronize()
        gmsh.option.setNumber("Mesh.MeshSizeMax", 0.12)
        gmsh.option.setNumber("Mesh.RecombineAll", 1)
        gmsh.option.setNumber("Mesh.RecombinationAlgorithm", 0)  # simple: leaves some triangles
        surfaces = gmsh.model.getEntities(2)
        occ.extrude(surfaces, 0, 0, 0.3, numElements=[3], recombine=True)
        occ.synchronize()
        gmsh.model.mesh.generate(3)
        gmsh.write(path)
    finally:
        gmsh.finalize()


def solids_from_gmsh(tmp_path):
    path = str(tmp_path / "plate.msh")
    code = f"import test_split_q4_gmsh as t; t.generate({path!r})"
    subprocess.run([sys.executable, "-c", code], cwd=os.path.dirname(os.path.abspath(__file__)), check=True)
    mesh = mio.read(path)
    blocks = [c for kind, c in mesh.cells.items() if kind in ("H8", "W6", "PY5", "TH4")]
    return mesh.coords, t3.mixed(blocks)


def faces_of(connect):
    """(sorted nodes, nodes as the element sees them) of every face."""
    for column in connect:
        nodes = int((column != t3.ABSENT).sum())
        for face in FACES[nodes]:
            seen = tuple(int(column[k]) for k in face)
            yield tuple(sorted(seen)), seen


def quadrangles_facing_triangles(connect):
    """Quadrangle faces whose two triangles along one diagonal are faces too."""
    triangles, quads = set(), []
    for key, seen in faces_of(connect):
        if len(seen) == 4:
            quads.append(seen)
        else:
            triangles.add(key)
    halves = lambda q, k: (tuple(sorted((q[k], q[k + 1], q[k + 2]))), tuple(sorted((q[k + 2], q[(k + 3) % 4], q[k]))))
    return sum(all(h in triangles for h in halves(q, k)) for q in quads for k in (0, 1))


def test_conforming_split_of_a_gmsh_mesh_with_a_hole_and_a_slot(tmp_path):
    coords, connect = solids_from_gmsh(tmp_path)
    kinds = {int((c != t3.ABSENT).sum()) for c in connect}
    assert kinds == {6, 8}, "hexahedra and wedges expected"
    total = t3.volume(coords, connect)
    exact = 0.3 * (2 - np.pi * 0.25 ** 2 - 0.05 * 0.8)
    assert exact < total < exact + 0.3 * np.pi * 0.25 ** 2 * 0.05  # the hole is a polygon inside the circle
    sides = {}
    for key, seen in faces_of(connect):
        if len(seen) == 4:
            sides.setdefault(key, []).append(seen)
    interior = [v for v in sides.values() if len(v) == 2]
    rng = np.random.default_rng(3)
    chosen = [v for v in interior if rng.random() < 0.25]
    once = [v[rng.integers(2)] for v in chosen]
    twice = [q for v in chosen for q in v]
    broken_strictly = 0
    for listed in (once, twice):
        for threshold in (-1.0, 0.3, 0.5):
            r = t3.split_solid_q4(coords, connect, listed, threshold)
            assert quadrangles_facing_triangles(r.connect) == 0
            assert t3.volume(r.coords, r.connect) == pytest.approx(total, rel=1e-12)
            assert (t3.element_volumes(r.coords, r.connect) > 0).all()
            assert (np.diff(r.failed.astype(np.int64)) > 0).all()
            assert set(r.reasons.tolist()) <= {1, 2, 3}
            if threshold < 0:
                assert r.failed.size == 0
            broken_strictly += quadrangles_facing_triangles(
                t3.split_solid_q4(coords, connect, listed, threshold, strict=True).connect)
    assert broken_strictly > 0
