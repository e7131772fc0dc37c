#!/usr/bin/python3
"""Speed of tessel3d side by side with Gmsh, VTK, SciPy and NumPy, in one run on the same
meshes, then the time per element of every family of the library from 10^3 elements up.

    make bench-peers                      # or:
    PYTHONPATH=build/release/python /usr/bin/python3 bench/peers/run_peers.py

Options: --quick (the 10^4 meshes only, a short scaling), --sizes 1e4 1e5 (the tetrahedral
meshes), --scaling-max 1e6, --out DIR (results.json, performance.md, scaling.png),
--update-docs (copies the table and the plot into docs/). The peers' Debian packages are
installed when missing.
"""

import argparse
import json
import pathlib
import shutil
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import common as C  # noqa: E402


def parse():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--build", default=str(C.ROOT / "build" / "release"), help="build tree holding python/tessel3d")
    p.add_argument("--quick", action="store_true", help="10^4 meshes only and scaling up to 10^5")
    p.add_argument("--sizes", type=float, nargs="+", help="tetrahedra of the cube with a hole (default 1e4 1e5 1e6)")
    p.add_argument("--surface", type=float, help="faces of the extruded surfaces (default 1e5, 1e4 with --quick)")
    p.add_argument("--box-max", type=float, default=1e5, help="largest hexahedral box (default 1e5)")
    p.add_argument("--layers", type=int, default=10, help="layers of the extrusions")
    p.add_argument("--points", type=float, help="points to locate (default: the element count, at most 1e5)")
    p.add_argument("--scaling-max", type=float, help="largest mesh of the scaling (default 1e7, 1e5 with --quick)")
    p.add_argument("--fine", action="store_true", help="scaling at half decades too (3e3, 3e4, ...)")
    p.add_argument("--no-peers", action="store_true", help="only the scaling")
    p.add_argument("--no-scaling", action="store_true", help="only the comparison")
    p.add_argument("--threads", type=int, default=1,
                   help="threads of tessel3d's calls (default 1, as every peer; 0: every core)")
    p.add_argument("--out", default=str(C.ROOT / "build" / "peers"), help="output directory")
    p.add_argument("--update-docs", action="store_true", help="write the table and plot into docs/")
    a = p.parse_args()
    a.sizes = [int(s) for s in (a.sizes or ([1e4] if a.quick else [1e4, 1e5, 1e6]))]
    a.surface = int(a.surface or (1e4 if a.quick else 1e5))
    a.scaling_max = int(a.scaling_max or (1e5 if a.quick else 1e7))
    return a


def compare(a, t3, log):
    import numpy as np

    import cases
    import meshes as M
    from tessel3d import io

    b = cases.Bench(t3, io, log=log)
    backend, threads = C.vtk_one_thread()
    log(f"VTK's threads: {backend}, {threads}; Gmsh's timed operations: 1 thread")
    M.start()
    work = pathlib.Path(tempfile.mkdtemp(prefix="tessel3d-peers-"))
    try:
        for size in a.sizes:
            name = f"TH4 {size:.0e}".replace("e+0", "e")
            t0 = time.perf_counter()
            mesh = M.tet_cube(size, work / f"cube_{size}.msh", io)
            m = len(mesh.tets)
            log(f"\n== cube with a hole: {m} TH4, {len(mesh.coords)} nodes (Gmsh meshed it in "
                f"{time.perf_counter() - t0:.1f} s)")
            b.check(f"{name}: every node at its own place (a conforming mesh)",
                    len(np.unique(mesh.coords, axis=0)) == len(mesh.coords), "Gmsh left duplicate nodes")
            reference = cases.volume(b, name, mesh.coords, mesh.tets, mesh.vtk_tets, C.VTK_TETRA)
            cases.angles(b, name, mesh)
            edges = len(np.unique(_edges(mesh.tets), axis=0))
            cases.quadratic(b, name, mesh.coords, mesh.tets, mesh.msh, 11, edges)
            cases.split(b, name, mesh.coords, mesh.tets, mesh.msh, 4, reference)
            k = int(a.points or min(m, 100000))
            points = np.random.default_rng(7).random((k, 3))
            cases.location(b, name, mesh, points)
            cases.interpolation(b, name, mesh, points)
            cases.duplication(b, name, mesh)
            del mesh

        for size in [s for s in a.sizes if s <= a.box_max] or a.sizes[:1]:
            box = M.hex_box(size, work / f"box_{size}.msh")
            name = f"H8 {len(box.hexa):.0e}".replace("e+0", "e")
            log(f"\n== box: {len(box.hexa)} H8, {len(box.coords)} nodes")
            cases.volume(b, name, box.coords, box.hexa, box.hexa, C.VTK_HEXAHEDRON)
            k3 = round(len(box.hexa) ** (1 / 3))
            extra = 3 * k3 * (k3 + 1) ** 2 + 3 * k3 * k3 * (k3 + 1) + k3 ** 3  # edges, faces, centres
            cases.quadratic(b, name, box.coords, box.hexa, box.msh, 12, extra)
            cases.split(b, name, box.coords, box.hexa, box.msh, 8, 1.0)

        log(f"\n== extrusion of {a.surface} faces into {a.layers} layers")
        cases.extrusion(b, a.surface, a.layers, quads=False)
        cases.extrusion(b, a.surface, a.layers, quads=True)
    finally:
        M.stop()
        shutil.rmtree(work, ignore_errors=True)
    return b


def _edges(tets):
    import numpy as np
    pairs = np.concatenate([tets[:, [i, j]] for i, j in ((0, 1), (0, 2), (0, 3), (1, 2), (1, 3), (2, 3))])
    return np.sort(pairs, axis=1)


def main():
    a = parse()
    C.ensure_peers()
    t3 = C.import_tessel3d(a.build)
    t3.set_threads(a.threads)
    out = pathlib.Path(a.out)
    out.mkdir(parents=True, exist_ok=True)
    def log(text=""):
        print(text, flush=True)

    start = time.perf_counter()
    results = {"machine": C.machine(), "rows": [], "disagreements": [], "scaling": {}}
    if not a.no_peers:
        b = compare(a, t3, log)
        results["rows"], results["disagreements"] = b.rows, b.disagreements
        log(f"\n{b.checks} checks, {len(b.disagreements)} disagreements")
        for d in b.disagreements:
            log("  " + d)
    if not a.no_scaling:
        import scaling
        results["scaling"] = scaling.run(t3, a.scaling_max, log, scaling.FINE if a.fine else None)
        scaling.plot(results["scaling"], out / "scaling.png")
    results["seconds"] = time.perf_counter() - start
    (out / "results.json").write_text(json.dumps(results, indent=1))
    import report
    text = report.markdown(results)
    (out / "performance.md").write_text(text)
    log("\n" + text)
    log(f"written to {out} ({results['seconds']:.0f} s in all)")
    if a.update_docs:
        report.update_docs(results, out / "scaling.png", C.ROOT / "docs")


if __name__ == "__main__":
    main()
