"""Writes a tetrahedral Gmsh mesh of about `elements` TH4 (a box with a cylindrical hole)
to a .msh 4.1 file: python3 bench/files/make_big_mesh.py big.msh [elements]."""

import sys

import gmsh


def make(path, elements=1_000_000):
    gmsh.initialize()
    try:
        gmsh.option.setNumber("General.Terminal", 0)
        gmsh.option.setNumber("General.NumThreads", 2)
        gmsh.model.add("big")
        box = gmsh.model.occ.addBox(0, 0, 0, 2, 1, 1)
        hole = gmsh.model.occ.addCylinder(1, 0.5, -0.1, 0, 0, 1.2, 0.25)
        gmsh.model.occ.cut([(3, box)], [(3, hole)])
        gmsh.model.occ.synchronize()
        volume = 2 - 3.141592653589793 * 0.25 ** 2
        # about 6 tetrahedra per h^3 of volume for Gmsh's Delaunay mesher
        h = (6.0 * volume / elements) ** (1 / 3)
        gmsh.option.setNumber("Mesh.MeshSizeMin", h)
        gmsh.option.setNumber("Mesh.MeshSizeMax", h)
        gmsh.option.setNumber("Mesh.Algorithm3D", 10)  # HXT: parallel
        for dim in (2, 3):
            tags = [t for _, t in gmsh.model.getEntities(dim)]
            gmsh.model.setPhysicalName(dim, gmsh.model.addPhysicalGroup(dim, tags), "boundary" if dim == 2 else "solid")
        gmsh.model.mesh.generate(3)
        gmsh.option.setNumber("Mesh.MshFileVersion", 4.1)
        gmsh.write(path)
    finally:
        gmsh.finalize()


if __name__ == "__main__":
    make(sys.argv[1], int(float(sys.argv[2])) if len(sys.argv) > 2 else 1_000_000)
